// Boundary operands on hand-built ranges: the quantity of each family, the
// surfaces each family takes, and every row of the selection of the extreme
// form, against values worked out here from the prescription.
#include <gtest/gtest.h>

#include <cmath>

#include "merit/boundary.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

// Object, a biconvex glass element, an air gap, a meniscus glass element,
// the image: curvatures, thicknesses, semi-diameters and glass flags chosen
// so that every family has a distinct extreme.
struct Range {
  System sys;
  SystemConfig cfg = {};
  Range() {
    sys = make_system({0.0, 40.0, -60.0, 25.0, 50.0, 0.0}, {INFINITY, 6.0, 1e10, 4.0, 30.0, 0.0},
                      {1.0, 1.5, 1.0, 1.6, 1.0, 1.0});
    double const sd[6] = {0.0, 10.0, 9.0, 8.0, 7.5, 0.0};
    for (int k = 0; k < 6; ++k) sys.surfaces[k].semi_diameter = sd[k];
    sys.surfaces[1].is_glass = sys.surfaces[3].is_glass = 1;
    cfg.stop_surface = 2;
  }
  double extreme(unsigned code, int first, int last, int lo = 0, double lower = 0.0, int hi = 0,
                 double upper = 0.0) const {
    MeritOperandDesc op = describe(code, first, last, lo, lower, hi, upper);
    return nuvrix::evaluate_boundary(op, sys.surfaces.data(), sys.count(), &cfg);
  }
  double total(unsigned code, int first, int last, int lo, double lower, int hi,
               double upper) const {
    MeritOperandDesc op = describe(code, first, last, lo, lower, hi, upper);
    return nuvrix::evaluate_boundary_total(op, sys.surfaces.data(), sys.count(), &cfg);
  }
  static MeritOperandDesc describe(unsigned code, int first, int last, int lo, double lower,
                                   int hi, double upper) {
    MeritOperandDesc op = {};
    op.type = code;
    op.surface_first = first;
    op.surface_last = last;
    op.has_lower = lo;
    op.lower = lower;
    op.has_upper = hi;
    op.upper = upper;
    return op;
  }
};

double sphere_sag(double R, double h) { return R - std::copysign(std::sqrt(R * R - h * h), R); }

}  // namespace

TEST(MeritBoundary, QuantitiesOfEachFamilyOverTheSurfacesTheyTake) {
  Range const r;
  // Edge thickness of the first element at the larger semi-diameter, 10.
  double const edge1 = 6.0 - sphere_sag(40.0, 10.0) + sphere_sag(-60.0, 10.0);
  double const edge3 = 4.0 - sphere_sag(25.0, 8.0) + sphere_sag(50.0, 8.0);
  double const edge2 = 1e10 - sphere_sag(-60.0, 9.0) + sphere_sag(25.0, 9.0);
  double const edge4 = 30.0 - sphere_sag(50.0, 7.5);
  struct Case {
    unsigned code;
    int first, last;
    double want;
  } const cases[] = {
      {37, 1, 4, (1 / 25.0 - 1 / 60.0) / 2},  // midpoint of the curvature extremes
      {38, 1, 4, (-1 / 60.0 + 1 / 50.0) / 2},  // air surfaces 2 and 4
      {39, 1, 4, (1 / 40.0 + 1 / 25.0) / 2},   // glass surfaces 1 and 3
      {40, 1, 4, (4.0 + 1e10) / 2},            // 1e10 is a thickness like any other
      {42, 1, 4, (6.0 + 4.0) / 2},
      {43, 1, 3, (std::fmin(edge1, edge3) + std::fmax(edge2, edge1)) / 2},
      {45, 1, 4, (edge1 + edge3) / 2},
      {43, 4, 5, edge4},  // the image has no neighbour behind it: the scan stops at 4
      {46, 1, 4, (7.5 + 10.0) / 2},
      {47, 1, 4, (20.0 / 6.0 + 16.0 / 4.0) / 2},  // aspect of glass surfaces only
      {47, 2, 2, 0.0},                            // no glass surface in the range
      {36, 1, 4, 0.0},                            // not a boundary code
  };
  for (Case const& c : cases) {
    EXPECT_NEAR(r.extreme(c.code, c.first, c.last), c.want, 1e-12 * (1 + std::fabs(c.want)))
        << c.code;
  }
  // Symbolic ends: -4 the stop (2), -3 behind it (3), -2 the image, -1 in
  // front of it; 0 takes the other end.
  EXPECT_DOUBLE_EQ(r.extreme(46, -4, -3), (9.0 + 8.0) / 2);
  // Both ends symbolic: each resolves alone and 0 is surface 0.
  EXPECT_EQ(r.extreme(46, -5, 0), 0.0);                     // surfaces 1 .. 0: empty
  EXPECT_DOUBLE_EQ(r.extreme(46, 0, -1), (0.0 + 10.0) / 2);  // surfaces 0 .. 4
  EXPECT_DOUBLE_EQ(r.extreme(46, 3, 0), 8.0);
}

// The selection of the extreme form by its bounds, over semi-diameters
// 10, 9, 8 and 7.5 (surfaces 1 to 4).
TEST(MeritBoundary, BoundsSelectTheSideThatBreaksThemMore) {
  Range const r;
  struct Case {
    int lo;
    double lower;
    int hi;
    double upper;
    double want;
  } const cases[] = {
      {0, 0.0, 1, 100.0, 10.0},  // upper only: the maximum
      {1, 0.0, 0, 0.0, 7.5},     // lower only: the minimum
      {1, 8.0, 1, 9.0, 10.0},    // both broken, the upper by more (1 against 0.5)
      {1, 8.5, 1, 9.5, 7.5},     // both broken, the lower by more
      {1, 8.0, 1, 9.5, 7.5},     // a tie (0.5 and 0.5) goes to the lower side
      {1, 8.0, 1, 20.0, 7.5},    // only the lower bound broken
      {1, 0.0, 1, 9.0, 10.0},    // only the upper bound broken
      {1, 0.0, 1, 20.0, 7.5},    // neither: the minimum
  };
  for (Case const& c : cases) {
    EXPECT_EQ(r.extreme(46, 1, 4, c.lo, c.lower, c.hi, c.upper), c.want)
        << c.lo << " " << c.lower << " " << c.hi << " " << c.upper;
  }
}

TEST(MeritBoundary, TotalsAreTheRootOfTheSquaredViolations) {
  Range const r;
  // Semi-diameters 10, 9, 8, 7.5 against [8.5, 9.5]: 0.5 above, 0.5 and 1 below.
  EXPECT_DOUBLE_EQ(r.total(97, 1, 4, 1, 8.5, 1, 9.5), std::sqrt(0.25 + 0.25 + 1.0));
  EXPECT_EQ(r.total(97, 1, 4, 0, 0.0, 0, 0.0), 0.0);  // no bound, no violation
  // Thickness of the glass (6 and 4) under 5: only the 6 counts; code 90 is
  // glass thickness here, where code 42 was in the extreme form.
  EXPECT_DOUBLE_EQ(r.total(90, 1, 4, 0, 0.0, 1, 5.0), 1.0);
  // Curvature of the air surfaces (-1/60, 1/50) above 0.
  EXPECT_DOUBLE_EQ(r.total(95, 1, 4, 1, 0.0, 0, 0.0), 1 / 60.0);
  EXPECT_EQ(r.total(88, 3, 1, 1, 100.0, 0, 0.0), 0.0);  // empty range
}
