#include "base/Grid.h"

#include <gtest/gtest.h>

#include <climits>
#include <new>
#include <utility>

namespace {

// A function written for row-pointer arrays, as the statistics are.
void addToEveryCell(double** m, int rows, int cols, double v) {
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) m[r][c] += v;
}

TEST(Grid, CellsStartAtZeroAndRowsAreConsecutiveRowMajorBlocks) {
    dhc::Grid<double> g(3, 4);
    ASSERT_EQ(g.rowCount(), 3);
    ASSERT_EQ(g.colCount(), 4);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c) {
            EXPECT_EQ(g[r][c], 0.0);
            EXPECT_EQ(&g[r][c], g.cells() + r * 4 + c);
        }
    // The row-pointer view writes the grid's own cells.
    addToEveryCell(g.rows(), 3, 4, 1.5);
    g[2][3] = -7.0;
    EXPECT_EQ(g.cells()[0], 1.5);
    EXPECT_EQ(g.cells()[11], -7.0);
    g.fill(2.0);
    EXPECT_EQ(g[1][2], 2.0);
}

TEST(Grid, CopyOfTakesTheCellsAndMovingKeepsTheViewValid) {
    int a[] = {1, 2, 3}, b[] = {4, 5, 6};
    int* source[] = {a, b};
    dhc::Grid<int> g = dhc::Grid<int>::copyOf(source, 2, 3);
    a[0] = 99;  // a copy, not a view of the source
    EXPECT_EQ(g[0][0], 1);
    EXPECT_EQ(g[1][2], 6);

    int** view = g.rows();
    dhc::Grid<int> moved = std::move(g);
    EXPECT_EQ(moved.rows(), view);
    EXPECT_EQ(view[1][0], 4);
    EXPECT_EQ(g.rows(), nullptr);  // the source of a move holds nothing
}

TEST(Grid, NegativeSizesGiveAnEmptyGridAndCube) {
    dhc::Grid<int> g(-2, 5);
    EXPECT_EQ(g.rowCount(), 0);
    EXPECT_EQ(g.colCount(), 5);
    dhc::Cube<int> c(3, -1, 4);
    EXPECT_EQ(c.planeCount(), 3);
    EXPECT_EQ(c.rowCount(), 0);
}

TEST(Cube, PlanesThenRowsThenColumnsInOneBlock) {
    dhc::Cube<int> cube(2, 3, 4);
    int*** view = cube.planes();
    for (int b = 0; b < 2; ++b)
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 4; ++c) {
                EXPECT_EQ(cube[b][r][c], 0);
                view[b][r][c] = 100 * b + 10 * r + c;
            }
    // Band-sequential, row-major: the layout of an hraw file's cells.
    EXPECT_EQ(cube.cells()[0], 0);
    EXPECT_EQ(cube.cells()[4], 10);
    EXPECT_EQ(cube.cells()[12], 100);
    EXPECT_EQ(cube.cells()[23], 123);
}

TEST(Cube, SizesBeyondMemoryFailAsAnAllocation) {
    EXPECT_THROW(dhc::Cube<int>(INT_MAX, INT_MAX, INT_MAX), std::bad_alloc);
}

}  // namespace
