"""What the suite's SSH servers share: their options, who may log in, and how their commands are run."""

import argparse
import fcntl
import os
import pty
import signal
import struct
import subprocess
import termios

SFTP_SERVER = "/usr/lib/openssh/sftp-server"
KEY_EXCHANGE = "diffie-hellman-group-exchange-sha1"


def parser(description):
    """The options that both servers take. DIRECTORY holds host_rsa, host_dsa and authorized_keys."""
    result = argparse.ArgumentParser(description=description)
    result.add_argument("directory", help="where the host keys and authorized_keys are")
    result.add_argument("--port", type=int, default=0, help="0 takes any free one")
    result.add_argument("--as-it-comes", action="store_true",
                        help="everything that follows is left to the package; host keys: ed25519, ecdsa and rsa")
    result.add_argument("--rekey-bytes", type=int, help="with --as-it-comes: when keys are renewed")
    result.add_argument("--host-key", default="rsa", choices=("rsa", "dsa"))
    result.add_argument("--key-exchanges", default=KEY_EXCHANGE, type=lambda text: text.split(","))
    result.add_argument("--ciphers", default="aes128-ctr,aes128-cbc", type=lambda text: text.split(","))
    result.add_argument("--macs", default="hmac-sha1", type=lambda text: text.split(","))
    result.add_argument("--banner", help="sent before the answer to the first login request")
    result.add_argument("--user", required=True)
    result.add_argument("--password", required=True)
    result.add_argument("--open-user", help="a name that the method none lets in")
    return result


def host_key_file(options):
    return os.path.join(options.directory, "host_" + options.host_key)


def all_host_key_files(options):
    return [os.path.join(options.directory, "host_" + key) for key in ("ed25519", "ecdsa", "rsa")]


def is_authorized(options, user, key_text):
    """Whether the key, as base64 text, is in authorized_keys."""
    with open(os.path.join(options.directory, "authorized_keys"), encoding="utf-8") as lines:
        keys = [line.split()[1] for line in lines if line.strip() and not line.startswith("#")]
    return user == options.user and key_text in keys


def announce(port):
    """The line that the suite waits for; connections are taken from here on."""
    print("ready on port %d" % port, flush=True)


def command_line(command, on_terminal):
    """The argument vector of a command, or of a shell for None."""
    if command is not None:
        return ["/bin/bash", "-c", command]
    return ["/bin/bash", "-i"] if on_terminal else ["/bin/bash"]


def command_environment(additions):
    """The server's own environment, without its agent, and what the client sent."""
    environment = {name: value for name, value in os.environ.items() if name != "SSH_AUTH_SOCK"}
    environment.update(additions)
    return environment


def set_window_size(descriptor, columns, rows, width, height):
    fcntl.ioctl(descriptor, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, width, height))


_running = set()


def start_piped(arguments, environment):
    """Starts a command in its own session with three pipes."""
    process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               bufsize=0, start_new_session=True, env=environment)
    _running.add(process)
    return process


def start_on_terminal(arguments, environment, size):
    """Starts a command on a new terminal, which becomes its controlling one; returns it and the master side."""
    master, slave = pty.openpty()
    set_window_size(slave, *size)
    process = subprocess.Popen(["setsid", "--ctty"] + arguments, stdin=slave, stdout=slave, stderr=slave,
                               env=environment)
    os.close(slave)
    _running.add(process)
    return process, master


def hang_up(process):
    """Signals to a command that is still running that its client has gone."""
    if process.poll() is None:
        try:
            os.killpg(process.pid, signal.SIGHUP)
        except ProcessLookupError:
            pass


def finish(process):
    """Waits for a command's end and gives its status: negative for the number of a signal."""
    status = process.wait()
    _running.discard(process)
    return status


def signal_name(number):
    """A signal as RFC 4254, section 6.10, names it: without its SIG."""
    return signal.Signals(number).name[len("SIG"):]


def _stop(_number, _frame):
    for process in list(_running):
        hang_up(process)
    os._exit(0)


signal.signal(signal.SIGTERM, _stop)
