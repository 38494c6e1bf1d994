// Text, path and file helpers shared by every module, child programs and file
// locks, the weighted standard deviation of the features, the fast number readers
// of the spectrum parsers and the always-on assertion.
//
// Text functions work on bytes, take their arguments by value and return new
// values; none keeps state. File operations that the run cannot work around throw
// a std::string with the message quoted at each function, failed writes a
// WriteFailure; existence tests never throw. Paths are taken apart at either '\' or '/', and
// composed with g_path_separator.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ksieve {

// The separator that join_path puts between parts: "/" on this platform.
extern const std::string g_path_separator;

// The standard white space of parameter files and spectrum text, and the two
// separators that paths are taken apart at.
inline constexpr const char* kWhiteSpace = " \n\r\t";
inline constexpr const char* kPathSeparators = "\\/";

// Strip the leading / trailing / both bytes that belong to `set`.
// An empty set removes nothing.
std::string ltrim(std::string text, std::string set);
std::string rtrim(std::string text, std::string set);
std::string trim(std::string text, std::string set);

// Each byte through tolower, in the "C" locale.
std::string to_lower(std::string text);

// True when `text`, trimmed of white space, ends in `suffix`, compared
// case-insensitively. An empty suffix always matches; the suffix is not trimmed.
bool ends_with(std::string text, std::string suffix);

