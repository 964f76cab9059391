// Internal header: used by everything that a cancellation unwinds through. Nothing else in the library depends on the C++ runtime for this.
#ifndef KEST_FOUNDATION_UNWINDING_H
#define KEST_FOUNDATION_UNWINDING_H

#include <kest/foundation/cancellation.h>

#include <exception>
#include <optional>

#include <cxxabi.h>

/// Marks a function that catches abi::__forced_unwind. A cancellation is no object of C++, so the language runtime binds the reference
/// of such a handler to null; nothing reads it, but UndefinedBehaviorSanitizer would report it. Its test of alignment goes too: it is the
/// same test to GCC, and would come back whole where the function is inlined into one that is not marked.
#define KEST_CATCHES_CANCELLATION __attribute__((no_sanitize("null"), no_sanitize("alignment")))

/// Marks a function whose frame a cancellation may leave without anything to clean up. AddressSanitizer does not notice that: the guard
/// bytes of the frame would stay behind, and it would take them for guard bytes of later frames.
#define KEST_LEFT_BY_CANCELLATION __attribute__((no_sanitize("address")))

/// On these processors glibc has no unwind tables for openat, copy_file_range and the wait of pthread_join. A cancellation inside one of
/// them would end the thread without running a destructor.
#if defined(__arm__) || defined(__riscv)
#define KEST_CALLS_WITHOUT_UNWINDING
#endif

#ifdef _LIBCPP_VERSION
namespace __cxxabiv1 {                // libc++abi has it and does not declare it
extern "C" void* __cxa_get_globals(); // NOLINT(bugprone-reserved-identifier)
} // namespace __cxxabiv1
#endif

namespace Kest::System {

#ifdef KEST_CALLS_WITHOUT_UNWINDING

/// A thread acts on a cancellation before such a call, and holds it off during the call.
struct _TCancellationOffInCall {
    _TCancellationOffInCall() {
        ::pthread_testcancel();
        Off.emplace();
    }
    std::optional<TCancellationOff> Off;
};

#else

/// A cancellation unwinds out of every call of the system.
struct _TCancellationOffInCall {
    _TCancellationOffInCall() noexcept {} // NOLINT(modernize-use-equals-default): an object that does nothing is no unused variable
};

#endif

#ifdef _LIBCPP_VERSION

/// libc++'s streams catch whatever leaves their buffers, and libc++ cannot throw a cancellation on: a cancellation inside one of their
/// operations would end the process. So with libc++ a stream's buffer holds cancellations off while it works.
using _TCancellationOffInStream = TCancellationOff;

/// Goes on with the cancellation that a catch-all has caught. Returns when what was caught is an exception. Only for use in a catch-all.
///
/// libc++ has no class for a cancellation: its catch-alls catch it, and `throw;` would end the process. What was caught has no type then.
/// The first word of the runtime's globals is the exception being handled (so the C++ ABI for Itanium, which all platforms here follow).
/// Without it the runtime does not take the cancellation for handled when the catch-all is left, and pthread_exit unwinds from here on.
inline void _PassCancellationOn() {
    if (abi::__cxa_current_exception_type() != nullptr)
        return;
    *static_cast<void**>(abi::__cxa_get_globals()) = nullptr;
    ::pthread_exit(PTHREAD_CANCELED);
}

#else

/// libstdc++'s streams pass a cancellation on, so their buffers need not hold it off.
struct _TCancellationOffInStream {
    _TCancellationOffInStream() noexcept {} // NOLINT(modernize-use-equals-default): an object that does nothing is no unused variable
};

#endif

/// Gives the result of @p action or, when it throws an exception, that of @p handler. A cancellation passes: it unwinds like an exception
/// and is none, and a catch-all that kept it would end the process. So this takes the place of a catch-all wherever one is needed.
template <class TAction, class THandler>
KEST_CATCHES_CANCELLATION auto _CatchAll(const TAction& action, const THandler& handler) -> decltype(action()) {
    try {
        return action();
#ifndef _LIBCPP_VERSION
    } catch (abi::__forced_unwind&) {
        throw;
#endif
    } catch (...) {
#ifdef _LIBCPP_VERSION
        _PassCancellationOn();
#endif
        return handler();
    }
}

#ifndef _LIBCPP_VERSION

/// Does @p undo when a cancellation leaves the scope before Result() has ended, and nothing when an exception does. An exception counts as
/// uncaught while it unwinds, and a cancellation does not, unless a handler on its way has thrown it on. Only for a thread that is handling
/// an exception: there no handler can have caught the cancellation, since the runtime would have ended the process.
template <class TUndo>
class _TUndoInHandler {
public:
    explicit _TUndoInHandler(const TUndo& undo) : Undo(undo), Uncaught(std::uncaught_exceptions()) {}
    _TUndoInHandler(const _TUndoInHandler&) = delete;
    _TUndoInHandler& operator=(const _TUndoInHandler&) = delete;
    ~_TUndoInHandler() {
        if (!IsDone && std::uncaught_exceptions() == Uncaught)
            Undo();
    }

    template <class TAction>
    auto Result(const TAction& action) {
        auto result = action();
        IsDone = true;
        return result;
    }

private:
    const TUndo& Undo;
    const int Uncaught;
    bool IsDone = false;
};

#endif

/// Gives the result of @p action. When a cancellation leaves it, does @p undo first and goes on with the cancellation; an exception passes
/// without it. With libc++ only for what a _TCancellationOffInStream is around, where no cancellation comes.
template <class TAction, class TUndo>
KEST_CATCHES_CANCELLATION auto _UndoneByCancellation(const TAction& action, const TUndo& undo) -> decltype(action()) {
#ifdef _LIBCPP_VERSION
    (void)undo;
    return action();
#else
    if (std::current_exception() != nullptr) // a handler for the cancellation would end the process
        return _TUndoInHandler<TUndo>(undo).Result(action);
    try {
        return action();
    } catch (abi::__forced_unwind&) {
        undo();
        throw;
    }
#endif
}

} // namespace Kest::System

#endif
