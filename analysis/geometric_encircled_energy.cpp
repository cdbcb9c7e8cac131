// Encircled energy of ray hits: the fraction of hits within each radius of
// a given centre, all hits counting the same, from their sorted radii.
#include <math.h>

#include <algorithm>

#include "analysis/encircled_energy.hpp"

namespace nuvrix {
namespace {

constexpr int kMaxRadii = 65536;  // radii kept on the stack (512 KiB)

// Radii in micrometres, 1000 sqrt(dx^2 + dy^2), of the valid hits in their
// order, at most 65536.  Returns their number.
int collect_radii(SpotRayHit const* hits, int hit_count, double center_x, double center_y,
                  double* radii) {
  int n = 0;
  for (int k = 0; k < hit_count && n < kMaxRadii; ++k) {
    if (hits[k].valid == 0) continue;
    double const dx = hits[k].x - center_x, dy = hits[k].y - center_y;
    radii[n++] = 1000.0 * sqrt(dx * dx + dy * dy);
  }
  return n;
}

// Ascending order, in place; a radius that is not a number goes last, so
// that the order stays strict and no circle ever counts it.
void sort_radii(double* radii, int n) {
  std::sort(radii, radii + n, [](double a, double b) { return a < b || (a == a && b != b); });
}

}  // namespace

int compute_geometric_encircled_energy(SpotRayHit const* hits, int hit_count, double center_x,
                                       double center_y, double max_radius, int point_count,
                                       EncircledEnergyPoint* points,
                                       EncircledEnergyResultHeader* header) {
  header->point_count = point_count + 1;
  header->field_index = 0;
  header->wavelength_index = -1;
  header->center_x = center_x;
  header->center_y = center_y;
  if (hit_count < 1) {
    for (int i = 0; i <= point_count; ++i) points[i] = EncircledEnergyPoint{0.0, 0.0};
    return 0;
  }
  double radii[kMaxRadii];
  int const n = collect_radii(hits, hit_count, center_x, center_y, radii);
  sort_radii(radii, n);
  // One pass over the sorted radii: `inside` only grows with the circle.
  int inside = 0;
  for (int i = 0; i <= point_count; ++i) {
    double const r = i * max_radius / point_count;
    while (inside < n && radii[inside] <= r) ++inside;
    points[i].radius = r;
    points[i].energy = static_cast<double>(inside) / n;
  }
  return 0;
}

}  // namespace nuvrix
