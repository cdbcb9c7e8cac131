// The GPU family on the machine at hand: without a usable device every call
// fails with its code and touches nothing; with one, the smoke kernel
// computes what the host computes, to the bit.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstring>
#include <vector>

#include "api/nuvrix.h"
#include "gpu/cuda_loader.hpp"
#include "gpu/gpu_merit_value.hpp"

TEST(Gpu, WithoutADeviceEveryCallFailsCleanly) {
  int const status = nuvrix_gpu_init();
  if (status == 0) GTEST_SKIP() << "a device is present";
  EXPECT_GE(status, 1);
  EXPECT_LE(status, 4);
  EXPECT_EQ(nuvrix_gpu_init(), status);  // the outcome is final
  GpuQueryResult const q = nuvrix_gpu_query();
  GpuQueryResult const zero = {};
  EXPECT_EQ(std::memcmp(&q, &zero, sizeof q), 0);
  void* p = reinterpret_cast<void*>(16);
  EXPECT_EQ(nuvrix_gpu_alloc_device(0, &p), 0);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(nuvrix_gpu_alloc_device(8, nullptr), -3);
  EXPECT_EQ(nuvrix_gpu_alloc_device(8, &p), -1);
  EXPECT_EQ(p, nullptr);
  double host[2] = {1.0, 2.0};
  void* const fake = reinterpret_cast<void*>(64);
  EXPECT_EQ(nuvrix_gpu_free_device(nullptr), 0);
  EXPECT_EQ(nuvrix_gpu_free_device(fake), -1);
  EXPECT_EQ(nuvrix_gpu_htod_device(fake, host, 0), 0);
  EXPECT_EQ(nuvrix_gpu_htod_device(nullptr, host, 16), -4);
  EXPECT_EQ(nuvrix_gpu_htod_device(fake, host, 16), -1);
  EXPECT_EQ(nuvrix_gpu_dtoh_device(host, nullptr, 16), -4);
  EXPECT_EQ(nuvrix_gpu_dtoh_device(host, fake, 16), -1);
  EXPECT_EQ(host[0], 1.0);
  EXPECT_EQ(nuvrix::gpu::cuda_run_smoke(host, host, host, host, host, 2), -1);
  EXPECT_EQ(nuvrix_gpu_merit_value_fill_count(), 0);
  if (status == 1) {
    EXPECT_STREQ(nuvrix::gpu::cuda_error_name(2), "(unknown CUresult)");
  }
}

TEST(Gpu, BufferSizes) {
  // Scratch blocks, section by section (ints padded to 8 bytes):
  //   EFL, P 3, n 5: 1000 surfaces + 24 ids + 240 rows + 24 results;
  //   RY: the same with three row arrays (360) and two arrays of P (48).
  EXPECT_EQ(nuvrix::gpu::cuda_efl_value_scratch_size(3, 5), 1288);
  EXPECT_EQ(nuvrix::gpu::cuda_ry_value_scratch_size(3, 5), 1456);
  // Merit, P 2, n 3, W 2, F 1, O 4: 600 + 16 + 48 + 24 + 544 shared, then
  // 24 ids, 144 rows, 1200 surfaces, 96 index rows, 128 results, 272 of
  // working space and 16 of merits; P 1 pads 12 bytes of ids to 16.
  EXPECT_EQ(nuvrix_gpu_merit_value_scratch_size(2, 3, 2, 1, 4), 3112);
  EXPECT_EQ(nuvrix_gpu_merit_value_scratch_size(1, 3, 1, 1, 1), 1640);
  // Grid, n 4, W 2, F 3, R 5: 1000 shared, 48 indices, 80 pupil, 96 field
  // table, 120 results, 48 flags, 400 records, 24 surfaces, 120 normals,
  // 40 stop radii; without rays only the shared part and the field table.
  EXPECT_EQ(nuvrix_gpu_trace_grid_scratch_size(4, 2, 3, 5), 1976);
  EXPECT_EQ(nuvrix_gpu_trace_grid_scratch_size(4, 2, 3, 0), 1096);
  EXPECT_EQ(nuvrix::gpu::cuda_efl_value_scratch_size(0, 5), 0);
  EXPECT_EQ(nuvrix_gpu_merit_value_scratch_size(2, 3, 2, 1, 0), 0);
  EXPECT_EQ(nuvrix_gpu_trace_grid_scratch_size(4, -1, 3, 5), 0);
  EXPECT_EQ(nuvrix_gpu_merit_value_scratch_size(INT_MAX, INT_MAX, 8, 8, 8), 0);  // beyond a long
  EXPECT_EQ(nuvrix_gpu_glass_catalog_bytes(3, 4), 96);
  EXPECT_EQ(nuvrix_gpu_glass_catalog_bytes(0, 4), 0);
  EXPECT_EQ(nuvrix_gpu_glass_catalog_bytes(3, -1), 0);
  EXPECT_EQ(nuvrix::gpu::cuda_material_ids_bytes(5), 20);
  EXPECT_EQ(nuvrix::gpu::cuda_material_ids_bytes(0), 0);
}

TEST(Gpu, SmokeKernelMatchesTheHost) {
  if (nuvrix_gpu_init() != 0) GTEST_SKIP() << "no usable device";
  int const n = 1000;
  std::vector<double> a(n), b(n), o0(n), o1(n), o2(n);
  for (int i = 0; i < n; ++i) a[i] = std::sin(0.1 * i) * 1e3, b[i] = 1.0 / (i + 3);
  ASSERT_EQ(nuvrix::gpu::cuda_run_smoke(a.data(), b.data(), o0.data(), o1.data(), o2.data(), n),
            0);
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(o0[i], a[i] + b[i]) << i;
    ASSERT_EQ(o1[i], a[i] * b[i]) << i;
    ASSERT_EQ(o2[i], std::sqrt(a[i] * a[i] + b[i] * b[i])) << i;
  }
  GpuQueryResult const q = nuvrix_gpu_query();
  EXPECT_EQ(q.available, 1);
  EXPECT_GT(q.multiprocessor_count, 0);
  EXPECT_EQ(q.warp_size, 32);
}
