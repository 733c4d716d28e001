#pragma once
// Internal helpers shared by the padded planes and the file readers/writers.

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "settings/RowMatrix.h"

namespace dhc {
namespace planeio {

inline int nonNegative(int v) {
    return v > 0 ? v : 0;
}

// A new (rows + 2*pad) x (cols + 2*pad) plane, frame cells = frame, inner cells = inner.
template <typename T>
T** createFrame(int rows, int cols, int pad, T frame, T inner) {
    const int p = nonNegative(pad);
    const int r0 = nonNegative(rows), c0 = nonNegative(cols);
    const int totalRows = r0 + 2 * p, totalCols = c0 + 2 * p;
    T** plane = new T*[totalRows];
    for (int r = 0; r < totalRows; ++r) {
        plane[r] = new T[totalCols];
        const bool innerRow = r >= p && r < p + r0;
        for (int c = 0; c < totalCols; ++c) plane[r][c] = innerRow && c >= p && c < p + c0 ? inner : frame;
    }
    return plane;
}

template <typename T>
void deleteFrame(T** plane, int rows, int pad) {
    dhc::deleteRows(plane, nonNegative(rows) + 2 * nonNegative(pad));
}

// Copy of a padded plane, keeping the padding (keepPad) or only the inner part.
template <typename T>
T** copyPlane(T** plane, int rows, int cols, int pad, T frame, bool keepPad) {
    const int outPad = keepPad ? pad : 0;
    T** copy = createFrame<T>(rows, cols, outPad, frame, T());
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) copy[r + outPad][c + outPad] = plane[r + pad][c + pad];
    return copy;
}

// Appends the inner rows x cols cells of a padded plane to out, row by row.
template <typename T>
void appendInner(std::vector<T>& out, T* const* plane, int rows, int cols, int pad) {
    const int r0 = nonNegative(rows), c0 = nonNegative(cols);
    out.reserve(out.size() + static_cast<std::size_t>(r0) * c0);
    for (int r = 0; r < r0; ++r) out.insert(out.end(), plane[pad + r] + pad, plane[pad + r] + pad + c0);
}

// Writes count elements of buffer to a truncated file with one write; an
// unopenable file is skipped silently (the writers report nothing).
template <typename T>
void writeWhole(const std::string& path, const T* buffer, std::size_t count) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) return;
    if (count > 0) std::fwrite(buffer, sizeof(T), count, f);
    std::fclose(f);
}

// Reads up to count elements into buffer, which the caller has zeroed, so that
// a short or missing file leaves zeros.  Returns whether the file opened.
template <typename T>
bool readWhole(std::FILE* f, T* buffer, std::size_t count) {
    if (f == nullptr) return false;
    if (count > 0) {
        const std::size_t got = std::fread(buffer, sizeof(T), count, f);
        (void)got;  // a short read leaves the zeros in place, by design
    }
    return true;
}

}  // namespace planeio
}  // namespace dhc
