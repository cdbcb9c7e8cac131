// The host side of the value kernels: the layouts of the device scratch
// blocks that the caller allocates once, and how large a population keeps
// the device busy.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {
namespace gpu {

// Bytes of the scratch block of each value path: its sections follow each
// other without gaps, the int sections padded to a multiple of 8 bytes.  P
// is the population, n the surface count, W the wavelength count, F the
// field count, O the operand count, R the ray count.  0 when a count is
// below 1 (below 0 for the grid, whose ray and field counts may be 0) or
// when the size does not fit a long.
long cuda_efl_value_scratch_size(int population, int n);
long cuda_ry_value_scratch_size(int population, int n);
long cuda_merit_value_scratch_size(int population, int n, int wave_count, int field_count,
                                   int operand_count);
long cuda_trace_grid_scratch_size(int n, int wave_count, int field_count, int ray_count);

// EFL values of a population: candidate i is the base surfaces with row i
// of `curvatures` and of `thicknesses` (population rows of n), its glasses
// from `material_ids` (one a surface, negative for air; the host refuses an
// id at or beyond catalog_rows with -8) looked up at row wave_index of the
// device `glass_catalog` (catalog_rows rows of wave_count indices).
// results[i] is what calculate_efl_abcd gives for it.  The scratch is the
// caller's device block of cuda_efl_value_scratch_size bytes.  0, or the
// codes of the GPU family.
int cuda_run_efl_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                       int catalog_rows, int wave_count, int wave_index, int const* material_ids,
                       double const* curvatures, double const* thicknesses, double* results,
                       int population, void* scratch, long scratch_bytes);

// Real-ray heights of a population, with the glasses and the catalogue of
// the EFL path.  The scalars that the Part leaves to this project are, in
// order: the field (degrees with field_type 0, else a height), the
// normalised pupil point (px, py), field_type, and after the population the
// surface the ray is traced to (0 or beyond: the last).  The three row
// arrays are each candidate's curvatures, thicknesses and conics; the two
// per-candidate arrays its entrance pupil radius and position, which the
// host works out.  results[i] is the y of trace_arbitrary_ray without
// aiming for candidate i, NaN when the ray fails.
int cuda_run_ry_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                      int catalog_rows, int wave_count, int wave_index, int const* material_ids,
                      double field_value, double px, double py, int field_type,
                      double const* curvatures, double const* thicknesses, double const* conics,
                      double const* pupil_radii, double const* pupil_positions, double* results,
                      int population, int last_surface, void* scratch, long scratch_bytes);

// Merit values of a population: candidate i is the base surfaces with row i
// of `curvatures`, `thicknesses` and `conics` and row i of `material_ids`
// (population rows of n each; glass ids as for the EFL path), and
// merit_values[i] is what evaluate_merit gives for it.  operand_results,
// when given, receives population rows of operand_count results.  With
// reuse_uploads the surfaces, wavelengths, configuration, fields and
// operands stay as the last run on this scratch left them.  use_soa picks
// the surface-major kernel (the same numbers), else use_f32 the kernel that
// reads the three parameter rows as floats; an absent form falls back to
// the plain kernel.  0, or the codes of the GPU family.
int cuda_run_merit_value(SurfaceData const* surfaces, int n, double const* glass_catalog,
                         int catalog_rows, int wave_count, int const* material_ids,
                         double const* wavelengths, SystemConfig const* config,
                         FieldData const* fields, int field_count,
                         MeritOperandDesc const* operands, int operand_count,
                         double const* curvatures, double const* thicknesses,
                         double const* conics, double* merit_values, int population,
                         void* scratch, long scratch_bytes, MeritResult* operand_results,
                         int reuse_uploads, int use_f32, int use_soa);

// Every ray of a grid in one launch.  Ray r is the field
// field_indices[r] (or row f of field_table: field y, field x, pupil
// radius and pupil position, which then replace the field's values and the
// two shared scalars), the index row wave_indices[r] and the pupil point
// (px_values[r], py_values[r]), traced as trace_arbitrary_ray_full traces
// it, to surface_indices[r] when given (0: the last surface), aimed when
// `aim` is nonzero with the stop radius stop_radii[r] (without the array,
// aim_stop_radius of the ray's row).  x, y, optical_path (the path in
// waves of the row's wavelength; wavelengths in micrometres) and valid
// always come back; with ray_kinds[r] 1 also the end point and direction,
// the point on surface 1 and the launch direction (launch_), and the
// normal at the last surface traced, into those optional outputs that are
// given (zeros, and launch_n 1, for other rays).  With reuse_uploads the
// configuration, fields, wavelengths, ray lists and field_table stay from
// the last run on this scratch; the surfaces, index table and stop radii
// are sent every time.  -9 without the grid kernel; -8 also for a field or
// row index out of range.
int cuda_run_trace_grid(SurfaceData const* surfaces, int n, double const* index_table,
                        int wave_count, double const* wavelengths, SystemConfig const* config,
                        FieldData const* fields, int field_count, int const* field_indices,
                        int const* wave_indices, double const* px_values,
                        double const* py_values, double const* field_table, double pupil_radius,
                        double entrance_pupil_position, double* x, double* y,
                        double* optical_path, int* valid, int ray_count, void* scratch,
                        long scratch_bytes, int reuse_uploads, int const* ray_kinds, double* z,
                        double* l, double* m, double* n_out, double* launch_x, double* launch_y,
                        double* launch_z, double* launch_l, double* launch_m, double* launch_n,
                        int const* surface_indices, double* normal_x, double* normal_y,
                        double* normal_z, int aim, double const* stop_radii);

// Times the trace microbenchmark kernel of the precision use_f64 picks:
// ray_count rays through surface_count surfaces (held to 1 .. 256),
// pass_count times each, one warm-up launch and then `iterations` (at
// least 1) launches between two clock readings.  elapsed_ms gets the time
// of those launches, checksum the first ray's result; both are zeroed
// first.  0; -3 for ray_count or pass_count below 1; -1, -2 as the other
// calls; -4 without the kernel; -5 when the buffer cannot be allocated; -6
// for a failed launch, -7 for a failed synchronise or read-back.
int cuda_run_trace_microbench(int use_f64, int ray_count, int surface_count, int pass_count,
                              int iterations, double* elapsed_ms, double* checksum);

// The population that fills the device with the merit kernel: the
// multiprocessors times the blocks of 64 threads each can hold, times 64;
// 0 without a set-up, the kernel, the occupancy query or a context.
int cuda_merit_value_fill_count();

}  // namespace gpu

// evaluate_merit with the operands' rays traced on the device in one launch
// of the grid kernel, into the caller's workspace, and handed on as rays
// traced in advance; the CPU traces what the device did not.  Runs wholly
// on the CPU with a thin lens, without a workspace, with an afocal image,
// with aiming and more than 64 wavelengths, without rays to send, and when
// the device fails.  Returns what evaluate_merit returns.
int gpu_evaluate_merit_value(SurfaceData const* surfaces, int n, double const* index_table,
                             double const* wavelengths, int wave_count,
                             SystemConfig const* config, FieldData const* fields,
                             int field_count, MeritOperandDesc const* ops, int count,
                             MeritResult* results, double* residuals, int* residual_count,
                             double* merit, GpuTraceScratch* scratch, int reuse_uploads);

}  // namespace nuvrix
