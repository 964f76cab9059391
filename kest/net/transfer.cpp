#include <kest/foundation/failure.h>
#include <kest/foundation/interval.h>
#include <kest/foundation/time.h>
#include <kest/foundation/unwinding.h>
#include <kest/net/descriptor_set.h>
#include <kest/net/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include <fcntl.h>
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

/// A pause in seconds where waiting for readiness would spin: short beside any limit, long beside a call.
constexpr double AMoment = 0.005;

/// Pauses in place of a wait that would end at once. A signal ends the pause, and the result is -1 then: nearly all of the time of such a
/// wait passes here.
KEST_LEFT_BY_CANCELLATION int Pause(double seconds) {
    const timespec interval = _Interval::ToTimeSpec(seconds);
    return ::nanosleep(&interval, nullptr);
}

/// Pauses for a few milliseconds, for a call that found the queue of an "fs" peer full, that of a listener or of a datagram socket. The
/// system then answers "would block", but counts the socket as writable, so a wait for readiness would end at once.
int PauseForQueue() {
    return Pause(AMoment);
}

/// Seconds of a clock that nobody sets.
double SteadyTime() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// Throws the exception of EBADF for a descriptor that no set can hold. A socket may have adopted any number.
void RequireNumberOfASet(const TSocket& socket) {
    if (socket.GetDescriptor() >= 0 && socket.GetDescriptor() != INT_MAX)
        return;
    errno = EBADF;
    (void)socket.CheckResult(-1);
}

/// Whether a receive has something to take, be it the end of the connection. Throws the socket's pending error: the look takes the error
/// away, and the receive would not report it any more.
KEST_LEFT_BY_CANCELLATION bool HasInput(const TSocket& socket) {
    char byte = 0;
    const auto result = static_cast<int>(::recv(socket.GetDescriptor(), &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT));
    if (result == -1 && WouldBlock(errno))
        return false;
    (void)socket.CheckResult(result);
    return true;
}

/// Whether the socket becomes readable within @p seconds. Does not wait where @p seconds is not positive.
bool BecomesReadable(const TSocket& socket, double seconds) {
    _TDescriptorSet readable(socket.GetDescriptor());
    timeval interval = _Interval::ToTimeVal(std::max(seconds, 0.0));
    return socket.CheckResult(::select(socket.GetDescriptor() + 1, readable.Get(), nullptr, nullptr, &interval)) != 0;
}

/// Goes on with a wait for input after urgent data have come. A receive skips them, and the system reports them at every wait, so this
/// waits for readability alone. An "fs" socket counts as readable with a lone urgent byte: only HasInput() tells.
bool WaitForInputBesideUrgentData(const TSocket& socket, bool isReadable, double limit) {
    const double end = SteadyTime() + limit;
    for (;;) {
        if (isReadable && HasInput(socket))
            return true;
        const double rest = end - SteadyTime();
        if (!(rest > 0.0))
            return false;
        if (isReadable)
            (void)socket.CheckResult(Pause(std::min(rest, AMoment)));
        isReadable = BecomesReadable(socket, end - SteadyTime());
        if (!isReadable)
            return false;
    }
}

/// Waits until a receive has something to take; false when the limit is over.
bool WaitForInput(const TSocket& socket, double limit) {
    RequireNumberOfASet(socket);
    _TDescriptorSet readable(socket.GetDescriptor()), urgent(socket.GetDescriptor());
    timeval interval = _Interval::ToTimeVal(limit);
    timeval* timeout = limit == EndlessTimeInterval ? nullptr : &interval;
    if (socket.CheckResult(::select(socket.GetDescriptor() + 1, readable.Get(), nullptr, urgent.Get(), timeout)) == 0)
        return false;
    if (!urgent.IsHeld())
        return true;
    // Linux leaves the time that remains in the interval. Where a C library hides that, the limit begins anew, this one time.
    double rest = std::numeric_limits<double>::infinity();
    if (timeout != nullptr)
        rest = static_cast<double>(interval.tv_sec) + static_cast<double>(interval.tv_usec) / _Interval::MicrosecondsPerSecond;
    return WaitForInputBesideUrgentData(socket, readable.IsHeld(), rest);
}

