#!/usr/bin/env python3
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

"""Opens a report in a headless browser and prints what it saw as JSON.

Usage: open_report.py REPORT [--scheme light|dark] [--width N] [--height N] [--top N] [--probe]
                      [--picture FILE]

The browser is Debian's chromium-headless-shell. It is driven over its DevTools protocol on two
pipes, and ends with this program, or when the pipes close.
"""

import argparse
import base64
import json
import os
import select
import signal
import subprocess
import sys
import tempfile
import time

BROWSER = '/usr/bin/chromium-headless-shell'
DEADLINE = 50  # seconds for everything; tests wait for 60

# Runs in the page: the figures and what they show. The marks with tooltips have names that begin
# with "tips-".
SURVEY = '''[...document.querySelectorAll('figure')].map((figure) => {
  const marks = [...figure.querySelectorAll('[class*="tips-"] > *')];
  const boxes = marks.map((mark) => mark.getBoundingClientRect());
  const index = boxes.findIndex((box) => box.width > 0 && box.height > 0);
  const chart = figure.querySelector('.chart');
  return {
    title: figure.dataset.figure,
    nothing: figure.querySelector('.nothing') !== null,
    charts: figure.querySelectorAll('.chart svg').length,
    label: chart ? chart.getAttribute('aria-label') : null,
    marks: boxes.filter((box) => box.width > 0 && box.height > 0).length,
    shapes: figure.querySelectorAll('.chart svg path').length,
    rows: figure.querySelectorAll('table tbody tr').length,
    index,
  };
})'''

# The middle of a figure's first mark, scrolled into sight.
AIM = '''(() => {
  const mark = document.querySelectorAll('figure')[%d].querySelectorAll('[class*="tips-"] > *')[%d];
  mark.scrollIntoView({block: 'center'});
  const box = mark.getBoundingClientRect();
  return [box.x + box.width / 2, box.y + box.height / 2];
})()'''

TIP = "document.getElementById('tip').hidden ? '' : document.getElementById('tip').innerText"
PAGE = '''({
  title: document.title,
  scripts: document.scripts.length,
  images: document.images.length,
  text: document.getElementById('scope').textContent + document.querySelector('main').textContent,
  bar: document.querySelector('.chart path[fill]') &&
       getComputedStyle(document.querySelector('[class*="tips-"] > *')).fill,
  wide: document.documentElement.scrollWidth - document.documentElement.clientWidth,
  height: document.documentElement.scrollHeight,
  background: getComputedStyle(document.body).backgroundColor,
})'''

# What a script that got into the page would try. Names what worked.
PROBES = '''(async () => {
  const worked = [];
  const script = document.createElement('script');
  script.textContent = 'window.probed = true';
  document.body.append(script);
  if (window.probed) worked.push('script');
  document.body.setAttribute('onclick', 'window.clicked = true');
  document.body.click();
  if (window.clicked) worked.push('event handler');
  document.body.setAttribute('style', 'position: fixed');
  if (getComputedStyle(document.body).position === 'fixed') worked.push('style');
  try { if (eval('1 + 1') === 2) worked.push('eval'); } catch (error) { /* refused */ }
  try { await fetch('data:text/plain,x'); worked.push('fetch'); } catch (error) { /* refused */ }
  const base = document.createElement('base');
  base.href = 'https://example.com/';
  document.head.append(base);
  if (document.baseURI === base.href) worked.push('base');
  const image = new Image();
  await new Promise((done) => {
    image.onload = () => { worked.push('image'); done(); };
    image.onerror = done;
    image.src = 'data:image/gif;base64,R0lGODlhAQABAAAAACwAAAAAAQABAAA=';
  });
  return worked;
})()'''


