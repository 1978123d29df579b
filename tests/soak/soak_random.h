#ifndef VELTA_TESTS_SOAK_SOAK_RANDOM_H
#define VELTA_TESTS_SOAK_SOAK_RANDOM_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>
#include <thread>

// The choices of a run: the same for the same seed on every machine, as the standard's distributions are not.
class SoakRandom {
 public:
  explicit SoakRandom(std::uint64_t seed) : engine(seed) {}

  std::size_t Below(std::size_t limit) { return static_cast<std::size_t>(engine() % limit); }
  bool Chance(unsigned percent) { return Below(100) < percent; }

  // Mostly none or next to none; now and then longer than the agent puts off a report.
  void Pause() {
    const std::size_t kind = Below(200);
    if (kind == 0) {
      Sleep(1200 + Below(600));
    } else if (kind < 10) {
      Sleep(Below(200));
    } else if (kind < 60) {
      std::this_thread::sleep_for(std::chrono::microseconds(Below(8000)));
    }
  }

  static void Sleep(std::size_t ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

 private:
  std::mt19937_64 engine;
};

#endif  // VELTA_TESTS_SOAK_SOAK_RANDOM_H
