#ifndef KEST_TESTS_SUPPORT_HELPER_THREAD_H
#define KEST_TESTS_SUPPORT_HELPER_THREAD_H

#include <kest/interface/mutex.h>
#include <kest/threads/thread.h>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace Kest::Test {

/// Far longer than anything in a test takes: only a test that fails waits so long.
constexpr std::chrono::seconds Patience{20};

/// Whether a cancellation ends what a standard stream does: with libc++ it would end the process, so it is held off.
#ifdef _LIBCPP_VERSION
constexpr bool StreamsAreCancelled = false;
#else
constexpr bool StreamsAreCancelled = true;
#endif

/// The longest that anything timed takes, the steps of a second that timed operations make included.
constexpr double Soon = 8.0;

/// Checks that an action takes at least @p least seconds and not much more.
template <class TAction>
void ExpectWait(double least, const TAction& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(elapsed, least);
    EXPECT_LT(elapsed, Soon);
}

/// Runs @p action on a thread of its own. Gives its result and its exceptions to the caller.
template <class TAction>
auto OnAnotherThread(TAction action) {
    return std::async(std::launch::async, std::move(action)).get();
}

/// Whether a thread that is not the calling one could be inside @p guard now.
inline bool OthersMayEnter(System::Interface::TProtectionGuard& guard) {
    return OnAnotherThread([&guard] {
        const bool entered = guard.TryEnter();
        if (entered)
            guard.Leave();
        return entered;
    });
}

/// Closed until opened once. Threads that wait here pass afterwards. Waiting is no cancellation point.
class TGate {
public:
    void Open() {
        const std::lock_guard<std::mutex> lock(Mutex);
        IsOpen = true;
        Opened.notify_all();
    }

    /// Throws when nobody opens it.
    void Wait() {
        if (!WaitFor(Patience))
            throw std::runtime_error("a gate of the test was never opened");
    }

    /// False when it stayed closed for that long.
    bool WaitFor(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(Mutex);
        return Opened.wait_for(lock, limit, [this] { return IsOpen; });
    }

private:
    std::mutex Mutex;
    std::condition_variable Opened;
    bool IsOpen = false;
};

/// A thread of the library whose body is a function; a function without a result gives 0. It is ended before the library's destructor
/// begins: the thread looks its body up in the object's table.
class TFunctionThread : public System::TThread {
public:
    template <class TBody>
    explicit TFunctionThread(TBody body)
        : Body([body = std::move(body)]() mutable -> int {
              if constexpr (std::is_void_v<decltype(body())>)
                  return body(), 0;
              else
                  return body();
          }) {}
    TFunctionThread(const TFunctionThread&) = delete;
    TFunctionThread& operator=(const TFunctionThread&) = delete;
    ~TFunctionThread() override { Finish(); }

    int Run() override { return Body(); }

private:
    std::function<int()> Body;
};

} // namespace Kest::Test

#endif
