#include <cstdio>
#include <memory>
#include <string>

#include "logger.h"
#include "spectrumfiles.h"
#include "utils.h"

namespace ksieve {

namespace {

// False when the close failed: the last buffered bytes may not have reached
// the file.
bool close_stream(SpectrumFile& file) {
    const bool closed = std::fclose(file.m_stream) == 0;
    file.m_stream = nullptr;
    // Only now may the buffer go: the stream used it up to the close.
    file.m_read_buffer.reset();
    return closed;
}

// An output is finished only when its close succeeded.
void close_with_log(SpectrumFile& file) {
    if (file.m_stream != nullptr) {
        const bool is_output = file.m_mode[0] != 'r';
        check_written(close_stream(file) || !is_output, file.m_path);
        log_info("Closed " + file.m_path);
    }
}

}  // namespace

SpectrumFile::~SpectrumFile() {
    if (m_stream != nullptr) {
        close_stream(*this);
    }
}

void open_spectrum_file(SpectrumFile& file, std::string path, std::string mode) {
    file.m_scan_count = 0;
    file.m_path = std::move(path);
    file.m_mode = std::move(mode);
    log_info("Start to process " + file.m_path);
    file.m_stream = open_file(file.m_path, file.m_mode, "");
    if (file.m_mode[0] == 'r') {
        file.m_read_buffer = std::make_unique_for_overwrite<char[]>(kReadBufferSize);
        std::setvbuf(file.m_stream, file.m_read_buffer.get(), _IOFBF, kReadBufferSize);
    }
}

void finish_spectrum_file(SpectrumFile& file) {
    close_with_log(file);
    log_info("Finished Operations on " + file.m_path);
    log_info("Scan Number in " + file.m_path + ": " + std::to_string(file.m_scan_count));
}

void release_spectrum_file(SpectrumFile& file) {
    close_with_log(file);
    file.m_path.clear();
    file.m_path.shrink_to_fit();
    file.m_mode.clear();
    file.m_mode.shrink_to_fit();
}

bool GetLine(SpectrumFile& file, char* line) {
    if (std::feof(file.m_stream)) {
        return false;
    }
    return std::fgets(line, kLineBufferSize, file.m_stream) != nullptr;
}

}  // namespace ksieve
