#pragma once
// The double-valued twin of PaddedMap (layout and ownership in PaddedPlane.h).

#include <string>

#include "data/PaddedPlane.h"

struct PaddedMatrix : PaddedPlane<double> {
    using PaddedPlane<double>::PaddedPlane;

    static double** createPaddedMatrixFrame(int nRows, int nCols, int nPad, double frame, double inner) {
        return createFrame(nRows, nCols, nPad, frame, inner);
    }
    static void deletePaddedMatrixFrame(double** plane, int nRows, int /*nCols*/, int nPad) {
        deleteFrame(plane, nRows, nPad);
    }
    // As PaddedMap::getMap.
    double** getMatrix(int& outPad) const { return copy(outPad); }
};

// Writes the float64 flavour of an hraw map: header (1.0, rows, cols) as
// doubles, then the inner rows x cols doubles row by row.
inline void paddedMatrix2HRaw(const std::string& path, const PaddedMatrix& matrix) {
    matrix.writeHRaw(path);
}
