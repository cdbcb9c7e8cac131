"""Calls of the engine on a Lens, with NumPy arrays in and out.  Every
argument is checked here before the call, so that nothing outside the
engine's contract reaches it from Python."""

import numpy as np

from . import _native as native

__all__ = ["version", "trace_rays", "spot_diagram", "ray_fan", "evaluate_merit"]

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


def trace_rays(lens, launches, wave=0, start_surface=1, last_surface=0):
    """Real rays of (x, y, l, m, n) launches (an array of shape (count, 5))
    from the frame of surface start_surface - 1 to last_surface (0: the
    image), apertures in force, on index row `wave`; a structured array of
    RAY_RESULT, one record a launch, each what nuvrix_trace_ray gives."""
    lens.check()
    launches = np.ascontiguousarray(launches, dtype=np.float64)
    if launches.ndim != 2 or launches.shape[1] != 5:
        raise native.NuvrixError("launches must have the shape (count, 5): x, y, l, m, n")
    wave = _index(wave, lens.wave_count, "wave")
    start_surface = _index(start_surface, lens.surface_count, "start_surface")
    if start_surface < 1:
        raise native.NuvrixError("start_surface must be at least 1")
    out = np.zeros(len(launches), dtype=native.RAY_RESULT)
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


def ray_fan(lens, field_index, point_count=40):
    """Tangential and sagittal transverse ray fans of one field at every
    wavelength, point_count + 1 samples of the pupil each: (tangential,
    sagittal), FAN_POINT arrays of shape (wavelengths, point_count + 1),
    values in mm from the primary chief ray."""
    lens.check()
    field_index = _index(field_index, len(lens.fields), "field_index")
    point_count = int(point_count)
    if point_count < 1:
        raise native.NuvrixError("point_count must be at least 1")
    shape = (lens.wave_count, point_count + 1)
    tangential = np.zeros(shape, dtype=native.FAN_POINT)
    sagittal = np.zeros(shape, dtype=native.FAN_POINT)
    header = np.zeros(1, dtype=native.FAN_HEADER)
    status = native.library().nuvrix_compute_transverse_ray_fan(
        native.pointer(lens.surfaces), lens.surface_count, native.pointer(lens.indices),
        lens.wave_count, native.pointer(lens.config), native.pointer(lens.fields),
        len(lens.fields), field_index, point_count, native.pointer(tangential),
        native.pointer(sagittal), native.pointer(header))
    if status != 0:
        raise native.NuvrixError(_SPOT_STATUS.get(status, "the ray fan failed"), status)
    return tangential, sagittal


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
