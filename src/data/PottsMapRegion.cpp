#include "data/PottsMapRegion.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "settings/Fatal.h"

namespace {

template <typename T>
T* copyArray(const T* source, int n) {
    if (source == nullptr || n <= 0) return nullptr;
    T* out = new T[n];
    std::copy(source, source + n, out);
    return out;
}

xy makeXY(int r, int c) {
    xy p;
    p.x = static_cast<uint16_t>(r);
    p.y = static_cast<uint16_t>(c);
    return p;
}

// Presence table of non-negative labels that grows as larger labels appear.
class LabelSet {
  public:
    void add(int l) {
        // Labels index the table: a negative one (a ground truth read as
        // labels) would be written before it.
        if (l < 0) dhc::fatal(-1, "negative label " + std::to_string(l) + " in a region's label map");
        if (static_cast<size_t>(l) >= present_.size())
            present_.resize(std::max(static_cast<size_t>(l) + 1, present_.size() * 2), 0);
        present_[l] = 1;
    }
    int* toArray(int& n) const {
        n = 0;
        for (uint8_t p : present_) n += p;
        int* out = new int[n];
        int k = 0;
        for (size_t l = 0; l < present_.size(); ++l)
            if (present_[l]) out[k++] = static_cast<int>(l);
        return out;
    }

  private:
    std::vector<uint8_t> present_ = std::vector<uint8_t>(16, 0);
};

// Dense index of each label of an ascending list; -1 for labels not listed.
std::vector<int> indexTable(const int* labels, int n) {
    const int top = n > 0 ? labels[n - 1] : -1;
    std::vector<int> index(static_cast<size_t>(top + 1), -1);
    for (int i = 0; i < n; ++i) index[labels[i]] = i;
    return index;
}

}  // namespace

PottsMapRegion::PottsMapRegion() {
    empty();
}

PottsMapRegion::PottsMapRegion(int nRows, int nCols, int nPad, int frameLabel, int regionLabel, int** init)
    : PottsMap(nRows, nCols, nPad, frameLabel, init), label(regionLabel) {
    buildFullImageRegion();
    fragmented = false;
    fullImage = true;
}

PottsMapRegion::PottsMapRegion(const PottsMapRegion& source) : PottsMap(source) {
    copyDescription(source);
}

PottsMapRegion::PottsMapRegion(const PottsMapRegion& source, int regionLabel) : PottsMap(source) {
    label = regionLabel;
    reset();
}

PottsMapRegion::~PottsMapRegion() {
    freeLists();
}

void PottsMapRegion::freeLists() {
    delete[] runs;
    delete[] contour;
    delete[] border;
    runs = nullptr;
    contour = nullptr;
    border = nullptr;
    runCount = contourCount = borderCount = 0;
}

void PottsMapRegion::copyDescription(const PottsMapRegion& s) {
    label = s.label;
    area = s.area;
    minCol = s.minCol;
    maxCol = s.maxCol;
    minRow = s.minRow;
    maxRow = s.maxRow;
    runCount = s.runCount;
    runs = copyArray(s.runs, s.runCount);
    contourCount = s.contourCount;
    contour = copyArray(s.contour, s.contourCount);
    borderCount = s.borderCount;
    border = copyArray(s.border, s.borderCount);
    fragmented = s.fragmented;
    fullImage = s.fullImage;
    resetScan();
    contourCursor = borderCursor = 0;
}

void PottsMapRegion::empty() {
    area = 0;
    minCol = maxCol = minRow = maxRow = 0;
    runs = nullptr;
    runCount = 0;
    contour = nullptr;
    contourCount = 0;
    border = nullptr;
    borderCount = 0;
    scanRun = scanOffset = contourCursor = borderCursor = 0;
    fragmented = fullImage = false;
}

void PottsMapRegion::reset() {
    freeLists();
    empty();
}

