#!/usr/bin/env python3
"""check_page.py PROGRAM FOLDER [large]: opens analytics-report's page in a browser and compares what it draws
with a generator's truth. Leaves screenshots in the folder. Exits with 77 if there is no browser.
"""
import json
import pathlib
import subprocess
import sys

import browser
import check_summary as small
import report_records

differences = []
DRAWN = """Object.fromEntries(["shares", "ios", "percentiles", "episodes", "limits", "heat"].map(id => [id, Chart.getChart(id)])
    .map(([id, chart]) => [id, chart ? chart.data.datasets.map(set => ({label: set.label, data: set.data})) : null]))"""


def same(what, got, expected):
    if got != expected:
        differences.append(f"{what}: expected {str(expected)[:300]}, got {str(got)[:300]}")


def series(drawn, chart, label):
    return [point for point in next(set["data"] for set in drawn[chart] if set["label"] == label) if point["y"] is not None]


def check_drawn(page, truth):
    drawn = page.ask(DRAWN)
    steps = sorted((int(index), cell) for index, cell in truth["steps"].items())
    times = [index * truth["stepMs"] for index, _ in steps]
    for number, label in enumerate(("fast", "moderate", "slow", "very slow", "slowest"), 1):
        points = series(drawn, "ios", label)
        same(f"{label} I/Os", [point["y"] for point in points], [cell[f"cm{number}"] for _, cell in steps])
        same(f"times of {label}", [point["x"] for point in points], times)
    same("failed", [point["y"] for point in series(drawn, "ios", "failed")], [cell["failedIos"] for _, cell in steps])
    same("shares", [round(point["y"], 6) for point in series(drawn, "shares", "slow")],
         [round(100 * cell["cm3"] / cell["ios"], 6) for _, cell in steps])
    for label, name in zip(("p50", "p90", "p99", "p99.9", "longest I/O"), report_records.PERIOD_NAMES):
        same(label, [point["y"] for point in series(drawn, "percentiles", label)], [cell[name] for _, cell in steps])
    same("episodes", [(mark["x"], mark["y"]) for mark in drawn["episodes"][0]["data"]],
         [(index * truth["stepMs"], cell["longestEpisodeMs"]) for index, cell in steps if cell["episodes"]])
    same("bounds", {point["y"] for point in series(drawn, "limits", "moderate up to")}, {5000})
    heat = page.ask("JSON.parse(document.getElementById('data').textContent).heat")
    same("heat map's I/Os", sum(heat["ios"]), truth["totals"]["ios"])
    same("heat map's slow I/Os", sum(heat["slow"]), truth["totals"]["slowIos"])
    rows = page.ask("[...new Set(Chart.getChart('heat').getDatasetMeta(0).data.map(bar => Math.round(bar.y)))].length")
    same("heat map's rows", rows, truth["hosts"])


def check_behaviour(page, truth):
    box = page.ask("(r => [r.left, r.top])(document.getElementById('shares').getBoundingClientRect())")
    area = page.ask("(a => [a.left, a.right, a.top])(Chart.getChart('shares').chartArea)")
    at = lambda share: (box[0] + area[0] + share * (area[1] - area[0]), box[1] + area[2] + 40)
    whole = page.ask("(x => [x.min, x.max])(Chart.getChart('percentiles').scales.x)")
    page.drag(at(0.25), at(0.5))
    zoomed = page.ask("(x => [x.min, x.max])(Chart.getChart('percentiles').scales.x)")
    length = whole[1] - whole[0]
    same("zoom", [round((edge - whole[0]) / length, 1) for edge in zoomed], [0.2, 0.5])
    page.ask("document.getElementById('reset').click()")
    same("zoom back", page.ask("(x => [x.min, x.max])(Chart.getChart('percentiles').scales.x)"), whole)
    page.send("Input.dispatchMouseEvent", type="mouseMoved", x=at(0.5)[0], y=at(0.5)[1])
    same("hovering", page.ask("Chart.getChart('shares').tooltip.body.length"), 5)
    page.ask("document.querySelectorAll('#hosts th button')[3].click()")
    shown = page.ask("[...document.querySelectorAll('#hosts tbody tr')].map(row => row.cells[3].textContent.replaceAll(',', ''))")
    same("sorted table", [int(text) for text in shown],
         sorted((totals["ios"] for totals in truth["byHost"].values()), reverse=True))


