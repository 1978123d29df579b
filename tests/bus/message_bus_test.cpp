#include "bus/message_bus.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "collector/passwd_info.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/held_mutex.h"
#include "tests/support/latch.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

using Text = const std::string&;
using Snapshot = const std::vector<PasswdInfo>&;

static_assert(
    std::is_same<
        MessageBus::SubList<Snapshot>,
        std::map<std::string, std::vector<std::pair<std::string, std::function<void(Snapshot)>>>>>::value,
    "a registry is a map from topics to named handlers in order");
static_assert(std::is_same<decltype(MessageBus::GetSubMutex()), std::mutex&>::value,
              "one lock, not recursive");

class MessageBusTest : public testing::Test {
 protected:
  MessageBusTest() { ClearRegistries(); }
  ~MessageBusTest() override { ClearRegistries(); }

  static void ClearRegistries() {
    MessageBus::GetSubList<Text>().clear();
    MessageBus::GetSubList<int>().clear();
    MessageBus::GetSubList<Snapshot>().clear();
  }

  // A handler that writes down its name and what it got.
  std::function<void(Text)> Writer(const std::string& name) {
    return [this, name](Text payload) { delivered.push_back(name + " got " + payload); };
  }

  static bool Subscribe(const std::string& topic, const std::string& name,
                        const std::function<void(Text)>& handler) {
    return MessageBus::Subscribe<Text>(topic, name, handler);
  }
  static void Unsubscribe(const std::string& topic, const std::string& name) {
    MessageBus::Unsubscribe<Text>(topic, name);
  }
  static void Publish(const std::string& topic, const std::string& payload) {
    MessageBus::Publish<Text>(topic, payload);
  }

  // The names subscribed to a topic, in order.
  static std::vector<std::string> Names(const std::string& topic) {
    std::vector<std::string> names;
    const auto& registry = MessageBus::GetSubList<Text>();
    const auto found = registry.find(topic);
    if (found != registry.end()) {
      for (const auto& subscription : found->second) {
        names.push_back(subscription.first);
      }
    }
    return names;
  }

  // Asked on another thread: on the thread that holds it, the question is undefined.
  static bool LockIsFree() {
    return std::async(std::launch::async,
                      [] {
                        const std::unique_lock<std::mutex> lock(MessageBus::GetSubMutex(), std::try_to_lock);
                        return lock.owns_lock();
                      })
        .get();
  }

  std::vector<std::string> delivered;
};

TEST_F(MessageBusTest, PublishingOnATopicWithoutSubscribersDoesNothing) {
  Subscribe("other", "reader", Writer("reader"));

  Publish("detect_user", "news");

  EXPECT_THAT(delivered, IsEmpty());
  EXPECT_THAT(MessageBus::GetSubList<Text>(), ElementsAre(Pair("other", SizeIs(1))));
}

TEST_F(MessageBusTest, SubscribingANameTwiceSucceedsOnceAndTheFirstHandlerIsCalledOnce) {
  EXPECT_TRUE(Subscribe("detect_user", "unauthorized-root-user", Writer("first")));
  EXPECT_FALSE(Subscribe("detect_user", "unauthorized-root-user", Writer("second")));

  Publish("detect_user", "news");

  EXPECT_THAT(delivered, ElementsAre("first got news"));
  EXPECT_THAT(Names("detect_user"), ElementsAre("unauthorized-root-user"));
}

TEST_F(MessageBusTest, UnsubscribingANameThatWasNeverSubscribedChangesNoSubscription) {
  Subscribe("detect_user", "reader", Writer("reader"));

  Unsubscribe("detect_user", "stranger");
  Unsubscribe("detect_user", "reade");
  Publish("detect_user", "news");

  EXPECT_THAT(delivered, ElementsAre("reader got news"));
}

TEST_F(MessageBusTest, UnsubscribingFromATopicNeverUsedChangesNoSubscriptionAndLeavesAnEmptyEntry) {
  Subscribe("detect_user", "reader", Writer("reader"));

  Unsubscribe("never used", "reader");
  Publish("detect_user", "news");
  Publish("never used", "news");

  EXPECT_THAT(delivered, ElementsAre("reader got news"));
  EXPECT_THAT(MessageBus::GetSubList<Text>(),
              ElementsAre(Pair("detect_user", SizeIs(1)), Pair("never used", IsEmpty())));
}

