#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>
#include <kest/foundation/time.h>
#include <kest/foundation/unwinding.h>
#include <kest/net/descriptor_set.h>
#include <kest/net/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <exception>
#include <memory>
#include <utility>

#include <sys/select.h>
#include <sys/socket.h>
#include <time.h>

namespace Kest::System {

using namespace Interface::_Socket;

namespace {

/// The longest single wait of a timed operation, in seconds, before it looks at the clock again.
constexpr double LongestWait = 1.0;

/// Room for an address that the system fills in. An "fs" address may be longer than the system's own structure for it, by the zero byte
/// after the longest path; this holds every address there is.
constexpr socklen_t AddressRoom = sizeof(sockaddr_storage);

std::unique_ptr<char[]> MakeAddressRoom() {
    return std::unique_ptr<char[]>(new char[AddressRoom]());
}

sockaddr* AsSystemAddress(char* bytes) {
    return reinterpret_cast<sockaddr*>(bytes);
}

/// The family at the start of an address's bytes, in a room that was zero before.
int FamilyOf(const char* bytes) {
    sa_family_t family = AF_UNSPEC;
    std::copy_n(bytes, sizeof family, reinterpret_cast<char*>(&family));
    return family;
}

/// errno of a failed transfer says that the socket would block. Tested by number: throwing and catching would cost more than the call.
bool WouldBlock(int code) {
    return code == EAGAIN || code == EINPROGRESS;
}

/// Lack of room in the queue of an "fs" peer, a listener's or a datagram socket's, is a would-block answer of a socket that counts as
/// writable at once, and waiting for that would spin. The result is the system's: nearly all of the time passes here, so this is where a
/// signal ends the wait.
KEST_LEFT_BY_CANCELLATION int PauseForQueue() {
    const timespec aMoment{0, 5000000}; // short beside any limit, long beside a call
    return ::nanosleep(&aMoment, nullptr);
}

/// A C library before 2.41 may act on a cancellation after the system has made the new descriptor, which is lost then. So where the call
/// does not wait, a cancellation is acted on before it. A wait has to be cut off, whatever it costs.
KEST_LEFT_BY_CANCELLATION int AcceptOnce(int listener, bool mayWait, sockaddr* peer, socklen_t* length) {
    if (mayWait)
        return ::accept(listener, peer, length);
    ::pthread_testcancel();
    const _TCancellationOff off;
    return ::accept(listener, peer, length);
}

/// Switches a socket back to blocking mode, by its destructor at the latest, which drops the failure. A cancellation gets there without any
/// handler in its way: a handler for it would end the process if the thread were handling an exception of its own at the time.
class TBlockingAgain {
public:
    explicit TBlockingAgain(TSocket& socket) : Socket(socket) {}
    TBlockingAgain(const TBlockingAgain&) = delete;
    TBlockingAgain& operator=(const TBlockingAgain&) = delete;
    ~TBlockingAgain() {
        try {
            Switch();
        } catch (const EException&) { // something worse is under way
        }
    }

