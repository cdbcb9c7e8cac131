// nuvrix optimize: damped least squares on a lens file's variables against
// its merit function.  The optimiser works on the unbounded coordinates x
// of the variables (a bounded parameter is a logistic or an exponential of
// x, so no step can leave its bounds); the engine's
// nuvrix_evaluate_merit_and_jacobian gives the residual vector and its
// derivatives with respect to x, and each iteration solves the
// Levenberg-Marquardt normal equations
//   (J^T J + lambda diag(J^T J)) dx = -J^T r
// with the damping lambda lowered after a step that lowers the merit and
// raised after one that does not.
#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"

namespace lensfile {
namespace {

constexpr int kCheckFailed = 1;
constexpr int kBadInput = 2;
constexpr int kDefaultIterations = 50;
constexpr double kDefaultTolerance = 1e-7;  // relative fall of the merit that ends the run
constexpr double kInitialDamping = 1e-3;
constexpr double kDampingDown = 0.1, kDampingUp = 10.0;
constexpr double kMaxDamping = 1e12;           // no downhill step even this short: a minimum
constexpr double kDiagonalFloor = 1e-12;       // share of the largest diagonal given to a flat one
constexpr double kBoundMarginSpan = 1e-6;      // a value on a bound moves inside by this share
constexpr double kBoundMarginOneSide = 1e-10;  // ... or by this distance from a lone bound
constexpr double kChangedRelative = 1e-12;     // below this a printed value counts as unchanged
constexpr int kAnalytic = 1, kFiniteDifferences = 0;
constexpr int kRefused = -2;
constexpr int kHostRefused = -100;  // refused here, the reason already printed

struct Options {
  std::string lens_path;       // empty: the built-in perturbed Cooke triplet
  std::string reference_path;  // empty: no reference (the built-in triplet for the demo)
  int iterations = kDefaultIterations;
  double tolerance = kDefaultTolerance;
  bool check = false;
  bool finite_differences = false;
};

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: nuvrix optimize [options] [lens.json]\n"
               "  damped least squares (Levenberg-Marquardt) on the lens file's \"variables\"\n"
               "  against its merit function (the \"merit\" block, or the report's default one);\n"
               "  without a file: the built-in Cooke triplet with its curvatures and air gaps\n"
               "  disturbed (as examples/cooke_perturbed.json), the built-in triplet as reference\n"
               "options:\n"
               "  --reference FILE      also evaluate the same merit function on FILE's lens\n"
               "  --check               exit 1 unless the start merit is above the reference's\n"
               "                        and the final merit at most the reference's\n"
               "  --iterations N        iteration cap (default %d)\n"
               "  --tolerance T         stop when a step lowers the merit by less than T of it\n"
               "                        (default %g)\n"
               "  --finite-differences  skip the analytic derivatives\n",
               kDefaultIterations, kDefaultTolerance);
}

// ---- Variables in unbounded coordinates ------------------------------------

double to_physical(double x, const MeritVariableDesc& v) {
  if (v.has_lower && v.has_upper) {
    if (!(v.lower < v.upper)) return v.lower;
    return std::fma(v.upper - v.lower, 1.0 / (1.0 + std::exp(-x)), v.lower);
  }
  if (v.has_lower) return std::exp(x) + v.lower;
  if (v.has_upper) return v.upper - std::exp(-x);
  return x;
}

// The inverse; a value on or beyond a bound is first moved inside by a
// margin, so that x stays finite.
double to_unbounded(double p, const MeritVariableDesc& v) {
  if (v.has_lower && v.has_upper) {
    if (!(v.lower < v.upper)) return p;
    const double span = v.upper - v.lower;
    p = std::min(p, v.upper - kBoundMarginSpan * span);
    p = std::max(p, v.lower + kBoundMarginSpan * span);
    const double q = (p - v.lower) / span;
    return std::log(q / (1.0 - q));
  }
  if (v.has_lower) return std::log(std::max(p, v.lower + kBoundMarginOneSide) - v.lower);
  if (v.has_upper) return -std::log(v.upper - std::min(p, v.upper - kBoundMarginOneSide));
  return p;
}

