// The operands of the analytic Jacobian that need no real ray, over dual
// numbers: the value part against the plain catalogue on the same surfaces,
// and each derivative slot against a central difference of the plain
// catalogue on perturbed surfaces (the context rebuilt each time, so that
// the entrance pupil moves with the system as the dual one does).
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <vector>

#include "merit/jacobian_operands.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;
using nuvrix::JDual;

namespace {

constexpr int kSurfaces = 16;  // the benches stay below this

enum Kind { kCurv, kThick, kConic, kCoef, kFocal, kNd, kVd, kSd };

// One variable: its parameter and the step of its central difference.
struct Seed {
  Kind kind;
  int surface, coefficient;
  double step;
};

template <typename S>
S& parameter(S* curv, S* thick, S* conic, S (*coef)[8], S* focal, S* nd, S* vd, S* sd,
             Seed const& s) {
  int const k = s.surface;
  S* const by_kind[] = {curv, thick, conic, nullptr, focal, nd, vd, sd};
  return s.kind == kCoef ? coef[k][s.coefficient] : by_kind[s.kind][k];
}

double& parameter(SurfaceData& r, Seed const& s) {
  double* const by_kind[] = {&r.curvature,    &r.thickness, &r.conic,    &r.coefficients[0],
                             &r.focal_length, &r.model_nd,  &r.model_vd, &r.semi_diameter};
  return s.kind == kCoef ? r.coefficients[s.coefficient] : *by_kind[s.kind];
}

// A system as a host fills it, and the variables of one pass.
struct Bench {
  std::vector<SurfaceData> surfaces;
  std::vector<double> rows;  // wave-major; model-glass entries are replaced
  std::vector<double> wavelengths;
  SystemConfig cfg;
  std::vector<FieldData> fields;
  std::vector<Seed> seeds;
  int n() const { return static_cast<int>(surfaces.size()); }
  int waves() const { return static_cast<int>(wavelengths.size()); }
};

// The dual parameters of `s` with slot k on seed k (none when unseeded),
// and the index rows, model glass from its dual parameters.
struct Arrays {
  JDual curv[kSurfaces], thick[kSurfaces], conic[kSurfaces], focal[kSurfaces];
  JDual nd[kSurfaces], vd[kSurfaces], dpgf[kSurfaces], sd[kSurfaces], coef[kSurfaces][8];
  std::vector<JDual> rows;
  std::vector<double> plain_rows;

