// Blind splitting: leaves split breadth first by a score, without test splits.
#include "driver/DHC.h"

#include <cmath>
#include <deque>
#include <memory>
#include <string>

#include "data/LabelController.h"
#include "driver/DriverSteps.h"
#include "engine/PottsEngine.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

using namespace dhc::driver;

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
    Tree<PottsWS*>* work = tree.get();
    if (opts.localTree) {
        WSNode* startNode = tree->root->find(opts.startLabel);
        if (startNode == nullptr) return;
        local = std::make_unique<Tree<PottsWS*>>(startNode->data, startNode->label);
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
                const ChildArray children =
                    tentativeSplit(engine.get(), labels.get(), ws, k, seeds, false, 1.0, fresh);
                if (children != nullptr) {
                    node->appendChildren(k, children.get(), fresh.get());
                    work->current = node;
                    work->validate(0);
                    if (local) {
                        WSNode* mainNode = tree->root->find(node->label);
                        mainNode->appendChildren(k, children.get(), fresh.get());
                        tree->current = mainNode;
                        tree->validate(0);
                    }
                    reportProgress(leafCount(), node->label);
                    for (int c = 0; c < node->nChildren; ++c) {
                        WSNode* child = node->children[c];
                        ChildArray pieces;
                        int n = 1;
                        if (opts.splitwiseDisconnect) {
                            tree->current = local ? tree->root->find(child->label) : child;
                            pieces.reset(disconnect(n, true, local ? work : nullptr));
                        }
                        if (pieces != nullptr) {
                            for (int i = 0; i < child->nChildren; ++i) {
                                refreshStats(child->children[i]->data);
                                queue.push_back(child->children[i]);
                            }
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
