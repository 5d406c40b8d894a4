#!/usr/bin/env python3
"""Measures what a tap in the line costs a request: two hubs side by side, one of them tapped, are
asked in turn, so that both meet the same machine. Run by hand: bench/tap_delay.py [REQUESTS]."""

import asyncio
import pathlib
import statistics
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / 'tests/faults'))
from hub import IN_SERVICE, VERSION, Hub, eventually, require  # noqa: E402

FLUSH = (6, 11)  # of the pressure: four bytes to the MCU, seven from it


async def tapped(hub):
    line = hub.path('dev/ttyHSL1')
    real = line.resolve()
    tap = await hub._run(hub.binaries / 'shdtool', 'tap', '--quiet', '-o', f'{hub.directory}/line',
                         stdout=asyncio.subprocess.DEVNULL, stderr=asyncio.subprocess.DEVNULL)
    await eventually('the tap', lambda: line.resolve() != real)
    return tap


async def measure(count):
    async with Hub() as plain, Hub() as other:
        for hub in (plain, other):
            await hub.start_mcu()
        tap = await tapped(other)
        for hub in (plain, other):
            await hub.start()
            await hub.logged(IN_SERVICE)
        clients = [await plain.client(), await other.client()]
        for row, name in ((FLUSH, 'short reply'), (VERSION, 'text')):
            took = [[], []]
            for _ in range(count):
                for times, client in zip(took, clients):
                    begin = time.monotonic()
                    require(await client.ask(*row), 'no reply')
                    times.append((time.monotonic() - begin) * 1e6)
            both = [(statistics.median(t), statistics.quantiles(t, n=100)[98]) for t in took]
            for what, pair in zip(('without', 'tapped '), both):
                print(f'{name}, {what}: median {pair[0]:4.0f} us, p99 {pair[1]:5.0f} us')
            print(f'{name}: the tap adds {both[1][0] - both[0][0]:.0f} us to the median, '
                  f'{both[1][1] - both[0][1]:.0f} us to the p99')
        tap.terminate()
        await tap.wait()


Hub.binaries = HERE.parent / 'build/bin'
asyncio.set_child_watcher(asyncio.PidfdChildWatcher())
with tempfile.TemporaryDirectory(prefix='shd-tap.') as Hub.scratch:
    asyncio.run(measure(int(sys.argv[1]) if len(sys.argv) > 1 else 2000))
