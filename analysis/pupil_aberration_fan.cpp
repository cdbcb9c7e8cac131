// Pupil-aberration fans: each fan ray leaves for the paraxial entrance pupil,
// unaimed, and is traced to the stop; its miss of the paraxially promised
// stop height R p, in percent of the paraxial stop radius R.  A ray that
// reaches the stop higher than promised has a negative value.
#include <math.h>

#include "analysis/launch_set.hpp"
#include "analysis/ray_fans.hpp"
#include "first_order/semi_diameter.hpp"
#include "trace/front_ends.hpp"
#include "trace/trace_core.hpp"

namespace nuvrix {

namespace {

constexpr double kMinStopRadius = 1e-15;

// What every fan ray of one call is launched and measured with.
struct PupilFanRays {
  SurfaceData const* surfaces;
  int surface_count;
  SystemConfig const* config;
  LaunchSet launch;
  double stop_radius;  // R, paraxial
  int point_count;
};

void raise_max_abs(double& max_abs, double v) {
#pragma omp critical(nuvrix_pupil_fan_max)
  {
    if (v > max_abs) max_abs = v;
  }
}

// The fan ray through (px, py), launched for the paraxial entrance pupil
// and traced without aim to the stop (to the last surface when the stop
// index is 0 or less), its states kept in `history`; inlined whole, as the
// spot diagram's rays are.
__attribute__((flatten, hot)) RayTraceResult trace_to_stop(PupilFanRays const& f,
                                                           double const* row, double px,
                                                           double py, RayState* history) {
  // No object surface, no launch: the ray is invalid as in every front end.
  if (f.surface_count < 1) return RayTraceResult{};
  LaunchSet const& s = f.launch;
  detail::Launch const start = detail::fe_launch(f.surfaces, *f.config, s.field_value, 0.0,
                                                 s.pupil_radius, px, py,
                                                 s.entrance_pupil_position);
  int const stop = f.config->stop_surface;
  int const last = stop > 0 ? stop : f.surface_count - 1;
  return detail::rt_trace_impl(f.surfaces, f.surface_count, row, start.x, start.y, start.l,
                               start.m, start.n, history, 1, last, 0.0, kMaxSurfaces, false);
}

// Sample i of one fan at wavelength w.
PupilAberrationPoint pupil_sample(PupilFanRays const& f, double const* row, int w, int i,
                                  bool tangential_fan, RayState* history, double& max_abs) {
  double const p = fan_coordinate(i, f.point_count);
  double const px = tangential_fan ? 0.0 : p, py = tangential_fan ? p : 0.0;
  RayTraceResult const ray = trace_to_stop(f, row, px, py, history);
  PupilAberrationPoint rec = {p, 0.0, w, 0};
  int const stop = f.config->stop_surface;
  if (ray.valid && stop >= 0 && stop < f.surface_count) {
    double const h = tangential_fan ? history[stop].y : history[stop].x;
    double const R = f.stop_radius;
    rec.value = (R * p - h) * 100.0 / R;
    rec.valid = 1;
    raise_max_abs(max_abs, fabs(rec.value));
  }
  return rec;
}

// One fan at one wavelength: a parallel region over the samples, each
// thread with a history buffer of its own.
void pupil_pass(PupilFanRays const& f, double const* row, int w, bool tangential_fan,
                PupilAberrationPoint* out, double& max_abs) {
  int const samples = f.point_count + 1;
#pragma omp parallel
  {
    RayState history[kMaxSurfaces];
#pragma omp for schedule(dynamic, 1)
    for (int i = 0; i < samples; ++i) {
      out[fan_record_index(i, w, f.point_count)] =
          pupil_sample(f, row, w, i, tangential_fan, history, max_abs);
    }
  }
}

}  // namespace

int compute_pupil_aberration_fan(SurfaceData const* surfaces, int surface_count,
                                 double const* indices, int wavelength_count,
                                 SystemConfig const* config, FieldData const* fields,
                                 int field_count, int field_index, int point_count,
                                 PupilAberrationPoint* tangential,
                                 PupilAberrationPoint* sagittal,
                                 PupilAberrationResultHeader* header) {
  if (field_index < 0 || field_index >= field_count) return -1;
  if (wavelength_count < 1) {
    *header = PupilAberrationResultHeader{field_index, 0.0, 0, 0};
    return 0;
  }
  double const* primary = primary_index_row(indices, surface_count, wavelength_count, *config);
  LaunchSet const launch =
      compute_launch_set(surfaces, surface_count, primary, *config, fields, field_index);
  double const R = compute_stop_radius(surfaces, surface_count, primary, config);
  if (R < kMinStopRadius) return -3;

  PupilFanRays const f = {surfaces, surface_count, config, launch, R, point_count};
  double max_abs = 0.0;
  for (int w = 0; w < wavelength_count; ++w) {
    double const* row = indices + static_cast<long>(w) * surface_count;
    pupil_pass(f, row, w, true, tangential, max_abs);
    pupil_pass(f, row, w, false, sagittal, max_abs);
  }
  int const count = (point_count + 1) * wavelength_count;
  *header = PupilAberrationResultHeader{field_index, max_abs, count, count};
  return 0;
}

}  // namespace nuvrix
