#include <kest/net/socket.h>

#include <support/descriptors.h>
#include <support/helper_thread.h>
#include <support/message.h>
#include <support/sockets.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <memory>
#include <typeinfo>
#include <vector>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

using TAddress = TSocket::TAddress;

const std::string WouldBlock = "Kest: socket IO error: non-blocking socket would block";
const std::string NotConnected = "Kest: socket IO error: socket not connected";
const std::string Abort = "Kest: socket IO error: socket connection aborted";
const std::string Timeout = Abort + ": socket connection timeout";
const std::string Reset = Abort + ": socket connection was reset by remote side";
const std::string NothingReceived = Abort + ": socket connection was shutdown'ed: when receive";
const std::string Interrupted = Abort + ": socket connection was shutdown'ed: interrupted system call";

/// The longest that anything timed here takes, the steps of a second that timed operations make included.
constexpr double Soon = 8.0;

/// A socket that records how its mode is switched: B for blocking, N for non-blocking.
class TModeRecorder : public TSocket {
public:
    using TSocket::TSocket;
    void SetBlocking(bool blocking) override {
        TSocket::SetBlocking(blocking);
        Modes += blocking ? 'B' : 'N';
    }
    std::string Modes;
};

std::string ReceiveAll(TSocket& socket, std::size_t size, unsigned piece) {
    std::string result;
    std::string buffer(piece, '\0');
    while (result.size() < size)
        result.append(buffer, 0, static_cast<std::size_t>(socket.Receive(buffer.data(), piece)));
    return result;
}

/// What holds for connections of every family.
class SocketTransfer : public testing::TestWithParam<const char*> {
protected:
    const std::string Domain = GetParam();
    char Byte = 0;
};

INSTANTIATE_TEST_SUITE_P(Families, SocketTransfer, testing::Values("inet", "fs"),
                         [](const auto& param) { return std::string(param.param); });

TEST_P(SocketTransfer, BindAndListenSayWhatFailed) {
    const TListener listener(Domain);
    TSocket other(StreamOf(Domain));
    EXPECT_KEST_THROW(other.Bind(listener.Address), EException, "Kest: socket bind failed: " + listener.Address.Get(true));
    EXPECT_KEST_THROW(TSocket(DatagramOf(Domain)).Listen(0), EException, "Kest: socket listen failed");
}

TEST_P(SocketTransfer, ReceiveTellsCloseResetTimeOutAndWouldBlockApart) {
    {
        TConnection connection(Domain);
        EXPECT_EQ(connection.Server.Send("ab", 2), 2);
        { const TSocket closed(connection.Server); }
        char bytes[8];
        EXPECT_EQ(connection.Client.Receive(bytes, sizeof bytes), 2);
        EXPECT_KEST_THROW(connection.Client.Receive(bytes, sizeof bytes), EShutdown, NothingReceived);
    }
    {
        TListener listener(Domain);
        TSocket client(StreamOf(Domain));
        client.Connect(listener.Address);
        const int server = ::accept(listener.Socket.GetDescriptor(), nullptr, nullptr);
        EXPECT_EQ(client.Send("unread", 6), 6);
        pollfd readable{server, POLLIN, 0};
        EXPECT_EQ(::poll(&readable, 1, 1000), 1);
        (void)::close(server); // at once, not shut down first: with input unread that is a reset
        EXPECT_KEST_THROW(client.Receive(&Byte, 1), EReset, Reset);
    }
    TConnection connection(Domain);
    connection.Client.SetReceiveTimeout(0.05);
    const TCost limited = CostOf([&] { EXPECT_KEST_THROW(connection.Client.Receive(&Byte, 1), ETimeout, Timeout); });
    EXPECT_GE(limited.Elapsed, 0.05);
    EXPECT_LT(limited.Elapsed, Soon);
    connection.Client.SetBlocking(false);
    connection.Client.SetReceiveTimeout(Soon);
    const TCost atOnce = CostOf([&] { EXPECT_KEST_THROW(connection.Client.Receive(&Byte, 1), EWouldBlock, WouldBlock); });
    EXPECT_LT(atOnce.Elapsed, Soon);
}

