// Optical path difference over a square pupil grid: the wavefront map that
// the FFT analyses and the Zernike fit start from.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// Fills `map` (waves) and `mask` (1 valid, 0 not), grid_size^2 entries in
// row-major order, for field `field_index` at `wavelength` (micrometres)
// with index row `wave_indices`; the reference comes from the primary chief
// ray traced with `primary_indices`.  Returns 0, -1 (bad field index), -2
// (primary chief ray failed) or -3 (chief ray at this wavelength failed).
int compute_wavefront_map(SurfaceData const* surfaces, int surface_count,
                          double const* wave_indices, double const* primary_indices,
                          double wavelength, SystemConfig const* config, FieldData const* fields,
                          int field_count, int field_index, int grid_size,
                          double reference_radius, double* map, int* mask,
                          WavefrontResult* result);

}  // namespace nuvrix
