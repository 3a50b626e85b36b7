#!/usr/bin/env python3
"""check_summary.py PROGRAM FOLDER: what analytics-report shows of a small fleet that has everything, to the letter, and
what it says to wrong command lines and to inputs and outputs that fail. Exits with 1 and says what differs."""
import difflib
import gzip
import json
import pathlib
import re
import shutil
import subprocess
import sys

import report_records

PROGRAM = pathlib.Path(sys.argv[1]).absolute()
FOLDER = pathlib.Path(sys.argv[2]).absolute() / pathlib.Path(sys.argv[0]).stem  # of each check that uses this
NOON = report_records.START + 12 * 3_600_000
FILE = "a-file-whose-name-has-more-than-thirty-letters-and-no-utf-8\udcff.jsonl"
SHOWN_FILE = FILE.replace("\udcff", "\ufffd")
READABLE = "(expected a file of JSON lines, plain, gzip or zstd)"
WRITABLE = "(expected a file that can be written, see --html)"
OLD = dict(boundFastUs=1000, boundModerateUs=5000, boundSlowUs=20000, boundVerySlowUs=100000)
differences = []


def same(what, got, expected):
    if got != expected:
        lines = difflib.unified_diff(str(expected).splitlines(), str(got).splitlines(), "expected", "got", lineterm="", n=1)
        differences.append(f"{what}:\n  " + "\n  ".join(lines))


def run(*arguments, stdin=subprocess.DEVNULL):
    done = subprocess.run([PROGRAM, *arguments], cwd=FOLDER, timeout=100, stdin=stdin, capture_output=True, text=True)
    return done.returncode, done.stdout, done.stderr


def figures(*arguments):
    return json.loads(run("--json", *arguments)[1])


def record(process, sequence, seconds, name="StoragePeriodicParcel", strings=None, u32s=None, u64s=None, ahead=0, threshold=50000):
    host, boot = process.split()
    return report_records.line(
        json.dumps(host), boot, sequence, NOON + round(seconds * 1000), name, json.dumps(strings or {}), json.dumps(u32s or {}),
        json.dumps(u64s or {}), ahead, text=f"[Latency Threshold={threshold}][eq={threshold}]")


def report(process, sequence, seconds, classes=(1, 0, 0, 0, 0), failed=0, us=(0, 0, 0, 0, 0), episodes=(0, 0, 0), limits=OLD, strings=None,
           periodMs=60_000, **more):
    u32s = dict(zip(report_records.CLASSES, classes), cm6=episodes[2], episodes=episodes[0], **limits,
                **dict(zip(report_records.PERIOD_NAMES, us)))
    u64s = dict(failedIos=failed, periodMs=periodMs, episodeSumMs=episodes[1])
    return record(process, sequence, seconds, u32s=u32s, u64s=u64s, strings=strings, **more)


def account(process, sequence, seconds, *fates):
    names = ("pushed", "restored", "delivered", "failed", "dropped", "evicted", "waiting")
    return record(process, sequence, seconds, "ForwardingAccountParcel", u64s=dict(zip(names, fates)))


def evicted(process, sequence, seconds, whose, first, last, count):
    return record(process, sequence, seconds, "RecordsEvictedParcel", dict(zip(("host", "boot"), whose.split())),
                  u64s=dict(first=first, last=last, count=count))


DB, LATER, WEB = "db zz-the-first-process", "db aa", "web w"
NEW = dict(OLD, boundFastUs=2000)
SMALL_HOSTS = [(99, 0, 1, 0, 0), (198, 0, 2, 0, 0), (100, 0, 0, 0, 0), (200, 0, 0, 0, 0), (94, 0, 3, 2, 1), (0, 0, 0, 0, 0),
               *[(9, 0, 0, 0, 1)] * 5]
