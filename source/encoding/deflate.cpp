#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "encoding.h"

namespace ksieve {

namespace {

constexpr int32_t kWindow = 32768;
constexpr int32_t kMinMatch = 3;
constexpr int32_t kMaxMatch = 258;
constexpr int kHashBits = 14;
constexpr std::size_t kStoredBlockMax = 65535;
// Input per block: each block gets codes of its own, and the symbols of one block
// wait in the scratch, so a long array costs no more memory than this. Whole
// stored blocks, so that a long array that does not shrink costs no more
// stored-block headers than if it were stored in one piece.
constexpr std::size_t kBlockInput = 4 * kStoredBlockMax;
constexpr int kLiteralLengthSymbols = 286;
constexpr int kDistanceSymbols = 30;
constexpr int kCodeLengthSymbols = 19;
constexpr int kMaxCodeBits = 15;
constexpr int kMaxCodeLengthBits = 7;
constexpr uint32_t kEndOfBlock = 256;
// A symbol of the parse: a literal byte, or a match with this bit set, its
// length in bits 16 to 24 and its distance below.
constexpr uint32_t kMatchFlag = 1U << 31;

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
// The order in which a dynamic block sends the lengths of the code-length code.
constexpr std::array<uint8_t, kCodeLengthSymbols> kCodeLengthOrder = {
    16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};

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

// Bits go out least significant first, into room the caller has made in `out`
// beyond `at`; Huffman codes are reversed before they are put, as deflate
// sends them most significant bit first. Every put stores the whole 64-bit
// word and keeps its whole bytes, so the caller leaves kWriterRoom bytes beyond
// the bits it will put.
constexpr std::size_t kWriterRoom = 16;

// Where the bits go and those that wait for a whole byte: a loop that puts many
// codes keeps a copy of its own, so that the word stays in a register while
// bytes are stored.
struct BitCursor {
    char* m_at;
    uint64_t m_bits;
    int m_count;
    // At most 56 bits at a time: they go beside the up to seven bits that still
    // wait for a whole byte.
    void put(uint64_t bits, int count) {
        m_bits |= bits << m_count;
        m_count += count;
        if constexpr (std::endian::native == std::endian::little) {
            std::memcpy(m_at, &m_bits, 8);
        } else {
            for (int i = 0; i < 8; ++i) {
                m_at[i] = static_cast<char>((m_bits >> (8 * i)) & 0xFF);
            }
        }
        m_at += m_count >> 3;
        m_bits >>= m_count & ~7;
        m_count &= 7;
    }
};

class BitWriter {
  public:
    BitWriter(std::string& out, std::size_t at) : m_out(out), m_at(at) {}
    void put(uint64_t bits, int count) {
        BitCursor here = cursor();
        here.put(bits, count);
        resume(here);
    }
    // Valid until `out` is resized.
    BitCursor cursor() { return {m_out.data() + m_at, m_bits, m_count}; }
    void resume(const BitCursor& here) {
        m_at = static_cast<std::size_t>(here.m_at - m_out.data());
        m_bits = here.m_bits;
        m_count = here.m_count;
    }
    // Pads to a whole byte and returns where the next byte goes.
    std::size_t align() {
        for (; m_count > 0; m_count -= 8) {
            m_out[m_at++] = static_cast<char>(m_bits & 0xFF);
            m_bits >>= 8;
        }
        m_bits = 0;
        m_count = 0;
        return m_at;
    }
    // After align: whole bytes written straight.
    void skip(std::size_t bytes) { m_at += bytes; }

