// Socket streams under load and under fault, for a while: soak [SECONDS [CLIENTS [SEED]]]
//
// In rounds, every client opens a connection to a server thread of its own, over TCP on the loopback interface or over the file system;
// when all are open at once, they talk. A client sends frames of random bytes, a server answers each with all its bits turned over, and
// both check what comes. Most connections are disturbed meanwhile, each in one of these ways:
//
//   calm          not at all; with limits at both ends, so through the timed loops of the library
//   interrupted   signals interrupt calls of the client's thread, which the client makes again
//   half-closed   the client shuts down sending when its last frame is out and reads the answer after that
//   cut           the client or the server resets the connection (SO_LINGER 0) somewhere in a frame
//
// Every byte of the first three has to arrive; a connection that is cut ends early, but delivers no wrong byte. At the end no descriptor,
// thread or lock may be left, and memory has to be what it was after the first rounds. Prints a line for each fault, then one line of
// figures. Fails when there was a fault.
#include <kest/kest.h>
#include <support/descriptors.h>
#include <support/helper_thread.h>
#include <support/sockets.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <vector>

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

using namespace Kest::System;
using namespace Kest::Test;

namespace {

constexpr double Limit = 120.0;        ///< in seconds, for what should never take that long
constexpr int LowDescriptors = 1100;   ///< are occupied, so that every socket is beyond the 1024 that an fd_set holds
constexpr unsigned SendBuffer = 16384; ///< the system's, in bytes: smaller than many frames, so that calls block and send in parts
constexpr int WarmUpRounds = 2;        ///< after which memory has to stay as it is

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long MemoryGrowth = 320; ///< in MiB; AddressSanitizer keeps 256 of what was freed, ThreadSanitizer the past of threads
#else
constexpr long MemoryGrowth = 16; ///< in MiB; the heap's pools and the stacks kept for new threads vary by less
#endif

struct TFigures {
    std::atomic<std::int64_t> Connections{0};
    std::atomic<std::int64_t> Bytes{0}; ///< that came right, at both ends
    std::atomic<std::int64_t> Lost{0};  ///< that should have come and did not, or were wrong
    std::atomic<std::int64_t> InterruptedCalls{0};
    std::atomic<std::int64_t> HalfCloses{0};
    std::atomic<std::int64_t> Cuts{0};
};

TFigures Figures;

/// How many signals the calling thread has got.
thread_local volatile sig_atomic_t Signals = 0;

void NoteSignal(int) {
    Signals = Signals + 1;
}

/// The threads that signals are sent to.
class TTargets {
public:
    /// The calling thread is one while an object of this class lives.
    class TMembership {
    public:
        explicit TMembership(TTargets& targets) : Targets(targets) {
            Targets.Change([](auto& threads) { threads.push_back(::pthread_self()); });
        }
        TMembership(const TMembership&) = delete;
        TMembership& operator=(const TMembership&) = delete;
        ~TMembership() {
            Targets.Change([](auto& threads) { threads.erase(std::find(threads.begin(), threads.end(), ::pthread_self())); });
        }

    private:
        TTargets& Targets;
    };

    void SignalOne(std::mt19937& random) {
        Change([&](auto& threads) {
            if (!threads.empty())
                (void)::pthread_kill(threads[random() % threads.size()], SIGUSR1);
        });
    }

    TMutex Mutex{false};

private:
    template <class TAction>
    void Change(const TAction& action) {
        Mutex.Enter();
        action(Threads);
        Mutex.Leave();
    }

    std::vector<pthread_t> Threads;
};

constexpr unsigned LongestFrame = 1U << 18;

/// What happens to one connection. Both ends compute it from the number that the client sends first.
struct TPlan {
    enum TKind { Calm, Interrupted, HalfClosed, CutByClient, CutByServer, Kinds };

    TPlan(unsigned seed, unsigned number)
        : Random(seed * 1000003U + number), Kind(static_cast<TKind>(number / 2 % Kinds)), Frames(10 + Below(30)), CutAt(Below(Frames)),
          IsUnbuffered(Below(16) == 0), BufferSize(IsUnbuffered ? 1 : 2 + Below(65536)) {}

    unsigned Below(std::size_t limit) { return static_cast<unsigned>(Random() % limit); }

