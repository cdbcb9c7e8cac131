// Several host threads call the engine at once, each with outputs of its
// own, while the analyses open OpenMP teams of their own inside each call.
// Every result must equal that of the same call made alone: bit for bit
// where the order of the sums is fixed, to the last digits where rays merge
// in whatever order the threads finish.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>
#include <vector>

#include "tests/image_quality_hosts.hpp"

using namespace nuvrix_test;

namespace {

constexpr int kGrid = 16;

// Everything one round of calls produces, on the Cooke triplet at the
// field of index `field`.
struct Round {
  RayTraceResult ray;
  RayState states[256];
  ParaxialSolveResult solve;
  ParaxialRayState marginal[256], chief[256];
  double efl, bfl;
  SpotDiagramResult spot_fixed, spot_parallel;
  SpotRayHit hits[400];
  int spot_status, map_status;
  double map[kGrid * kGrid];
  int mask[kGrid * kGrid];
  WavefrontResult wavefront;
};

Host cooke_host() {
  System sys = cooke_triplet();
  sys.surfaces[0].thickness = INFINITY;  // the wavefront map needs a true infinity
  Host h(sys, 3, 12.5, kCookeStop, {0.0, 14.0, 20.0});
  h.cfg.ray_aiming = 1;
  return h;
}

void run_round(Host const& h, int field, Round& out) {
  int const n = h.sys.count();
  out.ray = nuvrix_trace_ray_full(h.s(), n, h.rows(), out.states, 1, 0, 0.5, 2.0 + field, 0.0,
                                  0.05 * field, std::sqrt(1.0 - 0.0025 * field * field), 587.6);
  out.solve = nuvrix_paraxial_solve(h.s(), n, h.rows(), &h.cfg, h.fields.data(), h.nf(),
                                    out.marginal, out.chief);
  out.efl = nuvrix_calculate_efl(h.s(), n, h.rows());
  out.bfl = nuvrix_calculate_bfl(h.s(), n, h.rows());
  out.spot_status = h.spot_rays(field, 6, 1, out.hits, 400, &out.spot_fixed);
  h.spot(field, 6, 1, &out.spot_parallel);
  out.map_status = nuvrix_compute_wavefront_map(h.s(), n, h.rows(), h.rows(), 0.5876, &h.cfg,
                                                h.fields.data(), h.nf(), field, kGrid, 60.0,
                                                out.map, out.mask, &out.wavefront);
}

// Bitwise equality of the fields of a state (records with padding are
// compared field by field: padding bytes carry no value).
bool same_state(RayState const& a, RayState const& b) {
  return same_bytes(&a.x, &b.x, 10 * sizeof(double)) && a.status == b.status;
}

bool same_ray(RayTraceResult const& a, RayTraceResult const& b) {
  return same_bytes(&a.x, &b.x, 10 * sizeof(double)) && a.status == b.status &&
         same_bytes(&a.opl, &b.opl, 2 * sizeof(double)) && a.valid == b.valid &&
         a.states_written == b.states_written && a.failed_surface == b.failed_surface &&
         same_bytes(&a.violation, &b.violation, sizeof(double));
}

::testing::AssertionResult same_round(Round const& a, Round const& b) {
  auto bits = [](void const* x, void const* y, size_t size) { return same_bytes(x, y, size); };
  bool rays = same_ray(a.ray, b.ray);
  for (int k = 0; k < a.ray.states_written; ++k) rays = rays && same_state(a.states[k], b.states[k]);
  if (!rays) return ::testing::AssertionFailure() << "real ray";
  if (!bits(&a.solve, &b.solve, sizeof a.solve) || !bits(a.marginal, b.marginal, sizeof a.marginal) ||
      !bits(a.chief, b.chief, sizeof a.chief) || a.efl != b.efl || a.bfl != b.bfl) {
    return ::testing::AssertionFailure() << "first order";
  }
  if (a.spot_status != b.spot_status || !bits(&a.spot_fixed, &b.spot_fixed, sizeof a.spot_fixed) ||
      !bits(a.hits, b.hits, sizeof a.hits)) {
    return ::testing::AssertionFailure() << "fixed-order spot diagram";
  }
  double const* pa = &a.spot_parallel.rms_radius;
  double const* pb = &b.spot_parallel.rms_radius;
  if (a.spot_parallel.ray_count != b.spot_parallel.ray_count ||
      std::fabs(*pa - *pb) > 1e-13 * std::fabs(*pa)) {
    return ::testing::AssertionFailure() << "parallel spot diagram";
  }
  // Each sample owns its record; only the rms is a sum of unfixed order.
  if (a.map_status != b.map_status || !bits(a.map, b.map, sizeof a.map) ||
      !bits(a.mask, b.mask, sizeof a.mask) ||
      a.wavefront.peak_to_valley != b.wavefront.peak_to_valley ||
      std::fabs(a.wavefront.rms - b.wavefront.rms) > 1e-12 * a.wavefront.rms) {
    return ::testing::AssertionFailure() << "wavefront map";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

TEST(Concurrency, HostThreadsGetTheResultsOfLoneCalls) {
  Host const h = cooke_host();
  std::vector<Round> lone(3);
  for (int f = 0; f < 3; ++f) {
    std::memset(static_cast<void*>(&lone[f]), 0, sizeof(Round));
    run_round(h, f, lone[f]);
    ASSERT_EQ(lone[f].spot_status, 0);
    ASSERT_EQ(lone[f].map_status, 0);
  }
  int const threads = 4, rounds = 3;
  std::vector<Round> got(threads);
  std::atomic<int> mismatches{0};
  std::vector<std::thread> pool;
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      for (int r = 0; r < rounds; ++r) {
        int const field = (t + r) % 3;
        std::memset(static_cast<void*>(&got[t]), 0, sizeof(Round));
        run_round(h, field, got[t]);
        ::testing::AssertionResult const same = same_round(got[t], lone[field]);
        if (!same) {
          ++mismatches;
          ADD_FAILURE() << "thread " << t << " field " << field << ": " << same.message();
        }
      }
    });
  }
  for (std::thread& th : pool) th.join();
  EXPECT_EQ(mismatches.load(), 0);
}
