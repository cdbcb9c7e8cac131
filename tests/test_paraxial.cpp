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
  double const u = nu / n[last];
  efl = -n[0] / nu;
  bfl = -y / u;
}

SystemConfig config_epd(double epd, int stop) {
  SystemConfig c = {};
  c.aperture_type = 0;
  c.aperture_value = epd;
  c.stop_surface = stop;
  return c;
}

// Thin lenses (surface type 2) at the given spacings; image surface last.
System thin_lenses(std::vector<double> const& f, std::vector<double> const& gaps) {
  std::vector<double> radii(f.size() + 2, 0.0), thick, index(f.size() + 2, 1.0);
  thick.push_back(1e10);
  for (double g : gaps) thick.push_back(g);
  thick.push_back(0.0);
  System sys = nuvrix_test::make_system(radii, thick, index);
  for (size_t k = 0; k < f.size(); ++k) {
    sys.surfaces[k + 1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
    sys.surfaces[k + 1].focal_length = f[k];
  }
  return sys;
}

// The generic forms at double, with curvatures and thicknesses copied from
// the records; `n` may be smaller than the system to model a short one.
struct Generic {
  System sys;
  std::vector<double> c, t;
  explicit Generic(System const& s) : sys(s) {
    for (SurfaceData const& r : s.surfaces) c.push_back(r.curvature), t.push_back(r.thickness);
  }
  int trace(int n, double y0, double u0, double* y, double* u, double const* focal = nullptr,
            double const (*matrices)[8] = nullptr) const {
    return nuvrix::trace_paraxial_ray_t<double, double>(c.data(), t.data(), sys.row(),
                                                        sys.surfaces.data(), n, y0, u0, y, u,
                                                        focal, matrices);
  }
  double efl(int n, double const* focal = nullptr) const {
    return nuvrix::calculate_efl_abcd_t<double, double>(c.data(), t.data(), sys.row(),
                                                        sys.surfaces.data(), n, focal, nullptr);
  }
  double bfl(int n) const {
    return nuvrix::calculate_bfl_t<double, double>(c.data(), t.data(), sys.row(),
                                                   sys.surfaces.data(), n, nullptr, nullptr);
  }
  double entrance(int n, int stop) const {
    return nuvrix::compute_entrance_pupil_position_t<double, double>(
        c.data(), t.data(), sys.row(), sys.surfaces.data(), n, stop);
  }
  double exit(int n, int stop) const {
    return nuvrix::compute_exit_pupil_position_t<double, double>(
        c.data(), t.data(), sys.row(), sys.surfaces.data(), n, stop, nullptr);
  }
};

}  // namespace

TEST(Paraxial, CookeTripletFocalQuantitiesMatchIndependentTrace) {
  System const sys = nuvrix_test::cooke_triplet();
  double efl = 0, bfl = 0;
  ynu_focal(sys, efl, bfl);
  EXPECT_NEAR(efl, 50.0, 0.2);  // the classic design value
  EXPECT_NEAR(nuvrix_calculate_efl(sys.surfaces.data(), sys.count(), sys.row()), efl,
              1e-12 * efl);
  EXPECT_NEAR(nuvrix_calculate_bfl(sys.surfaces.data(), sys.count(), sys.row()), bfl,
              1e-12 * bfl);
  SystemConfig const cfg = config_epd(10.0, nuvrix_test::kCookeStop);
  ParaxialSolveResult const r =
      nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(), &cfg, nullptr, 0,
                            nullptr, nullptr);
  EXPECT_NEAR(r.efl, efl, 1e-12 * efl);
  EXPECT_NEAR(r.bfl, bfl, 1e-12 * bfl);
  EXPECT_EQ(r.image_distance, r.bfl);
  EXPECT_EQ(r.entrance_pupil_diameter, 10.0);
  EXPECT_EQ(r.reserved, 0.0);
  EXPECT_NEAR(r.total_length, 3.25896 + 6.00755 + 0.99997 + 4.75041 + 2.95208 + 42.20778, 1e-12);
}

