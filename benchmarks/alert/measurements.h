#ifndef VELTA_BENCHMARKS_ALERT_MEASUREMENTS_H
#define VELTA_BENCHMARKS_ALERT_MEASUREMENTS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "benchmarks/alert/contestant.h"

// How much of everything.
struct Plan {
  std::size_t accounts = 50;
  std::size_t rounds = 10;
  std::size_t changes = 2000;      // of each contestant that is compared, over all rounds
  std::size_t peerChanges = 200;   // of each of the others
  std::size_t pairChanges = 1000;  // of the floor and of the agent, under other circumstances
  std::vector<std::size_t> sizes = {50, 1000, 10000, 100000};
  std::size_t changesOfSize = 40;
  std::size_t bursts = 6;
  std::chrono::milliseconds burst{10000};
  std::uint64_t seed = 1;
};

// Each writes one sample a line under the folder, and tells on standard error how far it is. All of them need
// a private "/etc" and throw std::runtime_error when a contestant cannot be used or a result cannot be
// written.
//
// One contestant runs at a time: two that answer the same change would take the processors from each other,
// and stopping all but one would leave the others with a heap of events. So they take turns, a block of
// changes each, and the order turns with every round. A block begins with changes that are not counted.
//
// Where nothing else is said, there is a pause of random length before each change, the same for all, in
// which the contestant comes to rest.

struct Entry {
  Contestant contestant;
  std::size_t changes;
  std::size_t rounds = SIZE_MAX;  // it takes part in the first so many of the plan
  std::size_t warmUp = 20;        // changes at the begin of a block that are not counted
};

// Throws std::runtime_error when the contestant tells of no change here, after half a minute.
void RequireAnswer(const Plan& plan, const Contestant& contestant);

// Time to alert, and what the changes of a block have cost: alert.csv, alert_blocks.csv. The next change is
// made as soon as the alert about the last one has been read. A change without an alert is a line without a
// time.
void MeasureAlerts(const Plan& plan, const std::vector<Entry>& entries, const std::string& folder);

// The same with a pause before each change: alert_rested.csv.
void MeasureRested(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder);

// With a pause, and with as many busy processes as there are processors: alert_busy.csv.
void MeasureBusy(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder);

// As in MeasureAlerts, with the contestant held on the processor that changes the file ("same"), and on
// another one ("other"; not where there is only one): alert_placed.csv. Elsewhere that is the kernel's
// choice.
void MeasurePlaced(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder);

// Time to alert by the size of the file: alert_accounts.csv.
void MeasureAccounts(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder);

// A thousand changes a second, and how long the alert about the last one of a burst takes: alert_load.csv.
void MeasureLoad(const Plan& plan, const std::vector<Contestant>& contestants, const std::string& folder);

#endif  // VELTA_BENCHMARKS_ALERT_MEASUREMENTS_H