FLEET = [
    report(DB, 1, 0, (1000, 0, 0, 0, 0), us=(90, 200, 400, 800, 950)),
    report(DB, 2, 60, (1000, 0, 0, 0, 0)),
    report(DB, 2, 60, (1000, 0, 0, 0, 0)),
    report(DB, 4, 180, (1000, 0, 0, 0, 0)),
    report(DB, 3, 120, (1000, 0, 0, 0, 0)),  # joins 2 and 4
    evicted(DB, 9, 240, DB, 3, 6, 3),  # of the gap from 5 to 8
    report(DB, 13, 310, (1000, 0, 0, 0, 0), threshold=60000),  # limits change within a step, and this comes first
    report(DB, 10, 300, (1000, 0, 0, 0, 0), ahead=3_600_000),
    account(DB, 12, 305, 11, 2, 6, 1, 2, 3, 1),
    account(DB, 11, 301, 1, 1, 1, 1, 1, 1, 1),  # older, though it comes later
    report(DB, 14, 360, (1000, 0, 0, 0, 0), threshold=60000),
    report(DB, 15, 420, (1000, 0, 0, 0, 0), threshold=60000, limits=NEW),  # and from one step to the next
    report(LATER, 2, 1439.999, (989_000, 10_000, 700, 0, 1), 2, (80, 3000, 25_000, 1_500_000, 7_250_000), (3, 4500, 3000),
           threshold=60000, limits=NEW, ahead=7),
    report(WEB, 1, 600, (50, 20, 25, 4, 1), 1, (99, 100, 1000, 2000, 3000), (1, 60, 60)),
    report(WEB, 2, 600, (10, 20, 30, 0, 0), strings={"set": "reads"}),
    report(WEB, 3, 660, (1, 1, 1, 1, 1), us=(1, 2, 3, 4, 5), strings={"set": "reads"}),
    report(WEB, 4, 660, (0, 0, 0, 0, 0), strings={"set": "writes"}),
    record(WEB, 5, 660, "HostMaximaParcel", u64s=dict(deepestQueue=7, longestIoUs=5)),
    record(LATER, 3, 661, "HostMaximaParcel", u64s=dict(deepestQueue=7, longestIoUs=4)),
    record(WEB, 6, 661, "SomeParcel", u32s=dict(cm1=5)),
    account(WEB, 7, 662, 1, 0, 0, 0, 0, 0, 0),  # does not add up
    evicted(WEB, 8, 663, "ghost g", 1, 9, 2),  # of a process that is not seen otherwise
    b"hello\n", b"\n", b" \t\r\n", b"{}\n", b"[]\n", b"null\n",
    *(report(f"host{number:02} b", 2, 700, classes) for number, classes in enumerate(SMALL_HOSTS, 1)),
]

STRANGE_AND_MISSING = """\
  a-file-whose-name-has-more-th~:23: it is not JSON
  a-file-whose-name-has-more-th~:26: it has no field schema
  a-file-whose-name-has-more-th~:27: it is no JSON object
  host db, boot zz-the-~: 2 records missing
    between 2026-11-23 12:03:00 and 2026-11-23 12:04:00
  host db, boot aa: 1 record missing
    before 2026-11-23 12:23:59"""
