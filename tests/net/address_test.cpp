#include <kest/net/address.h>

#include <kest/text/locale.h>
#include <kest/threads/guard.h>

#include <support/sockets.h>

#include <functional>
#include <future>
#include <memory>
#include <utility>
#include <vector>

#include <netdb.h>

using namespace Kest;
using namespace Kest::System;
using namespace Kest::System::Interface::_Socket;
using namespace Kest::Test;

namespace {

const std::string Bad = "Kest: bad socket address";
const std::string BadDomain = "Kest: unsupported socket domain (address family): ";

TSocket::TMutex& ResolverLock() {
    return _Gadgets::TSingleton<TSocket::TMutex>::GetObject();
}

TEST(SocketAddress, PortIsTheLow16BitsOfTheNumberAfterTheFirstColon) {
    const struct {
        std::string Text;
        const char* Expected;
    } cases[] = {
        {"10.0.0.1:8080", "10.0.0.1:8080"},
        {"10.0.0.1:8080abc", "10.0.0.1:8080"},
        {"10.0.0.1:x", "10.0.0.1:0"},
        {"10.0.0.1:0x10", "10.0.0.1:0"},
        {"10.0.0.1:010", "10.0.0.1:10"}, // decimal all the same
        {"10.0.0.1: \t+80 ", "10.0.0.1:80"},
        {"10.0.0.1:70000", "10.0.0.1:4464"}, // 70000 - 65536
        {"10.0.0.1:-1", "10.0.0.1:65535"},
        {"10.0.0.1:80:90", "10.0.0.1:80"},
        {"10.0.0.1::", "10.0.0.1:0"}, // the second colon is the last character, the first is not
        {std::string("10.0.0.1:8") + '\0' + '0', "10.0.0.1:8"},
        {"10.0.0.1:" + std::string(251, '0') + "81", "10.0.0.1:81"}, // 262 characters
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Text);
        EXPECT_EQ(TAddress("inet", each.Text, false).Get(false), each.Expected);
        EXPECT_EQ(TAddress("inet", each.Text, true).Get(false), each.Expected) << "a number needs no resolver";
    }
}

TEST(SocketAddress, WhatIsNoAddressIsRefusedWithItsReason) {
    const std::string label(64, 'a'); // one more than a part of a name may have: the resolver refuses it without asking anyone
    const std::string format = Bad + ": bad 'address:port' inet format: Domain: 'inet': ";
    const std::string tooLong = Bad + ": inet address too long";
    const struct {
        std::string Text;
        bool Resolve;
        std::string Message;
    } cases[] = {
        {"", false, format},
        {"10.0.0.1", true, format + "10.0.0.1"},
        {"10.0.0.1:", false, format + "10.0.0.1:"},
        {"localhost:", true, format + "localhost:"},
        {std::string(262, '1'), false, format + std::string(262, '1')},
        {std::string(263, '1'), false, tooLong},
        {"10.0.0.1:" + std::string(254, '0'), true, tooLong}, // 263 characters
        {"localhost:80", false, Bad},
        {":80", false, Bad},
        {"10.0.1:80", false, Bad}, // what inet_aton would take
        {" 10.0.0.1:80", false, Bad},
        {std::string("10.0.0.1\0x:80", 13), false, Bad},
        {std::string("10.0.0.1\0x:80", 13), true, Bad + ": host not resolved: " + std::string("10.0.0.1\0x:80", 13)},
        {label + ":80", true, Bad + ": host not resolved: " + label + ":80"},
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Text);
        EXPECT_KEST_THROW(TAddress("inet", each.Text, each.Resolve), EBadAddress, each.Message);
    }
    EXPECT_EQ(TAddress("inet", "localhost:80", true).Get(false), "127.0.0.1:80");
}

TEST(SocketAddress, FamiliesAreKnownByTheirExactNames) {
    for (int (*const map)(const std::string&) : {&TSocket::MapDomain, &TAddress::MapDomain}) {
        for (const auto& [name, family] : {std::pair("inet", 2), {"ipx", 4}, {"fs", 1}, {"", 0}})
            EXPECT_EQ(map(name), family) << name;
        for (const std::string& name : {std::string("INET"), std::string("inet "), std::string("fs\0", 3)})
            EXPECT_KEST_THROW(map(name), EUnsupportedDomain, BadDomain + name);
    }
    EXPECT_KEST_THROW(TAddress("INET"), EUnsupportedDomain, BadDomain + "INET");
    EXPECT_KEST_THROW(TAddress("INET", "", false), EUnsupportedDomain, BadDomain + "INET");
    for (const char* domain : {"ipx", ""}) {
        EXPECT_KEST_THROW(TAddress(domain, "10.0.0.1:80", false), EUnsupportedDomain, BadDomain + "address error");
        EXPECT_KEST_THROW(TAddress(domain).Get(false), EUnsupportedDomain, BadDomain + "address error");
    }
}