void PottsMapRegion::buildFullImageRegion() {
    freeLists();
    minCol = 0;
    maxCol = cols - 1;
    minRow = 0;
    maxRow = rows - 1;
    area = rows * cols;
    runCount = rows;
    runs = rows > 0 ? new run[rows] : nullptr;
    for (int r = 0; r < rows; ++r) {
        runs[r].row = static_cast<uint16_t>(r);
        runs[r].col = 0;
        runs[r].len = static_cast<uint16_t>(cols);
    }
    borderCount = std::max(0, 2 * (cols - 1) + 2 * (rows - 1));
    border = borderCount > 0 ? new xy[borderCount] : nullptr;
    int k = 0;
    for (int c = 0; c <= cols - 2; ++c) border[k++] = makeXY(0, c);
    for (int r = 0; r <= rows - 2; ++r) border[k++] = makeXY(r, cols - 1);
    for (int c = 1; c <= cols - 1; ++c) border[k++] = makeXY(rows - 1, c);
    for (int r = 1; r <= rows - 1; ++r) border[k++] = makeXY(r, 0);
    resetScan();
    contourCursor = borderCursor = 0;
}

void PottsMapRegion::updateRuns() {
    delete[] runs;
    runs = nullptr;
    runCount = 0;
    for (int pass = 0; pass < 2; ++pass) {
        int k = 0;
        for (int r = minRow; r <= maxRow; ++r) {
            const int* row = map[r + pad] + pad;
            int c = minCol;
            while (c <= maxCol) {
                if (row[c] != label) {
                    ++c;
                    continue;
                }
                const int start = c;
                while (c + 1 <= maxCol && row[c + 1] == label) ++c;
                if (pass == 1) {
                    runs[k].row = static_cast<uint16_t>(r);
                    runs[k].col = static_cast<uint16_t>(start);
                    runs[k].len = static_cast<uint16_t>(c - start + 1);
                }
                ++k;
                ++c;
            }
        }
        if (pass == 0) {
            runCount = k;
            if (k == 0) break;
            runs = new run[k];
        }
    }
    resetScan();
}

void PottsMapRegion::updateArea() {
    int a = 0;
    for (int k = 0; k < runCount; ++k) a += runs[k].len;
    area = a;
}

void PottsMapRegion::updateMargins(bool fromLists) {
    if (!fromLists) {
        if (runCount == 0) return;
        minRow = runs[0].row;
        maxRow = runs[runCount - 1].row;
        minCol = runs[0].col;
        maxCol = runs[0].col + runs[0].len - 1;
        for (int k = 1; k < runCount; ++k) {
            minCol = std::min(minCol, static_cast<int>(runs[k].col));
            maxCol = std::max(maxCol, runs[k].col + runs[k].len - 1);
        }
        return;
    }
    // Start from the whole image box and narrow it to the listed coordinates.
    if (contourCount + borderCount == 0) {
        minRow = 0;
        maxRow = rows - 1;
        minCol = 0;
        maxCol = cols - 1;
        return;
    }
    int r0 = rows - 1, r1 = 0, c0 = cols - 1, c1 = 0;
    auto narrow = [&](const xy* list, int n) {
        for (int i = 0; i < n; ++i) {
            r0 = std::min(r0, static_cast<int>(list[i].x));
            r1 = std::max(r1, static_cast<int>(list[i].x));
            c0 = std::min(c0, static_cast<int>(list[i].y));
            c1 = std::max(c1, static_cast<int>(list[i].y));
        }
    };
    narrow(contour, contourCount);
    narrow(border, borderCount);
    minRow = r0;
    maxRow = r1;
    minCol = c0;
    maxCol = c1;
}

void PottsMapRegion::resetScan() {
    scanRun = scanOffset = 0;
}

bool PottsMapRegion::nextElement() {
    if (scanRun >= runCount) return false;
    if (scanOffset + 1 < runs[scanRun].len) {
        ++scanOffset;
        return true;
    }
    if (scanRun + 1 < runCount) {
        ++scanRun;
        scanOffset = 0;
        return true;
    }
    return false;
}

