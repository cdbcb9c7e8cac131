// Seidel sums, subsystem matrix and chromatic focal shift against closed forms.
// Thin lens in air: s4 = +H^2 phi / N, c1 = -y^2 phi / V, s1 > 0 if positive.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "api/nuvrix.h"
#include "first_order/seidel.hpp"
#include "tests/systems.hpp"

using nuvrix_test::make_system;
using nuvrix_test::System;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kPi = 3.14159265358979323846;

SystemConfig pupil_config(double epd, int stop) {
  SystemConfig c = {};
  c.aperture_value = epd;  // aperture_type 0: entrance pupil diameter
  c.stop_surface = stop;
  return c;
}

struct SeidelRun {
  std::vector<SeidelSurfaceCoeffs> records;
  SeidelResult totals;
};

SeidelRun analyse(System const& sys, SystemConfig const& cfg, double field,
                  double const* shrt = nullptr, double const* lng = nullptr, int capacity = 32) {
  FieldData const f = {field, 1.0, 0.0};
  SeidelRun run;
  run.records.resize(32);
  nuvrix_compute_seidel(sys.surfaces.data(), sys.count(), sys.row(), shrt, lng, &cfg, &f, 1,
                        run.records.data(), capacity, &run.totals);
  run.records.resize(run.totals.count);
  return run;
}

// Sum `kind` of a record or of the totals, in the operand form's numbering.
template <typename Record>
double kind_of(Record const& r, int kind) {
  double const v[7] = {r.s1, r.s2, r.s3, r.s4, r.s5, r.c1, r.c2};
  return v[kind];
}

// The sum of the magnitudes of the records' terms of one kind.
double scale_of(SeidelRun const& run, int kind) {
  double scale = 0.0;
  for (SeidelSurfaceCoeffs const& r : run.records) scale += std::fabs(kind_of(r, kind));
  return scale;
}

// Curvature and thickness arrays copied from the records.
struct Arrays {
  std::vector<double> c, t;
  explicit Arrays(System const& sys) {
    for (SurfaceData const& s : sys.surfaces) c.push_back(s.curvature), t.push_back(s.thickness);
  }
};

// The operand form over first .. last (last -1: through the image surface);
// field_type 0 (angles) with the entrance pupil of the stop, or 1 (heights).
double range_sum(System const& sys, int kind, double pupil_radius, double field, int stop,
                 double const* shrt = nullptr, double const* lng = nullptr, int first = 1,
                 int last = -1, int field_type = 0) {
  Arrays const a(sys);
  int const n = sys.count();
  double const p = field_type == 1 ? 0.0
                                   : nuvrix_entrance_pupil_position(sys.surfaces.data(), n,
                                                                    sys.row(), stop);
  return nuvrix::seidel_range_sum_t<double, double>(
      a.c.data(), a.t.data(), sys.row(), shrt, lng, sys.surfaces.data(), n, field_type, stop,
      pupil_radius, field, p, kind, first, last < 0 ? n - 1 : last, nullptr, nullptr, nullptr);
}

// A singlet in air (surfaces 1 and 2), the image `back` behind it.
System singlet(double r1, double r2, double thickness, double glass, double back,
               double object = 1e10) {
  return make_system({0.0, r1, r2, 0.0}, {object, thickness, back, 0.0}, {1.0, glass, 1.0, 1.0});
}

}  // namespace

TEST(Seidel, ThinSingletPetzvalAndColourMatchClosedForms) {
  // Equiconvex, f = 100 mm, stop at the lens: marginal height h, chief ray
  // through the lens centre at slope tan(theta), so H = -h tan(theta).
  double const N = 1.5, dn = 0.008, h = 10.0, theta = 5.0;
  System const sys = singlet(100.0, -100.0, 1e-6, N, 100.0);
  double const shrt[] = {1.0, N + dn / 2, 1.0, 1.0}, lng[] = {1.0, N - dn / 2, 1.0, 1.0};
  double const phi = (N - 1.0) * (2.0 / 100.0), V = (N - 1.0) / dn;
  double const H = -h * std::tan(theta * kPi / 180.0);
  double const s4 = H * H * phi / N, c1 = -h * h * phi / V;
  SeidelRun const run = analyse(sys, pupil_config(2.0 * h, 1), theta, shrt, lng);
  ASSERT_EQ(run.totals.count, 2);
  EXPECT_NEAR(run.totals.s4, s4, 1e-6 * s4);
  EXPECT_NEAR(run.totals.c1, c1, -1e-6 * c1);
  EXPECT_NEAR(range_sum(sys, 3, h, theta, 1), s4, 1e-6 * s4);
  EXPECT_NEAR(range_sum(sys, 5, h, theta, 1, shrt, lng), c1, -1e-6 * c1);
  // Lateral colour of a thin lens at its stop vanishes: the chief ray is on axis there.
  EXPECT_NEAR(run.totals.c2, 0.0, 1e-6 * std::fabs(run.records[0].c2));
  EXPECT_GT(std::fabs(run.records[0].c2), 0.0);
}

