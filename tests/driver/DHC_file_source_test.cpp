// The driver's file source: the image named by an hraw file or by headerless
// band files instead of handed over in memory.  The same image must give the
// same tree whichever way it comes in; where the two sources differ (the depth
// an initial map counts), the difference is the one the run record promises.

#include "driver/DHC.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "common/TestSupport.h"
#include "data/PaddedMap.h"
#include "data/ROI.h"
#include "driver/DriverScene.h"
#include "settings/DHC_SET.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

namespace {

using driver_test::Scene;
using driver_test::baseSettings;
using driver_test::fourQuadrants;

// hraw: three int32 (bands, rows, cols), then every band row by row.
void writeHraw(const std::string& path, const std::vector<std::vector<std::vector<int>>>& cube) {
    std::ofstream out(path, std::ios::binary);
    const int32_t header[3] = {static_cast<int32_t>(cube.size()), static_cast<int32_t>(cube[0].size()),
                               static_cast<int32_t>(cube[0][0].size())};
    out.write(reinterpret_cast<const char*>(header), sizeof header);
    for (const auto& band : cube)
        for (const auto& row : band) out.write(reinterpret_cast<const char*>(row.data()), row.size() * 4);
}

// A headerless band file: rows x cols int32.
void writeBand(const std::string& path, const std::vector<std::vector<int>>& band) {
    std::ofstream out(path, std::ios::binary);
    for (const auto& row : band) out.write(reinterpret_cast<const char*>(row.data()), row.size() * 4);
}

// The labels of a run's points laid out on the image (-1 where no point is).
std::vector<int> onFrame(const ROI<int, xy>& roi) {
    std::vector<int> frame(static_cast<size_t>(roi.imageRows) * roi.imageCols, -1);
    for (int k = 0; k < roi.count; ++k)
        frame[static_cast<size_t>(roi.coords[k].x + roi.minRow) * roi.imageCols + roi.coords[k].y + roi.minCol] =
            roi.data[static_cast<size_t>(k) * roi.bands];
    return frame;
}

// The classes of a plane, numbered in raster order of first appearance: two
// maps with the same partition give the same numbering.
std::vector<int> partition(const std::vector<int>& map) {
    std::vector<int> out(map.size());
    std::vector<std::pair<int, int>> seen;
    for (size_t i = 0; i < map.size(); ++i) {
        int number = 0;
        for (const auto& [label, n] : seen)
            if (label == map[i]) number = n;
        if (number == 0) {
            seen.emplace_back(map[i], static_cast<int>(seen.size()) + 1);
            number = static_cast<int>(seen.size());
        }
        out[i] = number;
    }
    return out;
}

std::vector<int> flat(const std::vector<std::vector<int>>& plane) {
    std::vector<int> out;
    for (const auto& row : plane) out.insert(out.end(), row.begin(), row.end());
    return out;
}

// CTest runs the tests of this file side by side in one scratch directory:
// each process writes its files under names of its own.
std::string scratch(const std::string& name) {
    return dhc::test::tmpPath(std::to_string(::getpid()) + "_" + name);
}

// The four-quadrant scene in memory and on disk.
struct FileSource : ::testing::Test {
    Scene scene = fourQuadrants();
    std::unique_ptr<ROI<int, xy>> roi{scene.dataRoi()};
    std::unique_ptr<DHC_SET> s = baseSettings();
    std::string image = scratch("driver_file_source.hraw");
    std::vector<std::string> bandNames;
    std::vector<char*> bandFiles;

    void SetUp() override {
        writeHraw(image, scene.cube);
        for (int b = 0; b < scene.bands; ++b) {
            bandNames.push_back(scratch("driver_file_source_band" + std::to_string(b) + ".raw"));
            writeBand(bandNames.back(), scene.cube[b]);
        }
        for (std::string& name : bandNames) bandFiles.push_back(&name[0]);
    }

    DHC_IN memory() {
        DHC_IN in;
        in.roi = roi.get();
        in.settings = s.get();
        return in;
    }
    DHC_IN file() {
        DHC_IN in;
        in.source = 1;
        in.dataFile = image;
        in.settings = s.get();
        return in;
    }

