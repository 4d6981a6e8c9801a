# SPDX-License-Identifier: Apache-2.0
"""The ratios as a picture: a bar for each, a line where both are equal."""
from html import escape

WIDTH, LEFT, RIGHT, ROW, TOP = 900, 270, 60, 30, 50
INK, GRID, FAST, SLOW = "#222", "#ccc", "#2a7f62", "#b5533c"


def ratio_plot(ratios):
    """ratios: {name: {"median", "least", "most"}}. The scale is linear and begins at 0."""
    largest = max([1.2, *(ratio["most"] for ratio in ratios.values())])
    # One bar that is many times as long must not make the others too small to see.
    limit = min(largest, 4.0)
    height = TOP + ROW * len(ratios) + 40

    def x(value):
        return LEFT + (WIDTH - LEFT - RIGHT) * min(value, limit) / limit

    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
             f'font-family="sans-serif" font-size="13" fill="{INK}">',
             f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
             '<text x="20" y="28" font-size="16">This gateway against others: more than 1 is faster</text>']
    for tick in range(int(limit * 2) + 1):
        parts.append(f'<line x1="{x(tick / 2):.1f}" x2="{x(tick / 2):.1f}" y1="{TOP}" y2="{height - 30}" '
                     f'stroke="{INK if tick == 2 else GRID}"/>'
                     f'<text x="{x(tick / 2):.1f}" y="{height - 12}" text-anchor="middle">{tick / 2:g}</text>')
    for row, (name, ratio) in enumerate(ratios.items()):
        parts.append(bar(name, ratio, TOP + ROW * row + 5, x))
    return "\n".join([*parts, "</svg>\n"])


def bar(name, ratio, y, x):
    middle = y + ROW / 2 - 5
    colour = FAST if ratio["median"] >= 1 else SLOW
    return (f'<text x="{LEFT - 10}" y="{middle + 5:.1f}" text-anchor="end">{escape(name)}</text>'
            f'<rect x="{LEFT}" y="{y}" width="{x(ratio["median"]) - LEFT:.1f}" height="{ROW - 10}" fill="{colour}"/>'
            f'<line x1="{x(ratio["least"]):.1f}" x2="{x(ratio["most"]):.1f}" y1="{middle:.1f}" y2="{middle:.1f}" '
            f'stroke="{INK}" stroke-width="2"/>'
            f'<text x="{x(ratio["most"]) + 6:.1f}" y="{middle + 5:.1f}">{ratio["median"]:.2f}</text>')
