// Identification exports, the ray traces and the aim at the stop.
#include <cstring>

#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  switch (in.u8() % kTraceOpCount) {
    case kVersion: {
      char const* v = nuvrix_version();
      if (v == nullptr || std::strcmp(v, "0.1.0") != 0) std::abort();
      break;
    }
    case kAbiInfo: {
      AbiArgs a;
      a.visit(in);
      if (a.null_out) {
        nuvrix_merit_abi_info(nullptr);
        break;
      }
      Buf<int32_t> out(12);
      nuvrix_merit_abi_info(out.data());
      // The first word is the report's own length; the sizes are the records'.
      if (out[0] != 12 || out[6] != static_cast<int32_t>(sizeof(SurfaceData)) ||
          out[7] != static_cast<int32_t>(sizeof(SystemConfig)) ||
          out[8] != static_cast<int32_t>(sizeof(FieldData)))
        std::abort();
      break;
    }
    case kBuildAnchor:
      if (nuvrix_build_anchor() != 0) std::abort();
      break;
    case kTraceRay:
    case kTraceRayFull: {
      bool const full = (data[0] % kTraceOpCount) == kTraceRayFull;
      TraceRayArgs a;
      a.visit(in);
      System sys = read_system(in);
      Buf<double> row = sys.row(a.row);
      RayTraceResult r;
      if (full) {
        Buf<RayState> states(256);
        r = nuvrix_trace_ray_full(sys.surfaces.data(), sys.surface_count, row.data(), states.data(),
                                  a.start_surface, a.last_surface, a.x, a.y, a.l, a.m, a.n,
                                  a.wavelength);
      } else {
        r = nuvrix_trace_ray(sys.surfaces.data(), sys.surface_count, row.data(), a.start_surface,
                             a.last_surface, a.x, a.y, a.l, a.m, a.n, a.wavelength);
      }
      keep(r);
      break;
    }
    case kTraceRays: {
      // Many rays: each the single trace's result, whatever the launches.
      TraceRayArgs a;
      a.visit(in);
      System sys = read_system(in);
      Buf<double> row = sys.row(a.row);
      int32_t count = 0;
      in.count(count, 16);
      Buf<double> launches(5 * (count > 0 ? count : 0) + 1);
      for (size_t k = 0; k < launches.size(); ++k) launches[k] = in.f64();
      Buf<RayTraceResult> many(count > 0 ? count : 1);
      if (nuvrix_trace_rays(sys.surfaces.data(), sys.surface_count, row.data(), a.start_surface,
                            a.last_surface, launches.data(), count, a.wavelength,
                            many.data()) != 0) {
        std::abort();
      }
      for (int32_t k = 0; k < count; ++k) {
        double const* u = launches.data() + 5 * k;
        RayTraceResult const one =
            nuvrix_trace_ray(sys.surfaces.data(), sys.surface_count, row.data(), a.start_surface,
                             a.last_surface, u[0], u[1], u[2], u[3], u[4], a.wavelength);
        if (std::memcmp(&one.y, &many[k].y, sizeof(double)) != 0 || one.valid != many[k].valid ||
            one.status != many[k].status) {
          std::abort();
        }
      }
      break;
    }
    case kTraceArbitraryRay: {
      ArbitraryRayArgs a;
      a.visit(in);
      System sys = read_system(in);
      Buf<double> row = sys.row(a.row);
      RayTraceResult r = nuvrix_trace_arbitrary_ray(
          sys.surfaces.data(), sys.surface_count, row.data(), &sys.config, a.aim_flag,
          a.last_surface, a.field_value, a.pupil_radius, a.px, a.py, a.wavelength,
          a.entrance_pupil_position, a.stop_radius);
      keep(r);
      break;
    }
    case kAimToStop: {
      AimArgs a;
      a.visit(in);
      System sys = read_system(in);
      Buf<double> row = sys.row(a.row);
      AimToStopResult r =
          nuvrix_aim_to_stop(sys.surfaces.data(), sys.surface_count, row.data(), a.stop_surface,
                             a.x, a.y, a.l, a.m, a.n_dir, a.px, a.py, a.stop_radius);
      keep(r);
      break;
    }
  }
  return 0;
}
