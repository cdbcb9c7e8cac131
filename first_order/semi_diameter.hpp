// Automatic semi-diameters from the real edge rays, and the pupil and stop
// radii of a system.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

// The eight pupil points whose rays set the semi-diameters.
constexpr double sd_px_vals[8] = {0.0, 0.0, 1.0, -1.0, 0.707, -0.707, 0.707, -0.707};
constexpr double sd_py_vals[8] = {1.0, -1.0, 0.0, 0.0, 0.707, 0.707, -0.707, -0.707};

// Which ray set a surface's semi-diameter, for differentiating the solve.
struct SdArgmax {
  int wavelength;  // row of the ray, -1 when none
  int field;       // field of the ray, -1 when none
  int sample;      // index into the sample tables, -1 when none
  double scale;    // aperture_percent / 100, or 1 when that is 100 or not positive
  bool has_ray;    // a ray set this surface's value
  bool is_fixed;   // aperture_kind nonzero: the surface keeps its value
};

// Sets the semi-diameter of every automatic surface to the largest height of
// the eight edge rays of every field and wavelength (scaled by
// aperture_percent), with the stop at least as wide as the entrance pupil
// when only air lies in front of it.  `wavelengths` is not read.
void solve_semi_diameters_impl(SurfaceData* surfaces, int n, double const* indices,
                               double const* wavelengths, int wavelength_count,
                               SystemConfig const* config, FieldData const* fields,
                               int field_count, SdArgmax* argmax);

void solve_semi_diameters(SurfaceData* surfaces, int n, double const* indices,
                          double const* wavelengths, int wavelength_count,
                          SystemConfig const* config, FieldData const* fields, int field_count);

// The paraxial marginal launch height for the system's aperture.
double compute_pupil_radius(SurfaceData const* surfaces, int n, double const* indices,
                            SystemConfig const* config);

// The paraxial marginal height at the stop; 5 mm (or half the entrance
// pupil diameter) when the stop cannot be reached.
double compute_stop_radius(SurfaceData const* surfaces, int n, double const* indices,
                           SystemConfig const* config);

}  // namespace nuvrix
