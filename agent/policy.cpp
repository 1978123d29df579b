#include "agent/policy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "agent/file_status.h"
#include "agent/json.h"
#include "host/json.h"

const char defaultPolicy[] = R"({"unauthorized-root-user": {}})";

namespace {

constexpr std::uint64_t largestPolicy = std::uint64_t{64} << 20;  // bytes

class PolicyFile {
 public:
  // Without blocking: opening a FIFO would otherwise wait for a writer.
  explicit PolicyFile(const std::string& policyPath)
      : path(policyPath), descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
    if (descriptor < 0) {
      Refuse(std::strerror(errno));
    }
  }
  ~PolicyFile() { close(descriptor); }
  PolicyFile(const PolicyFile&) = delete;
  PolicyFile& operator=(const PolicyFile&) = delete;

  std::string Read() const {
    const std::optional<FileStatus> status = FileStatus::OfDescriptor(descriptor);
    if (!status) {
      Refuse(std::strerror(errno));
    }
    if (!status->regular) {
      Refuse("not a regular file");
    }
    if (status->size > largestPolicy) {
      Refuse("larger than 64 MiB");
    }
    std::string text;
    char buffer[65536];
    for (;;) {
      const ssize_t size = read(descriptor, buffer, sizeof(buffer));
      if (size > 0) {
        text.append(buffer, static_cast<std::size_t>(size));
      } else if (size == 0) {
        return text;
      } else if (errno != EINTR) {
        Refuse(std::strerror(errno));
      }
    }
  }

 private:
  [[noreturn]] void Refuse(const std::string& reason) const {
    throw std::runtime_error("policy " + path + ": " + reason);
  }

  std::string path;
  int descriptor;
};

}  // namespace

std::string LoadPolicy(const std::string& path) {
  std::string text = PolicyFile(path).Read();
  if (const auto fault = FindJsonFault(text)) {
    throw std::runtime_error("policy " + path + ":" + std::to_string(fault->line) + ":" +
                             std::to_string(fault->column) + ": " + fault->reason);
  }
  return text;
}

bool PolicyTurnsDetectionOn(const std::string& policy) {
  utils::MyJson::MyValue root;
  return utils::MyJson::MyCharReader().Parse(policy, root) && root.IsMember("unauthorized-root-user");
}
