// OPD fan against closed forms: defocus in waves of each wavelength, the
// primary reference point (shared with the map), the afocal tilt removal,
// failed rays and statuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>

#include "tests/opd_systems.hpp"

using namespace opd_test;

namespace {

constexpr OpdFanPoint kUntouched = {1e6, 1e6, 77, 5};

struct Fan {
  int status, stride;
  std::vector<OpdFanPoint> t, s;
  OpdFanResultHeader header;
};

Fan run_fan(System const& sys, SystemConfig const& cfg, std::vector<double> const& lambdas,
            double field_deg, int field_index, int point_count, double R) {
  FieldData const fields[2] = {{field_deg, 1.0, 0.0}, {50.0, 1.0, 0.0}};
  size_t const n = (point_count + 1) * std::max<size_t>(lambdas.size(), 1);
  Fan f = {0,
           point_count + 1,
           std::vector<OpdFanPoint>(n, kUntouched),
           std::vector<OpdFanPoint>(n, kUntouched),
           {-5, -5.0, -5, -5}};
  f.status =
      nuvrix_compute_opd_fan(sys.surfaces.data(), sys.count(), sys.indices.data(), lambdas.data(),
                             static_cast<int>(lambdas.size()), &cfg, fields, 2, field_index,
                             point_count, R, f.t.data(), f.s.data(), &f.header);
  return f;
}

bool untouched(OpdFanPoint const& r) {
  return r.pupil_coordinate == 1e6 && r.value == 1e6 && r.wavelength_index == 77 && r.valid == 5;
}

}  // namespace

// The ideal lens defocused by delta: one path difference in mm, in waves of
// each wavelength; records of wavelength w stand point_count + 1 further on.
TEST(OpdFan, DefocusIsOnePathDifferenceInWavesOfEachWavelength) {
  double const f = 100.0, a = 5.0, delta = 0.5, R = 100.0, p[6] = {-1, -0.6, -0.2, 0.2, 0.6, 1};
  std::vector<double> const lambdas = {0.5, 0.65};
  System sys = thin_lens(f, delta);
  sys.indices.insert(sys.indices.end(), {1.0, 1.0, 1.0});
  Fan const fan = run_fan(sys, pupil_at_first_surface(a), lambdas, 0.0, 0, 5, R);
  ASSERT_EQ(fan.status, 0);
  double largest = 0.0;
  for (int k = 0; k < 12; ++k) {
    double const h = a * std::fabs(p[k % 6]), L = std::hypot(f, h);
    double const want = defocus_opd_mm(delta, f / L, h / L, R) * 1000.0 / lambdas[k / 6];
    largest = std::fmax(largest, want);
    for (OpdFanPoint const& r : {fan.t[k], fan.s[k]}) {
      EXPECT_NEAR(r.pupil_coordinate, p[k % 6], 1e-15);
      EXPECT_EQ(r.wavelength_index, k / 6);
      EXPECT_EQ(r.valid, 1);
      EXPECT_NEAR(r.value, want, kRoundingWaves) << k;
    }
  }
  EXPECT_EQ(fan.header.tangential_count, 12);
  EXPECT_EQ(fan.header.sagittal_count, 12);
  EXPECT_NEAR(fan.header.max_abs_value, largest, kRoundingWaves);
}

// The plane wave of the glass block: the reference point is the primary
// wavelength's (here the second row), the phase zero each wavelength's own,
// so the other wavelength shows a tilt and every fan is exactly 0 at its
// centre.  A 5 by 5 map, whose middle row samples px = -1 .. 1 and middle
// column py = -0.5 .. 1, gives the same values there.
TEST(OpdFan, ReferencePointIsThePrimaryChiefRaysAndTheMapAgrees) {
  std::vector<double> const lambdas = {0.6, 0.5}, glass = {1.6, 1.5};
  System const sys = glass_block(10.0, glass);
  SystemConfig cfg = pupil_at_first_surface(2.0);
  cfg.primary_wavelength = 1;
  Fan const fan = run_fan(sys, cfg, lambdas, 20.0, 0, 4, 20.0);
  ASSERT_EQ(fan.status, 0);
  for (int k = 0; k < 10; ++k) {
    GlassBlockWave const g = {10.0, 2.0, 20.0, lambdas[k / 5], 20.0, glass[1], glass[k / 5]};
    double const p = -1.0 + 0.5 * (k % 5);
    EXPECT_NEAR(fan.t[k].value, glass_block_opd(g, 0.0, p), 1e-8) << k;
    EXPECT_NEAR(fan.s[k].value, glass_block_opd(g, p, 0.0), 1e-8) << k;
    if (p == 0.0) {
      EXPECT_TRUE(fan.t[k].value == 0.0 && fan.s[k].value == 0.0);
    }
  }
  EXPECT_GT(std::fabs(fan.t[4].value - fan.t[0].value), 1.0);

  std::vector<double> map(25);
  std::vector<int> mask(25);
  WavefrontResult res;
  FieldData const field = {20.0, 1.0, 0.0};
  ASSERT_EQ(nuvrix_compute_wavefront_map(sys.surfaces.data(), 3, sys.row(0), sys.row(1), 0.6, &cfg,
                                         &field, 1, 0, 5, 20.0, map.data(), mask.data(), &res),
            0);
  for (int j = 0; j < 5; ++j) EXPECT_EQ(map[5 + j], fan.s[j].value) << j;
  for (int i = 0; i < 4; ++i) EXPECT_EQ(map[5 * i + 2], fan.t[i + 1].value) << i;
}

