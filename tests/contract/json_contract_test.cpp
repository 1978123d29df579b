#include "host/json.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/contract/host_under_test.h"

namespace {

using testing::Each;
using testing::Ge;
using utils::MyJson::MyCharReader;
using utils::MyJson::MyValue;

// The text without what a host may choose: blanks between the parts, and whether a slash is escaped.
std::string Plain(const std::string& text) {
  std::string plain;
  bool inString = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char letter = text[at];
    const char next = at + 1 < text.size() ? text[at + 1] : '\0';
    if (inString && letter == '\\') {
      plain += next == '/' ? std::string("/") : std::string({letter, next});
      ++at;
    } else if (inString || (letter != ' ' && letter != '\n' && letter != '\r' && letter != '\t')) {
      plain += letter;
      inString = letter == '"' ? !inString : inString;
    }
  }
  return plain;
}

// The value that begins at the place, which moves behind it, with the members of every object sorted: their
// order is the host's choice, too. Expects a plain text.
std::string SortedValue(const std::string& text, std::size_t& at) {
  const std::size_t start = at;
  if (text[at] == '{' || text[at] == '[') {
    const char close = text[at] == '{' ? '}' : ']';
    std::vector<std::string> parts;
    ++at;
    std::size_t before = start;
    while (at < text.size() && text[at] != close && at != before) {  // a text that is no JSON may stop it
      before = at;
      std::string part = SortedValue(text, at);
      if (at < text.size() && text[at] == ':') {
        part += text[at++];
        part += SortedValue(text, at);
      }
      parts.push_back(part);
      at += at < text.size() && text[at] == ',' ? 1 : 0;
    }
    ++at;
    if (close == '}') {
      std::sort(parts.begin(), parts.end());
    }
    std::string sorted(1, text[start]);
    for (const std::string& part : parts) {
      sorted += part + ",";
    }
    return sorted + close;
  }
  bool inString = false;
  while (at < text.size() && (inString || std::string(":,]}").find(text[at]) == std::string::npos)) {
    inString = text[at] == '"' ? !inString : inString;
    at += inString && text[at] == '\\' ? 2 : 1;
  }
  at = std::min(at, text.size());
  return text.substr(start, at - start);
}

// Equal for two texts that say the same. What stands behind the value is kept.
std::string Sorted(const std::string& text) {
  const std::string plain = Plain(text);
  std::size_t at = 0;
  const std::string value = plain.empty() ? plain : SortedValue(plain, at);
  return value + plain.substr(std::min(at, plain.size()));
}

std::string TextOf(const MyValue& value) { return Sorted(Utils::Convert::JsonToString(value)); }

bool Parse(const std::string& text, MyValue& root) { return MyCharReader().Parse(text, root); }

class JsonContract : public testing::Test {
 private:
  HostUnderTest host;
};

// What a host does well to keep to, and what the module can live without: see host_under_test.h.
class AdvisedJson : public JsonContract {};

TEST_F(JsonContract, AnEmptyValueHasNoMember) {
  const MyValue value;
  EXPECT_FALSE(value.IsMember("unauthorized-root-user"));
  EXPECT_FALSE(value.IsMember(""));
}

TEST_F(JsonContract, AnEmptyValueBecomesAnObjectWhenAMemberIsAdded) {
  MyValue value;
  value["userName"] = "toor";
  EXPECT_EQ(TextOf(value), Sorted(R"({"userName":"toor"})"));
  EXPECT_TRUE(value.IsMember("userName"));
  EXPECT_FALSE(value.IsMember("userNam"));
}

TEST_F(JsonContract, AMemberTakesStringsLiteralsAndIntegers) {
  MyValue value;
  value["string"] = std::string("toor");
  value["literal"] = "illegal";
  value["zero"] = 0;
  value["least"] = -2147483647 - 1;
  value["most"] = 2147483647;
  value["empty"] = std::string();
  EXPECT_EQ(TextOf(value), Sorted(R"({"string":"toor","literal":"illegal","zero":0,"least":-2147483648,)"
                                  R"("most":2147483647,"empty":""})"));
}

TEST_F(AdvisedJson, MembersStandInTheOrderInWhichTheyWereAdded) {
  MyValue value;
  for (const char* const name : {"zeta", "alpha", "mu", "Beta", "10", "9"}) {
    value[name] = name;
  }
  EXPECT_EQ(Plain(Utils::Convert::JsonToString(value)),
            R"({"zeta":"zeta","alpha":"alpha","mu":"mu","Beta":"Beta","10":"10","9":"9"})");
}

