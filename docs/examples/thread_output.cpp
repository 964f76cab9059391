#include <kest/foundation/cancellation.h>
#include <kest/foundation/exception.h>
#include <kest/foundation/time.h>
#include <kest/threads/thread.h>

#include <atomic>
#include <iostream>
#include <string>
#include <thread>

using namespace Kest::System;

/// Writes a line whole, or not at all where the thread was cancelled before. Fit for handlers and for streams that others use too.
void Log(const std::string& line) {
    const TCancellationOff off;
    std::cout << line << std::endl;
}

class TWorker : public TThread {
public:
    ~TWorker() override { CancelAndFinish(); }

    int Run() override {
        try {
            throw Kest::EException("no connection");
        } catch (const Kest::EException& failure) {
            IsHandling = true;
            while (!IsCancelled) // the request comes when the thread is about to write in its handler
                std::this_thread::yield();
            Log(failure.GetMessage());
        }
        Sleep(EndlessTimeInterval); // here the thread acts on the request
        return 0;
    }

    std::atomic<bool> IsHandling{false}, IsCancelled{false};
};

int main() {
    TWorker worker;
    worker.Start();
    while (!worker.IsHandling)
        std::this_thread::yield();
    worker.Cancel();
    worker.IsCancelled = true;
    const int result = worker.WaitFor();
    std::cout << "the worker ended with " << result << ", and this line is not lost\n";
}
