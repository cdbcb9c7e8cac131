// Operand values of the catalogue against independent oracles: the
// first-order exports, 2x2 matrices multiplied here, real rays of the front
// end, the spot diagram's hits and the field analyses; the legacy list;
// rays traced in advance against the catalogue's own.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "merit/merit_function.hpp"
#include "tests/image_quality_hosts.hpp"

using namespace nuvrix_test;

namespace {

// The Cooke triplet with three index rows (the glasses disperse), three
// fields and the entrance pupil diameter 12.5.
struct Catalogue {
  Host h;
  std::vector<double> wavelengths = {0.5876, 0.4861, 0.6563};
  nuvrix::MeritContext ctx;
  explicit Catalogue(double object = 1e10)
      : h(cooke_triplet(), 3, 12.5, kCookeStop, {0.0, 14.0, 20.0}) {
    int const n = h.sys.count();
    h.sys.surfaces[0].thickness = object;
    for (int k = 0; k < n; ++k) {
      if (h.sys.indices[k] > 1.0) {
        h.sys.indices[n + k] += 0.01;
        h.sys.indices[2 * n + k] -= 0.005;
      }
    }
    ctx = nuvrix::build_context(h.s(), n, h.rows(), 3, &h.cfg, h.fields.data(), h.nf());
  }
  double value(MeritOperandDesc const& op, bool* failed = nullptr, bool* supported = nullptr) const {
    double v = -7.0;
    bool f = false;
    bool const s = nuvrix::evaluate_operand_value(op, h.s(), h.sys.count(), h.rows(), 3,
                                                  wavelengths.data(), &h.cfg, ctx, v, f, nullptr);
    if (failed != nullptr) *failed = f;
    if (supported != nullptr) *supported = s;
    return v;
  }
};

MeritOperandDesc operand(unsigned code) {
  MeritOperandDesc op = {};
  op.type = code;
  op.group_id = -1;
  return op;
}

// The paraxial matrix of surfaces a .. b built from 2x2 factors: refraction
// [[1, 0], [-(n' - n) c / n', n / n']] and transfer [[1, t], [0, 1]].
void matrix_product(System const& sys, int a, int b, double m[4]) {
  double A = 1, B = 0, C = 0, D = 1;
  auto apply = [&](double p, double q, double r, double s) {
    double const a2 = p * A + q * C, b2 = p * B + q * D, c2 = r * A + s * C, d2 = r * B + s * D;
    A = a2, B = b2, C = c2, D = d2;
  };
  for (int i = a; i <= b; ++i) {
    double const n0 = sys.indices[i - 1], n1 = sys.indices[i], c = sys.surfaces[i].curvature;
    apply(1, 0, -(n1 - n0) * c / n1, n0 / n1);
    if (i < b) apply(1, sys.surfaces[i].thickness, 0, 1);
  }
  m[0] = A, m[1] = B, m[2] = C, m[3] = D;
}

}  // namespace

