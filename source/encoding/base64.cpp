#include <array>
#include <cstring>

#include "encoding.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define KSIEVE_BASE64_X86 1
#endif

namespace ksieve {

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The two digits of every 12 bits, so that three bytes take two look-ups.
constexpr std::array<char, 2 * 4096> kDigitPairs = [] {
    std::array<char, 2 * 4096> pairs{};
    for (std::size_t v = 0; v < 4096; ++v) {
        pairs[2 * v] = kBase64Digits[v >> 6];
        pairs[2 * v + 1] = kBase64Digits[v & 63];
    }
    return pairs;
}();

// Whole groups of three bytes, from `i` on while `size` holds them; returns
// where it stopped.
std::size_t portable_groups(char*& o, const unsigned char* data, std::size_t i, std::size_t size) {
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        std::memcpy(o, &kDigitPairs[2 * (v >> 12)], 2);
        std::memcpy(o + 2, &kDigitPairs[2 * (v & 4095)], 2);
        o += 4;
    }
    return i;
}

#ifdef KSIEVE_BASE64_X86

#define KSIEVE_BASE64_TARGET __attribute__((target("ssse3")))

// Twelve bytes to the sixteen six-bit groups of their digits, one per byte: each
// 32-bit lane gets the bytes b, a, c, b of its three (a first), so that one
// 16-bit half holds a and b and the other b and c; the groups are masked out
// of them and moved into place by multiplying.
KSIEVE_BASE64_TARGET inline __m128i six_bit_groups(__m128i bytes) {
    const __m128i lanes =
        _mm_shuffle_epi8(bytes, _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10));
    // The first and third digits: a's high six bits and the six bits across b and c.
    const __m128i first_third = _mm_mulhi_epu16(_mm_and_si128(lanes, _mm_set1_epi32(0x0FC0FC00)),
                                                _mm_set1_epi32(0x04000040));
    // The second and fourth: the six bits across a and b, and c's low six bits.
    const __m128i second_fourth = _mm_mullo_epi16(_mm_and_si128(lanes, _mm_set1_epi32(0x003F03F0)),
                                                  _mm_set1_epi32(0x01000010));
    return _mm_or_si128(first_third, second_fourth);
}

// Six-bit groups to digits: each range of the alphabet (A-Z, a-z, 0-9, '+',
// '/') is one offset from the group's value, looked up by range.
KSIEVE_BASE64_TARGET inline __m128i digits_of(__m128i groups) {
    const __m128i offsets =
        _mm_setr_epi8('A', 'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                      '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 0, 0);
    // 0 for A-Z, 1 for a-z, 2 to 13 for 52 to 63.
    __m128i range = _mm_subs_epu8(groups, _mm_set1_epi8(51));
    range = _mm_sub_epi8(range, _mm_cmpgt_epi8(groups, _mm_set1_epi8(25)));
    return _mm_add_epi8(groups, _mm_shuffle_epi8(offsets, range));
}

// Twelve bytes at a time, each load reading sixteen, while they are there.
KSIEVE_BASE64_TARGET std::size_t vector_groups(char*& o, const unsigned char* data,
                                               std::size_t size) {
    std::size_t i = 0;
    for (; i + 16 <= size; i += 12) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o), digits_of(six_bit_groups(bytes)));
        o += 16;
    }
    return i;
}

bool vector_available() {
    static const bool available = [] {
        __builtin_cpu_init();
        return __builtin_cpu_supports("ssse3") != 0;
    }();
    return available;
}

#endif

}  // namespace

void base64_append(std::string& out, const unsigned char* data, std::size_t size) {
    const std::size_t start = out.size();
    out.resize(start + (size + 2) / 3 * 4);
    char* o = out.data() + start;
    std::size_t i = 0;
#ifdef KSIEVE_BASE64_X86
    if (vector_available()) {
        i = vector_groups(o, data, size);
    }
#endif
    i = portable_groups(o, data, i, size);
    if (i < size) {
        const bool two = i + 1 < size;
        const uint32_t v = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0U);
        *o++ = kBase64Digits[v >> 18];
        *o++ = kBase64Digits[(v >> 12) & 63];
        *o++ = two ? kBase64Digits[(v >> 6) & 63] : '=';
        *o++ = '=';
    }
}

}  // namespace ksieve
