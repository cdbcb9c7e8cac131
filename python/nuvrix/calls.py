"""Calls of the engine on a Lens, with NumPy arrays in and out.  Every
argument is checked here before the call, so that nothing outside the
engine's contract reaches it from Python."""

import ctypes

import numpy as np

from . import _native as native

__all__ = ["version", "trace_rays", "spot_diagram", "ray_fan", "opd_fan", "quality",
           "wavefront_map", "psf", "mtf", "field_curves", "encircled_energy",
           "layout_rays", "first_order", "seidel", "evaluate_merit", "merit_jacobian",
           "evaluate_batched"]

_SPOT_STATUS = {-1: "field index out of range", -2: "the chief ray failed",
                -3: "no ray survived"}


def version():
    """The engine's version string, "0.1.0"."""
    return native.library().nuvrix_version().decode()


def _index(value, count, what):
    value = int(value)
    if not 0 <= value < count:
        raise native.NuvrixError(f"{what} {value} is outside 0 .. {count - 1}")
    return value


def trace_rays(lens, launches, wave=0, start_surface=1, last_surface=0, out=None):
    """Real rays of (x, y, l, m, n) launches (an array of shape (count, 5))
    from the frame of surface start_surface - 1 to last_surface (0: the
    image), apertures in force, on index row `wave`; a structured array of
    RAY_RESULT, one record a launch, each what nuvrix_trace_ray gives
    (written into out when given: a RAY_RESULT array of count records,
    kept from call to call)."""
    lens.check()
    launches = np.ascontiguousarray(launches, dtype=np.float64)
    if launches.ndim != 2 or launches.shape[1] != 5:
        raise native.NuvrixError("launches must have the shape (count, 5): x, y, l, m, n")
    wave = _index(wave, lens.wave_count, "wave")
    start_surface = _index(start_surface, lens.surface_count, "start_surface")
    if start_surface < 1:
        raise native.NuvrixError("start_surface must be at least 1")
    if out is None:
        out = np.empty(len(launches), dtype=native.RAY_RESULT)  # every record is written
    elif (not isinstance(out, np.ndarray) or out.dtype != native.RAY_RESULT
          or out.shape != (len(launches),) or not out.flags.c_contiguous
          or not out.flags.writeable):
        raise native.NuvrixError("out must be a writeable RAY_RESULT array of one record a launch")
    row = np.ascontiguousarray(lens.indices[wave])
    status = native.library().nuvrix_trace_rays(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row), start_surface,
        int(last_surface), native.pointer(launches), len(launches),
        float(lens.wavelengths_um[wave] * 1000.0), native.pointer(out))
    if status != 0:
        raise native.NuvrixError("nuvrix_trace_rays refused the rays", status)
    return out


def spot_diagram(lens, field_index, grid_size=6, hexapolar=True, weights=None, capacity=None):
    """The spot diagram of one field over every wavelength, reproducible bit
    for bit: (a SPOT_RESULT record, the surviving rays' hits as a SPOT_HIT
    array of up to `capacity` rays)."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    grid_size = int(grid_size)
    if grid_size < 1:
        raise native.NuvrixError("grid_size must be at least 1")
    if weights is None:
        weights = np.ones(lens.wave_count)
    weights = np.ascontiguousarray(weights, dtype=np.float64)
    if weights.shape != (lens.wave_count,):
        raise native.NuvrixError("weights needs one number a wavelength")
    rays = (1 + 3 * grid_size * (grid_size + 1)) if hexapolar else grid_size * grid_size
    capacity = rays * lens.wave_count if capacity is None else int(capacity)
    if capacity < 0:
        raise native.NuvrixError("capacity must not be negative")
    hits = np.zeros(max(capacity, 1), dtype=native.SPOT_HIT)
    result = np.zeros(1, dtype=native.SPOT_RESULT)
    status = native.library().nuvrix_compute_spot_diagram_with_rays(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        native.pointer(weights), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), field_index, grid_size,
        1 if hexapolar else 0, native.pointer(hits), capacity, native.pointer(result))
    if status != 0:
        raise native.NuvrixError(_SPOT_STATUS.get(status, "the spot diagram failed"), status)
    stored = min(int(result["ray_count"][0]), capacity)
    return result[0], hits[:stored]


def _fan_arrays(lens, field_index, point_count):
    """Checked arguments and the two fan arrays and header of a fan call."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    point_count = int(point_count)
    if point_count < 1:
        raise native.NuvrixError("point_count must be at least 1")
    shape = (lens.wave_count, point_count + 1)
    return (field_index, point_count, np.zeros(shape, dtype=native.FAN_POINT),
            np.zeros(shape, dtype=native.FAN_POINT), np.zeros(1, dtype=native.FAN_HEADER))


