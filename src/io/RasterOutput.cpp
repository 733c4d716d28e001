#include "io/RasterOutput.h"

#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <mutex>
#include <sstream>

#include "base/InputError.h"
#include "io/GdalSupport.h"

namespace dhc::io {
namespace {

using detail::Dataset;
using detail::lower;
using detail::QuietGdal;
using detail::quoted;

// The integer types a label map may take, narrowest first, with the largest
// label each holds.
struct LabelType {
    const char* name;
    GDALDataType type;
    double top;
};
constexpr LabelType kLabelTypes[] = {{"Byte", GDT_Byte, 255},
                                     {"Int16", GDT_Int16, 32767},
                                     {"UInt16", GDT_UInt16, 65535},
                                     {"Int32", GDT_Int32, 2147483647.0},
                                     {"UInt32", GDT_UInt32, 4294967295.0}};

// Whether the driver with these creation options would change the labels.
bool lossy(const std::string& driver, const CPLStringList& options) {
    if (driver == "JPEG") return true;
    const char* compress = options.FetchNameValue("COMPRESS");
    if (compress != nullptr && (EQUAL(compress, "JPEG") || EQUAL(compress, "WEBP"))) return true;
    const char* tiles = options.FetchNameValue("TILE_FORMAT");
    if (tiles != nullptr && !EQUAL(tiles, "PNG") && !EQUAL(tiles, "PNG8") && !EQUAL(tiles, "TIFF")) return true;
    const char* reversible = options.FetchNameValue("REVERSIBLE");
    if (driver == "JP2OpenJPEG" && (reversible == nullptr || !CPLTestBool(reversible))) return true;
    const char* lossless = options.FetchNameValue("LOSSLESS");
    return driver == "WEBP" && (lossless == nullptr || !CPLTestBool(lossless));
}

bool hasCap(GDALDriver* d, const char* cap) {
    const char* v = d->GetMetadataItem(cap);
    return v != nullptr && EQUAL(v, "YES");
}

// The extension of a name (lower case, without the dot), empty for none.
std::string extension(const std::string& name) {
    const size_t slash = name.find_last_of('/');
    const size_t dot = name.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
    return lower(name.substr(dot + 1));
}

bool declares(GDALDriver* d, const std::string& ext) {
    const char* list = d->GetMetadataItem(GDAL_DMD_EXTENSIONS);
    if (list == nullptr) return false;
    std::istringstream words(lower(list));
    for (std::string w; words >> w;)
        if (w == ext) return true;
    return false;
}

// The driver that writes rasters named *.ext: the first registered one (GTiff
// for .tif before COG).  Null when no raster driver writes it; vectorOnly
// then says whether a driver of another kind declares the extension.
GDALDriver* driverForExtension(const std::string& ext, bool& vectorOnly) {
    vectorOnly = false;
    GDALDriverManager* m = GetGDALDriverManager();
    for (int i = 0; i < m->GetDriverCount(); ++i) {
        GDALDriver* d = m->GetDriver(i);
        if (!declares(d, ext)) continue;
        if (hasCap(d, GDAL_DCAP_RASTER) && (hasCap(d, GDAL_DCAP_CREATE) || hasCap(d, GDAL_DCAP_CREATECOPY)))
            return d;
        vectorOnly = true;
    }
    return nullptr;
}

// The label types the driver creates, narrowest first; every one when it
// does not say.
std::vector<std::string> labelTypes(GDALDriver* d) {
    const char* list = d->GetMetadataItem(GDAL_DMD_CREATIONDATATYPES);
    std::vector<std::string> types;
    for (const LabelType& t : kLabelTypes) {
        if (list != nullptr) {
            std::istringstream words(list);
            bool found = false;
            for (std::string w; words >> w && !found;) found = w == t.name;
            if (!found) continue;
        }
        types.emplace_back(t.name);
    }
    return types;
}

const LabelType& labelType(const std::string& name) {
    for (const LabelType& t : kLabelTypes)
        if (name == t.name) return t;
    return kLabelTypes[0];
}

// The creation options of a label map: ours, then the user's, which win.
std::vector<std::string> creationOptions(const std::string& driver, int bands,
                                         const std::vector<std::string>& user) {
    CPLStringList options;
    if (driver == "GTiff") {
        options.SetNameValue("TILED", "YES");
        options.SetNameValue("COMPRESS", "DEFLATE");

        // The cuts are made band by band: written band after band.
        if (bands > 1) options.SetNameValue("INTERLEAVE", "BAND");
    } else if (driver == "JP2OpenJPEG") {
        // JPEG 2000 is lossy unless told otherwise.
        options.SetNameValue("REVERSIBLE", "YES");
        options.SetNameValue("QUALITY", "100");
    } else if (driver == "WEBP") {
        options.SetNameValue("LOSSLESS", "TRUE");
    } else if (driver == "GPKG") {
        // Its default tiles are JPEG where they are opaque.
        options.SetNameValue("TILE_FORMAT", "PNG");
    } else if (driver == "COG") {
        options.SetNameValue("COMPRESS", "DEFLATE");
        // Labels are classes: an overview pixel takes one of its pixels' labels.
        options.SetNameValue("OVERVIEW_RESAMPLING", "NEAREST");
        // Tiles small enough that a scene of a few hundred pixels has overviews.
        options.SetNameValue("BLOCKSIZE", "256");
    }
    for (const std::string& kv : user) {
        char* key = nullptr;
        const char* value = CPLParseNameValue(kv.c_str(), &key);
        if (key != nullptr && value != nullptr) options.SetNameValue(key, value);
        CPLFree(key);
    }
    std::vector<std::string> out;
    for (int i = 0; i < options.size(); ++i) out.emplace_back(options[i]);
    return out;
}

CPLStringList optionList(const std::vector<std::string>& options) {
    CPLStringList list;
    for (const std::string& o : options) list.AddString(o.c_str());
    return list;
}

// Removes the files a trial write left in GDAL's memory file system.
void removeTrial(const std::string& dir) {
    char** left = VSIReadDir(dir.c_str());
    for (char** f = left; f != nullptr && *f != nullptr; ++f) VSIUnlink((dir + "/" + *f).c_str());
    CSLDestroy(left);
    VSIRmdir(dir.c_str());
}

// ---------------------------------------------------------------------------
// A read-only dataset over LabelBands: what the driver copies from.

class SourceDataset;

class SourceBand : public GDALRasterBand {
  public:
    SourceBand(SourceDataset* ds, int b, GDALDataType type, const LabelBands& labels, int blockRows,
               const GDALColorTable* table)
        : labels_(labels), table_(table) {
        poDS = reinterpret_cast<GDALDataset*>(ds);
        nBand = b + 1;
        eDataType = type;
        nRasterXSize = labels.cols();
        nRasterYSize = labels.rows();
        nBlockXSize = labels.cols();
        nBlockYSize = blockRows;
        const std::string d = labels.description(b);
        if (!d.empty()) GDALRasterBand::SetDescription(d.c_str());
    }

