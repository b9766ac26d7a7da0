// voxfill info: counts, volume and quality histogram of a mesh file.
#pragma once

#include <string>

namespace kelvo::voxfill_tool {

// Reads `path` and prints its counts; for tets the subdomains, the volume and the shape
// quality (the library's measure) with a histogram; for a surface without tets its enclosed
// volume, open and non-manifold edges. The exit status: 0, or 3 for an unreadable file.
int run_info(const std::string& path);

}  // namespace kelvo::voxfill_tool
