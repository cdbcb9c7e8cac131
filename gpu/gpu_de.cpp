// The differential evolution's runners: the checks in their order, then
// launches on the caller's device arrays, with no transfer at all.
#include "gpu/gpu_de.hpp"

#include <climits>

#include "gpu/cuda_loader.hpp"

namespace nuvrix {
namespace gpu {
namespace {

constexpr int kBlock = 64;

// The four scratch sections of the merit kernel.
struct DeScratch {
  CUdeviceptr surfaces, rows, results, work;
};

DeScratch sections(void* scratch, long P, long n, long W, long O) {
  CUdeviceptr const at = reinterpret_cast<CUdeviceptr>(scratch);
  DeScratch s = {};
  s.surfaces = at;
  s.rows = s.surfaces + static_cast<CUdeviceptr>(200 * P * n);
  s.results = s.rows + static_cast<CUdeviceptr>(8 * W * P * n);
  s.work = s.results + static_cast<CUdeviceptr>(16 * P * O);
  return s;
}

CUresult launch(CUfunction f, int P, void** params) {
  unsigned const grid = static_cast<unsigned>((static_cast<long>(P) + kBlock - 1) / kBlock);
  return g_api.cuLaunchKernel(f, grid, 1, 1, kBlock, 1, 1, 0, nullptr, params, nullptr);
}

// The checks shared by both runners after P: the set-up, the kernels
// (-10), the scratch (-3) and the context (-2).
int enter(bool need_vary, void* scratch, long scratch_bytes, int P, int n, int W, int F, int O) {
  if (cuda_init() != 0) return -1;
  GpuState& st = state();
  if (st.merit_value == nullptr || (need_vary && (st.de_vary == nullptr || st.de_select == nullptr))) {
    return -10;
  }
  long const need = cuda_de_scratch_size(P, n, W, F, O);
  if (scratch == nullptr || need < 1 || scratch_bytes < need) return -3;
  CUresult const r = g_api.cuCtxSetCurrent(st.context);
  if (r != kCudaSuccess) {
    g_last_cu_error = r;
    return -2;
  }
  g_last_cu_error = 0;
  return 0;
}

// The merit kernel over one set of rows.
CUresult launch_merit(double const* a, double const* b, double const* c, int const* materials,
                      double* merit, SurfaceData const* surfaces, double const* glass_catalog,
                      double const* wavelengths, SystemConfig const* config,
                      FieldData const* fields, MeritOperandDesc const* operands, DeScratch s,
                      int P, int n, int W, int F, int O) {
  CUdeviceptr d_surfaces = reinterpret_cast<CUdeviceptr>(surfaces);
  CUdeviceptr d_catalog = reinterpret_cast<CUdeviceptr>(glass_catalog);
  CUdeviceptr d_ids = reinterpret_cast<CUdeviceptr>(materials);
  CUdeviceptr d_waves = reinterpret_cast<CUdeviceptr>(wavelengths);
  CUdeviceptr d_config = reinterpret_cast<CUdeviceptr>(config);
  CUdeviceptr d_fields = reinterpret_cast<CUdeviceptr>(fields);
  CUdeviceptr d_ops = reinterpret_cast<CUdeviceptr>(operands);
  CUdeviceptr d_a = reinterpret_cast<CUdeviceptr>(a), d_b = reinterpret_cast<CUdeviceptr>(b);
  CUdeviceptr d_c = reinterpret_cast<CUdeviceptr>(c);
  CUdeviceptr d_merit = reinterpret_cast<CUdeviceptr>(merit);
  void* params[20] = {&d_surfaces, &n,        &d_catalog,  &d_ids,     &W,
                      &d_waves,    &d_config, &d_fields,   &F,         &d_ops,
                      &O,          &d_a,      &d_b,        &d_c,       &s.surfaces,
                      &s.rows,     &s.results, &s.work,    &d_merit,   &P};
  return launch(state().merit_value, P, params);
}

int failed_with(CUresult r, int code) {
  g_last_cu_error = r;
  return code;
}

}  // namespace

long cuda_de_scratch_size(int P, int n, int W, int F, int O) {
  if (P < 1 || n < 1 || W < 1 || F < 1 || O < 1) return 0;
  using Wide = unsigned __int128;  // no product of the counts overflows it
  Wide const p = P, N = n;
  Wide const bytes = 200 * p * N + 8 * Wide(W) * p * N + 16 * p * Wide(O) +
                     8 * p * (Wide(F) + 2 * Wide(O) + 8);
  return bytes > static_cast<Wide>(LONG_MAX) ? 0 : static_cast<long>(bytes);
}

int cuda_run_de_eval_pop(double const* population_a, double const* population_b,
                         double const* population_c, int const* population_materials,
                         double* population_merit, SurfaceData const* surfaces,
                         double const* glass_catalog, double const* wavelengths,
                         SystemConfig const* config, FieldData const* fields,
                         MeritOperandDesc const* operands, void* scratch, long scratch_bytes,
                         int P, int n, int W, int F, int O) {
  if (P < 1) return 0;
  int const entered = enter(false, scratch, scratch_bytes, P, n, W, F, O);
  if (entered != 0) return entered;
  CUresult r = launch_merit(population_a, population_b, population_c, population_materials,
                            population_merit, surfaces, glass_catalog, wavelengths, config,
                            fields, operands, sections(scratch, P, n, W, O), P, n, W, F, O);
  if (r != kCudaSuccess) return failed_with(r, -5);
  r = g_api.cuCtxSynchronize();
  return r == kCudaSuccess ? 0 : failed_with(r, -6);
}

int cuda_run_de_generation(
    double* population_a, double* population_b, double* population_c, int* population_materials,
    double* population_merit, double* trial_a, double* trial_b, double* trial_c,
    int* trial_materials, double* trial_merit, double const* vary_table, int vary_count,
    int const* vary_table_b, int const* vary_table_c, int const* vary_table_d, int vary_count_b,
    SurfaceData const* surfaces, double const* glass_catalog, double const* wavelengths,
    SystemConfig const* config, FieldData const* fields, MeritOperandDesc const* operands,
    void* scratch, long scratch_bytes, int P, int n, int W, int F, int O, int vary_int_a,
    int vary_int_b, int vary_int_c, double vary_real_a, double vary_real_b, double vary_real_c,
    int vary_int_d, int vary_int_e, DeConditionDesc condition) {
  if (P < 1) return 0;
  int const entered = enter(true, scratch, scratch_bytes, P, n, W, F, O);
  if (entered != 0) return entered;
  auto ptr = [](void const* p) { return reinterpret_cast<CUdeviceptr>(p); };
  CUdeviceptr pa = ptr(population_a), pb = ptr(population_b), pc = ptr(population_c);
  CUdeviceptr pm = ptr(population_materials), pmerit = ptr(population_merit);
  CUdeviceptr ta = ptr(trial_a), tb = ptr(trial_b), tc = ptr(trial_c);
  CUdeviceptr tm = ptr(trial_materials), tmerit = ptr(trial_merit);
  CUdeviceptr table = ptr(vary_table), table_b = ptr(vary_table_b);
  CUdeviceptr table_c = ptr(vary_table_c), table_d = ptr(vary_table_d);
  CUdeviceptr catalog = ptr(glass_catalog), d_surfaces = ptr(surfaces);
  void* vary[28] = {&pa,          &pb,          &pc,          &pm,           &ta,
                    &tb,          &tc,          &tm,          &table,        &vary_count,
                    &P,           &n,           &table_b,     &table_c,      &table_d,
                    &vary_count_b, &catalog,    &W,           &vary_int_a,   &vary_int_b,
                    &vary_int_c,  &vary_real_a, &vary_real_b, &vary_real_c,  &vary_int_d,
                    &vary_int_e,  &d_surfaces,  &condition};
  CUresult r = launch(state().de_vary, P, vary);
  if (r != kCudaSuccess) return failed_with(r, -5);
  r = launch_merit(trial_a, trial_b, trial_c, trial_materials, trial_merit, surfaces,
                   glass_catalog, wavelengths, config, fields, operands,
                   sections(scratch, P, n, W, O), P, n, W, F, O);
  if (r != kCudaSuccess) return failed_with(r, -5);
  void* select[12] = {&pa, &pb, &pc, &pm, &pmerit, &ta, &tb, &tc, &tm, &tmerit, &P, &n};
  r = launch(state().de_select, P, select);
  if (r != kCudaSuccess) return failed_with(r, -5);
  r = g_api.cuCtxSynchronize();
  return r == kCudaSuccess ? 0 : failed_with(r, -6);
}

}  // namespace gpu
}  // namespace nuvrix
