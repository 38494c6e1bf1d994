// The PSI-MS terms the companion sorts: every dissociation method and the
// supplemental-activation terms, and every mass analyzer type, each with the
// family it belongs to by the vocabulary's is-a relations. The table is
// generated at build time from the vocabulary compiled into ProteoWizard
// (vocabulary_gen.cpp), so reading a file costs no vocabulary start-up.
#pragma once

#include <cstddef>
#include <string_view>

namespace ksieve::spexor {

enum class TermKind {
    kCollision,              // collision-induced dissociation and its kinds, low-energy CID
    kBeamType,               // beam-type CID (HCD) and its kinds
    kElectronTransfer,       // ETD and its kinds
    kEThcD,                  // the combined term
    kSupplementalCollision,  // supplemental (trap-type) CID
    kSupplementalBeamType,   // supplemental beam-type CID
    kSupplementalEnergy,     // supplemental collision energy, no type
    kOtherMethod,            // any other dissociation method
    kFourierTransform,       // Orbitrap and FT-ICR analyzers
    kTimeOfFlight,
    kIonTrap,
};

struct VocabularyTerm {
    const char* accession;  // "MS:1000133"
    TermKind kind;
    const char* short_name;  // the shortest one-word synonym, else the name with '_' for blanks
};

// The term of `accession`; nullptr when it is none of the sorted ones.
const VocabularyTerm* find_term(std::string_view accession);

}  // namespace ksieve::spexor
