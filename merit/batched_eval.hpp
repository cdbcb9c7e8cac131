// Many candidates of one system in one call: each candidate is a row of the
// optimiser's unbounded variables, evaluated on its own copy of the system
// by one team of threads, with values only or with its Jacobian.
#pragma once

#include "api/nuvrix.h"
#include "merit/merit_jacobian.hpp"

namespace nuvrix {

// Bytes of scratch that evaluate_merit_batched needs: the larger of the
// CPU size (two copies of the surfaces and of the fields a candidate) and
// the size of the mixed CPU and device run.  0 for no candidates, no
// surfaces or no fields.  The last two arguments are not read.
long batched_scratch_size(int candidate_count, int n, int field_count, int operand_count,
                          int variable_count, int unused_a, int unused_b);

// Evaluates candidate_count rows of candidate_x; see the exported
// nuvrix_evaluate_merit_batched for the buffers and return values.
int evaluate_merit_batched(SurfaceData const* surfaces, int n, double const* index_table,
                           double const* wavelengths, int wave_count, SystemConfig const* config,
                           FieldData const* fields, int field_count, MeritOperandDesc const* ops,
                           int operand_count, MeritVariableDesc const* variables,
                           int variable_count, MeritPickupDesc const* pickups, int pickup_count,
                           int candidate_count, double const* candidate_x, double* residuals,
                           double* jacobians, MeritResult* results, double* merits,
                           int* residual_count, MeritBatchedConfig batch, void* scratch,
                           long scratch_size, double* sd_scratch, int* sd_rows,
                           double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c);

namespace detail {

// Operand lists up to this length get the buffers that the caller's
// scratch does not hold (a result block when the caller asks for none, and
// the finite differences' own result and residual blocks) on the stack of
// the thread that evaluates the candidate; a longer list is refused where
// it would need them.
constexpr int kBatchStackOperands = 2048;

// The inputs shared by every candidate of a batch.
using BatchSystem = JacobianInputs;

// Where one candidate lives while it is evaluated: its system, a second
// copy to work in, and its slices of the outputs (results and jacobian
// may be null).
struct CandidateSlot {
  SurfaceData* surfaces;
  SurfaceData* work_surfaces;
  FieldData* fields;
  FieldData* work_fields;
  MeritResult* results;
  double* residuals;
  double* jacobian;
  double* merit;
  int* residual_count;
};

// The five buffers of the analytic method, handed on unchanged.
struct AnalyticBuffers {
  double* sd_scratch;
  int* sd_rows;
  double* sd_scratch_a;
  double* sd_scratch_b;
  double* sd_scratch_c;
};

// Residual slots a candidate: twice the operand count, or 1 for an empty list.
long batch_residual_stride(int operand_count);

// True when a batch of this kind needs the stack buffers above and the
// list is too long for them.
bool batch_list_too_long(int operand_count, MeritResult const* results, bool want_jacobian,
                         int jacobian_mode, int variable_count);

// Takes a candidate's failure into the status of the whole batch, under a
// critical section: it is taken while the batch is clean, a negative one
// also replaces a positive one, and otherwise the first stays.
void merge_batch_status(int& shared, int status);

// One candidate: its system from the base system and the unbounded row x,
// then its merit, with the Jacobian when want_jacobian is set.  Returns the
// status of the evaluation.
int evaluate_candidate(BatchSystem const& sys, double const* x, CandidateSlot const& slot,
                       bool want_jacobian, int jacobian_mode, AnalyticBuffers const& analytic);

}  // namespace detail
}  // namespace nuvrix
