// Optical path difference along a tangential and a sagittal pupil fan of one
// field point, at every wavelength.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// Fills `tangential` (px 0, py p) and `sagittal` (px p, py 0), each of
// (point_count + 1) * wavelength_count records, sample i of wavelength w at
// i + (point_count + 1) w, with p = 2 i / point_count - 1 and OPD in waves
// of wavelengths[w] (micrometres, index row w of `indices`).  The reference
// is the sphere of radius |reference_radius| about the primary chief ray's
// image point, or, with an afocal image space, the plane square to that ray,
// with tilt removed from each fan of each wavelength.  A wavelength whose
// chief ray fails is skipped and not counted.  Returns 0, -1 (bad field
// index) or -2 (primary chief ray failed); `header` is untouched then.
int compute_opd_fan(SurfaceData const* surfaces, int surface_count, double const* indices,
                    double const* wavelengths, int wavelength_count, SystemConfig const* config,
                    FieldData const* fields, int field_count, int field_index, int point_count,
                    double reference_radius, OpdFanPoint* tangential, OpdFanPoint* sagittal,
                    OpdFanResultHeader* header);

}  // namespace nuvrix
