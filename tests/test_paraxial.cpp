// Paraxial trace, focal quantities and the paraxial solve, against the
// thin- and thick-lens formulas and an independent y-nu trace.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "first_order/paraxial.hpp"
#include "first_order/paraxial_solve.hpp"
#include "tests/systems.hpp"

using nuvrix_test::System;

namespace {

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr int kStop = nuvrix_test::kCookeStop;

// An independent y-nu trace of refracting spheres from a ray parallel to the
// axis at unit height; returns (EFL, BFL) of the system.
void ynu_focal(System const& sys, double& efl, double& bfl) {
  double y = 1.0, nu = 0.0;  // nu = n u
  double const* n = sys.row();
  int const last = sys.count() - 2;  // the last surface in front of the image
  for (int i = 1; i <= last; ++i) {
    double const t = sys.surfaces[i - 1].thickness;
    if (std::fabs(t) < 1e10) y += t * nu / n[i - 1];
    nu -= y * (n[i] - n[i - 1]) * sys.surfaces[i].curvature;
  }
  efl = -n[0] / nu;
  bfl = -y / (nu / n[last]);
}

SystemConfig config_epd(double epd, int stop) {
  SystemConfig c = {};
  c.aperture_value = epd;  // aperture_type 0: entrance pupil diameter
  c.stop_surface = stop;
  return c;
}

// Thin lenses (surface type 2) at the given spacings; image surface last.
System thin_lenses(std::vector<double> const& f, std::vector<double> const& gaps) {
  std::vector<double> radii(f.size() + 2, 0.0), thick{1e10}, index(f.size() + 2, 1.0);
  thick.insert(thick.end(), gaps.begin(), gaps.end());
  thick.push_back(0.0);
  System sys = nuvrix_test::make_system(radii, thick, index);
  for (size_t k = 0; k < f.size(); ++k) {
    sys.surfaces[k + 1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
    sys.surfaces[k + 1].focal_length = f[k];
  }
  return sys;
}

// Short forms of the plain routines on a whole system (or its first n surfaces).
int size(System const& s, int n) { return n < 0 ? s.count() : n; }
double efl(System const& s, int n = -1) {
  return nuvrix_calculate_efl(s.surfaces.data(), size(s, n), s.row());
}
double bfl(System const& s, int n = -1) {
  return nuvrix_calculate_bfl(s.surfaces.data(), size(s, n), s.row());
}
double plain_focal(System const& s, int n = -1) {
  return nuvrix_focal_length(s.surfaces.data(), size(s, n), s.row());
}
double entrance(System const& s, int stop) {
  return nuvrix_entrance_pupil_position(s.surfaces.data(), s.count(), s.row(), stop);
}
ParaxialSolveResult solve(System const& s, SystemConfig const& cfg, FieldData const* f = nullptr,
                          int nf = 0, int n = -1) {
  return nuvrix_paraxial_solve(s.surfaces.data(), size(s, n), s.row(), &cfg, f, nf, nullptr,
                               nullptr);
}
void rows_of(System const& s, double y0, double u0, ParaxialRayState* rows, int n = -1) {
  nuvrix::trace_paraxial_ray(s.surfaces.data(), size(s, n), s.row(), y0, u0, rows);
}
double marginal(System const& s, double const* row, SystemConfig const& cfg) {
  return nuvrix::paraxial_marginal_height(s.surfaces.data(), s.count(), row, cfg);
}

// The generic forms at double, with curvatures and thicknesses copied from
// the records; `n` may be smaller than the system to model a short one.
struct Generic {
  System sys;
  std::vector<double> c, t;
  explicit Generic(System const& s) : sys(s) {
    for (SurfaceData const& r : s.surfaces) c.push_back(r.curvature), t.push_back(r.thickness);
  }
  double const* idx() const { return sys.row(); }
  SurfaceData const* srf() const { return sys.surfaces.data(); }
  int trace(int n, double y0, double u0, double* y, double* u, double const* focal = nullptr,
            double const (*mat)[8] = nullptr) const {
    return nuvrix::trace_paraxial_ray_t<double, double>(c.data(), t.data(), idx(), srf(), n, y0,
                                                        u0, y, u, focal, mat);
  }
  double efl(int n, double const* focal = nullptr) const {
    return nuvrix::calculate_efl_abcd_t<double, double>(c.data(), t.data(), idx(), srf(), n, focal,
                                                        nullptr);
  }
  double bfl(int n) const {
    return nuvrix::calculate_bfl_t<double, double>(c.data(), t.data(), idx(), srf(), n, nullptr,
                                                   nullptr);
  }
  double entrance(int n, int stop) const {
    return nuvrix::compute_entrance_pupil_position_t<double, double>(c.data(), t.data(), idx(),
                                                                     srf(), n, stop);
  }
  double exit(int n, int stop) const {
    return nuvrix::compute_exit_pupil_position_t<double, double>(c.data(), t.data(), idx(), srf(),
                                                                 n, stop, nullptr);
  }
};

}  // namespace

TEST(Paraxial, CookeTripletFocalQuantitiesMatchIndependentTrace) {
  System const sys = nuvrix_test::cooke_triplet();
  double f = 0, b = 0;
  ynu_focal(sys, f, b);
  EXPECT_NEAR(f, 50.0, 0.2);  // the classic design value
  EXPECT_NEAR(efl(sys), f, 1e-12 * f);
  EXPECT_NEAR(bfl(sys), b, 1e-12 * b);
  ParaxialSolveResult const r = solve(sys, config_epd(10.0, kStop));
  EXPECT_NEAR(r.efl, f, 1e-12 * f);
  EXPECT_NEAR(r.bfl, b, 1e-12 * b);
  EXPECT_EQ(r.image_distance, r.bfl);
  EXPECT_EQ(r.entrance_pupil_diameter, 10.0);
  EXPECT_EQ(r.reserved, 0.0);
  EXPECT_NEAR(r.total_length, 3.25896 + 6.00755 + 0.99997 + 4.75041 + 2.95208 + 42.20778, 1e-12);
}

TEST(Paraxial, ThickLensFollowsLensmakerWithThickness) {
  double const n = 1.5168, r1 = 40.0, r2 = -60.0, t = 8.0, c1 = 1 / r1, c2 = 1 / r2;
  System const sys = nuvrix_test::make_system({0.0, r1, r2, 0.0}, {1e10, t, 50.0, 0.0},
                                              {1.0, n, 1.0, 1.0});
  double const f = 1 / ((n - 1) * (c1 - c2 + (n - 1) * t * c1 * c2 / n));
  double const b = f * (1 - (n - 1) * t * c1 / n);
  EXPECT_NEAR(efl(sys), f, 1e-12 * f);
  EXPECT_NEAR(nuvrix::calculate_efl_abcd(sys.surfaces.data(), 4, sys.row()), f, 1e-12 * f);
  EXPECT_NEAR(bfl(sys), b, 1e-12 * f);
  // The plain focal length is measured from the final (image) surface, 50 mm behind.
  EXPECT_NEAR(plain_focal(sys), b - 50.0, 1e-11 * f);
  EXPECT_NEAR(efl(thin_lenses({f}, {b})), f, 1e-12 * f);  // a thin lens of the same power
}

TEST(Paraxial, SphericalMirrorFocusesAtHalfTheRadius) {
  System mirror = nuvrix_test::make_system({0.0, -200.0, 0.0}, {1e10, -100.0, 0.0}, {1, 1, 1});
  mirror.surfaces[1].is_mirror = 1;
  EXPECT_DOUBLE_EQ(efl(mirror), -100.0);
  EXPECT_DOUBLE_EQ(bfl(mirror), -100.0);
  // The reduced slope is the numerator, before the division by -n: u and nu differ in sign.
  ParaxialRayState rows[4];
  ASSERT_EQ(nuvrix::trace_paraxial_ray(mirror.surfaces.data(), 3, mirror.row(), 1, 0, rows), 2);
  EXPECT_DOUBLE_EQ(rows[0].nu, -0.01);
  EXPECT_DOUBLE_EQ(rows[0].u, 0.01);
  EXPECT_NEAR(rows[1].y, 0.0, 1e-15);  // the focus on the image surface
  // The plain focal length ignores the mirror flag: same index both sides, no power.
  EXPECT_EQ(plain_focal(mirror), 1e15);
}

TEST(Paraxial, TelephotoIsLongerInFocusThanInLength) {
  double const f1 = 50.0, f2 = -30.0, d = 30.0;
  double const f = f1 * f2 / (f1 + f2 - d), b = f * (1.0 - d / f1);  // 150, 60
  ParaxialSolveResult const r = solve(thin_lenses({f1, f2}, {d, b}), config_epd(10.0, 1));
  EXPECT_NEAR(r.efl, f, 1e-12 * f);
  EXPECT_NEAR(r.bfl, b, 1e-12 * f);
  EXPECT_NEAR(r.total_length, d + b, 1e-12);
  EXPECT_GT(r.efl, r.total_length);
}

TEST(Paraxial, TooShortAndAfocalSystemsInPlainAndGenericForms) {
  System const sys = nuvrix_test::cooke_triplet();
  Generic const g(sys);
  ParaxialRayState rows[4];
  rows[0].y = 7.0;
  EXPECT_EQ(nuvrix::trace_paraxial_ray(sys.surfaces.data(), 1, sys.row(), 1, 0, rows), 0);
  EXPECT_EQ(rows[0].y, 7.0);
  EXPECT_EQ(plain_focal(sys, 1), 1e15);
  EXPECT_EQ(nuvrix::calculate_efl_abcd(sys.surfaces.data(), 0, sys.row()), 0.0);
  for (double v : {efl(sys, 1), bfl(sys, 1), bfl(sys, 2), g.efl(0), g.efl(1), g.bfl(2)})
    EXPECT_EQ(v, 0.0);
  EXPECT_NE(efl(sys, 2), 0.0);  // two surfaces: an EFL, but no back focus
  EXPECT_NE(g.efl(2), 0.0);
  // The pupils need a stop at surface 1 or later (entrance: beyond 1), more
  // than two surfaces and a row at the stop.
  for (double v : {g.entrance(8, 0), g.entrance(8, 1), g.exit(8, 0), g.exit(2, 1), g.exit(8, 8)})
    EXPECT_EQ(v, 0.0);
  // A Keplerian telescope is afocal: the 1e15 sentinel, but not in the solve.
  System const scope = thin_lenses({100.0, 25.0}, {125.0, 30.0});
  Generic const gs(scope);
  for (double v : {efl(scope), bfl(scope), plain_focal(scope), gs.efl(4), gs.bfl(4)})
    EXPECT_EQ(v, 1e15);
  SystemConfig cfg = config_epd(10.0, 1);
  ParaxialSolveResult r = solve(scope, cfg);
  EXPECT_EQ(r.efl, 0.0);
  EXPECT_FALSE(std::isnan(r.exit_pupil_position));
  // F-number on an afocal system: the launch height comes from the 1e15 sentinel.
  cfg.aperture_type = 1;
  cfg.aperture_value = 4.0;
  r = solve(scope, cfg);
  EXPECT_EQ(r.entrance_pupil_diameter, 1e15 / 4.0);
  EXPECT_EQ(r.efl, 0.0);
  // Focal lengths from the array replace the records': with the eyepiece's
  // power taken away (focal length 0), the objective alone has f = 100 mm.
  double const focal[4] = {0.0, 100.0, 0.0, 0.0};
  EXPECT_NEAR(gs.efl(4, focal), 100.0, 1e-12);
}

TEST(Paraxial, ThinLensWithoutPowerAndMatrixIndexRules) {
  for (double f : {0.0, kInf}) {
    ParaxialRayState rows[4];
    rows_of(thin_lenses({f}, {20.0}), 2.0, 0.1, rows);
    EXPECT_EQ(rows[0].u, 0.1);
  }
  // A matrix surface into a medium of index 1.5: u unscaled, nu = u * 1.5.
  System m = nuvrix_test::make_system({0.0, 0.0, 0.0}, {1e10, 10.0, 0.0}, {1.0, 1.5, 1.5});
  m.surfaces[1].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.0, 2.0, -0.05, 1.0};
  for (int k = 0; k < 4; ++k) m.surfaces[1].coefficients[k] = abcd[k];
  ParaxialRayState rows[4];
  rows_of(m, 2.0, 0.1, rows);
  EXPECT_DOUBLE_EQ(rows[0].y, 2.0 + 2.0 * 0.1);
  EXPECT_DOUBLE_EQ(rows[0].u, -0.05 * 2.0 + 0.1);
  EXPECT_DOUBLE_EQ(rows[0].nu, rows[0].u * 1.5);
  // The EFL honours the matrix: -n0 / (u' n') with u' = C = -0.05.
  EXPECT_DOUBLE_EQ(efl(m), 1.0 / (0.05 * 1.5));
  // The plain focal length reads a matrix surface as a refracting surface of
  // its own curvature: c = 1/20 into n' = 1.5 focuses n'/P = 60 mm behind it.
  m.surfaces[1].curvature = 1.0 / 20.0;
  EXPECT_NEAR(plain_focal(m), 50.0, 1e-12);
  m.surfaces[1].curvature = 0.0;
  EXPECT_EQ(plain_focal(m), 1e15);
}

