#ifndef VELTA_AGENT_LOST_EVENTS_H
#define VELTA_AGENT_LOST_EVENTS_H

#include <cstddef>
#include <string>

// Remembers events that could not be kept, in bounded memory, and makes one event of them that says how many
// they were and whom they named.
//
// Thread use: none of its own; its owner locks.
class LostEvents {
 public:
  static constexpr std::size_t longestNames = std::size_t{64} << 10;  // bytes; further names are only counted

  LostEvents();

  // Allocates nothing: memory may be what is short.
  void Add(const std::string& event) noexcept;

  std::size_t Count() const { return count; }

  // {"eventType":"lost-alerts","eventTime":time,"eventContent":{"count":3,"userNames":["a","b"],"unnamed":1}}
  std::string Summary(const std::string& time) const;

  void Clear() noexcept;

 private:
  std::size_t count = 0;
  std::size_t named = 0;
  std::string names;  // as they stood in the events: quoted, with a comma in between
};

#endif  // VELTA_AGENT_LOST_EVENTS_H
