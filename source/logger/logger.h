// The one channel for what kSieve tells its user: every message goes to the
// console and to "kSievePlusLog.txt".
//
// Until set_directory is called the log file is unknown, so text gathers in a
// holding buffer (starting with the local date and time) and reaches the file, in
// order, as soon as the directory is given. From then on every message is written
// and flushed at once; the file is opened in append mode and never closed, so runs
// into one directory follow one another in one file.
//
// Levels are plain strings compared exactly: "WARN" and "ERROR" go to standard
// error, everything else to standard output. A prefixed line reads
// "[kSieve] <" + level + "> - " + message + "\n"; a "SUBPROCESS" message passes as
// it stands, with its own line ends.
#pragma once

#include <cstdio>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace ksieve {

// Constant-initialised, so that texts built from it while the program's statics
// are initialised (the crash message of the entry point) never see it unset.
inline constexpr char g_log_file_name[] = "kSievePlusLog.txt";

class Logger {
  public:
    static Logger& instance();

    // Opens <directory>/kSievePlusLog.txt in mode "a+" and writes what was held so
    // far, then logs "kSieve writes logs in " + path. Throws the open_file message
    // with the label "Log Dump" when the file cannot be opened, followed by ": " and
    // the system's reason when the directory may not be written to.
    void set_directory(std::string directory);

    // Adds text to the log (the file, once it is open) without showing it on the
    // console. The entry point records the command line this way.
    void append(std::string text);

    // Writes the held text to the file and empties the buffer. Throws
    // WriteFailure when the file refuses it; from then on the log lives on the
    // console alone.
    void dump();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

  private:
    Logger();
    void open_log_file();

    std::FILE* m_log_file = nullptr;
    std::string m_log_buffer;
    std::string m_log_path;
    std::mutex m_mutex;     // constructed and never taken: one thread logs, others hold lines
    bool m_failed = false;  // the file refused a write: nothing more goes to it
};

// The common path of all levels: prefix, show on `stream` and flush, then append.
void write_line(std::ostream& stream, std::string level, std::string message);
void log(std::string level, std::string message);
void log_info(std::string message);

// Lines told later, in the order they were held: work done ahead of its turn
// (reading ahead, detection on another thread) keeps its messages here until
// the thread that logs reaches that work.
struct HeldLine {
    std::string m_level;
    std::string m_message;
};
using HeldLines = std::vector<HeldLine>;
// Holds the line when `held` is given, logs it now otherwise.
void log_or_hold(HeldLines* held, std::string level, std::string message);
// Logs every held line in order and empties `held`.
void log_held(HeldLines& held);

}  // namespace ksieve
