#ifndef VELTA_TESTS_CONTRACT_HOST_UNDER_TEST_H
#define VELTA_TESTS_CONTRACT_HOST_UNDER_TEST_H

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

// What the maker of an agent supplies, so that this suite can look at it: compile the suite with a definition
// of this class and with whatever defines the functions of host/. Everything else the suite does through
// host/.
//
// While one exists, every service of host/ works; afterwards none is called. Each test makes one, so a
// process may see many, one after the other. Configured like this:
// - the limit of events a minute is 1000 or more;
// - the log keeps records of every level.
//
// The suites whose names begin with Advised test what the module can live without, and what the design of the
// agent may well decide otherwise: --gtest_filter=-Advised* leaves them out. All others must pass.
//
// Thread use: made, asked and destroyed on one thread; the services themselves are called on many.
class HostUnderTest {
 public:
  HostUnderTest();
  ~HostUnderTest();
  HostUnderTest(const HostUnderTest&) = delete;
  HostUnderTest& operator=(const HostUnderTest&) = delete;

  // Waits until count events have left the send queue, at most for limit; returns all that have left so far,
  // in the order in which they left, each without whatever frames it (a line end, a length).
  std::vector<std::string> SentEvents(std::size_t count, std::chrono::milliseconds limit);

  // Everything that has been logged so far, the log of the start included.
  std::string LogText();

 private:
  struct Parts;
  std::unique_ptr<Parts> parts;
};

#endif  // VELTA_TESTS_CONTRACT_HOST_UNDER_TEST_H
