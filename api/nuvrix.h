/*
 * nuvrix.h - public C interface of libnuvrix_native.
 *
 * The host describes one sequential optical system as flat arrays of the
 * records below and calls the nuvrix_ exports.  Every record has its fields
 * in a fixed order with natural alignment; the sizes are pinned at compile
 * time and reported at run time by nuvrix_merit_abi_info(), so that a host
 * can check its own view of the layout before the first call.
 *
 * Conventions shared by every export:
 *  - lengths in mm, curvature in 1/mm, field angles in degrees;
 *  - an index table has one row per wavelength, element i of a row being the
 *    refractive index of the medium behind surface i;
 *  - a trace takes its wavelength in nanometres (0 or less: no model glass
 *    and no phase);
 *  - the caller owns every array; the engine keeps no pointer after a call;
 *  - failures are reported through status fields and return values only.
 */
#ifndef NUVRIX_H_
#define NUVRIX_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* System records                                                           */
/* ------------------------------------------------------------------------ */

/* Surface type codes.  Only 1, 2 and 4 are told apart; any other value is
 * traced as a standard conic surface. */
#define NUVRIX_SURFACE_STANDARD 0
#define NUVRIX_SURFACE_EVEN_ASPHERE 1
#define NUVRIX_SURFACE_PARAXIAL_LENS 2
#define NUVRIX_SURFACE_MATRIX 4

/* Field type: 0 angles in degrees, nonzero object heights in mm. */
typedef int32_t FieldType;
#define NUVRIX_FIELD_ANGLE 0
#define NUVRIX_FIELD_HEIGHT 1

/* Ray status codes of RayState.status / RayTraceResult.status. */
#define NUVRIX_RAY_OK 0
#define NUVRIX_RAY_TIR (-1)
#define NUVRIX_RAY_MISSED (-2)

/* One surface.  Surface 0 is the object, surface count - 1 the image. */
typedef struct SurfaceData {
  int32_t surface_reserved_head; /* not read */
  int32_t type;                  /* 0 conic, 1 even asphere, 2 thin lens, 4 ABCD */
  double curvature;              /* 1/R; |c| < 1e-15 is a plane */
  double thickness;              /* to the next vertex; |t| >= 1e10 or non-finite: infinite */
  double conic;                  /* K: 0 sphere, -1 paraboloid */
  double semi_diameter;          /* <= 0: none */
  int32_t aperture_kind;         /* 0 automatic, 1 fixed (clips), other: kept, no clip */
  double coefficients[8];        /* type 1: r^2 .. r^16 terms; type 4: A, B, C, D */
  int32_t surface_reserved_mid;  /* not read */
  int32_t is_mirror;             /* nonzero: reflects */
  double aperture_radius;        /* > 0: hard limit on the ray height */
  double aperture_radius_alt;    /* > 0 and aperture_radius not: hard limit instead */
  double aperture_override;      /* > 0: semi_diameter does not clip */
  int32_t is_glass;              /* nonzero: glass behind (boundary operands only) */
  double aperture_percent;       /* scale of a solved semi-diameter; 100 neutral */
  int32_t model_glass;           /* nonzero: index behind follows the model glass */
  double model_nd;               /* model glass index at the d line */
  double model_vd;               /* model glass Abbe number */
  double model_dpgf;             /* model glass partial-dispersion deviation */
  double focal_length;           /* type 2: focal length; 0 or non-finite: no power */
} SurfaceData;

/* What is common to the whole system. */
typedef struct SystemConfig {
  FieldType field_type;         /* 0 angles (deg), nonzero heights (mm) */
  int32_t aperture_type;        /* 0 EPD, 1 image-space F/#, other object-space NA */
  double aperture_value;        /* see aperture_type */
  int32_t ray_aiming;           /* 0 off, 1 and 2 aiming modes */
  int32_t stop_surface;         /* index of the aperture stop */
  int32_t config_reserved;      /* not read */
  int32_t config_reserved_tail; /* not read */
  int32_t primary_wavelength;   /* row of the index table; out of range: row 0 */
  int32_t afocal_image;         /* nonzero: image at infinity */
  int32_t penalize_failed_rays; /* nonzero: failed rays take the merit penalty */
  int32_t telecentric_object;   /* nonzero: entrance pupil at 1e10 */
} SystemConfig;

/* One field point. */
typedef struct FieldData {
  double field_y;        /* angle (deg) or height (mm) along y */
  double field_reserved; /* not read */
  double field_x;        /* field along x (merit function only) */
} FieldData;

/* State of a ray at one surface, in that surface's local frame. */
typedef struct RayState {
  double x, y, z;       /* position, mm */
  double l, m, n;       /* direction cosines after the surface acted */
  double nx, ny, nz;    /* unit surface normal, nz < 0 */
  double sag_path;      /* running sum of vertex-plane-to-surface distances */
  int32_t status;       /* 0 ok, -1 TIR, -2 missed or clipped */
} RayState;

/* Result of a trace: the last state reached, then the trace's totals. */
typedef struct RayTraceResult {
  double x, y, z;
  double l, m, n;
  double nx, ny, nz;
  double sag_path;
  int32_t status;
  double opl;             /* optical path from the launch point, mm */
  double phase_waves;     /* the same in waves; 0 without a wavelength */
  int32_t valid;          /* 1 when the last surface was reached */
  int32_t states_written; /* history records meant to be stored */
  int32_t failed_surface; /* -1 when the ray did not fail */
  double violation;       /* 0 ok; 1 miss; r/limit - 1 clipped; TIR margin */
} RayTraceResult;

/* ------------------------------------------------------------------------ */
/* First-order records                                                      */
/* ------------------------------------------------------------------------ */

/* One row of a paraxial trace: row i is the state after surface i + 1. */
typedef struct ParaxialRayState {
  double y;  /* height at the surface */
  double u;  /* slope after the surface */
  double nu; /* reduced slope: the numerator of the refraction step */
} ParaxialRayState;

/* First-order description of a system.  Values that cannot be formed are 0. */
typedef struct ParaxialSolveResult {
  double efl;                     /* effective focal length (0 when afocal) */
  double bfl;                     /* back focal distance */
  double reserved;                /* never written: 0 */
  double entrance_pupil_position; /* from surface 1 */
  double exit_pupil_position;     /* from the last surface */
  double entrance_pupil_diameter; /* twice the marginal launch height */
  double exit_pupil_diameter;
  double total_length;            /* sum of the thicknesses of surfaces 1 .. n - 2 */
  double image_distance;          /* the same value as bfl */
} ParaxialSolveResult;

/* Third-order (Seidel) sums of one surface. */
typedef struct SeidelSurfaceCoeffs {
  int32_t surface;
  double s1, s2, s3, s4, s5; /* spherical, coma, astigmatism, Petzval, distortion */
  double c1, c2;             /* axial and lateral colour */
} SeidelSurfaceCoeffs;

/* Records written and the totals over them. */
typedef struct SeidelResult {
  int32_t count;
  double s1, s2, s3, s4, s5;
  double c1, c2;
} SeidelResult;

/* Back focal distance of one wavelength relative to the reference. */
typedef struct ChromaticShiftPoint {
  double wavelength;
  double shift;
} ChromaticShiftPoint;

typedef struct ChromaticFocalShiftResult {
  int32_t count;
  double max_shift;
} ChromaticFocalShiftResult;

/* An aimed crossing point on the tangent plane of surface 1. */
typedef struct AimToStopResult {
  double x, y;
  int32_t converged; /* 1 when the point can be used */
} AimToStopResult;

/* ------------------------------------------------------------------------ */
/* Spot diagrams and ray fans                                               */
/* ------------------------------------------------------------------------ */

/* One stored ray hit of a spot diagram. */
typedef struct SpotRayHit {
  double x;                 /* image-surface x, mm */
  double y;                 /* image-surface y, mm */
  int32_t wavelength_index; /* index of the wavelength in the caller's list */
  int32_t valid;            /* always 1: only surviving rays are stored */
} SpotRayHit;

/* Spot statistics of one field point over all wavelengths.  The radii are
 * measured from the chief ray of the primary wavelength and weighted by the
 * wavelength weights; the centroid is the plain mean of all rays. */
typedef struct SpotDiagramResult {
  double rms_radius; /* root of the weighted mean squared distance from the chief ray */
  double rms_x;      /* the same for the x differences alone */
  double rms_y;      /* the same for the y differences alone */
  double geo_radius; /* largest distance of any ray from the chief ray */
  double chief_x;    /* chief ray on the image surface, primary wavelength */
  double chief_y;
  double centroid_x; /* unweighted mean of all rays of all wavelengths */
  double centroid_y;
  int32_t ray_count;   /* surviving rays, all wavelengths together */
  int32_t field_index; /* the field asked for */
} SpotDiagramResult;

/* One sample of a transverse ray fan. */
typedef struct RayFanPoint {
  double pupil_coordinate;  /* normalised pupil coordinate, -1 to 1 */
  double value;             /* transverse aberration, mm; 0 when not valid */
  int32_t wavelength_index;
  int32_t valid;            /* 1 when the ray survived */
} RayFanPoint;

typedef struct RayFanResultHeader {
  int32_t field_index;
  double max_abs_value;     /* largest |value| over both fans and all wavelengths; 0 if none */
  int32_t tangential_count; /* tangential records written */
  int32_t sagittal_count;   /* sagittal records written */
} RayFanResultHeader;

