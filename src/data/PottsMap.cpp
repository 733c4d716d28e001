#include "data/PottsMap.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

#include "data/ImageFile.h"
#include "data/PaddedMap.h"
#include "data/PlaneIO.h"
#include "data/ROI.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"

PottsMap::PottsMap(int nRows, int nCols, int nPad, int border, int** init)
    : rows(nRows), cols(nCols), pad(nPad), borderLabel(border) {
    if (pad < 1) dhc::fatal(-1);
    map = PaddedMap::createPaddedMapFrame(rows, cols, pad, borderLabel, 0);
    auxMap = PaddedMap::createPaddedMapFrame(rows, cols, pad, borderLabel, 0);
    if (init != nullptr)
        for (int r = 0; r < rows; ++r)
            if (cols > 0) std::memcpy(map[r + pad] + pad, init[r], sizeof(int) * cols);
}

PottsMap::PottsMap(const PottsMap& source) {
    setBasicItems(source);
}

PottsMap::~PottsMap() = default;

void PottsMap::setBasicItems(const PottsMap& source) {
    map = source.map;
    auxMap = source.auxMap;
    rows = source.rows;
    cols = source.cols;
    pad = source.pad;
    borderLabel = source.borderLabel;
}

void PottsMap::destroyMaps() {
    PaddedMap::deletePaddedMapFrame(map, rows, cols, pad);
    PaddedMap::deletePaddedMapFrame(auxMap, rows, cols, pad);
    map = auxMap = nullptr;
}

void PottsMap::deleteMap() {
    delete[] map;
    map = nullptr;
}

void PottsMap::deleteAuxMap() {
    delete[] auxMap;
    auxMap = nullptr;
}

int* PottsMap::labels(int& n) const {
    // Presence table grown by powers of ten, as labels are usually small but a
    // few runs carry labels near the allocator's capacity.
    std::vector<uint8_t> present(11, 0);
    long long top = 10;
    for (int r = 0; r < rows; ++r) {
        const int* row = map[r + pad] + pad;
        for (int c = 0; c < cols; ++c) {
            const int l = row[c];
            if (l > top) {
                while (top < l) top *= 10;
                present.resize(static_cast<size_t>(top) + 1, 0);
            }
            present[l] = 1;
        }
    }
    n = 0;
    for (uint8_t p : present) n += p;
    int* out = new int[n];
    int k = 0;
    for (size_t l = 0; l < present.size(); ++l)
        if (present[l]) out[k++] = static_cast<int>(l);
    return out;
}

void PottsMap::compact(int keep) {
    int top = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) top = std::max(top, auxMap[r + pad][c + pad]);
    std::vector<int> table(static_cast<size_t>(std::max(top, keep)) + 1, 0);
    int next = 1;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const int l = auxMap[r + pad][c + pad];
            if (table[l] == 0) table[l] = next++;
        }
    if (keep >= 0) {
        for (size_t i = 0; i < table.size(); ++i)
            if (table[i] == keep) {
                table[i] = table[keep];
                break;
            }
        table[keep] = keep;
    }
    for (int r = 0; r < rows; ++r) {
        int* row = auxMap[r + pad] + pad;
        for (int c = 0; c < cols; ++c) row[c] = table[row[c]];
    }
}

int PottsMap::fix(int first, int keep) {
    if (first == keep) dhc::fatal(-4);
    int top = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) top = std::max(top, map[r + pad][c + pad]);
    std::vector<int> table(static_cast<size_t>(std::max(top, keep)) + 1, -1);
    if (keep >= 0) table[keep] = 0;
    int next = first, renumbered = 0;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const int l = map[r + pad][c + pad];
            if (l != keep && table[l] == -1) {
                table[l] = next++;
                ++renumbered;
            }
        }
    // Exchange passes over the entries >= 1 leave exactly those entries sorted in
    // place, so the new numbers increase with the old labels; sort them directly.
    std::vector<size_t> at;
    std::vector<int> values;
    for (size_t i = 0; i < table.size(); ++i)
        if (table[i] >= 1) {
            at.push_back(i);
            values.push_back(table[i]);
        }
    std::sort(values.begin(), values.end());
    for (size_t k = 0; k < at.size(); ++k) table[at[k]] = values[k];
    for (int r = 0; r < rows; ++r) {
        int* row = map[r + pad] + pad;
        for (int c = 0; c < cols; ++c) row[c] = table[row[c]];
    }
    return renumbered;
}

