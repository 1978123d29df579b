#include "agent/policy.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/temporary_folder.h"

namespace {

using testing::StartsWith;

class PolicyTest : public testing::Test {
 protected:
  // The policy's text, or why it was refused.
  static std::string Load(const std::string& path) {
    try {
      return LoadPolicy(path);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  TemporaryFolder folder;
};

TEST_F(PolicyTest, Fault19JsonIsAcceptedAndLeftAsItIs) {
  const std::vector<std::string> texts = {
      "{}",
      defaultPolicy,
      "{\n  \"unauthorized-root-user\": {}\n}\n",
      " \t\r\n{}\n\n",
      "[]",
      "null",
      "true",
      "-1.5e3",
      "[[], {}]",
      "\"text\"",
      R"({"unauthorized-root-user": {}, "unauthorized-root-user": false})",
      "{\"\xC3\xA9\": \"\\u00e9\"}",
      "\xEF\xBB\xBF{}",
  };
  for (const std::string& text : texts) {
    EXPECT_EQ(Load(folder.Write("policy.json", text)), text);
  }
}

TEST_F(PolicyTest, Fault19WhatIsNotJsonIsRefusedWithLineAndColumn) {
  struct Row {
    std::string text;
    std::string place;
  };
  const std::vector<Row> rows = {
      {"", "1:1"},
      {" \n ", "2:2"},
      {"{", "1:2"},
      {"{\n  \"unauthorized-root-user\": {,}\n}", "2:30"},
      {"{\"unauthorized-root-user\": {}", "1:30"},
      {"{}\n{}", "2:1"},
      {"{} // off", "1:4"},
      {"/* off */ {}", "1:1"},
      {"# off\n{}", "1:1"},
      {"{'a': 1}", "1:2"},
      {"{\"a\": 1,}", "1:9"},
      {std::string("{}\0", 3), "1:3"},
      {std::string("{\"a\": \"\0\"}", 10), "1:8"},
      {std::string("\xFF\xFE{\0}\0", 6), "1:1"},
      {std::string("\xFE\xFF\0{\0}", 6), "1:1"},
      {std::string("{\0}\0", 4), "1:2"},
      {"\xEF\xBB\xBF", "1:4"},
      {"{\"\xFF\": 1}", "1:3"},
  };
  for (const Row& row : rows) {
    const std::string path = folder.Write("policy.json", row.text);
    EXPECT_THAT(Load(path), StartsWith("policy " + path + ":" + row.place + ": ")) << row.text;
  }
}

TEST_F(PolicyTest, Fault19WhatIsNoFileIsRefusedByNameAndNeverWaitedFor) {
  const std::string missing = folder.Path("missing.json");
  EXPECT_EQ(Load(missing), "policy " + missing + ": No such file or directory");
  EXPECT_EQ(Load(folder.Path()), "policy " + folder.Path() + ": not a regular file");
  const std::string fifo = folder.MakeFifo("fifo.json");
  EXPECT_EQ(Load(fifo), "policy " + fifo + ": not a regular file");
  EXPECT_EQ(Load("/dev/zero"), "policy /dev/zero: not a regular file");
  const std::string link = folder.Path("link.json");
  std::filesystem::create_symlink(link, link);
  EXPECT_EQ(Load(link), "policy " + link + ": Too many levels of symbolic links");
  const std::string below = folder.Write("file.json", "{}") + "/policy.json";
  EXPECT_EQ(Load(below), "policy " + below + ": Not a directory");
  EXPECT_EQ(Load(""), "policy : No such file or directory");
}

TEST_F(PolicyTest, ASocketIsRefused) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = folder.Path("socket");
  ASSERT_LT(path.size(), sizeof address.sun_path);
  std::copy(path.begin(), path.end(), address.sun_path);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(Load(path), "policy " + path + ": No such device or address");
  close(descriptor);
}

TEST_F(PolicyTest, ALinkToAPolicyIsFollowed) {
  folder.Write("policy.json", "{}");
  std::filesystem::create_symlink("policy.json", folder.Path("link.json"));
  EXPECT_EQ(Load(folder.Path("link.json")), "{}");
}

TEST_F(PolicyTest, Fault19MegabytesAreReadWhole) {
  const std::string text =
      "{\"unauthorized-root-user\": \"" + std::string(VELTA_CODE_IS_SLOW ? 1 << 20 : 10 << 20, 'x') + "\"}";
  EXPECT_TRUE(Load(folder.Write("policy.json", text)) == text);
}

TEST_F(PolicyTest, Fault19AFaultFarInIsFoundWhereItIs) {
  constexpr std::size_t far = VELTA_CODE_IS_SLOW ? 100000 : 1000000;
  const std::string path =
      folder.Write("policy.json", "[\n" + std::string(far, '\n') + std::string(far, ' ') + "?]");
  EXPECT_THAT(Load(path), StartsWith("policy " + path + ":" + std::to_string(far + 2) + ":" +
                                     std::to_string(far + 1) + ": "));
}

TEST_F(PolicyTest, Fault19AMillionNestedArraysAreNoCrash) {
  const std::string open(1000000, '[');
  for (const std::string& text : {open, open + std::string(1000000, ']')}) {
    const std::string path = folder.Write("policy.json", text);
    EXPECT_THAT(Load(path), StartsWith("policy " + path + ":1:"));
  }
}

TEST_F(PolicyTest, Fault19AFileWithoutEndIsRefusedUnread) {
  const std::string path = folder.Write("policy.json", "{}");
  std::filesystem::resize_file(path, (std::uintmax_t{64} << 20) + 1);  // sparse
  EXPECT_EQ(Load(path), "policy " + path + ": larger than 64 MiB");
}

TEST_F(PolicyTest, TheBuiltInPolicyTurnsTheDetectionOn) {
  EXPECT_STREQ(defaultPolicy, R"({"unauthorized-root-user": {}})");
}

TEST(PolicySwitchTest, TheDetectionIsOnWhenTheKeyIsThereWhateverItsValue) {
  EXPECT_TRUE(PolicyTurnsDetectionOn(defaultPolicy));
  EXPECT_TRUE(PolicyTurnsDetectionOn(R"({"unauthorized-root-user": false})"));
  EXPECT_FALSE(PolicyTurnsDetectionOn(R"({"inner": {"unauthorized-root-user": {}}})"));
  EXPECT_FALSE(PolicyTurnsDetectionOn("{}"));
  EXPECT_FALSE(PolicyTurnsDetectionOn("[\"unauthorized-root-user\"]"));
  EXPECT_FALSE(PolicyTurnsDetectionOn("not JSON"));
}

}  // namespace
