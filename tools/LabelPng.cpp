#include "LabelPng.h"

#include <map>

#include "base/InputError.h"
#include "hierarchy/RgbImage.h"

void writeLabelPng(int fd, const std::string& name, const std::vector<int>& labels, int rows, int cols) {
    std::map<int, Rgb> colours;
    for (int v : labels)
        if (v != 0) colours.emplace(v, Rgb{0, 0, 0});
    int k = 0;
    for (auto& entry : colours) entry.second = labelColour(k++);

    dhc::RgbImage picture(cols, rows, Rgb{0, 0, 0});
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c) {
            const int v = labels[static_cast<size_t>(r) * cols + c];
            if (v != 0) picture.set(c, r, colours[v]);
        }
    try {
        picture.writePng(fd, name);
    } catch (const dhc::WriteError& e) {
        throw InputError(kExitInput, e.what());
    }
}
