#include <kest/net/socket_stream.h>

#include <support/descriptors.h>
#include <support/sockets.h>

#include <csignal>
#include <memory>
#include <stdexcept>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

using TStream = TSocket::TStream;

/// A copy of a socket that logs its calls with their sizes, and fails in a way of the test's own when told to.
class TRecorder : public TSocket {
public:
    explicit TRecorder(const TSocket& other) : TSocket(other) {}
    int Receive(void* buffer, unsigned size) override { return Note("R", size), TSocket::Receive(buffer, size); }
    int Send(const void* data, unsigned size) override { return Note("S", size), TSocket::Send(data, size); }

    std::string Log;
    void (*Failure)() = nullptr;

private:
    void Note(const char* call, unsigned size) {
        Log += call + std::to_string(size) + ' ';
        if (Failure)
            Failure();
    }
};

TEST(SocketStream, LastResultTellsTheReasonAndClearedStreamWorksAgain) {
    TConnection connection("fs");
    TRecorder socket(connection.Client);
    TStream stream(socket, 16);
    const struct {
        void (*Failure)();
        int Result;
    } cases[] = {
        {[] { throw ETimeout(); }, -1},
        {[] { throw EShutdown("interrupted system call"); }, -2},
        {[] { throw EReset(); }, -3},
        {[] { throw EAbort(); }, -3},
        {[] { throw EWouldBlock(); }, -3},
        {[] { throw std::runtime_error("not of a socket"); }, -3},
        {[] { throw 1; }, -3},
    };
    const auto expect = [&stream](bool success, int result) {
        EXPECT_EQ(stream.good(), success);
        EXPECT_EQ(stream.GetLastResult(), result);
        stream.clear();
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(&each - cases);
        socket.Failure = each.Failure;
        EXPECT_EQ(stream.get(), EOF);
        expect(false, each.Result);
        stream << 'x' << std::flush;
        expect(false, each.Result);
        socket.Failure = nullptr;
        stream << 'y' << std::flush; // and the x, which is still pending
        expect(true, 0);
        EXPECT_EQ(connection.Server.Send("z", 1), 1);
        EXPECT_EQ(stream.get(), 'z');
        expect(true, 0);
    }
}

TEST(SocketStream, EveryTransportCallIsOneVirtualCallOfTheSocket) {
    TConnection connection("fs");
    TRecorder socket(connection.Client);
    for (const unsigned bufferSize : {0u, 1u, 6u}) {
        socket.Log.clear();
        TStream stream(socket, bufferSize);
        stream << "abc" << std::flush;
        EXPECT_EQ(connection.Server.Send("de", 2), 2);
        EXPECT_EQ(stream.get(), 'd');
        EXPECT_EQ(stream.get(), 'e');
        EXPECT_EQ(socket.Log, bufferSize > 1 ? "S3 R6 " : "S1 S1 S1 R1 R1 ");
    }
}

TEST(SocketStream, DestructorSendsWhatIsPendingAndLeavesTheSocketOpen) {
    TConnection connection("fs");
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

TEST(SocketStream, FlushThatWasCutOffBeginsAnewUnlessShutDownOrCancelled) {
    struct sigaction handled {};
    handled.sa_handler = [](int) {};
    handled.sa_flags = SA_RESTART;
    ASSERT_EQ(::sigaction(SIGUSR1, &handled, nullptr), 0);
    const std::string sent = Pattern(4 << 20);
    enum TEnd { Limit, LimitThenShutdown, Signal, Cancellation };
    for (const TEnd end : {Limit, LimitThenShutdown, Signal, Cancellation}) {
        SCOPED_TRACE(end);
        if (end == Cancellation && !StreamsAreCancelled)
            break;
#ifdef __powerpc64__
        if (end == Cancellation && std::getenv("KEST_EMULATOR") != nullptr)
            GTEST_SKIP() << "the unwinder does not know qemu's frames of signals, by which waits are cancelled";
#endif
        TConnection connection("fs");
        std::string received;
        TFunctionThread reader([&] {
            char piece[70000];
            EXPECT_THROW(for (;;) received.append(piece, static_cast<std::size_t>(connection.Server.Receive(piece, sizeof piece))),
                         EShutdown);
        });
        std::atomic<pid_t> number{0};
        TFunctionThread writer([&] {
            TStream stream(connection.Client, 5 << 20);
            const std::shared_ptr<void> atTheEnd(nullptr, [&](void*) { reader.Start(); }); // before the destructor's flush
            connection.Client.SetSendTimeout(end <= LimitThenShutdown ? 0.01 : Soon);
            number = ::gettid();
            stream << sent << std::flush;
            EXPECT_EQ(stream.GetLastResult(), end == Signal ? -2 : -1);
            connection.Client.SetSendTimeout(Soon);
            if (end == LimitThenShutdown)
                connection.Client.Shutdown(false, true);
        });
        writer.Start();
        EXPECT_TRUE(end <= LimitThenShutdown || FallsAsleep(number));
        if (end == Signal)
            (void)::pthread_kill(writer.GetId(), SIGUSR1);
        if (end == Cancellation)
            writer.Cancel();
        EXPECT_EQ(writer.WaitFor(), end == Cancellation ? -1 : 0);
        connection.Client.Shutdown(false, true);
        (void)reader.WaitFor();
        const std::string again = end == Limit || end == Signal ? sent : "";
        ASSERT_GT(received.size(), again.size());
        EXPECT_TRUE(received == sent.substr(0, received.size() - again.size()) + again);
    }
}

} // namespace
