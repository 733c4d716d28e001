#include "data/LabelMap.h"

#include <numeric>
#include <vector>

#include "data/PaddedMap.h"
#include "data/PlaneIO.h"
#include "settings/RowMatrix.h"

LabelMap::LabelMap(int nRows, int nCols, int nPad, int frame, int innerValue, bool eight) {
    init(nRows, nCols, nPad, frame, eight);
    if (innerValue != 0)
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) map[r + pad][c + pad] = innerValue;
}

LabelMap::~LabelMap() {
    freePlanes();
}

void LabelMap::freePlanes() {
    deletePaddedMap(map, rows, cols, pad);
    deletePaddedMap(fragmentedMap, rows, cols, pad);
    deletePaddedMap(contourMap, rows, cols, pad);
    map = fragmentedMap = contourMap = nullptr;
}

void LabelMap::init(int nRows, int nCols, int nPad, int frame, bool eight) {
    freePlanes();
    rows = nRows;
    cols = nCols;
    pad = nPad;
    frameValue = frame;
    eightConnected = eight;
    map = createPaddedMap(rows, cols, pad, frameValue, 0);
    fragmentCount = -1;
}

int** LabelMap::createPaddedMap(int nRows, int nCols, int nPad, int frame, int innerValue) {
    return PaddedMap::createPaddedMapFrame(nRows, nCols, nPad, frame, innerValue);
}

void LabelMap::deletePaddedMap(int** plane, int nRows, int nCols, int nPad) {
    PaddedMap::deletePaddedMapFrame(plane, nRows, nCols, nPad);
}

void LabelMap::import(int** source, int offset) {
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) map[r + pad][c + pad] = source[r + offset][c + offset];
}

namespace {

// Union-find over run identifiers.  Joining runs of equal labels yields the same
// partition as rewriting a class table on every join, in near-linear time.
class RunClasses {
  public:
    explicit RunClasses(size_t n) : parent_(n) { std::iota(parent_.begin(), parent_.end(), 0); }
    int find(int a) {
        while (parent_[a] != a) {
            parent_[a] = parent_[parent_[a]];
            a = parent_[a];
        }
        return a;
    }
    void join(int a, int b) {
        a = find(a);
        b = find(b);
        if (a == b) return;
        if (a < b)
            parent_[b] = a;
        else
            parent_[a] = b;
    }

  private:
    std::vector<int> parent_;
};

}  // namespace

int** LabelMap::fragmentMap(int** input, int nRows, int nCols, int nPad, int& count, bool eight) {
    // Work plane: a copy of the input (its frame is kept); inner cells become the
    // identifier of their horizontal run of equal labels, counted across rows.
    int** work = PaddedMap::createPaddedMapFrame(nRows, nCols, nPad, 0, 0);
    dhc::copyRowsInto(input, work, nRows + 2 * nPad, nCols + 2 * nPad);
    std::vector<int> runLabel(1, 0);  // entry 0 unused: identifiers start at 1
    int counter = 0;
    for (int r = nPad; r < nRows + nPad; ++r)
        for (int c = nPad; c < nCols + nPad; ++c) {
            if (counter == 0 || input[r][c] != input[r][c - 1]) {
                ++counter;
                runLabel.push_back(input[r][c]);
            }
            work[r][c] = counter;
        }

    // Join each cell's run with the already visited neighbouring runs of the same label.
    RunClasses classes(static_cast<size_t>(counter) + 1);
    const int dcs[4] = {-1, -1, 0, 1};
    const int drs[4] = {0, -1, -1, -1};
    for (int r = nPad; r < nRows + nPad; ++r)
        for (int c = nPad; c < nCols + nPad; ++c) {
            const int own = work[r][c];
            for (int i = 0; i < 4; ++i) {
                if (!eight && (i == 1 || i == 3)) continue;
                const int nr = r + drs[i], nc = c + dcs[i];
                // Frame cells are recognised by position, which agrees with the
                // frame value -1 used on every plane and needs no particular frame.
                if (nr < nPad || nc < nPad || nc >= nCols + nPad) continue;
                const int nb = work[nr][nc];
                if (nb == own) continue;  // same run
                if (runLabel[nb] == runLabel[own]) classes.join(own, nb);
            }
        }

    // Fragments numbered by their first run, i.e. by their first cell in raster order.
    std::vector<int> fragmentOf(static_cast<size_t>(counter) + 1, 0);
    std::vector<int> numberOfRoot(static_cast<size_t>(counter) + 1, 0);
    count = 0;
    for (int id = 1; id <= counter; ++id) {
        int& number = numberOfRoot[classes.find(id)];
        if (number == 0) number = ++count;
        fragmentOf[id] = number;
    }
    for (int r = nPad; r < nRows + nPad; ++r)
        for (int c = nPad; c < nCols + nPad; ++c) work[r][c] = fragmentOf[work[r][c]];
    return work;
}

int** LabelMap::getFragmentedMap() {
    if (fragmentedMap == nullptr)
        fragmentedMap = fragmentMap(map, rows, cols, pad, fragmentCount, eightConnected);
    return dhc::planeio::copyPlane(fragmentedMap, rows, cols, pad, -1, false);
}
