#ifndef VELTA_BUS_MESSAGE_BUS_H
#define VELTA_BUS_MESSAGE_BUS_H

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// An in-process publish/subscribe registry: one for each payload type T, under one lock for all of them.
//
// A topic holds its subscriptions in the order in which they were made, each subscriber name at most once.
// Handlers run on the publishing thread, without the lock: they may subscribe, unsubscribe and publish. One
// publication may therefore still reach a handler right after Unsubscribe has returned.
//
// Thread use: everything may be called from any thread. Exceptions (a lock that fails, memory, an empty
// handler, whatever a handler throws) reach the caller; the lock is free by then and the registry intact.
class MessageBus {
 public:
  template <typename T>
  using SubList = std::map<std::string, std::vector<std::pair<std::string, std::function<void(T)>>>>;

  template <typename T>
  static SubList<T>& GetSubList() {
    static SubList<T> subList;
    return subList;
  }

  static std::mutex& GetSubMutex() {
    static std::mutex subMtx;  // guards the registries of every payload type
    return subMtx;
  }

  // False when the name is subscribed to the topic already; its first handler then stays.
  template <typename T>
  static bool Subscribe(const std::string& topic, const std::string& name,
                        const std::function<void(T)>& handler) {
    std::lock_guard<std::mutex> lock(GetSubMutex());
    auto& subscriptions = GetSubList<T>()[topic];
    for (const auto& subscription : subscriptions) {
      if (subscription.first == name) {
        return false;
      }
    }
    subscriptions.emplace_back(name, handler);
    return true;
  }

  // An unknown topic is left behind as an empty entry, which no publication can tell from a missing one.
  template <typename T>
  static void Unsubscribe(const std::string& topic, const std::string& name) {
    std::lock_guard<std::mutex> lock(GetSubMutex());
    auto& subscriptions = GetSubList<T>()[topic];
    for (auto subscription = subscriptions.begin(); subscription != subscriptions.end(); ++subscription) {
      if (subscription->first == name) {
        subscriptions.erase(subscription);
        return;
      }
    }
  }

  // Delivers from a copy, with the lock released. A handler may use the bus, and the detector takes its own
  // mutex: calling it under subMtx would tie the two locks into an order. The copy costs a few allocations a
  // publication; publications are rare.
  template <typename T>
  static void Publish(const std::string& topic, T payload) {
    SubList<T> registry = CopySubList<T>();
    for (const auto& subscription : registry[topic]) {
      subscription.second(payload);
    }
  }

 private:
  template <typename T>
  static SubList<T> CopySubList() {
    std::lock_guard<std::mutex> lock(GetSubMutex());
    return GetSubList<T>();
  }
};

#endif  // VELTA_BUS_MESSAGE_BUS_H
