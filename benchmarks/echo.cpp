// Bytes over a connection: there and back between two threads, and one way, sent and received in turns by one thread.
#include <benchmarks/sockets.h>
#include <kest/net/socket.h>

#include <thread>
#include <vector>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_network_io.h>
#include <apr_portable.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#endif

namespace Kest::Benchmark {

namespace {

// A socket of each kind around a connected descriptor, with or without limits of time. Receive() returns 0 or less at the end.

class TKestSocket {
public:
    TKestSocket(int descriptor, int family, bool isLimited) : Socket(descriptor, family) {
        if (isLimited) {
            (void)Socket.SetReceiveTimeout(Limit);
            (void)Socket.SetSendTimeout(Limit);
        }
    }

    int Send(const void* data, unsigned size) { return Socket.Send(data, size); }
    int Receive(void* buffer, unsigned size) {
        try {
            return Socket.Receive(buffer, size);
        } catch (const System::Interface::_Socket::EShutdown&) {
            return 0;
        }
    }

private:
    System::TSocket Socket;
};

#ifdef KEST_BENCHMARK_POCO
class TPocoSocket {
public:
    TPocoSocket(int descriptor, int, bool isLimited) : Socket(new Poco::Net::StreamSocketImpl(descriptor)) {
        if (isLimited) {
            const Poco::Timespan limit(static_cast<long>(Limit), 0);
            Socket.setReceiveTimeout(limit);
            Socket.setSendTimeout(limit);
        }
    }
    TPocoSocket(const TPocoSocket&) = delete;
    TPocoSocket& operator=(const TPocoSocket&) = delete;
    ~TPocoSocket() { Socket.shutdown(); }

    int Send(const void* data, unsigned size) { return Socket.sendBytes(data, static_cast<int>(size)); }
    int Receive(void* buffer, unsigned size) { return Socket.receiveBytes(buffer, static_cast<int>(size)); }

private:
    Poco::Net::StreamSocket Socket;
};
#endif

#ifdef KEST_BENCHMARK_APR
class TAprSocket {
public:
    TAprSocket(int descriptor, int family, bool isLimited) {
        apr_os_sock_t system = descriptor;
        apr_os_sock_info_t info{};
        info.os_sock = &system;
        info.family = family;
        info.type = SOCK_STREAM;
        (void)::apr_os_sock_make(&Socket, &info, Pool.Get());
        (void)::apr_socket_timeout_set(Socket, isLimited ? apr_time_from_sec(static_cast<apr_interval_time_t>(Limit)) : -1);
    }
    TAprSocket(const TAprSocket&) = delete;
    TAprSocket& operator=(const TAprSocket&) = delete;
    ~TAprSocket() {
        (void)::apr_socket_shutdown(Socket, APR_SHUTDOWN_READWRITE);
        (void)::apr_socket_close(Socket);
    }

    int Send(const void* data, unsigned size) {
        apr_size_t length = size;
        return ::apr_socket_send(Socket, static_cast<const char*>(data), &length) == APR_SUCCESS ? static_cast<int>(length) : -1;
    }
    int Receive(void* buffer, unsigned size) {
        apr_size_t length = size;
        return ::apr_socket_recv(Socket, static_cast<char*>(buffer), &length) == APR_SUCCESS ? static_cast<int>(length) : -1;
    }

private:
    TAprPool Pool;
    apr_socket_t* Socket = nullptr;
};
#endif

#ifdef KEST_BENCHMARK_BOOST
/// This peer has no limits.
class TBoostSocket {
public:
    TBoostSocket(int descriptor, int family, bool) : Socket(Context) {
        Socket.assign(boost::asio::generic::stream_protocol(family, 0), descriptor);
    }
    TBoostSocket(const TBoostSocket&) = delete;
    TBoostSocket& operator=(const TBoostSocket&) = delete;
    ~TBoostSocket() {
        boost::system::error_code ignored;
        Socket.shutdown(boost::asio::socket_base::shutdown_both, ignored);
    }

