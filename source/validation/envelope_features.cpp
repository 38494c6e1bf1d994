// The evidence on one precursor: its isotope envelope summed over the ten MS1
// slices and compared with the expected pattern under several readings, the
// signal between its isotope peaks, and the elution profiles of its isotopes.
#include <algorithm>
#include <cmath>

#include "validation.h"

namespace ksieve {

namespace {

constexpr double kSpacing = kPeptideIsotopeSpacing;
constexpr std::size_t kSlices = 10;
// Envelope positions looked at: three below the mono-isotopic peak (one below the
// lowest alternative mono-isotopic peak) to four above.
constexpr int kLowest = -3;
constexpr int kHighest = 4;
constexpr std::size_t kPositions = kHighest - kLowest + 1;

using Profile = std::array<double, kSlices>;

// The intensity at `mz` in every slice.
Profile profile_at(const ValidationInput& input, double mz) {
    Profile profile{};
    const Ms1Slices& slices = *input.m_slices;
    for (std::size_t s = 0; s < kSlices && s < slices.size(); ++s) {
        profile[s] = MostIntenseInWindow(slices[s], mz, input.tolerance());
    }
    return profile;
}

// The profiles of isotope positions 0 .. N-1 of `p`.
template <std::size_t N>
std::array<Profile, N> isotope_profiles(const ValidationInput& input, const Precursor& p) {
    std::array<Profile, N> profiles{};
    const double step = kSpacing / p.m_charge;
    for (std::size_t k = 0; k < N; ++k) {
        profiles[k] = profile_at(input, p.m_mz + static_cast<double>(k) * step);
    }
    return profiles;
}

double total(const Profile& profile) {
    double sum = 0.0;
    for (double value : profile) {
        sum += value;
    }
    return sum;
}

using Envelope = std::array<double, kPositions>;

std::size_t cell(int k) {
    return static_cast<std::size_t>(k - kLowest);
}

// Summed intensity at isotope positions from .. to, in spacings (the others stay
// 0), and with `between` also half a spacing above each of them up to `to` - 1.
Envelope envelope(const ValidationInput& input, double mz, int charge, int from, int to,
                  Envelope* between = nullptr) {
    Envelope sums{};
    const Ms1Slices& slices = *input.m_slices;
    const double step = kSpacing / charge;
    for (std::size_t s = 0; s < kSlices && s < slices.size(); ++s) {
        for (int k = from; k <= to; ++k) {
            sums[cell(k)] += MostIntenseInWindow(slices[s], mz + k * step, input.tolerance());
            if (between != nullptr && k >= 0 && k < to) {
                (*between)[cell(k)] +=
                    MostIntenseInWindow(slices[s], mz + (k + 0.5) * step, input.tolerance());
            }
        }
    }
    return sums;
}

const std::array<double, 5>* table_row(const IsotopeTable& table, double mz, int charge) {
    const double mass = charge * mz - charge * kProtonMass + kProtonMass;
    if (!(mass > 0.0) || mass >= static_cast<double>(table.size())) {
        return nullptr;
    }
    return &table[static_cast<std::size_t>(mass)];
}

// Cosine between the observed cells from one below a mono-isotopic peak `shift`
// isotopes from the reported one to four above it, and the expected pattern with
// a zero in front: signal below the mono lowers it. 0 without an expected
// pattern or without signal. `observed` must hold positions shift - 1 .. shift + 4.
double cells_fit(const Envelope& observed, int shift, const std::array<double, 5>* row) {
    if (row == nullptr) {
        return 0.0;
    }
    double dot = 0.0;
    double seen = 0.0;
    double expected = 0.0;
    for (int k = -1; k <= 4; ++k) {
        const double o = observed[cell(shift + k)];
        const double e = k < 0 ? 0.0 : (*row)[static_cast<std::size_t>(k)];
        dot += o * e;
        seen += o * o;
        expected += e * e;
    }
    return seen > 0.0 && expected > 0.0 ? dot / std::sqrt(seen * expected) : 0.0;
}

// The fits at the other charges read the cells k / c spacings from the reported
// m/z, for c from 1 to kMaxCharge and k from -1 to 4; many coincide (2/4 is 1/2),
// so each distinct offset is summed once.
constexpr int kMaxCharge = 6;

struct Fraction {
    int m_num = 0;
    int m_den = 1;
};

constexpr bool below(Fraction a, Fraction b) {
    return a.m_num * b.m_den < b.m_num * a.m_den;
}

constexpr bool same(Fraction a, Fraction b) {
    return a.m_num * b.m_den == b.m_num * a.m_den;
}

// The distinct offsets in ascending order, and for each charge and k the
// index of its offset.
struct ChargeCells {
    std::array<Fraction, 36> m_offsets{};
    std::size_t m_count = 0;
    std::array<std::array<std::size_t, 6>, kMaxCharge + 1> m_index{};
};

constexpr ChargeCells make_charge_cells() {
    ChargeCells cells;
    for (int c = 1; c <= kMaxCharge; ++c) {
        for (int k = -1; k <= 4; ++k) {
            const Fraction f{k, c};
            std::size_t at = 0;
            while (at < cells.m_count && below(cells.m_offsets[at], f)) {
                ++at;
            }
            if (at == cells.m_count || !same(cells.m_offsets[at], f)) {
                for (std::size_t i = cells.m_count; i > at; --i) {
                    cells.m_offsets[i] = cells.m_offsets[i - 1];
                }
                cells.m_offsets[at] = f;
                ++cells.m_count;
            }
        }
    }
    for (int c = 1; c <= kMaxCharge; ++c) {
        for (int k = -1; k <= 4; ++k) {
            std::size_t at = 0;
            while (!same(cells.m_offsets[at], Fraction{k, c})) {
                ++at;
            }
            cells.m_index[static_cast<std::size_t>(c)][static_cast<std::size_t>(k + 1)] = at;
        }
    }
    return cells;
}

constexpr ChargeCells kChargeCells = make_charge_cells();

// The best fit at a charge other than `z`, with the mono-isotopic peak at `mz`.
double best_other_charge_fit(const ValidationInput& input, double mz, int z) {
    std::array<double, 36> sums{};
    const Ms1Slices& slices = *input.m_slices;
    const auto position = [mz](Fraction f) { return mz + f.m_num * kSpacing / f.m_den; };
    for (std::size_t s = 0; s < kSlices && s < slices.size(); ++s) {
        for (std::size_t i = 0; i < kChargeCells.m_count; ++i) {
            sums[i] += MostIntenseInWindow(slices[s], position(kChargeCells.m_offsets[i]),
                                           input.tolerance());
        }
    }
    double best = 0.0;
    for (int c = 1; c <= kMaxCharge; ++c) {
        if (c == z) {
            continue;
        }
        Envelope cells{};
        for (int k = -1; k <= 4; ++k) {
            cells[cell(k)] =
                sums[kChargeCells
                         .m_index[static_cast<std::size_t>(c)][static_cast<std::size_t>(k + 1)]];
        }
        best = std::max(best, cells_fit(cells, 0, table_row(*input.m_table, mz, c)));
    }
    return best;
}

double pearson(const Profile& a, const Profile& b) {
    const double mean_a = total(a) / kSlices;
    const double mean_b = total(b) / kSlices;
    double ab = 0.0;
    double aa = 0.0;
    double bb = 0.0;
    for (std::size_t s = 0; s < kSlices; ++s) {
        ab += (a[s] - mean_a) * (b[s] - mean_b);
        aa += (a[s] - mean_a) * (a[s] - mean_a);
        bb += (b[s] - mean_b) * (b[s] - mean_b);
    }
    return aa > 0.0 && bb > 0.0 ? ab / std::sqrt(aa * bb) : 0.0;
}

// Mean correlation of the mono-isotopic profile with those of isotopes 1 and 2;
// -1 when the mono-isotopic peak is seen nowhere.
double elution_correlation(const ValidationInput& input, const Precursor& p) {
    const std::array<Profile, 3> isotopes = isotope_profiles<3>(input, p);
    if (total(isotopes[0]) <= 0.0) {
        return -1.0;
    }
    return 0.5 * (pearson(isotopes[0], isotopes[1]) + pearson(isotopes[0], isotopes[2]));
}

}  // namespace

double MeasuredMz(const ValidationInput& input, double mz) {
    return WeightedMzInWindows(*input.m_slices, mz, input.tolerance());
}

double EnvelopeIntensity(const ValidationInput& input, const Precursor& precursor) {
    return total(EnvelopeProfile(input, precursor));
}

std::array<double, 10> EnvelopeProfile(const ValidationInput& input, const Precursor& precursor) {
    Profile sum{};
    if (precursor.m_charge < 1) {
        return sum;
    }
    for (const Profile& one : isotope_profiles<4>(input, precursor)) {
        for (std::size_t s = 0; s < kSlices; ++s) {
            sum[s] += one[s];
        }
    }
    return sum;
}

double UnexplainedShare(const ValidationInput& input, const Precursor& strong,
                        const Precursor& weak) {
    const double seen = total(profile_at(input, weak.m_mz));
    const std::array<double, 5>* row = table_row(*input.m_table, strong.m_mz, strong.m_charge);
    if (seen <= 0.0 || row == nullptr || strong.m_charge < 1) {
        return seen > 0.0 ? 1.0 : 0.0;
    }
    // The strong reading's pattern scaled as high as its first three peaks allow:
    // another ion on one of them cannot inflate it.
    const Envelope observed = envelope(input, strong.m_mz, strong.m_charge, 0, 2);
    double scale = -1.0;
    for (std::size_t k = 0; k < 3; ++k) {
        if ((*row)[k] > 0.0) {
            const double allowed = observed[cell(static_cast<int>(k))] / (*row)[k];
            scale = scale < 0.0 ? allowed : std::min(scale, allowed);
        }
    }
    const double apex = std::max(scale, 0.0) * *std::max_element(row->begin(), row->end());
    if (apex <= 0.0) {
        return 1.0;
    }
    // What the pattern puts where the weak reading has its mono-isotopic peak:
    // nothing off its isotope positions.
    const double step = kSpacing / strong.m_charge;
    const long offset = std::lround((weak.m_mz - strong.m_mz) / step);
    const double tolerance = input.tolerance().at(weak.m_mz);
    const bool on_peak =
        offset >= 0 && offset < 5 && std::abs(weak.m_mz - strong.m_mz - offset * step) < tolerance;
    const double expected =
        on_peak ? std::max(scale, 0.0) * (*row)[static_cast<std::size_t>(offset)] : 0.0;
    return std::clamp((seen - expected) / apex, 0.0, 1.0);
}

double ProfileCorrelation(const std::array<double, 10>& a, const std::array<double, 10>& b) {
    return pearson(a, b);
}

ValidationFeatures ComputeValidationFeatures(const ValidationInput& input,
                                             const Precursor& precursor, std::size_t rank,
                                             double scan_max) {
    const double mz = precursor.m_mz;
    const int z = std::max(1, precursor.m_charge);
    const IsotopeTable& table = *input.m_table;
    Envelope halves{};
    const Envelope whole = envelope(input, mz, z, kLowest, kHighest, &halves);
    const double fit = cells_fit(whole, 0, table_row(table, mz, z));
    const double other = best_other_charge_fit(input, mz, z);
    double on = 0.0;
    double between = 0.0;
    double strongest = 0.0;
    for (int k = 0; k < 4; ++k) {
        on += whole[cell(k)];
        between += halves[cell(k)];
        strongest = std::max(strongest, whole[cell(k)]);
    }
    const double mono = whole[cell(0)];
    return {
        .m_fit = fit,
        .m_one_lower = cells_fit(whole, -1, table_row(table, mz - kSpacing / z, z)) - fit,
        .m_two_lower = cells_fit(whole, -2, table_row(table, mz - 2 * kSpacing / z, z)) - fit,
        .m_other_charge = other - fit,
        .m_between = on > 0.0 ? std::min(2.0, between / on) : 0.0,
        .m_elution = elution_correlation(input, precursor),
        .m_below = mono > 0.0 ? std::min(3.0, whole[cell(-1)] / mono) : 3.0,
        .m_intensity =
            on > 0.0 && scan_max > 0.0 ? std::max(-4.0, std::log10(on / scan_max)) : -4.0,
        .m_first = rank == 0 ? 1.0 : 0.0,
        .m_rank = std::log1p(static_cast<double>(rank)),
        .m_mono_share = strongest > 0.0 ? mono / strongest : 0.0,
    };
}

double Support(const ValidationModel& model, const ValidationFeatures& features) {
    double sum = model.m_bias;
    for (const ValidationFeatureField& field : kValidationFeatureFields) {
        sum += model.m_weights.*field.m_member * features.*field.m_member;
    }
    return 1.0 / (1.0 + std::exp(-sum));
}

}  // namespace ksieve
