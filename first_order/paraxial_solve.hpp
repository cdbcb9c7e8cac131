// The paraxial solve: focal length, back focus, pupils and length of a
// system in one call, with the rows of the paraxial marginal and chief rays;
// and the pupil positions that aiming and the analyses use on their own.
//
// Both pupil searches rest on linearity: a paraxial ray is an affine
// function of its launch height, so two traces give the height that passes
// through the centre of the stop.
#pragma once

#include "api/types.hpp"
#include "first_order/paraxial.hpp"

namespace nuvrix {

constexpr double kTelecentricPupil = 1e10;       // entrance pupil of a telecentric object space
constexpr double kNaSineClamp = 0.999999;        // numerical aperture held below the index
constexpr double kNaClampRootRadicand = 1.999999000079633e-6;
constexpr double kPupilTrialSlope = 0.1;         // arbitrary; cancels in the pupil quotients

namespace detail {

// Geometry read straight from the surface records.
struct RecordGeometry {
  SurfaceData const* s;
  NUVRIX_HD double curvature(int k) const { return s[k].curvature; }
  NUVRIX_HD double thickness(int k) const { return s[k].thickness; }
  NUVRIX_HD double focal_length(int k) const { return s[k].focal_length; }
};

// Geometry from arrays of a generic scalar, the variables of a derivative.
template <typename T>
struct ArrayGeometry {
  T const* curvatures;
  T const* thicknesses;
  SurfaceData const* s;
  NUVRIX_HD T curvature(int k) const { return curvatures[k]; }
  NUVRIX_HD T thickness(int k) const { return thicknesses[k]; }
  NUVRIX_HD T focal_length(int k) const { return T(s[k].focal_length); }
};

// Index of the medium in front of surface k (forward sense), 1.0 beyond the
// array: an absent surface stands in air.
template <typename U>
NUVRIX_HD U entrance_index(U const* indices, int n, int k) {
  return k - 1 < n ? indices[k - 1] : U(1.0);
}

// First entry of the reversed system that can change the ray.  Every entry
// before surface n (the first absent one) is an empty plane in air with no
// spacing: it leaves y = 0 and u exactly as they are, so the walk starts at
// surface n, and the count of entries never overflows whatever the stop.
NUVRIX_HD int entrance_first_entry(int n, int stop_surface) {
  int const absent = n > 0 ? n : 0;
  return stop_surface > absent ? stop_surface - absent : 1;
}

// Image of the stop centre in object space, by a trace from the stop back
// towards the object through the reversed surfaces in front of it.  Entry j
// of the reversed system is surface k = stop - j (curvature negated, the
// index in front of it behind it); the closing entry j = stop is object
// space.  Surfaces beyond the array count as empty planes in air.
template <typename T, typename U, typename Geometry>
NUVRIX_HD T entrance_pupil_core(Geometry const& g, U const* indices, SurfaceData const* surfaces,
                                int n, int stop_surface) {
  if (stop_surface < 2) return T(0.0);
  T y = T(0.0), u = T(kPupilTrialSlope);
  for (int k = stop_surface - entrance_first_entry(n, stop_surface); k >= 0; --k) {
    // Entry j = stop - k.  Transfer across the spacing of entry j - 1
    // (surface ks, the thickness of ks - 1); the object distance (ks = 1) is
    // never crossed.
    int const ks = k + 1;
    // Unlike the forward step, products are rounded on their own here.
    if (ks != 1 && ks - 1 < n) {
      T const t = g.thickness(ks - 1);
      if (is_finite(val(t))) y = y + t * u;
    }
    bool const real = k >= 1 && k < n;  // k = 0: the closing entry, object space
    U const n_a = entrance_index(indices, n, ks);
    U const n_b = entrance_index(indices, n, k >= 1 ? k : 1);
    if (real && surfaces[k].type == NUVRIX_SURFACE_MATRIX) {
      // Inverse matrix, slopes in the reversed sense.
      double const* m = surfaces[k].coefficients;
      double det = m[0] * m[3] - m[1] * m[2];
      if (fabs(det) < kTiny) det = det < 0.0 ? -kTiny : kTiny;
      T const yp = (m[3] * y + m[1] * u) / det;
      T const up = (m[2] * y + m[0] * u) / det;
      y = yp;
      u = up;
      continue;
    }
    T p = T(0.0);
    U divisor = n_b;
    if (real && surfaces[k].type == NUVRIX_SURFACE_PARAXIAL_LENS) {
      T const f = g.focal_length(k);
      double const fv = val(f);
      p = (is_finite(fv) && fv != 0.0) ? T(1.0 / f) : T(0.0);
    } else if (real && surfaces[k].is_mirror != 0) {
      p = (-2.0 * n_a) * (-g.curvature(k));
      divisor = -n_a;
    } else if (real) {
      p = (n_b - n_a) * (-g.curvature(k));
    }
    u = (n_a * u - p * y) / divisor;
  }
  if (fabs(val(u)) < kTiny) return T(0.0);
  return y / u;
}

// Height of row `row` of the paraxial step from (y0, u0), if the row exists.
NUVRIX_HD bool paraxial_height_at_row(SurfaceData const* surfaces, int n, double const* indices,
                                      double y0, double u0, int row, double& h) {
  ParaxialEndState const end = trace_paraxial_end(surfaces, n, indices, y0, u0, row);
  h = end.target.y;
  return end.target_found;
}

}  // namespace detail

// Position of the entrance pupil measured from surface 1; 0 when the stop
// is the first surface or the object space is telecentric.
NUVRIX_HD_CALL double compute_entrance_pupil_position(SurfaceData const* surfaces, int n,
                                                 double const* indices, int stop_surface) {
  return detail::entrance_pupil_core<double, double>(detail::RecordGeometry{surfaces}, indices,
                                                     surfaces, n, stop_surface);
}

template <typename T, typename U>
NUVRIX_HD T compute_entrance_pupil_position_t(T const* curvatures, T const* thicknesses,
                                              U const* indices, SurfaceData const* surfaces, int n,
                                              int stop_surface) {
  return detail::entrance_pupil_core<T, U>(detail::ArrayGeometry<T>{curvatures, thicknesses, surfaces},
                                           indices, surfaces, n, stop_surface);
}

// Exit pupil from the last surface by the forward trace through the stop
// centre; 0 where it cannot be formed.
template <typename T, typename U>
NUVRIX_HD T compute_exit_pupil_position_t(T const* curvatures, T const* thicknesses,
                                          U const* indices, SurfaceData const* surfaces, int n,
                                          int stop_surface, T const* focal_lengths) {
  if (stop_surface < 1 || n < 2) return T(0.0);
  int const row = stop_surface - 1;
  if (row > n - 2) return T(0.0);
  T y[kMaxSurfaces], u[kMaxSurfaces];
  T const slope = T(kPupilTrialSlope);
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(0.0), slope, y, u,
                             focal_lengths, nullptr);
  T const h0 = y[row];
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(1.0), slope, y, u,
                             focal_lengths, nullptr);
  T const h1 = y[row];
  if (!(fabs(detail::val(h1 - h0)) > kTiny)) return T(0.0);
  trace_paraxial_ray_t<T, U>(curvatures, thicknesses, indices, surfaces, n, T(-h0 / (h1 - h0)),
                             slope, y, u, focal_lengths, nullptr);
  if (n == 2 || !(fabs(detail::val(u[n - 2])) > kTiny)) return T(0.0);
  return -y[n - 2] / u[n - 2];
}

