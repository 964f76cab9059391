/// Answers each line of each client with its length in bytes, a space and the line. Every client has a thread of its own, so that one
/// that is slow, silent or broken costs nobody else anything.

#include "line_protocol.h"

#include <kest/foundation/time.h>
#include <kest/net/address.h>
#include <kest/net/socket.h>
#include <kest/net/socket_stream.h>
#include <kest/threads/thread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using Kest::EException;
using Kest::System::GetCurrentTime;
using Kest::System::TSocket;
using Kest::System::TThread;
using Kest::System::TThreadInstance;
using namespace Kest::System::Interface::_Socket;

namespace {

constexpr char Usage[] = "usage: line_server DOMAIN ADDRESS [LIMIT]\n"
                         "  DOMAIN   inet or fs\n"
                         "  ADDRESS  inet: host:port, port 0 for any free one; fs: the path of a socket to create\n"
                         "  LIMIT    seconds to wait for a client, 0 for no limit; 60 if not given\n"
                         "Prints \"listening on ADDRESS\" when it is ready. Ends at SIGINT and SIGTERM, with status 0.\n";

std::atomic<bool> StopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may only touch what needs no lock");

void RequestStop(int) {
    StopRequested = true;
}

/// One write for a whole line, so that the lines of several threads do not mix.
void Report(const std::string& text) {
    std::cerr << "line_server: " + text + "\n";
}

/// A client and its thread. All but Run() and what it calls is for the main thread.
class TClient final : public TThread {
public:
    /// Takes @p accepted over. Starts the thread at the very end: the object is whole then, and nothing can fail any more.
    TClient(const TSocket& accepted, unsigned number, double limit)
        : Number(number), Limit(limit), Socket(accepted), Descriptor(Socket.GetDescriptor()) {
        Start();
    }
    ~TClient() noexcept override {
        Interrupt(true);
        WaitFor();
    }

    bool IsFinished() const { return Finished; }

    /// Ends a wait of the thread for input or, with @p sendingToo, for room to send. A socket object belongs to one thread at a time, the
    /// connection behind it does not, so this is the bare call; a copy of the object would do, for another descriptor for each client.
    void Interrupt(bool sendingToo) {
        (void)::shutdown(Descriptor, sendingToo ? SHUT_RDWR : SHUT_RD); // fails when the client is gone already
    }

private:
    int Run() override {
        try {
            const std::string failure = Serve();
            if (!failure.empty() && !StopRequested)
                Report("client " + std::to_string(Number) + ": " + failure);
            SayGoodbye();
        } catch (const EException&) { // the connection is gone, there is nobody to say goodbye to
        } catch (const std::exception& failure) {
            Report("client " + std::to_string(Number) + ": " + failure.what()); // no memory for its line
        }
        Finished = true;
        return 0;
    }

    /// Answers lines until the client or the server ends it. Returns what went wrong, or nothing.
    ///
    /// Two streams over the one socket: a flush drops the input that its stream has read ahead, which here are the next lines of a
    /// client that does not wait for its answers. The stream for input is never flushed, so it loses nothing.
    std::string Serve() {
        Lines::SetLimits(Socket, Limit);
        TSocket::TStream input(Socket, Lines::BufferSize);
        TSocket::TStream output(Socket, Lines::BufferSize);
        input.tie(&output); // answers go out when the input is used up: one call for all the lines that came together
        std::string line;
        try {
            while (output && Lines::ReadLine(input, line, Lines::LongestLine))
                output << line.size() << ' ' << line << '\n';
        } catch (const Lines::ELineTooLong&) {
            output.flush();
            return "ended, a line is longer than " + std::to_string(Lines::LongestLine) + " bytes";
        }
        constexpr int timedOut = -1;
        constexpr int wasShutDown = -2;
        const int result = output ? input.GetLastResult() : output.GetLastResult();
        if (output && result == wasShutDown && !line.empty() && !StopRequested)
            output << line.size() << ' ' << line << '\n' << std::flush; // its last line had no newline
        if (!output)
            Lines::GiveUpSending(Socket);
        if (result == timedOut)
            return output ? "ended, nothing came within the limit" : "ended, answers were not taken within the limit";
        return result == wasShutDown && output ? "" : "ended, the connection is broken";
    }

    /// Closing a socket with unread input makes the system reset the connection, and the client may lose its last answers. So this ends
    /// sending and reads what still comes, for a second at most.
    void SayGoodbye() {
        Socket.Shutdown(false, true);
        constexpr double patience = 1.0;
        Socket.SetReceiveTimeout(patience);
        std::vector<char> ignored(Lines::BufferSize);
        const double end = GetCurrentTime() + patience;
        while (GetCurrentTime() < end)
            Socket.Receive(ignored.data(), Lines::BufferSize); // ends with an exception when the client closes
    }