TEST(Paraxial, ThickLensFollowsLensmakerWithThickness) {
  double const n = 1.5168, r1 = 40.0, r2 = -60.0, t = 8.0;
  System const sys = nuvrix_test::make_system({0.0, r1, r2, 0.0}, {1e10, t, 50.0, 0.0},
                                              {1.0, n, 1.0, 1.0});
  double const c1 = 1 / r1, c2 = 1 / r2;
  double const power = (n - 1) * (c1 - c2 + (n - 1) * t * c1 * c2 / n);
  double const f = 1 / power;
  double const bfl = f * (1 - (n - 1) * t * c1 / n);
  EXPECT_NEAR(nuvrix_calculate_efl(sys.surfaces.data(), 4, sys.row()), f, 1e-12 * f);
  EXPECT_NEAR(nuvrix::calculate_efl_abcd(sys.surfaces.data(), 4, sys.row()), f, 1e-12 * f);
  EXPECT_NEAR(nuvrix_calculate_bfl(sys.surfaces.data(), 4, sys.row()), bfl, 1e-12 * f);
  // The plain focal length is measured from the final (image) surface, 50 mm behind.
  EXPECT_NEAR(nuvrix_focal_length(sys.surfaces.data(), 4, sys.row()), bfl - 50.0, 1e-11 * f);
  // A thin lens of the same power.
  System const thin = thin_lenses({f}, {bfl});
  EXPECT_NEAR(nuvrix_calculate_efl(thin.surfaces.data(), thin.count(), thin.row()), f, 1e-12 * f);
}

TEST(Paraxial, SphericalMirrorFocusesAtHalfTheRadius) {
  System const sys = nuvrix_test::make_system({0.0, -200.0, 0.0}, {1e10, -100.0, 0.0}, {1, 1, 1});
  System mirror = sys;
  mirror.surfaces[1].is_mirror = 1;
  EXPECT_DOUBLE_EQ(nuvrix_calculate_efl(mirror.surfaces.data(), 3, mirror.row()), -100.0);
  EXPECT_DOUBLE_EQ(nuvrix_calculate_bfl(mirror.surfaces.data(), 3, mirror.row()), -100.0);
  // The row of the mirror: the reduced slope is the numerator, before the
  // division by -n, so u and nu have opposite signs.
  ParaxialRayState rows[4];
  ASSERT_EQ(nuvrix::trace_paraxial_ray(mirror.surfaces.data(), 3, mirror.row(), 1.0, 0.0, rows), 2);
  EXPECT_DOUBLE_EQ(rows[0].nu, -0.01);
  EXPECT_DOUBLE_EQ(rows[0].u, 0.01);
  EXPECT_NEAR(rows[1].y, 0.0, 1e-15);  // the focus on the image surface
  // The plain focal length ignores the mirror flag: same index both sides, no power.
  EXPECT_EQ(nuvrix_focal_length(mirror.surfaces.data(), 3, mirror.row()), 1e15);
}

TEST(Paraxial, TelephotoIsLongerInFocusThanInLength) {
  double const f1 = 50.0, f2 = -30.0, d = 30.0;
  double const f = f1 * f2 / (f1 + f2 - d);        // 150
  double const bfl = f * (1.0 - d / f1);           // 60
  System const sys = thin_lenses({f1, f2}, {d, bfl});
  SystemConfig const cfg = config_epd(10.0, 1);
  ParaxialSolveResult const r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(),
                                                      &cfg, nullptr, 0, nullptr, nullptr);
  EXPECT_NEAR(r.efl, f, 1e-12 * f);
  EXPECT_NEAR(r.bfl, bfl, 1e-12 * f);
  EXPECT_NEAR(r.total_length, d + bfl, 1e-12);
  EXPECT_GT(r.efl, r.total_length);
}

TEST(Paraxial, TooShortAndAfocalSystems) {
  System const sys = nuvrix_test::cooke_triplet();
  ParaxialRayState rows[4];
  rows[0].y = 7.0;
  EXPECT_EQ(nuvrix::trace_paraxial_ray(sys.surfaces.data(), 1, sys.row(), 1, 0, rows), 0);
  EXPECT_EQ(rows[0].y, 7.0);
  EXPECT_EQ(nuvrix_focal_length(sys.surfaces.data(), 1, sys.row()), 1e15);
  EXPECT_EQ(nuvrix_calculate_efl(sys.surfaces.data(), 1, sys.row()), 0.0);
  EXPECT_EQ(nuvrix_calculate_bfl(sys.surfaces.data(), 1, sys.row()), 0.0);
  EXPECT_EQ(nuvrix::calculate_efl_abcd(sys.surfaces.data(), 0, sys.row()), 0.0);
  // Two surfaces: an EFL, but no back focus.
  EXPECT_NE(nuvrix_calculate_efl(sys.surfaces.data(), 2, sys.row()), 0.0);
  EXPECT_EQ(nuvrix_calculate_bfl(sys.surfaces.data(), 2, sys.row()), 0.0);
  // A Keplerian telescope is afocal.
  System const scope = thin_lenses({100.0, 25.0}, {125.0, 30.0});
  EXPECT_EQ(nuvrix_calculate_efl(scope.surfaces.data(), scope.count(), scope.row()), 1e15);
  EXPECT_EQ(nuvrix_calculate_bfl(scope.surfaces.data(), scope.count(), scope.row()), 1e15);
  EXPECT_EQ(nuvrix_focal_length(scope.surfaces.data(), scope.count(), scope.row()), 1e15);
  SystemConfig const cfg = config_epd(10.0, 1);
  ParaxialSolveResult r = nuvrix_paraxial_solve(scope.surfaces.data(), scope.count(), scope.row(),
                                                &cfg, nullptr, 0, nullptr, nullptr);
  EXPECT_EQ(r.efl, 0.0);  // the solve has no 1e15 sentinel
  EXPECT_FALSE(std::isnan(r.exit_pupil_position));
  // F-number on an afocal system: the launch height comes from the 1e15 sentinel.
  SystemConfig fno = cfg;
  fno.aperture_type = 1;
  fno.aperture_value = 4.0;
  r = nuvrix_paraxial_solve(scope.surfaces.data(), scope.count(), scope.row(), &fno, nullptr, 0,
                            nullptr, nullptr);
  EXPECT_EQ(r.entrance_pupil_diameter, 1e15 / 4.0);
  EXPECT_EQ(r.efl, 0.0);
}

