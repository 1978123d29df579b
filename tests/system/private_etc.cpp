#include "tests/system/private_etc.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ios>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tests/system/tool.h"

namespace {

constexpr char passwd[] = "/etc/passwd";
constexpr char rootFolder[] =
    "/proc/self/root";  // by this name an emulator takes it for no folder of the target's

void Require(bool done, const std::string& step) {
  if (!done) {
    throw std::runtime_error("no private /etc: " + step + ": " + std::strerror(errno) +
                             " (this test needs root and a mount namespace)");
  }
}

class OpenFile {
 public:
  OpenFile(const char* path, int flags) : descriptor(open(path, flags | O_CLOEXEC)) {
    Require(descriptor >= 0, std::string("opening ") + path);
  }
  ~OpenFile() { close(descriptor); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int Get() const { return descriptor; }

 private:
  int descriptor;
};

// In a chroot the kernel refuses what some tests start their agent in, a user namespace. So the root of this
// thread becomes the root of its mount namespace, which has to be private to it. Where it is that already,
// nothing changes.
void LeaveChroot() {
  const OpenFile root(rootFolder, O_PATH | O_DIRECTORY);
  const OpenFile workingFolder(".", O_PATH | O_DIRECTORY);
  const OpenFile mounts("/proc/self/ns/mnt", O_RDONLY);
  struct stat before = {};
  struct stat after = {};
  // Joining a mount namespace, be it one's own, leads to its root.
  Require(setns(mounts.Get(), CLONE_NEWNS) == 0, "the root of the mount namespace");
  Require(fstat(root.Get(), &before) == 0 && stat(rootFolder, &after) == 0, "looking at the root");
  if (before.st_dev != after.st_dev || before.st_ino != after.st_ino) {
    Require(
        fchdir(root.Get()) == 0 && syscall(SYS_pivot_root, ".", ".") == 0 && umount2(".", MNT_DETACH) == 0,
        "leaving the chroot");
  }
  Require(fchdir(workingFolder.Get()) == 0, "going back to the working folder");
}

// Where the copy stands until it covers "/etc".
class StagingFolder {
 public:
  StagingFolder() : path("/tmp/velta-etc-XXXXXX") {
    Require(mkdtemp(path.data()) != nullptr, "a folder in /tmp");
  }
  ~StagingFolder() {
    umount2(path.c_str(), MNT_DETACH);  // refused when the copy has moved on, as it should have
    rmdir(path.c_str());
  }
  StagingFolder(const StagingFolder&) = delete;
  StagingFolder& operator=(const StagingFolder&) = delete;

  const std::string& Path() const { return path; }

 private:
  std::string path;
};

void Write(const std::string& path, const std::string& content, std::ios::openmode mode) {
  std::ofstream file(path, std::ios::binary | mode);
  file << content << std::flush;
  if (!file) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace

PrivateEtc::PrivateEtc() {
  Require(unshare(CLONE_NEWNS) == 0, "unshare");
  // Before anything is mounted: a shared mount would carry it to the whole machine.
  Require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keeping mounts private");
  LeaveChroot();
  const StagingFolder staging;
  Require(mount("tmpfs", staging.Path().c_str(), "tmpfs", 0, "mode=755") == 0, "a file system in memory");
  const ToolResult copy = RunTool({"cp", "-a", "/etc/.", staging.Path()});
  if (copy.exitCode != 0) {
    throw std::runtime_error("no private /etc: cp: " + copy.output);
  }
  Require(mount(staging.Path().c_str(), "/etc", nullptr, MS_MOVE, nullptr) == 0, "covering /etc");
  struct stat folder = {};
  Require(stat("/etc", &folder) == 0, "looking at the copy");
  device = folder.st_dev;
}

PrivateEtc::~PrivateEtc() { umount2("/etc", MNT_DETACH); }

std::string PrivateEtc::Passwd() const {
  std::ifstream file(passwd, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void PrivateEtc::WritePasswd(const std::string& content) {
  RequireCopy();
  Write(passwd, content, std::ios::trunc);
}

void PrivateEtc::AppendPasswd(const std::string& line) {
  RequireCopy();
  Write(passwd, line + "\n", std::ios::app);
}

void PrivateEtc::ReplacePasswd(const std::string& content) {
  RequireCopy();
  const std::string fresh = std::string(passwd) + ".new";
  Write(fresh, content, std::ios::trunc);
  if (std::rename(fresh.c_str(), passwd) != 0) {
    throw std::runtime_error(std::string("cannot replace ") + passwd);
  }
}

void PrivateEtc::RequireCopy() const {
  struct stat file = {};
  if (stat("/etc", &file) != 0 || file.st_dev != device) {
    throw std::runtime_error("this is the machine's own /etc, not the copy");
  }
}
