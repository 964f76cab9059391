// A standard stream over a transport of one's own: any descriptor, with a limit for each wait.
#include <kest/kest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iostream>
#include <string>

#include <poll.h>
#include <unistd.h>

namespace {

/// A pipe, a terminal, a serial line. What Read() and Write() return is what GetLastResult() of the stream tells.
class TDescriptor final : public Kest::_Gadgets::TStream::TInterface {
public:
    enum TResult : int { End = 0, TimedOut = -1, Failed = -2 }; // 0 is the end of the data; other codes are the transport's own

    TDescriptor(int descriptor, int milliseconds) : Descriptor(descriptor), Milliseconds(milliseconds) {}

    int Read(void* buffer, unsigned size) override {
        const int ready = Wait(POLLIN);
        return ready <= 0 ? ready : Counted(::read(Descriptor, buffer, std::min(size, unsigned{INT_MAX})));
    }

    int Write(const void* data, unsigned size) override {
        const int ready = Wait(POLLOUT);
        return ready <= 0 ? ready : Counted(::write(Descriptor, data, std::min(size, unsigned{PIPE_BUF}))); // so much fits when it is ready
    }

private:
    int Wait(short events) const {
        pollfd wanted = {Descriptor, events, 0};
        int count = 0;
        do // a signal begins the wait anew
            count = ::poll(&wanted, 1, Milliseconds);
        while (count < 0 && errno == EINTR);
        return count > 0 ? 1 : count == 0 ? TimedOut : Failed;
    }

    static int Counted(ssize_t result) { return result < 0 ? int{Failed} : static_cast<int>(result); }

    int Descriptor;
    int Milliseconds;
};

} // namespace

int main() {
    int ends[2];
    if (::pipe(ends) != 0)
        return 1;
    TDescriptor source(ends[0], 50), target(ends[1], 50); // outlive the streams
    Kest::_Gadgets::TStream reader(source, 256), writer(target, 256);

    writer << "the answer is " << 42 << std::endl; // std::endl writes, '\n' only buffers
    std::string line;
    std::getline(reader, line);
    std::cout << line << std::endl;

    if (!std::getline(reader, line) && reader.GetLastResult() == TDescriptor::TimedOut)
        std::cout << "nothing came in time" << std::endl;
    ::close(ends[1]);
    reader.clear(); // the state stays failed until it is cleared
    if (!std::getline(reader, line) && reader.GetLastResult() == TDescriptor::End)
        std::cout << "the writer has gone" << std::endl;
    ::close(ends[0]);
}