TEST(Paraxial, InfiniteThicknessRulesDifferByRoutine) {
  // A 1e10 spacing between two thin lenses: skipped by the step, applied by
  // the plain focal length and by the templated trace.
  System const sys = thin_lenses({100.0, 50.0}, {1e10, 40.0});
  ParaxialRayState rows[4];
  rows_of(sys, 1.0, 0.0, rows);
  EXPECT_DOUBLE_EQ(rows[1].y, 1.0);
  double y[4], u[4];
  Generic(sys).trace(sys.count(), 1.0, 0.0, y, u);
  double const yl = 1.0 - 1e10 / 100.0, ul = -0.01 - yl / 50.0;  // at lens 2, then to the image
  EXPECT_DOUBLE_EQ(y[1], yl);
  EXPECT_NEAR(plain_focal(sys), -(yl + 40.0 * ul) / ul, 1e-6);
}

TEST(Paraxial, GenericFormsAtDoubleMatchThePlainForms) {
  // On the triplet (an infinite object distance, on which the step and the
  // template agree) every generic form equals its plain form.
  System plain = nuvrix_test::cooke_triplet();
  plain.surfaces[0].thickness = kInf;
  int const n = plain.count();
  Generic const g(plain);
  SurfaceData const* s = plain.surfaces.data();
  ParaxialRayState rows[16];
  double y[16], u[16];
  rows_of(plain, 3.0, 0.02, rows);
  g.trace(n, 3.0, 0.02, y, u);
  for (int i = 0; i < n - 1; ++i) EXPECT_TRUE(y[i] == rows[i].y && u[i] == rows[i].u) << i;
  EXPECT_EQ(g.efl(n), nuvrix::calculate_efl_abcd(s, n, plain.row()));
  EXPECT_EQ(g.bfl(n), nuvrix::calculate_bfl(s, n, plain.row()));
  EXPECT_EQ(g.entrance(n, 4), entrance(plain, 4));
  SystemConfig const cfg = config_epd(10.0, 4);
  FieldData const field = {20.0, 1.0, 0.0};
  EXPECT_EQ(g.exit(n, 4), nuvrix_compute_exit_pupil_position(s, n, plain.row(), &cfg, &field, 1));
  // Refracting surface, thin lens, matrix surface and a concave mirror: the
  // generic trace with curvatures, focal lengths and matrices from arrays
  // (overriding the records by surface index) equals the plain step on
  // records that carry the same values.
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0, 0.0, 0.0, 0.0},
                                        {kInf, 5.0, 10.0, 20.0, -30.0, 0.0},
                                        {1.0, 1.5, 1.0, 1.0, 1.0, 1.0});
  sys.surfaces[2].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  sys.surfaces[2].focal_length = 1e300;
  sys.surfaces[3].type = NUVRIX_SURFACE_MATRIX;
  sys.surfaces[3].coefficients[0] = sys.surfaces[3].coefficients[3] = 1.0;
  sys.surfaces[4].is_mirror = 1;
  Generic o(sys);
  o.c[1] = 1.0 / 30.0;
  o.c[4] = -1.0 / 100.0;
  double const focal[6] = {0.0, 0.0, 80.0, 0.0, 0.0, 0.0}, abcd[4] = {1.1, 2.0, -0.01, 0.9};
  double matrices[6][8] = {};
  System rec = sys;
  rec.surfaces[1].curvature = o.c[1];
  rec.surfaces[4].curvature = o.c[4];
  rec.surfaces[2].focal_length = focal[2];
  for (int k = 0; k < 4; ++k) matrices[3][k] = rec.surfaces[3].coefficients[k] = abcd[k];
  rows_of(rec, 3.0, 0.01, rows);
  ASSERT_EQ(o.trace(6, 3.0, 0.01, y, u, focal, matrices), 5);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(y[i] == rows[i].y && u[i] == rows[i].u) << i;
  EXPECT_LT(rows[3].u * rows[2].u, 0.0);  // the concave mirror turned the light back
}

