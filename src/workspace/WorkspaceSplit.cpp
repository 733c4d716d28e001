#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "data/PottsMapRegion.h"
#include "data/run.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "settings/Workers.h"
#include "workspace/PixelSums.h"
#include "workspace/PottsWS.h"

// A workspace split into one child workspace per label, and the hand-over of
// its values to the children once the split is final.

using namespace dhc::workspace;

// ---------------------------------------------------------------------------
// Split

namespace {

// Where the pixels of a split go: every pixel's child (nChildren: none) and
// border flag, the children's areas and border counts, and where each chunk
// of the pixel list starts its entries of each child.
struct SplitPlan {
    int nChildren = 0;
    int topLabel = 0;          // the largest label of a child
    std::vector<int> childOf;  // label -> child index; nChildren means "no child"
    int chunks = 0;
    size_t slots = 0;  // children plus "none"
    // Per chunk and slot: first the chunk's counts, then (after the prefix
    // sums) where the chunk's entries of the slot start.
    std::vector<int> chunkAreas, chunkBorders;
    std::unique_ptr<int[]> pixelChild;
    std::unique_ptr<char[]> isBorder;
    std::vector<int> areas, borderCounts;

    int childOfLabel(int v) const { return (v >= 0 && v <= topLabel) ? childOf[v] : nChildren; }
};

// First pass: child and border flag of every pixel, areas and border counts,
// by chunk of the pixel list (the chunks' counts place the second pass's writes).
SplitPlan planSplit(const PottsWS& ws, const int* labels, int nChildren) {
    SplitPlan plan;
    plan.nChildren = nChildren;
    PottsMapRegion* region = ws.root;
    int** map = region->map;
    const int pad = region->pad;
    const int total = ws.envelopeCount;
    const xy* coords = ws.coords;
    int m = 0;
    for (int j = 0; j < nChildren; ++j) m = std::max(m, labels[j]);
    plan.topLabel = m;
    plan.childOf.assign(static_cast<size_t>(m) + 1, nChildren);
    for (int j = 0; j < nChildren; ++j) plan.childOf[labels[j]] = j;

    plan.chunks = dhc::chunksFor(total, kGrain);
    const size_t slots = static_cast<size_t>(nChildren) + 1;
    plan.slots = slots;
    plan.chunkAreas.assign(slots * plan.chunks, 0);
    plan.chunkBorders.assign(slots * plan.chunks, 0);
    // Written for every pixel by the threads (first touched side by side).
    plan.pixelChild.reset(new int[std::max(total, 1)]);
    plan.isBorder.reset(new char[std::max(total, 1)]);
    dhc::forChunks(total, kGrain, [&](int begin, int end, int chunk) {
        int* area = &plan.chunkAreas[slots * chunk];
        int* border = &plan.chunkBorders[slots * chunk];
        for (int p = begin; p < end; ++p) {
            if (p + kAhead < end) region->prefetchAround(coords[p + kAhead].x, coords[p + kAhead].y);
            const xy& c = coords[p];
            const int v = map[c.x + pad][c.y + pad];
            if (v < 0 || v > m) {
                plan.pixelChild[p] = nChildren;
                plan.isBorder[p] = 0;
                ++area[nChildren];
                continue;
            }
            const int j = plan.childOf[v];
            plan.pixelChild[p] = j;
            const bool onBorder = region->uc(c.x, c.y, v, true) < 8;
            plan.isBorder[p] = onBorder ? 1 : 0;
            if (onBorder) ++border[j];
            ++area[j];
        }
    });
    // From here on chunkAreas / chunkBorders hold where each chunk's entries
    // of each child start.
    plan.areas.assign(slots, 0);
    plan.borderCounts.assign(slots, 0);
    for (int i = 0; i < plan.chunks; ++i)
        for (size_t j = 0; j < slots; ++j) {
            const int a = plan.chunkAreas[slots * i + j], b = plan.chunkBorders[slots * i + j];
            plan.chunkAreas[slots * i + j] = plan.areas[j];
            plan.chunkBorders[slots * i + j] = plan.borderCounts[j];
            plan.areas[j] += a;
            plan.borderCounts[j] += b;
        }
    return plan;
}

// The children, sized exactly from the plan: image source, region, pixel
// list, root indices and value storage; contours receives their empty
// contour lists.  Returns the number of children with pixels.
int makeChildren(const PottsWS& parent, const int* labels, const SplitPlan& plan, bool copyValues,
                 PottsWS** children, std::vector<xy*>& contours) {
    const int nChildren = plan.nChildren;
    const std::vector<int>& areas = plan.areas;
    int nonEmpty = 0;
    contours.assign(nChildren, nullptr);
    // The pixel lists are zeroed as they are made: the children's side by side.
    std::vector<xy*> pixelLists(nChildren, nullptr);
    dhc::forChunks(nChildren, 1, [&](int first, int last, int) {
        for (int j = first; j < last; ++j)
            if (areas[j] > 0) pixelLists[j] = new xy[areas[j]];
    });
    for (int j = 0; j < nChildren; ++j) {
        PottsWS* child = new PottsWS();
        children[j] = child;
        if (plan.borderCounts[j] > 0) contours[j] = new xy[plan.borderCounts[j]];
        child->bands = parent.bands;
        child->rows = parent.rows;
        child->cols = parent.cols;
        child->envelopeCount = areas[j];
        if (parent.fromRoi == 1)
            child->fromRoi = 1;
        else if (!parent.hrawFileName.empty())
            child->setHrawFileName(parent.hrawFileName);
        else if (parent.bandFiles != nullptr)
            child->setFileNames(parent.bandFiles, parent.bands);
        child->tracksRootIndex = parent.tracksRootIndex;
        delete child->root;
        child->root = new PottsMapRegion(*parent.root, labels[j]);
        child->root->area = areas[j];
        if (areas[j] > 0) {
            ++nonEmpty;
            child->coords = pixelLists[j];
            if (parent.tracksRootIndex) child->pixelIndex = new int[areas[j]];
            if (copyValues) child->data = new int[static_cast<size_t>(areas[j]) * parent.bands];
        }
    }
    return nonEmpty;
}

// Second pass: pixel lists, contour lists, root indices (and values; or,
// leaving the values in the parent, every child's entries in the parent's
// list, child after child, into entries).  The plan's chunk offsets are used up.
void fillChildren(const PottsWS& parent, SplitPlan& plan, bool copyValues, bool leaveValues,
                  const std::vector<int>& childStart, std::vector<int>& entries, PottsWS** children,
                  std::vector<xy*>& contours) {
    const int nChildren = plan.nChildren;
    const size_t slots = plan.slots;
    const int bands = parent.bands;
    dhc::forChunks(parent.envelopeCount, kGrain, [&](int begin, int end, int chunk) {
        int* filled = &plan.chunkAreas[slots * chunk];
        int* contourFilled = &plan.chunkBorders[slots * chunk];
        for (int p = begin; p < end; ++p) {
            const int j = plan.pixelChild[p];
            if (j >= nChildren) continue;
            PottsWS* child = children[j];
            const int q = filled[j]++;
            xy record = parent.coords[p];
            record.aux = static_cast<uint16_t>(plan.isBorder[p]);
            child->coords[q] = record;
            if (plan.isBorder[p]) contours[j][contourFilled[j]++] = record;
            if (parent.tracksRootIndex)
                child->pixelIndex[q] = parent.pixelIndex != nullptr ? parent.pixelIndex[p] : p;
            if (leaveValues) entries[childStart[j] + q] = p;
            if (copyValues)
                std::copy(parent.data + static_cast<size_t>(p) * bands,
                          parent.data + static_cast<size_t>(p + 1) * bands,
                          child->data + static_cast<size_t>(q) * bands);
        }
    });
    for (int j = 0; j < nChildren; ++j) {
        PottsMapRegion* r = children[j]->root;
        delete[] r->contour;
        r->contour = contours[j];
        r->contourCount = plan.borderCounts[j];
        r->contourCursor = 0;
    }
}

// Runs and borders: the parent region's lists cut by label, each handed to
// the child of its label; empty lists and lists of no child are freed.
void handOverRunsAndBorders(PottsMapRegion* region, const SplitPlan& plan, PottsWS** children) {
    auto handOver = [&](auto lists, int nLists, int* listLabels, int* listCounts, auto adopt) {
        for (int i = 0; i < nLists; ++i) {
            const int j = plan.childOfLabel(listCounts[i] > 0 ? listLabels[i] : -1);
            if (j < plan.nChildren)
                adopt(children[j]->root, lists[i], listCounts[i]);
            else
                delete[] lists[i];
        }
        delete[] lists;
        delete[] listLabels;
        delete[] listCounts;
    };
    int nLists = 0;
    int* listLabels = nullptr;
    int* listCounts = nullptr;
    run** subRuns = region->retrieveSubRuns(nLists, listLabels, listCounts);
    handOver(subRuns, nLists, listLabels, listCounts, [](PottsMapRegion* r, run* list, int count) {
        delete[] r->runs;
        r->runs = list;
        r->runCount = count;
        r->updateMargins(true);
    });
    xy** subBorders = region->retrieveSubBorders(nLists, listLabels, listCounts);
    handOver(subBorders, nLists, listLabels, listCounts, [](PottsMapRegion* r, xy* list, int count) {
        delete[] r->border;
        r->border = list;
        r->borderCount = count;
        r->borderCursor = 0;
    });
}

// Neighbouring pixel pairs between the children (labels[k] is child k's).
int edgesBetween(PottsWS** children, int nChildren, const int* labels, int** map, int pad) {
    // Each adjacency is seen from both sides.
    int count = 0;
    if (nChildren < 9) {
        for (int c = 0; c < nChildren; ++c) {
            PottsMapRegion* r = children[c]->root;
            if (r->contourCount < 1) continue;
            r->resetContourScan();
            do {
                for (int k = 0; k < nChildren; ++k)
                    if (k != c) count += r->uc_contour(labels[k]);
            } while (r->nextContourElement());
        }
    } else {
        // Many children: a range test instead of one test per child label;
        // a non-child label inside the range counts as well.
        int lo = children[0]->root->label, hi = lo;
        for (int j = 1; j < nChildren; ++j) {
            lo = std::min(lo, children[j]->root->label);
            hi = std::max(hi, children[j]->root->label);
        }
        for (int c = 0; c < nChildren; ++c) {
            PottsMapRegion* r = children[c]->root;
            if (r->contourCount < 1) continue;
            const int own = r->label;
            r->resetContourScan();
            do {
                const xy e = r->getContourLocation();
                for (int dr = -1; dr <= 1; ++dr)
                    for (int dc = -1; dc <= 1; ++dc) {
                        if (dr == 0 && dc == 0) continue;
                        const int v = map[e.x + pad + dr][e.y + pad + dc];
                        if (v >= lo && v <= hi && v != own) ++count;
                    }
            } while (r->nextContourElement());
        }
    }
    return count / 2;
}

}  // namespace

