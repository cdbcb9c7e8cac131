/* The lens-file reader of the nuvrix tool as a small C library
 * (libnuvrix_lensfile), so that the Python face reads the same JSON lens
 * files with the same rules, through one reader.  Records are the engine's
 * (nuvrix.h). */
#ifndef NUVRIX_LENSFILE_C_H
#define NUVRIX_LENSFILE_C_H

#include "nuvrix.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct NuvrixLensFile NuvrixLensFile;

/* Reads the lens file at path (null: the built-in Cooke triplet).  On
 * success *out holds the lens and 0 is returned; otherwise -1, with a
 * one-line message in error (capacity bytes, always terminated). */
int32_t nuvrix_lensfile_load(const char* path, NuvrixLensFile** out, char* error,
                             int32_t capacity);

/* counts[0 .. 5]: surfaces, wavelengths, fields, operands, variables,
 * pickups.  The operands are the file's merit block, or the report's
 * default merit function when the file has none; counts[6] is 1 when they
 * are the default. */
void nuvrix_lensfile_counts(const NuvrixLensFile* lens, int32_t* counts);

/* The lens's name. */
const char* nuvrix_lensfile_name(const NuvrixLensFile* lens);

/* Copies the records into arrays of the sizes that the counts give
 * (indices: wavelengths rows of surfaces). */
void nuvrix_lensfile_copy(const NuvrixLensFile* lens, SurfaceData* surfaces, double* indices,
                          double* wavelengths_um, FieldData* fields, SystemConfig* config,
                          MeritOperandDesc* operands, MeritVariableDesc* variables,
                          MeritPickupDesc* pickups);

void nuvrix_lensfile_free(NuvrixLensFile* lens);

/* Reads the "merit", "variables" and "pickups" blocks of the JSON object
 * text (any of them, no other key) with the lens file's rules, for the
 * system of the records given (n surfaces, wave_count rows of n indices,
 * field_count fields).  On success *out holds that system with the blocks
 * (counts[6] 1 when the merit block asked for the default merit function;
 * a block absent from text reads as empty) and 0 is returned; otherwise -1,
 * with a one-line message in error. */
int32_t nuvrix_lensfile_read_blocks(const char* text, const SurfaceData* surfaces, int32_t n,
                                    const double* indices, const double* wavelengths_um,
                                    int32_t wave_count, const SystemConfig* config,
                                    const FieldData* fields, int32_t field_count,
                                    NuvrixLensFile** out, char* error, int32_t capacity);

/* The report's set-up of the diffraction analyses for a system of records:
 * out[0] the reference sphere's radius (mm), out[1] the working F-number,
 * out[2] the cutoff 1 / (lambda F) at the primary wavelength (cycles/mm),
 * all at the primary wavelength.  Returns 1 when they could be formed, else
 * 0 with a one-line reason in error. */
int32_t nuvrix_lensfile_quality(const SurfaceData* surfaces, int32_t n, const double* indices,
                                const double* wavelengths_um, int32_t wave_count,
                                const SystemConfig* config, const FieldData* fields,
                                int32_t field_count, double* out, char* error,
                                int32_t capacity);

#ifdef __cplusplus
}
#endif

#endif
