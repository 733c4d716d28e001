// Engine configuration, clustering (kGLA, kML), ICM and beta estimation.

#include "engine/PottsEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <string>

#include "common/TestSupport.h"
#include "engine/EngineFixtures.h"
#include "settings/DHC_SET.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

// An engine of K classes with beta in [0, 1].
PottsEngine engine(int k, double betaBound = 0.0, bool adaptive = false) {
    return PottsEngine(k, 0.0, 1.0, betaBound, adaptive, 0.0, 0.0);
}

// Outcome of the table-form ICM on a one-row workspace.
struct RowRun {
    std::vector<int> classes;  // final class of every pixel
    int result = 0;
    int flagged = 0;  // pixels marked as relabelled
};

// Runs the table-form ICM with classes 0 and 1 (labels 4 and 5) on a one-row
// workspace whose pixels start in `start`; e0 and e1 are the class energies,
// `marked` the pixels whose aux is set.
RowRun icmRow(PottsEngine& e, const std::vector<int>& start, std::vector<double> e0, std::vector<double> e1,
              const std::vector<int>& marked = {}) {
    const int n = static_cast<int>(start.size());
    Built b = makeWS(1, n, 1, [](int, int, int) { return 0; });
    int labels[2] = {4, 5};
    for (int c = 0; c < n; ++c) b.ws->root->setPixel(0, c, labels[start[c]]);
    for (int c : marked) b.ws->coords[c].aux = 1;
    double* energy[2] = {e0.data(), e1.data()};
    double** means = newMatrix(2, 1);
    e.ws = b.ws.get();
    RowRun out;
    out.result = e.kICM(means, labels, energy);
    e.ws = nullptr;
    for (int c = 0; c < n; ++c) {
        out.classes.push_back(mapLabel(*b.ws, 0, c) - labels[0]);
        out.flagged += b.ws->coords[c].flag;
    }
    freeMatrix(means, 2);
    return out;
}

}  // namespace

TEST(PottsEngineConfig, SettingsAndIniFileKeepBetaBoundOnlyWhenAdaptive) {
    DHC_SET s;
    s.multiplicity = 4;
    s.betaBound = 6.0;
    EXPECT_EQ(PottsEngine(&s).betaBound, 0.0);
    s.adaptive = true;
    EXPECT_EQ(PottsEngine(&s).betaBound, 6.0);
    EXPECT_EQ(PottsEngine(&s).multiplicity, 4);

    std::string path = dhc::test::tmpPath("engine_config.ini");
    std::ofstream(path, std::ios::binary)
        << "[MEANSHIFT]\nTolerance=0.5\n\n[POTTS_MODEL]\nMultiplicity=3\nBetaMin=0.25\nBetaMax=1.75\n"
           "Adaptive=0\nBetaBound=9\nRangeBandwidth=4.5\nSpatialBandwidth=6\n";
    PottsEngine plain(&path[0]);
    EXPECT_EQ(plain.multiplicity, 3);
    EXPECT_EQ(plain.betaMin, 0.25);
    EXPECT_EQ(plain.betaMax, 1.75);
    EXPECT_EQ(plain.betaBound, 0.0);  // read only in adaptive mode
    EXPECT_EQ(plain.rangeBandwidth, 4.5);
    EXPECT_EQ(plain.spatialBandwidth, 6.0);
    std::ofstream(path, std::ios::binary) << "[POTTS_MODEL]\r\nAdaptive=1\r\nBetaBound=9\r\n";
    PottsEngine fromFile(&path[0]);
    EXPECT_EQ(fromFile.betaBound, 9.0);
    EXPECT_EQ(fromFile.multiplicity, 0);  // missing keys read as 0
    std::remove(path.c_str());
}

