#include "data/PaddedMap.h"

#include <utility>
#include <vector>

#include "data/PlaneIO.h"

using namespace dhc::planeio;

PaddedMap::PaddedMap(int nRows, int nCols, int nPad, int frame, int inner)
    : map(createPaddedMapFrame(nRows, nCols, nPad, frame, inner)),
      rows(nRows),
      cols(nCols),
      pad(nPad),
      frameValue(frame) {}

PaddedMap::PaddedMap(int** plane, int nRows, int nCols, int nPad, int frame)
    : map(plane), rows(nRows), cols(nCols), pad(nPad), frameValue(frame) {}

PaddedMap::~PaddedMap() {
    deletePaddedMapFrame(map, rows, cols, pad);
}

PaddedMap::PaddedMap(PaddedMap&& other) noexcept
    : map(other.release()),
      rows(other.rows),
      cols(other.cols),
      pad(other.pad),
      frameValue(other.frameValue) {}

PaddedMap& PaddedMap::operator=(PaddedMap&& other) noexcept {
    if (this != &other) {
        deletePaddedMapFrame(map, rows, cols, pad);
        rows = other.rows;
        cols = other.cols;
        pad = other.pad;
        frameValue = other.frameValue;
        map = other.release();
    }
    return *this;
}

int** PaddedMap::release() {
    return std::exchange(map, nullptr);
}

int** PaddedMap::createPaddedMapFrame(int nRows, int nCols, int nPad, int frame, int inner) {
    return createFrame<int>(nRows, nCols, nPad, frame, inner);
}

void PaddedMap::deletePaddedMapFrame(int** plane, int nRows, int /*nCols*/, int nPad) {
    deleteFrame(plane, nRows, nPad);
}

int** PaddedMap::getMap(int& outPad) const {
    const bool keepPad = outPad != 0;
    if (keepPad) outPad = pad;
    return copyPlane(map, rows, cols, pad, frameValue, keepPad);
}

void paddedMap2HRaw(const std::string& path, const PaddedMap& m) {
    const int rows = nonNegative(m.rows), cols = nonNegative(m.cols);
    std::vector<int> buffer(3 + static_cast<size_t>(rows) * cols, 0);
    buffer[0] = 1;
    buffer[1] = m.rows;
    buffer[2] = m.cols;
    size_t k = 3;
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) buffer[k++] = m.map[m.pad + r][m.pad + c];
    writeWhole(path, buffer.data(), buffer.size());
}
