// Worker threads take the lines of a text file from a bounded queue, convert each from UTF-8 to UCS-2 and back and check that nothing
// changed.
//
// Shows      threads with a base class that passes their failures on, a queue of a mutex and two conditions, how threads are ended
//            in every case, and the text conversions.
// Arguments  FILE WORKERS. WORKERS is the number of worker threads, 1 to 256. SIGINT ends the work early.
// Status     0 nothing changed; 1 lines changed, their numbers are printed; 2 bad arguments; 3 a failure, such as no memory, no more
//            threads, or a file or output that cannot be read or written; 4 interrupted.

#include <kest/foundation/exception.h>
#include <kest/text/utf8.h>
#include <kest/threads/condition.h>
#include <kest/threads/mutex.h>
#include <kest/threads/thread.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

using namespace Kest::System;

namespace {

constexpr int ExitUnchanged = 0;
constexpr int ExitChanged = 1;
constexpr int ExitUsage = 2;
constexpr int ExitFailed = 3;
constexpr int ExitInterrupted = 4;

constexpr std::size_t MostWaiting = 64;
constexpr long MostWorkers = 256;
constexpr double LookInterval = 0.02; // seconds between two looks for the end or the signal

volatile std::sig_atomic_t IsInterrupted = 0;

void Interrupt(int) {
    IsInterrupted = 1;
}

struct TLine {
    unsigned long Number;
    std::string Text;
};

/// A bounded queue between one reader and many workers. It ends when the reader closes it.
class TQueue {
public:
    /// Waits for room. The waits of a queue are cancellation points, and a cancelled wait leaves the queue unlocked.
    void Put(TLine line) {
        const std::lock_guard inside(Mutex);
        while (Lines.size() >= MostWaiting && !IsClosed)
            HasRoom.Wait(Mutex);
        if (IsClosed)
            return;
        Lines.push_back(std::move(line));
        HasLines.Signal();
    }

    /// Waits for a line; false when the queue is closed and empty.
    bool Take(TLine& line) {
        const std::lock_guard inside(Mutex);
        while (Lines.empty() && !IsClosed)
            HasLines.Wait(Mutex);
        if (Lines.empty())
            return false;
        line = std::move(Lines.front());
        Lines.pop_front();
        HasRoom.Signal();
        return true;
    }

    /// Says that no more lines will come. Lines that wait are still delivered unless @p dropsWaiting.
    void Close(bool dropsWaiting) {
        const std::lock_guard inside(Mutex);
        IsClosed = true;
        if (dropsWaiting)
            Lines.clear();
        HasLines.Broadcast();
        HasRoom.Broadcast();
    }

    /// Ends the work: @p failure happened in one of the threads.
    void Fail(const std::exception_ptr& failure) {
        {
            const std::lock_guard inside(Mutex);
            Failure = failure;
        }
        Close(true);
    }

    /// Throws again what Fail() was given.
    void ThrowFailure() {
        const std::lock_guard inside(Mutex);
        if (Failure)
            std::rethrow_exception(Failure);
    }

    /// True when no more lines will come. No operation waits for that: such a waiter would take away signals that the workers wait for.
    bool IsOver() {
        const std::lock_guard inside(Mutex);
        return IsClosed;
    }

private:
    TMutex Mutex{false};
    TCondition HasLines;
    TCondition HasRoom;
    std::deque<TLine> Lines;
    bool IsClosed = false;
    std::exception_ptr Failure;
};

/// Closes the queue when its scope is left in any way, so that nobody waits for the queue any more.
class TClosing {
public:
    explicit TClosing(TQueue& queue) : Queue(queue) {}
    TClosing(const TClosing&) = delete;
    TClosing& operator=(const TClosing&) = delete;
    ~TClosing() { Queue.Close(true); }

private:
    TQueue& Queue;
};

/// A thread that works for the queue. An exception must not leave Run(), so it goes to the queue, and from there to the main thread.
class TTask : public TThread {
protected:
    explicit TTask(TQueue& queue) : Queue(queue) {}

    virtual void Work() = 0;

