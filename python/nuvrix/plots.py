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

__all__ = ["spot_diagrams", "ray_fans", "write"]

_COLOURS = ["tab:blue", "tab:green", "tab:red", "tab:purple", "tab:orange", "tab:brown"]


def _field_label(lens, f):
    unit = "deg" if int(lens.config["field_type"][0]) == 0 else "mm"
    return f"field {f} ({lens.fields['field_y'][f]:g} {unit})"


def _wave_label(lens, w):
    return f"{lens.wavelengths_um[w] * 1000:.1f} nm"


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


def ray_fans(lens, point_count=40):
    """Tangential (ey against py) and sagittal (ex against px) transverse
    ray fans in micrometres, a row a field, a colour a wavelength."""
    fields = len(lens.fields)
    fig, axes = plt.subplots(fields, 2, figsize=(8.0, 2.6 * fields + 0.6), squeeze=False)
    for f in range(fields):
        fans = calls.ray_fan(lens, f, point_count)
        for k, (fan, name) in enumerate(zip(fans, ["tangential: ey (um)", "sagittal: ex (um)"])):
            ax = axes[f][k]
            for w in range(lens.wave_count):
                ok = fan["valid"][w] == 1
                ax.plot(fan["pupil_coordinate"][w][ok], fan["value"][w][ok] * 1000.0,
                        color=_COLOURS[w % len(_COLOURS)], label=_wave_label(lens, w))
            ax.axhline(0.0, color="black", linewidth=0.6)
            ax.set_title(f"{_field_label(lens, f)}, {name.split(':')[0]}", fontsize=9)
            ax.set_xlabel("py" if k == 0 else "px")
            ax.set_ylabel(name.split(": ")[1])
            ax.set_xlim(-1.0, 1.0)
            ax.grid(alpha=0.3)
    axes[0][0].legend(fontsize=8)
    fig.suptitle(f"Transverse ray fans: {lens.name}", fontsize=10)
    fig.tight_layout()
    return fig


def write(lens, out):
    """Writes every figure of the set as a PNG under out; returns the paths."""
    out = pathlib.Path(out)
    out.mkdir(parents=True, exist_ok=True)
    paths = []
    for name, draw in [("spots", spot_diagrams), ("ray_fans", ray_fans)]:
        fig = draw(lens)
        path = out / f"{name}.png"
        fig.savefig(path, dpi=110)
        plt.close(fig)
        paths.append(path)
    return paths
