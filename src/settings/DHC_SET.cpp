#include "settings/DHC_SET.h"

#include "settings/ConfigFileParser.h"
#include "settings/FileName.h"

DHC_SET::DHC_SET(std::string fileName) {
    ConfigFileParser ini(dhc::cutFileName(fileName));
    read(ini);
}

DHC_SET::DHC_SET(ConfigFileParser& ini) {
    read(ini);
}

void DHC_SET::read(ConfigFileParser& ini) {
    maxLabels = 1000000;
    blindActive = false;
    blindDepth = blindMSE = blindArea = 0.0;

    ini.seekArgument("SEGM_MAIN_CONFIGURATION");
    supervisedMode = ini.seekFlag("SupervisedMode");

    if (supervisedMode) {
        ini.seekArgument("UNSUPERVISED_MODE_CONF");
        fragmentation = ini.seekFlag("Fragmentation");
        ini.seekArgument("SUPERVISED_MODE_CONF");
        numberOfClasses = ini.seekInt("NumberOfClasses", 0);
        if (numberOfClasses > 0) {
            structureLevels = ini.seekIntArray("StructureLevels", numberOfClasses);
            if (structureLevels != nullptr) {
                int pathLength = 0;
                for (int i = 0; i < numberOfClasses; ++i) pathLength += structureLevels[i];
                structurePaths = ini.seekIntArray("StructurePaths", pathLength);
            }
        }
    } else {
        ini.seekArgument("UNSUPERVISED_MODE_CONF");
        variableMultiplicity = ini.seekFlag("VariableMultiplicity");
        splitGainThreshold = ini.seekDouble("SplitGainThreshold", 0.0);
        maxNumberOfClasses = ini.seekInt("MaxNumberOfClasses", 0);
        fragmentation = ini.seekFlag("Fragmentation");
        doubleSplit = ini.seekFlag("DoubleSplit");
        balancedTree = ini.seekFlag("BalancedTree");
        growDepth = ini.seekInt("GrowDepth", 0);
        minSplitArea = ini.seekDouble("MinRegionArea", 0.0);
        blind = ini.seekFlag("Blind");
        metric = ini.seekInt("Metric", 0);
        distorsionThreshold = ini.seekDouble("DistortionThreshold", 0.0);
        splitwiseDisconnect = ini.seekFlag("SplitwiseDisconnect");
        blindDepth = ini.seekDouble("BlindSplitDepthMax", 0.0);
        blindArea = ini.seekDouble("BlindSplitAreaMin", 0.0);
        blindMSE = ini.seekDouble("BlindSplitMSEMin", 0.0);
        stopCriterion = ini.seekInt("StopCriterion", 0);
        finalRefinement = ini.seekInt("FinalRefinement", 0);
        updateBlindActive();
    }

    ini.seekArgument("POTTS_MODEL");
    readPottsModel(ini);
    ini.seekArgument("MEANSHIFT");
    readMeanShift(ini);
    ini.close();
}

void DHC_SET::readPottsModel(ConfigFileParser& ini) {
    adaptive = ini.seekFlag("Adaptive");
    betaBound = ini.seekDouble("BetaBound", 0.0);
    betaMax = ini.seekDouble("BetaMax", 0.0);
    betaMin = ini.seekDouble("BetaMin", 0.0);
    multiplicity = ini.seekInt("Multiplicity", 0);
    rangeBandwidth = ini.seekDouble("RangeBandwidth", 0.0);
    spatialBandwidth = ini.seekDouble("SpatialBandwidth", 0.0);
}

void DHC_SET::readMeanShift(ConfigFileParser& ini) {
    autoAdjustkNN = ini.seekInt("AutoAdjustKNN", 0);
    skipLast = ini.seekDouble("SkipLast", 0.0);
    tolerance = ini.seekDouble("Tolerance", 0.0);
    kernelType = ini.seekInt("KernelType", 0);
}

DHC_SET::~DHC_SET() {
    delete[] structureLevels;
    delete[] structurePaths;
}
