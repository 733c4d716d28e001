// DHC::dhc: one run from its input record to its output record.
#include "driver/DHC.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "data/LabelMap.h"
#include "data/PaddedMap.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/FileName.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

using namespace dhc::driver;

namespace {

// Initial labels cut into their connected pieces (8-connectivity): painted
// densely (1..k) into a full-frame map with 0 outside the ROI, fragmented, and
// read back at the ROI points.
ROI<int, xy>* disconnectLabels(ROI<int, xy>* initial) {
    int nDistinct = 0;
    std::unique_ptr<int[]> distinct(labelsRoi(initial->data, initial->count, nDistinct));
    const int rows = initial->imageRows;
    const int cols = initial->imageCols;
    std::vector<std::vector<int>> frame(rows, std::vector<int>(cols, 0));
    std::vector<int*> rowPtr(rows);
    for (int r = 0; r < rows; ++r) rowPtr[r] = frame[r].data();
    for (int k = 0; k < initial->count; ++k) {
        const int v = initial->data[static_cast<size_t>(k) * initial->bands];
        const int dense = static_cast<int>(std::lower_bound(distinct.get(), distinct.get() + nDistinct, v) -
                                           distinct.get()) +
                          1;
        frame[initial->coords[k].x + initial->minRow][initial->coords[k].y + initial->minCol] = dense;
    }
    LabelMap lm(rows, cols, 1, -1, 0, true);
    lm.import(rowPtr.data(), 0);
    int** fragmented = lm.getFragmentedMap();
    ROI<int, xy>* out = initial->extractLabROI(fragmented, 0, true);
    dhc::deleteRows(fragmented, rows);
    return out;
}

}  // namespace

ROI<int, xy>* DHC::fragmentLeaves(ROI<int, xy>* points) {
    int n = 0;
    std::unique_ptr<PottsMapRegion*[]> regions(getNewlyCreated(n));
    // Each region's pieces take labels above every label of the map at that
    // moment, and mapRestore moves them into the map, so later regions number
    // on from there and fragment labels never collide.
    for (int i = 0; i < n; ++i) {
        regions[i]->fragmentOnAuxMap();
        regions[i]->mapRestore();
    }
    // fragmentOnAuxMap scribbles a ring around each region in the aux map;
    // the map now holds every fragment, so the aux map is refreshed from it.
    PottsMapRegion* rootRegion = rootWS()->root;
    rootRegion->copyToAuxMap();
    return points->extractLabROI(rootRegion->auxMap, rootRegion->pad, false);
}

// What one call of DHC::dhc holds while it runs: the caller's record, the
// settings it runs with, the driver it builds and the label ROIs it hands back.
struct DHC::Run {
    DHC_IN& in;
    const bool fileSource;
    // The settings: the caller's record, or (file source without one) read
    // from the configuration file and kept by the driver.
    std::unique_ptr<DHC_SET> ownSettings;
    DHC_SET* s;
    char* cfg;

    std::unique_ptr<DHC> d;
    std::unique_ptr<ROI<int, xy>> points;  // file source: the whole frame
    std::unique_ptr<ROI<int, xy>> labelRoi;
    std::unique_ptr<ROI<int, xy>> fragRoi;
    std::unique_ptr<ROI<int, xy>> cutInitial;
    int nClasses = 0;

    explicit Run(DHC_IN& input)
        : in(input), fileSource(input.source == 1), s(input.settings) {
        if (s == nullptr) {
            ownSettings.reset(new DHC_SET(in.configFile));
            s = ownSettings.get();
        }
        cfg = (fileSource && !in.configFile.empty()) ? &in.configFile[0] : nullptr;
    }

    // Gives the driver its own copies of what it keeps pointing at.
    void adopt() {
        if (ownSettings) d->ownedSettings_ = std::move(ownSettings);
        if (cfg != nullptr) {
            d->configFileStore_ = in.configFile;
            d->configFile = &d->configFileStore_[0];
            d->engine->configFile = d->configFile;
        }
    }

