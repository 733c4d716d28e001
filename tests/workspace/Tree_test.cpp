#include "workspace/Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "settings/Fatal.h"

namespace {

using Node = TreeNode<double>;
using Paths = std::vector<std::vector<int>>;

std::vector<int> pathOf(const Node* n) {
    return std::vector<int>(n->path, n->path + n->depth);
}

std::vector<int> labelsOf(const std::list<Node*>& l) {
    std::vector<int> out;
    for (const Node* n : l) out.push_back(n->label);
    return out;
}

// The path invariant over a whole subtree.
void expectConsistent(const Node* n) {
    EXPECT_EQ(n->terminal, n->nChildren == 0);
    for (int c = 0; c < n->nChildren; ++c) {
        const Node* ch = n->children[c];
        ASSERT_EQ(ch->parent, n);
        ASSERT_EQ(ch->depth, n->depth + 1);
        ASSERT_EQ(ch->path[ch->depth - 1], c);
        ASSERT_TRUE(std::equal(n->path, n->path + n->depth, ch->path));
        expectConsistent(ch);
    }
}

void append(Node* n, std::vector<int> labels) {
    std::vector<double> data(labels.size(), 0.5);
    n->appendChildren(static_cast<int>(labels.size()), data.data(), labels.data());
}

// Appends and validates, as the driver does after a split.
void split(Tree<double>& t, Node* at, std::vector<int> labels) {
    append(at, labels);
    t.current = at;
    t.validate(0);
}

// Runs sortPaths on a copy of in and returns the sorted paths.
Paths sorted(Paths in) {
    std::vector<int*> rows;
    std::vector<int> lens;
    for (auto& p : in) {
        rows.push_back(p.data());
        lens.push_back(static_cast<int>(p.size()));
    }
    int* lengths = lens.data();
    int** paths = rows.data();
    Tree<double>::sortPaths(lengths, paths, static_cast<int>(in.size()));
    Paths out;
    for (size_t i = 0; i < in.size(); ++i) {
        out.emplace_back(paths[i], paths[i] + lengths[i]);
        delete[] paths[i];
    }
    delete[] paths;
    delete[] lengths;
    return out;
}

TEST(TreeNodeTest, DeletingTheMiddleChildRenumbersLaterSiblingsAndTheirSubtrees) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3, 4});
    append(t.root->children[2], {5, 6});
    append(t.root->children[2]->children[1], {7});
    Node* last = t.root->children[2];
    delete t.root->children[1];
    ASSERT_EQ(t.root->nChildren, 2);
    EXPECT_EQ(t.root->children[1], last);
    EXPECT_EQ(pathOf(last), (std::vector<int>{1}));
    EXPECT_EQ(pathOf(last->children[1]->children[0]), (std::vector<int>{1, 1, 0}));
    expectConsistent(t.root);
}

TEST(TreeNodeTest, DeletingAnOnlyChildMakesTheParentTerminal) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    Node* a = t.root->children[0];
    append(a, {4});
    append(a->children[0], {5, 6});  // its subtree goes with it
    delete a->children[0];
    EXPECT_TRUE(a->terminal);
    EXPECT_EQ(a->nChildren, 0);
    EXPECT_EQ(a->children, nullptr);
    expectConsistent(t.root);
}

TEST(TreeNodeTest, FindSearchesInPreOrder) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 5});
    append(t.root->children[0], {5});
    EXPECT_EQ(t.root->find(5), t.root->children[0]->children[0]);  // deeper, but first
    Tree<double> u(1.0, 1);
    append(u.root, {5, 3});
    append(u.root->children[1], {5});
    EXPECT_EQ(u.root->find(5), u.root->children[0]);
    EXPECT_EQ(u.root->find(1), u.root);
    EXPECT_EQ(u.root->find(99), nullptr);
}

TEST(TreeNodeTest, SetPathComponentStopsAtShallowNodesAndRoots) {
    Tree<double> t(1.0, 1);
    append(t.root, {2});
    Node* a = t.root->children[0];
    append(a, {3});
    append(a->children[0], {4});
    a->setPathComponent(1, 9);  // a has depth 1: nothing below it changes either
    EXPECT_EQ(pathOf(a->children[0]), (std::vector<int>{0, 0}));
    a->children[0]->setPathComponent(0, 7);
    EXPECT_EQ(pathOf(a), (std::vector<int>{0}));
    EXPECT_EQ(pathOf(a->children[0]->children[0]), (std::vector<int>{7, 0, 0}));
    t.root->setPathComponent(0, 3);
    EXPECT_EQ(pathOf(a), (std::vector<int>{0}));
}

TEST(TreeNodeTest, LinkToAdoptsParentlessSubtrees) {
    Node* top = new Node(0.0, 1, nullptr);
    Node* y = new Node(0.0, 3, nullptr);
    append(y, {4});
    append(y->children[0], {5});
    Node** nodes = new Node* [2] { new Node(0.0, 2, nullptr), y };
    top->linkTo(nodes, 2);
    EXPECT_EQ(top->children, nodes);  // taken over, not copied
    EXPECT_EQ(pathOf(y), (std::vector<int>{1}));
    EXPECT_EQ(pathOf(y->children[0]->children[0]), (std::vector<int>{1, 0, 0}));
    expectConsistent(top);
    delete top;
}

void linkUnder(Node* top, std::vector<Node*> adopted) {
    Node** nodes = new Node*[adopted.size()];
    std::copy(adopted.begin(), adopted.end(), nodes);
    top->linkTo(nodes, static_cast<int>(adopted.size()));
}