// Afocal image: the plane square to the primary chief ray.  In the other
// glass the wave leaves at another angle; before the fit W = -(s + o) has
// the slope a (n_w sin b_p / cos(b_w - b_p) - sin 20 deg) / lambda along py,
// some 76 waves, and a constant along px.  Each fan's fit takes them out,
// and the maximum is taken again after it.
TEST(OpdFan, AfocalPlaneReferenceRemovesTheTiltOfEachFan) {
  double const a = 2.0, sin_f = std::sin(20.0 * kDegree), sp = sin_f / 1.5, sw = sin_f / 1.6;
  double const cos_between = std::sqrt((1 - sw * sw) * (1 - sp * sp)) + sw * sp;
  ASSERT_GT(a * (1.6 * sp / cos_between - sin_f) * 1000.0 / 0.6, 50.0);
  SystemConfig cfg = pupil_at_first_surface(a);
  cfg.afocal_image = 1;
  Fan const fan = run_fan(glass_block(10.0, {1.5, 1.6}), cfg, {0.55, 0.6}, 20.0, 0, 8, 50.0);
  ASSERT_EQ(fan.status, 0);
  for (int k = 0; k < 18; ++k) {
    EXPECT_TRUE(fan.t[k].valid == 1 && fan.s[k].valid == 1);
    EXPECT_NEAR(fan.t[k].value, 0.0, kRoundingWaves) << k;
    EXPECT_NEAR(fan.s[k].value, 0.0, kRoundingWaves) << k;
  }
  EXPECT_LE(fan.header.max_abs_value, kRoundingWaves);
}

// At 40 degrees through a pupil of 1 mm the top tangential ray (5.74 mm at
// the aperture) is clipped in the first glass; the second glass's chief ray
// is clipped, so its stretch stays as it was and is not counted.
TEST(OpdFan, FailedRaysAndStatusesSkipWhatTheyMust) {
  System const sys = clipped_block();
  SystemConfig const cfg = pupil_at_first_surface(1.0);
  std::vector<double> const lambdas = {0.55, 0.6};
  Fan const fan = run_fan(sys, cfg, lambdas, 40.0, 0, 6, 30.0);
  ASSERT_EQ(fan.status, 0);
  double largest = 0.0;
  for (int i = 0; i <= 6; ++i) {
    EXPECT_EQ(fan.t[i].valid, i < 6 ? 1 : 0);
    EXPECT_EQ(fan.s[i].valid, 1);
    largest = std::fmax(largest, std::fmax(std::fabs(fan.t[i].value), std::fabs(fan.s[i].value)));
    EXPECT_TRUE(untouched(fan.t[7 + i]) && untouched(fan.s[7 + i])) << i;
  }
  EXPECT_TRUE(fan.t[6].value == 0.0 && fan.t[6].pupil_coordinate == 1.0);
  EXPECT_GT(largest, 0.0);
  EXPECT_EQ(fan.header.max_abs_value, largest);
  EXPECT_TRUE(fan.header.tangential_count == 7 && fan.header.sagittal_count == 7);

  for (int field_index : {-1, 2, 1}) {  // bad indices; at 50 degrees the primary chief fails
    Fan const bad = run_fan(sys, cfg, lambdas, 40.0, field_index, 6, 30.0);
    EXPECT_EQ(bad.status, field_index == 1 ? -2 : -1);
    EXPECT_EQ(bad.header.field_index, -5);
    for (size_t k = 0; k < bad.t.size(); ++k)
      EXPECT_TRUE(untouched(bad.t[k]) && untouched(bad.s[k]));
  }
  Fan const none = run_fan(sys, cfg, {}, 40.0, 1, 6, 30.0);
  EXPECT_EQ(none.status, 0);
  EXPECT_TRUE(none.header.field_index == 1 && none.header.max_abs_value == 0.0 &&
              none.header.tangential_count == 0 && none.header.sagittal_count == 0);
}

