// The operand catalogue: the raw value of one merit operand, a dispatch
// over the 104 codes that hosts store.  Code gaps stay gaps.
#pragma once

#include "api/types.hpp"
#include "first_order/seidel.hpp"
#include "merit/boundary.hpp"
#include "merit/merit_context.hpp"
#include "merit/wavefront_operands.hpp"

namespace nuvrix {

constexpr int kMeritOperandCodes = 104;
constexpr int kDistortionScanPoints = 20;  // field points of the worst-distortion codes
constexpr int kDefaultAzimuths = 36;       // code 59 without a sample count

namespace detail {

// Element k of an index row; outside the row the medium is air.
template <typename U>
NUVRIX_HD U row_index(U const* row, int n, int k) {
  return (k >= 0 && k < n) ? row[k] : U(1.0);
}

// The marginal paraxial step of the catalogue, written out on its own, over
// either view of the surfaces (boundary.hpp) and index rows of scalar U:
// transfer unless the thickness is infinite in the sense of the trace, ...
template <typename T>
NUVRIX_HD void catalogue_transfer(T const& t, T& y, T const& u) {
  if (!is_infinite_distance(val(t))) y = y + t * u;
}

// ... and the action of surface k between indices n_a and n_b: a matrix,
// an ideal lens (no power unless its focal length is finite and not zero),
// a mirror (power -2 n c, the next index -n) or a refracting surface.
template <typename V, typename U>
NUVRIX_HD void catalogue_act(V const& v, int k, U const& n_a, U const& n_b, typename V::Scalar& y,
                             typename V::Scalar& u) {
  using T = typename V::Scalar;
  SurfaceData const& s = v.record(k);
  if (s.type == NUVRIX_SURFACE_MATRIX) {
    T const yp = v.coefficient(k, 0) * y + v.coefficient(k, 1) * u;
    T const up = v.coefficient(k, 2) * y + v.coefficient(k, 3) * u;
    y = yp;
    u = up;
    return;
  }
  T power;
  U next = n_b;
  if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
    auto const& f = v.focal_length(k);
    power = (is_finite(val(f)) && val(f) != 0.0) ? T(1.0 / f) : T(0.0);
  } else if (s.is_mirror != 0) {
    power = -2.0 * n_a * v.curvature(k);
    next = -n_a;
  } else {
    power = (n_b - n_a) * v.curvature(k);
  }
  u = (n_a * u - y * power) / next;
}

// Surface i of the marginal trace: the spacing in front of it, then its action.
template <typename V, typename U>
NUVRIX_HD void catalogue_step(V const& v, U const* row, int i, typename V::Scalar& y,
                              typename V::Scalar& u) {
  catalogue_transfer(v.thickness(i - 1), y, u);
  catalogue_act(v, i, row_index(row, v.n, i - 1), row_index(row, v.n, i), y, u);
}

// Codes 13 to 18: slope or height of the paraxial marginal ray just behind
// `surface`; 0 when that surface is not met.
NUVRIX_HD double paraxial_marginal_at(SurfaceData const* surfaces, int n, double const* row,
                                      double pupil_radius, int surface, bool slope) {
  PlainSurfaces const v{surfaces, n};
  double y = pupil_radius, u = 0.0, value = 0.0;
  for (int i = 1; i <= n - 1; ++i) {
    catalogue_step(v, row, i, y, u);
    if (i == surface) value = slope ? u : y;
  }
  return value;
}

// Code 50 and the scale of the distortion codes: -n0 / (u' n') of a unit
// ray parallel to the axis; 1e15 when afocal, 0 below 2 surfaces.
template <typename V, typename U>
NUVRIX_HD typename V::Scalar catalogue_focal_length(V const& v, U const* row) {
  using T = typename V::Scalar;
  int const n = v.n;
  if (n < 2) return T(0.0);
  T y = T(1.0), u = T(0.0);
  for (int i = 1; i <= n - 1; ++i) catalogue_step(v, row, i, y, u);
  if (!(fabs(val(u)) > kTiny)) return T(kNoPowerFocal);
  return -row_index(row, n, 0) / (u * row_index(row, n, n - 2));
}
NUVRIX_HD double catalogue_focal_length(SurfaceData const* surfaces, int n, double const* row) {
  return catalogue_focal_length(PlainSurfaces{surfaces, n}, row);
}

// Code 51: back focus from the state behind the last surface in front of
// the image, for a finite object from its axial point, else from a ray
// parallel to the axis.
NUVRIX_HD double catalogue_back_focus(SurfaceData const* surfaces, int n, double const* row) {
  double const t = n > 0 ? surfaces[0].thickness : 0.0;
  bool const finite = is_finite(t) && fabs(t) < kInfiniteDistance;
  if (!finite && n <= 2) return 0.0;
  ParaxialEndState const end =
      finite ? trace_paraxial_end(surfaces, n, row, 0.0, 1.0 / fabs(t), -1)
             : trace_paraxial_end(surfaces, n, row, 1.0, 0.0, -1);
  if (end.row_count <= 1) return 0.0;
  if (fabs(end.previous.u) < kTiny) return kNoPowerFocal;
  return -end.previous.y / end.previous.u;
}

// Codes 75 to 78 and 87: the paraxial matrix of surfaces from max(first, 1)
// to min(last, n - 1), by two rays (1, 0) and (0, 1); the identity for an
// empty range.  m = {A, B, C, D}.
template <typename V, typename U>
NUVRIX_HD void catalogue_matrix(V const& v, U const* row, int first, int last,
                                typename V::Scalar m[4]) {
  using T = typename V::Scalar;
  int const a = first > 1 ? first : 1;
  int const b = last < v.n ? last : v.n - 1;
  T y1 = T(1.0), u1 = T(0.0), y2 = T(0.0), u2 = T(1.0);
  for (int i = a; i <= b; ++i) {
    U const n_a = row_index(row, v.n, i - 1), n_b = row_index(row, v.n, i);
    catalogue_act(v, i, n_a, n_b, y1, u1);
    catalogue_act(v, i, n_a, n_b, y2, u2);
    if (i < b) {
      catalogue_transfer(v.thickness(i), y1, u1);
      catalogue_transfer(v.thickness(i), y2, u2);
    }
  }
  m[0] = y1, m[1] = y2, m[2] = u1, m[3] = u2;
}

// The element of the range's matrix that code 75 to 78 names, or for code
// 87 its determinant A D - B C.
template <typename V, typename U>
NUVRIX_HD typename V::Scalar catalogue_matrix_operand(MeritOperandDesc const& op, V const& v,
                                                      U const* row) {
  typename V::Scalar m[4];
  catalogue_matrix(v, row, op.surface_first, op.surface_last, m);
  return op.type == 87 ? m[0] * m[3] - m[1] * m[2] : m[static_cast<int>(op.type) - 75];
}

// Code 57: the inner thicknesses, less the negative spacing of a dummy stop
// on surface 1 in air; that rule reads plain values.
template <typename V, typename U>
NUVRIX_HD typename V::Scalar catalogue_total_track(V const& v, U const* primary, int stop) {
  using T = typename V::Scalar;
  int const n = v.n;
  if (n < 3) return T(0.0);
  T sum = T(0.0);
  for (int i = 1; i <= n - 2; ++i) {
    auto const& t = v.thickness(i);
    if (is_infinite_distance(val(t))) continue;
    if (i == 1 && stop == 1 && val(t) < 0.0 && val(row_index(primary, n, 1)) < 1.1) continue;
    sum += t;
  }
  return sum;
}

// Code 79: parameter p (from 1) of surface k: a matrix element, the focal
// length of an ideal lens, an aspheric coefficient; 0 otherwise.
template <typename V>
NUVRIX_HD typename V::Scalar catalogue_surface_parameter(V const& v, int k, int p) {
  using T = typename V::Scalar;
  if (k < 0 || k >= v.n || p < 1) return T(0.0);
  SurfaceData const& s = v.record(k);
  if (s.type == NUVRIX_SURFACE_MATRIX && p <= 4) return v.coefficient(k, p - 1);
  if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS && p == 1) return v.focal_length(k);
  if (s.type == NUVRIX_SURFACE_EVEN_ASPHERE && p <= 8) return v.coefficient(k, p - 1);
  return T(0.0);
}