TEST(MeritOperands, FirstOrderCodesAgreeWithTheFirstOrderExports) {
  Catalogue const c;
  SurfaceData const* s = c.h.s();
  int const n = c.h.sys.count();
  double const efl = nuvrix_calculate_efl(s, n, c.h.rows());
  EXPECT_NEAR(c.value(operand(50)), efl, 1e-12 * efl);
  EXPECT_NEAR(c.value(operand(51)), nuvrix_calculate_bfl(s, n, c.h.rows()), 1e-10);
  MeritOperandDesc blue = operand(50);
  blue.wave = 1;
  EXPECT_NEAR(c.value(blue), nuvrix_calculate_efl(s, n, c.h.sys.row(1)), 1e-12 * efl);

  // Marginal rows of the paraxial solve: row s - 1 holds the state behind surface s.
  ParaxialRayState rows[256];
  nuvrix_paraxial_solve(s, n, c.h.rows(), &c.h.cfg, c.h.fields.data(), c.h.nf(), rows, nullptr);
  for (int surface = 1; surface < n; ++surface) {
    MeritOperandDesc slope = operand(13), height = operand(16);
    slope.surface = height.surface = surface;
    EXPECT_NEAR(c.value(slope), rows[surface - 1].u, 1e-14) << surface;
    EXPECT_NEAR(c.value(height), rows[surface - 1].y, 1e-12) << surface;
  }
  bool supported = false;
  EXPECT_EQ(c.value(operand(13), nullptr, &supported), 0.0);  // surface 0 is never met
  EXPECT_TRUE(supported);

  // The matrix of a range against 2x2 products; its determinant is the
  // ratio of the first index to the last.
  for (auto range : {std::pair<int, int>{1, 6}, {2, 4}, {3, 3}, {0, 99}}) {
    int const a = std::max(range.first, 1), b = std::min(range.second, n - 1);
    double want[4];
    matrix_product(c.h.sys, a, b, want);
    for (unsigned code = 75; code <= 78; ++code) {
      MeritOperandDesc op = operand(code);
      op.surface_first = range.first, op.surface_last = range.second;
      EXPECT_NEAR(c.value(op), want[code - 75], 1e-12 * (1 + std::fabs(want[code - 75])));
    }
    MeritOperandDesc det = operand(87);
    det.surface_first = range.first, det.surface_last = range.second;
    EXPECT_NEAR(c.value(det), c.h.sys.indices[a - 1] / c.h.sys.indices[b], 1e-13);
  }
  MeritOperandDesc empty = operand(76);
  empty.surface_first = 5, empty.surface_last = 2;
  EXPECT_EQ(c.value(empty), 0.0);  // B of the identity
  empty.type = 75;
  EXPECT_EQ(c.value(empty), 1.0);

  EXPECT_EQ(c.value(operand(55)), 12.5);
  EXPECT_EQ(c.value(operand(54)), c.ctx.entrance_pupil_position);
  double track = 0.0;
  for (int i = 1; i <= n - 2; ++i) track += c.h.sys.surfaces[i].thickness;
  EXPECT_DOUBLE_EQ(c.value(operand(57)), track);
}

TEST(MeritOperands, RayCodesAreTheFrontEndsRays) {
  Catalogue const c;
  int const n = c.h.sys.count();
  double const ep = c.ctx.entrance_pupil_position;
  for (int surface : {0, 3}) {
    RayTraceResult const ray =
        nuvrix_trace_arbitrary_ray(c.h.s(), n, c.h.rows(), &c.h.cfg, 0, surface, 0.7 * 20.0,
                                   6.25, 0.3, -0.6, 0.0, ep, 0.0);
    ASSERT_EQ(ray.valid, 1);
    double const want[6] = {ray.x, ray.y, ray.z, ray.l, ray.m, ray.n};
    for (unsigned code = 0; code <= 5; ++code) {
      MeritOperandDesc op = operand(code);
      op.surface = surface, op.hy = 0.7, op.px = 0.3, op.py = -0.6;
      EXPECT_EQ(c.value(op), want[code]) << code;
    }
  }
  // A ray that misses gives 1e10, not a failure.
  MeritOperandDesc far = operand(1);
  far.py = 40.0;
  bool failed = true;
  EXPECT_EQ(c.value(far, &failed), 1e10);
  EXPECT_FALSE(failed);

  // Transverse codes against the hits of the fixed-order spot diagram:
  // the central ray, then ring 1 from theta 0.
  SpotRayHit hits[8];
  SpotDiagramResult spot;
  Host one = c.h;
  one.weights.resize(1);
  ASSERT_EQ(nuvrix_compute_spot_diagram_with_rays(one.s(), n, one.rows(), one.weights.data(), 1,
                                                  &one.cfg, one.fields.data(), one.nf(), 2, 2, 1,
                                                  hits, 8, &spot),
            0);
  for (int j = 0; j < 7; ++j) {
    double const theta = 2.0 * M_PI * (j - 1) / 6.0, rho = j == 0 ? 0.0 : 0.5;
    MeritOperandDesc x = operand(70), y = operand(71), dx = operand(72), dy = operand(73);
    for (MeritOperandDesc* op : {&x, &y, &dx, &dy}) {
      op->hy = 1.0, op->px = rho * std::cos(theta), op->py = rho * std::sin(theta);
    }
    EXPECT_NEAR(c.value(x), hits[j].x, 1e-12) << j;
    EXPECT_NEAR(c.value(y), hits[j].y, 1e-12) << j;
    EXPECT_NEAR(c.value(dx), hits[j].x - spot.chief_x, 1e-12) << j;
    EXPECT_NEAR(c.value(dy), hits[j].y - spot.chief_y, 1e-12) << j;
  }
}

