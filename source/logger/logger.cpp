#include "logger.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include "utils.h"

namespace ksieve {

Logger& Logger::instance() {
    // Never destroyed: messages may be logged from the crash path at exit.
    static Logger* logger = new Logger();
    return *logger;
}

Logger::Logger() : m_log_path(g_log_file_name) {
    const std::time_t now = std::time(nullptr);
    m_log_buffer = std::asctime(std::localtime(&now));
}

void Logger::set_directory(std::string directory) {
    m_log_path = join_path({std::move(directory), g_log_file_name});
    open_log_file();
    log_info("kSieve writes logs in " + m_log_path);
}

// The companion that kSieve starts has no business with the log: the handle is
// closed for it.
void Logger::open_log_file() {
    try {
        m_log_file = open_file(m_log_path, "a+", "Log Dump");
    } catch (const std::string& message) {
        // A directory that exists but may not be written to looks fine to the
        // user: the system's reason tells what is wrong.
        const int reason = errno;
        if (reason == EACCES || reason == EPERM || reason == EROFS) {
            throw message + ": " + std::strerror(reason);
        }
        throw;
    }
    fcntl(fileno(m_log_file), F_SETFD, FD_CLOEXEC);
}

void Logger::append(std::string text) {
    if (m_failed) {
        return;
    }
    m_log_buffer += text;
    if (m_log_file != nullptr) {
        dump();
    }
}

// A log that cannot be written ends the run: the file is given up, so that the
// failure itself can still be told on the console, and WriteFailure is thrown.
void Logger::dump() {
    if (m_log_file == nullptr) {
        open_log_file();
    }
    const bool written =
        std::fputs(m_log_buffer.c_str(), m_log_file) >= 0 && std::fflush(m_log_file) == 0;
    m_log_buffer.clear();
    if (!written) {
        const int error = errno;
        std::fclose(m_log_file);
        m_log_file = nullptr;
        m_failed = true;
        throw WriteFailure(m_log_path, error);
    }
}

void write_line(std::ostream& stream, std::string level, std::string message) {
    if (level != "SUBPROCESS") {
        message = "[kSieve] <" + level + "> - " + message + "\n";
    }
    stream << message;
    stream.flush();
    Logger::instance().append(std::move(message));
}

void log(std::string level, std::string message) {
    std::ostream& stream = (level == "WARN" || level == "ERROR") ? std::cerr : std::cout;
    write_line(stream, std::move(level), std::move(message));
}

void log_info(std::string message) {
    log("INFO", std::move(message));
}

void log_or_hold(HeldLines* held, std::string level, std::string message) {
    if (held == nullptr) {
        log(std::move(level), std::move(message));
    } else {
        held->push_back({std::move(level), std::move(message)});
    }
}

void log_held(HeldLines& held) {
    for (HeldLine& line : held) {
        log(std::move(line.m_level), std::move(line.m_message));
    }
    held.clear();
}

}  // namespace ksieve