TEST(Paraxial, ThinLensWithoutPowerAndMatrixIndexRules) {
  for (double f : {0.0, std::numeric_limits<double>::infinity()}) {
    System const sys = thin_lenses({f}, {20.0});
    ParaxialRayState rows[4];
    nuvrix::trace_paraxial_ray(sys.surfaces.data(), sys.count(), sys.row(), 2.0, 0.1, rows);
    EXPECT_EQ(rows[0].u, 0.1);
  }
  // A matrix surface into a medium of index 1.5: u unscaled, nu = u * 1.5.
  System m = nuvrix_test::make_system({0.0, 0.0, 0.0}, {1e10, 10.0, 0.0}, {1.0, 1.5, 1.5});
  m.surfaces[1].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[4] = {1.0, 2.0, -0.05, 1.0};
  for (int k = 0; k < 4; ++k) m.surfaces[1].coefficients[k] = abcd[k];
  ParaxialRayState rows[4];
  nuvrix::trace_paraxial_ray(m.surfaces.data(), 3, m.row(), 2.0, 0.1, rows);
  EXPECT_DOUBLE_EQ(rows[0].y, 2.0 + 2.0 * 0.1);
  EXPECT_DOUBLE_EQ(rows[0].u, -0.05 * 2.0 + 0.1);
  EXPECT_DOUBLE_EQ(rows[0].nu, rows[0].u * 1.5);
  // The EFL honours the matrix: -n0 / (u' n') with u' = C = -0.05.
  EXPECT_DOUBLE_EQ(nuvrix_calculate_efl(m.surfaces.data(), 3, m.row()), 1.0 / (0.05 * 1.5));
  // The plain focal length reads a matrix surface as a refracting surface of
  // its own curvature: with c = 1/20 into n' = 1.5 the focus lies n'/P = 60
  // mm behind it, 50 mm behind the last surface.
  m.surfaces[1].curvature = 1.0 / 20.0;
  EXPECT_NEAR(nuvrix_focal_length(m.surfaces.data(), 3, m.row()), 50.0, 1e-12);
  m.surfaces[1].curvature = 0.0;
  EXPECT_EQ(nuvrix_focal_length(m.surfaces.data(), 3, m.row()), 1e15);
}

TEST(Paraxial, InfiniteThicknessRulesDifferByRoutine) {
  // A 1e10 spacing between two thin lenses: skipped by the step, applied by
  // the plain focal length and by the templated trace.
  System const sys = thin_lenses({100.0, 50.0}, {1e10, 40.0});
  ParaxialRayState rows[4];
  nuvrix::trace_paraxial_ray(sys.surfaces.data(), sys.count(), sys.row(), 1.0, 0.0, rows);
  EXPECT_DOUBLE_EQ(rows[1].y, 1.0);
  double y[4], u[4];
  Generic(sys).trace(sys.count(), 1.0, 0.0, y, u);
  EXPECT_DOUBLE_EQ(y[1], 1.0 - 1e10 / 100.0);
  double const plain = nuvrix_focal_length(sys.surfaces.data(), sys.count(), sys.row());
  double const yl = 1.0 - 1e10 / 100.0, ul = -0.01 - yl / 50.0;  // at lens 2, then to the image
  EXPECT_NEAR(plain, -(yl + 40.0 * ul) / ul, 1e-6);
}

