#pragma once
// WSReport: the output record of one workspace.
//
// PottsWS::getWSReport() fills the workspace's own members (label, split
// scores, area, energy, mean, covariance); the driver completes the members
// only the tree knows (path, children, offspring, terminal, child areas).  The
// MATLAB output and the text report are both built from it.
//
// Ownership: the record owns every array it points to.  All of them must be
// new[] arrays (covariance as new double*[nBands] plus one new double[nBands]
// per row); the destructor frees them.  Not copyable.

#include <iosfwd>
#include <string>

struct WSReport {
    int WSLab = 0;                     // label of the workspace's region
    int pathLength = 0;                // entries of path (driver)
    int* path = nullptr;               // tree path of the node (driver)
    int nChildren = 0;                 // (driver)
    int* children = nullptr;           // labels of the children (driver)
    int nOffspring = 0;                // number of leaves below the node (driver)
    int* offspring = nullptr;          // labels of those leaves (driver)
    bool split = false;                // the workspace's splitState is 2
    bool terminal = false;             // node is a leaf (driver)
    double beta = 0.0;                 // only when split
    int edges = 0;                     // only when split
    bool textureBased = false;         // always copied
    double splitGainTFR = 0.0;         // workspace splitGain (only when split)
    double mixtureSplitGainTFR = 0.0;  // primaryGain if textureBased, else secondaryGain
    double splitGainMRF = 0.0;         // secondaryGain if textureBased, else primaryGain
    int area = 0;                      // area of the workspace's region
    int* chAreas = nullptr;            // areas of the children, in children's order (driver)
    double totalLikelihoodEnergy = 0.0;
    int nBands = 0;
    double* mean = nullptr;         // nBands values
    double** covariance = nullptr;  // nBands x nBands
    // Not in the text report: the split's model-selection criterion (NaN when
    // none), and the split the run refused on this leaf when it stopped.
    double criterion = 0.0;
    bool refused = false;
    double refusedGain = 0.0;
    double refusedCriterion = 0.0;

    WSReport() = default;
    ~WSReport();
    WSReport(const WSReport&) = delete;
    WSReport& operator=(const WSReport&) = delete;

    // Appends the "[NEW WORKSPACE]" block of this record to fileName (created
    // when absent).  withStats adds the likelihood energy and the mean,
    // withCovariance the covariance rows.  Numbers in default stream format.
    // A file that cannot be opened is silently skipped.
    void appendToFile(std::string fileName, bool withStats, bool withCovariance);
    // The same block written to a stream.
    void write(std::ostream& out, bool withStats, bool withCovariance) const;
};
