/// @file
/// Answers each line of each client with its length in bytes, a space and the line. Every client has a thread of its own, so that a slow,
/// silent or broken client costs nobody else anything. The server survives hostile clients and lack of memory, threads and descriptors.
///
/// Shows      listening and accepting, streams over sockets, time limits, a thread for each client and how all are ended, signals.
/// Arguments  DOMAIN ADDRESS [LIMIT [CLIENTS]]: "inet" and host:port, port 0 for any free one, or "fs" and the path of a socket to create;
///            seconds to wait for a client, 0 for no limit (60); how many clients are served at a time, others being told "busy" (256).
/// Output     "listening on ADDRESS" when it is ready; on standard error, why a client was ended or refused.
/// Status     0 ended by SIGINT or SIGTERM; 1 it cannot listen; 2 bad arguments.

#include "line_protocol.h"

#include <kest/foundation/time.h>
#include <kest/net/address.h>
#include <kest/net/socket.h>
#include <kest/net/socket_stream.h>
#include <kest/threads/thread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

using Kest::EException;
using Kest::System::GetCurrentTime;
using Kest::System::TSocket;
using Kest::System::TThread;
using Kest::System::TThreadInstance;
using namespace Kest::System::Interface::_Socket;

namespace {

constexpr char Usage[] = "usage: line_server DOMAIN ADDRESS [LIMIT [CLIENTS]]\n"
                         "  DOMAIN   inet or fs\n"
                         "  ADDRESS  inet: host:port, port 0 for any free one; fs: the path of a socket to create\n"
                         "  LIMIT    seconds to wait for a client, 0 for no limit; 60 if not given\n"
                         "  CLIENTS  how many clients are served at a time, 1 to 10000; 256 if not given\n"
                         "Prints \"listening on ADDRESS\" when it is ready. Ends at SIGINT and SIGTERM, with status 0.\n";

struct TOptions {
    std::string Domain;
    std::string Address;
    double Limit = 60;
    unsigned MostClients = 256;
};

std::atomic<int> StopRequested{0}; // int, not bool: every processor writes a whole word at once
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler may only touch what needs no lock");

void RequestStop(int) {
    StopRequested = 1;
}

/// Writes a line to standard error in one call, so that the lines of several threads do not mix. Needs no memory, which may have run out.
/// Writes nothing while nobody reads, so that a full pipe holds no thread. If another process fills the pipe just before the call, a
/// cancellation or a signal ends the call. std::cerr would stay bad after that.
void Report(std::string_view subject, std::string_view text) {
    pollfd errors{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&errors, 1, 0) != 1)
        return;
    const std::array<std::string_view, 4> parts{"line_server: ", subject, text, "\n"};
    std::array<iovec, parts.size()> pieces{};
    std::transform(parts.begin(), parts.end(), pieces.begin(), [](std::string_view part) {
        return iovec{const_cast<char*>(part.data()), part.size()}; // NOLINT(*-const-cast): the call reads, its type is for both ways
    });
    (void)::writev(STDERR_FILENO, pieces.data(), pieces.size()); // nobody could be told of a failure
}

/// Memory kept for the messages of exceptions: the library ends the process when it cannot compose a message. When an allocation of any
/// thread fails, a piece goes back to the system, where every thread can get it, and the allocation is tried again. The server takes no
/// client until all pieces are kept again.
namespace Reserve {

constexpr std::size_t PieceSize{256 * 1024UL}; // larger than what the C library asks of the system at a time
std::array<std::atomic<void*>, 16> Pieces{};   // together larger than the largest allocation of the server

/// Fills the reserve, for the main thread. False when there is not enough memory.
bool Fill() {
    for (auto& piece : Pieces) {
        if (piece != nullptr)
            continue;
        void* const memory = ::mmap(nullptr, PieceSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            return false;
        piece = memory;
    }
    return true;
}

/// The new handler.
void Release() {
    for (auto& piece : Pieces) {
        if (void* const memory = piece.exchange(nullptr)) {
            (void)::munmap(memory, PieceSize);
            return;
        }
    }
    throw std::bad_alloc();
}

/// Requires: called before there is a second thread.
bool Begin() {
#ifdef M_ARENA_MAX
    (void)::mallopt(M_ARENA_MAX, 1); // else the C library keeps 64 MiB of addresses for each of the first threads, whatever comes
#endif
    std::set_new_handler(Release);
    return Fill();
}

} // namespace Reserve

/// A client and its thread. Only Run() and what it calls run in that thread; everything else is for the main thread.
class TClient final : public TThread {
public:
    /// Gets what the client needs, the memory for its longest line and the thread, before there is a connection that might be lost.
    TClient(unsigned number, double limit) : Name("client " + std::to_string(number) + ": "), Limit(limit) {
        Line.reserve(Lines::LongestLine);
    }
    ~TClient() noexcept override { // closing a TSocket may throw, which ends the process in a thread's destructor
        Interrupt(true);
        CancelAndFinish();
    }

