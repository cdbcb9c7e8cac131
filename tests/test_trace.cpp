// Real-ray trace against closed forms and physical invariants.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <omp.h>

#include "api/nuvrix.h"
#include "tests/systems.hpp"
#include "trace/trace_core.hpp"

using nuvrix_test::System;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

RayTraceResult trace(System const& sys, double x, double y, double l, double m, double n,
                     int start = 1, int last = 0, double wavelength = 0.0) {
  return nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), start, last, x, y, l, m, n,
                          wavelength);
}
RayTraceResult trace_full(System const& sys, RayState* states, double y, double m, double n) {
  return nuvrix_trace_ray_full(sys.surfaces.data(), sys.count(), sys.row(), states, 1, 0, 0.0, y,
                               0.0, m, n, 0.0);
}
// The inner trace: apertures can be ignored and the history capped.
RayTraceResult trace_impl(System const& sys, double x, double y, RayState* states, int capacity,
                          bool ignore_apertures) {
  return nuvrix::detail::rt_trace_impl(sys.surfaces.data(), sys.count(), sys.row(), x, y, 0.0,
                                       0.0, 1.0, states, 1, 0, 0.0, capacity, ignore_apertures);
}

// Field-by-field bitwise equality (the padding of the record is not compared).
bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool same_result(RayTraceResult const& a, RayTraceResult const& b) {
  double const da[] = {a.x,  a.y,  a.z,        a.l,   a.m,           a.n,        a.nx,
                       a.ny, a.nz, a.sag_path, a.opl, a.phase_waves, a.violation};
  double const db[] = {b.x,  b.y,  b.z,        b.l,   b.m,           b.n,        b.nx,
                       b.ny, b.nz, b.sag_path, b.opl, b.phase_waves, b.violation};
  for (int k = 0; k < 13; ++k) {
    if (!same_bits(da[k], db[k])) return false;
  }
  return a.status == b.status && a.valid == b.valid && a.states_written == b.states_written &&
         a.failed_surface == b.failed_surface;
}

double norm3(double a, double b, double c) { return std::sqrt(a * a + b * b + c * c); }

// Plane surfaces in air: object, `count - 2` surfaces 1 mm apart, image.
System planes(double t0, int count = 3) {
  std::vector<double> radii(count, 0.0), thick(count, 1.0), index(count, 1.0);
  thick[0] = t0;
  thick[count - 1] = 0.0;
  return nuvrix_test::make_system(radii, thick, index);
}

// A failed ray: status, surface, margin (exact unless `tol` is given) and no path.
void failed_as(RayTraceResult const& r, int status, int surface, double violation,
               double tol = 0.0) {
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.status, status);
  EXPECT_EQ(r.failed_surface, surface);
  EXPECT_NEAR(r.violation, violation, tol);
  EXPECT_EQ(r.opl, 0.0);
}

}  // namespace

TEST(Trace, SphereIntersectionMatchesClosedFormAndSnell) {
  // A sphere of radius R, the object plane t0 in front, into glass n2.
  double const R = 25.0, t0 = 10.0, n2 = 1.6;
  System const sys = nuvrix_test::make_system({0.0, R, 0.0}, {t0, 10.0, 0.0}, {1.0, n2, n2});
  for (double y0 : {-8.0, -3.0, 0.5, 6.0}) {
    for (double angle : {-0.2, 0.0, 0.15}) {
      double const l = 0.05, m = std::sin(angle), d[3] = {l, m, std::sqrt(1.0 - l * l - m * m)};
      RayTraceResult const r = trace(sys, 1.0, y0, d[0], d[1], d[2], 1, 1);
      ASSERT_EQ(r.valid, 1);
      // |p0 + s d - C|^2 = R^2 with p0 = (1, y0, -t0), C = (0, 0, R); the nearer root.
      double const p[3] = {1.0, y0, -t0 - R};
      double const b = p[0] * d[0] + p[1] * d[1] + p[2] * d[2];
      double const s = -b - std::sqrt(b * b - (p[0] * p[0] + p[1] * p[1] + p[2] * p[2] - R * R));
      double const hit[3] = {r.x, r.y, r.z - R}, got_n[3] = {r.nx, r.ny, r.nz};
      double const out[3] = {r.l, r.m, r.n}, N[3] = {hit[0] / R, hit[1] / R, hit[2] / R};
      for (int k = 0; k < 3; ++k) {
        EXPECT_NEAR(hit[k], p[k] + s * d[k], 1e-12);
        EXPECT_NEAR(got_n[k], N[k], 1e-13);  // the normal along the radius, (p - C) / R
      }
      EXPECT_LT(r.nz, 0.0);
      // Snell in vector form: (d x N) = n2 (d' x N), and |d'| = 1.
      EXPECT_NEAR(norm3(r.l, r.m, r.n), 1.0, 1e-15);
      for (int k = 0; k < 3; ++k) {
        int const i = (k + 1) % 3, j = (k + 2) % 3;
        EXPECT_NEAR(d[i] * N[j] - d[j] * N[i], n2 * (out[i] * N[j] - out[j] * N[i]), 1e-13);
      }
      EXPECT_NEAR(r.opl, s, 1e-12);  // geometric path to the surface in air
    }
  }
}

