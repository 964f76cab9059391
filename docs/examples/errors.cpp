#include <kest/filesystem/file.h>
#include <kest/net/socket.h>

#include <iostream>

using Kest::System::TSocket;
namespace Errors = Kest::System::Interface::_Socket;

int main() {
    try {
        Kest::System::TFile::Remove("/no/such/file");
    } catch (const Kest::EException& failure) { // the root of all: one message, which names what failed and why
        std::cout << failure.GetMessage() << '\n';
    }

    try {
        TSocket receiver({"inet", TSocket::Datagram, "udp"});
        receiver.Bind(TSocket::TAddress("inet", "127.0.0.1:0", false));
        receiver.SetReceiveTimeout(0.01); // seconds
        char byte = 0;
        receiver.Receive(&byte, 1);
    } catch (const Errors::ETimeout&) { // chosen by class, never by text
        std::cout << "nobody sent anything in time\n";
    } catch (const Errors::EIOError& failure) {
        std::cout << "the connection failed: " << failure.GetMessage() << '\n';
    }
}
