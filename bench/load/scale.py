#!/usr/bin/env python3
"""Measures many clients of one service on this machine, and long lists; prints tables.

    bench/load/scale.py BUILD [--rows FILE] [--clients N,N,...] [--records N,N,...]
                        [--idle SECONDS] [--only PART]

BUILD holds bin/scale_client and bin/perix-devservice. PART is clients, limits or lists. FILE gets each
figure as a line of fields between tabs, for bench/load/plot.py.
"""

import argparse
import contextlib
import pathlib
import statistics
import sys
import time

from world import (World, Client, descriptors, now_ns, private_kib, raise_descriptor_limit, sockets,
                   threads, wake_ups)

EVENTS = 40
CALL_SECONDS = 3
LIMITS = (64, 256, 1024, 4096)  # descriptors of the service
USUAL_DESCRIPTORS = 1024  # the soft limit of a user's session
WAYS = {"direct": {}, "broker": {"ZQBUS_DIRECT": "0"}}
SCENARIO = """
[[desktop]]
id = 1
name = "desk"

[[command]]
name = "tick"
"""


def crowd(records):
    return SCENARIO + f"""
[[device]]
devNumber = 1
name = "Device"
type = "usb"
copies = {records}
"""


class Report:
    def __init__(self, file):
        self.file = open(file, "w", encoding="utf-8") if file else None

    def head(self, *names):
        print()
        self.line(names)

    def line(self, fields):
        print("".join(f"{field:>{max(10, len(str(field)) + 2)}}" for field in fields), flush=True)

    def row(self, table, way, number, **figures):
        if self.file is None:
            return
        for name, figure in figures.items():
            self.file.write(f"{table}\t{way}\t{number}\t{name}\t{figure}\n")
        self.file.flush()


class Crowd:
    """Clients that are connected, and what the service held before and after they came."""

    def __init__(self, world, count, environment, stack):
        self.world = world
        self.before = self.service_holds()
        self.clients = []
        for row in range(count):
            client = Client(world, "scale_client", row, environment=environment)
            stack.callback(client.end)
            self.clients.append(client)
        # One after the other: the service opens few lines at a time.
        self.failed = sum(client.ask("connect") != ["connected", "0"] for client in self.clients)
        self.after = self.service_holds()

    def service_holds(self):
        pid = self.world.service.pid
        return {"private": private_kib(pid), "threads": threads(pid),
                "descriptors": descriptors(pid), "sockets": sockets(pid)}

    def per_client(self, what):
        return (self.after[what] - self.before[what]) / len(self.clients)

    def lines(self):
        """A line is one socket of the service."""
        return self.after["sockets"] - self.before["sockets"]

    def median(self, measure):
        return statistics.median(measure(client.pid) for client in self.clients)

    # --- Idle ---

    def idle(self, seconds):
        """The wake-ups of a client (most of all clients) and of the service meanwhile."""
        pids = [client.pid for client in self.clients] + [self.world.service.pid]
        time.sleep(2)  # the log is written a second after its last line
        begin = [wake_ups(pid) for pid in pids]
        time.sleep(seconds)
        woken = []
        for pid, first in zip(pids, begin):
            woken.append({name: number - first.get(task, (name, 0))[1]
                          for task, (name, number) in wake_ups(pid).items()
                          if number != first.get(task, (name, 0))[1]})
        for pid, names in zip(pids, woken):
            for name, number in names.items():
                print(f"woken: process {pid} thread {name}: {number} times", file=sys.stderr)
        *clients, service = [sum(names.values()) for names in woken]
        return max(clients), service

    # --- Events ---

    def events(self):
        """Microseconds from a call to the callback of each client to which its event comes."""
        delays = []
        for event in range(1, EVENTS + 1):
            answer = self.clients[event % len(self.clients)].ask("command tick")
            if answer[0] != "sent":
                raise RuntimeError("the command failed")
            delays.append(sorted((arrival - int(answer[1])) / 1000
                                 for arrival in self.arrivals(event)))
        return (statistics.median(statistics.median(one) for one in delays),
                statistics.median(one[-1] for one in delays), max(one[-1] for one in delays))

    def arrivals(self, event):
        deadline = time.monotonic() + 60
        while True:
            rows = [self.world.row(row) for row in range(len(self.clients))]
            if all(row[0] >= event for row in rows):
                return [row[event] for row in rows]
            if time.monotonic() > deadline:
                raise RuntimeError(f"event {event} did not reach every client")
            time.sleep(0.01)

    # --- Calls ---

    def calls(self):
        """Calls in a second, of all clients at once, and how many calls failed: with more clients than
        the machine serves, some wait for longer than an operation does."""
        for client in self.clients:
            client.order(f"calls {CALL_SECONDS}")
        answers = [client.answer() for client in self.clients]
        failed = sum(int(answer[2]) for answer in answers)
        return (sum(int(answer[1]) for answer in answers) - failed) / CALL_SECONDS, failed


