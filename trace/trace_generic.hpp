// The real-ray trace over a generic scalar T, with the index row over U:
// trace_ray_t<T, U> carries one ray through the steps, constants and branch
// decisions of detail::rt_trace_impl, with the parameters that a variable can
// reach taken from arrays of T.  Over dual numbers it gives the derivatives of
// the ray with respect to the seeded parameters.
//
// What is T and what is plain:
// - curvature, thickness, conic, the eight coefficients (asphere terms, or
//   A, B, C, D of a matrix surface) and the focal length of a thin lens come
//   from the T arrays, never from the records;
// - the index of medium i is indices[i] (U), 1.0 outside the array.  The row
//   is the caller's: where a surface has model glass, the caller has already
//   put its model index (over U) in the row;
// - type, is_mirror and the aperture fields are plain values of the records,
//   so a semi-diameter carries no derivative here.
//
// The wavelength takes no part: the plain trace uses it for the phase, which
// a RayStateT does not carry, and for the model-glass lookup, which here is
// the caller's when it builds the row.  It is kept for the signature only.
//
// Every comparison and branch looks at the value part alone.  At
// T = U = double the steps are those of the plain trace, operation for
// operation, and x, y, z, l, m, n and opl come out bit for bit as there.
// Under dual numbers the value part is the plain one too (a dual step's
// value is the plain step's), except at two places: the even-asphere
// landing adds its Newton correction at the converged point, zero in value
// to within the walk's tolerance, so that the derivatives of the point
// follow the surface; and a plane whose curvature is a variable is met by
// the conic step, exact at c = 0, which leaves z at a rounding from 0.
#pragma once

#include "api/types.hpp"
#include "trace/conic.hpp"
#include "trace/even_asphere.hpp"
#include "trace/paraxial_surface.hpp"
#include "trace/refract.hpp"
#include "trace/trace_core.hpp"

