// The engine's FFT against the defining sum of the discrete Fourier
// transform and the shift theorem; the quadrant shift; the piston/tilt
// plane of a wavefront map; the static split of the parallel loops.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "analysis/fft.hpp"
#include "tests/pupil_maps.hpp"

namespace {

using Complex = std::complex<double>;

// X[k] = sum_m x[m] exp(sign i 2 pi k m / n), by the definition, in long double.
std::vector<Complex> naive_dft(std::vector<double> const& re, std::vector<double> const& im,
                               double sign) {
  size_t const n = re.size();
  std::vector<Complex> out(n);
  for (size_t k = 0; k < n; ++k) {
    long double sr = 0.0L, si = 0.0L;
    for (size_t m = 0; m < n; ++m) {
      long double const a = sign * 2.0L * M_PIl * static_cast<long double>((k * m) % n) / n;
      sr += re[m] * cosl(a) - im[m] * sinl(a);
      si += re[m] * sinl(a) + im[m] * cosl(a);
    }
    out[k] = Complex(static_cast<double>(sr), static_cast<double>(si));
  }
  return out;
}

std::vector<double> random_values(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<double> v(n);
  for (double& x : v) x = u(gen);
  return v;
}

}  // namespace

TEST(Fft, OneDimensionalAgreesWithTheDefiningSumBothWays) {
  for (int n : {2, 4, 16, 64, 256}) {
    std::vector<double> const re0 = random_values(n, 17u + n), im0 = random_values(n, 71u + n);
    for (bool inverse : {false, true}) {
      std::vector<Complex> const expect = naive_dft(re0, im0, inverse ? 1.0 : -1.0);
      std::vector<double> re = re0, im = im0;
      nuvrix::fft_1d(re.data(), im.data(), n, inverse);
      // A running-product twiddle drifts by about eps per step, up to n/2
      // steps, on outputs of size sqrt(n): allow a few eps n sqrt(n).
      double const tol = 1e-15 * n * std::sqrt(n) / (inverse ? n : 1.0);
      double const scale = inverse ? 1.0 / n : 1.0;
      for (int k = 0; k < n; ++k) {
        EXPECT_NEAR(re[k], expect[k].real() * scale, tol) << n << " " << k;
        EXPECT_NEAR(im[k], expect[k].imag() * scale, tol) << n << " " << k;
      }
    }
  }
}

TEST(Fft, DegenerateSizesStayInsideTheirArrays) {
  // No power of two: no DFT, but guard values beyond n points survive.
  // A size below 1 changes nothing.
  for (int n : {3, 6, 100}) {
    std::vector<double> re(n + 8, 7.0), im(n + 8, -7.0);
    nuvrix::fft_1d(re.data(), im.data(), n, false);
    for (int k = n; k < n + 8; ++k) EXPECT_TRUE(re[k] == 7.0 && im[k] == -7.0);
  }
  std::vector<double> re = {1.0, 2.0}, im = {3.0, 4.0};
  nuvrix::fft_1d(re.data(), im.data(), 0, false);
  nuvrix::fft_2d(re.data(), im.data(), -2, true);
  EXPECT_EQ(re, (std::vector<double>{1.0, 2.0}));
  EXPECT_EQ(im, (std::vector<double>{3.0, 4.0}));
}

TEST(Fft, ShiftedDeltaTransformsToAUnitModulusPlaneWave) {
  int const n = 16, r0 = 3, c0 = 11;
  std::vector<double> re(n * n, 0.0), im(n * n, 0.0);
  re[r0 * n + c0] = 1.0;
  nuvrix::fft_2d(re.data(), im.data(), n, false);
  for (int k = 0; k < n; ++k) {
    for (int l = 0; l < n; ++l) {
      Complex const v(re[k * n + l], im[k * n + l]);
      EXPECT_NEAR(std::abs(v), 1.0, 1e-13);
      // Shift theorem: phase -2 pi (k r0 + l c0) / n.
      EXPECT_NEAR(std::abs(v - std::polar(1.0, -2.0 * M_PI * (k * r0 + l * c0) / n)), 0.0, 1e-13);
    }
  }
}

TEST(Fft, QuadrantShiftCentresTheOriginAndUndoesItselfForEvenSizes) {
  for (int n : {2, 8, 10, 5}) {
    std::vector<double> d(n * n);
    for (int k = 0; k < n * n; ++k) d[k] = k;
    std::vector<double> const orig = d;
    nuvrix::fft_shift_2d(d.data(), n);
    int const h = n / 2;
    EXPECT_EQ(d[h * n + h], 0.0);  // origin to (n/2, n/2) and back
    EXPECT_EQ(d[0], orig[h * n + h]);
    if (n % 2 == 1) {
      // Odd: the last row and column stay; a cyclic shift would move them.
      for (int k = 0; k < n; ++k) EXPECT_EQ(d[(n - 1) * n + k], orig[(n - 1) * n + k]);
      for (int k = 0; k < n; ++k) EXPECT_EQ(d[k * n + n - 1], orig[k * n + n - 1]);
      continue;
    }
    nuvrix::fft_shift_2d(d.data(), n);
    EXPECT_EQ(d, orig);
  }
}

TEST(Fft, PlaneFitRecoversPistonAndTiltOnTheMapGrid) {
  for (int n : {16, 17}) {
    nuvrix_test::PupilMap const m =
        nuvrix_test::disc_map(n, [](double x, double y) { return 0.3 - 1.7 * x + 0.45 * y; });
    nuvrix::PistonTiltPlane const p = nuvrix::fit_piston_tilt(m.w.data(), m.mask.data(), n);
    EXPECT_EQ(p.count, m.valid);
    EXPECT_NEAR(p.bx, -1.7, 1e-12);
    EXPECT_NEAR(p.by, 0.45, 1e-12);
    EXPECT_NEAR(p.b0, 0.3, 1e-12);
  }
  // Fewer than three samples: no plane.  Three on the row y = 0 (row 3 of
  // 8): singular moments, no slope, the mean as piston.
  int const n = 8;
  std::vector<double> w(n * n, 0.0);
  std::vector<int> mask(n * n, 0);
  w[3 * n + 1] = 1.0;
  w[3 * n + 5] = 5.0;
  mask[3 * n + 1] = mask[3 * n + 5] = 1;
  nuvrix::PistonTiltPlane p = nuvrix::fit_piston_tilt(w.data(), mask.data(), n);
  EXPECT_TRUE(p.count == 2 && p.bx == 0.0 && p.by == 0.0 && p.b0 == 0.0);
  mask[3 * n + 6] = 1;
  p = nuvrix::fit_piston_tilt(w.data(), mask.data(), n);
  EXPECT_TRUE(p.count == 3 && p.bx == 0.0 && p.by == 0.0);
  EXPECT_NEAR(p.b0, 2.0, 1e-15);
}

TEST(Fft, StaticSplitGivesContiguousRangesWithTheRemainderFirst) {
  long const begins[4] = {0, 3, 6, 8}, ends[4] = {3, 6, 8, 10};  // 10 items, 4 threads
  for (int t = 0; t < 4; ++t) {
    nuvrix::detail::StaticRange const r = nuvrix::detail::static_range(10, 4, t);
    EXPECT_EQ(r.begin, begins[t]);
    EXPECT_EQ(r.end, ends[t]);
  }
  nuvrix::detail::StaticRange const empty = nuvrix::detail::static_range(2, 4, 3);
  EXPECT_EQ(empty.begin, empty.end);
}
