// Reading mzML and mzXML runs, plain or gzip-compressed, in one streaming pass:
// zlib decompresses the file, expat parses the XML, and the terms are sorted
// by the PSI-MS vocabulary table (vocabulary.h). Each spectrum is handed on,
// with its peak arrays still encoded, as soon as its element closes.
#include <expat.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vocabulary.h"
#include "xml_reader.h"

namespace ksieve::spexor {
namespace {

constexpr unsigned kChunkBytes = 1 << 20;

enum class Context {
    kOther,
    kSpectrum,
    kScan,
    kPrecursor,
    kIsolation,
    kSelectedIon,
    kActivation,
    kArray,
    kAnalyzer,
    kParamGroup,
    kMzxmlScan,
};

// A cvParam as the callback sees it; the views live as long as the callback.
struct ParamView {
    std::string_view accession;
    std::string_view value;
    std::string_view unit;
};

// A cvParam kept in a referenceable group, replayed where the group is named.
struct Param {
    std::string accession;
    std::string value;
    std::string unit;
    ParamView view() const { return {accession, value, unit}; }
};

void add_analyzer(RunAnalyzers& analyzers, std::string_view accession) {
    const VocabularyTerm* term = find_term(accession);
    if (term == nullptr) {
        return;
    }
    analyzers.fourier_transform |= term->kind == TermKind::kFourierTransform;
    analyzers.time_of_flight |= term->kind == TermKind::kTimeOfFlight;
    analyzers.ion_trap |= term->kind == TermKind::kIonTrap;
}

// mzXML names analyzers in free text ("FTMS", "orbitrap", "ITMS", "TOF").
void add_mzxml_analyzer(RunAnalyzers& analyzers, std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (text.find("orbitrap") != std::string::npos || text.find("ft") != std::string::npos ||
        text.find("icr") != std::string::npos) {
        analyzers.fourier_transform = true;
    } else if (text.find("tof") != std::string::npos) {
        analyzers.time_of_flight = true;
    } else if (text.find("trap") != std::string::npos || text.find("it") == 0) {
        analyzers.ion_trap = true;
    }
}

void add_activation_term(ActivationTerms& terms, std::string_view accession) {
    static constexpr std::pair<TermKind, bool ActivationTerms::*> kFlags[] = {
        {TermKind::kCollision, &ActivationTerms::collision},
        {TermKind::kBeamType, &ActivationTerms::beam_type},
        {TermKind::kElectronTransfer, &ActivationTerms::electron_transfer},
        {TermKind::kEThcD, &ActivationTerms::ethcd},
        {TermKind::kSupplementalCollision, &ActivationTerms::supplemental_collision},
        {TermKind::kSupplementalBeamType, &ActivationTerms::supplemental_beam_type},
        {TermKind::kSupplementalEnergy, &ActivationTerms::supplemental_energy}};
    const VocabularyTerm* term = find_term(accession);
    if (term == nullptr) {
        return;
    }
    for (const auto& [kind, flag] : kFlags) {
        if (term->kind == kind) {
            terms.*flag = true;
        }
    }
    if (term->kind == TermKind::kOtherMethod && terms.other.empty()) {
        terms.other = term->short_name;
    }
}

double to_double(std::string_view text, const char* what) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\n' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\n' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    double value = 0.0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        throw std::runtime_error(std::string("unreadable ") + what + " \"" + std::string(text) +
                                 "\"");
    }
    return value;
}

int to_int(std::string_view text, const char* what) {
    double value = to_double(text, what);
    if (value < -1e9 || value > 1e9) {
        throw std::runtime_error(std::string("unreadable ") + what + " \"" + std::string(text) +
                                 "\"");
    }
    return static_cast<int>(value);
}

// mzXML retention times are xs:duration values such as "PT1000.14828S".
double duration_seconds(const std::string& text) {
    if (text.size() < 3 || text.compare(0, 2, "PT") != 0) {
        return to_double(text, "retention time");
    }
    double seconds = 0.0;
    std::size_t at = 2;
    while (at < text.size()) {
        std::size_t end = text.find_first_of("HMS", at);
        if (end == std::string::npos) {
            throw std::runtime_error("unreadable retention time \"" + text + "\"");
        }
        double value = to_double(text.substr(at, end - at), "retention time");
        seconds += value * (text[end] == 'H' ? 3600.0 : text[end] == 'M' ? 60.0 : 1.0);
        at = end + 1;
    }
    return seconds;
}

}  // namespace

