#include "world.h"

#include <kest/threads/guard.h>

#include <netdb.h>

using namespace Kest::Test;
using namespace Kest::System;
using Kest::System::TMutex;
using C = TCall;

namespace {

const TTree Usual = {"from=content", "to=old"};
const TTree Copied = {"from=content", "to=content"};
const TTree Emptied = {"from=content", "to="};
const TTree Alone = {"from=content"};
const TTree Moved = {"to=content"};
const TTree Linked = {"from=content", "to&from"};

/// An operation, the call that fails, and the outcome: text for OutcomeOf() and Filled(), and the files afterwards.
struct TRow {
    template <class TOperation>
    TRow(TRule rule, const char* operation, TOperation body, const char* outcome, TTree after = Usual)
        : Rules{std::move(rule)}, Operation(operation), Body([body](TWorld& w) { return OutcomeOf([&] { return body(w); }); }),
          Outcome(outcome), After(std::move(after)),
          Case(NameOf(Rules[0].Call), operation, *outcome == 0 ? "no failure" : (*outcome == 'E' ? "`" : "the result `") + Outcome + '`') {}

    /// Another rule that holds during the operation.
    TRow With(TRule rule) const {
        TRow row = *this;
        row.Rules.push_back(std::move(rule));
        return row;
    }
    TRow On(TTree tree) const {
        TRow row = *this;
        row.Before = std::move(tree);
        return row;
    }
    /// Without the fault the operation would not end, or would fail.
    TRow Once() const {
        TRow row = *this;
        row.Again = false;
        return row;
    }

    friend std::ostream& operator<<(std::ostream& out, const TRow& row) {
        return out << NameOf(row.Rules[0].Call) << " in " << row.Operation;
    }

