// Labelling with a model: the maximum-likelihood start, the Potts sweeps, and
// the property everything else rests on: a window read with its halo gets the
// whole image's labels, for any thread count.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "model/Labelling.h"
#include "model/Model.h"

namespace dhc {
namespace {

// An image of `bands` planes, owned, with the row pointers the labeller takes.
struct Image {
    int bands = 0, rows = 0, cols = 0;
    std::vector<int> values;
    std::vector<int*> rowPointers;
    std::vector<int**> bandPointers;

    Image(int b, int r, int c) : bands(b), rows(r), cols(c), values(static_cast<size_t>(b * r * c)) { point(); }
    void point() {
        rowPointers.resize(static_cast<size_t>(bands * rows));
        bandPointers.resize(static_cast<size_t>(bands));
        for (int b = 0; b < bands; ++b) {
            for (int r = 0; r < rows; ++r)
                rowPointers[static_cast<size_t>(b * rows + r)] = &values[static_cast<size_t>((b * rows + r) * cols)];
            bandPointers[static_cast<size_t>(b)] = &rowPointers[static_cast<size_t>(b * rows)];
        }
    }
    int& at(int b, int r, int c) { return values[static_cast<size_t>((b * rows + r) * cols + c)]; }
    // Row pointers of the window w (offsets into this image).
    std::vector<int**> window(const Window& w, std::vector<int*>& rowsOut) const {
        rowsOut.resize(static_cast<size_t>(bands * w.rows));
        std::vector<int**> out(static_cast<size_t>(bands));
        for (int b = 0; b < bands; ++b) {
            for (int r = 0; r < w.rows; ++r)
                rowsOut[static_cast<size_t>(b * w.rows + r)] = bandPointers[static_cast<size_t>(b)][w.row + r] + w.col;
            out[static_cast<size_t>(b)] = &rowsOut[static_cast<size_t>(b * w.rows)];
        }
        return out;
    }
};

// Leaves with identity-scaled covariances at the given means (one band per entry).
Model model(const std::vector<std::vector<double>>& means, double variance, double beta) {
    Model m;
    m.bands = static_cast<int>(means[0].size());
    m.beta = beta;
    int label = 10;
    for (const auto& mu : means) {
        ModelLeaf leaf;
        leaf.label = label;
        label += 10;
        leaf.mean = mu;
        leaf.covariance.assign(static_cast<size_t>(m.bands * m.bands), 0.0);
        for (int i = 0; i < m.bands; ++i) leaf.covariance[static_cast<size_t>(i * m.bands + i)] = variance;
        m.leaves.push_back(leaf);
    }
    return m;
}

std::vector<int32_t> labelAll(const Labeller& l, Image& im, const uint8_t* valid = nullptr, int threads = 1) {
    std::vector<int32_t> out(static_cast<size_t>(im.rows * im.cols));
    l.label(im.bandPointers.data(), valid, im.rows, im.cols, 0, 0, out.data(), threads);
    return out;
}

// A noisy image of three blobs of classes, so that the sweeps change many labels.
Image noisyScene(int rows, int cols, unsigned seed) {
    Image im(3, rows, cols);
    std::mt19937 random(seed);
    std::normal_distribution<double> noise(0.0, 9.0);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const int cls = (r / 7 + c / 11) % 3;
            for (int b = 0; b < 3; ++b)
                im.at(b, r, c) = static_cast<int>(std::lround(20.0 * ((cls + b) % 3) + noise(random)));
        }
    return im;
}

TEST(Labelling, MaximumLikelihoodWithoutBetaPicksTheNearestLeaf) {
    // Equal covariances: the least energy is the nearest mean.
    const Labeller l(model({{0, 0}, {100, 0}, {0, 100}}, 4.0, 0.0));
    Image im(2, 1, 4);
    const int xs[4][2] = {{1, 2}, {90, 5}, {-3, 70}, {49, 0}};
    for (int c = 0; c < 4; ++c) {
        im.at(0, 0, c) = xs[c][0];
        im.at(1, 0, c) = xs[c][1];
    }
    EXPECT_EQ(labelAll(l, im), (std::vector<int32_t>{10, 20, 30, 10}));
}

TEST(Labelling, ALargerCovarianceWinsFarFromBothMeans) {
    // log|Σ| penalises the wide leaf near the means; far out it wins.
    Model m = model({{0}, {10}}, 1.0, 0.0);
    m.leaves[1].covariance = {100.0};
    const Labeller l(m);
    Image im(1, 1, 3);
    im.at(0, 0, 0) = 1;   // near the narrow leaf
    im.at(0, 0, 1) = 10;  // on the wide leaf's mean
    im.at(0, 0, 2) = -8;  // far from both: the wide leaf
    EXPECT_EQ(labelAll(l, im), (std::vector<int32_t>{10, 20, 20}));
}

TEST(Labelling, TiesGoToTheLowerLabel) {
    const Labeller l(model({{5}, {5}}, 1.0, 0.5));
    Image im(1, 3, 3);
    for (int& v : im.values) v = 5;
    for (int32_t v : labelAll(l, im)) EXPECT_EQ(v, 10);
}

TEST(Labelling, SweepsTurnALonePixelToItsNeighboursLeafOnlyWithBeta) {
    // A pixel slightly nearer leaf 20, surrounded by leaf 10's pixels.
    Image im(1, 5, 5);
    for (int& v : im.values) v = 0;
    im.at(0, 2, 2) = 6;  // energies 18 (leaf 10) and 8 (leaf 20): 10 apart
    EXPECT_EQ(labelAll(Labeller(model({{0}, {10}}, 1.0, 0.0)), im)[12], 20);
    EXPECT_EQ(labelAll(Labeller(model({{0}, {10}}, 1.0, 1.0)), im)[12], 20);  // 8 neighbours · 1 < 10
    EXPECT_EQ(labelAll(Labeller(model({{0}, {10}}, 1.0, 1.5)), im)[12], 10);  // 8 · 1.5 > 10
}

TEST(Labelling, MaskedPixelsGetZeroAndAreNobodysNeighbours) {
    Image im(1, 3, 3);
    for (int& v : im.values) v = 0;
    im.at(0, 1, 1) = 6;
    // With its eight neighbours masked the middle pixel keeps its own leaf.
    std::vector<uint8_t> valid(9, 0);
    valid[4] = 1;
    const std::vector<int32_t> out = labelAll(Labeller(model({{0}, {10}}, 1.0, 5.0)), im, valid.data());
    for (int k = 0; k < 9; ++k) EXPECT_EQ(out[static_cast<size_t>(k)], k == 4 ? 20 : 0);
}

TEST(Labelling, SweepsChangeTheNoisySceneAndThreadsDoNot) {
    Image im = noisyScene(150, 97, 1);
    const Labeller ml(model({{0, 20, 40}, {20, 40, 0}, {40, 0, 20}}, 81.0, 0.0));
    const Labeller potts(model({{0, 20, 40}, {20, 40, 0}, {40, 0, 20}}, 81.0, 1.0));
    const std::vector<int32_t> plain = labelAll(ml, im), smooth = labelAll(potts, im);
    size_t changed = 0;
    for (size_t i = 0; i < plain.size(); ++i) changed += plain[i] != smooth[i];
    EXPECT_GT(changed, 30u);
    for (int threads : {2, 3, 7}) EXPECT_EQ(labelAll(potts, im, nullptr, threads), smooth) << threads;
}

TEST(Labelling, WindowsWithTheirHaloGetTheWholeImagesLabels) {
    Image im = noisyScene(91, 83, 2);
    std::vector<uint8_t> valid(static_cast<size_t>(91 * 83), 1);
    for (int k = 0; k < 91 * 83; k += 17) valid[static_cast<size_t>(k)] = 0;  // nodata here and there
    const Labeller l(model({{0, 20, 40}, {20, 40, 0}, {40, 0, 20}}, 81.0, 1.2));
    const std::vector<int32_t> whole = labelAll(l, im, valid.data());
    for (const Window w : {Window{0, 0, 10, 10}, Window{37, 41, 13, 9}, Window{13, 22, 1, 1},
                           Window{80, 70, 11, 13}, Window{0, 40, 91, 5}, Window{30, 0, 7, 83}}) {
        const Window h = withHalo(w, 91, 83);
        std::vector<int*> rowsOut;
        std::vector<int**> cube = im.window(h, rowsOut);
        std::vector<uint8_t> v(static_cast<size_t>(h.rows * h.cols));
        for (int r = 0; r < h.rows; ++r)
            for (int c = 0; c < h.cols; ++c)
                v[static_cast<size_t>(r * h.cols + c)] = valid[static_cast<size_t>((h.row + r) * 83 + h.col + c)];
        std::vector<int32_t> out(static_cast<size_t>(h.rows * h.cols));
        l.label(cube.data(), v.data(), h.rows, h.cols, h.row, h.col, out.data(), 2);
        for (int r = 0; r < w.rows; ++r)
            for (int c = 0; c < w.cols; ++c)
                ASSERT_EQ(out[static_cast<size_t>((w.row - h.row + r) * h.cols + (w.col - h.col + c))],
                          whole[static_cast<size_t>((w.row + r) * 83 + w.col + c)])
                    << "window at " << w.row << "," << w.col << ": pixel " << r << "," << c;
    }
}

TEST(Labelling, ANegativeBetaMakesNeighboursDisagree) {
    // Every pixel is leaf 10's mean: only the prior can make the middle one
    // leaf 20, 8 disagreeing neighbours (−8·β = 80) outweighing 50 of energy;
    // the border pixels, with at most 5 neighbours of leaf 10, do not turn.
    Image im(1, 3, 3);
    for (int& v : im.values) v = 0;
    const std::vector<int32_t> out = labelAll(Labeller(model({{0}, {10}}, 1.0, -10.0)), im);
    for (int k = 0; k < 9; ++k) EXPECT_EQ(out[static_cast<size_t>(k)], k == 4 ? 20 : 10) << k;
}

TEST(Labelling, ManyBandsLabelAsFewDo) {
    // Ten bands (beyond the unrolled band counts): the same scene in ten
    // bands, the first three carrying it and the others constant, labels as
    // the three bands alone.
    Image three = noisyScene(40, 50, 4), ten(10, 40, 50);
    for (int b = 0; b < 10; ++b)
        for (int r = 0; r < 40; ++r)
            for (int c = 0; c < 50; ++c) ten.at(b, r, c) = b < 3 ? three.at(b, r, c) : 7;
    std::vector<std::vector<double>> means3 = {{0, 20, 40}, {20, 40, 0}, {40, 0, 20}}, means10;
    for (const auto& m : means3) {
        std::vector<double> m10(m);
        m10.resize(10, 7.0);
        means10.push_back(m10);
    }
    EXPECT_EQ(labelAll(Labeller(model(means10, 81.0, 1.0)), ten), labelAll(Labeller(model(means3, 81.0, 1.0)), three));
}

TEST(Labelling, HaloIsCutAtTheImageEdges) {
    const Window h = withHalo(Window{2, 50, 10, 10}, 40, 55);
    EXPECT_EQ(h.row, 0);
    EXPECT_EQ(h.col, 50 - kLabelRadius);
    EXPECT_EQ(h.rows, 12 + kLabelRadius);
    EXPECT_EQ(h.cols, 55 - h.col);
}

}  // namespace
}  // namespace dhc
