// Temporary: candidate generation and scoring are being built. Until they land,
// detection finds nothing, so every scan keeps its declared precursors, exactly as
// the pipeline does whenever detection finds nothing.
#include "detection.h"

namespace ksieve {

std::vector<Precursor> DetectPrecursors(const UserParameters&, const Ms1Store&,
                                        const MS2Spectrum&) {
    return {};
}

}  // namespace ksieve
