#include "data/Permute.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

namespace {

// In place, two values per entry, against a plain gather into a new list.
std::vector<int> gathered(const std::vector<int32_t>& perm, const std::vector<int>& list) {
    std::vector<int> out(list);
    std::vector<int32_t> from(perm);
    int kept[2] = {0, 0};
    dhc::gatherInPlace(
        from,
        [&](int s) {
            kept[0] = out[2 * s];
            kept[1] = out[2 * s + 1];
        },
        [&](int q, int p) {
            out[2 * q] = out[2 * p];
            out[2 * q + 1] = out[2 * p + 1];
        },
        [&](int q) {
            out[2 * q] = kept[0];
            out[2 * q + 1] = kept[1];
        });
    for (int32_t f : from) EXPECT_EQ(f, -1);
    return out;
}

TEST(PermuteTest, InPlaceGatherEqualsACopyingGather) {
    std::mt19937 gen(7);
    for (int n : {0, 1, 2, 3, 17, 1000}) {
        std::vector<int32_t> perm(n);
        std::iota(perm.begin(), perm.end(), 0);
        std::vector<std::vector<int32_t>> perms{perm};  // identity: nothing moves
        std::vector<int32_t> cycle(n);                  // one cycle through all
        for (int i = 0; i < n; ++i) cycle[i] = (i + 1) % n;
        perms.push_back(cycle);
        std::shuffle(perm.begin(), perm.end(), gen);
        perms.push_back(perm);
        std::vector<int> list(2 * n);
        for (int i = 0; i < 2 * n; ++i) list[i] = 3 * i + 1;
        for (const auto& p : perms) {
            std::vector<int> expected(2 * n);
            for (int q = 0; q < n; ++q) {
                expected[2 * q] = list[2 * p[q]];
                expected[2 * q + 1] = list[2 * p[q] + 1];
            }
            EXPECT_EQ(gathered(p, list), expected) << n;
        }
    }
}

}  // namespace