TEST(Seidel, PlanoConvexSphericalIsSmallerWithCurvedSideTowardsObject) {
  // Thin-lens spherical aberration, object at infinity, shape factor X:
  // s1 = h^4 phi^3 / 4 [(N/(N-1))^2 + (N+2)/(N(N-1)^2) (X - 2(N^2-1)/(N+2))^2 - N/(N+2)].
  double const N = 1.5, f = 100.0, h = 5.0, R = (N - 1.0) * f;
  auto thin_lens_s1 = [&](double X) {
    double const phi = 1.0 / f, b = X - 2.0 * (N * N - 1.0) / (N + 2.0);
    return h * h * h * h * phi * phi * phi / 4.0 *
           (N * N / ((N - 1.0) * (N - 1.0)) + (N + 2.0) / (N * (N - 1.0) * (N - 1.0)) * b * b -
            N / (N + 2.0));
  };
  SystemConfig const cfg = pupil_config(2.0 * h, 1);
  double const curved_first = analyse(singlet(R, 0.0, 1e-5, N, f), cfg, 0.0).totals.s1;
  double const flat_first = analyse(singlet(0.0, -R, 1e-5, N, f), cfg, 0.0).totals.s1;
  EXPECT_GT(flat_first, 3.0 * curved_first);
  EXPECT_NEAR(curved_first, thin_lens_s1(1.0), 1e-6 * curved_first);
  EXPECT_NEAR(flat_first, thin_lens_s1(-1.0), 1e-6 * flat_first);
}

TEST(Seidel, ColourNeedsDispersionAndBothIndexRows) {
  // Rows equal to the design row give no colour; crown and flint of their
  // own dispersions give colour, and a missing row removes it, leaving the
  // monochromatic sums as they were.
  System const sys = nuvrix_test::cooke_triplet();
  std::vector<double> const same = sys.indices;
  SystemConfig const cfg = pupil_config(10.0, nuvrix_test::kCookeStop);
  SeidelRun const flat = analyse(sys, cfg, 14.0, same.data(), same.data());
  ASSERT_EQ(flat.totals.count, 6);
  for (SeidelSurfaceCoeffs const& r : flat.records) EXPECT_TRUE(r.c1 == 0.0 && r.c2 == 0.0);
  for (int k : {5, 6}) EXPECT_EQ(range_sum(sys, k, 5.0, 14.0, 4, same.data(), same.data()), 0.0);
  std::vector<double> shrt = sys.indices, lng = sys.indices;
  for (int i : {1, 5}) shrt[i] += 0.005, lng[i] -= 0.005;
  shrt[3] += 0.012, lng[3] -= 0.012;
  SeidelRun const both = analyse(sys, cfg, 14.0, shrt.data(), lng.data());
  EXPECT_TRUE(both.totals.c1 != 0.0 && both.totals.c2 != 0.0);
  for (auto const& one : {analyse(sys, cfg, 14.0, nullptr, lng.data()),
                          analyse(sys, cfg, 14.0, shrt.data(), nullptr)}) {
    EXPECT_TRUE(one.totals.c1 == 0.0 && one.totals.c2 == 0.0);
    for (int k = 0; k < 5; ++k) EXPECT_EQ(kind_of(one.totals, k), kind_of(both.totals, k));
  }
}

