#ifndef KEST_TESTS_SUPPORT_SOCKETS_H
#define KEST_TESTS_SUPPORT_SOCKETS_H

#include <kest/net/socket.h>
#include <models/temporary_directory.h>
#include <support/helper_thread.h>
#include <support/message.h>

#include <atomic>
#include <cstddef>
#include <fstream>
#include <list>
#include <stdexcept>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/un.h>
#include <unistd.h>

namespace Kest::Test {

using System::TSocket;
using TAddress = TSocket::TAddress;
using TAnyAddress = System::Interface::TSocket<TSocket>::TAddress;

// The whole messages of what transfers throw.
inline const std::string IOError = "Kest: socket IO error";
inline const std::string NotConnected = IOError + ": socket not connected";
inline const std::string WouldBlock = IOError + ": non-blocking socket would block";
inline const std::string Abort = IOError + ": socket connection aborted";
inline const std::string Timeout = Abort + ": socket connection timeout";
inline const std::string Reset = Abort + ": socket connection was reset by remote side";
inline const std::string Shutdown = Abort + ": socket connection was shutdown'ed";

inline TSocket::TProtocolInfo StreamOf(const std::string& domain) {
    return {domain, TSocket::Stream, domain == "inet" ? "tcp" : "ip"};
}

inline TSocket::TProtocolInfo DatagramOf(const std::string& domain) {
    return {domain, TSocket::Datagram, domain == "inet" ? "udp" : "ip"};
}

/// An address to bind a socket of the domain to: a port of the system's choice, or @p name in @p directory.
inline TAddress PlaceFor(const std::string& domain, const TTemporaryDirectory& directory, const std::string& name = "socket") {
    return {domain, domain == "inet" ? "127.0.0.1:0" : directory / name, false};
}

/// The address of a bound socket as text, asked of the system without this library.
inline std::string NameOf(const TSocket& socket) {
    sockaddr_storage name{};
    socklen_t length = sizeof name;
    if (::getsockname(socket.GetDescriptor(), reinterpret_cast<sockaddr*>(&name), &length) != 0)
        throw std::runtime_error("a socket of the test has no name");
    if (name.ss_family == AF_UNIX)
        return {reinterpret_cast<sockaddr_un*>(&name)->sun_path, length - offsetof(sockaddr_un, sun_path) - 1};
    const auto& inet = *reinterpret_cast<sockaddr_in*>(&name);
    return ::inet_ntoa(inet.sin_addr) + (':' + std::to_string(ntohs(inet.sin_port)));
}

/// -1 when it cannot be read.
inline int OptionOf(const TSocket& socket, int level, int option) {
    int value = -1;
    socklen_t length = sizeof value;
    (void)::getsockopt(socket.GetDescriptor(), level, option, &value, &length);
    return value;
}

/// The mode by the system, not by the object.
inline bool IsInBlockingMode(const TSocket& socket) {
    return (::fcntl(socket.GetDescriptor(), F_GETFL) & O_NONBLOCK) == 0;
}

/// A bound socket that listens, and where.
struct TListener {
    explicit TListener(const std::string& domain, unsigned backlog = 0) : Socket(StreamOf(domain)), Address(domain) {
        Socket.Bind(PlaceFor(domain, Directory));
        Address = TAddress(domain, NameOf(Socket), false);
        Socket.Listen(backlog);
    }

    TTemporaryDirectory Directory;
    TSocket Socket;
    TAddress Address;
};

/// Both ends of a connection.
struct TConnection {
    explicit TConnection(const std::string& domain) : Listener(domain), Client(StreamOf(domain)), Server(Establish(domain)) {}

    TListener Listener;
    TSocket Client;
    TSocket Server;

private:
    TSocket Establish(const std::string& domain) {
        Client.Connect(Listener.Address);
        TAddress peer(domain);
        return Listener.Socket.Accept(peer);
    }
};

/// A listener that leaves further connections hanging: its queue is full.
struct TFullListener : TListener {
    explicit TFullListener(const std::string& domain) : TListener(domain, 1) {
        while (ConnectSoon(Clients.emplace_back(StreamOf(domain)))) {
        }
        Clients.pop_back();
    }

    std::list<TSocket> Clients; ///< those that are in the queue

private:
    /// A handshake over TCP is over in a moment, unless the queue is full.
    bool ConnectSoon(TSocket& client) {
        client.SetBlocking(false);
        try {
            client.Connect(Address);
        } catch (const System::Interface::_Socket::EWouldBlock&) {
            pollfd connected{client.GetDescriptor(), POLLOUT, 0};
            (void)::poll(&connected, 1, 50);
        }
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        return ::getpeername(client.GetDescriptor(), reinterpret_cast<sockaddr*>(&peer), &length) == 0;
    }
};

/// Bytes that do not repeat, so that a lost or misplaced byte shows.
inline std::string Pattern(std::size_t size) {
    std::string result(size, '\0');
    unsigned value = 1;
    for (char& each : result)
        each = static_cast<char>((value = value * 1664525 + 1013904223) >> 24);
    return result;
}

/// More than the system takes from a sender whose peer does not receive.
inline const std::string& TooMuch() {
    static const std::string bytes(16 << 20, 'x');
    return bytes;
}

inline int SendTooMuch(TSocket& socket) {
    return socket.Send(TooMuch().data(), static_cast<unsigned>(TooMuch().size()));
}

/// Sends until the socket stays unwritable.
inline void FillUp(const TSocket& socket) {
    pollfd writable{socket.GetDescriptor(), POLLOUT, 0};
    do {
        while (::send(socket.GetDescriptor(), TooMuch().data(), TooMuch().size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
        }
    } while (::poll(&writable, 1, 10) > 0);
}

/// Whether a thread that is about to tell its number comes to sleep in the system, within far more time than it needs.
inline bool FallsAsleep(const std::atomic<pid_t>& thread) {
    for (int round = 0; round < 10000; ++round) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string line;
        std::getline(file, line);
        const std::size_t name = line.rfind(") ");
        if (name != std::string::npos && line[name + 2] == 'S')
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

/// Makes a call on a thread of the library and does @p action once the thread is blocked in it. Returns the thread's exit value.
template <class TCall, class TAction>
int WhileBlocked(TCall call, TAction action) {
    std::atomic<pid_t> number{0};
    TFunctionThread thread([&] { return number = ::gettid(), call(); });
    thread.Start();
    EXPECT_TRUE(FallsAsleep(number));
    action();
    return thread.WaitFor();
}

} // namespace Kest::Test

#endif
