#pragma once
// A padded int plane (layout and ownership in PaddedPlane.h) under the names
// its callers use.

#include <string>

#include "data/PaddedPlane.h"

struct PaddedMap : PaddedPlane<int> {
    using PaddedPlane<int>::PaddedPlane;

    // A new (rows + 2*pad) x (cols + 2*pad) plane: frame cells frameValue, inner cells innerValue.
    static int** createPaddedMapFrame(int nRows, int nCols, int nPad, int frame, int inner) {
        return createFrame(nRows, nCols, nPad, frame, inner);
    }
    // Frees the rows + 2*pad rows and the row array (nullptr is ignored).
    static void deletePaddedMapFrame(int** plane, int nRows, int /*nCols*/, int nPad) {
        deleteFrame(plane, nRows, nPad);
    }
    // A fresh copy of the plane, padded or not as PaddedPlane::copy.
    int** getMap(int& outPad) const { return copy(outPad); }
};

// Writes an hraw label map: header (1, rows, cols), then the inner rows x cols
// cells row by row; the frame is never written.
inline void paddedMap2HRaw(const std::string& path, const PaddedMap& map) {
    map.writeHRaw(path);
}
