#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "detection.h"
#include "isopattern.h"

namespace ksieve {
namespace {

// The m/z of the ion `steps` isotope steps heavier than `ion`, at `charge`.
double mz_of(const Precursor& ion, int steps, int charge) {
    const double mass = (ion.m_mz - kProtonMass) * ion.m_charge + steps * kIsotopeSpacing;
    return mass / charge + kProtonMass;
}

// How the declared ion shows in a written one: the same ion, another isotope
// of it, the same ion at another charge, or something else.
TEST(DeclaredIsotopeShift, TellsTheDeclaredIonFromOthers) {
    const Precursor written{700.5, 2};
    EXPECT_EQ(DeclaredIsotopeShift(written, written, 10), 0);
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, 1, 2), 2}, written, 10), 1);
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, -2, 2), 2}, written, 10), -2);
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, 0, 3), 3}, written, 10), 0);
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, 2, 3), 3}, written, 10), 2);
    // Below the mono-isotopic peak at another charge is no reading of the ion.
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, -1, 3), 3}, written, 10), std::nullopt);
    EXPECT_EQ(DeclaredIsotopeShift({mz_of(written, 4, 2), 2}, written, 10), std::nullopt);
    // Half a step off, or beyond the tolerance, or of the other polarity.
    EXPECT_EQ(DeclaredIsotopeShift({written.m_mz + 0.25, 2}, written, 10), std::nullopt);
    EXPECT_EQ(DeclaredIsotopeShift({written.m_mz * (1 + 15e-6), 2}, written, 10), std::nullopt);
    EXPECT_EQ(DeclaredIsotopeShift({written.m_mz * (1 + 5e-6), 2}, written, 10), 0);
    EXPECT_EQ(DeclaredIsotopeShift({700.5, -2}, written, 10), std::nullopt);
}

TEST(AppendUnconfirmedDeclared, OnlyTheDeclaredIonsNoWrittenOneShows) {
    PrecursorEvidence detected;
    detected.m_origin = PrecursorOrigin::kDetected;
    const std::vector<Precursor> found = {{700.5, 2, detected}, {650.0, 3, detected}};
    const Precursor shifted{mz_of(found[0], 1, 2), 2};
    const Precursor other_charge{mz_of(found[1], 1, 2), 2};
    const Precursor unrelated{812.4, 2};
    std::vector<Precursor> written = found;
    AppendUnconfirmedDeclared(written, {shifted, other_charge, unrelated, unrelated}, 10);
    // Each unrelated declared precursor goes behind the detected ones, in
    // declared order: they are compared with detection only, not with each other.
    ASSERT_EQ(written.size(), 4u);
    for (std::size_t i = 2; i < 4; ++i) {
        EXPECT_EQ(written[i].m_mz, unrelated.m_mz);
        EXPECT_EQ(written[i].m_evidence.m_origin, PrecursorOrigin::kDeclaredKept);
    }
    written = found;
    AppendUnconfirmedDeclared(written, {shifted}, 10);
    EXPECT_EQ(written.size(), found.size());
}

// An isolation window of 699.5 to 701.5 holding an ion of 1000 + 500 (its third
// isotope, 250, lies outside), two peaks of 400 and 100 beside it and a lone
// peak of 250.
PeakList window_peaks(const Precursor& ion, double scale) {
    PeakList peaks = {{699.8, 250 * scale},
                      {ion.m_mz, 1000 * scale},
                      {IsotopePosition(ion, 1), 500 * scale},
                      {IsotopePosition(ion, 2), 250 * scale},
                      {700.9, 400 * scale},
                      {701.233, 100 * scale}};
    std::sort(peaks.begin(), peaks.end(), peak_less);
    return peaks;
}

TEST(IsolationPurity, EnvelopeShareOfTheWindowInterpolatedToTheMs2) {
    const Precursor ion{700.8, 2};
    const PeakList parent = window_peaks(ion, 1.0);
    const double low = 699.5;
    const double high = 701.5;
    const double total = 250 + 1000 + 500 + 400 + 100;
    EXPECT_DOUBLE_EQ(EnvelopeIntensityIn(parent, ion, 10, low, high), 1500);
    EXPECT_DOUBLE_EQ(EnvelopeIntensityIn(parent, ion, 10, -HUGE_VAL, HUGE_VAL), 1750);
    EXPECT_DOUBLE_EQ(WindowPurity(parent, ion, 10, low, high), 1500 / total);
    EXPECT_DOUBLE_EQ(EnvelopeIntensityIn(parent, ion, 10, low, 701.0), 1000);
    EXPECT_EQ(WindowPurity({}, ion, 10, low, high), 0.0);

    // The next scan holds only the ion: purity rises to 1 there.
    Ms1Slices slices(10);
    slices[4] = parent;
    slices[5] = {{ion.m_mz, 10}, {IsotopePosition(ion, 1), 5}};
    MS2Spectrum scan;
    scan.m_activation_center = 700.5;
    scan.m_retention_time = 10.25;
    scan.m_instrument_precursors = {{ion.m_mz, 2}};
    PrecursorEvidence detected;
    detected.m_origin = PrecursorOrigin::kDetected;
    scan.m_precursors = {{ion.m_mz, 2, detected}, {900.1, 2, detected}};
    EvidenceInput input{&slices, SliceTimes{10.0, 11.0}, 10, 2.0};
    FillEvidence(scan, input);
    const PrecursorEvidence& first = scan.m_precursors[0].m_evidence;
    EXPECT_EQ(first.m_origin, PrecursorOrigin::kDeclaredConfirmed);
    EXPECT_DOUBLE_EQ(first.m_intensity, 1750);
    EXPECT_NEAR(first.m_purity, 0.75 * 1500 / total + 0.25, 1e-12);
    EXPECT_EQ(scan.m_precursors[1].m_evidence.m_origin, PrecursorOrigin::kCoeluted);
    EXPECT_EQ(scan.m_precursors[1].m_evidence.m_purity, 0.0);
    // Without a next scan the parent's reading stands.
    input.m_times = SliceTimes{10.0, std::nullopt};
    FillEvidence(scan, input);
    EXPECT_DOUBLE_EQ(scan.m_precursors[0].m_evidence.m_purity, 1500 / total);
}

}  // namespace
}  // namespace ksieve
