// Model glass: a refractive index from (nd, vd, dPgF) at any wavelength, and
// the choice of the index of a medium during a trace.
#pragma once

#include "api/types.hpp"

namespace nuvrix {

// Index of the model glass at `wavelength` nanometres.  The relative partial
// dispersion of the normal line, shifted by dpgf, fixes the four
// coefficients of a cubic in the inverse wavelength; the cubic is scaled by
// the mean dispersion (nd - 1) / vd.  A vd below 1e-12 in magnitude means a
// glass without dispersion, and nd is returned as it stands.
template <typename T>
NUVRIX_HD T model_index(double wavelength, T const& nd, T const& vd, T const& dpgf) {
  if (fabs(detail::val(vd)) < 1e-12) return nd;
  double const v = 1.0 / (wavelength / 1000.0);
  T const P = 0.643640694 - 0.001680893 * vd + dpgf;
  T const c0 = 1.177526148 - 6.11873892 * P;
  T const c1 = -8.932045225 + 18.27315722 * P;
  T const c2 = 7.910159645 - 14.55275321 * P;
  T const c3 = -1.803211179 + 3.483851069 * P;
  double const v2 = v * v;
  double const v3 = v2 * v;
  T const d = fma(c3, T(v3), fma(c2, T(v2), fma(c1, T(v), c0)));
  return nd + ((nd - 1.0) / vd) * d;
}

namespace detail {

// Index of the medium behind surface i at `wavelength` nanometres: 1.0
// outside the array, the model glass where it is set and the wavelength is
// positive, otherwise element i of the index row.
// The model glass of surface s at `wavelength` nanometres, out of line: the
// trace meets it far less often than an index from the row.
NUVRIX_HD_RARE double rt_model_glass_index(SurfaceData const& s, double wavelength) {
  return model_index<double>(wavelength, s.model_nd, s.model_vd, s.model_dpgf);
}

NUVRIX_HD double rt_medium_index(SurfaceData const* surfaces, int surface_count,
                                 double const* indices, int i, double wavelength) {
  if (i < 0 || i >= surface_count) return 1.0;
  SurfaceData const& s = surfaces[i];
  if (s.model_glass != 0 && wavelength > 0.0) return rt_model_glass_index(s, wavelength);
  return indices[i];
}

}  // namespace detail
}  // namespace nuvrix
