// Boundary operands: a quantity of the surfaces watched over a range, so
// that a design stays manufacturable.  The extreme form (codes 37 to 47)
// returns the extreme of the range that stands furthest outside its bounds,
// and the driver forms the residual against them; the total form (codes 88
// to 98) returns the root of the sum of all squared violations, which is
// the residual itself.  The angle forms (codes 6, 7, 99, 100) watch the
// angle of one real ray with the surface normals.
#pragma once

#include "api/types.hpp"
#include "merit/dual.hpp"
#include "merit/merit_context.hpp"

namespace nuvrix {
namespace detail {

enum BoundaryQuantity { kBoundCurvature, kBoundThickness, kBoundEdge, kBoundSemiDiameter,
                        kBoundAspect, kBoundNone };
enum BoundaryMedium { kBoundAll, kBoundAir, kBoundGlass };

struct BoundaryFamily {
  BoundaryQuantity quantity;
  BoundaryMedium medium;
};

// Codes 37 to 47: curvature, thickness, edge (each all, air, glass), then
// semi-diameter and aspect.
NUVRIX_HD BoundaryFamily extreme_boundary_family(unsigned code) {
  if (code >= 37 && code <= 45) {
    BoundaryQuantity const q[3] = {kBoundCurvature, kBoundThickness, kBoundEdge};
    return {q[(code - 37) / 3], static_cast<BoundaryMedium>((code - 37) % 3)};
  }
  if (code == 46) return {kBoundSemiDiameter, kBoundAll};
  if (code == 47) return {kBoundAspect, kBoundGlass};
  return {kBoundNone, kBoundAll};
}

// Codes 88 to 98: thickness, edge, curvature (each all, air, glass), then
// semi-diameter and aspect; another order than the extreme form.
NUVRIX_HD BoundaryFamily total_boundary_family(unsigned code) {
  if (code >= 88 && code <= 96) {
    BoundaryQuantity const q[3] = {kBoundThickness, kBoundEdge, kBoundCurvature};
    return {q[(code - 88) / 3], static_cast<BoundaryMedium>((code - 88) % 3)};
  }
  if (code == 97) return {kBoundSemiDiameter, kBoundAll};
  if (code == 98) return {kBoundAspect, kBoundGlass};
  return {kBoundNone, kBoundAll};
}

// The surfaces as the boundary and catalogue steps read them.  The plain
// view takes every parameter from the records; the view of the analytic
// Jacobian takes those a variable can reach from arrays of dual numbers
// and the rest (types, flags) from the same records.  Both give `n` and
// `Scalar`, the number type of the parameters.
struct PlainSurfaces {
  using Scalar = double;
  SurfaceData const* records;
  int n;
  NUVRIX_HD SurfaceData const& record(int k) const { return records[k]; }
  NUVRIX_HD double curvature(int k) const { return records[k].curvature; }
  NUVRIX_HD double thickness(int k) const { return records[k].thickness; }
  NUVRIX_HD double conic(int k) const { return records[k].conic; }
  NUVRIX_HD double coefficient(int k, int j) const { return records[k].coefficients[j]; }
  NUVRIX_HD double focal_length(int k) const { return records[k].focal_length; }
  NUVRIX_HD double semi_diameter(int k) const { return records[k].semi_diameter; }
  NUVRIX_HD double model_nd(int k) const { return records[k].model_nd; }
  NUVRIX_HD double model_vd(int k) const { return records[k].model_vd; }
  NUVRIX_HD double model_dpgf(int k) const { return records[k].model_dpgf; }
};

// One polynomial term a p of the sag, p = r2^(j + 1).  A zero coefficient
// adds nothing to the value; over dual numbers its derivative, p times the
// slots of a, still counts, so that a variable on a coefficient that stands
// at zero moves the sag as it does once it has left zero.
NUVRIX_HD void add_sag_term(double& sag, double a, double p) {
  if (a != 0.0) sag = fma(a, p, sag);
}
template <int N>
NUVRIX_HD void add_sag_term(Dual<N>& sag, Dual<N> const& a, Dual<N> const& p) {
  if (a.value != 0.0) {
    sag = fma(a, p, sag);
    return;
  }
  for (int k = 0; k < N; ++k) sag.d[k] = fma(a.d[k], p.value, sag.d[k]);
}

// Sag of surface k at r2 = h^2: the base conic (a negative radicand counts
// as 0) and the polynomial terms coefficients[j] r2^(j + 1), by fused
// multiply-adds, for every surface type alike.
template <typename V>
NUVRIX_HD typename V::Scalar boundary_sag(V const& v, int k, typename V::Scalar const& r2) {
  using T = typename V::Scalar;
  auto const& c = v.curvature(k);
  T sag = T(0.0);
  if (fabs(val(c)) > kTiny) {
    T radicand = 1.0 - (1.0 + v.conic(k)) * c * c * r2;
    if (radicand < 0.0) radicand = T(0.0);
    sag = c * r2 / (1.0 + sqrt(radicand));
  }
  T power = r2;
  for (int j = 0; j < 8; ++j) {
    add_sag_term(sag, v.coefficient(k, j), power);
    power *= r2;
  }
  return sag;
}

// Thickness at the edge between surfaces k and k + 1, at the larger of
// their two semi-diameters.
template <typename V>
NUVRIX_HD typename V::Scalar boundary_edge_thickness(V const& v, int k) {
  using T = typename V::Scalar;
  auto const& a = v.semi_diameter(k);
  auto const& b = v.semi_diameter(k + 1);
  T const h = a > b ? a : b;
  T const r2 = h * h;
  return v.thickness(k) - boundary_sag(v, k, r2) + boundary_sag(v, k + 1, r2);
}

// The quantity of surface k, or false when the surface is not taken.
template <typename V>
NUVRIX_HD bool boundary_quantity(BoundaryFamily f, V const& v, int k, typename V::Scalar& q) {
  SurfaceData const& s = v.record(k);
  if (f.medium == kBoundAir && s.is_glass != 0) return false;
  if (f.medium == kBoundGlass && s.is_glass == 0) return false;
  auto const& t = v.thickness(k);
  switch (f.quantity) {
    case kBoundCurvature: q = v.curvature(k); return true;
    case kBoundThickness:
      if (is_inf(val(t))) return false;
      q = t;
      return true;
    case kBoundEdge:
      if (!is_finite(val(t)) || k + 1 >= v.n) return false;
      q = boundary_edge_thickness(v, k);
      return true;
    case kBoundSemiDiameter: q = v.semi_diameter(k); return true;
    case kBoundAspect:
      if (!is_finite(val(t)) || !(fabs(val(t)) >= 1e-12)) return false;
      q = 2.0 * v.semi_diameter(k) / fabs(t);
      return true;
    default: return false;
  }
}

// The range of a boundary operand, surfaces below 0 left out (they are
// absent), and its end: the last surface of the range that exists, one less
// for the edge family, whose surface k needs k + 1.
NUVRIX_HD void boundary_scan_range(MeritOperandDesc const& op, int n, SystemConfig const* config,
                                   BoundaryQuantity quantity, int& first, int& end) {
  int a = 0, b = 0;
  resolve_surface_range(op.surface_first, op.surface_last, n, config->stop_surface, a, b);
  first = a < 0 ? 0 : a;
  int const limit = quantity == kBoundEdge ? n - 2 : n - 1;
  end = b < limit ? b : limit;
}

// Squared violation of the bounds by q.
template <typename T>
NUVRIX_HD T bound_violation_sq(MeritOperandDesc const& op, T const& q) {
  T sum = T(0.0);
  if (op.has_lower != 0 && op.lower > q) sum += (op.lower - q) * (op.lower - q);
  if (op.has_upper != 0 && q > op.upper) sum += (q - op.upper) * (q - op.upper);
  return sum;
}

// The side of a range that breaks the bounds more: the minimum when only
// the lower bound is broken, the maximum when the upper bound is broken by
// strictly more than the lower one; `neither` otherwise.  Chosen by value.
template <typename T>
NUVRIX_HD T select_broken_side(MeritOperandDesc const& op, T const& mn, T const& mx,
                               T const& neither) {
  bool const low = op.lower > mn, high = mx > op.upper;
  if (low && high) return (mx - op.upper <= op.lower - mn) ? mn : mx;
  if (low) return mn;
  if (high) return mx;
  return neither;
}

// Codes 37 to 47 over either view: the extreme of the quantity over the
// range that the bounds select; without bounds the midpoint of the
// extremes.  0 for a code outside the family or when no surface is taken.
template <typename V>
NUVRIX_HD typename V::Scalar boundary_extreme(MeritOperandDesc const& op, V const& v,
                                              SystemConfig const* config) {
  using T = typename V::Scalar;
  BoundaryFamily const f = extreme_boundary_family(op.type);
  if (f.quantity == kBoundNone) return T(0.0);
  int first = 0, end = 0;
  boundary_scan_range(op, v.n, config, f.quantity, first, end);
  bool any = false;
  T mn = T(0.0), mx = T(0.0);
  for (int k = first; k <= end; ++k) {
    T q = T(0.0);
    if (!boundary_quantity(f, v, k, q)) continue;
    if (!any || q < mn) mn = q;
    if (!any || q > mx) mx = q;
    any = true;
  }
  if (!any) return T(0.0);
  bool const lower = op.has_lower != 0, upper = op.has_upper != 0;
  if (!lower && !upper) return (mn + mx) / 2.0;
  if (!lower) return mx;
  if (!upper) return mn;
  return select_broken_side(op, mn, mx, mn);
}

// Codes 88 to 98 over either view: the root of the sum of the squared
// violations of every surface taken; 0 when nothing is violated.
template <typename V>
NUVRIX_HD typename V::Scalar boundary_total(MeritOperandDesc const& op, V const& v,
                                            SystemConfig const* config) {
  using T = typename V::Scalar;
  BoundaryFamily const f = total_boundary_family(op.type);
  if (f.quantity == kBoundNone) return T(0.0);
  int first = 0, end = 0;
  boundary_scan_range(op, v.n, config, f.quantity, first, end);
  T sum = T(0.0);
  for (int k = first; k <= end; ++k) {
    T q = T(0.0);
    if (boundary_quantity(f, v, k, q)) sum += bound_violation_sq(op, q);
  }
  return sqrt(sum);
}

constexpr double kDegPerRad = 57.29577951308232;
constexpr double kAngleMinStart = 90.0;  // degrees: the running minimum starts here

// Extremes of the angle of one ray with the normals over a range, for the
// incidence angle (code 6: the direction in front of the surface) or the
// exit angle (code 7: behind it), and, for the total form, the sum of the
// squared violations.  The ray is traced once to the image with its
// history: the state at each surface of that trace is the state that a
// trace stopped there reaches.  False when the ray failed.
struct AngleScan {
  double mn, mx, violations;
};

NUVRIX_HD bool angle_scan(MeritOperandDesc const& op, bool incidence, SurfaceData const* surfaces,
                          int n, double const* index_table, int wave_count,
                          SystemConfig const* config, MeritContext const& ctx, AngleScan& scan) {
  scan = AngleScan{kAngleMinStart, 0.0, 0.0};
  int first = 0, last = 0;
  resolve_surface_range(op.surface_first, op.surface_last, n, config->stop_surface, first, last);
  if (first < 1) first = 1;
  if (last < first) last = first;
  int const w = merit_wave_index(op.wave, *config, wave_count);
  double const* row = index_table + static_cast<long>(w) * n;
  RayState states[kMaxSurfaces];
  RayTraceResult const ray =
      merit_ray(surfaces, n, row, config, ctx, merit_aim_radius(surfaces, n, row, config, ctx),
                op.hy * ctx.max_field_y, 0.0, op.px, op.py, 0.0, states, kMaxSurfaces);
  if (!ray.valid) return false;
  for (int k = first; k <= last && k < n && k < ray.states_written; ++k) {
    // The direction in front of surface k is the one behind k - 1; in front
    // of surface 1 it is the launch direction.
    RayState const& at = states[k];
    RayState const& dir = incidence ? states[k - 1] : at;
    double const c = fabs(dot3(dir.l, dir.m, dir.n, at.nx, at.ny, at.nz));
    double const angle = acos(c < 1.0 ? c : 1.0) * kDegPerRad;
    if (angle > scan.mx) scan.mx = angle;
    if (angle < scan.mn) scan.mn = angle;
    scan.violations += bound_violation_sq(op, angle);
  }
  return true;
}

}  // namespace detail

// Codes 6 and 7: the extreme angle of incidence or of exit of the
// operand's ray over the range that the bounds select; without a lower
// bound the maximum.  1e10 when the ray fails.
NUVRIX_HD_CALL double evaluate_angle_boundary(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                         int n, double const* index_table, int wave_count,
                                         SystemConfig const* config, MeritContext const& ctx) {
  detail::AngleScan scan;
  if (!detail::angle_scan(op, op.type == 6, surfaces, n, index_table, wave_count, config, ctx,
                          scan)) {
    return kMeritRayFailed;
  }
  if (op.has_lower == 0) return scan.mx;
  if (op.has_upper == 0) return scan.mn;
  return detail::select_broken_side(op, scan.mn, scan.mx, scan.mx);
}

// Codes 99 and 100: the root of the summed squared violations of the
// incidence (99) or exit (100) angle over the range.
NUVRIX_HD_CALL double evaluate_angle_boundary_total(MeritOperandDesc const& op,
                                               SurfaceData const* surfaces, int n,
                                               double const* index_table, int wave_count,
                                               SystemConfig const* config,
                                               MeritContext const& ctx) {
  detail::AngleScan scan;
  if (!detail::angle_scan(op, op.type == 99, surfaces, n, index_table, wave_count, config, ctx,
                          scan)) {
    return kMeritRayFailed;
  }
  return sqrt(scan.violations);
}

// Codes 37 to 47: the extreme of the quantity over the range that the
// bounds select; without bounds the midpoint of the extremes.  0 for a code
// outside the family or when no surface is taken.
NUVRIX_HD_CALL double evaluate_boundary(MeritOperandDesc const& op, SurfaceData const* surfaces, int n,
                                   SystemConfig const* config) {
  return detail::boundary_extreme(op, detail::PlainSurfaces{surfaces, n}, config);
}

// Codes 88 to 98: the root of the sum of the squared violations of every
// surface taken; 0 when nothing is violated.
NUVRIX_HD_CALL double evaluate_boundary_total(MeritOperandDesc const& op, SurfaceData const* surfaces,
                                         int n, SystemConfig const* config) {
  return detail::boundary_total(op, detail::PlainSurfaces{surfaces, n}, config);
}

}  // namespace nuvrix
