// The host side of a differential evolution on the device: a population
// evaluated in one launch, and a generation (vary, evaluate, select) in
// three launches with nothing crossing the bus.  Every array is a device
// array of the caller's; see nuvrix_gpu_run_de_generation in the C header
// for the meaning of the vary arguments.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {
namespace gpu {

// Bytes of the scratch of a population of P: the candidates' surfaces
// (200 P n), their index rows (8 W P n), the operand results (16 P O) and
// the working space (8 P (F + 2 O + 8)).  0 for a count below 1.
long cuda_de_scratch_size(int P, int n, int W, int F, int O);

// The merit of every candidate of the population into population_merit.
int cuda_run_de_eval_pop(double const* population_a, double const* population_b,
                         double const* population_c, int const* population_materials,
                         double* population_merit, SurfaceData const* surfaces,
                         double const* glass_catalog, double const* wavelengths,
                         SystemConfig const* config, FieldData const* fields,
                         MeritOperandDesc const* operands, void* scratch, long scratch_bytes,
                         int P, int n, int W, int F, int O);

// One generation: the trials, their merits, and the better of each pair
// kept in the population arrays.
int cuda_run_de_generation(
    double* population_a, double* population_b, double* population_c, int* population_materials,
    double* population_merit, double* trial_a, double* trial_b, double* trial_c,
    int* trial_materials, double* trial_merit, double const* vary_table, int vary_count,
    int const* vary_table_b, int const* vary_table_c, int const* vary_table_d, int vary_count_b,
    SurfaceData const* surfaces, double const* glass_catalog, double const* wavelengths,
    SystemConfig const* config, FieldData const* fields, MeritOperandDesc const* operands,
    void* scratch, long scratch_bytes, int P, int n, int W, int F, int O, int vary_int_a,
    int vary_int_b, int vary_int_c, double vary_real_a, double vary_real_b, double vary_real_c,
    int vary_int_d, int vary_int_e, DeConditionDesc condition);

}  // namespace gpu
}  // namespace nuvrix
