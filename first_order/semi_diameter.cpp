#include "first_order/semi_diameter.hpp"

#include "first_order/aim_robust.hpp"
#include "first_order/paraxial_solve.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {

namespace {

// The largest edge-ray height at each surface over one wavelength row.
void scan_row(SurfaceData const* surfaces, int n, double const* row, int w,
              SystemConfig const& config, FieldData const* fields, int field_count,
              double* max_radius, SdArgmax* argmax) {
  double const pupil_radius = paraxial_marginal_height(surfaces, n, row, config);
  double const ep = config.stop_surface < 2
                        ? 0.0
                        : compute_entrance_pupil_position(surfaces, n, row, config.stop_surface);
  double const stop_radius =
      config.ray_aiming != 0 ? aim_stop_radius(surfaces, n, row, &config, pupil_radius) : 0.0;
  RayState states[kMaxSurfaces];
  for (int f = 0; f < field_count; ++f) {
    for (int k = 0; k < 8; ++k) {
      RayTraceResult const r = trace_arbitrary_ray_full(
          surfaces, n, row, &config, fields[f].field_y, pupil_radius, sd_px_vals[k],
          sd_py_vals[k], 0.0, ep, config.ray_aiming, stop_radius, n - 1, states, kMaxSurfaces,
          0.0);
      int const records = r.states_written < n ? r.states_written : n;
      for (int i = 0; i < records; ++i) {
        double const radius = sqrt(detail::sum_sq2(states[i].x, states[i].y));
        if (!(radius > max_radius[i])) continue;
        max_radius[i] = radius;
        if (argmax != nullptr) argmax[i] = SdArgmax{w, f, k, argmax[i].scale, true, false};
      }
    }
  }
}

// With an entrance-pupil diameter and only air in front of the stop, the
// stop is the pupil: it must be at least as wide.
void apply_entrance_pupil_rule(SurfaceData const* surfaces, int n, SystemConfig const& config,
                               double* max_radius, SdArgmax* argmax) {
  int const stop = config.stop_surface;
  if (config.aperture_type != 0 || stop < 1 || stop >= n) return;
  for (int i = 1; i < stop; ++i) {
    if (surfaces[i].is_glass != 0) return;
  }
  double const half = config.aperture_value / 2.0;
  if (half > max_radius[stop]) {
    max_radius[stop] = half;
    if (argmax != nullptr) argmax[stop].has_ray = false;
  }
}

double percent_scale(double p) { return (!(p > 0.0) || p == 100.0) ? 1.0 : p / 100.0; }

}  // namespace

void solve_semi_diameters_impl(SurfaceData* surfaces, int n, double const* indices,
                               double const* wavelengths, int wavelength_count,
                               SystemConfig const* config, FieldData const* fields,
                               int field_count, SdArgmax* argmax) {
  (void)wavelengths;
  if (argmax != nullptr) {
    if (n < 1) return;
    for (int i = 0; i < n; ++i) argmax[i] = SdArgmax{-1, -1, -1, 1.0, false, false};
  }
  if (wavelength_count < 1 || field_count < 1 || n < 1 || n > kMaxSurfaces) return;
  double max_radius[kMaxSurfaces] = {};
  for (int w = 0; w < wavelength_count; ++w) {
    scan_row(surfaces, n, indices + static_cast<long>(w) * n, w, *config, fields, field_count,
             max_radius, argmax);
  }
  apply_entrance_pupil_rule(surfaces, n, *config, max_radius, argmax);
  for (int i = 0; i < n; ++i) {
    SurfaceData& s = surfaces[i];
    double const p = s.aperture_percent;
    if (argmax != nullptr) {
      argmax[i].is_fixed = s.aperture_kind != 0;
      argmax[i].scale = percent_scale(p);
    }
    if (s.aperture_kind != 0) continue;
    double const R = max_radius[i];
    if (!(p > 0.0) || p == 100.0) {
      if (R > 0.0) s.semi_diameter = R;
      continue;
    }
    double const v = (R > 0.0 ? R : 0.0) * (p / 100.0);
    if (v > 0.0) s.semi_diameter = v;
  }
}

void solve_semi_diameters(SurfaceData* surfaces, int n, double const* indices,
                          double const* wavelengths, int wavelength_count,
                          SystemConfig const* config, FieldData const* fields, int field_count) {
  solve_semi_diameters_impl(surfaces, n, indices, wavelengths, wavelength_count, config, fields,
                            field_count, nullptr);
}

double compute_pupil_radius(SurfaceData const* surfaces, int n, double const* indices,
                            SystemConfig const* config) {
  return paraxial_marginal_height(surfaces, n, indices, *config);
}

double compute_stop_radius(SurfaceData const* surfaces, int n, double const* indices,
                           SystemConfig const* config) {
  double const fallback = config->aperture_type == 0 ? config->aperture_value / 2.0
                                                     : kDefaultStopRadius;
  if (n <= 1) return fallback;
  double const y0 = paraxial_marginal_height(surfaces, n, indices, *config);
  double h = 0.0;
  int const stop = config->stop_surface;
  if (stop >= 1 && detail::paraxial_height_at_row(surfaces, n, indices, y0, 0.0, stop - 1, h)) {
    return fabs(h);
  }
  return fallback;
}

}  // namespace nuvrix
