// The driver table, the device set-up, the query and the plain device
// memory calls.  Every failure is a return code; the CPU paths never depend
// on anything here.
#include "gpu/cuda_loader.hpp"

#include <dlfcn.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

namespace nuvrix {
namespace gpu {

CudaApi g_api = {};
int g_last_cu_error = 0;

char const* const kKernelNames[kKernelCount] = {
    "nuvrix_smoke_kernel",          "nuvrix_efl_jacobian_kernel",
    "nuvrix_ry_jacobian_kernel",    "nuvrix_spot_jacobian_kernel",
    "nuvrix_opd_jacobian_kernel",   "nuvrix_sd_jacobian_kernel",
    "nuvrix_ry_batched_jacobian_kernel", "nuvrix_efl_value_kernel",
    "nuvrix_ry_value_kernel",       "nuvrix_merit_value_kernel",
    "nuvrix_merit_value_kernel_f32", "nuvrix_merit_value_kernel_soa",
    "nuvrix_trace_microbench_f32",  "nuvrix_trace_microbench_f64",
    "nuvrix_de_vary_kernel",        "nuvrix_de_select_kernel",
    "nuvrix_trace_grid_kernel"};
bool const kKernelRequired[kKernelCount] = {true,  true,  true,  true,  true,  true,
                                            true,  true,  true,  true,  false, false,
                                            false, false, false, false, false};

namespace {

constexpr char kSideFile[] = "nuvrix_kernel.fatbin";
constexpr int kQueryAttributes[6] = {16, 39, 1, 10, 75, 76};  // in CudaCapabilities order

// One entry point: its name, where its pointer goes, and whether the table
// is usable without it.
struct EntryPoint {
  char const* name;
  void* slot;
  size_t size;
  bool required;
};

template <typename F>
EntryPoint entry(char const* name, F& slot, bool required = true) {
  return {name, &slot, sizeof slot, required};
}

void resolve_table(CudaApi& api) {
  void* lib = dlopen("libcuda.so", RTLD_NOW);
  if (lib == nullptr) lib = dlopen("libcuda.so.1", RTLD_NOW);
  if (lib == nullptr) return;  // no driver: the table stays unloaded; never closed
  EntryPoint const points[kCudaEntryPoints] = {
      entry("cuInit", api.cuInit),
      entry("cuDriverGetVersion", api.cuDriverGetVersion),
      entry("cuDeviceGetCount", api.cuDeviceGetCount),
      entry("cuDeviceGet", api.cuDeviceGet),
      entry("cuDeviceGetName", api.cuDeviceGetName),
      entry("cuDeviceGetAttribute", api.cuDeviceGetAttribute),
      entry("cuDevicePrimaryCtxRetain", api.cuDevicePrimaryCtxRetain),
      entry("cuDevicePrimaryCtxRelease", api.cuDevicePrimaryCtxRelease),
      entry("cuCtxSetCurrent", api.cuCtxSetCurrent),
      entry("cuCtxSynchronize", api.cuCtxSynchronize),
      entry("cuCtxSetLimit", api.cuCtxSetLimit, false),
      entry("cuModuleLoadData", api.cuModuleLoadData),
      entry("cuModuleUnload", api.cuModuleUnload),
      entry("cuModuleGetFunction", api.cuModuleGetFunction),
      entry("cuMemAlloc_v2", api.cuMemAlloc_v2),
      entry("cuMemFree_v2", api.cuMemFree_v2),
      entry("cuMemcpyHtoD_v2", api.cuMemcpyHtoD_v2),
      entry("cuMemcpyDtoH_v2", api.cuMemcpyDtoH_v2),
      entry("cuMemsetD8_v2", api.cuMemsetD8_v2),
      entry("cuLaunchKernel", api.cuLaunchKernel),
      entry("cuStreamSynchronize", api.cuStreamSynchronize),
      entry("cuGetErrorName", api.cuGetErrorName, false),
      entry("cuGetErrorString", api.cuGetErrorString, false),
      entry("cuOccupancyMaxActiveBlocksPerMultiprocessor",
            api.cuOccupancyMaxActiveBlocksPerMultiprocessor, false)};
  bool complete = true;
  for (EntryPoint const& p : points) {
    void* const symbol = dlsym(lib, p.name);
    std::memcpy(p.slot, &symbol, p.size);  // a data pointer to a function pointer, as POSIX allows
    complete = complete && (symbol != nullptr || !p.required);
  }
  if (!complete || api.cuInit(0) != kCudaSuccess) return;
  int devices = 0;
  if (api.cuDeviceGetCount(&devices) != kCudaSuccess || devices < 1) return;
  int version = 0;
  if (api.cuDriverGetVersion(&version) != kCudaSuccess) version = 0;
  api.driver_version = version;
  api.loaded = true;
}

// The whole side file, or an empty buffer when it cannot be read whole.
std::vector<char> read_side_file(char const* path) {
  std::vector<char> bytes;
  FILE* f = std::fopen(path, "rb");
  if (f == nullptr) return bytes;
  long size = 0;
  if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
  if (size > 0 && std::fseek(f, 0, SEEK_SET) == 0) {
    bytes.resize(static_cast<size_t>(size));
    if (std::fread(bytes.data(), 1, bytes.size(), f) != bytes.size()) bytes.clear();
  }
  std::fclose(f);
  return bytes;
}

void do_init();

// The side file beside this library: dladdr on the set-up itself names the
// library file.  There is no search path and no environment variable.
int load_module(GpuState& s) {
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&do_init), &info) == 0 || info.dli_fname == nullptr ||
      info.dli_fname[0] == '\0') {
    return 4;
  }
  std::vector<char> path(std::strlen(info.dli_fname) + sizeof kSideFile);
  detail::side_file_path(info.dli_fname, path.data(), path.size());
  std::vector<char> const image = read_side_file(path.data());
  if (image.empty()) return 4;
  CUresult const loaded = g_api.cuModuleLoadData(&s.module, image.data());
  if (loaded != kCudaSuccess) {
    g_last_cu_error = loaded;
    return 4;
  }
  for (int k = 0; k < kKernelCount; ++k) {
    CUfunction f = nullptr;
    CUresult const r = g_api.cuModuleGetFunction(&f, s.module, kKernelNames[k]);
    if (r != kCudaSuccess && kKernelRequired[k]) return 4;
    detail::kernel_handle(s, k) = r == kCudaSuccess ? f : nullptr;
  }
  return 0;
}