/* One sample of a pupil-aberration fan. */
typedef struct PupilAberrationPoint {
  double pupil_coordinate;  /* normalised pupil coordinate, -1 to 1 */
  double value;             /* miss at the stop, percent of the stop radius; 0 when not valid */
  int32_t wavelength_index;
  int32_t valid;            /* 1 when the ray reached the stop */
} PupilAberrationPoint;

typedef struct PupilAberrationResultHeader {
  int32_t field_index;
  double max_abs_value;
  int32_t tangential_count;
  int32_t sagittal_count;
} PupilAberrationResultHeader;

/* ------------------------------------------------------------------------ */
/* OPD fan and wavefront map                                                */
/* ------------------------------------------------------------------------ */

/* One sample of an OPD fan.  The record of sample i at wavelength w stands
 * at index i + (point_count + 1) * w of its array. */
typedef struct OpdFanPoint {
  double pupil_coordinate;  /* normalised pupil coordinate, -1 to 1 */
  double value;             /* OPD in waves; 0 for a failed ray */
  int32_t wavelength_index; /* index of the wavelength */
  int32_t valid;            /* 1 when the ray survived, else 0 */
} OpdFanPoint;

/* Summary of an OPD fan. */
typedef struct OpdFanResultHeader {
  int32_t field_index;
  double max_abs_value;     /* largest |OPD| over both fans, waves; 0 if none */
  int32_t tangential_count; /* tangential samples visited */
  int32_t sagittal_count;   /* sagittal samples visited */
} OpdFanResultHeader;

/* Summary of a wavefront map (the map itself is two caller-owned arrays of
 * grid_size^2 entries: values in waves and validity marks). */
typedef struct WavefrontResult {
  int32_t grid_size;
  double peak_to_valley; /* waves; 0 with no valid sample */
  double rms;            /* standard deviation about the mean, waves */
  int32_t field_index;
  int32_t wavelength_index; /* always -1 */
} WavefrontResult;

/* ------------------------------------------------------------------------ */
/* FFT, PSF and FFT MTF                                                     */
/* ------------------------------------------------------------------------ */

/* Diffraction PSF of one field point at one wavelength.  The PSF itself is
 * a caller-owned array of grid_size^2 doubles, normalised to a maximum of 1,
 * with the unaberrated peak at (grid_size / 2, grid_size / 2). */
typedef struct FftPsfResult {
  int32_t grid_size;  /* side of the PSF array: twice the map's grid_size */
  double peak;        /* largest squared modulus before normalisation */
  double strehl;      /* peak / (valid samples)^2; 0 with no valid sample */
  double pixel_pitch; /* PSF sample spacing on the image, mm */
  int32_t field_index;
  int32_t reserved;   /* 0 */
} FftPsfResult;

/* One frequency of a diffraction MTF curve. */
typedef struct FftMtfPoint {
  double frequency;  /* cycles/mm */
  double tangential; /* 0 .. 1 */
  double sagittal;   /* 0 .. 1 */
} FftMtfPoint;

typedef struct FftMtfResult {
  int32_t field_index;
  int32_t wavelength_index; /* always -1 */
  int32_t point_count;      /* points written */
  double max_frequency;     /* the larger cutoff, cycles/mm */
} FftMtfResult;

/* MTF at one normalised field and one frequency of a scan. */
typedef struct MtfVsFieldPoint {
  double field; /* normalised field value asked for */
  double tangential;
  double sagittal;
} MtfVsFieldPoint;

/* Records of a scan stand at q * field_count + f (frequency q, field f). */
typedef struct MtfVsFieldResult {
  int32_t field_count;
  int32_t frequency_count;
} MtfVsFieldResult;

/* ------------------------------------------------------------------------ */
/* Geometric MTF, encircled energy, line and edge spread                    */
/* ------------------------------------------------------------------------ */

/* One frequency of a geometric MTF curve. */
typedef struct GeometricMtfPoint {
  double frequency;  /* cycles/mm */
  double tangential; /* 0 .. 1 */
  double sagittal;   /* 0 .. 1 */
} GeometricMtfPoint;

typedef struct GeometricMtfResult {
  int32_t field_index;
  int32_t wavelength_index; /* copied from the call; -1 when polychromatic */
  int32_t point_count;      /* points written */
  double max_frequency;     /* the larger cutoff, cycles/mm */
} GeometricMtfResult;

/* Encircled energy at one radius. */
typedef struct EncircledEnergyPoint {
  double radius; /* micrometres */
  double energy; /* fraction 0 .. 1 */
} EncircledEnergyPoint;

typedef struct EncircledEnergyResultHeader {
  int32_t point_count;      /* records: the requested count plus 1 */
  int32_t field_index;      /* geometric: 0; diffraction: left to the caller */
  int32_t wavelength_index; /* geometric: -1; diffraction: left to the caller */
  double center_x;          /* centre of the circles, mm (see each export) */
  double center_y;
} EncircledEnergyResultHeader;

/* Line and edge spread at one position of a profile. */
typedef struct LineEdgeSpreadPoint {
  double position;    /* micrometres from the centre */
  double line_spread; /* 0 .. 1, largest bin 1 */
  double edge_spread; /* 0 .. 1, running fraction of the kept hits */
} LineEdgeSpreadPoint;

typedef struct LineEdgeSpreadResultHeader {
  int32_t point_count; /* the requested count plus 1, not limited */
  double center_x;     /* mm */
  double center_y;
} LineEdgeSpreadResultHeader;

/* ------------------------------------------------------------------------ */
/* Zernike decomposition                                                    */
/* ------------------------------------------------------------------------ */

/* Least-squares fit of up to 37 Zernike terms (Noll's order, each of mean
 * square 1 over the unit disc) to a wavefront map. */
typedef struct ZernikeResult {
  int32_t term_count;      /* terms fitted: the request, at most 37 */
  double coefficients[37]; /* term j at j - 1, waves; 0 beyond term_count */
  double wavefront_rms;    /* standard deviation of the fitted samples, waves */
  double wavefront_pv;     /* largest minus smallest fitted sample, waves */
  double residual_rms;     /* root mean square of the fit's residual, waves */
  int32_t field_index;     /* the field asked for */
} ZernikeResult;

/* ------------------------------------------------------------------------ */
/* Field analyses                                                           */
/* ------------------------------------------------------------------------ */

/* Chief-ray height of one wavelength against the primary one at a field. */
typedef struct LateralColorPoint {
  double field;             /* field value of the sample */
  double shift;             /* y of this wavelength minus y of the primary, mm */
  int32_t wavelength_index; /* row of the index table */
} LateralColorPoint;

typedef struct LateralColorResult {
  int32_t point_count;  /* records written */
  double max_abs_shift; /* largest |shift|, mm */
} LateralColorResult;

/* Field curvature and distortion at one field. */
typedef struct FieldCurvatureDistortionPoint {
  double field;              /* field value of the sample */
  double tangential_focus;   /* along the chief ray from the image surface, mm */
  double sagittal_focus;     /* the same for the sagittal focus, mm */
  double distortion_percent; /* (real - paraxial) / paraxial, percent */
  double real_height;        /* chief-ray y on the image surface, mm */
  double paraxial_height;    /* EFL tan(field), mm */
} FieldCurvatureDistortionPoint;

typedef struct FieldCurvatureDistortionResult {
  int32_t point_count; /* records written */
} FieldCurvatureDistortionResult;

/* Illumination at one field relative to the axis. */
typedef struct RelativeIlluminationPoint {
  double field;        /* field value of the sample */
  double illumination; /* 0 to 1 */
} RelativeIlluminationPoint;

typedef struct RelativeIlluminationResult {
  int32_t point_count; /* records written */
} RelativeIlluminationResult;

/* ------------------------------------------------------------------------ */
/* Merit records                                                            */
/* ------------------------------------------------------------------------ */

typedef uint32_t MeritOperandType;   /* operand codes 0 .. 103 */
typedef uint32_t MeritTransform;     /* 0 none .. 8 absolute value */
typedef uint32_t MeritVariableKind;  /* variable kinds 0 .. 13 */
typedef uint32_t MeritPickupKind;    /* pickup kinds 0 .. 8 */

/* One merit operand. */
typedef struct MeritOperandDesc {
  MeritOperandType type;
  MeritTransform transform;
  int32_t centroid_tag;
  int32_t group_id;
  int32_t surface;
  int32_t wave;
  int32_t operand_a;
  int32_t operand_b;
  int32_t surface_first;
  int32_t surface_last;
  int32_t has_lower;
  int32_t has_upper;
  double hx;
  double hy;
  double px;
  double py;
  double target;
  double lower;
  double upper;
  double weight;
  double scale;
  int32_t reserved_int;
  int32_t sample_count;
  double reserved_double;
} MeritOperandDesc;

/* One optimisation variable. */
typedef struct MeritVariableDesc {
  MeritVariableKind kind;
  int32_t surface;
  int32_t field;
  int32_t reserved_a;
  int32_t reserved_b;
  int32_t coefficient;
  int32_t has_lower;
  int32_t has_upper;
  double lower;
  double upper;
} MeritVariableDesc;

/* One pickup: target = factor * source + offset. */
typedef struct MeritPickupDesc {
  int32_t target_surface;
  int32_t source_surface;
  MeritPickupKind kind;
  double factor;
  double offset;
} MeritPickupDesc;

