// Wavefront map against closed forms: perfect and defocused foci, the grid's
// sample positions, rays that miss the reference sphere, statuses.
#include <gtest/gtest.h>

#include <functional>

#include "tests/opd_systems.hpp"

using namespace opd_test;

namespace {

struct Map {
  int status;
  std::vector<double> w;
  std::vector<int> mask;
  WavefrontResult result;
};

Map run_map(System const& sys, SystemConfig const& cfg, double field_deg, int field_index,
            int wave_row, double lambda, int N, double R) {
  FieldData const fields[2] = {{field_deg, 1.0, 0.0}, {50.0, 1.0, 0.0}};
  Map m = {
      0, std::vector<double>(N * N, -7.0), std::vector<int>(N * N, 9), {-5, -5.0, -5.0, -5, -5}};
  m.status = nuvrix_compute_wavefront_map(sys.surfaces.data(), sys.count(), sys.row(wave_row),
                                          sys.row(0), lambda, &cfg, fields, 2, field_index, N, R,
                                          m.w.data(), m.mask.data(), &m.result);
  return m;
}

// Pupil point of row i, column j: px = (j - N/2) / h, py = (i - N/2 + 1) / h.
double px_of(int j, int N) { return (j - N / 2) / ((N - 1) / 2.0); }
double py_of(int i, int N) { return (i - N / 2 + 1) / ((N - 1) / 2.0); }

using Expect = std::function<void(double px, double py, double w)>;
// Checks the mask of every sample (kept inside or on the unit circle), the
// value of every valid one; returns the number of valid samples.
int check_map(Map const& m, int N, Expect const& expect) {
  int valid = 0;
  for (int i = 0; i < N; ++i) {
    for (int j = 0; j < N; ++j) {
      double const px = px_of(j, N), py = py_of(i, N), w = m.w[i * N + j];
      bool const in = px * px + py * py <= 1.0;
      EXPECT_EQ(m.mask[i * N + j], in ? 1 : 0) << i << " " << j;
      if (in) {
        expect(px, py, w);
      } else {
        EXPECT_EQ(w, 0.0);
      }
      valid += in;
    }
  }
  return valid;
}

}  // namespace

// The paraboloid's sag is undone by the object term and its focus is
// perfect: flat for any reference radius (only |R| counts).  The ideal lens
// defocused by delta follows the closed form, and W020 rho^2 with
// W020 = delta a^2 / 2 f^2 to 1 %: the next terms are 3/4 (a/f)^2 and
// delta / R of W020, 1.9e-3 and 5e-3 here.  rms and peak-to-valley follow.
TEST(WavefrontMap, PerfectAndDefocusedFociFollowTheirClosedForms) {
  double const f = 50.0, a = 10.0, lambda = 0.55;
  for (double R : {40.0, -40.0, 2000.0}) {
    Map const m = run_map(paraboloid(f, 0.0), pupil_at_first_surface(a), 0.0, 0, 0, lambda, 16, R);
    ASSERT_EQ(m.status, 0);
    double worst = 0.0;
    check_map(m, 16, [&](double px, double py, double w) {
      double const tol = mirror_tolerance(f, a * std::hypot(px, py), R, lambda);
      EXPECT_NEAR(w, 0.0, tol);
      worst = std::fmax(worst, tol);
    });
    EXPECT_EQ(m.result.grid_size, 16);
    EXPECT_EQ(m.result.wavelength_index, -1);
    EXPECT_LE(m.result.peak_to_valley, 2.0 * worst);
    EXPECT_TRUE(m.result.rms >= 0.0 && m.result.rms <= worst);
  }
  double const fl = 100.0, al = 5.0, delta = 0.5, R = 100.0, lam = 0.5;
  Map const m = run_map(thin_lens(fl, delta), pupil_at_first_surface(al), 0.0, 0, 0, lam, 9, R);
  ASSERT_EQ(m.status, 0);
  double const w020 = delta * al * al / (2.0 * fl * fl) * 1000.0 / lam;
  double s = 0.0, s2 = 0.0, lo = 1e9, hi = -1e9;
  int const n = check_map(m, 9, [&](double px, double py, double w) {
    double const h = al * std::hypot(px, py), L = std::hypot(fl, h);
    double const want = defocus_opd_mm(delta, fl / L, h / L, R) * 1000.0 / lam;
    EXPECT_NEAR(w, want, kRoundingWaves) << px << " " << py;
    EXPECT_NEAR(w, w020 * (px * px + py * py), 1e-2 * w020);
    s += want, s2 += want * want, lo = std::fmin(lo, want), hi = std::fmax(hi, want);
  });
  EXPECT_NEAR(m.result.rms, std::sqrt(s2 / n - (s / n) * (s / n)), kRoundingWaves);
  EXPECT_NEAR(m.result.peak_to_valley, hi - lo, 2.0 * kRoundingWaves);
}

