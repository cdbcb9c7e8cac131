// The launch of a real ray over dual numbers, shared by the analytic
// Jacobian of the CPU and the ray kernels of the device: the general front
// end's launch with the slots of the pupil and its position, and the
// correction that keeps an aimed launch on its aimed solution as the
// variables move.
#pragma once

#include "first_order/aim.hpp"
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

}  // namespace nuvrix
