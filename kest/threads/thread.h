#ifndef KEST_THREADS_THREAD_H
#define KEST_THREADS_THREAD_H

/// @file
/// TThreadInstance, a thread by its handle, and TThread, a thread with a body of its own.

#include <kest/export.h>
#include <kest/interface/thread.h>

namespace Kest::System {

#pragma GCC diagnostic push // for callers who build with it: a handle is a value, nothing is destroyed through it
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
/// A handle to a thread of the process, and operations on the calling thread. An object is a plain value: copies name one thread, and no
/// copy owns it. The handle 0 names no thread.
///
/// Requires: no operation but GetId() and Equals() is called when the thread was waited for through another copy, or has ended detached.
/// The system may have given the handle to another thread.
/// Threads: one object is used by one thread at a time.
class KEST_EXPORT TThreadInstance : public Interface::TThreadInstance<unsigned long, TThreadInstance> {
public:
    /// Names the thread with the system's handle @p handle, for instance one from GetCurrentHandle().
    explicit TThreadInstance(unsigned long handle = 0) noexcept : Handle(handle) {}

    /// Returns the system's handle of the calling thread.
    static unsigned long GetCurrentHandle();

    /// Does nothing, whatever @p priority is: priorities of threads are not supported.
    void SetPriority(int priority) override;

    /// Returns 0.
    int GetPriority() override;

    /// Waits until the thread has ended. A thread is waited for once: afterwards the handle is 0, also when the system refused the wait. A
    /// destructor calls TThread::Finish() instead.
    /// @return the exit value: what the body returned, or -1 for a cancelled thread. 0 at once when there is no thread, or when somebody
    ///         waited for it through this object before. 0 when the system refuses the wait, for instance of a thread for itself.
    /// Requires: a TThread was started. If it was not, it stays at its gate, and the wait never ends.
    /// Waits: without a limit. A signal does not end the wait. Cancellation point; on RISC-V and 32-bit ARM a cancellation does not end a
    /// wait that has begun. A cancelled wait puts the handle back, so that the thread can still be waited for.
    int WaitFor() override;

    /// Asks the thread to end at its next cancellation point, and does not wait for that. The thread then unwinds as if by an exception:
    /// destructors run. The handle stays, and a cancelled thread is waited for like any other. A thread that waits at its start gate ends
    /// at the first cancellation point of its body.
    /// @throw EException  "thread cancelation failed": there is no thread, or the system refuses.
    void Cancel() override;

    /// Returns the handle that this object holds: 0 when there is no thread, or when it was waited for through this object.
    unsigned long GetId() override;

    /// True when both name one thread, and when both hold 0.
    bool Equals(const TThreadInstance& other) const override;

    /// Suspends the calling thread for @p seconds. EndlessTimeInterval (0.0) suspends it for ever. With a negative interval and with NaN
    /// the operation returns at once. An interval that is too large for the system is cut to the system's largest. Never throws.
    /// Waits: for @p seconds. A handled signal ends a sleep early, and nothing tells the caller. A signal does not end an endless sleep.
    /// Cancellation point, whatever @p seconds is.
    static void Sleep(const double& seconds);

    /// Acts on a cancellation of the calling thread. Does not give up the processor.
    static void Yield();

private:
    friend class TThread;