// Codes 101 to 103: the root of the squared violations of one model-glass
// parameter over the range.
template <typename V>
NUVRIX_HD typename V::Scalar catalogue_glass_bound(MeritOperandDesc const& op, V const& v,
                                                   int stop) {
  using T = typename V::Scalar;
  int const n = v.n;
  int a = 0, b = 0;
  resolve_surface_range(op.surface_first, op.surface_last, n, stop, a, b);
  if (a < 0) a = 0;
  if (b > n - 1) b = n - 1;
  T sum = T(0.0);
  for (int k = a; k <= b; ++k) {
    if (v.record(k).model_glass == 0) continue;
    T const q = op.type == 101 ? v.model_nd(k) : (op.type == 102 ? v.model_vd(k) : v.model_dpgf(k));
    sum += bound_violation_sq(op, q);
  }
  return sqrt(sum);
}

// The rows of the colour sums: the shortest and the longest wavelength, the
// first of equal ones; row 0 for both with fewer than two wavelengths.
NUVRIX_HD void seidel_colour_rows(double const* wavelengths, int wave_count, int& shortest,
                                  int& longest) {
  shortest = 0;
  longest = 0;
  for (int k = 1; k < wave_count; ++k) {
    if (wavelengths[k] < wavelengths[shortest]) shortest = k;
    if (wavelengths[k] > wavelengths[longest]) longest = k;
  }
}

