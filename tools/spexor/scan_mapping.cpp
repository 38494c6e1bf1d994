// How the spectra of an mzML/mzXML run become the scans of the text pair: their
// numbers, their parent survey scans, and the instrument and activation words
// that kSieve sorts its output by.
#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "scangate.h"
#include "spexor.h"

namespace ksieve::spexor {
namespace {

// The first blank-separated token of `text`.
std::string_view first_token(std::string_view text) {
    std::size_t begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        return {};
    }
    std::size_t end = text.find(' ', begin);
    return text.substr(begin, end == std::string_view::npos ? end : end - begin);
}

// The activation that a Thermo filter string chains after ETD in the same
// fragmentation step ("600.00@etd25.00@hcd20.00" gives "hcd"); "" when none.
std::string_view supplemental_after_etd(std::string_view filter) {
    std::size_t etd = filter.find("@etd");
    if (etd == std::string_view::npos) {
        return {};
    }
    std::size_t token_end = filter.find(' ', etd);
    std::string_view rest =
        filter.substr(etd + 4, token_end == std::string_view::npos ? std::string_view::npos
                                                                   : token_end - etd - 4);
    std::size_t next = rest.find('@');
    if (next == std::string_view::npos) {
        return {};
    }
    return rest.substr(next + 1, 3);
}

// Order of scans in (retention time, place in the file).
constexpr auto kByTime = [](const auto& a, const auto& b) {
    return a.rt_seconds < b.rt_seconds || (a.rt_seconds == b.rt_seconds && a.position < b.position);
};

}  // namespace

int scan_number_from_native_id(std::string_view native_id) {
    constexpr std::string_view kKey = "scan=";
    for (std::size_t at = native_id.find(kKey); at != std::string_view::npos;
         at = native_id.find(kKey, at + 1)) {
        if (at != 0 && native_id[at - 1] != ' ') {
            continue;  // part of a longer key such as "subscan="
        }
        long long value = 0;
        std::size_t i = at + kKey.size();
        std::size_t first_digit = i;
        while (i < native_id.size() && native_id[i] >= '0' && native_id[i] <= '9' &&
               value <= 2147483647LL) {
            value = value * 10 + (native_id[i] - '0');
            ++i;
        }
        bool ends_token = i == native_id.size() || native_id[i] == ' ';
        if (i > first_digit && ends_token && value <= 2147483647LL) {
            return static_cast<int>(value);
        }
    }
    return -1;
}

std::string instrument_type_of(std::string_view filter_string, RunAnalyzers scan_analyzers,
                               RunAnalyzers run_analyzers, int ms_level,
                               std::string_view activation_type) {
    std::string_view analyzer = first_token(filter_string);
    if (analyzer == "FTMS" || analyzer == "TOFMS") {
        return "FTMS";
    }
    if (analyzer == "ITMS") {
        return "ITMS";
    }
    const bool high_resolution = scan_analyzers.fourier_transform || scan_analyzers.time_of_flight;
    if (high_resolution != scan_analyzers.ion_trap) {
        return high_resolution ? "FTMS" : "ITMS";
    }
    const RunAnalyzers& run = run_analyzers;
    if (run.ion_trap && !run.fourier_transform && !run.time_of_flight) {
        return "ITMS";
    }
    if (run.time_of_flight && !run.fourier_transform && !run.ion_trap) {
        return "FTMS";
    }
    // No evidence for this scan: precursor detection needs high-resolution
    // survey scans, and HCD fragments are read out in the Orbitrap of a hybrid
    // while trap CID fragments stay in the trap.
    if (ms_level <= 1 || activation_type == "HCD") {
        return "FTMS";
    }
    return "ITMS";
}