    std::string NextFrame() {
        const auto longest = IsUnbuffered ? 64U : Below(32) == 0 ? LongestFrame : 4096U;
        std::string frame(Below(longest + 1), ' ');
        std::generate(frame.begin(), frame.end(), [this] { return static_cast<char>(Random()); });
        return frame;
    }

    std::mt19937 Random;
    TKind Kind;
    unsigned Frames, CutAt; // each depends on those before it
    bool IsUnbuffered;
    unsigned BufferSize;
};

/// The connection is over.
struct TEnd {};

/// Frames over a socket stream: length, checksum, bytes.
class TChannel {
public:
    TChannel(TSocket& socket, unsigned bufferSize) : Stream(socket, bufferSize) {}

    /// Sends a frame, or the beginning of one.
    void Send(const std::string& frame, std::size_t length) {
        const std::uint32_t header[] = {static_cast<std::uint32_t>(frame.size()), ChecksumOf(frame)};
        Write(reinterpret_cast<const char*>(header), sizeof header);
        Write(frame.data(), length);
        Flush();
    }
    void Send(const std::string& frame) { Send(frame, frame.size()); }

    std::string Receive() {
        std::uint32_t header[2];
        Read(reinterpret_cast<char*>(header), sizeof header);
        std::string frame(header[0] <= LongestFrame ? header[0] : 0, ' ');
        Read(frame.data(), frame.size());
        if (frame.size() != header[0] || ChecksumOf(frame) != header[1]) {
            Figures.Lost += header[0];
            throw TEnd();
        }
        Figures.Bytes += static_cast<std::int64_t>(frame.size());
        return frame;
    }

private:
    static std::uint32_t ChecksumOf(const std::string& frame) { return static_cast<std::uint32_t>(std::hash<std::string>()(frame)); }

    // Of the stream's buffer, whose operations say how much they did.

    void Read(char* data, std::size_t size) {
        for (;;) {
            const auto before = Signals;
            const auto count = static_cast<std::size_t>(Stream.rdbuf()->sgetn(data, static_cast<std::streamsize>(size)));
            if (count == size)
                return;
            data += count;
            size -= count;
            Survive(before);
        }
    }

    void Write(const char* data, std::size_t size) {
        for (;;) {
            const auto before = Signals;
            const auto count = static_cast<std::size_t>(Stream.rdbuf()->sputn(data, static_cast<std::streamsize>(size)));
            if (count == size)
                return;
            data += count;
            size -= count;
            Survive(before);
        }
    }

    /// Flushes until no signal came: without a send limit a signal may end a call that has sent only a part.
    void Flush() {
        for (;;) {
            const auto before = Signals;
            Stream.flush();
            if (!Stream.good())
                Survive(before);
            else if (before == Signals)
                return;
        }
    }

    /// A shutdown after a signal may be an interrupted call, which did nothing. It is made again: if the connection is over, it says so
    /// again. With a send limit that would not do, for a timed call does not tell how much it sent before.
    void Survive(sig_atomic_t before) {
        constexpr int wasShutDown = -2;
        if (Stream.GetLastResult() != wasShutDown || before == Signals)
            throw TEnd();
        ++Figures.InterruptedCalls;
        Stream.clear();
    }

