"""A browser without a network, and a board that is served for it."""
import base64
import json
import os
import pathlib
import shutil
import struct
import subprocess
import tempfile
import zlib

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

# Far above what anything takes: a machine that is busy is no failure.
PATIENCE = 120
# Nothing is asked of anybody but the page's own server, and nobody else can be reached.
FLAGS = ["--headless=new", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-extensions", "--no-proxy-server", "--mute-audio",
         "--host-resolver-rules=MAP * ~NOTFOUND , EXCLUDE 127.0.0.1"]


def start_browser():
    options = Options()
    options.binary_location = shutil.which("chromium")
    for flag in FLAGS + (["--no-sandbox"] if os.geteuid() == 0 else []):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    browser = webdriver.Chrome(service=Service(shutil.which("chromedriver")), options=options)
    browser.set_script_timeout(PATIENCE)
    return browser


def show_as(browser, width, height=900, scheme="light"):
    """The page as wide as that, also narrower than a window can be."""
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
    browser.execute_cdp_cmd("Emulation.setScrollbarsHidden", {"hidden": True})
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
        "features": [{"name": "prefers-color-scheme", "value": scheme},
                     {"name": "prefers-reduced-motion", "value": "reduce"}]})


def picture_of(browser, element, file):
    box = browser.execute_script(
        "const box = arguments[0].getBoundingClientRect();"
        "return {x: box.x + scrollX, y: box.y + scrollY, width: box.width, height: box.height}",
        element)
    shot = browser.execute_cdp_cmd("Page.captureScreenshot", {
        "format": "webp", "quality": 50, "captureBeyondViewport": True, "clip": {**box, "scale": 1}})
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(base64.b64decode(shot["data"]))


def older_firmware(image, version):
    """The same image with another version: its text and its checksum."""
    text_at, text_size = 0x210, 16
    older = bytearray(image)
    older[text_at:text_at + text_size] = version.encode().ljust(text_size, b"\0")
    older[-4:] = struct.pack("<I", zlib.crc32(older[:-4]))
    return bytes(older)


class Board:
    """A board in a folder of its own, which is gone in the end."""

    def __init__(self, quilctl):
        self._quilctl = str(quilctl)
        self._folder = tempfile.TemporaryDirectory(prefix="quil-web-")
        self.path = pathlib.Path(self._folder.name) / "board"
        self._server = None
        self.run("board", "new", self.path, board=None)

    def file(self, name):
        return pathlib.Path(self._folder.name) / name

    def run(self, *words, board=True, check=True):
        where = ["--board", str(self.path)] if board else []
        return subprocess.run([self._quilctl, *where, *map(str, words)], check=check,
                              capture_output=True, text=True, timeout=PATIENCE)

    def install_older_mcu(self):
        image = (self.path / "rootfs/vendor/firmware/mcu_Heron.bin").read_bytes()
        self.file("older.bin").write_bytes(older_firmware(image, "V0.9.0"))
        self.run("mcu", "flash", self.file("older.bin"))

    def serve(self, speed):
        """Keeps it powered; the address of its page."""
        self._server = subprocess.Popen(
            [self._quilctl, "--board", str(self.path), "serve", "--speed", speed, "--web"],
            stdout=subprocess.PIPE, text=True)
        for line in self._server.stdout:
            if line.startswith("http://"):
                return line.strip()
        raise RuntimeError("quilctl serve --web has ended before it gave an address")

    def status(self):
        return json.loads(self.run("--json", "status").stdout)["result"]

    def end(self):
        if self._server:
            self._server.terminate()  # what runs in the background may ignore an interrupt
            self._server.communicate(timeout=PATIENCE)
            assert self._server.returncode == 0, self._server.returncode
        self._folder.cleanup()