def measure_clients(arguments, report):
    report.head("way", "clients", "lines", "KiB each", "threads", "service", "service", "service",
                "event us", "event us", "event us", "calls/s", "calls", "wake-ups", "wake-ups")
    report.line(("", "", "", "median", "each", "KiB/client", "threads", "descr.", "median", "last",
                 "worst", "all", "late", "client", "service"))
    for way, environment in WAYS.items():
        for count in arguments.clients:
            measure_crowd(arguments, report, way, environment, count)


def measure_crowd(arguments, report, way, environment, count):
    with World(arguments.build, count) as world, contextlib.ExitStack() as stack:
        world.start_service(SCENARIO, USUAL_DESCRIPTORS)
        crowd = Crowd(world, count, environment, stack)
        if crowd.failed:
            raise RuntimeError(f"{crowd.failed} clients did not connect")
        woken = crowd.idle(arguments.idle) if arguments.idle else ("", "")
        memory, held = crowd.median(private_kib), crowd.median(threads)
        median, last, worst = crowd.events()
        rate, late = crowd.calls()
        figures = {"lines": crowd.lines(), "private": memory, "threads": held,
                   "service": crowd.per_client("private"), "service_threads": crowd.after["threads"],
                   "service_descriptors": crowd.after["descriptors"], "median": median,
                   "last": last, "worst": worst, "rate": rate, "late": late, "woken": woken[0],
                   "service_woken": woken[1]}
        report.row("clients", way, count, **figures)
        report.line((way, count, *(round(f, 1) if isinstance(f, float) else f
                                   for f in figures.values())))


# --- Limits ----------------------------------------------------------------------------------------


def measure_limits(arguments, report):
    """How many of 1000 clients get a line, by the descriptors that the service may open."""
    report.head("descriptors", "clients", "lines", "broker", "failed", "calls/s", "late",
                "service KiB")
    for limit in LIMITS:
        with World(arguments.build, arguments.limit_clients) as world, contextlib.ExitStack() as stack:
            world.start_service(SCENARIO, limit)
            crowd = Crowd(world, arguments.limit_clients, {}, stack)
            lines = crowd.lines()
            crowd.events()
            rate, late = crowd.calls()
            report.row("limits", "direct", limit, lines=lines, rate=rate, late=late)
            report.line((limit, len(crowd.clients), lines, len(crowd.clients) - lines, crowd.failed,
                         round(rate), late, crowd.after["private"]))
            if not world.service.runs():
                raise RuntimeError("the service has ended")


# --- Lists -----------------------------------------------------------------------------------------


def measure_lists(arguments, report):
    report.head("way", "records", "us", "us/record", "client", "client KiB", "service", "service KiB",
                "after")
    report.line(("", "", "", "", "KiB/record", "after free", "KiB/record", "peak", "list"))
    for way, environment in WAYS.items():
        for records in arguments.records:
            measure_list(arguments, report, way, environment, records)


def measure_list(arguments, report, way, environment, records):
    with World(arguments.build, 1) as world, contextlib.ExitStack() as stack:
        world.start_service(SCENARIO)
        bare = private_kib(world.service.pid)
        world.end_service()
        world.start_service(crowd(records))
        service = private_kib(world.service.pid)
        client = Client(world, "scale_client", 0, environment=environment)
        stack.callback(client.end)
        client.ask("connect")
        client.ask("list nowhere")
        before = private_kib(client.pid)
        times = []
        for _ in range(arguments.repeat):
            _, got, taken = client.ask("list desk")
            if int(got) != records:
                raise RuntimeError(f"{got} records of {records}")
            times.append(int(taken) / 1000)
            held = private_kib(client.pid)
            client.ask("free")
        micros = min(times)  # the others met other work of the machine
        figures = {"us": micros, "us_per_record": micros / records,
                   "client": (held - before) / records,
                   "client_after": private_kib(client.pid) - before,
                   "service": (service - bare) / records, "service_peak": peak_kib(world.service.pid),
                   "service_after": private_kib(world.service.pid) - service}
        report.row("lists", way, records, **figures)
        report.line((way, records, *(round(figure, 2) for figure in figures.values())))


def peak_kib(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
    return int(status.partition("VmHWM:")[2].split()[0])


PARTS = {"clients": measure_clients, "limits": measure_limits, "lists": measure_lists}


def numbers(text):
    return [int(word) for word in text.split(",")]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rows")
    parser.add_argument("--clients", type=numbers, default=[1, 10, 100, 500, 1000])
    parser.add_argument("--records", type=numbers, default=[1, 10, 100, 1000, 10000, 30000, 65535])
    parser.add_argument("--limit-clients", type=int, default=1000)
    parser.add_argument("--idle", type=int, default=60)
    parser.add_argument("--repeat", type=int, default=15)
    parser.add_argument("--only", choices=PARTS)
    arguments = parser.parse_args()
    raise_descriptor_limit()
    report = Report(arguments.rows)
    for name, part in PARTS.items():
        if arguments.only in (None, name):
            part(arguments, report)


main()