void do_init() {
  GpuState& s = state();
  CudaApi& api = cuda_api();
  if (!api.loaded) {
    s.status = 1;
    return;
  }
  int devices = 0;
  CUdevice device = 0;
  if (api.cuDeviceGetCount(&devices) != kCudaSuccess || devices < 1 ||
      api.cuDeviceGet(&device, 0) != kCudaSuccess) {
    s.status = 2;
    return;
  }
  s.device = device;
  if (api.cuDevicePrimaryCtxRetain(&s.context, device) != kCudaSuccess ||
      api.cuCtxSetCurrent(s.context) != kCudaSuccess) {
    s.status = 3;
    return;
  }
  if (api.cuCtxSetLimit != nullptr) api.cuCtxSetLimit(kCudaLimitStackSize, kDeviceStackBytes);
  s.status = load_module(s);
}

// A device call that failed: its code is kept for the host to read.
int failed(CUresult r, int code) {
  g_last_cu_error = r;
  return code;
}

}  // namespace

CudaApi& cuda_api() {
  static std::once_flag once;
  std::call_once(once, [] { resolve_table(g_api); });
  return g_api;
}

GpuState& state() {
  static GpuState s = {1, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  return s;
}

int cuda_init() {
  static std::once_flag once;
  std::call_once(once, do_init);
  return state().status;
}

int cuda_query_capabilities(CudaCapabilities* caps) {
  if (caps == nullptr) return 1;
  *caps = CudaCapabilities{};
  int const status = cuda_init();
  if (status != 0) return status;
  int* const fields[6] = {&caps->multiprocessor_count, &caps->max_threads_per_multiprocessor,
                          &caps->max_threads_per_block, &caps->warp_size, &caps->compute_major,
                          &caps->compute_minor};
  for (int k = 0; k < 6; ++k) g_api.cuDeviceGetAttribute(fields[k], kQueryAttributes[k], state().device);
  return caps->multiprocessor_count < 1 ? 2 : 0;
}

char const* cuda_error_name(CUresult code) {
  char const* name = nullptr;
  if (cuda_api().cuGetErrorName == nullptr || g_api.cuGetErrorName(code, &name) != kCudaSuccess ||
      name == nullptr) {
    return "(unknown CUresult)";
  }
  return name;
}

int cuda_last_error() { return g_last_cu_error; }

int cuda_alloc_device(long bytes, void** out) {
  if (out == nullptr) return -3;
  *out = nullptr;
  if (bytes < 1) return 0;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  CUdeviceptr p = 0;
  CUresult const r = g_api.cuMemAlloc_v2(&p, static_cast<size_t>(bytes));
  if (r != kCudaSuccess) return failed(r, -3);
  *out = reinterpret_cast<void*>(p);
  return 0;
}

int cuda_free_device(void* ptr) {
  if (ptr == nullptr) return 0;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  g_api.cuMemFree_v2(reinterpret_cast<CUdeviceptr>(ptr));  // a failure changes nothing to undo
  return 0;
}

int cuda_htod_device(void* device_dst, void const* host_src, long bytes) {
  if (bytes < 1) return 0;
  if (device_dst == nullptr || host_src == nullptr) return -4;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  CUresult const r = g_api.cuMemcpyHtoD_v2(reinterpret_cast<CUdeviceptr>(device_dst), host_src,
                                           static_cast<size_t>(bytes));
  return r == kCudaSuccess ? 0 : failed(r, -4);
}

int cuda_dtoh_device(void* host_dst, void const* device_src, long bytes) {
  if (bytes < 1) return 0;
  if (host_dst == nullptr || device_src == nullptr) return -4;
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  CUresult const r = g_api.cuMemcpyDtoH_v2(host_dst, reinterpret_cast<CUdeviceptr>(device_src),
                                           static_cast<size_t>(bytes));
  return r == kCudaSuccess ? 0 : failed(r, -4);
}

long cuda_glass_catalog_bytes(int rows, int columns) {
  if (rows < 1 || columns < 1) return 0;
  // rows * columns fits a long (both below 2^31); eight times it may not.
  long const cells = static_cast<long>(rows) * columns;
  return cells > LONG_MAX / 8 ? 0 : cells * 8;
}

long cuda_material_ids_bytes(int count) { return count < 1 ? 0 : static_cast<long>(count) * 4; }

int cuda_run_smoke(double const* a, double const* b, double* out_0, double* out_1, double* out_2,
                   int count) {
  if (cuda_init() != 0) return -1;
  if (count <= 0) return 0;
  if (a == nullptr || b == nullptr || out_0 == nullptr || out_1 == nullptr || out_2 == nullptr) {
    return -3;
  }
  int const entered = detail::enter_device();
  if (entered != 0) return entered;
  size_t const bytes = static_cast<size_t>(count) * 8;
  CUdeviceptr d[5] = {0, 0, 0, 0, 0};
  int status = 0;
  for (CUdeviceptr& p : d) {
    CUresult const r = g_api.cuMemAlloc_v2(&p, bytes);
    if (r != kCudaSuccess) {
      p = 0;
      status = failed(r, -3);
      break;
    }
  }
  if (status == 0) {
    CUresult r = g_api.cuMemcpyHtoD_v2(d[0], a, bytes);
    if (r == kCudaSuccess) r = g_api.cuMemcpyHtoD_v2(d[1], b, bytes);
    if (r != kCudaSuccess) status = failed(r, -4);
  }
  if (status == 0) {
    void* params[6] = {&d[0], &d[1], &d[2], &d[3], &d[4], &count};
    unsigned const grid = static_cast<unsigned>((count + 255) / 256);
    CUfunction const f = state().smoke;
    CUresult const r = f == nullptr ? 1
                                    : g_api.cuLaunchKernel(f, grid, 1, 1, 256, 1, 1, 0, nullptr,
                                                           params, nullptr);
    if (r != kCudaSuccess) status = failed(r, -5);
  }
  if (status == 0) {
    CUresult const r = g_api.cuCtxSynchronize();
    if (r != kCudaSuccess) status = failed(r, -6);
  }
  if (status == 0) {
    double* const outs[3] = {out_0, out_1, out_2};
    for (int k = 0; k < 3 && status == 0; ++k) {
      CUresult const r = g_api.cuMemcpyDtoH_v2(outs[k], d[2 + k], bytes);
      if (r != kCudaSuccess) status = failed(r, -7);
    }
  }
  for (CUdeviceptr p : d) {
    if (p != 0) g_api.cuMemFree_v2(p);
  }
  return status;
}

namespace detail {

void side_file_path(char const* library_path, char* out, size_t capacity) {
  if (capacity == 0) return;
  size_t cut = 0;  // length of the directory part, separator included
  for (size_t i = 0; library_path[i] != '\0'; ++i) {
    if (library_path[i] == '/' || library_path[i] == '\\') cut = i + 1;
  }
  std::snprintf(out, capacity, "%.*s%s", static_cast<int>(cut), library_path, kSideFile);
}

int enter_device() {
  if (cuda_init() != 0) return -1;
  CUresult const r = g_api.cuCtxSetCurrent(state().context);
  return r == kCudaSuccess ? 0 : failed(r, -2);
}

CUfunction& kernel_handle(GpuState& s, int k) {
  CUfunction* const handles[kKernelCount] = {
      &s.smoke,         &s.efl_jacobian,    &s.ry_jacobian,          &s.spot_jacobian,
      &s.opd_jacobian,  &s.sd_jacobian,     &s.ry_batched_jacobian,  &s.efl_value,
      &s.ry_value,      &s.merit_value,     &s.merit_value_f32,      &s.merit_value_soa,
      &s.trace_microbench_f32, &s.trace_microbench_f64, &s.de_vary, &s.de_select,
      &s.trace_grid};
  return *handles[k];
}

}  // namespace detail
}  // namespace gpu
}  // namespace nuvrix
