// The message layer: the filter by `mode_mess`, prefixes and blank lines, the
// 200-character buffer, fail/warn and the emergency stop.
#include <gtest/gtest.h>

#include <cstdlib>
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
  void TearDown() override { SetUp(); }
};
using MessagesDeathTest = Messages;

// Each kind is printed from its lowest mode_mess on, with its prefix and the
// blank lines asked for; fail and warn record their code even when filtered.
TEST_F(Messages, FilterByModeMessForEveryKind) {
  struct Kind {
    int kind;
    const char* prefix;
    int lowest_mode;
  };
  for (const Kind& k :
       {Kind{1, "*** ERROR: ", -2}, {-1, "+++ WARNG: ", -1}, {0, ">>> MESSG: ", 0}, {-2, ">>> CNTRL: ", 1}})
    for (int mode : {-3, -2, -1, 0, 1, 2}) {
      kornlt::prm().mode_mess = mode;
      MessageCapture capture;
      kornlt::print_message(k.kind, 2, 1, "text of the message (here)!");
      const std::string want = "\n\n" + std::string(k.prefix) + "text of the message (here)!\n\n";
      EXPECT_EQ(capture.text(), mode >= k.lowest_mode ? want : "") << "kind " << k.kind << " mode_mess " << mode;
    }
  for (int mode : {-3, 0}) {
    kornlt::prm().mode_mess = mode;
    MessageCapture capture;
    kornlt::warn(-50, "Parameter <isym> may be wrong. Check!");
    EXPECT_EQ(kornlt::ierr(), -50);
    EXPECT_FALSE(kornlt::failed());
    EXPECT_EQ(kornlt::fail(20, "Illegal value of parameter <nrd> in (korn_main)!"), 20);
    EXPECT_TRUE(kornlt::failed());
    EXPECT_EQ(capture.text(), mode < 0 ? "" : "+++ WARNG: Parameter <isym> may be wrong. Check!\n"
                                              "*** ERROR: Illegal value of parameter <nrd> in (korn_main)!\n");
  }
}

// The prefix counts towards the 200 characters; trailing blanks go, leading stay.
TEST_F(Messages, TextIsCutAtTheBufferLengthAndTrimmed) {
  for (const auto& [text, line] : {std::pair{std::string(189, 'x') + "yz", std::string(189, 'x')},
                                   {"  leading" + std::string(185, ' ') + "zzzzz", std::string("  leading")}}) {
    MessageCapture capture;
    kornlt::print_message(kornlt::kMsgError, 0, 0, text);
    EXPECT_EQ(capture.text(), "*** ERROR: " + line + "\n") << text.size();
  }
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
