#ifndef KEST_NET_SOCKET_H
#define KEST_NET_SOCKET_H

/// @file
/// TSocket, the address TSocket::TAddress, the resolver lock TSocket::TMutex and the reverse look-up ip2name(). TSocket::TStream is
/// declared in socket_stream.h.

#include <kest/export.h>
#include <kest/foundation/singleton.h>
#include <kest/interface/socket.h>
#include <kest/net/socket_errors.h>
#include <kest/threads/mutex.h>

#include <memory>
#include <string>

#include <sys/socket.h>

struct in_addr;

namespace Kest::System {

/// A BSD socket. An object always has a descriptor, and owns it unless it handed it over.
///
/// Time limits and other intervals are seconds. EndlessTimeInterval (0.0) means that there is no limit, never an immediate return.
/// The two limits of a socket apply while it is in blocking mode, which a new socket is. The receive limit bounds a wait for input before
/// the call, on a clock that nobody sets. The send limit bounds a whole operation of sending or connecting, on the settable clock, in
/// steps of up to a second: a time-out comes up to a second late, and setting the clock moves it. With a negative or NaN send limit,
/// sending and connecting time out as soon as they would block. A receive limit of less than a microsecond, positive or negative but not
/// 0.0, looks for input without waiting (ETimeout when there is none). The system refuses a wait for input with any other negative receive
/// limit and with NaN (ENotConnected).
/// TimeLimit() of kest/foundation/time.h makes limits from durations of the standard library.
///
/// Failures are the classes of socket_errors.h. Unless an operation says otherwise, each may throw
///
/// | errno                        | class                                                                              |
/// |------------------------------|------------------------------------------------------------------------------------|
/// | EINTR                        | EShutdown "interrupted system call"                                                |
/// | EAGAIN, EINPROGRESS          | EWouldBlock                                                                        |
/// | EINVAL, ENOTCONN             | ENotConnected                                                                      |
/// | EPIPE                        | EIOError "broken pipe"; EShutdown "when send" after Shutdown() of the sending side |
/// | ENETRESET, ECONNRESET        | EReset                                                                             |
/// | ECONNABORTED                 | EAbort                                                                             |
/// | ETIMEDOUT                    | ETimeout                                                                           |
/// | any other                    | EException, the system's description alone                                         |
///
/// and leaves the socket usable. No operation raises SIGPIPE.
///
/// Signals. The library retries nothing that a signal ended. A handled signal ends a wait for readiness or for input whatever its limit is,
/// an endless one too: so it ends a Receive(), and whatever has a limit. It ends the other calls that wait (Accept(), Connect() and Send()
/// without a limit) unless its handler was installed with SA_RESTART, with which the system goes on with the call. A Send() without a limit
/// that has sent a part is ended with that count, with SA_RESTART too: the exception comes only if nothing went out. A signal that
/// arrives while a call is not waiting ends nothing. No signal ends a look-up or the wait for the resolver lock.
///
/// Ownership. A socket made by Accept() is marked for hand-over: its first copy takes the descriptor itself, and the socket copied from
/// stays usable but no longer closes it. `TSocket s = server.Accept(a)` is that socket, so its own first copy takes the descriptor away
/// from it. Any other copy gets a duplicate descriptor of the same system socket: options, blocking mode and the connection are shared,
/// the limits are not. Destroying an owner shuts the connection down for all copies. Hence a container of sockets that copies when it
/// grows cuts its connections; keep sockets in objects that stay where they are, for instance behind a unique_ptr.
/// Descriptors are inherited over exec, as the system's own calls leave them; GetDescriptor() lets a caller change that.
///
/// As a member. The destructor may throw, so the implicit destructor of a class that has a socket as a member may throw too. Where that
/// class derives from one whose virtual destructor may not, a TThread for instance, compilers refuse it ("looser exception",
/// "more lax than base version"). One word mends it, and a close that fails there ends the process:
///
///     class TWorker : public TThread {
///     public:
///         ~TWorker() noexcept override { Finish(); }
///
/// A base class of one's own can allow the exception instead: `virtual ~TBase() noexcept(false) = 0;`.
///
/// Threads. An object is used by one thread at a time, while it waits and while it is copied too. Two copies of one socket may be used by
/// two threads, one to receive and one to send for instance: the system keeps their calls apart. The mode is shared, and each object knows
/// only what it set itself: call SetBlocking() and a Connect() with a limit before you copy. Let one thread alone receive: if another takes
/// the input between the wait and the call, the call waits without a limit. The first copy that is destroyed shuts the connection down for
/// the other.
///
/// Cancellation. Receiving, sending, connecting, accepting and the waits may block and are cancellation points; a cancelled operation
/// leaves the object as it was. A cancelled Send() may have sent a part, and nobody is told how much. The look-ups of the constructor, and
/// of a failed Bind(), are not cut off: a cancellation is acted on right after them. The destructor is no cancellation point.
// Defined in socket.cpp (making, options, closing), transfer.cpp (all that goes to the network, and the waits), socket_errors.cpp
// (CheckResult, CheckIOResult) and address.cpp (MapDomain).
class KEST_EXPORT TSocket : public Interface::TSocket<TSocket> {
public:
    class TAddress;
    class TMutex;
    class TStream; // socket_stream.h

