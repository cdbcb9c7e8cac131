// The merit driver on values given in advance (so that only its own rules
// act): composites, the centroid, piston and tilt corrections, residuals with
// bounds and transforms, penalties, ray-group slots and the weighted root
// mean square.  Each expected value is worked out here from the rule.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "merit/merit_function.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

struct Driver {
  System sys = cooke_triplet();
  SystemConfig cfg = {};
  std::vector<double> wavelengths = {0.5876};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritResult> results;
  std::vector<double> residuals;
  int slots = -1;
  double merit = -1.0;
  Driver() {
    cfg.stop_surface = kCookeStop;
    cfg.aperture_value = 12.5;
  }
  // Adds an operand with its prefilled value and status.
  MeritOperandDesc& add(unsigned code, double value, int status = 1, double weight = 1.0) {
    MeritOperandDesc op = {};
    op.type = code;
    op.weight = weight;
    op.group_id = -1;
    ops.push_back(op);
    results.push_back(MeritResult{value, status});
    return ops.back();
  }
  int run(bool prefilled = true) {
    residuals.assign(2 * ops.size() + 1, -99.0);
    return nuvrix::evaluate_merit(sys.surfaces.data(), sys.count(), sys.indices.data(),
                                  wavelengths.data(), 1, &cfg, fields.data(),
                                  static_cast<int>(fields.size()), ops.data(),
                                  static_cast<int>(ops.size()), results.data(), residuals.data(),
                                  &slots, &merit, prefilled, nullptr);
  }
  double v(int i) const { return results[i].value; }
};

}  // namespace

TEST(MeritDriver, CompositesFollowTheirTable) {
  Driver d;
  d.add(50, 3.0);   // 0
  d.add(50, -2.0);  // 1
  d.add(50, 1e-31); // 2
  d.add(50, 7.0);   // 3
  struct Case {
    unsigned code;
    int a, b;
    double scale, target, want;
  } const cases[] = {
      {29, 0, 0, 2.5, 0, 7.5},      {29, -1, 0, 2.5, 0, 0.0},  // scale; out of range
      {30, -4, 1, 0, 0, 1.0},       {30, 3, 1, 0, 0, 0.0},     // sum from a raised to 0; a > b
      {31, 0, 1, 0, 0, 1.0},        {31, 0, 50, 0, 0, 0.0},
      {32, 0, 1, 0, 0, -1.5},       {32, 0, 2, 0, 0, 1e10},    // |r(b)| <= 1e-30
      {33, 0, 3, 0, 0, 21.0},       {36, 3, 0, 0, 0, 4.0},
      {35, 0, 1, 0, 0, std::sqrt(13.0)},
      // spread over {3, -2, 1e-31, 7}: mean 2, deviations 1, 4, 2, 5; those above 1.5 add up
      {34, 0, 3, 0, 1.5, 1.5 + 4 + 2 + 5},
      {34, 0, 0, 0, 0.25, 0.25},  // one value: exactly target
  };
  for (Case const& c : cases) {
    MeritOperandDesc& op = d.add(c.code, 123.0, 0);
    op.operand_a = c.a, op.operand_b = c.b, op.scale = c.scale, op.target = c.target;
  }
  // A composite may use an earlier composite: 29 of the first composite (7.5).
  MeritOperandDesc& chained = d.add(29, 0.0, 0);
  chained.operand_a = 4, chained.scale = 2.0;
  d.run();
  for (size_t k = 0; k < std::size(cases); ++k) {
    EXPECT_EQ(d.v(4 + k), cases[k].want) << cases[k].code << " row " << k;
    EXPECT_EQ(d.results[4 + k].status, 1);
  }
  EXPECT_EQ(d.v(4 + std::size(cases)), 15.0);
  // The end of a range is lowered to the last operand, the composite itself.
  Driver r;
  r.add(50, 3.0);
  r.add(50, -2.0);
  MeritOperandDesc& sum = r.add(30, 0.5, 0);
  sum.operand_a = -4, sum.operand_b = 99;
  r.run();
  EXPECT_EQ(r.v(2), 1.5);
}

