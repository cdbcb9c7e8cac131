// `nuvrix search`: a global search by differential evolution over the lens
// file's bounded curvature, thickness and conic variables.  With a device
// the population lives in device memory and each generation is one call of
// nuvrix_gpu_run_de_generation; otherwise the CPU runs the same vary and
// select rules (the header-only bodies of the device kernels, so a seed
// draws the same trials on both) and evaluates each generation's trials
// with one call of nuvrix_evaluate_merit_batched.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "kernels/de_bodies.cuh"
#include "tools/merit_function.hpp"
#include "tools/report.hpp"

namespace lensfile {
namespace {

namespace kernels = nuvrix::kernels;

constexpr int kBadInput = 2;
constexpr int kCheckFailed = 1;
constexpr int kStartTries = 32;  // draws of a start candidate before it meets the condition
constexpr int kTrialTries = 8;   // draws of a trial before it falls back to its parent

struct Options {
  std::string lens_path = "examples/cooke_search.json";
  std::string reference_path, save_path;
  int generations = 400, population = 128, seed = 2026, every = 20;
  double scale = 0.5, crossover = 0.9;
  bool check = false, cpu = false;
};

void usage(std::FILE* to) {
  std::fprintf(to,
               "usage: nuvrix search [options] [lens.json]\n"
               "  differential evolution (DE/rand/1/bin) over the lens file's variables,\n"
               "  each of kind curvature, thickness or conic with both bounds, against its\n"
               "  merit function (default lens: examples/cooke_search.json); on the device\n"
               "  when one is present, else on the CPU through the batched evaluation\n"
               "options:\n"
               "  --generations N   generations (default 400)\n"
               "  --population P    candidates (default 128, at least 4)\n"
               "  --seed S          the random streams' seed (default 2026)\n"
               "  --scale F         mutation scale (default 0.5)\n"
               "  --crossover C     crossover rate (default 0.9)\n"
               "  --every K         print the best merit every K generations (default 20)\n"
               "  --cpu             stay on the CPU even with a device\n"
               "  --reference FILE  also evaluate the merit function on FILE's lens\n"
               "  --check           exit 1 unless the best merit is within twice the\n"
               "                    reference's\n"
               "  --save FILE       write the lens file with the best prescription, for\n"
               "                    nuvrix optimize\n");
}

bool parse(int argc, char** argv, Options& o) {
  bool lens_given = false;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    const bool more = i + 1 < argc;
    auto integer = [&](int& v, int least) {
      v = std::atoi(argv[++i]);
      return v >= least;
    };
    if (a == "--check") {
      o.check = true;
    } else if (a == "--cpu") {
      o.cpu = true;
    } else if (a == "--generations" && more) {
      if (!integer(o.generations, 0)) return false;
    } else if (a == "--population" && more) {
      if (!integer(o.population, 4)) return false;
    } else if (a == "--seed" && more) {
      o.seed = std::atoi(argv[++i]);
    } else if (a == "--every" && more) {
      if (!integer(o.every, 1)) return false;
    } else if (a == "--scale" && more) {
      o.scale = std::atof(argv[++i]);
    } else if (a == "--crossover" && more) {
      o.crossover = std::atof(argv[++i]);
    } else if (a == "--reference" && more) {
      o.reference_path = argv[++i];
    } else if (a == "--save" && more) {
      o.save_path = argv[++i];
    } else if (!a.empty() && a[0] != '-' && !lens_given) {
      o.lens_path = a, lens_given = true;
    } else {
      return false;
    }
  }
  return true;
}

// The search's problem: the lens with its automatic semi-diameters solved
// (the condition reads them), its merit function, the vary table and the
// condition.
struct Problem {
  Lens lens;
  std::vector<MeritOperandDesc> ops;
  std::vector<double> table;  // rows of (surface, parameter, lower, upper)
  DeConditionDesc condition = {0.5, 0.5, 0.5, 0.0, 1, 0, {0, 0}};
  int n = 0, P = 0;
  int rows() const { return static_cast<int>(table.size() / 4); }
};

bool make_problem(const Lens& lens, int population, Problem& p, std::string& error) {
  p.lens = lens;
  p.n = lens.count(), p.P = population;
  p.ops = lens.merit.empty() ? default_merit_function(lens) : lens.merit;
  if (!lens.pickups.empty()) return error = "the search takes no pickups", false;
  for (const MeritVariableDesc& v : lens.variables) {
    if (v.kind > 2 || v.surface < 1 || v.surface >= p.n) {
      return error = "the search varies curvatures, thicknesses and conics only", false;
    }
    if (!v.has_lower || !v.has_upper || !(v.lower < v.upper)) {
      return error = "every variable of the search needs a lower and an upper bound", false;
    }
    p.table.insert(p.table.end(), {double(v.surface), double(v.kind), v.lower, v.upper});
  }
  if (p.table.empty()) return error = "the lens has no variables", false;
  nuvrix_solve_semi_diameters(p.lens.surfaces.data(), p.n, p.lens.indices.data(),
                              p.lens.wavelengths_um.data(),
                              static_cast<int>(p.lens.wavelengths_um.size()), &p.lens.config,
                              p.lens.fields.data(), static_cast<int>(p.lens.fields.size()));
  p.condition.last_surface = p.n - 2;
  return true;
}

// A population (or a generation's trials) in host memory.
struct Rows {
  std::vector<double> a, b, c, merit;
  std::vector<int> materials;
  kernels::DeRows view() { return {a.data(), b.data(), c.data(), materials.data()}; }
  void resize(int P, int n) {
    a.resize(static_cast<size_t>(P) * n), b.resize(a.size()), c.resize(a.size());
    materials.assign(a.size(), -1), merit.assign(P, 0.0);
  }
};

double* parameter(Rows& r, int q) { return q == 0 ? r.a.data() : (q == 1 ? r.b.data() : r.c.data()); }

// The start: candidate 0 the lens itself (its values held inside their
// bounds), the others drawn uniformly within the bounds from their own
// streams until they meet the condition.
Rows start_population(const Problem& p, int seed) {
  Rows r;
  r.resize(p.P, p.n);
  for (int i = 0; i < p.P; ++i) {
    for (int k = 0; k < p.n; ++k) {
      const SurfaceData& s = p.lens.surfaces[k];
      r.a[i * p.n + k] = s.curvature, r.b[i * p.n + k] = s.thickness, r.c[i * p.n + k] = s.conic;
    }
    kernels::Philox stream = kernels::de_stream(seed, -1, i);
    for (int t = 0; t < kStartTries; ++t) {
      for (int j = 0; j < p.rows(); ++j) {
        const double* row = &p.table[4 * j];
        double& v = parameter(r, static_cast<int>(row[1]))[i * p.n + static_cast<int>(row[0])];
        v = i == 0 ? std::min(std::max(v, row[2]), row[3])
                   : row[2] + kernels::de_uniform(stream) * (row[3] - row[2]);
      }
      if (i == 0 || kernels::de_condition_met(r.view(), i, p.lens.surfaces.data(), p.n,
                                              p.condition)) {
        break;
      }
    }
  }
  return r;
}

// ---- The CPU ---------------------------------------------------------------

// Every candidate's merit through one batched call: the variables without
// their bounds, so that each candidate's row of x is its physical values.
bool cpu_merits(const Problem& p, Rows& r) {
  const Lens& L = p.lens;
  std::vector<MeritVariableDesc> vars = L.variables;
  for (MeritVariableDesc& v : vars) v.has_lower = v.has_upper = 0;
  const int V = static_cast<int>(vars.size()), O = static_cast<int>(p.ops.size());
  std::vector<double> x(static_cast<size_t>(p.P) * V);
  for (int i = 0; i < p.P; ++i) {
    for (int j = 0; j < V; ++j) {
      const double* row = &p.table[4 * j];
      x[i * V + j] = parameter(r, static_cast<int>(row[1]))[i * p.n + static_cast<int>(row[0])];
    }
  }
  const int F = static_cast<int>(L.fields.size());
  const long bytes = nuvrix_batched_scratch_size(p.P, p.n, F, O, V, 0, 0);
  std::vector<double> scratch(static_cast<size_t>(bytes / 8 + 1));
  std::vector<double> residuals(static_cast<size_t>(p.P) * 2 * std::max(O, 1));
  int count = 0;
  const MeritBatchedConfig config = {0, 0, 0, 0, {}};
  const int status = nuvrix_evaluate_merit_batched(
      L.surfaces.data(), p.n, L.indices.data(), L.wavelengths_um.data(),
      static_cast<int>(L.wavelengths_um.size()), &L.config, L.fields.data(), F, p.ops.data(), O,
      vars.data(), V, nullptr, 0, p.P, x.data(), residuals.data(), nullptr, nullptr,
      r.merit.data(), &count, config, scratch.data(), bytes, nullptr, nullptr, nullptr, nullptr,
      nullptr);
  if (status != 0) std::fprintf(stderr, "nuvrix search: the batch returned %d\n", status);
  return status == 0;
}

kernels::DeVary vary_args(const Problem& p, Rows& population, Rows& trials, const Options& o,
                          int generation) {
  static const int no_glass[1] = {0};
  return {population.view(), trials.view(), p.table.data(), p.rows(), p.P, p.n, no_glass,
          no_glass, no_glass, 0, o.seed, generation, kTrialTries, o.scale, o.crossover, 0.0,
          0, 0, p.lens.surfaces.data(), p.condition};
}

bool cpu_generation(const Problem& p, Rows& population, Rows& trials, const Options& o, int g) {
  const kernels::DeVary a = vary_args(p, population, trials, o, g);
#pragma omp parallel for schedule(static)
  for (int i = 0; i < p.P; ++i) kernels::de_vary_body(i, a);
  if (!cpu_merits(p, trials)) return false;
  for (int i = 0; i < p.P; ++i) {
    kernels::de_select_body(i, population.view(), population.merit.data(), trials.view(),
                            trials.merit.data(), p.P, p.n);
  }
  return true;
}

// ---- The device -------------------------------------------------------------

// Device copies of host arrays, freed at the end.
struct Device {
  std::vector<void*> held;
  bool ok = true;
  ~Device() {
    for (void* d : held) nuvrix_gpu_free_device(d);
  }
  template <typename T>
  T* put(const T* host, size_t count) {
    void* d = nullptr;
    const long bytes = static_cast<long>(sizeof(T) * std::max<size_t>(count, 1));
    if (!ok || nuvrix_gpu_alloc_device(bytes, &d) != 0) return ok = false, nullptr;
    held.push_back(d);
    if (host != nullptr && nuvrix_gpu_htod_device(d, host, bytes) != 0) ok = false;
    return static_cast<T*>(d);
  }
};

// The whole search on the device; the population crosses the bus at the
// start, the merits every `every` generations for the printout, and the
// best candidate at the end.
bool device_search(const Problem& p, Rows& population, const Options& o) {
  const Lens& L = p.lens;
  const int n = p.n, P = p.P, W = static_cast<int>(L.wavelengths_um.size());
  const int F = static_cast<int>(L.fields.size()), O = static_cast<int>(p.ops.size());
  std::vector<double> catalog;
  std::vector<int> ids;
  glass_catalogue(L, catalog, ids);
  for (int i = 0; i < P; ++i) std::copy(ids.begin(), ids.end(), population.materials.begin() + i * n);
  const size_t cells = static_cast<size_t>(P) * n;
  Device d;
  double *pa = d.put(population.a.data(), cells), *pb = d.put(population.b.data(), cells);
  double *pc = d.put(population.c.data(), cells), *pm = d.put<double>(nullptr, P);
  int* pmat = d.put(population.materials.data(), cells);
  double *ta = d.put<double>(nullptr, cells), *tb = d.put<double>(nullptr, cells);
  double *tc = d.put<double>(nullptr, cells), *tm = d.put<double>(nullptr, P);
  int* tmat = d.put<int>(nullptr, cells);
  double* table = d.put(p.table.data(), p.table.size());
  int* none = d.put<int>(nullptr, 1);
  SurfaceData* surfaces = d.put(L.surfaces.data(), L.surfaces.size());
  double* glass = d.put(catalog.data(), catalog.size());
  double* waves = d.put(L.wavelengths_um.data(), L.wavelengths_um.size());
  SystemConfig* config = d.put(&L.config, 1);
  FieldData* fields = d.put(L.fields.data(), L.fields.size());
  MeritOperandDesc* ops = d.put(p.ops.data(), p.ops.size());
  const long bytes = nuvrix_gpu_de_scratch_size(P, n, W, F, O);
  void* scratch = d.put<unsigned char>(nullptr, static_cast<size_t>(bytes));
  if (!d.ok) return std::fprintf(stderr, "nuvrix search: device memory\n"), false;
  int status = nuvrix_gpu_run_de_eval_pop(pa, pb, pc, pmat, pm, surfaces, glass, waves, config,
                                          fields, ops, scratch, bytes, P, n, W, F, O);
  for (int g = 0; g < o.generations && status == 0; ++g) {
    status = nuvrix_gpu_run_de_generation(
        pa, pb, pc, pmat, pm, ta, tb, tc, tmat, tm, table, p.rows(), none, none, none, 0,
        surfaces, glass, waves, config, fields, ops, scratch, bytes, P, n, W, F, O, o.seed, g,
        kTrialTries, o.scale, o.crossover, 0.0, 0, 0, p.condition);
    if (status == 0 && ((g + 1) % o.every == 0 || g + 1 == o.generations)) {
      nuvrix_gpu_dtoh_device(population.merit.data(), pm, 8L * P);
      std::printf("  generation %5d  best merit %.10g\n", g + 1,
                  *std::min_element(population.merit.begin(), population.merit.end()));
    }
  }
  if (status != 0) {
    std::fprintf(stderr, "nuvrix search: the device returned %d (driver error %d)\n", status,
                 nuvrix_gpu_last_cuda_error());
    return false;
  }
  const long rows = 8L * static_cast<long>(cells);
  return nuvrix_gpu_dtoh_device(population.merit.data(), pm, 8L * P) == 0 &&
         nuvrix_gpu_dtoh_device(population.a.data(), pa, rows) == 0 &&
         nuvrix_gpu_dtoh_device(population.b.data(), pb, rows) == 0 &&
         nuvrix_gpu_dtoh_device(population.c.data(), pc, rows) == 0;
}

// ---- Output -----------------------------------------------------------------

std::string radius_text(double c) {
  char buf[32];
  if (c == 0.0) return "inf";
  std::snprintf(buf, sizeof buf, "%.6f", 1.0 / c);
  return buf;
}

void print_best(const Problem& p, Rows& r, int best) {
  std::printf("\n  best prescription (* a varied value)\n\n");
  std::printf("  %4s %15s %15s %12s %12s %10s\n", "surf", "radius start", "radius best",
              "thick. start", "thick. best", "conic best");
  for (int k = 0; k < p.n; ++k) {
    const SurfaceData& s = p.lens.surfaces[k];
    bool varied = false;
    for (int j = 0; j < p.rows(); ++j) varied = varied || static_cast<int>(p.table[4 * j]) == k;
    std::printf("  %4d %15s %15s %12.6g %12.6g %10.6g %s\n", k, radius_text(s.curvature).c_str(),
                radius_text(r.a[best * p.n + k]).c_str(), s.thickness, r.b[best * p.n + k],
                r.c[best * p.n + k], varied ? "*" : "");
  }
}

// The lens file with the best candidate's radii, thicknesses and conics.
bool save(const Options& o, const Problem& p, Rows& r, int best) {
  std::ifstream in(o.lens_path);
  nlohmann::json j;
  try {
    in >> j;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "nuvrix search: %s\n", e.what());
    return false;
  }
  for (int j_row = 0; j_row < p.rows(); ++j_row) {
    const int k = static_cast<int>(p.table[4 * j_row]), q = static_cast<int>(p.table[4 * j_row + 1]);
    nlohmann::json& s = j["surfaces"][k];
    if (q == 0) {
      const double c = r.a[best * p.n + k];
      s.erase("curvature");
      s["radius"] = c == 0.0 ? nlohmann::json("inf") : nlohmann::json(1.0 / c);
    } else if (q == 1) {
      s["thickness"] = r.b[best * p.n + k];
    } else {
      s["conic"] = r.c[best * p.n + k];
    }
  }
  j["name"] = j.value("name", std::string("lens")) + " (best of nuvrix search)";
  std::ofstream out(o.save_path);
  out << j.dump(2) << "\n";
  return static_cast<bool>(out);
}

