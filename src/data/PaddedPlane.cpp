#include "data/PaddedPlane.h"

#include <utility>
#include <vector>

#include "data/PlaneIO.h"

namespace io = dhc::planeio;

template <typename T>
PaddedPlane<T>::PaddedPlane(int nRows, int nCols, int nPad, T frame, T inner)
    : map(createFrame(nRows, nCols, nPad, frame, inner)),
      rows(nRows),
      cols(nCols),
      pad(nPad),
      frameValue(frame) {}

template <typename T>
PaddedPlane<T>::PaddedPlane(T** plane, int nRows, int nCols, int nPad, T frame)
    : map(plane), rows(nRows), cols(nCols), pad(nPad), frameValue(frame) {}

template <typename T>
PaddedPlane<T>::~PaddedPlane() {
    deleteFrame(map, rows, pad);
}

template <typename T>
PaddedPlane<T>::PaddedPlane(PaddedPlane&& other) noexcept
    : map(other.release()),
      rows(other.rows),
      cols(other.cols),
      pad(other.pad),
      frameValue(other.frameValue) {}

template <typename T>
PaddedPlane<T>& PaddedPlane<T>::operator=(PaddedPlane&& other) noexcept {
    if (this != &other) {
        deleteFrame(map, rows, pad);
        rows = other.rows;
        cols = other.cols;
        pad = other.pad;
        frameValue = other.frameValue;
        map = other.release();
    }
    return *this;
}

template <typename T>
T** PaddedPlane<T>::release() {
    return std::exchange(map, nullptr);
}

template <typename T>
T** PaddedPlane<T>::createFrame(int nRows, int nCols, int nPad, T frame, T inner) {
    return io::createFrame<T>(nRows, nCols, nPad, frame, inner);
}

template <typename T>
void PaddedPlane<T>::deleteFrame(T** plane, int nRows, int nPad) {
    io::deleteFrame(plane, nRows, nPad);
}

template <typename T>
T** PaddedPlane<T>::copy(int& outPad) const {
    const bool keepPad = outPad != 0;
    if (keepPad) outPad = pad;
    return io::copyPlane(map, rows, cols, pad, frameValue, keepPad);
}

template <typename T>
void PaddedPlane<T>::writeHRaw(const std::string& path) const {
    std::vector<T> buffer{T(1), static_cast<T>(rows), static_cast<T>(cols)};
    io::appendInner(buffer, map, rows, cols, pad);
    io::writeWhole(path, buffer.data(), buffer.size());
}

template struct PaddedPlane<int>;
template struct PaddedPlane<double>;
