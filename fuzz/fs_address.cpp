// Checks addresses that the system fills in: those of "fs" peers with any name that a socket can have. They are put into address objects of
// any domain, which are used again and again.
#include "fuzz.h"

#include <kest/net/socket.h>
#include <models/temporary_directory.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Kest::Fuzz;
using namespace Kest::System;
using TAddress = TSocket::TAddress;

namespace {

constexpr std::size_t PathOffset = offsetof(sockaddr_un, sun_path);

/// A datagram socket that receives and a stream socket that listens, in a folder that is the working folder for the rest of the run. So the
/// path of a peer is its name alone, and the name may be as long as an address allows.
struct TPlace {
    TPlace() : Receiver({"fs", TSocket::Datagram, "ip"}), Listener({"fs", TSocket::Stream, "ip"}) {
        std::filesystem::current_path(Folder.GetPath());
        Receiver.Bind(TAddress("fs", "receiver", false));
        Receiver.SetReceiveTimeout(5.0);
        Listener.Bind(TAddress("fs", "listener", false));
        Listener.Listen(1);
        Listener.SetReceiveTimeout(5.0);
    }

    Kest::Test::TTemporaryDirectory Folder;
    TSocket Receiver;
    TSocket Listener;
};

/// A socket that is bound to the bytes of a name, or not bound. The destructor removes its file.
class TPeer {
public:
    TPeer(TSocket::TType type, const std::optional<std::string>& name)
        : Socket(::socket(AF_UNIX, TSocket::MapType(type), 0), AF_UNIX) { // no protocol is looked up, which would take most of the time
        if (!name)
            return;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name->data(), name->size());
        const auto length = static_cast<socklen_t>(PathOffset + name->size());
        IsBound = ::bind(Socket.GetDescriptor(), reinterpret_cast<sockaddr*>(&address), length) == 0;
        if (IsBound && !name->empty() && name->front() != 0)
            File = UpToZero(*name);
    }
    TPeer(const TPeer&) = delete;
    TPeer& operator=(const TPeer&) = delete;
    ~TPeer() {
        if (!File.empty())
            (void)::unlink(File.c_str());
    }

    TSocket Socket;
    bool IsBound = false;
    std::string File; ///< empty for an abstract name and for none
};

/// The host and the port that an "inet" address object reads from another family's bytes.
std::string AsInet(const std::string& bytes) {
    sockaddr_in address{};
    std::memcpy(&address, bytes.data(), std::min(bytes.size(), sizeof address));
    char host[INET_ADDRSTRLEN];
    (void)::inet_ntop(AF_INET, &address.sin_addr, host, sizeof host);
    return host + (':' + std::to_string(ntohs(address.sin_port)));
}

/// What the address object says after the system put the peer's name into it.
std::string ExpectedText(const std::string& domain, const TPeer& peer) {
    if (domain == "fs")
        return peer.File;
    union {
        sockaddr General;
        char Bytes[sizeof(sockaddr_storage)];
    } name{};
    socklen_t length = sizeof name;
    Require(::getsockname(peer.Socket.GetDescriptor(), &name.General, &length) == 0, "the peer has a name");
    // A message of a socket without a name has no address at all, not even a family.
    return AsInet(std::string(name.Bytes, length));
}

std::string TextOf(const TAddress& address) {
    try {
        return address.Get(false);
    } catch (const Interface::_Socket::EUnsupportedDomain& error) {
        return error.GetMessage();
    }
}

void CheckText(const std::string& domain, const TAddress& address, const TPeer& peer) {
    const bool hasText = domain == "fs" || domain == "inet";
    const std::string expected = hasText ? ExpectedText(domain, peer) : "Kest: unsupported socket domain (address family): address error";
    RequireEqual(TextOf(address), expected, "the text of an address that the system filled in");
    TAddress copy(domain);
    copy = TAddress(address);
    RequireEqual(TextOf(copy), expected, "and of a copy of a copy");
}

/// A datagram to the address has to reach the peer. The system itself refuses the longest path with the zero byte that it adds.
void CheckAnswer(TPlace& place, const TAddress& address, TPeer& peer) {
    if (!peer.IsBound || peer.File.size() == sizeof(sockaddr_un::sun_path))
        return;
    (void)place.Receiver.SendTo("answer", 6, address);
    char answer[7] = {};
    peer.Socket.SetReceiveTimeout(5.0);
    Require(peer.Socket.Receive(answer, sizeof answer) == 6 && std::string(answer) == "answer", "the address leads back");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static TPlace place;
    FuzzedDataProvider input(data, size);
    const std::string domain = input.PickValueInArray({"fs", "fs", "fs", "inet", "ipx", ""});
    TAddress address = domain == "fs" ? TAddress("fs", input.ConsumeRandomLengthString(200), false) : TAddress(domain);

    for (int round = 0; round != 8 && input.remaining_bytes() != 0; ++round) {
        const bool isDatagram = input.ConsumeIntegralInRange<int>(0, 3) != 0;
        std::optional<std::string> name;
        if (input.ConsumeIntegralInRange<int>(0, 7) != 0)
            name = input.ConsumeRandomLengthString(sizeof(sockaddr_un::sun_path));
        if (name && !name->empty() && name->front() != 0)
            std::replace(name->begin(), name->end(), '/', '_'); // a file of the folder, none elsewhere
        if (name && !name->empty() && name->front() == 0)
            *name = std::string(1, '\0') + "kest-" + std::to_string(::getpid()) + name->substr(1, 80); // nobody else's name

        TPeer peer(isDatagram ? TSocket::Datagram : TSocket::Stream, name);
        if (isDatagram) {
            (void)peer.Socket.SendTo("question", 8, TAddress("fs", "receiver", false));
            char question[8];
            Require(place.Receiver.ReceiveFrom(question, sizeof question, address) == 8, "the question arrives");
            CheckText(domain, address, peer);
            CheckAnswer(place, address, peer);
        } else {
            peer.Socket.Connect(TAddress("fs", "listener", false));
            const TSocket accepted = place.Listener.Accept(address);
            CheckText(domain, address, peer);
        }
    }
    return 0;
}
