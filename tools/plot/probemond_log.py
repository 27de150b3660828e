"""Reads probemond's log lines, from the host's stderr or from
`adb logcat -v threadtime`, into the events a timeline shows."""
import datetime
import os
import re
import sys
from dataclasses import dataclass, field
from typing import List, Optional

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "lab"))
import interfaces  # noqa: E402

# Host: "probemond D 11-22 11:40:01 1234 1240 text" (liblog on stderr).
_HOST = re.compile(r"^(?P<tag>\S+) (?P<prio>[VDIWEF]) (?P<date>\d\d-\d\d) "
                   r"(?P<time>\d\d:\d\d:\d\d(?:\.\d+)?)\s+(?P<pid>\d+)\s+(?P<tid>\d+) (?P<msg>.*)$")
# Device: "11-22 11:40:01.123  1234  1240 D probemond: text".
_THREADTIME = re.compile(r"^(?P<date>\d\d-\d\d) (?P<time>\d\d:\d\d:\d\d\.\d+)\s+(?P<pid>\d+)\s+"
                         r"(?P<tid>\d+) (?P<prio>[VDIWEF]) (?P<tag>.*?)\s*: (?P<msg>.*)$")

_RTT = re.compile(r"^(\S+),rtt=(-?\d+),mrtt=(-?\d+),switch=\d+,cpu=-?\d+$")
_BETTER = re.compile(r"^(\S+) \((-?\d+)ms\) is better than (\S+) \((-?\d+)ms\)$")
_SWITCH_TO = re.compile(r"^Switch to (\S+)$")
_SELECT = re.compile(r"^selectInterface prev=(\S+), curr=(\S+), kill=\d+$")
_SELECT_CALL = re.compile(r"^selectInterfaceInternal, iface=(\S*)$")
_ROTATE = re.compile(r"^Ping thread \d+ on (\S+) switch DNS to (\S+)$")
_AUTO = re.compile(r"^Auto select thread \d+ is (started|stopped)$")
_IFACES = frozenset(interfaces.names())


@dataclass
class Line:
    when: datetime.datetime
    pid: int
    tid: int
    message: str


@dataclass
class Switch:
    t: float  # seconds since the first line
    source: str  # "" when nothing was selected before
    target: str
    source_mrtt: Optional[int] = None
    target_mrtt: Optional[int] = None


@dataclass
class Timeline:
    start: Optional[datetime.datetime] = None
    rtt: dict = field(default_factory=dict)  # iface -> [(t, rtt, mrtt)]
    auto_switches: List[Switch] = field(default_factory=list)
    manual: List[Switch] = field(default_factory=list)
    rotations: list = field(default_factory=list)  # (t, iface, server)
    auto_periods: list = field(default_factory=list)  # (t_on, t_off or None)


def parse_line(text, year=None):
    """One log line in either format, or None for anything else."""
    text = text.rstrip("\r\n")
    m = _HOST.match(text) or _THREADTIME.match(text)
    if not m:
        return None
    year = year or datetime.date.today().year
    clock = m["time"] if "." in m["time"] else m["time"] + ".0"
    when = datetime.datetime.strptime(f"{year}-{m['date']} {clock[:15]}", "%Y-%m-%d %H:%M:%S.%f")
    return Line(when, int(m["pid"]), int(m["tid"]), m["msg"])


def parse(lines, year=None):
    tl = Timeline()
    better = None
    selected = {}  # pid -> whether a selection has been made in that run
    last_mrtt = {}  # iface -> latest median, for the selections' records
    for raw in lines:
        line = parse_line(raw, year)
        if line is None:
            continue
        if tl.start is None:
            tl.start = line.when
        t = (line.when - tl.start).total_seconds()
        msg = line.message
        if m := _RTT.match(msg):
            tl.rtt.setdefault(m[1], []).append((t, int(m[2]), int(m[3])))
            last_mrtt[m[1]] = int(m[3])
        elif m := _BETTER.match(msg):
            better = (m[3], int(m[4]), m[1], int(m[2]))
        elif m := _SWITCH_TO.match(msg):
            if better and better[2] == m[1]:
                tl.auto_switches.append(Switch(t, better[0], m[1], better[1], better[3]))
            else:
                tl.auto_switches.append(Switch(t, "", m[1]))
            better = None
        elif m := _SELECT.match(msg):
            tl.manual.append(Switch(t, m[1], m[2], last_mrtt.get(m[1]), last_mrtt.get(m[2])))
            selected[line.pid] = True
        elif m := _SELECT_CALL.match(msg):
            # The first selection of a run logs only the call.
            if m[1] in _IFACES and not selected.get(line.pid):
                tl.manual.append(Switch(t, "", m[1], None, last_mrtt.get(m[1])))
                selected[line.pid] = True
        elif m := _ROTATE.match(msg):
            tl.rotations.append((t, m[1], m[2]))
        elif m := _AUTO.match(msg):
            if m[1] == "started":
                tl.auto_periods.append((t, None))
            elif tl.auto_periods and tl.auto_periods[-1][1] is None:
                tl.auto_periods[-1] = (tl.auto_periods[-1][0], t)
    return tl


def parse_file(path, year=None):
    with open(path, errors="replace") as f:
        return parse(f, year)