xy PottsMapRegion::getLocation() const {
    return makeXY(runs[scanRun].row, runs[scanRun].col + scanOffset);
}

bool PottsMapRegion::nextContourElement() {
    if (contourCursor + 1 >= contourCount) return false;
    ++contourCursor;
    return true;
}

bool PottsMapRegion::nextBorderElement() {
    if (borderCursor + 1 >= borderCount) return false;
    ++borderCursor;
    return true;
}

int PottsMapRegion::uc_contour(int l) const {
    const xy p = contour[contourCursor];
    return uc(p.x, p.y, l, true);
}

void PottsMapRegion::mapRefresh(int l, bool onAux) {
    refresh(runs, runCount, l, onAux);
}

void PottsMapRegion::mapRestore() {
    for (int k = 0; k < runCount; ++k) {
        const int r = runs[k].row + pad, c = runs[k].col + pad;
        std::memcpy(map[r] + c, auxMap[r] + c, sizeof(int) * runs[k].len);
    }
}

int* PottsMapRegion::labels(int& n) const {
    LabelSet set;
    for (int k = 0; k < runCount; ++k) {
        const int* cell = map[runs[k].row + pad] + runs[k].col + pad;
        int last = -1;
        for (int i = 0; i < runs[k].len; ++i)
            if (i == 0 || cell[i] != last) {
                last = cell[i];
                set.add(last);
            }
    }
    return set.toArray(n);
}

run** PottsMapRegion::retrieveSubRuns(int& n, int*& subLabels, int*& counts) const {
    subLabels = labels(n);
    counts = new int[n]();
    return subRunsOf(subLabels, n, counts);
}

run** PottsMapRegion::subRunsOf(const int* subLabels, int n, int* counts) const {
    const std::vector<int> index = indexTable(subLabels, n);
    // First pass counts the sub-runs of each label, the second writes them.
    for (int k = 0; k < runCount; ++k) {
        const int* cell = map[runs[k].row + pad] + runs[k].col + pad;
        for (int i = 0; i < runs[k].len;) {
            const int v = cell[i];
            while (i < runs[k].len && cell[i] == v) ++i;
            ++counts[index[v]];
        }
    }
    run** lists = new run*[n];
    for (int j = 0; j < n; ++j) lists[j] = new run[counts[j]];
    std::vector<int> fill(static_cast<size_t>(n), 0);
    for (int k = 0; k < runCount; ++k) {
        const int* cell = map[runs[k].row + pad] + runs[k].col + pad;
        for (int i = 0; i < runs[k].len;) {
            const int v = cell[i], start = i;
            while (i < runs[k].len && cell[i] == v) ++i;
            const int j = index[v];
            run& out = lists[j][fill[j]++];
            out.row = runs[k].row;
            out.col = static_cast<uint16_t>(runs[k].col + start);
            out.len = static_cast<uint16_t>(i - start);
        }
    }
    return lists;
}

bool PottsMapRegion::checkRetrieveSubRuns(int n, const int* subLabels, const int* counts,
                                          run** subRuns) const {
    // Every sub-run must carry its label, and painting them all must cover the
    // region's runs exactly once.
    long long total = 0;
    std::vector<std::vector<char>> covered(static_cast<size_t>(runCount));
    for (int k = 0; k < runCount; ++k) covered[k].assign(runs[k].len, 0);
    for (int j = 0; j < n; ++j) {
        for (int i = 0; i < counts[j]; ++i) {
            const run& s = subRuns[j][i];
            const int* cell = map[s.row + pad] + s.col + pad;
            for (int t = 0; t < s.len; ++t)
                if (cell[t] != subLabels[j]) return false;
            total += s.len;
            // Find the region run that holds this sub-run (runs are in raster order).
            const run key{s.row, s.col, 0};
            const run* it = std::upper_bound(runs, runs + runCount, key, [](const run& a, const run& b) {
                return a.row != b.row ? a.row < b.row : a.col < b.col;
            });
            if (it == runs) return false;
            --it;
            if (it->row != s.row || s.col + s.len > it->col + it->len) return false;
            std::vector<char>& cov = covered[it - runs];
            for (int t = 0; t < s.len; ++t) {
                char& c = cov[s.col - it->col + t];
                if (c) return false;
                c = 1;
            }
        }
    }
    long long regionArea = 0;
    for (int k = 0; k < runCount; ++k) regionArea += runs[k].len;
    return total == regionArea;
}

