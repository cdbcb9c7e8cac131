// Ray aiming: the secant core, its fallbacks, the wide-angle chief-ray
// search, the robust and finite aims and the stop radius.  Every aimed ray
// is checked by tracing it to the stop and measuring the miss.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "first_order/aim.hpp"
#include "first_order/aim_robust.hpp"
#include "first_order/paraxial_solve.hpp"
#include "tests/systems.hpp"

using nuvrix_test::System;

namespace {

struct Direction {
  double l, m, n;
};
Direction at_angle(double degrees) {
  double const a = degrees * M_PI / 180.0;
  return {0.0, std::sin(a), std::cos(a)};
}

// The hit of a ray from (x, y) on the tangent plane of surface 1 at the stop.
RayTraceResult at_stop(System const& sys, int stop, double x, double y, Direction d) {
  return nuvrix::detail::rt_trace_impl(sys.surfaces.data(), sys.count(), sys.row(), x, y, d.l, d.m,
                                       d.n, nullptr, 1, stop, 0.0, 0, true);
}

// The paraxial entrance-pupil launch of an unaimed ray at an angle.
void paraxial_start(System const& sys, int stop, Direction d, double& x, double& y) {
  double const ep =
      nuvrix::compute_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), stop);
  x = -ep * d.l / d.n;
  y = -ep * d.m / d.n;
}

}  // namespace

TEST(Aim, CookeGridLandsOnTheStopWithinStrictTolerance) {
  System const sys = nuvrix_test::cooke_triplet();
  int const stop = nuvrix_test::kCookeStop;
  SystemConfig cfg = {};
  cfg.aperture_value = 10.0;
  cfg.stop_surface = stop;
  double const r = nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 5.0);
  for (double field : {0.0, 7.0, 14.0, 20.0}) {
    Direction const d = at_angle(field);
    double x0, y0;
    paraxial_start(sys, stop, d, x0, y0);
    for (double px = -1.0; px <= 1.0; px += 0.5) {
      for (double py = -1.0; py <= 1.0; py += 0.5) {
        if (px * px + py * py > 1.0) continue;
        AimToStopResult const a = nuvrix_aim_to_stop(sys.surfaces.data(), sys.count(), sys.row(),
                                                     stop, x0 + px * 5, y0 + py * 5, d.l, d.m, d.n,
                                                     px, py, r);
        ASSERT_EQ(a.converged, 1);
        RayTraceResult const hit = at_stop(sys, stop, a.x, a.y, d);
        EXPECT_NEAR(hit.x, px * r, 1e-10) << field << " " << px << " " << py;
        EXPECT_NEAR(hit.y, py * r, 1e-10) << field << " " << px << " " << py;
      }
    }
  }
}

TEST(Aim, RemovesVisiblePupilAberration) {
  System const sys = nuvrix_test::retrofocus();
  int const stop = nuvrix_test::kRetrofocusStop;
  Direction const d = at_angle(30.0);
  double x0, y0;
  paraxial_start(sys, stop, d, x0, y0);
  RayTraceResult const unaimed = at_stop(sys, stop, x0, y0, d);
  ASSERT_EQ(unaimed.valid, 1);
  EXPECT_GT(std::fabs(unaimed.y), 0.1);  // the paraxial pupil misses the stop centre
  AimToStopResult const a = nuvrix::aim_to_stop(sys.surfaces.data(), sys.count(), sys.row(), x0,
                                                y0, d.l, d.m, d.n, 0.0, 0.0, 3.0, stop, 0);
  ASSERT_EQ(a.converged, 1);
  RayTraceResult const hit = at_stop(sys, stop, a.x, a.y, d);
  EXPECT_LE(std::fabs(hit.x), 1e-10);
  EXPECT_LE(std::fabs(hit.y), 1e-10);
}

