#pragma once
// `dhc segment`: check the configuration and the inputs, build the region of
// interest as the MATLAB/Octave gateway does, run the segmentation, write the
// outputs.

#include "CommandLine.h"

// Returns the exit status; throws a InputError for bad input.
int runSegment(const SegmentOptions& options);
