// Ray front ends: a ray named by its field point and normalised pupil
// coordinates becomes a launch point and direction, is aimed at the stop if
// asked, and is traced.
#pragma once

#include "api/types.hpp"
#include "first_order/aim.hpp"
#include "first_order/aim_robust.hpp"
#include "trace/robust_offset.hpp"
#include "trace/trace_core.hpp"

namespace nuvrix {

constexpr double kTelecentricDistance = 1e10;

namespace detail {

// A launch: start on the tangent plane of surface 1 (or at the object) and
// direction cosines.
struct Launch {
  double x, y, l, m, n;
};

NUVRIX_HD void set_normalised(Launch& s, double a, double b, double c) {
  double const len = sqrt(dot3(a, b, c, a, b, c));
  s.l = a / len;
  s.m = b / len;
  s.n = c / len;
}

// Moves a start on the entrance pupil plane back to the plane of surface 1.
NUVRIX_HD void shift_from_pupil_plane(Launch& s, double ep) {
  if (ep != 0.0 && fabs(s.n) > kTiny) {
    s.x += -ep * s.l / s.n;
    s.y += -ep * s.m / s.n;
  }
}

// The launch of the general front ends.
NUVRIX_HD Launch fe_launch(SurfaceData const* surfaces, SystemConfig const& config,
                           double field_value, double field_x, double R, double px, double py,
                           double ep) {
  Launch s = {0.0, 0.0, 0.0, 0.0, 1.0};
  double const t0 = surfaces[0].thickness;
  if (!is_infinite_distance(t0)) {
    if (config.telecentric_object != 0) {
      double const D = t0 + kTelecentricDistance;
      double const a = px * R / D, b = py * R / D;
      double const w = 1.0 / sqrt(1.0 + a * a + b * b);
      s = {field_x, field_value, a * w, b * w, w};
    } else if (config.field_type != 0) {
      double const d = t0 + ep;
      double const dx = field_x - px * R, dy = field_value - py * R;
      double const len = sqrt(dot3(dx, dy, d, dx, dy, d));
      s = {field_x, field_value, -dx / len, -dy / len, d / len};
    } else {
      double const tx = tan(field_x * kDegToRad), ty = tan(field_value * kDegToRad);
      double const d = t0 + ep;
      s.x = -tx * d;
      s.y = -ty * d;
      set_normalised(s, tx + px * R / d, ty + py * R / d, 1.0);
    }
    return s;
  }
  s.x = px * R;
  s.y = py * R;
  if (config.field_type == 0) {
    set_normalised(s, tan(field_x * kDegToRad), tan(field_value * kDegToRad), 1.0);
    shift_from_pupil_plane(s, ep);
  }
  if (config.ray_aiming == 2 && fabs(s.n) < kAimSteepRay) {
    s.x = 0.0;
    s.y = 0.0;
  }
  return s;
}

// Sag of the base conic of surface 1 at the radius of (x, y).
NUVRIX_HD double fe_first_surface_sag(SurfaceData const* surfaces, int n, double x, double y) {
  return ra_first_surface_sag(surfaces, n, sqrt(sum_sq2(x, y)));
}

// Aims and traces a launch as every general front end does.
NUVRIX_HD_CALL RayTraceResult fe_aim_and_trace(SurfaceData const* surfaces, int count,
                                          double const* indices, SystemConfig const& config,
                                          Launch s, double px, double py, double wavelength,
                                          double ep, int aim_flag, double stop_radius,
                                          int last_surface, RayState* states, int max_states) {
  RayTraceResult const none = {};
  int const stop = config.stop_surface;
  bool mark_failed = false;
  if (aim_flag != 0 && stop_radius > 0.0) {
    double const t0 = surfaces[0].thickness;
    if (!is_infinite_distance(t0)) {
      double const z_aim = t0 + ep;
      double const x_aim = s.x + s.l * z_aim / s.n, y_aim = s.y + s.m * z_aim / s.n;
      AimFiniteResult const a = aim_to_stop_finite(surfaces, count, indices, s.x, s.y, x_aim,
                                                   y_aim, z_aim, px, py, stop_radius, stop);
      if (!a.converged) return none;
      s.l = a.l;
      s.m = a.m;
      s.n = a.n;
    } else if (config.ray_aiming == 2 && s.n < 0.0) {
      AimToStopResult const a = aim_to_stop_robust(surfaces, count, indices, s.x, s.y, s.l, s.m,
                                                   s.n, px, py, stop_radius, stop);
      if (!a.converged) return none;
      double const sag = fe_first_surface_sag(surfaces, count, a.x, a.y);
      return trace_ray_robust_offset(surfaces, count, indices, a.x - kRobustLaunchBack * s.l,
                                     a.y - kRobustLaunchBack * s.m, sag - kRobustLaunchBack * s.n,
                                     s.l, s.m, s.n, 1, last_surface, wavelength, states,
                                     max_states, false);
    } else {
      AimToStopResult const a = aim_to_stop(surfaces, count, indices, s.x, s.y, s.l, s.m, s.n, px,
                                            py, stop_radius, stop, config.ray_aiming == 2 ? 1 : 0);
      s.x = a.x;
      s.y = a.y;
      mark_failed = !a.converged;
    }
  }
  RayTraceResult res = rt_trace_impl(surfaces, count, indices, s.x, s.y, s.l, s.m, s.n, states, 1,
                                     last_surface, wavelength, max_states, false);
  if (mark_failed) {
    res.valid = 0;
    res.failed_surface = -2;
    res.violation = 1.0;
  }
  return res;
}

// The launch of trace_full: finite whenever the object distance is a
// finite number, no field x, no telecentric case.
NUVRIX_HD Launch tf_launch(SurfaceData const* surfaces, SystemConfig const& config,
                           double field_value, double R, double px, double py, double ep) {
  Launch s = {0.0, 0.0, 0.0, 0.0, 1.0};
  double const t0 = surfaces[0].thickness;
  if (is_finite(t0)) {
    double const d = t0 + ep;
    if (config.field_type != 0) {
      double const dx = -px * R, dy = field_value - py * R;
      double const len = sqrt(dot3(dx, dy, d, dx, dy, d));
      s = {0.0, field_value, -dx / len, -dy / len, d / len};
    } else {
      double const t = tan(field_value * kDegToRad);
      s.x = 0.0;
      s.y = -t * d;
      set_normalised(s, px * R / d, t + py * R / d, 1.0);
    }
    return s;
  }
  s.x = px * R;
  s.y = py * R;
  if (config.field_type == 0) {
    double const a = field_value * kDegToRad;
    s.l = 0.0;
    s.m = sin(a);
    s.n = cos(a);
    shift_from_pupil_plane(s, ep);
  }
  return s;
}

NUVRIX_HD_CALL RayTraceResult tf_trace(SurfaceData const* surfaces, int count, double const* indices,
                                  Launch const& s, double wavelength, RayState* states) {
  return rt_trace_impl(surfaces, count, indices, s.x, s.y, s.l, s.m, s.n, states, 1, count - 1,
                       wavelength, kExportedHistory, false);
}

}  // namespace detail

// Traces the ray of field `field_value` (and `field_x`) through the pupil
// point (px, py), aimed at the stop when aim_flag is set and stop_radius
// positive, with a history array of max_states records.
NUVRIX_HD_CALL RayTraceResult trace_arbitrary_ray_full(SurfaceData const* surfaces, int surface_count,
                                                  double const* indices,
                                                  SystemConfig const* config, double field_value,
                                                  double pupil_radius, double px, double py,
                                                  double wavelength, double entrance_pupil_position,
                                                  int aim_flag, double stop_radius,
                                                  int last_surface, RayState* states,
                                                  int max_states, double field_x) {
  if (surface_count < 1) return RayTraceResult{};  // no object surface to launch from
  detail::Launch const s = detail::fe_launch(surfaces, *config, field_value, field_x,
                                             pupil_radius, px, py, entrance_pupil_position);
  return detail::fe_aim_and_trace(surfaces, surface_count, indices, *config, s, px, py,
                                  wavelength, entrance_pupil_position, aim_flag, stop_radius,
                                  last_surface, states, max_states);
}

// The same without a history.
NUVRIX_HD_CALL RayTraceResult trace_arbitrary_ray(SurfaceData const* surfaces, int surface_count,
                                             double const* indices, SystemConfig const* config,
                                             double field_value, double pupil_radius, double px,
                                             double py, double wavelength,
                                             double entrance_pupil_position, int aim_flag,
                                             double stop_radius, int last_surface,
                                             double field_x) {
  return trace_arbitrary_ray_full(surfaces, surface_count, indices, config, field_value,
                                  pupil_radius, px, py, wavelength, entrance_pupil_position,
                                  aim_flag, stop_radius, last_surface, nullptr, 0, field_x);
}

// The front end of the wavefront and OPD analyses: the secant core from the
// launch, a loose success accepted, to the image surface with 256 records.
NUVRIX_HD_CALL RayTraceResult trace_full(SurfaceData const* surfaces, int surface_count,
                                    double const* indices, SystemConfig const* config,
                                    double field_value, double pupil_radius, double px, double py,
                                    double wavelength, double entrance_pupil_position,
                                    int aim_flag, double stop_radius, RayState* states) {
  if (surface_count < 1) return RayTraceResult{};  // no object surface to launch from
  detail::Launch s = detail::tf_launch(surfaces, *config, field_value, pupil_radius, px, py,
                                       entrance_pupil_position);
  if (aim_flag != 0 && stop_radius > 0.0) {
    AimSecantResult const a = detail::ra_run_secant(
        surfaces, surface_count, indices, s.x, s.y, s.l, s.m, s.n, px * stop_radius,
        py * stop_radius, px, py, config->stop_surface, 0,
        detail::ra_first_semi_diameter(surfaces, surface_count), stop_radius);
    if (!(a.converged || a.residual < kAimLoose)) return RayTraceResult{};
    s.x = a.x;
    s.y = a.y;
  }
  return detail::tf_trace(surfaces, surface_count, indices, s, wavelength, states);
}

namespace legacy {

// The front end of the legacy operand evaluator: the full aim without
// recovery; a failed aim gives an all-zero result.
NUVRIX_HD_CALL RayTraceResult trace_full(SurfaceData const* surfaces, int surface_count,
                                    double const* indices, SystemConfig const* config,
                                    double field_value, double pupil_radius, double px, double py,
                                    double wavelength, double entrance_pupil_position,
                                    int aim_flag, double stop_radius, RayState* states) {
  if (surface_count < 1) return RayTraceResult{};  // no object surface to launch from
  detail::Launch s = detail::tf_launch(surfaces, *config, field_value, pupil_radius, px, py,
                                       entrance_pupil_position);
  if (aim_flag != 0 && stop_radius > 0.0) {
    AimToStopResult const a = aim_to_stop(surfaces, surface_count, indices, s.x, s.y, s.l, s.m,
                                          s.n, px, py, stop_radius, config->stop_surface, 0);
    if (!a.converged) return RayTraceResult{};
    s.x = a.x;
    s.y = a.y;
  }
  return detail::tf_trace(surfaces, surface_count, indices, s, wavelength, states);
}

}  // namespace legacy
}  // namespace nuvrix
