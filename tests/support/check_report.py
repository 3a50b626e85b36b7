#!/usr/bin/env python3
"""check_report.py PROGRAM FOLDER: compares analytics-report's figures of fleets made at random with the truth about
them, in any order of the records. Exits with 1 and says what differs."""
import json
import random
import sys

import check_summary as small
from report_records import CLASSES, START, iso

HOSTILE_NAMES = ['<script>alert("x")</script>', "</script><!-- ", "tab\there\x1b[31mred\x00\x7f",
                 "\u2028\u202e\u0085line", "h" * 1_000_000, "\U0001f600&amp;'\"",
                 "a-host-with-a-name-of-about-the-length-that-clouds-give"]
# Lines that are no records, one of them not even UTF-8, one torn.
STRANGE_LINES = [b"2026-11-23 some log line", b'{"schema":1,"host":"a","boot":"b","sequ', b"\xff\xfe\x00{", b"[]",
                 b"{}", b'{"schema":2,"host":"a"}', b"null", b"[" * 5000, b"x" * (17 << 20)]


class Fleet:
    """Each host runs two processes, one after the other, which report each minute. Every process has two gaps, a
    doubled record and a record of each other kind. Everything follows from the seed."""

    def __init__(self, host_count, process_minutes, seed=1, is_hostile=False):
        self.random = random.Random(seed)
        hostile_names = HOSTILE_NAMES if is_hostile else []
        usual_names = [f"host{number:03}" for number in range(len(hostile_names), host_count)]
        self.names, self.minutes = hostile_names + usual_names, process_minutes
        self.lines, self.read_sets, self.depths, self.pushed = [], [], [], 0
        self.reports = [[] for _ in self.names]
        for number in range(host_count):
            for boot in range(2):
                self.process(number, boot)
        self.record_count = len(self.lines)
        self.lines += [line + b"\n" for line in STRANGE_LINES if is_hostile]

    def report(self, number, minute):
        """Classes, failed I/Os, latencies and episodes. A tenth of the hosts is slow for a tenth of the time."""
        up_to = lambda most: int(self.random.random() * most)
        scale = 40 if number % 10 == 3 and minute % 10 == 7 else 1
        classes = [up_to(most) for most in (4000, 200 * scale, 20 * scale, 4 * scale, 2 * scale)]
        latencies = sorted(100 + up_to(10_000 * scale) for _ in range(5))
        episodes, longest = up_to(3), up_to(900 * scale)
        return classes, up_to(1.02), latencies, (episodes, episodes * longest, longest if episodes else 0)

    def process(self, number, boot):
        name, lines = f"HOST b{boot}", []
        gap, double = self.random.sample(range(2, self.minutes - 2), 2)
        for minute in range(self.minutes):
            sequence = minute + (6 if minute >= gap else 1)
            seconds = 60 * (boot * self.minutes + minute) + 0.007 * number - 12 * 3600
            report = self.report(number, minute)
            # Host 1 changes its bounds. The last process of host 2 lives through a step of the system clock.
            limits = small.NEW if (number, boot) == (1, 1) else small.OLD
            ahead = 3_600_000 if (number, boot) == (2, 1) and minute > self.minutes // 2 else number % 5
            lines += [small.report(name, sequence, seconds, *report, limits=limits, ahead=ahead)]
            lines += lines[-1:] if minute == double else []
            self.reports[number].append(report)
        self.read_sets.append(self.report(number, minute))
        self.depths.append(self.random.randrange(1000))
        self.pushed += sequence
        # Five numbers of the second gap are left out, and three of them evicted.
        maxima = dict(deepestQueue=self.depths[-1])
        lines += [small.report(name, sequence + 1, seconds, *self.read_sets[-1], strings=dict(set="reads")),
                  small.record(name, sequence + 2, seconds, "HostMaximaParcel", u64s=maxima),
                  small.evicted(name, sequence + 8, seconds, name, sequence + 4, sequence + 6, 3),
                  small.account(name, sequence + 9, seconds, sequence, 2, sequence - 4, 1, 1, 3, 1)]
        self.lines += [line.replace(b'"HOST"', json.dumps(self.names[number]).encode()) for line in lines]

    def worst_ten_minutes(self):
        by_minute = list(zip(*self.reports))
        windows = [{"from": iso(START + 60_000 * begin), "to": iso(START + 60_000 * (begin + 10)),
                    **totals(sum(by_minute[begin:begin + 10], ()))} for begin in range(len(by_minute) - 9)]
        return max(windows, key=lambda window: window["slowShare"])

    def truth(self):
        processes = 2 * len(self.names)
        last = START + 60_000 * (2 * self.minutes - 1) + 7 * (len(self.names) - 1)
        hosts = [dict(host=name[:96], boots=2, **totals(each)) for name, each in zip(self.names, self.reports)]
        return {
            **totals(sum(self.reports, [])), "sets": dict(reads=totals(self.read_sets)),
            "hosts": len(hosts), "boots": processes, "from": iso(START), "to": iso(last),
            "hostsBySlowShare": sorted(hosts, key=lambda line: -line["slowShare"]),
            "worstTenMinutes": self.worst_ten_minutes(),
            "recordsRead": self.record_count, "notUnderstood": len(self.lines) - self.record_count,
            "duplicates": processes, "missing": 7 * processes, "evicted": 3 * processes, "gaps": 2 * processes,
            "account": dict(processes=processes, pushed=self.pushed, restored=2 * processes,
                            delivered=self.pushed - 4 * processes, failed=processes, dropped=processes,
                            evicted=3 * processes, waiting=processes, addsUp=True),
            "deepest": max(self.depths), "clockSteps": [dict(host=self.names[2], boot="b1", byMs=3_600_000)],
            "changed": [[self.names[1], 2000]]}


