"""The cases around the line: clients that die, and a system that denies the daemon its disk, its
directories, descriptors, memory or a steady clock."""

import asyncio
import contextlib
import errno
import os
import pathlib
import resource
import shutil
import time

from hub import EVENT_BYTES, IN_SERVICE, REPLY_BYTES, REQUEST, VERSION, Failed, Hub, eventually, require
from line_cases import (FOLLOWERS, LOCK, LONG, RECOVERY, RESTORED, SHORT, SLACK, UPDATED, recovering,
                        updating, without_gestures)

# Requests that make the daemon write a property, a calibration, logs; all of them succeed.
WRITING = [(0, 6, bytes([1, 2])), (0, 14, b'\1'), (0, 5, b''), (0, 7, b'\3'), (19, 0, b''),
           (21, 0, b'')]


async def all_well(client, requests):
    for row in requests:
        reply = await client.ask(*row, limit=LONG + SLACK)
        require(reply and reply[16:20] == bytes(4), f'{row} failed')


async def crashes_and_recovers(hub):
    """The MCU stands still; back in service after a recovery, at the latest the second."""
    begin = time.monotonic()
    await hub.tell('crash 2')
    await hub.works(2 * LONG + 2 * RECOVERY + SLACK)
    return time.monotonic() - begin


def descriptors(hub):
    return len(os.listdir(f'/proc/{hub.daemon.pid}/fd'))


# Clients.

async def dying_client(name, sent, read=None):
    """A client of the socket sends so many bytes, reads so many of the reply and dies; another
    one, which gets its descriptor's number, is served next and by its own requests only."""
    async with Hub() as hub:
        await hub.in_service()
        before, frames = descriptors(hub), (await hub.stats())['frames_in']
        asks = name == 'shdctl' and sent == 32
        if read is None:
            await hub.tell('delay 6000')  # longer than a busy machine takes for the rest
        begin = time.monotonic()
        reader, writer = await hub.connect(name)
        request = REQUEST.pack(0, 13, b'') if name == 'shdctl' else b''
        writer.write(request[:sent].ljust(sent, b'\0'))
        await writer.drain()
        if read:
            await reader.readexactly(read)
        while asks and (await hub.stats())['frames_in'] == frames:
            await asyncio.sleep(0.01)
        writer.transport.abort()
        await eventually('its descriptor is closed', lambda: descriptors(hub) <= before, SLACK)
        await hub.tell('delay 0')
        client = await hub.client()
        for row in FOLLOWERS:
            reply = await client.ask(*row, limit=LONG + SLACK)
            require(reply and reply[4:8] + reply[12:20] ==
                    row[0].to_bytes(4, 'little') + row[1].to_bytes(4, 'little') + bytes(4),
                    f'the reply to {row} is another one')
        await hub.works(SLACK)
        frames += len(FOLLOWERS) + 1 + asks
        require((await hub.stats())['frames_in'] == frames, 'the MCU got requests of nobody')
        return 0, time.monotonic() - begin


async def dying_reader(read):
    """A client of the events dies within a record; another one gets every event whole."""
    async with Hub() as hub:
        without_gestures(hub)
        await hub.in_service()
        client = await hub.client()
        await all_well(client, [(26, 0, b'')])
        before = descriptors(hub)
        reader, writer = await hub.connect('shddata')
        events = await hub.events()  # behind it in the daemon's list
        await asyncio.wait_for(reader.readexactly(read), SLACK)
        begin = time.monotonic()
        writer.transport.abort()
        for number in range(1, 11):
            await hub.tell('tilt')
            await eventually('the event', lambda n=number: len(events) >= n, SLACK)
        await eventually('its descriptor is closed', lambda: descriptors(hub) <= before + 2, SLACK)
        require(all(handle == 26 and record[:4] == bytes([104, 0, 0, 0])
                    for handle, record in events[:10]), 'an event that is none')
        return 0, time.monotonic() - begin


async def stalling_client(sent):
    """A client stops in the middle of a request: its server waits for it, and only for it."""
    async with Hub() as hub:
        await hub.in_service()
        events = await hub.events()
        client = await hub.client()
        await all_well(client, [(26, 0, b'')])
        _, writer = await hub.connect('shdctl')
        writer.write(bytes(sent))
        await asyncio.sleep(0.3)
        await hub.tell('tilt')
        client.send(*FOLLOWERS[0])
        await eventually('events come beside it', lambda: events, SLACK)
        begin = time.monotonic()
        writer.transport.abort()
        require(await client.reply(SLACK) is not None, 'no reply')
        await hub.works(SLACK)
        return 0, time.monotonic() - begin


# Disk and directories.

