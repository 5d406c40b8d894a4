"""The cases on the line: every byte of every exchange in service, at start-up, in the recovery and
in an update, in both directions. Each group learns the bytes from a faultless hub first."""

import functools
import pathlib
import subprocess
import time

from hub import IN_SERVICE, Hub, eventually, require
from wire import KINDS, frames, order, touched

# Seconds, from the system's own limits: the reset's pause and the reopening, the wait for a reply,
# the pause after a refused request, the mass erase's limit, a handshake with its pause.
RESET, REOPEN, SHORT, LONG, REFUSED, ERASE = 2.0, 1.1, 2.0, 10.0, 2.0, 40.0
SLACK = 20.0  # for a machine that runs hundreds of hubs
RECOVERY = RESET + REOPEN + 2 * SHORT + REFUSED

# Exchanges of a client: name, handle, command, arguments, seconds that the reply is waited for.
EXCHANGES = [
    ('set-delay', 6, 2, (30_000).to_bytes(4, 'little'), SHORT),
    ('activate', 26, 0, b'', SHORT),
    ('deactivate', 26, 1, b'', SHORT),
    ('self-test', 21, 3, b'', LONG),
    ('set-parameter', 0, 4, bytes([0x7D, 0, 0x7E, 0, 1, 0]), LONG),
    ('calibrate', 0, 5, b'', LONG),
    ('log-level', 0, 6, bytes([1, 2]), LONG),
    ('raw-data', 0, 7, bytes([3, 0]), LONG),
    ('health', 27, 8, bytes([1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0]), SHORT),
    ('date-time', 0, 9, (1_700_000_000).to_bytes(4, 'little'), SHORT),
    ('batch', 5, 10, bytes([200, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0]), SHORT),
    ('flush', 6, 11, b'', SHORT),
    ('information', 5, 12, b'', LONG),
    ('version', 0, 13, b'', LONG),
]
# Asked by two other clients while the touched exchange is under way.
FOLLOWERS = [(6, 2, (20_000).to_bytes(4, 'little')), (9, 10, bytes([200, 0, 0, 0]))]
# What the MCU says unasked, and what it leaves behind: an event of a handle, or a log line.
REPORTS = [('tilt-report', 'tilt', 26), ('log-line', 'log all is well', 'all is well')]
LOCK = 'SensorWakeLockAcquiredLocked :'
RESTORED = (19, 26, 27)  # handles that a recovery switches on again, and their MCU sensors
RESTORED_IDS = (48, 51, 64)


def one_by_one(stream):
    return [(direction, byte, kind) for direction in ('in', 'out')
            for byte in range(len(stream[direction])) for kind in KINDS]


def joined(steps):
    return {way: b''.join(part for direction, part in steps if direction == way)
            for way in ('in', 'out')}


# In service.

@functools.cache
def learnt():
    """By the name of an exchange the bytes of both directions, and a client's good reply."""
    return {}


def without_gestures(hub):
    """The simulated wrist is raised by command only."""
    signal = pathlib.Path(hub.directory, 'gestures.csv')
    signal.write_text('1000000,1\n')
    hub.options += ('--signal', f'wrist-tilt={signal}')


async def ask_recorded(hub, client, *row):
    before = len(hub.recorded())
    reply = await client.ask(*row)
    return joined(hub.recorded()[before:]), reply


async def learn_service():
    async with Hub() as hub:
        hub.options = ('--record', f'{hub.directory}/record')
        without_gestures(hub)
        await hub.in_service()
        client = await hub.client()
        await hub.events()
        for name, handle, command, args, _ in EXCHANGES:
            learnt()[name] = await ask_recorded(hub, client, handle, command, args)
        for row in FOLLOWERS:
            learnt()[row[:2]] = await ask_recorded(hub, client, *row)
        await client.ask(26, 0)
        for name, command, _ in REPORTS:
            before = len(hub.recorded())
            await hub.tell(command)
            await client.ask(*FOLLOWERS[0])
            out = joined(hub.recorded()[before:])['out']
            learnt()[name] = {'in': b'', 'out': out[:out.index(0x7E) + 1]}, None


