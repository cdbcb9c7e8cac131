// Even-asphere surfaces: sag, normal, the fixed-point intersection walk.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/systems.hpp"
#include "trace/trace_core.hpp"

namespace {

using nuvrix_test::System;
using nuvrix_test::make_system;

double sag(double r2, double c, double k, double const* a) {
  return nuvrix::even_asphere_sag_t<double>(r2, c, a, k);
}
double sag_of(SurfaceData const& s, double x, double y) {
  return sag(x * x + y * y, s.curvature, s.conic, s.coefficients);
}
RayTraceResult trace(System const& s, RayState* st, int last, double x, double y, double m,
                     double n) {
  return nuvrix_trace_ray_full(s.surfaces.data(), s.count(), s.row(), st, 1, last, x, y, 0.0, m,
                               n, 0.0);
}
// One even asphere of radius `r` and first term `a0`, in air.
System single(double r, double a0, double t0 = 1e10) {
  System sys = make_system({0.0, r, 0.0}, {t0, 5.0, 0.0}, {1.0, 1.0, 1.0});
  sys.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  sys.surfaces[1].coefficients[0] = a0;
  return sys;
}

}  // namespace

TEST(EvenAsphere, SagMatchesConicPlusPolynomial) {
  double const a[8] = {1e-3, -2e-5, 0, 4e-9, 0, 0, 0, 1e-20};
  double const c = 1.0 / 40.0, k = -0.6;
  for (double r : {0.0, 1.0, 7.5, 15.0}) {
    double const r2 = r * r;
    double expect = r2 * c / (1.0 + std::sqrt(1.0 - (1.0 + k) * c * c * r2));
    for (int i = 0; i < 8; ++i) expect += a[i] * std::pow(r2, i + 1);
    EXPECT_NEAR(sag(r2, c, k, a), expect, 1e-13 * (1.0 + std::fabs(expect)));
  }
  // Beyond the rim of the base conic the radicand counts as zero.
  double const zero[8] = {};
  EXPECT_DOUBLE_EQ(sag(900.0, 0.1, 0.0, zero), 90.0);
}

