"""Tables and plots of results: for the terminal, and for the pages of figures."""

import datetime
import math
import os
import platform
import re
import subprocess
from xml.sax.saxutils import escape

HEAD = ("", "unit", "n", "median", "p90", "p99", "max", "floor median", "floor p99", "ratio median", "ratio p99",
        "target")
COLOURS = ("#1f5fa8", "#c1531b", "#3a7d34", "#7b4fa3", "#5c5c5c")


def number(value):
    """Four significant digits."""
    if value == 0:
        return "0"
    digits = max(0, 3 - math.floor(math.log10(abs(value))))
    return f"{value:,.{min(digits, 3)}f}"


def cells(line):
    """A row as the texts of its columns. One value has no distribution, and fewer than fifty values have no 99th
    percentile apart from the greatest."""
    own = line["server"]
    several = (own["count"] or 1) > 1
    many = (own["count"] or 1) >= 50
    floor = line.get("floor")
    texts = [line["what"], line["unit"], str(own["count"] or ""), number(own["median"]),
             number(own["p90"]) if several else "", number(own["p99"]) if many else "",
             number(own["max"]) if several else ""]
    if floor:
        texts += [number(floor["median"]), number(floor["p99"]) if many else "",
                  ratio(own["median"], floor["median"]), ratio(own["p99"], floor["p99"]) if many else ""]
    else:
        texts += [""] * 4
    return texts + [line["target"]]


def ratio(value, floor):
    return f"{value / floor:.2f}" if floor else ""


def table(result):
    """The table without its empty columns."""
    rows = [cells(line) for line in result["rows"]]
    kept = [i for i in range(len(HEAD)) if i == 0 or any(texts[i] for texts in rows)]
    return [[HEAD[i] for i in kept]] + [[texts[i] for i in kept] for texts in rows]


def plain(result):
    rows = table(result)
    widths = [max(len(texts[i]) for texts in rows) for i in range(len(rows[0]))]
    lines = ["  ".join(text.ljust(width) if i == 0 else text.rjust(width)
                       for i, (text, width) in enumerate(zip(texts, widths))).rstrip() for texts in rows]
    return "\n".join(lines)


def markdown(name, result, plots):
    head, *rows = table(result)
    lines = ["| " + " | ".join(head) + " |", "|---|" + "---:|" * (len(head) - 1)]
    lines += ["| " + " | ".join(texts) + " |" for texts in rows]
    lines += ["", f"{result['note']} {result['conditions']}"]
    if name in plots:
        lines += ["", f"![{name}: cost against size]({plots[name]})"]
    return "\n".join(lines)


def output_of(*command):
    try:
        return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True,
                              text=True).stdout.splitlines()[0]
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "not known"


def machine():
    """The machine of the figures, as rows of a table."""
    model = "not known"
    with open("/proc/cpuinfo", encoding="ascii", errors="replace") as file:
        match = re.search(r"^model name\s*:\s*(.*)", file.read(), re.M)
        model = match.group(1) if match else platform.machine()
    with open("/proc/meminfo", encoding="ascii") as file:
        memory = int(file.readline().split()[1]) // (1024 * 1024)
    with open("/etc/os-release", encoding="utf-8") as file:
        system = re.search(r'^PRETTY_NAME="?([^"\n]*)', file.read(), re.M).group(1)
    return [("date", datetime.date.today().isoformat()),
            ("processor", f"{model}, {os.cpu_count()} cores"),
            ("memory", f"{memory} GiB"),
            ("system", f"{system}, Linux {platform.release().split('-')[0]}, {platform.libc_ver()[1]} glibc"),
            ("compiler", output_of("c++", "--version")),
            ("POCO", output_of("dpkg-query", "-W", "-f=${Version}", "libpoco-dev")),
            ("libevent", output_of("dpkg-query", "-W", "-f=${Version}", "libevent-dev")),
            ("Google Benchmark", output_of("dpkg-query", "-W", "-f=${Version}", "libbenchmark-dev"))]


def machine_markdown():
    lines = ["| | |", "|---|---|"]
    return "\n".join(lines + [f"| {what} | {value} |" for what, value in machine()])


def replace_block(text, name, block):
    """Replaces the text between the two comments that name the block."""
    begin, end = f"<!-- bench:{name} -->", f"<!-- bench:{name} end -->"
    if begin not in text or end not in text:
        raise SystemExit(f"bench: the figures have no place for {name}")
    head, rest = text.split(begin, 1)
    return head + begin + "\n" + block + "\n" + end + rest.split(end, 1)[1]


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def row_of(figures, name, what):
    """A row of a benchmark's table, by the heads of its columns."""
    block = figures.split(f"<!-- bench:{name} -->", 1)[-1].split(f"<!-- bench:{name} end -->", 1)[0]
    lines = [[cell.strip() for cell in line.strip("|").split("|")] for line in block.splitlines() if line[:1] == "|"]
    for cells_of_line in lines[2:]:
        if cells_of_line[0] == what:
            return dict(zip(lines[0], cells_of_line))
    raise SystemExit(f"bench: the figures of {name} have no row \"{what}\"")