// Centroids: x (70) stays in place, y (71) is shifted by the weighted mean
// of its group (equal hy and tag; zero weights and failures take no part
// in the mean, and failures are not shifted).
TEST(MeritDriver, CentroidRemovalShiftsYAndLeavesX) {
  Driver d;
  d.add(71, 1.0, 1, 1.0);
  d.add(71, 4.0, 1, 3.0);
  d.add(71, 100.0, 1, 0.0);  // no weight: shifted, but not in the mean
  d.add(71, 50.0, -1, 1.0);  // failed: neither
  d.add(71, 9.0, 1, 1.0).centroid_tag = 1;  // another tag: a group of its own
  d.add(71, 9.0, 1, 1.0).hy = 1.0;          // another field
  d.add(70, 1.0, 1, 1.0);
  d.add(70, 4.0, 1, 3.0);
  d.run();
  double const mean = (1.0 * 1.0 + 3.0 * 4.0) / 4.0;
  EXPECT_EQ(d.v(0), 1.0 - mean);
  EXPECT_EQ(d.v(1), 4.0 - mean);
  EXPECT_EQ(d.v(2), 100.0 - mean);
  EXPECT_EQ(d.v(3), 50.0);
  EXPECT_EQ(d.v(4), 0.0);
  EXPECT_EQ(d.v(5), 0.0);
  EXPECT_EQ(d.v(6), 1.0);
  EXPECT_EQ(d.v(7), 4.0);
}

// Piston of 68 per field and wavelength; tilt of 67 over all wavelengths
// at once, then piston per wavelength; a field group of two is left alone.
TEST(MeritDriver, PistonAndTiltRemoval) {
  Driver d;
  d.add(68, 2.0, 1, 1.0);
  d.add(68, 6.0, 1, 3.0);
  d.add(68, 10.0, 1, 1.0).wave = 1;  // another wavelength: alone, mean of itself
  d.run();
  EXPECT_EQ(d.v(0), 2.0 - 5.0);
  EXPECT_EQ(d.v(1), 6.0 - 5.0);
  EXPECT_EQ(d.v(2), 0.0);

  // A plane 0.5 + 2 px - 3 py on four points of an off-axis field, two
  // wavelengths with pistons 0.5 and 1.5: all of it is removed.
  Driver t;
  double const pts[4][2] = {{0.0, 0.0}, {1.0, 0.0}, {0.0, 1.0}, {-1.0, 0.5}};
  for (int wave = 0; wave < 2; ++wave) {
    for (auto const& p : pts) {
      MeritOperandDesc& op = t.add(67, 0.5 + wave + 2.0 * p[0] - 3.0 * p[1]);
      op.px = p[0], op.py = p[1], op.hx = 1.0, op.wave = wave;
    }
  }
  t.add(67, 7.0).hy = 0.5;  // another field: one member, untouched
  MeritOperandDesc& two = t.add(67, 3.0);
  two.hy = 0.75, two.px = 1.0;
  t.add(67, 5.0).hy = 0.75;  // a field group of two: untouched
  t.run();
  for (int k = 0; k < 8; ++k) EXPECT_NEAR(t.v(k), 0.0, 1e-14) << k;
  EXPECT_EQ(t.v(8), 7.0);
  EXPECT_EQ(t.v(9), 3.0);
  EXPECT_EQ(t.v(10), 5.0);

  // On an axial field (hx 0) each point off the axis in x gains its mirror
  // image: points (0.5, 0), (0, 0.5), (0, -0.5) with values 1, 0, 0 fit, with
  // (-0.5, 0) valued 1, a flat x slope, so only the piston 0.5 goes.
  Driver m;
  double const axial[3][3] = {{0.5, 0.0, 1.0}, {0.0, 0.5, 0.0}, {0.0, -0.5, 0.0}};
  for (auto const& p : axial) {
    MeritOperandDesc& op = m.add(67, p[2]);
    op.px = p[0], op.py = p[1];
  }
  m.run();
  EXPECT_NEAR(m.v(0), 1.0 - 1.0 / 3.0, 1e-15);  // piston of the members themselves
  EXPECT_NEAR(m.v(1), -1.0 / 3.0, 1e-15);
}

