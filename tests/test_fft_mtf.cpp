// Diffraction MTF from wavefront maps: the circular pupil against the
// diffraction-limited curve, aberrated pupils against their direct
// autocorrelation, the frequency axis, the polychromatic sum with its
// wavelength scaling and shared tilt, and the system entry points.
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

}  // namespace

TEST(FftMtf, CircularPupilFollowsTheDiffractionLimitedCurve) {
  // N - 1 pupil spacings against OTF pixel N at the cutoff: frequency x reads
  // the overlap at x N / (N - 1), up to 1.27 / (N - 1) off, plus a fraction
  // for the staircase rim: tolerance 1.5 / (N - 1), shrinking as N grows.
  double errors[3];
  int const sizes[3] = {32, 64, 128};
  for (int s = 0; s < 3; ++s) {
    Curve const c = mono(nuvrix_test::perfect_disc(sizes[s]), 100.0, 100.0, 0.5, 201);
    ASSERT_EQ(c.result.point_count, 201);
    EXPECT_TRUE(c.points[0].tangential == 1.0 && c.points[0].sagittal == 1.0);
    EXPECT_TRUE(c.points[200].frequency == 100.0 && c.points[200].tangential < 1e-12);
    errors[s] = 0.0;
    for (int k = 0; k <= 200; ++k) {
      double const d = nuvrix_test::diffraction_limited_mtf(c.points[k].frequency / 100.0);
      errors[s] = std::max(
          {errors[s], std::fabs(c.points[k].tangential - d), std::fabs(c.points[k].sagittal - d)});
    }
    EXPECT_LT(errors[s], 1.5 / (sizes[s] - 1)) << sizes[s];
  }
  EXPECT_TRUE(errors[1] < errors[0] && errors[2] < errors[1]);
}

TEST(FftMtf, AtWholePixelsTheMtfIsThePupilAutocorrelation) {
  // Cutoff N cycles/mm: frequency s is OTF pixel s; tangential shifts along
  // pupil y, sagittal along pupil x.
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
  // Between the cutoffs (0, 25, ... 100) only the lower one's direction is 0
  // (the limit at 0.75 is 0.15); nothing is written past the count.
  Curve c = mono(m, 50.0, 100.0, 25.0, 10);
  EXPECT_TRUE(c.status == 0 && c.result.max_frequency == 100.0);
  ASSERT_EQ(c.result.point_count, 5);
  EXPECT_TRUE(c.points[3].frequency == 75.0 && c.points[5].frequency == -1.0);
  EXPECT_TRUE(c.points[3].tangential == 0.0 && c.points[3].sagittal > 0.1);
  c = mono(m, 100.0, 50.0, 25.0, 10);
  EXPECT_TRUE(c.points[3].sagittal == 0.0 && c.points[3].tangential > 0.1);
  // trunc(10 / 0.3) + 1 = 34 frequencies, the last 9.9; then a capacity of 5.
  c = mono(m, 10.0, 7.0, 0.3, 100);
  EXPECT_EQ(c.result.point_count, 34);
  EXPECT_NEAR(c.points[33].frequency, 9.9, 1e-12);
  EXPECT_EQ(mono(m, 10.0, 7.0, 0.3, 5).result.point_count, 5);
  // Capacity 0: no point, the largest frequency still reported; the
  // single-wavelength form leaves the field and wavelength indices.
  c = mono(m, 30.0, 70.0, 1.0, 0);
  EXPECT_TRUE(c.status == 0 && c.result.point_count == 0 && c.result.max_frequency == 70.0);
  EXPECT_TRUE(c.points[0].frequency == -1.0 && c.result.field_index == -7 &&
              c.result.wavelength_index == -7);
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
  EXPECT_TRUE(three.status == 0 && three.result.wavelength_index == -1 &&
              three.result.max_frequency == 80.0);
  ASSERT_EQ(three.result.point_count, one.result.point_count);
  for (int k = 0; k < one.result.point_count; ++k) {
    EXPECT_EQ(three.points[k].frequency, one.points[k].frequency);
    EXPECT_NEAR(three.points[k].tangential, one.points[k].tangential, 1e-9) << k;
    EXPECT_NEAR(three.points[k].sagittal, one.points[k].sagittal, 1e-9) << k;
  }
}

