// open_logfile and close_logfile: the failure codes 90..94 with their
// messages and the unit that messages then go to, and a log file that keeps
// the text of earlier runs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"

namespace {

namespace fs = std::filesystem;
using korn_test::read_file;

class Logfile : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
    fs::create_directory(dir_);
  }
  void TearDown() override {
    for (int u : {81, 82, 83, 84, 85}) kornlt::detach_unit(u);
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  // Sets `logio` and `logfile` as a host would and opens; `opened` is -1 when
  // the call opened the file itself.
  static int open(int logio, const std::string& logfile, int& opened) {
    kornlt::set_integer("logio", logio);
    kornlt::set_char("logfile", logfile);
    opened = 12345;
    return kornlt::open_logfile(opened);
  }
  const fs::path dir_ = korn_test::temp_path("logdir");
};

TEST_F(Logfile, FailuresGiveTheirCodeAndMessage) {
  int opened = 0;
  ASSERT_EQ(open(81, (dir_ / "run.log").string(), opened), 0);  // for the "connected" case
  EXPECT_EQ(opened, -1);
  struct Case {
    int logio;
    std::string logfile;
    int code;
    const char* text;
  };
  const Case cases[] = {
      {83, dir_.string(), 90, "Logfile exists but could not be opened (open_logfile)!"},
      {82, (dir_ / "." / "run.log").string(), 91, "Logfile already connected to different unit (open_logfile)!"},
      {84, (dir_ / "none" / "run.log").string(), 92, "Logfile does not exist and could not be opened (open_logfile)!"},
      {-3, "", 93, "Specified unit does not exist (open_logfile)!"},
      {5, "", 94, "Unit=5: Specify a logfile or another unit number (open_logfile)!"},
  };
  kornlt::diag().ierr = 5;  // the global error state is left alone
  for (const Case& c : cases) {
    // The message goes to the message unit in force; a file takes what unit 82 gets.
    const fs::path side = dir_ / "unit82.txt";
    ASSERT_TRUE(kornlt::attach_unit(82, side.string(), false));
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(open(c.logio, c.logfile, opened), c.code);
    std::fflush(kornlt::unit_stream(82));
    const std::string out = testing::internal::GetCapturedStdout() + read_file(side);
    const std::string err = testing::internal::GetCapturedStderr();
    kornlt::detach_unit(82);
    EXPECT_EQ(opened, 0) << c.code;
    EXPECT_NE(out.find(std::string("*** ERROR: ") + c.text + "\n"), std::string::npos) << out;
    EXPECT_EQ(kornlt::ierr(), 5) << c.code;
    if (c.code != 93) continue;
    // A negative unit is reported on standard error too; the log falls back to unit 6.
    EXPECT_TRUE(std::regex_match(err, std::regex("\n### PRBLM: Printing via unit 6 since logio = *-3 is not valid!\n")))
        << err;
    EXPECT_EQ(kornlt::prm().logio, 6);
    EXPECT_EQ(kornlt::diag().msg_unit, 6);
  }
  EXPECT_FALSE(kornlt::unit_connected(83));
  EXPECT_EQ(kornlt::unit_of_file((dir_ / "run.log").string()), 81);
  EXPECT_FALSE(fs::exists(dir_ / "none"));
}

// The log file is appended to: what the host wrote and the runs before stay.
TEST_F(Logfile, ReopenedFileKeepsTheTextOfTheRunBefore) {
  const fs::path log = dir_ / "append.log";
  std::ofstream(log) << "earlier host output\n";
  int opened = 0;
  for (const char* text : {"first run", "second run"}) {
    ASSERT_EQ(open(85, log.string() + "   ", opened), 0);
    EXPECT_EQ(opened, -1);
    EXPECT_EQ(kornlt::diag().msg_unit, 85);
    kornlt::print_message(kornlt::kMsgInfo, 0, 0, text);
    ASSERT_EQ(open(85, log.string(), opened), 0);  // a repeated entry finds it connected
    EXPECT_EQ(opened, 0);
    EXPECT_EQ(kornlt::close_logfile(), 0);
    EXPECT_FALSE(kornlt::unit_connected(85));
  }
  EXPECT_EQ(read_file(log), "earlier host output\n>>> MESSG: first run\n>>> MESSG: second run\n");
}

}  // namespace