// A plane wave at 20 degrees into a glass block, mapped in glass of 1.6
// about the reference point of the primary glass, 1.5: a tilt in py besides
// the sphere's curvature.  Literal sample positions of an even and an odd
// grid: a shifted or reversed row, or a shifted column, fails.
TEST(WavefrontMap, RowsAndColumnsSampleThePupilOneStepApart) {
  GlassBlockWave const g = {10.0, 2.0, 20.0, 0.6, 20.0, 1.5, 1.6};
  ASSERT_GT(std::fabs(glass_block_opd(g, 0.0, 0.5) - glass_block_opd(g, 0.0, -0.5)), 1.0);
  struct Layout {
    int N, valid;
    std::vector<double> px, py;
  } const layouts[] = {{4, 9, {-4 / 3., -2 / 3., 0.0, 2 / 3.}, {-2 / 3., 0.0, 2 / 3., 4 / 3.}},
                       {5, 12, {-1.0, -0.5, 0.0, 0.5, 1.0}, {-0.5, 0.0, 0.5, 1.0, 1.5}}};
  for (Layout const& L : layouts) {
    Map const m = run_map(glass_block(g.T, {g.n_p, g.n_w}), pupil_at_first_surface(g.a), g.field, 0,
                          1, g.lambda, L.N, g.R);
    ASSERT_EQ(m.status, 0);
    int valid = 0;
    for (int k = 0; k < L.N * L.N; ++k) {
      double const px = L.px[k % L.N], py = L.py[k / L.N];
      bool const in = px * px + py * py <= 1.0;  // the rim is kept
      ASSERT_EQ(m.mask[k], in ? 1 : 0) << L.N << ": " << k;
      EXPECT_NEAR(m.w[k], in ? glass_block_opd(g, px, py) : 0.0, 1e-8) << L.N << ": " << k;
      valid += in;
    }
    EXPECT_EQ(valid, L.valid);
  }
}

// The paraboloid's image plane stands delta beyond the focus; a ray passing
// farther than R from P misses the small sphere and keeps W = -(O - ref):
// O = f + h^2/4f + delta / cos t from the mirror to the plane, ref the chief
// ray's f + delta + R.  A ray that meets the sphere follows the defocus.
TEST(WavefrontMap, RayMissingTheReferenceSphereKeepsTheOpdOfItsPhaseAlone) {
  double const f = 50.0, a = 10.0, delta = 2.0, R = 0.23, lambda = 0.5;
  Map const m = run_map(paraboloid(f, delta), pupil_at_first_surface(a), 0.0, 0, 0, lambda, 11, R);
  ASSERT_EQ(m.status, 0);
  int misses = 0;
  int const n = check_map(m, 11, [&](double px, double py, double w) {
    double const h = a * std::hypot(px, py), sag = h * h / (4.0 * f);
    double const cos_t = (f - sag) / (f + sag), sin_t = h / (f + sag);
    bool const miss = delta * sin_t > R;
    misses += miss;
    double const want =
        miss ? (f + delta + R) - (f + sag + delta / cos_t) : defocus_opd_mm(delta, cos_t, sin_t, R);
    EXPECT_NEAR(w, want * 1000.0 / lambda, kRoundingWaves) << px << " " << py;
  });
  EXPECT_EQ(misses, 55);
  EXPECT_EQ(n - misses, 25);
}

TEST(WavefrontMap, StatusesLeaveTheOutputsUntouched) {
  System const sys = clipped_block();
  SystemConfig const cfg = pupil_at_first_surface(0.5);
  int const cases[][3] = {{-1, 0, -1}, {2, 0, -1}, {1, 0, -2}, {1, 1, -2}, {0, 1, -3}};
  for (auto const& c : cases) {
    Map const m = run_map(sys, cfg, 40.0, c[0], c[1], 0.55, 6, 30.0);
    EXPECT_EQ(m.status, c[2]);
    EXPECT_EQ(m.w, std::vector<double>(36, -7.0));
    EXPECT_EQ(m.mask, std::vector<int>(36, 9));
    EXPECT_EQ(m.result.grid_size, -5);
    EXPECT_EQ(m.result.rms, -5.0);
  }
  // One sample across steps by 0/0: nothing usable, zero figures, status 0.
  Map const one = run_map(sys, cfg, 40.0, 0, 0, 0.55, 1, 30.0);
  EXPECT_EQ(one.status, 0);
  EXPECT_EQ(one.mask[0], 0);
  EXPECT_EQ(one.result.peak_to_valley, 0.0);
  EXPECT_EQ(one.result.rms, 0.0);
}
