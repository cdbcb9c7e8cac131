// Hostile but well-formed calls: every array exactly as long as the call
// asks, but counts and indices at their extremes.  Each case is the smallest
// input that once read or wrote outside the caller's arrays; under the
// sanitizer build any such access fails the test.  The expected results
// follow from the optics of the degenerate system, not from the code.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <memory>

#include "tests/image_quality_hosts.hpp"

using namespace nuvrix_test;

namespace {

// A heap array of exactly `count` elements (count 0 is a real, empty
// allocation, so that reading its element 0 is an overflow).
template <typename T>
std::unique_ptr<T[]> exact(int count) {
  return std::unique_ptr<T[]>(new T[count > 0 ? count : 0]());
}

SystemConfig config_with(int aperture_type, double aperture_value, int stop) {
  SystemConfig c = {};
  c.aperture_type = aperture_type;
  c.aperture_value = aperture_value;
  c.stop_surface = stop;
  return c;
}

// The Cooke triplet as a host with three wavelength rows and three fields,
// its object truly at infinity as the wavefront analyses need it.
Host cooke_host(int stop) {
  System sys = cooke_triplet();
  sys.surfaces[0].thickness = INFINITY;
  return Host(sys, 3, 12.5, stop, {0.0, 14.0, 20.0});
}

}  // namespace

// A system of no surfaces has no pupil to image and nothing to trace: the
// first-order routines give the values of an empty system, a ray front end
// gives an invalid ray, and an analysis fails on its chief ray.
TEST(HostileInput, EmptySystemStaysInsideItsArrays) {
  auto surfaces = exact<SurfaceData>(0);
  auto indices = exact<double>(0);
  FieldData const field = {10.0, 0.0, 0.0};
  for (int stop : {0, 2, 5}) {
    EXPECT_EQ(nuvrix_entrance_pupil_position(surfaces.get(), 0, indices.get(), stop), 0.0);
  }
  // Numerical aperture 0.1 in a telecentric object space: the marginal ray
  // leaves the pupil at 1e10 at the angle whose sine is 0.1.
  SystemConfig na = config_with(2, 0.1, 3);
  na.telecentric_object = 1;
  double const y0 = 1e10 * 0.1 / std::sqrt(1.0 - 0.01);
  EXPECT_DOUBLE_EQ(nuvrix_compute_pupil_radius(surfaces.get(), 0, indices.get(), &na), y0);
  ParaxialSolveResult const r =
      nuvrix_paraxial_solve(surfaces.get(), 0, indices.get(), &na, &field, 1, nullptr, nullptr);
  EXPECT_DOUBLE_EQ(r.entrance_pupil_diameter, 2.0 * y0);
  EXPECT_EQ(r.efl, 0.0);
  EXPECT_EQ(r.entrance_pupil_position, 0.0);
  EXPECT_EQ(r.exit_pupil_position, 0.0);

  SystemConfig const epd = config_with(0, 10.0, 2);
  RayTraceResult const ray = nuvrix_trace_arbitrary_ray(surfaces.get(), 0, indices.get(), &epd, 1,
                                                        0, 5.0, 5.0, 0.3, 0.4, 550.0, 0.0, 5.0);
  EXPECT_EQ(ray.valid, 0);

  // Each analysis that launches rays fails on the chief ray and leaves its
  // result untouched.
  auto weights = exact<double>(1);
  weights[0] = 1.0;
  auto wavelengths = exact<double>(1);
  wavelengths[0] = 0.55;
  SpotDiagramResult spot = {};
  spot.ray_count = 77;
  EXPECT_EQ(nuvrix_compute_spot_diagram(surfaces.get(), 0, indices.get(), weights.get(), 1, &epd,
                                        &field, 1, 0, 4, 1, &spot),
            -2);
  EXPECT_EQ(spot.ray_count, 77);
  auto tan_fan = exact<RayFanPoint>(5), sag_fan = exact<RayFanPoint>(5);
  RayFanResultHeader fan_header = {};
  EXPECT_EQ(nuvrix_compute_transverse_ray_fan(surfaces.get(), 0, indices.get(), 1, &epd, &field,
                                              1, 0, 4, tan_fan.get(), sag_fan.get(), &fan_header),
            -2);
  auto tan_pupil = exact<PupilAberrationPoint>(5), sag_pupil = exact<PupilAberrationPoint>(5);
  PupilAberrationResultHeader pupil_header = {};
  int const pupil_status = nuvrix_compute_pupil_aberration_fan(
      surfaces.get(), 0, indices.get(), 1, &epd, &field, 1, 0, 4, tan_pupil.get(), sag_pupil.get(),
      &pupil_header);
  if (pupil_status == 0) {
    EXPECT_EQ(tan_pupil[2].valid + sag_pupil[2].valid, 0);
  }
  auto tan_opd = exact<OpdFanPoint>(5), sag_opd = exact<OpdFanPoint>(5);
  OpdFanResultHeader opd_header = {};
  EXPECT_EQ(nuvrix_compute_opd_fan(surfaces.get(), 0, indices.get(), wavelengths.get(), 1, &epd,
                                   &field, 1, 0, 4, 50.0, tan_opd.get(), sag_opd.get(),
                                   &opd_header),
            -2);
  auto map = exact<double>(16);
  auto mask = exact<int>(16);
  WavefrontResult wavefront = {};
  EXPECT_EQ(nuvrix_compute_wavefront_map(surfaces.get(), 0, indices.get(), indices.get(), 0.55,
                                         &epd, &field, 1, 0, 4, 50.0, map.get(), mask.get(),
                                         &wavefront),
            -2);
}

