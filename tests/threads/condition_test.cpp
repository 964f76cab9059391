#include <kest/threads/condition.h>

#include "support/helper_thread.h"

#include <kest/foundation/time.h>
#include <kest/threads/mutex.h>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <typeinfo>

using namespace Kest::System;
using namespace Kest::Test;

namespace {

constexpr double Infinity = std::numeric_limits<double>::infinity();

/// A thread that enters a guard so many times and waits until it is told, with a limit or without one.
class TWaiter {
public:
    TWaiter(TCondition& condition, TMutex& guard, std::optional<double> limit, int entries = 1)
        : Thread([this, &condition, &guard, limit, entries] {
              int result = 0;
              for (int i = 0; i != entries; ++i)
                  guard.Enter();
              Holding.Open();
              while (!IsTold && result == 0)
                  if (!limit)
                      condition.Wait(guard);
                  else if (!condition.Wait(guard, *limit))
                      result = 1;
              if (result != 0)
                  TimedOut.Open();
              for (int i = 0; i != entries; ++i, guard.Leave())
                  if (OthersMayEnter(guard))
                      result = 2; // not held as often as before
              return result;
          }) {
        Thread.Start();
        Holding.Wait();
        // Whoever enters the guard now finds the thread inside its wait.
    }

    void Tell() { IsTold = true; } ///< with the guard held
    int WaitFor() { return Thread.WaitFor(); }

    TGate TimedOut;

private:
    bool IsTold = false;
    TGate Holding;
    TFunctionThread Thread;
};

TEST(Condition, WaitsUntilToldWithAGuardEnteredOnceOrOften) {
    for (const std::optional<double> limit : {std::optional<double>(), {0.0}, {-0.0}, {1000.0}, {3e9}, {1e12}, {1e300}, {Infinity}})
        for (const int entries : {0, 1, 3}) { // 0 stands for a guard that is not recursive
            SCOPED_TRACE(testing::Message() << limit.value_or(-1) << " " << entries);
            TMutex guard(entries != 0);
            TCondition condition;
            TWaiter waiter(condition, guard, limit, entries == 0 ? 1 : entries);
            const std::chrono::milliseconds aWhile(entries == 0 ? 20 : 0);
            EXPECT_FALSE(waiter.TimedOut.WaitFor(aWhile)); // 0.0 does not mean "at once"
            guard.Enter();
            if (entries != 0) {
                EXPECT_TRUE(guard.TryEnter()); // this thread's own entries do not mix with those that wait
                guard.Leave();
            }
            waiter.Tell();
            condition.Signal();
            guard.Leave();
            EXPECT_EQ(waiter.WaitFor(), 0);
            EXPECT_TRUE(OthersMayEnter(guard));
        }
}

TEST(Condition, TimesOutWithTheGuardHeld) {
    for (const double limit : {0.25, 0.001, -0.25, -1e300, std::nan(""), -Infinity})
        for (const bool recursive : {false, true}) {
            SCOPED_TRACE(testing::Message() << limit << " " << recursive);
            TMutex guard(recursive);
            TCondition condition;
            condition.Signal(); // is lost: nobody waits
            condition.Broadcast();
            guard.Enter();
            double begin = GetCurrentTime();
            while (condition.Wait(guard, limit)) // a wait may end without a signal
                begin = GetCurrentTime();
            const double passed = GetCurrentTime() - begin;
            EXPECT_GE(passed, limit > 0.0 ? limit : 0.0);
            EXPECT_LT(passed, 10.0);
            EXPECT_FALSE(OthersMayEnter(guard));
            EXPECT_EQ(guard.TryEnter(), recursive);
            if (recursive)
                guard.Leave();
            guard.Leave();
            EXPECT_TRUE(OthersMayEnter(guard));
        }
}

TEST(Condition, GuardOfAnotherClassIsRefusedUntouched) {
    struct TForeignGuard : Interface::TProtectionGuard {
        void Enter() override { ++Calls; }
        bool TryEnter() override { return ++Calls, true; }
        void Leave() override { ++Calls; }
        int Calls = 0;
    } guard;
    TCondition condition;
    EXPECT_THROW(condition.Wait(guard), std::bad_cast);
    for (const double limit : {0.0, 0.01, -1.0, std::nan("")})
        EXPECT_THROW(condition.Wait(guard, limit), std::bad_cast) << limit;
    EXPECT_EQ(guard.Calls, 0);
}

TEST(Condition, BroadcastWakesAllWhoTakeTurnsInOneRecursiveGuard) {
    constexpr int threads = 8, rounds = 200;
    TMutex guard(true);
    TCondition condition;
    int turn = 0; // not atomic: the guard must protect it
    std::vector<std::unique_ptr<TFunctionThread>> all;
    for (int index = 0; index != threads; ++index) {
        all.push_back(std::make_unique<TFunctionThread>([&, index] {
            for (int round = 0; round != rounds; ++round) {
                const int entries = 1 + (round + index) % 3;
                for (int i = 0; i != entries; ++i)
                    guard.Enter();
                while (turn % threads != index)
                    index % 2 == 0 ? condition.Wait(guard) : (void)condition.Wait(guard, 10.0);
                ++turn;
                condition.Broadcast();
                for (int i = 0; i != entries; ++i)
                    guard.Leave();
            }
        }));
        all.back()->Start();
    }
    for (const auto& thread : all)
        EXPECT_EQ(thread->WaitFor(), 0);
    EXPECT_EQ(turn, threads * rounds);
    EXPECT_TRUE(OthersMayEnter(guard));
}

} // namespace
