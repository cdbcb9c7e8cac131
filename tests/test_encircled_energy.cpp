// Encircled energy and line/edge spread: the Airy pattern against
// 1 - J0^2 - J1^2, the uniform disc of a defocused ideal lens against
// (r / a)^2 and its chord integral, centroids, bins and record limits.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "analysis/encircled_energy.hpp"
#include "analysis/fft_psf.hpp"
#include "api/nuvrix.h"
#include "tests/image_quality_hosts.hpp"
#include "tests/pupil_maps.hpp"

namespace {

struct Curve {
  std::vector<EncircledEnergyPoint> p;
  EncircledEnergyResultHeader h = {-7, -7, -7, -7.0, -7.0};
};

Curve diffraction(std::vector<double> const& psf, int n, double pitch, double max_r, int count) {
  Curve c;
  c.p.assign(count + 2, EncircledEnergyPoint{-1.0, -1.0});
  EXPECT_EQ(nuvrix_compute_diffraction_encircled_energy(psf.data(), n, pitch, max_r, count,
                                                        c.p.data(), &c.h),
            0);
  return c;
}

Curve geometric(std::vector<SpotRayHit> const& hits, double cx, double cy, double max_r,
                int count) {
  Curve c;
  c.p.assign(count + 2, EncircledEnergyPoint{-1.0, -1.0});
  EXPECT_EQ(nuvrix_compute_geometric_encircled_energy(hits.data(), static_cast<int>(hits.size()),
                                                      cx, cy, max_r, count, c.p.data(), &c.h),
            0);
  return c;
}

struct Profiles {
  std::vector<LineEdgeSpreadPoint> x, y;
  LineEdgeSpreadResultHeader h = {-7, -7.0, -7.0};
};

Profiles spread(std::vector<SpotRayHit> const& hits, double cx, double cy, double half_width,
                int count, int room) {
  Profiles o;
  o.x.assign(room, LineEdgeSpreadPoint{-1.0, -1.0, -1.0});
  o.y = o.x;
  EXPECT_EQ(nuvrix_compute_geometric_line_edge_spread(hits.data(), static_cast<int>(hits.size()),
                                                      cx, cy, half_width, count, o.x.data(),
                                                      o.y.data(), &o.h),
            0);
  return o;
}

// Fraction of the Airy pattern's energy within v = pi r / (lambda F).
double airy_energy(double v) {
  if (v <= 0.0) return 0.0;
  double const j0 = std::cyl_bessel_j(0.0, v), j1 = std::cyl_bessel_j(1.0, v);
  return 1.0 - j0 * j0 - j1 * j1;
}

// The uniform disc of the defocused ideal lens at 5 degrees (radius kA mm
// about the chief ray): R rings of the hexapolar grid, 1 + 3 R (R + 1) hits.
struct DiscHits {
  std::vector<SpotRayHit> hits;
  SpotDiagramResult spot{};
  explicit DiscHits(int rings) {
    nuvrix_test::Host const lens = nuvrix_test::defocused_lens();
    hits.resize(1 + 3 * rings * (rings + 1));
    EXPECT_EQ(lens.spot_rays(1, rings, 1, hits.data(), static_cast<int>(hits.size()), &spot), 0);
  }
};

}  // namespace

TEST(EncircledEnergy, AiryPatternOfAPerfectPupilFollowsTheBesselForm) {
  // Pitch lambda F / 2: v = pi rho / 2 at rho pixels.  Pixels counted at
  // their centres (half a diagonal) plus a tenth-pixel bin: between the Airy
  // energies at rho -+ 0.81, less the folded-back tail 4 / (pi^2 N); the
  // unpaired first row and column move the centroid at most 4 / pi^2 pixel.
  int const n = 64, side = 2 * n;
  nuvrix_test::PupilMap const m = nuvrix_test::perfect_disc(n);
  std::vector<double> real(side * side), imag(side * side), psf(side * side);
  FftPsfResult pr;
  nuvrix::compute_fft_psf(m.w.data(), m.mask.data(), n, 0.55, 4.0, real.data(), imag.data(),
                          psf.data(), &pr);
  double const pitch = pr.pixel_pitch, reach = std::sqrt(0.5) + 0.1, tail = 4.0 / (M_PI * M_PI * n);
  Curve const c = diffraction(psf, side, pitch, 20.0 * pitch * 1000.0, 200);
  EXPECT_TRUE(c.h.point_count == 201 && c.h.field_index == -7 && c.h.wavelength_index == -7);
  EXPECT_LT(std::hypot(c.h.center_x, c.h.center_y), 4.0 / (M_PI * M_PI) * pitch);
  EXPECT_EQ(c.p[0].energy, 0.0);
  for (int i = 0; i <= 200; ++i) {
    double const rho = i / 10.0;
    EXPECT_NEAR(c.p[i].radius, rho * pitch * 1000.0, 1e-12);
    EXPECT_GE(c.p[i].energy, airy_energy(M_PI * (rho - reach) / 2.0) - tail) << rho;
    EXPECT_LE(c.p[i].energy, airy_energy(M_PI * (rho + reach) / 2.0) + tail) << rho;
  }
}

