#include "agent/json.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/safe_text.h"
#include "host/json.h"

namespace {

// Deeper texts are refused: values are copied and written by recursion, and no policy nests like that.
constexpr std::size_t deepestNesting = 1000;

constexpr std::size_t usualText = 256;  // as long as an event

std::atomic<void (*)(const std::string&)> reportInvalidText{nullptr};

void ReportIfInvalid(const std::string& text) {
  void (*const report)(const std::string&) = reportInvalidText;
  if (report == nullptr || IsUtf8(text)) {
    return;
  }
  try {
    report(text);
  } catch (...) {  // no memory for the report; the alert matters more
  }
}

// Most texts are names and paths, for which the library would take far longer than this.
bool NeedsNoEscape(const std::string& text) {
  return std::all_of(text.begin(), text.end(), [](char character) {
    return character >= ' ' && character <= '~' && character != '"' && character != '\\';
  });
}

// Bytes that are no UTF-8 become U+FFFD and everything beyond ASCII is escaped: whatever an account is
// called, its alert is written, on one line.
std::string EscapedText(const std::string& text) {
  ReportIfInvalid(text);
  return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

void AppendQuoted(const std::string& text, std::string& out) {
  if (!NeedsNoEscape(text)) {
    out += EscapedText(text);
    return;
  }
  out += '"';
  out += text;
  out += '"';
}

std::string QuotedText(const std::string& text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  AppendQuoted(text, quoted);
  return quoted;
}

class Node;

// The members of an object: found by name, told in the order in which they came. As few as an event has are
// looked through, which takes no memory. The library's ordered object does so with any number of them: many
// seconds for a text of a megabyte, a hundred times that for ten.
class Members {
 public:
  Members() = default;
  Members(const Members& other);
  Members& operator=(const Members& other) = delete;

  std::shared_ptr<Node> FindOrAdd(const std::string& name);
  bool Has(const std::string& name) const { return PlaceOf(name) < members.size(); }
  void Write(std::string& out) const;

 private:
  struct Member {
    std::string name;
    std::shared_ptr<Node> node;
  };

  static constexpr std::size_t few = 16;

  std::size_t PlaceOf(const std::string& name) const;  // their number when there is none of that name

  std::vector<Member> members;
  std::map<std::string, std::size_t> places;  // of all, once they are more than a few
};

// One value: an object, or the JSON text of anything else. Nothing can look into an array, so it is text too,
// which keeps a document of millions of numbers as small as it came.
//
// The library parses and quotes; its own values are not used. They allocate when they are destroyed, so one
// that goes while memory is short ends the process, and a member of its ordered object moves at the next
// insertion.
//
// A handle shares the node that it is bound to, and a member keeps its node when its value changes: a handle
// stays bound whatever happens around it, at worst to a node that has left its document.
class Node {
 public:
  Node() : text("null") {}
  explicit Node(std::string jsonText) : text(std::move(jsonText)) {}
  Node(const Node& other)
      : text(other.text), members(other.members ? std::make_unique<Members>(*other.members) : nullptr) {}
  Node& operator=(const Node& other) = delete;
  Node(Node&&) = default;
  Node& operator=(Node&&) = default;

  static Node Object() {
    Node node;
    node.AsObject();
    return node;
  }

  // The members of this value, which is made an object if it is none.
  Members& AsObject() {
    if (!members) {
      members = std::make_unique<Members>();
      text.clear();
    }
    return *members;
  }
  bool Has(const std::string& name) const { return members && members->Has(name); }
  void Write(std::string& out) const {
    if (members) {
      members->Write(out);
    } else {
      out += text;
    }
  }

 private:
  std::string text;
  std::unique_ptr<Members> members;
};

Members::Members(const Members& other) : places(other.places) {
  members.reserve(other.members.size());
  for (const Member& member : other.members) {
    members.push_back({member.name, std::make_shared<Node>(*member.node)});
  }
}

std::size_t Members::PlaceOf(const std::string& name) const {
  if (!places.empty() && places.size() == members.size()) {
    const auto found = places.find(name);
    return found == places.end() ? members.size() : found->second;
  }
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&name](const Member& member) { return member.name == name; });
  return static_cast<std::size_t>(found - members.begin());
}

// Memory that fails leaves the object as it was or with one member more. The last ones may then be without
// their place: until the next member comes, every name is looked for among all.
std::shared_ptr<Node> Members::FindOrAdd(const std::string& name) {
  const std::size_t place = PlaceOf(name);
  if (place < members.size()) {
    return members[place].node;
  }
  if (members.size() == members.capacity()) {
    members.reserve(2 * members.size() + 4);
  }
  members.push_back({name, std::make_shared<Node>()});
  if (members.size() > few) {
    for (std::size_t next = places.size(); next < members.size(); ++next) {
      places.emplace(members[next].name, next);
    }
  }
  return members.back().node;
}

