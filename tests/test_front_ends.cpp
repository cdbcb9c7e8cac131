// Ray front ends: launches from field and pupil checked as straight lines in
// an air gap (through the object point and the entrance-pupil point), the
// object-at-infinity threshold of each front end, the aim choices and the
// way each failed aim is reported, and the exported frame.
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

bool same_bits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }
bool same_result(RayTraceResult const& a, RayTraceResult const& b) {
  double const da[] = {a.x, a.y, a.z, a.l, a.m, a.n, a.nx, a.ny, a.nz, a.sag_path, a.opl,
                       a.phase_waves, a.violation};
  double const db[] = {b.x, b.y, b.z, b.l, b.m, b.n, b.nx, b.ny, b.nz, b.sag_path, b.opl,
                       b.phase_waves, b.violation};
  for (int k = 0; k < 13; ++k) {
    if (!same_bits(da[k], db[k])) return false;
  }
  return a.status == b.status && a.valid == b.valid && a.states_written == b.states_written &&
         a.failed_surface == b.failed_surface;
}
bool all_zero(RayTraceResult const& r) {
  RayTraceResult z;
  std::memset(&z, 0, sizeof z);
  return same_result(r, z);
}

// Where the straight line of a result on surface 1 crosses the plane dz
// behind surface 1 (negative: in front of it).
void line_at(RayTraceResult const& r, double dz, double& x, double& y) {
  x = r.x + dz * r.l / r.n;
  y = r.y + dz * r.m / r.n;
}

// A parallel ray 0.5 um inside the rim of a sphere of radius 10 reaches the
// stop, while the secant's probe 1 um further out misses the sphere.
System rim_sphere() {
  return nuvrix_test::make_system({0, 10.0, 0, 0}, {INFINITY, 15.0, 10.0, 0.0}, {1, 1.5, 1.5, 1.5});
}
double const kRimHeight = 9.9995;

}  // namespace

TEST(FrontEnd, InfiniteObjectLaunches) {
  System const sys = air_gap(INFINITY);
  double const R = 4.0;
  // Angle field: direction of the field angles, through the pupil point on
  // the entrance-pupil plane ep behind surface 1.
  SystemConfig const ang = config(0, 2);
  for (double ep : {0.0, 15.0, -8.0}) {
    for (double f : {0.0, 12.0, -25.0}) {
      for (double p : {-1.0, 0.3, 1.0}) {
        RayTraceResult const r = arb(sys, ang, f, R, 0.5 * p, p, ep, 0, 0.0, 1, 5.0);
        ASSERT_EQ(r.valid, 1);
        EXPECT_NEAR(r.l / r.n, std::tan(5.0 * kDeg), 1e-14);
        EXPECT_NEAR(r.m / r.n, std::tan(f * kDeg), 1e-14);
        double x, y;
        line_at(r, ep, x, y);
        EXPECT_NEAR(x, 0.5 * p * R, 1e-12) << ep << " " << f;
        EXPECT_NEAR(y, p * R, 1e-12) << ep << " " << f;
      }
    }
  }
  // Height field at infinity: the height is ignored, rays run along the
  // axis from the pupil point whatever ep is.
  SystemConfig const hgt = config(1, 2);
  RayTraceResult const axis = arb(sys, hgt, 0.0, R, 0.6, -0.8, 0.0, 0, 0.0, 1);
  EXPECT_TRUE(axis.l == 0.0 && axis.m == 0.0 && axis.n == 1.0);
  EXPECT_TRUE(axis.x == 0.6 * R && axis.y == -0.8 * R);
  for (double h : {7.0, -20.0}) {
    EXPECT_TRUE(same_result(arb(sys, hgt, h, R, 0.6, -0.8, 12.0, 0, 0.0, 1), axis)) << h;
  }
}

