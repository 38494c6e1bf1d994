// spexor_xml.exe and spexor_raw.exe on edited copies of a real run: the five
// HCD spectra of hcd_crop.mzML (a FAIMS Orbitrap cut) with their activation
// terms, levels, arrays or framing changed as each case says, and hostile
// variants that must be refused without a marker.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using ksieve::test::read_file;
using ksieve::test::write_file;

const std::string kHcd =
    R"(<cvParam cvRef="MS" accession="MS:1000422" name="beam-type collision-induced dissociation" />)";

const std::string kZlib =
    R"(<cvParam cvRef="MS" accession="MS:1000574" name="zlib compression" />)";

std::string sample_text() {
    return read_file(std::string(KSIEVE_TEST_DATA_DIR) + "/spexor/hcd_crop.mzML");
}

std::string replaced_all(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

std::string replaced_first(std::string text, const std::string& from, const std::string& to) {
    std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string term(const char* accession) {
    return std::string(R"(<cvParam cvRef="MS" accession=")") + accession + R"(" name="x" />)";
}

std::map<std::string, std::string> account_of(const std::string& text) {
    std::map<std::string, std::string> account;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::size_t tab = line.find('\t');
        if (tab != std::string::npos && line.find(' ') == std::string::npos) {
            account[line.substr(0, tab)] = line.substr(tab + 1);
        }
    }
    return account;
}

// Runs a companion in its own folder; `prefix` goes before the command.
struct CompanionRun {
    ksieve::test::TempDir dir;
    fs::path out = dir.path() / "out";
    std::string stdout_text, stderr_text;

    // Standard output goes to `stdout_path`, by default a file read afterwards.
    int exec(const std::string& program, const std::string& input, const std::string& prefix = "",
             std::string stdout_path = "") {
        if (stdout_path.empty()) {
            stdout_path = dir.file("stdout");
            write_file(stdout_path, "");
        }
        std::string command = prefix + "\"" + KSIEVE_RUN_DIR + "/" + program +
                              "\" -ms -a -i 1 -m 5 -o \"" + out.string() + "\" \"" + input +
                              "\" > \"" + stdout_path + "\" 2> \"" + dir.file("stderr") + "\"";
        int status =
            std::system(("/bin/bash -c '" + replaced_all(command, "'", "'\\''") + "'").c_str());
        stdout_text = fs::exists(dir.file("stdout")) ? read_file(dir.file("stdout")) : "";
        stderr_text = read_file(dir.file("stderr"));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // Writes `text` as `name` and converts it.
    int convert(const std::string& text, const std::string& name = "run.mzML") {
        write_file(dir.file(name), text);
        return exec("spexor_xml.exe", dir.file(name));
    }
    std::string ms2() const { return read_file(out / "run.ms2"); }
};

std::vector<std::string> activation_words(const std::string& ms2) {
    std::vector<std::string> words;
    std::istringstream lines(ms2);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("I\tActivationType\t", 0) == 0) {
            words.push_back(line.substr(17));
        }
    }
    return words;
}

TEST(SpexorEdits, EveryDissociationTermGetsAWord) {
    struct Case {
        std::string terms;
        const char* word;
        bool gate_skips;
    };
    const Case cases[] = {
        {term("MS:1000133"), "CID", false},    // collision-induced dissociation
        {term("MS:1002472"), "CID", false},    // trap-type CID
        {term("MS:1000433"), "CID", false},    // low-energy CID
        {kHcd, "HCD", false},                  // beam-type CID
        {term("MS:1002481"), "HCD", false},    // higher energy beam-type CID
        {term("MS:1000598"), "ETD", false},    // electron transfer dissociation
        {term("MS:1002631"), "ETHCD", false},  // EThcD
        {term("MS:1000598") + term("MS:1002678"), "ETHCD", false},  // + supplemental beam-type
        {term("MS:1000598") + term("MS:1002679"), "ETCID", false},  // + supplemental CID
        {term("MS:1000598") + kHcd, "ETHCD", false},
        {term("MS:1000598") + term("MS:1000133"), "ETCID", false},
        {term("MS:1000250"), "ECD", true},    // electron capture dissociation
        {term("MS:1000262"), "IRMPD", true},  // infrared multiphoton dissociation
        {term("MS:1000599"), "PQD", true},    // pulsed q dissociation
        {term("MS:1000435"), "MPD", true},    // photodissociation
        // No method at all: the run says Orbitrap only, so HCD is inferred.
        {"", "HCD", false},
    };
    const std::string sample = sample_text();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.terms);
        CompanionRun run;
        ASSERT_EQ(run.convert(replaced_all(sample, kHcd, c.terms)), 0) << run.stderr_text;
        EXPECT_EQ(activation_words(run.ms2()), std::vector<std::string>(5, c.word));
        auto account = account_of(run.stdout_text);
        EXPECT_EQ(account["ms2_written_" + std::string(c.word)], "5");
        EXPECT_EQ(account["ms2_gate_will_skip"], c.gate_skips ? "5" : "0");
        EXPECT_EQ(account["ms2_inferred_activation"], c.terms.empty() ? "5" : "0");
    }
}

