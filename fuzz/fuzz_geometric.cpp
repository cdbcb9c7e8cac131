// Geometric MTF (one wavelength, polychromatic, over field), geometric
// encircled energy, line and edge spread.
#include <cmath>

#include "fuzz/fuzz_args.hpp"

using namespace nuvrix_fuzz;

namespace {

// At most capacity points; with finite cutoffs also at most 101, the curve
// stopping at 100 cycles/mm (a cutoff that is not a number bounds nothing).
bool points_within_limits(GeometricMtfResult const& r, GeometricArgs const& a) {
  if (r.point_count < 0 || r.point_count > std::max(a.capacity, 0)) return false;
  bool const finite = std::isfinite(a.tangential_cutoff) && std::isfinite(a.sagittal_cutoff);
  return !finite || r.point_count <= 101;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  Reader in(data, size);
  uint8_t const op = in.u8() % kGeometricOpCount;
  GeometricArgs a;
  a.visit(in);
  System sys = read_system(in);
  SurfaceData const* s = sys.surfaces.data();
  int32_t const n = sys.surface_count;
  Buf<double> row = sys.row(a.row);
  int32_t const g = a.grid_size;  // 0 or a power of two
  Buf<double> real(squared(g)), imag(squared(g));

  switch (op) {
    case kGeometricMtf: {
      Buf<GeometricMtfPoint> points(a.capacity);
      GeometricMtfResult r{};
      int32_t const status = nuvrix_compute_geometric_mtf(
          s, n, row.data(), &sys.config, sys.fields.data(), sys.field_count, a.field_index,
          a.wavelength_index, a.samples, a.apply_diffraction, a.tangential_cutoff,
          a.sagittal_cutoff, real.data(), imag.data(), g, points.data(), a.capacity, &r);
      if (status == 0 && !points_within_limits(r, a)) std::abort();
      break;
    }
    case kGeometricMtfPolychromatic: {
      Buf<GeometricMtfPoint> points(a.capacity);
      GeometricMtfResult r{};
      int32_t const status = nuvrix_compute_geometric_mtf_polychromatic(
          s, n, sys.table.data(), a.null_wavelengths ? nullptr : sys.wavelengths.data(),
          a.null_weights ? nullptr : sys.weights.data(), sys.wavelength_count, &sys.config,
          sys.fields.data(), sys.field_count, a.field_index, a.samples, a.apply_diffraction,
          a.tangential_cutoff, a.sagittal_cutoff, real.data(), imag.data(), g, points.data(),
          a.capacity, &r);
      if (status == 0 && !points_within_limits(r, a)) std::abort();
      break;
    }
    case kGeometricMtfVsField: {
      Buf<double> frequencies = read_doubles(in, a.frequency_count);
      Buf<double> fractions = read_doubles(in, a.scan_field_count);
      Buf<MtfVsFieldPoint> points(product(a.frequency_count, a.scan_field_count));
      MtfVsFieldResult r{};
      keep(nuvrix_compute_geometric_mtf_vs_field(
          s, n, row.data(), &sys.config, a.null_fields ? nullptr : sys.fields.data(),
          a.unused_count, a.wavelength_index, a.samples, a.apply_diffraction, frequencies.data(),
          a.frequency_count, fractions.data(), a.scan_field_count, a.field_scale, real.data(),
          imag.data(), g, points.data(), &r));
      break;
    }
    case kGeometricEncircledEnergy: {
      Buf<SpotRayHit> hits = read_hits(in, a.hit_count);
      Buf<EncircledEnergyPoint> points(a.point_count + 1LL);
      EncircledEnergyResultHeader h{};
      keep(nuvrix_compute_geometric_encircled_energy(hits.data(), a.hit_count, a.center_x,
                                                     a.center_y, a.max_radius, a.point_count,
                                                     points.data(), &h));
      break;
    }
    case kLineEdgeSpread: {
      Buf<SpotRayHit> hits = read_hits(in, a.hit_count);
      Buf<LineEdgeSpreadPoint> xs(a.point_count + 1LL), ys(a.point_count + 1LL);
      LineEdgeSpreadResultHeader h{};
      keep(nuvrix_compute_geometric_line_edge_spread(hits.data(), a.hit_count, a.center_x,
                                                     a.center_y, a.half_width, a.point_count,
                                                     xs.data(), ys.data(), &h));
      break;
    }
  }
  return 0;
}
