import os
import unittest

import probemond_log as pl

DATA = os.path.join(os.path.dirname(os.path.abspath(__file__)), "testdata")


def load(name):
    return pl.parse_file(os.path.join(DATA, name), year=2026)


class Events(unittest.TestCase):
    def test_host_log(self):
        """Lines the host daemon wrote to stderr in the lab."""
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

    def test_threadtime_log(self):
        """`adb logcat -v threadtime` lines from a device."""
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


if __name__ == "__main__":
    unittest.main()