    /// Makes a new system socket, unconnected, in blocking mode and without limits.
    /// @throw EUnsupportedDomain    @p info names no known family; the detail is the name.
    /// @throw EUnsupportedProtocol  the protocol is not in the system's database.
    /// @throw EUnsupportedType      the type is none of TType. The three are tested in this order.
    /// @throw EException            "socket creation error": the system refuses, or there is no descriptor for the look-up of the protocol.
    /// Waits: the protocol is looked up under the process's resolver lock (TMutex). While another thread holds that lock, in
    /// TAddress::Get(true) or in a Bind() that failed, this waits until that thread has its answer: as long as a name server takes, which
    /// may be many seconds. A cancellation is acted on after the look-up. Threads that must not wait make their sockets beforehand.
    explicit TSocket(const TProtocolInfo& info);

    /// Adopts @p descriptor, of the family number @p domain: the object closes it. The object has no limits, is marked for hand-over, and
    /// takes the descriptor for one in blocking mode. Makes no system call: nothing is checked, and nothing is thrown.
    TSocket(int descriptor, int domain);

    /// Takes over the descriptor of a socket marked for hand-over, duplicates that of any other. The copy has the limits and the
    /// blocking mode of @p other. It does not know whether another object shut the sending side down: until its own Shutdown() a copy
    /// reports a broken pipe as EIOError "broken pipe".
    /// @throw EException  the descriptor cannot be duplicated, with the class by the table of TSocket; @p other is as before.
    TSocket(const TSocket& other);

    TSocket& operator=(const TSocket&) = delete;

    /// If the socket owns its descriptor: shuts the connection down in both directions and closes the descriptor. Closing with unread
    /// input makes the system reset the connection, and the peer may lose what was sent last: shut down sending and receive to the end
    /// first where that matters. Cancellation is off meanwhile. A failure ends the process where nothing may leave a destructor: in a
    /// unique_ptr, and while a cancelled thread unwinds, which the standard library does not count as an exception.
    /// @throw EException  "socket closing failed"; the descriptor is gone all the same. Dropped while another exception propagates.
    ~TSocket() noexcept(false) override;

    /// The system's family number for a family's name: "inet" 2, "ipx" 4, "fs" 1, "" 0, matched exactly. Any thread may call it.
    /// @throw EUnsupportedDomain  the detail is @p name.
    static int MapDomain(const std::string& name);

    /// The system's number for a type of sockets. Any thread may call it.
    /// @throw EUnsupportedType  @p type is none of TType, or the platform has none such.
    static int MapType(TType type);

    /// The descriptor, for a caller's own poll, options or exec rules. Still this object's to close.
    int GetDescriptor() const noexcept { return Descriptor; }

    /// Switches between blocking mode (@p blocking true) and non-blocking mode. The mode belongs to the system socket: it changes for
    /// all copies, but only this object knows.
    /// @throw EException  "socket blocking setup failure"; the mode is as before.
    void SetBlocking(bool blocking) override;

    /// Allows or forbids sending to broadcast addresses.
    /// @throw EException  "socket broadcast setup failure".
    void SetBroadcast(bool on) override;

    /// Allows or forbids binding to an address that an ended connection still occupies.
    /// @throw EException  "socket reuseaddr setup failure".
    void SetReuseAddress(bool on) override;

    /// Sets the limit in seconds for waits before receiving and accepting. Never throws.
    /// @return the previous limit.
    double SetReceiveTimeout(const double& limit) override;

    /// Sets the limit in seconds for sending and connecting. Never throws.
    /// @return the previous limit.
    double SetSendTimeout(const double& limit) override;

