#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "mzml_writer.h"
#include "utils.h"

namespace ksieve {

namespace {

// Room after `count=` for a quoted count of up to ten digits; what the count does
// not use stays blanks between the attributes.
constexpr std::size_t kCountField = 12;
constexpr std::size_t kHashBufferSize = std::size_t{1} << 20;

// What a character becomes in XML text, or nullptr when it stays as it is.
constexpr const char* escape_of(char c) {
    switch (c) {
        case '&':
            return "&amp;";
        case '<':
            return "&lt;";
        case '>':
            return "&gt;";
        case '"':
            return "&quot;";
        case '\'':
            return "&apos;";
        default:
            // Control characters other than tab, line feed and return have no
            // place in XML 1.0, not even as references.
            return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r'
                       ? "?"
                       : nullptr;
    }
}

// By byte: true when escape_of leaves it as it is.
constexpr std::array<bool, 256> kPlainBytes = [] {
    std::array<bool, 256> plain{};
    for (std::size_t b = 0; b < plain.size(); ++b) {
        plain[b] = escape_of(static_cast<char>(b)) == nullptr;
    }
    return plain;
}();

// Plain runs of the text go out whole.
void append_escaped(std::string& out, std::string_view text) {
    std::size_t plain_from = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!kPlainBytes[static_cast<unsigned char>(text[i])]) {
            out.append(text.substr(plain_from, i - plain_from));
            out += escape_of(text[i]);
            plain_from = i + 1;
        }
    }
    out.append(text.substr(plain_from));
}

// The shortest text that reads back as the same number, made without allocating.
struct NumberText {
    std::array<char, 32> m_buffer;
    std::size_t m_size = 0;
    template <typename Number>
    explicit NumberText(Number value) {
        const auto [end, error] =
            std::to_chars(m_buffer.data(), m_buffer.data() + m_buffer.size(), value);
        KS_ASSERT(error == std::errc(), "error == std::errc()");
        m_size = static_cast<std::size_t>(end - m_buffer.data());
    }
    operator std::string_view() const { return {m_buffer.data(), m_size}; }
};

// One cvParam line; `unit` is empty or the unit attributes with a leading blank.
void append_cv(std::string& out, std::string_view accession, std::string_view name,
               std::string_view value = {}, std::string_view unit = {}) {
    out += R"(<cvParam cvRef="MS" accession=")";
    out += accession;
    out += R"(" name=")";
    out += name;
    out += R"(" value=")";
    append_escaped(out, value);
    out += '"';
    out += unit;
    out += "/>\n";
}

void append_user(std::string& out, std::string_view name, std::string_view value,
                 std::string_view type) {
    out += R"(<userParam name=")";
    append_escaped(out, name);
    out += R"(" type=")";
    out += type;
    out += R"(" value=")";
    append_escaped(out, value);
    out += "\"/>\n";
}

constexpr std::string_view kMzUnit = R"( unitCvRef="MS" unitAccession="MS:1000040" unitName="m/z")";
constexpr std::string_view kCountsUnit =
    R"( unitCvRef="MS" unitAccession="MS:1000131" unitName="number of detector counts")";

// An xs:ID for the run: ids may not start with a digit or hold blanks.
std::string run_id(const std::string& stem) {
    std::string id = "run_";
    for (const char c : stem) {
        const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        id += plain ? c : '_';
    }
    return id;
}

// Returns where in `out` the source's SHA-1 value begins.
std::size_t append_source(std::string& out, const MzmlSource& source, std::size_t number,
                          const std::pair<std::string, std::string>& id_format) {
    const std::size_t cut = source.m_path.find_last_of('/');
    const std::string name =
        cut == std::string::npos ? source.m_path : source.m_path.substr(cut + 1);
    const std::string dir = cut == std::string::npos ? "." : source.m_path.substr(0, cut);
    out += "<sourceFile id=\"SF" + std::to_string(number) + "\" name=\"";
    append_escaped(out, name);
    out += "\" location=\"file://";
    append_escaped(out, dir);
    out += "\">\n";
    append_cv(out, id_format.first.c_str(), id_format.second.c_str());
    if (to_lower(name).ends_with(".ms2")) {
        append_cv(out, "MS:1001466", "MS2 format");
    } else {
        append_cv(out, "MS:1002597", "MS1 format");
    }
    append_cv(out, "MS:1000569", "SHA-1", source.m_sha1);
    const std::size_t sha1_at = out.size() - source.m_sha1.size() - std::strlen("\"/>\n");
    out += "</sourceFile>\n";
    return sha1_at;
}

