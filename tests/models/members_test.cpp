// The member tables evaluated over plain feature values: known scores, the
// features each member asks for, and sane knots.
#include <gtest/gtest.h>

#include <bitset>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "feature_vectors.h"
#include "models.h"

namespace ksieve::test {
namespace {

using Features = std::bitset<kMarsFeatureCount>;

Features set_of(std::initializer_list<MarsFeature> features) {
    Features set;
    for (MarsFeature feature : features) {
        set.set(static_cast<size_t>(feature));
    }
    return set;
}

TEST(MarsMembers, ReproduceKnownScoresOfTheThreeVectors) {
    for (const MemberCase& member_case : kMemberCases) {
        for (size_t v = 0; v < kVectors.size(); ++v) {
            const double score = EvaluateMember(
                *member_case.member, [&](MarsFeature f) { return kVectors[v].value(f); });
            EXPECT_NEAR(score, member_case.scores[v], member_case.tolerance)
                << member_case.name << ", vector " << v;
        }
    }
}

TEST(MarsMembers, AskForExactlyTheirOwnFeatures) {
    using enum MarsFeature;
    const Features model0 = set_of({charge, corr_0, cos_0_1, cluster_fraction, cos_m1_0,
                                    isotopes_in_window, isotope_run, mass_z, window_share});
    const Features model1 = set_of({corr_0, cos_0_1, cluster_fraction, cos_m1_0, isotopes_in_window,
                                    isotope_run, mass_z, window_share});
    const Features model2 = set_of({cluster_fraction, cos_m1_0, window_share, corr_0});
    const Features model3 = set_of(
        {charge, corr_0, mz_spread_ppm, cos_0_1, cluster_fraction, cos_m1_0, mass_z, window_share});
    const Features model4 = set_of({charge, corr_0, cos_0_1, cluster_fraction, cos_m1_0, mass_z,
                                    window_share, corr_m1, corr_m2});
    const Features model5 =
        set_of({corr_0, cos_0_1, cluster_fraction, cos_m1_0, mass_z, window_share});
    const std::pair<const MarsMember*, Features> expected[] = {
        {&g_mars_model0, model0},  {&g_mars_model1, model1}, {&g_mars_model2, model2},
        {&g_mars_model3, model3},  {&g_mars_model4, model4}, {&g_mars_model5, model5},
        {&g_mars_model250, model3}};
    for (size_t m = 0; m < std::size(expected); ++m) {
        Features asked;
        EvaluateMember(*expected[m].first, [&](MarsFeature f) {
            asked.set(static_cast<size_t>(f));
            return 0.5;
        });
        EXPECT_EQ(asked, expected[m].second) << kMemberCases[m].name;
    }
}

TEST(MarsMembers, EveryKnotTripleIsOrdered) {
    for (const MemberCase& member_case : kMemberCases) {
        for (const MarsTerm& term : member_case.member->terms) {
            EXPECT_LT(term.a, term.t) << member_case.name << " coefficient " << term.coefficient;
            EXPECT_LT(term.t, term.b) << member_case.name << " coefficient " << term.coefficient;
        }
    }
}

}  // namespace
}  // namespace ksieve::test
