// The table of error and warning messages, and the rules by which they enter a record.
#pragma once

#include <cstddef>

namespace kelvo::voxfill {

// One row per place that raises: code, title, words (may be empty), source file and line.
struct message_entry {
  int code;
  const char* title;
  const char* words;
  const char* file;
  unsigned line;
};

enum class msg : unsigned {
  mode_error,                // -101
  data_error_no_mesh,        // -102, mode 1 without connectM
  data_error_check,          // -102, data_type::check failed
  illegal_coordinates,       // -102
  non_conformal_input_mesh,  // -102
  insufficient_nodes_limit,  // -103
  nodes_limit_recovery,      // -103
  nodes_limit_recovery_end,  // -103
  node_error,                // -104
  edge_error,                // -105
  face_error,                // -106
  aligned_nodes,             // -107
  aligned_nodes_second,      // -107
  degenerated_mode0,         // -108
  degenerated_mode1,         // -108
  background_not_valid,      // -109
  memory_output_mode0,       // -199 SYSTEM MEMORY ERROR, one row per place
  memory_output_mode1,
  memory_output_mode2,
  memory_node_loading,
  memory_ordered_loading,
  memory_mode1_setup,
  memory_boundary_sizes,
  memory_resizing,
  memory_mode1_sizes,
  memory_reservation,
  memory_reordering,
  memory_reordering_second,
  memory_metrics_permutation,
  memory_error_run,          // -199 MEMORY ERROR caught at the top of run
  memory_error_recovery,     // -199 MEMORY ERROR, recovery set-up
  internal_error,            // -200
  interruption,              // -10
  nodes_limit_warning,       // -11
  node_warning_conflict,     // -12
  node_warning_outside,
  node_warning_not_enforced,
  edge_warning_conflict,     // -13
  edge_warning_outside,
  edge_warning_not_enforced,
  face_warning_conflict,     // -14
  face_warning_outside,
  face_warning_not_enforced,
  not_watertight,            // -15
  poorly_oriented,           // -15
  shape_quality_mode0,       // -16
  shape_quality_mode1,       // -16
  count
};

const message_entry& message(msg id) noexcept;

// The text a caller sees: the words, "\nFile = ", the source path, ", line = ", the line, ".\n".
// The interruption has an empty text. Always zero-terminated within `n` bytes.
void format_message_text(const message_entry& e, char* out, std::size_t n) noexcept;

// The raising rules on the four fields of a record. The first error wins; a warning is kept
// only while no code stands; an error after a warning takes the strings and keeps the warning.
void record_error(int& error_code, char* msg_title, char* msg_text, const message_entry& e) noexcept;
void record_warning(int error_code, int& warning_code, char* msg_title, char* msg_text,
                    const message_entry& e) noexcept;
// The interruption overrides any warning and message, and has an empty text.
void record_interruption(int& warning_code, char* msg_title, char* msg_text) noexcept;

}  // namespace kelvo::voxfill
