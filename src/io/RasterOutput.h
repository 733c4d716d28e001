#pragma once
// Label maps written through GDAL: one writer for every raster output of the
// front ends (the label map, the fragments, every cut of the tree), whatever
// the driver.
//
// The driver comes from --format, else from the name's extension (the
// extensions GDAL's drivers declare; .hraw and unknown extensions give hraw,
// which the front ends write themselves).  Whether the driver can write the
// map is decided before the run from the driver's own metadata (raster
// capability, Create or CreateCopy, the data types it creates) and a trial
// write in memory (band count, creation options, side files), so that a run
// is never made for an output that cannot be written.
//
// The maps are handed to GDAL band by band and block by block through a
// dataset that asks LabelBands for the rows it needs: nothing but the block
// being copied is held for the driver, so writing every cut of a deep tree
// takes memory for one band and time in proportion to what is written.

#include <cstdint>
#include <string>
#include <vector>

#include "io/Raster.h"

namespace dhc::io {

// How one raster output is written.
struct OutputFormat {
    std::string driver;                // GDAL's short driver name; empty for hraw
    std::vector<std::string> options;  // creation options, KEY=VALUE, the defaults first
    std::vector<std::string> types;    // integer types the driver creates, narrowest first
    bool hraw() const { return driver.empty(); }
};

// The format of output `name` (given to `option`, e.g. "--levels") with
// `bands` bands: `format` names a GDAL driver (or "hraw"), else the name's
// extension picks it.  creationOptions are the user's KEY=VALUE pairs.
// Throws an InputError (usage) for a driver that does not exist, writes no
// rasters, cannot create files, writes no integer type, writes lossily,
// refuses the band count or an option, or writes more than one file.
OutputFormat outputFormat(const std::string& option, const std::string& name, const std::string& format,
                          const std::vector<std::string>& creationOptions, int bands);

// Label maps of one size given a block of rows at a time.
class LabelBands {
  public:
    virtual ~LabelBands() = default;
    virtual int count() const = 0;
    virtual int rows() const = 0;
    virtual int cols() const = 0;
    // The largest label of any band (0 when every pixel is outside).
    virtual int maxLabel() const = 0;
    // Rows [row, row + n) of band b (0-based) into out, n * cols() values.
    virtual void read(int b, int row, int n, int* out) const = 0;
    // What band b shows, for the band's description; empty for none.
    virtual std::string description(int) const { return std::string(); }
};

// One label map held in memory (rows x cols, row-major).
class LabelPlane : public LabelBands {
  public:
    LabelPlane(const std::vector<int>& labels, int rows, int cols);
    int count() const override { return 1; }
    int rows() const override { return rows_; }
    int cols() const override { return cols_; }
    int maxLabel() const override { return max_; }
    void read(int b, int row, int n, int* out) const override;

  private:
    const std::vector<int>& labels_;
    int rows_, cols_, max_ = 0;
};

// What a written map carries besides its values.
struct MapInfo {
    Georeference geo;
    std::vector<std::string> metadata;  // KEY=VALUE, added to the default domain after geo's
    // colours[v] is the colour of label v; one-band maps of 8 or 16 bits get
    // a colour table of maxLabel() + 1 entries.
    std::vector<TableColour> colours;
};

// Writes the maps to path (and nothing else) with format.driver: the
// narrowest integer type the driver creates that holds every label, nodata
// 0, georeferenced and described by info.  target names the file in
// messages.  Throws an InputError naming target when the labels do not fit
// the driver's types or GDAL fails (a full device is said to be full).
void writeLabels(const std::string& path, const std::string& target, const OutputFormat& format,
                 const LabelBands& bands, const MapInfo& info);

}  // namespace dhc::io