MISSING = "\n".join(f"  host host{number:02}, boot b: 1 record missing\n    before 2026-11-23 12:11:40" for number in range(1, 9))
ALL = f"""\
Storage latency
  2026-11-23 12:00:00 to 2026-11-23 12:23:59 UTC, 24 min
  13 hosts, 14 boots, 21 reports

       latency              I/Os    share
  cm1  fast               997786   98.9 %  ######################################
  cm2  moderate            10020    1.0 %  #
  cm3  slow                  731    0.1 %  #
  cm4  very slow               6   <0.1 %  #
  cm5  slowest                 8   <0.1 %  #
       all               1008551
       failed                  3
  worst period: p50 99 us  p90 3 ms  p99 25 ms  p99.9 1.5 s
  high-latency episodes: 4, mean 1.14 s, longest 3 s

Over time, by 2 min: slow are cm3 to cm5, p99 is the worst report's
  from (UTC)                     I/Os     slow                   p99   episode
  2026-11-23 12:00:00            2000    0.0 %                400 us      0 ms
  2026-11-23 12:02:00            2000    0.0 %                  0 us      0 ms
  2026-11-23 12:04:00            2000    0.0 %                  0 us      0 ms
  2026-11-23 12:06:00            2000    0.0 %                  0 us      0 ms
  2026-11-23 12:10:00             850    5.2 %  #               1 ms     60 ms
  2026-11-23 12:22:00          999701    0.1 %  #              25 ms       3 s
  worst 10 min: from 2026-11-23 12:10:00, 5.2 % of 850 I/Os slow

Worst hosts, by share of slow I/Os
  host                           I/Os     slow                   p99   episode
  web                             100   30.0 %  ###             1 ms     60 ms
  host07                           10   10.0 %  #               0 us      0 ms
  host08                           10   10.0 %  #               0 us      0 ms
  host09                           10   10.0 %  #               0 us      0 ms
  host10                           10   10.0 %  #               0 us      0 ms
  host11                           10   10.0 %  #               0 us      0 ms
  host05                          100    6.0 %  #               0 us      0 ms
  host02                          200    1.0 %  #               0 us      0 ms
  host01                          100    1.0 %  #               0 us      0 ms
  db                          1007701    0.1 %  #              25 ms       3 s
  and 3 more

Sets, which are parts of the above
  set                            I/Os     slow                   p99   episode
  reads                            65   50.8 %  #####           3 us      0 ms
  writes                            0    0.0 %                  0 us      0 ms

Maxima
  longest I/O in a report: 7.25 s
  deepestQueue = 7  (db)
  longestIoUs = 5  (web)

Account of 2 processes, summed up
  pushed 12 + restored 2
  is NOT delivered 6 + failed 1 + dropped 2
    + evicted 3 + waiting 1

Records
  33 read, 1 doubled, 14 missing, 4 not understood, 5 evicted
{STRANGE_AND_MISSING}
{MISSING}
  and 3 more such lines
  host db, boot zz-the-~: the clock was set by 60 min
  host db: limits changed by 2026-11-23 12:05:10, to
    threshold 60 ms, bounds 1 ms 5 ms 20 ms 100 ms
  host db: limits changed by 2026-11-23 12:07:00, to
    threshold 60 ms, bounds 2 ms 5 ms 20 ms 100 ms
"""
# Outlines: what a summary consists of, and its parts that say something new.
DB_ALONE = """\
Storage latency Over Maxima Account Records

Storage latency
  2026-11-23 12:00:00 to 2026-11-23 12:23:59 UTC, 24 min
  1 host, 2 boots, 9 reports

Over time, by 5 min: slow are cm3 to cm5, p99 is the worst report's
  from (UTC)                     I/Os     slow                   p99   episode
  2026-11-23 12:00:00            4000    0.0 %                400 us      0 ms
  2026-11-23 12:05:00            4000    0.0 %                  0 us      0 ms
  2026-11-23 12:20:00          999701    0.1 %  #              25 ms       3 s
  worst 10 min: from 2026-11-23 12:15:00, 0.1 % of 999701 I/Os slow

Account of 1 process
  pushed 11 + restored 2
  = delivered 6 + failed 1 + dropped 2
    + evicted 3 + waiting 1
"""
PART = f"""\
Storage latency Worst Sets, Maxima Account Records

Storage latency
  2026-11-23 12:10:00 to 2026-11-23 12:11:00 UTC, 60 s
  2 hosts, 3 boots, 1 report

Worst hosts, by share of slow I/Os
  host                           I/Os     slow                   p99   episode
  web                             100   30.0 %  ###             1 ms     60 ms
  db                                0    0.0 %                  0 us      0 ms

Records
  22 read, 1 doubled, 3 missing, 4 not understood, 3 evicted
{STRANGE_AND_MISSING}
  host db, boot zz-the-~: the clock was set by 60 min
"""
WITHOUT_REPORTS = """\
Storage Sets, Maxima Account Records

Storage latency
  2026-11-23 12:11:00 to 2026-11-23 12:11:01 UTC, 1 s
  1 host, 1 boot, 0 reports

Maxima
  deepestQueue = 7  (web)
  longestIoUs = 5  (web)
"""