    TQueue& Queue;

private:
    int Run() final {
        try {
            Work();
        } catch (const Kest::EException&) { // is no std::exception
            Queue.Fail(std::current_exception());
        } catch (const std::exception&) {
            Queue.Fail(std::current_exception());
        }
        return 0;
    }
};

/// Puts the lines of a file into the queue, and closes it at the end.
class TReader final : public TTask {
public:
    TReader(std::ifstream& file, TQueue& queue) : TTask(queue), File(file) {}
    ~TReader() override { CancelAndFinish(); } // the thread may wait for a file that never ends

private:
    void Work() override {
        std::string text;
        for (unsigned long number = 1; std::getline(File, text); ++number)
            Queue.Put({number, text});
        Queue.Close(false);
    }

    std::ifstream& File;
};

/// Converts lines until the queue ends.
class TWorker final : public TTask {
public:
    explicit TWorker(TQueue& queue) : TTask(queue) {}
    ~TWorker() override { Finish(); }

    // Other threads read these once the thread has ended.
    unsigned long Lines = 0;
    unsigned long long Characters = 0;
    std::vector<unsigned long> Changed;

private:
    void Work() override {
        TLine line{};
        while (Queue.Take(line)) {
            const auto wide = UTF8ToUCS(line.Text);
            ++Lines;
            Characters += wide.size();
            if (UCSToUTF8(wide) != line.Text)
                Changed.push_back(line.Number);
        }
    }
};

using TWorkers = std::vector<std::unique_ptr<TWorker>>;

/// Prints what the workers found; true when no line changed. Requires: the workers have ended.
bool Summarize(const TWorkers& workers) {
    unsigned long lines = 0;
    unsigned long long characters = 0;
    unsigned long changed = 0;
    for (const auto& worker : workers) {
        lines += worker->Lines;
        characters += worker->Characters;
        for (const unsigned long number : worker->Changed)
            std::printf("line %lu changed\n", number);
        changed += worker->Changed.size();
    }
    std::printf("%s%lu lines, %llu characters, %lu changed, %zu workers\n", IsInterrupted ? "interrupted: " : "", lines, characters,
                changed, workers.size());
    return changed == 0;
}

/// Lets the threads work until the end of the file, a failure or the signal. Returns the exit status.
int Process(std::ifstream& file, long workerCount) {
    TQueue queue;
    TWorkers workers;
    const TClosing closing(queue); // closes the queue before the workers are waited for, if one of the next steps fails
    for (long index = 0; index < workerCount; ++index) {
        workers.push_back(std::make_unique<TWorker>(queue));
        workers.back()->Start();
    }
    TReader reader(file, queue);
    reader.Start();
    while (!queue.IsOver() && !IsInterrupted)
        TThreadInstance::Sleep(LookInterval); // a signal ends the sleep
    if (IsInterrupted)
        queue.Close(true);
    reader.CancelAndFinish();
    for (const auto& worker : workers)
        worker->Finish();
    queue.ThrowFailure();
    const bool isUnchanged = Summarize(workers);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw Kest::EException("the result could not be written");
    return IsInterrupted ? ExitInterrupted : isUnchanged ? ExitUnchanged : ExitChanged;
}

int Run(const char* path, long workerCount) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "%s: %s\n", path, std::strerror(errno));
        return ExitFailed;
    }
    file.exceptions(std::ios_base::badbit); // a file that cannot be read to its end is an exception of the reader
    return Process(file, workerCount);
}

int Fail(const char* reason) {
    std::fprintf(stderr, "work_queue: %s\n", reason);
    return ExitFailed;
}

} // namespace

int main(int argc, char** argv) {
    char* end = nullptr;
    const long workerCount = argc == 3 ? std::strtol(argv[2], &end, 10) : 0;
    if (argc != 3 || end == argv[2] || *end != 0 || workerCount < 1 || workerCount > MostWorkers) {
        std::fprintf(stderr,
                     "usage: %s FILE WORKERS\n"
                     "WORKERS threads (1 to 256) convert the lines of FILE from UTF-8 to UCS-2 and back and check that nothing changed.\n"
                     "Exit status: 0; 1 lines changed (their numbers are printed); 2 bad arguments; 3 a failure; 4 interrupted.\n",
                     argv[0]);
        return ExitUsage;
    }
    struct sigaction action {};
    action.sa_handler = Interrupt;
    (void)sigaction(SIGINT, &action, nullptr);
    try {
        return Run(argv[1], workerCount);
    } catch (const Kest::EException& failure) {
        return Fail(failure.GetMessage().c_str());
    } catch (const std::bad_alloc&) {
        return Fail("memory ran out");
    } catch (const std::exception& failure) {
        return Fail(failure.what());
    }
}
