#!/usr/bin/env python3
"""Prints the table of goals from the JSON results of the benchmark programs in a directory."""
import json
import platform
import statistics
import sys
from pathlib import Path

MET, MISSED = "ok", "MISS"


class Results:
    def __init__(self, directory):
        self.runs = {}
        self.context = {}
        for path in sorted(Path(directory).glob("*.json")):
            content = json.loads(path.read_text())
            self.context = content["context"]
            for run in content["benchmarks"]:
                if run["run_type"] != "iteration":
                    continue
                if run.get("error_occurred"):
                    sys.exit(f"{run['name']}: {run['error_message']}")
                name = run["name"].split("/")[0]
                self.runs.setdefault(name, []).append(run)

    def has(self, name):
        return name in self.runs

    def values(self, name, field):
        return [run[field] for run in self.runs[name]]

    def figure(self, name, field):
        """The median of the rounds. The rounds alternate, so that other load of the machine affects both sides of a
        ratio; the best round would depend on chance."""
        return statistics.median(self.values(name, field))


def nanoseconds(value):
    return f"{value:,.1f} ns" if value < 1e4 else f"{value / 1e3:,.1f} us"


def at_most(name, beside, limit, field):
    """A time that may be at most `limit` times another."""

    def row(results):
        one, other = results.figure(name, field), results.figure(beside, field)
        ratio = one / other
        return nanoseconds(one), nanoseconds(other), f"{ratio:.2f}", f"<= {limit:g}", ratio <= limit

    return name, beside, row


def faster(name, beside, least):
    """A time that must be at least `least` times shorter than another."""

    def row(results):
        one, other = results.figure(name, "cpu_time"), results.figure(beside, "cpu_time")
        ratio = other / one
        return nanoseconds(one), nanoseconds(other), f"{ratio:.1f}", f">= {least:g}", ratio >= least

    return name, beside, row


def compared(name, beside):
    """A time beside another, without a goal."""

    def row(results):
        one, other = results.figure(name, "cpu_time"), results.figure(beside, "cpu_time")
        return nanoseconds(one), nanoseconds(other), f"{other / one:.1f}", "", None

    return name, beside, row


def bounded(name, field, limit, show):
    """A figure with an upper bound of its own."""

    def row(results):
        value = results.figure(name, field)
        return show(value), "", "", f"<= {show(limit)}", value <= limit

    return name, None, row


def at_least(name, field, limit, show):
    def row(results):
        value = results.figure(name, field)
        return show(value), "", "", f">= {show(limit)}", value >= limit

    return name, None, row


def event_rate(name, beside, enough):
    def row(results):
        rate, bare = results.figure(name, "items_per_second"), results.figure(beside, "items_per_second")
        goal = min(enough, bare / 2)
        return f"{rate:,.0f}/s", f"{bare:,.0f}/s", f"{rate / bare:.2f}", f">= {goal:,.0f}/s", rate >= goal

    return name, beside, row


def count(value):
    return f"{value:g}"


# Processor time if one thread works; elapsed time if two processes exchange messages.
ROWS = [
    ("decode the largest indication : clear and copy its structure",
     at_most("decode_largest_indication", "clear_and_copy_largest_structure", 2, "cpu_time")),
    ("encode a 256-byte NV write : libqmi-glib, typed writers", faster("encode_nv_write", "qmi_glib_nv_write", 40)),
    ("  libqmi-glib, raw TLVs", compared("encode_nv_write", "qmi_glib_nv_write_raw")),
    ("modem_api_read_nv, instant platform, logs closed",
     bounded("read_nv_instant_platform", "cpu_time", 150, nanoseconds)),
    ("  its heap allocations", bounded("read_nv_instant_platform", "allocations", 0, count)),
    ("decode a statistics value : modem_api_get_stats_parameter, one entry",
     at_most("decode_lte_cell_instant_platform", "get_stats_parameter_instant_platform", 3, "cpu_time")),
    ("  its heap allocations", bounded("decode_lte_cell_instant_platform", "allocations", 0, count)),
    ("suppressed log site, both sinks", bounded("suppressed_log_site", "cpu_time", 2, nanoseconds)),
    ("  arguments evaluated", bounded("suppressed_log_site", "arguments_evaluated", 0, count)),
    ("modem_api_read_nv from modem_sim : bare ping-pong",
     at_most("read_nv_end_to_end", "bare_ping_pong", 1.3, "real_time")),
    ("modem_api_read_nv over a pseudo-terminal : bare exchange",
     at_most("read_nv_over_device", "bare_over_device", 1.15, "real_time")),
    ("modem_api_read_nv over QRTR, in a virtual machine : bare exchange",
     at_most("read_nv_over_qrtr", "bare_over_qrtr", 1.15, "real_time")),
    ("modem_api_read_nv from modem_sim, traced : not traced",
     at_most("read_nv_traced", "read_nv_untraced", 1.15, "real_time")),
    ("  one write in the trace", bounded("capture_nv_write", "real_time", 2000, nanoseconds)),
    ("event 3, largest, from modem_sim : bare stream of the same bytes",
     event_rate("event_stream", "bare_stream", 20_000)),
    ("  heap blocks left behind", bounded("event_stream", "blocks_left", 0, count)),
    ("second connection beside a stream of event 3 : idle",
     at_most("second_connection_beside_stream", "second_connection_idle", 1.3, "real_time")),
    ("  events a second meanwhile",
     at_least("second_connection_beside_stream", "events_per_second", 19_900, lambda value: f"{value:,.0f}/s")),
    ("signal --watch, 10 readings a second for 20 s, of one core",
     bounded("signal_watch", "core_percent", 5, lambda value: f"{value:.2f} %")),
    ("trace of a capture of 1,000,000 messages, processor time",
     bounded("trace_lines", "busy_seconds", 3, lambda value: f"{value:.2f} s")),
    ("  its memory", bounded("trace_lines", "most_megabytes", 64, lambda value: f"{value:.1f} MB")),
    ("largest events at 20,000 a second, traced by the client: messages not in the capture",
     bounded("traced_stream", "lost", 0, count)),
]


def main():
    results = Results(sys.argv[1])
    table = [("what", "measured", "beside", "ratio", "goal", "")]
    for title, (name, beside, row) in ROWS:
        missing = [needed for needed in (name, beside) if needed and not results.has(needed)]
        if missing:
            table.append((title, "", "", "", "", f"skipped: {missing[0]} is not built"))
            continue
        *cells, met = row(results)
        table.append((title, *cells, {True: MET, False: MISSED, None: ""}[met]))

    widths = [max(len(line[i]) for line in table) for i in range(5)]
    for line in table:
        cells = [line[0].ljust(widths[0])] + [line[i].rjust(widths[i]) for i in range(1, 5)] + [line[5]]
        print("  ".join(cells).rstrip())
    note = f"; {sys.argv[2]}" if len(sys.argv) > 2 else ""
    context = results.context
    load = context.get("load_avg", [])
    print(f"\n{model()}, {context['num_cpus']} processors, Linux {platform.release()}, "
          f"load {load[0] if load else 'unknown'}; {max(map(len, results.runs.values()))} rounds{note}")


def model():
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return platform.machine()


if __name__ == "__main__":
    main()
