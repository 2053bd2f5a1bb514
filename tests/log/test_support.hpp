// Helpers for tests of the message layer and the registry: capture of what
// the library writes to its message unit, temporary paths, and regexes that
// match a literal text in death tests.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "log/log.hpp"

namespace korn_test {

// A fresh path in the temporary directory, unique per process and call.
inline std::filesystem::path temp_path(std::string_view tag) {
  static int counter = 0;
  return std::filesystem::temp_directory_path() /
         ("korn_test_" + std::string(tag) + "_" + std::to_string(::getpid()) + "_" +
          std::to_string(++counter));
}

inline std::string read_file(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// Routes the message unit to a file unit attached to a temporary file for the
// lifetime of the object; text() returns everything written so far.
class MessageCapture {
 public:
  // Each capture takes its own unit, so that captures may nest.
  MessageCapture() : unit_(next_unit()), path_(temp_path("msg")) {
    kornlt::attach_unit(unit_, path_.string(), false);
    saved_unit_ = kornlt::diag().msg_unit;
    kornlt::diag().msg_unit = unit_;
  }
  ~MessageCapture() {
    kornlt::diag().msg_unit = saved_unit_;
    kornlt::detach_unit(unit_);
    std::error_code ec;
    std::filesystem::remove(path_, ec);
  }
  MessageCapture(const MessageCapture&) = delete;
  MessageCapture& operator=(const MessageCapture&) = delete;

  std::string text() const {
    std::fflush(kornlt::unit_stream(unit_));
    return read_file(path_);
  }

 private:
  static int next_unit() {
    static int unit = 700;
    return ++unit;
  }
  int unit_;
  std::filesystem::path path_;
  int saved_unit_ = 6;
};

// A POSIX extended regex that matches `s` literally.
inline std::string literal(std::string_view s) {
  std::string out;
  for (char c : s) {
    if (std::string_view(".[]()*+?{}|^$\\").find(c) != std::string_view::npos) out += '\\';
    out += c;
  }
  return out;
}

// What a stopped process leaves on standard error when its messages are routed
// there too: the error message, then the stop text.
inline std::string stop_regex(std::string_view message, std::string_view stop_text) {
  return literal("*** ERROR: " + std::string(message) + "\n" + std::string(stop_text) + "\n");
}

}  // namespace korn_test