def totals(reports):
    classes, failed, latencies, episodes = zip(*reports)
    counts = [sum(each) for each in zip(*classes)]
    episode_counts, episode_sums, longest = zip(*episodes)
    ios, slow, episode_count, episode_sum = sum(counts), sum(counts[2:]), sum(episode_counts), sum(episode_sums)
    return dict(reports=len(reports), ios=ios, failedIos=sum(failed), classes=dict(zip(CLASSES, counts)), slowIos=slow,
                slowShare=slow / ios if ios else 0.0,
                worstPercentilesUs=dict(zip(("p50", "p90", "p99", "p99.9", "max"), map(max, zip(*latencies)))),
                episodes=episode_count, episodeSumMs=episode_sum,
                meanEpisodeMs=episode_sum / episode_count if episode_count else 0.0, longestEpisodeMs=max(longest))


def check(fleet):
    (small.FOLDER / "fleet.jsonl").write_bytes(b"".join(fleet.lines))
    got = small.figures("fleet.jsonl")
    for line in got["hostsBySlowShare"]:
        line["host"] = line["host"][:96]
    got["gaps"] = len(got["gaps"])
    got["deepest"] = got["maxima"]["deepestQueue"]["value"]
    got["changed"] = [[change["host"], change["after"]["boundsUs"][0]] for change in got["limitsChanges"]]
    for name, expected in fleet.truth().items():
        small.same(name, *(json.dumps(each, indent=1, sort_keys=True) for each in (got[name], expected)))
    text = small.run("fleet.jsonl")[1]
    bad = [line for line in text.split("\n") if len(line) > 80 or not line.isprintable()]
    small.same("lines that a terminal cannot show", bad, [])


def main():
    small.FOLDER.mkdir(parents=True, exist_ok=True)
    for fleet in Fleet(12, 120), Fleet(14, 30, seed=3, is_hostile=True):
        check(fleet)
        random.Random(2).shuffle(fleet.lines)
        check(fleet)
    print("\n".join(small.differences) or "every figure equals the truth")
    sys.exit(1 if small.differences else 0)


if __name__ == "__main__":
    main()
