#include <kest/net/socket.h>

#include <kest/foundation/failure.h>
#include <kest/foundation/time.h>
#include <kest/foundation/unwinding.h>
#include <kest/net/lookup.h>
#include <kest/threads/guard.h>

#include <cerrno>
#include <exception>
#include <utility>

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kest::System {

using namespace Interface::_Socket;

namespace {

int ProtocolNumber(const std::string& name) {
    const _TScopedEntry entry(_Gadgets::TSingleton<TSocket::TMutex>::GetObject());
    int code = 0;
    const protoent* protocol = _LookUp([&] {
        errno = 0; // where the database has no such name, the look-up need not set it
        const protoent* found = ::getprotobyname(name.c_str());
        code = errno;
        return found;
    });
    if (protocol == nullptr && (code == EMFILE || code == ENFILE))
        _Throw("socket creation error"); // the database is a file: no descriptor was left for it, nor for the socket
    if (protocol == nullptr)
        throw EUnsupportedProtocol();
    return protocol->p_proto;
}

} // namespace

TSocket::TSocket(const TProtocolInfo& info)
    : HandOver(false), OwnsDescriptor(true), Domain(MapDomain(info.Domain)), Descriptor(-1), ReceiveTimeout(EndlessTimeInterval),
      SendTimeout(EndlessTimeInterval), Blocking(true), SendShutdown(false) {
    const int protocol = ProtocolNumber(info.Protocol);
    Descriptor = ::socket(Domain, MapType(info.Type), protocol);
    if (Descriptor == -1)
        _Throw("socket creation error");
}

TSocket::TSocket(int descriptor, int domain)
    : HandOver(true), OwnsDescriptor(true), Domain(domain), Descriptor(descriptor), ReceiveTimeout(EndlessTimeInterval),
      SendTimeout(EndlessTimeInterval), Blocking(true), SendShutdown(false) {}

TSocket::TSocket(const TSocket& other)
    : Interface::TSocket<TSocket>(other), HandOver(false), OwnsDescriptor(true), Domain(other.Domain), Descriptor(other.Descriptor),
      ReceiveTimeout(other.ReceiveTimeout), SendTimeout(other.SendTimeout), Blocking(other.Blocking), SendShutdown(false) {
    if (other.HandOver) {
        other.OwnsDescriptor = false;
        other.HandOver = false;
    } else {
        Descriptor = CheckResult(::dup(other.Descriptor));
    }
}

TSocket::~TSocket() noexcept(false) {
    if (!OwnsDescriptor)
        return;
    const TCancellationOff off; // acted on inside close, a cancellation would leak the descriptor
    (void)::shutdown(Descriptor, SHUT_RDWR);
    // Not repeated when it fails: the number may already be another thread's.
    if (::close(Descriptor) != 0 && std::uncaught_exceptions() == 0)
        _Throw("socket closing failed");
}

int TSocket::MapType(TType type) {
    constexpr int notOnThisPlatform = 1000;
    static constexpr int systemTypes[] = {SOCK_STREAM, SOCK_DGRAM, SOCK_RAW, SOCK_RDM, SOCK_SEQPACKET};
    constexpr int count = sizeof systemTypes / sizeof *systemTypes;
    if (type < 0 || type >= count || systemTypes[type] == notOnThisPlatform)
        throw EUnsupportedType();
    return systemTypes[type];
}

void TSocket::SetBlocking(bool blocking) {
    const int flags = ::fcntl(Descriptor, F_GETFL, 0);
    if (flags == -1 || ::fcntl(Descriptor, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK) == -1)
        _Throw("socket blocking setup failure");
    Blocking = blocking;
}

void TSocket::SetFlag(int option, bool on, const char* failure) {
    const int value = on ? 1 : 0;
    if (::setsockopt(Descriptor, SOL_SOCKET, option, &value, sizeof value) == -1)
        _Throw(failure);
}

void TSocket::SetBroadcast(bool on) {
    SetFlag(SO_BROADCAST, on, "socket broadcast setup failure");
}

void TSocket::SetReuseAddress(bool on) {
    SetFlag(SO_REUSEADDR, on, "socket reuseaddr setup failure");
}

void TSocket::SetNoDelay(bool) {}

double TSocket::SetReceiveTimeout(const double& limit) {
    return std::exchange(ReceiveTimeout, limit);
}

double TSocket::SetSendTimeout(const double& limit) {
    return std::exchange(SendTimeout, limit);
}

unsigned TSocket::SetBufferSize(int option, unsigned size) {
    unsigned before = 0;
    socklen_t length = sizeof before;
    if (::getsockopt(Descriptor, SOL_SOCKET, option, &before, &length) != 0)
        _Throw("getsockopt failed");
    if (::setsockopt(Descriptor, SOL_SOCKET, option, &size, sizeof size) != 0)
        _Throw("setsockopt failed");
    return before;
}

unsigned TSocket::SetSendBufferSize(unsigned size) {
    return SetBufferSize(SO_SNDBUF, size);
}

unsigned TSocket::SetReceiveBufferSize(unsigned size) {
    return SetBufferSize(SO_RCVBUF, size);
}

} // namespace Kest::System