// The nearest earlier scan that names its method lends it to one that does not.
TEST(SpexorEdits, AMissingMethodComesFromTheRun) {
    std::string text = replaced_all(sample_text(), kHcd, term("MS:1002631"));
    std::size_t second = text.find(term("MS:1002631"), text.find(term("MS:1002631")) + 1);
    text.replace(second, term("MS:1002631").size(), "");
    CompanionRun run;
    ASSERT_EQ(run.convert(text), 0) << run.stderr_text;
    EXPECT_EQ(activation_words(run.ms2()), std::vector<std::string>(5, "ETHCD"));
    EXPECT_EQ(account_of(run.stdout_text)["ms2_inferred_activation"], "1");
}

// The first spectrum (MS2, 378 points) with both arrays emptied.
std::string first_spectrum_without_peaks(std::string text) {
    text = replaced_first(text, R"(defaultArrayLength="378")", R"(defaultArrayLength="0")");
    std::size_t at = 0;
    for (int array = 0; array < 2; ++array) {
        at = text.find("<binary>", at) + 8;
        text.erase(at, text.find("</binary>", at) - at);
    }
    return text;
}

TEST(SpexorEdits, AccountAddsUpAndIsTheMarker) {
    const std::string sample = sample_text();
    struct Case {
        const char* what;
        std::string text;
        const char* ms2_read;
        const char* msn;
        const char* no_peaks;
    };
    const Case cases[] = {
        {"as is", sample, "5", "0", "0"},
        {"first MS2 spectrum made MS3",
         replaced_first(sample, R"(name="ms level" value="2" />)",
                        R"(name="ms level" value="3" />)"),
         "4", "1", "0"},
        {"first MS2 spectrum without peaks", first_spectrum_without_peaks(sample), "5", "0", "1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CompanionRun run;
        ASSERT_EQ(run.convert(c.text), 0) << run.stderr_text;
        auto account = account_of(run.stdout_text);
        EXPECT_EQ(account["ms2_read"], c.ms2_read);
        EXPECT_EQ(account["msn_not_written"], c.msn);
        EXPECT_EQ(account["ms2_not_written_no_peaks"], c.no_peaks);
        EXPECT_EQ(
            std::stoi(account["ms2_written"]) + std::stoi(account["ms2_not_written_no_peaks"]),
            std::stoi(account["ms2_read"]));
        EXPECT_EQ(account["faims_cv_values"], "3");
        EXPECT_EQ(account_of(read_file(run.out / "run.spexor")), account);
        EXPECT_EQ(account.size(), 10u);  // nine fixed keys and ms2_written_HCD
    }
}

// The text between the first `open` and the end of the first `close` replaced.
std::string replaced_span(std::string text, const std::string& open, const std::string& close,
                          const std::string& by) {
    const std::size_t from = text.find(open);
    const std::size_t to = text.find(close, from);
    EXPECT_NE(to, std::string::npos) << open;
    return to == std::string::npos ? text : text.replace(from, to + close.size() - from, by);
}

// The lines of the first MS2 scan (scan 1662, isolation target 473.2353515625)
// between its ActivationCenter line and its first peak.
std::string first_ms2_tail(const std::string& ms2) {
    const std::size_t from = ms2.find("I\tActivationCenter\t");
    const std::size_t to = ms2.find("\n1", from);
    return from == std::string::npos || to == std::string::npos ? "" : ms2.substr(from, to - from);
}

// A scan whose precursor is an isolation window alone goes out as a selected
// ion without m/z does: charges 2 and 3 at the isolation target, after the
// ActivationCenter line that the zero mass stands for. Without a target either,
// it goes out without a precursor, and kSieve will skip it: both are counted.
TEST(SpexorEdits, AnIsolationTargetAloneStandsForThePrecursor) {
    const std::string sample = sample_text();
    const std::string window = "<isolationWindow>";
    const std::string target_lines = "I\tActivationCenter\t473.23535\nZ\t2\t0.00000\nZ\t3\t0.00000";
    struct Case {
        const char* what;
        std::string text;
        std::string tail;
        const char* target_only;
        const char* no_precursor;
    };
    const Case cases[] = {
        {"empty selected-ion list",
         replaced_span(sample, "<selectedIonList", "</selectedIonList>",
                       R"(<selectedIonList count="0"></selectedIonList>)"),
         target_lines, "1", ""},
        {"no selected-ion list",
         replaced_span(sample, "<selectedIonList", "</selectedIonList>", ""), target_lines, "1",
         ""},
        {"no selected ion and no isolation window",
         replaced_span(replaced_span(sample, "<selectedIonList", "</selectedIonList>", ""), window,
                       "</isolationWindow>", ""),
         "I\tActivationCenter\t0.00000", "", "1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CompanionRun run;
        ASSERT_EQ(run.convert(c.text), 0) << run.stderr_text;
        EXPECT_EQ(first_ms2_tail(run.ms2()), c.tail);
        auto account = account_of(run.stdout_text);
        EXPECT_EQ(account_of(read_file(run.out / "run.spexor")), account);
        EXPECT_EQ(account["ms2_written"], "5");
        EXPECT_EQ(account["ms2_isolation_target_only"], c.target_only);
        EXPECT_EQ(account["ms2_no_precursor"], c.no_precursor);
    }
}

// An mzXML scan whose precursorMz element is empty declares no precursor; it
// neither stops the conversion nor leaves the account.
TEST(SpexorEdits, AnEmptyMzxmlPrecursorIsAScanWithoutADeclaredPrecursor) {
    const std::string sample =
        read_file(std::string(KSIEVE_TEST_DATA_DIR) + "/spexor/velos_cid_crop.mzXML");
    const std::string emptied =
        replaced_first(sample, R"(activationMethod="CID" >738.369689941406</precursorMz>)",
                       R"(activationMethod="CID" > </precursorMz>)");
    CompanionRun whole, run;
    ASSERT_EQ(whole.convert(sample, "run.mzXML"), 0) << whole.stderr_text;
    ASSERT_EQ(run.convert(emptied, "run.mzXML"), 0) << run.stderr_text;
    auto account = account_of(run.stdout_text);
    EXPECT_EQ(account["ms2_no_precursor"], "1");
    EXPECT_EQ(account["ms2_written"], account["ms2_read"]);
    EXPECT_EQ(account["ms2_written"], account_of(whole.stdout_text)["ms2_written"]);
    const auto z_lines = [](const std::string& ms2) {
        std::size_t count = 0;
        for (std::size_t at = ms2.find("\nZ\t"); at != std::string::npos;
             at = ms2.find("\nZ\t", at + 1)) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(z_lines(run.ms2()) + 1, z_lines(whole.ms2()));
}

TEST(SpexorEdits, HostileFilesAreRefusedWithoutAMarker) {
    const std::string sample = sample_text();
    const std::size_t root = sample.find("<indexedmzML");
    const std::string binary = "<binary>";
    const std::size_t data = sample.find(binary) + binary.size();
    struct Case {
        const char* what;
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"external entity",
         sample.substr(0, root) + "<!DOCTYPE x [<!ENTITY peaks SYSTEM \"/etc/passwd\">]>\n" +
             sample.substr(root),
         "document type"},
        {"entity expansion",
         sample.substr(0, root) +
             "<!DOCTYPE x [<!ENTITY a \"aaaaaaaaaa\"><!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;\">]>\n" +
             sample.substr(root),
         "document type"},
        {"truncated", sample.substr(0, sample.size() / 2), "not well-formed XML"},
        {"bad base64", sample.substr(0, data) + "*" + sample.substr(data + 1), "bad base64"},
        {"bad compression", sample.substr(0, data) + "AAAA" + sample.substr(data + 4),
         "bad zlib compression"},
        {"unequal arrays",
         replaced_first(sample, R"(defaultArrayLength="378")", R"(defaultArrayLength="377")"),
         "the 377 values it declares"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CompanionRun run;
        fs::create_directories(run.out);
        write_file(run.out / "run.spexor", "earlier run\n");
        EXPECT_EQ(run.convert(c.text), 1);
        EXPECT_NE(run.stderr_text.find(c.message), std::string::npos) << run.stderr_text;
        EXPECT_EQ(run.stderr_text.find("root:"), std::string::npos);
        for (const char* name : {"run.spexor", "run.ms1", "run.ms1.part", "run.ms2.part"}) {
            EXPECT_FALSE(fs::exists(run.out / name)) << name;
        }
    }
}

std::string base64_of(const std::string& bytes) {
    const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned group = static_cast<unsigned char>(bytes[i]) << 16;
        group |= i + 1 < bytes.size() ? static_cast<unsigned char>(bytes[i + 1]) << 8 : 0;
        group |= i + 2 < bytes.size() ? static_cast<unsigned char>(bytes[i + 2]) : 0;
        for (std::size_t k = 0; k < 4; ++k) {
            text += i + k <= bytes.size() ? alphabet[(group >> (18 - 6 * k)) & 63] : '=';
        }
    }
    return text;
}

std::string zlib_of(const std::string& bytes) {
    uLongf size = compressBound(static_cast<uLong>(bytes.size()));
    std::string packed(size, '\0');
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                        reinterpret_cast<const Bytef*>(bytes.data()),
                        static_cast<uLong>(bytes.size()), 9),
              Z_OK);
    packed.resize(size);
    return packed;
}

