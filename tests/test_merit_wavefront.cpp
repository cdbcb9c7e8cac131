// The multi-ray merit operands against geometric optics: OPD of a perfect
// and of a defocused focus, the working F-number of an ideal lens from its
// inscribed polygon, the foci of a defocused lens, and the angles of a ray
// at the faces of a plate.
#include <gtest/gtest.h>

#include <cmath>

#include "merit/boundary.hpp"
#include "merit/wavefront_operands.hpp"
#include "tests/opd_systems.hpp"

using namespace opd_test;

namespace {

struct MeritHost {
  System sys;
  SystemConfig cfg;
  std::vector<double> wavelengths;
  nuvrix::MeritContext ctx;
  MeritHost(System s, SystemConfig c, double lambda) : sys(std::move(s)), cfg(c), wavelengths{lambda} {
    ctx = nuvrix::build_context(sys.surfaces.data(), sys.count(), sys.row(), 1, &cfg, nullptr, 0);
  }
  // OPD of the pupil point (px, py) on axis, and whether its ray failed.
  double opd(double px, double py, bool& failed) const {
    MeritOperandDesc op = {};
    op.type = 69;
    op.px = px;
    op.py = py;
    double v = -1.0;
    EXPECT_TRUE(nuvrix::evaluate_opd(op, sys.surfaces.data(), sys.count(), sys.row(), 1,
                                     wavelengths.data(), &cfg, ctx, v, failed, nullptr));
    return v;
  }
};

}  // namespace

// A defocused ideal lens: the cone focuses delta before the image point and
// the reference sphere has the radius of the exit pupil, f + delta.
TEST(MeritOpd, PerfectAndDefocusedFociFollowTheClosedForm) {
  double const f = 100.0, a = 5.0, delta = 0.5, lambda = 0.5;
  MeritHost const s(thin_lens(f, delta), pupil_at_first_surface(a), lambda);
  ASSERT_DOUBLE_EQ(s.ctx.reference_radius, f + delta);
  bool failed = true;
  EXPECT_EQ(s.opd(0.0, 0.0, failed), 0.0);  // the chief ray against itself
  EXPECT_FALSE(failed);
  for (double p : {0.3, -0.7, 1.0}) {
    double const h = a * p, L = std::hypot(f, h);
    double const want = defocus_opd_mm(delta, f / L, std::fabs(h) / L, f + delta) * 1000.0 / lambda;
    EXPECT_NEAR(s.opd(0.0, p, failed), want, kRoundingWaves) << p;
    EXPECT_NEAR(s.opd(p, 0.0, failed), want, kRoundingWaves) << p;
  }
  MeritHost const m(paraboloid(50.0, 0.0), pupil_at_first_surface(10.0), lambda);
  EXPECT_NEAR(m.opd(0.0, 1.0, failed), 0.0, mirror_tolerance(50.0, 10.0, 50.0, lambda));
  EXPECT_FALSE(failed);
  // A pupil point beyond a hard aperture fails its ray.
  System clipped = thin_lens(f, delta);
  clipped.surfaces[1].aperture_radius = 4.0;
  MeritHost const c(clipped, pupil_at_first_surface(a), lambda);
  c.opd(0.0, 1.0, failed);
  EXPECT_TRUE(failed);
}

// On axis the rim of an ideal lens of pupil radius R lies at direction
// cosine r = h / sqrt(f^2 + h^2), h = R (1 - 2^-16) after 16 bisections;
// the azimuths inscribe a regular N-gon of area N/2 sin(2 pi / N) r^2.
TEST(MeritOpd, EffectiveFNumberOfAnIdealLens) {
  double const f = 50.0, a = 5.0;
  MeritHost const s(thin_lens(f, 0.0), pupil_at_first_surface(a), 0.55);
  for (int samples : {3, 36, 1000}) {
    int const N = samples < 8 ? 8 : (samples > 256 ? 256 : samples);
    double const h = a * (1.0 - std::ldexp(1.0, -16)), r = h / std::hypot(f, h);
    double const area = N / 2.0 * std::sin(2.0 * M_PI / N) * r * r;
    double const want = 1.0 / (2.0 * std::sqrt(area / M_PI));
    double const got = nuvrix::compute_effective_fnumber(s.sys.surfaces.data(), s.sys.count(),
                                                         s.sys.row(), &s.cfg, s.ctx, 0.0, samples);
    EXPECT_NEAR(got, want, 1e-12 * want) << samples;
  }
  // Every ray but the chief one clipped: no cone, F-number 1e15.
  System pinhole = thin_lens(f, 0.0);
  pinhole.surfaces[1].aperture_radius = 1e-9;
  MeritHost const p(pinhole, pupil_at_first_surface(a), 0.55);
  EXPECT_EQ(nuvrix::compute_effective_fnumber(p.sys.surfaces.data(), p.sys.count(), p.sys.row(),
                                              &p.cfg, p.ctx, 0.0, 36),
            1e15);
}

