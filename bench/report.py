#!/usr/bin/env python3
"""Turns the results of bench/run into the tables of docs/performance.md and a plot.

usage: report.py RESULTS_DIRECTORY PAGE.md PLOT.svg
"""

import glob
import json
import math
import os
import platform
import re
import sys

BEGIN, END = "<!-- tables: begin -->", "<!-- tables: end -->"
CALLS = [
    "C_GetInfo", "C_GetSessionInfo", "C_GetTokenInfo", "C_GetAttributeValue, one",
    "C_GetAttributeValue, five of a certificate",
    "C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal", "C_SignInit + C_Sign",
]
TWENTYFOLD = CALLS[3:6]
BARE = "bare SCardTransmit of a signature"
NAMED = ["search, all at once", "search, one by one", "search for certificates with an ID",
         "CKA_LABEL of every object", "object load"]


def json_lines(path):
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as file:
        return [json.loads(line) for line in file if line.strip()]


def benchmarks(path):
    """(name, nanoseconds of processor time, nanoseconds of time) of every benchmark of a file."""
    if not os.path.exists(path):
        return []
    unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    with open(path, encoding="utf-8") as file:
        return [(row["name"], row["cpu_time"] * unit[row["time_unit"]],
                 row["real_time"] * unit[row["time_unit"]])
                for row in json.load(file)["benchmarks"] if "cpu_time" in row]


def duration(nanoseconds):
    for limit, divisor, unit in ((1e3, 1, "ns"), (1e6, 1e3, "µs"), (1e9, 1e6, "ms")):
        if nanoseconds < limit:
            return f"{three_digits(nanoseconds / divisor)} {unit}"
    return f"{three_digits(nanoseconds / 1e9)} s"


def three_digits(number):
    if number >= 100 or number == 0:
        return f"{number:,.0f}"
    return f"{number:.1f}" if number >= 10 else f"{number:.2f}"


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + " --- |" * len(head)]
    return lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows] + [""]


