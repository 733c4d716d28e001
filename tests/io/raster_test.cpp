// GDAL rasters through the tool: inputs written here with GDAL's own API,
// outputs read back with it, labels compared with runs on the same data as
// hraw.

#include <cpl_vsi.h>
#include <gdal_priv.h>
#include <ogr_spatialref.h>
#include <ogrsf_frmts.h>

#include <cmath>
#include <csignal>
#include <sys/resource.h>
#include <functional>
#include <limits>
#include <set>
#include <map>

#include "ToolTest.h"

namespace tooltest {
namespace {

using Args = std::vector<std::string>;

constexpr int kSide = 64;
const double kTransform[6] = {500000, 30, 0, 9000000, 0, -30};

struct DatasetCloser {
    void operator()(GDALDataset* d) const { GDALClose(d); }
};
using Dataset = std::unique_ptr<GDALDataset, DatasetCloser>;

// What a test raster carries besides its values.
struct Layout {
    const char* driver = "GTiff";
    GDALDataType type = GDT_Int16;
    bool georeferenced = true;
    bool hasNodata = false;
    double nodata = 0;
    bool alpha = false;  // the last band is an alpha band
};

class Raster : public ToolTest {
  protected:
    static void SetUpTestSuite() { GDALAllRegister(); }

    void SetUp() override {
        ToolTest::SetUp();
        const Result run = dhc({"-o", "scene.hraw", "--truth", "truth.hraw", "--rows", std::to_string(kSide),
                                "--cols", std::to_string(kSide)},
                               DHC_SCENE_PATH);
        ASSERT_EQ(run.status, 0) << run.err;
        scene = readHraw("scene.hraw");
    }

    // Writes values (band-sequential, bands x rows x cols) as a raster.
    void writeRaster(const std::string& name, const Layout& layout, int bands, int rows, int cols,
                     const std::vector<double>& values) const {
        GDALDriver* driver = GetGDALDriverManager()->GetDriverByName(layout.driver);
        ASSERT_NE(driver, nullptr);
        Dataset d(driver->Create(path(name).c_str(), cols, rows, bands, layout.type, nullptr));
        ASSERT_TRUE(d);
        if (layout.georeferenced) {
            d->SetGeoTransform(const_cast<double*>(kTransform));
            OGRSpatialReference srs;
            srs.importFromEPSG(32725);
            d->SetSpatialRef(&srs);
            d->SetMetadataItem("SENSOR", "test scene");
        }
        for (int b = 0; b < bands; ++b) {
            GDALRasterBand* band = d->GetRasterBand(b + 1);
            if (layout.hasNodata) band->SetNoDataValue(layout.nodata);
            if (layout.alpha && b == bands - 1) band->SetColorInterpretation(GCI_AlphaBand);
            std::vector<double> plane(values.begin() + static_cast<long>(b) * rows * cols,
                                      values.begin() + static_cast<long>(b + 1) * rows * cols);
            ASSERT_EQ(band->RasterIO(GF_Write, 0, 0, cols, rows, plane.data(), cols, rows, GDT_Float64, 0, 0),
                      CE_None);
        }
    }

    // The scene's values, each transformed.
    std::vector<double> sceneValues(double factor = 1) const {
        std::vector<double> v;
        for (int32_t x : scene.values) v.push_back(x * factor);
        return v;
    }

    Dataset open(const std::string& name) const {
        return Dataset(GDALDataset::Open(path(name).c_str(), GDAL_OF_RASTER | GDAL_OF_READONLY));
    }

    // Band b (1-based) of a raster as integers.
    std::vector<int32_t> band(const std::string& name, int b = 1) const {
        Dataset d = open(name);
        if (!d) return {};
        const int rows = d->GetRasterYSize(), cols = d->GetRasterXSize();
        std::vector<int32_t> v(static_cast<size_t>(rows) * cols);
        if (d->GetRasterBand(b)->RasterIO(GF_Read, 0, 0, cols, rows, v.data(), cols, rows, GDT_Int32, 0, 0) !=
            CE_None)
            return {};
        return v;
    }

    // Runs the tool, expecting success; keeps the run in `last`.
    void segment(const Args& args) {
        last = dhc(args);
        EXPECT_EQ(last.status, 0) << last.err;
    }

    // Raster `name` lies where the test rasters lie (UTM zone 25S), shifted by
    // (col, row) pixels.
    void expectPlace(const std::string& name, int col = 0, int row = 0) const {
        SCOPED_TRACE(name);
        Dataset d = open(name);
        ASSERT_TRUE(d);
        double t[6], want[6];
        std::copy(kTransform, kTransform + 6, want);
        want[0] += col * kTransform[1];
        want[3] += row * kTransform[5];
        ASSERT_EQ(d->GetGeoTransform(t), CE_None);
        EXPECT_TRUE(std::equal(t, t + 6, want));
        OGRSpatialReference expected;
        expected.importFromEPSG(32725);
        ASSERT_NE(d->GetSpatialRef(), nullptr);
        EXPECT_TRUE(d->GetSpatialRef()->IsSame(&expected));
    }

