// Diffraction MTF from wavefront maps: the circular pupil against the
// analytic diffraction-limited curve, aberrated pupils against their
// autocorrelation summed sample by sample, the frequency axis, and the
// polychromatic sum with its wavelength scaling and shared tilt.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "analysis/fft_mtf.hpp"
#include "api/nuvrix.h"
#include "tests/opd_systems.hpp"
#include "tests/pupil_maps.hpp"

using nuvrix_test::PupilMap;

namespace {

struct Curve {
  std::vector<FftMtfPoint> points;
  FftMtfResult result = {-7, -7, -7, -7.0};
  int status = -99;
};

Curve mono(PupilMap const& m, double tangential_cutoff, double sagittal_cutoff, double step,
           int capacity) {
  Curve c;
  size_t const area = static_cast<size_t>(4) * m.n * m.n;
  std::vector<double> real(area), imag(area);
  c.points.assign(std::max(capacity, 1) + 1, FftMtfPoint{-1.0, -1.0, -1.0});
  c.status = nuvrix::compute_fft_mtf_from_wavefront(
      m.w.data(), m.mask.data(), m.n, tangential_cutoff, sagittal_cutoff, step, real.data(),
      imag.data(), c.points.data(), capacity, &c.result);
  return c;
}

// Polychromatic MTF of maps of one grid size.
Curve poly(std::vector<PupilMap> const& maps, std::vector<double> const& wavelengths,
           std::vector<double> const& weights, double cutoff, double f_number, double step,
           int capacity) {
  int const n = maps[0].n;
  std::vector<double> w;
  std::vector<int> mask;
  for (PupilMap const& m : maps) {
    w.insert(w.end(), m.w.begin(), m.w.end());
    mask.insert(mask.end(), m.mask.begin(), m.mask.end());
  }
  size_t const area = static_cast<size_t>(4) * n * n;
  std::vector<double> real(area), imag(area), ar(area), ai(area);
  Curve c;
  c.points.assign(std::max(capacity, 1) + 1, FftMtfPoint{-1.0, -1.0, -1.0});
  c.status = nuvrix::compute_fft_mtf_polychromatic_from_wavefronts(
      w.data(), mask.data(), n, wavelengths.data(), static_cast<int>(wavelengths.size()),
      weights.data(), cutoff, cutoff, f_number, step, real.data(), imag.data(), ar.data(),
      ai.data(), c.points.data(), capacity, &c.result);
  return c;
}

double largest_error_to_diffraction_limit(int n) {
  Curve const c = mono(nuvrix_test::perfect_disc(n), 100.0, 100.0, 0.5, 201);
  double err = 0.0;
  for (int k = 0; k < c.result.point_count; ++k) {
    double const d = nuvrix_test::diffraction_limited_mtf(c.points[k].frequency / 100.0);
    err =
        std::max({err, std::fabs(c.points[k].tangential - d), std::fabs(c.points[k].sagittal - d)});
  }
  return err;
}

}  // namespace

TEST(FftMtf, CircularPupilFollowsTheDiffractionLimitedCurve) {
  // The map samples the pupil diameter with N - 1 spacings while OTF pixel N
  // stands for the cutoff, so a nominal frequency x reads the pupil overlap
  // at x N / (N - 1); with |dMTF/dx| <= 4/pi that is up to 1.27 / (N - 1),
  // and the staircase rim of the sampled disc adds a fraction of a sample.
  // Tolerance 1.5 / (N - 1); the error shrinks as N grows.
  double errors[3];
  int const sizes[3] = {32, 64, 128};
  for (int s = 0; s < 3; ++s) {
    errors[s] = largest_error_to_diffraction_limit(sizes[s]);
    EXPECT_LT(errors[s], 1.5 / (sizes[s] - 1)) << sizes[s];
  }
  EXPECT_LT(errors[1], errors[0]);
  EXPECT_LT(errors[2], errors[1]);
  Curve const c = mono(nuvrix_test::perfect_disc(64), 100.0, 100.0, 0.5, 201);
  EXPECT_EQ(c.result.point_count, 201);
  EXPECT_EQ(c.points[0].tangential, 1.0);
  EXPECT_EQ(c.points[0].sagittal, 1.0);
  EXPECT_EQ(c.points[200].frequency, 100.0);
  EXPECT_LT(c.points[200].tangential, 1e-12);  // nothing left at the cutoff
}

