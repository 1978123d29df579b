#ifndef VELTA_BENCH_READING_ACCOUNTS_H
#define VELTA_BENCH_READING_ACCOUNTS_H

#include <cstddef>
#include <string>

enum class Order { Sorted, Shuffled };

// The text of an account file: root first, then ordinary accounts, each name once, in the order of the names
// or in one that is as good as random, the same in every run.
std::string AccountFile(std::size_t accounts, Order order);

// The same, but all ordinary accounts have one name.
std::string RepeatedAccountFile(std::size_t accounts);

// Makes text the whole account file that the module reads here, and that the reference reads.
void WriteAccountFile(const std::string& text);

#endif  // VELTA_BENCH_READING_ACCOUNTS_H
