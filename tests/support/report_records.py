"""Makes the lines of records as the program writes them, from the parts that differ."""
import datetime

PERIOD_NAMES = ("p50Us", "p90Us", "p99Us", "p999Us", "maxUs")
CLASSES = ("cm1", "cm2", "cm3", "cm4", "cm5")
START = 1795392000000  # 2026-11-23T00:00:00Z


def iso(ms):
    moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(milliseconds=ms)
    return moment.strftime("%Y-%m-%dT%H:%M:%S.") + f"{ms % 1000:03d}Z"


def line(host, boot, sequence, stamp, name, strings, u32s, u64s, ahead, text):
    return (f'{{"schema":1,"host":{host},"boot":"{boot}","sequence":{sequence},"service":"analytics-host",'
            f'"forwardedAt":"{iso(stamp + ahead)}","eventName":"{name}","category":"storage","account":"KEL",'
            f'"priority":"Normal","value":0,"text":"{text}","details":"","timeStampMs":{stamp},'
            f'"timeStamp":"{iso(stamp)}","stringEntries":{strings},"u32Entries":{u32s},"u64Entries":{u64s},'
            f'"longEntries":{{}},"doubleEntries":{{}},"intEntries":{{}}}}\n').encode()
