#!/usr/bin/env python3
"""Runs the matrix of faults, hundreds of hubs side by side, and writes docs/faults.md from a whole
run. Called by scripts/faults and, with --quick, by ctest."""

import argparse
import asyncio
import os
import pathlib
import resource
import signal
import sys
import tempfile
import time
import traceback

import host_cases as host
import line_cases as line
from hub import Failed, Hub
from wire import KINDS

STRIKES = ('kill', 'hangup')
CASE_SEC = 900  # for a case on a machine with hundreds of them; the longest has taken 110
PAGE = pathlib.Path(__file__).resolve().parents[2] / 'docs/faults.md'


class Group:
    """A row of the page. unit: what a case counts as lost; learn: a coroutine that must have run
    before; cases: yields (name behind the group's, a function that makes the coroutine)."""

    def __init__(self, name, title, unit, learn, cases):
        self.name, self.title, self.unit = name, title, unit
        self.learn, self.make_cases = learn, cases

    def cases(self):
        return [(f'{self.name}/{name}', make) for name, make in self.make_cases()]


def named(direction, byte, kind):
    return f'{direction}/{byte}/{kind}'


def bind(function, *arguments):
    return lambda: function(*arguments)


def service():
    for exchange in line.EXCHANGES:
        streams = line.learnt()[exchange[0]][0]
        for fault in line.one_by_one(streams):
            yield f'{exchange[0]}/{named(*fault)}', bind(line.service_case, exchange, *fault)
        for way, stream in streams.items():
            for byte in (0, len(stream) - 1):
                for kind in STRIKES:
                    yield (f'{exchange[0]}/{named(way, byte, kind)}',
                           bind(line.service_strike_case, exchange, way, byte, kind))


def reports():
    for report in line.REPORTS:
        for fault in line.one_by_one(line.learnt()[report[0]][0]):
            yield f'{report[0]}/{named(*fault)}', bind(line.report_case, report, *fault)


def stream_cases(known, case, strikes_every=8):
    """Every byte and kind, and a killed daemon or MCU at every few bytes."""
    def make():
        streams = line.learnt()[known]
        for fault in line.one_by_one(streams):
            yield named(*fault), bind(case, *fault)
        for way, stream in streams.items():
            for byte in range(0, len(stream), strikes_every):
                for kind in STRIKES:
                    yield named(way, byte, kind), bind(case, way, byte, kind)
    return make


def dump():
    """The ends of a piece byte by byte, its inside at every 97th byte."""
    size = len(line.learnt()['dump']['out'])
    for byte in sorted({*range(8), *range(8, size - 4, 97), *range(size - 4, size)}):
        for kind in KINDS:
            yield named('out', byte, kind), bind(line.dump_case, 'out', byte, kind)


def update():
    """Every kind at each byte, but for the insides of the second block to the last whole one,
    where the bytes take turns; a killed daemon or MCU at each transmission."""
    streams, kinds = line.learnt()['update'], list(KINDS)
    first, begin = 0, 0
    inside = set()
    for number, size in enumerate(line.learnt()['transmissions']):
        if size > 200 and first:
            inside |= set(range(begin + 1, begin + size - 1))
        first = first or size > 200
        for kind in STRIKES:
            yield named('in', begin, kind), bind(line.update_case, 'in', begin, kind)
        begin += size
    for way, byte, kind in line.one_by_one(streams):
        if way == 'out' or byte not in inside or kind == kinds[byte % len(kinds)]:
            yield named(way, byte, kind), bind(line.update_case, way, byte, kind)


GROUPS = [
    Group('service', 'requests and replies in service', 'of three requests', line.learn_service, service),
    Group('reports', 'what the MCU says unasked', 'of two reports', line.learn_service, reports),
    Group('start-up', 'start-up', 'replies', line.learn_start_up,
          stream_cases('start-up', line.start_up_case)),
    Group('dump', 'a core dump that asks for a recovery', 'replies', line.learn_recovery, dump),
    Group('recovery', 'the recovery', 'replies', line.learn_recovery,
          stream_cases('recovery', line.recovery_case)),
    Group('update', 'an update of the firmware', 'starts', line.learn_update, update),
    Group('clients', 'clients that die or stop', 'replies of others', None, host.clients),
    Group('system', 'disk, directories, descriptors, memory, clock', None, None, host.system),
]


class Result:
    def __init__(self, name, error=None, lost=0, took=0.0):
        self.name, self.error, self.lost, self.took = name, error, lost, took


async def run(name, make):
    try:
        lost, took = await asyncio.wait_for(make(), CASE_SEC)
        return Result(name, None, lost, took)
    except Failed as error:
        return Result(name, str(error))
    except asyncio.TimeoutError:
        return Result(name, f'no end, or no answer of mcusim, within {CASE_SEC} s')
    except Exception:  # a fault of the matrix itself shows as one of its case
        return Result(name, traceback.format_exc())


async def run_all(cases, jobs, once):
    """Side by side; what failed then is tried again alone (unless once), so that a machine's bad moment is not
    taken for a fault. Returns the results and the names that needed a second attempt."""
    queue, results = list(reversed(cases)), []

    async def worker():
        while queue:
            results.append(await run(*queue.pop()))
            if sys.stderr.isatty():
                print(f'\r{len(results)} of {len(cases)}', end='', file=sys.stderr)
    await asyncio.gather(*(worker() for _ in range(min(jobs, len(cases)))))
    again = {}
    makers = dict(cases)
    for i, result in enumerate(results):
        if result.error and not once:
            again[result.name] = result.error
            results[i] = await run(result.name, makers[result.name])
    return results, again


