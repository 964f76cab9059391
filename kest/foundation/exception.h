#ifndef KEST_FOUNDATION_EXCEPTION_H
#define KEST_FOUNDATION_EXCEPTION_H

/// @file
/// EException, the base of all exceptions of the library, and what composes their messages.

#include <kest/export.h>

#include <string>

namespace Kest {

/// Root of every exception that the library throws. An object is one string, the whole message, and nothing else: no error
/// number, no source position. Subclasses add no data; they exist so that callers can catch by kind. Sockets have
/// the classes of kest/net/socket_errors.h, and the end of a directory has one. Any other failure throws this class itself.
///
/// Messages are UTF-8 and begin with "Kest: ". Where the system gave a reason, its description stands at the end, after ": ".
///
/// The class does not derive from std::exception: a handler for std::exception does not catch it, so programs have a handler for each.
///
/// Thrown by value, caught by reference. The destructor is not virtual: never delete a subclass object through a pointer to this
/// class. A copy holds the same message, and copying throws std::bad_alloc when memory runs out. Objects are not locked; an exception
/// belongs to the thread that caught it.
class KEST_EXPORT EException {
public:
    /// Sets the message to "Kest: " followed by @p text; callers do not write the prefix themselves.
    /// Memory running out while the message is composed ends the process through std::terminate.
    explicit EException(const std::string& text) noexcept;
    EException(const EException& other) = default;
    EException& operator=(const EException& other) = default;
    ~EException();

    /// The whole message, prefix included. Valid as long as this object lives and is not assigned to.
    const std::string& GetMessage() const noexcept { return Message; }

private:
    std::string Message;
};

namespace System {

/// The system's description of the calling thread's errno, as strerror gives it, in UTF-8. It follows the program's locale.
/// Call it before anything else that may set errno. errno keeps its value. Any thread may call it.
/// Memory running out while the text is copied ends the process through std::terminate.
KEST_EXPORT std::string _GetLastErrorDescription() noexcept;

} // namespace System
} // namespace Kest

#endif
