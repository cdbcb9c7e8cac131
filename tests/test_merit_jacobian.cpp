// The merit Jacobian: finite differences against a closed form and across
// thread counts, the analytic method against central differences of the
// residuals on several kinds of system, and the call's rules.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "merit/merit_jacobian.hpp"
#include "merit/variable_transform.hpp"
#include "trace/material.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

MeritOperandDesc operand(unsigned code, double hy = 0.0, double px = 0.0, double py = 0.0) {
  MeritOperandDesc op = {};
  op.type = code;
  op.weight = 1.0;
  op.group_id = -1;
  op.wave = -1;
  op.hy = hy, op.px = px, op.py = py;
  return op;
}

MeritVariableDesc variable(unsigned kind, int surface, int coefficient = 0) {
  MeritVariableDesc v = {};
  v.kind = kind;
  v.surface = surface;
  v.coefficient = coefficient;
  return v;
}

// One system, its merit function and variables, and every buffer of the call.
struct Problem {
  System sys;
  SystemConfig cfg = {};
  std::vector<double> wavelengths = {0.5876};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<MeritPickupDesc> pickups;
  std::vector<double> residuals, jacobian;
  std::vector<double> steps;  // central-difference steps where the rule does not fit
  double walk_noise = 0.0;    // where an even asphere is met: its walk stops within 1e-12 mm
  int count = 0;

  int waves() const { return static_cast<int>(wavelengths.size()); }
  int call(int mode, int threads, std::vector<SurfaceData> const* surfaces = nullptr,
           bool with_variables = true, bool sd_buffers = true) {
    std::vector<SurfaceData> const& s = surfaces != nullptr ? *surfaces : sys.surfaces;
    int const n = sys.count(), m = static_cast<int>(ops.size());
    int const nv = with_variables ? static_cast<int>(vars.size()) : 0;
    std::vector<MeritResult> results(m + 1);
    std::vector<SurfaceData> work(static_cast<size_t>(n) * threads);
    std::vector<FieldData> work_fields(fields.size() * threads + 1);
    std::vector<MeritResult> thread_results(static_cast<size_t>(m + 1) * threads);
    std::vector<double> thread_residuals(static_cast<size_t>(2 * m + 1) * threads);
    residuals.assign(2 * m + 1, 0.0);
    if (jacobian.size() < static_cast<size_t>(2 * m + 1) * (nv + 1)) {
      jacobian.assign(static_cast<size_t>(2 * m + 1) * (nv + 1), 0.0);
    }
    double merit = 0.0, sd = 0.0, a = 0.0, b = 0.0;
    int rows = 0;
    return nuvrix_evaluate_merit_and_jacobian(
        s.data(), n, sys.indices.data(), wavelengths.data(), waves(), &cfg, fields.data(),
        static_cast<int>(fields.size()), ops.data(), m, vars.data(), nv, pickups.data(),
        static_cast<int>(pickups.size()), mode, threads > 1, threads, results.data(),
        residuals.data(), work.data(), work_fields.data(), thread_results.data(),
        thread_residuals.data(), jacobian.data(), &count, &merit, sd_buffers ? &sd : nullptr,
        &rows, &a, &b, nullptr);
  }
  double J(int r, int v) const { return jacobian[static_cast<size_t>(r) * vars.size() + v]; }

  // Residuals with variable v moved by e in its unbounded x.
  // The unbounded x of variable v in the system as given.
  double unbounded(int v) const {
    MeritVariableDesc const& var = vars[v];
    // The model glass reads as 0 although it writes: take it from the record.
    SurfaceData const& at = sys.surfaces[var.surface];
    double const glass[3] = {at.model_nd, at.model_vd, at.model_dpgf};
    double const p = var.kind >= 9 && var.kind <= 11
                         ? glass[var.kind - 9]
                         : nuvrix::read_variable_value(var, sys.surfaces.data(), sys.count(),
                                                       fields.data(),
                                                       static_cast<int>(fields.size()));
    return nuvrix::transform_to_unbounded(p, var.has_lower, var.lower, var.has_upper, var.upper);
  }
  std::vector<double> residuals_at(int v, double e) {
    std::vector<SurfaceData> s = sys.surfaces;
    MeritVariableDesc const& var = vars[v];
    double const q = nuvrix::transform_to_physical(unbounded(v) + e, var.has_lower, var.lower,
                                                   var.has_upper, var.upper);
    nuvrix::apply_variable_value(var, q, s.data(), sys.count(), fields.data(),
                                 static_cast<int>(fields.size()));
    // A host keeps the index table in step with the model glass.
    std::vector<double> const table = sys.indices;
    for (int w = 0; w < waves(); ++w) {
      for (int i = 0; i < sys.count(); ++i) {
        SurfaceData const& g = s[i];
        if (g.model_glass == 0) continue;
        sys.indices[w * sys.count() + i] = nuvrix::model_index<double>(
            wavelengths[w] * 1000.0, g.model_nd, g.model_vd, g.model_dpgf);
      }
    }
    EXPECT_EQ(call(0, 1, &s, false), 0);
    sys.indices = table;
    return std::vector<double>(residuals.begin(), residuals.begin() + count);
  }

