// Field analyses against optics worked out here: the ideal thin lens maps
// ray tangents exactly (no distortion, a flat field, cos^4 illumination), a
// plano-convex singlet traced by an independent meridional tracer below
// (distortion, lateral colour), Coddington's thin-lens foci, and the working
// F-number of a 24-gon inscribed in the image-space pupil.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "analysis/field_analyses.hpp"
#include "tests/systems.hpp"

using nuvrix_test::System;

namespace {

double const kDeg = M_PI / 180.0;
// A regular 24-gon inscribed in a circle covers 12 sin(15 deg) / pi of it.
double const k24gon = std::sqrt(12.0 * std::sin(M_PI / 12.0) / M_PI);  // 0.99429

SystemConfig config(int stop, double epd, int field_type = 0) {
  SystemConfig c = {};
  c.field_type = field_type;
  c.aperture_value = epd;
  c.stop_surface = stop;
  return c;
}

// Ideal lens of focal length f, a plane dummy d in front of it (none when
// d is 0), and the image plane f + defocus behind it.
System thin_lens(double f, double d = 0.0, double defocus = 0.0) {
  System s = d > 0.0
                 ? nuvrix_test::make_system({0, 0, 0, 0}, {1e10, d, f + defocus, 0}, {1, 1, 1, 1})
                 : nuvrix_test::make_system({0, 0, 0}, {1e10, f + defocus, 0}, {1, 1, 1});
  SurfaceData& lens = s.surfaces[d > 0.0 ? 2 : 1];
  lens.type = NUVRIX_SURFACE_PARAXIAL_LENS;
  lens.focal_length = f;
  return s;
}

// Plano-convex singlet, curved side first: stop plane, 20 mm of air, R 50,
// 5 mm of glass, image plane at the paraxial focus; one index row per glass.
double const kPcR = 50.0, kPcT = 5.0, kPcGap = 20.0, kPcN = 1.5168;
double pc_bfl() { return kPcR / (kPcN - 1.0) - kPcT / kPcN; }
System plano_convex(std::vector<double> const& glass) {
  System s = nuvrix_test::make_system({0, 0, kPcR, 0, 0}, {1e10, kPcGap, kPcT, pc_bfl(), 0},
                                      {1, 1, glass[0], 1, 1});
  s.indices.clear();
  for (double n : glass) s.indices.insert(s.indices.end(), {1, 1, n, 1, 1});
  return s;
}

// Meridional vector refraction of direction (m, n) at unit normal (ny, nz).
void refract(double& m, double& n, double ny, double nz, double mu) {
  double const ci = -(m * ny + n * nz), ct = std::sqrt(1.0 - mu * mu * (1.0 - ci * ci));
  m = mu * m + (mu * ci - ct) * ny;
  n = mu * n + (mu * ci - ct) * nz;
}

// Image height of the plano-convex chief ray at angle theta, traced here.
double pc_chief_height(double theta, double n_glass) {
  double m = std::sin(theta), n = std::cos(theta);
  double const zc = kPcGap + kPcR, b = -zc * n, c = zc * zc - kPcR * kPcR;
  double const t = -b - std::sqrt(b * b - c);
  double y = t * m, z = t * n;
  refract(m, n, y / kPcR, (z - zc) / kPcR, 1.0 / n_glass);
  y += (kPcGap + kPcT - z) * m / n;
  refract(m, n, 0.0, -1.0, n_glass);
  return y + pc_bfl() * m / n;
}

std::vector<FieldCurvatureDistortionPoint> fcd(System const& s, SystemConfig const& c, int count,
                                               double max_field) {
  std::vector<FieldCurvatureDistortionPoint> p(count + 1);
  FieldCurvatureDistortionResult r = {};
  EXPECT_EQ(nuvrix_compute_field_curvature_distortion(s.surfaces.data(), s.count(), s.row(), &c,
                                                      nullptr, 0, count, max_field, p.data(), &r),
            0);
  EXPECT_EQ(r.point_count, count + 1);
  return p;
}

std::vector<RelativeIlluminationPoint> ri(System const& s, SystemConfig const& c, int count,
                                          double max_field) {
  std::vector<RelativeIlluminationPoint> p(count + 1);
  RelativeIlluminationResult r = {};
  EXPECT_EQ(nuvrix_compute_relative_illumination(s.surfaces.data(), s.count(), s.row(), &c, count,
                                                 max_field, 0, p.data(), &r),
            0);
  EXPECT_EQ(r.point_count, count + 1);
  return p;
}

double fnum(System const& s, SystemConfig const& c, double field, double ep = 0.0) {
  return nuvrix::compute_effective_fnum_at_field(s.surfaces.data(), s.count(), s.row(), &c, field,
                                                 c.aperture_value / 2, ep, 0, 0.0);
}

// F-number of the 24-gon inscribed in the pupil of an ideal lens f whose rim
// ray leaves at height h (tangent h / f).
double polygon_fnum(double h, double f) {
  return 1.0 / (2.0 * (h / f) / std::sqrt(1.0 + h * h / (f * f)) * k24gon);
}

int lateral_color(System const& s, int rows, int count, double max_field, LateralColorPoint* p,
                  int capacity, LateralColorResult* r, int primary = 0) {
  SystemConfig c = config(1, 8.0);
  c.primary_wavelength = primary;
  return nuvrix_compute_lateral_color(s.surfaces.data(), s.count(), s.indices.data(), rows, &c,
                                      nullptr, 0, count, max_field, p, capacity, r);
}

}  // namespace