    /// Waits for input up to the receive limit if the socket is blocking, then receives once. Urgent data, which the call does not
    /// receive, neither end the wait nor stretch the limit. That does not hold for an "fs" socket whose urgent data the caller has taken
    /// through GetDescriptor() (MSG_OOB): the system then calls it readable while it has nothing. Who reads urgent data uses a
    /// non-blocking socket.
    /// @return bytes received, 1 to @p size: what the system has, not necessarily all that was sent.
    /// @throw EShutdown  "when receive": the peer closed its side, or @p size is 0, or an empty datagram came. The three look alike; a
    ///                   datagram socket goes on receiving after it.
    /// @throw ETimeout   nothing arrived within the limit.
    /// Waits: a socket may be announced readable and then have nothing (a datagram whose checksum is wrong, input that another copy has
    /// taken): the call then waits past its limit. A non-blocking socket does not. Cancellation point.
    int Receive(void* buffer, unsigned size) override;

    /// Non-blocking, or without a send limit: sends once, and the result may be less than @p size. Blocking and with a limit: sends all
    /// of @p size, or throws. After an exception of such a call a part may have gone out: neither a limit that ran out nor a signal
    /// (EShutdown "interrupted system call") tells how many bytes went. Sending that makes progress is not cut off by the limit.
    /// Cancellation point.
    /// @param size  at most the largest int, since that is what a count fits.
    /// @return bytes sent.
    /// @throw ETimeout   it would still block when the limit was over.
    /// @throw EShutdown  "when receive": @p size is 0. A datagram socket has sent the empty datagram all the same.
    int Send(const void* data, unsigned size) override;

    /// Like Receive(), and @p address becomes the sender's: the system's bytes whole, its domain field untouched. The system tells no
    /// sender of what comes over a TCP connection: the address is then empty. A datagram longer than @p size is cut by the system. When the
    /// system refuses the call, or nothing arrives within the limit, the address is as before; an empty datagram, which is reported as
    /// EShutdown "when receive", leaves its sender.
    /// @throw std::bad_cast   @p address is not a TSocket::TAddress; no system call was made.
    /// @throw std::bad_alloc  there is no memory for the address; nothing was received.
    int ReceiveFrom(void* buffer, unsigned size, Interface::TSocket<TSocket>::TAddress& address) override;

    /// Like Send(), to @p address. Within a limit, a full queue of an "fs" peer is asked again every few milliseconds. Cancellation point.
    /// @throw std::bad_cast  @p address is not a TSocket::TAddress; no system call was made.
    int SendTo(const void* data, unsigned size, const Interface::TSocket<TSocket>::TAddress& address) override;

    /// Gives the socket its own address.
    /// Binding to an "fs" path makes a file of type socket there, with the permissions that the process's mask leaves. It stays when the
    /// socket is closed, and while it is there nobody can bind to that path again: TFile::Remove takes it away. Binding to an "fs"
    /// address without a path, or to one that begins with a zero byte, makes no file: see TAddress.
    /// @throw EException     "socket bind failed: " + the address as TAddress::Get(true) gives it, without the system's reason.
    /// @throw EBadAddress, EUnsupportedDomain  binding failed, and TAddress::Get(true) threw this when it was asked for the text.
    /// @throw std::bad_cast  @p address is not a TSocket::TAddress; no system call was made.
    /// Waits: only when binding an "inet" address fails, since the message takes a reverse look-up under the process's resolver lock. It
    /// waits as long as a name server takes, and makes others wait meanwhile: who makes a socket, who asks TAddress::Get(true).
    void Bind(const Interface::TSocket<TSocket>::TAddress& address) override;

    /// Connects to @p address. Non-blocking: starts connecting, EWouldBlock being the usual answer. Blocking without a send limit: waits
    /// as long as the system does. Blocking with one: switches to non-blocking mode (for every copy of the socket), repeats until
    /// connected or the limit is over, and switches back on every way out. Cancellation point.
    /// @throw ETimeout       the limit was over; the attempt itself goes on in the system.
    /// @throw EException     "socket blocking setup failure": the mode could not be switched, or not back; dropped during a cancellation.
    /// @throw std::bad_cast  @p address is not a TSocket::TAddress; no system call was made.
    void Connect(const Interface::TSocket<TSocket>::TAddress& address) override;

    /// Makes the socket accept connections. The system keeps about @p backlog of them waiting; 0 means 128. The system silently caps
    /// @p backlog at its configured largest.
    /// @throw EException  "socket listen failed".
    void Listen(unsigned backlog) override;