// Launch height of the paraxial marginal ray for the system's aperture:
// half the entrance pupil diameter, the EFL over twice the F-number, or the
// object distance to the entrance pupil times the tangent of the
// object-space numerical aperture (held at a sine of 0.999999).
NUVRIX_HD double paraxial_marginal_height(SurfaceData const* surfaces, int n,
                                          double const* indices, SystemConfig const& config) {
  double const A = config.aperture_value;
  if (config.aperture_type == 0) return A / 2.0;
  if (config.aperture_type == 1) return fabs(calculate_efl_abcd(surfaces, n, indices)) / (2.0 * A);
  // Object space is air when it has no index: no table, or no surfaces.
  double n0 = 1.0;
  if (indices != nullptr && n > 0 && !(indices[0] < 1e-6)) n0 = indices[0];
  double s = fabs(A) / n0;
  double root;
  if (s >= 1.0) {
    s = kNaSineClamp;
    root = sqrt(kNaClampRootRadicand);
  } else {
    root = sqrt(1.0 - s * s);
  }
  double const tan_u = s / root;
  double const t0 = n > 0 ? surfaces[0].thickness : 0.0;
  double const p = config.telecentric_object != 0
                       ? kTelecentricPupil
                       : compute_entrance_pupil_position(surfaces, n, indices, config.stop_surface);
  return fabs(t0 + p) * tan_u;
}

