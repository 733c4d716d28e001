#pragma once
// WeightTree: a mirror of the workspace tree whose nodes carry weights.
//
// The mirror has the shape and the labels of the workspace tree; a class's
// weight is the product of the weights along its path, and the sum of these
// products over the leaves is a fractional number of classes.  With every
// weight 1.0 that is the number of leaves; with area weights a split of a
// region into parts counts as one class spread over its parts.
//
// Owns the mirror tree; the workspace tree (`source`) is only observed.  Not
// copyable.

#include <memory>

#include "workspace/Tree.h"

class PottsWS;

class WeightTree {
  public:
    std::unique_ptr<Tree<double>> weights;  // the mirror
    Tree<PottsWS*>* source = nullptr;       // the workspace tree, not owned
    int rootLabel = 0;                      // label of the workspace tree's root

    // Mirrors the current shape of source, every weight 1.0 (moves source's
    // cursor to its root).
    explicit WeightTree(Tree<PottsWS*>* source);

    // Mirrors the splits made in source since the last call: the children get
    // weight 1.0, or with byArea their share of the parent's children's pixels.
    void growWeights(bool byArea);
    // Product of the positive weights from the mirror's current node up to the root.
    double getCurrentWeight();
    // Sum of the current weights of the mirror's terminals (moves its cursor).
    double getNClassFloat();
    // True when both trees list the same terminal labels in the same order.
    bool checkConsistency();
    // The weight of every mirror terminal, each followed by a blank, then a line end.
    void print32();

  private:
    void mirror(TreeNode<PottsWS*>* from, TreeNode<double>* to);
};
