// The paraxial (first-order) trace: a height y and a slope u carried through
// the surfaces by the y-nu method, and the focal quantities read off it.
//
// The family members differ on purpose: the exported focal length is the
// plain form (no index scaling, no mirror doubling, no matrices, 1e10
// thicknesses applied), the EFL uses the reduced form, and the templated
// trace skips only non-finite thicknesses.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

// State at the ends of a paraxial trace.
struct ParaxialEndState {
  int row_count;
  ParaxialRayState first;     // after row 0
  ParaxialRayState last;      // after the final row
  ParaxialRayState previous;  // after the row before the final one
  ParaxialRayState target;    // after the row named by target_row
  bool target_found;
};

namespace detail {

// Power of an ideal thin lens in the paraxial step: 1/f unless f is
// infinite or zero (a NaN focal length passes and gives a NaN power).
NUVRIX_HD double thin_lens_power(double f) { return (is_inf(f) || f == 0.0) ? 0.0 : 1.0 / f; }

// Power of an ideal thin lens where only a finite, nonzero f has power.
NUVRIX_HD double thin_lens_power_finite(double f) {
  return (is_finite(f) && f != 0.0) ? 1.0 / f : 0.0;
}

// One row of the paraxial step: transfer by the thickness of surface i,
// then the power of surface i + 1.  Returns the row.
NUVRIX_HD ParaxialRayState paraxial_step(SurfaceData const* surfaces, double const* indices,
                                         int i, double& y, double& u) {
  double const t = surfaces[i].thickness;
  if (!is_infinite_distance(t)) y = fma(t, u, y);
  SurfaceData const& s = surfaces[i + 1];
  double const n_a = indices[i], n_b = indices[i + 1];
  ParaxialRayState row;
  if (s.type == NUVRIX_SURFACE_MATRIX) {
    double const A = s.coefficients[0], B = s.coefficients[1];
    double const C = s.coefficients[2], D = s.coefficients[3];
    double const yp = fma(A, y, B * u);
    double const up = fma(C, y, D * u);
    y = yp;
    u = up;
    row.nu = up * n_b;
  } else {
    double p, d;
    if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
      p = thin_lens_power(s.focal_length);
      d = n_b;
    } else if (s.is_mirror != 0) {
      p = (-2.0 * n_a) * s.curvature;
      d = -n_a;
    } else {
      p = (n_b - n_a) * s.curvature;
      d = n_b;
    }
    row.nu = fma(n_a, u, -(p * y));
    u = row.nu / d;
  }
  row.y = y;
  row.u = u;
  return row;
}

}  // namespace detail

// Traces (y0, u0) through all surfaces into rows[0 .. n-2]; returns the
// number of rows, 0 when n < 2 (nothing is written).
NUVRIX_HD int trace_paraxial_ray(SurfaceData const* surfaces, int n, double const* indices,
                                 double y0, double u0, ParaxialRayState* rows) {
  if (n < 2) return 0;
  double y = y0, u = u0;
  for (int i = 0; i <= n - 2; ++i) rows[i] = detail::paraxial_step(surfaces, indices, i, y, u);
  return n - 1;
}

// Traces (y0, u0) and keeps the first, last, previous and target rows.
NUVRIX_HD ParaxialEndState trace_paraxial_end(SurfaceData const* surfaces, int n,
                                              double const* indices, double y0, double u0,
                                              int target_row) {
  ParaxialEndState end = {};
  if (n <= 1) return end;
  end.row_count = n - 1;
  double y = y0, u = u0;
  for (int i = 0; i <= n - 2; ++i) {
    ParaxialRayState const row = detail::paraxial_step(surfaces, indices, i, y, u);
    if (i == 0) end.first = row;
    if (i == n - 3) end.previous = row;
    if (i == target_row) {
      end.target = row;
      end.target_found = true;
    }
    end.last = row;
  }
  return end;
}

// Effective focal length -n0 / (u' n') of a unit ray parallel to the axis;
// 1e15 for an afocal system, 0 for a system too short to have one.
NUVRIX_HD double calculate_efl_abcd(SurfaceData const* surfaces, int n, double const* indices) {
  if (n <= 1) return 0.0;
  ParaxialEndState const end = trace_paraxial_end(surfaces, n, indices, 1.0, 0.0, -1);
  double const u = end.last.u;
  if (!(fabs(u) > kTiny)) return kNoPowerFocal;
  return -indices[0] / (u * indices[n - 2]);
}

// The EFL as the exported interface gives it: the value of calculate_efl_abcd.
NUVRIX_HD double calculate_efl(SurfaceData const* surfaces, int n, double const* indices) {
  if (n < 2) return 0.0;
  return calculate_efl_abcd(surfaces, n, indices);
}

// Back focal distance -y / u just behind the last surface in front of the
// image; 0 when n <= 2, 1e15 when that slope vanishes.
NUVRIX_HD double calculate_bfl(SurfaceData const* surfaces, int n, double const* indices) {
  if (n <= 2) return 0.0;
  ParaxialEndState const end = trace_paraxial_end(surfaces, n, indices, 1.0, 0.0, -1);
  double const u = end.previous.u;
  if (!(fabs(u) > kTiny)) return kNoPowerFocal;
  return -end.previous.y / u;
}

