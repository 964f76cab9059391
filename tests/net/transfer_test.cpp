#include <kest/net/socket_stream.h>

#include <support/sockets.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <limits>
#include <typeinfo>

#include <sys/resource.h>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

/// A socket that counts its waits for writing.
class TRecorder : public TSocket {
public:
    using TSocket::TSocket;
    explicit TRecorder(const TSocket& other) : TSocket(other) {}
    bool SelectWrite(const double& limit) override {
        ++Waits;
        return TSocket::SelectWrite(limit);
    }
    int Waits = 0;
};

/// The most waits that a loop with pauses makes in a fifth of a second.
constexpr int FewWaits = 50;

/// These tests hold for every family.
class SocketTransfer : public testing::TestWithParam<const char*> {
protected:
    const std::string Domain = GetParam();
    char Byte = 0;
};

INSTANTIATE_TEST_SUITE_P(Families, SocketTransfer, testing::Values("inet", "fs"), [](const auto& p) { return std::string(p.param); });

TEST_P(SocketTransfer, ReceiveTellsCloseResetTimeOutAndWouldBlockApart) {
    TConnection connection(Domain);
    TSocket& client = connection.Client;
    client.SetReceiveTimeout(0.05);
    ExpectWait(0.05, [&] { EXPECT_KEST_THROW(client.Receive(&Byte, 1), ETimeout, Timeout); });
    client.SetBlocking(false);
    client.SetReceiveTimeout(2 * Soon);
    ExpectWait(0.0, [&] { EXPECT_KEST_THROW(client.Receive(&Byte, 1), EWouldBlock, WouldBlock); });
    EXPECT_EQ(connection.Server.Send("ab", 2), 2);
    { const TSocket closed(connection.Server); }
    char bytes[8];
    client.SetBlocking(true);
    EXPECT_EQ(client.Receive(bytes, sizeof bytes), 2);
    EXPECT_KEST_THROW(client.Receive(bytes, sizeof bytes), EShutdown, Shutdown + ": when receive");

    TSocket other(StreamOf(Domain));
    other.Connect(connection.Listener.Address);
    const int server = ::accept(connection.Listener.Socket.GetDescriptor(), nullptr, nullptr);
    EXPECT_EQ(other.Send("unread", 6), 6);
    pollfd readable{server, POLLIN, 0};
    EXPECT_EQ(::poll(&readable, 1, 1000), 1);
    (void)::close(server); // without a shutdown: closing with unread input sends a reset
    EXPECT_KEST_THROW(other.Receive(&Byte, 1), EReset, Reset);
}

TEST_P(SocketTransfer, UrgentDataAreNoInput) {
    TConnection connection(Domain);
    TSocket& client = connection.Client;
    TAddress from(Domain);
    TSocket::TStream stream(client, 16);
    const std::function<void()> ways[] = {[&] { client.Receive(&Byte, 1); }, [&] { client.ReceiveFrom(&Byte, 1, from); },
                                          [&] {
                                              stream.clear();
                                              if (stream.get() == EOF)
                                                  stream.GetLastResult() == -1 ? throw ETimeout() : throw EShutdown("interrupted");
                                          }};
    struct sigaction handled {};
    handled.sa_flags = SA_RESTART;
    handled.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &handled, nullptr), 0);
    ASSERT_EQ(::send(connection.Server.GetDescriptor(), "!", 1, MSG_OOB), 1);
    for (const auto& receive : ways) {
        client.SetReceiveTimeout(0.1);
        ExpectWait(0.1, [&] { EXPECT_THROW(receive(), ETimeout); });
        client.SetReceiveTimeout(0.0);
        for (const bool isSignal : {true, false}) {
            if (!isSignal && !StreamsAreCancelled && &receive == &ways[2])
                break;
            std::atomic<pid_t> number{0};
            std::atomic<bool> isOver{false};
            TFunctionThread thread([&] {
                number = ::gettid();
                try {
                    receive();
                } catch (const EShutdown&) { // a catch of this class must not take a cancellation
                    isOver = true;
                }
            });
            thread.Start();
            EXPECT_TRUE(FallsAsleep(number));
            for (int tries = 0; isSignal && !isOver && tries < 5000;
                 ++tries, TThreadInstance::Sleep(0.001)) // a signal may come between two calls
                (void)::pthread_kill(thread.GetId(), SIGUSR1);
            if (!isSignal)
                thread.Cancel();
            EXPECT_EQ(thread.WaitFor(), isSignal ? 0 : -1);
            EXPECT_EQ(isOver, isSignal);
        }
        EXPECT_EQ(WhileBlocked([&] { return receive(), 1; }, [&] { connection.Server.Send("x", 1); }), 1);
    }
}

