// Splits, split gains and the class-count estimate.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "data/ImageFile.h"
#include "engine/EngineFixtures.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

bool regionAll(const PottsWS& ws, int label) {
    for (int p = 0; p < ws.loadedCount; ++p)
        if (mapLabel(ws, ws.coords[p].x, ws.coords[p].y) != label) return false;
    return true;
}

int totalArea(PottsWS** children, int k) {
    int n = 0;
    for (int i = 0; i < k; ++i) n += children[i]->envelopeCount;
    return n;
}

// Captures dhc::out() for the lifetime of the object.
struct CapturedOut {
    std::ostringstream text;
    std::ostream* previous;
    CapturedOut() : previous(dhc::setOut(&text)) {}
    ~CapturedOut() { dhc::setOut(previous); }
};

}  // namespace

// ---------------------------------------------------------------------------
// Unsupervised split

TEST(UnsupervisedSplit, RecoversRectangles) {
    for (int k : {2, 4}) {
        Synthetic s = rectangles(40, 40, k, 3, 12.0, 17u + k);
        Built b = s.build();
        PottsWS& ws = *b.ws;
        PottsEngine e(k, 0.0, 2.0, 0.0, false, 0.0, 0.0);
        int labels[4] = {4, 5, 6, 7};
        PottsWS** children = e.split(&ws, labels, false, 1.0);
        ASSERT_NE(children, nullptr) << "K = " << k;
        EXPECT_EQ(ws.splitState, 2);
        EXPECT_EQ(e.ws, nullptr);
        EXPECT_GE(agreement(ws, s), 0.99) << "K = " << k;
        EXPECT_GT(ws.splitGain, 0.0);
        EXPECT_EQ(ws.primaryGain, ws.splitGain);  // reported as the MRF gain
        EXPECT_GE(ws.beta, 0.0);
        EXPECT_LE(ws.beta, 2.0);
        EXPECT_EQ(totalArea(children, k), 1600);
        for (int i = 0; i < k; ++i) EXPECT_GT(children[i]->envelopeCount, 0);
        EXPECT_GE(e.lastPasses, 1);
        EXPECT_GE(e.lastSweeps, e.lastPasses);
        // The same partition scored as a change from {ws} to the children.
        PottsWS* before[1] = {&ws};
        EXPECT_NEAR(e.textureGain(&ws, before, 1, children, k), ws.splitGain, 1e-9 * std::fabs(ws.splitGain));
        freeChildren(children, k);
    }
}

TEST(UnsupervisedSplit, GainOnPureNoiseIsSmall) {
    // Cutting one Gaussian in two halves lowers its negative log-likelihood by
    // at most 1/2 ln(pi / (pi - 2)) per pixel (each half keeps 1 - 2/pi of the
    // variance along the cut), shared here by 3 bands; the Potts cost only
    // lowers the gain further.  Separated rectangles gain several times more.
    Synthetic clean = rectangles(40, 40, 2, 3, 12.0, 23);
    Synthetic noise = synthetic(
        40, 40, {{200.0, 215.0, 230.0}}, [](int, int) { return 0; }, 12.0, 23);
    double gains[2];
    int i = 0;
    for (const Synthetic* s : {&clean, &noise}) {
        Built b = s->build();
        PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
        int labels[2] = {4, 5};
        PottsWS** children = e.split(b.ws.get(), labels, false, 1.0);
        ASSERT_NE(children, nullptr);
        gains[i++] = b.ws->splitGain;
        freeChildren(children, 2);
    }
    const double halving = 0.5 * std::log(M_PI / (M_PI - 2.0)) / 3.0;
    EXPECT_LT(gains[1], halving + 0.01);
    EXPECT_GT(gains[0], 2.5 * gains[1]);
}

TEST(UnsupervisedSplit, EmptyClassRefusesAndRelabelsTheRegion) {
    Built b = makeWS(6, 6, 2, [](int, int c, int band) { return c < 3 ? 10 + band : 500 - band; });
    PottsEngine e(3, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    int labels[3] = {4, 5, 6};
    EXPECT_EQ(e.split(b.ws.get(), labels, false, 1.0), nullptr);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));
    EXPECT_EQ(e.ws, nullptr);
}

