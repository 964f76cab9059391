#include "world.h"
#include <support/message.h>

#include <set>
using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;
using Kest::System::TMutex;
using C = TCall;

// Tests which calls are made, how often, in which order and with which flags.

namespace {

FAULT_TEST(RenameTriesElevenTimes, rename, "Rename",
           "`EException: rename failed: from 'FROM' to 'TO': WHY`, that of the eleventh attempt") {
    TWorld world;
    TPlan plan({TRule(C::rename, EBUSY).At(1, 10), TRule(C::rename, EACCES).At(11)});
    const std::string outcome = plan.Run([&] { return OutcomeOf([&] { TFile::Rename(world.From, world.To); }); });
    EXPECT_EQ(outcome, Filled("EException: rename failed: from 'FROM' to 'TO': WHY", world, EACCES));
    EXPECT_EQ(plan.CountOf(C::rename), 11);

    TPlan late({TRule(C::rename, EBUSY).At(1, 10)});
    late.Run([&] { TFile::Rename(world.From, world.To); });
    EXPECT_EQ(late.CountOf(C::rename), 11);
    EXPECT_EQ(TreeOf(world.Place.GetPath()), TTree{"to=content"});
}

TEST(Fault, NothingIsTruncatedBeforeBothFilesAreOpenAndNothingRemovedThatARenameReplaces) {
    TWorld world;
    TPlan copy;
    copy.Run([&] { TFile::Copy(world.From, world.To); });
    EXPECT_EQ(copy.Log({C::stat, C::openat, C::fstat, C::ftruncate, C::copy_file_range, C::futimens, C::utime}),
              "stat(from) openat(from) fstat() openat(to) fstat() ftruncate() copy_file_range() futimens()");
    TPlan late({TRule(C::openat, ENXIO).At(2)}); // a pipe that nobody reads, and that is gone by the next call
    late.Run([&] { TFile::Copy(world.From, world.Place / "new"); });
    EXPECT_EQ(StatusOf(world.Place / "new").st_mode & 0111U, 0U);
    TPlan move;
    move.Run([&] { TFile::Rename(world.From, world.To); });
    EXPECT_EQ(move.Log({C::rename, C::remove, C::stat, C::lstat, C::fstatat, C::openat, C::unlinkat}), "rename(from) lstat(from)");
}

FAULT_TEST(LargeFileIsCopiedWhateverTheKernelRefuses, copy_file_range, "Copy", "no failure: what is left is read and written") {
    const std::string bytes = SomeBytes(300000);
    for (const TRule& rule : {TRule(C::copy_file_range, EXDEV), TRule(C::copy_file_range, EINVAL), TRule(C::copy_file_range, ENOSYS),
                              TRule(C::copy_file_range, EOPNOTSUPP), TRule(C::copy_file_range, EIO), TRule(C::copy_file_range, EINTR).At(1),
                              TRule(C::copy_file_range, 0).Giving(0), TRule(C::copy_file_range, 0).Giving(0).At(2)}) {
        SCOPED_TRACE(std::strerror(rule.Code));
        TWorld world;
        WriteFile(world.From, bytes);
        TPlan plan({rule});
        plan.Run([&] { TFile::Copy(world.From, world.To); });
        EXPECT_TRUE(ReadFile(world.To) == bytes);
        TPlan full({rule, TRule(C::write, ENOSPC)});
        if (rule.Count > 1) // otherwise nothing is left to write
            full.Run([&] { EXPECT_THROW(TFile::Copy(world.From, world.To), EException); });
    }
}

FAULT_TEST(DirectoryReadThatFailsLosesNoEntry, readdir, "Read", "`EException: directory reading failed: WHY`, and the next call delivers") {
    TWorld world;
    std::multiset<std::string> names;
    const int locks = LocksHeld();
    TDirectory directory(world.Place.GetPath());
    TPlan plan({TRule(C::readdir, EIO).At(2)});
    plan.Run([&] {
        names.insert(directory.Read().GetName());
        EXPECT_KEST_THROW(directory.Read(), EException, Described("directory reading failed: ", EIO));
        for (std::string name; name != "EEnd: end of directory"; names.insert(name))
            name = OutcomeOf([&] { return directory.Read().GetName(); });
    });
    EXPECT_EQ(names, (std::multiset<std::string>{".", "..", "EEnd: end of directory", "from", "to"}));
    EXPECT_EQ(LocksHeld(), locks);
}

TEST(Fault, MutexHasNoOwnerAnyMoreWhenItIsFree) {
    TMutex mutex(true);
    mutex.Enter();
    TPlan plan({TRule(C::pthread_mutex_unlock, 0).Made([&] { mutex.Enter(); })}); // as soon as another thread could
    plan.Run([&] { mutex.Leave(); });
    EXPECT_TRUE(mutex.TryEnter()) << "whoever entered is not inside";
    mutex.Leave();
    mutex.Leave();
}

FAULT_TEST(SymbolThatIsNotThereIsNull, dlsym, "GetSymbolAddress", "the result `nullptr`") {
    EXPECT_EQ(TDLL("libc.so.6").GetSymbolAddress("no such symbol"), nullptr);
}

TEST(Fault, DescriptorZeroIsOneLikeAnyOther) {
    TWorld world;
    (void)::close(0);
    EXPECT_EQ(TSocket(StreamOf("fs")).GetDescriptor(), 0);
    const int before = OpenDescriptors();
    TPlan plan({{C::rename, EXDEV}, {C::openat, [] { errno = EACCES; }}}); // which a call that succeeds leaves
    plan.Run([&] { TFile::Copy(world.From, world.To), _RenameHelper(world.From, world.To); });
    EXPECT_EQ(OpenDescriptors(), before);
    (void)::open("/dev/null", O_RDONLY); // the number is taken again
}

// Sockets.

TAddress NoPeer() {
    return {"fs", "/", false};
}

/// An operation that gives the error of its call the class of that error.
struct TOperation {
    template <class TBody>
    TOperation(TCall call, const char* name, TBody body)
        : Call(call), Name(name), Body([body](TWorld& w) { return OutcomeOf([&] { return body(w); }); }),
          Case(NameOf(call), name, "by the error: the class for it, or `EException: WHY`") {}

