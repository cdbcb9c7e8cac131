// Hosts of the spot and fan tests: a system with its index rows, weights,
// configuration and fields as a host fills them, and two systems whose
// spots and fans geometric optics gives in closed form.
#pragma once

#include <cmath>
#include <cstring>
#include <vector>

#include "api/nuvrix.h"
#include "tests/systems.hpp"

namespace nuvrix_test {

struct Host {
  System sys;
  std::vector<double> weights;  // one a wavelength; the rows repeat row 0 when missing
  SystemConfig cfg = {};
  std::vector<FieldData> fields;
  Host(System s, int waves, double epd, int stop, std::vector<double> angles)
      : sys(std::move(s)), weights(waves, 1.0) {
    cfg.aperture_value = epd;  // entrance pupil diameter
    cfg.stop_surface = stop;
    for (double a : angles) fields.push_back(FieldData{a, 0.0, 0.0});
    size_t const n = sys.surfaces.size();
    while (sys.indices.size() < waves * n) {
      sys.indices.insert(sys.indices.end(), sys.indices.begin(), sys.indices.begin() + n);
    }
  }
  SurfaceData const* s() const { return sys.surfaces.data(); }
  double const* rows() const { return sys.indices.data(); }
  int nf() const { return static_cast<int>(fields.size()); }
  int nw(int w) const { return w < 0 ? static_cast<int>(weights.size()) : w; }

  int spot(int field, int grid, int pattern, SpotDiagramResult* r, int waves = -1) const {
    return nuvrix_compute_spot_diagram(s(), sys.count(), rows(), weights.data(), nw(waves), &cfg,
                                       fields.data(), nf(), field, grid, pattern, r);
  }
  int spot_rays(int field, int grid, int pattern, SpotRayHit* hits, int cap,
                SpotDiagramResult* r) const {
    return nuvrix_compute_spot_diagram_with_rays(s(), sys.count(), rows(), weights.data(), nw(-1),
                                                 &cfg, fields.data(), nf(), field, grid, pattern,
                                                 hits, cap, r);
  }
  int transverse(int field, int points, RayFanPoint* t, RayFanPoint* sg, RayFanResultHeader* h,
                 int waves = -1) const {
    return nuvrix_compute_transverse_ray_fan(s(), sys.count(), rows(), nw(waves), &cfg,
                                             fields.data(), nf(), field, points, t, sg, h);
  }
  int pupil(int field, int points, PupilAberrationPoint* t, PupilAberrationPoint* sg,
            PupilAberrationResultHeader* h, int waves = -1) const {
    return nuvrix_compute_pupil_aberration_fan(s(), sys.count(), rows(), nw(waves), &cfg,
                                               fields.data(), nf(), field, points, t, sg, h);
  }
};

// An ideal lens of focal length f (the stop, pupil radius R) with the image
// plane dz behind its focus.  A ray of pupil point p R leaves with tangent
// t - p R / f and lands at -p R dz / f from the chief ray at every field:
// the spot is a disc of radius a = R dz / f.
constexpr double kF = 50.0, kDz = 2.0, kR = 5.0, kA = kR * kDz / kF;
inline Host defocused_lens(int waves = 1) {
  System s = ideal_thin_lens(kF);
  s.surfaces[1].thickness = kF + kDz;
  return Host(s, waves, 2 * kR, 1, {0.0, 5.0});
}

// A plane-parallel plate (the stop) of thickness t in a beam at 10 degrees,
// two index rows, 20 mm of air to the image: every ray lands its pupil
// point away from the chief ray, and the second row's rays are displaced in
// y by delta = t (tan theta'_2 - tan theta'_1), its lateral colour.
struct Plate {
  Host host;
  double delta;
};
inline Plate dispersive_plate() {
  double const t = 10.0, theta = 10.0 * M_PI / 180.0, n1 = 1.5168, n2 = 1.5224;
  System s = make_system({0, 0, 0, 0}, {1e10, t, 20.0, 0}, {1, n1, 1, 1});
  s.indices.insert(s.indices.end(), {1, n2, 1, 1});
  auto tan_inside = [&](double n) { return std::tan(std::asin(std::sin(theta) / n)); };
  return Plate{Host(s, 2, 2 * kR, 1, {10.0}), t * (tan_inside(n2) - tan_inside(n1))};
}

// Byte-wise equality, and an array filled with a marker pattern.
inline bool same_bytes(void const* a, void const* b, size_t n) {
  return std::memcmp(a, b, n) == 0;
}
template <typename T>
std::vector<T> marked(size_t count) {
  std::vector<T> v(count);
  std::memset(static_cast<void*>(v.data()), 0x5a, count * sizeof(T));
  return v;
}

}  // namespace nuvrix_test
