// What the tool says beyond the library's codes: settings that it refuses, and the words for the
// errors that the library raises without any.
#include "diagnosis.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <vector>

namespace kelvo::voxfill_tool {

namespace {

// A double as the user would type it: shortest exact form, nan and inf spelled out.
std::string number(double v) {
  if (std::isnan(v)) return "nan";
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

std::string settings_words(const mesher::settings_type& s) {
  const std::string why =
      "the settings fail their check (code " + std::to_string(s.check()) + "): ";
  switch (s.check()) {
    case -14:
      return why + "--size-gradation " + number(s.size_gradation) + ": expected 0 or more";
    case -15:
      return why + "--shape-weight " + number(s.shape_weight) + ": expected a value from 0 to 1";
    case -16:
      return why + "--max-edge-length " + number(s.max_edge_length) + ": expected a value above 0";
    default:
      return {};
  }
}

// Why a table of `width` rows over `nodes` nodes fails: its row count, or the first entity that
// names a node beyond them. `what` names one entity, `field` the table.
std::string table_words(const dense2D<unsigned>& t, unsigned width, unsigned nodes,
                        const char* what, const char* field) {
  if (t.rows != width)
    return std::string("the table of ") + field + " has " + std::to_string(t.rows) +
           " rows, expected " + std::to_string(width);
  for (unsigned j = 0; j < t.cols; ++j)
    for (unsigned k = 0; k < width; ++k)
      if (t(k, j) >= nodes)
        return std::string(what) + " " + std::to_string(j) + " (" + field + ") names node " +
               std::to_string(t(k, j)) + ", beyond the " + std::to_string(nodes) + " nodes";
  return {};
}

std::string list_words(const dense1D<unsigned>& l, unsigned nodes, const char* field) {
  for (unsigned i = 0; i < l.size; ++i)
    if (l[i] >= nodes)
      return std::string(field) + " holds node " + std::to_string(l[i]) + ", beyond the " +
             std::to_string(nodes) + " nodes";
  return {};
}

std::string record_words(unsigned mode, const mesher::data_type& d) {
  if (mode == 1 && d.connectM.empty())
    return "mode 1 regularises the tets of the record (connectM), and it holds none";
  const int code = d.check();
  const std::string why = "the record fails its check (code " + std::to_string(code) + "): ";
  const unsigned n = d.pos.cols;
  switch (code) {
    case -1:
      return why + "the coordinates (pos) have " + std::to_string(d.pos.rows) + " rows, expected 3";
    case -2:
      return why + table_words(d.connectB, 3, n, "hard face", "connectB");
    case -3:
      return why + table_words(d.connectE, 2, n, "hard edge", "connectE");
    case -4:
      return why + list_words(d.isolated_nodes, n, "the list of hard nodes (isolated_nodes)");
    case -5:
      return why + list_words(d.exclusion_nodes, n, "the list of exclusion_nodes");
    case -6:
      return why + table_words(d.connectM, 4, n, "tet", "connectM");
    case -7:
      return why + table_words(d.background_mesh, 4, n, "background tet", "background_mesh");
    case -8:
      for (unsigned j = 0; j < d.background_mesh.cols; ++j)
        for (unsigned k = 0; k < 4; ++k) {
          const unsigned v = d.background_mesh(k, j);
          if (v >= d.metrics.size || !(d.metrics[v] > 0.0))
            return why + "node " + std::to_string(v) +
                   " of the background mesh has no size above 0 (" +
                   (v < d.metrics.size ? "metrics holds " + number(d.metrics[v]) : "none given") +
                   "): every background node needs one";
        }
      return why + "a node of the background mesh has no size above 0";
    case -12:
      return why + "there are " + std::to_string(d.colors.size) + " colours for " +
             std::to_string(d.connectM.cols) + " tets";
    default:
      return {};
  }
}

// Hard nodes: those of the hard faces and edges and the isolated ones, each once.
unsigned hard_node_count(const mesher::data_type& d) {
  std::vector<unsigned char> hard(d.pos.cols, 0);
  const auto mark = [&](unsigned v) {
    if (v < hard.size()) hard[v] = 1;
  };
  for (unsigned j = 0; j < d.connectB.cols; ++j)
    for (unsigned k = 0; k < d.connectB.rows; ++k) mark(d.connectB(k, j));
  for (unsigned j = 0; j < d.connectE.cols; ++j)
    for (unsigned k = 0; k < d.connectE.rows; ++k) mark(d.connectE(k, j));
  for (unsigned i = 0; i < d.isolated_nodes.size; ++i) mark(d.isolated_nodes[i]);
  unsigned count = 0;
  for (unsigned char h : hard) count += h;
  return count;
}

}  // namespace

std::string refused_setting(const mesher::settings_type& s) {
  if (s.subdomain_rule > 2)
    return "--subdomain-rule " + std::to_string(s.subdomain_rule) + ": expected 0, 1 or 2";
  if (s.optim_level > 10)
    return "--optim-level " + std::to_string(s.optim_level) +
           ": expected 0 to 10 (the optimiser has no level above 10)";
  if (!std::isfinite(s.target_size) || s.target_size < 0.0)
    return "--target-size " + number(s.target_size) + ": expected 0 (none) or a finite size";
  if (!std::isfinite(s.size_gradation))
    return "--size-gradation " + number(s.size_gradation) + ": expected a finite value";
  if (!std::isfinite(s.max_edge_length))
    return "--max-edge-length " + number(s.max_edge_length) + ": expected a finite length";
  if (!std::isfinite(s.progress_offset))
    return "--progress-offset " + number(s.progress_offset) + ": expected a finite value";
  if (!std::isfinite(s.progress_scale))
    return "--progress-scale " + number(s.progress_scale) + ": expected a finite value";
  return {};
}

std::string error_words(const mesher::settings_type& s, const mesher::data_type& data) {
  // Words of the library's own come before the line break that leads to the source's place.
  if (data.msg_text[0] != '\n' && data.msg_text[0] != '\0') return {};
  if (data.error_code == -101) return settings_words(s);
  if (data.error_code == -102) return record_words(s.mode, data);
  if (data.error_code == -103) {
    const std::string hard = std::to_string(hard_node_count(data)) + " hard nodes";
    const std::string limit = "--nodes-limit " + std::to_string(s.nodes_limit);
    if (std::strcmp(data.msg_title, "INSUFFICIENT NODES LIMIT") == 0)
      return "the input has " + hard + ", more than " + limit + " allows";
    return "the boundary recovery needs more nodes than " + limit + " allows (the input has " +
           hard + ")";
  }
  return {};
}

}  // namespace kelvo::voxfill_tool
