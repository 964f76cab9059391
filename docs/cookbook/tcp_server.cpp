// Sends each line back that a client sends: tcp_server ADDRESS. SIGINT and SIGTERM end it.
#include <kest/kest.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <list>

using Kest::System::TSocket;
namespace Errors = Kest::System::Interface::_Socket;

namespace {

constexpr std::size_t MostClients = 100;
volatile std::sig_atomic_t IsEnding = 0; // all that a signal handler may touch

class TClient : public Kest::System::TThread {
public:
    // A reference: the first copy of an accepted socket takes its descriptor.
    explicit TClient(const TSocket& accepted) : Socket(accepted) {
        Socket.SetReceiveTimeout(30.0); // seconds that a client may be silent
        Socket.SetSendTimeout(10.0);    // seconds that it may leave an answer unread
    }
    ~TClient() noexcept override { CancelAndFinish(); }

    bool IsOver() const { return Over; }

    int Run() override {
        try {
            TSocket::TStream in(Socket, 1024); // one stream a direction: a flush drops what its own stream has read ahead
            TSocket::TStream out(Socket, 1024);
            char line[512]; // a longer line ends the connection
            while (in.getline(line, sizeof line) && out << line << std::endl) {
            }
            Socket.Shutdown(false, true);   // the stream's end would send again what a flush that failed has sent already
        } catch (const Kest::EException&) { // the client has gone; an exception that left Run() would end the process
        } catch (const std::bad_alloc&) {
        }
        Over = true;
        return 0;
    }

private:
    TSocket Socket;
    std::atomic<bool> Over{false};
};

unsigned Serve(TSocket& listener) {
    unsigned count = 0;
    std::list<TClient> clients; // its elements stay where they are
    while (IsEnding == 0) {
        clients.remove_if([](const TClient& client) { return client.IsOver(); });
        try {
            if (!listener.SelectRead(0.5)) // a signal that comes just before it is noticed after it
                continue;
            TSocket::TAddress peer("inet");
            clients.emplace_back(listener.Accept(peer));
            if (clients.size() > MostClients) {
                clients.pop_back(); // closes the connection; its thread never ran
                continue;
            }
            clients.back().Start();
            ++count;
        } catch (const Errors::EWouldBlock&) { // the client has gone again
        } catch (const Errors::EShutdown&) {   // a signal ended the wait
        } catch (const Kest::EException& failure) {
            std::cerr << failure.GetMessage() << std::endl; // the descriptors or the threads are used up
            Kest::System::TThreadInstance::Sleep(0.1);      // go on when a client has left
        }
    }
    return count; // the clients' destructors cancel their threads and wait for them
}

} // namespace

int main(int count, char** arguments) try {
    for (const int signal : {SIGINT, SIGTERM})
        (void)std::signal(signal, [](int) { IsEnding = 1; });
    TSocket::TAddress address("inet", count > 1 ? arguments[1] : "127.0.0.1:7070", false);
    TSocket listener({"inet", TSocket::Stream, "tcp"});
    listener.SetReuseAddress(true); // or it could not start again for a minute
    listener.Bind(address);
    listener.Listen(0);
    listener.SetBlocking(false); // Accept() never waits, even if the client has gone meanwhile
    listener.GetLocalAddress(address);
    std::cout << "listening at " << address.Get(false) << std::endl;
    std::cout << "served " << Serve(listener) << " clients" << std::endl;
} catch (const Kest::EException& failure) { // no std::exception
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
} catch (const std::exception& failure) { // no memory
    std::cerr << failure.what() << std::endl;
    return 1;
}
