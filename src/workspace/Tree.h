#pragma once
// Tree<T>: a general tree of TreeNode<T> with a cursor (`current`) that the
// operations act on, the list of its terminal nodes and the list of all its
// nodes.  Used for the workspace hierarchy (PottsWS*), for trees of class
// models (Mixture*) and for class weights (double).
//
// terminals: the leaves, in the order in which they became leaves; this is the
// order in which the driver visits and reports them.  nodeList: every node
// once, a node moving to the back whenever it is (re)validated.  New children
// enter both lists only through validate(): children appended to a leaf stay
// tentative (a "test split") until then.
//
// Ownership: the tree owns its nodes; payloads are never deleted (the driver
// deletes its workspaces itself).  Not copyable.

#include <algorithm>
#include <list>
#include <ostream>
#include <vector>

#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "workspace/TreeNode.h"

template <class T>
class Tree {
  public:
    using NodeList = std::list<TreeNode<T>*>;

    TreeNode<T>* root = nullptr;
    TreeNode<T>* current = nullptr;
    NodeList terminals;
    typename NodeList::iterator terminalCursor;
    NodeList nodeList;
    typename NodeList::iterator nodeCursor;

    // A tree that is only a root with the given payload and label.
    Tree(T data, int label) { makeRoot(data, label); }

    // A root plus n parentless nodes (data[k], labels[k]).  Unless noLink, the
    // root is linked to them (they become its children and the terminals);
    // with noLink they only sit in nodeList, and the tree deletes those still
    // parentless when it is destroyed.
    Tree(int n, T* data, int* labels, T rootData, int rootLabel, bool noLink) {
        makeRoot(rootData, rootLabel);
        if (n < 1) return;
        TreeNode<T>** nodes = new TreeNode<T>*[n];
        for (int k = 0; k < n; ++k) nodes[k] = new TreeNode<T>(data[k], labels[k], nullptr);
        if (noLink) {
            for (int k = 0; k < n; ++k) nodeList.push_back(nodes[k]);
            delete[] nodes;
        } else {
            root->linkTo(nodes, n);
            validate(0);
        }
        resetCursors();
    }

    // The tree of n paths (class structure): root label 0, empty payloads.  The
    // paths are sorted first; then each entry either names an existing child or
    // the next free index, which creates that child with the next label (1, 2,
    // ... in creation order).  The caller keeps its arrays.
    Tree(int* lengths, int** paths, int n) {
        makeRoot(T{}, 0);
        int* sortedLengths = lengths;
        int** sortedPaths = paths;
        sortPaths(sortedLengths, sortedPaths, n);
        int nextLabel = 1;
        for (int p = 0; p < n; ++p) {
            TreeNode<T>* node = root;
            for (int i = 0; i < sortedLengths[p]; ++i) {
                const int e = sortedPaths[p][i];
                if (e < 0 || e > node->nChildren) break;  // malformed path: not in the structure
                if (e == node->nChildren) {
                    T empty{};
                    int label = nextLabel++;
                    node->appendChildren(1, &empty, &label);
                    current = node;
                    validate(0);
                }
                node = node->children[e];
            }
        }
        dhc::deleteRows(sortedPaths, n);
        delete[] sortedLengths;
        current = root;
        resetCursors();
    }

    ~Tree() {
        std::vector<TreeNode<T>*> loose;
        for (TreeNode<T>* node : nodeList)
            if (node->parent == nullptr && node != root) loose.push_back(node);
        delete root;
        for (TreeNode<T>* node : loose) delete node;
    }

    Tree(const Tree&) = delete;
    Tree& operator=(const Tree&) = delete;

    // After `current` has been given children: current leaves the terminal
    // list (if it has children), and each child, in index order, joins the
    // terminal list when it is a leaf not listed yet and moves to the back of
    // nodeList; with depth > 0 each child is validated in turn with depth - 1.
    // `current` is the same node afterwards.
    void validate(int depth) {
        TreeNode<T>* node = current;
        // A node without children is still a leaf and keeps its place.
        if (!node->terminal) terminals.remove(node);
        for (int c = 0; c < node->nChildren; ++c) {
            TreeNode<T>* child = node->children[c];
            current = child;
            if (child->terminal && !contains(terminals, child)) terminals.push_back(child);
            nodeList.remove(child);
            nodeList.push_back(child);
            if (depth > 0) validate(depth - 1);
            current = child->parent;
        }
    }