def survivors(streams, direction, byte, kind):
    """For each exchange of a row whether its frame arrives, when a byte of the first is touched."""
    first, rest = streams[0][direction], [stream[direction] for stream in streams[1:]]
    broken = touched(first, byte, kind)
    if kind == 'silence':
        return [False] * len(streams)
    # The MCU forgets a frame that a power cut has broken off; the daemon does not.
    stream = b'' if kind == 'power' and direction == 'in' else broken
    left = frames(stream + b''.join(rest), aborts=direction == 'in')
    alive = []
    for part in [*reversed(rest), first]:
        whole = frames(part, aborts=False)[0]
        alive.append(whole in left)
        if alive[-1]:
            left.remove(whole)
    return alive[::-1]


async def service_case(exchange, direction, byte, kind):
    """Three clients ask at once; the first one's exchange is touched."""
    name, handle, command, args, limit = exchange
    rows = [(handle, command, args), *FOLLOWERS]
    known = [learnt()[name], *(learnt()[row[0], row[1]] for row in FOLLOWERS)]
    async with Hub() as hub:
        await hub.in_service()
        clients = [await hub.client() for _ in rows]
        await hub.tell(order(direction, byte, kind))
        begin = time.monotonic()
        for client, row in zip(clients, rows):
            client.send(*row)
        alive = survivors([streams for streams, _ in known], direction, byte, kind)
        lost, in_a_row, recovering = 0, 0, False
        for client, row, (_, good), arrives in zip(clients, rows, known, alive):
            reply = await client.reply(limit + 2 * SHORT + REFUSED + SLACK)
            require(reply is not None, 'a client was dropped')
            arrives = arrives and not recovering
            whose = reply[4:8] + reply[12:16]
            require(recovering or whose == good[4:8] + good[12:16],
                    f'the reply to {row} is another one: {reply[:20].hex()}')
            is_good = reply == good
            require(is_good or not arrives, f'{row} was lost with the fault at another frame')
            require(arrives or not is_good or command == 11, f'{row} succeeded without its frame')
            lost += not arrives
            in_a_row = 0 if arrives else in_a_row + 1
            recovering = recovering or in_a_row == 2
        await hub.works(RECOVERY + SLACK)
        took = time.monotonic() - begin
        for client in clients:
            require(not client.reader._buffer, 'a client has got a reply too many')
        require(hub.count(IN_SERVICE) == 1, 'the daemon has started again')
        require(not hub.count('Handshake timeout'), 'what came before a reset was kept')
        if kind == 'drop' and lost == 1:
            await hub.tell(order('out', 0, 'drop'))
            await clients[1].ask(*FOLLOWERS[0], limit=2 * SHORT + SLACK)
            await hub.works(SLACK)
            require(not hub.count(LOCK + '1'), 'a recovery after failures that were not in a row')
        return lost, took


async def service_strike_case(exchange, direction, byte, kind):
    """Daemon or MCU is killed in the middle of an exchange and started again."""
    _, handle, command, args, limit = exchange
    async with Hub() as hub:
        await hub.in_service()
        client = await hub.client()
        await hub.tell(order(direction, byte, 'silence'))
        begin = time.monotonic()
        client.send(handle, command, args)
        await strike(hub, kind)
        if kind == 'kill':
            await client.reply()  # a failure, if the daemon had given up before, or its end
            await hub.start_until_service(UPDATED)
        else:
            require(await client.reply(limit + SLACK) is not None, 'no reply')
        await hub.works(LONG + RECOVERY + SLACK)
        return 1, time.monotonic() - begin


