#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Looks at zav-shm-web in a headless Chromium, by chromedriver and nothing else.

browser.py URL STREAM SECONDS SCREENSHOTS [BROWSERS]

Clicks on STREAM in each browser, watches one after the other for SECONDS, and prints a row of figures
for each. The exit status is 0 only if pictures were decoded all the time and the first one came within
half a second of the click. Each browser decodes with the processor: with more of them than processors
that is too much to ask, and the status says only whether the page could be used.
"""
import base64
import json
import os
import subprocess
import sys
import time
import urllib.error
import urllib.request

FIRST_PICTURE_MS = 500
FIGURES = """
const video = document.getElementById('video');
const quality = video.getVideoPlaybackQuality();
return {time: video.currentTime, decoded: quality.totalVideoFrames, dropped: quality.droppedVideoFrames,
        first_ms: live && live.first_ms, latency_ms: live && live.latency_ms,
        pictures: live ? live.pictures : 0, text: document.getElementById('figures').textContent};
"""


class Driver:
    """A chromedriver process and one session of it."""

    def __init__(self, size):
        self.process = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            if "started successfully on port" in line:
                self.base = "http://127.0.0.1:" + line.rstrip(".\n").rsplit(" ", 1)[1]
                break
        options = {"args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                            f"--window-size={size}", "--autoplay-policy=no-user-gesture-required"]}
        answer = self.ask("POST", "/session", {"capabilities": {"alwaysMatch": {
            "browserName": "chrome", "goog:chromeOptions": options}}})
        self.session = "/session/" + answer["sessionId"]

    def ask(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"},
                                         method=method)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(error.read().decode()) from error

    def do(self, method, path, body=None):
        return self.ask(method, self.session + path, body)

    def run(self, script):
        return self.do("POST", "/execute/sync", {"script": script, "args": []})

    def open(self, url):
        self.do("POST", "/url", {"url": url})

    def click(self, stream):
        """On the entry of the stream, as soon as the list has it."""
        found = f"return document.querySelector('li[data-id=\"{stream}\"] button:not(:disabled)')"
        end = time.monotonic() + 10
        while (entry := self.run(found)) is None:
            if time.monotonic() > end:
                raise RuntimeError(f"{stream} is not in the list: {self.run('return document.body.innerText')}")
            time.sleep(0.1)
        self.do("POST", f"/element/{next(iter(entry.values()))}/click", {})

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.do("GET", "/screenshot")))

    def close(self):
        try:
            self.do("DELETE", "")
        finally:
            self.process.terminate()
            self.process.wait(10)


def watch(driver, seconds):
    """Figures at the end, and whether decoding went on in every second."""
    time.sleep(1.5)
    before = driver.run(FIGURES)
    moves, latencies = True, []
    for _ in range(seconds):
        time.sleep(1)
        now = driver.run(FIGURES)
        moves = moves and now["time"] > before["time"] and now["decoded"] > before["decoded"]
        latencies.append(now["latency_ms"] or 0)
        before = now
    latencies.sort()
    return before, moves, latencies[len(latencies) // 2]


def main():
    url, stream, seconds, shots = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
    count = int(sys.argv[5]) if len(sys.argv) > 5 else 1
    sizes = ["1280,800", "390,844"]
    drivers = [Driver(sizes[i % len(sizes)]) for i in range(count)]
    good = True
    print("| browser | currentTime, s | decoded | dropped | click to picture, ms | publish to screen, ms | |")
    print("|---|---|---|---|---|---|---|")
    try:
        for driver in drivers:
            driver.open(url)
        for driver in drivers:
            driver.click(stream)
        for i, driver in enumerate(drivers):
            figures, moves, latency = watch(driver, seconds)
            first = figures["first_ms"]
            good = good and moves and first is not None and first <= FIRST_PICTURE_MS
            print(f"| {i + 1} | {figures['time']:.1f} | {figures['decoded']} | {figures['dropped']} | "
                  f"{first or 0:.0f} | {latency:.0f} | {'goes on' if moves else 'stands still'} |")
            driver.screenshot(f"{shots}/browser-{i + 1}.png")
    finally:
        for driver in drivers:
            driver.close()
    return 0 if good or count > (os.cpu_count() or 1) else 1


if __name__ == "__main__":
    sys.exit(main())
