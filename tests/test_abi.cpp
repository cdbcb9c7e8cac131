// Identification exports and the record layout that hosts depend on.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "api/nuvrix.h"

extern "C" int nuvrix_c_layout(int which);
extern "C" double nuvrix_c_trace_y(void);

TEST(Abi, VersionAndAnchor) {
  EXPECT_STREQ(nuvrix_version(), "0.1.0");
  EXPECT_EQ(nuvrix_build_anchor(), 0);
}

TEST(Abi, LayoutReport) {
  int32_t words[13];
  for (int32_t& w : words) w = -99;
  nuvrix_merit_abi_info(words);
  int32_t const expect[12] = {12, 104, 14, 9, 136, 48, 200, 48, 24, 16, 32, 32};
  for (int i = 0; i < 12; ++i) EXPECT_EQ(words[i], expect[i]) << i;
  EXPECT_EQ(words[12], -99);  // writes exactly twelve words
  nuvrix_merit_abi_info(nullptr);
}

TEST(Abi, FieldOffsetsFollowNaturalAlignment) {
  EXPECT_EQ(offsetof(SurfaceData, type), 4u);
  EXPECT_EQ(offsetof(SurfaceData, curvature), 8u);
  EXPECT_EQ(offsetof(SurfaceData, aperture_kind), 40u);
  EXPECT_EQ(offsetof(SurfaceData, coefficients), 48u);
  EXPECT_EQ(offsetof(SurfaceData, surface_reserved_mid), 112u);
  EXPECT_EQ(offsetof(SurfaceData, is_mirror), 116u);
  EXPECT_EQ(offsetof(SurfaceData, aperture_radius), 120u);
  EXPECT_EQ(offsetof(SurfaceData, is_glass), 144u);
  EXPECT_EQ(offsetof(SurfaceData, aperture_percent), 152u);
  EXPECT_EQ(offsetof(SurfaceData, model_glass), 160u);
  EXPECT_EQ(offsetof(SurfaceData, model_nd), 168u);
  EXPECT_EQ(offsetof(SurfaceData, focal_length), 192u);
  EXPECT_EQ(offsetof(SystemConfig, aperture_value), 8u);
  EXPECT_EQ(offsetof(SystemConfig, telecentric_object), 44u);
  EXPECT_EQ(offsetof(FieldData, field_x), 16u);
  EXPECT_EQ(offsetof(RayTraceResult, status), 80u);
  EXPECT_EQ(offsetof(RayTraceResult, opl), 88u);
  EXPECT_EQ(offsetof(RayTraceResult, valid), 104u);
  EXPECT_EQ(offsetof(RayTraceResult, violation), 120u);
  EXPECT_EQ(offsetof(MeritOperandDesc, hx), 48u);
  EXPECT_EQ(offsetof(MeritOperandDesc, reserved_int), 120u);
  EXPECT_EQ(offsetof(MeritPickupDesc, factor), 16u);
  EXPECT_EQ(offsetof(MeritResult, status), 8u);
}

TEST(Abi, HeaderCompilesAsCWithTheSameLayout) {
  EXPECT_EQ(nuvrix_c_layout(0), 200);
  EXPECT_EQ(nuvrix_c_layout(1), 48);
  EXPECT_EQ(nuvrix_c_layout(2), 24);
  EXPECT_EQ(nuvrix_c_layout(3), static_cast<int>(sizeof(RayTraceResult)));
  EXPECT_EQ(nuvrix_c_layout(4), static_cast<int>(offsetof(SurfaceData, focal_length)));
  EXPECT_EQ(nuvrix_c_layout(5), static_cast<int>(offsetof(RayTraceResult, violation)));
  EXPECT_EQ(nuvrix_c_layout(6), static_cast<int>(offsetof(MeritOperandDesc, reserved_double)));
  // A plane-to-plane ray called from C: 10 mm then 10 mm at slope 3/4.
  EXPECT_DOUBLE_EQ(nuvrix_c_trace_y(), 15.0);
}