TEST(EncircledEnergy, CirclesCentreOnTheCentroidAndReadBetweenBins) {
  // Four unit pixels 3 pixels (bin 30 of 0.2 um) about (row 5, column 6) of
  // 16 x 16 pixels of 2 um: centre (-2, -3) pixels off, energy linear from
  // 5.8 to 6 um.
  std::vector<double> psf(256, 0.0);
  for (int k : {5 * 16 + 3, 5 * 16 + 9, 2 * 16 + 6, 8 * 16 + 6}) psf[k] = 1.0;
  Curve c = diffraction(psf, 16, 0.002, 11.8, 2);
  EXPECT_NEAR(c.h.center_x, -0.004, 1e-15);
  EXPECT_NEAR(c.h.center_y, -0.006, 1e-15);
  EXPECT_TRUE(c.p[0].energy == 0.0 && c.p[2].energy == 1.0 && c.p[3].radius == -1.0);
  EXPECT_NEAR(c.p[1].energy, 0.5, 1e-12);  // 5.9 um
  // All-zero PSF: no offset, 0 until the last bin limit (79 bins of 0.1 um).
  std::fill(psf.begin(), psf.end(), 0.0);
  c = diffraction(psf, 8, 0.001, 15.9, 2);
  EXPECT_TRUE(c.h.center_x == 0.0 && c.h.center_y == 0.0);
  EXPECT_TRUE(c.p[0].energy == 0.0 && c.p[1].energy == 1.0 && c.p[2].energy == 1.0);  // 7.95 um
  EXPECT_EQ(diffraction(psf, 8, 0.001, 7.85, 1).p[1].energy, 0.0);
  // 2048 pixels would give 20480 bins, 10240 are kept: two corners 1447
  // pixels out are dropped, and the energy turns 1 at 1023.9 pixels.
  int const big = 2048;
  std::vector<double> corners(static_cast<size_t>(big) * big, 0.0);
  corners.front() = corners.back() = 1.0;
  c = diffraction(corners, big, 0.001, 1100.0, 11);
  for (int i = 0; i <= 10; ++i) EXPECT_EQ(c.p[i].energy, 0.0) << i;
  EXPECT_EQ(c.p[11].energy, 1.0);
}

TEST(EncircledEnergy, UniformDiscOfHitsFollowsSquaredRadiusAndChordIntegral) {
  // Ring r of R holds 6 r hits at radius r / R: inside ring k lie
  // 1 + 3 k (k + 1), so the count follows (r / a)^2 to within 2 / R, and
  // exactly 1 past a: an added invalid hit, however far, counts nowhere.
  int const rings = 100;
  DiscHits d(rings);
  d.hits.push_back(SpotRayHit{1.0, 1.0, 0, 0});
  double const a = nuvrix_test::kA * 1000.0;  // 200 um
  Curve const c = geometric(d.hits, d.spot.chief_x, d.spot.chief_y, 1.5 * a, 150);
  EXPECT_TRUE(c.h.point_count == 151 && c.h.field_index == 0 && c.h.wavelength_index == -1);
  EXPECT_TRUE(c.h.center_x == d.spot.chief_x && c.h.center_y == d.spot.chief_y);
  for (int i = 0; i <= 150; ++i) {
    double const r = i * 0.01 * a;
    EXPECT_NEAR(c.p[i].radius, r, 1e-12);
    double const inside = i <= 100 ? (r / a) * (r / a) : 1.0;
    EXPECT_NEAR(c.p[i].energy, inside, i <= 100 ? 2.0 / rings : 0.0) << i;
  }
  // Edge spread: the disc left of x is 1/2 + (u sqrt(1 - u^2) + asin u) / pi,
  // u = x / a, read at the bin's upper edge; each ring misplaces at most one
  // hit across a line, rings 1 / R apart: within 2 / R.
  Profiles const o = spread(d.hits, d.spot.chief_x, d.spot.chief_y, 250.0, 125, 126);
  EXPECT_TRUE(o.h.point_count == 126 && o.h.center_x == d.spot.chief_x);
  double peak_x = 0.0, peak_y = 0.0;
  for (int i = 0; i <= 125; ++i) {
    double const u = std::min(1.0, std::max(-1.0, (o.x[i].position + 2.0) / a));
    double const edge = 0.5 + (u * std::sqrt(1.0 - u * u) + std::asin(u)) / M_PI;
    EXPECT_NEAR(o.x[i].position, 4.0 * i - 250.0, 1e-12);
    EXPECT_NEAR(o.x[i].edge_spread, edge, 2.0 / rings) << i;
    EXPECT_NEAR(o.y[i].edge_spread, edge, 2.0 / rings) << i;
    peak_x = std::max(peak_x, o.x[i].line_spread);
    peak_y = std::max(peak_y, o.y[i].line_spread);
  }
  EXPECT_TRUE(peak_x == 1.0 && peak_y == 1.0);  // normalised to the peak exactly
  EXPECT_TRUE(o.x[125].edge_spread == 1.0 && o.y[125].edge_spread == 1.0);
}

