#ifndef VELTA_FUZZ_MEMORY_FILE_H
#define VELTA_FUZZ_MEMORY_FILE_H

#include <string>

// There is one file in memory, under the path VELTA_MEMORY_FILE, which the build names.
// Makes content all that the file holds.
void WriteMemoryFile(const std::string& content);

#endif  // VELTA_FUZZ_MEMORY_FILE_H
