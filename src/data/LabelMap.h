#pragma once
// LabelMap: a padded label plane (PaddedMap layout) and its fragmented version,
// the plane relabelled into connected fragments of equal labels.  Owns the
// plane, the fragmented plane and the contour plane.
class LabelMap {
  public:
    int** map = nullptr;            // padded plane, (rows + 2 pad) x (cols + 2 pad)
    int** fragmentedMap = nullptr;  // padded, computed once by getFragmentedMap
    int** contourMap = nullptr;     // null until computed
    int fragmentCount = -1;         // -1 until computed
    bool eightConnected = false;    // connectivity of the fragmentation (false: 4)
    int rows = 0;
    int cols = 0;
    int pad = 0;
    int frameValue = 0;

    LabelMap() = default;
    // init(rows, cols, pad, frameValue, eightConnected) with the inner cells = innerValue.
    LabelMap(int rows, int cols, int pad, int frameValue, int innerValue, bool eightConnected);
    LabelMap(const LabelMap&) = delete;
    LabelMap& operator=(const LabelMap&) = delete;
    ~LabelMap();

    // Stores the sizes, map = createPaddedMap(rows, cols, pad, frameValue, 0), no
    // fragmented or contour plane, fragmentCount = -1.
    void init(int rows, int cols, int pad, int frameValue, bool eightConnected);
    static int** createPaddedMap(int rows, int cols, int pad, int frameValue, int innerValue);
    static void deletePaddedMap(int** map, int rows, int cols, int pad);
    // map cell (r, c) = source[r + offset][c + offset] for the inner cells.
    void import(int** source, int offset);
    // New padded plane (caller frees with deletePaddedMap): the inner cells relabelled
    // into fragments 1 .. count numbered by their first cell in raster order;
    // 8-connectivity when eightConnected, else 4.  The frame keeps the input's values
    // (the system uses -1); frame cells never join a fragment.
    static int** fragmentMap(int** map, int rows, int cols, int pad, int& count, bool eightConnected);
    // Fragments once, then returns a new unpadded rows x cols copy (delete[] each row,
    // then the row array).
    int** getFragmentedMap();

  private:
    void freePlanes();
};
