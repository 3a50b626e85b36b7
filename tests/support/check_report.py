#!/usr/bin/env python3
"""check_report.py PROGRAM FOLDER [large]: compares analytics-report's figures with a generator's truth.

Exits with 1 and says what differs. `large` takes a day of a hundred hosts.
"""
import gzip
import json
import pathlib
import shutil
import subprocess
import sys

import report_records

PERCENTILES = {"p50Us": "p50", "p90Us": "p90", "p99Us": "p99", "p999Us": "p99.9", "maxUs": "max"}
DIRECT = ("ios", "slowIos", "failedIos", "episodes", "episodeSumMs", "longestEpisodeMs", "reports")
differences = []


def same(what, got, expected):
    if got != expected:
        differences.append(f"{what}: expected {str(expected)[:300]}, got {str(got)[:300]}")


def run(program, *arguments, **options):
    return subprocess.run([program, *map(str, arguments)], check=True, timeout=100, capture_output=True, **options).stdout


def same_totals(what, got, truth):
    for name in DIRECT:
        same(f"{what} {name}", got[name], truth[name])
    same(f"{what} classes", got["classes"], {name: truth[name] for name in report_records.CLASSES})
    for name, key in PERCENTILES.items():
        same(f"{what} {key}", got["worstPercentilesUs"][key], truth[name])


def same_counts(what, got, truth):
    for name in ("recordsRead", "duplicates", "missing", "evicted", "notUnderstood", "hosts", "boots", "from", "to"):
        same(f"{what} {name}", got[name], truth[name])
    same(f"{what} gaps", len(got["gaps"]), truth["gaps"])
    same(f"{what} deepestQueue", got["maxima"]["deepestQueue"]["value"], truth["deepestQueue"])
    same(f"{what} sets", got["sets"]["reads"]["reports"], truth["setReports"])
    account = [got["account"][name] for name in
               ("pushed", "restored", "delivered", "failed", "dropped", "evicted", "waiting")]
    same(f"{what} account", account, truth["account"])
    same(f"{what} accounts", got["account"]["processes"], truth["boots"])
    same(f"{what} account adds up", got["account"]["addsUp"], True)


def worst_ten_minutes(truth):
    """The greatest share of slow I/Os in ten minutes that lie within the time span, said independently."""
    steps = {int(index): cell for index, cell in truth["steps"].items()}
    length = 600_000 // truth["stepMs"]
    best = 0
    for begin in range(min(steps), max(max(steps) - length + 1, min(steps)) + 1):
        cells = [steps[index] for index in range(begin, begin + length) if index in steps]
        ios = sum(cell["ios"] for cell in cells)
        best = max(best, sum(cell["slowIos"] for cell in cells) / ios if ios else 0)
    return best


def check_fleet(program, path, what, *options):
    truth = json.loads(pathlib.Path(f"{path}.truth.json").read_text())
    got = json.loads(run(program, "--json", "--step", f"{truth['stepMs'] // 1000}s", *options, path))
    same_counts(what, got, truth)
    same_totals(what, got, truth["totals"])
    for line in got["hostsBySlowShare"]:
        if len(line["host"]) < 97:
            same_totals(f"{what} host {line['host']!r}", line, truth["byHost"][line["host"]])
    shares = [line["slowShare"] for line in got["hostsBySlowShare"]]
    same(f"{what} order of hosts", shares, sorted(shares, reverse=True))
    same(f"{what} worst ten minutes", round(got["worstTenMinutes"]["slowShare"], 12),
         round(worst_ten_minutes(truth), 12))
    same(f"{what} clock steps", [step["byMs"] for step in got["clockSteps"]], [3_600_000])
    same(f"{what} bounds", [change["after"]["boundsUs"][0] for change in got["limitsChanges"]], [2000])
    same(f"{what} periods", sum(period["ios"] for period in got["periods"]), truth["totals"]["ios"])
    return truth


def check_choice(program, path):
    """One host, a part of the time: told by the truth of the host, and by the steps."""
    truth = json.loads(pathlib.Path(f"{path}.truth.json").read_text())
    got = json.loads(run(program, "--json", "--host", "host001", path))
    same("--host", got["hosts"], 1)
    same_totals("--host", got, truth["byHost"]["host001"])
    middle = report_records.START + 60 * 60_000
    early = json.loads(run(program, "--json", "--until", report_records.iso(middle), path))
    late = json.loads(run(program, "--json", "--since", report_records.iso(middle), path))
    expected = sum(cell["ios"] for index, cell in truth["steps"].items()
                   if (int(index) + 1) * truth["stepMs"] <= middle)
    same("--until", early["ios"], expected)
    same("--since", late["ios"], truth["totals"]["ios"] - expected)
    same("--since missing", late["missing"], truth["missing"])


def check_forms(program, path):
    plain = run(program, "--json", path)
    with open(path, "rb") as file, gzip.open(f"{path}.gz", "wb", 1) as packed:
        packed.write(file.read(100_000))
    with open(path, "rb") as file, gzip.open(f"{path}.gz", "ab", 1) as packed:  # a second member
        file.seek(100_000)
        shutil.copyfileobj(file, packed)
    same("gzip", run(program, "--json", f"{path}.gz"), plain)
    if shutil.which("zstd"):
        subprocess.run(["zstd", "-q", "-f", "-1", path], check=True)
        same("zstd", run(program, "--json", f"{path}.zst"), plain)
    with open(path, "rb") as file:
        same("standard input", run(program, "--json", stdin=file), plain)
    same("the same file twice", json.loads(run(program, "--json", path, path))["ios"], json.loads(plain)["ios"])


def check_text(program, path):
    text = run(program, path).decode()
    same("columns", [line for line in text.splitlines() if len(line) > 80], [])
    same("control characters", [line for line in text.split("\n") if any(ord(c) < 32 or 127 <= ord(c) < 160 for c in line)], [])


def main():
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    if sys.argv[3:] == ["large"]:
        fleets = {"day": ["--hosts", "100", "--boots", "3", "--reports", "1440"]}
    else:
        fleets = {"ordered": [], "shuffled": ["--hosts", "12", "--shuffle", "--seed", "2"],
                  "hostile": ["--hosts", "14", "--hostile", "--reports", "60", "--seed", "3"]}
    for name, options in fleets.items():
        path = str(folder / f"{name}.jsonl")
        report_records.fleet_of([path, *options])[1].write(path)
        check_fleet(program, path, name)
        check_text(program, path)
    if "ordered" in fleets:
        check_choice(program, str(folder / "ordered.jsonl"))
        check_forms(program, str(folder / "ordered.jsonl"))
    print("\n".join(differences) or "every figure equals the truth")
    sys.exit(1 if differences else 0)


if __name__ == "__main__":
    main()