int PottsWS::split(int* labels, int n, PottsWS**& children, bool computeStats, bool leaveWithParent) {
    const int nChildren = n > 0 ? n : 0;
    children = new PottsWS*[nChildren];
    SplitPlan plan = planSplit(*this, labels, nChildren);
    const std::vector<int>& areas = plan.areas;
    const int uncovered = areas[nChildren];

    const bool valuesInMemory = data != nullptr && loadedCount >= envelopeCount;
    const bool leaveValues = computeStats && valuesInMemory && leaveWithParent;
    const bool copyValues = computeStats && valuesInMemory && !leaveWithParent;
    std::vector<xy*> contours;
    const int nonEmpty = makeChildren(*this, labels, plan, copyValues, children, contours);

    std::vector<int> childStart(plan.slots, 0), entries(leaveValues ? envelopeCount : 0);
    for (int j = 0; j < nChildren; ++j) childStart[j + 1] = childStart[j] + areas[j];
    fillChildren(*this, plan, copyValues, leaveValues, childStart, entries, children, contours);
    handOverRunsAndBorders(root, plan, children);

    // Band values: copied above when this workspace holds them all, otherwise
    // each child reads its own pixels from the image source.
    if (computeStats) {
        for (int j = 0; j < nChildren; ++j) {
            PottsWS* child = children[j];
            if (copyValues) {
                child->loadedCount = areas[j];
            } else if (!child->hrawFileName.empty()) {
                child->loadDataHRaw(child->hrawFileName, 100.0f);
            } else if (child->bandFiles != nullptr) {
                child->loadDataRaw(child->bandFiles, child->bands, 100.0f);
            }
        }
    }

    if (n < 1) {
        edges = 0;
        return 0;
    }

    for (int j = 0; j < nChildren; ++j) {
        PottsWS* child = children[j];
        if (child->mi == nullptr && bands > 0) child->mi = new double[bands]();
        if (child->sigma == nullptr && bands > 0) child->sigma = dhc::newRows<double>(bands, bands);
        if (leaveValues) {
            // The same sums over the same values in the same order as on a copy.
            const IndexScan scan{*child, data, entries.data() + childStart[j], areas[j]};
            child->meanOver(scan);
            child->sigmaOver(scan);
            child->featuresOver(scan);
            child->valuesWithParent = true;
        } else if (computeStats) {
            child->updateMi();
            child->updateSigma();
        }
    }
    edges = edgesBetween(children, nChildren, labels, root->map, root->pad);

    return uncovered != 0 ? -nonEmpty : nonEmpty;
}