// Appends what printf would print for `format` and the arguments: the same
// bytes as an fprintf of them, made where no file is at hand.
void append_format(std::string& text, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The pieces of `text` that are each followed by a member of `set`. Neighbouring
// delimiters give empty pieces; whatever follows the last delimiter is dropped,
// so split("a b c", " ") is {"a", "b"} and split("abc", ".") is {}.
std::vector<std::string> split(std::string text, std::string set);

// Parts joined by g_path_separator. Trailing separators of each part are
// dropped first; an empty first part adds no separator.
std::string join_path(std::vector<std::string> parts);

// True for a path that opens for reading and is not a directory, and for a
// FIFO or device (which is not opened to find out).
bool file_exists(std::string path);
// True when the path opens as a directory.
bool directory_exists(std::string path);
bool path_exists(std::string path);
// True when the path itself is a symbolic link, whether it leads anywhere or not.
bool is_symbolic_link(const std::string& path);

// fopen(path, mode); the caller owns the handle.
// Throws "Cannot open " + label + " File, Path: " + path, with " is a directory"
// added when the path names a directory, and with " is not a regular file" when
// a path opened for reading ("r") is a FIFO, a device or a socket.
std::FILE* open_file(std::string path, std::string mode, std::string label);

// Creates the directory and any missing parent levels with mkdir(2), every byte of
// the name as it stands. Does nothing for an existing directory. A level that
// cannot be made is named on standard error in mkdir's own words,
// "mkdir: cannot create directory '<level>': <reason>", and then
// "Can not make the directory: " + path is thrown.
void make_directory(std::string path);

// Removes a file that exists; a missing file is no failure.
// Throws "Cannot delete file: " + path.
void delete_file(std::string path);

// Removes a file, quietly: what a failed run clears away may not be there.
void discard_file(const std::string& path);

// An existing directory as it stands; otherwise the text before the last
// separator; a bare name as it stands; "." for an empty path.
std::string parent_directory(std::string path);

// `extension` comes with its dot (".raw"). A readable file whose lowered path
// ends in it is the one result. Otherwise the path is listed as a directory, one
// level deep: names that do not begin with '.' and end in the extension
// (case-insensitively), joined to the path, sorted by name in byte order.
// Throws "Cannot open File: " + path when the directory cannot be opened.
std::vector<std::string> list_files(std::string path, std::string extension);
// The same with several extensions, any of which selects a file.
std::vector<std::string> list_files(std::string path, std::vector<std::string> extensions);

// Seeks `file` to offset 0. Throws "Cannot relocate to 0 in " + path.
void rewind_file(std::string path, std::FILE* file);

// An output (or the log) that could not be written, flushed or closed. The message
// is "Cannot write file: <path>: <reason>".
class WriteFailure : public std::runtime_error {
  public:
    WriteFailure(const std::string& path, int error);
};

// Throws WriteFailure for `path` with the reason in errno unless `written`.
inline void check_written(bool written, const std::string& path) {
    if (!written) {
        throw WriteFailure(path, errno);
    }
}

// Where a file that ships with kSieve (IPV.txt, the companions) is found: `path`
// when something is there; else, for a relative path, the same path taken from
// the directory of kSieve's own executable when it is there; else `path`, so that
// a failure names what was asked for.
std::string shipped_file(const std::string& path);

// The lock file that stands for the outputs "<output directory>/<stem>": two
// inputs of one stem (run.mzML and run.mzML.gz) write the same files, so runs on
// them take turns. It lies in a directory of the user's own under $TMPDIR (else
// /tmp), named by a hash of the path with its existing part resolved, so that no
// file appears among the outputs. Empty when that directory cannot be made or is
// not the user's alone: then there is no lock, as on a file system without locks.
std::string output_lock_path(const std::string& output_stem);

// The cores this process may run on (sched_getaffinity), at least 1.
std::size_t usable_cores();

// An exclusive flock on a file, held until destruction; it keeps two runs from
// working on one input, or on one set of outputs, at once. When another process
// holds the lock, `on_wait` is called once and the constructor waits. With
// `create` a missing file is made (never through a symbolic link). A file that
// cannot be opened, or a file system that cannot lock, gives no lock and no word.
class ExclusiveFileLock {
  public:
    ExclusiveFileLock(const std::string& path, const std::function<void()>& on_wait,
                      bool create = false);
    ~ExclusiveFileLock();
    ExclusiveFileLock(const ExclusiveFileLock&) = delete;
    ExclusiveFileLock& operator=(const ExclusiveFileLock&) = delete;

  private:
    int m_fd = -1;
};

// How a child program ended.
struct ChildOutcome {
    bool m_succeeded = false;  // it ran and exited with status 0
    std::string m_error_text;  // its standard error (the last kMaxErrorText bytes), or
                               // why it could not be run
};
inline constexpr std::size_t kMaxErrorText = 64 * 1024;

// Runs argv[0] with the argument vector `argv`, through no shell, so every byte
// of every argument reaches it as it stands. Its standard output is handed to
// `on_output` in the pieces that fgets with a buffer of `piece_size` bytes would
// give; its standard error is passed on to ours as it comes and kept for the
// caller. Throws std::runtime_error with `failure_text` when no process can be
// created, and with `lost_text` when its output cannot be read.
ChildOutcome run_child(const std::vector<std::string>& argv, std::size_t piece_size,
                       const std::function<void(const std::string&)>& on_output,
                       const std::string& failure_text, const std::string& lost_text);

// Weighted standard deviation: sqrt(|B - A*A/W| / W) with W the weight sum, A the
// weighted sum and B the weighted sum of squares; 0.0 for empty input or a weight
// sum at most 1e-6. Asserts that both vectors have the same length.
double WeightedStdDev(const std::vector<double>& values, std::vector<double> weights);

// Numbers in spectrum text, read with the rules of atof and atoi in the "C"
// locale: leading white space skipped, reading stops at the first byte that does
// not fit, no number gives 0. Fast paths avoid locale look-ups and allocation.
double text_to_double(const char* text);
int text_to_int(const char* text);

// An assertion that stays active in every build: prints
// "Assertion failed: " + text to standard error and aborts.
[[noreturn]] void assertion_failed(const char* text);

}  // namespace ksieve

#define KS_ASSERT(condition, text)            \
    do {                                      \
        if (!(condition)) {                   \
            ::ksieve::assertion_failed(text); \
        }                                     \
    } while (false)
