// Compiled, never linked: the compiler checks the calls of the log against their formats. With one of the two
// macros, one of the calls is wrong.

#include "host/logger.h"

void Log(int line, const char* name);

void Log(int line, const char* name) {
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, 1, "log_format.cpp", 1, 0, "[line=%d][name=%s]", line, name);
  WriteStartupLog("[line=%d][name=%s]", line, name);
#ifdef VELTA_WRONG_LoggerWriteLog
  LoggerWriteLog(ORVAK_AGENT_LOG_DIAGNOSTIC, 0, 1, "log_format.cpp", 1, 0, "[line=%d]", name);
#endif
#ifdef VELTA_WRONG_WriteStartupLog
  WriteStartupLog("[line=%d]", name);
#endif
}
