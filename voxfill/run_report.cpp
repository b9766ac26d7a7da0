// The run report: banner, figures, the standing error or warning and the histograms, in pieces.
#include <cfloat>
#include <cstdio>

#include "voxfill/mesher_th4.h"

namespace kelvo::voxfill {
namespace {

using display_fn = void (*)(void*, unsigned, const char*);

// Sends text to the display handler, one piece per call; numbers are formatted on the stack.
struct report_sink {
  display_fn display;

  // Empty pieces are not sent.
  void text(const char* s) const {
    if (*s) display(nullptr, 0, s);
  }
  // 400 characters hold any %.2f of a double; longer output would be cut, not overrun.
  template <class... A>
  void format(const char* fmt, A... args) const {
    char buf[400];
    std::snprintf(buf, sizeof buf, fmt, args...);
    text(buf);
  }
  // One figure line: label, value, ending.
  template <class V>
  void figure(const char* label, const char* fmt, V value, const char* end) const {
    text(label);
    format(fmt, value);
    text(end);
  }
  // The message strings are fixed arrays: never read past them, even without a terminating 0.
  void message(const char* s) const { format("%.*s", 256, s); }
};

void print_histogram(const report_sink& out, const histogram& h) {
  out.format("Total number of bins     : %12d \n", int(h.bins()));
  out.format("Total number of counts   : %12d \n", int(h.total_hits()));
  out.format("Number of larger values  : %12d \n", int(h.larger()));
  out.format("Number of smaller values : %12d \n", int(h.smaller()));
  out.format("V max                    : %E\n", h.max_value());
  out.format("V mean                   : %E\n", h.mean_value());
  out.format("V min                    : %E\n", h.min_value());
  out.text("\nBin number       -- Bin boundaries --          Hits\n\n");
  constexpr const char* kMinusInf = "            -INF";
  constexpr const char* kPlusInf = "            +INF";
  // Highest values on top.
  for (unsigned i = h.bins(); i-- > 0;) {
    const double lo = h.lower_bin_bound(i), hi = h.lower_bin_bound(i + 1);
    const int n = int(h.hits(i));
    const bool open_lo = lo <= -DBL_MAX, open_hi = hi >= DBL_MAX;
    if (!open_lo && !open_hi) out.format("%5d% 16.2f% 16.2f%14d\n", int(i), lo, hi, n);
    if (open_lo && !open_hi) out.format("%5d%s% 16.2f%14d\n", int(i), kMinusInf, hi, n);
    if (!open_lo && open_hi) out.format("%5d% 16.2f%s%14d\n", int(i), lo, kPlusInf, n);
    if (open_lo && open_hi) out.format("%5d%s%s%14d\n", int(i), kMinusInf, kPlusInf, n);
  }
}

}  // namespace

void mesher::data_type::print_info(display_fn display) const {
  if (!display) return;
  const report_sink out{display};
  const char* stars = "****************************************\n";
  out.text(stars);
  out.text("*    Kelvo Voxfill(R) Iso (");
  out.text(version());
  out.text(")    *\n");
  out.text(stars);

  const auto in_out = [&](const char* label, unsigned o, unsigned i) {
    out.figure(label, "%u", o, " (");
    out.figure("", "%u", i, " in)\n");
  };
  in_out("Hard nodes      : ", hard_nodes_out, hard_nodes_in);
  in_out("Hard edges      : ", hard_edges_out, hard_edges_in);
  in_out("Hard faces      : ", hard_faces_out, hard_faces_in);
  out.figure("Nodes           : ", "%u", used_node_count, "\n");
  out.figure("Tets            : ", "%u", tet_count, "\n");
  out.figure("Missing faces   : ", "%u", missing_faces.size, "\n");
  out.figure("Subdomains      : ", "%u", subdomains, "\n");
  out.figure("Volume          : ", "%E", volume, "\n");
  out.figure("Qmin            : ", "%E", min_quality, " (max-min: ");
  out.figure("", "%E", quality_bound, ")\n");
  out.figure("Steiner nodes   : ", "%u", steiner_nodes, "\n");
  out.figure("Front time      : ", "%.2f", front_time, " s.\n");
  out.figure("Refine time     : ", "%.2f", refine_time, " s.\n");
  out.figure("Optim time      : ", "%.2f", optim_time, " s.\n");
  // A speed beyond single precision means a run too short to time.
  if (speed >= double(FLT_MAX)) {
    out.figure("Total time      : ", "%.2f", total_time, " s. (INF th/s.)\n");
  } else {
    out.figure("Total time      : ", "%.2f", total_time, " s. (");
    out.figure("", "%.2f", speed, " th/s.)\n");
  }

  // A warning is not shown while an error stands.
  const int code = error_code ? error_code : warning_code;
  if (code) {
    out.text(error_code ? "Error: " : "Warning: ");
    out.format("%d", code);
    out.text(" (");
    out.message(msg_title);
    out.text(").\n");
    out.message(msg_text);
    out.text("\n");
  }
  if (error_code) return;
  if (histo_Qs.total_hits()) {
    out.text("\n************ HISTOGRAM QS ************\n");
    print_histogram(out, histo_Qs);
  }
  if (histo_Qh.total_hits()) {
    out.text("\n************ HISTOGRAM QH ************\n");
    print_histogram(out, histo_Qh);
  }
}

}  // namespace kelvo::voxfill
