#pragma once
// The final classes of an unsupervised run and their joint refinement.
//
// After the tree is grown every leaf is one class.  The refinement takes all
// leaves' pixels together: EM over the leaves' Gaussians (started from the
// leaf statistics, on a regular sample of at most 32768 to 65535 of the
// pixels, which follow the region's shuffled order), the most probable class of every pixel, then ICM under
// the Potts prior with beta estimated on that map; later rounds re-estimate
// the Gaussians and beta from the map ICM left and run ICM again, until no
// pixel changes or the rounds run out.  Of the maps seen (the tree's leaves
// included) the one with the highest pseudo-likelihood is kept, so the
// rounds never lower it.  Then classes are merged two at a time while the
// pseudo-likelihood less half ln N per mean and covariance entry of the
// classes rises (parts of one class the binary tree had to cut).  The tree
// itself is not touched: the refined labels go to a plane of their own.
//
// Pseudo-likelihood of a map z: sum over pixels of log N(x_p | class z_p)
// with each class's Gaussian estimated on the map, plus
// beta * n_{z_p}(p) - log sum_c exp(beta * n_c(p)), n_c(p) the 8-neighbours
// of p in class c and beta the map's own maximum-pseudo-likelihood estimate
// in [BetaMin, BetaMax].  Covariances carry 1/12 on their diagonal, the
// variance of rounding to integers, so a constant band stays invertible.
//
// Every sum runs over fixed blocks of pixels joined in order and ICM visits
// the pixels one after the other: the same bytes for any number of threads.

#include <vector>

namespace dhc {

// One final class: its label in the final map, its pixels there, and the
// Gaussian the final map gives it (mean, covariance with the rounding term).
struct FinalClass {
    int label = 0;
    long long area = 0;
    std::vector<double> mean;
    std::vector<std::vector<double>> covariance;
};

// What a run's final map is made of: the classes and the Potts beta of the
// map.  This is the model a later run can apply.
struct FinalModel {
    bool refined = false;               // the final map is the refinement's, not the tree's leaves
    int rounds = 0;                     // refinement rounds run (0 when off)
    double beta = 0.0;                  // Potts beta estimated on the final map
    double pseudoLikelihood = 0.0;      // of the final map
    double treePseudoLikelihood = 0.0;  // of the map of the tree's leaves
    int merged = 0;                     // classes the refinement merged into others (no pixels left)
    std::vector<FinalClass> classes;    // in the order of the tree's leaves
};

// The pixels of the final map: values (count x bands, pixel-major) and their
// cells in a padded label plane (row pointers, inner cell (r, c) at
// [r + pad][c + pad]) that holds the leaves' labels.
struct FinalPixels {
    int bands = 0;
    std::vector<int> values;
    std::vector<int> rows, cols;  // inner coordinates
    std::vector<int> labels;      // the class labels (leaf labels), in leaf order
};

// Refines `plane` in place (at most `rounds` rounds; 0 only measures the
// tree's map) and returns the final model.  betaMin <= betaMax.
FinalModel refineFinalMap(const FinalPixels& pixels, int** plane, int pad, int rounds, double betaMin,
                          double betaMax);

}  // namespace dhc
