#ifndef KEST_INTERFACE_SOCKET_H
#define KEST_INTERFACE_SOCKET_H

/// @file
/// Interface::TSocket, the abstract class of System::TSocket.

#include <kest/export.h>

#include <string>

namespace Kest::System::Interface {

/// A socket. @p TImplementation is the class that implements this one, so that Accept can return it by value.
/// Time limits are seconds; EndlessTimeInterval (0.0) means that there is no limit. Failures are exceptions derived from EException. The
/// implementing class says for each operation which, and everything else that callers need to know.
template <class TImplementation>
class KEST_EXPORT TSocket {
public:
    /// The address of a socket.
    class KEST_EXPORT TAddress {
    public:
        virtual ~TAddress() = default;

        /// The address as text, with a name in place of the number where @p resolve asks for it.
        virtual std::string Get(bool resolve) const = 0;

    protected:
        TAddress() = default;
        TAddress(const TAddress&) = default;
        TAddress& operator=(const TAddress&) = default;
    };

    /// How a socket carries data.
    enum TType : int {
        Stream,           ///< a stream of bytes over a connection
        Datagram,         ///< messages, each on its own
        Raw,              ///< the network's own packets; needs a privilege
        ReliableDatagram, ///< messages that arrive, in any order
        SequencedPacket   ///< messages that arrive in order, over a connection
    };

    /// What a socket is made from.
    struct TProtocolInfo {
        std::string Domain;   ///< name of the address family: "inet" or "fs"
        TType Type;           ///< how it carries data
        std::string Protocol; ///< name in the system's protocol database: "tcp", "udp", "ip" for a family's own
    };

    // Defaulted, it could not be declared noexcept(false) in C++17: NOLINTNEXTLINE(modernize-use-equals-default)
    virtual ~TSocket() noexcept(false) {}
    virtual void SetBlocking(bool blocking) = 0;               ///< switches between blocking and non-blocking mode
    virtual void SetBroadcast(bool on) = 0;                    ///< allows sending to broadcast addresses
    virtual void SetReuseAddress(bool on) = 0;                 ///< allows binding to an address still occupied
    virtual double SetReceiveTimeout(const double& limit) = 0; ///< limit of receiving and accepting; the one before
    virtual double SetSendTimeout(const double& limit) = 0;    ///< limit of sending and connecting; the one before

    /// Receives once; bytes received, 1 to @p size. A peer that closed its side is an exception.
    virtual int Receive(void* buffer, unsigned size) = 0;

    /// Sends; bytes sent, which are all with a send limit.
    virtual int Send(const void* data, unsigned size) = 0;

    /// Receives once, as Receive() does; @p address becomes the sender's.
    virtual int ReceiveFrom(void* buffer, unsigned size, TAddress& address) = 0;

    /// Sends to @p address, as Send() does.
    virtual int SendTo(const void* data, unsigned size, const TAddress& address) = 0;

    virtual void Bind(const TAddress& address) = 0;    ///< gives the socket its own address
    virtual void Connect(const TAddress& address) = 0; ///< connects, within the send limit
    virtual void Listen(unsigned backlog) = 0;         ///< accepts connections, @p backlog of them waiting; 0 for the usual

    /// Waits for a connection, within the receive limit, and returns it; @p address becomes the peer's.
    virtual TImplementation Accept(TAddress& address) = 0;

    virtual bool SelectRead(const double& limit) = 0;  ///< waits until it can be read; false when @p limit ran out
    virtual bool SelectWrite(const double& limit) = 0; ///< waits until it can be written; false when @p limit ran out
    virtual void Shutdown(bool read, bool write) = 0;  ///< ends one direction or both

    virtual unsigned SetSendBufferSize(unsigned size) = 0;    ///< in bytes; the one before
    virtual unsigned SetReceiveBufferSize(unsigned size) = 0; ///< in bytes; the one before
    virtual void SetNoDelay(bool on) = 0;                     ///< sends small pieces at once, where the platform does that

protected:
    TSocket() = default;
    TSocket(const TSocket&) = default;
    TSocket& operator=(const TSocket&) = default;
};

} // namespace Kest::System::Interface

#endif
