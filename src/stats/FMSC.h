#pragma once
// Mean-shift mode finding with an adaptive, k-nearest-neighbour bandwidth.
//
// Finds the modes of n points in d dimensions, assigns every point to the mode
// that visited it most, and drops modes that hold too few points.  The engine
// runs it on at most 3000 standardised pixel vectors and takes the number of
// modes as the number of classes.
//
// The points (`data`) are the caller's and must outlive the object; everything
// else is owned.  Modes are numbered from 1 in `classification` (0 = none);
// after pruning the kept modes are renumbered 1..k in their list order, so a
// classification always indexes the modes that getModes() returns.

#include <fstream>
#include <memory>
#include <vector>

class FMSC {
  public:
    std::vector<double> shift;               // d: previous centre while iterating, unit shift direction after
    std::vector<double> center;              // d: current centre
    std::unique_ptr<int[]> classification;   // n: 0 = unassigned, else the 1-based mode number
    double** data = nullptr;                 // n x d points (not owned)
    int dim = 0;                             // d
    int nPoints = 0;                         // n
    double tolerance = 0.0;                  // smallest population of a kept mode, fraction of n
    double skipLast = 0.0;                   // fraction of points that may stay unassigned when seeding stops
    double hMin = 0.0;                       // smallest bandwidth
    double hMax = 0.0;                       // largest bandwidth
    int knn = 0;                             // neighbours that fix the bandwidth
    double farValue = 0.0;                   // largest finite double: marks neighbours already taken
    int kernelType = 0;                      // stored only; the step always uses the Gaussian weight
    bool logging = false;                    // the logs are never opened, so nothing is ever written
    std::ofstream msLog;                     // centres ("mslog.txt")
    std::ofstream hLog;                      // bandwidths ("hlog.txt")
    std::vector<std::vector<double>> modes;  // mode centres, in order of discovery
    std::vector<int> modeCounts;             // points per mode
    std::vector<std::vector<int>> modeVisits;  // per mode: how often each point fell inside its bandwidth
    std::vector<int> pending;                  // point indices of the latest search
    std::vector<int> deleted;                  // 1-based numbers of discarded modes

    FMSC(double** data, int d, int n, int knn, double hMin, double hMax, int autoAdjustKNN, double tolerance,
         double skipLast, int kernelType);
    // Reads "AutoAdjustKNN", "Tolerance", "SkipLast", "KernelType" from section
    // "MEANSHIFT" of iniFile; a file without that section ends the process with status -1.
    FMSC(double** data, int d, int n, int knn, double hMin, double hMax, const char* iniFile);

    // Stores the values and allocates the work vectors; autoAdjustKNN >= 1 tunes
    // knn with azimuth(autoAdjustKNN, 7, 0.5, 20.0, 500).
    void setup(double** data, int d, int n, int knn, double hMin, double hMax, int autoAdjustKNN,
               double tolerance, double skipLast, int kernelType);

    // i = first unassigned point, copied into `center`; false when all are assigned.
    bool setStartCenter(int& i);
    // center = point (next draw of the process generator, as rand()) mod n.
    void setRandomStartCenter();
    // Mean shift from `center` (at most 500 iterations).  visited becomes n
    // flags marking the points that fell inside a bandwidth; returns the mean
    // bandwidth.
    double findCenter(std::vector<int>& visited);

    // The three stages of mode finding.
    void findModes();
    void finalize();
    void deleteNonModes();

    // Tunes knn until `target` modes are found repeatedly (progress lines on dhc::out()).
    void azimuth(int target, int slots, double lowFactor, double highFactor, int maxAdjust);

    // Runs the three stages; k new d-vectors (new double*[k], rows new double[d]); k = number of modes.
    double** getModes(int& k);
    // New int[k] of mode populations; k = number of modes.
    int* getPointsForMode(int& k);
    // New copy of the n classifications (null if none); k = number of modes.
    int* getClassification(int& k);
    // Number of points with a non-zero classification.
    int getClassified();
};
