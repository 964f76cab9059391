// Ends a thread that waits for connections, at once and without losing a connection: a descriptor wakes the thread.
#include <kest/kest.h>

#include <cerrno>
#include <iostream>
#include <system_error>

#include <poll.h>
#include <unistd.h>

using Kest::System::TSocket;
namespace Errors = Kest::System::Interface::_Socket;

namespace {

/// Becomes readable for good when it is rung. Any thread may ring it, a signal handler too.
class TBell {
public:
    TBell() {
        if (::pipe(Ends) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
    }
    TBell(const TBell&) = delete;
    TBell& operator=(const TBell&) = delete;
    ~TBell() {
        ::close(Ends[0]);
        ::close(Ends[1]);
    }

    int GetDescriptor() const { return Ends[0]; }
    void Ring() const { (void)!::write(Ends[1], "", 1); }

private:
    int Ends[2];
};

class TDoor : public Kest::System::TThread {
public:
    explicit TDoor(TSocket& listener) : Listener(listener) { Listener.SetBlocking(false); }
    ~TDoor() override {
        Bell.Ring(); // from here on Run() ends by itself
        Finish();    // a thread that was never started is not waited for
    }

    int Run() override {
        int count = 0;
        pollfd wanted[] = {{Listener.GetDescriptor(), POLLIN, 0}, {Bell.GetDescriptor(), POLLIN, 0}};
        while (true) {
            if (::poll(wanted, 2, -1) < 0) // a signal; TThread blocks the usual ones
                continue;
            if (wanted[0].revents != 0) // the listener first: a client that has come is let in
                count += Accept();
            else if (wanted[1].revents != 0)
                return count;
        }
    }

    void Ring() const { Bell.Ring(); }

private:
    int Accept() {
        try {
            TSocket::TAddress peer("inet");
            const TSocket client = Listener.Accept(peer); // a program would hand the client on
            return 1;
        } catch (const Errors::EWouldBlock&) { // the client has gone again
        } catch (const Kest::EException& failure) {
            std::cerr << failure.GetMessage() << std::endl; // the descriptors are used up
            Kest::System::TThreadInstance::Sleep(0.1);      // poll would not wait
        }
        return 0;
    }

    TSocket& Listener; // this thread's alone while it runs
    TBell Bell;
};

} // namespace

int main() try {
    TSocket listener({"inet", TSocket::Stream, "tcp"}), client({"inet", TSocket::Stream, "tcp"});
    TSocket::TAddress address("inet", "127.0.0.1:0", false);
    listener.Bind(address);
    listener.Listen(0);
    listener.GetLocalAddress(address);

    TDoor door(listener);
    door.Start();
    client.Connect(address);
    door.Ring();
    std::cout << "came in before the bell: " << door.WaitFor() << std::endl;
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
} catch (const std::exception& failure) {
    std::cerr << failure.what() << std::endl;
    return 1;
}
