#include <kest/foundation/time.h>
#include <kest/threads/thread.h>

#include <iostream>

using namespace Kest::System;

struct TFarewell {
    ~TFarewell() { std::cout << "destructors run\n"; }
};

class TSleeper : public TThread {
public:
    ~TSleeper() override { CancelAndFinish(); } // without the request it would sleep on, and the destructor wait for ever

    int Run() override {
        const TFarewell farewell;
        Sleep(EndlessTimeInterval); // a cancellation point, like everything that waits for an event
        return 0;
    }
};

class TCounter : public TThread {
public:
    ~TCounter() override { CancelAndFinish(); }

    int Run() override {
        for (;;) {
            ++Count;
            Yield(); // work that never waits has no other cancellation point
        }
    }

private:
    unsigned Count = 0;
};

int main() {
    TSleeper sleeper;
    sleeper.Start();
    sleeper.Cancel(); // acted on in Sleep(), whether the thread is there already or not
    const int result = sleeper.WaitFor();
    std::cout << "the sleeper ended with " << result << '\n';

    TCounter counter;
    counter.Start();
    counter.Cancel();
    std::cout << "the counter ended with " << counter.WaitFor() << '\n';
}
