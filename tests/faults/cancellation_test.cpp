#include "world.h"

#include <kest/foundation/unwinding.h>
#include <kest/threads/guard.h>

#include <atomic>
#include <climits>
#include <limits>
#include <list>
#include <utility>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

using namespace Kest::Test;
using namespace Kest::System;
using Kest::System::TMutex;
using C = TCall;

namespace {

/// AddressSanitizer does not notice that a cancellation leaves frames: it is told that nothing below is guarded any more.
__attribute__((no_sanitize("address"))) void ForgetLeftFrames() {
#ifdef __SANITIZE_ADDRESS__
    constexpr std::size_t deepest = 1 << 15;
    __asan_unpoison_memory_region(static_cast<char*>(__builtin_frame_address(0)) - deepest, deepest);
#endif
}

/// Asks the calling thread to end at its next cancellation point.
void CancelMyself() {
    (void)::pthread_cancel(::pthread_self());
}

/// A cancellation point.
void EndMyself() {
    CancelMyself();
    ::pthread_testcancel();
}

/// A transport in which the calling thread is cancelled, at the first call.
struct TTransport : Kest::_Gadgets::TStream::TInterface {
    KEST_LEFT_BY_CANCELLATION int Read(void*, unsigned) override {
        Cancel();
        return 0;
    }
    KEST_LEFT_BY_CANCELLATION int Write(const void* bytes, unsigned size) override {
        Cancel();
        Written.append(static_cast<const char*>(bytes), size);
        return static_cast<int>(size);
    }
    KEST_LEFT_BY_CANCELLATION void Cancel() {
        if (!std::exchange(IsCancelled, true))
            CancelMyself();
        ::pthread_testcancel();
    }

    bool IsCancelled = false;
    std::string Written;
};

/// What the cancelled thread works on, and what its unwinding came to.
struct TScene : TWorld {
    explicit TScene(const TTree& tree) : TWorld(tree) { Other.Start(); }
    ~TScene() { Go.Open(); }

    /// In the frame from which the thread is to be unwound.
    struct TWitness {
        explicit TWitness(TScene& scene) : Scene(scene), Blocks(BlocksInUse), Locks(LocksHeld()) {}
        TWitness(const TWitness&) = delete;
        TWitness& operator=(const TWitness&) = delete;
        ~TWitness() {
            ForgetLeftFrames();
            Scene.Leaked = {BlocksInUse - Blocks, LocksHeld() - Locks};
        }
        TScene& Scene;
        const long Blocks;
        const int Locks;
    };

    bool IsPast = false;
    std::array<long, 2> Leaked{-1, -1}; ///< blocks and locks, once it is unwound
    TMutex Plain{false}, Guard{true};
    TCondition Condition;
    TSocket Socket{StreamOf("fs")};
    TTransport Transport;
    TGate Go;
    TFunctionThread Other{[this] { return Go.Wait(), 9; }};
};

struct TRow {
    friend std::ostream& operator<<(std::ostream& out, const TRow& row) { return out << row.Name; }

