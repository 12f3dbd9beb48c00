#include <QXEventStoring/Platform/NotificationCenter.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

#include "Platform/DistributedNotificationCenter.h"

namespace qx {
namespace {

constexpr std::uint64_t kLong = 20000;
constexpr std::uint64_t kOptions =
    DistributedNotificationCenter::kDeliverImmediately | DistributedNotificationCenter::kPostToAllSessions;

Notification named(std::string name, const void* sender = nullptr) {
  return {std::move(name), sender, {}, {}};
}

TEST(NotificationCenter, CallsWhoAskedForItOnThePostersThreadInOrderOfRegistration) {
  NotificationCenter center;
  const int sender = 0;
  std::string called;
  const auto observe = [&](String name, const void* from, char mark) {
    return center.addObserver(std::move(name), from,
                              [&called, mark, thread = std::this_thread::get_id()](const Notification&) {
                                EXPECT_EQ(std::this_thread::get_id(), thread);
                                called += mark;
                              });
  };
  const Observation all = observe(std::nullopt, nullptr, 'a');
  const Observation name = observe("name", nullptr, 'n');
  const Observation other = observe("other", nullptr, 'o');
  Observation both = observe("name", &sender, 'b');
  const Observation fromSender = observe(std::nullopt, &sender, 's');

  center.post(named("name"));
  EXPECT_EQ(std::exchange(called, ""), "an");
  center.post(named("name", &sender));
  EXPECT_EQ(std::exchange(called, ""), "anbs");
  both = Observation();
  center.post(named("name", &sender));
  EXPECT_EQ(std::exchange(called, ""), "ans");
}

TEST(NotificationCenter, LetsAHandlerPostAddAndCancel) {
  NotificationCenter center;
  std::string called;
  Observation first;
  Observation second;
  Observation added;
  const auto token = std::make_shared<int>();
  first = center.addObserver("start", nullptr, [&, token](const Notification&) {
    called += '1';
    first.cancel();
    second.cancel();
    added = center.addObserver("nested", nullptr, [&](const Notification&) { called += 'n'; });
    center.post(named("nested"));
    EXPECT_GT(token.use_count(), 1) << "a handler outlives its own cancelling";
  });
  second = center.addObserver("start", nullptr, [&](const Notification&) { called += '2'; });
  center.post(named("start"));
  center.post(named("start"));
  EXPECT_EQ(called, "1n");
  EXPECT_EQ(token.use_count(), 1) << "what a handler holds goes with its last call";
}

TEST(NotificationCenter, SurvivesAHandlerThatThrowsAndItsOwnEnd) {
  auto center = std::make_unique<NotificationCenter>();
  int calls = 0;
  const Observation thrower =
      center->addObserver("name", nullptr, [](const Notification&) { throw std::runtime_error("handler"); });
  Observation other = center->addObserver("name", nullptr, [&](const Notification&) { ++calls; });
  center->post(named("name"));
  EXPECT_EQ(calls, 1);
  center.reset();
  other.cancel();
}

TEST(Observation, CancelWaitsForTheRunningCall) {
  NotificationCenter center;
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> ended{false};
  Observation observation = center.addObserver("name", nullptr, [&](const Notification&) {
    entered.set_value();
    leave.get_future().wait();
    ended = true;
  });
  std::thread poster([&] { center.post(named("name")); });
  entered.get_future().wait();
  auto cancelled = std::async(std::launch::async, [&] {
    observation.cancel();
    return ended.load();
  });
  EXPECT_EQ(cancelled.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
  leave.set_value();
  EXPECT_TRUE(cancelled.get());
  poster.join();
}

TEST(DistributedNotificationCenter, DeliversInOrderOnOneOtherThread) {
  auto& center = DistributedNotificationCenter::defaultCenter();
  std::vector<std::int64_t> numbers;
  std::thread::id thread;
  const Observation observation = center.addObserver("name", "poster", [&](const Notification& notification) {
    EXPECT_EQ(notification.object, "poster");
    EXPECT_TRUE(thread == std::thread::id() || thread == std::this_thread::get_id());
    thread = std::this_thread::get_id();
    numbers.push_back(notification.userInfo.find("number")->integerValue());
  });
  for (int number = 0; number < 1000; ++number) {
    center.post("name", "poster", {{"number", number}}, kOptions);
    center.post("name", "somebody else", {}, kOptions);
    center.post("other", "poster", {}, kOptions);
    center.post("name", std::nullopt, {}, kOptions);
  }
  ASSERT_TRUE(center.drain(kLong));
  ASSERT_EQ(numbers.size(), 1000u);
  EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(DistributedNotificationCenter, LetsAHandlerPostAndCancelItself) {
  auto& center = DistributedNotificationCenter::defaultCenter();
  std::atomic<int> calls{0};
  Observation once;
  Observation chain = center.addObserver("chain", std::nullopt, [&](const Notification&) {
    if (++calls == 5) return;
    center.post("chain", std::nullopt, {}, kOptions);
    EXPECT_FALSE(center.drain(kLong)) << "would wait for itself";
  });
  once = center.addObserver("chain", std::nullopt, [&](const Notification&) {
    once.cancel();
    throw std::runtime_error("handler");
  });
  center.post("chain", std::nullopt, {}, kOptions);
  while (calls < 5)
    ASSERT_TRUE(center.drain(kLong));
  chain.cancel();
  center.post("chain", std::nullopt, {}, kOptions);
  EXPECT_TRUE(center.drain(kLong));
  EXPECT_EQ(calls, 5);
}

TEST(DistributedNotificationCenter, DropsTheOldestWhenAnObserverCannotFollow) {
  constexpr int kBound = 100'000;
  constexpr int kTooMany = 25;
  auto& center = DistributedNotificationCenter::defaultCenter();
  std::promise<void> entered;
  std::promise<void> leave;
  std::vector<std::int64_t> numbers;
  const Observation slow = center.addObserver("name", std::nullopt, [&](const Notification& notification) {
    numbers.push_back(notification.userInfo.find("number")->integerValue());
    if (numbers.size() > 1) return;
    entered.set_value();
    leave.get_future().wait();
  });
  center.post("name", std::nullopt, {{"number", -1}}, kOptions);
  entered.get_future().wait();
  EXPECT_FALSE(center.drain(1)) << "the observer is still at it";
  for (int number = 0; number < kBound + kTooMany; ++number) {
    center.post("name", std::nullopt, {{"number", number}}, kOptions);
  }
  EXPECT_FALSE(center.drain(1));
  leave.set_value();
  ASSERT_TRUE(center.drain(kLong));
  EXPECT_EQ(center.dropped(), static_cast<std::uint64_t>(kTooMany));
  ASSERT_EQ(numbers.size(), 1u + kBound);
  EXPECT_EQ(numbers[1], kTooMany);
}

TEST(DistributedNotificationCenter, LetsTheProcessExitWhileItDelivers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto exitBusy = [] {
    static std::vector<int> destroyedAtExit(1000, 1);  // older than the centre: outlives its delivery
    auto& center = DistributedNotificationCenter::defaultCenter();
    std::promise<void> running;
    auto observation =
        center.addObserver("name", std::nullopt, [&, told = false](const Notification&) mutable {
          destroyedAtExit.assign(1000, 2);
          if (!std::exchange(told, true)) running.set_value();
        });
    for (int post = 0; post < 50'000; ++post)
      center.post("name", std::nullopt, {}, kOptions);
    running.get_future().wait();
    observation.keepForever();
    std::exit(0);
  };
  EXPECT_EXIT(exitBusy(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace qx