TEST(FrontEnd, FiniteObjectLaunches) {
  double const t0 = 40.0, R = 3.0, ep = 15.0;
  System const sys = air_gap(t0);
  // Height field: every ray leaves the object point (field_x, field_y) and
  // passes through the pupil point on the plane ep behind surface 1.
  SystemConfig const hgt = config(1, 2);
  for (double h : {0.0, 3.0, -5.0}) {
    for (double p : {-1.0, 0.0, 0.7}) {
      RayTraceResult const r = arb(sys, hgt, h, R, p, -p, ep, 0, 0.0, 1, 2.0);
      ASSERT_EQ(r.valid, 1);
      double x, y;
      line_at(r, -t0, x, y);
      EXPECT_NEAR(x, 2.0, 1e-12);
      EXPECT_NEAR(y, h, 1e-12);
      line_at(r, ep, x, y);
      EXPECT_NEAR(x, p * R, 1e-12);
      EXPECT_NEAR(y, -p * R, 1e-12);
    }
  }
  // Angle field: the chief ray crosses the pupil centre at the field angles,
  // and every other ray of the field leaves the chief ray's object point.
  SystemConfig const ang = config(0, 2);
  RayTraceResult const chief = arb(sys, ang, 10.0, R, 0.0, 0.0, ep, 0, 0.0, 1, 3.0);
  EXPECT_NEAR(chief.l / chief.n, std::tan(3.0 * kDeg), 1e-14);
  EXPECT_NEAR(chief.m / chief.n, std::tan(10.0 * kDeg), 1e-14);
  double cx, cy, x, y;
  line_at(chief, ep, x, y);
  EXPECT_NEAR(x, 0.0, 1e-12);
  EXPECT_NEAR(y, 0.0, 1e-12);
  line_at(chief, -t0, cx, cy);
  for (double p : {-1.0, 0.5}) {
    RayTraceResult const r = arb(sys, ang, 10.0, R, -p, p, ep, 0, 0.0, 1, 3.0);
    line_at(r, -t0, x, y);
    EXPECT_NEAR(x, cx, 1e-12);
    EXPECT_NEAR(y, cy, 1e-12);
    line_at(r, ep, x, y);
    EXPECT_NEAR(x, -p * R, 1e-12);
    EXPECT_NEAR(y, p * R, 1e-12);
  }
  // Aimed: the direction changes, the object point stays, the stop is hit.
  System const relay = nuvrix_test::finite_relay();
  int const stop = nuvrix_test::kFiniteRelayStop;
  SystemConfig const ha = config(1, stop, 1);
  RayState h[256];
  RayTraceResult const a = nuvrix::trace_arbitrary_ray_full(
      relay.surfaces.data(), relay.count(), relay.row(), &ha, 4.0, R, 0.0, 0.5, 0.0, 0.0, 1, 3.0,
      0, h, 256, 1.0);
  ASSERT_EQ(a.valid, 1);
  EXPECT_TRUE(h[0].x == 1.0 && h[0].y == 4.0);
  EXPECT_NEAR(h[stop].x, 0.0, 1e-10);
  EXPECT_NEAR(h[stop].y, 1.5, 1e-10);
  // Telecentric object space: the field value is a height even for the
  // angle field type, the chief ray is parallel to the axis, and the pupil
  // stands 1e10 away.
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

TEST(FrontEnd, ObjectAtExactly1e10IsInfiniteOnlyForTheGeneralFrontEnd) {
  double const R = 2.0, ep = 6.0, f = 10.0, t = std::tan(f * kDeg);
  System const at = air_gap(1e10), inf = air_gap(INFINITY);
  SystemConfig const c = config(0, 2);
  EXPECT_TRUE(same_result(arb(at, c, f, R, 0.3, 1.0, ep), arb(inf, c, f, R, 0.3, 1.0, ep)));
  RayTraceResult const a = arb(at, c, f, R, 0.3, 1.0, ep);
  EXPECT_NEAR(a.y, R - ep * t + 50.0 * t, 1e-12);  // near the axis at the image
  // trace_full launches from the object point 1e10 away; the trace does not
  // cross the infinite gap, so the ray stays far off axis.
  RayTraceResult const b = nuvrix::trace_full(at.surfaces.data(), at.count(), at.row(), &c, f, R,
                                              0.3, 1.0, 0.0, ep, 0, 0.0, nullptr);
  ASSERT_EQ(b.valid, 1);
  double const d = 1e10 + ep;
  EXPECT_NEAR(b.y, -t * d + 50.0 * (t + R / d), 1e-4);
  EXPECT_NEAR(b.x, 50.0 * 0.3 * R / d, 1e-20);
  // At infinity trace_full takes (0, sin a, cos a): beyond 90 degrees the ray
  // travels backwards, where the general front end's (0, tan a, 1) does not.
  RayTraceResult const back = nuvrix::trace_full(inf.surfaces.data(), inf.count(), inf.row(), &c,
                                                 100.0, R, 0.0, 0.0, 0.0, 0.0, 0, 0.0, nullptr);
  EXPECT_NEAR(back.m, std::sin(100.0 * kDeg), 1e-15);
  EXPECT_NEAR(back.n, std::cos(100.0 * kDeg), 1e-15);
  RayTraceResult const fwd = arb(inf, c, 100.0, R, 0.0, 0.0, 0.0, 0, 0.0, 1);
  EXPECT_NEAR(fwd.m, -std::sin(80.0 * kDeg), 1e-15);
  EXPECT_NEAR(fwd.n, std::cos(80.0 * kDeg), 1e-15);
}

TEST(FrontEnd, AimNeedsAPositiveStopRadius) {
  System const sys = nuvrix_test::retrofocus();
  int const stop = nuvrix_test::kRetrofocusStop;
  SystemConfig const c = config(0, stop, 1);
  double const ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), stop);
  RayTraceResult const plain = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 0, 3.0);
  EXPECT_TRUE(same_result(arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 1, 0.0), plain));
  EXPECT_TRUE(same_result(arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 1, -2.0), plain));
  // With a radius the ray lands on its target on the stop, which the
  // paraxial launch misses by pupil aberration.
  RayTraceResult const unaimed = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 0, 3.0, stop);
  RayTraceResult const aimed = arb(sys, c, 30.0, 4.0, 0.0, 0.5, ep, 1, 3.0, stop);
  ASSERT_EQ(aimed.valid, 1);
  EXPECT_NEAR(aimed.x, 0.0, 1e-10);
  EXPECT_NEAR(aimed.y, 1.5, 1e-10);
  EXPECT_GT(std::fabs(unaimed.y - 1.5), 0.05);
}