TEST(Paraxial, EndStateKeepsFirstPreviousLastAndTarget) {
  System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count();
  ParaxialRayState rows[16];
  rows_of(sys, 2.0, 0.05, rows);
  auto same = [](ParaxialRayState const& a, ParaxialRayState const& b) {
    return a.y == b.y && a.u == b.u && a.nu == b.nu;
  };
  auto end = [&](int count, int target) {
    return nuvrix::trace_paraxial_end(sys.surfaces.data(), count, sys.row(), 2.0, 0.05, target);
  };
  nuvrix::ParaxialEndState e = end(n, 3);
  EXPECT_EQ(e.row_count, n - 1);
  EXPECT_TRUE(same(e.first, rows[0]) && same(e.last, rows[n - 2]));
  EXPECT_TRUE(same(e.previous, rows[n - 3]));
  ASSERT_TRUE(e.target_found);
  EXPECT_TRUE(same(e.target, rows[3]));
  for (int target : {-1, n - 1}) {
    e = end(n, target);
    EXPECT_FALSE(e.target_found);
    EXPECT_EQ(e.target.y, 0.0);
  }
  // One row: first and last are that row, previous stays zero.
  e = end(2, 0);
  EXPECT_EQ(e.row_count, 1);
  EXPECT_TRUE(same(e.first, e.last) && same(e.target, e.last));
  EXPECT_TRUE(e.previous.y == 0.0 && e.previous.u == 0.0 && e.previous.nu == 0.0);
  // No rows: everything zero.
  e = end(1, 0);
  EXPECT_EQ(e.row_count, 0);
  EXPECT_FALSE(e.target_found);
  EXPECT_TRUE(e.first.y == 0.0 && e.last.y == 0.0 && e.last.u == 0.0);
}

