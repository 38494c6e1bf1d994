#include <algorithm>
#include <numbers>
#include <stdexcept>

#include "chemistry.h"
#include "run_model.h"

namespace ksieve::sim {

namespace {

// Chromatographic peak widths: a median sigma of 4 s (a full width at half
// maximum near 9 s), never beyond 12 s, and a profile cut at four sigmas.
constexpr double kMedianSigma = 4.0;
constexpr double kMaxSigma = 12.0;
constexpr double kProfileSigmas = 4.0;

// Charge states of tryptic peptides: mostly 2+ and 3+.
constexpr std::array<double, kMaxCharge + 1> kChargeWeights = {0.0, 0.0, 0.5, 0.32, 0.13, 0.05};

// Isotope peaks weaker than this share of the strongest are not simulated.
constexpr double kMinIsotopeShare = 1e-3;

// Fragments outside the fragment scan range are not recorded, and about one in
// five is too weak to be seen in any scan of the peptide.
constexpr double kFragmentDropout = 0.2;

uint64_t splitmix64(uint64_t& state) {
    uint64_t z = (state += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
}

uint64_t rotate_left(uint64_t x, int k) {
    return (x << k) | (x >> (64 - k));
}

int draw_charge(const std::vector<int>& charges, Rng& rng) {
    double total = 0.0;
    for (int charge : charges) {
        total += kChargeWeights[charge];
    }
    double draw = rng.uniform() * total;
    for (int charge : charges) {
        draw -= kChargeWeights[charge];
        if (draw < 0.0) {
            return charge;
        }
    }
    return charges.back();
}

void add_fragments(const std::vector<double>& mzs, double weight, Rng& rng,
                   std::vector<Fragment>& fragments) {
    for (double mz : mzs) {
        const double intensity = weight * rng.lognormal(1.0, 0.8);
        if (mz >= kMs2LowMz && mz <= kMs2HighMz && !rng.chance(kFragmentDropout)) {
            fragments.push_back({mz, intensity});
        }
    }
}

// b and y ions at 1+, and at 2+ for precursors of 3+ and above. Collisions in
// the HCD cell favour y ions more than resonant CID does.
std::vector<Fragment> make_fragments(const std::string& sequence, int charge, Activation activation,
                                     Rng& rng) {
    std::vector<Fragment> fragments;
    const double y_weight = activation == Activation::kHcd ? 1.5 : 1.0;
    for (int fragment_charge = 1; fragment_charge <= std::min(2, charge - 1); ++fragment_charge) {
        const double charge_weight = fragment_charge == 1 ? 1.0 : 0.4;
        add_fragments(chem::b_ion_mz(sequence, fragment_charge), charge_weight, rng, fragments);
        add_fragments(chem::y_ion_mz(sequence, fragment_charge), charge_weight * y_weight, rng,
                      fragments);
    }
    double total = 0.0;
    for (const Fragment& fragment : fragments) {
        total += fragment.m_weight;
    }
    for (Fragment& fragment : fragments) {
        fragment.m_weight /= total;
    }
    return fragments;
}

}  // namespace

Rng::Rng(uint64_t seed) {
    uint64_t state = seed;
    for (uint64_t& word : m_state) {
        word = splitmix64(state);
    }
}

uint64_t Rng::next() {
    const uint64_t result = rotate_left(m_state[1] * 5, 7) * 9;
    const uint64_t t = m_state[1] << 17;
    m_state[2] ^= m_state[0];
    m_state[3] ^= m_state[1];
    m_state[1] ^= m_state[2];
    m_state[0] ^= m_state[3];
    m_state[2] ^= t;
    m_state[3] = rotate_left(m_state[3], 45);
    return result;
}

double Rng::normal() {
    const double radius = std::sqrt(-2.0 * std::log(1.0 - uniform()));
    return radius * std::cos(2.0 * std::numbers::pi * uniform());
}

int Feature::strongest_peak() const {
    int strongest = -1;
    for (int k = 0; k < m_peak_count; ++k) {
        if (m_scan_intensity[k] > 0.0 &&
            (strongest < 0 || m_scan_intensity[k] > m_scan_intensity[strongest])) {
            strongest = k;
        }
    }
    return strongest;
}

ElutionModel::ElutionModel(std::vector<Peptide> peptides, const SimulatorOptions& options, Rng& rng)
    : m_peptides(std::move(peptides)), m_options(options), m_rng(rng) {
    if (m_peptides.empty()) {
        throw std::runtime_error("the FASTA file gives no peptide that the survey scan can see");
    }
    m_order.resize(m_peptides.size());
    for (size_t i = 0; i < m_order.size(); ++i) {
        m_order[i] = static_cast<int32_t>(i);
    }
    m_cursor = m_order.size();  // shuffled at the first draw
    // The column is already running when the first scan is taken.
    m_next_apex = -kProfileSigmas * kMaxSigma + m_rng.exponential(1.0 / m_options.m_feature_rate);
}

const Peptide& ElutionModel::next_peptide() {
    if (m_cursor == m_order.size()) {
        for (size_t i = m_order.size() - 1; i > 0; --i) {
            const auto j = static_cast<size_t>(m_rng.uniform() * static_cast<double>(i + 1));
            std::swap(m_order[i], m_order[j]);
        }
        m_cursor = 0;
    }
    return m_peptides[m_order[m_cursor++]];
}

Feature ElutionModel::make_feature(double apex) {
    const Peptide& peptide = next_peptide();
    Feature feature;
    feature.m_id = m_next_id++;
    feature.m_peptide = static_cast<int32_t>(&peptide - m_peptides.data());
    feature.m_charge = draw_charge(peptide.m_charges, m_rng);
    feature.m_apex = apex;
    feature.m_sigma = std::clamp(m_rng.lognormal(kMedianSigma, 0.3), 1.5, kMaxSigma);
    feature.m_abundance = std::pow(10.0, 6.0 + 0.7 * m_rng.normal());
    const std::vector<chem::IsotopePeak> pattern =
        chem::isotope_pattern(chem::peptide_formula(peptide.m_sequence), kClusterPeaks);
    double strongest = 0.0;
    for (const chem::IsotopePeak& peak : pattern) {
        strongest = std::max(strongest, peak.m_abundance);
    }
    double total = 0.0;
    for (const chem::IsotopePeak& peak : pattern) {
        if (peak.m_abundance < kMinIsotopeShare * strongest) {
            break;
        }
        feature.m_mz[feature.m_peak_count] = chem::mz_from_neutral(peak.m_mass, feature.m_charge);
        feature.m_share[feature.m_peak_count++] = peak.m_abundance;
        total += peak.m_abundance;
    }
    for (int k = 0; k < feature.m_peak_count; ++k) {
        feature.m_share[k] /= total;
    }
    feature.m_fragments =
        make_fragments(peptide.m_sequence, feature.m_charge, m_options.m_activation, m_rng);
    // Drawn last, and only with FAIMS, so that runs without it keep their bytes.
    if (m_options.m_faims_cvs > 0) {
        feature.m_cv = static_cast<int>(m_rng.uniform() * m_options.m_faims_cvs);
    }
    return feature;
}

void ElutionModel::advance(double seconds) {
    std::erase_if(m_active, [seconds](const Feature& feature) {
        return feature.m_apex + kProfileSigmas * feature.m_sigma < seconds;
    });
    while (m_next_apex - kProfileSigmas * kMaxSigma <= seconds) {
        m_active.push_back(make_feature(m_next_apex));
        m_next_apex += m_rng.exponential(1.0 / m_options.m_feature_rate);
    }
}

}  // namespace ksieve::sim