int* PottsMapRegion::borderLabels(int& n) const {
    LabelSet set;
    for (int i = 0; i < borderCount; ++i) set.add(map[border[i].x + pad][border[i].y + pad]);
    return set.toArray(n);
}

xy** PottsMapRegion::retrieveSubBorders(int& n, int*& subLabels, int*& counts) const {
    subLabels = borderLabels(n);
    const std::vector<int> index = indexTable(subLabels, n);
    counts = new int[n]();
    for (int i = 0; i < borderCount; ++i) ++counts[index[map[border[i].x + pad][border[i].y + pad]]];
    xy** lists = new xy*[n];
    for (int j = 0; j < n; ++j) lists[j] = new xy[counts[j]];
    std::vector<int> fill(static_cast<size_t>(n), 0);
    for (int i = 0; i < borderCount; ++i) {
        const int j = index[map[border[i].x + pad][border[i].y + pad]];
        lists[j][fill[j]++] = border[i];
    }
    return lists;
}

PottsMapRegion* PottsMapRegion::split(int& n) {
    const std::unique_ptr<int[]> regionLabelCells(labels(n));
    const int* regionLabels = regionLabelCells.get();
    copyToAuxMap();
    std::vector<int> runCounts(static_cast<size_t>(n), 0);
    // The lists of the parts go to the parts; the arrays that held them, and
    // lists no part takes, are released here.
    const std::unique_ptr<run*[]> subRuns(subRunsOf(regionLabels, n, runCounts.data()));

    PottsMapRegion* parts = n > 0 ? new PottsMapRegion[n] : nullptr;
    for (int j = 0; j < n; ++j) {
        parts[j].setBasicItems(*this);
        parts[j].label = regionLabels[j];
        std::unique_ptr<run[]> list(subRuns[j]);
        parts[j].runs = runCounts[j] > 0 ? list.release() : nullptr;
        parts[j].runCount = runCounts[j];
    }

    const std::vector<int> index = indexTable(regionLabels, n);
    int nBorders = 0;
    int* labelCells = nullptr;
    int* countCells = nullptr;
    const std::unique_ptr<xy*[]> subBorders(retrieveSubBorders(nBorders, labelCells, countCells));
    const std::unique_ptr<int[]> borderLabelList(labelCells), borderCounts(countCells);
    for (int i = 0; i < nBorders; ++i) {
        std::unique_ptr<xy[]> list(subBorders[i]);
        const int l = borderLabelList[i];
        const int j = l < static_cast<int>(index.size()) ? index[l] : -1;
        if (j < 0 || borderCounts[i] == 0) continue;  // a border cell outside the region's labels
        parts[j].border = list.release();
        parts[j].borderCount = borderCounts[i];
    }

    // Restoring the map from the aux map here would be a no-op: the aux map is an
    // exact copy of the map taken above and nothing has written either since.

    // Contours: region pixels with fewer than 8 agreeing neighbours (frame counts
    // as agreeing), in scan order per label.
    std::vector<std::vector<xy>> contours(static_cast<size_t>(n));
    for (int k = 0; k < runCount; ++k) {
        const int r = runs[k].row;
        for (int c = runs[k].col; c < runs[k].col + runs[k].len; ++c) {
            const int v = map[r + pad][c + pad];
            if (uc(r, c, v, false) < 8) contours[index[v]].push_back(makeXY(r, c));
        }
    }
    for (int j = 0; j < n; ++j) {
        parts[j].contourCount = static_cast<int>(contours[j].size());
        parts[j].contour = copyArray(contours[j].data(), parts[j].contourCount);
        parts[j].updateMargins(false);
        parts[j].updateArea();
        parts[j].resetScan();
    }
    return parts;
}