TEST(Seidel, IdealThinLensBendsTheRaysButReportsSevenZeros) {
  // A thin lens of f = 50 and 20 mm behind it a plane entry face into glass:
  // the marginal ray meets the face at 0.6 h converging at u = -h / f, where
  // a plane refraction gives s1 = -(u)^2 y u (1/N^2 - 1).
  double const f = 50.0, N = 1.5, h = 4.0, u = -h / f, y = 0.6 * h;
  System sys = make_system({0.0, 0.0, 0.0, 0.0}, {kInf, 20.0, 10.0, 0.0}, {1.0, 1.0, N, N});
  sys.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  sys.surfaces[1].focal_length = f;
  SeidelRun const run = analyse(sys, pupil_config(2.0 * h, 1), 3.0);
  ASSERT_EQ(run.totals.count, 2);
  EXPECT_TRUE(run.records[0].surface == 1 && run.records[1].surface == 2);
  for (int k = 0; k < 7; ++k) EXPECT_EQ(kind_of(run.records[0], k), 0.0);
  EXPECT_NEAR(run.records[1].s1, -u * u * y * u * (1.0 / (N * N) - 1.0), 1e-12);
}

TEST(Seidel, DummySurfaceTransfersButNeitherReportsNorUsesCapacity) {
  // Two singlets 25 mm apart, and the same with a dummy plane 10 mm behind
  // the first (capacity 4): the records match surface for surface.
  System const merged =
      make_system({0.0, 60.0, -200.0, -40.0, 150.0, 0.0}, {kInf, 5.0, 25.0, 3.0, 40.0, 0.0},
                  {1.0, 1.6, 1.0, 1.7, 1.0, 1.0});
  System const split =
      make_system({0.0, 60.0, -200.0, 0.0, -40.0, 150.0, 0.0},
                  {kInf, 5.0, 10.0, 15.0, 3.0, 40.0, 0.0}, {1.0, 1.6, 1.0, 1.0, 1.7, 1.0, 1.0});
  SystemConfig const cfg = pupil_config(12.0, 1);
  SeidelRun const a = analyse(merged, cfg, 8.0), b = analyse(split, cfg, 8.0, nullptr, nullptr, 4);
  ASSERT_TRUE(a.totals.count == 4 && b.totals.count == 4);
  int const expected_surface[4] = {1, 2, 4, 5};
  for (int r = 0; r < 4; ++r) {
    EXPECT_EQ(b.records[r].surface, expected_surface[r]);
    for (int k = 0; k < 5; ++k) {
      double const want = kind_of(a.records[r], k);
      EXPECT_NEAR(kind_of(b.records[r], k), want, 1e-12 * std::fabs(want) + 1e-18);
    }
  }
}

TEST(Seidel, CapacityStopsTheWalkAndShortSystemsGiveNothing) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig const cfg = pupil_config(10.0, nuvrix_test::kCookeStop);
  SeidelRun const full = analyse(sys, cfg, 14.0);
  SeidelRun const part = analyse(sys, cfg, 14.0, nullptr, nullptr, 3);
  ASSERT_TRUE(full.totals.count == 6 && part.totals.count == 3);
  double sum = 0.0;
  for (int r = 0; r < 3; ++r) {
    EXPECT_EQ(part.records[r].surface, r + 1);
    EXPECT_EQ(part.records[r].s1, full.records[r].s1);
    sum += full.records[r].s3;
  }
  EXPECT_EQ(part.totals.s3, sum);
  // No field and no capacity: the totals are cleared and no record is written.
  SeidelResult res;
  res.count = 7;
  res.s1 = 1.0;
  SeidelSurfaceCoeffs rec[2];
  rec[0].surface = -5;
  nuvrix_compute_seidel(sys.surfaces.data(), sys.count(), sys.row(), nullptr, nullptr, &cfg,
                        nullptr, 0, rec, 0, &res);
  EXPECT_TRUE(res.count == 0 && res.s1 == 0.0 && rec[0].surface == -5);
  System const two = make_system({0.0, 50.0}, {1e10, 0.0}, {1.0, 1.5});
  EXPECT_EQ(analyse(two, cfg, 5.0).totals.count, 0);
  EXPECT_EQ(range_sum(two, 0, 5.0, 5.0, 1), 0.0);
}