TEST(MeritOperands, FieldCodesAgreeWithTheFieldAnalyses) {
  Catalogue const c;
  int const n = c.h.sys.count();
  // Distortion at the full field (tangent mapping), and the worst of 20.
  FieldCurvatureDistortionPoint curve[21];
  FieldCurvatureDistortionResult curve_result;
  ASSERT_EQ(nuvrix_compute_field_curvature_distortion(c.h.s(), n, c.h.rows(), &c.h.cfg, nullptr, 0,
                                                      20, 20.0, curve, &curve_result),
            0);
  MeritOperandDesc d = operand(62);
  d.hy = 1.0;
  EXPECT_NEAR(c.value(d), curve[20].distortion_percent, 1e-9);
  double worst = 0.0;
  for (int i = 1; i <= 20; ++i) {
    if (std::fabs(curve[i].distortion_percent) > std::fabs(worst)) worst = curve[i].distortion_percent;
  }
  EXPECT_NEAR(c.value(operand(60)), worst, 1e-9);
  // Angle mapping: the ideal height is the field in radians times the EFL.
  d.type = 63;
  double const efl = c.value(operand(50)), a = 20.0 * M_PI / 180.0;
  double const real = curve[20].real_height;
  EXPECT_NEAR(c.value(d), (real - a * efl) / (a * efl) * 100.0, 1e-9);

  // Foci: astigmatism S - T and field curvature against the axis.
  MeritOperandDesc astig = operand(66), curv = operand(65);
  astig.hy = curv.hy = 0.7;
  FieldCurvatureDistortionPoint at[2];
  nuvrix_compute_field_curvature_distortion(c.h.s(), n, c.h.rows(), &c.h.cfg, nullptr, 0, 1, 14.0,
                                            at, &curve_result);
  EXPECT_NEAR(c.value(astig), at[1].sagittal_focus - at[1].tangential_focus, 1e-9);
  EXPECT_NEAR(c.value(curv),
              (at[1].tangential_focus + at[1].sagittal_focus) / 2 -
                  (at[0].tangential_focus + at[0].sagittal_focus) / 2,
              1e-9);

  // Lateral colour: the spread of the chief ray over the rows, in micrometres.
  LateralColorPoint colour[2];
  LateralColorResult colour_result;
  ASSERT_EQ(nuvrix_compute_lateral_color(c.h.s(), n, c.h.rows(), 3, &c.h.cfg, nullptr, 0, 1, 20.0,
                                         colour, 2, &colour_result),
            0);
  double const s1 = colour[0].shift, s2 = colour[1].shift;
  MeritOperandDesc lc = operand(64);
  lc.hy = 1.0;
  double const spread = std::max({0.0, s1, s2}) - std::min({0.0, s1, s2});
  EXPECT_NEAR(c.value(lc), spread * 1000.0, 1e-9);
  EXPECT_GT(spread, 0.0);

  // Relative illumination from the working F-numbers of 24 azimuths.
  RelativeIlluminationPoint ri[2];
  RelativeIlluminationResult ri_result;
  nuvrix_compute_relative_illumination(c.h.s(), n, c.h.rows(), &c.h.cfg, 1, 14.0, 0, ri,
                                       &ri_result);
  MeritOperandDesc illum = operand(59);
  illum.hy = 0.7, illum.sample_count = 24;
  ASSERT_LT(ri[1].illumination, 1.0);
  EXPECT_NEAR(c.value(illum), ri[1].illumination, 1e-12);
}