int PottsMapRegion::fragmentOnAuxMap(int*& newLabels) {
    updateMargins(false);
    newLabels = nullptr;
    if (runCount == 0) {
        copyToAuxMap();
        return 0;
    }
    // One pass over the planes: the aux map becomes a copy of the map except in the
    // bounding box enlarged by one, which gets a value above every run index; the
    // largest label of the map (L) is found on the way.
    const int fillValue = runCount;
    const int totalRows = rows + 2 * pad, totalCols = cols + 2 * pad;
    const int boxTop = minRow - 1 + pad, boxBottom = maxRow + 1 + pad;
    const int boxLeft = minCol - 1 + pad, boxRight = maxCol + 1 + pad;
    int largest = -1;
    for (int r = 0; r < totalRows; ++r) {
        const int* from = map[r];
        int* to = auxMap[r];
        if (r < boxTop || r > boxBottom) {
            std::memcpy(to, from, sizeof(int) * totalCols);
        } else {
            std::memcpy(to, from, sizeof(int) * boxLeft);
            std::fill(to + boxLeft, to + boxRight + 1, fillValue);
            std::memcpy(to + boxRight + 1, from + boxRight + 1, sizeof(int) * (totalCols - boxRight - 1));
        }
        if (r >= pad && r < rows + pad) {
            int m = largest;
            for (int c = pad; c < cols + pad; ++c) m = std::max(m, from[c]);
            largest = m;
        }
    }
    for (int k = 0; k < runCount; ++k) {
        int* cell = auxMap[runs[k].row + pad] + runs[k].col + pad;
        std::fill(cell, cell + runs[k].len, k);
    }

    // Runs of a large region are scattered over planes far larger than the caches:
    // the rows a run needs are requested a few runs ahead.
    constexpr int kAhead = 4;
    auto prefetchRun = [this](const run& next) {
        const int r = next.row + pad, c = next.col + pad;
        __builtin_prefetch(auxMap[r - 1] + c);
        __builtin_prefetch(auxMap[r] + c);
        __builtin_prefetch(auxMap[r + 1] + c);
        __builtin_prefetch(auxMap[r - 1] + c + next.len);
        __builtin_prefetch(auxMap[r] + c + next.len);
        __builtin_prefetch(auxMap[r + 1] + c + next.len);
    };

    // Alternate forward and backward min-propagation passes until nothing changes.
    // A cell takes the minimum of its 3 x 3 neighbourhood; cells written earlier in
    // the same pass are seen at once.  A pass without change has checked every cell
    // against its settled neighbourhood, so the values are final: stopping there
    // gives what running out the round would.  While one run is visited only its
    // own row changes, so the column minima of the rows above and below are taken
    // once per cell and slid along the run.
    // One run visited in direction D (+1: left to right, -1: right to left);
    // returns the number of cells lowered.
    auto sweepRun = [this](const run& rn, auto direction) {
        constexpr int D = decltype(direction)::value;
        const int r = rn.row + pad, first = rn.col + pad + (D > 0 ? 0 : rn.len - 1);
        const int* up = auxMap[r - 1];
        int* mid = auxMap[r];
        const int* dn = auxMap[r + 1];
        int vPrev = std::min(up[first - D], dn[first - D]);
        int vCur = std::min(up[first], dn[first]);
        int behind = mid[first - D];
        long long lowered = 0;
        for (int i = 0, c = first; i < rn.len; ++i, c += D) {
            const int vNext = std::min(up[c + D], dn[c + D]);
            const int m = std::min(std::min(std::min(vPrev, vCur), std::min(vNext, behind)), mid[c + D]);
            int cur = mid[c];
            if (m < cur) {
                mid[c] = cur = m;
                ++lowered;
            }
            behind = cur;
            vPrev = vCur;
            vCur = vNext;
        }
        return lowered;
    };
    for (;;) {
        long long changes = 0;
        for (int k = 0; k < runCount; ++k) {
            if (k + kAhead < runCount) prefetchRun(runs[k + kAhead]);
            changes += sweepRun(runs[k], std::integral_constant<int, 1>());
        }
        if (changes == 0) break;
        changes = 0;
        for (int k = runCount - 1; k >= 0; --k) {
            if (k - kAhead >= 0) prefetchRun(runs[k - kAhead]);
            changes += sweepRun(runs[k], std::integral_constant<int, -1>());
        }
        if (changes == 0) break;
    }

    // New labels L + 1, L + 2, ... in order of first appearance in scan order.
    std::vector<int> relabel(static_cast<size_t>(runCount), -1);
    int pieces = 0;
    for (int k = 0; k < runCount; ++k) {
        int* cell = auxMap[runs[k].row + pad] + runs[k].col + pad;
        for (int i = 0; i < runs[k].len; ++i) {
            int& to = relabel[cell[i]];
            if (to < 0) to = largest + 1 + pieces++;
            cell[i] = to;
        }
    }
    newLabels = new int[pieces];
    for (int i = 0; i < pieces; ++i) newLabels[i] = largest + 1 + i;
    return pieces;
}

