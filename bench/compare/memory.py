"""Memory of an idle session, and the size of the libraries."""
import glob
import pathlib
import re
import subprocess
import time

import table
from table import median

COMPARED = ["/usr/lib/*/libssh2.so.1", "/usr/lib/*/libssh.so.4", "/usr/lib/*/libcrypto.so.3", "/lib/*/libc.so.6",
            "/usr/bin/ssh", "/usr/bin/sftp", "/usr/bin/scp"]


def memory_of(process):
    """KiB: resident, proportional, private, private and dirty, heap."""
    lines = pathlib.Path(f"/proc/{process}/smaps_rollup").read_text().splitlines()[1:]
    rollup = {words[0]: int(words[1]) for words in map(str.split, lines)}
    mappings = pathlib.Path(f"/proc/{process}/smaps").read_text()
    heap = sum(map(int, re.findall(r"\[heap\]\n(?:.*\n){0,3}?Rss: *(\d+)", mappings)))
    return [rollup["Rss:"], rollup["Pss:"], rollup["Private_Clean:"] + rollup["Private_Dirty:"],
            rollup["Private_Dirty:"], heap]


def hold_session(run, client):
    """The memory of a session that has logged in and does nothing; None if the client has no such job."""
    process = run.start(run.command(client, "hold"), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    with process:
        if not process.stdout.readline().startswith("READY"):
            return None
        time.sleep(0.2)
        memory = memory_of(process.pid)
        process.stdin.close()
        process.wait(timeout=30)
    return memory


def print_sessions(run, clients, runs):
    rows = []
    for client in clients:
        samples = [hold_session(run, client) for _ in range(runs)]
        if None in samples:
            rows.append([client, "unsupported", "", "", "", ""])
        else:
            rows.append([client, *(median(sample, ".0f") for sample in zip(*samples))])
    print("## A session that is connected, logged in and idle: KiB\n")
    table.print_table(["client", "resident", "proportional", "private", "private dirty", "heap"], rows)


def row_of_file(path, scratch):
    def output_of(*command):
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout

    subprocess.run(["strip", "-o", scratch, path], check=True)
    text, data, bss = output_of("size", path).splitlines()[1].split()[:3]
    exported = re.findall(r" [TWVDBRiu] ", output_of("nm", "-D", "--defined-only", path))
    needed = re.findall(r"NEEDED.*\[(.*)\]", output_of("readelf", "-d", path))
    return [path, scratch.stat().st_size, text, data, bss, len(exported), " ".join(needed)]


def print_sizes(run, further):
    files = [path for pattern in COMPARED for path in glob.glob(pattern)] + further
    print("## Files: bytes\n")
    table.print_table(["file", "stripped", "text", "data", "bss", "exported symbols", "needs"],
                      [row_of_file(path, run.server.directory / "stripped") for path in files])
