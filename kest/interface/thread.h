#ifndef KEST_INTERFACE_THREAD_H
#define KEST_INTERFACE_THREAD_H

/// @file
/// Interface::TThread, the abstract class of System::TThread.

#include <kest/export.h>

namespace Kest::System::Interface {

/// A handle to a thread. @p THandle is the platform's handle, @p TInstance the class that implements this one. Handles are values
/// and are never deleted through this class: there is no virtual destructor.
template <class THandle, class TInstance>
class KEST_EXPORT TThreadInstance {
public:
    virtual void SetPriority(int priority) = 0;            ///< sets the thread's priority, where the platform has any
    virtual int GetPriority() = 0;                         ///< the thread's priority, 0 where the platform has none
    virtual int WaitFor() = 0;                             ///< waits until the thread, once started, has ended; its exit value
    virtual void Cancel() = 0;                             ///< asks the thread to end at its next cancellation point
    virtual THandle GetId() = 0;                           ///< the handle
    virtual bool Equals(const TInstance& other) const = 0; ///< whether both name one thread

protected:
    TThreadInstance() = default;
    TThreadInstance(const TThreadInstance&) = default;
    TThreadInstance& operator=(const TThreadInstance&) = default;
    ~TThreadInstance() = default;
};

#pragma GCC diagnostic push // for callers who build with it: nothing is destroyed through the handle class
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"
/// A thread with a body, over the handle class @p TInstance. It is created suspended; its body runs after Start().
template <class TInstance>
class KEST_EXPORT TThread : public TInstance {
public:
    virtual void Start() = 0; ///< lets the thread run its body; any thread may call it, and a second call does nothing

    /// The body, written by the derived class; its result is the thread's exit value.
    virtual int Run() = 0;

    virtual ~TThread() = default;

protected:
    TThread() = default;
    TThread(const TThread&) = default;
    TThread& operator=(const TThread&) = default;
};
#pragma GCC diagnostic pop

} // namespace Kest::System::Interface

#endif
