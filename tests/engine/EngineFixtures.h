#pragma once
// Synthetic images for the engine tests, built into workspaces by the
// workspace tests' helpers.

#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "workspace/WorkspaceFixtures.h"

namespace enginetest {

using namespace wstest;

// An image of classes (truth[r * cols + c]) whose band b has mean means[class][b]
// plus Gaussian noise of the given standard deviation, from a fixed seed.
struct Synthetic {
    int rows = 0, cols = 0, bands = 0;
    std::vector<int> truth;
    std::vector<int> values;  // [(r * cols + c) * bands + b]
    Built build() const {
        return makeWS(rows, cols, bands,
                      [this](int r, int c, int b) { return values[(r * cols + c) * bands + b]; });
    }
    // Writes labels[class] at every pixel.
    void paintTruth(PottsWS& ws, const int* labels) const {
        for (int p = 0; p < rows * cols; ++p) ws.root->setPixel(p / cols, p % cols, labels[truth[p]]);
    }
};

inline Synthetic synthetic(int rows, int cols, const std::vector<std::vector<double>>& means,
                           const std::function<int(int, int)>& classOf, double noise, unsigned seed) {
    Synthetic s{rows, cols, static_cast<int>(means[0].size()), {}, {}};
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal(0.0, noise);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            s.truth.push_back(classOf(r, c));
            for (int b = 0; b < s.bands; ++b)
                s.values.push_back(static_cast<int>(std::lround(means[s.truth.back()][b] + normal(gen))));
        }
    return s;
}

// Two halves (left / right) or four quadrants with well separated means.
inline Synthetic rectangles(int rows, int cols, int nClasses, int bands, double noise, unsigned seed) {
    std::vector<std::vector<double>> means(nClasses, std::vector<double>(bands));
    for (int k = 0; k < nClasses; ++k)
        for (int b = 0; b < bands; ++b) means[k][b] = 200.0 + 90.0 * k * (b % 2 == 0 ? 1 : -1) + 15.0 * b;
    auto classOf = [rows, cols, nClasses](int r, int c) {
        return (nClasses == 2 || r < rows / 2 ? 0 : 2) + (c < cols / 2 ? 0 : 1);
    };
    return synthetic(rows, cols, means, classOf, noise, seed);
}

// Fraction of pixels whose map label, read through the pairing of each label
// with its majority class, agrees with the truth; 0 when two labels would
// share a class.
inline double agreement(const PottsWS& ws, const Synthetic& s) {
    std::map<int, std::map<int, int>> table;  // label -> class -> pixels
    for (int p = 0; p < s.rows * s.cols; ++p) ++table[mapLabel(ws, p / s.cols, p % s.cols)][s.truth[p]];
    int agree = 0;
    std::set<int> used;
    for (auto& entry : table) {
        std::pair<int, int> best{-1, 0};  // class, pixels
        for (auto [cls, n] : entry.second)
            if (n > best.second) best = {cls, n};
        if (!used.insert(best.first).second) return 0.0;
        agree += best.second;
    }
    return static_cast<double>(agree) / (s.rows * s.cols);
}

// Every pixel of the workspace carries label.
inline bool regionAll(const PottsWS& ws, int label) {
    for (int p = 0; p < ws.loadedCount; ++p)
        if (mapLabel(ws, ws.coords[p].x, ws.coords[p].y) != label) return false;
    return true;
}

}  // namespace enginetest
