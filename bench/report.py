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


def ratio_table(results):
    rates, processor = results.ratios(), results.ratios("processor_us")
    rows = [(key, f"{rate['median']:.2f}", f"{rate['least']:.2f} to {rate['most']:.2f}",
             f"{processor[key]['median']:.2f}",
             f"{processor[key]['least']:.2f} to {processor[key]['most']:.2f}") for key, rate in rates.items()]
    return table(("ratio", "median", "spread", "by processor time", "spread"), rows)


def measure_table(results, measure):
    rows = []
    for contender in results.rounds[measure]:
        rates = results.values(measure, contender)
        rows.append((results.contenders[contender], f"{results.median(measure, contender):,.0f}", spread(rates),
                     f"{results.median(measure, contender, 'processor_us'):.1f}",
                     f"{results.median(measure, contender, 'p50_us'):,.0f}",
                     f"{results.median(measure, contender, 'p99_us'):,.0f}",
                     f"{100 * results.median(measure, contender, 'generator_busy'):.0f} %"))
    title, unit = results.titles[measure]
    head = ("contender", f"{unit}/s", "spread", "server's us each", "p50 us", "p99 us", "generator busy")
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
                         f"{ratio['median']:.2f}", f"{ratio['least']:.2f} to {ratio['most']:.2f}"))
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
