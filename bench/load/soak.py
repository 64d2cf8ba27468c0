#!/usr/bin/env python3
"""Mixed load on one service for MINUTES, while service and broker are restarted again and again.

    bench/load/soak.py BUILD MINUTES [--seed N] [--rows FILE]
                       [--service-every SECONDS] [--broker-every SECONDS]

Prints a table, and each promise that did not hold; the exit code is 1 then. FILE gets the samples, for
bench/load/plot.py.
"""

import argparse
import contextlib
import math
import os
import random
import signal
import statistics
import struct
import sys
import time

from world import (COLUMNS, Client, World, descriptors, now_ns, private_kib, raise_descriptor_limit,
                   threads)

# Columns of a client's row, as soak_client.cpp fills them.
(OPERATIONS, FAILURES, UNEXPLAINED, LONGEST, LAST_SUCCESS, OUTCOMES, LOST_OUTCOMES, LAST_OUTCOME,
 DEATHS, BROADCASTS, PEN_PACKETS, WRONG_PENS, WRONG_LISTS) = range(13)
RESTARTS, QUIET_SINCE = range(2)  # of the script's own row

TRACE_EVERY = 60  # the trace is cut to nothing, or it would fill the disk

# Seconds, from include/perix/perix_proxy.h and docs/bus.md: connecting takes 10; a recovery looks for
# the service every 2; a service looks for a lost bus every 5 at most, and tries for 1.
CONNECT_BOUND = 10
DEATH_BOUND = 2 + CONNECT_BOUND
BROKER_BOUND = 5 + 1 + CONNECT_BOUND
STALL_BOUND = 60  # an operation waits for those of five other threads

# How much more the last tenth of the run may hold than an early tenth, by their medians: so much, and so
# much for each connection between the two. The early tenth is the second one; for memory, it begins after
# the warm-up, in which the arenas of a client's threads become as large as its bursts. A connection adds a
# subscription to broadcasts that stays (0.6 KiB of the heap), and each broadcast is handed on once for
# each of them.
GROWTH = {"private": (512, 4), "descriptors": (2, 0), "threads": (2, 0)}
WARM_UP_MINUTES = 5
SHORTEST_FOR_MEMORY = 2 * WARM_UP_MINUTES

CLIENTS = [{"ZQBUS_TRACE": "soak.trace"}, {}, {"ZQBUS_DIRECT": "0"}, {}]

SCENARIO = """
[[desktop]]
id = 1
name = "desk"
connected = true

[[device]]
devNumber = 1
sourceId = 1
name = "Disk"
type = "disk"

[[device]]
devNumber = 2
name = "Device"
type = "usb"
copies = 19

[[printer]]
number = 1
name = "Printer"

[[test]]
name = "loopback"
""" + "".join(f'\n[[command]]\nname = "c{row}"\nanswer = "c{row}"\n'
              for row in range(1, len(CLIENTS) + 1))


class Broken(Exception):
    """A promise that did not hold, so that the run cannot go on."""


