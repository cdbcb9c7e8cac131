// Least-squares fit of Zernike polynomials, in Noll's order and
// normalisation, to a wavefront map on the unit disc inscribed in the map.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

constexpr int kZernikeMaxTerms = 37;

// (n, m) of Noll's term j at row j - 1.  A negative m takes sin(|m| theta),
// a positive one cos(m theta).
inline constexpr int NollNM[kZernikeMaxTerms][2] = {
    {0, 0},  {1, 1}, {1, -1}, {2, 0},  {2, -2}, {2, 2},  {3, -1}, {3, 1},  {3, -3}, {3, 3},
    {4, 0},  {4, 2}, {4, -2}, {4, 4},  {4, -4}, {5, 1},  {5, -1}, {5, 3},  {5, -3}, {5, 5},
    {5, -5}, {6, 0}, {6, 2},  {6, -2}, {6, 4},  {6, -4}, {6, 6},  {6, -6}, {7, -1}, {7, 1},
    {7, -3}, {7, 3}, {7, -5}, {7, 5},  {7, -7}, {7, 7},  {8, 0}};

// Value of Noll's term j (1 to 37) at polar coordinates rho, theta (radians),
// normalised to a mean square of 1 over the unit disc.  0 for any other j.
double eval_standard_zernike(int j, double rho, double theta);

// Fits min(term_count, 37) terms to the valid samples of a grid_size^2 map
// (row-major, waves) that lie on the unit disc in cell-centred coordinates.
// Fills every field of `result` but field_index.  Returns 0, also when the
// normal equations are singular (coefficients and residual then 0), or -1
// when there are fewer samples than terms (map statistics still filled).
int compute_zernike_standard(double const* map, int const* mask, int grid_size, int term_count,
                             ZernikeResult* result);

// Computes the wavefront map of field `field_index` into the caller's `map`
// and `mask` and fits it.  A non-zero status of the map is returned with
// `result` untouched; otherwise the fit's status, with field_index set.
int compute_zernike_standard_full(SurfaceData const* surfaces, int surface_count,
                                  double const* indices, double const* primary_indices,
                                  double wavelength, SystemConfig const* config,
                                  FieldData const* fields, int field_count, int field_index,
                                  int grid_size, double reference_radius, int term_count,
                                  double* map, int* mask, ZernikeResult* result);

}  // namespace nuvrix
