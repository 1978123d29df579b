#ifndef VELTA_AGENT_STATUS_FILE_H
#define VELTA_AGENT_STATUS_FILE_H

#include <string>
#include <utility>

extern const char defaultStatusPath[];  // /run/velta-agent/status.json

// The file in which a running agent tells how it is: a new file in the place of the old one each time, so a
// reader finds one state, whole. The agent holds a lock on the file that is there. The lock ends with the
// process however it ends, so a file without one is of an agent that is gone. Only who may write the file can
// lock it like this.
//
// Thread use: one thread.
class StatusFile {
 public:
  explicit StatusFile(std::string filePath) : path(std::move(filePath)) {}
  ~StatusFile();  // removes the file, if it is this agent's
  StatusFile(const StatusFile&) = delete;
  StatusFile& operator=(const StatusFile&) = delete;

  // False when the text could not be written, or another agent holds the file; Error says which.
  bool Write(const std::string& text);
  const std::string& Error() const { return error; }

 private:
  bool Fail(const std::string& reason);
  bool WriteNew(const std::string& fresh, const std::string& text);

  const std::string path;
  int current = -1;  // the file that is there, if it is this agent's: it carries the lock
  std::string error;
};

struct StatusFound {
  bool found = false;    // there is a file, and it was read
  bool running = false;  // and its agent lives
  std::string text;
  std::string error;  // when it could not be read
};

StatusFound ReadStatusFile(const std::string& path);

#endif  // VELTA_AGENT_STATUS_FILE_H
