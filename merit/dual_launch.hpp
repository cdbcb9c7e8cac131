// The launch of a real ray over dual numbers, shared by the analytic
// Jacobian of the CPU and the ray kernels of the device: the general front
// end's launch with the slots of the pupil and its position, and the
// correction that keeps an aimed launch on its aimed solution as the
// variables move.
#pragma once

#include "first_order/aim.hpp"
#include "first_order/aim_robust.hpp"
#include "first_order/paraxial.hpp"
#include "first_order/paraxial_solve.hpp"
#include "merit/dual_system.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {

using RayD = RayStateT<JDual>;
constexpr double kAimDeterminantGuard = 1e-30;  // a singular aim leaves the launch as it is

// Keeps the plain value and takes the slots of `slots`.
NUVRIX_HD JDual with_slots(double value, JDual const& slots) {
  JDual r = slots;
  r.value = value;
  return r;
}

NUVRIX_HD RayD make_launch(JDual const& x, JDual const& y, JDual const& l, JDual const& m,
                 JDual const& nn) {
  RayD r;
  r.x = x, r.y = y, r.z = JDual(0.0);
  r.l = l, r.m = m, r.n = nn;
  r.nx = r.ny = r.nz = r.sag_path = r.opl = JDual(0.0);
  r.status = 0;
  return r;
}

// The launch of the general front end over dual numbers: the same cases
// and steps as the plain one.
NUVRIX_HD RayD dual_launch(SystemConfig const& cfg, JDual const& t0, double field_y, double field_x,
                 JDual const& R, double px, double py, JDual const& ep) {
  auto normalised = [](JDual const& a, JDual const& b, JDual const& c, JDual& l, JDual& m,
                       JDual& nn) {
    JDual const len = sqrt(detail::dot3(a, b, c, a, b, c));
    l = a / len, m = b / len, nn = c / len;
  };
  JDual x(0.0), y(0.0), l(0.0), m(0.0), nn(1.0);
  if (!detail::is_infinite_distance(t0.value)) {
    if (cfg.telecentric_object != 0) {
      JDual const D = t0 + kTelecentricDistance;
      JDual const a = px * R / D, b = py * R / D;
      JDual const w = 1.0 / sqrt(1.0 + a * a + b * b);
      return make_launch(JDual(field_x), JDual(field_y), a * w, b * w, w);
    }
    if (cfg.field_type != 0) {
      JDual const d = t0 + ep;
      JDual const dx = field_x - px * R, dy = field_y - py * R;
      JDual const len = sqrt(detail::dot3(dx, dy, d, dx, dy, d));
      return make_launch(JDual(field_x), JDual(field_y), -dx / len, -dy / len, d / len);
    }
    double const tx = tan(field_x * kDegToRad), ty = tan(field_y * kDegToRad);
    JDual const d = t0 + ep;
    normalised(tx + px * R / d, ty + py * R / d, JDual(1.0), l, m, nn);
    return make_launch(-tx * d, -ty * d, l, m, nn);
  }
  x = px * R;
  y = py * R;
  if (cfg.field_type == 0) {
    normalised(JDual(tan(field_x * kDegToRad)), JDual(tan(field_y * kDegToRad)), JDual(1.0), l,
               m, nn);
    if (ep.value != 0.0 && fabs(nn.value) > kTiny) {
      x = x + (-ep) * l / nn;
      y = y + (-ep) * m / nn;
    }
  }
  if (cfg.ray_aiming == 2 && fabs(nn.value) < kAimSteepRay) x = y = JDual(0.0);
  return make_launch(x, y, l, m, nn);
}


// Moves the slots of an aimed launch onto the aimed solution: with G the
// miss at the stop against the target (px R, py R), the launch coordinates
// u obey G(u, p) = 0, so du/dp = -(dG/du)^-1 dG/dp.  Slots 8 and 9 hold
// dG/du; they are cleared afterwards.
NUVRIX_HD void correct_aimed(JDual& u1, JDual& u2, RayD const& at_stop, JDual const& R, double px,
                   double py) {
  JDual const& X = at_stop.x;
  JDual const& Y = at_stop.y;
  double const D = X.d[kAimSlotX] * Y.d[kAimSlotY] - X.d[kAimSlotY] * Y.d[kAimSlotX];
  if (fabs(D) >= kAimDeterminantGuard) {
    for (int k = 0; k < kPassVariables; ++k) {
      double const gx = X.d[k] - px * R.d[k], gy = Y.d[k] - py * R.d[k];
      u1.d[k] += -(Y.d[kAimSlotY] * gx - X.d[kAimSlotY] * gy) / D;
      u2.d[k] += -(X.d[kAimSlotX] * gy - Y.d[kAimSlotX] * gx) / D;
    }
  }
  u1.d[kAimSlotX] = u1.d[kAimSlotY] = u2.d[kAimSlotX] = u2.d[kAimSlotY] = 0.0;
}

