// Variables: the bounded transforms against their inverses and a central
// difference of themselves, reads and writes of each kind (with the
// model-glass asymmetry), pickups in order, and the finite-difference steps.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "merit/variable_transform.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

struct Bounds {
  int has_lower;
  double lower;
  int has_upper;
  double upper;
};

MeritVariableDesc variable(unsigned kind, int surface, int coefficient = 0) {
  MeritVariableDesc v = {};
  v.kind = kind;
  v.surface = surface;
  v.coefficient = coefficient;
  return v;
}

}  // namespace

TEST(VariableTransform, RoundTripsDerivativesAndMargins) {
  Bounds const cases[] = {{1, -2.0, 1, 3.0}, {1, 0.5, 0, 0.0}, {0, 0.0, 1, 4.0}, {0, 0.0, 0, 0.0}};
  for (Bounds const& b : cases) {
    for (double x : {-3.0, -0.4, 0.0, 1.7}) {
      double const p = nuvrix::transform_to_physical(x, b.has_lower, b.lower, b.has_upper, b.upper);
      EXPECT_NEAR(nuvrix::transform_to_unbounded(p, b.has_lower, b.lower, b.has_upper, b.upper),
                  x, 1e-9);
      // The derivative against a central difference of the transform itself.
      double const h = 1e-5;
      double const fd =
          (nuvrix::transform_to_physical(x + h, b.has_lower, b.lower, b.has_upper, b.upper) -
           nuvrix::transform_to_physical(x - h, b.has_lower, b.lower, b.has_upper, b.upper)) /
          (2 * h);
      EXPECT_NEAR(nuvrix::transform_jacobian(x, b.has_lower, b.lower, b.has_upper, b.upper), fd,
                  1e-8 * (1 + std::fabs(fd)));
      EXPECT_TRUE(!b.has_lower || p > b.lower);
      EXPECT_TRUE(!b.has_upper || p < b.upper);
    }
  }
  // A value on a bound, or past it, is moved inside by its margin: x stays finite.
  double const top = nuvrix::transform_to_unbounded(3.0, 1, -2.0, 1, 3.0);
  EXPECT_NEAR(top, std::log((1 - 1e-6) / 1e-6), 1e-6);
  EXPECT_EQ(nuvrix::transform_to_unbounded(9.0, 1, -2.0, 1, 3.0), top);
  EXPECT_NEAR(nuvrix::transform_to_unbounded(0.5, 1, 0.5, 0, 0.0), std::log(1e-10), 1e-5);
  EXPECT_NEAR(nuvrix::transform_to_unbounded(4.0, 0, 0.0, 1, 4.0), -std::log(1e-10), 1e-5);
  // Equal bounds pin the value; the inverse hands its argument back.
  EXPECT_EQ(nuvrix::transform_to_physical(7.0, 1, 2.0, 1, 2.0), 2.0);
  EXPECT_EQ(nuvrix::transform_jacobian(7.0, 1, 2.0, 1, 2.0), 1.0);
  EXPECT_EQ(nuvrix::transform_to_unbounded(5.5, 1, 2.0, 1, 2.0), 5.5);
}