// The header up to the spectrum count, and where each source's SHA-1 sits in it.
struct HeaderText {
    std::string m_text;
    std::vector<std::size_t> m_sha1_at;
};

HeaderText header_text(const MzmlRunInfo& info) {
    HeaderText header;
    std::string& out = header.m_text;
    out =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<indexedmzML xmlns=\"http://psi.hupo.org/ms/mzml\" "
        "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "xsi:schemaLocation=\"http://psi.hupo.org/ms/mzml "
        "http://psidev.info/files/ms/mzML/xsd/mzML1.1.2_idx.xsd\">\n"
        "<mzML xmlns=\"http://psi.hupo.org/ms/mzml\" "
        "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
        "xsi:schemaLocation=\"http://psi.hupo.org/ms/mzml "
        "http://psidev.info/files/ms/mzML/xsd/mzML1.1.0.xsd\" version=\"1.1.0\">\n"
        "<cvList count=\"2\">\n"
        "<cv id=\"MS\" fullName=\"Proteomics Standards Initiative Mass Spectrometry Ontology\" "
        "version=\"4.1.28\" URI=\"https://raw.githubusercontent.com/HUPO-PSI/psi-ms-CV/master/"
        "psi-ms.obo\"/>\n"
        "<cv id=\"UO\" fullName=\"Unit Ontology\" version=\"09:04:2014\" "
        "URI=\"https://raw.githubusercontent.com/bio-ontology-research-group/unit-ontology/"
        "master/unit.obo\"/>\n"
        "</cvList>\n<fileDescription>\n<fileContent>\n";
    append_cv(out, "MS:1000579", "MS1 spectrum");
    append_cv(out, "MS:1000580", "MSn spectrum");
    out += "</fileContent>\n<sourceFileList count=\"" + std::to_string(info.m_sources.size()) +
           "\">\n";
    for (std::size_t i = 0; i < info.m_sources.size(); ++i) {
        header.m_sha1_at.push_back(
            append_source(out, info.m_sources[i], i + 1, info.m_native_id_format));
    }
    out +=
        "</sourceFileList>\n</fileDescription>\n<softwareList count=\"1\">\n"
        "<software id=\"kSieve\" version=\"";
    append_escaped(out, info.m_software_version);
    out += "\">\n";
    append_cv(out, "MS:1000799", "custom unreleased software tool", "kSieve");
    out +=
        "</software>\n</softwareList>\n<instrumentConfigurationList count=\"1\">\n"
        "<instrumentConfiguration id=\"IC1\">\n";
    append_cv(out, "MS:1000031", "instrument model");
    out +=
        "</instrumentConfiguration>\n</instrumentConfigurationList>\n"
        "<dataProcessingList count=\"1\">\n<dataProcessing id=\"kSieve_precursors\">\n"
        "<processingMethod order=\"0\" softwareRef=\"kSieve\">\n";
    append_cv(out, "MS:1000544", "Conversion to mzML");
    append_cv(out, "MS:1000780", "precursor recalculation");
    for (const auto& [key, value] : info.m_keys) {
        append_user(out, key, value, "xsd:string");
    }
    out += "</processingMethod>\n</dataProcessing>\n</dataProcessingList>\n<run id=\"" +
           run_id(info.m_run_id) + "\" defaultInstrumentConfigurationRef=\"IC1\"";
    if (!info.m_sources.empty()) {
        out += " defaultSourceFileRef=\"SF1\"";
    }
    out += ">\n<spectrumList count=";
    return header;
}

void write_text(MzmlFile& file, const char* data, std::size_t size) {
    sink_write(file.m_sink, data, size);
    file.m_offset += static_cast<int64_t>(size);
}

void write_text(MzmlFile& file, std::string_view text) {
    write_text(file, text.data(), text.size());
}

std::string count_field(int64_t count) {
    std::string field = "\"" + std::to_string(count) + "\"";
    field.resize(kCountField, ' ');
    return field;
}

}  // namespace