namespace nuvrix {
namespace detail {

// Index of medium i from the caller's row; 1.0 outside the array.
template <typename U>
NUVRIX_HD U generic_medium_index(U const* indices, int n, int i) {
  if (i < 0 || i >= n) return U(1.0);
  return indices[i];
}

// Carries the ray across a finite space of thickness t to the vertex plane of
// the next surface; a ray with |n| below 1e-15 stays where it is.
template <typename T>
NUVRIX_HD void generic_transfer_t(RayStateT<T>& ray, T const& t) {
  if (fabs(val(ray.n)) < kTiny) return;
  T const d = (t - ray.z) / ray.n;
  ray.x = fma(d, ray.l, ray.x);
  ray.y = fma(d, ray.m, ray.y);
  ray.z = T(0.0);
}

// Optical path of one step from (xo, yo, zo), in the frame of the surface
// before, to the ray's point, t apart; signed by the direction of travel
// along z except in the space behind a mirror that turned the light back.
template <typename T, typename U>
NUVRIX_HD void generic_path_step_t(RayStateT<T>& ray, T const& xo, T const& yo, T const& zo,
                                   T const& t, bool behind_mirror, U const& n1) {
  T const dx = ray.x - xo, dy = ray.y - yo, dz = ray.z + t - zo;
  T d = sqrt(dot3(dx, dy, dz, dx, dy, dz));
  if (!(behind_mirror && val(t) < 0.0) && val(dz) * val(ray.n) < 0.0) d = -d;
  ray.opl = ray.opl + d * n1;
}

// The even-asphere landing of the double instance: the plain trace's walk,
// with the signed length of the whole walk added to sag_path.
NUVRIX_HD bool generic_land_asphere(RayStateT<double>& ray, double const& c, double const& k,
                                    double const* coefficients) {
  double x = ray.x, y = ray.y, z = ray.z, total = 0.0;
  if (!asphere_walk(x, y, z, ray.l, ray.m, ray.n, c, k, coefficients, total)) return false;
  double const dx = x - ray.x, dy = y - ray.y, dz = z - ray.z;
  double d = sqrt(dot3(dx, dy, dz, dx, dy, dz));
  if (dot3(dx, dy, dz, ray.l, ray.m, ray.n) < 0.0) d = -d;
  ray.x = x;
  ray.y = y;
  ray.z = z;
  ray.sag_path = ray.sag_path + d;
  even_asphere_normal_t<double>(ray, c, k, coefficients);
  return true;
}

// Over dual numbers: the walk on the values, then the Newton correction that
// carries the derivatives onto the surface.
template <typename T>
NUVRIX_HD bool generic_land_asphere(RayStateT<T>& ray, T const& c, T const& k,
                                    T const* coefficients) {
  return intersect_even_asphere_t(ray, c, k, coefficients);
}

// Moves the ray onto its surface and stores the normal there: the even
// asphere for type 1, the plane or nearest conic root otherwise.  False on a
// miss or a point that is not finite, leaving the ray on the vertex plane.
template <typename T>
NUVRIX_HD bool generic_intersect_t(RayStateT<T>& ray, int type, T const& c, T const& k,
                                   T const* coefficients) {
  // A miss leaves the ray as it was; a point that is not finite is undone.
  // Only the point, the path along the surface and the normal move, so only
  // they are kept (a whole dual state is a kilobyte).
  T const x = ray.x, y = ray.y, z = ray.z, sag = ray.sag_path;
  T const nx = ray.nx, ny = ray.ny, nz = ray.nz;
  bool met;
  if (type == NUVRIX_SURFACE_EVEN_ASPHERE) {
    met = generic_land_asphere(ray, c, k, coefficients);
  } else {
    met = intersect_conic_t(ray, c, k);
    if (met && (!(fabs(val(c)) < kPlaneCurvature) || has_slots(c))) conic_normal_t(ray, c, k);
  }
  if (met && all_finite3(val(ray.x), val(ray.y), val(ray.z))) return true;
  ray.x = x, ray.y = y, ray.z = z, ray.sag_path = sag;
  ray.nx = nx, ray.ny = ny, ray.nz = nz;
  return false;
}

// The paraxial lens: the direction change and, off the axis, the path
// correction added to opl.  The steps of rt_paraxial_lens over T.
template <typename T, typename U>
NUVRIX_HD void generic_paraxial_lens_t(RayStateT<T>& ray, U const& n1, U const& n2, T const& f) {
  bool const usable = focal_length_usable(val(f));
  T const r2 = sum_sq2(ray.x, ray.y);
  bool const blocked = fabs(val(ray.n)) < kTiny || fabs(val(n2)) < kTiny;
  if (!(val(r2) > kOnAxisR2 && usable)) {
    if (usable && !blocked) refract_paraxial_t<T, U>(ray, n1, n2, f);
    return;
  }
  T const r = sqrt(r2);
  T const tx = ray.l / ray.n, ty = ray.m / ray.n;
  T const u = fma(ray.y, ty, ray.x * tx) / r;
  T txp = tx, typ = ty;
  if (!blocked) {
    txp = thin_lens_tangent_t(n1, tx, ray.x, f, n2);
    typ = thin_lens_tangent_t(n1, ty, ray.y, f, n2);
    set_direction_from_tangents_t(ray, txp, typ);
  }
  T const up = fma(ray.y, typ, ray.x * txp) / r;
  ray.opl = ray.opl + thin_lens_path_t(r, r2, u, up, n1, n2);
}

// The state a failed trace returns: the ray where it failed, with the
// failure's status, and no optical path, as in the plain result.
template <typename T>
NUVRIX_HD RayStateT<T> generic_failure(RayStateT<T> ray, int status) {
  ray.opl = T(0.0);
  ray.status = status;
  return ray;
}

// Hands the state after surface i to the capture that names it.
template <typename T>
NUVRIX_HD void generic_capture(RayStateT<T> const& ray, int i, int capture_a, RayStateT<T>* at_a,
                               int capture_b, RayStateT<T>* at_b) {
  if (at_a != nullptr && i == capture_a) *at_a = ray;
  if (at_b != nullptr && i == capture_b) *at_b = ray;
}

}  // namespace detail

// Traces one ray from launch (x, y at z = 0 in the frame of surface
// start_surface - 1, direction l, m, n used as given, opl as the starting
// path; the normal and sag_path start at 0) through surfaces start_surface ..
// last_surface (below 1: the image surface).  Apertures are always tested.
//
// Returns the state at the end with status 0, or the state where the ray
// failed with NUVRIX_RAY_MISSED (miss, clip) or NUVRIX_RAY_TIR and opl 0.
// at_a and at_b, when given, receive the state just after surface capture_a
// and capture_b acted: the record of that surface in the plain trace's
// history, status NUVRIX_RAY_MISSED included for a clip there.  A surface not
// reached leaves them untouched.
//
// coefficients (row i: the terms of surface i) is read only at asphere and
// matrix surfaces, focal_lengths only at thin lenses; either may be null when
// the system has no such surface, and a missing one where it is needed ends
// the trace as a miss there.
template <typename T, typename U>
NUVRIX_HD_FLAT RayStateT<T> trace_ray_t(SurfaceData const* surfaces, int n, T const* curvatures,
                                   T const* thicknesses, T const* conics, U const* indices,
                                   RayStateT<T> launch, int start_surface, int last_surface,
                                   double wavelength, int capture_a, RayStateT<T>* at_a,
                                   RayStateT<T>* at_b, T const (*coefficients)[8], int capture_b,
                                   T const* focal_lengths) {
  (void)wavelength;  // the caller's index row already holds the model glass
  RayStateT<T> ray = launch;
  ray.z = T(0.0);
  ray.nx = T(0.0);
  ray.ny = T(0.0);
  ray.nz = T(0.0);
  ray.sag_path = T(0.0);
  ray.status = 0;
  // A trace that starts before surface 1 has no frame to start in.
  if (start_surface < 1) return detail::generic_failure(ray, NUVRIX_RAY_MISSED);
  int last = last_surface < 1 ? n - 1 : last_surface;
  if (last > n - 1) last = n - 1;  // nothing lies beyond the image
  if (last < start_surface) return ray;
  if (surfaces == nullptr || indices == nullptr || curvatures == nullptr ||
      thicknesses == nullptr || conics == nullptr) {
    return detail::generic_failure(ray, NUVRIX_RAY_MISSED);
  }

  U n1 = detail::generic_medium_index(indices, n, start_surface - 1);
  for (int i = start_surface; i <= last; ++i) {
    U const n2 = detail::generic_medium_index(indices, n, i);
    SurfaceData const& prev = surfaces[i - 1];
    SurfaceData const& s = surfaces[i];
    bool const needs_terms =
        s.type == NUVRIX_SURFACE_EVEN_ASPHERE || s.type == NUVRIX_SURFACE_MATRIX;
    if ((needs_terms && coefficients == nullptr) ||
        (s.type == NUVRIX_SURFACE_PARAXIAL_LENS && focal_lengths == nullptr)) {
      return detail::generic_failure(ray, NUVRIX_RAY_MISSED);
    }
    T const* terms = needs_terms ? coefficients[i] : nullptr;

    // Transfer to the vertex plane of surface i; an infinite space, by
    // value, is skipped with its derivatives.
    T const& t = thicknesses[i - 1];
    T const xo = ray.x, yo = ray.y, zo = ray.z;
    bool const infinite = detail::is_infinite_distance(detail::val(t));
    if (!infinite) detail::generic_transfer_t(ray, t);

    if (!detail::generic_intersect_t(ray, s.type, curvatures[i], conics[i], terms)) {
      return detail::generic_failure(ray, NUVRIX_RAY_MISSED);
    }
    if (!infinite) detail::generic_path_step_t(ray, xo, yo, zo, t, prev.is_mirror != 0, n1);

    // Aperture, on every surface but the image, on plain values.
    if (i < n - 1) {
      double const limit = detail::rt_aperture_limit(s);
      double const r2 = detail::sum_sq2(detail::val(ray.x), detail::val(ray.y));
      if (limit > 0.0 && r2 > limit * limit * kApertureMargin) {
        ray.status = NUVRIX_RAY_MISSED;
        detail::generic_capture(ray, i, capture_a, at_a, capture_b, at_b);
        return detail::generic_failure(ray, NUVRIX_RAY_MISSED);
      }
    }

    // Act on the ray; the image surface never does.
    if (!(i >= n - 1 && i >= last)) {
      if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
        detail::generic_paraxial_lens_t<T, U>(ray, n1, n2, focal_lengths[i]);
      } else if (s.type == NUVRIX_SURFACE_MATRIX) {
        apply_abcd_generic(ray, terms);
      } else if (s.is_mirror != 0) {
        detail::reflect_t(ray);
      } else if (!detail::refract_t<T, U>(ray, n1, n2)) {
        return detail::generic_failure(ray, NUVRIX_RAY_TIR);
      }
    }
    detail::generic_capture(ray, i, capture_a, at_a, capture_b, at_b);
    n1 = n2;
  }
  return ray;
}

}  // namespace nuvrix
