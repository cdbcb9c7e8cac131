// The differential evolution's vary and select kernels: one thread a
// candidate, in blocks of 64.  The evaluation between them is the
// population merit kernel.
#include "kernels/de_bodies.cuh"

extern "C" __global__ void nuvrix_de_vary_kernel(
    double const* population_a, double const* population_b, double const* population_c,
    int const* population_materials, double* trial_a, double* trial_b, double* trial_c,
    int* trial_materials, double const* vary_table, int vary_count, int population, int n,
    int const* vary_table_b, int const* vary_table_c, int const* vary_table_d, int vary_count_b,
    double const* glass_catalog, int wave_count, int seed, int generation, int tries,
    double scale, double crossover, double glass_rate, int best, int strategy,
    SurfaceData const* surfaces, DeConditionDesc condition) {
  (void)glass_catalog, (void)wave_count;  // the merit kernel reads the glasses
  nuvrix::kernels::DeRows const from = {const_cast<double*>(population_a),
                                        const_cast<double*>(population_b),
                                        const_cast<double*>(population_c),
                                        const_cast<int*>(population_materials)};
  nuvrix::kernels::DeRows const to = {trial_a, trial_b, trial_c, trial_materials};
  nuvrix::kernels::DeVary const a = {from,         to,          vary_table,   vary_count,
                                     population,   n,           vary_table_b, vary_table_c,
                                     vary_table_d, vary_count_b, seed,        generation,
                                     tries,        scale,       crossover,    glass_rate,
                                     best,         strategy,    surfaces,     condition};
  nuvrix::kernels::de_vary_body(blockIdx.x * blockDim.x + threadIdx.x, a);
}

extern "C" __global__ void nuvrix_de_select_kernel(
    double* population_a, double* population_b, double* population_c, int* population_materials,
    double* population_merit, double const* trial_a, double const* trial_b,
    double const* trial_c, int const* trial_materials, double const* trial_merit, int population,
    int n) {
  nuvrix::kernels::DeRows const to = {population_a, population_b, population_c,
                                      population_materials};
  nuvrix::kernels::DeRows const from = {const_cast<double*>(trial_a), const_cast<double*>(trial_b),
                                        const_cast<double*>(trial_c),
                                        const_cast<int*>(trial_materials)};
  nuvrix::kernels::de_select_body(blockIdx.x * blockDim.x + threadIdx.x, to, population_merit,
                                  from, trial_merit, population, n);
}