namespace detail {

// The field_y of largest magnitude, with its sign; ties keep the earlier field.
NUVRIX_HD double paraxial_field_max(FieldData const* fields, int field_count) {
  double best = 0.0;
  for (int f = 0; f < field_count; ++f) {
    if (fabs(fields[f].field_y) > fabs(best)) best = fields[f].field_y;
  }
  return best;
}

NUVRIX_HD double paraxial_chief_slope(SystemConfig const& config, FieldData const* fields,
                                      int field_count) {
  if (config.field_type != 0) return 0.0;
  return tan(paraxial_field_max(fields, field_count) * 3.14159265358979323846 / 180.0);
}

}  // namespace detail

// Rows of the paraxial chief ray: launched with the slope of the largest
// field, at the height that passes through the centre of the stop.
NUVRIX_HD_CALL void trace_chief_ray(SurfaceData const* surfaces, int n, double const* indices,
                               SystemConfig const* config, FieldData const* fields,
                               int field_count, ParaxialRayState* rows) {
  double const u_c = detail::paraxial_chief_slope(*config, fields, field_count);
  int const stop = config->stop_surface;
  if (stop < 2) {
    if (n < 2) return;
    trace_paraxial_ray(surfaces, n, indices, 0.0, u_c, rows);
    return;
  }
  if (n < 2) return;
  ParaxialRayState r0[kMaxSurfaces], r1[kMaxSurfaces];
  trace_paraxial_ray(surfaces, n, indices, 0.0, u_c, r0);
  trace_paraxial_ray(surfaces, n, indices, 1.0, u_c, r1);
  if (stop >= n) {
    trace_paraxial_ray(surfaces, n, indices, 0.0, u_c, rows);
    return;
  }
  double const h0 = r0[stop - 1].y;
  double const diff = r1[stop - 1].y - h0;
  double const y0 = fabs(diff) < kTiny ? 0.0 : -h0 / diff;
  trace_paraxial_ray(surfaces, n, indices, y0, u_c, rows);
}

