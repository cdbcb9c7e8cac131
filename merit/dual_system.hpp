// The system as the analytic Jacobian sees it: the plain records for
// everything that carries no derivative (types, mirrors, apertures), and
// arrays of dual numbers for every parameter that a variable can reach.
// Slots 0 to 7 carry the variables of the current pass, slots 8 and 9 the
// two launch coordinates of an aimed ray.
#pragma once

#include "api/types.hpp"
#include "merit/dual.hpp"

namespace nuvrix {

using JDual = Dual<10>;           // the dual number of the analytic Jacobian
constexpr int kPassVariables = 8;  // variables carried by one pass
constexpr int kAimSlotX = 8;       // slot of the first launch coordinate of an aimed ray
constexpr int kAimSlotY = 9;       // slot of the second

// U is the scalar of the index rows: double when they are constant, JDual
// when model-glass variables make them depend on the variables.
template <typename U>
struct DualSystem {
  SurfaceData const* surfaces;  // the working copy: plain fields
  int n;
  JDual const* curvatures;
  JDual const* thicknesses;
  JDual const* conics;
  JDual const* focal_lengths;
  JDual const (*coefficients)[8];
  JDual const* model_nd;
  JDual const* model_vd;
  JDual const* model_dpgf;
  JDual const* semi_diameters;  // with the derivative of the automatic solve
  U const* index_table;         // wave_count rows of n
  int wave_count;
  JDual pupil_radius;             // entrance pupil radius, with slots
  JDual entrance_pupil_position;  // from surface 1, primary row, with slots (or plain)
};

}  // namespace nuvrix