def at(minutes):
    return report_records.iso(NOON + round(minutes * 60_000))


LIMITS = [dict(thresholdUs=threshold, boundsUs=[fast, 5000, 20000, 100000]) for threshold, fast in
          ((50000, 1000), (60000, 1000), (60000, 2000))]
LARGEST_US = (99, 3000, 25_000, 1_500_000, 7_250_000)
SUMS = dict(reports=21, ios=1008551, failedIos=3, classes=dict(cm1=997786, cm2=10020, cm3=731, cm4=6, cm5=8), slowIos=745,
            slowShare=745 / 1008551, worstPercentilesUs=dict(zip(("p50", "p90", "p99", "p99.9", "max"), LARGEST_US)),
            episodes=4, episodeSumMs=4560, meanEpisodeMs=1140.0, longestEpisodeMs=3000)
JSON = dict(
    recordsRead=33, duplicates=1, missing=14, evicted=5, notUnderstood=4,
    firstNotUnderstood=[dict(file=SHOWN_FILE, line=line, reason=reason) for line, reason in (
        (23, "it is not JSON"), (26, "it has no field schema"), (27, "it is no JSON object"))],
    otherRecords=6, hosts=13, boots=14, **{"from": at(0), "to": "2026-11-23T12:23:59.999Z"}, stepMs=60_000, ios=1008551,
    periods=[{"from": at(minute), "to": at(minute + 2), "ios": ios} for minute, ios in (
        (0, 2000), (2, 2000), (4, 2000), (6, 2000), (10, 850), (22, 999_701))],
    worstTenMinutes={"from": at(10), "to": at(20), "ios": 850},
    hostsBySlowShare=[dict(host=host, boots=2 if host == "db" else 1, ios=ios) for host, ios in (
        ("web", 100), *[(f"host{number:02}", 10) for number in range(7, 12)], ("host05", 100), ("host02", 200), ("host01", 100),
        ("db", 1_007_701), ("host04", 200), ("host03", 100), ("host06", 0))],
    sets=dict(reads=dict(ios=65), writes=dict(ios=0)),
    maxima=dict(deepestQueue=dict(value=7, host="db"), longestIoUs=dict(value=5, host="web")),
    gaps=[dict(host="db", boot="zz-the-first-process", first=5, last=8, missing=2, after=at(3), before=at(4)),
          dict(host="db", boot="aa", first=1, last=1, missing=1, after=None, before="2026-11-23T12:23:59.999Z"),
          *[dict(host=f"host{number:02}", boot="b", first=1, last=1, missing=1, after=None, before=at(700 / 60))
            for number in range(1, 12)]],
    clockSteps=[dict(host="db", boot="zz-the-first-process", byMs=3_600_000)],
    limitsChanges=[dict(host="db", at="2026-11-23T12:05:10.000Z", before=LIMITS[0], after=LIMITS[1]),
                   dict(host="db", at=at(7), before=LIMITS[1], after=LIMITS[2])],
    account=dict(processes=2, pushed=12, restored=2, delivered=6, failed=1, dropped=2, evicted=3, waiting=1, addsUp=False))


def brief(part):
    """A part of the figures, of its sums the I/Os alone."""
    return {name: part[name] for name in part if name == "ios" or name not in SUMS}


def outline(text, *whole):
    """The first words of a summary's parts, and those parts that begin with one of these words."""
    parts = text.rstrip("\n").split("\n\n")
    return "\n\n".join([" ".join(part.split()[0] for part in parts), *(part for part in parts if part.startswith(whole))]) + "\n"