  Arrays(Bench const& b, std::vector<SurfaceData> const& s, bool seeded) {
    int const n = b.n();
    for (int k = 0; k < n; ++k) {
      curv[k] = s[k].curvature, thick[k] = s[k].thickness, conic[k] = s[k].conic;
      focal[k] = s[k].focal_length, sd[k] = s[k].semi_diameter;
      nd[k] = s[k].model_nd, vd[k] = s[k].model_vd, dpgf[k] = s[k].model_dpgf;
      for (int j = 0; j < 8; ++j) coef[k][j] = s[k].coefficients[j];
    }
    for (size_t v = 0; seeded && v < b.seeds.size(); ++v) {
      parameter(curv, thick, conic, coef, focal, nd, vd, sd, b.seeds[v]).d[v] = 1.0;
    }
    for (int w = 0; w < b.waves(); ++w) {
      for (int k = 0; k < n; ++k) {
        rows.push_back(s[k].model_glass != 0 ? nuvrix::model_index<JDual>(b.wavelengths[w] * 1000.0,
                                                                          nd[k], vd[k], dpgf[k])
                                             : JDual(b.rows[w * n + k]));
        plain_rows.push_back(rows.back().value);
      }
    }
  }
  nuvrix::MeritContext context(Bench const& b, std::vector<SurfaceData> const& s) const {
    return nuvrix::build_context(s.data(), b.n(), plain_rows.data(), b.waves(), &b.cfg,
                                 b.fields.data(), static_cast<int>(b.fields.size()));
  }
};

double plain_value(Bench const& b, std::vector<SurfaceData> const& s, MeritOperandDesc const& op) {
  Arrays const a(b, s, false);
  nuvrix::MeritContext const ctx = a.context(b, s);
  double v = 0.0;
  bool failed = false;
  EXPECT_TRUE(nuvrix::evaluate_operand_value(op, s.data(), b.n(), a.plain_rows.data(), b.waves(),
                                             b.wavelengths.data(), &b.cfg, ctx, v, failed,
                                             nullptr));
  return v;
}

void take(JDual const& x, double& out) { out = x.value; }
void take(JDual const& x, JDual& out) { out = x; }

// The DualSystem of the bench with index rows of scalar U; the entrance
// pupil keeps the plain value and takes the slots of its generic form.
template <typename U>
JDual dual_value(Bench const& b, MeritOperandDesc const& op) {
  Arrays const a(b, b.surfaces, true);
  nuvrix::MeritContext const ctx = a.context(b, b.surfaces);
  std::vector<U> rows(a.rows.size());
  for (size_t k = 0; k < rows.size(); ++k) take(a.rows[k], rows[k]);
  U const* primary = rows.data() + b.cfg.primary_wavelength * b.n();
  JDual ep = nuvrix::compute_entrance_pupil_position_t<JDual, U>(
      a.curv, a.thick, primary, b.surfaces.data(), b.n(), b.cfg.stop_surface);
  ep.value = ctx.entrance_pupil_position;
  nuvrix::DualSystem<U> const sys = {
      b.surfaces.data(), b.n(), a.curv, a.thick, a.conic, a.focal, a.coef, a.nd, a.vd, a.dpgf,
      a.sd, rows.data(), b.waves(), JDual(ctx.pupil_radius), ep};
  JDual v;
  EXPECT_TRUE(nuvrix::dual_paraxial_operand<U>(op, sys, b.wavelengths.data(), &b.cfg, ctx, v));
  return v;
}

// One operand of the table: whether its value needs no dual quotient (then
// it matches to the bit), and the slots whose parameters the operand form
// takes as constants (the Seidel sums' indices).
struct Row {
  MeritOperandDesc op;
  bool exact;
  unsigned constant_slots;
};

Row row(unsigned code, int first, int last, bool exact = false, int wave = -1) {
  MeritOperandDesc op = {};
  op.type = code, op.surface_first = first, op.surface_last = last, op.wave = wave;
  op.group_id = -1;
  return Row{op, exact, 0u};
}
Row bounded(Row r, bool has_lower, double lower, bool has_upper, double upper) {
  r.op.has_lower = has_lower, r.op.lower = lower, r.op.has_upper = has_upper, r.op.upper = upper;
  return r;
}

// The size against which a value's rounding is judged: its magnitude, or
// for a Seidel sum, whose surface terms cancel, the sum of the magnitudes of
// the terms, each the operand over one surface.
double value_scale(Bench const& b, MeritOperandDesc op, double plain) {
  if (op.type < 80 || op.type > 86) return std::fabs(plain);
  double sum = 0.0;
  for (int k = 1; k < b.n(); ++k) {
    op.surface_first = op.surface_last = k;
    sum += std::fabs(plain_value(b, b.surfaces, op));
  }
  return sum;
}

template <typename U>
void check_table(Bench const& b, std::vector<Row> const& table) {
  for (Row const& r : table) {
    SCOPED_TRACE(testing::Message() << "code " << r.op.type << " surfaces " << r.op.surface_first
                                    << ".." << r.op.surface_last);
    double const plain = plain_value(b, b.surfaces, r.op);
    JDual const d = dual_value<U>(b, r.op);
    if (r.exact) {
      EXPECT_EQ(d.value, plain);
    } else {
      EXPECT_NEAR(d.value, plain, 1e-14 * value_scale(b, r.op, plain));
    }
    for (size_t k = 0; k < b.seeds.size(); ++k) {
      if ((r.constant_slots >> k) & 1u) continue;
      Seed const& s = b.seeds[k];
      std::vector<SurfaceData> up = b.surfaces, down = b.surfaces;
      parameter(up[s.surface], s) += s.step;
      parameter(down[s.surface], s) -= s.step;
      double const fd = (plain_value(b, up, r.op) - plain_value(b, down, r.op)) / (2.0 * s.step);
      // The difference of two values each good to some ulps of their size
      // is noise of that size over the step; 64 ulps of (|value| + 1).
      double const floor = 64.0 * DBL_EPSILON * (std::fabs(plain) + 1.0) / s.step;
      EXPECT_NEAR(d.d[k], fd, 1e-6 * std::fabs(fd) + floor) << "slot " << k;
    }
  }
}

// The Cooke triplet with three dispersing rows and an even-asphere front
// carrying a conic and two terms, one of them zero.
Bench asphere_cooke() {
  System const t = cooke_triplet();
  Bench b{t.surfaces, {}, {0.5876, 0.4861, 0.6563}, {}, {{0, 0, 0}, {14, 0, 0}, {20, 0, 0}}, {}};
  int const n = b.n();
  for (int w = 0; w < 3; ++w) {
    for (int k = 0; k < n; ++k)
      b.rows.push_back(t.indices[k] +
                       (t.indices[k] > 1.0 ? 0.01 * (w == 1) - 0.005 * (w == 2) : 0.0));
  }
  double const sd[] = {0, 11, 10.5, 8, 7.5, 7.5, 8, 21};
  for (int k = 0; k < n; ++k) {
    b.surfaces[k].semi_diameter = sd[k];
    b.surfaces[k].is_glass = t.indices[k] > 1.0;
  }
  // An infinite object distance: the Seidel sums' trial traces would apply
  // a distance of 1e10 and leave the chief ray's sums few digits.
  b.surfaces[0].thickness = INFINITY;
  SurfaceData& a = b.surfaces[1];
  a.type = NUVRIX_SURFACE_EVEN_ASPHERE, a.conic = -0.3;
  a.coefficients[1] = 2e-6, a.coefficients[2] = -1e-9;
  b.cfg.aperture_value = 12.5, b.cfg.stop_surface = kCookeStop;
  b.seeds = {{kCurv, 2, 0, 1e-7},  {kThick, 2, 0, 1e-5}, {kConic, 1, 0, 1e-5},
             {kCoef, 1, 1, 1e-11}, {kCoef, 1, 3, 1e-13}, {kSd, 1, 0, 1e-5},
             {kCurv, 4, 0, 1e-7},  {kThick, 3, 0, 1e-5}};
  return b;
}

// An ideal lens (the stop), a model-glass singlet and a matrix surface over
// two rows: the index behind the glass comes from its model and carries
// slots.
Bench lens_glass_matrix() {
  System const t =
      make_system({0, 0, 40, -60, 0, 0}, {INFINITY, 4, 5, 3, 40, 0}, {1, 1, 1, 1, 1, 1});
  Bench b{t.surfaces, t.indices, {0.5876, 0.4861}, {}, {{0, 0, 0}, {5, 0, 0}}, {}};
  b.rows.insert(b.rows.end(), t.indices.begin(), t.indices.end());
  b.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS, b.surfaces[1].focal_length = 120;
  SurfaceData& g = b.surfaces[2];
  g.model_glass = 1, g.is_glass = 1, g.model_nd = 1.62, g.model_vd = 40, g.model_dpgf = 0.003;
  b.surfaces[4].type = NUVRIX_SURFACE_MATRIX;
  double const abcd[] = {1.0, 0.5, -0.004, 0.998};
  for (int j = 0; j < 4; ++j) b.surfaces[4].coefficients[j] = abcd[j];
  double const sd[] = {0, 6, 6, 7, 6, 10};
  for (int k = 0; k < b.n(); ++k) b.surfaces[k].semi_diameter = sd[k];
  b.cfg.aperture_value = 8, b.cfg.stop_surface = 1;
  b.seeds = {{kCurv, 2, 0, 1e-7}, {kThick, 3, 0, 1e-5}, {kFocal, 1, 0, 1e-4}, {kCoef, 4, 1, 1e-6},
             {kNd, 2, 0, 1e-6},   {kVd, 2, 0, 1e-4},    {kSd, 3, 0, 1e-5},    {kThick, 2, 0, 1e-5}};
  return b;
}

}  // namespace

