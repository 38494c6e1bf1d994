#include <cstdio>
#include <string>
#include <utility>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// Five precursor triples in the header, however many a row has. The misspelt
// column name is what readers of the table look for.
constexpr const char* kCsvHeader =
    "ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, TotleNumOfPrecursor, "
    "PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, "
    "Charge, PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge\n";

}  // namespace

// The table is written under a temporary name: <path> on disk is the mark of a
// finished input, so it may appear only when every other output is complete.
void open_csv_file(CsvFile& file, std::string path, std::string mode) {
    open_table_file(file, std::move(path), std::move(mode), kCsvHeader);
}

void open_table_file(CsvFile& file, std::string path, std::string mode, const char* header) {
    file.m_head.m_scan_count = 0;
    file.m_unfinished_path = path + "_unfinished";
    file.m_head.m_path = std::move(path);
    file.m_head.m_mode = std::move(mode);
    file.m_head.m_stream = open_file(file.m_unfinished_path, file.m_head.m_mode, "");
    check_written(std::fputs(header, file.m_head.m_stream) >= 0, file.m_unfinished_path);
}

// Every field is followed by ", ", the last one too. Precursors are numbered
// from 1 here, while MGF titles count them from 0.
void format_csv_row(std::string& row, const MS2Spectrum& scan) {
    const bool declared = !scan.m_instrument_precursors.empty();
    const double declared_mz = declared ? scan.m_instrument_precursors.front().m_mz : -1.0;
    const int32_t declared_charge = declared ? scan.m_instrument_precursors.front().m_charge : -1;
    row.clear();
    append_format(row, "%s, %s, %d, %.6f, %d, %d, ", scan.m_activation_type.c_str(),
                  scan.m_instrument_type.c_str(), scan.m_scan, declared_mz, declared_charge,
                  static_cast<int>(scan.m_precursors.size()));
    int number = 1;
    for (const Precursor& precursor : scan.m_precursors) {
        append_format(row, "%d, %.6f, %d, ", number++, precursor.m_mz, precursor.m_charge);
    }
    row += '\n';
}

void write_csv_text(CsvFile& file, const std::string& row) {
    ++file.m_head.m_scan_count;
    check_written(std::fwrite(row.data(), 1, row.size(), file.m_head.m_stream) == row.size(),
                  file.m_unfinished_path);
}

// An older table of the same name stays readable until the new one is complete.
void finish_csv_file(CsvFile& file) {
    // The table must be whole on disk before it may take its final name.
    if (file.m_head.m_stream != nullptr) {
        check_written(std::fflush(file.m_head.m_stream) == 0, file.m_unfinished_path);
    }
    finish_spectrum_file(file.m_head);
    delete_file(file.m_head.m_path);
    if (file_exists(file.m_unfinished_path) &&
        std::rename(file.m_unfinished_path.c_str(), file.m_head.m_path.c_str()) != 0) {
        throw "Cannot rename file: " + file.m_unfinished_path;
    }
}

}  // namespace ksieve
