// Chromatic focal shift.  The back focal distance of a row is the one the
// exported interface reports: 0 for a system of two surfaces or fewer, and
// 1e15 for a row that leaves the system afocal.
#include "first_order/chromatic_focal_shift.hpp"

#include "first_order/paraxial.hpp"

namespace nuvrix {

int compute_chromatic_focal_shift(SurfaceData const* surfaces, int n,
                                  double const* reference_indices, double const* wavelengths,
                                  double const* index_table, int count, ChromaticShiftPoint* points,
                                  ChromaticFocalShiftResult* result) {
  ChromaticFocalShiftResult res = {};
  if (count > 0) {
    double const reference = calculate_bfl(surfaces, n, reference_indices);
    for (int k = 0; k < count; ++k) {
      double const shift = calculate_bfl(surfaces, n, index_table + k * n) - reference;
      points[k].wavelength = wavelengths[k];
      points[k].shift = shift;
      if (fabs(shift) > res.max_shift) res.max_shift = fabs(shift);
    }
    res.count = count;
  }
  *result = res;
  return 0;
}

}  // namespace nuvrix