    TCall Call;
    const char* Name;
    std::function<std::string(TWorld&)> Body;
    TCase Case;
};

char Bytes[8];
TAddress Peer("fs");

const TOperation Operations[] = {
    {C::dup, "a copy of a TSocket", [](TWorld& w) { TSocket{w.Net.Client}; }},
    {C::accept, "Accept", [](TWorld& w) { w.Net.Listener.Socket.Accept(Peer); }},
    {C::getsockname, "GetLocalAddress", [](TWorld& w) { w.Net.Client.GetLocalAddress(Peer); }},
    {C::getpeername, "GetPeerAddress", [](TWorld& w) { w.Net.Client.GetPeerAddress(Peer); }},
    {C::connect, "Connect", [](TWorld& w) { TSocket(StreamOf("fs")).Connect(w.Net.Listener.Address); }},
    {C::recv, "Receive", [](TWorld& w) { return w.Net.Client.Receive(Bytes, 4); }},
    {C::recvfrom, "ReceiveFrom", [](TWorld& w) { return w.Net.Client.ReceiveFrom(Bytes, 4, Peer); }},
    {C::send, "Send", [](TWorld& w) { return w.Net.Client.Send(Bytes, 4); }},
    {C::sendto, "SendTo", [](TWorld& w) { return w.Net.Client.SendTo(Bytes, 4, NoPeer()); }},
    {C::select, "SelectRead", [](TWorld& w) { return w.Net.Client.SelectRead(1.0); }},
    {C::select, "SelectWrite", [](TWorld& w) { return w.Net.Client.SelectWrite(1.0); }},
    {C::select, "Receive", [](TWorld& w) { return w.Net.Client.Receive(Bytes, 4); }},
    {C::shutdown, "Shutdown", [](TWorld& w) { w.Net.Client.Shutdown(true, false); }},
};

TEST(Fault, EachErrorOfASocketsCallHasItsClass) {
    const struct {
        int Code;
        std::string Outcome;
    } errors[] = {
        {EINTR, "EShutdown: " + Shutdown.substr(6) + ": interrupted system call"},
        {EAGAIN, "EWouldBlock: " + WouldBlock.substr(6)},
        {EINPROGRESS, "EWouldBlock: " + WouldBlock.substr(6)},
        {EINVAL, "ENotConnected: " + NotConnected.substr(6)},
        {ENOTCONN, "ENotConnected: " + NotConnected.substr(6)},
        {EPIPE, "EIOError: " + IOError.substr(6) + ": broken pipe"},
        {ENETRESET, "EReset: " + Reset.substr(6)},
        {ECONNRESET, "EReset: " + Reset.substr(6)},
        {ECONNABORTED, "EAbort: " + Abort.substr(6)},
        {ETIMEDOUT, "ETimeout: " + Timeout.substr(6)},
        {ECONNREFUSED, ""}, // an error without a class: the description alone
        {EALREADY, ""},
        {ESHUTDOWN, ""},
        {EBADF, ""},
        {ENOMEM, ""},
    };
    TWorld world;
    for (const TOperation& operation : Operations) {
        for (const auto& [code, special] : errors) {
            const std::string expected = special.empty() ? std::string("EException: ") + std::strerror(code) : special;
            SCOPED_TRACE(std::string(operation.Name) + " fails with " + std::strerror(code));
            TPlan plan({TRule(operation.Call, code)});
            std::string outcome(1000, '\0');
            const auto before = Resources();
            outcome.assign(plan.Run([&] { return operation.Body(world); }).c_str());
            ExpectNothingLeaked(before);
            EXPECT_EQ(outcome, expected);
            EXPECT_GE(plan.CountOf(operation.Call), 1);
            errno = code;
            EXPECT_EQ(OutcomeOf([&] { return world.Net.Client.CheckIOResult(-1); }), expected);
        }
    }
    // A failed shutdown does not change what an earlier shutdown brought.
    TPlan plan({TRule(C::shutdown, EBADF)});
    const auto fail = [&] { plan.Run([&] { EXPECT_THROW(world.Net.Client.Shutdown(false, true), EException); }); };
    fail();
    EXPECT_KEST_THROW((errno = EPIPE, world.Net.Client.CheckIOResult(-1)), Interface::_Socket::EIOError, IOError + ": broken pipe");
    world.Net.Client.Shutdown(false, true);
    fail();
    EXPECT_KEST_THROW(world.Net.Client.Send("x", 1), Interface::_Socket::EShutdown, Shutdown + ": when send");
}

/// The calls that @p action makes by these rules, and what it throws: nothing where the rules expect a call that would block.
template <class TAction>
std::string LogOf(std::vector<TRule> rules, const TAction& action) {
    TPlan plan(std::move(rules));
    plan.Run(action);
    return plan.Log(
        {C::send, C::sendto, C::recv, C::recvfrom, C::accept, C::select, C::nanosleep, C::connect, C::fcntl, C::listen, C::exception});
}

// 16384 is MSG_NOSIGNAL, 16448 is MSG_NOSIGNAL | MSG_DONTWAIT; the number of select is its seconds, -1 without a limit.
TEST(Fault, EachTransferMakesItsCallsWithTheirFlags) {
    TWorld world;
    TSocket& client = world.Net.Client;
    const TRule few = TRule(C::send, 0).Giving(3);
    for (const unsigned backlog : {0U, 5U})
        EXPECT_EQ(LogOf({}, [&] { world.Net.Listener.Socket.Listen(backlog); }), backlog == 0 ? "listen(128)" : "listen(5)");
    EXPECT_EQ(LogOf({few}, [&] { EXPECT_EQ(client.Send(Bytes, 8), 3); }), "send(16384)");
    EXPECT_EQ(LogOf({}, [&] { client.Receive(Bytes, 1); }), "select(-1) recv(16384)");
    EXPECT_EQ(LogOf({}, [&] { client.ReceiveFrom(Bytes, 1, Peer); }), "select(-1) recvfrom(16384)");
    EXPECT_EQ(LogOf({TRule(C::accept, EMFILE)}, [&] { EXPECT_THROW(world.Net.Listener.Socket.Accept(Peer), EException); }),
              "accept() exception()");

    client.SetSendTimeout(20.0);
    client.SetReceiveTimeout(7.0);
    EXPECT_EQ(LogOf({few.At(1), TRule(C::send, EAGAIN).At(2, 2), few.At(4), TRule(C::send, EINPROGRESS).At(5)},
                    [&] { EXPECT_EQ(client.Send(Bytes, 8), 8); }),
              "send(16448) send(16448) select(1) send(16448) nanosleep(5000000) select(1) send(16448) send(16448) select(1) send(16448)");
    for (const auto& [interrupted, calls] : {std::pair(C::select, ""), {C::nanosleep, " send(16448) nanosleep(5000000)"}})
        EXPECT_EQ(LogOf({TRule(C::send, EAGAIN).At(1, 2), TRule(interrupted, EINTR)},
                        [&] { EXPECT_THROW(client.Send(Bytes, 8), Interface::_Socket::EShutdown); }),
                  std::string("send(16448) select(1)") + calls + " exception()");
    const TRule all = TRule(C::sendto, 0).Giving(8);
    EXPECT_EQ(LogOf({TRule(C::sendto, EAGAIN).At(1), all}, [&] { EXPECT_EQ(client.SendTo(Bytes, 8, NoPeer()), 8); }),
              "sendto(16448) select(1) sendto(16448)");
    EXPECT_EQ(LogOf({TRule(C::send, EPIPE)}, [&] { EXPECT_THROW(client.Send(Bytes, 8), Interface::_Socket::EIOError); }),
              "send(16448) exception()");
    EXPECT_EQ(LogOf({}, [&] { client.Receive(Bytes, 1); }), "select(7) recv(16384)");
    client.SetBlocking(false);
    EXPECT_EQ(LogOf({few}, [&] { EXPECT_EQ(client.Send(Bytes, 8), 3); }), "send(16384)");
    EXPECT_EQ(LogOf({}, [&] { client.Receive(Bytes, 1); }), "recv(16384)");
    world.Net.Listener.Socket.SetReceiveTimeout(3.0);
    EXPECT_EQ(
        LogOf({TRule(C::select, 0).Giving(0)}, [&] { EXPECT_THROW(world.Net.Listener.Socket.Accept(Peer), Interface::_Socket::ETimeout); }),
        "select(3) exception()");
}

// 66 is MSG_PEEK | MSG_DONTWAIT: only an "fs" socket counts a lone urgent byte as readable.
TEST(Fault, WaitBesideUrgentDataMakesFewCallsAndReportsWhatTheyTell) {
    using namespace Interface::_Socket;
    for (const bool isInet : {true, false}) {
        TConnection connection(isInet ? "inet" : "fs");
        ASSERT_EQ(::send(connection.Server.GetDescriptor(), "!", 1, MSG_OOB), 1);
        EXPECT_TRUE(connection.Client.SelectRead(Soon));
        const auto expect = [&](double limit, const std::vector<TRule>& rules, const char* outcome, const std::string& log) {
            connection.Client.SetReceiveTimeout(limit);
            const std::string made =
                LogOf(rules, [&] { EXPECT_EQ(OutcomeOf([&] { return connection.Client.Receive(Bytes, 1); }).find(outcome), 0U); });
            EXPECT_EQ(made.substr(0, log.size()), log);
            EXPECT_LE(made.size(), 20 * sizeof "nanosleep(5000000) select(0) recv(66)");
        };
        const std::string pause = " nanosleep(5000000)", end = " exception()";
        const std::string first = isInet ? "select(0)" : "select(0) recv(66)";
        expect(1e-9, {}, "ETimeout", first + end);
        const std::string paused = first + pause;
        expect(0.05, {}, "ETimeout", isInet ? "select(0) select(0)" + end : paused + " select(0) recv(66)");
        expect(0.05, {{C::nanosleep, EINTR}}, isInet ? "ETimeout" : "EShutdown", isInet ? "" : paused + end);
        expect(0.05, {{C::recv, ECONNRESET}}, isInet ? "ETimeout" : "EReset", isInet ? "" : first + end);
        expect(-1.0, {}, "ENotConnected", "select(-1)" + end);
    }
}

FAULT_TEST(TimedConnectIsInBlockingModeAgainHoweverItEnds, connect, "Connect with a limit", "as without, in blocking mode again") {
    const std::string begin = "fcntl(read) fcntl(nonblocking) connect()";
    const std::string end = " fcntl(read) fcntl(blocking)", thrown = " exception()";
    TWorld world;
    const auto connect = [&](std::vector<TRule> rules, const char* outcome, const std::string& log) {
        SCOPED_TRACE(log);
        TSocket socket(StreamOf("fs"));
        socket.SetSendTimeout(0.02);
        EXPECT_EQ(
            LogOf(std::move(rules),
                  [&] { EXPECT_EQ(OutcomeOf([&] { socket.Connect(world.Net.Listener.Address); }), Filled(outcome, world, ECONNREFUSED)); }),
            log);
        EXPECT_EQ(IsInBlockingMode(socket), log.find(begin) != 0 || log.find(end) != std::string::npos);
    };
    connect({}, "", begin + end);
    connect({TRule(C::connect, ECONNREFUSED)}, "EException: WHY", begin + thrown + end);
    const std::string interrupted = "EShutdown: " + Shutdown.substr(6) + ": interrupted system call";
    connect({TRule(C::connect, EINTR)}, interrupted.c_str(), begin + thrown + end);
    connect({TRule(C::connect, EAGAIN).At(1), TRule(C::nanosleep, EINTR)}, interrupted.c_str(),
            begin + " select(1) nanosleep(5000000)" + thrown + end);
    connect({TRule(C::connect, EALREADY).At(1), TRule(C::connect, ETIMEDOUT).At(2)}, ("ETimeout: " + Timeout.substr(6)).c_str(),
            begin + " select(1) connect()" + thrown + end);
    connect({TRule(C::connect, EAGAIN).At(1)}, "", begin + " select(1) nanosleep(5000000) connect()" + end);
    connect({TRule(C::connect, EINPROGRESS).At(1)}, "", begin + " select(1) connect()" + end);
    connect({TRule(C::connect, EINPROGRESS), TRule(C::select, EINVAL)}, ("ENotConnected: " + NotConnected.substr(6)).c_str(),
            begin + " select(1)" + thrown + end);
    connect({TRule(C::connect, EINPROGRESS), TRule(C::select, [] { throw std::bad_alloc(); })}, "bad_alloc", begin + " select(1)" + end);
    // The limit has passed when the call is made the second time.
    TRule slow(C::select, [] { std::this_thread::sleep_for(std::chrono::milliseconds(25)); });
    connect({TRule(C::connect, EINPROGRESS), slow}, ("ETimeout: " + Timeout.substr(6)).c_str(),
            begin + " select(1) connect()" + thrown + end);
    connect({TRule(C::gettimeofday, ECONNREFUSED).At(1)}, "EException: WHY", "fcntl(read) fcntl(nonblocking)" + thrown + end);
    connect({TRule(C::fcntl, EBADF).At(1)}, "EException: socket blocking setup failure", "fcntl(read)" + thrown);
    connect({TRule(C::fcntl, EBADF).At(3)}, "EException: socket blocking setup failure", begin + " fcntl(read)" + thrown);
    connect({TRule(C::fcntl, EBADF).At(3), TRule(C::connect, EINPROGRESS), TRule(C::select, [] { throw std::bad_alloc(); })},
            "EException: socket blocking setup failure", begin + " select(1) fcntl(read)" + thrown);
    connect({TRule(C::fcntl, EBADF).At(3), TRule(C::connect, ECONNREFUSED)}, "EException: socket blocking setup failure",
            begin + thrown + " fcntl(read)" + thrown);
}

FAULT_TEST(CloseThatFailsDuringAnUnwindingIsSilent, close, "~TSocket, while an exception is propagating",
           "no failure, and no second attempt") {
    TPlan plan({TRule(C::close, EIO).Made()});
    EXPECT_EQ(plan.Run([&] {
        return OutcomeOf([&] {
            const TSocket socket(StreamOf("fs"));
            throw EException("first");
        });
    }),
              "EException: first");
    EXPECT_EQ(plan.Log({C::shutdown, C::close}), "shutdown(2) close()");
}

TEST(Fault, ModeThatCouldNotBeSetIsNotBelieved) {
    TWorld world;
    TSocket& server = world.Net.Server;
    server.SetReceiveTimeout(0.001);
    for (const int call : {1, 2}) {
        TPlan plan({TRule(C::fcntl, EBADF).At(call)});
        plan.Run([&] { EXPECT_THROW(server.SetBlocking(false), EException); });
        EXPECT_THROW(server.Receive(Bytes, 1), Interface::_Socket::ETimeout);
    }
}

} // namespace