async def report_case(report, direction, byte, kind):
    """Two reports and an exchange behind them; the first report is touched."""
    name, command, what = report
    async with Hub() as hub:
        without_gestures(hub)
        await hub.in_service()
        client = await hub.client()
        events = await hub.events()
        await client.ask(26, 0)
        first = learnt()[name][0]
        known = [first, first, learnt()[FOLLOWERS[0][0], FOLLOWERS[0][1]][0]]
        await hub.tell(order(direction, byte, kind), command)
        begin = time.monotonic()
        if kind != 'power':
            await hub.tell(command)
        alive = survivors(known, direction, byte, kind)
        reply = await client.ask(*FOLLOWERS[0], limit=SHORT + SLACK)
        require((reply[16:20] == bytes(4)) == alive[2] or kind == 'power', 'the exchange behind')
        await hub.works(RECOVERY + SLACK)
        seen = hub.count(what) if isinstance(what, str) else sum(
            handle == what for handle, _ in events)
        if kind != 'power':
            require(seen == sum(alive[:2]), f'{seen} of two reports, expected {alive[:2]}')
        return 2 - min(seen, 2), time.monotonic() - begin


# Start-up and recovery.

async def learn_start_up():
    async with Hub() as hub:
        hub.options = ('--record', f'{hub.directory}/record')
        await hub.in_service()
        learnt()['start-up'] = joined(hub.recorded())


async def strike(hub, kind):
    """Where a byte has let the line go silent: the daemon or the MCU is killed and started again."""
    await hub.fault_happened()
    if kind == 'kill':
        await hub.kill_daemon()
    else:
        await hub.kill_mcu()
        await hub.start_mcu()


async def start_up_case(direction, byte, kind):
    async with Hub() as hub:
        await hub.start_mcu()
        await hub.tell(order(direction, byte, kind if kind in KINDS else 'silence'))
        begin = time.monotonic()
        if kind in KINDS:
            await hub.start_until_service(UPDATED)
        else:
            await hub.start()
            await strike(hub, kind)
            if kind == 'kill':
                await hub.start_until_service(UPDATED)
            else:
                await service_after_exits(hub)
        lost = hub.count('timeout') - hub.count('Wait timeout')
        await hub.works(RECOVERY + SLACK)
        require(kind in ('silence', 'power', 'kill', 'hangup') or lost <= 3, f'{lost} lost')
        require(kind == 'hangup' or not hub.count('mcu_update enter'), 'the firmware is written')
        return lost, time.monotonic() - begin - hub.held


async def service_after_exits(hub):
    if not await hub.logged(IN_SERVICE, limit=UPDATED, optional=True):
        await hub.start_until_service(UPDATED)


async def recovering(hub):
    """Sensors that a recovery restores are on; returns the daemon's and the MCU's bytes of it."""
    await hub.in_service()
    client = await hub.client()
    for handle in RESTORED:
        await client.ask(handle, 0)
    await client.ask(0, 6, bytes([1, 2]))


async def learn_recovery():
    async with Hub() as hub:
        hub.options = ('--record', f'{hub.directory}/record')
        await recovering(hub)
        before = len(hub.recorded())
        await hub.tell('crash 1')
        await hub.logged('SensorWakeLockAcquiredLocked :0')
        streams = joined(hub.recorded()[before:])
        dump = streams['out'].index(0x7E) + 1
        learnt()['dump'] = {'in': b'', 'out': streams['out'][:dump]}
        learnt()['recovery'] = {'in': streams['in'], 'out': streams['out'][dump:]}


async def recovery_case(direction, byte, kind, skip=None, judge=lambda hub: None):
    async with Hub() as hub:
        await recovering(hub)
        if skip is None and direction == 'out':
            skip = len(learnt()['dump']['out'])
        begin = time.monotonic()
        await hub.tell(order(direction, byte + (skip or 0), kind if kind in KINDS else 'silence'),
                       'crash 1')
        if kind not in KINDS:
            await strike(hub, kind)
        if kind == 'kill':
            await hub.start_until_service(UPDATED)
        # Log level and parameters, the sensors' requests, then two replies that bring a recovery.
        await hub.works(5 * LONG + 11 * SHORT + 2 * LONG + RECOVERY + SLACK)
        took = time.monotonic() - begin
        lost = hub.count('timeout') - hub.count('Wait timeout')
        if kind != 'kill':
            await eventually('the MCU may sleep again', lambda: hub.count(LOCK + '1') ==
                             hub.count(LOCK + '0'), SLACK)
            sensors = (await hub.stats())['sensors'].values()
            for number in RESTORED_IDS:
                on = any(sensor['id'] == number and sensor['active'] for sensor in sensors)
                require(on or hub.count(f':{number} timeout') or kind in ('power', 'hangup'),
                        f'sensor {number} is off after the recovery')
        judge(hub)
        return lost, took


