// Diagnostics: the process-wide error state, the four message kinds and their
// filter, log units and the log file, and the decimal-digit decoder `idec`.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

namespace kornlt {

// ---------------------------------------------------------------------------
// Error codes: positive values are errors, negative values warnings, 0 none.
// The table of meanings is in errors.cpp (describe_error).
// ---------------------------------------------------------------------------
enum ErrorCode : int {
  kOk = 0,
  kErrInternal = 1,
  kErrDimension = 10,          // array bound reached and growth switched off
  kErrIllegalParameter = 20,   // illegal parameter or unsupported option
  kErrNoCoordinates = 30,
  kErrPointer = 40,            // inconsistent pointers or declarations
  kErrInconsistent = 50,       // inconsistent matrix, residual or configuration
  kErrRestartNoSetup = 51,
  kErrRestartNoHierarchy = 52,
  kErrRestartChanged = 53,
  kErrRestartChanged2 = 54,
  kErrExtension = 60,          // growth or scratch file failed
  kErrAllocation = 70,         // allocation or release failed
  kErrAggressiveInterp = 72,
  kErrAggressiveInterpSave = 73,
  kErrNotAvailable = 80,       // feature not available
  kErrLogOpenExisting = 90,
  kErrLogOtherUnit = 91,
  kErrLogCreate = 92,
  kErrLogNoUnit = 93,
  kErrLogUnit5 = 94,
  kErrFile = 100,              // file error or impossible internal state
  kErrReduceMemory = 110,
  kErrCoarsening = 120,
  kErrCoarseSet = 130,
  kErrInterpolation = 140,
  kErrGalerkinTruncation = 152,
  kErrElasticityFit = 160,
  kErrResidualUnusable = 200,
  kErrResidualOverflow = 210,
  kErrResidualNaN = 211,
  kErrIlu0Smoother = 230,
  kErrIlutSmoother = 240,
  kErrBlockProcedure = 260,
  kErrUzawa = 270,
  kErrCoarsestSingleUnknown = 900,
  kErrCoarsestNotSpd = 920,
  kErrCoarsestSingular = 930,
  kErrCoarsestFullGauss = 960,
  kErrCoarsestSparseGauss = 970,
  kErrCoarsestDense = 980,
  kErrCoarsestUser = 990,

  kWarnScalarTreatment = -1,
  kWarnDriverOption = -20,
  kWarnUnknownsWithoutVariables = -40,
  kWarnParameterCorrected = -50,
  kWarnParameterTolerated = -53,
  kWarnMemoryCounter = -60,
  kWarnAllocationReduced = -70,
  kWarnCoarseningStopped = -130,
  kWarnInterpolationRetried = -140,
  kWarnCoarsestCorrected = -990,
};

// Accelerator codes 8xx: tens digit the method, units digit the event;
// positive for errors, negative for warnings.
enum AcceleratorId : int { kAccelCG = 3, kAccelBiCGstab = 4, kAccelGmres = 5 };
enum AcceleratorEvent : int {
  kAccelBreakdown = 0,
  kAccelResidualsDiffer = 1,
  kAccelNotConverged = 2,
  kAccelTooManyRestarts = 3,
  kAccelApproxStagnation = 4,
};
constexpr int accelerator_code(AcceleratorId method, AcceleratorEvent event) {
  return 800 + 10 * method + event;
}

// One line on what an error or warning code means, for reports and tools.
std::string_view describe_error(int code);

// ---------------------------------------------------------------------------
// Message kinds and their prefixes (all eleven characters long)
// ---------------------------------------------------------------------------
enum MessageKind : int { kMsgError = 1, kMsgWarning = -1, kMsgInfo = 0, kMsgControl = -2 };

inline constexpr std::size_t kMessageBufferLength = 200;  // prefix included

// The process-wide diagnostic state.
struct DiagState {
  int ierr = 0;      // error state: > 0 error, < 0 warning, 0 none
  int msg_unit = 6;  // the unit that messages really go to; follows `logio`
};
DiagState& diag();

inline int& ierr() { return diag().ierr; }
inline bool failed() { return diag().ierr > 0; }

// A prefixed message, filtered by `mode_mess`. Filtered messages write nothing,
// not even their blank lines. Composed text is cut at the 200-character buffer.
void print_message(int kind, int blank_before, int blank_after, std::string_view text);
// The same layout without prefix and filter: reports, tables, echoes.
void print_line(int blank_before, int blank_after, std::string_view text);
// "level <k> nflag= <nflag><text>" (or " nflag= ..." for level < 1), kind 0.
void print_level_message(int level, int nflag, std::string_view text);
// "level <k><text>", kind 0; the text alone for level < 1.
void print_level_message(int level, std::string_view text);
// "error code <code>[ pos= <pos>] part1 part2 part3", kind 1; pos < 0 means none.
void print_code_message(int code, int pos, std::initializer_list<std::string_view> parts);

// Records an error: prints `text` as kind 1, sets ierr to `code`, returns code.
int fail(int code, std::string_view text);
// Records a warning: prints `text` as kind -1, sets ierr to `code` (< 0).
void warn(int code, std::string_view text);

// Prints `text` as an error and ends the process with ">>> Emergency STOP! <<<".
[[noreturn]] void emergency_stop(std::string_view text);
// Prints `text` as an error and ends the process with `stop_text`.
[[noreturn]] void stop_process(std::string_view text, std::string_view stop_text);

// ---------------------------------------------------------------------------
// Units: host unit numbers mapped to streams. 0 is standard error, 5 standard
// input, 6 standard output. Any other number >= 0 is a file unit: attached by
// the host (korn_attach_unit) or by open_logfile, else "fort.<n>" on first use.
// ---------------------------------------------------------------------------
bool unit_exists(int unit);
bool unit_connected(int unit);
// The unit a file (by name) is connected to, or -1.
int unit_of_file(std::string_view path);
// Connects `unit` to `path` for writing; append keeps the file's content.
bool attach_unit(int unit, std::string_view path, bool append);
// Closes a file unit; returns 0 or the status of the close. Standard units stay.
int detach_unit(int unit);
// The stream of a unit for writing (opens "fort.<n>" for an unconnected file unit).
std::FILE* unit_stream(int unit);

// Connects `logio` and `logfile`. Returns 0 or 90..94; opened_here is -1 when
// this call opened the file. Leaves the global ierr alone.
int open_logfile(int& opened_here);
// Closes unit `logio` (and its twin for `iounit_opta`); returns the close status.
int close_logfile();
int close_logfile_opta();

// ---------------------------------------------------------------------------
// idec: splits |number| into `digits.size()` (1..9) decimal fields from the most
// significant digit; the last field takes the remainder. Returns the digit count.
// ---------------------------------------------------------------------------
int idec(int number, std::span<int> digits);

// Formats like Fortran list output helpers used across messages.
std::string fmt_int(long long v);

}  // namespace kornlt