TEST_F(JsonContract, ANewValueOfAMemberTakesThePlaceOfTheOldOne) {
  MyValue value;
  value["first"] = 1;
  value["second"] = 2;
  value["first"] = "one";
  EXPECT_EQ(TextOf(value), Sorted(R"({"first":"one","second":2})"));
}

TEST_F(JsonContract, AHandleWritesThroughAfterLaterInsertions) {
  MyValue value;
  MyValue first = value["first"];
  std::string others;
  for (int number = 0; number < 200; ++number) {
    const std::string name = "member" + std::to_string(number);
    value[name.c_str()] = number;
    others += ",\"" + name + "\":" + std::to_string(number);
  }
  first = "late";
  EXPECT_EQ(TextOf(value), Sorted(R"({"first":"late")" + others + "}"));
}

TEST_F(JsonContract, DestroyingAHandleLeavesTheMember) {
  MyValue value;
  {
    MyValue handle = value["userName"];
    handle = "toor";
  }
  EXPECT_EQ(TextOf(value), Sorted(R"({"userName":"toor"})"));
}

TEST_F(JsonContract, ACopiedHandleIsBoundToTheSameMember) {
  MyValue value;
  MyValue handle = value["uid"];
  MyValue copy(handle);
  copy = 1;
  EXPECT_EQ(TextOf(value), Sorted(R"({"uid":1})"));
  handle = 2;
  EXPECT_EQ(TextOf(value), Sorted(R"({"uid":2})"));
}

TEST_F(JsonContract, AnAssignedValueIsACopy) {
  MyValue inner;
  inner["uid"] = 0;
  MyValue outer;
  outer["content"] = inner;
  inner["uid"] = 1000;
  EXPECT_EQ(TextOf(outer), Sorted(R"({"content":{"uid":0}})"));
  EXPECT_EQ(TextOf(inner), Sorted(R"({"uid":1000})"));
}

TEST_F(JsonContract, AMemberOfAMemberIsReachedAndOnlyTheTopLevelCountsAsMember) {
  MyValue value;
  value["outer"]["inner"] = 1;
  EXPECT_EQ(TextOf(value), Sorted(R"({"outer":{"inner":1}})"));
  EXPECT_TRUE(value.IsMember("outer"));
  EXPECT_FALSE(value.IsMember("inner"));
  EXPECT_TRUE(value["outer"].IsMember("inner"));
}

TEST_F(JsonContract, AnAddedItemIsACopyAndMayGoAtOnce) {
  MyValue event;
  event["eventType"] = "unauthorized-root-user";
  {
    MyValue content;
    content["userName"] = "toor";
    event.JsonItemAddToObject("eventContent", content);
    content["userName"] = "changed";
  }
  EXPECT_EQ(TextOf(event),
            Sorted(R"({"eventType":"unauthorized-root-user","eventContent":{"userName":"toor"}})"));
}

TEST_F(JsonContract, AnItemAddedToAnEmptyValueMakesItAnObject) {
  MyValue item;
  item["uid"] = 0;
  const MyValue value;
  value.JsonItemAddToObject("content", item);
  EXPECT_EQ(TextOf(value), Sorted(R"({"content":{"uid":0}})"));
}

TEST_F(JsonContract, AWholeAlertIsWritten) {
  MyValue content;
  content["userName"] = std::string("toor");
  content["uid"] = 0;
  content["gid"] = -1;
  content["shell"] = std::string("/bin/sh");
  content["home"] = std::string();
  content["type"] = "illegal";
  MyValue event;
  event["eventType"] = "unauthorized-root-user";
  event["eventTime"] = std::string("2026-03-01 08:15:42");
  event.JsonItemAddToObject("eventContent", content);
  EXPECT_EQ(
      TextOf(event),
      Sorted(R"({"eventType":"unauthorized-root-user","eventTime":"2026-03-01 08:15:42","eventContent":)"
             R"({"userName":"toor","uid":0,"gid":-1,"shell":"/bin/sh","home":"","type":"illegal"}})"));
}