def ray_fan(lens, field_index, point_count=40):
    """Tangential and sagittal transverse ray fans of one field at every
    wavelength, point_count + 1 samples of the pupil each: (tangential,
    sagittal), FAN_POINT arrays of shape (wavelengths, point_count + 1),
    values in mm from the primary chief ray."""
    field_index, point_count, tangential, sagittal, header = _fan_arrays(lens, field_index,
                                                                         point_count)
    status = native.library().nuvrix_compute_transverse_ray_fan(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        lens.wave_count, native.pointer(lens.config), native.pointer(lens.fields),
        len(lens.fields), field_index, point_count, native.pointer(tangential),
        native.pointer(sagittal), native.pointer(header))
    if status != 0:
        raise native.NuvrixError(_SPOT_STATUS.get(status, "the ray fan failed"), status)
    return tangential, sagittal


_MAP_STATUS = {-1: "field index out of range", -2: "the primary chief ray failed",
               -3: "the chief ray at this wavelength failed"}


def quality(lens):
    """The report's set-up of the diffraction analyses at the primary
    wavelength: (reference sphere radius in mm, working F-number, cutoff
    1 / (lambda F) in cycles/mm)."""
    lens.check()
    out = np.zeros(3)
    error = ctypes.create_string_buffer(256)
    ok = native.lensfile().nuvrix_lensfile_quality(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), native.pointer(out), error, len(error))
    if ok != 1:
        raise native.NuvrixError("no diffraction set-up: " + error.value.decode(errors="replace"))
    return float(out[0]), float(out[1]), float(out[2])


def _primary(lens):
    p = int(lens.config["primary_wavelength"][0])
    return p if 0 <= p < lens.wave_count else 0


def opd_fan(lens, field_index, point_count=40):
    """OPD fans in waves against the report's reference sphere: (tangential,
    sagittal), FAN_POINT arrays of shape (wavelengths, point_count + 1)."""
    field_index, point_count, tangential, sagittal, header = _fan_arrays(lens, field_index,
                                                                         point_count)
    radius = quality(lens)[0]
    status = native.library().nuvrix_compute_opd_fan(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), field_index, point_count, radius,
        native.pointer(tangential), native.pointer(sagittal), native.pointer(header))
    if status != 0:
        raise native.NuvrixError(_MAP_STATUS.get(status, "the OPD fan failed"), status)
    return tangential, sagittal


def _grid(grid_size):
    grid_size = int(grid_size)
    if grid_size < 2 or grid_size & (grid_size - 1):
        raise native.NuvrixError("grid_size must be a power of two, at least 2")
    return grid_size


def wavefront_map(lens, field_index, grid_size=64, wave=None):
    """The wavefront in waves over a grid of the pupil, NaN outside it or
    where a ray failed, with its WAVEFRONT_RESULT (PV and RMS)."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    grid_size = _grid(grid_size)
    wave = _primary(lens) if wave is None else _index(wave, lens.wave_count, "wave")
    radius = quality(lens)[0]
    values = np.zeros((grid_size, grid_size))
    mask = np.zeros((grid_size, grid_size), dtype=np.int32)
    result = np.zeros(1, dtype=native.WAVEFRONT_RESULT)
    row = np.ascontiguousarray(lens.indices[wave])
    primary = np.ascontiguousarray(lens.indices[_primary(lens)])
    status = native.library().nuvrix_compute_wavefront_map(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row),
        native.pointer(primary), float(lens.wavelengths_um[wave]), native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), field_index, grid_size, radius,
        native.pointer(values), native.pointer(mask), native.pointer(result))
    if status != 0:
        raise native.NuvrixError(_MAP_STATUS.get(status, "the wavefront map failed"), status)
    return np.where(mask == 1, values, np.nan), result[0]


def _scratch(grid_size):
    side = 2 * grid_size
    return (np.zeros(grid_size * grid_size), np.zeros(grid_size * grid_size, dtype=np.int32),
            np.zeros(side * side), np.zeros(side * side))


def psf(lens, field_index, grid_size=64):
    """The diffraction PSF at the primary wavelength, normalised to its
    peak, an array of (2 grid_size)^2, with its PSF_RESULT (Strehl ratio,
    pixel pitch in mm)."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    grid_size = _grid(grid_size)
    radius, f_number, _ = quality(lens)
    wave = _primary(lens)
    row = np.ascontiguousarray(lens.indices[wave])
    values, mask, real, imag = _scratch(grid_size)
    image = np.zeros((2 * grid_size, 2 * grid_size))
    result = np.zeros(1, dtype=native.PSF_RESULT)
    status = native.library().nuvrix_compute_fft_psf(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row),
        native.pointer(row), float(lens.wavelengths_um[wave]), native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), field_index, grid_size, radius, f_number,
        native.pointer(values), native.pointer(mask), native.pointer(real), native.pointer(imag),
        native.pointer(image), native.pointer(result))
    if status != 0:
        raise native.NuvrixError(_MAP_STATUS.get(status, "the PSF failed"), status)
    return image, result[0]


