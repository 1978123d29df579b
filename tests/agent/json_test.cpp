#include "agent/json.h"

#include <climits>
#include <cstddef>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/json.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/short_texts.h"

namespace {

using Utils::Convert::JsonToString;
using utils::MyJson::MyCharReader;
using utils::MyJson::MyValue;

constexpr std::size_t deepestNesting = 1000;

std::string Repeated(const std::string& text, std::size_t times) {
  std::string repeated;
  repeated.reserve(text.size() * times);
  for (std::size_t count = 0; count < times; ++count) {
    repeated += text;
  }
  return repeated;
}

std::string NestedArrays(std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); }

std::string NestedObjects(std::size_t depth) {
  return Repeated("{\"a\":", depth - 1) + "{}" + std::string(depth - 1, '}');
}

// What a text reads as, written again; or where and why it is refused.
std::string ReadAndWritten(const std::string& text) {
  MyValue root;
  const bool parsed = MyCharReader().Parse(text, root);
  const std::optional<JsonFault> fault = FindJsonFault(text);
  EXPECT_NE(parsed, fault.has_value())
      << "the reader and the fault finder disagree on " << text.substr(0, 100);
  if (fault) {
    return std::to_string(fault->line) + ":" + std::to_string(fault->column) + " " + fault->reason;
  }
  return JsonToString(root);
}

std::string NumberedName(std::size_t number) { return "member" + std::to_string(number); }

// An object of so many members, each with the number of its place.
MyValue NumberedMembers(std::size_t count) {
  MyValue root;
  for (std::size_t number = 0; number < count; ++number) {
    root[NumberedName(number).c_str()] = static_cast<int>(number);
  }
  return root;
}

struct TextCase {
  const char* name;
  std::string text;
  std::string outcome;
};

std::ostream& operator<<(std::ostream& out, const TextCase& testCase) { return out << testCase.name; }

std::string NameOfText(const testing::TestParamInfo<TextCase>& info) { return info.param.name; }

class ValidTextTest : public testing::TestWithParam<TextCase> {};