def summarized(page, figures):
    """The page. Each row of its table that names a row of the figures gets the values from there."""
    def line(match):
        label, name, what = match.groups()
        found = row_of(figures, name, what)
        unit = found.get("unit", "")
        value, floor = (f"{found.get(head, '')} {unit}".strip() if found.get(head) else ""
                        for head in ("median", "floor median"))
        return (f"| {label} <!-- {name}: {what} --> | {value} | {floor} | {found.get('ratio median', '')} | "
                f"{found.get('target', '')} |")
    return re.sub(r"^\| (.*?) <!-- ([\w-]+): (.*?) --> \|.*$", line, page, flags=re.M)


def write_documents(page, figures, results):
    """Writes the tables into the page of figures, the plots beside it, and the main figures into the page."""
    plots = {}
    for name, result in results.items():
        if "plot" in result:
            plots[name] = f"{name}.svg"
            write(os.path.join(os.path.dirname(figures), plots[name]), svg(name, result["plot"]))
    text = replace_block(read(figures), "machine", machine_markdown())
    for name, result in results.items():
        text = replace_block(text, name, markdown(name, result, plots))
    write(figures, text)
    write(page, summarized(read(page), text))


class Axis:
    """One direction of a plot. Logarithmic when the values span more than two powers of ten."""

    def __init__(self, values, begin, end):
        positive = [value for value in values if value > 0]
        self.logarithmic = len(positive) == len(values) and max(values) / min(positive) > 100
        low, high = (min(values), max(values)) if self.logarithmic else (0, max(values) * 1.08)
        self._low, self._high = self._scale(low), self._scale(high)
        if self.logarithmic:
            self._low, self._high = math.floor(self._low + 1e-9), math.ceil(self._high - 1e-9)
        self._begin, self._end = begin, end

    def _scale(self, value):
        return math.log10(value) if self.logarithmic else value

    def at(self, value):
        part = (self._scale(value) - self._low) / ((self._high - self._low) or 1)
        return self._begin + part * (self._end - self._begin)

    def ticks(self):
        if self.logarithmic:
            return [10.0 ** power for power in range(round(self._low), round(self._high) + 1)]
        step = 10 ** math.floor(math.log10(self._high / 4))
        step *= next(factor for factor in (1, 2, 5, 10) if self._high / (step * factor) <= 6)
        return [step * i for i in range(int(self._high / step) + 1)]


def svg(title, plot):
    """The plot as a picture, with a line and its points for each series."""
    width, height, left, right, top, bottom = 640, 360, 70, 20, 40, 50
    points = [point for series in plot["series"].values() for point in series]
    across = Axis([x for x, _ in points], left, width - right)
    up = Axis([y for _, y in points], height - bottom, top)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
             f'<rect width="{width}" height="{height}" fill="white"/>',
             f'<text x="{left}" y="18" font-size="14">{escape(title)}</text>']
    for tick in across.ticks():
        x = across.at(tick)
        parts.append(f'<line x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{height - bottom}" stroke="#ddd"/>'
                     f'<text x="{x:.1f}" y="{height - bottom + 16}" text-anchor="middle">{tick:,g}</text>')
    for tick in up.ticks():
        y = up.at(tick)
        parts.append(f'<line x1="{left}" y1="{y:.1f}" x2="{width - right}" y2="{y:.1f}" stroke="#ddd"/>'
                     f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">{tick:,g}</text>')
    for (name, series), colour in zip(plot["series"].items(), COLOURS):
        line = " ".join(f"{across.at(x):.1f},{up.at(y):.1f}" for x, y in series)
        parts.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        parts += [f'<circle cx="{across.at(x):.1f}" cy="{up.at(y):.1f}" r="3" fill="{colour}"/>' for x, y in series]
    for i, (name, colour) in enumerate(zip(plot["series"], COLOURS)):
        x = left + 130 * i
        parts.append(f'<rect x="{x}" y="25" width="10" height="10" fill="{colour}"/>'
                     f'<text x="{x + 14}" y="34">{escape(name)}</text>')
    parts += [f'<text x="{(left + width - right) / 2}" y="{height - 12}" text-anchor="middle">{escape(plot["x"])}'
              f'</text>',
              f'<text transform="translate(16 {(top + height - bottom) / 2}) rotate(-90)" text-anchor="middle">'
              f'{escape(plot["y"])}</text>', "</svg>"]
    return "\n".join(parts) + "\n"
