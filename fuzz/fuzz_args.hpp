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
  kTraceRays,
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

// ---------------------------------------------------------------- merit --

enum MeritOp : uint8_t {
  kEvaluateMerit,
  kEvaluateMeritOperands,
  kEvaluateMeritOperandsFull,
  kEvaluateMeritAndJacobian,
  kEvaluateMeritBatched,
  kMeritOpCount
};

// Operands of one call: enough for a real merit function of a few fields,
// few enough that a call on a small system stays in the milliseconds.
constexpr int32_t kMaxMeritOperands = 48;

// Every operand traces a few rays through every surface, so that the cost of
// a call grows with operands times surfaces: systems above 32 surfaces get
// proportionally fewer operands (6 at 256 surfaces).  A count as decoded
// (which may be negative) is capped at that.
inline int32_t merit_operand_limit(int32_t surface_count) {
  return surface_count <= 32 ? kMaxMeritOperands
                             : std::max(kMaxMeritOperands * 32 / surface_count, 4);
}
inline int32_t capped_operand_count(int32_t count, int32_t surface_count) {
  return std::min(count, merit_operand_limit(surface_count));
}

// The scalar arguments of the merit exports; the operand records follow
// the system at the end of the input.  The legacy exports require results,
// so null_results is read by evaluate_merit only.
struct MeritArgs {
  int32_t operand_count = 0;
  bool null_results = false, null_residuals = false;
  bool null_residual_count = false, null_merit = false;
  template <class IO>
  void visit(IO& io) {
    io.count(operand_count, kMaxMeritOperands);
    io.flag(null_results), io.flag(null_residuals);
    io.flag(null_residual_count), io.flag(null_merit);
  }
};

// The scalar arguments of the Jacobian export beyond those of the merit:
// the variables and pickups follow the operands at the end of the input.
// Each finite-difference column costs one merit evaluation, so the lists
// stay short.
constexpr int32_t kMaxJacobianVariables = 10;
constexpr int32_t kMaxJacobianPickups = 4;
struct JacobianArgs {
  int32_t variable_count = 0, pickup_count = 0;
  int32_t mode = 0;          // 0 finite differences, 1 analytic; -3 .. 3 occur
  bool parallel = false;
  int32_t thread_count = 1;  // -2 .. 2
  bool null_sd = false;      // the analytic buffers missing
  template <class IO>
  void visit(IO& io) {
    io.count(variable_count, kMaxJacobianVariables);
    io.count(pickup_count, kMaxJacobianPickups);
    io.count(mode, 3);
    io.flag(parallel);
    io.count(thread_count, 2);
    io.flag(null_sd);
  }
};

// The batch's own arguments beyond the Jacobian's: a few candidates (a
// row of unbounded values each follows the pickups at the end of the
// input), the device path, want_jacobian with its upper bits, and a
// scratch one byte below the CPU's size.
struct BatchArgs {
  int32_t candidate_count = 0;  // -3 .. 3
  bool use_gpu = false, short_scratch = false;
  int32_t want_jacobian = 0;  // -3 .. 3
  template <class IO>
  void visit(IO& io) {
    io.count(candidate_count, 3);
    io.flag(use_gpu), io.flag(short_scratch);
    io.count(want_jacobian, 3);
  }
};

// x folded into [-limit, limit], the identity there (Reader::count's rule).
inline int32_t fold(int32_t x, int32_t limit) {
  long long v = x;
  long long const m = static_cast<long long>(limit) + 1;
  if (v > limit) v %= m;
  if (v < -limit) v = -((-v) % m);
  return static_cast<int32_t>(v);
}

// A record at the end of an input: a mode byte, then the record's raw
// bytes.  Mode & 3 == 3 keeps every field as it came (any code, INT_MIN
// surface references, ...).  Any other mode folds the integer fields into
// the ranges where the engine tells values apart: codes into 0 .. 110 (the
// catalogue and a few beyond it), surface references into [-300, 300],
// operand references and wavelength rows near the list and the table, and
// the bound flags into 0 or 1; so that a mutated record still names a real
// operand most of the time.  The doubles are always raw.  Folding is the
// identity on the values a host writes, so the seed generator's records
// read back unchanged (the writer checks that).
inline bool raw_mode(uint8_t mode) { return (mode & 3) == 3; }

