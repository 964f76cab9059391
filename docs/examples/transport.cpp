#include <kest/foundation/stream.h>

#include <algorithm>
#include <iostream>
#include <string>

/// A transport of one's own: what is written can be read again.
class TLoop final : public Kest::_Gadgets::TStream::TInterface {
public:
    int Read(void* buffer, unsigned size) override {
        const std::size_t count = std::min<std::size_t>(size, Bytes.size());
        Bytes.copy(static_cast<char*>(buffer), count);
        Bytes.erase(0, count);
        return static_cast<int>(count); // 0 is the end of the data, a negative number a failure
    }

    int Write(const void* buffer, unsigned size) override {
        Bytes.append(static_cast<const char*>(buffer), size);
        return static_cast<int>(size);
    }

private:
    std::string Bytes;
};

int main() {
    TLoop loop;
    Kest::_Gadgets::TStream stream(loop, 256); // the transport outlives the stream
    stream << 6 << ' ' << 7 << std::flush;
    int left = 0, right = 0;
    stream >> left >> right;
    std::cout << left * right << '\n';

    std::ostream second(stream.rdbuf()); // another stream over the buffer: without std::unitbuf, and flushed by hand
    second << std::nounitbuf << "unbuffered" << std::flush;
    Kest::_Gadgets::TStream unbuffered(loop, 1); // std::getline, >> and peek() would lose characters here, get() and read() do not
    std::string text(10, '\0');
    unbuffered.read(&text[0], 10);
    std::cout << text << '\n';
}