TEST(FrontEnd, SteepFieldsInModeTwoStartOnTheAxis) {
  System const gap = air_gap(INFINITY);
  SystemConfig const two = config(0, 2, 2), one = config(0, 2, 1);
  // 80 degrees: |n| 0.17, below 0.3; the pupil point and ep no longer count.
  RayTraceResult const r = arb(gap, two, 80.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1);
  EXPECT_TRUE(r.x == 0.0 && r.y == 0.0);
  double x, y;
  line_at(arb(gap, one, 80.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1), 10.0, x, y);
  EXPECT_NEAR(y, 3.0, 1e-9);  // mode 1 keeps the pupil launch
  // 70 degrees: |n| 0.34, the pupil launch stays in mode 2 too.
  line_at(arb(gap, two, 70.0, 3.0, 0.5, 1.0, 10.0, 0, 0.0, 1), 10.0, x, y);
  EXPECT_NEAR(x, 1.5, 1e-12);
  EXPECT_NEAR(y, 3.0, 1e-12);
  // Aimed on the fisheye: the aim starts from the axis whatever ep says, so
  // ep changes nothing, and the ray lands on its target.
  System const fe = nuvrix_test::fisheye();
  int const stop = nuvrix_test::kFisheyeStop;
  SystemConfig const cf = config(0, stop, 2);
  RayTraceResult const a = arb(fe, cf, 80.0, 2.0, 0.0, 0.5, 0.0, 1, 2.0, stop);
  ASSERT_EQ(a.valid, 1);
  EXPECT_NEAR(a.y, 1.0, 1e-10);
  EXPECT_TRUE(same_result(arb(fe, cf, 80.0, 2.0, 0.0, 0.5, 25.0, 1, 2.0, stop), a));
  // The launch direction (tan a, 1) keeps n positive: 100 degrees is the
  // steep ray of -80 degrees, not a backward one, and takes the same road.
  for (double py : {0.0, 0.5}) {
    RayTraceResult const s = arb(fe, cf, 100.0, 2.0, 0.0, py, 0.0, 1, 2.0, stop);
    ASSERT_EQ(s.valid, 1) << py;
    EXPECT_NEAR(s.x, 0.0, 1e-10);
    EXPECT_NEAR(s.y, 2.0 * py, 1e-10);
    EXPECT_EQ(arb(fe, cf, 100.0, 2.0, 0.0, py, 0.0, 1, 2.0).valid, 1);  // to the image
  }
}

