// The bodies of the value kernels, one thread's work each, written once for
// the device and the host: the kernels of the side file call them, and so
// does the stand-in driver of the tests, which runs a launch on the host.
//
// The glass catalogue is rows of `wave_count` indices: the index of glass g
// at wavelength row w is catalog[g * wave_count + w].  A material id names
// the glass behind each surface; a negative id is air, of index 1.  The host
// refuses ids beyond the catalogue before it launches.
#pragma once

#include "api/types.hpp"
#include "first_order/paraxial.hpp"
#include "trace/front_ends.hpp"

namespace nuvrix {
namespace kernels {

// The index behind each of the n surfaces at wavelength row w.
NUVRIX_HD void catalogue_row(double const* catalog, int wave_count, int w,
                             int const* material_ids, int n, double* row) {
  for (int i = 0; i < n; ++i) {
    int const g = material_ids[i];
    row[i] = g >= 0 ? catalog[static_cast<long>(g) * wave_count + w] : 1.0;
  }
}

// Candidate i's copy of the base surfaces: its own curvature, thickness
// and (when given) conic on every surface, from row i of each array.
NUVRIX_HD void candidate_surfaces(int i, SurfaceData const* surfaces, int n,
                                  double const* curvatures, double const* thicknesses,
                                  double const* conics, SurfaceData* own) {
  long const base = static_cast<long>(i) * n;
  for (int k = 0; k < n; ++k) {
    own[k] = surfaces[k];
    own[k].curvature = curvatures[base + k];
    own[k].thickness = thicknesses[base + k];
    if (conics != nullptr) own[k].conic = conics[base + k];
  }
}

// Candidate i of an EFL population: the base surfaces with the candidate's
// curvatures and thicknesses (row i of each), its glasses at row
// wave_index, and the focal length as calculate_efl_abcd forms it.
NUVRIX_HD void efl_value_body(int i, SurfaceData const* surfaces, double const* catalog,
                              int const* material_ids, int wave_count, int wave_index,
                              double const* curvatures, double const* thicknesses,
                              double* results, int n, int population) {
  if (i >= population) return;
  if (n > kMaxSurfaces) {
    results[i] = 0.0;  // the candidate's copy holds 256 surfaces
    return;
  }
  SurfaceData own[kMaxSurfaces];
  double row[kMaxSurfaces];
  candidate_surfaces(i, surfaces, n, curvatures, thicknesses, nullptr, own);
  catalogue_row(catalog, wave_count, wave_index, material_ids, n, row);
  results[i] = calculate_efl_abcd(own, n, row);
}

// The scalars of the RY population, as the host hands them on: the field
// (an angle in degrees with field_type 0, else a height), the normalised
// pupil point, and the surface the ray is traced to.
struct RyRay {
  double field_value, px, py;
  int field_type;
  int last_surface;  // 0 or beyond the system: the last surface
};

// Candidate i of an RY population: the base surfaces with the candidate's
// curvatures, thicknesses and conics, its glasses at row wave_index, and
// the y of the real ray that trace_arbitrary_ray launches, without aiming,
// with the candidate's own entrance pupil radius and position.  A failed
// ray gives NaN.
NUVRIX_HD void ry_value_body(int i, SurfaceData const* surfaces, double const* catalog,
                             int const* material_ids, int wave_count, int wave_index,
                             RyRay const& ray, double const* curvatures,
                             double const* thicknesses, double const* conics,
                             double const* pupil_radii, double const* pupil_positions,
                             double* results, int n, int population) {
  if (i >= population) return;
  double const nan = 0.0 / 0.0;
  if (n > kMaxSurfaces) {
    results[i] = nan;  // the candidate's copy holds 256 surfaces
    return;
  }
  SurfaceData own[kMaxSurfaces];
  double row[kMaxSurfaces];
  candidate_surfaces(i, surfaces, n, curvatures, thicknesses, conics, own);
  catalogue_row(catalog, wave_count, wave_index, material_ids, n, row);
  SystemConfig config = {};
  config.field_type = ray.field_type;
  RayTraceResult const r =
      trace_arbitrary_ray(own, n, row, &config, ray.field_value, pupil_radii[i], ray.px, ray.py,
                          0.0, pupil_positions[i], 0, 0.0, ray.last_surface, 0.0);
  results[i] = r.valid ? r.y : nan;
}

}  // namespace kernels
}  // namespace nuvrix