// ---- the parser state -----------------------------------------------------------

struct XmlReader::State {
    XML_Parser parser = nullptr;
    SpectrumSink* sink = nullptr;
    std::exception_ptr failure;  // set when a handler stops the parse
    bool mzxml = false;

    std::vector<Context> contexts;
    std::map<std::string, std::vector<Param>> param_groups;
    std::string group_id;
    std::map<std::string, RunAnalyzers> configs;
    std::string config_id;
    std::string default_config;
    RunDescription run;

    RawSpectrum spectrum;
    bool in_spectrum = false;
    int precursors = 0;
    EncodedArray array;
    bool array_ignored = true;  // not an m/z or intensity array
    bool collecting = false;
    std::string text;

    // mzXML
    std::vector<RawSpectrum> open_scans;  // nested scans, outermost first
    std::string mzxml_centroided;         // the run's dataProcessing default
    std::map<std::string, std::string> peaks_attributes, precursor_attributes;
};

namespace {

using State = XmlReader::State;

std::string_view local_name(const XML_Char* name) {
    std::string_view full(name);
    std::size_t colon = full.rfind(':');
    return colon == std::string_view::npos ? full : full.substr(colon + 1);
}

const char* attribute(const XML_Char** attributes, const char* key) {
    for (int i = 0; attributes[i] != nullptr; i += 2) {
        if (std::strcmp(attributes[i], key) == 0) {
            return attributes[i + 1];
        }
    }
    return nullptr;
}

const char* attribute_or(const XML_Char** attributes, const char* key, const char* fallback) {
    const char* value = attribute(attributes, key);
    return value != nullptr ? value : fallback;
}

// Empties a spectrum for the next one, keeping the capacity of its buffers.
void reset_keeping_buffers(RawSpectrum& spectrum) {
    spectrum.id.clear();
    spectrum.ms_level = 0;
    spectrum.profile = false;
    spectrum.rt_seconds = 0.0;
    spectrum.injection_ms.reset();
    spectrum.faims_cv.reset();
    spectrum.filter.clear();
    spectrum.config_analyzers = RunAnalyzers{};
    spectrum.run = RunDescription{};
    spectrum.has_precursor = false;
    spectrum.precursor_ref.clear();
    spectrum.isolation_target = 0.0;
    spectrum.activation = ActivationTerms{};
    spectrum.ions.clear();
    spectrum.declared_length = 0;
    spectrum.array_count = 0;
    spectrum.mz.clear();
    spectrum.intensity.clear();
}

// Adds an array of the form `form` whose base64 is `text`; `text` gets a spare
// buffer back.
void add_array(RawSpectrum& spectrum, const EncodedArray& form, std::string& text) {
    if (spectrum.arrays.size() == spectrum.array_count) {
        spectrum.arrays.emplace_back();
    }
    EncodedArray& slot = spectrum.arrays[spectrum.array_count++];
    std::string spare = std::move(slot.text);
    slot = form;
    slot.text = std::move(text);
    text = std::move(spare);
    text.clear();
}

// What every spectrum carries about the run, once its configurations are known.
void describe_run(State& s) {
    s.run = RunDescription{};
    for (const auto& [id, analyzers] : s.configs) {
        s.run.analyzers.fourier_transform |= analyzers.fourier_transform;
        s.run.analyzers.time_of_flight |= analyzers.time_of_flight;
        s.run.analyzers.ion_trap |= analyzers.ion_trap;
    }
    s.run.several_configurations = s.configs.size() > 1;
}

void spectrum_param(State& s, const ParamView& p) {
    RawSpectrum& sp = s.spectrum;
    if (p.accession == "MS:1000511") {
        sp.ms_level = to_int(p.value, "MS level");
    } else if (p.accession == "MS:1000128") {
        sp.profile = true;
    } else if (p.accession == "MS:1000016") {
        double value = to_double(p.value, "scan start time");
        bool minutes = p.unit == "UO:0000031" || p.unit == "MS:1000038";
        sp.rt_seconds = minutes ? value * 60.0 : value;
    } else if (p.accession == "MS:1000927") {
        sp.injection_ms = to_double(p.value, "ion injection time");
    } else if (p.accession == "MS:1000512") {
        sp.filter = std::string(p.value);
    } else if (p.accession == "MS:1001581") {
        sp.faims_cv = to_double(p.value, "compensation voltage");
    }
}

void array_param(EncodedArray& a, std::string_view accession, bool& ignored) {
    if (accession == "MS:1000514" || accession == "MS:1000515") {
        a.kind = accession == "MS:1000514" ? EncodedArray::kMz : EncodedArray::kIntensity;
        ignored = false;
        return;
    }
    using Form = EncodedArray;
    static const std::map<std::string, void (*)(Form&), std::less<>> kForms = {
        {"MS:1000521", [](Form& f) { f.bytes = 4, f.integer = false; }},
        {"MS:1000523", [](Form& f) { f.bytes = 8, f.integer = false; }},
        {"MS:1000519", [](Form& f) { f.bytes = 4, f.integer = true; }},
        {"MS:1000522", [](Form& f) { f.bytes = 8, f.integer = true; }},
        {"MS:1000574", [](Form& f) { f.zlib = true; }},
        {"MS:1002312", [](Form& f) { f.numpress = 'l'; }},
        {"MS:1002313", [](Form& f) { f.numpress = 'p'; }},
        {"MS:1002314", [](Form& f) { f.numpress = 's'; }},
        {"MS:1002746", [](Form& f) { f.numpress = 'l', f.zlib = true; }},
        {"MS:1002747", [](Form& f) { f.numpress = 'p', f.zlib = true; }},
        {"MS:1002748", [](Form& f) { f.numpress = 's', f.zlib = true; }},
    };
    auto form = kForms.find(accession);
    if (form != kForms.end()) {
        form->second(a);
    }
}

void handle_param(State& s, const ParamView& p) {
    switch (s.contexts.empty() ? Context::kOther : s.contexts.back()) {
        case Context::kSpectrum:
        case Context::kScan:
            spectrum_param(s, p);
            break;
        case Context::kIsolation:
            if (s.precursors == 1 && p.accession == "MS:1000827") {
                s.spectrum.isolation_target = to_double(p.value, "isolation target");
            }
            break;
        case Context::kSelectedIon: {
            RawSpectrum::Ion& ion = s.spectrum.ions.back();
            if (p.accession == "MS:1000744" || p.accession == "MS:1000040") {
                ion.mz = to_double(p.value, "selected ion m/z");
            } else if (p.accession == "MS:1000041") {
                ion.charge = to_int(p.value, "charge state");
            } else if (p.accession == "MS:1000633") {
                ion.possible_charges.push_back(to_int(p.value, "possible charge state"));
            }
            break;
        }
        case Context::kActivation:
            if (s.precursors == 1) {
                add_activation_term(s.spectrum.activation, p.accession);
            }
            break;
        case Context::kArray:
            array_param(s.array, p.accession, s.array_ignored);
            break;
        case Context::kAnalyzer:
            add_analyzer(s.configs[s.config_id], p.accession);
            break;
        case Context::kParamGroup:
            s.param_groups[s.group_id].push_back(
                {std::string(p.accession), std::string(p.value), std::string(p.unit)});
            break;
        default:
            break;
    }
}

void start_mzml(State& s, std::string_view name, const XML_Char** attributes) {
    Context context = Context::kOther;
    if (name == "cvParam") {
        handle_param(
            s, {attribute_or(attributes, "accession", ""), attribute_or(attributes, "value", ""),
                attribute_or(attributes, "unitAccession", "")});
    } else if (name == "userParam") {
        // Some writers put vocabulary terms in user parameters named by accession.
        std::string_view term = attribute_or(attributes, "name", "");
        if (term == "filter string") {
            term = "MS:1000512";
        }
        if (term.substr(0, 3) == "MS:") {
            handle_param(s, {term, attribute_or(attributes, "value", ""),
                             attribute_or(attributes, "unitAccession", "")});
        }
    } else if (name == "referenceableParamGroupRef") {
        auto group = s.param_groups.find(attribute_or(attributes, "ref", ""));
        if (group != s.param_groups.end()) {
            for (const Param& p : group->second) {
                handle_param(s, p.view());
            }
        }
    } else if (name == "spectrum") {
        reset_keeping_buffers(s.spectrum);
        s.spectrum.id = attribute_or(attributes, "id", "");
        s.spectrum.declared_length =
            to_int(attribute_or(attributes, "defaultArrayLength", "0"), "defaultArrayLength");
        s.spectrum.config_analyzers = s.configs[s.default_config];
        s.spectrum.run = s.run;
        s.precursors = 0;
        s.in_spectrum = true;
        context = Context::kSpectrum;
    } else if (name == "scan" && s.in_spectrum) {
        const char* config = attribute(attributes, "instrumentConfigurationRef");
        if (config != nullptr) {
            s.spectrum.config_analyzers = s.configs[config];
        }
        context = Context::kScan;
    } else if (name == "precursor" && s.in_spectrum) {
        if (++s.precursors == 1) {
            s.spectrum.has_precursor = true;
            s.spectrum.precursor_ref = attribute_or(attributes, "spectrumRef", "");
        }
        context = Context::kPrecursor;
    } else if (name == "isolationWindow" && s.contexts.back() == Context::kPrecursor) {
        context = Context::kIsolation;
    } else if (name == "selectedIon" && s.in_spectrum && s.precursors > 0) {
        s.spectrum.ions.emplace_back();
        context = Context::kSelectedIon;
    } else if (name == "activation" && s.contexts.back() == Context::kPrecursor) {
        context = Context::kActivation;
    } else if (name == "binaryDataArray" && s.in_spectrum) {
        s.array = EncodedArray{};
        s.array_ignored = true;
        const char* length = attribute(attributes, "arrayLength");
        s.array.length = length != nullptr ? to_int(length, "arrayLength") : -1;
        context = Context::kArray;
    } else if (name == "binary" && s.contexts.back() == Context::kArray) {
        s.collecting = true;
        s.text.clear();
    } else if (name == "referenceableParamGroup") {
        s.group_id = attribute_or(attributes, "id", "");
        context = Context::kParamGroup;
    } else if (name == "instrumentConfiguration") {
        s.config_id = attribute_or(attributes, "id", "");
        s.configs[s.config_id];
    } else if (name == "analyzer") {
        context = Context::kAnalyzer;
    } else if (name == "run") {
        s.default_config = attribute_or(attributes, "defaultInstrumentConfigurationRef", "");
        describe_run(s);
    }
    s.contexts.push_back(context);
}

void end_mzml(State& s, std::string_view name) {
    Context context = s.contexts.back();
    s.contexts.pop_back();
    if (name == "binary" && s.collecting) {
        s.collecting = false;
        if (!s.array_ignored) {
            add_array(s.spectrum, s.array, s.text);
        }
    } else if (context == Context::kSpectrum) {
        s.in_spectrum = false;
        s.sink->spectrum(s.spectrum);
    }
}

// ---- mzXML ------------------------------------------------------------------------

// activationMethod values as mzXML writers spell them.
ActivationTerms mzxml_activation(std::string method) {
    std::transform(method.begin(), method.end(), method.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    ActivationTerms terms;
    if (method == "CID" || method == "LCID" || method == "TRAP") {
        terms.collision = true;
    } else if (method == "HCD" || method == "HCID" || method == "BEAM") {
        terms.beam_type = true;
    } else if (method == "ETD") {
        terms.electron_transfer = true;
    } else if (method == "ETD+SA" || method == "ETDSA") {
        terms.electron_transfer = true;
        terms.supplemental_energy = true;
    } else if (method == "ETHCD") {
        terms.ethcd = true;
    } else if (method == "ETCID") {
        terms.electron_transfer = true;
        terms.supplemental_collision = true;
    } else if (!method.empty()) {
        terms.other = method;
    }
    return terms;
}

void start_mzxml_scan(State& s, const XML_Char** attributes) {
    if (s.open_scans.empty()) {
        describe_run(s);
    }
    RawSpectrum scan;
    scan.id = std::string("scan=") + attribute_or(attributes, "num", "");
    scan.ms_level = to_int(attribute_or(attributes, "msLevel", "0"), "msLevel");
    scan.declared_length = to_int(attribute_or(attributes, "peaksCount", "0"), "peaksCount");
    const char* rt = attribute(attributes, "retentionTime");
    scan.rt_seconds = rt != nullptr ? duration_seconds(rt) : 0.0;
    scan.filter = attribute_or(attributes, "filterLine", "");
    scan.profile =
        std::string_view(attribute_or(attributes, "centroided", s.mzxml_centroided.c_str())) == "0";
    const char* voltage = attribute(attributes, "compensationVoltage");
    if (voltage != nullptr) {
        scan.faims_cv = to_double(voltage, "compensation voltage");
    }
    const char* instrument = attribute(attributes, "msInstrumentID");
    scan.config_analyzers = s.configs[instrument != nullptr ? instrument : ""];
    scan.run = s.run;
    s.open_scans.push_back(std::move(scan));
}

void start_mzxml(State& s, std::string_view name, const XML_Char** attributes) {
    if (name == "msInstrument") {
        s.config_id = attribute_or(attributes, "msInstrumentID", "");
        s.configs[s.config_id];
    } else if (name == "msMassAnalyzer") {
        add_mzxml_analyzer(s.configs[s.config_id], attribute_or(attributes, "value", ""));
    } else if (name == "dataProcessing") {
        s.mzxml_centroided = attribute_or(attributes, "centroided", s.mzxml_centroided.c_str());
    } else if (name == "scan") {
        start_mzxml_scan(s, attributes);
    } else if ((name == "precursorMz" || name == "peaks") && !s.open_scans.empty()) {
        auto& kept = name == "peaks" ? s.peaks_attributes : s.precursor_attributes;
        kept.clear();
        for (int i = 0; attributes[i] != nullptr; i += 2) {
            kept[attributes[i]] = attributes[i + 1];
        }
        s.collecting = true;
        s.text.clear();
    }
}

std::string kept_or(const std::map<std::string, std::string>& kept, const char* key,
                    const char* fallback) {
    auto found = kept.find(key);
    return found != kept.end() ? found->second : fallback;
}

void end_mzxml_precursor(State& s) {
    RawSpectrum& scan = s.open_scans.back();
    const auto& a = s.precursor_attributes;
    // An empty element declares no precursor: the scan stays, without a
    // selected ion, and the account counts it.
    const bool declared = s.text.find_first_not_of(" \t\r\n") != std::string::npos;
    RawSpectrum::Ion ion;
    ion.mz = declared ? to_double(s.text, "precursor m/z") : 0.0;
    ion.charge = to_int(kept_or(a, "precursorCharge", "0"), "precursorCharge");
    std::string possible = kept_or(a, "possibleCharges", "");
    for (std::size_t at = 0; at < possible.size();) {
        std::size_t end = possible.find(',', at);
        end = end == std::string::npos ? possible.size() : end;
        ion.possible_charges.push_back(to_int(possible.substr(at, end - at), "possibleCharges"));
        at = end + 1;
    }
    if (!scan.has_precursor) {
        scan.has_precursor = true;
        std::string parent = kept_or(a, "precursorScanNum", "");
        scan.precursor_ref = parent.empty() ? "" : "scan=" + parent;
        scan.activation = mzxml_activation(kept_or(a, "activationMethod", ""));
    }
    if (declared) {
        scan.ions.push_back(std::move(ion));
    }
}

void end_mzxml_peaks(State& s) {
    RawSpectrum& scan = s.open_scans.back();
    const auto& a = s.peaks_attributes;
    const int bits = to_int(kept_or(a, "precision", "32"), "precision");
    if (bits != 32 && bits != 64) {
        throw std::runtime_error("peaks of precision " + std::to_string(bits) + " in " + scan.id);
    }
    EncodedArray pairs;
    pairs.kind = EncodedArray::kPairs;
    pairs.bytes = bits / 8;
    pairs.zlib = kept_or(a, "compressionType", "none") == "zlib";
    pairs.big_endian = true;
    // Every property of a scan comes before its peaks; nested scans follow,
    // so the scan is handed on as a copy.
    RawSpectrum handed = scan;
    add_array(handed, pairs, s.text);
    s.sink->spectrum(handed);
}

void end_mzxml(State& s, std::string_view name) {
    if (name == "precursorMz" && s.collecting) {
        s.collecting = false;
        end_mzxml_precursor(s);
    } else if (name == "peaks" && s.collecting) {
        s.collecting = false;
        end_mzxml_peaks(s);
    } else if (name == "scan" && !s.open_scans.empty()) {
        s.open_scans.pop_back();
    }
}

// ---- expat callbacks ------------------------------------------------------------

template <typename Step>
void guarded(State& s, Step step) {
    if (s.failure) {
        return;
    }
    // Nothing may unwind through the parser's C frames: the fault is kept
    // and raised again once the parser has returned.
    try {
        step();
    } catch (...) {
        s.failure = std::current_exception();
        XML_StopParser(s.parser, XML_FALSE);
    }
}

void XMLCALL on_start(void* data, const XML_Char* name, const XML_Char** attributes) {
    State& s = *static_cast<State*>(data);
    guarded(s, [&] {
        std::string_view local = local_name(name);
        if (s.contexts.empty() && s.open_scans.empty() && (local == "mzXML" || local == "msRun")) {
            s.mzxml = true;
        }
        if (s.mzxml) {
            start_mzxml(s, local, attributes);
        } else {
            start_mzml(s, local, attributes);
        }
    });
}

void XMLCALL on_end(void* data, const XML_Char* name) {
    State& s = *static_cast<State*>(data);
    guarded(s, [&] {
        if (s.mzxml) {
            end_mzxml(s, local_name(name));
        } else {
            end_mzml(s, local_name(name));
        }
    });
}

void XMLCALL on_text(void* data, const XML_Char* text, int length) {
    State& s = *static_cast<State*>(data);
    if (s.collecting) {
        s.text.append(text, static_cast<std::size_t>(length));
    }
}

void XMLCALL on_doctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    State& s = *static_cast<State*>(data);
    s.failure = std::make_exception_ptr(std::runtime_error(
        "the file declares a document type (<!DOCTYPE), which can define entities; entities "
        "are never resolved, so the file is refused"));
    XML_StopParser(s.parser, XML_FALSE);
}

}  // namespace