TEST(AimSecant, StartOnTargetReturnsAfterOneTrace) {
  System const sys = nuvrix_test::cooke_triplet();
  Direction const d = at_angle(14.0);
  AimToStopResult const a = nuvrix::aim_to_stop(sys.surfaces.data(), sys.count(), sys.row(), 0.0,
                                                -3.0, d.l, d.m, d.n, 0.0, 0.5, 4.0, 4, 0);
  ASSERT_EQ(a.converged, 1);
  nuvrix::AimSecantResult const again = nuvrix::detail::ra_run_secant(
      sys.surfaces.data(), sys.count(), sys.row(), a.x, a.y, d.l, d.m, d.n, 0.0, 2.0, 0.0, 0.5, 4,
      0, 10.0, 4.0);
  EXPECT_TRUE(again.converged);
  EXPECT_EQ(again.x, a.x);  // not moved: the start itself was on target
  EXPECT_EQ(again.y, a.y);
  EXPECT_LE(again.residual, std::sqrt(2.0) * 1e-10);
}

TEST(AimSecant, FallbackStartsAndFailure) {
  System const sys = nuvrix_test::cooke_triplet();
  // A start 60 mm off axis misses surface 1; a shrunken start reaches the stop.
  nuvrix::AimSecantResult const shrunk = nuvrix::detail::ra_run_secant(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 60.0, 0.0, 0.0, 1.0, 0.0, 2.0, 0.0, 1.0, 4,
      0, 10.0, 2.0);
  ASSERT_TRUE(shrunk.converged);
  RayTraceResult const hit = at_stop(sys, 4, shrunk.x, shrunk.y, {0.0, 0.0, 1.0});
  EXPECT_NEAR(hit.y, 2.0, 1e-10);
  // Nothing reaches the stop: the start comes back with the largest residual.
  System const flat = nuvrix_test::make_system({0, 0, 0, 0}, {1e10, 5, 5, 0}, {1, 1, 1, 1});
  nuvrix::AimSecantResult const none = nuvrix::detail::ra_run_secant(
      flat.surfaces.data(), 4, flat.row(), 1.5, 2.5, 1.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 2, 1, 10.0,
      1.0);
  EXPECT_FALSE(none.converged);
  EXPECT_EQ(none.x, 1.5);
  EXPECT_EQ(none.y, 2.5);
  EXPECT_EQ(none.residual, DBL_MAX);
  AimToStopResult const z = nuvrix::aim_to_stop(flat.surfaces.data(), 4, flat.row(), 1.5, 2.5,
                                                1.0, 0.0, 0.0, 0.0, 0.0, 1.0, 2, 1);
  EXPECT_EQ(z.converged, 0);
}

TEST(AimSecant, SteepRayRecoveryScanReachesTheStop) {
  // At 80 degrees (|n| 0.17 < 0.3) no start proportional to (0, 0) reaches
  // the stop of the fisheye; only the recovery scan in y does.
  System const sys = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  Direction const d = at_angle(80.0);
  nuvrix::AimSecantResult const plain = nuvrix::detail::ra_run_secant(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 0.0, d.l, d.m, d.n, 0.0, 0.0, 0.0, 0.0,
      stop, 0, 10.0, 2.0);
  EXPECT_FALSE(plain.converged);
  EXPECT_EQ(plain.residual, DBL_MAX);
  nuvrix::AimSecantResult const scan = nuvrix::detail::ra_run_secant(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 0.0, d.l, d.m, d.n, 0.0, 0.0, 0.0, 0.0,
      stop, 1, 10.0, 2.0);
  ASSERT_TRUE(scan.converged);
  RayTraceResult const hit = at_stop(sys, stop, scan.x, scan.y, d);
  EXPECT_LE(std::fabs(hit.y), 1e-10);
}