class Report:
    def __init__(self, directory):
        self.directory = directory
        self.goals = []
        self.lines = []

    def path(self, name):
        return os.path.join(self.directory, name)

    def goal(self, text, value, met):
        self.goals.append((text, value, "met" if met else "**not met**"))

    def section(self, title, text, head, rows):
        self.lines += [f"### {title}", "", text, ""] + table(head, rows)

    def floor(self):
        results = json_lines(self.path("floor.jsonl"))
        if not results:
            return
        rows = []
        for row in results:
            if row["exchanges"] == 0:
                rows.append((row["family"], row["operation"], 0, duration(row["module_us"] * 1e3),
                             "", ""))
                continue
            rows.append((row["family"], row["operation"], row["exchanges"],
                         duration(row["module_us"] * 1e3), duration(row["floor_us"] * 1e3),
                         f"{row['ratio']:.3f}"))
        measured = [row for row in results if row["exchanges"] > 0]
        worst = max(measured, key=lambda row: row["ratio"])
        self.goal("at most 1.02 times the floor, every operation and family",
                  f"at most {worst['ratio']:.3f} ({worst['family']}, {worst['operation']})",
                  worst["ratio"] <= 1.02)
        self.section(
            "The floor",
            "An operation of the module and the commands that it sends, by bare `SCardTransmit` on "
            "the same connection: medians of paired runs, and the median of their quotients. "
            "Private pcscd, simulated cards. Command: `bench/run floor report`.",
            ("family", "operation", "commands", "module", "bare", "quotient"), rows)

    def read_calls(self):
        samples = {}
        for path in glob.glob(self.path("calls-*.json")):
            for name, cpu, _ in benchmarks(path):
                samples.setdefault(name, []).append(cpu)
        return {name: min(values) for name, values in samples.items()}

    def calls(self):
        cpu = self.read_calls()
        families = [name.split("velt ")[1] for name in cpu if name.startswith(CALLS[0] + "/velt ")]
        families = [family for family in ("idc", "kt", "jc", "et72k") if family in families] + [
            family for family in families if family not in ("idc", "kt", "jc", "et72k")]
        if not families:
            return cpu
        reference = families[0]
        rows = []
        faster, twenty = [], []
        for call in CALLS:
            own = cpu[f"{call}/velt {reference}"]
            peers = {peer: cpu.get(f"{call}/{peer}") for peer in ("softhsm", "opensc")}
            row = [f"`{call}`" if call[0] == "C" else call, duration(own)]
            for peer, value in peers.items():
                row += [duration(value), f"{value / own:,.1f}"] if value else ["", ""]
                if value:
                    faster.append((value / own, f"{peer}, {call}"))
            if call in TWENTYFOLD and peers["softhsm"]:
                twenty.append((peers["softhsm"] / own, call))
            rows.append(row)
        self.section(
            "Calls",
            f"Processor time of one call, card and PC/SC without delay (family {reference}; other "
            "families differ only in the signature). SoftHSM signs with the processor, hence the "
            "last row says only that; OpenSC has a PIV card that answers from memory. The fastest of "
            "the rounds in turn, for each module alike. Command: `bench/run calls report`.",
            ("call", "velt", "SoftHSM 2", "times ours", "OpenSC", "times ours"), rows)
        if faster:
            least = min(faster)
            self.goal("faster than SoftHSM 2 and OpenSC on every row",
                      f"at least {least[0]:.1f} times ({least[1]})", least[0] > 1)
        if twenty:
            least = min(twenty)
            self.goal("attributes and search at least 20 times faster than SoftHSM 2",
                      f"at least {least[0]:.0f} times ({least[1]})", least[0] >= 20)
        rows = []
        own_cost = []
        for family in families:
            whole = cpu[f"{CALLS[6]}/velt {family}"]
            bare = cpu[f"{BARE}/velt {family}"]
            own_cost.append((whole - bare, family))
            rows.append((family, duration(whole), duration(bare), duration(max(whole - bare, 0)),
                         duration(cpu[f"object load/velt {family}"]),
                         duration(cpu[f"object load and first certificate/velt {family}"])))
        self.section(
            "What the module itself takes",
            "Processor time with card and PC/SC without delay. The module's own part of a "
            "signature is what is left after the same commands sent bare; the loads are told with "
            "the stand-in's part. Command: `bench/run calls report`.",
            ("family", "signature", "its commands bare", "the module's own", "object load",
             "load and first certificate"), rows)
        worst = max(own_cost)
        self.goal("the module's own processor time of a signature under 2 µs, every family",
                  f"at most {duration(worst[0])} ({worst[1]})", worst[0] < 2000)
        return cpu

    def instructions(self):
        path = self.path("instructions.txt")
        if not os.path.exists(path):
            return
        counts, operations = {}, []
        with open(path, encoding="utf-8") as file:
            for line in file:
                family, operation, count = line.rstrip("\n").split("\t")
                counts.setdefault(family, {})[operation] = int(count)
                if operation not in operations:
                    operations.append(operation)
        rows = [[operation] + [f"{counts[family][operation]:,}" for family in counts]
                for operation in operations]
        self.section(
            "Instructions",
            "The module's own, with what it calls in zlib and the C library and without PC/SC, as "
            "callgrind counts them, over a plain heap: the same in every run. `bench/compare` "
            "fails when one rises by more than 5 % over `bench/instructions.txt`. Command: `bench/run instructions "
            "report`.",
            ["operation"] + list(counts), rows)

    def loading(self):
        results = {row["name"]: row for row in json_lines(self.path("loading.jsonl"))}
        if not results:
            return
        names = {"velt": "velt", "softhsm": "SoftHSM 2", "opensc": "OpenSC"}
        figures = (("load_us", "load"), ("initialise_us", "C_Initialize"),
                   ("finalise_us", "C_Finalize"), ("unload_us", "unload"))
        rows = [[text] + [duration(results[name]["figures"][key] * 1e3) for name in names]
                for key, text in figures]
        total = {name: sum(results[name]["figures"][key] for key, _ in figures) for name in names}
        rows.append(["all four"] + [duration(total[name] * 1e3) for name in names])
        for key, text in (("resident_kib", "resident memory added"),
                          ("private_kib", "of it the process's own")):
            rows.append([text] + [f"{results[name]['figures'][key]:,.0f} KiB" for name in names])
        for key, text in (("stripped_bytes", "stripped library"), ("relocations", "relocations"),
                          ("needed", "libraries it names"),
                          ("libraries", "libraries it brings in all")):
            rows.append([text] + [f"{results[name][key] / 1024:,.1f} KiB" if "bytes" in key
                                  else f"{results[name][key]:,}" for name in names])
        self.section(
            "Loading and size",
            "Each round in a new process, medians; a host that has loaded none of their libraries. "
            "Command: `bench/run loading report`.",
            ["", *names.values()], rows)
        lower = [name for name in ("softhsm", "opensc") if total["velt"] < total[name]]
        self.goal("load, initialise, finalise and unload below SoftHSM 2 and OpenSC",
                  " against ".join(duration(total[name] * 1e3) for name in names),
                  len(lower) == 2)
        size = results["velt"]["stripped_bytes"] / 1024
        self.goal("stripped library under 150 KiB", f"{size:.1f} KiB", size < 150)
        self.goal("libraries: libpcsclite, libz, libc", str(results["velt"]["needed"]),
                  results["velt"]["needed"] == 3)

    def read_scale(self):
        scale = {}
        for name, cpu, _ in benchmarks(self.path("scale.json")):
            operation, count = name.rsplit("/", 1)
            scale.setdefault(operation, {})[int(count)] = cpu
        return scale

    def scale(self):
        scale = self.read_scale()
        if not scale:
            return scale
        counts = sorted(scale[NAMED[0]])
        rows = [[operation] + [duration(scale[operation][count]) for count in counts]
                for operation in NAMED]
        self.section(
            "Scale: names on a token",
            "Processor time over a JaCarta with that many names, each a certificate and an RSA key "
            "pair, three objects. The load is told with the stand-in's part. Command: `bench/run "
            "scale report`; the plot shows the same.",
            ["operation"] + [f"{count:,}" for count in counts], rows)
        growth = []
        for operation in NAMED:
            last, before = counts[-1], counts[-2]
            exponent = math.log(scale[operation][last] / scale[operation][before]) / math.log(
                last / before)
            growth.append((exponent, operation))
        worst = max(growth)
        self.goal("cost grows linearly with the names (exponent of the last step at most 1.15)",
                  f"at most {worst[0]:.2f} ({worst[1]})", worst[0] <= 1.15)
        rows = []
        for operation in ("C_GetSessionInfo of every session", "opening and closing sessions",
                          "listing and describing slots"):
            values = scale[operation]
            shown = [count for count in sorted(values) if count in (1, 4, 8, 15, 16, 64)]
            rows.append((operation, ", ".join(f"{count}: {duration(values[count])}"
                                              for count in shown)))
        self.section("Scale: sessions and readers",
                     "The number of sessions or readers and the processor time for all of them. "
                     "Readers end at 15: PC/SC takes 16 states, and one is for readers that come. "
                     "Command: `bench/run scale report`.", ("operation", "number: time"), rows)
        return scale

    def threads(self):
        results = {row["threads"]: row for row in json_lines(self.path("threads.jsonl"))}
        if not results:
            return
        rows = [(count, row["seconds"], f"{row['calls_per_second'] / 1e6:.2f} million",
                 f"{row['least_share_of_mean']:.2f}") for count, row in sorted(results.items())]
        self.section(
            "Threads",
            "`C_GetSessionInfo` from that many threads at once, on as many processors as the "
            "machine has; the share is that of the thread with the fewest calls, of the mean. "
            "Command: `bench/run threads report`.",
            ("threads", "seconds", "calls a second", "least share"), rows)
        if 1 in results and 16 in results:
            quotient = results[16]["calls_per_second"] / results[1]["calls_per_second"]
            self.goal("throughput of 16 threads at least half of one thread's",
                      f"{quotient:.2f}", quotient >= 0.5)
            share = results[16]["least_share_of_mean"]
            self.goal("every one of 16 threads makes at least a tenth of the mean number of calls",
                      f"{share:.2f}", share >= 0.1)

    def certificates(self):
        results = benchmarks(self.path("certificates.json"))
        if not results:
            return
        cost = {}
        for name, cpu, _ in results:
            operation, size = name.rsplit("/", 1)
            cost.setdefault(operation, {})[int(size)] = cpu
        sizes = sorted(next(iter(cost.values())))
        self.section("Certificates",
                     "Processor time for a certificate of about that many bytes. Command: "
                     "`bench/run certificates report`.", ["step"] + [f"{size:,}" for size in sizes],
                     [[operation] + [duration(values[size]) for size in sizes]
                      for operation, values in cost.items()])

    def text(self):
        goals = ["### Goals", ""] + table(("goal", "measured", ""), self.goals)
        machine = (f"Measured on {processor()}, {os.cpu_count()} processors, "
                   f"{platform.freedesktop_os_release().get('PRETTY_NAME', platform.system())}.")
        return "\n".join([machine, ""] + goals + self.lines)


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        found = re.search(r"^model name\s*: (.*)$", file.read(), re.MULTILINE)
    return found.group(1).strip() if found else platform.machine()