    int Send(const void* data, unsigned size) { return static_cast<int>(Socket.send(boost::asio::buffer(data, size))); }
    int Receive(void* buffer, unsigned size) {
        boost::system::error_code error;
        const std::size_t received = Socket.receive(boost::asio::buffer(buffer, size), 0, error);
        return error ? 0 : static_cast<int>(received);
    }

private:
    boost::asio::io_context Context;
    boost::asio::generic::stream_protocol::socket Socket;
};
#endif

/// Repeats a call that transfers a part until everything is through; false at the end of the connection.
template <class TTransfer>
bool TransferAll(std::vector<char>& message, const TTransfer& transfer) {
    for (std::size_t done = 0; done < message.size();) {
        const int count = transfer(message.data() + done, static_cast<unsigned>(message.size() - done));
        if (count <= 0)
            return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

template <class TSocket>
bool SendAll(TSocket& socket, std::vector<char>& message) {
    return TransferAll(message, [&](const char* data, unsigned size) { return socket.Send(data, size); });
}

template <class TSocket>
bool ReceiveAll(TSocket& socket, std::vector<char>& message) {
    return TransferAll(message, [&](char* buffer, unsigned size) { return socket.Receive(buffer, size); });
}

/// One iteration is a message to the other thread and its return.
template <class TSocket>
void ThereAndBack(benchmark::State& state, std::int64_t size, int family, bool isLimited) {
    const TPinned pinned;
    const auto ends = Connect(family);
    std::vector<char> message(static_cast<std::size_t>(size), 'k');
    std::thread other([&] {
        TSocket socket(ends[1], family, isLimited);
        std::vector<char> received(static_cast<std::size_t>(size));
        while (ReceiveAll(socket, received) && SendAll(socket, received))
            continue;
    });
    {
        TSocket socket(ends[0], family, isLimited);
        for (auto _ : state) {
            if (!SendAll(socket, message) || !ReceiveAll(socket, message))
                state.SkipWithError("the connection ended");
        }
    }
    other.join();
    state.SetLabel(OnOneProcessor);
}

/// One iteration sends a message at one end and receives it at the other end. With two threads the system's scheduler would decide how many
/// calls that takes.
template <class TSocket>
void OneWay(benchmark::State& state, std::int64_t size, int family, bool isLimited) {
    const auto ends = Connect(family);
    std::vector<char> message(static_cast<std::size_t>(size), 'k');
    TSocket from(ends[0], family, isLimited);
    TSocket to(ends[1], family, isLimited);
    for (auto _ : state) {
        if (!SendAll(from, message) || !ReceiveAll(to, message))
            state.SkipWithError("the connection ended");
    }
}

template <class TSocket>
void Add(const std::string& who, int family, bool isLimited) {
    const std::string name = std::string(family == AF_INET ? "/tcp" : "/fs") + (isLimited ? " within limits/" : "/") + who;
    for (const std::int64_t size : {1, 64, 1024, 16384}) {
        Register("there and back" + name, size, [=](benchmark::State& state, std::int64_t bytes) {
            ThereAndBack<TSocket>(state, bytes, family, isLimited);
        })->MeasureProcessCPUTime();
        if (size > 64) {
            Register("one way" + name, size,
                     [=](benchmark::State& state, std::int64_t bytes) { OneWay<TSocket>(state, bytes, family, isLimited); });
        }
    }
}

template <class TSocket>
void Add(const std::string& who, bool knowsLimits) {
    for (const int family : {AF_INET, AF_UNIX}) {
        Add<TSocket>(who, family, false);
        if (knowsLimits)
            Add<TSocket>(who, family, true);
    }
}

} // namespace

void RegisterTopic() {
    Add<TBareSocket>("limit", true);
    Add<TKestSocket>("kest", true);
#ifdef KEST_BENCHMARK_POCO
    Add<TPocoSocket>("poco", true);
#endif
#ifdef KEST_BENCHMARK_APR
    Add<TAprSocket>("apr", true);
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add<TBoostSocket>("boost", false);
#endif
}

} // namespace Kest::Benchmark
