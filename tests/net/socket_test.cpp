#include <kest/net/socket.h>

#include <support/descriptors.h>
#include <support/sockets.h>

#include <memory>

#include <sys/resource.h>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

/// Whether the object takes its socket, which has no input, for a blocking one.
bool BelievesInBlocking(TSocket& socket) {
    socket.SetReceiveTimeout(0.001);
    try {
        return socket.ValidateReceive(), false;
    } catch (const ETimeout&) {
        return true;
    }
}

TEST(SocketLifecycle, NewSocketIsWhatItsDescriptionSaysBlockingAndWithoutLimits) {
    TSocket tcp(StreamOf("inet"));
    const TSocket packets({"fs", TSocket::SequencedPacket, "ip"});
    EXPECT_EQ(OptionOf(tcp, SOL_SOCKET, SO_DOMAIN), AF_INET);
    EXPECT_EQ(OptionOf(tcp, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_EQ(OptionOf(tcp, SOL_SOCKET, SO_PROTOCOL), IPPROTO_TCP);
    EXPECT_EQ(OptionOf(packets, SOL_SOCKET, SO_DOMAIN), AF_UNIX);
    EXPECT_EQ(OptionOf(packets, SOL_SOCKET, SO_TYPE), SOCK_SEQPACKET);
    EXPECT_TRUE(IsInBlockingMode(tcp));
    EXPECT_EQ(tcp.SetReceiveTimeout(2.5), 0.0);
    EXPECT_EQ(tcp.SetSendTimeout(3.5), 0.0);
    EXPECT_EQ(tcp.SetReceiveTimeout(0.0), 2.5);
    EXPECT_EQ(tcp.SetSendTimeout(0.0), 3.5);
}

TEST(SocketLifecycle, UnknownDomainIsReportedBeforeProtocolAndTypeAndLeavesNoDescriptor) {
    const auto noType = static_cast<TSocket::TType>(5);
    const int before = OpenDescriptors();
    EXPECT_KEST_THROW(TSocket({"ip", noType, "none"}), EUnsupportedDomain, "Kest: unsupported socket domain (address family): ip");
    EXPECT_KEST_THROW(TSocket({"inet", noType, "none"}), EUnsupportedProtocol, "Kest: unsupported socket protocol");
    EXPECT_KEST_THROW(TSocket({"inet", noType, "tcp"}), EUnsupportedType, "Kest: unsupported socket type");
    EXPECT_KEST_THROW(TSocket({"fs", TSocket::Stream, "tcp"}), EException, "Kest: socket creation error");
    EXPECT_EQ(OpenDescriptors(), before);

    rlimit limit{}, none{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    none.rlim_max = limit.rlim_max;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_KEST_THROW(TSocket(StreamOf("inet")), EException, "Kest: socket creation error") << "the protocol is known";
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(SocketOwnership, FirstCopyOfAnAcceptedSocketTakesItsDescriptorAndOthersDuplicate) {
    TListener listener("fs");
    TSocket client(StreamOf("fs"));
    client.Connect(listener.Address);
    TAddress peer("fs");
    char bytes[3];
    const int before = OpenDescriptors();
    {
        std::unique_ptr<TSocket> accepted(new TSocket(listener.Socket.Accept(peer)));
        TSocket taker(*accepted);
        EXPECT_EQ(taker.GetDescriptor(), accepted->GetDescriptor());
        EXPECT_EQ(OpenDescriptors(), before + 1);
        const TSocket second(*accepted); // the mark went with the first copy
        const TSocket third(taker);      // which has none of its own
        EXPECT_EQ(OpenDescriptors(), before + 3);
        EXPECT_EQ(accepted->Send("a", 1), 1) << "it stays usable";
        accepted.reset();
        EXPECT_EQ(OpenDescriptors(), before + 3);
        EXPECT_EQ(taker.Send("b", 1), 1) << "and shuts nothing down";
    }
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(client.Receive(bytes, 3), 2);
}

TEST(SocketOwnership, DestroyingOneOwnerEndsTheConnectionOfAllCopies) {
    TConnection connection("inet");
    char byte;
    { const TSocket copy(connection.Client); }
    EXPECT_KEST_THROW(connection.Client.Receive(&byte, 1), EShutdown, Shutdown + ": when receive");
    EXPECT_KEST_THROW(connection.Server.Receive(&byte, 1), EShutdown, Shutdown + ": when receive");
}

TEST(SocketOwnership, CopyHasTheLimitsAndTheModeOfItsSourceAndAnAdoptedDescriptorNone) {
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
        TSocket adopted(::dup(source.GetDescriptor()), AF_UNIX);
        EXPECT_EQ(adopted.SetReceiveTimeout(1.0), 0.0);
        EXPECT_EQ(adopted.SetSendTimeout(1.0), 0.0);
        EXPECT_TRUE(BelievesInBlocking(adopted));
    }
}

TEST(SocketOptions, FlagsReachTheSystem) {
    TSocket socket(StreamOf("inet"));
    (void)::fcntl(socket.GetDescriptor(), F_SETFL, O_APPEND);
    for (const bool on : {true, false}) {
        socket.SetBroadcast(on);
        EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_BROADCAST), on ? 1 : 0);
        socket.SetReuseAddress(on);
        EXPECT_EQ(OptionOf(socket, SOL_SOCKET, SO_REUSEADDR), on ? 1 : 0);
        socket.SetNoDelay(on);
        EXPECT_EQ(OptionOf(socket, IPPROTO_TCP, TCP_NODELAY), 0);
        socket.SetBlocking(!on);
        EXPECT_EQ(IsInBlockingMode(socket), !on);
        EXPECT_NE(::fcntl(socket.GetDescriptor(), F_GETFL) & O_APPEND, 0) << "the mode is one flag among others";
    }
}

TEST(SocketOptions, BufferSizesAreSetAndTheOnesBeforeReturned) {
    TSocket socket(StreamOf("inet"));
    const auto sending = static_cast<unsigned>(OptionOf(socket, SOL_SOCKET, SO_SNDBUF));
    const auto receiving = static_cast<unsigned>(OptionOf(socket, SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(socket.SetSendBufferSize(20000), sending);
    EXPECT_EQ(socket.SetReceiveBufferSize(10000), receiving);
    EXPECT_EQ(socket.SetSendBufferSize(65536), 40000u); // the system doubles
    EXPECT_EQ(socket.SetReceiveBufferSize(65536), 20000u);
}

} // namespace
