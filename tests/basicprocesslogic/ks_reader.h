// A reader of KS output written from the byte layout alone, so that the tests check
// the bytes on disk rather than the writers' own idea of them. Both record kinds
// share one shape: scan, peak count, (m/z, intensity) pairs, then a count and that
// many (float, int) pairs - the precursors of an MS2 record, or the single
// (retention time, 1) entry that closes an MS1 record.
#pragma once

#include <gtest/gtest.h>

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

// The data file, its record count checked, and the index beside it checked
// too: one (scan, record offset) pair per record, in record order.
inline KsContents read_ks_file(const std::string& path) {
    ByteCursor in{ksieve::test::read_file(path)};
    KsContents contents;
    const uint64_t count = in.field(4);
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
    EXPECT_EQ(count, contents.records.size()) << path;
    ByteCursor index{ksieve::test::read_file(path + "idx")};
    EXPECT_EQ(index.bytes.size(), 8 * contents.records.size()) << path;
    for (size_t i = 0; i < contents.records.size() && index.pos < index.bytes.size(); ++i) {
        EXPECT_EQ(index.i32(), contents.records[i].scan) << path << " entry " << i;
        EXPECT_EQ(index.i32(), contents.records[i].offset) << path << " entry " << i;
    }
    return contents;
}

}  // namespace kstest