void Members::Write(std::string& out) const {
  char before = '{';
  for (const Member& member : members) {
    out += before;
    AppendQuoted(member.name, out);
    out += ':';
    member.node->Write(out);
    before = ',';
  }
  out += members.empty() ? "{}" : "}";
}

struct Fault {
  std::size_t offset;
  std::string reason;
};

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// The library's "[json.exception.parse_error.101] parse error at line 1, column 2: syntax error while parsing
// object key - unexpected '}'; expected string literal", from "unexpected" on. What it read last goes too: it
// can be megabytes, and the position says where it stands.
std::string PlainReason(const std::string& what) {
  std::size_t start = what.find("syntax error");
  start = start == std::string::npos ? start : what.find(" - ", start);
  if (start == std::string::npos) {
    return "not JSON";
  }
  start += 3;
  const std::size_t end = what.find("; last read", start);
  return what.substr(start, end == std::string::npos ? end : end - start);
}

// The library's position is the end of the token that it did not expect; this is where that token begins.
// lastRead is the token when it is a string or a number, and of no use otherwise.
std::size_t StartOfToken(const std::string& text, std::size_t end, const std::string& lastRead) {
  std::size_t length = 1;
  if (text[end] == '"' || (text[end] >= '0' && text[end] <= '9')) {
    length = lastRead.size();
  } else if (text[end] >= 'a' && text[end] <= 'z') {
    length = end >= 4 && text.compare(end - 4, 5, "false") == 0 ? 5 : 4;  // or true, or null
  }
  return length <= end + 1 ? end + 1 - length : end;
}

// Where the nesting of a text that is JSON up to there reaches depth.
std::size_t OffsetOfDepth(const std::string& text, std::size_t depth) {
  bool inString = false;
  std::size_t open = 0;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char character = text[at];
    if (inString) {
      at += character == '\\' ? 1 : 0;
      inString = character != '"';
    } else if (character == '"') {
      inString = true;
    } else if (character == '[' || character == '{') {
      if (++open == depth) {
        return at;
      }
    } else if (character == ']' || character == '}') {
      --open;
    }
  }
  return text.size();
}

// Takes what the library's parser finds in the text, and makes a document of it.
class DocumentBuilder : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit DocumentBuilder(const std::string& parsedText) : source(parsedText) {}

  Node& Document() { return document; }
  std::optional<Fault>& FirstFault() { return fault; }

  bool null() override { return Take("null"); }
  bool boolean(bool value) override { return Take(value ? "true" : "false"); }
  bool number_integer(number_integer_t value) override { return Take(std::to_string(value)); }
  bool number_unsigned(number_unsigned_t value) override { return Take(std::to_string(value)); }
  bool number_float(number_float_t value, const string_t& /*text*/) override {
    return Take(nlohmann::json(value).dump());  // not the text, in which the locale's decimal point stands
  }
  bool string(string_t& value) override { return Take(QuotedText(value)); }
  bool binary(binary_t& /*value*/) override { return false; }  // no part of a text

  bool start_object(std::size_t /*elements*/) override {
    if (!GoDeeper()) {
      return false;
    }
    if (openArrays > 0) {
      arrayText += '{';
    } else {
      *target = Node::Object();
      objects.push_back(target);
    }
    kinds.push_back(Kind::Object);
    return true;
  }

  bool key(string_t& name) override {
    if (openArrays > 0) {
      SeparateInArray();
      arrayText += QuotedText(name);
      arrayText += ':';
    } else {
      target = objects.back()->AsObject().FindOrAdd(name).get();  // the last of equal names wins
    }
    return true;
  }

  bool end_object() override {
    kinds.pop_back();
    if (openArrays > 0) {
      arrayText += '}';
    } else {
      objects.pop_back();
    }
    return true;
  }

  bool start_array(std::size_t /*elements*/) override {
    if (!GoDeeper()) {
      return false;
    }
    arrayText += '[';
    kinds.push_back(Kind::Array);
    ++openArrays;
    return true;
  }

  bool end_array() override {
    kinds.pop_back();
    --openArrays;
    arrayText += ']';
    if (openArrays == 0) {
      *target = Node(std::move(arrayText));
      arrayText.clear();
    }
    return true;
  }

  bool parse_error(std::size_t position, const std::string& lastRead,
                   const nlohmann::detail::exception& error) override {
    constexpr int outOfRange = 406;
    const std::size_t last = position > 0 ? position - 1 : 0;  // the byte that was read last
    fault = Fault{last, error.id == outOfRange ? "number out of range" : PlainReason(error.what())};
    if (last < source.size() && (error.id == outOfRange || StartsWith(fault->reason, "unexpected"))) {
      fault->offset = StartOfToken(source, last, lastRead);
    }
    return false;
  }

 private:
  enum class Kind { Object, Array };

  bool Take(std::string text) {
    if (openArrays > 0) {
      SeparateValueInArray();
      arrayText += text;
    } else {
      *target = Node(std::move(text));
    }
    return true;
  }

  bool GoDeeper() {
    if (kinds.size() == deepestNesting) {
      fault = Fault{OffsetOfDepth(source, deepestNesting + 1),
                    "nested deeper than " + std::to_string(deepestNesting) + " levels"};
      return false;
    }
    if (openArrays > 0) {
      SeparateValueInArray();
    }
    return true;
  }

  // A value behind a name has its separator already: the colon.
  void SeparateValueInArray() {
    if (kinds.back() == Kind::Array) {
      SeparateInArray();
    }
  }
  void SeparateInArray() {
    if (arrayText.back() != '[' && arrayText.back() != '{') {
      arrayText += ',';
    }
  }

  const std::string& source;
  std::optional<Fault> fault;
  Node document;
  Node* target = &document;    // where the next value goes
  std::vector<Node*> objects;  // open ones, outside arrays
  std::vector<Kind> kinds;     // open objects and arrays
  std::size_t openArrays = 0;
  std::string arrayText;  // of the outermost open array
};

