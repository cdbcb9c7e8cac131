// The launch set: what every image-quality analysis computes once per call,
// from the primary wavelength's index row, and hands to each of its rays.
#pragma once

#include "api/types.hpp"
#include "first_order/paraxial_solve.hpp"
#include "first_order/semi_diameter.hpp"

namespace nuvrix {

struct LaunchSet {
  double field_value;              // field_y of the field analysed
  double pupil_radius;             // paraxial marginal launch height, mm
  double entrance_pupil_position;  // from surface 1, mm
  int aim_flag;                    // 1 only under aiming mode 1: the analyses do not aim in mode 2
  double stop_radius;              // paraxial marginal height at the stop when aiming, else 0
};

// Row of the primary wavelength in a table of `wavelength_count` rows of
// `surface_count` indices; the first row when the index is out of range.
inline double const* primary_index_row(double const* indices, int surface_count,
                                       int wavelength_count, SystemConfig const& config) {
  int const w = config.primary_wavelength;
  if (w < 0 || w >= wavelength_count) return indices;
  return indices + static_cast<long>(w) * surface_count;
}

// The launch set of field `field_index` (already checked by the caller)
// from the primary wavelength's index row.
inline LaunchSet compute_launch_set(SurfaceData const* surfaces, int surface_count,
                                    double const* primary_row, SystemConfig const& config,
                                    FieldData const* fields, int field_index) {
  LaunchSet s;
  s.field_value = fields[field_index].field_y;
  s.pupil_radius = compute_pupil_radius(surfaces, surface_count, primary_row, &config);
  s.entrance_pupil_position =
      compute_entrance_pupil_position(surfaces, surface_count, primary_row, config.stop_surface);
  s.aim_flag = config.ray_aiming == 1 ? 1 : 0;
  s.stop_radius =
      s.aim_flag == 1 ? compute_stop_radius(surfaces, surface_count, primary_row, &config) : 0.0;
  return s;
}

}  // namespace nuvrix
