// One run of the mesher from the command line: the record from files, the run, the output.
#pragma once

#include <string>

#include "mesh_io/mesh_file.h"
#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill_tool {

using mesher = kelvo::voxfill::mesher;

// The exit status of the tool.
enum exit_status : int {
  exit_ok = 0,             // success
  exit_warning = 1,        // success with a warning (an interruption included)
  exit_library_error = 2,  // the library raised an error
  exit_bad_input = 3,      // bad command line, unreadable input, unwritable output
};

// File names and switches of a run, beside the library's settings.
class job_options {
 public:
  std::string input;             // mesh, regularize, delaunay: the input; replay: the case file
  std::string output;            // a mesh file (empty: nothing written); demo: a folder
  std::string save_case;         // the record is saved there before the run
  std::string metrics;           // a .sol file: wanted size per input node
  std::string background;        // a tet mesh carrying sizes
  std::string background_sizes;  // its .sol file; empty: the background's stem + ".sol"
  bool quiet = false;            // no progress bar, no phase messages
  bool hard_faces = false;       // delaunay: the file's triangles and edges stay hard
  int mode = -1;                 // replay: the mode to run; -1: told by the case
};

// Fills `data` for `mode` from the tables of a file: nodes; triangles as connectB, edges as
// connectE and the hard nodes that neither hold as isolated_nodes; mode 1 the tets, turned into
// the library's orientation, and their colours; mode 2 every node that no triangle or edge holds
// joins isolated_nodes. False when memory runs out.
bool fill_record(const mesh_io::mesh_file& in, unsigned mode, mesher::data_type& data);
// The mesh of a run as a file: the tets with their colours, the faces on the hull and between
// colours, the hard edges and (but in mode 2, where every node is one) the hard nodes that the
// mesh kept; nodes in no tet are dropped.
mesh_io::mesh_file mesh_of_record(const mesher::data_type& data, unsigned mode);

// voxfill mesh | regularize | delaunay: reads `o.input`, runs `mode`, writes `o.output`.
int run_file_job(unsigned mode, mesher::settings_type settings, const job_options& o);
// voxfill replay: loads a saved case and runs it.
int run_replay(mesher::settings_type settings, const job_options& o);
// Saves the case if asked, runs with the console attached, prints the report, and writes the
// mesh to each of `outputs` (skipped after an error that left no tets). The exit status.
int run_record(mesher::settings_type settings, mesher::data_type& data, const job_options& o,
               const std::vector<std::string>& outputs);
// The settings that differ from the defaults, as the flags that would set them.
std::string changed_settings(const mesher::settings_type& s);
// A message on stderr, prefixed with "voxfill: ", and the status to exit with.
int fail(int status, const std::string& message);
// Exit status 3 with a message when `path` cannot be a mesh output (extension or folder).
int check_output(const std::string& path);

}  // namespace kelvo::voxfill_tool