/* Raw outcome of one operand: status 1 usable, 0 unsupported, -1 failed. */
typedef struct MeritResult {
  double value;
  int32_t status;
} MeritResult;

/* Options of a batched merit run. */
typedef struct MeritBatchedConfig {
  int32_t use_gpu;
  int32_t jacobian_mode;
  int32_t thread_count;
  int32_t want_jacobian;
  int32_t reserved[4];
} MeritBatchedConfig;

/* The condition that every trial of a differential evolution on the
 * device must meet (see nuvrix_gpu_run_de_generation): on each surface k
 * from first_surface to last_surface (clamped to 1 .. n - 2), the
 * thickness behind it, on the axis and at the edge (at the larger of the
 * base system's semi-diameters of surfaces k and k + 1, with the trial's
 * curvatures and conics), at least the minimum for glass (is_glass set on
 * surface k) or for air.  A minimum of 0 or less is not checked. */
typedef struct DeConditionDesc {
  double min_glass_center;
  double min_glass_edge;
  double min_air_center;
  double min_air_edge;
  int32_t first_surface;
  int32_t last_surface;
  int32_t reserved[2]; /* not read */
} DeConditionDesc;

/* One operand of the legacy evaluator (its own short list of codes, see
 * nuvrix_evaluate_merit_operands). */
typedef struct MeritOperand {
  int32_t type;    /* legacy code 0 .. 12 */
  int32_t surface; /* surface of codes 7, 8, 9 */
  int32_t wave;    /* index row; out of range: the primary wavelength */
  double reserved_a; /* not read */
  double field;    /* field value, normalised when the field list has a positive maximum */
  double px;       /* normalised pupil x */
  double py;       /* normalised pupil y */
  double reserved_b; /* not read */
} MeritOperand;

/* Layout pins: hosts depend on these sizes bit for bit. */
#ifdef __cplusplus
#define NUVRIX_STATIC_ASSERT static_assert
#else
#define NUVRIX_STATIC_ASSERT _Static_assert
#endif
NUVRIX_STATIC_ASSERT(sizeof(SurfaceData) == 200, "SurfaceData must be 200 bytes");
NUVRIX_STATIC_ASSERT(sizeof(SystemConfig) == 48, "SystemConfig must be 48 bytes");
NUVRIX_STATIC_ASSERT(sizeof(FieldData) == 24, "FieldData must be 24 bytes");
NUVRIX_STATIC_ASSERT(sizeof(RayState) == 88, "RayState must be 88 bytes");
NUVRIX_STATIC_ASSERT(sizeof(RayTraceResult) == 128, "RayTraceResult must be 128 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritOperandDesc) == 136, "MeritOperandDesc must be 136 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritVariableDesc) == 48, "MeritVariableDesc must be 48 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritResult) == 16, "MeritResult must be 16 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritPickupDesc) == 32, "MeritPickupDesc must be 32 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritOperand) == 56, "MeritOperand must be 56 bytes");
NUVRIX_STATIC_ASSERT(sizeof(MeritBatchedConfig) == 32, "MeritBatchedConfig must be 32 bytes");
NUVRIX_STATIC_ASSERT(sizeof(DeConditionDesc) == 48, "DeConditionDesc must be 48 bytes");

/* ------------------------------------------------------------------------ */
/* Identification                                                           */
/* ------------------------------------------------------------------------ */

/* The constant version string "0.1.0". */
const char* nuvrix_version(void);

/* Fills out[0..11] with the layout report: 12, 104 operand codes, 14
 * variable kinds, 9 pickup kinds, then the sizes of MeritOperandDesc,
 * MeritVariableDesc, SurfaceData, SystemConfig, FieldData, MeritResult,
 * MeritPickupDesc and MeritBatchedConfig.  A null pointer does nothing. */
void nuvrix_merit_abi_info(int32_t* out);

/* Returns 0.  Keeps the inline core of the library exported. */
int32_t nuvrix_build_anchor(void);

/* ------------------------------------------------------------------------ */
/* Real rays                                                                */
/* ------------------------------------------------------------------------ */

/* Traces one ray from z = 0 in the frame of surface start_surface - 1
 * through surfaces start_surface .. last_surface (last_surface < 1: the
 * image surface), apertures in force, no history.  The result's valid is 1
 * on success; otherwise status is -1 (total internal reflection) or -2
 * (missed or clipped), failed_surface names the surface and violation says
 * by how much.  start_surface must be at least 1. */
RayTraceResult nuvrix_trace_ray(const SurfaceData* surfaces, int32_t surface_count,
                                const double* indices, int32_t start_surface,
                                int32_t last_surface, double x, double y, double l, double m,
                                double n, double wavelength);

/* Many rays by the rules of nuvrix_trace_ray, one OpenMP team over them:
 * launch k is launches[5k .. 5k + 4] = (x, y, l, m, n) and its result
 * results[k], the same bits as nuvrix_trace_ray gives it alone.  Returns 0
 * (count 0 or less touches nothing), -1 for a null surfaces, indices,
 * launches or results with count above 0. */
int32_t nuvrix_trace_rays(const SurfaceData* surfaces, int32_t surface_count,
                          const double* indices, int32_t start_surface, int32_t last_surface,
                          const double* launches, int32_t count, double wavelength,
                          RayTraceResult* results);

/* As nuvrix_trace_ray, and also stores the ray's state at the launch and
 * after every surface into states, which must hold 256 records. */
RayTraceResult nuvrix_trace_ray_full(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, RayState* states,
                                     int32_t start_surface, int32_t last_surface, double x,
                                     double y, double l, double m, double n, double wavelength);

/* ------------------------------------------------------------------------ */
/* First order                                                              */
/* ------------------------------------------------------------------------ */

/* The plain focal length: -y/u at the last surface of a unit ray that came
 * in parallel.  Thin lenses keep their power; every other surface refracts
 * by its own curvature (mirror flags and matrix elements ignored), and only
 * a non-finite thickness is skipped.  1e15 when |u| < 1e-15 or n <= 1. */
double nuvrix_focal_length(const SurfaceData* surfaces, int32_t n, const double* indices);

/* Effective focal length -n0 / (u' n').  1e15 when afocal, 0 when n < 2. */
double nuvrix_calculate_efl(const SurfaceData* surfaces, int32_t n, const double* indices);

/* Back focal distance from the last surface in front of the image.  1e15
 * when the ray leaves parallel, 0 when n <= 2. */
double nuvrix_calculate_bfl(const SurfaceData* surfaces, int32_t n, const double* indices);

/* First-order data of the system; the row arrays (256 rows each) may be null.
 * Values that cannot be formed are 0 (an afocal system has efl 0). */
ParaxialSolveResult nuvrix_paraxial_solve(const SurfaceData* surfaces, int32_t n,
                                          const double* indices, const SystemConfig* config,
                                          const FieldData* fields, int32_t field_count,
                                          ParaxialRayState* marginal_rows,
                                          ParaxialRayState* chief_rows);

/* Entrance pupil position measured from surface 1; 0 when the stop is
 * surface 0 or 1, or the object space is telecentric. */
double nuvrix_entrance_pupil_position(const SurfaceData* surfaces, int32_t n,
                                      const double* indices, int32_t stop_surface);

/* Exit pupil position measured from the last surface, as the solve gives it. */
double nuvrix_compute_exit_pupil_position(const SurfaceData* surfaces, int32_t n,
                                          const double* indices, const SystemConfig* config,
                                          const FieldData* fields, int32_t field_count);

/* Third-order surface contributions of the system for display: one record
 * per contributing surface (up to capacity) and the totals.  The colour
 * sums need both indices_short and indices_long (either may be null).
 * Returns 0. */
int32_t nuvrix_compute_seidel(const SurfaceData* surfaces, int32_t n, const double* indices,
                              const double* indices_short, const double* indices_long,
                              const SystemConfig* config, const FieldData* fields,
                              int32_t field_count, SeidelSurfaceCoeffs* coefficients,
                              int32_t capacity, SeidelResult* result);

/* Back focal distance of each of count index rows relative to that of
 * reference_indices; points[k] gets wavelengths[k] and the shift.  Returns 0. */
int32_t nuvrix_compute_chromatic_focal_shift(const SurfaceData* surfaces, int32_t n,
                                             const double* reference_indices,
                                             const double* wavelengths, const double* index_table,
                                             int32_t count, ChromaticShiftPoint* points,
                                             ChromaticFocalShiftResult* result);

/* Aims a ray of direction (l, m, n_dir) at the point (px, py) * stop_radius
 * of the stop surface: returns the crossing point on the tangent plane of
 * surface 1, starting the search at (x, y), with no recovery ladder.
 * converged is 1 when the ray reaches the target within 1e-10 in each
 * coordinate, or within 1e-6 in distance. */
AimToStopResult nuvrix_aim_to_stop(const SurfaceData* surfaces, int32_t n, const double* indices,
                                   int32_t stop_surface, double x, double y, double l, double m,
                                   double n_dir, double px, double py, double stop_radius);

/* Traces the ray of field field_value (an angle in degrees or a height, as
 * config->field_type says) through the normalised pupil point (px, py) of an
 * entrance pupil of radius pupil_radius at entrance_pupil_position from
 * surface 1; aimed at the stop when aim_flag is nonzero and stop_radius is
 * positive.  last_surface below 1 is the image surface; wavelength in nm.
 * A failed aim gives valid 0 (and failed_surface -2 for the tangent-plane aim). */