def check_fleet():
    (FOLDER / FILE).write_bytes(b"".join(FLEET))
    same("summary", run(FILE), (0, ALL, ""))
    for expected, whole, arguments in (
            (DB_ALONE, ("Over", "Account"), ["--host", "db", "--step=5m"]),
            (PART, ("Worst", "Records"), ["--since", "2026-11-23T12:10", "--until", "2026-11-23 12:11:01.000Z", "--host=db", "--host=web"]),
            (WITHOUT_REPORTS, ("Maxima",), ["--since=2026-11-23T12:11", "--until=2026-11-23T12:11:01.001", "--host=web"])):
        same(f"summary with {arguments}", outline(run(*arguments, FILE)[1], "Storage", *whole), expected)
    same("summary of no records", run("--since=2027-01-01", FILE)[1], "Storage latency\n  no records in this time\n"
         + ALL[ALL.index("\nAccount"):ALL.index("  host db: limits")])
    got = run("--json", FILE)[1]
    same("figures", *(json.dumps(each, indent=1) for each in (json.loads(got, object_hook=brief), JSON)))
    same("sums", {name: json.loads(got)[name] for name in SUMS}, SUMS)
    same("limits of longer steps", figures("--step=5m", "--host=db", FILE)["limitsChanges"], [
        dict(host="db", at=at(7), before=LIMITS[0], after=LIMITS[2])])
    same("periods of 29 steps", [(line["from"], line["to"]) for line in figures("--step=50s", FILE)["periods"]][:2],
         [(at(0), at(2.5)), (at(2.5), at(5))])


def few(what, records, look, expected):
    """Compares a figure of a few records."""
    (FOLDER / "few.jsonl").write_bytes(b"".join(records))
    same(what, look(figures("few.jsonl")), expected)


def check_boundaries():
    """The step that is chosen, for reports at two times and of a period; what is just a step of the clock, what is just an
    eviction, and what has no slow I/O; sums at the top of their type; sets and maxima beyond the 64th, which are one; long names."""
    for seconds, period_ms, step_ms in ((1499, 0, 1000), (1500, 0, 5000), (1500 * 5 - 1, 0, 5000), (1500 * 5, 0, 10_000),
                                        (0, 1100, 1000), (0, 1112, 5000), (0, 33_000, 30_000), (0, 34_000, 60_000),
                                        (0, 600_000, 600_000), (0, 86_400_000, 600_000),
                                        (86_400 * 365 * 100, 0, 2_419_200_000)):
        few(f"step for {seconds} s, {period_ms} ms", [report("h b", 1, -12 * 3600, periodMs=period_ms),
                                                      report("h b", 2, seconds - 12 * 3600, periodMs=0)],
            lambda got: got["stepMs"], step_ms)
    for ahead, by in ((1999, []), (2000, [2000]), (-1999, []), (-2000, [2000])):
        few(f"clock set by {ahead}", [report("h b", 1, 0), report("h b", 2, 60, ahead=ahead)],
            lambda got: [step["byMs"] for step in got["clockSteps"]], by)
    text = run("few.jsonl")[1]
    same("no slow I/O", (figures("few.jsonl")["worstTenMinutes"], "worst 10 min" in text, "Over time" in text), (None, False, True))
    few("order of changes", [report(process, number, seconds, threshold=threshold) for process, number, seconds, threshold in (
            ("a b", 1, 0, 1), ("a b", 2, 180, 2), ("b b", 1, 0, 1), ("b b", 2, 120, 2), ("b b", 3, 121, 2))],
        lambda got: [(line["host"], line["at"]) for line in got["limitsChanges"]], [("b", at(2)), ("a", at(3))])
    for first, last, count, expected in ((0, 5, 5, 0), (7, 3, 5, 0), (3, 3, 1, 1), (1, 2**64 - 2, 9, 9), (1, 2**64 - 1, 9, 0),
                                         (2, 4, 9, 3)):
        few(f"evicted {first} to {last}", [evicted("h b", 1, 0, "h b", first, last, count)], lambda got: got["evicted"], expected)
    few("a name cut at a character", [report("h" * 95 + "\u00e9" * 20 + " b", 1, 0)],
        lambda got: got["hostsBySlowShare"][0]["host"][:96], "h" * 95 + "~")
    few("sums at the top", [report("h b", number, 1, failed=2**64 - 1, episodes=(1, 2**64 - 1, 1)) for number in (1, 2)],
        lambda got: (got["failedIos"], got["episodeSumMs"], got["ios"]), (2**64 - 1, 2**64 - 1, 2))
    few("further maxima", [record("h b", 1 + n, n, "HostMaximaParcel", u64s={f"m{n}": n}) for n in range(70)],
        lambda got: (len(got["maxima"]), got["maxima"]["(others)"]), (65, dict(value=69, host="h")))
    few("further sets", [report("h b", 1 + n, n, strings=dict(set=f"s{n}")) for n in range(70)],
        lambda got: (len(got["sets"]), got["sets"]["(others)"]["ios"]), (65, 6))
    few("long names", [report("h" * length + " b", 1, 0) for length in (130, 131)],
        lambda got: [len(line["host"]) for line in got["hostsBySlowShare"]], [113, 113])
    same("a long name chosen", figures("--host", "h" * 131, "few.jsonl")["ios"], 1)