TEST_P(SocketTransfer, TransferOfZeroBytesCountsAsShutdown) {
    TConnection connection(Domain);
    EXPECT_EQ(connection.Server.Send("x", 1), 1);
    EXPECT_KEST_THROW(connection.Client.Receive(&Byte, 0), EShutdown, NothingReceived);
    for (const double limit : {0.0, 1.0}) {
        connection.Client.SetSendTimeout(limit);
        EXPECT_KEST_THROW(connection.Client.Send(&Byte, 0), EShutdown, NothingReceived);
    }
    EXPECT_EQ(connection.Client.Receive(&Byte, 1), 1);
}

TEST_P(SocketTransfer, SendWithALimitDeliversAllToASlowReader) {
    const std::string sent = Pattern(4 << 20);
    TConnection connection(Domain);
    std::string received;
    TFunctionThread reader([&] { received = ReceiveAll(connection.Server, sent.size(), 70000); });
    reader.Start();
    connection.Client.SetSendTimeout(Soon);
    EXPECT_EQ(connection.Client.Send(sent.data(), static_cast<unsigned>(sent.size())), static_cast<int>(sent.size()));
    (void)reader.WaitFor();
    EXPECT_TRUE(received == sent);
}

TEST_P(SocketTransfer, SendOfANonBlockingSocketIsOneCallWhateverTheLimit) {
    for (const double limit : {0.0, Soon}) {
        TConnection connection(Domain);
        connection.Client.SetBlocking(false);
        connection.Client.SetSendTimeout(limit);
        const int part = SendTooMuch(connection.Client);
        EXPECT_GT(part, 0);
        EXPECT_LT(part, static_cast<int>(TooMuch().size()));
        EXPECT_KEST_THROW(for (;;) SendTooMuch(connection.Client), EWouldBlock, WouldBlock);
    }
}

TEST_P(SocketTransfer, SendToASilentPeerTimesOutAndUsesNoProcessorTime) {
    TConnection connection(Domain);
    FillUp(connection.Client);
    if (Domain == "inet") { // input out of band ends every wait for writing at once
        ASSERT_EQ(::send(connection.Server.GetDescriptor(), "!", 1, MSG_OOB), 1);
    }
    connection.Client.SetSendTimeout(0.2);
    const TCost cost = CostOf([&] { EXPECT_KEST_THROW(SendTooMuch(connection.Client), ETimeout, Timeout); });
    EXPECT_GE(cost.Elapsed, 0.2);
    EXPECT_LT(cost.Elapsed, Soon);
    EXPECT_LT(cost.Processor, cost.Elapsed / 3);
}

TEST_P(SocketTransfer, LimitThatNeverFitsCutsOffOnlyWhatWouldBlock) {
    for (const double limit : {-1.0, std::nan("")}) {
        TConnection connection(Domain);
        connection.Client.SetSendTimeout(limit);
        EXPECT_EQ(connection.Client.Send("x", 1), 1);
        const TCost cost = CostOf([&] { EXPECT_KEST_THROW(SendTooMuch(connection.Client), ETimeout, Timeout); });
        EXPECT_LT(cost.Elapsed, 1.0) << "no wait is made";
        connection.Client.SetReceiveTimeout(limit);
        EXPECT_KEST_THROW(connection.Client.Receive(&Byte, 1), ENotConnected, NotConnected);
    }
}

TEST_P(SocketTransfer, AcceptWaitsAsLongAsTheLimitSays) {
    TListener listener(Domain);
    TAddress peer(Domain, "127.0.0.1:9", false);
    const std::string before = peer.Get(false);
    listener.Socket.SetReceiveTimeout(0.05);
    const TCost cost = CostOf([&] { EXPECT_KEST_THROW(listener.Socket.Accept(peer), ETimeout, Timeout); });
    EXPECT_GE(cost.Elapsed, 0.05);
    EXPECT_LT(cost.Elapsed, Soon);
    listener.Socket.SetBlocking(false);
    EXPECT_KEST_THROW(listener.Socket.Accept(peer), EWouldBlock, WouldBlock);
    EXPECT_EQ(peer.Get(false), before) << "a failed call leaves the address alone";
}

TEST_P(SocketTransfer, AcceptedSocketIsBlockingWithoutLimitsWhateverTheListenerIs) {
    TListener listener(Domain);
    listener.Socket.SetReceiveTimeout(Soon);
    listener.Socket.SetSendTimeout(Soon);
    TSocket client(StreamOf(Domain));
    client.Connect(listener.Address);
    listener.Socket.SetBlocking(false);
    TAddress peer(Domain);
    TSocket accepted = listener.Socket.Accept(peer);
    EXPECT_TRUE(IsInBlockingMode(accepted));
    EXPECT_EQ(accepted.SetReceiveTimeout(0.05), 0.0);
    EXPECT_EQ(accepted.SetSendTimeout(0.0), 0.0);
    EXPECT_KEST_THROW(accepted.Receive(&Byte, 1), ETimeout, Timeout);
}

