#!/usr/bin/python3
"""An SSH server on paramiko for the test suite: logins by every method, commands, shells, sftp, forwarding.

Everything runs as the user who started it. It prints "ready on port N" once it takes connections.
"""

import os
import socket
import sys
import threading
import warnings

warnings.simplefilter("ignore")

import paramiko  # noqa: E402
import paramiko.common  # noqa: E402

import server_common as common  # noqa: E402

PIECE = 32768
NO_REKEYING = 1 << 50


def in_background(function, *arguments):
    thread = threading.Thread(target=function, args=arguments, daemon=True)
    thread.start()
    return thread


def copy(read, write, at_end=lambda: None):
    """Copies until the source ends or either side fails."""
    try:
        while data := read(PIECE):
            write(data)
    except (OSError, EOFError, ValueError):
        pass
    try:
        at_end()
    except (OSError, EOFError):
        pass


def write_all(pipe, data):
    rest = memoryview(data)
    while rest:
        rest = rest[pipe.write(rest):]


class Command:
    """A command, shell or SFTP server attached to a session channel."""

    def __init__(self, channel, environment, terminal):
        self.channel = channel
        self.environment = common.command_environment(environment)
        self.terminal = terminal
        self.master = None

    def start(self, arguments):
        in_background(self._run_on_terminal if self.terminal else self._run_on_pipes, arguments)

    def resize(self, size):
        if self.master is not None:
            common.set_window_size(self.master, *size)

    def _run_on_pipes(self, arguments):
        process = common.start_piped(arguments, self.environment)
        in_background(copy, self.channel.recv, lambda data: write_all(process.stdin, data),
                      lambda: self._end_input(process, process.stdin))
        errors = in_background(copy, process.stderr.read, self.channel.sendall_stderr)
        copy(process.stdout.read, self.channel.sendall)
        errors.join()
        self._report_end(process)

    def _run_on_terminal(self, arguments):
        terminal_type, size = self.terminal
        self.environment["TERM"] = terminal_type or "dumb"
        process, self.master = common.start_on_terminal(arguments, self.environment, size)
        with os.fdopen(self.master, "r+b", 0, closefd=False) as master:
            feeding = in_background(copy, self.channel.recv, lambda data: write_all(master, data),
                                    lambda: self._end_input(process, None))
            copy(master.read, self.channel.sendall)
            self._report_end(process)
            feeding.join()
        descriptor, self.master = self.master, None
        os.close(descriptor)

    def _end_input(self, process, pipe):
        """Passes the client's EOF on; a client that has gone for good ends the command."""
        if self.channel.closed:
            common.hang_up(process)
        if pipe:
            pipe.close()

    def _report_end(self, process):
        status = common.finish(process)
        try:
            if status < 0:
                self._send_exit_signal(common.signal_name(-status))
            else:
                self.channel.send_exit_status(status)
            self.channel.close()
        except (OSError, EOFError, paramiko.SSHException):
            pass

    def _send_exit_signal(self, name):
        """RFC 4254, section 6.10; paramiko has no call of its own for it."""
        message = paramiko.Message()
        message.add_byte(paramiko.common.cMSG_CHANNEL_REQUEST)
        message.add_int(self.channel.remote_chanid)
        message.add_string("exit-signal")
        message.add_boolean(False)
        message.add_string(name)
        message.add_boolean(False)
        message.add_string("")
        message.add_string("")
        self.channel.transport._send_user_message(message)


