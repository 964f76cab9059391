#include <kest/threads/thread.h>

#include "support/death.h"
#include "support/descriptors.h"
#include "support/helper_thread.h"
#include "support/message.h"
#include "support/slot.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

using namespace Kest;
using namespace Kest::Test;
using Kest::System::TThread;
using Kest::System::TThreadInstance;

namespace {

using TClock = std::chrono::steady_clock;

constexpr double Infinity = std::numeric_limits<double>::infinity();

/// A number from the system's account of the process, such as that of its threads.
long Status(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string word;
    long number = -1;
    while (status >> word)
        if (word == name)
            status >> number;
    return number;
}

/// The number of threads once there has been another: ThreadSanitizer starts one of its own then.
long SettledThreads() {
    OnAnotherThread([] {});
    return Status("Threads:");
}

/// The system removes a thread from its list a moment after it could be waited for; one from before may have been on it as well.
bool ThreadsComeDownTo(long count) {
    const auto deadline = TClock::now() + Patience;
    while (Status("Threads:") > count && TClock::now() < deadline)
        std::this_thread::yield();
    return Status("Threads:") <= count;
}

struct TFlag {
    ~TFlag() { Set = true; }
    bool& Set;
};

TEST(Thread, ExitValueIsThatOfTheBodyAndIsGivenOnce) {
    for (const int value : {0, 7, -1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()}) {
        SCOPED_TRACE(value);
        unsigned long seen = 0;
        TFunctionThread thread([&] { return seen = TThreadInstance::GetCurrentHandle(), value; });
        const unsigned long id = thread.GetId();
        EXPECT_NE(id, TThreadInstance::GetCurrentHandle());
        OnAnotherThread([&] { thread.Start(); });
        thread.Start(); // does nothing any more
        EXPECT_EQ(thread.WaitFor(), value);
        EXPECT_EQ(seen, id);
        EXPECT_EQ(thread.GetId(), 0u);
        EXPECT_EQ(thread.WaitFor(), 0);
        EXPECT_KEST_THROW(thread.Cancel(), EException, "Kest: thread cancelation failed");
    }
    EXPECT_KEST_THROW(TThreadInstance().Cancel(), EException, "Kest: thread cancelation failed");
    EXPECT_EQ(TThreadInstance().WaitFor(), 0);
    EXPECT_EQ(TThreadInstance(TThreadInstance::GetCurrentHandle()).WaitFor(), 0); // nobody waits for itself
}

TEST(Thread, InstancesAreEqualWhenTheyNameOneThread) {
    TFunctionThread one([] {}), other([] {});
    TThreadInstance copy(one);
    EXPECT_TRUE(copy.Equals(one));
    EXPECT_TRUE(one.Equals(TThreadInstance(one.GetId())));
    EXPECT_FALSE(one.Equals(other));
    EXPECT_FALSE(one.Equals(TThreadInstance()));
    copy.SetPriority(7);
    EXPECT_EQ(copy.GetPriority(), 0);
}

TEST(Thread, NotStartedItNeverRunsAndIsGoneWithItsObject) {
    const long threads = SettledThreads();
    bool ran = false;
    for (int i = 0; i != 1000; ++i)
        TFunctionThread thread([&ran] { ran = true; });
    EXPECT_FALSE(ran);
    EXPECT_TRUE(ThreadsComeDownTo(threads));
}

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
    const long threads = SettledThreads(), kilobytes = Status("VmSize:");
    for (int i = 1; i <= 1000; ++i) {
        auto thread = std::make_unique<TDetached>();
        thread->Start();
        while (entered != i) // before it is in its body nobody may take the derived part away
            std::this_thread::yield();
        thread.reset();
        if (i == 30)
            go.Open(); // the others come to their end beside the destructor
    }
    EXPECT_TRUE(ThreadsComeDownTo(threads));
    EXPECT_EQ(left, 1000);
    EXPECT_LT(Status("VmSize:") - kilobytes, 2000000); // a thread that is neither waited for nor detached keeps its stack, 8 MB
}

