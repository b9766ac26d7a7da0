// Buffered text output to a file, with numbers in their shortest exact form.
#include "mesh_io/text_output.h"

#include <cerrno>
#include <charconv>
#include <cstring>

namespace kelvo::mesh_io {

text_output::text_output(const std::string& path_) : path(path_) {
  file = std::fopen(path.c_str(), "wb");
  ok = file != nullptr;
  if (!ok) open_errno = errno;
  buf.reserve(1u << 20);
}

text_output::~text_output() {
  if (file) std::fclose(file);
}

void text_output::flush() {
  if (ok && !buf.empty() && std::fwrite(buf.data(), 1, buf.size(), file) != buf.size()) ok = false;
  buf.clear();
}

text_output& text_output::operator<<(std::string_view s) {
  room(s.size());
  buf.insert(buf.end(), s.begin(), s.end());
  return *this;
}

text_output& text_output::operator<<(char c) {
  room(1);
  buf.push_back(c);
  return *this;
}

text_output& text_output::operator<<(double v) {
  char tmp[32];
  // -0.0 is written as 0 so that a file never shows a signed zero that means nothing.
  if (v == 0.0) v = 0.0;
  const auto r = std::to_chars(tmp, tmp + sizeof tmp, v);
  return *this << std::string_view(tmp, std::size_t(r.ptr - tmp));
}

text_output& text_output::operator<<(unsigned long long v) {
  char tmp[24];
  const auto r = std::to_chars(tmp, tmp + sizeof tmp, v);
  return *this << std::string_view(tmp, std::size_t(r.ptr - tmp));
}

text_output& text_output::operator<<(unsigned v) {
  return *this << static_cast<unsigned long long>(v);
}

text_output& text_output::operator<<(int v) {
  char tmp[16];
  const auto r = std::to_chars(tmp, tmp + sizeof tmp, v);
  return *this << std::string_view(tmp, std::size_t(r.ptr - tmp));
}

bool text_output::close(std::string& error) {
  if (!file) {
    error = "cannot write " + path + ": " + std::strerror(open_errno);
    return false;
  }
  flush();
  const bool closed = std::fclose(file) == 0;
  file = nullptr;
  if (ok && closed) return true;
  error = "cannot write " + path + ": " + std::strerror(errno);
  return false;
}

}  // namespace kelvo::mesh_io
