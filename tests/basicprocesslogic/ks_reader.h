// A reader of KS output written from the byte layout alone, so that the tests
// check the bytes on disk rather than the writers' own idea of them.
//
// Both record kinds share one shape: scan, peak count, (m/z, intensity) pairs,
// then a count and that many (float, int) pairs - the precursors of an MS2
// record, or the single (retention time, 1) entry that closes an MS1 record.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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
class ByteCursor {
  public:
    explicit ByteCursor(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            throw std::runtime_error("cannot read " + path);
        }
        m_bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    bool at_end() const { return m_pos == m_bytes.size(); }
    int64_t position() const { return static_cast<int64_t>(m_pos); }

    uint64_t field(size_t size) {
        if (m_pos + size > m_bytes.size()) {
            throw std::runtime_error("KS data ends inside a field");
        }
        uint64_t value = 0;
        for (size_t i = 0; i < size; ++i) {
            value |= static_cast<uint64_t>(m_bytes[m_pos++]) << (8 * i);
        }
        return value;
    }
    uint32_t u32() { return static_cast<uint32_t>(field(4)); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    double f64() {
        const uint64_t bits = field(8);
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

  private:
    std::vector<unsigned char> m_bytes;
    size_t m_pos = 0;
};

inline KsContents read_ks_file(const std::string& path) {
    ByteCursor cursor(path);
    KsContents contents;
    contents.count = cursor.u32();
    for (uint32_t length = cursor.u32(); length > 0; --length) {
        contents.title += static_cast<char>(cursor.field(1));
    }
    while (!cursor.at_end()) {
        KsRecord& record = contents.records.emplace_back();
        record.offset = cursor.position();
        record.scan = cursor.i32();
        for (uint32_t n = cursor.u32(); n > 0; --n) {
            const double mz = cursor.f64();
            record.peaks.emplace_back(mz, cursor.f64());
        }
        for (uint32_t p = cursor.u32(); p > 0; --p) {
            const double value = cursor.f64();
            record.tail.emplace_back(value, cursor.i32());
        }
    }
    return contents;
}

// The index beside a data file: one (scan, record offset) pair per record.
inline std::vector<std::pair<int32_t, int64_t>> read_ks_index(const std::string& path) {
    ByteCursor cursor(path);
    std::vector<std::pair<int32_t, int64_t>> entries;
    while (!cursor.at_end()) {
        const int32_t scan = cursor.i32();
        entries.emplace_back(scan, cursor.i32());
    }
    return entries;
}

}  // namespace kstest
