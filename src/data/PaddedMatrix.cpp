#include "data/PaddedMatrix.h"

#include <utility>
#include <vector>

#include "data/PlaneIO.h"

using namespace dhc::planeio;

PaddedMatrix::PaddedMatrix(int nRows, int nCols, int nPad, double frame, double inner)
    : map(createPaddedMatrixFrame(nRows, nCols, nPad, frame, inner)),
      rows(nRows),
      cols(nCols),
      pad(nPad),
      frameValue(frame) {}

PaddedMatrix::PaddedMatrix(double** plane, int nRows, int nCols, int nPad, double frame)
    : map(plane), rows(nRows), cols(nCols), pad(nPad), frameValue(frame) {}

PaddedMatrix::~PaddedMatrix() {
    deletePaddedMatrixFrame(map, rows, cols, pad);
}

PaddedMatrix::PaddedMatrix(PaddedMatrix&& other) noexcept
    : map(other.release()),
      rows(other.rows),
      cols(other.cols),
      pad(other.pad),
      frameValue(other.frameValue) {}

PaddedMatrix& PaddedMatrix::operator=(PaddedMatrix&& other) noexcept {
    if (this != &other) {
        deletePaddedMatrixFrame(map, rows, cols, pad);
        rows = other.rows;
        cols = other.cols;
        pad = other.pad;
        frameValue = other.frameValue;
        map = other.release();
    }
    return *this;
}

double** PaddedMatrix::release() {
    return std::exchange(map, nullptr);
}

double** PaddedMatrix::createPaddedMatrixFrame(int nRows, int nCols, int nPad, double frame, double inner) {
    return createFrame<double>(nRows, nCols, nPad, frame, inner);
}

void PaddedMatrix::deletePaddedMatrixFrame(double** plane, int nRows, int /*nCols*/, int nPad) {
    deleteFrame(plane, nRows, nPad);
}

double** PaddedMatrix::getMatrix(int& outPad) const {
    const bool keepPad = outPad != 0;
    if (keepPad) outPad = pad;
    return copyPlane(map, rows, cols, pad, frameValue, keepPad);
}

void paddedMatrix2HRaw(const std::string& path, const PaddedMatrix& m) {
    const int rows = nonNegative(m.rows), cols = nonNegative(m.cols);
    std::vector<double> buffer(3 + static_cast<size_t>(rows) * cols, 0.0);
    buffer[0] = 1.0;
    buffer[1] = m.rows;
    buffer[2] = m.cols;
    size_t k = 3;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) buffer[k++] = m.map[m.pad + r][m.pad + c];
    writeWhole(path, buffer.data(), buffer.size());
}