def check_command_lines():
    for arguments, code, said in (  # a part of the output, or the whole error
            ([FILE, "--json", "--html", "row.html"], 0, '"recordsRead": 33'),
            (["--help"], 0, "\n  analytics-report records/*.jsonl.zst\n"),
            (["--since=2026-01-02", "--until=2026-01-02T00:00:00.001", FILE], 0, "no records in this time"),
            (["--hots=a"], 2, "'--hots=a' is not an option, did you mean '--host'? (see --help)"),
            (["--hotsx=a"], 2, "'--hotsx=a' is not an option, did you mean '--host'? (see --help)"),
            (["--hostabc"], 2, "'--hostabc' is not an option (see --help)"),
            (["--since", "x"], 2, "--since: expected a time such as 2026-11-23T14:00 or 2026-11-23, got 'x' (see --help)"),
            (["--since=2026-01-02", "--until=2026-01-02"], 2, "--until: expected a time after that of --since (see --help)"),
            (["--step", "5"], 2, "--step: expected a number with s, m, h or d, such as 30s or 5m, got '5' (see --help)"),
            ([FILE, "missing"], 1, f"cannot open missing: No such file or directory {READABLE}"),
            (["."], 1, f"cannot open .: Is a directory {READABLE}"),
            (["--follow", "."], 1, f"cannot open .: Is a directory {READABLE}"),
            (["--follow", "nowhere/x"], 1, "cannot watch the folder of nowhere/x: No such file or directory"),
            (["--html", "nowhere/x", FILE], 1, f"cannot write the page to nowhere/x: No such file or directory {WRITABLE}"),
            (["--html", "/dev/full", FILE], 1, f"cannot write the page to /dev/full: No space left on device {WRITABLE}")):
        got, shown, error = run(*arguments)
        same(f"{arguments}", (got, said in shown if code == 0 else shown, error),
             (0, True, "") if code == 0 else (code, "", f"analytics-report: {said}\n"))
        same(f"lines of {arguments}", [line for line in shown.splitlines() if len(line) > 80 and '"' not in line], [])
    for option in "--json", "--html":  # that they exclude each other is said in any words
        code, _, error = run("--follow", option, "x")
        same(f"--follow {option}", (code, sorted(re.findall("--[a-z]+", error)), error.count("\n")),
             (2, sorted(["--follow", option, "--help"]), 1))
    rows = [(arguments, f"</dev/null {output}", "cannot write to standard output") for output in (">/dev/full", ">&-")
            for arguments in (["--help"], ["--version"], [FILE], ["--json", FILE], ["--follow", "-"])]
    for arguments, streams, error in *rows, ([], "<&-", "standard input, byte 0: Bad file descriptor; what stands before counts"):
        done = subprocess.run(["sh", "-c", f'exec "$0" "$@" {streams}', PROGRAM, *arguments], cwd=FOLDER, capture_output=True,
                              timeout=100, text=True)
        same(f"{arguments} {streams}", (done.returncode, done.stderr), (1, f"analytics-report: {error}\n"))