class Soak:
    def __init__(self, world, minutes, seed, rows, service_every, broker_every):
        self.world = world
        self.minutes = minutes
        self.random = random.Random(seed)
        self.rows = open(rows, "w", encoding="utf-8") if rows else None
        self.service_every, self.broker_every = service_every, broker_every
        self.begin = time.monotonic()
        self.restarts = 0
        self.broken = []
        self.samples = {}  # {who: {what: [number]}}
        self.recoveries = {"service": [], "broker": [], "death": [], "event": []}
        self.waiting = []  # recoveries that have not been seen yet
        self.counts = {"killed": 0, "ended": 0, "broker": 0, "gone": 0}
        self.trace = world.directory / "soak.trace"
        self.clients = []
        self.broker_was_killed = False

    def promise(self, holds, text):
        if not holds:
            text = f"{time.monotonic() - self.begin:6.0f} s: {text}"
            self.broken.append(text)
            print(f"BROKEN {text}", flush=True)

    # --- Clients ---

    def start_clients(self, stack, seed):
        for row, environment in enumerate(CLIENTS, start=1):
            environment = {key: str(self.trace) if key == "ZQBUS_TRACE" else value
                           for key, value in environment.items()}
            client = Client(self.world, "soak_client", row, seed + 10 * row, environment=environment)
            stack.callback(client.end)
            if client.answer() != ["ready"]:
                raise Broken(f"client {row} does not start")
            self.clients.append(client)

    def end_clients(self):
        for client in self.clients:
            client.order("end")
        for row, client in enumerate(self.clients, start=1):
            answer = client.answer(STALL_BOUND)
            self.promise(answer == ["done"] and client.process.wait(CONNECT_BOUND) == 0,
                         f"client {row} did not end well")

    # --- Restarts ---

    def mark(self):
        """Tells the clients that a restart begins, or is over."""
        self.restarts += 1
        with open(self.world.figures, "r+b") as file:
            file.seek(QUIET_SINCE * 8)
            file.write(struct.pack("q", now_ns()))
            file.seek(RESTARTS * 8)
            file.write(struct.pack("q", self.restarts))

    def restart_service(self):
        orderly = (self.counts["killed"] + self.counts["ended"]) % 2 == 1
        deaths = [self.world.row(row)[DEATHS] for row in range(1, len(self.clients) + 1)]
        self.mark()
        code = self.world.service.end(signal.SIGTERM if orderly else signal.SIGKILL)
        self.promise(code == (0 if orderly else -signal.SIGKILL),
                     f"the service ended with {code}")
        self.counts["ended" if orderly else "killed"] += 1
        time.sleep(self.random.random())
        self.world.start_service(SCENARIO)
        self.mark()
        self.expect("service", LAST_SUCCESS, CONNECT_BOUND)
        self.expect("event", LAST_OUTCOME, CONNECT_BOUND + 1)
        for row, count in enumerate(deaths, start=1):
            self.expect_of("death", row, lambda numbers, count=count: numbers[DEATHS] > count,
                           DEATH_BOUND)

    def restart_broker(self):
        self.mark()
        self.world.bus.end()
        time.sleep(self.random.random())
        self.world.start_bus()
        self.mark()
        self.broker_was_killed = True
        self.counts["broker"] += 1
        self.expect("broker", LAST_OUTCOME, BROKER_BOUND)

    def expect(self, what, column, bound):
        begin = now_ns()
        for row in range(1, len(self.clients) + 1):
            self.expect_of(what, row, lambda numbers: numbers[column] > begin, bound)

    def expect_of(self, what, row, has_recovered, bound):
        self.waiting.append((what, row, has_recovered, time.monotonic(), bound))

    def check_recoveries(self):
        still = []
        for what, row, has_recovered, begin, bound in self.waiting:
            taken = time.monotonic() - begin
            if has_recovered(self.world.row(row)):
                self.recoveries[what].append(taken)
            elif taken > bound:
                self.promise(False, f"client {row} has not recovered ({what}) after {bound} s")
            else:
                still.append((what, row, has_recovered, begin, bound))
        self.waiting = still

    def check_processes(self):
        for row, client in enumerate(self.clients, start=1):
            if not client.runs():
                raise Broken(f"client {row} has ended with {client.process.poll()}")
        if self.world.service.runs():
            return
        # Without a client on a line, a service ends itself when it has lost the bus.
        code = self.world.service.process.poll()
        if code != 3 or not self.broker_was_killed:
            raise Broken(f"the service has ended with {code}")
        self.counts["gone"] += 1
        self.mark()
        self.world.start_service(SCENARIO)
        self.mark()

    # --- Samples ---

    def sample(self):
        processes = {f"client {row}": client.pid for row, client in enumerate(self.clients, start=1)}
        processes["service"] = self.world.service.pid
        for who, pid in processes.items():
            with contextlib.suppress(OSError):
                self.note(who, {"private": private_kib(pid), "descriptors": descriptors(pid),
                                "threads": threads(pid)})

    def note(self, who, numbers):
        for what, number in numbers.items():
            self.samples.setdefault(who, {}).setdefault(what, []).append(number)
        if self.rows:
            taken = time.monotonic() - self.begin
            for what, number in numbers.items():
                self.rows.write(f"soak\t{who}\t{taken:.1f}\t{what}\t{number}\n")

    def early_tenth(self, what):
        """The number of the tenth to compare with; nothing when the run is too short for that."""
        if what != "private":
            return 1
        if self.minutes < SHORTEST_FOR_MEMORY:
            return None
        return max(1, math.ceil(10 * WARM_UP_MINUTES / self.minutes))

    def tenth(self, who, what, number):
        numbers = self.samples[who][what]
        size = max(1, len(numbers) // 10)
        return statistics.median(numbers[number * size:(number + 1) * size])

    # --- The run ---

    def run(self):
        end = self.begin + 60 * self.minutes
        next_service, next_broker = (self.begin + self.service_every,
                                      self.begin + self.broker_every)
        next_sample, next_trace = self.begin, self.begin + TRACE_EVERY
        while (now := time.monotonic()) < end:
            self.check_processes()
            self.check_recoveries()
            if now >= next_sample and now < end - BROKER_BOUND:  # while there are restarts
                self.sample()
                next_sample += 1
            if now >= next_trace:
                os.truncate(self.trace, 0)
                next_trace += TRACE_EVERY
            if now >= next_broker and now < end - BROKER_BOUND:
                self.restart_broker()
                next_broker += self.broker_every
            if now >= next_service and now < end - BROKER_BOUND:
                self.restart_service()
                next_service += self.service_every
            time.sleep(0.05)
        self.end_clients()

    def judge(self):
        for row in range(1, len(self.clients) + 1):
            numbers = self.world.row(row)
            for column, text in {UNEXPLAINED: "failures without a cause",
                                 LOST_OUTCOMES: "lost outcomes", WRONG_PENS: "lost pen packets",
                                 WRONG_LISTS: "lists cut short"}.items():
                self.promise(numbers[column] == 0, f"client {row}: {numbers[column]} {text}")
            self.promise(numbers[LONGEST] < STALL_BOUND * 1e9,
                         f"client {row}: an operation took {numbers[LONGEST] / 1e9:.1f} s")
            self.promise(numbers[OUTCOMES] > 0, f"client {row} heard no event")
        connections = self.counts["killed"] + self.counts["ended"] + self.counts["broker"]
        for who, kinds in self.samples.items():
            for what in kinds:
                if (early := self.early_tenth(what)) is None:
                    continue
                before, after = self.tenth(who, what, early), self.tenth(who, what, 9)
                once, each = GROWTH[what]
                self.promise(after - before <= once + each * connections * (9 - early) / 10,
                             f"{who}: {what} grew from {before:.0f} to {after:.0f}")

    def table(self):
        print(f"\nrestarts: service {self.counts['killed']} killed, {self.counts['ended']} ended; "
              f"broker {self.counts['broker']}, after which the service ended itself "
              f"{self.counts['gone']} times")
        print(f"\n{'seconds to':<12}{'times':>8}{'median':>10}{'worst':>10}")
        for what, taken in self.recoveries.items():
            if taken:
                print(f"{what:<12}{len(taken):>8}{statistics.median(taken):>10.2f}{max(taken):>10.2f}")
        print(f"\n{'':<12}{'calls':>10}{'failures':>10}{'events':>10}{'broadcasts':>12}{'pen':>10}"
              f"{'deaths':>8}{'longest s':>11}")
        for row in range(1, len(self.clients) + 1):
            numbers = self.world.row(row)
            print(f"client {row:<5}{numbers[OPERATIONS]:>10}{numbers[FAILURES]:>10}"
                  f"{numbers[OUTCOMES]:>10}{numbers[BROADCASTS]:>12}{numbers[PEN_PACKETS]:>10}"
                  f"{numbers[DEATHS]:>8}{numbers[LONGEST] / 1e9:>11.2f}")
        print(f"\n{'':<12}{'private KiB':>20}{'descriptors':>20}{'threads':>20}")
        print(f"{'tenth':<12}" + f"{'early':>10}{'last':>10}" * 3)
        for who, kinds in self.samples.items():
            print(f"{who:<12}" + "".join(
                f"{self.tenth(who, what, self.early_tenth(what) or 1):>10.0f}"
                f"{self.tenth(who, what, 9):>10.0f}" for what in kinds))
        if self.minutes < SHORTEST_FOR_MEMORY:
            print(f"\nThe growth of memory is judged from {SHORTEST_FOR_MEMORY} minutes on.")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("minutes", type=float)
    parser.add_argument("--seed", type=int, default=int.from_bytes(os.urandom(2), "little"))
    parser.add_argument("--rows")
    parser.add_argument("--service-every", type=float, default=20, help="seconds from restart to restart")
    parser.add_argument("--broker-every", type=float, default=90)
    arguments = parser.parse_args()
    print(f"seed {arguments.seed}", flush=True)
    raise_descriptor_limit()
    with World(arguments.build, len(CLIENTS) + 1) as world, contextlib.ExitStack() as stack:
        world.start_service(SCENARIO)
        soak = Soak(world, arguments.minutes, arguments.seed, arguments.rows,
                    arguments.service_every, arguments.broker_every)
        try:
            soak.start_clients(stack, arguments.seed)
            soak.run()
            soak.judge()
        except (Broken, RuntimeError) as error:
            soak.promise(False, str(error))
        if soak.samples:
            soak.table()
    print(f"\n{'every promise held' if not soak.broken else f'{len(soak.broken)} promises broken'} "
          f"(seed {arguments.seed})")
    sys.exit(1 if soak.broken else 0)


main()
