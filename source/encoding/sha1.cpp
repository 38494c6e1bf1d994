#include <algorithm>
#include <cstring>
#include <utility>

#include "encoding.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define KSIEVE_SHA1_X86 1
#endif

namespace ksieve {

namespace {

constexpr std::size_t kBlock = 64;

uint32_t rotate_left(uint32_t value, int count) {
    return (value << count) | (value >> (32 - count));
}

uint32_t read_big_endian(const unsigned char* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The four round functions of FIPS 180-4, 4.1.1, by the round's quarter.
template <int Quarter>
uint32_t round_function(uint32_t b, uint32_t c, uint32_t d) {
    if constexpr (Quarter == 0) {
        return d ^ (b & (c ^ d));
    } else if constexpr (Quarter == 2) {
        return (b & c) | (d & (b | c));
    } else {
        return b ^ c ^ d;
    }
}

constexpr uint32_t kRoundConstants[4] = {0x5A827999U, 0x6ED9EBA1U, 0x8F1BBCDCU, 0xCA62C1D6U};

// One round; the caller turns the five working words round by passing them in a
// new order, so nothing is moved.
template <int T>
void sha1_round(uint32_t a, uint32_t& b, uint32_t c, uint32_t d, uint32_t& e, uint32_t* w) {
    uint32_t x = 0;
    if constexpr (T < 16) {
        x = w[T];
    } else {
        x = rotate_left(w[(T + 13) & 15] ^ w[(T + 8) & 15] ^ w[(T + 2) & 15] ^ w[T & 15], 1);
        w[T & 15] = x;
    }
    e += rotate_left(a, 5) + round_function<T / 20>(b, c, d) + kRoundConstants[T / 20] + x;
    b = rotate_left(b, 30);
}

// Five rounds from round T, after which the words stand in their first order again.
template <int T>
void five_rounds(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d, uint32_t& e, uint32_t* w) {
    sha1_round<T>(a, b, c, d, e, w);
    sha1_round<T + 1>(e, a, b, c, d, w);
    sha1_round<T + 2>(d, e, a, b, c, w);
    sha1_round<T + 3>(c, d, e, a, b, w);
    sha1_round<T + 4>(b, c, d, e, a, w);
}

template <int... Fives>
void all_rounds(uint32_t& a, uint32_t& b, uint32_t& c, uint32_t& d, uint32_t& e, uint32_t* w,
                std::integer_sequence<int, Fives...>) {
    (five_rounds<Fives * 5>(a, b, c, d, e, w), ...);
}

// The message schedule is a ring of sixteen words, each computed as it is needed.
void portable_blocks(uint32_t* state, const unsigned char* data, std::size_t blocks) {
    for (; blocks > 0; --blocks, data += kBlock) {
        uint32_t w[16];
        for (int t = 0; t < 16; ++t) {
            w[t] = read_big_endian(data + 4 * t);
        }
        uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
        all_rounds(a, b, c, d, e, w, std::make_integer_sequence<int, 16>());
        state[0] += a;
        state[1] += b;
        state[2] += c;
        state[3] += d;
        state[4] += e;
    }
}

#ifdef KSIEVE_SHA1_X86

#define KSIEVE_SHA1_TARGET __attribute__((target("sha,ssse3,sse4.1")))

// The x86 SHA extensions do four rounds per instruction. Group G covers rounds
// 4G to 4G+3; its message words stand in m[G % 4], each group preparing those of
// the groups after it, and the two copies of E take turns.
template <int G>
KSIEVE_SHA1_TARGET inline void hardware_group(__m128i& abcd, __m128i* e, __m128i* m,
                                              const unsigned char* data) {
    constexpr int kNow = G % 4;
    if constexpr (G < 4) {
        const __m128i byte_order = _mm_set_epi64x(0x0001020304050607LL, 0x08090a0b0c0d0e0fLL);
        m[kNow] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * G)),
                                   byte_order);
    }
    __m128i& current = e[G % 2];
    current = G == 0 ? _mm_add_epi32(current, m[kNow]) : _mm_sha1nexte_epu32(current, m[kNow]);
    e[(G + 1) % 2] = abcd;
    if constexpr (G >= 3 && G <= 18) {
        m[(G + 1) % 4] = _mm_sha1msg2_epu32(m[(G + 1) % 4], m[kNow]);
    }
    abcd = _mm_sha1rnds4_epu32(abcd, current, G / 5);
    if constexpr (G >= 1 && G <= 16) {
        m[(G + 3) % 4] = _mm_sha1msg1_epu32(m[(G + 3) % 4], m[kNow]);
    }
    if constexpr (G >= 2 && G <= 17) {
        m[(G + 2) % 4] = _mm_xor_si128(m[(G + 2) % 4], m[kNow]);
    }
}

template <int... Groups>
KSIEVE_SHA1_TARGET inline void hardware_rounds(__m128i& abcd, __m128i* e, __m128i* m,
                                               const unsigned char* data,
                                               std::integer_sequence<int, Groups...>) {
    (hardware_group<Groups>(abcd, e, m, data), ...);
}

