#include "world.h"

#include <cstdio>
#include <cstdlib>
#include <new>

#include <sys/wait.h>
#include <unistd.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::EException;

namespace {

/// Runs an action without memory. If the action failed, runs a check and then the action again, both with memory.
using TAttempt = std::function<void(const std::function<void()>& action, const std::function<void()>& check)>;

enum TEnd { Success, Failure, NoMemory = 42, Terminated }; ///< of a child process

/// An operation: an action alone, or a function that prepares, makes the attempt and checks.
struct TRow {
    template <class TBody>
    TRow(const char* name, TBody body, bool composes = false) : Name(name), Composes(composes) {
        if constexpr (std::is_invocable_v<TBody, TWorld&, const TAttempt&>)
            Operation = body;
        else
            Operation = [body](TWorld& w, const TAttempt& attempt) { attempt([&] { body(w); }, {}); };
    }

    friend std::ostream& operator<<(std::ostream& out, const TRow& row) { return out << row.Name; }

    const char* Name;
    std::function<void(TWorld&, const TAttempt&)> Operation;
    bool Composes; ///< a message: without memory for it the process ends; otherwise std::bad_alloc leaves
};

/// Runs an action that throws a TException. GoogleTest's own expectation would need memory when another exception comes.
template <class TException = EException, class TBody>
void Fail(const TBody& body) {
    try {
        body();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const TException&) {
    }
}

struct TSink : Kest::_Gadgets::TStream::TInterface {
    TSink() { Written.reserve(100); } // what is written needs no memory
    int Read(void*, unsigned) override { return 0; }
    int Write(const void* bytes, unsigned size) override {
        Written.append(static_cast<const char*>(bytes), size);
        return static_cast<int>(size);
    }
    std::string Written;
};

const std::string Long(60, 'x'); ///< too long for a string without memory

void AllocateStream(TWorld&, const TAttempt& attempt) {
    TSink sink;
    Kest::_Gadgets::TStream stream(sink, 8);
    stream << "pending";
    attempt([&] { stream.allocate(32); },
            [&] {
                EXPECT_EQ(sink.Written, "pending");
                EXPECT_EQ(stream.rdbuf()->sgetc(), -1) << "there are no buffers";
                EXPECT_EQ(stream.rdbuf()->sputc('x'), -1);
            });
    stream << "and more" << std::flush;
    EXPECT_EQ(sink.Written, "pendingand more");
}

void Accept(TWorld& w, const TAttempt& attempt) {
    TSocket client(StreamOf("fs"));
    client.Connect(w.Net.Listener.Address);
    TAddress peer("inet", "127.0.0.1:7", false);
    attempt([&] { const TSocket socket = w.Net.Listener.Socket.Accept(peer); }, [&] { EXPECT_EQ(peer.Get(false), "127.0.0.1:7"); });
}

void ReceiveFrom(TWorld& w, const TAttempt& attempt) {
    char byte = 0;
    TAddress sender("fs");
    attempt([&] { EXPECT_EQ(w.Net.Client.ReceiveFrom(&byte, 1, sender), 1); }, {});
    EXPECT_EQ(byte, 's') << "nothing was taken before";
}

void AskForAddress(TWorld& w, const TAttempt& attempt) {
    TAddress own("inet", "127.0.0.1:7", false);
    attempt([&] { w.Net.Client.GetLocalAddress(own); }, [&] { EXPECT_EQ(own.Get(false), "127.0.0.1:7"); });
}

void ReadDirectory(TWorld& w, const TAttempt& attempt) {
    WriteFile(w.Place / Long, "");
    TDirectory directory(w.Place.GetPath());
    int count = 0;
    attempt(
        [&] {
            for (; count < 5; ++count)
                (void)directory.Read();
        },
        {});
    EXPECT_THROW(directory.Read(), TDirectory::EEnd);
}

void AssignAddress(TWorld&, const TAttempt& attempt) {
    const TAddress from("fs", Long, false);
    TAddress to("inet", "1.2.3.4:5", false);
    attempt([&] { to = from; }, [&] { EXPECT_EQ(to.Get(false), "1.2.3.4:5"); });
    EXPECT_EQ(to.Get(false), Long);
}

void MoveFar(TWorld& w, const TAttempt& attempt) {
    TPlan plan({{TCall::rename, EXDEV}});
    attempt([&] { plan.Run([&] { TFile::Rename(w.From, w.To); }); }, {});
    EXPECT_LE(plan.CountOf(TCall::rename), 2) << "tried again without memory";
    EXPECT_EQ(TreeOf(w.Place.GetPath()), TTree{"to=content"});
}

void ReachTheEnd(TWorld&, const TAttempt& attempt) {
    TPlan plan({{TCall::readdir, 0}});
    TDirectory directory("/");
    attempt([&] { Fail<TDirectory::EEnd>([&] { plan.Run([&] { directory.Read(); }); }); }, {});
}

void LoseThePeer(TWorld& w, const TAttempt& attempt) {
    TPlan plan({{TCall::send, ECONNRESET}});
    attempt([&] { Fail<Interface::_Socket::EReset>([&] { plan.Run([&] { w.Net.Client.Send("x", 1); }); }); }, {});
}

void DetectLocale(TWorld&, const TAttempt& attempt) {
    (void)::setenv("LANG", (Long + '_' + Long + '.' + Long).c_str(), 1);
    const auto detect = [] { EXPECT_EQ(_TSystemLocaleDetector().Encoding, "UTF-8"); };
    attempt(detect, {});
    for (const char* name : {"C", "de_DE.UTF-8"}) { // short enough to need no memory
        (void)::setenv("LANG", name, 1);
        const TFailingNew failing;
        detect();
    }
}

void Describe(TWorld&) {
    errno = EPROTONOSUPPORT;
    const std::string description = _GetLastErrorDescription();
    EXPECT_EQ(errno, EPROTONOSUPPORT) << "an allocation changed it";
    EXPECT_EQ(description, std::strerror(EPROTONOSUPPORT));
}

void GoAndTell(TWorld& w) {
    TDirectory::Change(w.Place.GetPath());
    EXPECT_EQ(TDirectory::GetCurrent(), w.Place.GetPath());
}

const bool Composes = true;

const TRow Rows[] = {
    {"file state", [](TWorld& w) { TFile::TState{w.From}; }},
    {"full path", [](TWorld& w) { (void)TFile::GetPathName(w.From); }},
    {"copy", [](TWorld& w) { TFile::Copy(w.From, w.To); }},
    {"rename over file systems", MoveFar},
    {"file removed", [](TWorld& w) { TFile::Remove(w.From); }},
    {"directory made", [](TWorld& w) { TDirectory::Create(w.Place / "d"); }},
    {"directory", [](TWorld& w) { TDirectory{w.Place.GetPath()}; }},
    {"directory's entries", ReadDirectory},
    {"current directory", GoAndTell},
    {"accept", Accept},
    {"receive from", ReceiveFrom},
    {"socket's address", AskForAddress},
    {"socket's stream", [](TWorld& w) { TSocket::TStream(w.Net.Client, 16).get(); }},
    {"address", [](TWorld&) { (void)TAddress("inet", "127.0.0.1:1", true).Get(true); }},
    {"address of a path", [](TWorld&) { (void)TAddress(TAddress("fs", Long, false)).Get(false); }},
    {"address assigned", AssignAddress},
    {"stream's buffers", AllocateStream},
    {"thread", [](TWorld&) { TFunctionThread([] {}).Start(); }},
    {"text", [](TWorld&) { (void)UCSToUTF8(UTF8ToUCS(Long)); }},
    {"exception", [](TWorld&) { EException{Long}; }, Composes},
    {"description", Describe, Composes},
    {"locale", DetectLocale},
    {"missing file", [](TWorld&) { Fail([] { TFile::Remove("gone"); }); }, Composes},
    {"end of directory", ReachTheEnd, Composes},
    {"failed transfer", LoseThePeer, Composes},
    {"missing library", [](TWorld&) { Fail([] { TDLL{"gone"}; }); }, Composes},
};

/// How @p row ends when only @p allocations succeed.
TEnd EndOf(const TRow& row, long allocations) {
    SCOPED_TRACE("with memory for " + std::to_string(allocations) + " allocations");
    TWorld world;
    bool isEnough = true;
    row.Operation(world, [&](const std::function<void()>& action, const std::function<void()>& check) {
        const auto before = Resources();
        try {
            const TFailingNew failing(allocations);
            action();
        } catch (const std::bad_alloc&) {
            isEnough = false;
        }
        ExpectNothingLeaked(before);
        if (isEnough)
            return;
        if (check)
            check();
        action();
    });
    return isEnough ? Success : NoMemory;
}

/// The result of @p body in a process of its own, which may be terminated.
int InProcess(const std::function<TEnd()>& body) {
    const TTemporaryDirectory place; // a terminated process leaves its directories here
    std::fflush(nullptr);
    const bool hasFailed = testing::Test::HasFailure();
    const pid_t child = ::fork();
    if (child == 0) {
        (void)::setenv("TMPDIR", place.GetPath().c_str(), 1);
        std::set_terminate([] { ::_exit(Terminated); });
        const TEnd end = body();
        std::fflush(nullptr);
        ::_exit(testing::Test::HasFailure() && !hasFailed ? Failure : end);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : Failure;
}

using AllocationThatFails = testing::TestWithParam<TRow>;
INSTANTIATE_TEST_SUITE_P(Rows, AllocationThatFails, testing::ValuesIn(Rows), TNameOfRow());

TEST_P(AllocationThatFails, LeavesEverythingAsItWasOrEndsTheProcess) {
#ifdef KEST_THREAD_SANITIZER_OF_CLANG
    GTEST_SKIP() << "the sanitizer's own memory does not fail";
#endif
    (void)TAddress("inet", "127.0.0.1:1", true).Get(true); // makes what exists from the first use on
    const TRow& row = GetParam();
    int end = Terminated;
    for (long first = 0; end == Terminated && (row.Composes || first == 0); ++first)
        end = InProcess([&] {
            long allocations = first;
            TEnd each = EndOf(row, allocations);
            while (each == NoMemory && !row.Composes)
                each = EndOf(row, ++allocations);
#ifndef _LIBCPP_VERSION // libc++'s strings have room for short messages
            EXPECT_GT(allocations, 0) << "needs no memory";
#endif
            return each;
        });
    EXPECT_EQ(end, Success);
}

TEST(Fault, TextThatTheStringItselfHasRoomForNeedsNoMemory) {
    const std::string few(std::wstring().capacity(), 'x');
    const std::wstring many(std::string().capacity(), L'x');
    const TFailingNew failing(0);
    EXPECT_EQ(UTF8ToUCS(few).size(), few.size());
    EXPECT_EQ(UCSToUTF8(many).size(), many.size());
}

} // namespace