class Panel:
    """A chart with logarithmic axes."""

    COLOURS = ["#1b6ca8", "#c2410c", "#15803d", "#7e22ce", "#525252", "#be123c"]

    def __init__(self, left, title, across, x_range, y_range):
        self.left, self.top, self.width, self.height = left, 50, 380, 300
        self.x_range, self.y_range = x_range, y_range
        self.parts = [text(left, 30, title, "title"),
                      text(left + self.width / 2, 395, across, "label", "middle")]
        self.entries = 0
        for power in range(x_range[0], x_range[1] + 1):
            x = self.x(10**power)
            self.parts.append(f'<path class="grid" d="M{x:.1f} {self.top}v{self.height}"/>')
            self.parts.append(text(x, 368, f"{10**power:,}", "tick", "middle"))
        for power in range(y_range[0], y_range[1] + 1):
            y = self.y(10**power)
            self.parts.append(f'<path class="grid" d="M{left} {y:.1f}h{self.width}"/>')
            self.parts.append(text(left - 6, y + 4, duration(10**power).replace(".00", "").replace(".0", ""), "tick", "end"))

    def x(self, value):
        low, high = self.x_range
        return self.left + self.width * (math.log10(value) - low) / (high - low)

    def y(self, value):
        low, high = self.y_range
        return self.top + self.height * (high - math.log10(value)) / (high - low)

    def line(self, name, points):
        colour = self.COLOURS[self.entries % len(self.COLOURS)]
        steps = " ".join(f"{self.x(x):.1f},{self.y(y):.1f}" for x, y in points)
        self.parts.append(f'<polyline class="curve" stroke="{colour}" points="{steps}"/>')
        for x, y in points:
            self.parts.append(f'<circle cx="{self.x(x):.1f}" cy="{self.y(y):.1f}" r="3" '
                              f'fill="{colour}"/>')
        y = 418 + 17 * self.entries
        self.parts.append(f'<circle cx="{self.left + 4}" cy="{y - 4}" r="4" fill="{colour}"/>')
        self.parts.append(text(self.left + 14, y, name, "label"))
        self.entries += 1

    def guide(self, points, name):
        (x1, y1), (x2, y2) = points
        self.parts.append(f'<path class="guide" d="M{self.x(x1):.1f} {self.y(y1):.1f}'
                          f'L{self.x(x2):.1f} {self.y(y2):.1f}"/>')
        self.parts.append(text(self.x(x1) + 8, self.y(y1) - 8, name, "tick"))


