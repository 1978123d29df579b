#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bus/message_bus.h"
#include "collector/passwd_info.h"
#include "detect/unauthorized_root_user.h"
#include "tests/support/recording_host.h"
#include "tests/support/records.h"
#include "tests/support/short_texts.h"

namespace {

using Snapshot = std::vector<PasswdInfo>;

unsigned ByteAt(const std::string& text, std::size_t at) { return static_cast<unsigned char>(text[at]); }

// How many bytes from there on are the beginning of a character, and how many the character has; 0 of 0 when
// no character begins so.
struct Sequence {
  std::size_t present;
  std::size_t whole;
};

Sequence SequenceAt(const std::string& text, std::size_t at) {
  const unsigned first = ByteAt(text, at);
  const std::size_t whole = first < 0x80   ? 1
                            : first < 0xc2 ? 0
                            : first < 0xe0 ? 2
                            : first < 0xf0 ? 3
                            : first < 0xf5 ? 4
                                           : 0;
  const unsigned lowestSecond = first == 0xe0 ? 0xa0 : first == 0xf0 ? 0x90 : 0x80;
  const unsigned highestSecond = first == 0xed ? 0x9f : first == 0xf4 ? 0x8f : 0xbf;
  std::size_t present = whole == 0 ? 0 : 1;
  while (present < whole && at + present < text.size()) {
    const unsigned next = ByteAt(text, at + present);
    if (next < (present == 1 ? lowestSecond : 0x80) || next > (present == 1 ? highestSecond : 0xbf)) {
      break;
    }
    ++present;
  }
  return {present, whole};
}

// One U+FFFD for each byte that begins no character, and for each beginning of a character that is cut short.
std::string WithReplacements(const std::string& text) {
  std::string replaced;
  for (std::size_t at = 0; at < text.size();) {
    const Sequence sequence = SequenceAt(text, at);
    if (sequence.present == sequence.whole && sequence.whole > 0) {
      replaced.append(text, at, sequence.whole);
    } else {
      replaced += "\xef\xbf\xbd";
    }
    at += std::max<std::size_t>(sequence.present, 1);
  }
  return replaced;
}

bool IsOneLineOfAscii(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char character) {
    return character >= ' ' && character <= '~';  // whatever the sign of a char is
  });
}

// What a strict reader makes of the event about a root account, without its name.
const nlohmann::json& RestOfEvent() {
  static const nlohmann::json rest = {
      {"eventType", "unauthorized-root-user"},
      {"eventTime", "2026-03-01 08:15:42"},
      {"eventContent",
       {{"uid", 0}, {"gid", 100}, {"shell", "/bin/sh"}, {"home", "/home/toor"}, {"type", "illegal"}}}};
  return rest;
}

class NamesTest : public testing::Test {
 protected:
  NamesTest() {
    host.Reset();
    detector.Init();
  }
  ~NamesTest() override {
    detector.UnInit();
    host.Reset();
    UnauthorizedRootUser::DetectUnauthorizedRootUser({});
  }

  // All names become root accounts in one snapshot.
  void ExpectAnEventForEach(std::vector<std::string> names) {
    Snapshot users;
    for (const std::string& name : names) {
      PasswdInfo user = Account("toor", 0);
      user.userName = name;
      users.push_back(user);
    }
    MessageBus::Publish<const Snapshot&>("detect_user", users);

    std::sort(names.begin(), names.end());
    const std::vector<std::string> events = host.TakeCalls("push");
    ASSERT_EQ(events.size(), names.size());
    for (std::size_t index = 0; index < names.size(); ++index) {
      const std::string event = events[index].substr(std::string("push ").size());
      ASSERT_TRUE(IsOneLineOfAscii(event)) << testing::PrintToString(event);
      nlohmann::json read = nlohmann::json::parse(event, nullptr, false);
      ASSERT_FALSE(read.is_discarded()) << event;
      ASSERT_EQ(read["eventContent"]["userName"], WithReplacements(names[index])) << event;
      read["eventContent"].erase("userName");
      ASSERT_EQ(read, RestOfEvent()) << event;
    }
  }

  RecordingHost& host = RecordingHost::Get();
  UnauthorizedRootUser& detector = UnauthorizedRootUser::GetInstance();
};

TEST_F(NamesTest, EveryNameOfOneOrTwoBytesYieldsOneLineOfJsonThatReadsBackAsTheName) {
  const std::vector<std::string> names = TextsOfOneOrTwoBytes();
  ASSERT_EQ(names.size(), VELTA_CODE_IS_SLOW ? 9619u : 65792u);
  ExpectAnEventForEach(names);
}

std::string Repeated(const std::string& text, std::size_t times) {
  std::string repeated;
  for (; times > 0; --times) {
    repeated += text;
  }
  return repeated;
}

TEST_F(NamesTest, HostileNamesYieldOneLineOfJsonThatReadsBackAsTheName) {
  ExpectAnEventForEach({
      R"(","uid":7,"x":")",
      R"("}}
{"eventType":"unauthorized-root-user"})",
      R"(\u0000\n\")",
      R"(back\)",
      "%s%n%99999999d%*s",
      "{} {0}",
      "\x1b[2J\x1b]0;title\x07\b\x7f",
      "a\r\n\t\v\f\x1c\x1d\x1e\x1f",
      "\xc2\x85\xe2\x80\xa8\xe2\x80\xa9",                  // newline, line and paragraph separator
      "\xe2\x80\xae\xe2\x80\xad\xe2\x81\xa6\xd8\x9ctoor",  // what turns text around
      "\xef\xbb\xbftoor",
      "toor\xc2\xad\xe2\x80\x8b",
      "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf\xef\xbf\xbe\xef\xbf\xbd",
      "\xff\xfe\x80\xbf",
      "too\xffr",
      "a\xc3",
      "\xe2\x82",
      "\xe2\x82(",
      "\xe2\xc3\xa9",
      "\xf0\x9f\x98",
      "\xf0\x9f\x98x",
      "\xc0\x80\xc0\x8a\xc1\xbf",          // overlong: NUL, newline, DEL
      "\xe0\x80\x8a\xe0\x9f\xbf",          //
      "\xf0\x80\x80\x8a\xf0\x8f\xbf\xbf",  //
      "\xed\xa0\x80\xed\xbf\xbf",          // halves of a surrogate pair
      "\xed\xa0\xbd\xed\xb8\x80",
      "\xf4\x90\x80\x80",  // beyond the last code point
      "\xf8\x88\x80\x80\x80\xfc\x84\x80\x80\x80\x80",
      Repeated("x", 999),
      Repeated("\"", 999),
      Repeated("\x1b", 999),
      Repeated("\xff", 999),
      Repeated("\xe2\x80\xa8", 333),
      Repeated("\xe2\x82", 499) + "\xe2",
      std::string(999, '\0'),
  });
}

}  // namespace