// ---------------------------------------------------------------------------
// Hand-over

void PottsWS::handValuesToChildren(PottsWS** children, int n) {
    bool pending = false;
    for (int j = 0; j < n; ++j) pending = pending || children[j]->valuesWithParent;
    if (!pending) return;
    if (data == nullptr || loadedCount < envelopeCount)
        dhc::fatal(-1, "handValuesToChildren: the region holds no values to hand over",
                   dhc::FatalChannel::StdErr);
    // The ranges: the largest child's first, then the others in order.
    int big = 0;
    for (int j = 1; j < n; ++j)
        if (children[j]->envelopeCount > children[big]->envelopeCount) big = j;
    const int head = children[big]->envelopeCount;
    std::vector<int> offset(static_cast<size_t>(n), 0), next(static_cast<size_t>(n), 0);
    int filled = head;
    for (int j = 0; j < n; ++j)
        if (j != big) {
            offset[j] = filled;
            filled += children[j]->envelopeCount;
        }
    // Entry q of the ranges takes pixel from[q] of this list.  Every child's
    // pixels are this list's pixels in this list's order, so one cursor per
    // child finds them; pixels of no child are dropped.
    const int total = envelopeCount;
    std::vector<int32_t> from(static_cast<size_t>(filled));
    for (int p = 0; p < total; ++p) {
        const xy& c = coords[p];
        for (int j = 0; j < n; ++j) {
            const PottsWS* child = children[j];
            if (next[j] < child->envelopeCount && child->coords[next[j]].x == c.x &&
                child->coords[next[j]].y == c.y) {
                from[offset[j] + next[j]++] = p;
                break;
            }
        }
    }
    for (int j = 0; j < n; ++j)
        if (next[j] != children[j]->envelopeCount)
            dhc::fatal(-1, "handValuesToChildren: a child's pixels are not the region's",
                       dhc::FatalChannel::StdErr);

    // The other children's values aside; the largest child's moved forward
    // in place (its q-th pixel lies at q or after, so nothing is overwritten
    // before it is read); the others after it.
    const size_t d = static_cast<size_t>(bands);
    dhc::withBandCount(bands, [&](auto D) {
        const size_t w = D() > 0 ? static_cast<size_t>(D()) : d;
        auto copy = [w](const int* src, int* dst) {
            for (size_t b = 0; b < w; ++b) dst[b] = src[b];
        };
        std::vector<int> aside(static_cast<size_t>(filled - head) * w);
        for (int q = head; q < filled; ++q) copy(data + from[q] * w, aside.data() + (q - head) * w);
        for (int q = 0; q < head; ++q) copy(data + from[q] * w, data + q * w);
        std::copy(aside.begin(), aside.end(), data + head * w);
    });

    if (!sharedValues) sharedValues.reset(data);
    for (int j = 0; j < n; ++j) {
        PottsWS* child = children[j];
        if (!child->valuesWithParent) continue;
        // A child of a file source may have read its own pixels meanwhile.
        child->dropValues();
        child->sharedValues = sharedValues;
        child->data = data + static_cast<size_t>(offset[j]) * d;
        child->loadedCount = child->envelopeCount;
        child->valuesWithParent = false;
    }
}

void PottsWS::releasePixels() {
    dropValues();
    delete[] coords;
    coords = nullptr;
    delete[] pixelIndex;
    pixelIndex = nullptr;
    envelopeCount = 0;
    loadedCount = 0;
}