// The plain focal length: thin lenses keep their power, every other surface
// refracts by its own curvature (mirror flags and matrix elements ignored),
// only non-finite thicknesses are skipped, and -y/u at the final surface is
// the distance from it to the axis crossing of a ray that came in parallel
// at unit height.
NUVRIX_HD double focal_length(SurfaceData const* surfaces, int n, double const* indices) {
  if (n <= 1) return kNoPowerFocal;
  double y = 1.0, u = 0.0;
  for (int i = 0; i <= n - 2; ++i) {
    double const t = surfaces[i].thickness;
    if (detail::is_finite(t)) y = fma(t, u, y);
    SurfaceData const& s = surfaces[i + 1];
    double const n_a = indices[i], n_b = indices[i + 1];
    double const p = s.type == NUVRIX_SURFACE_PARAXIAL_LENS ? detail::thin_lens_power(s.focal_length)
                                                            : (n_b - n_a) * s.curvature;
    u = fma(n_a, u, -(p * y)) / n_b;
  }
  if (kTiny > fabs(u)) return kNoPowerFocal;
  return -y / u;
}

// ---------------------------------------------------------------------------
// Generic forms over the scalar T of the geometry and U of the indices.

namespace detail {

// The power step of the paraxial trace at surface k (indices k - 1 in front,
// k behind): matrix, thin lens, mirror or refraction, the matrix elements
// and focal lengths from the override arrays when they are given.
template <typename T, typename U>
NUVRIX_HD void paraxial_power_step_t(T const* curvatures, U const* indices,
                                     SurfaceData const* surfaces, int k, T const* focal_lengths,
                                     U const (*matrices)[8], T& y, T& u) {
  SurfaceData const& s = surfaces[k];
  U const& n_a = indices[k - 1];
  U const& n_b = indices[k];
  if (s.type == NUVRIX_SURFACE_MATRIX) {
    T A, B, C, D;
    if (matrices != nullptr) {
      A = T(matrices[k][0]);
      B = T(matrices[k][1]);
      C = T(matrices[k][2]);
      D = T(matrices[k][3]);
    } else {
      A = T(s.coefficients[0]);
      B = T(s.coefficients[1]);
      C = T(s.coefficients[2]);
      D = T(s.coefficients[3]);
    }
    T const yp = fma(A, y, B * u);
    T const up = fma(C, y, D * u);
    y = yp;
    u = up;
    return;
  }
  T p;
  T d;
  if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
    T const f = focal_lengths != nullptr ? focal_lengths[k] : T(s.focal_length);
    double const fv = val(f);
    p = (is_inf(fv) || fv == 0.0) ? T(0.0) : T(1.0 / f);
    d = T(n_b);
  } else if (s.is_mirror != 0) {
    p = (-2.0 * n_a) * curvatures[k];
    d = T(-n_a);
  } else {
    p = (n_b - n_a) * curvatures[k];
    d = T(n_b);
  }
  u = fma(T(n_a), u, -(p * y)) / d;
}

}  // namespace detail

// The paraxial trace with curvatures and thicknesses from arrays, optional
// focal lengths (by surface) and matrices (row k: A, B, C, D of surface k).
// Only a non-finite thickness is skipped.  Returns n - 1, or 0 when n < 2.
template <typename T, typename U>
NUVRIX_HD int trace_paraxial_ray_t(T const* curvatures, T const* thicknesses, U const* indices,
                                   SurfaceData const* surfaces, int n, T y0, T u0, T* y_out,
                                   T* u_out, T const* focal_lengths, U const (*matrices)[8]) {
  if (n < 2) return 0;
  T y = y0, u = u0;
  for (int i = 0; i <= n - 2; ++i) {
    if (detail::is_finite(detail::val(thicknesses[i]))) y = fma(thicknesses[i], u, y);
    detail::paraxial_power_step_t<T, U>(curvatures, indices, surfaces, i + 1, focal_lengths,
                                        matrices, y, u);
    y_out[i] = y;
    u_out[i] = u;
  }
  return n - 1;
}

// EFL of the generic trace from (1, 0): 0 when n <= 1, 1e15 when afocal.
template <typename T, typename U>
NUVRIX_HD T calculate_efl_abcd_t(T const* curvatures, T const* thicknesses, U const* indices,
                                 SurfaceData const* surfaces, int n, T const* focal_lengths,
                                 U const (*matrices)[8]) {
  if (n <= 1) return T(0.0);
  T y[kMaxSurfaces], u[kMaxSurfaces];
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(1.0), T(0.0), y, u,
                             focal_lengths, matrices);
  T const& u_last = u[n - 2];
  if (!(fabs(detail::val(u_last)) > kTiny)) return T(kNoPowerFocal);
  return -indices[0] / (u_last * indices[n - 2]);
}

// BFL of the generic trace from (1, 0): 0 when n <= 2, 1e15 when afocal.
template <typename T, typename U>
NUVRIX_HD T calculate_bfl_t(T const* curvatures, T const* thicknesses, U const* indices,
                            SurfaceData const* surfaces, int n, T const* focal_lengths,
                            U const (*matrices)[8]) {
  if (n <= 2) return T(0.0);
  T y[kMaxSurfaces], u[kMaxSurfaces];
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(1.0), T(0.0), y, u,
                             focal_lengths, matrices);
  T const& u_prev = u[n - 3];
  if (!(fabs(detail::val(u_prev)) > kTiny)) return T(kNoPowerFocal);
  return -y[n - 3] / u_prev;
}

}  // namespace nuvrix
