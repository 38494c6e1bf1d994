#include <gtest/gtest.h>

#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "encoding.h"
#include "mzml_writer.h"
#include "test_support.h"

namespace ksieve {
namespace {

std::string sha1_text(const std::string& text) {
    Sha1 sha1;
    sha1.update(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    return sha1.hex_digest();
}

// Text from hostile input (ids, paths, parameter values) reaches the file
// escaped, and the index, the count and the checksum describe the file exactly.
// The header must name the form the ids really have, or readers that parse
// scan numbers out of them (OpenMS, msconvert) mis-read every reference.
TEST(MzmlWriter, NamesTheNativeIdFormatTheIdsFollow) {
    const auto accession = [](const std::string& id) { return native_id_format(id).first; };
    EXPECT_EQ(accession(""), "MS:1000776");
    EXPECT_EQ(accession("scan=17"), "MS:1000776");
    EXPECT_EQ(accession("controllerType=0 controllerNumber=1 scan=17"), "MS:1000768");
    EXPECT_EQ(accession("spectrum=17"), "MS:1000777");
    for (const char* other : {"scan=", "scan=17x", "spectrum=a",
                              "controllerType=0 scan=", "index=3", "merged=2 frame=5"}) {
        EXPECT_EQ(accession(other), "MS:1000824") << other;
    }
}

TEST(MzmlWriter, IndexCountAndChecksumDescribeTheFileWithHostileTextEscaped) {
    const test::TempDir dir;
    const std::string path = dir.file("run.ksieve.mzML");
    const std::vector<Peak> peaks = {{100.5, 10.0}, {200.25, 20.0}};
    MzmlRunInfo info;
    info.m_run_id = "1 run&co";
    info.m_software_version = "9.9";
    info.m_sources = {{"in<dir>/a\"b.ms1", std::string(40, 'a')}};
    info.m_keys = {{"datapath", "x'<&>\x01"}};
    MzmlSpectrum ms1;
    ms1.m_scan = 1;
    ms1.m_retention_seconds = 6.0;
    ms1.m_peaks = peaks;
    MzmlSpectrum ms2 = ms1;
    ms2.m_native_id = "id=\"2\"&<x>";
    ms2.m_scan = 2;
    ms2.m_ms_level = 2;
    ms2.m_parent_scan = 1;
    ms2.m_activation = "ETHCD";
    ms2.m_isolation_target = 500.0;
    ms2.m_isolation_lower = 1.0;
    ms2.m_isolation_upper = 1.0;
    ms2.m_precursors = {{499.75, 2, 1000.0, MzmlEvidence{500.0, "detected <&>", 0.5, 0.9}},
                        {300.5, 3, {}, {}}};
    {
        const test::CaptureStream out(std::cout);
        MzmlFile file;
        open_mzml_file(file, path, info);
        std::string text;
        for (const MzmlSpectrum* spectrum : {&ms1, &ms2}) {
            format_mzml_spectrum(text, *spectrum, info.m_options, file.m_scratch);
            write_mzml_spectrum(file, mzml_spectrum_id(spectrum->m_native_id, spectrum->m_scan),
                                text);
        }
        EXPECT_TRUE(std::filesystem::exists(path + "_unfinished"));
        EXPECT_FALSE(std::filesystem::exists(path));
        finish_mzml_file(file);
    }
    EXPECT_FALSE(std::filesystem::exists(path + "_unfinished"));
    const std::string xml = test::read_file(path);

    // Every offset points at its spectrum; the index offset at the index.
    const std::regex offset_entry("<offset idRef=\"([^\"]*)\">([0-9]+)</offset>");
    int entries = 0;
    for (auto it = std::sregex_iterator(xml.begin(), xml.end(), offset_entry);
         it != std::sregex_iterator(); ++it, ++entries) {
        const std::string at = xml.substr(std::stoul((*it)[2]), 100);
        EXPECT_EQ(at.rfind("<spectrum index=\"" + std::to_string(entries) + "\" id=\"" +
                               (*it)[1].str() + "\"",
                           0),
                  0U)
            << at;
    }
    EXPECT_EQ(entries, 2);
    std::smatch match;
    ASSERT_TRUE(std::regex_search(xml, match, std::regex("<indexListOffset>([0-9]+)<")));
    EXPECT_EQ(xml.substr(std::stoul(match[1]), 10), "<indexList");
    EXPECT_NE(xml.find("<spectrumList count=\"2\" "), std::string::npos);

    const std::string mark = "<fileChecksum>";
    const std::size_t end = xml.find(mark) + mark.size();
    EXPECT_EQ(xml.substr(end, 40), sha1_text(xml.substr(0, end)));

    for (const char* escaped :
         {"id=\"id=&quot;2&quot;&amp;&lt;x&gt;\"", "value=\"x&apos;&lt;&amp;&gt;?\"",
          "name=\"a&quot;b.ms1\" location=\"file://in&lt;dir&gt;\"", "<run id=\"run_1_run_co\"",
          "name=\"kSieve origin\" type=\"xsd:string\" value=\"detected &lt;&amp;&gt;\"",
          "spectrumRef=\"scan=1\"",
          "name=\"kSieve declared m/z\" type=\"xsd:double\" value=\"500\"",
          "name=\"electron transfer dissociation\"", "name=\"beam-type collision-induced"}) {
        EXPECT_NE(xml.find(escaped), std::string::npos) << escaped;
    }
    // Two precursors, the evidence only on the first; no term kept behind its key.
    EXPECT_NE(xml.find("<precursorList count=\"2\">"), std::string::npos);
    EXPECT_EQ(xml.find("kSieve purity"), xml.rfind("kSieve purity"));
    EXPECT_EQ(xml.find("MS:1003208"), std::string::npos);
    EXPECT_EQ(xml.find('\x01'), std::string::npos);
}

// The header of a file of uncompressed survey scans, so that it runs to mebibytes.
MzmlRunInfo survey_info() {
    MzmlRunInfo info;
    info.m_run_id = "run";
    info.m_software_version = "9.9";
    info.m_options.m_compress = false;
    return info;
}

// Writes `count` survey scans of 4000 peaks each and returns the file's text.
std::string write_survey_scans(const std::string& path, const MzmlRunInfo& info, int count) {
    MzmlSpectrum scan;
    std::vector<Peak> list;
    for (int i = 0; i < 4000; ++i) {
        list.push_back({300.0 + i * 0.013, 1000.0 + i});
    }
    scan.m_peaks = list;
    const test::CaptureStream out(std::cout);
    MzmlFile file;
    open_mzml_file(file, path, info);
    std::string text;
    for (int i = 1; i <= count; ++i) {
        scan.m_scan = i;
        scan.m_retention_seconds = i;
        format_mzml_spectrum(text, scan, info.m_options, file.m_scratch);
        write_mzml_spectrum(file, mzml_spectrum_id("", i), text);
    }
    finish_mzml_file(file);
    return test::read_file(path);
}

// The writer may read the input pair itself, for the digests its header names
// and for the spectrum count it foretells (one spectrum per scan line), while
// the first spectra are made, so that the checksum is made as the bytes go
// out. A right guess, one too high and one too low must each give the file
// written with the digests given, over mebibytes of writes, with a checksum of
// what the file really holds; the longer input lies past the hashing buffer,
// the shorter not.
TEST(MzmlWriter, DigestsTheInputPairAndForetellsTheCountAsItWrites) {
    const test::TempDir dir;
    const int count = 90;
    for (const int ms2_scans : {30, 31, 29}) {
        std::string ms1;
        for (int scan = 1; scan <= 60; ++scan) {
            ms1 += "S\t" + std::to_string(scan) + "\n" + std::string(30000, '1') + "\n";
        }
        std::string ms2 = "H\tSeries\n";
        for (int scan = 1; scan <= ms2_scans; ++scan) {
            ms2 += "S\t" + std::to_string(scan) + "\nZ\t2\t1000.5\n100 5\n";
        }
        test::write_file(dir.file("in.ms1"), ms1);
        test::write_file(dir.file("in.ms2"), ms2);
        MzmlRunInfo given = survey_info();
        given.m_sources = {{dir.file("in.ms1"), sha1_text(ms1)},
                           {dir.file("in.ms2"), sha1_text(ms2)}};
        const std::string reference = write_survey_scans(dir.file("a.mzML"), given, count);
        ASSERT_GT(reference.size(), std::size_t{5} << 20);
        EXPECT_NE(reference.find("<spectrumList count=\"90\" "), std::string::npos);
        const std::string mark = "<fileChecksum>";
        const std::size_t end = reference.find(mark) + mark.size();
        EXPECT_EQ(reference.substr(end, 40), sha1_text(reference.substr(0, end)));
        MzmlRunInfo digested = survey_info();
        digested.m_sources = {{dir.file("in.ms1"), ""}, {dir.file("in.ms2"), ""}};
        digested.m_digest_sources = true;
        // Compared whole, not printed: the file runs to mebibytes.
        EXPECT_TRUE(write_survey_scans(dir.file("b.mzML"), digested, count) == reference)
            << ms2_scans << " MS2 scans";
    }
}

}  // namespace
}  // namespace ksieve
