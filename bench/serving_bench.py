#!/usr/bin/python3
"""What serving costs: a Heron boot on a board that is served without a limit of speed, with a page and
a trace open and without; and with nearly as many clients as the board takes watching each event."""
import argparse
import collections
import http.client
import json
import pathlib
import selectors
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

MOST = 2.0  # times as long with page and trace
WATCHERS = 97  # of at most 100 clients; the page's server and the command need the others


class Served:
    """A board that is served, in a folder of its own."""

    def __init__(self, quilctl):
        self._quilctl = quilctl
        self._folder = tempfile.TemporaryDirectory(prefix="quil-serving-")
        self.folder = pathlib.Path(self._folder.name)
        self.board = self.folder / "board"
        self._run("board", "new", self.board)
        self._server = subprocess.Popen([quilctl, "--board", self.board, "serve", "--web"],
                                        stdout=subprocess.PIPE, text=True)
        self.address = next(line.strip() for line in self._server.stdout
                            if line.startswith("http://"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._server.send_signal(signal.SIGTERM)
        self._server.communicate()
        self._folder.cleanup()

    def _run(self, *words):
        subprocess.run([self._quilctl, "--quiet", *words], check=True, stdout=subprocess.DEVNULL)

    def boot(self, *options):
        """Powers the board anew and boots it. Returns how long the boot command took, in seconds."""
        for act in ("cut", "on"):
            self._run("--board", self.board, "power", act)
        began = time.monotonic()
        self._run("--board", self.board, *options, "boot")
        return time.monotonic() - began


class Readers:
    """Read all that comes on sockets, as fast as it comes, until nothing more does."""

    def __init__(self, sockets):
        self.counts = collections.Counter()
        self._tails = dict.fromkeys(sockets, b"")
        self._ends = False
        self._ready = selectors.DefaultSelector()
        for one in sockets:
            self._ready.register(one, selectors.EVENT_READ)
        self._thread = threading.Thread(target=self._read)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ends = True
        self._thread.join()
        for one in self._tails:
            one.close()

    def _read(self):
        while (ready := self._ready.select(0.5)) or not self._ends:
            for key, _ in ready:
                # A word that is split is counted with its rest.
                text = self._tails[key.fileobj] + key.fileobj.recv(1 << 18)
                tail = self._tails[key.fileobj] = text[-16:]
                for word in ("spans", "kind", "lost"):
                    quoted = f'"{word}"'.encode()
                    self.counts[word] += text.count(quoted) - tail.count(quoted)


def open_page(address):
    """The page's stream of events, as a browser opens it."""
    url = urllib.parse.urlsplit(address)
    page = http.client.HTTPConnection(url.netloc)
    page.request("GET", f"/?{url.query}")
    cookie = page.getresponse().getheader("Set-Cookie").split(";")[0]
    stream = socket.create_connection((url.hostname, url.port))
    stream.sendall(f"GET /events HTTP/1.1\r\nHost: {url.netloc}\r\nCookie: {cookie}\r\n\r\n".encode())
    return stream


def watch(board):
    client = socket.socket(socket.AF_UNIX)
    client.connect(str(board / "socket"))
    client.sendall(json.dumps({"version": 2, "watch": []}).encode() + b"\n")
    return client


def page_and_trace(served, rounds):
    alone, beside = [], []
    served.boot()
    for _ in range(rounds):
        alone.append(served.boot())
        with Readers([open_page(served.address)]) as page:
            beside.append(served.boot("--trace", served.folder / "boot.pftrace"))
        assert page.counts["spans"] > 0, "the page has seen nothing"
    times = statistics.median(beside) / statistics.median(alone)
    print(f"Heron boot, served            {statistics.median(alone) * 1e3:7.1f} ms\n"
          f"  a page and a trace open     {statistics.median(beside) * 1e3:7.1f} ms, "
          f"{times:.2f} times as long (at most {MOST})")
    return times <= MOST


def all_clients(served, rounds):
    trace = served.folder / "boot.txt"
    served.boot("--trace", trace)
    events = len(trace.read_text().splitlines())
    with Readers([watch(served.board) for _ in range(WATCHERS)]) as watchers:
        took = statistics.median(served.boot() for _ in range(rounds))
    print(f"  {WATCHERS} clients watch it         {took * 1e3:7.1f} ms, "
          f"{events / took:,.0f} events a second; {watchers.counts['kind'] // WATCHERS:,} reached each "
          f"in {rounds} boots, {'some' if watchers.counts['lost'] else 'none'} were dropped")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--quilctl", type=pathlib.Path, required=True)
    parser.add_argument("--rounds", type=int, default=15)
    arguments = parser.parse_args()
    with Served(arguments.quilctl.absolute()) as served:
        is_cheap = page_and_trace(served, arguments.rounds)
        all_clients(served, 5)
    return 0 if is_cheap else 1


if __name__ == "__main__":
    sys.exit(main())