// The first spectrum's m/z array (378 values declared) stored as `terms` and
// `payload` instead.
std::string first_mz_array_as(const std::string& terms, const std::string& payload) {
    std::string text = replaced_first(sample_text(), kZlib, terms);
    const std::size_t from = text.find("<binary>") + 8;
    return text.replace(from, text.find("</binary>", from) - from, base64_of(payload));
}

// Arrays that would swell far past their declared length are stopped there,
// within a memory limit that the whole swollen array would break.
TEST(SpexorEdits, BombsAndShortArraysAreRefusedByName) {
    const std::string bomb = zlib_of(std::string(std::size_t{256} << 20, '\0'));
    struct Case {
        const char* what;
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"zlib bomb", first_mz_array_as(kZlib, bomb),
         "inflates past the 3024 bytes that the 378 values it declares"},
        {"numpress bomb", first_mz_array_as(term("MS:1002746"), bomb),
         "inflates past the 1906 bytes that the 378 values it declares"},
        {"short numpress", first_mz_array_as(term("MS:1002312"), std::string(6, '\0')),
         "bytes of numpress data cannot hold the 378 values it declares"},
        {"numpress too short for its length",
         first_mz_array_as(term("MS:1002314"), std::string(12, '\1')),
         "bytes of numpress data cannot hold the 378 values it declares"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CompanionRun run;
        write_file(run.dir.file("run.mzML"), c.text);
        EXPECT_EQ(run.exec("spexor_xml.exe", run.dir.file("run.mzML"), "ulimit -v 400000; "), 1);
        EXPECT_NE(run.stderr_text.find(c.message), std::string::npos) << run.stderr_text;
        EXPECT_NE(run.stderr_text.find("spectrum controllerType=0 controllerNumber=1 scan=1662"),
                  std::string::npos)
            << run.stderr_text;
        EXPECT_NE(run.stderr_text.find("m/z array"), std::string::npos) << run.stderr_text;
        EXPECT_FALSE(fs::exists(run.out / "run.spexor"));
    }
}

