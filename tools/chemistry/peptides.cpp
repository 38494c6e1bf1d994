#include <stdexcept>
#include <string>

#include "chemistry.h"

namespace ksieve::chem {

namespace {

// Residue compositions (amino acid less water) as C, H, N, O, S counts, indexed
// by letter - 'A'; letters that name no standard amino acid are all -1.
constexpr std::array<std::array<int, kElementCount>, 26> kResidues = {{
    {3, 5, 1, 1, 0},       // A alanine
    {-1, -1, -1, -1, -1},  // B
    {3, 5, 1, 1, 1},       // C cysteine
    {4, 5, 1, 3, 0},       // D aspartic acid
    {5, 7, 1, 3, 0},       // E glutamic acid
    {9, 9, 1, 1, 0},       // F phenylalanine
    {2, 3, 1, 1, 0},       // G glycine
    {6, 7, 3, 1, 0},       // H histidine
    {6, 11, 1, 1, 0},      // I isoleucine
    {-1, -1, -1, -1, -1},  // J
    {6, 12, 2, 1, 0},      // K lysine
    {6, 11, 1, 1, 0},      // L leucine
    {5, 9, 1, 1, 1},       // M methionine
    {4, 6, 2, 2, 0},       // N asparagine
    {-1, -1, -1, -1, -1},  // O
    {5, 7, 1, 1, 0},       // P proline
    {5, 8, 2, 2, 0},       // Q glutamine
    {6, 12, 4, 1, 0},      // R arginine
    {3, 5, 1, 2, 0},       // S serine
    {4, 7, 1, 2, 0},       // T threonine
    {-1, -1, -1, -1, -1},  // U
    {5, 9, 1, 1, 0},       // V valine
    {11, 10, 2, 1, 0},     // W tryptophan
    {-1, -1, -1, -1, -1},  // X
    {9, 9, 1, 2, 0},       // Y tyrosine
    {-1, -1, -1, -1, -1},  // Z
}};

const Formula kWater{{0.0, 2.0, 0.0, 1.0, 0.0}};

void require_standard(char letter) {
    if (!is_standard_residue(letter)) {
        throw std::invalid_argument(std::string("not a standard amino acid: '") + letter + "'");
    }
}

// The neutral residue masses of the sequence's letters, checked.
std::vector<double> residue_masses(std::string_view sequence) {
    std::vector<double> masses;
    masses.reserve(sequence.size());
    for (char letter : sequence) {
        masses.push_back(residue_mass(letter));
    }
    return masses;
}

void require_charge(int charge) {
    if (charge < 1) {
        throw std::invalid_argument("a fragment ion needs a charge of at least 1");
    }
}

}  // namespace

bool is_standard_residue(char letter) {
    return letter >= 'A' && letter <= 'Z' && kResidues[letter - 'A'][0] >= 0;
}

Formula residue_formula(char letter) {
    require_standard(letter);
    Formula formula;
    for (int e = 0; e < kElementCount; ++e) {
        formula.m_count[e] = kResidues[letter - 'A'][e];
    }
    return formula;
}

double residue_mass(char letter) {
    // Computed once per letter: the simulator asks for every fragment of every
    // peptide it elutes.
    static const std::array<double, 26> masses = [] {
        std::array<double, 26> table{};
        for (char code = 'A'; code <= 'Z'; ++code) {
            if (is_standard_residue(code)) {
                table[code - 'A'] = monoisotopic_mass(residue_formula(code));
            }
        }
        return table;
    }();
    require_standard(letter);
    return masses[letter - 'A'];
}

Formula peptide_formula(std::string_view sequence) {
    if (sequence.empty()) {
        throw std::invalid_argument("an empty sequence is no peptide");
    }
    Formula formula = kWater;
    for (char letter : sequence) {
        formula += residue_formula(letter);
    }
    return formula;
}

double mz_from_neutral(double neutral_mass, int charge) {
    return (neutral_mass + charge * kExactProtonMass) / charge;
}

std::vector<double> b_ion_mz(std::string_view sequence, int charge) {
    require_charge(charge);
    const std::vector<double> masses = residue_masses(sequence);
    std::vector<double> ions;
    double prefix = 0.0;
    for (size_t i = 0; i + 1 < masses.size(); ++i) {
        prefix += masses[i];
        ions.push_back(mz_from_neutral(prefix, charge));
    }
    return ions;
}

std::vector<double> y_ion_mz(std::string_view sequence, int charge) {
    require_charge(charge);
    const std::vector<double> masses = residue_masses(sequence);
    std::vector<double> ions;
    double suffix = monoisotopic_mass(kWater);
    for (size_t i = masses.size(); i > 1; --i) {
        suffix += masses[i - 1];
        ions.push_back(mz_from_neutral(suffix, charge));
    }
    return ions;
}

}  // namespace ksieve::chem