def mtf(lens, field_index, grid_size=64, points=51):
    """The diffraction MTF at the primary wavelength from 0 to the cutoff
    1 / (lambda F): (frequencies in cycles/mm, tangential, sagittal,
    cutoff)."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    grid_size = _grid(grid_size)
    points = int(points)
    if points < 2:
        raise native.NuvrixError("points must be at least 2")
    radius, _, cutoff = quality(lens)
    wave = _primary(lens)
    row = np.ascontiguousarray(lens.indices[wave])
    values, mask, real, imag = _scratch(grid_size)
    curve = np.zeros(points + 1, dtype=native.MTF_POINT)
    result = np.zeros(1, dtype=native.MTF_RESULT)
    status = native.library().nuvrix_compute_fft_mtf(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row),
        native.pointer(row), float(lens.wavelengths_um[wave]), native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), field_index, grid_size, radius, cutoff,
        cutoff, cutoff / (points - 1), native.pointer(values), native.pointer(mask),
        native.pointer(real), native.pointer(imag), native.pointer(curve), len(curve),
        native.pointer(result))
    if status != 0:
        raise native.NuvrixError(_MAP_STATUS.get(status, "the MTF failed"), status)
    curve = curve[:int(result["point_count"][0])]
    return curve["frequency"], curve["tangential"], curve["sagittal"], cutoff


def geometric_mtf(lens, field_index, wave=None, samples=32, diffraction=False, grid_size=1024):
    """The geometric MTF of one field from the spot's rays, at 0, 1, 2 ...
    100 cycles/mm: (frequencies in
    cycles/mm, tangential, sagittal), 0 beyond the diffraction cutoff.
    wave None takes the rays of every wavelength alike, else one index row;
    diffraction True multiplies the curves by the diffraction-limited curve
    of the aperture.  The hits are binned so that the spot spans 85 pixels
    of grid_size, and each frequency reads the nearest bin of their
    transform: the curve moves in steps of about 85 / (grid_size x the
    spot's extent in mm) cycles/mm, so a small spot wants a large grid."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    grid_size = _grid(grid_size)
    samples = int(samples)
    if samples < 2:
        raise native.NuvrixError("samples must be at least 2")
    _, _, cutoff = quality(lens)
    real, imag = np.zeros(grid_size * grid_size), np.zeros(grid_size * grid_size)
    curve = np.zeros(101, dtype=native.MTF_POINT)
    result = np.zeros(1, dtype=native.MTF_RESULT)
    lib = native.library()
    common = (native.pointer(lens.config), native.pointer(lens.fields), len(lens.fields))
    tail = (samples, int(bool(diffraction)), cutoff, cutoff, native.pointer(real),
            native.pointer(imag), grid_size, native.pointer(curve), len(curve),
            native.pointer(result))
    if wave is None:
        status = lib.nuvrix_compute_geometric_mtf_polychromatic(
            native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
            native.pointer(lens.wavelengths_um), None, lens.wave_count, *common, field_index,
            *tail)
    else:
        wave = _index(wave, lens.wave_count, "wave")
        row = np.ascontiguousarray(lens.indices[wave])
        status = lib.nuvrix_compute_geometric_mtf(
            native.pointer(lens.surfaces), lens.surface_count, native.pointer(row), *common,
            field_index, wave, *tail)
    if status != 0:
        raise native.NuvrixError({-1: "field index out of range", -2: "the chief ray failed",
                                  -3: "at most 3 rays reached the image"}.get(
                                      status, "the geometric MTF failed"), status)
    curve = curve[:int(result["point_count"][0])]
    return curve["frequency"], curve["tangential"], curve["sagittal"]


def field_curves(lens, point_count=20, wave=None):
    """Field curvature and distortion from the axis to the largest field,
    point_count + 1 samples on one index row (the primary by default): a
    FIELD_CURVE_POINT array (foci along the chief ray in mm from the image
    surface, distortion in percent)."""
    lens.check()
    point_count = int(point_count)
    if point_count < 1:
        raise native.NuvrixError("point_count must be at least 1")
    wave = _primary(lens) if wave is None else _index(wave, lens.wave_count, "wave")
    largest = float(np.abs(lens.fields["field_y"]).max())
    if not largest > 0.0:
        raise native.NuvrixError("field curves need a field off the axis")
    points = np.zeros(point_count + 1, dtype=native.FIELD_CURVE_POINT)
    written = np.zeros(1, dtype=np.int32)
    row = np.ascontiguousarray(lens.indices[wave])
    native.library().nuvrix_compute_field_curvature_distortion(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row),
        native.pointer(lens.config), native.pointer(lens.fields), len(lens.fields), point_count,
        largest, native.pointer(points), native.pointer(written))
    return points[:int(written[0])]


