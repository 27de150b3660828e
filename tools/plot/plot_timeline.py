#!/usr/bin/env python3
"""plot_timeline.py LOG [OUT.png|OUT.svg]: probemond's RTT timeline from a log."""
import os
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import probemond_log  # noqa: E402


def _ms(v):
    return "?" if v is None else f"{v}ms"


def plot(tl, out):
    fig, ax = plt.subplots(figsize=(10, 4.8), dpi=80)
    end = max([p[0] for pts in tl.rtt.values() for p in pts] + [0.0])
    for on, off in tl.auto_periods:
        ax.axvspan(on, end if off is None else off, color="#e8f0ff", zorder=0,
                   label="auto-select on" if on == tl.auto_periods[0][0] else None)
    colors = plt.rcParams["axes.prop_cycle"].by_key()["color"]
    for k, (iface, pts) in enumerate(sorted(tl.rtt.items())):
        c = colors[k % len(colors)]
        ax.plot([p[0] for p in pts], [p[1] for p in pts], ".", color=c, alpha=0.5, ms=5,
                label=f"{iface} rtt")
        # A median holds until the next sample.
        ax.plot([p[0] for p in pts], [p[2] for p in pts], "-", drawstyle="steps-post", color=c,
                lw=1.8, label=f"{iface} median")
    top = ax.get_ylim()[1]
    for s in tl.auto_switches:
        ax.axvline(s.t, color="red", lw=1.5)
        ax.annotate(f"auto: {s.source or '?'} ({_ms(s.source_mrtt)}) \u2192 {s.target} "
                    f"({_ms(s.target_mrtt)})", (s.t, top * 0.97), rotation=90, va="top",
                    ha="right", fontsize=8, color="red")
    for s in tl.manual:
        ax.axvline(s.t, color="green", ls="--", lw=1.2)
        ax.annotate(f"select {s.source or '(none)'} \u2192 {s.target}", (s.t, top * 0.97),
                    rotation=90, va="top", ha="right", fontsize=8, color="green")
    for t, iface, server in tl.rotations:
        ax.plot([t], [top * 0.99], "v", color="purple", ms=7)
        ax.annotate(f"DNS \u2192 {server} ({iface})", (t, top * 0.99), fontsize=7,
                    color="purple", rotation=90, va="top", ha="left")
    start = tl.start.strftime("%m-%d %H:%M:%S") if tl.start else "?"
    ax.set_xlabel(f"seconds since {start}")
    ax.set_ylabel("ms")
    ax.set_title("probemond RTT timeline")
    ax.set_ylim(0, top)
    ax.legend(loc="upper left", bbox_to_anchor=(1.01, 1.0), fontsize=8, borderaxespad=0)
    ax.grid(alpha=0.3)
    fig.tight_layout()
    fig.savefig(out)
    plt.close(fig)


def main(argv):
    if len(argv) not in (2, 3):
        print("usage: plot LOG [OUT.png|OUT.svg]", file=sys.stderr)
        return 2
    log = argv[1]
    out = argv[2] if len(argv) == 3 else os.path.splitext(log)[0] + ".png"
    if not out.endswith((".png", ".svg")):
        print("plot: the picture's name ends in .png or .svg", file=sys.stderr)
        return 2
    tl = probemond_log.parse_file(log)
    if tl.start is None:
        print(f"plot: no probemond lines in {log}", file=sys.stderr)
        return 1
    plot(tl, out)
    print(out)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
