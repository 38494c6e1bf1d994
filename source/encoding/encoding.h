// Byte encodings of the XML peak-list output, written on the standard library
// alone: zlib streams (RFC 1950 around RFC 1951 deflate), base64 (RFC 4648, with
// padding) and SHA-1 (FIPS 180-4) digests, the last on the processor's SHA
// instructions where an x86-64 processor has them (the compiler's intrinsics).
//
// None of these does I/O or fails: any byte sequence, the empty one included,
// is a valid input.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ksieve {

// The match finder's table and the parse of one block, reused across calls so
// that compressing one peak array neither allocates nor clears them: positions
// are stored plus m_base + 1, and each call moves m_base past everything stored
// before, so old entries read as out of reach.
struct DeflateScratch {
    std::vector<uint32_t> m_head;     // by hash of three bytes: the last position seen
    std::vector<uint32_t> m_words;    // by hash of an aligned four-byte word: the same
    std::vector<uint32_t> m_symbols;  // one block's literals and matches
    uint32_t m_base = 0;
};

// Appends to `out` a complete zlib stream of `size` bytes at `data`, which any
// inflater (zlib's `uncompress`, Python's `zlib.decompress`) returns exactly.
// The input goes in blocks of four times 65535 bytes. A block whose byte counts
// promise codes less than 3 % and 64 bytes smaller is stored; one where whole
// four-byte words repeat is searched for matches, with one probe per position
// over a 32 KiB window, greedily; any other is coded as literals. Each block is
// sent with codes fitted to it, with the fixed codes or stored, whichever is
// smallest, so the stream is never more than 11 bytes plus 5 bytes per 65535
// longer than the input.
void zlib_compress(const unsigned char* data, std::size_t size, std::string& out,
                   DeflateScratch& scratch);

// The Adler-32 checksum of a zlib stream's trailer.
uint32_t adler32(const unsigned char* data, std::size_t size);

// Appends the base64 text of `size` bytes at `data`, '=' padded, no line breaks.
void base64_append(std::string& out, const unsigned char* data, std::size_t size);

// Which SHA-1 code runs: the processor's SHA instructions where it has them, or
// the portable code everywhere (both give the same digests).
enum class Sha1Engine { kFastest, kPortable };

// True when this processor has SHA instructions that kFastest uses.
bool sha1_hardware_available();

// A SHA-1 digest over bytes given in any number of pieces.
class Sha1 {
  public:
    explicit Sha1(Sha1Engine engine = Sha1Engine::kFastest);
    void update(const unsigned char* data, std::size_t size);
    // The same as a.update(data_a, size) and b.update(data_b, size), in little
    // more than the time of one where the processor's SHA instructions run.
    static void update_both(Sha1& a, const unsigned char* data_a, Sha1& b,
                            const unsigned char* data_b, std::size_t size);
    // The digest as 40 lower-case hexadecimal digits. Call once, after the last
    // update.
    std::string hex_digest();

  private:
    void compress(const unsigned char* data, std::size_t blocks);
    std::array<uint32_t, 5> m_state{};
    std::array<unsigned char, 64> m_block{};
    std::size_t m_block_used = 0;
    uint64_t m_total_bytes = 0;
    bool m_hardware = false;
};

}  // namespace ksieve