TEST_P(SocketTransfer, SendWithALimitDeliversAllToASlowReader) {
    const std::string sent = Pattern(4 << 20);
    std::string received;
    TConnection connection(Domain);
    TFunctionThread reader([&] {
        char piece[70000];
        while (received.size() < sent.size())
            received.append(piece, static_cast<std::size_t>(connection.Server.Receive(piece, sizeof piece)));
    });
    reader.Start();
    connection.Client.SetSendTimeout(Soon);
    EXPECT_EQ(connection.Client.Send(sent.data(), static_cast<unsigned>(sent.size())), static_cast<int>(sent.size()));
    (void)reader.WaitFor();
    EXPECT_TRUE(received == sent);
}

TEST_P(SocketTransfer, SendToASilentPeerTimesOutWithoutSpinning) {
    TConnection connection(Domain);
    FillUp(connection.Client);
    if (Domain == "inet") { // input out of band ends every wait for writing at once
        ASSERT_EQ(::send(connection.Server.GetDescriptor(), "!", 1, MSG_OOB), 1);
    }
    TRecorder client(connection.Client);
    client.SetSendTimeout(0.2);
    ExpectWait(0.2, [&] { EXPECT_KEST_THROW(SendTooMuch(client), ETimeout, Timeout); });
    EXPECT_LE(client.Waits, FewWaits);
}

TEST_P(SocketTransfer, LimitThatNeverFitsCutsOffOnlyWhatWouldBlock) {
    for (const double limit : {-1.0, std::nan("")}) {
        TConnection connection(Domain);
        connection.Client.SetSendTimeout(limit);
        connection.Client.SetReceiveTimeout(limit);
        EXPECT_EQ(connection.Client.Send("x", 1), 1);
        EXPECT_KEST_THROW(SendTooMuch(connection.Client), ETimeout, Timeout);
        EXPECT_KEST_THROW(connection.Client.Receive(&Byte, 1), ENotConnected, NotConnected);
    }
}

TEST_P(SocketTransfer, AcceptWaitsAsLongAsTheLimitSaysAndLeavesTheAddressAloneWhenItFails) {
    TListener listener(Domain);
    TAddress peer(Domain, "127.0.0.1:9", false);
    listener.Socket.SetReceiveTimeout(0.05);
    ExpectWait(0.05, [&] { EXPECT_KEST_THROW(listener.Socket.Accept(peer), ETimeout, Timeout); });
    listener.Socket.SetBlocking(false);
    EXPECT_KEST_THROW(listener.Socket.Accept(peer), EWouldBlock, WouldBlock);
    EXPECT_EQ(peer.Get(false), "127.0.0.1:9");

    TSocket client(StreamOf(Domain));
    client.Connect(listener.Address);
    TSocket accepted = listener.Socket.Accept(peer);
    EXPECT_EQ(accepted.SetReceiveTimeout(0.0), 0.0) << "limits and mode are not inherited";
    EXPECT_TRUE(IsInBlockingMode(accepted));
}

TEST_P(SocketTransfer, BothEndsTellTheirAddresses) {
    TConnection connection(Domain);
    TAddress own(Domain), peer(Domain, "127.0.0.1:9", false);
    EXPECT_KEST_THROW(connection.Listener.Socket.GetPeerAddress(peer), ENotConnected, NotConnected);
    EXPECT_EQ(peer.Get(false), "127.0.0.1:9");
    connection.Server.GetLocalAddress(own);
    connection.Client.GetPeerAddress(peer);
    EXPECT_EQ(own.Get(false), connection.Listener.Address.Get(false));
    EXPECT_EQ(peer.Get(false), connection.Listener.Address.Get(false));
}

TEST_P(SocketTransfer, TimedConnectSucceedsOnceAFullListenerMakesRoom) {
    TFullListener listener(Domain);
    TSocket client(StreamOf(Domain));
    client.SetSendTimeout(Soon);
    const auto makeRoom = [&] {
        TAddress peer(Domain);
        for (std::size_t i = 0; i < listener.Clients.size(); ++i)
            (void)listener.Socket.Accept(peer);
    };
    EXPECT_EQ(WhileBlocked([&] { client.Connect(listener.Address); }, makeRoom), 0);
    EXPECT_EQ(client.Send("x", 1), 1);
}