    void Switch() {
        if (!std::exchange(IsDone, true))
            Socket.SetBlocking(true);
    }

private:
    TSocket& Socket;
    bool IsDone = false;
};

} // namespace

void TSocket::Bind(const Interface::TSocket<TSocket>::TAddress& address) {
    const auto& own = dynamic_cast<const TAddress&>(address);
    if (::bind(Descriptor, AsSystemAddress(own.Data), own.Length) != 0)
        _Throw("socket bind failed: ", own.Get(true));
}

void TSocket::Listen(unsigned backlog) {
    constexpr unsigned usualBacklog = 128;
    if (::listen(Descriptor, static_cast<int>(backlog == 0 ? usualBacklog : backlog)) != 0)
        _Throw("socket listen failed");
}

TSocket TSocket::Accept(Interface::TSocket<TSocket>::TAddress& address) {
    auto& peer = dynamic_cast<TAddress&>(address);
    std::unique_ptr<char[]> bytes = MakeAddressRoom(); // before the call: nothing may fail between it and the new socket
    if (Blocking && ReceiveTimeout != EndlessTimeInterval)
        ValidateReceive();
    socklen_t length = AddressRoom;
    const int descriptor = CheckResult(AcceptOnce(Descriptor, Blocking, AsSystemAddress(bytes.get()), &length));
    const int family = FamilyOf(bytes.get());
    peer.Assume(std::move(bytes), std::min(length, AddressRoom));
    return TSocket(descriptor, family);
}

/// Makes @p address the peer's or the socket's own.
void TSocket::AskForAddress(TAddress& address, bool ofPeer) const {
    std::unique_ptr<char[]> bytes = MakeAddressRoom();
    socklen_t length = AddressRoom;
    (void)CheckResult((ofPeer ? ::getpeername : ::getsockname)(Descriptor, AsSystemAddress(bytes.get()), &length));
    address.Assume(std::move(bytes), std::min(length, AddressRoom));
}

void TSocket::GetLocalAddress(TAddress& address) const {
    AskForAddress(address, false);
}

void TSocket::GetPeerAddress(TAddress& address) const {
    AskForAddress(address, true);
}

void TSocket::Connect(const Interface::TSocket<TSocket>::TAddress& address) {
    const auto& target = dynamic_cast<const TAddress&>(address);
    if (!Blocking || SendTimeout == EndlessTimeInterval) {
        (void)CheckResult(::connect(Descriptor, AsSystemAddress(target.Data), target.Length));
        return;
    }
    SetBlocking(false);
    TBlockingAgain blockingAgain(*this);
    try {
        ConnectWithin(SendTimeout, target);
    } catch (const EException&) {
        blockingAgain.Switch();
        throw;
    } catch (const std::exception&) {
        blockingAgain.Switch();
        throw;
    }
    blockingAgain.Switch();
}

/// On the socket in non-blocking mode: repeats the call until it answers something else than "would block" or "already in progress".
void TSocket::ConnectWithin(double limit, const TAddress& target) {
    const double start = GetCurrentTime();
    for (;;) {
        const int result = ::connect(Descriptor, AsSystemAddress(target.Data), target.Length);
        const int code = errno;
        if (result != -1 || !(WouldBlock(code) || code == EALREADY)) {
            (void)CheckResult(result);
            return;
        }
        if (!(GetCurrentTime() - start < limit))
            throw ETimeout();
        if (SelectWrite(LongestWait) && code == EAGAIN)
            (void)CheckResult(PauseForQueue());
    }
}

int TSocket::Receive(void* buffer, unsigned size) {
    ValidateReceive();
    return CheckIOResult(static_cast<int>(::recv(Descriptor, buffer, size, MSG_NOSIGNAL)));
}

int TSocket::ReceiveFrom(void* buffer, unsigned size, Interface::TSocket<TSocket>::TAddress& address) {
    auto& sender = dynamic_cast<TAddress&>(address);
    std::unique_ptr<char[]> bytes = MakeAddressRoom();
    ValidateReceive();
    socklen_t length = AddressRoom;
    const auto received = static_cast<int>(::recvfrom(Descriptor, buffer, size, MSG_NOSIGNAL, AsSystemAddress(bytes.get()), &length));
    if (received != -1)
        sender.Assume(std::move(bytes), std::min(length, AddressRoom));
    return CheckIOResult(received);
}

int TSocket::Send(const void* data, unsigned size) {
    return Transmit(data, size, nullptr);
}

int TSocket::SendTo(const void* data, unsigned size, const Interface::TSocket<TSocket>::TAddress& address) {
    return Transmit(data, size, &dynamic_cast<const TAddress&>(address));
}

/// One call, to @p target or, where that is null, to the peer.
long TSocket::SendOnce(const char* data, unsigned size, int flags, const TAddress* target) const {
    if (target == nullptr)
        return ::send(Descriptor, data, size, flags);
    return ::sendto(Descriptor, data, size, flags, AsSystemAddress(target->Data), target->Length);
}

int TSocket::Transmit(const void* data, unsigned size, const TAddress* target) {
    const char* position = static_cast<const char*>(data);
    if (!Blocking || SendTimeout == EndlessTimeInterval)
        return CheckIOResult(static_cast<int>(SendOnce(position, size, MSG_NOSIGNAL, target)));

    const double start = GetCurrentTime();
    unsigned remaining = size;
    bool wasWritable = false; // by the answer of the wait before
    for (;;) {
        const auto sent = static_cast<int>(SendOnce(position, remaining, MSG_NOSIGNAL | MSG_DONTWAIT, target));
        if (sent == -1 && WouldBlock(errno)) {
            if (!(GetCurrentTime() - start < SendTimeout))
                throw ETimeout();
            if (wasWritable)
                (void)CheckResult(PauseForQueue());
            wasWritable = SelectWrite(LongestWait);
            continue;
        }
        const auto count = static_cast<unsigned>(CheckIOResult(sent));
        if (count == remaining)
            return static_cast<int>(size);
        wasWritable = false;
        position += count;
        remaining -= count;
    }
}

/// How many of the two sets that the wait watches the descriptor is in afterwards.
int TSocket::CountReady(const double& limit, bool forWriting) const {
    if (Descriptor < 0 || Descriptor == INT_MAX) {
        errno = EBADF; // an adopted number that cannot be in a set
        return CheckResult(-1);
    }
    _TDescriptorSet set(Descriptor);
    timeval interval = _Interval::ToTimeVal(limit);
    timeval* timeout = limit == EndlessTimeInterval ? nullptr : &interval;
    fd_set* forReading = forWriting ? nullptr : set.Get();
    fd_set* writing = forWriting ? set.Get() : nullptr;
    return CheckResult(::select(Descriptor + 1, forReading, writing, set.Get(), timeout));
}

bool TSocket::SelectRead(const double& limit) {
    return CountReady(limit, false) != 0;
}

bool TSocket::SelectWrite(const double& limit) {
    return CountReady(limit, true) == 1;
}

void TSocket::ValidateReceive() {
    if (Blocking && !SelectRead(ReceiveTimeout))
        throw ETimeout();
}

void TSocket::Shutdown(bool read, bool write) {
    if (!read && !write)
        _Throw("nonsense shutdown");
    const int mode = !write ? SHUT_RD : read ? SHUT_RDWR : SHUT_WR;
    const bool before = std::exchange(SendShutdown, SendShutdown || write);
    try {
        (void)CheckResult(::shutdown(Descriptor, mode));
    } catch (const EException&) {
        SendShutdown = before;
        throw;
    }
}

} // namespace Kest::System