TEST_P(ValidTextTest, IsReadAndWrittenOnOneLine) {
  EXPECT_EQ(ReadAndWritten(GetParam().text), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ValidTextTest,
    testing::Values(TextCase{"EmptyObject", "{}", "{}"}, TextCase{"EmptyArray", "[]", "[]"},
                    TextCase{"Blanks", " \t\r\n{ \"a\" :\n[ 1 , 2 ] }\n", R"({"a":[1,2]})"},
                    TextCase{"ByteOrderMark", "\xef\xbb\xbf{\"a\":1}", R"({"a":1})"},
                    TextCase{"TextAtTheTop", R"("a")", R"("a")"}, TextCase{"NumberAtTheTop", "0", "0"},
                    TextCase{"NullAtTheTop", "null", "null"},
                    TextCase{"Literals", "[true,false,null]", "[true,false,null]"},
                    TextCase{"LargestIntegers", "[18446744073709551615,-9223372036854775808]",
                             "[18446744073709551615,-9223372036854775808]"},
                    TextCase{"IntegerBeyond64Bits", "18446744073709551616", "1.8446744073709552e+19"},
                    TextCase{"Fractions", "[1.5,-0.25,1E3]", "[1.5,-0.25,1000.0]"},
                    TextCase{"TooSmallToTell", "1e-999", "0.0"},
                    TextCase{"MembersKeepTheirOrder", R"({"z":1,"a":2,"m":{"y":3,"b":4}})",
                             R"({"z":1,"a":2,"m":{"y":3,"b":4}})"},
                    TextCase{"LastOfEqualNamesWins", R"({"a":{"b":1},"c":2,"a":[3]})", R"({"a":[3],"c":2})"},
                    TextCase{"ObjectsInArrays", R"([{"a":[{},{"b":[[],"x"]}],"c":1},2,[3],{}])",
                             R"([{"a":[{},{"b":[[],"x"]}],"c":1},2,[3],{}])"},
                    TextCase{"BracketsInStrings", R"({"[":["[","{",",","]"],"{":{"}":"}"}})",
                             R"({"[":["[","{",",","]"],"{":{"}":"}"}})"},
                    TextCase{"Escapes", R"("\"\\\/\b\f\n\r\t\u0041")", R"("\"\\/\b\f\n\r\tA")"},
                    TextCase{"EscapedNul", R"({"\u0000":"\u0000"})", R"({"\u0000":"\u0000"})"},
                    TextCase{"BeyondAscii", "\"\xc3\xa9\xe2\x80\xa8\xf0\x9f\x98\x80\x7f\"",
                             R"("\u00e9\u2028\ud83d\ude00\u007f")"},
                    TextCase{"DeepestArrays", NestedArrays(deepestNesting), NestedArrays(deepestNesting)},
                    TextCase{"DeepestObjects", NestedObjects(deepestNesting), NestedObjects(deepestNesting)},
                    TextCase{"WideIsNotDeep", "[" + Repeated("[[]],", 2000) + "[]]",
                             "[" + Repeated("[[]],", 2000) + "[]]"}),
    NameOfText);

class InvalidTextTest : public testing::TestWithParam<TextCase> {};

TEST_P(InvalidTextTest, IsRefusedWithPlaceAndReason) {
  EXPECT_EQ(ReadAndWritten(GetParam().text), GetParam().outcome);
}

constexpr char wantsValue[] = "; expected '[', '{', or a literal";

INSTANTIATE_TEST_SUITE_P(
    Texts, InvalidTextTest,
    testing::Values(
        TextCase{"Empty", "", std::string("1:1 unexpected end of input") + wantsValue},
        TextCase{"Blank", " \n\t ", std::string("2:3 unexpected end of input") + wantsValue},
        TextCase{"OnlyAByteOrderMark", "\xef\xbb\xbf",
                 std::string("1:4 unexpected end of input") + wantsValue},
        TextCase{"HalfAByteOrderMark", "\xef\xbb{}", "1:3 invalid BOM; must be 0xEF 0xBB 0xBF if given"},
        TextCase{"Utf16", std::string("\xff\xfe{\0}\0", 6), "1:1 invalid literal"},
        TextCase{"Utf16WithoutAMark", std::string("{\0}\0", 4), "1:2 a NUL byte"},
        TextCase{"OnlyANul", std::string(1, '\0'), "1:1 a NUL byte"},
        TextCase{"NulBehindTheDocument", std::string("{}\n\0", 4), "2:1 a NUL byte"},
        TextCase{"NulAndMoreBehindTheDocument", std::string("{}\0{}", 5), "1:3 a NUL byte"},
        TextCase{"NulInAString", std::string("{\"a\0\":1}", 8), "1:4 a NUL byte"},
        TextCase{"NulBetweenTokens", std::string("{\"a\":\0001}", 8), "1:6 a NUL byte"},
        TextCase{"FaultInFrontOfANul", std::string("{x\0}", 4), "1:2 invalid literal"},
        TextCase{"UnclosedObject", R"({"a":1)", "1:7 unexpected end of input; expected '}'"},
        TextCase{"CommaAtTheEndOfAnObject", R"({"a":1,})", "1:8 unexpected '}'; expected string literal"},
        TextCase{"CommaAtTheEndOfAnArray", "[1,]", std::string("1:4 unexpected ']'") + wantsValue},
        TextCase{"MissingColon", R"({"a" "bcd"})", "1:6 unexpected string literal; expected ':'"},
        TextCase{"MissingComma", "[1\n, 22 -33.5]", "2:6 unexpected number literal; expected ']'"},
        TextCase{"MissingCommaInFrontOfTrue", R"({"a":1 true})", "1:8 unexpected true literal; expected '}'"},
        TextCase{"MissingCommaInFrontOfFalse", "[1 false]", "1:4 unexpected false literal; expected ']'"},
        TextCase{"NumberAsAName", "{12:3}", "1:2 unexpected number literal; expected string literal"},
        TextCase{"TextBehindTheDocument", "{\"a\":1}\n\n  {}", "3:3 unexpected '{'; expected end of input"},
        TextCase{"ClosedTwice", "{}}", "1:3 unexpected '}'; expected end of input"},
        TextCase{"LineComment", "{\n// all of it\n}", "2:1 invalid literal"},
        TextCase{"BlockComment", "/* all of it */{}", "1:1 invalid literal"},
        TextCase{"SingleQuotes", "{'a':1}", "1:2 invalid literal"},
        TextCase{"HalfALiteral", "{\"a\":\n tru}", "2:5 invalid literal"},
        TextCase{"LeadingZero", "01", "1:2 unexpected number literal; expected end of input"},
        TextCase{"LeadingPlus", "+1", "1:1 invalid literal"},
        TextCase{"Infinity", "[Infinity]", "1:2 invalid literal"},
        TextCase{"NumberOutOfRange", "{\"a\": -1e999}", "1:7 number out of range"},
        TextCase{"UnclosedString", "\"abc", "1:5 invalid string: missing closing quote"},
        TextCase{"LineFeedInAString", "\"a\nb\"",
                 "1:3 invalid string: control character U+000A (LF) must be escaped to \\u000A or \\n"},
        TextCase{"UnknownEscape", R"("\x41")", "1:3 invalid string: forbidden character after backslash"},
        TextCase{"HalfASurrogatePair", R"("\ud800")",
                 "1:8 invalid string: surrogate U+D800..U+DBFF must be followed by U+DC00..U+DFFF"},
        TextCase{"InvalidUtf8", "{\"\xc3\xa9\xff\":1}", "1:5 invalid string: ill-formed UTF-8 byte"},
        TextCase{"OverlongUtf8", "\"\xc0\xaf\"", "1:2 invalid string: ill-formed UTF-8 byte"},
        TextCase{"SurrogateInUtf8", "\"\xed\xa0\x80\"", "1:3 invalid string: ill-formed UTF-8 byte"},
        TextCase{"TooDeepArrays", NestedArrays(deepestNesting + 1), "1:1001 nested deeper than 1000 levels"},
        TextCase{"TooDeepObjects", NestedObjects(deepestNesting + 1),
                 "1:5001 nested deeper than 1000 levels"},
        TextCase{"TooDeepBehindBrackets", "[\"\\\"[[\",[],{},\n" + NestedArrays(deepestNesting),
                 "2:1000 nested deeper than 1000 levels"}),
    NameOfText);

// No parameters: those are made in every process of these tests, whichever case it runs, and megabytes would
// be half of what a sanitized process takes.
TEST(InvalidLargeTextTest, MillionOpenArrays) {
  EXPECT_EQ(ReadAndWritten(std::string(1000000, '[')), "1:1001 nested deeper than 1000 levels");
}

TEST(InvalidLargeTextTest, MillionClosedArrays) {
  EXPECT_EQ(ReadAndWritten(NestedArrays(1000000)), "1:1001 nested deeper than 1000 levels");
}

TEST(InvalidLargeTextTest, MillionOpenObjects) {
  EXPECT_EQ(ReadAndWritten(Repeated("{\"a\":", 1000000)), "1:5001 nested deeper than 1000 levels");
}

TEST(JsonTextTest, AReasonDoesNotRepeatTheTextThatIsAtFault) {
  const std::optional<JsonFault> fault = FindJsonFault("\"" + std::string(1000000, 'x'));

  ASSERT_TRUE(fault.has_value());
  EXPECT_EQ(fault->reason, "invalid string: missing closing quote");
}

TEST(JsonTextTest, MegabytesOfNumbersAreReadAndWritten) {
  const std::string text = "[" + Repeated("1,", VELTA_CODE_IS_SLOW ? 500000 : 5000000) + "2]";

  EXPECT_TRUE(ReadAndWritten(text) == text);
}

TEST(JsonTextTest, ManyMembersAreReadWithoutLookingThroughAllOfThemForEach) {
  constexpr int count = VELTA_CODE_IS_SLOW ? 30000 : 300000;
  std::string text = "{\"first\":1";
  for (int number = 0; number < count; ++number) {
    text += ",\"member" + std::to_string(number) + "\":" + std::to_string(number);
  }
  text += "}";
  MyValue root;

  ASSERT_TRUE(MyCharReader().Parse(text, root));

  EXPECT_TRUE(JsonToString(root) == text);
  EXPECT_TRUE(root.IsMember("first"));
  EXPECT_TRUE(root.IsMember(("member" + std::to_string(count - 1)).c_str()));
  EXPECT_FALSE(root.IsMember(("member" + std::to_string(count)).c_str()));
}

TEST(JsonTextTest, ManyMembersOfACopyAreFoundWithoutLookingThroughAllOfThemForEach) {
  constexpr std::size_t count = VELTA_CODE_IS_SLOW ? 30000 : 300000;
  MyValue event;
  event.JsonItemAddToObject("copy", NumberedMembers(count));
  const MyValue copy = event["copy"];

  std::size_t found = 0;
  for (std::size_t number = 0; number < count; ++number) {
    found += copy.IsMember(NumberedName(number)) ? 1 : 0;
  }

  EXPECT_EQ(found, count);
}

TEST(JsonReaderTest, ARefusedTextLeavesTheValueAsItWas) {
  MyValue root;
  root["a"] = 1;

  EXPECT_FALSE(MyCharReader().Parse("{\"b\":2,", root));

  EXPECT_EQ(JsonToString(root), R"({"a":1})");
}

TEST(JsonReaderTest, ADocumentTakesThePlaceOfTheValue) {
  MyValue root;
  root["a"] = 1;
  const MyValue copy(root);

  EXPECT_TRUE(MyCharReader().Parse(R"({"b":2})", root));

  EXPECT_EQ(JsonToString(root), R"({"b":2})");
  EXPECT_EQ(JsonToString(copy), R"({"b":2})");
}

TEST(JsonReaderTest, ADocumentCanBeReadIntoAMember) {
  MyValue root;
  MyValue member = root["a"];

  EXPECT_TRUE(MyCharReader().Parse("[1]", member));

  EXPECT_EQ(JsonToString(root), R"({"a":[1]})");
}

TEST(JsonReaderTest, OnlyNamesAtTheTopAreMembers) {
  MyValue root;
  ASSERT_TRUE(MyCharReader().Parse(R"({"a":{"b":false},"c":null,"":0,"d\u0000e":"f"})", root));

  EXPECT_TRUE(root.IsMember("a"));
  EXPECT_TRUE(root.IsMember("c"));
  EXPECT_TRUE(root.IsMember(""));
  EXPECT_TRUE(root.IsMember(std::string("d\0e", 3)));
  EXPECT_FALSE(root.IsMember("b"));
  EXPECT_FALSE(root.IsMember("d"));
  EXPECT_FALSE(root.IsMember("f"));
  EXPECT_FALSE(root.IsMember("A"));
}

TEST(JsonReaderTest, WhatIsNoObjectHasNoMembers) {
  for (const char* text : {"[\"a\"]", "\"a\"", "1", "null"}) {
    MyValue root;
    ASSERT_TRUE(MyCharReader().Parse(text, root));
    EXPECT_FALSE(root.IsMember("a")) << text;
    EXPECT_FALSE(root.IsMember("")) << text;
  }
}

TEST(JsonValueTest, ANewValueIsAnEmptyObject) { EXPECT_EQ(JsonToString(MyValue()), "{}"); }

TEST(JsonValueTest, AMemberIsNullUntilItIsAssigned) {
  MyValue root;
  root["a"];

  EXPECT_EQ(JsonToString(root), R"({"a":null})");
  EXPECT_TRUE(root.IsMember("a"));
}

TEST(JsonValueTest, MembersTakeTextsAndNumbers) {
  MyValue root;
  root["text"] = std::string("alice");
  root["literal"] = "illegal";
  root["nothing"] = static_cast<const char*>(nullptr);
  root["zero"] = 0;
  root["smallest"] = INT_MIN;
  root["largest"] = INT_MAX;

  EXPECT_EQ(JsonToString(root),
            R"({"text":"alice","literal":"illegal","nothing":null,"zero":0,"smallest":-2147483648,)"
            R"("largest":2147483647})");
}

TEST(JsonValueTest, AMemberKeepsItsPlaceWhenItIsAssignedAgain) {
  MyValue root;
  root["z"] = 1;
  root["a"] = 2;
  root["z"] = "again";

  EXPECT_EQ(JsonToString(root), R"({"z":"again","a":2})");
}

TEST(JsonValueTest, LookingForAMemberOfSomethingElseMakesItAnObject) {
  MyValue root;
  root["a"] = 1;
  root["a"]["b"] = 2;
  root["a"]["c"]["d"] = 3;

  EXPECT_EQ(JsonToString(root), R"({"a":{"b":2,"c":{"d":3}}})");
}

TEST(JsonValueTest, AMemberWithoutANameHasTheEmptyName) {
  MyValue root;
  MyValue item;
  root[nullptr] = 1;
  EXPECT_EQ(JsonToString(root), R"({"":1})");
  root.JsonItemAddToObject(nullptr, item);
  EXPECT_EQ(JsonToString(root), R"({"":{}})");
}

TEST(JsonHandleTest, HandlesStayBoundWhileAThousandMembersAreAdded) {
  constexpr int count = 1000;
  MyValue root;
  std::vector<MyValue> handles;
  for (int number = 0; number < count; ++number) {
    handles.push_back(root[("member" + std::to_string(number)).c_str()]);
  }
  std::string expected;
  for (int number = 0; number < count; ++number) {
    handles[static_cast<std::size_t>(number)] = number;
    expected +=
        (number == 0 ? "{\"member" : ",\"member") + std::to_string(number) + "\":" + std::to_string(number);
  }

  EXPECT_EQ(JsonToString(root), expected + "}");
}

TEST(JsonHandleTest, EachOfAnyNumberOfMembersIsFoundByItsName) {
  for (std::size_t count = 1; count <= 40; ++count) {
    MyValue root = NumberedMembers(count);
    const std::string text = JsonToString(root);
    MyValue event;
    event.JsonItemAddToObject("copy", root);

    for (MyValue object : {root, event["copy"]}) {
      EXPECT_FALSE(object.IsMember(NumberedName(count)));
      for (std::size_t number = 0; number < count; ++number) {
        EXPECT_TRUE(object.IsMember(NumberedName(number))) << number << " of " << count;
        object[NumberedName(number).c_str()] = static_cast<int>(number);
      }
      EXPECT_EQ(JsonToString(object), text) << "one of " << count << " was added again";
    }
  }
}

TEST(JsonHandleTest, AnObjectOutlivesAnyAllocationThatFails) {
  constexpr std::size_t count = 20;
  const std::string complete = JsonToString(NumberedMembers(count));
  std::size_t nth = 0;
  for (bool happened = true; happened;) {
    MyValue root;
    {
      const AllocationFailure failure(++nth);
      for (std::size_t number = 0; number < count; ++number) {
        try {
          root[NumberedName(number).c_str()] = static_cast<int>(number);
        } catch (const std::bad_alloc&) {
          root[NumberedName(number).c_str()] = static_cast<int>(number);
        }
      }
      happened = failure.Happened();
    }
    EXPECT_EQ(JsonToString(root), complete) << "without allocation " << nth;
    for (std::size_t number = 0; number < count; ++number) {
      EXPECT_TRUE(root.IsMember(NumberedName(number))) << number << ", without allocation " << nth;
    }
  }
  EXPECT_GT(nth, count);
}

TEST(JsonHandleTest, ACopyIsAnotherHandleOnTheSameValue) {
  MyValue root;
  MyValue copy(root);
  copy["a"] = 1;

  EXPECT_EQ(JsonToString(root), R"({"a":1})");
}

TEST(JsonHandleTest, AssigningThroughAHandleChangesTheValueWhereItStands) {
  MyValue root;
  MyValue other;
  MyValue member = root["a"];
  other["b"] = 1;
  member = other;
  other["b"] = 2;

  EXPECT_EQ(JsonToString(root), R"({"a":{"b":1}})");
  EXPECT_EQ(JsonToString(other), R"({"b":2})");
}

TEST(JsonHandleTest, AssigningAnExpiringHandleCopiesItsValueToo) {
  MyValue root;
  MyValue other;
  other["b"] = 1;
  root["a"] = std::move(other["b"]);

  EXPECT_EQ(JsonToString(root), R"({"a":1})");
  EXPECT_EQ(JsonToString(other), R"({"b":1})");
}

TEST(JsonHandleTest, DestroyingAHandleLeavesTheMember) {
  MyValue root;
  {
    MyValue member = root["a"];
    member = 1;
  }

  EXPECT_EQ(JsonToString(root), R"({"a":1})");
}

TEST(JsonHandleTest, AHandleMayOutliveTheDocument) {
  MyValue member;
  {
    MyValue root;
    root["a"]["b"] = 1;
    MyValue inner = root["a"];
    member.JsonItemAddToObject("copy", inner);
    std::vector<MyValue> kept{inner};
    root = "gone";
    EXPECT_EQ(JsonToString(root), R"("gone")");
    kept.front()["c"] = 2;
    EXPECT_EQ(JsonToString(kept.front()), R"({"b":1,"c":2})");
    EXPECT_EQ(JsonToString(root), R"("gone")");
  }
  EXPECT_EQ(JsonToString(member), R"({"copy":{"b":1}})");
}

TEST(JsonHandleTest, AnItemIsCopiedIntoTheObject) {
  MyValue event;
  event["eventType"] = "test";
  {
    MyValue content;
    content["uid"] = 0;
    event.JsonItemAddToObject("eventContent", content);
    content["uid"] = 7;
    content["late"] = 1;
  }

  EXPECT_EQ(JsonToString(event), R"({"eventType":"test","eventContent":{"uid":0}})");
}

TEST(JsonHandleTest, AnItemTakesThePlaceOfAMemberOfThatName) {
  MyValue root;
  MyValue item;
  MyValue member = root["a"];
  root["b"] = 1;
  item["c"] = 2;
  root.JsonItemAddToObject("a", item);
  member["d"] = 3;

  EXPECT_EQ(JsonToString(root), R"({"a":{"c":2,"d":3},"b":1})");
}

TEST(JsonHandleTest, AnItemMakesAnObjectOfSomethingElse) {
  MyValue root;
  root["a"] = 1;
  root["a"].JsonItemAddToObject("b", MyValue());

  EXPECT_EQ(JsonToString(root), R"({"a":{"b":{}}})");
}

TEST(JsonHandleTest, AValueCanBeAddedToItself) {
  MyValue root;
  root["a"] = 1;
  root.JsonItemAddToObject("self", root);
  EXPECT_EQ(JsonToString(root), R"({"a":1,"self":{"a":1}})");
  root.JsonItemAddToObject("self", root["self"]["a"]);
  EXPECT_EQ(JsonToString(root), R"({"a":1,"self":1})");
}

TEST(JsonHandleTest, AValueCanBeAssignedToItselfAndToItsParts) {
  MyValue root;
  root["a"]["b"] = 1;
  const MyValue& sameRoot = root;
  root = sameRoot;
  EXPECT_EQ(JsonToString(root), R"({"a":{"b":1}})");
  MyValue inner = root["a"];
  inner = root;
  EXPECT_EQ(JsonToString(root), R"({"a":{"a":{"b":1}}})");
  root = root["a"]["a"];
  EXPECT_EQ(JsonToString(root), R"({"b":1})");
}

TEST(JsonHandleTest, AnExpiringHandleIsCopiedAndStaysAHandle) {
  MyValue root;
  MyValue moved(std::move(root));
  moved["a"] = 1;

  EXPECT_EQ(JsonToString(root), R"({"a":1})");  // NOLINT(bugprone-use-after-move): what is left is the point
  root["b"] = 2;
  EXPECT_EQ(JsonToString(moved), R"({"a":1,"b":2})");
}

struct WrittenText {
  std::string text;
  std::string written;
};

TEST(JsonTextOfAValueTest, AnyTextIsWrittenInAscii) {
  const std::vector<WrittenText> table = {
      {"toor", R"("toor")"},
      {"", R"("")"},
      {R"(a"b\c/d)", R"("a\"b\\c/d")"},
      {"%s%n", R"("%s%n")"},
      {"a\r\n\tb", R"("a\r\n\tb")"},
      {"\x1b[31m\x7f", R"("\u001b[31m\u007f")"},
      {std::string("a\0b", 3), R"("a\u0000b")"},
      {"\xc2\x85", R"("\u0085")"},
      {"\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xae\xe2\x81\xa6", R"("\u2028\u2029\u202e\u2066")"},
      {"\xc3\xa9\xf0\x9f\x98\x80", R"("\u00e9\ud83d\ude00")"},
      {"\xff", R"("\ufffd")"},
      {"a\xffz\xc3", R"("a\ufffdz\ufffd")"},
      {"\xc3(", R"("\ufffd(")"},
      {"\xef\xbf\xbd", R"("\ufffd")"},
  };
  for (const WrittenText& row : table) {
    MyValue root;
    root["text"] = row.text;
    EXPECT_EQ(JsonToString(root), "{\"text\":" + row.written + "}");
  }
}

bool IsOnePrintableLine(const std::string& text) {
  for (const char character : text) {
    if (character < ' ' || character > '~') {
      return false;
    }
  }
  return !text.empty();
}

void ExpectIsWrittenAndReadBack(const std::string& content) {
  MyValue root;
  root["value"] = content;
  root[content.c_str()] = 1;
  const std::string written = JsonToString(root);
  ASSERT_TRUE(IsOnePrintableLine(written)) << testing::PrintToString(content);
  MyValue readBack;
  ASSERT_TRUE(MyCharReader().Parse(written, readBack)) << written;
  ASSERT_EQ(JsonToString(readBack), written);
  if (written.find("\\ufffd") == std::string::npos) {
    ASSERT_TRUE(readBack.IsMember(content.c_str())) << written;
  }
}

TEST(JsonTextOfAValueTest, EveryTextOfOneOrTwoBytesIsOneLineThatReadsBackTheSame) {
  for (const std::string& content : TextsOfOneOrTwoBytes()) {
    ASSERT_NO_FATAL_FAILURE(ExpectIsWrittenAndReadBack(content));
  }
}

std::vector<std::string> reported;

class InvalidTextReportTest : public testing::Test {
 protected:
  InvalidTextReportTest() {
    reported.clear();
    ReportInvalidTextTo([](const std::string& raw) { reported.push_back(raw); });
  }
  ~InvalidTextReportTest() override { ReportInvalidTextTo(nullptr); }
};

TEST_F(InvalidTextReportTest, EachTextThatIsNotUtf8IsReportedOnceAsItCame) {
  MyValue root;
  root["valid"] = std::string("\xc3\xa9 \xf0\x9f\x98\x80 \xef\xbf\xbd \x1b \"");
  root["invalid"] = std::string("too\xffr");
  root["literal"] = "\xc3(";
  root["overlong"] = std::string("a\0\xc0\x80", 4);
  root["number"] = 1;
  MyValue copy;
  copy.JsonItemAddToObject("root", root);
  EXPECT_THAT(reported, testing::ElementsAre("too\xffr", "\xc3(", std::string("a\0\xc0\x80", 4)));

  JsonToString(copy);
  EXPECT_EQ(reported.size(), 3u) << "writing what is quoted already reports nothing";
}

TEST_F(InvalidTextReportTest, ANameThatIsNotUtf8IsReportedWhenItIsWritten) {
  MyValue root;
  root["\xfe"] = 1;
  EXPECT_EQ(JsonToString(root), R"({"\ufffd":1})");
  EXPECT_THAT(reported, testing::ElementsAre("\xfe"));
}

TEST_F(InvalidTextReportTest, AReportThatThrowsChangesNothing) {
  ReportInvalidTextTo([](const std::string& raw) {
    reported.push_back(raw);
    throw std::bad_alloc();
  });
  MyValue root;
  EXPECT_NO_THROW(root["name"] = std::string("too\xffr"));
  EXPECT_EQ(JsonToString(root), R"({"name":"too\ufffdr"})");
  EXPECT_THAT(reported, testing::ElementsAre("too\xffr"));
}

TEST_F(InvalidTextReportTest, WithoutAReceiverNothingIsReported) {
  ReportInvalidTextTo(nullptr);
  MyValue root;
  root["name"] = std::string("too\xffr");
  EXPECT_EQ(JsonToString(root), R"({"name":"too\ufffdr"})");
  EXPECT_THAT(reported, testing::IsEmpty());
}

}  // namespace
