"""One run of one job by one client, with its figures."""
import contextlib
import dataclasses
import os
import re
import signal
import subprocess
import time
from typing import Optional

import machine

MIB = 1 << 20

OPERATIONS = ["handshake", "exec"]
TRANSFERS = ["sftp-get", "sftp-get-sync", "sftp-put", "sftp-put-sync", "scp-get", "scp-put", "exec-source", "exec-sink"]
FORWARDINGS = ["fwd-up", "fwd-down"]
JOBS = OPERATIONS + TRANSFERS + FORWARDINGS

UNSUPPORTED = 77  # the exit status of a client that does not do a job

# An odd size, so that it is a multiple of no client's block size.
CHECKED_SIZE = 3 * MIB + 12345


class Unsupported(Exception):
    """The client does not do this job."""


class Failed(Exception):
    """The client's message, or what is wrong with its result."""


@dataclasses.dataclass
class Figures:
    """Seconds, unless the name says otherwise. The job's are those of only the job, without connecting."""
    wall: float
    user: float
    system: float
    peak_kib: float
    waits: float  # voluntary context switches
    job_wall: float
    job_cpu: float
    server_cpu: float
    foreign_cpus: float  # how many CPUs other programs have used meanwhile
    stolen_cpus: float   # how many the host of this machine has withheld

    @property
    def cpu(self):
        return self.user + self.system


@dataclasses.dataclass
class Surroundings:
    """What server and machine did during a run."""
    server_cpu: float = 0
    foreign_cpus: float = 0
    stolen_cpus: float = 0


