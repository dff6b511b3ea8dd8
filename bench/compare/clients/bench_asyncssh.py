#!/usr/bin/python3
"""The jobs by asyncssh, as clients/client.h describes them. The figures are of the job, without Python's start."""
import asyncio
import os
import resource
import signal
import sys
import time
import warnings

warnings.filterwarnings("ignore")  # the cryptography package announces what it will drop
import asyncssh  # noqa: E402

UNSUPPORTED = 77
BLOCK = 1 << 18


def names(variable):
    """The algorithms of a variable of the environment, or asyncssh's own choice."""
    text = os.environ.get(variable)
    return text.split(",") if text else ()


class Client:
    def __init__(self, host, port, user, key):
        self._target = {
            "host": host, "port": int(port), "username": user, "client_keys": [key], "known_hosts": None,
            "agent_path": None, "config": None, "compression_algs": ["none"],
            "kex_algs": names("BENCH_KEX"), "encryption_algs": names("BENCH_CIPHERS"),
            "mac_algs": names("BENCH_MACS"), "signature_algs": names("BENCH_SIGNATURES"),
            "server_host_key_algs": names("BENCH_SIGNATURES"),
        }

    def connect(self):
        return asyncssh.connect(**self._target)


class Measured:
    """Prints what happens within as the line that the harness reads."""

    def __enter__(self):
        self._start = self._now()

    def __exit__(self, kind, error, trace):
        wall, user, system = (now - start for now, start in zip(self._now(), self._start))
        if kind is None:
            print(f"RESULT wall={wall:.6f} user={user:.6f} sys={system:.6f}", flush=True)

    @staticmethod
    def _now():
        used = resource.getrusage(resource.RUSAGE_SELF)
        return time.monotonic(), used.ru_utime, used.ru_stime


async def handshake(client, count):
    with Measured():
        for _ in range(int(count)):
            async with client.connect():
                pass


async def exec_(client, count):
    async with client.connect() as connection:
        with Measured():
            for _ in range(int(count)):
                await connection.run("true", check=True)


async def exec_source(client, size, local):
    async with client.connect() as connection:
        with open(local, "wb") as file, Measured():
            process = await connection.create_process(f"head -c {size} /dev/zero", encoding=None)
            while data := await process.stdout.read(BLOCK):
                file.write(data)
            await process.wait(check=True)


async def exec_sink(client, local):
    async with client.connect() as connection:
        with open(local, "rb") as file, Measured():
            process = await connection.create_process("cat >/dev/null", encoding=None)
            while data := file.read(BLOCK):
                process.stdin.write(data)
                await process.stdin.drain()
            process.stdin.write_eof()
            await process.wait(check=True)


def over_sftp(operation, **options):
    async def run(client, source, target):
        async with client.connect() as connection, connection.start_sftp_client() as sftp:
            with Measured():
                await getattr(sftp, operation)(source, target, **options)
    return run


async def scp_get(client, remote, local):
    async with client.connect() as connection:
        with Measured():
            await asyncssh.scp((connection, remote), local)


async def scp_put(client, local, remote):
    async with client.connect() as connection:
        with Measured():
            await asyncssh.scp(local, (connection, remote))


async def fwd(client, local_port, host, port):
    stop = asyncio.Event()
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, stop.set)
    async with client.connect() as connection:
        await connection.forward_local_port("127.0.0.1", int(local_port), host, int(port))
        await stop.wait()


async def hold(client):
    async with client.connect():
        print("READY", flush=True)
        await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)


JOBS = {
    "handshake": handshake, "exec": exec_, "exec-source": exec_source, "exec-sink": exec_sink,
    "sftp-get": over_sftp("get"), "sftp-get-sync": over_sftp("get", block_size=32768, max_requests=1),
    "sftp-put": over_sftp("put"), "sftp-put-sync": over_sftp("put", block_size=32768, max_requests=1),
    "scp-get": scp_get, "scp-put": scp_put, "fwd": fwd, "hold": hold,
}

job = JOBS.get(sys.argv[1])
if not job:
    sys.exit(UNSUPPORTED)
asyncio.run(job(Client(*sys.argv[2:6]), *sys.argv[6:]))
