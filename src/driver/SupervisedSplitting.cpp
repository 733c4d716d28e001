// Supervised mode: the class-structure tree with its class models, and the
// splits along it.
#include "driver/DHC.h"

#include <cstdlib>
#include <memory>
#include <vector>

#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "settings/Fatal.h"
#include "stats/Mixture.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

using namespace dhc::driver;

namespace {

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

}  // namespace

void DHC::destroyMixTree() {
    if (mixTree == nullptr) return;
    std::vector<MixNode*> nodes;
    collectMix(mixTree->root, nodes);
    for (MixNode* node : nodes) {
        deleteModel(node->data);
        node->data = nullptr;
    }
    mixTree.reset();
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
    mixTree = std::make_unique<Tree<Mixture*>>(levels, paths, nClasses);
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
    const ChildArray children(engine->split(ws, fresh.get(), models.data()));
    if (ws->splitState != 2 || children == nullptr) {
        // A supervised split must not fail: the class structure is given.
        dhc::out() << "supSplitting!" << std::endl;
        const int ignored = std::system("PAUSE");
        (void)ignored;
        dhc::fatal(-2);
    }
    wsNode->appendChildren(k, children.get(), fresh.get());
    tree->current = wsNode;
    tree->validate(0);
    reportProgress(leafCount(), wsNode->label);
    for (int c = 0; c < k; ++c) supervisedStep(classNode->children[c], wsNode->children[c]);
}