// Surfaces beyond the array are absent: empty planes in air.  A stop named
// beyond the image therefore images the same way wherever it is named, and
// the call is as quick at the largest int as one past the image.
TEST(HostileInput, StopBeyondTheImageActsAsTheFirstAbsentSurface) {
  System const sys = cooke_triplet();
  int const n = sys.count();
  double const ep = nuvrix_entrance_pupil_position(sys.surfaces.data(), n, sys.row(), n + 1);
  EXPECT_TRUE(std::isfinite(ep));
  for (int stop : {n + 2, 100000, INT_MAX}) {
    EXPECT_EQ(nuvrix_entrance_pupil_position(sys.surfaces.data(), n, sys.row(), stop), ep);
  }
  // The image sits in air, so an absent stop just behind it images as the
  // image surface itself.
  EXPECT_EQ(nuvrix_entrance_pupil_position(sys.surfaces.data(), n, sys.row(), n), ep);

  // The analyses that reach the stop through the pupil, the aim and the
  // paraxial solve agree bit for bit between a near and a far absent stop.
  Host near = cooke_host(n + 1), far = cooke_host(INT_MAX);
  near.cfg.ray_aiming = far.cfg.ray_aiming = 1;
  SpotRayHit hits_near[64] = {}, hits_far[64] = {};
  SpotDiagramResult spot_near = {}, spot_far = {};
  int const status = near.spot_rays(1, 3, 1, hits_near, 64, &spot_near);
  ASSERT_EQ(far.spot_rays(1, 3, 1, hits_far, 64, &spot_far), status);
  EXPECT_TRUE(same_bytes(&spot_near, &spot_far, sizeof spot_near));
  EXPECT_TRUE(same_bytes(hits_near, hits_far, sizeof hits_near));

  LateralColorPoint color_near[8] = {}, color_far[8] = {};
  LateralColorResult color_result_near = {}, color_result_far = {};
  ASSERT_EQ(nuvrix_compute_lateral_color(near.s(), n, near.rows(), 3, &near.cfg, nullptr, 0, 4,
                                         20.0, color_near, 8, &color_result_near),
            0);
  ASSERT_EQ(nuvrix_compute_lateral_color(far.s(), n, far.rows(), 3, &far.cfg, nullptr, 0, 4, 20.0,
                                         color_far, 8, &color_result_far),
            0);
  ASSERT_EQ(color_result_near.point_count, color_result_far.point_count);
  EXPECT_EQ(color_result_near.max_abs_shift, color_result_far.max_abs_shift);
  for (int k = 0; k < color_result_near.point_count; ++k) {
    EXPECT_EQ(color_near[k].field, color_far[k].field);
    EXPECT_EQ(color_near[k].shift, color_far[k].shift);
    EXPECT_EQ(color_near[k].wavelength_index, color_far[k].wavelength_index);
  }

  int const grid = 8, side = 2 * grid;
  double const frequencies[2] = {10.0, 40.0}, fractions[2] = {0.0, 1.0};
  MtfVsFieldPoint scan_near[4] = {}, scan_far[4] = {};
  MtfVsFieldResult scan_result = {};
  std::vector<double> map(grid * grid), re(side * side), im(side * side);
  std::vector<int> mask(grid * grid);
  for (auto* pair : {&near, &far}) {
    MtfVsFieldPoint* out = pair == &near ? scan_near : scan_far;
    ASSERT_EQ(nuvrix_compute_fft_mtf_vs_field(pair->s(), n, pair->rows(), pair->rows(), 0.55,
                                              &pair->cfg, nullptr, 0, grid, 50.0, frequencies, 2,
                                              fractions, 2, 20.0, map.data(), mask.data(),
                                              re.data(), im.data(), out, &scan_result),
              0);
  }
  EXPECT_TRUE(same_bytes(scan_near, scan_far, sizeof scan_near));
}