TEST(Paraxial, GenericFormsAtDoubleMatchThePlainForms) {
  System plain = nuvrix_test::cooke_triplet();
  // An infinite object distance: the step and the template agree on it.
  plain.surfaces[0].thickness = std::numeric_limits<double>::infinity();
  int const n = plain.count();
  Generic const g(plain);
  SurfaceData const* s = plain.surfaces.data();
  ParaxialRayState rows[16];
  double y[16], u[16];
  nuvrix::trace_paraxial_ray(s, n, plain.row(), 3.0, 0.02, rows);
  g.trace(n, 3.0, 0.02, y, u);
  for (int i = 0; i < n - 1; ++i) {
    EXPECT_EQ(y[i], rows[i].y);
    EXPECT_EQ(u[i], rows[i].u);
  }
  EXPECT_EQ(g.efl(n), nuvrix::calculate_efl_abcd(s, n, plain.row()));
  EXPECT_EQ(g.bfl(n), nuvrix::calculate_bfl(s, n, plain.row()));
  EXPECT_EQ(g.entrance(n, 4), nuvrix::compute_entrance_pupil_position(s, n, plain.row(), 4));
  SystemConfig const cfg = config_epd(10.0, 4);
  FieldData const field = {20.0, 1.0, 0.0};
  EXPECT_EQ(g.exit(n, 4), nuvrix_compute_exit_pupil_position(s, n, plain.row(), &cfg, &field, 1));
}

TEST(Pupils, EntrancePupilOfStopBehindLensIsItsVirtualImage) {
  // Thin lens f = 50, stop 20 mm behind: seen from the object the stop
  // appears at s' with 1/s' = 1/20 - 1/50, i.e. 33.3 mm behind the lens.
  double const f = 50.0, a = 20.0;
  System const sys = thin_lenses({f, 1e300}, {a, 60.0});  // the second "lens" is the stop plane
  double const expect = 1.0 / (1.0 / a - 1.0 / f);
  EXPECT_NEAR(nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), 2),
              expect, 1e-12 * expect);
  // A glass singlet in front of the stop: the image of the stop through the
  // refracting surfaces, by the Gaussian imaging equation surface by surface.
  double const n = 1.6, r1 = 30.0, r2 = -80.0, t = 5.0, s = 15.0;
  System const lens = nuvrix_test::make_system({0.0, r1, r2, 0.0, 0.0}, {1e10, t, s, 40.0, 0.0},
                                               {1.0, n, 1.0, 1.0, 1.0});
  // Reversed light meets surface 2 first (curvature -1/r2, from air into
  // glass), then surface 1 (curvature -1/r1, from glass into air), with the
  // Gaussian equation n'/v' = n/v + (n' - n) c at each.
  double const v2 = n / (1.0 / -s + (n - 1.0) * (-1.0 / r2));
  double const v1 = 1.0 / (n / (v2 - t) + (1.0 - n) * (-1.0 / r1));
  EXPECT_NEAR(nuvrix_entrance_pupil_position(lens.surfaces.data(), lens.count(), lens.row(), 3),
              -v1, 1e-10);
  // The stop on surface 0 or 1: the pupil is at surface 1.
  EXPECT_EQ(nuvrix_entrance_pupil_position(lens.surfaces.data(), lens.count(), lens.row(), 1), 0.0);
  EXPECT_EQ(nuvrix_entrance_pupil_position(lens.surfaces.data(), lens.count(), lens.row(), 0), 0.0);
}

TEST(Pupils, ExitPupilOfFrontStopAndItsDiameter) {
  // Stop 20 mm in front of a thin lens f = 50; image surface at the focus.
  double const a = 20.0, f = 50.0;
  System sys = thin_lenses({1e300, f}, {a, f});
  SystemConfig const cfg = config_epd(10.0, 1);
  ParaxialSolveResult const r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(),
                                                      &cfg, nullptr, 0, nullptr, nullptr);
  double const sp = a * f / (a - f);  // image of the stop, from the lens (virtual, in front)
  EXPECT_NEAR(r.exit_pupil_position, sp - f, 1e-10);
  EXPECT_NEAR(r.exit_pupil_diameter, 10.0 * std::fabs(sp / a), 1e-10);  // lateral magnification
  EXPECT_EQ(r.entrance_pupil_position, 0.0);
  EXPECT_NEAR(nuvrix_compute_exit_pupil_position(sys.surfaces.data(), sys.count(), sys.row(), &cfg,
                                                 nullptr, 0),
              r.exit_pupil_position, 0.0);
}