inline MeritOperandDesc folded(MeritOperandDesc d) {
  d.type %= 111u;
  d.transform %= 10u;  // 9: above the last transform
  d.centroid_tag = fold(d.centroid_tag, 8);
  d.group_id = fold(d.group_id, 8);
  d.surface = fold(d.surface, 300);
  d.wave = fold(d.wave, 10);
  d.operand_a = fold(d.operand_a, 64);
  d.operand_b = fold(d.operand_b, 64);
  d.surface_first = fold(d.surface_first, 300);
  d.surface_last = fold(d.surface_last, 300);
  d.has_lower &= 1;
  d.has_upper &= 1;
  d.sample_count = fold(d.sample_count, 300);  // the engine takes 8 .. 256 azimuths
  return d;
}

inline MeritOperand folded(MeritOperand d) {
  d.type = fold(d.type, 16);  // codes 0 .. 12, and some on either side
  d.surface = fold(d.surface, 300);
  d.wave = fold(d.wave, 10);
  return d;
}

// The integer fields that folding may change are equal.
inline bool same_folded_fields(MeritOperandDesc const& a, MeritOperandDesc const& b) {
  return a.type == b.type && a.transform == b.transform && a.centroid_tag == b.centroid_tag &&
         a.group_id == b.group_id && a.surface == b.surface && a.wave == b.wave &&
         a.operand_a == b.operand_a && a.operand_b == b.operand_b &&
         a.surface_first == b.surface_first && a.surface_last == b.surface_last &&
         a.has_lower == b.has_lower && a.has_upper == b.has_upper &&
         a.sample_count == b.sample_count;
}
inline bool same_folded_fields(MeritOperand const& a, MeritOperand const& b) {
  return a.type == b.type && a.surface == b.surface && a.wave == b.wave;
}

// Variables and pickups fold as operands do: kinds into 0 .. 14 and 0 .. 9
// (one beyond each list), surfaces into [-300, 300], fields and
// coefficients near their ranges, the bound flags into 0 or 1.
inline MeritVariableDesc folded(MeritVariableDesc d) {
  d.kind %= 15u;
  d.surface = fold(d.surface, 300);
  d.field = fold(d.field, 10);
  d.coefficient = fold(d.coefficient, 10);
  d.has_lower &= 1;
  d.has_upper &= 1;
  return d;
}
inline bool same_folded_fields(MeritVariableDesc const& a, MeritVariableDesc const& b) {
  return a.kind == b.kind && a.surface == b.surface && a.field == b.field &&
         a.coefficient == b.coefficient && a.has_lower == b.has_lower &&
         a.has_upper == b.has_upper;
}
inline MeritPickupDesc folded(MeritPickupDesc d) {
  d.kind %= 10u;
  d.target_surface = fold(d.target_surface, 300);
  d.source_surface = fold(d.source_surface, 300);
  return d;
}
inline bool same_folded_fields(MeritPickupDesc const& a, MeritPickupDesc const& b) {
  return a.kind == b.kind && a.target_surface == b.target_surface &&
         a.source_surface == b.source_surface;
}

template <typename Record>
struct OperandInput {
  uint8_t mode = 0;
  Record record{};
  template <class IO>
  void visit(IO& io) {
    io.u8(mode);
    io.raw(record);
    if (raw_mode(mode)) return;
    Record const f = folded(record);
    if (IO::kReading) {
      record = f;
    } else if (!same_folded_fields(f, record)) {
      std::abort();  // a seed record that would not read back as written
    }
  }
};

using MeritOperandInput = OperandInput<MeritOperandDesc>;
using LegacyOperandInput = OperandInput<MeritOperand>;

// Code 59 bisects the rim of the pupil on up to 256 azimuths, some 8000
// rays; 48 such operands on a long system would take seconds.  The first
// code 59 of a list keeps its sample count as read (so that 0, negative
// and counts beyond 256 occur); every later one has it folded into
// [-16, 16].
inline void bound_azimuths(Buf<MeritOperandDesc>& ops) {
  bool first = true;
  for (size_t i = 0; i < ops.size(); ++i) {
    if (ops[i].type != 59) continue;
    if (!first) ops[i].sample_count = fold(ops[i].sample_count, 16);
    first = false;
  }
}

// Exactly `count` operand records from the end of an input.
template <typename Record>
inline Buf<Record> read_operands(Reader& in, int32_t count) {
  Buf<Record> ops(count);
  for (size_t i = 0; i < ops.size(); ++i) {
    OperandInput<Record> o;
    o.visit(in);
    ops[i] = o.record;
  }
  return ops;
}

}  // namespace nuvrix_fuzz
