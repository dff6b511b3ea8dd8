#!/usr/bin/python3
"""An SSH server on asyncssh for the test suite: logins by every method, commands, shells, sftp, forwarding.

Everything runs as the user who started it. It prints "ready on port N" once it takes connections.
"""

import asyncio
import os
import socket
import warnings

warnings.simplefilter("ignore")

import asyncssh  # noqa: E402
import asyncssh.connection  # noqa: E402

import server_common as common  # noqa: E402

SSH_MSG_IGNORE = 2

# The client never looks at a window, and asyncssh ends a connection whose window is exceeded.
WINDOW = 2**31 - 1
PACKET_SIZE = 32768

QUEUE_FULL = 64
QUEUE_LOW = 16


def leave_out_ignore_messages():
    """asyncssh puts an IGNORE in front of every encrypted packet, which no client of ours reads while it logs in."""
    send_packet = asyncssh.connection.SSHConnection.send_packet

    def send_packet_unless_ignore(self, packet_type, *arguments, **keywords):
        if packet_type != SSH_MSG_IGNORE:
            send_packet(self, packet_type, *arguments, **keywords)

    asyncssh.connection.SSHConnection.send_packet = send_packet_unless_ignore


def acknowledge_at_once():
    """Acknowledges each segment as it comes, so that a client with Nagle's algorithm on never waits for that."""
    data_received = asyncssh.connection.SSHConnection.data_received

    def data_received_and_acknowledged(self, data, datatype=None):
        data_received(self, data, datatype)
        if self._transport:
            self._transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)

    asyncssh.connection.SSHConnection.data_received = data_received_and_acknowledged


def widen_forwarded_channels():
    asyncssh.connection.SSHConnection.create_tcp_channel.__defaults__ = (None, "strict", WINDOW, PACKET_SIZE)
    asyncssh.connection.SSHServerConnection.create_x11_connection.__kwdefaults__["window"] = WINDOW


_tasks = set()


def run_task(coroutine):
    """Runs a coroutine beside the others; the event loop alone would not keep it from being collected."""
    task = asyncio.ensure_future(coroutine)
    _tasks.add(task)
    task.add_done_callback(_tasks.discard)
    return task


def x11_cookies(options):
    """The file that the cookies of clients' displays are kept in."""
    return os.path.join(options.directory, "x11_cookies")


class Session(asyncssh.SSHServerSession):
    """One session channel: runs a command, a shell or the SFTP server, and joins it to the channel."""

    def __init__(self, options):
        self.options = options
        self.channel = None
        self.command = None
        self.terminal_type = None
        self.window_size = None
        self.process = None
        self.master = None
        self.input = asyncio.Queue()
        self.may_write = asyncio.Event()
        self.may_write.set()

    def connection_made(self, chan):
        self.channel = chan
        chan.set_write_buffer_limits(1 << 20)

    def pty_requested(self, term_type, term_size, term_modes):
        self.terminal_type = term_type or "dumb"
        self.window_size = term_size
        return True

    def terminal_size_changed(self, width, height, pixwidth, pixheight):
        self.window_size = (width, height, pixwidth, pixheight)
        if self.master is not None:
            common.set_window_size(self.master, *self.window_size)

    def shell_requested(self):
        return self._accept(common.command_line(None, self.terminal_type is not None))

    def exec_requested(self, command):
        return self._accept(common.command_line(command, self.terminal_type is not None))

    def subsystem_requested(self, subsystem):
        return subsystem == "sftp" and self._accept([common.SFTP_SERVER])

    def _accept(self, arguments):
        self.command = arguments
        return True

    def session_started(self):
        run_task(self._run_on_terminal() if self.terminal_type else self._run_on_pipes())

    def data_received(self, data, datatype):
        self.input.put_nowait(data)
        if self.input.qsize() > QUEUE_FULL:
            self.channel.pause_reading()

    def eof_received(self):
        self.input.put_nowait(None)
        return True

    def pause_writing(self):
        self.may_write.clear()

    def resume_writing(self):
        self.may_write.set()

    def connection_lost(self, exc):
        self.may_write.set()
        self.input.put_nowait(None)
        if self.process:
            common.hang_up(self.process)

    async def _next_input(self):
        data = await self.input.get()
        if self.input.qsize() < QUEUE_LOW:
            self.channel.resume_reading()
        return data

    def _environment(self):
        additions = dict(self.channel.get_environment())
        if self.terminal_type:
            additions["TERM"] = self.terminal_type
        if display := self.channel.get_x11_display():
            additions.update(DISPLAY=display, XAUTHORITY=x11_cookies(self.options))
        return common.command_environment(additions)

    async def _run_on_pipes(self):
        self.process = common.start_piped(self.command, self._environment())
        feeding = run_task(self._feed(self.process.stdin))
        await asyncio.gather(self._copy_out(self.process.stdout, None),
                             self._copy_out(self.process.stderr, asyncssh.EXTENDED_DATA_STDERR))
        await self._report_end()
        feeding.cancel()

    async def _run_on_terminal(self):
        self.process, self.master = common.start_on_terminal(self.command, self._environment(), self.window_size)
        feeding = run_task(self._feed(os.fdopen(os.dup(self.master), "wb", 0)))
        await self._copy_out(os.fdopen(os.dup(self.master), "rb", 0), None)
        await self._report_end()
        feeding.cancel()
        os.close(self.master)
        self.master = None

    async def _feed(self, pipe):
        """Copies the channel's data into the command until its EOF; what a gone command did not read is dropped."""
        transport, protocol = await asyncio.get_event_loop().connect_write_pipe(
            asyncio.streams.FlowControlMixin, pipe)
        writer = asyncio.StreamWriter(transport, protocol, None, asyncio.get_event_loop())
        try:
            while (data := await self._next_input()) is not None:
                try:
                    writer.write(data)
                    await writer.drain()
                except OSError:
                    pass
        finally:
            writer.close()

    async def _copy_out(self, pipe, datatype):
        """Copies the command's output into the channel until its end; a terminal ends with EIO."""
        reader = asyncio.StreamReader()
        await asyncio.get_event_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(reader), pipe)
        try:
            while data := await reader.read(PACKET_SIZE):
                await self.may_write.wait()
                self.channel.write(data, datatype)
        except OSError:
            pass

    async def _report_end(self):
        status = await asyncio.get_event_loop().run_in_executor(None, common.finish, self.process)
        while self.channel.get_write_buffer_size() and not self.channel.is_closing():
            await asyncio.sleep(0.01)
        if self.channel.is_closing():
            return
        if status < 0:
            self.channel.exit_with_signal(common.signal_name(-status))
        else:
            self.channel.exit(status)


