#ifndef VELTA_AGENT_EVENT_OUTPUT_H
#define VELTA_AGENT_EVENT_OUTPUT_H

#include <chrono>
#include <string>

// Where events leave the agent. An event that did not get through stays the caller's, who tries the same one
// again.
//
// Thread use: Write and Error on one thread at a time; Name on any.
class EventOutput {
 public:
  enum class Outcome {
    Delivered,
    Blocked,  // the reader is slow: the patience ran out; try again at once
    Failed,   // Error says why; try again later
    Refused,  // never this one, Error says why; the next may get through
  };

  virtual ~EventOutput() = default;

  // Waits for a slow reader no longer than patience.
  virtual Outcome Write(const std::string& event, std::chrono::milliseconds patience) = 0;

  // Whether a Write without patience returns at once when nobody reads, and however slow the file system is;
  // only the kernel's own copying is waited for.
  virtual bool NeverWaits() const { return false; }

  virtual const std::string& Error() const = 0;
  virtual const std::string& Name() const = 0;
};

#endif  // VELTA_AGENT_EVENT_OUTPUT_H
