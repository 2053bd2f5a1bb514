// Running the korn-solve program as a process on files written by a test:
// a scratch directory, the run with its exit status and both output streams.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace korn_tool_test {

namespace fs = std::filesystem;

// The scratch directory; created first and removed last (declaration order).
struct Workdir {
  fs::path path;
  Workdir() : path(fs::temp_directory_path() / ("korn_solve_" + std::to_string(::getpid()))) {
    fs::create_directories(path);
  }
  ~Workdir() {
    std::error_code ec;
    fs::remove_all(path, ec);
  }
};
inline Workdir scratch;

inline const fs::path& workdir() { return scratch.path; }

inline std::string write_file(const std::string& name, const std::string& content) {
  const fs::path p = workdir() / name;
  std::ofstream(p, std::ios::binary) << content;
  return p.string();
}

inline std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct ToolRun {
  int status;
  std::string out, err;
};

// Runs the program in the scratch directory (so that no parameter file of
// the caller's directory is read).
inline ToolRun run(const std::string& args) {
  const fs::path out = workdir() / "stdout.txt", err = workdir() / "stderr.txt";
  const std::string cmd = "cd '" + workdir().string() + "' && '" KORN_SOLVE_PATH "' " + args + " >'" +
                          out.string() + "' 2>'" + err.string() + "'";
  const int rc = std::system(cmd.c_str());
  return {WIFEXITED(rc) ? WEXITSTATUS(rc) : -1, slurp(out), slurp(err)};
}

// A value printed after `label` on the program's output, or -1 if absent.
inline double value_after(const std::string& out, const std::string& label) {
  const auto p = out.find(label);
  if (p == std::string::npos) return -1.0;
  return std::strtod(out.c_str() + p + label.size(), nullptr);
}

}  // namespace korn_tool_test
