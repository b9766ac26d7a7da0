// Buffered text output to a file, with numbers in their shortest exact form.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo::mesh_io {

// Writes through a 1 MiB buffer. Doubles are written in the shortest form that reads back to
// the same value, so that a written mesh reads back bit for bit.
class text_output {
 public:
  std::string path;
  std::FILE* file = nullptr;
  std::vector<char> buf;
  bool ok = false;
  int open_errno = 0;  // why the file could not be opened

  // Opens `path` for writing; `ok` tells whether it could.
  explicit text_output(const std::string& path_);
  ~text_output();
  text_output(const text_output&) = delete;
  text_output& operator=(const text_output&) = delete;

  text_output& operator<<(std::string_view s);
  text_output& operator<<(char c);
  text_output& operator<<(double v);
  text_output& operator<<(unsigned v);
  text_output& operator<<(unsigned long long v);
  text_output& operator<<(int v);

  // Flushes and closes. False, with "cannot write PATH: REASON", when anything failed.
  bool close(std::string& error);

 private:
  void flush();
  void room(std::size_t n) {
    if (buf.size() + n > (1u << 20)) flush();
  }
};

}  // namespace kelvo::mesh_io
