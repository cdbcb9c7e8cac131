// Lateral colour: the height of each wavelength's chief ray on the image
// surface against that of the primary wavelength, over a scan of field.
// All wavelengths share the launch set of the primary row.
#include "analysis/field_analyses.hpp"

namespace nuvrix {

namespace {

// Appends the shifts of one field, in wavelength order, against the primary
// height y_p; stops at capacity.
void add_field_shifts(FieldScan const& scan, double const* indices, int wavelength_count,
                      double field, double y_p, LateralColorPoint* points, int capacity,
                      LateralColorResult& res) {
  for (int w = 0; w < wavelength_count; ++w) {
    if (w == scan.config->primary_wavelength) continue;
    if (res.point_count >= capacity) return;
    double const* row = indices + static_cast<long>(w) * scan.surface_count;
    RayTraceResult const chief = trace_scan_ray(scan, row, field, 0.0, 0.0);
    if (!chief.valid) continue;
    double const shift = chief.y - y_p;
    points[res.point_count++] = {field, shift, w};
    if (fabs(shift) > res.max_abs_shift) res.max_abs_shift = fabs(shift);
  }
}

}  // namespace

int compute_lateral_color(SurfaceData const* surfaces, int surface_count, double const* indices,
                          int wavelength_count, SystemConfig const* config,
                          FieldData const* /*fields*/, int /*field_count*/, int sample_count,
                          double max_field, LateralColorPoint* points, int capacity,
                          LateralColorResult* result) {
  if (sample_count < 1 || !(max_field > 0.0)) return -1;
  LateralColorResult res = {0, 0.0};
  // Without an index row there is no ray to trace and nothing to compare.
  if (wavelength_count > 0) {
    double const* primary = primary_index_row(indices, surface_count, wavelength_count, *config);
    FieldScan const scan = {surfaces, surface_count, config,
                            compute_launch_set(surfaces, surface_count, primary, *config)};
    // The axis is not a sample: lateral colour vanishes there.
    for (int i = 1; i <= sample_count; ++i) {
      double const field = i * max_field / sample_count;
      RayTraceResult const chief = trace_scan_ray(scan, primary, field, 0.0, 0.0);
      if (!chief.valid) continue;
      add_field_shifts(scan, indices, wavelength_count, field, chief.y, points, capacity, res);
    }
  }
  *result = res;
  return 0;
}

}  // namespace nuvrix