TEST(FftMtf, AtWholePixelsTheMtfIsThePupilAutocorrelation) {
  // With the cutoff at N cycles/mm, frequency s falls on OTF pixel s.
  // Tangential is a shift along the rows (pupil y), sagittal along the
  // columns (pupil x).
  int const n = 32;
  auto const aberration = [](double x, double y) {
    double const r2 = x * x + y * y;
    return 0.35 * r2 + 0.3 * y * r2 + 0.2 * (x * x - y * y) + 0.4 * x - 0.1;
  };
  for (PupilMap const& m : {nuvrix_test::perfect_disc(n), nuvrix_test::disc_map(n, aberration)}) {
    Curve const c = mono(m, n, n, 1.0, 100);
    ASSERT_EQ(c.result.point_count, n + 1);
    for (int s = 0; s <= n; ++s) {
      EXPECT_NEAR(c.points[s].tangential, nuvrix_test::direct_otf_modulus(m, s, 0), 1e-12) << s;
      EXPECT_NEAR(c.points[s].sagittal, nuvrix_test::direct_otf_modulus(m, 0, s), 1e-12) << s;
    }
  }
}

TEST(FftMtf, FrequencyAxisFollowsStepCutoffsAndCapacity) {
  PupilMap const m = nuvrix_test::perfect_disc(16);
  // A frequency between the cutoffs is zero in the lower one's direction only.
  Curve c = mono(m, 50.0, 100.0, 25.0, 10);
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.result.max_frequency, 100.0);
  ASSERT_EQ(c.result.point_count, 5);  // 0, 25, 50, 75, 100
  EXPECT_EQ(c.points[3].frequency, 75.0);
  EXPECT_EQ(c.points[3].tangential, 0.0);
  EXPECT_GT(c.points[3].sagittal, 0.1);    // diffraction limit at 0.75 is 0.15
  EXPECT_EQ(c.points[5].frequency, -1.0);  // nothing written past the count
  c = mono(m, 100.0, 50.0, 25.0, 10);
  EXPECT_EQ(c.points[3].sagittal, 0.0);
  EXPECT_GT(c.points[3].tangential, 0.1);
  // trunc(10 / 0.3) + 1 = 34 frequencies, the last 9.9; then a capacity of 5.
  c = mono(m, 10.0, 7.0, 0.3, 100);
  EXPECT_EQ(c.result.point_count, 34);
  EXPECT_NEAR(c.points[33].frequency, 9.9, 1e-12);
  c = mono(m, 10.0, 7.0, 0.3, 5);
  EXPECT_EQ(c.result.point_count, 5);
  // Capacity 0: no point, the largest frequency still reported.
  c = mono(m, 30.0, 70.0, 1.0, 0);
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.result.point_count, 0);
  EXPECT_EQ(c.result.max_frequency, 70.0);
  EXPECT_EQ(c.points[0].frequency, -1.0);
  // The single-wavelength form leaves the field and wavelength indices.
  EXPECT_TRUE(c.result.field_index == -7 && c.result.wavelength_index == -7);
  // No valid sample: a zero OTF whose origin is no divisor reads 0 throughout.
  PupilMap empty = m;
  for (int& k : empty.mask) k = 0;
  c = mono(empty, 10.0, 10.0, 1.0, 11);
  for (int k = 0; k < 11; ++k)
    EXPECT_TRUE(c.points[k].tangential == 0.0 && c.points[k].sagittal == 0.0);
}

TEST(FftMtfPolychromatic, IdenticalWavelengthsGiveTheMonochromaticMtf) {
  PupilMap const m = nuvrix_test::disc_map(32, [](double x, double y) {
    return 0.3 * (x * x + y * y) + 0.25 * x * (x * x + y * y) - 0.8 * y + 0.2;
  });
  Curve const one = mono(m, 80.0, 80.0, 2.0, 41);
  Curve const three = poly({m, m, m}, {0.55, 0.55, 0.55}, {1.0, 2.0, 0.5}, 80.0, 5.0, 2.0, 41);
  EXPECT_EQ(three.status, 0);
  EXPECT_EQ(three.result.wavelength_index, -1);
  EXPECT_EQ(three.result.max_frequency, 80.0);
  ASSERT_EQ(three.result.point_count, one.result.point_count);
  for (int k = 0; k < one.result.point_count; ++k) {
    EXPECT_EQ(three.points[k].frequency, one.points[k].frequency);
    EXPECT_NEAR(three.points[k].tangential, one.points[k].tangential, 1e-9) << k;
    EXPECT_NEAR(three.points[k].sagittal, one.points[k].sagittal, 1e-9) << k;
  }
}

