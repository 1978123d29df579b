#ifndef VELTA_AGENT_SPARE_MEMORY_H
#define VELTA_AGENT_SPARE_MEMORY_H

#include <cstddef>

// Memory that the process holds and does not use, given back to the system. Each of these does nothing on a
// system that offers no such thing.

// Has all threads allocate from one place; before the first of them is started. A place of its own, which a
// thread gets otherwise, grows by a system call a page: a hundred thousand of them for a million accounts.
void AllocateFromOnePlace();

// Gives back freed memory, if more than `worthwhile` bytes of it are held. The allocator by itself gives back
// only what lies behind everything in use, and the accounts of a reading lie behind all that the one before
// has left: the process would stay as large as its largest reading made it. Any thread.
void GiveBackFreedMemory(std::size_t worthwhile = std::size_t{1} << 20);

// Lets go of all pages of code and constants that are mapped from files. Those that are used again come back
// from the page cache one by one; those that only the start needed, about half, do not. Any thread.
void LetGoOfFilePages();

#endif  // VELTA_AGENT_SPARE_MEMORY_H
