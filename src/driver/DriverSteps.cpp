#include "driver/DriverSteps.h"

#include <sstream>

#include "data/LabelController.h"
#include "engine/PottsEngine.h"

namespace dhc::driver {

std::function<void(int, int)>& progressHook() {
    static std::function<void(int, int)> hook;
    return hook;
}

void reportProgress(int leaves, int label) {
    if (progressHook()) progressHook()(leaves, label);
}

void collectBelow(WSNode* node, std::vector<WSNode*>& out) {
    for (int c = 0; c < node->nChildren; ++c) {
        out.push_back(node->children[c]);
        collectBelow(node->children[c], out);
    }
}

void refreshStats(PottsWS* ws) {
    ws->updateMi();
    ws->updateSigma();
    ws->updateFeatures();
}

void discardChildren(ChildArray children, int k) {
    if (children == nullptr) return;
    for (int i = 0; i < k; ++i) std::unique_ptr<PottsWS>(children[i]).reset();
}

void abandonSplit(LabelController* lc, PottsWS* ws, const int* labels, int k, ChildArray children) {
    discardChildren(std::move(children), k);
    for (int i = 0; i < k; ++i) lc->release(labels[i]);
    ws->root->mapRefresh(ws->root->label, false);
}

ChildArray tentativeSplit(PottsEngine* engine, LabelController* lc, PottsWS* ws, int k, double** seeds,
                          bool keepTests, double beta, std::unique_ptr<int[]>& fresh) {
    fresh.reset(lc->pickMultiple(k));
    ChildArray children(seeds != nullptr ? engine->split(ws, fresh.get(), seeds, keepTests, beta)
                                         : engine->split(ws, fresh.get(), keepTests, beta));
    if (ws->splitState == 2 && children != nullptr) return children;
    abandonSplit(lc, ws, fresh.get(), k, std::move(children));
    return nullptr;
}

std::string numberText(double v) {
    std::ostringstream out;
    out << v;
    return out.str();
}

}  // namespace dhc::driver