    std::vector<TRule> Rules;
    const char* Operation;
    std::function<std::string(TWorld&)> Body;
    std::string Outcome;
    TTree After, Before = Usual;
    bool Again = true;
    TCase Case;
};

void WaitInside(double limit) {
    TMutex mutex(true);
    const _TScopedEntry entry(mutex);
    TCondition().Wait(mutex, limit);
}

bool TryRecursive(TWorld&) {
    TMutex mutex(true);
    const bool entered = mutex.TryEnter();
    if (entered)
        mutex.Leave();
    return entered;
}

int ExitValue(TWorld&) {
    TFunctionThread thread([] { return 5; });
    thread.Start();
    return thread.WaitFor();
}

void CancelSleeper(TWorld&) {
    std::atomic<bool> isInside{false};
    TFunctionThread thread([&] { isInside = true, TThreadInstance::Sleep(EndlessTimeInterval); });
    thread.Start();
    while (!isInside)
        std::this_thread::yield();
    thread.CancelAndFinish();
}

/// Destroys a thread that is past its gate and that nobody waited for.
void Abandon(TWorld&) {
    struct TDetached : TThread {
        int Run() override {
            Inside->Open();
            return 0;
        }
        std::shared_ptr<TGate> Inside = std::make_shared<TGate>();
    };
    const auto thread = std::make_unique<TDetached>();
    const auto inside = thread->Inside;
    thread->Start();
    inside->Wait();
}

/// Runs in the calling thread what a new thread runs.
std::intptr_t RunHere(TWorld&) {
    TFunctionThread thread([] { return 7; });
    thread.Start();
    return reinterpret_cast<std::intptr_t>(TThread::ThreadFunc(static_cast<TThread*>(&thread)));
}

std::string ApplicationOf(TWorld& w) {
    char* arguments[] = {const_cast<char*>(w.From.c_str()), nullptr};
    return GetApplicationFileName(1, arguments);
}

const char Odd[] = "an odd text";
char Registered[] = "registered";
char* Addresses[] = {Registered, nullptr};
const hostent Named{Registered, nullptr, AF_INET, 4, Addresses};
const hostent Addressless{Registered, nullptr, AF_INET, 4, Addresses + 1};

const char* const StateFailed = "EException: getting file state failed: WHY";
const char* const TimeFailed = "EException: SetLastModificationTime failed: WHY";
const char* const CopyError = "EException: file copy error: from FROM to TO";
const char* const CopyFailed = "EException: cross device link: tryed to copy and remove: copy failed";
const char* const RemoveFailed = "EException: cross device link: tryed to copy and remove: remove failed";
const char* const RenameFailed = "EException: rename failed: from 'FROM' to 'TO': WHY";
const char* const NoPath = "EException: realpath() failed";
const char* const NoMode = "EException: socket blocking setup failure";
const char* const BadAddress = "EBadAddress: bad socket address";
const char* const NoHost = "EBadAddress: bad socket address: host not resolved: 127.0.0.1:1";

const auto State = [](TWorld& w) { TFile::TState{w.From}; };
const auto SetModification = [](TWorld& w) { TFile::TState(w.From).SetLastModificationTime(1); };
const auto SetAccess = [](TWorld& w) { TFile::TState(w.From).SetLastAccessTime(1); };
const auto Copy = [](TWorld& w) { TFile::Copy(w.From, w.To); };
const auto Move = [](TWorld& w) { _RenameHelper(w.From, w.To); };
const auto Open = [](TWorld& w) { TDirectory{w.Place.GetPath()}; };
const auto Mutex = [](TWorld&) { TMutex{true}; };
const auto Rewind = [](TWorld&) { TDirectory("/").Rewind(); };
const auto Leave = [](TWorld& w) { TryRecursive(w); };
const auto Wait = [](TWorld&) { WaitInside(EndlessTimeInterval); };
const auto WaitShort = [](TWorld&) { WaitInside(-1.0); };
const auto Condition = [](TWorld&) { TCondition{}; };
const auto Socket = [](TWorld&) { TSocket{StreamOf("fs")}; };
const auto Blocking = [](TWorld& w) { w.Net.Client.SetBlocking(true); };
const auto Number = [](TWorld&) { return TAddress("inet", "127.0.0.1:1", false).Get(false); };
const auto Name = [](TWorld&) { return TAddress("inet", "127.0.0.1:1", false).Get(true); };
const auto Host = [](TWorld&) { TAddress("inet", "127.0.0.1:1", true); };
const auto Sleep = [](TWorld&) { TThreadInstance::Sleep(1000.0); };
const auto Broadcast = [](TWorld& w) { w.Net.Client.SetBroadcast(true); };
const auto ReuseAddress = [](TWorld& w) { w.Net.Client.SetReuseAddress(true); };
const auto ReceiveBuffer = [](TWorld& w) { w.Net.Client.SetReceiveBufferSize(9000); };
const auto Bind = [](TWorld& w) { TSocket(StreamOf("fs")).Bind(TAddress("fs", w.From + "2", false)); };
const auto Library = [](TWorld&) { TDLL{"libc.so.6"}; };
const TRule Far{C::rename, EXDEV}; ///< as between two file systems
const TRule Apart{C::copy_file_range, EXDEV};
const TRule Filtered{C::renameat2, EPERM};               ///< as in some containers
const TRule Late = TRule(C::pthread_create, 0).Made([] { // the other threads have gone as far as they can by then
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t number = std::stoi(thread.path().filename());
        EXPECT_TRUE(number == ::gettid() || FallsAsleep(number));
    }
});

