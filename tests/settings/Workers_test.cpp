// The run's thread team: how loops are cut among it, and what its threads
// leave alone (exceptions reach the caller, signals stay with the caller).

#include "settings/Workers.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

struct Chunk {
    int begin = -1, end = -1;
    std::thread::id thread;
};

std::vector<Chunk> cut(int n, int grain) {
    std::vector<Chunk> chunks(static_cast<size_t>(dhc::chunksFor(n, grain)));
    const int made = dhc::forChunks(n, grain, [&](int begin, int end, int i) {
        chunks.at(static_cast<size_t>(i)) = {begin, end, std::this_thread::get_id()};
    });
    EXPECT_EQ(made, static_cast<int>(chunks.size()));
    return chunks;
}

// The chunks tile [0, n) in order, each at least grain long when there are several.
void expectTiling(const std::vector<Chunk>& chunks, int n, int grain) {
    ASSERT_FALSE(chunks.empty());
    int next = 0;
    for (const Chunk& c : chunks) {
        EXPECT_EQ(c.begin, next);
        if (chunks.size() > 1) {
            EXPECT_GE(c.end - c.begin, grain);
        }
        next = c.end;
    }
    EXPECT_EQ(next, n);
}

}  // namespace

TEST(Workers, WithoutATeamTheCallerRunsTheWholeRange) {
    const std::vector<Chunk> chunks = cut(100000, 10);
    ASSERT_EQ(chunks.size(), 1u);
    expectTiling(chunks, 100000, 10);
    EXPECT_EQ(chunks[0].thread, std::this_thread::get_id());
}

TEST(Workers, ATeamCutsTheRangeIntoOneChunkPerMemberNoneBelowTheGrain) {
    dhc::Workers team(3);
    ASSERT_EQ(team.size(), 3);
    dhc::UseWorkers use(team);
    const std::vector<Chunk> three = cut(100, 10);
    ASSERT_EQ(three.size(), 3u);
    expectTiling(three, 100, 10);

    const std::vector<Chunk> two = cut(25, 10);  // room for two chunks of 10
    ASSERT_EQ(two.size(), 2u);
    expectTiling(two, 25, 10);
    ASSERT_EQ(cut(19, 10).size(), 1u);
    ASSERT_EQ(cut(0, 10).size(), 1u);
}

TEST(Workers, TheTeamIsInstalledOnItsOwnThreadOnly) {
    dhc::Workers team(2);
    {
        dhc::UseWorkers use(team);
        EXPECT_EQ(dhc::installedWorkers(), &team);
        dhc::Workers* seen = &team;
        std::thread([&] { seen = dhc::installedWorkers(); }).join();
        EXPECT_EQ(seen, nullptr);
        // Team members, workers included, cut the loops inside a chunk too.
        std::atomic<int> nested{0};
        dhc::forChunks(100, 10, [&](int, int, int) { nested += dhc::chunksFor(100, 10); });
        EXPECT_EQ(nested.load(), 2 + 2);  // each chunk may cut its own loops among the team
    }
    EXPECT_EQ(dhc::installedWorkers(), nullptr);
}

TEST(Workers, AnExceptionOfAnyChunkReachesTheCallerAndTheTeamCarriesOn) {
    dhc::Workers team(2);
    dhc::UseWorkers use(team);
    for (int failing = 0; failing < 2; ++failing) {
        EXPECT_THROW(dhc::forChunks(100, 10,
                                    [&](int, int, int i) {
                                        if (i == failing) throw std::runtime_error("chunk failed");
                                    }),
                     std::runtime_error);
    }
    std::atomic<int> sum{0};
    dhc::forChunks(100, 10, [&](int begin, int end, int) {
        for (int i = begin; i < end; ++i) sum += i;
    });
    EXPECT_EQ(sum.load(), 4950);
}

// Runs two parts that wait for each other, so two threads of the team run
// them; gives what each part saw, keyed by whether it ran on the caller.
template <typename See>
void onTwoThreads(See see) {
    std::atomic<int> started{0};
    dhc::forChunks(2, 1, [&](int, int, int) {
        ++started;
        for (int spin = 0; started.load() < 2 && spin < 50000000; ++spin) std::this_thread::yield();
        see();
    });
    ASSERT_EQ(started.load(), 2);
}

TEST(Workers, TwoPartsThatWaitForEachOtherRunOnTwoThreads) {
    dhc::Workers team(2);
    dhc::UseWorkers use(team);
    std::mutex m;
    std::vector<std::thread::id> ids;
    onTwoThreads([&] {
        std::lock_guard<std::mutex> lock(m);
        ids.push_back(std::this_thread::get_id());
    });
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_NE(ids[0], ids[1]);
}

TEST(Workers, WorkerThreadsBlockEverySignal) {
    dhc::Workers team(2);
    dhc::UseWorkers use(team);
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<int> workerBlocked{-1}, callerBlocked{-1};
    onTwoThreads([&] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        const int blocked = sigismember(&mask, SIGINT) + sigismember(&mask, SIGTERM);
        (std::this_thread::get_id() == caller ? callerBlocked : workerBlocked) = blocked;
    });
    EXPECT_EQ(workerBlocked.load(), 2);
    EXPECT_EQ(callerBlocked.load(), 0);  // the caller's own mask is left as it was
}
