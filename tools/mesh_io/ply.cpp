// Polygon File Format surfaces (.ply), ASCII and binary.
#include "mesh_io/ply.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "mesh_io/text_scanner.h"

namespace kelvo::mesh_io {

namespace {

enum class ply_type { none, i8, u8, i16, u16, i32, u32, f32, f64 };

ply_type type_of(std::string_view t) {
  static constexpr std::pair<const char*, ply_type> names[] = {
      {"char", ply_type::i8},    {"int8", ply_type::i8},     {"uchar", ply_type::u8},
      {"uint8", ply_type::u8},   {"short", ply_type::i16},   {"int16", ply_type::i16},
      {"ushort", ply_type::u16}, {"uint16", ply_type::u16},  {"int", ply_type::i32},
      {"int32", ply_type::i32},  {"uint", ply_type::u32},    {"uint32", ply_type::u32},
      {"float", ply_type::f32},  {"float32", ply_type::f32}, {"double", ply_type::f64},
      {"float64", ply_type::f64}};
  for (const auto& [n, type] : names)
    if (t == n) return type;
  return ply_type::none;
}

unsigned size_of(ply_type t) {
  switch (t) {
    case ply_type::i8:
    case ply_type::u8:
      return 1;
    case ply_type::i16:
    case ply_type::u16:
      return 2;
    case ply_type::f64:
      return 8;
    default:
      return 4;
  }
}

bool is_integer(ply_type t) {
  return t != ply_type::f32 && t != ply_type::f64;
}

struct ply_property {
  std::string_view name;
  ply_type type = ply_type::none;        // of the value, or of the list entries
  ply_type count_type = ply_type::none;  // of the list length; none for a scalar
};

struct ply_element {
  std::string_view name;
  unsigned count = 0;
  std::vector<ply_property> props;
};

enum class ply_format { ascii, little, big };

// Reads the values of a body, one at a time, as text tokens or binary numbers.
class ply_body {
 public:
  ply_format format;
  text_scanner* s;         // ASCII
  std::string_view bytes;  // binary
  std::size_t at;          // binary: next byte
  std::size_t last = 0;    // binary: offset of the last value asked for
  bool end = false;        // binary: the last value ran past the end of the file
  std::string_view name;
  std::string* error;

  // The next value as a double. False when it is missing, malformed or not finite; `fail`
  // then makes the message, so that none is built while all goes well.
  bool value(ply_type t, double& v) {
    if (format == ply_format::ascii) {
      if (!s->next()) return false;
      if (is_integer(t)) {
        long long i;
        if (!parse_int(s->tok, i)) return false;
        v = double(i);
        return true;
      }
      return parse_double(s->tok, v);
    }
    const unsigned n = size_of(t);
    last = at;
    end = bytes.size() - at < n;
    if (end) return false;
    unsigned char b[8];
    std::memcpy(b, bytes.data() + at, n);
    if (format == ply_format::big) std::reverse(b, b + n);
    switch (t) {
      case ply_type::i8:
        v = double(static_cast<std::int8_t>(b[0]));
        break;
      case ply_type::u8:
        v = double(b[0]);
        break;
      case ply_type::i16:
        v = double(get<std::int16_t>(b));
        break;
      case ply_type::u16:
        v = double(get<std::uint16_t>(b));
        break;
      case ply_type::i32:
        v = double(get<std::int32_t>(b));
        break;
      case ply_type::u32:
        v = double(get<std::uint32_t>(b));
        break;
      case ply_type::f32:
        v = double(get<float>(b));
        break;
      default:
        v = get<double>(b);
        break;
    }
    if (!std::isfinite(v)) return false;
    at += n;
    return true;
  }
  // A failure about the value just read (binary: at its offset).
  bool fail(const std::string& what) {
    if (format == ply_format::ascii) return s->fail(what);
    *error = std::string(name) + ": byte " + std::to_string(last) + ": expected " + what +
             (end ? ", found end of file" : "");
    return false;
  }
  std::size_t remaining() const {
    return format == ply_format::ascii ? s->text.size() - s->at : bytes.size() - at;
  }

