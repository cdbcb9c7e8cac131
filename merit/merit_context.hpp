// What one merit evaluation computes once and hands to every operand: the
// first-order context of the system, symbolic surface references, and the
// table of rays that the device traced in advance.
#pragma once

#include <climits>

#include "api/types.hpp"
#include "first_order/aim_robust.hpp"
#include "first_order/paraxial_solve.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {

constexpr double kMeritRayFailed = 1e10;  // value of a ray operand whose ray failed

// The first-order quantities of one evaluation.  Lengths in system units.
struct MeritContext {
  double entrance_pupil_position;  // from surface 1, primary wavelength
  double pupil_radius;             // paraxial entrance pupil radius
  double max_field_y;              // largest |field_y|; 0 without a field above zero
  double max_field_x;              // largest |field_x|
  double exit_pupil_position;      // paraxial solve at wavelength row 0
  double exit_pupil_diameter;      // paraxial solve at wavelength row 0
  bool aim_enabled;                // ray_aiming non-zero
  double reference_radius;         // |exit pupil position| at the primary wavelength
  double reference_curvature;      // -1 / reference_radius, 0 when that is 0
  bool object_at_infinity;         // first thickness infinite in the sense of the trace
  bool aim_flag;                   // as aim_enabled; the aiming argument of the traces
  double aim_stop_radius_value;    // aim_stop_radius when aiming, else 0
};

// Rays traced in advance (by the device), as parallel arrays of `count`
// entries.  hy_values holds the operand's normalised field; ray_kinds is 0
// for a ray of which only the image position is wanted, 1 for the complete
// record; surface_indices is 0 for a ray traced to the last surface.
struct PreTracedRays {
  double const* hy_values;
  int const* wave_indices;
  double const* px_values;
  double const* py_values;
  int const* ray_kinds;
  int const* surface_indices;
  double const* x;
  double const* y;
  int const* valid_flags;
  double const* z;
  double const* l;
  double const* m;
  double const* n;
  double const* phase_waves;
  double const* entry_x;  // point on the first traced surface
  double const* entry_y;
  double const* entry_z;
  double const* launch_l;  // direction at launch
  double const* launch_m;
  double const* launch_n;
  double const* normal_x;  // surface normal at the end
  double const* normal_y;
  double const* normal_z;
  int count;
};

// Index of the first entry of the table that matches exactly (integers
// first, then the doubles without tolerance), or -1.  A NaN never matches.
NUVRIX_HD int pretraced_find(PreTracedRays const& t, double hy, int wave, double px, double py,
                             int kind, int surface) {
  for (int k = 0; k < t.count; ++k) {
    if (t.ray_kinds[k] != kind || t.surface_indices[k] != surface || t.wave_indices[k] != wave) {
      continue;
    }
    if (t.hy_values[k] == hy && t.px_values[k] == px && t.py_values[k] == py) return k;
  }
  return -1;
}

// A symbolic surface reference: -5 surface 1, -4 the stop, -3 the surface
// behind the stop, -2 the image, -1 the last surface in front of it, 0 the
// other end of the range; any other negative reference means surface 0.  A
// positive value is a surface index.
NUVRIX_HD int resolve_surface_ref(int ref, int n, int stop, int other) {
  if (ref > 0) return ref;
  switch (ref) {
    case -5: return 1;
    case -4: return stop;
    case -3: return stop < INT_MAX ? stop + 1 : INT_MAX;  // beyond any array either way
    case -2: return n - 1;
    case -1: return n - 2;
    case 0: return other;
    default: return 0;
  }
}

// Both ends of a range.  A reference of 0 takes the other end when that end
// is given positively; when both are 0 or negative each resolves alone, and
// 0 then means surface 0.
NUVRIX_HD void resolve_surface_range(int first, int last, int n, int stop, int& a, int& b) {
  bool const both_symbolic = first <= 0 && last <= 0;
  a = resolve_surface_ref(first, n, stop, both_symbolic ? 0 : last);
  b = resolve_surface_ref(last, n, stop, both_symbolic ? 0 : first);
}