RayTraceResult nuvrix_trace_arbitrary_ray(const SurfaceData* surfaces, int32_t surface_count,
                                          const double* indices, const SystemConfig* config,
                                          int32_t aim_flag, int32_t last_surface,
                                          double field_value, double pupil_radius, double px,
                                          double py, double wavelength,
                                          double entrance_pupil_position, double stop_radius);

/* Sets the semi_diameter of every automatic surface (aperture_kind 0) to the
 * largest height of eight edge rays of every field and of each of the
 * wavelength_count index rows, scaled by aperture_percent.  wavelengths is
 * not read.  Writes to surfaces; reports nothing. */
void nuvrix_solve_semi_diameters(SurfaceData* surfaces, int32_t n, const double* indices,
                                 const double* wavelengths, int32_t wavelength_count,
                                 const SystemConfig* config, const FieldData* fields,
                                 int32_t field_count);

/* The paraxial marginal launch height (entrance pupil radius) of the system. */
double nuvrix_compute_pupil_radius(const SurfaceData* surfaces, int32_t n, const double* indices,
                                   const SystemConfig* config);

/* The paraxial marginal ray height at the stop; 5.0 (aperture_value / 2 for
 * an entrance-pupil diameter) when the stop cannot be reached. */
double nuvrix_compute_stop_radius(const SurfaceData* surfaces, int32_t n, const double* indices,
                                  const SystemConfig* config);

/* Spot diagrams and ray fans: exports ------------------------------------ */

/* Spot statistics of fields[field_index] over wavelength_count index rows
 * (indices: wavelength_count rows of surface_count), radii weighted by
 * weights[w], centroid unweighted.  pattern 1: hexapolar grid of grid_size
 * rings (1 + 3 grid_size (grid_size + 1) rays a wavelength); any other value:
 * rectangular grid of grid_size cell centres across, those outside the unit
 * circle skipped.  Rays are traced unaimed unless config->ray_aiming is 1.
 * Returns 0 (result filled), -1 (field_index out of range), -2 (the primary
 * chief ray did not survive) or -3 (wavelength_count < 1, or no ray
 * survived); result is untouched on a non-zero return.  Runs in parallel:
 * the last digits may vary with the thread count. */
int32_t nuvrix_compute_spot_diagram(const SurfaceData* surfaces, int32_t surface_count,
                                    const double* indices, const double* weights,
                                    int32_t wavelength_count, const SystemConfig* config,
                                    const FieldData* fields, int32_t field_count,
                                    int32_t field_index, int32_t grid_size, int32_t pattern,
                                    SpotDiagramResult* result);

/* As nuvrix_compute_spot_diagram, on the calling thread in a fixed order
 * (reproducible bit for bit), and also storing the surviving rays into hits
 * while fewer than hit_capacity are stored (capacity 0 is legal): per
 * wavelength the central ray first, then ring by ring (row by row).  The
 * number stored is the smaller of result->ray_count and hit_capacity. */
int32_t nuvrix_compute_spot_diagram_with_rays(const SurfaceData* surfaces, int32_t surface_count,
                                              const double* indices, const double* weights,
                                              int32_t wavelength_count,
                                              const SystemConfig* config,
                                              const FieldData* fields, int32_t field_count,
                                              int32_t field_index, int32_t grid_size,
                                              int32_t pattern, SpotRayHit* hits,
                                              int32_t hit_capacity, SpotDiagramResult* result);

/* Tangential (pupil y) and sagittal (pupil x) transverse ray fans of
 * point_count + 1 samples p = 2 i / point_count - 1 at every wavelength: the
 * image-surface y (x) minus that of the primary chief ray.  Both arrays hold
 * (point_count + 1) * wavelength_count records, sample i of wavelength w at
 * i + (point_count + 1) w; point_count must be positive.  Returns 0, -1
 * (field_index out of range) or -2 (the chief ray failed: nothing written). */
int32_t nuvrix_compute_transverse_ray_fan(const SurfaceData* surfaces, int32_t surface_count,
                                          const double* indices, int32_t wavelength_count,
                                          const SystemConfig* config, const FieldData* fields,
                                          int32_t field_count, int32_t field_index,
                                          int32_t point_count, RayFanPoint* tangential,
                                          RayFanPoint* sagittal, RayFanResultHeader* header);

/* Pupil-aberration fans with the same sampling and layout: each unaimed ray
 * is traced to the stop, value = (R p - h) * 100 / R with R the paraxial
 * stop radius and h the ray's stop height (y tangential, x sagittal).
 * Returns 0, -1 (field_index out of range) or -3 (R below 1e-15). */
int32_t nuvrix_compute_pupil_aberration_fan(const SurfaceData* surfaces, int32_t surface_count,
                                            const double* indices, int32_t wavelength_count,
                                            const SystemConfig* config, const FieldData* fields,
                                            int32_t field_count, int32_t field_index,
                                            int32_t point_count, PupilAberrationPoint* tangential,
                                            PupilAberrationPoint* sagittal,
                                            PupilAberrationResultHeader* header);

/* OPD fan and wavefront map: exports ------------------------------------- */

/* OPD in waves (wavelengths in micrometres) of the field field_index over a
 * tangential (px 0, py p) and a sagittal (px p, py 0) fan of point_count + 1
 * samples p = 2 i / point_count - 1, at each of wavelength_count index rows
 * of indices, against a reference sphere of radius |reference_radius| about
 * the primary chief ray's image point (a plane and tilt removal when
 * config->afocal_image is set).  Each array holds (point_count + 1) *
 * wavelength_count records.  A wavelength whose chief ray fails is skipped:
 * its records stay untouched and are not counted.  Returns 0, -1 (field_index
 * out of range) or -2 (primary chief ray failed); header is untouched on a
 * non-zero status. */
int32_t nuvrix_compute_opd_fan(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* wavelengths,
                               int32_t wavelength_count, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t point_count,
                               double reference_radius, OpdFanPoint* tangential,
                               OpdFanPoint* sagittal, OpdFanResultHeader* header);

/* Wavefront map of the field field_index at wavelength (micrometres, index
 * row wave_indices) against a reference sphere of radius |reference_radius|
 * about the image point of the chief ray traced with primary_indices.  map
 * (waves) and mask (1 valid, 0 outside the pupil or failed) hold grid_size^2
 * entries, row-major; column j samples px = (j - N/2) / h and row i samples
 * py = (i - N/2 + 1) / h, with h = (N - 1) / 2.  Returns 0, -1 (field_index
 * out of range), -2 (primary chief ray failed) or -3 (chief ray at this
 * wavelength failed); map, mask and result are untouched on a non-zero
 * status. */
int32_t nuvrix_compute_wavefront_map(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* wave_indices, const double* primary_indices,
                                     double wavelength, const SystemConfig* config,
                                     const FieldData* fields, int32_t field_count,
                                     int32_t field_index, int32_t grid_size,
                                     double reference_radius, double* map, int32_t* mask,
                                     WavefrontResult* result);

/* FFT, PSF and FFT MTF: exports ------------------------------------------ */

/* Diffraction PSF of field field_index at wavelength (micrometres) from the
 * wavefront map that nuvrix_compute_wavefront_map makes with these
 * arguments (map and mask: grid_size^2 entries; grid_size a power of two,
 * as the radix-2 transform needs).  real, imag and psf hold
 * (2 grid_size)^2 doubles each; psf receives the normalised PSF.  Piston and
 * tilt are removed before the transform.  Returns 0 or the map's non-zero
 * status (then nothing is transformed and result is untouched). */
int32_t nuvrix_compute_fft_psf(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* primary_indices,
                               double wavelength, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t grid_size, double reference_radius,
                               double f_number, double* map, int32_t* mask, double* real,
                               double* imag, double* psf, FftPsfResult* result);

/* Diffraction MTF of one field at one wavelength, tangential (pupil y) and
 * sagittal (pupil x), at frequencies 0, frequency_step, ... up to the larger
 * cutoff (cycles/mm, supplied by the caller), at most capacity points.
 * Scratch as for the PSF.  Returns 0 or the map's non-zero status, or -1
 * when grid_size < 1 (result untouched). */
int32_t nuvrix_compute_fft_mtf(const SurfaceData* surfaces, int32_t surface_count,
                               const double* indices, const double* primary_indices,
                               double wavelength, const SystemConfig* config,
                               const FieldData* fields, int32_t field_count,
                               int32_t field_index, int32_t grid_size, double reference_radius,
                               double tangential_cutoff, double sagittal_cutoff,
                               double frequency_step, double* map, int32_t* mask, double* real,
                               double* imag, FftMtfPoint* points, int32_t capacity,
                               FftMtfResult* result);

/* Weighted polychromatic diffraction MTF: the complex OTFs of the
 * wavelengths (indices: one row per wavelength), rescaled to the shortest
 * wavelength, summed with normalised weights.  maps and masks hold
 * wavelength_count maps of grid_size^2 entries; real, imag, accum_real and
 * accum_imag (2 grid_size)^2 doubles each; f_number must not be 0.  Returns
 * -1 when wavelength_count < 1 or the weights sum below 1e-15, else the
 * first non-zero map status, -1 when grid_size < 1, or 0; result is
 * untouched on a non-zero status. */
