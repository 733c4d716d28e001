#pragma once
// Readers and writers of hraw and headerless raw files.
//
// hraw: three int32 (bands, rows, cols), then bands x rows x cols int32,
// band-sequential and row-major; little-endian, no magic, nothing else.
// Raw: rows x cols elements, row-major, no header (int32 or float64).
//
// These readers check nothing: an unopenable file reads as an empty cube with
// sizes 0 (raw: a plane of frame values), a short file reads zeros past its
// end, and header sizes are taken as they are (zero or negative sizes give
// empty cubes).  Callers that need validation use checkHrawFile (HrawCheck.h)
// first.  Writers that cannot open their file write nothing and say nothing.
//
// Cubes are cube[band][row][col]: owning (readHRaw), or with separately
// allocated rows for the front ends that hold them so; planes are padded
// planes as in PaddedMap.h.  Raw arrays returned are owned by the caller
// (deleteCube, PaddedMap::deletePaddedMapFrame, PaddedMatrix::deletePaddedMatrixFrame).
//
// Instantiated for int and double; the Int32 operations exist in both, as do
// the Double ones, so ImageFile<int>::readHRawInt32 and
// ImageFile<double>::readRawDouble read as one expects.

#include <string>

#include "base/Grid.h"

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "hraw files are little-endian; this host would need byte swapping"
#endif

template <typename T>
class ImageFile {
  public:
    // Reads a whole hraw file into a cube of its header's sizes.
    static dhc::Cube<int> readHRaw(const std::string& path);
    // The same; bands, rows, cols receive the header as written (a negative
    // size reads as an empty cube).
    static dhc::Cube<int> readHRaw(const std::string& path, int& bands, int& rows, int& cols);
    // The same as a cube of separately allocated rows (deleteCube); bands,
    // rows, cols receive the header (a negative size reads as an empty cube).
    static int*** readHRawInt32(const std::string& path, int& bands, int& rows, int& cols);
    // Writes header (bands, rows, cols) and every band, in one write.
    static void writeHRawInt32(const std::string& path, int*** cube, int bands, int rows, int cols);
    // Single-band form: header (1, rows, cols) and the unpadded rows x cols plane.
    static void writeHRawInt32(const std::string& path, int** plane, int rows, int cols);

    // A new (rows + 2*pad) x (cols + 2*pad) plane full of frameValue whose inner
    // cells receive the file's rows x cols values.
    static int** readRawInt32(const std::string& path, int rows, int cols, int pad, int frameValue);
    static double** readRawDouble(const std::string& path, int rows, int cols, int pad, double frameValue);
    // Write the inner rows x cols of a padded plane, row-major, no header.
    static void writeRawInt32(const std::string& path, int** map, int rows, int cols, int pad);
    static void writeRawDouble(const std::string& path, double** map, int rows, int cols, int pad);

    // A new zeroed cube / its release (negative sizes count as 0).
    static T*** newCube(int bands, int rows, int cols);
    static void deleteCube(T*** cube, int bands, int rows);
};

extern template class ImageFile<int>;
extern template class ImageFile<double>;