namespace {

// The peaks' m/z or intensities as little-endian numbers of `Number`, into
// `bytes`, sized once.
template <typename Number>
void pack_numbers(std::string& bytes, std::span<const Peak> peaks, double Peak::*field) {
    bytes.resize(peaks.size() * sizeof(Number));
    char* at = bytes.data();
    for (const Peak& peak : peaks) {
        const auto value = static_cast<Number>(peak.*field);
        std::array<char, sizeof(Number)> raw;
        std::memcpy(raw.data(), &value, sizeof(Number));
        if constexpr (std::endian::native == std::endian::big) {
            std::reverse(raw.begin(), raw.end());
        }
        std::memcpy(at, raw.data(), sizeof(Number));
        at += sizeof(Number);
    }
}

// One peak array: m/z as 64-bit, intensity as 32-bit floats, zlib-compressed
// unless switched off, then base64.
void append_array(std::string& out, const MzmlSpectrum& spectrum, bool mz,
                  const MzmlOptions& options, MzmlScratch& scratch) {
    if (mz) {
        pack_numbers<double>(scratch.m_bytes, spectrum.m_peaks, &Peak::m_mz);
    } else {
        pack_numbers<float>(scratch.m_bytes, spectrum.m_peaks, &Peak::m_intensity);
    }
    const auto* raw = reinterpret_cast<const unsigned char*>(scratch.m_bytes.data());
    const std::string* payload = &scratch.m_bytes;
    if (options.m_compress) {
        scratch.m_packed.clear();
        zlib_compress(raw, scratch.m_bytes.size(), scratch.m_packed, scratch.m_deflate);
        payload = &scratch.m_packed;
    }
    const std::size_t encoded = (payload->size() + 2) / 3 * 4;
    out += R"(<binaryDataArray encodedLength=")";
    out += NumberText(encoded);
    out += "\">\n";
    append_cv(out, mz ? "MS:1000523" : "MS:1000521", mz ? "64-bit float" : "32-bit float");
    append_cv(out, options.m_compress ? "MS:1000574" : "MS:1000576",
              options.m_compress ? "zlib compression" : "no compression");
    if (mz) {
        append_cv(out, "MS:1000514", "m/z array", "", kMzUnit);
    } else {
        append_cv(out, "MS:1000515", "intensity array", "", kCountsUnit);
    }
    out += "<binary>";
    base64_append(out, reinterpret_cast<const unsigned char*>(payload->data()), payload->size());
    out += "</binary>\n</binaryDataArray>\n";
}

void append_activation(std::string& out, const std::string& activation) {
    out += "<activation>\n";
    const bool etd = activation.starts_with("ET");
    if (etd) {
        append_cv(out, "MS:1000598", "electron transfer dissociation");
    }
    const std::string rest = etd ? activation.substr(2) : activation;
    if (rest == "CID") {
        append_cv(out, "MS:1000133", "collision-induced dissociation");
    } else if (rest == "HCD") {
        append_cv(out, "MS:1000422", "beam-type collision-induced dissociation");
    }
    out += "</activation>\n";
}

void append_evidence(std::string& out, const MzmlEvidence& evidence) {
    if (evidence.m_declared_mz) {
        append_user(out, "kSieve declared m/z", NumberText(*evidence.m_declared_mz), "xsd:double");
    }
    append_user(out, "kSieve origin", evidence.m_origin, "xsd:string");
    if (evidence.m_score) {
        append_user(out, "kSieve score", NumberText(*evidence.m_score), "xsd:double");
    }
    append_user(out, "kSieve purity", NumberText(evidence.m_purity), "xsd:double");
}

void append_precursor(std::string& out, const MzmlSpectrum& spectrum, const MzmlPrecursor& ion,
                      const MzmlOptions& options) {
    out += "<precursor";
    if (!spectrum.m_parent_native_id.empty() || spectrum.m_parent_scan > 0) {
        out += " spectrumRef=\"";
        append_escaped(out, mzml_spectrum_id(spectrum.m_parent_native_id, spectrum.m_parent_scan));
        out += '"';
    }
    out += ">\n<isolationWindow>\n";
    append_cv(out, "MS:1000827", "isolation window target m/z",
              NumberText(spectrum.m_isolation_target), kMzUnit);
    append_cv(out, "MS:1000828", "isolation window lower offset",
              NumberText(spectrum.m_isolation_lower), kMzUnit);
    append_cv(out, "MS:1000829", "isolation window upper offset",
              NumberText(spectrum.m_isolation_upper), kMzUnit);
    out += "</isolationWindow>\n<selectedIonList count=\"1\">\n<selectedIon>\n";
    append_cv(out, "MS:1000744", "selected ion m/z", NumberText(ion.m_mz), kMzUnit);
    append_cv(out, "MS:1000041", "charge state", NumberText(ion.m_charge));
    if (ion.m_intensity) {
        append_cv(out, "MS:1000042", "peak intensity", NumberText(*ion.m_intensity), kCountsUnit);
    }
    if (options.m_monoisotopic_term) {
        append_cv(out, "MS:1003208", "experimental precursor monoisotopic m/z",
                  NumberText(ion.m_mz), kMzUnit);
    }
    if (ion.m_evidence) {
        append_evidence(out, *ion.m_evidence);
    }
    out += "</selectedIon>\n</selectedIonList>\n";
    append_activation(out, spectrum.m_activation);
    out += "</precursor>\n";
}