void PottsMap::refresh(run* runs, int n, int label, bool onAux) {
    int** plane = onAux ? auxMap : map;
    for (int k = 0; k < n; ++k) {
        int* cell = plane[runs[k].row + pad] + runs[k].col + pad;
        std::fill(cell, cell + runs[k].len, label);
    }
}

void PottsMap::paint32All(int label) {
    for (int r = 0; r < rows; ++r) std::fill(map[r + pad] + pad, map[r + pad] + pad + cols, label);
}

void PottsMap::copyToAuxMap() {
    const int totalRows = rows + 2 * pad, totalCols = cols + 2 * pad;
    for (int r = 0; r < totalRows; ++r) std::memcpy(auxMap[r], map[r], sizeof(int) * totalCols);
}

void PottsMap::copyToAuxMapRev() {
    // Transposed on purpose; only the square part common to both shapes is defined.
    const int totalRows = rows + 2 * pad, totalCols = cols + 2 * pad;
    const int side = std::min(totalRows, totalCols);
    for (int i = 0; i < side; ++i)
        for (int j = 0; j < side; ++j) auxMap[i][j] = map[j][i];
}

int** PottsMap::outputAuxMap() const {
    return dhc::planeio::copyPlane(auxMap, rows, cols, pad, 0, false);
}

int** PottsMap::outputMap() const {
    return dhc::planeio::copyPlane(map, rows, cols, pad, 0, false);
}

int** PottsMap::outputMask(int label, bool onAux) const {
    int** plane = onAux ? auxMap : map;
    int** out = dhc::newRows<int>(rows, cols);
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) out[r][c] = plane[r + pad][c + pad] == label ? 1 : 0;
    return out;
}

void PottsMap::readMap(int** m) {
    for (int r = 0; r < rows; ++r)
        if (cols > 0) std::memcpy(map[r + pad] + pad, m[r], sizeof(int) * cols);
}

void PottsMap::readMapRoi(ROI<int, xy>* roi) {
    // The value of point k is its first band (the ROI is a one-band label ROI).
    for (int k = 0; k < roi->count; ++k) {
        const xy p = roi->coords[k];
        map[p.x + pad][p.y + pad] = roi->data[static_cast<size_t>(k) * roi->bands];
    }
}

void PottsMap::readMap_raw(char* fileName) {
    int** plane = ImageFile<int>::readRawInt32(fileName, rows, cols, 0, 0);
    readMap(plane);
    PaddedMap::deletePaddedMapFrame(plane, rows, cols, 0);
}

void PottsMap::readMap_hraw(std::string fileName) {
    const std::string name = fileName.substr(0, 200);
    const dhc::Cube<int> cube = ImageFile<int>::readHRaw(name);
    if (cube.planeCount() > 0) {
        // Callers pass files of the map's size; a smaller file only fills its overlap.
        const int nr = std::min(rows, cube.rowCount()), nc = std::min(cols, cube.colCount());
        for (int r = 0; r < nr; ++r)
            for (int c = 0; c < nc; ++c) map[r + pad][c + pad] = cube[0][r][c];
    }
}

void PottsMap::writeAuxMap_raw(char* fileName) const {
    ImageFile<int>::writeRawInt32(fileName, auxMap, rows, cols, pad);
}

void PottsMap::writeAuxMap_dat(char* fileName) const {
    std::ofstream out(fileName, std::ios::trunc);
    if (!out) return;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            if (c > 0) out << ' ';
            out << auxMap[r + pad][c + pad];
        }
        out << '\n';
    }
}

