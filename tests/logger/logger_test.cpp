#include "logger.h"

#include <gtest/gtest.h>

#include <iostream>

#include "test_support.h"

namespace ksieve {
namespace {

using test::read_file;

// The logger is one per process, so its whole life is one test: holding, the
// switch to the file (appended to, not replaced), and writing through.
TEST(Logger, HoldsMessagesUntilItHasADirectoryThenWritesEachAtOnce) {
    test::TempDir dir;
    const std::string log_path = dir.file("kSievePlusLog.txt");
    test::write_file(log_path, "earlier run\n");
    test::CaptureStream out(std::cout);
    test::CaptureStream err(std::cerr);
    log("warn", "one");  // levels are exact: only "WARN" and "ERROR" go to standard error
    log("WARN", "two");
    log("SUBPROCESS", "partial line ");
    log("ERROR", "three");
    EXPECT_EQ(out.text(), "[kSieve] <warn> - one\npartial line ");
    EXPECT_EQ(err.text(), "[kSieve] <WARN> - two\n[kSieve] <ERROR> - three\n");
    EXPECT_EQ(read_file(log_path), "earlier run\n");
    Logger::instance().set_directory(dir.path().string() + "/");
    const std::string held = read_file(log_path);
    // What was held opens with the local time as asctime writes it: 24 bytes and a line end.
    EXPECT_EQ(held.find('\n', 12), 12u + 24u) << held;
    EXPECT_EQ(held.substr(0, 12) + held.substr(37),
              "earlier run\n[kSieve] <warn> - one\n[kSieve] <WARN> - two\npartial line [kSieve] "
              "<ERROR> - three\n[kSieve] <INFO> - kSieve writes logs in " +
                  log_path + "\n");
    log_info("four");
    EXPECT_EQ(read_file(log_path), held + "[kSieve] <INFO> - four\n");
}

}  // namespace
}  // namespace ksieve
