#!/usr/bin/env python3
"""check_page.py PROGRAM FOLDER [large]: opens analytics-report's pages in a browser and compares what they draw with
their data, and what they say of a small fleet to the letter. Exits with 77 if there is no browser. `large` takes a day
of a hundred hosts, which has to be drawn in two seconds."""
import sys

from browser import Browser, is_there
import check_report
import check_summary as small
from check_summary import same

CLASS_NAMES = ("fast", "moderate", "slow", "very slow", "slowest")
LATENCY_NAMES = ("p50", "p90", "p99", "p99.9", "longest I/O")
LIMIT_NAMES = ("fast up to", "moderate up to", "slow up to", "very slow up to", "threshold of episodes")


def open_page(page, lines, name):
    (small.FOLDER / small.FILE).write_bytes(b"".join(lines))
    small.run("--html", name, small.FILE)
    page.open(small.FOLDER / name)


def check_drawn(page):
    steps = page.ask("JSON.parse(document.getElementById('data').textContent).steps")
    sums = [sum(step) for step in zip(*steps["classes"])]
    shares = [[100 * value / ios for value, ios in zip(values, sums)] for values in steps["classes"]]
    rows = {  # chart: labels, columns, whether it leaves out what is 0
        "ios": ((*CLASS_NAMES, "failed"), (*steps["classes"], steps["failed"]), False),
        "shares": (CLASS_NAMES, shares, False),
        "percentiles": (LATENCY_NAMES, steps["percentilesUs"], True),
        "limits": (LIMIT_NAMES, (*steps["boundsUs"], steps["thresholdUs"]), True),
        "episodes": (["longest episode"], [steps["longestEpisodeMs"]], True),
    }
    for chart, (labels, columns, is_positive) in rows.items():
        drawn = dict(page.ask(f"Chart.getChart('{chart}').data.datasets.map(set => [set.label, set.data])"))
        same(f"labels of {chart}", sorted(drawn), sorted(labels))
        for label, column in zip(labels, columns):
            same(f"{chart}, {label}", [[point["x"], point["y"]] for point in drawn[label] if point["y"] is not None],
                 [[t, y] for t, y in zip(steps["t"], column) if y or not is_positive])


def check_behaviour(page):
    """Zooms, hovers and sorts."""
    window = lambda: page.ask("(x => [x.min, x.max])(Chart.getChart('percentiles').scales.x)")
    left, top = page.ask("(r => [r.left, r.top])(document.getElementById('shares').getBoundingClientRect())")
    begin, end, y = page.ask("(a => [a.left, a.right, a.top])(Chart.getChart('shares').chartArea)")
    at = lambda share: (left + begin + share * (end - begin), top + y + 40)
    first, last = window()
    page.drag(at(0.25), at(0.5))
    same("zoom", [round((edge - first) / (last - first), 1) for edge in window()], [0.2, 0.5])
    page.ask("document.getElementById('reset').click()")
    same("zoom back", window(), [first, last])
    page.send("Input.dispatchMouseEvent", type="mouseMoved", x=at(0.5)[0], y=at(0.5)[1])
    same("hovering", page.ask("Chart.getChart('shares').tooltip.body.length"), 5)
    page.ask("document.querySelectorAll('#hosts th button')[3].click()")
    ios = page.ask("[...document.querySelectorAll('#hosts tbody tr')].map(row => row.cells[3].textContent)")
    same("sorted by I/Os", ios, sorted(ios, key=lambda text: -int(text.replace(",", ""))))


def check_fleet(page, fleet):
    open_page(page, fleet.lines, "fleet.html")
    brought = page.ask("document.querySelectorAll('script, b script, td *, li *').length")
    same("elements that the records brought", brought, 3)
    check_drawn(page)
    rows = "[...new Set(Chart.getChart('heat').getDatasetMeta(0).data.map(bar => Math.round(bar.y)))].length"
    same("heat map's rows", page.ask(rows), len(fleet.names))
    check_behaviour(page)


def check_texts(page):
    """The texts beside the charts, of the small fleet."""
    open_page(page, small.FLEET, "texts.html")
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
        *[f"{small.SHOWN_FILE}:{line}: {why}" for line, why in ((23, "it is not JSON"), (26, "it has no field schema"), (27, "it is no JSON object"))],
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


def main():
    if not is_there():
        print("skipped: chromium is not installed")
        sys.exit(77)
    small.FOLDER.mkdir(parents=True, exist_ok=True)
    is_large = sys.argv[3:] == ["large"]
    with Browser() as page:
        check_fleet(page, check_report.Fleet(100, 720) if is_large else check_report.Fleet(14, 30, is_hostile=True))
        ready = int(page.ask("document.documentElement.dataset.ready"))
        print(f"drawn after {ready} ms")
        same("drawn in time", is_large and ready >= 2000, False)
        page.send("Emulation.setEmulatedMedia", features=[dict(name="prefers-color-scheme", value="dark")])
        check_texts(page)
        same("errors", page.errors, [])
        same("requests", [url.split("?")[0] for url in page.requests],
             [f"file://{small.FOLDER}/{name}.html" for name in ("fleet", "texts")])
    print("\n".join(small.differences) or "what is drawn equals the data")
    sys.exit(1 if small.differences else 0)


if __name__ == "__main__":
    main()
