#include "workspace/Tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <vector>

#include "settings/Fatal.h"

namespace {

using Node = TreeNode<double>;

std::vector<int> pathOf(const Node* n) { return std::vector<int>(n->path, n->path + n->depth); }

std::vector<int> labelsOf(const std::list<Node*>& l) {
    std::vector<int> out;
    for (const Node* n : l) out.push_back(n->label);
    return out;
}

// Checks the path invariant over a whole subtree.
void expectConsistent(const Node* n) {
    for (int c = 0; c < n->nChildren; ++c) {
        const Node* ch = n->children[c];
        ASSERT_EQ(ch->parent, n);
        ASSERT_EQ(ch->depth, n->depth + 1);
        ASSERT_EQ(ch->path[ch->depth - 1], c);
        for (int i = 0; i < n->depth; ++i) ASSERT_EQ(ch->path[i], n->path[i]);
        expectConsistent(ch);
    }
    EXPECT_EQ(n->terminal, n->nChildren == 0);
}

void append(Node* n, std::vector<int> labels) {
    std::vector<double> data(labels.size(), 0.5);
    n->appendChildren(static_cast<int>(labels.size()), data.data(), labels.data());
}

TEST(TreeNodeTest, AppendedChildrenExtendTheParentsPath) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    append(t.root->children[1], {4, 5, 6});
    append(t.root, {7});  // grows the array by copying
    EXPECT_EQ(t.root->nChildren, 3);
    EXPECT_FALSE(t.root->terminal);
    EXPECT_EQ(t.root->depth, 0);
    EXPECT_EQ(pathOf(t.root->children[2]), (std::vector<int>{2}));
    EXPECT_EQ(pathOf(t.root->children[1]->children[2]), (std::vector<int>{1, 2}));
    EXPECT_EQ(t.root->children[1]->children[0]->data, 0.5);
    expectConsistent(t.root);
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
    EXPECT_EQ(pathOf(last->children[1]), (std::vector<int>{1, 1}));
    EXPECT_EQ(pathOf(last->children[1]->children[0]), (std::vector<int>{1, 1, 0}));
    expectConsistent(t.root);
}

TEST(TreeNodeTest, DeletingAnOnlyChildMakesTheParentTerminal) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    Node* a = t.root->children[0];
    append(a, {4});
    append(a->children[0], {5, 6});  // a subtree goes with it
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
    // The deeper node under the first child comes first in pre-order.
    EXPECT_EQ(t.root->find(5), t.root->children[0]->children[0]);

    Tree<double> u(1.0, 1);
    append(u.root, {5, 3});
    append(u.root->children[1], {5});
    EXPECT_EQ(u.root->find(5), u.root->children[0]);
    EXPECT_EQ(u.root->find(1), u.root);
    EXPECT_EQ(u.root->find(99), nullptr);
    EXPECT_EQ(u.root->children[1]->find(5), u.root->children[1]->children[0]);
}

TEST(TreeNodeTest, SetPathComponentStopsAtShallowNodes) {
    Tree<double> t(1.0, 1);
    append(t.root, {2});
    Node* a = t.root->children[0];
    append(a, {3});
    append(a->children[0], {4});
    a->setPathComponent(1, 9);  // a has depth 1: neither it nor anything below changes
    EXPECT_EQ(pathOf(a->children[0]), (std::vector<int>{0, 0}));
    a->children[0]->setPathComponent(0, 7);
    EXPECT_EQ(pathOf(a), (std::vector<int>{0}));
    EXPECT_EQ(pathOf(a->children[0]), (std::vector<int>{7, 0}));
    EXPECT_EQ(pathOf(a->children[0]->children[0]), (std::vector<int>{7, 0, 0}));
    t.root->setPathComponent(0, 3);  // the root itself is skipped, so nothing changes
    EXPECT_EQ(pathOf(a), (std::vector<int>{0}));
}

TEST(TreeNodeTest, LinkToAdoptsParentlessSubtrees) {
    Node* top = new Node(0.0, 1, nullptr);
    Node* x = new Node(0.0, 2, nullptr);
    Node* y = new Node(0.0, 3, nullptr);
    append(y, {4});
    append(y->children[0], {5});
    Node** nodes = new Node*[2]{x, y};
    top->linkTo(nodes, 2);
    EXPECT_EQ(top->children, nodes);  // taken over, not copied
    EXPECT_FALSE(top->terminal);
    EXPECT_EQ(pathOf(x), (std::vector<int>{0}));
    EXPECT_EQ(pathOf(y), (std::vector<int>{1}));
    EXPECT_EQ(pathOf(y->children[0]), (std::vector<int>{1, 0}));
    EXPECT_EQ(pathOf(y->children[0]->children[0]), (std::vector<int>{1, 0, 0}));
    expectConsistent(top);
    delete top;
}

// Links a fresh parentless node and then `adopted` under a new node.
void linkAfterFresh(Node* adopted) {
    Node* top = new Node(0.0, 5, nullptr);
    Node** nodes = new Node*[2];
    nodes[0] = new Node(0.0, 3, nullptr);
    nodes[1] = adopted;
    top->linkTo(nodes, 2);
}