// Image plane delta behind the focus of an ideal lens: rays at pupil height
// h = 0.05 R cross it at -h delta / f and carry the cosine -h / sqrt(f^2 +
// h^2), so both foci read -delta sqrt(f^2 + h^2) / f.
TEST(MeritOpd, FociOfADefocusedLens) {
  double const f = 80.0, a = 8.0, delta = 1.5;
  MeritHost const s(thin_lens(f, delta), pupil_at_first_surface(a), 0.55);
  double tangential = 0.0, sagittal = 0.0;
  nuvrix::compute_sag_tan_focus(s.sys.surfaces.data(), s.sys.count(), s.sys.row(), &s.cfg, s.ctx,
                                0.0, tangential, sagittal);
  double const h = 0.05 * a, want = -delta * std::hypot(f, h) / f;
  EXPECT_NEAR(tangential, want, 1e-9);
  EXPECT_NEAR(sagittal, want, 1e-9);
}

// A plate in a parallel beam at 10 degrees: the ray meets its front face at
// 10 degrees and leaves it at asin(sin 10 / n); at the back face the other
// way round.  Extremes and totals over both faces follow.
TEST(MeritBoundary, AnglesOfARayAtThePlateFaces) {
  double const n = 1.5, theta = 10.0;
  System plate = nuvrix_test::make_system({0, 0, 0, 0}, {HUGE_VAL, 5.0, 10.0, 0}, {1, n, 1, 1});
  SystemConfig cfg = pupil_at_first_surface(2.0);
  std::vector<FieldData> const fields = {{theta, 0.0, 0.0}};
  nuvrix::MeritContext const ctx = nuvrix::build_context(plate.surfaces.data(), plate.count(),
                                                         plate.row(), 1, &cfg, fields.data(), 1);
  double const inside = std::asin(std::sin(theta * kDegree) / n) / kDegree;
  auto angle = [&](unsigned code, int first, int last, int lo, double lower, int hi,
                   double upper) {
    MeritOperandDesc op = {};
    op.type = code, op.surface_first = first, op.surface_last = last, op.hy = 1.0, op.py = 0.5;
    op.has_lower = lo, op.lower = lower, op.has_upper = hi, op.upper = upper;
    return code < 99 ? nuvrix::evaluate_angle_boundary(op, plate.surfaces.data(), plate.count(),
                                                       plate.row(), 1, &cfg, ctx)
                     : nuvrix::evaluate_angle_boundary_total(op, plate.surfaces.data(),
                                                             plate.count(), plate.row(), 1, &cfg,
                                                             ctx);
  };
  EXPECT_NEAR(angle(6, 1, 1, 0, 0, 0, 0), theta, 1e-12);   // incidence at the front face
  EXPECT_NEAR(angle(7, 1, 1, 0, 0, 0, 0), inside, 1e-12);  // exit from it
  EXPECT_NEAR(angle(6, 2, 2, 0, 0, 0, 0), inside, 1e-12);
  EXPECT_NEAR(angle(7, 1, 2, 1, 0.0, 0, 0), inside, 1e-12);  // lower bound: the minimum
  EXPECT_NEAR(angle(7, 1, 2, 0, 0.0, 0, 0), theta, 1e-12);   // no lower bound: the maximum
  EXPECT_NEAR(angle(7, 0, 2, 1, 0.0, 0, 0), theta, 1e-12);   // 0 takes the other end
  EXPECT_NEAR(angle(100, 1, 2, 0, 0.0, 1, 5.0), std::hypot(inside - 5.0, theta - 5.0), 1e-12);
  EXPECT_EQ(angle(99, 1, 2, 0, 0.0, 0, 0.0), 0.0);  // no bound, no violation
  // A ray on the axis meets the plane faces along their normals.
  System axial = plate;
  cfg.field_type = 0;
  MeritOperandDesc op = {};
  op.type = 6, op.surface_first = 1, op.surface_last = 2;
  nuvrix::MeritContext const on_axis =
      nuvrix::build_context(axial.surfaces.data(), axial.count(), axial.row(), 1, &cfg, nullptr, 0);
  EXPECT_EQ(nuvrix::evaluate_angle_boundary(op, axial.surfaces.data(), axial.count(), axial.row(),
                                            1, &cfg, on_axis),
            0.0);
}