TEST(Distortion, IdealLensIsDistortionFreeAndFlatForAnyStop) {
  // The lens maps tangents: with the stop on it or 20 mm ahead the chief ray
  // lands at f tan(field), and every pencil focuses on the focal plane.
  for (double ahead : {0.0, 20.0}) {
    auto const p = fcd(thin_lens(50.0, ahead), config(1, 10.0), 4, 20.0);
    for (int i = 0; i <= 4; ++i) {
      EXPECT_DOUBLE_EQ(p[i].field, 5.0 * i);
      EXPECT_NEAR(p[i].real_height, 50.0 * std::tan(p[i].field * kDeg), 1e-12);
      EXPECT_NEAR(p[i].paraxial_height, 50.0 * std::tan(p[i].field * kDeg), 1e-12);
      EXPECT_NEAR(p[i].distortion_percent, 0.0, i ? 1e-11 : 0.0);
      EXPECT_NEAR(p[i].tangential_focus, 0.0, 1e-9);
      EXPECT_NEAR(p[i].sagittal_focus, 0.0, 1e-9);
    }
  }
}

TEST(Distortion, StopBeforePositiveSingletIsBarrelAndHeightFieldUsesTangent) {
  double const efl = kPcR / (kPcN - 1.0);  // the flat back face adds no power
  auto const p = fcd(plano_convex({kPcN}), config(1, 8.0), 4, 20.0);
  EXPECT_TRUE(p[0].distortion_percent == 0.0 && p[0].paraxial_height == 0.0);
  for (int i = 1; i <= 4; ++i) {
    double const th = p[i].field * kDeg, y = pc_chief_height(th, kPcN);
    EXPECT_NEAR(p[i].real_height, y, 1e-10);
    EXPECT_NEAR(p[i].paraxial_height, efl * std::tan(th), 1e-10);
    EXPECT_NEAR(p[i].distortion_percent, (y / (efl * std::tan(th)) - 1.0) * 100.0, 1e-9);
    EXPECT_LT(p[i].distortion_percent, p[i - 1].distortion_percent);  // barrel, growing
  }
  // Object height field, 100 mm before an f = 50 lens: 10 mm images at
  // -10 mm, while the ideal height is still tan(10 deg) EFL.
  System s = thin_lens(50.0, 0.0, 50.0);
  s.surfaces[0].thickness = 100.0;
  auto const q = fcd(s, config(1, 10.0, 1), 2, 10.0);
  double const ideal = 50.0 * std::tan(10.0 * kDeg);
  EXPECT_NEAR(q[2].real_height, -10.0, 1e-12);
  EXPECT_NEAR(q[2].paraxial_height, ideal, 1e-12);
  EXPECT_NEAR(q[2].distortion_percent, (-10.0 / ideal - 1.0) * 100.0, 1e-10);
}