  // The analytic Jacobian against central differences of the residuals,
  // step h = relative max(|x|, 1e-3) in x: the difference is exact to
  // O(h^2) and carries a rounding error of about 1e-16 |r| / h, which sets
  // the absolute floor.
  void expect_analytic_matches_central(double relative, double floor) {
    ASSERT_EQ(call(1, 1), 0);
    std::vector<double> const analytic = jacobian;
    int const rows = count;
    for (size_t v = 0; v < vars.size(); ++v) {
      double h = relative * std::fmax(std::fabs(unbounded(static_cast<int>(v))), 1e-3);
      if (v < steps.size() && steps[v] > 0.0) h = steps[v];
      std::vector<double> const plus = residuals_at(static_cast<int>(v), h);
      std::vector<double> const minus = residuals_at(static_cast<int>(v), -h);
      ASSERT_EQ(static_cast<int>(plus.size()), rows);
      for (int r = 0; r < rows; ++r) {
        double const c = (plus[r] - minus[r]) / (2.0 * h);
        double const a = analytic[static_cast<size_t>(r) * vars.size() + v];
        EXPECT_NEAR(a, c, 1e-6 * std::fabs(c) + floor + walk_noise / (2.0 * h))
            << "row " << r << " variable " << v;
      }
    }
  }
};

void add_ray_grid(Problem& p, unsigned code_x, unsigned code_y) {
  double const hys[3] = {0.0, 0.7, 1.0};
  double const pupil[5][2] = {{0.0, 0.0}, {0.0, 1.0}, {0.0, -0.7}, {1.0, 0.0}, {0.5, 0.5}};
  for (int f = 0; f < 3; ++f) {
    for (auto const& q : pupil) {
      p.ops.push_back(operand(code_x, hys[f], q[0], q[1]));
      p.ops.back().centroid_tag = f;
      p.ops.push_back(operand(code_y, hys[f], q[0], q[1]));
      p.ops.back().centroid_tag = f;
    }
  }
}

// The Cooke triplet with transverse rays (centroid removed), its focal
// length, edge and thickness bounds; nine variables (six curvatures, three
// thicknesses), so that the second analytic pass carries one.
Problem cooke_problem() {
  Problem p;
  p.sys = cooke_triplet();
  for (int i : {1, 3, 5}) p.sys.surfaces[i].is_glass = 1;
  p.cfg.stop_surface = kCookeStop;
  p.cfg.aperture_value = 10.0;
  add_ray_grid(p, 70, 71);
  p.ops.push_back(operand(50));
  p.ops.back().target = 50.0;
  MeritOperandDesc edge = operand(44);  // the edge of the air spaces, at least 3 mm
  edge.surface_first = 1, edge.surface_last = 5, edge.has_lower = 1, edge.lower = 3.0;
  p.ops.push_back(edge);
  MeritOperandDesc glass = operand(89);  // the centre of the glass, at least 4 mm
  glass.surface_first = 1, glass.surface_last = 6, glass.has_lower = 1, glass.lower = 4.0;
  p.ops.push_back(glass);
  for (int i = 1; i <= 6; ++i) p.vars.push_back(variable(0, i));
  for (int i : {2, 4, 6}) p.vars.push_back(variable(1, i));
  return p;
}

}  // namespace

