// What a finished tree tells: the workspace reports, the split sequence, the
// label map and the text report.
#include "driver/DHC.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <vector>

#include "data/PaddedMap.h"
#include "data/PottsMapRegion.h"
#include "driver/DriverSteps.h"
#include "workspace/PottsWS.h"
#include "workspace/Tree.h"
#include "workspace/WSReport.h"

using namespace dhc::driver;

void DHC::completeWSReport(WSReport* report) {
    WSNode* node = tree->root->find(report->WSLab);
    if (node == nullptr) return;
    report->terminal = node->terminal;

    delete[] report->children;
    delete[] report->chAreas;
    report->children = nullptr;
    report->chAreas = nullptr;
    report->nChildren = node->nChildren;
    if (node->nChildren > 0) {
        report->children = new int[node->nChildren];
        report->chAreas = new int[node->nChildren];
        for (int c = 0; c < node->nChildren; ++c) {
            report->children[c] = node->children[c]->label;
            report->chAreas[c] = areaOf(node->children[c]->data);
        }
    }

    delete[] report->path;
    report->path = nullptr;
    report->pathLength = node->depth;
    if (node->depth > 0) {
        report->path = new int[node->depth];
        std::copy(node->path, node->path + node->depth, report->path);
    }

    // Offspring: the leaves below the node, in terminal-list order (the order
    // in which the leaves are reported).
    delete[] report->offspring;
    report->offspring = nullptr;
    report->nOffspring = 0;
    if (node->nChildren > 0) {
        std::vector<int> below;
        for (WSNode* leaf : tree->terminals) {
            if (leaf->depth <= node->depth) continue;
            if (std::equal(node->path, node->path + node->depth, leaf->path)) below.push_back(leaf->label);
        }
        report->nOffspring = static_cast<int>(below.size());
        if (!below.empty()) {
            report->offspring = new int[below.size()];
            std::copy(below.begin(), below.end(), report->offspring);
        }
    }
}

WSReport** DHC::reportAllWSs(int& n) {
    n = static_cast<int>(tree->nodeList.size());
    WSReport** reports = new WSReport*[tree->nodeList.size()];
    int i = 0;
    for (WSNode* node : tree->nodeList) {
        reports[i] = node->data->getWSReport();
        completeWSReport(reports[i]);
        ++i;
    }
    return reports;
}

int* DHC::extractSplitSequence(int& n) {
    n = 0;
    WSNode* root = tree->root;
    if (root->nChildren == 0) return nullptr;
    std::vector<int> sequence{root->label};
    std::vector<WSNode*> candidates;
    for (int c = 0; c < root->nChildren; ++c)
        if (root->children[c]->nChildren > 0) candidates.push_back(root->children[c]);
    while (!candidates.empty()) {
        size_t best = 0;
        for (size_t i = 1; i < candidates.size(); ++i)
            if (candidates[i]->data->splitGain > candidates[best]->data->splitGain) best = i;
        WSNode* chosen = candidates[best];
        sequence.push_back(chosen->label);
        candidates.erase(candidates.begin() + static_cast<std::ptrdiff_t>(best));
        for (int c = 0; c < chosen->nChildren; ++c)
            if (chosen->children[c]->nChildren > 0) candidates.push_back(chosen->children[c]);
    }
    n = static_cast<int>(sequence.size());
    int* out = new int[sequence.size()];
    std::copy(sequence.begin(), sequence.end(), out);
    return out;
}

PaddedMap* DHC::outputPMap(bool fromMap, bool compact, bool padded, int keep) {
    PottsMapRegion* region = rootWS()->root;
    if (fromMap) region->copyToAuxMap();
    if (compact) region->compact(keep);
    const int pad = padded ? region->pad : 0;
    PaddedMap* out = new PaddedMap(region->rows, region->cols, pad, region->borderLabel, 0);
    for (int r = 0; r < region->rows; ++r)
        for (int c = 0; c < region->cols; ++c)
            out->map[r + pad][c + pad] = region->auxMap[r + region->pad][c + region->pad];
    return out;
}

void DHC::printReport(std::string fileName, bool withStats, bool withCovariance, int nSplit,
                      int* splitSequence) {
    std::ofstream os(fileName, std::ios::out | std::ios::trunc);
    if (!os) return;
    printReport(os, withStats, withCovariance, nSplit, splitSequence);
}

void DHC::printReport(std::ostream& os, bool withStats, bool withCovariance, int nSplit, int* splitSequence) {
    std::unique_ptr<int[]> extracted;
    if (splitSequence == nullptr) {
        extracted.reset(extractSplitSequence(nSplit));
        splitSequence = extracted.get();
    }
    int nReports = 0;
    const std::unique_ptr<WSReport*[]> raw(reportAllWSs(nReports));
    std::vector<std::unique_ptr<WSReport>> reports(raw.get(), raw.get() + nReports);

    {
        const int nLeaves = leafCount();
        os << "[GENERAL INFORMATION]\n";
        os << "NClass = " << nLeaves << ";\n";
        os << "Classes = [";
        for (const auto& r : reports)
            if (r->terminal) os << r->WSLab << " ";
        os << "];\n";
        os << "NSplit = " << nSplit << ";\n";
        // The rows below always hold at least one entry; without a split the
        // entry is 0, a label no workspace carries.
        const int rowsOut = nSplit > 0 ? nSplit : 1;
        auto splitLabel = [&](int i) { return nSplit > 0 ? splitSequence[i] : 0; };
        os << "SplitOrder = [";
        for (int i = 0; i < rowsOut; ++i) os << splitLabel(i) << " ";
        os << "];\n";
        os << "OffspringMat = [\n";
        for (int i = 0; i < rowsOut; ++i) {
            int written = 0;
            for (const auto& r : reports) {
                if (r->WSLab != splitLabel(i)) continue;
                for (int j = 0; j < r->nOffspring; ++j, ++written) os << r->offspring[j] << " ";
                break;
            }
            for (; written < nLeaves; ++written) os << "0 ";
            os << "\n";
        }
        os << "];\n";
        os << "[END GENERAL INFORMATION]\n";
    }
    for (const auto& r : reports) r->write(os, withStats, withCovariance);
}