def encircled_energy(lens, field_index, max_radius_um=30.0, point_count=60, grid_size=64):
    """Encircled energy of one field against the radius in micrometres:
    (radii, diffraction energy from the PSF at the primary wavelength,
    geometric energy of the spot's hits over every wavelength)."""
    point_count = int(point_count)
    if point_count < 1 or not max_radius_um > 0.0:
        raise native.NuvrixError("encircled energy needs a positive radius and point_count")
    image, psf_result = psf(lens, field_index, grid_size)
    spot, hits = spot_diagram(lens, field_index, grid_size=12)
    lib = native.library()
    diffraction = np.zeros(point_count + 1, dtype=native.EE_POINT)
    geometric = np.zeros(point_count + 1, dtype=native.EE_POINT)
    header = np.zeros(1, dtype=native.EE_HEADER)
    lib.nuvrix_compute_diffraction_encircled_energy(
        native.pointer(np.ascontiguousarray(image)), image.shape[0],
        float(psf_result["pixel_pitch"]), float(max_radius_um), point_count,
        native.pointer(diffraction), native.pointer(header))
    lib.nuvrix_compute_geometric_encircled_energy(
        native.pointer(hits), len(hits), float(np.mean(hits["x"])), float(np.mean(hits["y"])),
        float(max_radius_um), point_count, native.pointer(geometric), native.pointer(header))
    return diffraction["radius"], diffraction["energy"], geometric["energy"]


