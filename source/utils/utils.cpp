#include "utils.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace ksieve {

const std::string g_path_separator = "/";

namespace {

// One flag per byte value, so that bytes above 127 are ordinary members.
using ByteSet = std::array<bool, 256>;

ByteSet make_byte_set(const std::string& set) {
    ByteSet flags{};
    for (unsigned char c : set) {
        flags[c] = true;
    }
    return flags;
}

bool is_c_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// A name as mkdir's messages show it in the C locale: in single quotes, with a
// backslash before a quote or a backslash, and control and non-ASCII bytes as
// escapes.
std::string quoted_for_message(const std::string& text) {
    static const std::string kLetters = "abtnvfr";  // \a (7) to \r (13)
    std::string quoted = "'";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\'' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (byte >= 7 && byte <= 13) {
            quoted += '\\';
            quoted += kLetters[byte - 7];
        } else if (byte < 32 || byte >= 127) {
            char escape[5];
            std::snprintf(escape, sizeof escape, "\\%03o", byte);
            quoted += escape;
        } else {
            quoted += c;
        }
    }
    return quoted + "'";
}

// One level of a path: made, or already a directory. Otherwise the level and
// the reason go to standard error as mkdir says them, and false comes back.
bool make_level(const std::string& level, bool is_last) {
    if (mkdir(level.c_str(), 0777) == 0) {
        return true;
    }
    int error = errno;
    if (error == EEXIST) {
        struct stat info {};
        if (stat(level.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
            return true;
        }
        error = is_last ? EEXIST : ENOTDIR;
    }
    std::cout.flush();
    std::cerr << "mkdir: cannot create directory " << quoted_for_message(level) << ": "
              << std::strerror(error) << std::endl;
    return false;
}

// Where the digits of a number in text begin: after leading white space and one
// optional sign, as atof and atoi read it.
const char* skip_blanks_and_sign(const char* text, bool& negative) {
    while (is_c_space(*text)) {
        ++text;
    }
    negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    return text;
}

// The directory reader: open by name, read entry names, close.
struct DirectoryReader {
    DIR* handle = nullptr;
    explicit DirectoryReader(const std::string& path) : handle(opendir(path.c_str())) {}
    ~DirectoryReader() {
        if (handle != nullptr) {
            closedir(handle);
        }
    }
    DirectoryReader(const DirectoryReader&) = delete;
    DirectoryReader& operator=(const DirectoryReader&) = delete;
    bool is_open() const { return handle != nullptr; }
    bool next(std::string& name) {
        dirent* entry = readdir(handle);
        if (entry == nullptr) {
            return false;
        }
        name = entry->d_name;
        return true;
    }
};

}  // namespace

std::string ltrim(std::string text, std::string set) {
    const ByteSet flags = make_byte_set(set);
    size_t first = 0;
    while (first < text.size() && flags[static_cast<unsigned char>(text[first])]) {
        ++first;
    }
    return text.substr(first);
}

std::string rtrim(std::string text, std::string set) {
    const ByteSet flags = make_byte_set(set);
    size_t end = text.size();
    while (end > 0 && flags[static_cast<unsigned char>(text[end - 1])]) {
        --end;
    }
    text.resize(end);
    return text;
}

std::string trim(std::string text, std::string set) {
    return rtrim(ltrim(std::move(text), set), set);
}

std::string to_lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

void append_format(std::string& text, const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        return;
    }
    if (static_cast<std::size_t>(length) < sizeof buffer) {
        text.append(buffer, static_cast<std::size_t>(length));
    } else {
        // Longer than the buffer (a long title): printed again into the string.
        const std::size_t start = text.size();
        text.resize(start + static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data() + start, static_cast<std::size_t>(length) + 1, format, again);
        text.resize(start + static_cast<std::size_t>(length));
    }
    va_end(again);
}

bool ends_with(std::string text, std::string suffix) {
    text = trim(std::move(text), kWhiteSpace);
    if (text.size() < suffix.size()) {
        return false;
    }
    size_t t = text.size();
    for (size_t s = suffix.size(); s > 0; --s, --t) {
        if (std::tolower(static_cast<unsigned char>(text[t - 1])) !=
            std::tolower(static_cast<unsigned char>(suffix[s - 1]))) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> split(std::string text, std::string set) {
    const ByteSet flags = make_byte_set(set);
    std::vector<std::string> pieces;
    size_t start = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (flags[static_cast<unsigned char>(text[i])]) {
            pieces.push_back(text.substr(start, i - start));
            start = i + 1;
        }
    }
    return pieces;
}

std::string join_path(std::vector<std::string> parts) {
    std::string result;
    for (std::string& part : parts) {
        if (!result.empty()) {
            result += g_path_separator;
        }
        result += rtrim(std::move(part), g_path_separator);
    }
    return result;
}

bool file_exists(std::string path) {
    // A FIFO would block the open until something writes to it: such a path is
    // there, and open_file refuses it by name.
    struct stat info {};
    if (stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
        return true;
    }
    std::FILE* file = std::fopen(path.c_str(), "r");
    if (file == nullptr) {
        return false;
    }
    const bool is_directory = fstat(fileno(file), &info) == 0 && S_ISDIR(info.st_mode);
    std::fclose(file);
    return !is_directory;
}

bool directory_exists(std::string path) {
    return DirectoryReader(path).is_open();
}

bool path_exists(std::string path) {
    return file_exists(path) || directory_exists(path);
}

bool is_symbolic_link(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
}

namespace {

// Opens for reading without waiting on a FIFO, so that its kind is known before
// anything is read; null (errno set) when it cannot be opened.
std::FILE* open_for_reading(const std::string& path, struct stat& info) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    if (fd < 0) {
        return nullptr;
    }
    if (fstat(fd, &info) != 0 || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        close(fd);
        return nullptr;
    }
    std::FILE* file = fdopen(fd, "r");
    if (file == nullptr) {
        close(fd);
    }
    return file;
}

}  // namespace

