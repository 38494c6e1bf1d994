// Text, path and file helpers shared by every module, the weighted standard
// deviation of the features, the fast number readers of the spectrum parsers and
// the always-on assertion.
//
// Text functions work on bytes, take their arguments by value and return new
// values; none keeps state. File operations that the run cannot work around throw
// a std::string with the message quoted at each function; existence tests never
// throw. Paths are taken apart at either '\' or '/', and composed with
// g_path_separator.
#pragma once

#include <cstdio>
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

// The pieces of `text` that are each followed by a member of `set`. Neighbouring
// delimiters give empty pieces; whatever follows the last delimiter is dropped,
// so split("a b c", " ") is {"a", "b"} and split("abc", ".") is {}.
std::vector<std::string> split(std::string text, std::string set);

// Parts joined by g_path_separator. Trailing separators of each part are
// dropped first; an empty first part adds no separator.
std::string join_path(std::vector<std::string> parts);

// True only for a path that opens for reading and is not a directory.
bool file_exists(std::string path);
// True when the path opens as a directory.
bool directory_exists(std::string path);
bool path_exists(std::string path);

// fopen(path, mode); the caller owns the handle.
// Throws "Cannot open " + label + " File, Path: " + path, with " is a directory"
// added when the path names a directory.
std::FILE* open_file(std::string path, std::string mode, std::string label);

// Creates the directory and any missing parent levels (`mkdir -p`). Does nothing
// for an existing directory. Throws "Can not make the directory: " + path.
void make_directory(std::string path);

// Removes a file that exists; a missing file is no failure.
// Throws "Cannot delete file: " + path.
void delete_file(std::string path);

// An existing directory as it stands; otherwise the text before the last
// separator; a bare name as it stands; "." for an empty path.
std::string parent_directory(std::string path);

// `extension` comes with its dot (".raw"). A readable file whose lowered path
// ends in it is the one result. Otherwise the path is listed as a directory, one
// level deep: names that do not begin with '.' and end in the extension
// (case-insensitively), joined to the path, sorted by name in byte order.
// Throws "Cannot open File: " + path when the directory cannot be opened.
std::vector<std::string> list_files(std::string path, std::string extension);

// Seeks `file` to offset 0. Throws "Cannot relocate to 0 in " + path.
void rewind_file(std::string path, std::FILE* file);

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
