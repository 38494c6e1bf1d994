// Helpers shared by the test executables.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

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

// Starts `program` with `args` (its own name first) in the directory `work`, with
// LC_ALL=C, standard input from /dev/null and the console streams written to
// `out` and `err`. A `file_size_limit` in bytes caps every file the program
// writes; SIGXFSZ is then ignored, so a write past it fails with EFBIG instead of
// ending the process.
inline pid_t start_program(const std::string& program, std::vector<std::string> args,
                           const std::filesystem::path& work, const std::filesystem::path& out,
                           const std::filesystem::path& err, long file_size_limit = -1) {
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int in_fd = open("/dev/null", O_RDONLY);
        const int out_fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err_fd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const rlimit limit{static_cast<rlim_t>(file_size_limit),
                           static_cast<rlim_t>(file_size_limit)};
        if (file_size_limit >= 0 &&
            (std::signal(SIGXFSZ, SIG_IGN) == SIG_ERR || setrlimit(RLIMIT_FSIZE, &limit) != 0)) {
            _exit(127);
        }
        if (chdir(work.c_str()) == 0 && in_fd >= 0 && out_fd >= 0 && err_fd >= 0 &&
            dup2(in_fd, 0) >= 0 && dup2(out_fd, 1) >= 0 && dup2(err_fd, 2) >= 0 &&
            setenv("LC_ALL", "C", 1) == 0) {
            execv(program.c_str(), argv.data());
        }
        _exit(127);
    }
    return child;
}

// How a started program ended: "<code>\n" for an exit, "signal <n>\n" for a kill.
inline std::string wait_for_program(pid_t child) {
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        return "not waited for\n";
    }
    return WIFEXITED(status) ? std::to_string(WEXITSTATUS(status)) + "\n"
                             : "signal " + std::to_string(WTERMSIG(status)) + "\n";
}

}  // namespace ksieve::test
