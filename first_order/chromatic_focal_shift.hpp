// Chromatic focal shift: the paraxial back focus of each wavelength's index
// row against that of a reference row.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// For each of `count` rows of index_table (n entries each), the back focal
// distance minus that of reference_indices, with wavelengths[k], into
// points[k]; result gets the row count and the largest |shift|.  Returns 0.
int compute_chromatic_focal_shift(SurfaceData const* surfaces, int n,
                                  double const* reference_indices, double const* wavelengths,
                                  double const* index_table, int count, ChromaticShiftPoint* points,
                                  ChromaticFocalShiftResult* result);

}  // namespace nuvrix