// A grid of no samples has no transform to read: the MTF routines that
// transform a grid refuse it as a bad argument and touch nothing, and the
// field scans read 0 at every field.
TEST(HostileInput, EmptyGridIsRefused) {
  Host const h = cooke_host(4);
  int const n = h.sys.count();
  auto map = exact<double>(0), re = exact<double>(0), im = exact<double>(0);
  auto acc_re = exact<double>(0), acc_im = exact<double>(0);
  auto maps = exact<double>(0);
  auto mask = exact<int>(0), masks = exact<int>(0);
  double const wavelengths[3] = {0.4861, 0.5876, 0.6563};
  FftMtfPoint fft_points[4];
  FftMtfResult fft_result = {};
  fft_result.point_count = 99;
  EXPECT_EQ(nuvrix_compute_fft_mtf(h.s(), n, h.rows(), h.rows(), 0.5876, &h.cfg, h.fields.data(),
                                   h.nf(), 1, 0, 50.0, 100.0, 100.0, 10.0, map.get(), mask.get(),
                                   re.get(), im.get(), fft_points, 4, &fft_result),
            -1);
  EXPECT_EQ(nuvrix_compute_fft_mtf_polychromatic(
                h.s(), n, h.rows(), h.rows(), wavelengths, 3, h.weights.data(), &h.cfg,
                h.fields.data(), h.nf(), 1, 0, 50.0, 100.0, 100.0, 4.0, 10.0, maps.get(),
                masks.get(), re.get(), im.get(), acc_re.get(), acc_im.get(), fft_points, 4,
                &fft_result),
            -1);
  EXPECT_EQ(fft_result.point_count, 99);

  GeometricMtfPoint geo_points[4];
  GeometricMtfResult geo_result = {};
  geo_result.point_count = 99;
  EXPECT_EQ(nuvrix_compute_geometric_mtf(h.s(), n, h.rows(), &h.cfg, h.fields.data(), h.nf(), 1, 0,
                                         8, 0, 50.0, 50.0, re.get(), im.get(), 0, geo_points, 4,
                                         &geo_result),
            -1);
  EXPECT_EQ(nuvrix_compute_geometric_mtf_polychromatic(
                h.s(), n, h.rows(), wavelengths, h.weights.data(), 3, &h.cfg, h.fields.data(),
                h.nf(), 1, 8, 0, 50.0, 50.0, re.get(), im.get(), 0, geo_points, 4, &geo_result),
            -1);
  EXPECT_EQ(geo_result.point_count, 99);

  double const frequencies[2] = {10.0, 40.0}, fractions[2] = {0.0, 1.0};
  MtfVsFieldPoint scan[4];
  MtfVsFieldResult scan_result = {};
  EXPECT_EQ(nuvrix_compute_fft_mtf_vs_field(h.s(), n, h.rows(), h.rows(), 0.5876, &h.cfg, nullptr,
                                            0, 0, 50.0, frequencies, 2, fractions, 2, 20.0,
                                            map.get(), mask.get(), re.get(), im.get(), scan,
                                            &scan_result),
            0);
  for (MtfVsFieldPoint const& p : scan) EXPECT_EQ(p.tangential + p.sagittal, 0.0);
  EXPECT_EQ(nuvrix_compute_geometric_mtf_vs_field(h.s(), n, h.rows(), &h.cfg, nullptr, 0, 0, 8, 0,
                                                  frequencies, 2, fractions, 2, 20.0, re.get(),
                                                  im.get(), 0, scan, &scan_result),
            0);
  for (MtfVsFieldPoint const& p : scan) EXPECT_EQ(p.tangential + p.sagittal, 0.0);
  EXPECT_EQ(scan_result.field_count, 2);
}

