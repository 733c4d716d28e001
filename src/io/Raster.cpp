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
#include <sstream>

#include "data/ImageFile.h"
#include "frontend/InputError.h"
#include "frontend/InputFile.h"

namespace dhc::io {
namespace {

constexpr int kMaxSide = 65535;  // coordinates are 16-bit, as for hraw files
constexpr size_t kChunkPixels = size_t{1} << 20;

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// GDAL's messages are collected, not printed: the tool says one line.
class QuietGdal {
  public:
    QuietGdal() {
        GDALAllRegister();
        CPLPushErrorHandler(CPLQuietErrorHandler);
        CPLErrorReset();
    }
    ~QuietGdal() { CPLPopErrorHandler(); }
    static std::string lastError() {
        std::string m = CPLGetLastErrorMsg();
        while (!m.empty() && (m.back() == '\n' || m.back() == '.')) m.pop_back();
        return m.empty() ? "not a raster GDAL can read" : m;
    }
};

struct DatasetCloser {
    void operator()(GDALDataset* d) const { GDALClose(d); }
};
using Dataset = std::unique_ptr<GDALDataset, DatasetCloser>;

Dataset open(const std::string& path, const std::string& role) {
    // Files in GDAL's memory exist only inside this process (the fuzz target
    // builds its rasters there); every other name must be a regular file.
    if (path.rfind("/vsimem/", 0) != 0) dhc::checkInputFile(path, role);
    Dataset d(GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    if (!d || d->GetRasterCount() == 0)
        throw InputError(kExitInput,
                         "cannot read " + role + " " + quoted(path) + ": " + QuietGdal::lastError());
    const int rows = d->GetRasterYSize(), cols = d->GetRasterXSize();
    if (rows <= 0 || cols <= 0 || rows > kMaxSide || cols > kMaxSide)
        throw InputError(kExitInput, role + " " + quoted(path) + ": image side over " +
                                         std::to_string(kMaxSide) + " (rows " + std::to_string(rows) +
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

// One band read chunk by chunk, with what says which of its pixels are nodata.
class BandReader {
  public:
    BandReader(GDALRasterBand* band, const Conversion& conversion) : band_(band) {
        GDALDataset* d = band->GetDataset();
        float_ = isFloat(band->GetRasterDataType());
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

    // Reads rows [row, row + n) into values; ok[i] = 0 marks nodata.
    void read(int row, int n, std::vector<double>& values, std::vector<uint8_t>& ok,
              const std::string& what) {
        const int cols = band_->GetXSize();
        const size_t count = static_cast<size_t>(n) * static_cast<size_t>(cols);
        values.resize(count);
        ok.assign(count, 1);
        CPLErrorReset();
        if (band_->RasterIO(GF_Read, 0, row, cols, n, values.data(), cols, n, GDT_Float64, 0, 0) != CE_None)
            throw InputError(kExitInput, "cannot read " + what + ": " + QuietGdal::lastError());
        if (mask_ != nullptr) {
            std::vector<uint8_t> m(count);
            if (mask_->RasterIO(GF_Read, 0, row, cols, n, m.data(), cols, n, GDT_Byte, 0, 0) != CE_None)
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
    GDALRasterBand* mask_ = nullptr;
    bool float_ = false;
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

struct Range {
    double lo = std::numeric_limits<double>::infinity();
    double hi = -std::numeric_limits<double>::infinity();
    bool empty() const { return lo > hi; }
};

// The range of each band's data values (nodata excluded).
std::vector<Range> bandRanges(const std::vector<GDALRasterBand*>& bands, const Conversion& conversion,
                              const std::vector<bool>& wanted, const std::string& what) {
    std::vector<Range> ranges(bands.size());
    const int rows = bands[0]->GetYSize(), cols = bands[0]->GetXSize();
    const int step = chunkRows(bands[0], rows, cols);
    std::vector<BandReader> readers;
    for (GDALRasterBand* b : bands) readers.emplace_back(b, conversion);
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

// The power of ten that makes the widest range span at least 10,000 steps.
double automaticScale(const std::vector<Range>& ranges) {
    double width = 0, magnitude = 0;
    for (const Range& r : ranges)
        if (!r.empty()) {
            width = std::max(width, r.hi - r.lo);
            magnitude = std::max({magnitude, std::fabs(r.lo), std::fabs(r.hi)});
        }
    if (width == 0) width = magnitude;  // constant bands: keep the digits of the value
    if (width == 0) return 1;
    return std::pow(10.0, std::ceil(4.0 - std::log10(width)));
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
              const std::string& path, const std::string& role, bool asMap) {
    const std::string what = role + " " + quoted(path);
    r.cube = ImageFile<int>::newCube(r.bands, r.rows, r.cols);
    r.valid.assign(static_cast<size_t>(r.rows) * static_cast<size_t>(r.cols), 1);
    std::vector<BandReader> readers;
    for (GDALRasterBand* b : bands) readers.emplace_back(b, conversion);
    const int step = chunkRows(bands[0], r.rows, r.cols);
    std::vector<double> values;
    std::vector<uint8_t> ok;
    // Per band: the range of the values read and of the integers they became,
    // so that a --scale that rounds a varying band to one value is refused.
    std::vector<double> lo(bands.size(), INFINITY), hi(bands.size(), -INFINITY);
    std::vector<int> loCell(bands.size(), std::numeric_limits<int>::max()),
        hiCell(bands.size(), std::numeric_limits<int>::min());
    constexpr double kMax = std::numeric_limits<int32_t>::max(), kMin = std::numeric_limits<int32_t>::min();
    for (int row = 0; row < r.rows; row += step) {
        const int n = std::min(step, r.rows - row);
        for (size_t b = 0; b < bands.size(); ++b) {
            readers[b].read(row, n, values, ok, what);
            const bool scaled = readers[b].isFloatBand() && !asMap;
            const std::string band = what + " band " + std::to_string(b + 1);
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
                    const double v = scaled ? std::round(values[k] * r.scale) : values[k];
                    if (v > kMax || v < kMin || v != std::floor(v)) {
                        const std::string at =
                            " at row " + std::to_string(row + i + 1) + ", column " + std::to_string(c + 1);
                        if (v != std::floor(v))
                            throw InputError(kExitInput,
                                             band + ": value " + number(v) + at + " is not a whole number");
                        if (scaled)
                            throw InputError(kExitInput, band + ": value " + number(values[k]) + at +
                                                             " scaled by " + number(r.scale) +
                                                             " does not fit a 32-bit integer (give a smaller "
                                                             "--scale)");
                        throw InputError(kExitInput, band + ": value " + number(v) + at +
                                                         " does not fit a 32-bit integer");
                    }
                    cell = static_cast<int>(v);
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
    }
    return *this;
}

void Raster::release() {
    ImageFile<int>::deleteCube(cube, bands, rows);
    cube = nullptr;
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

Raster readImage(const std::string& path, const std::string& role, const Conversion& conversion) {
    QuietGdal quiet;
    Dataset d = open(path, role);
    const std::vector<GDALRasterBand*> bands = valueBands(*d);
    checkTypes(bands, path, role);
    Raster r;
    r.bands = static_cast<int>(bands.size());
    r.rows = d->GetRasterYSize();
    r.cols = d->GetRasterXSize();
    if (static_cast<int64_t>(r.bands) * r.rows * r.cols > std::numeric_limits<int32_t>::max())
        throw InputError(kExitInput, role + " " + quoted(path) + ": too many values (" +
                                         std::to_string(r.bands) + " x " + std::to_string(r.rows) + " x " +
                                         std::to_string(r.cols) + ")");
    r.driver = d->GetDriver()->GetDescription();
    r.geo = georeference(*d);

    std::vector<bool> floats;
    for (GDALRasterBand* b : bands) floats.push_back(isFloat(b->GetRasterDataType()));
    r.hasFloatBands = std::find(floats.begin(), floats.end(), true) != floats.end();
    if (r.hasFloatBands)
        r.scale = conversion.scale
                      ? *conversion.scale
                      : automaticScale(bandRanges(bands, conversion, floats, role + " " + quoted(path)));

    readCube(r, bands, conversion, path, role, false);
    if (std::find(r.valid.begin(), r.valid.end(), 1) == r.valid.end())
        throw InputError(kExitInput, role + " " + quoted(path) + " holds only nodata pixels");
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
    if (r.rows != image.rows || r.cols != image.cols)
        throw InputError(kExitInput, role + " " + quoted(path) + " is " + std::to_string(r.rows) + " x " +
                                         std::to_string(r.cols) + " pixels but the image is " +
                                         std::to_string(image.rows) + " x " + std::to_string(image.cols));
    const std::vector<GDALRasterBand*> bands = valueBands(*d);
    if (bands.size() != 1)
        throw InputError(kExitInput, role + " " + quoted(path) + " has " + std::to_string(bands.size()) +
                                         " bands; a one-band map is expected");
    if (r.geo.hasTransform && image.geo.hasTransform && !sameTransform(r.geo.transform, image.geo.transform))
        throw InputError(kExitInput, role + " " + quoted(path) + " has the geotransform " +
                                         transformText(r.geo.transform) + " but the image has " +
                                         transformText(image.geo.transform));
    checkTypes(bands, path, role);
    r.bands = 1;
    readCube(r, bands, Conversion(), path, role, true);
    if (!noDataIsOutside || std::find(r.valid.begin(), r.valid.end(), 0) == r.valid.end()) r.valid.clear();
    return r;
}

std::string outputDriver(const std::string& name, const std::string& format) {
    if (format.empty()) {
        const std::string n = lower(name);
        return endsWith(n, ".tif") || endsWith(n, ".tiff") ? "GTiff" : std::string();
    }
    if (lower(format) == "hraw") return std::string();
    QuietGdal quiet;
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.c_str());
    if (driver == nullptr || driver->GetMetadataItem(GDAL_DCAP_RASTER) == nullptr)
        throw InputError(kExitUsage, "--format " + quoted(format) + ": no such GDAL raster driver");
    if (driver->GetMetadataItem(GDAL_DCAP_CREATE) == nullptr &&
        driver->GetMetadataItem(GDAL_DCAP_CREATECOPY) == nullptr)
        throw InputError(kExitUsage,
                         "--format " + quoted(format) + ": GDAL cannot write files with this driver");
    // A trial write in memory shows whether the driver needs side files,
    // which an output written under a temporary name and renamed cannot have.
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    Dataset probe(mem->Create("", 1, 1, 1, GDT_Byte, nullptr));
    const std::string trial = "/vsimem/dhc-format-probe";
    Dataset written(driver->CreateCopy(trial.c_str(), probe.get(), FALSE, nullptr, nullptr, nullptr));
    int count = 0;
    if (written) {
        char** list = written->GetFileList();
        count = CSLCount(list);
        CSLDestroy(list);
        written.reset();
    }
    char** left = VSIReadDir("/vsimem/");
    for (char** f = left; f != nullptr && *f != nullptr; ++f)
        if (std::string(*f).rfind("dhc-format-probe", 0) == 0)
            VSIUnlink(("/vsimem/" + std::string(*f)).c_str());
    CSLDestroy(left);
    if (count > 1)
        throw InputError(kExitUsage,
                         "--format " + quoted(format) +
                             ": the driver writes more than one file; choose a one-file format such as "
                             "GTiff");
    return driver->GetDescription();
}

void writeLabelMap(const std::string& path, const std::string& target, const std::string& driverName,
                   const std::vector<int>& labels, int rows, int cols, const Georeference& geo,
                   const std::vector<TableColour>& colours) {
    QuietGdal quiet;
    const int top = labels.empty() ? 0 : *std::max_element(labels.begin(), labels.end());
    const GDALDataType type = top <= 255 ? GDT_Byte : top <= 65535 ? GDT_UInt16 : GDT_UInt32;
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(driverName.c_str());
    const std::string failed = "cannot write " + quoted(target);
    if (mem == nullptr || driver == nullptr) throw InputError(kExitInput, failed + ": GDAL driver missing");
    Dataset image(mem->Create("", cols, rows, 1, type, nullptr));
    if (!image) throw InputError(kExitInput, failed + ": " + QuietGdal::lastError());
    GDALRasterBand* band = image->GetRasterBand(1);
    if (band->RasterIO(GF_Write, 0, 0, cols, rows, const_cast<int*>(labels.data()), cols, rows, GDT_Int32, 0,
                       0) != CE_None)
        throw InputError(kExitInput, failed + ": " + QuietGdal::lastError());
    band->SetNoDataValue(0);
    if (type != GDT_UInt32) {
        GDALColorTable table;
        for (int v = 0; v <= top; ++v) {
            const TableColour c =
                static_cast<size_t>(v) < colours.size() ? colours[static_cast<size_t>(v)] : TableColour();
            const GDALColorEntry e{c.r, c.g, c.b, 255};
            table.SetColorEntry(v, &e);
        }
        band->SetColorTable(&table);
        band->SetColorInterpretation(GCI_PaletteIndex);
    }
    if (geo.hasTransform) image->SetGeoTransform(const_cast<double*>(geo.transform));
    if (!geo.crs.empty()) image->SetProjection(geo.crs.c_str());
    if (!geo.metadata.empty()) {
        std::vector<char*> md;
        for (const std::string& m : geo.metadata) md.push_back(const_cast<char*>(m.c_str()));
        md.push_back(nullptr);
        image->SetMetadata(md.data());
    }

    CPLStringList options;
    if (driverName == "GTiff") {
        options.SetNameValue("TILED", "YES");
        options.SetNameValue("COMPRESS", "DEFLATE");
    }
    // Nothing but the file itself: no .aux.xml beside it.
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", "NO");
    std::vector<std::string> written;
    bool ok = false;
    {
        Dataset out(driver->CreateCopy(path.c_str(), image.get(), FALSE, options.List(), nullptr, nullptr));
        if (out) {
            char** files = out->GetFileList();
            for (char** f = files; f != nullptr && *f != nullptr; ++f) written.emplace_back(*f);
            CSLDestroy(files);
            ok = true;
        }
        // Closing flushes the last blocks: a failure there is a failed write.
        CPLErrorReset();
        out.reset();
        if (CPLGetLastErrorType() == CE_Failure || CPLGetLastErrorType() == CE_Fatal) ok = false;
    }
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", nullptr);
    const std::string error = QuietGdal::lastError();
    std::vector<std::string> sideFiles;
    for (const std::string& f : written)
        if (f != path) sideFiles.push_back(f);
    for (const char* ext : {".aux.xml", ".ovr", ".msk"}) std::remove((path + ext).c_str());
    for (const std::string& f : sideFiles) std::remove(f.c_str());
    if (!ok) throw InputError(kExitInput, failed + ": " + error);
    if (!sideFiles.empty())
        throw InputError(kExitInput,
                         failed + ": the " + driverName +
                             " driver writes more than one file; choose a one-file format such as GTiff");
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
        const std::string t = GDALGetDataTypeName(bands[b]->GetRasterDataType());
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
    const std::vector<Range> ranges = bandRanges(bands, Conversion(), all, "file " + quoted(path));
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