    TSocket::TStream Stream;
};

std::string AnswerTo(std::string frame) {
    std::transform(frame.begin(), frame.end(), frame.begin(), [](char c) { return static_cast<char>(~c); });
    return frame;
}

/// Makes the next close of the socket a reset.
void PrepareReset(const TSocket& socket) {
    const linger atOnce{1, 0};
    (void)::setsockopt(socket.GetDescriptor(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

/// Everything at the client's end that goes wrong with a connection that has to live counts as lost.
void RunClient(TListener& listener, TGate& allAreOpen, TTargets& targets, TPlan plan, unsigned number, const std::string& domain) {
    TSocket socket(StreamOf(domain));
    (void)socket.SetSendBufferSize(SendBuffer);
    (void)socket.SetReceiveTimeout(Limit);
    if (plan.Kind != TPlan::Interrupted)
        (void)socket.SetSendTimeout(Limit);
    socket.Connect(listener.Address);
    (void)allAreOpen.WaitFor(std::chrono::minutes(2));

    std::unique_ptr<TTargets::TMembership> membership;
    if (plan.Kind == TPlan::Interrupted)
        membership = std::make_unique<TTargets::TMembership>(targets);
    std::size_t missing = 0;
    try {
        TChannel channel(socket, plan.BufferSize);
        channel.Send(std::to_string(number));
        for (unsigned frame = 0; frame != plan.Frames; ++frame) {
            const std::string question = plan.NextFrame();
            missing += question.size() + 1; // an empty frame has to come as well
            if (plan.Kind == TPlan::CutByClient && frame == plan.CutAt) {
                channel.Send(question, plan.Below(question.size() + 1));
                PrepareReset(socket);
                throw TEnd();
            }
            channel.Send(question);
            if (plan.Kind == TPlan::HalfClosed && frame + 1 == plan.Frames) {
                socket.Shutdown(false, true);
                ++Figures.HalfCloses;
            }
            if (channel.Receive() != AnswerTo(question))
                Figures.Lost += static_cast<std::int64_t>(question.size());
            missing -= question.size() + 1;
        }
    } catch (const TEnd&) {
    }
    if (plan.Kind == TPlan::CutByClient || plan.Kind == TPlan::CutByServer)
        ++Figures.Cuts;
    else
        Figures.Lost += static_cast<std::int64_t>(missing);
}

void RunServer(TSocket& socket, unsigned seed) {
    (void)socket.SetSendBufferSize(SendBuffer);
    (void)socket.SetReceiveTimeout(Limit);
    (void)socket.SetSendTimeout(Limit);
    try {
        TChannel channel(socket, 65536);
        TPlan plan(seed, static_cast<unsigned>(std::stoul(channel.Receive())));
        for (unsigned frame = 0;; ++frame) {
            const std::string answer = AnswerTo(channel.Receive());
            if (plan.Kind == TPlan::CutByServer && frame == plan.CutAt) {
                channel.Send(answer, plan.Below(answer.size() + 1));
                PrepareReset(socket);
                return;
            }
            channel.Send(answer);
        }
    } catch (const TEnd&) { // every conversation ends so; the client knows what is missing
    }
}

/// A thread whose body may fail, which counts as a loss.
template <class TBody>
std::unique_ptr<TFunctionThread> StartThread(TBody body) {
    auto thread = std::make_unique<TFunctionThread>([body = std::move(body)]() mutable {
        try {
            body();
        } catch (const Kest::EException& error) {
            ++Figures.Lost;
            std::cerr << "soak: " + error.GetMessage() + "\n";
        }
    });
    thread->Start();
    return thread;
}

/// The connections @p first and following, all open at the same time.
void RunRound(TListener& inet, TListener& fs, TTargets& targets, unsigned seed, unsigned first, unsigned clients) {
    TGate allAreOpen;
    std::atomic<bool> isOver{false};
    const auto signaller = StartThread([&] {
        for (std::mt19937 random(seed + first); !isOver; TThreadInstance::Sleep(0.0002))
            targets.SignalOne(random);
    });
    std::vector<std::unique_ptr<TFunctionThread>> clientThreads, serverThreads;
    for (unsigned number = first; number != first + clients; ++number)
        clientThreads.push_back(StartThread([&, number] {
            const bool isInet = number % 2 == 0;
            RunClient(isInet ? inet : fs, allAreOpen, targets, TPlan(seed, number), number, isInet ? "inet" : "fs");
        }));
    try {
        for (unsigned number = first; number != first + clients; ++number) {
            TListener& listener = number % 2 == 0 ? inet : fs;
            TSocket::TAddress peer("");
            std::shared_ptr<TSocket> socket(new TSocket(listener.Socket.Accept(peer))); // the thread that gets the socket closes it
            serverThreads.push_back(StartThread([socket = std::move(socket), seed]() mutable {
                RunServer(*socket, seed);
                socket.reset();
            }));
            ++Figures.Connections;
        }
    } catch (const Kest::EException& error) {
        ++Figures.Lost;
        std::cerr << "soak: " + error.GetMessage() + "\n";
    }
    allAreOpen.Open();
    clientThreads.clear(); // waits for them
    serverThreads.clear();
    isOver = true;
}

/// Descriptors of nothing, up to LowDescriptors.
class TOccupation {
public:
    TOccupation() {
        do
            Descriptors.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
        while (Descriptors.back() >= 0 && Descriptors.back() < LowDescriptors);
    }
    TOccupation(const TOccupation&) = delete;
    TOccupation& operator=(const TOccupation&) = delete;
    ~TOccupation() {
        for (const int each : Descriptors)
            (void)::close(each);
    }

private:
    std::vector<int> Descriptors;
};

void AllowDescriptors(rlim_t count) {
    rlimit limit{};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < count)
        throw std::runtime_error("needs a limit of open descriptors (ulimit -Hn) of " + std::to_string(count));
    limit.rlim_cur = std::max(limit.rlim_cur, count);
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

/// A number of /proc/self/status.
long StatusOf(const std::string& name) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);)
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::strtol(line.c_str() + name.size() + 1, nullptr, 10);
    throw std::runtime_error("/proc/self/status has no " + name);
}

long ResidentMiB() {
    (void)::malloc_trim(0);
    return StatusOf("VmRSS") / 1024;
}

/// Whether as many threads are left as there were. One that was waited for may be listed a moment longer.
bool AreThreadsGone(long before) {
    for (int tries = 0; tries != 5000 && StatusOf("Threads") > before; ++tries)
        TThreadInstance::Sleep(0.001);
    return StatusOf("Threads") <= before;
}

bool IsHeld(TMutex& mutex) {
    if (!mutex.TryEnter())
        return true;
    mutex.Leave();
    return false;
}

/// Prints what is wrong, and returns whether anything is.
bool IsWrong(bool isWrong, const std::string& what) {
    if (isWrong)
        std::cerr << "soak: " << what << "\n";
    return isWrong;
}

} // namespace

