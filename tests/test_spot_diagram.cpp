// Spot diagrams against geometric optics: a paraboloid images an axial point
// perfectly; a defocused ideal lens spreads the pupil into a disc whose
// discrete mean square radius follows from the sum of cubes; a plate shows
// lateral colour.  Also ray counts, statuses, hit storage and threads.
#include <gtest/gtest.h>
#include <omp.h>

#include <cstddef>

#include "tests/image_quality_hosts.hpp"
#include "trace/material.hpp"

using namespace nuvrix_test;

namespace {

// Mean rho^2 over a hexapolar grid of N rings, unit rim: sum 6 r (r / N)^2 =
// 6 (N (N + 1) / 2)^2 / N^2 over 1 + 3 N (N + 1) rays; it tends to 1/2.
double hexapolar_mean_rho2(int N) { return 1.5 * (N + 1) * (N + 1) / (1.0 + 3.0 * N * (N + 1)); }

}  // namespace

TEST(SpotDiagram, ParaboloidImagesAxialPointToRounding) {
  Host const h(parabolic_mirror(100.0), 1, 40.0, 1, {0.0});
  SpotDiagramResult r;
  ASSERT_EQ(h.spot(0, 8, 1, &r), 0);
  EXPECT_EQ(r.ray_count, 1 + 3 * 8 * 9);
  EXPECT_LT(r.geo_radius, 1e-12);
  EXPECT_LT(r.rms_radius, 1e-12);
}

TEST(SpotDiagram, DefocusGivesGeometricBlurDisc) {
  Host const h = defocused_lens(3);
  SpotDiagramResult r;
  for (int field : {0, 1}) {
    for (int N : {1, 4, 10}) {
      ASSERT_EQ(h.spot(field, N, 1, &r), 0);
      EXPECT_EQ(r.ray_count, 3 * (1 + 3 * N * (N + 1)));
      double const rms = kA * std::sqrt(hexapolar_mean_rho2(N));
      EXPECT_NEAR(r.rms_radius, rms, 1e-13);
      EXPECT_NEAR(r.rms_x, rms / std::sqrt(2.0), 1e-13);  // 6 r angles: mean cos^2 = 1/2
      EXPECT_NEAR(r.rms_y, rms / std::sqrt(2.0), 1e-13);
      EXPECT_NEAR(r.geo_radius, kA, 1e-13);
      EXPECT_NEAR(r.centroid_y, r.chief_y, 1e-13);
    }
  }
  EXPECT_NEAR(r.chief_y, (kF + kDz) * std::tan(5.0 * M_PI / 180.0), 1e-12);
  // A fine grid fills the disc uniformly: rms tends to a / sqrt(2) from above as 1 / (2N).
  ASSERT_EQ(h.spot(0, 150, 1, &r), 0);
  EXPECT_GT(r.rms_radius, kA / std::sqrt(2.0));
  EXPECT_LT(r.rms_radius / (kA / std::sqrt(2.0)) - 1.0, 1.0 / 300.0);
  // Fewer than one ring: the central ray alone.
  for (int N : {0, -2}) {
    ASSERT_EQ(h.spot(0, N, 1, &r), 0);
    EXPECT_EQ(r.ray_count, 3);
  }
}

TEST(SpotDiagram, RectangularGridKeepsCellCentresInsideThePupil) {
  Host const h = defocused_lens();
  SpotDiagramResult r;
  // Four cells across: centres at +-1/4, +-3/4; the four corners fall outside.
  ASSERT_EQ(h.spot(0, 4, 0, &r), 0);
  EXPECT_EQ(r.ray_count, 12);
  EXPECT_NEAR(r.rms_radius, kA * std::sqrt((4 * 0.125 + 8 * 0.625) / 12.0), 1e-13);
  EXPECT_NEAR(r.geo_radius, kA * std::sqrt(0.625), 1e-13);
  // One cell: the single sample (0, 0), the chief ray itself.
  SpotRayHit hit[2];
  ASSERT_EQ(h.spot_rays(1, 1, 7, hit, 2, &r), 0);
  EXPECT_EQ(r.ray_count, 1);
  EXPECT_EQ(r.rms_radius, 0.0);
  EXPECT_EQ(hit[0].y, r.chief_y);
}

