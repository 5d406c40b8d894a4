"""One hub: the real daemon and the simulated MCU on a directory of their own, its clients and its
log. Every case makes one; nothing of it is left when the case ends."""

import asyncio
import contextlib
import json
import os
import pathlib
import shutil
import struct
import tempfile
import time

REQUEST = struct.Struct('<4xi4xi16s')
REPLY_BYTES, EVENT_BYTES = 272, 104
ERROR_COMMAND = -1
PATIENCE_SEC = 60  # for what takes no time of its own, on a machine with hundreds of hubs
ENDED = '(the daemon has ended)'
IN_SERVICE = 'Set parameter OK, start loop'
VERSION = (0, 13)  # handle and command of a request that any MCU in service answers


class Failed(Exception):
    """Something was not as it must be; the text says what."""


def require(ok, what):
    if not ok:
        raise Failed(what)


async def eventually(what, condition, limit=PATIENCE_SEC):
    deadline = time.monotonic() + limit
    while not condition():
        require(time.monotonic() < deadline, f'not within {limit} s: {what}')
        await asyncio.sleep(0.02)


class Client:
    """A control connection. Replies are kept as they came."""

    def __init__(self, reader, writer):
        self.reader, self.writer = reader, writer

    def send(self, handle, command, args=b''):
        self.writer.write(REQUEST.pack(handle, command, args))

    async def reply(self, limit=PATIENCE_SEC):
        """None: the daemon has gone or has closed the connection."""
        try:
            return await asyncio.wait_for(self.reader.readexactly(REPLY_BYTES), limit)
        except (asyncio.IncompleteReadError, ConnectionError):
            return None
        except asyncio.TimeoutError:
            raise Failed(f'no reply within {limit} s') from None

    async def ask(self, handle, command, args=b'', limit=PATIENCE_SEC):
        self.send(handle, command, args)
        return await self.reply(limit)


