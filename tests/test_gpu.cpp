// The GPU family on the machine at hand: without a usable device every call
// fails with its code and touches nothing; with one, the smoke kernel
// computes what the host computes, to the bit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "api/nuvrix.h"
#include "gpu/cuda_loader.hpp"

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
  if (status == 1) {
    EXPECT_STREQ(nuvrix::gpu::cuda_error_name(2), "(unknown CUresult)");
  }
}

TEST(Gpu, BufferSizes) {
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
