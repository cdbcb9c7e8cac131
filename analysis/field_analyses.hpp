// Scans over field: lateral colour, field curvature and distortion, relative
// illumination and the working F-number at a field point beneath it.
//
// None of them reads the field list of the system: each sweeps its own
// field values up to `max_field`, in the units of `field_type`, with the
// launch set computed once for the call.  Every chief ray is the one of
// trace_arbitrary_ray.  All four run on the calling thread.
#pragma once

#include "analysis/launch_set.hpp"
#include "api/nuvrix.h"
#include "trace/front_ends.hpp"

namespace nuvrix {

// The launch set of a scan over field: pupil, entrance pupil and aim from
// `row`, field_value left at 0 for the scan to set.
inline LaunchSet compute_launch_set(SurfaceData const* surfaces, int surface_count,
                                    double const* row, SystemConfig const& config) {
  FieldData const on_axis = {0.0, 0.0, 0.0};
  return compute_launch_set(surfaces, surface_count, row, config, &on_axis, 0);
}

// What every ray of one scan shares: the system and the launch set.
struct FieldScan {
  SurfaceData const* surfaces;
  int surface_count;
  SystemConfig const* config;
  LaunchSet launch;
};

// A ray of the scan: field y `field`, pupil point (px, py), index row `row`,
// no wavelength, to the image surface, field x 0.
inline RayTraceResult trace_scan_ray(FieldScan const& scan, double const* row, double field,
                                     double px, double py) {
  LaunchSet const& s = scan.launch;
  return trace_arbitrary_ray(scan.surfaces, scan.surface_count, row, scan.config, field,
                             s.pupil_radius, px, py, 0.0, s.entrance_pupil_position, s.aim_flag,
                             s.stop_radius, 0, 0.0);
}

// Chief-ray height of each wavelength against the primary one, at fields
// i * max_field / sample_count for i = 1 ... sample_count.  `indices` holds
// wavelength_count rows of surface_count entries; `fields` is not read.  At
// most `capacity` records.  Returns -1 when sample_count < 1 or max_field is
// not positive (result untouched), otherwise 0.
int compute_lateral_color(SurfaceData const* surfaces, int surface_count, double const* indices,
                          int wavelength_count, SystemConfig const* config, FieldData const* fields,
                          int field_count, int sample_count, double max_field,
                          LateralColorPoint* points, int capacity, LateralColorResult* result);

// Tangential and sagittal focus along the chief ray, real and paraxial
// heights and distortion at point_count + 1 fields from 0 to max_field, for
// the one index row `indices`; `points` must hold point_count + 1 records.
// `fields` is not read.  Returns 0.
int compute_field_curvature_distortion(SurfaceData const* surfaces, int surface_count,
                                       double const* indices, SystemConfig const* config,
                                       FieldData const* fields, int field_count, int point_count,
                                       double max_field, FieldCurvatureDistortionPoint* points,
                                       FieldCurvatureDistortionResult* result);

// Illumination relative to the axis, (F_0 / F)^2 capped at 1, at
// point_count + 1 fields from 0 to max_field for the index row `indices`;
// `points` must hold point_count + 1 records.  `unused_count` is not read.
// Returns 0.
int compute_relative_illumination(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, SystemConfig const* config,
                                  int point_count, double max_field, int unused_count,
                                  RelativeIlluminationPoint* points,
                                  RelativeIlluminationResult* result);

// Working F-number 1 / (2 s) at field `field_value`, s the radius of the
// circle of the same area as the image-space pupil: the polygon of 24 edge
// directions found by bisection with aimed rays, in direction cosines
// relative to the chief ray.  -1.0 when the chief ray fails, 1e15 when the
// polygon has no area.
double compute_effective_fnum_at_field(SurfaceData const* surfaces, int surface_count,
                                       double const* indices, SystemConfig const* config,
                                       double field_value, double pupil_radius,
                                       double entrance_pupil_position, int aim_flag,
                                       double stop_radius);

}  // namespace nuvrix
