// MGF input: a peak list carries no MS1 signal, so its precursors cannot be
// determined again. The spectra are only converted to one <stem>.ks2 file with
// the precursors that the file declares.
#include <optional>
#include <string>

#include "basicprocesslogic.h"
#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

constexpr int32_t kProgressStep = 1000;

void convert_spectra(MgfFile& input, KsFile* ks2) {
    MS2Spectrum scan;
    while (ReadMgfScan(input, scan)) {
        if (ks2 != nullptr) {
            write_ks2_record(*ks2, scan);
        }
        const int32_t count = input.m_head.m_scan_count;
        if (count % kProgressStep == 0) {
            log_info("Extracting MS2, Scan Num = " + std::to_string(count));
        }
        scan = MS2Spectrum{};
    }
}

}  // namespace

void process_mgf_file(const UserParameters& params, const FileContext& file) {
    // The marker looked for is <stem>.mgf, which this flow never writes. With the
    // output beside the input it is the input itself, so such a file only runs
    // with rewrite_files set.
    if (has_existing_result(params, file, ".mgf", "...")) {
        return;
    }
    log("WARN",
        "We DO NOT RECOMMAND you to use [MGF] as input!! kSieve cannot utilize MS1 Message.");
    MgfFile input;
    open_spectrum_file(input.m_head, file.m_path, "r");
    std::optional<KsFile> ks2;
    try {
        if (params.m_output_ks) {
            ks2.emplace();
            open_ks_file(*ks2, output_path(file, ".ks2"), "wb+", file.m_stem);
        }
        convert_spectra(input, ks2 ? &*ks2 : nullptr);
        report_dropped_values(input.m_head.m_path, input.m_dropped);
        finish_spectrum_file(input.m_head);
        release_spectrum_file(input.m_head);
        if (ks2) {
            finalize_ks_file(*ks2);
            finish_spectrum_file(ks2->m_head);
            release_spectrum_file(ks2->m_head);
        }
    } catch (...) {
        // A short file must not pass for a converted one, whether a write or
        // the input (a title that cannot be read) ended it.
        if (ks2) {
            discard_file(output_path(file, ".ks2"));
            discard_file(output_path(file, ".ks2idx"));
        }
        throw;
    }
}

}  // namespace ksieve
