// Beta estimation over intervals far beyond any sensible range: the search
// ends, and its answer lies in the interval.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

#include "engine/EngineFixtures.h"
#include "engine/PottsEngine.h"

using namespace enginetest;

namespace {

// The 2 x 9 scene of isolated pairs whose score (6 - 2 e^beta) / (1 + e^beta)
// has its root at ln 3 and is negative above it.
struct Pairs {
    std::set<std::pair<int, int>> pairs{{0, 0}, {1, 0}, {0, 2}, {0, 3}, {0, 5}, {1, 6}, {0, 8}, {1, 8}};
    Built b = makeWS(
        2, 9, 1, [](int, int, int) { return 0; },
        [this](int r, int c) {
            return pairs.count({r, c}) > 0;
        });
    int labels[2] = {4, 5};
    Pairs() {
        for (auto [r, c] : pairs) b.ws->root->setPixel(r, c, r == 1 && c == 8 ? 5 : 4);
    }
    double betaHat(double lo, double hi) {
        PottsEngine e(2, lo, hi, 0.0, false, 0.0, 0.0);
        e.ws = b.ws.get();
        return e.betaHat(labels);
    }
};

}  // namespace

TEST(BetaHatBounds, HugeOrOverflowingIntervalsEndInsideTheInterval) {
    Pairs p;
    const double big = std::numeric_limits<double>::max();
    const struct {
        double lo, hi;
    } cases[] = {
        {-1e100, 1.5},               // midpoints far below 0 score NaN; they end on -1e100's spacing
        {-1e308, 1.5}, {-big, big},  // the first midpoint is 0
        {1e300, big},                // the ends' sum overflows
        {-1e20, 1e20},               // the spacing of the ends exceeds 0.0001
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(testing::Message() << "[" << k.lo << ", " << k.hi << "]");
        const double beta = p.betaHat(k.lo, k.hi);
        EXPECT_TRUE(std::isfinite(beta));
        EXPECT_GE(beta, k.lo);
        EXPECT_LE(beta, k.hi);
    }
    // A wide interval over which the score stays finite still finds the root.
    EXPECT_NEAR(p.betaHat(-50, 50), std::log(3.0), 0.0001);
    // An infinite end gives no midpoint to try: betaMax stands.
    EXPECT_EQ(p.betaHat(-std::numeric_limits<double>::infinity(), 1.5), 1.5);
}
