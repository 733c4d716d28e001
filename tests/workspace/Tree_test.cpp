#include "workspace/Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <vector>

#include "settings/Fatal.h"

namespace {

using Node = TreeNode<double>;

std::vector<int> pathOf(const Node* n) {
    return std::vector<int>(n->path, n->path + n->depth);
}

std::vector<int> labelsOf(const std::list<Node*>& l) {
    std::vector<int> out;
    for (const Node* n : l) out.push_back(n->label);
    return out;
}

void append(Node* n, std::vector<int> labels) {
    std::vector<double> data(labels.size(), 0.5);
    n->appendChildren(static_cast<int>(labels.size()), data.data(), labels.data());
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

    Node* only = last->children[1];
    append(only->children[0], {8, 9});  // its subtree goes with it
    delete only->children[0];
    EXPECT_TRUE(only->terminal);
    EXPECT_EQ(only->children, nullptr);
}

TEST(TreeNodeDeathTest, LinkToAdoptsParentlessSubtreesAndExitsOnOthers) {
    Node top(0.0, 1, nullptr);
    Node* y = new Node(0.0, 3, nullptr);
    append(y, {4});
    linkUnder(&top, {new Node(0.0, 2, nullptr), y});
    EXPECT_EQ(pathOf(y->children[0]), (std::vector<int>{1, 0}));
    // A node that already has children: status 1.
    EXPECT_EXIT(linkUnder(&top, {new Node(0.0, 6, nullptr)}), ::testing::ExitedWithCode(1), "");
    // Node k already has a parent: "LinkTO!!" on the output and status -(k+1).
    dhc::setOut(&std::cerr);
    EXPECT_EXIT(linkUnder(new Node(0.0, 7, nullptr), {y}), ::testing::ExitedWithCode(-1 & 0xff), "LinkTO!!");
    EXPECT_EXIT(linkUnder(new Node(0.0, 7, nullptr), {new Node(0.0, 8, nullptr), y}),
                ::testing::ExitedWithCode(-2 & 0xff), "LinkTO!!");
    dhc::setOut(nullptr);
}

TEST(TreeTest, ValidateListsTheChildrenAndPruningTheRootResets) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));  // tentative until validated
    t.validate(0);
    append(t.root->children[0], {4, 5});
    t.current = t.root->children[0];
    t.validate(0);
    // Re-validating moves the children to the back of nodeList only.
    t.current = t.root;
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 4, 5, 2, 3}));

    append(t.root->children[1], {7, 8});  // a test split, never validated
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
    std::vector<std::vector<int>> in{{1, 0}, {1}, {0, 1}, {1, 0, 0}, {0}};
    int lens[5] = {2, 1, 2, 3, 1};
    int* rows[5] = {in[0].data(), in[1].data(), in[2].data(), in[3].data(), in[4].data()};
    int* lengths = lens;
    int** paths = rows;
    Tree<double>::sortPaths(lengths, paths, 5);
    const std::vector<std::vector<int>> expected{{0}, {0, 1}, {1, 0}, {1}, {1, 0, 0}};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(std::vector<int>(paths[i], paths[i] + lengths[i]), expected[i]);
        delete[] paths[i];
    }
    delete[] paths;
    delete[] lengths;
}

}  // namespace