TEST(TreeNodeDeathTest, LinkToExits) {
    Tree<double> t(1.0, 1);
    append(t.root, {2});
    Node* owned = t.root->children[0];
    // A node that already has children: status 1.
    EXPECT_EXIT(linkUnder(t.root, {new Node(0.0, 3, nullptr)}), ::testing::ExitedWithCode(1), "");
    // Node k already has a parent: "LinkTO!!" on the output and status -(k+1).
    dhc::setOut(&std::cerr);
    EXPECT_EXIT(linkUnder(new Node(0.0, 5, nullptr), {owned}), ::testing::ExitedWithCode(-1 & 0xff),
                "LinkTO!!");
    EXPECT_EXIT(linkUnder(new Node(0.0, 5, nullptr), {new Node(0.0, 3, nullptr), owned}),
                ::testing::ExitedWithCode(-2 & 0xff), "LinkTO!!");
    dhc::setOut(nullptr);
}

TEST(TreeTest, ValidateReplacesTheSplitNodeByItsChildren) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));  // tentative until validated
    t.validate(0);
    EXPECT_EQ(t.current, t.root);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{2, 3}));
    split(t, t.root->children[0], {4, 5});
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    // Re-validating moves the children to the back of nodeList only.
    t.current = t.root;
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 4, 5, 2, 3}));
    // With depth 1 the grandchildren are refreshed too; leaves stay listed.
    Tree<double> d(1.0, 1);
    append(d.root, {2, 3});
    append(d.root->children[0], {4, 5});
    d.validate(1);
    EXPECT_EQ(labelsOf(d.terminals), (std::vector<int>{4, 5, 3}));
}

TEST(TreeTest, ValidateAllTerminalsPicksUpChildrenOfListedLeaves) {
    Tree<double> t(1.0, 1);
    split(t, t.root, {2, 3, 4});
    append(t.root->children[2], {7, 8});
    append(t.root->children[0], {5, 6});
    t.validateAllTerminals();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 5, 6, 7, 8}));
}

TEST(TreeTest, PruneRemovesTheSubtreeAndRestoresTheLeaf) {
    Tree<double> t(1.0, 1);
    split(t, t.root, {2, 3});
    split(t, t.root->children[0], {4, 5});
    split(t, t.root->children[0]->children[1], {6});
    append(t.root->children[1], {7, 8});  // a test split, never validated
    t.current = t.root->children[0];
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 2}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(t.root->find(6), nullptr);
    t.current = t.root->children[1];
    t.prune();  // the listed leaf stays listed once
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 2}));
    t.current = t.root;
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1}));
    EXPECT_TRUE(t.root->terminal);
}

TEST(TreeTest, TerminalsAndStructureRebuildTheShape) {
    Tree<double> t(1.0, 1);
    split(t, t.root, {2, 3});
    split(t, t.root->children[1], {4, 5});
    t.root->children[1]->children[0]->data = 0.25;
    double* payloads = t.getTerminals();
    EXPECT_EQ(std::vector<double>(payloads, payloads + 3), (std::vector<double>{0.5, 0.25, 0.5}));
    delete[] payloads;

    int* lengths = nullptr;
    int** paths = nullptr;
    const int n = t.retrieveStructure(lengths, paths);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(std::vector<int>(paths[1], paths[1] + lengths[1]), (std::vector<int>{1, 0}));
    Tree<double> copy(lengths, paths, n);
    ASSERT_EQ(copy.root->nChildren, 2);
    EXPECT_EQ(copy.root->children[0]->nChildren, 0);
    EXPECT_EQ(copy.root->children[1]->nChildren, 2);
    for (int i = 0; i < n; ++i) delete[] paths[i];
    delete[] paths;
    delete[] lengths;
}

TEST(TreeTest, SortPathsPadsWithZerosAndKeepsTies) {
    // [1 0], [1], [1 0 0] are equal when padded and keep their input order.
    EXPECT_EQ(sorted({{1, 0}, {1}, {0, 1}, {1, 0, 0}, {0}}), (Paths{{0}, {0, 1}, {1, 0}, {1}, {1, 0, 0}}));
    EXPECT_EQ(sorted({{1}, {1, 0}}), (Paths{{1}, {1, 0}}));
    // Against a stable lexicographic sort of the padded paths.
    std::srand(12345);
    for (int round = 0; round < 50; ++round) {
        Paths in(1 + std::rand() % 12);
        for (auto& p : in) {
            p.resize(std::rand() % 4);
            for (int& e : p) e = std::rand() % 3;
        }
        Paths expected = in;
        auto pad = [](std::vector<int> p) {
            p.resize(4, 0);
            return p;
        };
        std::stable_sort(expected.begin(), expected.end(),
                         [&](const auto& a, const auto& b) { return pad(a) < pad(b); });
        ASSERT_EQ(sorted(in), expected) << "round " << round;
    }
}

TEST(TreeTest, TreeFromPathsLabelsNodesInCreationOrder) {
    Paths in{{1, 1}, {0}, {1, 0}};
    std::vector<int*> rows{in[0].data(), in[1].data(), in[2].data()};
    std::vector<int> lens{2, 1, 2};
    Tree<double> t(lens.data(), rows.data(), 3);
    // Sorted: [0] -> 1; [1 0] creates [1] -> 2 and [1 0] -> 3; [1 1] -> 4.
    EXPECT_EQ(t.root->label, 0);
    EXPECT_EQ(t.root->children[0]->label, 1);
    EXPECT_EQ(t.root->children[1]->label, 2);
    EXPECT_EQ(t.root->children[1]->children[0]->label, 3);
    EXPECT_EQ(t.root->children[1]->children[1]->label, 4);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1, 3, 4}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{0, 1, 2, 3, 4}));
    expectConsistent(t.root);
    EXPECT_EQ(in[0], (std::vector<int>{1, 1}));  // the caller's paths are untouched
}

}  // namespace
