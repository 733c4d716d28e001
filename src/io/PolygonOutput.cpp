#include "io/PolygonOutput.h"

#include <cpl_string.h>
#include <cpl_vsi.h>
#include <gdal_alg.h>
#include <gdal_priv.h>
#include <ogrsf_frmts.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <map>
#include <sstream>
#include <unistd.h>

#include "base/InputError.h"
#include "io/GdalSupport.h"

namespace dhc::io {
namespace {

using detail::Dataset;
using detail::endsWith;
using detail::lower;
using detail::QuietGdal;
using detail::quoted;

std::string vectorExtension(const std::string& name) {
    const std::string n = lower(name);
    if (endsWith(n, ".shp.zip")) return "shp.zip";
    const size_t slash = n.find_last_of('/');
    const size_t dot = n.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return std::string();
    return n.substr(dot + 1);
}

bool hasCap(GDALDriver* d, const char* cap) {
    const char* v = d->GetMetadataItem(cap);
    return v != nullptr && EQUAL(v, "YES");
}

// A private directory of GDAL's memory file system, removed with what is in it.
class MemoryDir {
  public:
    MemoryDir() {
        static std::atomic<int> serial{0};
        path_ = "/vsimem/dhc-polygons-" + std::to_string(::getpid()) + "-" + std::to_string(serial++);
        VSIMkdir(path_.c_str(), 0700);
    }
    ~MemoryDir() {
        char** left = VSIReadDir(path_.c_str());
        for (char** f = left; f != nullptr && *f != nullptr; ++f) VSIUnlink((path_ + "/" + *f).c_str());
        CSLDestroy(left);
        VSIRmdir(path_.c_str());
    }
    MemoryDir(const MemoryDir&) = delete;
    MemoryDir& operator=(const MemoryDir&) = delete;
    const std::string& path() const { return path_; }
    int files() const {
        char** left = VSIReadDir(path_.c_str());
        const int n = CSLCount(left);
        CSLDestroy(left);
        return n;
    }

  private:
    std::string path_;
};

// The pieces of a label map: 8-connected pixels of one label, numbered from
// 1 in the raster order of their first pixels (0 outside).
struct Pieces {
    std::vector<int> id;      // per pixel
    std::vector<int> label;   // per piece (index id - 1)
    std::vector<long> area;   // pixels per piece
};

Pieces findPieces(const std::vector<int>& labels, int rows, int cols) {
    Pieces p;
    p.id.assign(labels.size(), 0);
    std::vector<size_t> stack;
    for (size_t start = 0; start < labels.size(); ++start) {
        if (labels[start] == 0 || p.id[start] != 0) continue;
        const int piece = static_cast<int>(p.label.size()) + 1;
        const int value = labels[start];
        p.label.push_back(value);
        long area = 0;
        p.id[start] = piece;
        stack.push_back(start);
        while (!stack.empty()) {
            const size_t k = stack.back();
            stack.pop_back();
            ++area;
            const int r = static_cast<int>(k / static_cast<size_t>(cols)), c = static_cast<int>(k % static_cast<size_t>(cols));
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int nr = r + dr, nc = c + dc;
                    if (nr < 0 || nr >= rows || nc < 0 || nc >= cols) continue;
                    const size_t n = static_cast<size_t>(nr) * static_cast<size_t>(cols) + static_cast<size_t>(nc);
                    if (p.id[n] != 0 || labels[n] != value) continue;
                    p.id[n] = piece;
                    stack.push_back(n);
                }
        }
        p.area.push_back(area);
    }
    return p;
}

// A one-band Int32 dataset in memory holding values.
Dataset memoryBand(const std::vector<int>& values, int rows, int cols, const Georeference& geo) {
    GDALDriver* mem = GetGDALDriverManager()->GetDriverByName("MEM");
    Dataset d(mem->Create("", cols, rows, 1, GDT_Int32, nullptr));
    if (!d) return d;
    if (d->GetRasterBand(1)->RasterIO(GF_Write, 0, 0, cols, rows, const_cast<int*>(values.data()), cols, rows,
                                      GDT_Int32, 0, 0) != CE_None)
        return Dataset();
    if (geo.hasTransform) d->SetGeoTransform(const_cast<double*>(geo.transform));
    return d;
}

}  // namespace

