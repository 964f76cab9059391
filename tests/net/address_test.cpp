#include <kest/net/address.h>

#include <support/helper_thread.h>
#include <support/message.h>
#include <support/sockets.h>

#include <functional>
#include <memory>
#include <thread>
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
const in_addr Loopback{htonl(INADDR_LOOPBACK)};
const in_addr Nameless{INADDR_NONE};

TSocket::TMutex& ResolverLock() {
    return _Gadgets::TSingleton<TSocket::TMutex>::GetObject();
}

std::string LoopbackName() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr = Loopback;
    char name[NI_MAXHOST] = "";
    EXPECT_EQ(::getnameinfo(reinterpret_cast<sockaddr*>(&address), sizeof address, name, sizeof name, nullptr, 0, NI_NAMEREQD), 0);
    return name;
}

TEST(SocketAddress, PortIsTheLow16BitsOfTheNumberAfterTheFirstColon) {
    const struct {
        std::string Text;
        const char* Expected;
    } cases[] = {
        {"10.0.0.1:8080", "10.0.0.1:8080"},
        {"255.255.255.255:65535", "255.255.255.255:65535"},
        {"0.0.0.0:0", "0.0.0.0:0"},
        {"10.0.0.1:8080abc", "10.0.0.1:8080"},
        {"10.0.0.1:x", "10.0.0.1:0"},
        {"10.0.0.1:0x10", "10.0.0.1:0"},
        {"10.0.0.1:010", "10.0.0.1:10"}, // decimal all the same
        {"10.0.0.1: \t+80 ", "10.0.0.1:80"},
        {"10.0.0.1:70000", "10.0.0.1:4464"}, // 70000 - 65536
        {"10.0.0.1:-1", "10.0.0.1:65535"},
        {"10.0.0.1:80:90", "10.0.0.1:80"},
        {"10.0.0.1::", "10.0.0.1:0"}, // the second colon is the last character, the first is not
        {std::string("10.0.0.1:8\0"
                     "0",
                     12),
         "10.0.0.1:8"},
        {"10.0.0.1:" + std::string(251, '0') + "81", "10.0.0.1:81"}, // 262 characters
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.Text);
        EXPECT_EQ(TAddress("inet", each.Text, false).Get(false), each.Expected);
        EXPECT_EQ(TAddress("inet", each.Text, true).Get(false), each.Expected) << "a number needs no resolver";
    }
}

TEST(SocketAddress, WhatIsNoAddressIsRefusedWithItsReason) {
    const std::string label(64, 'a'); // one more than a name's part may have: the resolver gives up without asking anyone
    const std::string format = Bad + ": bad 'address:port' inet format: Domain: 'inet': ";
    const std::string tooLong = Bad + ": inet address too long";
    const struct {
        std::string Text;
        bool Resolve;
        std::string Message;
    } cases[] = {
        {"", false, format},
        {":", false, format + ":"},
        {"10.0.0.1", true, format + "10.0.0.1"},
        {"10.0.0.1:", false, format + "10.0.0.1:"},
        {"localhost:", true, format + "localhost:"},
        {std::string(262, '1'), false, format + std::string(262, '1')},
        {std::string(263, '1'), false, tooLong},
        {"10.0.0.1:" + std::string(254, '0'), true, tooLong}, // 263 characters
        {"localhost:80", false, Bad},
        {":80", false, Bad},
        {"a:b:c", false, Bad},
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
    EXPECT_KEST_THROW(socket.Send("x", 1), EException, SystemMessage(EDESTADDRREQ));
}

TEST(SocketAddress, PathIsKeptWhole) {
    for (const std::string& path :
         {std::string(), std::string("/tmp/sock"), std::string("a:b c\xC3\xA4"), std::string(300, 'p'), std::string(70000, 'p')}) {
        EXPECT_EQ(TAddress("fs", path, false).Get(false), path);
        EXPECT_EQ(TAddress("fs", path, true).Get(true), path);
    }
    EXPECT_EQ(TAddress("fs", std::string("left\0right", 10), false).Get(false), "left");
}

TEST(SocketAddress, BytesOfAPathAreTheFamilyThePathAndAZero) {
    // A name outside the file system, which the system takes and returns byte for byte.
    const std::string name = std::string(1, '\0') + "kest-test-" + std::to_string(::getpid());
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

TEST(SocketAddress, NameIsTheRegisteredOne) {
    EXPECT_EQ(TAddress("inet", "127.0.0.1:7", false).Get(true), LoopbackName() + ":7");
    ResolverLock().Enter();
    EXPECT_STREQ(ip2name(Loopback), LoopbackName().c_str());
    EXPECT_EQ(ip2name(Nameless), nullptr);
    ResolverLock().Leave();
}

TEST(SocketAddress, LookUpThatFailsOrIsCancelledLeavesTheResolverLockFree) {
    EXPECT_KEST_THROW(TAddress("inet", "255.255.255.255:1", false).Get(true), EBadAddress, Bad);
    EXPECT_TRUE(OthersMayEnter(ResolverLock()));
    EXPECT_KEST_THROW(TSocket({"inet", TSocket::Stream, "no such protocol"}), EUnsupportedProtocol, "Kest: unsupported socket protocol");
    EXPECT_TRUE(OthersMayEnter(ResolverLock()));
    TFunctionThread thread([] {
        (void)::pthread_cancel(::pthread_self());
        return static_cast<int>(TAddress("inet", "127.0.0.1:7", false).Get(true).size());
    });
    thread.Start();
    EXPECT_EQ(thread.WaitFor(), -1);
    EXPECT_TRUE(OthersMayEnter(ResolverLock()));
}

TEST(SocketAddress, LookUpsWaitForTheResolverLock) {
    const std::function<void()> lookUps[] = {[] { (void)TAddress("inet", "127.0.0.1:7", false).Get(true); },
                                             [] { const TSocket socket(StreamOf("inet")); }};
    for (const auto& lookUp : lookUps) {
        ResolverLock().Enter();
        (void)WhileBlocked(
            [&](TBlockingPoint& point) {
                point.Enter();
                lookUp();
            },
            [](TFunctionThread&) { ResolverLock().Leave(); });
    }
}

/// Alone in its process, this is the first use of all three.
TEST(SocketAddress, FirstUseMayBeMadeByManyThreadsAtOnce) {
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::atomic<TSocket::TMutex*> lock{nullptr};
    std::vector<std::thread> threads;
    for (int i = 0; i < 16; ++i)
        threads.emplace_back([&] {
            for (++ready; ready < 16;)
                std::this_thread::yield();
            if (TSocket::MapDomain("fs") != 1 || TAddress::MapDomain("inet") != 2)
                ++wrong;
            TSocket::TMutex* first = nullptr;
            if (!lock.compare_exchange_strong(first, &ResolverLock()) && first != &ResolverLock())
                ++wrong;
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

} // namespace
