// The text report of a small run, compared byte for byte with a report this
// test derives on its own.  The image: 16 x 8 pixels, one band, four
// horizontal stripes of four rows valued 10, 30, 100, 130.  Gain-driven
// splitting in two then goes: the root (label 2; 1 frames the map) splits into
// the low and the high stripes (3 and 4); both are test-split (3 taking 5, 6,
// then 4 taking 7, 8) and made permanent, the larger gain first; constant
// stripes cannot split (an empty class): four leaves.  Straight borders give
// beta = BetaMax, and a border of 8 columns has 8 vertical and 14 diagonal
// neighbour pairs: 22 edges.  A constant region gets unit variance and no
// energy; in any other region the squared deviation over the variance averages
// 1 per pixel, so the energy (half their sum) is area / 2.  Which child holds
// the low stripes is a sign convention, read from the label map.

#include <algorithm>
#include <cmath>
#include <map>
#include <sstream>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kRows = 16, kCols = 8, kStripeArea = 4 * kCols;
constexpr int kValues[4] = {10, 30, 100, 130};
constexpr double kBeta = 1.5;  // BetaMax of the default configuration
constexpr int kEdges = kCols + 2 * (kCols - 1);

struct Region {
    int area;
    double mean, variance, energy;
};

// A region made of the given stripes.
Region region(const std::vector<int>& stripes) {
    double sum = 0, squares = 0;
    for (int k : stripes) {
        sum += kValues[k];
        squares += kValues[k] * kValues[k];
    }
    const double n = static_cast<double>(stripes.size()), mean = sum / n,
                 variance = squares / n - mean * mean;
    const int area = static_cast<int>(stripes.size()) * kStripeArea;
    return variance < 0.01 ? Region{area, mean, 1.0, 0.0} : Region{area, mean, variance, area / 2.0};
}

// Negative log-likelihood of a region, up to terms that cancel in a gain.
double cost(const Region& r) {
    return 0.5 * r.area * std::log(r.variance) + r.energy;
}

std::string list(const std::vector<int>& values) {
    std::ostringstream s;
    s << "[";
    for (int v : values) s << v << " ";
    return s.str() + "]";
}

class Report : public ToolTest {};

TEST_F(Report, MatchesTheIndependentlyDerivedReport) {
    Hraw image{1, kRows, kCols, {}};
    for (int i = 0; i < kRows * kCols; ++i) image.values.push_back(kValues[i / kStripeArea]);
    writeHraw("stripes.hraw", image);
    const Result run = dhc({"segment", "stripes.hraw", "-o", "labels.hraw", "--report", "report.txt",
                            "--quiet", "--set", "UNSUPERVISED_MODE_CONF.MinRegionArea=16"});
    ASSERT_EQ(run.status, 0) << run.err;

    // In labels the tree is fixed; the map tells which stripe each leaf holds.
    std::map<int, std::vector<int>> children{{2, {3, 4}}, {3, {5, 6}}, {4, {7, 8}}};
    const std::map<int, std::vector<int>> paths{{2, {}},     {3, {0}},    {4, {1}},   {5, {0, 0}},
                                                {6, {0, 1}}, {7, {1, 0}}, {8, {1, 1}}};
    const Hraw labels = readHraw("labels.hraw");
    ASSERT_EQ(labels.values.size(), static_cast<size_t>(kRows * kCols));
    std::map<int, std::vector<int>> stripes{{2, {0, 1, 2, 3}}};
    for (int i = 0; i < kRows * kCols; ++i) {
        ASSERT_EQ(labels.values[i], labels.values[i / kStripeArea * kStripeArea]) << "pixel " << i;
        if (i % kStripeArea == 0) stripes[labels.values[i]] = {i / kStripeArea};
    }
    for (int parent : {3, 4})
        for (int leaf : children[parent]) {
            ASSERT_EQ(stripes.count(leaf), 1u) << "leaf " << leaf;
            stripes[parent].push_back(stripes[leaf][0]);
        }
    // The root separates the low stripes from the high ones.
    ASSERT_EQ(stripes[3][0] / 2, stripes[3][1] / 2);

    // Per-pixel decrease of the negative log-likelihood, less the Potts cost.
    auto gain = [&](int label) {
        double g = cost(region(stripes[label])) - kEdges * kBeta;
        for (int c : children[label]) g -= cost(region(stripes[c]));
        return g / region(stripes[label]).area;
    };
    ASSERT_GE(gain(2), 0.2);  // the default SplitGainThreshold
    // Greedy by gain: the better child is made permanent (and listed) first.
    const int first = gain(4) > gain(3) ? 4 : 3, second = 7 - first;
    const std::vector<int> terminals{children[first][0], children[first][1], children[second][0],
                                     children[second][1]};
    // The leaves below a region (none below a leaf), in terminal order.
    auto offspring = [&](int label) {
        std::vector<int> out;
        for (int t : terminals)
            if (t != label && std::count(stripes[label].begin(), stripes[label].end(), stripes[t][0]) != 0)
                out.push_back(t);
        return out;
    };

    std::ostringstream expected;
    expected << "[GENERAL INFORMATION]\nNClass = 4;\nClasses = " << list(terminals)
             << ";\nNSplit = 3;\nSplitOrder = [2 " << first << " " << second << " ];\nOffspringMat = [\n";
    for (int label : {2, first, second}) {
        std::vector<int> row = offspring(label);
        row.resize(4, 0);  // zero-padded to the number of leaves
        for (int v : row) expected << v << " ";
        expected << "\n";
    }
    expected << "];\n[END GENERAL INFORMATION]\n";
    for (int label : {2, 3, 4, terminals[0], terminals[1], terminals[2], terminals[3]}) {
        const Region r = region(stripes[label]);
        const bool split = children.count(label) != 0;
        expected << "\n[NEW WORKSPACE]\nWSLab = " << label << ";\nPath = " << list(paths.at(label))
                 << ";\nChildren = " << list(split ? children[label] : std::vector<int>())
                 << ";\nOffspring = " << list(offspring(label)) << ";\nArea = " << r.area
                 << ";\nTotalLikelihoodEnergy = " << r.energy << ";\nMean = [" << r.mean
                 << " ];\nCovariance = [\n"
                 << r.variance << " ];\nSplit = " << split << ";\nTerminal = " << !split << ";\n";
        if (!split) continue;
        // The Potts split is the primary method; each child holds half the stripes.
        expected << "Beta = " << kBeta << ";\nEdges = " << kEdges
                 << ";\nTextureBased = 0;\nSplitGain_MRF = " << gain(label)
                 << ";\nMixtureSplitGain_TFR = 0;\nSplitGain_TFR = " << gain(label) << ";\nChAreas = ["
                 << r.area / 2 << " " << r.area / 2 << " ];\n";
    }
    EXPECT_EQ(read("report.txt"), expected.str());
}

}  // namespace
}  // namespace tooltest