// Codes 80 to 86: one Seidel sum over the range, the colour sums between
// the rows of the shortest and the longest wavelength.
NUVRIX_HD_CALL double catalogue_seidel(MeritOperandDesc const& op, SurfaceData const* surfaces, int n,
                                  double const* index_table, int wave_count,
                                  double const* wavelengths, SystemConfig const* config,
                                  MeritContext const& ctx) {
  int a = 0, b = 0;
  resolve_surface_range(op.surface_first, op.surface_last, n, config->stop_surface, a, b);
  int shortest = 0, longest = 0;
  seidel_colour_rows(wavelengths, wave_count, shortest, longest);
  int const count = n < kMaxSurfaces ? n : kMaxSurfaces;
  double curvatures[kMaxSurfaces], thicknesses[kMaxSurfaces];
  for (int k = 0; k < count; ++k) {
    curvatures[k] = surfaces[k].curvature;
    thicknesses[k] = surfaces[k].thickness;
  }
  double const* primary = index_table + static_cast<long>(merit_primary_row(*config, wave_count)) * n;
  return seidel_range_sum_t<double, double>(
      curvatures, thicknesses, primary, index_table + static_cast<long>(shortest) * n,
      index_table + static_cast<long>(longest) * n, surfaces, count, config->field_type,
      config->stop_surface, ctx.pupil_radius, ctx.max_field_y, ctx.entrance_pupil_position,
      static_cast<int>(op.type) - 80, a, b, nullptr, nullptr, nullptr);
}

// The paraxial image height scale of the distortion codes: for a height
// field from a finite object, n0 over the reduced slope of the axial ray
// of unit slope; else the focal length.
NUVRIX_HD double distortion_scale(SurfaceData const* surfaces, int n, double const* primary,
                                  SystemConfig const* config) {
  if (config->field_type != 1) return catalogue_focal_length(surfaces, n, primary);
  double const t = n > 0 ? surfaces[0].thickness : 0.0;
  if (!(is_finite(t) && fabs(t) > kTiny && fabs(t) < kInfiniteDistance)) return 0.0;
  ParaxialEndState const end = trace_paraxial_end(surfaces, n, primary, 0.0, 1.0, -1);
  if (end.row_count > 0 && fabs(end.last.nu) > kTiny) return row_index(primary, n, 0) / end.last.nu;
  return 0.0;
}

