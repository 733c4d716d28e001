#pragma once
// PottsMap: the padded label map of one segmentation run.
//
// Two planes of (rows + 2*pad) x (cols + 2*pad) int32 cells, row-pointer shaped:
// `map` holds the current label of every pixel, `auxMap` is a scratch and output
// plane of the same shape.  A frame of `pad` cells holding `borderLabel` surrounds
// the inner rows x cols cells of both planes, so the 8 neighbours of any inner
// pixel can be read without bounds tests.  Public operations take inner
// coordinates (r, c); cell (r, c) is stored at [r + pad][c + pad].
//
// OWNERSHIP OF THE PLANES: many PottsMap objects (every region of the hierarchy)
// share one pair of planes through the shallow copy constructor.  The destructor
// therefore frees nothing.  Exactly one owner (the object that allocated the
// planes, normally the root image data, see PottsData::ownsMaps) calls
// destroyMaps() once, after which no sharer may touch the planes.
#include <string>

#include "data/run.h"
#include "data/xy.h"

template <typename T, typename C>
struct ROI;

class PottsMap {
  public:
    int** map = nullptr;     // label plane, shared, see the ownership note above
    int** auxMap = nullptr;  // scratch/output plane, same shape, shared
    int rows = 0;            // inner height
    int cols = 0;            // inner width
    int pad = 0;             // frame width (>= 1 for a map with planes)
    int borderLabel = 0;     // value of every frame cell of both planes

    // No planes; used as the base of an empty region.
    PottsMap() = default;
    // Allocates both planes and fills their frames with borderLabel.  pad < 1 is
    // fatal (status -1).  With init, map cell (r, c) = init[r][c]; otherwise the
    // inner cells of the map, and always those of the aux map, are left unset.
    PottsMap(int rows, int cols, int pad, int borderLabel, int** init);
    // Shallow copy: shares the source's planes (see setBasicItems).
    PottsMap(const PottsMap& source);
    PottsMap& operator=(const PottsMap&) = delete;
    // Frees nothing: the planes are shared.
    ~PottsMap();

    // Takes sizes, border label and both plane pointers of the source.
    void setBasicItems(const PottsMap& source);
    // Frees both planes (rows, then the row arrays) and nulls them.  Only the owner calls it.
    void destroyMaps();
    // Free only the row-pointer array of one plane (the rows are left alone).
    void deleteMap();
    void deleteAuxMap();

    void setPixel(int r, int c, int label) { map[r + pad][c + pad] = label; }
    // Asks for the 3 x 3 neighbourhood of (r, c) to be brought into cache (its
    // row for writing when forWrite): loops over scattered pixels call it a
    // few pixels ahead.
    void prefetchAround(int r, int c, bool forWrite = false) const {
        __builtin_prefetch(map[r + pad - 1] + c + pad);
        if (forWrite)
            __builtin_prefetch(map[r + pad] + c + pad, 1);
        else
            __builtin_prefetch(map[r + pad] + c + pad);
        __builtin_prefetch(map[r + pad + 1] + c + pad);
    }
    // True when one of the 8 neighbours of (r, c) in the map holds label.
    bool isNear(int r, int c, int label) const {
        const int* up = map[r + pad - 1] + c + pad;
        const int* mid = map[r + pad] + c + pad;
        const int* dn = map[r + pad + 1] + c + pad;
        return up[-1] == label || up[0] == label || up[1] == label || mid[-1] == label || mid[1] == label ||
               dn[-1] == label || dn[0] == label || dn[1] == label;
    }
    bool isNearBorder(int r, int c) const { return isNear(r, c, borderLabel); }
    // Number (0..8) of the 8 neighbours of (r, c) whose label equals label or other.
    int uc(int r, int c, int label, int other) const {
        const int* up = map[r + pad - 1] + c + pad;
        const int* mid = map[r + pad] + c + pad;
        const int* dn = map[r + pad + 1] + c + pad;
        const int v[8] = {up[-1], up[0], up[1], mid[-1], mid[1], dn[-1], dn[0], dn[1]};
        int n = 0;
        for (int x : v) n += (x == label) | (x == other);
        return n;
    }
    // Same-label neighbour count.  Not strict (and pad > 0): frame cells agree too.
    int uc(int r, int c, int label, bool strict) const {
        return uc(r, c, label, !strict && pad > 0 ? borderLabel : label);
    }
    // Neighbour configuration of pixel p (inner coordinates) for the Potts engine:
    // counts[i] = number of the 8 neighbours whose map label equals labels[i], i < k;
    // *own = number of the 8 neighbours equal to p's own map label (own may be null).
    void config(xy p, int* labels, int k, int* counts, int* own) const {
        const int r = p.x + pad, c = p.y + pad;
        const int* up = map[r - 1] + c;
        const int* mid = map[r] + c;
        const int* dn = map[r + 1] + c;
        const int v[8] = {up[-1], up[0], up[1], mid[-1], mid[1], dn[-1], dn[0], dn[1]};
        for (int i = 0; i < k; ++i) {
            const int l = labels[i];
            int n = 0;
            for (int x : v) n += x == l;
            counts[i] = n;
        }
        if (own != nullptr) {
            const int l = mid[0];
            int n = 0;
            for (int x : v) n += x == l;
            *own = n;
        }
    }

