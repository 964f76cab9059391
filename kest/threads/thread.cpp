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

/// Takes the handle out for a wait. Unless the wait took place it is put back, by an unwinding too.
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
    (void)::nanosleep(&interval, nullptr); // refuses what is negative, and an interruption just ends the sleep
}

void TThreadInstance::Yield() {
    ::pthread_testcancel();
}

/// The mutex that a new thread waits at. It is made held and opened once: by Start(), or by who turns the thread away. A lock alone does
/// not tell its owner whether the thread was started: the thread may not have reached the gate yet, or hold it for a moment on its way
/// through. So the gate also knows whether it was opened and whether the thread is past it.
class _TStartGate : public TMutex {
public:
    _TStartGate() : TMutex(false) { TMutex::Enter(); }
    ~_TStartGate() override {
        Open(); // a system mutex is never destroyed while it is held
    }

    /// Lets the thread through; done once, a second call finds it done.
    void Open() {
        if (!Opened.exchange(1, std::memory_order_acq_rel))
            TMutex::Leave();
    }

    /// For the new thread: waits until the gate is open, and goes past it. False when it has been turned away.
    bool Pass() {
        const _TScopedEntry entry(*this);
        (void)Opened.load(std::memory_order_acquire); // see the fields
        IsPassed.store(true, std::memory_order_release);
        return !IsTurnedAway.load(std::memory_order_acquire);
    }

    /// Turns the thread away unless it is past already, and tells which. Either way the gate is open afterwards.
    bool TurnAway() {
        if (Opened.exchange(1, std::memory_order_acq_rel))
            TMutex::Enter(); // else it is still held from its making, and nobody else will leave it
        const bool isPast = IsPassed.load(std::memory_order_acquire);
        IsTurnedAway.store(!isPast, std::memory_order_release);
        TMutex::Leave();
        return !isPast;
    }

private:
    // Release and acquire repeat what the mutex orders already: ThreadSanitizer forgets that of a mutex that another thread unlocked
    // than locked it, which is so when Start() is called elsewhere than the constructor.
    std::atomic<int> Opened{0};            ///< whether, as a whole word: riscv64 exchanges a byte by a call into another library
    std::atomic<bool> IsPassed{false};     ///< read and written inside
    std::atomic<bool> IsTurnedAway{false}; ///< read and written inside
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

/// Both ways to finish; @p cancels tells whether a body that runs is asked to end.
void TThread::End(bool cancels) noexcept {
    const TCancellationOff off;
    const bool isSelf = ::pthread_equal(Handle, ::pthread_self()) != 0;
    assert(!isSelf);
    if (isSelf)
        return; // who waited for itself would wait for ever
    if (!StartGate->TurnAway() && cancels && Handle != 0)
        (void)::pthread_cancel(Handle);
    (void)TThreadInstance::WaitFor();
}

TThread::~TThread() {
    const TCancellationOff off; // the wait for an abandoned thread must come to its end
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
    (void)::sigprocmask(SIG_BLOCK, &blocked, nullptr); // on this platform the mask of the calling thread alone
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(static_cast<TThread*>(thread)->ThreadFunc()));
}

// The new thread never reads the handle: pthread_create may store it only after the thread has begun.
int TThread::ThreadFunc() {
    if (!StartGate->Pass())
        return 0;
    return _CatchAll([this] { return Run(); }, []() -> int { std::abort(); });
}

} // namespace Kest::System