// Distortion in percent of the chief ray at field h against the ideal
// height, tangent (tangent) or angle mapping; false when the ray failed or
// the ideal height is below 1e-10.
NUVRIX_HD bool distortion_at(SurfaceData const* surfaces, int n, double const* primary,
                             SystemConfig const* config, MeritContext const& ctx, double aim,
                             double scale, bool tangent, double h, double& percent) {
  double ideal;
  if (config->field_type == 1) {
    ideal = h * scale;
  } else {
    double const a = h * 3.14159265358979323846 / 180.0;
    ideal = tangent ? tan(a) * scale : a * scale;
  }
  RayTraceResult const chief =
      trace_arbitrary_ray(surfaces, n, primary, config, h, ctx.pupil_radius, 0.0, 0.0, 0.0,
                          ctx.entrance_pupil_position, ctx.aim_flag ? 1 : 0, aim, 0, 0.0);
  if (!chief.valid || fabs(ideal) < 1e-10) return false;
  percent = (chief.y - ideal) / ideal * 100.0;
  return true;
}

// Codes 60 to 63.
NUVRIX_HD_CALL double catalogue_distortion(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                      int n, double const* primary, SystemConfig const* config,
                                      MeritContext const& ctx) {
  bool const tangent = op.type == 60 || op.type == 62;
  bool const single = op.type >= 62;
  if (single && fabs(op.hy) < kTiny) return 0.0;
  double const scale = distortion_scale(surfaces, n, primary, config);
  double const aim = merit_aim_radius(surfaces, n, primary, config, ctx);
  double percent = 0.0;
  if (single) {
    double const h = op.hy * ctx.max_field_y;
    return distortion_at(surfaces, n, primary, config, ctx, aim, scale, tangent, h, percent)
               ? percent
               : 0.0;
  }
  double worst = 0.0;
  for (int i = 1; i <= kDistortionScanPoints; ++i) {
    double const h = i * ctx.max_field_y / kDistortionScanPoints;
    if (!distortion_at(surfaces, n, primary, config, ctx, aim, scale, tangent, h, percent)) {
      continue;
    }
    if (fabs(percent) > fabs(worst)) worst = percent;
  }
  return worst;
}

// Code 64: the spread of the chief ray over the wavelengths, in
// micrometres, or in minutes of arc for an afocal image.
NUVRIX_HD_CALL double catalogue_lateral_colour(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                          int n, double const* index_table, int wave_count,
                                          SystemConfig const* config, MeritContext const& ctx) {
  if (fabs(op.hy) < kTiny || wave_count < 2) return 0.0;
  bool const afocal = config->afocal_image != 0;
  double const h = op.hy * ctx.max_field_y;
  bool any = false;
  double lo = 0.0, hi = 0.0;
  for (int w = 0; w < wave_count; ++w) {
    double const* row = index_table + static_cast<long>(w) * n;
    RayTraceResult const chief = trace_arbitrary_ray(
        surfaces, n, row, config, h, ctx.pupil_radius, 0.0, 0.0, 0.0, ctx.entrance_pupil_position,
        ctx.aim_flag ? 1 : 0, merit_aim_radius(surfaces, n, row, config, ctx), 0, 0.0);
    if (!chief.valid) continue;
    double const v = afocal ? atan2(chief.m, chief.n) * kArcminPerRadian : chief.y;
    if (!any || v < lo) lo = v;
    if (!any || v > hi) hi = v;
    any = true;
  }
  double const spread = any ? hi - lo : 0.0;
  return afocal ? spread : spread * 1000.0;
}

// A focus as a dioptric term: 1000 over it, 0 below 1e-9 in magnitude.
NUVRIX_HD double dioptric(double focus) { return fabs(focus) < 1e-9 ? 0.0 : 1000.0 / focus; }