TEST(SocketAddress, EmptyOneIsSixteenZeroBytes) {
    EXPECT_EQ(TAddress("inet").Get(false), "0.0.0.0:0");
    EXPECT_EQ(TAddress("fs").Get(true), "");

    TSocket socket(DatagramOf("inet"));
    socket.Bind(TAddress("inet", "127.0.0.1:0", false));
    socket.Connect(TAddress("inet", NameOf(socket), false));
    EXPECT_EQ(socket.Send("x", 1), 1);
    socket.Connect(TAddress("ipx")); // family 0 ends the association, any other family is refused here
    EXPECT_KEST_THROW(socket.Send("x", 1), EException, Described("", EDESTADDRREQ));
}

TEST(SocketAddress, PathIsKeptWholeAndBehindItAZero) {
    for (const std::string& path : {std::string(), std::string("a:b c\xC3\xA4"), std::string(300, 'p'), std::string(70000, 'p')}) {
        EXPECT_EQ(TAddress("fs", path, false).Get(false), path);
        EXPECT_EQ(TAddress("fs", path, true).Get(true), path);
    }
    EXPECT_EQ(TAddress("fs", std::string("left\0right", 10), false).Get(false), "left");

    // A name outside the file system, which the system takes and returns byte for byte.
    const std::string name = '\0' + ("kest-test-" + std::to_string(::getpid()));
    TSocket socket(DatagramOf("fs"));
    socket.Bind(TAddress("fs", name, false));
    EXPECT_EQ(NameOf(socket), name) << "NameOf leaves out the last byte";
}

TEST(SocketAddress, CopiesOutliveWhatTheyWereMadeFrom) {
    const std::string path(300, 'p');
    auto inet = std::make_unique<TAddress>("inet", "10.0.0.1:80", false);
    auto fs = std::make_unique<TAddress>("fs", path, false);
    const TAddress copy(*inet);
    TAddress longer(*inet);
    longer = *fs;
    TAddress shorter(*fs);
    shorter = *inet;
    inet.reset();
    fs.reset();
    EXPECT_EQ(copy.Get(false), "10.0.0.1:80");
    EXPECT_EQ(longer.Get(false), path);
    EXPECT_EQ(shorter.Get(false), "10.0.0.1:80") << "the domain comes along";

    const TAddress& itself = longer;
    longer = itself;
    EXPECT_EQ(longer.Get(false), path);
}

TEST(SocketAddress, NameIsTheRegisteredOneAndALookUpThatFailsLeavesTheResolverLockFree) {
    const in_addr loopback{htonl(INADDR_LOOPBACK)};
    const std::string name = ::gethostbyaddr(&loopback, sizeof loopback, AF_INET)->h_name;
    EXPECT_EQ(TAddress("inet", "127.0.0.1:7", false).Get(true), name + ":7");
    EXPECT_KEST_THROW(TAddress("inet", "255.255.255.255:1", false).Get(true), EBadAddress, Bad);
    EXPECT_TRUE(OthersMayEnter(ResolverLock()));
    EXPECT_KEST_THROW(TSocket({"inet", TSocket::Stream, "no such protocol"}), EUnsupportedProtocol, "Kest: unsupported socket protocol");
    EXPECT_TRUE(OthersMayEnter(ResolverLock()));
    const _TScopedEntry entry(ResolverLock());
    EXPECT_STREQ(ip2name(loopback), name.c_str());
    EXPECT_EQ(ip2name({INADDR_NONE}), nullptr);
}

TEST(SocketAddress, LookUpsWaitForTheResolverLock) {
    const TAddress loopback("inet", "127.0.0.1:7", false);
    const std::function<void()> lookUps[] = {[&] { (void)loopback.Get(true); }, [] { const TSocket socket(StreamOf("inet")); }};
    for (const auto& lookUp : lookUps) {
        ResolverLock().Enter();
        EXPECT_EQ(WhileBlocked(lookUp, [] { ResolverLock().Leave(); }), 0);
    }
}

/// When the test runs alone in its process, this is the first use of both tables and of both singletons.
TEST(SocketAddress, FirstUseMayBeMadeByManyThreadsAtOnce) {
    TGate start;
    std::vector<std::future<std::string>> threads(16);
    for (auto& thread : threads)
        thread = std::async(std::launch::async, [&start] {
            start.Wait();
            const std::string both = std::to_string(TSocket::MapDomain("fs")) + std::to_string(TAddress::MapDomain("inet"));
            const _TScopedEntry entry(ResolverLock());
            return both + GetSystemEncoding();
        });
    start.Open();
    for (auto& thread : threads)
        EXPECT_EQ(thread.get(), "12UTF-8");
}

} // namespace
