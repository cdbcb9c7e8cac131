// Systems and closed-form path differences for the OPD fan and wavefront map
// tests.  Every object here is truly at infinity: the OPD analyses count an
// object as infinite only when the first thickness is not a finite number.
#pragma once

#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace opd_test {

using nuvrix_test::System;

constexpr double kDegree = M_PI / 180.0;

inline void put_object_at_infinity(System& sys) { sys.surfaces[0].thickness = HUGE_VAL; }

// Pupil of radius a at surface 1 (the stop), no aiming, field angles.
inline SystemConfig pupil_at_first_surface(double a) {
  SystemConfig cfg = {};
  cfg.field_type = NUVRIX_FIELD_ANGLE;
  cfg.aperture_type = 0;
  cfg.aperture_value = 2.0 * a;
  cfg.stop_surface = 1;
  return cfg;
}

// Concave paraboloid of focal length f, the image plane delta beyond its
// focus (delta 0: at the focus).
inline System paraboloid(double f, double delta) {
  System sys = nuvrix_test::parabolic_mirror(f);
  put_object_at_infinity(sys);
  sys.surfaces[1].thickness = -(f + delta);
  return sys;
}

// Ideal thin lens of focal length f, the image plane delta beyond its focus.
inline System defocused_thin_lens(double f, double delta) {
  System sys = nuvrix_test::ideal_thin_lens(f);
  put_object_at_infinity(sys);
  sys.surfaces[1].thickness = f + delta;
  return sys;
}

// A plane entrance face and a block of glass of length T that reaches to the
// plane image surface; one index row per glass index given.
inline System glass_block(double T, std::vector<double> const& glass) {
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0}, {HUGE_VAL, T, 0.0}, {});
  for (double n : glass) {
    sys.indices.insert(sys.indices.end(), {1.0, n, n});
  }
  return sys;
}

// Geometry of a ray of a plane wave at `field` degrees refracted into glass n.
struct Refracted {
  double sin_b, cos_b, tan_b;
};
inline Refracted refracted(double field_degrees, double n) {
  double const s = std::sin(field_degrees * kDegree) / n;
  double const c = std::sqrt(1.0 - s * s);
  return {s, c, s / c};
}

// Forward distance u from the point e along the unit direction d to the
// sphere of radius R about p: the larger root of |e + u d - p|^2 = R^2.
// False when the line passes farther than R from p.
inline bool forward_to_sphere(double const e[3], double const d[3], double const p[3], double R,
                              double& u) {
  double const q[3] = {e[0] - p[0], e[1] - p[1], e[2] - p[2]};
  double const b = q[0] * d[0] + q[1] * d[1] + q[2] * d[2];
  double const c = q[0] * q[0] + q[1] * q[1] + q[2] * q[2] - R * R;
  double const disc = b * b - c;
  if (disc < 0.0) return false;
  u = -b + std::sqrt(disc);
  return true;
}

// Path difference in mm of a perfectly focused cone whose focus F lies a
// distance delta in front of the reference point P, on the chief ray: a ray
// at angle theta to the chief ray runs delta cos(theta) from F to the foot
// of the perpendicular from P and then the root of R^2 - (delta sin)^2 to
// the sphere, the chief ray delta + R.  Their difference is
//   delta (1 - cos theta) + R - sqrt(R^2 - delta^2 sin^2 theta),
// positive: the marginal path is shorter.
inline double defocus_opd_mm(double delta, double cos_t, double sin_t, double R) {
  return delta * (1.0 - cos_t) + R - std::sqrt(R * R - delta * delta * sin_t * sin_t);
}

// Angle of the ray at height h after the paraboloid of focal length f: it
// leaves the mirror point (h, -h^2 / 4f) for the focus (0, -f), a distance
// f + h^2 / 4f away.
inline void paraboloid_ray_angle(double f, double h, double& cos_t, double& sin_t) {
  double const sag = h * h / (4.0 * f);
  cos_t = (f - sag) / (f + sag);
  sin_t = h / (f + sag);
}

// Population mean and standard deviation of the values with mask 1.
inline void masked_moments(std::vector<double> const& v, std::vector<int> const& mask,
                           double& mean, double& sd, double& lo, double& hi) {
  double s = 0.0, n = 0.0;
  lo = 1e300;
  hi = -1e300;
  for (size_t k = 0; k < v.size(); ++k) {
    if (mask[k] != 1) continue;
    s += v[k];
    n += 1.0;
    lo = std::fmin(lo, v[k]);
    hi = std::fmax(hi, v[k]);
  }
  mean = s / n;
  double q = 0.0;
  for (size_t k = 0; k < v.size(); ++k) {
    if (mask[k] == 1) q += (v[k] - mean) * (v[k] - mean);
  }
  sd = std::sqrt(q / n);
}

}  // namespace opd_test
