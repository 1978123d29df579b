#ifndef VELTA_BENCHMARKS_ALERT_PEERS_H
#define VELTA_BENCHMARKS_ALERT_PEERS_H

#include <memory>
#include <string>
#include <vector>

#include "benchmarks/alert/measurements.h"

// What else tells of a change of the account file, set up in a private "/etc": what they write stays in
// there. Only a control group stands outside, for the time that a Peers lives.
//
// Thread use: one thread at a time, inside a private "/etc" that outlives it.
class Peers {
 public:
  struct Absent {
    std::string name;
    std::string reason;
  };

  // Tries those that a machine may refuse, which takes seconds. `quick`: leaves out who is slow.
  Peers(const Plan& plan, bool quick);
  ~Peers();
  Peers(const Peers&) = delete;
  Peers& operator=(const Peers&) = delete;

  const std::vector<Entry>& Present() const { return present; }
  const std::vector<Absent>& LeftOut() const { return leftOut; }

 private:
  class PathUnit;
  template <typename Maker>
  void AddIfItWorks(const Plan& plan, const std::string& name, const Maker& make);
  void LeaveOut(const std::string& name, const std::string& reason);

  std::vector<Entry> present;
  std::vector<Absent> leftOut;
  std::unique_ptr<PathUnit> pathUnit;
};

#endif  // VELTA_BENCHMARKS_ALERT_PEERS_H
