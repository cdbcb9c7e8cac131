// The population merit kernels: one thread a candidate, in blocks of 64
// for occupancy with the large state of a merit evaluation.  The three
// forms differ only in how they read the population rows.
#include "kernels/merit_bodies.cuh"

#define NUVRIX_MERIT_KERNEL(name, layout)                                                      \
  extern "C" __global__ void name(                                                             \
      SurfaceData const* surfaces, int n, double const* catalog, int const* material_ids,      \
      int wave_count, double const* wavelengths, SystemConfig const* config,                   \
      FieldData const* fields, int field_count, MeritOperandDesc const* operands,              \
      int operand_count, void const* curvatures, void const* thicknesses, void const* conics,  \
      SurfaceData* own_surfaces, double* own_rows, MeritResult* results, double* work,         \
      double* merit_values, int population) {                                                  \
    nuvrix::kernels::MeritPopulation const p = {                                               \
        surfaces,   n,           catalog,      material_ids,  wave_count, wavelengths, config, \
        fields,     field_count, operands,     operand_count, curvatures, thicknesses, conics, \
        own_surfaces, own_rows,  results,      work,          merit_values, population};       \
    nuvrix::kernels::merit_value_body(blockIdx.x * blockDim.x + threadIdx.x, layout, p);       \
  }

NUVRIX_MERIT_KERNEL(nuvrix_merit_value_kernel, nuvrix::kernels::kRowsPlain)
NUVRIX_MERIT_KERNEL(nuvrix_merit_value_kernel_f32, nuvrix::kernels::kRowsFloat)
NUVRIX_MERIT_KERNEL(nuvrix_merit_value_kernel_soa, nuvrix::kernels::kRowsSurfaceMajor)
