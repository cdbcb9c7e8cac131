// Field curvature and distortion over a scan of field.
//
// Each field's chief ray gives the real image height; the paraxial height is
// EFL tan(field), the tangent taken whatever the field type.  The tangential
// and sagittal foci come from pairs of rays 0.05 of the pupil either side of
// the chief ray: the finite difference of their height over their direction
// cosine is the distance along the ray from the image surface to where they
// cross.
#include "analysis/field_analyses.hpp"
#include "first_order/paraxial.hpp"

namespace nuvrix {

namespace {

constexpr double kFocusPupilOffset = 0.05;  // pupil fraction of each ray of a focus pair
constexpr double kHeightFloor = 1e-10;      // paraxial heights at or below: no distortion

// Distance from the image surface to the crossing of two rays of positions
// p1, p2 and direction cosines c1, c2 in one section; 0 when either ray
// failed or they run parallel.
double crossing_distance(RayTraceResult const& r1, RayTraceResult const& r2, double p1, double p2,
                         double c1, double c2) {
  if (!r1.valid || !r2.valid || !(fabs(c1 - c2) > kTiny)) return 0.0;
  return -(p1 - p2) / (c1 - c2);
}

double tangential_focus(FieldScan const& scan, double const* row, double field) {
  RayTraceResult const r1 = trace_scan_ray(scan, row, field, 0.0, kFocusPupilOffset);
  RayTraceResult const r2 = trace_scan_ray(scan, row, field, 0.0, -kFocusPupilOffset);
  return crossing_distance(r1, r2, r1.y, r2.y, r1.m, r2.m);
}

double sagittal_focus(FieldScan const& scan, double const* row, double field) {
  RayTraceResult const r1 = trace_scan_ray(scan, row, field, kFocusPupilOffset, 0.0);
  RayTraceResult const r2 = trace_scan_ray(scan, row, field, -kFocusPupilOffset, 0.0);
  return crossing_distance(r1, r2, r1.x, r2.x, r1.l, r2.l);
}

// One sample; a failed chief ray leaves the field and zeros.
FieldCurvatureDistortionPoint field_point(FieldScan const& scan, double const* row, double efl,
                                          double field) {
  FieldCurvatureDistortionPoint p = {field, 0.0, 0.0, 0.0, 0.0, 0.0};
  RayTraceResult const chief = trace_scan_ray(scan, row, field, 0.0, 0.0);
  if (!chief.valid) return p;
  p.real_height = chief.y;
  p.paraxial_height = tan(field * kDegToRad) * efl;
  if (fabs(p.paraxial_height) > kHeightFloor) {
    p.distortion_percent = (p.real_height - p.paraxial_height) / p.paraxial_height * 100.0;
  }
  p.tangential_focus = tangential_focus(scan, row, field);
  p.sagittal_focus = sagittal_focus(scan, row, field);
  return p;
}

}  // namespace

int compute_field_curvature_distortion(SurfaceData const* surfaces, int surface_count,
                                       double const* indices, SystemConfig const* config,
                                       FieldData const* /*fields*/, int /*field_count*/,
                                       int point_count, double max_field,
                                       FieldCurvatureDistortionPoint* points,
                                       FieldCurvatureDistortionResult* result) {
  FieldScan const scan = {surfaces, surface_count, config,
                          compute_launch_set(surfaces, surface_count, indices, *config)};
  // The signed paraxial EFL -n_0 / (u' n_k).
  double const efl = calculate_efl_abcd(surfaces, surface_count, indices);
  for (int i = 0; i <= point_count; ++i) {
    double const field = (static_cast<double>(i) / point_count) * max_field;
    points[i] = field_point(scan, indices, efl, field);
  }
  result->point_count = point_count + 1;
  return 0;
}

}  // namespace nuvrix