double reference_merit(const Options& o, const std::vector<MeritOperandDesc>& ops, bool& ok) {
  Lens ref;
  std::string error;
  ok = load_lens_file(o.reference_path, ref, error);
  if (!ok) {
    std::fprintf(stderr, "nuvrix search: %s\n", error.c_str());
    return 0.0;
  }
  std::vector<MeritResult> results(ops.size());
  double merit = 0.0;
  std::vector<SurfaceData> s = ref.surfaces;
  nuvrix_solve_semi_diameters(s.data(), ref.count(), ref.indices.data(), ref.wavelengths_um.data(),
                              static_cast<int>(ref.wavelengths_um.size()), &ref.config,
                              ref.fields.data(), static_cast<int>(ref.fields.size()));
  ok = nuvrix_evaluate_merit(s.data(), ref.count(), ref.indices.data(), ref.wavelengths_um.data(),
                             static_cast<int>(ref.wavelengths_um.size()), &ref.config,
                             ref.fields.data(), static_cast<int>(ref.fields.size()), ops.data(),
                             static_cast<int>(ops.size()), results.data(), nullptr, nullptr,
                             &merit) == 0;
  return merit;
}

}  // namespace

int search_command(int argc, char** argv) {
  Options o;
  for (int i = 0; i < argc; ++i) {
    if (!std::strcmp(argv[i], "-h") || !std::strcmp(argv[i], "--help")) return usage(stdout), 0;
  }
  if (!parse(argc, argv, o) || (o.check && o.reference_path.empty())) {
    usage(stderr);
    return kBadInput;
  }
  Lens lens;
  Problem p;
  std::string error;
  if (!load_lens_file(o.lens_path, lens, error) || !make_problem(lens, o.population, p, error)) {
    std::fprintf(stderr, "nuvrix search: %s\n", error.c_str());
    return kBadInput;
  }
  const bool device = !o.cpu && nuvrix_gpu_init() == 0;
  std::printf("nuvrix search\n=============\n\n  lens: %s\n", lens.name.c_str());
  std::printf("  %d variables, %zu merit operands, population %d, %d generations, seed %d,\n"
              "  scale %g, crossover %g, on the %s\n\n",
              p.rows(), p.ops.size(), p.P, o.generations, o.seed, o.scale, o.crossover,
              device ? "device" : "CPU (batched evaluation)");
  Rows population = start_population(p, o.seed);
  if (device) {
    if (!device_search(p, population, o)) return kBadInput;
  } else {
    Rows trials;
    trials.resize(p.P, p.n);
    if (!cpu_merits(p, population)) return kBadInput;
    for (int g = 0; g < o.generations; ++g) {
      if (!cpu_generation(p, population, trials, o, g)) return kBadInput;
      if ((g + 1) % o.every == 0 || g + 1 == o.generations) {
        std::printf("  generation %5d  best merit %.10g\n", g + 1,
                    *std::min_element(population.merit.begin(), population.merit.end()));
      }
    }
  }
  const int best = static_cast<int>(
      std::min_element(population.merit.begin(), population.merit.end()) - population.merit.begin());
  print_best(p, population, best);
  std::printf("\n  best merit       %.10g (candidate %d)\n", population.merit[best], best);
  if (!o.save_path.empty()) {
    if (!save(o, p, population, best)) return kBadInput;
    std::printf("  saved to %s (nuvrix optimize %s polishes it)\n", o.save_path.c_str(),
                o.save_path.c_str());
  }
  if (o.reference_path.empty()) return 0;
  bool ok = false;
  const double ref = reference_merit(o, p.ops, ok);
  if (!ok) return kBadInput;
  std::printf("  reference merit  %.10g (the same merit function)\n", ref);
  if (!o.check) return 0;
  const bool near = population.merit[best] <= 2.0 * ref;
  std::printf("  check: best merit %s twice the reference's: %s\n", near ? "within" : "NOT within",
              near ? "passed" : "FAILED");
  return near ? 0 : kCheckFailed;
}

}  // namespace lensfile