TEST(Pupils, MarginalHeightForEachApertureType) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = config_epd(12.0, nuvrix_test::kCookeStop);
  EXPECT_EQ(nuvrix::paraxial_marginal_height(sys.surfaces.data(), sys.count(), sys.row(), cfg), 6.0);
  cfg.aperture_type = 1;
  cfg.aperture_value = 5.0;
  double const efl = nuvrix_calculate_efl(sys.surfaces.data(), sys.count(), sys.row());
  EXPECT_DOUBLE_EQ(nuvrix::paraxial_marginal_height(sys.surfaces.data(), sys.count(), sys.row(), cfg),
                   efl / 10.0);
  // Numerical aperture of a finite object: distance to the entrance pupil times tan(asin NA).
  System finite = sys;
  finite.surfaces[0].thickness = 200.0;
  cfg.aperture_type = 2;
  cfg.aperture_value = 0.1;
  double const ep = nuvrix_entrance_pupil_position(finite.surfaces.data(), finite.count(),
                                                   finite.row(), nuvrix_test::kCookeStop);
  EXPECT_NEAR(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                               finite.row(), cfg),
              (200.0 + ep) * std::tan(std::asin(0.1)), 1e-12);
  // At or above the object-space index the sine is held at 0.999999.
  cfg.aperture_value = 1.0;
  double const held = (200.0 + ep) * 0.999999 / std::sqrt(1.999999000079633e-6);
  EXPECT_DOUBLE_EQ(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                                    finite.row(), cfg),
                   held);
  cfg.aperture_value = -3.0;
  EXPECT_DOUBLE_EQ(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                                    finite.row(), cfg),
                   held);
  cfg.telecentric_object = 1;
  cfg.aperture_value = 0.1;
  EXPECT_NEAR(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                               finite.row(), cfg),
              (200.0 + 1e10) * std::tan(std::asin(0.1)), 1e-3);
  // In an immersion object space the sine of the marginal angle is NA / n;
  // an index below 1e-6 is read as air.
  cfg.telecentric_object = 0;
  cfg.aperture_value = 0.5;
  std::vector<double> water = finite.indices;
  water[0] = 1.33;
  double const ep_water = nuvrix_entrance_pupil_position(finite.surfaces.data(), finite.count(),
                                                         water.data(), nuvrix_test::kCookeStop);
  EXPECT_NEAR(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                               water.data(), cfg),
              (200.0 + ep_water) * std::tan(std::asin(0.5 / 1.33)), 1e-12);
  cfg.stop_surface = 1;  // pupil on surface 1, whatever the object index
  water[0] = 0.0;
  EXPECT_NEAR(nuvrix::paraxial_marginal_height(finite.surfaces.data(), finite.count(),
                                               water.data(), cfg),
              200.0 * std::tan(std::asin(0.5)), 1e-12);
}

TEST(Pupils, ChiefRayCrossesTheStopCentre) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig const cfg = config_epd(10.0, nuvrix_test::kCookeStop);
  FieldData const fields[3] = {{0.0, 1, 0}, {-20.0, 1, 0}, {14.0, 1, 0}};
  ParaxialRayState marginal[256], chief[256];
  ParaxialSolveResult const r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(),
                                                      &cfg, fields, 3, marginal, chief);
  EXPECT_NEAR(chief[nuvrix_test::kCookeStop - 1].y, 0.0, 1e-13);
  // The marginal ray enters parallel at the rim of the 10 mm pupil and ends
  // on the image surface near the paraxial focus.
  EXPECT_EQ(marginal[0].y, 5.0);
  int const image_row = sys.count() - 2;
  EXPECT_NEAR(marginal[image_row].y,
              marginal[image_row - 1].y * (r.bfl - 42.20778) / r.bfl, 1e-12);
  // The field of largest magnitude keeps its sign: the chief ray enters at -20 degrees.
  // Its launch height, back-projected, sits at the entrance pupil.
  double const u0 = std::tan(-20.0 * M_PI / 180.0);
  double const y1 = chief[0].y;  // the height at surface 1 (the object is at infinity)
  EXPECT_NEAR(-y1 / u0, r.entrance_pupil_position, 1e-9);
  // The exit pupil is where the chief ray leaving the system crosses the axis.
  int const last = sys.count() - 2;
  EXPECT_NEAR(r.exit_pupil_position, -chief[last].y / chief[last].u, 1e-9);
  // The exit pupil diameter from the marginal ray at that plane.
  EXPECT_NEAR(r.exit_pupil_diameter,
              2.0 * std::fabs(marginal[last].y + r.exit_pupil_position * marginal[last].u), 1e-12);
}

