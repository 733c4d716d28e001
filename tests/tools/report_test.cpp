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
#include <sstream>

#include "ToolTest.h"

namespace tooltest {
namespace {

constexpr int kRows = 16, kCols = 8, kStripeRows = 4;
constexpr int kValues[4] = {10, 30, 100, 130};
constexpr double kBeta = 1.5;  // BetaMax of the default configuration
constexpr int kEdges = kCols + 2 * (kCols - 1);

// One region of the expected tree.
struct Node {
    int label = 0;
    std::vector<int> path;
    std::vector<int> stripes;     // stripes it covers
    std::vector<Node*> children;  // in child order (ascending label)
    double gain = 0.0;
};

double mean(const std::vector<int>& stripes) {
    double s = 0;
    for (int k : stripes) s += kValues[k];
    return s / static_cast<double>(stripes.size());
}

// Variance of equal-sized stripes, with the unit variance of a constant region.
double variance(const std::vector<int>& stripes) {
    const double m = mean(stripes);
    double s = 0;
    for (int k : stripes) s += (kValues[k] - m) * (kValues[k] - m);
    const double v = s / static_cast<double>(stripes.size());
    return v < 0.01 ? 1.0 : v;
}

int area(const Node& n) {
    return static_cast<int>(n.stripes.size()) * kStripeRows * kCols;
}

// Half the sum of squared Mahalanobis distances: every pixel of stripe k
// contributes (v_k - mean)^2 / variance.
double likelihoodEnergy(const Node& n) {
    const double m = mean(n.stripes), v = variance(n.stripes);
    double s = 0;
    for (int k : n.stripes) s += kStripeRows * kCols * (kValues[k] - m) * (kValues[k] - m) / v;
    return 0.5 * s;
}

// Per-pixel decrease of the negative log-likelihood, less the Potts cost.
double gain(const Node& n) {
    auto term = [](const Node& x) {
        return 0.5 * area(x) * std::log(variance(x.stripes)) + likelihoodEnergy(x);
    };
    double g = term(n);
    for (const Node* c : n.children) g -= term(*c);
    return (g - kEdges * kBeta) / area(n);
}

std::string block(const Node& n, const std::vector<int>& offspring) {
    std::ostringstream s;
    s << "\n[NEW WORKSPACE]\n";
    s << "WSLab = " << n.label << ";\n";
    s << "Path = [";
    for (int p : n.path) s << p << " ";
    s << "];\nChildren = [";
    for (const Node* c : n.children) s << c->label << " ";
    s << "];\nOffspring = [";
    for (int o : offspring) s << o << " ";
    s << "];\n";
    s << "Area = " << area(n) << ";\n";
    s << "TotalLikelihoodEnergy = " << likelihoodEnergy(n) << ";\n";
    s << "Mean = [" << mean(n.stripes) << " ];\n";
    s << "Covariance = [\n" << variance(n.stripes) << " ];\n";
    const bool split = !n.children.empty();
    s << "Split = " << split << ";\n";
    s << "Terminal = " << !split << ";\n";
    if (split) {
        s << "Beta = " << kBeta << ";\n";
        s << "Edges = " << kEdges << ";\n";
        s << "TextureBased = 0;\n";
        s << "SplitGain_MRF = " << n.gain << ";\n";  // the Potts split is the primary method
        s << "MixtureSplitGain_TFR = 0;\n";
        s << "SplitGain_TFR = " << n.gain << ";\n";
        s << "ChAreas = [";
        for (const Node* c : n.children) s << area(*c) << " ";
        s << "];\n";
    }
    return s.str();
}

class Report : public ToolTest {};

TEST_F(Report, MatchesTheIndependentlyDerivedReport) {
    Hraw image{1, kRows, kCols, {}};
    for (int r = 0; r < kRows; ++r)
        for (int c = 0; c < kCols; ++c) image.values.push_back(kValues[r / kStripeRows]);
    writeHraw(path("stripes.hraw"), image);
    const Result run = dhc({"segment", "stripes.hraw", "-o", "labels.hraw", "--report", "report.txt",
                            "--quiet", "--set", "UNSUPERVISED_MODE_CONF.MinRegionArea=16"});
    ASSERT_EQ(run.status, 0) << run.err;

    // The leaf label of every stripe, as the run painted them.
    const Hraw labels = readHraw(path("labels.hraw"));
    ASSERT_EQ(labels.values.size(), static_cast<size_t>(kRows * kCols));
    int leaf[4];
    for (int k = 0; k < 4; ++k) {
        leaf[k] = labels.at(0, k * kStripeRows, 0);
        for (int r = k * kStripeRows; r < (k + 1) * kStripeRows; ++r)
            for (int c = 0; c < kCols; ++c) ASSERT_EQ(labels.at(0, r, c), leaf[k]);
    }
    // Low stripes under child 3 (leaves 5, 6) or under child 4 (leaves 7, 8).
    const bool lowFirst = std::min(leaf[0], leaf[1]) == 5;
    ASSERT_EQ(std::min(leaf[0], leaf[1]), lowFirst ? 5 : 7);
    ASSERT_EQ(std::max(leaf[0], leaf[1]), lowFirst ? 6 : 8);
    ASSERT_EQ(std::min(leaf[2], leaf[3]), lowFirst ? 7 : 5);
    ASSERT_EQ(std::max(leaf[2], leaf[3]), lowFirst ? 8 : 6);

    // The expected tree.
    Node root{2, {}, {0, 1, 2, 3}, {}, 0.0};
    Node low{lowFirst ? 3 : 4, {}, {0, 1}, {}, 0.0}, high{lowFirst ? 4 : 3, {}, {2, 3}, {}, 0.0};
    Node* childOrder[2] = {lowFirst ? &low : &high, lowFirst ? &high : &low};
    Node leaves[4];
    for (int k = 0; k < 4; ++k) leaves[k] = Node{leaf[k], {}, {k}, {}, 0.0};
    root.children = {childOrder[0], childOrder[1]};
    for (int i = 0; i < 2; ++i) childOrder[i]->path = {i};
    for (Node* parent : {&low, &high}) {
        Node* a = &leaves[parent->stripes[0]];
        Node* b = &leaves[parent->stripes[1]];
        if (b->label < a->label) std::swap(a, b);
        parent->children = {a, b};
        a->path = {parent->path[0], 0};
        b->path = {parent->path[0], 1};
    }
    for (Node* n : {&root, &low, &high}) n->gain = gain(*n);
    // Greedy by gain: the better child is made permanent (and listed) first.
    Node* first = high.gain > low.gain ? &high : &low;
    Node* second = first == &high ? &low : &high;
    ASSERT_GE(root.gain, 0.3);  // the default SplitGainThreshold

    const std::vector<Node*> nodeOrder = {&root,
                                          childOrder[0],
                                          childOrder[1],
                                          first->children[0],
                                          first->children[1],
                                          second->children[0],
                                          second->children[1]};
    const std::vector<int> terminals = {first->children[0]->label, first->children[1]->label,
                                        second->children[0]->label, second->children[1]->label};
    auto offspring = [&](const Node& n) {
        std::vector<int> out;
        for (int t : terminals)
            for (const Node* c : n.children)
                if (c->label == t ||
                    (!c->children.empty() && (c->children[0]->label == t || c->children[1]->label == t)))
                    out.push_back(t);
        return out;
    };

    std::ostringstream expected;
    expected << "[GENERAL INFORMATION]\nNClass = 4;\nClasses = [";
    for (int t : terminals) expected << t << " ";
    expected << "];\nNSplit = 3;\nSplitOrder = [" << root.label << " " << first->label << " " << second->label
             << " ];\nOffspringMat = [\n";
    for (const Node* n : {&root, first, second}) {
        std::vector<int> row = offspring(*n);
        row.resize(4, 0);  // zero-padded to the number of leaves
        for (int v : row) expected << v << " ";
        expected << "\n";
    }
    expected << "];\n[END GENERAL INFORMATION]\n";
    for (const Node* n : nodeOrder) expected << block(*n, offspring(*n));

    EXPECT_EQ(readFile(path("report.txt")), expected.str());
}

}  // namespace
}  // namespace tooltest
