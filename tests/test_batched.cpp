// The batch against the single calls: every candidate of a batch equals
// the merit and the Jacobian of its own system evaluated alone, bit for
// bit, at any thread count; and the batch's call rules.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "merit/variable_transform.hpp"
#include "tests/systems.hpp"

using namespace nuvrix_test;

namespace {

MeritOperandDesc operand(unsigned code, double hy = 0.0, double px = 0.0, double py = 0.0) {
  MeritOperandDesc op = {};
  op.type = code, op.weight = 1.0, op.group_id = -1, op.wave = -1;
  op.hy = hy, op.px = px, op.py = py;
  return op;
}

// The Cooke triplet with transverse rays (centroid taken out), its focal
// length and an edge bound; six curvatures and two bounded thicknesses,
// the last air space picked up from the first; a population of candidates
// spread around the lens in the optimiser's unbounded coordinates.
struct Batch {
  System sys = cooke_triplet();
  SystemConfig cfg = {};
  std::vector<double> waves = {0.5876};
  std::vector<FieldData> fields = {{0.0, 0.0, 0.0}, {14.0, 0.0, 0.0}, {20.0, 0.0, 0.0}};
  std::vector<MeritOperandDesc> ops;
  std::vector<MeritVariableDesc> vars;
  std::vector<MeritPickupDesc> pickups = {{6, 2, 1, 1.0, 38.0}};
  std::vector<double> x;
  int C = 7;
  // Outputs of the last batch.
  std::vector<double> residuals, jacobians, merits;
  std::vector<MeritResult> results;
  int count = -1;

  Batch() {
    for (int i : {1, 3, 5}) sys.surfaces[i].is_glass = 1;
    cfg.stop_surface = kCookeStop, cfg.aperture_value = 10.0;
    for (double hy : {0.0, 1.0}) {
      for (double py : {1.0, -0.7, 0.3}) {
        ops.push_back(operand(71, hy, 0.0, py));
        ops.push_back(operand(70, hy, 0.5, py));
      }
    }
    ops.push_back(operand(50)), ops.back().target = 50.0;
    MeritOperandDesc edge = operand(44);
    edge.surface_first = 1, edge.surface_last = 5, edge.has_lower = 1, edge.lower = 3.0;
    ops.push_back(edge);
    for (int i = 1; i <= 6; ++i) vars.push_back({0, i, -1, 0, 0, 0, 0, 0, 0.0, 0.0});
    for (int i : {2, 4}) vars.push_back({1, i, -1, 0, 0, 0, 1, 1, 0.5, 12.0});
    for (int c = 0; c < C; ++c) {
      for (size_t v = 0; v < vars.size(); ++v) {
        MeritVariableDesc const& var = vars[v];
        double const p = sys.surfaces[var.surface].curvature * (var.kind == 0) +
                         sys.surfaces[var.surface].thickness * (var.kind == 1);
        double const spread = var.kind == 0 ? 0.002 * std::sin(1.3 * c + v) : 0.4 * std::cos(c + 2.0 * v);
        x.push_back(nuvrix::transform_to_unbounded(p + spread, var.has_lower, var.lower,
                                                   var.has_upper, var.upper));
      }
    }
  }
  int V() const { return static_cast<int>(vars.size()); }
  int M() const { return static_cast<int>(ops.size()); }

  int run(MeritBatchedConfig b, long scratch_bytes = -1, int candidates = -1) {
    int const n = sys.count(), F = static_cast<int>(fields.size());
    int const cc = candidates < 0 ? C : candidates;
    long const need = nuvrix_batched_scratch_size(C, n, F, M(), V(), 0, 0);
    std::vector<double> scratch(static_cast<size_t>(need) / 8 + 2);
    residuals.assign(static_cast<size_t>(C) * 2 * M(), 7.0);
    jacobians.assign(residuals.size() * V(), 7.0);
    merits.assign(C, 7.0);
    results.assign(static_cast<size_t>(C) * M(), {7.0, 7});
    double sd = 0.0, a = 0.0, bb = 0.0;
    int rows = 0;
    return nuvrix_evaluate_merit_batched(
        sys.surfaces.data(), n, sys.indices.data(), waves.data(), 1, &cfg, fields.data(), F,
        ops.data(), M(), vars.data(), V(), pickups.data(), static_cast<int>(pickups.size()), cc,
        x.data(), residuals.data(), jacobians.data(), results.data(), merits.data(), &count, b,
        scratch.data(), scratch_bytes < 0 ? need : scratch_bytes, &sd, &rows, &a, &bb, nullptr);
  }

  // Candidate c's system, as a host would place it.
  std::vector<SurfaceData> candidate(int c) const {
    std::vector<SurfaceData> s = sys.surfaces;
    for (int v = 0; v < V(); ++v) {
      MeritVariableDesc const& var = vars[v];
      double const p = nuvrix::transform_to_physical(x[c * V() + v], var.has_lower, var.lower,
                                                     var.has_upper, var.upper);
      nuvrix::apply_variable_value(var, p, s.data(), sys.count(), nullptr, 0);
    }
    return s;
  }

