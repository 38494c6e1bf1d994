// Helpers shared by the test executables.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

namespace ksieve::test {

// A fresh directory under the system's temporary one, removed with all it holds.
class TempDir {
  public:
    TempDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "ksieve_test_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("cannot create a temporary directory");
        }
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

  private:
    std::filesystem::path m_path;
};

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_file(const std::filesystem::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!(out << content)) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Diverts what is written to `stream` (std::cout, std::cerr) while it lives.
class CaptureStream {
  public:
    explicit CaptureStream(std::ostream& stream)
        : m_stream(stream), m_previous(stream.rdbuf(m_buffer.rdbuf())) {}
    ~CaptureStream() { m_stream.rdbuf(m_previous); }

    std::string text() const { return m_buffer.str(); }

  private:
    std::ostream& m_stream;
    std::ostringstream m_buffer;
    std::streambuf* m_previous;
};

// The message that `action` throws as `Thrown` (const char*, const std::string&).
template <typename Thrown, typename F>
std::string failure_of(F&& action) {
    try {
        action();
    } catch (Thrown message) {
        return message;
    }
    return "<nothing thrown>";
}

}  // namespace ksieve::test
