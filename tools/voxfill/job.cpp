// One run of the mesher from the command line: the record from files, the run, the output.
#include "job.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>

#include "console.h"
#include "diagnosis.h"
#include "mesh_io/medit.h"

namespace kelvo::voxfill_tool {

namespace {

namespace fs = std::filesystem;
using mesh_io::mesh_file;

// A table of `rows` x (values / rows), one column per entity. False when memory runs out.
bool to_table(const std::vector<unsigned>& values, unsigned rows, dense2D<unsigned>& table) {
  if (values.empty()) return true;
  if (!table.resize(rows, unsigned(values.size() / rows))) return false;
  for (std::size_t i = 0; i < values.size(); ++i)
    table(unsigned(i % rows), unsigned(i / rows)) = values[i];
  return true;
}

bool to_list(const std::vector<unsigned>& values, dense1D<unsigned>& list) {
  if (!list.resize(unsigned(values.size()))) return false;
  std::copy(values.begin(), values.end(), list.begin());
  return true;
}

// The library calls a tet positive when det(n0 - n3, n1 - n3, n2 - n3) > 0, the files when
// det(n1 - n0, n2 - n0, n3 - n0) > 0: the two disagree on every tet, and swapping local nodes 1
// and 2 takes a tet from one to the other.
void turn_over(dense2D<unsigned>& tets) {
  if (tets.rows != 4) return;
  for (unsigned t = 0; t < tets.cols; ++t) std::swap(tets(1, t), tets(2, t));
}

// The indices 0 .. count - 1 that `drop` does not hold.
std::vector<unsigned> kept_indices(unsigned count, const dense1D<unsigned>& drop) {
  std::vector<unsigned> d(drop.begin(), drop.end()), kept;
  std::sort(d.begin(), d.end());
  for (unsigned i = 0; i < count; ++i)
    if (!std::binary_search(d.begin(), d.end(), i)) kept.push_back(i);
  return kept;
}

std::string describe(const mesh_file& m) {
  std::string s = std::to_string(m.node_count()) + " nodes";
  if (m.triangle_count()) s += ", " + std::to_string(m.triangle_count()) + " triangles";
  if (m.edge_count()) s += ", " + std::to_string(m.edge_count()) + " edges";
  if (m.tet_count()) s += ", " + std::to_string(m.tet_count()) + " tets";
  if (!m.hard_nodes.empty()) s += ", " + std::to_string(m.hard_nodes.size()) + " hard nodes";
  return s;
}

// What a file at `path` holds of `m`: a .vtu file has the nodes and the tets only.
std::string describe_written(const std::string& path, const mesh_file& m) {
  if (mesh_io::format_of(path) != mesh_io::file_format::vtu) return describe(m);
  return std::to_string(m.node_count()) + " nodes, " + std::to_string(m.tet_count()) + " tets";
}

const char* mode_name(unsigned mode) {
  switch (mode) {
    case 0:
      return "volume mesh of a surface";
    case 1:
      return "regularisation of a tet mesh";
    case 2:
      return "Delaunay mesh of the nodes";
    default:
      return "no job";
  }
}

// Sizes of a .sol file, which must hold one per node. 0 or the exit status.
int read_sizes(const std::string& path, unsigned nodes, const std::string& of,
               std::vector<double>& sizes) {
  std::string error;
  if (!mesh_io::read_sol_file(path, sizes, error)) return fail(exit_bad_input, error);
  if (sizes.size() != nodes)
    return fail(exit_bad_input, path + ": expected " + std::to_string(nodes) +
                                    " sizes (one per node of " + of + "), found " +
                                    std::to_string(sizes.size()));
  return 0;
}

// Adds the background mesh and its sizes to the record: its nodes after the input's, its
// sizes in `metrics` beside theirs. 0 or the exit status.
int add_background(const job_options& o, mesher::data_type& data) {
  mesh_file bg;
  std::string error;
  if (!mesh_io::read_mesh_file(o.background, bg, error)) return fail(exit_bad_input, error);
  if (!bg.tet_count())
    return fail(exit_bad_input, o.background + ": expected tetrahedra in a background mesh");
  std::string sizes_path = o.background_sizes;
  if (sizes_path.empty()) sizes_path = fs::path(o.background).replace_extension(".sol").string();
  std::vector<double> sizes;
  if (const int r = read_sizes(sizes_path, bg.node_count(), o.background, sizes)) return r;

  const unsigned n = data.pos.cols, nb = bg.node_count();
  dense2D<double> pos;
  dense2D<unsigned> tets;
  dense1D<double> metrics;
  if (!pos.resize(3, n + nb) || !tets.resize(4, bg.tet_count()) || !metrics.resize(n + nb, 0.0))
    return fail(exit_library_error, "out of memory");
  for (unsigned j = 0; j < n; ++j)
    for (unsigned k = 0; k < 3; ++k) pos(k, j) = data.pos(k, j);
  for (unsigned j = 0; j < nb; ++j)
    for (unsigned k = 0; k < 3; ++k) pos(k, n + j) = bg.pos[3 * j + k];
  for (unsigned t = 0; t < bg.tet_count(); ++t)
    for (unsigned k = 0; k < 4; ++k) tets(k, t) = n + bg.tets[4 * t + k];
  turn_over(tets);
  for (unsigned j = 0; j < data.metrics.size && j < n; ++j) metrics[j] = data.metrics[j];
  for (unsigned j = 0; j < nb; ++j) metrics[n + j] = sizes[j];
  data.pos = pos;
  data.background_mesh = tets;
  data.metrics = metrics;
  return 0;
}

// A double in its shortest exact form.
std::string number(double v) {
  char buf[32];
  const auto r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

}  // namespace

std::string changed_settings(const mesher::settings_type& s) {
  const mesher::settings_type d;
  std::string r;
  const auto flag = [&](const char* name, bool v, bool dv) {
    if (v != dv) r += std::string(" --") + (v ? "" : "no-") + name;
  };
  const auto value = [&](const char* name, const std::string& v, const std::string& dv) {
    if (v != dv) r += std::string(" --") + name + " " + v;
  };
  flag("strict-constraints", s.strict_constraints, d.strict_constraints);
  value("subdomain-rule", std::to_string(s.subdomain_rule), std::to_string(d.subdomain_rule));
  flag("refine", s.refine, d.refine);
  flag("front-as-background", s.front_as_background, d.front_as_background);
  flag("optim-node-smoothing", s.optim_node_smoothing, d.optim_node_smoothing);
  flag("optim-node-insertion", s.optim_node_insertion, d.optim_node_insertion);
  flag("optim-node-removal", s.optim_node_removal, d.optim_node_removal);
  flag("optim-shell-reconnection", s.optim_shell_reconnection, d.optim_shell_reconnection);
  flag("optim-hard-links", s.optim_hard_links, d.optim_hard_links);
  flag("positive-orientation", s.positive_orientation, d.positive_orientation);
  flag("compute-qh", s.compute_Qh, d.compute_Qh);
  value("nodes-limit", std::to_string(s.nodes_limit), std::to_string(d.nodes_limit));
  value("optim-level", std::to_string(s.optim_level), std::to_string(d.optim_level));
  value("target-size", number(s.target_size), number(d.target_size));
  value("size-gradation", number(s.size_gradation), number(d.size_gradation));
  value("shape-weight", number(s.shape_weight), number(d.shape_weight));
  value("max-edge-length", number(s.max_edge_length), number(d.max_edge_length));
  value("progress-offset", number(s.progress_offset), number(d.progress_offset));
  value("progress-scale", number(s.progress_scale), number(d.progress_scale));
  return r.empty() ? r : r.substr(1);
}

int fail(int status, const std::string& message) {
  std::fprintf(stderr, "voxfill: %s\n", message.c_str());
  return status;
}

int check_output(const std::string& path) {
  if (!mesh_io::writable(mesh_io::format_of(path)))
    return fail(exit_bad_input,
                "cannot write " + path + ": expected the extension .mesh, .vtu or .msh");
  const fs::path folder = fs::path(path).parent_path();
  std::error_code ec;
  if (!folder.empty() && !fs::is_directory(folder, ec))
    return fail(exit_bad_input, "cannot write " + path + ": no folder " + folder.string());
  return 0;
}

bool fill_record(const mesh_file& in, unsigned mode, mesher::data_type& data) {
  const unsigned n = in.node_count();
  if (!data.pos.resize(3, n)) return false;
  for (unsigned j = 0; j < n; ++j)
    for (unsigned k = 0; k < 3; ++k) data.pos(k, j) = in.pos[3 * std::size_t(j) + k];
  if (!to_table(in.triangles, 3, data.connectB) || !to_table(in.edges, 2, data.connectE))
    return false;
  // A node on a hard face or edge is hard already; isolated_nodes holds the others.
  std::vector<unsigned char> held(n, 0);
  for (unsigned v : in.triangles) held[v] = 1;
  for (unsigned v : in.edges) held[v] = 1;
  std::vector<unsigned> isolated;
  if (mode == 2) {
    for (unsigned v = 0; v < n; ++v)
      if (!held[v]) isolated.push_back(v);
  } else {
    for (unsigned v : in.hard_nodes)
      if (!held[v]) isolated.push_back(v);
  }
  if (!to_list(isolated, data.isolated_nodes)) return false;
  if (mode == 1) {
    if (!to_table(in.tets, 4, data.connectM)) return false;
    turn_over(data.connectM);
    if (!in.tet_refs.empty() && !to_list(in.tet_refs, data.colors)) return false;
  }
  return true;
}

mesh_file mesh_of_record(const mesher::data_type& data, unsigned mode, bool positive) {
  mesh_file m;
  if (data.pos.rows == 3) {
    m.pos.resize(3 * std::size_t(data.pos.cols));
    for (unsigned j = 0; j < data.pos.cols; ++j)
      for (unsigned k = 0; k < 3; ++k) m.pos[3 * std::size_t(j) + k] = data.pos(k, j);
  }
  const unsigned T = data.connectM.rows == 4 ? data.connectM.cols : 0;
  m.tets.resize(4 * std::size_t(T));
  for (unsigned t = 0; t < T; ++t)
    for (unsigned k = 0; k < 4; ++k) m.tets[4 * t + k] = data.connectM(k, t);
  if (positive)
    for (unsigned t = 0; t < T; ++t) std::swap(m.tets[4 * t + 1], m.tets[4 * t + 2]);
  if (data.colors.size == T) m.tet_refs.assign(data.colors.begin(), data.colors.end());
  if (data.connectE.rows == 2)
    for (unsigned e : kept_indices(data.connectE.cols, data.missing_edges))
      m.edges.insert(m.edges.end(), {data.connectE(0, e), data.connectE(1, e)});
  std::vector<unsigned> missing(data.missing_nodes.begin(), data.missing_nodes.end());
  std::sort(missing.begin(), missing.end());
  if (mode != 2)
    for (unsigned v : data.isolated_nodes)
      if (!std::binary_search(missing.begin(), missing.end(), v)) m.hard_nodes.push_back(v);
  mesh_io::set_boundary_of_tets(m);
  mesh_io::drop_unused_nodes(m);
  return m;
}

namespace {

// Whether two paths name one file, existing or not.
bool same_file(const std::string& a, const std::string& b) {
  std::error_code ec;
  if (fs::equivalent(a, b, ec)) return true;
  const fs::path ca = fs::weakly_canonical(a, ec);
  if (ec) return false;
  const fs::path cb = fs::weakly_canonical(b, ec);
  return !ec && ca == cb;
}

// Saves the record to o.save_case, refusing to write over a file that the run reads or writes.
// The library's save says nothing of failures, so it writes a private file first, and the bytes
// go to the case file by writes that are checked, a full disk included. 0 or the exit status.
int save_case(const mesher::data_type& data, const job_options& o,
              const std::vector<std::string>& outputs) {
  std::vector<std::pair<const char*, std::string>> files = {
      {"the input", o.input}, {"the metrics", o.metrics}, {"the background mesh", o.background}};
  if (!o.background.empty())
    files.emplace_back("the background sizes",
                       o.background_sizes.empty()
                           ? fs::path(o.background).replace_extension(".sol").string()
                           : o.background_sizes);
  for (const std::string& out : outputs) files.emplace_back("the output", out);
  for (const auto& [what, path] : files)
    if (!path.empty() && same_file(o.save_case, path))
      return fail(exit_bad_input, "--save-case " + o.save_case + " would overwrite " + what + " " +
                                      path + ": give another file");

  std::error_code ec;
  const fs::path scratch =
      fs::temp_directory_path(ec) / ("voxfill_case_" + std::to_string(getpid()) + ".tmp");
  data.save(scratch.c_str(), 16);
  std::string bytes, error;
  const bool read = mesh_io::read_bytes(scratch.string(), bytes, error);
  fs::remove(scratch, ec);
  if (!read || bytes.empty())
    return fail(exit_bad_input, "cannot write the case file " + o.save_case +
                                    ": no room for a scratch copy in " +
                                    scratch.parent_path().string());
  errno = 0;
  std::FILE* f = std::fopen(o.save_case.c_str(), "wb");
  bool ok = f && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  int why = errno;
  if (f && std::fclose(f) != 0 && ok) {
    ok = false;
    why = errno;
  }
  if (!ok)
    return fail(exit_bad_input, "cannot write the case file " + o.save_case + ": " +
                                    std::strerror(why ? why : EIO));
  return 0;
}

// print_info calls its handler with no pointer of the caller's: the text is gathered here.
std::string report_buffer;

void gather_report(void*, unsigned, const char* text) {
  report_buffer += text;
}

// The library's report; a regularisation also tells the worst tet it was given, beside the
// worst one it made and the bound that the boundary sets ("max-min").
std::string report_text(const mesher::data_type& data, unsigned mode) {
  report_buffer.clear();
  data.print_info(gather_report);
  std::string text;
  text.swap(report_buffer);
  const std::size_t at = text.find("Qmin            : ");
  if (mode == 1 && at != std::string::npos) {
    char line[64];
    std::snprintf(line, sizeof line, "Qmin in         : %E\n", data.min_quality_in);
    text.insert(at, line);
  }
  return text;
}

// The report and the codes of a finished run, then the mesh written to each of `outputs`. The
// exit status.
int report_and_write(const mesher::data_type& data, const mesher::settings_type& settings,
                     bool positive, console& c, const std::vector<std::string>& outputs) {
  const unsigned mode = settings.mode;
  c.clear_bar();
  std::printf("\n");
  std::fputs(report_text(data, mode).c_str(), stdout);
  std::fflush(stdout);

  int status = data.error_raised()     ? exit_library_error
               : data.warning_raised() ? exit_warning
                                       : exit_ok;
  if (data.error_raised())
    fail(status, "error " + std::to_string(data.error_code) + " (" + data.msg_title +
                     "): " + error_words(settings, data) + data.msg_text);
  else if (data.warning_raised())
    std::fprintf(stderr, "voxfill: warning %d (%s)\n", data.warning_code, data.msg_title);
  if (data.tet_count == 0) {
    // No tets is never a result, whatever the codes say.
    if (data.error_raised()) return status;
    if (data.warning_code == -10)
      return fail(exit_library_error, "interrupted before any tet was made: nothing written");
    return fail(exit_library_error,
                std::string("no tets came out of mode ") + std::to_string(mode) + " (" +
                    mode_name(mode) +
                    ") and the library gave no reason (nothing to mesh in the input, or a job "
                    "that this version cannot do yet): nothing written");
  }
  if (outputs.empty()) return status;
  try {
    const mesh_file m = mesh_of_record(data, mode, positive);
    for (const std::string& path : outputs) {
      std::string error;
      if (!mesh_io::write_mesh_file(path, m, error)) return fail(exit_bad_input, error);
      std::printf("Wrote %s: %s\n", path.c_str(), describe_written(path, m).c_str());
    }
  } catch (const std::bad_alloc&) {
    return fail(exit_library_error, "out of memory while writing the mesh");
  }
  return status;
}

}  // namespace

int run_record(mesher::settings_type settings, mesher::data_type& data, const job_options& o,
               const std::vector<std::string>& outputs) {
  if (!o.save_case.empty()) {
    if (const int r = save_case(data, o, outputs)) return r;
    if (!o.quiet) std::printf("Case saved to %s\n", o.save_case.c_str());
  }
  const std::string changed = changed_settings(settings);
  // The tool turns the tets over itself, the same way in every mode: the library hands out
  // positive ones.
  const bool positive = settings.positive_orientation;
  settings.positive_orientation = true;
  console c(o.quiet);
  c.attach(settings);
  install_interrupt();
  if (!o.quiet) {
    std::printf(
        "Mode %u (%s): %u nodes, %u hard faces, %u hard edges, %u isolated hard nodes, "
        "%u tets\n",
        settings.mode, mode_name(settings.mode), data.pos.cols, data.connectB.cols,
        data.connectE.cols, data.isolated_nodes.size, data.connectM.cols);
    std::printf("Settings: %s\n", changed.empty() ? "the defaults" : changed.c_str());
    std::fflush(stdout);
  }
  mesher(settings).run(data);
  const bool stopped = data.warning_code == -10;
  const int status = report_and_write(data, settings, positive, c, outputs);
  // A Ctrl-C after the library's last poll stops nothing: the mesh is whole.
  if (interrupted() && !stopped && status <= exit_warning)
    std::fprintf(stderr, "voxfill: Ctrl-C after the run: the mesh is whole%s\n",
                 outputs.empty() ? "" : " and written");
  restore_interrupt();
  return status;
}

int run_file_job(unsigned mode, mesher::settings_type settings, const job_options& o) {
  if (const int r = check_output(o.output)) return r;
  mesh_file in;
  std::string error;
  if (!mesh_io::read_mesh_file(o.input, in, error)) return fail(exit_bad_input, error);
  if (!o.quiet) std::printf("Read %s: %s\n", o.input.c_str(), describe(in).c_str());
  if (mode == 0 && !in.triangle_count())
    return fail(exit_bad_input,
                o.input + ": expected triangles: 'mesh' fills the volume a surface bounds");
  if (mode == 1 && !in.tet_count())
    return fail(exit_bad_input,
                o.input + ": expected tetrahedra: 'regularize' improves a tet mesh");
  if (mode == 2 && !in.node_count()) return fail(exit_bad_input, o.input + ": expected nodes");
  if (mode == 2 && !o.hard_faces && (in.triangle_count() || in.edge_count())) {
    // The Delaunay mesh of a file's points is what is asked for: its faces, handed over as
    // hard faces, would only draw warnings about the surface that they make.
    in.triangles.clear();
    in.triangle_refs.clear();
    in.edges.clear();
    if (!o.quiet)
      std::printf("Taking the nodes only; --hard-faces keeps the triangles and edges\n");
  }

  mesher::data_type data;
  if (!fill_record(in, mode, data)) return fail(exit_library_error, "out of memory");
  if (!o.metrics.empty()) {
    std::vector<double> sizes;
    if (const int r = read_sizes(o.metrics, in.node_count(), o.input, sizes)) return r;
    if (!data.metrics.resize(unsigned(sizes.size())))
      return fail(exit_library_error, "out of memory");
    std::copy(sizes.begin(), sizes.end(), data.metrics.begin());
  }
  if (!o.background.empty())
    if (const int r = add_background(o, data)) return r;
  settings.mode = mode;
  return run_record(settings, data, o, {o.output});
}

int run_replay(mesher::settings_type settings, const job_options& o) {
  if (!o.output.empty())
    if (const int r = check_output(o.output)) return r;
  mesher::data_type data;
  const int r = data.load(o.input.c_str());
  if (r == -199) return fail(exit_bad_input, "cannot read " + o.input + ": out of memory");
  if (r == -2)
    return fail(exit_bad_input, "cannot read " + o.input + ": expected a usable pos section");
  if (r < 0)
    return fail(exit_bad_input, "cannot read " + o.input + ": unreadable file or broken section");
  if (o.mode >= 0) {
    settings.mode = unsigned(o.mode);
  } else {
    // The case file holds the record, not the settings: the tables tell which job it was.
    settings.mode = !data.connectM.empty() ? 1 : !data.connectB.empty() ? 0 : 2;
    if (!o.quiet)
      std::printf("Mode %u taken from the case (%s); --mode chooses another\n", settings.mode,
                  settings.mode == 1   ? "it holds tets"
                  : settings.mode == 0 ? "it holds hard faces"
                                       : "no hard faces, no tets");
  }
  std::vector<std::string> outputs;
  if (!o.output.empty()) outputs.push_back(o.output);
  return run_record(settings, data, o, outputs);
}

}  // namespace kelvo::voxfill_tool
