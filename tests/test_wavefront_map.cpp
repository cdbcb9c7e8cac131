// Wavefront map: an ideal paraboloid is flat, a defocused ideal lens follows
// the exact path difference of a displaced focus and the W020 rho^2 law, the
// grid's rows and columns sample the pupil where the layout says, a ray that
// misses the reference sphere keeps its phase, and failures leave the
// outputs alone.
//
// Tolerances.  The map values are differences of optical paths of some 1e5
// waves (100 mm at 0.5 um); the spacing of doubles there is 1.5e-11 waves,
// and the handful of roundings in the trace and the reference terms stay
// well below 1e-9 waves.  Where the closed form itself subtracts nearly
// equal lengths of about 100 mm its rounding is of the same order.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "api/nuvrix.h"
#include "tests/opd_systems.hpp"

using nuvrix_test::System;
using namespace opd_test;

namespace {

constexpr double kRoundingWaves = 1e-9;

struct Map {
  int status;
  std::vector<double> values;
  std::vector<int> mask;
  WavefrontResult result;
};

Map run_map(System const& sys, SystemConfig const& cfg, std::vector<FieldData> const& fields,
            int field_index, int wave_row, double wavelength, int grid, double reference_radius) {
  Map m;
  m.values.assign(grid * grid, -7.0);
  m.mask.assign(grid * grid, 9);
  m.result = {-5, -5.0, -5.0, -5, -5};
  m.status = nuvrix_compute_wavefront_map(sys.surfaces.data(), sys.count(), sys.row(wave_row),
                                          sys.row(0), wavelength, &cfg, fields.data(),
                                          static_cast<int>(fields.size()), field_index, grid,
                                          reference_radius, m.values.data(), m.mask.data(),
                                          &m.result);
  return m;
}

std::vector<FieldData> on_axis() { return {FieldData{0.0, 1.0, 0.0}}; }

// Pupil coordinates of column j and row i of an N by N map, h = (N - 1) / 2.
double column_px(int j, int N) { return (j - N / 2) / ((N - 1) / 2.0); }
double row_py(int i, int N) { return (i - N / 2 + 1) / ((N - 1) / 2.0); }
bool inside(double px, double py) { return px * px + py * py <= 1.0; }

}  // namespace

// Behind the mirror the rays run towards -z, and the root of the sphere
// construction, S / (B - sqrt D), is formed from a difference that cancels
// down to R (1/|n| - 1), about R h^2 / 2f^2 for a ray at height h: its
// rounding of 2 eps relative grows to some 8 R eps f^2 / h^2 mm.  This
// bound (with the 1e-9 waves of the paths) is the tolerance of each sample;
// the axial sample crosses the vertex and is exact.
double mirror_tolerance(double f, double h, double R, double lambda) {
  if (h == 0.0) return kRoundingWaves;
  return kRoundingWaves + 8.0 * std::fabs(R) * DBL_EPSILON * f * f / (h * h) * 1000.0 / lambda;
}

TEST(WavefrontMap, IdealParaboloidOnAxisIsFlatForAnyReferenceRadius) {
  double const f = 50.0, a = 10.0, lambda = 0.55;
  System const sys = paraboloid(f, 0.0);
  SystemConfig const cfg = pupil_at_first_surface(a);
  int const N = 16;
  for (double R : {40.0, -40.0, 2000.0}) {
    Map const m = run_map(sys, cfg, on_axis(), 0, 0, lambda, N, R);
    ASSERT_EQ(m.status, 0);
    int valid = 0;
    double worst = 0.0;
    for (int i = 0; i < N; ++i) {
      for (int j = 0; j < N; ++j) {
        int const k = i * N + j;
        double const px = column_px(j, N), py = row_py(i, N);
        ASSERT_EQ(m.mask[k], inside(px, py) ? 1 : 0) << i << " " << j;
        if (m.mask[k] == 0) continue;
        double const tol = mirror_tolerance(f, a * std::hypot(px, py), R, lambda);
        EXPECT_NEAR(m.values[k], 0.0, tol) << R << ": " << px << " " << py;
        worst = std::fmax(worst, tol);
        ++valid;
      }
    }
    EXPECT_GT(valid, 150);
    EXPECT_EQ(m.result.grid_size, N);
    EXPECT_EQ(m.result.field_index, 0);
    EXPECT_EQ(m.result.wavelength_index, -1);
    EXPECT_LE(m.result.peak_to_valley, 2.0 * worst);
    EXPECT_LE(m.result.rms, worst);  // fails on a not-a-number as well
    EXPECT_GE(m.result.rms, 0.0);
  }

  // Only the size of the reference radius counts.
  Map const plus = run_map(sys, cfg, on_axis(), 0, 0, lambda, N, 40.0);
  Map const minus = run_map(sys, cfg, on_axis(), 0, 0, lambda, N, -40.0);
  for (int k = 0; k < N * N; ++k) {
    EXPECT_EQ(minus.values[k], plus.values[k]);
    EXPECT_EQ(minus.mask[k], plus.mask[k]);
  }
}