int32_t nuvrix_compute_fft_mtf_polychromatic(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* primary_indices, const double* wavelengths, int32_t wavelength_count,
    const double* weights, const SystemConfig* config, const FieldData* fields,
    int32_t field_count, int32_t field_index, int32_t grid_size, double reference_radius,
    double tangential_cutoff, double sagittal_cutoff, double f_number, double frequency_step,
    double* maps, int32_t* masks, double* real, double* imag, double* accum_real,
    double* accum_imag, FftMtfPoint* points, int32_t capacity, FftMtfResult* result);

/* Diffraction MTF over field_count normalised fields (field_y =
 * field_fractions[f] * field_scale) at frequency_count frequencies, with the
 * cutoff 1 / (F lambda) of the on-axis working F-number.  fields and
 * unused_count are not read.  points holds frequency_count * field_count
 * records; a field whose map fails reads 0.  Returns 0. */
int32_t nuvrix_compute_fft_mtf_vs_field(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* primary_indices, double wavelength, const SystemConfig* config,
    const FieldData* fields, int32_t unused_count, int32_t grid_size, double reference_radius,
    const double* frequencies, int32_t frequency_count, const double* field_fractions,
    int32_t field_count, double field_scale, double* map, int32_t* mask, double* real,
    double* imag, MtfVsFieldPoint* points, MtfVsFieldResult* result);
/* Geometric MTF, encircled energy, line and edge spread: exports --------- */

/* Geometric MTF of field field_index from ray hits alone, at the wavelength
 * of the index row indices (also used for the launch and the chief ray):
 * samples pupil samples across on the cell-centred rectangular grid, hits
 * measured from the chief ray and binned into real (grid_size^2 doubles,
 * grid_size a power of two) at a pitch that makes the spot's larger extent
 * span 128 / 1.5 pixels.  imag is scratch of the same size.  Frequencies 0,
 * 1, 2 ... cycles/mm, at most 101 (the curve stops at 100) and at most
 * capacity points; a direction reads 0 beyond its own cutoff, and a non-zero
 * apply_diffraction multiplies it by the diffraction-limited curve of that
 * cutoff.  wavelength_index is only copied into the result.  Returns 0, -1
 * (field_index out of range, or grid_size < 1), -2 (chief ray failed) or -3 (at most 3 rays
 * survived); result is untouched on a non-zero status. */
int32_t nuvrix_compute_geometric_mtf(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, const SystemConfig* config,
                                     const FieldData* fields, int32_t field_count,
                                     int32_t field_index, int32_t wavelength_index,
                                     int32_t samples, int32_t apply_diffraction,
                                     double tangential_cutoff, double sagittal_cutoff,
                                     double* real, double* imag, int32_t grid_size,
                                     GeometricMtfPoint* points, int32_t capacity,
                                     GeometricMtfResult* result);

/* The same over every wavelength (indices: one row per wavelength; launch
 * set and chief ray at the primary wavelength).  Every ray of every
 * wavelength counts the same: wavelengths and weights are not read.
 * wavelength_index is -1 in the result.  Returns as above, with -3 also for
 * wavelength_count below 1. */
int32_t nuvrix_compute_geometric_mtf_polychromatic(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const double* wavelengths, const double* weights, int32_t wavelength_count,
    const SystemConfig* config, const FieldData* fields, int32_t field_count,
    int32_t field_index, int32_t samples, int32_t apply_diffraction, double tangential_cutoff,
    double sagittal_cutoff, double* real, double* imag, int32_t grid_size,
    GeometricMtfPoint* points, int32_t capacity, GeometricMtfResult* result);

/* Geometric MTF over field_count normalised fields (field_y =
 * field_fractions[f] * field_scale) at frequency_count frequencies: each
 * frequency reads the nearest point of the field's curve at cutoffs of 500
 * cycles/mm, which stops at 100 cycles/mm.  fields and unused_count are not
 * read.  points holds frequency_count * field_count records, frequency q of
 * field f at q * field_count + f; a failed field reads 0.  Returns 0. */
int32_t nuvrix_compute_geometric_mtf_vs_field(
    const SurfaceData* surfaces, int32_t surface_count, const double* indices,
    const SystemConfig* config, const FieldData* fields, int32_t unused_count,
    int32_t wavelength_index, int32_t samples, int32_t apply_diffraction,
    const double* frequencies, int32_t frequency_count, const double* field_fractions,
    int32_t field_count, double field_scale, double* real, double* imag, int32_t grid_size,
    MtfVsFieldPoint* points, MtfVsFieldResult* result);

/* Encircled energy of a diffraction PSF of grid_size x grid_size pixels of
 * pixel_pitch mm (as nuvrix_compute_fft_psf leaves it), in circles about
 * its centroid, at point_count + 1 radii i max_radius / point_count
 * (micrometres): a radial histogram of ten bins a pixel, at most 10240,
 * read linearly between bins.  header receives point_count + 1 and, in
 * center_x and center_y, the centroid's offset from the array centre in mm;
 * its field_index and wavelength_index are left to the caller.  Returns 0. */
int32_t nuvrix_compute_diffraction_encircled_energy(const double* psf, int32_t grid_size,
                                                    double pixel_pitch, double max_radius,
                                                    int32_t point_count,
                                                    EncircledEnergyPoint* points,
                                                    EncircledEnergyResultHeader* header);

/* Encircled energy of ray hits (x, y in mm, e.g. from
 * nuvrix_compute_spot_diagram_with_rays) in circles about (center_x,
 * center_y) mm, at point_count + 1 radii i max_radius / point_count
 * (micrometres): the fraction of the valid hits, at most the first 65536,
 * within each radius; all hits count the same.  With hit_count below 1
 * every radius and energy is 0; hits none of which is valid give energies
 * that are not a number.  header: point_count + 1, field_index 0,
 * wavelength_index -1, the centre.  Returns 0. */
int32_t nuvrix_compute_geometric_encircled_energy(const SpotRayHit* hits, int32_t hit_count,
                                                  double center_x, double center_y,
                                                  double max_radius, int32_t point_count,
                                                  EncircledEnergyPoint* points,
                                                  EncircledEnergyResultHeader* header);

/* Line and edge spread of the valid ray hits along x (x_points) and y
 * (y_points) about (center_x, center_y) mm: histograms of point_count + 1
 * bins of 2 half_width / point_count micrometres, bin i centred at
 * i bin - half_width; line spread over the largest bin, edge spread the
 * running fraction of the hits kept.  At most 2048 records are written to
 * each array although header.point_count is point_count + 1 unlimited; keep
 * point_count below 2048.  Returns 0. */
int32_t nuvrix_compute_geometric_line_edge_spread(const SpotRayHit* hits, int32_t hit_count,
                                                  double center_x, double center_y,
                                                  double half_width, int32_t point_count,
                                                  LineEdgeSpreadPoint* x_points,
                                                  LineEdgeSpreadPoint* y_points,
                                                  LineEdgeSpreadResultHeader* header);

/* Zernike decomposition: exports ----------------------------------------- */

/* Computes the wavefront map of field field_index at `wavelength`
 * (micrometres, index row `indices`; reference from the chief ray at
 * primary_indices) into the caller's map and mask (grid_size^2 entries
 * each) and fits min(term_count, 37) Zernike terms to the samples on the
 * disc inscribed in the grid.  Returns the map's status (-1 bad field, -2 or
 * -3 failed chief ray) with result untouched; otherwise 0, or -1 when fewer
 * samples than terms were valid (coefficients 0, map statistics filled).
 * Singular normal equations give 0 with every coefficient 0. */
int32_t nuvrix_compute_zernike_standard(const SurfaceData* surfaces, int32_t surface_count,
                                        const double* indices, const double* primary_indices,
                                        double wavelength, const SystemConfig* config,
                                        const FieldData* fields, int32_t field_count,
                                        int32_t field_index, int32_t grid_size,
                                        double reference_radius, int32_t term_count,
                                        double* map, int32_t* mask, ZernikeResult* result);

/* Field analyses: exports ------------------------------------------------ */

/* Lateral colour at fields i * max_field / sample_count, i = 1 ..
 * sample_count: for every wavelength other than the primary, the chief-ray
 * height minus the primary one, at most capacity records.  indices holds
 * wavelength_count rows; fields is not read.  Returns 0, or -1 when
 * sample_count < 1 or max_field is not positive (result untouched). */
int32_t nuvrix_compute_lateral_color(const SurfaceData* surfaces, int32_t surface_count,
                                     const double* indices, int32_t wavelength_count,
                                     const SystemConfig* config, const FieldData* fields,
                                     int32_t field_count, int32_t sample_count, double max_field,
                                     LateralColorPoint* points, int32_t capacity,
                                     LateralColorResult* result);

/* Field curvature and distortion at point_count + 1 fields from 0 to
 * max_field, for one index row; points must hold point_count + 1 records.
 * fields is not read.  Returns 0. */
int32_t nuvrix_compute_field_curvature_distortion(const SurfaceData* surfaces,
                                                  int32_t surface_count, const double* indices,
                                                  const SystemConfig* config,
                                                  const FieldData* fields, int32_t field_count,
                                                  int32_t point_count, double max_field,
                                                  FieldCurvatureDistortionPoint* points,
                                                  FieldCurvatureDistortionResult* result);

