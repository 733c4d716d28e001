// consumer SETTINGS.ini LABELS.txt: segments a 2-band 24 x 20 image made
// here (two halves with a texture) and writes its labels, one row per line.
#include <fstream>
#include <iostream>
#include <sstream>
#include <vector>

#include "frontend/IniFile.h"
#include "base/InputError.h"
#include "frontend/Segmentation.h"
#include "settings/DHC_SET.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::ifstream file(argv[1]);
    std::stringstream text;
    text << file.rdbuf();
    try {
        const std::unique_ptr<DHC_SET> settings = readCheckedSettings(IniFile(argv[1], text.str()));
        const int bands = 2, rows = 24, cols = 20;
        std::vector<int> values(static_cast<size_t>(bands * rows * cols));
        std::vector<int*> rowPointers(static_cast<size_t>(bands * rows));
        std::vector<int**> bandPointers(static_cast<size_t>(bands));
        for (int b = 0; b < bands; ++b) {
            for (int r = 0; r < rows; ++r) {
                int* row = &values[static_cast<size_t>((b * rows + r) * cols)];
                rowPointers[static_cast<size_t>(b * rows + r)] = row;
                const int source = b == 0 ? r : rows - 1 - r;  // band 1: band 0 upside down
                for (int c = 0; c < cols; ++c) row[c] = (source > 11 ? 50 : 0) + (source * cols + c) % 7;
            }
            bandPointers[static_cast<size_t>(b)] = &rowPointers[static_cast<size_t>(b * rows)];
        }
        dhc::PreparedRun run =
            dhc::prepareRun(rows, cols, bands, bandPointers.data(), nullptr, nullptr, nullptr, *settings);
        DHC_OUT out = dhc::runSegmentation(run, *settings, 1);
        const std::vector<int> labels = dhc::fullFrame(*out.labelRoi, rows, cols);
        std::ofstream result(argv[2]);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                result << labels[static_cast<size_t>(r * cols + c)] << (c + 1 < cols ? " " : "\n");
        return result ? 0 : 1;
    } catch (const InputError& e) {
        std::cerr << e.what() << "\n";
        return 1;
    }
}
