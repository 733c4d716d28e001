#pragma once
// TreeNode<T>: one node of a general tree whose nodes are addressed by paths.
//
// A node's path is the list of child indices that leads from the tree's root
// to it: path[i] is the index taken at depth i, so the last entry is the node's
// own index among its parent's children.  Invariant, for a node n with parent
// p: n == p->children[n->path[n->depth - 1]] and n->path[0 .. depth-2] equals
// p->path.  Removing a child renumbers the paths of the later siblings and of
// their subtrees so the invariant keeps holding.
//
// Ownership: a node owns its children (array and nodes) and its path.  The
// payload is never deleted: workspaces and mixtures belong to whoever made
// them.  Not copyable.

#include <ostream>

#include "settings/Fatal.h"

template <class T>
class TreeNode {
  public:
    int label;
    T data;
    TreeNode<T>* parent;
    TreeNode<T>** children = nullptr;  // index order; null when none
    int nChildren = 0;
    bool terminal = true;  // no children
    bool root = false;     // made as the root of a tree; a root has no path
    int depth = 0;         // path entries
    int* path = nullptr;

    // A node without children.  With a parent it takes the parent's path plus
    // the index parent->nChildren - 1: the caller counts the new child in the
    // parent first and stores the node in the parent's array itself.
    TreeNode(T data_, int label_, TreeNode<T>* parent_) : label(label_), data(data_), parent(parent_) {
        if (parent != nullptr) {
            depth = parent->depth + 1;
            path = new int[depth];
            for (int i = 0; i < parent->depth; ++i) path[i] = parent->path[i];
            path[depth - 1] = parent->nChildren - 1;
        }
    }

    // Detaches the node from its parent (later siblings are renumbered; an only
    // child leaves the parent terminal), then deletes the subtree below it.
    ~TreeNode() {
        if (!root) removeParentLink();
        delete[] path;
        path = nullptr;
        // Removing the last child first keeps the siblings' renumbering idle.
        while (nChildren > 0) delete children[nChildren - 1];
        children = nullptr;
    }

    TreeNode(const TreeNode&) = delete;
    TreeNode& operator=(const TreeNode&) = delete;

    // Appends n new children: child k carries data[k] and labels[k].
    void appendChildren(int n, T* data_, int* labels) {
        if (n < 1) return;
        TreeNode<T>** grown = new TreeNode<T>*[nChildren + n];
        for (int i = 0; i < nChildren; ++i) grown[i] = children[i];
        delete[] children;
        children = grown;
        for (int k = 0; k < n; ++k) {
            ++nChildren;
            children[nChildren - 1] = new TreeNode<T>(data_[k], labels[k], this);
        }
        terminal = false;
    }

    // Makes the n parentless nodes the children of this node; the array itself
    // is taken over.  Fatal (status 1) when this node already has children;
    // "LinkTO!!" and status -(k+1) when node k already has a parent.
    void linkTo(TreeNode<T>** nodes, int n) {
        if (nChildren > 0) dhc::fatal(1);
        if (n < 1) {
            children = nodes;
            nChildren = n;
            return;
        }
        for (int k = 0; k < n; ++k) {
            if (nodes[k]->parent != nullptr) {
                dhc::out() << "LinkTO!!" << std::endl;
                dhc::fatal(-(k + 1));
            }
        }
        children = nodes;
        nChildren = n;
        terminal = false;
        for (int k = 0; k < n; ++k) {
            TreeNode<T>* node = nodes[k];
            ++node->depth;
            delete[] node->path;
            node->path = new int[node->depth]();
            node->path[node->depth - 1] = k;
            node->parent = this;
            for (int c = 0; c < node->nChildren; ++c) node->children[c]->prependPath(k);
        }
    }

    // Pre-order search of the subtree (this node first): the first node with the
    // label, or null.
    TreeNode<T>* find(int wanted) {
        if (label == wanted) return this;
        for (int c = 0; c < nChildren; ++c) {
            TreeNode<T>* hit = children[c]->find(wanted);
            if (hit != nullptr) return hit;
        }
        return nullptr;
    }

    // path[i] = v here and in every descendant; a root, or a node whose depth is
    // at most i, is skipped together with everything below it.
    void setPathComponent(int i, int v) {
        if (root || depth <= i) return;
        path[i] = v;
        for (int c = 0; c < nChildren; ++c) children[c]->setPathComponent(i, v);
    }

    // Removes this node from its parent's children: later siblings move down one
    // index (their subtrees' paths follow), and a parent left without children
    // becomes terminal.  The node keeps its own path.
    void removeParentLink() {
        if (parent == nullptr) return;
        TreeNode<T>* p = parent;
        parent = nullptr;
        if (p->nChildren > 1) {
            int own = 0;
            while (own < p->nChildren && p->children[own] != this) ++own;
            if (own == p->nChildren) return;
            TreeNode<T>** kept = new TreeNode<T>*[p->nChildren - 1];
            for (int j = 0, w = 0; j < p->nChildren; ++j)
                if (j != own) kept[w++] = p->children[j];
            delete[] p->children;
            p->children = kept;
            --p->nChildren;
            for (int j = own; j < p->nChildren; ++j)
                p->children[j]->setPathComponent(p->children[j]->depth - 1, j);
        } else {
            delete[] p->children;
            p->children = nullptr;
            p->nChildren = 0;
            p->terminal = true;
        }
    }

    // Diagnostics: one line per node of the subtree, indented by depth:
    // "<label> [p0 p1 ...]" followed by "*" for a terminal node.
    void print32() const {
        std::ostream& os = dhc::out();
        for (int i = 0; i < depth; ++i) os << "  ";
        os << label << " [";
        for (int i = 0; i < depth; ++i) os << (i ? " " : "") << path[i];
        os << "]" << (terminal ? " *" : "") << "\n";
        for (int c = 0; c < nChildren; ++c) children[c]->print32();
    }

  private:
    // Puts k in front of the path of this node and of its whole subtree.
    void prependPath(int k) {
        int* longer = new int[depth + 1];
        longer[0] = k;
        for (int i = 0; i < depth; ++i) longer[i + 1] = path[i];
        delete[] path;
        path = longer;
        ++depth;
        for (int c = 0; c < nChildren; ++c) children[c]->prependPath(k);
    }
};
