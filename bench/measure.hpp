// Measurement helpers shared by the benchmark workers: wall clock, resident
// memory from /proc/self/status, the relative residual of a row block, and the
// one result line a worker prints for the driver.
#pragma once

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace kornbench {

inline double wall_seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A field of /proc/self/status in kB ("VmHWM" peak resident set, "VmRSS" the
// present one); -1 when it cannot be read.
inline long status_kb(const char* field) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  long v = -1;
  const std::size_t len = std::strlen(field);
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, field, len) == 0 && line[len] == ':') {
      v = std::strtol(line + len + 1, nullptr, 10);
      break;
    }
  }
  std::fclose(f);
  return v;
}
inline long peak_rss_kb() { return status_kb("VmHWM"); }
inline long rss_kb() { return status_kb("VmRSS"); }

// The result line: "KORNBENCH key=value ... msg=<rest of the line>". Keys and
// values carry no blanks; the free text goes last under "msg".
class ResultLine {
 public:
  ResultLine& put(const std::string& key, const std::string& value) {
    std::string v = value.empty() ? "-" : value;
    for (char& c : v)
      if (c == ' ' || c == '\t' || c == '\n') c = '_';
    s_ << ' ' << key << '=' << v;
    return *this;
  }
  ResultLine& put(const std::string& key, double value) {
    char b[64];
    std::snprintf(b, sizeof b, "%.6g", value);
    return put(key, std::string(b));
  }
  ResultLine& put(const std::string& key, long value) { return put(key, std::to_string(value)); }
  ResultLine& put(const std::string& key, int value) { return put(key, std::to_string(value)); }
  ResultLine& put_list(const std::string& key, const std::vector<double>& v) {
    std::ostringstream o;
    for (std::size_t i = 0; i < v.size(); ++i) o << (i ? "," : "") << static_cast<std::int64_t>(v[i]);
    return put(key, o.str());
  }
  void print(const std::string& msg) {
    std::string m = msg;
    for (char& c : m)
      if (c == '\n') c = ' ';
    std::printf("KORNBENCH%s msg=%s\n", s_.str().c_str(), m.c_str());
    std::fflush(stdout);
  }

 private:
  std::ostringstream s_;
};

}  // namespace kornbench