XmlReader::XmlReader() : m_state(std::make_unique<State>()) {}
XmlReader::~XmlReader() = default;

void XmlReader::read(const std::string& path, SpectrumSink& sink) {
    State& s = *m_state;
    s = State{};
    s.sink = &sink;
    gzFile file = gzopen(path.c_str(), "rb");  // reads plain files as they are
    if (file == nullptr) {
        throw std::runtime_error(std::string("cannot open the file: ") +
                                 std::strerror(errno != 0 ? errno : ENOMEM));
    }
    gzbuffer(file, kChunkBytes);
    std::unique_ptr<gzFile_s, int (*)(gzFile)> closer(file, gzclose);
    std::unique_ptr<XML_ParserStruct, void (*)(XML_Parser)> parser(XML_ParserCreate(nullptr),
                                                                   XML_ParserFree);
    if (!parser) {
        throw std::runtime_error("cannot start the XML parser");
    }
    s.parser = parser.get();
    XML_SetUserData(s.parser, &s);
    XML_SetElementHandler(s.parser, on_start, on_end);
    XML_SetCharacterDataHandler(s.parser, on_text);
    XML_SetStartDoctypeDeclHandler(s.parser, on_doctype);
    XML_SetParamEntityParsing(s.parser, XML_PARAM_ENTITY_PARSING_NEVER);
    for (bool last = false; !last;) {
        void* buffer = XML_GetBuffer(s.parser, static_cast<int>(kChunkBytes));
        if (buffer == nullptr) {
            throw std::runtime_error("out of memory while parsing");
        }
        int got = gzread(file, buffer, kChunkBytes);
        if (got < 0) {
            int code = 0;
            throw std::runtime_error(std::string("cannot read the file: ") + gzerror(file, &code));
        }
        last = got == 0;
        int code = Z_OK;
        if (last && (gzerror(file, &code), code == Z_BUF_ERROR)) {
            throw std::runtime_error(
                "the gzip stream is cut short before its check sum and length");
        }
        if (XML_ParseBuffer(s.parser, got, last) != XML_STATUS_OK) {
            if (s.failure) {
                std::rethrow_exception(s.failure);
            }
            throw std::runtime_error(std::string("not well-formed XML at line ") +
                                     std::to_string(XML_GetCurrentLineNumber(s.parser)) + ": " +
                                     XML_ErrorString(XML_GetErrorCode(s.parser)));
        }
    }
}

}  // namespace ksieve::spexor
