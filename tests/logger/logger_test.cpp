#include "logger.h"

#include <gtest/gtest.h>

#include <iostream>
#include <regex>

#include "test_support.h"

namespace ksieve {
namespace {

using test::CaptureStream;
using test::read_file;
using test::TempDir;
using test::write_file;

// Other process-wide texts are composed from the log file's name while statics
// are being initialised, in whatever order the linker chose.
const std::string g_text_built_at_start = std::string("send ") + g_log_file_name;

TEST(LogFileName, IsUsableWhileStaticsAreInitialised) {
    EXPECT_EQ(g_text_built_at_start, "send kSievePlusLog.txt");
}

// The logger is one per process, so its whole life is one test: holding, the
// switch to the file, and writing through.
TEST(Logger, HoldsMessagesUntilItHasADirectoryThenWritesEachAtOnce) {
    TempDir dir;
    const std::string log_path = dir.file("kSievePlusLog.txt");
    write_file(log_path, "earlier run\n");
    {
        CaptureStream out(std::cout);
        CaptureStream err(std::cerr);
        Logger::instance().append("./kSieve -D x \n");
        log_info("one");
        log("WARN", "two");
        log("warn", "three");
        log("SUBPROCESS", "partial line ");
        log("ERROR", "four");
        EXPECT_EQ(out.text(), "[kSieve] <INFO> - one\n[kSieve] <warn> - three\npartial line ");
        EXPECT_EQ(err.text(), "[kSieve] <WARN> - two\n[kSieve] <ERROR> - four\n");
        EXPECT_EQ(read_file(log_path), "earlier run\n");

        Logger::instance().set_directory(dir.path().string() + "/");
        EXPECT_EQ(out.text().substr(out.text().rfind('[')),
                  "[kSieve] <INFO> - kSieve writes logs in " + log_path + "\n");
    }
    const std::string held = read_file(log_path);
    const std::regex expected(
        "earlier run\n"
        "(Sun|Mon|Tue|Wed|Thu|Fri|Sat) [A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} [0-9]{4}\n"
        "\\./kSieve -D x \n"
        "\\[kSieve\\] <INFO> - one\n"
        "\\[kSieve\\] <WARN> - two\n"
        "\\[kSieve\\] <warn> - three\n"
        "partial line \\[kSieve\\] <ERROR> - four\n"
        "\\[kSieve\\] <INFO> - kSieve writes logs in [^\n]*\n");
    EXPECT_TRUE(std::regex_match(held, expected)) << held;

    {
        CaptureStream out(std::cout);
        log_info("five");
    }
    EXPECT_EQ(read_file(log_path), held + "[kSieve] <INFO> - five\n");

    const std::string missing = dir.file("missing/kSievePlusLog.txt");
    try {
        Logger::instance().set_directory(dir.file("missing"));
        ADD_FAILURE() << "a log directory that does not exist was accepted";
    } catch (const std::string& message) {
        EXPECT_EQ(message, "Cannot open Log Dump File, Path: " + missing);
    }
}

}  // namespace
}  // namespace ksieve
