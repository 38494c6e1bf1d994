// Readers of the two text tables: kSieve's precursor table and the simulator's
// truth.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "accuracy.h"

namespace ksieve::eval {

namespace {

constexpr const char* kTableHeaderStart = "ActivationType, InstrumentType, MS2Scan, OrigMZ";
// Fields before the first precursor; each precursor adds three.
constexpr size_t kLeadingFields = 6;

// Reads a text file line by line, dropping a carriage return before the line
// feed, and names the place of a fault.
class LineSource {
  public:
    explicit LineSource(const std::string& path) : m_path(path), m_in(path) {
        if (!m_in) {
            throw std::runtime_error("cannot read " + path);
        }
    }
    bool next(std::string& line) {
        if (!std::getline(m_in, line)) {
            return false;
        }
        ++m_line_number;
        if (!line.empty() && line.back() == '\r') {
            line.pop_back();
        }
        return true;
    }
    [[noreturn]] void fail(const std::string& what) const {
        throw std::runtime_error(m_path + ", line " + std::to_string(m_line_number) + ": " + what);
    }

  private:
    std::string m_path;
    std::ifstream m_in;
    int64_t m_line_number = 0;
};

std::string trim_blanks(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Fields separated by commas, each trimmed of blanks.
std::vector<std::string> split_fields(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (size_t comma = line.find(','); comma != std::string::npos; comma = line.find(',', start)) {
        fields.push_back(trim_blanks(line.substr(start, comma - start)));
        start = comma + 1;
    }
    fields.push_back(trim_blanks(line.substr(start)));
    return fields;
}

double to_double(const std::string& field, const LineSource& source) {
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(field.c_str(), &end);
    if (field.empty() || *end != '\0' || errno != 0) {
        source.fail("'" + field + "' is not a number");
    }
    return value;
}

int32_t to_int(const std::string& field, const LineSource& source) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(field.c_str(), &end, 10);
    if (field.empty() || *end != '\0' || errno != 0 || value < INT32_MIN || value > INT32_MAX) {
        source.fail("'" + field + "' is not an integer");
    }
    return static_cast<int32_t>(value);
}

TableRow parse_table_row(const std::string& line, const LineSource& source) {
    std::vector<std::string> fields = split_fields(line);
    // Every field, the last one too, is followed by ", ": the piece after the
    // last comma is empty.
    if (fields.back().empty()) {
        fields.pop_back();
    }
    if (fields.size() < kLeadingFields) {
        source.fail("a row needs at least " + std::to_string(kLeadingFields) + " fields");
    }
    TableRow row;
    row.m_scan = to_int(fields[2], source);
    row.m_declared = {to_double(fields[3], source), to_int(fields[4], source)};
    const int32_t count = to_int(fields[5], source);
    if (count < 0 || fields.size() != kLeadingFields + 3 * static_cast<size_t>(count)) {
        source.fail("the row announces " + fields[5] + " precursors but holds " +
                    std::to_string(fields.size() - kLeadingFields) + " fields after the count");
    }
    for (size_t i = kLeadingFields; i < fields.size(); i += 3) {
        row.m_precursors.push_back(
            {to_double(fields[i + 1], source), to_int(fields[i + 2], source)});
    }
    return row;
}

size_t column_of(const std::vector<std::string>& header, const std::string& name,
                 const LineSource& source) {
    const auto found = std::find(header.begin(), header.end(), name);
    if (found == header.end()) {
        source.fail("no column " + name);
    }
    return static_cast<size_t>(found - header.begin());
}

}  // namespace

std::vector<TableRow> read_precursor_table(const std::string& path) {
    LineSource source(path);
    std::string line;
    if (!source.next(line) || line.rfind(kTableHeaderStart, 0) != 0) {
        source.fail("not a kSieve precursor table");
    }
    std::vector<TableRow> rows;
    while (source.next(line)) {
        rows.push_back(parse_table_row(line, source));
    }
    return rows;
}

TruthTable read_truth_table(const std::string& path) {
    LineSource source(path);
    std::string line;
    if (!source.next(line)) {
        source.fail("empty file");
    }
    const std::vector<std::string> header = split_fields(line);
    const size_t scan = column_of(header, "ms2_scan", source);
    const size_t charge = column_of(header, "charge", source);
    const size_t mz = column_of(header, "mono_mz", source);
    const size_t share = column_of(header, "window_share", source);
    TruthTable truth;
    while (source.next(line)) {
        const std::vector<std::string> fields = split_fields(line);
        if (fields.size() != header.size()) {
            source.fail("expected " + std::to_string(header.size()) + " fields");
        }
        truth[to_int(fields[scan], source)].push_back(
            {{to_double(fields[mz], source), to_int(fields[charge], source)},
             to_double(fields[share], source)});
    }
    for (auto& [number, ions] : truth) {
        std::stable_sort(ions.begin(), ions.end(), [](const TruthIon& a, const TruthIon& b) {
            return a.m_share > b.m_share;
        });
    }
    return truth;
}

}  // namespace ksieve::eval