TEST(PottsEngineTest, GlobalMixtureSkipsLabelZero) {
    // Band value = 10 * column; columns 0-1 unassigned (0), 2-3 label 5, 4-5 label 6.
    Built b = makeWS(2, 6, 1, [](int, int c, int) { return 10 * c; });
    PottsWS& ws = *b.ws;
    paint(ws, {{0, 0, 5, 5, 6, 6}, {0, 0, 5, 5, 6, 6}});
    PottsEngine e = engine(2);
    EXPECT_TRUE(e.updateGlobalMixture(ws));
    ASSERT_EQ(e.globalMixture->k, 2);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[1][0], 45.0);
    EXPECT_DOUBLE_EQ(e.globalMixture->sigma[0][0][0], 25.0);  // values 20, 30
    EXPECT_NEAR(e.globalMixture->logdet[0], std::log(25.0), 1e-12);
    // Without label 0 every listed label is a class.
    paint(ws, {{5, 5, 5, 5, 6, 7}, {5, 5, 5, 5, 6, 7}});
    EXPECT_TRUE(e.updateGlobalMixture(ws));
    ASSERT_EQ(e.globalMixture->k, 3);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[0][0], 15.0);
}

TEST(KGLA, OneClassConstantWorkspaceAndEquidistantPixels) {
    int labels[2] = {4, 5};
    // K = 1: no split; the codeword is the workspace mean.
    Built one = rectangles(6, 8, 2, 2, 5.0, 11).build();
    double** code = engine(1).kGLA(one.ws.get(), labels);
    EXPECT_EQ(one.ws->splitState, 1);
    EXPECT_TRUE(regionAll(*one.ws, 4));
    EXPECT_NEAR(code[0][1], one.ws->mi[1], 1e-9);
    freeMatrix(code, 1);

    // All pixels equal: the label covariance is repaired to the identity, the
    // codewords split by a thousandth; every pixel is equidistant and stays
    // with codeword 0, codeword 1 stays empty: abandoned, region relabelled.
    Built flat = makeWS(5, 7, 3, [](int, int, int band) { return 40 + band; });
    code = engine(2).kGLA(flat.ws.get(), labels);
    EXPECT_EQ(flat.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*flat.ws, kRoot));
    freeMatrix(code, 2);

    // Row 0 = 3000, rows 1-6 = 5000, row 7 = 7000: mean 5000, variance 1e6, so
    // eps = 1000 / 1000 = 1 and the first codewords 5001 and 4999 are both at
    // distance 1 from every 5000 pixel.  The lower codeword takes them and the
    // clustering settles on {5000, 7000} / {3000}; the other way round it would
    // settle on {7000} / {3000, 5000}.
    Built b = makeWS(8, 8, 1, [](int r, int, int) { return r == 0 ? 3000 : (r == 7 ? 7000 : 5000); });
    code = engine(2).kGLA(b.ws.get(), labels);
    EXPECT_EQ(b.ws->splitState, 1);
    for (int r = 0; r < 8; ++r) EXPECT_EQ(mapLabel(*b.ws, r, 3), r == 0 ? 5 : 4);
    EXPECT_NEAR(code[0][0], (48.0 * 5000 + 8.0 * 7000) / 56.0, 1e-9);
    EXPECT_NEAR(code[1][0], 3000.0, 1e-9);
    freeMatrix(code, 2);
}

TEST(KML, TiesGoToTheLowerClassAndCountProductsWrapAt32Bits) {
    // Four quadrant classes of 256 pixels each: 256^4 = 2^32 wraps to 0 and
    // counts as an empty class, in kML and in the table-form kICM alike.
    Built b = makeWS(32, 32, 1, [](int r, int c, int) { return r + c; });
    PottsWS& ws = *b.ws;
    PottsEngine e = engine(4);
    int labels[4] = {4, 5, 6, 7};
    double** energy = newMatrix(4, 1024);
    for (int p = 0; p < 1024; ++p)
        for (int c = 0; c < 4; ++c) energy[c][p] = 1.0;
    for (int p = 0; p < 1024; ++p)
        energy[(ws.coords[p].x < 16 ? 0 : 2) + (ws.coords[p].y < 16 ? 0 : 1)][p] = 0.0;
    double** means = e.kML(&ws, labels, energy);
    EXPECT_EQ(ws.splitState, -1);
    EXPECT_TRUE(regionAll(ws, kRoot));
    freeMatrix(means, 4);

    energy[3][1023] = 1.0;  // pixel (31, 31) ties everywhere: class 0 takes it
    means = e.kML(&ws, labels, energy);
    EXPECT_EQ(ws.splitState, 1);
    EXPECT_EQ(mapLabel(ws, 31, 31), 4);
    freeMatrix(means, 4);

    energy[3][1023] = 0.0;
    e.ws = &ws;
    means = newMatrix(4, 1);
    EXPECT_EQ(e.kICM(means, labels, energy), -2);
    EXPECT_EQ(mapLabel(ws, 31, 31), 7);  // the labelling itself stands
    freeMatrix(means, 4);
    freeMatrix(energy, 4);
}