TEST(SpotDiagram, VignettedRaysDropOutOfEverySum) {
  Host h = defocused_lens();
  h.sys.surfaces[1].aperture_radius = 0.9 * kR;  // clips the rim ring of 4 only
  SpotDiagramResult r;
  ASSERT_EQ(h.spot(0, 4, 1, &r), 0);
  EXPECT_EQ(r.ray_count, 1 + 6 * (1 + 2 + 3));
  double const sum_rho2 = 6.0 * (1 + 8 + 27) / 16.0;  // 6 r (r / 4)^2 over rings 1..3
  EXPECT_NEAR(r.rms_radius, kA * std::sqrt(sum_rho2 / r.ray_count), 1e-13);
  EXPECT_NEAR(r.geo_radius, 0.75 * kA, 1e-13);
}

TEST(SpotDiagram, RadiiFollowWeightsWhileCentroidIsPlainMean) {
  Plate p = dispersive_plate();
  int const N = 4;  // ring 4 has points at 90 and 270 degrees
  double const m2 = kR * kR * hexapolar_mean_rho2(N), d = p.delta;
  SpotDiagramResult r;
  p.host.weights = {1.0, 0.0};
  ASSERT_EQ(p.host.spot(0, N, 1, &r), 0);
  EXPECT_NEAR(r.rms_radius, std::sqrt(m2), 1e-12);
  EXPECT_NEAR(r.geo_radius, kR + std::fabs(d), 1e-12);
  EXPECT_NEAR(r.centroid_y - r.chief_y, d / 2, 1e-12);
  p.host.weights = {3.0, 3.0};
  ASSERT_EQ(p.host.spot(0, N, 1, &r), 0);
  EXPECT_NEAR(r.rms_radius, std::sqrt(m2 + d * d / 2), 1e-12);
  EXPECT_NEAR(r.rms_y, std::sqrt(m2 / 2 + d * d / 2), 1e-12);
  EXPECT_NEAR(r.rms_x, std::sqrt(m2 / 2), 1e-12);
  p.host.weights = {0.0, 0.0};  // 0 / 0: not guarded
  ASSERT_EQ(p.host.spot(0, N, 1, &r), 0);
  EXPECT_TRUE(std::isnan(r.rms_radius) && std::isnan(r.rms_x) && std::isnan(r.rms_y));
  EXPECT_NEAR(r.centroid_y - r.chief_y, d / 2, 1e-12);
}

TEST(SpotDiagram, StatusesLeaveResultAndHitsUntouched) {
  // Ideal lens, then a mask of radius 0.5 at 40 mm: it clips the 10-degree
  // chief ray and, on axis, the four rays of a 2 x 2 grid (0.2 of 3.5 mm high).
  System s = make_system({0, 0, 0, 0}, {1e10, 40.0, 10.0, 0}, {1, 1, 1, 1});
  s.surfaces[1].type = NUVRIX_SURFACE_PARAXIAL_LENS;
  s.surfaces[1].focal_length = kF;
  s.surfaces[2].aperture_radius = 0.5;
  Host const h(s, 1, 2 * kR, 1, {0.0, 10.0});
  struct Case {
    int field, grid, pattern, waves, status;
  };
  for (Case c : {Case{-1, 4, 1, 1, -1}, Case{2, 4, 1, 1, -1}, Case{1, 4, 1, 1, -2},
                 Case{0, 4, 1, 0, -3}, Case{0, 2, 0, 1, -3}}) {
    auto r = marked<SpotDiagramResult>(1);
    auto hits = marked<SpotRayHit>(4);
    EXPECT_EQ(h.spot(c.field, c.grid, c.pattern, r.data(), c.waves), c.status);
    if (c.waves == 1) {
      EXPECT_EQ(h.spot_rays(c.field, c.grid, c.pattern, hits.data(), 4, r.data()), c.status);
    }
    EXPECT_TRUE(same_bytes(r.data(), marked<SpotDiagramResult>(1).data(), sizeof r[0]));
    EXPECT_TRUE(same_bytes(hits.data(), marked<SpotRayHit>(4).data(), 4 * sizeof hits[0]));
  }
}