    /// Takes @p accepted over and starts the thread. Nothing in it can fail.
    void Begin(const TSocket& accepted) {
        Socket.emplace(accepted);
        Descriptor = Socket->GetDescriptor();
        Start();
    }

    bool IsFinished() const { return Finished; }

    /// Ends a wait of the thread for input or, with @p sendingToo, for room to send. A socket object belongs to one thread at a time, but
    /// the connection does not. So this makes the bare call. A copy of the object would need another descriptor for each client.
    void Interrupt(bool sendingToo) const {
        (void)::shutdown(Descriptor, sendingToo ? SHUT_RDWR : SHUT_RD); // fails when the client is gone already
    }

private:
    /// Uses two streams over one socket. A flush drops the input that its stream has read ahead: the next lines of a client that does not
    /// wait for its answers. The stream for input is never flushed, so it loses nothing.
    int Run() override {
        try {
            SetLimits();
            TSocket::TStream input(*Socket, Lines::BufferSize);
            TSocket::TStream output(*Socket, Lines::BufferSize);
            input.tie(&output); // answers go out when the input is used up: one call for all lines that came together
            const std::string_view failure = Serve(input, output);
            if (!failure.empty() && !StopRequested)
                Report(Name, failure);
            SayGoodbye();             // before the streams are destroyed, which would wait for a client that takes nothing
        } catch (const EException&) { // the client is gone
        } catch (const std::exception& failure) {
            Report(Name, failure.what()); // no memory for the streams
        }
        Finished = true;
        return 0;
    }

    void SetLimits() {
        constexpr double aYear = 365.0 * 24 * 60 * 60; // without a limit a flush may send a part and keep what is left
        Socket->SetReceiveTimeout(Limit);
        Socket->SetSendTimeout(Limit == Kest::System::EndlessTimeInterval ? aYear : Limit);
    }

    /// Answers lines until the client or the server ends it. Returns what went wrong, or nothing.
    std::string_view Serve(TSocket::TStream& input, TSocket::TStream& output) {
        auto read = Lines::TRead::Line;
        while (output && (read = Lines::ReadLine(input, Line, Lines::LongestLine)) == Lines::TRead::Line)
            output << Line.size() << ' ' << Line << '\n';
        if (read == Lines::TRead::TooLong) {
            output.flush();
            return "ended, a line is longer than 1048576 bytes";
        }
        constexpr int timedOut = -1;
        constexpr int wasShutDown = -2;
        const int result = output ? input.GetLastResult() : output.GetLastResult();
        if (result == timedOut)
            return output ? "ended, nothing came within the limit" : "ended, answers were not taken within the limit";
        if (output && result == wasShutDown && !Line.empty() && !StopRequested)
            output << Line.size() << ' ' << Line << '\n' << std::flush; // its last line had no newline
        return output && result == wasShutDown ? "" : "ended, the connection is broken";
    }

    /// Closing a socket with unread input makes the system reset the connection, and the client may lose its last answers. So this ends
    /// sending and reads what still comes, for about a second.
    void SayGoodbye() {
        Socket->Shutdown(false, true);
        constexpr double patience = 1.0;
        Socket->SetReceiveTimeout(patience);
        std::array<char, Lines::BufferSize> ignored{};
        const double end = GetCurrentTime() + patience;
        while (GetCurrentTime() < end)
            Socket->Receive(ignored.data(), Lines::BufferSize); // ends with an exception when the client closes
    }

    const std::string Name;
    const double Limit;
    std::string Line;
    std::atomic<bool> Finished{false};
    std::optional<TSocket> Socket; ///< for Run() alone until the thread has ended
    int Descriptor = -1;
};

/// Takes clients and looks after them. For the main thread: signals reach it alone, since a TThread blocks them.
class TServer {
public:
    TServer(TSocket& listener, const TOptions& options) : Listener(listener), Options(options), Peer(options.Domain) {
        Clients.reserve(options.MostClients);
        Listener.SetBlocking(false); // a connection that is gone before it is accepted must not make accepting wait
    }

    /// Serves until a signal. A signal that comes just before the wait is noticed after it.
    void Serve() {
        while (!StopRequested) {
            try {
                if (Listener.SelectRead(0.5))
                    TakeClient();
            } catch (const EIOError&) { // the client is gone already, or a signal
            } catch (const EException& failure) {
                WaitInShortage(Lines::ReasonOf(failure)); // no descriptor
            } catch (const std::exception& failure) {
                WaitInShortage(failure.what()); // no memory
            }
            Reap();
            (void)Reserve::Fill();
        }
        EndAll();
    }

private:
    void TakeClient() {
        TSocket accepted = Listener.Accept(Peer); // marked for hand-over: the client takes the descriptor
        std::unique_ptr<TClient> client = MakeClient();
        if (client == nullptr)
            return Refuse(accepted);
        client->Begin(accepted);
        Clients.push_back(std::move(client));
        IsShort = false;
    }

