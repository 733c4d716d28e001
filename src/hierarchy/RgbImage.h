#pragma once
// A small RGB raster for the pictures the program draws (label maps, the tree
// of regions, the report's pictures): pixels, filled rectangles, and an 8-bit
// RGB PNG writer.

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "hierarchy/LabelColours.h"

namespace dhc {

// An output file that could not be written; the message names it.
class WriteError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

class RgbImage {
  public:
    RgbImage(int width, int height, Rgb background);

    int width() const { return width_; }
    int height() const { return height_; }
    Rgb at(int x, int y) const;
    void set(int x, int y, Rgb c);
    // Fills [x0, x1] x [y0, y1] (inclusive, in any order), clipped to the image.
    void fill(int x0, int y0, int x1, int y1, Rgb c);
    // Writes the image as an 8-bit RGB PNG to a file, or to an open
    // descriptor (left open) under the given name; a WriteError names the
    // file on failure.
    void writePng(const std::string& path) const;
    void writePng(int fd, const std::string& name) const;
    // The PNG file's bytes.
    std::string pngBytes() const;

  private:
    void writePng(std::FILE* file, const std::string& name) const;
    int width_, height_;
    std::vector<uint8_t> pixels_;  // row-major r, g, b
};

}  // namespace dhc