void PottsMap::labelWithGT(ROI<int, xy>* gt, int ignore) {
    const int count = gt->count;
    std::vector<int> values(static_cast<size_t>(count));
    for (int k = 0; k < count; ++k) values[k] = gt->data[static_cast<size_t>(k) * gt->bands];

    int nG = 0;
    int* gLabels = labelsRoi(values.data(), count, nG);
    std::vector<int> gList(gLabels, gLabels + nG);
    delete[] gLabels;
    gList.erase(std::remove(gList.begin(), gList.end(), ignore), gList.end());
    int nM = 0;
    int* mLabels = labels(nM);
    std::vector<int> mList(mLabels, mLabels + nM);
    delete[] mLabels;
    nG = static_cast<int>(gList.size());

    auto mapLabelAt = [this](xy p) { return map[p.x + pad][p.y + pad]; };
    auto indexIn = [](const std::vector<int>& list, int l) {
        return static_cast<int>(std::lower_bound(list.begin(), list.end(), l) - list.begin());
    };

    // Contingency table, rows = map labels, columns = ground-truth labels.
    std::vector<long long> table(static_cast<size_t>(nM) * nG, 0);
    for (int k = 0; k < count; ++k) {
        if (values[k] == ignore) continue;
        const int m = indexIn(mList, mapLabelAt(gt->coords[k]));
        const int g = indexIn(gList, values[k]);
        ++table[static_cast<size_t>(m) * nG + g];
    }

    // Greedy pairing.  Rows and columns are deleted by flags; remaining ones keep
    // their relative order, so "earliest" is the lowest surviving index.
    std::vector<long long> rowSum(nM, 0);
    for (int m = 0; m < nM; ++m)
        for (int g = 0; g < nG; ++g) rowSum[m] += table[static_cast<size_t>(m) * nG + g];
    std::vector<char> rowLeft(nM, 1), colLeft(nG, 1);
    std::vector<int> pairOf(nM, 0);
    std::vector<char> paired(nM, 0);
    int colsLeft = nG;
    for (int step = 0; step < nM && colsLeft > 0; ++step) {
        int best = -1;
        for (int m = 0; m < nM; ++m)
            if (rowLeft[m] && (best < 0 || rowSum[m] > rowSum[best])) best = m;
        int bestCol = -1;
        for (int g = 0; g < nG; ++g)
            if (colLeft[g] && (bestCol < 0 || table[static_cast<size_t>(best) * nG + g] >
                                                  table[static_cast<size_t>(best) * nG + bestCol]))
                bestCol = g;
        paired[best] = 1;
        pairOf[best] = gList[bestCol];
        rowLeft[best] = 0;
        colLeft[bestCol] = 0;
        --colsLeft;
        for (int m = 0; m < nM; ++m)
            if (rowLeft[m]) rowSum[m] -= table[static_cast<size_t>(m) * nG + bestCol];
    }

    // Relabel every point; surplus (unpaired) map labels receive `ignore`.
    for (int k = 0; k < count; ++k) {
        const xy p = gt->coords[k];
        const int m = indexIn(mList, mapLabelAt(p));
        auxMap[p.x + pad][p.y + pad] = paired[m] ? pairOf[m] : ignore;
    }
}

void PottsMap::labelWithGT(char* gtFile, int ignore) {
    int bands = 0, fileRows = 0, fileCols = 0;
    const dhc::Cube<int> cube = ImageFile<int>::readHRaw(gtFile, bands, fileRows, fileCols);
    const int nr = bands > 0 ? std::min(rows, fileRows) : 0;
    const int nc = bands > 0 ? std::min(cols, fileCols) : 0;
    std::unique_ptr<ROI<int, xy>> gt(fullFrameRoi(nr, nc));
    for (int k = 0; k < gt->count; ++k) gt->data[k] = cube[0][gt->coords[k].x][gt->coords[k].y];
    gt->imageRows = fileRows;
    gt->imageCols = fileCols;
    labelWithGT(gt.get(), ignore);
}