    // The points the labels are read at: the caller's, or the whole frame.
    ROI<int, xy>* labelPoints() {
        PottsMapRegion* rootRegion = d->rootWS()->root;
        if (fileSource) points.reset(fullFrameRoi(rootRegion->rows, rootRegion->cols));
        return fileSource ? points.get() : in.roi;
    }

    void supervised();
    // Builds the driver of an unsupervised run; returns the depth limit.
    int buildUnsupervised();
    SplittingOptions options(int depthLimit) const;
    void unsupervised();
    void writeOutputFile();
};

void DHC::Run::supervised() {
    const int n = s->numberOfClasses;
    std::vector<int*> paths(static_cast<size_t>(n > 0 ? n : 0));
    for (int c = 0, offset = 0; c < n; ++c) {
        paths[c] = s->structurePaths + offset;
        offset += s->structureLevels[c];
    }
    std::vector<char> gtName(in.gtFile.begin(), in.gtFile.end());
    gtName.push_back('\0');
    if (!fileSource) {
        d.reset(new DHC(in.roi, in.gt, n, s->maxLabels, nullptr, s));
        adopt();
        d->generateMixTree(s->structureLevels, paths.data(), n, in.gt);
    } else {
        d.reset(new DHC(in.dataFile, in.gtFile, n, s->maxLabels, cfg, s));
        adopt();
        d->generateMixTree(s->structureLevels, paths.data(), n, gtName.data());
    }
    d->supervisedSplitting();
    d->globalMapRefresh(false);
    PottsMapRegion* rootRegion = d->rootWS()->root;
    ROI<int, xy>* at = labelPoints();
    if (fileSource)
        rootRegion->labelWithGT(gtName.data(), 0);
    else
        rootRegion->labelWithGT(in.gt, 0);
    labelRoi.reset(at->extractLabROI(rootRegion->auxMap, rootRegion->pad, false));
    nClasses = d->leafCount();
    if (s->fragmentation) fragRoi.reset(d->fragmentLeaves(at));
}

int DHC::Run::buildUnsupervised() {
    int depthLimit = s->balancedTree ? s->growDepth : 0;
    if (!fileSource) {
        in.roi->giveValuesAway = in.releaseInputs;
        if (in.initLabels == nullptr) {
            d.reset(new DHC(in.roi, s->maxLabels, s->variableMultiplicity, nullptr, s));
            adopt();
            d->start();
        } else {
            ROI<int, xy>* initial = in.initLabels;
            if (s->splitwiseDisconnect) {
                cutInitial.reset(disconnectLabels(in.initLabels));
                initial = cutInitial.get();
            }
            d.reset(new DHC(initial, in.roi, s->maxLabels, s->variableMultiplicity, nullptr, s));
            adopt();
        }
        in.roi->giveValuesAway = false;
        if (in.releaseInputs) {
            if (in.initLabels != nullptr) in.initLabels->release();
            cutInitial.reset();
        }
        // No table over the root's pixels in an unsupervised run.
        d->rootWS()->tracksRootIndex = false;
    } else if (in.initLabelsFile != nullptr) {
        // The seeded children sit one level down; only the file source
        // counts that level in the depth limit.
        depthLimit += 1;
        d.reset(new DHC(in.dataFile, in.initLabelsFile, s->maxLabels, s->variableMultiplicity, cfg, s));
        adopt();
    } else {
        d.reset(new DHC(in.dataFile, s->maxLabels, s->variableMultiplicity, cfg, s));
        adopt();
        d->start();
    }
    return depthLimit;
}

SplittingOptions DHC::Run::options(int depthLimit) const {
    SplittingOptions o;
    o.minSplitArea = s->minSplitArea;
    o.splitGainThreshold = s->splitGainThreshold;
    o.maxNumberOfClasses = s->maxNumberOfClasses;
    o.depthLimit = depthLimit;
    o.splitMode = s->doubleSplit ? 2 : (s->splitwiseDisconnect ? 1 : 0);
    o.distorsionThreshold = s->distorsionThreshold;
    o.splitwiseDisconnect = s->splitwiseDisconnect;
    o.metric = s->metric;
    o.blindActive = s->blindActive;
    o.blindDepth = s->blindDepth;
    o.blindMSE = s->blindMSE;
    o.blindArea = s->blindArea;
    o.stopCriterion = s->stopCriterion;
    return o;
}

