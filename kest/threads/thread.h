#ifndef KEST_THREADS_THREAD_H
#define KEST_THREADS_THREAD_H

/// @file
/// TThreadInstance, a thread by its handle, and TThread, a thread with a body of its own.

#include <kest/export.h>
#include <kest/interface/thread.h>

namespace Kest::System {

#pragma GCC diagnostic push // for callers who build with it: a handle is a value, nothing is destroyed through it
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
/// A handle to a thread of the process, and operations on the calling thread. A plain value: copies name the same thread, and none of
/// them owns it. 0 names no thread. One object is used by one thread at a time.
///
/// Requires: no operation but GetId() and Equals() on a handle whose thread was waited for through another copy, or ended detached: the
/// system may have given the handle to another thread.
class KEST_EXPORT TThreadInstance : public Interface::TThreadInstance<unsigned long, TThreadInstance> {
public:
    /// Names the thread with the system's handle @p handle, for instance one from GetCurrentHandle().
    explicit TThreadInstance(unsigned long handle = 0) noexcept : Handle(handle) {}

    /// The system's handle of the calling thread.
    static unsigned long GetCurrentHandle();

    /// Thread priorities are not supported: does nothing, whatever @p priority is.
    void SetPriority(int priority) override;

    /// Returns 0.
    int GetPriority() override;

    /// Waits until the thread has ended. A thread is waited for once: afterwards the handle is 0, also when the system refuses the wait.
    /// @return the exit value: what the body returned, -1 for a cancelled thread. 0 at once when there is no thread, or somebody waited
    ///         for it through this object before. 0 when the system refuses the wait, that of a thread for itself for instance.
    /// Requires: the thread was started, if it is a TThread. One that was not waits at its gate, and this wait never ends.
    /// Waits: without a limit. A signal does not end the wait. Cancellation point, not on RISC-V and 32-bit ARM: a cancelled wait puts
    /// the handle back, so that the thread can still be waited for. A destructor calls TThread::Finish() instead.
    int WaitFor() override;

    /// Asks the thread to end at its next cancellation point, and does not wait for that. The thread then unwinds as if by an exception:
    /// destructors run. It is waited for like any other. A thread that waits at its start gate ends at the first cancellation point of its
    /// body.
    /// @throw EException  "thread cancelation failed": there is no thread, or the system refuses.
    void Cancel() override;

    /// The handle this object holds; 0 when there is no thread or it has been waited for.
    unsigned long GetId() override;

    /// True when both name the same thread.
    bool Equals(const TThreadInstance& other) const override;

    /// Suspends the calling thread for @p seconds; EndlessTimeInterval (0.0) suspends it for ever. A negative interval and NaN return
    /// at once, one that is too large for the system is cut to its largest value. Never throws.
    /// Waits: a signal that is handled ends the sleep early, and the rest is not slept; it does not end an endless sleep. Cancellation
    /// point.
    static void Sleep(const double& seconds);

    /// A cancellation point, and nothing else: it does not give up the processor.
    static void Yield();

private:
    friend class TThread;

    unsigned long Handle;
};
#pragma GCC diagnostic pop

class _TStartGate;

/// A thread with a body. The constructor creates the system thread, which waits at its start gate; the body runs after Start().
///
/// | State       | Entered by                             | The system's thread                                              |
/// |-------------|----------------------------------------|------------------------------------------------------------------|
/// | Created     | the constructor                        | waits at the gate                                                |
/// | Running     | Start()                                | passes the gate and runs Run()                                   |
/// | Ended       | Run() returned, or was cancelled       | has ended; its exit value is kept                                |
/// | Joined      | WaitFor(), Finish(), CancelAndFinish() | is gone; the handle is 0                                         |
/// | Turned away | Finish(), CancelAndFinish() or the     | ends with exit value 0 without running Run(), and is waited for  |
/// |             | destructor before the gate was passed  | by the operation that turned it away                             |
///
/// A Cancel() before Start() is without effect on a thread that is then turned away: it has no body to cancel, and its exit value is 0.
///
/// As its first action the new thread blocks SIGINT, SIGTERM, SIGHUP, SIGIO, SIGALRM and SIGPIPE for itself: they reach the
/// application's own threads. Its nice value is that of the thread that created it.
///
/// Requires: the destructor of the most derived class calls Finish() or CancelAndFinish() as its first statement, unless the thread has
/// been waited for. Run() uses the derived part of the object, and the class's own destructor comes too late for that part. The part that
/// is the library's own is safe without.
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
    /// Creates the thread, suspended before its body.
    /// @throw EException      "thread creation error": the system has no more threads to give.
    /// @throw std::bad_alloc  there is no memory for the gate.
    TThread();
    TThread(const TThread&) = delete;
    TThread& operator=(const TThread&) = delete;

    /// Lets the thread run its body. A second call does nothing, nor does a call after Finish() or CancelAndFinish().
    /// Never throws. Not a cancellation point.
    /// Threads: any thread may call it while the object lives.
    void Start() override;

    /// The body. Its result is the exit value. A cancellation unwinds through it and ends the thread; any other exception that leaves
    /// it ends the process with abort().
    int Run() override = 0;

    /// Ends the thread, for the destructor of the most derived class: a body that has not begun never will, a later Start() included; a
    /// body that runs is waited for. The exit value is lost: who wants it calls WaitFor() before. Afterwards the handle is 0.
    ///
    /// May be called in every state of the thread, more than once, and while an exception or a cancellation unwinds the calling thread.
    /// Requires: the thread does not call it for itself. Debug builds assert that; release builds then do nothing.
    /// Waits: as long as the body runs, without a limit. A signal does not end the wait. Cancellation is off: a request that arrives
    /// meanwhile stays pending.
    /// Threads: for the owner of the object.
    void Finish() noexcept;

    /// Ends the thread like Finish(), but asks a body that runs to end at its next cancellation point, as Cancel() does, before it waits
    /// for the thread. A body that meets no cancellation point is waited for until it returns. The destructors of its objects may wait as
    /// well while it unwinds: the final flush of a TSocket::TStream that has output pending waits for the peer, up to the send limit or,
    /// without one, without an end. A stream that is cancelled in a flush has nothing pending.
    ///
    /// May be called in every state of the thread, more than once, and while an exception or a cancellation unwinds the calling thread.
    /// Requires: the thread does not call it for itself. Debug builds assert that; release builds then do nothing.
    /// Waits: until the body has ended, without a limit. A signal does not end the wait. Cancellation is off: a request that arrives
    /// meanwhile stays pending.
    /// Threads: for the owner of the object.
    void CancelAndFinish() noexcept;

    /// A thread that has not begun its body never will; the destructor waits until it has ended. A thread that has begun its body is
    /// detached if nobody waited for it. Not a cancellation point.
    ~TThread() override;

    /// The system thread's start routine; @p thread is the TThread. Not for callers.
    static void* ThreadFunc(void* thread);

    /// What the new thread runs: gate, body. Returns the exit value. Not for callers.
    int ThreadFunc();

private:
    KEST_HIDDEN void End(bool cancels) noexcept;

    _TStartGate* StartGate;
#ifdef __clang__ // it warns of a field that nobody reads; GCC 11 would warn of the attribute
    [[maybe_unused]]
#endif
    bool Abandoned = false; ///< keeps the object's size; the gate has the note
};

} // namespace Kest::System

#endif
