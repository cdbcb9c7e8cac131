// Geometric MTF from ray hits: a point image, the uniform disc of a defocused
// ideal lens against 2 J1(v) / v, binned against ray-sum, the diffraction
// factor, the frequency axis, statuses, two focuses and the field scan.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "analysis/geometric_mtf.hpp"
#include "api/nuvrix.h"
#include "tests/opd_systems.hpp"

using nuvrix_test::System;

namespace {

// Ideal lens f 100 mm, stop on it, pupil radius 10 mm, image plane `delta`
// beyond focus: each beam fills a uniform disc of radius 10 |1 - D / (n' f)|
// about its chief ray (D = 100 + delta).  A positive `hole` adds a plane 50
// mm behind the lens with a hard aperture of that radius.
struct Lens {
  System sys;
  SystemConfig cfg = opd_test::pupil_at_first_surface(10.0);
  explicit Lens(double delta, double hole = 0.0) : sys(opd_test::thin_lens(100.0, delta)) {
    if (hole <= 0.0) return;
    SurfaceData plane = nuvrix_test::plain_surface(0.0, 50.0 + delta);
    plane.aperture_radius = hole;
    sys.surfaces[1].thickness = 50.0;
    sys.surfaces.insert(sys.surfaces.begin() + 2, plane);
    sys.indices.push_back(1.0);
  }
};

// Transform of a uniform disc of radius a at f cycles/mm: 2 J1(v) / v.
double disc_otf(double f, double a) {
  double const v = 2.0 * M_PI * f * a;
  return v == 0.0 ? 1.0 : 2.0 * std::cyl_bessel_j(1.0, v) / v;
}

double diffraction_limit(double x) {
  return x >= 1.0 ? 0.0 : 2.0 / M_PI * (std::acos(x) - x * std::sqrt(1.0 - x * x));
}

struct Binned {
  std::vector<GeometricMtfPoint> p = std::vector<GeometricMtfPoint>(120, {-1.0, -1.0, -1.0});
  GeometricMtfResult r = {-7, -7, -7, -7.0};
  std::vector<double> real, imag;
  int status = -99;
  int grid = 0;
  double dc() const { return real[(grid / 2) * grid + grid / 2]; }  // zero frequency
};

Binned binned(System const& s, SystemConfig const& c, double field, int samples, int grid,
              double tc = 100.0, double sc = 100.0, int apply = 0, int capacity = 110,
              int wavelengths = 1) {
  Binned b;
  b.grid = grid;
  b.real.assign(static_cast<size_t>(grid) * grid, 0.0);
  b.imag = b.real;
  FieldData const fd = {field, 1.0, 0.0};
  b.status = wavelengths == 1
                 ? nuvrix_compute_geometric_mtf(s.surfaces.data(), s.count(), s.row(), &c, &fd, 1,
                                                0, 3, samples, apply, tc, sc, b.real.data(),
                                                b.imag.data(), grid, b.p.data(), capacity, &b.r)
                 : nuvrix_compute_geometric_mtf_polychromatic(
                       s.surfaces.data(), s.count(), s.row(), nullptr, nullptr, wavelengths, &c,
                       &fd, 1, 0, samples, apply, tc, sc, b.real.data(), b.imag.data(), grid,
                       b.p.data(), capacity, &b.r);
  return b;
}

struct RaySum {
  std::vector<double> f, t, s;
  int status = -99;
};

RaySum ray_sum(System const& sys, SystemConfig const& c, double field, int rings, double max_f,
               int steps, int apply = 0, int field_index = 0) {
  RaySum o;
  o.f.assign(std::max(steps, 0) + 2, -1.0);
  o.t = o.s = o.f;
  FieldData const fd = {field, 1.0, 0.0};
  o.status = nuvrix::compute_geometric_mtf_kidger(sys.surfaces.data(), sys.count(), sys.row(), &c,
                                                  &fd, 1, field_index, 0.55, rings, max_f, steps,
                                                  apply, o.f.data(), o.t.data(), o.s.data());
  return o;
}

// Grid samples of S across inside the unit circle, and the largest |px|
// among them: the spread of the hits of a disc of radius a is 2 a that.
int grid_rays(int S) {
  int n = 0;
  for (int i = 0; i < S; ++i)
    for (int j = 0; j < S; ++j) {
      double const x = 2.0 * (j + 0.5) / S - 1.0, y = 2.0 * (i + 0.5) / S - 1.0;
      n += x * x + y * y <= 1.0 ? 1 : 0;
    }
  return n;
}

// Pixel spacing of the binned transform in cycles/mm: the spread spans
// 128 / 1.5 pixels of an array of N, so df = 128 / (1.5 N spread).
double pixel_frequency(double spread, int grid) { return 128.0 / (1.5 * grid * spread); }

}  // namespace

