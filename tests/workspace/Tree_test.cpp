#include "workspace/Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
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

void linkUnder(Node* top, std::vector<Node*> adopted) {
    Node** nodes = new Node*[adopted.size()];
    std::copy(adopted.begin(), adopted.end(), nodes);
    top->linkTo(nodes, static_cast<int>(adopted.size()));
}

TEST(TreeNodeTest, DeletingAChildRenumbersLaterSiblingsOrMakesTheParentTerminal) {
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

    Node* only = last->children[1];
    append(only->children[0], {8, 9});  // its subtree goes with it
    delete only->children[0];
    EXPECT_TRUE(only->terminal);
    EXPECT_EQ(only->children, nullptr);
    expectConsistent(t.root);
}

TEST(TreeNodeTest, FindSearchesInPreOrder) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 5});
    append(t.root->children[0], {5});
    EXPECT_EQ(t.root->find(5), t.root->children[0]->children[0]);  // deeper, but first
    append(t.root->children[1], {5, 3});
    EXPECT_EQ(t.root->children[1]->find(5), t.root->children[1]);  // the node itself comes first
    EXPECT_EQ(t.root->find(99), nullptr);
}

TEST(TreeNodeDeathTest, LinkToAdoptsParentlessSubtreesAndExitsOnOthers) {
    Node top(0.0, 1, nullptr);
    Node* y = new Node(0.0, 3, nullptr);
    append(y, {4});
    append(y->children[0], {5});
    linkUnder(&top, {new Node(0.0, 2, nullptr), y});
    EXPECT_EQ(pathOf(y), (std::vector<int>{1}));
    EXPECT_EQ(pathOf(y->children[0]->children[0]), (std::vector<int>{1, 0, 0}));
    expectConsistent(&top);
    // A node that already has children: status 1.
    EXPECT_EXIT(linkUnder(&top, {new Node(0.0, 6, nullptr)}), ::testing::ExitedWithCode(1), "");
    // Node k already has a parent: "LinkTO!!" on the output and status -(k+1).
    dhc::setOut(&std::cerr);
    EXPECT_EXIT(linkUnder(new Node(0.0, 7, nullptr), {y}), ::testing::ExitedWithCode(-1 & 0xff), "LinkTO!!");
    EXPECT_EXIT(linkUnder(new Node(0.0, 7, nullptr), {new Node(0.0, 8, nullptr), y}),
                ::testing::ExitedWithCode(-2 & 0xff), "LinkTO!!");
    dhc::setOut(nullptr);
}

TEST(TreeTest, ValidateAndPruneKeepTheListsInStep) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));  // tentative until validated
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{2, 3}));
    split(t, t.root->children[0], {4, 5});
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    // Re-validating moves the children to the back of nodeList only.
    t.current = t.root;
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 4, 5, 2, 3}));

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

    // With depth 1 the grandchildren are refreshed too.
    append(t.root, {2, 3});
    append(t.root->children[0], {4, 5});
    t.validate(1);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{4, 5, 3}));
}

TEST(TreeTest, SortPathsPadsWithZerosAndKeepsTies) {
    // [1 0], [1], [1 0 0] are equal when padded and keep their input order.
    Paths in{{1, 0}, {1}, {0, 1}, {1, 0, 0}, {0}};
    int lens[5] = {2, 1, 2, 3, 1};
    int* rows[5] = {in[0].data(), in[1].data(), in[2].data(), in[3].data(), in[4].data()};
    int* lengths = lens;
    int** paths = rows;
    Tree<double>::sortPaths(lengths, paths, 5);
    const Paths expected{{0}, {0, 1}, {1, 0}, {1}, {1, 0, 0}};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(std::vector<int>(paths[i], paths[i] + lengths[i]), expected[i]);
        delete[] paths[i];
    }
    delete[] paths;
    delete[] lengths;
}

TEST(TreeTest, TerminalPathsRebuildTheShapeWithLabelsInCreationOrder) {
    Tree<double> t(1.0, 1);
    split(t, t.root, {2, 3});
    split(t, t.root->children[1], {4, 5});
    int* lengths = nullptr;
    int** paths = nullptr;
    ASSERT_EQ(t.retrieveStructure(lengths, paths), 3);
    const Paths expected{{0}, {1, 0}, {1, 1}};
    for (int i = 0; i < 3; ++i) EXPECT_EQ(std::vector<int>(paths[i], paths[i] + lengths[i]), expected[i]);
    // Given in reverse, the paths are sorted first: [0] -> 1; [1 0] creates
    // [1] -> 2 and [1 0] -> 3; [1 1] -> 4.
    std::reverse(lengths, lengths + 3);
    std::reverse(paths, paths + 3);
    Tree<double> copy(lengths, paths, 3);
    EXPECT_EQ(copy.root->label, 0);
    EXPECT_EQ(copy.root->children[1]->label, 2);
    EXPECT_EQ(copy.root->children[1]->children[1]->label, 4);
    EXPECT_EQ(labelsOf(copy.terminals), (std::vector<int>{1, 3, 4}));
    EXPECT_EQ(labelsOf(copy.nodeList), (std::vector<int>{0, 1, 2, 3, 4}));
    expectConsistent(copy.root);
    for (int i = 0; i < 3; ++i) delete[] paths[i];
    delete[] paths;
    delete[] lengths;
}

}  // namespace
