// Engine clustering (kGLA, kML), ICM and beta estimation.

#include "engine/PottsEngine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <set>

#include "engine/EngineFixtures.h"
#include "settings/Workers.h"

using namespace enginetest;

namespace {

// An engine of K classes with beta in [0, 1].
PottsEngine engine(int k, double betaBound = 0.0, bool adaptive = false) {
    return PottsEngine(k, 0.0, 1.0, betaBound, adaptive, 0.0, 0.0);
}

// Runs the table-form ICM with classes 0 and 1 (labels 4 and 5) on a one-row
// workspace whose pixels start in `start`; e0 and e1 are the class energies,
// `marked` the pixels whose aux is set.  Returns the final classes.
std::vector<int> icmRow(PottsEngine& e, const std::vector<int>& start, std::vector<double> e0,
                        std::vector<double> e1, const std::vector<int>& marked = {}) {
    const int n = static_cast<int>(start.size());
    Built b = makeWS(1, n, 1, [](int, int, int) { return 0; });
    int labels[2] = {4, 5};
    for (int c = 0; c < n; ++c) b.ws->root->setPixel(0, c, labels[start[c]]);
    for (int c : marked) b.ws->coords[c].aux = 1;
    double* energy[2] = {e0.data(), e1.data()};
    double** means = dhc::newRows<double>(2, 1);
    e.ws = b.ws.get();
    e.kICM(means, labels, energy);
    e.ws = nullptr;
    std::vector<int> classes;
    for (int c = 0; c < n; ++c) classes.push_back(mapLabel(*b.ws, 0, c) - labels[0]);
    dhc::deleteRows(means, 2);
    return classes;
}

}  // namespace

TEST(KGLA, OneClassConstantWorkspaceAndEquidistantPixels) {
    int labels[2] = {4, 5};
    // K = 1: no split; the codeword is the workspace mean.
    Built one = rectangles(6, 8, 2, 2, 5.0, 11).build();
    double** code = engine(1).kGLA(one.ws.get(), labels);
    EXPECT_EQ(one.ws->splitState, 1);
    EXPECT_TRUE(regionAll(*one.ws, 4));
    EXPECT_NEAR(code[0][1], one.ws->mi[1], 1e-9);
    dhc::deleteRows(code, 1);

    // All pixels equal: the label covariance is repaired to the identity, the
    // codewords split by a thousandth; every pixel is equidistant and stays
    // with codeword 0, codeword 1 stays empty: abandoned, region relabelled,
    // The split is refused.
    Built flat = makeWS(5, 7, 3, [](int, int, int band) { return 40 + band; });
    EXPECT_EQ(engine(2).split(flat.ws.get(), labels, false, 1.0), nullptr);
    EXPECT_EQ(flat.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*flat.ws, kRoot));

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
    dhc::deleteRows(code, 2);
}

// Passes that skip settled pixels end where passes deciding every pixel do:
// the same labels and codewords, bit for bit, for any band count and
// multiplicity, on regions cut among threads.
TEST(KGLA, SkippingSettledPixelsChangesNothing) {
    dhc::Workers team(2);
    dhc::UseWorkers use(team);
    int labels[4] = {4, 5, 6, 7};
    for (int bands : {1, 2, 4, 5, 6})
        for (int k : {2, 3, 4})
            for (bool coarse : {false, true}) {
                // Noisy quadrants (many passes), or values in {0, 1, 2}
                // (equal pixels and near ties everywhere).
                Synthetic s = rectangles(136, 136, 4, bands, 60.0, bands * 10 + k);
                std::mt19937 gen(k);
                if (coarse)
                    for (int& v : s.values) v = static_cast<int>(gen() % 3);
                Built a = s.build(), b = s.build();
                PottsEngine skipping = engine(k), full = engine(k);
                full.lloydSkips = false;
                double** ca = skipping.kGLA(a.ws.get(), labels);
                double** cb = full.kGLA(b.ws.get(), labels);
                SCOPED_TRACE(testing::Message() << bands << " bands, K " << k << (coarse ? ", coarse" : ""));
                EXPECT_EQ(a.ws->splitState, b.ws->splitState);
                int differ = 0;
                for (int p = 0; p < s.rows * s.cols; ++p)
                    differ +=
                        mapLabel(*a.ws, p / s.cols, p % s.cols) != mapLabel(*b.ws, p / s.cols, p % s.cols);
                EXPECT_EQ(differ, 0);
                for (int c = 0; c < k; ++c)
                    EXPECT_EQ(std::memcmp(ca[c], cb[c], sizeof(double) * bands), 0) << "codeword " << c;
                dhc::deleteRows(ca, k);
                dhc::deleteRows(cb, k);
            }
}

