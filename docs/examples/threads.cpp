#include <kest/threads/condition.h>
#include <kest/threads/mutex.h>
#include <kest/threads/thread.h>

#include <iostream>
#include <mutex>

using namespace Kest::System;

/// Hands one number from one thread to another.
struct TSlot {
    TMutex Mutex{false};
    TCondition Filled;
    int Number = 0; // guarded by Mutex; 0 while there is none
};

class TWorker : public TThread {
public:
    explicit TWorker(TSlot& slot) : Slot(slot) {}
    ~TWorker() override { Finish(); } // before anything that Run() uses is gone

    int Run() override {
        const std::lock_guard<TMutex> inside(Slot.Mutex);
        Slot.Number = 42;
        Slot.Filled.Signal();
        return 7;
    }

private:
    TSlot& Slot;
};

int main() {
    TSlot slot;
    TWorker worker(slot); // created, and waits at its gate
    worker.Start();
    {
        const std::lock_guard<TMutex> inside(slot.Mutex);
        while (slot.Number == 0) // a wait may end without a signal
            slot.Filled.Wait(slot.Mutex);
        std::cout << "got " << slot.Number << '\n';
    }
    std::cout << "the thread ended with " << worker.WaitFor() << '\n'; // ask for the exit value before the destructor runs
}