// Codes 65 and 66.
NUVRIX_HD_CALL double catalogue_field_curves(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                        int n, double const* row, double const* primary,
                                        SystemConfig const* config, MeritContext const& ctx) {
  bool const afocal = config->afocal_image != 0;
  double T = 0.0, S = 0.0;
  sag_tan_focus(surfaces, n, row, config, ctx, op.hy * ctx.max_field_y, T, S);
  if (op.type == 66) return afocal ? dioptric(S) - dioptric(T) : S - T;
  double T0 = 0.0, S0 = 0.0;
  sag_tan_focus(surfaces, n, primary, config, ctx, 0.0, T0, S0);
  if (afocal) T = dioptric(T), S = dioptric(S), T0 = dioptric(T0), S0 = dioptric(S0);
  return (T + S) / 2.0 - (T0 + S0) / 2.0;
}

// The image point of (px, py) for the transverse codes: from the table
// (kind 0, last surface) when it holds the ray, else traced; an afocal
// image gives the direction angles in minutes of arc.  False when failed.
NUVRIX_HD bool transverse_point(SurfaceData const* surfaces, int n, double const* row, int w,
                                SystemConfig const* config, MeritContext const& ctx,
                                MeritOperandDesc const& op, double px, double py,
                                PreTracedRays const* table, double& x, double& y) {
  int const k = table != nullptr ? pretraced_find(*table, op.hy, w, px, py, 0, 0) : -1;
  if (k >= 0) {
    x = table->x[k];
    y = table->y[k];
    return table->valid_flags[k] != 0;
  }
  RayTraceResult const r = trace_field_ray(surfaces, n, row, config, ctx, op.hy * ctx.max_field_y,
                                           px, py, op.hx * ctx.max_field_x);
  if (!r.valid) return false;
  x = r.x;
  y = r.y;
  if (config->afocal_image != 0) {
    x = atan2(r.l, r.n) * kArcminPerRadian;
    y = atan2(r.m, r.n) * kArcminPerRadian;
  }
  return true;
}

// Direction and inverted normal of the operand's ray at surface k, with the
// direction in front of k when `front`: from the table (kind 1) when it
// holds the rays, else from one trace with its history.
NUVRIX_HD bool incidence_rays(SurfaceData const* surfaces, int n, double const* row, int w,
                              SystemConfig const* config, MeritContext const& ctx,
                              MeritOperandDesc const& op, int k, bool front,
                              PreTracedRays const* table, double dir[3], double normal[3]) {
  int const at = table != nullptr ? pretraced_find(*table, op.hy, w, op.px, op.py, 1, k) : -1;
  if (at >= 0) {
    if (table->valid_flags[at] == 0) return false;
    normal[0] = -table->normal_x[at], normal[1] = -table->normal_y[at];
    normal[2] = -table->normal_z[at];
    dir[0] = table->l[at], dir[1] = table->m[at], dir[2] = table->n[at];
    if (!front) return true;
    if (k == 1) {
      dir[0] = table->launch_l[at], dir[1] = table->launch_m[at], dir[2] = table->launch_n[at];
      return true;
    }
    int const before = pretraced_find(*table, op.hy, w, op.px, op.py, 1, k - 1);
    if (before >= 0) {
      if (table->valid_flags[before] == 0) return false;
      dir[0] = table->l[before], dir[1] = table->m[before], dir[2] = table->n[before];
      return true;
    }
  }
  // The state at each surface of one trace to k is the state that a trace
  // stopped there reaches; slot 0 holds the launch.
  RayState states[kMaxSurfaces];
  RayTraceResult const r = trace_arbitrary_ray_full(
      surfaces, n, row, config, op.hy * ctx.max_field_y, ctx.pupil_radius, op.px, op.py, 0.0,
      ctx.entrance_pupil_position, ctx.aim_flag ? 1 : 0,
      merit_aim_radius(surfaces, n, row, config, ctx), k, states, kMaxSurfaces,
      op.hx * ctx.max_field_x);
  if (!r.valid || r.states_written <= k) return false;
  if (at < 0) {
    normal[0] = -r.nx, normal[1] = -r.ny, normal[2] = -r.nz;
    dir[0] = r.l, dir[1] = r.m, dir[2] = r.n;
  }
  if (front) dir[0] = states[k - 1].l, dir[1] = states[k - 1].m, dir[2] = states[k - 1].n;
  return true;
}