TEST(KML, EqualEnergiesGoToTheLowerClass) {
    Built b = makeWS(1, 4, 1, [](int, int c, int) { return 2 * c; });
    int labels[2] = {4, 5};
    double e0[4] = {0, 1, 0.5, 1}, e1[4] = {1, 0, 0.5, 0};  // pixel 2 ties
    double* energy[2] = {e0, e1};
    double** means = engine(2).kML(b.ws.get(), labels, energy);
    EXPECT_EQ(b.ws->splitState, 1);
    for (int c = 0; c < 4; ++c) EXPECT_EQ(mapLabel(*b.ws, 0, c), c % 2 == 0 ? 4 : 5);
    EXPECT_DOUBLE_EQ(means[0][0], 2.0);  // values 0 and 4
    dhc::deleteRows(means, 2);
}

TEST(KICMDeathTest, MissingWorkspaceEndsTheProcess) {
    PottsEngine e = engine(2);
    int labels[2] = {4, 5};
    double** means = dhc::newRows<double>(2, 1);
    EXPECT_EXIT(e.kICM(means, labels), ::testing::ExitedWithCode(255), "kICMns --> currentContainer == NULL");
    EXPECT_EXIT(e.kICM(means, labels, means), ::testing::ExitedWithCode(255),
                "kICMs --> currentContainer == NULL");
    dhc::deleteRows(means, 2);
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
    double** means = dhc::newRows<double>(2, 2);
    int counts[2];
    ws.getMi(2, labels, counts, means);
    EXPECT_EQ(e.kICM(means, labels), 2);
    EXPECT_EQ(e.lastSweeps, 1);
    // betaMin = betaMax: beta cannot move, yet two passes run.
    EXPECT_EQ(e.kEstMaxICM(means, labels), 2);
    EXPECT_EQ(e.lastPasses, 2);
    EXPECT_EQ(e.lastSweeps, 2);
    EXPECT_EQ(e.beta, 1.0);
    dhc::deleteRows(means, 2);
}

TEST(KICM, TiesGoToTheLowestClassAndBetaBoundActsOnMarkedPixelsInAdaptiveMode) {
    // beta 0 and equal energies: every class scores 0, class 0 wins everywhere.
    PottsEngine e = engine(2);
    EXPECT_EQ(icmRow(e, {1, 1, 1}, {0, 0, 0}, {0, 0, 0}), (std::vector<int>{0, 0, 0}));
    // Row 1 0 1; the centre prefers class 0 by an energy of 1 but has two
    // neighbours in class 1: only marked and in adaptive mode does betaBound 3
    // instead of beta 0 move it.
    for (bool adaptive : {false, true})
        for (bool marked : {false, true}) {
            PottsEngine a = engine(2, 3.0, adaptive);
            const std::vector<int> centre = marked ? std::vector<int>{1} : std::vector<int>{};
            EXPECT_EQ(icmRow(a, {1, 0, 1}, {1, 0, 1}, {0, 1, 0}, centre)[1], adaptive && marked ? 1 : 0)
                << adaptive << marked;
        }
}

TEST(KICM, SweepsStopAtOneChangeInAThousandOrAfter151) {
    // Class 0 is preferred everywhere and one pixel starts in class 1: with
    // 1000 pixels its change is a rate of exactly 0.1 % and the first sweep is
    // the last; with 999 pixels a second sweep runs.
    for (int n : {1000, 999}) {
        PottsEngine e = engine(2);
        std::vector<int> start(n, 0);
        start[n / 2] = 1;
        EXPECT_EQ(icmRow(e, start, std::vector<double>(n, 0.0), std::vector<double>(n, 100.0)),
                  std::vector<int>(n, 0));
        EXPECT_EQ(e.lastSweeps, n == 1000 ? 1 : 2) << n;
    }
    // Two pixels that never settle: the marked pixel 0, with betaBound -1,
    // leaves its neighbour's class, and pixel 1 (beta 1) follows it.
    PottsEngine e = engine(2, -1.0, true);
    e.beta = 1.0;
    icmRow(e, {0, 0}, {0, 0}, {0, 0}, {0});
    EXPECT_EQ(e.lastSweeps, 151);
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