TEST(Paraxial, NanPowerAndExactThresholdsFollowEachRoutinesRule) {
  // A NaN focal length gives a NaN power: the EFL and BFL (|u| > 1e-15) take
  // the sentinel, the plain focal length (1e-15 > |u|) lets the NaN through.
  // A power of exactly -1e-15 leaves a unit ray with u = 1e-15: again the
  // sentinel; the solve (unit launch height) forms nothing in either case.
  for (double f : {kNan, -1e15}) {
    System const sys = thin_lenses({f}, {20.0});
    ParaxialRayState rows[4];
    rows_of(sys, 1.0, 0.0, rows);
    EXPECT_TRUE(std::isnan(f) ? std::isnan(rows[0].u) : rows[0].u == 1e-15);
    Generic const g(sys);
    for (double v : {efl(sys), bfl(sys), g.efl(3), g.bfl(3)}) EXPECT_EQ(v, 1e15);
    if (std::isnan(f)) {
      EXPECT_TRUE(std::isnan(plain_focal(sys)));
    } else {
      EXPECT_NEAR(plain_focal(sys), -(1.0 + 20.0 * 1e-15) / 1e-15, 1.0);
    }
    ParaxialSolveResult const r = solve(sys, config_epd(2.0, 1));
    EXPECT_TRUE(r.efl == 0.0 && r.bfl == 0.0 && r.image_distance == 0.0);
  }
}

