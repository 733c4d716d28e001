// The tentative split of one leaf: side by side on the run's threads, into
// connected pieces first (splitOption 2), or as one workspace.
#include "driver/DHC.h"

#include <memory>
#include <vector>

#include "data/LabelController.h"
#include "data/PottsMapRegion.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

using namespace dhc::driver;

namespace {

// Leaves together smaller than this are split one after the other.
constexpr long long kSideBySideArea = 1 << 15;

}  // namespace

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
    auto engineOf = [&](size_t slot) { return slot == 0 ? engine.get() : sideEngines_[slot - 1].get(); };

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
        std::vector<ChildArray> children(n);
        dhc::forChunks(static_cast<int>(n), 1, [&](int begin, int end, int) {
            for (int j = begin; j < end; ++j)
                children[j].reset(engineOf(j)->split(group[j]->data, fresh[j].get(), opts.keepTests, opts.beta));
        });

        size_t failed = n;
        for (size_t j = 0; j < n && failed == n; ++j) {
            PottsWS* ws = group[j]->data;
            last = engineOf(j);
            if (ws->splitState == 2 && children[j] != nullptr) {
                group[j]->appendChildren(k, children[j].get(), fresh[j].get());
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
            discardChildren(std::move(children[j]), k);
            for (int i = k; i-- > 0;) labels->release(fresh[j][i]);
            ws->root->mapRefresh(ws->root->label, false);
            ws->splitState = 0;
        }
        abandonSplit(labels.get(), group[failed]->data, fresh[failed].get(), k, std::move(children[failed]));
        last = engineOf(failed);
        for (size_t j = failed + 1; j < n; ++j) {
            splitLeaf(opts, group[j]);
            last = engine.get();
        }
    }
    // The main engine ends as the last split left its engine.
    if (last != nullptr && last != engine.get()) {
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
        const ChildArray children =
            tentativeSplit(engine.get(), labels.get(), ws, k, seeds, opts.keepTests, opts.beta, fresh);
        if (children != nullptr) node->appendChildren(k, children.get(), fresh.get());
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
    const ChildArray pieceArray(pieces);
    std::vector<std::unique_ptr<PottsWS>> scaffold;
    std::vector<int> scaffoldLabels;
    for (int i = 0; i < nPieces; ++i) {
        scaffold.emplace_back(pieces[i]);
        scaffoldLabels.push_back(pieces[i]->root->label);
    }

    std::vector<PottsWS*> parts;
    int refFirst = -1, refCount = 0;
    for (int i = 0; i < nPieces; ++i) {
        PottsWS* piece = scaffold[i].get();
        int k = engine->multiplicity;
        double** seeds = nullptr;
        if (variableMultiplicity) seeds = engine->MS_K_est(piece, k, true);
        ChildArray children;
        std::unique_ptr<int[]> fresh;
        if (areaOf(piece) >= opts.minSplitArea && k >= 2 && (!variableMultiplicity || seeds != nullptr))
            children = tentativeSplit(engine.get(), labels.get(), piece, k, seeds, opts.keepTests, opts.beta, fresh);
        if (children != nullptr) {
            if (refFirst < 0) {
                refFirst = static_cast<int>(parts.size());
                refCount = k;
            }
            for (int c = 0; c < k; ++c) {
                parts.push_back(children[c]);
                scaffold.emplace_back(children[c]);
                scaffoldLabels.push_back(fresh[c]);
            }
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
        ChildArray children(engine->split(ws, fresh.get(), parts.data(), static_cast<int>(parts.size()),
                                          classOf.data(), refCount, opts.keepTests, opts.beta));
        if (ws->splitState == 2 && children != nullptr)
            node->appendChildren(refCount, children.get(), fresh.get());
        else
            abandonSplit(labels.get(), ws, fresh.get(), refCount, std::move(children));
    } else {
        ws->root->mapRefresh(ws->root->label, false);
        ws->splitState = -1;
    }

    for (size_t i = 0; i < scaffold.size(); ++i) {
        labels->release(scaffoldLabels[i]);
        scaffold[i].reset();
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
    const std::unique_ptr<PottsMapRegion[]> pieceRegions(pieces);
    for (int i = 0; i < n; ++i) pieces[i].mapRefresh(fresh[i], false);
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
