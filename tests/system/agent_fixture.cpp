#include "tests/system/agent_fixture.h"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <stdexcept>

#include <gmock/gmock.h>

#include "tests/system/tool.h"

using testing::HasSubstr;

CoveredFolder::CoveredFolder(const char* folder) : path(folder) {
  if (mount("tmpfs", path, "tmpfs", 0, "mode=755") != 0) {
    throw std::runtime_error(std::string("cannot cover ") + path + ": " + std::strerror(errno));
  }
}

CoveredFolder::~CoveredFolder() { umount2(path, MNT_DETACH); }

Readings::Readings() : descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
  if (inotify_add_watch(descriptor, "/etc", IN_CLOSE_NOWRITE) < 0) {
    throw std::runtime_error("readings of the account file cannot be watched");
  }
}

Readings::~Readings() { close(descriptor); }

bool Readings::WaitForOne() {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd readable = {descriptor, POLLIN, 0};
    poll(&readable, 1, 100);
    alignas(inotify_event) std::array<char, 4096> events;
    const ssize_t length = read(descriptor, events.data(), events.size());
    for (ssize_t at = 0; at < length;) {
      const auto* const event = reinterpret_cast<const inotify_event*>(&events[static_cast<std::size_t>(at)]);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->len > 0 && std::string(event->name) == "passwd") {
        return true;
      }
    }
  }
  return false;
}

const char AgentFixture::rootAndAlice[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "alice:x:1000:0::/nowhere:/bin/sh\n";

AgentFixture::AgentFixture() { etc.WritePasswd(rootAndAlice); }

const std::vector<std::string>& AgentFixture::Plain() {
  static const std::vector<std::string> arguments;
  return arguments;
}

std::unique_ptr<AgentProcess> AgentFixture::Watching(const std::vector<std::string>& arguments,
                                                     const Circumstances& circumstances) {
  auto agent = std::make_unique<AgentProcess>(arguments, circumstances);
  const std::string begin = agent->LogUntil("watching /etc/passwd");
  EXPECT_THAT(begin, HasSubstr("watching /etc/passwd")) << begin;
  return agent;
}

void AgentFixture::ExpectSilence(AgentProcess& agent) {
  const std::string marker = "zz-marker-" + std::to_string(++markers);
  etc.AppendPasswd(RootLine(marker));
  EXPECT_EQ(agent.NextAlert(), AlertFor(marker));
}

void AgentFixture::ExpectOrderlyEnd(AgentProcess& agent, int signal) {
  agent.Send(signal);
  EXPECT_EQ(agent.RestOfAlerts(), "");
  EXPECT_EQ(agent.ExitCode(), 0) << agent.RestOfLog();
}

void AgentFixture::Do(const std::string& command) {
  const ToolResult result = RunTool({"sh", "-c", "cd /etc && " + command});
  ASSERT_EQ(result.exitCode, 0) << command << ": " << result.output;
}
