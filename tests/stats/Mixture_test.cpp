#include "stats/Mixture.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

double** newMatrix(int n) {
    double** m = new double*[n];
    for (int r = 0; r < n; ++r) m[r] = new double[n]();
    return m;
}

void freeMatrix(double** m, int n) {
    for (int r = 0; r < n; ++r) delete[] m[r];
    delete[] m;
}

// Three 2-D classes with means (c, -c) and covariances diag(c+1, 2(c+1)), c = 0, 1, 2.
Mixture* threeClasses(bool withInv) {
    double** mi = new double*[3];
    double*** sigma = new double**[3];
    for (int c = 0; c < 3; ++c) {
        mi[c] = new double[2]{double(c), -double(c)};
        sigma[c] = newMatrix(2);
        sigma[c][0][0] = c + 1.0;
        sigma[c][1][1] = 2.0 * (c + 1.0);
    }
    return new Mixture(3, 2, mi, sigma, withInv);
}

TEST(MixtureLifecycle, EmptyAndZeroFilledForms) {
    Mixture empty;
    EXPECT_EQ(empty.dim, 0);
    EXPECT_EQ(empty.k, 0);
    EXPECT_EQ(empty.storage, 0);
    EXPECT_EQ(empty.hasInv, 0);
    EXPECT_EQ(empty.linkIndex, nullptr);
    EXPECT_TRUE(empty.checkInv());

    Mixture zeros(2, 3);
    EXPECT_EQ(zeros.storage, 2);
    EXPECT_EQ(zeros.hasInv, 0);
    EXPECT_EQ(zeros.linkIndex, nullptr);
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(zeros.mi[c][i], 0.0);
            for (int j = 0; j < 3; ++j) EXPECT_EQ(zeros.sigma[c][i][j], 0.0);
        }
    EXPECT_FALSE(zeros.updateInv());  // no inverse storage yet
    EXPECT_FALSE(zeros.updateInv(0));

    Mixture none(0, 3);
    none.inv();
    EXPECT_TRUE(none.updateInv());
    EXPECT_TRUE(none.checkInv());
}

TEST(MixtureLifecycle, AdoptingConstructorInvertsAtOnce) {
    Mixture* m = threeClasses(true);
    EXPECT_EQ(m->storage, 2);
    EXPECT_EQ(m->hasInv, 1);
    EXPECT_TRUE(m->checkInv());
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(m->invOk[c], 1);
        EXPECT_NEAR(m->sigmaInv[c][0][0], 1.0 / (c + 1.0), 1e-15);
        EXPECT_NEAR(m->sigmaInv[c][1][1], 0.5 / (c + 1.0), 1e-15);
        EXPECT_NEAR(m->sigmaInv[c][0][1], 0.0, 1e-15);
        EXPECT_NEAR(m->logdet[c], std::log(2.0 * (c + 1.0) * (c + 1.0)), 1e-14);
    }
    delete m;

    Mixture* lazy = threeClasses(false);
    EXPECT_EQ(lazy->hasInv, 0);
    EXPECT_EQ(lazy->sigmaInv, nullptr);
    delete lazy;
}

TEST(MixtureSet, CopiesOrAdopts) {
    Mixture m(2, 2);
    double mean[2] = {1.5, -2.5};
    double** cov = newMatrix(2);
    cov[0][0] = 4.0;
    cov[0][1] = cov[1][0] = 1.0;
    cov[1][1] = 3.0;
    m.set(1, mean, cov);
    mean[0] = 99.0;
    cov[0][0] = 99.0;
    EXPECT_EQ(m.mi[1][0], 1.5);
    EXPECT_EQ(m.mi[1][1], -2.5);
    EXPECT_EQ(m.sigma[1][0][0], 4.0);
    EXPECT_EQ(m.sigma[1][1][0], 1.0);
    EXPECT_EQ(m.mi[0][0], 0.0);
    freeMatrix(cov, 2);

    // copy = true: values copied class by class, the caller keeps its arrays.
    double m0[2] = {1, 2};
    double m1[2] = {3, 4};
    double* means[2] = {m0, m1};
    double** covs[2] = {newMatrix(2), newMatrix(2)};
    covs[1][1][1] = 8.0;
    m.set(means, covs, true);
    EXPECT_EQ(m.storage, 2);
    EXPECT_NE(m.mi, means);
    EXPECT_EQ(m.mi[1][1], 4.0);
    EXPECT_EQ(m.sigma[1][1][1], 8.0);
    freeMatrix(covs[0], 2);
    freeMatrix(covs[1], 2);

    // copy = false: the arrays become the mixture's own.
    Mixture adopter;
    double** own = new double*[1];
    own[0] = new double[1]{5.0};
    double*** ownSigma = new double**[1];
    ownSigma[0] = newMatrix(1);
    adopter.set(own, ownSigma, false);
    EXPECT_EQ(adopter.storage, 2);
    EXPECT_EQ(adopter.mi, own);
    EXPECT_EQ(adopter.sigma, ownSigma);
    // The empty mixture adopted arrays without learning their shape: free them here.
    delete[] own[0];
    delete[] own;
    freeMatrix(ownSigma[0], 1);
    delete[] ownSigma;
    adopter.mi = nullptr;
    adopter.sigma = nullptr;
}

