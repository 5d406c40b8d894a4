#!/usr/bin/python3
"""The page of shdtool view, in headless chromium, on a real hub: what a person sees and does there.
Called by ctest with the folder of the programs. Debian's own python3, whose selenium this is."""

import http.client
import json
import os
import signal
import sys
import unittest
import urllib.parse

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), '../support'))
try:
    from selenium.webdriver.common.keys import Keys
    from scope_hub import DRIVER, Hub, Page, wait
except ModuleNotFoundError:
    DRIVER = ''
if not os.path.exists(DRIVER):
    print('no browser to drive: scripts/setup --test installs it')
    sys.exit(77)

ACCELEROMETER = 'section[aria-label="accelerometer"]'
LEAST_FRAMES = 1  # a second: machines of tests are slow and busy; what it is, is printed
# Sensors and their periods in us: 10 of the 11.5 kB/s that the line carries.
FULL_LINE = [(0, 4000), (5, 4000), (6, 4000), (9, 16000), (10, 16000), (11, 16000), (15, 16000), (18, 1000000),
             (19, 100000), (21, 100000), (25, 8000), (26, 1000000), (27, 100000)]

# Spacings of samples in periods, and what of them is missing.
GAPS = [
    ([1] * 90, []),
    ([1, 1, 3] + [1] * 90, [2]),
    ([1, 3, 0.1, 0.1] + [1] * 90, []),           # late, and made up for
    ([1, 0.2, 1.9] + [1] * 90, []),              # one came early
    ([1, 2, 2, 2, 2] + [1] * 90, [4]),           # a batch, spread over the next one's time
    ([1, 4, 1, 1, 2.9, 0.05, 0.05] + [1] * 90, [2, 1]),  # as much missing as was not made up for
    ([0.95] * 600 + [3] + [0.95] * 90, [2]),     # its own clock runs fast
]

# Minutes of a full line, 13 sensors, as fast as the page takes them; the rest of the page goes on.
FEED_MINUTES = """
scope.feed.source.close();
const handles = [...scope.store.hello.sensors].slice(0, 13);
const start = globalThis.fed ?? scope.now() + 1e9;
if (!globalThis.fed) scope.take([{...scope.store.hello, now: start}, {k: 'connection', t: start, up: true}]);
scope.linkWrong = null;
let n = 0;
for (let t = start; t < start + given[0] * 60e6; t += 50e3) {
  const items = [{k: 'now', t}];
  for (let i = 0; i < 50; ++i) {
    const at = t + i * 1000, s = handles[++n % 13];
    items.push({k: 'frame', n, t: at, e: at + 900, d: n % 50 ? 'from' : 'to', m: `report ${s.name} 1 samples`, x: '7e'.repeat(11), bad: false},
               {k: 'sample', h: s.h, t: at, a: at + 900, v: [Math.sin(n / 99), 1, 2, 3].slice(0, s.axes.length)});
  }
  if (t % 500e3 === start % 500e3) {
    items.push({k: 'log', t, who: 'shd', level: 'W', tag: 'shd', m: `line ${n}`}, {k: 'load', t, to: 100, from: 11500, measured: true},
               {k: 'exchange', t, e: t + 4000, m: `request ${n}`, mark: ''}, {k: 'clients', t, list: [{pid: n, name: 'x', socket: 'data', unread: n, fill: 1, losing: false}]},
               {k: 'state', t, s: n % 100 ? 'service' : 'silent', m: `${n}`}, {k: 'episode', t, e: t + 1e5, kind: 'recovery', m: `${n}`, ok: true, phases: []});
  }
  scope.take(items);
  if (t % 5e6 < 50e3) await new Promise(requestAnimationFrame);
}
globalThis.fed = start + given[0] * 60e6;
await new Promise(done => setTimeout(done, 2500));
return scope.store.now - scope.store.first;
"""


