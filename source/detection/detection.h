// Precursor detection: from one MS2 scan and the MS1 window around it to the
// precursors that the MS1 signal supports, co-eluted ones included.
//
// No file I/O and no options beyond the UserParameters given. Detection raises
// nothing: a scan it cannot explain gives the empty vector, on which the pipeline
// keeps the instrument's declared precursors.
#pragma once

#include <vector>

#include "records.h"
#include "userparameters.h"

namespace ksieve {

// The detected precursors of `ms2`, best model score first; each has the m/z
// recalibrated over the ten MS1 slices and a charge from 2 to 6. Empty when
// nothing passes. Requires the isotope table to be loaded.
std::vector<Precursor> DetectPrecursors(const UserParameters& params, const Ms1Store& store,
                                        const MS2Spectrum& ms2);

}  // namespace ksieve
