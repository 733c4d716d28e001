// Engine configuration, clustering (kGLA, kML), ICM and beta estimation.

#include "engine/PottsEngine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "engine/EngineFixtures.h"
#include "settings/DHC_SET.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

std::string tempPath(const std::string& name) {
    const char* dir = std::getenv("DHC_TEST_TMP");
    return std::string(dir != nullptr ? dir : "/tmp") + "/" + name;
}

// Every region pixel carries label.
bool regionAll(const PottsWS& ws, int label) {
    for (int p = 0; p < ws.loadedCount; ++p)
        if (mapLabel(ws, ws.coords[p].x, ws.coords[p].y) != label) return false;
    return true;
}

// A one-row workspace of n pixels (one band, value 0).
Built row(int n) {
    return makeWS(1, n, 1, [](int, int, int) { return 0; });
}

// K x n energy table.
double** table(int k, int n, double value) {
    double** e = newMatrix(k, n);
    for (int c = 0; c < k; ++c)
        for (int p = 0; p < n; ++p) e[c][p] = value;
    return e;
}

}  // namespace

// ---------------------------------------------------------------------------
// Configuration

TEST(PottsEngineConfig, SettingsRecordKeepsBetaBoundOnlyWhenAdaptive) {
    DHC_SET s;
    s.multiplicity = 4;
    s.betaMin = 0.2;
    s.betaMax = 3.0;
    s.betaBound = 6.0;
    s.rangeBandwidth = 1.5;
    s.spatialBandwidth = 2.5;
    PottsEngine plain(&s);
    EXPECT_EQ(plain.settings, &s);
    EXPECT_EQ(plain.multiplicity, 4);
    EXPECT_EQ(plain.betaMin, 0.2);
    EXPECT_EQ(plain.betaMax, 3.0);
    EXPECT_EQ(plain.betaBound, 0.0);
    EXPECT_FALSE(plain.adaptive);
    EXPECT_EQ(plain.rangeBandwidth, 1.5);
    EXPECT_EQ(plain.spatialBandwidth, 2.5);
    s.adaptive = true;
    PottsEngine adaptive(&s);
    EXPECT_TRUE(adaptive.adaptive);
    EXPECT_EQ(adaptive.betaBound, 6.0);
}

TEST(PottsEngineConfig, IniFileSectionPottsModel) {
    const std::string path = tempPath("engine_config.ini");
    {
        std::ofstream f(path, std::ios::binary);
        f << "[MEANSHIFT]\nTolerance=0.5\n\n[POTTS_MODEL]\nMultiplicity=3\nBetaMin=0.25\nBetaMax=1.75\n"
             "Adaptive=0\nBetaBound=9\nRangeBandwidth=4.5\nSpatialBandwidth=6\n";
    }
    std::string name = path;
    PottsEngine plain(&name[0]);
    EXPECT_EQ(plain.configFile, &name[0]);
    EXPECT_EQ(plain.settings, nullptr);
    EXPECT_EQ(plain.multiplicity, 3);
    EXPECT_EQ(plain.betaMin, 0.25);
    EXPECT_EQ(plain.betaMax, 1.75);
    EXPECT_FALSE(plain.adaptive);
    EXPECT_EQ(plain.betaBound, 0.0);  // read only in adaptive mode
    EXPECT_EQ(plain.rangeBandwidth, 4.5);
    EXPECT_EQ(plain.spatialBandwidth, 6.0);
    {
        std::ofstream f(path, std::ios::binary);
        f << "[POTTS_MODEL]\r\nAdaptive=1\r\nBetaBound=9\r\n";
    }
    PottsEngine adaptive(&name[0]);
    EXPECT_TRUE(adaptive.adaptive);
    EXPECT_EQ(adaptive.betaBound, 9.0);
    EXPECT_EQ(adaptive.multiplicity, 0);  // missing keys read as 0
    EXPECT_EQ(adaptive.betaMax, 0.0);
    std::remove(path.c_str());
}

// ---------------------------------------------------------------------------
// Global mixture