// Residuals and the merit: target, one bound, both bounds, transforms,
// codes above 87, zero weights; merit = sqrt(sum r^2 / sum w).
TEST(MeritDriver, ResidualsAndTheWeightedRootMeanSquare) {
  Driver d;
  d.add(50, 5.0, 1, 4.0).target = 3.0;  // (5 - 3) 2 = 4
  MeritOperandDesc& lo = d.add(40, 1.0, 1, 1.0);
  lo.has_lower = 1, lo.lower = 2.0, lo.target = 99.0;  // (1 - 2) 1 = -1
  MeritOperandDesc& inside = d.add(40, 3.0, 1, 9.0);
  inside.has_lower = 1, inside.lower = 2.0, inside.has_upper = 1, inside.upper = 4.0;  // 0
  MeritOperandDesc& hi = d.add(40, 6.0, 1, 1.0);
  hi.has_upper = 1, hi.upper = 4.0;  // 2
  d.add(100, 0.5, 1, 4.0).target = 10.0;  // above 87: value alone, 0.5 * 2 = 1
  MeritOperandDesc& tr = d.add(50, -9.0, 1, 1.0);
  tr.transform = 7;  // signed root: -3
  MeritOperandDesc& arc = d.add(50, 2.0, 1, 1.0);
  arc.transform = 3;  // arc cosine of the clamped 1: 0
  d.add(50, 77.0, 1, 0.0);  // no weight: no slot
  d.add(8, 77.0, 0, 1.0);   // unsupported: counted, no slot
  EXPECT_EQ(d.run(), 1);
  double const want[7] = {4.0, -1.0, 0.0, 2.0, 1.0, -3.0, 0.0};
  ASSERT_EQ(d.slots, 7);
  for (int k = 0; k < 7; ++k) EXPECT_EQ(d.residuals[k], want[k]) << k;
  double const weights = 4 + 1 + 9 + 1 + 4 + 1 + 1;
  EXPECT_DOUBLE_EQ(d.merit, std::sqrt((16.0 + 1 + 4 + 1 + 9) / weights));

  // Every weight 0: no slot, merit 0; an empty list likewise.
  Driver z;
  z.add(50, 5.0, 1, 0.0);
  EXPECT_EQ(z.run(), 0);
  EXPECT_EQ(z.slots, 0);
  EXPECT_EQ(z.merit, 0.0);
  // Without results nothing can be formed: every weighted operand is unsupported.
  Driver none;
  none.add(50, 5.0);
  none.add(40, 5.0);
  int slots = -1;
  double merit = -1.0;
  EXPECT_EQ(nuvrix::evaluate_merit(none.sys.surfaces.data(), none.sys.count(),
                                   none.sys.indices.data(), none.wavelengths.data(), 1, &none.cfg,
                                   none.fields.data(), 2, none.ops.data(), 2, nullptr, nullptr,
                                   &slots, &merit, false, nullptr),
            2);
  EXPECT_EQ(slots, 0);
  EXPECT_EQ(merit, 0.0);
}

// A failed operand costs 1e6 (1 + surfaces left after the failure x the
// miss) times the root of its weight; an off-axis failure costs nothing
// unless asked for.  Ray groups take one slot each whatever their rays do.
TEST(MeritDriver, PenaltiesAndRayGroupSlots) {
  Driver d;
  // The Cooke triplet with a hard aperture of 3 mm on surface 2: an axial
  // rim ray clips there.
  d.sys.surfaces[2].aperture_radius = 3.0;
  MeritOperandDesc& clipped = d.add(71, 0.0, -1, 4.0);
  clipped.py = 1.0;
  MeritOperandDesc& off_axis = d.add(71, 0.0, -1, 1.0);
  off_axis.hy = 1.0, off_axis.py = 1.0;
  d.run();
  SystemConfig const& c = d.cfg;
  double const pupil = c.aperture_value / 2.0;
  double const ep =
      nuvrix_entrance_pupil_position(d.sys.surfaces.data(), d.sys.count(), d.sys.row(), kCookeStop);
  RayTraceResult const ray =
      nuvrix_trace_arbitrary_ray(d.sys.surfaces.data(), d.sys.count(), d.sys.row(), &c, 0, 0, 0.0,
                                 pupil, 0.0, 1.0, 587.6, ep, 0.0);
  ASSERT_EQ(ray.valid, 0);
  ASSERT_EQ(ray.failed_surface, 2);
  double const P = 1e6 * (1.0 + (d.sys.count() - 1 - 2) * ray.violation);
  EXPECT_NEAR(d.residuals[0], 2.0 * P, 1e-9 * P);
  EXPECT_EQ(d.residuals[1], 0.0);  // off axis, not penalised, but its weight counts
  EXPECT_NEAR(d.merit, std::sqrt(4.0 * P * P / 5.0), 1e-9 * P);
  d.cfg.penalize_failed_rays = 1;
  d.run();
  EXPECT_GE(d.residuals[1], 1e6);

  // Groups: every member failed (slot 1e6 sqrt(scale)), one survived (slot
  // 0), all weights 0 (no slot).  The slots follow the operand slots.
  Driver g;
  g.cfg.penalize_failed_rays = 0;
  for (int k = 0; k < 2; ++k) {
    MeritOperandDesc& op = g.add(73, 0.0, -1, 1.0);
    op.group_id = 3, op.hy = 0.5, op.scale = 0.25;
  }
  MeritOperandDesc& a = g.add(72, 0.1, 1, 1.0);
  a.group_id = 4;
  MeritOperandDesc& b = g.add(72, 0.0, -1, 1.0);
  b.group_id = 4;
  MeritOperandDesc& idle = g.add(70, 0.0, -1, 0.0);
  idle.group_id = 5;
  g.run();
  ASSERT_EQ(g.slots, 4 + 2);
  EXPECT_EQ(g.residuals[4], 1e6 * 0.5);
  EXPECT_EQ(g.residuals[5], 0.0);
}