/* Relative illumination (F_0 / F)^2, capped at 1, from the working F-number
 * of the vignetted pupil at point_count + 1 fields from 0 to max_field, for
 * one index row; points must hold point_count + 1 records.  unused_count is
 * not read.  Returns 0. */
int32_t nuvrix_compute_relative_illumination(const SurfaceData* surfaces, int32_t surface_count,
                                             const double* indices, const SystemConfig* config,
                                             int32_t point_count, double max_field,
                                             int32_t unused_count,
                                             RelativeIlluminationPoint* points,
                                             RelativeIlluminationResult* result);

/* ------------------------------------------------------------------------ */
/* Merit function                                                           */
/* ------------------------------------------------------------------------ */

/* Evaluates operand_count operands (codes 0 .. 103) of one system:
 * index_table holds wave_count rows of n indices, wavelengths the
 * wave_count wavelengths in micrometres.  results (one record an operand,
 * rewritten in place: raw values, then composites, centroid, piston and
 * tilt corrections), residuals (room for 2 operand_count doubles: one slot
 * for each operand of non-zero weight that is supported, then one for each
 * ray group), residual_count and merit (the weighted root mean square of
 * the residuals) may each be null; without results no residual is formed.
 * A failed ray takes a penalty of 1e6 (1 + surfaces left x miss) times the
 * root of its weight.  Returns the number of operands of non-zero weight
 * that are unsupported (a code without evaluator, or no index row). */
int32_t nuvrix_evaluate_merit(const SurfaceData* surfaces, int32_t n, const double* index_table,
                              const double* wavelengths, int32_t wave_count,
                              const SystemConfig* config, const FieldData* fields,
                              int32_t field_count, const MeritOperandDesc* operands,
                              int32_t operand_count, MeritResult* results, double* residuals,
                              int32_t* residual_count, double* merit);

/* The residuals of nuvrix_evaluate_merit and their derivatives with respect
 * to the host's unbounded variables (kinds 0 .. 13; the physical value of a
 * bounded variable is lower + (upper - lower) / (1 + exp(-x)), of a one-sided
 * one lower + exp(x) or upper - exp(-x)).  The caller's surfaces are never
 * written: pickups and the automatic semi-diameters are applied to a copy.
 *   jacobian_mode 0: finite differences (forward; central for kinds 7 and 8),
 *     the variables split statically over thread_count threads when
 *     parallel is set and thread_count > 1; the result does not depend on
 *     the thread count.
 *   jacobian_mode 1: forward-mode dual numbers, eight variables a pass, on
 *     the calling thread; only a defined set of operands, transforms, aim
 *     modes and variable kinds is accepted (others return -2 and nothing is
 *     differentiated; mode 0 then works).
 * Buffers: work_surfaces (n records a thread), work_fields (field_count a
 * thread), thread_results (operand_count a thread), thread_residuals
 * (2 operand_count, or 1 for an empty list, a thread); results, residuals,
 * residual_count and merit as nuvrix_evaluate_merit; jacobian row-major,
 * element (r, v) at r * variable_count + v, one row a residual slot.
 * sd_scratch, sd_rows, sd_scratch_a and sd_scratch_b must be non-null in
 * mode 1 (the analytic path keeps its work on its own stack and reads or
 * writes none of the five; a batch shares them between its threads);
 * sd_scratch_c may be null.
 * Returns 0; the positive unsupported count of nuvrix_evaluate_merit (no
 * derivative formed); -2 for a mode other than 0 or 1, a missing buffer or
 * anything outside the analytic set; -3 when a variable of kind 5 is present
 * (checked first).  With no variables, jacobian is not touched.  On an error
 * return the contents of jacobian are undefined. */
int32_t nuvrix_evaluate_merit_and_jacobian(
    const SurfaceData* surfaces, int32_t n, const double* index_table, const double* wavelengths,
    int32_t wave_count, const SystemConfig* config, const FieldData* fields, int32_t field_count,
    const MeritOperandDesc* operands, int32_t operand_count, const MeritVariableDesc* variables,
    int32_t variable_count, const MeritPickupDesc* pickups, int32_t pickup_count,
    int32_t jacobian_mode, int32_t parallel, int32_t thread_count, MeritResult* results,
    double* residuals, SurfaceData* work_surfaces, FieldData* work_fields,
    MeritResult* thread_results, double* thread_residuals, double* jacobian,
    int32_t* residual_count, double* merit, double* sd_scratch, int32_t* sd_rows,
    double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c);

/* Bytes of scratch for nuvrix_evaluate_merit_batched: the larger of the
 * CPU's size (for each candidate two copies of the surfaces and two of the
 * fields, each step rounded up to 16 bytes) and the size of the mixed CPU
 * and device run.  0 when candidate_count, n or field_count is below 1.
 * The last two arguments are not read. */
long nuvrix_batched_scratch_size(int32_t candidate_count, int32_t n, int32_t field_count,
                                 int32_t operand_count, int32_t variable_count, int32_t unused_a,
                                 int32_t unused_b);

/* The merit of candidate_count candidates of one system in one call.
 * candidate_x holds a row of variable_count unbounded values a candidate
 * (the transform of nuvrix_evaluate_merit_and_jacobian makes each physical
 * and writes it into the candidate's copy).  Outputs a candidate: a row of
 * residuals (2 operand_count slots, or 1 for an empty list), with
 * want_jacobian (its lowest bit) a block of jacobians of that row length
 * times variable_count (row-major as nuvrix_evaluate_merit_and_jacobian's),
 * a block of operand_count results (results may be null), and its merit;
 * residual_count gets candidate 0's count.  Each candidate equals
 * nuvrix_evaluate_merit (values) or nuvrix_evaluate_merit_and_jacobian
 * with config.jacobian_mode, a team of one (Jacobians) called alone on its
 * system, bit for bit, at any thread count.
 *   CPU (use_gpu 0): one team of thread_count threads (0 or negative: the
 *     runtime's maximum) takes the candidates one at a time; each works in
 *     its own part of scratch (16-byte aligned by the caller; at least the
 *     CPU size of nuvrix_batched_scratch_size).  A failed candidate does
 *     not stop the others: the returned status is the first non-zero one,
 *     except that a negative status replaces a positive one.  The buffers
 *     that scratch does not hold (a result block when results is null, and
 *     the finite differences' own blocks) stand on each thread's stack, so
 *     a list of more than 2048 operands that needs them returns -2.
 *   Mixed (use_gpu 1): the CPU evaluates every candidate's values as
 *     above (on copies on each thread's stack) and the rows of the
 *     operands that stay with it (the whole list where a composite could
 *     read a device operand), and finds the first order, the aims of the
 *     device's rays and which pupil sample set each automatic
 *     semi-diameter that a bound reads; then the device's Jacobian kernels
 *     differentiate EFFECTIVE_FOCAL_LENGTH, RAY_X and RAY_Y, TRANSVERSE_X
 *     and _Y, TRANSVERSE_X_CHIEF and _Y_CHIEF, OPD_RAW, OPD_TILT_FREE and
 *     OPD_PISTON_FREE, and the single-surface bounds BOUND_EDGE (all, air,
 *     glass), BOUND_SEMI_DIAMETER and BOUND_ASPECT (the last three through
 *     the sample rays of the semi-diameter solve and, for the edges, the
 *     sag over dual numbers), with transform 0 or 8; their rows take the
 *     place of the CPU's, with the centroid, piston and tilt corrections
 *     of their groups (a group only as a whole, up to 512 spot and 512 OPD
 *     entries).  Values, residuals, merits and every other row are the
 *     CPU's.  A candidate whose rays fail on the device but not on the CPU
 *     has all its rows formed by the CPU.  Without Jacobians no kernel runs.  Returns -2
 *     for a system outside its entry conditions (variables other than 1 to
 *     64 curvatures of surfaces 1 to n - 1, n outside 2 to 256, any pickup,
 *     no index table, no field or more than 64, a paraxial lens, more than
 *     1700 operands or none of non-zero weight, more than 512 ray entries,
 *     64 distinct fields or pupil points among the ray operands, 16
 *     single-surface bound entries, bound entries with more than one
 *     field, OPD entries out of the order of their fields, aperture type
 *     or ray aiming above 2 or field type above 1 when any operand is one
 *     of the device's classes, five ray entries to the image on different
 *     index rows, scratch below what the run needs, which
 *     nuvrix_batched_scratch_size covers for systems of a few wavelengths)
 *     and for any failed device run, without a device included; the
 *     outputs are then not to be used.
 * sd_scratch to sd_scratch_c go to each candidate's Jacobian unchanged.
 * Returns 0 (also for candidate_count below 1, touching nothing), -2 for a
 * null surfaces, fields, operands, variables, candidate_x, residuals,
 * merits or scratch and for scratch below the CPU size, -3 for a variable of
 * kind 5, or the merged status of the candidates. */
int32_t nuvrix_evaluate_merit_batched(
    const SurfaceData* surfaces, int32_t n, const double* index_table, const double* wavelengths,
    int32_t wave_count, const SystemConfig* config, const FieldData* fields, int32_t field_count,
    const MeritOperandDesc* operands, int32_t operand_count, const MeritVariableDesc* variables,
    int32_t variable_count, const MeritPickupDesc* pickups, int32_t pickup_count,
    int32_t candidate_count, const double* candidate_x, double* residuals, double* jacobians,
    MeritResult* results, double* merits, int32_t* residual_count, MeritBatchedConfig batch,
    void* scratch, long scratch_size, double* sd_scratch, int32_t* sd_rows,
    double* sd_scratch_a, double* sd_scratch_b, double* sd_scratch_c);

