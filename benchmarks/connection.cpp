// Making, accepting and closing a TCP connection, both ends in one thread.
#include <benchmarks/sockets.h>
#include <kest/net/socket.h>

#include <memory>

#include <netdb.h>

#ifdef KEST_BENCHMARK_POCO
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#endif
#ifdef KEST_BENCHMARK_APR
#include <benchmarks/apr.h>

#include <apr_network_io.h>
#endif
#ifdef KEST_BENCHMARK_BOOST
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#endif

namespace Kest::Benchmark {

namespace {

// A server of each kind: it listens on the loopback interface, and each call connects to it once.

/// The bare calls that the library makes, in their order.
class TBareServer {
public:
    void ConnectOnce() {
        const protoent* protocol = ::getprotobyname("tcp");
        const int client = Checked(::socket(AF_INET, SOCK_STREAM, protocol->p_proto));
        (void)Checked(::connect(client, AsAddress(Listener.Address), sizeof Listener.Address));
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int server = Checked(::accept(Listener.Descriptor, reinterpret_cast<sockaddr*>(&peer), &length));
        for (const int each : {server, client}) {
            (void)::shutdown(each, SHUT_RDWR);
            (void)::close(each);
        }
    }

private:
    TListener Listener;
};

class TKestServer {
public:
    TKestServer() : Listener(Info), Address("inet") {
        Listener.Bind(System::TSocket::TAddress("inet", "127.0.0.1:0", false));
        sockaddr_in name{};
        socklen_t length = sizeof name;
        (void)Checked(::getsockname(Listener.GetDescriptor(), AsAddress(name), &length));
        Address = System::TSocket::TAddress("inet", "127.0.0.1:" + std::to_string(ntohs(name.sin_port)), false);
        Listener.Listen(128);
    }

    void ConnectOnce() {
        System::TSocket client(Info);
        client.Connect(Address);
        System::TSocket::TAddress peer("inet");
        const System::TSocket server = Listener.Accept(peer);
    }

private:
    const System::TSocket::TProtocolInfo Info{"inet", System::TSocket::Stream, "tcp"};
    System::TSocket Listener;
    System::TSocket::TAddress Address;
};

#ifdef KEST_BENCHMARK_POCO
class TPocoServer {
public:
    TPocoServer() : Listener(Poco::Net::SocketAddress("127.0.0.1", 0), 128), Address(Listener.address()) {}

    void ConnectOnce() {
        const Poco::Net::StreamSocket client(Address);
        const Poco::Net::StreamSocket server = Listener.acceptConnection();
    }

private:
    Poco::Net::ServerSocket Listener;
    Poco::Net::SocketAddress Address;
};
#endif

#ifdef KEST_BENCHMARK_APR
class TAprServer {
public:
    TAprServer() {
        (void)::apr_sockaddr_info_get(&Address, "127.0.0.1", APR_INET, 0, 0, Pool.Get());
        (void)::apr_socket_create(&Listener, APR_INET, SOCK_STREAM, APR_PROTO_TCP, Pool.Get());
        (void)::apr_socket_bind(Listener, Address);
        (void)::apr_socket_listen(Listener, 128);
        (void)::apr_socket_addr_get(&Address, APR_LOCAL, Listener);
    }

    void ConnectOnce() {
        const TAprPool pool; // closes both sockets
        apr_socket_t* client = nullptr;
        apr_socket_t* server = nullptr;
        (void)::apr_socket_create(&client, APR_INET, SOCK_STREAM, APR_PROTO_TCP, pool.Get());
        (void)::apr_socket_connect(client, Address);
        (void)::apr_socket_accept(&server, Listener, pool.Get());
    }

private:
    TAprPool Pool;
    apr_socket_t* Listener = nullptr;
    apr_sockaddr_t* Address = nullptr;
};
#endif

#ifdef KEST_BENCHMARK_BOOST
class TBoostServer {
public:
    TBoostServer() : Listener(Context, {boost::asio::ip::address_v4::loopback(), 0}) {}

    void ConnectOnce() {
        boost::asio::ip::tcp::socket client(Context);
        client.connect(Listener.local_endpoint());
        const boost::asio::ip::tcp::socket server = Listener.accept();
    }

private:
    boost::asio::io_context Context;
    boost::asio::ip::tcp::acceptor Listener;
};
#endif

/// An ended connection occupies its pair of ports for a minute: each repetition has a port of its own and makes few.
template <class TServer>
void Add(const std::string& who) {
    Register("connect and accept/tcp/" + who, [](benchmark::State& state) {
        const auto server = std::make_unique<TServer>();
        for (auto _ : state)
            server->ConnectOnce();
    })->Iterations(500);
}

} // namespace

void RegisterTopic() {
    Add<TBareServer>("limit");
    Add<TKestServer>("kest");
#ifdef KEST_BENCHMARK_POCO
    Add<TPocoServer>("poco");
#endif
#ifdef KEST_BENCHMARK_APR
    Add<TAprServer>("apr");
#endif
#ifdef KEST_BENCHMARK_BOOST
    Add<TBoostServer>("boost");
#endif
}

} // namespace Kest::Benchmark
