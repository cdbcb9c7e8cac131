// The robust offset trace: the real-ray trace for a ray that starts in free
// space, off the tangent plane of its first surface.
//
// A ray of a very wide field reaches surface 1 from far out, possibly from
// behind its vertex plane, and after a strongly curved surface the next
// vertex plane may lie behind the point where the ray left.  This trace
// follows rt_trace_impl step for step and departs from it where such a ray
// needs it:
//   - the launch point may lie off the vertex plane (z measured in the frame
//     of the first surface), and is then met with both roots of the conic;
//   - a ray that ends a surface beyond the next vertex plane (overshoot) is
//     met at the next surface from where it stands, not from that plane;
//   - the history records each surface as the ray arrives, before it acts;
//   - every surface acts on the ray, the image surface included, and a
//     matrix surface refracts as a plain surface;
//   - a failure is told by status alone: failed_surface and violation stay 0.
#pragma once

#include <cfloat>

#include "api/types.hpp"
#include "trace/conic.hpp"
#include "trace/material.hpp"
#include "trace/refract.hpp"
#include "trace/trace_core.hpp"

namespace nuvrix {
namespace detail {

constexpr double kOffsetLaunchZ = 1e-10;    // |z| above this: the launch is off the vertex plane
constexpr double kOffsetMinDistance = 0.01;  // a root below this lies behind or at the start
constexpr double kOffsetAxisSide = 1.0;      // |y| above this before and after: a side is kept
constexpr double kOvershootMargin = 1.0;     // |z| > |t| + 1: the ray is past the next plane

// True when the ray went from height y0 to y1 across the axis, both heights
// well away from it (|y| above 1): it would meet the surface's far side.
NUVRIX_HD bool rt_offset_crosses_axis(double y0, double y1) {
  return fabs(y0) > kOffsetAxisSide && fabs(y1) > kOffsetAxisSide && ((y0 < 0.0) != (y1 < 0.0));
}

// Meets a curved conic from a point in free space.  Both roots of the
// ray-conic quadratic are formed; the nearer one serves when it lies at
// least 0.01 ahead and keeps the ray on its side of the axis, the farther
// one otherwise.  The normal comes from the conic's gradient and is turned
// to face the incoming ray.  False on a miss; the ray is then untouched.
NUVRIX_HD bool rt_offset_conic_step(RayStateT<double>& ray, double c, double k) {
  double const k1 = 1.0 + k;
  double F, B, D;
  conic_quadratic_t<double>(ray.x, ray.y, ray.z, ray.l, ray.m, ray.n, c, k1, F, B, D);
  if (D < 0.0) return false;

  // Both roots; a vanishing denominator puts its root out of reach.
  double const s = sqrt(D);
  double const den1 = B + s, den2 = B - s;
  double const t1 = fabs(den1) > kTiny ? F / den1 : DBL_MAX;
  double const t2 = fabs(den2) > kTiny ? F / den2 : DBL_MAX;
  double const t_near = t1 < t2 ? t1 : t2;
  double const t_far = t1 < t2 ? t2 : t1;

  double const y0 = ray.y;
  double t;
  if (t_near < kOffsetMinDistance) {
    // The near root lies behind the start or too close to it.
    if (t_far < kOffsetMinDistance) return false;
    t = t_far;
    if (rt_offset_crosses_axis(y0, fma(t_far, ray.m, y0))) return false;
  } else {
    t = t_near;
    if (rt_offset_crosses_axis(y0, fma(t_near, ray.m, y0))) {
      // The near root is on the far side of the axis: take the far one.
      t = t_far;
      if (t_far < kOffsetMinDistance) return false;
    }
  }

  ray.x = fma(t, ray.l, ray.x);
  ray.y = fma(t, ray.m, ray.y);
  ray.z = fma(t, ray.n, ray.z);
  ray.sag_path += t;

  // Normal from the gradient c' (x, y) of the conic, c' = c / root; past the
  // rim of the conic the bare curvature stands for c'.
  double const radicand = 1.0 - k1 * c * c * sum_sq2(ray.x, ray.y);
  double cp = c;
  if (!(radicand < 0.0)) {
    double const root = sqrt(radicand);
    if (root > kTiny) cp = c / root;
  }
  set_normal_from_gradient_t<double>(ray, cp * ray.x, cp * ray.y);
  if (dot3(ray.nx, ray.ny, ray.nz, ray.l, ray.m, ray.n) > 0.0) {
    ray.nx = -ray.nx;
    ray.ny = -ray.ny;
    ray.nz = -ray.nz;
  }
  return is_finite(ray.x) && is_finite(ray.y) && is_finite(ray.z);
}

// A failed robust trace: the state, the status and the history count only.
NUVRIX_HD RayTraceResult rt_offset_failure(RayStateT<double> const& r, int status,
                                           int states_written) {
  RayTraceResult res = {};
  rt_put_state(res, r, status);
  res.states_written = states_written;
  return res;
}

}  // namespace detail

// Traces one ray from (x, y, z) with direction (l, m, n) through surfaces
// start_surface .. last_surface (below 1: the image surface).  A z within
// 1e-10 of 0 is an ordinary launch on the tangent plane, in the frame of
// surface start_surface - 1; a z away from 0 places the start in free space
// in the frame of surface start_surface.  With `states`, slot 0 gets the
// launch direction at the origin and each surface reached one record as the
// ray arrives there, up to max_states; the count goes on past the capacity.
NUVRIX_HD_CALL RayTraceResult trace_ray_robust_offset(SurfaceData const* surfaces, int surface_count,
                                                 double const* indices, double x, double y,
                                                 double z, double l, double m, double n,
                                                 int start_surface, int last_surface,
                                                 double wavelength, RayState* states,
                                                 int max_states, bool ignore_apertures) {
  using namespace detail;
  RayStateT<double> ray = {x, y, z, l, m, n, 0.0, 0.0, 0.0, 0.0, 0.0, 0};
  double phase = 0.0;
  int count = 0;
  if (states != nullptr) {
    if (max_states > 0) {
      RayStateT<double> const origin = {0.0, 0.0, 0.0, l, m, n, 0.0, 0.0, 0.0, 0.0, 0.0, 0};
      states[0] = rt_to_state(origin, 0);
    }
    count = 1;
  }
  // A trace that starts before surface 1 has no frame to start in.
  if (start_surface < 1) return rt_offset_failure(ray, NUVRIX_RAY_MISSED, count);
  int last = last_surface < 1 ? surface_count - 1 : last_surface;
  if (last > surface_count - 1) last = surface_count - 1;  // nothing lies beyond the image
  if (last < start_surface) {
    RayTraceResult res = {};
    rt_put_state(res, ray, 0);
    res.valid = 1;
    res.states_written = count;
    return res;
  }
  if (surfaces == nullptr || indices == nullptr) {
    return rt_offset_failure(ray, NUVRIX_RAY_MISSED, count);
  }

  bool const offset_launch = fabs(z) > kOffsetLaunchZ;
  bool const with_phase = wavelength > 0.0;
  double const wave_um = wavelength / 1000.0;
  bool overshoot = false;
  for (int i = start_surface; i <= last; ++i) {
    double const n1 = rt_medium_index(surfaces, surface_count, indices, i - 1, wavelength);
    double const n2 = rt_medium_index(surfaces, surface_count, indices, i, wavelength);
    SurfaceData const& prev = surfaces[i - 1];
    SurfaceData const& s = surfaces[i];

    // Transfer.  A launch in free space already stands in the frame of this
    // surface; a ray that overshot the vertex plane keeps its point and only
    // changes frame; any other ray goes to the vertex plane as usual.
    double t = prev.thickness;
    double const xo = ray.x, yo = ray.y, zo = ray.z;
    bool path_counts = true;
    bool from_free_space = false;
    if (i == start_surface && offset_launch) {
      t = 0.0;
      from_free_space = true;
    } else if (overshoot) {
      overshoot = false;
      // (The flag is only ever set across a finite space; an infinite one
      // would keep z and add no path.)
      if (is_infinite_distance(t)) {
        path_counts = false;
      } else {
        ray.z = ray.z - t;
      }
      from_free_space = true;
    } else {
      path_counts = !is_infinite_distance(t);
      if (path_counts) rt_transfer(ray, t);
    }

    // Intersect.  From free space a curved base, even under an asphere, is
    // met as its bare conic with both roots.  A plane base takes the
    // ordinary step, which starts on the plane anyway: the plane step, or
    // under an even asphere the plane start followed by the walk.
    RayStateT<double> const before = ray;
    bool const hit = from_free_space && !(fabs(s.curvature) < kPlaneCurvature)
                         ? rt_offset_conic_step(ray, s.curvature, s.conic)
                         : rt_intersect_surface(ray, s);
    if (!hit) return rt_offset_failure(before, NUVRIX_RAY_MISSED, count);

    // History: the ray as it arrives, before the surface acts.
    if (states != nullptr) {
      if (count < max_states) states[count] = rt_to_state(ray, 0);
      ++count;
    }

    if (path_counts) {
      rt_path_step(ray, phase, xo, yo, zo, t, prev.is_mirror != 0, n1, with_phase, wave_um);
    }

    // Aperture, on every surface but the image.
    if (i < surface_count - 1 && !ignore_apertures) {
      double const limit = rt_aperture_limit(s);
      double const r2 = sum_sq2(ray.x, ray.y);
      if (limit > 0.0 && r2 > limit * limit * kApertureMargin) {
        return rt_offset_failure(ray, NUVRIX_RAY_MISSED, count);
      }
    }

    // Act on the ray, at every surface including the image.
    if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
      double extra = 0.0;
      if (rt_paraxial_lens(ray, n1, n2, s.focal_length, extra)) {
        ray.opl += extra;
        if (with_phase) phase += extra * 1000.0 / wave_um;
      }
    } else if (s.is_mirror != 0) {
      reflect_t<double>(ray);
    } else if (!refract_t<double, double>(ray, n1, n2)) {
      return rt_offset_failure(ray, NUVRIX_RAY_TIR, count);
    }

    // Overshoot: a ray already past the next vertex plane is not carried
    // back to it.
    if (i < last) {
      double const t_next = s.thickness;
      if (!is_infinite_distance(t_next) && fabs(ray.z) > fabs(t_next) + kOvershootMargin) {
        overshoot = true;
      }
    }
  }

  return rt_success(ray, phase, count, 0);
}

}  // namespace nuvrix