TEST(SeidelRange, AgreesWithTheAnalysisForAngleAndHeightFields) {
  // Each sum, whole or per surface, agrees to 1e-10 of its terms' magnitudes:
  // the triplet at infinity (angle field), then a singlet 200 mm from a
  // height field, whose invariant H = R h / 200 gives Petzval in closed form.
  System sys = nuvrix_test::cooke_triplet();
  sys.surfaces[0].thickness = kInf;
  std::vector<double> shrt = sys.indices, lng = sys.indices;
  for (int i : {1, 3, 5}) shrt[i] += 0.01, lng[i] -= 0.01;
  int const stop = nuvrix_test::kCookeStop;
  SeidelRun const run = analyse(sys, pupil_config(10.0, stop), 12.0, shrt.data(), lng.data());
  ASSERT_EQ(run.totals.count, 6);
  for (int k = 0; k < 7; ++k) {
    double const tol = 1e-10 * scale_of(run, k);
    EXPECT_NEAR(range_sum(sys, k, 5.0, 12.0, stop, shrt.data(), lng.data()), kind_of(run.totals, k),
                tol) << "kind " << k;
    for (SeidelSurfaceCoeffs const& r : run.records) {
      EXPECT_NEAR(range_sum(sys, k, 5.0, 12.0, stop, shrt.data(), lng.data(), r.surface, r.surface),
                  kind_of(r, k), tol) << "kind " << k << ", surface " << r.surface;
    }
  }
  double const N = 1.6, r1 = 50.0, r2 = -120.0, R = 6.0, h = 10.0, t0 = 200.0, H = R * h / t0;
  System const finite = singlet(r1, r2, 4.0, N, 90.0, t0);
  auto sum = [&](int k) { return range_sum(finite, k, R, h, 1, nullptr, nullptr, 1, -1, 1); };
  double const petzval = -H * H * ((1.0 / N - 1.0) / r1 + (1.0 - 1.0 / N) / r2);
  EXPECT_NEAR(sum(3), petzval, 1e-12 * std::fabs(petzval));
  SystemConfig cfg = pupil_config(2.0 * R, 1);
  cfg.field_type = 1;
  SeidelRun const fin = analyse(finite, cfg, h);
  ASSERT_EQ(fin.totals.count, 2);
  for (int k = 0; k < 5; ++k) {
    EXPECT_NEAR(sum(k), kind_of(fin.totals, k), 1e-10 * scale_of(fin, k)) << "kind " << k;
  }
}

TEST(SeidelRange, FoldMirrorFlipsSignsBehindItAndAddsNoColour) {
  // A singlet behind a plane fold mirror in folded coordinates (curvatures
  // and spacings negated behind it) against the same singlet unfolded: a
  // plane mirror has no aberration of its own.
  double const N = 1.6;
  System const unfolded = make_system({0.0, 0.0, 50.0, -80.0, 0.0}, {kInf, 20.0, 5.0, 60.0, 0.0},
                                      {1.0, 1.0, N, 1.0, 1.0});
  System folded = make_system({0.0, 0.0, -50.0, 80.0, 0.0}, {kInf, -20.0, -5.0, -60.0, 0.0},
                              {1.0, 1.0, N, 1.0, 1.0});
  folded.surfaces[1].is_mirror = 1;
  double const shrt[] = {1.0, 1.0, N + 0.006, 1.0, 1.0}, lng[] = {1.0, 1.0, N - 0.006, 1.0, 1.0};
  for (int k = 0; k < 7; ++k) {
    double const want = range_sum(unfolded, k, 6.0, 7.0, 1, shrt, lng);
    EXPECT_NE(want, 0.0);
    EXPECT_NEAR(range_sum(folded, k, 6.0, 7.0, 1, shrt, lng), want, 1e-14 * std::fabs(want));
  }
  // A curved mirror between media of different dispersion gives no colour,
  // where the same surface refracting would: (0 - 0.01) (-c h h).
  System mirror = make_system({0.0, -200.0, 0.0}, {kInf, -100.0, 0.0}, {1.0, 1.0, 1.0});
  double const ms[] = {1.01, 1.0, 1.0}, ml[] = {1.0, 1.0, 1.0};
  mirror.surfaces[1].is_mirror = 1;
  EXPECT_EQ(range_sum(mirror, 5, 10.0, 0.0, 1, ms, ml, 1, 1), 0.0);
  mirror.surfaces[1].is_mirror = 0;
  EXPECT_NEAR(range_sum(mirror, 5, 10.0, 0.0, 1, ms, ml, 1, 1), 0.01 * (-1.0 / 200.0) * 100.0,
              1e-15);
}

