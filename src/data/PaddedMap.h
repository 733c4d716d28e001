#pragma once
// A padded int plane: (rows + 2*pad) x (cols + 2*pad) cells, separately
// allocated rows, inner pixel (r, c) at map[r + pad][c + pad], the pad-wide
// frame filled with frameValue.
//
// The record owns map (freed with deletePaddedMapFrame by its destructor); it
// moves but does not copy.  release() hands the plane back to the caller, e.g.
// to wrap a plane that someone else owns just long enough to write it.

#include <string>

struct PaddedMap {
    int** map = nullptr;
    int rows = 0;
    int cols = 0;
    int pad = 0;
    int frameValue = 0;

    PaddedMap() = default;
    // Allocates a plane with createPaddedMapFrame.
    PaddedMap(int rows, int cols, int pad, int frameValue, int innerValue);
    // Adopts a plane laid out as above.
    PaddedMap(int** map, int rows, int cols, int pad, int frameValue);
    ~PaddedMap();
    PaddedMap(const PaddedMap&) = delete;
    PaddedMap& operator=(const PaddedMap&) = delete;
    PaddedMap(PaddedMap&& other) noexcept;
    PaddedMap& operator=(PaddedMap&& other) noexcept;

    // Gives up ownership of map and returns it; the record is left empty.
    int** release();

    // A new (rows + 2*pad) x (cols + 2*pad) plane: frame cells frameValue, inner cells innerValue.
    static int** createPaddedMapFrame(int rows, int cols, int pad, int frameValue, int innerValue);
    // Frees the rows + 2*pad rows and the row array (nullptr is ignored).
    static void deletePaddedMapFrame(int** map, int rows, int cols, int pad);

    // A fresh copy of the plane.  pad != 0 on entry: the copy keeps this
    // record's padding and frame value, and pad is set to the padding width.
    // pad == 0: the copy is the unpadded rows x cols inner part.
    int** getMap(int& pad) const;
};

// Writes an hraw label map: header (1, rows, cols), then the inner rows x cols
// cells row by row; the frame is never written.
void paddedMap2HRaw(const std::string& path, const PaddedMap& map);
