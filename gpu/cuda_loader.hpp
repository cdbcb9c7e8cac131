// The CUDA driver, opened by name at run time, and the one-time device set-up:
// the primary context of device 0 and the kernel module read from the side
// file nuvrix_kernel.fatbin beside the library.  No CUDA header or library
// is needed to build this: the few driver types are declared here, with the
// signatures of the driver's published interface.
#pragma once

#include <cstddef>

namespace nuvrix {
namespace gpu {

using CUresult = int;
using CUdevice = int;
using CUcontext = struct CUctx_st*;
using CUmodule = struct CUmod_st*;
using CUfunction = struct CUfunc_st*;
using CUstream = struct CUstream_st*;
using CUdeviceptr = unsigned long long;

constexpr CUresult kCudaSuccess = 0;
constexpr int kCudaLimitStackSize = 0;      // CU_LIMIT_STACK_SIZE
constexpr size_t kDeviceStackBytes = 131072;  // the trace kernels run deep

// The driver entry points, resolved by these names in this order.
struct CudaApi {
  bool loaded;
  int driver_version;
  CUresult (*cuInit)(unsigned);
  CUresult (*cuDriverGetVersion)(int*);
  CUresult (*cuDeviceGetCount)(int*);
  CUresult (*cuDeviceGet)(CUdevice*, int);
  CUresult (*cuDeviceGetName)(char*, int, CUdevice);
  CUresult (*cuDeviceGetAttribute)(int*, int, CUdevice);
  CUresult (*cuDevicePrimaryCtxRetain)(CUcontext*, CUdevice);
  CUresult (*cuDevicePrimaryCtxRelease)(CUdevice);
  CUresult (*cuCtxSetCurrent)(CUcontext);
  CUresult (*cuCtxSynchronize)();
  CUresult (*cuCtxSetLimit)(int, size_t);  // optional
  CUresult (*cuModuleLoadData)(CUmodule*, void const*);
  CUresult (*cuModuleUnload)(CUmodule);
  CUresult (*cuModuleGetFunction)(CUfunction*, CUmodule, char const*);
  CUresult (*cuMemAlloc_v2)(CUdeviceptr*, size_t);
  CUresult (*cuMemFree_v2)(CUdeviceptr);
  CUresult (*cuMemcpyHtoD_v2)(CUdeviceptr, void const*, size_t);
  CUresult (*cuMemcpyDtoH_v2)(void*, CUdeviceptr, size_t);
  CUresult (*cuMemsetD8_v2)(CUdeviceptr, unsigned char, size_t);
  CUresult (*cuLaunchKernel)(CUfunction, unsigned, unsigned, unsigned, unsigned, unsigned,
                             unsigned, unsigned, CUstream, void**, void**);
  CUresult (*cuStreamSynchronize)(CUstream);
  CUresult (*cuGetErrorName)(CUresult, char const**);    // optional
  CUresult (*cuGetErrorString)(CUresult, char const**);  // optional
  CUresult (*cuOccupancyMaxActiveBlocksPerMultiprocessor)(int*, CUfunction, int,
                                                          size_t);  // optional
};

constexpr int kCudaEntryPoints = 24;

// The kernels of the side file, in the order of GpuState's handles.
constexpr int kKernelCount = 17;
extern char const* const kKernelNames[kKernelCount];
extern bool const kKernelRequired[kKernelCount];

// The device set-up: status 1 until it ran, then its outcome (0 ready, 1 no
// driver, 2 no device, 3 no context, 4 no side file or a required kernel
// missing), and the handles it made.
struct GpuState {
  int status;
  int device;
  CUcontext context;
  CUmodule module;
  CUfunction smoke;
  CUfunction efl_jacobian;
  CUfunction ry_jacobian;
  CUfunction spot_jacobian;
  CUfunction opd_jacobian;
  CUfunction sd_jacobian;
  CUfunction ry_batched_jacobian;
  CUfunction efl_value;
  CUfunction ry_value;
  CUfunction merit_value;
  CUfunction merit_value_f32;
  CUfunction merit_value_soa;
  CUfunction trace_microbench_f32;
  CUfunction trace_microbench_f64;
  CUfunction de_vary;
  CUfunction de_select;
  CUfunction trace_grid;
};

struct CudaCapabilities {
  int multiprocessor_count;
  int max_threads_per_multiprocessor;
  int max_threads_per_block;
  int warp_size;
  int compute_major;
  int compute_minor;
};

extern CudaApi g_api;
extern int g_last_cu_error;  // the last raw CUresult a device operation failed with

CudaApi& cuda_api();
GpuState& state();
int cuda_init();
int cuda_query_capabilities(CudaCapabilities* caps);
char const* cuda_error_name(CUresult code);
int cuda_last_error();

int cuda_alloc_device(long bytes, void** out);
int cuda_free_device(void* ptr);
int cuda_htod_device(void* device_dst, void const* host_src, long bytes);
int cuda_dtoh_device(void* host_dst, void const* device_src, long bytes);
long cuda_glass_catalog_bytes(int rows, int columns);
long cuda_material_ids_bytes(int count);

int cuda_run_smoke(double const* a, double const* b, double* out_0, double* out_1, double* out_2,
                   int count);

namespace detail {

// The side file beside the library file at `library_path`: the text up to
// its last '/' or '\\', then the file name; the name alone without one.
void side_file_path(char const* library_path, char* out, size_t capacity);

// Makes the device current on the calling thread: 0, -1 when the set-up
// failed, -2 when the context cannot be made current.
int enter_device();

// The handle of kernel k of the table (null when the side file lacks it).
CUfunction& kernel_handle(GpuState& s, int k);

}  // namespace detail
}  // namespace gpu
}  // namespace nuvrix