TEST(FftMtfPolychromatic, LongerWavelengthReachesItsCutoffSooner) {
  // Perfect pupils at lambda and 2 lambda, weights 3 : 1, cutoff for lambda:
  // the weighted overlaps at s and 2 s pixels, the second gone past n / 2.
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
  // Equal weights, opposite x tilts: the shared tilt is zero, so the OTFs
  // add with phases +-2 pi t s / h (h = (N - 1) / 2), cos(2 pi t s / h) times
  // the overlap; a monochromatic MTF removes the tilt: the overlap alone.
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
  Curve const c = poly({m}, {0.55}, {0.0}, 10.0, 4.0, 1.0, 11);
  EXPECT_TRUE(c.status == -1 && c.result.point_count == -7);  // untouched
  EXPECT_EQ(poly({m, m}, {0.5, 0.6}, {1.0, -1.0 + 1e-16}, 10.0, 4.0, 1.0, 11).status, -1);
  FftMtfResult r;
  EXPECT_EQ(nuvrix_compute_fft_mtf_polychromatic(nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr,
                                                 nullptr, nullptr, 0, 0, 8, 1.0, 10.0, 10.0, 4.0,
                                                 1.0, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                 nullptr, nullptr, 4, &r),
            -1);  // no wavelength: refused before any map
}

namespace {

// Paraboloid f 100 mm, pupil radius 10 mm at the mirror, and a plane halfway
// to the focus clipping the reflected beam beyond 12 mm.  The on-axis rim ray
// runs 100.25 mm from (10, -0.25) to the focus: working F-number 100.25 / 20.
// Work arrays for grids of N = 64 come with it.
struct MirrorSetup {
  static constexpr int n = 64;
  nuvrix_test::System sys = opd_test::paraboloid(100.0, 0.0);
  SystemConfig cfg = opd_test::pupil_at_first_surface(10.0);
  FieldData axis = {0.0, 1.0, 0.0};
  double working_f_number = 100.25 / 20.0;
  std::vector<double> map = std::vector<double>(2 * n * n), real = std::vector<double>(4 * n * n),
                      imag = real, ar = real, ai = real;
  std::vector<int> mask = std::vector<int>(2 * n * n);
  MirrorSetup() {
    SurfaceData stop = nuvrix_test::plain_surface(0.0, -50.0);
    stop.aperture_radius = 12.0;
    sys.surfaces[1].thickness = -50.0;
    sys.surfaces.insert(sys.surfaces.begin() + 2, stop);
    sys.indices.push_back(1.0);
  }
  int mono(double lambda, int field, double cutoff, double step, FftMtfPoint* pts,
           FftMtfResult* r) {
    return nuvrix_compute_fft_mtf(sys.surfaces.data(), sys.count(), sys.row(), sys.row(), lambda,
                                  &cfg, &axis, 1, field, n, 100.0, cutoff, cutoff, step, map.data(),
                                  mask.data(), real.data(), imag.data(), pts, 41, r);
  }
  int scan(double lambda, double const* freqs, int nf, double const* fractions, int nfr,
           double max_field, MtfVsFieldPoint* pts, MtfVsFieldResult* r) {
    return nuvrix_compute_fft_mtf_vs_field(sys.surfaces.data(), sys.count(), sys.row(), sys.row(),
                                           lambda, &cfg, nullptr, 0, n, 100.0, freqs, nf,
                                           fractions, nfr, max_field, map.data(), mask.data(),
                                           real.data(), imag.data(), pts, r);
  }
};

double const kMapTol = 1.5 / (MirrorSetup::n - 1);  // sampling tolerance, see above

}  // namespace

TEST(FftMtfSystem, ParaboloidOnAxisIsDiffractionLimited) {
  // One wavelength: the circular-pupil curve.  Then 0.5 and 0.6 um, equal
  // weights, cutoff for 0.5 um: the mean of the two curves, the longer at 1.2
  // times the frequency.  A field index out of range: status -1, untouched.
  MirrorSetup s;
  double const lambda = 0.55, cutoff = 1.0 / (s.working_f_number * lambda * 1e-3);
  FftMtfPoint pts[41];
  FftMtfResult r = {-7, -7, -7, -7.0};
  ASSERT_EQ(s.mono(lambda, 0, cutoff, cutoff / 40.0, pts, &r), 0);
  EXPECT_TRUE(r.field_index == 0 && r.wavelength_index == -1 && r.point_count == 41);
  for (int k = 0; k <= 40; ++k) {
    double const d = nuvrix_test::diffraction_limited_mtf(k / 40.0);
    EXPECT_NEAR(pts[k].tangential, d, kMapTol) << k;
    EXPECT_NEAR(pts[k].sagittal, d, kMapTol) << k;
  }
  double const wavelengths[2] = {0.6, 0.5}, weights[2] = {1.0, 1.0};
  std::vector<double> table = s.sys.indices;
  table.insert(table.end(), s.sys.indices.begin(), s.sys.indices.end());
  double const c_short = 1.0 / (s.working_f_number * 0.5e-3);
  ASSERT_EQ(nuvrix_compute_fft_mtf_polychromatic(
                s.sys.surfaces.data(), s.sys.count(), table.data(), s.sys.row(), wavelengths, 2,
                weights, &s.cfg, &s.axis, 1, 0, s.n, 100.0, c_short, c_short, s.working_f_number,
                c_short / 40.0, s.map.data(), s.mask.data(), s.real.data(), s.imag.data(),
                s.ar.data(), s.ai.data(), pts, 41, &r),
            0);
  EXPECT_TRUE(r.field_index == 0 && r.wavelength_index == -1 && r.point_count == 41);
  for (int k = 0; k <= 40; ++k) {
    double const x = k / 40.0;
    EXPECT_NEAR(pts[k].sagittal,
                0.5 * (nuvrix_test::diffraction_limited_mtf(x) +
                       nuvrix_test::diffraction_limited_mtf(1.2 * x)),
                kMapTol)
        << k;
  }
  r = {-7, -7, -7, -7.0};
  EXPECT_EQ(s.mono(lambda, 1, cutoff, 1.0, pts, &r), -1);
  EXPECT_EQ(r.point_count, -7);
}

