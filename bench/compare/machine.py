"""What /proc says about the machine and its processes."""
import glob
import os
import pathlib
import socket
import time

TICKS_PER_SECOND = os.sysconf("SC_CLK_TCK")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def is_listening(port):
    """Whether a process listens on the TCP port."""
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        _, local, _, state = line.split()[:4]
        if local.endswith(f":{port:04X}") and state == "0A":
            return True
    return False


def wait_until_listening(port, process, seconds):
    """False if the process has ended instead."""
    deadline = time.monotonic() + seconds
    while not is_listening(port):
        if process.poll() is not None or time.monotonic() > deadline:
            return False
        time.sleep(0.005)
    return True


def children(process):
    try:
        return [int(child) for child in pathlib.Path(f"/proc/{process}/task/{process}/children").read_text().split()]
    except OSError:
        return []


def cpu_of_threads(process):
    """CPU seconds of all threads of a running process, to the nanosecond."""
    threads = glob.glob(f"/proc/{process}/task/*/schedstat")
    return sum(int(pathlib.Path(thread).read_text().split()[0]) for thread in threads) / 1e9


def cpu_of_waited_children(process):
    """CPU seconds of the children that a process has waited for."""
    fields = pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[13]) + int(fields[14])) / TICKS_PER_SECOND


def own_cpu():
    """CPU seconds of this process and of the children that it has waited for."""
    used = os.times()
    return used.user + used.system + used.children_user + used.children_system


def busy_and_stolen():
    """CPU seconds that the machine has worked, and that its host has withheld from it, since it started."""
    with open("/proc/stat") as stat:
        user, nice, system, _, _, interrupt, soft_interrupt, stolen = (int(n) for n in stat.readline().split()[1:9])
    return (user + nice + system + interrupt + soft_interrupt) / TICKS_PER_SECOND, stolen / TICKS_PER_SECOND
