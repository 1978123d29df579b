#ifndef VELTA_HOST_LOGGER_H
#define VELTA_HOST_LOGGER_H

#pragma GCC visibility push(default)

// The kind of record that a log call writes. The agent may know more kinds; these two are used here.
enum OrvakAgentDotLogType {
  ORVAK_AGENT_LOG_CODED = 0,       // the record is its code; the format is empty
  ORVAK_AGENT_LOG_DIAGNOSTIC = 2,  // the record is its text; the code is 0
};

// Writes one record to the agent's log.
//
// level is 0 for verbatim input, 1 for outcomes and notices, 2 for failures. file is the name of the calling
// source without a folder, line a number that is fixed per call: filters match on the pair. reserved is
// always 0. A null pointer for a %s is legal and must be printed, not followed.
//
// Thread use: any thread, also while the caller holds a lock; must not call back into the module.
void LoggerWriteLog(OrvakAgentDotLogType type, unsigned code, unsigned level, const char* file, int line,
                    int reserved, const char* format, ...) __attribute__((format(printf, 7, 8)));

// Writes one line to the log that the agent keeps of its start. The same rules as above.
void WriteStartupLog(const char* format, ...) __attribute__((format(printf, 1, 2)));

#pragma GCC visibility pop

#endif  // VELTA_HOST_LOGGER_H
