import os
import unittest

import probemond_log as pl

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "testdata")


def load(name):
    return pl.parse_file(os.path.join(DATA, name), year=2026)


class HostLog(unittest.TestCase):
    """Lines the host daemon wrote to stderr in the lab."""

    def test_events(self):
        tl = load("host.log")
        self.assertEqual(tl.start.isoformat(), "2026-11-22T11:37:23")
        self.assertEqual(tl.rtt["wlan0"][-1], (650.0, 152, 150))
        self.assertEqual(len(tl.rtt["rmnet_data0"]), 3)
        [s] = tl.auto_switches
        self.assertEqual((s.t, s.source, s.source_mrtt, s.target, s.target_mrtt),
                         (650.0, "wlan0", 150, "rmnet_data0", 40))
        # The first selection logs only the call.
        self.assertEqual([(m.t, m.source, m.target) for m in tl.manual], [(36.0, "", "wlan0")])
        self.assertEqual(tl.auto_periods, [(5.0, 634.0), (637.0, None)])
        self.assertEqual([r[2] for r in tl.rotations], ["1.1.1.1", "8.8.4.4"])


class ThreadtimeLog(unittest.TestCase):
    """`adb logcat -v threadtime` lines from a device."""

    def test_events(self):
        tl = load("threadtime.log")
        self.assertEqual(tl.rtt["wlan0"], [(1.633, 31, 31), (9.205, 200, 200)])
        [s] = tl.auto_switches
        self.assertEqual((round(s.t, 3), s.source, s.source_mrtt, s.target, s.target_mrtt),
                         (9.25, "wlan0", 200, "rmnet_data0", 57))
        self.assertEqual(tl.rotations, [(9.206, "wlan0", "1.1.1.1")])
        self.assertEqual([(m.source, m.target, m.source_mrtt, m.target_mrtt) for m in tl.manual],
                         [("", "wlan0", None, None), ("wlan0", "rmnet_data0", 200, 58)])
        self.assertEqual([(round(a, 3), round(b, 3)) for a, b in tl.auto_periods], [(1.921, 15.851)])

    def test_other_lines_are_skipped(self):
        for text in ("--------- beginning of main", "", "random text",
                     "11-22 14:02:10.101  4312  4312 D probemond"):
            self.assertIsNone(pl.parse_line(text))


class DemoLog(unittest.TestCase):
    """A whole `./run demo` log: the markers are the switches the daemon logged."""

    def test_switch_markers_match_the_log(self):
        path = os.path.join(DATA, "demo.log")
        with open(path) as f:
            text = f.read()
        tl = load("demo.log")
        self.assertEqual(len(tl.auto_switches), text.count(" Switch to "))
        self.assertEqual([(s.source, s.target) for s in tl.auto_switches], [("wlan0", "rmnet_data0")])
        s = tl.auto_switches[0]
        self.assertGreaterEqual(s.source_mrtt, 101)
        self.assertLess(s.target_mrtt, 100)
        on, off = tl.auto_periods[0]
        self.assertTrue(on < s.t < off)
        self.assertEqual([(m.source, m.target) for m in tl.manual], [("", "wlan0")])
        self.assertLess(tl.manual[0].t, on)


if __name__ == "__main__":
    unittest.main()
