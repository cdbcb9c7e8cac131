// Ray front ends: launches checked as straight lines in an air gap (through
// the object point and the entrance-pupil point), the object-at-infinity
// threshold, the aim choices, how each failed aim is reported, the export.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "tests/systems.hpp"
#include "trace/front_ends.hpp"

using nuvrix_test::System;

namespace {

double const kDeg = M_PI / 180.0;

// Object space, two plane dummies 20 and 30 mm apart, the image: every ray
// is a straight line, and its hit on surface 1 carries the launch direction.
System air_gap(double t0) {
  return nuvrix_test::make_system({0, 0, 0, 0}, {t0, 20.0, 30.0, 0.0}, {1, 1, 1, 1});
}
SystemConfig config(int field_type, int stop, int aiming = 0) {
  SystemConfig c = {};
  c.field_type = field_type;
  c.aperture_value = 10.0;
  c.stop_surface = stop;
  c.ray_aiming = aiming;
  return c;
}
RayTraceResult arb(System const& s, SystemConfig const& c, double field, double R, double px,
                   double py, double ep, int aim = 0, double stop_r = 0.0, int last = 0,
                   double field_x = 0.0) {
  return nuvrix::trace_arbitrary_ray(s.surfaces.data(), s.count(), s.row(), &c, field, R, px, py,
                                     0.0, ep, aim, stop_r, last, field_x);
}
RayTraceResult full(bool legacy, System const& s, SystemConfig const& c, double field, double R,
                    double px, double py, double lambda, double ep, int aim = 0,
                    double stop_r = 0.0, RayState* h = nullptr) {
  auto fn = legacy ? nuvrix::legacy::trace_full : nuvrix::trace_full;
  return fn(s.surfaces.data(), s.count(), s.row(), &c, field, R, px, py, lambda, ep, aim, stop_r,
            h);
}

bool same_result(RayTraceResult const& a, RayTraceResult const& b) {
  using R = RayTraceResult;
  for (double R::*f : {&R::x, &R::y, &R::z, &R::l, &R::m, &R::n, &R::nx, &R::ny, &R::nz,
                       &R::sag_path, &R::opl, &R::phase_waves, &R::violation})
    if (std::memcmp(&(a.*f), &(b.*f), sizeof(double)) != 0) return false;
  return a.status == b.status && a.valid == b.valid && a.states_written == b.states_written &&
         a.failed_surface == b.failed_surface;
}
bool all_zero(RayTraceResult const& r) {
  RayTraceResult z;
  std::memset(&z, 0, sizeof z);
  return same_result(r, z);
}

// The straight line of a result on surface 1 crosses the plane dz behind
// surface 1 (negative: in front of it) at (x, y).
void expect_xy(double x, double y, double want_x, double want_y, double tol) {
  EXPECT_NEAR(x, want_x, tol);
  EXPECT_NEAR(y, want_y, tol);
}
void expect_line_at(RayTraceResult const& r, double dz, double x, double y, double tol = 1e-12) {
  expect_xy(r.x + dz * r.l / r.n, r.y + dz * r.m / r.n, x, y, tol);
}

// A parallel ray 0.5 um inside the rim of a sphere of radius 10 reaches the
// stop, while the secant's probe 1 um further out misses the sphere.
System rim_sphere() {
  return nuvrix_test::make_system({0, 10.0, 0, 0}, {INFINITY, 15.0, 10.0, 0.0}, {1, 1.5, 1.5, 1.5});
}
double const kRimHeight = 9.9995;

}  // namespace

// Angle field at infinity: direction of the field angles, through the pupil
// point on the plane ep.  Height field at infinity: the height is ignored and
// rays run along the axis from the pupil point whatever ep is.
TEST(FrontEnd, InfiniteObjectLaunches) {
  System const sys = air_gap(INFINITY);
  double const R = 4.0;
  SystemConfig const ang = config(0, 2), hgt = config(1, 2);
  for (double ep : {0.0, 15.0, -8.0})
    for (double f : {0.0, 12.0, -25.0})
      for (double p : {-1.0, 0.3, 1.0}) {
        RayTraceResult const r = arb(sys, ang, f, R, 0.5 * p, p, ep, 0, 0.0, 1, 5.0);
        ASSERT_EQ(r.valid, 1);
        expect_xy(r.l / r.n, r.m / r.n, std::tan(5.0 * kDeg), std::tan(f * kDeg), 1e-14);
        expect_line_at(r, ep, 0.5 * p * R, p * R);
      }
  RayTraceResult const axis = arb(sys, hgt, 0.0, R, 0.6, -0.8, 0.0, 0, 0.0, 1);
  EXPECT_TRUE(axis.l == 0.0 && axis.m == 0.0 && axis.n == 1.0);
  EXPECT_TRUE(axis.x == 0.6 * R && axis.y == -0.8 * R);
  for (double h : {7.0, -20.0})
    EXPECT_TRUE(same_result(arb(sys, hgt, h, R, 0.6, -0.8, 12.0, 0, 0.0, 1), axis)) << h;
}