// The plain aim of the ray of (field, pupil point) on `row`, as the front
// end aims it: u gets the launch direction (l, m, n) of a finite object or
// the launch point (x, y, 0) of an object at infinity.  False when the aim
// fails, and for the robust aim of a ray launched backwards, which is not
// differentiated.
NUVRIX_HD bool aim_plain_launch(SurfaceData const* surfaces, int n, double const* row,
                                SystemConfig const& cfg, double field_y, double field_x,
                                double pupil_radius, double ep, double stop_radius, double px,
                                double py, double u[3]) {
  detail::Launch const s =
      detail::fe_launch(surfaces, cfg, field_y, field_x, pupil_radius, px, py, ep);
  int const stop = cfg.stop_surface;
  double const t0 = surfaces[0].thickness;
  if (!detail::is_infinite_distance(t0)) {
    double const z_aim = t0 + ep;
    double const x_aim = s.x + s.l * z_aim / s.n, y_aim = s.y + s.m * z_aim / s.n;
    AimFiniteResult const a = aim_to_stop_finite(surfaces, n, row, s.x, s.y, x_aim, y_aim,
                                                 z_aim, px, py, stop_radius, stop);
    u[0] = a.l, u[1] = a.m, u[2] = a.n;
    return a.converged;
  }
  if (cfg.ray_aiming == 2 && s.n < 0.0) return false;
  AimToStopResult const a = aim_to_stop(surfaces, n, row, s.x, s.y, s.l, s.m, s.n, px, py,
                                        stop_radius, stop, cfg.ray_aiming == 2 ? 1 : 0);
  u[0] = a.x, u[1] = a.y, u[2] = 0.0;
  return a.converged;
}

// Seeds slots 8 and 9 on the coordinates that the plain aim solved: the
// launch direction (l, m) of a finite object, whose n follows, or the launch
// point (x, y) of an object at infinity.
NUVRIX_HD void seed_aimed_launch(RayD& launch, bool finite, double u1, double u2, double n_dir) {
  if (finite) {
    launch.l = make_variable<10>(u1, kAimSlotX);
    launch.m = make_variable<10>(u2, kAimSlotY);
    launch.n = with_slots(n_dir, sqrt(1.0 - launch.l * launch.l - launch.m * launch.m));
  } else {
    launch.x = make_variable<10>(u1, kAimSlotX);
    launch.y = make_variable<10>(u2, kAimSlotY);
  }
}

// Keeps a seeded aimed launch on its aimed solution, from the dual ray at
// the stop and the dual stop radius R.
NUVRIX_HD void follow_aimed_launch(RayD& launch, bool finite, RayD const& at_stop,
                                   JDual const& R, double px, double py) {
  if (finite) {
    correct_aimed(launch.l, launch.m, at_stop, R, px, py);
    JDual const nn = sqrt(1.0 - launch.l * launch.l - launch.m * launch.m);
    launch.n = with_slots(launch.n.value, nn);
  } else {
    correct_aimed(launch.x, launch.y, at_stop, R, px, py);
  }
}

// The paraxial marginal launch height of the aperture on `row`, with `ep`
// the entrance pupil position and `plain` its plain value: constant for an
// entrance pupil diameter, from the focal length for an F-number, from the
// pupil's distance for a numerical aperture.
template <typename U>
NUVRIX_HD JDual dual_pupil_radius_t(SystemConfig const& cfg, JDual const* curvatures,
                                    JDual const* thicknesses, U const* row,
                                    SurfaceData const* surfaces, int n,
                                    JDual const* focal_lengths, U const (*matrices)[8],
                                    JDual const& ep, double plain) {
  double const A = cfg.aperture_value;
  if (cfg.aperture_type == 0) return JDual(plain);
  if (cfg.aperture_type == 1) {
    JDual const f = calculate_efl_abcd_t<JDual, U>(curvatures, thicknesses, row, surfaces, n,
                                                   focal_lengths, matrices);
    return with_slots(plain, fabs(f) / (2.0 * A));
  }
  double n0 = n > 0 ? detail::val(row[0]) : 1.0;
  if (n0 < 1e-6) n0 = 1.0;
  double const s = fabs(A) / n0;
  double const tan_u =
      s >= 1.0 ? kNaSineClamp / sqrt(kNaClampRootRadicand) : s / sqrt(1.0 - s * s);
  JDual const distance =
      thicknesses[0] + (cfg.telecentric_object != 0 ? JDual(kTelecentricPupil) : ep);
  return with_slots(plain, fabs(distance) * tan_u);
}

}  // namespace nuvrix
