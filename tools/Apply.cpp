#include "Apply.h"

#include <chrono>
#include <iomanip>
#include <iostream>
#include <memory>
#include <vector>

#include "Inputs.h"
#include "LabelPng.h"
#include "OutputFiles.h"
#include "Segment.h"
#include "data/ImageFile.h"
#include "base/InputError.h"
#include "frontend/InputFile.h"
#include "frontend/SettingsCheck.h"
#include "io/Raster.h"
#include "model/Labelling.h"
#include "model/Model.h"

namespace {

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

// 1. The image, read as the model's values were read, checked against the model.
dhc::io::Raster readImageFor(const ApplyOptions& o, const dhc::Model& model, const std::string& modelName,
                             const std::string& imageName) {
    dhc::io::Raster image;
    if (dhc::io::isHraw(o.image)) {
        const HrawShape shape = checkHraw(o.image, "image");
        dhc::checkImageSize(shape.rows, shape.cols, shape.bands, "image \"" + o.image + "\"");
        image.cube = ImageFile<int>::readHRawInt32(o.image, image.bands, image.rows, image.cols);
        image.driver = "hraw";
        if (model.values.hasNodata) {
            image.valid.assign(static_cast<size_t>(image.rows) * static_cast<size_t>(image.cols), 1);
            for (int b = 0; b < image.bands; ++b)
                for (int r = 0; r < image.rows; ++r)
                    for (int c = 0; c < image.cols; ++c)
                        if (image.cube[b][r][c] == model.values.nodata)
                            image.valid[static_cast<size_t>(r) * static_cast<size_t>(image.cols) +
                                        static_cast<size_t>(c)] = 0;
        }
    } else {
        dhc::io::Conversion conversion;
        if (model.values.floatBands) conversion.scale = model.values.scale;
        if (model.values.hasNodata) conversion.nodata = model.values.nodata;
        image = dhc::io::readImage(o.image, "image", conversion);
    }
    if (image.bands != model.bands)
        throw InputError(kExitInput, modelName + " has " + std::to_string(model.bands) + " bands but " + imageName +
                                         " has " + std::to_string(image.bands));
    if (image.hasFloatBands && !model.values.floatBands)
        throw InputError(kExitInput, modelName + " was made from integer values but " + imageName +
                                         " has floating-point bands");
    if (!image.hasFloatBands && model.values.floatBands)
        throw InputError(kExitInput, modelName + " was made from floating-point values (scaled) but " + imageName +
                                         " has integer bands");
    return image;
}

// 2. The pixels to label: data, and inside the mask when there is one (empty: all).
std::vector<uint8_t> pixelsToLabel(const ApplyOptions& o, const dhc::io::Raster& image) {
    std::vector<uint8_t> valid = image.valid;
    if (o.mask.empty()) return valid;
    dhc::io::Raster mask;
    const HrawShape shape{image.bands, image.rows, image.cols};
    if (dhc::io::isHraw(o.mask)) {
        checkMap(o.mask, "mask", shape);
        int b = 0, r = 0, c = 0;
        mask.cube = ImageFile<int>::readHRawInt32(o.mask, b, r, c);
        mask.bands = b;
        mask.rows = r;
        mask.cols = c;
    } else {
        mask = dhc::io::readMap(o.mask, "mask", image, true);
    }
    if (valid.empty()) valid.assign(static_cast<size_t>(image.rows) * static_cast<size_t>(image.cols), 1);
    for (int r = 0; r < image.rows; ++r)
        for (int c = 0; c < image.cols; ++c) {
            const size_t k = static_cast<size_t>(r) * static_cast<size_t>(image.cols) + static_cast<size_t>(c);
            if (mask.cube[0][r][c] != 1 || (!mask.valid.empty() && !mask.valid[k])) valid[k] = 0;
        }
    return valid;
}

// 3. The window to label (the whole image without --window).
dhc::Window windowOf(const ApplyOptions& o, const dhc::io::Raster& image, const std::string& imageName) {
    if (!o.hasWindow) return dhc::Window{0, 0, image.rows, image.cols};
    const dhc::Window w{o.window[1], o.window[0], o.window[3], o.window[2]};
    if (w.col + w.cols > image.cols || w.row + w.rows > image.rows)
        throw InputError(kExitInput, "--window " + std::to_string(o.window[0]) + " " + std::to_string(o.window[1]) +
                                         " " + std::to_string(o.window[2]) + " " + std::to_string(o.window[3]) +
                                         " reaches outside " + imageName + " (" + std::to_string(image.cols) +
                                         " columns, " + std::to_string(image.rows) + " rows)");
    return w;
}

// The labels of window w, labelled over its halo h (the whole image is
// labelled straight into the map; a window with its halo, then cut out).
std::vector<int> labelWindow(const dhc::io::Raster& image, const std::vector<uint8_t>& valid, const dhc::Window& w,
                             const dhc::Window& h, const dhc::Model& model, int threads) {
    std::vector<int*> rowPointers(static_cast<size_t>(image.bands) * static_cast<size_t>(h.rows));
    std::vector<int**> bandPointers(static_cast<size_t>(image.bands));
    for (int b = 0; b < image.bands; ++b) {
        for (int r = 0; r < h.rows; ++r)
            rowPointers[static_cast<size_t>(b * h.rows + r)] = image.cube[b][h.row + r] + h.col;
        bandPointers[static_cast<size_t>(b)] = &rowPointers[static_cast<size_t>(b * h.rows)];
    }
    std::vector<uint8_t> haloValid;
    if (!valid.empty()) {
        haloValid.resize(static_cast<size_t>(h.rows) * static_cast<size_t>(h.cols));
        for (int r = 0; r < h.rows; ++r)
            for (int c = 0; c < h.cols; ++c)
                haloValid[static_cast<size_t>(r) * static_cast<size_t>(h.cols) + static_cast<size_t>(c)] =
                    valid[static_cast<size_t>(h.row + r) * static_cast<size_t>(image.cols) +
                          static_cast<size_t>(h.col + c)];
    }
    const bool whole = h.rows == w.rows && h.cols == w.cols;
    std::vector<int> labels(static_cast<size_t>(w.rows) * static_cast<size_t>(w.cols));
    std::vector<int32_t> haloLabels(whole ? 0 : static_cast<size_t>(h.rows) * static_cast<size_t>(h.cols));
    const dhc::Labeller labeller(model);
    static_assert(sizeof(int) == sizeof(int32_t), "labels are int32");
    labeller.label(bandPointers.data(), haloValid.empty() ? nullptr : haloValid.data(), h.rows, h.cols, h.row, h.col,
                   whole ? reinterpret_cast<int32_t*>(labels.data()) : haloLabels.data(), threads);
    for (int r = 0; !whole && r < w.rows; ++r)
        for (int c = 0; c < w.cols; ++c)
            labels[static_cast<size_t>(r) * static_cast<size_t>(w.cols) + static_cast<size_t>(c)] =
                haloLabels[static_cast<size_t>(w.row - h.row + r) * static_cast<size_t>(h.cols) +
                           static_cast<size_t>(w.col - h.col + c)];
    return labels;
}

}  // namespace

