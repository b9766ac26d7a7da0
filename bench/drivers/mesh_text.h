// Plain mesh tables and the text formats that the comparison drivers and the checker share:
// a whole-file scanner, Medit .mesh (read and write), OFF, .xyz and TetGen .node/.ele (read).
#pragma once

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace bench_mesh {

// Nodes, boundary triangles, hard edges and nodes, and tets, 0-based, as flat arrays.
struct tables {
  std::vector<double> xyz;              // 3 per node
  std::vector<std::uint32_t> tris;      // 3 per triangle
  std::vector<std::uint32_t> tri_refs;  // 1 per triangle
  std::vector<std::uint32_t> edges;     // 2 per hard edge
  std::vector<std::uint32_t> corners;   // hard nodes
  std::vector<std::uint32_t> tets;      // 4 per tet
  std::vector<std::uint32_t> tet_refs;  // 1 per tet, may be empty
  std::size_t node_count() const { return xyz.size() / 3; }
  std::size_t tet_count() const { return tets.size() / 4; }
};

// Reads a whole file into `text`; false when it cannot be opened or read.
inline bool slurp(const char* path, std::string& text) {
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  std::fseek(f, 0, SEEK_END);
  const long size = std::ftell(f);
  std::fseek(f, 0, SEEK_SET);
  text.resize(size > 0 ? std::size_t(size) : 0);
  const bool ok = size >= 0 && std::fread(text.data(), 1, text.size(), f) == text.size();
  std::fclose(f);
  return ok;
}

// Whitespace-separated tokens of a text held in memory; `#` starts a comment to the end of the
// line. Numbers go through from_chars: no locale, and fast enough for millions of lines.
class scanner {
 public:
  explicit scanner(std::string_view text) : p_(text.data()), end_(text.data() + text.size()) {}

  // The next token, empty at the end of the text.
  std::string_view token() {
    skip();
    const char* b = p_;
    while (p_ < end_ && !space(*p_)) ++p_;
    return std::string_view(b, std::size_t(p_ - b));
  }
  bool number(double& x) {
    skip();
    if (p_ < end_ && *p_ == '+') ++p_;
    const auto r = std::from_chars(p_, end_, x);
    if (r.ec != std::errc()) return false;
    p_ = r.ptr;
    return true;
  }
  template <class T>
  bool integer(T& v) {
    skip();
    const auto r = std::from_chars(p_, end_, v);
    if (r.ec != std::errc()) return false;
    p_ = r.ptr;
    return true;
  }
  // Skips the rest of the current line.
  void next_line() {
    while (p_ < end_ && *p_ != '\n') ++p_;
  }
  bool at_end() {
    skip();
    return p_ >= end_;
  }

 private:
  static bool space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
  void skip() {
    for (;;) {
      while (p_ < end_ && space(*p_)) ++p_;
      if (p_ < end_ && *p_ == '#') {
        next_line();
        continue;
      }
      return;
    }
  }
  const char* p_;
  const char* end_;
};

// Reads `count` rows of `width` 1-based indices followed by a reference, as 0-based indices.
inline bool read_rows(scanner& s, std::size_t count, unsigned width,
                      std::vector<std::uint32_t>& out, std::vector<std::uint32_t>* refs) {
  out.reserve(out.size() + count * width);
  for (std::size_t k = 0; k < count; ++k) {
    for (unsigned i = 0; i < width; ++i) {
      std::uint32_t v = 0;
      if (!s.integer(v) || v == 0) return false;
      out.push_back(v - 1);
    }
    std::int64_t ref = 0;
    if (!s.integer(ref)) return false;
    if (refs) refs->push_back(std::uint32_t(ref));
  }
  return true;
}

// Reads an ASCII Medit file: Vertices, Triangles, Edges, Tetrahedra, Corners and
// RequiredVertices; other sections are skipped when their size is known. False with `error`
// set on anything malformed.
inline bool read_medit(const char* path, tables& m, std::string& error) {
  std::string text;
  if (!slurp(path, text)) return error = std::string("cannot read ") + path, false;
  scanner s(text);
  for (std::string_view key = s.token(); !key.empty() && key != "End"; key = s.token()) {
    std::size_t n = 0;
    bool ok = true;
    if (key == "MeshVersionFormatted" || key == "Dimension") {
      ok = s.integer(n);
    } else if (key == "Vertices") {
      ok = s.integer(n);
      m.xyz.reserve(3 * n);
      for (std::size_t k = 0; ok && k < n; ++k) {
        double x = 0.0, y = 0.0, z = 0.0;
        std::int64_t ref;
        ok = s.number(x) && s.number(y) && s.number(z) && s.integer(ref);
        if (ok) m.xyz.insert(m.xyz.end(), {x, y, z});
      }
    } else if (key == "Triangles") {
      ok = s.integer(n) && read_rows(s, n, 3, m.tris, &m.tri_refs);
    } else if (key == "Edges") {
      ok = s.integer(n) && read_rows(s, n, 2, m.edges, nullptr);
    } else if (key == "Tetrahedra") {
      ok = s.integer(n) && read_rows(s, n, 4, m.tets, &m.tet_refs);
    } else if (key == "Corners" || key == "RequiredVertices") {
      ok = s.integer(n);
      for (std::size_t k = 0; ok && k < n; ++k) {
        std::uint32_t v = 0;
        ok = s.integer(v) && v > 0;
        m.corners.push_back(v - 1);
      }
    } else {
      return error = std::string(path) + ": unknown section " + std::string(key), false;
    }
    if (!ok) return error = std::string(path) + ": malformed section " + std::string(key), false;
  }
  return true;
}

// Buffered writer of numbers and text, for files of millions of lines.
class text_out {
 public:
  explicit text_out(const char* path) : f_(std::fopen(path, "wb")) {}
  ~text_out() { close(); }
  text_out(const text_out&) = delete;
  text_out& operator=(const text_out&) = delete;
  bool good() const { return f_ != nullptr && ok_; }
  text_out& put(std::string_view t) {
    room(t.size());
    std::memcpy(buf_ + n_, t.data(), t.size());
    n_ += t.size();
    return *this;
  }
  template <class T>
  text_out& num(T v) {
    room(40);
    n_ = std::size_t(std::to_chars(buf_ + n_, buf_ + sizeof buf_, v).ptr - buf_);
    return *this;
  }
  // Doubles in the shortest form that reads back to the same value.
  text_out& real(double v) {
    room(40);
    n_ = std::size_t(std::to_chars(buf_ + n_, buf_ + sizeof buf_, v).ptr - buf_);
    return *this;
  }
  bool close() {
    if (!f_) return false;
    flush();
    ok_ = std::fclose(f_) == 0 && ok_;
    f_ = nullptr;
    return ok_;
  }

 private:
  void room(std::size_t k) {
    if (n_ + k > sizeof buf_) flush();
  }
  void flush() {
    if (f_ && n_ && std::fwrite(buf_, 1, n_, f_) != n_) ok_ = false;
    n_ = 0;
  }
  std::FILE* f_;
  bool ok_ = true;
  std::size_t n_ = 0;
  char buf_[1 << 16];
};

// Writes the tables as ASCII Medit (tets carry their references, 1 when there are none).
// False when the file cannot be written.
inline bool write_medit(const char* path, const tables& m) {
  text_out o(path);
  if (!o.good()) return false;
  o.put("MeshVersionFormatted 2\nDimension 3\nVertices\n").num(m.node_count()).put("\n");
  for (std::size_t k = 0; k < m.node_count(); ++k)
    o.real(m.xyz[3 * k])
        .put(" ")
        .real(m.xyz[3 * k + 1])
        .put(" ")
        .real(m.xyz[3 * k + 2])
        .put(" 0\n");
  const auto rows = [&](const char* name, const std::vector<std::uint32_t>& v, unsigned w,
                        const std::vector<std::uint32_t>* refs) {
    if (v.empty()) return;
    o.put(name).put("\n").num(v.size() / w).put("\n");
    for (std::size_t k = 0; k < v.size() / w; ++k) {
      for (unsigned i = 0; i < w; ++i) o.num(v[w * k + i] + 1).put(" ");
      o.num(refs && k < refs->size() ? (*refs)[k] : 1u).put("\n");
    }
  };
  rows("Triangles", m.tris, 3, &m.tri_refs);
  rows("Edges", m.edges, 2, nullptr);
  rows("Tetrahedra", m.tets, 4, &m.tet_refs);
  if (!m.corners.empty()) {
    o.put("RequiredVertices\n").num(m.corners.size()).put("\n");
    for (std::uint32_t v : m.corners) o.num(v + 1).put("\n");
  }
  o.put("End\n");
  return o.close();
}

// Reads an OFF surface; polygons are split into fans of triangles.
inline bool read_off(const char* path, tables& m, std::string& error) {
  std::string text;
  if (!slurp(path, text)) return error = std::string("cannot read ") + path, false;
  scanner s(text);
  std::size_t nv = 0, nf = 0, ne = 0;
  if (s.token() != "OFF" || !s.integer(nv) || !s.integer(nf) || !s.integer(ne))
    return error = std::string(path) + ": not an OFF file", false;
  m.xyz.resize(3 * nv);
  for (double& x : m.xyz)
    if (!s.number(x)) return error = std::string(path) + ": bad vertex", false;
  for (std::size_t f = 0; f < nf; ++f) {
    unsigned k = 0;
    std::uint32_t v[64];
    if (!s.integer(k) || k < 3 || k > 64) return error = std::string(path) + ": bad face", false;
    for (unsigned i = 0; i < k; ++i)
      if (!s.integer(v[i]) || v[i] >= nv) return error = std::string(path) + ": bad face", false;
    s.next_line();  // colours
    for (unsigned i = 2; i < k; ++i) {
      m.tris.insert(m.tris.end(), {v[0], v[i - 1], v[i]});
      m.tri_refs.push_back(1);
    }
  }
  return true;
}

// TetGen: FILE.ele and FILE.node, numbered from the first index of the .node file.
inline bool read_tetgen(const std::string& ele, tables& m, std::string& error) {
  const std::string node = ele.substr(0, ele.size() - 4) + ".node";
  std::string text;
  if (!slurp(node.c_str(), text)) return error = "cannot read " + node, false;
  std::size_t n = 0, dim = 0, attrs = 0, marks = 0, first = 0;
  {
    scanner s(text);
    if (!s.integer(n) || !s.integer(dim) || !s.integer(attrs) || !s.integer(marks) || dim != 3)
      return error = node + ": bad header", false;
    m.xyz.resize(3 * n);
    for (std::size_t k = 0; k < n; ++k) {
      std::size_t id = 0;
      double skip;
      if (!s.integer(id)) return error = node + ": bad node", false;
      if (k == 0) first = id;
      for (unsigned i = 0; i < 3; ++i)
        if (!s.number(m.xyz[3 * k + i])) return error = node + ": bad node", false;
      for (std::size_t i = 0; i < attrs + marks; ++i)
        if (!s.number(skip)) return error = node + ": bad node", false;
    }
  }
  if (!slurp(ele.c_str(), text)) return error = "cannot read " + ele, false;
  scanner s(text);
  std::size_t t = 0, per = 0;
  if (!s.integer(t) || !s.integer(per) || !s.integer(attrs) || per < 4)
    return error = ele + ": bad header", false;
  m.tets.resize(4 * t);
  for (std::size_t k = 0; k < t; ++k) {
    std::size_t id = 0, v = 0;
    double skip;
    if (!s.integer(id)) return error = ele + ": bad tet", false;
    for (std::size_t i = 0; i < per; ++i) {
      if (!s.integer(v) || v < first) return error = ele + ": bad tet", false;
      if (i < 4) m.tets[4 * k + i] = std::uint32_t(v - first);
    }
    for (std::size_t i = 0; i < attrs; ++i)
      if (!s.number(skip)) return error = ele + ": bad tet", false;
  }
  return true;
}

// Reads one point per line, x y z; the rest of each line is skipped.
inline bool read_xyz(const char* path, std::vector<double>& xyz, std::string& error) {
  std::string text;
  if (!slurp(path, text)) return error = std::string("cannot read ") + path, false;
  scanner s(text);
  xyz.reserve(text.size() / 40);
  while (!s.at_end()) {
    double x, y, z;
    if (!s.number(x) || !s.number(y) || !s.number(z))
      return error = std::string(path) + ": expected 3 coordinates", false;
    xyz.insert(xyz.end(), {x, y, z});
    s.next_line();
  }
  return true;
}

}  // namespace bench_mesh