TEST(EvenAsphere, NormalIsTheNormalisedSagGradient) {
  System const sys = nuvrix_test::eight_term_asphere();
  SurfaceData const& s = sys.surfaces[1];
  for (double x : {0.0, 2.0, -5.0}) {
    for (double y : {0.5, 6.0}) {
      nuvrix::RayStateT<double> ray = {x, y, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
      nuvrix::even_asphere_normal_t<double>(ray, s.curvature, s.conic, s.coefficients);
      double const h = 1e-6;
      auto z = [&](double px, double py) { return sag_of(s, px, py); };
      double const gx = (z(x + h, y) - z(x - h, y)) / (2 * h);
      double const gy = (z(x, y + h) - z(x, y - h)) / (2 * h);
      double const norm = std::sqrt(gx * gx + gy * gy + 1.0);
      EXPECT_NEAR(ray.nx, gx / norm, 1e-8);
      EXPECT_NEAR(ray.ny, gy / norm, 1e-8);
      EXPECT_NEAR(ray.nz, -1.0 / norm, 1e-8);
    }
  }
}

TEST(EvenAsphere, RaysLandOnTheSurface) {
  // The eight-term surface over a fan of rays, then steep rays on a strong
  // first term: |n| = 0.8 takes the undivided step, |n| just above it the divided one.
  System const sys = nuvrix_test::eight_term_asphere(), steep = single(50.0, 2e-3);
  RayState states[256];
  for (double y : {-9.0, -4.0, 0.0, 3.0, 8.0}) {
    for (double m : {-0.1, 0.0, 0.2}) {
      RayTraceResult const r = trace(sys, states, 0, 0.3, y, m, std::sqrt(1 - m * m));
      ASSERT_EQ(r.valid, 1);
      RayState const& p = states[1];
      EXPECT_NEAR(sag_of(sys.surfaces[1], p.x, p.y), p.z, 1e-12);
      // The signed distance from the vertex plane, along the ray.
      EXPECT_NEAR(p.sag_path, p.z / std::sqrt(1 - m * m), 1e-12);
      EXPECT_NEAR(std::sqrt(p.l * p.l + p.m * p.m + p.n * p.n), 1.0, 1e-15);
    }
  }
  for (double n : {0.8, 0.8000001, 0.6}) {
    RayTraceResult const r = trace(steep, states, 1, 0.0, 2.0, std::sqrt(1 - n * n), n);
    ASSERT_EQ(r.valid, 1);
    EXPECT_NEAR(sag_of(steep.surfaces[1], r.x, r.y), r.z, 1e-12);
  }
}

TEST(EvenAsphere, ZeroTermsLandOnTheConicAtOnce) {
  double const zero[8] = {};
  double const c = 1.0 / 30.0, k = -1.5;
  double x = 1.0, y = 7.0, z = 0.0;
  double const l = 0.05, m = -0.1, n = std::sqrt(1.0 - l * l - m * m);
  double t = 0.0;
  ASSERT_TRUE(nuvrix::detail::conic_distance_t<double>(x, y, z, l, m, n, c, 1.0 + k, t));
  double total = -1.0;
  ASSERT_TRUE(nuvrix::detail::asphere_walk(x, y, z, l, m, n, c, k, zero, total));
  EXPECT_EQ(total, t);  // no step beyond the conic start
  // The whole trace then agrees with the conic surface to the bit in position and normal.
  System conic = make_system({0.0, 30.0, 0.0}, {1e10, 5.0, 0.0}, {1.0, 1.5, 1.5});
  conic.surfaces[1].conic = k;
  System asph = conic;
  asph.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  RayTraceResult const a = nuvrix_trace_ray(conic.surfaces.data(), 3, conic.row(), 1, 1, 1.0, 7.0, l, m, n, 0);
  RayTraceResult const b = nuvrix_trace_ray(asph.surfaces.data(), 3, asph.row(), 1, 1, 1.0, 7.0, l, m, n, 0);
  EXPECT_TRUE(a.x == b.x && a.y == b.y && a.z == b.z && a.l == b.l);
  EXPECT_TRUE(a.nx == b.nx && a.ny == b.ny && a.nz == b.nz);
  EXPECT_NEAR(a.sag_path, b.sag_path, 1e-14);
}

TEST(EvenAsphere, PlaneStartBeyondTheConicRim) {
  // R = 10 and a parallel ray at 12 mm: the base conic is missed, the plane
  // start is taken, and the polynomial part is met.
  RayState states[256];
  RayTraceResult const r = trace(single(10.0, 0.01), states, 1, 0.0, 12.0, 0.0, 1.0);
  ASSERT_EQ(r.valid, 1);
  EXPECT_NEAR(r.z, 0.1 * 144.0 + 0.01 * 144.0, 1e-12);
  // The normal there is computed with the root held at 1e-15: nearly radial.
  EXPECT_NEAR(r.ny, 1.0, 1e-12);
  EXPECT_LT(r.nz, 0.0);
  EXPECT_GT(r.nz, -1e-12);
}

TEST(EvenAsphere, RayWithoutAxialDirectionMisses) {
  // A ray with |n| at most 1e-15 never closes the sag error: it misses on a
  // plane base, and also on a curved base whose conic it meets (here at the
  // vertex, tangentially, one ray height behind its start).
  for (double radius : {0.0, 20.0}) {
    System const sys = single(radius, 1e-3, 5.0);
    for (double n : {0.0, 5e-16, 1e-15}) {
      double const m = std::sqrt(1.0 - n * n);
      RayTraceResult const r = nuvrix_trace_ray(sys.surfaces.data(), 3, sys.row(), 1, 0, 0.0,
                                                1.0, 0.0, m, n, 0.0);
      EXPECT_TRUE(r.valid == 0 && r.status == NUVRIX_RAY_MISSED && r.violation == 1.0 &&
                  r.failed_surface == 1 && r.opl == 0.0)
          << radius << " " << n;
      EXPECT_TRUE(n >= 1e-15 || r.y == 1.0);  // below 1e-15 no transfer: the ray stays put
    }
  }
}