    const char* Name;
    std::function<void(TScene&)> Body; ///< blocks, or cancels its thread itself
    bool Blocks = true;
    std::function<void(TScene&)> After = [](TScene&) {};
    TTree Before = {"from=content", "to=old"};
};

/// Returns when @p thread has handled a signal whose handler has the @p flags.
void Signal(unsigned long thread, int flags) {
    static std::atomic<int> handled;
    struct sigaction action {};
    action.sa_handler = [](int) { ++handled; };
    action.sa_flags = flags;
    (void)::sigaction(SIGUSR1, &action, nullptr);
    [[maybe_unused]] const int before = handled;
    EXPECT_EQ(::pthread_kill(thread, SIGUSR1), 0);
// ThreadSanitizer keeps the handler back until a call ends that it does not take for one that waits, and such a call goes on.
#if !defined(__SANITIZE_THREAD__) && !defined(KEST_THREAD_SANITIZER_OF_CLANG)
    while (handled == before)
        std::this_thread::yield();
#endif
}

/// Waits in a recursive guard that is entered so often, or, with 0, in a plain guard.
std::function<void(TScene&)> Waiting(int entries, double limit) {
    return [=](TScene& s) {
        TMutex& guard = entries == 0 ? s.Plain : s.Guard;
        std::list<_TScopedEntry> more;
        const _TScopedEntry entry(guard);
        for (int left = entries - 1; left > 0; --left)
            more.emplace_back(guard);
        limit < 0 ? s.Condition.Wait(guard) : (void)s.Condition.Wait(guard, limit);
    };
}

void GuardIsFree(TScene& s) {
    for (TMutex* guard : {&s.Plain, &s.Guard}) {
        EXPECT_TRUE(OthersMayEnter(*guard));
        const _TScopedEntry entry(*guard);
        EXPECT_FALSE(s.Condition.Wait(*guard, 0.001));
    }
}

[[maybe_unused]] void OtherEnds(TScene& s) {
    s.Go.Open();
    EXPECT_EQ(s.Other.WaitFor(), 9) << "the handle was not put back";
}

void ConnectToFull(TScene& s, double limit) {
    const TFullListener listener("fs");
    s.Socket.SetSendTimeout(limit);
    s.Socket.Connect(listener.Address);
}

void SendToFull(TScene& s, double limit) {
    TSocket receiver(DatagramOf("fs"));
    const TAddress place("fs", s.Place / "receiver", false);
    receiver.Bind(place);
    TSocket sender(DatagramOf("fs"));
    sender.SetBlocking(false);
    try {
        for (;;)
            (void)sender.SendTo("x", 1, place);
    } catch (const Interface::_Socket::EWouldBlock&) {
    }
    sender.SetBlocking(true);
    sender.SetSendTimeout(limit);
    (void)sender.SendTo("x", 1, place);
}

/// Makes the calling thread go by @p rules while it runs @p body.
template <class TBody>
std::function<void(TScene&)> By(const std::vector<TRule>& rules, TBody body) {
    return [=](TScene& s) {
        TPlan plan(rules);
        plan.Run([&] { body(s); });
    };
}

/// A stream with something pending, in which @p action cancels the thread.
template <class TAction>
std::function<void(TScene&)> Streaming(unsigned size, TAction action) {
    return [=](TScene& s) {
        Kest::_Gadgets::TStream stream(s.Transport, size);
        stream << "pending";
        action(stream);
    };
}

/// Releases, which a cancellation that is pending must not disturb.
template <class TBody>
std::function<void(TScene&)> Releasing(TBody body) {
    return [=](TScene& s) {
        body(s);
        s.IsPast = true;
        TThreadInstance::Yield();
    };
}

template <class TBody>
std::function<void(TScene&)> Limited(TBody body) {
    return [=](TScene& s) {
        for (TSocket* socket : {&s.Net.Server, &s.Net.Listener.Socket}) {
            socket->SetReceiveTimeout(100.0);
            socket->SetSendTimeout(100.0);
        }
        body(s);
    };
}

void FillAndSelect(TScene& s) {
    FillUp(s.Net.Server);
    s.Net.Server.SelectWrite(100.0);
}

void FlushTooMuch(TScene& s) {
    TSocket::TStream stream(s.Net.Server, 1 << 25);
    stream << TooMuch() << std::flush;
}

void HandleAndSync(Kest::_Gadgets::TStream& stream) try { throw 1; } catch (int) {
    stream.sync();
}

void IsWritten(TScene& s) {
    EXPECT_EQ(s.Transport.Written, "pending");
}
void IsGivenUp(TScene& s) {
    EXPECT_EQ(s.Transport.Written, "");
}
void IsWrittenAndPast(TScene& s) {
    IsWritten(s);
    EXPECT_TRUE(s.IsPast);
}
void IsPast(TScene& s) {
    EXPECT_TRUE(s.IsPast);
}
void ModeIsBlocking(TScene& s) {
    EXPECT_TRUE(IsInBlockingMode(s.Socket));
}

/// Keeps a pipe open at both ends, so that opening it does not block.
struct THeldPipe {
    explicit THeldPipe(const std::string& path) : Descriptor(::open(path.c_str(), O_RDWR)) {}
    THeldPipe(const THeldPipe&) = delete;
    THeldPipe& operator=(const THeldPipe&) = delete;
    ~THeldPipe() { (void)::close(Descriptor); }
    const int Descriptor;
};

const auto Copy = [](TScene& s) { TFile::Copy(s.From, s.To); };
const auto Move = By({{C::rename, EXDEV}}, [](TScene& s) { TFile::Rename(s.From, s.To); });

/// Does @p body while both ends of the pipe @p name are open, so that opening it does not block.
template <class TBody>
std::function<void(TScene&)> Held(const char* name, TBody body) {
    return [=](TScene& s) {
        const THeldPipe held(s.Place / name);
        body(s);
    };
}

std::function<void(TScene&)> TreeIs(const TTree& tree) {
    return [=](TScene& s) { EXPECT_EQ(TreeOf(s.Place.GetPath()), tree); };
}

void Resolve(TScene&) {
    (void)TAddress("inet", "127.0.0.1:1", false).Get(true);
}

struct TPlainThread : TThread {
    int Run() override { return 0; }
};

/// Leaves a scope with a running thread in it, by way of @p action.
void Leaving(TScene& s, void (*action)()) {
    TGate inside;
    TFunctionThread thread([&] {
        inside.Open();
        TThreadInstance::Sleep(0.05);
        s.IsPast = true;
    });
    thread.Start();
    inside.Wait();
    action();
}

char Byte;
TAddress Peer("fs");
const bool Itself = false;
const double None = -1.0;
const TTree PipeToFile = {"from|", "to=old"};
const TTree FileToPipe = {"from=" + std::string(200000, 'x'), "to|"};
const TRule CancelInAddressLookUp(C::gethostbyaddr, &CancelMyself);

void ReceivesNext(TScene& s) {
    s.Net.Client.Send("y", 1);
    EXPECT_EQ(s.Net.Server.Receive(&Byte, 1), 1);
}

void AcceptsNext(TScene& s) {
    s.Socket.Connect(s.Net.Listener.Address);
    EXPECT_EQ(s.Net.Listener.Socket.Accept(Peer).SelectRead(0.001), false);
}

const TRow Rows[] = {
    {"wait", Waiting(1, None), true, GuardIsFree},
    {"wait, entered three times", Waiting(3, None), true, GuardIsFree},
    {"wait, not recursive", Waiting(0, None), true, GuardIsFree},
    {"wait, 0.0", Waiting(1, 0.0), true, GuardIsFree},
    {"wait, 1000.0", Waiting(1, 1000.0), true, GuardIsFree},
    {"wait, infinite, entered three times", Waiting(3, std::numeric_limits<double>::infinity()), true, GuardIsFree},
    {"sleep, -0.0", [](TScene&) { TThreadInstance::Sleep(-0.0); }},
    {"sleep, 1e300", [](TScene&) { TThreadInstance::Sleep(1e300); }},
// ThreadSanitizer's pthread_join cannot be cancelled.
#if !defined(__SANITIZE_THREAD__) && !defined(KEST_THREAD_SANITIZER_OF_CLANG) && !defined(KEST_CALLS_WITHOUT_UNWINDING)
    {"wait for a thread", [](TScene& s) { s.Other.WaitFor(); }, true, OtherEnds},
#endif
    {"receive", [](TScene& s) { s.Net.Server.Receive(&Byte, 1); }, true, ReceivesNext},
    {"receive from", [](TScene& s) { s.Net.Server.ReceiveFrom(&Byte, 1, Peer); }, true, ReceivesNext},
    {"receive with a limit", Limited([](TScene& s) { s.Net.Server.Receive(&Byte, 1); }), true, ReceivesNext},
    {"accept", [](TScene& s) { s.Net.Listener.Socket.Accept(Peer); }, true, AcceptsNext},
    {"accept without waiting",
     [](TScene& s) {
         s.Socket.Connect(s.Net.Listener.Address);
         s.Net.Listener.Socket.SetBlocking(false);
         Releasing(By({{C::accept, &CancelMyself}}, [](TScene& t) { t.Net.Listener.Socket.Accept(Peer); }))(s);
     },
     Itself, IsPast},
    {"accept on what a copy has switched to blocking mode",
     [](TScene& s) {
         s.Net.Listener.Socket.SetBlocking(false);
         (void)::fcntl(s.Net.Listener.Socket.GetDescriptor(), F_SETFL, 0);
         s.Net.Listener.Socket.Accept(Peer);
     },
     true, AcceptsNext},
    {"accept with a limit", Limited([](TScene& s) { s.Net.Listener.Socket.Accept(Peer); }), true, AcceptsNext},
    {"send", [](TScene& s) { SendTooMuch(s.Net.Server); }},
    {"send with a limit", Limited([](TScene& s) { SendTooMuch(s.Net.Server); })},
    {"send to", [](TScene& s) { SendToFull(s, 0.0); }},
    {"send to with a limit", [](TScene& s) { SendToFull(s, 100.0); }},
    {"connect", [](TScene& s) { ConnectToFull(s, 0.0); }},
    {"connect with a limit", [](TScene& s) { ConnectToFull(s, 100.0); }, true, ModeIsBlocking},
    // The ninth call for a mode: six are of the three clients of the full listener, and two make this one non-blocking.
    {"connect whose mode cannot be set back", By({TRule(C::fcntl, EBADF).At(9)}, [](TScene& s) { ConnectToFull(s, 100.0); })},
    {"select to read", [](TScene& s) { s.Net.Server.SelectRead(100.0); }},
    {"select to read, 0.0", [](TScene& s) { s.Net.Server.SelectRead(0.0); }},
    {"select to write", FillAndSelect},
    // Between the steps of others.
    {"look-up of a name", By({CancelInAddressLookUp}, Resolve), Itself, Resolve},
    {"look-up of a protocol", By({{C::getprotobyname, &CancelMyself}}, [](TScene&) { TSocket{StreamOf("fs")}; }), Itself, Resolve},
    {"look-up of a host", By({{C::gethostbyname2_r, &CancelMyself}}, [](TScene&) { TAddress("inet", "127.0.0.1:1", true); }), Itself},
#ifndef KEST_CALLS_WITHOUT_UNWINDING
    {"copy from a pipe that nobody opens", Copy, true, TreeIs(PipeToFile), PipeToFile},
    {"copy to a pipe that nobody opens", Copy, true, TreeIs(FileToPipe), FileToPipe},
    {"rename of a pipe that nobody opens", Move, true, TreeIs(PipeToFile), PipeToFile},
#endif
    {"copy from a silent pipe", Held("from", Copy), true, TreeIs({"from|", "to="}), PipeToFile},
    {"copy to a full pipe", Held("to", Copy), true, TreeIs(FileToPipe), FileToPipe},
    {"rename of a silent pipe", Held("from", Move), true, TreeIs(PipeToFile), PipeToFile},
    // Releasing comes to its end, and the thread is cancelled at its next point.
    {"stream's final flush", Releasing(Streaming(16, [](auto&) {})), Itself, IsWrittenAndPast},
    {"flush from a sentry", Releasing(Streaming(16, [](auto& stream) { stream << std::unitbuf << ""; })), Itself, IsWrittenAndPast},
    {"socket", Releasing([](TScene& s) { CancelMyself(), TSocket(s.Socket); }), Itself, IsPast},
    {"directory", Releasing(By({{C::closedir, &EndMyself}}, [](TScene& s) { TDirectory{s.Place.GetPath()}; })), Itself, IsPast},
    {"thread", Releasing([](TScene&) { CancelMyself(), TPlainThread(); }), Itself, IsPast},
    {"thread that runs", Releasing([](TScene& s) { Leaving(s, &CancelMyself); }), Itself, IsPast},
    {"thread that runs, unwinding", [](TScene& s) { Leaving(s, &EndMyself); }, Itself, IsPast},
    {"files of a copy", Releasing(By({{C::close, &EndMyself}}, Copy)), Itself, IsPast},
    {"library", Releasing(By({{C::dlopen, &EndMyself}, {C::dlclose, &EndMyself}}, [](TScene&) { TDLL{"libc.so.6"}; })), Itself, IsPast},
};

/// Where a cancellation leaves a standard stream.
const TRow RowsOfStreams[] = {
    {"read from a socket's stream", [](TScene& s) { TSocket::TStream(s.Net.Server, 16).get(); }},
    {"write to a socket's stream", [](TScene& s) { TSocket::TStream(s.Net.Server, 0) << TooMuch(); }},
    {"flush of a socket's stream", FlushTooMuch},
    // Streams over a transport that is cancelled: what is pending is written by the destructor, unless a write was cut off.
    {"refill", Streaming(16, [](auto& stream) { stream.get(); }), Itself, IsWritten},
    {"refill without a buffer", [](TScene& s) { Kest::_Gadgets::TStream(s.Transport, 1).get(); }, Itself},
    {"write without a buffer", Streaming(1, [](auto&) {}), Itself},
    {"flush", Streaming(16, [](auto& stream) { stream.flush(); }), Itself, IsGivenUp},
    {"flush while an exception is handled", Streaming(16, HandleAndSync), Itself, IsGivenUp},
    {"destroying a buffer", Streaming(16, [](auto& stream) { stream.DestroyBuffer(); }), Itself, IsGivenUp},
    {"another buffer", Streaming(16, [](auto& stream) { stream.allocate(4); }), Itself, IsGivenUp},
    {"full buffer", Streaming(7, [](auto& stream) { stream << '!'; }), Itself, IsGivenUp},
};

/// A thread that waits by the row.
template <class TWaiting>
struct TWaitingThread : testing::TestWithParam<TWaiting> {
    void SetUp() override {
#ifdef __powerpc64__
        if (std::getenv("KEST_EMULATOR") != nullptr)
            GTEST_SKIP() << "the unwinder does not know qemu's frames of signals, by which waits are cancelled";
#endif
    }
};

using CancelledThread = TWaitingThread<TRow>;
INSTANTIATE_TEST_SUITE_P(Rows, CancelledThread, testing::ValuesIn(Rows), TNameOfRow());
INSTANTIATE_TEST_SUITE_P(RowsOfStreams, CancelledThread,
                         testing::ValuesIn(std::begin(RowsOfStreams),
                                           StreamsAreCancelled ? std::end(RowsOfStreams) : std::begin(RowsOfStreams)),
                         TNameOfRow());

TEST_P(CancelledThread, UnwindsAndReleasesWhatItHeld) {
    (void)TooMuch(); // made here, since the thread counts its blocks
    const TRow& row = GetParam();
    TScene scene(row.Before);
    auto before = Resources();
    before.back() = LONG_MAX; // each thread counts its own memory
    {
        std::atomic<pid_t> number{0};
        TFunctionThread thread([&] {
            const TScene::TWitness witness(scene);
            number = ::gettid();
            row.Body(scene);
        });
        thread.Start();
        if (row.Blocks) {
            EXPECT_TRUE(FallsAsleep(number));
            thread.Cancel();
        }
        EXPECT_EQ(thread.WaitFor(), -1);
    }
    EXPECT_EQ(scene.Leaked, (std::array<long, 2>{0, 0})) << "blocks and locks, or not unwound";
    row.After(scene);
    ExpectNothingLeaked(before);
}

/// An operation that waits, and what becomes of it when a signal is handled: text for OutcomeOf() and Filled().
struct TWait {
    template <class TPrepare>
    TWait(const char* name, TPrepare prepare, const char* plain, const char* restarting, TTree tree = {"from=content", "to=old"},
          bool endsByGate = false)
        : Name(name), Prepare([=](TScene& s) { return [wait = prepare(s)] { return OutcomeOf(wait); }; }), Plain(plain),
          Restarting(restarting), Tree(std::move(tree)), EndsByGate(endsByGate) {}
    friend std::ostream& operator<<(std::ostream& out, const TWait& wait) { return out << wait.Name; }

