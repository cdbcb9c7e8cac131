// Wavefront maps for the diffraction tests, sampled on the grid of the
// wavefront map (pupil x = (j - N/2) / h, y = (i - N/2 + 1) / h with
// h = (N - 1) / 2, samples inside the unit circle valid), and direct
// oracles: the scalar diffraction-limited MTF of a circular pupil and the
// pupil autocorrelation summed sample by sample.
#pragma once

#include <cmath>
#include <complex>
#include <functional>
#include <vector>

namespace nuvrix_test {

struct PupilMap {
  int n = 0;
  std::vector<double> w;  // waves
  std::vector<int> mask;  // 1 inside the pupil
  int valid = 0;
};

inline double map_x(int j, int n) { return (j - n / 2) / ((n - 1) / 2.0); }
inline double map_y(int i, int n) { return (i - n / 2 + 1) / ((n - 1) / 2.0); }

// A circular pupil of n by n samples carrying the wavefront W(x, y) in waves.
inline PupilMap disc_map(int n, std::function<double(double, double)> const& wavefront) {
  PupilMap m;
  m.n = n;
  m.w.assign(static_cast<size_t>(n) * n, 0.0);
  m.mask.assign(static_cast<size_t>(n) * n, 0);
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      double const x = map_x(j, n), y = map_y(i, n);
      if (x * x + y * y > 1.0) continue;
      m.w[i * n + j] = wavefront(x, y);
      m.mask[i * n + j] = 1;
      ++m.valid;
    }
  }
  return m;
}

inline PupilMap perfect_disc(int n) {
  return disc_map(n, [](double, double) { return 0.0; });
}

// Diffraction-limited MTF of a uniformly filled circular pupil at the
// normalised frequency x = f / cutoff.
inline double diffraction_limited_mtf(double x) {
  if (x >= 1.0) return 0.0;
  return 2.0 / M_PI * (std::acos(x) - x * std::sqrt(1.0 - x * x));
}

// |OTF| at a shift of (dr, dc) pupil samples: the modulus of the pupil
// function's autocorrelation, sum of P(i, j) conj P(i + dr, j + dc), over
// the number of valid samples.  Piston and tilt do not change it.
inline double direct_otf_modulus(PupilMap const& m, int dr, int dc) {
  std::complex<double> sum = 0.0;
  int const n = m.n;
  for (int i = 0; i < n; ++i) {
    for (int j = 0; j < n; ++j) {
      int const i2 = i + dr, j2 = j + dc;
      if (i2 < 0 || i2 >= n || j2 < 0 || j2 >= n) continue;
      if (m.mask[i * n + j] == 0 || m.mask[i2 * n + j2] == 0) continue;
      double const phase = 2.0 * M_PI * (m.w[i * n + j] - m.w[i2 * n + j2]);
      sum += std::polar(1.0, phase);
    }
  }
  return std::abs(sum) / m.valid;
}

}  // namespace nuvrix_test
