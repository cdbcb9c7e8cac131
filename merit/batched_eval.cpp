// The batch on the CPU: one team of threads over the candidates, each on
// its own copies of the system in the caller's scratch.
#include "merit/batched_eval.hpp"

#include <omp.h>

#include "first_order/semi_diameter.hpp"
#include "gpu/cuda_dispatch.hpp"
#include "merit/merit_function.hpp"
#include "merit/merit_jacobian.hpp"
#include "merit/variable_transform.hpp"

namespace nuvrix {
namespace {

long round16(long bytes) { return (bytes + 15) / 16 * 16; }

// The CPU's bytes a candidate: surfaces, surfaces, fields, fields, each
// step rounded up to 16 so that every copy starts 16-byte aligned.
struct CpuStride {
  long surfaces_b, fields_a, fields_b, total;
};

CpuStride cpu_stride(int n, int field_count) {
  long const surfaces = static_cast<long>(n) * static_cast<long>(sizeof(SurfaceData));
  long const fields = static_cast<long>(field_count) * static_cast<long>(sizeof(FieldData));
  CpuStride s = {};
  s.surfaces_b = round16(surfaces);
  s.fields_a = round16(s.surfaces_b + surfaces);
  s.fields_b = round16(s.fields_a + fields);
  s.total = round16(s.fields_b + fields);
  return s;
}

// The mixed run's working arrays, in doubles a candidate.
long mixed_doubles(long n, long a, long b) {
  long const bound_rows = a < 16 ? a : 16;
  return (b + 1) + 2 * n + 1 + (b + 4) * a - a + 5 * (b + 3) + 256 * (b + 2) + 2 +
         (b + 4) * a + 3 * a + 448 + 2 * (b + 7) * bound_rows;
}

// The candidate's system: the base system with each variable set from its
// unbounded value.
void place_candidate(detail::BatchSystem const& sys, double const* x,
                     detail::CandidateSlot const& slot) {
  for (int i = 0; i < sys.n; ++i) slot.surfaces[i] = sys.surfaces[i];
  for (int f = 0; f < sys.field_count; ++f) slot.fields[f] = sys.fields[f];
  for (int v = 0; v < sys.variable_count; ++v) {
    MeritVariableDesc const& var = sys.variables[v];
    double const p =
        transform_to_physical(x[v], var.has_lower, var.lower, var.has_upper, var.upper);
    apply_variable_value(var, p, slot.surfaces, sys.n, slot.fields, sys.field_count);
  }
}

// The Jacobian of the candidate's system, with a team of one.  The
// finite differences' own blocks, and a result block when the caller keeps
// none, stand on this thread's stack.
[[gnu::noinline]] int candidate_jacobian(detail::BatchSystem const& sys,
                                         detail::CandidateSlot const& slot, int jacobian_mode,
                                         detail::AnalyticBuffers const& analytic) {
  MeritResult own_results[detail::kBatchStackOperands];
  MeritResult thread_results[detail::kBatchStackOperands];
  double thread_residuals[2 * detail::kBatchStackOperands];
  MeritResult* results = slot.results != nullptr ? slot.results : own_results;
  return evaluate_merit_and_jacobian(
      slot.surfaces, sys.n, sys.index_table, sys.wavelengths, sys.wave_count, sys.config,
      slot.fields, sys.field_count, sys.ops, sys.operand_count, sys.variables,
      sys.variable_count, sys.pickups, sys.pickup_count, jacobian_mode, 0, 1, results,
      slot.residuals, slot.work_surfaces, slot.work_fields, thread_results, thread_residuals,
      slot.jacobian, slot.residual_count, slot.merit, analytic.sd_scratch, analytic.sd_rows,
      analytic.sd_scratch_a, analytic.sd_scratch_b, analytic.sd_scratch_c);
}

// The merit of the candidate's system: pickups and automatic
// semi-diameters on the second copy, then the operands.
[[gnu::noinline]] int candidate_values(detail::BatchSystem const& sys,
                                       detail::CandidateSlot const& slot) {
  MeritResult own_results[detail::kBatchStackOperands];
  MeritResult* results = slot.results != nullptr ? slot.results : own_results;
  for (int i = 0; i < sys.n; ++i) slot.work_surfaces[i] = slot.surfaces[i];
  for (int f = 0; f < sys.field_count; ++f) slot.work_fields[f] = slot.fields[f];
  apply_pickups(slot.work_surfaces, sys.n, sys.pickups, sys.pickup_count);
  solve_semi_diameters(slot.work_surfaces, sys.n, sys.index_table, sys.wavelengths,
                       sys.wave_count, sys.config, slot.work_fields, sys.field_count);
  return evaluate_merit(slot.work_surfaces, sys.n, sys.index_table, sys.wavelengths,
                        sys.wave_count, sys.config, slot.work_fields, sys.field_count, sys.ops,
                        sys.operand_count, results, slot.residuals, slot.residual_count,
                        slot.merit, false, nullptr);
}

}  // namespace

namespace detail {

void merge_batch_status(int& shared, int status) {
  if (status == 0) return;
#pragma omp critical(nuvrix_batch_status)
  {
    if (shared == 0 || (status < 0 && shared > 0)) shared = status;
  }
}

long batch_residual_stride(int operand_count) {
  return operand_count > 0 ? 2L * operand_count : 1L;
}

bool batch_list_too_long(int operand_count, MeritResult const* results, bool want_jacobian,
                         int jacobian_mode, int variable_count) {
  if (operand_count <= kBatchStackOperands) return false;
  bool const differences = want_jacobian && jacobian_mode == kJacobianFiniteDifferences &&
                           variable_count > 0;
  return results == nullptr || differences;
}

int evaluate_candidate(BatchSystem const& sys, double const* x, CandidateSlot const& slot,
                       bool want_jacobian, int jacobian_mode, AnalyticBuffers const& analytic) {
  place_candidate(sys, x, slot);
  if (want_jacobian) return candidate_jacobian(sys, slot, jacobian_mode, analytic);
  return candidate_values(sys, slot);
}

}  // namespace detail

long batched_scratch_size(int candidate_count, int n, int field_count, int operand_count,
                          int variable_count, int, int) {
  if (candidate_count < 1 || n < 1 || field_count < 1) return 0;
  long const cpu = static_cast<long>(candidate_count) * cpu_stride(n, field_count).total;
  long const mixed =
      4096 + 8L * candidate_count * mixed_doubles(n, operand_count, variable_count);
  return cpu > mixed ? cpu : mixed;
}

int evaluate_merit_batched(SurfaceData const* surfaces, int n, double const* index_table,
                           double const* wavelengths, int wave_count, SystemConfig const* config,
                           FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                           int operand_count, MeritVariableDesc const* variables,
                           int variable_count, MeritPickupDesc const* pickups, int pickup_count,
                           int candidate_count, double const* candidate_x, double* residuals,
                           double* jacobians, MeritResult* results, double* merits,
                           int* residual_count, MeritBatchedConfig batch, void* scratch,
                           long scratch_size, double* sd_scratch, int* sd_rows,
                           double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c) {
  if (candidate_count < 1) return 0;
  if (surfaces == nullptr || fields == nullptr || ops == nullptr || variables == nullptr ||
      candidate_x == nullptr || residuals == nullptr || merits == nullptr || scratch == nullptr) {
    return -2;
  }
  for (int v = 0; v < variable_count; ++v) {
    if (variables[v].kind == kVariableKindRejected) return -3;
  }
  bool const want_jacobian = (batch.want_jacobian & 1) != 0;
  if (batch.use_gpu != 0) {
    return gpu_dispatch::evaluate_mixed(
        surfaces, n, index_table, wavelengths, wave_count, config, fields, field_count, ops,
        operand_count, variables, variable_count, pickups, pickup_count, candidate_count,
        candidate_x, residuals, jacobians, results, merits, residual_count, want_jacobian,
        scratch, scratch_size, sd_scratch, sd_rows, sd_scratch_a, sd_scratch_b, batch);
  }
  if (n < 0 || field_count < 0 || operand_count < 0 || variable_count < 0) return -2;
  CpuStride const stride = cpu_stride(n, field_count);
  if (stride.total * candidate_count > scratch_size) return -2;
  if (detail::batch_list_too_long(operand_count, results, want_jacobian, batch.jacobian_mode,
                                  variable_count)) {
    return -2;
  }

  detail::BatchSystem const sys = {surfaces, n, index_table, wavelengths, wave_count,
                                   config, fields, field_count, ops, operand_count,
                                   variables, variable_count, pickups, pickup_count};
  detail::AnalyticBuffers const analytic = {sd_scratch, sd_rows, sd_scratch_a, sd_scratch_b,
                                            sd_scratch_c};
  long const row = detail::batch_residual_stride(operand_count);
  int const team = batch.thread_count > 0 ? batch.thread_count : omp_get_max_threads();
  unsigned char* const base = static_cast<unsigned char*>(scratch);
  int shared = 0;
#pragma omp parallel for num_threads(team) schedule(dynamic, 1)
  for (int c = 0; c < candidate_count; ++c) {
    unsigned char* const own = base + stride.total * c;
    int unused_count = 0;
    detail::CandidateSlot const slot = {
        reinterpret_cast<SurfaceData*>(own),
        reinterpret_cast<SurfaceData*>(own + stride.surfaces_b),
        reinterpret_cast<FieldData*>(own + stride.fields_a),
        reinterpret_cast<FieldData*>(own + stride.fields_b),
        results != nullptr ? results + static_cast<long>(c) * operand_count : nullptr,
        residuals + row * c,
        jacobians != nullptr ? jacobians + row * variable_count * c : nullptr,
        merits + c,
        c == 0 && residual_count != nullptr ? residual_count : &unused_count};
    double const* const x = candidate_x + static_cast<long>(variable_count) * c;
    detail::merge_batch_status(
        shared, detail::evaluate_candidate(sys, x, slot, want_jacobian, batch.jacobian_mode,
                                           analytic));
  }
  return shared;
}

}  // namespace nuvrix
