// The thin layer between kSieve and the operating system beyond plain files:
// child programs, locks, the place of kSieve's own executable and its cores.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "utils.h"

extern char** environ;

namespace ksieve {

std::size_t usable_cores() {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    if (sched_getaffinity(0, sizeof cores, &cores) != 0) {
        return 1;
    }
    const int count = CPU_COUNT(&cores);
    return count > 0 ? static_cast<std::size_t>(count) : 1;
}

namespace {

// Bytes taken from a pipe at a time.
constexpr std::size_t kPipeChunk = 4096;

std::string executable_directory() {
    std::array<char, 4096> target{};
    const ssize_t length = readlink("/proc/self/exe", target.data(), target.size() - 1);
    if (length <= 0) {
        return "";
    }
    const std::string path(target.data(), static_cast<std::size_t>(length));
    return path.substr(0, path.rfind('/'));
}

void close_fd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

// The two pipes of one child and the child itself. A child still running here
// belongs to a run that is failing (its output could not be read or logged): it
// is stopped and waited for, so that no process outlives kSieve's own run.
struct ChildPipes {
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    pid_t pid = -1;
    int status = -1;

    ~ChildPipes() {
        for (int* fd : {&out[0], &out[1], &err[0], &err[1]}) {
            close_fd(*fd);
        }
        if (pid > 0) {
            kill(pid, SIGTERM);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }
};

// Splits a byte stream into the pieces fgets would return: each line with its
// line feed, cut after piece_size - 1 bytes when it is longer.
class PieceSplitter {
  public:
    PieceSplitter(std::size_t piece_size, const std::function<void(const std::string&)>& emit)
        : m_limit(piece_size - 1), m_emit(emit) {}
    void add(const char* bytes, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            m_piece += bytes[i];
            if (bytes[i] == '\n' || m_piece.size() == m_limit) {
                flush();
            }
        }
    }
    void flush() {
        if (!m_piece.empty()) {
            m_emit(m_piece);
            m_piece.clear();
        }
    }

  private:
    std::size_t m_limit;
    const std::function<void(const std::string&)>& m_emit;
    std::string m_piece;
};

// Standard error of the child: passed on at once, and its tail kept.
void relay_error_text(const char* bytes, std::size_t count, std::string& kept) {
    std::cerr.write(bytes, static_cast<std::streamsize>(count));
    std::cerr.flush();
    kept.append(bytes, count);
    if (kept.size() > kMaxErrorText) {
        kept.erase(0, kept.size() - kMaxErrorText);
    }
}

// Reads both pipes until both are closed. False when a read fails.
bool drain_pipes(ChildPipes& child, PieceSplitter& output, std::string& error_text) {
    std::array<pollfd, 2> fds = {pollfd{child.out[0], POLLIN, 0}, pollfd{child.err[0], POLLIN, 0}};
    char buffer[kPipeChunk];
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        for (pollfd& entry : fds) {
            if (entry.fd < 0 || entry.revents == 0) {
                continue;
            }
            const ssize_t count = read(entry.fd, buffer, sizeof buffer);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count < 0) {
                return false;
            }
            if (count == 0) {
                entry.fd = -1;
            } else if (&entry == &fds[0]) {
                output.add(buffer, static_cast<std::size_t>(count));
            } else {
                relay_error_text(buffer, static_cast<std::size_t>(count), error_text);
            }
        }
    }
    output.flush();
    return true;
}

// Errors of posix_spawn that say the program itself cannot be run, as opposed
// to the system having no room for another process.
bool is_program_error(int error) {
    return error != EAGAIN && error != ENOMEM;
}

}  // namespace

WriteFailure::WriteFailure(const std::string& path, int error)
    : std::runtime_error("Cannot write file: " + path + ": " + std::strerror(error)) {}

std::string shipped_file(const std::string& path) {
    struct stat info {};
    if (path.empty() || path[0] == '/' || lstat(path.c_str(), &info) == 0) {
        return path;
    }
    const std::string directory = executable_directory();
    const std::string beside = directory + "/" + (path.starts_with("./") ? path.substr(2) : path);
    if (directory.empty() || lstat(beside.c_str(), &info) != 0) {
        return path;
    }
    return beside;
}

std::string output_lock_path(const std::string& output_stem) {
    const char* tmp = std::getenv("TMPDIR");
    const std::string folder = std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") +
                               "/ksieve-locks-" + std::to_string(geteuid());
    // Made private; one that already stands must be a real directory of ours that
    // nobody else may write to, or another user could plant links in it.
    struct stat info {};
    if ((mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) ||
        lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != geteuid() ||
        (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return "";
    }
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::weakly_canonical(output_stem, error);
    if (error) {
        resolved = std::filesystem::absolute(output_stem, error).lexically_normal();
    }
    // FNV-1a: stable across builds, so that two kSieve versions agree.
    uint64_t hash = 14695981039346656037ULL;
    for (const unsigned char c : resolved.string()) {
        hash = (hash ^ c) * 1099511628211ULL;
    }
    char name[32];
    std::snprintf(name, sizeof name, "/%016llx.lock", static_cast<unsigned long long>(hash));
    return folder + name;
}

ExclusiveFileLock::ExclusiveFileLock(const std::string& path, const std::function<void()>& on_wait,
                                     bool create) {
    m_fd = create ? open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR)
                  : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        return;
    }
    if (flock(m_fd, LOCK_EX | LOCK_NB) == 0) {
        return;
    }
    if (errno == EWOULDBLOCK) {
        on_wait();
        int result = 0;
        while ((result = flock(m_fd, LOCK_EX)) != 0 && errno == EINTR) {
        }
        if (result == 0) {
            return;
        }
    }
    // ENOLCK, ENOSYS, EOPNOTSUPP, EBADF: this file system keeps no locks, and the
    // run goes on as it would without them.
    close_fd(m_fd);
}

ExclusiveFileLock::~ExclusiveFileLock() {
    close_fd(m_fd);
}

ChildOutcome run_child(const std::vector<std::string>& argv, std::size_t piece_size,
                       const std::function<void(const std::string&)>& on_output,
                       const std::string& failure_text, const std::string& lost_text) {
    ChildPipes child;
    if (pipe2(child.out, O_CLOEXEC) != 0 || pipe2(child.err, O_CLOEXEC) != 0) {
        throw std::runtime_error(failure_text);
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, child.out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, child.err[1], STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    // Our own buffered console text must come out before the child's.
    std::cout.flush();
    std::cerr.flush();
    const int error = posix_spawn(&child.pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close_fd(child.out[1]);
    close_fd(child.err[1]);
    ChildOutcome outcome;
    if (error != 0) {
        child.pid = -1;
        if (!is_program_error(error)) {
            throw std::runtime_error(failure_text);
        }
        outcome.m_error_text = argv[0] + ": " + std::strerror(error) + "\n";
        std::cerr << outcome.m_error_text;
        std::cerr.flush();
        return outcome;
    }
    PieceSplitter output(piece_size, on_output);
    if (!drain_pipes(child, output, outcome.m_error_text)) {
        throw std::runtime_error(lost_text);
    }
    close_fd(child.out[0]);
    close_fd(child.err[0]);
    while (waitpid(child.pid, &child.status, 0) < 0 && errno == EINTR) {
    }
    child.pid = -1;
    outcome.m_succeeded = WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0;
    return outcome;
}

}  // namespace ksieve
