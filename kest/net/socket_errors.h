#ifndef KEST_NET_SOCKET_ERRORS_H
#define KEST_NET_SOCKET_ERRORS_H

#include <kest/export.h>
#include <kest/foundation/exception.h>

#include <string>

/// @file
/// What socket operations throw. Callers choose by class: EIOError catches failures of transfers and connections, EAbort those of them
/// that end a connection or a wait. A refused connection and an unreachable host have no class of their own: each is an EException itself,
/// so whoever connects catches EException.
///
///     EException
///         EUnsupportedDomain   EUnsupportedType   EUnsupportedProtocol   EBadAddress
///         EIOError
///             ENotConnected    EWouldBlock
///             EAbort
///                 ETimeout     EReset             EShutdown
///
/// A message is the descriptions of the classes from below EException down to the thrown one, then the detail if there is one, all
/// joined by ": ". ETimeout reads "Kest: socket IO error: socket connection aborted: socket connection timeout".
/// An error of the system that has no class of its own here, such as a refused connection, is an EException whose message is the
/// system's description.
///
/// Memory running out while a message is composed ends the process.

namespace Kest::System::Interface::_Socket {

/// The name of an address family is unknown, or the family has no addresses in text.
class KEST_EXPORT EUnsupportedDomain : public EException {
public:
    EUnsupportedDomain() noexcept : EException("unsupported socket domain (address family)") {}
    /// With @p detail at the end of the message.
    explicit EUnsupportedDomain(const std::string& detail) noexcept : EException("unsupported socket domain (address family): " + detail) {}
};

/// The type of a socket is none that the platform has.
class KEST_EXPORT EUnsupportedType : public EException {
public:
    EUnsupportedType() noexcept : EException("unsupported socket type") {}
    /// With @p detail at the end of the message.
    explicit EUnsupportedType(const std::string& detail) noexcept : EException("unsupported socket type: " + detail) {}
};

/// The protocol's name is not in the system's protocol database. That is a file of the system (Debian's package netbase has it):
/// where it is missing, every name is unknown.
class KEST_EXPORT EUnsupportedProtocol : public EException {
public:
    EUnsupportedProtocol() noexcept : EException("unsupported socket protocol") {}
    /// With @p detail at the end of the message.
    explicit EUnsupportedProtocol(const std::string& detail) noexcept : EException("unsupported socket protocol: " + detail) {}
};

/// A text is no address, a host is not resolved, or an address has no text.
class KEST_EXPORT EBadAddress : public EException {
public:
    EBadAddress() noexcept : EException("bad socket address") {}
    /// With @p detail at the end of the message.
    explicit EBadAddress(const std::string& detail) noexcept : EException("bad socket address: " + detail) {}
};

/// A transfer or a connection failed. Thrown as itself for a broken pipe.
class KEST_EXPORT EIOError : public EException {
public:
    EIOError() noexcept : EException("socket IO error") {}
    /// With @p detail at the end of the message.
    explicit EIOError(const std::string& detail) noexcept : EException("socket IO error: " + detail) {}
};

/// The socket has no connection, or the system refused an argument (EINVAL): a negative limit of a wait, an "fs" path that is too long to
/// connect to.
class KEST_EXPORT ENotConnected : public EIOError {
public:
    ENotConnected() noexcept : EIOError("socket not connected") {}
    /// With @p detail at the end of the message.
    explicit ENotConnected(const std::string& detail) noexcept : EIOError("socket not connected: " + detail) {}
};

/// A non-blocking socket is not ready.
class KEST_EXPORT EWouldBlock : public EIOError {
public:
    EWouldBlock() noexcept : EIOError("non-blocking socket would block") {}
    /// With @p detail at the end of the message.
    explicit EWouldBlock(const std::string& detail) noexcept : EIOError("non-blocking socket would block: " + detail) {}
};

/// The connection or a wait was ended. Thrown as itself when the system aborted the connection.
class KEST_EXPORT EAbort : public EIOError {
public:
    EAbort() noexcept : EIOError("socket connection aborted") {}
    /// With @p detail at the end of the message.
    explicit EAbort(const std::string& detail) noexcept : EIOError("socket connection aborted: " + detail) {}
};

/// A time limit ran out, or the system gave the connection up. After a limit of the socket the connection goes on.
class KEST_EXPORT ETimeout : public EAbort {
public:
    ETimeout() noexcept : EAbort("socket connection timeout") {}
    /// With @p detail at the end of the message.
    explicit ETimeout(const std::string& detail) noexcept : EAbort("socket connection timeout: " + detail) {}
};

/// The peer reset the connection.
class KEST_EXPORT EReset : public EAbort {
public:
    EReset() noexcept : EAbort("socket connection was reset by remote side") {}
    /// With @p detail at the end of the message.
    explicit EReset(const std::string& detail) noexcept : EAbort("socket connection was reset by remote side: " + detail) {}
};

/// The peer closed its side, this side was shut down before, or a signal interrupted the call. After a signal the connection goes on.
class KEST_EXPORT EShutdown : public EAbort {
public:
    EShutdown() noexcept : EAbort("socket connection was shutdown'ed") {}
    /// With @p detail at the end of the message.
    explicit EShutdown(const std::string& detail) noexcept : EAbort("socket connection was shutdown'ed: " + detail) {}
};

} // namespace Kest::System::Interface::_Socket

#endif
