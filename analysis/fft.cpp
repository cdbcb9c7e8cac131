// Radix-2 decimation-in-time FFT, its two-dimensional form and quadrant
// shift; the piston/tilt plane of a wavefront map and the pupil-function
// fill shared by the PSF and the FFT MTF.
#include "analysis/fft.hpp"

#include <math.h>
#include <omp.h>

namespace nuvrix {
namespace {

// Number of times n can be halved down to 1: log2 n for a power of two,
// floor(log2 n) otherwise.
int halvings(int n) {
  int bits = 0;
  for (int m = n; m > 1; m >>= 1) ++bits;
  return bits;
}

// The low `bits` bits of i in reverse order.
int reverse_bits(int i, int bits) {
  int r = 0;
  for (int b = 0; b < bits; ++b) {
    r = (r << 1) | (i & 1);
    i >>= 1;
  }
  return r;
}

void swap_values(double& a, double& b) {
  double const t = a;
  a = b;
  b = t;
}

// Puts element i at its bit-reversed place, each pair exchanged once.
void bit_reverse_permute(double* real, double* imag, int n, int bits) {
  for (int i = 0; i < n; ++i) {
    int const r = reverse_bits(i, bits);
    if (r > i) {
      swap_values(real[i], real[r]);
      swap_values(imag[i], imag[r]);
    }
  }
}

// One stage of butterflies of span `len` (len / 2 apart).  The twiddle
// w = exp(i theta k) is a running product from (1, 0), advanced by
// (cos theta, sin theta) after each butterfly; one sincos per stage.  Only
// whole blocks are visited, so a size that is no power of two stays inside
// its arrays.
void butterfly_stage(double* real, double* imag, int n, int len, double sign) {
  double const theta = sign * detail::kTwoPi / len;
  double s = 0.0, c = 0.0;
  sincos(theta, &s, &c);
  int const half = len / 2;
  for (int start = 0; start + len <= n; start += len) {
    double wr = 1.0, wi = 0.0;
    for (int k = 0; k < half; ++k) {
      int const top = start + k, bottom = top + half;
      // Product of the twiddle and the lower half's element.
      double const tr = wr * real[bottom] - wi * imag[bottom];
      double const ti = wr * imag[bottom] + wi * real[bottom];
      real[bottom] = real[top] - tr;
      imag[bottom] = imag[top] - ti;
      real[top] = real[top] + tr;
      imag[top] = imag[top] + ti;
      double const next_r = wr * c - wi * s;
      wi = wr * s + wi * c;
      wr = next_r;
    }
  }
}

// In-place transpose of a square array.
void transpose(double* data, int n) {
  for (int r = 0; r < n; ++r) {
    for (int c = r + 1; c < n; ++c) swap_values(data[r * n + c], data[c * n + r]);
  }
}

void transform_rows(double* real, double* imag, int n, bool inverse) {
  for (int r = 0; r < n; ++r) fft_1d(real + r * n, imag + r * n, n, inverse);
}

// Sums of the plane fit over the valid samples of a map, in the map's
// pupil coordinates.
detail::PlaneSums accumulate_plane_sums(double const* map, int const* mask, int n) {
  detail::PlaneSums s = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0};
  double const h = (n - 1) / 2.0;
  int const half = n / 2;
  for (int i = 0; i < n; ++i) {
    double const y = (i - half + 1) / h;
    for (int j = 0; j < n; ++j) {
      if (mask[i * n + j] != 0) detail::add_plane_sample(s, (j - half) / h, y, map[i * n + j]);
    }
  }
  return s;
}

// Fills one padded row of the pupil function from map row i.
void fill_phase_row(double const* map, int const* mask, int n, int i, PistonTiltPlane const& plane,
                    double* real, double* imag) {
  double const h = (n - 1) / 2.0;
  int const half = n / 2;
  int const side = 2 * n;
  double const y = (i - half + 1) / h;
  long const row = static_cast<long>(i + half) * side;
  for (int j = 0; j < n; ++j) {
    if (mask[i * n + j] == 0) continue;
    double const x = (j - half) / h;
    double const phi = detail::kTwoPi * (map[i * n + j] - (plane.bx * x + plane.by * y + plane.b0));
    real[row + j + half] = cos(phi);
    imag[row + j + half] = sin(phi);
  }
}

}  // namespace

