#pragma once
// The model of a finished run (Model.h): the one place that decides which of
// the run's figures label new pixels.

#include <string>

#include "model/Model.h"

struct DHC_OUT;
struct DHC_SET;

namespace dhc {

// The model of a run whose tree describes its final map (Hierarchy::fromRun;
// a HierarchyError otherwise).  When the final map is the joint refinement's,
// its classes (label, mean, covariance) and the beta estimated on it are the
// model.  Otherwise each final leaf gives its label in the final
// map and the mean and covariance of its pixels (the leaf's report); a
// covariance that is not positive definite (a band constant over the leaf)
// gets the least of 10⁻⁶, 10⁻⁵, ... times its mean variance (at least 1) added
// to its diagonal that makes it so.  beta is the mean of the split regions'
// betas weighted by their areas: each split estimated its beta on its own
// region, and the weighting gives every pixel the same say, as the final map
// gives every pixel one label.  `values` is the conversion the run's image
// went through; `program` and `version` name what made the model.
Model modelFromRun(const DHC_OUT& out, const DHC_SET& settings, const ValueConversion& values,
                   const std::string& program, const std::string& version);

}  // namespace dhc
