// The body of the ray-grid kernel, one ray a thread, written once for the
// device and the host (the stand-in driver of the tests runs it too).  A
// ray is a field, a wavelength row and a pupil point of one system, traced
// by the general front end as the merit function traces its rays.
#pragma once

#include "first_order/aim_robust.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace kernels {

// The grid's arrays, as the kernel's parameters hand them.  The optional
// ones may be null: field_table, ray_kinds, surface_indices, stop_radii,
// and each output beyond x, y, optical_path and valid.
struct TraceGrid {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;  // rows of n
  double const* wavelengths;  // micrometres
  SystemConfig const* config;
  FieldData const* fields;
  int const* field_indices;
  int const* wave_indices;
  double const* px;
  double const* py;
  double const* field_table;  // four a field: field y, field x, pupil radius, pupil position
  double pupil_radius;
  double entrance_pupil_position;
  double* x;
  double* y;
  double* optical_path;  // the path in waves of the ray's wavelength
  int* valid;
  int const* ray_kinds;  // 1: the complete record
  double *z, *l, *m, *n_out;
  double *launch_x, *launch_y, *launch_z;  // the ray's point on surface 1
  double *launch_l, *launch_m, *launch_n;  // its direction at launch
  int const* surface_indices;              // the surface traced to; 0 the last
  double *normal_x, *normal_y, *normal_z;  // the normal at that surface
  int aim;
  double const* stop_radii;  // the aim's stop radius of each ray
  int ray_count;
};

NUVRIX_HD void put(double* out, int r, double v) {
  if (out != nullptr) out[r] = v;
}

// Ray r of the grid.
NUVRIX_HD void trace_grid_body(int r, TraceGrid const& g) {
  if (r >= g.ray_count) return;
  int const f = g.field_indices[r], w = g.wave_indices[r];
  double const* row = g.index_table + static_cast<long>(w) * g.n;
  double field_y = g.fields[f].field_y, field_x = g.fields[f].field_x;
  double radius = g.pupil_radius, position = g.entrance_pupil_position;
  if (g.field_table != nullptr) {
    double const* t = g.field_table + 4L * f;
    field_y = t[0], field_x = t[1], radius = t[2], position = t[3];
  }
  double stop = 0.0;
  if (g.aim != 0) {
    stop = g.stop_radii != nullptr ? g.stop_radii[r]
                                   : aim_stop_radius(g.surfaces, g.n, row, g.config, radius);
  }
  int const last = g.surface_indices != nullptr ? g.surface_indices[r] : 0;
  RayState states[2];
  RayTraceResult const t = trace_arbitrary_ray_full(
      g.surfaces, g.n, row, g.config, field_y, radius, g.px[r], g.py[r],
      g.wavelengths[w] * 1000.0, position, g.aim != 0 ? 1 : 0, stop, last, states, 2, field_x);
  g.x[r] = t.x;
  g.y[r] = t.y;
  g.optical_path[r] = t.phase_waves;
  g.valid[r] = t.valid;
  // The complete record for kind 1; zeros (and an axial launch) otherwise.
  bool const full = g.ray_kinds != nullptr && g.ray_kinds[r] == 1;
  bool const history = full && t.states_written >= 2;
  put(g.z, r, full ? t.z : 0.0);
  put(g.l, r, full ? t.l : 0.0);
  put(g.m, r, full ? t.m : 0.0);
  put(g.n_out, r, full ? t.n : 0.0);
  put(g.launch_x, r, history ? states[1].x : 0.0);
  put(g.launch_y, r, history ? states[1].y : 0.0);
  put(g.launch_z, r, history ? states[1].z : 0.0);
  put(g.launch_l, r, history ? states[0].l : 0.0);
  put(g.launch_m, r, history ? states[0].m : 0.0);
  put(g.launch_n, r, history ? states[0].n : 1.0);
  put(g.normal_x, r, full ? t.nx : 0.0);
  put(g.normal_y, r, full ? t.ny : 0.0);
  put(g.normal_z, r, full ? t.nz : 0.0);
}

}  // namespace kernels
}  // namespace nuvrix