const TRow Rows[] = {
    // Files and directories.
    {{C::stat, EACCES}, "TFile::TState", State, StateFailed},
    {{C::utime, EPERM}, "SetLastModificationTime", SetModification, TimeFailed},
    {{C::utime, EROFS}, "SetLastAccessTime", SetAccess, "EException: SetLastAccessTime failed: WHY"},
    {{C::stat, EACCES}, "TFile::Copy", Copy, StateFailed},
    {TRule(C::openat, EACCES).At(1), "TFile::Copy, of the source", Copy, CopyError},
    {TRule(C::openat, EMFILE).At(2), "TFile::Copy, of the destination", Copy, CopyError},
    {TRule(C::openat, EWOULDBLOCK).At(1), "TFile::Copy, until another process gives up its lease", Copy, "", Copied},
    TRow({C::nanosleep, EINTR}, "TFile::Copy, while another process holds a lease", Copy, CopyError).With({C::openat, EWOULDBLOCK}),
    {TRule(C::fstat, EIO).At(1), "TFile::Copy, of the source", Copy, CopyError},
    {TRule(C::fstat, EIO).At(2), "TFile::Copy, of the destination", Copy, CopyError},
    {{C::ftruncate, EIO}, "TFile::Copy", Copy, CopyError},
    {{C::fcntl, EBADF},
     "TFile::Copy to what is no regular file",
     [](TWorld& w) { TFile::Copy(w.From, "/dev/null"); },
     "EException: file copy error: from FROM to /dev/null"},
    {{C::futimens, EPERM}, "TFile::Copy", Copy, TimeFailed, Copied},
    TRow({C::read, EIO}, "TFile::Copy", Copy, CopyError, Emptied).With(Apart),
    TRow({C::write, ENOSPC}, "TFile::Copy", Copy, CopyError, Emptied).With(Apart),
    TRow(TRule(C::read, EINTR).At(1), "TFile::Copy, interrupted", Copy, "", Copied).With(Apart),
    TRow(TRule(C::read, EAGAIN).At(1), "TFile::Copy, of what makes its reader wait", Copy, "", Copied).With(Apart),
    TRow(TRule(C::write, EAGAIN).At(1), "TFile::Copy, to what makes its writer wait", Copy, "", Copied).With(Apart),
    TRow(TRule(C::write, EINTR).At(1), "TFile::Copy, interrupted", Copy, "", Copied).With(Apart),
    TRow(TRule(C::write, 0).Giving(3).At(1), "TFile::Copy, a part at first", Copy, "", {"from=content", "to=tent"}).With(Apart),
    TRow(TRule(C::copy_file_range, 0).Giving(5).At(1), "TFile::Copy, a part at first", Copy, "", Copied)
        .With(TRule(C::copy_file_range, 0).Giving(0)),
    {TRule(C::close, EIO).Made(), "TFile::Copy", Copy, "", Copied},
    {{C::remove, EACCES}, "Remove", [](TWorld& w) { TFile::Remove(w.From); }, "EException: unable to remove file 'FROM': WHY"},
    {{C::rename, EACCES}, "_RenameHelper", Move, RenameFailed},
    {{C::lstat, EACCES}, "_RenameHelper, after it succeeded", Move, "", {"to=content"}},
    // No content of a file with two names is lost; a name that cannot be told from the other name stays.
    TRow({C::openat, EMFILE}, "_RenameHelper, of the folder of a hard link", Move, RenameFailed, Copied).On(Linked),
    TRow(TRule(C::renameat2, EPERM).At(1), "_RenameHelper, of a hard link", Move, RenameFailed, Copied).On(Linked),
    TRow({C::mknodat, ENOSPC}, "_RenameHelper, of a hard link", Move, RenameFailed, Copied).On(Linked).With(Filtered),
    TRow({C::renameat, EPERM}, "_RenameHelper, of a hard link", Move, RenameFailed, Copied).On(Linked).With(Filtered),
    TRow({C::unlinkat, EPERM}, "_RenameHelper, of a hard link", Move, RenameFailed, Copied).On(Linked),
    // Over file systems the old destination survives every failure of the copy.
    TRow(TRule(C::openat, EMFILE).At(4), "_RenameHelper, over file systems, of the copy", Move, CopyFailed).With(Far),
    TRow(TRule(C::openat, EACCES).At(2), "_RenameHelper, over file systems, of a folder not to be read", Move, "", Moved).With(Far),
    TRow({C::fstatat, EACCES}, "_RenameHelper, over file systems", Move, CopyFailed).With(Far),
    TRow({C::write, ENOSPC}, "_RenameHelper, over file systems", Move, CopyFailed).With(Far).With(Apart),
    TRow(TRule(C::fsync, ENOSPC).At(1), "_RenameHelper, over file systems", Move, CopyFailed).With(Far),
    TRow(TRule(C::fsync, EINTR).At(1, 2), "_RenameHelper, over file systems, interrupted", Move, "", Moved).With(Far),
    TRow(TRule(C::close, EDQUOT).Made().At(1), "_RenameHelper, over file systems", Move, CopyFailed).With(Far),
    TRow(TRule(C::renameat, EBUSY).At(1), "_RenameHelper, over file systems, of the copy", Move, CopyFailed).With(Far),
    TRow(TRule(C::fsync, EIO).At(2), "_RenameHelper, over file systems, of the folder", Move, CopyFailed, Alone).With(Far),
    TRow(TRule(C::fsync, EINVAL).At(2), "_RenameHelper, over file systems, of a folder without that", Move, "", Moved).With(Far),
    TRow({C::syncfs, EIO}, "_RenameHelper, over file systems, of a folder not to be read", Move, CopyFailed, Alone)
        .With(Far)
        .With(TRule(C::openat, EACCES).At(2)),
    TRow({C::statx, EPERM}, "_RenameHelper, over file systems", Move, "", Moved).With(Far),
    TRow(TRule(C::renameat2, EPERM).At(1), "_RenameHelper, over file systems, of the source", Move, RemoveFailed, Alone).With(Far),
    TRow({C::renameat2, EINVAL}, "_RenameHelper, over file systems, where it is never made", Move, "", Moved).With(Far),
    TRow({C::mknodat, ENOSYS}, "_RenameHelper, over file systems, where it is never made", Move, "", Moved).With(Far).With(Filtered),
    TRow(TRule(C::renameat2, ENOENT).At(1), "_RenameHelper, over file systems, of a source gone for a moment", Move, RemoveFailed, Copied)
        .With(Far),
    TRow({C::unlinkat, EIO}, "_RenameHelper, over file systems, of the source", Move, RemoveFailed, Copied).With(Far),
    TRow(TRule(C::renameat2, EINVAL).At(2), "_RenameHelper, over file systems, of a source that is put back", Move, RemoveFailed, Alone)
        .With(Far)
        .With(TRule(C::unlinkat, EIO).At(1)),
    {{C::realpath, EACCES}, "GetFullPathName", [](TWorld& w) { return GetFullPathName(w.From); }, NoPath},
    {{C::realpath, ELOOP}, "GetPathName", [](TWorld& w) { return TFile::GetPathName(w.From); }, NoPath},
    {{C::fnmatch, 0}, "GetFileNameMatch", [](TWorld&) { return GetFileNameMatch("a", "*"); }, "0"},
    {{C::opendir, EMFILE}, "TDirectory", Open, "EException: directory opening failed: WHY"},
    {TRule(C::closedir, EIO).Made(), "~TDirectory", Open, ""},
    {{C::mkdir, EACCES}, "Create", [](TWorld& w) { TDirectory::Create(w.Place / "d"); }, "EException: unable to create directory: WHY"},
    TRow({C::rmdir, EBUSY}, "Remove", [](TWorld& w) { TDirectory::Remove(w.To); }, "EException: unable to remove directory: WHY", {"to/"})
        .On({"to/"}),
    {{C::getcwd, ERANGE}, "GetCurrent", [](TWorld&) { TDirectory::GetCurrent(); }, "EException: unable to get current directory: WHY"},
    {{C::chdir, EACCES}, "Change", [](TWorld&) { TDirectory::Change("."); }, "EException: unable to set current directory to .: WHY"},
    // Time, process and messages.
    {{C::gettimeofday, EINVAL}, "GetCurrentTime", [](TWorld&) { GetCurrentTime(); }, "EException: WHY"},
    {{C::localtime_r, EOVERFLOW}, "_UTCLocalTimeDifference", [](TWorld&) { return _UTCLocalTimeDifference(0); }, "0"},
    TRow({C::nanosleep, EINTR}, "Sleep", Sleep, "").Once(),
    {{C::getenv, 0}, "locale detection", [](TWorld&) { return _TSystemLocaleDetector().Encoding; }, "UTF-8"},
    {{C::getenv, 0}, "GetApplicationFileName", ApplicationOf, "FROM"},
    {{C::getpriority, ESRCH}, "GetProcessPriority", [](TWorld&) { GetProcessPriority(); }, "EException: WHY"},
    {{C::setpriority, EACCES}, "SetProcessPriority", [](TWorld&) { SetProcessPriority(GetProcessPriority()); }, "EException: WHY"},
    TRow({C::strerror, Odd}, "a message", Open, "EException: directory opening failed: an odd text").With({C::opendir, EIO}),
    // Threads.
    {TRule(C::pthread_mutexattr_init, ENOMEM).Made(), "TMutex", Mutex, ""},
    {TRule(C::pthread_mutexattr_destroy, EINVAL).Made(), "TMutex", Mutex, ""},
    {TRule(C::pthread_mutex_init, EAGAIN).Made(), "TMutex", Mutex, ""},
    {TRule(C::pthread_mutex_destroy, EBUSY).Made(), "~TMutex", Mutex, ""},
    TRow({C::pthread_mutex_lock, EINVAL}, "Enter", Rewind, "").With({C::pthread_mutex_unlock, EPERM}),
    {{C::pthread_mutex_trylock, EBUSY}, "TryEnter", TryRecursive, "0"},
    TRow(TRule(C::pthread_mutex_unlock, EPERM), "Leave", Leave, "").With(TRule(C::pthread_mutex_trylock, 0)),
    {{C::pthread_cond_init, ENOMEM}, "TCondition", Condition, "EException: initialization of condition failed: WHY"},
    TRow({C::pthread_cond_wait, EPERM}, "Wait", Wait, "EException: condition wait failed: WHY").Once(),
    {{C::pthread_cond_timedwait, EPERM},
     "Wait with a limit",
     WaitShort,
     "EException: condition timed wait failure: pthread_cond_timedwait: WHY"},
    {{C::gettimeofday, EFAULT}, "Wait with a limit", WaitShort, "EException: condition timed wait failure: gettimeofday: WHY"},
    {{C::pthread_cond_signal, EINVAL}, "Signal", [](TWorld&) { TCondition().Signal(); }, ""},
    {{C::pthread_cond_broadcast, EINVAL}, "Broadcast", [](TWorld&) { TCondition().Broadcast(); }, ""},
    {TRule(C::pthread_cond_destroy, EBUSY).Made(), "~TCondition", Condition, ""},
    {{C::pthread_create, EAGAIN}, "TThread", [](TWorld&) { TFunctionThread{[] {}}; }, "EException: thread creation error"},
    {Late, "TThread, told its handle once the new thread has begun, and WaitFor", ExitValue, "5"},
    {Late, "TThread, told so, and ~TThread of a running thread", Abandon, ""},
    {Late, "TThread, told so, and ~TThread of one that was not started", [](TWorld&) { TFunctionThread{[] {}}; }, ""},
    {TRule(C::pthread_join, EDEADLK).Made(), "WaitFor", ExitValue, "0"},
    {TRule(C::pthread_join, EDEADLK).Made(), "Finish", [](TWorld&) { TFunctionThread([] {}).Finish(); }, ""},
    {TRule(C::pthread_cancel, ESRCH).Made(), "CancelAndFinish", CancelSleeper, ""},
    {TRule(C::pthread_detach, ESRCH).Made(), "~TThread", Abandon, ""},
    {{C::pthread_cancel, ESRCH}, "Cancel", [](TWorld&) { TFunctionThread([] {}).Cancel(); }, "EException: thread cancelation failed"},
    TRow({C::sigprocmask, EINVAL}, "the start of a thread", RunHere, "7").Once(),
    // Sockets.
    {{C::socket, EMFILE}, "TSocket", Socket, "EException: socket creation error"},
    {{C::getprotobyname, 0}, "TSocket", Socket, "EUnsupportedProtocol: unsupported socket protocol"},
    {{C::getprotobyname, ENFILE}, "TSocket, without a descriptor for it", Socket, "EException: socket creation error"},
    {TRule(C::close, EIO).Made(), "~TSocket", Socket, "EException: socket closing failed"},
    {{C::shutdown, ENOTCONN}, "~TSocket", Socket, ""},
    {TRule(C::fcntl, EBADF).At(1), "SetBlocking, asking for the mode", Blocking, NoMode},
    {TRule(C::fcntl, EBADF).At(2), "SetBlocking, setting the mode", Blocking, NoMode},
    {{C::setsockopt, EPERM}, "SetBroadcast", Broadcast, "EException: socket broadcast setup failure"},
    {{C::setsockopt, EPERM}, "SetReuseAddress", ReuseAddress, "EException: socket reuseaddr setup failure"},
    {{C::setsockopt, EPERM}, "SetSendBufferSize", [](TWorld& w) { w.Net.Client.SetSendBufferSize(9000); }, "EException: setsockopt failed"},
    {{C::getsockopt, EPERM}, "SetReceiveBufferSize", ReceiveBuffer, "EException: getsockopt failed"},
    {{C::bind, EADDRINUSE}, "Bind", Bind, "EException: socket bind failed: FROM2"},
    {{C::listen, EADDRINUSE}, "Listen", [](TWorld& w) { w.Net.Listener.Socket.Listen(0); }, "EException: socket listen failed"},
    // Addresses and the loader.
    {{C::gethostbyname2_r, ERANGE}, "TAddress of a name", Host, NoHost},
    {TRule(C::gethostbyname2_r, 0).Giving(0), "TAddress of a name without an entry", Host, NoHost},
    {TRule(C::inet_pton, 0).Giving(0), "TAddress of what is no number", Number, BadAddress},
    {{C::inet_pton, EAFNOSUPPORT}, "TAddress of a number", Number, BadAddress},
    {{C::inet_ntop, ENOSPC}, "Get(false)", Number, BadAddress},
    {{C::gethostbyaddr, 0}, "Get(true)", Name, BadAddress},
    {{C::gethostbyaddr, &Addressless}, "Get(true) of a host without an address", Name, BadAddress},
    TRow({C::inet_addr, 0}, "Get(true)", Name, BadAddress).With({C::gethostbyaddr, &Named}),
    TRow({C::dlopen, 0}, "TDLL", Library, "EException: an odd text").With(TRule(C::dlerror, Odd).At(1)),
    TRow({C::dlerror, 0}, "TDLL, for its message", Library, "EException: ").With({C::dlopen, 0}),
    {TRule(C::dlclose, 0).Made(), "~TDLL", Library, ""},
};

using EachCallThatFails = testing::TestWithParam<TRow>;
INSTANTIATE_TEST_SUITE_P(Rows, EachCallThatFails, testing::ValuesIn(Rows), TNameOfRow());

TEST_P(EachCallThatFails, HasItsOutcomeAndLeaksNothing) {
    const TRow& row = GetParam();
    const TRule& rule = row.Rules[0];
    TWorld world(row.Before);
    TPlan plan(row.Rules);
    const std::string expected = Filled(row.Outcome, world, rule.Code);
    std::string outcome(1000, '\0'); // has its memory before the fault
    const auto before = Resources();
    outcome.assign(plan.Run([&] { return row.Body(world); }).c_str());
    ExpectNothingLeaked(before);
    EXPECT_EQ(outcome, expected);
    EXPECT_GE(plan.CountOf(rule.Call), rule.From) << "not called";
    EXPECT_EQ(TreeOf(world.Place.GetPath()), row.After);
    if (row.Again && row.After == row.Before) {
        outcome = row.Body(world);
        EXPECT_EQ(outcome.find(": "), std::string::npos) << "afterwards: " << outcome;
    }
}

} // namespace