// An ideal lens focuses exactly at F, delta in front of the image plane, so
// every ray is a ray through F and the map is the closed-form defocus.  To
// second order W = W020 rho^2 with W020 = delta a^2 / (2 f^2) / lambda; the
// next terms are -3/4 (a/f)^2 (1.9e-3 here) and delta / R (5e-3) of it, so
// the rho^2 law must hold to 1 % of W020.
TEST(WavefrontMap, DefocusOfIdealLensIsExactPathDifferenceAndW020RhoSquared) {
  double const f = 100.0, a = 5.0, delta = 0.5, R = 100.0, lambda = 0.5;
  System const sys = defocused_thin_lens(f, delta);
  SystemConfig const cfg = pupil_at_first_surface(a);
  int const N = 9;
  Map const m = run_map(sys, cfg, on_axis(), 0, 0, lambda, N, R);
  ASSERT_EQ(m.status, 0);
  double const w020 = delta * a * a / (2.0 * f * f) * 1000.0 / lambda;
  std::vector<double> expected(N * N, 0.0);
  for (int i = 0; i < N; ++i) {
    for (int j = 0; j < N; ++j) {
      int const k = i * N + j;
      double const px = column_px(j, N), py = row_py(i, N);
      ASSERT_EQ(m.mask[k], inside(px, py) ? 1 : 0);
      if (m.mask[k] == 0) {
        EXPECT_EQ(m.values[k], 0.0);
        continue;
      }
      double const rho2 = px * px + py * py, h = a * std::sqrt(rho2);
      double const L = std::hypot(f, h);
      expected[k] = defocus_opd_mm(delta, f / L, h / L, R) * 1000.0 / lambda;
      EXPECT_NEAR(m.values[k], expected[k], kRoundingWaves) << px << " " << py;
      EXPECT_NEAR(m.values[k], w020 * rho2, 1e-2 * w020) << px << " " << py;
    }
  }
  double mean, sd, lo, hi;
  masked_moments(expected, m.mask, mean, sd, lo, hi);
  EXPECT_NEAR(m.result.rms, sd, kRoundingWaves);
  EXPECT_NEAR(m.result.peak_to_valley, hi - lo, 2.0 * kRoundingWaves);
  EXPECT_GT(m.result.peak_to_valley, 0.5 * w020);
}

// A plane wave at 20 degrees refracts into a block of glass that reaches
// the image.  The map is taken in glass of index 1.6 against the reference
// point of the primary glass, 1.5, where the chief ray lands
// T (tan b_1.5 - tan b_1.6) away: the map carries a tilt in py, besides the
// sphere's curvature, so that a shifted or reversed row shows at once.
// Every ray of the wave has the same phase through the block; the object
// term adds sin(20 deg) y on surface 1, and the sphere term is the forward
// distance to the sphere.
TEST(WavefrontMap, RowsAndColumnsSampleThePupilOneStepApart) {
  double const T = 10.0, a = 2.0, R = 20.0, lambda = 0.6, field = 20.0;
  double const n_p = 1.5, n_w = 1.6;
  System const sys = glass_block(T, {n_p, n_w});
  SystemConfig const cfg = pupil_at_first_surface(a);
  std::vector<FieldData> const fields = {FieldData{field, 1.0, 0.0}};
  Refracted const bp = refracted(field, n_p), bw = refracted(field, n_w);
  double const P[3] = {0.0, T * bp.tan_b, 0.0};
  double const d[3] = {0.0, bw.sin_b, bw.cos_b};
  auto path = [&](double px, double py) {  // mm, up to a constant
    double const e[3] = {px * a, py * a + T * bw.tan_b, 0.0};
    double u = 0.0;
    EXPECT_TRUE(forward_to_sphere(e, d, P, R, u));
    return n_w * u + std::sin(field * kDegree) * py * a;
  };
  auto opd = [&](double px, double py) { return -(path(px, py) - path(0.0, 0.0)) * 1000.0 / lambda; };
  // The tilt is large enough for a reversed row order to fail by far.
  ASSERT_GT(std::fabs(opd(0.0, 0.5) - opd(0.0, -0.5)), 1.0);

  struct Layout {
    int N;
    std::vector<double> px, py;
  };
  Layout const layouts[] = {
      {4, {-4.0 / 3.0, -2.0 / 3.0, 0.0, 2.0 / 3.0}, {-2.0 / 3.0, 0.0, 2.0 / 3.0, 4.0 / 3.0}},
      {5, {-1.0, -0.5, 0.0, 0.5, 1.0}, {-0.5, 0.0, 0.5, 1.0, 1.5}},
  };
  for (Layout const& g : layouts) {
    Map const m = run_map(sys, cfg, fields, 0, 1, lambda, g.N, R);
    ASSERT_EQ(m.status, 0);
    int valid = 0;
    for (int i = 0; i < g.N; ++i) {
      for (int j = 0; j < g.N; ++j) {
        int const k = i * g.N + j;
        double const px = g.px[j], py = g.py[i];
        // On the rim (|p| exactly 1) a sample is kept.
        bool const in = px * px + py * py <= 1.0;
        ASSERT_EQ(m.mask[k], in ? 1 : 0) << g.N << ": " << i << " " << j;
        double const want = in ? opd(px, py) : 0.0;
        EXPECT_NEAR(m.values[k], want, 1e-8) << g.N << ": " << i << " " << j;
        valid += m.mask[k];
      }
    }
    EXPECT_EQ(valid, g.N == 4 ? 9 : 12);
  }
}