TEST(FieldCurvature, DefocusedIdealLensCrossesBeforeThePlane) {
  // Image plane 0.5 mm beyond the focus of f = 50, probe height h = 0.25:
  // the focus of each pair of rays, measured along the chief ray.
  double const f = 50.0, h = 0.05 * 5.0, dz = 0.5;
  auto const p = fcd(thin_lens(f, 0.0, dz), config(1, 10.0), 2, 20.0);
  EXPECT_NEAR(p[0].tangential_focus, -dz * std::sqrt(1.0 + h * h / (f * f)), 1e-10);
  EXPECT_NEAR(p[0].sagittal_focus, p[0].tangential_focus, 1e-12);
  for (int i = 1; i <= 2; ++i) {
    double const T = std::tan(p[i].field * kDeg);
    double const t1 = T - h / f, t2 = T + h / f;
    double const dm = t1 / std::sqrt(1 + t1 * t1) - t2 / std::sqrt(1 + t2 * t2);
    EXPECT_NEAR(p[i].tangential_focus, (2.0 * h * dz / f) / dm, 1e-10);
    EXPECT_NEAR(p[i].sagittal_focus, -dz * std::sqrt(1.0 + h * h / (f * f) + T * T), 1e-10);
  }
}

TEST(FieldCurvature, ThinSingletFollowsCoddington) {
  // Equiconvex R 100, 2 mm, stop on the front face, image at paraxial focus.
  // Stop at the lens: sagittal (n + 1) / (n f), tangential (3n + 1) / (n f),
  // times y'^2 / 2, along the chief ray (1 / cos; tangentially 1 / cos^3).
  double const n = 1.5168, t = 2.0, p1 = (n - 1.0) / 100.0;
  double const phi = 2.0 * p1 - t / n * p1 * p1, f = 1.0 / phi, bfl = (1.0 - t / n * p1) / phi;
  System const s = nuvrix_test::make_system({0, 100.0, -100.0, 0}, {1e10, t, bfl, 0}, {1, n, 1, 1});
  auto const p = fcd(s, config(1, 10.0), 1, 5.0);
  EXPECT_NEAR(p[0].tangential_focus, p[0].sagittal_focus, 1e-12);
  EXPECT_NEAR(p[0].tangential_focus, 0.0, 2e-3);  // spherical aberration of the 0.05 zone
  double const c = std::cos(5.0 * kDeg), y = f * std::tan(5.0 * kDeg);
  EXPECT_NEAR(p[1].sagittal_focus / (-(n + 1.0) / (n * f) * y * y / 2.0 / c), 1.0, 0.1);
  EXPECT_NEAR(p[1].tangential_focus / (-(3.0 * n + 1.0) / (n * f) * y * y / 2.0 / (c * c * c)),
              1.0, 0.1);
}

TEST(FieldCurvature, BlockedChiefRayLeavesFieldAndZeros) {
  // A hard radius of 2 on a plane 10 mm behind an f = 50 lens stops the
  // chief rays of 15 and 20 deg (heights 10 tan > 2.01 there).
  System s = nuvrix_test::make_system({0, 0, 0, 0}, {1e10, 10.0, 40.0, 0}, {1, 1, 1, 1});
  s.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  s.surfaces[1].focal_length = 50.0;
  s.surfaces[2].aperture_radius = 2.0;
  auto const p = fcd(s, config(1, 10.0), 4, 20.0);
  EXPECT_NEAR(p[2].real_height, 50.0 * std::tan(10.0 * kDeg), 1e-12);
  for (int i = 3; i <= 4; ++i) {
    EXPECT_EQ(p[i].field, 5.0 * i);
    EXPECT_TRUE(p[i].tangential_focus == 0 && p[i].sagittal_focus == 0 &&
                p[i].distortion_percent == 0 && p[i].real_height == 0 && p[i].paraxial_height == 0);
  }
}