    /// Null when there is no room for another client.
    std::unique_ptr<TClient> MakeClient() {
        if (Clients.size() == Options.MostClients)
            return Complain("there are as many as there may be");
        try {
            auto client = std::make_unique<TClient>(++Number, Options.Limit);
            return Reserve::Fill() ? std::move(client) : Complain("no memory");
        } catch (const EException& failure) {
            return Complain(Lines::ReasonOf(failure)); // no thread
        } catch (const std::exception& failure) {
            return Complain(failure.what()); // no memory
        }
    }

    /// Reads a little of what the client has sent, since closing with unread input resets the connection. Does not wait.
    static void Refuse(TSocket& client) {
        client.SetBlocking(false);
        client.Send(Lines::Busy.data(), static_cast<unsigned>(Lines::Busy.size()));
        client.Shutdown(false, true);
        std::array<char, Lines::BufferSize> ignored{};
        for (int rounds = 0; rounds < 16; ++rounds)
            client.Receive(ignored.data(), Lines::BufferSize); // ends with an exception when nothing is left
    }

    /// Reports the first of several clients that cannot be taken.
    std::nullptr_t Complain(std::string_view reason) {
        if (!IsShort)
            Report("cannot take a client: ", reason);
        IsShort = true;
        return nullptr;
    }

    /// Pauses while a client cannot be taken. The client waits in the queue of the listener, which stays readable: without a pause the
    /// server would spin.
    void WaitInShortage(std::string_view reason) {
        Complain(reason);
        TThreadInstance::Sleep(0.1);
    }

    /// Joins and forgets the threads that have ended.
    void Reap() {
        const auto isFinished = [](const std::unique_ptr<TClient>& client) { return client->IsFinished(); };
        Clients.erase(std::remove_if(Clients.begin(), Clients.end(), isFinished), Clients.end());
    }

    /// Gives all threads half a second to end. Then cuts off those that still send to clients that take nothing.
    void EndAll() {
        for (const auto& client : Clients)
            client->Interrupt(false);
        for (int rounds = 0; rounds < 50 && !Clients.empty(); ++rounds) {
            TThreadInstance::Sleep(0.01);
            Reap();
        }
        Clients.clear();
    }

    TSocket& Listener;
    const TOptions& Options;
    TSocket::TAddress Peer;
    std::vector<std::unique_ptr<TClient>> Clients;
    unsigned Number = 0;
    bool IsShort = false;
};

/// The address as given, but with the number that the system chose in the place of port 0.
std::string ListeningAddress(const TSocket& listener, const TOptions& options) {
    if (options.Domain != "inet")
        return options.Address;
    TSocket::TAddress own(options.Domain);
    listener.GetLocalAddress(own);
    return own.Get(false);
}

/// Binds, and names the address when that fails. A failed TSocket::Bind looks up the name of the address, and where there is none, as for
/// 0.0.0.0, its exception only says so.
void Bind(TSocket& listener, const TSocket::TAddress& address, const std::string& text) {
    try {
        listener.Bind(address);
    } catch (const EBadAddress&) {
        throw EException("socket bind failed: " + text);
    }
}

void Run(const TOptions& options) {
    const TSocket::TAddress address(options.Domain, options.Address, true);
    TSocket listener(Lines::ConnectionOf(options.Domain));
    listener.SetReuseAddress(true);
    Bind(listener, address, options.Address);
    // From here on the file of an "fs" listener is removed, whichever way this ends.
    const std::unique_ptr<const char, int (*)(const char*)> file(options.Domain == "fs" ? options.Address.c_str() : nullptr, ::unlink);
    listener.Listen(0);
    TServer server(listener, options);
    std::cout << "listening on " << ListeningAddress(listener, options) << std::endl;
    if (!std::cout)
        throw EException("standard output cannot be written");
    server.Serve();
}

bool ParseClients(std::string_view text, unsigned& count) {
    constexpr unsigned most = 10000;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    return error == std::errc() && end == text.data() + text.size() && count >= 1 && count <= most;
}

bool Parse(int argc, char** argv, TOptions& options) {
    if (argc < 3 || argc > 5)
        return false;
    options.Domain = argv[1];
    options.Address = argv[2];
    return (argc < 4 || Lines::ParseLimit(argv[3], options.Limit)) && (argc < 5 || ParseClients(argv[4], options.MostClients));
}

void HandleSignals() {
    struct sigaction action = {};
    action.sa_handler = RequestStop; // without SA_RESTART: the signal ends the wait for clients
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN; // whoever reads standard error may go away, the server stays
    (void)::sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

int main(int argc, char** argv) {
    if (!Lines::FillStandardDescriptors() || !Reserve::Begin())
        return EXIT_FAILURE;
    TOptions options;
    if (!Parse(argc, argv, options)) {
        std::cerr << Usage;
        return 2;
    }
    HandleSignals();
    try {
        Run(options);
        return EXIT_SUCCESS;
    } catch (const EException& failure) {
        Report("", Lines::ReasonOf(failure));
    } catch (const std::exception& failure) {
        Report("", failure.what());
    }
    return EXIT_FAILURE;
}
