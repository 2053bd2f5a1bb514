// Messages, log units, the log file and the digit decoder.
#include "log/log.hpp"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>

#include "params/params.hpp"

namespace kornlt {

DiagState& diag() {
  static DiagState state;
  return state;
}

std::string fmt_int(long long v) { return std::to_string(v); }

// ---------------------------------------------------------------------------
// Units
// ---------------------------------------------------------------------------
namespace {

constexpr int kStderrUnit = 0;
constexpr int kStdinUnit = 5;
constexpr int kStdoutUnit = 6;

bool is_standard_unit(int unit) {
  return unit == kStderrUnit || unit == kStdinUnit || unit == kStdoutUnit;
}

struct UnitFile {
  std::FILE* stream = nullptr;
  std::filesystem::path path;  // as canonical as it could be made
};

// Open file units; closes what is still open when the process ends.
struct UnitTable {
  std::map<int, UnitFile> files;
  ~UnitTable() {
    for (auto& [unit, f] : files) std::fclose(f.stream);
  }
};

UnitTable& units() {
  static UnitTable table;
  return table;
}

std::filesystem::path normalised(std::string_view path) {
  std::error_code ec;
  auto p = std::filesystem::weakly_canonical(std::filesystem::path(path), ec);
  return ec ? std::filesystem::path(path) : p;
}

}  // namespace

bool unit_exists(int unit) { return unit >= 0; }

bool unit_connected(int unit) {
  return is_standard_unit(unit) || units().files.count(unit) != 0;
}

int unit_of_file(std::string_view path) {
  const auto p = normalised(path);
  for (const auto& [unit, f] : units().files)
    if (f.path == p) return unit;
  return -1;
}

// A standard unit may be attached too (logio 6 with a logfile, as a Fortran
// OPEN on a preconnected unit): it writes to the file until it is detached.
bool attach_unit(int unit, std::string_view path, bool append) {
  if (!unit_exists(unit)) return false;
  detach_unit(unit);
  const std::string name(path);
  std::FILE* f = std::fopen(name.c_str(), append ? "a" : "w");
  if (f == nullptr) return false;
  units().files[unit] = UnitFile{f, normalised(path)};
  return true;
}

int detach_unit(int unit) {
  auto& files = units().files;
  const auto it = files.find(unit);
  if (it == files.end()) return 0;
  const int status = std::fclose(it->second.stream);
  files.erase(it);
  return status == 0 ? 0 : 1;
}

std::FILE* unit_stream(int unit) {
  auto& files = units().files;
  if (const auto it = files.find(unit); it != files.end()) return it->second.stream;
  if (unit == kStderrUnit) return stderr;
  if (unit == kStdoutUnit || unit == kStdinUnit || !unit_exists(unit)) return stdout;
  // An unconnected file unit behaves as in Fortran: it writes to "fort.<n>".
  if (attach_unit(unit, "fort." + std::to_string(unit), true)) return files[unit].stream;
  return stdout;
}

// ---------------------------------------------------------------------------
// Messages
// ---------------------------------------------------------------------------
namespace {

struct KindInfo {
  int kind;
  std::string_view prefix;
  int min_mode;  // printed when mode_mess >= min_mode
};
constexpr std::array<KindInfo, 4> kKinds{{
    {kMsgError, "*** ERROR: ", -2},
    {kMsgWarning, "+++ WARNG: ", -1},
    {kMsgInfo, ">>> MESSG: ", 0},
    {kMsgControl, ">>> CNTRL: ", 1},
}};

void write_blank_lines(std::FILE* out, int n) {
  for (int i = 0; i < n; ++i) std::fputc('\n', out);
}

// Writes prefix + text as one line: cut at the buffer length, trailing blanks trimmed.
void write_text_line(std::FILE* out, std::string_view prefix, std::string_view text) {
  std::string line;
  line.reserve(kMessageBufferLength);
  line.append(prefix.substr(0, kMessageBufferLength));
  line.append(text.substr(0, kMessageBufferLength - line.size()));
  const auto last = line.find_last_not_of(' ');
  line.resize(last == std::string::npos ? 0 : last + 1);
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), out);
}

}  // namespace

void print_message(int kind, int blank_before, int blank_after, std::string_view text) {
  const KindInfo* info = nullptr;
  for (const auto& k : kKinds)
    if (k.kind == kind) info = &k;
  if (info != nullptr && prm().mode_mess < info->min_mode) return;
  std::FILE* out = unit_stream(diag().msg_unit);
  write_blank_lines(out, blank_before);
  if (info != nullptr)
    write_text_line(out, info->prefix, text);
  else
    std::fputc('\n', out);
  write_blank_lines(out, blank_after);
  std::fflush(out);
}

void print_line(int blank_before, int blank_after, std::string_view text) {
  std::FILE* out = unit_stream(diag().msg_unit);
  write_blank_lines(out, blank_before);
  write_text_line(out, {}, text);
  write_blank_lines(out, blank_after);
  std::fflush(out);
}

