// Variables of an optimisation: the map between the optimiser's unbounded
// coordinate and a bounded physical parameter, the reads and writes of a
// parameter in a working copy of the system, pickups that tie one surface
// to another, and the finite-difference step of each variable.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

constexpr double kBoundMarginSpan = 1e-6;   // two-sided inverse: margin of the span
constexpr double kBoundMarginOneSide = 1e-10;  // one-sided inverse: margin from the bound
constexpr double kDefaultStepRelative = 1e-6;
constexpr double kDefaultStepFloor = 1e-8;
constexpr double kAsphereStep = 1e-7;      // coefficient step at unit height
constexpr double kStepFloor = 1e-30;
constexpr double kApertureStepShare = 0.05;  // kinds 7 and 8: 5 % of the value ...
constexpr double kSemiDiameterMinStep = 0.2;  // ... at least 0.2 mm of semi-diameter
constexpr double kPercentMinStep = 2.0;       // ... or 2 percent
constexpr double kTinyJacobian = 1e-12;
constexpr double kFallbackStep = 1e-6;

namespace detail {

NUVRIX_HD bool two_sided(int has_lower, int has_upper) { return has_lower != 0 && has_upper != 0; }

// The logistic function 1 / (1 + exp(-x)).
NUVRIX_HD double logistic(double x) { return 1.0 / (1.0 + exp(-x)); }

}  // namespace detail

// Physical value of the unbounded x: a logistic between two bounds, an
// exponential above a lower or below an upper bound, x itself without.
NUVRIX_HD double transform_to_physical(double x, int has_lower, double lower, int has_upper,
                                       double upper) {
  if (detail::two_sided(has_lower, has_upper)) {
    if (!(lower < upper)) return lower;
    return fma(upper - lower, detail::logistic(x), lower);
  }
  if (has_lower != 0) return exp(x) + lower;
  if (has_upper != 0) return upper - exp(-x);
  return x;
}

// d(physical) / dx at x.
NUVRIX_HD double transform_jacobian(double x, int has_lower, double lower, int has_upper,
                                    double upper) {
  if (detail::two_sided(has_lower, has_upper)) {
    if (!(lower < upper)) return 1.0;
    double const g = detail::logistic(x);
    return (upper - lower) * g * (1.0 - g);
  }
  if (has_lower != 0) return exp(x);
  if (has_upper != 0) return exp(-x);
  return 1.0;
}

// The unbounded x of a physical value; a value on or beyond a bound is
// first moved inside by a margin, so that x stays finite.
NUVRIX_HD double transform_to_unbounded(double physical, int has_lower, double lower,
                                        int has_upper, double upper) {
  double p = physical;
  if (detail::two_sided(has_lower, has_upper)) {
    if (!(lower < upper)) return p;
    double const span = upper - lower;
    double const top = upper - kBoundMarginSpan * span, bottom = lower + kBoundMarginSpan * span;
    if (p > top) p = top;
    if (p < bottom) p = bottom;
    double const q = (p - lower) / span;
    return log(q / (1.0 - q));
  }
  if (has_lower != 0) {
    double const floor = lower + kBoundMarginOneSide;
    return log((p > floor ? p : floor) - lower);
  }
  if (has_upper != 0) {
    double const ceiling = upper - kBoundMarginOneSide;
    return -log(upper - (p < ceiling ? p : ceiling));
  }
  return p;
}

namespace detail {

// The parameter of surface s that a variable of this kind reads and
// writes, or null (kinds 5, 6, an out-of-range coefficient, unknown kinds).
NUVRIX_HD double* variable_slot(MeritVariableDesc const& v, SurfaceData& s) {
  switch (v.kind) {
    case 0: return &s.curvature;
    case 1: return &s.thickness;
    case 2: return &s.conic;
    case 3:
    case 13: return (v.coefficient >= 0 && v.coefficient < 8) ? &s.coefficients[v.coefficient] : nullptr;
    case 7: return &s.semi_diameter;
    case 8: return &s.aperture_percent;
    case 9: return &s.model_nd;
    case 10: return &s.model_vd;
    case 11: return &s.model_dpgf;
    case 12: return &s.focal_length;
    default: return nullptr;
  }
}

// The parameter of a pickup kind, or null for the kinds that do nothing.
NUVRIX_HD double* pickup_slot(unsigned kind, SurfaceData& s) {
  switch (kind) {
    case 0: return &s.curvature;
    case 1: return &s.thickness;
    case 3: return &s.semi_diameter;
    case 4: return &s.conic;
    case 6: return &s.model_nd;
    case 7: return &s.model_vd;
    case 8: return &s.model_dpgf;
    default: return nullptr;
  }
}

}  // namespace detail

