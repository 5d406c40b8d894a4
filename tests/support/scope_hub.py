"""A simulated hub with its page in a headless browser. Used by the page's test and by scripts/scope,
which makes pictures of it."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import time

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

DRIVER = '/usr/bin/chromedriver'
PATIENCE_SEC = 90


def wait(what, condition, patience=PATIENCE_SEC):
    """The first result of condition() that is true; fails with what was awaited."""
    until = time.monotonic() + patience
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > until:
            raise AssertionError(f'waited {patience} s for {what}')
        time.sleep(0.05)


class Hub:
    """mcusim, shd and shdtool view in a tree of their own, with the line's bytes and the log."""

    def __init__(self, programs, *options, prepare=None):
        self.bin = pathlib.Path(programs).resolve()
        self.tree = pathlib.Path(tempfile.mkdtemp(prefix='shd-page.'))
        self.env = {**os.environ, 'SHD_ROOT': str(self.tree)}
        if prepare:
            prepare(self)
        self.simulator = self.start('mcusim', '--root', self.tree, '--record', self.tree / 'line', *options)
        wait('mcusim', lambda: self.run('mcusim', '--send', 'stats').returncode == 0)
        self.start_daemon()
        self.view = None
        self.show('--line', self.tree / 'line', '--log', self.tree / 'shd.log')

    def show(self, *files):
        """Another shdtool view in place of the one before."""
        if self.view:
            self.view.terminate()
            self.view.wait()
            self.view.stdout.close()
        self.view = self.start('shdtool', 'view', *files, stdout=subprocess.PIPE, text=True)
        self.address = self.view.stdout.readline().strip()

    def start(self, name, *arguments, **how):
        return subprocess.Popen([self.bin / name, *arguments], env=self.env, stdin=subprocess.DEVNULL,
                                **{'stdout': subprocess.DEVNULL, 'stderr': subprocess.DEVNULL, **how})

    def start_daemon(self):
        with open(self.tree / 'shd.log', 'a', encoding='utf-8') as log:
            self.daemon = self.start('shd', stderr=log)

    def run(self, name, *arguments):
        return subprocess.run([self.bin / name, *map(str, arguments)], env=self.env, capture_output=True,
                              text=True, check=False)

    def serves(self):
        """Whether the daemon serves its clients."""
        return self.run('shdtool', '--timeout', '0.5', 'selftest', 'step-detector').returncode == 0

    def close(self):
        for process in (self.view, self.daemon, self.simulator):
            process.terminate()
            process.wait()
        self.view.stdout.close()
        shutil.rmtree(self.tree)


class Page:
    """The page of an address in a window of that size."""

    def __init__(self, address, width=1600, height=1000, dark=False):
        options = Options()
        for option in ('headless=new', 'no-sandbox', 'disable-gpu', 'disable-dev-shm-usage', 'hide-scrollbars',
                       f'window-size={width},{height}'):
            options.add_argument('--' + option)
        options.set_capability('goog:loggingPrefs', {'browser': 'ALL'})
        self.browser = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.browser.set_script_timeout(PATIENCE_SEC)
        self.command('Emulation.setDeviceMetricsOverride', width=width, height=height, deviceScaleFactor=1,
                     mobile=False)
        scheme = {'name': 'prefers-color-scheme', 'value': 'dark' if dark else 'light'}
        self.command('Emulation.setEmulatedMedia', features=[scheme])
        self.browser.get(address)

    def command(self, name, **arguments):
        return self.browser.execute_cdp_cmd(name, arguments)

    def ask(self, script, *arguments):
        """What the script, which sees the page's scope and the arguments in `given`, returns."""
        returned, thrown = self.browser.execute_async_script(
            "const given = [...arguments], done = given.pop();"
            "import('./main.js').then(async ({scope}) => done([await (async () => {" + script + "})(), null]))"
            ".catch(error => done([null, String(error.stack)]))", *arguments)
        if thrown:
            raise AssertionError(thrown)
        return returned

    def text(self, selector):
        return self.browser.execute_script(
            'return document.querySelector(arguments[0])?.textContent ?? ""', selector)

    def find(self, selector):
        return self.browser.find_element('css selector', selector)

    def press(self, name):
        """The button with that text."""
        wait(name, lambda: self.browser.find_elements('xpath', f'//button[.="{name}"]'))[0].click()

    def close(self):
        self.browser.quit()
