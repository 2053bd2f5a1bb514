// The message layer: the filter by `mode_mess`, prefixes, blank lines, the
// 200-character buffer, the composed layouts, fail/warn and the stops.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "korn.h"
#include "log/log.hpp"
#include "log/test_support.hpp"
#include "params/params.hpp"

namespace {

using korn_test::MessageCapture;

class Messages : public testing::Test {
 protected:
  void SetUp() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
  }
  void TearDown() override {
    korn_reset_parameters();
    kornlt::diag() = kornlt::DiagState{};
  }
};
using MessagesDeathTest = Messages;

std::string lines(int n) { return std::string(static_cast<std::size_t>(n), '\n'); }

TEST_F(Messages, FilterByModeMessForEveryKind) {
  struct Kind {
    int kind;
    const char* prefix;
    int lowest_mode;  // printed when mode_mess >= lowest_mode
  };
  const Kind kinds[] = {{1, "*** ERROR: ", -2}, {-1, "+++ WARNG: ", -1}, {0, ">>> MESSG: ", 0}, {-2, ">>> CNTRL: ", 1}};
  for (const Kind& k : kinds) {
    for (int mode : {-9, -3, -2, -1, 0, 1, 2, 7}) {
      kornlt::prm().mode_mess = mode;
      MessageCapture capture;
      kornlt::print_message(k.kind, 2, 1, "text of the message (here)!");
      const std::string want =
          mode >= k.lowest_mode ? lines(2) + k.prefix + "text of the message (here)!\n" + lines(1) : "";
      EXPECT_EQ(capture.text(), want) << "kind " << k.kind << " mode_mess " << mode;
    }
  }
}

TEST_F(Messages, BlankLinesBeforeAndAfter) {
  for (int before : {0, 1, 3})
    for (int after : {0, 1, 2}) {
      MessageCapture capture;
      kornlt::print_message(kornlt::kMsgWarning, before, after, "w");
      EXPECT_EQ(capture.text(), lines(before) + "+++ WARNG: w\n" + lines(after)) << before << " " << after;
    }
}

TEST_F(Messages, TextIsCutAtTheBufferLengthWithThePrefixCountingAndTrailingBlanksTrimmed) {
  const std::string x189(189, 'x');  // 200 minus the eleven characters of the prefix
  struct Case {
    std::string text;
    std::string line;  // the text part of the line written
  };
  const Case cases[] = {
      {std::string(250, 'x'), x189},
      {x189, x189},
      {x189 + "yz", x189},
      {std::string(188, 'x') + "yz", std::string(188, 'x') + "y"},
      {std::string(185, 'a') + std::string(10, ' ') + "zzzzz", std::string(185, 'a')},
      {"trailing   ", "trailing"},
      {"  leading stays", "  leading stays"},
  };
  for (const Case& c : cases) {
    MessageCapture capture;
    kornlt::print_message(kornlt::kMsgError, 0, 0, c.text);
    EXPECT_EQ(capture.text(), "*** ERROR: " + c.line + "\n") << c.text.size();
  }
  // An empty text leaves the prefix, trimmed too.
  MessageCapture capture;
  kornlt::print_message(kornlt::kMsgInfo, 0, 0, "");
  EXPECT_EQ(capture.text(), ">>> MESSG:\n");
}

TEST_F(Messages, UnknownKindWritesBlankLinesAndAnEmptyLine) {
  for (int kind : {2, 3, -3, 99}) {
    MessageCapture capture;
    kornlt::print_message(kind, 1, 2, "not shown");
    EXPECT_EQ(capture.text(), lines(1) + "\n" + lines(2)) << kind;
  }
}

TEST_F(Messages, PrintLineHasNoPrefixAndNoFilter) {
  kornlt::prm().mode_mess = -9;
  MessageCapture capture;
  kornlt::print_line(1, 1, "  table row   ");
  kornlt::print_line(0, 0, std::string(230, 'r'));
  EXPECT_EQ(capture.text(), "\n  table row\n\n" + std::string(200, 'r') + "\n");
}

TEST_F(Messages, LevelMessageLayouts) {
  MessageCapture capture;
  kornlt::print_level_message(3, 17, ": interpolation failed");
  kornlt::print_level_message(0, -2, ": no level");
  kornlt::print_level_message(12, ": coarse level");
  kornlt::print_level_message(0, "plain text");
  EXPECT_EQ(capture.text(),
            ">>> MESSG: level 3 nflag= 17: interpolation failed\n\n"
            ">>> MESSG:  nflag= -2: no level\n\n"
            ">>> MESSG: level 12: coarse level\n\n"
            ">>> MESSG: plain text\n\n");
  // Kind 0: filtered below mode_mess 0.
  kornlt::prm().mode_mess = -1;
  MessageCapture quiet;
  kornlt::print_level_message(3, 17, "x");
  kornlt::print_level_message(3, "x");
  EXPECT_EQ(quiet.text(), "");
}

