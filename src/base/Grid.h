#pragma once
// Owning arrays of two and three dimensions with the [r][c] and [b][r][c]
// access of row-pointer arrays.  The cells lie in one zeroed block and the
// row pointers point into it, so rows() / planes() hand a T** / T*** view to
// code that takes row pointers, valid while the owner lives.  Moving hands
// the block over (views stay valid); copying is refused.  Negative sizes count
// as 0.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

namespace dhc {

namespace gridsize {
// rows x cols (x planes) cells; a product that does not fit memory is an
// allocation failure like any other oversized request.
inline std::size_t cells(int a, int b, int c = 1) {
    std::size_t n = 0;
    if (__builtin_mul_overflow(static_cast<std::size_t>(std::max(a, 0)),
                               static_cast<std::size_t>(std::max(b, 0)), &n) ||
        __builtin_mul_overflow(n, static_cast<std::size_t>(std::max(c, 0)), &n))
        throw std::bad_alloc();
    return n;
}
}  // namespace gridsize

template <typename T>
class Grid {
  public:
    Grid() = default;
    Grid(int rows, int cols) : rows_(std::max(rows, 0)), cols_(std::max(cols, 0)) {
        cells_.reset(new T[std::max<std::size_t>(gridsize::cells(rows_, cols_), 1)]());
        index_.reset(new T*[std::max(rows_, 1)]());
        for (int r = 0; r < rows_; ++r) index_[r] = cells_.get() + static_cast<std::size_t>(r) * cols_;
    }
    // A copy of the cells [0, rows) x [0, cols) of a row-pointer array.
    static Grid copyOf(const T* const* from, int rows, int cols) {
        Grid g(rows, cols);
        for (int r = 0; r < g.rows_; ++r) std::copy(from[r], from[r] + g.cols_, g.index_[r]);
        return g;
    }

    T* operator[](int r) { return index_[r]; }
    const T* operator[](int r) const { return index_[r]; }
    // The row-pointer view (null for a default-made grid).
    T** rows() { return index_.get(); }
    const T* const* rows() const { return index_.get(); }
    int rowCount() const { return rows_; }
    int colCount() const { return cols_; }
    // Row-major cells, rows x cols of them.
    T* cells() { return cells_.get(); }
    const T* cells() const { return cells_.get(); }
    void fill(const T& v) { std::fill(cells_.get(), cells_.get() + gridsize::cells(rows_, cols_), v); }

  private:
    int rows_ = 0, cols_ = 0;
    std::unique_ptr<T[]> cells_;
    std::unique_ptr<T*[]> index_;
};

template <typename T>
class Cube {
  public:
    Cube() = default;
    Cube(int planes, int rows, int cols)
        : planes_(std::max(planes, 0)), rows_(std::max(rows, 0)), cols_(std::max(cols, 0)) {
        cells_.reset(new T[std::max<std::size_t>(gridsize::cells(planes_, rows_, cols_), 1)]());
        rowIndex_.reset(new T*[std::max<std::size_t>(gridsize::cells(planes_, rows_), 1)]());
        planeIndex_.reset(new T**[std::max(planes_, 1)]());
        for (int b = 0; b < planes_; ++b) {
            planeIndex_[b] = rowIndex_.get() + static_cast<std::size_t>(b) * rows_;
            for (int r = 0; r < rows_; ++r)
                planeIndex_[b][r] = cells_.get() + (static_cast<std::size_t>(b) * rows_ + r) * cols_;
        }
    }

    T** operator[](int b) { return planeIndex_[b]; }
    const T* const* operator[](int b) const { return planeIndex_[b]; }
    // The [b][r][c] view (null for a default-made cube).
    T*** planes() { return planeIndex_.get(); }
    int planeCount() const { return planes_; }
    int rowCount() const { return rows_; }
    int colCount() const { return cols_; }
    // Plane-major, then row-major cells.
    T* cells() { return cells_.get(); }
    const T* cells() const { return cells_.get(); }

  private:
    int planes_ = 0, rows_ = 0, cols_ = 0;
    std::unique_ptr<T[]> cells_;
    std::unique_ptr<T*[]> rowIndex_;
    std::unique_ptr<T**[]> planeIndex_;
};

}  // namespace dhc