void append_scan(std::string& out, const MzmlSpectrum& spectrum) {
    out += "<scanList count=\"1\">\n";
    append_cv(out, "MS:1000795", "no combination");
    out += "<scan>\n";
    append_cv(out, "MS:1000016", "scan start time", NumberText(spectrum.m_retention_seconds),
              " unitCvRef=\"UO\" unitAccession=\"UO:0000010\" unitName=\"second\"");
    append_cv(out, "MS:1000927", "ion injection time", NumberText(spectrum.m_ion_injection_ms),
              " unitCvRef=\"UO\" unitAccession=\"UO:0000028\" unitName=\"millisecond\"");
    if (spectrum.m_faims_cv) {
        append_cv(out, "MS:1001581", "FAIMS compensation voltage", NumberText(*spectrum.m_faims_cv),
                  " unitCvRef=\"UO\" unitAccession=\"UO:0000218\" unitName=\"volt\"");
    }
    out += "</scan>\n</scanList>\n";
}

}  // namespace

MzmlFile::~MzmlFile() {
    if (m_index != nullptr) {
        std::fclose(m_index);
    }
}

std::string mzml_spectrum_id(const std::string& native_id, int32_t scan) {
    return native_id.empty() ? "scan=" + std::to_string(scan) : native_id;
}

std::pair<std::string, std::string> native_id_format(const std::string& native_id) {
    const auto number_after = [&native_id](std::size_t at) {
        return at < native_id.size() &&
               native_id.find_first_not_of("0123456789", at) == std::string::npos;
    };
    if (native_id.empty() || (native_id.starts_with("scan=") && number_after(5))) {
        return {"MS:1000776", "scan number only nativeID format"};
    }
    if (native_id.starts_with("spectrum=") && number_after(9)) {
        return {"MS:1000777", "spectrum identifier nativeID format"};
    }
    if (native_id.starts_with("controllerType=") && native_id.find(" scan=") != std::string::npos &&
        number_after(native_id.find(" scan=") + 6)) {
        return {"MS:1000768", "Thermo nativeID format"};
    }
    return {"MS:1000824", "no nativeID format"};
}

namespace {

// Lines that open with "S" in `size` bytes, `before` being the byte before them
// ('\n' at the start of a file).
int64_t scan_lines(const unsigned char* data, std::size_t size, unsigned char& before) {
    int64_t lines = 0;
    const unsigned char* end = data + size;
    for (const unsigned char* at = data;
         (at = static_cast<const unsigned char*>(std::memchr(at, 'S', end - at))) != nullptr;
         ++at) {
        lines += (at == data ? before : at[-1]) == '\n' ? 1 : 0;
    }
    if (size > 0) {
        before = end[-1];
    }
    return lines;
}

// The SHA-1 of a file of the input pair and its scans, as the lines that open
// with "S" count them.
struct InputDigest {
    std::string m_sha1;  // 40 hex digits
    int64_t m_scans = 0;
};

// Both files of the pair, read side by side. Throws the open_file message of
// the first that cannot be read.
std::pair<InputDigest, InputDigest> digest_inputs(const std::string& first,
                                                  const std::string& second) {
    std::FILE* streams[2] = {open_file(first, "rb", ""), nullptr};
    try {
        streams[1] = open_file(second, "rb", "");
    } catch (...) {
        std::fclose(streams[0]);
        throw;
    }
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(2 * kHashBufferSize);
    unsigned char* data[2] = {buffer.get(), buffer.get() + kHashBufferSize};
    Sha1 sha1[2];
    InputDigest digests[2];
    unsigned char before[2] = {'\n', '\n'};
    while (true) {
        std::size_t got[2];
        for (int i = 0; i < 2; ++i) {
            got[i] = std::fread(data[i], 1, kHashBufferSize, streams[i]);
            digests[i].m_scans += scan_lines(data[i], got[i], before[i]);
        }
        if (got[0] == 0 && got[1] == 0) {
            break;
        }
        // Side by side while both files last, then each alone.
        const std::size_t both = std::min(got[0], got[1]);
        Sha1::update_both(sha1[0], data[0], sha1[1], data[1], both);
        for (int i = 0; i < 2; ++i) {
            sha1[i].update(data[i] + both, got[i] - both);
        }
    }
    for (int i = 0; i < 2; ++i) {
        std::fclose(streams[i]);
        digests[i].m_sha1 = sha1[i].hex_digest();
    }
    return {std::move(digests[0]), std::move(digests[1])};
}

}  // namespace

