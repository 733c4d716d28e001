#pragma once
// A label map as polygons, in any format OGR writes: one feature per piece of
// a class (its 8-connected pixels, as fragments are), made by GDAL's
// polygonizer, optionally after GDAL's sieve filter has merged the pieces
// under a number of pixels into their neighbours.
//
// Fields of each feature:
//   label      the piece's label in the map
//   class      its class in 1..K, the labels numbered in ascending order
//   area_px    its pixels
//   area       its area in map units (pixels when the map has no geotransform)
//   mean_1...  the mean of each image band over its pixels, in the image's
//              own units (floating-point bands divided by the scale again)
// Features come in the raster order of their pieces' first pixels.

#include <string>
#include <vector>

#include "io/Raster.h"

namespace dhc::io {

// The OGR driver of a polygon output, from the name's extension, checked
// before the run: it writes vectors, creates files, and writes one file
// (.shp is refused; a zipped Shapefile, .shz or .shp.zip, is one file).
// Throws an InputError (usage) naming option and name.
std::string polygonDriver(const std::string& option, const std::string& name);

// What the polygons are made of.
struct PolygonSource {
    const std::vector<int>* labels = nullptr;  // rows x cols, row-major, 0 outside
    int rows = 0, cols = 0;
    const Raster* image = nullptr;  // the image the means are taken from (same size); may be null
    Georeference geo;
    int sieve = 0;                      // pieces under this many pixels merged first; 0: none
    std::vector<std::string> metadata;  // KEY=VALUE for the dataset and the layer
};

// The bytes of the polygon file named `name` (its extension matters to some
// drivers) written with driver.  target names it in messages.  Throws an
// InputError when GDAL fails.
std::string polygonFile(const std::string& name, const std::string& target, const std::string& driver,
                        const PolygonSource& source);

}  // namespace dhc::io
