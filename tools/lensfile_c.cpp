// The lens-file reader behind a C interface, for the Python face.
#include "tools/lensfile_c.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "tools/lens_file.hpp"
#include "tools/merit_function.hpp"
#include "tools/quality_setup.hpp"

struct NuvrixLensFile {
  lensfile::Lens lens;
  std::vector<MeritOperandDesc> operands;
  bool default_merit = false;
};

namespace {

void copy_error(std::string const& message, char* error, int32_t capacity) {
  if (error == nullptr || capacity < 1) return;
  size_t const n = std::min(message.size(), static_cast<size_t>(capacity - 1));
  std::memcpy(error, message.data(), n);
  error[n] = '\0';
}

// A system of records as the reader holds it; false for counts below 1 or
// a null array.
bool from_records(const SurfaceData* surfaces, int32_t n, const double* indices,
                  const double* wavelengths_um, int32_t wave_count, const SystemConfig* config,
                  const FieldData* fields, int32_t field_count, lensfile::Lens& lens) {
  if (surfaces == nullptr || indices == nullptr || wavelengths_um == nullptr ||
      config == nullptr || fields == nullptr || n < 1 || wave_count < 1 || field_count < 1) {
    return false;
  }
  lens.surfaces.assign(surfaces, surfaces + n);
  lens.indices.assign(indices, indices + static_cast<long>(n) * wave_count);
  lens.wavelengths_um.assign(wavelengths_um, wavelengths_um + wave_count);
  lens.fields.assign(fields, fields + field_count);
  lens.config = *config;
  lens.media.assign(n, "");
  return true;
}

template <typename T>
void copy_out(std::vector<T> const& from, T* to) {
  if (to != nullptr && !from.empty()) std::memcpy(to, from.data(), sizeof(T) * from.size());
}

}  // namespace

extern "C" {

int32_t nuvrix_lensfile_load(const char* path, NuvrixLensFile** out, char* error,
                             int32_t capacity) {
  if (out == nullptr) return -1;
  *out = nullptr;
  auto* file = new NuvrixLensFile;
  std::string message;
  bool const loaded = path != nullptr
                          ? lensfile::load_lens_file(path, file->lens, message)
                          : lensfile::build_lens(lensfile::cooke_triplet(), file->lens, message);
  if (!loaded) {
    copy_error(message, error, capacity);
    delete file;
    return -1;
  }
  file->default_merit = file->lens.merit.empty();
  file->operands =
      file->default_merit ? lensfile::default_merit_function(file->lens) : file->lens.merit;
  *out = file;
  return 0;
}

void nuvrix_lensfile_counts(const NuvrixLensFile* f, int32_t* counts) {
  if (f == nullptr || counts == nullptr) return;
  lensfile::Lens const& L = f->lens;
  counts[0] = L.count();
  counts[1] = static_cast<int32_t>(L.wavelengths_um.size());
  counts[2] = static_cast<int32_t>(L.fields.size());
  counts[3] = static_cast<int32_t>(f->operands.size());
  counts[4] = static_cast<int32_t>(L.variables.size());
  counts[5] = static_cast<int32_t>(L.pickups.size());
  counts[6] = f->default_merit ? 1 : 0;
}

const char* nuvrix_lensfile_name(const NuvrixLensFile* f) {
  return f != nullptr ? f->lens.name.c_str() : "";
}

void nuvrix_lensfile_copy(const NuvrixLensFile* f, SurfaceData* surfaces, double* indices,
                          double* wavelengths_um, FieldData* fields, SystemConfig* config,
                          MeritOperandDesc* operands, MeritVariableDesc* variables,
                          MeritPickupDesc* pickups) {
  if (f == nullptr) return;
  lensfile::Lens const& L = f->lens;
  copy_out(L.surfaces, surfaces);
  copy_out(L.indices, indices);
  copy_out(L.wavelengths_um, wavelengths_um);
  copy_out(L.fields, fields);
  if (config != nullptr) *config = L.config;
  copy_out(f->operands, operands);
  copy_out(L.variables, variables);
  copy_out(L.pickups, pickups);
}

void nuvrix_lensfile_free(NuvrixLensFile* f) { delete f; }

int32_t nuvrix_lensfile_read_blocks(const char* text, const SurfaceData* surfaces, int32_t n,
                                    const double* indices, const double* wavelengths_um,
                                    int32_t wave_count, const SystemConfig* config,
                                    const FieldData* fields, int32_t field_count,
                                    NuvrixLensFile** out, char* error, int32_t capacity) {
  if (out == nullptr) return -1;
  *out = nullptr;
  auto* file = new NuvrixLensFile;
  std::string message = "a system needs surfaces, wavelengths and fields, and the blocks text";
  if (text == nullptr || !from_records(surfaces, n, indices, wavelengths_um, wave_count, config,
                                       fields, field_count, file->lens) ||
      !lensfile::read_blocks(text, file->lens, message)) {
    copy_error(message, error, capacity);
    delete file;
    return -1;
  }
  file->operands = file->lens.merit;
  file->default_merit = file->lens.merit_is_default;
  *out = file;
  return 0;
}

int32_t nuvrix_lensfile_quality(const SurfaceData* surfaces, int32_t n, const double* indices,
                                const double* wavelengths_um, int32_t wave_count,
                                const SystemConfig* config, const FieldData* fields,
                                int32_t field_count, double* out, char* error,
                                int32_t capacity) {
  lensfile::Lens lens;
  if (out == nullptr || !from_records(surfaces, n, indices, wavelengths_um, wave_count, config,
                                      fields, field_count, lens) ||
      config->primary_wavelength < 0 || config->primary_wavelength >= wave_count) {
    copy_error("a system needs surfaces, wavelengths, fields and a primary row", error, capacity);
    return 0;
  }
  lensfile::QualitySetup const q = lensfile::quality_setup(lens);
  out[0] = q.reference_radius, out[1] = q.f_number, out[2] = q.cutoff;
  if (!q.usable) copy_error(q.problem, error, capacity);
  return q.usable ? 1 : 0;
}

}  // extern "C"
