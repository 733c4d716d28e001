#pragma once
// Synthetic workspaces for the engine tests: a rows x cols image whose pixels
// are selected by a mask (all of them by default), built into a PottsWS the way
// the driver builds its root (from a region of interest, then updateMi and
// updateSigma).

#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "workspace/PottsWS.h"

namespace enginetest {

constexpr int kPad = 1;
constexpr int kBorder = 1;   // frame label
constexpr int kOutside = 2;  // box cells outside the mask
constexpr int kRoot = 3;     // the workspace's own label

// Owns the ROI the workspace was built from (the workspace only observes it).
struct Built {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<PottsWS> ws;
};

// value(r, c, b) gives band b of pixel (r, c); selected(r, c) the mask.
inline Built makeWS(int rows, int cols, int bands, const std::function<int(int, int, int)>& value,
                    const std::function<bool(int, int)>& selected = nullptr) {
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    int** mask = new int*[rows];
    for (int r = 0; r < rows; ++r) mask[r] = new int[cols];
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            mask[r][c] = (!selected || selected(r, c)) ? 1 : 0;
            for (int b = 0; b < bands; ++b) cube[b][r][c] = value(r, c, b);
        }
    Built out;
    out.roi.reset(buildRoi(rows, cols, bands, cube, mask, 1, false));
    out.ws.reset(new PottsWS(out.roi.get(), kPad, kBorder, kRoot, kOutside));
    out.ws->updateMi();
    out.ws->updateSigma();
    ImageFile<int>::deleteCube(cube, bands, rows);
    for (int r = 0; r < rows; ++r) delete[] mask[r];
    delete[] mask;
    return out;
}

// An image of classes (truth[r * cols + c]) whose band b has mean means[class][b]
// plus Gaussian noise of the given standard deviation, from a fixed seed.
struct Synthetic {
    int rows = 0;
    int cols = 0;
    int bands = 0;
    std::vector<int> truth;
    std::vector<int> values;  // [(r * cols + c) * bands + b]
    int classAt(int r, int c) const { return truth[static_cast<size_t>(r) * cols + c]; }
    int value(int r, int c, int b) const { return values[(static_cast<size_t>(r) * cols + c) * bands + b]; }
    Built build() const {
        return makeWS(rows, cols, bands, [this](int r, int c, int b) { return value(r, c, b); });
    }
};

inline Synthetic synthetic(int rows, int cols, const std::vector<std::vector<double>>& means,
                           const std::function<int(int, int)>& classOf, double noise, unsigned seed) {
    Synthetic s;
    s.rows = rows;
    s.cols = cols;
    s.bands = static_cast<int>(means[0].size());
    std::mt19937 gen(seed);
    std::normal_distribution<double> normal(0.0, noise);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const int k = classOf(r, c);
            s.truth.push_back(k);
            for (int b = 0; b < s.bands; ++b)
                s.values.push_back(static_cast<int>(std::lround(means[k][b] + normal(gen))));
        }
    return s;
}

// Two halves (left / right) or four quadrants with well separated means.
inline Synthetic rectangles(int rows, int cols, int nClasses, int bands, double noise, unsigned seed) {
    std::vector<std::vector<double>> means(nClasses, std::vector<double>(bands));
    for (int k = 0; k < nClasses; ++k)
        for (int b = 0; b < bands; ++b) means[k][b] = 200.0 + 90.0 * k * (b % 2 == 0 ? 1 : -1) + 15.0 * b;
    auto classOf = [rows, cols, nClasses](int r, int c) {
        if (nClasses == 2) return c < cols / 2 ? 0 : 1;
        return (r < rows / 2 ? 0 : 2) + (c < cols / 2 ? 0 : 1);
    };
    return synthetic(rows, cols, means, classOf, noise, seed);
}

inline int mapLabel(const PottsWS& ws, int r, int c) {
    return ws.root->map[r + ws.root->pad][c + ws.root->pad];
}

// Fraction of pixels whose map label, read through the best one-to-one pairing
// of map labels with truth classes (each label its majority class), agrees with
// the truth.  0 when two labels would share a class.
inline double agreement(const PottsWS& ws, const Synthetic& s) {
    std::map<int, std::map<int, int>> table;
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.cols; ++c) ++table[mapLabel(ws, r, c)][s.classAt(r, c)];
    int agree = 0;
    std::set<int> used;
    for (auto& [label, row] : table) {
        int bestClass = -1;
        int bestCount = -1;
        for (auto& [k, count] : row)
            if (count > bestCount) {
                bestCount = count;
                bestClass = k;
            }
        if (!used.insert(bestClass).second) return 0.0;
        agree += bestCount;
    }
    return static_cast<double>(agree) / (static_cast<double>(s.rows) * s.cols);
}

// Rows x cols zero-initialised new[] matrix and its release.
inline double** newMatrix(int rows, int cols) {
    double** m = new double*[rows];
    for (int r = 0; r < rows; ++r) m[r] = new double[cols]();
    return m;
}

template <typename T>
inline void freeMatrix(T** m, int rows) {
    if (m == nullptr) return;
    for (int r = 0; r < rows; ++r) delete[] m[r];
    delete[] m;
}

inline void freeChildren(PottsWS** children, int n) {
    if (children == nullptr) return;
    for (int j = 0; j < n; ++j) delete children[j];
    delete[] children;
}

}  // namespace enginetest