TEST(Trace, TotalInternalReflectionReportsMargin) {
  // Light inside glass of index 1.5 meets a plane face into air at 45
  // degrees, beyond the critical 41.8: the margin is sin^2 - 1/n^2.
  System const sys = nuvrix_test::make_system({0.0, 0.0, 0.0}, {5.0, 5.0, 0.0}, {1.5, 1.0, 1.0});
  double const s = std::sqrt(0.5);
  RayState states[8];
  RayTraceResult const r = nuvrix_trace_ray_full(sys.surfaces.data(), 3, sys.row(), states, 1, 0,
                                                 0.0, 0.0, 0.0, s, s, 0.0);
  failed_as(r, NUVRIX_RAY_TIR, 1, 0.5 - 1.0 / 2.25, 1e-15);
  EXPECT_EQ(r.phase_waves, 0.0);
  EXPECT_EQ(r.states_written, 1);  // only the launch: the failing surface is not stored
  EXPECT_EQ(r.m, s);               // incoming direction
  EXPECT_NEAR(r.y, 5.0, 1e-15);
  EXPECT_EQ(r.nz, -1.0);
  // Just inside the critical angle the ray leaves, grazing.
  double const sc = 1.0 / 1.5 - 1e-9;
  RayTraceResult const ok = trace(sys, 0.0, 0.0, 0.0, sc, std::sqrt(1.0 - sc * sc));
  EXPECT_EQ(ok.valid, 1);
  EXPECT_NEAR(ok.m, 1.5 * sc, 1e-14);
}

TEST(Trace, ApertureMarginIsOnePercentOnTheSquaredHeight) {
  System sys = planes(1e10);
  sys.surfaces[1].aperture_radius = 2.0;
  EXPECT_EQ(trace(sys, 0.0, 2.0, 0, 0, 1).valid, 1);          // on the limit
  EXPECT_EQ(trace(sys, 0.0, 2.0 * 1.004, 0, 0, 1).valid, 1);  // r2 = 1.008016 limit^2
  RayTraceResult const r = trace(sys, 0.0, 2.0 * 1.005, 0, 0, 1);  // r2 = 1.010025 limit^2
  failed_as(r, NUVRIX_RAY_MISSED, 1, 0.005, 1e-13);
  EXPECT_EQ(trace(sys, 1.5, 1.5, 0, 0, 1).valid, 0);  // x counts as well as y
  // The comparison is strict: r2 = 101 against 10^2 * 1.01, which rounds to
  // 101 exactly, passes; the next representable heights above it fail.
  sys.surfaces[1].aperture_radius = 10.0;
  EXPECT_EQ(trace(sys, 10.0, 1.0, 0, 0, 1).valid, 1);
  RayTraceResult const over = trace(sys, 10.0, 1.0 + 1e-13, 0, 0, 1);
  failed_as(over, NUVRIX_RAY_MISSED, 1, std::sqrt(1.01) - 1.0, 1e-13);
  // Told to ignore apertures, the trace passes every ray.
  RayTraceResult const ignored = trace_impl(sys, 10.0, 5.0, nullptr, 0, true);
  EXPECT_EQ(ignored.valid, 1);
  EXPECT_EQ(ignored.y, 5.0);
}

