#pragma once
// The record of one region (a node of a run's tree) in every front end: one
// row per field, with its name in the MATLAB/Octave report struct, in the
// Python package's Region and in the tree JSON's region object.  The MEX
// module and the Python package build their records from these rows; the
// tree JSON keeps the layout of its schema (docs/tree.schema.json), and the
// rows name where each value stands in it.

#include <vector>

#include "hierarchy/Hierarchy.h"

struct WSReport;

namespace dhc {

enum class RegionFieldKind {
    Int,     // a whole number
    Flag,    // true or false
    Real,    // a double
    Ints,    // a list of whole numbers (empty: MATLAB leaves the field empty)
    Reals,   // a list of doubles (empty: none)
    Matrix,  // rows of doubles (empty: none)
};

struct RegionField {
    const char* matlab;  // field of the MATLAB/Octave report struct
    const char* python;  // attribute of dhc.Region; null: none
    const char* json;    // path in the tree JSON's region object ("splitGain.TFR"); null: none
    RegionFieldKind kind;
    // The value, by kind (the others are null).
    double (*number)(const RegionNode&);
    const std::vector<int>& (*ints)(const RegionNode&);
    const std::vector<double>& (*reals)(const RegionNode&);
    const std::vector<std::vector<double>>& (*matrix)(const RegionNode&);
};

// Every field, in the order of the MATLAB/Octave report struct.
const std::vector<RegionField>& regionFields();

// The node of a region's report: every field the report carries (the parent,
// split rank and final label come from the tree).
RegionNode regionNode(const WSReport& report);

}  // namespace dhc