// The surfaces and fields of a system with its variables at x.
struct System {
  std::vector<SurfaceData> surfaces;
  std::vector<FieldData> fields;
};

System system_at(const Lens& start, const std::vector<double>& x) {
  System s{start.surfaces, start.fields};
  for (size_t k = 0; k < start.variables.size(); ++k)
    set_variable_value(start.variables[k], to_physical(x[k], start.variables[k]), s.surfaces,
                       s.fields);
  return s;
}

// The pickups as the engine applies them to its copy, for the printout.
void apply_pickups(const std::vector<MeritPickupDesc>& pickups, std::vector<SurfaceData>& s) {
  for (const MeritPickupDesc& p : pickups) {
    if (pickup_kind_name(p.kind) == nullptr) continue;
    // The variable kind that moves the same parameter as the pickup kind.
    static const unsigned kVariableKindOf[9] = {0, 1, 0, 7, 2, 0, 9, 10, 11};
    MeritVariableDesc v = {};
    v.kind = kVariableKindOf[p.kind];
    std::vector<FieldData> none;
    v.surface = p.source_surface;
    const double source = variable_value(v, s, none);
    v.surface = p.target_surface;
    set_variable_value(v, std::fma(p.factor, source, p.offset), s, none);
  }
}

// ---- The engine's merit and Jacobian ---------------------------------------

// The buffers of nuvrix_evaluate_merit_and_jacobian for one problem, sized
// as the engine asks: a work copy of the system, an operand block and a
// residual block for every thread, and a Jacobian of one row per residual
// slot (at most two per operand) and one column per variable.
struct Engine {
  const Lens* lens = nullptr;
  const std::vector<MeritOperandDesc>* ops = nullptr;
  int threads = 1;
  std::vector<SurfaceData> work_surfaces;
  std::vector<FieldData> work_fields;
  std::vector<MeritResult> results, thread_results;
  std::vector<double> residuals, thread_residuals, jacobian;
  std::vector<double> sd_scratch, sd_scratch_a, sd_scratch_b, sd_scratch_c;
  std::vector<int32_t> sd_rows;
  int32_t residual_count = 0;
  double merit = 0.0;
};

Engine make_engine(const Lens& lens, const std::vector<MeritOperandDesc>& ops) {
  Engine e;
  e.lens = &lens;
  e.ops = &ops;
  e.threads = std::max(1u, std::thread::hardware_concurrency());
  const size_t t = static_cast<size_t>(e.threads), n = lens.surfaces.size();
  const size_t operands = ops.size(), slots = operands > 0 ? 2 * operands : 1;
  e.work_surfaces.resize(n * t);
  e.work_fields.resize(std::max<size_t>(lens.fields.size(), 1) * t);
  e.results.resize(std::max<size_t>(operands, 1));
  e.thread_results.resize(std::max<size_t>(operands, 1) * t);
  e.residuals.resize(slots);
  e.thread_residuals.resize(slots * t);
  e.jacobian.resize(slots * std::max<size_t>(lens.variables.size(), 1));
  // The analytic method asks for these to be present and keeps its own
  // work on its stack.
  for (auto* v : {&e.sd_scratch, &e.sd_scratch_a, &e.sd_scratch_b, &e.sd_scratch_c})
    v->resize(n + 1);
  e.sd_rows.resize(n + 1);
  return e;
}

