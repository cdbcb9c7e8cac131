// Line and edge spread of ray hits: histograms of the hits' x and y about
// a centre, over a window of +-half_width micrometres.  The line spread is
// the histogram over its largest bin, the edge spread its running sum over
// its total.
#include <math.h>

#include "analysis/encircled_energy.hpp"

namespace nuvrix {
namespace {

constexpr int kMaxProfileBins = 2048;  // bins of each histogram on the stack

// Adds a hit at offset d (mm) from the centre to bin trunc((1000 d +
// half_width) / bin + 0.5) when that is one of the nb bins.  The truncation
// takes values up to a bin and a half below the window's lower end into
// bin 0; others outside are dropped.
void add_hit(double* counts, int nb, double d, double half_width, double bin) {
  double const a = trunc((d * 1000.0 + half_width) / bin + 0.5);
  if (a >= 0.0 && a < nb) counts[static_cast<int>(a)] += 1.0;
}

// Records of one profile: position i bin - half_width, the bin over the
// largest bin, the running sum up to and including i over the sum; 0 where
// that divisor is 0.
void write_profile(double const* counts, int nb, double bin, double half_width,
                   LineEdgeSpreadPoint* points) {
  double peak = 0.0, sum = 0.0;
  for (int i = 0; i < nb; ++i) {
    if (counts[i] > peak) peak = counts[i];
    sum += counts[i];
  }
  double running = 0.0;
  for (int i = 0; i < nb; ++i) {
    running += counts[i];
    points[i].position = i * bin - half_width;
    points[i].line_spread = peak == 0.0 ? 0.0 : counts[i] / peak;
    points[i].edge_spread = sum == 0.0 ? 0.0 : running / sum;
  }
}

}  // namespace

int compute_geometric_line_edge_spread(SpotRayHit const* hits, int hit_count, double center_x,
                                       double center_y, double half_width, int point_count,
                                       LineEdgeSpreadPoint* x_points, LineEdgeSpreadPoint* y_points,
                                       LineEdgeSpreadResultHeader* header) {
  header->point_count = point_count + 1;
  header->center_x = center_x;
  header->center_y = center_y;
  int const nb = point_count + 1 < kMaxProfileBins ? point_count + 1 : kMaxProfileBins;
  double const bin = 2.0 * half_width / point_count;
  double x_counts[kMaxProfileBins];
  double y_counts[kMaxProfileBins];
  for (int i = 0; i < nb; ++i) {
    x_counts[i] = 0.0;
    y_counts[i] = 0.0;
  }
  for (int k = 0; k < hit_count; ++k) {
    if (hits[k].valid == 0) continue;
    add_hit(x_counts, nb, hits[k].x - center_x, half_width, bin);
    add_hit(y_counts, nb, hits[k].y - center_y, half_width, bin);
  }
  write_profile(x_counts, nb, bin, half_width, x_points);
  write_profile(y_counts, nb, bin, half_width, y_points);
  return 0;
}

}  // namespace nuvrix
