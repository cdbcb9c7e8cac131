// Launching real rays as a host does: chief rays that cross the stop on the
// axis, rim rays at the edge of the entrance pupil.
#pragma once

#include <string>

#include "tools/lens_file.hpp"

namespace lensfile {

// A ray's start in the frame of surface 0 (z = 0) and its direction cosines.
struct Launch {
  double x = 0.0, y = 0.0, l = 0.0, m = 0.0, n = 1.0;
};

// How rays leave the object.  For an object at infinity the pupil
// coordinate is the height on the vertex plane of surface 1; for a finite
// object it is the height on the entrance-pupil plane, at pupil_z from the
// object plane, which the rays from the object point are aimed at.
struct Aim {
  bool infinite_object = true;
  double object_distance = 0.0;  // thickness of surface 0
  double pupil_z = 0.0;          // finite object: entrance pupil from the object plane
  double epd = 0.0;              // entrance pupil diameter, mm
  double focal_length = 0.0;     // from a near-axis ray, reflections counted
  double wavelength_nm = 0.0;
};

// Works out the pupil and the aperture of a lens; false with a message.
bool set_up_aim(const Lens& lens, Aim& aim, std::string& error);

// Launch for a field value (angle or height, as the lens says) and a pupil
// coordinate.
Launch launch_ray(const Lens& lens, const Aim& aim, double field, double pupil);

// Pupil coordinate of the ray from this field that crosses the stop on the
// axis; false when no such ray is found.
bool find_chief(const Lens& lens, const Aim& aim, double field, double& pupil);

}  // namespace lensfile
