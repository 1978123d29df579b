#ifndef VELTA_TESTS_SUPPORT_RECORDING_JSON_H
#define VELTA_TESTS_SUPPORT_RECORDING_JSON_H

// Stands in for the agent's JSON library where a test is about the calls and not about the text: defines
// everything in host/json.h. Each call becomes an entry of RecordingHost's list. Values and handles are
// numbered together, as they are made, from 1:
//
//   value 1                         (made empty)
//   copy 1 as 2
//   member 1 "userName" as 2        (operator[])
//   assign 2 string "toor", assign 2 int 0, assign 2 literal "illegal", assign 2 value 1
//   item 3 "eventContent" 1         (JsonItemAddToObject)
//   text 3                          (JsonToString; the text is "text of 3")
//   parse "{}" into 1
//   ismember 1 "unauthorized-root-user"
//   free 2                          (destruction)
//
// RecordingHost's onCall may throw from each of them but free and, which is made in the course of another
// call, copy.
//
// Thread use: one thread at a time.
struct RecordingJson {
  // Numbers from 1 again; Parse and IsMember give true again. While no value exists.
  static void Reset();

  static bool parses;
  static bool hasMembers;

  // How many values and handles exist.
  static int Alive();
};

#endif  // VELTA_TESTS_SUPPORT_RECORDING_JSON_H
