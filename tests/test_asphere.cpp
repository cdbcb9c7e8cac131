// Even-asphere surfaces: sag, normal, the fixed-point intersection walk.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/systems.hpp"
#include "trace/trace_core.hpp"

namespace {

double sag(double r2, double c, double k, double const* a) {
  return nuvrix::even_asphere_sag_t<double>(r2, c, a, k);
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
  nuvrix_test::System sys = nuvrix_test::eight_term_asphere();
  SurfaceData const& s = sys.surfaces[1];
  for (double x : {0.0, 2.0, -5.0}) {
    for (double y : {0.5, 6.0}) {
      nuvrix::RayStateT<double> ray = {x, y, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0};
      nuvrix::even_asphere_normal_t<double>(ray, s.curvature, s.conic, s.coefficients);
      double const h = 1e-6;
      auto z = [&](double px, double py) {
        return sag(px * px + py * py, s.curvature, s.conic, s.coefficients);
      };
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
  nuvrix_test::System const sys = nuvrix_test::eight_term_asphere();
  SurfaceData const& s = sys.surfaces[1];
  RayState states[256];
  for (double y : {-9.0, -4.0, 0.0, 3.0, 8.0}) {
    for (double m : {-0.1, 0.0, 0.2}) {
      RayTraceResult const r = nuvrix_trace_ray_full(sys.surfaces.data(), sys.count(), sys.row(),
                                                     states, 1, 0, 0.3, y, 0.0, m,
                                                     std::sqrt(1 - m * m), 0.0);
      ASSERT_EQ(r.valid, 1);
      RayState const& p = states[1];
      double const r2 = p.x * p.x + p.y * p.y;
      EXPECT_NEAR(sag(r2, s.curvature, s.conic, s.coefficients), p.z, 1e-12);
      // The signed distance from the vertex plane, along the ray.
      EXPECT_NEAR(p.sag_path, p.z / std::sqrt(1 - m * m), 1e-12);
      EXPECT_NEAR(std::sqrt(p.l * p.l + p.m * p.m + p.n * p.n), 1.0, 1e-15);
    }
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
  nuvrix_test::System conic = nuvrix_test::make_system({0.0, 30.0, 0.0}, {1e10, 5.0, 0.0}, {1.0, 1.5, 1.5});
  conic.surfaces[1].conic = k;
  nuvrix_test::System asph = conic;
  asph.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  RayTraceResult const a = nuvrix_trace_ray(conic.surfaces.data(), 3, conic.row(), 1, 1, 1.0, 7.0, l, m, n, 0);
  RayTraceResult const b = nuvrix_trace_ray(asph.surfaces.data(), 3, asph.row(), 1, 1, 1.0, 7.0, l, m, n, 0);
  EXPECT_EQ(a.x, b.x);
  EXPECT_EQ(a.y, b.y);
  EXPECT_EQ(a.z, b.z);
  EXPECT_EQ(a.nx, b.nx);
  EXPECT_EQ(a.ny, b.ny);
  EXPECT_EQ(a.nz, b.nz);
  EXPECT_EQ(a.l, b.l);
  EXPECT_NEAR(a.sag_path, b.sag_path, 1e-14);
}

TEST(EvenAsphere, PlaneStartBeyondTheConicRim) {
  // R = 10 and a parallel ray at 12 mm: the base conic is missed, the plane
  // start is taken, and the polynomial part is met.
  nuvrix_test::System sys = nuvrix_test::make_system({0.0, 10.0, 0.0}, {1e10, 50.0, 0.0}, {1.0, 1.0, 1.0});
  sys.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  sys.surfaces[1].coefficients[0] = 0.01;
  RayState states[256];
  RayTraceResult const r = nuvrix_trace_ray_full(sys.surfaces.data(), 3, sys.row(), states, 1, 1,
                                                 0.0, 12.0, 0.0, 0.0, 1.0, 0.0);
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
    nuvrix_test::System sys =
        nuvrix_test::make_system({0.0, radius, 0.0}, {5.0, 5.0, 0.0}, {1.0, 1.0, 1.0});
    sys.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
    sys.surfaces[1].coefficients[0] = 1e-3;
    for (double n : {0.0, 5e-16, 1e-15}) {
      double const m = std::sqrt(1.0 - n * n);
      RayTraceResult const r = nuvrix_trace_ray(sys.surfaces.data(), 3, sys.row(), 1, 0, 0.0,
                                                1.0, 0.0, m, n, 0.0);
      EXPECT_EQ(r.valid, 0) << radius << " " << n;
      EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
      EXPECT_EQ(r.violation, 1.0);
      EXPECT_EQ(r.failed_surface, 1);
      EXPECT_EQ(r.opl, 0.0);
      // Below 1e-15 there is no transfer either: the ray stays where it stood.
      if (n < 1e-15) {
        EXPECT_EQ(r.y, 1.0);
      }
    }
  }
}

TEST(EvenAsphere, SteepRaysConvergeWithAndWithoutDividedStep) {
  // |n| = 0.8 takes the undivided step, |n| just above it the divided one;
  // both walks end on the surface.
  nuvrix_test::System sys = nuvrix_test::make_system({0.0, 50.0, 0.0}, {1e10, 5.0, 0.0}, {1.0, 1.0, 1.0});
  sys.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  sys.surfaces[1].coefficients[0] = 2e-3;
  SurfaceData const& s = sys.surfaces[1];
  for (double n : {0.8, 0.8000001, 0.6}) {
    RayState states[256];
    RayTraceResult const r = nuvrix_trace_ray_full(sys.surfaces.data(), 3, sys.row(), states, 1,
                                                   1, 0.0, 2.0, 0.0, std::sqrt(1 - n * n), n, 0.0);
    ASSERT_EQ(r.valid, 1);
    EXPECT_NEAR(sag(r.x * r.x + r.y * r.y, s.curvature, s.conic, s.coefficients), r.z, 1e-12);
  }
}
