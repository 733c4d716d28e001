// The text report of a small run, compared byte for byte with a report that
// this test derives on its own from the image and the rules of the run.
//
// The image is one band of 16 x 8 pixels in four horizontal stripes of four
// rows, each stripe of constant value (10, 30, 100, 130).  With gain-driven
// splitting in two, the run is fully predictable:
//  - the root (label 2; label 1 is the map's frame) splits into the two low
//    stripes and the two high stripes (labels 3 and 4, the child whose values
//    lie along the positive principal direction first);
//  - both children are test-split (3 first, taking labels 5 and 6, then 4,
//    taking 7 and 8); the child with the larger gain is made permanent first,
//    then the other; constant stripes cannot be split (an empty class), which
//    ends the run with four leaves;
//  - every border between stripes is straight, so the pseudo-likelihood score
//    is non-negative at BetaMax and beta is BetaMax; a border of 8 columns has
//    8 vertical and 14 diagonal neighbour pairs: 22 edges;
//  - constant regions get the unit variance of the degeneracy rule, hence no
//    likelihood energy; a region of two stripes a, b has mean (a+b)/2 and
//    variance ((a-b)/2)^2.
// Which child holds the low stripes is the sign convention of the principal
// direction; the test reads it from the label map and checks that the map is
// one of the two possible outcomes.

#include <cmath>
#include <map>
#include <set>
#include <sstream>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kRows = 16, kCols = 8, kStripeArea = 4 * kCols;
constexpr int kValues[4] = {10, 30, 100, 130};
constexpr double kBeta = 1.5;  // BetaMax of the default configuration
constexpr int kEdges = kCols + 2 * (kCols - 1);

using Stripes = std::vector<int>;  // the stripes a region covers

int area(const Stripes& s) {
    return static_cast<int>(s.size()) * kStripeArea;
}

double mean(const Stripes& s) {
    double sum = 0;
    for (int k : s) sum += kValues[k];
    return sum / static_cast<double>(s.size());
}

// Variance of equal-sized stripes, with the unit variance of a constant region.
double variance(const Stripes& s) {
    double sum = 0;
    for (int k : s) sum += (kValues[k] - mean(s)) * (kValues[k] - mean(s));
    return sum < 0.01 ? 1.0 : sum / static_cast<double>(s.size());
}

// Half the sum of squared Mahalanobis distances: every pixel of stripe k
// contributes (v_k - mean)^2 / variance.
double likelihoodEnergy(const Stripes& s) {
    double sum = 0;
    for (int k : s) sum += kStripeArea * (kValues[k] - mean(s)) * (kValues[k] - mean(s)) / variance(s);
    return 0.5 * sum;
}

// Negative log-likelihood of a region, up to terms that cancel in a gain.
double cost(const Stripes& s) {
    return 0.5 * area(s) * std::log(variance(s)) + likelihoodEnergy(s);
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
    const std::map<int, std::vector<int>> children{{2, {3, 4}}, {3, {5, 6}}, {4, {7, 8}}};
    const std::map<int, std::vector<int>> paths{{2, {}},     {3, {0}},    {4, {1}},   {5, {0, 0}},
                                                {6, {0, 1}}, {7, {1, 0}}, {8, {1, 1}}};
    const Hraw labels = readHraw("labels.hraw");
    ASSERT_EQ(labels.values.size(), static_cast<size_t>(kRows * kCols));
    std::map<int, Stripes> stripes{{2, {0, 1, 2, 3}}, {3, {}}, {4, {}}};
    for (int i = 0; i < kRows * kCols; ++i) {
        ASSERT_EQ(labels.values[i], labels.values[i / kStripeArea * kStripeArea]) << "pixel " << i;
        if (i % kStripeArea == 0) stripes[labels.values[i]] = {i / kStripeArea};
    }
    ASSERT_EQ(stripes.size(), 7u);
    for (int parent : {3, 4})
        for (int leaf : children.at(parent)) {
            ASSERT_EQ(stripes.count(leaf), 1u) << "leaf " << leaf;
            stripes[parent].push_back(stripes[leaf][0]);
        }
    std::sort(stripes[3].begin(), stripes[3].end());
    // The root separates the low stripes from the high ones.
    ASSERT_TRUE(stripes[3] == Stripes({0, 1}) || stripes[3] == Stripes({2, 3}));

    // Per-pixel decrease of the negative log-likelihood, less the Potts cost.
    auto gain = [&](int label) {
        double g = cost(stripes[label]) - kEdges * kBeta;
        for (int c : children.at(label)) g -= cost(stripes[c]);
        return g / area(stripes[label]);
    };
    ASSERT_GE(gain(2), 0.3);  // the default SplitGainThreshold
    // Greedy by gain: the better child is made permanent (and listed) first.
    const int first = gain(4) > gain(3) ? 4 : 3, second = 7 - first;
    std::vector<int> terminals = children.at(first);
    terminals.insert(terminals.end(), children.at(second).begin(), children.at(second).end());
    // The leaves below a region, in terminal order.
    auto offspring = [&](int label) {
        std::vector<int> out;
        for (int t : terminals)
            if (children.count(label) != 0 &&
                std::count(stripes[label].begin(), stripes[label].end(), stripes[t][0]))
                out.push_back(t);
        return out;
    };
    auto list = [](std::ostream& s, const std::vector<int>& values) -> std::ostream& {
        s << "[";
        for (int v : values) s << v << " ";
        return s << "]";
    };

    std::ostringstream expected;
    expected << "[GENERAL INFORMATION]\nNClass = 4;\nClasses = ";
    list(expected, terminals) << ";\nNSplit = 3;\nSplitOrder = [2 " << first << " " << second << " ];\n";
    expected << "OffspringMat = [\n";
    for (int label : {2, first, second}) {
        std::vector<int> row = offspring(label);
        row.resize(4, 0);  // zero-padded to the number of leaves
        for (int v : row) expected << v << " ";
        expected << "\n";
    }
    expected << "];\n[END GENERAL INFORMATION]\n";
    std::vector<int> nodeOrder{2, 3, 4};
    nodeOrder.insert(nodeOrder.end(), terminals.begin(), terminals.end());
    for (int label : nodeOrder) {
        const Stripes& s = stripes[label];
        const bool split = children.count(label) != 0;
        expected << "\n[NEW WORKSPACE]\nWSLab = " << label << ";\nPath = ";
        list(expected, paths.at(label)) << ";\nChildren = ";
        list(expected, split ? children.at(label) : std::vector<int>()) << ";\nOffspring = ";
        list(expected, offspring(label)) << ";\nArea = " << area(s) << ";\n";
        expected << "TotalLikelihoodEnergy = " << likelihoodEnergy(s) << ";\nMean = [" << mean(s) << " ];\n";
        expected << "Covariance = [\n"
                 << variance(s) << " ];\nSplit = " << split << ";\nTerminal = " << !split << ";\n";
        if (!split) continue;
        expected << "Beta = " << kBeta << ";\nEdges = " << kEdges << ";\nTextureBased = 0;\n";
        // The Potts split is the primary method.
        expected << "SplitGain_MRF = " << gain(label)
                 << ";\nMixtureSplitGain_TFR = 0;\nSplitGain_TFR = " << gain(label) << ";\nChAreas = ["
                 << area(stripes[children.at(label)[0]]) << " " << area(stripes[children.at(label)[1]])
                 << " ];\n";
    }
    EXPECT_EQ(read("report.txt"), expected.str());
}

}  // namespace
}  // namespace tooltest