    const char* Name;
    std::function<std::function<std::string()>(TScene&)> Prepare; ///< returns the operation that waits
    const char *Plain, *Restarting;                               ///< with a handler without and with SA_RESTART
    TTree Tree;
    bool EndsByGate; ///< the scene's gate ends it, and no cancellation
};

const char* const GoesOn = "goes on";
const char* const Cut = "EShutdown: socket IO error: socket connection aborted: socket connection was shutdown'ed: interrupted system call";
const char* const CopyCut = "EException: file copy error: from FROM to TO";
const char* const MoveCut = "EException: cross device link: tryed to copy and remove: copy failed";
const auto MoveOnce = By({{C::rename, EXDEV}}, [](TScene& s) { _RenameHelper(s.From, s.To); });

template <class TBody>
auto Once(TBody body) {
    return [=](TScene& s) { return [=, &s] { body(s); }; };
}

auto Connecting(double limit) {
    return [=](TScene& s) {
        s.Socket.SetSendTimeout(limit);
        return [&s, listener = std::make_shared<TFullListener>("fs")] { s.Socket.Connect(listener->Address); };
    };
}

auto SendingOne(double limit) {
    return [=](TScene& s) {
        FillUp(s.Net.Server);
        s.Net.Server.SetSendTimeout(limit);
        return [&s] { s.Net.Server.Send("x", 1); };
    };
}

auto EnteringWhatIsHeld(TScene& s) {
    auto holder = std::make_shared<TFunctionThread>([&s] {
        const _TScopedEntry entry(s.Guard);
        s.Go.Wait();
    });
    holder->Start();
    while (OthersMayEnter(s.Guard))
        std::this_thread::yield();
    return [&s, holder] { const _TScopedEntry entry(s.Guard); };
}

int ReadStream(TScene& s) {
    TSocket::TStream stream(s.Net.Server, 16);
    stream.get();
    return stream.GetLastResult();
}

const TWait Waits[] = {
    {"Receive", Once([](TScene& s) { s.Net.Server.Receive(&Byte, 1); }), Cut, Cut},
    {"ReceiveFrom", Once([](TScene& s) { s.Net.Server.ReceiveFrom(&Byte, 1, Peer); }), Cut, Cut},
    {"ValidateReceive", Once([](TScene& s) { s.Net.Server.ValidateReceive(); }), Cut, Cut},
    {"SelectRead", Once([](TScene& s) { s.Net.Server.SelectRead(0.0); }), Cut, Cut},
    {"SelectWrite", [](TScene& s) { return FillUp(s.Net.Server), [&] { s.Net.Server.SelectWrite(0.0); }; }, Cut, Cut},
    {"read from a stream", [](TScene& s) { return [&] { return ReadStream(s); }; }, "-2", "-2"},
    {"Accept", Once([](TScene& s) { s.Net.Listener.Socket.Accept(Peer); }), Cut, GoesOn},
    {"Accept with a limit", Once(Limited([](TScene& s) { s.Net.Listener.Socket.Accept(Peer); })), Cut, Cut},
    {"Connect", Connecting(0.0), Cut, GoesOn},
    {"Connect with a limit", Connecting(100.0), Cut, Cut},
    {"Send", SendingOne(0.0), Cut, GoesOn},
    {"Send with a limit", SendingOne(100.0), Cut, Cut},
    {"Send of which a part is out", [](TScene& s) { return [&] { return SendTooMuch(s.Net.Server) > 0; }; }, "1", "1"},
    {"SendTo", Once([](TScene& s) { SendToFull(s, 0.0); }), Cut, GoesOn},
    {"SendTo with a limit", Once([](TScene& s) { SendToFull(s, 100.0); }), Cut, Cut},
    {"Sleep", Once([](TScene&) { TThreadInstance::Sleep(1000.0); }), "", ""},
    {"Sleep without a limit", Once([](TScene&) { TThreadInstance::Sleep(0.0); }), GoesOn, GoesOn},
    {"Wait", Once(Waiting(1, None)), GoesOn, GoesOn},
    {"Wait with a limit", Once(Waiting(1, 1000.0)), GoesOn, GoesOn},
    {"Enter", EnteringWhatIsHeld, GoesOn, GoesOn, {}, true},
    {"WaitFor", Once([](TScene& s) { s.Other.WaitFor(); }), GoesOn, GoesOn, {}, true},
#ifndef KEST_CALLS_WITHOUT_UNWINDING
    {"Copy of a pipe that nobody opens", Once(Copy), CopyCut, GoesOn, PipeToFile},
    {"Rename of a pipe that nobody opens", Once(Move), GoesOn, GoesOn, PipeToFile},
    {"_RenameHelper of a pipe that nobody opens", Once(MoveOnce), MoveCut, GoesOn, PipeToFile},
#endif
    {"_RenameHelper of a silent pipe", Once(Held("from", MoveOnce)), GoesOn, GoesOn, PipeToFile},
};

using SignalledThread = TWaitingThread<TWait>;
INSTANTIATE_TEST_SUITE_P(Rows, SignalledThread, testing::ValuesIn(Waits), TNameOfRow());

TEST_P(SignalledThread, GoesOnOrEndsWhateverTheHandler) {
    const TWait& row = GetParam();
    for (const int flags : {0, SA_RESTART}) {
        SCOPED_TRACE(flags == 0 ? "without SA_RESTART" : "with SA_RESTART");
        TScene scene(row.Tree);
        const std::string expected = Filled(flags == 0 ? row.Plain : row.Restarting, scene, 0);
        const auto wait = row.Prepare(scene);
        std::string outcome;
        std::atomic<bool> isOver{false};
        std::atomic<pid_t> number{0};
        TFunctionThread thread([&] {
            const TScene::TWitness witness(scene);
            number = ::gettid();
            outcome = wait();
            isOver = true;
        });
        thread.Start();
        EXPECT_TRUE(FallsAsleep(number));
        Signal(thread.GetId(), flags);
        for (int tries = 0; expected != GoesOn && !isOver && tries < 5000; ++tries, TThreadInstance::Sleep(0.001))
            (void)::pthread_kill(thread.GetId(), SIGUSR1); // the last signal may have come between two waits
        EXPECT_TRUE(isOver || FallsAsleep(number));
        EXPECT_EQ(isOver ? outcome : GoesOn, expected);
        scene.Go.Open();
        const bool isCancelled = !isOver && !row.EndsByGate;
        if (isCancelled)
            thread.Cancel();
        EXPECT_EQ(thread.WaitFor(), isCancelled ? -1 : 0);
        if (row.Tree == PipeToFile) {
            EXPECT_EQ(TreeOf(scene.Place.GetPath()), row.Tree);
        }
    }
}

TEST(Fault, MoveCancelledAtAnyCallIsMadeAsAWholeOrNotAtAll) {
    const TTree before = {"from=content", "to=old"};
    const TRule far(C::rename, EXDEV);
    TPlan calm({far});
    {
        TScene scene(before);
        calm.Run([&] { _RenameHelper(scene.From, scene.To); });
    }
    int cancelled = 0;
    for (const TRule& rule : calm.ForEach(TRule(C::rename, &CancelMyself))) {
        SCOPED_TRACE(std::string(NameOf(rule.Call)) + " number " + std::to_string(rule.From));
        TScene scene(before);
        const int descriptors = OpenDescriptors();
        TFunctionThread thread([&] {
            const TScene::TWitness witness(scene);
            By({rule, far}, [](TScene& s) { _RenameHelper(s.From, s.To); })(scene);
        });
        thread.Start();
        const bool isCancelled = thread.WaitFor() == -1;
        cancelled += isCancelled ? 1 : 0;
        EXPECT_EQ(scene.Leaked, (std::array<long, 2>{0, 0}));
        EXPECT_EQ(TreeOf(scene.Place.GetPath()), isCancelled ? before : TTree{"to=content"});
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }
    EXPECT_GT(cancelled, 3);
}

} // namespace
