// Ray fans: one-dimensional scans of the pupil of one field point along y
// (tangential) and x (sagittal), at every wavelength.
#pragma once

#include <math.h>

#include "api/nuvrix.h"

namespace nuvrix {

constexpr double kFanAxisSnap = 1e-10;  // |p| below: the exact axis ray

// Pupil coordinate of sample i of a fan of point_count + 1 samples, ends
// included; a coordinate within 1e-10 of the axis is the axis itself.
inline double fan_coordinate(int i, int point_count) {
  double const p = 2.0 * i / point_count - 1.0;
  return fabs(p) < kFanAxisSnap ? 0.0 : p;
}

// Record of sample i at wavelength w in an array of (point_count + 1) *
// wavelength_count records.
inline long fan_record_index(int i, int w, int point_count) {
  return i + static_cast<long>(point_count + 1) * w;
}

// Transverse ray aberration: image-surface y (tangential) or x (sagittal) of
// each fan ray minus that of the primary wavelength's chief ray, in mm.
// Returns 0, -1 (bad field index) or -2 (chief ray lost or its aim failed:
// nothing written).  With wavelength_count below 1 the header alone is
// written, with zero counts.
int compute_transverse_ray_fan(SurfaceData const* surfaces, int surface_count,
                               double const* indices, int wavelength_count,
                               SystemConfig const* config, FieldData const* fields,
                               int field_count, int field_index, int point_count,
                               RayFanPoint* tangential, RayFanPoint* sagittal,
                               RayFanResultHeader* header);

// Pupil aberration: how far each unaimed fan ray misses, at the stop, the
// height that paraxial optics gives it, in percent of the paraxial stop
// radius R: (R p - h) * 100 / R.  Returns 0, -1 (bad field index) or -3 (R
// below 1e-15).  With wavelength_count below 1 the header alone is written.
int compute_pupil_aberration_fan(SurfaceData const* surfaces, int surface_count,
                                 double const* indices, int wavelength_count,
                                 SystemConfig const* config, FieldData const* fields,
                                 int field_count, int field_index, int point_count,
                                 PupilAberrationPoint* tangential,
                                 PupilAberrationPoint* sagittal,
                                 PupilAberrationResultHeader* header);

}  // namespace nuvrix
