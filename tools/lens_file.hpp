// Lens prescriptions for the command-line report: a small JSON lens file,
// the built-in Cooke triplet, and the engine records filled from either as a
// host fills them.
#pragma once

#include <string>
#include <vector>

#include "api/nuvrix.h"

namespace lensfile {

// What lies behind a surface.
enum class Medium { kAir, kModelGlass, kIndexTable, kMirror };

// One surface as a designer writes it.
struct SurfaceRow {
  int type = NUVRIX_SURFACE_STANDARD;
  double curvature = 0.0;  // 1/mm, 0 for a plane
  double thickness = 0.0;  // mm to the next vertex; HUGE_VAL for infinity
  double conic = 0.0;
  Medium medium = Medium::kAir;
  double nd = 1.0, vd = 0.0, dpgf = 0.0;  // Medium::kModelGlass
  std::vector<double> index;              // Medium::kIndexTable, one per wavelength
  std::vector<double> coefficients;       // at most 8
  double focal_length = 0.0;              // paraxial lens
  double semi_diameter = 0.0;             // 0: no clipping
  int aperture_kind = 0;
};

// A whole prescription: object surface first, image surface last.
struct Prescription {
  std::string name;
  std::vector<double> wavelengths_um;
  int primary = 0;  // row of wavelengths_um
  int field_type = NUVRIX_FIELD_ANGLE;
  std::vector<FieldData> fields;
  int aperture_type = 0;  // 0 EPD, 1 F/#, 2 object-space NA
  double aperture_value = 0.0;
  int ray_aiming = 0;
  int stop_surface = 1;
  std::vector<SurfaceRow> rows;
};

// The engine's view of a prescription.
struct Lens {
  std::string name;
  std::vector<SurfaceData> surfaces;
  SystemConfig config = {};
  std::vector<FieldData> fields;
  std::vector<double> indices;  // row w starts at w * surfaces.size()
  std::vector<double> wavelengths_um;
  std::vector<std::string> media;       // short description of the medium behind each surface
  std::vector<MeritOperandDesc> merit;  // the lens file's merit function; empty: none given
  bool merit_is_default = false;         // the file asked for the default merit function
  std::vector<MeritVariableDesc> variables;  // what an optimisation may change
  std::vector<MeritPickupDesc> pickups;      // parameters tied to others: factor * source + offset

  int count() const { return static_cast<int>(surfaces.size()); }
  const double* row(int w) const {
    return indices.data() + static_cast<size_t>(w) * surfaces.size();
  }
  double index(int w, int surface) const { return row(w)[surface]; }
  double primary_nm() const { return wavelengths_um[config.primary_wavelength] * 1000.0; }
};

// Index of the model glass (nd, vd, dPgF) at a wavelength in nanometres.
double model_glass_index(double wavelength_nm, double nd, double vd, double dpgf);

// Fills the engine records; false with a message when the prescription is
// inconsistent.
bool build_lens(const Prescription& p, Lens& lens, std::string& error);

// Reads and builds a JSON lens file, with its merit function when the file
// has a "merit" block and its variables and pickups when it has those
// blocks; false with a one-line message.
bool load_lens_file(const std::string& path, Lens& lens, std::string& error);

// Reads the "merit", "variables" and "pickups" blocks of a JSON object (any
// of them; no other key) with the rules of the lens file, for the records
// that lens holds, into lens.  false with a one-line message on error.
bool read_blocks(const std::string& text, Lens& lens, std::string& error);

// The lens file's name of a variable kind ("curvature"), or nullptr for the
// kinds that stand for no parameter (5, 6) and kinds above 13.
const char* variable_kind_name(unsigned kind);

// The lens file's name of a pickup kind, or nullptr for the kinds that
// move nothing (2, 5) and kinds above 8.
const char* pickup_kind_name(unsigned kind);

// The physical value a variable stands for in a system: the parameter its
// kind names on its surface (or the y field of its field); 0 when the index
// is out of range.
double variable_value(const MeritVariableDesc& v, const std::vector<SurfaceData>& surfaces,
                      const std::vector<FieldData>& fields);

// Writes a physical value where the variable points; false when it points
// nowhere.
bool set_variable_value(const MeritVariableDesc& v, double value,
                        std::vector<SurfaceData>& surfaces, std::vector<FieldData>& fields);

// The classic Cooke triplet: EFL about 50 mm, EPD 10 mm, fields 0, 14, 20 deg.
Prescription cooke_triplet();

}  // namespace lensfile
