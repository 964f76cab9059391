#include <kest/foundation/exception.h>
#include <kest/net/socket.h>

#include <iostream>

// On 32 bits these hold only when the definitions that the library was built with reach its callers.
static_assert(sizeof(off_t) == 8 && sizeof(time_t) == 8);

int main() {
    try {
        Kest::System::TSocket::MapDomain("no such family");
    } catch (const Kest::System::Interface::_Socket::EUnsupportedDomain&) {
        // Thrown in the library, caught here by its class: both sides have one type information.
        std::cout << Kest::EException("from the library").GetMessage() << std::endl;
        return 0;
    }
    return 1;
}