std::string activation_type_of(const ActivationTerms& terms, std::string_view filter_string) {
    if (terms.ethcd) {
        return "ETHCD";
    }
    if (terms.electron_transfer) {
        // The supplemental energy's own type first, then a second method named
        // beside ETD, then the filter string's chain.
        if (terms.supplemental_beam_type) {
            return "ETHCD";
        }
        if (terms.supplemental_collision) {
            return "ETCID";
        }
        std::string_view chained = supplemental_after_etd(filter_string);
        if (terms.beam_type || chained == "hcd") {
            return "ETHCD";
        }
        if (terms.collision || chained == "cid") {
            return "ETCID";
        }
        return "ETD";
    }
    if (terms.beam_type) {
        return "HCD";
    }
    if (terms.collision) {
        return "CID";
    }
    return terms.other;
}

std::string inferred_activation_type(std::string_view run_activation,
                                     std::string_view filter_string, RunAnalyzers analyzers) {
    if (!run_activation.empty()) {
        return std::string(run_activation);
    }
    std::string_view analyzer = first_token(filter_string);
    if (analyzer == "FTMS" || analyzer == "TOFMS") {
        return "HCD";
    }
    if (analyzer == "ITMS") {
        return "CID";
    }
    const bool high_resolution = analyzers.fourier_transform || analyzers.time_of_flight;
    return high_resolution && !analyzers.ion_trap ? "HCD" : "CID";
}

bool gate_processes(std::string_view activation_type, std::string_view instrument_type) {
    // kSieve's reader looks at the first letter of the instrument word only.
    const char first = instrument_type.empty() ? '\0' : instrument_type.front();
    return gate_passes(activation_type, instrument_type_of_letter(first));
}

bool looks_like_profile(const std::vector<double>& mz) {
    constexpr std::size_t kMinPoints = 5;
    constexpr double kProfileSpacing = 0.05;
    if (mz.size() < kMinPoints) {
        return false;
    }
    std::size_t close = 0;
    for (std::size_t i = 1; i < mz.size(); ++i) {
        close += mz[i] - mz[i - 1] < kProfileSpacing ? 1 : 0;
    }
    return 2 * close > mz.size() - 1;
}

void append_declared_precursors(std::vector<DeclaredPrecursor>& out, double mz, int charge,
                                const std::vector<int>& possible_charges) {
    if (charge != 0) {
        out.push_back({mz, charge});
        return;
    }
    std::size_t before = out.size();
    for (int possible : possible_charges) {
        if (possible != 0) {
            out.push_back({mz, possible});
        }
    }
    if (out.size() == before) {
        out.push_back({mz, 2});
        out.push_back({mz, 3});
    }
}

int ScanNumbering::number(std::string_view native_id, int ms_level, std::size_t position) {
    if (!m_native) {
        return static_cast<int>(position + 1);
    }
    int number = scan_number_from_native_id(native_id);
    if (ms_level != 1 && ms_level != 2) {
        return number < 0 ? static_cast<int>(position + 1) : number;  // not written
    }
    if (number < 0 || number <= m_last[ms_level]) {
        return -1;
    }
    m_last[ms_level] = number;
    return number;
}

void SurveyScans::add(const std::string& native_id, int number, double rt_seconds,
                      std::size_t position) {
    Entry entry{rt_seconds, position, number};
    // Survey scans nearly always come in time order, so this is an append.
    m_by_time.insert(std::upper_bound(m_by_time.begin(), m_by_time.end(), entry, kByTime), entry);
    m_by_id.emplace(native_id, number);
}

int SurveyScans::parent_of(const std::string& spectrum_ref, double rt_seconds,
                           std::size_t position) const {
    if (!spectrum_ref.empty()) {
        auto named = m_by_id.find(spectrum_ref);
        if (named != m_by_id.end()) {
            return named->second;
        }
    }
    auto after = std::upper_bound(m_by_time.begin(), m_by_time.end(),
                                  Entry{rt_seconds, position, 0}, kByTime);
    return after == m_by_time.begin() ? 0 : (after - 1)->number;
}

}  // namespace ksieve::spexor