class Server(paramiko.ServerInterface):
    """One connection: who may log in, and what is granted."""

    def __init__(self, options, transport):
        self.options = options
        self.transport = transport
        self.terminals = {}
        self.environments = {}
        self.commands = {}
        self.targets = {}
        self.user_asked = None

    def get_banner(self):
        return (self.options.banner, "en-US") if self.options.banner else (None, None)

    def get_allowed_auths(self, username):
        return "publickey,password,keyboard-interactive"

    @staticmethod
    def _outcome(is_right):
        return paramiko.AUTH_SUCCESSFUL if is_right else paramiko.AUTH_FAILED

    def check_auth_none(self, username):
        return self._outcome(username == self.options.open_user)

    def check_auth_password(self, username, password):
        return self._outcome((username, password) == (self.options.user, self.options.password))

    def check_auth_publickey(self, username, key):
        return self._outcome(common.is_authorized(self.options, username, key.get_base64()))

    def check_auth_interactive(self, username, submethods):
        self.user_asked = username
        query = paramiko.InteractiveQuery("Login", "Answer with the password.")
        query.add_prompt("Password: ", False)
        return query

    def check_auth_interactive_response(self, responses):
        return self._outcome((self.user_asked, list(responses)) == (self.options.user, [self.options.password]))

    def check_channel_request(self, kind, chanid):
        return paramiko.OPEN_SUCCEEDED if kind == "session" else paramiko.OPEN_FAILED_ADMINISTRATIVELY_PROHIBITED

    def check_channel_env_request(self, channel, name, value):
        self.environments.setdefault(channel.get_id(), {})[name.decode()] = value.decode()
        return True

    def check_channel_pty_request(self, channel, term, width, height, pixelwidth, pixelheight, modes):
        self.terminals[channel.get_id()] = (term.decode(), (width, height, pixelwidth, pixelheight))
        return True

    def check_channel_window_change_request(self, channel, width, height, pixelwidth, pixelheight):
        self.commands[channel.get_id()].resize((width, height, pixelwidth, pixelheight))
        return True

    def check_channel_shell_request(self, channel):
        return self._start(channel, common.command_line(None, channel.get_id() in self.terminals))

    def check_channel_exec_request(self, channel, command):
        return self._start(channel, common.command_line(command.decode(), channel.get_id() in self.terminals))

    def check_channel_subsystem_request(self, channel, name):
        return name == "sftp" and self._start(channel, [common.SFTP_SERVER])

    def _start(self, channel, arguments):
        number = channel.get_id()
        command = Command(channel, self.environments.get(number, {}), self.terminals.get(number))
        self.commands[number] = command
        command.start(arguments)
        return True

    def check_channel_direct_tcpip_request(self, chanid, origin, destination):
        try:
            peer = socket.create_connection(destination, 5)
        except OSError:
            return paramiko.OPEN_FAILED_CONNECT_FAILED
        peer.settimeout(None)
        if not self.targets:
            in_background(self._join_targets)
        self.targets[chanid] = peer
        return paramiko.OPEN_SUCCEEDED

    def _join_targets(self):
        """Joins each socket to its channel, which comes out of accept once it has been granted."""
        channels = []  # a channel that nobody refers to closes itself
        while self.transport.is_active():
            channel = self.transport.accept(1)
            channels.append(channel)
            if channel and channel.get_id() in self.targets:
                join(channel, self.targets[channel.get_id()])

    def check_port_forward_request(self, address, port):
        try:
            listener = socket.create_server(("127.0.0.1", port))
        except OSError:
            return False
        port = listener.getsockname()[1]
        in_background(self._forward_connections, listener, address, port)
        return port

    def _forward_connections(self, listener, address, port):
        while self.transport.is_active():
            peer, origin = listener.accept()
            try:
                join(self.transport.open_forwarded_tcpip_channel(origin, (address, port)), peer)
            except (paramiko.SSHException, EOFError):
                peer.close()


def join(channel, peer):
    """Copies both ways; each end is passed on by itself, and both together close the channel and the socket."""
    def copy_to_peer():
        copy(channel.recv, peer.sendall, lambda: peer.shutdown(socket.SHUT_WR))
        from_peer.join()
        channel.close()
        peer.close()

    from_peer = in_background(copy, peer.recv, channel.sendall, channel.shutdown_write)
    in_background(copy_to_peer)


def reduce(transport, options):
    """What suits a client of the reduced dialect."""
    security = transport.get_security_options()
    security.kex = options.key_exchanges
    security.ciphers = options.ciphers
    security.digests = options.macs
    transport.packetizer.REKEY_BYTES = NO_REKEYING
    transport.packetizer.REKEY_PACKETS = NO_REKEYING


def serve_connection(options, host_keys, connection):
    transport = paramiko.Transport(connection)
    if not options.as_it_comes:
        reduce(transport, options)
    elif options.rekey_bytes:
        transport.packetizer.REKEY_BYTES = options.rekey_bytes
    for host_key in host_keys:
        transport.add_server_key(host_key)
    try:
        transport.start_server(server=Server(options, transport))
    except (paramiko.SSHException, EOFError, OSError) as problem:
        print("handshake:", problem, file=sys.stderr, flush=True)


def main():
    parser = common.parser(__doc__)
    parser.add_argument("--moduli", default="/etc/ssh/moduli", help="groups for the group exchange")
    options = parser.parse_args()
    if not paramiko.Transport.load_server_moduli(options.moduli):
        sys.exit("no groups in " + options.moduli)
    if options.as_it_comes:
        classes = (paramiko.Ed25519Key, paramiko.ECDSAKey, paramiko.RSAKey)
        host_keys = [key(filename=name) for key, name in zip(classes, common.all_host_key_files(options))]
    else:
        key_class = paramiko.DSSKey if options.host_key == "dsa" else paramiko.RSAKey
        host_keys = [key_class(filename=common.host_key_file(options))]
    listener = socket.create_server(("127.0.0.1", options.port), backlog=50)
    common.announce(listener.getsockname()[1])
    while True:
        connection, _ = listener.accept()
        in_background(serve_connection, options, host_keys, connection)


main()
