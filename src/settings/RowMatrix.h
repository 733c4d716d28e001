#pragma once
// Row-pointer matrices ([r][c] access) laid out the way every module hands them
// to its callers: new T*[rows], then one new T[cols] per row, freed row by row
// with delete[].  One set of helpers so that layout is written once.

#include <algorithm>

namespace dhc {

// Frees the rows and the row array; null is ignored.
template <typename T>
void deleteRows(T** m, int rows) {
    if (m == nullptr) return;
    for (int r = 0; r < rows; ++r) delete[] m[r];
    delete[] m;
}

// A rows x cols matrix with every cell zero; a negative size counts as 0.  A
// failed row allocation frees the rows made so far before it propagates.
template <typename T>
T** newRows(int rows, int cols) {
    const int r0 = std::max(rows, 0), c0 = std::max(cols, 0);
    T** m = new T*[r0]();
    try {
        for (int r = 0; r < r0; ++r) m[r] = new T[c0]();
    } catch (...) {
        deleteRows(m, r0);
        throw;
    }
    return m;
}

// Cells [0, rows) x [0, cols) of from written into to.
template <typename T>
void copyRowsInto(const T* const* from, T** to, int rows, int cols) {
    for (int r = 0; r < rows; ++r) std::copy(from[r], from[r] + std::max(cols, 0), to[r]);
}

// A new rows x cols copy of from.
template <typename T>
T** copyRows(const T* const* from, int rows, int cols) {
    T** m = newRows<T>(rows, cols);
    copyRowsInto(from, m, rows, cols);
    return m;
}

}  // namespace dhc