TEST(AimToStop, LadderWithChiefRaySearchRescuesWideField) {
  // At 60 degrees (|n| 0.5: no recovery scan inside the secant) every start
  // of the first run fails; the ladder's chief-ray search finds the way in.
  System const sys = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  Direction const d = at_angle(60.0);
  AimToStopResult const off = nuvrix::aim_to_stop(sys.surfaces.data(), sys.count(), sys.row(), 0.0,
                                                  0.0, d.l, d.m, d.n, 0.0, 1.0, 2.0, stop, 0);
  EXPECT_EQ(off.converged, 0);
  AimToStopResult const on = nuvrix::aim_to_stop(sys.surfaces.data(), sys.count(), sys.row(), 0.0,
                                                 0.0, d.l, d.m, d.n, 0.0, 1.0, 2.0, stop, 1);
  ASSERT_EQ(on.converged, 1);
  RayTraceResult const hit = at_stop(sys, stop, on.x, on.y, d);
  EXPECT_NEAR(hit.x, 0.0, 1e-10);
  EXPECT_NEAR(hit.y, 2.0, 1e-10);
  // The chief-ray search alone lands near the stop centre.
  nuvrix::ChiefRayStart const c = nuvrix::detail::ra_find_chief_ray_robust(
      sys.surfaces.data(), sys.count(), sys.row(), d.l, d.m, d.n, 2.0, stop);
  ASSERT_EQ(c.found, 1);
  EXPECT_EQ(c.x, 0.0);
  EXPECT_LT(std::fabs(at_stop(sys, stop, 0.0, c.y, d).y), 1e-9);
  // A backward ray finds nothing.
  EXPECT_EQ(nuvrix::detail::ra_find_chief_ray_robust(sys.surfaces.data(), sys.count(), sys.row(),
                                                     0.0, 0.3, -0.95, 2.0, stop)
                .found,
            0);
}

TEST(AimRobust, HundredDegreeFieldReachesTheStop) {
  System const sys = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  Direction const d = at_angle(100.0);  // travelling backwards, n < 0
  ASSERT_LT(d.n, 0.0);
  for (double py : {0.0, 1.0}) {
    AimToStopResult const a = nuvrix::aim_to_stop_robust(sys.surfaces.data(), sys.count(),
                                                         sys.row(), 0.0, -10.0, d.l, d.m, d.n,
                                                         0.0, py, 1.0, stop);
    ASSERT_EQ(a.converged, 1) << py;
    // Launch as the front ends do: 500 mm back from the crossing point on surface 1.
    double const c = sys.surfaces[1].curvature, y = a.y;
    double const sag = c * y * y / (1.0 + std::sqrt(1.0 - c * c * y * y));
    RayTraceResult const hit = nuvrix::trace_ray_robust_offset(
        sys.surfaces.data(), sys.count(), sys.row(), a.x - 500 * d.l, y - 500 * d.m,
        sag - 500 * d.n, d.l, d.m, d.n, 1, stop, 0.0, nullptr, 256, true);
    ASSERT_EQ(hit.valid, 1);
    EXPECT_NEAR(hit.y, py, 1e-10);
  }
}

TEST(AimFinite, ShortObjectDistanceAimsByDirection) {
  System const sys = nuvrix_test::finite_relay();
  int const stop = nuvrix_test::kFiniteRelayStop;
  for (double h : {0.0, 3.0, -6.0}) {
    for (double py : {-1.0, 0.0, 0.7}) {
      nuvrix::AimFiniteResult const a = nuvrix::aim_to_stop_finite(
          sys.surfaces.data(), sys.count(), sys.row(), 0.0, h, 0.0, 0.0, 60.0, 0.0, py, 4.0, stop);
      ASSERT_EQ(a.converged, 1);
      EXPECT_NEAR(a.l * a.l + a.m * a.m + a.n * a.n, 1.0, 1e-15);
      RayTraceResult const hit = nuvrix::detail::rt_trace_impl(
          sys.surfaces.data(), sys.count(), sys.row(), 0.0, h, a.l, a.m, a.n, nullptr, 1, stop, 0.0,
          0, true);
      EXPECT_NEAR(hit.y, py * 4.0, 1e-10);
      EXPECT_NEAR(hit.x, 0.0, 1e-10);
    }
  }
  // An aim point on the object point at z_aim 0 has no direction.
  nuvrix::AimFiniteResult const none = nuvrix::aim_to_stop_finite(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 4.0, stop);
  EXPECT_EQ(none.converged, 0);
  EXPECT_EQ(none.n, 1.0);
}

