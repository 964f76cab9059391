#include <kest/foundation/time.h>
#include <kest/net/socket.h>

#include <chrono>
#include <iostream>
#include <string>

#include <unistd.h>

using Kest::System::TSocket;

int main() {
    ::unlink("door");
    const TSocket::TAddress door("fs", "door", false); // "inet" and "127.0.0.1:7070" for TCP
    TSocket listener({"fs", TSocket::Stream, "ip"});
    listener.Bind(door);
    listener.Listen(0);

    TSocket client({"fs", TSocket::Stream, "ip"});
    client.SetSendTimeout(2.0); // seconds, for connecting too
    client.Connect(door);
    TSocket::TAddress peer("fs");
    TSocket server = listener.Accept(peer);

    const std::string question = "Who is there?";
    client.Send(question.data(), static_cast<unsigned>(question.size()));
    client.Shutdown(false, true); // nothing more will come

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2); // for the whole question
    char buffer[64];
    try {
        while (true) { // each call brings what is there, which need not be all that was sent
            server.SetReceiveTimeout(Kest::System::TimeLimit(deadline - std::chrono::steady_clock::now()));
            std::cout << std::string(buffer, static_cast<std::size_t>(server.Receive(buffer, sizeof buffer)));
        }
    } catch (const Kest::System::Interface::_Socket::EShutdown&) {
        std::cout << '\n'; // the client has closed its side
    }
    ::unlink("door");
}
