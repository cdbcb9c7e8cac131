// The context of a merit evaluation against the first-order exports and the
// formulas of its aperture types; symbolic surface references; the exact
// search of the pre-traced ray table.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <vector>

#include "merit/merit_context.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

// The Cooke triplet with a second index row whose glasses are denser, so
// that row 0 and row 1 have different pupils; stop on surface 4.
struct TwoRows {
  System sys = cooke_triplet();
  SystemConfig cfg = {};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {-14.0, 0.0, 3.0}, {10.0, 0.0, -5.0}};
  TwoRows() {
    int const n = sys.count();
    for (int k = 0; k < n; ++k) {
      double const v = sys.indices[k];
      sys.indices.push_back(v > 1.0 ? v + 0.05 : v);
    }
    cfg.stop_surface = kCookeStop;
    cfg.aperture_value = 12.5;
  }
  nuvrix::MeritContext context() const {
    return nuvrix::build_context(sys.surfaces.data(), sys.count(), sys.indices.data(), 2, &cfg,
                                 fields.data(), static_cast<int>(fields.size()));
  }
  ParaxialSolveResult solve(int row) const {
    return nuvrix_paraxial_solve(sys.surfaces.data(), sys.count(), sys.row(row), &cfg,
                                 fields.data(), static_cast<int>(fields.size()), nullptr, nullptr);
  }
};

}  // namespace

TEST(MeritContext, FirstOrderValuesComeFromTheirRows) {
  TwoRows t;
  t.cfg.primary_wavelength = 1;
  nuvrix::MeritContext c = t.context();
  // Exit pupil of row 0 whatever the primary row; the reference sphere of the primary row.
  EXPECT_EQ(c.exit_pupil_position, t.solve(0).exit_pupil_position);
  EXPECT_EQ(c.exit_pupil_diameter, t.solve(0).exit_pupil_diameter);
  EXPECT_EQ(c.reference_radius, std::fabs(t.solve(1).exit_pupil_position));
  EXPECT_NE(t.solve(0).exit_pupil_position, t.solve(1).exit_pupil_position);
  EXPECT_EQ(c.reference_curvature, -1.0 / c.reference_radius);
  EXPECT_EQ(c.entrance_pupil_position,
            nuvrix_entrance_pupil_position(t.sys.surfaces.data(), t.sys.count(), t.sys.row(1), 4));
  EXPECT_EQ(c.pupil_radius, 6.25);
  EXPECT_EQ(c.max_field_y, 14.0);
  EXPECT_EQ(c.max_field_x, 5.0);
  EXPECT_TRUE(c.object_at_infinity);  // 1e10 is infinite here
  EXPECT_FALSE(c.aim_enabled || c.aim_flag);
  EXPECT_EQ(c.aim_stop_radius_value, 0.0);

  // An out-of-range primary takes row 0; aiming fills the stop radius.
  t.cfg.primary_wavelength = 7;
  t.cfg.ray_aiming = 2;
  c = t.context();
  EXPECT_EQ(c.reference_radius, std::fabs(t.solve(0).exit_pupil_position));
  EXPECT_TRUE(c.aim_enabled && c.aim_flag);
  EXPECT_GT(c.aim_stop_radius_value, 0.0);

  // No field above zero: both maxima stay 0.
  t.fields = {{0.0, 0.0, -0.0}};
  EXPECT_EQ(t.context().max_field_y + t.context().max_field_x, 0.0);
}