TEST(KICMDeathTest, MissingWorkspaceEndsTheProcess) {
    PottsEngine e = engine(2);
    int labels[2] = {4, 5};
    double** means = newMatrix(2, 1);
    EXPECT_EXIT(e.kICM(means, labels), ::testing::ExitedWithCode(255), "kICMns --> currentContainer == NULL");
    EXPECT_EXIT(e.kICM(means, labels, means), ::testing::ExitedWithCode(255),
                "kICMs --> currentContainer == NULL");
    freeMatrix(means, 2);
}

TEST(KICM, StableLabellingEndsAfterOneSweepAndEqualBetaBoundsAfterTwoPasses) {
    Synthetic s = rectangles(16, 16, 2, 2, 6.0, 3);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    s.paintTruth(ws, labels);
    PottsEngine e(2, 1.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    e.beta = 1.0;
    double** means = newMatrix(2, 2);
    int counts[2];
    ws.getMi(2, labels, counts, means);
    EXPECT_EQ(e.kICM(means, labels), 2);
    EXPECT_EQ(e.lastSweeps, 1);
    for (int p = 0; p < ws.loadedCount; ++p) EXPECT_EQ(ws.coords[p].flag, 0);
    EXPECT_EQ(agreement(ws, s), 1.0);
    // betaMin = betaMax: beta cannot move, yet two passes run.
    EXPECT_EQ(e.kEstMaxICM(means, labels), 2);
    EXPECT_EQ(e.lastPasses, 2);
    EXPECT_EQ(e.lastSweeps, 2);
    EXPECT_EQ(e.beta, 1.0);
    freeMatrix(means, 2);
}

TEST(KICM, SingularClassCovarianceFailsWithoutSweeping) {
    // Class 0 (left half) has a constant first band: its covariance has a zero
    // row and cannot be inverted.
    Built b = makeWS(4, 4, 2,
                     [](int r, int c, int band) { return c < 2 ? (band == 0 ? 7 : r) : 50 + r * c + band; });
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    paint(ws, std::vector<std::vector<int>>(4, {4, 4, 5, 5}));
    PottsEngine e = engine(2);
    e.ws = &ws;
    double** means = newMatrix(2, 2);
    EXPECT_EQ(e.kICM(means, labels), -2);
    EXPECT_EQ(e.lastSweeps, 0);
    EXPECT_DOUBLE_EQ(means[0][1], 1.5);  // the means are still those of the labelling
    EXPECT_DOUBLE_EQ(means[1][1], 50.0 + 1.0 + 1.5 * 2.5);
    freeMatrix(means, 2);
}

TEST(KICM, TiesGoToTheLowestClassAndLabelsAreWrittenDuringTheSweep) {
    // beta 0 and equal energies: every class scores 0, class 0 wins everywhere
    // and class 1 ends empty.
    PottsEngine e = engine(2);
    RowRun ties = icmRow(e, {1, 1, 1}, {0, 0, 0}, {0, 0, 0});
    EXPECT_EQ(ties.classes, (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(ties.result, -2);
    EXPECT_EQ(ties.flagged, 3);
    EXPECT_EQ(e.lastSweeps, 2);
    // Row 0 1 1 1 1, beta 1: pixel 0 sees one 1 and turns 1; pixel 1 then sees
    // 1 on both sides and stays.  Had the sweep read the old labels, pixel 1
    // would have turned 0 (one neighbour each, tie).
    e.beta = 1.0;
    RowRun inPlace = icmRow(e, {0, 1, 1, 1, 1}, {0, 0, 0, 0, 0}, {0, 0, 0, 0, 0});
    EXPECT_EQ(inPlace.classes, (std::vector<int>(5, 1)));
    EXPECT_EQ(e.lastSweeps, 2);
}

TEST(KICM, SweepsStopAtOneChangeInAThousandOrAfter151) {
    // Class 0 is preferred everywhere and one pixel starts in class 1: with
    // 1000 pixels its change is a rate of exactly 0.1 % and the first sweep is
    // the last; with 999 pixels a second sweep runs.
    for (int n : {1000, 999}) {
        PottsEngine e = engine(2);
        std::vector<int> start(n, 0);
        start[n / 2] = 1;
        RowRun run = icmRow(e, start, std::vector<double>(n, 0.0), std::vector<double>(n, 100.0));
        EXPECT_EQ(run.classes, std::vector<int>(n, 0));
        EXPECT_EQ(e.lastSweeps, n == 1000 ? 1 : 2) << n;
    }
    // Two pixels that never settle: the marked pixel 0, with betaBound -1,
    // leaves its neighbour's class, and pixel 1 (beta 1) follows it.
    PottsEngine e = engine(2, -1.0, true);
    e.beta = 1.0;
    icmRow(e, {0, 0}, {0, 0}, {0, 0}, {0});
    EXPECT_EQ(e.lastSweeps, 151);
}

TEST(KICM, AdaptiveModeUsesBetaBoundOnMarkedPixelsOnly) {
    // Row 1 0 1; the centre prefers class 0 by an energy of 1 but has two
    // neighbours in class 1: with beta 0 it stays, with betaBound 3 it changes.
    struct Case {
        bool adaptive, marked;
        int centre;
    };
    for (Case t : {Case{false, true, 0}, Case{true, false, 0}, Case{true, true, 1}}) {
        PottsEngine e = engine(2, 3.0, t.adaptive);
        std::vector<int> marked;
        if (t.marked) marked.push_back(1);
        RowRun run = icmRow(e, {1, 0, 1}, {1, 0, 1}, {0, 1, 0}, marked);
        EXPECT_EQ(run.classes[1], t.centre) << t.adaptive << t.marked;
    }
}

TEST(BetaHat, BetaMaxWhenTheScoreThereIsNonNegativeElseTheRoot) {
    // Isolated pairs in a 2 x 9 mask: a vertical, a horizontal and a diagonal
    // pair of label 4, and a vertical pair of labels 4 and 5.  A pixel whose
    // only neighbour shares its label scores 1 / (1 + e^beta), one whose
    // neighbour differs -e^beta / (1 + e^beta): the score is
    // (6 - 2 e^beta) / (1 + e^beta), with its root at ln 3.
    const std::set<std::pair<int, int>> pairs{{0, 0}, {1, 0}, {0, 2}, {0, 3}, {0, 5}, {1, 6}, {0, 8}, {1, 8}};
    auto selected = [&](int r, int c) { return pairs.count({r, c}) > 0; };
    Built b = makeWS(
        2, 9, 1, [](int, int, int) { return 0; }, selected);
    for (auto [r, c] : pairs) b.ws->root->setPixel(r, c, r == 1 && c == 8 ? 5 : 4);
    int labels[2] = {4, 5};
    PottsEngine e(2, 0.0, 3.0, 0.0, false, 0.0, 0.0);
    e.ws = b.ws.get();
    EXPECT_NEAR(e.betaHat(labels), std::log(3.0), 0.0001);
    // With betaMin = betaMax there is nothing to search, though the score at
    // 1.5 is negative.
    PottsEngine fixed(2, 1.5, 1.5, 0.0, false, 0.0, 0.0);
    fixed.ws = b.ws.get();
    EXPECT_EQ(fixed.betaHat(labels), 1.5);
    // One label everywhere: the score is positive for every beta.
    b.ws->root->setPixel(1, 8, 4);
    EXPECT_EQ(e.betaHat(labels), 3.0);
}