    double GetNoDataValue(int* has) override {
        if (has != nullptr) *has = TRUE;
        return 0;
    }
    GDALColorTable* GetColorTable() override { return const_cast<GDALColorTable*>(table_); }
    GDALColorInterp GetColorInterpretation() override {
        return table_ != nullptr ? GCI_PaletteIndex : GCI_GrayIndex;
    }

  protected:
    // Windows at full resolution are computed straight into the caller's
    // buffer: GDAL's block cache would otherwise keep every band read.
    CPLErr IRasterIO(GDALRWFlag rw, int x, int y, int w, int h, void* data, int bufW, int bufH,
                     GDALDataType bufType, GSpacing pixelSpace, GSpacing lineSpace,
                     GDALRasterIOExtraArg* extra) override {
        if (rw != GF_Read || bufW != w || bufH != h)
            return GDALRasterBand::IRasterIO(rw, x, y, w, h, data, bufW, bufH, bufType, pixelSpace, lineSpace,
                                             extra);
        const size_t cols = static_cast<size_t>(nRasterXSize);
        std::vector<int> values(static_cast<size_t>(h) * cols);
        labels_.read(nBand - 1, y, h, values.data());
        for (int r = 0; r < h; ++r)
            GDALCopyWords64(values.data() + static_cast<size_t>(r) * cols + static_cast<size_t>(x), GDT_Int32,
                            sizeof(int), static_cast<GByte*>(data) + r * lineSpace, bufType,
                            static_cast<int>(pixelSpace), w);
        return CE_None;
    }