class Server(asyncssh.SSHServer):
    """One connection: who may log in, and that everything else is granted."""

    def __init__(self, options):
        self.options = options
        self.connection = None

    def connection_made(self, conn):
        self.connection = conn

    def begin_auth(self, username):
        if self.options.banner:
            self.connection.send_auth_banner(self.options.banner)
        return username != self.options.open_user

    def _is_password(self, user, password):
        return (user, password) == (self.options.user, self.options.password)

    def password_auth_supported(self):
        return True

    def validate_password(self, username, password):
        return self._is_password(username, password)

    def public_key_auth_supported(self):
        return True

    def validate_public_key(self, username, key):
        return common.is_authorized(self.options, username, key.export_public_key().decode().split()[1])

    def kbdint_auth_supported(self):
        return True

    def get_kbdint_challenge(self, username, lang, submethods):
        return "Login", "Answer with the password.", "", [("Password: ", False)]

    def validate_kbdint_response(self, username, responses):
        return len(responses) == 1 and self._is_password(username, responses[0])

    def session_requested(self):
        sizes = {} if self.options.as_it_comes else {"window": WINDOW, "max_pktsize": PACKET_SIZE}
        channel = self.connection.create_server_channel(encoding=None, **sizes)
        return channel, Session(self.options)

    def connection_requested(self, dest_host, dest_port, orig_host, orig_port):
        return True

    def server_requested(self, listen_host, listen_port):
        return True


def parse_options():
    parser = common.parser(__doc__)
    parser.add_argument("--quick-acknowledgements", action="store_true", help="acknowledge each segment at once")
    return parser.parse_args()


def reduced(options):
    """What suits a client of the reduced dialect."""
    return {"server_host_keys": [common.host_key_file(options)], "kex_algs": options.key_exchanges,
            "encryption_algs": options.ciphers, "mac_algs": options.macs, "signature_algs": ["ssh-rsa", "ssh-dss"],
            "compression_algs": ["none"], "agent_forwarding": False, "keepalive_interval": 0, "login_timeout": 60,
            "rekey_bytes": 1 << 50, "rekey_seconds": 1 << 30, "window": WINDOW}


def as_it_comes(options):
    result = {"server_host_keys": common.all_host_key_files(options)}
    if options.rekey_bytes:
        result["rekey_bytes"] = options.rekey_bytes
    return result


async def serve(options):
    settings = as_it_comes(options) if options.as_it_comes else reduced(options)
    listener = await asyncssh.create_server(lambda: Server(options), "127.0.0.1", options.port, x11_forwarding=True,
                                            x11_auth_path=x11_cookies(options), **settings)
    common.announce(listener.sockets[0].getsockname()[1])
    await asyncio.get_event_loop().create_future()


def main():
    options = parse_options()
    if not options.as_it_comes:
        leave_out_ignore_messages()
        widen_forwarded_channels()
    if options.quick_acknowledgements:
        acknowledge_at_once()
    asyncio.run(serve(options))


main()
