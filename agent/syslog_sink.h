#ifndef VELTA_AGENT_SYSLOG_SINK_H
#define VELTA_AGENT_SYSLOG_SINK_H

#include <optional>
#include <string>
#include <vector>

#include "agent/event_output.h"

// Gives each event to the host's log daemon as "@cee: " and the event, by the C library's syslog(3) over the
// local socket, from "velta-agent" with the process number.
//
// The library tells nobody when a record is lost, so the socket is asked first, with a connection of our own:
// whether somebody listens, and whether there is room. What goes wrong after that shows in errno, which the
// library does not promise. Where that leaves it open whether a record got through, it is sent again.
//
// Delivered means that the daemon's socket has taken the record. Nobody else is to use syslog(3) in the
// process: each record has the library connect anew, as a daemon may have been started again.
class SyslogSink : public EventOutput {
 public:
  // Severity and facility as numbers of <syslog.h>.
  SyslogSink(int recordSeverity, int recordFacility);

  Outcome Write(const std::string& event, std::chrono::milliseconds patience) override;
  const std::string& Error() const override { return error; }
  const std::string& Name() const override { return name; }

  // The names that may be given, and their numbers.
  static const std::vector<std::string>& SeverityNames();
  static const std::vector<std::string>& FacilityNames();
  static std::optional<int> SeverityOf(const std::string& name);
  static std::optional<int> FacilityOf(const std::string& name);

 private:
  Outcome Fail(int cause);

  const int severity;
  const int facility;
  const std::string name = "syslog";
  std::string error;
};

#endif  // VELTA_AGENT_SYSLOG_SINK_H