TEST_F(MessageBusTest, SubscribersAreCalledInTheOrderInWhichTheySubscribed) {
  Subscribe("detect_user", "zoe", Writer("zoe"));
  Subscribe("detect_user", "adam", Writer("adam"));
  Subscribe("detect_user", "mia", Writer("mia"));

  Publish("detect_user", "news");

  EXPECT_THAT(delivered, ElementsAre("zoe got news", "adam got news", "mia got news"));
}

TEST_F(MessageBusTest, ThoseBehindAnUnsubscribedOneKeepTheirOrderAndALaterReturnGoesToTheEnd) {
  for (const char* name : {"one", "two", "three", "four"}) {
    Subscribe("detect_user", name, Writer(name));
  }

  Unsubscribe("detect_user", "two");
  EXPECT_THAT(Names("detect_user"), ElementsAre("one", "three", "four"));
  EXPECT_TRUE(Subscribe("detect_user", "two", Writer("two again")));

  Publish("detect_user", "news");
  EXPECT_THAT(delivered,
              ElementsAre("one got news", "three got news", "four got news", "two again got news"));
}

TEST_F(MessageBusTest, OneNameMayStandOnTwoTopicsAndEndsOnOneAlone) {
  EXPECT_TRUE(Subscribe("b", "reader", Writer("reader of b")));
  EXPECT_TRUE(Subscribe("a", "reader", Writer("reader of a")));

  Publish("b", "news");
  Unsubscribe("b", "reader");
  Publish("b", "news");
  Publish("a", "news");

  EXPECT_THAT(delivered, ElementsAre("reader of b got news", "reader of a got news"));
}

TEST_F(MessageBusTest, EachPayloadTypeHasARegistryOfItsOwn) {
  int sum = 0;
  EXPECT_TRUE(Subscribe("detect_user", "reader", Writer("reader")));
  EXPECT_TRUE(MessageBus::Subscribe<int>("detect_user", "reader", [&sum](int payload) { sum += payload; }));

  MessageBus::Publish<int>("detect_user", 5);
  EXPECT_THAT(delivered, IsEmpty());
  EXPECT_EQ(sum, 5);

  MessageBus::Unsubscribe<int>("detect_user", "reader");
  Publish("detect_user", "news");
  EXPECT_THAT(delivered, ElementsAre("reader got news"));
}

TEST_F(MessageBusTest, EverySubscriberGetsThePublishedSnapshotItselfAndNoCopy) {
  const std::vector<PasswdInfo> snapshot = {Account("toor", 0)};
  std::vector<const void*> seen;
  for (const char* name : {"one", "two"}) {
    MessageBus::Subscribe<Snapshot>("detect_user", name, [&seen](Snapshot users) { seen.push_back(&users); });
  }

  MessageBus::Publish<Snapshot>("detect_user", snapshot);

  EXPECT_THAT(seen, ElementsAre(&snapshot, &snapshot));
}

TEST_F(MessageBusTest, HandlersRunOnThePublishingThreadOneAfterAnother) {
  std::vector<std::thread::id> threads;
  for (const char* name : {"one", "two"}) {
    Subscribe("detect_user", name, [&threads](Text) { threads.push_back(std::this_thread::get_id()); });
  }

  Publish("detect_user", "news");

  EXPECT_THAT(threads, ElementsAre(std::this_thread::get_id(), std::this_thread::get_id()));
}

TEST_F(MessageBusTest, AHandlerThatUnsubscribesItselfStillCompletesAndIsNotCalledAgain) {
  // The handler holds a string: its end would show as a use after free if the bus called its own entry.
  const std::string held(100, 'h');
  Subscribe("detect_user", "once", [this, held](Text payload) {
    Unsubscribe("detect_user", "once");
    delivered.push_back("once got " + payload + " and holds " + std::to_string(held.size()));
  });
  Subscribe("detect_user", "behind", Writer("behind"));

  Publish("detect_user", "first");
  Publish("detect_user", "second");

  EXPECT_THAT(delivered,
              ElementsAre("once got first and holds 100", "behind got first", "behind got second"));
}

TEST_F(MessageBusTest, AHandlerUnsubscribedByAnotherDuringAPublicationIsStillCalledInIt) {
  Subscribe("detect_user", "first", [this](Text payload) {
    delivered.push_back("first got " + payload);
    Unsubscribe("detect_user", "second");
  });
  Subscribe("detect_user", "second", Writer("second"));

  Publish("detect_user", "a");
  Publish("detect_user", "b");

  EXPECT_THAT(delivered, ElementsAre("first got a", "second got a", "first got b"));
}

