// The merit Jacobian behind one call: the checks, the finite-difference
// team, and the hand-over to the analytic method.
#include "merit/merit_jacobian.hpp"

#include <omp.h>

#include "analysis/fft.hpp"
#include "first_order/semi_diameter.hpp"
#include "merit/merit_function.hpp"
#include "merit/variable_transform.hpp"

namespace nuvrix {
namespace {

// One thread's work area and result buffers.
struct ThreadArea {
  SurfaceData* surfaces;
  FieldData* fields;
  MeritResult* results;
  double* residuals;
};

ThreadArea thread_area(JacobianInputs const& in, SurfaceData* work_surfaces,
                       FieldData* work_fields, MeritResult* thread_results,
                       double* thread_residuals, int thread) {
  long const residual_stride = in.operand_count > 0 ? 2L * in.operand_count : 1L;
  return {work_surfaces + static_cast<long>(thread) * in.n,
          work_fields + static_cast<long>(thread) * in.field_count,
          thread_results + static_cast<long>(thread) * in.operand_count,
          thread_residuals + static_cast<long>(thread) * residual_stride};
}

void copy_system(JacobianInputs const& in, ThreadArea const& area) {
  for (int i = 0; i < in.n; ++i) area.surfaces[i] = in.surfaces[i];
  for (int f = 0; f < in.field_count; ++f) area.fields[f] = in.fields[f];
}

// Pickups, automatic semi-diameters and the merit of the work copy.
int evaluate_copy(JacobianInputs const& in, ThreadArea const& area, MeritResult* results,
                  double* residuals, int* residual_count, double* merit) {
  apply_pickups(area.surfaces, in.n, in.pickups, in.pickup_count);
  solve_semi_diameters_impl(area.surfaces, in.n, in.index_table, in.wavelengths, in.wave_count,
                            in.config, area.fields, in.field_count, nullptr);
  return evaluate_merit(area.surfaces, in.n, in.index_table, in.wavelengths, in.wave_count,
                        in.config, area.fields, in.field_count, in.ops, in.operand_count,
                        results, residuals, residual_count, merit, false, nullptr);
}

double unbounded_value(MeritVariableDesc const& v, SurfaceData const* surfaces, int n,
                       FieldData const* fields, int field_count) {
  double const p = read_variable_value(v, surfaces, n, fields, field_count);
  return transform_to_unbounded(p, v.has_lower, v.lower, v.has_upper, v.upper);
}

// The residuals of the system with variable `moved` offset by e in x.
// Every variable passes through the transforms, also those that stand
// still, so that each evaluation sees its parameters as the host's x gives
// them.  Returns the residual count.
int evaluate_offset(JacobianInputs const& in, ThreadArea const& area, int moved, double e) {
  copy_system(in, area);
  for (int w = 0; w < in.variable_count; ++w) {
    MeritVariableDesc const& v = in.variables[w];
    double x = unbounded_value(v, in.surfaces, in.n, in.fields, in.field_count);
    if (w == moved) x += e;
    double const p = transform_to_physical(x, v.has_lower, v.lower, v.has_upper, v.upper);
    apply_variable_value(v, p, area.surfaces, in.n, area.fields, in.field_count);
  }
  int count = 0;
  evaluate_copy(in, area, area.results, area.residuals, &count, nullptr);
  return count;
}

// Column v of the Jacobian: a central difference for semi-diameters and
// aperture percentages, whose effect on the rays is not smooth enough for a
// one-sided step, and a forward difference for every other kind.
void difference_column(JacobianInputs const& in, ThreadArea const& area, int v,
                       double const* base, int base_count, double* jacobian) {
  MeritVariableDesc const& var = in.variables[v];
  double const x = unbounded_value(var, in.surfaces, in.n, in.fields, in.field_count);
  double const h = fd_step(var, x, in.surfaces, in.n);
  long const stride = in.variable_count;
  bool const central = var.kind == 7 || var.kind == 8;
  int filled = 0;
  if (central) {
    int const minus = evaluate_offset(in, area, v, -h);
    int const rows_minus = minus < base_count ? minus : base_count;
    for (int r = 0; r < rows_minus; ++r) jacobian[r * stride + v] = -area.residuals[r];
    int const plus = evaluate_offset(in, area, v, h);
    filled = plus < rows_minus ? plus : rows_minus;
    double const factor = h != 0.0 ? 0.5 / h : 0.0;
    for (int r = 0; r < filled; ++r) {
      jacobian[r * stride + v] = (area.residuals[r] + jacobian[r * stride + v]) * factor;
    }
  } else {
    int const moved = evaluate_offset(in, area, v, h);
    filled = moved < base_count ? moved : base_count;
    double const factor = h != 0.0 ? 1.0 / h : 0.0;
    for (int r = 0; r < filled; ++r) {
      jacobian[r * stride + v] = (area.residuals[r] - base[r]) * factor;
    }
  }
  for (int r = filled; r < base_count; ++r) jacobian[r * stride + v] = 0.0;
}

bool has_rejected_kind(MeritVariableDesc const* variables, int count) {
  for (int v = 0; v < count; ++v) {
    if (variables[v].kind == kVariableKindRejected) return true;
  }
  return false;
}

}  // namespace

int evaluate_merit_and_jacobian(
    SurfaceData const* surfaces, int n, double const* index_table, double const* wavelengths,
    int wave_count, SystemConfig const* config, FieldData const* fields, int field_count,
    MeritOperandDesc const* ops, int operand_count, MeritVariableDesc const* variables,
    int variable_count, MeritPickupDesc const* pickups, int pickup_count, int jacobian_mode,
    int parallel, int thread_count, MeritResult* results, double* residuals,
    SurfaceData* work_surfaces, FieldData* work_fields, MeritResult* thread_results,
    double* thread_residuals, double* jacobian, int* residual_count, double* merit,
    double* sd_scratch, int* sd_rows, double* sd_scratch_a, double* sd_scratch_b,
    double* sd_scratch_c) {
  (void)sd_scratch_c;
  if (has_rejected_kind(variables, variable_count)) return -3;
  if (jacobian_mode != kJacobianAnalytic && jacobian_mode != kJacobianFiniteDifferences) return -2;
  // Both methods need the base results, a work copy and, with variables,
  // the Jacobian; the finite differences also need each thread's buffers.
  bool const fd = jacobian_mode == kJacobianFiniteDifferences;
  bool const some_ops = operand_count > 0, some_vars = variable_count > 0;
  if (config == nullptr || residuals == nullptr || (n > 0 && surfaces == nullptr) ||
      (n > 0 && work_surfaces == nullptr) || (some_ops && (ops == nullptr || results == nullptr)) ||
      (pickup_count > 0 && pickups == nullptr) ||
      (wave_count > 0 && (index_table == nullptr || wavelengths == nullptr)) ||
      (field_count > 0 && (fields == nullptr || work_fields == nullptr)) ||
      (some_vars && (variables == nullptr || jacobian == nullptr)) ||
      (fd && some_vars && (thread_residuals == nullptr || (some_ops && thread_results == nullptr)))) {
    return -2;
  }
  if (!fd) {
    // The analytic path keeps its work on its own stack: a batch hands the
    // same five buffers to every candidate at once, so none is written.
    if (sd_scratch == nullptr || sd_rows == nullptr || sd_scratch_a == nullptr ||
        sd_scratch_b == nullptr) {
      return -2;
    }
    return evaluate_merit_jacobian_analytic(
        surfaces, n, index_table, wavelengths, wave_count, config, fields, field_count, ops,
        operand_count, variables, variable_count, pickups, pickup_count, results, residuals,
        work_surfaces, work_fields, jacobian, residual_count, merit);
  }

  JacobianInputs const in = {surfaces, n, index_table, wavelengths, wave_count, config,
                             fields, field_count, ops, operand_count, variables,
                             variable_count, pickups, pickup_count};
  // The base evaluation in thread 0's work area.
  ThreadArea const first =
      thread_area(in, work_surfaces, work_fields, thread_results, thread_residuals, 0);
  copy_system(in, first);
  int base_count = 0;
  int const status = evaluate_copy(in, first, results, residuals, &base_count, merit);
  if (residual_count != nullptr) *residual_count = base_count;
  if (status != 0 || variable_count < 1) return status;

  int const team = (parallel != 0 && thread_count > 1) ? thread_count : 1;
#pragma omp parallel num_threads(team)
  {
    // Each thread takes a contiguous block of variables and writes only its
    // own work area and its own columns.
    int const threads = omp_get_num_threads(), thread = omp_get_thread_num();
    detail::StaticRange const block = detail::static_range(variable_count, threads, thread);
    ThreadArea const area =
        thread_area(in, work_surfaces, work_fields, thread_results, thread_residuals, thread);
    for (long v = block.begin; v < block.end; ++v) {
      difference_column(in, area, static_cast<int>(v), residuals, base_count, jacobian);
    }
  }
  return 0;
}

}  // namespace nuvrix