int main(int argc, char** argv) try {
    const double seconds = argc > 1 ? std::strtod(argv[1], nullptr) : 10.0;
    const auto clients = static_cast<unsigned>(argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 500);
    const auto seed = static_cast<unsigned>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1);
    if (argc > 4 || !(seconds > 0) || clients == 0 || clients > 4000) {
        std::cerr << "usage: soak [SECONDS [CLIENTS [SEED]]], up to 4000 clients\n";
        return 2;
    }
    AllowDescriptors(LowDescriptors + 2 * rlim_t{clients} + 100);
    struct sigaction action {};
    action.sa_handler = NoteSignal; // without SA_RESTART
    (void)::sigaction(SIGUSR1, &action, nullptr);

    (void)OnAnotherThread([] { return 0; }); // a sanitizer may start a thread of its own with the first one
    const long threadsBefore = StatusOf("Threads");
    const int descriptorsBefore = OpenDescriptors();
    TTargets targets;
    long memoryBefore = 0;
    unsigned rounds = 0;
    {
        const TOccupation occupation;
        TListener inet("inet", clients), fs("fs", clients);
        const auto start = std::chrono::steady_clock::now();
        while (rounds <= WarmUpRounds || std::chrono::steady_clock::now() - start < std::chrono::duration<double>(seconds)) {
            RunRound(inet, fs, targets, seed, rounds * clients, clients);
            if (++rounds == WarmUpRounds)
                memoryBefore = ResidentMiB();
        }
    }
    const long growth = ResidentMiB() - memoryBefore;

    bool isWrong = false;
    isWrong |= IsWrong(!AreThreadsGone(threadsBefore), "threads are left");
    isWrong |= IsWrong(OpenDescriptors() != descriptorsBefore, "descriptors are left");
    isWrong |= IsWrong(IsHeld(targets.Mutex) || IsHeld(Kest::_Gadgets::TSingleton<TSocket::TMutex>::GetObject()), "a lock is left");
    isWrong |= IsWrong(growth > MemoryGrowth, "memory grew by more than " + std::to_string(MemoryGrowth) + " MiB");
    isWrong |= IsWrong(clients >= 100 && Figures.InterruptedCalls == 0, "no call was ever interrupted");
    isWrong |= IsWrong(Figures.Connections != std::int64_t{rounds} * clients, "connections are missing");
    std::cout << "soak: seed " << seed << ", " << rounds << " rounds, " << Figures.Connections << " connections, " << Figures.Bytes
              << " bytes, " << Figures.InterruptedCalls + Figures.Cuts + Figures.HalfCloses << " faults survived ("
              << Figures.InterruptedCalls << " interrupted calls, " << Figures.Cuts << " resets, " << Figures.HalfCloses
              << " half-closes), " << Figures.Lost << " lost, memory " << std::showpos << growth << " MiB" << std::endl;
    return isWrong || Figures.Lost != 0 ? 1 : 0;
} catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << "\n";
    return 2;
} catch (const Kest::EException& error) {
    std::cerr << "soak: " << error.GetMessage() << "\n";
    return 2;
}