    /// Waits for a connection, up to the receive limit if the socket is blocking and has one, and accepts it. @p address becomes the
    /// peer's: the system's bytes whole, its domain field untouched. If the call fails the address is as before.
    /// @return a socket in blocking mode, without limits, of the family of the peer's address, marked for hand-over.
    /// @throw ETimeout        nobody connected within the limit.
    /// @throw std::bad_cast   @p address is not a TSocket::TAddress; no system call was made.
    /// @throw std::bad_alloc  there is no memory for the address; nothing was accepted.
    /// Waits: a connection that is announced and aborted before it is accepted, or accepted by another copy, makes the call wait past its
    /// limit, unless the socket is non-blocking. Cancellation point: one that arrives together with a connection may lose it and leave its
    /// descriptor open, since C libraries before 2.41 act on it too late. A socket in non-blocking mode loses none; threads that are
    /// cancelled wait with SelectRead() first. The system's mode counts there, not what this object believes: the call asks for it, and can
    /// be cancelled if another copy has switched to blocking mode. It trusts that nobody does so between that question and the call.
    TSocket Accept(Interface::TSocket<TSocket>::TAddress& address) override;

    /// Makes @p address the socket's own address: where it is bound, the system's choice of a port included. Of a socket that is not bound,
    /// "inet" gives "0.0.0.0:0" and "fs" an empty path. The system's bytes are taken whole, and the domain field of @p address stays.
    /// @throw EException      the system refuses, with the class by the table of TSocket; @p address is as before.
    /// @throw std::bad_alloc  there is no memory for the address, which is as before.
    void GetLocalAddress(TAddress& address) const;

    /// Makes @p address that of the peer that the socket is connected to, also when the peer has closed its side. A peer without a name
    /// gives an empty path of "fs". The system's bytes are taken whole, and the domain field of @p address stays.
    /// @throw ENotConnected   the socket was never connected, or its TCP connection is over; @p address is as before.
    /// @throw EException      the system refuses otherwise, with the class by the table of TSocket; @p address is as before.
    /// @throw std::bad_alloc  there is no memory for the address, which is as before.
    void GetPeerAddress(TAddress& address) const;

    /// Waits until the socket can be read or has an exceptional condition, for at most @p limit seconds. EndlessTimeInterval waits without
    /// limit. Any other limit of less than a microsecond, positive or negative, does not wait. The system refuses NaN and every other
    /// negative limit (ENotConnected). A limit that is too large becomes the largest that the system takes.
    /// Works for every descriptor the process can hold. A number of 1024 or more that is no open descriptor may never become ready.
    /// Cancellation point.
    /// @return false when the time ran out.
    /// @throw EShutdown  "interrupted system call": a signal ended the wait.
    bool SelectRead(const double& limit) override;

    /// Waits until the socket can be written or has an exceptional condition, for at most @p limit seconds. Special limits and large
    /// descriptors mean what they mean for SelectRead(). Cancellation point.
    /// @return false when the time ran out, and also when the socket can be written and has an exceptional condition.
    /// @throw EShutdown  "interrupted system call": a signal ended the wait.
    bool SelectWrite(const double& limit) override;

    /// On a blocking socket, waits until a receive has something to take: bytes, the end of the connection, an error. The wait lasts at
    /// most the receive limit. Does nothing on a non-blocking socket. Urgent data alone do not end this wait, though they end that of
    /// SelectRead(). While an "fs" socket has urgent data, this looks at it every few milliseconds. Where the caller has taken the urgent
    /// data of an "fs" socket through GetDescriptor() (MSG_OOB), the wait may end with nothing to take: who reads urgent data uses a
    /// non-blocking socket. Cancellation point.
    /// @throw ETimeout    the limit ran out.
    /// @throw EException  the wait failed or a signal ended it; or, beside urgent data, the socket's own error: by the table of TSocket.
    void ValidateReceive();

    /// Ends the connection's @p read direction, its @p write direction, or both. After the end of the write direction this object reports a
    /// broken pipe as EShutdown "when send". After a failure it reports a broken pipe as before.
    /// @throw ENotConnected  there is no connection, or it is gone already: after a reset over TCP for instance.
    /// @throw EException     "nonsense shutdown": neither direction; nothing was changed.
    void Shutdown(bool read, bool write) override;

    /// Sets the size in bytes of the system's send buffer. The system silently caps @p size at its configured largest, then doubles it for
    /// its own needs, and reports the doubled size. A size that is too small, 0 too, becomes the smallest size that the system has (a few
    /// kilobytes). So no size is refused for its value.
    /// @return the previous size, as the system reported it.
    /// @throw EException  "getsockopt failed" or "setsockopt failed".
    unsigned SetSendBufferSize(unsigned size) override;

    /// Sets the size in bytes of the system's receive buffer. The system treats @p size as SetSendBufferSize() says.
    /// @return the previous size, as the system reported it.
    /// @throw EException  "getsockopt failed" or "setsockopt failed".
    unsigned SetReceiveBufferSize(unsigned size) override;

