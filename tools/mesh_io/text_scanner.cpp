// Tokens and lines of a text file held in memory, with line numbers for the error messages.
#include "mesh_io/text_scanner.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace kelvo::mesh_io {

namespace {
bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}
}  // namespace

void text_scanner::skip_blank() {
  while (at < text.size()) {
    const char c = text[at];
    if (c == '\n') {
      ++line;
      ++at;
    } else if (is_space(c)) {
      ++at;
    } else if (comment && c == comment) {
      while (at < text.size() && text[at] != '\n') ++at;
    } else {
      return;
    }
  }
}

bool text_scanner::next() {
  skip_blank();
  tok_line = line;
  const std::size_t b = at;
  while (at < text.size() && !is_space(text[at]) && !(comment && text[at] == comment)) ++at;
  tok = text.substr(b, at - b);
  if (tok.empty()) tok_line = last_line();
  return !tok.empty();
}

unsigned text_scanner::last_line() const {
  // The end of a file that ends with a line break belongs to its last line.
  return line - (!text.empty() && at == text.size() && text.back() == '\n' && line > 1 ? 1 : 0);
}

bool text_scanner::next_line(std::vector<std::string_view>& tokens) {
  tokens.clear();
  while (at < text.size()) {
    tok_line = line;
    // One line: tokens up to its end or its comment.
    while (at < text.size() && text[at] != '\n') {
      const char c = text[at];
      if (is_space(c)) {
        ++at;
      } else if (comment && c == comment) {
        while (at < text.size() && text[at] != '\n') ++at;
      } else {
        const std::size_t b = at;
        while (at < text.size() && !is_space(text[at]) && !(comment && text[at] == comment)) ++at;
        tokens.push_back(text.substr(b, at - b));
      }
    }
    if (at < text.size()) {
      ++at;
      ++line;
    }
    if (!tokens.empty()) {
      tok = tokens[0];
      return true;
    }
  }
  tok = {};
  tok_line = last_line();
  return false;
}

std::string_view text_scanner::rest_of_line() {
  const std::size_t b = at;
  while (at < text.size() && text[at] != '\n') ++at;
  return text.substr(b, at - b);
}

bool text_scanner::fail_at(unsigned at_line, std::string_view token, std::string_view what) const {
  // Built by appending: gcc 12 warns falsely (-Wrestrict) on "literal" + std::string.
  std::string& e = *error;
  e.assign(name);
  e.append(":")
      .append(std::to_string(at_line))
      .append(": expected ")
      .append(what)
      .append(", found ");
  if (token.empty())
    e.append("end of file");
  else
    e.append("'").append(quoted(token)).append("'");
  return false;
}

bool text_scanner::fail_line_end(unsigned at_line, std::string_view what) const {
  *error = std::string(name) + ":" + std::to_string(at_line) + ": expected " + std::string(what) +
           ", found end of line";
  return false;
}

bool text_scanner::fail(std::string_view what) const {
  return fail_at(tok_line, tok, what);
}

bool text_scanner::read_uint(unsigned& v, std::string_view what) {
  return (next() && parse_uint(tok, v)) || fail(what);
}

bool text_scanner::read_int(long long& v, std::string_view what) {
  return (next() && parse_int(tok, v)) || fail(what);
}

bool text_scanner::read_double(double& v, std::string_view what) {
  return (next() && parse_double(tok, v)) || fail(what);
}

namespace {
std::string quote_word(std::string_view word) {
  std::string q(1, '\'');
  q.append(word).append(1, '\'');
  return q;
}
}  // namespace

bool text_scanner::expect(std::string_view word) {
  return (next() && same_word(tok, word)) || fail(quote_word(word));
}

namespace {
constexpr std::string_view bom = "\xEF\xBB\xBF";
}  // namespace

std::string_view plain_text(std::string_view bytes, std::string& scratch) {
  if (bytes.substr(0, bom.size()) == bom) bytes.remove_prefix(bom.size());
  bool lone = false;
  for (std::size_t i = bytes.find('\r'); i != std::string_view::npos && !lone;
       i = bytes.find('\r', i + 1))
    lone = i + 1 == bytes.size() || bytes[i + 1] != '\n';
  if (!lone) return bytes;
  scratch.assign(bytes);
  for (std::size_t i = 0; i < scratch.size(); ++i)
    if (scratch[i] == '\r' && (i + 1 == scratch.size() || scratch[i + 1] != '\n'))
      scratch[i] = '\n';
  return scratch;
}

std::string_view without_bom_before(std::string_view bytes, std::string_view word) {
  if (bytes.substr(0, bom.size()) == bom && bytes.size() >= bom.size() + word.size() &&
      same_word(bytes.substr(bom.size(), word.size()), word))
    bytes.remove_prefix(bom.size());
  return bytes;
}

bool parse_uint(std::string_view s, unsigned& v) {
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parse_int(std::string_view s, long long& v) {
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return !s.empty() && r.ec == std::errc() && r.ptr == s.data() + s.size();
}

bool parse_double(std::string_view s, double& v) {
  if (!s.empty() && s[0] == '+') s.remove_prefix(1);
  if (s.empty() || s[0] == '+') return false;
  const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
  return r.ec == std::errc() && r.ptr == s.data() + s.size() && std::isfinite(v);
}

bool same_word(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i], y = b[i];
    if (x >= 'A' && x <= 'Z') x = char(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = char(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

std::string quoted(std::string_view token) {
  std::string s;
  for (std::size_t i = 0; i < token.size() && i < 24; ++i) {
    const unsigned char c = static_cast<unsigned char>(token[i]);
    s += (c >= 32 && c < 127) ? char(c) : '?';
  }
  if (token.size() > 24) s += "...";
  return s;
}

}  // namespace kelvo::mesh_io
