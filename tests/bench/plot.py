"""Bar charts as plain SVG."""

import math
from html import escape

COLOURS = ["#1b6ca8", "#5fa8d3", "#c8553d", "#588b8b", "#9ec1a3", "#8a6fae", "#b8b8b8", "#d9a441", "#7a8c3f", "#a0522d", "#4a4a6a"]
LEFT, TOP, WIDTH, HEIGHT, BAR = 70, 88, 860, 280, 8


def number(value):
    return f"{value:.3g}" if value < 1000 else f"{value:,.0f}"


def steps(smallest, largest, log):
    """Values for the lines of the scale; the first and the last are its ends."""
    if log:
        low, high = math.floor(math.log10(smallest)), math.ceil(math.log10(largest) + 1e-9)
        return [10.0**power for power in range(low, max(high, low + 1) + 1)]
    unit = 10.0 ** math.floor(math.log10(largest))
    unit = next(unit * part for part in (0.1, 0.2, 0.5, 1, 2) if largest / (unit * part) <= 8)
    return [unit * count for count in range(math.ceil(largest / unit - 1e-9) + 1)]


def grouped_bars(path, title, unit, groups, series, log=False, aim=None):
    """`series` is a list of (name, values by group, upper values by group or none); None stands for a bar that is not there. An upper value is
    drawn as a whisker. `aim` is a value at which a line is drawn."""
    every = [value for _, values, upper in series for value in [*values, *(upper or [])] if value]
    scale = steps(min(every), max(every + ([aim] if aim else [])), log)

    def height(value):
        if log:
            return HEIGHT * math.log(value / scale[0]) / math.log(scale[-1] / scale[0])
        return HEIGHT * value / scale[-1]

    bottom, right = TOP + HEIGHT, LEFT + WIDTH
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {right + 20} {bottom + 50}" '
           'font-family="sans-serif" font-size="12" fill="#222">',
           f'<rect width="{right + 20}" height="{bottom + 50}" fill="#fff"/>',
           f'<text x="{LEFT}" y="22" font-size="15" font-weight="bold">{escape(title)}</text>',
           f'<text x="{LEFT - 8}" y="{TOP - 14}" text-anchor="end">{escape(unit)}</text>']
    for value in scale:
        y = bottom - height(value)
        out.append(f'<path d="M{LEFT} {y:.1f}H{right}" stroke="#ddd"/>'
                   f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{number(value)}</text>')
    x, y = LEFT, 36
    for index, (name, _, _) in enumerate(series):
        wanted = 40 + 7 * len(name)
        if x + wanted > right:
            x, y = LEFT, y + 18
        out.append(f'<rect x="{x}" y="{y}" width="12" height="12" fill="{COLOURS[index % len(COLOURS)]}"/>'
                   f'<text x="{x + 17}" y="{y + 10}">{escape(name)}</text>')
        x += wanted
    room = WIDTH / len(groups)
    wide = (room - 3 * BAR) / len(series)
    for index, (_, values, upper) in enumerate(series):
        colour = COLOURS[index % len(COLOURS)]
        for group, value in enumerate(values):
            if not value:
                continue
            x, y = LEFT + group * room + 1.5 * BAR + index * wide, bottom - height(value)
            out.append(f'<rect x="{x:.1f}" y="{y:.1f}" width="{wide - 2:.1f}" height="{bottom - y:.1f}" fill="{colour}"/>')
            end = y
            if upper and upper[group]:
                end = bottom - height(upper[group])
                out.append(f'<path d="M{x + wide / 2 - 1:.1f} {y:.1f}V{end:.1f}m-4 0h8" stroke="#222" fill="none"/>')
            out.append(f'<text x="{x + wide / 2 - 1:.1f}" y="{end - 4:.1f}" text-anchor="middle" font-size="9">{number(value)}</text>')
    for group, name in enumerate(groups):
        out.append(f'<text x="{LEFT + (group + 0.5) * room:.1f}" y="{bottom + 20}" text-anchor="middle">{escape(name)}</text>')
    if aim:
        y = bottom - height(aim)
        out.append(f'<path d="M{LEFT} {y:.1f}H{right}" stroke="#c00" stroke-dasharray="6 4"/>'
                   f'<text x="{right}" y="{TOP - 6}" text-anchor="end" fill="#c00">- - aim {number(aim)}</text>')
    out.append(f'<path d="M{LEFT} {TOP}V{bottom}H{right}" stroke="#222" fill="none"/></svg>')
    path.write_text("\n".join(out) + "\n")
