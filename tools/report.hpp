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

}  // namespace lensfile