    /// Sets the option @p option of the socket level, SO_SNDBUF or SO_RCVBUF, to @p size.
    /// @return the previous value, as the system reported it.
    /// @throw EException  "getsockopt failed" or "setsockopt failed".
    unsigned SetBufferSize(int option, unsigned size);

    /// Does nothing on this platform.
    void SetNoDelay(bool on) override;

    /// Returns @p result unless it is -1, and throws by the table of TSocket for -1. Called right after the system call: it reads errno.
    int CheckResult(int result) const;

    /// Does what CheckResult() does for the result of a transfer, where 0 throws too: EShutdown "when receive".
    int CheckIOResult(int result) const;

private:
    KEST_HIDDEN void SetFlag(int option, bool on, const char* failure);
    KEST_HIDDEN int CountReady(const double& limit, bool writing) const;
    KEST_HIDDEN void ConnectWithin(double limit, const TAddress& target);
    KEST_HIDDEN long SendOnce(const char* data, unsigned size, int flags, const TAddress* target) const;
    KEST_HIDDEN void AskForAddress(TAddress& address, bool ofPeer) const;
    KEST_HIDDEN int Transmit(const void* data, unsigned size, const TAddress* target);

    mutable bool HandOver;
    mutable bool OwnsDescriptor;
    int Domain;
    int Descriptor;
    double ReceiveTimeout;
    double SendTimeout;
    bool Blocking;
    bool SendShutdown;
};

/// A socket address: the system's bytes, made from text or filled in by a socket operation. It owns its bytes; a copy has its own.
///
/// | domain | text                                             | bytes                                              |
/// |--------|--------------------------------------------------|----------------------------------------------------|
/// | "inet" | host, colon, decimal port: "10.0.0.1:8080"       | the system's 16 bytes of an IPv4 address           |
/// | "fs"   | path of a socket in the file system, UTF-8       | family, path and a zero byte; no limit of length   |
/// | "ipx"  | none                                             | 16 zero bytes, for a socket operation to fill in   |
/// | ""     | none                                             | 16 zero bytes, for a socket operation to fill in   |
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
    /// "inet": the first colon that is not the last character separates host and port. The port is the low 16 bits of the number that
    /// strtol reads in base 10: leading white space and a sign are read, reading stops at what is no digit, no digits give 0, and what
    /// does not fit a long counts as the nearer end of its range. A text with a zero byte in it is no host. An "fs" path is kept whole, and
    /// read back up to its first zero byte.
    /// @param resolve  true: the host may be a name, and the system's resolver gives its first address. That may take seconds. No
    ///                 signal ends the look-up, and a cancellation is acted on after it. False: the host must be a dotted decimal IPv4
    ///                 address. Ignored for "fs".
    /// @throw EUnsupportedDomain  unknown family, the detail is its name; or "ipx" and "", "address error".
    /// @throw EBadAddress         "inet address too long": more than 262 characters; "bad 'address:port' inet format: Domain: '" + the
    ///                            domain + "': " + the text: no colon but in the last place; "host not resolved: " + the text;
    ///                            or without a detail: the host is no dotted decimal address.
    TAddress(const std::string& domain, const std::string& address, bool resolve);

    /// A copy of the domain and the bytes.
    /// @throw std::bad_alloc  there is no memory for the bytes.
    TAddress(const TAddress& other);

    /// Makes this address a copy of the domain and the bytes of @p other.
    /// @throw std::bad_alloc  there is no memory for the bytes; this address is as before.
    TAddress& operator=(const TAddress& other);
    ~TAddress() override;

    /// The address as text: "host:port" for "inet", the path for "fs". The domain decides, never the family in the bytes. Bytes that are
    /// missing count as zero.
    /// @param resolve  true: the host's registered name, cut to 255 characters. Ignored for "fs".
    /// @throw EUnsupportedDomain  "address error": the domain has no text.
    /// @throw EBadAddress         no name is registered.
    /// Waits: where @p resolve is true, for "inet", for the resolver lock and then for the look-up, as long as a name server takes.
    /// Meanwhile nobody else in the process makes a socket or looks a name up this way. No signal ends the wait. A cancellation is acted on
    /// after the look-up.
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
    KEST_HIDDEN void Adopt(std::unique_ptr<char[]> bytes, socklen_t length) noexcept;

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
/// Waits: for a name server, which may take seconds. No signal ends the wait. A cancellation is acted on after the look-up.
KEST_EXPORT const char* ip2name(in_addr address);

} // namespace Kest::System

namespace Kest::_Gadgets {

extern template class TSingleton<System::TSocket::TMutex>;

} // namespace Kest::_Gadgets

#endif