// One call of the engine on a system; with `jacobian` false no variable is
// handed over and only the residuals and the merit are formed.
int32_t evaluate(Engine& e, const System& s, bool jacobian, int mode) {
  const Lens& lens = *e.lens;
  const auto& vars = lens.variables;
  return nuvrix_evaluate_merit_and_jacobian(
      s.surfaces.data(), lens.count(), lens.indices.data(), lens.wavelengths_um.data(),
      static_cast<int32_t>(lens.wavelengths_um.size()), &lens.config, s.fields.data(),
      static_cast<int32_t>(s.fields.size()), e.ops->data(), static_cast<int32_t>(e.ops->size()),
      vars.data(), jacobian ? static_cast<int32_t>(vars.size()) : 0, lens.pickups.data(),
      static_cast<int32_t>(lens.pickups.size()), mode, 1, e.threads, e.results.data(),
      e.residuals.data(), e.work_surfaces.data(), e.work_fields.data(), e.thread_results.data(),
      e.thread_residuals.data(), e.jacobian.data(), &e.residual_count, &e.merit,
      e.sd_scratch.data(), e.sd_rows.data(), e.sd_scratch_a.data(), e.sd_scratch_b.data(),
      e.sd_scratch_c.data());
}

bool report_failure(int32_t status) {
  if (status > 0)
    std::fprintf(stderr, "nuvrix optimize: %d weighted operands are unsupported\n", status);
  else if (status != 0 && status != kHostRefused)
    std::fprintf(stderr, "nuvrix optimize: the engine returned %d\n", status);
  return status != 0;
}

// ---- Levenberg-Marquardt ---------------------------------------------------

using RowMajor = Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

// The damped step for the normal matrix a and gradient g; false when the
// system cannot be solved at this damping.
bool damped_step(const Eigen::MatrixXd& a, const Eigen::VectorXd& g, double lambda,
                 Eigen::VectorXd& dx) {
  const double floor = kDiagonalFloor * a.diagonal().maxCoeff();
  Eigen::MatrixXd m = a;
  for (Eigen::Index i = 0; i < m.rows(); ++i) m(i, i) += lambda * std::max(a(i, i), floor);
  const Eigen::LDLT<Eigen::MatrixXd> ldlt(m);
  if (ldlt.info() != Eigen::Success) return false;
  dx = ldlt.solve(-g);
  return dx.allFinite();
}

struct RunResult {
  std::vector<double> x;
  double start_merit = 0.0, merit = 0.0;
  int iterations = 0;  // accepted steps
  int mode = kAnalytic;
  bool analytic_refused = false;
  std::string stop_reason;
};

bool is_model_glass_kind(unsigned kind) { return kind >= 9 && kind <= 11; }

// The engine reads a model-glass variable as 0 when it forms the variable's
// unbounded coordinate: its finite differences then evaluate a glass of
// index 0, and the analytic chain rule of a bounded one takes the slope of
// the transform at that coordinate.  Only unbounded ones with analytic
// derivatives are sound.
bool model_glass_refused(const std::vector<MeritVariableDesc>& vars, int mode) {
  for (const MeritVariableDesc& v : vars) {
    if (!is_model_glass_kind(v.kind)) continue;
    if (v.has_lower || v.has_upper || mode != kAnalytic) {
      std::fprintf(stderr,
                   "nuvrix optimize: model-glass variables need analytic derivatives and no "
                   "bounds\n");
      return true;
    }
  }
  return false;
}

// The Jacobian at x, analytic while the engine accepts it.  Prints the
// change of method when the engine refuses the analytic path.
int32_t jacobian_at(Engine& e, const System& s, RunResult& run) {
  int32_t status = evaluate(e, s, true, run.mode);
  if (status == kRefused && run.mode == kAnalytic) {
    run.mode = kFiniteDifferences;
    run.analytic_refused = true;
    std::printf("  the engine refuses analytic derivatives for this problem: finite differences\n");
    if (model_glass_refused(e.lens->variables, run.mode)) return kHostRefused;
    status = evaluate(e, s, true, run.mode);
  }
  return status;
}