// Finite object.  Height field: every ray leaves (field_x, field_y) and
// passes the pupil point.  Angle field: the chief ray crosses the pupil
// centre at the field angles, the others leave its object point.  Aimed: the
// object point stays, the stop is hit.  Telecentric: the field is a height
// for either type, the chief ray parallel, the pupil 1e10 away.
TEST(FrontEnd, FiniteObjectLaunches) {
  double const t0 = 40.0, R = 3.0, ep = 15.0;
  System const sys = air_gap(t0);
  SystemConfig const hgt = config(1, 2), ang = config(0, 2);
  for (double h : {0.0, 3.0, -5.0})
    for (double p : {-1.0, 0.0, 0.7}) {
      RayTraceResult const r = arb(sys, hgt, h, R, p, -p, ep, 0, 0.0, 1, 2.0);
      ASSERT_EQ(r.valid, 1);
      expect_line_at(r, -t0, 2.0, h);
      expect_line_at(r, ep, p * R, -p * R);
    }
  RayTraceResult const chief = arb(sys, ang, 10.0, R, 0.0, 0.0, ep, 0, 0.0, 1, 3.0);
  expect_xy(chief.l / chief.n, chief.m / chief.n, std::tan(3 * kDeg), std::tan(10 * kDeg), 1e-14);
  expect_line_at(chief, ep, 0.0, 0.0);
  for (double p : {-1.0, 0.5}) {
    RayTraceResult const r = arb(sys, ang, 10.0, R, -p, p, ep, 0, 0.0, 1, 3.0);
    expect_line_at(r, -t0, chief.x - t0 * chief.l / chief.n, chief.y - t0 * chief.m / chief.n);
    expect_line_at(r, ep, -p * R, p * R);
  }
  System const relay = nuvrix_test::finite_relay();
  int const stop = nuvrix_test::kFiniteRelayStop;
  SystemConfig const ha = config(1, stop, 1);
  RayState h[256];
  RayTraceResult const a = nuvrix::trace_arbitrary_ray_full(
      relay.surfaces.data(), relay.count(), relay.row(), &ha, 4.0, R, 0.0, 0.5, 0.0, 0.0, 1, 3.0,
      0, h, 256, 1.0);
  ASSERT_EQ(a.valid, 1);
  EXPECT_TRUE(h[0].x == 1.0 && h[0].y == 4.0);
  expect_xy(h[stop].x, h[stop].y, 0.0, 1.5, 1e-10);
  SystemConfig tel = ang;
  tel.telecentric_object = 1;
  RayTraceResult const tc = arb(sys, tel, 5.0, R, 0.0, 0.0, ep, 0, 0.0, 1, 1.0);
  EXPECT_TRUE(tc.x == 1.0 && tc.y == 5.0 && tc.n == 1.0);
  tel.field_type = 1;
  EXPECT_TRUE(same_result(arb(sys, tel, 5.0, R, 0.0, 0.0, ep, 0, 0.0, 1, 1.0), tc));
  RayTraceResult const tm = arb(sys, tel, 5.0, R, 0.0, 1.0, ep, 0, 0.0, 1, 1.0);
  EXPECT_NEAR(tm.m / tm.n, R / (t0 + 1e10), 1e-24);
  EXPECT_NEAR(tm.y, 5.0 + t0 * R / (t0 + 1e10), 1e-14);
}