std::string polygonDriver(const std::string& option, const std::string& name) {
    QuietGdal quiet;
    const std::string who = option + " " + quoted(name);
    const std::string ext = vectorExtension(name);
    GDALDriverManager* m = GetGDALDriverManager();
    GDALDriver* driver = nullptr;
    for (int i = 0; i < m->GetDriverCount() && driver == nullptr && !ext.empty(); ++i) {
        GDALDriver* d = m->GetDriver(i);
        const char* list = d->GetMetadataItem(GDAL_DMD_EXTENSIONS);
        if (list == nullptr || !hasCap(d, GDAL_DCAP_VECTOR) || !hasCap(d, GDAL_DCAP_CREATE)) continue;
        std::istringstream words(lower(list));
        for (std::string w; words >> w;)
            if (w == ext) driver = d;
    }
    if (driver == nullptr)
        throw InputError(kExitUsage, who + ": no GDAL vector driver writes ." +
                                         (ext.empty() ? std::string("(no extension)") : ext) +
                                         " files (try .gpkg, .geojson, .fgb or .shz)");
    // A trial layer in memory shows whether the driver writes one file.
    MemoryDir dir;
    const std::string trial = dir.path() + "/probe." + ext;
    {
        Dataset d(driver->Create(trial.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (d) {
            OGRLayer* layer = d->CreateLayer("probe", nullptr, wkbPolygon, nullptr);
            if (layer != nullptr) {
                OGRFieldDefn field("label", OFTInteger);
                layer->CreateField(&field);
            }
        }
    }
    if (dir.files() > 1)
        throw InputError(kExitUsage, who + ": the " + std::string(driver->GetDescription()) +
                                         " driver writes more than one file; choose a one-file format such as "
                                         ".gpkg, or .shz for a zipped Shapefile");
    return driver->GetDescription();
}

std::string polygonFile(const std::string& name, const std::string& target, const std::string& driverName,
                        const PolygonSource& source) {
    QuietGdal quiet;
    const std::string failed = "cannot write " + quoted(target);
    auto fail = [&failed]() { return InputError(kExitInput, failed + ": " + QuietGdal::lastError("GDAL failed")); };
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(driverName.c_str());
    if (driver == nullptr) throw InputError(kExitInput, failed + ": no GDAL driver " + driverName);
    const int rows = source.rows, cols = source.cols;

    // The map, sieved when asked: the 0 pixels are neither merged nor absorb.
    std::vector<int> labels = *source.labels;
    if (source.sieve > 1) {
        Dataset map = memoryBand(labels, rows, cols, source.geo);
        std::vector<int> inside(labels.size());
        for (size_t i = 0; i < labels.size(); ++i) inside[i] = labels[i] != 0;
        Dataset mask = memoryBand(inside, rows, cols, source.geo);
        if (!map || !mask) throw fail();
        GDALRasterBand* band = map->GetRasterBand(1);
        if (GDALSieveFilter(band, mask->GetRasterBand(1), band, source.sieve, 8, nullptr, nullptr, nullptr) !=
            CE_None)
            throw fail();
        if (band->RasterIO(GF_Read, 0, 0, cols, rows, labels.data(), cols, rows, GDT_Int32, 0, 0) != CE_None)
            throw fail();
    }

    // Pieces and what is known of each.
    const Pieces pieces = findPieces(labels, rows, cols);
    const size_t count = pieces.label.size();
    std::vector<int> sorted = pieces.label;
    std::sort(sorted.begin(), sorted.end());
    sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
    const int bands = source.image != nullptr ? source.image->bands : 0;
    std::vector<double> sums(count * static_cast<size_t>(bands), 0.0);
    for (int b = 0; b < bands; ++b)
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) {
                const int id = pieces.id[static_cast<size_t>(r) * static_cast<size_t>(cols) + static_cast<size_t>(c)];
                if (id > 0) sums[static_cast<size_t>(id - 1) * bands + b] += source.image->cube[b][r][c];
            }
    const double pixelArea =
        source.geo.hasTransform
            ? std::fabs(source.geo.transform[1] * source.geo.transform[5] - source.geo.transform[2] * source.geo.transform[4])
            : 1.0;

    // The polygons of the pieces, each piece's number in a field.
    Dataset pieceMap = memoryBand(pieces.id, rows, cols, source.geo);
    std::vector<int> inside(pieces.id.size());
    for (size_t i = 0; i < inside.size(); ++i) inside[i] = pieces.id[i] != 0;
    Dataset pieceMask = memoryBand(inside, rows, cols, source.geo);
    GDALDriver* memory = GetGDALDriverManager()->GetDriverByName("Memory");
    if (!pieceMap || !pieceMask || memory == nullptr) throw fail();
    Dataset scratch(memory->Create("", 0, 0, 0, GDT_Unknown, nullptr));
    if (!scratch) throw fail();
    OGRLayer* raw = scratch->CreateLayer("pieces", nullptr, wkbPolygon, nullptr);
    if (raw == nullptr) throw fail();
    OGRFieldDefn pieceField("piece", OFTInteger);
    raw->CreateField(&pieceField);
    char** options = CSLSetNameValue(nullptr, "8CONNECTED", "8");
    const CPLErr made = GDALPolygonize(pieceMap->GetRasterBand(1), pieceMask->GetRasterBand(1), raw, 0, options,
                                       nullptr, nullptr);
    CSLDestroy(options);
    if (made != CE_None) throw fail();
    std::vector<OGRGeometry*> shape(count, nullptr);
    std::vector<std::unique_ptr<OGRFeature>> kept;
    raw->ResetReading();
    for (OGRFeature* f; (f = raw->GetNextFeature()) != nullptr;) {
        kept.emplace_back(f);
        const int id = f->GetFieldAsInteger(0);
        if (id < 1 || static_cast<size_t>(id) > count || shape[static_cast<size_t>(id - 1)] != nullptr)
            throw InputError(kExitInput, failed + ": the polygonizer did not give one polygon per piece");
        shape[static_cast<size_t>(id - 1)] = f->GetGeometryRef();
    }

    // The file, in memory under the target's own name.
    MemoryDir dir;
    const size_t slash = name.find_last_of('/');
    const std::string file = dir.path() + "/" + (slash == std::string::npos ? name : name.substr(slash + 1));
    {
        Dataset out(driver->Create(file.c_str(), 0, 0, 0, GDT_Unknown, nullptr));
        if (!out) throw fail();
        OGRSpatialReference srs;
        const bool hasSrs = !source.geo.crs.empty() && srs.importFromWkt(source.geo.crs.c_str()) == OGRERR_NONE;
        if (hasSrs) srs.SetAxisMappingStrategy(OAMS_TRADITIONAL_GIS_ORDER);
        OGRLayer* layer = out->CreateLayer("regions", hasSrs ? &srs : nullptr, wkbPolygon, nullptr);
        if (layer == nullptr) throw fail();
        OGRFieldDefn label("label", OFTInteger), klass("class", OFTInteger), pixels("area_px", OFTInteger64),
            area("area", OFTReal);
        for (OGRFieldDefn* f : {&label, &klass, &pixels, &area})
            if (layer->CreateField(f) != OGRERR_NONE) throw fail();
        for (int b = 0; b < bands; ++b) {
            OGRFieldDefn mean(("mean_" + std::to_string(b + 1)).c_str(), OFTReal);
            if (layer->CreateField(&mean) != OGRERR_NONE) throw fail();
        }
        for (const std::string& m : source.metadata) {
            char* key = nullptr;
            const char* value = CPLParseNameValue(m.c_str(), &key);
            if (key != nullptr && value != nullptr) {
                out->SetMetadataItem(key, value);
                layer->SetMetadataItem(key, value);
            }
            CPLFree(key);
        }
        if (layer->StartTransaction() != OGRERR_NONE) CPLErrorReset();  // drivers without transactions
        for (size_t p = 0; p < count; ++p) {
            OGRFeature feature(layer->GetLayerDefn());
            feature.SetField(0, pieces.label[p]);
            feature.SetField(1, static_cast<int>(std::lower_bound(sorted.begin(), sorted.end(), pieces.label[p]) -
                                                 sorted.begin()) +
                                    1);
            feature.SetField(2, static_cast<GIntBig>(pieces.area[p]));
            feature.SetField(3, static_cast<double>(pieces.area[p]) * pixelArea);
            for (int b = 0; b < bands; ++b) {
                const bool scaled = static_cast<size_t>(b) < source.image->floatBand.size() &&
                                    source.image->floatBand[static_cast<size_t>(b)];
                const double mean = sums[p * bands + b] / static_cast<double>(pieces.area[p]);
                feature.SetField(4 + b, scaled ? mean / source.image->scale : mean);
            }
            if (shape[p] != nullptr) feature.SetGeometry(shape[p]);
            if (layer->CreateFeature(&feature) != OGRERR_NONE) throw fail();
        }
        if (layer->CommitTransaction() != OGRERR_NONE) CPLErrorReset();
        CPLErrorReset();
        out.reset();
        if (CPLGetLastErrorType() == CE_Failure) throw fail();
    }
    if (dir.files() != 1)
        throw InputError(kExitInput, failed + ": the " + driverName + " driver wrote more than one file");
    vsi_l_offset size = 0;
    GByte* bytes = VSIGetMemFileBuffer(file.c_str(), &size, FALSE);
    if (bytes == nullptr) throw InputError(kExitInput, failed + ": GDAL wrote nothing");
    return std::string(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
}

}  // namespace dhc::io