TEST(LateralColor, SingletShiftsAgainstPrimaryChiefRay) {
  // Rows C, d (primary, in the middle) and F of a crown; the axis is not
  // sampled, and the stronger blue lens pulls the chief ray lower.
  double const nC = 1.51432, nF = 1.52238;
  std::vector<LateralColorPoint> p(8);
  LateralColorResult r = {};
  ASSERT_EQ(lateral_color(plano_convex({nC, kPcN, nF}), 3, 4, 20.0, p.data(), 8, &r, 1), 0);
  ASSERT_EQ(r.point_count, 8);
  double largest = 0.0;
  for (int k = 0; k < 8; ++k) {
    double const th = 5.0 * (k / 2 + 1) * kDeg;
    EXPECT_DOUBLE_EQ(p[k].field, 5.0 * (k / 2 + 1));
    EXPECT_EQ(p[k].wavelength_index, k % 2 ? 2 : 0);
    EXPECT_NEAR(p[k].shift, pc_chief_height(th, k % 2 ? nF : nC) - pc_chief_height(th, kPcN),
                1e-10);
    EXPECT_TRUE(k % 2 ? p[k].shift < 0.0 : p[k].shift > 0.0);
    largest = std::fmax(largest, std::fabs(p[k].shift));
  }
  EXPECT_EQ(r.max_abs_shift, largest);
}

TEST(LateralColor, ColourFreeOneWavelengthFullCapacityAndBadArguments) {
  System const same = plano_convex({kPcN, kPcN, kPcN});
  std::vector<LateralColorPoint> p(10);
  LateralColorResult r = {};
  ASSERT_EQ(lateral_color(same, 3, 4, 20.0, p.data(), 10, &r), 0);
  EXPECT_TRUE(r.point_count == 8 && r.max_abs_shift == 0.0);
  for (int k = 0; k < 8; ++k) EXPECT_EQ(p[k].shift, 0.0);
  r = {-7, -7.0};
  ASSERT_EQ(lateral_color(same, 1, 4, 20.0, p.data(), 10, &r), 0);  // one wavelength
  EXPECT_TRUE(r.point_count == 0 && r.max_abs_shift == 0.0);
  // Capacity 3: fields 5 (rows 1, 2) and 10 (row 1), then nothing more.
  p.assign(10, LateralColorPoint{-1.0, -1.0, -1});
  ASSERT_EQ(lateral_color(same, 3, 4, 20.0, p.data(), 3, &r), 0);
  EXPECT_EQ(r.point_count, 3);
  EXPECT_TRUE(p[1].field == 5.0 && p[1].wavelength_index == 2);
  EXPECT_TRUE(p[2].field == 10.0 && p[2].wavelength_index == 1 && p[3].wavelength_index == -1);
  for (auto bad : {std::make_pair(0, 20.0), std::make_pair(4, 0.0), std::make_pair(4, -5.0)}) {
    r = {-7, -7.0};
    EXPECT_EQ(lateral_color(same, 3, bad.first, bad.second, p.data(), 10, &r), -1);
    EXPECT_TRUE(r.point_count == -7 && r.max_abs_shift == -7.0);
  }
}

TEST(EffectiveFNumber, AberrationFreeAxisGivesInscribedPolygon) {
  // f / 5 on the axis, the bisection stopping 2^-16 inside the rim: the rim
  // ray of an ideal lens leaves with tangent h / f, that of a paraboloid
  // with sine h / (f + h^2 / 4f).
  double const f = 50.0, h = 5.0 * (1.0 - std::ldexp(1.0, -16));
  double const lens = fnum(thin_lens(f), config(1, 10.0), 0.0);
  EXPECT_NEAR(lens / polygon_fnum(h, f), 1.0, 1e-12);
  double const mirror = fnum(nuvrix_test::parabolic_mirror(f), config(1, 10.0), 0.0);
  EXPECT_NEAR(mirror * 2.0 * k24gon * h / (f + h * h / (4.0 * f)), 1.0, 1e-12);
}

