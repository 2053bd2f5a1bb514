// open_logfile and close_logfile: the failure codes 90..94 with their
// messages, the unit that messages then go to, and append semantics.
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
using korn_test::MessageCapture;
using korn_test::read_file;

testing::AssertionResult contains(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "\"" << part << "\" not in \"" << text << "\"";
}

class Logfile : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
    dir_ = korn_test::temp_path("logdir");
    fs::create_directory(dir_);
  }
  void TearDown() override {
    for (int u : used_units_) kornlt::detach_unit(u);
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
    std::error_code ec;
    fs::remove_all(dir_, ec);
  }
  // Sets `logio` and `logfile` as a host would.
  void configure(int logio, const std::string& logfile) {
    used_units_.push_back(logio);
    kornlt::set_integer("logio", logio);
    kornlt::set_char("logfile", logfile);
  }
  int open(int& opened_here) {
    opened_here = 12345;
    return kornlt::open_logfile(opened_here);
  }

  fs::path dir_;
  std::vector<int> used_units_;
};

TEST_F(Logfile, NegativeUnitIsReportedOnStandardErrorAndFallsBackToUnitSix) {
  configure(-3, "");
  kornlt::diag().ierr = 5;  // the global error state is left alone
  kornlt::diag().msg_unit = 44;
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  int opened = 0;
  const int code = open(opened);
  const std::string out = testing::internal::GetCapturedStdout();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(code, 93);
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(kornlt::prm().logio, 6);
  EXPECT_EQ(kornlt::diag().msg_unit, 6);
  EXPECT_EQ(kornlt::ierr(), 5);
  EXPECT_TRUE(std::regex_match(err, std::regex("\n### PRBLM: Printing via unit 6 since logio = *-3 is not valid!\n")))
      << err;
  EXPECT_TRUE(contains(out, "*** ERROR: Specified unit does not exist (open_logfile)!\n"));
}

TEST_F(Logfile, UnitFiveWithoutAFileIsRefused) {
  configure(5, "");
  testing::internal::CaptureStdout();
  int opened = 0;
  EXPECT_EQ(open(opened), 94);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(kornlt::diag().msg_unit, 6);
  EXPECT_TRUE(contains(out, "*** ERROR: Unit=5: Specify a logfile or another unit number (open_logfile)!\n"));
}

TEST_F(Logfile, FileUnitWithoutAFileIsLeftAsItStands) {
  configure(77, "   ");
  int opened = 0;
  EXPECT_EQ(open(opened), 0);
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(kornlt::diag().msg_unit, 77);
  EXPECT_FALSE(kornlt::unit_connected(77));  // nothing opened
  // Standard units need no file either.
  for (int unit : {0, 6}) {
    configure(unit, "");
    EXPECT_EQ(open(opened), 0) << unit;
    EXPECT_EQ(kornlt::diag().msg_unit, unit);
  }
}

TEST_F(Logfile, FileAlreadyConnectedToAnotherUnit) {
  const fs::path log = dir_ / "run.log";
  configure(81, log.string());
  int opened = 0;
  ASSERT_EQ(open(opened), 0);
  EXPECT_EQ(opened, -1);

  // The same file by another spelling, on unit 82: refused. The message goes
  // to the message unit in force, here unit 82 attached to its own file.
  const fs::path other = dir_ / "unit82.txt";
  ASSERT_TRUE(kornlt::attach_unit(82, other.string(), false));
  configure(82, (dir_ / "." / "run.log").string());
  testing::internal::CaptureStdout();
  EXPECT_EQ(open(opened), 91);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(opened, 0);
  std::fflush(kornlt::unit_stream(82));
  EXPECT_TRUE(contains(out + read_file(other), "*** ERROR: Logfile already connected to different unit (open_logfile)!\n"));
  EXPECT_EQ(kornlt::unit_of_file(log.string()), 81);

  // The same unit and file again: success with nothing done.
  configure(81, (dir_ / "." / "run.log").string());
  EXPECT_EQ(open(opened), 0);
  EXPECT_EQ(opened, 0);
  EXPECT_EQ(kornlt::diag().msg_unit, 81);
}

