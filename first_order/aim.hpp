// Ray aiming: where must a ray of given direction cross the tangent plane of
// surface 1 so that it passes through a wanted point of the aperture stop?
// Pupil aberration makes this a search.  The engine answers it with two
// decoupled one-dimensional secant iterations (x on the x error, y on the y
// error) with step halving, inside a ladder of fallbacks for rays that do
// not reach the stop at all.
#pragma once

#include "api/types.hpp"
#include "trace/trace_core.hpp"

// Counts the traces of the aims.  Empty in the library; a cost test and the
// aim benchmark, built from the headers alone, define it to bump a counter.
#ifndef NUVRIX_AIM_TRACE_HOOK
#define NUVRIX_AIM_TRACE_HOOK()
#endif

namespace nuvrix {

constexpr double kAimStrict = 1e-10;     // converged in one coordinate
constexpr double kAimLoose = 1e-6;       // loose success on the residual
constexpr double kAimFlat = 1e-30;       // secant denominators
constexpr double kAimProbe = 0.001;      // first secant step, mm
constexpr int kAimLastCount = 201;       // the iteration counter runs 2 .. 201
constexpr int kAimHalvings = 30;         // step-halving tries per iteration
constexpr double kAimSteepRay = 0.3;     // |n| below: a ray steeper than about 72 degrees

// The best secant point and how close it came.
struct AimSecantResult {
  bool converged;
  double x, y;
  double residual;  // distance to the target at the stop; DBL_MAX when no start got there
};

// A start for the chief ray of a wide-angle system.
struct ChiefRayStart {
  double x, y;  // x is always 0
  int found;
};

namespace detail {

// The trace of every aim: from (x, y) on the tangent plane of surface 1 with
// a fixed direction, up to the stop, apertures ignored.
NUVRIX_HD RayTraceResult ra_trace(SurfaceData const* surfaces, int n, double const* indices,
                                  double x, double y, double l, double m, double n_dir,
                                  int last_surface) {
  NUVRIX_AIM_TRACE_HOOK();
  return rt_trace_impl(surfaces, n, indices, x, y, l, m, n_dir, nullptr, 1, last_surface, 0.0, 0,
                       true);
}

// Errors at the stop and their length, sqrt(ex^2 + ey^2) with ey^2 rounded.
struct RaErrors {
  double ex, ey, err;
};

NUVRIX_HD RaErrors ra_errors(RayTraceResult const& hit, double tx, double ty) {
  RaErrors e;
  e.ex = tx - hit.x;
  e.ey = ty - hit.y;
  e.err = sqrt(fma(e.ex, e.ex, e.ey * e.ey));
  return e;
}

NUVRIX_HD bool ra_on_target(RaErrors const& e) {
  return fabs(e.ex) <= kAimStrict && fabs(e.ey) <= kAimStrict;
}

// One secant update of a coordinate from the current value c with error e
// and the previous value p with error ep: c - e / s, or c where the slope
// cannot be formed.
NUVRIX_HD double ra_secant_value(double c, double e, double p, double ep) {
  if (!(fabs(c - p) > kAimFlat)) return c;
  double const s = (e - ep) / (c - p);
  if (!(fabs(s) > kAimFlat)) return c;
  return (c * s - e) / s;
}

// Semi-diameter of surface 1 when set, else 10 mm: the scale of the recovery scans.
NUVRIX_HD double ra_first_semi_diameter(SurfaceData const* surfaces, int n) {
  if (n > 1 && surfaces[1].semi_diameter > 0.0) return surfaces[1].semi_diameter;
  return 10.0;
}

NUVRIX_HD AimSecantResult ra_secant_exit(double bx, double by, double best_err) {
  AimSecantResult r;
  r.converged = best_err < kAimLoose;
  r.x = bx;
  r.y = by;
  r.residual = best_err;
  return r;
}

// The secant core.  Stage A looks for a start whose ray reaches the stop;
// stage B iterates the decoupled secants with step halving.
NUVRIX_HD_CALL AimSecantResult ra_run_secant(SurfaceData const* surfaces, int n, double const* indices,
                                        double x, double y, double l, double m, double n_dir,
                                        double tx, double ty, double px, double py,
                                        int stop_surface, int recover, double first_semi_diameter,
                                        double stop_radius) {
  double const r = stop_radius > 0.0 ? stop_radius : 1.0;
  AimSecantResult res = {false, x, y, DBL_MAX};

  // Stage A: a start that reaches the stop.
  double cx = x, cy = y;
  RayTraceResult hit = ra_trace(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
  if (!hit.valid) {
    // Shrunken starts, the target point itself, the axis.
    double const ax[9] = {0.5 * x, 0.35 * x, 0.25 * x, 0.15 * x, 0.75 * x, 0.6 * x, px * r, 0.0, 0.1 * x};
    double const ay[9] = {0.5 * y, 0.35 * y, 0.25 * y, 0.15 * y, 0.75 * y, 0.6 * y, py * r, 0.0, 0.1 * y};
    for (int k = 0; k < 9 && !hit.valid; ++k) {
      cx = ax[k];
      cy = ay[k];
      hit = ra_trace(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
    }
  }
  if (!hit.valid) {
    if (recover == 0 || !(fabs(n_dir) < kAimSteepRay)) return res;
    for (int k = 0; k < 9 && !hit.valid; ++k) {
      cx = 0.0;
      cy = (-2.0 + 0.5 * k) * first_semi_diameter;
      hit = ra_trace(surfaces, n, indices, cx, cy, l, m, n_dir, stop_surface);
    }
    if (!hit.valid) return res;
  }

  // Stage B: the secants.
  RaErrors cur = ra_errors(hit, tx, ty);
  double bx = cx, by = cy, best_err = cur.err;
  if (ra_on_target(cur)) return AimSecantResult{true, cx, cy, cur.err};

  double const qx = fabs(cur.ex) > kAimStrict ? cx + kAimProbe : cx;
  double const qy = fabs(cur.ey) > kAimStrict ? cy + kAimProbe : cy;
  hit = ra_trace(surfaces, n, indices, qx, qy, l, m, n_dir, stop_surface);
  if (!hit.valid) return ra_secant_exit(bx, by, best_err);
  RaErrors prev = cur;
  double pxv = cx, pyv = cy;
  cur = ra_errors(hit, tx, ty);
  cx = qx;
  cy = qy;
  if (cur.err < best_err) {
    bx = cx;
    by = cy;
    best_err = cur.err;
  }

  for (int counter = 2; counter <= kAimLastCount; ++counter) {
    double const dx = ra_secant_value(cx, cur.ex, pxv, prev.ex) - cx;
    double const dy = ra_secant_value(cy, cur.ey, pyv, prev.ey) - cy;
    double t = 1.0, nx = cx, ny = cy;
    bool accepted = false;
    RaErrors cand = cur;
    for (int k = 0; k < kAimHalvings; ++k) {
      nx = fma(t, dx, cx);
      ny = fma(t, dy, cy);
      hit = ra_trace(surfaces, n, indices, nx, ny, l, m, n_dir, stop_surface);
      if (hit.valid) {
        cand = ra_errors(hit, tx, ty);
        if (cand.err < cur.err) {
          accepted = true;
          break;
        }
      }
      t *= 0.5;
    }
    if (!accepted) return ra_secant_exit(bx, by, best_err);
    if (cand.err < best_err) {
      bx = nx;
      by = ny;
      best_err = cand.err;
    }
    if (ra_on_target(cand)) return AimSecantResult{true, nx, ny, cand.err};
    if (counter == kAimLastCount) return ra_secant_exit(bx, by, best_err);
    prev = cur;
    pxv = cx;
    pyv = cy;
    cur = cand;
    cx = nx;
    cy = ny;
  }
  return ra_secant_exit(bx, by, best_err);
}

// Height at which a ray of the given direction passes through the centre of
// the stop, found without any knowledge of the system: a coarse scan in y
// over widening half-widths, then a secant on the height at the stop.
NUVRIX_HD_CALL ChiefRayStart ra_find_chief_ray_robust(SurfaceData const* surfaces, int n,
                                                 double const* indices, double l, double m,
                                                 double n_dir, double stop_radius,
                                                 int stop_surface) {
  ChiefRayStart res = {0.0, 0.0, 0};
  if (n_dir < 0.0) return res;
  double sd_max = 10.0;
  for (int i = 1; i <= n - 1; ++i) {
    if (surfaces[i].semi_diameter > sd_max) sd_max = surfaces[i].semi_diameter;
  }

  // Scan: 81 rays per half-width, 2 to 32 times the largest semi-diameter.
  double best_dist = DBL_MAX, best_h = 0.0;
  bool any = false;
  double const widths[5] = {2.0, 4.0, 8.0, 16.0, 32.0};
  for (int k = 0; k < 5; ++k) {
    if (best_dist < 0.5 * stop_radius) break;
    double const w = widths[k] * sd_max;
    for (int i = 0; i <= 80; ++i) {
      double const h = (2.0 * i / 80.0 - 1.0) * w;
      RayTraceResult const hit = ra_trace(surfaces, n, indices, 0.0, h, l, m, n_dir, stop_surface);
      if (!hit.valid) continue;
      double const d = sqrt(fma(hit.x, hit.x, hit.y * hit.y));
      if (d < best_dist) {
        best_dist = d;
        best_h = h;
        any = true;
      }
    }
  }
  if (!any) return res;

  // Refine by a secant on f(y) = -hit.y.
  double y0 = best_h;
  RayTraceResult hit = ra_trace(surfaces, n, indices, 0.0, y0, l, m, n_dir, stop_surface);
  double f0 = hit.valid ? -hit.y : 0.0;
  double y1 = y0 + 0.01 * sd_max;
  double ref_dist = best_dist, ref_h = best_h;
  hit = ra_trace(surfaces, n, indices, 0.0, y1, l, m, n_dir, stop_surface);
  double f1 = f0;
  if (hit.valid) {
    f1 = -hit.y;
    if (fabs(hit.y) < best_dist) {
      ref_dist = fabs(hit.y);
      ref_h = y1;
    }
  }
  for (int it = 0; it < 50; ++it) {
    double const dy = y1 - y0;
    if (fabs(dy) < kAimFlat) break;
    double const s = (f1 - f0) / dy;
    if (fabs(s) < kAimFlat) break;
    double const y2 = y1 - f1 / s;
    hit = ra_trace(surfaces, n, indices, 0.0, y2, l, m, n_dir, stop_surface);
    if (!hit.valid) break;
    double const rad = sqrt(fma(hit.x, hit.x, hit.y * hit.y));
    if (rad < ref_dist) {
      ref_dist = rad;
      ref_h = y2;
    }
    if (fabs(hit.y) < kAimStrict && fabs(hit.x) < kAimStrict) {
      res.y = y2;
      res.found = 1;
      return res;
    }
    y0 = y1;
    f0 = f1;
    y1 = y2;
    f1 = -hit.y;
  }
  res.y = ref_h;
  res.found = (ref_dist < 0.1 * stop_radius || ref_dist < 1.1 * best_dist) ? 1 : 0;
  return res;
}

}  // namespace detail

// Aims a ray of direction (l, m, n_dir) at the point (px, py) * stop_radius
// of the stop, starting the search at (x, y) on the tangent plane of
// surface 1.  With `recover` (aiming mode 2) a failed first search goes on
// through a ladder of other starts, including the wide-angle chief ray.
NUVRIX_HD_CALL AimToStopResult aim_to_stop(SurfaceData const* surfaces, int n, double const* indices,
                                      double x, double y, double l, double m, double n_dir,
                                      double px, double py, double stop_radius, int stop_surface,
                                      int recover) {
  AimToStopResult res = {0.0, 0.0, 0};
  double const tx = px * stop_radius, ty = py * stop_radius;
  double const r = stop_radius > 0.0 ? stop_radius : 1.0;
  double const fsd = detail::ra_first_semi_diameter(surfaces, n);

  AimSecantResult const first = detail::ra_run_secant(
      surfaces, n, indices, x, y, l, m, n_dir, tx, ty, px, py, stop_surface, recover, fsd,
      stop_radius);
  double bx = first.x, by = first.y, best = first.residual;
  bool note = first.converged;
  res.x = first.x;
  res.y = first.y;
  if (first.converged) {
    RayTraceResult const whole =
        detail::ra_trace(surfaces, n, indices, first.x, first.y, l, m, n_dir, n - 1);
    if (whole.valid || recover == 0) {
      res.converged = 1;
      return res;
    }
  } else if (recover == 0) {
    res.converged = first.residual < kAimLoose ? 1 : 0;
    return res;
  }
  if (!(first.residual > kAimStrict)) {
    res.converged = note ? 1 : (first.residual < kAimLoose ? 1 : 0);
    return res;
  }

  // The ladder of other starts.
  double sx[8] = {0.0, px * r, 0.5 * x, 2.0 * x, x, 0.0, 0.0, 0.0};
  double sy[8] = {0.0, py * r, 0.5 * y, 2.0 * y, 0.0, y, 0.0, 0.0};
  int starts = 6;
  ChiefRayStart const chief =
      detail::ra_find_chief_ray_robust(surfaces, n, indices, l, m, n_dir, stop_radius, stop_surface);
  if (chief.found) {
    sx[6] = chief.x + 0.3 * fsd * px;
    sy[6] = chief.y + 0.3 * fsd * py;
    sx[7] = chief.x;
    sy[7] = chief.y;
    starts = 8;
  }
  for (int k = 0; k < starts; ++k) {
    AimSecantResult const run = detail::ra_run_secant(
        surfaces, n, indices, sx[k], sy[k], l, m, n_dir, tx, ty, px, py, stop_surface, recover,
        fsd, stop_radius);
    if (run.converged) {
      RayTraceResult const whole =
          detail::ra_trace(surfaces, n, indices, run.x, run.y, l, m, n_dir, n - 1);
      if (whole.valid) {
        res.x = run.x;
        res.y = run.y;
        res.converged = 1;
        return res;
      }
    }
    if (run.residual < best) {
      bx = run.x;
      by = run.y;
      best = run.residual;
      if (run.converged) note = true;
    }
  }
  res.x = bx;
  res.y = by;
  res.converged = note ? 1 : (best < kAimLoose ? 1 : 0);
  return res;
}

}  // namespace nuvrix
