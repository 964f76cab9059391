#include <kest/net/socket_stream.h>

#include <kest/foundation/unwinding.h>

namespace Kest::System {

using namespace Interface::_Socket;

namespace {

enum TFailure : int { TimedOut = -1, WasShutDown = -2, OtherFailure = -3 };

/// Makes one call of the socket and turns its exceptions into codes.
template <class TCall>
int ResultOf(const TCall& call) {
    const auto told = [&]() -> int {
        try {
            return call();
        } catch (const ETimeout&) {
            return TimedOut;
        } catch (const EShutdown&) {
            return WasShutDown;
        }
    };
    return _CatchAll(told, [] { return OtherFailure; });
}

} // namespace

int _TSocketStreamInterface::Read(void* buffer, unsigned int size) {
    return ResultOf([&] { return Socket->Receive(buffer, size); });
}

int _TSocketStreamInterface::Write(const void* buffer, unsigned int size) {
    return ResultOf([&] { return Socket->Send(buffer, size); });
}

TSocket::TStream::TStream(TSocket& socket, unsigned int bufferSize)
    : _TSocketStreamInterface(socket), _Gadgets::TStream(static_cast<_TSocketStreamInterface&>(*this), bufferSize) {}

TSocket::TStream::~TStream() = default;

} // namespace Kest::System
