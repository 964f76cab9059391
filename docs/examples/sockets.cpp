#include <kest/net/socket.h>

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

    server.SetReceiveTimeout(2.0);
    char buffer[64];
    try {
        while (true) // each call brings what is there, which need not be all that was sent
            std::cout << std::string(buffer, static_cast<std::size_t>(server.Receive(buffer, sizeof buffer)));
    } catch (const Kest::System::Interface::_Socket::EShutdown&) {
        std::cout << '\n'; // the client has closed its side
    }
    ::unlink("door");
}