TEST(SpexorEdits, WritesThatFailLeaveNoMarker) {
    CompanionRun run;
    write_file(run.dir.file("run.mzML"), sample_text());
    // Files may grow to 16 KiB only; the signal for it is ignored, so writes fail.
    EXPECT_EQ(run.exec("spexor_xml.exe", run.dir.file("run.mzML"), "trap '' XFSZ; ulimit -f 16; "),
              1);
    EXPECT_NE(run.stderr_text.find("cannot write"), std::string::npos) << run.stderr_text;
    EXPECT_FALSE(fs::exists(run.out / "run.spexor"));
    EXPECT_FALSE(fs::exists(run.out / "run.ms1.part"));
    // The account cannot be written on standard output: the marker goes again.
    EXPECT_EQ(run.exec("spexor_xml.exe", run.dir.file("run.mzML"), "", "/dev/full"), 1);
    EXPECT_NE(run.stderr_text.find("cannot write the account"), std::string::npos)
        << run.stderr_text;
    EXPECT_FALSE(fs::exists(run.out / "run.spexor"));
}

TEST(SpexorEdits, FileNamesAndCompression) {
    const std::string sample = sample_text();
    CompanionRun plain;
    ASSERT_EQ(plain.convert(sample), 0);
    // A Latin-1 name, not valid UTF-8.
    CompanionRun latin1;
    ASSERT_EQ(latin1.convert(sample, "r\xe9sum\xe9.mzML"), 0) << latin1.stderr_text;
    EXPECT_EQ(read_file(latin1.out / "r\xe9sum\xe9.ms2"),
              replaced_all(plain.ms2(), "SourceFile\trun.mzML", "SourceFile\tr\xe9sum\xe9.mzML"));
    EXPECT_TRUE(fs::exists(latin1.out / "r\xe9sum\xe9.spexor"));
    // Gzip-compressed: named by what it holds.
    CompanionRun gz;
    gzFile file = gzopen(gz.dir.file("run.mzML.gz").c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(gzwrite(file, sample.data(), static_cast<unsigned>(sample.size())),
              static_cast<int>(sample.size()));
    ASSERT_EQ(gzclose(file), Z_OK);
    ASSERT_EQ(gz.exec("spexor_xml.exe", gz.dir.file("run.mzML.gz")), 0) << gz.stderr_text;
    EXPECT_EQ(read_file(gz.out / "run.ms2"),
              replaced_all(plain.ms2(), "SourceFile\trun.mzML", "SourceFile\trun.mzML.gz"));
    // A truncated compressed file is refused.
    std::string whole = read_file(gz.dir.file("run.mzML.gz"));
    write_file(gz.dir.file("cut.mzML.gz"), whole.substr(0, whole.size() / 2));
    EXPECT_EQ(gz.exec("spexor_xml.exe", gz.dir.file("cut.mzML.gz")), 1);
    EXPECT_FALSE(fs::exists(gz.out / "cut.spexor"));
    // Cut before the check sum and length that end a gzip stream: the XML is
    // whole, but the file is not.
    write_file(gz.dir.file("trailer.mzML.gz"), whole.substr(0, whole.size() - 8));
    EXPECT_EQ(gz.exec("spexor_xml.exe", gz.dir.file("trailer.mzML.gz")), 1);
    EXPECT_NE(gz.stderr_text.find("gzip stream is cut short"), std::string::npos) << gz.stderr_text;
    EXPECT_FALSE(fs::exists(gz.out / "trailer.spexor"));
}

// A stand-in for ThermoRawFileParser that fails unless it gets exactly the
// arguments of the real one, and then writes the sample as <stem>.mzML.
TEST(SpexorEdits, RawFilesGoThroughTheParserOnPath) {
    CompanionRun run;
    const fs::path bin = run.dir.path() / "bin";
    const fs::path tmp = run.dir.path() / "tmp";
    fs::create_directories(bin);
    fs::create_directories(tmp);
    const std::string raw = run.dir.file("my run.raw");
    write_file(raw, "not really raw");
    write_file(run.dir.file("sample.mzML"), sample_text());
    const fs::path parser = bin / "ThermoRawFileParser.sh";
    write_file(parser,
               "#!/bin/bash\n"
               "[ $# -eq 6 ] && [ \"$1\" = -i ] && [ \"$2\" = \"" +
                   raw +
                   "\" ] && [ \"$3\" = -o ] && [ -d \"$4\" ] && [ \"$5\" = -f ] && "
                   "[ \"$6\" = 2 ] || exit 3\n"
                   "[ -e \"" +
                   run.dir.file("fail") +
                   "\" ] && exit 4\n"
                   "cp \"" +
                   run.dir.file("sample.mzML") + "\" \"$4/my run.mzML\"\n");
    fs::permissions(parser, fs::perms::owner_all);
    const std::string env =
        "PATH=\"" + bin.string() + ":/usr/bin:/bin\" TMPDIR=\"" + tmp.string() + "\" ";
    ASSERT_EQ(run.exec("spexor_raw.exe", raw, env), 0) << run.stderr_text;
    EXPECT_TRUE(fs::exists(run.out / "my run.spexor"));
    EXPECT_NE(read_file(run.out / "my run.ms2").find("SourceFile\tmy run.raw\n"),
              std::string::npos);
    EXPECT_NE(run.stdout_text.find("ms2_written\t5\n"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(tmp));
    // The parser fails: no marker, no temporary file left.
    write_file(run.dir.file("fail"), "");
    fs::remove(run.out / "my run.spexor");
    EXPECT_EQ(run.exec("spexor_raw.exe", raw, env), 1);
    EXPECT_NE(run.stderr_text.find("failed with exit code 4"), std::string::npos)
        << run.stderr_text;
    EXPECT_FALSE(fs::exists(run.out / "my run.spexor"));
    EXPECT_TRUE(fs::is_empty(tmp));
    // No parser on PATH: how to convert the file.
    EXPECT_EQ(run.exec("spexor_raw.exe", raw, "PATH=/nonexistent "), 1);
    EXPECT_NE(run.stderr_text.find("Put ThermoRawFileParser on PATH"), std::string::npos);
}

}  // namespace
