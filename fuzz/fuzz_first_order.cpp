// First-order exports: focal quantities, paraxial solve, pupils, stop,
// semi-diameter solve, Seidel sums and chromatic focal shift.
#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kFirstOrderOpCount;
  FirstOrderArgs a;
  a.visit(in);
  System sys = read_system(in);
  SurfaceData const* s = sys.surfaces.data();
  int32_t const n = sys.surface_count;
  Buf<double> row = sys.row(a.row);

  switch (op) {
    case kFocalLength:
      keep(nuvrix_focal_length(s, n, row.data()));
      break;
    case kEfl:
      keep(nuvrix_calculate_efl(s, n, row.data()));
      break;
    case kBfl:
      keep(nuvrix_calculate_bfl(s, n, row.data()));
      break;
    case kParaxialSolve: {
      // The row arrays, when given, hold 256 rows each.
      Buf<ParaxialRayState> marginal(256), chief(256);
      ParaxialSolveResult r = nuvrix_paraxial_solve(
          s, n, row.data(), &sys.config, sys.fields.data(), sys.field_count,
          a.marginal_rows ? marginal.data() : nullptr, a.chief_rows ? chief.data() : nullptr);
      keep(r);
      break;
    }
    case kEntrancePupil:
      keep(nuvrix_entrance_pupil_position(s, n, row.data(), a.stop_surface));
      break;
    case kExitPupil:
      keep(nuvrix_compute_exit_pupil_position(s, n, row.data(), &sys.config, sys.fields.data(),
                                              sys.field_count));
      break;
    case kPupilRadius:
      keep(nuvrix_compute_pupil_radius(s, n, row.data(), &sys.config));
      break;
    case kStopRadius:
      keep(nuvrix_compute_stop_radius(s, n, row.data(), &sys.config));
      break;
    case kSolveSemiDiameters: {
      Buf<SurfaceData> surfaces = sys.surfaces_copy();
      nuvrix_solve_semi_diameters(surfaces.data(), n, sys.table.data(),
                                  a.null_wavelengths ? nullptr : sys.wavelengths.data(),
                                  sys.wavelength_count, &sys.config, sys.fields.data(),
                                  sys.field_count);
      keep(surfaces[0]);
      break;
    }
    case kSeidel: {
      Buf<double> shorter = sys.row(a.short_index), longer = sys.row(a.long_index);
      Buf<SeidelSurfaceCoeffs> coeffs(a.capacity);
      SeidelResult r{};
      int32_t const status =
          nuvrix_compute_seidel(s, n, row.data(), a.short_row ? shorter.data() : nullptr,
                                a.long_row ? longer.data() : nullptr, &sys.config,
                                sys.fields.data(), sys.field_count, coeffs.data(), a.capacity, &r);
      // Never more records than the capacity allows.
      if (status == 0 && (r.count < 0 || (r.count > 0 && r.count > a.capacity))) std::abort();
      keep(r);
      break;
    }
    case kChromaticFocalShift: {
      // count index rows of n entries, count wavelengths, count records.
      Buf<ChromaticShiftPoint> points(sys.wavelength_count);
      ChromaticFocalShiftResult r{};
      keep(nuvrix_compute_chromatic_focal_shift(s, n, row.data(), sys.wavelengths.data(),
                                                sys.table.data(), sys.wavelength_count,
                                                points.data(), &r));
      break;
    }
  }
  return 0;
}