class Runner:
    """Clients are a dictionary: name -> words of the command."""

    def __init__(self, server, clients, algorithms, tools, timeout):
        self.server = server
        self._clients = clients
        self._tools = tools
        self._timeout = timeout
        self._environment = {**os.environ, **algorithms.client_environment()}
        self._sources = {}
        self._report = server.directory / "report"

    def command(self, client, job, *arguments):
        """The words of a client's command line."""
        server = self.server
        words = [*self._clients[client], job, "127.0.0.1", server.port, server.user, server.key, *arguments]
        return [str(word) for word in words]

    def start(self, command, **options):
        """A process with the environment that passes the algorithms to clients."""
        return subprocess.Popen(command, env=self._environment, **options)

    def run(self, client, job, *, size=0, count=1, target=None, wrapper=()):
        """Figures of a run, under a tool such as valgrind if a wrapper is given. Throws Unsupported or Failed.

        Transfers move `size` bytes, into `target` instead of nowhere if there is one; operations are done `count`
        times.
        """
        if job in FORWARDINGS:
            return self._run_forwarding(client, job, size, wrapper)
        command = self.command(client, job, *self._arguments(job, size, count, target))
        with self._observe() as around:
            process = self.start([self._tools / "run_one", self._report, *wrapper, *command],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            try:
                output, errors = process.communicate(timeout=self._timeout)
            except subprocess.TimeoutExpired:
                self._kill(process)
                raise Failed("timeout") from None
            self._expect_success(process, errors or output)
        report = self._read_report()
        result = self._result(output) or {"wall": report["wall"], "user": report["user"], "sys": report["system"]}
        return self._figures(report, result["wall"], result["user"] + result["sys"], around)

    def check(self, client, job):
        """Runs a job once and compares what arrives. Throws Unsupported or Failed."""
        target = self.server.directory / "target"
        target.unlink(missing_ok=True)
        self.run(client, job, size=CHECKED_SIZE, target=target)
        if not target.exists():
            return  # nothing of it is left here
        received = target.read_bytes()
        wanted = bytes(CHECKED_SIZE) if job == "exec-source" else self._source(CHECKED_SIZE).read_bytes()
        target.unlink()
        if received != wanted:
            raise Failed(f"the content differs ({len(received)} of {len(wanted)} bytes)")

    def _arguments(self, job, size, count, target):
        target = target or self.server.null or self.server.directory / "target"
        if job in OPERATIONS:
            return [count]
        if job == "exec-source":
            return [size, target]
        if job == "exec-sink":
            return [self._source(size)]
        return [self._source(size), target]

    def _source(self, size):
        """A file of random bytes."""
        if size not in self._sources:
            path = self.server.directory / f"source.{size}"
            with path.open("wb") as file:
                for start in range(0, size, MIB):
                    file.write(os.urandom(min(MIB, size - start)))
            self._sources[size] = path
        return self._sources[size]

    def _run_forwarding(self, client, job, size, wrapper):
        """The client listens, a program at either end of the forwarding moves the bytes, and the client is ended. Its
        job is what it does from listening to the end of the transfer."""
        local_port, far_port = machine.free_port(), machine.free_port()
        far_role, near_role = ("serve-sink", "pump-up") if job == "fwd-up" else ("serve-source", "pump-down")
        command = self.command(client, "fwd", local_port, "127.0.0.1", far_port)
        errors_path = self.server.directory / "errors"
        with self._observe() as around, contextlib.ExitStack() as stack:
            stack.enter_context(self._far_end(far_role, far_port, size))
            errors = stack.enter_context(errors_path.open("w"))
            process = self.start([self._tools / "run_one", self._report, *wrapper, *command],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=errors)
            stack.callback(self._kill, process)
            if not machine.wait_until_listening(local_port, process, 20):
                self._kill(process)
                self._expect_success(process, errors_path.read_text() or "does not listen")
            client_process = int(self._report.read_text().split()[1])
            cpu_before = machine.cpu_of_threads(client_process)
            pump = subprocess.run([self._tools / "tcp_end", near_role, str(local_port), str(size)],
                                  capture_output=True, text=True, timeout=self._timeout)
            job_cpu = machine.cpu_of_threads(client_process) - cpu_before
            if pump.returncode:
                raise Failed((pump.stderr + errors_path.read_text()).strip()[-300:])
            os.kill(client_process, signal.SIGTERM)
            process.wait(timeout=60)
        return self._figures(self._read_report(), self._result(pump.stdout)["wall"], job_cpu, around)

    @contextlib.contextmanager
    def _far_end(self, role, port, size):
        process = subprocess.Popen([self._tools / "tcp_end", role, str(port), str(size)], stdout=subprocess.PIPE)
        try:
            process.stdout.readline()
            yield
        finally:
            process.terminate()
            process.wait()
            process.stdout.close()

    @contextlib.contextmanager
    def _observe(self):
        """The surroundings of what runs within; they are filled in at its end."""
        around = Surroundings()
        self.server.wait_until_idle()
        start, server_before, own_before = time.monotonic(), self.server.cpu(), machine.own_cpu()
        busy_before, stolen_before = machine.busy_and_stolen()
        yield around
        self.server.wait_until_idle()
        busy, stolen = machine.busy_and_stolen()
        elapsed = time.monotonic() - start
        around.server_cpu = self.server.cpu() - server_before
        ours = machine.own_cpu() - own_before + around.server_cpu
        around.foreign_cpus = max(0.0, (busy - busy_before - ours) / elapsed)
        around.stolen_cpus = (stolen - stolen_before) / elapsed

    @staticmethod
    def _kill(process):
        """Ends run_one and the client under it, if they still run."""
        if process.poll() is None:
            for child in machine.children(process.pid):
                os.kill(child, signal.SIGKILL)
            process.wait()

    @staticmethod
    def _expect_success(process, words):
        if process.returncode == UNSUPPORTED:
            raise Unsupported
        if process.returncode:
            raise Failed(words.strip()[-300:].replace("\n", " ") or f"exit status {process.returncode}")

    def _read_report(self):
        lines = (line.split() for line in self._report.read_text().splitlines())
        return {name: float(value) for name, value in lines}

    @staticmethod
    def _result(output) -> Optional[dict]:
        """The figures of a RESULT line."""
        line = re.search(r"^RESULT .*", output, re.MULTILINE)
        return line and {name: float(value) for name, value in re.findall(r"(wall|user|sys)=(\S+)", line.group())}

    @staticmethod
    def _figures(report, job_wall, job_cpu, around):
        return Figures(wall=report["wall"], user=report["user"], system=report["system"], peak_kib=report["peak_kib"],
                       waits=report["waits"], job_wall=job_wall, job_cpu=job_cpu, **dataclasses.asdict(around))