 private:
  template <class T>
  static T get(const unsigned char* b) {
    T v;
    std::memcpy(&v, b, sizeof v);
    return v;
  }
};

bool read_header(text_scanner& s, ply_format& format, std::vector<ply_element>& elements) {
  std::vector<std::string_view> t;
  if (!s.next_line(t) || t[0] != "ply") return s.fail("the header 'ply'");
  bool have_format = false;
  while (true) {
    if (!s.next_line(t)) return s.fail("'end_header'");
    const unsigned line = s.tok_line;
    if (t[0] == "end_header") break;
    if (t[0] == "comment" || t[0] == "obj_info") continue;
    if (t[0] == "format") {
      if (t.size() < 3) return s.fail_line_end(line, "a format and its version");
      if (t[1] == "ascii")
        format = ply_format::ascii;
      else if (t[1] == "binary_little_endian")
        format = ply_format::little;
      else if (t[1] == "binary_big_endian")
        format = ply_format::big;
      else
        return s.fail_at(line, t[1], "ascii, binary_little_endian or binary_big_endian");
      have_format = true;
    } else if (t[0] == "element") {
      if (t.size() < 3) return s.fail_line_end(line, "an element name and count");
      ply_element e;
      e.name = t[1];
      if (!parse_uint(t[2], e.count)) return s.fail_at(line, t[2], "an element count");
      elements.push_back(e);
    } else if (t[0] == "property") {
      if (elements.empty()) return s.fail_at(line, t[0], "an element before its properties");
      ply_property p;
      if (t.size() >= 2 && t[1] == "list") {
        if (t.size() < 5) return s.fail_line_end(line, "a list's count type, entry type and name");
        p.count_type = type_of(t[2]);
        if (p.count_type == ply_type::none || !is_integer(p.count_type))
          return s.fail_at(line, t[2], "an integer type for the list count");
        p.type = type_of(t[3]);
        if (p.type == ply_type::none) return s.fail_at(line, t[3], "a property type");
        p.name = t[4];
      } else {
        if (t.size() < 3) return s.fail_line_end(line, "a property type and name");
        p.type = type_of(t[1]);
        if (p.type == ply_type::none) return s.fail_at(line, t[1], "a property type");
        p.name = t[2];
      }
      elements.back().props.push_back(p);
    } else {
      return s.fail_at(line, t[0], "format, element, property, comment or end_header");
    }
  }
  if (!have_format) return s.fail("a format line before 'end_header'");
  return true;
}

}  // namespace

bool read_ply(std::string_view name, std::string_view bytes, mesh_file& m, std::string& error) {
  text_scanner s(name, bytes, error, '\0');
  ply_format format = ply_format::ascii;
  std::vector<ply_element> elements;
  if (!read_header(s, format, elements)) return false;

  // The vertex count is known before any face is read: the vertex element comes first in the
  // files that matter, and a face element before it is refused.
  unsigned nv = 0;
  bool have_vertices = false;
  for (const ply_element& e : elements) {
    if (e.name == "vertex") {
      for (const char* c : {"x", "y", "z"}) {
        const auto p = std::find_if(e.props.begin(), e.props.end(),
                                    [&](const ply_property& q) { return q.name == c; });
        if (p == e.props.end() || p->count_type != ply_type::none)
          return s.fail_at(s.tok_line, "end_header",
                           std::string("a scalar property ") + c + " of the vertex element");
      }
      nv = e.count;
      have_vertices = true;
    }
    if (e.name == "face" && !have_vertices)
      return s.fail_at(s.tok_line, "end_header", "the vertex element before the face element");
  }

  ply_body body{format, &s, bytes, s.at, 0, false, name, &error};
  const std::string index_range = "a vertex index from 0 to " + std::to_string(nv ? nv - 1 : 0);
  for (const ply_element& e : elements) {
    const bool vertex = e.name == "vertex", face = e.name == "face";
    // At least one byte per value: a count beyond that is a broken file, not a reservation.
    const std::size_t room = std::min<std::size_t>(
        e.count, body.remaining() / std::max<std::size_t>(1, e.props.size()) + 1);
    if (vertex) m.pos.reserve(3 * room);
    if (face) m.triangles.reserve(3 * room);
    // An element without properties takes no room, whatever its count.
    if (e.props.empty()) continue;
    for (unsigned i = 0; i < e.count; ++i) {
      const auto where = [&] { return " of " + std::string(e.name) + " " + std::to_string(i); };
      for (const ply_property& p : e.props) {
        double v;
        if (p.count_type == ply_type::none) {
          if (!body.value(p.type, v))
            return body.fail("a value of property " + std::string(p.name) + where());
          if (vertex && (p.name == "x" || p.name == "y" || p.name == "z")) {
            m.pos.resize(3 * std::size_t(i) + 3);
            m.pos[3 * std::size_t(i) + (p.name[0] - 'x')] = v;
          }
          continue;
        }
        if (!body.value(p.count_type, v))
          return body.fail("the length of list " + std::string(p.name) + where());
        const bool polygon = face && (p.name == "vertex_indices" || p.name == "vertex_index");
        if (v < (polygon ? 3 : 0) || v > 4294967295.0)
          return body.fail(
              std::string(polygon ? "a polygon size of 3 or more" : "a list length of 0 or more") +
              where());
        const unsigned k = unsigned(v);
        unsigned first = 0, prev = 0;
        for (unsigned j = 0; j < k; ++j) {
          if (!body.value(p.type, v))
            return body.fail((polygon ? index_range : "a list entry") + where());
          if (!polygon) continue;
          if (!is_integer(p.type) || v < 0 || v >= nv) return body.fail(index_range + where());
          const unsigned n = unsigned(v);
          if (j >= 2) m.triangles.insert(m.triangles.end(), {first, prev, n});
          if (j == 0) first = n;
          prev = n;
        }
      }
    }
  }
  return true;
}

}  // namespace kelvo::mesh_io
