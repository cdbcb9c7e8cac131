// Transverse ray fans: the image-surface distance of each fan ray from the
// primary chief ray, tangential in y and sagittal in x.  All wavelengths
// share the primary launch set and chief ray, so lateral colour shows as an
// offset of the axis sample.
#include <math.h>

#include "analysis/launch_set.hpp"
#include "analysis/ray_fans.hpp"
#include "analysis/spot_diagram.hpp"

namespace nuvrix {

namespace {

// What every fan ray of one call is traced with and measured against.
struct FanRays {
  SurfaceData const* surfaces;
  int surface_count;
  SystemConfig const* config;
  LaunchSet launch;
  double chief_x, chief_y;
  int point_count;
};

void raise_max_abs(double& max_abs, double v) {
#pragma omp critical(nuvrix_ray_fan_max)
  {
    if (v > max_abs) max_abs = v;
  }
}

// Sample i of one fan at wavelength w with index row `row`.
RayFanPoint fan_sample(FanRays const& f, double const* row, int w, int i, bool tangential_fan,
                       double& max_abs) {
  double const p = fan_coordinate(i, f.point_count);
  double const px = tangential_fan ? 0.0 : p, py = tangential_fan ? p : 0.0;
  RayTraceResult const ray =
      trace_launch_ray(f.surfaces, f.surface_count, row, f.config, f.launch, px, py);
  RayFanPoint rec = {p, 0.0, w, 0};
  if (ray.valid) {
    rec.value = tangential_fan ? ray.y - f.chief_y : ray.x - f.chief_x;
    rec.valid = 1;
    raise_max_abs(max_abs, fabs(rec.value));
  }
  return rec;
}

// One fan at one wavelength: a parallel region over the samples.
void fan_pass(FanRays const& f, double const* row, int w, bool tangential_fan, RayFanPoint* out,
              int& visited, double& max_abs) {
  int const samples = f.point_count + 1;
#pragma omp parallel for schedule(dynamic, 1)
  for (int i = 0; i < samples; ++i) {
    out[fan_record_index(i, w, f.point_count)] =
        fan_sample(f, row, w, i, tangential_fan, max_abs);
#pragma omp atomic update
    visited += 1;
  }
}

}  // namespace

int compute_transverse_ray_fan(SurfaceData const* surfaces, int surface_count,
                               double const* indices, int wavelength_count,
                               SystemConfig const* config, FieldData const* fields,
                               int field_count, int field_index, int point_count,
                               RayFanPoint* tangential, RayFanPoint* sagittal,
                               RayFanResultHeader* header) {
  if (field_index < 0 || field_index >= field_count) return -1;
  if (wavelength_count < 1) {
    *header = RayFanResultHeader{field_index, 0.0, 0, 0};
    return 0;
  }
  double const* primary = primary_index_row(indices, surface_count, wavelength_count, *config);
  LaunchSet const launch =
      compute_launch_set(surfaces, surface_count, primary, *config, fields, field_index);
  RayTraceResult const chief =
      trace_launch_ray(surfaces, surface_count, primary, config, launch, 0.0, 0.0);
  if (!chief.valid) return -2;

  FanRays const f = {surfaces, surface_count, config, launch, chief.x, chief.y, point_count};
  double max_abs = 0.0;
  int tangential_count = 0, sagittal_count = 0;
  for (int w = 0; w < wavelength_count; ++w) {
    double const* row = indices + static_cast<long>(w) * surface_count;
    fan_pass(f, row, w, true, tangential, tangential_count, max_abs);
    fan_pass(f, row, w, false, sagittal, sagittal_count, max_abs);
  }
  *header = RayFanResultHeader{field_index, max_abs, tangential_count, sagittal_count};
  return 0;
}

}  // namespace nuvrix