TEST(GeometricMtf, PointImageKeepsFullModulationOrTheDiffractionFactor) {
  // A paraboloid on axis focuses every ray to one point (spread below
  // 1e-6 mm): one bin, whose transform has modulus 1 everywhere.
  System const mirror = opd_test::paraboloid(100.0, 0.0);
  SystemConfig const cfg = opd_test::pupil_at_first_surface(10.0);
  Binned const b = binned(mirror, cfg, 0.0, 32, 64, 100.0, 100.0);
  ASSERT_EQ(b.status, 0);
  EXPECT_TRUE(b.r.field_index == 0 && b.r.wavelength_index == 3 && b.r.point_count == 101);
  for (int f = 0; f <= 100; ++f) {
    EXPECT_EQ(b.p[f].frequency, f);
    EXPECT_NEAR(b.p[f].tangential, 1.0, 1e-12) << f;
    EXPECT_NEAR(b.p[f].sagittal, 1.0, 1e-12) << f;
  }
  RaySum const k = ray_sum(mirror, cfg, 0.0, 20, 100.0, 50);
  ASSERT_EQ(k.status, 0);
  for (int i = 0; i <= 50; ++i) {
    EXPECT_NEAR(k.f[i], 2.0 * i, 1e-12);
    EXPECT_NEAR(k.t[i], 1.0, 1e-9);
    EXPECT_NEAR(k.s[i], 1.0, 1e-9);
  }
  EXPECT_EQ(k.f[51], -1.0);  // frequency_steps + 1 points only
  // With the diffraction factor only the factor is left: the limited curve
  // of each direction's cutoff (max_frequency for the ray sum), 0 from it on.
  Binned const d = binned(mirror, cfg, 0.0, 32, 64, 80.0, 50.0, 1);
  ASSERT_EQ(d.r.point_count, 81);
  for (int f = 0; f <= 80; ++f) {
    EXPECT_NEAR(d.p[f].tangential, diffraction_limit(f / 80.0), 1e-12) << f;
    EXPECT_NEAR(d.p[f].sagittal, diffraction_limit(f / 50.0), 1e-12) << f;
  }
  RaySum const kd = ray_sum(mirror, cfg, 0.0, 10, 60.0, 12, 1);
  for (int i = 0; i <= 12; ++i) {
    EXPECT_NEAR(kd.t[i], diffraction_limit(i / 12.0), 1e-9) << i;
    EXPECT_NEAR(kd.s[i], diffraction_limit(i / 12.0), 1e-9) << i;
  }
  EXPECT_EQ(kd.t[12], 0.0);
}

TEST(GeometricMtf, FrequencyAxisStopsAtTheCutoffsAtOneHundredAndAtCapacity) {
  System const mirror = opd_test::paraboloid(100.0, 0.0);
  SystemConfig const cfg = opd_test::pupil_at_first_surface(10.0);
  // Without the factor a direction keeps its value up to its cutoff and
  // reads 0 beyond it; the larger cutoff sets the length.
  Binned b = binned(mirror, cfg, 0.0, 16, 32, 30.0, 60.0);
  EXPECT_TRUE(b.r.point_count == 61 && b.r.max_frequency == 60.0);
  EXPECT_NEAR(b.p[30].tangential, 1.0, 1e-12);
  EXPECT_TRUE(b.p[31].tangential == 0.0 && b.p[60].tangential == 0.0);
  EXPECT_NEAR(b.p[60].sagittal, 1.0, 1e-12);
  EXPECT_EQ(b.p[61].frequency, -1.0);
  b = binned(mirror, cfg, 0.0, 16, 32, 250.0, 20.5);  // the curve stops at 100
  EXPECT_TRUE(b.r.point_count == 101 && b.p[100].frequency == 100.0 && b.p[101].frequency == -1.0);
  EXPECT_TRUE(b.p[20].sagittal > 0.99 && b.p[21].sagittal == 0.0);
  b = binned(mirror, cfg, 0.0, 16, 32, 250.0, 250.0, 0, 7);
  EXPECT_TRUE(b.r.point_count == 7 && b.p[7].frequency == -1.0);
  b = binned(mirror, cfg, 0.0, 16, 32, 40.0, 9.7, 0, 0);
  EXPECT_TRUE(b.status == 0 && b.r.point_count == 0 && b.r.max_frequency == 40.0);
  EXPECT_EQ(b.p[0].frequency, -1.0);
  // The ray-sum method: a negative step count writes nothing; a count of 0
  // leaves one point whose frequency 0 * (60 / 0) is not a number, its
  // modulations those of the zero frequency.
  RaySum k = ray_sum(mirror, cfg, 0.0, 10, 60.0, -1);
  EXPECT_TRUE(k.status == 0 && k.f[0] == -1.0 && k.t[0] == -1.0);
  k = ray_sum(mirror, cfg, 0.0, 10, 60.0, 0);
  EXPECT_TRUE(std::isnan(k.f[0]) && k.t[0] == 1.0 && k.s[0] == 1.0 && k.f[1] == -1.0);
}

