// The two aims that the tangent-plane secant cannot serve, and the stop
// radius that every aim aims at.
//
// A ray from an object at infinity beyond 90 degrees of field travels
// backwards (n < 0): it is launched from a point 500 mm back along its own
// line and traced from free space.  A ray from a finite object point has a
// fixed start: there the direction is what must change, through a point on
// the entrance pupil plane.
#pragma once

#include "api/types.hpp"
#include "first_order/aim.hpp"
#include "first_order/paraxial_solve.hpp"
#include "trace/robust_offset.hpp"

namespace nuvrix {

constexpr double kRobustLaunchBack = 500.0;  // mm back along the ray
constexpr double kDefaultStopRadius = 5.0;   // radius of a stop that cannot be reached

// An aimed direction from a finite object point.
struct AimFiniteResult {
  double l, m, n;
  int converged;
};

namespace detail {

// Sag of the base conic of surface 1 at height y alone, the root held at 0.
NUVRIX_HD double ra_first_surface_sag(SurfaceData const* surfaces, int n, double y) {
  double const c = n >= 2 ? surfaces[1].curvature : 0.0;
  double const k = n >= 2 ? surfaces[1].conic : 0.0;
  if (fabs(c) < kPlaneCurvature) return 0.0;
  double radicand = 1.0 - (1.0 + k) * c * c * y * y;
  if (radicand < 0.0) radicand = 0.0;
  return c * y * y / (1.0 + sqrt(radicand));
}

// The robust launch for the crossing point (X, Y) on surface 1: from 500 mm
// back along the ray, traced from free space to the stop, apertures ignored.
NUVRIX_HD RayTraceResult ra_robust_launch(SurfaceData const* surfaces, int n,
                                          double const* indices, double X, double Y, double l,
                                          double m, double n_dir, int stop_surface) {
  double const sag = ra_first_surface_sag(surfaces, n, Y);
  NUVRIX_AIM_TRACE_HOOK();
  return trace_ray_robust_offset(surfaces, n, indices, X - kRobustLaunchBack * l,
                                 Y - kRobustLaunchBack * m, sag - kRobustLaunchBack * n_dir, l, m,
                                 n_dir, 1, stop_surface, 0.0, nullptr, kExportedHistory, true);
}

// One coordinate's secant step without halving: the previous value and
// error move only when the slope can be formed from a nonzero difference.
NUVRIX_HD void ra_secant_step(double& c, double e, double& p, double& ep) {
  if (!(fabs(c - p) > kAimFlat)) return;
  double const s = (e - ep) / (c - p);
  p = c;
  ep = e;
  if (fabs(s) > kAimFlat) c = c - e / s;
}

// Unit direction from the object point to (X, Y, z_aim); false when the
// vector is shorter than 1e-15.
NUVRIX_HD bool ra_finite_direction(double x0, double y0, double X, double Y, double z_aim,
                                   double& l, double& m, double& n) {
  double const dx = X - x0, dy = Y - y0;
  double const len = sqrt(dot3(dx, dy, z_aim, dx, dy, z_aim));
  if (len < kTiny) return false;
  l = dx / len;
  m = dy / len;
  n = z_aim / len;
  return true;
}

}  // namespace detail

// Aims a backward-travelling ray from an object at infinity: (x, y) is its
// crossing point on surface 1 itself; secants at full step, no halving.
NUVRIX_HD_CALL AimToStopResult aim_to_stop_robust(SurfaceData const* surfaces, int n,
                                             double const* indices, double x, double y, double l,
                                             double m, double n_dir, double px, double py,
                                             double stop_radius, int stop_surface) {
  AimToStopResult res = {0.0, 0.0, 0};
  double const tx = px * stop_radius, ty = py * stop_radius;
  double cx = x, cy = y;
  RayTraceResult hit =
      detail::ra_robust_launch(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
  if (!hit.valid) {
    double const factors[7] = {1.0, 0.75, 0.5, 0.35, 0.25, 0.15, 0.1};
    for (int k = 0; k < 7 && !hit.valid; ++k) {
      cx = 0.0;
      cy = y * factors[k];
      hit = detail::ra_robust_launch(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
    }
    if (!hit.valid) {
      res.x = x;
      res.y = y;
      return res;
    }
  }
  // The current point is the best one; it is launched once more.
  double bx = cx, by = cy;
  res.x = cx;
  res.y = cy;
  hit = detail::ra_robust_launch(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
  if (!hit.valid) return res;
  detail::RaErrors cur = detail::ra_errors(hit, tx, ty);
  if (!(cur.err <= DBL_MAX)) cur.err = DBL_MAX;
  double best_err = cur.err;
  if (detail::ra_on_target(cur)) {
    res.converged = 1;
    return res;
  }

  // Probe.
  double pxv = cx, pyv = cy, pex = cur.ex, pey = cur.ey;
  if (fabs(cur.ex) > kAimStrict) cx += kAimProbe;
  if (fabs(cur.ey) > kAimStrict) cy += kAimProbe;
  hit = detail::ra_robust_launch(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
  res.x = bx;
  res.y = by;
  if (!hit.valid) return res;
  cur = detail::ra_errors(hit, tx, ty);
  if (cur.err < best_err) {
    bx = cx;
    by = cy;
    best_err = cur.err;
  }

  for (int counter = 2; counter <= kAimLastCount; ++counter) {
    detail::ra_secant_step(cx, cur.ex, pxv, pex);
    detail::ra_secant_step(cy, cur.ey, pyv, pey);
    hit = detail::ra_robust_launch(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
    if (hit.valid) {
      cur = detail::ra_errors(hit, tx, ty);
      if (cur.err < best_err) {
        bx = cx;
        by = cy;
        best_err = cur.err;
      }
      if (detail::ra_on_target(cur)) {
        res.x = cx;
        res.y = cy;
        res.converged = 1;
        return res;
      }
    } else {
      cy = pyv;  // y steps back; x stays, and the errors stay those of the last valid launch
    }
  }
  res.x = bx;
  res.y = by;
  res.converged = best_err < kAimLoose ? 1 : 0;
  return res;
}

// Aims a ray from the finite object point (x0, y0) through a point (X, Y) of
// the plane z_aim, starting from (x_aim, y_aim).
NUVRIX_HD_CALL AimFiniteResult aim_to_stop_finite(SurfaceData const* surfaces, int n,
                                             double const* indices, double x0, double y0,
                                             double x_aim, double y_aim, double z_aim, double px,
                                             double py, double stop_radius, int stop_surface) {
  AimFiniteResult res = {0.0, 0.0, 1.0, 0};  // the kept direction starts along the axis
  double const tx = px * stop_radius, ty = py * stop_radius;
  auto trace = [&](double l, double m, double nn) {
    NUVRIX_AIM_TRACE_HOOK();
    return detail::rt_trace_impl(surfaces, n, indices, x0, y0, l, m, nn, nullptr, 1, stop_surface, 0.0, 0,
                         true);
  };
  double l = 0.0, m = 0.0, nn = 1.0;
  double cx = x_aim, cy = y_aim;
  RayTraceResult hit = {};
  bool found = false;
  if (detail::ra_finite_direction(x0, y0, cx, cy, z_aim, l, m, nn)) {
    res.l = l;
    res.m = m;
    res.n = nn;
    hit = trace(l, m, nn);
    found = hit.valid != 0;
  }
  if (!found) {
    double const f[4] = {0.5, 0.25, 0.0, 0.1};
    for (int k = 0; k < 4 && !found; ++k) {
      cx = k == 2 ? 0.0 : f[k] * x_aim;
      cy = k == 2 ? 0.0 : f[k] * y_aim;
      if (!detail::ra_finite_direction(x0, y0, cx, cy, z_aim, l, m, nn)) continue;
      hit = trace(l, m, nn);
      if (hit.valid) {
        found = true;
        res.l = l;
        res.m = m;
        res.n = nn;
      }
    }
    if (!found) return res;
  }
  detail::RaErrors cur = detail::ra_errors(hit, tx, ty);
  if (detail::ra_on_target(cur)) {
    res.converged = 1;
    return res;
  }
  double best_err = cur.err;

  // Probe.
  double pxv = cx, pyv = cy, pex = cur.ex, pey = cur.ey;
  if (fabs(cur.ex) > kAimStrict) cx += kAimProbe;
  if (fabs(cur.ey) > kAimStrict) cy += kAimProbe;
  if (!detail::ra_finite_direction(x0, y0, cx, cy, z_aim, l, m, nn) || !(hit = trace(l, m, nn)).valid) {
    res.converged = cur.err < kAimLoose ? 1 : 0;
    return res;
  }
  cur = detail::ra_errors(hit, tx, ty);
  if (cur.err < best_err) {
    best_err = cur.err;
    res.l = l;
    res.m = m;
    res.n = nn;
  }

  for (int counter = 2; counter <= kAimLastCount; ++counter) {
    detail::ra_secant_step(cx, cur.ex, pxv, pex);
    detail::ra_secant_step(cy, cur.ey, pyv, pey);
    if (!detail::ra_finite_direction(x0, y0, cx, cy, z_aim, l, m, nn)) break;
    hit = trace(l, m, nn);
    if (!hit.valid) break;
    cur = detail::ra_errors(hit, tx, ty);
    if (cur.err < best_err) {
      best_err = cur.err;
      res.l = l;
      res.m = m;
      res.n = nn;
    }
    if (detail::ra_on_target(cur)) {
      res.l = l;
      res.m = m;
      res.n = nn;
      res.converged = 1;
      return res;
    }
  }
  res.converged = best_err < kAimLoose ? 1 : 0;
  return res;
}

// Radius of the stop that the marginal ray really fills: a real ray parallel
// to the axis at the pupil radius, or the paraxial marginal height at the
// stop when that ray does not get through.
NUVRIX_HD_CALL double aim_stop_radius(SurfaceData const* surfaces, int n, double const* indices,
                                 SystemConfig const* config, double pupil_radius) {
  int const stop = config->stop_surface;
  RayTraceResult const real = detail::rt_trace_impl(surfaces, n, indices, 0.0, pupil_radius, 0.0, 0.0,
                                            1.0, nullptr, 1, stop, 0.0, 0, false);
  if (real.valid) return fabs(real.y);
  double const half = config->aperture_value / 2.0;
  int const type = config->aperture_type;
  if (type == 0 && n <= 1) return half;
  if ((type == 1 && n <= 1) || (type != 0 && type != 1 && n < 2)) return kDefaultStopRadius;
  double const y0 = paraxial_marginal_height(surfaces, n, indices, *config);
  double h = 0.0;
  if (stop >= 1 && detail::paraxial_height_at_row(surfaces, n, indices, y0, 0.0, stop - 1, h)) {
    return fabs(h);
  }
  return type != 0 ? kDefaultStopRadius : half;
}

}  // namespace nuvrix
