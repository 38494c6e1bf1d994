// The scoring models: fixed multivariate adaptive regression splines that turn
// the features of one candidate precursor into a score.
//
// Each member is an intercept plus a sum of one-dimensional hinge terms whose
// corner is smoothed by a cubic; there are no products of terms and no link
// function. A higher score means a more believable precursor; the score is not a
// probability and has no fixed range. The coefficients are constants of the
// program: nothing is read from a file or trained at run time.
//
// Nothing here fails: every term is defined for every finite feature value, and
// every knot triple has lower < centre < upper.
#pragma once

#include <cstdint>
#include <span>

namespace ksieve {

class FeaturesExtractor;
struct UserParameters;

// The candidate features a model can read. Integer features (isotope counts,
// charge) are handed to the terms as doubles.
enum class MarsFeature : uint8_t {
    corr_0,
    corr_m1,
    corr_m2,
    cos_0_1,
    cos_m1_0,
    cluster_fraction,
    isotope_run,
    isotopes_in_window,
    window_share,
    mz_spread_ppm,
    mass_z,  // charge times m/z; no proton is subtracted
    charge,
};
inline constexpr int kMarsFeatureCount = 12;

// Right: 0 up to the lower knot, x - t from the upper knot on.
// Left: t - x up to the lower knot, 0 from the upper knot on.
enum class MarsSide : uint8_t { right, left };

struct MarsTerm {
    MarsFeature feature;
    MarsSide side;
    double a;  // lower knot: the cubic stretch begins
    double t;  // centre knot, a < t < b
    double b;  // upper knot: the cubic stretch ends
    double coefficient;
};

struct MarsMember {
    double intercept;
    std::span<const MarsTerm> terms;
};

// The smoothed hinges. Value and slope are continuous at a and at b, and for one
// knot triple RightTerm - LeftTerm == x - t everywhere. Require a < b.
double RightTerm(double x, double a, double t, double b);
double LeftTerm(double x, double a, double t, double b);
double TermValue(const MarsTerm& term, double x);

// The seven members as data.
extern const MarsMember g_mars_model0;
extern const MarsMember g_mars_model1;
extern const MarsMember g_mars_model2;
extern const MarsMember g_mars_model3;
extern const MarsMember g_mars_model4;
extern const MarsMember g_mars_model5;
extern const MarsMember g_mars_model250;

// The score of `member`: its intercept plus coefficient times term value for each
// term, in table order. `feature_value(MarsFeature)` returns a feature's value; it
// is asked once per term, so only the features the member reads are requested.
template <typename FeatureSource>
double EvaluateMember(const MarsMember& member, FeatureSource&& feature_value) {
    double score = member.intercept;
    for (const MarsTerm& term : member.terms) {
        score += term.coefficient * TermValue(term, feature_value(term.feature));
    }
    return score;
}

// One feature of a candidate through the evaluator's caches: a feature is
// computed on first demand and costs nothing afterwards.
double ReadMarsFeature(FeaturesExtractor& features, MarsFeature feature);

// The members applied to a candidate; each reads only the features it uses.
double MarsModel0(FeaturesExtractor& features);
double MarsModel1(FeaturesExtractor& features);
double MarsModel2(FeaturesExtractor& features);
double MarsModel3(FeaturesExtractor& features);
double MarsModel4(FeaturesExtractor& features);
double MarsModel5(FeaturesExtractor& features);
double MarsModel250(FeaturesExtractor& features);

// The score of the member that params.m_mars_model selects: 1, 2, 3, 5 and 250
// their own member; 4 and 1024 MarsModel4; 15 the greater of MarsModel250 and
// MarsModel5 (MarsModel250 evaluated first, taken only when strictly greater);
// 0 and every other value MarsModel0. Any integer is accepted.
double ScoreCandidate(const UserParameters& params, FeaturesExtractor& features);

}  // namespace ksieve