TEST_P(SocketTransfer, TimedConnectEndsInBlockingModeOnEveryWayOut) {
    const auto listener = std::make_unique<TListener>(Domain);
    TModeRecorder client(StreamOf(Domain));
    client.SetSendTimeout(Soon);
    client.Connect(listener->Address);
    EXPECT_EQ(client.Modes, "NB");
    EXPECT_TRUE(IsInBlockingMode(client));

    const TAddress nobody = std::make_unique<TListener>(Domain)->Address;
    TModeRecorder refused(StreamOf(Domain));
    refused.SetSendTimeout(Soon);
    EXPECT_KEST_THROW(refused.Connect(nobody), EException, SystemMessage(Domain == "inet" ? ECONNREFUSED : ENOENT));
    EXPECT_EQ(refused.Modes, "NB");
    EXPECT_TRUE(IsInBlockingMode(refused));

    Break(refused);
    EXPECT_KEST_THROW(refused.Connect(nobody), EException, "Kest: socket blocking setup failure");
}

TEST_P(SocketTransfer, TimedConnectToAFullListenerTimesOutAndUsesNoProcessorTime) {
    const TFullListener listener(Domain);
    TModeRecorder client(StreamOf(Domain));
    client.SetSendTimeout(0.2);
    const TCost cost = CostOf([&] { EXPECT_KEST_THROW(client.Connect(listener.Address), ETimeout, Timeout); });
    EXPECT_GE(cost.Elapsed, 0.2);
    EXPECT_LT(cost.Elapsed, Soon);
    EXPECT_LT(cost.Processor, cost.Elapsed / 3);
    EXPECT_EQ(client.Modes, "NB");
    EXPECT_TRUE(IsInBlockingMode(client));

    TSocket impatient(StreamOf(Domain));
    impatient.SetBlocking(false);
    EXPECT_KEST_THROW(impatient.Connect(listener.Address), EWouldBlock, WouldBlock);
}

TEST_P(SocketTransfer, TimedConnectSucceedsOnceAFullListenerMakesRoom) {
    TFullListener listener(Domain);
    TBlockingPoint point;
    TModeRecorder client(StreamOf(Domain));
    TFunctionThread connecting([&] {
        client.SetSendTimeout(Soon);
        point.Enter();
        client.Connect(listener.Address);
    });
    connecting.Start();
    EXPECT_TRUE(point.WaitUntilBlocked());
    TAddress peer(Domain);
    for (int i = 0; i < 2; ++i)
        (void)listener.Socket.Accept(peer);
    EXPECT_EQ(connecting.WaitFor(), 0);
    EXPECT_EQ(client.Modes, "NB");
    EXPECT_EQ(client.Send("x", 1), 1);
}

TEST_P(SocketTransfer, WaitsTakeEveryLimit) {
    TConnection connection(Domain);
    TSocket& socket = connection.Client;
    for (const double refused : {-1.0, -0.5, std::nan(""), -std::numeric_limits<double>::infinity()}) {
        EXPECT_KEST_THROW(socket.SelectRead(refused), ENotConnected, NotConnected);
        EXPECT_KEST_THROW(socket.SelectWrite(refused), ENotConnected, NotConnected);
    }
    for (const double limit : {1e-9, 0.05}) {
        const TCost cost = CostOf([&] { EXPECT_FALSE(socket.SelectRead(limit)); });
        EXPECT_GE(cost.Elapsed, limit - 1e-6); // of which whole microseconds count
        EXPECT_LT(cost.Elapsed, Soon);
        EXPECT_TRUE(socket.SelectWrite(limit));
    }
    for (const double huge : {0.0, 1e300, std::numeric_limits<double>::infinity()}) {
        TBlockingPoint point;
        bool readable = false;
        TFunctionThread waiting([&] {
            point.Enter();
            readable = socket.SelectRead(huge);
        });
        waiting.Start();
        EXPECT_TRUE(point.WaitUntilBlocked()) << huge;
        EXPECT_EQ(connection.Server.Send("x", 1), 1);
        EXPECT_EQ(waiting.WaitFor(), 0);
        EXPECT_TRUE(readable);
        EXPECT_EQ(socket.Receive(&Byte, 1), 1);
    }
    FillUp(socket);
    EXPECT_FALSE(socket.SelectWrite(0.01));
}

