#include "hierarchy/RgbImage.h"

#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

namespace dhc {

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

RgbImage::RgbImage(int width, int height, Rgb background)
    : width_(width), height_(height), pixels_(static_cast<size_t>(width) * height * 3) {
    for (size_t i = 0; i < pixels_.size(); i += 3) {
        pixels_[i] = background.r;
        pixels_[i + 1] = background.g;
        pixels_[i + 2] = background.b;
    }
}

Rgb RgbImage::at(int x, int y) const {
    const size_t i = (static_cast<size_t>(y) * width_ + x) * 3;
    return {pixels_[i], pixels_[i + 1], pixels_[i + 2]};
}

void RgbImage::set(int x, int y, Rgb c) {
    if (x < 0 || y < 0 || x >= width_ || y >= height_) return;
    const size_t i = (static_cast<size_t>(y) * width_ + x) * 3;
    pixels_[i] = c.r;
    pixels_[i + 1] = c.g;
    pixels_[i + 2] = c.b;
}

void RgbImage::fill(int x0, int y0, int x1, int y1, Rgb c) {
    if (x0 > x1) std::swap(x0, x1);
    if (y0 > y1) std::swap(y0, y1);
    for (int y = std::max(y0, 0); y <= std::min(y1, height_ - 1); ++y)
        for (int x = std::max(x0, 0); x <= std::min(x1, width_ - 1); ++x) set(x, y, c);
}

void RgbImage::writePng(const std::string& path) const {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) throw WriteError("cannot write \"" + path + "\": " + std::strerror(errno));
    writePng(file, path);
}

void RgbImage::writePng(int fd, const std::string& name) const {
    // A duplicate, so that closing the stream leaves the caller's descriptor open.
    const int own = ::dup(fd);
    std::FILE* file = own < 0 ? nullptr : ::fdopen(own, "wb");
    if (file == nullptr) {
        const int err = errno;
        if (own >= 0) ::close(own);
        throw WriteError("cannot write \"" + name + "\": " + std::strerror(err));
    }
    writePng(file, name);
}

std::string RgbImage::pngBytes() const {
    char* buffer = nullptr;
    size_t size = 0;
    std::FILE* file = ::open_memstream(&buffer, &size);
    if (file == nullptr) throw WriteError("no memory for a PNG picture");
    try {
        writePng(file, "picture");
    } catch (...) {
        std::free(buffer);
        throw;
    }
    std::string bytes(buffer, size);
    std::free(buffer);
    return bytes;
}

void RgbImage::writePng(std::FILE* file, const std::string& name) const {
    std::vector<png_bytep> rowPointers(static_cast<size_t>(height_));
    for (int r = 0; r < height_; ++r)
        rowPointers[static_cast<size_t>(r)] =
            const_cast<png_bytep>(&pixels_[static_cast<size_t>(r) * width_ * 3]);

    PngFile out;
    out.file = file;
    out.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (out.png != nullptr) out.info = png_create_info_struct(out.png);
    if (out.png == nullptr || out.info == nullptr) throw WriteError("cannot start the PNG writer");
    // libpng reports errors by longjmp; nothing with a destructor lives between here and the jump.
    if (setjmp(png_jmpbuf(out.png))) throw WriteError("cannot write the PNG picture \"" + name + "\"");
    png_init_io(out.png, out.file);
    png_set_IHDR(out.png, out.info, static_cast<png_uint_32>(width_), static_cast<png_uint_32>(height_), 8,
                 PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(out.png, out.info);
    png_write_image(out.png, rowPointers.data());
    png_write_end(out.png, nullptr);
    if (std::fflush(out.file) != 0 || std::ferror(out.file))
        throw WriteError("cannot write \"" + name + "\": " + std::strerror(errno));
}

}  // namespace dhc
