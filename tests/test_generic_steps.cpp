// The generic surface steps at T = double, chained into a trace, against the
// plain double trace.
#include <gtest/gtest.h>

#include <cmath>

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

RayTraceResult plain_trace(System const& sys, double x, double y, double l, double m, double n) {
  return nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), 1, 0, x, y, l, m, n, 0.0);
}

}  // namespace

TEST(GenericSteps, ConicStepsAtDoubleMatchPlainTraceBitForBit) {
  System const sys = nuvrix_test::cooke_triplet();
  for (double y : {-4.5, -1.0, 0.0, 2.5, 4.9}) {
    for (double m : {0.0, 0.24, 0.34}) {
      double const n = std::sqrt(1.0 - m * m);
      bool ok = false;
      RayStateT<double> const g = generic_trace(sys, 0.7, y, 0.0, m, n, ok);
      RayTraceResult const p = plain_trace(sys, 0.7, y, 0.0, m, n);
      ASSERT_EQ(ok, p.valid == 1);
      if (!ok) continue;
      EXPECT_EQ(g.x, p.x);
      EXPECT_EQ(g.y, p.y);
      EXPECT_EQ(g.z, p.z);
      EXPECT_EQ(g.l, p.l);
      EXPECT_EQ(g.m, p.m);
      EXPECT_EQ(g.n, p.n);
      EXPECT_EQ(g.nz, p.nz);
      EXPECT_EQ(g.sag_path, p.sag_path);
      EXPECT_EQ(g.opl, p.opl);
    }
  }
}

TEST(GenericSteps, MirrorMatrixAndThinLensDirectionsMatchPlainTrace) {
  System sys = nuvrix_test::make_system({0.0, -80.0, 0.0, 0.0, 0.0},
                                        {30.0, -20.0, -10.0, -15.0, 0.0}, {1, 1, 1, 1, 1});
  sys.surfaces[1].is_mirror = 1;
  sys.surfaces[1].conic = -0.3;
  sys.surfaces[2].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.2, -3.0, 0.02, 0.9};
  for (int k = 0; k < 4; ++k) sys.surfaces[2].coefficients[k] = abcd[k];
  sys.surfaces[3].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  sys.surfaces[3].focal_length = 25.0;
  for (double y : {-3.0, 0.0, 5.0}) {
    bool ok = false;
    RayStateT<double> const g = generic_trace(sys, 0.2, y, 0.0, 0.05, std::sqrt(1 - 0.0025), ok);
    RayTraceResult const p = plain_trace(sys, 0.2, y, 0.0, 0.05, std::sqrt(1 - 0.0025));
    ASSERT_TRUE(ok);
    ASSERT_EQ(p.valid, 1);
    EXPECT_EQ(g.x, p.x);
    EXPECT_EQ(g.y, p.y);
    EXPECT_EQ(g.l, p.l);
    EXPECT_EQ(g.m, p.m);
    EXPECT_EQ(g.n, p.n);
  }
}

TEST(GenericSteps, AsphereNewtonCorrectionIsZeroWithinTolerance) {
  System const sys = nuvrix_test::eight_term_asphere();
  for (double y : {-8.0, -2.0, 0.5, 7.0}) {
    for (double m : {-0.15, 0.0, 0.1}) {
      double const n = std::sqrt(1.0 - m * m);
      bool ok = false;
      RayStateT<double> const g = generic_trace(sys, 0.4, y, 0.0, m, n, ok);
      RayTraceResult const p = plain_trace(sys, 0.4, y, 0.0, m, n);
      ASSERT_TRUE(ok);
      ASSERT_EQ(p.valid, 1);
      EXPECT_NEAR(g.x, p.x, 1e-10);
      EXPECT_NEAR(g.y, p.y, 1e-10);
      EXPECT_NEAR(g.l, p.l, 1e-12);
      EXPECT_NEAR(g.m, p.m, 1e-12);
      EXPECT_NEAR(g.opl, p.opl, 1e-11);
      EXPECT_NEAR(g.sag_path, p.sag_path, 1e-11);
    }
  }
}
