#include "io/Raster.h"

#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <limits>
#include <ostream>
#include <set>
#include <sstream>

#include "data/ImageFile.h"
#include "base/InputError.h"
#include "data/xy.h"
#include "frontend/Scaling.h"
#include "hierarchy/LabelColours.h"
#include "io/GdalSupport.h"
#include "frontend/InputFile.h"

namespace dhc::io {
namespace {

using detail::Dataset;
using detail::endsWith;
using detail::lower;
using detail::QuietGdal;
using detail::quoted;

constexpr size_t kChunkPixels = size_t{1} << 20;

Dataset open(const std::string& path, const std::string& role) {
    if (detail::isVirtual(path)) {
        // Only GDAL reaches these files (in archives, in memory, over the network).
        VSIStatBufL st;
        if (VSIStatL(path.c_str(), &st) != 0)
            throw InputError(kExitInput, "cannot open " + role + " " + quoted(path) +
                                             ": no such file in GDAL's virtual file systems");
        if (VSI_ISDIR(st.st_mode))
            throw InputError(kExitInput, "cannot open " + role + " " + quoted(path) + ": it is a directory");
    } else {
        dhc::checkInputFile(path, role);
    }
    Dataset d(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!d || d->GetRasterCount() == 0)
        throw InputError(kExitInput,
                         "cannot read " + role + " " + quoted(path) + ": " + QuietGdal::lastError());
    const int rows = d->GetRasterYSize(), cols = d->GetRasterXSize();
    if (rows <= 0 || cols <= 0 || rows > kMaxImageSide || cols > kMaxImageSide)
        throw InputError(kExitInput, role + " " + quoted(path) + ": image side over " +
                                         std::to_string(kMaxImageSide) + " (rows " + std::to_string(rows) +
                                         ", cols " + std::to_string(cols) + ")");
    return d;
}

bool isFloat(GDALDataType t) {
    return t == GDT_Float32 || t == GDT_Float64;
}

bool isSupported(GDALDataType t) {
    switch (t) {
        case GDT_Byte:
        case GDT_UInt16:
        case GDT_Int16:
        case GDT_UInt32:
        case GDT_Int32:
        case GDT_Float32:
        case GDT_Float64:
#if GDAL_VERSION_NUM >= GDAL_COMPUTE_VERSION(3, 7, 0)
        case GDT_Int8:
#endif
            return true;
        default:
            return false;
    }
}

// The bands that carry values: every band but alpha bands, which only say
// which pixels hold data (GDAL hands them out as the other bands' masks).
std::vector<GDALRasterBand*> valueBands(GDALDataset& d) {
    std::vector<GDALRasterBand*> bands;
    for (int b = 1; b <= d.GetRasterCount(); ++b)
        if (d.GetRasterBand(b)->GetColorInterpretation() != GCI_AlphaBand)
            bands.push_back(d.GetRasterBand(b));
    if (bands.empty()) bands.push_back(d.GetRasterBand(1));
    return bands;
}

// Whether a band holds signed bytes: GDAL 3.6 and older give them as Byte
// with PIXELTYPE=SIGNEDBYTE, which RasterIO hands out as 0..255.
bool signedBytes(GDALRasterBand* band) {
    if (band->GetRasterDataType() != GDT_Byte) return false;
    const char* pixelType = band->GetMetadataItem("PIXELTYPE", "IMAGE_STRUCTURE");
    return pixelType != nullptr && EQUAL(pixelType, "SIGNEDBYTE");
}

// The columns and rows read of every band.
struct Window {
    int col = 0, row = 0, cols = 0, rows = 0;
};

Window wholeBand(GDALRasterBand* band) {
    return Window{0, 0, band->GetXSize(), band->GetYSize()};
}

// One band read chunk by chunk (rows of a window), with what says which of
// its pixels are nodata.
class BandReader {
  public:
    BandReader(GDALRasterBand* band, const Conversion& conversion, const Window& window)
        : band_(band), window_(window) {
        GDALDataset* d = band->GetDataset();
        float_ = isFloat(band->GetRasterDataType());
        signed_ = signedBytes(band);
        int has = 0;
        const double value = band->GetNoDataValue(&has);
        if (conversion.nodata) {
            hasNodata_ = true;
            nodata_ = *conversion.nodata;
        } else if (has) {
            hasNodata_ = true;
            nodata_ = value;
        }
        // A mask of its own (alpha band, per-dataset or explicit mask); a
        // nodata value and "all valid" are handled above.
        const int flags = band->GetMaskFlags();
        if (!(flags & GMF_ALL_VALID) && !(flags & GMF_NODATA)) mask_ = band->GetMaskBand();
        // GDAL offers an alpha band as mask only in grey+alpha and RGBA
        // layouts; any alpha band says which pixels hold data.
        for (int b = 1; mask_ == nullptr && d != nullptr && b <= d->GetRasterCount(); ++b)
            if (d->GetRasterBand(b)->GetColorInterpretation() == GCI_AlphaBand) mask_ = d->GetRasterBand(b);
    }