TEST(MeritContext, PupilRadiusOfEachApertureType) {
  TwoRows t;
  t.cfg.aperture_type = 1;  // F-number 4: |EFL| / 8
  double const efl = nuvrix_calculate_efl(t.sys.surfaces.data(), t.sys.count(), t.sys.row(0));
  t.cfg.aperture_value = 4.0;
  EXPECT_NEAR(t.context().pupil_radius, std::fabs(efl) / 8.0, 1e-14 * efl);
  // Numerical aperture 0.1 of a finite object 100 mm in front of a pupil on surface 1.
  System relay = finite_relay();
  SystemConfig na = {};
  na.aperture_type = 2;
  na.aperture_value = 0.1;
  na.stop_surface = 1;
  nuvrix::MeritContext c =
      nuvrix::build_context(relay.surfaces.data(), relay.count(), relay.row(), 1, &na, nullptr, 0);
  EXPECT_DOUBLE_EQ(c.pupil_radius, 60.0 * 0.1 / std::sqrt(0.99));
  EXPECT_FALSE(c.object_at_infinity);
  // At or above the index the sine is held at 0.999999.
  na.aperture_value = 1.5;
  c = nuvrix::build_context(relay.surfaces.data(), relay.count(), relay.row(), 1, &na, nullptr, 0);
  EXPECT_DOUBLE_EQ(c.pupil_radius, 60.0 * 0.999999 / std::sqrt(1.0 - 0.999999 * 0.999999));
  // A telecentric object puts the pupil 1e10 away.
  na.aperture_value = 0.1;
  na.telecentric_object = 1;
  c = nuvrix::build_context(relay.surfaces.data(), relay.count(), relay.row(), 1, &na, nullptr, 0);
  EXPECT_DOUBLE_EQ(c.pupil_radius, (60.0 + 1e10) * 0.1 / std::sqrt(0.99));
  // A system of one surface has no focal length: radius 0 for an F-number.
  SystemConfig f = {};
  f.aperture_type = 1;
  c = nuvrix::build_context(relay.surfaces.data(), 1, relay.row(), 1, &f, nullptr, 0);
  EXPECT_EQ(c.pupil_radius, 0.0);
}

TEST(MeritContext, SymbolicSurfaceReferences) {
  int const n = 9, stop = 4;
  struct Case {
    int ref, other, want;
  } const cases[] = {{-5, 7, 1}, {-4, 7, 4}, {-3, 7, 5}, {-2, 7, 8}, {-1, 7, 7},
                     {0, 6, 6},  {-6, 7, 0}, {-99, 7, 0}, {3, 7, 3}};
  for (Case const& c : cases) {
    EXPECT_EQ(nuvrix::resolve_surface_ref(c.ref, n, stop, c.other), c.want) << c.ref;
  }
  // The surface behind a stop named at the largest int lies beyond any array.
  EXPECT_EQ(nuvrix::resolve_surface_ref(-3, n, INT_MAX, 0), INT_MAX);
  int a = -1, b = -1;
  nuvrix::resolve_surface_range(-3, 0, n, stop, a, b);  // both symbolic: 0 is surface 0
  EXPECT_EQ(a, 5);
  EXPECT_EQ(b, 0);
  nuvrix::resolve_surface_range(0, 6, n, stop, a, b);  // 0 takes the other end
  EXPECT_EQ(a, 6);
  EXPECT_EQ(b, 6);
}

TEST(MeritContext, PreTracedRaysMatchExactlyAndFirstWins) {
  double const hy[3] = {0.5, 0.5, 0.5}, px[3] = {0.0, 0.1, 0.1}, py[3] = {1.0, NAN, 1.0};
  int const wave[3] = {0, 0, 0}, kind[3] = {1, 1, 1}, surface[3] = {0, 0, 0};
  nuvrix::PreTracedRays t = {};
  t.hy_values = hy, t.wave_indices = wave, t.px_values = px, t.py_values = py;
  t.ray_kinds = kind, t.surface_indices = surface, t.count = 3;
  EXPECT_EQ(nuvrix::pretraced_find(t, 0.5, 0, 0.0, 1.0, 1, 0), 0);
  EXPECT_EQ(nuvrix::pretraced_find(t, 0.5, 0, 0.1, 1.0, 1, 0), 2);
  EXPECT_EQ(nuvrix::pretraced_find(t, 0.5, 0, 0.1, NAN, 1, 0), -1);  // NaN never matches
  EXPECT_EQ(nuvrix::pretraced_find(t, 0.5, 0, 0.0, std::nextafter(1.0, 2.0), 1, 0), -1);
  EXPECT_EQ(nuvrix::pretraced_find(t, 0.5, 0, 0.0, 1.0, 0, 0), -1);  // another kind
  nuvrix::PreTracedRays const empty = {};  // no arrays at all: never read
  EXPECT_EQ(nuvrix::pretraced_find(empty, 0.5, 0, 0.0, 1.0, 1, 0), -1);
}
