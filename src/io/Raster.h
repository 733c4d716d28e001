#pragma once
// Rasters in any format GDAL reads and writes, for the command-line tool: the
// image cube and one-band maps read into the integer form the segmenter works
// on, with their nodata pixels and georeferencing, and label maps written back
// as georeferenced rasters.  The only place that includes GDAL.
//
// Value conversion: integer bands of up to 32 bits go in unchanged (an
// unsigned 32-bit value above 2,147,483,647 is refused); floating-point bands
// are multiplied by one scale and rounded to the nearest integer, half away
// from zero.  The scale is --scale when given, else the power of ten that
// makes the widest floating-point band range span at least 10,000 steps (four
// significant digits).  NaN and infinite values are nodata.
//
// Every problem is an InputError naming the file.

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace dhc::io {

// Where a raster lies on the ground, carried from the image to the outputs.
struct Georeference {
    bool hasTransform = false;
    double transform[6] = {0, 1, 0, 0, 0, 1};  // GDAL's affine pixel -> coordinate transform
    std::string crs;                           // WKT, empty when unknown
    std::vector<std::string> metadata;         // the default domain, "KEY=VALUE"
};

// How the image's values become integers.
struct Conversion {
    std::optional<double> scale;   // --scale: factor of the floating-point bands
    std::optional<double> nodata;  // --nodata: replaces every band's own nodata value
};

// A bands x rows x cols integer cube read from a raster: cube[band][row][col],
// owned (released with the object).  valid marks, row-major, the pixels that
// hold data in every band; it is empty when every pixel does.
class Raster {
  public:
    Raster() = default;
    ~Raster();
    Raster(const Raster&) = delete;
    Raster& operator=(const Raster&) = delete;
    Raster(Raster&& other) noexcept;
    Raster& operator=(Raster&& other) noexcept;

    int bands = 0, rows = 0, cols = 0;
    int*** cube = nullptr;
    std::vector<uint8_t> valid;
    Georeference geo;
    double scale = 1;            // the factor applied to floating-point bands
    bool hasFloatBands = false;  // whether scale was used
    std::string driver;          // GDAL's short driver name, "hraw" for hraw files

  private:
    void release();
};

// Whether path is an hraw file: by its extension (.hraw), else by a header
// whose sizes match the file's length.  Such files are read without GDAL.
bool isHraw(const std::string& path);

// Reads the image through GDAL.  role names the file in messages ("image").
Raster readImage(const std::string& path, const std::string& role, const Conversion& conversion);

// Reads a one-band integer map (mask, initial segmentation, ground truth)
// through GDAL and checks it against the image: same rows and columns, and the
// same geotransform when both carry one.  Its nodata pixels are cleared from
// valid when noDataIsOutside, else read as 0.
Raster readMap(const std::string& path, const std::string& role, const Raster& image, bool noDataIsOutside);

// The GDAL driver to write outputs with: format when given (a driver name),
// else GTiff for names ending in .tif or .tiff; empty for hraw.  Throws an
// InputError (usage) for a driver that does not exist or cannot create files.
std::string outputDriver(const std::string& name, const std::string& format);

// An RGB colour of a label-map colour table.
struct TableColour {
    uint8_t r = 0, g = 0, b = 0;
};

// Writes a label map (rows x cols, row-major, 0 = outside the region of
// interest) to path with driver, as the smallest unsigned type that holds its
// labels, nodata 0, georeferenced like geo.  colours[v] is the colour of label
// v (used for 8- and 16-bit maps).  GTiff is tiled and DEFLATE-compressed.
// Only path itself is written: a driver that would add side files is refused
// and they are removed.  target names the file in messages.
void writeLabelMap(const std::string& path, const std::string& target, const std::string& driver,
                   const std::vector<int>& labels, int rows, int cols, const Georeference& geo,
                   const std::vector<TableColour>& colours);

// Ground area of one pixel in square metres: the image has a geotransform
// and a projected coordinate system (its linear unit converted to metres);
// 0 otherwise (no georeference, or angles such as degrees).
double pixelArea(const Georeference& geo);

// Prints what `dhc info` reports for a raster GDAL opens: driver, size, bands,
// data type, nodata, coordinate system, geotransform, per-band range.
void printInfo(const std::string& path, std::ostream& out);

}  // namespace dhc::io
