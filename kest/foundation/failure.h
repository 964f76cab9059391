// Internal header: used by every source that reports the failure of a system call.
#ifndef KEST_FOUNDATION_FAILURE_H
#define KEST_FOUNDATION_FAILURE_H

#include <kest/foundation/exception.h>

#include <cerrno>
#include <initializer_list>
#include <string>
#include <string_view>

namespace Kest::System {

/// Joins pieces of a message. Like all composition of messages it ends the process when memory runs out.
inline std::string _JoinMessage(std::initializer_list<std::string_view> pieces) noexcept {
    std::string text;
    for (const std::string_view piece : pieces)
        text += piece;
    return text;
}

/// Throws a TException of the joined pieces. Joining needs memory. Where there is none the process ends, and no other exception takes the
/// place of this one.
template <class TException = EException, class... TPieces>
[[noreturn]] void _Throw(const TPieces&... pieces) {
    throw TException(_JoinMessage({std::string_view(pieces)...}));
}

/// Throws an EException of the joined pieces followed by the description of errno. Call it right after the failed call: errno is
/// read before anything is joined.
/// Requires: no piece is a temporary made after the failed call, since making it could change errno.
template <class... TPieces>
[[noreturn]] void _ThrowLastError(const TPieces&... pieces) {
    const std::string description = _GetLastErrorDescription();
    throw EException(_JoinMessage({std::string_view(pieces)..., std::string_view(description)}));
}

/// Throws an EException of the joined pieces followed by the description of @p code, for calls that return it and leave errno alone.
template <class... TPieces>
[[noreturn]] void _ThrowError(int code, const TPieces&... pieces) {
    errno = code;
    _ThrowLastError(pieces...);
}

} // namespace Kest::System

#endif
