#include <kest/net/socket.h>

#include <support/descriptors.h>
#include <support/message.h>
#include <support/sockets.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include <netinet/in.h>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

const std::string PeerClosed = "Kest: socket IO error: socket connection aborted: socket connection was shutdown'ed: when receive";

/// Whether the object takes its socket for a blocking one. The socket itself is made non-blocking, so that neither answer waits long.
bool BelievesInBlocking(TSocket& socket) {
    (void)::fcntl(socket.GetDescriptor(), F_SETFL, O_NONBLOCK);
    socket.SetReceiveTimeout(0.001);
    char byte;
    try {
        socket.Receive(&byte, 1);
    } catch (const ETimeout&) {
        return true;
    } catch (const EWouldBlock&) {
    }
    return false;
}

TEST(SocketLifecycle, NewSocketIsWhatItsDescriptionSays) {
    const struct {
        TSocket::TProtocolInfo Info;
        int Domain, Type, Protocol;
    } cases[] = {
        {{"inet", TSocket::Stream, "tcp"}, AF_INET, SOCK_STREAM, IPPROTO_TCP},
        {{"inet", TSocket::Datagram, "udp"}, AF_INET, SOCK_DGRAM, IPPROTO_UDP},
        {{"fs", TSocket::SequencedPacket, "ip"}, AF_UNIX, SOCK_SEQPACKET, 0},
    };
    for (const auto& each : cases) {
        TSocket socket(each.Info);
        EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_DOMAIN), each.Domain);
        EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_TYPE), each.Type);
        EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_PROTOCOL), each.Protocol);
        EXPECT_TRUE(IsInBlockingMode(socket));
        EXPECT_EQ(socket.SetReceiveTimeout(2.5), 0.0);
        EXPECT_EQ(socket.SetReceiveTimeout(0.0), 2.5);
        EXPECT_EQ(socket.SetSendTimeout(3.5), 0.0);
        EXPECT_EQ(socket.SetSendTimeout(0.0), 3.5);
    }
}

TEST(SocketLifecycle, UnknownDomainIsReportedBeforeProtocolAndTypeAndLeavesNoDescriptor) {
    const auto noType = static_cast<TSocket::TType>(5);
    const int before = OpenDescriptors();
    EXPECT_KEST_THROW(TSocket({"ip", noType, "none"}), EUnsupportedDomain, "Kest: unsupported socket domain (address family): ip");
    EXPECT_KEST_THROW(TSocket({"inet", noType, "none"}), EUnsupportedProtocol, "Kest: unsupported socket protocol");
    EXPECT_KEST_THROW(TSocket({"inet", noType, "tcp"}), EUnsupportedType, "Kest: unsupported socket type");
    EXPECT_KEST_THROW(TSocket({"fs", TSocket::Stream, "tcp"}), EException, "Kest: socket creation error");
    EXPECT_EQ(OpenDescriptors(), before);
    const TSocket socket(StreamOf("inet"));
    EXPECT_EQ(OpenDescriptors(), before + 1);
}

TEST(SocketLifecycle, TypesHaveTheNumbersOfTheSystem) {
    for (int type = 0; type < 5; ++type)
        EXPECT_EQ(TSocket::MapType(static_cast<TSocket::TType>(type)), type + 1);
    for (const int type : {-1, 5, 6, 1000})
        EXPECT_KEST_THROW(TSocket::MapType(static_cast<TSocket::TType>(type)), EUnsupportedType, "Kest: unsupported socket type");
}

TEST(SocketOwnership, FirstCopyOfAnAcceptedSocketTakesItsDescriptor) {
    TListener listener("fs");
    TSocket client(StreamOf("fs"));
    client.Connect(listener.Address);
    TSocket::TAddress peer("fs");
    const int before = OpenDescriptors();
    {
        const TSocket accepted = listener.Socket.Accept(peer);
        EXPECT_EQ(OpenDescriptors(), before + 1);
        {
            TSocket first(accepted);
            EXPECT_EQ(first.GetDescriptor(), accepted.GetDescriptor());
            EXPECT_EQ(OpenDescriptors(), before + 1);
            const TSocket second(accepted); // the mark went with the first copy
            EXPECT_NE(second.GetDescriptor(), accepted.GetDescriptor());
            const TSocket third(first);
            EXPECT_EQ(OpenDescriptors(), before + 3);
        }
        EXPECT_EQ(OpenDescriptors(), before);
        // The number is free: that it is another socket's now shows whether the object copied from closes it all the same.
        const TSocket other(StreamOf("fs"));
        EXPECT_EQ(other.GetDescriptor(), accepted.GetDescriptor());
    }
}

TEST(SocketOwnership, SocketCopiedFromStaysUsableAndClosesNothing) {
    TListener listener("fs");
    TSocket client(StreamOf("fs"));
    client.Connect(listener.Address);
    TSocket::TAddress peer("fs");
    auto accepted = std::unique_ptr<TSocket>(new TSocket(listener.Socket.Accept(peer)));
    TSocket taker(*accepted);
    EXPECT_EQ(accepted->Send("a", 1), 1);
    accepted.reset();
    EXPECT_EQ(taker.Send("b", 1), 1);
    char bytes[3];
    EXPECT_EQ(client.Receive(bytes, 3), 2);
}

TEST(SocketOwnership, DestroyingOneOwnerEndsTheConnectionOfAllCopies) {
    TConnection connection("inet");
    char byte;
    { const TSocket copy(connection.Client); }
    EXPECT_KEST_THROW(connection.Client.Receive(&byte, 1), EShutdown, PeerClosed);
    EXPECT_KEST_THROW(connection.Server.Receive(&byte, 1), EShutdown, PeerClosed);
}

