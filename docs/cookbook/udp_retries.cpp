// Asks over UDP, where requests and answers get lost, and asks again.
#include <kest/kest.h>

#include <iostream>
#include <string>

using Kest::System::TSocket;
namespace Errors = Kest::System::Interface::_Socket;

namespace {

TSocket::TAddress Bound(TSocket& socket) {
    TSocket::TAddress address("inet", "127.0.0.1:0", false); // port 0: the system chooses
    socket.Bind(address);
    socket.GetLocalAddress(address);
    return address;
}

/// Answers requests, but loses the first two.
class TServer : public Kest::System::TThread {
public:
    explicit TServer(TSocket& socket) : Socket(socket) {}
    ~TServer() override { CancelAndFinish(); }

    int Run() override {
        char request[512]; // a longer datagram is cut
        for (int count = 1;;)
            try {
                TSocket::TAddress client("inet");
                const int size = Socket.ReceiveFrom(request, sizeof request, client);
                const std::string answer = "answer to " + std::string(request, static_cast<std::size_t>(size));
                if (count++ > 2)
                    Socket.SendTo(answer.data(), static_cast<unsigned>(answer.size()), client);
            } catch (const Errors::EShutdown&) { // an empty datagram, which anybody can send
            } catch (const Kest::EException& failure) {
                const Kest::System::TCancellationOff off; // a cancellation in a stream in a handler ends the process
                std::cerr << failure.GetMessage() << std::endl;
            }
    }

private:
    TSocket& Socket;
};

/// Sends @p request until its answer comes. Each request has a text of its own, which tells a late answer to another request.
/// @throw ETimeout  nobody answered.
std::string Ask(TSocket& socket, const TSocket::TAddress& server, const std::string& request) {
    double limit = 0.05; // seconds, for the first attempt
    for (int attempt = 1; attempt <= 5; ++attempt) {
        socket.SendTo(request.data(), static_cast<unsigned>(request.size()), server);
        const double end = Kest::System::GetCurrentTime() + limit;
        limit *= 2;
        while (true) {
            const double rest = end - Kest::System::GetCurrentTime();
            if (rest <= 0.0) // a limit of 0.0 would be no limit
                break;
            socket.SetReceiveTimeout(rest);
            try {
                char answer[512];
                TSocket::TAddress sender("inet");
                const int size = socket.ReceiveFrom(answer, sizeof answer, sender);
                std::string text(answer, static_cast<std::size_t>(size));
                if (sender.Get(false) == server.Get(false) && text == "answer to " + request)
                    return text;
            } catch (const Errors::ETimeout&) {
                break;                           // ask again
            } catch (const Errors::EShutdown&) { // an empty datagram, or a signal
            }
        }
    }
    throw Errors::ETimeout("no answer to " + request);
}

} // namespace

int main() try {
    TSocket serverSocket({"inet", TSocket::Datagram, "udp"}), socket({"inet", TSocket::Datagram, "udp"});
    const TSocket::TAddress server = Bound(serverSocket);
    Bound(socket);
    TServer thread(serverSocket);
    thread.Start();
    std::cout << Ask(socket, server, "request 1") << std::endl;
    std::cout << Ask(socket, server, "request 2") << std::endl;
    thread.CancelAndFinish();
    std::cout << Ask(socket, server, "request 3") << std::endl;
} catch (const Kest::EException& failure) {
    std::cout << failure.GetMessage() << std::endl;
}
