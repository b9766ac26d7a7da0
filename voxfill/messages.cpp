// The table of error and warning messages, and the rules by which they enter a record.
#include "voxfill/messages.h"

#include <cstdio>
#include <cstring>

namespace kelvo::voxfill {
namespace {

constexpr const char* kMesher = "voxfill/mesher_th4.cpp";
constexpr const char* kKernel = "delaunay/delaunay_mgr.cpp";
constexpr const char* kEngine = "voxfill/delaunay_th4.cpp";
constexpr const char* kRecovery = "voxfill/boundary/delaunay_th4_bdry.cpp";

constexpr const char* kHardNodeConflict = "Hard node(s) in hard entity (node, edge or face).";
constexpr const char* kHardEdgeConflict = "Hard edge(s) intersecting another hard entity (edge or face).";
constexpr const char* kHardFaceConflict = "Hard face(s) intersecting another hard entity (edge or face).";
constexpr const char* kSysMem = "SYSTEM MEMORY ERROR";
constexpr const char* kNoMem = "Insufficient memory.";

// Indexed by msg; the order must follow the enumeration.
constexpr message_entry kTable[] = {
    {-101, "MODE ERROR", "", kMesher, 102},
    {-102, "DATA ERROR", "", kMesher, 104},
    {-102, "DATA ERROR", "", kMesher, 107},
    {-102, "DATA ERROR", "Illegal coordinates.", kKernel, 469},
    {-102, "NON CONFORMAL INPUT MESH", "Check input mesh.", kEngine, 380},
    {-103, "INSUFFICIENT NODES LIMIT", "", kEngine, 587},
    {-103, "NODES LIMIT ERROR", "", kRecovery, 161},
    {-103, "NODES LIMIT ERROR", "", kRecovery, 175},
    {-104, "NODE ERROR", kHardNodeConflict, kEngine, 1008},
    {-105, "EDGE ERROR", kHardEdgeConflict, kEngine, 1010},
    {-106, "FACE ERROR", kHardFaceConflict, kEngine, 1012},
    {-107, "BOUNDARY ERROR", "Aligned nodes.", kKernel, 474},
    {-107, "BOUNDARY ERROR", "Aligned nodes.", kKernel, 489},
    {-108, "DEGENERATED ELEMENT", "", kEngine, 315},
    {-108, "DEGENERATED ELEMENT", "", kEngine, 456},
    {-109, "BACKGROUND MESH IS NOT VALID", "", kEngine, 780},
    {-199, kSysMem, kNoMem, kEngine, 343},
    {-199, kSysMem, kNoMem, kEngine, 473},
    {-199, kSysMem, kNoMem, kEngine, 554},
    {-199, kSysMem, kNoMem, kEngine, 562},
    {-199, kSysMem, kNoMem, kEngine, 569},
    {-199, kSysMem, kNoMem, kEngine, 576},
    {-199, kSysMem, kNoMem, kEngine, 602},
    {-199, kSysMem, kNoMem, kEngine, 628},
    {-199, kSysMem, kNoMem, kEngine, 668},
    {-199, kSysMem, kNoMem, kEngine, 753},
    {-199, kSysMem, kNoMem, kEngine, 1455},
    {-199, kSysMem, kNoMem, kEngine, 1459},
    {-199, kSysMem, kNoMem, kEngine, 1550},
    {-199, "MEMORY ERROR", "", kMesher, 120},
    {-199, "MEMORY ERROR", "", kRecovery, 89},
    {-200, "INTERNAL ERROR", "", kMesher, 124},
    {-10, "INTERRUPTION RAISED", "", "", 0},
    {-11, "NODES LIMIT WARNING", "Nodes limit reached.", kEngine, 689},
    {-12, "NODE WARNING", kHardNodeConflict, kEngine, 1021},
    {-12, "NODE WARNING", "Hard node(s) located outside the domain => node(s) discarded.", kEngine, 1036},
    {-12, "NODE WARNING", "Hard node(s) could not be enforced.", kEngine, 1045},
    {-13, "EDGE WARNING", kHardEdgeConflict, kEngine, 1023},
    {-13, "EDGE WARNING", "Hard edge(s) located outside the domain => edge(s) discarded.", kEngine, 1034},
    {-13, "EDGE WARNING", "Hard edge(s) could not be enforced.", kEngine, 1043},
    {-14, "FACE WARNING", kHardFaceConflict, kEngine, 1025},
    {-14, "FACE WARNING", "Hard face(s) located outside the domain => face(s) discarded.", kEngine, 1032},
    {-14, "FACE WARNING", "Hard face(s) could not be enforced.", kEngine, 1041},
    {-15, "BOUNDARY MESH IS NOT WATERTIGHT", "", kEngine, 1030},
    {-15, "BOUNDARY MESH IS POORLY ORIENTED", "", kEngine, 1049},
    {-16, "SHAPE QUALITY WARNING", "", kEngine, 316},
    {-16, "SHAPE QUALITY WARNING", "", kEngine, 457},
};
static_assert(sizeof(kTable) / sizeof(kTable[0]) == unsigned(msg::count), "one row per message");

void copy_string(char* out, const char* s, std::size_t n) noexcept {
  if (!n) return;
  std::size_t k = 0;
  for (; s[k] && k + 1 < n; ++k) out[k] = s[k];
  out[k] = '\0';
}

}  // namespace

const message_entry& message(msg id) noexcept { return kTable[unsigned(id)]; }

void format_message_text(const message_entry& e, char* out, std::size_t n) noexcept {
  if (!n) return;
  if (e.code == -10) {
    out[0] = '\0';
    return;
  }
  std::snprintf(out, n, "%s\nFile = %s, line = %u.\n", e.words, e.file, e.line);
}

void record_error(int& error_code, char* msg_title, char* msg_text, const message_entry& e) noexcept {
  if (error_code != 0) return;
  error_code = e.code;
  copy_string(msg_title, e.title, 256);
  format_message_text(e, msg_text, 256);
}

void record_warning(int error_code, int& warning_code, char* msg_title, char* msg_text,
                    const message_entry& e) noexcept {
  if (error_code != 0 || warning_code != 0) return;
  warning_code = e.code;
  copy_string(msg_title, e.title, 256);
  format_message_text(e, msg_text, 256);
}

void record_interruption(int& warning_code, char* msg_title, char* msg_text) noexcept {
  warning_code = -10;
  copy_string(msg_title, "INTERRUPTION RAISED", 256);
  msg_text[0] = '\0';
}

}  // namespace kelvo::voxfill
