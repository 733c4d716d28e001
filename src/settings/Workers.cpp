#include "settings/Workers.h"

#include <pthread.h>

#include <csignal>

namespace dhc {

namespace {
thread_local Workers* installed = nullptr;
}

int Workers::cores() {
    const unsigned n = std::thread::hardware_concurrency();
    return n > 0 ? static_cast<int>(n) : 1;
}

struct Workers::Batch {
    const std::function<void(int)>* task = nullptr;
    int parts = 0;
    int next = 0;       // first part not yet taken
    int remaining = 0;  // parts not yet finished
    std::exception_ptr error;
};

Workers::Workers(int threads) {
    const int n = threads > 0 ? threads : cores();
    // Started with every signal blocked, which they inherit; the caller's mask
    // is restored afterwards.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        for (int i = 1; i < n; ++i) threads_.emplace_back([this] { serve(); });
    } catch (...) {
        // No thread to be had: the team is smaller, the results the same.
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

Workers::~Workers() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& t : threads_) t.join();
}

bool Workers::claim(Batch& b, int& part) {
    if (b.next >= b.parts) return false;
    part = b.next++;
    if (b.next == b.parts) {
        for (size_t i = 0; i < open_.size(); ++i)
            if (open_[i] == &b) {
                open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(i));
                break;
            }
    }
    return true;
}

void Workers::runPart(std::unique_lock<std::mutex>& lock, Batch& b, int part) {
    lock.unlock();
    std::exception_ptr error;
    try {
        (*b.task)(part);
    } catch (...) {
        error = std::current_exception();
    }
    lock.lock();
    if (error && !b.error) b.error = error;
    if (--b.remaining == 0) changed_.notify_all();
}

void Workers::serve() {
    // Loops inside the parts this thread runs are cut among the team too.
    installed = this;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || !open_.empty(); });
        if (stopping_) return;
        Batch& b = *open_.front();
        int part = 0;
        if (claim(b, part)) runPart(lock, b, part);
    }
}

void Workers::run(int parts, const std::function<void(int)>& task) {
    if (parts <= 0) return;
    Batch own;
    own.task = &task;
    own.parts = parts;
    own.remaining = parts;
    std::unique_lock<std::mutex> lock(mutex_);
    if (parts > 1) {
        open_.push_back(&own);
        changed_.notify_all();
    }
    int part = 0;
    while (claim(own, part)) runPart(lock, own, part);
    while (own.remaining > 0) {
        if (!open_.empty()) {
            Batch& other = *open_.front();
            if (claim(other, part)) runPart(lock, other, part);
        } else {
            changed_.wait(lock);
        }
    }
    lock.unlock();
    if (own.error) std::rethrow_exception(own.error);
}

UseWorkers::UseWorkers(Workers& team) : previous_(installed) {
    installed = &team;
}

UseWorkers::~UseWorkers() {
    installed = previous_;
}

Workers* installedWorkers() {
    return installed;
}

int chunksFor(int n, int grain) {
    const Workers* team = installed;
    int chunks = team != nullptr ? team->size() : 1;
    if (grain < 1) grain = 1;
    const int most = n / grain;
    if (most < chunks) chunks = most;
    return chunks > 1 ? chunks : 1;
}

}  // namespace dhc
