#include "driver/DHC.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <vector>

#include "data/ImageFile.h"
#include "data/LabelController.h"
#include "data/LabelMap.h"
#include "data/PaddedMap.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/FileName.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "stats/Mixture.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WSReport.h"
#include "workspace/WeightTree.h"

namespace {

// Frame width of the shared label map: the 8-neighbourhood needs one cell.
constexpr int kPad = 1;

using WSNode = TreeNode<PottsWS*>;
using MixNode = TreeNode<Mixture*>;

std::function<void(int, int)>& progressHook() {
    static std::function<void(int, int)> hook;
    return hook;
}

void reportProgress(int leaves, int label) {
    if (progressHook()) progressHook()(leaves, label);
}

int areaOf(const PottsWS* ws) {
    return ws->root->area;
}

// Workspaces of the subtree below `node` (node excluded), pre-order,
// tentative children included.
void collectBelow(WSNode* node, std::vector<WSNode*>& out) {
    for (int c = 0; c < node->nChildren; ++c) {
        out.push_back(node->children[c]);
        collectBelow(node->children[c], out);
    }
}

void collectMix(MixNode* node, std::vector<MixNode*>& out) {
    out.push_back(node);
    for (int c = 0; c < node->nChildren; ++c) collectMix(node->children[c], out);
}

// A linked model and the index array it was linked through: both are ours.
void deleteModel(Mixture* m) {
    if (m == nullptr) return;
    int* idx = m->linkIndex;
    delete m;
    delete[] idx;
}

// Refused leaves weighed one level deeper before a criterion-driven run stops.
constexpr size_t kLookAheads = 2;

// Leaves together smaller than this are split one after the other.
constexpr long long kSideBySideArea = 1 << 15;

void refreshStats(PottsWS* ws) {
    ws->updateMi();
    ws->updateSigma();
    ws->updateFeatures();
}

// Gives back labels that a refused split had taken and repaints the leaf with
// its own label, so no stale child label stays in the map.
void abandonSplit(LabelController* lc, PottsWS* ws, const int* labels, int k, PottsWS** children) {
    if (children != nullptr) {
        for (int i = 0; i < k; ++i) delete children[i];
        delete[] children;
    }
    for (int i = 0; i < k; ++i) lc->release(labels[i]);
    ws->root->mapRefresh(ws->root->label, false);
}

// A tentative engine split of ws into k children, seeded when seeds is given;
// fresh receives the children's labels.  A refused split is abandoned: null.
PottsWS** tentativeSplit(PottsEngine* engine, LabelController* lc, PottsWS* ws, int k, double** seeds,
                         bool keepTests, double beta, std::unique_ptr<int[]>& fresh) {
    fresh.reset(lc->pickMultiple(k));
    PottsWS** children = seeds != nullptr ? engine->split(ws, fresh.get(), seeds, keepTests, beta)
                                          : engine->split(ws, fresh.get(), keepTests, beta);
    if (ws->splitState == 2 && children != nullptr) return children;
    abandonSplit(lc, ws, fresh.get(), k, children);
    return nullptr;
}

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

// ---------------------------------------------------------------------------
// Construction and destruction

void DHC::setProgress(std::function<void(int, int)> hook) {
    progressHook() = std::move(hook);
}

PottsEngine* DHC::makeEngine() {
    if (settings != nullptr) return new PottsEngine(settings);
    if (configFile != nullptr) return new PottsEngine(configFile);
    return new PottsEngine();
}

void DHC::initCommon(int maxLabels, const std::function<PottsWS*(int, int)>& makeRoot) {
    std::unique_ptr<LabelController> lc(new LabelController(maxLabels));
    // The first label frames the map (and fills the box cells outside the
    // ROI); the second is the root's own.
    const int borderLabel = lc->pick();
    const int ownLabel = lc->pick();
    std::unique_ptr<PottsWS> root(makeRoot(borderLabel, ownLabel));
    root->updateMi();
    root->updateSigma();
    std::unique_ptr<PottsEngine> eng(makeEngine());
    tree = new Tree<PottsWS*>(root.get(), root->root->label);
    root.release();
    labels = lc.release();
    engine = eng.release();
}

DHC::DHC(ROI<int, xy>* data, int maxLabels, bool variableMultiplicity_, char* configFile_, DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [data](int b, int o) { return new PottsWS(data, kPad, b, o, b); });
}

DHC::DHC(ROI<int, xy>* initialLabels, ROI<int, xy>* data, int maxLabels, bool variableMultiplicity_,
         char* configFile_, DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [data](int b, int o) { return new PottsWS(data, kPad, b, o, b); });
    guarded([&]() {
        PottsMapRegion* region = rootWS()->root;
        std::vector<std::vector<int>> plane(region->rows, std::vector<int>(region->cols, 0));
        std::vector<int*> rowPtr(region->rows);
        for (int r = 0; r < region->rows; ++r) rowPtr[r] = plane[r].data();
        for (int k = 0; k < initialLabels->count; ++k)
            plane[initialLabels->coords[k].x][initialLabels->coords[k].y] =
                initialLabels->data[static_cast<size_t>(k) * initialLabels->bands];
        seedFromPlane(rowPtr.data());
    });
}

DHC::DHC(ROI<int, xy>* data, ROI<int, xy>* /*gt*/, int /*nClasses*/, int maxLabels, char* configFile_,
         DHC_SET* settings_)
    : configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [data](int b, int o) { return new PottsWS(data, kPad, b, o, b); });
}

DHC::DHC(std::string dataFile, int maxLabels, bool variableMultiplicity_, char* configFile_,
         DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels,
               [&dataFile](int b, int o) { return new PottsWS(false, 100.0f, dataFile, kPad, b, o); });
}

DHC::DHC(std::string dataFile, int** initialMap, int maxLabels, bool variableMultiplicity_, char* configFile_,
         DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels,
               [&dataFile](int b, int o) { return new PottsWS(false, 100.0f, dataFile, kPad, b, o); });
    guarded([&]() { seedFromPlane(initialMap); });
}

DHC::DHC(std::string dataFile, char* initialMapFile, int maxLabels, bool variableMultiplicity_,
         char* configFile_, DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels,
               [&dataFile](int b, int o) { return new PottsWS(false, 100.0f, dataFile, kPad, b, o); });
    guarded([&]() {
        dhc::Cube<int> cube = ImageFile<int>::readHRaw(dhc::cutFileName(initialMapFile));
        seedFromPlane(cube[0]);
    });
}

