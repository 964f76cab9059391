#include <kest/threads/thread.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>
#include <kest/foundation/time.h>
#include <kest/foundation/unwinding.h>
#include <kest/threads/guard.h>
#include <kest/threads/mutex.h>

#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace Kest::System {

static_assert(std::is_same_v<pthread_t, unsigned long>, "a handle of the interface is the system's handle");

namespace {

/// Takes the handle out of an object for a wait. The destructor puts it back if a cancellation ended the wait.
class THandleForWait {
public:
    explicit THandleForWait(unsigned long& handle) : Place(handle), Handle(std::exchange(handle, 0)) {}
    THandleForWait(const THandleForWait&) = delete;
    THandleForWait& operator=(const THandleForWait&) = delete;
    ~THandleForWait() {
        if (!Waited)
            Place = Handle;
    }

    int Join(void** exitValue) {
        const _TCancellationOffInCall off;
        const int code = ::pthread_join(Handle, exitValue);
        Waited = true;
        return code;
    }

private:
    unsigned long& Place;
    const unsigned long Handle;
    bool Waited = false;
};

} // namespace

unsigned long TThreadInstance::GetCurrentHandle() {
    return ::pthread_self();
}

void TThreadInstance::SetPriority(int) {}

int TThreadInstance::GetPriority() {
    return 0;
}

int TThreadInstance::WaitFor() {
    if (Handle == 0)
        return 0;
    void* exitValue = nullptr;
    if (THandleForWait(Handle).Join(&exitValue) != 0)
        return 0;
    return static_cast<int>(reinterpret_cast<std::intptr_t>(exitValue));
}

void TThreadInstance::Cancel() {
    if (Handle == 0 || ::pthread_cancel(Handle) != 0)
        _Throw("thread cancelation failed");
}

unsigned long TThreadInstance::GetId() {
    return Handle;
}

bool TThreadInstance::Equals(const TThreadInstance& other) const {
    return ::pthread_equal(Handle, other.Handle) != 0;
}

KEST_LEFT_BY_CANCELLATION void TThreadInstance::Sleep(const double& seconds) {
    if (seconds == EndlessTimeInterval) {
        const timespec aWhile{100, 0};
        for (;;)
            (void)::nanosleep(&aWhile, nullptr);
    }
    const timespec interval = _Interval::ToTimeSpec(seconds);
    (void)::nanosleep(&interval, nullptr); // the system refuses a negative interval, and a signal ends the sleep
}

void TThreadInstance::Yield() {
    ::pthread_testcancel();
}

/// The mutex that a new thread waits at. The constructor holds it. Start() opens it once, or whoever turns the thread away. Trying a lock
/// would not tell whether the thread was started: the thread may not have reached the gate yet, or hold it for a moment on its way through.
/// So the gate also notes whether it was opened, and whether the thread is past it.
class _TStartGate : public TMutex {
public:
    _TStartGate() : TMutex(false) { TMutex::Enter(); }
    ~_TStartGate() override {
        Open(); // a system mutex is never destroyed while it is held
    }

    /// Lets the thread through. A second call does nothing.
    void Open() {
        if (!Opened.exchange(1, std::memory_order_acq_rel))
            TMutex::Leave();
    }

    /// Waits, on the new thread, until the gate is open, and goes past it. Returns false when the thread was turned away.
    bool Pass() {
        const _TScopedEntry entry(*this);
        (void)Opened.load(std::memory_order_acquire); // for ThreadSanitizer, as the comment on the fields tells
        IsPassed.store(true, std::memory_order_release);
        return !IsTurnedAway.load(std::memory_order_acquire);
    }

    /// Turns the thread away unless it is past the gate. Returns whether it did. Afterwards the gate is open.
    bool TurnAway() {
        if (Opened.exchange(1, std::memory_order_acq_rel))
            TMutex::Enter(); // a gate that was not opened is still held by its constructor, and nobody else will leave it
        const bool isPast = IsPassed.load(std::memory_order_acquire);
        IsTurnedAway.store(!isPast, std::memory_order_release);
        TMutex::Leave();
        return !isPast;
    }

private:
    // The mutex orders these accesses already. Release and acquire repeat that for ThreadSanitizer: it forgets the order when one thread
    // locks a mutex and another unlocks it, as happens when Start() and the constructor are called by two threads.
    std::atomic<int> Opened{0};            ///< 0 or 1, in a whole word: riscv64 exchanges a byte by a call into another library
    std::atomic<bool> IsPassed{false};     ///< read and written by the holder of the mutex
    std::atomic<bool> IsTurnedAway{false}; ///< read and written by the holder of the mutex
};

TThread::TThread() : StartGate(new _TStartGate) {
    if (::pthread_create(&Handle, nullptr, &TThread::ThreadFunc, this) != 0) {
        delete StartGate;
        _Throw("thread creation error");
    }
}

void TThread::Start() {
    StartGate->Open();
}

void TThread::Finish() noexcept {
    End(false);
}

void TThread::CancelAndFinish() noexcept {
    End(true);
}

/// Does what Finish() does, and with @p cancels what CancelAndFinish() does.
void TThread::End(bool cancels) noexcept {
    const TCancellationOff off;
    const bool isSelf = ::pthread_equal(Handle, ::pthread_self()) != 0;
    assert(!isSelf);
    if (isSelf)
        return; // a thread that waited for itself would wait for ever
    if (!StartGate->TurnAway() && cancels && Handle != 0)
        (void)::pthread_cancel(Handle);
    (void)TThreadInstance::WaitFor();
}

TThread::~TThread() {
    const TCancellationOff off; // the wait for a thread that is turned away must come to its end
    if (StartGate->TurnAway())
        (void)TThreadInstance::WaitFor();
    delete StartGate;
    if (Handle != 0)
        (void)::pthread_detach(Handle);
}

void* TThread::ThreadFunc(void* thread) {
    sigset_t blocked;
    (void)::sigemptyset(&blocked);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGIO, SIGALRM, SIGPIPE})
        (void)::sigaddset(&blocked, signal);
    (void)::sigprocmask(SIG_BLOCK, &blocked, nullptr); // on this platform it changes the mask of the calling thread alone
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(static_cast<TThread*>(thread)->ThreadFunc()));
}

// Never reads the handle: pthread_create may store it only after the new thread has begun.
int TThread::ThreadFunc() {
    if (!StartGate->Pass())
        return 0;
    return _CatchAll([this] { return Run(); }, []() -> int { std::abort(); });
}

} // namespace Kest::System