    CPLErr IReadBlock(int, int blockRow, void* image) override {
        const int row = blockRow * nBlockYSize;
        const int n = std::min(nBlockYSize, nRasterYSize - row);
        const size_t count = static_cast<size_t>(nBlockYSize) * static_cast<size_t>(nBlockXSize);
        std::vector<int> values(count, 0);
        labels_.read(nBand - 1, row, n, values.data());
        GDALCopyWords64(values.data(), GDT_Int32, sizeof(int), image, eDataType,
                        GDALGetDataTypeSizeBytes(eDataType), static_cast<GPtrDiff_t>(count));
        return CE_None;
    }

  private:
    const LabelBands& labels_;
    const GDALColorTable* table_;
};

class SourceDataset : public GDALDataset {
  public:
    SourceDataset(const LabelBands& labels, GDALDataType type, const MapInfo& info,
                  const GDALColorTable* table)
        : info_(info) {
        nRasterXSize = labels.cols();
        nRasterYSize = labels.rows();
        // Blocks of whole rows, about a million pixels each.
        const int blockRows =
            std::max(1, std::min(labels.rows(), static_cast<int>((1 << 20) / std::max(1, labels.cols()))));
        for (int b = 0; b < labels.count(); ++b)
            SetBand(b + 1, new SourceBand(this, b, type, labels, blockRows, table));
        if (!info.geo.crs.empty()) srs_.importFromWkt(info.geo.crs.c_str());
        srs_.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
        CPLStringList md;
        for (const std::string& m : info.geo.metadata) md.AddString(m.c_str());
        for (const std::string& m : info.metadata) {
            char* key = nullptr;
            const char* value = CPLParseNameValue(m.c_str(), &key);
            if (key != nullptr && value != nullptr) md.SetNameValue(key, value);
            CPLFree(key);
        }
        GDALDataset::SetMetadata(md.List());
    }

    CPLErr GetGeoTransform(double* t) override {
        if (!info_.geo.hasTransform) return CE_Failure;
        std::copy(info_.geo.transform, info_.geo.transform + 6, t);
        return CE_None;
    }
    const OGRSpatialReference* GetSpatialRef() const override {
        return info_.geo.crs.empty() ? nullptr : &srs_;
    }