    unsigned long Handle;
};
#pragma GCC diagnostic pop

class _TStartGate;

/// A thread with a body. The constructor creates the system thread, which waits at its start gate; the body runs after Start().
///
/// | State       | Entered by                                               | The system's thread                                        |
/// |-------------|----------------------------------------------------------|------------------------------------------------------------|
/// | Created     | the constructor                                          | waits at the gate                                          |
/// | Running     | Start()                                                  | passes the gate and runs Run()                             |
/// | Ended       | Run() returned, or was cancelled                         | has ended; its exit value is kept                          |
/// | Joined      | WaitFor(), Finish(), CancelAndFinish()                   | is gone; the handle is 0                                   |
/// | Turned away | Finish(), CancelAndFinish(), destructor, before the gate | ends with exit value 0 without Run(); that operation waits |
///
/// A Cancel() before Start() has no effect on a thread that is then turned away.
///
/// As its first action the new thread blocks SIGINT, SIGTERM, SIGHUP, SIGIO, SIGALRM and SIGPIPE for itself, so that these signals reach
/// the application's own threads. Its nice value is that of the thread that created it.
///
/// Requires: the destructor of the most derived class calls Finish() or CancelAndFinish() as its first statement, unless the thread has
/// been waited for. Run() uses the derived part of the object, and ~TThread() runs only when that part is gone. The start gate is
/// destroyed only when the thread is past it, also without such a call.
///
/// ~~~{.cpp}
/// class TWorker : public Kest::System::TThread {
/// public:
///     ~TWorker() override { Finish(); }
///     int Run() override;
/// };
/// ~~~
///
/// Threads: any thread may call Start() while the object lives, beside the owner's calls too. WaitFor(), Cancel(), Finish(),
/// CancelAndFinish() and the destructor are for the owner of the object, one thread at a time. Objects are neither copied nor moved.
class KEST_EXPORT TThread : public Interface::TThread<TThreadInstance> {
public:
    /// Creates the thread, which waits at its start gate.
    /// @throw EException      "thread creation error": the system has no more threads to give.
    /// @throw std::bad_alloc  there is no memory for the gate.
    TThread();
    TThread(const TThread&) = delete;
    TThread& operator=(const TThread&) = delete;

    /// Lets the thread run its body. A second call does nothing, nor does a call after Finish() or CancelAndFinish().
    /// Never throws. Does not wait, and is not a cancellation point.
    /// Threads: any thread may call it while the object lives.
    void Start() override;

    /// The body, written by the derived class. Its result is the exit value. A cancellation unwinds through the body and ends the thread.
    /// An exception that leaves the body ends the process with abort().
    int Run() override = 0;

    /// Ends the thread, for the destructor of the most derived class. A body that has not begun never begins, not even after a later
    /// Start(). A body that runs is waited for. The exit value is lost: whoever wants it calls WaitFor() before. Finish() leaves the handle
    /// 0.
    ///
    /// May be called in every state of the thread, more than once, and while an exception or a cancellation unwinds the calling thread.
    /// Requires: the thread does not call it for itself. Debug builds assert that; release builds then do nothing.
    /// Waits: as long as the body runs, without a limit. A signal does not end the wait. Cancellation is off: a request that arrives
    /// meanwhile stays pending.
    /// Threads: for the owner of the object.
    void Finish() noexcept;

    /// Ends the thread like Finish(), but asks a body that runs to end at its next cancellation point, as Cancel() does, before it waits
    /// for the thread. A body that meets no cancellation point is waited for until it returns. While the body unwinds, the destructors of
    /// its objects may wait as well: the final flush of a TSocket::TStream with pending output waits for the peer, up to the send limit,
    /// and without a send limit for ever. A stream that is cancelled in a flush has nothing pending.
    ///
    /// May be called in every state of the thread, more than once, and while an exception or a cancellation unwinds the calling thread.
    /// Requires: the thread does not call it for itself. Debug builds assert that; release builds then do nothing.
    /// Waits: until the body has ended, without a limit. A signal does not end the wait. Cancellation is off: a request that arrives
    /// meanwhile stays pending.
    /// Threads: for the owner of the object.
    void CancelAndFinish() noexcept;

    /// Ends a thread that has not begun its body, without running the body, and waits until it has ended. Detaches a thread that has begun
    /// its body, if nobody waited for it. A signal does not end the wait. Not a cancellation point.
    ~TThread() override;

    /// The start routine of the system's thread. @p thread is the TThread. Not for callers.
    static void* ThreadFunc(void* thread);

    /// Passes the gate, runs the body, and returns the exit value, on the new thread. Not for callers.
    int ThreadFunc();

private:
    KEST_HIDDEN void End(bool cancels) noexcept;

    _TStartGate* StartGate;
#ifdef __clang__ // it warns of a field that nobody reads; GCC 11 would warn of the attribute
    [[maybe_unused]]
#endif
    bool Abandoned = false; ///< not used, and kept for the size of objects: the gate knows who is turned away
};

} // namespace Kest::System

#endif