bool optimize(const Lens& lens, Engine& e, const Options& o, RunResult& run) {
  const size_t nv = lens.variables.size();
  run.x.resize(nv);
  for (size_t k = 0; k < nv; ++k)
    run.x[k] = to_unbounded(variable_value(lens.variables[k], lens.surfaces, lens.fields),
                            lens.variables[k]);
  run.mode = o.finite_differences ? kFiniteDifferences : kAnalytic;
  if (model_glass_refused(lens.variables, run.mode)) return false;
  if (report_failure(jacobian_at(e, system_at(lens, run.x), run))) return false;
  run.start_merit = run.merit = e.merit;
  std::printf("  %5s %18s %12s %7s\n", "iter", "merit", "damping", "trials");
  std::printf("  %5d %18.10g %12s %7s\n", 0, run.merit, "-", "-");
  double lambda = kInitialDamping;
  for (run.iterations = 0; run.iterations < o.iterations;) {
    const Eigen::Index rows = e.residual_count;
    const Eigen::Map<const RowMajor> j(e.jacobian.data(), rows, static_cast<Eigen::Index>(nv));
    const Eigen::Map<const Eigen::VectorXd> r(e.residuals.data(), rows);
    const Eigen::MatrixXd a = j.transpose() * j;
    const Eigen::VectorXd g = j.transpose() * r;
    if (!(a.diagonal().maxCoeff() > 0.0)) {
      run.stop_reason = "the merit does not depend on the variables";
      return true;
    }
    // Raise the damping until a step lowers the merit.
    std::vector<double> trial(nv);
    double trial_merit = run.merit;
    int trials = 0;
    for (;; lambda *= kDampingUp) {
      if (lambda > kMaxDamping) {
        run.stop_reason = "no step lowers the merit (a minimum)";
        return true;
      }
      Eigen::VectorXd dx;
      ++trials;
      if (!damped_step(a, g, lambda, dx)) continue;
      for (size_t k = 0; k < nv; ++k) trial[k] = run.x[k] + dx[static_cast<Eigen::Index>(k)];
      if (evaluate(e, system_at(lens, trial), false, kFiniteDifferences) != 0) continue;
      trial_merit = e.merit;
      if (trial_merit < run.merit) break;
    }
    const double fall = (run.merit - trial_merit) / run.merit;
    run.x = trial;
    run.merit = trial_merit;
    ++run.iterations;
    std::printf("  %5d %18.10g %12.3g %7d\n", run.iterations, run.merit, lambda, trials);
    lambda *= kDampingDown;
    if (fall < o.tolerance || run.merit == 0.0) {
      run.stop_reason = "the merit fell by less than the tolerance";
      return true;
    }
    if (report_failure(jacobian_at(e, system_at(lens, run.x), run))) return false;
  }
  run.stop_reason = "iteration cap";
  return true;
}

// ---- Printout --------------------------------------------------------------

std::string number(const char* format, double v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, format, v);
  return buf;
}

std::string radius_text(double c) { return c == 0.0 ? "inf" : number("%.6f", 1.0 / c); }

std::string thickness_text(double t) { return std::isfinite(t) ? number("%.6f", t) : "inf"; }

bool changed(double a, double b) {
  if (a == b) return false;
  if (!std::isfinite(a) || !std::isfinite(b)) return true;
  return std::fabs(a - b) > kChangedRelative * std::max(std::fabs(a), std::fabs(b));
}

const char* mark(double a, double b) { return changed(a, b) ? "*" : " "; }

void print_prescription(const Lens& lens, const System& end) {
  std::vector<SurfaceData> start = lens.surfaces, last = end.surfaces;
  apply_pickups(lens.pickups, start);
  apply_pickups(lens.pickups, last);
  std::printf("\n  prescription, start and end (* a changed value)\n\n");
  std::printf("  %4s %15s %16s %13s %14s   %s\n", "surf", "radius start", "radius end",
              "thick. start", "thick. end", "medium");
  for (int i = 0; i < lens.count(); ++i) {
    const SurfaceData &a = start[i], &b = last[i];
    std::printf("  %4d %15s %15s%s %13s %13s%s   %s\n", i, radius_text(a.curvature).c_str(),
                radius_text(b.curvature).c_str(), mark(a.curvature, b.curvature),
                thickness_text(a.thickness).c_str(), thickness_text(b.thickness).c_str(),
                mark(a.thickness, b.thickness), lens.media[i].c_str());
  }
}

