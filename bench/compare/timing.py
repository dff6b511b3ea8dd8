"""CPU and wall time in interleaved runs."""
import dataclasses
import json
import statistics
import sys

import runner
import table
from table import median, spread

MIB = 1 << 20
GIB = 1 << 30


class Timing:
    """Takes turns among the clients, each round beginning with another of them. The first round is not counted: it
    fills the caches. A run during which other programs or the host took more CPUs than `max_foreign` is thrown away
    and repeated, up to `retries` times."""

    def __init__(self, run, options):
        self._run = run
        self._options = options
        self._thrown_away = 0

    def measure(self, jobs, clients, working):
        runs = {}
        for job in jobs:
            runs[job] = self._measure_job(job, [client for client in clients if (job, client) in working])
            if runs[job]:
                self._print_job(job, runs[job])
        print(f"{self._thrown_away} runs were thrown away and repeated because other programs used more than "
              f"{self._options.max_foreign} CPUs.")
        if self._options.json:
            self._write_json(runs)

    def _measure_job(self, job, clients):
        """Client -> figures of its runs. A client that fails drops out."""
        runs = {client: [] for client in clients}
        for number in range(-1, self._options.runs):
            first = number % len(clients) if clients else 0
            for client in clients[first:] + clients[:first]:
                if client not in runs:
                    continue
                try:
                    figures = self._run_once(job, client, is_counted=number >= 0)
                except (runner.Failed, runner.Unsupported) as failure:
                    print(f"{job} by {client}: {failure}", file=sys.stderr)
                    del runs[client]
                    continue
                if number >= 0:
                    runs[client].append(figures)
        return runs

    def _run_once(self, job, client, is_counted):
        options = self._options
        for attempt in range(options.retries + 1):
            figures = self._run.run(client, job, size=options.size * MIB, count=self._count(job))
            is_quiet = max(figures.foreign_cpus, figures.stolen_cpus) <= options.max_foreign
            if is_quiet or not is_counted:
                break
            self._thrown_away += attempt < options.retries
        return figures

    def _count(self, job):
        return {"handshake": self._options.n_handshake, "exec": self._options.n_exec}.get(job, 1)

    def _print_job(self, job, runs):
        options = self._options
        reference = options.reference if options.reference in runs else None
        if job in runner.OPERATIONS:
            per, unit, speed_unit = 1e3 / self._count(job), "ms", "ms each"
            amount = f"{self._count(job)} operations a run"
        else:
            per, unit, speed_unit = GIB / (options.size * MIB), "s/GiB", "MB/s"
            amount = f"{options.size} MiB a run"
        rows = [self._row(job, client, figures, per, runs.get(reference)) for client, figures in runs.items()]
        print(f"## {job}: {amount}, {options.runs} runs\n")
        table.print_table(["client", speed_unit, f"job CPU {unit}", "whole CPU", "user/system", "server CPU", "peak MiB",
                           "waits", "foreign/stolen CPUs"] +
                          ([f"CPU to {reference}, median/least", "wall"] if reference else []), rows)

    def _row(self, job, client, runs, per, reference):
        cpu = [figures.job_cpu * per for figures in runs]
        wall = [figures.job_wall for figures in runs]
        if job in runner.OPERATIONS:
            speed = spread([seconds * per for seconds in wall])
        else:
            speed = spread([self._options.size * MIB / 1e6 / seconds for seconds in wall], ".0f")
        row = [client, speed, spread(cpu, ".3f"),
               median([figures.cpu * per for figures in runs], ".3f"),
               median([figures.user * per for figures in runs]) + "/" +
               median([figures.system * per for figures in runs]),
               median([figures.server_cpu * per for figures in runs], ".3f"),
               median([figures.peak_kib / 1024 for figures in runs], ".1f"),
               median([figures.waits for figures in runs], ".0f"),
               median([figures.foreign_cpus for figures in runs]) + "/" +
               median([figures.stolen_cpus for figures in runs])]
        if reference:
            other_cpu = [figures.job_cpu * per for figures in reference]
            other_wall = [figures.job_wall for figures in reference]
            row += [f"{statistics.median(cpu) / statistics.median(other_cpu):.2f}/{min(cpu) / min(other_cpu):.2f}",
                    f"{statistics.median(wall) / statistics.median(other_wall):.2f}"]
        return row

    def _write_json(self, runs):
        entries = [{"job": job, "client": client, "runs": [dataclasses.asdict(figures) for figures in figures_of_runs]}
                   for job, of_job in runs.items() for client, figures_of_runs in of_job.items()]
        with open(self._options.json, "w") as file:
            json.dump(entries, file, indent=1)
