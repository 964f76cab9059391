#include <kest/net/socket_stream.h>

#include <iostream>
#include <string>

#include <sys/socket.h>

using Kest::System::TSocket;

int main() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return 1;
    TSocket here(ends[0], AF_UNIX), there(ends[1], AF_UNIX); // a socket adopts the descriptor it is given
    there.SetReceiveTimeout(0.01);

    TSocket::TStream writer(here, 1024), reader(there, 1024);
    writer << "the answer is " << 42 << std::endl; // std::endl sends
    std::string line;
    std::getline(reader, line);
    std::cout << line << '\n';

    if (!std::getline(reader, line)) // the state says that it failed, the last result says why
        std::cout << (reader.GetLastResult() == -1 ? "nothing came in time" : "the connection is over") << '\n';
}
