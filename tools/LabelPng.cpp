#include "LabelPng.h"

#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "frontend/InputError.h"

Rgb labelColour(int k) {
    // Distinct at a glance, then evenly spread hues at two brightness levels.
    static const Rgb kFirst[] = {{230, 25, 75},  {60, 180, 75},   {255, 225, 25}, {0, 130, 200},
                                 {245, 130, 48}, {145, 30, 180},  {70, 240, 240}, {240, 50, 230},
                                 {210, 245, 60}, {250, 190, 212}, {0, 128, 128},  {220, 190, 255},
                                 {170, 110, 40}, {255, 250, 200}, {128, 0, 0},    {170, 255, 195},
                                 {128, 128, 0},  {255, 215, 180}, {0, 0, 128},    {128, 128, 128}};
    const int nFirst = static_cast<int>(sizeof kFirst / sizeof kFirst[0]);
    if (k < nFirst) return kFirst[k];
    const double hue = std::fmod((k - nFirst) * 137.50776405, 360.0) / 60.0;
    const double value = (k % 2 == 0) ? 0.95 : 0.65, saturation = 0.75;
    const double c = value * saturation;
    const double x = c * (1.0 - std::fabs(std::fmod(hue, 2.0) - 1.0));
    double r = 0, g = 0, b = 0;
    switch (static_cast<int>(hue)) {
        case 0:
            r = c, g = x;
            break;
        case 1:
            r = x, g = c;
            break;
        case 2:
            g = c, b = x;
            break;
        case 3:
            g = x, b = c;
            break;
        case 4:
            r = x, b = c;
            break;
        default:
            r = c, b = x;
            break;
    }
    const double m = value - c;
    auto byte = [m](double v) { return static_cast<uint8_t>(std::lround((v + m) * 255.0)); };
    return {byte(r), byte(g), byte(b)};
}

namespace {

struct PngFile {
    std::FILE* file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngFile() {
        if (png != nullptr) png_destroy_write_struct(&png, info != nullptr ? &info : nullptr);
        if (file != nullptr) std::fclose(file);
    }
};

}  // namespace

void writeLabelPng(int fd, const std::string& name, const std::vector<int>& labels, int rows, int cols) {
    std::map<int, Rgb> colours;
    for (int v : labels)
        if (v != 0) colours.emplace(v, Rgb{0, 0, 0});
    int k = 0;
    for (auto& entry : colours) entry.second = labelColour(k++);

    std::vector<png_byte> pixels(static_cast<size_t>(rows) * cols * 3);
    for (size_t i = 0; i < labels.size(); ++i) {
        const Rgb c = labels[i] == 0 ? Rgb{0, 0, 0} : colours[labels[i]];
        pixels[3 * i] = c.r;
        pixels[3 * i + 1] = c.g;
        pixels[3 * i + 2] = c.b;
    }
    std::vector<png_bytep> rowPointers(static_cast<size_t>(rows));
    for (int r = 0; r < rows; ++r)
        rowPointers[static_cast<size_t>(r)] = &pixels[static_cast<size_t>(r) * cols * 3];

    PngFile out;
    const int own = ::dup(fd);
    out.file = own < 0 ? nullptr : ::fdopen(own, "wb");
    if (out.file == nullptr) {
        const int err = errno;
        if (own >= 0) ::close(own);
        throw InputError(kExitInput, "cannot write \"" + name + "\": " + std::strerror(err));
    }
    out.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (out.png != nullptr) out.info = png_create_info_struct(out.png);
    if (out.png == nullptr || out.info == nullptr)
        throw InputError(kExitInput, "cannot start the PNG writer");
    // libpng reports errors by longjmp; nothing with a destructor lives between here and the jump.
    if (setjmp(png_jmpbuf(out.png)))
        throw InputError(kExitInput, "cannot write the PNG picture \"" + name + "\"");
    png_init_io(out.png, out.file);
    png_set_IHDR(out.png, out.info, static_cast<png_uint_32>(cols), static_cast<png_uint_32>(rows), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(out.png, out.info);
    png_write_image(out.png, rowPointers.data());
    png_write_end(out.png, nullptr);
    if (std::fflush(out.file) != 0 || std::ferror(out.file))
        throw InputError(kExitInput, "cannot write \"" + name + "\": " + std::strerror(errno));
}