TEST(AimStopRadius, RealRayFirstThenParaxialFallback) {
  System sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = {};
  cfg.aperture_value = 10.0;
  cfg.stop_surface = 4;
  // Aperture-free: the real marginal ray's height at the stop.
  double const real = nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 5.0);
  RayTraceResult const ray = nuvrix::detail::rt_trace_impl(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 5.0, 0.0, 0.0, 1.0, nullptr, 1, 4, 0.0, 0,
      false);
  EXPECT_EQ(real, std::fabs(ray.y));
  // Clip the real ray: the paraxial height takes over.
  sys.surfaces[2].aperture_radius = 1.0;
  double const paraxial =
      nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 5.0);
  ParaxialRayState rows[16];
  nuvrix::trace_paraxial_ray(sys.surfaces.data(), sys.count(), sys.row(), 5.0, 0.0, rows);
  EXPECT_EQ(paraxial, std::fabs(rows[3].y));
  EXPECT_NE(paraxial, real);
  // An unreachable stop: half the entrance pupil diameter, or 5 mm.
  cfg.stop_surface = 40;
  EXPECT_EQ(nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 5.0), 5.0);
  cfg.aperture_value = 12.0;
  EXPECT_EQ(nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 6.0), 6.0);
  cfg.aperture_type = 1;
  EXPECT_EQ(nuvrix::aim_stop_radius(sys.surfaces.data(), sys.count(), sys.row(), &cfg, 6.0), 5.0);
}

TEST(AimRobust, FallbackHeightsAndTotalFailure) {
  // At 100 degrees a start 30 mm below the axis on the fisheye's front
  // meniscus misses (as does the same height with x = 0, the first
  // fallback); a shrunken height of the fallback list gets in, and the
  // secants then land on the target.
  System const sys = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  Direction const d = at_angle(100.0);
  RayTraceResult const miss = nuvrix::detail::ra_robust_launch(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, -30.0, d.l, d.m, d.n, stop);
  ASSERT_EQ(miss.valid, 0);
  AimToStopResult const a = nuvrix::aim_to_stop_robust(
      sys.surfaces.data(), sys.count(), sys.row(), 3.0, -30.0, d.l, d.m, d.n, 0.0, 0.5, 1.0, stop);
  ASSERT_EQ(a.converged, 1);
  RayTraceResult const hit = nuvrix::detail::ra_robust_launch(
      sys.surfaces.data(), sys.count(), sys.row(), a.x, a.y, d.l, d.m, d.n, stop);
  ASSERT_EQ(hit.valid, 1);
  EXPECT_NEAR(hit.x, 0.0, 1e-10);
  EXPECT_NEAR(hit.y, 0.5, 1e-10);
  // Far outside the lens even a tenth of the height misses: the input point
  // comes back, not converged.
  AimToStopResult const none = nuvrix::aim_to_stop_robust(
      sys.surfaces.data(), sys.count(), sys.row(), 3.0, -1e4, d.l, d.m, d.n, 0.0, 0.5, 1.0, stop);
  EXPECT_EQ(none.converged, 0);
  EXPECT_EQ(none.x, 3.0);
  EXPECT_EQ(none.y, -1e4);
}

TEST(AimFinite, AimPointOffTheLensFallsBackToTheAxis) {
  // The relay's first surface has a radius of 40 mm: an aim point 400 mm
  // off axis on the pupil plane, and its halves and quarter, give rays that
  // miss the sphere; the axis (0, 0) is the fallback that gets through.
  System const sys = nuvrix_test::finite_relay();
  int const stop = nuvrix_test::kFiniteRelayStop;
  nuvrix::AimFiniteResult const a = nuvrix::aim_to_stop_finite(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 2.0, 0.0, 400.0, 60.0, 0.0, 0.5, 4.0,
      stop);
  ASSERT_EQ(a.converged, 1);
  RayTraceResult const hit = nuvrix::detail::rt_trace_impl(
      sys.surfaces.data(), sys.count(), sys.row(), 0.0, 2.0, a.l, a.m, a.n, nullptr, 1, stop, 0.0,
      0, true);
  EXPECT_NEAR(hit.x, 0.0, 1e-10);
  EXPECT_NEAR(hit.y, 2.0, 1e-10);
}
