#include <kest/net/socket_errors.h>

#include <kest/foundation/failure.h>
#include <kest/net/socket.h>

#include <cerrno>

namespace Kest::System {

using namespace Interface::_Socket;

int TSocket::CheckResult(int result) const {
    if (result != -1)
        return result;
    switch (errno) {
    case EINTR:
        _Throw<EShutdown>("interrupted system call");
    case EAGAIN: // EWOULDBLOCK too
    case EINPROGRESS:
        throw EWouldBlock();
    case EINVAL:
    case ENOTCONN:
        throw ENotConnected();
    case EPIPE:
        if (SendShutdown)
            _Throw<EShutdown>("when send");
        _Throw<EIOError>("broken pipe");
    case ENETRESET:
    case ECONNRESET:
        throw EReset();
    case ECONNABORTED:
        throw EAbort();
    case ETIMEDOUT:
        throw ETimeout();
    default:
        _ThrowLastError();
    }
}

int TSocket::CheckIOResult(int result) const {
    if (result == 0)
        _Throw<EShutdown>("when receive");
    return CheckResult(result);
}

} // namespace Kest::System