// The present physical value of a variable; 0 for an invalid index, and 0
// for the model-glass kinds 9 to 11, which can be written but not read.
NUVRIX_HD double read_variable_value(MeritVariableDesc const& v, SurfaceData const* surfaces, int n,
                                     FieldData const* fields, int field_count) {
  if (v.kind == 4) return (v.field >= 0 && v.field < field_count) ? fields[v.field].field_y : 0.0;
  if (v.kind == 5) return 0.0;
  if (v.surface < 0 || v.surface >= n) return 0.0;
  if (v.kind >= 9 && v.kind <= 11) return 0.0;
  SurfaceData copy = surfaces[v.surface];
  double const* slot = detail::variable_slot(v, copy);
  return slot != nullptr ? *slot : 0.0;
}

// Writes a physical value into the working copy; true when a parameter
// was written.
NUVRIX_HD bool apply_variable_value(MeritVariableDesc const& v, double physical,
                                    SurfaceData* surfaces, int n, FieldData* fields,
                                    int field_count) {
  if (v.kind == 4) {
    if (v.field < 0 || v.field >= field_count) return false;
    fields[v.field].field_y = physical;
    return true;
  }
  if (v.kind == 5) return false;
  if (v.surface < 0 || v.surface >= n) return false;
  double* slot = detail::variable_slot(v, surfaces[v.surface]);
  if (slot == nullptr) return false;
  *slot = physical;
  return true;
}

// Every pickup once, in order: target = factor * source + offset by one
// fused multiply-add.  A pickup with an invalid end, or whose source is its
// target, is skipped; a chain resolves only when listed in order.
NUVRIX_HD void apply_pickups(SurfaceData* surfaces, int n, MeritPickupDesc const* pickups,
                             int count) {
  for (int k = 0; k < count; ++k) {
    MeritPickupDesc const& p = pickups[k];
    int const t = p.target_surface, s = p.source_surface;
    if (t < 0 || t >= n || s < 0 || s >= n || t == s) continue;
    double* target = detail::pickup_slot(p.kind, surfaces[t]);
    double* source = detail::pickup_slot(p.kind, surfaces[s]);
    if (target == nullptr) continue;
    *target = fma(p.factor, *source, p.offset);
  }
}

// The finite-difference step in the unbounded x: aspheric coefficients
// scaled to the surface's height, semi-diameters and percentages as a
// share of their physical value, everything else relative to |x| with a
// floor.
NUVRIX_HD double fd_step(MeritVariableDesc const& v, double x, SurfaceData const* surfaces,
                         int n) {
  double const a = fabs(x);
  double const by_default = kDefaultStepRelative * a > kDefaultStepFloor
                                ? kDefaultStepRelative * a
                                : kDefaultStepFloor;
  if (v.kind == 3 && !detail::two_sided(v.has_lower, v.has_upper)) {
    if (v.surface < 0 || v.surface >= n) return kAsphereStep;
    double const r = surfaces[v.surface].semi_diameter;
    if (r <= 1.0) return kAsphereStep;
    double const step = kAsphereStep / pow(r, 2.0 * v.coefficient + 2.0);
    return step <= 0.0 ? kStepFloor : step;
  }
  if (v.kind == 7 || v.kind == 8) {
    double const p = transform_to_physical(x, v.has_lower, v.lower, v.has_upper, v.upper);
    double const m = v.kind == 7 ? kSemiDiameterMinStep : kPercentMinStep;
    double s = kApertureStepShare * fabs(p);
    if (!(s > m)) s = m;
    double const J = fabs(transform_jacobian(x, v.has_lower, v.lower, v.has_upper, v.upper));
    double const step = J > kTinyJacobian ? s / J : s;
    return step > 0.0 ? step : kFallbackStep;
  }
  return by_default;
}

}  // namespace nuvrix
