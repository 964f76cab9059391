#include <kest/net/socket.h>

#include <support/message.h>
#include <support/sockets.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <type_traits>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

/// What holds for every class of the family: its place in the tree, no data of its own, composition that does not throw.
template <class TError, class TBase, bool IsIO, bool IsAbort>
constexpr bool Fits = std::is_base_of_v<TBase, TError> && sizeof(TError) == sizeof(std::string) &&
                      !std::is_polymorphic_v<TError> && std::is_base_of_v<EIOError, TError> == IsIO
                      && std::is_base_of_v<EAbort, TError> == IsAbort
                      && std::is_nothrow_default_constructible_v<TError> && std::is_nothrow_constructible_v<TError, const std::string&>;

static_assert(Fits<EUnsupportedDomain, EException, false, false>);
static_assert(Fits<EUnsupportedType, EException, false, false>);
static_assert(Fits<EUnsupportedProtocol, EException, false, false>);
static_assert(Fits<EBadAddress, EException, false, false>);
static_assert(Fits<EIOError, EException, true, false>);
static_assert(Fits<ENotConnected, EIOError, true, false>);
static_assert(Fits<EWouldBlock, EIOError, true, false>);
static_assert(Fits<EAbort, EIOError, true, true>);
static_assert(Fits<ETimeout, EAbort, true, true>);
static_assert(Fits<EReset, EAbort, true, true>);
static_assert(Fits<EShutdown, EAbort, true, true>);

const std::string IOError = "Kest: socket IO error";
const std::string Abort = IOError + ": socket connection aborted";

template <class TError>
void ExpectDescription(const std::string& description) {
    EXPECT_EQ(TError().GetMessage(), description);
    EXPECT_EQ(TError("why").GetMessage(), description + ": why");
}

TEST(SocketErrors, MessagesDescribeThePathDownToTheClassAndEndWithTheDetail) {
    ExpectDescription<EUnsupportedDomain>("Kest: unsupported socket domain (address family)");
    ExpectDescription<EUnsupportedType>("Kest: unsupported socket type");
    ExpectDescription<EUnsupportedProtocol>("Kest: unsupported socket protocol");
    ExpectDescription<EBadAddress>("Kest: bad socket address");
    ExpectDescription<EIOError>(IOError);
    ExpectDescription<ENotConnected>(IOError + ": socket not connected");
    ExpectDescription<EWouldBlock>(IOError + ": non-blocking socket would block");
    ExpectDescription<EAbort>(Abort);
    ExpectDescription<ETimeout>(Abort + ": socket connection timeout");
    ExpectDescription<EReset>(Abort + ": socket connection was reset by remote side");
    ExpectDescription<EShutdown>(Abort + ": socket connection was shutdown'ed");
}

TEST(SocketErrors, EachErrorOfTheSystemHasItsClass) {
    using TAction = std::function<void()>;
    const std::string reset = Abort + ": socket connection was reset by remote side";
    const struct {
        int Code;
        std::string (*Message)(const TAction&); // checks the class too
        std::string Expected;
    } cases[] = {
        {EINTR, MessageOf<EShutdown, TAction>, Abort + ": socket connection was shutdown'ed: interrupted system call"},
        {EAGAIN, MessageOf<EWouldBlock, TAction>, IOError + ": non-blocking socket would block"},
        {EINPROGRESS, MessageOf<EWouldBlock, TAction>, IOError + ": non-blocking socket would block"},
        {EINVAL, MessageOf<ENotConnected, TAction>, IOError + ": socket not connected"},
        {ENOTCONN, MessageOf<ENotConnected, TAction>, IOError + ": socket not connected"},
        {EPIPE, MessageOf<EIOError, TAction>, IOError + ": broken pipe"},
        {ENETRESET, MessageOf<EReset, TAction>, reset},
        {ECONNRESET, MessageOf<EReset, TAction>, reset},
        {ECONNABORTED, MessageOf<EAbort, TAction>, Abort},
        {ETIMEDOUT, MessageOf<ETimeout, TAction>, Abort + ": socket connection timeout"},
        {ECONNREFUSED, MessageOf<EException, TAction>, SystemMessage(ECONNREFUSED)},
        {EALREADY, MessageOf<EException, TAction>, SystemMessage(EALREADY)},
        {ESHUTDOWN, MessageOf<EException, TAction>, SystemMessage(ESHUTDOWN)},
        {EBADF, MessageOf<EException, TAction>, SystemMessage(EBADF)},
    };
    const TSocket socket(StreamOf("fs"));
    for (const auto& each : cases) {
        SCOPED_TRACE(std::strerror(each.Code));
        EXPECT_EQ(each.Message([&] { errno = each.Code, socket.CheckResult(-1); }), each.Expected);
        EXPECT_EQ(each.Message([&] { errno = each.Code, socket.CheckIOResult(-1); }), each.Expected);
    }
}