std::string bounds_text(const MeritVariableDesc& v) {
  if (v.has_lower && v.has_upper) return number("%.6g", v.lower) + " .. " + number("%.6g", v.upper);
  if (v.has_lower) return ">= " + number("%.6g", v.lower);
  if (v.has_upper) return "<= " + number("%.6g", v.upper);
  return "-";
}

void print_variables(const Lens& lens, const System& end) {
  std::printf("\n  variables\n\n");
  std::printf("  %3s %-26s %8s %16s %16s  %s\n", "#", "kind", "where", "start", "end", "bounds");
  for (size_t k = 0; k < lens.variables.size(); ++k) {
    const MeritVariableDesc& v = lens.variables[k];
    std::string kind = variable_kind_name(v.kind);
    if (v.kind == 3 || v.kind == 13) kind += " " + std::to_string(v.coefficient);
    const std::string where =
        v.kind == 4 ? "field " + std::to_string(v.field + 1) : "s" + std::to_string(v.surface);
    const double a = variable_value(v, lens.surfaces, lens.fields);
    const double b = variable_value(v, end.surfaces, end.fields);
    std::printf("  %3zu %-26s %8s %16.9g %16.9g%s %s\n", k, kind.c_str(), where.c_str(), a, b,
                mark(a, b), bounds_text(v).c_str());
  }
}

// ---- Problems --------------------------------------------------------------

// The built-in demonstration: the Cooke triplet with its six curvatures and
// its two air gaps disturbed by a few percent (the same disturbance as
// examples/cooke_perturbed.json), free to move, against the default merit
// function with the focal length held at the undisturbed design's.
bool perturbed_triplet(Lens& lens, Lens& reference, std::string& error) {
  if (!build_lens(cooke_triplet(), reference, error) || !build_lens(cooke_triplet(), lens, error))
    return false;
  lens.name = "Cooke triplet, curvatures and air gaps disturbed (built in)";
  const double curvature_factor[7] = {1.0, 1.03, 0.97, 1.02, 0.98, 1.04, 0.97};
  for (int i = 1; i <= 6; ++i) {
    lens.surfaces[i].curvature *= curvature_factor[i];
    MeritVariableDesc v = {};
    v.kind = 0;
    v.surface = i;
    lens.variables.push_back(v);
  }
  lens.surfaces[2].thickness *= 1.05;
  lens.surfaces[4].thickness *= 0.95;
  for (int i : {2, 4}) {
    MeritVariableDesc v = {};
    v.kind = 1;
    v.surface = i;
    v.has_lower = v.has_upper = 1;
    v.lower = 0.5;
    v.upper = 12.0;
    lens.variables.push_back(v);
  }
  lens.merit = default_merit_function(lens);
  const double efl = nuvrix_calculate_efl(reference.surfaces.data(), reference.count(),
                                          reference.row(reference.config.primary_wavelength));
  for (MeritOperandDesc& op : lens.merit)
    if (op.type == 50) op.target = efl;
  return true;
}

bool parse_options(int argc, char** argv, Options& o) {
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    const bool has_value = i + 1 < argc;
    if (a == "--check") {
      o.check = true;
    } else if (a == "--finite-differences") {
      o.finite_differences = true;
    } else if (a == "--reference" && has_value) {
      o.reference_path = argv[++i];
    } else if (a == "--iterations" && has_value) {
      o.iterations = std::atoi(argv[++i]);
      if (o.iterations < 1) return false;
    } else if (a == "--tolerance" && has_value) {
      o.tolerance = std::atof(argv[++i]);
      if (!(o.tolerance >= 0.0)) return false;
    } else if (!a.empty() && a[0] != '-' && o.lens_path.empty()) {
      o.lens_path = a;
    } else {
      return false;
    }
  }
  return true;
}

bool same_layout(const Lens& a, const Lens& b) {
  return a.count() == b.count() && a.wavelengths_um.size() == b.wavelengths_um.size() &&
         a.fields.size() == b.fields.size();
}

