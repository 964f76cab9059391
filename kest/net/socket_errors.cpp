#include <kest/net/socket_errors.h>

#include <kest/net/socket.h>

#include <cerrno>

namespace Kest::System {

using namespace Interface::_Socket;

int TSocket::CheckResult(int result) const {
    if (result != -1)
        return result;
    switch (errno) {
    case EINTR:
        throw EShutdown("interrupted system call");
    case EAGAIN: // EWOULDBLOCK too
    case EINPROGRESS:
        throw EWouldBlock();
    case EINVAL:
    case ENOTCONN:
        throw ENotConnected();
    case EPIPE:
        if (SendShutdown)
            throw EShutdown("when send");
        throw EIOError("broken pipe");
    case ENETRESET:
    case ECONNRESET:
        throw EReset();
    case ECONNABORTED:
        throw EAbort();
    case ETIMEDOUT:
        throw ETimeout();
    default:
        throw EException(_GetLastErrorDescription());
    }
}

int TSocket::CheckIOResult(int result) const {
    if (result == 0)
        throw EShutdown("when receive");
    return CheckResult(result);
}

} // namespace Kest::System
