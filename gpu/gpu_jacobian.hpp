// The host side of the Jacobian kernels.  The device differentiates with
// respect to curvature variables only: variable v moves the curvature of
// surface variable_surfaces[v] (1 .. n - 1), and a candidate is the base
// surfaces with its own values of those variables, `values` holding
// count rows of variable_count.  Each runner allocates its device buffers,
// uploads, launches, synchronises, downloads and frees them all on every
// path; it returns 0 or the codes of the GPU family (-8 for sizes or
// variable surfaces out of range, -3 for a null array or a failed
// allocation).  `factors`, when given (count rows of variable_count),
// multiply each derivative, so that a host can have the rows with respect
// to its unbounded variables (the transform's derivative) at once.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {
namespace gpu {

// Code 50 on the index row `row` (n indices; the operand's wavelength row
// of the host's table): results[i] the focal length of candidate i,
// rows[i * variable_count + v] its derivative.
int cuda_run_efl_jacobian(SurfaceData const* surfaces, int n, double const* row,
                          int const* variable_surfaces, int variable_count,
                          double const* values, double const* factors, double* results,
                          double* rows, int count);

// A real-ray coordinate: RAY_X or RAY_Y at last_surface (0: the image),
// and TRANSVERSE_X or TRANSVERSE_Y before their centroid is taken out.
// The ray is (field_y, field_x), already scaled as the merit scales hy and
// hx, and the pupil point (px, py), on row wave_row of index_table (which
// holds at least the rows up to wave_row and primary_row, n each); the
// pupil and its position belong to primary_row.  The host gives for each
// candidate i its plain first order, frames[3i ..]: the entrance pupil
// radius, its position, and the stop radius of the ray's row (0 without
// aiming); and with aiming the plain aim of the ray, aims[3i ..], as
// aim_plain_launch finds it (NaN first for a failed aim).  setup holds the
// configuration as six numbers: field type, aperture type, ray aiming,
// stop surface, telecentric object, and the coordinate (0 x, 1 y); the
// aperture value is a scalar of its own.  The kernel differentiates the
// launch through the pupil and keeps an aimed launch on its aim, as the
// CPU's analytic Jacobian does.  results[i] is the coordinate, NaN with a
// row of zeros when the ray fails.
int cuda_run_ry_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                         int const* variable_surfaces, int variable_count, double field_y,
                         double field_x, double const* values, double px, double py,
                         double aperture_value, int wave_row, int primary_row,
                         double const* factors, double const* frames, double const* aims,
                         double const* setup, double* results, double* rows, int count,
                         int last_surface);

// Many ray entries of every candidate in one launch, on the configuration
// `setup` (six numbers: field type, aperture type, ray aiming, stop
// surface, telecentric object, aperture value).  Entry e is field
// entry_fields[e] of the field table (field_y, field_x: field_count values
// scaled as the merit scales hy and hx), pupil point (px[e], py[e]), index
// row entry_rows[e] (of wave_count rows) and coordinate
// entry_coordinates[e] (0 x, 1 y), traced to last_surface (0: the image);
// with subtract_chief the chief ray of its field and row is taken off it
// (TRANSVERSE_X_CHIEF and _Y_CHIEF).  Candidate i brings its plain pupil
// radius and position, the stop radius of each row (stop_radii, wave_count
// a candidate, 0 without aiming), and for each entry the host's plain aims
// (aim_plain_launch's three numbers, NaN first for a failed aim) of the ray
// (ray_aims) and of the chief ray (chief_aims), entry_count a candidate.
// results and rows hold count rows of entry_count values and of
// entry_count x variable_count derivatives; a failed entry gives NaN and
// zeros.  Blocks of the entries rounded up to a warp, one candidate a row
// of the grid (at most 65535 candidates, 512 entries).
int cuda_run_spot_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                           int wave_count, int const* variable_surfaces, int variable_count,
                           double const* values, double const* setup, double const* field_y,
                           double const* field_x, int const* entry_fields, int entry_count,
                           int field_count, double const* px, double const* py,
                           int const* entry_rows, int const* entry_coordinates, int primary_row,
                           int last_surface, double const* factors, double const* pupil_radii,
                           double const* pupil_positions, double const* stop_radii,
                           double const* ray_aims, double const* chief_aims, double* results,
                           double* rows, int count, int subtract_chief);

// The OPD in waves (codes 67 to 69 before their piston or tilt is taken
// out) of many entries of every candidate: the arguments of the spot runner
// (with every entry's coordinate left out and last_surface the image), and
// the wavelengths of the rows in micrometres, whether the image is afocal,
// the host's aims of the chief ray of each entry (chief_aims) and of the
// reference ray, the chief ray of the entry's field at primary_row
// (ref_aims), and each candidate's plain reference radius.  The chief
// ray's path and closure onto the reference sphere less the ray's, as the
// CPU's dual OPD forms them.
int cuda_run_opd_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                          int wave_count, int const* variable_surfaces, int variable_count,
                          double const* values, double const* setup, double const* field_y,
                          double const* field_x, int const* entry_fields, int entry_count,
                          int field_count, double const* px, double const* py,
                          int const* entry_rows, double const* wavelengths, int primary_row,
                          int afocal, double const* factors, double const* pupil_radii,
                          double const* pupil_positions, double const* stop_radii,
                          double const* ray_aims, double const* chief_aims,
                          double const* ref_aims, double const* reference_radii,
                          double* results, double* rows, int count);

// The batched ray kernel: entry_count entries of one index row (wave_row)
// for every candidate, each a ray coordinate to the image, x where
// entry_is_x[e] is set and y otherwise; entry_fields holds each entry's
// scaled field y and x.  One stop radius a candidate (of wave_row), the
// aims as for the spot runner (no chief rays).  Items run in a row of
// blocks of the entries rounded up to a warp.
int cuda_run_ry_batched_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                                 int const* variable_surfaces, int variable_count,
                                 double const* values, double const* setup,
                                 double const* entry_fields, int entry_count, double const* px,
                                 double const* py, double const* factors, int primary_row,
                                 int wave_row, double const* pupil_radii,
                                 double const* pupil_positions, double const* stop_radii,
                                 double const* aims, double* results, double* rows, int count,
                                 int const* entry_is_x);

// The sample rays of the semi-diameter solve: entry e is the surface
// entry_surfaces[e], the index row entry_rows[e], the field entry_field_y[e]
// and the solve's pupil sample (entry_px[e], entry_py[e]), whose height at
// that surface times entry_scales[e] (the aperture percentage over 100) is
// the surface's automatic semi-diameter when the sample is the one that
// set it.  Candidate i brings the solve's plain frame of every row
// (wave_count a candidate each: the paraxial marginal height, the entrance
// pupil position (0 with the stop on surface 1 or in front), the stop
// radius, 0 without aiming) and the host's plain aim of each entry.
// results and rows as for the spot runner; a ray that fails before the
// surface gives NaN and zeros.  Blocks of 64, one thread an item.
int cuda_run_sd_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                         int wave_count, int const* variable_surfaces, int variable_count,
                         double const* values, double const* factors, double const* setup,
                         int const* entry_surfaces, int const* entry_rows,
                         double const* entry_field_y, double const* entry_px,
                         double const* entry_py, double const* entry_scales, int entry_count,
                         double const* pupil_radii, double const* pupil_positions,
                         double const* stop_radii, double const* aims, double* results,
                         double* rows, int count);

}  // namespace gpu
}  // namespace nuvrix