def spread(counts):
    """How many cases lost how much: "0: 12, 1: 3"."""
    return ', '.join(f'{lost}: {counts.count(lost)}' for lost in sorted(set(counts)))


def table(heading, rows):
    rule = '|' + ' --- |' * len(heading)
    return '\n'.join(['| ' + ' | '.join(heading) + ' |', rule,
                      *('| ' + ' | '.join(map(str, row)) + ' |' for row in rows)])


def measured(groups, results, again, seconds):
    """The part of the page that a whole run writes."""
    rows = []
    for group in groups:
        mine = [r for r in results if r.name.startswith(group.name + '/')]
        lost = f'{group.unit}: {spread([r.lost for r in mine])}' if group.unit else ''
        rows.append((f'`{group.name}`: {group.title}', len(mine), lost,
                     f'{max(r.took for r in mine):.1f} s'))
    kinds = []
    for kind in (*KINDS, *STRIKES):
        mine = [r for r in results if r.name.endswith('/' + kind)]
        kinds.append((f'`{kind}`', len(mine), spread([r.lost for r in mine]),
                      f'{max(r.took for r in mine):.1f} s'))
    worst = ('cases', 'lost (how much: in how many cases)', 'worst time until an exchange works')
    return '\n'.join([
        f'{len(results)} cases, {sum(bool(r.error) for r in results)} failed; '
        f'tried a second time, alone: {len(again)}. {seconds / 60:.0f} minutes on {os.cpu_count()} cores.', '',
        table(('group', *worst), rows), '', 'The same cases on the line by the kind of fault:', '',
        table(('fault', *worst), kinds)])


def write_page(text):
    begin, end = '<!-- measured -->\n', '<!-- end -->\n'
    head, rest = PAGE.read_text().split(begin)
    tail = rest.split(end)[1]
    PAGE.write_text(f'{head}{begin}{text}\n{end}{tail}')


def begins(case, name):
    return f'{case}/'.startswith(name.rstrip('/') + '/')


async def matrix(options, groups):
    task = asyncio.current_task()
    for number in (signal.SIGTERM, signal.SIGHUP):
        asyncio.get_running_loop().add_signal_handler(number, task.cancel)
    try:
        await asyncio.gather(*(learn() for learn in {group.learn for group in groups} if learn))
    except Failed as error:
        sys.exit(f'scripts/faults: already a hub without a fault is broken: {error}')
    cases, unknown = [], set(options.names)
    for group in groups:
        mine = [case for case in group.cases()
                if not options.names or any(begins(case[0], name) for name in options.names)]
        unknown -= {name for name in unknown if any(begins(case[0], name) for case in mine)}
        if options.quick:
            share = max(1, len(mine) * len(groups) // options.quick)
            mine = mine[options.offset % share::share]
        cases += mine
    if unknown:
        sys.exit(f'scripts/faults: no case is called {", ".join(sorted(unknown))}, nor begins so '
                 'up to a /; --list names them')
    if options.list:
        print('\n'.join(name for name, _ in cases))
        return 0
    Hub.starting = asyncio.Semaphore(2 * os.cpu_count())
    begin = time.monotonic()
    results, again = await run_all(cases, options.jobs, options.once)
    failed = [result for result in results if result.error]
    for result in failed:
        print(f'{result.name}: {result.error}')
    for name, error in again.items():
        if not any(result.name == name for result in failed):
            print(f'{name}: passed at the second attempt, alone; first: {error}')
    seconds = time.monotonic() - begin
    print(f'{len(results)} cases, {len(failed)} failed, {len(again)} tried twice, {seconds:.0f} s')
    if failed:
        print(f'a case again: scripts/faults {failed[0].name}')
    if not options.names and not options.quick:
        write_page(measured(groups, results, again, seconds))
    return 1 if failed else 0


def count(text):
    if int(text) < 1:
        raise ValueError
    return int(text)


def main():
    parser = argparse.ArgumentParser(prog='scripts/faults', description=__doc__)
    parser.add_argument('names', nargs='*', help='a case, or what its name begins with up to a /')
    parser.add_argument('--binaries', type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument('--quick', nargs='?', type=count, const=150,
                        help='a sample of so many cases, as many of each group')
    parser.add_argument('--offset', type=int, default=3, help='of the sample')
    parser.add_argument('--jobs', type=count, default=200 * os.cpu_count(), help='side by side')
    parser.add_argument('--once', action='store_true', help='no second attempt for a failure')
    parser.add_argument('--list', action='store_true', help='only the names of the cases')
    options = parser.parse_args()
    Hub.binaries = options.binaries.resolve()
    groups = GROUPS
    if options.names:
        groups = [group for group in GROUPS
                  if any(name.split('/')[0] == group.name for name in options.names)]
    asyncio.set_child_watcher(asyncio.PidfdChildWatcher())
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]  # a hub has about ten descriptors
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    with tempfile.TemporaryDirectory(prefix='shd-faults.') as scratch:
        Hub.scratch = scratch
        try:
            return asyncio.run(matrix(options, groups))
        except (KeyboardInterrupt, asyncio.CancelledError):  # the hubs have taken themselves down
            return 130


if __name__ == '__main__':
    sys.exit(main())
