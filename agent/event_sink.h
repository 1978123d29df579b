#ifndef VELTA_AGENT_EVENT_SINK_H
#define VELTA_AGENT_EVENT_SINK_H

#include <chrono>
#include <cstddef>
#include <string>

#include "agent/event_output.h"

// Events as lines: on standard output, or in a file or FIFO that it opens for appending (mode 0640) and opens
// again when it was rotated, removed or lost its reader.
//
// Only whole records leave: one that got through half is finished first, taken back, or written again on a
// line of its own, and never joined to the next.
//
// Thread use: one thread at a time.
class EventSink : public EventOutput {
 public:
  // path "-" is standard output. Throws std::runtime_error, naming the path, when it can never work; a FIFO
  // without a reader yet is no failure.
  explicit EventSink(const std::string& outputPath);
  ~EventSink() override;
  EventSink(const EventSink&) = delete;
  EventSink& operator=(const EventSink&) = delete;

  // Writes the event and a newline.
  Outcome Write(const std::string& event, std::chrono::milliseconds patience) override;

  bool NeverWaits() const override { return pipeOfOwn; }
  const std::string& Error() const override { return error; }
  const std::string& Name() const override { return name; }

 private:
  bool IsStandardOutput() const { return path.empty(); }
  void UsePipeOfOwn();
  bool OpenFile();  // false, with the error set, when that failed
  void Close();
  bool FileWasReplaced() const;
  Outcome Fail(const char* operation);
  Outcome WriteRegular(const std::string& record);
  Outcome WriteStream(const std::string& record, std::chrono::milliseconds patience);

  std::string path;  // empty for standard output
  std::string name;
  int descriptor = -1;
  bool regular = false;
  bool pipeOfOwn = false;     // the descriptor is a non-blocking one, of standard output
  bool needsNewline = false;  // the output ends in a piece of a record
  std::size_t sent = 0;       // of the current record, to a stream
  std::string error;
};

#endif  // VELTA_AGENT_EVENT_SINK_H
