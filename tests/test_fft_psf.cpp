// Diffraction PSF from wavefront maps: energy (Parseval), Strehl ratio of
// perfect, tilted and defocused pupils against the diffraction integral,
// degenerate maps, thread independence and the record layout.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "analysis/fft_psf.hpp"
#include "api/nuvrix.h"
#include "tests/opd_systems.hpp"
#include "tests/pupil_maps.hpp"

using nuvrix_test::PupilMap;

namespace {

struct Psf {
  std::vector<double> psf;
  FftPsfResult result = {-7, -7.0, -7.0, -7.0, 77, 77};
  int status = -99;
};

Psf run_psf(PupilMap const& m) {
  Psf out;
  size_t const area = static_cast<size_t>(4) * m.n * m.n;
  std::vector<double> real(area), imag(area);
  out.psf.assign(area, -1.0);
  out.status = nuvrix::compute_fft_psf(m.w.data(), m.mask.data(), m.n, 0.55, 4.0, real.data(),
                                       imag.data(), out.psf.data(), &out.result);
  return out;
}

}  // namespace

TEST(FftPsf, PerfectPupilHasStrehlOneWhateverItsPistonAndTilt) {
  int const n = 32, side = 64;
  Psf const flat = run_psf(nuvrix_test::perfect_disc(n));
  EXPECT_EQ(flat.status, 0);
  EXPECT_EQ(flat.result.grid_size, side);
  EXPECT_NEAR(flat.result.strehl, 1.0, 1e-12);
  EXPECT_EQ(flat.psf[(side / 2) * side + side / 2], 1.0);            // the peak, centred
  EXPECT_NEAR(flat.result.pixel_pitch, 0.5 * 0.55e-3 * 4.0, 1e-18);  // lambda F / 2
  EXPECT_TRUE(flat.result.field_index == 0 && flat.result.reserved == 0);
  // The fitted plane takes piston and tilt, with or without an aberration.
  auto const defocus = [](double x, double y) { return 0.2 * (x * x + y * y); };
  Psf const tilted = run_psf(
      nuvrix_test::disc_map(n, [](double x, double y) { return 0.8 + 3.25 * x - 1.5 * y; }));
  Psf const blur = run_psf(nuvrix_test::disc_map(n, defocus));
  Psf const blur_tilted = run_psf(nuvrix_test::disc_map(
      n, [&](double x, double y) { return defocus(x, y) - 0.6 + 2.0 * x + 0.7 * y; }));
  EXPECT_NEAR(tilted.result.strehl, 1.0, 1e-12);
  EXPECT_NEAR(blur_tilted.result.strehl, blur.result.strehl, 1e-12);
  for (size_t k = 0; k < flat.psf.size(); ++k) {
    EXPECT_NEAR(tilted.psf[k], flat.psf[k], 1e-11);
    EXPECT_NEAR(blur_tilted.psf[k], blur.psf[k], 1e-11);
  }
}

TEST(FftPsf, EnergyOfTheTransformIsTheSampleCountTimesTheArea) {
  // Parseval: sum |F|^2 = P^2 sum |pupil|^2 = P^2 times the valid samples,
  // whatever the aberration; peak times the normalised PSF is |F|^2.
  for (int n : {8, 32}) {
    PupilMap const m = nuvrix_test::disc_map(
        n, [](double x, double y) { return 0.7 * (x * x + y * y) + 0.3 * x * x * x; });
    Psf const p = run_psf(m);
    double sum = 0.0;
    for (double v : p.psf) sum += v;
    EXPECT_NEAR(p.result.peak * sum / (4.0 * n * n * m.valid), 1.0, 1e-12) << n;
  }
}