TEST(GeometricMtf, ZeroFrequencyIsOneAndRaysBeyondTheArrayStillCount) {
  // Cooke triplet: the zero frequency is 1 and the transform there counts
  // every ray, even on 16 pixels against a spread of 85 (rays pile up on
  // the edges).
  System const cooke = nuvrix_test::cooke_triplet();
  SystemConfig cfg = opd_test::pupil_at_first_surface(5.0);
  cfg.stop_surface = nuvrix_test::kCookeStop;
  for (double field : {0.0, 14.0, 20.0}) {
    for (int grid : {16, 128}) {
      Binned const b = binned(cooke, cfg, field, 24, grid);
      ASSERT_EQ(b.status, 0);
      EXPECT_NEAR(b.p[0].tangential, 1.0, 1e-12) << field << " " << grid;
      EXPECT_NEAR(b.p[0].sagittal, 1.0, 1e-12) << field << " " << grid;
      EXPECT_EQ(b.dc(), grid_rays(24)) << field << " " << grid;  // no ray is vignetted here
    }
    RaySum const k = ray_sum(cooke, cfg, field, 12, 50.0, 5);
    EXPECT_TRUE(k.t[0] == 1.0 && k.s[0] == 1.0) << field;
  }
}

TEST(GeometricMtf, RaySumOfAUniformDiscIsTheBesselCurve) {
  // Disc a = 0.05 mm.  The rings sum J0(v sqrt u) over equal-area annuli,
  // off by (1 - J0(v)) / (2 rings) <= 0.7 / rings; the azimuthal alias of
  // rings / 2 rays stays below 1e-5 for v <= 31.4.
  Lens const lens(0.5);
  double const a = 0.05;
  double worst[2] = {0.0, 0.0};
  int const rings[2] = {100, 200};
  for (int r = 0; r < 2; ++r) {
    RaySum const k = ray_sum(lens.sys, lens.cfg, 0.0, rings[r], 100.0, 200);
    ASSERT_EQ(k.status, 0);
    for (int i = 0; i <= 200; ++i) {
      double const m = std::fabs(disc_otf(k.f[i], a));
      worst[r] = std::max({worst[r], std::fabs(k.t[i] - m), std::fabs(k.s[i] - m)});
    }
    EXPECT_LT(worst[r], 1.0 / rings[r]) << rings[r];
  }
  EXPECT_LT(worst[1], worst[0]);
  // 300 rings of 150 rays stop at 20000 hits, 133 1/3 rings: the disc of
  // radius a sqrt(133.3 / 300), to 1 / 133 and the 50 rays of the part ring.
  RaySum const k = ray_sum(lens.sys, lens.cfg, 0.0, 300, 100.0, 100);
  double const inner = a * std::sqrt(20000.0 / 150.0 / 300.0);
  for (int i = 0; i <= 100; ++i) {
    EXPECT_NEAR(k.t[i], std::fabs(disc_otf(k.f[i], inner)), 1.0 / 133 + 2.0 * 50 / 20000) << i;
  }
  EXPECT_GT(k.t[10], std::fabs(disc_otf(10.0, a)) + 0.3);  // not the full disc
}