// A thick singlet in air: 1/f = (n-1)(c1 - c2) + (n-1)^2 t c1 c2 / n, so
// df/dc1 = -f^2 [(n-1) + (n-1)^2 t c2 / n].
TEST(MeritJacobian, ForwardDifferenceOfTheFocalLengthMatchesTheLensmakerFormula) {
  Problem p;
  double const n = 1.5168, t = 6.0, c1 = 1.0 / 40.0, c2 = -1.0 / 60.0;
  p.sys = make_system({0.0, 40.0, -60.0, 0.0}, {1e10, t, 50.0, 0.0}, {1.0, n, 1.0, 1.0});
  p.cfg.stop_surface = 1;
  p.cfg.aperture_value = 10.0;
  p.ops.push_back(operand(50));
  p.vars.push_back(variable(0, 1));
  ASSERT_EQ(p.call(0, 1), 0);
  double const power = (n - 1.0) * (c1 - c2) + (n - 1.0) * (n - 1.0) * t * c1 * c2 / n;
  double const f = 1.0 / power;
  double const want = -f * f * ((n - 1.0) + (n - 1.0) * (n - 1.0) * t * c2 / n);
  // Forward step 1e-8 in c: the truncation error is f'' h / 2, about 1e-5 relative here.
  EXPECT_NEAR(p.J(0, 0), want, 2e-5 * std::fabs(want));
  ASSERT_EQ(p.call(1, 1), 0);
  EXPECT_NEAR(p.J(0, 0), want, 1e-10 * std::fabs(want));
}

TEST(MeritJacobian, FiniteDifferencesDoNotDependOnTheThreadCount) {
  Problem p = cooke_problem();
  p.vars.push_back(variable(7, 3));  // a semi-diameter: central difference
  ASSERT_EQ(p.call(0, 1), 0);
  std::vector<double> const one = p.jacobian;
  ASSERT_EQ(p.call(0, 2), 0);
  for (size_t k = 0; k < one.size(); ++k) ASSERT_EQ(one[k], p.jacobian[k]) << k;
}

TEST(MeritJacobian, AnalyticMatchesCentralDifferencesOnTheCookeTriplet) {
  Problem p = cooke_problem();
  p.expect_analytic_matches_central(1e-5, 1e-7);
}

TEST(MeritJacobian, AnalyticFollowsTheAimedLaunch) {
  for (int mode : {1, 2}) {
    Problem p;
    p.sys = retrofocus();
    p.cfg.stop_surface = kRetrofocusStop;
    p.cfg.aperture_value = 6.0;
    p.cfg.ray_aiming = mode;
    p.fields = {{0.0, 0.0, 0.0}, {25.0, 0.0, 0.0}};
    for (double hy : {0.0, 1.0}) {
      for (double py : {1.0, -1.0}) {
        p.ops.push_back(operand(1, hy, 0.0, py));
        p.ops.push_back(operand(71, hy, 0.0, py));
      }
    }
    for (int i = 1; i <= 5; ++i) p.vars.push_back(variable(0, i));
    p.vars.push_back(variable(1, 2));
    SCOPED_TRACE(mode);
    p.expect_analytic_matches_central(1e-5, 1e-7);
    // Without the implicit-function correction the launch would stay
    // where the aim put it, and the rows of the aimed field would be wrong.
    std::vector<double> const corrected = p.jacobian;
    std::vector<double> fixed(corrected.size(), 0.0), residuals(2 * p.ops.size());
    std::vector<MeritResult> results(p.ops.size());
    std::vector<SurfaceData> work(p.sys.surfaces);
    std::vector<FieldData> work_fields(p.fields);
    int rows = 0;
    double merit = 0.0;
    ASSERT_EQ(nuvrix::detail::analytic_jacobian(
                  p.sys.surfaces.data(), p.sys.count(), p.sys.indices.data(),
                  p.wavelengths.data(), 1, &p.cfg, p.fields.data(), 2, p.ops.data(),
                  static_cast<int>(p.ops.size()), p.vars.data(), static_cast<int>(p.vars.size()),
                  nullptr, 0, results.data(), residuals.data(), work.data(), work_fields.data(),
                  fixed.data(), &rows, &merit, false),
              0);
    double worst = 0.0;
    for (int k = 0; k < rows * static_cast<int>(p.vars.size()); ++k) {
      worst = std::fmax(worst, std::fabs(fixed[k] - corrected[k]) / (std::fabs(corrected[k]) + 1e-3));
    }
    EXPECT_GT(worst, 0.05);
  }
}