MOUNT = {  # in the daemon's own mount namespace
    'full-disk': 'for d in data nvdata; do cp -r $SHD_ROOT/$d $SHD_ROOT/$d.was; '
                 'mount -t tmpfs -o size=64k none $SHD_ROOT/$d; cp -r $SHD_ROOT/$d.was/. '
                 '$SHD_ROOT/$d; cat /dev/zero >$SHD_ROOT/$d/fill 2>/dev/null; done; ',
    'read-only': 'for d in data nvdata; do mount --bind $SHD_ROOT/$d $SHD_ROOT/$d; '
                 'mount -o remount,bind,ro $SHD_ROOT/$d; done; ',
}
MISSING = ['nvdata', 'data/property', 'data/logdata', 'data/mcudumplog', 'data', 'proc/mcusleep',
           'proc/mcu', 'system/bin/mcu.bin']


def refused(path):
    try:
        return path.write_bytes(bytes(4096)) == 0
    except OSError as error:
        return error.errno in (errno.ENOSPC, errno.EROFS)


async def disk_case(kind, when):
    async with Hub() as hub:
        hub.wrapper = ('unshare', '-rm', 'sh', '-c', MOUNT[kind] + 'exec "$0"')
        if when == 'update':
            shutil.rmtree(hub.directory)
            hub.__dict__.update(updating().__dict__, wrapper=hub.wrapper)
        await hub.in_service()
        for place in ('data', 'nvdata'):
            seen = pathlib.Path(f'/proc/{hub.daemon.pid}/root{hub.path(place)}', 'probe')
            require(refused(seen), f'{place} can be written')
        client = await hub.client()
        await all_well(client, WRITING)
        return 1, await crashes_and_recovers(hub)


async def missing_case(what, when):
    """Gone before the daemon starts or while it runs; then there again."""
    async with Hub() as hub:
        await hub.start_mcu()
        place, aside = hub.path(what), pathlib.Path(hub.directory, 'aside')
        if when == 'before':
            place.rename(aside)
        await hub.start_until_service(UPDATED)
        if when == 'after':
            place.rename(aside)
        client = await hub.client()
        await all_well(client, WRITING)
        if place.exists():  # the daemon has made it
            shutil.rmtree(place)
        aside.rename(place)
        return 1, await crashes_and_recovers(hub)


async def missing_tty():
    async with Hub() as hub:
        await hub.start_mcu()
        place, aside = hub.path('dev/ttyHSL1'), hub.path('dev/aside')
        place.rename(aside)
        await hub.start()
        require(await hub.daemon.wait() == 255, 'the update without a line succeeds')
        aside.rename(place)
        begin = time.monotonic()
        await hub.start_until_service(UPDATED)
        await hub.works(SLACK)
        return 1, time.monotonic() - begin


# Descriptors and memory.

async def ends_or_serves(hub):
    """With too little to start the daemon may end by itself or wait; with enough it serves."""
    await hub.start_mcu()
    await hub.start()
    try:
        if await hub.logged(IN_SERVICE, limit=15, optional=True):
            return True
    except Failed:  # it waits
        await hub.kill_daemon()
    await hub.daemon.wait()
    return False


async def starts_again(hub):
    hub.wrapper = ()
    begin = time.monotonic()
    await hub.start_until_service(UPDATED)
    await hub.works(SLACK)
    return 1, time.monotonic() - begin


async def descriptor_case(limit):
    """A start with so few, and twice as many clients; the first one is served all along."""
    async with Hub() as hub:
        hub.wrapper = ('prlimit', f'--nofile={limit}:{limit}')
        if not await ends_or_serves(hub):
            return await starts_again(hub)
        first = await hub.client()
        try:
            served = await first.ask(*VERSION, limit=SLACK) is not None
        except Failed:  # the daemon can neither take nor refuse a connection
            served = False
        crowd, before = [], descriptors(hub)
        for _ in range(2 * limit):
            crowd += [await hub.connect('shdctl'), await hub.connect('shddata')]
        if served:
            await all_well(first, WRITING[:4])
            await hub.tell('crash 1')
            deadline = time.monotonic() + RECOVERY + SLACK
            while (await first.ask(*VERSION, limit=LONG + SLACK))[16:24] != b'SIM.900.':
                require(time.monotonic() < deadline, 'no recovery beside many clients')
            first.writer.close()
        for _, writer in crowd:
            writer.transport.abort()
        if not served:  # no number is left for any client
            await hub.kill_daemon()
            return await starts_again(hub)
        await eventually('all of them are gone', lambda: descriptors(hub) < before, SLACK)
        return 1, await crashes_and_recovers(hub)


async def memory_start_case(megabytes):
    async with Hub() as hub:
        hub.wrapper = ('prlimit', f'--as={megabytes << 20}:')
        if not await ends_or_serves(hub):
            return await starts_again(hub)
        await all_well(await hub.client(), WRITING)
        resource.prlimit(hub.daemon.pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY,) * 2)
        return 0, await crashes_and_recovers(hub)