TEST_F(Messages, CodeMessageLayout) {
  MessageCapture capture;
  kornlt::print_code_message(70, 12, {"Allocation failed for <w,jw>   ", "in (w_alloc)  "});
  kornlt::print_code_message(70, -1, {"De-allocation failed   "});
  EXPECT_EQ(capture.text(),
            "\n*** ERROR: error code 70 pos= 12 Allocation failed for <w,jw> in (w_alloc)\n\n"
            "\n*** ERROR: error code 70 De-allocation failed\n\n");
  kornlt::prm().mode_mess = -3;
  MessageCapture quiet;
  kornlt::print_code_message(70, 1, {"x"});
  EXPECT_EQ(quiet.text(), "");
}

TEST_F(Messages, FailAndWarnSetTheErrorState) {
  {
    MessageCapture capture;
    kornlt::warn(-50, "Parameter <isym> may be wrong. Check!");
    EXPECT_EQ(kornlt::ierr(), -50);
    EXPECT_FALSE(kornlt::failed());
    EXPECT_EQ(kornlt::fail(20, "Illegal value of parameter <nrd> in (korn_main)!"), 20);
    EXPECT_EQ(kornlt::ierr(), 20);
    EXPECT_TRUE(kornlt::failed());
    EXPECT_EQ(capture.text(),
              "+++ WARNG: Parameter <isym> may be wrong. Check!\n"
              "*** ERROR: Illegal value of parameter <nrd> in (korn_main)!\n");
  }
  // With mode_mess -3 not even an error is printed, yet the code is recorded.
  kornlt::diag().ierr = 0;
  kornlt::prm().mode_mess = -3;
  MessageCapture quiet;
  EXPECT_EQ(kornlt::fail(70, "Allocation failed for <w,jw> in (w_alloc)"), 70);
  EXPECT_EQ(kornlt::ierr(), 70);
  kornlt::warn(-60, "Inconsistency in memory counter:");
  EXPECT_EQ(kornlt::ierr(), -60);
  EXPECT_EQ(quiet.text(), "");
}

TEST_F(Messages, UnconnectedFileUnitWritesToFortN) {
  const auto dir = korn_test::temp_path("fortn");
  std::filesystem::create_directory(dir);
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir);
  kornlt::diag().msg_unit = 58;
  kornlt::print_message(kornlt::kMsgInfo, 0, 0, "to unit 58");
  kornlt::detach_unit(58);
  kornlt::diag().msg_unit = 6;
  std::filesystem::current_path(cwd);
  EXPECT_EQ(korn_test::read_file(dir / "fort.58"), ">>> MESSG: to unit 58\n");
  std::filesystem::remove_all(dir);
}

TEST_F(Messages, DescribeErrorNamesTheCodes) {
  EXPECT_EQ(kornlt::describe_error(93), "logio is no valid unit");
  EXPECT_EQ(kornlt::describe_error(0), "no finding");
  // 8xx: the tens digit names the accelerator, the units digit the event.
  struct Case {
    int code;
    const char* method;
    const char* event;
  };
  const Case cases[] = {
      {830, "conjugate gradients", "breakdown"},  {-831, "conjugate gradients", "residual"},
      {842, "BiCGstab", "not converged"},         {-843, "BiCGstab", "restarts"},
      {850, "GMRES", "breakdown"},                {-854, "GMRES", "stagnation of the approximation"},
  };
  for (const Case& c : cases) {
    const std::string text(kornlt::describe_error(c.code));
    EXPECT_NE(text.find(c.method), std::string::npos) << c.code << ": " << text;
    EXPECT_NE(text.find(c.event), std::string::npos) << c.code << ": " << text;
    EXPECT_NE(text.find(c.code > 0 ? "error" : "warning"), std::string::npos) << c.code << ": " << text;
  }
  EXPECT_EQ(kornlt::accelerator_code(kornlt::kAccelBiCGstab, kornlt::kAccelTooManyRestarts), 843);
  EXPECT_STREQ(korn_describe_error(-832), std::string(kornlt::describe_error(-832)).c_str());
  EXPECT_EQ(kornlt::describe_error(12345), "unknown code");
}

TEST_F(MessagesDeathTest, EmergencyStopPrintsTheTextAndEndsTheProcess) {
  EXPECT_EXIT(
      {
        kornlt::diag().msg_unit = 0;
        kornlt::emergency_stop("Writing to scratch file failed (r_save)");
      },
      testing::ExitedWithCode(EXIT_FAILURE),
      korn_test::stop_regex("Writing to scratch file failed (r_save)", ">>> Emergency STOP! <<<"));
  // The stop text reaches standard error even when messages go elsewhere.
  EXPECT_EXIT(kornlt::emergency_stop("x"), testing::ExitedWithCode(EXIT_FAILURE),
              korn_test::literal(">>> Emergency STOP! <<<"));
}

}  // namespace
