// The scalar arguments of every export, one record per export, each with a
// single visit() that Reader decodes and Writer encodes.  Selectors number
// the exports of each harness; the seed generator writes one input per
// selector.  Limits keep one execution in the milliseconds.
#pragma once

#include "fuzz/fuzz_input.hpp"

namespace nuvrix_fuzz {

// ----------------------------------------------------------------- rays --

enum TraceOp : uint8_t {
  kVersion,
  kAbiInfo,
  kBuildAnchor,
  kTraceRay,
  kTraceRayFull,
  kTraceArbitraryRay,
  kAimToStop,
  kTraceOpCount
};

struct AbiArgs {
  bool null_out = false;
  template <class IO>
  void visit(IO& io) {
    io.flag(null_out);
  }
};

struct TraceRayArgs {
  int32_t start_surface = 1, last_surface = 0;
  double x = 0, y = 0, l = 0, m = 0, n = 1, wavelength = 587.5618;
  int32_t row = 0;  // which index row to pass
  template <class IO>
  void visit(IO& io) {
    io.positive_any(start_surface);  // the caller's duty: at least 1
    io.any_int(last_surface);
    io.f64(x), io.f64(y), io.f64(l), io.f64(m), io.f64(n), io.f64(wavelength);
    io.any_int(row);
  }
};

struct ArbitraryRayArgs {
  int32_t aim_flag = 0, last_surface = 0, row = 0;
  double field_value = 0, pupil_radius = 5, px = 0, py = 1, wavelength = 587.5618;
  double entrance_pupil_position = 0, stop_radius = 5;
  template <class IO>
  void visit(IO& io) {
    io.any_int(aim_flag), io.any_int(last_surface), io.any_int(row);
    io.f64(field_value), io.f64(pupil_radius), io.f64(px), io.f64(py), io.f64(wavelength);
    io.f64(entrance_pupil_position), io.f64(stop_radius);
  }
};

struct AimArgs {
  int32_t stop_surface = 1, row = 0;
  double x = 0, y = 0, l = 0, m = 0, n_dir = 1, px = 0, py = 1, stop_radius = 5;
  template <class IO>
  void visit(IO& io) {
    io.any_int(stop_surface), io.any_int(row);
    io.f64(x), io.f64(y), io.f64(l), io.f64(m), io.f64(n_dir), io.f64(px), io.f64(py);
    io.f64(stop_radius);
  }
};

// ---------------------------------------------------------- first order --

enum FirstOrderOp : uint8_t {
  kFocalLength,
  kEfl,
  kBfl,
  kParaxialSolve,
  kEntrancePupil,
  kExitPupil,
  kPupilRadius,
  kStopRadius,
  kSolveSemiDiameters,
  kSeidel,
  kChromaticFocalShift,
  kFirstOrderOpCount
};

// One record serves all first-order exports: each reads what it needs.
struct FirstOrderArgs {
  int32_t row = 0;            // the index row passed where one row is taken
  int32_t stop_surface = 1;   // for the entrance pupil position
  bool marginal_rows = true;  // paraxial solve: row arrays present or null
  bool chief_rows = true;
  bool null_wavelengths = false;  // semi-diameter solve: wavelengths is not read
  bool short_row = true;          // Seidel colour rows present or null
  bool long_row = true;
  int32_t short_index = 0, long_index = 2;
  int32_t capacity = 16;  // Seidel records
  template <class IO>
  void visit(IO& io) {
    io.any_int(row), io.any_int(stop_surface);
    io.flag(marginal_rows), io.flag(chief_rows), io.flag(null_wavelengths);
    io.flag(short_row), io.flag(long_row);
    io.any_int(short_index), io.any_int(long_index);
    io.count(capacity, 300);
  }
};

// -------------------------------------------------------- spots and fans --

enum SpotFanOp : uint8_t {
  kSpotDiagram,
  kSpotDiagramWithRays,
  kTransverseRayFan,
  kPupilAberrationFan,
  kOpdFan,
  kSpotFanOpCount
};

struct SpotArgs {
  int32_t field_index = 0, grid_size = 6, pattern = 1, hit_capacity = 256;
  template <class IO>
  void visit(IO& io) {
    io.any_int(field_index);
    io.count(grid_size, 24);
    io.any_int(pattern);
    io.count(hit_capacity, 4096);
  }
};

struct FanArgs {
  int32_t field_index = 0, point_count = 20;
  double reference_radius = 50;  // OPD fan only
  template <class IO>
  void visit(IO& io) {
    io.any_int(field_index);
    io.count(point_count, 400);  // the ray fans make it positive themselves
    io.f64(reference_radius);
  }
};

// ------------------------------------------------------------ wavefront --

enum WavefrontOp : uint8_t {
  kWavefrontMap,
  kFftPsf,
  kFftMtf,
  kFftMtfPolychromatic,
  kFftMtfVsField,
  kZernike,
  kDiffractionEncircledEnergy,
  kWavefrontOpCount
};

struct WavefrontArgs {
  int32_t row = 1;          // index row of the analysed wavelength
  int32_t primary_row = 1;  // index row of the reference chief ray
  int32_t field_index = 0;
  int32_t grid_size = 16;  // the map's side; each export folds it as it must
  double wavelength = 0.5876;
  double reference_radius = 50;
  double f_number = 5;
  double tangential_cutoff = 300, sagittal_cutoff = 300, frequency_step = 10;
  int32_t capacity = 40;
  int32_t term_count = 37;
  int32_t unused_count = 0;
  bool null_fields = false;     // fields are not read by the scan over field
  int32_t frequency_count = 4;  // scan over field
  int32_t scan_field_count = 3;
  double field_scale = 20;
  double pixel_pitch = 1e-3, max_radius = 20;  // diffraction encircled energy
  int32_t point_count = 20;
  template <class IO>
  void visit(IO& io) {
    io.any_int(row), io.any_int(primary_row), io.any_int(field_index);
    io.count(grid_size, 64);
    io.f64(wavelength), io.f64(reference_radius), io.nonzero(f_number);
    io.f64(tangential_cutoff), io.f64(sagittal_cutoff), io.f64(frequency_step);
    io.count(capacity, 256);
    io.any_int(term_count), io.any_int(unused_count);
    io.flag(null_fields);
    io.count(frequency_count, 64), io.count(scan_field_count, 8);
    io.f64(field_scale), io.f64(pixel_pitch), io.f64(max_radius);
    io.count(point_count, 512);
  }
};

// A power-of-two grid from the map side (FFT routines that need one), or
// also 0 where the routine must survive 0.
inline int32_t fft_grid(int32_t g, int max_log2) {
  int32_t const a = g < 0 ? -g : g;
  int k = 0;
  while (k < max_log2 && (2 << k) <= a) ++k;
  return 1 << k;
}
inline int32_t fft_grid_or_zero(int32_t g, int max_log2) {
  return g == 0 ? 0 : fft_grid(g, max_log2);
}

// ------------------------------------------------------------ geometric --

enum GeometricOp : uint8_t {
  kGeometricMtf,
  kGeometricMtfPolychromatic,
  kGeometricMtfVsField,
  kGeometricEncircledEnergy,
  kLineEdgeSpread,
  kGeometricOpCount
};

struct GeometricArgs {
  int32_t row = 1, field_index = 0, wavelength_index = 1;
  int32_t samples = 16, apply_diffraction = 0;
  double tangential_cutoff = 100, sagittal_cutoff = 100;
  int32_t grid_size = 64;  // 0 or a power of two
  int32_t capacity = 60;
  bool null_wavelengths = false, null_weights = false;  // polychromatic: not read
  int32_t unused_count = 0;
  bool null_fields = false;  // scan over field: fields not read
  int32_t frequency_count = 4, scan_field_count = 3;
  double field_scale = 20;
  int32_t hit_count = 200;
  double center_x = 0, center_y = 0, max_radius = 50, half_width = 50;
  int32_t point_count = 20;
  template <class IO>
  void visit(IO& io) {
    io.any_int(row), io.any_int(field_index), io.any_int(wavelength_index);
    io.count(samples, 32), io.any_int(apply_diffraction);
    io.f64(tangential_cutoff), io.f64(sagittal_cutoff);
    io.grid_or_zero(grid_size, 6);
    io.count(capacity, 128);
    io.flag(null_wavelengths), io.flag(null_weights);
    io.any_int(unused_count), io.flag(null_fields);
    io.count(frequency_count, 64), io.count(scan_field_count, 8), io.f64(field_scale);
    io.count(hit_count, 70000);
    io.f64(center_x), io.f64(center_y), io.f64(max_radius), io.f64(half_width);
    io.count(point_count, 2047);  // below 2048, the line/edge spread's limit
  }
};

// ---------------------------------------------------------------- field --

enum FieldOp : uint8_t {
  kLateralColor,
  kFieldCurvatureDistortion,
  kRelativeIllumination,
  kFieldOpCount
};

struct FieldArgs {
  int32_t row = 1;
  bool null_fields = false;  // not read by any of the three
  int32_t sample_count = 5, capacity = 20, point_count = 10, unused_count = 0;
  double max_field = 20;
  template <class IO>
  void visit(IO& io) {
    io.any_int(row), io.flag(null_fields);
    io.count(sample_count, 64), io.count(capacity, 256), io.count(point_count, 48);
    io.any_int(unused_count), io.f64(max_field);
  }
};

}  // namespace nuvrix_fuzz
