#pragma once
// Helpers shared by the label-map tests: build planes from literals, read them back.
#include <vector>

#include "data/PottsMap.h"

using Grid = std::vector<std::vector<int>>;

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

inline void freeRows(int** rows, int n) {
    for (int r = 0; r < n; ++r) delete[] rows[r];
    delete[] rows;
}

// A map with its planes released at scope end (the test is the planes' owner).
struct OwnedMap {
    OwnedMap(Grid g, int pad, int border) {
        RowPointers p(g);
        m = new PottsMap(static_cast<int>(g.size()), g.empty() ? 0 : static_cast<int>(g[0].size()), pad,
                         border, p.get());
    }
    ~OwnedMap() {
        m->destroyMaps();
        delete m;
    }
    PottsMap* operator->() { return m; }
    PottsMap* m;
};
