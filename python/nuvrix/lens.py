"""A sequential optical system as the engine's flat records, editable from
Python: surfaces, an index table of wavelengths by surfaces, fields,
wavelengths, the configuration, and a merit function's operands,
variables and pickups."""

import ctypes
import json

import numpy as np

from . import _native as native

__all__ = ["Lens"]


class Lens:
    """The records of one system.

    surfaces:   structured array of SURFACE, surface 0 the object
    indices:    float array (wavelengths, surfaces): the index behind each
                surface at each wavelength
    wavelengths_um, fields (structured FIELD), config (one CONFIG record),
    operands, variables, pickups (structured, possibly empty)."""

    def __init__(self, surface_count, wavelengths_um, field_count=1):
        self.name = ""
        self.default_merit = False
        self.surfaces = np.zeros(surface_count, dtype=native.SURFACE)
        self.surfaces["aperture_percent"] = 100.0
        self.wavelengths_um = np.asarray(wavelengths_um, dtype=np.float64).copy()
        self.indices = np.ones((len(self.wavelengths_um), surface_count), dtype=np.float64)
        self.fields = np.zeros(field_count, dtype=native.FIELD)
        self.config = np.zeros(1, dtype=native.CONFIG)
        self.operands = np.zeros(0, dtype=native.OPERAND)
        self.variables = np.zeros(0, dtype=native.VARIABLE)
        self.pickups = np.zeros(0, dtype=native.PICKUP)

    @classmethod
    def from_records(cls, radii, thicknesses, indices, wavelengths_um, fields, stop_surface,
                     aperture_value, field_type=0):
        """A system from its radii (0 or inf: plane), thicknesses, index
        rows (wavelengths by surfaces) and field values."""
        lens = cls(len(radii), wavelengths_um, len(fields))
        radii = np.asarray(radii, dtype=np.float64)
        with np.errstate(divide="ignore"):
            curvature = np.where((radii == 0.0) | ~np.isfinite(radii), 0.0, 1.0 / radii)
        lens.surfaces["curvature"] = curvature
        lens.surfaces["thickness"] = thicknesses
        lens.indices[:] = np.asarray(indices, dtype=np.float64).reshape(lens.indices.shape)
        lens.fields["field_y"] = fields
        lens.config["stop_surface"] = stop_surface
        lens.config["aperture_value"] = aperture_value
        lens.config["field_type"] = field_type
        return lens

    @classmethod
    def from_file(cls, path):
        """A JSON lens file, read by the nuvrix tool's own reader (the same
        format and rules, examples/README.md): its records, its merit block
        (or the report's default merit function), variables and pickups."""
        return cls._read(str(path).encode())

    @classmethod
    def cooke_triplet(cls):
        """The tool's built-in Cooke triplet (f = 50 mm, f/5, fields 0, 14
        and 20 degrees, three wavelengths), with the default merit function."""
        return cls._read(None)

    @classmethod
    def _read(cls, path):
        reader = native.lensfile()
        error = ctypes.create_string_buffer(512)
        handle = ctypes.c_void_p()
        if reader.nuvrix_lensfile_load(path, ctypes.byref(handle), error, len(error)) != 0:
            raise native.NuvrixError(error.value.decode(errors="replace"))
        return cls._take(reader, handle)

    @classmethod
    def _take(cls, reader, handle):
        """The lens that a reader's handle holds; frees the handle."""
        try:
            counts = np.zeros(7, dtype=np.int32)
            reader.nuvrix_lensfile_counts(handle, counts.ctypes.data)
            n, w, f, o, v, p = (int(c) for c in counts[:6])
            lens = cls(n, np.zeros(w), f)
            lens.name = reader.nuvrix_lensfile_name(handle).decode(errors="replace")
            lens.default_merit = bool(counts[6])
            lens.operands = np.zeros(o, dtype=native.OPERAND)
            lens.variables = np.zeros(v, dtype=native.VARIABLE)
            lens.pickups = np.zeros(p, dtype=native.PICKUP)
            arrays = [lens.surfaces, lens.indices, lens.wavelengths_um, lens.fields, lens.config,
                      lens.operands, lens.variables, lens.pickups]
            reader.nuvrix_lensfile_copy(handle, *[native.pointer(a) for a in arrays])
        finally:
            reader.nuvrix_lensfile_free(handle)
        return lens

    def _read_blocks(self, **blocks):
        """Reads lens-file blocks (merit, variables, pickups) with the tool's
        reader against this lens's records, and takes them."""
        self.check()
        try:
            text = json.dumps(blocks, allow_nan=False)
        except (TypeError, ValueError) as e:
            raise native.NuvrixError(f"the blocks are not JSON: {e}") from None
        reader = native.lensfile()
        error = ctypes.create_string_buffer(512)
        handle = ctypes.c_void_p()
        records = [self.surfaces, self.surface_count, self.indices, self.wavelengths_um,
                   self.wave_count, self.config, self.fields, len(self.fields)]
        records = [native.pointer(r) if isinstance(r, np.ndarray) else r for r in records]
        if reader.nuvrix_lensfile_read_blocks(text.encode(), *records, ctypes.byref(handle),
                                              error, len(error)) != 0:
            raise native.NuvrixError(error.value.decode(errors="replace"))
        read = Lens._take(reader, handle)
        if "merit" in blocks:
            self.operands, self.default_merit = read.operands, read.default_merit
        if "variables" in blocks:
            self.variables = read.variables
        if "pickups" in blocks:
            self.pickups = read.pickups

    def set_merit(self, merit):
        """The merit function as a lens file's merit block gives it: a list
        of operands ({"operand": "EFFECTIVE_FOCAL_LENGTH" or its code, "target": .., "weight":
        .., "field": .., "px": .., ...}), or "default", or {"default":
        {"rings": .., "focal_length": ..}}.  The tool's reader reads it with
        its rules (examples/README.md) against the present records, so set
        surfaces, wavelengths and fields first."""
        self._read_blocks(merit=merit)

    def set_variables(self, variables):
        """What an optimisation may change, as a lens file's variables block:
        [{"kind": "curvature", "surface": 2, "lower": .., "upper": ..}, ..]."""
        self._read_blocks(variables=variables)

    def set_pickups(self, pickups):
        """Parameters tied to others, as a lens file's pickups block:
        [{"kind": "thickness", "target": 5, "source": 1, "factor": ..,
        "offset": ..}, ..]."""
        self._read_blocks(pickups=pickups)

    def set_wavelengths(self, wavelengths_um, indices, primary=0):
        """New wavelengths (micrometres) with the index behind every surface
        at each: indices of shape (wavelengths, surfaces)."""
        wavelengths_um = np.array(wavelengths_um, dtype=np.float64, ndmin=1)
        indices = np.array(indices, dtype=np.float64, ndmin=2)
        if indices.shape != (len(wavelengths_um), self.surface_count):
            raise native.NuvrixError("indices must have the shape (wavelengths, surfaces)")
        primary = int(primary)
        if not 0 <= primary < len(wavelengths_um):
            raise native.NuvrixError("primary must be a row of the wavelengths")
        self.wavelengths_um, self.indices = wavelengths_um, np.ascontiguousarray(indices)
        self.config["primary_wavelength"] = primary

    def set_fields(self, field_y, field_x=None, heights=None):
        """New fields: angles in degrees (or heights in mm with heights True;
        None keeps the present kind)."""
        field_y = np.array(field_y, dtype=np.float64, ndmin=1)
        field_x = np.zeros_like(field_y) if field_x is None else \
            np.array(field_x, dtype=np.float64, ndmin=1)
        if len(field_y) < 1 or field_x.shape != field_y.shape:
            raise native.NuvrixError("fields need as many x as y values, at least one")
        self.fields = np.zeros(len(field_y), dtype=native.FIELD)
        self.fields["field_y"], self.fields["field_x"] = field_y, field_x
        if heights is not None:
            self.config["field_type"] = 1 if heights else 0

    _APERTURES = {"epd": 0, "fnumber": 1, "na": 2}

    def set_aperture(self, value, kind="epd"):
        """The aperture: "epd" the entrance pupil diameter in mm, "fnumber"
        the image-space F-number, "na" the object-space numerical aperture."""
        if kind not in self._APERTURES or not float(value) > 0.0:
            raise native.NuvrixError(f"the aperture takes a positive value and a kind of "
                                     f"{sorted(self._APERTURES)}")
        self.config["aperture_type"] = self._APERTURES[kind]
        self.config["aperture_value"] = float(value)

    def copy(self):
        """A lens of copies of these records."""
        other = Lens.__new__(Lens)
        for key, value in self.__dict__.items():
            setattr(other, key, value.copy() if isinstance(value, np.ndarray) else value)
        return other

    def solve_semi_diameters(self):
        """Solves the automatic semi-diameters in place, as the engine does
        for every evaluation."""
        self.check()
        native.library().nuvrix_solve_semi_diameters(
            native.pointer(self.surfaces), self.surface_count, native.pointer(self.indices),
            native.pointer(self.wavelengths_um), self.wave_count, native.pointer(self.config),
            native.pointer(self.fields), len(self.fields))
        return self

    @property
    def surface_count(self):
        return len(self.surfaces)

    @property
    def wave_count(self):
        return len(self.wavelengths_um)

    def check(self):
        """Raises NuvrixError unless the arrays are what the engine reads:
        their dtypes, contiguity and shapes agree with one another."""
        n, w = self.surface_count, self.wave_count
        wants = [("surfaces", native.SURFACE), ("fields", native.FIELD),
                 ("config", native.CONFIG), ("operands", native.OPERAND),
                 ("variables", native.VARIABLE), ("pickups", native.PICKUP)]
        for name, dtype in wants:
            a = getattr(self, name)
            if not isinstance(a, np.ndarray) or a.dtype != dtype or not a.flags.c_contiguous:
                raise native.NuvrixError(f"Lens.{name} must be a contiguous array of its dtype")
        if self.config.shape != (1,):
            raise native.NuvrixError("Lens.config holds one record")
        for name, shape in [("indices", (w, n)), ("wavelengths_um", (w,))]:
            a = getattr(self, name)
            if a.dtype != np.float64 or a.shape != shape or not a.flags.c_contiguous:
                raise native.NuvrixError(f"Lens.{name} must be contiguous float64 of shape {shape}")
        if n < 1 or w < 1 or len(self.fields) < 1:
            raise native.NuvrixError("a lens needs a surface, a wavelength and a field")
