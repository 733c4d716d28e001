#pragma once
// Helpers shared by the data tests: planes and regions of interest from literals and back.
#include <utility>
#include <vector>

#include "data/PottsMap.h"
#include "data/ROI.h"

using Grid = std::vector<std::vector<int>>;
using Cells = std::vector<std::pair<int, int>>;

inline Cells cellsOf(const xy* list, int n) {
    Cells v;
    for (int i = 0; i < n; ++i) v.emplace_back(list[i].x, list[i].y);
    return v;
}

// A ROI of the box-relative points in a height x width box at (minRow, minCol);
// value(b, r, c) gives band b of the point (r, c).
template <typename Value>
ROI<int, xy>* roiOf(const Cells& points, int bands, int minRow, int minCol, int height, int width,
                    Value value) {
    ROI<int, xy>* roi = new ROI<int, xy>(static_cast<int>(points.size()), bands);
    for (size_t k = 0; k < points.size(); ++k) {
        const auto [r, c] = points[k];
        roi->coords[k] = xy{static_cast<uint16_t>(r), static_cast<uint16_t>(c), 0, 0};
        for (int b = 0; b < bands; ++b) roi->data[k * bands + b] = value(b, r, c);
    }
    roi->minRow = minRow;
    roi->minCol = minCol;
    roi->height = height;
    roi->width = width;
    roi->imageRows = minRow + height;
    roi->imageCols = minCol + width;
    roi->order = 2;
    return roi;
}

// Row-pointer view of a grid, valid while the object lives.
struct RowPointers {
    explicit RowPointers(Grid& g) {
        for (auto& row : g) rows.push_back(row.data());
    }
    int** get() { return rows.data(); }
    std::vector<int*> rows;
};

inline Grid innerOf(int** plane, int rows, int cols, int pad) {
    Grid g(rows, std::vector<int>(cols));
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) g[r][c] = plane[r + pad][c + pad];
    return g;
}

inline Grid mapOf(const PottsMap& m) {
    return innerOf(m.map, m.rows, m.cols, m.pad);
}
inline Grid auxOf(const PottsMap& m) {
    return innerOf(m.auxMap, m.rows, m.cols, m.pad);
}

// The cells of an unpadded plane handed over by the code, which is then freed.
inline Grid takeRows(int** plane, int rows, int cols) {
    Grid g = innerOf(plane, rows, cols, 0);
    for (int r = 0; r < rows; ++r) delete[] plane[r];
    delete[] plane;
    return g;
}

// A map with its planes released at scope end (the test is the planes' owner).
struct OwnedMap {
    OwnedMap(Grid g, int pad, int border) {
        RowPointers p(g);
        m = new PottsMap(static_cast<int>(g.size()), static_cast<int>(g[0].size()), pad, border, p.get());
    }
    ~OwnedMap() {
        m->destroyMaps();
        delete m;
    }
    PottsMap* operator->() { return m; }
    PottsMap* m;
};
