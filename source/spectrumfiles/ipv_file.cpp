#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

std::string whole_file(std::FILE* file) {
    std::string text;
    char buffer[65536];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
        text.append(buffer, got);
    }
    return text;
}

}  // namespace

std::vector<IpvRow> read_ipv_file(std::string path) {
    std::FILE* file = open_file(path, "r", "IPV Store");
    const std::string text = whole_file(file);
    const bool failed = std::ferror(file) != 0;
    std::fclose(file);
    if (failed) {
        throw "Cannot read IPV Store File, Path: " + path;
    }
    std::vector<IpvRow> rows(kIpvRows, IpvRow{});
    // The file is a plain stream of numbers; lines count only to name a bad one.
    // An empty table, junk or a value that is not finite would leave detection
    // without isotope patterns and every scan without a precursor.
    const auto refuse = [&](int line, const char* what) {
        throw "Bad IPV Store File, Path: " + path + ", line " + std::to_string(line) + ": " + what;
    };
    const char* at = text.c_str();
    const char* const end = at + text.size();
    int line = 1;
    std::size_t count = 0;
    for (; count < rows.size() * kIpvColumns; ++count) {
        for (; at < end && std::isspace(static_cast<unsigned char>(*at)); ++at) {
            line += *at == '\n' ? 1 : 0;
        }
        if (at == end) {
            break;  // a table cut short keeps the rows it has
        }
        char* after = nullptr;
        const double value = std::strtod(at, &after);
        if (after == at) {
            refuse(line, "not a number");
        }
        if (!std::isfinite(value)) {
            refuse(line, "not a finite number");
        }
        rows[count / kIpvColumns][count % kIpvColumns] = value;
        at = after;
    }
    if (count == 0) {
        refuse(line, "no number");
    }
    return rows;
}

}  // namespace ksieve
