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
    ExpectDescription<ENotConnected>(NotConnected);
    ExpectDescription<EWouldBlock>(WouldBlock);
    ExpectDescription<EAbort>(Abort);
    ExpectDescription<ETimeout>(Timeout);
    ExpectDescription<EReset>(Reset);
    ExpectDescription<EShutdown>(Shutdown);
}

TEST(SocketErrors, EachErrorOfTheSystemHasItsClass) {
    using TAction = std::function<void()>;
    const struct {
        int Code;
        std::string (*Message)(const TAction&); // checks the class too
        std::string Expected;
    } cases[] = {
        {EINTR, MessageOf<EShutdown, TAction>, Shutdown + ": interrupted system call"},
        {EAGAIN, MessageOf<EWouldBlock, TAction>, WouldBlock},
        {EINPROGRESS, MessageOf<EWouldBlock, TAction>, WouldBlock},
        {EINVAL, MessageOf<ENotConnected, TAction>, NotConnected},
        {ENOTCONN, MessageOf<ENotConnected, TAction>, NotConnected},
        {EPIPE, MessageOf<EIOError, TAction>, IOError + ": broken pipe"},
        {ENETRESET, MessageOf<EReset, TAction>, Reset},
        {ECONNRESET, MessageOf<EReset, TAction>, Reset},
        {ECONNABORTED, MessageOf<EAbort, TAction>, Abort},
        {ETIMEDOUT, MessageOf<ETimeout, TAction>, Timeout},
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
    EXPECT_KEST_THROW(socket.CheckIOResult(0), EShutdown, Shutdown + ": when receive");
}

TEST(SocketErrors, BrokenPipeIsAShutdownOnceTheSendingSideWasShutDown) {
    const auto pipe = [](const TSocket& socket) { return [&] { errno = EPIPE, socket.CheckResult(-1); }; };
    const std::string broken = IOError + ": broken pipe";
    TConnection connection("fs");
    TSocket& socket = connection.Client;
    TSocket unconnected(StreamOf("inet"));
    EXPECT_KEST_THROW(unconnected.Shutdown(false, true), ENotConnected, NotConnected);
    EXPECT_KEST_THROW(pipe(unconnected)(), EIOError, broken) << "a failed Shutdown leaves no trace";
    EXPECT_KEST_THROW(socket.Shutdown(false, false), EException, "Kest: nonsense shutdown");
    socket.Shutdown(true, false);
    EXPECT_EQ(socket.Send("x", 1), 1) << "the receiving side is another matter";
    EXPECT_KEST_THROW(pipe(socket)(), EIOError, broken);
    socket.Shutdown(false, true);
    EXPECT_KEST_THROW(socket.Send("x", 1), EShutdown, Shutdown + ": when send");
    const TSocket copy(socket);
    EXPECT_KEST_THROW(pipe(copy)(), EIOError, broken) << "a copy knows of no Shutdown";
    Break(socket);
    EXPECT_KEST_THROW(socket.Shutdown(true, true), EException, SystemMessage(EBADF));
    EXPECT_KEST_THROW(pipe(socket)(), EShutdown, Shutdown + ": when send") << "the earlier Shutdown still counts";
}

TEST(SocketErrors, BrokenPipeOfARealPeerRaisesNoSignal) {
    for (const double limit : {0.0, 1.0}) {
        TConnection connection("fs");
        { const TSocket gone(connection.Server); }
        connection.Client.SetSendTimeout(limit);
        EXPECT_KEST_THROW(connection.Client.Send("x", 1), EIOError, IOError + ": broken pipe");
    }
}

} // namespace
