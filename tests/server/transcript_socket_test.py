#!/usr/bin/python3
# The transcript socket of a real ravlet-server, driven by Python's websockets: acknowledgements
# with revisions, order by time of speech, duplicates, garbage and a flood of frames, refused
# handshakes, and a server killed with SIGKILL that keeps every acknowledged line.
import asyncio, http.cookiejar, json, os, re, signal, stat, subprocess, sys, tempfile
import urllib.error, urllib.parse, urllib.request

import websockets
import websockets.exceptions

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from product import check, failures, free_port, healthy, wait_until  # noqa: E402

# A refused handshake: websockets 14 and later (Debian 13) raise InvalidStatus, the client of
# older ones (Debian 12) InvalidStatusCode.
REFUSED = tuple(getattr(websockets.exceptions, name)
                for name in ("InvalidStatus", "InvalidStatusCode") if hasattr(websockets.exceptions, name))


SERVER = sys.argv[1] if len(sys.argv) > 1 else None
# Set by with-postgres.sh: the server runs on that database, and the cluster can be restarted.
DATABASE = os.environ.get("RAVLET_TEST_DATABASE")
ON_DATABASE = ["--database", DATABASE] if DATABASE else []
RESTART_DATABASE = os.environ.get("RAVLET_TEST_RESTART_DATABASE")


class Server:
    def __init__(self, data_dir):
        self.port, self.data_dir = free_port(), data_dir
        self.base = f"http://127.0.0.1:{self.port}"

    def start(self, *options):
        self.process = subprocess.Popen([SERVER, "--listen", f"127.0.0.1:{self.port}", *ON_DATABASE, *options],
                                        env=dict(os.environ, XDG_DATA_HOME=self.data_dir))
        if not wait_until(lambda: healthy(self.base), 10, 0.05):
            raise RuntimeError("ravlet-server did not start")


class NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *args):
        return None


def sign_in(base, form):
    """Through the sign-in page, as a browser would: page, cookie, form, redirect, exchange. Both
    tokens, or the status of a form the page refused."""
    opener = urllib.request.build_opener(urllib.request.HTTPCookieProcessor(http.cookiejar.CookieJar()), NoRedirect)
    page = opener.open(base + "/auth/login?state=T1&mode=register").read().decode()
    csrf = re.search(r'name="csrf" value="([^"]+)"', page).group(1)
    try:
        opener.open(base + "/auth/login", urllib.parse.urlencode(dict(form, state="T1", csrf=csrf)).encode())
        raise RuntimeError("no redirect")
    except urllib.error.HTTPError as answer:
        if answer.code != 303:
            return answer.code
        location = answer.headers["Location"]
    query = urllib.parse.parse_qs(urllib.parse.urlparse(location).query)
    check(location.startswith("ravlet://auth-callback?") and query["state"] == ["T1"], "callback " + location)
    return api(base, None, "POST", "/api/v1/auth/exchange", {"code": query["code"][0]})


def api(base, token, method, path, body=None):
    request = urllib.request.Request(base + path, method=method, data=None if body is None else json.dumps(body).encode(),
                                     headers=dict({"Content-Type": "application/json"}, **({"Authorization": "Bearer " + token} if token else {})))
    return json.loads(urllib.request.urlopen(request, timeout=10).read() or b"{}")


def entry(id, content, ts, revision=None, speaker="interviewer"):
    frame = {"type": "transcript_entry", "id": id, "speaker": speaker, "content": content, "timestampMs": ts, "confidence": 0.9}
    return json.dumps(frame if revision is None else dict(frame, revision=revision))


async def next_ack(ws):
    while True:
        message = json.loads(await asyncio.wait_for(ws.recv(), 10))
        if message.get("type") == "ack":
            return message


def new_session(server, token):
    session = api(server.base, token, "POST", "/api/v1/interview/session", {"languageInput": "en", "languageOutput": "en"})["id"]
    return session, f"ws://127.0.0.1:{server.port}/api/v1/interview/ws?token={token}&sessionId={session}"


def stored_lines(server, token, session):
    return api(server.base, token, "GET", f"/api/v1/interview/session/{session}")["transcript"]


