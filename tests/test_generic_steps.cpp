// The generic surface steps at T = double, chained into a trace, against the
// plain double trace.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "tests/systems.hpp"
#include "trace/trace_core.hpp"

namespace {

using nuvrix::RayStateT;
using nuvrix_test::System;

// A trace assembled from the generic steps (no apertures, no model glass).
RayStateT<double> generic_trace(System const& sys, double x, double y, double l, double m,
                                double n, bool& ok) {
  RayStateT<double> ray = {x, y, 0, l, m, n, 0, 0, 0, 0, 0, 0};
  int const last = sys.count() - 1;
  double const* row = sys.row();
  ok = false;
  for (int i = 1; i <= last; ++i) {
    SurfaceData const& s = sys.surfaces[i];
    double const t = sys.surfaces[i - 1].thickness;
    double const xo = ray.x, yo = ray.y, zo = ray.z;
    bool const infinite = nuvrix::detail::is_infinite_distance(t);
    if (!infinite && std::fabs(ray.n) >= 1e-15) {
      double const d = (t - ray.z) / ray.n;
      ray.x = std::fma(d, ray.l, ray.x);
      ray.y = std::fma(d, ray.m, ray.y);
      ray.z = 0.0;
    }
    if (s.type == NUVRIX_SURFACE_EVEN_ASPHERE) {
      if (!nuvrix::intersect_even_asphere_t<double>(ray, s.curvature, s.conic, s.coefficients)) {
        return ray;
      }
    } else {
      if (!nuvrix::detail::intersect_conic_t<double>(ray, s.curvature, s.conic)) return ray;
      if (std::fabs(s.curvature) >= 1e-15) {
        nuvrix::detail::conic_normal_t<double>(ray, s.curvature, s.conic);
      }
    }
    if (!infinite) {
      double const dx = ray.x - xo, dy = ray.y - yo, dz = ray.z + t - zo;
      double d = std::sqrt(nuvrix::detail::dot3(dx, dy, dz, dx, dy, dz));
      if (!(sys.surfaces[i - 1].is_mirror && t < 0) && dz * ray.n < 0) d = -d;
      ray.opl += d * row[i - 1];
    }
    if (i == last) break;
    if (s.type == NUVRIX_SURFACE_PARAXIAL_LENS) {
      nuvrix::detail::refract_paraxial_t<double, double>(ray, row[i - 1], row[i], s.focal_length);
    } else if (s.type == NUVRIX_SURFACE_MATRIX) {
      nuvrix::apply_abcd_generic(ray, s.coefficients);
    } else if (s.is_mirror) {
      nuvrix::detail::reflect_t<double>(ray);
    } else if (!nuvrix::detail::refract_t<double, double>(ray, row[i - 1], row[i])) {
      return ray;
    }
  }
  ok = true;
  return ray;
}

}  // namespace

TEST(GenericSteps, ChainedStepsAtDoubleMatchPlainTrace) {
  // Conic refraction bit for bit; mirror, matrix and thin lens in direction
  // and position bit for bit; the asphere's Newton correction within its tolerance.
  System mixed = nuvrix_test::make_system({0.0, -80.0, 0.0, 0.0, 0.0},
                                          {30.0, -20.0, -10.0, -15.0, 0.0}, {1, 1, 1, 1, 1});
  mixed.surfaces[1].is_mirror = 1;
  mixed.surfaces[1].conic = -0.3;
  mixed.surfaces[2].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.2, -3.0, 0.02, 0.9};
  for (int k = 0; k < 4; ++k) mixed.surfaces[2].coefficients[k] = abcd[k];
  mixed.surfaces[3].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  mixed.surfaces[3].focal_length = 25.0;
  struct Case {
    System sys;
    double x0;
    std::vector<double> ys, ms;
    double pos_tol, dir_tol, path_tol;  // path_tol < 0: paths not compared
    bool may_fail;
  };
  Case const cases[] = {
      {nuvrix_test::cooke_triplet(), 0.7, {-4.5, -1.0, 0.0, 2.5, 4.9}, {0.0, 0.24, 0.34}, 0, 0, 0,
       true},
      {mixed, 0.2, {-3.0, 0.0, 5.0}, {0.05}, 0, 0, -1, false},
      {nuvrix_test::eight_term_asphere(), 0.4, {-8.0, -2.0, 0.5, 7.0}, {-0.15, 0.0, 0.1}, 1e-10,
       1e-12, 1e-11, false}};
  for (Case const& c : cases) {
    for (double y : c.ys) {
      for (double m : c.ms) {
        double const n = std::sqrt(1.0 - m * m);
        bool ok = false;
        RayStateT<double> const g = generic_trace(c.sys, c.x0, y, 0.0, m, n, ok);
        RayTraceResult const p = nuvrix_trace_ray(c.sys.surfaces.data(), c.sys.count(),
                                                  c.sys.row(), 1, 0, c.x0, y, 0.0, m, n, 0.0);
        ASSERT_EQ(ok, p.valid == 1) << y << " " << m;
        ASSERT_TRUE(ok || c.may_fail);
        if (!ok) continue;
        EXPECT_NEAR(g.x, p.x, c.pos_tol);
        EXPECT_NEAR(g.y, p.y, c.pos_tol);
        EXPECT_NEAR(g.l, p.l, c.dir_tol);
        EXPECT_NEAR(g.m, p.m, c.dir_tol);
        EXPECT_NEAR(g.n, p.n, c.dir_tol);
        if (c.path_tol < 0) continue;
        EXPECT_NEAR(g.opl, p.opl, c.path_tol);
        EXPECT_NEAR(g.sag_path, p.sag_path, c.path_tol);
        EXPECT_TRUE(c.pos_tol > 0 || (g.z == p.z && g.nz == p.nz));
      }
    }
  }
}
