#pragma once
// Workers: the threads of one run, for loops whose results cannot depend on
// how they are cut (per-pixel values, exact integer sums merged in chunk
// order).  A run makes a team and installs it on its own thread (UseWorkers);
// the loops of the core then cut their pixels among the installed team.  No
// team installed (or a team of one) means the loop runs whole on the caller.
//
// The team lives exactly as long as the run: no thread outlives it, so a MEX
// module can be unloaded and a process can fork between runs.  Worker
// threads block every signal: they stay with the thread that handles them.

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace dhc {

class Workers {
  public:
    // threads <= 0: one per core.  The caller is one of the team.
    explicit Workers(int threads);
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    int size() const { return static_cast<int>(threads_.size()) + 1; }

    // Runs task(part) for every part in [0, parts) and returns when all are
    // done; the first exception a part threw is thrown again here.  Any thread
    // may call it, a part of another call included: the caller takes parts of
    // its own call, the team's idle threads take any, and a caller whose parts
    // are all taken helps with other calls' parts while it waits.
    void run(int parts, const std::function<void(int)>& task);

    // The cores of this machine (at least 1).
    static int cores();

  private:
    struct Batch;
    void serve();
    // Takes the next part of `b` (lock held); false when none is left.
    bool claim(Batch& b, int& part);
    void runPart(std::unique_lock<std::mutex>& lock, Batch& b, int part);

    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable changed_;  // a part was offered or a batch finished
    std::vector<Batch*> open_;         // batches with parts not yet taken, oldest first
    bool stopping_ = false;
};

// Installs a team on the calling thread for the scope of this object.
class UseWorkers {
  public:
    explicit UseWorkers(Workers& team);
    ~UseWorkers();
    UseWorkers(const UseWorkers&) = delete;
    UseWorkers& operator=(const UseWorkers&) = delete;

  private:
    Workers* previous_;
};

// The team installed on the calling thread, or null.
Workers* installedWorkers();

// Cuts [0, n) into contiguous chunks, one per member of the installed team
// but none shorter than grain, and runs body(begin, end, chunk) on each;
// returns the number of chunks (1: the caller ran it all, as chunk 0).
// Chunk i covers [n * i / chunks, n * (i + 1) / chunks).
// The number of chunks forChunks(n, grain, ...) makes on this thread.
int chunksFor(int n, int grain);

template <typename Body>
int forChunks(int n, int grain, Body body) {
    const int chunks = chunksFor(n, grain);
    if (chunks <= 1) {
        body(0, n, 0);
        return 1;
    }
    const std::function<void(int)> task = [&](int i) {
        const int begin = static_cast<int>(static_cast<long long>(n) * i / chunks);
        const int end = static_cast<int>(static_cast<long long>(n) * (i + 1) / chunks);
        body(begin, end, i);
    };
    installedWorkers()->run(chunks, task);
    return chunks;
}

}  // namespace dhc