int PottsMapRegion::fragmentOnAuxMap() {
    int* newLabels = nullptr;
    const int pieces = fragmentOnAuxMap(newLabels);
    const std::unique_ptr<int[]> released(newLabels);  // only the count is wanted
    return pieces;
}

PottsMapRegion* PottsMapRegion::fragment(int& n, bool force) {
    n = fragmentOnAuxMap();
    if (n < 2 && !force) return nullptr;
    mapRestore();
    fragmented = true;
    return split(n);
}

void PottsMapRegion::setInnerLabels(int* table) {
    for (int k = 0; k < runCount; ++k) {
        int* cell = map[runs[k].row + pad] + runs[k].col + pad;
        for (int i = 0; i < runs[k].len; ++i) cell[i] = table[cell[i]];
    }
}

int PottsMapRegion::findNeighboringLabels(int ignore, int*& neighbours, int*& contacts) const {
    std::map<int, int> found;
    for (int k = 0; k < runCount; ++k) {
        const int r = runs[k].row + pad;
        for (int c = runs[k].col + pad; c < runs[k].col + pad + runs[k].len; ++c)
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    if (dr == 0 && dc == 0) continue;
                    const int v = map[r + dr][c + dc];
                    if (v != label && v != ignore && v != borderLabel) ++found[v];
                }
    }
    const int n = static_cast<int>(found.size());
    neighbours = new int[n];
    contacts = new int[n];
    int i = 0;
    for (const auto& [l, count] : found) {
        neighbours[i] = l;
        contacts[i++] = count;
    }
    return n;
}

void PottsMapRegion::ratioedNeighboursCount(int* set, int n, double** ratios) const {
    for (int a = 0; a < 9; ++a)
        for (int b = 0; b < 9; ++b) ratios[a][b] = 0.0;
    long long pixels = 0;
    for (int k = 0; k < runCount; ++k) {
        const int r = runs[k].row;
        for (int c = runs[k].col; c < runs[k].col + runs[k].len; ++c) {
            ++pixels;
            const int own = map[r + pad][c + pad];
            int a = 0, b = 0;
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    if (dr == 0 && dc == 0) continue;
                    const int v = map[r + pad + dr][c + pad + dc];
                    a += v == own;
                    b += std::find(set, set + n, v) != set + n;
                }
            if (b - a >= 0 && b - a <= 8) ratios[a][b - a] += 1.0;
        }
    }
    if (pixels == 0) return;
    for (int a = 0; a < 9; ++a)
        for (int b = 0; b < 9; ++b) ratios[a][b] /= static_cast<double>(pixels);
}