TEST_P(SocketTransfer, WaitsWorkForDescriptorsBeyondTheSystemsSets) {
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    ASSERT_GT(usual.rlim_max, 5000u);
    const rlimit many{5001, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &many), 0);
    for (const int number : {1023, 1024, 1500, 5000}) {
        SCOPED_TRACE(number);
        TListener listener(Domain);
        const int low = ::socket(Domain == "inet" ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
        TSocket client(::fcntl(low, F_DUPFD, number), AF_INET);
        (void)::close(low);
        ASSERT_EQ(client.GetDescriptor(), number);
        client.SetReceiveTimeout(0.01);
        client.SetSendTimeout(0.01);
        client.Connect(listener.Address);
        TAddress peer(Domain);
        TSocket server = listener.Socket.Accept(peer);
        EXPECT_FALSE(client.SelectRead(0.01));
        EXPECT_KEST_THROW(client.Receive(&Byte, 1), ETimeout, Timeout);
        EXPECT_TRUE(client.SelectWrite(0.01));
        EXPECT_EQ(server.Send("x", 1), 1);
        EXPECT_TRUE(client.SelectRead(Soon));
        EXPECT_EQ(client.Receive(&Byte, 1), 1);
        FillUp(client);
        EXPECT_FALSE(client.SelectWrite(0.01));
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
}

TEST_P(SocketTransfer, AddressOfAnotherImplementationIsRefusedBeforeAnySystemCall) {
    struct TForeign : TAnyAddress {
        std::string Get(bool) const override { return {}; }
    } foreign;
    TListener listener(Domain);
    TSocket client(StreamOf(Domain));
    client.Connect(listener.Address);
    TModeRecorder datagrams(DatagramOf(Domain));
    datagrams.SetSendTimeout(1.0);
    datagrams.SetReceiveTimeout(0.01); // a wait for it would be a time-out
    EXPECT_THROW(datagrams.Bind(foreign), std::bad_cast);
    EXPECT_THROW(datagrams.Connect(foreign), std::bad_cast);
    EXPECT_THROW(datagrams.SendTo("x", 1, foreign), std::bad_cast);
    EXPECT_THROW(datagrams.ReceiveFrom(&Byte, 1, foreign), std::bad_cast);
    EXPECT_THROW(listener.Socket.Accept(foreign), std::bad_cast);
    EXPECT_EQ(datagrams.Modes, "");
    EXPECT_TRUE(listener.Socket.SelectRead(Soon)) << "the connection still waits";
}

TEST_P(SocketTransfer, SignalEndsAWaitAsShutdown) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction usual {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &usual), 0);
    const TFullListener full(Domain);
    TListener listener(Domain);
    TConnection connection(Domain);
    TModeRecorder connecting(StreamOf(Domain));
    connecting.SetSendTimeout(Soon);
    TAddress peer(Domain);
    const std::function<void()> cases[] = {
        [&] { connection.Client.Receive(&Byte, 1); },
        [&] { connection.Client.SetSendTimeout(Soon), SendTooMuch(connection.Client); },
        [&] { listener.Socket.Accept(peer); },
        [&] { connecting.Connect(full.Address); },
    };
    for (const auto& each : cases) {
        if (Domain == "fs" && &each == cases + 3)
            continue; // it pauses between its attempts most of the time, and a pause may end early
        TBlockingPoint point;
        TFunctionThread thread([&] {
            point.Enter();
            EXPECT_KEST_THROW(each(), EShutdown, Interrupted) << &each - cases;
        });
        thread.Start();
        EXPECT_TRUE(point.WaitUntilBlocked());
        EXPECT_EQ(::pthread_kill(thread.GetId(), SIGUSR1), 0);
        EXPECT_EQ(thread.WaitFor(), 0);
    }
    EXPECT_EQ(connecting.Modes, Domain == "fs" ? "" : "NB");
    EXPECT_EQ(::sigaction(SIGUSR1, &usual, nullptr), 0);
}