DHC::DHC(std::string dataFile, std::string /*gtFile*/, int /*nClasses*/, int maxLabels, char* configFile_,
         DHC_SET* settings_)
    : configFile(configFile_), settings(settings_) {
    initCommon(maxLabels,
               [&dataFile](int b, int o) { return new PottsWS(false, 100.0f, dataFile, kPad, b, o); });
}

DHC::DHC(std::string dataFile, char* /*gtFile*/, int /*nClasses*/, int maxLabels, char* configFile_,
         DHC_SET* settings_)
    : configFile(configFile_), settings(settings_) {
    initCommon(maxLabels,
               [&dataFile](int b, int o) { return new PottsWS(false, 100.0f, dataFile, kPad, b, o); });
}

DHC::DHC(int rows, int cols, int bands, char** bandFiles, int maxLabels, bool variableMultiplicity_,
         char* configFile_, DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [=](int b, int o) {
        return new PottsWS(rows, cols, bands, false, 100.0f, bandFiles, kPad, b, o);
    });
}

DHC::DHC(int rows, int cols, int bands, char** bandFiles, int** initialMap, int maxLabels,
         bool variableMultiplicity_, char* configFile_, DHC_SET* settings_)
    : variableMultiplicity(variableMultiplicity_), configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [=](int b, int o) {
        return new PottsWS(rows, cols, bands, false, 100.0f, bandFiles, kPad, b, o);
    });
    guarded([&]() { seedFromPlane(initialMap); });
}

DHC::DHC(int rows, int cols, int bands, char** bandFiles, char* /*gtFile*/, int /*nClasses*/, int maxLabels,
         char* configFile_, DHC_SET* settings_)
    : configFile(configFile_), settings(settings_) {
    initCommon(maxLabels, [=](int b, int o) {
        return new PottsWS(rows, cols, bands, false, 100.0f, bandFiles, kPad, b, o);
    });
}

DHC::~DHC() {
    distroyDhcTree();
    // The class models link into the engine's global mixture: they go first.
    destroyMixTree();
    delete engine;
    delete labels;
    delete ownedSettings_;
}

// Runs a construction step after initCommon; if it throws, what initCommon
// built is released (the destructor does not run for a throwing constructor).
void DHC::guarded(const std::function<void()>& step) {
    try {
        step();
    } catch (...) {
        distroyDhcTree();
        delete engine;
        engine = nullptr;
        delete labels;
        labels = nullptr;
        throw;
    }
}

PottsWS* DHC::rootWS() const {
    return tree->root->data;
}

int DHC::leafCount() const {
    return static_cast<int>(tree->terminals.size());
}

// Seeds the tree from an initial segmentation given as a plane over the
// root's map (inner coordinates).  Every distinct value under the root becomes
// one child with a fresh label; a single value leaves the root as the only class.
void DHC::seedFromPlane(int** initial) {
    PottsWS* root = rootWS();
    PottsMapRegion* region = root->root;
    if (region->area < 1) return;
    std::vector<int> values;
    values.reserve(static_cast<size_t>(region->area));
    region->resetScan();
    do {
        const xy p = region->getLocation();
        values.push_back(initial[p.x][p.y]);
    } while (region->nextElement());
    std::vector<int> distinct(values);
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    const int k = static_cast<int>(distinct.size());
    if (k < 2) return;
    seeded_ = true;
    std::unique_ptr<int[]> fresh(labels->pickMultiple(k));
    size_t i = 0;
    region->resetScan();
    do {
        const xy p = region->getLocation();
        const int idx = static_cast<int>(std::lower_bound(distinct.begin(), distinct.end(), values[i++]) -
                                         distinct.begin());
        region->setPixel(p.x, p.y, fresh[idx]);
    } while (region->nextElement());
    PottsWS** children = nullptr;
    root->split(fresh.get(), k, children, true);
    tree->root->appendChildren(k, children, fresh.get());
    delete[] children;
    tree->current = tree->root;
    tree->validate(0);
}

// ---------------------------------------------------------------------------
// Tree maintenance

void DHC::start(bool onAux) {
    resetDHCTree();
    PottsMapRegion* region = rootWS()->root;
    region->mapRefresh(region->label, onAux);
}

void DHC::resetDHCTree() {
    if (tree == nullptr) return;
    std::vector<WSNode*> below;
    collectBelow(tree->root, below);
    if (below.empty()) return;
    std::vector<int> freed;
    std::vector<PottsWS*> workspaces;
    for (WSNode* node : below) {
        freed.push_back(node->label);
        workspaces.push_back(node->data);
    }
    tree->current = tree->root;
    tree->prune();
    for (int label : freed) labels->release(label);
    for (PottsWS* ws : workspaces) delete ws;
}

void DHC::distroyDhcTree() {
    if (tree == nullptr) return;
    std::vector<WSNode*> nodes{tree->root};
    collectBelow(tree->root, nodes);
    std::vector<PottsWS*> workspaces;
    workspaces.reserve(nodes.size());
    for (WSNode* node : nodes) workspaces.push_back(node->data);
    delete tree;
    tree = nullptr;
    // The root owns the shared label planes: it goes last.
    for (auto it = workspaces.rbegin(); it != workspaces.rend(); ++it) delete *it;
}

void DHC::globalMapRefresh(bool flag) {
    for (WSNode* node : tree->terminals) node->data->root->mapRefresh(node->data->root->label, flag);
}

PottsMapRegion** DHC::getNewlyCreated(int& n) {
    std::vector<PottsMapRegion*> fresh;
    for (WSNode* node : tree->terminals)
        if (!node->data->processed) fresh.push_back(node->data->root);
    n = static_cast<int>(fresh.size());
    PottsMapRegion** out = new PottsMapRegion*[fresh.size()];
    std::copy(fresh.begin(), fresh.end(), out);
    return out;
}

// ---------------------------------------------------------------------------
// The run

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

