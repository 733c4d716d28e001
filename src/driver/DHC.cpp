// DHC's core: construction from every source (memory, hraw file, band files,
// with or without initial regions), the upkeep of the tree, and the removal
// of test splits after the strategies.
#include "driver/DHC.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "data/ImageFile.h"
#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "data/ROI.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/FileName.h"
#include "stats/Mixture.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

using namespace dhc::driver;

namespace {

// Frame width of the shared label map: the 8-neighbourhood needs one cell.
constexpr int kPad = 1;

}  // namespace

// ---------------------------------------------------------------------------
// Construction and destruction

void DHC::setProgress(std::function<void(int, int)> hook) {
    progressHook() = std::move(hook);
}

std::unique_ptr<PottsEngine> DHC::makeEngine() {
    if (settings != nullptr) return std::make_unique<PottsEngine>(settings);
    if (configFile != nullptr) return std::make_unique<PottsEngine>(configFile);
    return std::make_unique<PottsEngine>();
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
    tree = std::make_unique<Tree<PottsWS*>>(root.get(), root->root->label);
    root.release();
    labels = std::move(lc);
    engine = std::move(eng);
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
}

// Runs a construction step after initCommon; if it throws, the workspaces of
// the tree are released (the destructor does not run for a throwing
// constructor; the members free themselves).
void DHC::guarded(const std::function<void()>& step) {
    try {
        step();
    } catch (...) {
        distroyDhcTree();
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
    const std::unique_ptr<PottsWS*[]> childArray(children);
    tree->root->appendChildren(k, children, fresh.get());
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
    std::vector<std::unique_ptr<PottsWS>> workspaces;  // freed last
    for (WSNode* node : below) {
        freed.push_back(node->label);
        workspaces.emplace_back(node->data);
    }
    tree->current = tree->root;
    tree->prune();
    for (int label : freed) labels->release(label);
}

void DHC::distroyDhcTree() {
    if (tree == nullptr) return;
    std::vector<WSNode*> nodes{tree->root};
    collectBelow(tree->root, nodes);
    std::vector<std::unique_ptr<PottsWS>> workspaces;
    workspaces.reserve(nodes.size());
    for (WSNode* node : nodes) workspaces.emplace_back(node->data);
    tree.reset();
    // The root owns the shared label planes: it goes last.
    while (!workspaces.empty()) workspaces.pop_back();
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
// Clean-up after the strategies

void DHC::removeTestSplits(bool reload) {
    const std::vector<WSNode*> leaves(tree->terminals.begin(), tree->terminals.end());
    for (WSNode* leaf : leaves) {
        while (leaf->nChildren > 0) {
            WSNode* child = leaf->children[leaf->nChildren - 1];
            std::vector<WSNode*> doomed{child};
            collectBelow(child, doomed);
            std::vector<std::unique_ptr<PottsWS>> workspaces;  // freed after their nodes
            for (WSNode* node : doomed) {
                labels->release(node->label);
                workspaces.emplace_back(node->data);
            }
            delete child;  // detaches itself; the leaf turns terminal with its last child
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