    // New array of the distinct inner labels of the map, ascending; n = their number.
    int* labels(int& n) const;
    // Renumbers the aux map's inner cells 1, 2, ... in order of first appearance;
    // keep >= 0 keeps its own value (the label that would have had it takes keep's number).
    void compact(int keep);
    // Renumbers the map's inner cells to first, first + 1, ... increasing with the
    // old labels; keep becomes 0.  first == keep is fatal (status -4).  Returns the
    // number of labels renumbered.
    int fix(int first, int keep);
    // Paints every cell of the n runs with label, in the aux map when onAux.
    void refresh(run* runs, int n, int label, bool onAux);
    // Every inner cell of the map = label.
    void paint32All(int label);
    // Whole plane copies, frame included.  The Rev form copies the transpose
    // (aux[i][j] = map[j][i]) and is meaningful for square maps only.
    void copyToAuxMap();
    void copyToAuxMapRev();

    // New unpadded rows x cols copies of the inner cells; the caller frees them
    // row by row (delete[]).
    int** outputAuxMap() const;
    int** outputMap() const;
    // New unpadded rows x cols mask: 1 where the plane (the aux map when onAux,
    // else the map) holds label, 0 elsewhere.
    int** outputMask(int label, bool onAux) const;

    // Copies an unpadded rows x cols map into the map's inner cells.
    void readMap(int** m);
    // For each point k of a one-band label ROI at box-relative (x, y):
    // map cell (x, y) = the point's value (its first band).
    void readMapRoi(ROI<int, xy>* roi);
    // Headerless rows x cols int32 file into the map's inner cells.
    void readMap_raw(char* fileName);
    // hraw file (name cut to 200 characters): band 0, r < rows, c < cols, into the map.
    void readMap_hraw(std::string fileName);
    // The aux map's inner cells as headerless int32, or as text (one line per row,
    // values separated by one blank).
    void writeAuxMap_raw(char* fileName) const;
    void writeAuxMap_dat(char* fileName) const;

    // Greedy one-to-one matching of the map's labels to the ground-truth labels,
    // written into the aux map at every ground-truth point.  Points are addressed
    // at their box-relative coordinates (the map is the ROI's box).  Map labels
    // are paired in order of their counted pixels, each with its most frequent
    // still-free ground-truth label (ties: earliest row, then earliest column).
    // Surplus map labels (more map labels than ground-truth labels, ignore
    // removed) stay unpaired: the aux map receives `ignore` at their points, so
    // unmatched regions read as "no class" instead of stale aux values.
    void labelWithGT(ROI<int, xy>* gt, int ignore);
    // The same with the ground truth read from an hraw file covering the map
    // (band 0, every inner cell is a point).
    void labelWithGT(char* gtFile, int ignore);
};