int runApply(const ApplyOptions& o) {
    const auto start = std::chrono::steady_clock::now();
    // Every output, compared with every input and every other output.
    OutputFiles outputs({o.image, o.model, o.mask});
    const OutputFiles::Output& labelsOut = outputs.add(o.output);
    const OutputFiles::Output& pngOut = outputs.add(o.png);
    const dhc::io::OutputFormat format = dhc::io::outputFormat("-o", o.output, o.format, {}, 1);
    if (!format.hraw()) outputs.writeByPath(labelsOut);

    // 1. The model, then the image as the model's values were read.  The
    // image and the mask must be regular files: a pipe would block the first
    // open.
    for (const auto& [name, role] : {std::pair{&o.image, "image"}, std::pair{&o.mask, "mask"}})
        if (!name->empty() && !dhc::io::isVirtualPath(*name)) dhc::checkInputFile(*name, role);
    const dhc::Model model = dhc::readModelFile(o.model);
    const std::string modelName = "model " + quoted(o.model), imageName = "image " + quoted(o.image);
    dhc::io::Raster image = readImageFor(o, model, modelName, imageName);

    // 2. and 3. The pixels to label, the window with its halo.
    const std::vector<uint8_t> valid = pixelsToLabel(o, image);
    const dhc::Window w = windowOf(o, image, imageName);
    const dhc::Window h = dhc::withHalo(w, image.rows, image.cols);

    // 4. The outputs, then the labels.
    outputs.create();
    const std::vector<int> labels = labelWindow(image, valid, w, h, model, o.threads);

    // A window lies where its first pixel does.
    dhc::io::Georeference geo = image.geo;
    if (geo.hasTransform) {
        double* t = geo.transform;
        const double x = t[0] + w.col * t[1] + w.row * t[2], y = t[3] + w.col * t[4] + w.row * t[5];
        t[0] = x;
        t[3] = y;
    }
    image = dhc::io::Raster();  // the values go before the outputs are made
    writeLabels(labelsOut, format, labels, w.rows, w.cols, geo);
    if (pngOut.given()) writeLabelPng(pngOut.fd, o.png, labels, w.rows, w.cols);
    outputs.commit();

    if (!o.quiet) {
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        std::cerr << "dhc: labelled " << w.rows << " x " << w.cols << " pixels of " << imageName << " with the "
                  << model.leaves.size() << (model.leaves.size() == 1 ? " leaf" : " leaves") << " of " << modelName
                  << " in " << std::fixed << std::setprecision(2) << seconds << " s; label map " << quoted(o.output)
                  << "\n";
    }
    return kExitOk;
}
