// Tokens and lines of a text file held in memory, with line numbers for the error messages.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelvo::mesh_io {

// Splits a text into whitespace-separated tokens. A comment character, when not '\0', hides the
// rest of its line. Every failure message has the form "NAME:LINE: expected WHAT, found 'TOKEN'"
// (or "found end of file"), with the line of the last token read.
class text_scanner {
 public:
  std::string_view name;  // the file name, as the user gave it
  std::string_view text;  // the whole file
  std::size_t at = 0;     // next byte to look at
  unsigned line = 1;      // line of `at`
  char comment = '#';     // '\0': no comments
  std::string_view tok;   // last token read, empty at the end of the file
  unsigned tok_line = 1;  // line of `tok`
  std::string* error;     // receives the message of a failure

  text_scanner(std::string_view name_, std::string_view text_, std::string& error_,
               char comment_ = '#')
      : name(name_), text(text_), comment(comment_), error(&error_) {}

  // Next token, across lines. False at the end of the file (tok is then empty).
  bool next();
  // Tokens of the next line that holds any; its line number goes to tok_line. False at the end.
  bool next_line(std::vector<std::string_view>& tokens);
  // The rest of the current line, untouched (for names that may hold spaces).
  std::string_view rest_of_line();

  // Sets the message "expected WHAT, found ..." about `tok` and returns false.
  bool fail(std::string_view what) const;
  // The same about a given token on a given line.
  bool fail_at(unsigned at_line, std::string_view token, std::string_view what) const;
  // "expected WHAT, found end of line" about a line that is too short.
  bool fail_line_end(unsigned at_line, std::string_view what) const;

  // Typed reads of the next token: false with the message when it is missing or malformed.
  bool read_uint(unsigned& v, std::string_view what);
  bool read_int(long long& v, std::string_view what);
  bool read_double(double& v, std::string_view what);  // finite values only
  // The next token must be `word` (ASCII case ignored).
  bool expect(std::string_view word);

 private:
  void skip_blank();
  // The line to name for the end of the file.
  unsigned last_line() const;
};

// The text of a file without a UTF-8 byte-order mark, and with lone carriage returns (old Mac
// line ends) read as line feeds, so that lines split and count as the user sees them. Copies
// into `scratch` only when a carriage return stands alone.
std::string_view plain_text(std::string_view bytes, std::string& scratch);
// The bytes without a UTF-8 byte-order mark, when one stands before `word` (binary formats
// whose text variant begins with that word).
std::string_view without_bom_before(std::string_view bytes, std::string_view word);

// Whole-token conversions; false when the token is not entirely a number of that kind.
bool parse_uint(std::string_view s, unsigned& v);
bool parse_int(std::string_view s, long long& v);
bool parse_double(std::string_view s, double& v);  // finite values only; a leading '+' is taken
// ASCII case-insensitive equality.
bool same_word(std::string_view a, std::string_view b);
// A token as it appears in a message: at most 24 characters, non-printable bytes as '?'.
std::string quoted(std::string_view token);

}  // namespace kelvo::mesh_io