TEST_F(Logfile, ExistingPathThatCannotBeOpened) {
  configure(83, dir_.string());  // a directory exists but is no file
  testing::internal::CaptureStdout();
  int opened = 0;
  EXPECT_EQ(open(opened), 90);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(opened, 0);
  EXPECT_TRUE(contains(out, "*** ERROR: Logfile exists but could not be opened (open_logfile)!\n"));
  EXPECT_FALSE(kornlt::unit_connected(83));
}

TEST_F(Logfile, MissingFileThatCannotBeCreated) {
  configure(84, (dir_ / "no_such_dir" / "run.log").string());
  testing::internal::CaptureStdout();
  int opened = 0;
  EXPECT_EQ(open(opened), 92);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(opened, 0);
  EXPECT_TRUE(contains(out, "*** ERROR: Logfile does not exist and could not be opened (open_logfile)!\n"));
  EXPECT_FALSE(fs::exists(dir_ / "no_such_dir"));
}

TEST_F(Logfile, ReopenedFileKeepsTheTextOfTheRunBefore) {
  const fs::path log = dir_ / "append.log";
  std::ofstream(log) << "earlier host output\n";
  configure(85, log.string() + "   ");
  int opened = 0;

  ASSERT_EQ(open(opened), 0);
  EXPECT_EQ(opened, -1);
  EXPECT_EQ(kornlt::diag().msg_unit, 85);
  kornlt::print_message(kornlt::kMsgInfo, 0, 0, "first run");
  EXPECT_EQ(kornlt::close_logfile(), 0);
  EXPECT_FALSE(kornlt::unit_connected(85));

  ASSERT_EQ(open(opened), 0);
  EXPECT_EQ(opened, -1);
  kornlt::print_message(kornlt::kMsgInfo, 0, 0, "second run");
  ASSERT_EQ(open(opened), 0);  // a repeated entry finds it connected
  EXPECT_EQ(opened, 0);
  kornlt::print_line(0, 0, "still open");
  EXPECT_EQ(kornlt::close_logfile(), 0);

  EXPECT_EQ(read_file(log), "earlier host output\n>>> MESSG: first run\n>>> MESSG: second run\nstill open\n");
}

TEST_F(Logfile, StandardUnitWithAFileWritesTheLogToTheFile) {
  // Setting only `logfile` (logio keeps its default 6) sends the log to the
  // file; so does unit 5 with a file.
  for (int unit : {6, 5}) {
    const fs::path log = dir_ / ("std" + std::to_string(unit) + ".log");
    configure(unit, log.string());
    int opened = 0;
    ASSERT_EQ(open(opened), 0) << unit;
    EXPECT_EQ(opened, -1);
    EXPECT_EQ(kornlt::diag().msg_unit, unit);
    kornlt::print_message(kornlt::kMsgInfo, 0, 0, "to the file");
    EXPECT_EQ(kornlt::close_logfile(), 0);
    EXPECT_EQ(read_file(log), ">>> MESSG: to the file\n") << unit;
  }
  // Closed again, unit 6 is the standard output once more.
  kornlt::diag().msg_unit = 6;
  testing::internal::CaptureStdout();
  kornlt::print_message(kornlt::kMsgInfo, 0, 0, "to standard output");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), ">>> MESSG: to standard output\n");
}

TEST_F(Logfile, HostAttachedUnitsAppendOrTruncate) {
  const fs::path f = dir_ / "host.txt";
  std::ofstream(f) << "old\n";
  const int unit = 86;
  used_units_.push_back(unit);
  const std::string path = f.string();
  const int append = 1, truncate = 0;
  ASSERT_EQ(korn_attach_unit(&unit, path.data(), &append, path.size()), 0);
  std::fputs("new\n", kornlt::unit_stream(unit));
  ASSERT_EQ(korn_detach_unit(&unit), 0);
  EXPECT_EQ(read_file(f), "old\nnew\n");
  ASSERT_EQ(korn_attach_unit(&unit, path.data(), &truncate, path.size()), 0);
  ASSERT_EQ(korn_detach_unit(&unit), 0);
  EXPECT_EQ(read_file(f), "");
  const int bad = -4;
  EXPECT_EQ(korn_attach_unit(&bad, path.data(), &append, path.size()), 1);
}

}  // namespace