// Degenerate systems, references and values get what the rules give and
// never a read outside the caller's arrays: every code on systems of 0, 1
// and 2 surfaces, with and without an index row, targets that are not
// numbers, an empty list.
TEST(MeritDriver, DegenerateInputStaysDefined) {
  System const full = cooke_triplet();
  std::vector<MeritOperandDesc> ops;
  for (unsigned code = 0; code < 108; ++code) {
    MeritOperandDesc op = {};
    op.type = code, op.group_id = code % 3 == 0 ? 1 : -1, op.weight = 1.0;
    op.operand_a = -1, op.operand_b = 500, op.surface = 9, op.surface_first = -3;
    op.surface_last = -2, op.wave = code % 4 - 1, op.hy = 0.5, op.py = 1.0;
    op.target = code % 5 == 0 ? NAN : (code % 7 == 0 ? INFINITY : 0.0);
    ops.push_back(op);
  }
  std::vector<double> const wavelengths = {0.55};
  for (int n : {0, 1, 2}) {
    for (int waves : {0, 1}) {
      std::vector<SurfaceData> surfaces(full.surfaces.begin(), full.surfaces.begin() + n);
      std::vector<double> rows(full.indices.begin(), full.indices.begin() + n * waves);
      SystemConfig cfg = {};
      cfg.stop_surface = 5, cfg.primary_wavelength = 3, cfg.penalize_failed_rays = 1;
      std::vector<MeritResult> results(ops.size());
      std::vector<double> residuals(2 * ops.size());
      int slots = -1;
      double merit = 0.0;
      int const unsupported = nuvrix::evaluate_merit(
          surfaces.data(), n, rows.data(), wavelengths.data(), waves, &cfg, nullptr, 0,
          ops.data(), static_cast<int>(ops.size()), results.data(), residuals.data(), &slots,
          &merit, false, nullptr);
      // Without an index row only the composites are formed.
      int const gaps = 4 + 5 + 10 + 2;  // above 103, 8-12, 19-28, 52 and 58
      EXPECT_EQ(unsupported, waves == 0 ? 108 - 8 : gaps) << n << " " << waves;
      EXPECT_GE(slots, static_cast<int>(ops.size()) - unsupported);
      for (int k = 29; k <= 36; ++k) EXPECT_EQ(results[k].status, 1);
    }
  }
  int slots = -1;
  double merit = -1.0;
  SystemConfig const cfg = {};
  EXPECT_EQ(nuvrix::evaluate_merit(full.surfaces.data(), full.count(), full.indices.data(),
                                   wavelengths.data(), 1, &cfg, nullptr, 0, nullptr, 0, nullptr,
                                   nullptr, &slots, &merit, false, nullptr),
            0);
  EXPECT_EQ(slots, 0);
  EXPECT_EQ(merit, 0.0);
}
