#pragma once
// The double-valued twin of PaddedMap: (rows + 2*pad) x (cols + 2*pad) cells,
// inner cell (r, c) at map[r + pad][c + pad], frame filled with frameValue.
// Owns map; moves but does not copy.

#include <string>

struct PaddedMatrix {
    double** map = nullptr;
    int rows = 0;
    int cols = 0;
    int pad = 0;
    double frameValue = 0.0;

    PaddedMatrix() = default;
    PaddedMatrix(int rows, int cols, int pad, double frameValue, double innerValue);
    PaddedMatrix(double** map, int rows, int cols, int pad, double frameValue);
    ~PaddedMatrix();
    PaddedMatrix(const PaddedMatrix&) = delete;
    PaddedMatrix& operator=(const PaddedMatrix&) = delete;
    PaddedMatrix(PaddedMatrix&& other) noexcept;
    PaddedMatrix& operator=(PaddedMatrix&& other) noexcept;

    double** release();

    static double** createPaddedMatrixFrame(int rows, int cols, int pad, double frameValue,
                                            double innerValue);
    static void deletePaddedMatrixFrame(double** map, int rows, int cols, int pad);

    // As PaddedMap::getMap.
    double** getMatrix(int& pad) const;
};

// Writes the float64 flavour of an hraw map: header (1.0, rows, cols) as
// doubles, then the inner rows x cols doubles row by row.
void paddedMatrix2HRaw(const std::string& path, const PaddedMatrix& matrix);
