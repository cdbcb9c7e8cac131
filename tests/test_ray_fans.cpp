// Transverse and pupil-aberration fans against closed forms: the defocused
// ideal lens gives the straight-line fan -p R dz / f; the plate shifts its
// second wavelength by its lateral colour; one refracting sphere in front of
// the stop misses the paraxial stop height by what Snell's law gives.
#include <gtest/gtest.h>

#include "tests/image_quality_hosts.hpp"

using namespace nuvrix_test;

namespace {

// Both fans of one run and their header, the records marked beforehand.
template <typename Point, typename Header>
struct Fans {
  std::vector<Point> t, s;
  std::vector<Header> h = marked<Header>(1);
  explicit Fans(size_t n) : t(marked<Point>(n)), s(marked<Point>(n)) {}
  bool records_untouched() const {
    return same_bytes(t.data(), marked<Point>(t.size()).data(), t.size() * sizeof(Point)) &&
           same_bytes(s.data(), marked<Point>(s.size()).data(), s.size() * sizeof(Point));
  }
  bool untouched() const {
    return records_untouched() && same_bytes(h.data(), marked<Header>(1).data(), sizeof h[0]);
  }
};
using RayFans = Fans<RayFanPoint, RayFanResultHeader>;
using PupilFans = Fans<PupilAberrationPoint, PupilAberrationResultHeader>;

int transverse(Host const& host, int field, int points, RayFans& f, int waves = -1) {
  return host.transverse(field, points, f.t.data(), f.s.data(), f.h.data(), waves);
}
int pupil(Host const& host, int field, int points, PupilFans& f, int waves = -1) {
  return host.pupil(field, points, f.t.data(), f.s.data(), f.h.data(), waves);
}

// Stop height of the axial ray at height y0 refracted by a sphere of radius
// rc into index n, the stop d behind the vertex: the normal leans by
// alpha = asin(y0 / rc), the ray leaves at -alpha + asin(sin(alpha) / n).
double real_stop_height(double y0, double rc, double n, double d) {
  double const alpha = std::asin(y0 / rc);
  double const sag = rc - std::copysign(std::sqrt(rc * rc - y0 * y0), rc);
  return y0 + (d - sag) * std::tan(-alpha + std::asin(std::sin(alpha) / n));
}

}  // namespace

TEST(TransverseRayFan, SamplesIncludeEndsAndExactAxis) {
  Host const h = defocused_lens();
  double const expected[3][5] = {{-1, 1}, {-1, 0, 1}, {-1, -0.5, 0, 0.5, 1}};
  for (int points : {1, 2, 4}) {
    RayFans f(points + 1);
    PupilFans p(points + 1);
    ASSERT_EQ(transverse(h, 0, points, f), 0);
    ASSERT_EQ(pupil(h, 0, points, p), 0);
    for (int i = 0; i <= points; ++i) {
      double const e = expected[points == 4 ? 2 : points - 1][i];
      EXPECT_EQ(f.t[i].pupil_coordinate, e);
      EXPECT_EQ(f.s[i].pupil_coordinate, e);
      EXPECT_EQ(p.s[i].pupil_coordinate, e);
    }
  }
}

TEST(TransverseRayFan, DefocusIsStraightLineThroughOrigin) {
  Host const h = defocused_lens();
  for (int field : {0, 1}) {
    RayFans f(11);
    ASSERT_EQ(transverse(h, field, 10, f), 0);
    for (int i = 0; i <= 10; ++i) {
      double const p = f.t[i].pupil_coordinate;
      ASSERT_EQ(f.t[i].valid, 1);
      EXPECT_NEAR(f.t[i].value, -p * kA, 1e-13);  // behind the focus the rays have crossed
      EXPECT_NEAR(f.s[i].value, -p * kA, 1e-13);
    }
    EXPECT_NEAR(f.h[0].max_abs_value, kA, 1e-13);
    EXPECT_EQ(f.h[0].field_index, field);
    EXPECT_EQ(f.h[0].tangential_count, 11);
    EXPECT_EQ(f.h[0].sagittal_count, 11);
  }
}

TEST(TransverseRayFan, SecondWavelengthShowsLateralColourAtAxisSample) {
  Plate const p = dispersive_plate();
  RayFans f(2 * 5);
  ASSERT_EQ(transverse(p.host, 0, 4, f), 0);
  EXPECT_EQ(f.h[0].tangential_count, 10);
  for (int k = 0; k < 10; ++k) {
    int const w = k / 5;
    EXPECT_EQ(f.t[k].wavelength_index, w);
    EXPECT_NEAR(f.t[k].value, f.t[k].pupil_coordinate * kR + (w == 1 ? p.delta : 0.0), 1e-12);
    EXPECT_NEAR(f.s[k].value, f.s[k].pupil_coordinate * kR, 1e-12);
  }
  EXPECT_NEAR(f.t[2 + 5].value, p.delta, 1e-12);  // the axis sample of the second wavelength
  EXPECT_GT(std::fabs(p.delta), 1e-3);
}

