#pragma once
// Row-pointer matrices for the statistics tests.

#include <initializer_list>
#include <utility>
#include <vector>

#include "settings/RowMatrix.h"

namespace stats_test {

// Zero-based row-pointer matrix (element (r, c) at get()[r][c]) owning its rows.
// get() refreshes the pointer array in place, so earlier results stay valid
// as long as no row has been added since.
class Rows {
  public:
    Rows(std::initializer_list<std::initializer_list<double>> values) {
        for (const auto& row : values) data_.emplace_back(row);
    }
    Rows(int n, double fill) : data_(n, std::vector<double>(n, fill)) {}
    Rows() = default;

    void add(std::vector<double> row) { data_.push_back(std::move(row)); }
    double** get() {
        ptrs_.clear();
        for (auto& row : data_) ptrs_.push_back(row.data());
        return ptrs_.data();
    }
    double at(int r, int c) const { return data_[r][c]; }
    int size() const { return static_cast<int>(data_.size()); }

  private:
    std::vector<std::vector<double>> data_;
    std::vector<double*> ptrs_;
};

}  // namespace stats_test