async def dump_case(direction, byte, kind):
    piece = frames(learnt()['dump'][direction], aborts=False)
    arrives = frames(touched(learnt()['dump'][direction], byte, kind), aborts=False) == piece

    def stored(hub):
        dump = hub.path('data/mcudumplog/mcudump_0')
        require(dump.exists() == arrives and (not arrives or dump.read_bytes() == piece[0][4:]),
                'the dump that is stored')
    return await recovery_case(direction, byte, kind, 0, stored)


# An update.

OLD, NEW, PAYLOAD = 'SIM.900.0000', 'SIM.900.0001', 1032  # four whole blocks and one of 8 bytes
FLASH = 512 * 1024  # the part's, in front of its option bytes
# A whole new start, the longest wait of the broken one, and twelve handshakes with a second update
# when the bootloader has accepted what it should not have.
UPDATED = ERASE + 12 * 2 * SHORT + 4 * RECOVERY + SLACK


@functools.cache
def image():
    path = pathlib.Path(Hub.scratch, 'mcu.bin')
    subprocess.run([Hub.binaries / 'shdtool', 'image', 'build', '--simulated-firmware', '--version',
                    NEW, '--size', str(PAYLOAD), '-o', path], check=True, capture_output=True)
    return path.read_bytes()


def updating():
    hub = Hub('--firmware-version', OLD)
    hub.path('system/bin').mkdir(parents=True)
    hub.path('system/bin/mcu.bin').write_bytes(image())
    return hub


async def learn_update():
    async with updating() as hub:
        hub.options += ('--record', f'{hub.directory}/record')
        await hub.in_service()
        steps = hub.recorded()
        # Up to the acknowledgement of the last block: 3 for each block, handshake, erase, version.
        writes = [i for i, (direction, _) in enumerate(steps) if direction == 'in']
        end = writes[1 + 1 + 2 + 3 * -(-PAYLOAD // 256)]
        learnt()['update'] = joined(steps[:end])
        learnt()['transmissions'] = [len(part) for direction, part in steps[:end]
                                     if direction == 'in']


async def update_case(direction, byte, kind):
    async with updating() as hub:
        await hub.start_mcu()
        hub.options = ()  # a second MCU is the first one with its flash
        await hub.tell(order(direction, byte, kind if kind in KINDS else 'silence'))
        begin = time.monotonic()
        if kind in KINDS:
            starts = await hub.start_until_service(UPDATED)
        else:
            await hub.start()
            await strike(hub, kind)
            starts = 1
            if kind == 'kill':
                starts += await hub.start_until_service(UPDATED)
            else:
                await service_after_exits(hub)
        await hub.works(RECOVERY + SLACK)
        took = time.monotonic() - begin - hub.held
        # Only behind the last block nothing notices a block that the bootloader should have refused.
        last = sum(learnt()['transmissions'][:-3])
        require(not hub.count('timeout update mcu') or direction == 'in' and byte >= last,
                'a broken update was taken for a good one')
        flash = hub.path('mcusim/flash.bin').read_bytes()
        require(flash[:PAYLOAD] == image()[-PAYLOAD:], 'the flash does not hold the image')
        require(not flash[PAYLOAD:FLASH].strip(b'\xff'), 'the flash holds more than the image')
        version = hub.path('data/property/persist.mcu.version')
        require(not hub.count('mcu_update ok') or version.exists() and version.read_text() == NEW,
                'the property does not name the version')
        return starts - 1, took