void format_mzml_spectrum(std::string& text, const MzmlSpectrum& spectrum,
                          const MzmlOptions& options, MzmlScratch& scratch) {
    text = "id=\"";
    append_escaped(text, mzml_spectrum_id(spectrum.m_native_id, spectrum.m_scan));
    text += R"(" defaultArrayLength=")";
    text += NumberText(spectrum.m_peaks.size());
    text += "\">\n";
    append_cv(text, "MS:1000511", "ms level", NumberText(spectrum.m_ms_level));
    const bool ms1 = spectrum.m_ms_level == 1;
    append_cv(text, ms1 ? "MS:1000579" : "MS:1000580", ms1 ? "MS1 spectrum" : "MSn spectrum");
    append_cv(text, spectrum.m_centroid ? "MS:1000127" : "MS:1000128",
              spectrum.m_centroid ? "centroid spectrum" : "profile spectrum");
    append_scan(text, spectrum);
    if (!spectrum.m_precursors.empty()) {
        text += R"(<precursorList count=")";
        text += NumberText(spectrum.m_precursors.size());
        text += "\">\n";
        for (const MzmlPrecursor& ion : spectrum.m_precursors) {
            append_precursor(text, spectrum, ion, options);
        }
        text += "</precursorList>\n";
    }
    text += "<binaryDataArrayList count=\"2\">\n";
    append_array(text, spectrum, true, options, scratch);
    append_array(text, spectrum, false, options, scratch);
    text += "</binaryDataArrayList>\n</spectrum>\n";
}

namespace {

constexpr std::size_t kSha1Digits = 40;

// The prelude of a file whose count is `expected` (-1: unknown). A count the
// header's field could not hold is no guess worth making.
MzmlPrelude foretold(int64_t expected, int64_t count_offset) {
    MzmlPrelude prelude;
    if (expected >= 0 && expected <= INT32_MAX) {
        prelude.m_expected = expected;
        prelude.m_patches.emplace_back(count_offset, count_field(expected));
    }
    return prelude;
}

// What the sink learns before its first write: the input pair's digests and
// scans when the writer reads them, else nothing.
std::function<MzmlPrelude()> prelude_job(const MzmlRunInfo& info, const HeaderText& header) {
    if (!info.m_digest_sources) {
        return {};
    }
    const auto count_offset = static_cast<int64_t>(header.m_text.size());
    KS_ASSERT(info.m_sources.size() == 2, "info.m_sources.size() == 2");
    return [first = info.m_sources[0].m_path, second = info.m_sources[1].m_path,
            at = header.m_sha1_at, count_offset] {
        auto [ms1, ms2] = digest_inputs(first, second);
        MzmlPrelude prelude = foretold(ms1.m_scans + ms2.m_scans, count_offset);
        prelude.m_patches.emplace_back(at[0], std::move(ms1.m_sha1));
        prelude.m_patches.emplace_back(at[1], std::move(ms2.m_sha1));
        return prelude;
    };
}

}  // namespace

void open_mzml_file(MzmlFile& file, std::string path, const MzmlRunInfo& info) {
    file.m_unfinished_path = path + "_unfinished";
    file.m_options = info.m_options;
    file.m_offset = 0;
    MzmlRunInfo shown = info;
    if (info.m_digest_sources) {
        // Placeholders of the digests' width, put over before the bytes go out.
        for (MzmlSource& source : shown.m_sources) {
            source.m_sha1.assign(kSha1Digits, '0');
        }
    }
    const HeaderText header = header_text(shown);
    log_info("Start to process " + path);
    file.m_head.m_scan_count = 0;
    file.m_head.m_path = std::move(path);
    file.m_head.m_mode = "wb+";
    file.m_head.m_stream = open_file(file.m_unfinished_path, file.m_head.m_mode, "");
    // The sink gathers whole mebibytes; a buffer of the stream's own would only copy them.
    std::setvbuf(file.m_head.m_stream, nullptr, _IONBF, 0);
    start_sink(file.m_sink, file.m_head.m_stream, file.m_unfinished_path,
               prelude_job(info, header));
    file.m_index = std::tmpfile();
    check_written(file.m_index != nullptr, file.m_unfinished_path + " (its index)");
    write_text(file, header.m_text);
    file.m_count_offset = file.m_offset;
    write_text(file, count_field(0) + " defaultDataProcessingRef=\"kSieve_precursors\">\n");
}