    // Reads rows [row, row + n) of the window into values; ok[i] = 0 marks nodata.
    void read(int row, int n, std::vector<double>& values, std::vector<uint8_t>& ok,
              const std::string& what) {
        const int cols = window_.cols, x = window_.col, y = window_.row + row;
        const size_t count = static_cast<size_t>(n) * static_cast<size_t>(cols);
        values.resize(count);
        ok.assign(count, 1);
        CPLErrorReset();
        if (band_->RasterIO(GF_Read, x, y, cols, n, values.data(), cols, n, GDT_Float64, 0, 0) != CE_None)
            throw InputError(kExitInput, "cannot read " + what + ": " + QuietGdal::lastError());
        if (signed_)
            for (double& v : values)
                if (v > 127) v -= 256;
        if (mask_ != nullptr) {
            std::vector<uint8_t> m(count);
            if (mask_->RasterIO(GF_Read, x, y, cols, n, m.data(), cols, n, GDT_Byte, 0, 0) != CE_None)
                throw InputError(kExitInput, "cannot read " + what + ": " + QuietGdal::lastError());
            for (size_t i = 0; i < count; ++i)
                if (m[i] == 0) ok[i] = 0;
        }
        const bool float32 = band_->GetRasterDataType() == GDT_Float32;
        for (size_t i = 0; i < count; ++i) {
            const double v = values[i];
            if (!std::isfinite(v) ||
                (hasNodata_ &&
                 (v == nodata_ || (float32 && static_cast<float>(v) == static_cast<float>(nodata_)))))
                ok[i] = 0;
        }
    }

    bool isFloatBand() const { return float_; }
    bool hasNodata() const { return hasNodata_; }
    double nodata() const { return nodata_; }

