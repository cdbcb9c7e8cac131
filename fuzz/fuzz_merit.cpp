// The merit function and the legacy operand list.  Each call is checked
// against what its contract promises whatever the values: the unsupported
// count, the statuses, the number of residual slots, a merit that is not
// negative; the legacy list leaves unknown codes, and code 7 outside the
// full form, at value 0 and status 0.
#include <cstdio>
#include <cstring>

#include "first_order/semi_diameter.hpp"
#include "fuzz/fuzz_args.hpp"
#include "merit/variable_transform.hpp"

using namespace nuvrix_fuzz;

namespace {

[[noreturn]] void broken(char const* what) {
  std::fprintf(stderr, "fuzz_merit: contract broken: %s\n", what);
  std::abort();
}

bool is_composite(uint32_t code) { return code >= 29 && code <= 36; }

void device_rays(MeritArgs const& a, System& sys, Buf<MeritOperandDesc> const& ops,
                 int32_t count, Buf<MeritResult> const& results, Buf<double> const& residuals,
                 int32_t residual_count, double merit, int32_t unsupported);

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
  device_rays(a, sys, ops, count, results, residuals, residual_count, merit, unsupported);
}

// The same evaluation with its rays offered to the device: without one
// (or with any failure there) it must be the CPU's evaluation to the bit.
void device_rays(MeritArgs const& a, System& sys, Buf<MeritOperandDesc> const& ops,
                 int32_t count, Buf<MeritResult> const& results, Buf<double> const& residuals,
                 int32_t residual_count, double merit, int32_t unsupported) {
  constexpr int kCapacity = 8;
  int32_t ints[5][kCapacity];
  double doubles[20][kCapacity];
  GpuTraceScratch ws = {ints[0], ints[1], ints[2], ints[3], doubles[0], doubles[1], doubles[2],
                        doubles[3], doubles[4], ints[4], doubles[5], doubles[6], doubles[7],
                        doubles[8], doubles[9], doubles[10], doubles[11], doubles[12],
                        doubles[13], doubles[14], doubles[15], doubles[16], doubles[17],
                        doubles[18], doubles[19], kCapacity, nullptr, 0};
  bool const device = nuvrix_gpu_init() == 0;
  ws.device_scratch_bytes = nuvrix_gpu_trace_grid_scratch_size(
      sys.surface_count, sys.wavelength_count, sys.field_count, kCapacity);
  if (device) nuvrix_gpu_alloc_device(ws.device_scratch_bytes, &ws.device_scratch);
  else ws.device_scratch = reinterpret_cast<void*>(64);  // never reached without a device
  Buf<MeritResult> r2(count);
  Buf<double> res2(product(2, count));
  for (size_t i = 0; i < res2.size(); ++i) res2[i] = residuals[i];
  int32_t slots2 = -1;
  double merit2 = -1.0;
  int32_t const u2 = nuvrix_gpu_evaluate_merit_value(
      sys.surfaces.data(), sys.surface_count, sys.table.data(), sys.wavelengths.data(),
      sys.wavelength_count, &sys.config, sys.fields.data(), sys.field_count, ops.data(), count,
      a.null_results ? nullptr : r2.data(), a.null_residuals ? nullptr : res2.data(),
      a.null_residual_count ? nullptr : &slots2, a.null_merit ? nullptr : &merit2, &ws, 0);
  if (device) {
    nuvrix_gpu_free_device(ws.device_scratch);
    return;  // the device's rays agree only to rounding
  }
  if (u2 != unsupported) broken("device path: unsupported count");
  if (!a.null_residual_count && slots2 != residual_count) broken("device path: slots");
  if (!a.null_merit && std::memcmp(&merit2, &merit, sizeof merit) != 0) broken("device path: merit");
  for (int32_t i = 0; !a.null_results && i < count; ++i) {
    if (std::memcmp(&r2[i].value, &results[i].value, sizeof(double)) != 0 ||
        r2[i].status != results[i].status) {
      broken("device path: results");
    }
  }
  if (!a.null_residuals && res2.size() > 0 &&
      std::memcmp(res2.data(), residuals.data(), sizeof(double) * res2.size()) != 0) {
    broken("device path: residuals");
  }
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

// The Jacobian: the status by its order of checks (a variable of kind 5,
// then the mode, then the analytic buffers), the count of the base
// evaluation, and a Jacobian left untouched without variables or on any
// status but 0.
void evaluate_jacobian(MeritArgs const& a, System& sys, Reader& in) {
  JacobianArgs j;
  j.visit(in);
  int32_t const count = capped_operand_count(a.operand_count, sys.surface_count);
  Buf<MeritOperandDesc> ops = read_operands<MeritOperandDesc>(in, count);
  bound_azimuths(ops);
  int32_t const nv = j.variable_count < 0 ? 0 : j.variable_count;
  int32_t const np = j.pickup_count < 0 ? 0 : j.pickup_count;
  Buf<MeritVariableDesc> vars = read_operands<MeritVariableDesc>(in, nv);
  Buf<MeritPickupDesc> pickups = read_operands<MeritPickupDesc>(in, np);
  int32_t const threads = j.parallel && j.thread_count > 1 ? j.thread_count : 1;
  int32_t const n = sys.surface_count, fields = sys.field_count;
  Buf<MeritResult> results(count), thread_results(product(count, threads));
  Buf<double> residuals(count > 0 ? product(2, count) : 1);
  Buf<double> thread_residuals(product(count > 0 ? 2 * count : 1, threads));
  Buf<SurfaceData> work(product(n, threads));
  Buf<FieldData> work_fields(product(fields, threads));
  long const cells = static_cast<long>(residuals.size()) * nv;
  Buf<double> jacobian(cells);
  for (size_t k = 0; k < jacobian.size(); ++k) jacobian[k] = -5.0;
  double sd = 0.0, sa = 0.0, sb = 0.0, merit = -1.0;
  int32_t rows = 0, residual_count = -1;
  int32_t const ret = nuvrix_evaluate_merit_and_jacobian(
      sys.surfaces.data(), n, sys.table.data(), sys.wavelengths.data(), sys.wavelength_count,
      &sys.config, sys.fields.data(), fields, ops.data(), count, vars.data(), nv,
      pickups.data(), np, j.mode, j.parallel ? 1 : 0, j.thread_count, results.data(),
      residuals.data(), work.data(), work_fields.data(), thread_results.data(),
      thread_residuals.data(), jacobian.data(), &residual_count, &merit,
      j.null_sd ? nullptr : &sd, &rows, &sa, &sb, nullptr);

  bool kind5 = false;
  for (size_t v = 0; v < vars.size(); ++v) kind5 = kind5 || vars[v].kind == 5;
  int32_t weighted = 0;
  for (size_t i = 0; i < ops.size(); ++i) weighted += ops[i].weight != 0.0 ? 1 : 0;
  if (kind5 != (ret == -3)) broken("kind 5 and -3 go together");
  if (!kind5 && j.mode != 0 && j.mode != 1 && ret != -2) broken("a bad mode is -2");
  if (!kind5 && j.mode == 1 && j.null_sd && ret != -2) broken("analytic without buffers");
  if (ret < -3 || ret == -1 || ret > weighted) broken("status out of range");
  bool const untouched = nv == 0 || ret != 0;
  if (untouched) {
    for (size_t k = 0; k < jacobian.size(); ++k) {
      if (jacobian[k] != -5.0) broken("Jacobian written");
    }
  }
  int32_t const listed = count > 0 ? count : 0;  // a negative count lists nothing
  if (ret >= 0 && (residual_count < 0 || residual_count > 2 * listed)) broken("residual count");
  if (ret >= 0 && !(merit >= 0.0)) {
    bool any_nan = false;  // a NaN in the inputs may make the merit NaN
    for (size_t i = 0; i < residuals.size(); ++i) any_nan = any_nan || residuals[i] != residuals[i];
    if (!any_nan && merit < 0.0) broken("negative merit");
  }
  keep(residuals);
  keep(jacobian);
}

// Candidate c of a batch as a host places it: the unbounded row made
// physical and written, pickups, automatic semi-diameters; its merit alone.
double single_merit(System const& sys, Buf<MeritOperandDesc> const& ops, int32_t count,
                    Buf<MeritVariableDesc> const& vars, Buf<MeritPickupDesc> const& pickups,
                    double const* x, int32_t* status) {
  int32_t const n = sys.surface_count, nf = sys.field_count;
  Buf<SurfaceData> s(n);
  Buf<FieldData> f(nf);
  for (int32_t i = 0; i < n; ++i) s[i] = sys.surfaces[i];
  for (int32_t k = 0; k < nf; ++k) f[k] = sys.fields[k];
  for (size_t v = 0; v < vars.size(); ++v) {
    MeritVariableDesc const& var = vars[v];
    double const p =
        nuvrix::transform_to_physical(x[v], var.has_lower, var.lower, var.has_upper, var.upper);
    nuvrix::apply_variable_value(var, p, s.data(), n, f.data(), nf);
  }
  nuvrix::apply_pickups(s.data(), n, pickups.data(), static_cast<int>(pickups.size()));
  nuvrix_solve_semi_diameters(s.data(), n, sys.table.data(), sys.wavelengths.data(),
                              sys.wavelength_count, &sys.config, f.data(), nf);
  Buf<MeritResult> results(count);
  double merit = -1.0;
  *status = nuvrix_evaluate_merit(s.data(), n, sys.table.data(), sys.wavelengths.data(),
                                  sys.wavelength_count, &sys.config, f.data(), nf, ops.data(),
                                  count, results.data(), nullptr, nullptr, &merit);
  return merit;
}

// The batch: its order of checks (no candidates, then kind 5, then the
// scratch), outputs untouched without candidates, and on the CPU each
// candidate's merit equal to the single evaluation of its system.
void evaluate_batched(MeritArgs const& a, System& sys, Reader& in) {
  JacobianArgs j;
  BatchArgs b;
  j.visit(in), b.visit(in);
  int32_t const count = capped_operand_count(a.operand_count, sys.surface_count);
  Buf<MeritOperandDesc> ops = read_operands<MeritOperandDesc>(in, count);
  bound_azimuths(ops);
  int32_t const nv = j.variable_count < 0 ? 0 : j.variable_count;
  int32_t const np = j.pickup_count < 0 ? 0 : j.pickup_count;
  Buf<MeritVariableDesc> vars = read_operands<MeritVariableDesc>(in, nv);
  Buf<MeritPickupDesc> pickups = read_operands<MeritPickupDesc>(in, np);
  int32_t const C = b.candidate_count, rows = C > 0 ? C : 0;
  Buf<double> x(product(rows, nv) + 1);
  for (size_t k = 0; k < x.size(); ++k) x[k] = in.f64();
  int32_t const n = sys.surface_count, nf = sys.field_count, width = count > 0 ? 2 * count : 1;
  long const need = nuvrix_batched_scratch_size(C, n, nf, count, nv, 0, 0);
  long const cpu = product(rows, 2 * ((200L * n + 15) / 16 * 16 + (24L * nf + 15) / 16 * 16));
  Buf<double> scratch(need / 8 + 2);
  Buf<double> residuals(product(rows, width) + 1), merits(rows + 1);
  Buf<double> jacobians(product(product(rows, width), nv) + 1);
  Buf<MeritResult> results(product(rows, count) + 1);
  for (size_t k = 0; k < merits.size(); ++k) merits[k] = -5.0;
  double sd = 0.0, sa = 0.0, sb = 0.0;
  int32_t sr = 0, residual_count = -1;
  MeritBatchedConfig const config = {b.use_gpu ? 1 : 0, j.mode, j.thread_count, b.want_jacobian,
                                     {}};
  int32_t const ret = nuvrix_evaluate_merit_batched(
      sys.surfaces.data(), n, sys.table.data(), sys.wavelengths.data(), sys.wavelength_count,
      &sys.config, sys.fields.data(), nf, ops.data(), count, vars.data(), nv, pickups.data(), np,
      C, x.data(), residuals.data(), jacobians.data(), results.data(), merits.data(),
      &residual_count, config, scratch.data(), b.short_scratch ? cpu - 1 : need,
      j.null_sd ? nullptr : &sd, &sr, &sa, &sb, nullptr);

  bool kind5 = false;
  for (int32_t v = 0; v < nv; ++v) kind5 = kind5 || vars[v].kind == 5;
  if (C < 1) {
    if (ret != 0 || merits[0] != -5.0 || residual_count != -1) broken("batch without candidates");
    return;
  }
  if (n < 1 || nf < 1) return;  // no scratch to speak of: a null pointer or a size of 0
  if (kind5 != (ret == -3)) broken("batch: kind 5 and -3 go together");
  if (!kind5 && !b.use_gpu && b.short_scratch && ret != -2) broken("batch: short scratch");
  if (ret < -3 || ret == -1) broken("batch: status out of range");
  if (ret != 0 || b.use_gpu || (b.want_jacobian & 1) != 0) return;
  for (int32_t c = 0; c < C; ++c) {
    int32_t status = 0;
    double const merit = single_merit(sys, ops, count, vars, pickups, x.data() + product(c, nv),
                                      &status);
    if (status != 0 || std::memcmp(&merit, &merits[c], sizeof merit) != 0) {
      broken("batch: a candidate differs from its single evaluation");
    }
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
    case kEvaluateMeritAndJacobian: evaluate_jacobian(a, sys, in); break;
    case kEvaluateMeritBatched: evaluate_batched(a, sys, in); break;
  }
  return 0;
}
