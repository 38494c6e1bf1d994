// The members bound to the candidate evaluator, and the choice of member by the
// mars_model parameter.
#include "featuresextractor.h"
#include "models.h"
#include "userparameters.h"

namespace ksieve {

double ReadMarsFeature(FeaturesExtractor& features, MarsFeature feature) {
    switch (feature) {
        case MarsFeature::corr_0:
            return features.corr_0();
        case MarsFeature::corr_m1:
            return features.corr_m1();
        case MarsFeature::corr_m2:
            return features.corr_m2();
        case MarsFeature::cos_0_1:
            return features.cos_0_1();
        case MarsFeature::cos_m1_0:
            return features.cos_m1_0();
        case MarsFeature::cluster_fraction:
            return features.GetClusterFraction();
        case MarsFeature::isotope_run:
            return features.GetIsotopeRun();
        case MarsFeature::isotopes_in_window:
            return features.GetIsotopesInWindow();
        case MarsFeature::window_share:
            return features.GetWindowShare();
        case MarsFeature::mz_spread_ppm:
            return features.GetMzSpreadPpm();
        case MarsFeature::mass_z:
            return features.mass_z();
        case MarsFeature::charge:
            break;  // every enumerator is handled; the charge is read below
    }
    return features.charge();
}

namespace {

double Score(const MarsMember& member, FeaturesExtractor& features) {
    return EvaluateMember(member,
                          [&features](MarsFeature f) { return ReadMarsFeature(features, f); });
}

}  // namespace

double MarsModel0(FeaturesExtractor& features) {
    return Score(g_mars_model0, features);
}
double MarsModel1(FeaturesExtractor& features) {
    return Score(g_mars_model1, features);
}
double MarsModel2(FeaturesExtractor& features) {
    return Score(g_mars_model2, features);
}
double MarsModel3(FeaturesExtractor& features) {
    return Score(g_mars_model3, features);
}
double MarsModel4(FeaturesExtractor& features) {
    return Score(g_mars_model4, features);
}
double MarsModel5(FeaturesExtractor& features) {
    return Score(g_mars_model5, features);
}
double MarsModel250(FeaturesExtractor& features) {
    return Score(g_mars_model250, features);
}

double ScoreCandidate(const UserParameters& params, FeaturesExtractor& features) {
    switch (params.m_mars_model) {
        case 1:
            return MarsModel1(features);
        case 2:
            return MarsModel2(features);
        case 3:
            return MarsModel3(features);
        case 4:
        case 1024:
            return MarsModel4(features);
        case 5:
            return MarsModel5(features);
        case 15: {
            // Two models trained on different labelling; the candidate is judged by
            // whichever believes in it more.
            const double qe = MarsModel250(features);
            const double n15 = MarsModel5(features);
            return qe > n15 ? qe : n15;
        }
        case 250:
            return MarsModel250(features);
        default:
            return MarsModel0(features);
    }
}

}  // namespace ksieve