TEST(Pupils, EntrancePupilIsTheImageOfTheStopSeenFromTheObject) {
  // Thin lens f = 50, stop 20 mm behind: 1/s' = 1/20 - 1/50.
  double const f = 50.0, a = 20.0, expect = 1.0 / (1.0 / a - 1.0 / f);
  EXPECT_NEAR(entrance(thin_lenses({f, 1e300}, {a, 60.0}), 2), expect, 1e-12 * expect);
  // A glass singlet in front of the stop, imaged reversed surface by surface
  // with n'/v' = n/v + (n' - n) c: surface 2 (curvature -1/r2, air into
  // glass), then surface 1 (curvature -1/r1, glass into air).
  double const n = 1.6, r1 = 30.0, r2 = -80.0, t = 5.0, s = 15.0;
  System const lens = nuvrix_test::make_system({0.0, r1, r2, 0.0, 0.0}, {1e10, t, s, 40.0, 0.0},
                                               {1.0, n, 1.0, 1.0, 1.0});
  double const v2 = n / (1.0 / -s + (n - 1.0) * (-1.0 / r2));
  double const v1 = 1.0 / (n / (v2 - t) + (1.0 - n) * (-1.0 / r1));
  EXPECT_NEAR(entrance(lens, 3), -v1, 1e-10);
  EXPECT_EQ(entrance(lens, 1), 0.0);  // the stop on surface 0 or 1: the pupil is at surface 1
  EXPECT_EQ(entrance(lens, 0), 0.0);
  // A NaN thin lens has no power in the reversed pass (only a finite, nonzero
  // focal length counts): the pupil is the stop itself, 20 mm behind surface 1.
  EXPECT_EQ(entrance(thin_lenses({kNan, 1e300}, {20.0, 30.0}), 2), 20.0);
}