TEST(FrontEnd, FailedAimsAreReportedByKind) {
  // Tangent-plane aim with a target 1e-3 beyond the rim ray's stop hit: the
  // aim fails although its start gets through; that trace is kept, marked.
  System const rim = rim_sphere();
  SystemConfig const c = config(0, 2, 1);
  RayTraceResult const hit = nuvrix_trace_ray(rim.surfaces.data(), rim.count(), rim.row(), 1, 2,
                                              0.0, kRimHeight, 0, 0, 1, 0.0);
  RayTraceResult const through = arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0);
  ASSERT_EQ(through.valid, 1);
  RayTraceResult const missed = arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0, 1, hit.y + 1e-3);
  RayTraceResult expect = through;
  expect.valid = 0;
  expect.failed_surface = -2;
  expect.violation = 1.0;
  EXPECT_TRUE(same_result(missed, expect));
  EXPECT_TRUE(same_result(arb(rim, c, 0.0, kRimHeight, 0.0, 1.0, 0.0, 1, hit.y + 5e-7), through));
  // Finite aim: from an object point 50 mm off axis every aim point sends
  // the ray 25 mm past a first surface of radius 1: an all-zero result.
  System const bead = nuvrix_test::make_system({0, 1.0, 0, 0}, {10.0, 5.0, 5.0, 0.0},
                                               {1, 1.5, 1, 1});
  SystemConfig const h = config(1, 2, 1);
  RayTraceResult const fplain = arb(bead, h, 50.0, 2.0, 0.0, 1.0, 10.0);
  EXPECT_EQ(fplain.failed_surface, 1);
  EXPECT_TRUE(all_zero(arb(bead, h, 50.0, 2.0, 0.0, 1.0, 10.0, 1, 1.0)));
}

TEST(FrontEnd, TraceFullFormsAgreeOnLooseSuccessAndFailure) {
  // The rim ray's probe misses, so the secant ends at the start itself. Put
  // the target 5e-7 above its stop hit (a loose success) or 1e-3 (a failure).
  System const sys = rim_sphere();
  SystemConfig const c = config(0, 2, 1);
  double const y0 = kRimHeight;
  RayTraceResult const hit =
      nuvrix_trace_ray(sys.surfaces.data(), sys.count(), sys.row(), 1, 2, 0.0, y0, 0, 0, 1, 0.0);
  ASSERT_EQ(hit.valid, 1);
  auto full = [&](bool legacy, double stop_r) {
    auto fn = legacy ? nuvrix::legacy::trace_full : nuvrix::trace_full;
    return fn(sys.surfaces.data(), sys.count(), sys.row(), &c, 0.0, y0, 0.0, 1.0, 550.0, 0.0, 1,
              stop_r, nullptr);
  };
  RayTraceResult const unaimed = nuvrix::trace_full(sys.surfaces.data(), sys.count(), sys.row(), &c,
                                                    0.0, y0, 0.0, 1.0, 550.0, 0.0, 0, 0.0, nullptr);
  ASSERT_EQ(unaimed.valid, 1);
  for (bool legacy : {false, true}) {
    EXPECT_TRUE(same_result(full(legacy, hit.y + 5e-7), unaimed)) << legacy;
    EXPECT_TRUE(all_zero(full(legacy, hit.y + 1e-3))) << legacy;
  }
  // A strict success on the triplet: both forms land on target alike.
  System const ck = nuvrix_test::cooke_triplet();
  SystemConfig const cc = config(0, nuvrix_test::kCookeStop, 1);
  RayState h1[256], h2[256];
  RayTraceResult const a = nuvrix::trace_full(ck.surfaces.data(), ck.count(), ck.row(), &cc, 14.0,
                                              5.0, 0.3, -0.8, 0.0, 10.0, 1, 4.0, h1);
  RayTraceResult const b = nuvrix::legacy::trace_full(ck.surfaces.data(), ck.count(), ck.row(), &cc,
                                                      14.0, 5.0, 0.3, -0.8, 0.0, 10.0, 1, 4.0, h2);
  ASSERT_EQ(a.valid, 1);
  EXPECT_TRUE(same_result(a, b));
  EXPECT_NEAR(h1[nuvrix_test::kCookeStop].x, 1.2, 1e-10);
  EXPECT_NEAR(h1[nuvrix_test::kCookeStop].y, -3.2, 1e-10);
}

TEST(FrontEnd, ExportIsTheGeneralFrontEndWithoutFieldX) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig const c = config(0, nuvrix_test::kCookeStop, 1);
  // Every argument distinct, so that a swap shows.
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