TEST(MeritOperands, LegacyListSharesItsComputations) {
  Catalogue const c(INFINITY);  // the legacy front end counts only a true infinity
  int const n = c.h.sys.count();
  MeritOperand ops[7] = {};
  int const codes[7] = {3, 5, 4, 6, 7, 0, 1};
  for (int k = 0; k < 7; ++k) {
    ops[k].type = codes[k], ops[k].field = 0.7, ops[k].px = 0.2, ops[k].py = 0.9;
    ops[k].surface = 3, ops[k].wave = 9;  // beyond the table: the primary row
  }
  MeritResult plain[7], full[7];
  EXPECT_EQ(nuvrix_evaluate_merit_operands(c.h.s(), n, c.h.rows(), c.wavelengths.data(), 3,
                                           &c.h.cfg, c.h.fields.data(), c.h.nf(), ops, 7, plain),
            0);
  nuvrix_evaluate_merit_operands_full(c.h.s(), n, c.h.rows(), c.wavelengths.data(), 3, &c.h.cfg,
                                      c.h.fields.data(), c.h.nf(), ops, 7, full);
  EXPECT_EQ(plain[0].value, plain[1].value);
  EXPECT_EQ(plain[2].value, plain[3].value);
  EXPECT_EQ(plain[5].value, plain[6].value);
  EXPECT_EQ(plain[0].status + plain[2].status, 2);
  EXPECT_EQ(plain[4].status, 0);  // the plain form leaves code 7 alone
  EXPECT_EQ(plain[4].value, 0.0);
  EXPECT_EQ(full[4].status, 1);
  EXPECT_GT(full[4].value, 0.0);
  // The transverse offset against the general front end's two rays.
  double const ep = c.ctx.entrance_pupil_position;
  RayTraceResult const chief = nuvrix_trace_arbitrary_ray(c.h.s(), n, c.h.rows(), &c.h.cfg, 0, 0,
                                                          14.0, 6.25, 0.0, 0.0, 587.6, ep, 0.0);
  RayTraceResult const ray = nuvrix_trace_arbitrary_ray(c.h.s(), n, c.h.rows(), &c.h.cfg, 0, 0,
                                                        14.0, 6.25, 0.2, 0.9, 587.6, ep, 0.0);
  EXPECT_NEAR(plain[2].value, ray.y - chief.y, 1e-9);
}

// Rays traced in advance stand in for the catalogue's own traces: the same
// rays in the table give the same values, and an entry marked failed fails
// the operand without a trace.
TEST(MeritOperands, PreTracedRaysStandInForTraces) {
  Catalogue const c(INFINITY);
  int const n = c.h.sys.count();
  double const pr = c.ctx.pupil_radius, ep = c.ctx.entrance_pupil_position;
  double const hy = 0.7, pts[3][2] = {{0.0, 0.0}, {0.0, 0.8}, {0.5, -0.3}};
  std::vector<double> hys, pxs, pys, x, y, z, l, m, nn, phase, zero;
  std::vector<int> waves, kinds, surfaces, valid;
  for (auto const& p : pts) {
    RayTraceResult const t = nuvrix_trace_arbitrary_ray(c.h.s(), n, c.h.rows(), &c.h.cfg, 0, 0,
                                                        hy * 20.0, pr, p[0], p[1], 0.0, ep, 0.0);
    hys.push_back(hy), pxs.push_back(p[0]), pys.push_back(p[1]);
    waves.push_back(0), kinds.push_back(0), surfaces.push_back(0), valid.push_back(1);
    x.push_back(t.x), y.push_back(t.y), z.push_back(t.z), l.push_back(t.l), m.push_back(t.m);
    nn.push_back(t.n), phase.push_back(t.phase_waves), zero.push_back(0.0);
  }
  nuvrix::PreTracedRays table = {hys.data(),  waves.data(), pxs.data(),  pys.data(),
                                 kinds.data(), surfaces.data(), x.data(), y.data(),
                                 valid.data(), z.data(),    l.data(),    m.data(),
                                 nn.data(),    phase.data(), zero.data(), zero.data(),
                                 zero.data(),  zero.data(),  zero.data(), zero.data(),
                                 zero.data(),  zero.data(),  zero.data(), 3};
  for (unsigned code : {70u, 71u, 72u, 73u}) {
    MeritOperandDesc op = operand(code);
    op.hy = hy, op.px = 0.5, op.py = -0.3;
    double traced = 0.0, tabled = 0.0;
    bool failed = true;
    nuvrix::evaluate_operand_value(op, c.h.s(), n, c.h.rows(), 3, c.wavelengths.data(), &c.h.cfg,
                                   c.ctx, traced, failed, nullptr);
    nuvrix::evaluate_operand_value(op, c.h.s(), n, c.h.rows(), 3, c.wavelengths.data(), &c.h.cfg,
                                   c.ctx, tabled, failed, &table);
    EXPECT_EQ(tabled, traced) << code;
    EXPECT_FALSE(failed);
  }
  valid[1] = 0;  // the entry of (0, 0.8)
  MeritOperandDesc op = operand(71);
  op.hy = hy, op.py = 0.8;
  double v = 1.0;
  bool failed = false;
  nuvrix::evaluate_operand_value(op, c.h.s(), n, c.h.rows(), 3, c.wavelengths.data(), &c.h.cfg,
                                 c.ctx, v, failed, &table);
  EXPECT_TRUE(failed);
  EXPECT_EQ(v, 0.0);
}
