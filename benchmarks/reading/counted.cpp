// Runs what is counted in instructions so many times: the difference between two counts is what one costs.

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "benchmarks/reading/accounts.h"
#include "benchmarks/reading/quiet_host.h"
#include "collector/passwd_info.h"
#include "detect/unauthorized_root_user.h"
#include "module/detect_user.h"

namespace {

constexpr char usage[] =
    "Usage: velta_bench_counted reading|alert TIMES\n"
    "  reading  of a file of 1,000 accounts in no order, which is what the last reading found, too\n"
    "  alert    of one account, up to the send queue\n";

void Alert() {
  static const PasswdInfo toor = {"toor", 0, 0, "/home/toor", "/bin/bash", 1};
  UnauthorizedRootUser::GetInstance().SendUserAlert(toor);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(usage, stdout);
    return 0;
  }
  const bool reading = argc == 3 && std::strcmp(argv[1], "reading") == 0;
  const bool alert = argc == 3 && std::strcmp(argv[1], "alert") == 0;
  const long times = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
  if ((!reading && !alert) || times < 1) {
    std::fputs(usage, stderr);
    return 2;
  }
  WriteAccountFile(AccountFile(1000, Order::Shuffled));
  if (StartModule(R"({"unauthorized-root-user": {}})") != 1) {
    std::fputs("the module did not start\n", stderr);
    return 1;
  }
  RunTask();
  for (long done = 0; done < times; ++done) {
    if (reading) {
      RunTask();
    } else {
      Alert();
    }
  }
  StopModule();
  return SentEvents() == (alert ? static_cast<std::size_t>(times) : 0) ? 0 : 1;
}