def text(x, y, content, kind, anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{content}</text>'


def bars(left, cpu):
    """The calls beside those of the other modules."""
    top, width = 50, 380
    low, high = 1, 7  # powers of ten of nanoseconds
    parts = [text(left, 30, "One call, processor time", "title")]
    for power in range(low, high + 1):
        x = left + width * (power - low) / (high - low)
        parts.append(f'<path class="grid" d="M{x:.1f} {top}v310"/>')
        parts.append(text(x, 378, duration(10**power).replace(".00", "").replace(".0", ""), "tick", "middle"))
    modules = (("velt idc", "velt", Panel.COLOURS[0]), ("opensc", "OpenSC", Panel.COLOURS[2]),
               ("softhsm", "SoftHSM 2", Panel.COLOURS[1]))
    y = top + 2
    for call in CALLS[:-1]:
        shown = call.replace("C_FindObjectsInit, C_FindObjects, C_FindObjectsFinal",
                             "a search")
        parts.append(text(left + 2, y + 10, shown, "label"))
        y += 15
        for key, _, colour in modules:
            value = cpu.get(f"{call}/{key}")
            if value:
                length = width * (math.log10(max(value, 10)) - low) / (high - low)
                parts.append(f'<rect x="{left}" y="{y}" width="{length:.1f}" height="9" '
                             f'fill="{colour}"/>')
            y += 11
        y += 4
    for index, (_, name, colour) in enumerate(modules):
        parts.append(f'<circle cx="{left + 4 + index * 120}" cy="414" r="4" fill="{colour}"/>')
        parts.append(text(left + 14 + index * 120, 418, name, "label"))
    return parts


def plot(scale, cpu):
    panel = Panel(70, "A token with many names: processor time", "names on the token", (0, 4),
                  (2, 9))
    for operation in NAMED:
        panel.line(operation, sorted(scale[operation].items()))
    panel.guide(((10, 3e6), (1000, 3e8)), "linear growth")
    parts = panel.parts + bars(530, cpu)
    return "\n".join(
        ['<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 930 500" font-family="sans-serif">',
         "<!-- Made by: bench/run -->",
         "<style>.title{font-size:15px;font-weight:bold}.label{font-size:12px}"
         ".tick{font-size:11px;fill:#555}.grid{stroke:#ddd;fill:none}"
         ".curve{fill:none;stroke-width:2}.guide{stroke:#999;stroke-dasharray:5 4;fill:none}"
         "</style>", '<rect width="930" height="500" fill="white"/>'] + parts + ["</svg>", ""])


def main():
    directory, page, picture = sys.argv[1:4]
    report = Report(directory)
    report.floor()
    cpu = report.calls()
    report.instructions()
    report.loading()
    scale = report.scale()
    report.threads()
    report.certificates()
    with open(page, encoding="utf-8") as file:
        before, rest = file.read().split(BEGIN)
        after = rest.split(END)[1]
    with open(page, "w", encoding="utf-8") as file:
        file.write(f"{before}{BEGIN}\n{report.text()}{END}{after}")
    if scale and cpu:
        with open(picture, "w", encoding="utf-8") as file:
            file.write(plot(scale, cpu))


main()