KSIEVE_SHA1_TARGET void hardware_blocks(uint32_t* state, const unsigned char* data,
                                        std::size_t blocks) {
    __m128i abcd =
        _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
    __m128i e_word = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
    for (; blocks > 0; --blocks, data += kBlock) {
        const __m128i abcd_before = abcd;
        const __m128i e_before = e_word;
        __m128i e[2] = {e_word, e_word};
        __m128i m[4];
        hardware_rounds(abcd, e, m, data, std::make_integer_sequence<int, 20>());
        e_word = _mm_sha1nexte_epu32(e[0], e_before);
        abcd = _mm_add_epi32(abcd, abcd_before);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
    state[4] = static_cast<uint32_t>(_mm_extract_epi32(e_word, 3));
}

// Two digests, a block of each at a time, their groups of rounds taking turns:
// each group waits on the one before, so the other digest's group fills the gap.
struct HardwareLane {
    __m128i m_abcd;
    __m128i m_e_word;
    __m128i m_e[2];
    __m128i m_m[4];
    const unsigned char* m_data;
};

template <int... Groups>
KSIEVE_SHA1_TARGET inline void hardware_rounds_both(HardwareLane& a, HardwareLane& b,
                                                    std::integer_sequence<int, Groups...>) {
    ((hardware_group<Groups>(a.m_abcd, a.m_e, a.m_m, a.m_data),
      hardware_group<Groups>(b.m_abcd, b.m_e, b.m_m, b.m_data)),
     ...);
}

KSIEVE_SHA1_TARGET void hardware_blocks_both(uint32_t* state_a, const unsigned char* data_a,
                                             uint32_t* state_b, const unsigned char* data_b,
                                             std::size_t blocks) {
    HardwareLane lanes[2];
    uint32_t* states[2] = {state_a, state_b};
    lanes[0].m_data = data_a;
    lanes[1].m_data = data_b;
    for (int i = 0; i < 2; ++i) {
        lanes[i].m_abcd =
            _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(states[i])), 0x1B);
        lanes[i].m_e_word = _mm_set_epi32(static_cast<int>(states[i][4]), 0, 0, 0);
    }
    for (; blocks > 0; --blocks) {
        const __m128i abcd_before[2] = {lanes[0].m_abcd, lanes[1].m_abcd};
        for (HardwareLane& lane : lanes) {
            lane.m_e[0] = lane.m_e[1] = lane.m_e_word;
        }
        hardware_rounds_both(lanes[0], lanes[1], std::make_integer_sequence<int, 20>());
        for (int i = 0; i < 2; ++i) {
            lanes[i].m_e_word = _mm_sha1nexte_epu32(lanes[i].m_e[0], lanes[i].m_e_word);
            lanes[i].m_abcd = _mm_add_epi32(lanes[i].m_abcd, abcd_before[i]);
            lanes[i].m_data += kBlock;
        }
    }
    for (int i = 0; i < 2; ++i) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(states[i]),
                         _mm_shuffle_epi32(lanes[i].m_abcd, 0x1B));
        states[i][4] = static_cast<uint32_t>(_mm_extract_epi32(lanes[i].m_e_word, 3));
    }
}

bool has_hardware_sha1() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("sha") && __builtin_cpu_supports("ssse3") &&
           __builtin_cpu_supports("sse4.1");
}

#else

bool has_hardware_sha1() {
    return false;
}

void hardware_blocks(uint32_t* state, const unsigned char* data, std::size_t blocks) {
    portable_blocks(state, data, blocks);
}

void hardware_blocks_both(uint32_t* state_a, const unsigned char* data_a, uint32_t* state_b,
                          const unsigned char* data_b, std::size_t blocks) {
    portable_blocks(state_a, data_a, blocks);
    portable_blocks(state_b, data_b, blocks);
}

#endif

}  // namespace

bool sha1_hardware_available() {
    static const bool available = has_hardware_sha1();
    return available;
}

Sha1::Sha1(Sha1Engine engine)
    : m_state{0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U, 0xC3D2E1F0U},
      m_hardware(engine == Sha1Engine::kFastest && sha1_hardware_available()) {}

void Sha1::compress(const unsigned char* data, std::size_t blocks) {
    if (m_hardware) {
        hardware_blocks(m_state.data(), data, blocks);
    } else {
        portable_blocks(m_state.data(), data, blocks);
    }
}

void Sha1::update(const unsigned char* data, std::size_t size) {
    m_total_bytes += size;
    if (m_block_used > 0) {
        const std::size_t take = std::min(size, kBlock - m_block_used);
        std::memcpy(m_block.data() + m_block_used, data, take);
        m_block_used += take;
        data += take;
        size -= take;
        if (m_block_used < kBlock) {
            return;
        }
        compress(m_block.data(), 1);
        m_block_used = 0;
    }
    compress(data, size / kBlock);
    data += size / kBlock * kBlock;
    size %= kBlock;
    std::memcpy(m_block.data(), data, size);
    m_block_used = size;
}

void Sha1::update_both(Sha1& a, const unsigned char* data_a, Sha1& b, const unsigned char* data_b,
                       std::size_t size) {
    const std::size_t blocks = size / kBlock;
    if (!a.m_hardware || !b.m_hardware || a.m_block_used != 0 || b.m_block_used != 0 ||
        blocks == 0) {
        a.update(data_a, size);
        b.update(data_b, size);
        return;
    }
    hardware_blocks_both(a.m_state.data(), data_a, b.m_state.data(), data_b, blocks);
    a.m_total_bytes += blocks * kBlock;
    b.m_total_bytes += blocks * kBlock;
    a.update(data_a + blocks * kBlock, size % kBlock);
    b.update(data_b + blocks * kBlock, size % kBlock);
}

std::string Sha1::hex_digest() {
    const uint64_t bits = m_total_bytes * 8;
    const unsigned char one = 0x80;
    update(&one, 1);
    const unsigned char zero = 0;
    while (m_block_used != 56) {
        update(&zero, 1);
    }
    std::array<unsigned char, 8> length;
    for (int i = 0; i < 8; ++i) {
        length[static_cast<std::size_t>(i)] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    }
    update(length.data(), length.size());
    std::string hex;
    for (const uint32_t word : m_state) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            hex.push_back("0123456789abcdef"[(word >> shift) & 15U]);
        }
    }
    return hex;
}

}  // namespace ksieve
