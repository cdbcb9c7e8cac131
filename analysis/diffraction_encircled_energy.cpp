// Encircled energy of a diffraction PSF: a radial histogram about the PSF's
// centroid, ten bins a pixel, summed outward and read between bins.
#include <math.h>

#include "analysis/encircled_energy.hpp"

namespace nuvrix {
namespace {

constexpr int kMaxRadialBins = 10240;  // histogram on the stack, doubles
constexpr double kBinsPerPixel = 10.0;

struct PixelPoint {
  double x, y;  // column and row, in pixels
};

// Centroid of the PSF in pixels, sum(j p) / sum(p) and sum(i p) / sum(p);
// the array centre N / 2 when the sum is not positive.
PixelPoint psf_centroid(double const* psf, int n) {
  double sum = 0.0, sum_j = 0.0, sum_i = 0.0;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      double const p = psf[static_cast<long>(i) * n + j];
      sum += p;
      sum_j += j * p;
      sum_i += i * p;
    }
  }
  if (!(sum > 0.0)) return PixelPoint{static_cast<double>(n / 2), static_cast<double>(n / 2)};
  return PixelPoint{sum_j / sum, sum_i / sum};
}

// Histogram of the positive pixels by their distance r from the centroid,
// bin trunc(10 r + 0.5); energy beyond the last of the nb bins is dropped.
void radial_histogram(double const* psf, int n, PixelPoint c, int nb, double* bins) {
  for (int k = 0; k < nb; ++k) bins[k] = 0.0;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      double const p = psf[static_cast<long>(i) * n + j];
      if (!(p > 0.0)) continue;
      double const dx = j - c.x, dy = i - c.y;
      double const bin = trunc(kBinsPerPixel * sqrt(dx * dx + dy * dy) + 0.5);
      if (bin < nb) bins[static_cast<int>(bin)] += p;
    }
  }
}

// The histogram becomes its running sum S, in place.
void running_sum(double* bins, int nb) {
  for (int k = 1; k < nb; ++k) bins[k] = bins[k - 1] + bins[k];
}

// Energy inside b bins: 0 at or below 0, 1 from the last bin on, else
// linear between S[k] and S[k + 1] over the total, at most 1.
double energy_at(double const* sums, int nb, double total, double b) {
  if (!(b > 0.0)) return 0.0;
  if (b >= nb - 1) return 1.0;
  int const k = static_cast<int>(trunc(b));
  double const t = b - k;
  double const next = k + 1 < nb ? sums[k + 1] : sums[k];
  double const e = ((1.0 - t) * sums[k] + t * next) / total;
  return e > 1.0 ? 1.0 : e;
}

}  // namespace

int compute_diffraction_encircled_energy(double const* psf, int grid_size, double pixel_pitch,
                                         double max_radius, int point_count,
                                         EncircledEnergyPoint* points,
                                         EncircledEnergyResultHeader* header) {
  int const n = grid_size;
  PixelPoint const c = psf_centroid(psf, n);
  header->center_x = (c.x - n / 2) * pixel_pitch;
  header->center_y = (c.y - n / 2) * pixel_pitch;
  double sums[kMaxRadialBins];
  int const nb = 10 * n < kMaxRadialBins ? 10 * n : kMaxRadialBins;
  radial_histogram(psf, n, c, nb, sums);
  running_sum(sums, nb);
  double const last = nb > 0 ? sums[nb - 1] : 0.0;
  double const total = last > 0.0 ? last : 1.0;
  for (int i = 0; i <= point_count; ++i) {
    double const r = i * max_radius / point_count;
    double const b = r / (1000.0 * pixel_pitch) * kBinsPerPixel;
    points[i].radius = r;
    points[i].energy = energy_at(sums, nb, total, b);
  }
  header->point_count = point_count + 1;
  return 0;
}

}  // namespace nuvrix