// The same operands on the reference lens, through the same call.
bool reference_merit(const Lens& reference, const std::vector<MeritOperandDesc>& ops,
                     double& merit) {
  Engine e = make_engine(reference, ops);
  const System s{reference.surfaces, reference.fields};
  if (report_failure(evaluate(e, s, false, kFiniteDifferences))) return false;
  merit = e.merit;
  return true;
}

}  // namespace

int optimize_command(int argc, char** argv) {
  Options o;
  for (int i = 0; i < argc; ++i)
    if (!std::strcmp(argv[i], "-h") || !std::strcmp(argv[i], "--help")) {
      usage(stdout);
      return 0;
    }
  if (!parse_options(argc, argv, o)) {
    usage(stderr);
    return kBadInput;
  }
  Lens lens, reference;
  std::string error;
  bool has_reference = o.lens_path.empty() || !o.reference_path.empty();
  bool loaded = o.lens_path.empty() ? perturbed_triplet(lens, reference, error)
                                    : load_lens_file(o.lens_path, lens, error);
  if (loaded && !o.reference_path.empty())
    loaded = load_lens_file(o.reference_path, reference, error);
  if (!loaded) {
    std::fprintf(stderr, "nuvrix optimize: %s\n", error.c_str());
    return kBadInput;
  }
  if (lens.variables.empty()) {
    std::fprintf(stderr, "nuvrix optimize: the lens has no variables\n");
    return kBadInput;
  }
  if (has_reference && !same_layout(lens, reference)) {
    std::fprintf(stderr,
                 "nuvrix optimize: the reference needs as many surfaces, wavelengths and "
                 "fields as the lens\n");
    return kBadInput;
  }
  if (o.check && !has_reference) {
    std::fprintf(stderr, "nuvrix optimize: --check needs --reference\n");
    return kBadInput;
  }
  const std::vector<MeritOperandDesc> ops =
      lens.merit.empty() ? default_merit_function(lens) : lens.merit;
  Engine e = make_engine(lens, ops);

  std::printf("nuvrix optimize\n===============\n\n");
  std::printf("  lens: %s\n", lens.name.c_str());
  const char* merit_source = o.lens_path.empty()
                                 ? "the default merit function, the focal length held at the "
                                   "undisturbed design's"
                             : lens.merit.empty() ? "the default merit function"
                                                  : "the lens file's merit block";
  std::printf("  %zu variables, %zu pickups, %zu merit operands (%s), %d threads\n\n",
              lens.variables.size(), lens.pickups.size(), ops.size(), merit_source, e.threads);
  RunResult run;
  if (!optimize(lens, e, o, run)) return kBadInput;
  const System end = system_at(lens, run.x);

  std::printf("\n  derivatives: %s\n",
              run.mode == kAnalytic  ? "analytic (forward-mode dual numbers)"
              : run.analytic_refused ? "finite differences (analytic refused by the engine)"
                                     : "finite differences (asked for)");
  std::printf("  stopped after %d iterations: %s\n", run.iterations, run.stop_reason.c_str());
  print_variables(lens, end);
  print_prescription(lens, end);
  std::printf("\n  start merit      %.10g\n", run.start_merit);
  std::printf("  final merit      %.10g\n", run.merit);
  if (!has_reference) return 0;
  double ref = 0.0;
  if (!reference_merit(reference, ops, ref)) return kBadInput;
  std::printf("  reference merit  %.10g  (%s, the same merit function)\n", ref,
              reference.name.c_str());
  if (!o.check) return 0;
  // A start already at the reference's merit would prove nothing.
  const bool worse_start = run.start_merit > ref, reached = run.merit <= ref;
  std::printf("  check: start merit %s the reference's, final merit %s it: %s\n",
              worse_start ? "above" : "NOT above", reached ? "at or below" : "ABOVE",
              worse_start && reached ? "passed" : "FAILED");
  return worse_start && reached ? 0 : kCheckFailed;
}

}  // namespace lensfile