TEST(MixtureInverse, SingularClassKeepsItsPreviousInverse) {
    Mixture* m = threeClasses(true);
    const double oldLogdet = m->logdet[1];
    const double oldInv = m->sigmaInv[1][0][0];

    m->sigma[0][0][0] = 4.0;  // class 0 changes and must be refreshed
    m->sigma[1][0][0] = 0.0;  // class 1 becomes singular (a zero row)
    EXPECT_FALSE(m->updateInv());
    EXPECT_EQ(m->invOk[0], 1);
    EXPECT_EQ(m->invOk[1], 0);
    EXPECT_EQ(m->invOk[2], 1);
    EXPECT_NEAR(m->sigmaInv[0][0][0], 0.25, 1e-15);
    EXPECT_NEAR(m->logdet[0], std::log(8.0), 1e-14);
    EXPECT_EQ(m->logdet[1], oldLogdet);
    EXPECT_EQ(m->sigmaInv[1][0][0], oldInv);
    EXPECT_FALSE(m->checkInv());
    // The covariance itself is untouched by the inversion.
    EXPECT_EQ(m->sigma[1][1][1], 4.0);

    m->sigma[1][0][0] = 5.0;
    EXPECT_TRUE(m->updateInv(1));
    EXPECT_NEAR(m->sigmaInv[1][0][0], 0.2, 1e-15);
    EXPECT_NEAR(m->logdet[1], std::log(20.0), 1e-14);
    EXPECT_TRUE(m->checkInv());
    delete m;
}

TEST(MixtureLink, LinkedViewSharesTheParentsArrays) {
    Mixture* parent = threeClasses(true);
    int idx[2] = {0, 2};
    Mixture* link = new Mixture(parent, 2, idx);
    EXPECT_EQ(link->storage, 1);
    EXPECT_EQ(link->hasInv, 1);
    EXPECT_EQ(link->k, 2);
    EXPECT_EQ(link->dim, 2);
    EXPECT_EQ(link->linkIndex, idx);
    EXPECT_EQ(link->mi[1][0], 2.0);
    EXPECT_EQ(link->mi[1][1], -2.0);
    EXPECT_EQ(link->logdet[1], parent->logdet[2]);

    // Changes travel both ways through the shared arrays.
    parent->mi[2][0] = 42.0;
    EXPECT_EQ(link->mi[1][0], 42.0);
    link->sigma[0][1][1] = 6.0;
    EXPECT_EQ(parent->sigma[0][1][1], 6.0);
    EXPECT_TRUE(link->updateInv());
    EXPECT_NEAR(parent->sigmaInv[0][1][1], 1.0 / 6.0, 1e-15);

    // log-determinants and flags are copies: the parent's stay as they were.
    EXPECT_NEAR(link->logdet[0], std::log(6.0), 1e-14);
    EXPECT_NEAR(parent->logdet[0], std::log(2.0), 1e-14);

    delete link;  // must leave the parent's arrays alone
    EXPECT_EQ(parent->mi[2][0], 42.0);
    EXPECT_EQ(parent->sigma[0][1][1], 6.0);
    delete parent;
}

TEST(MixtureLink, ParentWithoutInversesGivesAnEmptyMixture) {
    Mixture* parent = threeClasses(false);
    int idx[1] = {1};
    Mixture link(parent, 1, idx);
    EXPECT_EQ(link.storage, 0);
    EXPECT_EQ(link.hasInv, 0);
    EXPECT_EQ(link.k, 0);
    EXPECT_EQ(link.mi, nullptr);
    delete parent;
}

TEST(MixtureLink, GenerateLinkedMixtureFromAMask) {
    Mixture* parent = threeClasses(true);
    bool none[3] = {false, false, false};
    EXPECT_EQ(parent->generateLinkedMixture(none), nullptr);

    bool mask[3] = {true, false, true};
    Mixture* link = parent->generateLinkedMixture(mask);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ(link->k, 2);
    EXPECT_EQ(link->linkIndex[0], 0);
    EXPECT_EQ(link->linkIndex[1], 2);
    EXPECT_EQ(link->mi[1], parent->mi[2]);
    EXPECT_EQ(link->sigmaInv[0], parent->sigmaInv[0]);

    // Only an owning mixture can be linked to.
    bool all[2] = {true, true};
    EXPECT_EQ(link->generateLinkedMixture(all), nullptr);
    Mixture empty;
    EXPECT_EQ(empty.generateLinkedMixture(all), nullptr);

    int* idx = link->linkIndex;  // the caller's, together with the mixture
    delete link;
    delete[] idx;
    delete parent;
}

TEST(MixtureCopies, DeepCopiesOfMeansInversesAndLogdets) {
    Mixture* m = threeClasses(true);
    double** mi = m->getMiCopy();
    double*** inv = m->getSigmaInvCopy();
    double* ld = m->getLogdetCopy();
    for (int c = 0; c < 3; ++c) {
        EXPECT_NE(mi[c], m->mi[c]);
        EXPECT_EQ(mi[c][0], m->mi[c][0]);
        EXPECT_EQ(mi[c][1], m->mi[c][1]);
        EXPECT_NE(inv[c], m->sigmaInv[c]);
        for (int r = 0; r < 2; ++r)
            for (int s = 0; s < 2; ++s) EXPECT_EQ(inv[c][r][s], m->sigmaInv[c][r][s]);
        EXPECT_EQ(ld[c], m->logdet[c]);
    }
    mi[0][0] = -1.0;
    inv[0][0][0] = -1.0;
    EXPECT_EQ(m->mi[0][0], 0.0);
    EXPECT_EQ(m->sigmaInv[0][0][0], 1.0);
    for (int c = 0; c < 3; ++c) {
        delete[] mi[c];
        freeMatrix(inv[c], 2);
    }
    delete[] mi;
    delete[] inv;
    delete[] ld;

    Mixture* lazy = threeClasses(false);
    EXPECT_EQ(lazy->getSigmaInvCopy(), nullptr);
    EXPECT_EQ(lazy->getLogdetCopy(), nullptr);
    delete lazy;
    delete m;
}

}  // namespace