// The document of the text, or the first fault in it.
std::optional<Fault> ReadDocument(const std::string& text, Node& document) {
  DocumentBuilder builder(text);
  nlohmann::json::sax_parse(text, &builder);
  const std::size_t nul = text.find('\0');  // the library would take one for the end of the text
  if (nul != std::string::npos && (!builder.FirstFault() || builder.FirstFault()->offset >= nul)) {
    return Fault{nul, "a NUL byte"};
  }
  if (!builder.FirstFault()) {
    document = std::move(builder.Document());
  }
  return builder.FirstFault();
}

std::string NameOrEmpty(const char* name) { return name == nullptr ? std::string() : std::string(name); }

}  // namespace

std::optional<JsonFault> FindJsonFault(const std::string& text) {
  Node ignored;
  const std::optional<Fault> fault = ReadDocument(text, ignored);
  if (!fault) {
    return std::nullopt;
  }
  JsonFault found{1, 1, fault->reason};
  for (std::size_t at = 0; at < fault->offset && at < text.size(); ++at) {
    if (text[at] == '\n') {
      ++found.line;
      found.column = 1;
    } else {
      ++found.column;
    }
  }
  return found;
}

void ReportInvalidTextTo(void (*report)(const std::string& raw)) { reportInvalidText = report; }

namespace utils {
namespace MyJson {

struct MyValue::Representation {
  std::shared_ptr<Node> node;

  static Node& NodeOf(const MyValue& value) { return *value.representation->node; }
};

MyValue::MyValue() : representation(new Representation{std::make_shared<Node>(Node::Object())}) {}

MyValue::MyValue(const MyValue& other) : representation(new Representation(*other.representation)) {}

MyValue::~MyValue() { delete representation; }

// The copy is complete before anything changes: either value may be the other, or a part of it.
MyValue& MyValue::operator=(const MyValue& other) {  // NOLINT(bugprone-unhandled-self-assignment)
  Representation::NodeOf(*this) = Node(Representation::NodeOf(other));
  return *this;
}

void MyValue::operator=(std::string text) {  // NOLINT(performance-unnecessary-value-param): so it is declared
  Representation::NodeOf(*this) = Node(QuotedText(text));
}

void MyValue::operator=(int number) { Representation::NodeOf(*this) = Node(std::to_string(number)); }

void MyValue::operator=(const char* text) {
  Representation::NodeOf(*this) = text == nullptr ? Node() : Node(QuotedText(text));
}

MyValue MyValue::operator[](const char* key) {
  // A handle on this value, for the moment: a value of its own would be made for nothing.
  MyValue member(*this);
  member.representation->node = Representation::NodeOf(*this).AsObject().FindOrAdd(NameOrEmpty(key));
  return member;
}

bool MyValue::IsMember(const std::string& key) const { return representation->node->Has(key); }

// The handle is const, the value that it is bound to is not.
void MyValue::JsonItemAddToObject(const char* key, const MyValue& item) const {
  Node copy(Representation::NodeOf(item));  // first, as this object may be the item or a part of it
  *representation->node->AsObject().FindOrAdd(NameOrEmpty(key)) = std::move(copy);
}

bool MyCharReader::Parse(const std::string& text, MyValue& root) const {
  Node document;
  if (ReadDocument(text, document)) {
    return false;
  }
  MyValue::Representation::NodeOf(root) = std::move(document);
  return true;
}

}  // namespace MyJson
}  // namespace utils

namespace Utils {
namespace Convert {

std::string JsonToString(const utils::MyJson::MyValue& value) {
  std::string text;
  text.reserve(usualText);
  utils::MyJson::MyValue::Representation::NodeOf(value).Write(text);
  return text;
}

}  // namespace Convert
}  // namespace Utils