TEST_F(MessageBusTest, AHandlerSubscribedDuringAPublicationIsCalledFromTheNextOneOn) {
  Subscribe("detect_user", "first", [this](Text payload) {
    delivered.push_back("first got " + payload);
    Subscribe("detect_user", "late", Writer("late"));
  });

  Publish("detect_user", "a");
  Publish("detect_user", "b");

  EXPECT_THAT(delivered, ElementsAre("first got a", "first got b", "late got b"));
}

TEST_F(MessageBusTest, AHandlerMayPublishAndItsPublicationEndsBeforeTheNextHandlerIsCalled) {
  Subscribe("detect_user", "first", [this](Text payload) {
    delivered.push_back("first got " + payload);
    if (payload == "outer") {
      Publish("detect_user", "inner");
    }
  });
  Subscribe("detect_user", "second", Writer("second"));

  Publish("detect_user", "outer");

  EXPECT_THAT(delivered,
              ElementsAre("first got outer", "first got inner", "second got inner", "second got outer"));
}

TEST_F(MessageBusTest, AnEmptyHandlerMakesThePublicationThrowAfterThoseBeforeItHaveRun) {
  Subscribe("detect_user", "before", Writer("before"));
  EXPECT_TRUE(Subscribe("detect_user", "empty", nullptr));
  Subscribe("detect_user", "behind", Writer("behind"));

  EXPECT_THROW(Publish("detect_user", "news"), std::bad_function_call);

  EXPECT_THAT(delivered, ElementsAre("before got news"));
  EXPECT_THAT(Names("detect_user"), ElementsAre("before", "empty", "behind"));
}

TEST_F(MessageBusTest, AnExceptionOfAHandlerReachesThePublisherAndSparesTheRegistry) {
  bool faulty = true;
  Subscribe("detect_user", "before", Writer("before"));
  Subscribe("detect_user", "faulty", [this, &faulty](Text payload) {
    if (faulty) {
      throw std::runtime_error("the handler's own");
    }
    delivered.push_back("faulty got " + payload);
  });
  Subscribe("detect_user", "behind", Writer("behind"));

  try {
    Publish("detect_user", "a");
    FAIL() << "the exception was swallowed";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the handler's own");
  }
  EXPECT_THAT(delivered, ElementsAre("before got a"));
  EXPECT_TRUE(LockIsFree());

  faulty = false;
  delivered.clear();
  Publish("detect_user", "b");
  EXPECT_THAT(delivered, ElementsAre("before got b", "faulty got b", "behind got b"));
}

TEST_F(MessageBusTest, TheLockIsFreeWhileAHandlerRuns) {
  bool wasFree = false;
  Subscribe("detect_user", "reader", [&wasFree](Text) { wasFree = LockIsFree(); });

  Publish("detect_user", "news");

  EXPECT_TRUE(wasFree);
}

TEST_F(MessageBusTest, Fault24ASubscriptionThatRunsOutOfMemoryIsMadeWhollyOrNotAtAll) {
  const std::string topic("a topic of more characters than a string keeps in itself");
  const std::string name("a name of more characters than a string keeps in itself");
  const std::function<void(Text)> handler = [this, name](Text payload) {
    delivered.push_back(payload + name);
  };
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 1000u);
    ClearRegistries();
    Subscribe(topic, "standing", Writer("standing"));
    bool threw = false;
    bool added = false;
    {
      const AllocationFailure failure(nth);
      try {
        added = Subscribe(topic, name, handler);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    EXPECT_NE(threw, exhausted);
    EXPECT_NE(threw, added);
    ASSERT_TRUE(LockIsFree());
    std::vector<std::string> expected = {"standing"};
    if (!threw) {
      expected.push_back(name);
    }
    EXPECT_EQ(Names(topic), expected);
    EXPECT_EQ(Subscribe(topic, name, handler), threw);
  }
}

