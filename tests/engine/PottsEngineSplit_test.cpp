// Splits, split gains and the class-count estimate.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include "engine/EngineFixtures.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

// Frees linked mixtures (their index arrays are the caller's).
void freeLinked(Mixture** set, int k) {
    for (int c = 0; c < k; ++c) {
        if (set[c] != nullptr) delete[] set[c]->linkIndex;
        delete set[c];
    }
    delete[] set;
}

// n vertical stripes with means far apart in three bands.
Synthetic stripes(int rows, int cols, int n, double spacing, double noise, unsigned seed) {
    std::vector<std::vector<double>> means;
    for (int k = 0; k < n; ++k)
        means.push_back({1000.0 + spacing * k, 1000.0 + spacing * ((k * 3) % n), 2000.0 - spacing * k});
    return synthetic(
        rows, cols, means, [cols, n](int, int c) { return c * n / cols; }, noise, seed);
}

}  // namespace

TEST(UnsupervisedSplit, RecoversRectanglesAndGainsLittleOnNoise) {
    // Cutting one Gaussian in two halves lowers its negative log-likelihood by
    // at most 1/2 ln(pi / (pi - 2)) per pixel (each half keeps 1 - 2/pi of the
    // variance along the cut), shared here by 3 bands; the Potts cost only
    // lowers the gain further.  Separated rectangles gain several times more.
    const Synthetic images[3] = {rectangles(40, 40, 2, 3, 12.0, 19), rectangles(40, 40, 4, 3, 12.0, 21),
                                 synthetic(
                                     40, 40, {{200.0, 215.0, 230.0}}, [](int, int) { return 0; }, 12.0, 23)};
    double gains[3];
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        const int k = i == 1 ? 4 : 2;
        Built b = images[i].build();
        PottsWS& ws = *b.ws;
        PottsEngine e(k, 0.0, 2.0, 0.0, false, 0.0, 0.0);
        int labels[4] = {4, 5, 6, 7};
        PottsWS** children = e.split(&ws, labels, false, 1.0);
        ASSERT_NE(children, nullptr);
        EXPECT_EQ(ws.splitState, 2);
        EXPECT_EQ(e.ws, nullptr);
        EXPECT_EQ(ws.primaryGain, ws.splitGain);  // reported as the MRF gain
        gains[i] = ws.splitGain;
        if (i < 2) {
            EXPECT_GE(agreement(ws, images[i]), 0.99);
            EXPECT_GT(ws.splitGain, 0.0);
        }
        freeChildren(children, k);
    }
    EXPECT_LT(gains[2], 0.5 * std::log(M_PI / (M_PI - 2.0)) / 3.0 + 0.01);
    EXPECT_GT(gains[0], 2.5 * gains[2]);
}

