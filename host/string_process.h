#ifndef VELTA_HOST_STRING_PROCESS_H
#define VELTA_HOST_STRING_PROCESS_H

#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace Utils {
namespace StringProcess {

// Splits text at every separator. With skipEmpty false, empty pieces are kept: a line with six separators
// always gives seven pieces.
//
// Thread use: any thread.
std::vector<std::string> StrSplit(const std::string& text, const std::string& separator, bool skipEmpty);

}  // namespace StringProcess
}  // namespace Utils

// Turns text into a number of at most 32 bits; false when it is none, and value is then of no meaning.
//
// Thread use: any thread.
bool ConvertStrToNum(const std::string& text, unsigned& value, int base);

#pragma GCC visibility pop

#endif  // VELTA_HOST_STRING_PROCESS_H
