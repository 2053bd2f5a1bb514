// Matrix Market files: coordinate matrices to the library's compressed rows
// (diagonal first, duplicates summed, symmetric files expanded), array vectors
// in and out.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <system_error>

#include "io/io.hpp"
#include "log/log.hpp"

namespace kornlt {

namespace {

// ---------------------------------------------------------------------------
// Line reader: the file in large chunks, handed out one line at a time as a
// view (without the line end, a trailing '\r' removed). Counts the lines.
// ---------------------------------------------------------------------------
class LineReader {
 public:
  explicit LineReader(std::FILE* f) : f_(f), buf_(kChunk) {}

  // The next line, or false at the end of the file (or a read error).
  bool next(std::string_view& line) {
    for (;;) {
      const char* nl = static_cast<const char*>(std::memchr(buf_.data() + pos_, '\n', end_ - pos_));
      if (nl != nullptr) {
        const std::size_t len = static_cast<std::size_t>(nl - (buf_.data() + pos_));
        line = cut_cr(std::string_view(buf_.data() + pos_, len));
        pos_ += len + 1;
        ++lineno_;
        return true;
      }
      if (eof_) {
        if (pos_ == end_) return false;
        line = cut_cr(std::string_view(buf_.data() + pos_, end_ - pos_));  // last line without '\n'
        pos_ = end_;
        ++lineno_;
        return true;
      }
      refill();
    }
  }
  long long lineno() const { return lineno_; }
  bool read_error() const { return error_; }

 private:
  static constexpr std::size_t kChunk = std::size_t{1} << 20;

  static std::string_view cut_cr(std::string_view s) {
    if (!s.empty() && s.back() == '\r') s.remove_suffix(1);
    return s;
  }
  // Keeps the unread rest, grows the buffer for an overlong line, reads more.
  void refill() {
    const std::size_t rest = end_ - pos_;
    if (pos_ > 0) std::memmove(buf_.data(), buf_.data() + pos_, rest);
    pos_ = 0;
    end_ = rest;
    if (buf_.size() - end_ < kChunk / 2) buf_.resize(buf_.size() * 2);
    const std::size_t got = std::fread(buf_.data() + end_, 1, buf_.size() - end_, f_);
    end_ += got;
    if (got == 0) {
      eof_ = true;
      error_ = std::ferror(f_) != 0;
    }
  }

