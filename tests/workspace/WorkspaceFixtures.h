#pragma once
// Small workspaces for the workspace and engine tests: a rows x cols image whose
// pixels are selected by a mask (all of them by default), built into a PottsWS
// the way the driver builds its root (from a region of interest, then updateMi
// and updateSigma).

#include <functional>
#include <memory>
#include <vector>

#include "data/ImageFile.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "settings/RowMatrix.h"
#include "workspace/PottsWS.h"

namespace wstest {

constexpr int kPad = 1;
constexpr int kBorder = 1;   // frame label
constexpr int kOutside = 2;  // label of box cells outside the mask
constexpr int kRoot = 3;     // the root region's label

// Owns the ROI the workspace was built from (the workspace only observes it).
struct Built {
    std::unique_ptr<ROI<int, xy>> roi;
    std::unique_ptr<PottsWS> ws;
};

// value(r, c, b) gives band b of pixel (r, c); selected(r, c) the mask.
inline Built makeWS(int rows, int cols, int bands, const std::function<int(int, int, int)>& value,
                    const std::function<bool(int, int)>& selected = nullptr) {
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    int** mask = dhc::newRows<int>(rows, cols);
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
    dhc::deleteRows(mask, rows);
    return out;
}

// Paints label grid g (g[r][c]) into the workspace's map.
inline void paint(PottsWS& ws, const std::vector<std::vector<int>>& g) {
    for (size_t r = 0; r < g.size(); ++r)
        for (size_t c = 0; c < g[r].size(); ++c)
            ws.root->setPixel(static_cast<int>(r), static_cast<int>(c), g[r][c]);
}

inline int mapLabel(const PottsWS& ws, int r, int c) {
    return ws.root->map[r + ws.root->pad][c + ws.root->pad];
}

// Frees a children array made by a split.
inline void freeChildren(PottsWS** children, int n) {
    if (children == nullptr) return;
    for (int j = 0; j < n; ++j) delete children[j];
    delete[] children;
}

}  // namespace wstest
