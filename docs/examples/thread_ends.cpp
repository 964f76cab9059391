#include <kest/net/socket.h>
#include <kest/threads/thread.h>

#include <atomic>
#include <iostream>
#include <thread>

using namespace Kest::System;

class TWorker : public TThread {
public:
    ~TWorker() override { Finish(); }

    int Run() override {
        HasBegun = true;
        Sleep(0.05);
        std::cout << "the worker came to its end\n";
        return 0;
    }

    std::atomic<bool> HasBegun{false};
};

/// Has a worker of its own, and a socket.
class TForeman : public TThread {
public:
    ~TForeman() noexcept override { Finish(); } // noexcept: a socket's destructor may throw, a thread's may not

    int Run() override {
        TWorker worker;
        worker.Start();
        while (!worker.HasBegun)
            std::this_thread::yield();
        IsLeaving = true;
        return 0; // the worker is waited for here, whatever becomes of the foreman meanwhile
    }

    std::atomic<bool> IsLeaving{false};
    TSocket Socket{TSocket::TProtocolInfo{"inet", TSocket::Stream, "tcp"}};
};

int main() {
    { const TWorker neverStarted; } // its body never begins, and its destructor does not wait for that

    TForeman foreman;
    foreman.Start();
    while (!foreman.IsLeaving)
        std::this_thread::yield();
    foreman.Cancel(); // arrives while the foreman waits for the worker in a destructor, which nothing may unwind
    (void)foreman.WaitFor();
    std::cout << "so did the foreman\n";
}