// Of the bounded boundary operands, 37, 40, 43, 47 and the totals 88, 89,
// 91, 97, 98 break their bounds; 42 and 94 stand inside them (94 is then 0
// with no slots, the root's derivative at 0 being 0).  43 and 91 take the
// thin edge of the asphere, which the zero coefficient moves.
TEST(DualOperands, AsphericTripletFollowsThePlainCatalogue) {
  Bench const b = asphere_cooke();
  std::vector<Row> table = {bounded(row(37, 1, 6, true), false, 0, true, 0.04),
                            row(38, 1, 6, true),
                            bounded(row(40, 1, 5, true), false, 0, true, 5.5),
                            bounded(row(42, 1, 6, true), true, 0.5, true, 10.0),
                            bounded(row(43, 1, 6), true, 0.5, false, 0),
                            row(45, 1, 6),
                            row(46, 1, 6, true),
                            bounded(row(47, 1, 6), false, 0, true, 3.0),
                            bounded(row(88, 1, 5, true), false, 0, true, 5.5),
                            bounded(row(89, 1, 6, true), false, 0, true, 5.0),
                            bounded(row(91, 1, 6), true, 0.5, false, 0),
                            bounded(row(94, 1, 6, true), true, -0.1, true, 0.1),
                            bounded(row(97, 1, 6, true), false, 0, true, 10.0),
                            bounded(row(98, 1, 6), false, 0, true, 10.0)};
  for (Row const& r : {row(50, 0, 0), row(50, 0, 0, false, 1), row(51, 0, 0), row(57, 0, 0, true),
                       row(75, 1, 6, false, 2), row(76, 1, 6), row(77, 2, 4), row(78, 1, 6),
                       row(87, 1, 6), row(79, 1, 2, true), row(79, 1, 4, true)}) {
    table.push_back(r);
  }
  for (unsigned code = 80; code <= 86; ++code) table.push_back(row(code, 1, 6));
  check_table<double>(b, table);
}