void write_mzml_spectrum(MzmlFile& file, const std::string& id, const std::string& text) {
    std::string entry = R"(<offset idRef=")";
    append_escaped(entry, id);
    entry += "\">";
    entry += NumberText(file.m_offset);
    entry += "</offset>\n";
    check_written(std::fwrite(entry.data(), 1, entry.size(), file.m_index) == entry.size(),
                  file.m_unfinished_path + " (its index)");
    write_text(file, R"(<spectrum index=")");
    write_text(file, NumberText(file.m_head.m_scan_count++));
    write_text(file, "\" ");
    write_text(file, text);
}

namespace {

// Copies the offset index from its temporary file into the output.
void copy_index(MzmlFile& file, unsigned char* buffer) {
    const std::string& path = file.m_unfinished_path;
    check_written(std::fflush(file.m_index) == 0 && std::fseek(file.m_index, 0, SEEK_SET) == 0,
                  path + " (its index)");
    std::size_t got = 0;
    while ((got = std::fread(buffer, 1, kHashBufferSize, file.m_index)) > 0) {
        write_text(file, reinterpret_cast<const char*>(buffer), got);
    }
    check_written(std::ferror(file.m_index) == 0, path + " (its index)");
    std::fclose(file.m_index);
    file.m_index = nullptr;
}

// The checksum of everything written so far: the one made as it was written
// when the header's count was right from the start, else the count is filled in
// and the file read back.
std::string count_and_checksum(MzmlFile& file, unsigned char* buffer) {
    std::string as_written = sink_digest(file.m_sink);
    if (file.m_head.m_scan_count == file.m_sink.m_prelude.m_expected) {
        return as_written;
    }
    std::FILE* stream = file.m_head.m_stream;
    const std::string& path = file.m_unfinished_path;
    const std::string count = count_field(file.m_head.m_scan_count);
    check_written(std::fseek(stream, file.m_count_offset, SEEK_SET) == 0 &&
                      std::fwrite(count.data(), 1, count.size(), stream) == count.size() &&
                      std::fflush(stream) == 0 && std::fseek(stream, 0, SEEK_SET) == 0,
                  path);
    Sha1 sha1;
    int64_t left = file.m_offset;
    while (left > 0) {
        const std::size_t want = static_cast<std::size_t>(std::min<int64_t>(left, kHashBufferSize));
        const std::size_t got = std::fread(buffer, 1, want, stream);
        check_written(got == want, path);
        sha1.update(buffer, got);
        left -= static_cast<int64_t>(got);
    }
    check_written(std::fseek(stream, 0, SEEK_END) == 0, path);
    return sha1.hex_digest();
}

}  // namespace

// The table of offsets points at each "<spectrum"; the checksum covers the file
// up to and including "<fileChecksum>".
void finish_mzml_file(MzmlFile& file) {
    if (file.m_head.m_stream == nullptr) {
        return;
    }
    const auto buffer = std::make_unique_for_overwrite<unsigned char[]>(kHashBufferSize);
    write_text(file, "</spectrumList>\n</run>\n</mzML>\n");
    const int64_t index_offset = file.m_offset;
    write_text(file, "<indexList count=\"1\">\n<index name=\"spectrum\">\n");
    copy_index(file, buffer.get());
    write_text(file, "</index>\n</indexList>\n<indexListOffset>" + std::to_string(index_offset) +
                         "</indexListOffset>\n<fileChecksum>");
    const std::string checksum = count_and_checksum(file, buffer.get());
    write_text(file, checksum + "</fileChecksum>\n</indexedmzML>\n");
    drain_sink(file.m_sink);
    finish_spectrum_file(file.m_head);
    delete_file(file.m_head.m_path);
    if (std::rename(file.m_unfinished_path.c_str(), file.m_head.m_path.c_str()) != 0) {
        throw "Cannot rename file: " + file.m_unfinished_path;
    }
}

}  // namespace ksieve