TEST(Trace, ApertureLimitOrder) {
  // The limit on surface 1 for a ray at height 2, changed one field at a
  // time: hard radius, alternative radius, then the semi-diameter by its kind.
  System sys = planes(1e10);
  SurfaceData& s = sys.surfaces[1];
  auto passes = [&] { return trace(sys, 0, 2.0, 0, 0, 1).valid == 1; };
  s.semi_diameter = 1.0, s.aperture_kind = 1;
  EXPECT_FALSE(passes());  // fixed semi-diameter clips
  s.aperture_override = 1.0;
  EXPECT_TRUE(passes());  // overridden
  s.aperture_override = 0.0, s.aperture_radius = 3.0;
  EXPECT_TRUE(passes());  // the hard radius comes first
  s.aperture_radius = 0.0, s.aperture_radius_alt = 1.5;
  EXPECT_FALSE(passes());  // then the alternative radius
  EXPECT_NEAR(trace(sys, 0, 2.0, 0, 0, 1).violation, 2.0 / 1.5 - 1.0, 1e-15);
  s.aperture_radius_alt = 0.0, s.aperture_kind = 2;
  EXPECT_TRUE(passes());  // kind 2 never clips
  s.aperture_kind = 0;
  EXPECT_TRUE(passes());  // automatic at 100 % does not clip
  s.aperture_percent = 99.0;
  EXPECT_FALSE(passes());  // automatic below 100 % clips
  s.semi_diameter = 0.0, s.aperture_kind = 1;
  EXPECT_TRUE(passes());  // no semi-diameter: no limit
  // The image surface is never tested, with or without apertures.
  sys.surfaces[2].semi_diameter = sys.surfaces[2].aperture_radius = 0.1;
  sys.surfaces[2].aperture_kind = 1;
  EXPECT_EQ(trace(sys, 0, 5.0, 0, 0, 1).valid, 1);
}

TEST(Trace, FailuresLeaveTheRayWhereItStopped) {
  // Clipped by the aperture of a sphere of radius 20: the failing state,
  // on the sphere with its new normal (p - C) / R, is stored.
  System sys = nuvrix_test::make_system({0.0, 20.0, 0.0}, {5.0, 10.0, 0.0}, {1.0, 1.5, 1.5});
  sys.surfaces[1].aperture_radius = 1.0;
  RayState states[256];
  RayTraceResult r = trace_full(sys, states, 3.0, 0.0, 1.0);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.states_written, 2);
  EXPECT_EQ(states[1].status, NUVRIX_RAY_MISSED);
  EXPECT_EQ(states[1].y, 3.0);
  EXPECT_GT(states[1].z, 0.0);  // on the sphere, not the vertex plane
  EXPECT_EQ(r.n, 1.0);          // incoming direction
  EXPECT_NEAR(r.ny, 3.0 / 20.0, 1e-15);
  EXPECT_NEAR(r.sag_path, 20.0 - std::sqrt(400.0 - 9.0), 1e-13);
  // A ray 10 mm above the axis misses a sphere of radius 8: the point on the
  // vertex plane after the transfer, the incoming direction and the normal
  // of the surface before (a plane); nothing added for the missed surface.
  sys = nuvrix_test::make_system({0.0, 0.0, 8.0, 0.0}, {5.0, 4.0, 10.0, 0.0}, {1, 1, 1.5, 1.5});
  double const m = 0.3, n = std::sqrt(1.0 - m * m);
  r = trace(sys, 0.0, 8.5, 0.0, m, n);
  failed_as(r, NUVRIX_RAY_MISSED, 2, 1.0);
  EXPECT_NEAR(r.y, 8.5 + 9.0 * m / n, 1e-13);
  EXPECT_EQ(r.z, 0.0);
  EXPECT_EQ(r.m, m);
  EXPECT_EQ(r.nz, -1.0);
  EXPECT_NEAR(r.sag_path, 0.0, 1e-15);
}

