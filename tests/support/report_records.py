#!/usr/bin/env python3
"""Makes records of a fleet, and the truth about them.

    report_records.py FILE [--hosts N] [--reports N] ...      writes FILE and FILE.truth.json

Each host runs `boots` processes, one after the other, that share its reports. Every process has a gap, a
doubled record and a record of another kind; one host changes its bounds. Everything follows from the seed.
"""
import argparse
import datetime
import json
import random

PERIOD_NAMES = ("p50Us", "p90Us", "p99Us", "p999Us", "maxUs")
CLASSES = ("cm1", "cm2", "cm3", "cm4", "cm5")
START = 1795392000000  # 2026-11-23T00:00:00Z
HOSTILE_NAMES = ['<script>alert("x")</script>', "</script><!-- ", "tab\there\x1b[31mred\x00\x7f", "\u2028\u202e\u0085line",
                 "h" * 1_000_000, "\U0001f600&amp;'\"", "a-host-with-a-name-of-about-the-length-that-clouds-give"]
# Lines that are no records, one of them not even UTF-8, one torn.
STRANGE_LINES = [b"2026-11-23 some log line", b'{"schema":1,"host":"a","boot":"b","sequ', b"\xff\xfe\x00{", b"[]", b"{}",
                 b'{"schema":2,"host":"a"}', b"null", b"[" * 5000, b"x" * (17 << 20)]


def iso(ms):
    moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(milliseconds=ms)
    return moment.strftime("%Y-%m-%dT%H:%M:%S.") + f"{ms % 1000:03d}Z"


class Writer:
    """Makes lines as the program does, from the parts that differ."""

    def line(self, host, boot, sequence, stamp, name, strings, u32s, u64s, ahead=0, value=0,
             text="[Latency Threshold=50000][eq=50000]"):
        return (f'{{"schema":1,"host":{host},"boot":"{boot}","sequence":{sequence},"service":"analytics-host",'
                f'"forwardedAt":"{iso(stamp + ahead)}","eventName":"{name}","category":"storage","account":"KEL",'
                f'"priority":"Normal","value":{value},"text":"{text}","details":"","timeStampMs":{stamp},'
                f'"timeStamp":"{iso(stamp)}","stringEntries":{strings},"u32Entries":{u32s},"u64Entries":{u64s},'
                f'"longEntries":{{}},"doubleEntries":{{}},"intEntries":{{}}}}\n').encode()


