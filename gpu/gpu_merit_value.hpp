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

// The population that fills the device with the merit kernel: the
// multiprocessors times the blocks of 64 threads each can hold, times 64;
// 0 without a set-up, the kernel, the occupancy query or a context.
int cuda_merit_value_fill_count();

}  // namespace gpu
}  // namespace nuvrix