    // The files of the scratch directory.
    Hraw scene;
    Result last;
};

// Two label maps are the same partition when their labels correspond one to one.
bool samePartition(const std::vector<int32_t>& a, const std::vector<int32_t>& b) {
    if (a.size() != b.size()) return false;
    std::map<int32_t, int32_t> ab, ba;
    for (size_t i = 0; i < a.size(); ++i) {
        if ((a[i] == 0) != (b[i] == 0)) return false;
        if (ab.emplace(a[i], b[i]).first->second != b[i]) return false;
        if (ba.emplace(b[i], a[i]).first->second != a[i]) return false;
    }
    return true;
}

TEST_F(Raster, FormatsGiveTheLabelsOfTheSameDataAsHraw) {
    ASSERT_EQ(dhc({"segment", "scene.hraw", "-o", "reference.hraw", "-q"}).status, 0);
    const std::string reference = read("reference.hraw");
    ASSERT_FALSE(reference.empty());

    Layout tiff;
    writeRaster("scene.tif", tiff, scene.bands, kSide, kSide, sceneValues());
    Layout envi;
    envi.driver = "ENVI";
    envi.type = GDT_UInt16;
    writeRaster("scene.envi", envi, scene.bands, kSide, kSide, sceneValues());
    // Quarters are exact in float32 and come back exactly with --scale 4.
    Layout floats;
    floats.type = GDT_Float32;
    writeRaster("quarters.tif", floats, scene.bands, kSide, kSide, sceneValues(0.25));
    write("scene.raw", read("scene.hraw"));

    const std::pair<Args, std::string> runs[] = {
        {{"scene.tif"}, "GeoTIFF"},
        {{"scene.envi"}, "ENVI"},
        {{"quarters.tif", "--scale", "4"}, "float GeoTIFF with --scale"},
        {{"scene.raw"}, "hraw recognised by its header, not its name"},
    };
    for (const auto& [input, what] : runs) {
        SCOPED_TRACE(what);
        Args args = {"segment", "-o", "labels.hraw", "-q"};
        args.insert(args.end(), input.begin(), input.end());
        segment(args);
        EXPECT_EQ(read("labels.hraw"), reference);
    }

    // The automatic scale: the power of ten that makes the widest band range
    // span at least 10,000 steps.  Thousandths of the scene's values come
    // back as its values times 100 when that range is between 0.1 and 1.
    int32_t widest = 0;
    for (int b = 0; b < scene.bands; ++b) {
        const auto first = scene.values.begin() + b * kSide * kSide;
        const auto [lo, hi] = std::minmax_element(first, first + kSide * kSide);
        widest = std::max(widest, *hi - *lo);
    }
    ASSERT_TRUE(widest >= 100 && widest < 1000) << widest;
    writeRaster("thousandths.tif", floats, scene.bands, kSide, kSide, sceneValues(0.001));
    Hraw hundredfold = scene;
    for (int32_t& v : hundredfold.values) v *= 100;
    writeHraw("hundredfold.hraw", hundredfold);
    segment({"segment", "hundredfold.hraw", "-o", "expected.hraw", "-q"});
    segment({"segment", "thousandths.tif", "-o", "labels.hraw"});
    EXPECT_NE(last.err.find("; floating-point values scaled by 100000\n"), std::string::npos) << last.err;
    EXPECT_EQ(read("labels.hraw"), read("expected.hraw"));
    segment({"info", "thousandths.tif"});
    EXPECT_NE(last.out.find("values: floating point, scaled by 100000 and rounded"), std::string::npos)
        << last.out;
}

TEST_F(Raster, LabelMapsKeepTheGeoreferenceAndThePictureColours) {
    writeRaster("scene.tif", Layout(), scene.bands, kSide, kSide, sceneValues());
    segment({"segment", "scene.hraw", "-o", "labels.hraw", "-q"});
    segment({"segment", "scene.tif", "-o", "labels.tif", "--png", "labels.png", "-q"});
    const std::vector<int32_t> labels = band("labels.tif");
    EXPECT_EQ(labels, readHraw("labels.hraw").values);

    expectPlace("labels.tif");
    Dataset out = open("labels.tif");
    ASSERT_TRUE(out);
    EXPECT_STREQ(out->GetMetadataItem("SENSOR"), "test scene");
    GDALRasterBand* b = out->GetRasterBand(1);
    EXPECT_EQ(b->GetRasterDataType(), GDT_Byte);  // a handful of labels
    int hasNodata = 0;
    EXPECT_EQ(b->GetNoDataValue(&hasNodata), 0.0);
    EXPECT_TRUE(hasNodata);
    EXPECT_STREQ(out->GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "DEFLATE");
    int bx = 0, by = 0;
    b->GetBlockSize(&bx, &by);
    EXPECT_TRUE(bx == by && bx % 16 == 0) << bx << " x " << by;  // tiles, not strips

    // Every pixel's colour-table entry is its colour in the picture.
    const GDALColorTable* table = b->GetColorTable();
    ASSERT_NE(table, nullptr);
    Dataset png = open("labels.png");
    ASSERT_TRUE(png);
    const std::vector<int32_t> red = band("labels.png", 1), green = band("labels.png", 2),
                               blue = band("labels.png", 3);
    ASSERT_EQ(red.size(), labels.size());
    for (size_t i = 0; i < labels.size(); ++i) {
        const GDALColorEntry* e = table->GetColorEntry(labels[i]);
        ASSERT_NE(e, nullptr);
        ASSERT_TRUE(e->c1 == red[i] && e->c2 == green[i] && e->c3 == blue[i]) << "pixel " << i;
    }

    // The fragment map goes the same way; nothing but the outputs is left.
    segment({"segment", "scene.tif", "-o", "classes.tiff", "--fragments", "fragments.tif", "--set",
             "UNSUPERVISED_MODE_CONF.Fragmentation=1", "-q"});
    expectPlace("fragments.tif");
    EXPECT_EQ(pieces(Hraw{1, kSide, kSide, band("classes.tiff")}),
              static_cast<int>(distinctLabels(band("fragments.tif")).size()));
    EXPECT_EQ(files(), (std::set<std::string>{"scene.hraw", "truth.hraw", "scene.tif", "labels.hraw",
                                              "labels.tif", "labels.png", "classes.tiff", "fragments.tif"}));
}

TEST_F(Raster, NodataPixelsAreOutsideTheRegionAndTheStatistics) {
    // The scene inside a 4-pixel border; the border's values are far from the
    // scene's, so that they would make a class of their own if counted.
    constexpr int kBorder = 4, kOuter = kSide + 2 * kBorder;
    segment({"segment", "scene.hraw", "-o", "inner.hraw", "-q"});
    const std::vector<int32_t> inner = readHraw("inner.hraw").values;
    auto framed = [&](int bands, const std::function<double(int band, int row, int col)>& border) {
        std::vector<double> v;
        for (int b = 0; b < bands; ++b)
            for (int r = 0; r < kOuter; ++r)
                for (int c = 0; c < kOuter; ++c) {
                    const int ir = r - kBorder, ic = c - kBorder;
                    const bool inside = ir >= 0 && ir < kSide && ic >= 0 && ic < kSide;
                    v.push_back(inside && b < scene.bands ? scene.values[(b * kSide + ir) * kSide + ic]
                                                          : border(b, r, c));
                }
        return v;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    Layout withNodata;
    withNodata.hasNodata = true;
    withNodata.nodata = -9999;
    // Nodata in one band is enough: the left half of the border in band 1, the right half in band 3.
    writeRaster("nodata.tif", withNodata, scene.bands, kOuter, kOuter,
                framed(scene.bands, [](int b, int, int c) {
                    return (c < kOuter / 2) == (b == 0) || (c >= kOuter / 2) == (b == 2) ? -9999 : 3000;
                }));
    Layout floats;
    floats.type = GDT_Float32;
    writeRaster("nan.tif", floats, scene.bands, kOuter, kOuter,
                framed(scene.bands, [nan](int, int, int) { return nan; }));
    // A --nodata value a Float32 band cannot hold: its pixels hold the nearest float.
    writeRaster("float32.tif", floats, scene.bands, kOuter, kOuter,
                framed(scene.bands, [](int, int, int) { return -9999.9; }));
    writeRaster("zeros.tif", Layout(), scene.bands, kOuter, kOuter,
                framed(scene.bands, [](int, int, int) { return 0; }));
    Hraw zeros{scene.bands, kOuter, kOuter, {}};
    for (double v : framed(scene.bands, [](int, int, int) { return 0; }))
        zeros.values.push_back(static_cast<int32_t>(v));
    writeHraw("zeros.hraw", zeros);
    Layout alpha;
    alpha.alpha = true;
    alpha.type = GDT_Byte;
    writeRaster("alpha.tif", alpha, scene.bands + 1, kOuter, kOuter,
                framed(scene.bands + 1, [&](int b, int r, int c) {
                    const bool border =
                        r < kBorder || r >= kBorder + kSide || c < kBorder || c >= kBorder + kSide;
                    return b == scene.bands ? (border ? 0 : 255) : 250;
                }));

    const std::pair<Args, std::string> runs[] = {
        {{"nodata.tif"}, "nodata value, in one band per pixel"},
        {{"nan.tif", "--scale", "1"}, "NaN"},
        {{"float32.tif", "--scale", "1", "--nodata", "-9999.9"}, "--nodata on Float32"},
        {{"zeros.tif", "--nodata", "0"}, "--nodata"},
        {{"alpha.tif"}, "alpha band"},
        {{"zeros.hraw", "--nodata", "0"}, "--nodata on hraw"},
    };
    for (const auto& [input, what] : runs) {
        SCOPED_TRACE(what);
        Args args = {"segment", "-o", "labels.tif"};
        args.insert(args.end(), input.begin(), input.end());
        segment(args);
        EXPECT_NE(last.err.find(std::to_string(kSide * kSide) + " pixels in the region of interest"),
                  std::string::npos)
            << last.err;
        const std::vector<int32_t> labels = band("labels.tif");
        ASSERT_EQ(labels.size(), static_cast<size_t>(kOuter * kOuter));
        std::vector<int32_t> cropped;
        for (int r = 0; r < kOuter; ++r)
            for (int c = 0; c < kOuter; ++c) {
                const bool inside =
                    r >= kBorder && r < kBorder + kSide && c >= kBorder && c < kBorder + kSide;
                if (inside)
                    cropped.push_back(labels[r * kOuter + c]);
                else
                    ASSERT_EQ(labels[r * kOuter + c], 0) << "row " << r << ", col " << c;
            }
        EXPECT_TRUE(samePartition(cropped, inner));
    }

    // A mask through GDAL is combined with the nodata pixels.
    std::vector<double> half;
    for (int r = 0; r < kOuter; ++r)
        for (int c = 0; c < kOuter; ++c) half.push_back(r < kOuter / 2 ? 1 : 0);
    Layout byteMap;
    byteMap.type = GDT_Byte;
    writeRaster("mask.tif", byteMap, 1, kOuter, kOuter, half);
    segment({"segment", "nodata.tif", "--mask", "mask.tif", "-o", "masked.tif"});
    EXPECT_NE(
        last.err.find(std::to_string((kOuter / 2 - kBorder) * kSide) + " pixels in the region of interest"),
        std::string::npos)
        << last.err;
}

class BadRaster : public Raster {
  protected:
    void expectRefused(const Args& args, const std::string& message, int status) {
        SCOPED_TRACE(message);
        const std::set<std::string> before = files();
        const Result run = dhc(args);
        EXPECT_EQ(run.status, status);
        EXPECT_EQ(run.err, "dhc: " + message + "\n");
        EXPECT_EQ(files(), before);  // no output, no temporary or side file
    }
};

TEST_F(BadRaster, EveryNewRowOfTheReadmeTable) {
    writeRaster("img.tif", Layout(), 2, 6, 6, std::vector<double>(72, 7));
    writeRaster("short.tif", Layout(), 1, 5, 6, std::vector<double>(30, 1));
    Layout shifted;
    writeRaster("shifted.tif", shifted, 1, 6, 6, std::vector<double>(36, 1));
    {
        Dataset d(GDALDataset::Open(path("shifted.tif").c_str(), GDAL_OF_RASTER | GDAL_OF_UPDATE));
        double t[6] = {500030, 30, 0, 9000000, 0, -30};
        d->SetGeoTransform(t);
    }
    write("junk.tif", "this is not a raster");
    Layout complex;
    complex.type = GDT_CInt16;
    writeRaster("complex.tif", complex, 1, 6, 6, std::vector<double>(36, 1));
    Layout nodata;
    nodata.hasNodata = true;
    nodata.nodata = 5;
    writeRaster("empty.tif", nodata, 1, 6, 6, std::vector<double>(36, 5));
    Layout unsigned32;
    unsigned32.type = GDT_UInt32;
    std::vector<double> big(36, 1);
    big[7] = 3000000000.0;
    writeRaster("u32.tif", unsigned32, 1, 6, 6, big);
    Layout floats;
    floats.type = GDT_Float64;
    writeRaster("huge.tif", floats, 1, 6, 6, std::vector<double>(36, 1e20));
    std::vector<double> quarters;
    for (int i = 0; i < 36; ++i) quarters.push_back(0.25 * (1 + i % 14));
    writeRaster("tiny.tif", floats, 1, 6, 6, quarters);

    const std::pair<Args, std::string> usage[] = {
        {{"segment", "img.tif", "-o", "labels.tif", "--format", "Nope"},
         "--format \"Nope\": no such GDAL raster driver"},
        {{"segment", "img.tif", "-o", "labels.envi", "--format", "ENVI"},
         "--format \"ENVI\": the driver writes more than one file; choose a one-file format such as GTiff"},
        {{"segment", "img.tif", "-o", "labels.tif", "--scale", "0"}, "--scale 0: must be positive"},
        {{"segment", "img.tif", "-o", "labels.tif", "--nodata", "x"}, "--nodata x: must be a number"},
    };
    for (const auto& [args, message] : usage) expectRefused(args, message, 2);

    auto seg = [](const std::string& image, const Args& extra = {}) {
        Args args = {"segment", image, "-o", "labels.tif"};
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    };
    const std::pair<Args, std::string> input[] = {
        {seg("img.tif", {"--mask", "short.tif"}),
         "mask \"short.tif\" is 5 x 6 pixels but the image is 6 x 6"},
        {seg("img.tif", {"--init", "shifted.tif"}),
         "initial segmentation \"shifted.tif\" has the geotransform 500030 30 0 9000000 0 -30 but the image "
         "has "
         "500000 30 0 9000000 0 -30"},
        {seg("complex.tif"),
         "image \"complex.tif\" band 1 holds CInt16 values; dhc reads integers of up to 32 bits and floating "
         "point"},
        {seg("empty.tif"), "image \"empty.tif\" holds only nodata pixels"},
        {seg("u32.tif"),
         "image \"u32.tif\" band 1: value 3000000000 at row 2, column 2 does not fit a 32-bit integer"},
        {seg("huge.tif", {"--scale", "1"}),
         "image \"huge.tif\" band 1: value 1e+20 at row 1, column 1 scaled by 1 does not fit a 32-bit "
         "integer (give "
         "a smaller --scale)"},
        {seg("img.tif", {"--nodata", "7"}), "image \"img.tif\" holds only nodata pixels"},
        {seg("tiny.tif", {"--scale", "1e-300"}),
         "image \"tiny.tif\" band 1: its values from 0.25 to 3.5 scaled by 1e-300 all round to 0 (give a "
         "larger --scale)"},
    };
    for (const auto& [args, message] : input) expectRefused(args, message, 1);

    // GDAL's own reason follows the file's name.
    const std::set<std::string> before = files();
    const Result junk = dhc(seg("junk.tif"));
    EXPECT_EQ(junk.status, 1);
    EXPECT_EQ(junk.err.rfind("dhc: cannot read image \"junk.tif\": ", 0), 0u) << junk.err;
    EXPECT_EQ(std::count(junk.err.begin(), junk.err.end(), '\n'), 1);
    EXPECT_EQ(files(), before);
}

// An interrupted run leaves neither the GeoTIFF, its temporary file nor a side file.
TEST_F(BadRaster, InterruptedRunLeavesNothing) {
    ASSERT_EQ(dhc({"-o", "big.hraw", "--rows", "512", "--cols", "512"}, DHC_SCENE_PATH).status, 0);
    const Hraw big = readHraw("big.hraw");
    std::vector<double> values(big.values.begin(), big.values.end());
    writeRaster("big.tif", Layout(), big.bands, big.rows, big.cols, values);
    const int fifo = openFifo("fifo");
    ASSERT_GE(fifo, 0);
    const std::set<std::string> before = files();
    const pid_t pid =
        start({"segment", "big.tif", "-o", "labels.tif", "--png", "labels.png", "--levels", "fifo", "-q"});
    ASSERT_GT(pid, 0);
    // Stopped in the write of the levels: the GeoTIFF is written, under its temporary name.
    ASSERT_TRUE(waitUntilPipeFull(fifo, pid));
    EXPECT_EQ(files().size(), before.size() + 3);  // .stdout, .stderr, the temporary directory
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ::close(fifo);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    std::set<std::string> after = files();
    after.erase(".stdout");
    after.erase(".stderr");
    EXPECT_EQ(after, before);
}

// ---------------------------------------------------------------------------
// Outputs through GDAL's drivers.

// The settings of the output tests: a handful of classes whatever the defaults.
const Args kFewClasses = {"--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=5", "--set",
                          "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05"};

Args with(Args args, const Args& more) {
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST_F(Raster, EveryRasterOutputGoesThroughTheDriverOfItsName) {
    writeRaster("scene.tif", Layout(), scene.bands, kSide, kSide, sceneValues());
    segment(with({"segment", "scene.tif", "-o", "labels.hraw", "--levels", "levels.hraw", "-q"}, kFewClasses));
    const Hraw labels = readHraw("labels.hraw"), stack = readHraw("levels.hraw");
    ASSERT_GE(stack.bands, 3);
    segment(with({"segment", "scene.tif", "-o", "labels.png", "--levels", "levels.tif", "-q"}, kFewClasses));

    // -o x.png is a PNG with the labels and a colour table up to the largest label.
    Dataset png = open("labels.png");
    ASSERT_TRUE(png);
    EXPECT_STREQ(png->GetDriver()->GetDescription(), "PNG");
    EXPECT_EQ(band("labels.png"), labels.values);
    const int top = *std::max_element(labels.values.begin(), labels.values.end());
    ASSERT_NE(png->GetRasterBand(1)->GetColorTable(), nullptr);
    EXPECT_EQ(png->GetRasterBand(1)->GetColorTable()->GetColorEntryCount(), top + 1);

    // --levels x.tif: one band per cut, the hraw stack's bands, the image's place on the ground.
    Dataset levels = open("levels.tif");
    ASSERT_TRUE(levels);
    ASSERT_EQ(levels->GetRasterCount(), stack.bands);
    for (int b = 0; b < stack.bands; ++b) {
        SCOPED_TRACE("band " + std::to_string(b + 1));
        const std::vector<int32_t> want(stack.values.begin() + b * kSide * kSide,
                                        stack.values.begin() + (b + 1) * kSide * kSide);
        EXPECT_EQ(band("levels.tif", b + 1), want);
        EXPECT_EQ(levels->GetRasterBand(b + 1)->GetDescription(),
                  "cut after " + std::to_string(b) + (b == 1 ? " split, " : " splits, ") +
                      std::to_string(distinctLabels(want).size()) + (b == 0 ? " class" : " classes"));
    }
    expectPlace("levels.tif");

    // Every raster says what made it and how.
    for (const char* name : {"labels.png", "levels.tif"}) {
        SCOPED_TRACE(name);
        Dataset d = open(name);
        ASSERT_TRUE(d);
        if (std::string(name) != "labels.png") {
            EXPECT_STREQ(d->GetMetadataItem("DHC_VERSION"), DHC_VERSION_TEXT);
            EXPECT_STREQ(d->GetMetadataItem("TIFFTAG_SOFTWARE"), "dhc " DHC_VERSION_TEXT);
            const char* settings = d->GetMetadataItem("DHC_SETTINGS");
            ASSERT_NE(settings, nullptr);
            EXPECT_NE(std::string(settings).find("\"maxNumberOfClasses\":5"), std::string::npos) << settings;
        }
    }

    // --format and --co reach every raster output; another driver by extension.
    segment(with({"segment", "scene.tif", "-o", "labels.img", "-q"}, kFewClasses));
    segment(with({"segment", "scene.tif", "-o", "labels.tif", "--levels", "levels.tiff", "--co", "COMPRESS=LZW", "-q"},
                 kFewClasses));
    Dataset hfa = open("labels.img");
    ASSERT_TRUE(hfa);
    EXPECT_STREQ(hfa->GetDriver()->GetDescription(), "HFA");
    EXPECT_EQ(band("labels.img"), labels.values);
    Dataset lzw = open("levels.tiff");
    ASSERT_TRUE(lzw);
    EXPECT_STREQ(lzw->GetMetadataItem("COMPRESSION", "IMAGE_STRUCTURE"), "LZW");
    EXPECT_EQ(band("levels.tiff", stack.bands), band("labels.img"));
}

TEST_F(Raster, InputsThroughVirtualFileSystemsBandsAndWindows) {
    writeRaster("scene.tif", Layout(), scene.bands, kSide, kSide, sceneValues());
    segment(with({"segment", "scene.tif", "-o", "plain.hraw", "-q"}, kFewClasses));

    // The same file inside a zip archive, written through GDAL's own /vsizip/.
    {
        const std::string bytes = read("scene.tif");
        VSILFILE* f = VSIFOpenL(("/vsizip/" + path("scene.zip") + "/scene.tif").c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(VSIFWriteL(bytes.data(), 1, bytes.size(), f), bytes.size());
        VSIFCloseL(f);
    }
    segment(with({"segment", "/vsizip/scene.zip/scene.tif", "-o", "zipped.hraw", "-q"}, kFewClasses));
    EXPECT_EQ(read("zipped.hraw"), read("plain.hraw"));
    const Result missing = dhc({"segment", "/vsizip/scene.zip/none.tif", "-o", "x.hraw", "-q"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err,
              "dhc: cannot open image \"/vsizip/scene.zip/none.tif\": no such file in GDAL's virtual file "
              "systems\n");

    // --bands and --window give what a file of just those bands and pixels gives;
    // the outputs lie where the window lies, and a mask is read through the window.
    constexpr int kCol = 5, kRow = 9, kCols = 40, kRows = 30;
    ASSERT_GE(scene.bands, 3);
    std::vector<double> part;
    for (int b : {3, 1})
        for (int r = kRow; r < kRow + kRows; ++r)
            for (int c = kCol; c < kCol + kCols; ++c) part.push_back(scene.values[(b - 1) * kSide * kSide + r * kSide + c]);
    writeRaster("part.tif", Layout(), 2, kRows, kCols, part);
    std::vector<double> ones(kSide * kSide, 1);
    writeRaster("mask.tif", Layout(), 1, kSide, kSide, ones);
    segment(with({"segment", "part.tif", "-o", "part.hraw", "-q"}, kFewClasses));
    segment(with({"segment", "scene.tif", "-o", "window.tif", "--bands", "3,1", "--window", std::to_string(kCol),
                  std::to_string(kRow), std::to_string(kCols), std::to_string(kRows), "--mask", "mask.tif", "-q"},
                 kFewClasses));
    EXPECT_EQ(band("window.tif"), readHraw("part.hraw").values);
    Dataset window = open("window.tif");
    ASSERT_TRUE(window);
    EXPECT_EQ(window->GetRasterXSize(), kCols);
    EXPECT_EQ(window->GetRasterYSize(), kRows);
    expectPlace("window.tif", kCol, kRow);

    const std::pair<Args, std::string> refused[] = {
        {{"--bands", "1,9"}, "dhc: --bands: image \"scene.tif\" has no band 9 (it has " +
                                 std::to_string(scene.bands) + ")\n"},
        {{"--window", "60", "0", "10", "10"},
         "dhc: --window 60 0 10 10: not inside image \"scene.tif\", 64 columns by 64 rows\n"},
    };
    for (const auto& [extra, message] : refused) {
        const Result run = dhc(with({"segment", "scene.tif", "-o", "x.tif", "-q"}, extra));
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, message);
    }
    const Result hraw = dhc({"segment", "scene.hraw", "-o", "x.tif", "--bands", "1", "-q"});
    EXPECT_EQ(hraw.status, 2);
    EXPECT_EQ(hraw.err, "dhc: --bands reads through GDAL: \"scene.hraw\" is an hraw file, which is read whole\n");
}

// The maps beside a floating-point image hold labels: the image's scale is
// not theirs, and they give what the same maps give beside the hraw image.
TEST_F(Raster, FloatMapsBesideAScaledFloatImageKeepTheirValues) {
    Layout floats;
    floats.type = GDT_Float32;
    writeRaster("quarters.tif", floats, scene.bands, kSide, kSide, sceneValues(0.25));
    Hraw mask{1, kSide, kSide, {}}, init = mask, truth = readHraw("truth.hraw");
    for (int i = 0; i < kSide * kSide; ++i) {
        mask.values.push_back(i % kSide < 6 ? 0 : 1);
        init.values.push_back(i / kSide < 4 ? 0 : 1 + (i % kSide >= kSide / 2));
    }
    for (const auto& [name, map] : {std::pair<std::string, const Hraw&>{"mask", mask}, {"init", init}, {"gt", truth}}) {
        writeHraw(name + ".hraw", map);
        writeRaster(name + ".tif", floats, 1, kSide, kSide, std::vector<double>(map.values.begin(), map.values.end()));
    }
    const Args supervised = {"--set", "SEGM_MAIN_CONFIGURATION.SupervisedMode=1",
                             "--set", "SUPERVISED_MODE_CONF.NumberOfClasses=4",
                             "--set", "SUPERVISED_MODE_CONF.StructureLevels={2 2 2 2}",
                             "--set", "SUPERVISED_MODE_CONF.StructurePaths={0 0 0 1 1 0 1 1}"};
    // Map options and names, and the settings of the run.
    const std::pair<Args, Args> runs[] = {{{"--mask", "mask", "--init", "init"}, {}}, {{"--gt", "gt"}, supervised}};
    for (const auto& [maps, settings] : runs) {
        SCOPED_TRACE(maps[0]);
        Args fromHraw = with({"segment", "scene.hraw", "-o", "expected.hraw", "-q"}, settings);
        Args fromFloat = with({"segment", "quarters.tif", "--scale", "4", "-o", "labels.hraw", "-q"}, settings);
        for (size_t k = 0; k + 1 < maps.size(); k += 2) {
            fromHraw = with(fromHraw, {maps[k], maps[k + 1] + ".hraw"});
            fromFloat = with(fromFloat, {maps[k], maps[k + 1] + ".tif"});
        }
        segment(with(fromHraw, kFewClasses));
        segment(with(fromFloat, kFewClasses));
        EXPECT_EQ(read("labels.hraw"), read("expected.hraw"));
    }
    // A label is a whole number: never rounded.
    std::vector<double> half(mask.values.begin(), mask.values.end());
    half[kSide + 2] = 0.5;
    writeRaster("half.tif", floats, 1, kSide, kSide, half);
    const Result run = dhc({"segment", "quarters.tif", "--scale", "4", "--mask", "half.tif", "-o", "x.hraw"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "dhc: mask \"half.tif\" band 1: value 0.5 at row 2, column 3 is not a whole number\n");
}

TEST_F(Raster, SignedBytesAreReadAsSigned) {
    // The scene's bands brought into -100..100: as signed bytes and as hraw.
    Hraw small = scene;
    for (int b = 0; b < scene.bands; ++b) {
        const auto first = small.values.begin() + b * kSide * kSide, end = first + kSide * kSide;
        const auto [lo, hi] = std::minmax_element(first, end);
        const int32_t low = *lo, span = std::max(1, *hi - *lo);
        for (auto v = first; v != end; ++v) *v = (*v - low) * 200 / span - 100;
    }
    writeHraw("small.hraw", small);
    {
        GDALDriver* gtiff = GetGDALDriverManager()->GetDriverByName("GTiff");
        char** options = CSLSetNameValue(nullptr, "PIXELTYPE", "SIGNEDBYTE");
        // Four bytes per pixel are not red, green, blue and alpha here.
        options = CSLSetNameValue(options, "PHOTOMETRIC", "MINISBLACK");
        options = CSLSetNameValue(options, "ALPHA", "NO");
        Dataset d(gtiff->Create(path("signed.tif").c_str(), kSide, kSide, small.bands, GDT_Byte, options));
        CSLDestroy(options);
        ASSERT_TRUE(d);
        for (int b = 0; b < small.bands; ++b) {
            std::vector<uint8_t> bytes;  // two's complement, as the file stores them
            for (int i = 0; i < kSide * kSide; ++i)
                bytes.push_back(static_cast<uint8_t>(small.values[b * kSide * kSide + i] & 0xff));
            ASSERT_EQ(d->GetRasterBand(b + 1)->RasterIO(GF_Write, 0, 0, kSide, kSide, bytes.data(), kSide, kSide,
                                                        GDT_Byte, 0, 0),
                      CE_None);
        }
    }
    segment({"info", "signed.tif"});
    EXPECT_NE(last.out.find("\ntype: Int8\n"), std::string::npos) << last.out;
    EXPECT_NE(last.out.find("\nband 1: -100 100\n"), std::string::npos) << last.out;
    segment(with({"segment", "small.hraw", "-o", "expected.hraw", "-q"}, kFewClasses));
    segment(with({"segment", "signed.tif", "-o", "labels.hraw", "-q"}, kFewClasses));
    EXPECT_TRUE(read("labels.hraw") == read("expected.hraw"));
}

TEST_F(Raster, FullDeviceIsSaidToBeFull) {
    for (const char* format : {"GTiff", "COG"}) {
        SCOPED_TRACE(format);
        const Result run = dhc(with({"segment", "scene.hraw", "-o", "/dev/full", "--format", format, "-q"}, kFewClasses));
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "dhc: cannot write \"/dev/full\": the device is full (No space left on device)\n");
    }
}

TEST_F(BadRaster, OutputsNoDriverCanWriteAreRefusedBeforeTheImageIsRead) {
    // The image does not exist: each refusal comes before it is looked at.
    const std::pair<Args, std::string> usage[] = {
        {{"-o", "labels.tif", "--format", "GeoJSON"}, "--format \"GeoJSON\": a vector driver; it cannot write a label map"},
        {{"-o", "labels.geojson"},
         "-o \"labels.geojson\": .geojson is a vector format; a label map needs a raster format (.tif, .png, ...) "
         "or --format"},
        {{"-o", "labels.jpg"},
         "-o \"labels.jpg\": the JPEG driver compresses with loss here and would change the labels"},
        {{"-o", "labels.tif", "--co", "COMPRESS=JPEG"},
         "-o \"labels.tif\": the GTiff driver compresses with loss here and would change the labels"},
        {{"-o", "labels.tif", "--levels", "levels.png"},
         "--levels \"levels.png\": the PNG driver cannot write one band per cut (PNG driver doesn't support 16 "
         "bands. Must be 1 (grey), 2 (grey+alpha), 3 (rgb) or 4 (rgba) bands)"},
        {{"-o", "labels.tif", "--co", "COMPRESS=NOPE"},
         "--co: 'NOPE' is an unexpected value for COMPRESS creation option of type string-select"},
        {{"-o", "labels.tif", "--co", "COMPRESS"}, "--co COMPRESS: must be KEY=VALUE (a GDAL creation option)"},
        {{"-o", "labels.tif", "--polygons", "pieces.shp"},
         "--polygons \"pieces.shp\": the ESRI Shapefile driver writes more than one file; choose a one-file format "
         "such as .gpkg, or .shz for a zipped Shapefile"},
        {{"-o", "labels.tif", "--polygons", "pieces.png"},
         "--polygons \"pieces.png\": no GDAL vector driver writes .png files (try .gpkg, .geojson, .fgb or .shz)"},
        {{"-o", "labels.img", "--co", "COMPRESS=LZW"},
         "--co: 'LZW' is an unexpected value for COMPRESS creation option of type boolean"},
        {{"-o", "labels.tif", "--sieve", "4"}, "--sieve applies to the polygons: give --polygons FILE"},
    };
    for (const auto& [args, message] : usage) expectRefused(with({"segment", "missing.tif"}, args), message, 2);
}

// Pieces, 8-connected, of a map computed here: per piece its label and pixels.
std::vector<std::pair<int32_t, std::vector<size_t>>> piecesOf(const std::vector<int32_t>& map, int rows, int cols) {
    std::vector<std::pair<int32_t, std::vector<size_t>>> out;
    std::vector<char> seen(map.size(), 0);
    for (size_t s = 0; s < map.size(); ++s) {
        if (map[s] == 0 || seen[s]) continue;
        out.push_back({map[s], {}});
        std::vector<size_t> todo{s};
        seen[s] = 1;
        while (!todo.empty()) {
            const size_t k = todo.back();
            todo.pop_back();
            out.back().second.push_back(k);
            const int r = static_cast<int>(k) / cols, c = static_cast<int>(k) % cols;
            for (int nr = r - 1; nr <= r + 1; ++nr)
                for (int nc = c - 1; nc <= c + 1; ++nc) {
                    if (nr < 0 || nr >= rows || nc < 0 || nc >= cols) continue;
                    const size_t n = static_cast<size_t>(nr * cols + nc);
                    if (!seen[n] && map[n] == map[s]) {
                        seen[n] = 1;
                        todo.push_back(n);
                    }
                }
        }
    }
    return out;
}

TEST_F(Raster, PolygonsArePiecesWithTheirAreasAndMeans) {
    // A region of interest without its top rows: the polygons cover just it.
    constexpr int kOutside = 8;
    writeRaster("scene.tif", Layout(), scene.bands, kSide, kSide, sceneValues());
    std::vector<double> half;
    for (int i = 0; i < kSide * kSide; ++i) half.push_back(i / kSide >= kOutside ? 1 : 0);
    writeRaster("mask.tif", Layout(), 1, kSide, kSide, half);
    for (const std::string name : {"pieces.gpkg", "pieces.geojson"}) {
        SCOPED_TRACE(name);
        segment(with({"segment", "scene.tif", "--mask", "mask.tif", "-o", "labels.tif", "--polygons", name, "-q"},
                     kFewClasses));
        const std::vector<int32_t> labels = band("labels.tif");
        const auto expected = piecesOf(labels, kSide, kSide);
        const std::vector<int32_t> classes = distinctLabels(labels);
        Dataset d(GDALDataset::Open(path(name).c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
        ASSERT_TRUE(d);
        OGRLayer* layer = d->GetLayer(0);
        ASSERT_NE(layer, nullptr);
        EXPECT_EQ(layer->GetFeatureCount(), static_cast<GIntBig>(expected.size()));
        // Per label: pixels and, per band, the sum of the image's values.
        std::map<int32_t, std::vector<double>> sums, fromPolygons;
        for (const auto& [label, pixels] : expected) {
            std::vector<double>& s = sums[label];
            s.resize(static_cast<size_t>(scene.bands) + 1);
            s[0] += static_cast<double>(pixels.size());
            for (int b = 0; b < scene.bands; ++b)
                for (size_t k : pixels) s[static_cast<size_t>(b) + 1] += scene.values[b * kSide * kSide + k];
        }
        long area = 0;
        layer->ResetReading();
        for (OGRFeature* raw; (raw = layer->GetNextFeature()) != nullptr;) {
            std::unique_ptr<OGRFeature> f(raw);
            const int32_t label = f->GetFieldAsInteger("label");
            const long pixels = static_cast<long>(f->GetFieldAsInteger64("area_px"));
            area += pixels;
            const auto k = std::find(classes.begin(), classes.end(), label);
            ASSERT_NE(k, classes.end()) << label;
            EXPECT_EQ(f->GetFieldAsInteger("class"), k - classes.begin() + 1);
            EXPECT_DOUBLE_EQ(f->GetFieldAsDouble("area"), pixels * 30.0 * 30.0);
            ASSERT_NE(f->GetGeometryRef(), nullptr);
            EXPECT_DOUBLE_EQ(f->GetGeometryRef()->toPolygon()->get_Area(), pixels * 30.0 * 30.0);
            std::vector<double>& s = fromPolygons[label];
            s.resize(static_cast<size_t>(scene.bands) + 1);
            s[0] += pixels;
            for (int b = 0; b < scene.bands; ++b)
                s[static_cast<size_t>(b) + 1] += f->GetFieldAsDouble(("mean_" + std::to_string(b + 1)).c_str()) * pixels;
        }
        EXPECT_EQ(area, (kSide - kOutside) * kSide);
        ASSERT_EQ(fromPolygons.size(), sums.size());
        for (const auto& [label, s] : sums)
            for (size_t i = 0; i < s.size(); ++i) EXPECT_NEAR(fromPolygons[label][i], s[i], 1e-6 * (1 + s[i]));
    }

    // --sieve: no piece under the threshold is left, the area is the same, and the file says so.
    segment(with({"segment", "scene.tif", "-o", "labels.tif", "--polygons", "sieved.gpkg", "--sieve", "30", "-q"},
                 kFewClasses));
    const auto before = piecesOf(band("labels.tif"), kSide, kSide);
    Dataset d(GDALDataset::Open(path("sieved.gpkg").c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY));
    ASSERT_TRUE(d);
    OGRLayer* layer = d->GetLayer(0);
    EXPECT_LE(layer->GetFeatureCount(), static_cast<GIntBig>(before.size()));
    long area = 0;
    for (OGRFeature* raw; (raw = layer->GetNextFeature()) != nullptr;) {
        std::unique_ptr<OGRFeature> f(raw);
        EXPECT_GE(f->GetFieldAsInteger64("area_px"), 30);
        area += static_cast<long>(f->GetFieldAsInteger64("area_px"));
    }
    EXPECT_EQ(area, kSide * kSide);
    EXPECT_STREQ(d->GetMetadataItem("DHC_SIEVE"), "30");
    EXPECT_STREQ(layer->GetMetadataItem("DHC_SIEVE"), "30");
}

class LevelsMemory : public Raster {
  protected:
    // Runs the tool to its end; its peak resident memory in KiB.
    long peak(const Args& args) {
        const pid_t pid = start(args);
        int status = 0;
        struct rusage usage;
        if (pid <= 0 || ::wait4(pid, &status, 0, &usage) != pid) return -1;
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << read(".stderr");
        return usage.ru_maxrss;
    }
};

// Every cut of a tree of some two thousand classes: the stack of cuts is 80 MB
// as hraw, but it is written a band at a time.
TEST_F(LevelsMemory, EveryCutIsWrittenWithTheMemoryOfOneBand) {
    constexpr int kSide100 = 100;
    ASSERT_EQ(dhc({"-o", "big.hraw", "--rows", std::to_string(kSide100), "--cols", std::to_string(kSide100)},
                  DHC_SCENE_PATH)
                  .status,
              0);
    const Args many = {"segment", "big.hraw", "-o", "labels.hraw", "-q", "--threads", "1",
                       "--set", "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=1000000",
                       "--set", "UNSUPERVISED_MODE_CONF.SplitGainThreshold=-1e9",
                       "--set", "UNSUPERVISED_MODE_CONF.MinRegionArea=1",
                       // The split-gain rule, which the threshold makes split everything.
                       "--set", "UNSUPERVISED_MODE_CONF.StopCriterion=0",
                       "--set", "UNSUPERVISED_MODE_CONF.FinalRefinement=0"};
    const long without = peak(many);
    const long withLevels = peak(with(many, {"--levels", "levels.hraw"}));
    const Hraw stack = readHraw("levels.hraw");
    ASSERT_GT(stack.bands, 1000);
    const long stackKiB = static_cast<long>(stack.values.size() * sizeof(int32_t) / 1024);
    EXPECT_LT(withLevels - without, stackKiB / 4) << "peak " << withLevels << " KiB with --levels, " << without
                                            << " KiB without; the stack of cuts is " << stackKiB << " KiB";
    // The last band is the label map.
    const Hraw labels = readHraw("labels.hraw");
    EXPECT_TRUE(std::equal(labels.values.begin(), labels.values.end(),
                           stack.values.end() - static_cast<long>(labels.values.size())));
}

TEST_F(Raster, LandsatSceneFollowsTheGround) {
    // Landsat-7 ETM+, 6 bands, 349 x 352, UTM zone 25S; the sea lies on the east side.
    segment({"segment", DHC_LANDSAT_PATH, "-o", "landsat.tif", "--model", "landsat.json", "-q", "--set",
             "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=6", "--set",
             "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05"});
    Dataset landsat(GDALDataset::Open(DHC_LANDSAT_PATH, GDAL_OF_RASTER | GDAL_OF_READONLY));
    Dataset out = open("landsat.tif");
    ASSERT_TRUE(landsat && out);
    double a[6], b[6];
    ASSERT_EQ(landsat->GetGeoTransform(a), CE_None);
    ASSERT_EQ(out->GetGeoTransform(b), CE_None);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(a[i], b[i]);
    ASSERT_NE(out->GetSpatialRef(), nullptr);
    EXPECT_TRUE(out->GetSpatialRef()->IsSame(landsat->GetSpatialRef()));
    EXPECT_STREQ(out->GetSpatialRef()->GetAuthorityCode(nullptr), "31985");

    // dhc info: what GDAL itself says of the scene.
    segment({"info", DHC_LANDSAT_PATH});
    EXPECT_NE(
        last.out.find("\ndriver: GTiff (GeoTIFF)\nbands: 6\nrows: 352\ncols: 349\ntype: Byte\nnodata: none\n"
                      "crs: SIRGAS 2000 / UTM zone 25S (EPSG:31985)\n"),
        std::string::npos)
        << last.out;
    for (int k = 1; k <= 6; ++k) {
        double range[2];
        ASSERT_EQ(landsat->GetRasterBand(k)->ComputeRasterMinMax(FALSE, range), CE_None);
        std::ostringstream line;
        line << "\nband " << k << ": " << range[0] << " " << range[1] << "\n";
        EXPECT_NE(last.out.find(line.str()), std::string::npos) << line.str();
    }

    // The same map as a Cloud Optimized GeoTIFF: overviews, and GDAL's own validator content.
    segment({"segment", DHC_LANDSAT_PATH, "-o", "landsat.cog.tif", "--format", "COG", "-q", "--set",
             "UNSUPERVISED_MODE_CONF.MaxNumberOfClasses=6", "--set",
             "UNSUPERVISED_MODE_CONF.SplitGainThreshold=0.05"});
    Dataset cog = open("landsat.cog.tif");
    ASSERT_TRUE(cog);
    EXPECT_STREQ(cog->GetMetadataItem("LAYOUT", "IMAGE_STRUCTURE"), "COG");
    EXPECT_GE(cog->GetRasterBand(1)->GetOverviewCount(), 1);
    EXPECT_EQ(band("landsat.cog.tif"), band("landsat.tif"));
    const char* validator = "/usr/lib/python3/dist-packages/osgeo_utils/samples/validate_cloud_optimized_geotiff.py";
    if (std::filesystem::exists(validator)) {
        const std::string command = std::string("/usr/bin/python3 ") + validator + " -q --full-check=yes " +
                                    path("landsat.cog.tif") + " > " + path("validator.txt") + " 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0) << read("validator.txt");
    }

    // dhc apply of the run's model on a window: the whole map's window, lying where it lies.
    segment({"apply", DHC_LANDSAT_PATH, "--model", "landsat.json", "-o", "applied.tif", "-q"});
    segment({"apply", DHC_LANDSAT_PATH, "--model", "landsat.json", "-o", "window.tif", "-q", "--window", "100", "40",
             "60", "30"});
    const std::vector<int32_t> applied = band("applied.tif"), window = band("window.tif");
    ASSERT_EQ(window.size(), 60u * 30u);
    for (int r = 0; r < 30; ++r)
        for (int c = 0; c < 60; ++c) ASSERT_EQ(window[r * 60 + c], applied[(40 + r) * 349 + 100 + c]) << r << ", " << c;
    Dataset w = open("window.tif");
    ASSERT_TRUE(w);
    ASSERT_EQ(w->GetGeoTransform(b), CE_None);
    EXPECT_EQ(b[0], a[0] + 100 * a[1]);
    EXPECT_EQ(b[3], a[3] + 40 * a[5]);
    EXPECT_TRUE(w->GetSpatialRef() != nullptr && w->GetSpatialRef()->IsSame(landsat->GetSpatialRef()));

    const std::vector<int32_t> labels = band("landsat.tif");
    ASSERT_EQ(labels.size(), 349u * 352u);
    EXPECT_EQ(distinctLabels(labels).size(), 6u);
    // Open sea, rows 120-199, columns 330-348: one class nearly everywhere.
    std::map<int32_t, int> counts;
    int total = 0;
    for (int r = 120; r < 200; ++r)
        for (int c = 330; c < 349; ++c, ++total) ++counts[labels[static_cast<size_t>(r) * 349 + c]];
    int most = 0;
    for (const auto& [label, n] : counts) most = std::max(most, n);
    EXPECT_GE(most, 0.95 * total);
    // ... and that class is rare on land, the western third.
    int sea = 0;
    for (const auto& [label, n] : counts)
        if (n == most) sea = label;
    int onLand = 0;
    for (int r = 0; r < 352; ++r)
        for (int c = 0; c < 116; ++c) onLand += labels[static_cast<size_t>(r) * 349 + c] == sea;
    EXPECT_LT(onLand, 352 * 116 / 100);
}

}  // namespace
}  // namespace tooltest