/* The legacy operand list: optical path difference (0, 1, 2), transverse x
 * and y against the chief ray (3, 5 and 4, 6), incidence load (7, only in
 * the _full form), angles at a surface (8, 9), relative illumination (10),
 * distortion (11, 12).  results[i] gets the value and status 1 (usable) or
 * 0.  Returns 0. */
int32_t nuvrix_evaluate_merit_operands(const SurfaceData* surfaces, int32_t n,
                                       const double* index_table, const double* wavelengths,
                                       int32_t wave_count, const SystemConfig* config,
                                       const FieldData* fields, int32_t field_count,
                                       const MeritOperand* operands, int32_t operand_count,
                                       MeritResult* results);

/* As nuvrix_evaluate_merit_operands, with code 7 evaluated too. */
int32_t nuvrix_evaluate_merit_operands_full(const SurfaceData* surfaces, int32_t n,
                                            const double* index_table, const double* wavelengths,
                                            int32_t wave_count, const SystemConfig* config,
                                            const FieldData* fields, int32_t field_count,
                                            const MeritOperand* operands, int32_t operand_count,
                                            MeritResult* results);

/* ------------------------------------------------------------------------ */
/* GPU: the CUDA driver is opened at run time by name ("libcuda.so", then    */
/* "libcuda.so.1"); the kernels lie in nuvrix_kernel.fatbin beside the       */
/* library file and nowhere else.  Without a driver, a device or the side    */
/* file every GPU call fails with a status and the CPU paths go on.  Status  */
/* codes of the device calls: 0 done, -1 set-up failed, -2 the context       */
/* cannot be made current, -3 a null pointer, a short scratch or a failed    */
/* allocation, -4 upload failed, -5 launch failed, -6 synchronise failed,    */
/* -7 download failed, -8 an invalid size.                                   */
/* ------------------------------------------------------------------------ */

/* What nuvrix_gpu_query reports: available 1 with the device's figures, or
 * available 0 and all zero. */
typedef struct GpuQueryResult {
  int32_t available;
  int32_t multiprocessor_count;
  int32_t max_threads_per_multiprocessor;
  int32_t max_threads_per_block;
  int32_t warp_size;
  int32_t compute_major;
  int32_t compute_minor;
} GpuQueryResult;
NUVRIX_STATIC_ASSERT(sizeof(GpuQueryResult) == 28, "GpuQueryResult must be 28 bytes");

/* Sets up device 0 once per process (later calls return the same status):
 * 0 ready, 1 no driver (or a driver without a device), 2 no device, 3 no
 * context, 4 no side file, an unreadable one, or one without a required
 * kernel. */
int32_t nuvrix_gpu_init(void);

/* The device's figures, initialising first. */
GpuQueryResult nuvrix_gpu_query(void);

/* The last raw driver error code that a device call failed with (0: none). */
int32_t nuvrix_gpu_last_cuda_error(void);

/* Device memory.  alloc: -3 for a null out (else *out is set to null
 * first), 0 for bytes < 1 without allocating.  free: 0 for a null pointer
 * even without a device.  htod and dtoh: 0 for bytes < 1, -4 for a null
 * pointer or a failed copy.  Otherwise -1 or -2 as above. */
int32_t nuvrix_gpu_alloc_device(long bytes, void** out);
int32_t nuvrix_gpu_free_device(void* device_ptr);
int32_t nuvrix_gpu_htod_device(void* device_dst, const void* host_src, long bytes);
int32_t nuvrix_gpu_dtoh_device(void* host_dst, const void* device_src, long bytes);

/* Bytes of a glass catalogue of rows x columns doubles; 0 if either < 1,
 * or if the count does not fit a long. */
long nuvrix_gpu_glass_catalog_bytes(int32_t rows, int32_t columns);

/* Bytes of the device scratch block of the population merit kernel for a
 * population of candidates of one system (n surfaces, wave_count
 * wavelengths, field_count fields, operand_count operands), and of the ray
 * grid for ray_count rays; allocate it once with nuvrix_gpu_alloc_device.
 * 0 when a count is below 1 (for the grid: below 0) or the size does not
 * fit a long. */
long nuvrix_gpu_merit_value_scratch_size(int32_t population, int32_t n, int32_t wave_count,
                                         int32_t field_count, int32_t operand_count);
long nuvrix_gpu_trace_grid_scratch_size(int32_t n, int32_t wave_count, int32_t field_count,
                                        int32_t ray_count);

/* Merit values of a population of candidate systems in one launch.  The
 * candidate i is the base system (surfaces, wavelengths, config, fields,
 * operands) with its own curvature, thickness and conic on every surface:
 * row i of curvatures, thicknesses and conics (population rows of n
 * doubles), and its own glass behind every surface: row i of material_ids
 * (population rows of n ints).  A material id g >= 0 takes the indices of
 * row g of the device glass catalogue, which holds catalog_rows rows of
 * wave_count doubles, the index of glass g at wavelength row w at
 * catalog[g * wave_count + w] (nuvrix_gpu_glass_catalog_bytes(catalog_rows,
 * wave_count) bytes, uploaded by the host); a negative id is air, of index
 * 1.  Every index of a candidate comes from the catalogue.  merit_values[i]
 * is the merit that nuvrix_evaluate_merit gives for candidate i.  The
 * scratch is a device block of nuvrix_gpu_merit_value_scratch_size bytes.
 * With reuse_uploads nonzero the base system is taken as the last call on
 * the same scratch left it: clear it whenever the base system changed.
 * Status: -8 for a count below 1 or an id at or beyond catalog_rows, 0 at
 * once for a population below 1, -3 for a null array or a short scratch,
 * and the device codes above.
 *
 * The _f32 form trades precision of the population for bus bandwidth: the
 * three parameter rows travel as floats (half the bytes of every call) and
 * each candidate is evaluated in double on those rounded parameters, so its
 * merit is that of the candidate rounded to float.  Without that kernel in
 * the side file it runs the plain one. */
int32_t nuvrix_gpu_run_merit_value(const SurfaceData* surfaces, int32_t n,
                                   const double* glass_catalog, int32_t catalog_rows,
                                   int32_t wave_count, const int32_t* material_ids,
                                   const double* wavelengths, const SystemConfig* config,
                                   const FieldData* fields, int32_t field_count,
                                   const MeritOperandDesc* operands, int32_t operand_count,
                                   const double* curvatures, const double* thicknesses,
                                   const double* conics, double* merit_values,
                                   int32_t population, void* scratch, long scratch_bytes,
                                   int32_t reuse_uploads);
int32_t nuvrix_gpu_run_merit_value_f32(const SurfaceData* surfaces, int32_t n,
                                       const double* glass_catalog, int32_t catalog_rows,
                                       int32_t wave_count, const int32_t* material_ids,
                                       const double* wavelengths, const SystemConfig* config,
                                       const FieldData* fields, int32_t field_count,
                                       const MeritOperandDesc* operands, int32_t operand_count,
                                       const double* curvatures, const double* thicknesses,
                                       const double* conics, double* merit_values,
                                       int32_t population, void* scratch, long scratch_bytes,
                                       int32_t reuse_uploads);

/* Differential evolution on the device.  Every pointer but the condition
 * is a device pointer (nuvrix_gpu_alloc_device, _htod_device), and nothing
 * crosses the bus in either call.  A population of P candidates is the base
 * system (surfaces, n records) with each candidate's own rows of n
 * curvatures (population_a), thicknesses (population_b) and conics
 * (population_c), its glass ids (population_materials: a row of the glass
 * catalogue, glass_catalog[g * W + w] the index at wavelength w; negative:
 * air) and its merit (population_merit), as nuvrix_gpu_run_merit_value
 * evaluates them; wavelengths (W, micrometres), config, fields (F) and
 * operands (O) are device copies of the host's records.  scratch holds
 * nuvrix_gpu_de_scratch_size(P, n, W, F, O) bytes.
 *
 * nuvrix_gpu_run_de_eval_pop: every candidate's merit into
 * population_merit.
 *
 * nuvrix_gpu_run_de_generation: one generation in three launches (vary,
 * evaluate the trials, select) and one synchronisation.  The trial arrays
 * (trial_a .. trial_merit, shaped as the population's) are scratch.
 *   vary_table: vary_count rows of four doubles (surface, parameter: 0
 *     curvature, 1 thickness, 2 conic, lower bound, upper bound): the
 *     parameters that vary.  The trial of candidate i is DE/rand/1/bin
 *     (vary_int_e 0) or DE/best/1/bin (vary_int_e 1, the best candidate's
 *     index in vary_int_d): each varied parameter takes the mutant
 *     base + vary_real_a (r2 - r3) (r1, r2, r3 distinct candidates other
 *     than i, base r1 or the best) with probability vary_real_b, the
 *     crossover rate, one of them for certain when that rate is above 0
 *     (so a rate of 0 gives the parent itself), and keeps the parent's
 *     value otherwise; a value beyond a bound is drawn again uniformly
 *     between the parent and that bound, so that every trial keeps its
 *     bounds.  Parameters outside the table stay the parent's.
 *   Glass substitution: vary_count_b surfaces vary_table_b[k] (ints), each
 *     with the catalogue rows vary_table_d[vary_table_c[k] ..
 *     vary_table_c[k + 1]) to choose from (vary_table_c holds
 *     vary_count_b + 1 ints); with probability vary_real_c a trial takes
 *     one of them, uniformly.
 *   The random numbers are Philox4x32-10 keyed by the seed vary_int_a and
 *     the generation vary_int_b, the candidate its counter: the same seed
 *     and inputs give the same trials on any device, in any order of the
 *     threads, and on the host.
 *   condition: a trial that breaks it is drawn again, up to vary_int_c
 *     times (at least once); a trial that breaks it after that is its
 *     parent.  A population of fewer than 4 gives every trial its parent.
 *   The select step keeps, in place, the trial where its merit is finite
 *     and below the parent's (or the parent's is not a number), so that no
 *     candidate's merit ever gets worse.
 * Both return 0 at once for P < 1 (nothing touched, no set-up), then -1
 * (set-up), -10 (the merit kernel, or for a generation the vary or select
 * kernel, missing from the side file), -3 (scratch null or short), -2
 * (context), -5 (a launch) or -6 (the synchronisation), the raw code kept
 * for nuvrix_gpu_last_cuda_error.  On a failure the population holds the
 * old or the new generation. */
