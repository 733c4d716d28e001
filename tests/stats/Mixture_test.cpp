#include "stats/Mixture.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

// Three 2-D classes with means (c, -c) and covariances diag(c+1, 2(c+1)), c = 0, 1, 2,
// so inverses diag(1/(c+1), 1/(2(c+1))) and log|det| = log(2 (c+1)^2).
Mixture* threeClasses() {
    double** mi = new double*[3];
    double*** sigma = new double**[3];
    for (int c = 0; c < 3; ++c) {
        mi[c] = new double[2]{double(c), -double(c)};
        sigma[c] = new double*[2];
        sigma[c][0] = new double[2]{c + 1.0, 0.0};
        sigma[c][1] = new double[2]{0.0, 2.0 * (c + 1.0)};
    }
    return new Mixture(3, 2, mi, sigma, true);
}

TEST(MixtureInverse, SingularClassKeepsItsPreviousInverseAndLogDet) {
    Mixture* m = threeClasses();
    for (int c = 0; c < 3; ++c) {
        EXPECT_NEAR(m->sigmaInv[c][1][1], 0.5 / (c + 1.0), 1e-15);
        EXPECT_NEAR(m->logdet[c], std::log(2.0 * (c + 1.0) * (c + 1.0)), 1e-14);
    }
    const double oldLogdet = m->logdet[1];
    const double oldInv = m->sigmaInv[1][0][0];
    m->sigma[0][0][0] = 4.0;  // class 0 changes and must be refreshed
    m->sigma[1][0][0] = 0.0;  // class 1 gets a zero row
    EXPECT_FALSE(m->updateInv());
    EXPECT_EQ(m->invOk[0], 1);
    EXPECT_EQ(m->invOk[1], 0);
    EXPECT_EQ(m->invOk[2], 1);
    EXPECT_NEAR(m->sigmaInv[0][0][0], 0.25, 1e-15);
    EXPECT_NEAR(m->logdet[0], std::log(8.0), 1e-14);
    EXPECT_EQ(m->logdet[1], oldLogdet);
    EXPECT_EQ(m->sigmaInv[1][0][0], oldInv);
    EXPECT_FALSE(m->checkInv());
    delete m;
}

TEST(MixtureLink, LinkedViewSharesTheParentsArrays) {
    Mixture* parent = threeClasses();
    int idx[2] = {0, 2};
    Mixture* link = new Mixture(parent, 2, idx);
    EXPECT_EQ(link->mi[1][0], 2.0);  // the parent's class 2
    EXPECT_EQ(link->logdet[1], parent->logdet[2]);

    // Means and covariances travel both ways; log-determinants are the link's copies.
    parent->mi[2][0] = 42.0;
    EXPECT_EQ(link->mi[1][0], 42.0);
    link->sigma[0][1][1] = 6.0;
    EXPECT_TRUE(link->updateInv());
    EXPECT_NEAR(parent->sigmaInv[0][1][1], 1.0 / 6.0, 1e-15);
    EXPECT_NEAR(link->logdet[0], std::log(6.0), 1e-14);
    EXPECT_NEAR(parent->logdet[0], std::log(2.0), 1e-14);
    delete link;  // must leave the parent's arrays alone
    EXPECT_EQ(parent->sigma[0][1][1], 6.0);

    delete parent;
}

}  // namespace
