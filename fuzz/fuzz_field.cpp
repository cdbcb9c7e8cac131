// Field analyses: lateral colour, field curvature and distortion, relative
// illumination.
#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kFieldOpCount;
  FieldArgs a;
  a.visit(in);
  System sys = read_system(in);
  SurfaceData const* s = sys.surfaces.data();
  int32_t const n = sys.surface_count;
  Buf<double> row = sys.row(a.row);
  FieldData const* fields = a.null_fields ? nullptr : sys.fields.data();

  switch (op) {
    case kLateralColor: {
      Buf<LateralColorPoint> points(a.capacity);
      LateralColorResult r{};
      int32_t const status = nuvrix_compute_lateral_color(
          s, n, sys.table.data(), sys.wavelength_count, &sys.config, fields, sys.field_count,
          a.sample_count, a.max_field, points.data(), a.capacity, &r);
      if (status == 0 && (r.point_count < 0 || r.point_count > std::max(a.capacity, 0)))
        std::abort();
      break;
    }
    case kFieldCurvatureDistortion: {
      Buf<FieldCurvatureDistortionPoint> points(a.point_count + 1LL);
      FieldCurvatureDistortionResult r{};
      keep(nuvrix_compute_field_curvature_distortion(s, n, row.data(), &sys.config, fields,
                                                     sys.field_count, a.point_count, a.max_field,
                                                     points.data(), &r));
      break;
    }
    case kRelativeIllumination: {
      Buf<RelativeIlluminationPoint> points(a.point_count + 1LL);
      RelativeIlluminationResult r{};
      keep(nuvrix_compute_relative_illumination(s, n, row.data(), &sys.config, a.point_count,
                                                a.max_field, a.unused_count, points.data(), &r));
      break;
    }
  }
  return 0;
}
