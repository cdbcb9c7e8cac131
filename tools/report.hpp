// The blocks of the nuvrix report, each printed from what the engine's
// exported interface returns.
#pragma once

#include "tools/lens_file.hpp"

namespace lensfile {

// Version, build anchor and the layout words checked against this host's
// view of the records.  Returns false when the layouts differ.
bool print_identity();

// Wavelengths, fields, aperture and the surface table.
void print_system(const Lens& lens);

// Chief and meridional rim rays of every field, surface by surface.
void print_real_rays(const Lens& lens);

// Cardinal data from the paraxial solve and the single-quantity calls, then
// the paraxial marginal and chief rays surface by surface.
void print_first_order(const Lens& lens);

// Third-order surface sums with their totals, colour between the shortest
// and the longest wavelength of the system.
void print_seidel(const Lens& lens);

// Back focal distance at each wavelength relative to the primary one.
void print_focal_shift(const Lens& lens);

}  // namespace lensfile
