// GDAL rasters through the tool: inputs written here with GDAL's own API,
// outputs read back with it, labels compared with runs on the same data as
// hraw.

#include <gdal_priv.h>
#include <ogr_spatialref.h>

#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
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

    // The files of the scratch directory.
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_))
            names.insert(entry.path().filename().string());
        return names;
    }

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

    Dataset out = open("labels.tif");
    ASSERT_TRUE(out);
    double transform[6];
    ASSERT_EQ(out->GetGeoTransform(transform), CE_None);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(transform[i], kTransform[i]);
    OGRSpatialReference expected;
    expected.importFromEPSG(32725);
    ASSERT_NE(out->GetSpatialRef(), nullptr);
    EXPECT_TRUE(out->GetSpatialRef()->IsSame(&expected));
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
    Dataset fragments = open("fragments.tif");
    ASSERT_TRUE(fragments);
    ASSERT_EQ(fragments->GetGeoTransform(transform), CE_None);
    EXPECT_EQ(transform[0], kTransform[0]);
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

TEST_F(Raster, LandsatSceneFollowsTheGround) {
    // Landsat-7 ETM+, 6 bands, 349 x 352, UTM zone 25S; the sea lies on the east side.
    segment({"segment", DHC_LANDSAT_PATH, "-o", "landsat.tif", "-q", "--set",
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
