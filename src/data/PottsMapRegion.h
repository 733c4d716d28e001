#pragma once
// PottsMapRegion: one labelled region of a PottsMap.
//
// The region is the set of map cells carrying `label`, stored as maximal
// horizontal runs in raster order, with its margins (inclusive bounding box,
// inner coordinates), its area and two lists of boundary pixels: the contour
// (region pixels with a neighbour of another label) and the border (for the
// full-image region, the image perimeter).  It derives from PottsMap and so
// works on the shared planes; it never frees them (see PottsMap).
//
// The region owns `runs`, `contour` and `border` (new[]; delete[] in the
// destructor).  They are public raw arrays with counts so that whole lists can
// be handed over by pointer (a workspace split gives each child the lists that
// retrieveSubRuns / retrieveSubBorders produced): whoever installs a list here
// first delete[]s the previous one; the region then owns it.
//
// Note: labels(n) below lists the labels under the region; the whole map's
// labels are PottsMap::labels (call it qualified: region->PottsMap::labels(n)).
#include "data/PottsMap.h"
#include "data/run.h"
#include "data/xy.h"

class PottsMapRegion : public PottsMap {
  public:
    int label = 0;   // the region's label in the map
    int area = 0;    // number of pixels = sum of the run lengths
    int minCol = 0;  // margins: inclusive bounding box, inner coordinates
    int maxCol = 0;
    int minRow = 0;
    int maxRow = 0;
    run* runs = nullptr;  // owned; maximal runs in raster order
    int runCount = 0;
    xy* contour = nullptr;  // owned; contour pixels (x = row, y = column)
    int contourCount = 0;
    xy* border = nullptr;  // owned; border pixels
    int borderCount = 0;
    int scanRun = 0;  // pixel scan cursor: run index and offset inside it
    int scanOffset = 0;
    int contourCursor = 0;
    int borderCursor = 0;
    bool fragmented = false;  // cut into connected pieces by fragment()
    bool fullImage = false;   // built over the whole image

    // Empty region without planes.
    PottsMapRegion();
    // Builds the planes (PottsMap constructor), then the full-image region with label.
    PottsMapRegion(int rows, int cols, int pad, int borderLabel, int label, int** init);
    // Copy of the description (runs, contour, border, margins, area, label, flags)
    // with arrays of its own, over the same shared planes.
    PottsMapRegion(const PottsMapRegion& source);
    // Shares the source's planes, takes label, starts empty.
    PottsMapRegion(const PottsMapRegion& source, int label);
    PottsMapRegion& operator=(const PottsMapRegion&) = delete;
    // Frees runs, contour and border; never the planes.
    ~PottsMapRegion();

    // Margins (0, cols-1, 0, rows-1), one run per row, empty contour, border = the
    // image perimeter: 2(cols-1) + 2(rows-1) cells, top, right, bottom, left stretches.
    void buildFullImageRegion();
    // Rebuilds the runs from the map inside the current margins.
    void updateRuns();
    // area = sum of run lengths.
    void updateArea();
    // false: from the runs.  true: the whole image box narrowed to the contour and
    // border lists (the box of their coordinates; the whole image when both are empty).
    void updateMargins(bool fromLists);

    // Pixel scan: cursor to the first pixel of the first run.  Walk with
    //   resetScan(); if (area > 0) do { xy p = getLocation(); ... } while (nextElement());
    void resetScan();
    bool nextElement();      // advances; false when the cursor is at the last pixel
    xy getLocation() const;  // pixel at the cursor (x = row, y = column)
    // resetScan, empties runs/lists, area and margins zeroed, both flags cleared.
    void reset();
    // Area, counts and cursors zero, lists null (without freeing: used on fresh objects).
    void empty();

    // Contour and border iteration: next* advances and returns false when the
    // cursor already is at the last element; get* returns the element at the cursor.
    void resetContourScan() { contourCursor = 0; }
    bool nextContourElement();
    xy getContourLocation() const { return contour[contourCursor]; }
    void resetBorderScan() { borderCursor = 0; }
    bool nextBorderElement();
    xy getBorderLocation() const { return border[borderCursor]; }
    // Number of the 8 neighbours of the current contour element carrying l.
    int uc_contour(int l) const;

    // Paints the region's runs with l, in the aux map when onAux.
    void mapRefresh(int l, bool onAux);
    // For every region pixel: map cell = aux cell.
    void mapRestore();
    // New array of the distinct map labels under the runs, ascending.
    int* labels(int& n) const;

    // One run list per label found under the region (ascending labels): the region's
    // runs cut where the map label changes, in raster order.  Returns a new array of
    // n new run arrays; labels and counts (runs per list) receive new arrays.
    // Everything returned is the caller's (delete[] each list, then the outer arrays).
    run** retrieveSubRuns(int& n, int*& labels, int*& counts) const;
    // True when the lists partition the region's runs exactly and each run carries its label.
    bool checkRetrieveSubRuns(int n, const int* labels, const int* counts, run** subRuns) const;
    // One list per label found on the border list (ascending), the border elements
    // carrying it in list order; same ownership as retrieveSubRuns.
    xy** retrieveSubBorders(int& n, int*& labels, int*& counts) const;
    // New array of the distinct map labels found at the border elements, ascending.
    int* borderLabels(int& n) const;

    // New array (delete[]) of n regions, one per label under this region (ascending),
    // over the same planes, with their runs, border part, contour, margins and area.
    // Overwrites the aux map (a copy of the map afterwards).
    PottsMapRegion* split(int& n);
    // Labels the 8-connected pieces of the region in the aux map with L + 1 ... L + K
    // (L = largest label of the whole map, pieces in order of first pixel in raster
    // order); returns K, and in newLabels a new array L + 1 ... L + K.
    int fragmentOnAuxMap(int*& newLabels);
    int fragmentOnAuxMap();
    // n = number of pieces; null when n < 2 and not force; otherwise the pieces'
    // labels are moved into the map, fragmented = true, and split(n) is returned.
    PottsMapRegion* fragment(int& n, bool force);
    // Map cell of every region pixel l becomes table[l].
    void setInnerLabels(int* table);
    // Labels (other than the region's and `ignore`) among the 8 neighbours of the
    // region's pixels, ascending, with the number of (pixel, neighbour) contacts of
    // each.  Returns their number; both arrays are new.
    int findNeighboringLabels(int ignore, int*& neighbours, int*& contacts) const;
    // Neighbour statistics of the region for the pseudo-likelihood: with a = the
    // number of a pixel's 8 neighbours carrying the pixel's own label and
    // b = the number carrying any of labels[0..n-1], ratios[a][b - a] (a 9 x 9
    // table supplied by the caller, overwritten) = fraction of region pixels with
    // that pair (pairs with b < a are not counted; the fraction is over all the
    // pixels of the runs; all zero for an empty region).
    void ratioedNeighboursCount(int* labels, int n, double** ratios) const;

  private:
    // Sub-runs for the given ascending labels (all labels under the runs); counts
    // (n entries, zeroed by the caller) receives the number of runs per label.
    run** subRunsOf(const int* labels, int n, int* counts) const;
    void freeLists();
    void copyDescription(const PottsMapRegion& source);
};