void print_level_message(int level, int nflag, std::string_view text) {
  std::string s;
  if (level >= 1) s = "level " + fmt_int(level);
  s += " nflag= " + fmt_int(nflag);
  s += text;
  print_message(kMsgInfo, 0, 1, s);
}

void print_level_message(int level, std::string_view text) {
  if (level < 1) {
    print_message(kMsgInfo, 0, 1, text);
    return;
  }
  print_message(kMsgInfo, 0, 1, "level " + fmt_int(level) + std::string(text));
}

void print_code_message(int code, int pos, std::initializer_list<std::string_view> parts) {
  std::string s = "error code " + fmt_int(code);
  if (pos >= 0) s += " pos= " + fmt_int(pos);
  s += ' ';
  bool first = true;
  for (std::string_view p : parts) {
    const auto last = p.find_last_not_of(' ');
    if (!first) s += ' ';
    s.append(last == std::string_view::npos ? std::string_view{} : p.substr(0, last + 1));
    first = false;
  }
  print_message(kMsgError, 1, 1, s);
}

int fail(int code, std::string_view text) {
  print_message(kMsgError, 0, 0, text);
  diag().ierr = code;
  return code;
}

void warn(int code, std::string_view text) {
  print_message(kMsgWarning, 0, 0, text);
  diag().ierr = code;
}

[[noreturn]] void stop_process(std::string_view text, std::string_view stop_text) {
  print_message(kMsgError, 0, 0, text);
  std::fflush(nullptr);
  std::fprintf(stderr, "%.*s\n", static_cast<int>(stop_text.size()), stop_text.data());
  std::fflush(stderr);
  std::exit(EXIT_FAILURE);
}

[[noreturn]] void emergency_stop(std::string_view text) {
  stop_process(text, ">>> Emergency STOP! <<<");
}

// ---------------------------------------------------------------------------
// Log file
// ---------------------------------------------------------------------------
int open_logfile(int& opened_here) {
  opened_here = 0;
  Params& p = prm();
  const int logio = p.logio;
  const std::string_view logfile = p.logfile.trimmed();

  if (!unit_exists(logio)) {
    std::fprintf(stderr, "\n### PRBLM: Printing via unit 6 since logio = %d is not valid!\n", logio);
    p.logio = kStdoutUnit;
    diag().msg_unit = kStdoutUnit;
    print_message(kMsgError, 0, 1, "Specified unit does not exist (open_logfile)!");
    return kErrLogNoUnit;
  }
  diag().msg_unit = logio;

  if (logfile.empty()) {
    if (logio == kStdinUnit) {
      diag().msg_unit = kStdoutUnit;
      print_message(kMsgError, 0, 1, "Unit=5: Specify a logfile or another unit number (open_logfile)!");
      return kErrLogUnit5;
    }
    return kOk;
  }

  if (const int unit = unit_of_file(logfile); unit >= 0) {
    if (unit == logio) return kOk;
    print_message(kMsgError, 0, 1, "Logfile already connected to different unit (open_logfile)!");
    return kErrLogOtherUnit;
  }

  std::error_code ec;
  const bool exists = std::filesystem::exists(std::filesystem::path(logfile), ec);
  if (!attach_unit(logio, logfile, true)) {
    diag().msg_unit = kStdoutUnit;
    if (exists) {
      print_message(kMsgError, 0, 1, "Logfile exists but could not be opened (open_logfile)!");
      return kErrLogOpenExisting;
    }
    print_message(kMsgError, 0, 1, "Logfile does not exist and could not be opened (open_logfile)!");
    return kErrLogCreate;
  }
  opened_here = -1;
  return kOk;
}

int close_logfile() { return detach_unit(prm().logio); }

int close_logfile_opta() { return detach_unit(prm().iounit_opta); }

// ---------------------------------------------------------------------------
// idec
// ---------------------------------------------------------------------------
int idec(int number, std::span<int> digits) {
  const int nnum = static_cast<int>(digits.size());
  // |INT_MIN| does not fit: it is the one value that stays negative.
  long long value = number < 0 ? -static_cast<long long>(number) : number;
  if (number == std::numeric_limits<int>::min()) value = number;
  while (value > 999999999) value /= 10;
  if (nnum < 1 || nnum > 9)
    emergency_stop("Illegal use of routine idec: " + fmt_int(nnum) + " out of range!");
  if (value < 0) emergency_stop("Illegal value in routine idec: " + fmt_int(value) + " out of range!");

  std::array<int, 10> d{};  // decimal digits, most significant first
  int ndigit = 0;
  for (long long v = value;; v /= 10) {
    d[ndigit++] = static_cast<int>(v % 10);
    if (v < 10) break;
  }
  std::reverse(d.begin(), d.begin() + ndigit);

  std::fill(digits.begin(), digits.end(), 0);
  if (nnum < ndigit) {
    for (int i = 0; i < nnum - 1; ++i) digits[i] = d[i];
    int rest = 0;
    for (int i = nnum - 1; i < ndigit; ++i) rest = 10 * rest + d[i];
    digits[nnum - 1] = rest;
  } else {
    for (int i = 0; i < ndigit; ++i) digits[i] = d[i];
  }
  return ndigit;
}

}  // namespace kornlt
