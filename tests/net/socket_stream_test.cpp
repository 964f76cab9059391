#include <kest/net/socket_stream.h>

#include <support/descriptors.h>
#include <support/helper_thread.h>
#include <support/message.h>
#include <support/sockets.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

using TStream = TSocket::TStream;

/// A copy of a socket that records the sizes of its calls, and fails in a way of the test's own when told to.
class TRecorder : public TSocket {
public:
    using TSocket::TSocket;
    explicit TRecorder(const TSocket& other) : TSocket(other) {}

    int Receive(void* buffer, unsigned size) override {
        Received.push_back(size);
        if (Failure)
            Failure();
        return TSocket::Receive(buffer, size);
    }
    int Send(const void* data, unsigned size) override {
        Sent.push_back(size);
        if (Failure)
            Failure();
        return TSocket::Send(data, size);
    }

    std::vector<unsigned> Received;
    std::vector<unsigned> Sent;
    void (*Failure)() = nullptr;
};

class SocketStream : public testing::TestWithParam<const char*> {
protected:
    const std::string Domain = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Families, SocketStream, testing::Values("inet", "fs"), [](const auto& param) { return std::string(param.param); });

TEST_P(SocketStream, LineCrossesAndComesBackWithinItsLimit) {
    TListener listener(Domain);
    TFunctionThread server([&] {
        TAddress peer(Domain);
        TSocket socket = listener.Socket.Accept(peer);
        socket.SetReceiveTimeout(Soon);
        TStream stream(socket, 1024);
        std::string line;
        while (std::getline(stream, line))
            stream << line.size() << ' ' << line << std::endl;
        return stream.GetLastResult();
    });
    server.Start();
    TSocket socket(StreamOf(Domain));
    socket.SetSendTimeout(5.0);
    socket.SetReceiveTimeout(Soon);
    socket.Connect(listener.Address);
    {
        TStream stream(socket, 1024);
        for (const std::size_t length : {std::size_t{5}, std::size_t{0}, std::size_t{1023}, std::size_t{100000}}) {
            const std::string sent(length, 'l');
            stream << sent << '\n' << std::flush;
            std::string answer;
            ASSERT_TRUE(std::getline(stream, answer)) << stream.GetLastResult();
            EXPECT_TRUE(answer == std::to_string(length) + ' ' + sent) << answer.substr(0, 20);
        }
    }
    socket.Shutdown(false, true);
    EXPECT_EQ(server.WaitFor(), -2) << "the end of the conversation is a shutdown";
}

TEST_P(SocketStream, LastResultTellsTheReasonAndClearedStreamWorksAgain) {
    TConnection connection(Domain);
    TSocket& socket = connection.Client;
    TStream stream(socket, 16);
    const auto expectFailure = [&](int reason) {
        EXPECT_EQ(stream.get(), EOF);
        EXPECT_TRUE(stream.fail());
        EXPECT_EQ(stream.GetLastResult(), reason);
        stream.clear();
        if (reason == -2)
            return;
        EXPECT_EQ(connection.Server.Send("x", 1), 1);
        EXPECT_TRUE(socket.SelectRead(Soon));
        EXPECT_EQ(stream.get(), 'x');
        EXPECT_EQ(stream.GetLastResult(), 0);
    };
    socket.SetReceiveTimeout(0.02);
    ExpectWait(0.02, [&] { expectFailure(-1); });
    expectFailure(-1);
    socket.SetBlocking(false);
    expectFailure(-3);
    connection.Server.Shutdown(false, true);
    EXPECT_TRUE(socket.SelectRead(Soon));
    expectFailure(-2);
}