std::FILE* open_file(std::string path, std::string mode, std::string label) {
    struct stat info {};
    const bool reading = mode == "r";
    std::FILE* file =
        reading ? open_for_reading(path, info) : std::fopen(path.c_str(), mode.c_str());
    if (file == nullptr) {
        throw "Cannot open " + label + " File, Path: " + path;
    }
    // A directory opens for reading and then reads as an empty file: an input
    // silently empty, or an isotope table silently all zeros. A FIFO or a
    // device would hold the run or never end.
    if (!reading && fstat(fileno(file), &info) != 0) {
        info = {};
    }
    if (S_ISDIR(info.st_mode)) {
        std::fclose(file);
        throw "Cannot open " + label + " File, Path: " + path + " is a directory";
    }
    if (reading && !S_ISREG(info.st_mode)) {
        std::fclose(file);
        throw "Cannot open " + label + " File, Path: " + path + " is not a regular file";
    }
    return file;
}

void make_directory(std::string path) {
    path = rtrim(trim(std::move(path), kWhiteSpace), kPathSeparators);
    if (directory_exists(path)) {
        return;
    }
    // Each level from the top down, as `mkdir -p` goes; a leading '/' and
    // repeated separators are no level of their own.
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1)) {
        if (path[end - 1] != '/' && !make_level(path.substr(0, end), false)) {
            throw "Can not make the directory: " + path;
        }
    }
    if (!make_level(path, true)) {
        throw "Can not make the directory: " + path;
    }
}

void delete_file(std::string path) {
    if (file_exists(path) && std::remove(path.c_str()) != 0) {
        throw "Cannot delete file: " + path;
    }
}

void discard_file(const std::string& path) {
    std::remove(path.c_str());
}

std::string parent_directory(std::string path) {
    if (directory_exists(path)) {
        return path;
    }
    const size_t last = path.find_last_of(kPathSeparators);
    if (last != std::string::npos) {
        return path.substr(0, last);
    }
    return path.empty() ? "." : path;
}

std::vector<std::string> list_files(std::string path, std::string extension) {
    return list_files(std::move(path), std::vector<std::string>{std::move(extension)});
}

std::vector<std::string> list_files(std::string path, std::vector<std::string> extensions) {
    const auto selected = [&extensions](const std::string& name) {
        return std::any_of(extensions.begin(), extensions.end(), [&name](const std::string& ext) {
            return ends_with(to_lower(name), ext);
        });
    };
    if (selected(path) && file_exists(path)) {
        return {path};
    }
    DirectoryReader reader(path);
    if (!reader.is_open()) {
        throw "Cannot open File: " + path;
    }
    std::vector<std::string> names;
    std::string name;
    while (reader.next(name)) {
        if (!name.empty() && name[0] != '.' && selected(name)) {
            names.push_back(name);
        }
    }
    // The file system's order differs between machines; byte order keeps a batch
    // reproducible.
    std::sort(names.begin(), names.end());
    std::vector<std::string> paths;
    paths.reserve(names.size());
    for (const std::string& entry : names) {
        paths.push_back(join_path({path, entry}));
    }
    return paths;
}

void rewind_file(std::string path, std::FILE* file) {
    if (fseeko(file, 0, SEEK_SET) != 0) {
        throw "Cannot relocate to " + std::to_string(0) + " in " + path;
    }
}

double WeightedStdDev(const std::vector<double>& values, std::vector<double> weights) {
    KS_ASSERT(values.size() == weights.size(), "values.size() == weights.size()");
    if (values.empty()) {
        return 0.0;
    }
    double w = 0.0;
    double a = 0.0;
    double b = 0.0;
    for (size_t i = 0; i < values.size(); ++i) {
        w += weights[i];
        a += weights[i] * values[i];
        b += weights[i] * values[i] * values[i];
    }
    if (w <= 1e-6) {
        return 0.0;
    }
    return std::sqrt(std::fabs(b - a * a / w) / w);
}

double text_to_double(const char* text) {
    bool negative = false;
    const char* p = skip_blanks_and_sign(text, negative);
    // Hexadecimal floats and overflow are rare enough to leave to strtod itself.
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        return std::strtod(text, nullptr);
    }
    if (*p == '-' || *p == '+') {
        return 0.0;
    }
    double value = 0.0;
    const char* end = p;
    // A number never holds white space, so the token ends at the first blank.
    while (*end != '\0' && !is_c_space(*end)) {
        ++end;
    }
    const auto [ptr, ec] = std::from_chars(p, end, value, std::chars_format::general);
    if (ec == std::errc::invalid_argument) {
        return 0.0;
    }
    if (ec == std::errc::result_out_of_range) {
        return std::strtod(text, nullptr);
    }
    return negative ? -value : value;
}

int text_to_int(const char* text) {
    bool negative = false;
    const char* p = skip_blanks_and_sign(text, negative);
    unsigned long long magnitude = 0;
    const char* end = p;
    while (*end >= '0' && *end <= '9') {
        ++end;
    }
    if (end == p) {
        return 0;
    }
    const auto [ptr, ec] = std::from_chars(p, end, magnitude);
    if (ec != std::errc() || magnitude > 0x7fffffffffffffffULL) {
        return static_cast<int>(std::strtol(text, nullptr, 10));
    }
    const long long value =
        negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    return static_cast<int>(value);
}

void assertion_failed(const char* text) {
    std::cout.flush();
    std::cerr << "Assertion failed: " << text << std::endl;
    std::abort();
}

}  // namespace ksieve