TEST_P(SocketTransfer, WaitsTakeEveryLimit) {
    TConnection connection(Domain);
    TSocket& socket = connection.Client;
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const double refused : {-1.0, -0.5, std::nan(""), -infinity}) {
        EXPECT_KEST_THROW(socket.SelectRead(refused), ENotConnected, NotConnected);
        EXPECT_KEST_THROW(socket.SelectWrite(refused), ENotConnected, NotConnected);
    }
    for (const int none : {-1, std::numeric_limits<int>::max()}) // no set can hold it
        EXPECT_KEST_THROW(TSocket(none, 0).SelectRead(1.0), EException, Described("", EBADF));
    for (const double limit : {1e-9, 0.05}) {
        ExpectWait(limit - 1e-6, [&] { EXPECT_FALSE(socket.SelectRead(limit)); }); // whole microseconds count
        EXPECT_TRUE(socket.SelectWrite(limit));
    }
    for (const double endless : {0.0, 1e300, infinity}) {
        EXPECT_EQ(WhileBlocked([&] { return socket.SelectRead(endless); }, [&] { connection.Server.Send("x", 1); }), 1) << endless;
        EXPECT_EQ(socket.Receive(&Byte, 1), 1);
    }
}

TEST_P(SocketTransfer, WaitsWorkForDescriptorsBeyondTheSystemsSets) {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 5001;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    for (const int number : {0, 1023, 1024, 1500, 5000}) {
        if (number >= FD_SETSIZE && std::getenv("KEST_EMULATOR") != nullptr)
            GTEST_SKIP() << "qemu's own select ends at FD_SETSIZE";
        SCOPED_TRACE(number);
        TConnection connection(Domain);
        if (number == 0)
            (void)::close(0);
        TSocket client(::fcntl(connection.Client.GetDescriptor(), F_DUPFD, number), 0);
        ASSERT_EQ(client.GetDescriptor(), number);
        client.SetReceiveTimeout(0.01);
        EXPECT_KEST_THROW(client.Receive(&Byte, 1), ETimeout, Timeout);
        EXPECT_EQ(connection.Server.Send("x", 1), 1);
        EXPECT_TRUE(client.SelectRead(Soon));
        EXPECT_TRUE(client.SelectWrite(Soon));
        FillUp(client);
        EXPECT_FALSE(client.SelectWrite(0.01));
    }
    (void)::open("/dev/null", O_RDONLY); // number 0 is taken again
}

TEST_P(SocketTransfer, AddressOfAnotherImplementationIsRefusedBeforeAnySystemCall) {
    struct : TAnyAddress {
        std::string Get(bool) const override { return {}; }
    } foreign;
    TListener listener(Domain);
    TSocket client(StreamOf(Domain));
    client.Connect(listener.Address);
    TSocket datagrams(DatagramOf(Domain));
    datagrams.SetSendTimeout(1.0);
    datagrams.SetReceiveTimeout(0.01); // a wait would end in a time-out
    EXPECT_THROW(datagrams.Bind(foreign), std::bad_cast);
    EXPECT_THROW(datagrams.Connect(foreign), std::bad_cast);
    EXPECT_THROW(datagrams.SendTo("x", 1, foreign), std::bad_cast);
    EXPECT_THROW(datagrams.ReceiveFrom(&Byte, 1, foreign), std::bad_cast);
    EXPECT_THROW(listener.Socket.Accept(foreign), std::bad_cast);
    EXPECT_TRUE(IsInBlockingMode(datagrams));
    EXPECT_TRUE(listener.Socket.SelectRead(Soon)) << "the connection still waits";
}

TEST_P(SocketTransfer, DatagramBringsItsSendersAddress) {
    const TTemporaryDirectory directory;
    TSocket receiver(DatagramOf(Domain));
    receiver.Bind(PlaceFor(Domain, directory, "receiver"));
    const TAddress target(Domain, NameOf(receiver), false);
    TSocket sender(DatagramOf(Domain));
    sender.Bind(PlaceFor(Domain, directory, "sender of a longer name"));
    char bytes[8];
    TAddress from(Domain);
    for (const double limit : {0.0, Soon}) {
        receiver.SetReceiveTimeout(limit);
        sender.SetSendTimeout(limit);
        EXPECT_EQ(sender.SendTo("12345", 5, target), 5);
        EXPECT_EQ(receiver.ReceiveFrom(bytes, 3, from), 3);
        EXPECT_EQ(std::string(bytes, 3), "123") << "the rest of the datagram is gone";
        EXPECT_EQ(from.Get(false), NameOf(sender));
    }
    from = TAddress(Domain);
    EXPECT_KEST_THROW(sender.SendTo("", 0, target), EShutdown, Shutdown + ": when receive");
    EXPECT_KEST_THROW(receiver.ReceiveFrom(bytes, 8, from), EShutdown, Shutdown + ": when receive");
    EXPECT_EQ(from.Get(false), NameOf(sender)) << "the datagram was empty and came all the same";
    receiver.SetBlocking(false);
    EXPECT_KEST_THROW(receiver.ReceiveFrom(bytes, 8, from), EWouldBlock, WouldBlock);
    EXPECT_EQ(from.Get(false), NameOf(sender));
    if (Domain == "fs") {
        EXPECT_EQ(TSocket(DatagramOf(Domain)).SendTo("1", 1, target), 1);
        EXPECT_EQ(receiver.ReceiveFrom(bytes, 8, from), 1);
        EXPECT_EQ(from.Get(false), "") << "a sender without a name";
    }
}

