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
#include <exception>
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

    // Runs task(part) for every part in [0, parts), parts <= size(); part 0 on
    // the caller.  Returns when all are done; the first exception a part threw
    // is thrown again here.
    void run(int parts, const std::function<void(int)>& task);

    // The cores of this machine (at least 1).
    static int cores();

  private:
    void serve(int part);

    std::vector<std::thread> threads_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    const std::function<void(int)>* task_ = nullptr;
    int parts_ = 0;
    int pending_ = 0;
    unsigned long generation_ = 0;
    bool stopping_ = false;
    std::exception_ptr error_;
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