class Fleet:
    def __init__(self, args):
        self.args = args
        self.random = random.Random(args.seed)
        self.writer = Writer()
        self.lines = []
        self.host_truths = {}
        self.steps = {}
        self.truth = dict(recordsRead=0, duplicates=0, missing=0, evicted=0, notUnderstood=0, hosts=args.hosts,
                          boots=args.hosts * args.boots, gaps=0, setReports=0)
        self.totals = self.empty()
        self.first = self.last = None
        self.deepest = 0
        self.account = [0] * 7

    @staticmethod
    def empty():
        return dict(ios=0, slowIos=0, failedIos=0, episodes=0, episodeSumMs=0, longestEpisodeMs=0, reports=0,
                    **{name: 0 for name in CLASSES + PERIOD_NAMES})

    def host_name(self, number):
        if self.args.hostile and number < len(HOSTILE_NAMES):
            return HOSTILE_NAMES[number]
        return f"host{number:03d}"

    def count(self, totals, entries, failed, episode_sum):
        for name in CLASSES:
            totals[name] += entries[name]
            totals["ios"] += entries[name]
        totals["slowIos"] += entries["cm3"] + entries["cm4"] + entries["cm5"]
        totals["failedIos"] += failed
        totals["episodes"] += entries["episodes"]
        totals["episodeSumMs"] += episode_sum
        totals["longestEpisodeMs"] = max(totals["longestEpisodeMs"], entries["cm6"])
        totals["reports"] += 1
        for name in PERIOD_NAMES:
            totals[name] = max(totals[name], entries[name])

    def report(self, stamp, number):
        """Entries of a report; a tenth of the hosts is slow for a tenth of the time."""
        pick = self.random.random
        is_slow = number % 10 == 3 and (stamp // 1000 // max(1, self.args.interval_ms // 1000)) % 10 == 7
        scale = 40 if is_slow else 1
        ios = [int(pick() * 4000), int(pick() * 200 * scale), int(pick() * 20 * scale), int(pick() * 4 * scale),
               int(pick() * 2 * scale)]
        episodes = int(pick() * 3) if pick() < 0.2 or is_slow else 0
        longest = int(pick() * 900 * scale) if episodes else 0
        p50 = int(100 + pick() * 200)
        percentiles = [p50, p50 * 3, p50 * 9 * scale, p50 * 20 * scale, p50 * 33 * scale]
        late = number == 1 and stamp >= START + self.args.reports * self.args.interval_ms // 2
        entries = dict(boundFastUs=2000 if late else 1000, boundModerateUs=5000, boundSlowUs=20000,
                       boundVerySlowUs=100000, cm6=longest, episodes=episodes)
        entries.update(zip(CLASSES, ios))
        entries.update(zip(PERIOD_NAMES, percentiles))
        return entries, int(pick() * 1.02), longest + (longest // 2 if episodes > 1 else 0)

    def seen(self, stamp):
        self.first = stamp if self.first is None else min(self.first, stamp)
        self.last = stamp if self.last is None else max(self.last, stamp)

    def emit(self, line, is_counted=True):
        self.lines.append(line)
        self.truth["recordsRead"] += 1

    def process(self, number, name, boot_number, reports):
        args, pick = self.args, self.random
        boot = f"{number:06x}{boot_number:02x}{pick.getrandbits(32):08x}"
        totals = self.host_truths.setdefault(name, self.empty())
        host = json.dumps(name)
        gap = pick.randrange(2, reports - 2) if args.gaps else None
        double = pick.randrange(1, reports - 1) if args.duplicates else None
        sequence = 0
        for at in range(reports):
            sequence += 1
            stamp = START + (boot_number * reports + at) * args.interval_ms + 7 * (number % 100)
            # The last process of host 2 lives through a step of the system clock.
            ahead = 3_600_000 if number == 2 and boot_number == args.boots - 1 and at > reports // 2 else number % 5
            if at == gap:
                sequence += args.gaps
                self.truth["missing"] += args.gaps
                self.truth["gaps"] += 1
            entries, failed, episode_sum = self.report(stamp, number)
            line = self.writer.line(host, boot, sequence, stamp, "StoragePeriodicParcel", "{}",
                                    json.dumps(entries, separators=(",", ":")),
                                    f'{{"cd11":{args.interval_ms // 1000},"episodeSumMs":{episode_sum},'
                                    f'"failedIos":{failed},"periodMs":{args.interval_ms}}}', ahead)
            self.emit(line)
            self.seen(stamp)
            self.count(totals, entries, failed, episode_sum)
            self.count(self.totals, entries, failed, episode_sum)
            step = self.steps.setdefault(stamp // args.step_ms, self.empty())
            self.count(step, entries, failed, episode_sum)
            if at == double:
                self.emit(line)
                self.truth["duplicates"] += 1
        self.others(number, host, name, boot, sequence, stamp)

    def others(self, number, host, name, boot, sequence, stamp):
        """A part of the last report, the maxima, an eviction and the account."""
        entries, failed, episode_sum = self.report(stamp, number)
        self.emit(self.writer.line(host, boot, sequence + 1, stamp, "ReadsParcel", '{"set":"reads"}',
                                   json.dumps(entries), f'{{"failedIos":{failed}}}'))
        self.truth["setReports"] += 1
        deepest = self.random.randrange(1000)
        self.deepest = max(self.deepest, deepest)
        self.emit(self.writer.line(host, boot, sequence + 2, stamp, "HostMaximaParcel", "{}", "{}",
                                   f'{{"deepestQueue":{deepest},"longestIoUs":5}}'))
        # The numbers sequence + 3 to sequence + 7 are left out, and all but two of them evicted.
        self.emit(self.writer.line(host, boot, sequence + 8, stamp, "RecordsEvictedParcel",
                                   f'{{"host":{host},"boot":"{boot}"}}', "{}",
                                   f'{{"first":{sequence + 4},"last":{sequence + 6},"count":3}}'))
        self.truth["evicted"] += 3
        self.truth["missing"] += 2
        self.truth["gaps"] += 1
        pushed = sequence + 8
        fates = [pushed, 2, pushed - 3, 1, 1, 3, 0]
        self.account = [a + b for a, b in zip(self.account, fates)]
        names = ("pushed", "restored", "delivered", "failed", "dropped", "evicted", "waiting")
        self.emit(self.writer.line(host, boot, sequence + 9, stamp, "ForwardingAccountParcel", "{}", "{}",
                                   json.dumps(dict(zip(names, fates)))))

    def make(self):
        for number in range(self.args.hosts):
            for boot_number in range(self.args.boots):
                self.process(number, self.host_name(number), boot_number, self.args.reports // self.args.boots)
        if self.args.hostile:
            self.lines.extend(line + b"\n" for line in STRANGE_LINES)
            self.truth["notUnderstood"] = len(STRANGE_LINES)
        if self.args.shuffle:
            self.random.shuffle(self.lines)
        else:  # as a log agent brings them: by time
            self.lines.sort(key=lambda line: line[line.find(b'"timeStampMs"'):][:27])

    def write(self, path):
        with open(path, "wb") as file:
            file.writelines(self.lines)
        self.truth.update(totals=self.totals, byHost=self.host_truths, steps=self.steps, stepMs=self.args.step_ms,
                          deepestQueue=self.deepest, account=self.account)
        self.truth.update({"from": iso(self.first), "to": iso(self.last)})
        with open(path + ".truth.json", "w") as file:
            json.dump(self.truth, file)


def fleet_of(arguments):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("file")
    parser.add_argument("--hosts", type=int, default=3)
    parser.add_argument("--boots", type=int, default=2, help="processes of each host")
    parser.add_argument("--reports", type=int, default=240, help="of each host")
    parser.add_argument("--interval-ms", type=int, default=60_000)
    parser.add_argument("--gaps", type=int, default=5, help="records missing in each process's gap")
    parser.add_argument("--duplicates", type=int, default=1)
    parser.add_argument("--step-ms", type=int, default=60_000, help="the truth is also told by such steps")
    parser.add_argument("--shuffle", action="store_true")
    parser.add_argument("--hostile", action="store_true", help="strange names and strange lines")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args(arguments)
    fleet = Fleet(args)
    fleet.make()
    return args.file, fleet


if __name__ == "__main__":
    path, made = fleet_of(None)
    made.write(path)