// Code 74: (1 - cos) times the index step over 6 at `surface`, the cosine
// of the angle between the ray and the surface normal, the direction in
// front of the surface when the light enters the denser medium.
NUVRIX_HD_CALL double catalogue_incidence_load(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                          int n, double const* row, int w,
                                          SystemConfig const* config, MeritContext const& ctx,
                                          PreTracedRays const* table, bool& ray_failed) {
  int const k = op.surface;
  if (k <= 0 || k >= n) return 0.0;
  double const a = row[k - 1], b = row[k], d = fabs(a - b);
  if (d < kTiny) return 0.0;
  double dir[3] = {0.0, 0.0, 0.0}, normal[3] = {0.0, 0.0, 0.0};
  if (!incidence_rays(surfaces, n, row, w, config, ctx, op, k, b > a, table, dir, normal)) {
    ray_failed = true;
    return 0.0;
  }
  double const c = dot3(dir[0], dir[1], dir[2], normal[0], normal[1], normal[2]);
  return (1.0 - c) * d / 6.0;
}

// Codes without an evaluator: 8 to 12, 19 to 28, 52, 58, and the
// composites 29 to 36, which the driver forms itself.
NUVRIX_HD bool catalogue_has_evaluator(unsigned code) {
  if (code >= static_cast<unsigned>(kMeritOperandCodes)) return false;
  if (code >= 8 && code <= 12) return false;
  if (code >= 19 && code <= 36) return false;
  return code != 52 && code != 58;
}

}  // namespace detail