TEST(SplitGain, UnchangedStatisticsCostOnlyTheSeparatedPairs) {
    // Every row holds the same values in both halves, so both halves have the
    // parent's mean and covariance: the likelihood does not change, and the
    // gain is -edges * beta / N.
    Built b = makeWS(8, 16, 2, [](int r, int c, int band) {
        return band == 0 ? 3 * r + (c % 4) * (c % 4) : r * r + 5 * (c % 4);
    });
    PottsWS& ws = *b.ws;
    int halves[2] = {8, 9};
    for (int p = 0; p < 8 * 16; ++p) ws.root->setPixel(p / 16, p % 16, p % 16 < 8 ? 8 : 9);
    PottsWS** parts = nullptr;
    ASSERT_EQ(ws.split(halves, 2, parts, true), 2);

    PottsEngine e(2, 0.0, 1.5, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    int classOf[2] = {1, 0};
    PottsWS** children = e.split(&ws, labels, parts, 2, classOf, 2, false, 1.0);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(ws.splitState, 2);
    EXPECT_EQ(ws.beta, 1.5);  // a straight border: the score stays non-negative
    EXPECT_EQ(ws.edges, 22);  // 8 rows: 8 straight + 2 * 7 diagonal pairs
    EXPECT_NEAR(ws.splitGain, -22.0 * 1.5 / 128.0, 1e-9);
    EXPECT_EQ(mapLabel(ws, 3, 2), 5);  // part 0 went to class 1
    EXPECT_EQ(mapLabel(ws, 3, 12), 4);
    freeChildren(children, 2);
    freeChildren(parts, 2);
}

TEST(SupervisedSplit, FollowsTheClassModels) {
    Synthetic s = rectangles(24, 24, 2, 2, 10.0, 51);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    // Ground truth in the map: global class statistics and the likelihood table.
    int gtLabels[2] = {20, 21};
    s.paintTruth(ws, gtLabels);
    PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    ASSERT_TRUE(e.updateGlobalMixture(ws));
    // The table has one row per global class (20, then 21) ...
    int identity[2] = {0, 1};
    Mixture** leaves = e.generateLinkedMixtures(identity, 2);
    e.updateLikelihoodEnergy(leaves, 2);
    // ... and the models of the split name their global classes: model 0 is class 1.
    int assign[2] = {1, 0};
    Mixture** models = e.generateLinkedMixtures(assign, 2);
    ws.root->mapRefresh(kRoot, false);

    PottsWS** children = e.split(&ws, labels, models);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(ws.splitState, 2);
    int wrong = 0;
    for (int p = 0; p < 24 * 24; ++p) wrong += mapLabel(ws, p / 24, p % 24) != labels[1 - s.truth[p]];
    EXPECT_LE(wrong, 5);
    freeChildren(children, 2);
    freeLinked(leaves, 2);
    freeLinked(models, 2);
}

TEST(MSKEst, FindsThreeSeparatedBlobs) {
    Synthetic s = stripes(60, 60, 3, 150.0, 6.0, 61);
    Built b = s.build();
    DHC_SET settings;
    settings.tolerance = 0.05;
    PottsEngine e(&settings);
    int k = 0;
    std::ostringstream progress;
    dhc::setOut(&progress);
    double** modes = e.MS_K_est(b.ws.get(), k, true);
    dhc::setOut(nullptr);
    ASSERT_EQ(k, 3);
    ASSERT_NE(modes, nullptr);
    EXPECT_EQ(e.multiplicity, 3);
    EXPECT_EQ(b.ws->splitState, 1);
    EXPECT_EQ(progress.str().rfind("N.L.P. = 3000 - Dist: ", 0), 0u);  // 3600 pixels, 3000 samples
    // The map holds three fresh labels that follow the stripes, and the modes are their means.
    EXPECT_GE(agreement(*b.ws, s), 0.99);
    std::vector<double> firstBand{modes[0][0], modes[1][0], modes[2][0]};
    std::sort(firstBand.begin(), firstBand.end());
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(firstBand[c], 1000.0 + 150.0 * c, 5.0);
    dhc::deleteRows(modes, 3);
}

// Runs the estimate on a region it must refuse: k = 1, no modes, state -1 and the map left alone.
void expectRefused(const Built& b) {
    DHC_SET settings;
    PottsEngine e(&settings);
    int k = 0;
    std::ostringstream progress;
    dhc::setOut(&progress);
    EXPECT_EQ(e.MS_K_est(b.ws.get(), k, true), nullptr);
    dhc::setOut(nullptr);
    EXPECT_EQ(k, 1);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_EQ(progress.str().find("Modes found:"), std::string::npos);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));
}

TEST(MSKEst, NineOrMoreModesAreRefused) {
    // Ten stripes, far apart relative to the noise: every stripe is a mode.
    expectRefused(stripes(30, 100, 10, 4.0e6, 3.0, 71).build());
}

TEST(MSKEst, RegionWithoutSpreadHasNoModes) {
    // Its standardised projection is not finite: the estimate must refuse, not seed forever.
    expectRefused(makeWS(20, 20, 2, [](int, int, int) { return 7; }));
}
