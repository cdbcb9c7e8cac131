// The merit exports' engine functions that are host code: the legacy
// operand evaluator and the anchor that keeps the evaluation templates in
// the library.
#pragma once

#include "api/nuvrix.h"

namespace nuvrix {

// The legacy operand list; `full` also evaluates the incidence load (code
// 7).  Every result is written; returns 0.
int evaluate_impl(SurfaceData const* surfaces, int n, double const* index_table,
                  double const* wavelengths, int wave_count, SystemConfig const* config,
                  FieldData const* fields, int field_count, MeritOperand const* operands,
                  int operand_count, MeritResult* results, bool full);

int evaluate_merit_operands(SurfaceData const* surfaces, int n, double const* index_table,
                            double const* wavelengths, int wave_count, SystemConfig const* config,
                            FieldData const* fields, int field_count,
                            MeritOperand const* operands, int operand_count, MeritResult* results);

int evaluate_merit_operands_full(SurfaceData const* surfaces, int n, double const* index_table,
                                 double const* wavelengths, int wave_count,
                                 SystemConfig const* config, FieldData const* fields,
                                 int field_count, MeritOperand const* operands, int operand_count,
                                 MeritResult* results);

// The address of evaluate_merit, so that the evaluation routines stay in
// the library as exported weak symbols.
void const* nuvrix_force_emit_eval_helpers_();

}  // namespace nuvrix
