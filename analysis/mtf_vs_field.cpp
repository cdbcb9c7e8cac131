// Diffraction MTF over a scan of field points and frequencies, at the
// cutoff frequency of the on-axis working F-number.
#include <math.h>

#include "analysis/fft_mtf.hpp"
#include "analysis/launch_set.hpp"
#include "first_order/paraxial.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace {

constexpr int kScanPoints = 200;       // local MTF curve of the scan
constexpr double kScanStep = 1.0;      // its frequency step, cycles/mm
constexpr double kSmallSlope = 1e-10;  // below it the marginal ray has no usable angle

// The paraxial focal length of the scan, n_0 / (u' n_k) of a unit-height
// ray parallel to the axis, n_k the index in front of the image surface:
// 1e15 when the ray leaves parallel, 0 for fewer than two surfaces.  It is
// taken without the minus sign of the effective focal length, so it is
// positive for a single concave mirror and negative for a converging lens.
double scan_focal_length(SurfaceData const* surfaces, int n, double const* indices) {
  if (n < 2) return 0.0;
  double const u = trace_paraxial_end(surfaces, n, indices, 1.0, 0.0, -1).last.u;
  if (!(fabs(u) > kTiny)) return kNoPowerFocal;
  return indices[0] / (u * indices[n - 2]);
}

// Working F-number 1 / (2 sin U') of the real on-axis marginal ray (pupil
// edge in y, no aiming); when that ray fails or leaves parallel, the
// paraxial focal length over aperture_value, whatever the aperture type.
double working_f_number(SurfaceData const* surfaces, int surface_count,
                        double const* primary_indices, SystemConfig const* config) {
  FieldData const axis = {0.0, 1.0, 0.0};
  LaunchSet const launch =
      compute_launch_set(surfaces, surface_count, primary_indices, *config, &axis, 0);
  RayTraceResult const ray = trace_arbitrary_ray(
      surfaces, surface_count, primary_indices, config, launch.field_value, launch.pupil_radius,
      0.0, 1.0, 0.0, launch.entrance_pupil_position, 0, launch.stop_radius, 0, 0.0);
  if (ray.valid != 0) {
    double const s = sqrt(ray.l * ray.l + ray.m * ray.m);
    if (s > kSmallSlope) return 1.0 / (2.0 * s);
  }
  return scan_focal_length(surfaces, surface_count, primary_indices) / config->aperture_value;
}

// Index of the curve point nearest to `frequency` (the first on ties), -1
// for an empty curve.
int nearest_point(FftMtfPoint const* curve, int count, double frequency) {
  int best = -1;
  double best_distance = 0.0;
  for (int k = 0; k < count; ++k) {
    double const d = fabs(curve[k].frequency - frequency);
    if (best < 0 || d < best_distance) {
      best = k;
      best_distance = d;
    }
  }
  return best;
}

// Writes the records of field f: values of the nearest curve points, or 0
// for a failed field (status non-zero) or an empty curve.
void store_field(FftMtfPoint const* curve, int point_count, int status, double field,
                 double const* frequencies, int frequency_count, int f, int field_count,
                 MtfVsFieldPoint* points) {
  for (int q = 0; q < frequency_count; ++q) {
    MtfVsFieldPoint& p = points[static_cast<long>(q) * field_count + f];
    int const k = status == 0 ? nearest_point(curve, point_count, frequencies[q]) : -1;
    p.field = field;
    p.tangential = k >= 0 ? curve[k].tangential : 0.0;
    p.sagittal = k >= 0 ? curve[k].sagittal : 0.0;
  }
}

}  // namespace

int compute_fft_mtf_vs_field(SurfaceData const* surfaces, int surface_count, double const* indices,
                             double const* primary_indices, double wavelength,
                             SystemConfig const* config, FieldData const* /*fields*/,
                             int /*unused_count*/, int grid_size, double reference_radius,
                             double const* frequencies, int frequency_count,
                             double const* field_fractions, int field_count, double field_scale,
                             double* map, int* mask, double* real, double* imag,
                             MtfVsFieldPoint* points, MtfVsFieldResult* result) {
  double const f_number = working_f_number(surfaces, surface_count, primary_indices, config);
  double const cutoff = 1.0 / (f_number * 0.001 * wavelength);
  for (int f = 0; f < field_count; ++f) {
    SystemConfig field_config = *config;
    field_config.config_reserved = 1;
    FieldData const field = {field_fractions[f] * field_scale, 1.0, 0.0};
    FftMtfPoint curve[kScanPoints];
    FftMtfResult curve_result = {0, -1, 0, 0.0};
    int const status =
        compute_fft_mtf(surfaces, surface_count, indices, primary_indices, wavelength,
                        &field_config, &field, 1, 0, grid_size, reference_radius, cutoff, cutoff,
                        kScanStep, map, mask, real, imag, curve, kScanPoints, &curve_result);
    store_field(curve, curve_result.point_count, status, field_fractions[f], frequencies,
                frequency_count, f, field_count, points);
  }
  result->field_count = field_count;
  result->frequency_count = frequency_count;
  return 0;
}

}  // namespace nuvrix
