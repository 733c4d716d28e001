// The likelihood table: class energies and group minima.

#include "engine/PottsLikelihoodEnergy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "engine/EngineFixtures.h"
#include "stats/Mixture.h"

using namespace enginetest;

namespace {

// One-dimensional mixture of the given (mean, variance) components.
std::unique_ptr<Mixture> mixture1D(std::initializer_list<std::pair<double, double>> components) {
    std::unique_ptr<Mixture> m(new Mixture(static_cast<int>(components.size()), 1));
    int i = 0;
    for (auto [mean, variance] : components) {
        double row[1] = {variance};
        double* sigma[1] = {row};
        m->set(i++, &mean, sigma);
    }
    m->inv();
    m->updateInv();
    return m;
}

double energy1D(double x, double mean, double variance) {
    return 0.5 * (std::log(variance) + (x - mean) * (x - mean) / variance);
}

}  // namespace

TEST(PottsLikelihoodEnergy, ClassEnergiesAndGroupMinima) {
    Built b = makeWS(1, 4, 1, [](int, int c, int) { return 2 * c; });  // values 0, 2, 4, 6
    auto single = mixture1D({{1.0, 4.0}});
    auto pair = mixture1D({{0.0, 1.0}, {4.0, 1.0}});  // the smaller component energy counts
    Mixture* classes[2] = {single.get(), pair.get()};
    PottsLikelihoodEnergy table(classes, 2, b.ws.get());
    ASSERT_EQ(table.nPixels, 4);
    // Groups take the smallest energy among their classes.
    int g0[1] = {1}, g1[2] = {0, 1};
    int* groups[2] = {g0, g1};
    int sizes[2] = {1, 2};
    double** grouped = table.get(b.ws.get(), groups, sizes, 2);
    for (int p = 0; p < 4; ++p) {
        const double x = 2.0 * p;
        EXPECT_NEAR(table.energy[0][p], energy1D(x, 1.0, 4.0), 1e-12);
        EXPECT_NEAR(table.energy[1][p], std::min(energy1D(x, 0.0, 1.0), energy1D(x, 4.0, 1.0)), 1e-12);
        EXPECT_EQ(grouped[0][p], table.energy[1][p]);
        EXPECT_EQ(grouped[1][p], std::min(table.energy[0][p], table.energy[1][p]));
    }
    dhc::deleteRows(grouped, 2);
}