def layout_rays(lens, field_index, pupil=(-1.0, -0.5, 0.0, 0.5, 1.0), lead=None):
    """Unaimed meridional rays of one field through the paraxial entrance
    pupil at the primary wavelength, for drawing the lens in section: for
    each pupil coordinate an array (surfaces, 2) of (z, y) in mm in the
    frame of surface 1 (NaN beyond where the ray ended), and the surfaces
    with their semi-diameters solved.  An object at infinity is drawn from
    `lead` mm (a third of the length, by default) in front of surface 1."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    lib = native.library()
    wave = _primary(lens)
    row = np.ascontiguousarray(lens.indices[wave])
    surfaces = lens.surfaces.copy()
    lib.nuvrix_solve_semi_diameters(
        native.pointer(surfaces), lens.surface_count, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields))
    n = lens.surface_count
    stop = int(lens.config["stop_surface"][0])
    ep = lib.nuvrix_entrance_pupil_position(native.pointer(surfaces), n, native.pointer(row), stop)
    radius = lib.nuvrix_compute_pupil_radius(native.pointer(surfaces), n, native.pointer(row),
                                             native.pointer(lens.config))
    vertex = np.concatenate([[0.0], np.cumsum(surfaces["thickness"][1:n - 1])])  # surfaces 1..
    t0 = float(surfaces["thickness"][0])
    infinite = not abs(t0) < 1e10
    distance = (lead if lead is not None else max(vertex[-1], 1.0) / 3.0) if infinite else t0
    traced = surfaces.copy()
    traced["thickness"][0] = distance
    field = float(lens.fields["field_y"][field_index])
    paths = []
    for p in pupil:
        target = p * radius  # height in the entrance pupil, ep behind surface 1
        if infinite or int(lens.config["field_type"][0]) == 0:
            angle = np.radians(field)
            y0 = target - (distance + ep) * np.tan(angle)
        else:
            y0 = -field if field else 0.0
            angle = np.arctan2(target - y0, distance + ep)
        states = np.zeros(256, dtype=native.RAY_STATE)
        result = lib.nuvrix_trace_ray_full(
            native.pointer(traced), n, native.pointer(row), native.pointer(states), 1, n - 1, 0.0,
            float(y0), 0.0, float(np.sin(angle)), float(np.cos(angle)),
            float(lens.wavelengths_um[wave] * 1000.0))
        path = np.full((n, 2), np.nan)
        path[0] = (-distance, y0)
        reached = min(int(result.states_written), n)
        for k in range(1, reached):
            path[k] = (vertex[k - 1] + states["z"][k], states["y"][k])
        paths.append(path)
    return paths, surfaces


def first_order(lens, wave=None):
    """The paraxial solve on one index row (the primary by default): a
    FIRST_ORDER record (EFL, BFL, pupils, length)."""
    lens.check()
    wave = _primary(lens) if wave is None else _index(wave, lens.wave_count, "wave")
    row = np.ascontiguousarray(lens.indices[wave])
    r = native.library().nuvrix_paraxial_solve(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(row),
        native.pointer(lens.config), native.pointer(lens.fields), len(lens.fields), None, None)
    out = np.zeros(1, dtype=native.FIRST_ORDER)
    for name in native.FIRST_ORDER.names:
        out[name] = getattr(r, name)
    return out[0]


def seidel(lens, wave=None, short_wave=None, long_wave=None):
    """Third-order sums of each contributing surface and in total (the
    colour sums need the short and long rows; by default the first and
    last wavelength): (SEIDEL_SURFACE array, SEIDEL_RESULT)."""
    lens.check()
    wave = _primary(lens) if wave is None else _index(wave, lens.wave_count, "wave")
    short_wave = 0 if short_wave is None else _index(short_wave, lens.wave_count, "short_wave")
    long_wave = (lens.wave_count - 1 if long_wave is None
                 else _index(long_wave, lens.wave_count, "long_wave"))
    rows = [np.ascontiguousarray(lens.indices[w]) for w in (wave, short_wave, long_wave)]
    coefficients = np.zeros(lens.surface_count, dtype=native.SEIDEL_SURFACE)
    result = np.zeros(1, dtype=native.SEIDEL_RESULT)
    native.library().nuvrix_compute_seidel(
        native.pointer(lens.surfaces), lens.surface_count, *[native.pointer(r) for r in rows],
        native.pointer(lens.config), native.pointer(lens.fields), len(lens.fields),
        native.pointer(coefficients), len(coefficients), native.pointer(result))
    return coefficients[:int(result["count"][0])], result[0]


def merit_jacobian(lens, analytic=True, threads=1):
    """The residuals of lens.operands and their Jacobian with respect to the
    unbounded coordinates of lens.variables (lens.pickups applied): (merit,
    residuals, Jacobian of shape (residuals, variables)), analytic or by
    finite differences over `threads` threads."""
    lens.check()
    m, v, threads = len(lens.operands), len(lens.variables), max(int(threads), 1)
    n, f = lens.surface_count, len(lens.fields)
    slots = max(2 * m, 1)
    results = np.zeros(max(m, 1), dtype=native.RESULT)
    residuals = np.zeros(slots)
    work = np.zeros(n * threads, dtype=native.SURFACE)
    work_fields = np.zeros(f * threads, dtype=native.FIELD)
    thread_results = np.zeros(max(m, 1) * threads, dtype=native.RESULT)
    thread_residuals = np.zeros(slots * threads)
    jacobian = np.zeros(slots * max(v, 1))
    count = np.zeros(1, dtype=np.int32)
    merit = np.zeros(1)
    sd = np.zeros(n + 1)
    sd_rows = np.zeros(n + 1, dtype=np.int32)
    status = native.library().nuvrix_evaluate_merit_and_jacobian(
        native.pointer(lens.surfaces), n, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), f, native.pointer(lens.operands), m,
        native.pointer(lens.variables), v, native.pointer(lens.pickups), len(lens.pickups),
        1 if analytic else 0, 1 if threads > 1 else 0, threads, native.pointer(results),
        native.pointer(residuals), native.pointer(work), native.pointer(work_fields),
        native.pointer(thread_results), native.pointer(thread_residuals),
        native.pointer(jacobian), native.pointer(count), native.pointer(merit),
        native.pointer(sd), native.pointer(sd_rows), native.pointer(sd), native.pointer(sd),
        native.pointer(sd))
    words = {-2: "outside the analytic set, or a missing buffer", -3: "a variable of kind 5"}
    if status != 0:
        raise native.NuvrixError(words.get(status, "operands the engine does not support"),
                                 status)
    rows = int(count[0])
    return float(merit[0]), residuals[:rows].copy(), jacobian[:rows * v].reshape(rows, v).copy()


def evaluate_batched(lens, x, jacobian=False, threads=0, use_gpu=False, analytic=True):
    """Many candidates in one call: x holds a row of lens.variables'
    unbounded values a candidate.  Returns (merits, residuals of shape
    (candidates, 2 operands), Jacobians of shape (candidates, 2 operands,
    variables) or None); a candidate's rows beyond its residual count are
    not written."""
    lens.check()
    x = np.ascontiguousarray(x, dtype=np.float64)
    m, v = len(lens.operands), len(lens.variables)
    if x.ndim != 2 or x.shape[1] != v:
        raise native.NuvrixError(f"x must have the shape (candidates, {v})")
    c, n, f = x.shape[0], lens.surface_count, len(lens.fields)
    width = max(2 * m, 1)
    lib = native.library()
    size = lib.nuvrix_batched_scratch_size(c, n, f, m, v, 0, 0)
    scratch = np.zeros(max(size, 16) // 8 + 2)
    merits = np.zeros(max(c, 1))
    residuals = np.zeros((max(c, 1), width))
    jacobians = np.zeros((max(c, 1), width, max(v, 1))) if jacobian else None
    results = np.zeros(max(c * m, 1), dtype=native.RESULT)
    count = np.zeros(1, dtype=np.int32)
    config = native.BatchedConfig(int(bool(use_gpu)), int(bool(analytic)), int(threads),
                                  int(bool(jacobian)))
    sd = np.zeros(n + 1)
    sd_rows = np.zeros(n + 1, dtype=np.int32)
    variables = lens.variables if v else np.zeros(1, dtype=native.VARIABLE)
    status = lib.nuvrix_evaluate_merit_batched(
        native.pointer(lens.surfaces), n, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), f, native.pointer(lens.operands), m,
        native.pointer(variables), v, native.pointer(lens.pickups), len(lens.pickups), c,
        native.pointer(x), native.pointer(residuals), native.pointer(jacobians),
        native.pointer(results), native.pointer(merits), native.pointer(count),
        config, native.pointer(scratch),
        size, native.pointer(sd), native.pointer(sd_rows), native.pointer(sd),
        native.pointer(sd), native.pointer(sd))
    if status != 0:
        raise native.NuvrixError("the batch failed", status)
    return merits[:c], residuals[:c], None if jacobians is None else jacobians[:c, :, :v]


def evaluate_merit(lens, operands=None):
    """The merit function (lens.operands unless given): (merit, residuals,
    results), the unsupported operands raising NuvrixError with their
    count as the status."""
    lens.check()
    ops = lens.operands if operands is None else np.ascontiguousarray(operands)
    if ops.dtype != native.OPERAND:
        raise native.NuvrixError("operands must be an array of the OPERAND dtype")
    results = np.zeros(max(len(ops), 1), dtype=native.RESULT)
    residuals = np.zeros(max(2 * len(ops), 1), dtype=np.float64)
    count = np.zeros(1, dtype=np.int32)
    merit = np.zeros(1, dtype=np.float64)
    status = native.library().nuvrix_evaluate_merit(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        native.pointer(lens.wavelengths_um), lens.wave_count, native.pointer(lens.config),
        native.pointer(lens.fields), len(lens.fields), native.pointer(ops), len(ops),
        native.pointer(results), native.pointer(residuals), native.pointer(count),
        native.pointer(merit))
    if status != 0:
        raise native.NuvrixError("operands the engine does not support", status)
    return float(merit[0]), residuals[:int(count[0])].copy(), results[:len(ops)].copy()
