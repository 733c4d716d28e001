#include "engine/PottsEngine.h"

#include <memory>
#include <vector>

#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsLikelihoodEnergy.h"
#include "engine/SplitCriterion.h"
#include "settings/ConfigFileParser.h"
#include "settings/DHC_SET.h"
#include "stats/Mixture.h"
#include "workspace/PottsWS.h"

using namespace dhc::engine;

// ---------------------------------------------------------------------------
// Configuration

PottsEngine::PottsEngine() = default;

PottsEngine::PottsEngine(int multiplicity_, double betaMin_, double betaMax_, double betaBound_,
                         bool adaptive_, double rangeBandwidth_, double spatialBandwidth_) {
    setConfig(multiplicity_, betaMin_, betaMax_, betaBound_, adaptive_, rangeBandwidth_, spatialBandwidth_);
}

PottsEngine::PottsEngine(DHC_SET* s) : settings(s) {
    setConfig(s->multiplicity, s->betaMin, s->betaMax, s->adaptive ? s->betaBound : 0.0, s->adaptive,
              s->rangeBandwidth, s->spatialBandwidth);
    if (!s->supervisedMode) stopCriterion = s->stopCriterion;
}

PottsEngine::PottsEngine(char* file) : configFile(file) {
    if (file == nullptr) return;
    ConfigFileParser parser(file);
    parser.seekArgument("POTTS_MODEL");
    DHC_SET s;
    s.readPottsModel(parser);
    setConfig(s.multiplicity, s.betaMin, s.betaMax, s.adaptive ? s.betaBound : 0.0, s.adaptive,
              s.rangeBandwidth, s.spatialBandwidth);
}

// Out of line: the owned types are complete here.
PottsEngine::~PottsEngine() = default;

void PottsEngine::setConfig(int multiplicity_, double betaMin_, double betaMax_, double betaBound_,
                            bool adaptive_, double rangeBandwidth_, double spatialBandwidth_) {
    multiplicity = multiplicity_;
    betaMin = betaMin_;
    betaMax = betaMax_;
    betaBound = betaBound_;
    adaptive = adaptive_;
    rangeBandwidth = rangeBandwidth_;
    spatialBandwidth = spatialBandwidth_;
}

void PottsEngine::setConfig(int multiplicity_) {
    multiplicity = multiplicity_;
}

// ---------------------------------------------------------------------------
// Splits

PottsWS** PottsEngine::makeChildren(PottsWS* w, int* labels, int k, bool altGain, double threshold) {
    PottsWS** children = nullptr;
    w->split(labels, k, children, true, childValuesWithParent);
    w->splitGain = altGain ? splitGain(w, k, children, threshold) : splitGain(w, k, children);
    if (stopCriterion > 0) w->criterion = dhc::splitCriterion(*w, k, children, stopCriterion == 1);
    // The Potts split is the method that made this split, so its gain is the
    // primary one; the report files it as the MRF gain.
    w->primaryGain = w->splitGain;
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::icmAndSplit(PottsWS* w, int* labels, double** means, bool altGain, double threshold) {
    const int r = kEstMaxICM(means, labels);
    w->splitState = r;
    if (r != 2) {
        ws = nullptr;
        return nullptr;
    }
    w->beta = betaHat(labels);
    return makeChildren(w, labels, multiplicity, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, bool altGain, double threshold) {
    ws = w;
    double** means = kGLA(w, labels);
    PottsWS** children = nullptr;
    if (w->splitState != -1) children = icmAndSplit(w, labels, means, altGain, threshold);
    dhc::deleteRows(means, multiplicity);
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, double** means, bool altGain, double threshold) {
    ws = w;
    w->updateMi();
    if (w->splitState == -1) {
        ws = nullptr;
        return nullptr;
    }
    return icmAndSplit(w, labels, means, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, PottsWS** parts, int nParts, int* classOf, int k,
                             bool altGain, double threshold) {
    ws = w;
    PottsMapRegion* region = w->root;
    for (int i = 0; i < nParts; ++i) {
        const int l = labels[classOf[i]];
        for (int q = 0; q < parts[i]->envelopeCount; ++q) cell(region, parts[i]->coords[q]) = l;
    }
    w->splitState = 2;
    w->beta = betaHat(labels, k);
    return makeChildren(w, labels, k, altGain, threshold);
}

PottsWS** PottsEngine::split(PottsWS* w, int* labels, Mixture** classes) {
    ws = w;
    if (energyTable == nullptr) {
        ws = nullptr;
        return nullptr;
    }
    const int k = multiplicity;
    std::vector<int*> groups(k);
    std::vector<int> sizes(k);
    for (int c = 0; c < k; ++c) {
        groups[c] = classes[c]->linkIndex;
        sizes[c] = classes[c]->k;
    }
    double** energy = energyTable->get(w, groups.data(), sizes.data(), k);
    double** means = kML(w, labels, energy);

    int r = w->splitState;
    if (r != -1) {
        for (int c = 0; c < k; ++c)
            if (!classes[c]->checkInv()) r = -2;
        if (r == -2) {
            w->splitState = -2;
        } else {
            r = kSupervisedICM(means, labels, energy);
            w->splitState = r;
            if (r == 2) w->beta = betaHat(labels);
        }
    }
    dhc::deleteRows(energy, k);
    dhc::deleteRows(means, k);

    PottsWS** children = nullptr;
    if (r == 2) {
        w->split(labels, k, children, true);
        for (int c = 0; c < k; ++c)
            if (globalMixture != nullptr && classes[c]->linkIndex != nullptr)
                children[c]->linkMixture(globalMixture.get(), classes[c]->k, classes[c]->linkIndex);
    }
    ws = nullptr;
    return children;
}

PottsWS** PottsEngine::fragment(PottsWS* w, int* labels, int n) {
    ws = w;
    PottsMapRegion* region = w->root;
    int pieces = 0;
    const std::unique_ptr<PottsMapRegion[]> parts(region->fragment(pieces, false));
    if (parts == nullptr) {
        ws = nullptr;
        return nullptr;
    }
    // The pieces carry fresh labels now; give piece i the caller's labels[i].
    int top = 0;
    for (int i = 0; i < pieces; ++i)
        if (parts[i].label > top) top = parts[i].label;
    std::vector<int> table(static_cast<std::size_t>(top) + 1);
    for (int l = 0; l <= top; ++l) table[l] = l;
    for (int i = 0; i < pieces && i < n; ++i) table[parts[i].label] = labels[i];
    region->setInnerLabels(table.data());

    PottsWS** children = nullptr;
    w->split(labels, n, children, true);
    ws = nullptr;
    return children;
}

// ---------------------------------------------------------------------------
// Linked mixtures

Mixture** PottsEngine::generateLinkedMixtures(int* assign, int k) {
    Mixture** result = new Mixture*[k > 0 ? k : 0]();
    if (globalMixture == nullptr) return result;
    const int classes = globalMixture->k;
    const std::unique_ptr<bool[]> mask(new bool[classes > 0 ? classes : 0]);
    for (int c = 0; c < k; ++c) {
        for (int j = 0; j < classes; ++j) mask[j] = assign[j] == c;
        result[c] = globalMixture->generateLinkedMixture(mask.get());
    }
    return result;
}