TEST(SplitFromMeans, StartsFromTheGivenMeans) {
    Synthetic s = rectangles(30, 30, 2, 2, 10.0, 31);
    Built b = s.build();
    PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    double** means = newMatrix(2, 2);
    means[0][0] = 190.0;  // near class 0 of the rectangles
    means[0][1] = 220.0;
    means[1][0] = 300.0;  // near class 1
    means[1][1] = 120.0;
    PottsWS** children = e.split(b.ws.get(), labels, means, false, 1.0);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(b.ws->splitState, 2);
    EXPECT_GE(agreement(*b.ws, s), 0.99);
    EXPECT_EQ(mapLabel(*b.ws, 0, 0), 4);   // the class of the first mean is labels[0]
    EXPECT_NEAR(means[0][0], 200.0, 3.0);  // the caller's means now hold the class means
    freeChildren(children, 2);

    // A workspace whose class estimate failed is refused.
    Built again = s.build();
    again.ws->splitState = -1;
    EXPECT_EQ(e.split(again.ws.get(), labels, means, false, 1.0), nullptr);
    freeMatrix(means, 2);
}

// ---------------------------------------------------------------------------
// Split from parts and split gain

TEST(SplitGain, UnchangedStatisticsCostOnlyTheSeparatedPairs) {
    // Every row holds the same values in both halves (value = f(row, column mod 4)),
    // so both halves have the parent's mean and covariance: the likelihood does
    // not change, and the gain is -edges * beta / N.
    Built b = makeWS(8, 16, 2, [](int r, int c, int band) {
        const int q = c % 4;
        return band == 0 ? 3 * r + q * q : r * r + 5 * q;
    });
    PottsWS& ws = *b.ws;
    int halves[2] = {8, 9};
    for (int r = 0; r < 8; ++r)
        for (int c = 0; c < 16; ++c) ws.root->setPixel(r, c, c < 8 ? 8 : 9);
    PottsWS** parts = nullptr;
    ASSERT_EQ(ws.split(halves, 2, parts, true), 2);

    PottsEngine e(2, 0.0, 1.5, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    int classOf[2] = {0, 1};
    PottsWS** children = e.split(&ws, labels, parts, 2, classOf, 2, false, 1.0);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(ws.splitState, 2);
    EXPECT_EQ(ws.beta, 1.5);  // a straight border: the score stays non-negative
    EXPECT_EQ(ws.edges, 22);  // 8 rows: 8 straight + 2 * 7 diagonal pairs
    EXPECT_NEAR(ws.splitGain, -22.0 * 1.5 / 128.0, 1e-9);
    EXPECT_EQ(e.beta, ws.beta);
    EXPECT_EQ(mapLabel(ws, 3, 2), 4);
    EXPECT_EQ(mapLabel(ws, 3, 12), 5);
    freeChildren(children, 2);
    freeChildren(parts, 2);
}

TEST(SplitGain, VarianceBasedGain) {
    // Two bands with covariance [[a, c], [c, b]]: N times the largest variance,
    // or N times the largest eigenvalue when the threshold exceeds that.
    Synthetic s = rectangles(10, 10, 2, 2, 8.0, 41);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    for (int r = 0; r < 10; ++r)
        for (int c = 0; c < 10; ++c) ws.root->setPixel(r, c, labels[s.classAt(r, c)]);
    PottsWS** children = nullptr;
    ws.split(labels, 2, children, true);
    ws.beta = 0.8;
    PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    const double low = e.splitGain(&ws, 2, children, 0.0);
    const double a = ws.sigma[0][0];
    const double bb = ws.sigma[1][1];
    const double c = ws.sigma[0][1];
    EXPECT_DOUBLE_EQ(low, 100.0 * std::max(a, bb));
    EXPECT_EQ(e.beta, 0.8);
    const double lambda = 0.5 * (a + bb) + std::sqrt(0.25 * (a - bb) * (a - bb) + c * c);
    const double high = e.splitGain(&ws, 2, children, low + 1.0);
    EXPECT_NEAR(high, 100.0 * lambda, 1e-6 * 100.0 * lambda);
    EXPECT_GT(high, low);
    freeChildren(children, 2);
}

// ---------------------------------------------------------------------------
// Supervised split

TEST(SupervisedSplit, FollowsTheClassModels) {
    Synthetic s = rectangles(24, 24, 2, 2, 10.0, 51);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    // Ground truth in the map: global class statistics and the likelihood table.
    int gtLabels[2] = {20, 21};
    for (int r = 0; r < 24; ++r)
        for (int c = 0; c < 24; ++c) ws.root->setPixel(r, c, gtLabels[s.classAt(r, c)]);
    PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    Mixture* none[2] = {nullptr, nullptr};
    EXPECT_EQ(e.split(&ws, labels, none), nullptr);  // no likelihood table yet
    ASSERT_TRUE(e.updateGlobalMixture(ws));
    // The table has one row per global class (label order: 20, then 21) ...
    int identity[2] = {0, 1};
    Mixture** leaves = e.generateLinkedMixtures(identity, 2);
    e.updateLikelihoodEnergy(leaves, 2);
    ASSERT_NE(e.energyTable, nullptr);
    // ... and the models of the split name their global classes: model 0 is class 1.
    int assign[2] = {1, 0};
    Mixture** models = e.generateLinkedMixtures(assign, 2);
    ws.root->mapRefresh(kRoot, false);

    PottsWS** children = e.split(&ws, labels, models);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(ws.splitState, 2);
    EXPECT_EQ(e.ws, nullptr);
    // Model 0 is truth class 1.
    int wrong = 0;
    for (int r = 0; r < 24; ++r)
        for (int c = 0; c < 24; ++c) wrong += mapLabel(ws, r, c) != labels[1 - s.classAt(r, c)];
    EXPECT_LE(wrong, 5);
    for (int c = 0; c < 2; ++c) {
        ASSERT_NE(children[c]->mixture, nullptr);
        EXPECT_EQ(children[c]->mixture->k, 1);
        EXPECT_EQ(children[c]->mixture->mi[0], models[c]->mi[0]);  // linked to the same global class
    }
    freeChildren(children, 2);
    for (Mixture** set : {leaves, models}) {
        for (int c = 0; c < 2; ++c) {
            delete[] set[c]->linkIndex;
            delete set[c];
        }
        delete[] set;
    }
}

// ---------------------------------------------------------------------------
// Fragmentation

TEST(Fragment, CutsTheRegionIntoItsPieces) {
    // Two blocks separated by two unselected columns.
    auto selected = [](int, int c) { return c < 3 || c > 4; };
    Built b = makeWS(
        4, 8, 1, [](int r, int c, int) { return r + c; }, selected);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {10, 11};
    PottsWS** children = e.fragment(b.ws.get(), labels, 2);
    ASSERT_NE(children, nullptr);
    EXPECT_EQ(children[0]->envelopeCount, 12);
    EXPECT_EQ(children[1]->envelopeCount, 12);
    EXPECT_EQ(e.ws, nullptr);
    for (int r = 0; r < 4; ++r) {
        EXPECT_EQ(mapLabel(*b.ws, r, 0), 10);
        EXPECT_EQ(mapLabel(*b.ws, r, 7), 11);
        EXPECT_EQ(mapLabel(*b.ws, r, 3), kOutside);
    }
    freeChildren(children, 2);

    Built whole = makeWS(4, 4, 1, [](int r, int c, int) { return r + c; });
    EXPECT_EQ(e.fragment(whole.ws.get(), labels, 2), nullptr);
}

// ---------------------------------------------------------------------------
// Class-count estimate

namespace {

// n blobs: quadrant-like vertical stripes with means far apart in three bands.
Synthetic stripes(int rows, int cols, int n, double spacing, double noise, unsigned seed) {
    std::vector<std::vector<double>> means;
    for (int k = 0; k < n; ++k)
        means.push_back({1000.0 + spacing * k, 1000.0 + spacing * ((k * 3) % n), 2000.0 - spacing * k});
    return synthetic(
        rows, cols, means, [cols, n](int, int c) { return c * n / cols; }, noise, seed);
}

}  // namespace

TEST(MSKEst, FindsThreeSeparatedBlobs) {
    Synthetic s = stripes(60, 60, 3, 150.0, 6.0, 61);
    Built b = s.build();
    DHC_SET settings;
    settings.tolerance = 0.05;
    PottsEngine e(&settings);
    int k = 0;
    CapturedOut out;
    double** modes = e.MS_K_est(b.ws.get(), k, true);
    ASSERT_EQ(k, 3);
    ASSERT_NE(modes, nullptr);
    EXPECT_EQ(e.multiplicity, 3);
    EXPECT_EQ(b.ws->splitState, 1);
    const std::string text = out.text.str();
    EXPECT_EQ(text.rfind("N.L.P. = 3000 - Dist: ", 0), 0u) << text;  // 3600 pixels, 3000 samples
    EXPECT_NE(text.find(" -  (inital knn = "), std::string::npos);
    EXPECT_NE(text.find(")\nModes found:\nMode #0: "), std::string::npos);
    EXPECT_NE(text.find("\nMode #2: "), std::string::npos);
    // The map holds three fresh labels that follow the stripes, and the modes are their means.
    EXPECT_GE(agreement(*b.ws, s), 0.99);
    for (int i = 0; i < 3; ++i) {
        bool near = false;
        for (int c = 0; c < 3; ++c) near = near || std::fabs(modes[i][0] - (1000.0 + 150.0 * c)) < 5.0;
        EXPECT_TRUE(near) << modes[i][0];
    }
    freeMatrix(modes, 3);
}

TEST(MSKEst, NineOrMoreModesAreRefused) {
    // Ten stripes, far apart relative to the noise: every stripe is a mode.
    Synthetic s = stripes(30, 100, 10, 4.0e6, 3.0, 71);
    Built b = s.build();
    DHC_SET settings;
    PottsEngine e(&settings);
    int k = 0;
    CapturedOut out;
    double** modes = e.MS_K_est(b.ws.get(), k, true);
    EXPECT_EQ(modes, nullptr);
    EXPECT_EQ(k, 1);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_EQ(out.text.str().find("Modes found:"), std::string::npos);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));  // the map is left alone
}