  private:
    std::string& m_out;
    std::size_t m_at;
    uint64_t m_bits = 0;
    int m_count = 0;
};

// The low `length` bits of `code` (at most 16) in reverse order.
constexpr uint32_t reverse_bits(uint32_t code, int length) {
    code = ((code & 0x5555U) << 1) | ((code >> 1) & 0x5555U);
    code = ((code & 0x3333U) << 2) | ((code >> 2) & 0x3333U);
    code = ((code & 0x0F0FU) << 4) | ((code >> 4) & 0x0F0FU);
    code = ((code & 0x00FFU) << 8) | ((code >> 8) & 0x00FFU);
    return code >> (16 - length);
}

// One Huffman code: by symbol, its bits (reversed, ready to put) and length.
template <std::size_t Symbols>
struct HuffmanCode {
    std::array<uint16_t, Symbols> m_bits{};
    std::array<uint8_t, Symbols> m_lengths{};
};

// The canonical codes of RFC 1951, 3.2.2, for the lengths already set.
template <std::size_t Symbols>
void assign_codes(HuffmanCode<Symbols>& code) {
    std::array<uint32_t, kMaxCodeBits + 1> count{};
    for (const uint8_t length : code.m_lengths) {
        ++count[length];
    }
    count[0] = 0;
    std::array<uint32_t, kMaxCodeBits + 1> next{};
    uint32_t value = 0;
    for (std::size_t bits = 1; bits <= kMaxCodeBits; ++bits) {
        value = (value + count[bits - 1]) << 1;
        next[bits] = value;
    }
    for (std::size_t symbol = 0; symbol < Symbols; ++symbol) {
        const uint8_t length = code.m_lengths[symbol];
        if (length > 0) {
            code.m_bits[symbol] = static_cast<uint16_t>(reverse_bits(next[length]++, length));
        }
    }
}

// The fixed literal/length and distance codes of RFC 1951, 3.2.6.
const HuffmanCode<288>& fixed_literal_code() {
    static const HuffmanCode<288> code = [] {
        HuffmanCode<288> fixed;
        for (std::size_t symbol = 0; symbol < 288; ++symbol) {
            fixed.m_lengths[symbol] = symbol <= 143 ? 8 : symbol <= 255 ? 9 : symbol <= 279 ? 7 : 8;
        }
        assign_codes(fixed);
        return fixed;
    }();
    return code;
}

const HuffmanCode<kDistanceSymbols>& fixed_distance_code() {
    static const HuffmanCode<kDistanceSymbols> code = [] {
        HuffmanCode<kDistanceSymbols> fixed;
        fixed.m_lengths.fill(5);
        assign_codes(fixed);
        return fixed;
    }();
    return code;
}

// Code lengths of a Huffman code for `freq`, none above `limit`: the two-queue
// construction over the symbols in order of frequency; when it comes out too
// deep, the frequencies are halved (never to zero) and it is built again. A
// lone symbol gets length 1, as inflaters require.
constexpr int kSymbolBits = 9;
constexpr uint32_t kSymbolMask = (1U << kSymbolBits) - 1;
static_assert(kBlockInput + kMaxMatch < (std::size_t{1} << (32 - kSymbolBits)));

// Sorts the first `used` words of `keys` in place by their value, given them in
// order of their low kSymbolBits bits: stably by the bits above, a byte at a
// time from the lowest, skipping bytes that are the same in every word. A code's
// few hundred symbols sort in a fraction of the time of a comparison sort.
template <std::size_t Symbols>
void radix_sort(std::array<uint32_t, Symbols>& keys, std::size_t used) {
    std::array<uint32_t, Symbols> other;
    uint32_t* from = keys.data();
    uint32_t* to = other.data();
    for (int shift = kSymbolBits; shift < 32; shift += 8) {
        std::array<uint32_t, 257> start{};
        for (std::size_t i = 0; i < used; ++i) {
            ++start[((from[i] >> shift) & 0xFF) + 1];
        }
        if (start[((from[0] >> shift) & 0xFF) + 1] == used) {
            continue;
        }
        for (std::size_t b = 1; b < start.size(); ++b) {
            start[b] += start[b - 1];
        }
        for (std::size_t i = 0; i < used; ++i) {
            to[start[(from[i] >> shift) & 0xFF]++] = from[i];
        }
        std::swap(from, to);
    }
    if (from != keys.data()) {
        std::copy_n(from, used, keys.data());
    }
}

template <std::size_t Symbols>
void build_lengths(const std::array<uint32_t, Symbols>& counts, int limit,
                   std::array<uint8_t, Symbols>& lengths) {
    std::array<uint32_t, Symbols> freq = counts;
    // Sorted as frequency above the symbol in one word: ties go by symbol.
    std::array<uint32_t, Symbols> order{};
    std::array<uint64_t, 2 * Symbols> weight{};
    std::array<uint16_t, 2 * Symbols> parent{};
    std::array<uint8_t, 2 * Symbols> depth{};
    while (true) {
        lengths.fill(0);
        std::size_t used = 0;
        for (std::size_t symbol = 0; symbol < Symbols; ++symbol) {
            if (freq[symbol] > 0) {
                order[used++] = (freq[symbol] << kSymbolBits) | static_cast<uint32_t>(symbol);
            }
        }
        if (used < 2) {
            if (used == 1) {
                lengths[order[0] & kSymbolMask] = 1;
            }
            return;
        }
        radix_sort(order, used);
        for (std::size_t i = 0; i < used; ++i) {
            weight[i] = order[i] >> kSymbolBits;
            order[i] &= kSymbolMask;
        }
        std::size_t leaf = 0;
        std::size_t inner = used;
        const auto smallest = [&](std::size_t made) {
            if (leaf < used && (inner >= made || weight[leaf] <= weight[inner])) {
                return leaf++;
            }
            return inner++;
        };
        for (std::size_t made = used; made < 2 * used - 1; ++made) {
            const std::size_t a = smallest(made);
            const std::size_t b = smallest(made);
            weight[made] = weight[a] + weight[b];
            parent[a] = parent[b] = static_cast<uint16_t>(made);
        }
        depth[2 * used - 2] = 0;
        int deepest = 0;
        for (std::size_t node = 2 * used - 2; node-- > 0;) {
            depth[node] = static_cast<uint8_t>(depth[parent[node]] + 1);
            deepest = std::max<int>(deepest, depth[node]);
        }
        if (deepest <= limit) {
            for (std::size_t i = 0; i < used; ++i) {
                lengths[order[i]] = depth[i];
            }
            return;
        }
        for (uint32_t& f : freq) {
            f = f == 0 ? 0 : (f + 1) / 2;
        }
    }
}

// A slot of the match finder's tables for up to four bytes.
uint32_t hash_slot(uint32_t bytes) {
    return (bytes * 0x9E3779B1U) >> (32 - kHashBits);
}

uint32_t hash3(const unsigned char* p) {
    return hash_slot(uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16));
}

// How many leading bytes of `a` and `b` agree, up to `limit`.
int32_t common_length(const unsigned char* a, const unsigned char* b, int32_t limit) {
    int32_t length = 0;
    if constexpr (std::endian::native == std::endian::little) {
        for (; length + 8 <= limit; length += 8) {
            uint64_t x = 0;
            uint64_t y = 0;
            std::memcpy(&x, a + length, 8);
            std::memcpy(&y, b + length, 8);
            if (x != y) {
                return length + std::countr_zero(x ^ y) / 8;
            }
        }
    }
    while (length < limit && a[length] == b[length]) {
        ++length;
    }
    return length;
}

// What one block's parse found, and what each kind of block would cost.
struct BlockStats {
    std::array<uint32_t, kLiteralLengthSymbols> m_literal_freq{};
    std::array<uint32_t, kDistanceSymbols> m_distance_freq{};
    uint64_t m_extra_bits = 0;  // of lengths and distances, the same under any code
};

// Greedy parse with one probe per position: the last position of the same three
// bytes, if within the window and of this array. Peak arrays repeat mostly the
// high bytes of neighbouring numbers, which one probe finds as well as many.
// Parses from `pos` until at least `target`, adding to the symbols and counts
// of the block so far; returns where it stopped.
int32_t parse_block(const unsigned char* data, int32_t size, int32_t pos, int32_t target,
                    DeflateScratch& scratch, BlockStats& stats) {
    std::vector<uint32_t>& symbols = scratch.m_symbols;
    uint32_t* head = scratch.m_head.data();
    const uint32_t base = scratch.m_base;
    while (pos < target) {
        if (pos + kMinMatch <= size) {
            uint32_t& slot = head[hash3(data + pos)];
            const uint32_t stored = slot;
            slot = base + static_cast<uint32_t>(pos) + 1;
            const int32_t candidate = static_cast<int32_t>(stored - base) - 1;
            if (stored > base && pos - candidate <= kWindow) {
                const int32_t length =
                    common_length(data + candidate, data + pos, std::min(kMaxMatch, size - pos));
                if (length >= kMinMatch) {
                    const int32_t distance = pos - candidate;
                    symbols.push_back(kMatchFlag | (static_cast<uint32_t>(length) << 16) |
                                      static_cast<uint32_t>(distance));
                    const uint8_t l = kLengthCode[static_cast<std::size_t>(length)];
                    const uint8_t d = kDistanceCode[static_cast<std::size_t>(distance)];
                    ++stats.m_literal_freq[257U + l];
                    ++stats.m_distance_freq[d];
                    stats.m_extra_bits += kLengthExtra[l] + kDistanceExtra[d];
                    const int32_t end = pos + length;
                    for (++pos; pos < end && pos + kMinMatch <= size; ++pos) {
                        head[hash3(data + pos)] = base + static_cast<uint32_t>(pos) + 1;
                    }
                    pos = end;
                    continue;
                }
            }
        }
        symbols.push_back(data[pos]);
        ++stats.m_literal_freq[data[pos]];
        ++pos;
    }
    return pos;
}

// A dynamic block's header: the code lengths of both codes as one sequence,
// runs coded with the repeat symbols 16, 17 and 18.
struct DynamicHeader {
    HuffmanCode<kLiteralLengthSymbols> m_literal;
    HuffmanCode<kDistanceSymbols> m_distance;
    HuffmanCode<kCodeLengthSymbols> m_code_length;
    std::size_t m_literal_count = 257;
    std::size_t m_distance_count = 1;
    std::size_t m_code_length_count = 4;
    // Run-coded lengths: the symbol, its extra bits' value and their number.
    std::array<std::array<uint8_t, 3>, kLiteralLengthSymbols + kDistanceSymbols> m_items{};
    std::size_t m_item_count = 0;
    uint64_t m_bits = 0;  // the header after the three block bits
};

void add_item(DynamicHeader& header, uint8_t symbol, uint8_t value, uint8_t bits) {
    header.m_items[header.m_item_count++] = {symbol, value, bits};
}

void run_code_lengths(DynamicHeader& header, const uint8_t* lengths, std::size_t count) {
    for (std::size_t i = 0; i < count;) {
        const uint8_t length = lengths[i];
        std::size_t run = 1;
        while (i + run < count && lengths[i + run] == length && run < 138) {
            ++run;
        }
        i += run;
        if (length == 0 && run >= 11) {
            add_item(header, 18, static_cast<uint8_t>(run - 11), 7);
            continue;
        }
        if (length == 0 && run >= 3) {
            add_item(header, 17, static_cast<uint8_t>(run - 3), 3);
            continue;
        }
        add_item(header, length, 0, 0);
        for (--run; length != 0 && run >= 3;) {
            const std::size_t take = std::min<std::size_t>(run, 6);
            add_item(header, 16, static_cast<uint8_t>(take - 3), 2);
            run -= take;
        }
        for (; run > 0; --run) {
            add_item(header, length, 0, 0);
        }
    }
}

void plan_dynamic(const BlockStats& stats, DynamicHeader& header) {
    build_lengths(stats.m_literal_freq, kMaxCodeBits, header.m_literal.m_lengths);
    build_lengths(stats.m_distance_freq, kMaxCodeBits, header.m_distance.m_lengths);
    if (header.m_distance.m_lengths[0] == 0 &&
        std::all_of(header.m_distance.m_lengths.begin(), header.m_distance.m_lengths.end(),
                    [](uint8_t l) { return l == 0; })) {
        header.m_distance.m_lengths[0] = 1;  // no match: one unused code, as zlib sends
    }
    assign_codes(header.m_literal);
    assign_codes(header.m_distance);
    const auto last_used = [](const auto& lengths, std::size_t least) {
        std::size_t count = lengths.size();
        while (count > least && lengths[count - 1] == 0) {
            --count;
        }
        return count;
    };
    header.m_literal_count = last_used(header.m_literal.m_lengths, 257);
    header.m_distance_count = last_used(header.m_distance.m_lengths, 1);
    std::array<uint8_t, kLiteralLengthSymbols + kDistanceSymbols> sequence{};
    std::copy_n(header.m_literal.m_lengths.begin(), header.m_literal_count, sequence.begin());
    std::copy_n(header.m_distance.m_lengths.begin(), header.m_distance_count,
                sequence.begin() + static_cast<std::ptrdiff_t>(header.m_literal_count));
    run_code_lengths(header, sequence.data(), header.m_literal_count + header.m_distance_count);
    std::array<uint32_t, kCodeLengthSymbols> freq{};
    for (std::size_t i = 0; i < header.m_item_count; ++i) {
        ++freq[header.m_items[i][0]];
    }
    build_lengths(freq, kMaxCodeLengthBits, header.m_code_length.m_lengths);
    assign_codes(header.m_code_length);
    std::size_t sent = kCodeLengthSymbols;
    while (sent > 4 && header.m_code_length.m_lengths[kCodeLengthOrder[sent - 1]] == 0) {
        --sent;
    }
    header.m_code_length_count = sent;
    header.m_bits = 5 + 5 + 4 + 3 * sent;
    for (std::size_t i = 0; i < header.m_item_count; ++i) {
        const auto& [symbol, value, bits] = header.m_items[i];
        header.m_bits += header.m_code_length.m_lengths[symbol] + bits;
    }
}

// The bits of the block's symbols under a pair of codes, extra bits included.
template <typename LiteralCode>
uint64_t symbol_bits(const BlockStats& stats, const LiteralCode& literal,
                     const HuffmanCode<kDistanceSymbols>& distance) {
    uint64_t bits = stats.m_extra_bits;
    for (std::size_t s = 0; s < kLiteralLengthSymbols; ++s) {
        bits += uint64_t{stats.m_literal_freq[s]} * literal.m_lengths[s];
    }
    for (std::size_t s = 0; s < kDistanceSymbols; ++s) {
        bits += uint64_t{stats.m_distance_freq[s]} * distance.m_lengths[s];
    }
    return bits;
}

template <typename LiteralCode>
void put_symbols(BitWriter& bits, const std::vector<uint32_t>& symbols, const LiteralCode& literal,
                 const HuffmanCode<kDistanceSymbols>& distance) {
    for (const uint32_t symbol : symbols) {
        if ((symbol & kMatchFlag) == 0) {
            bits.put(literal.m_bits[symbol], literal.m_lengths[symbol]);
            continue;
        }
        const uint32_t length = (symbol >> 16) & 0x1FF;
        const uint32_t gap = symbol & 0xFFFF;
        const std::size_t l = kLengthCode[length];
        const std::size_t code = 257 + l;
        bits.put(literal.m_bits[code] | ((length - kLengthBase[l]) << literal.m_lengths[code]),
                 literal.m_lengths[code] + kLengthExtra[l]);
        const std::size_t d = kDistanceCode[gap];
        bits.put(distance.m_bits[d] | ((gap - kDistanceBase[d]) << distance.m_lengths[d]),
                 distance.m_lengths[d] + kDistanceExtra[d]);
    }
    bits.put(literal.m_bits[kEndOfBlock], literal.m_lengths[kEndOfBlock]);
}

// Each byte's code above its length, so that one load gives both.
using PackedCodes = std::array<uint32_t, 256>;

// Two bytes' codes joined, and how many bits they take.
struct JoinedCodes {
    uint64_t m_bits;
    int m_count;
};

inline JoinedCodes join_pair(const PackedCodes& packed, const unsigned char* data) {
    const uint32_t first = packed[data[0]];
    const uint32_t second = packed[data[1]];
    return {(uint64_t{first >> 8}) | (uint64_t{second >> 8} << (first & 0xFF)),
            static_cast<int>((first & 0xFF) + (second & 0xFF))};
}

// Four bytes' codes at once, joined as two pairs that do not wait on each other.
inline void put_four(BitCursor& bits, const PackedCodes& packed, const unsigned char* data) {
    const JoinedCodes low = join_pair(packed, data);
    const JoinedCodes high = join_pair(packed, data + 2);
    bits.put(low.m_bits | (high.m_bits << low.m_count), low.m_count + high.m_count);
}

inline void put_three(BitCursor& bits, const PackedCodes& packed, const unsigned char* data) {
    const JoinedCodes low = join_pair(packed, data);
    const uint32_t last = packed[data[2]];
    bits.put(low.m_bits | (uint64_t{last >> 8} << low.m_count),
             low.m_count + static_cast<int>(last & 0xFF));
}

// A block of literals alone, straight from its bytes: four codes at a time
// when none is longer than 14 bits, else three (codes reach 15 bits).
template <typename LiteralCode>
void put_literals(BitWriter& bits, const unsigned char* data, std::size_t size,
                  const LiteralCode& literal) {
    PackedCodes packed;
    int longest = 0;
    for (std::size_t b = 0; b < packed.size(); ++b) {
        packed[b] = (uint32_t{literal.m_bits[b]} << 8) | literal.m_lengths[b];
        longest = std::max<int>(longest, literal.m_lengths[b]);
    }
    BitCursor here = bits.cursor();
    std::size_t i = 0;
    if (longest <= 14) {
        for (; i + 4 <= size; i += 4) {
            put_four(here, packed, data + i);
        }
    }
    for (; i + 3 <= size; i += 3) {
        put_three(here, packed, data + i);
    }
    for (; i < size; ++i) {
        here.put(packed[data[i]] >> 8, static_cast<int>(packed[data[i]] & 0xFF));
    }
    here.put(literal.m_bits[kEndOfBlock], literal.m_lengths[kEndOfBlock]);
    bits.resume(here);
}

void put_dynamic_header(BitWriter& bits, const DynamicHeader& header) {
    BitCursor here = bits.cursor();
    here.put(static_cast<uint32_t>(header.m_literal_count - 257), 5);
    here.put(static_cast<uint32_t>(header.m_distance_count - 1), 5);
    here.put(static_cast<uint32_t>(header.m_code_length_count - 4), 4);
    for (std::size_t i = 0; i < header.m_code_length_count; ++i) {
        here.put(header.m_code_length.m_lengths[kCodeLengthOrder[i]], 3);
    }
    for (std::size_t i = 0; i < header.m_item_count; ++i) {
        const auto& [symbol, value, extra] = header.m_items[i];
        const int length = header.m_code_length.m_lengths[symbol];
        here.put(header.m_code_length.m_bits[symbol] | (uint32_t{value} << length), length + extra);
    }
    bits.resume(here);
}

// Stored blocks need whole bytes: up to seven bits of padding, then the length
// and its complement, per 65535 bytes.
uint64_t stored_bits(std::size_t size) {
    return (size / kStoredBlockMax + 1) * (3 + 7 + 32) + 8 * uint64_t{size};
}

void put_stored(BitWriter& bits, std::string& out, const unsigned char* data, std::size_t size,
                bool final) {
    std::size_t pos = 0;
    do {
        const std::size_t length = std::min(kStoredBlockMax, size - pos);
        const bool last = pos + length == size;
        bits.put(final && last ? 1 : 0, 3);  // BFINAL, type 00
        const std::size_t at = bits.align();
        const auto len16 = static_cast<uint16_t>(length);
        const auto nlen16 = static_cast<uint16_t>(~len16);
        const char header[4] = {static_cast<char>(len16 & 0xFF), static_cast<char>(len16 >> 8),
                                static_cast<char>(nlen16 & 0xFF), static_cast<char>(nlen16 >> 8)};
        std::memcpy(out.data() + at, header, 4);
        if (length > 0) {  // an empty array may come as a null pointer
            std::memcpy(out.data() + at + 4, data + pos, length);
        }
        bits.skip(4 + length);
        pos += length;
    } while (pos < size);
}

// x log2 x for the small counts, which most symbols of a peak array have; a
// table of 8 KiB, so that it stays in the first-level cache.
constexpr std::size_t kLogTableSize = 1024;
const std::vector<double>& count_bits_table() {
    static const std::vector<double> table = [] {
        std::vector<double> values(kLogTableSize, 0.0);
        for (std::size_t x = 1; x < kLogTableSize; ++x) {
            values[x] = static_cast<double>(x) * std::log2(static_cast<double>(x));
        }
        return values;
    }();
    return table;
}

// Whether codes fitted to the block could beat `best` bits: its entropy plus
// about four header bits per symbol used. Arrays of numbers with full mantissas
// come out near eight bits a byte, so fitting codes to them is mostly in vain,
// and this guess spares most of that work.
template <std::size_t Symbols>
void add_entropy(const std::array<uint32_t, Symbols>& freq, double& bits) {
    const double* table = count_bits_table().data();
    uint64_t total = 0;
    std::size_t used = 0;
    std::size_t large = 0;
    // Counts beyond the table (rare: one byte value making up much of a long
    // block) are added apart, so that this loop calls nothing; four sums, so
    // that the additions do not wait on one another.
    const auto add = [&](uint32_t f, double& sum) {
        total += f;
        used += f > 0 ? 1 : 0;
        large += f >= kLogTableSize ? 1 : 0;
        sum += table[f < kLogTableSize ? f : 0];
    };
    double sum0 = 0.0;
    double sum1 = 0.0;
    double sum2 = 0.0;
    double sum3 = 0.0;
    std::size_t s = 0;
    for (; s + 4 <= Symbols; s += 4) {
        add(freq[s], sum0);
        add(freq[s + 1], sum1);
        add(freq[s + 2], sum2);
        add(freq[s + 3], sum3);
    }
    for (; s < Symbols; ++s) {
        add(freq[s], sum0);
    }
    double sum = (sum0 + sum1) + (sum2 + sum3);
    for (std::size_t i = 0; large > 0 && i < Symbols; ++i) {
        if (freq[i] >= kLogTableSize) {
            sum += static_cast<double>(freq[i]) * std::log2(static_cast<double>(freq[i]));
        }
    }
    bits +=
        static_cast<double>(total) * std::log2(static_cast<double>(std::max<uint64_t>(total, 1))) -
        sum + 4.0 * static_cast<double>(used);
}

double estimated_bits(const BlockStats& stats) {
    double bits = 3.0 + 26.0 + static_cast<double>(stats.m_extra_bits);
    add_entropy(stats.m_literal_freq, bits);
    add_entropy(stats.m_distance_freq, bits);
    return bits;
}

// Numbers with full mantissas, as most peak arrays hold, do not shrink: when
// not even codes fitted to the bytes alone promise to save a small share of
// the block and some bytes, looking for matches as well is not worth its time
// and the bytes are stored. Short arrays, such as the intensities of a
// fragment scan, save a few bytes at best, for the work of building codes.
constexpr double kWorthwhileShare = 0.97;
constexpr double kWorthwhileBits = 8.0 * 64;

// Matches pay where whole numbers repeat (a fragment m/z in scan after scan,
// runs of zeros): a match then spans four bytes or more. Where only the two or
// three high bytes of a number recur, as the m/z values of a survey scan share
// them with their neighbours, matches save some 8 % but take three times as
// long to find and send as coding the bytes alone. So a block is searched for
// matches only when at least one in this many of its aligned four-byte words
// repeats one seen before within the window.
constexpr std::size_t kRepeatedWordShare = 8;

uint32_t load32(const unsigned char* p) {
    uint32_t word = 0;
    std::memcpy(&word, p, 4);
    return word;
}

bool words_repeat(const unsigned char* data, int32_t from, int32_t to, DeflateScratch& scratch) {
    uint32_t* seen = scratch.m_words.data();
    const uint32_t base = scratch.m_base;
    const auto needed = (static_cast<std::size_t>(to - from) + 4 * kRepeatedWordShare - 1) /
                        (4 * kRepeatedWordShare);
    std::size_t repeats = 0;
    for (int32_t pos = from; pos + 4 <= to; pos += 4) {
        const uint32_t word = load32(data + pos);
        uint32_t& slot = seen[hash_slot(word)];
        const uint32_t stored = slot;
        slot = base + static_cast<uint32_t>(pos) + 1;
        const int32_t earlier = static_cast<int32_t>(stored - base) - 1;
        if (stored > base && pos - earlier <= kWindow && load32(data + earlier) == word) {
            ++repeats;
        }
        if (repeats >= needed) {
            return true;
        }
    }
    return false;
}

// Below this many bytes, a block's counts go straight into one table: clearing
// and adding up four would take longer than the counting they speed up.
constexpr std::size_t kOneTableBytes = 2048;

// The bytes' counts, in four tables so that a byte that recurs at once (the
// high byte of every number) does not wait on its own previous count.
BlockStats byte_stats(const unsigned char* data, std::size_t size) {
    BlockStats bytes;
    bytes.m_literal_freq[kEndOfBlock] = 1;
    if (size < kOneTableBytes) {
        for (std::size_t i = 0; i < size; ++i) {
            ++bytes.m_literal_freq[data[i]];
        }
        return bytes;
    }
    std::array<std::array<uint32_t, 256>, 4> counts{};
    std::size_t i = 0;
    for (; i + 4 <= size; i += 4) {
        ++counts[0][data[i]];
        ++counts[1][data[i + 1]];
        ++counts[2][data[i + 2]];
        ++counts[3][data[i + 3]];
    }
    for (; i < size; ++i) {
        ++counts[0][data[i]];
    }
    for (std::size_t b = 0; b < 256; ++b) {
        bytes.m_literal_freq[b] = counts[0][b] + counts[1][b] + counts[2][b] + counts[3][b];
    }
    return bytes;
}

bool worth_coding(double estimate, std::size_t size) {
    return estimate < std::min(kWorthwhileShare * static_cast<double>(8 * size),
                               static_cast<double>(8 * size) - kWorthwhileBits);
}

// One block in whichever of the three forms is smallest; `put` sends its
// symbols under the literal and distance codes it is given. `estimate` is
// estimated_bits(stats): codes are fitted only when it could beat the others.
template <typename PutSymbols>
void put_block(BitWriter& bits, std::string& out, const unsigned char* block, std::size_t size,
               bool final, const BlockStats& stats, double estimate, const PutSymbols& put) {
    const uint64_t fixed_bits = 3 + symbol_bits(stats, fixed_literal_code(), fixed_distance_code());
    const uint64_t stored = stored_bits(size);
    uint64_t best = std::min(fixed_bits, stored);
    DynamicHeader dynamic;
    uint64_t dynamic_bits = UINT64_MAX;
    if (estimate < static_cast<double>(best)) {
        plan_dynamic(stats, dynamic);
        dynamic_bits =
            3 + dynamic.m_bits + symbol_bits(stats, dynamic.m_literal, dynamic.m_distance);
        best = std::min(best, dynamic_bits);
    }
    out.resize(out.size() + best / 8 + kWriterRoom);
    if (best == stored) {
        put_stored(bits, out, block, size, final);
    } else if (best == fixed_bits) {
        bits.put(final ? 3 : 2, 3);  // BFINAL, type 01
        put(fixed_literal_code(), fixed_distance_code());
    } else {
        bits.put(final ? 5 : 4, 3);  // BFINAL, type 10
        put_dynamic_header(bits, dynamic);
        put(dynamic.m_literal, dynamic.m_distance);
    }
}

void deflate_blocks(const unsigned char* data, std::size_t size, std::string& out,
                    DeflateScratch& scratch) {
    if (scratch.m_head.empty()) {
        scratch.m_head.assign(std::size_t{1} << kHashBits, 0);
        scratch.m_words.assign(std::size_t{1} << kHashBits, 0);
    }
    if (scratch.m_base > UINT32_MAX - size - 2 * kWindow) {
        std::fill(scratch.m_head.begin(), scratch.m_head.end(), 0);
        std::fill(scratch.m_words.begin(), scratch.m_words.end(), 0);
        scratch.m_base = 0;
    }
    BitWriter bits(out, out.size());
    const auto total = static_cast<int32_t>(size);
    int32_t pos = 0;
    do {
        const int32_t target = static_cast<int32_t>(
            std::min<std::size_t>(size, static_cast<std::size_t>(pos) + kBlockInput));
        const auto length = static_cast<std::size_t>(target - pos);
        const BlockStats bytes = byte_stats(data + pos, length);
        const double estimate = estimated_bits(bytes);
        if (!worth_coding(estimate, length)) {
            out.resize(out.size() + stored_bits(length) / 8 + kWriterRoom);
            put_stored(bits, out, data + pos, length, target == total);
            pos = target;
            continue;
        }
        if (!words_repeat(data, pos, target, scratch)) {
            put_block(bits, out, data + pos, length, target == total, bytes, estimate,
                      [&](const auto& literal, const auto&) {
                          put_literals(bits, data + pos, length, literal);
                      });
            pos = target;
            continue;
        }
        scratch.m_symbols.clear();
        BlockStats stats;
        const int32_t end = parse_block(data, total, pos, target, scratch, stats);
        stats.m_literal_freq[kEndOfBlock] = 1;
        put_block(bits, out, data + pos, static_cast<std::size_t>(end - pos), end == total, stats,
                  estimated_bits(stats), [&](const auto& literal, const auto& distance) {
                      put_symbols(bits, scratch.m_symbols, literal, distance);
                  });
        pos = end;
    } while (pos < total);
    out.resize(bits.align());
    scratch.m_base += static_cast<uint32_t>(size) + kWindow + 1;
}

void stored_only(const unsigned char* data, std::size_t size, std::string& out) {
    BitWriter bits(out, out.size());
    out.resize(out.size() + stored_bits(size) / 8 + kWriterRoom);
    put_stored(bits, out, data, size, true);
    out.resize(bits.align());
}

}  // namespace