TEST(TransverseRayFan, FailedRaysWriteInvalidRecordsAndLostChiefWritesNothing) {
  Host h = defocused_lens();
  h.sys.surfaces[1].aperture_radius = 0.9 * kR;  // clips the rim rays
  RayFans f(11);
  ASSERT_EQ(transverse(h, 0, 10, f), 0);
  for (int i : {0, 10}) {
    EXPECT_EQ(f.t[i].valid + f.s[i].valid, 0);
    EXPECT_EQ(f.t[i].value, 0.0);
  }
  EXPECT_EQ(f.t[1].valid, 1);
  EXPECT_NEAR(f.h[0].max_abs_value, 0.8 * kA, 1e-13);  // from p = +-0.8
  EXPECT_EQ(f.h[0].tangential_count, 11);               // failed samples were visited
  // A 1 mm field stop 40 mm behind the lens stops the 5-degree chief ray:
  // -2 and nothing written; the pupil fan traces no chief ray and goes on.
  h.sys.surfaces[1].thickness = 40.0;
  h.sys.surfaces.insert(h.sys.surfaces.begin() + 2, plain_surface(0.0, kF + kDz - 40.0));
  h.sys.surfaces[2].aperture_radius = 1.0;
  h.sys.indices = {1, 1, 1, 1};
  RayFans lost(11);
  EXPECT_EQ(transverse(h, 1, 10, lost), -2);
  EXPECT_TRUE(lost.untouched());
  PupilFans p(11);
  EXPECT_EQ(pupil(h, 1, 10, p), 0);
  EXPECT_EQ(p.t[5].valid, 1);
}

TEST(TransverseRayFan, BadFieldIndexAndEmptyWavelengthList) {
  Host const h = defocused_lens();
  for (int field : {-1, 2}) {
    RayFans f(3);
    PupilFans p(3);
    EXPECT_EQ(transverse(h, field, 2, f), -1);
    EXPECT_EQ(pupil(h, field, 2, p), -1);
    EXPECT_TRUE(f.untouched() && p.untouched());
  }
  RayFans f(3);
  PupilFans p(3);
  ASSERT_EQ(transverse(h, 1, 2, f, 0), 0);
  ASSERT_EQ(pupil(h, 1, 2, p, 0), 0);
  EXPECT_TRUE(f.records_untouched() && p.records_untouched());
  RayFanResultHeader const zero = {1, 0.0, 0, 0};
  EXPECT_TRUE(same_bytes(&f.h[0].max_abs_value, &zero.max_abs_value, 16));
  EXPECT_TRUE(same_bytes(&p.h[0].max_abs_value, &zero.max_abs_value, 16));
  EXPECT_EQ(f.h[0].field_index + p.h[0].field_index, 2);
}

TEST(PupilAberrationFan, SphereBeforeStopMissesParaxialHeightWithItsSign) {
  // Sphere rc into glass n, plane stop d behind it.  Close behind a convex
  // surface the rim ray, refracted a sag deeper, arrives high (negative);
  // farther back its over-bending wins: low (positive); concave: high.
  struct Case {
    double rc, d, sign;
  };
  double const n = 1.5;
  for (Case c : {Case{30.0, 10.0, -1.0}, Case{30.0, 40.0, 1.0}, Case{-30.0, 10.0, -1.0}}) {
    double const R = kR * (1.0 - c.d * (n - 1.0) / c.rc / n);  // paraxial stop radius
    for (int aiming : {0, 1}) {                                // the fan never aims
      Host h(make_system({0, c.rc, 0, 0}, {1e10, c.d, 30.0, 0}, {1, n, n, n}), 1, 2 * kR, 2, {0.0});
      h.cfg.ray_aiming = aiming;
      PupilFans f(9);
      ASSERT_EQ(pupil(h, 0, 8, f), 0);
      for (int i = 0; i <= 8; ++i) {
        double const p = f.t[i].pupil_coordinate;
        double const expected = (R * p - real_stop_height(p * kR, c.rc, n, c.d)) * 100.0 / R;
        ASSERT_EQ(f.t[i].valid, 1);
        EXPECT_NEAR(f.t[i].value, expected, 1e-10);
        EXPECT_NEAR(f.s[i].value, expected, 1e-10);  // on axis the pupil is round
      }
      EXPECT_EQ(f.t[8].value > 0.0 ? 1.0 : -1.0, c.sign);
      EXPECT_EQ(f.t[4].value, 0.0);
      EXPECT_NEAR(f.h[0].max_abs_value, std::fabs(f.t[8].value), 1e-12);
    }
  }
}

TEST(PupilAberrationFan, StopBeyondSurfacesAndVanishingStopRadius) {
  Host h = defocused_lens();
  h.cfg.stop_surface = 3;  // not below the surface count
  PupilFans f(5);
  ASSERT_EQ(pupil(h, 0, 4, f), 0);
  for (int i = 0; i <= 4; ++i) {
    EXPECT_EQ(f.t[i].valid + f.s[i].valid, 0);
    EXPECT_EQ(f.t[i].value, 0.0);
  }
  EXPECT_EQ(f.h[0].max_abs_value, 0.0);
  EXPECT_EQ(f.h[0].sagittal_count, 5);
  // A stop at the focus of f = 64 mm behind a pupil of radius 4: the paraxial
  // marginal ray crosses it at 4 - 64 (4 / 64) = 0, exactly in binary.
  Host const focus(ideal_thin_lens(64.0), 1, 8.0, 2, {0.0});
  PupilFans none(5);
  EXPECT_EQ(pupil(focus, 0, 4, none), -3);
  EXPECT_TRUE(none.untouched());
}