TEST(MeritJacobian, AnalyticMatchesCentralDifferencesAcrossSystems) {
  // An even asphere with its coefficients and conic as variables.
  Problem asphere;
  asphere.sys = eight_term_asphere();
  asphere.cfg.stop_surface = 1;
  asphere.cfg.aperture_value = 12.0;
  asphere.fields = {{0.0, 0.0, 0.0}, {5.0, 0.0, 0.0}};
  add_ray_grid(asphere, 72, 73);
  asphere.sys.surfaces[1].coefficients[3] = 0.0;  // a term that a variable starts at 0
  asphere.vars = {variable(0, 1), variable(2, 1), variable(3, 1, 0), variable(3, 1, 1),
                  variable(3, 1, 3), variable(1, 2)};
  // Term j moves the sag by its step times r^(2j+2), r up to 6 mm here:
  // steps that move it by about 1e-8 mm.
  asphere.steps = {0.0, 0.0, 3e-10, 1e-11, 1e-14};
  asphere.walk_noise = 1e-12;
  asphere.expect_analytic_matches_central(1e-5, 1e-7);

  // A finite-conjugate relay with a height field.
  Problem relay;
  relay.sys = finite_relay();
  relay.cfg.stop_surface = kFiniteRelayStop;
  relay.cfg.aperture_value = 8.0;
  relay.cfg.field_type = 1;
  relay.fields = {{0.0, 0.0, 0.0}, {5.0, 0.0, 0.0}};
  add_ray_grid(relay, 70, 71);
  relay.vars = {variable(0, 1), variable(0, 2), variable(1, 0), variable(1, 3)};
  relay.expect_analytic_matches_central(1e-5, 1e-7);
}

// Where the dual rays give the plain values to the bit, the analytic call
// forms its residuals from them instead of tracing the rays again: they
// must be the plain driver's residuals, bit for bit.
TEST(MeritJacobian, AnalyticResidualsAreThePlainOnes) {
  Problem cooke = cooke_problem();
  Problem aimed;
  aimed.sys = retrofocus();
  aimed.cfg.stop_surface = kRetrofocusStop;
  aimed.cfg.aperture_value = 6.0;
  aimed.cfg.ray_aiming = 1;
  aimed.fields = {{0.0, 0.0, 0.0}, {25.0, 0.0, 0.0}};
  add_ray_grid(aimed, 72, 73);
  aimed.ops.push_back(operand(1, 1.0, 0.0, 1.0));
  aimed.vars = {variable(0, 1), variable(1, 2)};
  for (Problem* p : {&cooke, &aimed}) {
    ASSERT_EQ(p->call(0, 1, nullptr, false), 0);  // the plain driver only
    std::vector<double> const plain(p->residuals.begin(), p->residuals.begin() + p->count);
    ASSERT_EQ(p->call(1, 1), 0);
    ASSERT_EQ(p->count, static_cast<int>(plain.size()));
    for (int r = 0; r < p->count; ++r) EXPECT_EQ(p->residuals[r], plain[r]) << r;
  }
}

TEST(MeritJacobian, ModelGlassVariablesReachTheWavefront) {
  Problem p;
  p.sys = make_system({0.0, 40.0, -60.0, 0.0}, {1e10, 6.0, 60.0, 0.0}, {1.0, 1.5168, 1.0, 1.0});
  SurfaceData& g = p.sys.surfaces[1];
  g.model_glass = 1, g.model_nd = 1.5168, g.model_vd = 64.17, g.model_dpgf = 0.0;
  p.sys.indices[1] = nuvrix::model_index<double>(587.6, 1.5168, 64.17, 0.0);
  p.cfg.stop_surface = 1;
  p.cfg.aperture_value = 10.0;
  p.fields = {{0.0, 0.0, 0.0}, {3.0, 0.0, 0.0}};
  for (double hy : {0.0, 1.0}) {
    for (double py : {1.0, 0.5, -0.7}) p.ops.push_back(operand(69, hy, 0.0, py));
  }
  MeritOperandDesc nd = operand(101);  // nd at most 1.5
  nd.surface_first = 1, nd.surface_last = 1, nd.has_upper = 1, nd.upper = 1.5;
  p.ops.push_back(nd);
  p.vars = {variable(9, 1), variable(10, 1), variable(0, 2)};
  p.expect_analytic_matches_central(1e-4, 1e-6);
}

