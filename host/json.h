#ifndef VELTA_HOST_JSON_H
#define VELTA_HOST_JSON_H

#include <string>

#pragma GCC visibility push(default)

namespace utils {
namespace MyJson {

// A handle on a JSON value. Default-constructed, it owns an empty value, which becomes an object when a
// member is added; operator[] gives a handle that is bound to a member of this value.
//
// One pointer wide. What it points at is the agent's: everything is declared out of line, so that an agent
// implements it behind the JSON library that it has. Copying a handle makes another handle on the same value;
// assigning through a handle changes the value that it is bound to, wherever that stands. Destroying a handle
// on a member leaves the member where it is.
//
// Thread use: handles on one document belong to one thread at a time.
class MyValue {
 public:
  MyValue();
  MyValue(const MyValue& other);
  ~MyValue();

  // Assigns a copy of the other handle's value.
  MyValue& operator=(const MyValue& other);

  void operator=(std::string text);
  void operator=(int number);
  void operator=(const char* text);

  // A handle on the member of that name, which is created if it is missing.
  MyValue operator[](const char* key);

  // True when the value is an object with a member of that name at its top level.
  bool IsMember(const std::string& key) const;

  // Adds item to this object under key. item stays the caller's and may be destroyed at once.
  void JsonItemAddToObject(const char* key, const MyValue& item) const;

  struct Representation;  // the agent's

 private:
  Representation* representation;
};

// Reads JSON texts. Has no state.
class MyCharReader {
 public:
  // True, and the document in root, when text is valid JSON; otherwise false.
  bool Parse(const std::string& text, MyValue& root) const;
};

}  // namespace MyJson
}  // namespace utils

namespace Utils {
namespace Convert {

// The JSON text of a value, members in the order in which they were added.
std::string JsonToString(const utils::MyJson::MyValue& value);

}  // namespace Convert
}  // namespace Utils

#pragma GCC visibility pop

#endif  // VELTA_HOST_JSON_H
