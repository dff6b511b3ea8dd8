#!/usr/bin/env python3
"""Compares SSH clients against one private server, run by run in turn, and prints tables in Markdown.

The clients openssh, libssh2, libssh and asyncssh are here. NAME=COMMAND adds one, or takes the place of the one of that
name; two builds of the same program make two clients, before=... and after=...

A client is a program with the command line

    PROGRAM handshake      HOST PORT USER KEY N             N connections with login
    PROGRAM exec           HOST PORT USER KEY N             N commands "true" over one connection
    PROGRAM sftp-get       HOST PORT USER KEY REMOTE LOCAL  as its library does it best
    PROGRAM sftp-get-sync  HOST PORT USER KEY REMOTE LOCAL  with one request of about 32 KiB in flight
    PROGRAM sftp-put       HOST PORT USER KEY LOCAL REMOTE
    PROGRAM sftp-put-sync  HOST PORT USER KEY LOCAL REMOTE
    PROGRAM scp-get        HOST PORT USER KEY REMOTE LOCAL
    PROGRAM scp-put        HOST PORT USER KEY LOCAL REMOTE
    PROGRAM exec-source    HOST PORT USER KEY BYTES LOCAL   the output of "head -c BYTES /dev/zero" into LOCAL
    PROGRAM exec-sink      HOST PORT USER KEY LOCAL         LOCAL into "cat >/dev/null"
    PROGRAM fwd            HOST PORT USER KEY LPORT DHOST DPORT   forwards 127.0.0.1:LPORT until SIGTERM
    PROGRAM hold           HOST PORT USER KEY               logs in, prints READY, waits for the end of its input

and with exit status 0, or 77 for a job that it does not do. The figures of the job alone, without connecting, it
prints itself, in seconds:

    RESULT ... wall=S user=S sys=S

without which those of the whole process are taken. The algorithms to offer are in its environment, see
clients/client.h.
"""
import argparse
import pathlib
import shlex
import signal
import subprocess
import sys

import algorithms
import bounds
import checking
import counting
import memory
import runner
import sshd
import timing

HERE = pathlib.Path(__file__).resolve().parent
BUILD = HERE.parent.parent / "build" / "compare"
OWN_CLIENTS = {
    **{name: [BUILD / f"bench_{name}"] for name in ("openssh", "libssh2", "libssh")},
    "asyncssh": [HERE / "clients" / "bench_asyncssh.py"],
}


def parse_command_line():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("clients", nargs="*", metavar="NAME=COMMAND", help="a further client")
    parser.add_argument("--only", metavar="NAMES", help="these clients alone, with commas between them")
    parser.add_argument("--jobs", default=",".join(runner.JOBS), help="default: %(default)s")
    parser.add_argument("--algorithms", default="reduced", choices=sorted(algorithms.SETS),
                        help="the set of algorithms.py to be used (%(default)s)")
    parser.add_argument("--delay", type=float, default=0, metavar="MS",
                        help="carry the connections through a proxy with this round trip time")
    parser.add_argument("--rsa-bits", type=int, default=3072, help="of RSA keys (%(default)s)")

    modes = parser.add_argument_group("what to measure instead of time").add_mutually_exclusive_group()
    modes.add_argument("--instr", action="store_true", help="instructions, with valgrind's callgrind")
    modes.add_argument("--syscalls", action="store_true", help="system calls, with strace")
    modes.add_argument("--rss", action="store_true", help="memory of an idle session, sizes of libraries")
    modes.add_argument("--bounds", action="store_true", help="what the machine can do at best")

    parser.add_argument("--reference", default="libssh2", metavar="NAME",
                        help="the client that the ratios refer to (%(default)s, or the first)")
    parser.add_argument("--runs", type=int, default=7, help="(%(default)s)")
    parser.add_argument("--size", type=int, default=256, help="MiB of a transfer (%(default)s)")
    parser.add_argument("--n-handshake", type=int, default=20, help="connections a run (%(default)s)")
    parser.add_argument("--n-exec", type=int, default=50, help="commands a run (%(default)s)")
    parser.add_argument("--timeout", type=float, default=300, help="seconds of a run (%(default)s)")
    parser.add_argument("--max-foreign", type=float, default=0.2,
                        help="repeat a run if other programs used more CPUs meanwhile (%(default)s)")
    parser.add_argument("--retries", type=int, default=4, help="... so many times (%(default)s)")
    parser.add_argument("--no-check", action="store_true", help="don't try each job first")
    parser.add_argument("--lib", action="append", default=[], metavar="FILE", help="a further file for --rss")
    parser.add_argument("--json", metavar="FILE", help="write the figures of every timed run")
    options = parser.parse_args()
    if options.delay:
        options.max_foreign = float("inf")  # the proxy works meanwhile

    options.jobs = options.jobs.split(",")
    for job in options.jobs:
        if job not in runner.JOBS:
            parser.error(f"no such job: {job}")
    clients = dict(OWN_CLIENTS)
    for client in options.clients:
        name, is_command, command = client.partition("=")
        if not is_command or not command:
            parser.error(f"not NAME=COMMAND: {client}")
        clients[name] = shlex.split(command)
    if options.only:
        for name in options.only.split(","):
            if name not in clients:
                parser.error(f"no such client: {name}")
        clients = {name: clients[name] for name in options.only.split(",")}
    if options.reference not in clients:
        options.reference = next(iter(clients))
    options.clients = clients
    return options


def build():
    """The other clients and the tools, with CMake."""
    for command in (["cmake", "-S", HERE, "-B", BUILD, "-G", "Ninja"], ["cmake", "--build", BUILD]):
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode:
            sys.exit(done.stdout + "\ncompare.py: the other clients were not built; packages.txt lists what they need")


def measure(options, server):
    chosen = algorithms.SETS[options.algorithms]
    run = runner.Runner(server, options.clients, chosen, BUILD, options.timeout)
    if options.bounds:
        bounds.print_bounds(BUILD, server.directory, options.runs)
        return
    if options.rss:
        memory.print_sessions(run, options.clients, options.runs)
        memory.print_sizes(run, options.lib)
        return
    if options.no_check:
        working = {(job, client) for job in options.jobs for client in options.clients}
    else:
        working = checking.check_jobs(run, options.clients, options.jobs)
    if options.instr:
        if options.algorithms == "reduced":
            counting.print_instruction_bounds(run, BUILD)
        counting.print_instructions(run, options.jobs, options.clients, working)
    elif options.syscalls:
        counting.print_system_calls(run, options.jobs, options.clients, working)
    else:
        timing.Timing(run, options).measure(options.jobs, options.clients, working)


def main():
    options = parse_command_line()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    build()
    server = sshd.Server(algorithms.SETS[options.algorithms], options.rsa_bits, options.delay)
    try:
        measure(options, server)
    finally:
        server.stop()


main()