  // The batch's candidate c against the single calls on its system.
  void expect_candidate(int c, bool jacobian, int mode, int status = 0) {
    int const n = sys.count(), F = static_cast<int>(fields.size()), R = 2 * M();
    std::vector<SurfaceData> s = candidate(c);
    std::vector<MeritResult> r(M());
    std::vector<double> res(R), jac(static_cast<size_t>(R) * V());
    double merit = 0.0;
    int rows = 0;
    if (jacobian) {
      std::vector<SurfaceData> work(n);
      std::vector<FieldData> wf(F);
      std::vector<MeritResult> tr(M());
      std::vector<double> tres(R);
      double sd = 0.0, a = 0.0, b = 0.0;
      int sr = 0;
      ASSERT_EQ(nuvrix_evaluate_merit_and_jacobian(
                    s.data(), n, sys.indices.data(), waves.data(), 1, &cfg, fields.data(), F,
                    ops.data(), M(), vars.data(), V(), pickups.data(), 1, mode, 0, 1, r.data(),
                    res.data(), work.data(), wf.data(), tr.data(), tres.data(), jac.data(), &rows,
                    &merit, &sd, &sr, &a, &b, nullptr),
                0);
    } else {
      nuvrix::apply_pickups(s.data(), n, pickups.data(), 1);
      std::vector<FieldData> f = fields;
      nuvrix_solve_semi_diameters(s.data(), n, sys.indices.data(), waves.data(), 1, &cfg,
                                  f.data(), F);
      ASSERT_EQ(nuvrix_evaluate_merit(s.data(), n, sys.indices.data(), waves.data(), 1, &cfg,
                                      f.data(), F, ops.data(), M(), r.data(), res.data(), &rows,
                                      &merit),
                status);
    }
    if (c == 0) {
      EXPECT_EQ(count, rows);
    }
    EXPECT_EQ(merits[c], merit) << c;
    for (int i = 0; i < M(); ++i) {
      EXPECT_EQ(results[c * M() + i].value, r[i].value) << c << " " << i;
      EXPECT_EQ(results[c * M() + i].status, r[i].status);
    }
    for (int k = 0; k < rows; ++k) EXPECT_EQ(residuals[c * R + k], res[k]) << c << " " << k;
    for (int k = 0; jacobian && k < rows * V(); ++k) {
      ASSERT_EQ(jacobians[static_cast<size_t>(c) * R * V() + k], jac[k]) << c << " " << k;
    }
  }
};

}  // namespace

TEST(Batched, EveryCandidateEqualsItsSingleEvaluationAtAnyThreadCount) {
  Batch b;
  for (int threads : {1, 2, -1}) {
    for (int want : {0, 1, 3}) {  // only the lowest bit of want_jacobian counts
      for (int mode : {0, 1}) {
        if (want == 0 && mode == 1) continue;
        ASSERT_EQ(b.run({0, mode, threads, want, {}}), 0);
        for (int c = 0; c < b.C; ++c) b.expect_candidate(c, want != 0, mode);
      }
    }
  }
}

TEST(Batched, CallRules) {
  Batch b;
  int const n = b.sys.count(), F = static_cast<int>(b.fields.size());
  MeritBatchedConfig const plain = {0, 0, 2, 0, {}};
  // No candidates: 0, nothing touched.
  ASSERT_EQ(b.run(plain, -1, 0), 0);
  EXPECT_EQ(b.merits, std::vector<double>(b.C, 7.0));
  EXPECT_EQ(b.count, -1);
  // The CPU size is two copies of the surfaces and two of the fields, each
  // step rounded up to 16 bytes; one byte less is refused.
  long const step = (200L * n + 15) / 16 * 16 * 2 + (24L * F + 15) / 16 * 16 * 2;
  EXPECT_GE(nuvrix_batched_scratch_size(b.C, n, F, b.M(), b.V(), 0, 0), step * b.C);
  // Many fields: the CPU size wins; many operands: the mixed run's
  // 4096 + 8 (5 + 16 + 1 + 70 + 35 + 1536 + 2 + 80 + 30 + 448 + 220).
  EXPECT_EQ(nuvrix_batched_scratch_size(1, 8, 10000, 1, 1, 5, 5), 2 * 1600 + 2 * 240000);
  EXPECT_EQ(nuvrix_batched_scratch_size(1, 8, 1, 10, 4, 0, 0), 23640);
  EXPECT_EQ(nuvrix_batched_scratch_size(0, n, F, 1, 1, 0, 0), 0);
  EXPECT_EQ(b.run(plain, step * b.C - 1), -2);
  EXPECT_EQ(b.run(plain, step * b.C), 0);
  // Kind 5 anywhere: -3.
  b.vars.push_back({5, 1, -1, 0, 0, 0, 0, 0, 0.0, 0.0});
  for (int c = b.C - 1; c >= 0; --c) b.x.insert(b.x.begin() + (c + 1) * (b.V() - 1), 0.0);
  EXPECT_EQ(b.run(plain), -3);
  // Zero variables: every candidate is the base system.
  Batch z;
  z.vars.clear();
  ASSERT_EQ(z.run(plain), 0);
  for (int c = 1; c < z.C; ++c) EXPECT_EQ(z.merits[c], z.merits[0]);
  // An operand without an evaluator: every candidate still completes, and
  // the batch returns the single call's count.
  Batch u;
  u.ops.push_back(operand(20));
  ASSERT_EQ(u.run(plain), 1);
  for (int c = 0; c < u.C; ++c) EXPECT_NE(u.merits[c], 7.0);
  for (int c = 0; c < u.C; ++c) u.expect_candidate(c, false, 0, 1);
}