TEST(Pupils, SolveEdgeCases) {
  System const sys = nuvrix_test::cooke_triplet();
  SystemConfig cfg = config_epd(10.0, nuvrix_test::kCookeStop);
  // n < 2: only the entrance pupil diameter.
  ParaxialSolveResult r = nuvrix_paraxial_solve(sys.surfaces.data(), 1, sys.row(), &cfg, nullptr,
                                                0, nullptr, nullptr);
  EXPECT_EQ(r.efl, 0.0);
  EXPECT_EQ(r.exit_pupil_position, 0.0);
  EXPECT_EQ(r.exit_pupil_diameter, 0.0);
  EXPECT_EQ(r.total_length, 0.0);
  EXPECT_EQ(r.entrance_pupil_diameter, 10.0);
  // A stop beyond the surfaces: the exit pupil comes from the chief-ray fallback.
  FieldData const field = {10.0, 1, 0};
  cfg.stop_surface = 20;
  r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(), &cfg, &field, 1, nullptr,
                            nullptr);
  ParaxialRayState chief[256];
  nuvrix::trace_paraxial_ray(sys.surfaces.data(), sys.count(), sys.row(), 0.0,
                             std::tan(10.0 * M_PI / 180.0), chief);
  int const last = sys.count() - 2;
  EXPECT_DOUBLE_EQ(r.exit_pupil_position, -chief[last].y / chief[last].u);
  // The height field type launches no chief slope: no fallback either.
  cfg.field_type = 1;
  r = nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(), &cfg, &field, 1, nullptr,
                            nullptr);
  EXPECT_EQ(r.exit_pupil_position, 0.0);
  // A dummy stop in front of the lens with a negative spacing in air is not part of its length.
  System dummy = nuvrix_test::make_system({0.0, 0.0, 30.0, -30.0, 0.0},
                                          {1e10, -5.0, 4.0, 30.0, 0.0}, {1.0, 1.0, 1.5, 1.0, 1.0});
  cfg = config_epd(10.0, 1);
  r = nuvrix_paraxial_solve(dummy.surfaces.data(), dummy.count(), dummy.row(), &cfg, nullptr, 0,
                            nullptr, nullptr);
  EXPECT_DOUBLE_EQ(r.total_length, 34.0);
  cfg.stop_surface = 2;
  r = nuvrix_paraxial_solve(dummy.surfaces.data(), dummy.count(), dummy.row(), &cfg, nullptr, 0,
                            nullptr, nullptr);
  EXPECT_DOUBLE_EQ(r.total_length, 29.0);
  // A medium of index 1.1 or more behind the stop is not air: its spacing counts.
  cfg.stop_surface = 1;
  dummy.indices[1] = 1.1;
  r = nuvrix_paraxial_solve(dummy.surfaces.data(), dummy.count(), dummy.row(), &cfg, nullptr, 0,
                            nullptr, nullptr);
  EXPECT_DOUBLE_EQ(r.total_length, 29.0);
  // Two surfaces: the exit pupil has no second row to stand on and stays 0,
  // and the pupil diameter is twice the marginal height on the last surface.
  ParaxialRayState rows[2];
  nuvrix::trace_paraxial_ray(sys.surfaces.data(), 2, sys.row(), 5.0, 0.0, rows);
  r = nuvrix_paraxial_solve(sys.surfaces.data(), 2, sys.row(), &cfg, &field, 1, nullptr, nullptr);
  EXPECT_EQ(r.exit_pupil_position, 0.0);
  EXPECT_EQ(r.exit_pupil_diameter, 2.0 * std::fabs(rows[0].y));
  EXPECT_EQ(r.efl, 0.0);
}

TEST(Pupils, SingularMatrixInFrontOfStopDoesNotStopTheTrace) {
  // A plane, 10 mm, a matrix surface, 10 mm, the stop.  The rank-one matrix
  // [1 4; 0 0] has determinant 0; the reversed pass divides by 1e-15 instead
  // and the scale cancels in y / u: leaving the matrix backwards, y / u =
  // (D y + B u) / (C y + A u) = 4, and 10 mm further y / u = 14.
  System sys = nuvrix_test::make_system({0.0, 0.0, 0.0, 0.0, 0.0}, {1e10, 10.0, 10.0, 5.0, 0.0},
                                        {1.0, 1.0, 1.0, 1.0, 1.0});
  sys.surfaces[2].type = NUVRIX_SURFACE_MATRIX;
  double const rank_one[4] = {1.0, 4.0, 0.0, 0.0};
  for (int k = 0; k < 4; ++k) sys.surfaces[2].coefficients[k] = rank_one[k];
  EXPECT_NEAR(nuvrix_entrance_pupil_position(sys.surfaces.data(), 5, sys.row(), 3), 14.0, 1e-12);
  // A nearly singular matrix of negative determinant is held at -1e-15 and
  // gives the same image.
  sys.surfaces[2].coefficients[3] = -1e-17;
  EXPECT_NEAR(nuvrix_entrance_pupil_position(sys.surfaces.data(), 5, sys.row(), 3), 14.0, 1e-12);
  // The zero matrix sends nothing through: the reversed slope vanishes.
  for (int k = 0; k < 4; ++k) sys.surfaces[2].coefficients[k] = 0.0;
  EXPECT_EQ(nuvrix_entrance_pupil_position(sys.surfaces.data(), 5, sys.row(), 3), 0.0);
}

