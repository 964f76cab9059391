#ifndef KEST_NET_ADDRESS_H
#define KEST_NET_ADDRESS_H

#include <kest/export.h>
#include <kest/foundation/singleton.h>
#include <kest/net/socket.h>
#include <kest/threads/mutex.h>

#include <memory>
#include <string>

#include <sys/socket.h>

struct in_addr;

namespace Kest::System {

/// A socket address: the system's bytes, made from text or filled in by a socket operation. It owns its bytes; a copy has its own.
///
/// | domain | text                                             | bytes                                              |
/// |--------|--------------------------------------------------|----------------------------------------------------|
/// | "inet" | host, colon, decimal port: "10.0.0.1:8080"       | the system's 16 bytes of an IPv4 address           |
/// | "fs"   | path of a socket in the file system, UTF-8       | family, path and a zero byte; no limit of length   |
/// | "ipx"  | none                                             | 16 zero bytes, for a socket operation to fill in   |
/// | ""     | none                                             | the same                                           |
///
/// On Linux an "fs" text that is empty or begins with a zero byte names no file but a name that the system keeps apart from files: all the
/// bytes after the family, the zero at the end included. Such a name has no permissions, everybody in the same network namespace can
/// connect to it, and it is gone with its last socket. Get() reads it as an empty text. An "fs" address made without a text has
/// no bytes of a name at all; binding and connecting a stream to it fail.
///
/// The domain is set by the constructor and kept; what a socket operation fills in may be of another family, or longer or shorter
/// than the bytes before. An object is a plain value: not to be changed by one thread while another uses it.
class KEST_EXPORT TSocket::TAddress : public Interface::TSocket<TSocket>::TAddress {
public:
    /// An empty address of the family @p domain, for a socket operation to fill in.
    /// @throw EUnsupportedDomain  the detail is @p domain.
    explicit TAddress(const std::string& domain);

    /// The address @p address of the family @p domain.
    ///
    /// "inet": the first colon that is not the last character separates host and port. The port is what strtol reads in base 10, of
    /// which the low 16 bits count: leading white space and a sign are read, reading stops at what is no digit, no digits give 0, and what
    /// does not fit a long counts as the nearer end of its range. A host with a zero byte in it is none. An "fs" path is kept whole, and
    /// read back up to its first zero byte.
    /// @param resolve  true: the host may be a name, the first address that the system's resolver has for it is taken; that may take
    ///                 seconds, and a cancellation waits for it. False: it must be a dotted decimal IPv4 address. Ignored for "fs".
    /// @throw EUnsupportedDomain  unknown family, the detail is its name; or "ipx" and "", "address error".
    /// @throw EBadAddress         "inet address too long": more than 262 characters; "bad 'address:port' inet format: Domain: '" + the
    ///                            domain + "': " + the text: no colon but in the last place; "host not resolved: " + the text;
    ///                            or without a detail: the host is no dotted decimal address.
    TAddress(const std::string& domain, const std::string& address, bool resolve);

    /// A copy of the domain and the bytes.
    TAddress(const TAddress& other);

    /// Takes over the domain and a copy of the bytes of @p other. Unchanged where there is no memory for them.
    TAddress& operator=(const TAddress& other);
    ~TAddress() override;

    /// The address as text: "host:port" for "inet", the path for "fs". Goes by the domain, never by the family in the bytes; bytes that
    /// are not there count as zero.
    /// Waits: where @p resolve is true, for "inet", for the resolver lock and then for the look-up, as long as a name server takes.
    /// Meanwhile nobody else in the process makes a socket or looks a name up this way. A cancellation is acted on after the look-up.
    /// @param resolve  true: the host's registered name, cut to 255 characters. Ignored for "fs".
    /// @throw EUnsupportedDomain  "address error": the domain has no text.
    /// @throw EBadAddress         no name is registered.
    std::string Get(bool resolve) const override;

    /// The system's family number for a family's name: "inet" 2, "ipx" 4, "fs" 1, "" 0, matched exactly. Any thread may call it.
    /// @throw EUnsupportedDomain  the detail is @p name.
    static int MapDomain(const std::string& name);

private:
    friend class TSocket;

    KEST_HIDDEN void SetPath(const std::string& path);
    KEST_HIDDEN void SetHostAndPort(const std::string& domain, const std::string& address, bool resolve);
    KEST_HIDDEN std::string GetPath() const;
    KEST_HIDDEN std::string GetHostAndPort(bool resolve) const;
    KEST_HIDDEN void Assume(std::unique_ptr<char[]> bytes, socklen_t length) noexcept;

    int Domain;
    char* Data;
    socklen_t Length;
};

/// The class of the process's one resolver lock, which serialises the library's calls into the parts of the system's resolver that use
/// static storage: reverse look-ups and the protocol database. It protects the library's callers from each other; who calls those
/// functions directly enters it too. Never recursive: do not call TAddress::Get(true) or create a socket inside.
class KEST_EXPORT TSocket::TMutex : public System::TMutex {
public:
    TMutex();
    ~TMutex() override;
};

/// The name registered for @p address, or null; 255.255.255.255 never has one. The text lies in the resolver's static storage.
/// Requires: the calling thread holds the resolver lock, TSingleton<TSocket::TMutex>::GetObject(), until it has copied the text.
/// May take seconds; a cancellation waits for it.
KEST_EXPORT const char* ip2name(in_addr address);

} // namespace Kest::System

namespace Kest::_Gadgets {

extern template class TSingleton<System::TSocket::TMutex>;

} // namespace Kest::_Gadgets

#endif