TEST(EffectiveFNumber, ClippedStopAndDegeneratePupils) {
  // f = 500 (slow): a hard radius of 3 on the lens passes rays up to
  // 3 sqrt(1.01); a stop below the finest probe and a powerless lens leave
  // a point pupil, 1e15.
  double const f = 500.0, edge = 3.0 * std::sqrt(1.01);
  System s = thin_lens(f);
  double const open = fnum(s, config(1, 10.0), 0.0);
  s.surfaces[1].aperture_radius = 3.0;
  double const clipped = fnum(s, config(1, 10.0), 0.0);
  EXPECT_LE(clipped, polygon_fnum(edge - 5.0 * std::ldexp(1.0, -16), f) * (1 + 1e-12));
  EXPECT_GE(clipped, polygon_fnum(edge, f) * (1 - 1e-12));
  EXPECT_NEAR(open * open / (clipped * clipped), 1.01 * 9.0 / 25.0, 1e-4);  // (r_clip / r)^2
  s.surfaces[1].aperture_radius = 1e-6;
  EXPECT_EQ(fnum(s, config(1, 10.0), 0.0), 1e15);
  s.surfaces[1].aperture_radius = 0.0;
  s.surfaces[1].focal_length = 0.0;
  EXPECT_EQ(fnum(s, config(1, 10.0), 10.0), 1e15);
}

TEST(RelativeIllumination, IdealLensFollowsCosineFourth) {
  // (l, m) against the tangents: d l = cos dt_x, d m = cos^3 dt_y.
  auto const p = ri(thin_lens(200.0), config(1, 10.0), 2, 20.0);
  EXPECT_EQ(p[0].illumination, 1.0);
  for (int i = 1; i <= 2; ++i)
    EXPECT_NEAR(p[i].illumination, std::pow(std::cos(p[i].field * kDeg), 4), 2e-3);
}

TEST(RelativeIllumination, VignettingByPolygonAreaAndFullLoss) {
  // f = 100, stop on the lens, 20 mm ahead a hard radius 5: at field theta
  // the pupil is the unit disc within the circle of radius 5.025 / 5 about
  // (0, 20 tan / 5); the illumination is the ratio of 24-gon areas in
  // direction-cosine space.  At 30 deg the chief ray is lost.
  double const f = 100.0, R = 5.0, d = 20.0, a = 5.0 * std::sqrt(1.01) / R;
  System s = thin_lens(f, d);
  s.surfaces[1].aperture_radius = 5.0;
  SystemConfig const c = config(2, 2.0 * R);
  auto const area = [&](double theta) {
    double const T = std::tan(theta), cy = d * T / R;
    double l[24], m[24], sum = 0.0;
    for (int k = 0; k < 24; ++k) {
      double const ca = std::cos(k * M_PI / 12), sa = std::sin(k * M_PI / 12);
      double const r = std::fmin(1.0, cy * sa + std::sqrt(a * a - cy * cy * ca * ca));
      double const tx = -r * ca * R / f, ty = T - r * sa * R / f;
      double const w = std::sqrt(1 + tx * tx + ty * ty);
      l[k] = tx / w;
      m[k] = ty / w - T / std::sqrt(1 + T * T);
    }
    for (int k = 0; k < 24; ++k) sum += l[k] * m[(k + 1) % 24] - m[k] * l[(k + 1) % 24];
    return 0.5 * std::fabs(sum);
  };
  auto const p = ri(s, c, 6, 30.0);
  EXPECT_EQ(p[0].illumination, 1.0);
  EXPECT_NEAR(p[1].illumination, area(5.0 * kDeg) / area(0.0), 2e-4);
  EXPECT_LT(p[1].illumination, std::pow(std::cos(5.0 * kDeg), 4) - 0.05);
  EXPECT_EQ(fnum(s, c, 30.0, d), -1.0);
  EXPECT_EQ(p[6].illumination, 0.0);
}