TEST(Pupils, ExitPupilOfFrontStopAndItsDiameter) {
  // Stop 20 mm in front of a thin lens f = 50; image surface at the focus.
  double const a = 20.0, f = 50.0, sp = a * f / (a - f);  // the stop's (virtual) image
  System const sys = thin_lenses({1e300, f}, {a, f});
  SystemConfig const cfg = config_epd(10.0, 1);
  ParaxialSolveResult const r = solve(sys, cfg);
  EXPECT_NEAR(r.exit_pupil_position, sp - f, 1e-10);
  EXPECT_NEAR(r.exit_pupil_diameter, 10.0 * std::fabs(sp / a), 1e-10);  // lateral magnification
  EXPECT_EQ(r.entrance_pupil_position, 0.0);
  EXPECT_EQ(nuvrix_compute_exit_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), &cfg,
                                               nullptr, 0),
            r.exit_pupil_position);
}

TEST(Pupils, MarginalHeightForEachApertureType) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = config_epd(12.0, kStop);
  EXPECT_EQ(marginal(sys, sys.row(), cfg), 6.0);
  cfg.aperture_type = 1;
  cfg.aperture_value = 5.0;
  EXPECT_DOUBLE_EQ(marginal(sys, sys.row(), cfg), efl(sys) / 10.0);
  // Numerical aperture of a finite object: distance to the entrance pupil times tan(asin NA).
  System finite = sys;
  finite.surfaces[0].thickness = 200.0;
  double const ep = entrance(finite, kStop);
  cfg.aperture_type = 2;
  cfg.aperture_value = 0.1;
  EXPECT_NEAR(marginal(finite, finite.row(), cfg), (200.0 + ep) * std::tan(std::asin(0.1)), 1e-12);
  // At or above the object-space index the sine is held at 0.999999.
  for (double na : {1.0, -3.0}) {
    cfg.aperture_value = na;
    EXPECT_DOUBLE_EQ(marginal(finite, finite.row(), cfg),
                     (200.0 + ep) * 0.999999 / std::sqrt(1.999999000079633e-6));
  }
  cfg.telecentric_object = 1;  // the entrance pupil at 1e10
  cfg.aperture_value = 0.1;
  EXPECT_NEAR(marginal(finite, finite.row(), cfg), (200.0 + 1e10) * std::tan(std::asin(0.1)),
              1e-3);
  // In an immersion object space the sine is NA / n; an index below 1e-6 is read as air.
  cfg.telecentric_object = 0;
  cfg.aperture_value = 0.5;
  std::vector<double> water = finite.indices;
  water[0] = 1.33;
  double const ep_water = nuvrix_entrance_pupil_position(finite.surfaces.data(), finite.count(),
                                                         water.data(), kStop);
  EXPECT_NEAR(marginal(finite, water.data(), cfg),
              (200.0 + ep_water) * std::tan(std::asin(0.5 / 1.33)), 1e-12);
  cfg.stop_surface = 1;  // pupil on surface 1, whatever the object index
  water[0] = 0.0;
  EXPECT_NEAR(marginal(finite, water.data(), cfg), 200.0 * std::tan(std::asin(0.5)), 1e-12);
}

