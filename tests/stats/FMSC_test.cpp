#include "stats/FMSC.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "StatsTestSupport.h"
#include "common/TestSupport.h"
#include "settings/Fatal.h"
#include "settings/Random.h"

namespace {

using stats_test::Rows;

// count points within 0.01 of a 2-D centre: tight enough that one search from
// any of them visits exactly this group (its bandwidth is set by the next group).
void addTightGroup(Rows& pts, double cx, double cy, int count) {
    for (int i = 0; i < count; ++i) {
        const double a = 2.0 * M_PI * i / count;
        pts.add({cx + 0.01 * std::cos(a), cy + 0.01 * std::sin(a)});
    }
}

TEST(FMSCModes, ThreeSeparatedBlobsGiveThreeModesWithTheirPopulations) {
    std::mt19937 gen(21);
    std::normal_distribution<double> noise(0.0, 0.5);
    const double centres[3][3] = {{0, 0, 0}, {8, 0, 0}, {0, 8, 0}};
    const int sizes[3] = {100, 150, 200};
    Rows pts;
    for (int b = 0; b < 3; ++b)
        for (int i = 0; i < sizes[b]; ++i)
            pts.add({centres[b][0] + noise(gen), centres[b][1] + noise(gen), centres[b][2] + noise(gen)});

    // A neighbourhood as large as the smallest blob, as in the engine where knn
    // is a sizeable fraction of n; smaller ones let sampling noise split the
    // largest blob into sub-modes.
    FMSC ms(pts.get(), 3, pts.size(), 100, 0.05, 100.0, 0, 0.05, 0.0, 0);
    int k = -1;
    double** modes = ms.getModes(k);
    ASSERT_EQ(k, 3);
    int* counts = ms.getPointsForMode(k);
    int* cls = ms.getClassification(k);
    // Each blob's points all share one mode, near the blob's centre, that owns exactly them.
    int first = 0;
    for (int b = 0; b < 3; ++b) {
        const int mode = cls[first] - 1;
        ASSERT_TRUE(mode >= 0 && mode < 3) << "blob " << b;
        EXPECT_EQ(counts[mode], sizes[b]) << "blob " << b;
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(modes[mode][c], centres[b][c], 0.2) << "blob " << b;
        for (int p = first; p < first + sizes[b]; ++p) ASSERT_EQ(cls[p], mode + 1) << "point " << p;
        first += sizes[b];
    }
    dhc::deleteRows(modes, 3);
    delete[] counts;
    delete[] cls;
}

TEST(FMSCModes, TolerancePruningSeventyPercentRuleAndSkipLast) {
    // Tight groups 10 apart on a line and knn 1: each search files exactly one
    // group, so group g becomes mode g + 1 unless it is dropped (0 = unassigned).
    struct Case {
        std::vector<int> sizes;
        double tolerance, skipLast;
        std::vector<int> modeOfGroup;
    };
    const std::vector<int> tens(10, 10);
    const Case cases[] = {
        {{60, 2, 2, 2}, 0.0, 0.0, {1, 2, 3, 4}},           // tolerance 0 removes nothing
        {{60, 2, 2, 2}, 0.1, 0.0, {1, 0, 0, 0}},           // 2 < 6.6 go; 60 of 66 >= 70 % stay
        {{40, 20, 20, 20}, 0.2, 0.0, {1, 2, 3, 4}},        // 20 is not below 0.2 * 100: kept
        {{40, 20, 20, 20}, 0.25, 0.0, {0, 0, 0, 0}},       // 40 of 100 would stay: < 70 %
        {tens, 0.0, 0.1, {1, 2, 3, 4, 5, 6, 7, 8, 9, 0}},  // seeding stops at 90 % assigned
        {tens, 0.0, 0.0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
    };
    for (const Case& t : cases) {
        SCOPED_TRACE(::testing::Message() << t.sizes[0] << " / " << t.tolerance << " / " << t.skipLast);
        Rows pts;
        for (std::size_t g = 0; g < t.sizes.size(); ++g) addTightGroup(pts, 10.0 * g, 0, t.sizes[g]);
        FMSC ms(pts.get(), 2, pts.size(), 1, 0.05, 100.0, 0, t.tolerance, t.skipLast, 0);
        int k = -1;
        double** modes = ms.getModes(k);
        dhc::deleteRows(modes, k);
        ASSERT_EQ(k, *std::max_element(t.modeOfGroup.begin(), t.modeOfGroup.end()));
        int* counts = ms.getPointsForMode(k);
        int* cls = ms.getClassification(k);
        for (std::size_t g = 0, p = 0; g < t.sizes.size(); ++g) {
            if (t.modeOfGroup[g] > 0) {
                EXPECT_EQ(counts[t.modeOfGroup[g] - 1], t.sizes[g]) << "group " << g;
            }
            for (int i = 0; i < t.sizes[g]; ++i, ++p) EXPECT_EQ(cls[p], t.modeOfGroup[g]) << "point " << p;
        }
        delete[] counts;
        delete[] cls;
    }
}

// The progress lines that constructing an auto-adjusting FMSC (knn 20) writes to dhc::out().
std::vector<std::string> azimuthLines(Rows& pts, int target, unsigned seed, int& knn) {
    std::ostringstream buffer;
    std::ostream* previous = dhc::setOut(&buffer);
    dhc::processRandom().reseed(seed);
    knn = FMSC(pts.get(), 2, pts.size(), 20, 0.05, 100.0, target, 0.0, 0.0, 0).knn;
    dhc::setOut(previous);
    std::vector<std::string> lines;
    std::istringstream in(buffer.str());
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

TEST(FMSCAzimuth, StopsAfterSevenRepeatsOrShrinksTheNeighbourCount) {
    // One group: every search finds the same mode.  A target of 1 is met at
    // once and confirmed by six repeats.
    Rows pts;
    addTightGroup(pts, 0, 0, 25);
    int knn = 0;
    auto lines = azimuthLines(pts, 1, 3605118785u, knn);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0], "k = 0, seq = 0, k_nn = 20");
    EXPECT_EQ(lines[6], "k = 1, seq = 6, k_nn = 20");
    EXPECT_EQ(knn, 20);

    // A target of 3 is unreachable: five repeats trigger knn = ceil(0.95 knn),
    // 20 -> 19, and 19 stays 19, so the run ends at the limit of 500
    // adjustments after 2500 searches.
    lines = azimuthLines(pts, 3, 1u, knn);
    ASSERT_EQ(lines.size(), 2500u);
    EXPECT_EQ(lines[4], "k = 1, seq = 4, k_nn = 20");
    EXPECT_EQ(lines[5], "k = 0, seq = 0, k_nn = 19");
    EXPECT_EQ(knn, 19);
}

TEST(FMSCIniDeathTest, ReadsTheMeanShiftSectionOrEndsWithStatusMinusOne) {
    const std::string path = dhc::test::tmpPath("fmsc.ini");
    std::ofstream(path, std::ios::binary)
        << "[POTTS_MODEL]\nTolerance=0.9\n\n[MEANSHIFT]\nTolerance=0.05\n\n";
    Rows pts;
    addTightGroup(pts, 0, 0, 5);
    EXPECT_EQ(FMSC(pts.get(), 2, pts.size(), 3, 0.05, 100.0, path.c_str()).tolerance, 0.05);
    std::ofstream(path, std::ios::binary) << "[POTTS_MODEL]\nBetaMax=3\n\n";
    EXPECT_EXIT(FMSC(pts.get(), 2, pts.size(), 3, 0.05, 100.0, path.c_str()), ::testing::ExitedWithCode(255),
                "");
}

}  // namespace
