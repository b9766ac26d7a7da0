// The voxfill command: subcommands, the library's settings as flags, and the exit status.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <string>

#include "demo_geometry.h"
#include "diagnosis.h"
#include "job.h"
#include "mesh_info.h"

namespace {

using namespace kelvo::voxfill_tool;

// One flag per field of the settings, named after it, with the library's defaults.
void add_settings(CLI::App* app, mesher::settings_type& s) {
  const auto group = "Settings";
  const auto flag = [&](const std::string& names, bool& field, const std::string& help) {
    app->add_flag(names, field, help + (field ? " (default: on)" : " (default: off)"))
        ->group(group);
  };
  flag("--strict-constraints,!--no-strict-constraints,!--no-strict", s.strict_constraints,
       "a hard entity in conflict with another is an error; mode 2: recover the hard faces");
  app->add_option("--subdomain-rule", s.subdomain_rule,
                  "inside regions: 0 same orientation as the first face crossed, 1 behind any "
                  "hard face, 2 only the first region")
      ->capture_default_str()
      ->group(group);
  flag("--refine,!--no-refine", s.refine, "add nodes to reach the sizes (modes 0 and 1)");
  flag("--front-as-background,!--no-front-as-background", s.front_as_background,
       "the mesh of the boundary becomes the background mesh");
  flag("--optim-node-smoothing,!--no-optim-node-smoothing", s.optim_node_smoothing,
       "the optimiser may move nodes");
  flag("--optim-node-insertion,!--no-optim-node-insertion", s.optim_node_insertion,
       "the optimiser may insert nodes");
  flag("--optim-node-removal,!--no-optim-node-removal", s.optim_node_removal,
       "the optimiser may remove nodes");
  flag("--optim-shell-reconnection,!--no-optim-shell-reconnection", s.optim_shell_reconnection,
       "the optimiser may reconnect shells of tets");
  flag("--optim-hard-links,!--no-optim-hard-links", s.optim_hard_links,
       "the optimiser may work on edges that link hard entities");
  flag("--positive-orientation,!--no-positive-orientation", s.positive_orientation,
       "tets of positive volume by the right-hand rule of the files; off: turned over");
  flag("--compute-qh,!--no-compute-qh", s.compute_Qh,
       "histogram of edge lengths in the size field");
  app->add_option("--nodes-limit", s.nodes_limit, "largest number of nodes in the mesh")
      ->capture_default_str()
      ->group(group);
  app->add_option("--optim-level", s.optim_level, "effort of the optimiser, 0 to 10")
      ->capture_default_str()
      ->group(group);
  app->add_option("--target-size", s.target_size, "uniform size wish for the interior; 0: none")
      ->capture_default_str()
      ->group(group);
  app->add_option("--size-gradation", s.size_gradation, "how fast sizes may change")
      ->capture_default_str()
      ->group(group);
  app->add_option("--shape-weight", s.shape_weight, "weight of shape against size, 0 to 1")
      ->capture_default_str()
      ->group(group);
  app->add_option("--max-edge-length", s.max_edge_length, "longest edge, in local sizes")
      ->capture_default_str()
      ->group(group);
  app->add_option("--progress-offset", s.progress_offset, "progress value at the start")
      ->capture_default_str()
      ->group(group);
  app->add_option("--progress-scale", s.progress_scale, "width of the progress range")
      ->capture_default_str()
      ->group(group);
}

// Options of every subcommand that runs the mesher.
void add_run_options(CLI::App* app, mesher::settings_type& s, job_options& o) {
  app->add_option("--save-case", o.save_case, "save the record to this file before the run");
  app->add_flag("-q,--quiet", o.quiet, "no progress bar and no phase messages");
  add_settings(app, s);
}

// Options of the subcommands that read an input mesh file.
CLI::App* add_file_job(CLI::App& app, const char* name, const char* help, mesher::settings_type& s,
                       job_options& o) {
  CLI::App* sub = app.add_subcommand(name, help);
  sub->add_option("input", o.input,
                  "input file (.mesh .off .stl .obj .ply .node .ele .xyz .vtu .msh)")
      ->required();
  sub->add_option("-o,--output", o.output, "output mesh (.mesh .vtu .msh)")->required();
  sub->add_option("--metrics", o.metrics, "wanted size at each input node (Medit .sol)");
  sub->add_option("--background", o.background, "background tet mesh carrying sizes");
  sub->add_option("--background-sizes", o.background_sizes,
                  "sizes at the background's nodes (.sol); default: its stem with .sol");
  add_run_options(sub, s, o);
  return sub;
}

}  // namespace

int main(int argc, char** argv) {
  // A reader of stdout that goes away (`voxfill ... | head -1`) must not cost the mesh file:
  // writes to stdout then fail quietly instead of killing the process.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app{
      "voxfill: tetrahedral meshes of volumes, tet meshes and point clouds.\n"
      "Exit status: 0 success, 1 success with a warning, 2 the library raised an "
      "error or made no tets, 3 bad command line or unreadable input."};
  app.set_version_flag("--version", std::string("voxfill ") + kelvo::voxfill::version());
  app.require_subcommand(1);
  mesher::settings_type settings;
  job_options o;

  CLI::App* mesh =
      add_file_job(app, "mesh", "fill the volume bounded by a surface (mode 0)", settings, o);
  CLI::App* regularize =
      add_file_job(app, "regularize", "improve a tet mesh, colours kept (mode 1)", settings, o);
  CLI::App* delaunay = add_file_job(
      app, "delaunay", "Delaunay mesh of the nodes' convex hull (mode 2)", settings, o);
  delaunay->add_flag("--hard-faces", o.hard_faces,
                     "keep the file's triangles and edges as hard faces and edges (default: the "
                     "nodes only)");

  CLI::App* demo =
      app.add_subcommand("demo", "mesh a built-in geometry; writes demo.vtu and demo.mesh");
  demo->add_option("-o,--output", o.output, "output folder (default: the current folder)");
  add_run_options(demo, settings, o);

  CLI::App* info =
      app.add_subcommand("info", "counts, volume and quality histogram of a mesh file");
  info->add_option("file", o.input, "mesh file")->required();

  CLI::App* replay = app.add_subcommand("replay", "load a saved case file and run it");
  replay->add_option("case", o.input, "case file written by --save-case")->required();
  replay->add_option("-o,--output", o.output, "output mesh (.mesh .vtu .msh)");
  replay->add_option("--mode", o.mode, "0, 1 or 2; default: told by the case's tables")
      ->check(CLI::Range(0, 2));
  add_run_options(replay, settings, o);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int r = app.exit(e);
    return r == 0 ? exit_ok : exit_bad_input;
  }
  if (!info->parsed())
    if (const std::string refused = refused_setting(settings); !refused.empty())
      return fail(exit_bad_input, refused);
  if (mesh->parsed()) return run_file_job(0, settings, o);
  if (regularize->parsed()) return run_file_job(1, settings, o);
  if (delaunay->parsed()) return run_file_job(2, settings, o);
  if (demo->parsed()) return run_demo(settings, o);
  if (info->parsed()) return run_info(o.input);
  if (replay->parsed()) return run_replay(settings, o);
  return exit_bad_input;
}