// 40 and 101, 102 break their bounds, 43 and 103 stand inside them.
TEST(DualOperands, ModelGlassRowsIdealLensAndMatrixCarryTheirSlots) {
  Bench const b = lens_glass_matrix();
  std::vector<Row> table = {bounded(row(40, 1, 3, true), false, 0, true, 4.5),
                            bounded(row(43, 2, 2), true, 1.0, false, 0),
                            bounded(row(101, 1, 4, true), true, 1.65, false, 0),
                            bounded(row(102, 1, 4, true), false, 0, true, 35.0),
                            bounded(row(103, 1, 4, true), true, -0.01, true, 0.01)};
  for (Row const& r : {row(50, 0, 0), row(50, 0, 0, false, 1), row(51, 0, 0), row(57, 0, 0, true),
                       row(75, 1, 4), row(76, 1, 4), row(77, 1, 4, false, 1), row(78, 1, 4),
                       row(87, 1, 4), row(79, 1, 1, true), row(79, 4, 2, true)}) {
    table.push_back(r);
  }
  // The Seidel sums take the indices as constants.
  for (unsigned code = 80; code <= 86; ++code) {
    Row r = row(code, 1, 4);
    r.constant_slots = (1u << 4) | (1u << 5);
    table.push_back(r);
  }
  check_table<JDual>(b, table);
}

// The back focus of a finite object starts from the axial object point, so
// the object distance carries a slot; constant rows as plain or as dual
// numbers give the same operands.
TEST(DualOperands, FiniteObjectFollowsThePlainCatalogueInBothRowTypes) {
  System const t = finite_relay();
  Bench b{t.surfaces, t.indices, {0.5876}, {}, {{0, 0, 0}, {3, 0, 0}}, {}};
  b.cfg.aperture_value = 10, b.cfg.stop_surface = kFiniteRelayStop;
  b.seeds = {{kThick, 0, 0, 1e-5}, {kCurv, 1, 0, 1e-7}, {kThick, 1, 0, 1e-5}, {kCurv, 2, 0, 1e-7}};
  std::vector<Row> const table = {row(51, 0, 0), row(50, 0, 0), row(57, 0, 0, true),
                                  row(76, 1, 2), row(80, 1, 3), row(82, 1, 3)};
  check_table<double>(b, table);
  check_table<JDual>(b, table);
}
