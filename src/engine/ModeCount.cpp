#include <cmath>
#include <memory>
#include <ostream>

#include "data/PottsMapRegion.h"
#include "engine/EngineSupport.h"
#include "engine/PottsEngine.h"
#include "settings/DHC_SET.h"
#include "settings/Fatal.h"
#include "settings/RowMatrix.h"
#include "stats/FMSC.h"
#include "stats/FeatureSpace.h"
#include "workspace/PottsWS.h"

// The number of classes of a region by mean-shift mode seeking.

using namespace dhc::engine;

// ---------------------------------------------------------------------------
// Number of classes by mean shift

double** PottsEngine::MS_K_est(PottsWS* w, int& k, bool label) {
    const int d = w->bands;
    int n = w->envelopeCount < 3000 ? w->envelopeCount : 3000;
    xy* sampleCoordCells = nullptr;
    double** samples = w->getFirstNaturals(n, sampleCoordCells);
    const std::unique_ptr<xy[]> sampleCoords(sampleCoordCells);

    // Mean shift runs on the principal components of the samples: three of
    // them, or as many as there are bands when there are fewer.
    const int dims = d < 3 ? d : 3;
    FeatureSpace space(1, n);
    space.addDomain(samples, d);
    double** projected = n > 0 && dims > 0 ? space.getPCAData(dims, false) : nullptr;
    std::ostream& out = dhc::out();
    out << "N.L.P. = " << n;

    w->updateFeatures();
    const double dist = std::sqrt(w->sqDeviation);
    out << " - Dist: " << dist << " - ";
    // A spread below e^0 gives no usable figure: every sample is a neighbour then.
    const double knnFigure = std::ceil(n / (0.5 * std::log(dist)));
    const int knn = (std::isfinite(knnFigure) && knnFigure >= 1.0) ? static_cast<int>(knnFigure) : n;
    out << " (inital knn = " << knn << ")" << std::endl;

    double** modes = nullptr;
    std::unique_ptr<int[]> classification;
    std::unique_ptr<int[]> population;
    k = 0;
    if (projected != nullptr) {
        std::unique_ptr<FMSC> shift;
        if (settings != nullptr)
            shift = std::make_unique<FMSC>(projected, dims, n, knn, 0.05, 100.0, settings->autoAdjustkNN,
                                           settings->tolerance, settings->skipLast, settings->kernelType);
        else if (configFile != nullptr)
            shift = std::make_unique<FMSC>(projected, dims, n, knn, 0.05, 100.0, configFile);
        else
            shift = std::make_unique<FMSC>(projected, dims, n, knn, 0.05, 100.0, 0, 0.0, 0.0, 0);
        double** found = shift->getModes(k);
        int counted = 0;
        population.reset(shift->getPointsForMode(counted));
        int classified = 0;
        classification.reset(shift->getClassification(classified));
        shift.reset();

        // Back to data units: m_b * s_b + mu_b on the clustered coordinates,
        // the band mean on any band beyond them.
        const std::unique_ptr<double[]> sd(space.getStDevs(0));
        const std::unique_ptr<double[]> mu(space.getMi(0));
        modes = dhc::newRows<double>(k, d);
        for (int i = 0; i < k; ++i)
            for (int b = 0; b < d; ++b) modes[i][b] = b < dims ? found[i][b] * sd[b] + mu[b] : mu[b];
        dhc::deleteRows(found, k);
    }

    setConfig(k);
    if (k >= 2 && k <= 8) {
        out << "Modes found:" << std::endl;
        for (int i = 0; i < k; ++i) out << "Mode #" << i << ": " << population[i] << std::endl;
        if (label) {
            PottsMapRegion* region = w->root;
            int count = 0;
            const std::unique_ptr<int[]> all(region->PottsMap::labels(count));
            const int base = count > 0 ? all[count - 1] : 0;
            region->mapRefresh(0, false);
            for (int i = 0; i < n; ++i)
                if (classification != nullptr && classification[i] > 0)
                    cell(region, sampleCoords[i]) = base + classification[i];
            dhc::deleteRows(modes, k);
            modes = dhc::newRows<double>(k, d);
            w->MLMapCompletion(modes, nullptr);
            w->splitState = 1;
        } else if (w->fromRoi == 0) {
            // Values held in memory only (built from a region of interest) are
            // complete already and have no file behind them: they stay.
            if (!w->hrawFileName.empty())
                w->loadDataHRaw(w->hrawFileName, 100.0f);
            else if (w->bandFiles != nullptr)
                w->loadDataRaw(w->bandFiles, w->bands, 100.0f);
        }
    } else {
        dhc::deleteRows(modes, k);
        modes = nullptr;
        w->splitState = -1;
        k = 1;
    }

    dhc::deleteRows(projected, n);
    dhc::deleteRows(samples, n);
    return modes;
}