// Behind the paraboloid the image plane stands delta beyond the focus and
// the reference sphere is small: a ray that passes farther than R from P
// misses it and is kept with W = -(O - ref), O being the path from the
// mirror to the plane, f + h^2/4f + delta / cos, and ref the chief ray's
// f + delta + R.  A ray that meets the sphere has its sag undone by the
// object term and follows the closed-form defocus.
TEST(WavefrontMap, RayMissingTheReferenceSphereKeepsTheOpdOfItsPhaseAlone) {
  double const f = 50.0, a = 10.0, delta = 2.0, R = 0.23, lambda = 0.5;
  System const sys = paraboloid(f, delta);
  SystemConfig const cfg = pupil_at_first_surface(a);
  int const N = 11;
  Map const m = run_map(sys, cfg, on_axis(), 0, 0, lambda, N, R);
  ASSERT_EQ(m.status, 0);
  int hits = 0, misses = 0;
  for (int i = 0; i < N; ++i) {
    for (int j = 0; j < N; ++j) {
      int const k = i * N + j;
      double const px = column_px(j, N), py = row_py(i, N);
      ASSERT_EQ(m.mask[k], inside(px, py) ? 1 : 0) << i << " " << j;
      if (m.mask[k] == 0) continue;
      double const h = a * std::sqrt(px * px + py * py);
      double cos_t, sin_t;
      paraboloid_ray_angle(f, h, cos_t, sin_t);
      double want_mm;
      if (delta * sin_t > R) {
        ++misses;
        double const phase_mm = f + h * h / (4.0 * f) + delta / cos_t;
        want_mm = -(phase_mm - (f + delta + R));
      } else {
        ++hits;
        want_mm = defocus_opd_mm(delta, cos_t, sin_t, R);
      }
      EXPECT_NEAR(m.values[k], want_mm * 1000.0 / lambda, kRoundingWaves) << px << " " << py;
    }
  }
  EXPECT_GT(hits, 8);
  EXPECT_GT(misses, 30);
}

// A system with a hard aperture after a glass block: at 40 degrees the
// chief ray passes in glass of 1.5 and is clipped in glass of 1.2; at 50
// degrees it is clipped in both.
TEST(WavefrontMap, StatusesLeaveMapMaskAndResultUntouched) {
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0, 0.0}, {HUGE_VAL, 10.0, 5.0, 0.0},
                                        {1.0, 1.5, 1.0, 1.0, 1.0, 1.2, 1.0, 1.0});
  sys.surfaces[2].aperture_radius = 5.5;
  SystemConfig const cfg = pupil_at_first_surface(0.5);
  std::vector<FieldData> const fields = {FieldData{40.0, 1.0, 0.0}, FieldData{50.0, 1.0, 0.0}};
  struct Case {
    int field_index, wave_row, status;
  };
  Case const cases[] = {{-1, 0, -1}, {2, 0, -1}, {1, 0, -2}, {1, 1, -2}, {0, 1, -3}};
  for (Case const& c : cases) {
    Map const m = run_map(sys, cfg, fields, c.field_index, c.wave_row, 0.55, 6, 30.0);
    EXPECT_EQ(m.status, c.status) << c.field_index << " " << c.wave_row;
    for (int k = 0; k < 36; ++k) {
      EXPECT_EQ(m.values[k], -7.0);
      EXPECT_EQ(m.mask[k], 9);
    }
    EXPECT_EQ(m.result.grid_size, -5);
    EXPECT_EQ(m.result.rms, -5.0);
    EXPECT_EQ(m.result.wavelength_index, -5);
  }
  Map const ok = run_map(sys, cfg, fields, 0, 0, 0.55, 6, 30.0);
  EXPECT_EQ(ok.status, 0);
  EXPECT_EQ(ok.result.field_index, 0);
  EXPECT_EQ(ok.result.wavelength_index, -1);

  // One sample across has a step of 0/0: nothing usable is traced, and the
  // call still succeeds with zero figures.
  Map const one = run_map(sys, cfg, fields, 0, 0, 0.55, 1, 30.0);
  EXPECT_EQ(one.status, 0);
  EXPECT_EQ(one.mask[0], 0);
  EXPECT_EQ(one.values[0], 0.0);
  EXPECT_EQ(one.result.grid_size, 1);
  EXPECT_EQ(one.result.peak_to_valley, 0.0);
  EXPECT_EQ(one.result.rms, 0.0);
}