TEST(GeometricMtf, BinnedAndRaySumAgreeWithinTheBinning) {
  // The binned curve reads pixel round(f / df); the ray sum is taken at those
  // frequencies.  Left: the pixel box 1 - sinc(pi f p), the grid rim 2 / S
  // and the rings 0.7 / R.  Spots: the 0.05 mm disc on axis, and at 5
  // degrees the disc bitten off in y by the 8 mm hole (T and S differ).
  Lens disc(0.5), bitten(0.5, 8.0);
  int const grid = 256, S = 128, R = 100;
  double const spread = 2.0 * 0.05 * (2.0 * (S - 0.5) / S - 1.0);  // x extent of both spots
  double const df = pixel_frequency(spread, grid), p = 1.5 * spread / 128.0;
  Lens const* lenses[2] = {&disc, &bitten};
  for (int c = 0; c < 2; ++c) {
    Lens const& lens = *lenses[c];
    double const field = c == 0 ? 0.0 : 5.0;
    Binned const b = binned(lens.sys, lens.cfg, field, S, grid);
    ASSERT_EQ(b.status, 0);
    int const pixels = static_cast<int>(std::lround(100.0 / df));
    RaySum const k = ray_sum(lens.sys, lens.cfg, field, R, pixels * df, pixels);
    ASSERT_EQ(k.status, 0);
    double gap = 0.0;
    for (int f = 0; f <= 100; ++f) {
      int const i = static_cast<int>(std::lround(f / df));
      double const box = 1.0 - std::sin(M_PI * f * p) / (M_PI * f * p + 1e-300);
      EXPECT_NEAR(b.p[f].tangential, k.t[i], box + 2.0 / S + 0.7 / R) << field << " " << f;
      EXPECT_NEAR(b.p[f].sagittal, k.s[i], box + 2.0 / S + 0.7 / R) << field << " " << f;
      gap = std::max(gap, std::fabs(b.p[f].tangential - b.p[f].sagittal));
    }
    EXPECT_GT(gap, field > 0.0 ? 0.1 : -1.0);  // the bite acts in y only
  }
}

TEST(GeometricMtf, StatusesAndUntouchedResults) {
  Lens lens(0.5, 8.0);
  System const& s = lens.sys;
  GeometricMtfPoint p[8];
  GeometricMtfResult r = {-7, -7, -7, -7.0};
  std::vector<double> re(64), im(64), f(4, -1.0), t(4), g(4);
  FieldData const fd[2] = {{0.0, 1.0, 0.0}, {30.0, 1.0, 0.0}};
  auto const bin = [&](int index, int samples, int wavelengths) {
    return wavelengths == 0 ? nuvrix::compute_geometric_mtf_polychromatic(
                                  s.surfaces.data(), s.count(), s.row(), nullptr, nullptr, 0,
                                  &lens.cfg, fd, 2, index, samples, 0, 50.0, 50.0, re.data(),
                                  im.data(), 8, p, 8, &r)
                            : nuvrix::compute_geometric_mtf(
                                  s.surfaces.data(), s.count(), s.row(), &lens.cfg, fd, 2, index,
                                  0, samples, 0, 50.0, 50.0, re.data(), im.data(), 8, p, 8, &r);
  };
  auto const sum = [&](int index, int rings) {
    return nuvrix::compute_geometric_mtf_kidger(s.surfaces.data(), s.count(), s.row(), &lens.cfg,
                                                fd, 2, index, 0.55, rings, 50.0, 3, 0, f.data(),
                                                t.data(), g.data());
  };
  EXPECT_TRUE(bin(-1, 8, 1) == -1 && bin(2, 8, 1) == -1 && sum(2, 8) == -1 && bin(2, 8, 0) == -1);
  EXPECT_TRUE(bin(0, 1, 1) == -3 && bin(0, 8, 0) == -3 && sum(0, 0) == -3);  // one ray; none
  // The 30 degree chief ray meets the plane 29 mm off axis, past its hole.
  EXPECT_TRUE(bin(1, 8, 1) == -2 && sum(1, 8) == -2);
  // A 0.5 mm hole in the lens passes the chief ray only.
  lens.sys.surfaces[1].aperture_radius = 0.5;
  EXPECT_TRUE(bin(0, 8, 1) == -3 && sum(0, 4) == -3);
  EXPECT_TRUE(r.point_count == -7 && r.field_index == -7 && f[0] == -1.0);
  lens.sys.surfaces[1].aperture_radius = 0.0;
  EXPECT_TRUE(bin(0, 2, 1) == 0 && r.point_count == 8);  // four rays are enough
}

