// Spot diagrams (with and without the hits), transverse and pupil-aberration
// fans, OPD fan.
#include <cstdlib>

#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kSpotFanOpCount;
  SpotArgs spot;
  FanArgs fan;
  if (op == kSpotDiagram || op == kSpotDiagramWithRays) {
    spot.visit(in);
  } else {
    fan.visit(in);
  }
  System sys = read_system(in);
  SurfaceData const* s = sys.surfaces.data();
  int32_t const n = sys.surface_count;
  int32_t const wc = sys.wavelength_count;

  switch (op) {
    case kSpotDiagram: {
      SpotDiagramResult r{};
      keep(nuvrix_compute_spot_diagram(s, n, sys.table.data(), sys.weights.data(), wc, &sys.config,
                                       sys.fields.data(), sys.field_count, spot.field_index,
                                       spot.grid_size, spot.pattern, &r));
      break;
    }
    case kSpotDiagramWithRays: {
      Buf<SpotRayHit> hits(spot.hit_capacity);
      SpotDiagramResult r{};
      int32_t const status = nuvrix_compute_spot_diagram_with_rays(
          s, n, sys.table.data(), sys.weights.data(), wc, &sys.config, sys.fields.data(),
          sys.field_count, spot.field_index, spot.grid_size, spot.pattern, hits.data(),
          spot.hit_capacity, &r);
      // Every stored hit is a surviving ray of one of the wavelengths.
      if (status == 0) {
        long long const stored = std::min<long long>(r.ray_count, hits.size());
        for (long long i = 0; i < stored; ++i) {
          if (hits[i].valid != 1 || hits[i].wavelength_index < 0 || hits[i].wavelength_index >= wc)
            std::abort();
        }
      }
      break;
    }
    case kTransverseRayFan:
    case kPupilAberrationFan: {
      // point_count must be positive for these two.
      int32_t const pc = fan.point_count > 0 ? fan.point_count : 1 + std::abs(fan.point_count);
      long long const records = product(pc + 1LL, wc);
      if (op == kTransverseRayFan) {
        Buf<RayFanPoint> t(records), sg(records);
        RayFanResultHeader h{};
        keep(nuvrix_compute_transverse_ray_fan(s, n, sys.table.data(), wc, &sys.config,
                                               sys.fields.data(), sys.field_count, fan.field_index,
                                               pc, t.data(), sg.data(), &h));
      } else {
        Buf<PupilAberrationPoint> t(records), sg(records);
        PupilAberrationResultHeader h{};
        keep(nuvrix_compute_pupil_aberration_fan(s, n, sys.table.data(), wc, &sys.config,
                                                 sys.fields.data(), sys.field_count,
                                                 fan.field_index, pc, t.data(), sg.data(), &h));
      }
      break;
    }
    case kOpdFan: {
      long long const records = product(fan.point_count + 1LL, wc);
      Buf<OpdFanPoint> t(records), sg(records);
      OpdFanResultHeader h{};
      keep(nuvrix_compute_opd_fan(s, n, sys.table.data(), sys.wavelengths.data(), wc, &sys.config,
                                  sys.fields.data(), sys.field_count, fan.field_index,
                                  fan.point_count, fan.reference_radius, t.data(), sg.data(), &h));
      break;
    }
  }
  return 0;
}
