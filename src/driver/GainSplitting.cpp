// Gain-driven and balanced splitting (DHC::splitting) with its stopping rules.
#include "driver/DHC.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "stats/OpMatrix.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WeightTree.h"

using namespace dhc::driver;

namespace {

// Refused leaves weighed one level deeper before a criterion-driven run stops.
constexpr size_t kLookAheads = 2;

const char* criterionName(int criterion) {
    return criterion == 1 ? "ICL" : "BIC";
}

// Every leaf's score in terminal-list order, and whether its tentative split
// may be made permanent.
void scoreLeaves(const SplittingOptions& opts, double theta, const std::vector<WSNode*>& leaves,
                 std::vector<double>& scores, std::vector<char>& eligible) {
    const bool balanced = opts.depthLimit > 0;
    const bool byCriterion = !balanced && opts.stopCriterion > 0;
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
    std::vector<std::unique_ptr<PottsWS>> workspaces;
    for (WSNode* node : below) {
        freed.push_back(node->label);
        workspaces.emplace_back(node->data);
    }
    tree->current = leaf;
    tree->prune();
    for (auto it = freed.rbegin(); it != freed.rend(); ++it) labels->release(*it);
    workspaces.clear();
    std::copy(kept.begin(), kept.end(), ws->data);
    ws->root->mapRefresh(ws->root->label, false);
    ws->refused = true;
    ws->refusedGain = ws->splitGain;
    ws->refusedCriterion = own + deeper;
    ws->splitState = -3;
    return false;
}

void DHC::makePermanent(const SplittingOptions& opts, WSNode* chosen, WeightTree* weights) {
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
            const ChildArray pieces(disconnect(n, true, nullptr));
        }
        weights->growWeights(true);
    }
}

void DHC::splitting(SplittingOptions opts) {
    const bool balanced = opts.depthLimit > 0;
    const bool byCriterion = !balanced && opts.stopCriterion > 0;
    const double theta = balanced ? 0.1 : (byCriterion ? 0.0 : opts.splitGainThreshold);
    std::unique_ptr<WeightTree> weights;
    if (opts.splitMode == 1) weights = std::make_unique<WeightTree>(tree.get());
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
    } leaveValues(engine.get());

    for (;;) {
        testSplitting(opts);
        std::vector<WSNode*> leaves(tree->terminals.begin(), tree->terminals.end());
        std::vector<double> scores(leaves.size());
        std::vector<char> eligible(leaves.size());
        scoreLeaves(opts, theta, leaves, scores, eligible);
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
        makePermanent(opts, chosen, weights.get());
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
