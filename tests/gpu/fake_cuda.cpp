// A stand-in for the CUDA driver, for the loader's tests on machines
// without a GPU: the 24 entry points with the driver's signatures, device
// memory in host memory, and a module whose "image" is the list of kernel
// names it holds, one a line.  A launch runs the kernel's body on the host,
// thread by thread of the grid it was given: the smoke kernel written out
// here, the value kernels through the same body functions that the side
// file's kernels call.  The environment variable FAKE_CUDA picks a
// failure: "nodevice", "noctx", "allocfail", "launchfail", "syncfail";
// anything else works.  Only the test's fake reads the environment; the
// engine never does.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>

#include "kernels/de_bodies.cuh"
#include "kernels/grid_bodies.cuh"
#include "kernels/jacobian_bodies.cuh"
#include "kernels/microbench_bodies.cuh"
#include "kernels/merit_bodies.cuh"

namespace {

using CUresult = int;
struct Module {
  std::string names;
};
int g_outstanding = 0;     // device allocations not yet freed
std::string g_last_kernel;  // the kernel that ran last
int g_launches = 0;         // launches of the grid kernel
int g_all_launches = 0;     // launches of any kernel
int g_last_rays = 0;        // rays of the last grid launch

bool mode(char const* m) {
  char const* v = std::getenv("FAKE_CUDA");
  return v != nullptr && std::strcmp(v, m) == 0;
}

struct Function {
  std::string name;
};

// Modules and functions live until the process ends, as the driver's do.
std::list<Module> g_modules;
std::list<Function> g_functions;

// Kernel parameters as the launch hands them: the address of each value.
template <typename T>
T* device(void** params, int k) {
  return reinterpret_cast<T*>(*static_cast<unsigned long long*>(params[k]));
}
int integer(void** params, int k) { return *static_cast<int*>(params[k]); }

}  // namespace