TEST_P(SocketTransfer, CancelledThreadUnwindsOutOfEveryBlockingCallAndLeavesNothingOpen) {
    const TFullListener full(Domain);
    TBlockingPoint* point = nullptr;
    TAddress peer(Domain);
    const auto sending = [&](double limit) {
        TConnection own(Domain);
        own.Client.SetSendTimeout(limit);
        point->Enter();
        SendTooMuch(own.Client);
    };
    const auto receiving = [&](double limit) {
        TConnection own(Domain);
        own.Client.SetReceiveTimeout(limit);
        point->Enter();
        own.Client.Receive(&Byte, 1);
    };
    const auto accepting = [&](double limit) {
        TListener own(Domain);
        own.Socket.SetReceiveTimeout(limit);
        point->Enter();
        own.Socket.Accept(peer);
    };
    const std::function<void()> cases[] = {
        [&] { sending(0.0); },
        [&] { sending(Patience.count()); },
        [&] { receiving(0.0); },
        [&] { receiving(Patience.count()); },
        [&] { accepting(0.0); },
        [&] { accepting(Patience.count()); },
        [&] {
            TConnection own(Domain);
            point->Enter();
            own.Client.SelectRead(0.0);
        },
        [&] {
            TSocket own(DatagramOf(Domain));
            own.Bind(PlaceFor(Domain, full.Directory, "datagrams"));
            point->Enter();
            own.ReceiveFrom(&Byte, 1, peer);
        },
    };
    const int before = OpenDescriptors();
    for (const auto& each : cases) {
        SCOPED_TRACE(&each - cases);
        TBlockingPoint mine;
        point = &mine;
        TFunctionThread thread([&] { each(); });
        thread.Start();
        EXPECT_TRUE(mine.WaitUntilBlocked());
        thread.Cancel();
        EXPECT_EQ(thread.WaitFor(), -1);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

TEST_P(SocketTransfer, CancelledConnectLeavesTheSocketBlocking) {
    const TFullListener full(Domain);
    TModeRecorder client(StreamOf(Domain));
    client.SetSendTimeout(static_cast<double>(Patience.count()));
    TBlockingPoint point;
    TFunctionThread thread([&] {
        point.Enter();
        client.Connect(full.Address);
    });
    thread.Start();
    EXPECT_TRUE(point.WaitUntilBlocked());
    thread.Cancel();
    EXPECT_EQ(thread.WaitFor(), -1);
    EXPECT_EQ(client.Modes, "NB");
    EXPECT_TRUE(IsInBlockingMode(client));
}

TEST(SocketDatagrams, BringTheirSendersAddress) {
    for (const std::string domain : {"inet", "fs"}) {
        SCOPED_TRACE(domain);
        const TTemporaryDirectory directory;
        TSocket receiver(DatagramOf(domain));
        receiver.Bind(PlaceFor(domain, directory, "receiver"));
        const TAddress target(domain, NameOf(receiver), false);
        TSocket sender(DatagramOf(domain));
        sender.Bind(PlaceFor(domain, directory, "sender of a longer name"));
        char bytes[8];
        TAddress from(domain);
        for (const double limit : {0.0, 1.0}) {
            receiver.SetReceiveTimeout(limit);
            sender.SetSendTimeout(limit);
            EXPECT_EQ(sender.SendTo("12345", 5, target), 5);
            EXPECT_EQ(receiver.ReceiveFrom(bytes, 3, from), 3);
            EXPECT_EQ(std::string(bytes, 3), "123") << "the rest of the datagram is gone";
            EXPECT_EQ(from.Get(false), NameOf(sender));
        }
        from = TAddress(domain);
        EXPECT_EQ(::sendto(sender.GetDescriptor(), "", 0, 0, nullptr, 0), -1); // not connected: the next one has to say where to
        sender.Connect(target);
        EXPECT_EQ(::send(sender.GetDescriptor(), "", 0, 0), 0);
        EXPECT_KEST_THROW(receiver.ReceiveFrom(bytes, 8, from), EShutdown, NothingReceived);
        EXPECT_EQ(from.Get(false), NameOf(sender));
        receiver.SetReceiveTimeout(0.01);
        EXPECT_KEST_THROW(receiver.ReceiveFrom(bytes, 8, from), ETimeout, Timeout);
        EXPECT_EQ(from.Get(false), NameOf(sender));
    }
}

TEST(SocketDatagrams, SendToAFullQueueTimesOutAndUsesNoProcessorTime) {
    const TTemporaryDirectory directory;
    const TAddress target = PlaceFor("fs", directory);
    TSocket receiver(DatagramOf("fs"));
    receiver.Bind(target);
    TSocket sender(DatagramOf("fs"));
    sender.SetBlocking(false);
    EXPECT_KEST_THROW(for (;;) sender.SendTo("x", 1, target), EWouldBlock, WouldBlock);
    sender.SetBlocking(true);
    sender.SetSendTimeout(0.1);
    const TCost cost = CostOf([&] { EXPECT_KEST_THROW(sender.SendTo("x", 1, target), ETimeout, Timeout); });
    EXPECT_GE(cost.Elapsed, 0.1);
    EXPECT_LT(cost.Elapsed, Soon);
    EXPECT_LT(cost.Processor, cost.Elapsed / 3) << "the socket counts as writable all the time";
}

TEST(SocketConnections, PeersAddressIsTakenWholeWhateverItsLength) {
    TListener fs("fs");
    TListener inet("inet");
    TAddress path("fs");
    TAddress port("inet");
    const auto accept = [](TListener& listener, TSocket& client, TAddress& peer) {
        client.Connect(listener.Address);
        (void)listener.Socket.Accept(peer);
        return peer.Get(false);
    };
    // A path of 108 characters fills the system's structure and has no terminator there.
    for (const std::size_t length : {std::size_t{107}, std::size_t{108}}) {
        const std::string name = fs.Directory / std::string(length - fs.Directory.GetPath().size() - 1, 'n');
        sockaddr_un bound{};
        bound.sun_family = AF_UNIX;
        name.copy(bound.sun_path, name.size());
        TSocket client(StreamOf("fs"));
        ASSERT_EQ(::bind(client.GetDescriptor(), reinterpret_cast<sockaddr*>(&bound), sizeof bound), 0);
        EXPECT_EQ(accept(fs, client, path), name);
        const TAddress copy(path);
        EXPECT_EQ(copy.Get(true), name);
    }
    TSocket nameless(StreamOf("fs"));
    EXPECT_EQ(accept(fs, nameless, path), "") << "the same object, after a longer one";

    // The domain of the object decides how the bytes are read, and it stays what it was.
    TSocket named(StreamOf("fs"));
    named.Bind(PlaceFor("fs", fs.Directory, "named"));
    const std::string bytes = NameOf(named);
    const auto at = [&](std::size_t place) { return static_cast<int>(static_cast<unsigned char>(bytes[place])); };
    EXPECT_EQ(accept(fs, named, port), std::to_string(at(2)) + '.' + std::to_string(at(3)) + '.' + std::to_string(at(4)) + '.' +
                                           std::to_string(at(5)) + ':' + std::to_string(at(0) * 256 + at(1)));
    TSocket alsoNameless(StreamOf("fs"));
    EXPECT_EQ(accept(fs, alsoNameless, port), "0.0.0.0:0");

    TSocket client(StreamOf("inet"));
    const std::string peer = accept(inet, client, port);
    EXPECT_EQ(peer, NameOf(client));
    TSocket other(StreamOf("inet"));
    const std::string text = accept(inet, other, path);
    const int portOfOther = std::stoi(NameOf(other).substr(10));
    const std::string expected{static_cast<char>(portOfOther >> 8), static_cast<char>(portOfOther), 127};
    EXPECT_EQ(text, expected.substr(0, std::min(expected.find('\0'), expected.size())));
}

TEST(SocketConnections, BindFailureForAnAddressWithoutANameIsABadAddress) {
    TSocket first(DatagramOf("inet"));
    first.Bind(TAddress("inet", "255.255.255.255:0", false)); // nothing is ever sent through it
    const TAddress taken("inet", NameOf(first), false);
    EXPECT_KEST_THROW(TSocket(DatagramOf("inet")).Bind(taken), EBadAddress, "Kest: bad socket address");
    const std::string path(300, 'p');
    EXPECT_KEST_THROW(TSocket(StreamOf("fs")).Bind(TAddress("fs", path, false)), EException, "Kest: socket bind failed: " + path);
}

TEST(SocketConnections, ListenOfZeroAsksForAQueueOf128) {
    for (const unsigned backlog : {0u, 5u}) {
        const TListener listener("inet", backlog);
        EXPECT_EQ(OptionOf<tcp_info>(listener.Socket, IPPROTO_TCP, TCP_INFO).tcpi_sacked, backlog == 0 ? 128u : backlog);
    }
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
