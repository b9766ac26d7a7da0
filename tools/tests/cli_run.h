// The voxfill command run as a user runs it, for the tests of the tool: a scratch folder per
// process, the tool with its output caught, and an independent reader (meshio) when installed.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace cli_run {

namespace fs = std::filesystem;

inline const fs::path& folder() {
  static const fs::path p = [] {
    const fs::path q = fs::temp_directory_path() / ("voxfill_cli_" + std::to_string(getpid()));
    fs::create_directories(q);
    return q;
  }();
  return p;
}

inline std::string in_folder(const std::string& name) {
  return (folder() / name).string();
}

struct result {
  int status = -1;
  std::string out, err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  std::stringstream s;
  s << f.rdbuf();
  return s.str();
}

// Runs the built tool with `args`, stdout and stderr caught; `env` (NAME=value ...) goes before
// the command.
inline result voxfill_env(const std::string& env, const std::string& args) {
  const std::string out = in_folder("stdout.txt"), err = in_folder("stderr.txt");
  const std::string cmd = (env.empty() ? "" : env + " ") + std::string(VOXFILL_BIN) + " " + args +
                          " >" + out + " 2>" + err;
  const int s = std::system(cmd.c_str());
  result r;
  r.status = WIFEXITED(s) ? WEXITSTATUS(s) : -1;
  r.out = slurp(out);
  r.err = slurp(err);
  return r;
}

inline result voxfill(const std::string& args) {
  return voxfill_env("", args);
}

inline void write_text(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A Python interpreter that can import meshio (Debian's python3-meshio lives beside
// /usr/bin/python3, which another python3 on the PATH may hide), or empty.
inline std::string python_with_meshio() {
  for (const char* python : {"/usr/bin/python3", "python3"}) {
    const std::string cmd = std::string(python) + " -c 'import meshio' >/dev/null 2>&1";
    if (std::system(cmd.c_str()) == 0) return python;
  }
  return {};
}

// Runs a Python script with meshio; its standard output.
inline std::string run_python(const std::string& python, const std::string& script,
                              const std::string& args) {
  const std::string path = in_folder("script.py"), out = in_folder("python.txt");
  write_text(path, script);
  const std::string cmd = python + " " + path + " " + args + " >" + out + " 2>/dev/null";
  EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
  return slurp(out);
}

}  // namespace cli_run