void DHC::Run::unsupervised() {
    const SplittingOptions o = options(buildUnsupervised());
    if (s->blind)
        d->blindSplitting(o);
    else
        d->splitting(o);
    d->removeTestSplits(false);
    d->globalMapRefresh(false);

    PottsMapRegion* rootRegion = d->rootWS()->root;
    ROI<int, xy>* at = labelPoints();
    nClasses = d->leafCount();
    std::vector<int> refined;
    std::vector<int*> refinedRows;
    // Classes never cross the regions of an initial segmentation: the
    // refinement, which moves pixels between classes, is left out then.
    if (!s->fragmentation && !s->splitwiseDisconnect)
        d->makeFinalModel(*s, d->seeded_ ? 0 : s->finalRefinement, refined, refinedRows);
    if (d->finalModel && d->finalModel->refined) {
        labelRoi.reset(at->extractLabROI(refinedRows.data(), rootRegion->pad, false));
        nClasses = 0;
        for (const dhc::FinalClass& c : d->finalModel->classes) nClasses += c.area > 0 ? 1 : 0;
    } else {
        labelRoi.reset(at->extractLabROI(rootRegion->map, rootRegion->pad, false));
    }
    if (s->fragmentation && !s->splitwiseDisconnect) fragRoi.reset(d->fragmentLeaves(at));
}

void DHC::Run::writeOutputFile() {
    if (in.outputFile.empty()) return;
    std::unique_ptr<PaddedMap> pm(d->outputPMap(true, true, true, -1));
    paddedMap2HRaw(dhc::cutFileName(in.outputFile), *pm);
}

DHC_OUT DHC::dhc(DHC_IN in) {
    DHC_OUT out;
    if (in.mode != 0 && in.mode != 1) return out;
    dhc::Workers team(in.threads);
    dhc::UseWorkers useTeam(team);

    Run run(in);
    if (in.mode == 1)
        run.supervised();
    else
        run.unsupervised();
    run.writeOutputFile();

    out.nClasses = run.nClasses;
    out.labelRoi = run.labelRoi.release();
    out.fragRoi = run.fragRoi.release();
    out.dhc = run.d.release();
    return out;
}

void DHC::makeFinalModel(const DHC_SET& s, int rounds, std::vector<int>& plane, std::vector<int*>& rows) {
    dhc::FinalPixels px;
    PottsMapRegion* rootRegion = rootWS()->root;
    px.bands = rootWS()->bands;
    for (WSNode* leaf : tree->terminals) {
        const PottsWS* ws = leaf->data;
        // Every leaf must hold all its values; otherwise there is no model.
        if (ws->data == nullptr || ws->loadedCount != ws->envelopeCount) return;
        px.labels.push_back(leaf->label);
        for (int p = 0; p < ws->loadedCount; ++p) {
            px.rows.push_back(ws->coords[p].x);
            px.cols.push_back(ws->coords[p].y);
            const int* v = ws->data + static_cast<size_t>(p) * ws->bands;
            px.values.insert(px.values.end(), v, v + ws->bands);
        }
    }
    const int pad = rootRegion->pad;
    const int height = rootRegion->rows + 2 * pad, width = rootRegion->cols + 2 * pad;
    plane.assign(static_cast<size_t>(height) * width, 0);
    rows.resize(static_cast<size_t>(height));
    for (int r = 0; r < height; ++r) {
        rows[r] = &plane[static_cast<size_t>(r) * width];
        std::copy(rootRegion->map[r], rootRegion->map[r] + width, rows[r]);
    }
    finalModel = std::make_unique<dhc::FinalModel>(
        dhc::refineFinalMap(px, rows.data(), pad, rounds, s.betaMin, s.betaMax));
}
