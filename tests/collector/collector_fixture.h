#ifndef VELTA_TESTS_COLLECTOR_COLLECTOR_FIXTURE_H
#define VELTA_TESTS_COLLECTOR_COLLECTOR_FIXTURE_H

#include <gtest/gtest.h>

#include "bus/message_bus.h"
#include "collector/user_info_collector.h"
#include "tests/support/account_file.h"
#include "tests/support/recording_host.h"

// The one collector of the process, in static storage as the module's is: the file callback binds to the
// first collector that ever watches.
inline UserInfoCollector& TheCollector() {
  static UserInfoCollector collector;
  return collector;
}

class CollectorTest : public testing::Test {
 protected:
  using Snapshot = std::vector<PasswdInfo>;

  CollectorTest() { CleanUp(); }
  ~CollectorTest() override { CleanUp(); }

  // Calls of a module that has a task 7 and a watch 5.
  static constexpr const char* registerCall =
      "register user_coll_task kind 1 first 10000 second 300000 switch 1 other bytes 0";
  static constexpr const char* addCall =
      "add \"" VELTA_PASSWD_FILE "\" kind 1 switches 0001110001 id 0 with callback";
  static constexpr const char* removeCall =
      "remove \"" VELTA_PASSWD_FILE "\" kind 0 switches 0001110001 id 5 with callback";

  AccountFile file;
  RecordingHost& host = RecordingHost::Get();
  UserInfoCollector& collector = TheCollector();

 private:
  void CleanUp() {
    host.onCall = nullptr;
    collector.Stop();
    host.Reset();
    MessageBus::GetSubList<const Snapshot&>().clear();
  }
};

#endif  // VELTA_TESTS_COLLECTOR_COLLECTOR_FIXTURE_H
