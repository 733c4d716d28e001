#include "data/ImageFile.h"

#include <cstdio>
#include <new>
#include <vector>

#include "data/PlaneIO.h"

using namespace dhc::planeio;

namespace {

// bands x rows x cols with negative sizes as 0; a product that does not fit
// memory is an allocation failure, like any other oversized request.
size_t cellCount(int bands, int rows, int cols) {
    size_t n = 0;
    if (__builtin_mul_overflow(static_cast<size_t>(nonNegative(bands)),
                               static_cast<size_t>(nonNegative(rows)), &n) ||
        __builtin_mul_overflow(n, static_cast<size_t>(nonNegative(cols)), &n))
        throw std::bad_alloc();
    return n;
}

template <typename E, typename P>
P** readRawPlane(const std::string& path, int rows, int cols, int pad, P frame) {
    P** plane = createFrame<P>(rows, cols, pad, frame, frame);
    const int r0 = nonNegative(rows), c0 = nonNegative(cols), p = nonNegative(pad);
    std::vector<E> buffer(static_cast<size_t>(r0) * c0, E());
    std::FILE* f = std::fopen(path.c_str(), "rb");
    readWhole(f, buffer.data(), buffer.size());
    if (f != nullptr) std::fclose(f);
    for (size_t k = 0; k < buffer.size(); ++k) plane[p + k / c0][p + k % c0] = buffer[k];
    return plane;
}

template <typename E>
void writeRawPlane(const std::string& path, E** map, int rows, int cols, int pad) {
    std::vector<E> buffer;
    appendInner(buffer, map, rows, cols, pad);
    writeWhole(path, buffer.data(), buffer.size());
}

// The header (bands, rows, cols) into header and the cells into a cube of
// those sizes.  The cube is zeroed before the single read: cells past the end
// of a short file read as 0.
dhc::Cube<int> readHRawCube(const std::string& path, int header[3]) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    readWhole(f, header, 3);
    const size_t cells = cellCount(header[0], header[1], header[2]);
    dhc::Cube<int> cube(header[0], header[1], header[2]);
    readWhole(f, cube.cells(), cells);
    if (f != nullptr) std::fclose(f);
    return cube;
}

}  // namespace

template <typename T>
T*** ImageFile<T>::newCube(int bands, int rows, int cols) {
    const int b0 = nonNegative(bands), r0 = nonNegative(rows), c0 = nonNegative(cols);
    T*** cube = new T**[b0];
    for (int b = 0; b < b0; ++b) cube[b] = dhc::newRows<T>(r0, c0);
    return cube;
}

template <typename T>
void ImageFile<T>::deleteCube(T*** cube, int bands, int rows) {
    if (cube == nullptr) return;
    for (int b = 0; b < nonNegative(bands); ++b) dhc::deleteRows(cube[b], nonNegative(rows));
    delete[] cube;
}

template <typename T>
dhc::Cube<int> ImageFile<T>::readHRaw(const std::string& path) {
    int header[3] = {0, 0, 0};
    return readHRawCube(path, header);
}

template <typename T>
dhc::Cube<int> ImageFile<T>::readHRaw(const std::string& path, int& bands, int& rows, int& cols) {
    int header[3] = {0, 0, 0};
    dhc::Cube<int> cube = readHRawCube(path, header);
    bands = header[0];
    rows = header[1];
    cols = header[2];
    return cube;
}

template <typename T>
int*** ImageFile<T>::readHRawInt32(const std::string& path, int& bands, int& rows, int& cols) {
    int header[3] = {0, 0, 0};
    const dhc::Cube<int> read = readHRawCube(path, header);
    bands = header[0];
    rows = header[1];
    cols = header[2];
    int*** cube = ImageFile<int>::newCube(bands, rows, cols);
    size_t k = 0;
    for (int b = 0; b < nonNegative(bands); ++b)
        for (int r = 0; r < nonNegative(rows); ++r)
            for (int c = 0; c < nonNegative(cols); ++c) cube[b][r][c] = read.cells()[k++];
    return cube;
}

template <typename T>
void ImageFile<T>::writeHRawInt32(const std::string& path, int*** cube, int bands, int rows, int cols) {
    std::vector<int> buffer(3 + cellCount(bands, rows, cols), 0);
    buffer[0] = bands;
    buffer[1] = rows;
    buffer[2] = cols;
    size_t k = 3;
    for (int b = 0; b < nonNegative(bands); ++b)
        for (int r = 0; r < nonNegative(rows); ++r)
            for (int c = 0; c < nonNegative(cols); ++c) buffer[k++] = cube[b][r][c];
    writeWhole(path, buffer.data(), buffer.size());
}

template <typename T>
void ImageFile<T>::writeHRawInt32(const std::string& path, int** plane, int rows, int cols) {
    int** bands[1] = {plane};
    writeHRawInt32(path, bands, 1, rows, cols);
}

template <typename T>
int** ImageFile<T>::readRawInt32(const std::string& path, int rows, int cols, int pad, int frameValue) {
    return readRawPlane<int, int>(path, rows, cols, pad, frameValue);
}

template <typename T>
double** ImageFile<T>::readRawDouble(const std::string& path, int rows, int cols, int pad,
                                     double frameValue) {
    return readRawPlane<double, double>(path, rows, cols, pad, frameValue);
}

template <typename T>
void ImageFile<T>::writeRawInt32(const std::string& path, int** map, int rows, int cols, int pad) {
    writeRawPlane(path, map, rows, cols, pad);
}

template <typename T>
void ImageFile<T>::writeRawDouble(const std::string& path, double** map, int rows, int cols, int pad) {
    writeRawPlane(path, map, rows, cols, pad);
}

template class ImageFile<int>;
template class ImageFile<double>;
