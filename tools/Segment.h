#pragma once
// `dhc segment`: check the configuration and the inputs, build the region of
// interest as the MATLAB/Octave gateway does, run the segmentation, write the
// outputs.

#include "CommandLine.h"

// Returns the exit status; throws a InputError for bad input.
int runSegment(const SegmentOptions& options);

#include <string>
#include <vector>

#include "OutputFiles.h"
#include "io/Raster.h"

// Writes a one-band label map as `dhc segment` writes its own: hraw when
// driver is empty, else through GDAL, georeferenced like geo.
void writeLabels(const OutputFiles::Output& out, const std::string& driver, std::vector<int>& plane, int rows,
                 int cols, const dhc::io::Georeference& geo);
