// The likelihood table: energies, class minima, group minima and differences.

#include "engine/PottsLikelihoodEnergy.h"

#include <gtest/gtest.h>

#include <cmath>

#include "engine/EngineFixtures.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

// One-dimensional mixture of the given (mean, variance) components.
Mixture* mixture1D(std::initializer_list<std::pair<double, double>> components) {
    Mixture* m = new Mixture(static_cast<int>(components.size()), 1);
    int i = 0;
    for (auto [mean, variance] : components) {
        double mu[1] = {mean};
        double row[1] = {variance};
        double* sigma[1] = {row};
        m->set(i++, mu, sigma);
    }
    m->inv();
    m->updateInv();
    return m;
}

double energy1D(double x, double mean, double variance) {
    return 0.5 * (std::log(variance) + (x - mean) * (x - mean) / variance);
}

}  // namespace

TEST(PottsLikelihoodEnergy, ClassEnergiesAndComponentMinimum) {
    Built b = makeWS(1, 3, 1, [](int, int c, int) { return 2 * c; });  // values 0, 2, 4
    Mixture* single = mixture1D({{1.0, 4.0}});
    Mixture* pair = mixture1D({{0.0, 1.0}, {4.0, 1.0}});
    Mixture* classes[2] = {single, pair};
    PottsLikelihoodEnergy table(classes, 2, b.ws.get());
    ASSERT_EQ(table.nClasses, 2);
    ASSERT_EQ(table.nPixels, 3);
    for (int p = 0; p < 3; ++p) {
        const double x = 2.0 * p;
        EXPECT_NEAR(table.energy[0][p], energy1D(x, 1.0, 4.0), 1e-12);
        EXPECT_NEAR(table.energy[1][p], std::min(energy1D(x, 0.0, 1.0), energy1D(x, 4.0, 1.0)), 1e-12);
    }
    EXPECT_NEAR(table.energy[1][2], 0.0, 1e-12);  // the second component wins at x = 4

    // Groups: the smallest energy among their classes.
    int g0[1] = {1};
    int g1[2] = {0, 1};
    int* groups[2] = {g0, g1};
    int sizes[2] = {1, 2};
    double** grouped = table.get(b.ws.get(), groups, sizes, 2);
    for (int p = 0; p < 3; ++p) {
        EXPECT_EQ(grouped[0][p], table.energy[1][p]);
        EXPECT_EQ(grouped[1][p], std::min(table.energy[0][p], table.energy[1][p]));
    }
    freeMatrix(grouped, 2);
    delete single;
    delete pair;
}

TEST(PottsLikelihoodEnergy, DescendantsReadTheirRootColumns) {
    Built b = makeWS(2, 4, 1, [](int r, int c, int) { return 10 * r + c; });
    PottsWS& ws = *b.ws;
    Mixture* m = mixture1D({{5.0, 9.0}});
    Mixture* classes[1] = {m};
    PottsLikelihoodEnergy table(classes, 1, &ws);
    // Child 5 = the right half.
    int labels[2] = {4, 5};
    for (int r = 0; r < 2; ++r)
        for (int c = 0; c < 4; ++c) ws.root->setPixel(r, c, c < 2 ? 4 : 5);
    PottsWS** children = nullptr;
    ws.split(labels, 2, children, true);
    PottsWS* right = children[1];
    ASSERT_EQ(right->envelopeCount, 4);
    int g[1] = {0};
    int* groups[1] = {g};
    int sizes[1] = {1};
    double** e = table.get(right, groups, sizes, 1);
    for (int p = 0; p < 4; ++p) {
        const double x = right->data[p];
        EXPECT_NEAR(e[0][p], energy1D(x, 5.0, 9.0), 1e-12);
        EXPECT_EQ(e[0][p], table.energy[0][right->pixelIndex[p]]);
    }
    freeMatrix(e, 1);
    freeChildren(children, 2);
    delete m;
}

TEST(PottsLikelihoodEnergy, WorkspacesAsClasses) {
    // Two workspaces, each its own Gaussian; columns are their pixels in order.
    Built a = makeWS(1, 2, 1, [](int, int c, int) { return c == 0 ? 0 : 2; });  // mean 1, variance 1
    Built b = makeWS(1, 3, 1, [](int, int c, int) { return 10 + 3 * c; });      // mean 13, variance 6
    PottsWS* wss[2] = {a.ws.get(), b.ws.get()};
    PottsLikelihoodEnergy table(wss, 2);
    ASSERT_EQ(table.nPixels, 5);
    const double xs[5] = {0, 2, 10, 13, 16};
    for (int p = 0; p < 5; ++p) {
        EXPECT_NEAR(table.energy[0][p], energy1D(xs[p], 1.0, 1.0), 1e-12);
        EXPECT_NEAR(table.energy[1][p], energy1D(xs[p], 13.0, 6.0), 1e-9);
    }
}

TEST(PottsLikelihoodEnergy, MeanDifferences) {
    Built b = makeWS(1, 4, 1, [](int, int c, int) { return c; });
    Mixture* m0 = mixture1D({{0.0, 1.0}});
    Mixture* m1 = mixture1D({{0.0, 1.0}});
    Mixture* classes[2] = {m0, m1};
    PottsLikelihoodEnergy table(classes, 2, b.ws.get());
    const double rows[2][4] = {{1.0, 4.0, -2.0, 7.0}, {0.0, 1.0, 1.0, 3.0}};
    for (int c = 0; c < 2; ++c)
        for (int p = 0; p < 4; ++p) table.energy[c][p] = rows[c][p];
    int pixels[3] = {0, 2, 3};  // differences 1, -3, 4
    EXPECT_DOUBLE_EQ(table.dLE(0, 1, pixels, 3), 2.0 / 3.0);
    EXPECT_DOUBLE_EQ(table.dLE(1, 0, pixels, 3), -2.0 / 3.0);
    EXPECT_DOUBLE_EQ(table.dLE_square(0, 1, pixels, 3), 26.0 / 3.0);
    EXPECT_EQ(table.dLE(0, 1, pixels, 0), 0.0);
    EXPECT_EQ(table.dLE_square(0, 1, pixels, -1), 0.0);
    delete m0;
    delete m1;
}
