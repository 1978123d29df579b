#include "tests/support/recording_json.h"

#include <string>

#include "host/json.h"
#include "tests/support/recording_host.h"

namespace utils {
namespace MyJson {

struct MyValue::Representation {
  int number;

  static std::string NumberOf(const MyValue& value) { return std::to_string(value.representation->number); }
};

}  // namespace MyJson
}  // namespace utils

namespace {

int made = 0;
int alive = 0;
std::string memberBeingMade;  // the entry of the value that is made next, when it is a handle on a member

void Record(const std::string& entry) { RecordingHost::Get().Record(entry); }

std::string Quoted(const std::string& text) { return '"' + text + '"'; }

}  // namespace

bool RecordingJson::parses = true;
bool RecordingJson::hasMembers = true;

void RecordingJson::Reset() {
  made = 0;
  parses = true;
  hasMembers = true;
}

int RecordingJson::Alive() { return alive; }

namespace utils {
namespace MyJson {

MyValue::MyValue() : representation(nullptr) {
  const int number = ++made;
  std::string entry = "value " + std::to_string(number);
  if (!memberBeingMade.empty()) {
    entry = memberBeingMade + " as " + std::to_string(number);
    memberBeingMade.clear();
  }
  Record(entry);
  representation = new Representation{number};
  ++alive;
}

MyValue::MyValue(const MyValue& other) : representation(new Representation{++made}) {
  ++alive;
  Record("copy " + Representation::NumberOf(other) + " as " + Representation::NumberOf(*this));
}

MyValue::~MyValue() {
  Record("free " + Representation::NumberOf(*this));
  delete representation;
  --alive;
}

MyValue& MyValue::operator=(const MyValue& other) {
  Record("assign " + Representation::NumberOf(*this) + " value " + Representation::NumberOf(other));
  return *this;
}

void MyValue::operator=(std::string text) {
  Record("assign " + Representation::NumberOf(*this) + " string " + Quoted(text));
}

void MyValue::operator=(int number) {
  Record("assign " + Representation::NumberOf(*this) + " int " + std::to_string(number));
}

void MyValue::operator=(const char* text) {
  Record("assign " + Representation::NumberOf(*this) + " literal " + Quoted(text));
}

MyValue MyValue::operator[](const char* key) {
  memberBeingMade = "member " + Representation::NumberOf(*this) + " " + Quoted(key);
  return MyValue();
}

bool MyValue::IsMember(const std::string& key) const {
  Record("ismember " + Representation::NumberOf(*this) + " " + Quoted(key));
  return RecordingJson::hasMembers;
}

void MyValue::JsonItemAddToObject(const char* key, const MyValue& item) const {
  Record("item " + Representation::NumberOf(*this) + " " + Quoted(key) + " " +
         Representation::NumberOf(item));
}

bool MyCharReader::Parse(const std::string& text, MyValue& root) const {
  Record("parse " + Quoted(text) + " into " + MyValue::Representation::NumberOf(root));
  return RecordingJson::parses;
}

}  // namespace MyJson
}  // namespace utils

namespace Utils {
namespace Convert {

std::string JsonToString(const utils::MyJson::MyValue& value) {
  const std::string number = utils::MyJson::MyValue::Representation::NumberOf(value);
  Record("text " + number);
  return "text of " + number;
}

}  // namespace Convert
}  // namespace Utils
