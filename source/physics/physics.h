// The physical constants of the program and its tools, in Da: one value for each
// idea, with why it is the value it is. Header only, no I/O, so that every
// layer and every tool may use it.
#pragma once

namespace ksieve {

// The proton's mass as kSieve converts between a precursor's m/z, its singly
// protonated mass and its neutral mass: as IPV.txt is keyed, as the `.ms2` Z
// lines are written by the companion and the simulator and read back. Six
// decimals, the digits every output has always been computed with.
inline constexpr double kProtonMass = 1.007276;

// The proton's mass to full precision, for the tools that build ions from
// atoms (peptide m/z in the simulator, averagine masses): their ions are meant
// to be what an instrument measures, not what kSieve's six decimals round to.
inline constexpr double kExactProtonMass = 1.007276466621;

// The spacing of neighbouring isotope peaks that detection's envelopes and the
// precursor evidence step by: the 13C-12C difference, as kSieve has always
// rounded it.
inline constexpr double kIsotopeSpacing = 1.003;

// Mean spacing of neighbouring isotope peaks of a peptide, which the second
// look at detected precursors steps by: heavier isotopes of N, O, S and H pull
// the average below the 13C-12C difference.
inline constexpr double kPeptideIsotopeSpacing = 1.00286;

}  // namespace ksieve