TEST_F(MessageBusTest, Fault24APublicationThatRunsOutOfMemoryCallsNobodyAndTheNextOneCallsAll) {
  Subscribe("detect_user", "a name of more characters than a string keeps in itself", Writer("first"));
  Subscribe("detect_user", "second", Writer("second"));
  const std::string topic("detect_user");
  const std::string payload("news");
  bool exhausted = false;
  for (std::size_t nth = 1; !exhausted; ++nth) {
    ASSERT_LT(nth, 1000u);
    delivered.clear();
    bool threw = false;
    int called = 0;
    MessageBus::Subscribe<Text>("detect_user", "counter", [&called](Text) { ++called; });
    {
      const AllocationFailure failure(nth);
      try {
        MessageBus::Publish<Text>(topic, payload);
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      exhausted = !failure.Happened();
    }
    EXPECT_NE(threw, exhausted);
    ASSERT_TRUE(LockIsFree());
    MessageBus::Unsubscribe<Text>("detect_user", "counter");
    EXPECT_EQ(called, threw ? 0 : 1);

    delivered.clear();
    Publish("detect_user", "b");
    EXPECT_THAT(delivered, ElementsAre("first got b", "second got b"));
  }
}

TEST_F(MessageBusTest, ALockThatFailsReachesTheCallerWithItsErrorNumberAndChangesNothing) {
  Subscribe("detect_user", "standing", Writer("standing"));
  const std::function<void()> operations[] = {
      [this] { Subscribe("another topic", "late", Writer("late")); },
      [] { Unsubscribe("detect_user", "standing"); },
      [] { Unsubscribe("yet another topic", "standing"); },
      [] { Publish("detect_user", "news"); },
  };
  for (const std::function<void()>& operation : operations) {
    SCOPED_TRACE(&operation - operations);
    std::error_code error;
    {
      const HeldMutex held(MessageBus::GetSubMutex());
      try {
        operation();
      } catch (const std::system_error& failure) {
        error = failure.code();
      }
    }
    EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
    EXPECT_THAT(delivered, IsEmpty());
    EXPECT_THAT(MessageBus::GetSubList<Text>(), ElementsAre(Pair("detect_user", SizeIs(1))));
  }

  Publish("detect_user", "news");
  EXPECT_THAT(delivered, ElementsAre("standing got news"));
}

TEST_F(MessageBusTest, UnsubscribingWhileTheHandlerRunsNeitherWaitsNorStopsIt) {
  Latch entered;
  Latch unsubscribed;
  bool finished = false;
  Subscribe("detect_user", "reader", [&](Text payload) {
    entered.Open();
    finished = unsubscribed.Wait();
    delivered.push_back("reader got " + payload);
  });
  std::thread publisher([] { Publish("detect_user", "a"); });

  ASSERT_TRUE(entered.Wait());
  Unsubscribe("detect_user", "reader");
  unsubscribed.Open();
  publisher.join();
  Publish("detect_user", "b");

  EXPECT_TRUE(finished);
  EXPECT_THAT(delivered, ElementsAre("reader got a"));
}

TEST_F(MessageBusTest, TwoPublishersRunTheirHandlersSideBySide) {
  // Each handler waits for the other: were they called one publication at a time, neither would go on.
  Latch entered[2];
  std::atomic<int> met{0};
  Subscribe("detect_user", "reader", [&](Text payload) {
    const int mine = payload == "a" ? 0 : 1;
    entered[mine].Open();
    met += entered[1 - mine].Wait() ? 1 : 0;
  });

  std::thread first([] { Publish("detect_user", "a"); });
  std::thread second([] { Publish("detect_user", "b"); });
  first.join();
  second.join();

  EXPECT_EQ(met, 2);
}

TEST_F(MessageBusTest, NothingIsLostWhenSubscribersComeAndGoBesideTwoPublishers) {
  constexpr int rounds = 200;
  std::atomic<int> standing{0};
  std::atomic<int> passing{0};  // what their own publications brought to those who come and go
  Subscribe("detect_user", "standing", [&standing](Text) { ++standing; });
  Latch start;
  std::vector<std::thread> threads;
  for (int publisher = 0; publisher < 2; ++publisher) {
    threads.emplace_back([&start] {
      for (int round = 0; start.Wait() && round < rounds; ++round) {
        Publish("detect_user", "news");
      }
    });
  }
  std::atomic<int> added{0};
  for (int subscriber = 0; subscriber < 2; ++subscriber) {
    threads.emplace_back([&, subscriber] {
      const std::string name = "passing " + std::to_string(subscriber);
      const std::thread::id self = std::this_thread::get_id();
      for (int round = 0; start.Wait() && round < rounds; ++round) {
        added += Subscribe("detect_user", name,
                           [&, self](Text) { passing += std::this_thread::get_id() == self ? 1 : 0; })
                     ? 1
                     : 0;
        Publish("detect_user", "reaches itself");
        Unsubscribe("detect_user", name);
        Publish("detect_user", "does not");
      }
    });
  }
  start.Open();
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(standing, 2 * rounds + 2 * 2 * rounds);
  EXPECT_EQ(added, 2 * rounds);
  EXPECT_EQ(passing, 2 * rounds);
  EXPECT_THAT(Names("detect_user"), ElementsAre("standing"));
}

}  // namespace
