#include <algorithm>
#include <cstring>

#include "encoding.h"

namespace ksieve {

namespace {

constexpr int32_t kWindow = 32768;
constexpr int32_t kMinMatch = 3;
constexpr int32_t kMaxMatch = 258;
constexpr int kHashBits = 15;
// Candidates tried per position: deeper chains find little more in peak arrays,
// whose bytes repeat mostly in the high bytes of neighbouring numbers.
constexpr int kChainDepth = 4;
constexpr std::size_t kStoredBlockMax = 65535;
constexpr std::size_t kProbeSize = 4096;
constexpr std::size_t kProbeGainPercent = 97;  // the trial must come out below this share

constexpr std::array<uint16_t, 29> kLengthBase = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                                  15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                                  67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr std::array<uint8_t, 29> kLengthExtra = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                                  2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr std::array<uint16_t, 30> kDistanceBase = {
    1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr std::array<uint8_t, 30> kDistanceExtra = {0, 0, 0,  0,  1,  1,  2,  2,  3,  3,
                                                    4, 4, 5,  5,  6,  6,  7,  7,  8,  8,
                                                    9, 9, 10, 10, 11, 11, 12, 12, 13, 13};

// Bits go out least significant first; Huffman codes are reversed before they
// are put, as deflate sends them most significant bit first.
class BitWriter {
  public:
    explicit BitWriter(std::string& out) : m_out(out) {}
    void put(uint32_t bits, int count) {
        m_bits |= static_cast<uint64_t>(bits) << m_count;
        m_count += count;
        while (m_count >= 8) {
            m_out.push_back(static_cast<char>(m_bits & 0xFF));
            m_bits >>= 8;
            m_count -= 8;
        }
    }
    void flush() {
        if (m_count > 0) {
            m_out.push_back(static_cast<char>(m_bits & 0xFF));
        }
        m_bits = 0;
        m_count = 0;
    }

  private:
    std::string& m_out;
    uint64_t m_bits = 0;
    int m_count = 0;
};

constexpr uint32_t reverse_bits(uint32_t code, int length) {
    uint32_t reversed = 0;
    for (int i = 0; i < length; ++i) {
        reversed = (reversed << 1) | ((code >> i) & 1U);
    }
    return reversed;
}

struct Code {
    uint16_t m_bits = 0;  // reversed, ready to put
    uint8_t m_length = 0;
};

// The fixed literal/length code of RFC 1951, 3.2.6.
constexpr std::array<Code, 288> kFixedCodes = [] {
    std::array<Code, 288> codes{};
    for (uint32_t symbol = 0; symbol < 288; ++symbol) {
        uint32_t code = 0;
        int length = 8;
        if (symbol <= 143) {
            code = 0x30 + symbol;
        } else if (symbol <= 255) {
            code = 0x190 + symbol - 144;
            length = 9;
        } else if (symbol <= 279) {
            code = symbol - 256;
            length = 7;
        } else {
            code = 0xC0 + symbol - 280;
        }
        codes[symbol] = {static_cast<uint16_t>(reverse_bits(code, length)),
                         static_cast<uint8_t>(length)};
    }
    return codes;
}();

void put_literal_or_length(BitWriter& bits, uint32_t symbol) {
    bits.put(kFixedCodes[symbol].m_bits, kFixedCodes[symbol].m_length);
}

// The index of the code whose base is the largest not above `value`, for every
// value up to `Size - 1`.
template <std::size_t Size, std::size_t N>
constexpr std::array<uint8_t, Size> code_table(const std::array<uint16_t, N>& bases) {
    std::array<uint8_t, Size> table{};
    std::size_t code = 0;
    for (std::size_t value = 0; value < Size; ++value) {
        while (code + 1 < N && bases[code + 1] <= value) {
            ++code;
        }
        table[value] = static_cast<uint8_t>(code);
    }
    return table;
}
constexpr auto kLengthCode = code_table<kMaxMatch + 1>(kLengthBase);
constexpr auto kDistanceCode = code_table<kWindow + 1>(kDistanceBase);

void put_match(BitWriter& bits, int32_t length, int32_t distance) {
    const std::size_t l = kLengthCode[static_cast<std::size_t>(length)];
    put_literal_or_length(bits, static_cast<uint32_t>(257 + l));
    bits.put(static_cast<uint32_t>(length - kLengthBase[l]), kLengthExtra[l]);
    const std::size_t d = kDistanceCode[static_cast<std::size_t>(distance)];
    bits.put(reverse_bits(static_cast<uint32_t>(d), 5), 5);
    bits.put(static_cast<uint32_t>(distance - kDistanceBase[d]), kDistanceExtra[d]);
}

uint32_t hash3(const unsigned char* p) {
    const uint32_t v = (uint32_t{p[0]} << 16) | (uint32_t{p[1]} << 8) | p[2];
    return (v * 2654435761U) >> (32 - kHashBits);
}

struct Match {
    int32_t m_length = 0;
    int32_t m_distance = 0;
};

// Stored positions below the current call's base are of an earlier array.
int32_t position_of(const DeflateScratch& scratch, int64_t stored) {
    const int64_t pos = stored - scratch.m_base;
    return pos < 0 ? -1 : static_cast<int32_t>(pos);
}

Match longest_match(const unsigned char* data, int32_t size, int32_t pos,
                    const DeflateScratch& scratch, int32_t candidate) {
    Match best;
    const int32_t limit = std::min(kMaxMatch, size - pos);
    for (int depth = 0; depth < kChainDepth && candidate >= 0 && pos - candidate <= kWindow;
         ++depth) {
        int32_t length = 0;
        while (length < limit && data[candidate + length] == data[pos + length]) {
            ++length;
        }
        if (length > best.m_length) {
            best = {length, pos - candidate};
            if (length == limit) {
                break;
            }
        }
        candidate =
            position_of(scratch, scratch.m_prev[static_cast<std::size_t>(candidate % kWindow)]);
    }
    return best;
}

void insert_position(const unsigned char* data, int32_t pos, DeflateScratch& scratch) {
    int64_t& head = scratch.m_head[hash3(data + pos)];
    scratch.m_prev[static_cast<std::size_t>(pos % kWindow)] = head;
    head = scratch.m_base + pos;
}

// One final block with the fixed codes, greedy matching.
void fixed_block(const unsigned char* data, int32_t size, std::string& out,
                 DeflateScratch& scratch) {
    if (scratch.m_head.empty()) {
        scratch.m_head.assign(std::size_t{1} << kHashBits, -1);
        scratch.m_prev.assign(kWindow, -1);
    }
    BitWriter bits(out);
    bits.put(1, 1);  // final block
    bits.put(1, 2);  // fixed Huffman codes
    int32_t pos = 0;
    while (pos < size) {
        Match match;
        if (pos + kMinMatch <= size) {
            const int32_t candidate = position_of(scratch, scratch.m_head[hash3(data + pos)]);
            match = longest_match(data, size, pos, scratch, candidate);
            insert_position(data, pos, scratch);
        }
        if (match.m_length < kMinMatch) {
            put_literal_or_length(bits, data[pos++]);
            continue;
        }
        put_match(bits, match.m_length, match.m_distance);
        const int32_t end = pos + match.m_length;
        for (++pos; pos < end; ++pos) {
            if (pos + kMinMatch <= size) {
                insert_position(data, pos, scratch);
            }
        }
    }
    put_literal_or_length(bits, 256);  // end of block
    bits.flush();
    scratch.m_base += int64_t{size} + kWindow + 1;
}

// Numbers with full mantissas, as most peak arrays hold, do not shrink under the
// fixed codes; a trial on the first kProbeSize bytes spares coding the rest in
// vain. Short arrays are always tried whole.
bool worth_compressing(const unsigned char* data, std::size_t size, std::string& out,
                       DeflateScratch& scratch) {
    if (size <= 2 * kProbeSize) {
        return true;
    }
    const std::size_t start = out.size();
    fixed_block(data, static_cast<int32_t>(kProbeSize), out, scratch);
    const bool shrinks = (out.size() - start) * 100 < kProbeSize * kProbeGainPercent;
    out.resize(start);
    return shrinks;
}

void stored_blocks(const unsigned char* data, std::size_t size, std::string& out) {
    std::size_t pos = 0;
    do {
        const std::size_t length = std::min(kStoredBlockMax, size - pos);
        const bool last = pos + length == size;
        out.push_back(static_cast<char>(last ? 1 : 0));  // BFINAL, type 00, byte aligned
        const auto len16 = static_cast<uint16_t>(length);
        const auto nlen16 = static_cast<uint16_t>(~len16);
        const char header[4] = {static_cast<char>(len16 & 0xFF), static_cast<char>(len16 >> 8),
                                static_cast<char>(nlen16 & 0xFF), static_cast<char>(nlen16 >> 8)};
        out.append(header, 4);
        out.append(reinterpret_cast<const char*>(data) + pos, length);
        pos += length;
    } while (pos < size);
}

}  // namespace

uint32_t adler32(const unsigned char* data, std::size_t size) {
    constexpr uint32_t kModulus = 65521;
    // 5552 bytes is the most that can be summed before 32 bits could overflow.
    constexpr std::size_t kRun = 5552;
    uint32_t a = 1;
    uint32_t b = 0;
    while (size > 0) {
        const std::size_t run = std::min(size, kRun);
        for (std::size_t i = 0; i < run; ++i) {
            a += data[i];
            b += a;
        }
        a %= kModulus;
        b %= kModulus;
        data += run;
        size -= run;
    }
    return (b << 16) | a;
}

void zlib_compress(const unsigned char* data, std::size_t size, std::string& out,
                   DeflateScratch& scratch) {
    out.push_back(static_cast<char>(0x78));  // deflate, 32 KiB window
    out.push_back(static_cast<char>(0x01));  // no dictionary, check bits
    const std::size_t start = out.size();
    // Arrays beyond 2 GiB are not peak lists; they are stored, which is always valid.
    if (size <= static_cast<std::size_t>(INT32_MAX / 2) &&
        worth_compressing(data, size, out, scratch)) {
        fixed_block(data, static_cast<int32_t>(size), out, scratch);
    }
    const std::size_t stored_size = size + 5 * (size / kStoredBlockMax + 1);
    if (out.size() == start || out.size() - start >= stored_size) {
        out.resize(start);
        stored_blocks(data, size, out);
    }
    const uint32_t check = adler32(data, size);
    const char trailer[4] = {
        static_cast<char>(check >> 24), static_cast<char>((check >> 16) & 0xFF),
        static_cast<char>((check >> 8) & 0xFF), static_cast<char>(check & 0xFF)};
    out.append(trailer, 4);
}

}  // namespace ksieve