def check_texts():
    """The texts beside the charts, of the small fleet."""
    small.FOLDER.mkdir(exist_ok=True)
    (small.FOLDER / small.FILE).write_bytes(b"".join(small.FLEET))
    small.run("--html", "texts.html", small.FILE)
    with browser.Browser() as page:
        page.open(str(small.FOLDER / "texts.html"))
        lines = lambda selector: page.ask(f"[...document.querySelectorAll('{selector}')].map(each => each.textContent)")
        same("cards", lines(".card"), ["1,008,551I/Os", "0.1 %slow I/Os", "3failed I/Os", "25 msworst p99 of a report", "7.25 slongest I/O",
                                       "4high-latency episodes", "3 slongest episode", "13hosts", "14records missing"])
        same("bad cards", lines(".bad b"), ["3", "14"])
        same("head", lines("#span, .step, #heatNote, #rampEnd"),
             ["2026-11-23 12:00:00 to 2026-11-23 12:23:59 UTC · 21 reports · 14 processes", "A step is 60 s.", "", "30.0 %"])
        same("titles of lists", lines("#lists h2"), ["Maxima", "Records", "Account", "Sets, which are parts of the above",
                                                     "Changes of threshold and bounds", "Gaps", "System clock set"])
        last = "bounds {} ms, 5 ms, 20 ms, 100 ms"
        same("lists", lines("#lists li"), [
            "longest I/O in a report: 7.25 s", "deepestQueue = 7 (host db)", "longestIoUs = 5 (host web)",
            "33 read, 1 doubled, 14 missing, 5 evicted, 4 not understood",
            *[f"{small.FILE}:{line}: {why}" for line, why in ((23, "it is not JSON"), (26, "it has no field schema"), (27, "it is no JSON object"))],
            "2 processes: pushed 12 + restored 2 is not delivered 6 + failed 1 + dropped 2 + evicted 3 + waiting 1",
            "reads: 65 I/Os, 50.8 % slow, longest I/O 5 µs", "writes: 0 I/Os, 0.0 % slow, longest I/O 0 µs",
            f"2026-11-23 12:05:10, host db: threshold 50 ms, {last.format(1)}; then threshold 60 ms, {last.format(1)}",
            f"2026-11-23 12:07:00, host db: threshold 60 ms, {last.format(1)}; then threshold 60 ms, {last.format(2)}",
            "host db, process zz-the-f: 2 records missing between 2026-11-23 12:03:00 and 2026-11-23 12:04:00",
            "host db, process aa: 1 record missing before 2026-11-23 12:23:59",
            *[f"host host{number:02}, process b: 1 record missing before 2026-11-23 12:11:40" for number in range(1, 12)],
            "host db, process zz-the-f: by 60 min"])
        same("row", lines("#hosts tbody tr:first-child td"), ["web", "1", "1", "100", "30.0 %", "1", "99 µs", "1 ms", "3 ms", "1", "60 ms", "60 ms"])
        ticks = lambda chart, axis: page.ask(f"Chart.getChart('{chart}').scales.{axis}.ticks.map(tick => tick.label)")
        same("times", ticks("percentiles", "x"), [f"12:{minute:02}" for minute in range(0, 25, 5)])
        same("shares", ticks("shares", "y"), [f"{share} %" for share in range(0, 101, 10)])
        same("latencies", ticks("percentiles", "y"), ["10 µs", "100 µs", "1 ms", "10 ms", "100 ms", "1 s"])
        same("steps without a p50, and a break of the line", page.ask(
            "Chart.getChart('percentiles').data.datasets[0].data.filter(point => point.y === null).length"), 7 + 1)
        page.ask("document.querySelectorAll('#hosts th button')[0].click()")
        same("hosts by name", lines("#hosts tbody td:first-child"), sorted(line["host"] for line in small.JSON["hostsBySlowShare"]))
        page.ask("document.querySelectorAll('#hosts th button')[0].click()")
        same("and back", lines("#hosts tbody td:first-child")[0], "web")
        same("the column's order", page.ask("document.querySelector('#hosts th').getAttribute('aria-sort')"), "descending")
        same("errors", page.errors, [])


def check_page(program, folder, name, options, most_ms):
    path = str(folder / f"page-{name}.jsonl")
    report_records.fleet_of([path, *options])[1].write(path)
    truth = json.loads(pathlib.Path(f"{path}.truth.json").read_text())
    html = str(folder / f"page-{name}.html")
    subprocess.run([program, "--step", f"{truth['stepMs'] // 1000}s", "--html", html, path], check=True, timeout=100,
                   stdout=subprocess.DEVNULL)
    with browser.Browser() as page:
        for is_dark in (False, True):
            page.open(html, is_dark)
            page.screenshot(str(folder / f"page-{name}-{'dark' if is_dark else 'light'}.png"),
                            page.ask("document.documentElement.scrollHeight"))
        ready = int(page.ask("document.documentElement.dataset.ready"))
        print(f"{name}: drawn after {ready} ms")
        same("drawn in time", ready < most_ms, True)
        same("elements that the records brought", page.ask("document.querySelectorAll('script, b script, td *, li *').length"), 3)
        check_drawn(page, truth)
        check_behaviour(page, truth)
        same("errors", page.errors, [])
        same("requests", {url.split("?")[0] for url in page.requests}, {f"file://{html}"})


def main():
    if not browser.is_there():
        print("skipped: chromium is not installed")
        sys.exit(77)
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2]).absolute()
    folder.mkdir(parents=True, exist_ok=True)
    if sys.argv[3:] == ["large"]:
        check_page(program, folder, "day", ["--hosts", "100", "--boots", "3", "--reports", "1440"], 2000)
    else:
        check_page(program, folder, "hostile", ["--hosts", "14", "--hostile", "--reports", "60", "--seed", "3"], 60_000)
        check_texts()
    print("\n".join(differences) or "what is drawn equals the truth")
    sys.exit(1 if differences else 0)


if __name__ == "__main__":
    main()
