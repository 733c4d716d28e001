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
#include "io/RasterOutput.h"

// Writes a one-band label map as `dhc segment` writes its own: hraw, or
// through GDAL in `format`, georeferenced like geo, with the colour table of
// its picture.
void writeLabels(const OutputFiles::Output& out, const dhc::io::OutputFormat& format, const std::vector<int>& plane,
                 int rows, int cols, const dhc::io::Georeference& geo);
