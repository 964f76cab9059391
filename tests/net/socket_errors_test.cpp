#include <kest/net/socket.h>

#include <support/sockets.h>

#include <cerrno>
#include <type_traits>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

/// Checks what holds for every class of the family: its place in the tree, no data of its own, composition that does not throw, and the
/// message, which describes the path down to the class and ends with the detail.
template <class TError, class TBase = EException, bool IsIO = false, bool IsAbort = false>
void ExpectClass(const std::string& description) {
    static_assert(std::is_base_of_v<TBase, TError> && sizeof(TError) == sizeof(std::string) && !std::is_polymorphic_v<TError>);
    static_assert(std::is_base_of_v<EIOError, TError> == IsIO && std::is_base_of_v<EAbort, TError> == IsAbort);
    static_assert(std::is_nothrow_default_constructible_v<TError> && std::is_nothrow_constructible_v<TError, const std::string&>);
    EXPECT_EQ(TError().GetMessage(), description);
    EXPECT_EQ(TError("why").GetMessage(), description + ": why");
}

TEST(SocketErrors, ClassesAreAFamily) {
    ExpectClass<EUnsupportedDomain>("Kest: unsupported socket domain (address family)");
    ExpectClass<EUnsupportedType>("Kest: unsupported socket type");
    ExpectClass<EUnsupportedProtocol>("Kest: unsupported socket protocol");
    ExpectClass<EBadAddress>("Kest: bad socket address");
    ExpectClass<EIOError, EException, true>(IOError);
    ExpectClass<ENotConnected, EIOError, true>(NotConnected);
    ExpectClass<EWouldBlock, EIOError, true>(WouldBlock);
    ExpectClass<EAbort, EIOError, true, true>(Abort);
    ExpectClass<ETimeout, EAbort, true, true>(Timeout);
    ExpectClass<EReset, EAbort, true, true>(Reset);
    ExpectClass<EShutdown, EAbort, true, true>(Shutdown);
}

TEST(SocketErrors, BrokenPipeIsAShutdownOnceTheSendingSideWasShutDown) {
    const auto pipe = [](const TSocket& socket) { return [&] { errno = EPIPE, socket.CheckResult(-1); }; };
    const std::string broken = IOError + ": broken pipe";
    TConnection connection("fs");
    TSocket& socket = connection.Client;
    EXPECT_KEST_THROW(socket.Shutdown(false, false), EException, "Kest: nonsense shutdown");
    socket.Shutdown(true, false);
    EXPECT_EQ(socket.Send("x", 1), 1) << "the receiving side is another matter";
    EXPECT_KEST_THROW(pipe(socket)(), EIOError, broken);
    socket.Shutdown(false, true);
    socket.Shutdown(true, false); // does not take the shutdown for sending back
    EXPECT_KEST_THROW(socket.Send("x", 1), EShutdown, Shutdown + ": when send");
    const TSocket copy(socket);
    EXPECT_KEST_THROW(pipe(copy)(), EIOError, broken) << "a copy knows of no Shutdown";
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