TEST(FftMtfPolychromatic, LongerWavelengthReachesItsCutoffSooner) {
  // Perfect pupils at lambda and 2 lambda, weights 3 : 1, the cutoff given
  // for lambda.  At whole pixels the sum is the weighted pupil overlap at s
  // and at 2 s pixels; the second term is gone past half the cutoff.
  int const n = 32;
  PupilMap const m = nuvrix_test::perfect_disc(n);
  Curve const c = poly({m, m}, {0.5, 1.0}, {3.0, 1.0}, n, 4.0, 1.0, 100);
  ASSERT_EQ(c.result.point_count, n + 1);
  for (int s = 0; s <= n; ++s) {
    double const wide = nuvrix_test::direct_otf_modulus(m, s, 0);
    double const narrow = 2 * s <= n ? nuvrix_test::direct_otf_modulus(m, 2 * s, 0) : 0.0;
    EXPECT_NEAR(c.points[s].tangential, 0.75 * wide + 0.25 * narrow, 1e-12) << s;
    EXPECT_NEAR(c.points[s].sagittal, 0.75 * wide + 0.25 * narrow, 1e-12) << s;
  }
}

TEST(FftMtfPolychromatic, OneSharedTiltKeepsLateralColourInTheSum) {
  // Two equal-weight wavelengths tilted oppositely in x: the shared tilt is
  // zero, so each keeps its tilt and the OTFs add with phases
  // +-2 pi t s / h at a sagittal shift of s samples (h = (N - 1) / 2): the
  // sum is cos(2 pi t s / h) times the overlap.  A monochromatic MTF of
  // either map removes its tilt and shows the overlap alone.
  int const n = 32;
  double const t = 0.5, h = (n - 1) / 2.0;
  PupilMap const up = nuvrix_test::disc_map(n, [t](double x, double) { return t * x; });
  PupilMap const down = nuvrix_test::disc_map(n, [t](double x, double) { return -t * x; });
  Curve const c = poly({up, down}, {0.6, 0.6}, {1.0, 1.0}, n, 3.0, 1.0, 100);
  Curve const single = mono(up, n, n, 1.0, 100);
  for (int s = 0; s <= n; ++s) {
    double const overlap = nuvrix_test::direct_otf_modulus(up, 0, s);
    EXPECT_NEAR(c.points[s].sagittal, std::fabs(std::cos(2.0 * M_PI * t * s / h)) * overlap, 1e-12)
        << s;
    EXPECT_NEAR(c.points[s].tangential, nuvrix_test::direct_otf_modulus(up, s, 0), 1e-12) << s;
    EXPECT_NEAR(single.points[s].sagittal, overlap, 1e-12) << s;
  }
}

TEST(FftMtfPolychromatic, RefusesNoWavelengthOrNoWeight) {
  PupilMap const m = nuvrix_test::perfect_disc(8);
  Curve c = poly({m}, {0.55}, {0.0}, 10.0, 4.0, 1.0, 11);
  EXPECT_EQ(c.status, -1);
  EXPECT_EQ(c.result.point_count, -7);  // untouched
  c = poly({m, m}, {0.5, 0.6}, {1.0, -1.0 + 1e-16}, 10.0, 4.0, 1.0, 11);
  EXPECT_EQ(c.status, -1);
  FftMtfResult r;
  EXPECT_EQ(nuvrix_compute_fft_mtf_polychromatic(nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr,
                                                 nullptr, nullptr, 0, 0, 8, 1.0, 10.0, 10.0, 4.0,
                                                 1.0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                 nullptr, nullptr, 4, &r),
            -1);  // no wavelength: refused before any map
}

