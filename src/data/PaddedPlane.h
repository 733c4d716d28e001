#pragma once
// The padded plane record behind PaddedMap (int cells) and PaddedMatrix (double
// cells): (rows + 2*pad) x (cols + 2*pad) cells, separately allocated rows,
// inner cell (r, c) at map[r + pad][c + pad], the pad-wide frame filled with
// frameValue.
//
// The record owns map (freed by its destructor); it moves but does not copy.
// release() hands the plane back to the caller, e.g. to wrap a plane that
// someone else owns just long enough to write it.  Instantiated for int and
// double only.

#include <string>

template <typename T>
struct PaddedPlane {
    T** map = nullptr;
    int rows = 0;
    int cols = 0;
    int pad = 0;
    T frameValue = T();

    PaddedPlane() = default;
    // Allocates a plane with createFrame.
    PaddedPlane(int rows, int cols, int pad, T frameValue, T innerValue);
    // Adopts a plane laid out as above.
    PaddedPlane(T** map, int rows, int cols, int pad, T frameValue);
    ~PaddedPlane();
    PaddedPlane(const PaddedPlane&) = delete;
    PaddedPlane& operator=(const PaddedPlane&) = delete;
    PaddedPlane(PaddedPlane&& other) noexcept;
    PaddedPlane& operator=(PaddedPlane&& other) noexcept;

    // Gives up ownership of map and returns it; the record is left empty.
    T** release();

    // A new (rows + 2*pad) x (cols + 2*pad) plane: frame cells frameValue, inner cells innerValue.
    static T** createFrame(int rows, int cols, int pad, T frameValue, T innerValue);
    // Frees the rows + 2*pad rows and the row array (nullptr is ignored).
    static void deleteFrame(T** map, int rows, int pad);

    // A fresh copy of the plane.  outPad != 0 on entry: the copy keeps this
    // record's padding and frame value, and outPad is set to the padding width.
    // outPad == 0: the copy is the unpadded rows x cols inner part.
    T** copy(int& outPad) const;

    // Writes the hraw flavour of T: header (1, rows, cols) as T, then the
    // inner rows x cols cells row by row; the frame is never written.
    void writeHRaw(const std::string& path) const;
};
