#!/usr/bin/python3
"""Password guessing beside a running interview. An interview sends a transcript line every
100 ms and times each acknowledgement, first alone, then while 20 clients post wrong passwords to
the sign-in form as fast as they are answered (each from its own loopback address, so that each
gets its full share of guesses before the per-address limit). Reports the ack p95 of both
phases, how the guesses were answered, and the time of a wrong password for a known and for an
unknown e-mail address.

    sign_in_guess_bench.py <ravlet-server> [--guessers 20] [--quiet-seconds 5]
"""
import argparse, asyncio, concurrent.futures, http.client, json, os, re, statistics, sys, tempfile, time
import urllib.parse

import websockets

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "server"))
import transcript_socket_test as harness  # noqa: E402


def p95(values):
    return statistics.quantiles(values, n=20, method="inclusive")[18] if len(values) >= 20 else max(values)


class FormClient:
    """One browser: its own source address, the sign-in page's cookie and token."""

    def __init__(self, port, source):
        self.port, self.source = port, source
        connection = self.connect()
        connection.request("GET", "/auth/login?state=B1")
        response = connection.getresponse()
        page = response.read().decode()
        self.cookie = response.getheader("Set-Cookie").split(";")[0]
        self.csrf = re.search(r'name="csrf" value="([^"]+)"', page).group(1)
        connection.close()

    def connect(self):
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=60, source_address=(self.source, 0))

    def sign_in(self, email, password):
        """The status and the seconds it took."""
        body = urllib.parse.urlencode(dict(state="B1", action="signin", email=email, password=password, csrf=self.csrf))
        connection = self.connect()
        started = time.perf_counter()
        connection.request("POST", "/auth/login", body, {"Cookie": self.cookie, "Accept": "application/json",
                                                         "Content-Type": "application/x-www-form-urlencoded"})
        response = connection.getresponse()
        response.read()
        elapsed = time.perf_counter() - started
        connection.close()
        return response.status, elapsed


def guess_until_refused(port, index):
    client = FormClient(port, f"127.0.{1 + index // 200}.{10 + index % 200}")
    statuses = []
    while not statuses or statuses[-1] != 429:
        statuses.append(client.sign_in(f"guess-{index}-{len(statuses)}@example.org", "not the password")[0])
    return statuses


async def acks(url, stop):
    """Ack latencies of lines sent every 100 ms until `stop` is set."""
    latencies = []
    async with websockets.connect(url) as ws:
        await ws.recv()  # greeting
        n = 0
        while not stop.is_set():
            n += 1
            started = time.perf_counter()
            await ws.send(harness.entry(f"line-{n}-{time.time_ns()}", "and then we shipped it", n * 100))
            await harness.next_ack(ws)
            latencies.append(time.perf_counter() - started)
            await asyncio.sleep(0.1)
    return latencies


async def run(server, token, guessers, quiet_seconds):
    _, url = harness.new_session(server, token)
    stop = asyncio.Event()
    quiet = asyncio.create_task(acks(url, stop))
    await asyncio.sleep(quiet_seconds)
    stop.set()
    quiet_latencies = await quiet

    stop = asyncio.Event()
    busy = asyncio.create_task(acks(url, stop))
    loop = asyncio.get_running_loop()
    started = time.perf_counter()
    with concurrent.futures.ThreadPoolExecutor(guessers) as pool:
        results = await asyncio.gather(*[loop.run_in_executor(pool, guess_until_refused, server.port, i)
                                         for i in range(guessers)])
    guessing_seconds = time.perf_counter() - started
    stop.set()
    return quiet_latencies, await busy, results, guessing_seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--guessers", type=int, default=20)
    parser.add_argument("--quiet-seconds", type=float, default=5)
    args = parser.parse_args()
    harness.SERVER = args.server
    with tempfile.TemporaryDirectory() as data:
        server = harness.Server(data)
        server.start()
        try:
            token = harness.sign_in(server.base, {"action": "register", "email": "known@example.org",
                                                  "password": "pa55word!", "confirm": "pa55word!"})
            # Known and unknown addresses in turn, each attempt from an address of its own.
            times = {"known": [], "unknown": []}
            for i in range(8):
                for kind in ("known", "unknown"):
                    client = FormClient(server.port, f"127.0.200.{2 * i + (kind == 'known')}")
                    email = "known@example.org" if kind == "known" else f"nobody-{i}@example.org"
                    status, elapsed = client.sign_in(email, "wrong password")
                    assert status == 401, status
                    times[kind].append(elapsed)
            quiet, busy, results, seconds = asyncio.run(run(server, token, args.guessers, args.quiet_seconds))
        finally:
            server.process.terminate()
            server.process.wait(timeout=10)
    guesses = [status for statuses in results for status in statuses]
    known, unknown = statistics.median(times["known"]), statistics.median(times["unknown"])
    print(json.dumps({
        "wrong password, known e-mail, median ms": round(known * 1000, 1),
        "wrong password, unknown e-mail, median ms": round(unknown * 1000, 1),
        "unknown / known": round(unknown / known, 3),
        "ack p95 ms, no guessing (goal < 50)": round(p95(quiet) * 1000, 1),
        f"ack p95 ms, {args.guessers} guessers (goal < 50)": round(p95(busy) * 1000, 1),
        "acks while guessing": len(busy),
        "guesses answered 401": guesses.count(401),
        "guesses answered 429": guesses.count(429),
        "seconds until every guesser was refused": round(seconds, 1),
    }, indent=2))


if __name__ == "__main__":
    main()