NUL_TEXT = "a\x00b\ue0000c\ue000Fd\ue000"
# Frames sent, then the acknowledgement expected for the last of them (None: none checked).
CONVERSATION = [
    ([entry("b", "second said", 2000, 1)], {"type": "ack", "ids": ["b"], "revisions": {"b": 1}}),
    ([entry("a", "first said", 1000, 0, "user")], None),
    ([entry("b", "second said, grown", 2000, 2)], {"type": "ack", "ids": ["b"], "revisions": {"b": 2}}),
    # A late resend of the older text is answered with the stored revision.
    ([entry("b", "second said", 2000, 1)], {"type": "ack", "ids": ["b"], "revisions": {"b": 2}}),
    ([entry("a", "first said", 1000, 0, "user")], {"type": "ack", "ids": ["a"], "revisions": {"a": 0}}),  # a plain duplicate
    # Garbage is skipped and the socket stays.
    (["not json", "{}", json.dumps({"type": "transcript_entry", "id": 5}), b"\xff\xfe\x00", entry("c", "still listening", 3000)],
     {"type": "ack", "ids": ["c"], "revisions": {"c": 0}}),
    # A NUL, and the character the store writes in its place, are the speaker's text like any other.
    ([entry("n", NUL_TEXT, 3500)], {"type": "ack", "ids": ["n"], "revisions": {"n": 0}}),
    # Both speakers in the same millisecond: the order they arrived in, not that of their ids.
    ([entry("y", "same moment, first", 4000, 0, "user")], None), ([entry("x", "same moment, second", 4000)], None),
    ([entry("y", "same moment, first, grown", 4000, 1, "user")], None),
]
STORED = [("a", "first said"), ("b", "second said, grown"), ("c", "still listening"),
          ("n", NUL_TEXT), ("y", "same moment, first, grown"), ("x", "same moment, second")]


async def socket_behaviour(server, token, other_token):
    session, url = new_session(server, token)
    async with websockets.connect(url) as ws:
        check(json.loads(await ws.recv()) == {"type": "connected"}, "greeting")
        for frames, expected in CONVERSATION:
            for frame in frames:
                await ws.send(frame)
            ack = await next_ack(ws)
            check(expected is None or ack == expected, f"after {frames[-1]}: {ack}")
    stored = stored_lines(server, token, session)
    check([(line["id"], line["content"]) for line in stored] == STORED, f"stored {stored}")

    # Refused handshakes: no token, and another user's session.
    for bad in [f"token=forged&sessionId={session}", f"token={other_token}&sessionId={session}"]:
        try:
            async with websockets.connect(f"ws://127.0.0.1:{server.port}/api/v1/interview/ws?{bad}"):
                check(False, "handshake accepted: " + bad)
        except REFUSED as refused:
            status = getattr(getattr(refused, "response", refused), "status_code", None)
            check(status in (401, 404), f"refusal {status}")

    # A flood of 10,000 frames: every one is acknowledged or the socket is closed; the server stays.
    acked = await send_and_collect(url, [entry(f"f{i}", "flood", 10000 + i) for i in range(10000)], 10000)
    print(f"flood: {len(acked)} of 10000 frames acknowledged", flush=True)
    check(api(server.base, token, "GET", "/health")["status"] == "ok", "alive after the flood")
    # Bad frames, text or binary that is not UTF-8, close the socket alike.
    for bad in ["garbage", b"\xff\xfe not UTF-8"]:
        async with websockets.connect(url) as ws:
            await ws.recv()
            for _ in range(100):
                await ws.send(bad)
            code = None
            try:
                while True:
                    await asyncio.wait_for(ws.recv(), 10)
            except websockets.exceptions.ConnectionClosed as closed:
                code = closed.code
            except asyncio.TimeoutError:
                pass
            check(code == 1008, f"closed with {code} after 100 bad frames like {bad!r}")
    # A loaded machine may stop the client waiting before every acknowledgement came; lines
    # stored but not yet acknowledged are fine, acknowledged but not stored are not.
    lost = acked - {line["id"] for line in stored_lines(server, token, session)}
    check(not lost, f"acknowledged flood lines lost: {sorted(lost)[:5]}")


# Sends `frames` and collects acknowledged ids until `wanted` came, the socket closed or acks
# stopped; `midway()` runs once `midway_at` ids are in.
async def send_and_collect(url, frames, wanted, midway=None, midway_at=0):
    acked = set()
    async with websockets.connect(url, max_queue=None) as ws:
        await ws.recv()
        for frame in frames:
            await ws.send(frame)
        try:
            while len(acked) < wanted:
                acked.update((await next_ack(ws))["ids"])
                if midway and len(acked) >= midway_at:
                    midway()
                    midway, wanted = None, len(frames)
        except (websockets.exceptions.ConnectionClosed, asyncio.TimeoutError, ConnectionError):
            pass
    return acked


async def interrupted_mid_stream(server, token, what, interrupt):
    """`interrupt` runs while lines are still on their way; then, as the program does, the client
    reconnects and resends what is still unacknowledged until every line is. Nothing
    acknowledged may be lost on the way."""
    session, url = new_session(server, token)
    frames = {f"{what}{i}": entry(f"{what}{i}", f"line {i}", i) for i in range(400)}
    acked = await send_and_collect(url, list(frames.values()), 400, interrupt, 120)
    for _ in range(20):
        if len(acked) == len(frames):
            break
        try:
            acked |= await send_and_collect(url, [f for i, f in frames.items() if i not in acked], 400 - len(acked))
        except REFUSED:  # refused while the server reconnects to its database
            await asyncio.sleep(0.5)
    stored = {line["id"] for line in stored_lines(server, token, session)}
    print(f"{what}: {len(acked)} acknowledged, {len(stored)} stored", flush=True)
    check(len(acked) == len(frames), f"{what}: unacknowledged at the end: {len(frames) - len(acked)}")
    check(acked <= stored, f"{what}: acknowledged lines lost: {sorted(acked - stored)[:5]}")


