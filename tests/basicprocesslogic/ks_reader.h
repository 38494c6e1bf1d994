// A reader of KS output written from the byte layout alone, so that the test
// checks the bytes on disk rather than the writers' own idea of them.
//
// Both record kinds share one shape: scan, peak count, (m/z, intensity) pairs,
// then a count and that many (float, int) pairs - the precursors of an MS2
// record, or the single (retention time, 1) entry that closes an MS1 record.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"

namespace kstest {

struct KsRecord {
    int32_t scan = 0;
    std::vector<std::pair<double, double>> peaks;
    std::vector<std::pair<double, int32_t>> tail;
    int64_t offset = 0;  // where the record starts in the data file
};

struct KsContents {
    uint32_t count = 0;
    std::string title;
    std::vector<KsRecord> records;
};

// Little-endian fields, assembled byte by byte whatever the host order.
struct ByteCursor {
    std::string bytes;
    size_t pos = 0;

    uint64_t field(size_t size) {
        if (pos + size > bytes.size()) {
            throw std::runtime_error("KS data ends inside a field");
        }
        uint64_t value = 0;
        for (size_t i = 0; i < size; ++i) {
            value |= uint64_t{static_cast<unsigned char>(bytes[pos++])} << (8 * i);
        }
        return value;
    }
    int32_t i32() { return static_cast<int32_t>(field(4)); }
    double f64() {
        const uint64_t bits = field(8);
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
};

inline KsContents read_ks_file(const std::string& path) {
    ByteCursor in{ksieve::test::read_file(path)};
    KsContents contents;
    contents.count = static_cast<uint32_t>(in.field(4));
    const size_t title_length = in.field(4);
    contents.title = in.bytes.substr(in.pos, title_length);
    in.pos += title_length;
    while (in.pos < in.bytes.size()) {
        KsRecord& record = contents.records.emplace_back();
        record.offset = static_cast<int64_t>(in.pos);
        record.scan = in.i32();
        for (uint64_t n = in.field(4); n > 0; --n) {
            const double mz = in.f64();
            record.peaks.emplace_back(mz, in.f64());
        }
        for (uint64_t p = in.field(4); p > 0; --p) {
            const double value = in.f64();
            record.tail.emplace_back(value, in.i32());
        }
    }
    return contents;
}

// The index beside a data file: one (scan, record offset) pair per record.
inline std::vector<std::pair<int32_t, int64_t>> read_ks_index(const std::string& path) {
    ByteCursor in{ksieve::test::read_file(path)};
    std::vector<std::pair<int32_t, int64_t>> entries;
    while (in.pos < in.bytes.size()) {
        const int32_t scan = in.i32();
        entries.emplace_back(scan, in.i32());
    }
    return entries;
}

}  // namespace kstest
