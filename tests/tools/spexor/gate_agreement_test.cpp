// The companion's account of scans kSieve will skip against kSieve itself: each
// scan the companion writes is read back by kSieve's own reader, and the
// companion's verdict must be the gate's on what kSieve reads.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scangate.h"
#include "spectrumfiles.h"
#include "spexor.h"
#include "test_support.h"

namespace ksieve::spexor {
namespace {

TEST(SpexorGate, TheCompanionCountsExactlyTheScansKSieveSkips) {
    // The words the companion writes: the five of its own families, the short
    // names of other methods, the word of a scan naming none, and spellings
    // that only look alike.
    std::vector<std::string> words(kGatedActivationTypes.begin(), kGatedActivationTypes.end());
    for (const char* other : {"PQD", "ECD", "IRMPD", "UVPD", "EThcD", "cid", ""}) {
        words.emplace_back(other);
    }
    const std::vector<std::string> instruments = {"FTMS", "ITMS"};
    std::string text;
    std::vector<bool> companion;
    int number = 0;
    for (const std::string& word : words) {
        for (const std::string& instrument : instruments) {
            ScanRecord scan;
            scan.number = ++number;
            scan.instrument_type = instrument;
            scan.activation_type = word;
            scan.activation_center = 500.0;
            scan.precursor_scan = 1;
            scan.precursors = {{500.0, 2}};
            scan.peaks = {{200.0, 1.0}};
            append_ms2_scan(text, scan, Options{3, 5, "", ""});
            companion.push_back(gate_processes(word, instrument));
        }
    }
    const test::TempDir dir;
    test::write_file(dir.file("run.ms2"), text);
    LineFile file;
    open_spectrum_file(file.m_head, dir.file("run.ms2"), "r");
    std::size_t i = 0;
    for (MS2Spectrum read; ReadMs2Scan(file, read); read = MS2Spectrum{}, ++i) {
        ASSERT_LT(i, companion.size());
        const std::string& word = words[i / instruments.size()];
        EXPECT_EQ(read.m_activation_type, word) << read.m_scan;
        EXPECT_EQ(companion[i], gate_passes(read.m_activation_type, read.m_instrument_type))
            << "'" << word << "' in " << instruments[i % instruments.size()];
    }
    EXPECT_EQ(i, companion.size());
    release_spectrum_file(file.m_head);
}

}  // namespace
}  // namespace ksieve::spexor