    const unsigned Number;
    const double Limit;
    std::atomic<bool> Finished{false};
    TSocket Socket; ///< for Run() alone until the thread has ended
    const int Descriptor;
};

using TClients = std::vector<std::unique_ptr<TClient>>;

/// Joins and forgets the threads that have ended.
void Reap(TClients& clients) {
    const auto isFinished = [](const std::unique_ptr<TClient>& client) { return client->IsFinished(); };
    clients.erase(std::remove_if(clients.begin(), clients.end(), isFinished), clients.end());
}

/// Half a second for all to come to their end, after which those that are still sending, to clients that take nothing, are cut off.
void EndAll(TClients& clients) {
    for (const auto& client : clients)
        client->Interrupt(false);
    for (int rounds = 0; rounds < 50 && !clients.empty(); ++rounds) {
        TThreadInstance::Sleep(0.01);
        Reap(clients);
    }
    clients.clear();
}

/// Accepts clients until a signal says stop. Signals reach the main thread alone, since a TThread blocks them; one that comes just before
/// the wait is seen after it.
void Serve(TSocket& listener, const std::string& domain, double limit) {
    TClients clients;
    TSocket::TAddress peer(domain);
    unsigned number = 0;
    bool isShort = false;
    listener.SetBlocking(false); // a connection that is gone again when it is accepted must not make accepting wait
    while (!StopRequested) {
        try {
            if (listener.SelectRead(0.5)) {
                clients.push_back(std::make_unique<TClient>(listener.Accept(peer), ++number, limit));
                isShort = false;
            }
        } catch (const EIOError&) { // nothing to accept any more, or a signal
        } catch (const EException& failure) {
            // No descriptor or thread to be had. The client waits in the queue, or is lost; the others are served, and end some time.
            if (!isShort)
                Report("cannot take a client: " + Lines::ReasonOf(failure));
            isShort = true;
            TThreadInstance::Sleep(0.1); // the listener stays readable: without a pause this would spin
        }
        Reap(clients);
    }
    EndAll(clients);
}

/// The address as given, but with the number that the system chose in the place of port 0.
std::string ListeningAddress(const TSocket& listener, const std::string& domain, const std::string& address) {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    if (domain != "inet" || ::getsockname(listener.GetDescriptor(), reinterpret_cast<sockaddr*>(&own), &length) != 0)
        return address;
    char host[INET_ADDRSTRLEN] = "";
    (void)::inet_ntop(AF_INET, &own.sin_addr, host, sizeof host);
    return host + (':' + std::to_string(ntohs(own.sin_port)));
}

/// A failed Bind names the address, and fails in that where no name is registered for it, as for 0.0.0.0: the text is as good.
void Bind(TSocket& listener, const TSocket::TAddress& address, const std::string& text) {
    try {
        listener.Bind(address);
    } catch (const EBadAddress&) {
        throw EException("socket bind failed: " + text);
    }
}

void Run(const std::string& domain, const std::string& text, double limit) {
    const TSocket::TAddress address(domain, text, true);
    TSocket listener(Lines::ConnectionOf(domain));
    listener.SetReuseAddress(true);
    Bind(listener, address, text);
    // From here on, whichever way this ends, the file of an "fs" listener goes.
    const std::unique_ptr<const char, int (*)(const char*)> file(domain == "fs" ? text.c_str() : nullptr, ::unlink);
    listener.Listen(0);
    std::cout << "listening on " << ListeningAddress(listener, domain, text) << std::endl;
    if (!std::cout)
        throw EException("standard output cannot be written");
    Serve(listener, domain, limit);
}

} // namespace

int main(int argc, char** argv) {
    double limit = 60;
    if (argc < 3 || argc > 4 || (argc == 4 && !Lines::ParseLimit(argv[3], limit))) {
        std::cerr << Usage;
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = RequestStop; // without SA_RESTART: the signal ends the wait for clients
    (void)::sigaction(SIGINT, &action, nullptr);
    (void)::sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN; // whoever reads standard error may go away, the server stays
    (void)::sigaction(SIGPIPE, &action, nullptr);
    try {
        Run(argv[1], argv[2], limit);
        return EXIT_SUCCESS;
    } catch (const EException& failure) {
        Report(Lines::ReasonOf(failure));
    } catch (const std::exception& failure) {
        Report(failure.what());
    }
    return EXIT_FAILURE;
}