// No index row means no ray: the analyses say so (-3, nothing survived)
// before they look for a primary row.  A curve that stops at 100 cycles/mm
// never has more than 101 points, whatever the cutoff.  A Zernike fit of
// the most negative number of terms fits none.
TEST(HostileInput, NoWavelengthUndefinedCutoffAndNegativeTerms) {
  Host const h = cooke_host(4);
  int const n = h.sys.count();
  auto rows = exact<double>(0);
  SpotRayHit hits[4];
  SpotDiagramResult spot = {};
  EXPECT_EQ(nuvrix_compute_spot_diagram_with_rays(h.s(), n, rows.get(), h.weights.data(), 0,
                                                  &h.cfg, h.fields.data(), h.nf(), 1, 3, 1, hits,
                                                  4, &spot),
            -3);
  EXPECT_EQ(nuvrix_compute_spot_diagram(h.s(), n, rows.get(), h.weights.data(), 0, &h.cfg,
                                        h.fields.data(), h.nf(), 1, 3, 1, &spot),
            -3);
  std::vector<double> re(64 * 64), im(64 * 64);
  auto points = exact<GeometricMtfPoint>(101);
  GeometricMtfResult geo = {};
  EXPECT_EQ(nuvrix_compute_geometric_mtf_polychromatic(h.s(), n, rows.get(), nullptr, nullptr, 0,
                                                       &h.cfg, h.fields.data(), h.nf(), 1, 8, 0,
                                                       50.0, 50.0, re.data(), im.data(), 64,
                                                       points.get(), 500, &geo),
            -3);
  ASSERT_EQ(nuvrix_compute_geometric_mtf(h.s(), n, h.rows(), &h.cfg, h.fields.data(), h.nf(), 1, 0,
                                         8, 0, NAN, NAN, re.data(), im.data(), 64, points.get(),
                                         500, &geo),
            0);
  EXPECT_EQ(geo.point_count, 101);
  std::vector<double> map(16, 0.25);
  std::vector<int> mask(16, 1);
  ZernikeResult z = {};
  EXPECT_EQ(nuvrix_compute_zernike_standard(h.s(), n, h.rows(), h.rows(), 0.5876, &h.cfg,
                                            h.fields.data(), h.nf(), 0, 4, 50.0, INT_MIN,
                                            map.data(), mask.data(), &z),
            0);
  EXPECT_EQ(z.coefficients[0], 0.0);
}