class Hub:
    binaries = None  # directory of shd, mcusim and shdtool
    scratch = None  # directory of all hubs
    starting = asyncio.Semaphore(1)  # held while a hub's first daemon asks for the version

    def __init__(self, *options):
        self.directory = tempfile.mkdtemp(dir=self.scratch)
        self.root = pathlib.Path(self.directory, 'root')
        self.options = options
        self.wrapper = ()  # a command that the daemon is started by
        self.environment = {}
        self.held = 0.0  # seconds that its first start was kept waiting for those of others
        self.log, self.seen, self.news = [], 0, asyncio.Event()
        self.ordered = False  # a fault of the line, from the MCU that runs
        self.simulator = self.daemon = None
        self.tasks, self.writers = [], []

    async def __aenter__(self):
        return self

    async def __aexit__(self, _, error, __):
        if isinstance(error, Failed) and self.log:
            error.args = ('\n    '.join([f'{error}; the log ends with', *self.log[-6:]]),)
        for writer in self.writers:
            writer.close()
        for process in (self.daemon, self.simulator):
            if process and process.returncode is None:
                process.kill()
                await process.wait()
        for task in self.tasks:
            task.cancel()
        shutil.rmtree(self.directory, ignore_errors=True)

    def path(self, name):
        return self.root / name.lstrip('/')

    async def _run(self, *command, **pipes):
        return await asyncio.create_subprocess_exec(
            '/usr/bin/setpriv', '--pdeathsig', 'KILL', *command, stdin=asyncio.subprocess.DEVNULL,
            env={**os.environ, 'SHD_ROOT': str(self.root), **self.environment}, **pipes)

    # The simulated MCU.

    async def start_mcu(self):
        errors = open(pathlib.Path(self.directory, 'mcusim.log'), 'ab')
        with errors:
            self.simulator = await self._run(
                self.binaries / 'mcusim', '--root', self.root, '--baud', '0', '--boot-delay', '0',
                '--flash-time-scale', '0', *self.options, stdout=asyncio.subprocess.PIPE,
                stderr=errors)
        self.ordered = False
        ready = await self.simulator.stdout.readline()
        require(b'ready' in ready, 'mcusim does not start')
        self.channel = await self.connect('mcusim')

    async def kill_mcu(self):
        """The line is hung up and the MCU without power. The pty's number may soon be another's."""
        self.simulator.kill()
        await self.simulator.wait()
        self.path('dev/ttyHSL1').unlink()

    async def tell(self, *commands):
        """Carries them out in one go; the last one's answer behind "ok"."""
        self.ordered = self.ordered or commands[0].startswith('fault ')
        reader, writer = self.channel
        writer.write(''.join(command + '\n' for command in commands).encode())
        for command in commands:
            answer = (await asyncio.wait_for(reader.readline(), PATIENCE_SEC)).decode()
            require(answer.startswith('ok'), f'mcusim: {command}: {answer}')
        return answer[3:]

    async def stats(self):
        return json.loads(await self.tell('stats'))

    async def fault_happened(self, limit=PATIENCE_SEC):
        deadline = time.monotonic() + limit
        while (await self.stats())['line_faults'] == 0:
            require(time.monotonic() < deadline, 'the byte of the fault never came')
            await asyncio.sleep(0.05)

    def recorded(self):
        """(direction, bytes) of each step so far; needs the option --record."""
        lines = pathlib.Path(self.directory, 'record').read_text().splitlines()
        steps = [line.split() for line in lines]
        return [('in' if mark == '>' else 'out', bytes.fromhex(text))
                for _, mark, *rest in steps for text in rest[:1] if mark in '<>']

    # The daemon.

    async def start(self):
        self.log, self.seen, self.news = [], 0, asyncio.Event()
        first, begin = self.daemon is None, time.monotonic()
        async with self.starting if first else contextlib.nullcontext():
            self.held += time.monotonic() - begin
            self.daemon = await self._run(
                *self.wrapper, self.binaries / 'shd', stdout=asyncio.subprocess.DEVNULL,
                stderr=asyncio.subprocess.PIPE)
            self.tasks.append(asyncio.create_task(self._read_log(self.daemon, self.log, self.news)))
            if not first:
                return
            with contextlib.suppress(Failed):  # a broken exchange must not hold the others up
                await self.logged('mcu current version', limit=0.5, optional=True)

    @staticmethod
    async def _read_log(process, log, news):
        while line := await process.stderr.readline():
            log.append(line.decode(errors='replace').rstrip())
            news.set()
        log.append(ENDED)
        news.set()

    def count(self, text):
        return sum(text in line for line in self.log)

    async def logged(self, *texts, limit=PATIENCE_SEC, optional=False):
        """Waits for a line behind the last one found that holds one of the texts, or for the end
        of the daemon (optional: quietly). True when the line came."""
        deadline = time.monotonic() + limit
        while True:
            while self.seen < len(self.log):
                line = self.log[self.seen]
                require(line != ENDED or optional, f'the daemon ended before "{texts[0]}"')
                if line == ENDED:
                    return False
                self.seen += 1
                if any(text in line for text in texts):
                    return True
            self.news.clear()
            try:
                await asyncio.wait_for(self.news.wait(), deadline - time.monotonic())
            except asyncio.TimeoutError:
                raise Failed(f'not within {limit:.0f} s in the log: "{texts[0]}"') from None

    async def kill_daemon(self):
        with contextlib.suppress(ProcessLookupError):  # a failed update may have ended it
            self.daemon.kill()
        await self.daemon.wait()

    async def start_until_service(self, limit):
        """As init does: starts the daemon again each time it ends by itself."""
        deadline = time.monotonic() + limit
        starts = 0
        while True:
            starts += 1
            await self.start()
            if await self.logged(IN_SERVICE, limit=deadline - time.monotonic(), optional=True):
                return starts
            require(await self.daemon.wait() >= 0, f'the daemon died: {self.daemon.returncode}')
            require(starts < 4, 'the daemon ends again and again')

    # Its clients.

    async def connect(self, name):
        path = str(self.path(f'dev/socket/{name}'))
        for attempt in range(600):
            try:
                reader, writer = await asyncio.open_unix_connection(path)
                self.writers.append(writer)
                return reader, writer
            except (ConnectionError, FileNotFoundError):
                await asyncio.sleep(0.1)
        raise Failed(f'nobody serves {name}')

    async def client(self):
        return Client(*await self.connect('shdctl'))

    async def events(self):
        """A growing list of (handle, record) with all events from now on."""
        reader, _ = await self.connect('shddata')
        events = []

        async def read():
            while True:
                record = await reader.readexactly(EVENT_BYTES)
                events.append((struct.unpack_from('<i', record, 4)[0], record))
        self.tasks.append(asyncio.create_task(read()))
        client = await self.client()
        while not events:  # served as soon as it sees a flush-complete event
            await client.ask(17, 11)
            await asyncio.sleep(0.02)
        events.clear()
        return events

    async def works(self, limit):
        """Asks until an exchange with the MCU succeeds; the daemon must not end meanwhile."""
        deadline = time.monotonic() + limit
        client = await self.client()
        while True:
            reply = await client.ask(*VERSION, limit=limit)
            require(reply is not None, 'the daemon has ended or dropped a client')
            if reply[16:].startswith(b'SIM.900.'):
                return await self.fault_happened(0) if self.ordered else None
            require(time.monotonic() < deadline, f'no exchange works within {limit} s')

    async def in_service(self):
        await self.start_mcu()
        await self.start()
        await self.logged(IN_SERVICE, limit=4 * PATIENCE_SEC)