TEST(SocketOwnership, CopyHasTheLimitsAndTheModeOfItsSource) {
    for (const bool handedOver : {false, true}) {
        TConnection connection("fs");
        TSocket& source = handedOver ? connection.Server : connection.Client;
        source.SetBlocking(false);
        source.SetReceiveTimeout(1.5);
        source.SetSendTimeout(2.5);
        TSocket copy(source);
        EXPECT_EQ(copy.SetReceiveTimeout(0.0), 1.5);
        EXPECT_EQ(copy.SetSendTimeout(0.0), 2.5);
        EXPECT_FALSE(BelievesInBlocking(copy));
    }
}

TEST(SocketOwnership, AdoptedDescriptorIsTakenToBeBlockingAndTouchedByNothing) {
    TConnection connection("fs");
    const int descriptor = ::dup(connection.Client.GetDescriptor());
    (void)::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    TSocket adopted(descriptor, AF_UNIX);
    EXPECT_EQ(adopted.GetDescriptor(), descriptor);
    EXPECT_FALSE(IsInBlockingMode(adopted));
    EXPECT_EQ(adopted.SetReceiveTimeout(1.0), 0.0);
    EXPECT_EQ(adopted.SetSendTimeout(1.0), 0.0);
    EXPECT_TRUE(BelievesInBlocking(adopted));
}

TEST(SocketOwnership, FailedDuplicateIsNoObjectAndHarmsNothing) {
    const TSocket socket(StreamOf("fs"));
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_KEST_THROW(const TSocket copy(socket), EException, SystemMessage(EMFILE));
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
    const int before = OpenDescriptors();
    EXPECT_NE(TSocket(socket).GetDescriptor(), socket.GetDescriptor());
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(SocketOwnership, FailureOfCloseIsThrownUnlessAnExceptionIsOnItsWay) {
    const auto closedBehindItsBack = [](bool throwing) {
        const TSocket socket(StreamOf("fs"));
        (void)::close(socket.GetDescriptor());
        if (throwing)
            throw std::runtime_error("on its way");
    };
    EXPECT_KEST_THROW(closedBehindItsBack(false), EException, "Kest: socket closing failed");
    EXPECT_THROW(closedBehindItsBack(true), std::runtime_error);
}

TEST(SocketOptions, FlagsReachTheSystem) {
    const struct {
        void (TSocket::*Set)(bool);
        int Option;
    } cases[] = {{&TSocket::SetBroadcast, SO_BROADCAST}, {&TSocket::SetReuseAddress, SO_REUSEADDR}};
    TSocket socket(DatagramOf("inet"));
    for (const auto& each : cases)
        for (const bool on : {true, false}) {
            (socket.*each.Set)(on);
            EXPECT_EQ(OptionOf(socket, SOL_SOCKET, each.Option), on ? 1 : 0);
        }
    TSocket stream(StreamOf("inet"));
    stream.SetNoDelay(true);
    EXPECT_EQ(OptionOf(stream, IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(SocketOptions, BlockingModeIsOneFlagAmongOthers) {
    TSocket socket(StreamOf("fs"));
    (void)::fcntl(socket.GetDescriptor(), F_SETFL, O_APPEND);
    for (const bool blocking : {false, true}) {
        socket.SetBlocking(blocking);
        EXPECT_EQ(IsInBlockingMode(socket), blocking);
        EXPECT_NE(::fcntl(socket.GetDescriptor(), F_GETFL) & O_APPEND, 0);
    }
}

TEST(SocketOptions, BufferSizesAreSetAndTheOnesBeforeReturned) {
    const struct {
        unsigned (TSocket::*Set)(unsigned);
        int Option;
    } cases[] = {{&TSocket::SetSendBufferSize, SO_SNDBUF}, {&TSocket::SetReceiveBufferSize, SO_RCVBUF}};
    TSocket socket(StreamOf("inet"));
    for (const auto& each : cases) {
        const auto before = OptionOf<unsigned>(socket, SOL_SOCKET, each.Option);
        EXPECT_EQ((socket.*each.Set)(20000), before);
        EXPECT_EQ((socket.*each.Set)(10000), 40000u); // the system doubles
        EXPECT_EQ(OptionOf<unsigned>(socket, SOL_SOCKET, each.Option), 20000u);
    }
    EXPECT_KEST_THROW(socket.SetBufferSize(SO_TYPE, 1), EException, "Kest: setsockopt failed"); // can be read only
    EXPECT_KEST_THROW(socket.SetBufferSize(-1, 1), EException, "Kest: getsockopt failed");
}

TEST(SocketOptions, FailuresHaveMessagesOfTheirOwnWithoutTheReason) {
    TSocket socket(StreamOf("inet"));
    Break(socket);
    for (const bool on : {true, false}) {
        EXPECT_KEST_THROW(socket.SetBlocking(on), EException, "Kest: socket blocking setup failure");
        EXPECT_KEST_THROW(socket.SetBroadcast(on), EException, "Kest: socket broadcast setup failure");
        EXPECT_KEST_THROW(socket.SetReuseAddress(on), EException, "Kest: socket reuseaddr setup failure");
        EXPECT_NO_THROW(socket.SetNoDelay(on));
    }
    EXPECT_KEST_THROW(socket.SetSendBufferSize(1), EException, "Kest: getsockopt failed");
}

TEST(SocketOptions, FailedSwitchOfTheModeIsForgotten) {
    TConnection connection("fs");
    TSocket& socket = connection.Client;
    const int kept = ::dup(socket.GetDescriptor());
    Break(socket);
    EXPECT_KEST_THROW(socket.SetBlocking(false), EException, "Kest: socket blocking setup failure");
    (void)::dup2(kept, socket.GetDescriptor());
    (void)::close(kept);
    EXPECT_TRUE(BelievesInBlocking(socket));
}

} // namespace
