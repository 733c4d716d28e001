// The inline generator must draw exactly what the C library's rand() draws
// after the same srand(): the shuffled order of every run depends on it.
#include "settings/Random.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

void expectSameAsRand(unsigned seed, int draws) {
    std::srand(seed);
    dhc::Random r(seed);
    for (int i = 0; i < draws; ++i) {
        const int expected = std::rand();
        ASSERT_EQ(r.next(), expected) << "seed " << seed << ", draw " << i;
    }
}

TEST(Random, DrawsWhatRandDrawsAfterTheSameSeed) {
    // 0 (seeded as 1), small, the shuffle's seed above 2^31, the largest seed,
    // and seeds whose Schrage steps go negative.
    for (unsigned seed : {0u, 1u, 2u, 12345u, 127773u, 2147483647u, 2147483648u, 3605118785u, 4294967295u})
        expectSameAsRand(seed, 100000);
}

TEST(Random, ReseedingRestartsTheSequence) {
    dhc::Random r(77);
    const int first = r.next();
    for (int i = 0; i < 1000; ++i) r.next();
    r.reseed(77);
    EXPECT_EQ(r.next(), first);
    std::srand(1);
    EXPECT_EQ(dhc::Random().next(), std::rand());  // unseeded: as srand(1)
}

}  // namespace
