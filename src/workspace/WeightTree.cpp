#include "workspace/WeightTree.h"

#include <ostream>
#include <vector>

#include "settings/Fatal.h"
#include "workspace/PottsWS.h"

WeightTree::WeightTree(Tree<PottsWS*>* source_) : source(source_) {
    source->current = source->root;
    rootLabel = source->root->label;
    weights = std::make_unique<Tree<double>>(1.0, rootLabel);
    mirror(source->root, weights->root);
}

// Pre-order: give the mirror node the children of the workspace node, validate
// them, then descend.
void WeightTree::mirror(TreeNode<PottsWS*>* from, TreeNode<double>* to) {
    const int k = from->nChildren;
    if (k < 1) return;
    std::vector<double> ones(k, 1.0);
    std::vector<int> labels(k);
    for (int c = 0; c < k; ++c) labels[c] = from->children[c]->label;
    to->appendChildren(k, ones.data(), labels.data());
    weights->current = to;
    weights->validate(0);
    for (int c = 0; c < k; ++c) {
        source->current = from->children[c];
        mirror(from->children[c], to->children[c]);
    }
}

void WeightTree::growWeights(bool byArea) {
    if (!weights->terminals.empty()) weights->current = weights->terminals.front();
    for (TreeNode<PottsWS*>* t : source->terminals) {
        if (t->label == weights->current->label) continue;  // already mirrored
        TreeNode<PottsWS*>* parent = t->parent;
        if (parent == nullptr) continue;
        TreeNode<double>* node = weights->root->find(parent->label);
        if (node == nullptr) continue;
        weights->current = node;
        if (node->nChildren > 0) continue;
        const int k = parent->nChildren;
        std::vector<double> w(k, 1.0);
        std::vector<int> labels(k);
        double total = 0.0;
        for (int c = 0; c < k; ++c) {
            labels[c] = parent->children[c]->label;
            total += parent->children[c]->data->envelopeCount;
        }
        if (byArea)
            for (int c = 0; c < k; ++c) w[c] = parent->children[c]->data->envelopeCount / total;
        node->appendChildren(k, w.data(), labels.data());
    }
    weights->validateAllTerminals();
}

double WeightTree::getCurrentWeight() {
    double w = 1.0;
    for (TreeNode<double>* n = weights->current; n != nullptr && n->label != rootLabel; n = n->parent)
        if (n->data > 0.0) w *= n->data;  // a non-positive weight is skipped, not a zero factor
    return w;
}

double WeightTree::getNClassFloat() {
    double sum = 0.0;
    for (TreeNode<double>* n : weights->terminals) {
        weights->current = n;
        sum += getCurrentWeight();
    }
    return sum;
}

bool WeightTree::checkConsistency() {
    auto a = source->terminals.begin();
    auto b = weights->terminals.begin();
    for (; a != source->terminals.end() && b != weights->terminals.end(); ++a, ++b)
        if ((*a)->label != (*b)->label) return false;
    return a == source->terminals.end() && b == weights->terminals.end();
}

void WeightTree::print32() {
    std::ostream& out = dhc::out();
    for (TreeNode<double>* n : weights->terminals) out << n->data << " ";
    out << "\n";
}