TEST(MeritJacobian, BoundedVariablesAndBoundOperands) {
  Problem p = cooke_problem();
  // A curvature on its lower bound still has a finite, matching column: the
  // transform keeps it inside by a margin.
  p.vars.resize(3);
  p.vars[0].has_lower = 1, p.vars[0].lower = p.sys.surfaces[1].curvature;
  p.vars[0].has_upper = 1, p.vars[0].upper = 0.1;
  p.vars[2].has_lower = 1, p.vars[2].lower = -1.0;
  p.expect_analytic_matches_central(1e-5, 1e-7);
  for (size_t r = 0; r < static_cast<size_t>(p.count); ++r) ASSERT_TRUE(std::isfinite(p.J(r, 0)));
  // A bound operand inside its bounds has a zero row though its value moves.
  Problem q = cooke_problem();
  q.ops.push_back(operand(50));
  q.ops.back().has_lower = 1, q.ops.back().lower = 10.0;
  ASSERT_EQ(q.call(1, 1), 0);
  for (size_t v = 0; v < q.vars.size(); ++v) EXPECT_EQ(q.J(q.count - 1, v), 0.0);
}

TEST(MeritJacobian, CallRules) {
  Problem p = cooke_problem();
  EXPECT_EQ(p.call(2, 1), -2);
  EXPECT_EQ(p.call(1, 1, nullptr, true, false), -2);  // analytic without its buffers
  p.vars.push_back(variable(5, 1));
  EXPECT_EQ(p.call(7, 1), -3);  // kind 5 is checked first
  p.vars.pop_back();
  // Zero variables: the base evaluation only, the Jacobian untouched.
  p.jacobian.assign(p.jacobian.size(), 42.0);
  std::vector<double> const before = p.jacobian;
  for (int mode : {0, 1}) {
    EXPECT_EQ(p.call(mode, 1, nullptr, false), 0);
    EXPECT_GT(p.count, 0);
    EXPECT_EQ(p.jacobian, before);
  }
  // An operand without an evaluator: its count, nothing formed.
  Problem u = cooke_problem();
  u.ops.push_back(operand(20));
  EXPECT_EQ(u.call(0, 1), 1);
}

TEST(MeritJacobian, AnalyticAcceptance) {
  struct Case {
    const char* what;
    int want;
    void (*edit)(Problem&);
  } const cases[] = {
      {"code 59", -2, [](Problem& p) { p.ops.push_back(operand(59)); }},
      {"composite over 50 and 70", -2,
       [](Problem& p) {
         MeritOperandDesc c = operand(31);
         c.operand_a = static_cast<int>(p.ops.size()) - 3;  // the focal length
         c.operand_b = 0;                                    // a transverse ray
         p.ops.push_back(c);
       }},
      {"composite with a reference out of range", 0,
       [](Problem& p) {
         MeritOperandDesc c = operand(31);
         c.operand_a = 9999, c.operand_b = static_cast<int>(p.ops.size()) - 3;
         p.ops.push_back(c);
       }},
      {"Seidel with a ray operand and a conic variable", -2,
       [](Problem& p) {
         p.ops.push_back(operand(80));
         p.vars.push_back(variable(2, 1));
       }},
      {"Seidel alone with a conic variable", 0,
       [](Problem& p) {
         p.ops = {operand(80)};
         p.vars.push_back(variable(2, 1));
       }},
      {"a sine transform", -2, [](Problem& p) { p.ops[0].transform = 1; }},
      {"aim mode 3", -2, [](Problem& p) { p.cfg.ray_aiming = 3; }},
  };
  for (Case const& c : cases) {
    Problem p = cooke_problem();
    c.edit(p);
    EXPECT_EQ(p.call(1, 1), c.want) << c.what;
    EXPECT_EQ(p.call(0, 1), 0) << c.what;  // finite differences take everything
  }
}