def check_inputs():
    """Compressed inputs of several parts, damaged and cut; the file behind them counts."""
    big = b"".join(report("h b", number, number, (number, 1, 0, 0, 0), us=(7, number * 7919 % 100_003, 3, 4, 5))
                   for number in range(1, 400))
    rest = report("h b", 400, 400) * 2
    (FOLDER / "behind.jsonl").write_bytes(report("h b", 401, 401).rstrip(b"\n"))
    kinds = {"gzip": lambda data: gzip.compress(data, 0)}
    if shutil.which("zstd"):
        kinds["zstd"] = lambda data: subprocess.run(["zstd", "-q", "-c", "-1"], input=data, capture_output=True, check=True).stdout
    for kind, packed in kinds.items():
        one, two = packed(big), packed(rest)
        for name, data, count, error in (
                ("whole", packed(b"") + one + two, 402, ""),
                ("cut", one + two[:-1], 402, f"byte {len(one + two) - 1}: the compressed data ends too early"),
                ("cut short", one + two[:5], 400, f"byte {len(one) + 5}: the compressed data ends too early"),
                ("damaged", one + two[:4] + b"\xff" * 40, 400, f"byte {len(one)}: the {kind} data is damaged")):
            (FOLDER / name).write_bytes(data)
            code, text, got = run(name, "behind.jsonl")
            same(f"{kind} {name}", (code, re.search(r"\d+ read, \d+", text).group(), got),
                 (1 if error else 0, f"{count} read, {max(0, count - 401)}",
                  f"analytics-report: {name}, {error}; what stands before counts\n" if error else ""))
    for data, counts in ((b"", "0 read, 0 doubled, 0 missing, 0"), (b"\x1f", "0 read, 0 doubled, 0 missing, 1"),
                         (b"\n" + rest, "2 read, 1 doubled, 399 missing, 0")):
        (FOLDER / "plain").write_bytes(data)
        same(f"plain {data[:20]!r}", counts in run("plain")[1], True)
        with open(FOLDER / "plain", "rb") as file:
            same(f"standard input {data[:20]!r}", counts in run("-", stdin=file)[1], True)


def page(*arguments):
    """The data of the page that is made of this."""
    run("--html", "page.html", *arguments)
    return json.loads(re.search(r'id="data">(.*?)</script>', (FOLDER / "page.html").read_text(), re.S).group(1))


