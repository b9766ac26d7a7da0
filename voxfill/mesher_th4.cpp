// The façade of a run: settings check, record check, the engine's run inside a catch-all, timing.
#include "voxfill/mesher_th4.h"

#include <chrono>
#include <memory>
#include <new>

#include "voxfill/delaunay_th4.h"
#include "voxfill/messages.h"
#include "voxfill/refine/refine_context.h"

namespace kelvo::voxfill {

const char* version() noexcept { return "4.9.0.0"; }

int mesher::settings_type::check() const {
  if (size_gradation < 0.0) return -14;
  if (!(shape_weight >= 0.0 && shape_weight <= 1.0)) return -15;
  if (!(max_edge_length > 0.0)) return -16;
  return 0;
}

namespace {

// Seconds since the epoch, to the millisecond.
double wall_clock() {
  using namespace std::chrono;
  const auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  return double(ms / 1000) + 0.001 * double(ms % 1000);
}

void raise(mesher::data_type& data, msg id) {
  record_error(data.error_code, data.msg_title, data.msg_text, message(id));
}

}  // namespace

void mesher::run(data_type& data) const {
  std::unique_ptr<th4_engine> engine;
  double t0 = 0.0;
  try {
    engine = std::make_unique<th4_engine>();
    t0 = wall_clock();
    data.clear_data_out();
    if (settings.mode != 1) {
      data.connectM.clear();
      data.colors.clear();
    }
    if (settings.check() != 0) {
      raise(data, msg::mode_error);
      return;
    }
    if (settings.mode == 1 && data.connectM.empty()) {
      raise(data, msg::data_error_no_mesh);
      return;
    }
    if (data.check() != 0) {
      raise(data, msg::data_error_check);
      return;
    }
    engine->settings = settings;
    refine_context context(settings);
    try {
      engine->run(data, context);
    } catch (const std::bad_alloc&) {
      raise(data, msg::memory_error_run);
    } catch (...) {
      raise(data, msg::internal_error);
    }
  } catch (const std::bad_alloc&) {
    raise(data, msg::memory_error_run);
  } catch (...) {
    raise(data, msg::internal_error);
  }
  data.total_time = wall_clock() - t0;
  if (data.tet_count != 0) data.speed = data.total_time > 0.0 ? data.tet_count / data.total_time : DBL_MAX;
}

}  // namespace kelvo::voxfill