long nuvrix_gpu_de_scratch_size(int32_t P, int32_t n, int32_t W, int32_t F, int32_t O);
int32_t nuvrix_gpu_run_de_eval_pop(const double* population_a, const double* population_b,
                                   const double* population_c,
                                   const int32_t* population_materials,
                                   double* population_merit, const SurfaceData* surfaces,
                                   const double* glass_catalog, const double* wavelengths,
                                   const SystemConfig* config, const FieldData* fields,
                                   const MeritOperandDesc* operands, void* scratch,
                                   long scratch_bytes, int32_t P, int32_t n, int32_t W,
                                   int32_t F, int32_t O);
int32_t nuvrix_gpu_run_de_generation(
    double* population_a, double* population_b, double* population_c,
    int32_t* population_materials, double* population_merit, double* trial_a, double* trial_b,
    double* trial_c, int32_t* trial_materials, double* trial_merit, const double* vary_table,
    int32_t vary_count, const int32_t* vary_table_b, const int32_t* vary_table_c,
    const int32_t* vary_table_d, int32_t vary_count_b, const SurfaceData* surfaces,
    const double* glass_catalog, const double* wavelengths, const SystemConfig* config,
    const FieldData* fields, const MeritOperandDesc* operands, void* scratch,
    long scratch_bytes, int32_t P, int32_t n, int32_t W, int32_t F, int32_t O,
    int32_t vary_int_a, int32_t vary_int_b, int32_t vary_int_c, double vary_real_a,
    double vary_real_b, double vary_real_c, int32_t vary_int_d, int32_t vary_int_e,
    DeConditionDesc condition);

/* Every ray of a grid in one launch (scratch: a device block of
 * nuvrix_gpu_trace_grid_scratch_size(n, wave_count, field_count, ray_count)
 * bytes).  Ray r is field field_indices[r], index row wave_indices[r] and
 * pupil point (px_values[r], py_values[r]), traced by the general front end
 * (as nuvrix_trace_arbitrary_ray with the field's field_y and field_x,
 * pupil_radius and entrance_pupil_position) to the last surface.
 * field_table, when given, holds four doubles a field that replace them:
 * field y, field x, pupil radius, pupil position.  x and y are the ray's
 * point at the last surface traced, optical_path its path in waves of the
 * row's wavelength (wavelengths in micrometres), valid 1 when it got
 * there.  With reuse_uploads nonzero the configuration, fields,
 * wavelengths, ray lists and field table are those of the last call on the
 * same scratch; the surfaces and index table are sent every time.
 * Status: -8 for n, wave_count or field_count below 1 or a field or row
 * index out of range, 0 at once for ray_count below 1, -3 for a null array
 * or a short scratch, -9 when the side file lacks the grid kernel, and the
 * device codes above. */
int32_t nuvrix_gpu_run_trace_grid(const SurfaceData* surfaces, int32_t n,
                                  const double* index_table, int32_t wave_count,
                                  const double* wavelengths, const SystemConfig* config,
                                  const FieldData* fields, int32_t field_count,
                                  const int32_t* field_indices, const int32_t* wave_indices,
                                  const double* px_values, const double* py_values,
                                  const double* field_table, double pupil_radius,
                                  double entrance_pupil_position, double* x, double* y,
                                  double* optical_path, int32_t* valid, int32_t ray_count,
                                  void* scratch, long scratch_bytes, int32_t reuse_uploads);

/* The same with the optional arrays, each of which may be null.  ray_kinds
 * 1 asks for the ray's complete record: its end point z, direction (l, m,
 * n_out), its point on surface 1 (launch_x, launch_y, launch_z), its
 * direction at launch (launch_l, launch_m, launch_n) and the surface normal
 * where it ended (normal_); other rays get zeros there (launch_n 1).
 * surface_indices[r] stops ray r at that surface (0: the last).  aim
 * nonzero aims every ray at the stop, with the stop radius stop_radii[r]
 * when given, else the marginal radius that the pupil fills at the stop for
 * the ray's row. */
int32_t nuvrix_gpu_run_trace_grid_full(
    const SurfaceData* surfaces, int32_t n, const double* index_table, int32_t wave_count,
    const double* wavelengths, const SystemConfig* config, const FieldData* fields,
    int32_t field_count, const int32_t* field_indices, const int32_t* wave_indices,
    const double* px_values, const double* py_values, const double* field_table,
    double pupil_radius, double entrance_pupil_position, double* x, double* y,
    double* optical_path, int32_t* valid, int32_t ray_count, void* scratch, long scratch_bytes,
    int32_t reuse_uploads, const int32_t* ray_kinds, double* z, double* l, double* m,
    double* n_out, double* launch_x, double* launch_y, double* launch_z, double* launch_l,
    double* launch_m, double* launch_n, const int32_t* surface_indices, double* normal_x,
    double* normal_y, double* normal_z, int32_t aim, const double* stop_radii);

/* Times the device's trace arithmetic in double (use_f64 nonzero) or float:
 * ray_count rays, each through surface_count spheres (held to 1 .. 256)
 * pass_count times, in iterations launches (at least 1) after one warm-up
 * launch.  elapsed_ms gets the wall time of those launches, checksum the
 * first ray's result (both zeroed first).  Status: 0; -3 for ray_count or
 * pass_count below 1; -1 no set-up; -2 no context; -4 the kernel is
 * absent; -5 no buffer; -6 a launch failed; -7 a synchronise failed. */
int32_t nuvrix_gpu_run_trace_microbench(int32_t use_f64, int32_t ray_count,
                                        int32_t surface_count, int32_t pass_count,
                                        int32_t iterations, double* elapsed_ms,
                                        double* checksum);

/* The host's workspace of nuvrix_gpu_evaluate_merit_value: every array
 * holds capacity entries, and device_scratch is a device block of
 * device_scratch_bytes, at least nuvrix_gpu_trace_grid_scratch_size(n,
 * wave_count, field_count, capacity) bytes for the rays to reach the
 * device. */
typedef struct GpuTraceScratch {
  int32_t* field_indices;
  int32_t* wave_indices;
  int32_t* ray_kinds;
  int32_t* surface_indices;
  double* hy_values;
  double* px_values;
  double* py_values;
  double* x;
  double* y;
  int32_t* valid_flags;
  double *z, *l, *m, *n;
  double* optical_path;
  double *launch_x, *launch_y, *launch_z;
  double *launch_l, *launch_m, *launch_n;
  double *normal_x, *normal_y, *normal_z;
  double* stop_radii;
  int32_t capacity;
  void* device_scratch;
  long device_scratch_bytes;
} GpuTraceScratch;
NUVRIX_STATIC_ASSERT(sizeof(GpuTraceScratch) == 224, "GpuTraceScratch must be 224 bytes");

/* nuvrix_evaluate_merit with its rays traced on the device: the transverse
 * rays (codes 70 to 73), the OPD rays (67 to 69) and the incidence-load
 * rays (74) whose normalised field lies on a defined field (within 1e-6 in
 * y, and in x) go to the device in one launch, each distinct ray once, up
 * to capacity; the CPU traces the rest.  It runs entirely on the CPU with a
 * thin-lens surface, without a workspace, with an afocal image, with
 * aiming and more than 64 wavelengths, without rays to send, and whenever
 * the device fails: the result is then that of nuvrix_evaluate_merit, and
 * otherwise the same apart from rounding. */
int32_t nuvrix_gpu_evaluate_merit_value(const SurfaceData* surfaces, int32_t n,
                                        const double* index_table, const double* wavelengths,
                                        int32_t wave_count, const SystemConfig* config,
                                        const FieldData* fields, int32_t field_count,
                                        const MeritOperandDesc* operands, int32_t operand_count,
                                        MeritResult* results, double* residuals,
                                        int32_t* residual_count, double* merit,
                                        GpuTraceScratch* scratch, int32_t reuse_uploads);

/* How large a population keeps the device busy with the merit kernel
 * (multiprocessors x resident blocks of 64 x 64); 0 without a device. */
int32_t nuvrix_gpu_merit_value_fill_count(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* NUVRIX_H_ */