namespace detail {

// Row of the primary wavelength; an index out of range takes row 0.
NUVRIX_HD int merit_primary_row(SystemConfig const& config, int wave_count) {
  int const p = config.primary_wavelength;
  return (p < 0 || p >= wave_count) ? 0 : p;
}

// Entrance pupil radius by the aperture type: half the diameter, the focal
// length over twice the F-number, or the object distance to the pupil times
// the tangent of the object-space numerical aperture.
NUVRIX_HD double merit_pupil_radius(SurfaceData const* surfaces, int n, double const* row,
                                    SystemConfig const& config, double entrance_pupil_position) {
  double const A = config.aperture_value;
  if (config.aperture_type == 0) return A / 2.0;
  if (config.aperture_type == 1) {
    ParaxialEndState const end = trace_paraxial_end(surfaces, n, row, 1.0, 0.0, -1);
    if (end.row_count == 0) return 0.0;
    double const u = end.last.u;
    double const f = fabs(u) > kTiny ? fabs(row[0] / (u * row[n - 2])) : kNoPowerFocal;
    return f / (2.0 * A);
  }
  double n0 = n > 0 ? row[0] : 1.0;
  if (n0 < 1e-6) n0 = 1.0;
  double const s = fabs(A) / n0;
  double const tan_u =
      s >= 1.0 ? kNaSineClamp / sqrt(kNaClampRootRadicand) : s / sqrt(1.0 - s * s);
  double const t0 = n > 0 ? surfaces[0].thickness : 0.0;
  double const distance =
      t0 + (config.telecentric_object != 0 ? kTelecentricPupil : entrance_pupil_position);
  return fabs(distance) * tan_u;
}

// The aiming prologue of every merit ray: with aiming on, the radius that
// the marginal ray fills at the stop for this index row; else no aim.
NUVRIX_HD double merit_aim_radius(SurfaceData const* surfaces, int n, double const* row,
                                  SystemConfig const* config, MeritContext const& ctx) {
  return ctx.aim_enabled ? aim_stop_radius(surfaces, n, row, config, ctx.pupil_radius) : 0.0;
}

// A ray of the operand's field and pupil point through the general front
// end, aimed as the prologue says, to the image surface.
NUVRIX_HD_CALL RayTraceResult merit_ray(SurfaceData const* surfaces, int n, double const* row,
                                   SystemConfig const* config, MeritContext const& ctx,
                                   double aim_radius, double field_y, double field_x, double px,
                                   double py, double wavelength_nm, RayState* states,
                                   int max_states) {
  return trace_arbitrary_ray_full(surfaces, n, row, config, field_y, ctx.pupil_radius, px, py,
                                  wavelength_nm, ctx.entrance_pupil_position, ctx.aim_flag ? 1 : 0,
                                  aim_radius, 0, states, max_states, field_x);
}

// Row w of the index table, with the row index that a negative `wave`
// (the primary wavelength) or one beyond the table resolves to.
NUVRIX_HD int merit_wave_index(int wave, SystemConfig const& config, int wave_count) {
  int const w = wave < 0 ? config.primary_wavelength : wave;
  return (w < 0 || w >= wave_count) ? 0 : w;
}

}  // namespace detail

// The context of one evaluation; index_table holds wave_count rows of n.
NUVRIX_HD_CALL MeritContext build_context(SurfaceData const* surfaces, int n, double const* index_table,
                                     int wave_count, SystemConfig const* config,
                                     FieldData const* fields, int field_count) {
  MeritContext c = {};
  int const p = detail::merit_primary_row(*config, wave_count);
  double const* primary = index_table + static_cast<long>(p) * n;
  c.entrance_pupil_position =
      compute_entrance_pupil_position(surfaces, n, primary, config->stop_surface);
  c.pupil_radius =
      detail::merit_pupil_radius(surfaces, n, primary, *config, c.entrance_pupil_position);
  for (int f = 0; f < field_count; ++f) {
    if (fabs(fields[f].field_y) > c.max_field_y) c.max_field_y = fabs(fields[f].field_y);
    if (fabs(fields[f].field_x) > c.max_field_x) c.max_field_x = fabs(fields[f].field_x);
  }
  // The exit pupil of row 0 whatever the primary wavelength; the reference
  // sphere of the primary row.
  ParaxialSolveResult const first =
      paraxial_solve(surfaces, n, index_table, config, fields, field_count, nullptr, nullptr);
  c.exit_pupil_position = first.exit_pupil_position;
  c.exit_pupil_diameter = first.exit_pupil_diameter;
  double const primary_exit =
      p == 0 ? first.exit_pupil_position
             : paraxial_solve(surfaces, n, primary, config, fields, field_count, nullptr, nullptr)
                   .exit_pupil_position;
  c.reference_radius = fabs(primary_exit);
  c.reference_curvature = c.reference_radius == 0.0 ? 0.0 : -1.0 / c.reference_radius;
  c.object_at_infinity = n > 0 && detail::is_infinite_distance(surfaces[0].thickness);
  c.aim_enabled = config->ray_aiming != 0;
  c.aim_flag = c.aim_enabled;
  c.aim_stop_radius_value =
      c.aim_enabled ? aim_stop_radius(surfaces, n, primary, config, c.pupil_radius) : 0.0;
  return c;
}

}  // namespace nuvrix