  std::FILE* f_;
  std::vector<char> buf_;
  std::size_t pos_ = 0, end_ = 0;
  long long lineno_ = 0;
  bool eof_ = false, error_ = false;
};

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Splits a line into blank-separated words (spaces and tabs); at most `max`
// are stored, the count of all is returned.
int split_words(std::string_view line, std::string_view* words, int max) {
  int n = 0;
  std::size_t p = 0;
  while (p < line.size()) {
    while (p < line.size() && (line[p] == ' ' || line[p] == '\t')) ++p;
    if (p == line.size()) break;
    std::size_t q = p;
    while (q < line.size() && line[q] != ' ' && line[q] != '\t') ++q;
    if (n < max) words[n] = line.substr(p, q - p);
    ++n;
    p = q;
  }
  return n;
}

bool is_blank(std::string_view line) {
  return line.find_first_not_of(" \t") == std::string_view::npos;
}

std::string lower(std::string_view s) {
  std::string r(s);
  for (char& c : r) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return r;
}

template <class T>
bool parse_int(std::string_view w, T& v) {
  const char* b = w.data();
  const char* e = b + w.size();
  if (b != e && *b == '+') {
    ++b;
    if (b != e && *b == '-') return false;
  }
  const auto r = std::from_chars(b, e, v);
  return r.ec == std::errc() && r.ptr == e && b != e;
}

bool parse_real(std::string_view w, double& v) {
  const char* b = w.data();
  const char* e = b + w.size();
  if (b != e && *b == '+') {
    ++b;
    if (b != e && *b == '-') return false;
  }
  // Fortran-style exponents (1.0D+03) appear in old files.
  std::string tmp;
  if (std::find_if(b, e, [](char c) { return c == 'd' || c == 'D'; }) != e) {
    tmp.assign(b, e);
    for (char& c : tmp)
      if (c == 'd' || c == 'D') c = 'e';
    b = tmp.data();
    e = b + tmp.size();
  }
  const auto r = std::from_chars(b, e, v, std::chars_format::general);
  return r.ec == std::errc() && r.ptr == e && b != e;
}

std::string at_line(const std::string& name, long long line, std::string_view what) {
  return name + ": line " + std::to_string(line) + ": " + std::string(what);
}

std::string quoted(std::string_view w) {
  std::string r;
  r.reserve(w.size() + 2);
  r.push_back('\'');
  r.append(w);
  r.push_back('\'');
  return r;
}

// The header line, checked word by word. vector_file selects which format is
// expected. Returns "" or the failure text.
std::string read_header(LineReader& in, const std::string& name, bool vector_file,
                        MtxField& field, MtxSymmetry& sym) {
  std::string_view line;
  if (!in.next(line) || lower(line.substr(0, 14)) != "%%matrixmarket")
    return at_line(name, 1, "missing header line \"%%MatrixMarket matrix ...\"");
  std::string_view w[6];
  const int nw = split_words(line, w, 6);
  if (nw != 5 || lower(w[0]) != "%%matrixmarket")
    return at_line(name, 1, "header must read \"%%MatrixMarket matrix <format> <field> <symmetry>\"");
  const std::string object = lower(w[1]), format = lower(w[2]), fld = lower(w[3]),
                    symm = lower(w[4]);
  if (object != "matrix") return at_line(name, 1, "unsupported object " + quoted(w[1]) + " (only 'matrix')");
  if (!vector_file && format != "coordinate")
    return at_line(name, 1, "unsupported format " + quoted(w[2]) + " (a matrix file must be 'coordinate')");
  if (vector_file && format != "array")
    return at_line(name, 1, "unsupported format " + quoted(w[2]) + " (a vector file must be 'array')");
  if (fld == "real" || fld == "double") {
    field = MtxField::kReal;
  } else if (fld == "integer") {
    field = MtxField::kInteger;
  } else if (fld == "pattern" && !vector_file) {
    field = MtxField::kPattern;
  } else {
    return at_line(name, 1, "unsupported field " + quoted(w[3]) +
                                (vector_file ? " (real or integer)" : " (real, integer or pattern)"));
  }
  if (symm == "general") {
    sym = MtxSymmetry::kGeneral;
  } else if (symm == "symmetric" && !vector_file) {
    sym = MtxSymmetry::kSymmetric;
  } else {
    return at_line(name, 1, "unsupported symmetry " + quoted(w[4]) +
                                (vector_file ? " (general)" : " (general or symmetric)"));
  }
  return {};
}

// The next line that is neither a comment nor blank; false at the end.
bool next_data_line(LineReader& in, std::string_view& line) {
  while (in.next(line)) {
    if (!line.empty() && line[0] == '%') continue;
    if (is_blank(line)) continue;
    return true;
  }
  return false;
}

// A value word of the given field; false if it is no number or not finite.
bool parse_value(MtxField field, std::string_view w, double& v) {
  if (field == MtxField::kInteger) {
    long long iv = 0;
    if (!parse_int(w, iv)) return false;
    v = static_cast<double>(iv);
    return true;
  }
  return parse_real(w, v) && std::isfinite(v);
}

std::uintmax_t file_size_or_zero(const std::string& path) {
  std::error_code ec;
  const auto s = std::filesystem::file_size(path, ec);
  return ec ? 0 : s;
}

}  // namespace

// ---------------------------------------------------------------------------
// Conversion: counting sort by row into slots with one reserved diagonal
// place per row, then each row sorted by column (skipped when the file had
// it in order), duplicates summed, the diagonal moved to the row head, and
// the rows compacted in place.
// ---------------------------------------------------------------------------
int entries_to_csr(int n, bool symmetric, const std::vector<MtxEntry>& e, CsrMatrix& m,
                   std::int64_t& nduplicates) {
  nduplicates = 0;
  // ---- count: slot 0 of each row is the diagonal's place
  std::vector<std::int64_t> start(static_cast<std::size_t>(n) + 2, 0);
  for (int i = 1; i <= n; ++i) start[i + 1] = 1;
  for (const MtxEntry& t : e) {
    ++start[t.i + 1];
    if (symmetric && t.i != t.j) ++start[t.j + 1];
  }
  for (int i = 1; i <= n; ++i) start[i + 1] += start[i];
  const std::int64_t cap = start[n + 1];
  m.nnu = n;
  m.ja.assign(static_cast<std::size_t>(cap), 0);
  m.a.assign(static_cast<std::size_t>(cap), 0.0);
  m.ia.assign(static_cast<std::size_t>(n) + 1, 0);

  // ---- scatter in the order of `e`, behind each row's diagonal place
  std::vector<std::int64_t> fill(start.begin(), start.end() - 1);
  for (int i = 1; i <= n; ++i) fill[i] = start[i] + 1;
  for (const MtxEntry& t : e) {
    std::int64_t p = fill[t.i]++;
    m.ja[p] = t.j;
    m.a[p] = t.v;
    if (symmetric && t.i != t.j) {
      p = fill[t.j]++;
      m.ja[p] = t.i;
      m.a[p] = t.v;
    }
  }
  fill.clear();
  fill.shrink_to_fit();

  // ---- per row: sort, sum duplicates, diagonal first, compact
  struct Slot {
    int j;
    int seq;  // position in the row = order in `e`: equal columns keep it
    double v;
  };
  std::vector<Slot> row;
  std::int64_t w = 0;  // next output position (0-based); never passes the row being read
  int nadded = 0;
  for (int i = 1; i <= n; ++i) {
    const std::int64_t lo = start[i] + 1, hi = start[i + 1];
    row.clear();
    for (std::int64_t p = lo; p < hi; ++p)
      row.push_back(Slot{m.ja[p], static_cast<int>(p - lo), m.a[p]});
    const auto by_col = [](const Slot& x, const Slot& y) {
      return x.j < y.j || (x.j == y.j && x.seq < y.seq);
    };
    if (!std::is_sorted(row.begin(), row.end(), by_col)) std::sort(row.begin(), row.end(), by_col);

    m.ia[i - 1] = static_cast<int>(w + 1);
    const std::int64_t head = w++;
    bool has_diag = false;
    double diag = 0.0;
    for (std::size_t k = 0; k < row.size();) {
      const int j = row[k].j;
      double s = row[k].v;
      std::size_t q = k + 1;
      for (; q < row.size() && row[q].j == j; ++q) s += row[q].v;
      nduplicates += static_cast<std::int64_t>(q - k - 1);
      if (j == i) {
        has_diag = true;
        diag = s;
      } else {
        m.ja[w] = j;
        m.a[w] = s;
        ++w;
      }
      k = q;
    }
    m.ja[head] = i;
    m.a[head] = diag;
    if (!has_diag) ++nadded;
  }
  m.ia[n] = static_cast<int>(w + 1);
  m.nna = static_cast<int>(w);
  return nadded;
}

// ---------------------------------------------------------------------------
// Coordinate matrix files
// ---------------------------------------------------------------------------
std::string mtx_load_matrix(const std::string& path, CsrMatrix& m, MtxInfo& info) {
  m = CsrMatrix{};
  info = MtxInfo{};
  FilePtr file(std::fopen(path.c_str(), "rb"));
  if (!file) return path + ": cannot open file (" + std::strerror(errno) + ")";
  LineReader in(file.get());

  // ---- header and size line
  std::string err = read_header(in, path, false, info.field, info.symmetry);
  if (!err.empty()) return err;
  std::string_view line;
  if (!next_data_line(in, line)) return at_line(path, in.lineno() + 1, "missing size line");
  std::string_view w[4];
  long long nrows = 0, ncols = 0, nent = 0;
  if (split_words(line, w, 4) != 3 || !parse_int(w[0], nrows) || !parse_int(w[1], ncols) ||
      !parse_int(w[2], nent))
    return at_line(path, in.lineno(), "size line must hold 3 integers: rows columns entries");
  if (nrows < 1 || ncols < 1 || nent < 0)
    return at_line(path, in.lineno(), "sizes must be positive (rows " + std::to_string(nrows) +
                                          ", columns " + std::to_string(ncols) + ", entries " +
                                          std::to_string(nent) + ")");
  if (nrows != ncols)
    return at_line(path, in.lineno(), "matrix is not square (" + std::to_string(nrows) +
                                          " rows, " + std::to_string(ncols) + " columns)");
  const bool symmetric = info.symmetry == MtxSymmetry::kSymmetric;
  // The library counts rows and entries in 32-bit integers; the expanded
  // matrix with a diagonal place per row must fit.
  if (nrows > INT_MAX - 2 || nent > INT_MAX ||
      (symmetric ? 2 * nent : nent) + nrows > static_cast<long long>(INT_MAX) - 1)
    return at_line(path, in.lineno(), "matrix too large for 32-bit indices");
  const int n = static_cast<int>(nrows);
  info.nentries = nent;

  // ---- entries
  const bool pattern = info.field == MtxField::kPattern;
  const int nwords = pattern ? 2 : 3;
  const char* expect = pattern ? " (row column)" : " (row column value)";
  std::vector<MtxEntry> e;
  try {
    // Each entry takes at least 4 bytes of the file: never reserve beyond that.
    const auto bound = static_cast<long long>(file_size_or_zero(path) / 4 + 1);
    e.reserve(static_cast<std::size_t>(std::min(nent, bound)));
    while (next_data_line(in, line)) {
      const int nw = split_words(line, w, 4);
      if (static_cast<long long>(e.size()) == nent)
        return at_line(path, in.lineno(), "more entries than the " + std::to_string(nent) +
                                              " declared in the size line");
      if (nw != nwords)
        return at_line(path, in.lineno(), "entry has " + std::to_string(nw) + " fields, expected " +
                                              std::to_string(nwords) + expect);
      long long i = 0, j = 0;
      double v = 1.0;
      if (!parse_int(w[0], i)) return at_line(path, in.lineno(), "invalid row index " + quoted(w[0]));
      if (!parse_int(w[1], j))
        return at_line(path, in.lineno(), "invalid column index " + quoted(w[1]));
      if (!pattern && !parse_value(info.field, w[2], v))
        return at_line(path, in.lineno(), "invalid value " + quoted(w[2]));
      if (i < 1 || i > n)
        return at_line(path, in.lineno(), "row index " + std::to_string(i) + " out of range 1.." +
                                              std::to_string(n));
      if (j < 1 || j > n)
        return at_line(path, in.lineno(), "column index " + std::to_string(j) + " out of range 1.." +
                                              std::to_string(n));
      e.push_back(MtxEntry{static_cast<int>(i), static_cast<int>(j), v});
    }
    if (in.read_error()) return path + ": read error";
    if (static_cast<long long>(e.size()) < nent)
      return at_line(path, in.lineno() + 1, "end of file after " + std::to_string(e.size()) + " of " +
                                                std::to_string(nent) + " declared entries");

    // ---- conversion
    info.ndiag_added = entries_to_csr(n, symmetric, e, m, info.nduplicates);
  } catch (const std::bad_alloc&) {
    m = CsrMatrix{};
    return path + ": out of memory for " + std::to_string(nent) + " entries";
  }
  return {};
}

// ---------------------------------------------------------------------------
// Array vector files
// ---------------------------------------------------------------------------
namespace {

std::string load_vector(const std::string& path, std::vector<double>& v) {
  FilePtr file(std::fopen(path.c_str(), "rb"));
  if (!file) return path + ": cannot open file (" + std::strerror(errno) + ")";
  LineReader in(file.get());
  MtxField field = MtxField::kReal;
  MtxSymmetry sym = MtxSymmetry::kGeneral;
  std::string err = read_header(in, path, true, field, sym);
  if (!err.empty()) return err;
  std::string_view line;
  if (!next_data_line(in, line)) return at_line(path, in.lineno() + 1, "missing size line");
  std::string_view w[3];
  long long nrows = 0, ncols = 0;
  if (split_words(line, w, 3) != 2 || !parse_int(w[0], nrows) || !parse_int(w[1], ncols))
    return at_line(path, in.lineno(), "size line must hold 2 integers: rows columns");
  if (nrows < 1 || nrows > INT_MAX - 2)
    return at_line(path, in.lineno(), "row count " + std::to_string(nrows) + " out of range");
  if (ncols != 1)
    return at_line(path, in.lineno(), "a vector needs exactly 1 column, found " + std::to_string(ncols));
  try {
    const auto bound = static_cast<long long>(file_size_or_zero(path) / 2 + 1);
    v.reserve(static_cast<std::size_t>(std::min(nrows, bound)));
    while (next_data_line(in, line)) {
      const int nw = split_words(line, w, 3);
      if (static_cast<long long>(v.size()) == nrows)
        return at_line(path, in.lineno(), "more values than the " + std::to_string(nrows) +
                                              " declared in the size line");
      if (nw != 1)
        return at_line(path, in.lineno(), "line has " + std::to_string(nw) + " fields, expected 1 value");
      double x = 0.0;
      if (!parse_value(field, w[0], x)) return at_line(path, in.lineno(), "invalid value " + quoted(w[0]));
      v.push_back(x);
    }
    if (in.read_error()) return path + ": read error";
    if (static_cast<long long>(v.size()) < nrows)
      return at_line(path, in.lineno() + 1, "end of file after " + std::to_string(v.size()) + " of " +
                                                std::to_string(nrows) + " declared values");
  } catch (const std::bad_alloc&) {
    return path + ": out of memory for " + std::to_string(nrows) + " values";
  }
  return {};
}

}  // namespace

std::string mtx_load_vector(const std::string& path, std::vector<double>& v) {
  v.clear();
  std::string err = load_vector(path, v);
  if (!err.empty()) {
    v.clear();
    v.shrink_to_fit();
  }
  return err;
}

std::string mtx_save_vector(const std::string& path, const std::vector<double>& v) {
  FilePtr file(std::fopen(path.c_str(), "wb"));
  if (!file) return path + ": cannot create file (" + std::strerror(errno) + ")";
  std::FILE* f = file.get();
  std::fprintf(f, "%%%%MatrixMarket matrix array real general\n%zu 1\n", v.size());
  for (double x : v) std::fprintf(f, "%.17g\n", x);
  if (std::fflush(f) != 0 || std::ferror(f) != 0) return path + ": write error";
  return {};
}

// ---------------------------------------------------------------------------
// Drivers under the library's error convention
// ---------------------------------------------------------------------------
void read_mtx_matrix(const std::string& path, CsrMatrix& m, MtxInfo& info) {
  const std::string err = mtx_load_matrix(path, m, info);
  if (!err.empty()) fail(kErrFile, err + " (read_mtx_matrix)");
}

void read_mtx_vector(const std::string& path, std::vector<double>& v) {
  const std::string err = mtx_load_vector(path, v);
  if (!err.empty()) fail(kErrFile, err + " (read_mtx_vector)");
}

void write_mtx_vector(const std::string& path, const std::vector<double>& v) {
  const std::string err = mtx_save_vector(path, v);
  if (!err.empty()) fail(kErrFile, err + " (write_mtx_vector)");
}

}  // namespace kornlt
