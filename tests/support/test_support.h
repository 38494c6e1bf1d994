// Helpers shared by the test executables: a scratch directory that cleans up after
// itself, whole-file reads and writes, a temporary change of working directory,
// and capture of a console stream.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace ksieve::test {

// A fresh, empty directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ksieve_test_XXXXXX");
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
    // The path of `name` inside the directory, as text.
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
    out << content;
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Makes `directory` the working directory for the object's lifetime.
class WorkingDirectory {
  public:
    explicit WorkingDirectory(const std::filesystem::path& directory)
        : m_previous(std::filesystem::current_path()) {
        std::filesystem::current_path(directory);
    }
    ~WorkingDirectory() {
        std::error_code ignored;
        std::filesystem::current_path(m_previous, ignored);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

  private:
    std::filesystem::path m_previous;
};

// Diverts what is written to `stream` (std::cout, std::cerr) into memory until
// the object goes.
class CaptureStream {
  public:
    explicit CaptureStream(std::ostream& stream) : m_stream(stream) {
        m_previous = m_stream.rdbuf(m_buffer.rdbuf());
    }
    ~CaptureStream() { m_stream.rdbuf(m_previous); }
    CaptureStream(const CaptureStream&) = delete;
    CaptureStream& operator=(const CaptureStream&) = delete;

    std::string text() const { return m_buffer.str(); }

  private:
    std::ostream& m_stream;
    std::ostringstream m_buffer;
    std::streambuf* m_previous = nullptr;
};

}  // namespace ksieve::test
