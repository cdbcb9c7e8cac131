// The merit function and the legacy operand list.  Each call is checked
// against what its contract promises whatever the values: the unsupported
// count, the statuses, the number of residual slots, a merit that is not
// negative; the legacy list leaves unknown codes, and code 7 outside the
// full form, at value 0 and status 0.
#include <cstdio>

#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

namespace {

[[noreturn]] void broken(char const* what) {
  std::fprintf(stderr, "fuzz_merit: contract broken: %s\n", what);
  std::abort();
}

bool is_composite(uint32_t code) { return code >= 29 && code <= 36; }

void evaluate_merit(MeritArgs const& a, System& sys, Reader& in) {
  int32_t const count = capped_operand_count(a.operand_count, sys.surface_count);
  Buf<MeritOperandDesc> ops = read_operands<MeritOperandDesc>(in, count);
  bound_azimuths(ops);
  Buf<MeritResult> results(count);
  Buf<double> residuals(product(2, count));
  int32_t residual_count = -1;
  double merit = -1.0;
  int32_t const unsupported = nuvrix_evaluate_merit(
      sys.surfaces.data(), sys.surface_count, sys.table.data(), sys.wavelengths.data(),
      sys.wavelength_count, &sys.config, sys.fields.data(), sys.field_count, ops.data(), count,
      a.null_results ? nullptr : results.data(), a.null_residuals ? nullptr : residuals.data(),
      a.null_residual_count ? nullptr : &residual_count, a.null_merit ? nullptr : &merit);

  int32_t weighted = 0;  // operands of non-zero weight (NaN included)
  for (size_t i = 0; i < ops.size(); ++i) weighted += ops[i].weight != 0.0 ? 1 : 0;
  if (unsupported < 0 || unsupported > weighted) broken("unsupported count out of range");
  if (a.null_results) {
    // Without results no residual is formed: every weighted operand counts.
    if (unsupported != weighted) broken("unsupported count without results");
    if (!a.null_residual_count && residual_count != 0) broken("slots without results");
  } else {
    int32_t status_zero = 0;
    for (size_t i = 0; i < ops.size(); ++i) {
      int32_t const st = results[i].status;
      if (st < -1 || st > 1) broken("status outside -1 .. 1");
      if (is_composite(ops[i].type) && st != 1) broken("composite not usable");
      if (!is_composite(ops[i].type) && st != 0 && (ops[i].type > 103 || sys.wavelength_count < 1))
        broken("operand without evaluator or index row is usable");
      if (ops[i].weight != 0.0 && st == 0) ++status_zero;
    }
    if (unsupported != status_zero) broken("unsupported count differs from the statuses");
    // One slot per supported weighted operand, then at most one per ray group.
    if (!a.null_residual_count) {
      int32_t const extra = residual_count - (weighted - unsupported);
      if (extra < 0 || extra > static_cast<int32_t>(ops.size())) broken("residual count");
    }
  }
  if (!a.null_merit && merit < 0.0) broken("negative merit");
  keep(residuals);
}

void evaluate_legacy(MeritArgs const& a, System& sys, Reader& in, bool full) {
  int32_t const count = capped_operand_count(a.operand_count, sys.surface_count);
  Buf<MeritOperand> ops = read_operands<MeritOperand>(in, count);
  Buf<MeritResult> results(count);
  // Stale contents that the call must overwrite.
  for (size_t i = 0; i < results.size(); ++i) results[i] = MeritResult{-7.0, 5};
  auto const fn = full ? nuvrix_evaluate_merit_operands_full : nuvrix_evaluate_merit_operands;
  int32_t const ret = fn(sys.surfaces.data(), sys.surface_count, sys.table.data(),
                         sys.wavelengths.data(), sys.wavelength_count, &sys.config,
                         sys.fields.data(), sys.field_count, ops.data(), count, results.data());
  if (ret != 0) broken("legacy evaluator returned non-zero");
  for (size_t i = 0; i < ops.size(); ++i) {
    MeritResult const& r = results[i];
    if (r.status != 0 && r.status != 1) broken("legacy status outside 0 .. 1");
    bool const known = ops[i].type >= 0 && ops[i].type <= 12 && (full || ops[i].type != 7);
    if (!known && (r.value != 0.0 || r.status != 0)) broken("legacy code without evaluator set");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kMeritOpCount;
  MeritArgs a;
  a.visit(in);
  System sys = read_system(in);
  switch (op) {
    case kEvaluateMerit: evaluate_merit(a, sys, in); break;
    case kEvaluateMeritOperands: evaluate_legacy(a, sys, in, false); break;
    case kEvaluateMeritOperandsFull: evaluate_legacy(a, sys, in, true); break;
  }
  return 0;
}
