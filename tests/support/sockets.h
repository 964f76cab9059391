#ifndef KEST_TESTS_SUPPORT_SOCKETS_H
#define KEST_TESTS_SUPPORT_SOCKETS_H

#include <kest/net/socket.h>
#include <support/helper_thread.h>
#include <support/temporary_directory.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
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

/// The message of an error of the system that has no class of its own.
inline std::string SystemMessage(int code) {
    return std::string("Kest: ") + std::strerror(code);
}

/// Whether the program runs under the emulation that the build arranges where the kernel runs no 32-bit programs.
inline bool IsEmulated() {
    return std::getenv("KEST_EMULATOR") != nullptr;
}

/// The longest that anything timed takes, the steps of a second that timed operations make included.
constexpr double Soon = 8.0;

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

/// The address that the system says a bound socket has, as text; what it says without this library's help.
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

template <class TValue = int>
TValue OptionOf(const TSocket& socket, int level, int option) {
    TValue value{};
    socklen_t length = sizeof value;
    if (::getsockopt(socket.GetDescriptor(), level, option, &value, &length) != 0)
        throw std::runtime_error("an option of a test's socket cannot be read");
    return value;
}

/// What the system says, not what the object believes.
inline bool IsInBlockingMode(const TSocket& socket) {
    return (::fcntl(socket.GetDescriptor(), F_GETFL) & O_NONBLOCK) == 0;
}

/// Puts something in place of the socket's descriptor with which every call but close fails with EBADF.
inline void Break(const TSocket& socket) {
    const int nothing = ::open("/", O_PATH);
    (void)::dup2(nothing, socket.GetDescriptor());
    (void)::close(nothing);
}

/// The program's limit of open descriptors, while the object lives.
class TDescriptorLimit {
public:
    explicit TDescriptorLimit(rlim_t count) {
        (void)::getrlimit(RLIMIT_NOFILE, &Usual);
        const rlimit limit{count, Usual.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    TDescriptorLimit(const TDescriptorLimit&) = delete;
    TDescriptorLimit& operator=(const TDescriptorLimit&) = delete;
    ~TDescriptorLimit() { (void)::setrlimit(RLIMIT_NOFILE, &Usual); }

private:
    rlimit Usual{};
};

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
    explicit TFullListener(const std::string& domain, unsigned backlog = 1) : TListener(domain, backlog) {
        try {
            for (;;) {
                Clients.emplace_back(StreamOf(domain));
                Clients.back().SetBlocking(false);
                ConnectSoon(Clients.back());
            }
        } catch (const System::Interface::_Socket::EWouldBlock&) {
            Clients.pop_back();
        }
    }

    std::list<TSocket> Clients; ///< those that are in the queue

private:
    /// A handshake over TCP is over in a moment, unless the queue is full.
    void ConnectSoon(TSocket& client) {
        try {
            client.Connect(Address);
        } catch (const System::Interface::_Socket::EWouldBlock&) {
            pollfd connected{client.GetDescriptor(), POLLOUT, 0};
            if (Address.Get(false)[0] == '/' || ::poll(&connected, 1, 50) == 0)
                throw;
        }
    }
};

/// Bytes that do not repeat: one that is lost or out of place shows.
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

/// Fills the way to the peer until the socket stays unwritable.
inline void FillUp(const TSocket& socket) {
    pollfd writable{socket.GetDescriptor(), POLLOUT, 0};
    do {
        while (::send(socket.GetDescriptor(), TooMuch().data(), TooMuch().size(), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
        }
    } while (::poll(&writable, 1, 10) > 0);
}

/// Where a thread says that its next call is the one it blocks in, and others wait until it does.
class TBlockingPoint {
public:
    void Enter() { Thread = ::gettid(); }

    /// Whether the thread came to sleep in the system, within far more time than it needs.
    bool WaitUntilBlocked() const {
        for (int round = 0; round < 10000; ++round) {
            if (Thread != 0 && IsAsleep(Thread))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }

private:
    static bool IsAsleep(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string line;
        std::getline(file, line);
        const std::size_t name = line.rfind(") ");
        return name != std::string::npos && line[name + 2] == 'S';
    }

    std::atomic<pid_t> Thread{0};
};

/// Runs @p body on a thread of the library and does @p action to that thread once it is blocked behind the point that the body enters.
/// Returns the thread's exit value.
template <class TBody, class TAction>
int WhileBlocked(TBody body, TAction action) {
    TBlockingPoint point;
    TFunctionThread thread([&] { return body(point); });
    thread.Start();
    EXPECT_TRUE(point.WaitUntilBlocked());
    action(thread);
    return thread.WaitFor();
}

template <class TBody>
int CancelledWhileBlocked(TBody body) {
    return WhileBlocked(body, [](TFunctionThread& thread) { thread.Cancel(); });
}

/// Checks that an action takes at least @p least seconds and not much more.
template <class TAction>
void ExpectWait(double least, const TAction& action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(elapsed, least);
    EXPECT_LT(elapsed, Soon);
}

} // namespace Kest::Test

#endif
