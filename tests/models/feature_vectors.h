// Three candidates with known scores: a plausible precursor near the threshold,
// a clean one, and noise. The scores of members 0 and 4 are known to full
// precision, the others to ten decimals.
#pragma once

#include <array>

#include "models.h"

namespace ksieve::test {

struct FeatureVector {
    double corr_0, corr_m1, corr_m2, cos_0_1, cos_m1_0, cluster_fraction;
    int isotopes_in_window, isotope_run;
    double window_share, mz_spread_ppm;
    int charge;
    double mz;

    double value(MarsFeature feature) const {
        switch (feature) {
            case MarsFeature::corr_0:
                return corr_0;
            case MarsFeature::corr_m1:
                return corr_m1;
            case MarsFeature::corr_m2:
                return corr_m2;
            case MarsFeature::cos_0_1:
                return cos_0_1;
            case MarsFeature::cos_m1_0:
                return cos_m1_0;
            case MarsFeature::cluster_fraction:
                return cluster_fraction;
            case MarsFeature::isotope_run:
                return isotope_run;
            case MarsFeature::isotopes_in_window:
                return isotopes_in_window;
            case MarsFeature::window_share:
                return window_share;
            case MarsFeature::mz_spread_ppm:
                return mz_spread_ppm;
            case MarsFeature::mass_z:
                return charge * mz;
            case MarsFeature::charge:
                return charge;
        }
        return 0.0;
    }
};

inline constexpr std::array<FeatureVector, 3> kVectors{{
    {0.9, 0.8, 0.7, 0.9, 0.2, 0.8, 3, 4, 0.6, 1.5, 2, 800.0},
    {0.99, 0.97, 0.96, 0.995, 0.1, 0.95, 4, 5, 0.9, 0.4, 2, 700.0},
    {0.2, 0.1, 0.0, 0.1, 0.95, 0.3, 1, 2, 0.1, 12.0, 4, 400.0},
}};

// Expected scores of one member on the three vectors, and how close they must be.
struct MemberCase {
    const char* name;
    const MarsMember* member;
    std::array<double, 3> scores;
    double tolerance;
};

inline const std::array<MemberCase, 7> kMemberCases{{
    {"MarsModel0",
     &g_mars_model0,
     {-0.10248148353057229, 0.7768713751942816, -2.962197146957754},
     1e-12},
    {"MarsModel1", &g_mars_model1, {-0.2509814447, 0.7652780227, -2.3020050271}, 1e-10},
    {"MarsModel2", &g_mars_model2, {-0.1405494177, 0.7174437493, -1.8898481601}, 1e-10},
    {"MarsModel3", &g_mars_model3, {-0.2559201130, 0.9205840758, -2.4412877112}, 1e-10},
    {"MarsModel4",
     &g_mars_model4,
     {-0.17426662002765664, 0.9914409641179912, -2.164652798356612},
     1e-12},
    {"MarsModel5", &g_mars_model5, {-0.6917031920, -0.2459237881, -1.0350333736}, 1e-10},
    {"MarsModel250", &g_mars_model250, {-0.1465948166, 0.8161643312, -2.1565374744}, 1e-10},
}};

}  // namespace ksieve::test