TEST(Paraxial, EndStateKeepsFirstPreviousLastAndTarget) {
  System const sys = nuvrix_test::cooke_triplet();
  int const n = sys.count();
  ParaxialRayState rows[16];
  nuvrix::trace_paraxial_ray(sys.surfaces.data(), n, sys.row(), 2.0, 0.05, rows);
  auto same = [](ParaxialRayState const& a, ParaxialRayState const& b) {
    return a.y == b.y && a.u == b.u && a.nu == b.nu;
  };
  nuvrix::ParaxialEndState e =
      nuvrix::trace_paraxial_end(sys.surfaces.data(), n, sys.row(), 2.0, 0.05, 3);
  EXPECT_EQ(e.row_count, n - 1);
  EXPECT_TRUE(same(e.first, rows[0]));
  EXPECT_TRUE(same(e.last, rows[n - 2]));
  EXPECT_TRUE(same(e.previous, rows[n - 3]));
  ASSERT_TRUE(e.target_found);
  EXPECT_TRUE(same(e.target, rows[3]));
  for (int target : {-1, n - 1}) {
    e = nuvrix::trace_paraxial_end(sys.surfaces.data(), n, sys.row(), 2.0, 0.05, target);
    EXPECT_FALSE(e.target_found);
    EXPECT_EQ(e.target.y, 0.0);
  }
  // One row: first and last are that row, previous stays zero.
  e = nuvrix::trace_paraxial_end(sys.surfaces.data(), 2, sys.row(), 2.0, 0.05, 0);
  EXPECT_EQ(e.row_count, 1);
  EXPECT_TRUE(same(e.first, e.last));
  EXPECT_TRUE(same(e.target, e.last));
  EXPECT_TRUE(e.previous.y == 0.0 && e.previous.u == 0.0 && e.previous.nu == 0.0);
  // No rows: everything zero.
  e = nuvrix::trace_paraxial_end(sys.surfaces.data(), 1, sys.row(), 2.0, 0.05, 0);
  EXPECT_EQ(e.row_count, 0);
  EXPECT_FALSE(e.target_found);
  EXPECT_TRUE(e.first.y == 0.0 && e.last.y == 0.0 && e.last.u == 0.0);
}

TEST(Paraxial, NanPowerAndExactThresholdsFollowEachRoutinesRule) {
  // A thin lens with a NaN focal length has a NaN power: the EFL and BFL,
  // which test |u| > 1e-15, take the sentinel, while the plain focal length,
  // which tests 1e-15 > |u|, lets the NaN through; the solve forms nothing.
  // A lens of power exactly -1e-15 leaves a unit ray with u = 1e-15: again
  // the sentinel, and the solve (unit launch height) forms neither value.
  SystemConfig const unit = config_epd(2.0, 1);
  for (double f : {std::numeric_limits<double>::quiet_NaN(), -1e15}) {
    System const sys = thin_lenses({f}, {20.0});
    SurfaceData const* s = sys.surfaces.data();
    int const n = sys.count();
    ParaxialRayState rows[4];
    nuvrix::trace_paraxial_ray(s, n, sys.row(), 1.0, 0.0, rows);
    EXPECT_TRUE(std::isnan(f) ? std::isnan(rows[0].u) : rows[0].u == 1e-15);
    EXPECT_EQ(nuvrix_calculate_efl(s, n, sys.row()), 1e15);
    EXPECT_EQ(nuvrix_calculate_bfl(s, n, sys.row()), 1e15);
    EXPECT_EQ(Generic(sys).efl(n), 1e15);
    EXPECT_EQ(Generic(sys).bfl(n), 1e15);
    double const plain = nuvrix_focal_length(s, n, sys.row());
    if (std::isnan(f)) {
      EXPECT_TRUE(std::isnan(plain));
    } else {
      EXPECT_NEAR(plain, -(1.0 + 20.0 * 1e-15) / 1e-15, 1.0);
    }
    ParaxialSolveResult const r =
        nuvrix_paraxial_solve(s, n, sys.row(), &unit, nullptr, 0, nullptr, nullptr);
    EXPECT_EQ(r.efl, 0.0);
    EXPECT_EQ(r.bfl, 0.0);
    EXPECT_EQ(r.image_distance, 0.0);
  }
}