DHC_OUT DHC::dhc(DHC_IN in) {
    DHC_OUT out;
    if (in.mode != 0 && in.mode != 1) return out;
    dhc::Workers team(in.threads);
    dhc::UseWorkers useTeam(team);

    const bool fileSource = in.source == 1;
    // The settings: the caller's record, or (file source without one) read
    // from the configuration file and kept by the driver.
    std::unique_ptr<DHC_SET> ownSettings;
    DHC_SET* s = in.settings;
    if (s == nullptr) {
        ownSettings.reset(new DHC_SET(in.configFile));
        s = ownSettings.get();
    }
    char* cfg = (fileSource && !in.configFile.empty()) ? &in.configFile[0] : nullptr;

    std::unique_ptr<DHC> d;
    std::unique_ptr<ROI<int, xy>> points;  // file source: the whole frame
    std::unique_ptr<ROI<int, xy>> labelRoi;
    std::unique_ptr<ROI<int, xy>> fragRoi;
    std::unique_ptr<ROI<int, xy>> cutInitial;

    // Gives the driver its own copies of what it keeps pointing at.
    auto adopt = [&]() {
        if (ownSettings) d->ownedSettings_ = ownSettings.release();
        if (cfg != nullptr) {
            d->configFileStore_ = in.configFile;
            d->configFile = &d->configFileStore_[0];
            d->engine->configFile = d->configFile;
        }
    };

    if (in.mode == 1) {
        const int nClasses = s->numberOfClasses;
        std::vector<int*> paths(static_cast<size_t>(nClasses > 0 ? nClasses : 0));
        for (int c = 0, offset = 0; c < nClasses; ++c) {
            paths[c] = s->structurePaths + offset;
            offset += s->structureLevels[c];
        }
        std::vector<char> gtName(in.gtFile.begin(), in.gtFile.end());
        gtName.push_back('\0');
        if (!fileSource) {
            d.reset(new DHC(in.roi, in.gt, nClasses, s->maxLabels, nullptr, s));
            adopt();
            d->generateMixTree(s->structureLevels, paths.data(), nClasses, in.gt);
        } else {
            d.reset(new DHC(in.dataFile, in.gtFile, nClasses, s->maxLabels, cfg, s));
            adopt();
            d->generateMixTree(s->structureLevels, paths.data(), nClasses, gtName.data());
        }
        d->supervisedSplitting();
        d->globalMapRefresh(false);
        PottsMapRegion* rootRegion = d->rootWS()->root;
        if (!fileSource) {
            rootRegion->labelWithGT(in.gt, 0);
        } else {
            points.reset(fullFrameRoi(rootRegion->rows, rootRegion->cols));
            rootRegion->labelWithGT(gtName.data(), 0);
        }
        ROI<int, xy>* at = fileSource ? points.get() : in.roi;
        labelRoi.reset(at->extractLabROI(rootRegion->auxMap, rootRegion->pad, false));
        out.nClasses = d->leafCount();
        if (s->fragmentation) fragRoi.reset(d->fragmentLeaves(at));
    } else {
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
        if (s->blind)
            d->blindSplitting(o);
        else
            d->splitting(o);
        d->removeTestSplits(false);
        d->globalMapRefresh(false);

        PottsMapRegion* rootRegion = d->rootWS()->root;
        if (fileSource) points.reset(fullFrameRoi(rootRegion->rows, rootRegion->cols));
        ROI<int, xy>* at = fileSource ? points.get() : in.roi;
        out.nClasses = d->leafCount();
        std::vector<int> refined;
        std::vector<int*> refinedRows;
        // Classes never cross the regions of an initial segmentation: the
        // refinement, which moves pixels between classes, is left out then.
        if (!s->fragmentation && !s->splitwiseDisconnect)
            d->makeFinalModel(*s, d->seeded_ ? 0 : s->finalRefinement, refined, refinedRows);
        if (d->finalModel && d->finalModel->refined) {
            labelRoi.reset(at->extractLabROI(refinedRows.data(), rootRegion->pad, false));
            out.nClasses = 0;
            for (const dhc::FinalClass& c : d->finalModel->classes) out.nClasses += c.area > 0 ? 1 : 0;
        } else {
            labelRoi.reset(at->extractLabROI(rootRegion->map, rootRegion->pad, false));
        }
        if (s->fragmentation && !s->splitwiseDisconnect) fragRoi.reset(d->fragmentLeaves(at));
    }

    if (!in.outputFile.empty()) {
        std::unique_ptr<PaddedMap> pm(d->outputPMap(true, true, true, -1));
        paddedMap2HRaw(dhc::cutFileName(in.outputFile), *pm);
    }

    out.labelRoi = labelRoi.release();
    out.fragRoi = fragRoi.release();
    out.dhc = d.release();
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

// ---------------------------------------------------------------------------
// Strategies

void DHC::testSplitting(SplittingOptions opts) {
    std::vector<int> untested;
    for (WSNode* node : tree->terminals)
        if (node->data->splitState == 0) untested.push_back(node->label);
    // Leaves cut into pieces first, or split into a number of children that
    // mean shift estimates (and prints), are taken one after the other; so are
    // leaves too small to be worth a thread.
    const dhc::Workers* team = dhc::installedWorkers();
    long long area = 0;
    for (int label : untested) area += areaOf(tree->root->find(label)->data);
    if (team != nullptr && team->size() > 1 && untested.size() > 1 && area >= kSideBySideArea &&
        opts.splitOption != 2 && !variableMultiplicity && engine->multiplicity >= 2) {
        std::vector<WSNode*> leaves;
        for (int label : untested) leaves.push_back(tree->root->find(label));
        splitLeavesSideBySide(opts, leaves);
        tree->current = leaves.back();
        return;
    }
    for (int label : untested) {
        tree->current = tree->root->find(label);
        split(opts);
    }
}

// The leaves' splits are independent: each reads its own pixels and writes
// its own region of the label map, and compares neighbours across its edge
// only with its own fresh labels, which no other region carries (so a cell
// across the edge that the other split is rewriting meanwhile reads as "not
// mine" whichever value it shows: aligned int stores, never torn).  What is
// shared is ordered here: labels are picked in leaf order before the splits
// run, and the children are attached in leaf order after.  A refused split
// gives its labels back, so in one-after-the-other order the next leaf would
// have picked other labels: the leaves after it in the group are undone and
// split again one after the other.
void DHC::splitLeavesSideBySide(const SplittingOptions& opts, const std::vector<WSNode*>& leaves) {
    const int k = engine->multiplicity;
    const int size = dhc::installedWorkers()->size();
    while (static_cast<int>(sideEngines_.size()) < size - 1) sideEngines_.emplace_back(makeEngine());
    for (auto& side : sideEngines_) side->childValuesWithParent = engine->childValuesWithParent;
    auto engineOf = [&](size_t slot) { return slot == 0 ? engine : sideEngines_[slot - 1].get(); };

    PottsEngine* last = nullptr;
    size_t next = 0;
    while (next < leaves.size()) {
        // The next group: up to `size` leaves large enough to split.
        std::vector<WSNode*> group;
        while (next < leaves.size() && static_cast<int>(group.size()) < size) {
            WSNode* node = leaves[next++];
            if (areaOf(node->data) < opts.minSplitArea) {
                node->data->splitState = -1;
                continue;
            }
            group.push_back(node);
        }
        if (group.empty()) break;
        const size_t n = group.size();
        std::vector<std::unique_ptr<int[]>> fresh(n);
        for (size_t j = 0; j < n; ++j) fresh[j].reset(labels->pickMultiple(k));
        std::vector<PottsWS**> children(n, nullptr);
        dhc::forChunks(static_cast<int>(n), 1, [&](int begin, int end, int) {
            for (int j = begin; j < end; ++j)
                children[j] = engineOf(j)->split(group[j]->data, fresh[j].get(), opts.keepTests, opts.beta);
        });

        size_t failed = n;
        for (size_t j = 0; j < n && failed == n; ++j) {
            PottsWS* ws = group[j]->data;
            last = engineOf(j);
            if (ws->splitState == 2 && children[j] != nullptr) {
                group[j]->appendChildren(k, children[j], fresh[j].get());
                delete[] children[j];
            } else {
                failed = j;
            }
        }
        if (failed == n) continue;
        // Undo the leaves after the refused one, newest first (their labels go
        // back in reverse order of picking, which restores the allocator), then
        // refuse it as one-after-the-other order does and split the rest again.
        for (size_t j = n; j-- > failed + 1;) {
            PottsWS* ws = group[j]->data;
            if (children[j] != nullptr) {
                for (int i = 0; i < k; ++i) delete children[j][i];
                delete[] children[j];
            }
            for (int i = k; i-- > 0;) labels->release(fresh[j][i]);
            ws->root->mapRefresh(ws->root->label, false);
            ws->splitState = 0;
        }
        abandonSplit(labels, group[failed]->data, fresh[failed].get(), k, children[failed]);
        last = engineOf(failed);
        for (size_t j = failed + 1; j < n; ++j) {
            splitLeaf(opts, group[j]);
            last = engine;
        }
    }
    // The main engine ends as the last split left its engine.
    if (last != nullptr && last != engine) {
        engine->beta = last->beta;
        engine->lastSweeps = last->lastSweeps;
        engine->lastPasses = last->lastPasses;
    }
}

void DHC::split(SplittingOptions opts) {
    WSNode* node = tree->current;
    if (opts.splitOption == 2) {
        int n = 0;
        PottsWS** pieces = disconnect(n, false, nullptr);
        if (pieces != nullptr) {
            splitPieces(opts, node, pieces, n);
            return;
        }
    }
    splitLeaf(opts, node);
}

// Tentative split of one leaf into the engine's multiplicity (or, with
// variable multiplicity, the mean-shift estimate) of children.
void DHC::splitLeaf(const SplittingOptions& opts, WSNode* node) {
    PottsWS* ws = node->data;
    int k = engine->multiplicity;
    double** seeds = nullptr;
    if (variableMultiplicity) seeds = engine->MS_K_est(ws, k, true);
    const int seedRows = k;
    if (areaOf(ws) < opts.minSplitArea) {
        // Mean shift has painted its modes' labels over the leaf (labels the
        // allocator never handed out): give the leaf its own label back.
        if (seeds != nullptr) ws->root->mapRefresh(ws->root->label, false);
        k = 1;
        ws->splitState = -1;
    }
    if (k >= 2 && (!variableMultiplicity || seeds != nullptr)) {
        std::unique_ptr<int[]> fresh;
        PottsWS** children = tentativeSplit(engine, labels, ws, k, seeds, opts.keepTests, opts.beta, fresh);
        if (children != nullptr) node->appendChildren(k, children, fresh.get());
        delete[] children;
    }
    dhc::deleteRows(seeds, seedRows);
}

// splitOption 2: the leaf came apart into pieces.  Every piece is split on its
// own; the classes of the first piece that split are the reference classes,
// and every part (a piece's child, or a piece that did not split) joins the
// reference class with the nearest mean.  The leaf is then split along that
// grouping.  The pieces and their children are scaffolding: their labels are
// given back and their workspaces destroyed whatever the outcome.
void DHC::splitPieces(const SplittingOptions& opts, WSNode* node, PottsWS** pieces, int nPieces) {
    PottsWS* ws = node->data;
    // The pieces' children are scaffolding read right away: they take copies.
    const bool valuesWithParent = engine->childValuesWithParent;
    engine->childValuesWithParent = false;
    std::vector<PottsWS*> scaffold(pieces, pieces + nPieces);
    std::vector<int> scaffoldLabels;
    for (int i = 0; i < nPieces; ++i) scaffoldLabels.push_back(pieces[i]->root->label);
    delete[] pieces;

    std::vector<PottsWS*> parts;
    int refFirst = -1, refCount = 0;
    for (int i = 0; i < nPieces; ++i) {
        PottsWS* piece = scaffold[i];
        int k = engine->multiplicity;
        double** seeds = nullptr;
        if (variableMultiplicity) seeds = engine->MS_K_est(piece, k, true);
        PottsWS** children = nullptr;
        std::unique_ptr<int[]> fresh;
        if (areaOf(piece) >= opts.minSplitArea && k >= 2 && (!variableMultiplicity || seeds != nullptr))
            children = tentativeSplit(engine, labels, piece, k, seeds, opts.keepTests, opts.beta, fresh);
        if (children != nullptr) {
            if (refFirst < 0) {
                refFirst = static_cast<int>(parts.size());
                refCount = k;
            }
            for (int c = 0; c < k; ++c) {
                parts.push_back(children[c]);
                scaffold.push_back(children[c]);
                scaffoldLabels.push_back(fresh[c]);
            }
            delete[] children;
        } else {
            parts.push_back(piece);
        }
        dhc::deleteRows(seeds, k);
    }

    if (refFirst >= 0) {
        const int d = ws->bands;
        std::vector<int> classOf(parts.size());
        for (size_t p = 0; p < parts.size(); ++p) {
            int best = 0;
            double bestDist = 0.0;
            for (int c = 0; c < refCount; ++c) {
                double dist = 0.0;
                for (int b = 0; b < d; ++b) {
                    const double diff = parts[p]->mi[b] - parts[refFirst + c]->mi[b];
                    dist += diff * diff;
                }
                if (c == 0 || dist < bestDist) {
                    best = c;
                    bestDist = dist;
                }
            }
            classOf[p] = best;
        }
        std::unique_ptr<int[]> fresh(labels->pickMultiple(refCount));
        PottsWS** children = engine->split(ws, fresh.get(), parts.data(), static_cast<int>(parts.size()),
                                           classOf.data(), refCount, opts.keepTests, opts.beta);
        if (ws->splitState == 2 && children != nullptr) {
            node->appendChildren(refCount, children, fresh.get());
            delete[] children;
        } else {
            abandonSplit(labels, ws, fresh.get(), refCount, children);
        }
    } else {
        ws->root->mapRefresh(ws->root->label, false);
        ws->splitState = -1;
    }

    for (size_t i = 0; i < scaffold.size(); ++i) {
        labels->release(scaffoldLabels[i]);
        delete scaffold[i];
    }
    // The leaf's own pixels may still show scaffold labels if its split was refused.
    if (ws->splitState != 2) ws->root->mapRefresh(ws->root->label, false);
    engine->childValuesWithParent = valuesWithParent;
}

PottsWS** DHC::disconnect(int& n, bool attach, Tree<PottsWS*>* other) {
    WSNode* node = tree->current;
    PottsWS* ws = node->data;
    n = 1;
    PottsMapRegion* pieces = ws->root->fragment(n, false);
    if (pieces == nullptr) {
        n = 1;
        return nullptr;
    }
    std::unique_ptr<int[]> fresh(labels->pickMultiple(n));
    for (int i = 0; i < n; ++i) pieces[i].mapRefresh(fresh[i], false);
    delete[] pieces;
    PottsWS** children = nullptr;
    ws->split(fresh.get(), n, children, true);
    if (attach) {
        node->appendChildren(n, children, fresh.get());
        tree->current = node;
        tree->validate(0);
        if (other != nullptr) {
            TreeNode<PottsWS*>* mirror = other->root->find(node->label);
            if (mirror != nullptr) {
                mirror->appendChildren(n, children, fresh.get());
                other->current = mirror;
                other->validate(0);
            }
        }
    }
    return children;
}

namespace {

std::string numberText(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

const char* criterionName(int criterion) {
    return criterion == 1 ? "ICL" : "BIC";
}

}  // namespace

void DHC::recordRefused() {
    for (WSNode* leaf : tree->terminals) {
        PottsWS* ws = leaf->data;
        if (leaf->nChildren == 0 || ws->splitState != 2) continue;
        ws->refused = true;
        ws->refusedGain = ws->splitGain;
        ws->refusedCriterion = ws->criterion;
    }
}

bool DHC::lookAhead(const SplittingOptions& opts, WSNode* leaf) {
    PottsWS* ws = leaf->data;
    const double own = ws->criterion;
    // The leaf's values are reordered for its children: a copy brings them
    // back if the split is undone.
    const size_t values = static_cast<size_t>(ws->loadedCount) * static_cast<size_t>(ws->bands);
    std::vector<int> kept(ws->data, ws->data + values);
    tree->current = leaf;
    tree->validate(opts.validateFlag ? 1 : 0);
    std::vector<PottsWS*> kids;
    for (int c = 0; c < leaf->nChildren; ++c) kids.push_back(leaf->children[c]->data);
    ws->handValuesToChildren(kids.data(), static_cast<int>(kids.size()));
    testSplitting(opts);
    double deeper = 0.0;
    for (int c = 0; c < leaf->nChildren; ++c) {
        WSNode* child = leaf->children[c];
        bool ok = child->nChildren > 0 && areaOf(child->data) >= opts.minSplitArea;
        for (int g = 0; ok && g < child->nChildren; ++g) ok = areaOf(child->children[g]->data) >= opts.minSplitArea;
        if (ok && child->data->criterion > 0.0) deeper += child->data->criterion;
    }
    if (own + deeper > 0.0) {
        ws->releasePixels();
        return true;
    }
    // Undone: the children and their test splits go, their labels back
    // newest first, and the leaf is left out of further test splits.
    std::vector<WSNode*> below;
    collectBelow(leaf, below);
    std::vector<int> freed;
    std::vector<PottsWS*> workspaces;
    for (WSNode* node : below) {
        freed.push_back(node->label);
        workspaces.push_back(node->data);
    }
    tree->current = leaf;
    tree->prune();
    for (auto it = freed.rbegin(); it != freed.rend(); ++it) labels->release(*it);
    for (PottsWS* w : workspaces) delete w;
    std::copy(kept.begin(), kept.end(), ws->data);
    ws->root->mapRefresh(ws->root->label, false);
    ws->refused = true;
    ws->refusedGain = ws->splitGain;
    ws->refusedCriterion = own + deeper;
    ws->splitState = -3;
    return false;
}

void DHC::splitting(SplittingOptions opts) {
    const bool balanced = opts.depthLimit > 0;
    const bool byCriterion = !balanced && opts.stopCriterion > 0;
    const double theta = balanced ? 0.1 : (byCriterion ? 0.0 : opts.splitGainThreshold);
    std::unique_ptr<WeightTree> weights;
    if (opts.splitMode == 1) weights.reset(new WeightTree(tree));
    auto classCount = [&]() -> double {
        return weights ? weights->getNClassFloat() : static_cast<double>(leafCount());
    };
    auto capReached = [&]() {
        stopReason = "MaxNumberOfClasses reached: " + numberText(classCount()) + " classes";
    };
    if (!balanced && opts.maxNumberOfClasses <= classCount()) {
        capReached();
        return;
    }

    // Test children need no values of their own until their split is chosen:
    // they stay in the leaf's list, and the chosen leaf hands them over.
    struct LeaveValues {
        PottsEngine* e;
        explicit LeaveValues(PottsEngine* engine) : e(engine) { e->childValuesWithParent = true; }
        ~LeaveValues() { e->childValuesWithParent = false; }
    } leaveValues(engine);

    for (;;) {
        testSplitting(opts);
        std::vector<WSNode*> leaves(tree->terminals.begin(), tree->terminals.end());
        std::vector<double> scores(leaves.size());
        std::vector<char> eligible(leaves.size());
        for (size_t i = 0; i < leaves.size(); ++i) {
            WSNode* leaf = leaves[i];
            // A leaf without tentative children (its split failed or was
            // refused) has nothing to make permanent.
            bool ok = leaf->nChildren > 0 && areaOf(leaf->data) >= opts.minSplitArea;
            for (int c = 0; ok && c < leaf->nChildren; ++c)
                ok = areaOf(leaf->children[c]->data) >= opts.minSplitArea;
            double score = theta - 1.0;
            if (ok)
                score = balanced ? opts.depthLimit - leaf->depth
                                 : (byCriterion ? leaf->data->criterion : leaf->data->splitGain);
            if (std::isnan(score)) {
                score = theta - 1.0;
                ok = false;
            }
            if (byCriterion && !ok) score = -std::numeric_limits<double>::infinity();
            scores[i] = score;
            eligible[i] = ok;
        }
        // The best split the rule refuses, for the stop line.
        auto refusedLine = [&](int best) {
            if (best < 0 || !eligible[best]) {
                stopReason = balanced ? "no split kept: every region is at depth " +
                                            std::to_string(opts.depthLimit) + " or cannot be split"
                                      : "no split kept: no region can be split (MinRegionArea " +
                                            numberText(opts.minSplitArea) + ", or every split failed)";
                return;
            }
            stopReason = "no split kept: best candidate region " + std::to_string(leaves[best]->label) +
                         (byCriterion ? std::string(", ") + criterionName(opts.stopCriterion) + " " +
                                            numberText(scores[best]) + " <= 0"
                                      : ", gain " + numberText(scores[best]) + " < " + numberText(theta));
        };
        if (scores.empty()) {
            refusedLine(-1);
            return;
        }
        int best = OpMatrix::max(scores.data(), static_cast<int>(scores.size()));
        bool keep = byCriterion ? scores[best] > theta : scores[best] >= theta;
        if (!keep && byCriterion) {
            // Look one level deeper at the best refused candidates (the two
            // best: each look costs the test splits of a region's children).
            std::vector<size_t> order;
            for (size_t i = 0; i < leaves.size(); ++i)
                if (eligible[i]) order.push_back(i);
            std::stable_sort(order.begin(), order.end(),
                             [&](size_t a, size_t b) { return scores[a] > scores[b]; });
            bool grown = false;
            if (order.size() > kLookAheads) order.resize(kLookAheads);
            for (size_t i : order) {
                if (lookAhead(opts, leaves[i])) {
                    reportProgress(leafCount(), leaves[i]->label);
                    grown = true;
                    break;
                }
            }
            if (grown) {
                if (opts.maxNumberOfClasses <= classCount()) {
                    capReached();
                    recordRefused();
                    return;
                }
                continue;
            }
            // Every candidate was undone: the refused figures are on the leaves.
            stopReason = order.empty() ? std::string()
                                       : "no split kept: best candidate region " +
                                             std::to_string(leaves[order[0]]->label) + ", " +
                                             criterionName(opts.stopCriterion) + " " +
                                             numberText(scores[order[0]]) +
                                             " <= 0, also with its children's splits";
            if (order.empty()) refusedLine(-1);
            recordRefused();
            return;
        }
        if (!keep) {
            refusedLine(balanced ? -1 : best);
            recordRefused();
            return;
        }
        // Only a threshold at which theta - 1 is not below theta (beyond about
        // 1e16 in magnitude, infinite or NaN) lets an ineligible leaf through
        // the test above; validating it would change nothing, forever.
        if (!eligible[best]) {
            refusedLine(-1);
            return;
        }
        WSNode* chosen = leaves[best];
        tree->current = chosen;
        tree->validate(opts.validateFlag ? 1 : 0);
        // Split for good: from now on only its statistics are read.
        std::vector<PottsWS*> kids;
        for (int c = 0; c < chosen->nChildren; ++c) kids.push_back(chosen->children[c]->data);
        chosen->data->handValuesToChildren(kids.data(), static_cast<int>(kids.size()));
        chosen->data->releasePixels();

        if (opts.splitMode == 1) {
            weights->growWeights(false);
            for (int c = 0; c < chosen->nChildren; ++c) {
                tree->current = chosen->children[c];
                int n = 0;
                delete[] disconnect(n, true, nullptr);
            }
            weights->growWeights(true);
        }
        reportProgress(leafCount(), chosen->label);

        if (balanced) continue;
        const double count = classCount();
        if (weights ? opts.maxNumberOfClasses < count : opts.maxNumberOfClasses <= count) {
            capReached();
            recordRefused();
            return;
        }
    }
}

double DHC::blindScore(const SplittingOptions& opts, WSNode* node) const {
    const double theta = opts.splitGainThreshold;
    const PottsWS* ws = node->data;
    const double area = areaOf(ws);
    const double distortion = ws->sqDeviation;
    const double depth = node->depth;
    double score;
    if (opts.blindActive) {
        const bool deepEnough = opts.blindDepth == 0.0 || depth <= opts.blindDepth;
        const bool tooSmall = opts.blindArea != 0.0 && area < opts.blindArea;
        const bool errorHigh = opts.blindMSE == 0.0 || opts.blindMSE <= distortion / area;
        score = (deepEnough && !tooSmall && errorHigh) ? theta + 1.0 : theta - 1.0;
    } else {
        switch (opts.metric) {
            case 0:
                score = area;
                break;
            case 1:
                score = distortion;
                break;
            case 2:
                score = distortion / area;
                break;
            case 3:
                score = distortion * std::log(area);
                break;
            case 4:
                score = (distortion / area) * std::log(area);
                break;
            case 5:
                score = node->data->getEnvelopeArea();
                break;
            case 6:
                score = ws->envelopeCount;
                break;
            case 7:
                score = 1.0 / (depth + 1.0);
                break;
            case 8:
                score = area >= opts.minSplitArea ? 1.0 / (depth + 1.0) : theta - 1.0;
                break;
            default:
                dhc::fatal(-20);
        }
    }
    if (ws->splitState < 0) score = theta - 1.0;
    return score;
}

void DHC::blindSplitting(SplittingOptions opts) {
    // Local mode grows a separate tree from the start node (sharing its
    // workspaces, which stay owned by the main tree) and mirrors every split
    // into the main tree.
    std::unique_ptr<Tree<PottsWS*>> local;
    Tree<PottsWS*>* work = tree;
    if (opts.localTree) {
        WSNode* startNode = tree->root->find(opts.startLabel);
        if (startNode == nullptr) return;
        local.reset(new Tree<PottsWS*>(startNode->data, startNode->label));
        work = local.get();
    }
    auto leaves = [&]() { return static_cast<int>(work->terminals.size()); };
    stopReason = "MaxNumberOfClasses reached: " + std::to_string(leaves()) + " classes";
    if (!opts.localTree && opts.maxNumberOfClasses <= leaves()) return;

    std::deque<WSNode*> queue(work->terminals.begin(), work->terminals.end());
    for (WSNode* node : queue) refreshStats(node->data);

    const double theta = opts.splitGainThreshold;
    while (!queue.empty()) {
        WSNode* node = queue.front();
        queue.pop_front();
        if (blindScore(opts, node) >= theta) {
            PottsWS* ws = node->data;
            int k = engine->multiplicity;
            double** seeds = nullptr;
            if (variableMultiplicity) {
                seeds = engine->MS_K_est(ws, k, true);
                dhc::out() << " in " << k << " subregions..." << std::endl;
            }
            if (k >= 2 && (!variableMultiplicity || seeds != nullptr)) {
                std::unique_ptr<int[]> fresh;
                PottsWS** children = tentativeSplit(engine, labels, ws, k, seeds, false, 1.0, fresh);
                if (children != nullptr) {
                    node->appendChildren(k, children, fresh.get());
                    work->current = node;
                    work->validate(0);
                    if (local) {
                        WSNode* mainNode = tree->root->find(node->label);
                        mainNode->appendChildren(k, children, fresh.get());
                        tree->current = mainNode;
                        tree->validate(0);
                    }
                    delete[] children;
                    reportProgress(leafCount(), node->label);
                    for (int c = 0; c < node->nChildren; ++c) {
                        WSNode* child = node->children[c];
                        PottsWS** pieces = nullptr;
                        int n = 1;
                        if (opts.splitwiseDisconnect) {
                            tree->current = local ? tree->root->find(child->label) : child;
                            pieces = disconnect(n, true, local ? work : nullptr);
                        }
                        if (pieces != nullptr) {
                            for (int i = 0; i < child->nChildren; ++i) {
                                refreshStats(child->children[i]->data);
                                queue.push_back(child->children[i]);
                            }
                            delete[] pieces;
                        } else {
                            refreshStats(child->data);
                            queue.push_back(child);
                        }
                    }
                }
            }
            dhc::deleteRows(seeds, k);
        }
        if (leaves() >= opts.maxNumberOfClasses) {
            stopReason = "MaxNumberOfClasses reached: " + std::to_string(leaves()) + " classes";
            return;
        }
    }
    stopReason = "no split kept: no leaf left whose score reaches " + numberText(theta);
}

// ---------------------------------------------------------------------------
// Supervised mode

void DHC::destroyMixTree() {
    if (mixTree == nullptr) return;
    std::vector<MixNode*> nodes;
    collectMix(mixTree->root, nodes);
    for (MixNode* node : nodes) {
        deleteModel(node->data);
        node->data = nullptr;
    }
    delete mixTree;
    mixTree = nullptr;
}

void DHC::generateMixTree(int* levels, int** paths, int nClasses, ROI<int, xy>* gt) {
    destroyMixTree();
    PottsWS* root = rootWS();
    root->root->readMapRoi(gt);
    engine->updateGlobalMixture(*root);
    finishMixTree(levels, paths, nClasses);
}

void DHC::generateMixTree(int* levels, int** paths, int nClasses, char* gtFile) {
    destroyMixTree();
    PottsWS* root = rootWS();
    root->root->readMap_hraw(gtFile);
    engine->updateGlobalMixture(*root);
    finishMixTree(levels, paths, nClasses);
}

// The ground truth is in the root's map and the engine holds one global class
// per ground-truth label (ascending, label 0 excluded).  Class c of the
// structure (path c) takes global class c.
void DHC::finishMixTree(int* levels, int** paths, int nClasses) {
    PottsWS* root = rootWS();
    mixTree = new Tree<Mixture*>(levels, paths, nClasses);
    std::vector<MixNode*> nodes;
    collectMix(mixTree->root, nodes);
    for (MixNode* node : nodes) node->data = nullptr;

    std::vector<int> assign(static_cast<size_t>(nClasses > 0 ? nClasses : 0));
    for (int c = 0; c < nClasses; ++c) assign[c] = c;
    std::unique_ptr<Mixture*[]> leafModels(engine->generateLinkedMixtures(assign.data(), nClasses));
    std::vector<Mixture*> table(assign.size(), nullptr);
    for (int c = 0; c < nClasses; ++c) {
        MixNode* node = mixTree->root;
        for (int i = 0; node != nullptr && i < levels[c]; ++i) {
            const int e = paths[c][i];
            node = (e >= 0 && e < node->nChildren) ? node->children[e] : nullptr;
        }
        if (node == nullptr || node == mixTree->root || node->data != nullptr) {
            deleteModel(leafModels[c]);  // a duplicate or malformed path names no new class
            continue;
        }
        node->data = leafModels[c];
        table[c] = leafModels[c];
    }
    mixNodeUpdate();

    // The supervised split reads class energies from the engine's table,
    // indexed by global class and by the root's pixel index; build it once
    // here, over the root, before any split.
    root->root->mapRefresh(root->root->label, false);
    engine->ws = root;
    engine->updateLikelihoodEnergy(table.data(), nClasses);
}

namespace {

// Post-order: the global classes below a node, in child order; every inner
// node gets a model linked to exactly those classes.
std::vector<int> linkInner(MixNode* node, Mixture* global) {
    if (node->nChildren == 0) {
        std::vector<int> own;
        if (node->data != nullptr) own.assign(node->data->linkIndex, node->data->linkIndex + node->data->k);
        return own;
    }
    std::vector<int> below;
    for (int c = 0; c < node->nChildren; ++c) {
        std::vector<int> part = linkInner(node->children[c], global);
        below.insert(below.end(), part.begin(), part.end());
    }
    deleteModel(node->data);
    node->data = nullptr;
    if (!below.empty()) {
        int* idx = new int[below.size()];
        std::copy(below.begin(), below.end(), idx);
        node->data = new Mixture(global, static_cast<int>(below.size()), idx);
    }
    return below;
}

}  // namespace

void DHC::mixNodeUpdate() {
    if (mixTree == nullptr) return;
    linkInner(mixTree->root, engine->globalMixture.get());
}

void DHC::supervisedSplitting() {
    if (mixTree == nullptr) return;
    supervisedStep(mixTree->root, tree->root);
}

void DHC::supervisedStep(MixNode* classNode, WSNode* wsNode) {
    const int k = classNode->nChildren;
    if (k <= 0) return;
    engine->setConfig(k);
    std::unique_ptr<int[]> fresh(labels->pickMultiple(k));
    std::vector<Mixture*> models(static_cast<size_t>(k));
    for (int c = 0; c < k; ++c) models[c] = classNode->children[c]->data;
    PottsWS* ws = wsNode->data;
    PottsWS** children = engine->split(ws, fresh.get(), models.data());
    if (ws->splitState != 2 || children == nullptr) {
        // A supervised split must not fail: the class structure is given.
        dhc::out() << "supSplitting!" << std::endl;
        const int ignored = std::system("PAUSE");
        (void)ignored;
        dhc::fatal(-2);
    }
    wsNode->appendChildren(k, children, fresh.get());
    delete[] children;
    tree->current = wsNode;
    tree->validate(0);
    reportProgress(leafCount(), wsNode->label);
    for (int c = 0; c < k; ++c) supervisedStep(classNode->children[c], wsNode->children[c]);
}

// ---------------------------------------------------------------------------
// Clean-up after the strategies

void DHC::removeTestSplits(bool reload) {
    const std::vector<WSNode*> leaves(tree->terminals.begin(), tree->terminals.end());
    for (WSNode* leaf : leaves) {
        while (leaf->nChildren > 0) {
            WSNode* child = leaf->children[leaf->nChildren - 1];
            std::vector<WSNode*> doomed{child};
            collectBelow(child, doomed);
            std::vector<PottsWS*> workspaces;
            for (WSNode* node : doomed) {
                labels->release(node->label);
                workspaces.push_back(node->data);
            }
            delete child;  // detaches itself; the leaf turns terminal with its last child
            for (PottsWS* ws : workspaces) delete ws;
        }
        PottsWS* ws = leaf->data;
        ws->splitState = 0;
        if (reload) {
            if (!ws->hrawFileName.empty())
                ws->loadDataHRaw(ws->hrawFileName, 100.0f);
            else if (ws->bandFiles != nullptr)
                ws->loadDataRaw(ws->bandFiles, ws->bands, 100.0f);
        }
    }
}

// ---------------------------------------------------------------------------
// Output

void DHC::completeWSReport(WSReport* report) {
    WSNode* node = tree->root->find(report->WSLab);
    if (node == nullptr) return;
    report->terminal = node->terminal;

    delete[] report->children;
    delete[] report->chAreas;
    report->children = nullptr;
    report->chAreas = nullptr;
    report->nChildren = node->nChildren;
    if (node->nChildren > 0) {
        report->children = new int[node->nChildren];
        report->chAreas = new int[node->nChildren];
        for (int c = 0; c < node->nChildren; ++c) {
            report->children[c] = node->children[c]->label;
            report->chAreas[c] = areaOf(node->children[c]->data);
        }
    }

    delete[] report->path;
    report->path = nullptr;
    report->pathLength = node->depth;
    if (node->depth > 0) {
        report->path = new int[node->depth];
        std::copy(node->path, node->path + node->depth, report->path);
    }

    // Offspring: the leaves below the node, in terminal-list order (the order
    // in which the leaves are reported).
    delete[] report->offspring;
    report->offspring = nullptr;
    report->nOffspring = 0;
    if (node->nChildren > 0) {
        std::vector<int> below;
        for (WSNode* leaf : tree->terminals) {
            if (leaf->depth <= node->depth) continue;
            if (std::equal(node->path, node->path + node->depth, leaf->path)) below.push_back(leaf->label);
        }
        report->nOffspring = static_cast<int>(below.size());
        if (!below.empty()) {
            report->offspring = new int[below.size()];
            std::copy(below.begin(), below.end(), report->offspring);
        }
    }
}

WSReport** DHC::reportAllWSs(int& n) {
    n = static_cast<int>(tree->nodeList.size());
    WSReport** reports = new WSReport*[tree->nodeList.size()];
    int i = 0;
    for (WSNode* node : tree->nodeList) {
        reports[i] = node->data->getWSReport();
        completeWSReport(reports[i]);
        ++i;
    }
    return reports;
}

int* DHC::extractSplitSequence(int& n) {
    n = 0;
    WSNode* root = tree->root;
    if (root->nChildren == 0) return nullptr;
    std::vector<int> sequence{root->label};
    std::vector<WSNode*> candidates;
    for (int c = 0; c < root->nChildren; ++c)
        if (root->children[c]->nChildren > 0) candidates.push_back(root->children[c]);
    while (!candidates.empty()) {
        size_t best = 0;
        for (size_t i = 1; i < candidates.size(); ++i)
            if (candidates[i]->data->splitGain > candidates[best]->data->splitGain) best = i;
        WSNode* chosen = candidates[best];
        sequence.push_back(chosen->label);
        candidates.erase(candidates.begin() + static_cast<std::ptrdiff_t>(best));
        for (int c = 0; c < chosen->nChildren; ++c)
            if (chosen->children[c]->nChildren > 0) candidates.push_back(chosen->children[c]);
    }
    n = static_cast<int>(sequence.size());
    int* out = new int[sequence.size()];
    std::copy(sequence.begin(), sequence.end(), out);
    return out;
}

PaddedMap* DHC::outputPMap(bool fromMap, bool compact, bool padded, int keep) {
    PottsMapRegion* region = rootWS()->root;
    if (fromMap) region->copyToAuxMap();
    if (compact) region->compact(keep);
    const int pad = padded ? region->pad : 0;
    PaddedMap* out = new PaddedMap(region->rows, region->cols, pad, region->borderLabel, 0);
    for (int r = 0; r < region->rows; ++r)
        for (int c = 0; c < region->cols; ++c)
            out->map[r + pad][c + pad] = region->auxMap[r + region->pad][c + region->pad];
    return out;
}

void DHC::printReport(std::string fileName, bool withStats, bool withCovariance, int nSplit,
                      int* splitSequence) {
    std::ofstream os(fileName, std::ios::out | std::ios::trunc);
    if (!os) return;
    printReport(os, withStats, withCovariance, nSplit, splitSequence);
}

void DHC::printReport(std::ostream& os, bool withStats, bool withCovariance, int nSplit, int* splitSequence) {
    std::unique_ptr<int[]> extracted;
    if (splitSequence == nullptr) {
        extracted.reset(extractSplitSequence(nSplit));
        splitSequence = extracted.get();
    }
    int nReports = 0;
    WSReport** raw = reportAllWSs(nReports);
    std::vector<std::unique_ptr<WSReport>> reports(raw, raw + nReports);
    delete[] raw;

    {
        const int nLeaves = leafCount();
        os << "[GENERAL INFORMATION]\n";
        os << "NClass = " << nLeaves << ";\n";
        os << "Classes = [";
        for (const auto& r : reports)
            if (r->terminal) os << r->WSLab << " ";
        os << "];\n";
        os << "NSplit = " << nSplit << ";\n";
        // The rows below always hold at least one entry; without a split the
        // entry is 0, a label no workspace carries.
        const int rowsOut = nSplit > 0 ? nSplit : 1;
        auto splitLabel = [&](int i) { return nSplit > 0 ? splitSequence[i] : 0; };
        os << "SplitOrder = [";
        for (int i = 0; i < rowsOut; ++i) os << splitLabel(i) << " ";
        os << "];\n";
        os << "OffspringMat = [\n";
        for (int i = 0; i < rowsOut; ++i) {
            int written = 0;
            for (const auto& r : reports) {
                if (r->WSLab != splitLabel(i)) continue;
                for (int j = 0; j < r->nOffspring; ++j, ++written) os << r->offspring[j] << " ";
                break;
            }
            for (; written < nLeaves; ++written) os << "0 ";
            os << "\n";
        }
        os << "];\n";
        os << "[END GENERAL INFORMATION]\n";
    }
    for (const auto& r : reports) r->write(os, withStats, withCovariance);
}
