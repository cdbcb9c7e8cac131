"""Figures of a lens as a designer reads them, drawn with matplotlib from
the engine's results: spot diagrams per field with a colour a wavelength,
and the transverse ray fans.  Each function returns its figure; write()
saves the whole set as PNG files."""

import pathlib

import matplotlib

matplotlib.use("Agg")  # files, not windows
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402

from . import calls  # noqa: E402

__all__ = ["layout", "spot_diagrams", "ray_fans", "opd_fans", "wavefront_maps", "psfs", "mtf_curves",
           "geometric_mtf_curves", "field_curvature_distortion", "encircled_energies", "write"]

_COLOURS = ["tab:blue", "tab:green", "tab:red", "tab:purple", "tab:orange", "tab:brown"]


def _field_label(lens, f):
    unit = "deg" if int(lens.config["field_type"][0]) == 0 else "mm"
    return f"field {f} ({lens.fields['field_y'][f]:g} {unit})"


def _wave_label(lens, w):
    return f"{lens.wavelengths_um[w] * 1000:.1f} nm"


def _sag(surface, y):
    """The sag of a surface at heights y, for drawing it: the conic and the
    polynomial terms of an even asphere."""
    c, k = surface["curvature"], surface["conic"]
    r2 = y * y
    radicand = np.clip(1.0 - (1.0 + k) * c * c * r2, 0.0, None)
    sag = c * r2 / (1.0 + np.sqrt(radicand))
    if int(surface["type"]) == 1:
        power = r2.copy()
        for a in surface["coefficients"]:
            sag = sag + a * power
            power = power * r2
    return sag


