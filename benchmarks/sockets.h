#ifndef KEST_BENCHMARKS_SOCKETS_H
#define KEST_BENCHMARKS_SOCKETS_H

#include <benchmarks/topic.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

/// What the topics about sockets share. Bare calls make the connections, and each library that is measured gets one, so that all measure
/// alike. Everything stays on the loopback interface or within the machine.
namespace Kest::Benchmark {

/// In seconds; never reached.
inline constexpr double Limit = 30.0;

inline int Checked(int result) {
    if (result == -1)
        throw std::runtime_error(std::string("a benchmark's socket: ") + std::strerror(errno));
    return result;
}

inline sockaddr* AsAddress(sockaddr_in& address) {
    return reinterpret_cast<sockaddr*>(&address);
}

/// A listening TCP socket on a port of the system's choice.
struct TListener {
    TListener() {
        Address.sin_family = AF_INET;
        Address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof Address;
        (void)Checked(::bind(Descriptor, AsAddress(Address), length));
        (void)Checked(::listen(Descriptor, 128));
        (void)Checked(::getsockname(Descriptor, AsAddress(Address), &length));
    }
    TListener(const TListener&) = delete;
    TListener& operator=(const TListener&) = delete;
    ~TListener() { (void)::close(Descriptor); }

    const int Descriptor = Checked(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in Address{};
};

/// The two descriptors of a new connection of the family: TCP without delay, or "fs". The caller closes both.
inline std::array<int, 2> Connect(int family) {
    std::array<int, 2> ends{};
    if (family == AF_UNIX) {
        (void)Checked(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()));
        return ends;
    }
    TListener listener;
    ends[0] = Checked(::socket(AF_INET, SOCK_STREAM, 0));
    (void)Checked(::connect(ends[0], AsAddress(listener.Address), sizeof listener.Address));
    ends[1] = Checked(::accept(listener.Descriptor, nullptr, nullptr));
    const int on = 1;
    for (const int end : ends)
        (void)Checked(::setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    return ends;
}

/// The bare calls that the library's sockets make, in their order: a wait before each receive, and with limits the clock before each send,
/// which must not block then.
class TBareSocket {
public:
    TBareSocket(int descriptor, int, bool isLimited) : Descriptor(descriptor), IsLimited(isLimited) {}
    TBareSocket(const TBareSocket&) = delete;
    TBareSocket& operator=(const TBareSocket&) = delete;
    ~TBareSocket() {
        (void)::shutdown(Descriptor, SHUT_RDWR);
        (void)::close(Descriptor);
    }

    int Receive(void* buffer, unsigned size) const {
        Wait(true);
        return static_cast<int>(::recv(Descriptor, buffer, size, MSG_NOSIGNAL));
    }

    /// Sends everything with a limit, and without one what the system takes.
    int Send(const void* data, unsigned size) const {
        if (!IsLimited)
            return static_cast<int>(::send(Descriptor, data, size, MSG_NOSIGNAL));
        timeval start{};
        (void)::gettimeofday(&start, nullptr);
        for (unsigned done = 0; done < size;) {
            const ssize_t sent = ::send(Descriptor, static_cast<const char*>(data) + done, size - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent >= 0) {
                done += static_cast<unsigned>(sent);
                continue;
            }
            timeval now{};
            (void)::gettimeofday(&now, nullptr);
            if (errno != EAGAIN || static_cast<double>(now.tv_sec - start.tv_sec) >= Limit)
                return -1;
            Wait(false);
        }
        return static_cast<int>(size);
    }

private:
    void Wait(bool forReading) const {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(Descriptor, &set);
        timeval interval{forReading ? static_cast<time_t>(Limit) : 1, 0};
        (void)::select(Descriptor + 1, forReading ? &set : nullptr, forReading ? nullptr : &set, &set,
                       IsLimited || !forReading ? &interval : nullptr);
    }

    const int Descriptor;
    const bool IsLimited;
};

} // namespace Kest::Benchmark

#endif