void fft_1d(double* real, double* imag, int n, bool inverse) {
  if (n < 1) return;
  int const bits = halvings(n);
  bit_reverse_permute(real, imag, n, bits);
  double const sign = inverse ? 1.0 : -1.0;
  for (int len = 2; len <= n; len <<= 1) butterfly_stage(real, imag, n, len, sign);
  if (!inverse) return;
  for (int k = 0; k < n; ++k) {
    real[k] = real[k] / n;
    imag[k] = imag[k] / n;
  }
}

void fft_2d(double* real, double* imag, int n, bool inverse) {
  if (n < 1) return;
  transform_rows(real, imag, n, inverse);
  if (n > 1) {
    transpose(real, n);
    transpose(imag, n);
  }
  transform_rows(real, imag, n, inverse);
  if (n > 1) {
    transpose(real, n);
    transpose(imag, n);
  }
}

void fft_shift_2d(double* data, int n) {
  if (n < 2) return;
  int const h = n / 2;
  for (int r = 0; r < h; ++r) {
    for (int c = 0; c < h; ++c) {
      swap_values(data[r * n + c], data[(r + h) * n + (c + h)]);
      swap_values(data[r * n + (c + h)], data[(r + h) * n + c]);
    }
  }
}

PistonTiltPlane fit_piston_tilt(double const* map, int const* mask, int grid_size) {
  return detail::plane_from_sums(accumulate_plane_sums(map, mask, grid_size));
}

PistonTiltPlane set_padded_pupil(double const* map, int const* mask, int grid_size,
                                 double* real, double* imag) {
  long const side = 2L * grid_size;
  PistonTiltPlane const plane = fit_piston_tilt(map, mask, grid_size);
  zero_array(real, side * side);
  zero_array(imag, side * side);
  fill_pupil_phase(map, mask, grid_size, plane, real, imag);
  return plane;
}

void fill_pupil_phase(double const* map, int const* mask, int grid_size,
                      PistonTiltPlane const& plane, double* real, double* imag) {
#pragma omp parallel
  {
    detail::StaticRange const rows = detail::team_range(grid_size);
    for (long i = rows.begin; i < rows.end; ++i) {
      fill_phase_row(map, mask, grid_size, static_cast<int>(i), plane, real, imag);
    }
  }
}

void zero_array(double* data, long count) {
  for (long k = 0; k < count; ++k) data[k] = 0.0;
}

namespace detail {

void add_plane_sample(PlaneSums& s, double x, double y, double w) {
  s.x += x;
  s.y += y;
  s.xx += x * x;
  s.yy += y * y;
  s.xy += x * y;
  s.w += w;
  s.xw += x * w;
  s.yw += y * w;
  ++s.count;
}

PistonTiltPlane plane_from_sums(PlaneSums const& s) {
  PistonTiltPlane p = {0.0, 0.0, 0.0, s.count};
  if (s.count < 3) return p;
  double const c = s.count;
  double const mx = s.x / c, my = s.y / c, mw = s.w / c;
  // Central second moments of the coordinates and their covariances with W.
  double const vx = s.xx / c - mx * mx;
  double const vy = s.yy / c - my * my;
  double const cxy = s.xy / c - mx * my;
  double const cxw = s.xw / c - mx * mw;
  double const cyw = s.yw / c - my * mw;
  double const det = vx * vy - cxy * cxy;
  if (fabs(det) > 1e-30) {
    p.bx = (vy * cxw - cyw * cxy) / det;
    p.by = (vx * cyw - cxw * cxy) / det;
  }
  p.b0 = mw - p.bx * mx - p.by * my;
  return p;
}

StaticRange static_range(long count, int threads, int thread) {
  long const base = count / threads, extra = count % threads;
  long const begin = thread * base + (thread < extra ? thread : extra);
  return {begin, begin + base + (thread < extra ? 1 : 0)};
}

StaticRange team_range(long count) {
  return static_range(count, omp_get_num_threads(), omp_get_thread_num());
}

}  // namespace detail
}  // namespace nuvrix