void linkUnder(Node* top, Node* adopted) {
    Node** nodes = new Node*[1];
    nodes[0] = adopted;
    top->linkTo(nodes, 1);
}

TEST(TreeNodeDeathTest, LinkToExits) {
    // A node that already has children: status 1.
    EXPECT_EXIT(
        {
            Tree<double> t(1.0, 1);
            append(t.root, {2});
            linkUnder(t.root, new Node(0.0, 3, nullptr));
        },
        ::testing::ExitedWithCode(1), "");
    // The second node already has a parent: "LinkTO!!" and status -(1+1).
    EXPECT_EXIT(
        {
            dhc::setOut(&std::cerr);
            Tree<double> t(1.0, 1);
            append(t.root, {2});
            linkAfterFresh(t.root->children[0]);
        },
        ::testing::ExitedWithCode(-2 & 0xff), "LinkTO!!");
    EXPECT_EXIT(
        {
            dhc::setOut(&std::cerr);
            Tree<double> t(1.0, 1);
            append(t.root, {2});
            linkUnder(new Node(0.0, 5, nullptr), t.root->children[0]);
        },
        ::testing::ExitedWithCode(-1 & 0xff), "LinkTO!!");
}

TEST(TreeTest, ValidateReplacesTheSplitNodeByItsChildren) {
    Tree<double> t(1.0, 1);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));
    append(t.root, {2, 3});
    // Appended children are tentative until validated.
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));
    t.validate(0);
    EXPECT_EQ(t.current, t.root);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{2, 3}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 2, 3}));

    t.current = t.root->children[0];
    append(t.current, {4, 5});
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));

    // Re-validating the root moves its children to the back of nodeList only.
    t.current = t.root;
    t.validate(0);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 5}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 4, 5, 2, 3}));
}

TEST(TreeTest, ValidateWithDepthReachesGrandchildren) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    append(t.root->children[0], {4, 5});
    t.validate(1);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{4, 5, 3}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 2, 4, 5, 3}));
    EXPECT_EQ(t.current, t.root);
}

TEST(TreeTest, ValidateAllTerminalsPicksUpChildrenOfListedLeaves) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3, 4});
    t.validate(0);
    append(t.root->children[2], {7, 8});
    append(t.root->children[0], {5, 6});
    t.validateAllTerminals();
    // Leaves without children keep their place; split ones are replaced at the back.
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 5, 6, 7, 8}));
}

TEST(TreeTest, PruneRemovesTheSubtreeAndRestoresTheLeaf) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    t.validate(0);
    t.current = t.root->children[0];
    append(t.current, {4, 5});
    t.validate(0);
    t.current = t.root->children[0]->children[1];
    append(t.current, {6});
    t.validate(0);
    ASSERT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 4, 6}));

    t.current = t.root->children[0];
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 2}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(t.current->terminal);
    EXPECT_EQ(t.root->find(6), nullptr);

    // Pruning a leaf changes nothing.
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{3, 2}));

    t.current = t.root;
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{1}));
    EXPECT_TRUE(t.root->terminal);
}

TEST(TreeTest, PruneOfTentativeChildrenKeepsTheLeafListedOnce) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    t.validate(0);
    t.current = t.root->children[1];
    append(t.current, {4, 5});  // a test split, never validated
    t.prune();
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{2, 3}));
    EXPECT_EQ(t.root->children[1]->nChildren, 0);
}

TEST(TreeTest, TerminalsAndStructure) {
    Tree<double> t(1.0, 1);
    std::vector<double> data{0.25, 0.75};
    std::vector<int> labels{2, 3};
    t.root->appendChildren(2, data.data(), labels.data());
    t.validate(0);
    t.current = t.root->children[1];
    std::vector<int> more{4, 5};
    t.current->appendChildren(2, data.data(), more.data());
    t.validate(0);

    double* payloads = t.getTerminals();
    EXPECT_EQ(payloads[0], 0.25);
    EXPECT_EQ(payloads[1], 0.25);
    EXPECT_EQ(payloads[2], 0.75);
    delete[] payloads;

    int* lengths = nullptr;
    int** paths = nullptr;
    const int n = t.retrieveStructure(lengths, paths);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(std::vector<int>(paths[0], paths[0] + lengths[0]), (std::vector<int>{0}));
    EXPECT_EQ(std::vector<int>(paths[1], paths[1] + lengths[1]), (std::vector<int>{1, 0}));
    EXPECT_EQ(std::vector<int>(paths[2], paths[2] + lengths[2]), (std::vector<int>{1, 1}));

    // The structure rebuilds a tree of the same shape.
    Tree<double> copy(lengths, paths, n);
    ASSERT_EQ(copy.root->nChildren, 2);
    EXPECT_EQ(copy.root->children[0]->nChildren, 0);
    EXPECT_EQ(copy.root->children[1]->nChildren, 2);
    expectConsistent(copy.root);
    for (int i = 0; i < n; ++i) delete[] paths[i];
    delete[] paths;
    delete[] lengths;
}

