#include "logger.h"

#include <ctime>
#include <iostream>

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
    m_log_file = open_file(m_log_path, "a+", "Log Dump");
    log_info("kSieve writes logs in " + m_log_path);
}

void Logger::append(std::string text) {
    m_log_buffer += text;
    if (m_log_file != nullptr) {
        dump();
    }
}

void Logger::dump() {
    if (m_log_file == nullptr) {
        m_log_file = open_file(m_log_path, "a+", "Log Dump");
    }
    std::fputs(m_log_buffer.c_str(), m_log_file);
    std::fflush(m_log_file);
    m_log_buffer.clear();
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

}  // namespace ksieve