/// A C library before 2.41 may act on a cancellation after the system has made the new descriptor, which is lost then. So where the call
/// does not wait, a cancellation is acted on before it. A wait has to be cut off, whatever it costs.
KEST_LEFT_BY_CANCELLATION int AcceptOnce(int listener, bool mayWait, sockaddr* peer, socklen_t* length) {
    if (mayWait)
        return ::accept(listener, peer, length);
    ::pthread_testcancel();
    const TCancellationOff off;
    return ::accept(listener, peer, length);
}

/// Switches a socket back to blocking mode, in its destructor at the latest. The destructor drops a failure. A cancellation reaches the
/// destructor through no handler: if the thread were handling an exception of its own, a handler would end the process.
class TNonBlockingScope {
public:
    explicit TNonBlockingScope(TSocket& socket) : Socket(socket) {}
    TNonBlockingScope(const TNonBlockingScope&) = delete;
    TNonBlockingScope& operator=(const TNonBlockingScope&) = delete;
    ~TNonBlockingScope() {
        try {
            SwitchBack();
        } catch (const EException&) { // something worse is under way
        }
    }

    void SwitchBack() {
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
    // The system socket's own mode counts: another copy may have switched it back. Where it cannot be read, the call fails at once.
    const bool mayWait = Blocking || (::fcntl(Descriptor, F_GETFL, 0) & O_NONBLOCK) == 0;
    socklen_t length = AddressRoom;
    const int descriptor = CheckResult(AcceptOnce(Descriptor, mayWait, AsSystemAddress(bytes.get()), &length));
    const int family = FamilyOf(bytes.get());
    peer.Adopt(std::move(bytes), std::min(length, AddressRoom));
    return TSocket(descriptor, family);
}

/// Makes @p address the peer's or the socket's own.
void TSocket::AskForAddress(TAddress& address, bool ofPeer) const {
    std::unique_ptr<char[]> bytes = MakeAddressRoom();
    socklen_t length = AddressRoom;
    (void)CheckResult((ofPeer ? ::getpeername : ::getsockname)(Descriptor, AsSystemAddress(bytes.get()), &length));
    address.Adopt(std::move(bytes), std::min(length, AddressRoom));
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
    TNonBlockingScope nonBlocking(*this);
    try {
        ConnectWithin(SendTimeout, target);
    } catch (const EException&) {
        nonBlocking.SwitchBack();
        throw;
    } catch (const std::exception&) {
        nonBlocking.SwitchBack();
        throw;
    }
    nonBlocking.SwitchBack();
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
        sender.Adopt(std::move(bytes), std::min(length, AddressRoom));
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
    bool wasWritable = false; // what the previous wait answered
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

/// Waits for readiness, for writing or for reading. Returns how many of the two sets that select watches hold the descriptor afterwards.
int TSocket::CountReady(const double& limit, bool writing) const {
    RequireNumberOfASet(*this);
    _TDescriptorSet set(Descriptor);
    timeval interval = _Interval::ToTimeVal(limit);
    timeval* timeout = limit == EndlessTimeInterval ? nullptr : &interval;
    fd_set* readSet = writing ? nullptr : set.Get();
    fd_set* writeSet = writing ? set.Get() : nullptr;
    return CheckResult(::select(Descriptor + 1, readSet, writeSet, set.Get(), timeout));
}

bool TSocket::SelectRead(const double& limit) {
    return CountReady(limit, false) != 0;
}

bool TSocket::SelectWrite(const double& limit) {
    return CountReady(limit, true) == 1;
}

void TSocket::ValidateReceive() {
    if (Blocking && !WaitForInput(*this, ReceiveTimeout))
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
