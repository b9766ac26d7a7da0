// The built-in demo: a sphere holding a cube-shaped inclusion, with a hard edge and a hard node.
#pragma once

#include <string>

#include "job.h"
#include "mesh_io/mesh_file.h"

namespace kelvo::voxfill_tool {

// The demo's geometry: the unit sphere (triangle reference 0) around the cube [-0.35, 0.35]^3
// (reference 1), both oriented outwards, so that the shell and the cube are two subdomains;
// a hard edge and a hard node in the shell. Every call gives the same tables.
mesh_io::mesh_file demo_geometry();

// voxfill demo: meshes the geometry, writes demo.vtu and demo.mesh into `o.output` (a folder,
// made when missing) and prints the report. The exit status.
int run_demo(mesher::settings_type settings, const job_options& o);

}  // namespace kelvo::voxfill_tool