async def memory_case(extra):
    """The address space of a daemon in service may grow by so many bytes and no more."""
    async with Hub() as hub:
        await hub.in_service()
        client, events = await hub.client(), await hub.events()
        pid = hub.daemon.pid
        pages = int(pathlib.Path(f'/proc/{pid}/statm').read_text().split()[0])
        limit = pages * resource.getpagesize() + extra
        resource.prlimit(pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))
        await all_well(client, WRITING + [(handle, 0, b'') for handle in RESTORED])
        await hub.tell('tilt')
        for _ in range(20):
            await all_well(await hub.client(), FOLLOWERS)
        require(any(handle == 26 for handle, _ in events), 'no event')
        await hub.tell('crash 6')
        for _ in range(4):  # refused, or without a recovery for want of a thread
            require(await client.ask(*FOLLOWERS[0], limit=SHORT + SLACK), 'no reply')
        resource.prlimit(pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY,) * 2)
        begin = time.monotonic()
        await hub.works(2 * LONG + 2 * RECOVERY + SLACK)
        return 1, time.monotonic() - begin


# The clock.

@contextlib.asynccontextmanager
async def jumping_hub():
    """A hub, and what lets its clock jump: a function of seconds and the calls of it before."""
    async with Hub() as hub:
        jump = pathlib.Path(hub.directory, 'jump')
        hub.environment = {'LD_PRELOAD': str(Hub.binaries / 'clock_jump.so'),
                           'SHD_CLOCK_JUMP': str(jump)}
        yield hub, lambda seconds, calls: jump.write_text(f'{seconds} {calls}')
        require(not jump.exists(), 'the clock has not jumped')


async def clock_case(seconds):
    """The clock is set back (seconds > 0) or forward (by more than the limit) while a reply is
    waited for. Back: nothing is lost. Forward: the wait ends at once, and the late reply goes to
    the next request, so that requests that are alike show what is lost."""
    async with jumping_hub() as (hub, jump):
        await hub.in_service()
        client = await hub.client()
        await hub.tell('delay 200')
        begin = time.monotonic()
        jump(seconds, 0)
        reply = await client.ask(*VERSION, limit=LONG + SLACK)
        require((reply[16:24] == b'SIM.900.') == (seconds > 0), 'the wait with the jump')
        await hub.tell('delay 0')
        await hub.works(SLACK)
        return int(seconds < 0), time.monotonic() - begin


async def clock_on_the_way(when, call, seconds):
    """Likewise at one of the waits of a start-up or of a recovery, which ends all the same."""
    async with jumping_hub() as (hub, jump):
        if when == 'recovery':
            await recovering(hub)
        else:
            await hub.start_mcu()
            await hub.start()
        await hub.tell('delay 100')  # each reply is waited for
        jump(seconds, call)
        begin = time.monotonic()
        if when == 'recovery':
            await hub.tell('crash 1')
        await hub.logged(LOCK + '0' if when == 'recovery' else IN_SERVICE, limit=2 * RECOVERY + SLACK)
        await hub.works(2 * LONG + RECOVERY + SLACK)
        return 1, time.monotonic() - begin


def clients():
    for sent in range(32):
        yield f'control-request/{sent}', lambda n=sent: dying_client('shdctl', n)
        yield f'control-stall/{max(sent, 1)}', lambda n=max(sent, 1): stalling_client(n)
    for read in (None, 1, 16, REPLY_BYTES - 1):
        yield f'control-reply/{read or 0}', lambda n=read: dying_client('shdctl', 32, n)
    for sent in (0, 1, 512, 1023, 1025):
        yield f'data/{sent}', lambda n=sent: dying_client('shddata', n)
    for read in (1, 52, EVENT_BYTES - 1):
        yield f'data-record/{read}', lambda n=read: dying_reader(n)


def system():
    for kind in MOUNT:
        for when in ('service', 'update'):
            yield f'{kind}/{when}', lambda k=kind, w=when: disk_case(k, w)
    for what in MISSING:
        for when in ('before', 'after'):
            yield f'missing/{what}/{when}', lambda n=what, w=when: missing_case(n, w)
    yield 'missing/dev/ttyHSL1', missing_tty
    for limit in (*range(4, 40), 48, 64):
        yield f'descriptors/{limit}', lambda n=limit: descriptor_case(n)
    for megabytes in (*range(2, 40, 2), 48, 64, 96):
        yield f'memory-at-start/{megabytes}', lambda n=megabytes: memory_start_case(n)
    for extra in (0, 65_536, 1 << 20, 8 << 20, 9 << 20, 24 << 20, 96 << 20):
        yield f'memory/{extra}', lambda n=extra: memory_case(n)
    for seconds in (-86_400, -3600, -11, 3, 3600, 86_400):
        yield f'clock/{seconds}', lambda n=seconds: clock_case(n)
    for when, calls in (('start-up', 4), ('recovery', 15)):
        for call in range(calls):
            for seconds in (-3600, 3600):
                yield (f'clock/{when}/{call}/{seconds}',
                       lambda w=when, c=call, s=seconds: clock_on_the_way(w, c, s))