TEST(FftMtfSystem, FieldScanUsesTheWorkingFNumberAndNearestFrequencies) {
  // Fields 0, 20 (chief ray clipped by the plane: reads 0) and 10 degrees;
  // 250 cycles/mm lies beyond the 200-point curve and takes its last point.
  MirrorSetup s;
  double const lambda = 0.55, cutoff = 1.0 / (s.working_f_number * lambda * 1e-3);  // 362.7
  double const fractions[3] = {0.0, 1.0, 0.5}, freqs[4] = {0.0, 50.4, 120.0, 250.0};
  double const nearest[4] = {0.0, 50.0, 120.0, 199.0};
  MtfVsFieldPoint pts[12];
  MtfVsFieldResult r = {-7, -7};
  ASSERT_EQ(s.scan(lambda, freqs, 4, fractions, 3, 20.0, pts, &r), 0);
  EXPECT_TRUE(r.field_count == 3 && r.frequency_count == 4);
  for (int q = 0; q < 4; ++q) {
    double const d = nuvrix_test::diffraction_limited_mtf(nearest[q] / cutoff);
    EXPECT_NEAR(pts[q * 3].tangential, d, kMapTol) << q;
    EXPECT_NEAR(pts[q * 3].sagittal, d, kMapTol) << q;
    MtfVsFieldPoint const& clipped = pts[q * 3 + 1];
    EXPECT_TRUE(clipped.field == 1.0 && clipped.tangential == 0.0 && clipped.sagittal == 0.0);
    EXPECT_EQ(pts[q * 3 + 2].field, 0.5);
  }
  EXPECT_EQ(pts[2].tangential, 1.0);                            // 10 degrees, frequency 0
  EXPECT_LT(pts[3 * 3 + 2].tangential, pts[3 * 3].tangential);  // aberrated and vignetted
}

TEST(FftMtfSystem, ScanCutoffComesFromTheMarginalRayElseFromTheParaxialFNumber) {
  // F/1 paraboloid (f 100, pupil radius 50) at 5 um: the rim ray meets the
  // focus 100 + 50^2 / 400 = 106.25 mm away, cutoff 1 / (1.0625 * 5e-3)
  // rather than the paraxial 200.  A hard stop of 49 mm clips the rim ray
  // (and the map beyond 49 sqrt(1.01) / 50, the 1 % margin): the paraxial
  // cutoff of 200 applies, and the smaller disc reaches its own at rho of it.
  MirrorSetup s;
  s.sys = opd_test::paraboloid(100.0, 0.0);
  s.cfg = opd_test::pupil_at_first_surface(50.0);
  double const freq = 150.0, fraction = 0.0;
  auto const scan = [&]() {
    MtfVsFieldPoint p = {-1.0, -1.0, -1.0};
    MtfVsFieldResult r;
    s.scan(5.0, &freq, 1, &fraction, 1, 1.0, &p, &r);
    return p.sagittal;
  };
  EXPECT_NEAR(scan(), nuvrix_test::diffraction_limited_mtf(freq / (1.0 / (1.0625 * 5e-3))),
              kMapTol);
  s.sys.surfaces[1].aperture_radius = 49.0;
  double const rho = 49.0 * std::sqrt(1.01) / 50.0;
  EXPECT_NEAR(scan(), nuvrix_test::diffraction_limited_mtf(freq / (rho * 200.0)), kMapTol);
}
