#ifndef VELTA_AGENT_UNCOVERED_ACCOUNTS_H
#define VELTA_AGENT_UNCOVERED_ACCOUNTS_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

// An account as the C library reads it, on a line that the module's rules do not turn into its record.
struct UncoveredAccount {
  std::string userName;
  unsigned uid;
  unsigned gid;
  std::string shell;
  std::string home;
  std::size_t line;    // counts from 1
  const char* reason;  // why the module does not see it; one of the texts in the table of docs/coverage.md

  bool operator==(const UncoveredAccount& other) const;
};

// Calls found for every account of the content that has user ID 0 for the C library at hand, is not named
// "root", and stands on a line that the module passes over; in the order of the lines. Ends early when found
// returns false, or as soon as *stop is true.
//
// The C library's own reader is asked about each such line that could be one. Throws std::bad_alloc, and what
// found throws.
void ForEachUncoveredRoot(const std::string& content,
                          const std::function<bool(const UncoveredAccount&)>& found,
                          const std::atomic<bool>* stop = nullptr);

std::vector<UncoveredAccount> FindUncoveredRoots(const std::string& content);

#endif  // VELTA_AGENT_UNCOVERED_ACCOUNTS_H
