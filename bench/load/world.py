"""A private bus, the development service on it and many clients, and what each of them holds."""

import contextlib
import os
import pathlib
import resource
import select
import shutil
import signal
import struct
import subprocess
import tempfile
import time

COLUMNS = 128  # numbers in the row of one client, as figures.h says
PATIENCE = 60  # seconds for an answer; only a fault takes so long

BUS_CONFIGURATION = """<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_incomplete_connections">10000</limit>
  <limit name="max_connections_per_user">100000</limit>
  <limit name="max_match_rules_per_connection">50000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""


def raise_descriptor_limit():
    """Of this process: it has pipes to every client, and the daemon inherits the limit."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


class Program:
    """A process that is killed when this object is closed."""

    def __init__(self, command, environment=None, descriptors=None, **pipes):
        limits = None
        if descriptors is not None:
            limits = lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))
        self.process = subprocess.Popen(
            [str(word) for word in command], env={**os.environ, **(environment or {})},
            preexec_fn=limits, **pipes)

    @property
    def pid(self):
        return self.process.pid

    def runs(self):
        return self.process.poll() is None

    def end(self, number=signal.SIGKILL):
        """Ends it by that signal; its exit code."""
        if self.runs():
            self.process.send_signal(number)
        code = self.process.wait(PATIENCE)
        for pipe in (self.process.stdin, self.process.stdout):
            if pipe is not None:
                with contextlib.suppress(OSError):
                    pipe.close()
        return code


class World:
    """A directory with a bus, a service, and rows of numbers that clients fill."""

    def __init__(self, build, rows):
        self.bin = pathlib.Path(build).resolve() / "bin"
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="perix-load-"))
        self.address = f"unix:path={self.directory}/bus"
        self.environment = {
            "ZQBUS_ADDRESS": self.address,
            "XDG_STATE_HOME": str(self.directory / "state"),
        }
        self.figures = self.directory / "figures"
        self.figures.write_bytes(bytes(rows * COLUMNS * 8))
        self.bus = None
        self.service = None

    def __enter__(self):
        self.start_bus()
        return self

    def __exit__(self, *_):
        for program in (self.service, self.bus):
            if program is not None:
                program.end()
        shutil.rmtree(self.directory, ignore_errors=True)

    def start_bus(self):
        socket = self.directory / "bus"
        socket.unlink(missing_ok=True)
        configuration = self.directory / "bus.conf"
        configuration.write_text(BUS_CONFIGURATION.format(socket=socket))
        self.bus = Program(
            ["dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
             f"--config-file={configuration}"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        if not self.bus.process.stdout.readline():
            raise RuntimeError("dbus-daemon does not come up")

    def start_service(self, scenario, descriptors=None):
        file = self.directory / "scenario.toml"
        file.write_text(scenario)
        ready, ready_end = os.pipe()
        self.service = Program(
            [self.bin / "perix-devservice", "--scenario", file, "--ready-fd", ready_end],
            self.environment, descriptors, stdout=subprocess.DEVNULL, pass_fds=[ready_end])
        os.close(ready_end)
        with open(ready, "rb") as pipe:
            if pipe.readline() != b"ready\n":
                raise RuntimeError("the service does not come up")

    def end_service(self):
        self.service.end(signal.SIGTERM)
        self.service = None

    def row(self, number):
        with open(self.figures, "rb") as file:
            file.seek(number * COLUMNS * 8)
            return struct.unpack(f"{COLUMNS}q", file.read(COLUMNS * 8))


class Client(Program):
    """A client program that takes orders on its standard input."""

    def __init__(self, world, program, row, *arguments, environment=None):
        super().__init__([world.bin / program, world.figures, row, *arguments],
                         {**world.environment, **(environment or {})},
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def order(self, text):
        self.process.stdin.write(f"{text}\n".encode())
        self.process.stdin.flush()

    def answer(self, patience=PATIENCE):
        """The words of its next line."""
        stdout = self.process.stdout
        poll = select.poll()  # select() takes no descriptor beyond 1023
        poll.register(stdout, select.POLLIN)
        if not poll.poll(patience * 1000):
            raise RuntimeError(f"client {self.pid} does not answer")
        line = stdout.readline().decode()
        if not line:
            raise RuntimeError(f"client {self.pid} has ended: {self.process.poll()}")
        return line.split()

    def ask(self, text, patience=PATIENCE):
        self.order(text)
        return self.answer(patience)


# --- What a process holds --------------------------------------------------------------------------


def private_kib(pid):
    """The memory that it alone has and has written to. Unwritten pages of a library are left out, even
    while no other process shares them: the figure would depend on the other processes."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Private_Dirty"))


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def wake_ups(pid):
    """The context switches of all its threads so far: {thread: (name, number)}."""
    found = {}
    for task in os.listdir(f"/proc/{pid}/task"):
        fields = {}
        with open(f"/proc/{pid}/task/{task}/status", encoding="utf-8") as file:
            for line in file:
                key, _, value = line.partition(":")
                fields[key] = value.strip()
        found[task] = (fields["Name"], int(fields["voluntary_ctxt_switches"]) +
                       int(fields["nonvoluntary_ctxt_switches"]))
    return found


def sockets(pid):
    count = 0
    for number in os.listdir(f"/proc/{pid}/fd"):
        with contextlib.suppress(OSError):
            count += os.readlink(f"/proc/{pid}/fd/{number}").startswith("socket:")
    return count


def now_ns():
    return time.clock_gettime_ns(time.CLOCK_MONOTONIC)