// An object at exactly 1e10 is infinite for the general front end but
// finite for trace_full (launched 1e10 away, far off axis).  At infinity
// trace_full takes (0, sin a, cos a), backwards beyond 90 degrees, where the
// general front end's (0, tan a, 1) keeps going forward.
TEST(FrontEnd, ObjectAtExactly1e10IsInfiniteOnlyForTheGeneralFrontEnd) {
  double const R = 2.0, ep = 6.0, f = 10.0, t = std::tan(f * kDeg);
  System const at = air_gap(1e10), inf = air_gap(INFINITY);
  SystemConfig const c = config(0, 2);
  RayTraceResult const a = arb(at, c, f, R, 0.3, 1.0, ep);
  EXPECT_TRUE(same_result(a, arb(inf, c, f, R, 0.3, 1.0, ep)));
  EXPECT_NEAR(a.y, R - ep * t + 50.0 * t, 1e-12);  // near the axis at the image
  RayTraceResult const b = full(false, at, c, f, R, 0.3, 1.0, 0.0, ep);
  ASSERT_EQ(b.valid, 1);
  double const d = 1e10 + ep;
  EXPECT_NEAR(b.y, -t * d + 50.0 * (t + R / d), 1e-4);
  EXPECT_NEAR(b.x, 50.0 * 0.3 * R / d, 1e-20);
  RayTraceResult const back = full(false, inf, c, 100.0, R, 0.0, 0.0, 0.0, 0.0);
  expect_xy(back.m, back.n, std::sin(100.0 * kDeg), std::cos(100.0 * kDeg), 1e-15);
  RayTraceResult const fwd = arb(inf, c, 100.0, R, 0.0, 0.0, 0.0, 0, 0.0, 1);
  expect_xy(fwd.m, fwd.n, -std::sin(80.0 * kDeg), std::cos(80.0 * kDeg), 1e-15);
}

// A stop radius of 0 or less disables the aim; with one the ray lands on its
// stop target, which the paraxial launch misses by pupil aberration.
TEST(FrontEnd, AimNeedsAPositiveStopRadius) {
  System const sys = nuvrix_test::retrofocus();
  int const stop = nuvrix_test::kRetrofocusStop;
  SystemConfig const c = config(0, stop, 1);
  double const ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), stop);
  RayTraceResult const plain = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 0, 3.0);
  for (double stop_r : {0.0, -2.0})
    EXPECT_TRUE(same_result(arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 1, stop_r), plain)) << stop_r;
  RayTraceResult const unaimed = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 0, 3.0, stop);
  RayTraceResult const aimed = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 1, 3.0, stop);
  ASSERT_EQ(aimed.valid, 1);
  expect_xy(aimed.x, aimed.y, 0.0, 1.5, 1e-10);
  EXPECT_GT(std::fabs(unaimed.y - 1.5), 0.05);
}

// Mode 2 starts on the axis when |n| < 0.3 (80 degrees: 0.17), ignoring the
// pupil point and ep; mode 1 and 70 degrees (0.34) keep the pupil launch.
// Aimed on the fisheye the aim starts from the axis whatever ep says; 100
// degrees is the steep ray of -80 (n stays positive), not a backward one.
TEST(FrontEnd, SteepFieldsInModeTwoStartOnTheAxis) {
  System const gap = air_gap(INFINITY);
  SystemConfig const two = config(0, 2, 2), one = config(0, 2, 1);
  RayTraceResult const r = arb(gap, two, 80.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1);
  EXPECT_TRUE(r.x == 0.0 && r.y == 0.0);
  RayTraceResult const m1 = arb(gap, one, 80.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1);
  EXPECT_NEAR(m1.y + 10.0 * m1.m / m1.n, 3.0, 1e-9);
  expect_line_at(arb(gap, two, 70.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1), 10.0, 1.5, 3.0);
  System const fe = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  SystemConfig const cf = config(0, stop, 2);
  RayTraceResult const a = arb(fe, cf, 80.0, 2.0, 0.0, 0.5, 0.0, 1, 2.0, stop);
  ASSERT_EQ(a.valid, 1);
  EXPECT_NEAR(a.y, 1.0, 1e-10);
  EXPECT_TRUE(same_result(arb(fe, cf, 80.0, 2.0, 0.0, 0.5, 25.0, 1, 2.0, stop), a));
  for (double py : {0.0, 0.5}) {
    RayTraceResult const s = arb(fe, cf, 100.0, 2.0, 0.0, py, 0.0, 1, 2.0, stop);
    ASSERT_EQ(s.valid, 1) << py;
    expect_xy(s.x, s.y, 0.0, 2.0 * py, 1e-10);
    EXPECT_EQ(arb(fe, cf, 100.0, 2.0, 0.0, py, 0.0, 1, 2.0).valid, 1);  // to the image
  }
}

