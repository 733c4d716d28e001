#pragma once
// Checks of the hraw files named on the command line, made before anything is
// read in full or written.

#include <string>

struct HrawShape {
    int bands = 0;
    int rows = 0;
    int cols = 0;
};

// The header of an hraw file after checking that it opens, that its sizes are
// positive with sides of at most 65,535, and that its size matches the header.
// role names the file in messages ("image", "mask", ...).  Throws a InputError.
HrawShape checkHraw(const std::string& path, const std::string& role);

// The same for a one-band map that must match the image's rows and columns.
HrawShape checkMap(const std::string& path, const std::string& role, const HrawShape& image);
