#pragma once
// Small steps that the driver's files share (construction, the strategies,
// the run, the reports).  Internal to src/driver: not part of the library's
// interface.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "data/PottsMapRegion.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"

class LabelController;
class Mixture;
class PottsEngine;

namespace dhc::driver {

using WSNode = TreeNode<PottsWS*>;
using MixNode = TreeNode<Mixture*>;

// The hook DHC::setProgress installs (empty: off).
std::function<void(int, int)>& progressHook();
void reportProgress(int leaves, int label);

inline int areaOf(const PottsWS* ws) {
    return ws->root->area;
}

// Workspaces of the subtree below `node` (node excluded), pre-order,
// tentative children included.
void collectBelow(WSNode* node, std::vector<WSNode*>& out);

// Mean, covariance and features of a workspace brought up to date.
void refreshStats(PottsWS* ws);

// The array of child workspaces a split hands over.  The array is owned;
// the workspaces it points at are the tree's once appended to a node, else
// discardChildren frees them.
using ChildArray = std::unique_ptr<PottsWS*[]>;

// Frees the k workspaces of children that no node took.
void discardChildren(ChildArray children, int k);

// Gives back labels that a refused split had taken, frees its children (when
// any) and repaints the leaf with its own label, so no stale child label stays
// in the map.
void abandonSplit(LabelController* lc, PottsWS* ws, const int* labels, int k, ChildArray children);

// A tentative engine split of ws into k children, seeded when seeds is given;
// fresh receives the children's labels.  A refused split is abandoned: null.
ChildArray tentativeSplit(PottsEngine* engine, LabelController* lc, PottsWS* ws, int k, double** seeds,
                          bool keepTests, double beta, std::unique_ptr<int[]>& fresh);

// A number as the stop lines write it (the stream's default format).
std::string numberText(double v);

}  // namespace dhc::driver
