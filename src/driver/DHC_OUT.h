#pragma once
// Result record of one segmentation run (DHC::dhc).
//
// DHC_OUT owns everything it points to: both optional full-frame maps (row by
// row), both label ROIs, and the DHC object itself, which stays alive so that
// the caller can ask it for the split sequence and the workspace reports.
// Destroying the record destroys the driver, its tree, workspaces, engine and
// label allocator.  The record is move-only: ownership cannot be duplicated.

#include "data/xy.h"

template <typename T, typename C>
struct ROI;
class DHC;

struct DHC_OUT {
    // Rows of labelMap and auxMap; -1 while they are unset.
    int rows = -1;
    // Optional full-frame maps (row pointers, `rows` rows each); null when unset.
    int** labelMap = nullptr;
    int** auxMap = nullptr;
    // Final class label of every ROI point (same points and box as the input ROI).
    ROI<int, xy>* labelRoi = nullptr;
    // Fragment label of every ROI point; null unless fragmentation ran.
    ROI<int, xy>* fragRoi = nullptr;
    // Number of final classes (terminal workspaces).
    int nClasses = 0;
    // The driver of the run; null when no run took place.
    DHC* dhc = nullptr;

    DHC_OUT() = default;
    ~DHC_OUT();
    DHC_OUT(const DHC_OUT&) = delete;
    DHC_OUT& operator=(const DHC_OUT&) = delete;
    DHC_OUT(DHC_OUT&& other) noexcept;
    DHC_OUT& operator=(DHC_OUT&& other) noexcept;

  private:
    void release();
};