TEST(VariableTransform, ReadsWritesAndPickups) {
  System sys = eight_term_asphere();
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {12.0, 0.0, 0.0}};
  SurfaceData* s = sys.surfaces.data();
  int const n = sys.count();
  s[2].model_nd = 1.5;
  s[2].focal_length = 80.0;
  s[1].semi_diameter = 7.0;
  s[1].aperture_percent = 100.0;
  struct Case {
    MeritVariableDesc v;
    double* field;
    double before;
  } const cases[] = {
      {variable(0, 1), &s[1].curvature, 1 / 30.0},     {variable(1, 1), &s[1].thickness, 6.0},
      {variable(2, 1), &s[1].conic, -0.8},             {variable(3, 1, 2), &s[1].coefficients[2], 3e-8},
      {variable(13, 1, 0), &s[1].coefficients[0], 1e-4}, {variable(7, 1), &s[1].semi_diameter, 7.0},
      {variable(8, 1), &s[1].aperture_percent, 100.0}, {variable(12, 2), &s[2].focal_length, 80.0},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(nuvrix::read_variable_value(c.v, s, n, fields.data(), 2), c.before) << c.v.kind;
    EXPECT_TRUE(nuvrix::apply_variable_value(c.v, 0.25, s, n, fields.data(), 2));
    EXPECT_EQ(*c.field, 0.25) << c.v.kind;
  }
  // Model glass is written but reads 0.
  EXPECT_EQ(nuvrix::read_variable_value(variable(9, 2), s, n, fields.data(), 2), 0.0);
  EXPECT_TRUE(nuvrix::apply_variable_value(variable(9, 2), 1.62, s, n, fields.data(), 2));
  EXPECT_EQ(s[2].model_nd, 1.62);
  // The field of kind 4; kinds 5 and 6, bad indices and coefficients write nothing.
  MeritVariableDesc f = variable(4, 99);
  f.field = 1;
  EXPECT_EQ(nuvrix::read_variable_value(f, s, n, fields.data(), 2), 12.0);
  EXPECT_TRUE(nuvrix::apply_variable_value(f, 15.0, s, n, fields.data(), 2));
  EXPECT_EQ(fields[1].field_y, 15.0);
  System const before = sys;
  for (MeritVariableDesc const& v : {variable(5, 1), variable(6, 1), variable(0, n),
                                     variable(0, -1), variable(3, 1, 8), variable(14, 1)}) {
    EXPECT_FALSE(nuvrix::apply_variable_value(v, 3.0, s, n, fields.data(), 2)) << v.kind;
    EXPECT_EQ(nuvrix::read_variable_value(v, s, n, fields.data(), 2), 0.0);
  }
  EXPECT_EQ(std::memcmp(before.surfaces.data(), s, n * sizeof(SurfaceData)), 0);

  // Pickups in order: 2 from 1, then 3 from 2 sees the new value; a pickup
  // of a surface onto itself, kind 2 and a bad surface do nothing.
  s[1].curvature = 0.02;
  MeritPickupDesc const pickups[] = {{2, 1, 0, -1.0, 0.001}, {3, 2, 0, 2.0, 0.0},
                                     {1, 1, 0, 5.0, 1.0},    {3, 1, 2, 5.0, 1.0},
                                     {3, 9, 1, 5.0, 1.0},    {2, 1, 4, 0.5, 0.0}};
  nuvrix::apply_pickups(s, n, pickups, 6);
  EXPECT_EQ(s[2].curvature, std::fma(-1.0, 0.02, 0.001));
  EXPECT_EQ(s[3].curvature, 2.0 * s[2].curvature);
  EXPECT_EQ(s[1].curvature, 0.02);
  EXPECT_EQ(s[2].conic, 0.5 * s[1].conic);
}

TEST(VariableTransform, FiniteDifferenceSteps) {
  System sys = eight_term_asphere();
  SurfaceData* s = sys.surfaces.data();
  int const n = sys.count();
  // Default: 1e-6 |x| with a floor of 1e-8.
  EXPECT_DOUBLE_EQ(nuvrix::fd_step(variable(0, 1), 250.0, s, n), 2.5e-4);
  EXPECT_EQ(nuvrix::fd_step(variable(0, 1), 1e-3, s, n), 1e-8);
  // Aspheric coefficients follow the height of the surface: 1e-7 / r^(2c + 2).
  s[1].semi_diameter = 0.5;
  EXPECT_EQ(nuvrix::fd_step(variable(3, 1, 1), 0.0, s, n), 1e-7);
  s[1].semi_diameter = 10.0;
  EXPECT_DOUBLE_EQ(nuvrix::fd_step(variable(3, 1, 1), 0.0, s, n), 1e-11);
  EXPECT_EQ(nuvrix::fd_step(variable(3, 7, 1), 0.0, s, n), 1e-7);        // no such surface
  EXPECT_EQ(nuvrix::fd_step(variable(13, 1, 1), 0.0, s, n), 1e-8);       // kind 13: the default
  MeritVariableDesc bounded = variable(3, 1, 1);
  bounded.has_lower = bounded.has_upper = 1, bounded.lower = -1.0, bounded.upper = 1.0;
  EXPECT_EQ(nuvrix::fd_step(bounded, 0.0, s, n), 1e-8);
  // Semi-diameters and percentages: 5 % of the physical value, at least
  // 0.2 mm or 2 %, over the transform's derivative.
  EXPECT_EQ(nuvrix::fd_step(variable(7, 1), 1.0, s, n), 0.2);
  EXPECT_DOUBLE_EQ(nuvrix::fd_step(variable(7, 1), 20.0, s, n), 1.0);
  EXPECT_EQ(nuvrix::fd_step(variable(8, 1), 10.0, s, n), 2.0);
  MeritVariableDesc above = variable(7, 1);
  above.has_lower = 1, above.lower = 2.0;
  double const x = std::log(8.0);  // physical 10, derivative 8
  EXPECT_DOUBLE_EQ(nuvrix::fd_step(above, x, s, n), 0.5 / 8.0);
}
