#ifndef VELTA_TESTS_SYSTEM_AGENT_FIXTURE_H
#define VELTA_TESTS_SYSTEM_AGENT_FIXTURE_H

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"
#include "tests/system/agent_process.h"
#include "tests/system/private_etc.h"

// Empty in place of the machine's own, for as long as it lives; in a private mount namespace.
class CoveredFolder {
 public:
  explicit CoveredFolder(const char* folder);
  ~CoveredFolder();
  CoveredFolder(const CoveredFolder&) = delete;
  CoveredFolder& operator=(const CoveredFolder&) = delete;

 private:
  const char* path;
};

// Tells when somebody has read "/etc/passwd".
class Readings {
 public:
  Readings();
  ~Readings();
  Readings(const Readings&) = delete;
  Readings& operator=(const Readings&) = delete;

  // False when nobody did in time.
  bool WaitForOne();

 private:
  int descriptor;
};

// A private "/etc" whose account file holds root and alice, and what tests of a running agent do in it.
class AgentFixture : public testing::Test {
 protected:
  AgentFixture();

  static const std::vector<std::string>& Plain();

  // Starts one that watches, once the standing accounts are being read.
  std::unique_ptr<AgentProcess> Watching(const std::vector<std::string>& arguments,
                                         const Circumstances& circumstances = {});

  // Nothing was reported since the last alert that was taken: whatever the agent did before it saw this one
  // stands before it.
  void ExpectSilence(AgentProcess& agent);

  static void ExpectOrderlyEnd(AgentProcess& agent, int signal = SIGTERM);

  // One line of a shell, in the private "/etc".
  static void Do(const std::string& command);

  static const char rootAndAlice[];

  PrivateEtc etc;
  CoveredFolder logins{"/var/log"};  // the account tools keep books outside "/etc", too
  CoveredFolder mailboxes{"/var/mail"};
  TemporaryFolder folder;
  int markers = 0;
};

#endif  // VELTA_TESTS_SYSTEM_AGENT_FIXTURE_H
