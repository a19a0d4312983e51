"""Curves and points over time as plain SVG."""

import sys
from html import escape
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "bench"))

from plot import COLOURS, number, steps  # noqa: E402

LEFT, TOP, WIDTH, HEIGHT = 70, 64, 860, 280


def over_time(path, title, unit, series, points=False, x_unit="minutes"):
    """`series` is a list of (name, [(x, y), ...]), drawn as curves from zero or, with `points`, as dots."""
    widest = max(x for _, values in series for x, _ in values) or 1
    scale = steps(1, max(max(y for _, values in series for _, y in values), 1e-9), False)
    bottom, right = TOP + HEIGHT, LEFT + WIDTH

    def place(x, y):
        return f"{LEFT + WIDTH * x / widest:.1f} {bottom - HEIGHT * y / scale[-1]:.1f}"

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {right + 20} {bottom + 50}" font-family="sans-serif" font-size="12" fill="#222">',
           f'<rect width="{right + 20}" height="{bottom + 50}" fill="#fff"/>',
           f'<text x="{LEFT}" y="22" font-size="15" font-weight="bold">{escape(title)}</text>',
           f'<text x="{LEFT - 8}" y="{TOP - 10}" text-anchor="end">{escape(unit)}</text>']
    for value in scale:
        y = bottom - HEIGHT * value / scale[-1]
        out.append(f'<path d="M{LEFT} {y:.1f}H{right}" stroke="#ddd"/>'
                   f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{number(value)}</text>')
    for value in steps(1, widest, False):
        if value <= widest:
            x = LEFT + WIDTH * value / widest
            out.append(f'<text x="{x:.1f}" y="{bottom + 18}" text-anchor="middle">{number(value)}</text>')
    out.append(f'<text x="{right}" y="{bottom + 36}" text-anchor="end">{escape(x_unit)}</text>')
    for index, (name, values) in enumerate(series):
        colour = COLOURS[index % len(COLOURS)]
        x = LEFT + index * WIDTH / len(series)
        out.append(f'<rect x="{x:.1f}" y="36" width="12" height="12" fill="{colour}"/><text x="{x + 17:.1f}" y="46">{escape(name)}</text>')
        if points:
            out += [f'<circle cx="{place(*value).split()[0]}" cy="{place(*value).split()[1]}" r="3" fill="{colour}" fill-opacity="0.7"/>'
                    for value in values]
        elif values:
            out.append(f'<path d="M{"L".join(place(*value) for value in values)}" stroke="{colour}" fill="none" stroke-width="1.5"/>')
    out.append(f'<path d="M{LEFT} {TOP}V{bottom}H{right}" stroke="#222" fill="none"/></svg>')
    Path(path).write_text("\n".join(out) + "\n")