// Rim ray: its probe misses, so the secant ends at its start.  A target 5e-7
// above its stop hit is a loose success (the unaimed trace) for every form;
// 1e-3 fails: the general front end keeps that trace marked (-2, violation
// 1), both trace_full forms return all zeros.  A finite aim whose every aim
// point misses the first surface is all zeros too; a strict success on the
// triplet lands on target alike in both trace_full forms.
TEST(FrontEnd, FailedAimsAreReportedByKind) {
  System const rim = rim_sphere();
  SystemConfig const c = config(0, 2, 1);
  RayTraceResult const hit = nuvrix_trace_ray(rim.surfaces.data(), rim.count(), rim.row(), 1, 2,
                                              0.0, kRimHeight, 0, 0, 1, 0.0);
  ASSERT_EQ(hit.valid, 1);
  RayTraceResult const through = arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0);
  ASSERT_EQ(through.valid, 1);
  RayTraceResult expect = through;  // kept, marked as a failed aim
  expect.valid = 0, expect.failed_surface = -2, expect.violation = 1.0;
  EXPECT_TRUE(same_result(arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0, 1, hit.y + 1e-3), expect));
  EXPECT_TRUE(same_result(arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0, 1, hit.y + 5e-7), through));
  RayTraceResult const unaimed = full(false, rim, c, 0.0, kRimHeight, 0.0, 1.0, 550.0, 0.0);
  ASSERT_EQ(unaimed.valid, 1);
  System const ck = nuvrix_test::cooke_triplet();
  SystemConfig const cc = config(0, nuvrix_test::kCookeStop, 1);
  RayState h1[256];
  RayTraceResult const strict = full(false, ck, cc, 14.0, 5.0, 0.3, -0.8, 0.0, 10.0, 1, 4.0, h1);
  ASSERT_EQ(strict.valid, 1);
  expect_xy(h1[nuvrix_test::kCookeStop].x, h1[nuvrix_test::kCookeStop].y, 1.2, -3.2, 1e-10);
  for (bool legacy : {false, true}) {
    auto aimed = [&](double dy) {
      return full(legacy, rim, c, 0.0, kRimHeight, 0.0, 1.0, 550.0, 0.0, 1, hit.y + dy);
    };
    EXPECT_TRUE(same_result(aimed(5e-7), unaimed)) << legacy;
    EXPECT_TRUE(all_zero(aimed(1e-3))) << legacy;
    RayState h2[256];
    EXPECT_TRUE(same_result(full(legacy, ck, cc, 14.0, 5.0, 0.3, -0.8, 0.0, 10.0, 1, 4.0, h2),
                            strict)) << legacy;
  }
  System const bead = nuvrix_test::make_system({0, 1, 0, 0}, {10.0, 5.0, 5.0, 0.0}, {1, 1.5, 1, 1});
  SystemConfig const hb = config(1, 2, 1);  // object 50 mm off axis, bead of radius 1
  EXPECT_EQ(arb(bead, hb, 50.0, 2.0, 0.0, 1.0, 10.0).failed_surface, 1);
  EXPECT_TRUE(all_zero(arb(bead, hb, 50.0, 2.0, 0.0, 1.0, 10.0, 1, 1.0)));
}

// The export is the general front end with field_x 0; every argument is
// distinct so that a swap shows.
TEST(FrontEnd, ExportIsTheGeneralFrontEndWithoutFieldX) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig const c = config(0, nuvrix_test::kCookeStop, 1);
  RayTraceResult const e = nuvrix_trace_arbitrary_ray(sys.surfaces.data(), sys.count(), sys.row(),
                                                      &c, 1, 6, 12.0, 4.5, 0.3, -0.6, 587.6,
                                                      9.0, 3.5);
  RayTraceResult const r = nuvrix::trace_arbitrary_ray(sys.surfaces.data(), sys.count(), sys.row(),
                                                       &c, 12.0, 4.5, 0.3, -0.6, 587.6, 9.0, 1,
                                                       3.5, 6, 0.0);
  ASSERT_EQ(r.valid, 1);
  EXPECT_GT(r.phase_waves, 0.0);
  EXPECT_TRUE(same_result(e, r));
}