TEST(Trace, InnerStartAndStopContinueTheSameRay) {
  // A plano-convex lens, a plane window and a biconvex lens.  A ray stopped
  // at the window and launched again from there (the window is a plane, so
  // the ray stands at z = 0 of its frame) ends where the whole trace ends.
  System const sys = nuvrix_test::make_system(
      {0.0, 30.0, 0.0, 0.0, 0.0, 25.0, -40.0, 0.0}, {20.0, 4.0, 3.0, 2.0, 6.0, 5.0, 35.0, 0.0},
      {1.0, 1.6, 1.0, 1.5, 1.0, 1.55, 1.0, 1.0});
  double const m = 0.08, n = std::sqrt(1.0 - m * m);
  RayTraceResult const whole = trace(sys, 0.3, 2.0, 0.0, m, n);
  RayTraceResult const front = trace(sys, 0.3, 2.0, 0.0, m, n, 1, 3);
  RayTraceResult const back = trace(sys, front.x, front.y, front.l, front.m, front.n, 4, 0);
  ASSERT_TRUE(whole.valid == 1 && front.valid == 1 && back.valid == 1);
  EXPECT_EQ(front.z, 0.0);
  EXPECT_TRUE(same_bits(back.x, whole.x) && same_bits(back.y, whole.y) &&
              same_bits(back.l, whole.l) && same_bits(back.m, whole.m) &&
              same_bits(back.n, whole.n));
  EXPECT_NEAR(front.opl + back.opl, whole.opl, 1e-12);
}

TEST(Trace, InfiniteThicknessSkipsTransferAndPath) {
  // |t| >= 1e10, infinite or NaN: no transfer, no path; 9.99e9 is carried.
  for (double t : {1e10, kInf, std::nan(""), -1e10, 9.99e9}) {
    RayTraceResult const r = trace(planes(t), 1.0, 2.0, 0.0, 0.6, 0.8, 1, 1);
    EXPECT_EQ(r.valid, 1);
    EXPECT_EQ(r.x, 1.0);
    if (t == 9.99e9) {
      EXPECT_DOUBLE_EQ(r.y, 2.0 + 9.99e9 * 0.75);
      EXPECT_DOUBLE_EQ(r.opl, 9.99e9 / 0.8);
    } else {
      EXPECT_EQ(r.y, 2.0) << t;
      EXPECT_EQ(r.opl, 0.0) << t;
    }
  }
}

TEST(Trace, MirrorsReflectWithPositivePaths) {
  // A paraboloid focuses a parallel beam with equal paths: the mirror sits
  // at z = -h^2 / (4 f), and the path from the vertex plane is the (signed)
  // sag plus mirror-to-focus.
  double const f = 100.0;
  System const sys = nuvrix_test::parabolic_mirror(f);
  RayState states[256];
  for (double h : {0.0, 1.0, 5.0, 12.5, 30.0}) {
    RayTraceResult const r = trace_full(sys, states, h, 0.0, 1.0);
    ASSERT_EQ(r.valid, 1) << h;
    EXPECT_NEAR(r.y, 0.0, 1e-12) << h;
    EXPECT_NEAR(r.x, 0.0, 1e-12);
    EXPECT_NEAR(states[1].z, -h * h / (4.0 * f), 1e-12);
    EXPECT_NEAR(r.opl + states[1].sag_path, f, 1e-11) << h;
    EXPECT_LT(r.n, 0.0);  // travelling back after the mirror
    EXPECT_NEAR(norm3(r.l, r.m, r.n), 1.0, 1e-15);
  }
  // A plane mirror 10 mm away, image 20 mm back: the path in reversed space counts positive.
  System plane = nuvrix_test::make_system({0.0, 0.0, 0.0}, {10.0, -20.0, 0.0}, {1.0, 1.0, 1.0});
  plane.surfaces[1].is_mirror = 1;
  RayTraceResult const r = trace(plane, 0.0, 0.0, 0.0, 0.0, 1.0);
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.n, -1.0);
  EXPECT_DOUBLE_EQ(r.opl, 30.0);
}

