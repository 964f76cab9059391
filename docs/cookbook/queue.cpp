// A queue between threads: takers wait until a deadline, and may be cancelled while they wait.
#include <kest/kest.h>

#include <chrono>
#include <deque>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>

using namespace Kest::System;
using namespace std::chrono_literals;

namespace {

template <class T>
class TQueue {
public:
    using TClock = std::chrono::steady_clock; // nobody can set this clock

    void Put(T item) {
        const std::lock_guard<TMutex> inside(Mutex);
        Items.push_back(std::move(item));
        Changed.Signal();
    }

    /// Nothing more will come: takers get what is left, then nothing.
    void Close() {
        const std::lock_guard<TMutex> inside(Mutex);
        IsClosed = true;
        Changed.Broadcast();
    }

    /// The next item; nothing when the queue is closed and empty, or at the deadline. Cancellation point.
    std::optional<T> Take(TClock::time_point deadline) {
        const std::lock_guard<TMutex> inside(Mutex); // a return, an exception and a cancellation leave the mutex
        while (Items.empty() && !IsClosed) {         // a wait may end for no reason
            const auto rest = deadline - TClock::now();
            if (rest <= 0s)
                return std::nullopt;
            Changed.Wait(Mutex, TimeLimit(rest)); // TimeLimit never gives 0.0, "no limit"
        }
        if (Items.empty())
            return std::nullopt;
        T item = std::move(Items.front());
        Items.pop_front();
        return item;
    }

private:
    TMutex Mutex{false};
    TCondition Changed;
    std::deque<T> Items;
    bool IsClosed = false;
};

class TTaker : public TThread {
public:
    explicit TTaker(TQueue<std::string>& queue) : Queue(queue) {}
    ~TTaker() override { CancelAndFinish(); }

    int Run() override {
        int count = 0;
        while (const std::optional<std::string> item = Queue.Take(TQueue<std::string>::TClock::now() + 1h))
            ++count;
        return count;
    }

private:
    TQueue<std::string>& Queue; // outlives the thread, since the thread is declared after it
};

} // namespace

int main() try {
    TQueue<std::string> queue;
    if (!queue.Take(TQueue<std::string>::TClock::now() + 20ms))
        std::cout << "nothing came in time" << std::endl;
    {
        TTaker cancelled(queue);
        cancelled.Start();
        cancelled.Cancel();
        std::cout << "a cancelled thread ends with " << cancelled.WaitFor() << std::endl;
    }
    TTaker taker(queue);
    taker.Start();
    for (const char* item : {"one", "two", "three"})
        queue.Put(item);
    queue.Close();
    std::cout << "taken: " << taker.WaitFor() << std::endl;
} catch (const Kest::EException& failure) {
    std::cerr << failure.GetMessage() << std::endl;
    return 1;
}
