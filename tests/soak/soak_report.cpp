#include "tests/soak/soak_report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

namespace {

// Of sorted values.
double Quantile(const std::vector<double>& values, double share) {
  const auto last = static_cast<double>(values.size() - 1);
  return values[static_cast<std::size_t>(last * share + 0.5)];
}

}  // namespace

std::size_t SoakReport::Changes() const {
  std::size_t total = 0;
  for (const auto& entry : ways) {
    total += entry.second.count;
  }
  return total;
}

bool SoakReport::IsClean() const { return missing + invented + repeated + brokenRecords + wrongEnds == 0; }

std::ostream& operator<<(std::ostream& stream, const SoakReport& report) {
  stream << "\nchange                 count  timed  median ms     p99 ms     max ms\n" << std::fixed;
  for (const auto& [name, way] : report.ways) {
    stream << std::left << std::setw(20) << name << std::right << std::setw(8) << way.count << std::setw(7)
           << way.latencies.size();
    std::vector<double> sorted = way.latencies;
    std::sort(sorted.begin(), sorted.end());
    if (!sorted.empty()) {
      stream << std::setprecision(1) << std::setw(11) << Quantile(sorted, 0.5) << std::setw(11)
             << Quantile(sorted, 0.99) << std::setw(11) << sorted.back();
    }
    stream << "\n";
  }
  const std::pair<const char*, std::size_t> lines[] = {
      {"changes", report.Changes()},
      {"states of the file", report.states},
      {"alerts", report.alerts},
      {"exact checks", report.checks},
      {"  with a second marker", report.secondMarkers},
      {"lives of the process", report.lives},
      {"  killed", report.kills},
      {"  ended in order", report.orderlyEnds},
      {"stops", report.stops},
      {"floods of events", report.floods},
      {"policy reloads", report.reloads},
      {"full disks", report.fullDisks},
      {"blocked pipes", report.blockedPipes},
      {"repeats after an empty file was read", report.repeatsAfterEmpty},
      {"repeats after a part of one was read", report.repeatsAfterBegun},
      {"alerts of a reading that mixed two contents", report.alertsOfMixtures},
      {"broken records", report.brokenRecords},
      {"wrong ends", report.wrongEnds},
  };
  stream << "\n";
  for (const auto& [name, value] : lines) {
    stream << std::left << std::setw(46) << name << std::right << std::setw(8) << value << "\n";
  }
  return stream << report.missing << " missing, " << report.invented << " invented, " << report.repeated
                << " repeated\n";
}
