// The residuals of a merit evaluation and their derivatives with respect to
// the host's unbounded variables: by finite differences over one team of
// threads, or analytically by dual numbers on the calling thread.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

constexpr int kJacobianFiniteDifferences = 0;
constexpr int kJacobianAnalytic = 1;
constexpr int kVariableKindRejected = 5;  // its presence rejects a whole call

// Residuals, merit and Jacobian of one system; see the exported
// nuvrix_evaluate_merit_and_jacobian for the buffers and return values.
int evaluate_merit_and_jacobian(
    SurfaceData const* surfaces, int n, double const* index_table, double const* wavelengths,
    int wave_count, SystemConfig const* config, FieldData const* fields, int field_count,
    MeritOperandDesc const* ops, int operand_count, MeritVariableDesc const* variables,
    int variable_count, MeritPickupDesc const* pickups, int pickup_count, int jacobian_mode,
    int parallel, int thread_count, MeritResult* results, double* residuals,
    SurfaceData* work_surfaces, FieldData* work_fields, MeritResult* thread_results,
    double* thread_residuals, double* jacobian, int* residual_count, double* merit,
    double* sd_scratch, int* sd_rows, double* sd_scratch_a, double* sd_scratch_b,
    double* sd_scratch_c);

// The analytic method alone (jacobian_mode 1): the base evaluation, the
// acceptance rules, then passes of eight dual variables.  Runs on the
// calling thread; its work arrays stand on its stack.
int evaluate_merit_jacobian_analytic(
    SurfaceData const* surfaces, int n, double const* index_table, double const* wavelengths,
    int wave_count, SystemConfig const* config, FieldData const* fields, int field_count,
    MeritOperandDesc const* ops, int operand_count, MeritVariableDesc const* variables,
    int variable_count, MeritPickupDesc const* pickups, int pickup_count, MeritResult* results,
    double* residuals, SurfaceData* work_surfaces, FieldData* work_fields, double* jacobian,
    int* residual_count, double* merit);

// The inputs of one system that every evaluation of a call shares (the
// Jacobian's perturbed copies, a batch's candidates).
struct JacobianInputs {
  SurfaceData const* surfaces;
  int n;
  double const* index_table;
  double const* wavelengths;
  int wave_count;
  SystemConfig const* config;
  FieldData const* fields;
  int field_count;
  MeritOperandDesc const* ops;
  int operand_count;
  MeritVariableDesc const* variables;
  int variable_count;
  MeritPickupDesc const* pickups;
  int pickup_count;
};

namespace detail {

// The analytic method; with follow_aim false an aimed launch keeps the
// slots it was given and is not moved onto its aimed solution, which only
// shows how much that correction does.
int analytic_jacobian(SurfaceData const* surfaces, int n, double const* index_table,
                      double const* wavelengths, int wave_count, SystemConfig const* config,
                      FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                      int operand_count, MeritVariableDesc const* variables, int variable_count,
                      MeritPickupDesc const* pickups, int pickup_count, MeritResult* results,
                      double* residuals, SurfaceData* work_surfaces, FieldData* work_fields,
                      double* jacobian, int* residual_count, double* merit, bool follow_aim);

}  // namespace detail
}  // namespace nuvrix