class Browser:
    """A browser, and the messages that it sent."""

    def __init__(self, folder):
        to_browser, self.writer = os.pipe()
        self.reader, from_browser = os.pipe()
        os.set_inheritable(to_browser, True)
        os.set_inheritable(from_browser, True)
        # The sandbox needs rights that root and containers do not have; the page is our own.
        arguments = [BROWSER, '--remote-debugging-pipe', '--no-sandbox', '--disable-gpu',
                     '--disable-dev-shm-usage', f'--user-data-dir={folder}', 'about:blank']
        # The protocol wants the pipes at the descriptors 3 and 4.
        self.process = subprocess.Popen(
            ['/bin/sh', '-c', f'exec 3<&{to_browser} 4>&{from_browser} "$@"', 'sh', *arguments],
            pass_fds=(to_browser, from_browser), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, env={**os.environ, 'HOME': folder}, start_new_session=True)
        os.close(to_browser)
        os.close(from_browser)
        self.deadline = time.monotonic() + DEADLINE
        self.received = b''
        self.events = []
        self.number = 0
        self.session = None

    def receive(self):
        while b'\0' not in self.received:
            left = max(0, self.deadline - time.monotonic())
            if not select.select([self.reader], [], [], left)[0]:
                raise TimeoutError('the browser did not answer in time')
            part = os.read(self.reader, 1 << 20)
            if not part:
                raise ConnectionError('the browser ended')
            self.received += part
        message, self.received = self.received.split(b'\0', 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self.number += 1
        message = {'id': self.number, 'method': method, 'params': parameters}
        if self.session:
            message['sessionId'] = self.session
        os.write(self.writer, json.dumps(message).encode() + b'\0')
        while True:
            answer = self.receive()
            if answer.get('id') == self.number:
                if 'error' in answer:
                    raise RuntimeError(f'{method}: {answer["error"]["message"]}')
                return answer['result']
            self.events.append(answer)

    def wait_for(self, method):
        while not any(event.get('method') == method for event in self.events):
            self.events.append(self.receive())

    def run(self, expression):
        # Otherwise the debugger could compile what the page's policy forbids.
        result = self.call('Runtime.evaluate', expression=expression, returnByValue=True,
                           awaitPromise=True, allowUnsafeEvalBlockedByCSP=False)
        if 'exceptionDetails' in result:
            raise RuntimeError(str(result['exceptionDetails']))
        return result['result'].get('value')

    def of(self, *methods):
        return [event['params'] for event in self.events if event.get('method') in methods]

    def close(self):
        os.close(self.writer)
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            pass
        # Its helpers share its session.
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()


def open_page(browser, options):
    target = browser.call('Target.createTarget', url='about:blank')['targetId']
    browser.session = browser.call('Target.attachToTarget', targetId=target,
                                   flatten=True)['sessionId']
    for domain in ('Page', 'Runtime', 'Network', 'Log', 'Audits'):
        browser.call(f'{domain}.enable')
    browser.call('Emulation.setDeviceMetricsOverride', width=options.width, height=options.height,
                 deviceScaleFactor=1, mobile=False)
    browser.call('Emulation.setEmulatedMedia',
                 features=[{'name': 'prefers-color-scheme', 'value': options.scheme}])
    begin = time.monotonic()
    browser.call('Page.navigate', url='file://' + os.path.abspath(options.report))
    browser.wait_for('Page.loadEventFired')
    # Two frames, so that all charts are drawn as wide as their places.
    browser.run('new Promise((done) => requestAnimationFrame(() => requestAnimationFrame(done)))')
    return time.monotonic() - begin


def read_tip(browser, number, index):
    x, y = browser.run(AIM % (number, index))
    for shift in (3, 0):
        browser.call('Input.dispatchMouseEvent', type='mouseMoved', x=x + shift, y=y)
    tip = browser.run(TIP)
    browser.call('Input.dispatchMouseEvent', type='mouseMoved', x=1, y=1)
    return tip


def survey(browser):
    figures = browser.run(SURVEY)
    for number, figure in enumerate(figures):
        index = figure.pop('index')
        figure['tip'] = read_tip(browser, number, index) if index >= 0 else ''
    return figures


def errors_of(browser):
    texts = [event['exceptionDetails'].get('exception', event['exceptionDetails'])
             for event in browser.of('Runtime.exceptionThrown')]
    texts += [event['args'] for event in browser.of('Runtime.consoleAPICalled')]
    texts += [event['entry'] for event in browser.of('Log.entryAdded')]
    texts += [event['issue'] for event in browser.of('Audits.issueAdded')]
    texts += [event for event in browser.of('Page.javascriptDialogOpening')]
    return [json.dumps(text)[:600] for text in texts]


def take_picture(browser, options):
    browser.run('scrollTo(0, 0)')
    picture = browser.call('Page.captureScreenshot', format='png', captureBeyondViewport=True,
                           clip={'x': 0, 'y': options.top, 'width': options.width,
                                 'height': options.height, 'scale': 1})
    with open(options.picture, 'wb') as file:
        file.write(base64.b64decode(picture['data']))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('report')
    parser.add_argument('--scheme', default='light')
    parser.add_argument('--width', type=int, default=1280)
    parser.add_argument('--height', type=int, default=900)
    parser.add_argument('--probe', action='store_true', help='try what the policy forbids')
    parser.add_argument('--picture', help='save what a window of this size shows as PNG')
    parser.add_argument('--top', type=int, default=0, help='of the picture')
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        browser = Browser(folder)
        try:
            seconds = open_page(browser, options)
            seen = browser.run(PAGE)
            seen['figures'] = survey(browser)
            if options.picture:
                take_picture(browser, options)
            seen['seconds'] = round(seconds, 2)
            seen['errors'] = errors_of(browser)
            seen['requests'] = [event['request']['url'] for event in
                                browser.of('Network.requestWillBeSent')]
            seen['worked'] = browser.run(PROBES) if options.probe else []
        finally:
            browser.close()
    json.dump(seen, sys.stdout, indent=1)


if __name__ == '__main__':
    main()