TEST(UpdateGlobalMixture, LabelZeroIsNotAClass) {
    // Band value = 10 * column; columns 0-1 unassigned (0), 2-3 label 5, 4-5 label 6.
    Built b = makeWS(2, 6, 1, [](int, int c, int) { return 10 * c; });
    PottsWS& ws = *b.ws;
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 6; ++c) ws.root->setPixel(r, c, c < 2 ? 0 : (c < 4 ? 5 : 6));
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    EXPECT_TRUE(e.updateGlobalMixture(ws));
    EXPECT_EQ(e.ws, &ws);
    ASSERT_NE(e.globalMixture, nullptr);
    ASSERT_EQ(e.globalMixture->k, 2);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[0][0], 25.0);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[1][0], 45.0);
    EXPECT_DOUBLE_EQ(e.globalMixture->sigma[0][0][0], 25.0);  // values 20, 30: variance 25
    EXPECT_NEAR(e.globalMixture->logdet[0], std::log(25.0), 1e-12);

    // Without label 0 every listed label is a class.
    ws.root->mapRefresh(5, false);
    for (int r = 0; r < 2; ++r) ws.root->setPixel(r, 5, 7);
    EXPECT_TRUE(e.updateGlobalMixture(ws));
    ASSERT_EQ(e.globalMixture->k, 2);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[0][0], 20.0);
    EXPECT_DOUBLE_EQ(e.globalMixture->mi[1][0], 50.0);
}

TEST(UpdateGlobalMixture, LinkedMixturesFollowTheAssignment) {
    Built b = makeWS(1, 6, 1, [](int, int c, int) { return c * c; });
    PottsWS& ws = *b.ws;
    for (int c = 0; c < 6; ++c) ws.root->setPixel(0, c, 4 + c / 2);  // three classes of two pixels
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    ASSERT_TRUE(e.updateGlobalMixture(ws));
    int assign[3] = {1, 0, 1};
    Mixture** linked = e.generateLinkedMixtures(assign, 3);
    ASSERT_NE(linked[0], nullptr);
    ASSERT_NE(linked[1], nullptr);
    EXPECT_EQ(linked[2], nullptr);  // no global class assigned to 2
    ASSERT_EQ(linked[0]->k, 1);
    EXPECT_EQ(linked[0]->linkIndex[0], 1);
    EXPECT_EQ(linked[0]->mi[0], e.globalMixture->mi[1]);
    ASSERT_EQ(linked[1]->k, 2);
    EXPECT_EQ(linked[1]->linkIndex[0], 0);
    EXPECT_EQ(linked[1]->linkIndex[1], 2);
    for (int c = 0; c < 3; ++c) {
        if (linked[c] != nullptr) delete[] linked[c]->linkIndex;
        delete linked[c];
    }
    delete[] linked;
}

// ---------------------------------------------------------------------------
// kGLA

TEST(KGLA, OneClassIsTheWorkspaceMean) {
    Synthetic s = rectangles(6, 8, 2, 2, 5.0, 11);
    Built b = s.build();
    PottsEngine e(1, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[1] = {4};
    double** code = e.kGLA(b.ws.get(), labels);
    EXPECT_EQ(b.ws->splitState, 1);
    EXPECT_TRUE(regionAll(*b.ws, 4));
    for (int band = 0; band < 2; ++band) {
        double mean = 0.0;
        for (int r = 0; r < 6; ++r)
            for (int c = 0; c < 8; ++c) mean += s.value(r, c, band);
        EXPECT_NEAR(code[0][band], mean / 48.0, 1e-9);
    }
    freeMatrix(code, 1);
}

TEST(KGLA, EquidistantPixelsGoToTheLowerCodeword) {
    // One band: row 0 = 3000, rows 1-6 = 5000, row 7 = 7000.  Mean 5000,
    // variance exactly 1e6, so eps = 1000 / 1000 = 1 and the first codewords are
    // 5001 and 4999: every 5000 pixel is at distance 1 from both.  The lower
    // codeword takes them, and the clustering settles on {5000, 7000} / {3000}.
    // Had the tie gone to codeword 1, it would have settled on {7000} / {3000, 5000}.
    Built b = makeWS(8, 8, 1, [](int r, int, int) { return r == 0 ? 3000 : (r == 7 ? 7000 : 5000); });
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    double** code = e.kGLA(b.ws.get(), labels);
    EXPECT_EQ(b.ws->splitState, 1);
    for (int c = 0; c < 8; ++c) {
        EXPECT_EQ(mapLabel(*b.ws, 0, c), 5);
        for (int r = 1; r < 8; ++r) EXPECT_EQ(mapLabel(*b.ws, r, c), 4);
    }
    EXPECT_NEAR(code[0][0], (48.0 * 5000 + 8.0 * 7000) / 56.0, 1e-9);
    EXPECT_NEAR(code[1][0], 3000.0, 1e-9);
    freeMatrix(code, 2);
}

TEST(KGLA, EmptyClassAbandonsAndRelabelsTheRegion) {
    // Two distinct values and K = 3: the third class must split a constant
    // cluster, whose pixels all stay with the lower codeword; the new class is
    // empty and the clustering is abandoned.
    Built b = makeWS(6, 6, 2, [](int, int c, int band) { return c < 3 ? 10 + band : 500 - band; });
    PottsEngine e(3, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[3] = {4, 5, 6};
    double** code = e.kGLA(b.ws.get(), labels);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));
    freeMatrix(code, 3);
}