TEST(FftPsf, DefocusLowersStrehlAsTheDiffractionIntegralSays) {
  // W = W20 rho^2 on a uniform circular pupil: on-axis intensity
  // |int_0^1 exp(i 2 pi W20 u) du|^2 = (sin(pi W20) / (pi W20))^2, and
  // Marechal's exp(-(2 pi sigma)^2), sigma = W20 / sqrt(12), near it.  The
  // sampled disc of 64 samples is good to a few parts in a thousand.
  for (double w20 : {0.1, 0.25, 0.4}) {
    Psf const p = run_psf(
        nuvrix_test::disc_map(64, [w20](double x, double y) { return w20 * (x * x + y * y); }));
    double const exact = std::pow(std::sin(M_PI * w20) / (M_PI * w20), 2);
    double const marechal = std::exp(-std::pow(2.0 * M_PI * w20 / std::sqrt(12.0), 2));
    EXPECT_NEAR(p.result.strehl, exact, 0.01) << w20;
    EXPECT_NEAR(p.result.strehl, marechal, 0.02) << w20;
  }
}

TEST(FftPsf, MapsWithFewValidSamples) {
  int const n = 8, side = 16;
  PupilMap m;
  m.n = n;
  m.w.assign(n * n, 0.3);
  m.mask.assign(n * n, 0);
  // None: zero peak, zero Strehl, an all-zero PSF, status 0.
  Psf const none = run_psf(m);
  EXPECT_EQ(none.status, 0);
  EXPECT_TRUE(none.result.peak == 0.0 && none.result.strehl == 0.0);
  for (double v : none.psf) EXPECT_EQ(v, 0.0);
  // Two samples a quarter wave apart, no plane removed: |1 + i|^2 = 2 at
  // the centre (a fitted plane would give 4), fringes up to |1 + 1|^2.
  m.w[2 * n + 3] = 0.0;
  m.w[5 * n + 6] = 0.25;
  m.mask[2 * n + 3] = m.mask[5 * n + 6] = 1;
  Psf const two = run_psf(m);
  EXPECT_NEAR(two.psf[(side / 2) * side + side / 2] * two.result.peak, 2.0, 1e-12);
  EXPECT_NEAR(two.result.peak, 4.0, 1e-12);
  EXPECT_NEAR(two.result.strehl, 1.0, 1e-12);
}

TEST(FftPsf, ResultDoesNotDependOnTheThreadCount) {
  PupilMap const m = nuvrix_test::disc_map(
      32, [](double x, double y) { return 0.3 * x * (x * x + y * y) + 0.1 * y * y; });
  int const threads = omp_get_max_threads();
  omp_set_num_threads(1);
  Psf const one = run_psf(m);
  omp_set_num_threads(3);
  Psf const three = run_psf(m);
  omp_set_num_threads(threads);
  EXPECT_EQ(one.result.peak, three.result.peak);
  EXPECT_EQ(one.psf, three.psf);
}

TEST(FftPsf, ParaboloidOnAxisIsPerfectThroughTheExport) {
  nuvrix_test::System const sys = opd_test::paraboloid(100.0, 0.0);
  SystemConfig const cfg = opd_test::pupil_at_first_surface(10.0);
  FieldData const axis = {0.0, 1.0, 0.0};
  int const n = 32, side = 64;
  std::vector<double> map(n * n), real(side * side), imag(side * side), psf(side * side);
  std::vector<int> mask(n * n);
  FftPsfResult r = {-7, -7.0, -7.0, -7.0, -7, -7};
  auto const run = [&](int field_index) {
    return nuvrix_compute_fft_psf(sys.surfaces.data(), sys.count(), sys.row(), sys.row(), 0.55,
                                  &cfg, &axis, 1, field_index, n, 100.0, 5.0, map.data(),
                                  mask.data(), real.data(), imag.data(), psf.data(), &r);
  };
  EXPECT_EQ(run(1), -1);  // the map's status, nothing transformed
  EXPECT_EQ(r.grid_size, -7);
  ASSERT_EQ(run(0), 0);
  EXPECT_NEAR(r.strehl, 1.0, 1e-9);  // the map is flat to 1e-9 waves
  EXPECT_EQ(r.grid_size, side);
  EXPECT_NEAR(r.pixel_pitch, 0.5 * 0.55e-3 * 5.0, 1e-18);
  EXPECT_TRUE(r.field_index == 0 && r.reserved == 0);
  EXPECT_EQ(psf[(side / 2) * side + side / 2], 1.0);
}
