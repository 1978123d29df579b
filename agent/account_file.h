#ifndef VELTA_AGENT_ACCOUNT_FILE_H
#define VELTA_AGENT_ACCOUNT_FILE_H

#include <string>

// The file that the module reads; the module's own constant, which no interface of it tells.
extern const char accountFilePath[];

// Why a reading of the file must not begin, or an empty text. The module opens whatever stands there: a FIFO
// would hold its thread for ever, a folder looks like an empty file and empties what the detector knows, and
// a line of gigabytes takes as much memory. A missing or unreadable file is no obstacle: the module says so
// itself.
std::string ObstacleToReading(const std::string& path);

#endif  // VELTA_AGENT_ACCOUNT_FILE_H
