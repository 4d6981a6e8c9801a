# SPDX-License-Identifier: Apache-2.0
"""Tables of a run, as text that reads well on a terminal and as Markdown."""


def table(head, rows):
    """A Markdown table with aligned columns; the first is text, the others are numbers."""
    cells = [list(head), *[[str(cell) for cell in row] for row in rows]]
    widths = [max(len(row[i]) for row in cells) for i in range(len(head))]
    lines = []
    for row in cells:
        words = [row[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(row[1:], widths[1:]))]
        lines.append("| " + " | ".join(words) + " |")
    rule = ["-" * widths[0], *("-" * (width - 1) + ":" for width in widths[1:])]
    lines.insert(1, "| " + " | ".join(rule) + " |")
    return "\n".join(lines)


def spread(values):
    return f"{min(values):,.0f} to {max(values):,.0f}"


def ratio_cells(ratio):
    return (f"{ratio['median']:.2f}", f"{ratio['least']:.2f} to {ratio['most']:.2f}") if ratio else ("", "")


def ratio_table(results):
    processor = results.ratios("processor_us")
    rows = [(key, *ratio_cells(rate), *ratio_cells(processor.get(key))) for key, rate in results.ratios().items()]
    return table(("ratio", "median", "spread", "by processor time", "spread"), rows)


# What our own generator tells besides the rate.
DETAILS = {"processor_us": ("server's us each", "{:.1f}"), "p50_us": ("p50 us", "{:,.0f}"), "p99_us": ("p99 us", "{:,.0f}"),
           "generator_busy": ("generator busy", "{:.0%}")}


def measure_table(results, measure):
    contenders = results.rounds[measure]
    names = [name for name in DETAILS if all(results.has(measure, contender, name) for contender in contenders)]
    rows = [(results.contenders[contender], f"{results.median(measure, contender):,.0f}",
             spread(results.values(measure, contender)),
             *(DETAILS[name][1].format(results.median(measure, contender, name)) for name in names))
            for contender in contenders]
    title, unit = results.titles[measure]
    head = ("contender", f"{unit}/s", "spread", *(DETAILS[name][0] for name in names))
    return f"### {title[0].upper()}{title[1:]}\n\n{table(head, rows)}"


def memory_table(results):
    return table(("memory (PSS)", "MiB"), [(what, f"{kib / 1024:.1f}") for what, kib in results.memory.items()])


def growth_table(results, prefix):
    """How far the rates of the gateway and of back-mdb move, by measures whose keys begin so."""
    rows = []
    for measure in results.rounds:
        if measure.startswith(prefix):
            ratio = results.ratio(measure, "gateway", "mdb")
            rows.append((results.titles[measure][0], *(f"{results.median(measure, key):,.0f}" for key in ("gateway", "mdb")),
                         *ratio_cells(ratio)))
    return table(("look-ups per second", "gateway", "back-mdb", "ratio", "spread"), rows)


def roundtrip_table(results):
    names = next(iter(results.roundtrips.values()), {})
    return table(("libvex", *results.roundtrips),
                 [(name, *(found[name] for found in results.roundtrips.values())) for name in names])


def check_text(value):
    return value if isinstance(value, str) else "; ".join(f"{name} {number}" for name, number in value.items())


def markdown(results):
    facts = "\n".join(f"- {name}: {value}" for name, value in results.facts.items())
    checks = "\n".join(f"- {name}: {check_text(value)}" for name, value in results.checks.items())
    measures = "\n\n".join(measure_table(results, measure) for measure in results.rounds)
    return f"""# Results of the benchmark

Every figure is the median of the rounds; a ratio is formed within each round, and
above 1 is in this gateway's favour. What each one means: bench/README.md.

## Ratios

{ratio_table(results)}

![the ratios](ratios.svg)

## How it was measured

{facts}
{checks}

## Growth

{growth_table(results, "connections_")}

{growth_table(results, "people_")}

## Memory

{memory_table(results)}

## Round trips of libvex (microseconds, bytes, ratios)

{roundtrip_table(results)}

## Figures

{measures}
"""
