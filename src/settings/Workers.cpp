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

Workers::Workers(int threads) {
    const int n = threads > 0 ? threads : cores();
    // Started with every signal blocked, which they inherit; the caller's mask
    // is restored afterwards.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        for (int i = 1; i < n; ++i) threads_.emplace_back([this, i] { serve(i); });
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
    wake_.notify_all();
    for (std::thread& t : threads_) t.join();
}

void Workers::serve(int part) {
    unsigned long seen = 0;
    for (;;) {
        const std::function<void(int)>* task = nullptr;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
            if (stopping_) return;
            seen = generation_;
            if (part >= parts_) continue;
            task = task_;
        }
        std::exception_ptr error;
        try {
            (*task)(part);
        } catch (...) {
            error = std::current_exception();
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (error && !error_) error_ = error;
        if (--pending_ == 0) done_.notify_one();
    }
}

void Workers::run(int parts, const std::function<void(int)>& task) {
    if (parts > size()) parts = size();
    if (parts <= 1) {
        if (parts == 1) task(0);
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        task_ = &task;
        parts_ = parts;
        pending_ = parts - 1;
        error_ = nullptr;
        ++generation_;
    }
    wake_.notify_all();
    std::exception_ptr error;
    try {
        task(0);
    } catch (...) {
        error = std::current_exception();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [&] { return pending_ == 0; });
    task_ = nullptr;
    if (!error) error = error_;
    error_ = nullptr;
    lock.unlock();
    if (error) std::rethrow_exception(error);
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