    SplittingOptions gainOptions() const {
        SplittingOptions o;
        o.minSplitArea = s->minSplitArea;
        o.splitGainThreshold = s->splitGainThreshold;
        o.maxNumberOfClasses = s->maxNumberOfClasses;
        return o;
    }

    // The label map a driver built by hand leaves after a gain-driven run.
    std::vector<int> grow(DHC& d) {
        d.start();
        d.splitting(gainOptions());
        d.removeTestSplits(false);
        d.globalMapRefresh(false);
        std::unique_ptr<PaddedMap> pm(d.outputPMap(true, true, false, -1));
        std::vector<int> out;
        for (int r = 0; r < pm->rows; ++r) out.insert(out.end(), pm->map[r], pm->map[r] + pm->cols);
        return out;
    }
};

TEST_F(FileSource, GivesTheMemorySourcesLabelsForTheSameImage) {
    const DHC_OUT fromMemory = DHC::dhc(memory());
    const DHC_OUT fromFile = DHC::dhc(file());
    ASSERT_NE(fromFile.labelRoi, nullptr);
    EXPECT_EQ(fromFile.labelRoi->count, scene.rows * scene.cols);
    EXPECT_EQ(fromFile.nClasses, 4);
    EXPECT_EQ(fromFile.nClasses, fromMemory.nClasses);
    EXPECT_EQ(onFrame(*fromFile.labelRoi), onFrame(*fromMemory.labelRoi));
    EXPECT_EQ(partition(onFrame(*fromFile.labelRoi)), partition(flat(scene.truth)));
}

TEST_F(FileSource, WithoutASettingsRecordReadsTheConfigurationFile) {
    const std::string ini = dhc::test::writeScratch(
        "driver_file_source.ini",
        "[SEGM_MAIN_CONFIGURATION]\nSupervisedMode=0\n\n"
        "[UNSUPERVISED_MODE_CONF]\nSplitGainThreshold=0.01\nMaxNumberOfClasses=3\nMinRegionArea=8\n\n"
        "[POTTS_MODEL]\nMultiplicity=2\nBetaMin=0\nBetaMax=1.5\n\n");
    DHC_SET fromIni(ini);
    ASSERT_EQ(fromIni.maxNumberOfClasses, 3);
    DHC_IN byMemory = memory();
    byMemory.settings = &fromIni;
    const DHC_OUT expected = DHC::dhc(byMemory);

    DHC_IN byFile = file();
    byFile.settings = nullptr;
    byFile.configFile = ini;
    const DHC_OUT out = DHC::dhc(byFile);
    ASSERT_NE(out.labelRoi, nullptr);
    EXPECT_EQ(out.nClasses, 3);
    EXPECT_EQ(onFrame(*out.labelRoi), onFrame(*expected.labelRoi));
    // The driver keeps its own copy of the name: the caller's record may go.
    byFile.configFile.assign(byFile.configFile.size(), 'x');
    ASSERT_NE(out.dhc->configFile, nullptr);
    EXPECT_EQ(std::string(out.dhc->configFile), ini);
}

// Initial regions: the left and the right half.  From memory a gain-driven
// run splits them on to the four quadrants; from a file the initial map
// counts one level in the depth limit, which makes the run balanced with the
// seeded halves already at that depth: nothing more is split.
TEST_F(FileSource, AnInitialMapCountsOneLevelOfDepthOnlyFromTheFileSource) {
    std::vector<std::vector<int>> halves(scene.rows, std::vector<int>(scene.cols));
    for (int r = 0; r < scene.rows; ++r)
        for (int c = 0; c < scene.cols; ++c) halves[r][c] = c < scene.cols / 2 ? 7 : 9;
    std::vector<int*> halfRows;
    for (auto& row : halves) halfRows.push_back(row.data());
    std::unique_ptr<ROI<int, xy>> initial(roi->extractLabROI(halfRows.data(), 0, true));

    DHC_IN byMemory = memory();
    byMemory.initLabels = initial.get();
    const DHC_OUT gain = DHC::dhc(byMemory);
    EXPECT_EQ(partition(onFrame(*gain.labelRoi)), partition(flat(scene.truth)));

    DHC_IN byFile = file();
    byFile.initLabelsFile = halfRows.data();
    const DHC_OUT fromFile = DHC::dhc(byFile);
    EXPECT_EQ(fromFile.nClasses, 2);
    EXPECT_EQ(partition(onFrame(*fromFile.labelRoi)), partition(flat(halves)));

    s->balancedTree = true;
    s->growDepth = 1;
    const DHC_OUT balanced = DHC::dhc(byMemory);
    EXPECT_EQ(onFrame(*balanced.labelRoi), onFrame(*fromFile.labelRoi));
}

// Supervised along a flat structure of the four quadrant classes: every point
// gets its ground-truth class, from memory and from files alike, and the
// fragments of the four connected quadrants are the classes themselves.
TEST_F(FileSource, SupervisedRunGivesTheGroundTruthFromFilesAsFromMemory) {
    s->supervisedMode = true;
    s->numberOfClasses = 4;
    s->structureLevels = new int[4]{1, 1, 1, 1};
    s->structurePaths = new int[4]{0, 1, 2, 3};
    s->fragmentation = true;
    std::unique_ptr<ROI<int, xy>> gt(scene.truthRoi(roi.get()));
    const std::string gtFile = scratch("driver_file_source_gt.hraw");
    writeHraw(gtFile, {scene.truth});

    DHC_IN byMemory = memory();
    byMemory.mode = 1;
    byMemory.gt = gt.get();
    const DHC_OUT fromMemory = DHC::dhc(byMemory);
    DHC_IN byFile = file();
    byFile.mode = 1;
    byFile.gtFile = gtFile;
    const DHC_OUT fromFile = DHC::dhc(byFile);

    for (const DHC_OUT* out : {&fromMemory, &fromFile}) {
        ASSERT_NE(out->labelRoi, nullptr);
        EXPECT_EQ(out->nClasses, 4);
        EXPECT_EQ(onFrame(*out->labelRoi), flat(scene.truth));
        ASSERT_NE(out->fragRoi, nullptr);
        EXPECT_EQ(partition(onFrame(*out->fragRoi)), partition(flat(scene.truth)));
    }
}

// The output file holds the final map renumbered 1, 2, ... in raster order of
// first appearance, framed.
TEST_F(FileSource, OutputFileHoldsTheFinalMapNumberedInRasterOrder) {
    DHC_IN in = file();
    in.outputFile = scratch("driver_file_source_out.hraw");
    const DHC_OUT out = DHC::dhc(in);
    const std::string bytes = dhc::test::readFile(in.outputFile);
    ASSERT_GE(bytes.size(), 12u);
    int32_t header[3];
    std::memcpy(header, bytes.data(), sizeof header);
    EXPECT_EQ(header[0], 1);
    const int pad = (header[1] - scene.rows) / 2;
    ASSERT_GE(pad, 0);
    EXPECT_EQ(header[2], scene.cols + 2 * pad);
    ASSERT_EQ(bytes.size(), 12u + 4u * header[1] * header[2]);
    std::vector<int> inner;
    for (int r = 0; r < scene.rows; ++r)
        for (int c = 0; c < scene.cols; ++c) {
            int32_t v;
            std::memcpy(&v, bytes.data() + 12 + 4 * ((r + pad) * header[2] + c + pad), 4);
            inner.push_back(v);
        }
    EXPECT_EQ(inner, partition(onFrame(*out.labelRoi)));
}

// Every way of naming the image builds the same root and grows the same tree;
// the seeded forms start from the initial regions.
TEST_F(FileSource, HrawAndBandFilesGrowTheTreeTheMemorySourceGrows) {
    DHC fromRoi(roi.get(), s->maxLabels, false, nullptr, s.get());
    DHC fromHraw(image, s->maxLabels, false, nullptr, s.get());
    DHC fromBands(scene.rows, scene.cols, scene.bands, bandFiles.data(), s->maxLabels, false, nullptr, s.get());
    const std::vector<int> expected = grow(fromRoi);
    EXPECT_EQ(partition(expected), partition(flat(scene.truth)));
    EXPECT_EQ(grow(fromHraw), expected);
    EXPECT_EQ(grow(fromBands), expected);

    std::vector<std::vector<int>> top(scene.rows, std::vector<int>(scene.cols));
    for (int r = 0; r < scene.rows; ++r)
        for (int c = 0; c < scene.cols; ++c) top[r][c] = r < scene.rows / 2 ? 1 : 2;
    std::vector<int*> topRows;
    for (auto& row : top) topRows.push_back(row.data());
    std::string topFile = scratch("driver_file_source_top.hraw");
    writeHraw(topFile, {top});
    DHC seededPlane(image, topRows.data(), s->maxLabels, false, nullptr, s.get());
    DHC seededFile(image, &topFile[0], s->maxLabels, false, nullptr, s.get());
    DHC seededBands(scene.rows, scene.cols, scene.bands, bandFiles.data(), topRows.data(), s->maxLabels, false,
                    nullptr, s.get());
    for (DHC* d : {&seededPlane, &seededFile, &seededBands}) {
        ASSERT_EQ(d->tree->root->nChildren, 2);
        for (int c = 0; c < 2; ++c) EXPECT_EQ(d->tree->root->children[c]->data->root->area, scene.rows * scene.cols / 2);
    }
}

// The supervised constructors of every source with the class structure read
// from a ground-truth file: the split leaves carry the quadrant classes.
TEST_F(FileSource, SupervisedFromAGroundTruthFileSplitsAlongItsClasses) {
    std::string gtFile = scratch("driver_file_source_gt2.hraw");
    writeHraw(gtFile, {scene.truth});
    int levels[4] = {1, 1, 1, 1};
    int path[4] = {0, 1, 2, 3};
    int* paths[4] = {&path[0], &path[1], &path[2], &path[3]};
    DHC byName(image, std::string(gtFile), 4, s->maxLabels, nullptr, s.get());
    DHC byChars(image, &gtFile[0], 4, s->maxLabels, nullptr, s.get());
    DHC byBands(scene.rows, scene.cols, scene.bands, bandFiles.data(), &gtFile[0], 4, s->maxLabels, nullptr,
                s.get());
    for (DHC* d : {&byName, &byChars, &byBands}) {
        d->generateMixTree(levels, paths, 4, &gtFile[0]);
        d->supervisedSplitting();
        d->globalMapRefresh(false);
        ASSERT_EQ(d->tree->terminals.size(), 4u);
        std::unique_ptr<PaddedMap> pm(d->outputPMap(true, false, false, -1));
        std::vector<int> map;
        for (int r = 0; r < pm->rows; ++r) map.insert(map.end(), pm->map[r], pm->map[r] + pm->cols);
        EXPECT_EQ(partition(map), partition(flat(scene.truth)));
    }
}

// Leaves that let their values go read them again from their file when the
// test splits are removed with reload: every value is the image's at its pixel.
TEST_F(FileSource, RemovingTestSplitsWithReloadReadsTheLeavesFromTheirFiles) {
    DHC fromHraw(image, s->maxLabels, false, nullptr, s.get());
    DHC fromBands(scene.rows, scene.cols, scene.bands, bandFiles.data(), s->maxLabels, false, nullptr, s.get());
    for (DHC* d : {&fromHraw, &fromBands}) {
        d->start();
        SplittingOptions o = gainOptions();
        o.maxNumberOfClasses = 2;
        d->splitting(o);
        ASSERT_EQ(d->tree->terminals.size(), 2u);
        for (TreeNode<PottsWS*>* leaf : d->tree->terminals) leaf->data->dropValues();
        d->removeTestSplits(true);
        int area = 0;
        for (TreeNode<PottsWS*>* leaf : d->tree->terminals) {
            const PottsWS* ws = leaf->data;
            EXPECT_EQ(leaf->nChildren, 0);
            ASSERT_NE(ws->data, nullptr);
            ASSERT_EQ(ws->loadedCount, ws->root->area);
            area += ws->loadedCount;
            for (int p = 0; p < ws->loadedCount; ++p)
                for (int b = 0; b < ws->bands; ++b)
                    ASSERT_EQ(ws->data[static_cast<size_t>(p) * ws->bands + b],
                              scene.cube[b][ws->coords[p].x][ws->coords[p].y]);
        }
        EXPECT_EQ(area, scene.rows * scene.cols);
    }
}

}  // namespace