namespace {

constexpr uint32_t kAdlerModulus = 65521;
// 5552 bytes is the most that can be summed before 32 bits could overflow.
constexpr std::size_t kAdlerRun = 5552;

#if defined(__SSE2__)
// The sums of a run's whole 16-byte blocks, added to `a` and `b` (the running
// sums before them, below the modulus): per block, b gains 16 times a and the
// bytes weighted 16 down to 1, and a gains the bytes. Sixteen bytes are summed
// and weighted at once; returns the bytes taken.
std::size_t adler_blocks(const unsigned char* data, std::size_t size, uint32_t& a, uint32_t& b) {
    const std::size_t blocks = size / 16;
    const __m128i zero = _mm_setzero_si128();
    const __m128i high_weights = _mm_setr_epi16(16, 15, 14, 13, 12, 11, 10, 9);
    const __m128i low_weights = _mm_setr_epi16(8, 7, 6, 5, 4, 3, 2, 1);
    __m128i byte_sums = zero;    // a's gain so far, in two lanes
    __m128i prefix_sums = zero;  // the byte sums before each block, added up
    __m128i weighted = zero;
    for (std::size_t k = 0; k < blocks; ++k) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * k));
        prefix_sums = _mm_add_epi32(prefix_sums, byte_sums);
        byte_sums = _mm_add_epi32(byte_sums, _mm_sad_epu8(bytes, zero));
        weighted = _mm_add_epi32(
            weighted, _mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi8(bytes, zero), high_weights),
                                    _mm_madd_epi16(_mm_unpackhi_epi8(bytes, zero), low_weights)));
    }
    const auto lanes = [](__m128i v) {
        alignas(16) uint32_t lane[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(lane), v);
        return uint64_t{lane[0]} + lane[1] + lane[2] + lane[3];
    };
    const uint64_t new_b = b + 16 * (uint64_t{a} * blocks + lanes(prefix_sums)) + lanes(weighted);
    a = static_cast<uint32_t>(a + lanes(byte_sums));
    b = static_cast<uint32_t>(new_b % kAdlerModulus);
    return 16 * blocks;
}
#endif

}  // namespace