TEST(SeidelRange, ConicMirrorSphericalScalesWithOnePlusK) {
  // The r^4 sag of a conic is (1 + K) c^3 r^4 / 8, doubled in the wavefront
  // by a mirror: |s1| = 2 (1 + K) c^3 h^4; none for the paraboloid.  An even
  // asphere's first term a enters as 8 a beside K c^3: a = -c^3 / 8 cancels.
  double const f = 100.0, h = 12.0, c = -1.0 / (2.0 * f);
  System sys = nuvrix_test::parabolic_mirror(f);
  double const sphere_abs = 2.0 * std::fabs(c * c * c) * h * h * h * h;
  for (double K : {0.0, -0.5, -1.0, 1.0}) {
    sys.surfaces[1].conic = K;
    EXPECT_NEAR(std::fabs(range_sum(sys, 0, h, 0.0, 1)), (1.0 + K) * sphere_abs,
                1e-12 * sphere_abs);
  }
  sys.surfaces[1].conic = 0.0;
  sys.surfaces[1].type = NUVRIX_SURFACE_EVEN_ASPHERE;
  sys.surfaces[1].coefficients[0] = -c * c * c / 8.0;
  EXPECT_NEAR(range_sum(sys, 0, h, 0.0, 1), 0.0, 1e-12 * sphere_abs);
}

TEST(SubsystemMatrix, IsTheProductOfRefractionAndTransferMatrices) {
  // M = R_last T .. T R_first on (y, u): refraction [1 0; -(n2-n1)c/n2
  // n1/n2], transfer [1 t; 0 1]; det M = n_first / n_last.
  System sys = nuvrix_test::cooke_triplet();
  int const n = sys.count();
  Arrays a(sys);
  auto abcd = [&](int count, int first, int last, double m[4]) {
    nuvrix::compute_subsystem_abcd_t<double, double>(a.c.data(), a.t.data(), sys.row(),
                                                     sys.surfaces.data(), count, first, last,
                                                     m[0], m[2], m[1], m[3], nullptr, nullptr);
  };
  double const* idx = sys.row();
  for (auto range : {std::make_pair(2, 5), std::make_pair(1, 3), std::make_pair(1, n - 1)}) {
    double M[4] = {1.0, 0.0, 0.0, 1.0}, m[4];
    for (int k = range.first; k <= range.second; ++k) {
      if (k > range.first) M[0] += a.t[k - 1] * M[2], M[1] += a.t[k - 1] * M[3];
      double const pw = -(idx[k] - idx[k - 1]) * a.c[k] / idx[k], g = idx[k - 1] / idx[k];
      M[2] = pw * M[0] + g * M[2];
      M[3] = pw * M[1] + g * M[3];
    }
    abcd(n, range.first, range.second, m);
    for (int e = 0; e < 4; ++e) EXPECT_NEAR(m[e], M[e], 1e-13 * (1.0 + std::fabs(M[e])));
    EXPECT_NEAR(m[0] * m[3] - m[1] * m[2], idx[range.first - 1] / idx[range.second], 1e-13);
  }
  // A range beyond the ends is clamped; an empty range is the unit matrix.
  double whole[4], clamped[4], empty[4];
  abcd(n, 1, n - 1, whole);
  abcd(n, 0, 99, clamped);
  abcd(n, 4, 3, empty);
  for (int e = 0; e < 4; ++e) EXPECT_EQ(clamped[e], whole[e]);
  EXPECT_TRUE(empty[0] == 1.0 && empty[1] == 0.0 && empty[2] == 0.0 && empty[3] == 1.0);
  // A concave mirror of radius R: [1 0; -2c -1], the index behind it -n.
  sys = nuvrix_test::parabolic_mirror(50.0);
  a.c = {0.0, sys.surfaces[1].curvature, 0.0};
  double mm[4];
  abcd(3, 1, 1, mm);
  EXPECT_EQ(mm[2], -2.0 * a.c[1]);
  EXPECT_EQ(mm[3], -1.0);
}