def check_page():
    steps, heat = (page("--step", "1s", FILE)[part] for part in ("steps", "heat"))
    same("heat map", (heat["stepMs"], heat["left"], heat["hosts"]), (12_000, 0, [line["host"] for line in JSON["hostsBySlowShare"]]))
    cells = [(host, (t - NOON) / 12_000, *ios) for host, t, *ios in zip(*(heat[name] for name in ("host", "t", "ios", "slow")))]
    same("its cells", cells[:2] + cells[9:17], [(0, 50, 100, 30), (1, 58, 10, 1), *((9, column, 1000, 0) for column in (0, 5, 10, 15)),
                                                (9, 25, 2000, 0), (9, 30, 1000, 0), (9, 35, 1000, 0), (9, 119, 999_701, 701)])
    same("steps", [((t - NOON) / 1000, threshold) for t, threshold in zip(steps["t"], steps["thresholdUs"])][:6],
         [(0, 50000), (60, 50000), (120, 50000), (180, 50000), (300, 50000), (310, 60000)])
    last = {name: [column[-1] for column in values] if isinstance(values[0], list) else values[-1] for name, values in steps.items()}
    same("the last step", last, dict(
        t=NOON + 1_439_000, classes=[989_000, 10_000, 700, 0, 1], failed=2, percentilesUs=[80, *LARGEST_US[1:]], episodes=3,
        episodeSumMs=4500, longestEpisodeMs=3000, thresholdUs=60000, boundsUs=[2000, 5000, 20000, 100000]))
    (FOLDER / "hosts.jsonl").write_bytes(b"".join(report(f"h{n} b", 1, n // 2, (1, 0, 0, 0, n)) for n in range(203)))
    heat = page("hosts.jsonl")["heat"]
    same("hosts left out", (heat["left"], len(heat["hosts"]), heat["hosts"][0], heat["stepMs"]), (3, 200, "h202", 60_000))
    same("threshold of a step", page(FILE)["steps"]["thresholdUs"][4], 60000)
    (FOLDER / "hosts.jsonl").write_bytes(report("<!--</script>& b", 1, 1, (1, 0, 0, 0, 0)))
    page("hosts.jsonl")
    data = (FOLDER / "page.html").read_text().split('id="data">')[1].split("</script>\n<script>")[0]
    same("markup within the data", re.findall("[<>&]", data), [])
    # The page that is there stays until the new one is complete.
    (FOLDER / "page.html").write_text("before")
    process = subprocess.Popen([PROGRAM, "--html", "page.html"], cwd=FOLDER, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    process.stdin.write(b"\n" * (1 << 20))  # more than a pipe holds: the program has begun to read
    process.stdin.flush()
    same("page while reading", (FOLDER / "page.html").read_text(), "before")
    process.stdin.close()
    same("page after reading", (process.wait(100), '"recordsRead":0,' in (FOLDER / "page.html").read_text()), (0, True))


def on_terminal(redirection):
    """What comes to a terminal when the program reads the long file and the fleet."""
    command = f"'{PROGRAM}' long.jsonl {FILE} {redirection}"
    done = subprocess.run(["script", "-qec", command, "/dev/null"], cwd=FOLDER, stdin=subprocess.DEVNULL, capture_output=True, timeout=100)
    same("exit code on a terminal", done.returncode, 0)
    return done.stdout.decode().replace("\r\n", "\n")


def check_terminal():
    """Colours, and the progress of a long file: one line without a line feed, which is too long."""
    with open(FOLDER / "long.jsonl", "wb") as file:
        file.truncate(1 << 30)
    plain = ALL.replace("4 not", "5 not").replace(f"  {FILE[:29]}~:27: it is no JSON object\n", "").replace(
        f"  {FILE[:29]}~:23", f"  long.jsonl:1: it is longer than 16 MiB\n  {FILE[:29]}~:23")
    progress = on_terminal(">other")
    same("summary beside the progress", (FOLDER / "other").read_text(), plain)
    shares = re.findall(r"\r\x1b\[Kreading long.jsonl: (\d+) MiB, (\d+) %", progress)
    same("progress", re.sub(r"(\r\x1b\[Kreading long.jsonl: \d+ MiB, \d+ %)+", "shares", progress), "shares\r\x1b[K")
    same("its shares", [int(share) for _, share in shares], [int(size) * 100 // 1024 for size, _ in shares])
    summary = on_terminal("2>other")
    same("summary on a terminal", (re.sub(r"\x1b\[[0-9;]*m", "", summary), (FOLDER / "other").read_text()), (plain, ""))
    same("colours", re.findall(r"\x1b\[(\d+)m#", summary), ["32", "36", "33", "35", "31"])
    same("titles", re.findall(r"\x1b\[1m(\w+)", summary), ["Storage", "Over", "Worst", "Sets", "Maxima", "Account", "Records"])
    (FOLDER / "long.jsonl").unlink()


def main():
    FOLDER.mkdir(parents=True, exist_ok=True)
    for check in (check_fleet, check_boundaries, check_command_lines, check_inputs, check_page, check_terminal):
        check()
    print("\n".join(differences) or "the summary is as expected")
    sys.exit(1 if differences else 0)


if __name__ == "__main__":
    main()
