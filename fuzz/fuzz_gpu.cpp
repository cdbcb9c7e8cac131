// The GPU family: the set-up and its status, the query, the buffer sizes
// and the device memory calls, checked against the code table whatever the
// arguments.  Without a device every call that needs one fails with -1 and
// leaves the caller's memory as it was.
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fuzz/fuzz_input.hpp"

using namespace nuvrix_fuzz;

namespace {

[[noreturn]] void broken(char const* what) {
  std::fprintf(stderr, "fuzz_gpu: contract broken: %s\n", what);
  std::abort();
}

// The population merit: the checks that come before the device, in their
// order, on small arrays of arbitrary bytes; with a device the run itself.
void population_merit(Reader& in, int32_t status) {
  int32_t n = 0, w = 0, f = 0, o = 0, p = 0, rows = 0, deficit = 0;
  in.count(n, 6), in.count(w, 3), in.count(f, 3), in.count(o, 4), in.count(p, 5);
  in.count(rows, 3), in.count(deficit, 2);
  int32_t const forms = in.i32();
  auto raw = [&](size_t bytes) {
    std::vector<unsigned char> v(bytes + 8);
    in.bytes(v.data(), v.size());
    return v;
  };
  size_t const N = n > 0 ? n : 0, W = w > 0 ? w : 0, F = f > 0 ? f : 0, O = o > 0 ? o : 0;
  size_t const P = p > 0 ? p : 0;
  std::vector<unsigned char> surfaces = raw(sizeof(SurfaceData) * N), waves = raw(8 * W);
  std::vector<unsigned char> fields = raw(sizeof(FieldData) * F), config = raw(sizeof(SystemConfig));
  std::vector<unsigned char> ops = raw(sizeof(MeritOperandDesc) * O);
  std::vector<double> rowsets(3 * N * P + 1, 0.0), merits(P + 1, -7.0);
  for (double& v : rowsets) v = in.f64();
  std::vector<int32_t> ids(N * P + 1);
  bool beyond = false;
  for (size_t k = 0; k < N * P; ++k) {
    ids[k] = static_cast<int32_t>(in.u8() % 5) - 1;
    beyond = beyond || ids[k] >= rows;
  }
  long const need = nuvrix_gpu_merit_value_scratch_size(p, n, w, f, o);
  void* catalog = nullptr;
  void* scratch = reinterpret_cast<void*>(16);  // never reached without a device
  if (status == 0) {
    nuvrix_gpu_alloc_device(nuvrix_gpu_glass_catalog_bytes(rows > 0 ? rows : 1, w > 0 ? w : 1),
                            &catalog);
    nuvrix_gpu_alloc_device(need, &scratch);
  }
  double const* cat = status == 0 ? static_cast<double const*>(catalog)
                                  : reinterpret_cast<double const*>(8);
  auto run = (forms & 1) != 0 ? nuvrix_gpu_run_merit_value_f32 : nuvrix_gpu_run_merit_value;
  int32_t const got = run(reinterpret_cast<SurfaceData const*>(surfaces.data()), n, cat, rows, w,
                          ids.data(), reinterpret_cast<double const*>(waves.data()),
                          reinterpret_cast<SystemConfig const*>(config.data()),
                          reinterpret_cast<FieldData const*>(fields.data()), f,
                          reinterpret_cast<MeritOperandDesc const*>(ops.data()), o,
                          rowsets.data(), rowsets.data() + N * P, rowsets.data() + 2 * N * P,
                          merits.data(), p, scratch, need - deficit, (forms & 2) != 0 ? 1 : 0);
  int32_t const want = (n < 1 || w < 1 || f < 1 || o < 1) ? -8
                       : p < 1                           ? 0
                       : beyond                          ? -8
                       : deficit > 0                     ? -3
                       : status != 0                     ? -1
                                                         : got;
  if (got != want) broken("population merit status");
  if (got != 0 && merits[0] != -7.0) broken("population merit written on failure");
  if (status == 0) {
    nuvrix_gpu_free_device(scratch);
    nuvrix_gpu_free_device(catalog);
  }
}

// The ray grid: the checks before the device in their order, on a small
// system of arbitrary bytes and arbitrary field and row indices.
void trace_grid(Reader& in, int32_t status) {
  int32_t n = 0, w = 0, f = 0, r = 0, deficit = 0;
  in.count(n, 6), in.count(w, 3), in.count(f, 3), in.count(r, 6), in.count(deficit, 2);
  size_t const N = n > 0 ? n : 0, W = w > 0 ? w : 0, F = f > 0 ? f : 0, R = r > 0 ? r : 0;
  std::vector<unsigned char> surfaces(sizeof(SurfaceData) * N + 8), fields(sizeof(FieldData) * F + 8);
  std::vector<unsigned char> config(sizeof(SystemConfig));
  in.bytes(surfaces.data(), surfaces.size()), in.bytes(fields.data(), fields.size());
  in.bytes(config.data(), config.size());
  std::vector<double> table(N * W + 1), waves(W + 1), px(R + 1), py(R + 1), out(3 * R + 3, -7.0);
  for (double& v : table) v = in.f64();
  for (double& v : waves) v = in.f64();
  for (size_t k = 0; k < R; ++k) px[k] = in.f64(), py[k] = in.f64();
  std::vector<int32_t> field_idx(R + 1), wave_idx(R + 1), valid(R + 1, -7);
  bool outside = false;
  for (size_t k = 0; k < R; ++k) {
    field_idx[k] = static_cast<int32_t>(in.u8() % 5) - 1;
    wave_idx[k] = static_cast<int32_t>(in.u8() % 5) - 1;
    outside = outside || field_idx[k] < 0 || field_idx[k] >= f || wave_idx[k] < 0 || wave_idx[k] >= w;
  }
  long const need = nuvrix_gpu_trace_grid_scratch_size(n, w, f, r);
  void* scratch = reinterpret_cast<void*>(16);  // never reached without a device
  if (status == 0) nuvrix_gpu_alloc_device(need, &scratch);
  int32_t const got = nuvrix_gpu_run_trace_grid(
      reinterpret_cast<SurfaceData const*>(surfaces.data()), n, table.data(), w, waves.data(),
      reinterpret_cast<SystemConfig const*>(config.data()),
      reinterpret_cast<FieldData const*>(fields.data()), f, field_idx.data(), wave_idx.data(),
      px.data(), py.data(), nullptr, in.f64(), in.f64(), out.data(), out.data() + R,
      out.data() + 2 * R, valid.data(), r, scratch, need - deficit, 0);
  int32_t const want = (n < 1 || w < 1 || f < 1) ? -8
                       : r < 1                  ? 0
                       : outside                ? -8
                       : deficit > 0            ? -3
                       : status != 0            ? -1
                                                : got;
  if (got != want) broken("trace grid status");
  if (got != 0 && (out[0] != -7.0 || valid[0] != -7)) broken("trace grid written on failure");
  if (status == 0) nuvrix_gpu_free_device(scratch);
}

// The differential evolution's runners without a device: nothing for an
// empty population, the set-up's failure otherwise; no pointer is read.
void differential_evolution(Reader& in, int32_t status) {
  if (status == 0) return;  // the device arrays would have to be real
  int32_t const P = in.i32(), n = in.i32(), w = in.i32(), f = in.i32(), o = in.i32();
  double* const d = reinterpret_cast<double*>(8);
  int32_t* const i = reinterpret_cast<int32_t*>(8);
  void* const v = reinterpret_cast<void*>(8);
  auto const* s = reinterpret_cast<SurfaceData const*>(8);
  auto const* c = reinterpret_cast<SystemConfig const*>(8);
  auto const* fl = reinterpret_cast<FieldData const*>(8);
  auto const* op = reinterpret_cast<MeritOperandDesc const*>(8);
  int32_t const want = P < 1 ? 0 : -1;
  if (nuvrix_gpu_run_de_eval_pop(d, d, d, i, d, s, d, d, c, fl, op, v, in.i32(), P, n, w, f, o) !=
      want) {
    broken("DE evaluation without a device");
  }
  DeConditionDesc const cond = {in.f64(), in.f64(), in.f64(), in.f64(), in.i32(), in.i32(), {0, 0}};
  if (nuvrix_gpu_run_de_generation(d, d, d, i, d, d, d, d, i, d, d, in.i32(), i, i, i, in.i32(), s,
                                   d, d, c, fl, op, v, in.i32(), P, n, w, f, o, in.i32(),
                                   in.i32(), in.i32(), in.f64(), in.f64(), in.f64(), in.i32(),
                                   in.i32(), cond) != want) {
    broken("DE generation without a device");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  int32_t const rows = in.i32(), columns = in.i32();
  long const cells = static_cast<long>(rows) * columns;
  long const want = rows < 1 || columns < 1 || cells > LONG_MAX / 8 ? 0 : cells * 8;
  if (nuvrix_gpu_glass_catalog_bytes(rows, columns) != want) broken("catalogue bytes");

  // Scratch sizes: never negative, 0 for a count out of range, and a grid
  // that grows with its rays.
  int32_t const p = in.i32(), n = in.i32(), w = in.i32(), f = in.i32(), o = in.i32();
  long const merit = nuvrix_gpu_merit_value_scratch_size(p, n, w, f, o);
  if (merit < 0 || ((p < 1 || n < 1 || w < 1 || f < 1 || o < 1) && merit != 0)) broken("merit scratch");
  long const de = nuvrix_gpu_de_scratch_size(p, n, w, f, o);
  if (de < 0 || ((p < 1 || n < 1 || w < 1 || f < 1 || o < 1) && de != 0)) broken("DE scratch");
  long const grid = nuvrix_gpu_trace_grid_scratch_size(n, w, f, o);
  if (grid < 0 || ((n < 0 || w < 0 || f < 0 || o < 0) && grid != 0)) broken("grid scratch");
  if (grid > 0 && o < INT_MAX) {
    long const more = nuvrix_gpu_trace_grid_scratch_size(n, w, f, o + 1);
    if (more != 0 && more <= grid) broken("grid scratch does not grow with its rays");
  }

  int32_t const status = nuvrix_gpu_init();
  if (status < 0 || status > 4 || nuvrix_gpu_init() != status) broken("set-up status");
  GpuQueryResult const q = nuvrix_gpu_query();
  GpuQueryResult const zero = {};
  if (q.available == 0 && std::memcmp(&q, &zero, sizeof q) != 0) broken("query not zeroed");
  if (q.available == 1 && status != 0) broken("available without a set-up");
  if (status != 0 && nuvrix_gpu_merit_value_fill_count() != 0) broken("fill count without a device");
  differential_evolution(in, status);

  int32_t bytes = 0;
  in.count(bytes, 4096);
  std::vector<unsigned char> host(bytes > 0 ? bytes : 1, 0x5a), back(host.size(), 0);
  void* device = reinterpret_cast<void*>(1);
  int32_t const alloc = nuvrix_gpu_alloc_device(bytes, &device);
  if (bytes < 1 && (alloc != 0 || device != nullptr)) broken("empty allocation");
  if (bytes >= 1 && status != 0 && (alloc != -1 || device != nullptr)) broken("allocation without a device");
  if (nuvrix_gpu_alloc_device(bytes, nullptr) != -3) broken("null out");
  if (bytes >= 1 && nuvrix_gpu_htod_device(nullptr, host.data(), bytes) != -4) broken("null target");
  if (device != nullptr) {
    if (nuvrix_gpu_htod_device(device, host.data(), bytes) != 0) broken("upload");
    if (nuvrix_gpu_dtoh_device(back.data(), device, bytes) != 0) broken("download");
    if (std::memcmp(host.data(), back.data(), static_cast<size_t>(bytes)) != 0) broken("round trip");
    if (nuvrix_gpu_free_device(device) != 0) broken("free");
  }
  if (nuvrix_gpu_free_device(nullptr) != 0) broken("free of null");
  population_merit(in, status);
  trace_grid(in, status);
  // The microbenchmark: outputs zeroed first, -3 before the device.
  int32_t rays = 0, surfaces = 0, passes = 0, iterations = 0;
  in.count(rays, 64), in.any_int(surfaces), in.count(passes, 4), in.count(iterations, 2);
  double ms = -1.0, sum = -1.0;
  int32_t const bench = nuvrix_gpu_run_trace_microbench(in.u8() & 1, rays, surfaces, passes,
                                                        iterations, &ms, &sum);
  int32_t const bench_want = (rays < 1 || passes < 1) ? -3 : status != 0 ? -1 : bench;
  if (bench != bench_want) broken("microbench status");
  if (bench != 0 && (ms != 0.0 || sum != 0.0)) broken("microbench outputs not zeroed");
  return 0;
}
