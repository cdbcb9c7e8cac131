// Identification exports and the record layout that hosts depend on.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

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

// Every field of every record at the offset that natural alignment gives to
// the documented field order and widths (4-byte integers, 8-byte doubles).
TEST(Abi, FieldOffsetsFollowNaturalAlignment) {
#define NUVRIX_EXPECT_AT(record, field, offset) \
  EXPECT_EQ(offsetof(record, field), static_cast<size_t>(offset)) << #record "." #field
  NUVRIX_EXPECT_AT(SurfaceData, surface_reserved_head, 0);
  NUVRIX_EXPECT_AT(SurfaceData, type, 4);
  NUVRIX_EXPECT_AT(SurfaceData, curvature, 8);
  NUVRIX_EXPECT_AT(SurfaceData, thickness, 16);
  NUVRIX_EXPECT_AT(SurfaceData, conic, 24);
  NUVRIX_EXPECT_AT(SurfaceData, semi_diameter, 32);
  NUVRIX_EXPECT_AT(SurfaceData, aperture_kind, 40);
  NUVRIX_EXPECT_AT(SurfaceData, coefficients, 48);
  NUVRIX_EXPECT_AT(SurfaceData, surface_reserved_mid, 112);
  NUVRIX_EXPECT_AT(SurfaceData, is_mirror, 116);
  NUVRIX_EXPECT_AT(SurfaceData, aperture_radius, 120);
  NUVRIX_EXPECT_AT(SurfaceData, aperture_radius_alt, 128);
  NUVRIX_EXPECT_AT(SurfaceData, aperture_override, 136);
  NUVRIX_EXPECT_AT(SurfaceData, is_glass, 144);
  NUVRIX_EXPECT_AT(SurfaceData, aperture_percent, 152);
  NUVRIX_EXPECT_AT(SurfaceData, model_glass, 160);
  NUVRIX_EXPECT_AT(SurfaceData, model_nd, 168);
  NUVRIX_EXPECT_AT(SurfaceData, model_vd, 176);
  NUVRIX_EXPECT_AT(SurfaceData, model_dpgf, 184);
  NUVRIX_EXPECT_AT(SurfaceData, focal_length, 192);

  NUVRIX_EXPECT_AT(SystemConfig, field_type, 0);
  NUVRIX_EXPECT_AT(SystemConfig, aperture_type, 4);
  NUVRIX_EXPECT_AT(SystemConfig, aperture_value, 8);
  NUVRIX_EXPECT_AT(SystemConfig, ray_aiming, 16);
  NUVRIX_EXPECT_AT(SystemConfig, stop_surface, 20);
  NUVRIX_EXPECT_AT(SystemConfig, config_reserved, 24);
  NUVRIX_EXPECT_AT(SystemConfig, config_reserved_tail, 28);
  NUVRIX_EXPECT_AT(SystemConfig, primary_wavelength, 32);
  NUVRIX_EXPECT_AT(SystemConfig, afocal_image, 36);
  NUVRIX_EXPECT_AT(SystemConfig, penalize_failed_rays, 40);
  NUVRIX_EXPECT_AT(SystemConfig, telecentric_object, 44);

  NUVRIX_EXPECT_AT(FieldData, field_y, 0);
  NUVRIX_EXPECT_AT(FieldData, field_reserved, 8);
  NUVRIX_EXPECT_AT(FieldData, field_x, 16);

  NUVRIX_EXPECT_AT(RayState, x, 0);
  NUVRIX_EXPECT_AT(RayState, l, 24);
  NUVRIX_EXPECT_AT(RayState, nx, 48);
  NUVRIX_EXPECT_AT(RayState, sag_path, 72);
  NUVRIX_EXPECT_AT(RayState, status, 80);
  NUVRIX_EXPECT_AT(RayTraceResult, sag_path, 72);
  NUVRIX_EXPECT_AT(RayTraceResult, status, 80);
  NUVRIX_EXPECT_AT(RayTraceResult, opl, 88);
  NUVRIX_EXPECT_AT(RayTraceResult, phase_waves, 96);
  NUVRIX_EXPECT_AT(RayTraceResult, valid, 104);
  NUVRIX_EXPECT_AT(RayTraceResult, states_written, 108);
  NUVRIX_EXPECT_AT(RayTraceResult, failed_surface, 112);
  NUVRIX_EXPECT_AT(RayTraceResult, violation, 120);

  NUVRIX_EXPECT_AT(MeritOperandDesc, type, 0);
  NUVRIX_EXPECT_AT(MeritOperandDesc, transform, 4);
  NUVRIX_EXPECT_AT(MeritOperandDesc, centroid_tag, 8);
  NUVRIX_EXPECT_AT(MeritOperandDesc, group_id, 12);
  NUVRIX_EXPECT_AT(MeritOperandDesc, surface, 16);
  NUVRIX_EXPECT_AT(MeritOperandDesc, wave, 20);
  NUVRIX_EXPECT_AT(MeritOperandDesc, operand_a, 24);
  NUVRIX_EXPECT_AT(MeritOperandDesc, operand_b, 28);
  NUVRIX_EXPECT_AT(MeritOperandDesc, surface_first, 32);
  NUVRIX_EXPECT_AT(MeritOperandDesc, surface_last, 36);
  NUVRIX_EXPECT_AT(MeritOperandDesc, has_lower, 40);
  NUVRIX_EXPECT_AT(MeritOperandDesc, has_upper, 44);
  NUVRIX_EXPECT_AT(MeritOperandDesc, hx, 48);
  NUVRIX_EXPECT_AT(MeritOperandDesc, hy, 56);
  NUVRIX_EXPECT_AT(MeritOperandDesc, px, 64);
  NUVRIX_EXPECT_AT(MeritOperandDesc, py, 72);
  NUVRIX_EXPECT_AT(MeritOperandDesc, target, 80);
  NUVRIX_EXPECT_AT(MeritOperandDesc, lower, 88);
  NUVRIX_EXPECT_AT(MeritOperandDesc, upper, 96);
  NUVRIX_EXPECT_AT(MeritOperandDesc, weight, 104);
  NUVRIX_EXPECT_AT(MeritOperandDesc, scale, 112);
  NUVRIX_EXPECT_AT(MeritOperandDesc, reserved_int, 120);
  NUVRIX_EXPECT_AT(MeritOperandDesc, sample_count, 124);
  NUVRIX_EXPECT_AT(MeritOperandDesc, reserved_double, 128);

  NUVRIX_EXPECT_AT(MeritVariableDesc, kind, 0);
  NUVRIX_EXPECT_AT(MeritVariableDesc, surface, 4);
  NUVRIX_EXPECT_AT(MeritVariableDesc, field, 8);
  NUVRIX_EXPECT_AT(MeritVariableDesc, reserved_a, 12);
  NUVRIX_EXPECT_AT(MeritVariableDesc, reserved_b, 16);
  NUVRIX_EXPECT_AT(MeritVariableDesc, coefficient, 20);
  NUVRIX_EXPECT_AT(MeritVariableDesc, has_lower, 24);
  NUVRIX_EXPECT_AT(MeritVariableDesc, has_upper, 28);
  NUVRIX_EXPECT_AT(MeritVariableDesc, lower, 32);
  NUVRIX_EXPECT_AT(MeritVariableDesc, upper, 40);

  NUVRIX_EXPECT_AT(MeritPickupDesc, target_surface, 0);
  NUVRIX_EXPECT_AT(MeritPickupDesc, source_surface, 4);
  NUVRIX_EXPECT_AT(MeritPickupDesc, kind, 8);
  NUVRIX_EXPECT_AT(MeritPickupDesc, factor, 16);
  NUVRIX_EXPECT_AT(MeritPickupDesc, offset, 24);

  NUVRIX_EXPECT_AT(MeritResult, value, 0);
  NUVRIX_EXPECT_AT(MeritResult, status, 8);

  NUVRIX_EXPECT_AT(MeritBatchedConfig, use_gpu, 0);
  NUVRIX_EXPECT_AT(MeritBatchedConfig, jacobian_mode, 4);
  NUVRIX_EXPECT_AT(MeritBatchedConfig, thread_count, 8);
  NUVRIX_EXPECT_AT(MeritBatchedConfig, want_jacobian, 12);
  NUVRIX_EXPECT_AT(MeritBatchedConfig, reserved, 16);

  // The analysis records, with their sizes.
  NUVRIX_EXPECT_AT(SpotDiagramResult, field_index, 68);
  NUVRIX_EXPECT_AT(RayFanResultHeader, max_abs_value, 8);
  NUVRIX_EXPECT_AT(OpdFanPoint, value, 8);
  NUVRIX_EXPECT_AT(OpdFanPoint, wavelength_index, 16);
  NUVRIX_EXPECT_AT(OpdFanPoint, valid, 20);
  NUVRIX_EXPECT_AT(OpdFanResultHeader, max_abs_value, 8);
  NUVRIX_EXPECT_AT(OpdFanResultHeader, tangential_count, 16);
  NUVRIX_EXPECT_AT(OpdFanResultHeader, sagittal_count, 20);
  NUVRIX_EXPECT_AT(FftPsfResult, peak, 8);
  NUVRIX_EXPECT_AT(FftPsfResult, pixel_pitch, 24);
  NUVRIX_EXPECT_AT(FftPsfResult, field_index, 32);
  NUVRIX_EXPECT_AT(FftPsfResult, reserved, 36);
  NUVRIX_EXPECT_AT(FftMtfResult, point_count, 8);
  NUVRIX_EXPECT_AT(FftMtfResult, max_frequency, 16);
  NUVRIX_EXPECT_AT(MtfVsFieldResult, frequency_count, 4);
  NUVRIX_EXPECT_AT(ZernikeResult, coefficients, 8);
  NUVRIX_EXPECT_AT(ZernikeResult, wavefront_rms, 8 + 37 * 8);
  NUVRIX_EXPECT_AT(ZernikeResult, wavefront_pv, 312);
  NUVRIX_EXPECT_AT(ZernikeResult, residual_rms, 320);
  NUVRIX_EXPECT_AT(ZernikeResult, field_index, 328);
  size_t const sizes[][2] = {
      {sizeof(SpotRayHit), 24},          {sizeof(SpotDiagramResult), 72},
      {sizeof(RayFanPoint), 24},         {sizeof(PupilAberrationPoint), 24},
      {sizeof(RayFanResultHeader), 24},  {sizeof(PupilAberrationResultHeader), 24},
      {sizeof(OpdFanPoint) + sizeof(OpdFanResultHeader), 48},
      {sizeof(FftPsfResult), 40},        {sizeof(FftMtfPoint), 24},
      {sizeof(MtfVsFieldPoint), 24},     {sizeof(ZernikeResult), 336}};
  for (auto const& s : sizes) EXPECT_EQ(s[0], s[1]);
#undef NUVRIX_EXPECT_AT
  // The code words are unsigned 32-bit integers, the rest signed.
  EXPECT_TRUE((std::is_same<decltype(MeritOperandDesc::type), uint32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(MeritOperandDesc::transform), uint32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(MeritVariableDesc::kind), uint32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(MeritPickupDesc::kind), uint32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(SystemConfig::field_type), int32_t>::value));
  EXPECT_TRUE((std::is_same<decltype(SurfaceData::aperture_kind), int32_t>::value));
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
