#include <algorithm>
#include <cstring>

#include "encoding.h"

namespace ksieve {

namespace {

constexpr char kBase64Digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

uint32_t rotate_left(uint32_t value, int count) {
    return (value << count) | (value >> (32 - count));
}

uint32_t read_big_endian(const unsigned char* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

}  // namespace

void base64_append(std::string& out, const unsigned char* data, std::size_t size) {
    const std::size_t start = out.size();
    out.resize(start + (size + 2) / 3 * 4);
    char* o = out.data() + start;
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const uint32_t v = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
        *o++ = kBase64Digits[v >> 18];
        *o++ = kBase64Digits[(v >> 12) & 63];
        *o++ = kBase64Digits[(v >> 6) & 63];
        *o++ = kBase64Digits[v & 63];
    }
    if (i < size) {
        const bool two = i + 1 < size;
        const uint32_t v = (uint32_t{data[i]} << 16) | (two ? uint32_t{data[i + 1]} << 8 : 0U);
        *o++ = kBase64Digits[v >> 18];
        *o++ = kBase64Digits[(v >> 12) & 63];
        *o++ = two ? kBase64Digits[(v >> 6) & 63] : '=';
        *o++ = '=';
    }
}

Sha1::Sha1() : m_state{0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U, 0xC3D2E1F0U} {}

void Sha1::compress_block(const unsigned char* block) {
    // The message schedule kept as a ring of sixteen words, computed as needed.
    std::array<uint32_t, 16> w;
    for (int t = 0; t < 16; ++t) {
        w[static_cast<std::size_t>(t)] = read_big_endian(block + 4 * t);
    }
    uint32_t a = m_state[0], b = m_state[1], c = m_state[2], d = m_state[3], e = m_state[4];
    const auto word = [&w](int t) {
        if (t < 16) {
            return w[static_cast<std::size_t>(t)];
        }
        uint32_t& slot = w[static_cast<std::size_t>(t & 15)];
        slot = rotate_left(w[static_cast<std::size_t>((t + 13) & 15)] ^
                               w[static_cast<std::size_t>((t + 8) & 15)] ^
                               w[static_cast<std::size_t>((t + 2) & 15)] ^ slot,
                           1);
        return slot;
    };
    const auto step = [&](uint32_t f, uint32_t k, uint32_t x) {
        const uint32_t next = rotate_left(a, 5) + f + e + k + x;
        e = d;
        d = c;
        c = rotate_left(b, 30);
        b = a;
        a = next;
    };
    for (int t = 0; t < 20; ++t) {
        step((b & c) | (~b & d), 0x5A827999U, word(t));
    }
    for (int t = 20; t < 40; ++t) {
        step(b ^ c ^ d, 0x6ED9EBA1U, word(t));
    }
    for (int t = 40; t < 60; ++t) {
        step((b & c) | (b & d) | (c & d), 0x8F1BBCDCU, word(t));
    }
    for (int t = 60; t < 80; ++t) {
        step(b ^ c ^ d, 0xCA62C1D6U, word(t));
    }
    m_state[0] += a;
    m_state[1] += b;
    m_state[2] += c;
    m_state[3] += d;
    m_state[4] += e;
}

void Sha1::update(const unsigned char* data, std::size_t size) {
    m_total_bytes += size;
    if (m_block_used > 0) {
        const std::size_t take = std::min(size, m_block.size() - m_block_used);
        std::memcpy(m_block.data() + m_block_used, data, take);
        m_block_used += take;
        data += take;
        size -= take;
        if (m_block_used < m_block.size()) {
            return;
        }
        compress_block(m_block.data());
        m_block_used = 0;
    }
    for (; size >= m_block.size(); data += m_block.size(), size -= m_block.size()) {
        compress_block(data);
    }
    std::memcpy(m_block.data(), data, size);
    m_block_used = size;
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