  private:
    GDALRasterBand* band_;
    Window window_;
    GDALRasterBand* mask_ = nullptr;
    bool float_ = false;
    bool signed_ = false;
    bool hasNodata_ = false;
    double nodata_ = 0;
};

// Rows per chunk: whole blocks, about a million pixels.
int chunkRows(GDALRasterBand* band, int rows, int cols) {
    int bx = 0, by = 0;
    band->GetBlockSize(&bx, &by);
    by = std::max(by, 1);
    const int wanted = static_cast<int>(std::max<size_t>(1, kChunkPixels / static_cast<size_t>(cols)));
    return std::min(rows, std::max(by, wanted / by * by));
}

using Range = ValueRange;

// The range of each band's data values (nodata excluded).
std::vector<Range> bandRanges(const std::vector<GDALRasterBand*>& bands, const Conversion& conversion,
                              const std::vector<bool>& wanted, const std::string& what, const Window& window) {
    std::vector<Range> ranges(bands.size());
    const int rows = window.rows, cols = window.cols;
    const int step = chunkRows(bands[0], rows, cols);
    std::vector<BandReader> readers;
    for (GDALRasterBand* b : bands) readers.emplace_back(b, conversion, window);
    std::vector<double> values;
    std::vector<uint8_t> ok;
    for (int row = 0; row < rows; row += step) {
        const int n = std::min(step, rows - row);
        for (size_t b = 0; b < bands.size(); ++b) {
            if (!wanted[b]) continue;
            readers[b].read(row, n, values, ok, what);
            for (size_t i = 0; i < values.size(); ++i)
                if (ok[i]) {
                    ranges[b].lo = std::min(ranges[b].lo, values[i]);
                    ranges[b].hi = std::max(ranges[b].hi, values[i]);
                }
        }
    }
    return ranges;
}

std::string number(double v) {
    std::ostringstream s;
    s << std::setprecision(10) << v;
    return s.str();
}

Georeference georeference(GDALDataset& d) {
    Georeference g;
    g.hasTransform = d.GetGeoTransform(g.transform) == CE_None;
    if (const char* wkt = d.GetProjectionRef()) g.crs = wkt;
    if (char** md = d.GetMetadata()) {
        for (char** m = md; *m != nullptr; ++m) g.metadata.emplace_back(*m);
    }
    return g;
}

// Reads bands into a new cube; the pixels that are nodata in any band are
// cleared in valid.  Maps (asMap) take floating-point values only when they
// are whole numbers.
void readCube(Raster& r, const std::vector<GDALRasterBand*>& bands, const Conversion& conversion,
              const std::string& path, const std::string& role, bool asMap, const Window& window) {
    const std::string what = role + " " + quoted(path);
    r.cube = ImageFile<int>::newCube(r.bands, r.rows, r.cols);
    r.valid.assign(static_cast<size_t>(r.rows) * static_cast<size_t>(r.cols), 1);
    std::vector<BandReader> readers;
    for (GDALRasterBand* b : bands) readers.emplace_back(b, conversion, window);
    const int step = chunkRows(bands[0], r.rows, r.cols);
    std::vector<double> values;
    std::vector<uint8_t> ok;
    // Per band: the range of the values read and of the integers they became,
    // so that a --scale that rounds a varying band to one value is refused.
    std::vector<double> lo(bands.size(), INFINITY), hi(bands.size(), -INFINITY);
    std::vector<int> loCell(bands.size(), std::numeric_limits<int>::max()),
        hiCell(bands.size(), std::numeric_limits<int>::min());
    for (int row = 0; row < r.rows; row += step) {
        const int n = std::min(step, r.rows - row);
        for (size_t b = 0; b < bands.size(); ++b) {
            readers[b].read(row, n, values, ok, what);
            const bool scaled = readers[b].isFloatBand() && !asMap;
            const std::string band = what + " band " + std::to_string(b + 1);
            const ValueOrigin origin{band, "--scale"};
            for (int i = 0; i < n; ++i)
                for (int c = 0; c < r.cols; ++c) {
                    const size_t k =
                        static_cast<size_t>(i) * static_cast<size_t>(r.cols) + static_cast<size_t>(c);
                    int& cell = r.cube[b][row + i][c];
                    if (!ok[k]) {
                        r.valid[static_cast<size_t>(row + i) * static_cast<size_t>(r.cols) +
                                static_cast<size_t>(c)] = 0;
                        cell = 0;
                        continue;
                    }
                    cell = toInteger(values[k], scaled, r.scale, window.row + row + i, window.col + c, origin);
                    lo[b] = std::min(lo[b], values[k]);
                    hi[b] = std::max(hi[b], values[k]);
                    loCell[b] = std::min(loCell[b], cell);
                    hiCell[b] = std::max(hiCell[b], cell);
                }
        }
    }
    for (size_t b = 0; b < bands.size(); ++b)
        if (conversion.scale && readers[b].isFloatBand() && !asMap && lo[b] < hi[b] && loCell[b] == hiCell[b])
            throw InputError(kExitInput, what + " band " + std::to_string(b + 1) + ": its values from " +
                                             number(lo[b]) + " to " + number(hi[b]) + " scaled by " +
                                             number(r.scale) + " all round to " + std::to_string(loCell[b]) +
                                             " (give a larger --scale)");
}

void checkTypes(const std::vector<GDALRasterBand*>& bands, const std::string& path, const std::string& role) {
    for (size_t b = 0; b < bands.size(); ++b) {
        const GDALDataType t = bands[b]->GetRasterDataType();
        if (!isSupported(t))
            throw InputError(kExitInput,
                             role + " " + quoted(path) + " band " + std::to_string(b + 1) + " holds " +
                                 GDALGetDataTypeName(t) +
                                 " values; dhc reads integers of up to 32 bits and floating point");
    }
}

bool sameTransform(const double* a, const double* b) {
    for (int i = 0; i < 6; ++i)
        if (std::fabs(a[i] - b[i]) > 1e-9 * std::max({1.0, std::fabs(a[i]), std::fabs(b[i])})) return false;
    return true;
}

std::string transformText(const double* t) {
    std::ostringstream s;
    s << std::setprecision(15) << t[0] << " " << t[1] << " " << t[2] << " " << t[3] << " " << t[4] << " "
      << t[5];
    return s.str();
}

}  // namespace

Raster::~Raster() {
    release();
}

Raster::Raster(Raster&& other) noexcept {
    *this = std::move(other);
}

Raster& Raster::operator=(Raster&& other) noexcept {
    if (this != &other) {
        release();
        bands = other.bands;
        rows = other.rows;
        cols = other.cols;
        cube = other.cube;
        other.cube = nullptr;
        valid = std::move(other.valid);
        geo = std::move(other.geo);
        scale = other.scale;
        hasFloatBands = other.hasFloatBands;
        driver = std::move(other.driver);
        floatBand = std::move(other.floatBand);
        colOffset = other.colOffset;
        rowOffset = other.rowOffset;
        fileRows = other.fileRows;
        fileCols = other.fileCols;
    }
    return *this;
}

void Raster::release() {
    ImageFile<int>::deleteCube(cube, bands, rows);
    cube = nullptr;
}

bool isVirtualPath(const std::string& path) {
    return detail::isVirtual(path);
}

bool isHraw(const std::string& path) {
    if (endsWith(lower(path), ".hraw")) return true;
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    int32_t header[3] = {0, 0, 0};
    const bool got = std::fread(header, sizeof header, 1, f) == 1;
    std::fseek(f, 0, SEEK_END);
    const long size = std::ftell(f);
    std::fclose(f);
    if (!got || header[0] <= 0 || header[1] <= 0 || header[2] <= 0 || size < 12) return false;
    // Any header of a real file's size: compared by division, as the product
    // of three arbitrary int32 values overflows 64 bits.
    const uint64_t values = static_cast<uint64_t>(size - 12) / 4;
    if ((size - 12) % 4 != 0) return false;
    const uint64_t bands = static_cast<uint64_t>(header[0]),
                   plane = static_cast<uint64_t>(header[1]) * static_cast<uint64_t>(header[2]);
    return values % bands == 0 && values / bands == plane;
}

Raster readImage(const std::string& path, const std::string& role, const Conversion& conversion,
                 const Subset& subset) {
    QuietGdal quiet;
    Dataset d = open(path, role);
    const std::string what = role + " " + quoted(path);
    std::vector<GDALRasterBand*> bands = valueBands(*d);
    if (!subset.bands.empty()) {
        std::vector<GDALRasterBand*> chosen;
        for (int b : subset.bands) {
            if (b < 1 || b > d->GetRasterCount())
                throw InputError(kExitInput, "--bands: " + what + " has no band " + std::to_string(b) + " (it has " +
                                                 std::to_string(d->GetRasterCount()) + ")");
            chosen.push_back(d->GetRasterBand(b));
        }
        bands = chosen;
    }
    checkTypes(bands, path, role);
    Raster r;
    r.fileRows = d->GetRasterYSize();
    r.fileCols = d->GetRasterXSize();
    Window window = wholeBand(bands[0]);
    if (subset.hasWindow) {
        if (subset.col < 0 || subset.row < 0 || subset.cols < 1 || subset.rows < 1 ||
            static_cast<int64_t>(subset.col) + subset.cols > r.fileCols ||
            static_cast<int64_t>(subset.row) + subset.rows > r.fileRows)
            throw InputError(kExitInput, "--window " + std::to_string(subset.col) + " " +
                                             std::to_string(subset.row) + " " + std::to_string(subset.cols) +
                                             " " + std::to_string(subset.rows) + ": not inside " + what + ", " +
                                             std::to_string(r.fileCols) + " columns by " +
                                             std::to_string(r.fileRows) + " rows");
        window = Window{subset.col, subset.row, subset.cols, subset.rows};
    }
    r.colOffset = window.col;
    r.rowOffset = window.row;
    r.bands = static_cast<int>(bands.size());
    r.rows = window.rows;
    r.cols = window.cols;
    if (static_cast<int64_t>(r.bands) * r.rows * r.cols > std::numeric_limits<int32_t>::max())
        throw InputError(kExitInput, what + ": too many values (" + std::to_string(r.bands) + " x " +
                                         std::to_string(r.rows) + " x " + std::to_string(r.cols) + ")");
    r.driver = d->GetDriver()->GetDescription();
    r.geo = georeference(*d);
    if (r.geo.hasTransform) {
        // The window's first pixel is where the transform starts.
        double* t = r.geo.transform;
        t[0] += window.col * t[1] + window.row * t[2];
        t[3] += window.col * t[4] + window.row * t[5];
    }

    for (GDALRasterBand* b : bands) r.floatBand.push_back(isFloat(b->GetRasterDataType()));
    r.hasFloatBands = std::find(r.floatBand.begin(), r.floatBand.end(), true) != r.floatBand.end();
    if (r.hasFloatBands)
        r.scale = conversion.scale ? *conversion.scale
                                   : automaticScale(bandRanges(bands, conversion, r.floatBand, what, window));

    readCube(r, bands, conversion, path, role, false, window);
    if (std::find(r.valid.begin(), r.valid.end(), 1) == r.valid.end())
        throw InputError(kExitInput, what + " holds only nodata pixels");
    if (std::find(r.valid.begin(), r.valid.end(), 0) == r.valid.end()) r.valid.clear();
    return r;
}

Raster readMap(const std::string& path, const std::string& role, const Raster& image, bool noDataIsOutside) {
    QuietGdal quiet;
    Dataset d = open(path, role);
    Raster r;
    r.rows = d->GetRasterYSize();
    r.cols = d->GetRasterXSize();
    r.driver = d->GetDriver()->GetDescription();
    r.geo = georeference(*d);
    // The map covers the image's file; a window of the image is read from both.
    const int fileRows = image.fileRows > 0 ? image.fileRows : image.rows;
    const int fileCols = image.fileCols > 0 ? image.fileCols : image.cols;
    if (r.rows != fileRows || r.cols != fileCols)
        throw InputError(kExitInput, role + " " + quoted(path) + " is " + std::to_string(r.rows) + " x " +
                                         std::to_string(r.cols) + " pixels but the image is " +
                                         std::to_string(fileRows) + " x " + std::to_string(fileCols));
    const std::vector<GDALRasterBand*> bands = valueBands(*d);
    if (bands.size() != 1)
        throw InputError(kExitInput, role + " " + quoted(path) + " has " + std::to_string(bands.size()) +
                                         " bands; a one-band map is expected");
    double imageTransform[6];
    std::copy(image.geo.transform, image.geo.transform + 6, imageTransform);
    if (image.geo.hasTransform) {
        // Back to the file's own transform, which the map's should equal.
        imageTransform[0] -= image.colOffset * imageTransform[1] + image.rowOffset * imageTransform[2];
        imageTransform[3] -= image.colOffset * imageTransform[4] + image.rowOffset * imageTransform[5];
    }
    if (r.geo.hasTransform && image.geo.hasTransform && !sameTransform(r.geo.transform, imageTransform))
        throw InputError(kExitInput, role + " " + quoted(path) + " has the geotransform " +
                                         transformText(r.geo.transform) + " but the image has " +
                                         transformText(imageTransform));
    checkTypes(bands, path, role);
    r.bands = 1;
    r.rows = image.rows;
    r.cols = image.cols;
    r.colOffset = image.colOffset;
    r.rowOffset = image.rowOffset;
    readCube(r, bands, Conversion(), path, role, true,
             Window{image.colOffset, image.rowOffset, image.cols, image.rows});
    if (!noDataIsOutside || std::find(r.valid.begin(), r.valid.end(), 0) == r.valid.end()) r.valid.clear();
    return r;
}

std::vector<TableColour> tableColours(const std::vector<int>& labels) {
    std::set<int> present;
    for (int v : labels)
        if (v > 0 && v <= 65535) present.insert(v);
    std::vector<TableColour> table(present.empty() ? 1 : static_cast<size_t>(*present.rbegin()) + 1);
    int k = 0;
    for (int v : present) {
        const Rgb c = labelColour(k++);
        table[static_cast<size_t>(v)] = {c.r, c.g, c.b};
    }
    return table;
}

void printInfo(const std::string& path, std::ostream& out) {
    QuietGdal quiet;
    Dataset d = open(path, "file");
    const std::vector<GDALRasterBand*> bands = valueBands(*d);
    GDALDriver* driver = d->GetDriver();
    out << "file: " << path << "\n"
        << "driver: " << driver->GetDescription() << " (" << driver->GetMetadataItem(GDAL_DMD_LONGNAME)
        << ")\n"
        << "bands: " << bands.size() << "\n"
        << "rows: " << d->GetRasterYSize() << "\n"
        << "cols: " << d->GetRasterXSize() << "\n";
    std::string types;
    std::vector<bool> floats, all(bands.size(), true);
    for (size_t b = 0; b < bands.size(); ++b) {
        const std::string t =
            signedBytes(bands[b]) ? std::string("Int8") : GDALGetDataTypeName(bands[b]->GetRasterDataType());
        if (types.find(t) == std::string::npos) types += (types.empty() ? "" : ", ") + t;
        floats.push_back(isFloat(bands[b]->GetRasterDataType()));
    }
    out << "type: " << types << "\n";
    std::string nodata;
    for (size_t b = 0; b < bands.size(); ++b) {
        int has = 0;
        const double v = bands[b]->GetNoDataValue(&has);
        const int flags = bands[b]->GetMaskFlags();
        std::string one = has                       ? number(v)
                          : (flags & GMF_ALPHA)     ? "alpha band"
                          : (flags & GMF_ALL_VALID) ? "none"
                                                    : "mask band";
        if (nodata.find(one) == std::string::npos) nodata += (nodata.empty() ? "" : ", ") + one;
    }
    out << "nodata: " << nodata << "\n";
    const Georeference geo = georeference(*d);
    std::string crs = "none";
    if (!geo.crs.empty()) {
        OGRSpatialReference srs;
        if (srs.importFromWkt(geo.crs.c_str()) == OGRERR_NONE) {
            crs = srs.GetName() != nullptr ? srs.GetName() : "unnamed";
            srs.AutoIdentifyEPSG();
            const char* authority = srs.GetAuthorityName(nullptr);
            const char* code = srs.GetAuthorityCode(nullptr);
            if (authority != nullptr && code != nullptr)
                crs += std::string(" (") + authority + ":" + code + ")";
        }
    }
    out << "crs: " << crs << "\n";
    out << "geotransform: " << (geo.hasTransform ? transformText(geo.transform) : std::string("none"))
        << "\n";
    const std::vector<Range> ranges =
        bandRanges(bands, Conversion(), all, "file " + quoted(path), wholeBand(bands[0]));
    bool anyFloat = false;
    for (bool f : floats) anyFloat = anyFloat || f;
    if (anyFloat) {
        std::vector<Range> floatRanges;
        for (size_t b = 0; b < bands.size(); ++b)
            if (floats[b]) floatRanges.push_back(ranges[b]);
        out << "values: floating point, scaled by " << number(automaticScale(floatRanges))
            << " and rounded (automatic; --scale sets it)\n";
    } else {
        out << "values: integers, used unchanged\n";
    }
    for (size_t b = 0; b < bands.size(); ++b) {
        out << "band " << b + 1 << ": ";
        if (ranges[b].empty())
            out << "nodata only\n";
        else
            out << number(ranges[b].lo) << " " << number(ranges[b].hi) << "\n";
    }
}

}  // namespace dhc::io

namespace dhc::io {

double pixelArea(const Georeference& geo) {
    if (!geo.hasTransform || geo.crs.empty()) return 0;
    OGRSpatialReference srs;
    if (srs.importFromWkt(geo.crs.c_str()) != OGRERR_NONE || !srs.IsProjected()) return 0;
    const double metres = srs.GetLinearUnits();
    const double* t = geo.transform;
    const double area = std::fabs(t[1] * t[5] - t[2] * t[4]) * metres * metres;
    return std::isfinite(area) ? area : 0;
}

}  // namespace dhc::io