// Account names hold what an attacker puts there. A text that cannot be written would silence every later
// alert: the exception would leave the detection with its baseline unmoved, for ever.
TEST_F(JsonContract, WhateverAStringHoldsTheTextIsJsonOnOneLine) {
  const std::vector<std::string> names = {
      "quote\" backslash\\ slash/",
      "tab\t newline\n return\r escape\x1B bell\a delete\x7F",
      std::string("nul\0inside", 10),
      "%s%n",
      "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80",
      "\xFF",              // no UTF-8 at all
      "\xC3",              // a letter cut short
      "\xED\xA0\x80",      // half of a pair
      "\xC0\xAF",          // longer than need be
      "\xF4\x90\x80\x80",  // beyond the last letter
      std::string(1000, '"'),
  };
  for (const std::string& name : names) {
    MyValue value;
    value["before"] = 1;
    value["userName"] = name;
    value["after"] = 2;
    const std::string text = Utils::Convert::JsonToString(value);
    EXPECT_THAT(std::vector<unsigned char>(text.begin(), text.end()), Each(Ge(0x20))) << text;
    MyValue read;
    ASSERT_TRUE(Parse(text, read)) << text;
    EXPECT_TRUE(read.IsMember("before") && read.IsMember("userName") && read.IsMember("after")) << text;
    EXPECT_EQ(TextOf(read), Sorted(text)) << "the text says something else to a reader";
  }
}

TEST_F(JsonContract, AValidDocumentIsReadAndItsMembersAreFound) {
  const char* const policies[] = {
      R"({"unauthorized-root-user":{}})",
      R"({"unauthorized-root-user":null})",
      R"({"unauthorized-root-user":false})",
      R"({"unauthorized-root-user":[1,2.5,-3e10,"x",true,{"y":[]}]})",
      R"({"hidden-account":{"a":{"b":[]}},"unauthorized-root-user":"x"})",
      "  {\r\n\t\"unauthorized-root-user\" : 0 }\n",
      R"({"unauthorized\u002droot-user":1})",
      R"({"unauthorized-root-user":1,"unauthorized-root-user":2})",
  };
  for (const char* const policy : policies) {
    MyValue root;
    EXPECT_TRUE(Parse(policy, root)) << policy;
    EXPECT_TRUE(root.IsMember("unauthorized-root-user")) << policy;
  }
}

TEST_F(JsonContract, AMemberElsewhereIsNotOneOfTheTopLevel) {
  const char* const policies[] = {
      "{}",
      R"({"hidden-account":{"unauthorized-root-user":{}}})",
      R"({"hidden-account":[{"unauthorized-root-user":{}}]})",
      R"({"hidden-account":"unauthorized-root-user"})",
      R"({"Unauthorized-Root-User":{}})",
      R"({"unauthorized-root-user ":{}})",
      R"({"unauthorized-root-user\u0000":{}})",
  };
  for (const char* const policy : policies) {
    MyValue root;
    EXPECT_TRUE(Parse(policy, root)) << policy;
    EXPECT_FALSE(root.IsMember("unauthorized-root-user")) << policy;
  }
}

TEST_F(JsonContract, WhatIsNotJsonIsRefused) {
  const char* const texts[] = {
      "",
      " ",
      "nonsense",
      "{",
      "}",
      "{\"a\"",
      "{\"a\":",
      "{a:1}",
      "{\"a\":}",
      "{\"a\" 1}",
      "{\"a\":1 \"b\":2}",
      "[1",
      "{\"a\":tru}",
      "{\"a\":\"unfinished}",
      "{\"a\":\"\\q\"}",
      "{'a':1}",
      "{\"a\":1]",
  };
  for (const char* const text : texts) {
    MyValue root;
    EXPECT_FALSE(Parse(text, root)) << text;
  }
}

// Whether these are documents is the host's to say; that it lives on, is not.
TEST_F(JsonContract, DoubtfulTextsAreSurvived) {
  const std::string texts[] = {
      "null",
      "0",
      "\"unauthorized-root-user\"",
      "true",
      "[]",
      "[\"unauthorized-root-user\"]",
      "{} trailing",
      "{}{}",
      "/* comment */ {}",
      "\xEF\xBB\xBF{}",
      std::string("{\0}", 3),
      "{\"a\":\"\xFF\"}",
      "{\"a\":1e999}",
      "{\"a\":99999999999999999999999999}",
      std::string(100000, '['),
      std::string(100000, '[') + std::string(100000, ']'),
  };
  for (const std::string& text : texts) {
    MyValue root;
    Parse(text, root);
    EXPECT_FALSE(root.IsMember("unauthorized-root-user")) << text.substr(0, 40);
    Utils::Convert::JsonToString(root);
  }
}

TEST_F(AdvisedJson, AReadDocumentIsWrittenAgain) {
  MyValue root;
  ASSERT_TRUE(Parse(R"( { "b" : { "c" : [ 1 , "x y" ] } , "a" : null } )", root));
  EXPECT_EQ(TextOf(root), Sorted(R"({"b":{"c":[1,"x y"]},"a":null})"));
}

}  // namespace