TEST(Pupils, ChiefRayCrossesTheStopCentre) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig const cfg = config_epd(10.0, kStop);
  FieldData const fields[3] = {{0.0, 1, 0}, {-20.0, 1, 0}, {14.0, 1, 0}};
  ParaxialRayState mg[256], ch[256];
  ParaxialSolveResult const r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(),
                                                      &cfg, fields, 3, mg, ch);
  int const last = sys.count() - 2;  // the image row
  EXPECT_NEAR(ch[kStop - 1].y, 0.0, 1e-13);
  // The marginal ray enters parallel at the rim of the 10 mm pupil and ends near the focus.
  EXPECT_EQ(mg[0].y, 5.0);
  EXPECT_NEAR(mg[last].y, mg[last - 1].y * (r.bfl - 42.20778) / r.bfl, 1e-12);
  // The largest field keeps its sign (-20 degrees); back-projected from
  // surface 1 the chief ray meets the axis at the entrance pupil.
  EXPECT_NEAR(-ch[0].y / std::tan(-20.0 * M_PI / 180.0), r.entrance_pupil_position, 1e-9);
  // The exit pupil is where the chief ray leaving the system crosses the
  // axis; its diameter from the marginal ray at that plane.
  EXPECT_NEAR(r.exit_pupil_position, -ch[last].y / ch[last].u, 1e-9);
  EXPECT_NEAR(r.exit_pupil_diameter,
              2.0 * std::fabs(mg[last].y + r.exit_pupil_position * mg[last].u), 1e-12);
}