TEST(TreeTest, SortPathsPadsWithZerosAndKeepsTies) {
    std::vector<std::vector<int>> in{{1, 0}, {1}, {0, 1}, {1, 0, 0}, {0}};
    std::vector<int*> rows;
    std::vector<int> lens;
    for (auto& p : in) {
        rows.push_back(p.data());
        lens.push_back(static_cast<int>(p.size()));
    }
    int* lengths = lens.data();
    int** paths = rows.data();
    Tree<double>::sortPaths(lengths, paths, 5);
    EXPECT_NE(lengths, lens.data());  // new copies; the input is untouched
    EXPECT_EQ(lens[0], 2);
    std::vector<std::vector<int>> got;
    for (int i = 0; i < 5; ++i) got.emplace_back(paths[i], paths[i] + lengths[i]);
    // [0] < [0 1]; [1 0], [1], [1 0 0] are equal when padded and keep input order.
    EXPECT_EQ(got, (std::vector<std::vector<int>>{{0}, {0, 1}, {1, 0}, {1}, {1, 0, 0}}));
    for (int i = 0; i < 5; ++i) delete[] paths[i];
    delete[] paths;
    delete[] lengths;
}

TEST(TreeTest, SortPathsAgreesWithAStableLexicographicSort) {
    std::srand(12345);
    for (int round = 0; round < 50; ++round) {
        const int n = 1 + std::rand() % 12;
        std::vector<std::vector<int>> in(n);
        for (auto& p : in) {
            p.resize(std::rand() % 4);
            for (int& e : p) e = std::rand() % 3;
        }
        std::vector<int> idx(n);
        for (int i = 0; i < n; ++i) idx[i] = i;
        auto padded = [&](int i, size_t c) { return c < in[i].size() ? in[i][c] : 0; };
        std::stable_sort(idx.begin(), idx.end(), [&](int a, int b) {
            for (size_t c = 0; c < 4; ++c)
                if (padded(a, c) != padded(b, c)) return padded(a, c) < padded(b, c);
            return false;
        });
        std::vector<int*> rows;
        std::vector<int> lens;
        for (auto& p : in) {
            rows.push_back(p.data());
            lens.push_back(static_cast<int>(p.size()));
        }
        int* lengths = lens.data();
        int** paths = rows.data();
        Tree<double>::sortPaths(lengths, paths, n);
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(std::vector<int>(paths[i], paths[i] + lengths[i]), in[idx[i]]) << "round " << round;
            delete[] paths[i];
        }
        delete[] paths;
        delete[] lengths;
    }
}

TEST(TreeTest, TreeFromPathsLabelsNodesInCreationOrder) {
    std::vector<std::vector<int>> in{{1, 1}, {0}, {1, 0}};
    std::vector<int*> rows;
    std::vector<int> lens;
    for (auto& p : in) {
        rows.push_back(p.data());
        lens.push_back(static_cast<int>(p.size()));
    }
    Tree<double> t(lens.data(), rows.data(), 3);
    // Sorted: [0] -> 1; [1 0] creates [1] -> 2 then [1 0] -> 3; [1 1] -> 4.
    EXPECT_EQ(t.root->label, 0);
    EXPECT_TRUE(t.root->root);
    ASSERT_EQ(t.root->nChildren, 2);
    EXPECT_EQ(t.root->children[0]->label, 1);
    EXPECT_EQ(t.root->children[1]->label, 2);
    EXPECT_EQ(t.root->children[1]->children[0]->label, 3);
    EXPECT_EQ(t.root->children[1]->children[1]->label, 4);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{1, 3, 4}));
    EXPECT_EQ(labelsOf(t.nodeList), (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(t.current, t.root);
    expectConsistent(t.root);
    EXPECT_EQ(in[0], (std::vector<int>{1, 1}));  // the caller's paths are untouched
}

TEST(TreeTest, LinkedConstructorMakesTheNodesTheLeaves) {
    std::vector<double> data{0.1, 0.2, 0.3};
    std::vector<int> labels{4, 5, 6};
    Tree<double> t(3, data.data(), labels.data(), 1.0, 9, false);
    EXPECT_EQ(t.root->nChildren, 3);
    EXPECT_EQ(labelsOf(t.terminals), (std::vector<int>{4, 5, 6}));
    expectConsistent(t.root);

    Tree<double> loose(3, data.data(), labels.data(), 1.0, 9, true);
    EXPECT_EQ(loose.root->nChildren, 0);
    EXPECT_EQ(labelsOf(loose.terminals), (std::vector<int>{9}));
}

TEST(TreeTest, Print32ShowsLabelsPathsAndLeaves) {
    Tree<double> t(1.0, 1);
    append(t.root, {2, 3});
    t.validate(0);
    std::ostringstream os;
    std::ostream* old = dhc::setOut(&os);
    t.print32();
    dhc::setOut(old);
    EXPECT_EQ(os.str(), "1 []\n  2 [0] *\n  3 [1] *\nterminals: 2 3\n");
}

}  // namespace