class PageTest(unittest.TestCase):
    def setUp(self):
        self.hub = Hub(sys.argv[1])
        self.addCleanup(self.hub.close)
        wait('the daemon', self.hub.serves)
        self.page = Page(self.hub.address)
        self.addCleanup(self.page.close)
        wait('the connection', lambda: self.page.text('#link') == 'live')

    def status(self, path, order=None):
        """The server's answer to an order, or to a request for a file."""
        connection = http.client.HTTPConnection(urllib.parse.urlparse(self.hub.address).netloc, timeout=30)
        self.addCleanup(connection.close)
        connection.request('POST' if order else 'GET', path, json.dumps(order), {'Content-Type': 'application/json'})
        return connection.getresponse().status

    def switch_on(self):
        if not self.page.ask("return scope.panel.rows.get(0).on.checked"):
            self.page.find('#sensors input[aria-label="accelerometer on"]').click()
        wait('samples', lambda: ' Hz' in self.page.text(ACCELEROMETER + ' .facts'))

    def follow(self):
        self.page.find('body').send_keys(Keys.END)

    def facts(self):
        return self.page.text(ACCELEROMETER + ' .facts')

    def walk_to(self, kind):
        """Walks back from now along what happened, by keys, until such a thing is shown."""
        lane = self.page.find('canvas[aria-label="what happened"]')
        lane.send_keys(Keys.ESCAPE)  # no cursor

        def found():
            lane.send_keys('p')
            return self.page.text('#picked h3') == kind
        wait(kind, found)
        return self.page.text('#picked')

    def colours_of_band(self, state):
        """The colour in the middle of the last such state of the MCU, and the one it is to have."""
        return self.page.ask("""
            const lane = scope.lanes[1], one = [...lane.segments(0, Infinity)].findLast(s => s.s === given[0]);
            scope.clock.show((one.t + one.e) / 2);
            await new Promise(done => setTimeout(done, 500));
            const ink = document.createElement('canvas').getContext('2d'), scale = devicePixelRatio;
            ink.fillStyle = getComputedStyle(document.documentElement).getPropertyValue('--' + given[0]);
            ink.fillRect(0, 0, 1, 1);
            const x = scope.clock.x((one.t + one.e) / 2, lane.width);
            const seen = lane.context.getImageData(x * scale, 16 * scale, 1, 1).data, want = ink.getImageData(0, 0, 1, 1).data;
            return [Math.max(...[0, 1, 2].map(i => Math.abs(seen[i] - want[i]))), (one.e - one.t) / 1e6]""", state)

    def test_a_hang_a_crash_and_a_dead_daemon_are_seen(self):
        page = self.page
        events = self.hub.tree / 'events'
        recorder = self.hub.start('shdtool', 'record', events)
        self.addCleanup(recorder.wait)
        self.addCleanup(recorder.terminate)
        wait('the recorder', events.exists)
        self.switch_on()
        drawn = f"return document.querySelector('{ACCELEROMETER} canvas').toDataURL()"
        pictures, texts = set(), set()

        def moves():
            pictures.add(page.browser.execute_script(drawn))
            texts.add(page.text(ACCELEROMETER + ' .values'))
            return len(pictures) > 5 and len(texts) > 2
        wait('a strip that moves', moves)

        with self.subTest('a click shows the frame'):
            page.press('pause')
            page.ask("const f = scope.store.frames.all.findLast(f => f.d === 'from' && f.m.includes('accelerometer'));"
                     "scope.clock.set(f.t - 5e3, f.t + 5e3); globalThis.frame = f;")
            spot = page.ask("const box = scope.lanes[4].canvas.getBoundingClientRect();"
                            "return [box.left + scope.clock.x((frame.t + frame.e) / 2, box.width), box.top + 28]")
            for what in ('mousePressed', 'mouseReleased'):
                page.command('Input.dispatchMouseEvent', type=what, x=spot[0], y=spot[1], button='left', clickCount=1)
            shown = wait('the bytes', lambda: page.text('#picked .bytes'))
            raw = ''.join(line[6:].replace(' ', '') for line in shown.split('\n'))
            self.assertEqual(raw, page.ask('return frame.x'))
            said = [line.split() for line in (self.hub.tree / 'line').read_text().splitlines()]
            self.assertIn(raw, ''.join(line[2] for line in said if line[1] == '<'))
            self.assertIn('accelerometer', page.text('#picked .meaning'))
            self.follow()

        with self.subTest('a hang is silence, and then a recovery with its duration'):
            page.press('hang')
            wait('silence', lambda: 'SILENT' in self.facts())
            page.press('ask it something')
            wait('the recovery', lambda: page.ask("return scope.store.episodes.last?.kind === 'recovery' && scope.store.episodes.last.e"))
            self.assertRegex(self.walk_to('recovery'), r'for\d+\.\d+ s')
            for state in ('silent', 'recovering'):
                difference, seconds = self.colours_of_band(state)
                self.assertLess(difference, 60, state)
                self.assertGreater(seconds, 0.5, state)
            self.follow()
        with self.subTest('a crash shows its dump'):
            self.switch_on()
            page.press('crash')
            wait('the dump', lambda: page.ask("return scope.store.dumps.all.length"))
            self.assertIn('slot0', self.walk_to('Core dump'))
            self.follow()
        with self.subTest('a daemon that is gone, and back'):
            self.hub.daemon.send_signal(signal.SIGKILL)
            self.hub.daemon.wait()
            wait('the banner', lambda: page.find('#banner').is_displayed() and 'No connection to shd' in page.text('#banner'))
            self.assertEqual('no connection', page.text('#link'))
            self.hub.start_daemon()
            wait('the daemon', lambda: page.text('#link') == 'live' and not page.find('#banner').is_displayed())
            wait('its service', self.hub.serves)
            self.hub.run('shdtool', 'enable', 'accelerometer', '--rate', '25')
            wait('samples', lambda: ' Hz' in self.facts() and 'SILENT' not in self.facts())
        with self.subTest('a server that is gone'):
            self.hub.view.terminate()
            wait('the banner', lambda: 'No connection to shdtool view' in page.text('#banner'))
        with self.subTest('a recording shows it again, and that only'):
            recorder.terminate()
            recorder.wait()
            self.hub.show(events, self.hub.tree / 'line', self.hub.tree / 'shd.log')
            page.browser.get(self.hub.address)
            wait('the recording', lambda: page.text('#link') == 'recording')
            silence = wait('the silence', lambda: page.ask(
                "return scope.store.sensors.get(0).gaps.all.filter(gap => gap.missing === null).map(gap => (gap.e - gap.t) / 1e6)"))
            self.assertTrue(all(1 < seconds < 90 for seconds in silence), silence)
            self.assertIn('recovery', self.walk_to('recovery'))
            self.assertFalse(page.find('#sensors input').is_enabled())
            path = urllib.parse.urlparse(self.hub.address).path
            self.assertEqual(403, self.status(path + 'do', {'do': 'flush', 'sensor': 0}))

    def test_only_the_token_opens_it(self):
        path = urllib.parse.urlparse(self.hub.address).path
        order = {'do': 'enable', 'sensor': 0, 'period_us': 20000, 'batch': 1}
        wrong = path[:-2] + ('0' if path[-2] != '0' else '1') + '/'
        for name, what in (('', None), ('feed', None), ('main.js', None), ('do', order)):
            self.assertEqual(404, self.status(wrong + name, what), name)
        self.assertFalse(self.page.ask("return scope.store.sensors.get(0).on"))
        self.assertEqual(200, self.status(path + 'do', order))
        wait('the sensor', lambda: self.page.ask("return scope.store.sensors.get(0).on"))

    def check_gaps(self):
        for spacings, missing in GAPS:
            told = self.page.ask("""
                const {Store} = await import('./store.js'), store = new Store();
                store.take([{...scope.store.hello, now: 1e9}, {k: 'asked', t: 1e9, h: 6, period_us: 1e4, batch: 1}]);
                let t = 1e9;
                for (const spacing of [1, ...given[0]]) store.take([{k: 'sample', h: 6, t: t += spacing * 1e4, a: t, v: [1]}]);
                const told = () => [...store.gapsOf(store.sensors.get(6), 0, Infinity)].map(gap => gap.missing), before = told();
                store.take([{k: 'missed', t: 1e9, e: t, certain: true}]);
                return [before, told()]""", spacings)
            self.assertEqual([missing, []], told, spacings[:8])

    def check_rings(self):
        # Room for a thousand rows of ten thousand: all of a recording's extremes, the newest of a live hub.
        for whole, first, length in ((True, 0, 500), (False, 9060, 760)):
            told = self.page.ask("""
                const {Columns} = await import('./rings.js'), ring = new Columns(1, 1024, given[0]);
                for (let t = 0; t < 9828; ++t) ring.push(t, [t === 5000 ? 99 : t % 7]);
                const times = [...ring.time.subarray(ring.from, ring.to)], values = [...ring.value.subarray(ring.from, ring.to)];
                return [times[0], times.length, Math.max(...values), times.every((t, i) => !i || t > times[i - 1]), ring.last]""", whole)
            self.assertLessEqual(told[0], first)
            self.assertGreaterEqual(told[1], length)
            self.assertLessEqual(told[1], 1024)
            self.assertEqual([99 if whole else 6, True], told[2:4])
            self.assertGreater(told[4], 9820)

    def test_full_line_is_drawn_and_ten_minutes_leave_nothing(self):
        self.check_gaps()
        self.check_rings()
        page = self.page
        path = urllib.parse.urlparse(self.hub.address).path
        for sensor, period in FULL_LINE:
            order = {'do': 'enable', 'sensor': sensor, 'period_us': period, 'batch': 10}
            self.assertEqual(200, self.status(path + 'do', order))
        load = wait('a full line', lambda: page.ask("const l = scope.store.load; return l.length > 4 && l.value[2 * (l.to - 1)] > 9000 && l.value[2 * (l.to - 1)]"))
        frames = page.ask("const n = () => scope.drawn.count; const at = n(); await new Promise(d => setTimeout(d, 5000)); return (n() - at) / 5")
        self.assertGreater(frames, LEAST_FRAMES)
        self.assertEqual(200, self.status(path + 'do', {'do': 'disable', 'sensor': 0}))
        lost = page.ask("return scope.store.lost.all.length + (scope.now() - scope.store.first > 100e6)")
        print(f'{frames:.1f} frames/s at {load:.0f} B/s', 'all samples compared' if not lost else '', file=sys.stderr)
        if not lost:
            stats = self.hub.run('mcusim', '--send', 'stats').stdout
            sensors = json.loads(stats[stats.index('{'):])['sensors']
            sent = next(one['sent'] for one in sensors.values() if one['id'] == 16)
            wait(f'all {sent} samples', lambda: page.ask("return scope.store.sensors.get(0).samples.length") == sent)

        figures = []
        for minutes in (4, 6):
            kept = page.ask(FEED_MINUTES, minutes)
            self.assertLess(kept, 180e6)
            page.command('HeapProfiler.collectGarbage')
            page.command('Performance.enable')
            metrics = {m['name']: m['value'] for m in page.command('Performance.getMetrics')['metrics']}
            figures.append((metrics['JSHeapUsedSize'], metrics['Nodes']))
        print('heap and nodes after 4 and 10 minutes', figures, file=sys.stderr)
        (heap, nodes), (later_heap, later_nodes) = figures
        self.assertLess(later_heap, heap * 1.1 + 2e6)
        self.assertLess(later_nodes, nodes * 1.1 + 500)


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1] + sys.argv[2:], verbosity=2)