TEST(ChromaticFocalShift, ShiftsAreBackFocusDifferencesOfTheRows) {
  // Back focus of each index row by an independent y-nu trace of a ray
  // parallel to the axis, less that of the design row.
  System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count();
  auto bfl = [&](double const* idx) {
    double y = 1.0, u = 0.0;
    for (int i = 1; i <= n - 2; ++i) {
      if (i > 1) y += sys.surfaces[i - 1].thickness * u;
      u = (idx[i - 1] * u - y * (idx[i] - idx[i - 1]) * sys.surfaces[i].curvature) / idx[i];
    }
    return -y / u;
  };
  std::vector<double> table;
  for (double off : {0.008, 0.0, -0.004}) {
    for (double v : sys.indices) table.push_back(v + (v > 1.0 ? off : 0.0));
  }
  double const wavelengths[3] = {0.486, 0.588, 0.656};
  ChromaticShiftPoint pts[3];
  ChromaticFocalShiftResult res;
  auto shift = [&](System const& s, int count, double const* rows, int nrows) {
    nuvrix_compute_chromatic_focal_shift(s.surfaces.data(), count, s.row(), wavelengths, rows,
                                         nrows, pts, &res);
  };
  shift(sys, n, table.data(), 3);
  ASSERT_EQ(res.count, 3);
  double largest = 0.0;
  for (int k = 0; k < 3; ++k) {
    EXPECT_EQ(pts[k].wavelength, wavelengths[k]);
    EXPECT_NEAR(pts[k].shift, bfl(table.data() + k * n) - bfl(sys.row()), 1e-10);
    largest = std::fmax(largest, std::fabs(pts[k].shift));
  }
  EXPECT_GT(std::fabs(pts[0].shift), 0.1);  // F2 and SK16 at +0.008 move the focus visibly
  EXPECT_EQ(res.max_shift, largest);
  // A row in which the glass has the index of air leaves no power: its back
  // focus is the 1e15 sentinel.  Too short a system has 0 in every row.
  System const lens = singlet(50.0, -50.0, 5.0, 1.5, 48.0);
  double const rows2[8] = {1.0, 1.5, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0};
  double const ref = nuvrix_calculate_bfl(lens.surfaces.data(), 4, lens.row());
  shift(lens, 4, rows2, 2);
  EXPECT_TRUE(pts[0].shift == 0.0 && pts[1].shift == 1e15 - ref && res.max_shift == 1e15 - ref);
  shift(lens, 2, rows2, 2);
  EXPECT_TRUE(res.count == 2 && pts[0].shift == 0.0 && pts[1].shift == 0.0);
  // No rows: the result is cleared.
  res.count = 5;
  res.max_shift = 9.0;
  shift(sys, n, table.data(), 0);
  EXPECT_TRUE(res.count == 0 && res.max_shift == 0.0);
}

TEST(SeidelLaunch, RaysPassThroughTheirPointInTheEntrancePupil) {
  // Whatever the object distance and field type, the launched ray crosses
  // the entrance pupil plane (p behind surface 1) at height py * radius.
  System const sys = nuvrix_test::finite_relay();
  SystemConfig cfg = pupil_config(8.0, 1);
  double const R = 4.0, p = 12.5;
  double x, y, l, m, n;
  for (int field_type : {0, 1}) {
    cfg.field_type = field_type;
    for (double thickness : {60.0, kInf}) {
      if (field_type == 1 && thickness == kInf) continue;  // heights need a finite object
      for (double py : {1.0, -0.5, 0.0}) {
        x = y = l = m = n = 9;
        nuvrix::get_launch_conditions(sys.surfaces.data(), sys.count(), sys.row(), &cfg,
                                      thickness, 7.0, R, py, p, x, y, l, m, n);
        EXPECT_TRUE(x == 0.0 && l == 0.0);
        EXPECT_NEAR(m * m + n * n, 1.0, 1e-15);
        // From the object plane (finite) or the plane of surface 1 (infinite).
        double const to_pupil = thickness == kInf ? p : thickness + p;
        EXPECT_NEAR(y + to_pupil * m / n, py * R, 1e-12)
            << "field type " << field_type << ", t " << thickness << ", py " << py;
        if (field_type == 1) {
          EXPECT_EQ(y, 7.0);  // a height field starts on the object point
        }
      }
    }
  }
  // An object at infinity seen at 90 degrees: no pupil shift is possible.
  cfg.field_type = 0;
  nuvrix::get_launch_conditions(sys.surfaces.data(), sys.count(), sys.row(), &cfg, kInf, 90.0, R,
                                1.0, p, x, y, l, m, n);
  EXPECT_EQ(y, R);
  EXPECT_NEAR(m, 1.0, 1e-15);
}