// The raw value of one operand.  False for a code without an evaluator;
// ray_failed when a ray the operand needs could not be traced (the value
// then has no meaning).
NUVRIX_HD_CALL bool evaluate_operand_value(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                      int n, double const* index_table, int wave_count,
                                      double const* wavelengths, SystemConfig const* config,
                                      MeritContext const& ctx, double& value, bool& ray_failed,
                                      PreTracedRays const* table) {
  using namespace detail;
  value = 0.0;
  ray_failed = false;
  unsigned const code = op.type;
  // Without an index row nothing can be traced or weighed.
  if (!catalogue_has_evaluator(code) || wave_count < 1) return false;
  int const w = merit_wave_index(op.wave, *config, wave_count);
  double const* row = index_table + static_cast<long>(w) * n;
  double const* primary =
      index_table + static_cast<long>(merit_primary_row(*config, wave_count)) * n;
  double const hy = op.hy * ctx.max_field_y, hx = op.hx * ctx.max_field_x;
  bool const aim_flag = ctx.aim_flag;
  PlainSurfaces const plain{surfaces, n};

  if (code <= 5) {
    RayTraceResult const r = trace_arbitrary_ray_full(
        surfaces, n, row, config, hy, ctx.pupil_radius, op.px, op.py, 0.0,
        ctx.entrance_pupil_position, aim_flag ? 1 : 0,
        merit_aim_radius(surfaces, n, row, config, ctx), op.surface, nullptr, 0, hx);
    double const fields[6] = {r.x, r.y, r.z, r.l, r.m, r.n};
    value = r.valid ? fields[code] : kMeritRayFailed;
    return true;
  }
  switch (code) {
    case 6:
    case 7:
      value = evaluate_angle_boundary(op, surfaces, n, index_table, wave_count, config, ctx);
      return true;
    case 13:
    case 14:
    case 15:
    case 16:
    case 17:
    case 18:
      value = paraxial_marginal_at(surfaces, n, row, ctx.pupil_radius, op.surface, code == 13);
      return true;
    case 48:
      if (op.surface_first >= 0 && op.surface_first < n) {
        value = 2.0 * surfaces[op.surface_first].semi_diameter;
      }
      return true;
    case 49: {
      RayTraceResult const r = trace_field_ray(surfaces, n, row, config, ctx, 0.0, 0.0, 1.0, 0.0);
      double const t = n > 0 ? surfaces[0].thickness : 0.0;
      if (!r.valid || is_infinite_distance(t)) return true;
      double const D = t + ctx.entrance_pupil_position, s = r.m / r.n;
      if (fabs(D) < kTiny || fabs(s) < kTiny) return true;
      value = (ctx.pupil_radius / D) * row_index(row, n, 0) / (s * row_index(row, n, n - 2));
      if (value != value) value = 0.0;
      return true;
    }
    case 50: value = catalogue_focal_length(surfaces, n, row); return true;
    case 51: value = catalogue_back_focus(surfaces, n, row); return true;
    case 53: value = ctx.exit_pupil_position; return true;
    case 54: value = ctx.entrance_pupil_position; return true;
    case 55: value = 2.0 * ctx.pupil_radius; return true;
    case 56: value = ctx.exit_pupil_diameter; return true;
    case 57: value = catalogue_total_track(plain, primary, config->stop_surface); return true;
    case 59: {
      int const samples = op.sample_count > 0 ? op.sample_count : kDefaultAzimuths;
      double const f0 =
          compute_effective_fnumber(surfaces, n, primary, config, ctx, 0.0, samples);
      double const f1 = compute_effective_fnumber(surfaces, n, primary, config, ctx,
                                                  op.hy * ctx.max_field_y, samples);
      value = (f0 <= 0.0 || f1 <= 0.0) ? 0.0 : (f0 * f0) / (f1 * f1);
      return true;
    }
    case 60:
    case 61:
    case 62:
    case 63: value = catalogue_distortion(op, surfaces, n, primary, config, ctx); return true;
    case 64:
      value = catalogue_lateral_colour(op, surfaces, n, index_table, wave_count, config, ctx);
      return true;
    case 65:
    case 66: value = catalogue_field_curves(op, surfaces, n, row, primary, config, ctx); return true;
    case 67:
    case 68:
    case 69:
      return evaluate_opd(op, surfaces, n, index_table, wave_count, wavelengths, config, ctx, value,
                          ray_failed, table);
    case 70:
    case 71:
    case 72:
    case 73: {
      double cx = 0.0, cy = 0.0, x = 0.0, y = 0.0;
      bool ok = true;
      if (code >= 72) ok = transverse_point(surfaces, n, row, w, config, ctx, op, 0.0, 0.0, table, cx, cy);
      ok = ok && transverse_point(surfaces, n, row, w, config, ctx, op, op.px, op.py, table, x, y);
      if (!ok) {
        ray_failed = true;
        return true;
      }
      double const values[4] = {x, y, x - cx, y - cy};
      value = values[code - 70];
      return true;
    }
    case 74:
      value = catalogue_incidence_load(op, surfaces, n, row, w, config, ctx, table, ray_failed);
      if (ray_failed) value = 0.0;
      return true;
    case 75:
    case 76:
    case 77:
    case 78:
    case 87: value = catalogue_matrix_operand(op, plain, row); return true;
    case 79:
      value = catalogue_surface_parameter(plain, op.surface_first, op.surface_last);
      return true;
    case 99:
    case 100:
      value = evaluate_angle_boundary_total(op, surfaces, n, index_table, wave_count, config, ctx);
      return true;
    case 101:
    case 102:
    case 103: value = catalogue_glass_bound(op, plain, config->stop_surface); return true;
    default: break;
  }
  if (code >= 80 && code <= 86) {
    value = catalogue_seidel(op, surfaces, n, index_table, wave_count, wavelengths, config, ctx);
    return true;
  }
  if (code >= 37 && code <= 47) {
    value = evaluate_boundary(op, surfaces, n, config);
    return true;
  }
  value = evaluate_boundary_total(op, surfaces, n, config);  // 88 to 98
  return true;
}

}  // namespace nuvrix