    // validate(0) for every node in the terminal list (over a copy, as the
    // list changes): listed nodes that have been given children are replaced by
    // them.  `current` is left at the last node visited.
    void validateAllTerminals() {
        const NodeList snapshot = terminals;
        for (TreeNode<T>* node : snapshot) {
            current = node;
            validate(0);
        }
    }

    // Removes everything below `current` from the lists and deletes it;
    // `current` becomes a leaf again and rejoins the terminal list (the root
    // only if no other leaf is listed).
    void prune() {
        TreeNode<T>* top = current;
        const bool hadChildren = top->nChildren > 0;
        std::vector<TreeNode<T>*> below;
        collectBelow(top, below);
        for (TreeNode<T>* node : below) {
            terminals.remove(node);
            nodeList.remove(node);
        }
        while (top->nChildren > 0) delete top->children[top->nChildren - 1];
        if (hadChildren && !contains(terminals, top) && (!top->root || terminals.empty()))
            terminals.push_back(top);
        resetCursors();
    }

    // New array of the payloads of the terminal list, in list order
    // (terminals.size() entries).
    T* getTerminals() {
        T* out = new T[terminals.size()];
        int i = 0;
        for (TreeNode<T>* node : terminals) out[i++] = node->data;
        return out;
    }

    // New arrays with the depth and a copy of the path of every terminal, in
    // list order; returns their number.  Feeding them to Tree(lengths, paths, n)
    // rebuilds a tree of the same shape.
    int retrieveStructure(int*& lengths, int**& paths) {
        const int n = static_cast<int>(terminals.size());
        lengths = new int[n];
        paths = new int*[n];
        int i = 0;
        for (TreeNode<T>* node : terminals) {
            lengths[i] = node->depth;
            paths[i] = new int[node->depth];
            std::copy(node->path, node->path + node->depth, paths[i]);
            ++i;
        }
        return n;
    }

    // Replaces lengths and paths by new sorted copies (the old arrays are left
    // to the caller): lexicographic order of the paths zero-padded to the
    // longest, ties in input order.  [1] and [1 0] are therefore equal.
    static void sortPaths(int*& lengths, int**& paths, int n) {
        const int count = n > 0 ? n : 0;
        int longest = 0;
        for (int p = 0; p < count; ++p) longest = std::max(longest, lengths[p]);
        std::vector<std::vector<int>> padded(count, std::vector<int>(longest, 0));
        for (int p = 0; p < count; ++p) std::copy(paths[p], paths[p] + lengths[p], padded[p].begin());
        std::vector<int> order(count);
        for (int p = 0; p < count; ++p) order[p] = p;
        // Stable passes from the last column to the first give the
        // lexicographic order; bubble sort with a strict test is stable.
        for (int c = longest - 1; c >= 0; --c) {
            for (int end = count - 1; end > 0; --end) {
                bool swapped = false;
                for (int i = 0; i < end; ++i) {
                    if (padded[order[i + 1]][c] < padded[order[i]][c]) {
                        std::swap(order[i], order[i + 1]);
                        swapped = true;
                    }
                }
                if (!swapped) break;
            }
        }
        int* newLengths = new int[count];
        int** newPaths = new int*[count];
        for (int i = 0; i < count; ++i) {
            const int src = order[i];
            newLengths[i] = lengths[src];
            newPaths[i] = new int[lengths[src]];
            std::copy(paths[src], paths[src] + lengths[src], newPaths[i]);
        }
        lengths = newLengths;
        paths = newPaths;
    }

    // Diagnostics: the whole tree, then the terminal labels in list order.
    void print32() {
        root->print32();
        std::ostream& os = dhc::out();
        os << "terminals:";
        for (TreeNode<T>* node : terminals) os << " " << node->label;
        os << "\n";
    }

  private:
    void makeRoot(T data, int label) {
        root = new TreeNode<T>(data, label, nullptr);
        root->root = true;
        current = root;
        terminals.push_back(root);
        nodeList.push_back(root);
        resetCursors();
    }

    void resetCursors() {
        terminalCursor = terminals.begin();
        nodeCursor = nodeList.begin();
    }

    static bool contains(const NodeList& list, TreeNode<T>* node) {
        return std::find(list.begin(), list.end(), node) != list.end();
    }

    // The subtree below top in pre-order (top excluded).
    static void collectBelow(TreeNode<T>* top, std::vector<TreeNode<T>*>& out) {
        for (int c = 0; c < top->nChildren; ++c) {
            out.push_back(top->children[c]);
            collectBelow(top->children[c], out);
        }
    }
};