extern "C" {

int fake_cuda_outstanding() { return g_outstanding; }
char const* fake_cuda_last_kernel() { return g_last_kernel.c_str(); }
int fake_cuda_grid_launches() { return g_launches; }
int fake_cuda_launches() { return g_all_launches; }
int fake_cuda_last_rays() { return g_last_rays; }

CUresult cuInit(unsigned) { return 0; }
CUresult cuDriverGetVersion(int* v) {
  *v = 13000;
  return 0;
}
CUresult cuDeviceGetCount(int* c) {
  *c = mode("nodevice") ? 0 : 1;
  return 0;
}
CUresult cuDeviceGet(int* d, int) {
  *d = 0;
  return 0;
}
CUresult cuDeviceGetName(char*, int, int) { return 0; }
CUresult cuDeviceGetAttribute(int* v, int attribute, int) {
  switch (attribute) {
    case 16: *v = 132; break;    // multiprocessors
    case 39: *v = 2048; break;   // threads a multiprocessor
    case 1: *v = 1024; break;    // threads a block
    case 10: *v = 32; break;     // warp
    case 75: *v = 9; break;      // compute capability
    case 76: *v = 0; break;
    default: *v = -1; break;
  }
  return 0;
}
CUresult cuDevicePrimaryCtxRetain(void** ctx, int) {
  static int context;
  *ctx = &context;
  return mode("noctx") ? 201 : 0;
}
CUresult cuDevicePrimaryCtxRelease(int) { return 0; }
CUresult cuCtxSetCurrent(void*) { return 0; }
CUresult cuCtxSynchronize() { return mode("syncfail") ? 999 : 0; }
CUresult cuCtxSetLimit(int, size_t) { return 0; }
CUresult cuModuleLoadData(void** module, void const* image) {
  g_modules.push_back(Module{static_cast<char const*>(image)});
  *module = &g_modules.back();
  return 0;
}
CUresult cuModuleUnload(void*) { return 0; }
CUresult cuModuleGetFunction(void** f, void* module, char const* name) {
  std::string const& names = static_cast<Module*>(module)->names;
  if (("\n" + names + "\n").find("\n" + std::string(name) + "\n") == std::string::npos) {
    return 500;  // not found
  }
  g_functions.push_back(Function{name});
  *f = &g_functions.back();
  return 0;
}
CUresult cuMemAlloc_v2(unsigned long long* p, size_t bytes) {
  if (mode("allocfail")) return 2;
  *p = reinterpret_cast<unsigned long long>(std::malloc(bytes));
  ++g_outstanding;
  return 0;
}
CUresult cuMemFree_v2(unsigned long long p) {
  std::free(reinterpret_cast<void*>(p));
  --g_outstanding;
  return 0;
}
CUresult cuMemcpyHtoD_v2(unsigned long long d, void const* h, size_t bytes) {
  std::memcpy(reinterpret_cast<void*>(d), h, bytes);
  return 0;
}
CUresult cuMemcpyDtoH_v2(void* h, unsigned long long d, size_t bytes) {
  std::memcpy(h, reinterpret_cast<void const*>(d), bytes);
  return 0;
}
CUresult cuMemsetD8_v2(unsigned long long d, unsigned char v, size_t bytes) {
  std::memset(reinterpret_cast<void*>(d), v, bytes);
  return 0;
}

CUresult cuLaunchKernel(void* f, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by,
                        unsigned bz, unsigned shared, void*, void** params, void** extra) {
  if (mode("launchfail")) return 700;
  ++g_all_launches;
  std::string const& name = static_cast<Function*>(f)->name;
  g_last_kernel = name;
  bool const spot =
      name == "nuvrix_spot_jacobian_kernel" || name == "nuvrix_opd_jacobian_kernel";
  if ((gy != 1 && !spot) || gz != 1 || by != 1 || bz != 1 || shared != 0 || extra != nullptr) {
    return 1;
  }
  int const threads = static_cast<int>(gx * bx);
  if (name == "nuvrix_smoke_kernel") {
    int const count = integer(params, 5);
    double *a = device<double>(params, 0), *b = device<double>(params, 1);
    for (int i = 0; i < threads && i < count; ++i) {
      double const x = a[i], y = b[i];
      device<double>(params, 2)[i] = x + y;
      device<double>(params, 3)[i] = x * y;
      device<double>(params, 4)[i] = std::sqrt(x * x + y * y);
    }
    return 0;
  }
  if (name == "nuvrix_efl_value_kernel") {
    if (bx != 256) return 1;
    for (int i = 0; i < threads; ++i) {
      nuvrix::kernels::efl_value_body(
          i, device<SurfaceData const>(params, 0), device<double const>(params, 1),
          device<int const>(params, 2), integer(params, 3), integer(params, 4),
          device<double const>(params, 5), device<double const>(params, 6),
          device<double>(params, 7), integer(params, 8), integer(params, 9));
    }
    return 0;
  }
  if (name == "nuvrix_trace_microbench_f32" || name == "nuvrix_trace_microbench_f64") {
    if (bx != 128) return 1;
    for (int i = 0; i < threads; ++i) {
      if (name.back() == '2') {
        nuvrix::kernels::microbench_body<float>(i, device<float>(params, 0), integer(params, 1),
                                                integer(params, 2), integer(params, 3));
      } else {
        nuvrix::kernels::microbench_body<double>(i, device<double>(params, 0),
                                                 integer(params, 1), integer(params, 2),
                                                 integer(params, 3));
      }
    }
    return 0;
  }
  if (name == "nuvrix_efl_jacobian_kernel") {
    if (bx != 256) return 1;
    for (int i = 0; i < threads; ++i) {
      nuvrix::kernels::efl_jacobian_body(
          i, device<SurfaceData const>(params, 0), integer(params, 1),
          device<double const>(params, 2), device<int const>(params, 3), integer(params, 4),
          device<double const>(params, 5), device<double const>(params, 6),
          device<double>(params, 7), device<double>(params, 8), integer(params, 9));
    }
    return 0;
  }
  if (name == "nuvrix_ry_jacobian_kernel") {
    if (bx != 64) return 1;
    auto D = [&](int k) { return *static_cast<double*>(params[k]); };
    nuvrix::kernels::RayJacobianArgs const a = {
        device<SurfaceData const>(params, 0), integer(params, 1), device<double const>(params, 2),
        device<int const>(params, 3), integer(params, 4), D(5), D(6),
        device<double const>(params, 7), D(8), D(9), D(10), integer(params, 11),
        integer(params, 12), device<double const>(params, 13), device<double const>(params, 14),
        device<double const>(params, 15), device<double const>(params, 16),
        device<double>(params, 17), device<double>(params, 18), integer(params, 19),
        integer(params, 20), device<void>(params, 21)};
    for (int i = 0; i < threads; ++i) nuvrix::kernels::ry_jacobian_body(i, a);
    if (mode("raynan")) a.results[0] = std::nan("");  // candidate 0's ray fails here
    return 0;
  }
  if (spot || name == "nuvrix_ry_batched_jacobian_kernel") {
    if (bx % 32 != 0) return 1;
    auto I = [&](int k) { return integer(params, k); };
    auto P = [&](int k) { return device<double const>(params, k); };
    double const* setup = P(7);
    nuvrix::kernels::RayEntries const a = {
        device<SurfaceData const>(params, 0), I(1), P(2), device<int const>(params, 3), I(4),
        P(5), P(6), nuvrix::kernels::ray_config(setup, setup[5]), I(8), I(9), P(10), P(11),
        P(12), P(13), device<int const>(params, 14), device<int const>(params, 15), I(16),
        P(17), P(18), P(19), I(20), P(21), P(22), P(23), P(24), P(25), I(26),
        device<double>(params, 27), device<double>(params, 28), I(29), device<void>(params, 30)};
    int const E = a.entry_count;
    for (unsigned y = 0; y < gy; ++y) {
      for (int t = 0; t < threads; ++t) {
        if (spot) {
          nuvrix::kernels::ray_entry_body(static_cast<int>(y), t, a);
        } else if (E >= 1 && t < a.count * E) {
          nuvrix::kernels::ray_entry_body(t / E, t % E, a);
        }
      }
    }
    return 0;
  }
  if (name == "nuvrix_de_vary_kernel" || name == "nuvrix_de_select_kernel") {
    if (bx != 64) return 1;
    auto rows = [&](int k) {
      return nuvrix::kernels::DeRows{device<double>(params, k), device<double>(params, k + 1),
                                     device<double>(params, k + 2), device<int>(params, k + 3)};
    };
    if (name == "nuvrix_de_select_kernel") {
      for (int i = 0; i < threads; ++i) {
        nuvrix::kernels::de_select_body(i, rows(0), device<double>(params, 4), rows(5),
                                        device<double const>(params, 9), integer(params, 10),
                                        integer(params, 11));
      }
      return 0;
    }
    auto real = [&](int k) { return *static_cast<double*>(params[k]); };
    nuvrix::kernels::DeVary const a = {
        rows(0), rows(4), device<double const>(params, 8), integer(params, 9),
        integer(params, 10), integer(params, 11), device<int const>(params, 12),
        device<int const>(params, 13), device<int const>(params, 14), integer(params, 15),
        integer(params, 18), integer(params, 19), integer(params, 20), real(21), real(22),
        real(23), integer(params, 24), integer(params, 25),
        device<SurfaceData const>(params, 26), *static_cast<DeConditionDesc*>(params[27])};
    for (int i = 0; i < threads; ++i) nuvrix::kernels::de_vary_body(i, a);
    return 0;
  }
  if (name == "nuvrix_sd_jacobian_kernel") {
    if (bx != 64) return 1;
    auto I = [&](int k) { return integer(params, k); };
    auto P = [&](int k) { return device<double const>(params, k); };
    double const* setup = P(7);
    nuvrix::kernels::SdEntries const a = {
        device<SurfaceData const>(params, 0), I(1), P(2), device<int const>(params, 3), I(4),
        P(5), P(6), nuvrix::kernels::ray_config(setup, setup[5]), device<int const>(params, 8),
        device<int const>(params, 9), P(10), P(11), P(12), P(13), I(14), I(15), P(16), P(17),
        P(18), P(19), device<double>(params, 20), device<double>(params, 21), I(22),
        device<void>(params, 23)};
    for (int t = 0; t < threads; ++t) nuvrix::kernels::sd_entry_body(t, a);
    return 0;
  }
  if (name == "nuvrix_trace_grid_kernel") {
    if (bx != 128) return 1;
    auto D = [&](int k) { return device<double>(params, k); };
    nuvrix::kernels::TraceGrid const g = {
        device<SurfaceData const>(params, 0), integer(params, 1), device<double const>(params, 2),
        device<double const>(params, 3), device<SystemConfig const>(params, 4),
        device<FieldData const>(params, 5), device<int const>(params, 6),
        device<int const>(params, 7), device<double const>(params, 8),
        device<double const>(params, 9), device<double const>(params, 10),
        *static_cast<double*>(params[11]), *static_cast<double*>(params[12]), D(13), D(14),
        D(15), device<int>(params, 16), device<int const>(params, 17), D(18), D(19), D(20),
        D(21), D(22), D(23), D(24), D(25), D(26), D(27), device<int const>(params, 28), D(29),
        D(30), D(31), integer(params, 32), device<double const>(params, 33),
        integer(params, 34)};
    for (int i = 0; i < threads; ++i) nuvrix::kernels::trace_grid_body(i, g);
    ++g_launches;
    g_last_rays = integer(params, 34);
    return 0;
  }
  if (name == "nuvrix_ry_value_kernel") {
    if (bx != 256) return 1;
    nuvrix::kernels::RyRay const ray = {*static_cast<double*>(params[5]),
                                        *static_cast<double*>(params[6]),
                                        *static_cast<double*>(params[7]), integer(params, 8),
                                        integer(params, 17)};
    for (int i = 0; i < threads; ++i) {
      nuvrix::kernels::ry_value_body(
          i, device<SurfaceData const>(params, 0), device<double const>(params, 1),
          device<int const>(params, 2), integer(params, 3), integer(params, 4), ray,
          device<double const>(params, 9), device<double const>(params, 10),
          device<double const>(params, 11), device<double const>(params, 12),
          device<double const>(params, 13), device<double>(params, 14), integer(params, 15),
          integer(params, 16));
    }
    return 0;
  }
  int const layout = name == "nuvrix_merit_value_kernel"       ? nuvrix::kernels::kRowsPlain
                     : name == "nuvrix_merit_value_kernel_f32" ? nuvrix::kernels::kRowsFloat
                     : name == "nuvrix_merit_value_kernel_soa"
                         ? nuvrix::kernels::kRowsSurfaceMajor
                         : -1;
  if (layout >= 0) {
    if (bx != 64) return 1;
    nuvrix::kernels::MeritPopulation const p = {
        device<SurfaceData const>(params, 0),  integer(params, 1),
        device<double const>(params, 2),       device<int const>(params, 3),
        integer(params, 4),                    device<double const>(params, 5),
        device<SystemConfig const>(params, 6), device<FieldData const>(params, 7),
        integer(params, 8),                    device<MeritOperandDesc const>(params, 9),
        integer(params, 10),                   device<void const>(params, 11),
        device<void const>(params, 12),        device<void const>(params, 13),
        device<SurfaceData>(params, 14),       device<double>(params, 15),
        device<MeritResult>(params, 16),       device<double>(params, 17),
        device<double>(params, 18),            integer(params, 19)};
    for (int i = 0; i < threads; ++i) nuvrix::kernels::merit_value_body(i, layout, p);
    return 0;
  }
  return 1;  // a kernel the stand-in cannot run
}
CUresult cuStreamSynchronize(void*) { return 0; }
CUresult cuGetErrorName(CUresult code, char const** name) {
  static std::string text;
  text = "CUDA_ERROR_FAKE_" + std::to_string(code);
  *name = text.c_str();
  return 0;
}
CUresult cuGetErrorString(CUresult, char const** s) {
  *s = "fake";
  return 0;
}
CUresult cuOccupancyMaxActiveBlocksPerMultiprocessor(int* n, void*, int, size_t) {
  *n = 8;
  return 0;
}

}  // extern "C"