TEST(SocketConnections, SendToAFullQueueTimesOutWithoutSpinning) {
    const TTemporaryDirectory directory;
    const TAddress target = PlaceFor("fs", directory);
    TSocket receiver(DatagramOf("fs"));
    receiver.Bind(target);
    TRecorder sender(DatagramOf("fs"));
    sender.SetBlocking(false);
    EXPECT_KEST_THROW(for (;;) sender.SendTo("x", 1, target), EWouldBlock, WouldBlock);
    sender.SetBlocking(true);
    sender.SetSendTimeout(0.2); // during this limit the socket counts as writable
    ExpectWait(0.2, [&] { EXPECT_KEST_THROW(sender.SendTo("x", 1, target), ETimeout, Timeout); });
    EXPECT_LE(sender.Waits, FewWaits);
}

TEST(SocketConnections, PeersAddressIsTakenWholeWhateverItsLength) {
    TListener fs("fs");
    TListener inet("inet");
    TAddress path("fs");
    TAddress port("inet");
    std::string client; // what the system calls the connecting end
    const auto accept = [&client](TListener& listener, const std::string& name, TAddress& peer) {
        const bool isInet = listener.Address.Get(false)[0] != '/';
        TSocket socket(StreamOf(isInet ? "inet" : "fs"));
        sockaddr_un bytes{AF_UNIX, {}};
        name.copy(bytes.sun_path, name.size());
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_TRUE(name.empty() || ::bind(socket.GetDescriptor(), reinterpret_cast<sockaddr*>(&bytes), length) == 0);
        socket.Connect(listener.Address);
        client = isInet ? NameOf(socket) : "";
        const TSocket accepted = listener.Socket.Accept(peer);
        for (const auto& [end, ask] : {std::pair(&accepted, &TSocket::GetPeerAddress), {&socket, &TSocket::GetLocalAddress}}) {
            TAddress told(peer);
            (end->*ask)(told);
            EXPECT_EQ(told.Get(false), peer.Get(false));
        }
        return TAddress(peer).Get(false);
    };
    // A path of 108 characters fills the system's structure and has no terminator there. None comes after it, in the same object.
    for (const std::size_t length : {107U, 108U, 0U}) {
        const std::string name = length == 0 ? "" : fs.Directory / std::string(length - fs.Directory.GetPath().size() - 1, 'n');
        EXPECT_EQ(accept(fs, name, path), name);
    }
    // The domain of the object decides how the bytes are read, and it stays what it was.
    EXPECT_EQ(accept(fs, "", port), "0.0.0.0:0");
    EXPECT_EQ(accept(fs, std::string("\0PABCD", 6), port), "65.66.67.68:80"); // a name outside the file system is taken byte for byte
    EXPECT_EQ(accept(inet, "", port), client);
    const std::string text = accept(inet, "", path);
    const int number = std::stoi(client.substr(sizeof "127.0.0.1"));
    const std::string expected{static_cast<char>(number >> 8), static_cast<char>(number), 127}; // and the zeroes of the host
    EXPECT_EQ(text, expected.c_str());
}

TEST(SocketConnections, SelectWriteIsFalseWhileThereIsInputOutOfBand) {
    TConnection connection("inet");
    ASSERT_EQ(::send(connection.Server.GetDescriptor(), "!", 1, MSG_OOB), 1);
    EXPECT_TRUE(connection.Client.SelectRead(Soon));
    EXPECT_FALSE(connection.Client.SelectWrite(Soon));
    ASSERT_EQ(connection.Server.Send("x", 1), 1);
    EXPECT_TRUE(connection.Client.SelectRead(Soon)) << "in both sets, which is as good";
}

} // namespace
