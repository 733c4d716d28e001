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

// The part of a raster to read: some of its bands, a window of its pixels.
struct Subset {
    std::vector<int> bands;  // 1-based band numbers, in the order wanted; empty: every value band
    bool hasWindow = false;  // a window: columns [col, col + cols), rows [row, row + rows)
    int col = 0, row = 0, cols = 0, rows = 0;
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
    std::vector<bool> floatBand;  // per band, whether it was floating point (scaled)
    // Where the cube lies in the file read: its first column and row, and
    // the file's size (maps of the image are read through the same window).
    int colOffset = 0, rowOffset = 0, fileRows = 0, fileCols = 0;

  private:
    void release();
};

// Whether path is an hraw file: by its extension (.hraw), else by a header
// whose sizes match the file's length.  Such files are read without GDAL.
bool isHraw(const std::string& path);

// Whether path names a file in one of GDAL's virtual file systems (/vsizip/,
// /vsimem/, /vsicurl/, ...), which only GDAL can reach.
bool isVirtualPath(const std::string& path);

// Reads the image (or the subset of it) through GDAL.  role names the file in
// messages ("image").  The georeference of a window is the window's own.
// Signed bytes (GeoTIFF's PIXELTYPE=SIGNEDBYTE, GDAL's Int8) are read as signed.
Raster readImage(const std::string& path, const std::string& role, const Conversion& conversion,
                 const Subset& subset = Subset());

// Reads a one-band integer map (mask, initial segmentation, ground truth)
// through GDAL and checks it against the image: the size of the image's file,
// read through the image's window, and the same geotransform when both carry
// one.  Its nodata pixels are cleared from valid when noDataIsOutside, else
// read as 0.
Raster readMap(const std::string& path, const std::string& role, const Raster& image, bool noDataIsOutside);

// An RGB colour of a label-map colour table.
struct TableColour {
    uint8_t r = 0, g = 0, b = 0;
};

// The colour table of a label map: the colours of its PNG picture (and of
// the tree picture), by label value.
std::vector<TableColour> tableColours(const std::vector<int>& labels);

// Ground area of one pixel in square metres: the image has a geotransform
// and a projected coordinate system (its linear unit converted to metres);
// 0 otherwise (no georeference, or angles such as degrees).
double pixelArea(const Georeference& geo);

// Prints what `dhc info` reports for a raster GDAL opens: driver, size, bands,
// data type, nodata, coordinate system, geotransform, per-band range.
void printInfo(const std::string& path, std::ostream& out);

}  // namespace dhc::io
