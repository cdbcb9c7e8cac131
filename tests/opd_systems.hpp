// Systems and closed-form path differences for the OPD tests.  Objects are
// truly at infinity: these analyses count an object as infinite only when
// the first thickness is not a finite number.
//
// Tolerance.  OPD values are differences of paths of some 1e5 waves (100 mm
// at 0.5 um), where doubles lie 1.5e-11 apart; the few roundings of the
// trace, the reference terms and the closed forms stay below 1e-9 waves.
#pragma once

#include <cfloat>
#include <cmath>
#include <vector>

#include "tests/systems.hpp"

namespace opd_test {

using nuvrix_test::System;
constexpr double kRoundingWaves = 1e-9;
constexpr double kDegree = M_PI / 180.0;

// Pupil of radius a on surface 1, the stop; no aiming; field angles.
inline SystemConfig pupil_at_first_surface(double a) {
  SystemConfig cfg = {};
  cfg.aperture_value = 2.0 * a;
  cfg.stop_surface = 1;
  return cfg;
}

// Concave paraboloid of focal length f, image plane delta beyond the focus.
inline System paraboloid(double f, double delta) {
  System sys = nuvrix_test::parabolic_mirror(f);
  sys.surfaces[0].thickness = HUGE_VAL;
  sys.surfaces[1].thickness = -(f + delta);
  return sys;
}

// Ideal thin lens of focal length f, image plane delta beyond the focus.
inline System thin_lens(double f, double delta) {
  System sys = nuvrix_test::ideal_thin_lens(f);
  sys.surfaces[0].thickness = HUGE_VAL;
  sys.surfaces[1].thickness = f + delta;
  return sys;
}

// A plane face into a block of glass of length T reaching to the image; one
// index row per glass.
inline System glass_block(double T, std::vector<double> const& glass) {
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0}, {HUGE_VAL, T, 0.0}, {});
  for (double n : glass) sys.indices.insert(sys.indices.end(), {1.0, n, n});
  return sys;
}

// Glass block of 10 mm (rows: 1.5, then 1.2), then air and a hard aperture
// of 5.5 mm 5 mm on.  At 40 degrees the chief ray reaches it at 4.74 mm in
// the first glass and 6.34 mm in the second; at 50 degrees at 5.94 mm.
inline System clipped_block() {
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0, 0.0}, {HUGE_VAL, 10.0, 5.0, 0.0},
                                        {1.0, 1.5, 1.0, 1.0, 1.0, 1.2, 1.0, 1.0});
  sys.surfaces[2].aperture_radius = 5.5;
  return sys;
}

// A perfect cone whose focus lies delta before the reference point P on the
// chief ray: from the focus a ray at angle t runs delta cos t to the foot of
// the perpendicular from P, then sqrt(R^2 - delta^2 sin^2 t) to the sphere;
// the chief ray runs delta + R.  The difference, in mm:
inline double defocus_opd_mm(double delta, double cos_t, double sin_t, double R) {
  return delta * (1.0 - cos_t) + R - std::sqrt(R * R - delta * delta * sin_t * sin_t);
}

// Behind a mirror the rays run towards -z and the sphere's root
// S / (B - sqrt D) comes from a difference that cancels down to about
// R h^2 / 2 f^2 for a ray at height h: its 2 eps relative rounding grows to
// 8 R eps f^2 / h^2 mm.  The axial ray crosses the vertex and is exact.
inline double mirror_tolerance(double f, double h, double R, double lambda) {
  double const sphere = h == 0.0 ? 0.0 : 8.0 * std::fabs(R) * DBL_EPSILON * f * f / (h * h);
  return kRoundingWaves + sphere * 1000.0 / lambda;
}

// A plane wave at `field` degrees refracted into the glass block, n_w for the
// wavelength analysed, n_p for the primary one whose chief ray puts P at
// T tan b_p.  All its rays have the same phase through the block; the
// object term adds sin(field) y on surface 1; the sphere term is the forward
// distance u in glass from the ray's end e to the sphere of radius R about
// P, the larger root of |e + u d - P|^2 = R^2.  OPD in waves at (px, py):
struct GlassBlockWave {
  double T, a, R, lambda, field, n_p, n_w;
};
inline double glass_block_path_mm(GlassBlockWave const& g, double px, double py) {
  double const sin_f = std::sin(g.field * kDegree);
  double const sp = sin_f / g.n_p, sw = sin_f / g.n_w;
  double const cw = std::sqrt(1.0 - sw * sw);
  double const qx = px * g.a, qy = py * g.a + g.T * (sw / cw - sp / std::sqrt(1.0 - sp * sp));
  double const b = qy * sw;  // (e - P) . d
  double const u = -b + std::sqrt(b * b - qx * qx - qy * qy + g.R * g.R);
  return g.n_w * u + sin_f * py * g.a;
}
inline double glass_block_opd(GlassBlockWave const& g, double px, double py) {
  return -(glass_block_path_mm(g, px, py) - glass_block_path_mm(g, 0.0, 0.0)) * 1000.0 / g.lambda;
}

}  // namespace opd_test
