#include <kest/threads/thread.h>

#include "support/descriptors.h"
#include "support/helper_thread.h"
#include "support/message.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <thread>

#include <pthread.h>

using namespace Kest;
using namespace Kest::Test;
using Kest::System::TThread;
using Kest::System::TThreadInstance;

namespace {

constexpr double Infinity = std::numeric_limits<double>::infinity();

/// The address space of the process. A thread that is neither waited for nor detached keeps its stack in it, 8 MB.
long Kilobytes() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * 4;
}

constexpr long StacksOf1000Threads = 2000000; ///< is far less than those would take

TEST(Thread, ExitValueIsThatOfTheBodyAndIsGivenOnce) {
    for (const int value : {0, 7, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        SCOPED_TRACE(value);
        unsigned long seen = 0;
        TFunctionThread thread([&] { return seen = TThreadInstance::GetCurrentHandle(), value; });
        const unsigned long id = thread.GetId();
        EXPECT_NE(id, TThreadInstance::GetCurrentHandle());
        OnAnotherThread([&] { thread.Start(); });
        thread.Start(); // a second call does nothing
        EXPECT_EQ(thread.WaitFor(), value);
        EXPECT_EQ(seen, id);
        EXPECT_EQ(thread.GetId(), 0u);
        EXPECT_EQ(thread.WaitFor(), 0);
        EXPECT_KEST_THROW(thread.Cancel(), EException, "Kest: thread cancelation failed");
    }
    EXPECT_KEST_THROW(TThreadInstance().Cancel(), EException, "Kest: thread cancelation failed");
    EXPECT_EQ(TThreadInstance().WaitFor(), 0);
#ifndef KEST_THREAD_SANITIZER_OF_CLANG // which ends the process for it
    // A thread cannot wait for itself.
    EXPECT_EQ(TThreadInstance(TThreadInstance::GetCurrentHandle()).WaitFor(), 0);
#endif
}

TEST(Thread, InstancesAreEqualWhenTheyNameOneThread) {
    TFunctionThread one([] {}), other([] {});
    TThreadInstance copy(one);
    EXPECT_TRUE(copy.Equals(one));
    EXPECT_TRUE(one.Equals(TThreadInstance(copy.GetId())));
    EXPECT_FALSE(copy.Equals(other));
    EXPECT_FALSE(copy.Equals(TThreadInstance()));
    copy.SetPriority(7);
    EXPECT_EQ(copy.GetPriority(), 0);
}

TEST(Thread, NotStartedItNeverRunsAndIsGoneWithItsObject) {
    static bool ran = false;
    struct TUnfinished : TThread {
        int Run() override { return ran = true; }
    };
    const long before = Kilobytes();
    for (int i = 0; i != 1000; ++i)
        const TUnfinished thread;
    EXPECT_FALSE(ran);
    EXPECT_LT(Kilobytes() - before, StacksOf1000Threads);
}

TEST(Thread, FinishedInAnyStateItIsGoneAndNeverBegins) {
    enum TState { Made, AskedToEnd, Inside, Ended, WaitedFor };
    for (const TState state : {Made, AskedToEnd, Inside, Ended, WaitedFor})
        for (const bool cancels : {false, true}) {
            SCOPED_TRACE(testing::Message() << "state " << state << (cancels ? ", cancelled" : ""));
            std::atomic<int> begun{0}, ended{0};
            const double rest = cancels ? 1000.0 : 0.05; // the body has nothing that AddressSanitizer would guard once its frame is left
            TFunctionThread thread([&, waits = state == Inside] {
                ++begun;
                if (waits)
                    TThreadInstance::Sleep(rest);
                ++ended;
            });
            if (state == AskedToEnd)
                thread.Cancel();
            if (state >= Inside)
                thread.Start();
            while ((state >= Inside && begun == 0) || (state >= Ended && ended == 0))
                std::this_thread::yield();
            if (state == WaitedFor)
                (void)thread.WaitFor();
            for (int round = 0; round < 2; ++round) {
                cancels ? thread.CancelAndFinish() : thread.Finish();
                EXPECT_EQ(thread.GetId(), 0u);
                EXPECT_EQ(begun, state >= Inside ? 1 : 0);
                EXPECT_EQ(ended, state == Inside && cancels ? 0 : begun.load());
                thread.Start();
                EXPECT_EQ(thread.WaitFor(), 0);
            }
        }
}

TEST(Thread, FinishedBesideItsStartItRunsWholeOrNotAtAll) {
    for (int round = 0; round != 300; ++round) {
        std::atomic<int> steps{0};
        TFunctionThread thread([&] { ++steps, ++steps; });
        TFunctionThread starter([&] { thread.Start(); });
        starter.Start();
        round % 2 == 0 ? thread.Finish() : thread.CancelAndFinish();
        const int then = steps;
        EXPECT_NE(then, 1);
        EXPECT_EQ(starter.WaitFor(), 0);
        EXPECT_EQ(steps, then);
    }
}

#ifdef NDEBUG // debug builds assert that the program does not do this
TEST(Thread, FinishedByItselfItGoesOn) {
    TFunctionThread* self = nullptr;
    TFunctionThread thread([&] { return self->Finish(), self->CancelAndFinish(), TThreadInstance::Yield(), 7; });
    self = &thread;
    thread.Start();
    EXPECT_EQ(thread.WaitFor(), 7);
}
#endif

TEST(Thread, StartedOneOutlivesItsObject) {
    static std::atomic<int> entered{0}, left{0}; // the body touches nothing of the object
    static TGate go;
    struct TDetached : TThread {
        int Run() override {
            ++entered;
            go.Wait();
            return ++left;
        }
    };
    OnAnotherThread([] {}); // ThreadSanitizer starts a thread of its own with the first one
    const long before = Kilobytes(), threads = Threads();
    for (int i = 1; i <= 1000; ++i) {
        auto thread = std::make_unique<TDetached>();
        thread->Start();
        while (entered != i) // before the body begins the derived part must not be destroyed
            std::this_thread::yield();
        thread.reset();
        if (i == 30)
            go.Open(); // the others come to their end beside the destructor
    }
    while (left != 1000 || Threads() > threads)
        std::this_thread::yield();
    EXPECT_LT(Kilobytes() - before, StacksOf1000Threads);
}

TEST(ThreadDeathTest, ExceptionThatLeavesTheBodyAborts) {
    // Started anew, free of the threads of this process, but for an emulated program, which cannot start itself.
    GTEST_FLAG_SET(death_test_style, std::getenv("KEST_EMULATOR") != nullptr ? "fast" : "threadsafe");
    void (*const bodies[])() = {[] { throw EException("from the body"); }, [] { throw std::runtime_error("from the body"); },
                                [] { throw 1; }};
    for (const auto body : bodies)
        EXPECT_EXIT(
            {
                TFunctionThread thread([body] {
                    std::fputs("in the body", stderr);
                    body();
                });
                thread.Start();
                (void)thread.WaitFor();
            },
            testing::KilledBySignal(SIGABRT), "in the body");
}

TEST(Thread, SixSignalsAreBlockedInTheBodyBesideThoseOfItsMaker) {
    sigset_t before, during, after;
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGUSR2);
    ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &own, &before), 0);
    TFunctionThread thread([&during] { ::pthread_sigmask(SIG_BLOCK, nullptr, &during); });
    thread.Start();
    EXPECT_EQ(thread.WaitFor(), 0);
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &before, &after), 0);
    for (int number = 1; number < SIGRTMAX; ++number) {
        const bool isOne =
            number == SIGINT || number == SIGTERM || number == SIGHUP || number == SIGIO || number == SIGALRM || number == SIGPIPE;
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number) == 1 || number == SIGUSR2) << number;
        EXPECT_EQ(sigismember(&during, number), sigismember(&after, number) == 1 || isOne) << number;
    }
}

TEST(Sleep, LastsAsLongAsItWasToldUnlessThatIsNoTime) {
    for (const double seconds : {0.05, 1.0 / 1024, -0.5, -1000.0, -1e300, -Infinity, std::nan("")}) {
        SCOPED_TRACE(seconds);
        ExpectWait(seconds > 0.0 ? seconds : 0.0, [seconds] { TThreadInstance::Sleep(seconds); });
    }
}

} // namespace
