#pragma once
// `dhc apply`: label an image with a model (src/model), window by window if
// asked, and write the label map as `dhc segment` writes its own.

#include "CommandLine.h"

// Returns the exit status; throws an InputError for bad input.
int runApply(const ApplyOptions& options);
