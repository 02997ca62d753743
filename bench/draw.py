"""Pictures of a run, as SVG: from the JSON that the report writes, into docs/performance/."""

import html
import json
import math
import pathlib
import statistics

STYLE = """<style>
text { font: 12px sans-serif; fill: #24292f } .title { font-weight: bold } .small { font-size: 11px; fill: #57606a }
.axis { stroke: #8c959f; stroke-width: 1 } .bar { fill: #8c959f } .ours { fill: #0969da }
.line { fill: none; stroke-width: 2 }
@media (prefers-color-scheme: dark) { text { fill: #e6edf3 } .small { fill: #9198a1 } .ours { fill: #4493f8 } }
</style>"""
COLOURS = ("#0969da", "#bf8700", "#8c959f")
PARTS = ("#0969da", "#54aeff", "#bf8700", "#1a7f37", "#8250df", "#8c959f")


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.0f}" y="{y:.0f}" class="{kind}" text-anchor="{anchor}">{html.escape(content)}</text>'


def box(x, y, width, height, kind="bar", fill=""):
    style = f' style="fill: {fill}"' if fill else ""
    return f'<rect x="{x:.0f}" y="{y:.0f}" width="{max(width, 1):.1f}" height="{height}" class="{kind}"{style}/>'


def write(path, width, height, parts):
    svg = f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}">\n{STYLE}\n'
    path.write_text(svg + "\n".join(parts) + "\n</svg>\n")


def medians(results):
    return {(r["row"], r["workload"], r["direction"]): statistics.median(r["ns_per_object"]) for r in results}


def draw_sizes(path, results):
    """A panel for each size and direction, a bar for each row."""
    times = medians(results)
    rows = list(dict.fromkeys(row for row, load, _ in times
                              if load == "M" and "untraced" not in row and "traces" not in row and "memcpy" not in row))
    panel, parts = 22 + 16 * len(rows), []
    for number, size in enumerate("SML"):
        for column, direction in enumerate(("encode", "decode")):
            x, y = 10 + 460 * column, 20 + panel * number
            values = {row: times[row, size, direction] for row in rows if (row, size, direction) in times}
            parts.append(text(x, y, f"{direction} {size}, ns per match or action", "title"))
            for i, (row, value) in enumerate(values.items()):
                top = y + 6 + 16 * i
                length = 200 * value / max(values.values())
                parts.append(text(x + 190, top + 10, row, "small", "end"))
                parts.append(box(x + 196, top, length, 12, "ours" if row.startswith("libzel") else "bar"))
                parts.append(text(x + 200 + length, top + 10, f"{value:.0f}", "small"))
    write(path, 930, 20 + 3 * panel, parts)


def draw_growth(path, results):
    """A line for each row over the number of matches, whose ids are shuffled."""
    times = medians(results)
    parts = []
    for column, direction in enumerate(("encode", "decode")):
        points = {}
        for (row, load, way), value in times.items():
            if load.endswith(" random") and way == direction:
                points.setdefault(row, []).append((int(load.split()[0]), value))
        most = max(value for line in points.values() for _, value in line)
        x, y, width, height = 50 + 440 * column, 30, 340, 200
        parts.append(text(x, y - 12, f"{direction}, ns per match, by the number of distinct matches", "title"))
        parts.append(f'<path class="axis" fill="none" d="M{x} {y} V{y + height} H{x + width}"/>')
        for count in (10, 100, 1000, 10000, 65535):
            parts.append(text(x + width * math.log10(count / 10) / 3.82, y + height + 16, f"{count:,}", "small", "middle"))
        for part in range(5):
            parts.append(text(x - 6, y + height * (1 - part / 4) + 4, f"{most * part / 4:.0f}", "small", "end"))
        for (row, line), colour in zip(points.items(), COLOURS):
            places = " L".join(f"{x + width * math.log10(count / 10) / 3.82:.0f} {y + height * (1 - value / most):.0f}"
                               for count, value in sorted(line))
            parts.append(f'<path class="line" stroke="{colour}" d="M{places}"/>')
    for i, (row, colour) in enumerate(zip(points, COLOURS)):
        parts.append(box(50 + 220 * i, 262, 12, 12, fill=colour))
        parts.append(text(68 + 220 * i, 272, row, "small"))
    write(path, 930, 284, parts)


def draw_instructions(path, parts_of):
    """A bar for each direction, divided by what the instructions are there for."""
    most = max(sum(parts.values()) for parts in parts_of.values())
    drawn = [text(10, 20, "instructions per match or action in M, libzel as one binary", "title")]
    for number, (direction, parts) in enumerate(parts_of.items()):
        at = 70.0
        drawn.append(text(60, 47 + 30 * number, direction, "small", "end"))
        for (name, count), colour in zip(parts.items(), PARTS):
            drawn.append(box(at, 34 + 30 * number, 780 * count / most, 18, fill=colour) if count >= 1 else "")
            at += 780 * count / most
        drawn.append(text(at + 6, 47 + 30 * number, f"{sum(parts.values()):.0f}", "small"))
    for i, (name, colour) in enumerate(zip(parts, PARTS)):
        drawn.append(box(70 + 290 * (i % 3), 102 + 20 * (i // 3), 12, 12, fill=colour))
        drawn.append(text(88 + 290 * (i % 3), 112 + 20 * (i // 3), name, "small"))
    write(path, 930, 142, drawn)


def draw_fleet(path, results):
    """Lines for p50 and p99 over the number of nodes, for a policy of one pair at two revisions a second."""
    points = sorted((r["nodes"], r["p50"], r["p99"]) for r in results if (r["rules"], r["rate"]) == (1, 2))
    x, y, width, height = 60, 30, 500, 200
    most = max(p99 for _, _, p99 in points)
    top = 10 ** math.ceil(math.log10(most))
    across = lambda nodes: x + width * math.log10(nodes / 10) / math.log10(1000)
    down = lambda ms: y + height * (1 - math.log10(max(ms, 1)) / math.log10(top))
    parts = [text(x, y - 12, "ms from the acknowledgement to the last node's report, by the number of nodes", "title"),
             f'<path class="axis" fill="none" d="M{x} {y} V{y + height} H{x + width}"/>']
    parts += [text(across(nodes), y + height + 16, f"{nodes:,}", "small", "middle") for nodes in (10, 100, 1000, 10000)]
    parts += [text(x - 6, down(10 ** power) + 4, f"{10 ** power:,}", "small", "end") for power in range(round(math.log10(top)) + 1)]
    for column, (name, colour) in enumerate(zip(("p50", "p99"), COLOURS), 1):
        places = " L".join(f"{across(point[0]):.0f} {down(point[column]):.0f}" for point in points)
        parts.append(f'<path class="line" stroke="{colour}" d="M{places}"/>')
        parts.append(box(x + 120 * (column - 1), 262, 12, 12, fill=colour))
        parts.append(text(x + 18 + 120 * (column - 1), 272, name, "small"))
    write(path, 620, 284, parts)


def draw(root):
    folder = root / "docs/performance"
    folder.mkdir(exist_ok=True)
    run, counts, fleet = (root / "build" / name for name in ("bench.json", "instructions.json", "fleet.json"))
    if run.exists():
        results = json.loads(run.read_text())["64-bit"]["results"]
        draw_sizes(folder / "sizes.svg", results)
        draw_growth(folder / "growth.svg", results)
    if counts.exists():
        draw_instructions(folder / "instructions.svg", json.loads(counts.read_text())["64-bit"])
    if fleet.exists():
        draw_fleet(folder / "fleet.svg", json.loads(fleet.read_text()))
