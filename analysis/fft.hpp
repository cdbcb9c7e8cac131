// The engine's own complex FFT and the pupil-function helpers that the
// diffraction analyses (PSF, FFT MTF) share.
//
// Complex data are two row-major arrays of doubles of the same square shape,
// one for the real and one for the imaginary parts.
#pragma once

namespace nuvrix {

// In-place radix-2 transform of n complex points.  Forward (inverse false)
// is unscaled with kernel exp(-i 2 pi k m / n); inverse uses exp(+i ...) and
// divides by n.  n below 1 does nothing; a size that is no power of two is
// run through the same loops (bits = floor(log2 n)) and gives no DFT.
void fft_1d(double* real, double* imag, int n, bool inverse);

// In-place transform of an n by n array: rows, transpose, rows, transpose back.
void fft_2d(double* real, double* imag, int n, bool inverse);

// Exchanges the quadrants of an n by n real array, moving element (0, 0) to
// (n / 2, n / 2).  Its own inverse for even n; odd n keeps its last row and
// column in place.
void fft_shift_2d(double* data, int n);

// Least-squares plane W ~ bx x + by y + b0 over the valid samples of a map.
struct PistonTiltPlane {
  double bx;
  double by;
  double b0;
  int count;  // valid samples (non-zero marks), counted even when the plane is zero
};

namespace detail {

// Sums over the samples of a plane fit: coordinates, their squares and
// product, the values and their moments with the coordinates.
struct PlaneSums {
  double x, y, xx, yy, xy, w, xw, yw;
  int count;
};

// Adds the sample (x, y, w) to the sums.
void add_plane_sample(PlaneSums& s, double x, double y, double w);

// The least-squares plane of the sums from their means and central
// moments: zero below three samples; zero slopes when the coordinate
// moments are singular (|det| not above 1e-30).
PistonTiltPlane plane_from_sums(PlaneSums const& s);

}  // namespace detail

// Piston and tilt of a wavefront map of grid_size^2 samples in the map's own
// pupil coordinates, x = (j - N/2) / h, y = (i - N/2 + 1) / h with
// h = (N - 1) / 2.  Fewer than three valid samples give the zero plane.
PistonTiltPlane fit_piston_tilt(double const* map, int const* mask, int grid_size);

// Writes the unit-amplitude pupil function exp(i 2 pi (W - plane)) of every
// valid map sample into the middle of the zeroed padded arrays of side
// 2 grid_size: sample (i, j) lands at row i + N/2, column j + N/2.  Parallel
// over map rows with the static split below.
void fill_pupil_phase(double const* map, int const* mask, int grid_size,
                      PistonTiltPlane const& plane, double* real, double* imag);

// The padded pupil function of a map, piston and tilt removed so that its
// PSF stays centred: fits the plane, zeroes both arrays of side 2 grid_size
// and fills the pupil phases into their middle.  Returns the plane, whose
// count is the number of valid samples.
PistonTiltPlane set_padded_pupil(double const* map, int const* mask, int grid_size,
                                 double* real, double* imag);

// Zeroes `count` doubles on the calling thread.
void zero_array(double* data, long count);

namespace detail {

// Contiguous share [begin, end) of `count` loop items for one thread of a
// team: one range per thread, the first count mod threads threads taking one
// item more.
struct StaticRange {
  long begin;
  long end;
};

StaticRange static_range(long count, int threads, int thread);

// The share of the calling thread of the current OpenMP team.
StaticRange team_range(long count);

// 2 pi, the phase of one wave.
constexpr double kTwoPi = 2.0 * 3.14159265358979323846;

}  // namespace detail
}  // namespace nuvrix