TEST(GeometricMtfPolychromatic, TwoFocusesAddTheirTransfers) {
  // Image index 1.002 in row 2 moves its focus to 100.2 mm: discs of 0.05
  // and 0.02994 mm, equally many rays; the mean of the signed disc
  // transforms within box and rim.  Weights and wavelengths are not read.
  Lens lens(0.5);
  lens.sys.indices.insert(lens.sys.indices.end(), {1.0, 1.002, 1.002});
  double const a2 = 10.0 * std::fabs(1.0 - 100.5 / 100.2);
  int const grid = 256, S = 128;
  double const spread = 2.0 * 0.05 * (2.0 * (S - 0.5) / S - 1.0);
  double const df = pixel_frequency(spread, grid), p = 1.5 * spread / 128.0;
  Binned const b = binned(lens.sys, lens.cfg, 0.0, S, grid, 100.0, 100.0, 0, 110, 2);
  ASSERT_EQ(b.status, 0);
  EXPECT_TRUE(b.r.wavelength_index == -1 && b.r.field_index == 0 && b.r.point_count == 101);
  EXPECT_EQ(b.dc(), 2 * grid_rays(S));
  for (int f = 0; f <= 100; ++f) {
    double const fi = std::lround(f / df) * df;
    double const expect = std::fabs(0.5 * (disc_otf(fi, 0.05) + disc_otf(fi, a2)));
    double const box = 1.0 - std::sin(M_PI * f * p) / (M_PI * f * p + 1e-300);
    EXPECT_NEAR(b.p[f].tangential, expect, box + 2.0 / S) << f;
    EXPECT_NEAR(b.p[f].sagittal, expect, box + 2.0 / S) << f;
  }
  // Two equal rows are one wavelength counted twice: the same curve.
  Lens same(0.5);
  same.sys.indices.insert(same.sys.indices.end(), {1.0, 1.0, 1.0});
  Binned const twice = binned(same.sys, same.cfg, 0.0, 64, 128, 60.0, 60.0, 0, 110, 2);
  Binned const once = binned(same.sys, same.cfg, 0.0, 64, 128, 60.0, 60.0);
  for (int f = 0; f <= 60; ++f) {
    EXPECT_NEAR(twice.p[f].tangential, once.p[f].tangential, 1e-12);
    EXPECT_NEAR(twice.p[f].sagittal, once.p[f].sagittal, 1e-12);
  }
}

TEST(GeometricMtfVsField, RecordsReadTheNearestPointOfEachFieldCurve) {
  // Fractions 0, 1 (chief ray fails on the 8 mm hole: reads 0) and 0.1 of
  // 30 degrees; each curve has cutoffs 500 and stops at 100, so 250 reads
  // 100 and 37.5 the first nearest, 37.
  Lens lens(0.5, 8.0);
  double const fractions[3] = {0.0, 1.0, 0.1}, freqs[4] = {0.0, 12.4, 37.5, 250.0};
  int const nearest[4] = {0, 12, 37, 100}, grid = 128;
  std::vector<double> re(grid * grid), im(grid * grid);
  MtfVsFieldPoint pts[13];
  pts[12] = {-1.0, -1.0, -1.0};
  MtfVsFieldResult r = {-7, -7};
  ASSERT_EQ(nuvrix_compute_geometric_mtf_vs_field(lens.sys.surfaces.data(), lens.sys.count(),
                                                  lens.sys.row(), &lens.cfg, nullptr, 0, 0, 64, 0,
                                                  freqs, 4, fractions, 3, 30.0, re.data(),
                                                  im.data(), grid, pts, &r),
            0);
  EXPECT_TRUE(r.field_count == 3 && r.frequency_count == 4 && pts[12].field == -1.0);
  for (int f : {0, 2}) {
    Binned const b = binned(lens.sys, lens.cfg, 30.0 * fractions[f], 64, grid, 500.0, 500.0);
    for (int q = 0; q < 4; ++q) {
      EXPECT_EQ(pts[q * 3 + f].field, fractions[f]);
      EXPECT_EQ(pts[q * 3 + f].tangential, b.p[nearest[q]].tangential) << f << " " << q;
      EXPECT_EQ(pts[q * 3 + f].sagittal, b.p[nearest[q]].sagittal) << f << " " << q;
    }
  }
  for (int q = 0; q < 4; ++q) {
    EXPECT_TRUE(pts[q * 3 + 1].field == 1.0 && pts[q * 3 + 1].tangential == 0.0 &&
                pts[q * 3 + 1].sagittal == 0.0);
  }
  r = {-7, -7};
  nuvrix_compute_geometric_mtf_vs_field(nullptr, 0, nullptr, nullptr, nullptr, 0, 0, 8, 0, freqs,
                                        4, fractions, 0, 1.0, nullptr, nullptr, 8, pts, &r);
  EXPECT_TRUE(r.field_count == 0 && r.frequency_count == 4);
}