TEST(Thread, ManyLeaveNothingBehind) {
    const long threads = SettledThreads();
    const int descriptors = OpenDescriptors();
    constexpr int atOnce = 30; // many more stacks do not fit into 32 bits beside AddressSanitizer
    for (int round = 0; round != 10; ++round) {
        TGate go;
        std::vector<std::unique_ptr<TFunctionThread>> all;
        for (int i = 0; i != atOnce; ++i) {
            all.push_back(std::make_unique<TFunctionThread>([i, &go] { return go.Wait(), i; }));
            all.back()->Start();
        }
        go.Open();
        for (int i = 0; i != atOnce; ++i)
            EXPECT_EQ(all[static_cast<std::size_t>(i)]->WaitFor(), i);
        EXPECT_TRUE(ThreadsComeDownTo(threads));
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(Thread, CancellationUnwindsWhereTheThreadWaits) {
    TGate done;
    TFunctionThread neverDone([&done] { done.Wait(); });
    neverDone.Start();
    // Static: AddressSanitizer does not notice when a cancellation leaves a frame that has nothing to clean up, here that of a lambda,
    // and would find the guard bytes of its variables later.
    static const double endless[] = {0.0, -0.0, 1000.5, 1e300, Infinity};
    const struct {
        const char* Name;
        std::function<void()> Wait;
    } cases[] = {
        {"asleep for ever", [] { TThreadInstance::Sleep(endless[0]); }},
        {"asleep for ever, too", [] { TThreadInstance::Sleep(endless[1]); }},
        {"asleep", [] { TThreadInstance::Sleep(endless[2]); }},
        {"asleep longer than can be counted", [] { TThreadInstance::Sleep(endless[3]); }},
        {"asleep endlessly long", [] { TThreadInstance::Sleep(endless[4]); }},
        {"at cancellation points",
         [] {
             while (true)
                 TThreadInstance::Yield();
         }},
#ifndef __SANITIZE_THREAD__ // whose own pthread_join does not bear a cancellation
        {"for another thread", [&] { (void)neverDone.WaitFor(); }},
#endif
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Name);
        TGate running, returned;
        bool unwound = false;
        TFunctionThread thread([&] {
            const TFlag flag{unwound};
            running.Open();
            each.Wait();
            returned.Open();
            return 5;
        });
        thread.Start();
        running.Wait();
        EXPECT_FALSE(returned.WaitFor(std::chrono::milliseconds(20)));
        thread.Cancel();
        EXPECT_NE(thread.GetId(), 0u);
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_TRUE(unwound);
    }
    EXPECT_NE(neverDone.GetId(), 0u); // the cancelled wait put the handle back
    done.Open();
    EXPECT_EQ(neverDone.WaitFor(), 0);
    EXPECT_EQ(neverDone.GetId(), 0u);
}

TEST(Thread, DestructorWaitsWithCancellationPending) {
    bool passed = false, unwound = false;
    TFunctionThread thread([&] {
        const TFlag flag{unwound};
        ::pthread_cancel(::pthread_self());
        {
            TFunctionThread abandoned([] {});
        }
        passed = true;
        TThreadInstance::Yield();
        return 5;
    });
    thread.Start();
    EXPECT_EQ(thread.WaitFor(), -1);
    EXPECT_TRUE(passed && unwound);
}

TEST(ThreadDeathTest, ExceptionThatLeavesTheBodyAborts) {
    PrepareForDeath();
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
        const auto begin = TClock::now();
        TThreadInstance::Sleep(seconds);
        const std::chrono::duration<double> passed = TClock::now() - begin;
        EXPECT_GE(passed.count(), seconds > 0.0 ? seconds : 0.0);
        EXPECT_LT(passed.count(), 10.0);
    }
}

TEST(Sleep, SignalEndsItEarly) {
    struct sigaction action {
    }, previous{};
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    std::atomic<bool> awake{false};
    TFunctionThread thread([&awake] {
        TThreadInstance::Sleep(1000.0);
        awake = true;
    });
    thread.Start();
    for (const auto deadline = TClock::now() + Patience; !awake && TClock::now() < deadline;) {
        ::pthread_kill(thread.GetId(), SIGUSR1); // whether it is asleep already cannot be seen
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(awake);
    if (!awake)
        thread.Cancel();
    (void)thread.WaitFor();
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Thread, OperationsKeepTheirPlaces) {
    EXPECT_EQ(Slot(&TThread::SetPriority), 0);
    EXPECT_EQ(Slot(&TThread::GetPriority), 1);
    EXPECT_EQ(Slot(&TThread::WaitFor), 2);
    EXPECT_EQ(Slot(&TThread::Cancel), 3);
    EXPECT_EQ(Slot(&TThread::GetId), 4);
    EXPECT_EQ(Slot(&TThread::Equals), 5);
    EXPECT_EQ(Slot(&TThread::Start), 6);
    EXPECT_EQ(Slot(&TThread::Run), 7);
}

} // namespace
