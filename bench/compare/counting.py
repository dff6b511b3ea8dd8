"""Counts that do not depend on the load of the machine: instructions under callgrind, system calls under strace.

What a byte or an operation costs is the difference of two runs of different size, in which connecting and starting
cancel out.
"""
import collections
import pathlib
import re
import subprocess

import runner
import table

MIB = 1 << 20
SMALL, LARGE = 1 * MIB, 17 * MIB
FEW, MANY = 1, 6


def differences(count_run, run, jobs, clients, working):
    """Yields job, client, unit and counts by name for each unit, or a text in their place if a run fails.

    `count_run(run, client, job, size, count)` makes a run and returns its counts.
    """
    for job in jobs:
        for client in clients:
            if (job, client) not in working or job in runner.FORWARDINGS:
                continue
            operations = job in runner.OPERATIONS
            try:
                before = count_run(run, client, job, SMALL, FEW)
                after = count_run(run, client, job, LARGE, MANY)
            except runner.Failed as failure:
                yield job, client, "", str(failure)
                continue
            units = MANY - FEW if operations else LARGE - SMALL
            yield (job, client, "operation" if operations else "byte",
                   {name: (after[name] - before[name]) / units for name in {*before, *after}})


def largest(counts, number, least=0.0):
    """The names with the largest counts, those first."""
    ordered = sorted(counts.items(), key=lambda item: -item[1])
    return [(name, count) for name, count in ordered[:number] if count >= least]


# ---- instructions

def callgrind(out):
    return ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={out}"]


def instructions_by_object(path):
    """Instructions of each object file itself, from a file of callgrind's.

    Lines that begin with a number are costs: of the object that the last "ob=" line names, except right after a
    "calls=" line, where they are those of the called function. A name is written in full once, "(3) /lib/libc.so.6", and
    as "(3)" after that; "cob=" lines, which name called objects, give names too.
    """
    cost, names, current, is_of_call = collections.Counter(), {}, None, False
    with open(path, errors="replace") as file:
        for line in file:
            if line[0] in "0123456789+-*":
                if not is_of_call:
                    cost[names.get(current, "?")] += int(line.split()[1])
                is_of_call = False
            elif line.startswith("calls="):
                is_of_call = True
            elif name := re.match(r"(c?)ob=(\(\d+\))(?: (.*))?", line):
                if name.group(3):
                    names[name.group(2)] = pathlib.Path(name.group(3)).name
                if not name.group(1):
                    current = name.group(2)
    return cost


def count_instructions(run, client, job, size, count):
    directory = run.server.directory
    for path in directory.glob("callgrind.*"):
        path.unlink()
    run.run(client, job, size=size, count=count,
            wrapper=[*callgrind(directory / "callgrind.%p"), "--trace-children=yes"])
    total = collections.Counter()
    for path in directory.glob("callgrind.*"):
        total += instructions_by_object(path)
        path.unlink()
    return total


def print_instruction_bounds(run, tools):
    """The arithmetic that no client can do without, in the same measure."""
    def instructions(*arguments):
        out = run.server.directory / "callgrind.bounds"
        subprocess.run([*callgrind(out), tools / "bounds", *map(str, arguments)], check=True, capture_output=True)
        return sum(instructions_by_object(out).values())

    handshake = instructions("handshake", run.server.key, MANY) - instructions("handshake", run.server.key, FEW)
    bulk = instructions("bulk", LARGE // MIB) - instructions("bulk", SMALL // MIB)
    print(f"Lower bounds in the same measure: {handshake / (MANY - FEW) / 1e6:.3f} million for the arithmetic of a "
          f"handshake (load the key, Diffie-Hellman\nwith 2048 bits and exponents of 320, an RSA signature and a "
          f"verification), {bulk / (LARGE - SMALL):.3f} a byte for aes128-ctr and hmac-sha1\nin packets of 32 KiB. "
          f"valgrind has no SHA instructions: OpenSSL takes another path there, the same for all.\n")


def print_instructions(run, jobs, clients, working):
    rows = []
    for job, client, unit, counts in differences(count_instructions, run, jobs, clients, working):
        if isinstance(counts, str):
            rows.append([job, client, counts, "", "", "", "", ""])
            continue
        scale, unit = (1e6, "million an operation") if unit == "operation" else (1, "a byte")
        counts = {name: count / scale for name, count in counts.items()}
        total = sum(counts.values())
        crypto = sum(count for name, count in counts.items() if name.startswith("libcrypto"))
        libc = sum(count for name, count in counts.items() if name.startswith(("libc.so", "libc-")))
        rows.append([job, client, unit, f"{total:.3f}", f"{crypto:.3f}", f"{total - crypto:.3f}",
                     f"{total - crypto - libc:.3f}",
                     ", ".join(f"{name} {count:.3f}" for name, count in largest(counts, 4))])
    print("## Instructions\n")
    table.print_table(["job", "client", "unit", "total", "libcrypto", "outside libcrypto", "and outside libc",
                       "most in"], rows)


# ---- system calls

def count_system_calls(run, client, job, size, count):
    out = run.server.directory / "strace"
    run.run(client, job, size=size, count=count,
            wrapper=["strace", "-f", "-q", "-c", "-U", "name,calls", "-o", str(out)])
    calls = collections.Counter()
    for line in out.read_text().splitlines():
        if (call := re.fullmatch(r"\s*(\w+)\s+(\d+)", line)) and call.group(1) != "total":
            calls[call.group(1)] = int(call.group(2))
    return calls


def print_system_calls(run, jobs, clients, working):
    rows = []
    for job, client, unit, counts in differences(count_system_calls, run, jobs, clients, working):
        if isinstance(counts, str):
            rows.append([job, client, "", counts, ""])
            continue
        scale, unit = (1, "operation") if unit == "operation" else (MIB, "MiB")
        counts = {name: count * scale for name, count in counts.items()}
        rows.append([job, client, unit, f"{sum(counts.values()):.0f}",
                     ", ".join(f"{name} {count:.0f}" for name, count in largest(counts, 7, least=1))])
    print("## System calls\n")
    table.print_table(["job", "client", "for each", "calls", "most of them"], rows)
