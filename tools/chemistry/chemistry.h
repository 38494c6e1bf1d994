// Isotope chemistry for the development tools: element isotopes, elemental
// formulas, isotope patterns aggregated to nominal isotope peaks, the averagine
// model, peptide compositions and b/y fragment ions.
//
// Masses are in daltons (unified atomic mass units), neutral unless a function
// says m/z. Nothing here does I/O or keeps state; every function is pure.
#pragma once

#include <array>
#include <string_view>
#include <vector>

#include "physics.h"

namespace ksieve::chem {

// The elements of peptides, in the order of Formula::m_count.
enum Element : int { kCarbon, kHydrogen, kNitrogen, kOxygen, kSulfur, kElementCount };

// Atom counts by element. Counts are real numbers so that an averagine
// composition can describe a molecule of any mass; a count below 0 means nothing.
struct Formula {
    std::array<double, kElementCount> m_count{};

    Formula& operator+=(const Formula& other);
    friend Formula operator+(Formula left, const Formula& right) { return left += right; }
    friend Formula operator*(Formula formula, double factor);
    friend bool operator==(const Formula&, const Formula&) = default;
};

// "C", "H", "N", "O", "S".
const char* element_symbol(Element element);

// Sum of counts times the lightest isotope's mass, the mass of the all-light
// isotopologue.
double monoisotopic_mass(const Formula& formula);
// Sum of counts times the abundance-weighted mean mass of the element.
double average_mass(const Formula& formula);

// One nominal isotope peak: all isotopologues with the same number of extra
// neutrons (13C, 2H, 15N, 17O count 1; 18O, 34S count 2; 36S counts 4).
struct IsotopePeak {
    double m_mass = 0.0;       // abundance-weighted mean neutral mass; 0 when the peak is empty
    double m_abundance = 0.0;  // share of all molecules, in [0, 1]
};

// The first `count` nominal isotope peaks of `formula`, mono-isotopic first. The
// element polynomials are raised to the (possibly fractional) atom counts and
// multiplied, all truncated to `count` terms, which is exact for the kept terms.
// Abundances are not renormalised: they are shares of all molecules, so they sum
// to 1 only when every populated peak is kept. A count of 0 or less gives {}.
std::vector<IsotopePeak> isotope_pattern(const Formula& formula, int count);

// The averagine residue of Senko, Beu and McLafferty (1995):
// C4.9384 H7.7583 N1.3577 O1.4773 S0.0417, 111.1254 Da average mass.
Formula averagine_unit();
// The averagine composition whose monoisotopic mass is `neutral_mass`: the unit
// scaled by neutral_mass over the unit's monoisotopic mass (the mass that an
// isotope cluster's first peak shows). A mass of 0 or less gives no atoms.
Formula averagine(double neutral_mass);

// True for the twenty standard amino-acid letters (upper case).
bool is_standard_residue(char letter);
// The residue (amino acid less water) of a standard letter; unmodified cysteine
// and methionine. Throws std::invalid_argument for any other letter.
Formula residue_formula(char letter);
double residue_mass(char letter);
// Residues plus one water: the neutral peptide. Throws std::invalid_argument when
// a letter is not standard or the sequence is empty.
Formula peptide_formula(std::string_view sequence);

// m/z of a neutral mass carrying `charge` protons; charge must be at least 1.
double mz_from_neutral(double neutral_mass, int charge);

// Fragment ion m/z at `charge` (at least 1) for a sequence of standard letters
// (std::invalid_argument otherwise): b_i holds the first i residues, y_i the last
// i residues plus water. Both lists run i = 1 .. length - 1, in order of i.
std::vector<double> b_ion_mz(std::string_view sequence, int charge);
std::vector<double> y_ion_mz(std::string_view sequence, int charge);

}  // namespace ksieve::chem