TEST(Trace, RefractionOnlyWhereTheIndexChangesAndNotAtTheImage) {
  // Equal indices leave the direction bit for bit.
  System const same = nuvrix_test::make_system({0.0, 15.0, 0.0}, {5.0, 10.0, 0.0}, {1.3, 1.3, 1.3});
  double const l = 0.1, m = -0.2, n = std::sqrt(1.0 - 0.05);
  RayTraceResult r = trace(same, 0.5, 1.5, l, m, n);
  EXPECT_EQ(r.valid, 1);
  EXPECT_TRUE(r.l == l && r.m == m && r.n == n);
  // The image surface keeps the direction of the last refraction; stopping
  // at surface 1 leaves the ray refracted into the first element.
  System const sys = nuvrix_test::cooke_triplet();
  double const nz = std::sqrt(1.0 - 0.01);
  RayState states[256];
  r = trace_full(sys, states, 3.0, 0.1, nz);
  ASSERT_EQ(r.valid, 1);
  EXPECT_EQ(r.states_written, 8);
  EXPECT_TRUE(r.l == states[6].l && r.m == states[6].m && r.n == states[6].n);
  EXPECT_TRUE(r.failed_surface == -1 && r.violation == 0.0 && r.status == 0);
  RayTraceResult const first = trace(sys, 0.0, 3.0, 0.0, 0.1, nz, 1, 1);
  EXPECT_EQ(first.m, states[1].m);
  EXPECT_LT(first.m, 0.1);
}

TEST(Trace, HistoryShorterThanTraceKeepsCounting) {
  System const sys = nuvrix_test::cooke_triplet();
  RayState states[5];
  std::memset(states, 0x7f, sizeof states);
  RayTraceResult const r = trace_impl(sys, 0.0, 2.0, states, 3, false);
  EXPECT_EQ(r.valid, 1);
  EXPECT_EQ(r.states_written, 8);
  EXPECT_TRUE(states[0].y == 2.0 && states[0].nz == 0.0 && states[0].sag_path == 0.0);
  EXPECT_NE(states[2].z, 0.0);  // surface 2 is curved
  unsigned char const* tail = reinterpret_cast<unsigned char const*>(&states[3]);
  for (size_t k = 0; k < 2 * sizeof(RayState); ++k) ASSERT_EQ(tail[k], 0x7f);
  // Without a history the count stays 0; with a zero capacity it counts on.
  EXPECT_EQ(trace(sys, 0.0, 2.0, 0.0, 0.0, 1.0).states_written, 0);
  EXPECT_EQ(trace_impl(sys, 0.0, 2.0, states, 0, false).states_written, 8);
}

TEST(Trace, BadInputFailsWithStatusNeverCrashes) {
  System const sys = nuvrix_test::cooke_triplet();
  double const nan = std::nan("");
  double const launches[5][5] = {{nan, 0, 0, 0, 1}, {0, kInf, 0, 0, 1}, {0, 0, nan, 0, 1},
                                 {0, 0, 0, 0, nan}, {0, 0, kInf, 0, 1}};
  for (auto const& a : launches) {
    failed_as(trace(sys, a[0], a[1], a[2], a[3], a[4]), NUVRIX_RAY_MISSED, 1, 1.0);
  }
  // n = 0: no transfer, and the plane misses.
  RayTraceResult r = trace(planes(5.0), 0.0, 1.0, 1.0, 0.0, 0.0);
  failed_as(r, NUVRIX_RAY_MISSED, 1, 1.0);
  EXPECT_EQ(r.y, 1.0);
  // last below start: success with the launch state.
  r = trace(sys, 0.25, 0.5, 0.0, 0.0, 1.0, 3, 2);
  EXPECT_TRUE(r.valid == 1 && r.x == 0.25 && r.z == 0.0 && r.failed_surface == -1);
  // A single surface, and no surface at all.
  EXPECT_EQ(nuvrix_trace_ray(sys.surfaces.data(), 1, sys.row(), 1, 0, 0, 1, 0, 0, 1, 0).valid, 1);
  EXPECT_EQ(nuvrix_trace_ray(nullptr, 0, nullptr, 1, 0, 0, 1, 0, 0, 1, 0).valid, 1);
  // Start before surface 1 fails; a last surface beyond the image is the image.
  r = trace(sys, 0.0, 1.0, 0.0, 0.0, 1.0, 0, 0);
  EXPECT_EQ(r.valid, 0);
  EXPECT_EQ(r.status, NUVRIX_RAY_MISSED);
  EXPECT_TRUE(same_result(trace(sys, 0.0, 1.0, 0.0, 0.0, 1.0, 1, 50),
                          trace(sys, 0.0, 1.0, 0.0, 0.0, 1.0, 1, 0)));
}