TEST(SpotDiagram, HitsComeInFixedOrderUpToCapacity) {
  Host const h = defocused_lens(2);
  int const N = 4, per_wave = 1 + 3 * N * (N + 1);
  std::vector<SpotRayHit> all(2 * per_wave);
  SpotDiagramResult full, none, part;
  ASSERT_EQ(h.spot_rays(0, N, 1, all.data(), 2 * per_wave, &full), 0);
  // Central ray, then ring 1 from +x: pupil (1/4, 0) lands at x = -a / 4;
  // ring 2 starts after 1 + 6 hits.
  EXPECT_EQ(all[0].x, 0.0);
  EXPECT_NEAR(all[1].x, -kA / 4, 1e-14);
  EXPECT_NEAR(all[7].x, -kA / 2, 1e-14);
  EXPECT_EQ(all[per_wave - 1].wavelength_index, 0);
  EXPECT_EQ(all[per_wave].wavelength_index, 1);
  EXPECT_EQ(all[per_wave].valid, 1);
  // Capacity 0 is legal; a short array takes the leading hits; the sums go on.
  ASSERT_EQ(h.spot_rays(0, N, 1, nullptr, 0, &none), 0);
  EXPECT_TRUE(same_bytes(&none, &full, sizeof full));
  auto few = marked<SpotRayHit>(12);
  ASSERT_EQ(h.spot_rays(0, N, 1, few.data(), 10, &part), 0);
  EXPECT_TRUE(same_bytes(&part, &full, sizeof full));
  EXPECT_TRUE(same_bytes(few.data(), all.data(), 10 * sizeof(SpotRayHit)));
  EXPECT_TRUE(same_bytes(&few[10], marked<SpotRayHit>(2).data(), 2 * sizeof(SpotRayHit)));
}

TEST(SpotDiagram, ParallelAndFixedOrderAgreeAndFixedOrderIsReproducible) {
  // Cooke triplet at 14 degrees, F, d and C rows from the model glass.
  Host h(cooke_triplet(), 3, 10.0, kCookeStop, {0.0, 14.0});
  double const nd[8] = {1, 1.62041, 1, 1.62004, 1, 1.62041, 1, 1};
  double const vd[8] = {0, 60.32, 0, 36.37, 0, 60.32, 0, 0};
  double const lines[3] = {486.1327, 587.5618, 656.2725};
  for (int k = 0; k < 24; ++k) {
    h.sys.indices[k] = nuvrix::model_index<double>(lines[k / 8], nd[k % 8], vd[k % 8], 0.0);
  }
  h.weights = {1.0, 2.0, 1.0};
  h.cfg.primary_wavelength = 1;
  int const saved = omp_get_max_threads(), rays = 3 * 331;
  std::vector<SpotRayHit> hits[3];
  SpotDiagramResult fixed[3], par[2];
  for (int k = 0; k < 3; ++k) {
    omp_set_num_threads(k == 0 ? 1 : 2);
    hits[k].resize(rays);
    ASSERT_EQ(h.spot_rays(1, 10, 1, hits[k].data(), rays, &fixed[k]), 0);
    if (k < 2) {
      ASSERT_EQ(h.spot(1, 10, 1, &par[k]), 0);
    }
  }
  omp_set_num_threads(saved);
  for (int k = 1; k < 3; ++k) {
    EXPECT_TRUE(same_bytes(&fixed[k], &fixed[0], sizeof fixed[0]));
    EXPECT_TRUE(same_bytes(hits[k].data(), hits[0].data(), rays * sizeof(SpotRayHit)));
  }
  EXPECT_EQ(fixed[0].ray_count, rays);
  EXPECT_GT(fixed[0].rms_radius, 1e-4);  // a real, aberrated spot
  for (SpotDiagramResult const& p : par) {
    EXPECT_EQ(p.ray_count, rays);
    EXPECT_EQ(p.geo_radius, fixed[0].geo_radius);
    EXPECT_NEAR(p.rms_radius, fixed[0].rms_radius, 1e-13 * fixed[0].rms_radius);
    EXPECT_NEAR(p.rms_y, fixed[0].rms_y, 1e-13 * fixed[0].rms_y);
    EXPECT_NEAR(p.centroid_y, fixed[0].centroid_y, 1e-13 * std::fabs(fixed[0].centroid_y));
  }
}