// The first-order description of the system.  Row arrays may be null.
NUVRIX_HD_CALL ParaxialSolveResult paraxial_solve(SurfaceData const* surfaces, int n,
                                             double const* indices, SystemConfig const* config,
                                             FieldData const* fields, int field_count,
                                             ParaxialRayState* marginal_rows,
                                             ParaxialRayState* chief_rows) {
  ParaxialSolveResult res = {};
  int const stop = config->stop_surface;
  double const y0 = paraxial_marginal_height(surfaces, n, indices, *config);

  // 1. Marginal ray.
  ParaxialEndState const marginal = trace_paraxial_end(surfaces, n, indices, y0, 0.0, -1);
  double const y_1 = marginal.first.y;
  double const y_m = marginal.last.y, u_m = marginal.last.u, nu_m = marginal.last.nu;

  // 2.-4. Chief ray through the centre of the stop.
  double const u_c = detail::paraxial_chief_slope(*config, fields, field_count);
  double chief_y0 = 0.0;
  if (!(stop < 2 || n < 2)) {
    double h0 = 0.0, h1 = 0.0;
    bool const have0 = detail::paraxial_height_at_row(surfaces, n, indices, 0.0, u_c, stop - 1, h0);
    bool const have1 = detail::paraxial_height_at_row(surfaces, n, indices, 1.0, u_c, stop - 1, h1);
    if (have0 && have1 && fabs(h1 - h0) >= kTiny) chief_y0 = -h0 / (h1 - h0);
  }
  ParaxialEndState const chief = trace_paraxial_end(surfaces, n, indices, chief_y0, u_c, -1);
  double const y_c = chief.last.y, u_c_last = chief.last.u;

  // 5. Focal length and back focus.
  if (n - 1 >= 2) {
    if (fabs(nu_m) > kTiny) res.efl = -y_1 * indices[0] / nu_m;
    if (fabs(marginal.previous.u) > kTiny) {
      res.bfl = -marginal.previous.y / marginal.previous.u;
      res.image_distance = res.bfl;
    }
  }

  // 6. Length, leaving out the negative spacing of a dummy stop in front of the lens.
  if (n > 2) {
    for (int i = 1; i <= n - 2; ++i) {
      double const t = surfaces[i].thickness;
      if (!(detail::is_finite(t) && fabs(t) < kInfiniteDistance)) continue;
      if (i == 1 && stop == 1 && t < 0.0 && indices[1] < 1.1) continue;
      res.total_length += t;
    }
  }

  // 7.-8. Entrance pupil.
  res.entrance_pupil_diameter = 2.0 * y0;
  res.entrance_pupil_position = compute_entrance_pupil_position(surfaces, n, indices, stop);

  // 9. Exit pupil: the image of the stop centre through the rear part.
  if (stop >= 1 && n >= 2) {
    double h0 = 0.0, h1 = 0.0;
    bool const have0 =
        detail::paraxial_height_at_row(surfaces, n, indices, 0.0, kPupilTrialSlope, stop - 1, h0);
    bool const have1 =
        detail::paraxial_height_at_row(surfaces, n, indices, 1.0, kPupilTrialSlope, stop - 1, h1);
    if (have0 && have1 && fabs(h1 - h0) > kTiny) {
      ParaxialEndState const e =
          trace_paraxial_end(surfaces, n, indices, -h0 / (h1 - h0), kPupilTrialSlope, -1);
      if (n != 2 && fabs(e.last.u) > kTiny) res.exit_pupil_position = -e.last.y / e.last.u;
    }
  }
  // 10. Fallback on the chief ray.
  if (res.exit_pupil_position == 0.0 && n - 1 >= 2 && fabs(u_c_last) > kTiny) {
    res.exit_pupil_position = -y_c / u_c_last;
  }
  // 11. Exit pupil diameter from the marginal ray.
  if (n - 1 >= 1) res.exit_pupil_diameter = 2.0 * fabs(fma(res.exit_pupil_position, u_m, y_m));

  // 12.-13. Rows on request.
  if (marginal_rows != nullptr && n >= 2) trace_paraxial_ray(surfaces, n, indices, y0, 0.0, marginal_rows);
  if (chief_rows != nullptr) trace_chief_ray(surfaces, n, indices, config, fields, field_count, chief_rows);
  return res;
}

// The exit pupil position of a full solve, its rows discarded.
NUVRIX_HD_CALL double compute_exit_pupil_position(SurfaceData const* surfaces, int n,
                                             double const* indices, SystemConfig const* config,
                                             FieldData const* fields, int field_count) {
  ParaxialRayState marginal[kMaxSurfaces], chief[kMaxSurfaces];
  return paraxial_solve(surfaces, n, indices, config, fields, field_count, marginal, chief)
      .exit_pupil_position;
}

}  // namespace nuvrix