TEST(Trace, UnknownSurfaceTypesTraceAsConics) {
  System sys = nuvrix_test::cooke_triplet();
  sys.surfaces[2].conic = -0.5;
  RayTraceResult const ref = trace(sys, 0.0, 3.0, 0.0, 0.1, std::sqrt(0.99));
  for (int type : {3, 99, -7}) {
    System odd = sys;
    for (int i = 1; i < odd.count(); ++i) odd.surfaces[i].type = type;
    EXPECT_TRUE(same_result(trace(odd, 0.0, 3.0, 0.0, 0.1, std::sqrt(0.99)), ref)) << type;
  }
}

TEST(Trace, PhaseIsPathInWavesOfTheTracedWavelength) {
  System const sys = nuvrix_test::cooke_triplet();
  double const wl = 587.5618;
  RayTraceResult const r = trace(sys, 0.0, 3.0, 0.0, 0.0, 1.0, 1, 0, wl);
  ASSERT_EQ(r.valid, 1);
  EXPECT_NEAR(r.phase_waves, r.opl / (wl * 1e-6), 1e-9 * r.phase_waves);
  for (double none : {0.0, -5.0})
    EXPECT_EQ(trace(sys, 0.0, 3.0, 0.0, 0.0, 1.0, 1, 0, none).phase_waves, 0.0);
}

TEST(ThinLens, PathCorrectionGivesEqualPathsToTheFocus) {
  // Parallel rays meet at f with path f (the lens removes sqrt(f^2 + h^2) -
  // f); a point at 2f is imaged at 2f with the path 4f along every ray.
  double const f = 50.0;
  System const sys = nuvrix_test::ideal_thin_lens(f);
  for (double h : {0.0, 0.5, 3.0, 10.0, 20.0}) {
    RayTraceResult const r = trace(sys, 0.0, h, 0.0, 0.0, 1.0, 1, 0, 550.0);
    ASSERT_EQ(r.valid, 1);
    EXPECT_NEAR(r.y, 0.0, 1e-13);
    EXPECT_NEAR(r.opl, f, 1e-12) << h;
    EXPECT_NEAR(r.phase_waves, f / 550e-6, 1e-6);
  }
  System finite = sys;
  finite.surfaces[0].thickness = finite.surfaces[1].thickness = 2.0 * f;
  for (double h : {0.5, 4.0, 15.0}) {
    double const len = std::hypot(h, 2.0 * f);
    RayTraceResult const r = trace(finite, 0.0, 0.0, 0.0, h / len, 2.0 * f / len);
    ASSERT_EQ(r.valid, 1);
    EXPECT_NEAR(r.y, 0.0, 1e-12);
    EXPECT_NEAR(r.opl, 4.0 * f, 1e-12) << h;
  }
}