  private:
    const MapInfo& info_;
    OGRSpatialReference srs_;
};

// Why a write failed: GDAL's message, or what the system said, with a full
// device named as such.
std::string writeFailure(const std::string& path, int savedErrno) {
    std::string gdal = CPLGetLastErrorMsg();
    const bool full = savedErrno == ENOSPC || gdal.find("No space left") != std::string::npos || [&] {
        struct statvfs fs;
        const size_t slash = path.find_last_of('/');
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        return ::statvfs(dir.c_str(), &fs) == 0 && fs.f_bavail == 0 && fs.f_blocks > 0;
    }();
    if (full) return "the device is full (" + std::string(std::strerror(ENOSPC)) + ")";
    while (!gdal.empty() && (gdal.back() == '\n' || gdal.back() == '.')) gdal.pop_back();
    if (!gdal.empty()) return gdal;
    return savedErrno != 0 ? std::strerror(savedErrno) : "GDAL could not write the file";
}

}  // namespace

LabelPlane::LabelPlane(const std::vector<int>& labels, int rows, int cols)
    : labels_(labels), rows_(rows), cols_(cols) {
    for (int v : labels) max_ = std::max(max_, v);
}

void LabelPlane::read(int, int row, int n, int* out) const {
    const size_t first = static_cast<size_t>(row) * static_cast<size_t>(cols_);
    std::copy(labels_.begin() + static_cast<std::ptrdiff_t>(first),
              labels_.begin() + static_cast<std::ptrdiff_t>(first + static_cast<size_t>(n) * cols_), out);
}

OutputFormat outputFormat(const std::string& option, const std::string& name, const std::string& format,
                          const std::vector<std::string>& creationOptions_, int bands) {
    OutputFormat out;
    // hraw by name or by --format needs no GDAL (whose drivers take memory to load).
    if (format.empty() ? extension(name).empty() || extension(name) == "hraw" : lower(format) == "hraw")
        return out;
    QuietGdal quiet;
    GDALDriver* driver = nullptr;
    // Messages name --format when it chose the driver, else the output.
    std::string who;
    if (!format.empty()) {
        who = "--format " + quoted(format);
        driver = GetGDALDriverManager()->GetDriverByName(format.c_str());
        if (driver == nullptr) throw InputError(kExitUsage, who + ": no such GDAL raster driver");
        if (!hasCap(driver, GDAL_DCAP_RASTER))
            throw InputError(kExitUsage, who + ": a vector driver; it cannot write a label map");
    } else {
        const std::string ext = extension(name);
        bool vectorOnly = false;
        driver = driverForExtension(ext, vectorOnly);
        who = option + " " + quoted(name);
        if (driver == nullptr) {
            if (vectorOnly)
                throw InputError(kExitUsage, who + ": ." + ext +
                                                 " is a vector format; a label map needs a raster format "
                                                 "(.tif, .png, ...) or --format");
            return out;  // no GDAL format: hraw, as always
        }
    }
    out.driver = driver->GetDescription();
    if (!hasCap(driver, GDAL_DCAP_CREATE) && !hasCap(driver, GDAL_DCAP_CREATECOPY))
        throw InputError(kExitUsage, who + ": GDAL cannot write files with this driver");
    out.types = labelTypes(driver);
    if (out.types.empty())
        throw InputError(kExitUsage, who + ": the " + out.driver + " driver writes no integer type");
    out.options = creationOptions(out.driver, bands, creationOptions_);
    if (lossy(out.driver, optionList(out.options)))
        throw InputError(kExitUsage, who + ": the " + out.driver +
                                         " driver compresses with loss here and would change the labels");
    {
        // The user's options against the list the driver declares (GDAL
        // itself only warns and goes on without them).
        const CPLStringList user = optionList(creationOptions_);
        CPLErrorReset();
        if (!user.empty() && !GDALValidateCreationOptions(driver, user.List()))
            throw InputError(kExitUsage, "--co: " + QuietGdal::lastError("an option the " + out.driver +
                                                                        " driver does not take"));
    }

    // A trial write in memory, with the bands and options of the real one,
    // shows what the metadata does not: a band count or an option the driver
    // refuses, and side files, which an output written under a temporary name
    // and renamed cannot have.
    static std::mutex trialLock;
    const std::lock_guard<std::mutex> lock(trialLock);
    const std::string dir = "/vsimem/dhc-format-probe";
    const std::string trial = dir + "/probe." + (extension(name).empty() ? "out" : extension(name));
    VSIMkdir(dir.c_str(), 0700);
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    Dataset probe(mem->Create("", 1, 1, bands, labelType(out.types.front()).type, nullptr));
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", "NO");
    CPLErrorReset();
    const CPLStringList list = optionList(out.options);
    Dataset written(driver->CreateCopy(trial.c_str(), probe.get(), FALSE, list.List(), nullptr, nullptr));
    const std::string reason = QuietGdal::lastError("GDAL could not write it");
    int count = 0;
    if (written) {
        char** files = written->GetFileList();
        count = CSLCount(files);
        CSLDestroy(files);
        written.reset();
    }
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", nullptr);
    char** left = VSIReadDir(dir.c_str());
    count = std::max(count, CSLCount(left));
    CSLDestroy(left);
    removeTrial(dir);
    if (count == 0) {
        const std::string what = bands == 1 ? std::string("a label map") : std::string("one band per cut");
        throw InputError(kExitUsage, who + ": the " + out.driver + " driver cannot write " + what + " (" +
                                         reason + ")");
    }
    if (count > 1)
        throw InputError(kExitUsage,
                         who + ": the driver writes more than one file; choose a one-file format such as GTiff");
    return out;
}

void writeLabels(const std::string& path, const std::string& target, const OutputFormat& format,
                 const LabelBands& bands, const MapInfo& info) {
    QuietGdal quiet;
    const std::string failed = "cannot write " + quoted(target);
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(format.driver.c_str());
    if (driver == nullptr) throw InputError(kExitInput, failed + ": no GDAL driver " + format.driver);
    const int top = bands.maxLabel();
    const LabelType* type = nullptr;
    for (const std::string& t : format.types)
        if (labelType(t).top >= top) {
            type = &labelType(t);
            break;
        }
    if (type == nullptr)
        throw InputError(kExitInput, failed + ": its largest label, " + std::to_string(top) +
                                         ", does not fit the types the " + format.driver +
                                         " driver writes (" + format.types.back() +
                                         " at most); --relabel numbers the classes from 1");
    GDALColorTable table;
    const bool withTable = bands.count() == 1 && (type->type == GDT_Byte || type->type == GDT_UInt16);
    if (withTable)
        for (int v = 0; v <= top; ++v) {
            const TableColour c = static_cast<size_t>(v) < info.colours.size() ? info.colours[v] : TableColour();
            const GDALColorEntry e{c.r, c.g, c.b, 255};
            table.SetColorEntry(v, &e);
        }
    SourceDataset source(bands, type->type, info, withTable ? &table : nullptr);
    // The driver keeps the blocks it has written in GDAL's cache until the
    // cache is full; with one band per cut that would be most of the file.
    // A cache of a few bands keeps the memory to what one band needs.
    const GIntBig cache = GDALGetCacheMax64();
    const GIntBig band = static_cast<GIntBig>(bands.rows()) * bands.cols() * GDALGetDataTypeSizeBytes(type->type);
    GDALSetCacheMax64(std::min(cache, std::max<GIntBig>(GIntBig{16} << 20, 4 * band)));
    struct RestoreCache {
        GIntBig size;
        ~RestoreCache() { GDALSetCacheMax64(size); }
    } restore{cache};

    CPLStringList options = optionList(format.options);
    if (format.driver == "GTiff" && options.FetchNameValue("BLOCKXSIZE") == nullptr &&
        options.FetchNameValue("BLOCKYSIZE") == nullptr) {
        // Tiles of 256 pixels, or of the map's size rounded up to 16 when
        // smaller: a small map with many bands is not mostly padding.
        const auto side = [](int n) { return std::to_string(std::min(256, (n + 15) / 16 * 16)); };
        options.SetNameValue("BLOCKXSIZE", side(bands.cols()).c_str());
        options.SetNameValue("BLOCKYSIZE", side(bands.rows()).c_str());
    }
    // Nothing but the file itself: no .aux.xml beside it.
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", "NO");
    std::vector<std::string> written;
    bool ok = false;
    int savedErrno = 0;
    {
        errno = 0;
        Dataset out(driver->CreateCopy(path.c_str(), &source, FALSE, options.List(), nullptr, nullptr));
        if (out) {
            char** files = out->GetFileList();
            for (char** f = files; f != nullptr && *f != nullptr; ++f) written.emplace_back(*f);
            CSLDestroy(files);
            ok = CPLGetLastErrorType() != CE_Failure && CPLGetLastErrorType() != CE_Fatal;
        }
        savedErrno = errno;
        // Closing flushes the last blocks: a failure there is a failed write.
        if (ok) {
            CPLErrorReset();
            errno = 0;
            out.reset();
            if (CPLGetLastErrorType() == CE_Failure || CPLGetLastErrorType() == CE_Fatal) {
                ok = false;
                savedErrno = errno;
            }
            // Some drivers (PNG) do not check their writes: a write that met a
            // full device still left its mark in errno.
            if (errno == ENOSPC) {
                ok = false;
                savedErrno = ENOSPC;
            }
        }
    }
    CPLSetThreadLocalConfigOption("GDAL_PAM_ENABLED", nullptr);
    const std::string error = ok ? std::string() : writeFailure(path, savedErrno);
    std::vector<std::string> sideFiles;
    for (const std::string& f : written)
        if (f != path) sideFiles.push_back(f);
    for (const char* ext : {".aux.xml", ".ovr", ".msk"}) std::remove((path + ext).c_str());
    for (const std::string& f : sideFiles) std::remove(f.c_str());
    if (!ok) throw InputError(kExitInput, failed + ": " + error);
    if (!sideFiles.empty())
        throw InputError(kExitInput, failed + ": the " + format.driver +
                                         " driver writes more than one file; choose a one-file format such as "
                                         "GTiff");
}

}  // namespace dhc::io