TEST(EncircledEnergy, GeometricEdgeCases) {
  // No hit: radii and energies 0.  Hits none of which is valid: 0 / 0.
  Curve c = geometric({}, 0.1, 0.2, 10.0, 4);
  EXPECT_TRUE(c.h.point_count == 5 && c.h.center_x == 0.1 && c.h.center_y == 0.2);
  for (int i = 0; i <= 4; ++i) EXPECT_TRUE(c.p[i].radius == 0.0 && c.p[i].energy == 0.0);
  c = geometric({{0.0, 0.0, 0, 0}, {0.1, 0.0, 1, 0}}, 0.0, 0.0, 10.0, 4);
  for (int i = 0; i <= 4; ++i) EXPECT_TRUE(c.p[i].radius == 2.5 * i && std::isnan(c.p[i].energy));
  // Only the first 65536 valid hits are taken: 65536 at 1 um, then 10 at
  // 100 um that are ignored.
  std::vector<SpotRayHit> hits(65536, SpotRayHit{0.001, 0.0, 0, 1});
  hits.insert(hits.begin() + 7, SpotRayHit{5.0, 5.0, 0, 0});  // invalid, not taken
  hits.insert(hits.end(), 10, SpotRayHit{0.0, 0.1, 0, 1});
  c = geometric(hits, 0.0, 0.0, 50.0, 1);
  EXPECT_TRUE(c.p[0].energy == 0.0 && c.p[1].energy == 1.0);
  // A negative count writes no record.
  c = geometric(hits, 0.0, 0.0, 50.0, -1);
  EXPECT_TRUE(c.h.point_count == 0 && c.p[0].radius == -1.0);
}

TEST(LineEdgeSpread, BinEdgesIgnoredHitsAndTheRecordLimit) {
  // +-10 um in 2 um bins: along x -11.4 rounds into bin 0, -13.2 and 11.1
  // are dropped, 10.9 lands in bin 10, the invalid hit is ignored; along y
  // all valid hits sit in bin 5.
  std::vector<SpotRayHit> hits = {{-0.0114, 0.0, 0, 1}, {-0.0132, 0.0, 0, 1}, {0.0, 0.0, 0, 1},
                                  {0.0109, 0.0, 0, 1},  {0.0111, 0.0, 0, 1},  {0.005, 0.0, 0, 0}};
  Profiles o = spread(hits, 0.0, 0.0, 10.0, 10, 12);
  double const line[11] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  for (int i = 0; i <= 10; ++i) {
    EXPECT_EQ(o.x[i].position, 2.0 * i - 10.0);
    EXPECT_EQ(o.x[i].line_spread, line[i]) << i;
    EXPECT_NEAR(o.x[i].edge_spread, i < 5 ? 1.0 / 3.0 : (i < 10 ? 2.0 / 3.0 : 1.0), 1e-15) << i;
    EXPECT_EQ(o.y[i].line_spread, i == 5 ? 1.0 : 0.0) << i;
    EXPECT_EQ(o.y[i].edge_spread, i < 5 ? 0.0 : 1.0) << i;
  }
  EXPECT_EQ(o.x[11].position, -1.0);
  // 3000 bins asked for: header 3001, but only 2048 records (-3000 to 1094
  // um) are written; a hit at +2000 um is dropped.
  hits = {{0.0, 0.0, 0, 1}, {2.0, 0.0, 0, 1}};
  o = spread(hits, 0.0, 0.0, 3000.0, 3000, 3001);
  EXPECT_EQ(o.h.point_count, 3001);
  EXPECT_TRUE(o.x[2047].position == 1094.0 && o.x[2048].position == -1.0);
  EXPECT_TRUE(o.x[1500].line_spread == 1.0 && o.x[2047].edge_spread == 1.0);
  EXPECT_EQ(o.x[1499].edge_spread, 0.0);
  // No valid hit: both profiles read 0.
  o = spread({{0.0, 0.0, 0, 0}}, 0.0, 0.0, 10.0, 10, 12);
  for (int i = 0; i <= 10; ++i) EXPECT_TRUE(o.x[i].line_spread == 0.0 && o.y[i].edge_spread == 0.0);
}