def layout(lens):
    """The lens in section (y against z from surface 1, in mm): every
    surface up to its solved semi-diameter, the elements' edges, and five
    meridional rays of each field, a colour a field."""
    fig, ax = plt.subplots(figsize=(9.0, 4.6))
    surfaces = None
    for f in range(len(lens.fields)):
        paths, surfaces = calls.layout_rays(lens, f)
        for k, path in enumerate(paths):
            ax.plot(path[:, 0], path[:, 1], color=_COLOURS[f % len(_COLOURS)], linewidth=0.8,
                    label=_field_label(lens, f) if k == 0 else None)
    n = lens.surface_count
    vertex = np.concatenate([[0.0], np.cumsum(surfaces["thickness"][1:n - 1])])
    edges = []
    for k in range(1, n):
        h = max(float(surfaces["semi_diameter"][k]), 1e-3)
        y = np.linspace(-h, h, 81)
        z = vertex[k - 1] + _sag(surfaces[k], y)
        ax.plot(z, y, color="black", linewidth=1.2 if k < n - 1 else 0.8)
        edges.append((z[0], z[-1], h))
    # A glass behind surface k: its two rims joined at top and bottom.
    for k in range(1, n - 1):
        if not surfaces["is_glass"][k]:
            continue
        (front_low, front_high, h0), (back_low, back_high, h1) = edges[k - 1], edges[k]
        ax.plot([front_high, back_high], [h0, h1], color="black", linewidth=1.2)
        ax.plot([front_low, back_low], [-h0, -h1], color="black", linewidth=1.2)
    ax.set_aspect("equal", adjustable="datalim")
    ax.set_xlabel("z from surface 1 (mm)")
    ax.set_ylabel("y (mm)")
    ax.grid(alpha=0.3)
    ax.legend(fontsize=8, loc="lower left")
    ax.set_title(f"Layout: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def spot_diagrams(lens, grid_size=8):
    """One panel a field: the ray hits about the primary chief ray in
    micrometres, a colour a wavelength, with the RMS radius."""
    fields = len(lens.fields)
    fig, axes = plt.subplots(1, fields, figsize=(3.6 * fields + 0.6, 4.2), squeeze=False)
    for f, ax in enumerate(axes[0]):
        result, hits = calls.spot_diagram(lens, f, grid_size=grid_size)
        x = (hits["x"] - result["chief_x"]) * 1000.0
        y = (hits["y"] - result["chief_y"]) * 1000.0
        for w in range(lens.wave_count):
            on = hits["wavelength_index"] == w
            ax.scatter(x[on], y[on], s=4, color=_COLOURS[w % len(_COLOURS)],
                       label=_wave_label(lens, w))
        ax.set_aspect("equal", adjustable="datalim")
        ax.set_title(f"{_field_label(lens, f)}\nRMS {result['rms_radius'] * 1000:.2f} um",
                     fontsize=9)
        ax.set_xlabel("x from chief ray (um)")
        ax.set_ylabel("y from chief ray (um)")
        ax.grid(alpha=0.3)
    axes[0][0].legend(fontsize=8, markerscale=2)
    fig.suptitle(f"Spot diagrams: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def _fans(lens, fan_of, ylabel, scale, title):
    """Tangential and sagittal fans, a row a field, a colour a wavelength."""
    fields = len(lens.fields)
    fig, axes = plt.subplots(fields, 2, figsize=(8.0, 2.6 * fields + 0.6), squeeze=False)
    for f in range(fields):
        for k, fan in enumerate(fan_of(f)):
            ax = axes[f][k]
            for w in range(lens.wave_count):
                ok = fan["valid"][w] == 1
                ax.plot(fan["pupil_coordinate"][w][ok], fan["value"][w][ok] * scale,
                        color=_COLOURS[w % len(_COLOURS)], label=_wave_label(lens, w))
            ax.axhline(0.0, color="black", linewidth=0.6)
            ax.set_title(f"{_field_label(lens, f)}, {'tangential' if k == 0 else 'sagittal'}",
                         fontsize=9)
            ax.set_xlabel("py" if k == 0 else "px")
            ax.set_ylabel(ylabel[k])
            ax.set_xlim(-1.0, 1.0)
            ax.grid(alpha=0.3)
    axes[0][0].legend(fontsize=8)
    fig.suptitle(f"{title}: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def ray_fans(lens, point_count=40):
    """Transverse ray fans in micrometres from the primary chief ray: ey
    against py (tangential) and ex against px (sagittal)."""
    return _fans(lens, lambda f: calls.ray_fan(lens, f, point_count), ["ey (um)", "ex (um)"],
                 1000.0, "Transverse ray fans")


def opd_fans(lens, point_count=40):
    """Tangential and sagittal OPD fans in waves."""
    return _fans(lens, lambda f: calls.opd_fan(lens, f, point_count),
                 ["OPD (waves)", "OPD (waves)"], 1.0, "OPD fans")


def wavefront_maps(lens, grid_size=64):
    """The wavefront over the pupil at the primary wavelength, a panel a
    field, in waves, with its peak-to-valley and RMS."""
    fields = len(lens.fields)
    fig, axes = plt.subplots(1, fields, figsize=(3.8 * fields + 0.6, 3.9), squeeze=False)
    for f, ax in enumerate(axes[0]):
        values, result = calls.wavefront_map(lens, f, grid_size)
        image = ax.imshow(values, origin="lower", extent=(-1, 1, -1, 1), cmap="RdBu_r")
        fig.colorbar(image, ax=ax, label="waves", shrink=0.85)
        ax.set_title(f"{_field_label(lens, f)}\nPV {result['peak_to_valley']:.3f}, "
                     f"RMS {result['rms']:.3f} waves", fontsize=9)
        ax.set_xlabel("px")
        ax.set_ylabel("py")
    fig.suptitle(f"Wavefront maps at {_wave_label(lens, calls._primary(lens))}: {lens.name}",
                 fontsize=10)
    fig.tight_layout()
    return fig


def psfs(lens, grid_size=64):
    """The diffraction PSF at the primary wavelength, a panel a field, on
    image axes in micrometres, normalised to its peak, with its Strehl
    ratio."""
    fields = len(lens.fields)
    fig, axes = plt.subplots(1, fields, figsize=(3.8 * fields + 0.6, 3.9), squeeze=False)
    for f, ax in enumerate(axes[0]):
        image, result = calls.psf(lens, f, grid_size)
        half = image.shape[0] * result["pixel_pitch"] * 1000.0 / 2.0
        shown = ax.imshow(image, origin="lower", extent=(-half, half, -half, half), cmap="inferno")
        fig.colorbar(shown, ax=ax, label="relative intensity", shrink=0.85)
        ax.set_xlim(-half / 4, half / 4)
        ax.set_ylim(-half / 4, half / 4)
        ax.set_title(f"{_field_label(lens, f)}\nStrehl {result['strehl']:.3f}", fontsize=9)
        ax.set_xlabel("x (um)")
        ax.set_ylabel("y (um)")
    fig.suptitle(f"PSF at {_wave_label(lens, calls._primary(lens))}: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def _per_field(lens, curve, xlabel, ylabel, title, extra=None):
    """One axis of curves from 0 to 1, a colour a field: curve(f) gives the
    abscissae and the (values, label, line style) of field f; extra(ax)
    draws what every field shares."""
    fig, ax = plt.subplots(figsize=(7.0, 4.6))
    for f in range(len(lens.fields)):
        x, lines = curve(f)
        colour = _COLOURS[f % len(_COLOURS)]
        for values, label, style in lines:
            ax.plot(x, values, color=colour, linestyle=style,
                    label=f"{_field_label(lens, f)} {label}")
    if extra is not None:
        extra(ax)
    ax.set_xlim(0.0, x[-1])
    ax.set_ylim(0.0, 1.02)
    ax.set_xlabel(xlabel)
    ax.set_ylabel(ylabel)
    ax.grid(alpha=0.3)
    ax.legend(fontsize=8)
    ax.set_title(title, fontsize=10)
    fig.tight_layout()
    return fig


def _tangential_sagittal(nu, t, s):
    return nu, [(t, "T", "-"), (s, "S", "--")]


def mtf_curves(lens, grid_size=64):
    """The diffraction MTF at the primary wavelength against frequency,
    tangential (solid) and sagittal (dashed), a colour a field, with the
    diffraction limit of the same aperture."""
    cutoff = calls.quality(lens)[2]

    def limit(ax):
        phi = np.arccos(np.linspace(0.0, 1.0, 200))
        ax.plot(np.cos(phi) * cutoff, 2.0 / np.pi * (phi - np.cos(phi) * np.sin(phi)),
                color="black", linewidth=1.0, label="diffraction limit")

    return _per_field(lens, lambda f: _tangential_sagittal(*calls.mtf(lens, f, grid_size)[:3]),
                      "spatial frequency (cycles/mm)", "MTF",
                      f"Diffraction MTF at {_wave_label(lens, calls._primary(lens))}: {lens.name}",
                      limit)


def geometric_mtf_curves(lens):
    """The geometric MTF of the spot's rays over every wavelength against
    frequency up to 100 cycles/mm, tangential (solid) and sagittal
    (dashed), a colour a field."""
    return _per_field(
        lens, lambda f: _tangential_sagittal(*calls.geometric_mtf(lens, f, grid_size=2048)),
        "spatial frequency (cycles/mm)", "MTF", f"Geometric MTF, all wavelengths: {lens.name}")


def field_curvature_distortion(lens):
    """Tangential and sagittal foci against the field (field curvature and
    astigmatism), and distortion in percent, at the primary wavelength."""
    points = calls.field_curves(lens)
    unit = "deg" if int(lens.config["field_type"][0]) == 0 else "mm"
    fig, (left, right) = plt.subplots(1, 2, figsize=(8.0, 4.4))
    left.plot(points["tangential_focus"], points["field"], color="tab:blue", label="tangential")
    left.plot(points["sagittal_focus"], points["field"], color="tab:red", linestyle="--",
              label="sagittal")
    left.axvline(0.0, color="black", linewidth=0.6)
    left.set_xlabel("focus from the image surface (mm)")
    left.set_ylabel(f"field ({unit})")
    left.set_title("field curvature", fontsize=9)
    left.legend(fontsize=8)
    off_axis = points["field"] > 0.0  # on the axis distortion has no height to refer to
    right.plot(points["distortion_percent"][off_axis], points["field"][off_axis], color="tab:green")
    right.axvline(0.0, color="black", linewidth=0.6)
    right.set_xlabel("distortion (%)")
    right.set_ylabel(f"field ({unit})")
    right.set_title("distortion", fontsize=9)
    for ax in (left, right):
        ax.set_ylim(0.0, points["field"].max())
        ax.grid(alpha=0.3)
    fig.suptitle(f"Field curvature and distortion at "
                 f"{_wave_label(lens, calls._primary(lens))}: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def encircled_energies(lens):
    """Encircled energy against the radius, a colour a field: from the
    diffraction PSF (solid) and from the geometric spot (dashed)."""
    def curve(f):
        radius, diffraction, geometric = calls.encircled_energy(lens, f)
        return radius, [(diffraction, "diffraction", "-"), (geometric, "geometric", "--")]

    return _per_field(lens, curve, "radius (um)", "encircled energy",
                      f"Encircled energy: {lens.name}")


def write(lens, out):
    """Writes every figure of the set as a PNG under out; returns the paths."""
    out = pathlib.Path(out)
    out.mkdir(parents=True, exist_ok=True)
    paths = []
    for name, draw in [("layout", layout), ("spots", spot_diagrams), ("ray_fans", ray_fans),
                       ("opd_fans", opd_fans), ("wavefront", wavefront_maps), ("psf", psfs),
                       ("mtf", mtf_curves),
                       ("geometric_mtf", geometric_mtf_curves),
                       ("field_curves", field_curvature_distortion),
                       ("encircled_energy", encircled_energies)]:
        fig = draw(lens)
        path = out / f"{name}.png"
        fig.savefig(path, dpi=110)
        plt.close(fig)
        paths.append(path)
    return paths