TEST(KGLA, ConstantWorkspaceIsAbandoned) {
    // All pixels equal: the label covariance is repaired to the identity, so
    // the split is one thousandth of a unit; every pixel is equidistant and
    // stays with codeword 0, codeword 1 stays empty: abandoned.
    Built b = makeWS(5, 7, 3, [](int, int, int band) { return 40 + band; });
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    double** code = e.kGLA(b.ws.get(), labels);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));
    freeMatrix(code, 2);
}

// ---------------------------------------------------------------------------
// kML

TEST(KML, EqualEnergiesGoToTheLowerClass) {
    Built b = row(4);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    double** energy = table(2, 4, 1.0);
    energy[1][0] = 0.5;  // pixel 0 prefers class 1; the others tie
    double** means = e.kML(b.ws.get(), labels, energy);
    EXPECT_EQ(b.ws->splitState, 1);
    EXPECT_EQ(mapLabel(*b.ws, 0, 0), 5);
    for (int c = 1; c < 4; ++c) EXPECT_EQ(mapLabel(*b.ws, 0, c), 4);
    freeMatrix(means, 2);
    freeMatrix(energy, 2);
}

TEST(KML, CountProductIsTakenIn32BitArithmetic) {
    // Four classes of 256 pixels each: 256^4 = 2^32 wraps to 0 and counts as
    // an empty class; one pixel moved makes the product 255 * 257 * 256^2.
    Built b = makeWS(32, 32, 1, [](int r, int c, int) { return r + c; });
    PottsEngine e(4, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[4] = {4, 5, 6, 7};
    double** energy = table(4, 1024, 1.0);
    for (int p = 0; p < 1024; ++p) {
        const xy q = b.ws->coords[p];
        energy[(q.x < 16 ? 0 : 2) + (q.y < 16 ? 0 : 1)][p] = 0.0;
    }
    double** means = e.kML(b.ws.get(), labels, energy);
    EXPECT_EQ(b.ws->splitState, -1);
    EXPECT_TRUE(regionAll(*b.ws, kRoot));
    freeMatrix(means, 4);

    energy[0][0] = 1.0;  // pixel (0, 0) now ties everywhere but class 1 gets it
    energy[1][0] = 0.0;
    means = e.kML(b.ws.get(), labels, energy);
    EXPECT_EQ(b.ws->splitState, 1);
    EXPECT_EQ(mapLabel(*b.ws, 0, 0), 5);
    freeMatrix(means, 4);
    freeMatrix(energy, 4);
}

TEST(KICM, TableFormCountProductIsTakenIn32BitArithmetic) {
    // Four non-empty classes of 256 pixels: the product 2^32 wraps to 0.
    Built b = makeWS(32, 32, 1, [](int, int, int) { return 0; });
    PottsEngine e(4, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = b.ws.get();
    int labels[4] = {4, 5, 6, 7};
    double** energy = table(4, 1024, 1.0);
    for (int p = 0; p < 1024; ++p) {
        const xy q = b.ws->coords[p];
        energy[(q.x < 16 ? 0 : 2) + (q.y < 16 ? 0 : 1)][p] = 0.0;
    }
    double** means = newMatrix(4, 1);
    EXPECT_EQ(e.kICM(means, labels, energy), -2);
    EXPECT_EQ(mapLabel(*b.ws, 31, 31), 7);  // the labelling itself stands
    freeMatrix(means, 4);
    freeMatrix(energy, 4);
}

// ---------------------------------------------------------------------------
// ICM

TEST(KICM, MissingWorkspaceEndsTheProcess) {
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    int labels[2] = {4, 5};
    double** means = newMatrix(2, 1);
    EXPECT_EXIT(e.kICM(means, labels), ::testing::ExitedWithCode(255), "kICMns --> currentContainer == NULL");
    EXPECT_EXIT(e.kICM(means, labels, means), ::testing::ExitedWithCode(255),
                "kICMs --> currentContainer == NULL");
    freeMatrix(means, 2);
}

TEST(KICM, StableLabellingEndsAfterOneSweep) {
    Synthetic s = rectangles(16, 16, 2, 2, 6.0, 3);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    for (int r = 0; r < 16; ++r)
        for (int c = 0; c < 16; ++c) ws.root->setPixel(r, c, labels[s.classAt(r, c)]);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    e.beta = 1.0;
    double** means = newMatrix(2, 2);
    int counts[2];
    ws.getMi(2, labels, counts, means);
    EXPECT_EQ(e.kICM(means, labels), 2);
    EXPECT_EQ(e.lastSweeps, 1);
    for (int p = 0; p < ws.loadedCount; ++p) EXPECT_EQ(ws.coords[p].flag, 0);
    for (int r = 0; r < 16; ++r)
        for (int c = 0; c < 16; ++c) EXPECT_EQ(mapLabel(ws, r, c), labels[s.classAt(r, c)]);
    freeMatrix(means, 2);
}

TEST(KICM, EqualScoresKeepTheLowestClass) {
    // beta 0 and equal energies: every class scores 0, class 0 wins everywhere.
    Built b = makeWS(3, 3, 1, [](int, int, int) { return 0; });
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    ws.root->mapRefresh(5, false);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    e.beta = 0.0;
    double** energy = table(2, 9, 0.0);
    double** means = newMatrix(2, 1);
    EXPECT_EQ(e.kICM(means, labels, energy), -2);  // class 1 ends empty
    EXPECT_EQ(e.lastSweeps, 2);
    EXPECT_TRUE(regionAll(ws, 4));
    for (int p = 0; p < 9; ++p) EXPECT_EQ(ws.coords[p].flag, 1);
    freeMatrix(energy, 2);
    freeMatrix(means, 2);
}

TEST(KICM, LabelsAreWrittenDuringTheSweep) {
    // One row A B B B B, equal energies, beta 1.  Pixel 0 sees one B and turns
    // B; pixel 1 then sees B on both sides and stays B.  A sweep that read the
    // old labels would have turned pixel 1 into A (one neighbour each, tie).
    Built b = row(5);
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    ws.root->mapRefresh(5, false);
    ws.root->setPixel(0, 0, 4);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    e.beta = 1.0;
    double** energy = table(2, 5, 0.0);
    double** means = newMatrix(2, 1);
    EXPECT_EQ(e.kICM(means, labels, energy), -2);
    EXPECT_TRUE(regionAll(ws, 5));
    EXPECT_EQ(e.lastSweeps, 2);
    freeMatrix(energy, 2);
    freeMatrix(means, 2);
}

TEST(KICM, ChangeRateOfAtMostOneInAThousandStops) {
    // Class 0 is preferred everywhere; one pixel starts in class 1.  With 1000
    // pixels its change is a rate of exactly 0.1 % and the first sweep is the
    // last; with 999 pixels the rate exceeds 0.1 % and a second sweep runs.
    for (int n : {1000, 999}) {
        Built b = row(n);
        PottsWS& ws = *b.ws;
        int labels[2] = {4, 5};
        ws.root->mapRefresh(4, false);
        ws.root->setPixel(0, n / 2, 5);
        PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
        e.ws = &ws;
        double** energy = table(2, n, 0.0);
        for (int p = 0; p < n; ++p) energy[1][p] = 100.0;
        double** means = newMatrix(2, 1);
        e.kICM(means, labels, energy);
        EXPECT_EQ(e.lastSweeps, n == 1000 ? 1 : 2) << n;
        EXPECT_TRUE(regionAll(ws, 4));
        freeMatrix(energy, 2);
        freeMatrix(means, 2);
    }
}

TEST(KICM, AdaptiveModeUsesBetaBoundOnMarkedPixels) {
    // 3 x 3, all class 1 but the centre (class 0).  The centre prefers class 0
    // by an energy of 4 but has 8 neighbours in class 1: with beta 0 it stays,
    // with betaBound 1 (8 > 4) it changes.  The others prefer class 1 anyway.
    for (int mode = 0; mode < 3; ++mode) {
        const bool adaptive = mode != 0;
        const bool marked = mode == 2;
        Built b = makeWS(3, 3, 1, [](int, int, int) { return 0; });
        PottsWS& ws = *b.ws;
        int labels[2] = {4, 5};
        ws.root->mapRefresh(5, false);
        ws.root->setPixel(1, 1, 4);
        double** energy = table(2, 9, 0.0);
        for (int p = 0; p < 9; ++p) {
            const bool centre = ws.coords[p].x == 1 && ws.coords[p].y == 1;
            energy[0][p] = centre ? 0.0 : 4.0;
            energy[1][p] = centre ? 4.0 : 0.0;
            if (centre) ws.coords[p].aux = marked ? 1 : 0;
        }
        PottsEngine e(2, 0.0, 1.0, 1.0, adaptive, 0.0, 0.0);
        e.ws = &ws;
        e.beta = 0.0;
        double** means = newMatrix(2, 1);
        e.kICM(means, labels, energy);
        EXPECT_EQ(mapLabel(ws, 1, 1), marked ? 5 : 4) << "mode " << mode;
        freeMatrix(energy, 2);
        freeMatrix(means, 2);
    }
}

TEST(KICM, SweepsStopAfter151) {
    // Two pixels that never settle: pixel 0 is marked and its betaBound of -1
    // makes it leave its neighbour's class, pixel 1 (beta 1) follows it.
    Built b = row(2);
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    ws.root->mapRefresh(4, false);
    ws.coords[0].aux = 1;
    PottsEngine e(2, 0.0, 1.0, -1.0, true, 0.0, 0.0);
    e.ws = &ws;
    e.beta = 1.0;
    double** energy = table(2, 2, 0.0);
    double** means = newMatrix(2, 1);
    e.kICM(means, labels, energy);
    EXPECT_EQ(e.lastSweeps, 151);
    freeMatrix(energy, 2);
    freeMatrix(means, 2);
}

TEST(KICM, SingularClassCovarianceFailsWithoutSweeping) {
    // Class 0 (left half) has a constant first band and a varying second band:
    // its covariance has a zero row and cannot be inverted.
    Built b = makeWS(4, 4, 2,
                     [](int r, int c, int band) { return c < 2 ? (band == 0 ? 7 : r) : 50 + r * c + band; });
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) ws.root->setPixel(r, c, c < 2 ? 4 : 5);
    PottsEngine e(2, 0.0, 1.0, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    double** means = newMatrix(2, 2);
    EXPECT_EQ(e.kICM(means, labels), -2);
    EXPECT_EQ(e.lastSweeps, 0);
    for (int p = 0; p < 16; ++p) EXPECT_EQ(ws.coords[p].flag, 0);
    // The means are still those of the labelling.
    EXPECT_DOUBLE_EQ(means[0][0], 7.0);
    EXPECT_DOUBLE_EQ(means[0][1], 1.5);
    EXPECT_DOUBLE_EQ(means[1][1], 50.0 + 1.0 + 1.5 * 2.5);
    freeMatrix(means, 2);
}

// ---------------------------------------------------------------------------
// Beta estimation

namespace {

// Slow reference of the pseudo-likelihood score straight from its definition.
double referenceScore(const PottsWS& ws, const int* labels, int k, double beta) {
    double g = 0.0;
    for (int p = 0; p < ws.loadedCount; ++p) {
        const int r = ws.coords[p].x;
        const int c = ws.coords[p].y;
        const int own = mapLabel(ws, r, c);
        int a = 0;
        int b = 0;
        for (int dr = -1; dr <= 1; ++dr)
            for (int dc = -1; dc <= 1; ++dc) {
                if (dr == 0 && dc == 0) continue;
                const int v = ws.root->map[r + dr + ws.root->pad][c + dc + ws.root->pad];
                if (v == own) ++a;
                for (int l = 0; l < k; ++l)
                    if (v == labels[l]) ++b;
            }
        const int m = b - a;
        g +=
            a - (a * std::exp(beta * a) + m * std::exp(beta * m)) / (std::exp(beta * a) + std::exp(beta * m));
    }
    return g;
}

// Two halves with a fraction of the labels flipped at random.
Built noisyHalves(int n, double flip, unsigned seed, int* labels) {
    Built b = makeWS(n, n, 1, [](int, int, int) { return 0; });
    std::mt19937 gen(seed);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c) {
            const int k = (c < n / 2) != (u(gen) < flip) ? 0 : 1;
            b.ws->root->setPixel(r, c, labels[k]);
        }
    return b;
}

}  // namespace

TEST(BetaHat, NonNegativeScoreAtBetaMaxReturnsBetaMax) {
    // Clean halves: no pixel has more neighbours in the other class than in its own.
    int labels[2] = {4, 5};
    Built b = noisyHalves(12, 0.0, 1, labels);
    PottsEngine e(2, 0.0, 2.0, 0.0, false, 0.0, 0.0);
    e.ws = b.ws.get();
    ASSERT_GE(referenceScore(*b.ws, labels, 2, 2.0), 0.0);
    EXPECT_EQ(e.betaHat(labels), 2.0);
}

TEST(BetaHat, BisectionEndsWithinTheToleranceOfTheRoot) {
    int labels[2] = {4, 5};
    for (unsigned seed : {2u, 3u, 4u}) {
        Built b = noisyHalves(30, 0.15, seed, labels);
        PottsEngine e(2, 0.0, 3.0, 0.0, false, 0.0, 0.0);
        e.ws = b.ws.get();
        ASSERT_GT(referenceScore(*b.ws, labels, 2, 0.0), 0.0);
        ASSERT_LT(referenceScore(*b.ws, labels, 2, 3.0), 0.0);
        // Root of the reference score to far below the tolerance.
        double lo = 0.0;
        double hi = 3.0;
        for (int i = 0; i < 60; ++i) {
            const double mid = 0.5 * (lo + hi);
            (referenceScore(*b.ws, labels, 2, mid) > 0.0 ? lo : hi) = mid;
        }
        const double got = e.betaHat(labels);
        EXPECT_LE(std::fabs(got - lo), 0.0001) << "seed " << seed;
        EXPECT_NE(got, 3.0);
    }
}

TEST(BetaHat, EqualBoundsReturnBetaMax) {
    int labels[2] = {4, 5};
    Built b = noisyHalves(30, 0.15, 2, labels);
    PottsEngine e(2, 0.7, 0.7, 0.0, false, 0.0, 0.0);
    e.ws = b.ws.get();
    ASSERT_LT(referenceScore(*b.ws, labels, 2, 0.7), 0.0);
    EXPECT_EQ(e.betaHat(labels), 0.7);
}

TEST(KEstMaxICM, EqualBoundsStopAfterTwoPasses) {
    Synthetic s = rectangles(12, 12, 2, 2, 5.0, 8);
    Built b = s.build();
    PottsWS& ws = *b.ws;
    int labels[2] = {4, 5};
    for (int r = 0; r < 12; ++r)
        for (int c = 0; c < 12; ++c) ws.root->setPixel(r, c, labels[s.classAt(r, c)]);
    PottsEngine e(2, 0.5, 0.5, 0.0, false, 0.0, 0.0);
    e.ws = &ws;
    double** means = newMatrix(2, 2);
    int counts[2];
    ws.getMi(2, labels, counts, means);
    EXPECT_EQ(e.kEstMaxICM(means, labels), 2);
    EXPECT_EQ(e.lastPasses, 2);
    EXPECT_EQ(e.lastSweeps, 2);  // nothing changes: one sweep per pass
    EXPECT_EQ(e.beta, 0.5);
    freeMatrix(means, 2);
}
