#!/usr/bin/env python3
"""check_summary.py PROGRAM FOLDER: what analytics-report shows of a small fleet that has everything, to the letter, and
what it says to wrong command lines and to inputs and outputs that fail. Exits with 1 and says what differs."""
import difflib
import gzip
import json
import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import sys

import report_records

PROGRAM = pathlib.Path(sys.argv[1]).absolute()
FOLDER = pathlib.Path(sys.argv[2]).absolute() / pathlib.Path(sys.argv[0]).stem  # of each check that uses this
NOON = report_records.START + 12 * 3_600_000
FILE = "a-file-whose-name-has-more-than-thirty-letters.jsonl"
OLD = dict(boundFastUs=1000, boundModerateUs=5000, boundSlowUs=20000, boundVerySlowUs=100000)
differences = []


def same(what, got, expected):
    if got != expected:
        lines = difflib.unified_diff(str(expected).splitlines(), str(got).splitlines(), "expected", "got", lineterm="", n=1)
        differences.append(f"{what}:\n  " + "\n  ".join(lines))


def run(*arguments, **options):
    done = subprocess.run([PROGRAM, *map(str, arguments)], cwd=FOLDER, timeout=100, stderr=subprocess.PIPE,
                          **{"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, **options})
    return done.returncode, (done.stdout or b"").decode(), done.stderr.decode()


def figures(*arguments, **options):
    return json.loads(run("--json", *arguments, **options)[1])


def record(process, sequence, seconds, name="StoragePeriodicParcel", strings=None, u32s=None, u64s=None, ahead=0, threshold=50000):
    host, boot = process.split()
    return report_records.Writer().line(
        json.dumps(host), boot, sequence, NOON + round(seconds * 1000), name, json.dumps(strings or {}), json.dumps(u32s or {}),
        json.dumps(u64s or {}), ahead, text=f"[Latency Threshold={threshold}][eq={threshold}]")


def report(process, sequence, seconds, classes, failed=0, us=(0, 0, 0, 0, 0), episodes=(0, 0, 0), limits=OLD, strings=None,
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
    report(DB, 10, 300, (1000, 0, 0, 0, 0), ahead=3_600_000),
    account(DB, 12, 305, 11, 2, 6, 1, 2, 3, 1),
    account(DB, 11, 301, 1, 1, 1, 1, 1, 1, 1),  # older, though it comes later
    report(DB, 13, 310, (1000, 0, 0, 0, 0), threshold=60000),  # limits change within a step
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

# What the texts below have in common.
SETS = """\
Sets, which are parts of the above
  set                            I/Os     slow                   p99   episode
  reads                            65   50.8 %  #####           3 us      0 ms
  writes                            0    0.0 %                  0 us      0 ms"""
ACCOUNTS = """\
Account of 2 processes, summed up
  pushed 12 + restored 2
  is NOT delivered 6 + failed 1 + dropped 2
    + evicted 3 + waiting 1"""
STRANGE_AND_MISSING = """\
  a-file-whose-name-has-more-th~:23: it is not JSON
  a-file-whose-name-has-more-th~:26: it has no field schema
  a-file-whose-name-has-more-th~:27: it is no JSON object
  host db, boot zz-the-~: 2 records missing
    between 2026-11-23 12:03:00 and 2026-11-23 12:04:00
  host db, boot aa: 1 record missing
    before 2026-11-23 12:23:59"""
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

{SETS}

Maxima
  longest I/O in a report: 7.25 s
  deepestQueue = 7  (db)
  longestIoUs = 5  (web)

{ACCOUNTS}

Records
  33 read, 1 doubled, 14 missing, 4 not understood, 5 evicted
{STRANGE_AND_MISSING}
  host host01, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host02, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host03, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host04, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host05, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host06, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host07, boot b: 1 record missing
    before 2026-11-23 12:11:40
  host host08, boot b: 1 record missing
    before 2026-11-23 12:11:40
  and 3 more such lines
  host db, boot zz-the-~: the clock was set by 60 min
  host db: limits changed by 2026-11-23 12:05:10, to
    threshold 60 ms, bounds 1 ms 5 ms 20 ms 100 ms
  host db: limits changed by 2026-11-23 12:07:00, to
    threshold 60 ms, bounds 2 ms 5 ms 20 ms 100 ms
"""
DB_ALONE = f"""\
Storage latency
  2026-11-23 12:00:00 to 2026-11-23 12:23:59 UTC, 24 min
  1 host, 2 boots, 9 reports

       latency              I/Os    share
  cm1  fast               997000   98.9 %  ######################################
  cm2  moderate            10000    1.0 %  #
  cm3  slow                  700    0.1 %  #
  cm4  very slow               0    0.0 %
  cm5  slowest                 1   <0.1 %  #
       all               1007701
       failed                  2
  worst period: p50 90 us  p90 3 ms  p99 25 ms  p99.9 1.5 s
  high-latency episodes: 3, mean 1.5 s, longest 3 s

Over time, by 5 min: slow are cm3 to cm5, p99 is the worst report's
  from (UTC)                     I/Os     slow                   p99   episode
  2026-11-23 12:00:00            4000    0.0 %                400 us      0 ms
  2026-11-23 12:05:00            4000    0.0 %                  0 us      0 ms
  2026-11-23 12:20:00          999701    0.1 %  #              25 ms       3 s
  worst 10 min: from 2026-11-23 12:15:00, 0.1 % of 999701 I/Os slow

Maxima
  longest I/O in a report: 7.25 s
  deepestQueue = 7  (db)
  longestIoUs = 4  (db)

Account of 1 process
  pushed 11 + restored 2
  = delivered 6 + failed 1 + dropped 2
    + evicted 3 + waiting 1

Records
  14 read, 1 doubled, 3 missing, 4 not understood, 3 evicted
{STRANGE_AND_MISSING}
  host db, boot zz-the-~: the clock was set by 60 min
  host db: limits changed by 2026-11-23 12:07:00, to
    threshold 60 ms, bounds 2 ms 5 ms 20 ms 100 ms
"""
PART = f"""\
Storage latency
  2026-11-23 12:10:00 to 2026-11-23 12:11:00 UTC, 60 s
  2 hosts, 3 boots, 1 report

       latency              I/Os    share
  cm1  fast                   50   50.0 %  ###################
  cm2  moderate               20   20.0 %  ########
  cm3  slow                   25   25.0 %  ##########
  cm4  very slow               4    4.0 %  ##
  cm5  slowest                 1    1.0 %  #
       all                   100
       failed                  1
  worst period: p50 99 us  p90 100 us  p99 1 ms  p99.9 2 ms
  high-latency episodes: 1, mean 60 ms, longest 60 ms

Worst hosts, by share of slow I/Os
  host                           I/Os     slow                   p99   episode
  web                             100   30.0 %  ###             1 ms     60 ms
  db                                0    0.0 %                  0 us      0 ms

{SETS}

Maxima
  longest I/O in a report: 3 ms
  deepestQueue = 7  (web)
  longestIoUs = 5  (web)

{ACCOUNTS}

Records
  22 read, 1 doubled, 3 missing, 4 not understood, 3 evicted
{STRANGE_AND_MISSING}
  host db, boot zz-the-~: the clock was set by 60 min
"""


def totals(reports, classes, failed=0, us=(0, 0, 0, 0, 0), episodes=(0, 0, 0)):
    ios, slow = sum(classes), sum(classes[2:])
    return dict(reports=reports, ios=ios, failedIos=failed, classes=dict(zip(report_records.CLASSES, classes)), slowIos=slow,
                slowShare=slow / ios if ios else 0.0, worstPercentilesUs=dict(zip(("p50", "p90", "p99", "p99.9", "max"), us)),
                episodes=episodes[0], episodeSumMs=episodes[1], meanEpisodeMs=episodes[1] / episodes[0] if episodes[0] else 0.0,
                longestEpisodeMs=episodes[2])


def at(minutes):
    return report_records.iso(NOON + round(minutes * 60_000))


WEB_US, WEB_EPISODES = (99, 100, 1000, 2000, 3000), (1, 60, 60)
QUIET = totals(2, (2000, 0, 0, 0, 0))
BUSY = totals(12, (786, 20, 31, 6, 7), 1, WEB_US, WEB_EPISODES)
LAST_US = (80, 3000, 25_000, 1_500_000, 7_250_000)
SMALL = {f"host{number:02}": classes for number, classes in enumerate(SMALL_HOSTS, 1)}
LIMITS = [dict(thresholdUs=threshold, boundsUs=[fast, 5000, 20000, 100000]) for threshold, fast in
          ((50000, 1000), (60000, 1000), (60000, 2000))]
JSON = dict(
    recordsRead=33, duplicates=1, missing=14, evicted=5, notUnderstood=4,
    firstNotUnderstood=[dict(file=FILE, line=line, reason=reason) for line, reason in (
        (23, "it is not JSON"), (26, "it has no field schema"), (27, "it is no JSON object"))],
    otherRecords=6, hosts=13, boots=14, **{"from": at(0), "to": "2026-11-23T12:23:59.999Z"}, stepMs=60_000,
    **totals(21, (997786, 10020, 731, 6, 8), 3, (99, 3000, 25_000, 1_500_000, 7_250_000), (4, 4560, 3000)),
    periods=[{"from": at(minute), "to": at(minute + 2), **sums} for minute, sums in (
        (0, totals(2, (2000, 0, 0, 0, 0), us=(90, 200, 400, 800, 950))), (2, QUIET), (4, QUIET), (6, QUIET), (10, BUSY),
        (22, totals(1, (989_000, 10_000, 700, 0, 1), 2, LAST_US, (3, 4500, 3000))))],
    worstTenMinutes={"from": at(10), "to": at(20), **BUSY},
    hostsBySlowShare=[
        dict(host="web", boots=1, **totals(1, (50, 20, 25, 4, 1), 1, WEB_US, WEB_EPISODES)),
        *[dict(host=name, boots=1, **totals(1, SMALL[name])) for name in
          ("host07", "host08", "host09", "host10", "host11", "host05", "host02", "host01")],
        dict(host="db", boots=2, **totals(9, (997_000, 10_000, 700, 0, 1), 2, (90, *LAST_US[1:]), (3, 4500, 3000))),
        *[dict(host=name, boots=1, **totals(1, SMALL[name])) for name in ("host04", "host03", "host06")]],
    sets=dict(reads=totals(2, (11, 21, 31, 1, 1), us=(1, 2, 3, 4, 5)), writes=totals(1, (0, 0, 0, 0, 0))),
    maxima=dict(deepestQueue=dict(value=7, host="db"), longestIoUs=dict(value=5, host="web")),
    gaps=[dict(host="db", boot="zz-the-first-process", first=5, last=8, missing=2, after=at(3), before=at(4)),
          dict(host="db", boot="aa", first=1, last=1, missing=1, after=None, before="2026-11-23T12:23:59.999Z"),
          *[dict(host=name, boot="b", first=1, last=1, missing=1, after=None, before=at(700 / 60)) for name in SMALL]],
    clockSteps=[dict(host="db", boot="zz-the-first-process", byMs=3_600_000)],
    limitsChanges=[dict(host="db", at="2026-11-23T12:05:10.000Z", before=LIMITS[0], after=LIMITS[1]),
                   dict(host="db", at=at(7), before=LIMITS[1], after=LIMITS[2])],
    account=dict(processes=2, pushed=12, restored=2, delivered=6, failed=1, dropped=2, evicted=3, waiting=1, addsUp=False))


PART_OPTIONS = ["--since", "2026-11-23T12:10", "--until", "2026-11-23 12:11:01.000Z", "--host=db", "--host=web"]
WITHOUT_REPORTS = """\
Storage latency
  2026-11-23 12:11:00 to 2026-11-23 12:11:01 UTC, 1 s
  1 host, 1 boot, 0 reports

Sets, which are parts of the above
  set                            I/Os     slow                   p99   episode
  reads                             5   60.0 %  ######          3 us      0 ms
  writes                            0    0.0 %                  0 us      0 ms

Maxima
  deepestQueue = 7  (web)
  longestIoUs = 5  (web)
"""


def check_fleet():
    (FOLDER / FILE).write_bytes(b"".join(FLEET))
    for arguments, text in ([], ALL), (["--host", "db", "--step=5m"], DB_ALONE), (PART_OPTIONS, PART):
        same(f"summary with {arguments}", run(*arguments, FILE), (0, text, ""))
    same("summary of no records", run("--since=2027-01-01", FILE)[1], "Storage latency\n  no records in this time\n"
         + ALL[ALL.index("\nAccount"):ALL.index("  host db: limits")])
    sums = run("--since=2026-11-23T12:11", "--until=2026-11-23T12:11:01.001", "--host=web", FILE)[1]
    same("summary without a report of a whole process", sums[:sums.index("\nAccount")], WITHOUT_REPORTS)
    got = figures(FILE)
    same("names of the figures", list(got), list(JSON))
    for name in JSON:
        same(f"figure {name}", *(json.dumps(each.get(name), indent=1, sort_keys=True) for each in (got, JSON)))
    same("periods of single seconds", [(line["from"], line["to"]) for line in figures("--step=1s", FILE)["periods"]][:2],
         [(at(0), at(2)), (at(2), at(4))])


def check_steps():
    """The step that is chosen, for reports at two times and of a period."""
    file = FOLDER / "steps.jsonl"
    for seconds, period_ms, step_ms in ((1499, 0, 1000), (1500, 0, 5000), (1500 * 5 - 1, 0, 5000), (1500 * 5, 0, 10_000),
                                        (0, 1100, 1000), (0, 1112, 5000), (0, 33_000, 30_000), (0, 34_000, 60_000),
                                        (0, 600_000, 600_000), (0, 86_400_000, 600_000),
                                        (86_400 * 365 * 100, 0, 2_419_200_000)):
        file.write_bytes(report("h b", 1, -12 * 3600, (1, 0, 0, 0, 0), periodMs=period_ms)
                         + report("h b", 2, seconds - 12 * 3600, (1, 0, 0, 0, 0), periodMs=0))
        same(f"step for {seconds} s, {period_ms} ms", figures(file)["stepMs"], step_ms)


def check_boundaries():
    """What is just a step of the clock, what is just an eviction, and what has no slow I/O."""
    file = FOLDER / "boundary.jsonl"
    for ahead in (1999, 2000, -1999, -2000):
        file.write_bytes(report("h b", 1, 0, (1, 0, 0, 0, 0)) + report("h b", 2, 60, (1, 0, 0, 0, 0), ahead=ahead))
        same(f"clock set by {ahead}", [step["byMs"] for step in figures(file)["clockSteps"]], [2000] if abs(ahead) == 2000 else [])
    text = run(file)[1]
    same("no slow I/O", (figures(file)["worstTenMinutes"], "worst 10 min" in text, "Over time" in text), (None, False, True))
    file.write_bytes(b"".join(report(f"{host} b", number, seconds, (1, 0, 0, 0, 0), threshold=threshold)
                              for host, number, seconds, threshold in (("a", 1, 0, 1), ("a", 2, 180, 2), ("b", 1, 0, 1), ("b", 2, 120, 2), ("b", 3, 121, 2))))
    same("order of changes", [(line["host"], line["at"]) for line in figures(file)["limitsChanges"]], [("b", at(2)), ("a", at(3))])
    for first, last, count, expected in ((0, 5, 5, 0), (7, 3, 5, 0), (3, 3, 1, 1), (1, 2**64 - 2, 9, 9), (1, 2**64 - 1, 9, 0),
                                         (2, 4, 9, 3)):
        file.write_bytes(evicted("h b", 1, 0, "h b", first, last, count))
        same(f"evicted {first} to {last}", figures(file)["evicted"], expected)
    file.write_bytes(report("h" * 95 + "\u00e9" * 20 + " b", 1, 0, (1, 0, 0, 0, 0)))
    same("a name cut at a character", figures(file)["hostsBySlowShare"][0]["host"][:96], "h" * 95 + "~")


def check_command_lines():
    rows = [  # arguments, exit code, what standard output holds, what standard error holds
        ([FILE, "--json", "--html", "row.html"], 0, '"recordsRead": 33', ""),
        (["--help"], 0, "\n  analytics-report records/*.jsonl.zst\n", ""),
        (["--version"], 0, "analytics-report ", ""),
        (["--hots=a"], 2, "", "'--hots=a' is not an option, did you mean '--host'? (see --help)"),
        (["--versoin"], 2, "", "'--versoin' is not an option, did you mean '--version'? (see --help)"),
        (["--hotsx=a"], 2, "", "'--hotsx=a' is not an option, did you mean '--host'? (see --help)"),
        (["--hostabc"], 2, "", "'--hostabc' is not an option (see --help)"),
        (["--colour"], 2, "", "'--colour' is not an option (see --help)"),
        (["-f"], 2, "", "'-f' is not an option (see --help)"),
        (["--since"], 2, "", "--since: 1 required TIME missing (see --help)"),
        (["--since", "x"], 2, "", "--since: expected a time such as 2026-11-23T14:00 or 2026-11-23, got 'x' (see --help)"),
        (["--until="], 2, "", "--until: 1 required TIME missing (see --help)"),
        (["--until", "7"], 2, "", "--until: expected a time such as 2026-11-23T14:00 or 2026-11-23, got '7' (see --help)"),
        (["--since=2026-01-02", "--until=2026-01-02"], 2, "", "--until: expected a time after that of --since (see --help)"),
        (["--since=2026-01-02", "--until=2026-01-02T00:00:00.001", FILE], 0, "no records in this time", ""),
        (["--step", "5"], 2, "", "--step: expected a number with s, m, h or d, such as 30s or 5m, got '5' (see --help)"),
        (["--follow", "--json"], 2, "", "--json excludes --follow (see --help)"),
        (["--follow", "--html=x"], 2, "", "--html excludes --follow (see --help)"),
        (["missing"], 1, "", "cannot open missing: No such file or directory"
                             " (expected a file of JSON lines, plain, gzip or zstd)"),
        ([FILE, "missing"], 1, "", "cannot open missing: No such file or directory"),
        (["--host", "web", "missing"], 1, "", "cannot open missing: No such file or directory"),
        ([""], 1, "", "cannot open : No such file or directory"),
        (["."], 1, "", "cannot open .: Is a directory"),
        (["--follow", "."], 1, "", "cannot open .: Is a directory"),
        (["--follow", "nowhere/x"], 1, "", "cannot watch the folder of nowhere/x: No such file or directory"),
        (["--html", "nowhere/x", FILE], 1, "", "cannot write the page to nowhere/x: No such file or directory"
                                               " (expected a file that can be written, see --html)"),
        (["--html", ".", FILE], 1, "", "cannot write the page to .: Is a directory"),
        (["--html", "/dev/full", FILE], 1, "", "cannot write the page to /dev/full: No space left on device"),
    ]
    for arguments, code, shown, error in rows:
        got_code, got, got_error = run(*arguments)
        message = f"analytics-report: {error}" if error else ""
        same(f"{arguments}", (got_code, shown if shown and shown in got else got, got_error[:len(message)], got_error.count("\n")),
             (code, shown, message, 1 if error else 0))
        same(f"lines of {arguments}", [line for line in got.splitlines() if len(line) > 80 and '"' not in line], [])
    no_output = "analytics-report: cannot write to standard output\n"
    for arguments in ["--help"], ["--version"], [FILE], ["--json", FILE], ["--follow", "-"]:
        with open("/dev/full", "w") as full:
            same(f"full output, {arguments}", run(*arguments, stdout=full), (1, "", no_output))
        closed = subprocess.run(["sh", "-c", 'exec "$@" >&- </dev/null', "sh", PROGRAM, *arguments], cwd=FOLDER,
                                stderr=subprocess.PIPE, timeout=100, text=True)
        same(f"closed output, {arguments}", (closed.returncode, closed.stderr), (1, no_output))
    closed = subprocess.run(["sh", "-c", 'exec "$@" <&-', "sh", PROGRAM], capture_output=True, timeout=100)
    same("closed input", (closed.returncode, closed.stderr),
         (1, b"analytics-report: standard input, byte 0: Bad file descriptor; what stands before counts\n"))


def check_inputs():
    """Compressed inputs of several parts, damaged and cut; the file behind them counts."""
    big = b"".join(report("h b", number, number, (number, 1, 0, 0, 0), us=(7, number * 7919 % 100_003, 3, 4, 5))
                   for number in range(1, 400))
    rest = report("h b", 400, 400, (1, 0, 0, 0, 0)) * 2
    (FOLDER / "behind.jsonl").write_bytes(report("h b", 401, 401, (1, 0, 0, 0, 0)).rstrip(b"\n"))
    kinds = {"gzip": lambda data: gzip.compress(data, 0)}
    if shutil.which("zstd"):
        kinds["zstd"] = lambda data: subprocess.run(["zstd", "-q", "-c", "-1"], input=data, capture_output=True, check=True).stdout
    for kind, packed in kinds.items():
        one, two = packed(big), packed(rest)
        rows = {  # data, records, what is wrong
            "whole": (one + two, 402, ""),
            "empty member": (packed(b"") + one + two, 402, ""),
            "cut": (one + two[:-1], 402, f"byte {len(one + two) - 1}: the compressed data ends too early"),
            "cut short": (one + two[:5], 400, f"byte {len(one) + 5}: the compressed data ends too early"),
            "damaged": (one + two[:4] + b"\xff" * 40, 400, f"byte {len(one)}: the {kind} data is damaged"),
        }
        for name, (data, count, error) in rows.items():
            (FOLDER / name).write_bytes(data)
            code, text, got = run(name, "behind.jsonl")
            same(f"{kind} {name}", (code, re.search(r"\d+ read, \d+", text).group()),
                 (1 if error else 0, f"{count} read, {max(0, count - 401)}"))
            same(f"{kind} {name}", got, f"analytics-report: {name}, {error}; what stands before counts\n" if error else "")
    plain = FOLDER / "plain"
    for data, counts in ((b"", "0 read, 0 doubled, 0 missing, 0"), (b"\x1f", "0 read, 0 doubled, 0 missing, 1"),
                         (b"{\n\n \n", "0 read, 0 doubled, 0 missing, 1"), (b"\n" + rest, "2 read, 1 doubled, 399 missing, 0"),
                         (rest, "2 read, 1 doubled, 399 missing, 0")):
        plain.write_bytes(data)
        same(f"plain {data[:20]!r}", counts in run(plain)[1], True)
        with plain.open("rb") as file:
            same(f"standard input {data[:20]!r}", counts in run("-", stdin=file)[1], True)


def check_limits():
    """Sums at the top of their type; sets and maxima beyond the 64th, which are one; long names."""
    file = FOLDER / "limits.jsonl"
    file.write_bytes(b"".join(report("h b", number, 1, (1, 0, 0, 0, 0), 2**64 - 1, episodes=(1, 2**64 - 1, 1)) for number in (1, 2)))
    got = figures(file)
    same("sums at the top", (got["failedIos"], got["episodeSumMs"], got["ios"]), (2**64 - 1, 2**64 - 1, 2))
    lines = [record("h b", 1 + n, n, "HostMaximaParcel", u64s={f"m{n}": n}) for n in range(70)]
    lines += [report("h b", 200 + n, n, (1, 0, 0, 0, 0), strings=dict(set=f"s{n}")) for n in range(70)]
    lines += [report("h" * length + " b", 1, 0, (1, 0, 0, 0, 0)) for length in (130, 131)]
    file.write_bytes(b"".join(lines))
    got = figures(file)
    same("further maxima", (len(got["maxima"]), got["maxima"]["(others)"]), (65, dict(value=69, host="h")))
    same("further sets", (len(got["sets"]), got["sets"]["(others)"]["ios"]), (65, 6))
    same("long names", [len(line["host"]) for line in got["hostsBySlowShare"] if line["ios"]], [113, 113])
    same("a long name chosen", figures("--host", "h" * 131, file)["ios"], 1)


def page_data(path):
    return json.loads(re.search(r'id="data">(.*?)</script>', (FOLDER / path).read_text(), re.S).group(1))


def check_page():
    run("--html", "page.html", "--step", "1s", FILE)
    steps, heat = page_data("page.html")["steps"], page_data("page.html")["heat"]
    same("columns", (heat["stepMs"], heat["left"], [t - NOON for t in heat["t"][:3]]), (12_000, 0, [600_000, 696_000, 696_000]))
    same("columns of db", [(t - NOON) // 12_000 for host, t in zip(heat["host"], heat["t"]) if heat["hosts"][host] == "db"],
         [0, 5, 10, 15, 25, 30, 35, 119])
    same("hosts", heat["hosts"], [line["host"] for line in JSON["hostsBySlowShare"]])
    same("I/Os and slow ones", (heat["ios"][:2], heat["slow"][:2]), ([100, 10], [30, 1]))
    same("steps", [(t - NOON) // 1000 for t in steps["t"]], [0, 60, 120, 180, 300, 310, 360, 420, 600, 700, 1439])
    same("thresholds", steps["thresholdUs"][3:6], [50000, 50000, 60000])
    last = {name: [column[-1] for column in values] if isinstance(values[0], list) else values[-1] for name, values in steps.items()}
    same("the last step", last, dict(
        t=NOON + 1_439_000, classes=[989_000, 10_000, 700, 0, 1], failed=2, percentilesUs=list(LAST_US), episodes=3,
        episodeSumMs=4500, longestEpisodeMs=3000, thresholdUs=60000, boundsUs=[2000, 5000, 20000, 100000]))
    (FOLDER / "hosts.jsonl").write_bytes(b"".join(report(f"h{n} b", 1, n // 2, (1, 0, 0, 0, n)) for n in range(203)))
    run("--html", "page.html", "hosts.jsonl")
    heat = page_data("page.html")["heat"]
    same("hosts left out", (heat["left"], len(heat["hosts"]), heat["hosts"][0], heat["stepMs"]), (3, 200, "h202", 60_000))
    run("--html", "page.html", FILE)
    same("threshold of a step", page_data("page.html")["steps"]["thresholdUs"][4], 60000)
    (FOLDER / "hosts.jsonl").write_bytes(report("<!--</script>& b", 1, 1, (1, 0, 0, 0, 0)))
    run("--html", "page.html", "hosts.jsonl")
    data = (FOLDER / "page.html").read_text().split('id="data">')[1].split("</script>\n<script>")[0]
    same("markup within the data", re.findall("[<>&]", data), [])
    # The page that is there stays until the new one is complete.
    (FOLDER / "page.html").write_text("before")
    process = subprocess.Popen([PROGRAM, "--html", "page.html"], cwd=FOLDER, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL)
    process.stdin.write(b"\n" * (1 << 20))  # more than a pipe holds: the program has begun to read
    process.stdin.flush()
    same("page while reading", (FOLDER / "page.html").read_text(), "before")
    process.stdin.close()
    same("page after reading", (process.wait(100), page_data("page.html")["summary"]["recordsRead"]), (0, 0))


def on_terminal(stream, *arguments):
    """Runs the program with this stream on a terminal: what came there, and what came on the other stream."""
    side, terminal = pty.openpty()
    other = "stderr" if stream == "stdout" else "stdout"
    with open(FOLDER / other, "w") as file:
        process = subprocess.Popen([PROGRAM, *arguments], cwd=FOLDER, stdin=subprocess.DEVNULL,
                                   **{stream: terminal, other: file})
    os.close(terminal)
    text = b""
    try:
        while select.select([side], [], [], 100)[0]:
            text += os.read(side, 65536)
    except OSError:  # the program has closed it
        pass
    same("exit code on a terminal", process.wait(100), 0)
    return text.decode().replace("\r\n", "\n"), (FOLDER / other).read_text()


def check_terminal():
    """Colours, and the progress of a long file: one line without a line feed, which is too long."""
    with open(FOLDER / "long.jsonl", "wb") as file:
        file.truncate(1 << 30)
    plain = ALL.replace("4 not", "5 not").replace(f"  {FILE[:29]}~:27: it is no JSON object\n", "").replace(
        f"  {FILE[:29]}~:23", f"  long.jsonl:1: it is longer than 16 MiB\n  {FILE[:29]}~:23")
    progress, summary = on_terminal("stderr", "long.jsonl", FILE)
    same("summary beside the progress", summary, plain)
    shares = re.findall(r"\r\x1b\[Kreading long.jsonl: (\d+) MiB, (\d+) %", progress)
    same("progress", re.sub(r"(\r\x1b\[Kreading long.jsonl: \d+ MiB, \d+ %)+", "shares", progress), "shares\r\x1b[K")
    same("its shares", [int(share) for _, share in shares], [int(size) * 100 // 1024 for size, _ in shares])
    summary, errors = on_terminal("stdout", "long.jsonl", FILE)
    same("summary on a terminal", (re.sub(r"\x1b\[[0-9;]*m", "", summary), errors), (plain, ""))
    same("colours", re.findall(r"\x1b\[(\d+)m#", summary), ["32", "36", "33", "35", "31"])
    same("titles", re.findall(r"\x1b\[1m(\w+)", summary),
         ["Storage", "Over", "Worst", "Sets", "Maxima", "Account", "Records"])
    (FOLDER / "long.jsonl").unlink()


def main():
    FOLDER.mkdir(parents=True, exist_ok=True)
    for check in (check_fleet, check_steps, check_boundaries, check_command_lines, check_inputs, check_limits, check_page,
                  check_terminal):
        check()
    print("\n".join(differences) or "the summary is as expected")
    sys.exit(1 if differences else 0)


if __name__ == "__main__":
    main()