namespace {

// A paraboloid of focal length 100 mm, pupil radius 10 mm at the mirror,
// with a plane halfway to the focus that clips the reflected beam beyond
// 12 mm.  The on-axis marginal ray runs from the mirror rim (10, -0.25) to
// the focus, 100.25 mm away: working F-number 100.25 / 20.
struct MirrorSetup {
  nuvrix_test::System sys = opd_test::paraboloid(100.0, 0.0);
  SystemConfig cfg = opd_test::pupil_at_first_surface(10.0);
  FieldData axis = {0.0, 1.0, 0.0};
  double working_f_number = 100.25 / 20.0;
  MirrorSetup() {
    SurfaceData stop = nuvrix_test::plain_surface(0.0, -50.0);
    stop.aperture_radius = 12.0;
    sys.surfaces[1].thickness = -50.0;
    sys.surfaces.insert(sys.surfaces.begin() + 2, stop);
    sys.indices.push_back(1.0);
  }
};

}  // namespace

TEST(FftMtfSystem, ParaboloidOnAxisIsDiffractionLimited) {
  MirrorSetup const s;
  int const n = 64;
  double const lambda = 0.55, cutoff = 1.0 / (s.working_f_number * lambda * 1e-3);
  std::vector<double> map(n * n), real(4 * n * n), imag(4 * n * n), maps(2 * n * n);
  std::vector<int> mask(n * n), masks(2 * n * n);
  std::vector<double> ar(4 * n * n), ai(4 * n * n);
  FftMtfPoint pts[41];
  FftMtfResult r = {-7, -7, -7, -7.0};
  SurfaceData const* surf = s.sys.surfaces.data();
  // One wavelength: the curve of the circular pupil, within the sampling
  // tolerance 1.5 / (N - 1) of the grid (see the circular-pupil test).
  ASSERT_EQ(nuvrix_compute_fft_mtf(surf, s.sys.count(), s.sys.row(), s.sys.row(), lambda, &s.cfg,
                                   &s.axis, 1, 0, n, 100.0, cutoff, cutoff, cutoff / 40.0,
                                   map.data(), mask.data(), real.data(), imag.data(), pts, 41, &r),
            0);
  EXPECT_TRUE(r.field_index == 0 && r.wavelength_index == -1 && r.point_count == 41);
  for (int k = 0; k <= 40; ++k) {
    double const d = nuvrix_test::diffraction_limited_mtf(k / 40.0);
    EXPECT_NEAR(pts[k].tangential, d, 1.5 / (n - 1)) << k;
    EXPECT_NEAR(pts[k].sagittal, d, 1.5 / (n - 1)) << k;
  }
  // 0.5 and 0.6 um, equal weights, the cutoff given for 0.5 um: the mean
  // of the two curves, the longer wavelength's at 1.2 times the frequency.
  double const wavelengths[2] = {0.6, 0.5}, weights[2] = {1.0, 1.0};
  std::vector<double> const rows = {s.sys.indices.begin(), s.sys.indices.end()};
  std::vector<double> table = rows;
  table.insert(table.end(), rows.begin(), rows.end());
  double const c_short = 1.0 / (s.working_f_number * 0.5e-3);
  ASSERT_EQ(
      nuvrix_compute_fft_mtf_polychromatic(
          surf, s.sys.count(), table.data(), s.sys.row(), wavelengths, 2, weights, &s.cfg, &s.axis,
          1, 0, n, 100.0, c_short, c_short, s.working_f_number, c_short / 40.0, maps.data(),
          masks.data(), real.data(), imag.data(), ar.data(), ai.data(), pts, 41, &r),
      0);
  EXPECT_TRUE(r.field_index == 0 && r.wavelength_index == -1 && r.point_count == 41);
  for (int k = 0; k <= 40; ++k) {
    double const x = k / 40.0;
    double const d = 0.5 * nuvrix_test::diffraction_limited_mtf(x) +
                     0.5 * nuvrix_test::diffraction_limited_mtf(1.2 * x);
    EXPECT_NEAR(pts[k].sagittal, d, 1.5 / (n - 1)) << k;
  }
  // A field index out of range is the map's status, nothing written.
  r = {-7, -7, -7, -7.0};
  EXPECT_EQ(nuvrix_compute_fft_mtf(surf, s.sys.count(), s.sys.row(), s.sys.row(), lambda, &s.cfg,
                                   &s.axis, 1, 1, n, 100.0, cutoff, cutoff, 1.0, map.data(),
                                   mask.data(), real.data(), imag.data(), pts, 41, &r),
            -1);
  EXPECT_EQ(r.point_count, -7);
}