TEST_P(SocketStream, ForeignExceptionsAndResetsAreOtherFailures) {
    TConnection connection(Domain);
    TRecorder socket(connection.Client);
    TStream stream(socket, 16);
    const struct {
        void (*Failure)();
        int Result;
    } cases[] = {
        {[] { throw ETimeout(); }, -1}, {[] { throw EShutdown("interrupted system call"); }, -2},  {[] { throw EReset(); }, -3},
        {[] { throw EAbort(); }, -3},   {[] { throw std::runtime_error("not of a socket"); }, -3}, {[] { throw 1; }, -3},
    };
    for (const auto& each : cases) {
        socket.Failure = each.Failure;
        EXPECT_EQ(stream.get(), EOF);
        EXPECT_TRUE(stream.fail());
        EXPECT_EQ(stream.GetLastResult(), each.Result);
        stream.clear();
        socket.Failure = nullptr;
        stream << 'x' << std::flush;
        EXPECT_EQ(stream.GetLastResult(), 0);
        socket.Failure = each.Failure;
        stream << 'x' << std::flush;
        EXPECT_TRUE(stream.fail());
        EXPECT_EQ(stream.GetLastResult(), each.Result);
        stream.clear();
    }
}

TEST_P(SocketStream, EveryTransportCallIsOneVirtualCallOfTheSocket) {
    using TSizes = std::vector<unsigned>;
    TConnection connection(Domain);
    TRecorder socket(connection.Client);
    for (const unsigned bufferSize : {0u, 1u, 6u}) {
        socket.Received.clear();
        socket.Sent.clear();
        TStream stream(socket, bufferSize);
        stream << "abc" << std::flush;
        EXPECT_EQ(socket.Sent, bufferSize > 1 ? TSizes({3}) : TSizes({1, 1, 1}));
        EXPECT_EQ(connection.Server.Send("de", 2), 2);
        EXPECT_EQ(stream.get(), 'd');
        EXPECT_EQ(stream.get(), 'e');
        EXPECT_EQ(socket.Received, bufferSize > 1 ? TSizes({6}) : TSizes({1, 1}));
    }
}

TEST_P(SocketStream, DestructorSendsWhatIsPendingAndLeavesTheSocketOpen) {
    TConnection connection(Domain);
    const int before = OpenDescriptors();
    char bytes[8];
    for (int i = 0; i < 2; ++i) {
        TStream(connection.Client, 16) << "last";
        EXPECT_EQ(OpenDescriptors(), before);
        EXPECT_EQ(connection.Server.Receive(bytes, sizeof bytes), 4);
    }
    connection.Client.Shutdown(false, true);
    EXPECT_NO_THROW(TStream(connection.Client, 16) << "nobody will get this");
}

TEST_P(SocketStream, OutputThatDidNotFitStaysPendingUntilTheNextFlush) {
    const std::string sent = Pattern(1 << 20);
    TConnection connection(Domain);
    connection.Client.SetSendBufferSize(10000);
    connection.Client.SetBlocking(false);
    TStream stream(connection.Client, static_cast<unsigned>(sent.size()));
    stream << sent << std::flush;
    EXPECT_TRUE(stream) << "a part was taken, which is no failure";
    while (stream)
        stream << std::flush;
    EXPECT_EQ(stream.GetLastResult(), -3);

    std::string received;
    std::string buffer(100000, '\0');
    for (int round = 0; round < 10000 && received.size() < sent.size(); ++round) {
        stream.clear();
        stream << std::flush;
        if (connection.Server.SelectRead(0.001))
            received.append(buffer, 0, static_cast<std::size_t>(connection.Server.Receive(buffer.data(), 100000)));
    }
    EXPECT_TRUE(received == sent);
}

TEST_P(SocketStream, CancellationPassesThroughTheStream) {
    const int before = OpenDescriptors();
    for (const bool reading : {true, false}) {
        const auto converse = [&](TBlockingPoint& point) {
            TConnection connection(Domain);
            FillUp(connection.Client);
            TStream stream(connection.Client, reading ? 16 : 0); // what is pending in a buffer would be sent by the destructor
            std::string line;
            point.Enter();
            if (reading)
                std::getline(stream, line);
            else
                stream << TooMuch();
        };
        EXPECT_EQ(CancelledWhileBlocked(converse), -1);
        EXPECT_EQ(OpenDescriptors(), before);
    }
}

} // namespace