def kill_and_restart(server):
    server.process.send_signal(signal.SIGKILL)
    server.process.wait()
    server.start()


def private_files(data):
    """What the server keeps (password hashes, transcripts, the signing key) is its user's alone."""
    folder = os.path.join(data, "RavletAI")
    modes = {name: stat.S_IMODE(os.stat(os.path.join(folder, name)).st_mode) for name in os.listdir(folder)}
    modes["."] = stat.S_IMODE(os.stat(folder).st_mode)
    check(modes.get(".") == 0o700 and (DATABASE or modes.get("server.sqlite") == 0o600) and modes.get("server-signing.key") == 0o600
          and all(mode == 0o600 for name, mode in modes.items() if name != "."), f"file modes {modes}")


async def two_servers(server, data):
    """A second process on the same database: a sign-in, a refresh and a line on either one are
    seen by the other."""
    second = Server(data)
    second.start()
    try:
        tokens = sign_in(server.base, {"action": "register", "email": "fourth@example.org",
                                       "password": "pa55word!", "confirm": "pa55word!"})
        refresh = {"refreshToken": tokens["refreshToken"]}
        rotated = api(second.base, None, "POST", "/api/v1/auth/refresh", refresh)
        # A retry of the same refresh on the other server within the grace gets the same new
        # refresh token (and an access token of its own), not the end of the sign-in.
        retried = api(server.base, None, "POST", "/api/v1/auth/refresh", refresh)
        check(rotated["refreshToken"] != tokens["refreshToken"]
              and retried["refreshToken"] == rotated["refreshToken"],
              f"one rotation across both servers: {rotated} then {retried}")
        session, url = new_session(second, rotated["accessToken"])
        async with websockets.connect(url) as ws:
            await ws.recv()
            await ws.send(entry("both", "said on the second server", 1000))
            ack = await next_ack(ws)
        kept = stored_lines(server, rotated["accessToken"], session)
        check(ack["ids"] == ["both"] and [line["id"] for line in kept] == ["both"],
              f"a line kept by the second server, read on the first: {ack} {kept}")
    finally:
        second.process.terminate()
        second.process.wait(timeout=10)


def operator_accounts(server, data):
    """With sign-up off, the operator creates accounts; the password comes from standard input."""
    def create():
        return subprocess.run([SERVER, *ON_DATABASE, "--create-user", "ops@example.org"], input=b"pa55word!\n",
                              env=dict(os.environ, XDG_DATA_HOME=data), capture_output=True, timeout=30)
    created, again = create(), create()
    check(created.returncode == 0, f"--create-user: {created.returncode} {created.stderr!r}")
    check(again.returncode == 1 and b"already exists" in again.stderr, f"--create-user twice: {again.stderr!r}")
    check(b"pa55word" not in created.stderr + again.stderr, "the password is never printed")
    server.process.terminate()
    server.process.wait(timeout=10)
    server.start("--no-sign-up")
    signed_in = sign_in(server.base, {"action": "signin", "email": "ops@example.org", "password": "pa55word!"})
    check(isinstance(signed_in, dict) and signed_in["accessToken"], "the operator's account signs in")
    refused = sign_in(server.base, {"action": "register", "email": "third@example.org", "password": "pa55word!",
                                    "confirm": "pa55word!"})
    check(refused == 403, f"sign-up refused with {refused}")


def main():
    with tempfile.TemporaryDirectory() as data:
        server = Server(data)
        server.start()
        try:
            token = sign_in(server.base, {"action": "local"})["accessToken"]
            other = sign_in(server.base, {"action": "register", "email": "second@example.org", "password": "pa55word!",
                                          "confirm": "pa55word!"})["accessToken"]
            asyncio.run(socket_behaviour(server, token, other))
            asyncio.run(interrupted_mid_stream(server, token, "sigkill", lambda: kill_and_restart(server)))
            if RESTART_DATABASE:
                # The database restarts under a running interview: the server reconnects by itself.
                asyncio.run(interrupted_mid_stream(server, token, "database-restart", lambda: subprocess.run(
                    RESTART_DATABASE, shell=True, check=True, timeout=60)))
                health = api(server.base, None, "GET", "/health")
                check(health.get("status") == "ok" and health.get("database") == "ok", f"health after the restart: {health}")
            private_files(data)
            if DATABASE:
                asyncio.run(two_servers(server, data))
            operator_accounts(server, data)
        finally:
            if server.process.poll() is None:
                server.process.terminate()
                server.process.wait(timeout=10)
    print("failures:", len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
