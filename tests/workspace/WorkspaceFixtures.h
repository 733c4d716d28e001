#pragma once
// Small workspaces for the tests: every pixel of a rows x cols image selected,
// band values given per pixel, the label map painted from a label grid.

#include <functional>
#include <memory>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "workspace/PottsWS.h"

namespace wstest {

constexpr int kPad = 1;
constexpr int kBorder = 1;   // frame label
constexpr int kOutside = 2;  // label of box cells outside the ROI
constexpr int kRoot = 3;     // the root region's label

// Owns the ROI the workspace was built from (the workspace only observes it).
struct Built {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<PottsWS> ws;
};

// value(r, c, b) gives band b of pixel (r, c).
inline Built makeWS(int rows, int cols, int bands, const std::function<int(int, int, int)>& value) {
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    int** mask = new int*[rows];
    for (int r = 0; r < rows; ++r) mask[r] = new int[cols];
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            mask[r][c] = 1;
            for (int b = 0; b < bands; ++b) cube[b][r][c] = value(r, c, b);
        }
    Built out;
    out.roi.reset(buildRoi(rows, cols, bands, cube, mask, 1, false));
    out.ws.reset(new PottsWS(out.roi.get(), kPad, kBorder, kRoot, kOutside));
    ImageFile<int>::deleteCube(cube, bands, rows);
    for (int r = 0; r < rows; ++r) delete[] mask[r];
    delete[] mask;
    return out;
}

// Paints label grid g (g[r][c]) into the workspace's map.
inline void paint(PottsWS& ws, const std::vector<std::vector<int>>& g) {
    for (size_t r = 0; r < g.size(); ++r)
        for (size_t c = 0; c < g[r].size(); ++c)
            ws.root->setPixel(static_cast<int>(r), static_cast<int>(c), g[r][c]);
}

inline double** newMat(int n) {
    double** m = new double*[n];
    for (int i = 0; i < n; ++i) m[i] = new double[n]();
    return m;
}

inline void freeMat(double** m, int n) {
    for (int i = 0; i < n; ++i) delete[] m[i];
    delete[] m;
}

// Frees a children array made by PottsWS::split.
inline void freeChildren(PottsWS** children, int n) {
    for (int j = 0; j < n; ++j) delete children[j];
    delete[] children;
}

}  // namespace wstest