TEST(Pupils, SolveEdgeCases) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = config_epd(10.0, kStop);
  // n < 2: only the entrance pupil diameter.
  ParaxialSolveResult r = solve(sys, cfg, nullptr, 0, 1);
  EXPECT_TRUE(r.efl == 0.0 && r.exit_pupil_position == 0.0 && r.exit_pupil_diameter == 0.0 &&
              r.total_length == 0.0);
  EXPECT_EQ(r.entrance_pupil_diameter, 10.0);
  // A stop beyond the surfaces: the exit pupil comes from the chief-ray fallback.
  FieldData const field = {10.0, 1, 0};
  cfg.stop_surface = 20;
  r = solve(sys, cfg, &field, 1);
  ParaxialRayState chief[256];
  rows_of(sys, 0.0, std::tan(10.0 * M_PI / 180.0), chief);
  int const last = sys.count() - 2;
  EXPECT_DOUBLE_EQ(r.exit_pupil_position, -chief[last].y / chief[last].u);
  cfg.field_type = 1;  // a height field launches no chief slope: no fallback either
  EXPECT_EQ(solve(sys, cfg, &field, 1).exit_pupil_position, 0.0);
  // A dummy stop in front with a negative spacing in air is not part of the
  // length; a medium of index 1.1 or more behind the stop is not air.
  System dummy = nuvrix_test::make_system({0.0, 0.0, 30.0, -30.0, 0.0},
                                          {1e10, -5.0, 4.0, 30.0, 0.0}, {1.0, 1.0, 1.5, 1.0, 1.0});
  cfg = config_epd(10.0, 1);
  EXPECT_DOUBLE_EQ(solve(dummy, cfg).total_length, 34.0);
  cfg.stop_surface = 2;
  EXPECT_DOUBLE_EQ(solve(dummy, cfg).total_length, 29.0);
  cfg.stop_surface = 1;
  dummy.indices[1] = 1.1;
  EXPECT_DOUBLE_EQ(solve(dummy, cfg).total_length, 29.0);
  // Two surfaces: the exit pupil has no second row and stays 0; the pupil
  // diameter is twice the marginal height on the last surface.
  ParaxialRayState rows[2];
  rows_of(sys, 5.0, 0.0, rows, 2);
  r = solve(sys, cfg, &field, 1, 2);
  EXPECT_EQ(r.exit_pupil_position, 0.0);
  EXPECT_EQ(r.exit_pupil_diameter, 2.0 * std::fabs(rows[0].y));
  EXPECT_EQ(r.efl, 0.0);
}

TEST(Pupils, SingularMatrixInFrontOfStopDoesNotStopTheTrace) {
  // A plane, 10 mm, a matrix surface, 10 mm, the stop.  The rank-one matrix
  // [1 4; 0 0] has determinant 0; the reversed pass divides by 1e-15 instead
  // and the scale cancels in y / u: leaving the matrix backwards, y / u =
  // (D y + B u) / (C y + A u) = 4, and 10 mm further y / u = 14.  A nearly
  // singular matrix of negative determinant is held at -1e-15 alike; the zero
  // matrix sends nothing through.
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0, 0.0, 0.0}, {1e10, 10.0, 10.0, 5.0, 0.0},
                                        {1.0, 1.0, 1.0, 1.0, 1.0});
  sys.surfaces[2].type = NUVRIX_SURFACE_MATRIX;
  double const cases[3][5] = {{1.0, 4.0, 0.0, 0.0, 14.0}, {1.0, 4.0, 0.0, -1e-17, 14.0},
                              {0.0, 0.0, 0.0, 0.0, 0.0}};
  for (auto const& c : cases) {
    for (int k = 0; k < 4; ++k) sys.surfaces[2].coefficients[k] = c[k];
    EXPECT_NEAR(entrance(sys, 3), c[4], c[4] == 0.0 ? 0.0 : 1e-12) << c[3];
  }
}