TEST(ThinLens, UnusableFocalLengthAndAxisRays) {
  // No correction and no bending for a zero, infinite or NaN focal length;
  // a ray through the centre goes undeviated; the aperture acts first.
  System sys = nuvrix_test::ideal_thin_lens(50.0);
  double const c = std::sqrt(0.99);
  for (double f : {0.0, kInf, std::nan("")}) {
    sys.surfaces[1].focal_length = f;
    RayTraceResult const r = trace(sys, 0.0, 4.0, 0.0, 0.1, c);
    EXPECT_EQ(r.m, 0.1);
    EXPECT_DOUBLE_EQ(r.opl, 50.0 / c);
  }
  sys.surfaces[1].focal_length = 50.0;
  RayTraceResult const axis = trace(sys, 0.0, 0.0, 0.0, 0.1, c);
  EXPECT_NEAR(axis.m / axis.n, 0.1 / c, 1e-15);
  EXPECT_DOUBLE_EQ(axis.opl, 50.0 / c);
  sys.surfaces[1].aperture_radius = 1.0;
  RayTraceResult const clipped = trace(sys, 0.0, 2.0, 0.0, 0.0, 1.0);
  EXPECT_EQ(clipped.valid, 0);
  EXPECT_EQ(clipped.n, 1.0);
}

TEST(MatrixSurface, ActsOnHeightAndTangentAfterTheApertureTest) {
  System sys = planes(1e10);
  sys.surfaces[1].type = NUVRIX_SURFACE_MATRIX;
  auto set = [&](double a, double b, double c, double d) {
    double const e[4] = {a, b, c, d};
    std::memcpy(sys.surfaces[1].coefficients, e, sizeof e);
  };
  // The unit matrix keeps position and tangents and turns a backward ray forward.
  set(1.0, 0.0, 0.0, 1.0);
  RayTraceResult const r = trace(sys, 0.5, 2.0, 0.0, 0.6, -0.8, 1, 1);
  ASSERT_EQ(r.valid, 1);
  EXPECT_TRUE(r.x == 0.5 && r.y == 2.0 && r.n > 0.0);
  EXPECT_NEAR(r.m / r.n, -0.75, 1e-15);
  EXPECT_NEAR(r.m, -0.6, 1e-15);
  // A telescope-like matrix: h' = 2 h + 3 t, t' = 0.1 h + 0.5 t, no path.
  set(2.0, 3.0, 0.1, 0.5);
  double const m = 0.2 / std::sqrt(1.04), n = 1.0 / std::sqrt(1.04);
  RayTraceResult const s = trace(sys, 0.0, 1.0, 0.0, m, n, 1, 1);
  EXPECT_NEAR(s.y, 2.0 * 1.0 + 3.0 * 0.2, 1e-14);
  EXPECT_NEAR(s.m / s.n, 0.1 * 1.0 + 0.5 * 0.2, 1e-14);
  EXPECT_EQ(s.opl, 0.0);
  // The aperture is tested at the incoming height: h = 1 passes a limit of
  // 1.2 although h' = 2.6 would not.
  sys.surfaces[1].aperture_radius = 1.2;
  EXPECT_EQ(trace(sys, 0.0, 1.0, 0.0, m, n, 1, 1).valid, 1);
  RayTraceResult const clipped = trace(sys, 0.0, 1.3, 0.0, m, n, 1, 1);
  EXPECT_EQ(clipped.valid, 0);
  EXPECT_EQ(clipped.y, 1.3);
}