uint32_t adler32(const unsigned char* data, std::size_t size) {
    uint32_t a = 1;
    uint32_t b = 0;
    while (size > 0) {
        const std::size_t run = std::min(size, kAdlerRun);
        std::size_t i = 0;
#if defined(__SSE2__)
        i = adler_blocks(data, run, a, b);
#endif
        for (; i < run; ++i) {
            a += data[i];
            b += a;
        }
        a %= kAdlerModulus;
        b %= kAdlerModulus;
        data += run;
        size -= run;
    }
    return (b << 16) | a;
}

void zlib_compress(const unsigned char* data, std::size_t size, std::string& out,
                   DeflateScratch& scratch) {
    out.push_back(static_cast<char>(0x78));  // deflate, 32 KiB window
    out.push_back(static_cast<char>(0x01));  // no dictionary, check bits
    // Arrays beyond 1 GiB are not peak lists; they are stored, which is always valid.
    if (size <= static_cast<std::size_t>(INT32_MAX / 2)) {
        deflate_blocks(data, size, out, scratch);
    } else {
        stored_only(data, size, out);
    }
    const uint32_t check = adler32(data, size);
    const char trailer[4] = {
        static_cast<char>(check >> 24), static_cast<char>((check >> 16) & 0xFF),
        static_cast<char>((check >> 8) & 0xFF), static_cast<char>(check & 0xFF)};
    out.append(trailer, 4);
}

}  // namespace ksieve