TEST(SocketErrors, OnlyMinusOneIsAFailureAndZeroOneOfTransfers) {
    const TSocket socket(StreamOf("fs"));
    errno = ECONNRESET;
    for (const int result : {-2, 0, 5})
        EXPECT_EQ(socket.CheckResult(result), result);
    for (const int result : {-2, 5})
        EXPECT_EQ(socket.CheckIOResult(result), result);
    EXPECT_KEST_THROW(socket.CheckIOResult(0), EShutdown, Abort + ": socket connection was shutdown'ed: when receive");
}

TEST(SocketErrors, BrokenPipeIsAShutdownOnceTheSendingSideWasShutDown) {
    const std::string broken = IOError + ": broken pipe";
    const std::string shutdown = Abort + ": socket connection was shutdown'ed: when send";
    TConnection connection("fs");
    TSocket& socket = connection.Client;

    TSocket unconnected(StreamOf("inet"));
    EXPECT_KEST_THROW(unconnected.Shutdown(false, true), ENotConnected, IOError + ": socket not connected");
    EXPECT_KEST_THROW((errno = EPIPE, unconnected.CheckResult(-1)), EIOError, broken) << "a failed Shutdown leaves no trace";

    socket.Shutdown(true, false);
    EXPECT_KEST_THROW((errno = EPIPE, socket.CheckResult(-1)), EIOError, broken) << "the receiving side is another matter";
    socket.Shutdown(false, true);
    EXPECT_KEST_THROW(socket.Send("x", 1), EShutdown, shutdown);

    const TSocket copy(socket);
    EXPECT_KEST_THROW((errno = EPIPE, copy.CheckResult(-1)), EIOError, broken) << "a copy knows of no Shutdown";
    Break(socket);
    EXPECT_KEST_THROW(socket.Shutdown(true, true), EException, SystemMessage(EBADF));
    EXPECT_KEST_THROW((errno = EPIPE, socket.CheckResult(-1)), EShutdown, shutdown) << "the earlier Shutdown still counts";
}

TEST(SocketErrors, ShutdownOfNeitherDirectionIsNonsense) {
    TConnection connection("fs");
    EXPECT_KEST_THROW(connection.Client.Shutdown(false, false), EException, "Kest: nonsense shutdown");
    EXPECT_EQ(connection.Client.Send("x", 1), 1);
}

TEST(SocketErrors, BrokenPipeOfARealPeerRaisesNoSignal) {
    for (const double limit : {0.0, 1.0}) {
        TConnection connection("fs");
        { const TSocket gone(connection.Server); }
        connection.Client.SetSendTimeout(limit);
        EXPECT_KEST_THROW(connection.Client.Send("x", 1), EIOError, IOError + ": broken pipe");
        EXPECT_KEST_THROW(connection.Client.Shutdown(true, true);
                          connection.Client.Send("x", 1), EShutdown, Abort + ": socket connection was shutdown'ed: when send");
    }
}

} // namespace