TEST(ModelGlass, IndexFollowsNdAndAbbeNumber) {
  double const nd = 1.62041, vd = 60.32;
  double const n_d = nuvrix::model_index<double>(587.5618, nd, vd, 0.0);
  double const n_f = nuvrix::model_index<double>(486.1327, nd, vd, 0.0);
  double const n_c = nuvrix::model_index<double>(656.2725, nd, vd, 0.0);
  EXPECT_NEAR(n_d, nd, 2e-4);
  EXPECT_NEAR((n_f - n_c) / ((nd - 1.0) / vd), 1.0, 0.02);  // the definition of the Abbe number
  EXPECT_GT(n_f, n_d);
  EXPECT_EQ(nuvrix::model_index<double>(550.0, 1.7, 0.0, 0.3), 1.7);
  EXPECT_EQ(nuvrix::model_index<double>(550.0, 1.7, 5e-13, 0.3), 1.7);
  // In the trace the model overrides the row only at a positive wavelength.
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0}, {1e10, 5.0, 0.0}, {1.0, 1.8, 1.8});
  sys.surfaces[1].model_glass = 1;
  sys.surfaces[1].model_nd = nd;
  sys.surfaces[1].model_vd = vd;
  double const s = 0.3, c = std::sqrt(1 - s * s);
  RayTraceResult const row = trace(sys, 0, 0, 0, s, c, 1, 1, 0.0);
  EXPECT_NEAR(row.m, s / 1.8, 1e-15);
  EXPECT_NEAR(trace(sys, 0, 0, 0, s, c, 1, 1, 486.1327).m, s / n_f, 1e-15);
  EXPECT_EQ(trace(sys, 0, 0, 0, s, c, 1, 1, -486.1327).m, row.m);
  // The model medium is also the one in front of the next surface: a second
  // plane into air (row entry 1.8 ignored) gives the launch direction back,
  // and the path inside the plate counts at the model index.
  sys.surfaces[2].thickness = 0.0;
  sys.surfaces.push_back(nuvrix_test::plain_surface(0.0, 0.0));
  sys.indices = {1.0, 1.8, 1.0, 1.0};
  RayTraceResult const out = trace(sys, 0, 0, 0, s, c, 1, 2, 486.1327);
  EXPECT_NEAR(out.m, s, 1e-15);
  EXPECT_NEAR(out.opl, 5.0 / std::sqrt(1.0 - (s / n_f) * (s / n_f)) * n_f, 1e-12);
  // Outside the array the medium is air.
  for (int i : {3, -1})
    EXPECT_EQ(nuvrix::detail::rt_medium_index(sys.surfaces.data(), 3, sys.row(), i, 500.0), 1.0);
}

// Many rays in one call: each result the bits of the single trace, at any
// team size, failures included; nothing touched without rays.
TEST(Trace, ManyRaysEqualTheirSingleTraces) {
  System sys = nuvrix_test::cooke_triplet();
  sys.surfaces[3].semi_diameter = 4.0, sys.surfaces[3].aperture_kind = 1;  // clips some rays
  int const count = 501;
  std::vector<double> launches;
  for (int k = 0; k < count; ++k) {
    double const y = -7.0 + 14.0 * k / (count - 1), m = 0.3 * std::sin(0.7 * k);
    launches.insert(launches.end(), {0.1 * std::cos(k), y, 0.0, m, std::sqrt(1.0 - m * m)});
  }
  std::vector<RayTraceResult> many(count);
  for (int threads : {1, 2}) {
    omp_set_num_threads(threads);
    ASSERT_EQ(nuvrix_trace_rays(sys.surfaces.data(), sys.count(), sys.row(), 1, 0,
                                launches.data(), count, 587.6, many.data()),
              0);
    int failed = 0;
    for (int k = 0; k < count; ++k) {
      double const* u = &launches[5 * k];
      RayTraceResult const one = nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), 1,
                                                  0, u[0], u[1], u[2], u[3], u[4], 587.6);
      RayTraceResult const& got = many[k];
      double const want_d[13] = {one.x, one.y, one.z, one.l, one.m, one.n, one.nx, one.ny,
                                 one.nz, one.sag_path, one.opl, one.phase_waves, one.violation};
      double const got_d[13] = {got.x, got.y, got.z, got.l, got.m, got.n, got.nx, got.ny,
                                got.nz, got.sag_path, got.opl, got.phase_waves, got.violation};
      ASSERT_EQ(std::memcmp(want_d, got_d, sizeof want_d), 0) << k;
      ASSERT_EQ(one.status, got.status);
      ASSERT_EQ(one.valid, got.valid);
      ASSERT_EQ(one.failed_surface, got.failed_surface);
      failed += one.valid == 0;
    }
    EXPECT_GT(failed, 0);
  }
  omp_set_num_threads(omp_get_num_procs());
  EXPECT_EQ(nuvrix_trace_rays(sys.surfaces.data(), sys.count(), sys.row(), 1, 0, nullptr, 0,
                              587.6, nullptr),
            0);
  EXPECT_EQ(nuvrix_trace_rays(sys.surfaces.data(), sys.count(), nullptr, 1, 0, launches.data(),
                              1, 587.6, many.data()),
            -1);
}
