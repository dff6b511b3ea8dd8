"""A private OpenSSH server with keys and directories of its own, which ends with the comparison."""
import getpass
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import machine

CONFIGURATION = """\
Port {port}
ListenAddress 127.0.0.1
HostKey {directory}/host
ModuliFile {directory}/moduli
PidFile none
AuthorizedKeysFile {directory}/user.pub
StrictModes no
UsePAM no
UseDNS no
PermitRootLogin prohibit-password
PasswordAuthentication no
KbdInteractiveAuthentication no
PrintMotd no
PrintLastLog no
LogLevel ERROR
MaxStartups 200
MaxSessions 50
Compression no
# Otherwise bash assumes a login by rsh and reads .bashrc for each command.
SetEnv SHLVL=9
Subsystem sftp /usr/lib/openssh/sftp-server
"""


class Server:
    """Files are in `directory`, in memory. `null` is a copy of /dev/null in which a transfer can end, or None if
    this user can't make one: pages of new files in memory may cost more than the transfer, and what a client does to
    the mode of its target must not reach the real device."""

    def __init__(self, algorithms, rsa_bits, delay=0):
        self.user = getpass.getuser()
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="bench-", dir="/dev/shm"))
        self._device_directory = pathlib.Path(tempfile.mkdtemp(prefix="bench-"))
        self.null = self._make_null()
        self.key = self.directory / "user"
        for name in ("host", "user"):
            self._make_key(name, algorithms.key_type, rsa_bits)
        self._choose_group()
        self._has_made_run = not os.path.isdir("/run/sshd")
        os.makedirs("/run/sshd", mode=0o755, exist_ok=True)
        self._start(algorithms)
        if delay:
            self._start_proxy(delay)

    def _make_null(self):
        null = self._device_directory / "null"
        try:
            subprocess.run(["mknod", null, "c", "1", "3"], check=True, capture_output=True)
            null.open("wb").close()
        except (subprocess.CalledProcessError, OSError):
            return None
        return null

    def _make_key(self, name, key_type, rsa_bits):
        form = ["-b", str(rsa_bits), "-m", "PEM"] if key_type == "rsa" else []
        subprocess.run(["ssh-keygen", "-q", "-t", key_type, *form, "-N", "", "-C", name, "-f", self.directory / name],
                       check=True)

    def _choose_group(self):
        """One group of 2048 bits, so that every exchange of numbers costs the same."""
        with open("/etc/ssh/moduli") as moduli:
            group = next(line for line in moduli if re.match(r"\d+ 2 6 \d+ 2047 ", line))
        (self.directory / "moduli").write_text(group)

    def _start(self, algorithms):
        self._proxy = None
        self.port = machine.free_port()
        configuration = self.directory / "sshd_config"
        configuration.write_text(CONFIGURATION.format(port=self.port, directory=self.directory) +
                                 algorithms.server_configuration())
        log = self.directory / "sshd.log"
        with log.open("wb") as errors:
            self._process = subprocess.Popen(["/usr/sbin/sshd", "-D", "-e", "-f", configuration], stderr=errors,
                                             stdin=subprocess.DEVNULL)
        if not machine.wait_until_listening(self.port, self._process, 5):
            text = log.read_text()
            self.stop()
            raise SystemExit("sshd does not start:\n" + text)

    def _start_proxy(self, delay):
        """Takes the server's place for the clients."""
        target, self.port = self.port, machine.free_port()
        proxy = pathlib.Path(__file__).parent / "delay.py"
        self._proxy = subprocess.Popen([proxy, str(self.port), str(target), str(delay)])
        if not machine.wait_until_listening(self.port, self._proxy, 5):
            self.stop()
            raise SystemExit("the delaying proxy does not start")

    def cpu(self):
        """CPU seconds of all connections that have ended."""
        return machine.cpu_of_waited_children(self._process.pid)

    def wait_until_idle(self):
        """Until no connection is left, or for five seconds."""
        for _ in range(1000):
            if not machine.children(self._process.pid):
                return
            time.sleep(0.005)

    def stop(self):
        if self._proxy:
            self._proxy.terminate()
            self._proxy.wait()
        for child in machine.children(self._process.pid):
            try:
                os.kill(child, signal.SIGTERM)
            except OSError:
                pass
        self._process.terminate()
        self._process.wait()
        shutil.rmtree(self.directory, ignore_errors=True)
        shutil.rmtree(self._device_directory, ignore_errors=True)
        if self._has_made_run:
            try:
                os.rmdir("/run/sshd")
            except OSError:
                pass
