// Rasters read through GDAL, as `dhc segment` reads them: a small raster is
// built in memory (/vsimem/) from the fuzzer's bytes (GeoTIFF or ENVI, any
// data type the reader takes and some it refuses, nodata values, per-dataset
// masks and alpha bands, NaN and infinite floats) and read with readImage
// under a random --scale / --nodata, then a one-band map of it with readMap.
//
// A refusal must be one line naming the file.  An accepted image must hold,
// at every pixel marked valid, the value this file converts independently
// (integers unchanged; floating point times the scale, rounded half away from
// zero); a pixel is invalid exactly when a band holds nodata, NaN or infinity
// there or the mask clears it.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "cpl_vsi.h"
#include "base/InputError.h"
#include "gdal_priv.h"
#include "io/Raster.h"

using namespace dhc::fuzz;

namespace {

const GDALDataType kTypes[] = {GDT_Byte,  GDT_UInt16,  GDT_Int16,   GDT_UInt32,
                               GDT_Int32, GDT_Float32, GDT_Float64, GDT_CInt16};

bool isFloat(GDALDataType t) {
    return t == GDT_Float32 || t == GDT_Float64;
}

// A value of the band's type from the fuzzer's bytes, with the edges of the
// type and the special floating-point values now and then.
double value(Bytes& in, GDALDataType t) {
    const int kind = in.range(0, 15);
    switch (t) {
        case GDT_Byte:
            return in.range(0, 255);
        case GDT_UInt16:
            return kind == 0 ? 65535 : in.range(0, 65535);
        case GDT_Int16:
            return kind == 0 ? -32768 : in.range(-32768, 32767);
        case GDT_UInt32:
            return kind == 0 ? 4294967295.0 : kind == 1 ? 2147483648.0 : in.range(0, 65535);
        case GDT_Int32:
            return kind == 0 ? -2147483648.0 : kind == 1 ? 2147483647.0 : in.range(-40000, 40000);
        default: {
            if (kind == 0) return std::nan("");
            if (kind == 1) return in.flag() ? INFINITY : -INFINITY;
            if (kind == 2) return in.flag() ? 1e30 : -1e-30;
            const double v = in.range(-30000, 30000) / static_cast<double>(1 << in.range(0, 16));
            return t == GDT_Float32 ? static_cast<float>(v) : v;
        }
    }
}

struct Built {
    std::vector<std::vector<double>> bands;  // row-major values as written
    std::vector<GDALDataType> types;
    std::vector<bool> hasNodata;
    std::vector<double> nodata;
    std::vector<uint8_t> mask;  // per pixel; empty when none
};

// Writes the raster to path; false when GDAL cannot make it (not a finding).
bool build(Bytes& in, const std::string& path, int rows, int cols, int bandCount, Built& b) {
    const bool envi = in.range(0, 3) == 0;
    GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(envi ? "ENVI" : "GTiff");
    if (driver == nullptr) return false;
    const GDALDataType type = kTypes[in.range(0, 7)];
    // An alpha band of 8 bits: GDAL masks by its values as they are.
    const bool alpha = !envi && type == GDT_Byte && bandCount > 1 && in.range(0, 3) == 0;
    char** options = nullptr;
    if (alpha) options = CSLSetNameValue(options, "ALPHA", "YES");
    GDALDataset* d = driver->Create(path.c_str(), cols, rows, bandCount, type, options);
    CSLDestroy(options);
    if (d == nullptr) return false;
    const bool datasetMask = !envi && !alpha && in.range(0, 3) == 0;
    bool ok = true;
    for (int k = 0; k < bandCount && ok; ++k) {
        GDALRasterBand* band = d->GetRasterBand(k + 1);
        std::vector<double> v(static_cast<size_t>(rows) * static_cast<size_t>(cols));
        for (double& x : v) x = value(in, type);
        const bool nd = in.range(0, 2) == 0;
        const double ndValue = nd ? (in.flag() && !v.empty() ? v[0] : value(in, type)) : 0.0;
        if (nd && band->SetNoDataValue(ndValue) != CE_None) ok = false;
        if (ok && band->RasterIO(GF_Write, 0, 0, cols, rows, v.data(), cols, rows, GDT_Float64, 0, 0) != CE_None)
            ok = false;
        // What the band holds may differ from what was written (types round).
        if (ok && band->RasterIO(GF_Read, 0, 0, cols, rows, v.data(), cols, rows, GDT_Float64, 0, 0) != CE_None)
            ok = false;
        b.bands.push_back(v);
        b.types.push_back(type);
    }

    if (ok && datasetMask) {
        if (d->CreateMaskBand(GMF_PER_DATASET) != CE_None) {
            ok = false;
        } else {
            b.mask.resize(static_cast<size_t>(rows) * static_cast<size_t>(cols));
            for (uint8_t& m : b.mask) m = in.range(0, 3) == 0 ? 0 : 255;
            GDALRasterBand* mask = d->GetRasterBand(1)->GetMaskBand();
            if (mask->RasterIO(GF_Write, 0, 0, cols, rows, b.mask.data(), cols, rows, GDT_Byte, 0, 0) != CE_None)
                ok = false;
        }
    }
    GDALClose(d);
    // The file as a reader sees it: a GeoTIFF and an ENVI header hold one
    // nodata value for all bands (the last one set); an alpha band masks and
    // carries no values.
    GDALDataset* r = ok ? GDALDataset::Open(path.c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY) : nullptr;
    if (r == nullptr) return false;
    std::vector<std::vector<double>> values;
    for (int k = 0; k < bandCount; ++k) {
        GDALRasterBand* band = r->GetRasterBand(k + 1);
        if (band->GetColorInterpretation() == GCI_AlphaBand) {
            if (!b.mask.empty()) continue;  // the first alpha band masks
            b.mask.resize(static_cast<size_t>(rows) * static_cast<size_t>(cols));
            for (size_t i = 0; i < b.mask.size(); ++i) b.mask[i] = b.bands[static_cast<size_t>(k)][i] == 0 ? 0 : 255;
            continue;
        }
        int has = 0;
        const double stored = band->GetNoDataValue(&has);
        values.push_back(b.bands[static_cast<size_t>(k)]);
        b.hasNodata.push_back(has != 0);
        b.nodata.push_back(stored);
    }
    GDALClose(r);
    b.bands = values;
    b.types.resize(b.bands.size());
    if (b.bands.empty()) return false;
    context() = std::string(envi ? "ENVI" : "GTiff") + " " + GDALGetDataTypeName(type) +
                (alpha ? " alpha" : "") + (datasetMask ? " mask" : "");
    for (size_t k = 0; k < b.bands.size(); ++k) {
        context() += "\nband " + std::to_string(k + 1) + (b.hasNodata[k] ? " nodata " + std::to_string(b.nodata[k]) : "") + ":";
        for (double v : b.bands[k]) context() += " " + std::to_string(v);
    }
    if (!b.mask.empty()) {
        context() += "\nmask:";
        for (uint8_t m : b.mask) context() += " " + std::to_string(m);
    }
    return ok;
}

void checkRefusal(const InputError& e, const std::string& path) {
    const std::string m = e.what();
    if (m.find('\n') != std::string::npos) broken("message spans lines: " + m);
    if (m.find(path) == std::string::npos) broken("message does not name the file: " + m);
}

void checkImage(const dhc::io::Raster& r, const Built& b, const dhc::io::Conversion& conversion) {
    const size_t pixels = static_cast<size_t>(r.rows) * static_cast<size_t>(r.cols);
    if (r.bands != static_cast<int>(b.bands.size())) broken("band count differs");
    for (size_t p = 0; p < pixels; ++p) {
        bool valid = b.mask.empty() || b.mask[p] != 0;
        for (size_t k = 0; k < b.bands.size(); ++k) {
            const double v = b.bands[k][p];
            const bool has = conversion.nodata.has_value() || b.hasNodata[k];
            const double nd = conversion.nodata ? *conversion.nodata : b.nodata[k];
            bool isNodata = has && v == nd;
            if (has && b.types[k] == GDT_Float32 && static_cast<float>(v) == static_cast<float>(nd))
                isNodata = true;
            if (!std::isfinite(v) || isNodata) valid = false;
        }
        const bool marked = r.valid.empty() || r.valid[p] != 0;
        if (marked != valid) broken("pixel " + std::to_string(p) + " marked valid " + std::to_string(marked));
        if (!valid) continue;
        for (size_t k = 0; k < b.bands.size(); ++k) {
            const double v = b.bands[k][p];
            const double expected = isFloat(b.types[k]) ? std::round(v * r.scale) : v;
            const int got = r.cube[k][p / static_cast<size_t>(r.cols)][p % static_cast<size_t>(r.cols)];
            if (static_cast<double>(got) != expected)
                broken("band " + std::to_string(k + 1) + " pixel " + std::to_string(p) + ": " +
                       std::to_string(got) + " instead of " + std::to_string(expected));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setUp();
    GDALAllRegister();
    CPLSetErrorHandler(CPLQuietErrorHandler);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes in(data, size);
    const int rows = in.range(1, 9), cols = in.range(1, 9), bandCount = in.range(1, 3);
    const std::string path = "/vsimem/fuzz/image.tif";
    Built b;
    dhc::io::Conversion conversion;
    if (in.range(0, 3) == 0) {
        static const double scales[] = {1, 1e-300, 0.001, 1e6, 1e300, 0.5};
        conversion.scale = scales[in.range(0, 5)];
    }
    if (in.range(0, 4) == 0) conversion.nodata = in.range(-2, 2);
    if (build(in, path, rows, cols, bandCount, b)) {
        try {
            const dhc::io::Raster image = dhc::io::readImage(path, "image", conversion);
            checkImage(image, b, conversion);
            // The first band again as a one-band map of the image.
            try {
                const dhc::io::Raster map = dhc::io::readMap(path, "mask", image, in.flag());
                if (map.bands != 1 || map.rows != image.rows || map.cols != image.cols)
                    broken("map of another shape");
            } catch (const InputError& e) {
                checkRefusal(e, path);
            }
        } catch (const InputError& e) {
            checkRefusal(e, path);
        }
    }
    VSIRmdirRecursive("/vsimem/fuzz");
    return 0;
}
