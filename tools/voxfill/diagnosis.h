// What the tool says beyond the library's codes: settings that it refuses, and the words for the
// errors that the library raises without any.
#pragma once

#include <string>

#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill_tool {

using mesher = kelvo::voxfill::mesher;

// The message for the first setting that the library would take but ignore or read otherwise
// (an optimisation level above its last, a size that is not a number, a subdomain rule it does
// not have), naming the flag and what it takes; empty when there is none.
std::string refused_setting(const mesher::settings_type& s);

// Words for errors -101, -102 and -103, which the library raises without any: the setting that
// fails its check and why, the table of the record that fails its check, or the hard nodes
// against the nodes limit. `data` is the record after the run, whose input tables those errors
// leave as they were. Empty for other codes.
std::string error_words(const mesher::settings_type& s, const mesher::data_type& data);

}  // namespace kelvo::voxfill_tool