TEST(Paraxial, GenericTraceTakesOverridesByTheSurfaceIndex) {
  // Refracting surface, thin lens, matrix surface and a concave mirror.  The
  // generic trace with curvatures, focal lengths and matrices from arrays
  // must equal the plain step on records that carry the same values.
  System sys = nuvrix_test::make_system(
      {0.0, 0.0, 0.0, 0.0, 0.0, 0.0},
      {std::numeric_limits<double>::infinity(), 5.0, 10.0, 20.0, -30.0, 0.0},
      {1.0, 1.5, 1.0, 1.0, 1.0, 1.0});
  sys.surfaces[2].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  sys.surfaces[2].focal_length = 1e300;
  sys.surfaces[3].type = NUVRIX_SURFACE_MATRIX;
  sys.surfaces[3].coefficients[0] = sys.surfaces[3].coefficients[3] = 1.0;
  sys.surfaces[4].is_mirror = 1;
  int const n = sys.count();
  Generic g(sys);
  g.c[1] = 1.0 / 30.0;
  g.c[4] = -1.0 / 100.0;
  double const focal[6] = {0.0, 0.0, 80.0, 0.0, 0.0, 0.0};
  double const abcd[4] = {1.1, 2.0, -0.01, 0.9};
  double matrices[6][8] = {};
  for (int k = 0; k < 4; ++k) matrices[3][k] = abcd[k];

  System rec = sys;
  rec.surfaces[1].curvature = g.c[1];
  rec.surfaces[4].curvature = g.c[4];
  rec.surfaces[2].focal_length = focal[2];
  for (int k = 0; k < 4; ++k) rec.surfaces[3].coefficients[k] = abcd[k];
  ParaxialRayState rows[8];
  double y[8], u[8];
  nuvrix::trace_paraxial_ray(rec.surfaces.data(), n, rec.row(), 3.0, 0.01, rows);
  ASSERT_EQ(g.trace(n, 3.0, 0.01, y, u, focal, matrices), n - 1);
  for (int i = 0; i < n - 1; ++i) {
    EXPECT_EQ(y[i], rows[i].y) << "row " << i;
    EXPECT_EQ(u[i], rows[i].u) << "row " << i;
  }
  // The concave mirror turned the light back.
  EXPECT_LT(rows[3].u * rows[2].u, 0.0);
}

TEST(Paraxial, GenericFormsTooShortAndAfocal) {
  Generic const cooke(nuvrix_test::cooke_triplet());
  EXPECT_EQ(cooke.efl(0), 0.0);
  EXPECT_EQ(cooke.efl(1), 0.0);
  EXPECT_NE(cooke.efl(2), 0.0);
  EXPECT_EQ(cooke.bfl(2), 0.0);
  EXPECT_EQ(cooke.entrance(8, 0), 0.0);
  EXPECT_EQ(cooke.entrance(8, 1), 0.0);
  // The exit pupil needs a stop at surface 1 or later, more than two
  // surfaces and a row at the stop.
  EXPECT_EQ(cooke.exit(8, 0), 0.0);
  EXPECT_EQ(cooke.exit(2, 1), 0.0);
  EXPECT_EQ(cooke.exit(8, 8), 0.0);

  System const scope = thin_lenses({100.0, 25.0}, {125.0, 30.0});
  Generic const g(scope);
  EXPECT_EQ(g.efl(scope.count()), 1e15);
  EXPECT_EQ(g.bfl(scope.count()), 1e15);
  // Focal lengths from the array replace the records': with the eyepiece's
  // power taken away (focal length 0), the objective alone has f = 100 mm.
  double const focal[4] = {0.0, 100.0, 0.0, 0.0};
  EXPECT_NEAR(g.efl(scope.count(), focal), 100.0, 1e-12);
}

TEST(Pupils, EntrancePupilTraceRoundsAsWritten) {
  // The reversed trace from the stop of the Cooke triplet, written out:
  // y += t u and u = (n_a u - p y) / n_b, each product rounded on its own.
  System const sys = nuvrix_test::cooke_triplet();
  double const* idx = sys.row();
  int const stop = nuvrix_test::kCookeStop;
  double y = 0.0, u = 0.1;
  for (int k = stop - 1; k >= 1; --k) {
    y = y + sys.surfaces[k].thickness * u;
    double const p = (idx[k - 1] - idx[k]) * -sys.surfaces[k].curvature;
    u = (idx[k] * u - p * y) / idx[k - 1];
  }
  u = (idx[0] * u - 0.0 * y) / idx[0];
  EXPECT_EQ(nuvrix_entrance_pupil_position(sys.surfaces.data(), sys.count(), idx, stop), y / u);
  EXPECT_EQ(Generic(sys).entrance(sys.count(), stop), y / u);

  // A thin lens of NaN focal length in front of the stop has no power in the
  // reversed pass (only a finite, nonzero focal length counts there), so the
  // pupil is the stop itself, 20 mm behind surface 1.
  System const nan_lens =
      thin_lenses({std::numeric_limits<double>::quiet_NaN(), 1e300}, {20.0, 30.0});
  EXPECT_EQ(nuvrix_entrance_pupil_position(nan_lens.surfaces.data(), nan_lens.count(),
                                           nan_lens.row(), 2),
            20.0);
}