TEST(MSKEst, WithoutLabellingInMemoryValuesStay) {
    // Built from a region of interest: no file behind the values, and all of
    // them are loaded; the map is not touched either.
    Synthetic s = stripes(40, 60, 3, 150.0, 6.0, 81);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    const int* data = ws.data;
    DHC_SET settings;
    settings.tolerance = 0.05;
    PottsEngine e(&settings);
    int k = 0;
    CapturedOut out;
    double** modes = e.MS_K_est(&ws, k, false);
    ASSERT_EQ(k, 3);
    ASSERT_NE(modes, nullptr);
    EXPECT_EQ(ws.loadedCount, 2400);
    EXPECT_EQ(ws.data, data);
    EXPECT_EQ(ws.data[2399 * 3 + 2], s.value(39, 59, 2));
    EXPECT_TRUE(regionAll(ws, kRoot));
    EXPECT_EQ(ws.splitState, 0);
    freeMatrix(modes, 3);
}

TEST(MSKEst, WithoutLabellingAFileBackedWorkspaceReloadsEveryPixel) {
    Synthetic s = stripes(60, 60, 3, 150.0, 6.0, 91);
    int*** cube = ImageFile<int>::newCube(3, 60, 60);
    for (int b = 0; b < 3; ++b)
        for (int r = 0; r < 60; ++r)
            for (int c = 0; c < 60; ++c) cube[b][r][c] = s.value(r, c, b);
    const char* dir = std::getenv("DHC_TEST_TMP");
    const std::string path = std::string(dir != nullptr ? dir : "/tmp") + "/engine_stripes.hraw";
    ImageFile<int>::writeHRawInt32(path, cube, 3, 60, 60);
    ImageFile<int>::deleteCube(cube, 3, 60);

    PottsWS ws(false, 50.0f, path, kPad, kBorder, kRoot);  // the first 30 rows loaded
    ASSERT_EQ(ws.loadedCount, 1800);
    ws.updateMi();
    ws.updateSigma();
    DHC_SET settings;
    settings.tolerance = 0.05;
    PottsEngine e(&settings);
    int k = 0;
    CapturedOut out;
    double** modes = e.MS_K_est(&ws, k, false);
    ASSERT_EQ(k, 3);
    EXPECT_EQ(out.text.str().rfind("N.L.P. = 1800 - ", 0), 0u);  // samples come from the loaded pixels
    EXPECT_EQ(ws.loadedCount, 3600);
    EXPECT_EQ(ws.data[3599 * 3 + 1], s.value(59, 59, 1));
    freeMatrix(modes, 3);
    std::remove(path.c_str());
}