TEST(FftMtfSystem, FieldScanUsesTheWorkingFNumberAndNearestFrequencies) {
  MirrorSetup const s;
  int const n = 64;
  double const lambda = 0.55, cutoff = 1.0 / (s.working_f_number * lambda * 1e-3);  // 362.7
  // Fields 0, 20 (chief ray clipped by the plane: the field reads 0) and
  // 10 degrees; 250 cycles/mm lies beyond the 200-point curve of the scan
  // and takes its last point, 199.
  double const fractions[3] = {0.0, 1.0, 0.5}, freqs[4] = {0.0, 50.4, 120.0, 250.0};
  double const nearest[4] = {0.0, 50.0, 120.0, 199.0};
  std::vector<double> map(n * n), real(4 * n * n), imag(4 * n * n);
  std::vector<int> mask(n * n);
  MtfVsFieldPoint pts[12];
  MtfVsFieldResult r = {-7, -7};
  ASSERT_EQ(nuvrix_compute_fft_mtf_vs_field(s.sys.surfaces.data(), s.sys.count(), s.sys.row(),
                                            s.sys.row(), lambda, &s.cfg, nullptr, 0, n, 100.0,
                                            freqs, 4, fractions, 3, 20.0, map.data(), mask.data(),
                                            real.data(), imag.data(), pts, &r),
            0);
  EXPECT_TRUE(r.field_count == 3 && r.frequency_count == 4);
  for (int q = 0; q < 4; ++q) {
    MtfVsFieldPoint const& on_axis = pts[q * 3 + 0];
    double const d = nuvrix_test::diffraction_limited_mtf(nearest[q] / cutoff);
    EXPECT_NEAR(on_axis.tangential, d, 1.5 / (n - 1)) << q;
    EXPECT_NEAR(on_axis.sagittal, d, 1.5 / (n - 1)) << q;
    MtfVsFieldPoint const& clipped = pts[q * 3 + 1];
    EXPECT_TRUE(clipped.field == 1.0 && clipped.tangential == 0.0 && clipped.sagittal == 0.0);
    EXPECT_EQ(pts[q * 3 + 2].field, 0.5);
  }
  EXPECT_EQ(pts[2].tangential, 1.0);                            // 10 degrees, frequency 0
  EXPECT_LT(pts[3 * 3 + 2].tangential, pts[3 * 3].tangential);  // aberrated and vignetted
}

TEST(FftMtfSystem, ScanCutoffComesFromTheMarginalRayElseFromTheParaxialFNumber) {
  // An F/1 paraboloid (f 100, pupil radius 50) at 5 um.  The rim ray meets
  // the focus 100 + 50^2 / 400 = 106.25 mm away: working F-number 1.0625,
  // cutoff 188.2 cycles/mm, where EFL / EPD would give 200.
  nuvrix_test::System sys = opd_test::paraboloid(100.0, 0.0);
  SystemConfig const cfg = opd_test::pupil_at_first_surface(50.0);
  int const n = 64;
  double const lambda = 5.0, freq = 150.0, fraction = 0.0;
  std::vector<double> map(n * n), real(4 * n * n), imag(4 * n * n);
  std::vector<int> mask(n * n);
  auto const scan = [&]() {
    MtfVsFieldPoint p = {-1.0, -1.0, -1.0};
    MtfVsFieldResult r;
    nuvrix_compute_fft_mtf_vs_field(sys.surfaces.data(), sys.count(), sys.row(), sys.row(), lambda,
                                    &cfg, nullptr, 0, n, 100.0, &freq, 1, &fraction, 1, 1.0,
                                    map.data(), mask.data(), real.data(), imag.data(), &p, &r);
    return p.sagittal;
  };
  double const tol = 1.5 / (n - 1);
  EXPECT_NEAR(scan(), nuvrix_test::diffraction_limited_mtf(freq / (1.0 / (1.0625 * 5e-3))), tol);
  // A hard stop of 49 mm on the mirror clips the rim ray (and the map beyond
  // rho = 49 sqrt(1.01) / 50, the 1 % margin): the paraxial F-number 1 sets
  // the cutoff of 200, and the smaller disc reaches its own at 0.985 of it.
  sys.surfaces[1].aperture_radius = 49.0;
  double const rho = 49.0 * std::sqrt(1.01) / 50.0;
  EXPECT_NEAR(scan(), nuvrix_test::diffraction_limited_mtf(freq / (rho * 200.0)), tol);
}
