#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <string>

#include "spectrumfiles.h"
#include "test_support.h"

namespace ksieve {
namespace {

TEST(SpectrumStreams, OpeningAndClosingAreLogged) {
    test::TempDir dir;
    const std::string path = dir.file("a.ms1");
    test::write_file(path, "S\t1\t1\n");
    test::CaptureStream out(std::cout);
    LineFile file;
    open_spectrum_file(file.m_head, path, "r");
    file.m_head.m_scan_count = 3;
    finish_spectrum_file(file.m_head);
    release_spectrum_file(file.m_head);  // after finishing: silent
    EXPECT_EQ(out.text(), "[kSieve] <INFO> - Start to process " + path +
                              "\n[kSieve] <INFO> - Closed " + path +
                              "\n[kSieve] <INFO> - Finished Operations on " + path +
                              "\n[kSieve] <INFO> - Scan Number in " + path + ": 3\n");
}

// The table is the resume mark of an input: <path> must not appear, nor an old
// one go, before the end; a rename that fails names the unfinished file.
TEST(CsvProtocol, TheTableTakesItsFinalNameOnlyWhenFinished) {
    test::TempDir dir;
    const std::string path = dir.file("run.csv");
    test::write_file(path, "old table\n");
    CsvFile table;
    open_csv_file(table, path, "w+");
    write_csv_row(table, MS2Spectrum{});
    std::fflush(table.m_head.m_stream);
    EXPECT_EQ(test::read_file(path), "old table\n");
    test::CaptureStream out(std::cout);
    finish_csv_file(table);
    EXPECT_FALSE(std::filesystem::exists(path + "_unfinished"));
    EXPECT_EQ(test::read_file(path),
              "ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, TotleNumOfPrecursor, "
              "PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge, "
              "PrecursorIdentifier, MZ, Charge, PrecursorIdentifier, MZ, Charge, "
              "PrecursorIdentifier, MZ, Charge\n, , 0, -1.000000, -1, 0, \n");
    // The count line names the final path and counts the rows.
    EXPECT_NE(out.text().find("Scan Number in " + path + ": 1\n"), std::string::npos);

    std::filesystem::remove(path);
    std::filesystem::create_directories(path + "/occupied");  // no file can replace it
    CsvFile blocked;
    open_csv_file(blocked, path, "w+");
    std::string thrown;
    try {
        finish_csv_file(blocked);
    } catch (const std::string& message) {
        thrown = message;
    }
    EXPECT_EQ(thrown, "Cannot rename file: " + path + "_unfinished");
    EXPECT_TRUE(std::filesystem::exists(path + "_unfinished"));
}

}  // namespace
}  // namespace ksieve
