// The precursor evidence table: one row per written precursor, so that a
// search result joins its evidence by the MGF title alone.
#include <string>
#include <utility>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr const char* kEvidenceHeader =
    "scan\tnative_id\trt_seconds\ttitle\trank\tmz\tcharge\torigin\tscore\tintensity\tpurity\t"
    "isotope_shift\tvalidation\n";

// A native id comes from the input as it stands: nothing in it may end a field
// or a row.
void append_field_text(std::string& row, const std::string& text) {
    for (const char c : text) {
        row += (c == '\t' || c == '\n' || c == '\r') ? ' ' : c;
    }
}

}  // namespace

const char* precursor_origin_name(PrecursorOrigin origin) {
    switch (origin) {
        case PrecursorOrigin::kDeclaredKept:
            return "declared_kept";
        case PrecursorOrigin::kDeclaredConfirmed:
            return "declared_confirmed";
        case PrecursorOrigin::kCorrected:
            return "corrected";
        case PrecursorOrigin::kDetected:
            return "detected";
        case PrecursorOrigin::kCoeluted:
            return "coeluted";
    }
    return "";
}

void open_evidence_table(CsvFile& file, std::string path, std::string mode) {
    open_table_file(file, std::move(path), std::move(mode), kEvidenceHeader);
}

void format_evidence_rows(std::string& rows, const std::string& stem, const MS2Spectrum& scan) {
    rows.clear();
    for (std::size_t i = 0; i < scan.m_precursors.size(); ++i) {
        const Precursor& precursor = scan.m_precursors[i];
        const PrecursorEvidence& evidence = precursor.m_evidence;
        append_format(rows, "%d\t", scan.m_scan);
        append_field_text(rows, scan.m_native_id);
        append_format(rows, "\t%.7f\t", scan.m_retention_time * 60.0);
        append_mgf_title(rows, stem, scan, i);
        append_format(rows, "\t%d\t%f\t%d\t%s\t", static_cast<int>(i + 1), precursor.m_mz,
                      precursor.m_charge, precursor_origin_name(evidence.m_origin));
        if (evidence.m_scored) {
            append_format(rows, "%.6f", evidence.m_score);
        }
        append_format(rows, "\t%.1f\t%.4f\t", evidence.m_intensity, evidence.m_purity);
        if (evidence.m_same_ion) {
            append_format(rows, "%d", evidence.m_isotope_shift);
        }
        rows += '\t';
        rows += evidence.m_validation;
        rows += '\n';
    }
}

}  // namespace ksieve
