#pragma once
// Region of interest: the values and coordinates of the selected pixels of an
// image, with the bounding box of the selection and the image size.
//
// Point coordinates are relative to the bounding box: point k lies at image
// position (coords[k].x + minRow, coords[k].y + minCol).  A label map built
// from a ROI is height x width and addresses point k at (x, y).
//
// Owns data and coords (new[], freed by the destructor); not copyable.

#include <algorithm>
#include <string>

#include "data/ImageFile.h"
#include "data/xy.h"
#include "settings/Workers.h"

template <typename T, typename C>
struct ROI {
    T* data = nullptr;    // values, pixel-interleaved: band b of point k at [k * bands + b]
    C* coords = nullptr;  // point coordinates, same order as data
    int count = 0;        // number of points
    int bands = 0;        // values per point
    int minRow = 0;       // bounding box: first row,
    int height = 0;       //   number of rows,
    int minCol = 0;       //   first column,
    int width = 0;        //   number of columns
    int imageRows = 0;    // size of the source image
    int imageCols = 0;
    int order = 0;  // 2 = raster order, 1 = shuffled
    // The owner no longer needs the values: the first workspace built from
    // this ROI takes them over instead of copying them (data becomes null).
    bool giveValuesAway = false;

    ROI() = default;
    // count points of bands values each, all zero; box and image size left 0.
    ROI(int n, int nBands)
        : data(new T[static_cast<size_t>(n > 0 ? n : 0) * (nBands > 0 ? nBands : 0)]()),
          coords(new C[n > 0 ? n : 0]()),
          count(n),
          bands(nBands) {}
    ~ROI() {
        delete[] data;
        delete[] coords;
    }
    ROI(const ROI&) = delete;
    ROI& operator=(const ROI&) = delete;

    // Frees the points: an empty region with the same box and image size.
    void release() {
        delete[] data;
        delete[] coords;
        data = nullptr;
        coords = nullptr;
        count = 0;
    }

    // Sets the box to the one the points span, coordinates left as they are;
    // with no point, minRow = minCol = -1 and height = width = 0.
    void fitBox() {
        if (count < 1) {
            minRow = minCol = -1;
            height = width = 0;
            return;
        }
        int r0 = coords[0].x, r1 = r0, c0 = coords[0].y, c1 = c0;
        for (int k = 1; k < count; ++k) {
            r0 = std::min(r0, static_cast<int>(coords[k].x));
            r1 = std::max(r1, static_cast<int>(coords[k].x));
            c0 = std::min(c0, static_cast<int>(coords[k].y));
            c1 = std::max(c1, static_cast<int>(coords[k].y));
        }
        minRow = r0;
        height = r1 - r0 + 1;
        minCol = c0;
        width = c1 - c0 + 1;
    }

    // A new one-band ROI with this ROI's points, box, image size and order;
    // value k = plane[x_k + offset][y_k + offset], with minRow / minCol added
    // to the row / column when absolute (plane is then a full-frame image
    // padded by offset; otherwise a box-sized plane padded by offset).
    ROI* extractLabROI(T** plane, int offset, bool absolute) const {
        ROI* out = new ROI(count, 1);
        copyFrame(*out);
        const int dr = offset + (absolute ? minRow : 0);
        const int dc = offset + (absolute ? minCol : 0);
        // The points may lie scattered over the plane (a shuffled region):
        // the cell of the point a few places on is fetched while this one is
        // read, and the threads take a share each.
        dhc::forChunks(count, 1 << 16, [&](int begin, int end, int) {
            constexpr int kAhead = 16;
            for (int k = begin; k < end; ++k) {
                if (k + kAhead < end)
                    __builtin_prefetch(&plane[coords[k + kAhead].x + dr][coords[k + kAhead].y + dc]);
                out->coords[k] = coords[k];
                out->data[k] = plane[coords[k].x + dr][coords[k].y + dc];
            }
        });
        return out;
    }

    // Writes band 0 of the points as a one-band hraw map, the inverse of
    // extractLabROI: the map is (height + 2*offset) x (width + 2*offset), or
    // (imageRows + 2*offset) x (imageCols + 2*offset) when absolute; point k
    // goes to the cell extractLabROI(…, offset, absolute) reads it from, and
    // every cell without a point holds 0.
    void writeHRawInt32(const std::string& path, int offset, bool absolute) const {
        const int rows = (absolute ? imageRows : height) + 2 * offset;
        const int cols = (absolute ? imageCols : width) + 2 * offset;
        dhc::Grid<int> plane(rows, cols);
        const int dr = offset + (absolute ? minRow : 0);
        const int dc = offset + (absolute ? minCol : 0);
        for (int k = 0; k < count; ++k)
            plane[coords[k].x + dr][coords[k].y + dc] =
                static_cast<int>(data[static_cast<size_t>(k) * bands]);
        ImageFile<int>::writeHRawInt32(path, plane.rows(), rows, cols);
    }

  private:
    void copyFrame(ROI& other) const {
        other.minRow = minRow;
        other.height = height;
        other.minCol = minCol;
        other.width = width;
        other.imageRows = imageRows;
        other.imageCols = imageCols;
        other.order = order;
    }
};

// Builds the ROI of the pixels whose mask value equals maskValue, in raster
// order (rows outer), with coordinates rebased on the bounding box.  shuffle:
// reseeds the process generator (settings/Random.h, the sequence of rand()) with 3605118785 and makes 10 x
// count swaps of two random points (order = 1); otherwise order = 2.  cube[band][row][col], mask[row][col].
// No selected pixel: count 0, empty arrays, minRow = minCol = -1, height = width = 0.
// The caller owns the result.
ROI<int, xy>* buildRoi(int rows, int cols, int bands, int*** cube, int** mask, int maskValue, bool shuffle);

// A one-band ROI of every cell of a rows x cols frame in raster order, values
// 0, box and image size the frame, order 2.  The caller owns the result.
ROI<int, xy>* fullFrameRoi(int rows, int cols);

// A new array of the distinct values of values[0..n-1] in ascending order;
// count receives their number.
int* labelsRoi(int* values, int n, int& count);
