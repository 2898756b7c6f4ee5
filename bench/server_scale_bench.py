#!/usr/bin/python3
"""Many simultaneous interviews against ravlet-server: each interview is its own user, sends a
final transcript line every 2 s over the transcript socket and asks for an answer every 30 s.
Reports lines per second, the p95 acknowledgement latency, the p95 time to the first answer
line, the server's peak memory, and whether every acknowledged line was stored.

    server_scale_bench.py <ravlet-server> [--interviews 200] [--seconds 60] [--database URL]
                          [--guessers 20] [--idle 500] [--servers 2]

--guessers N: N clients post wrong passwords the whole time, each moving to a fresh loopback
address when refused, so the password hashing never rests. --idle N: N connections that send
nothing stay open on the server carrying the interviews (each one the server closes is opened
again). --servers 2: two processes on one PostgreSQL database and one signing key; each user
signs in on the first, refreshes and runs the interview on the second, refreshes again halfway,
and at the end replays its first refresh token on the first server (which must refuse it); one
address then guesses on both servers in turn to show what the sign-in limits hold across.
"""
import argparse, asyncio, concurrent.futures, json, multiprocessing, os, select, statistics, sys, tempfile, threading, time
import functools, http.client, http.cookiejar, re, urllib.error, urllib.parse, urllib.request

import websockets

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "server"))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from transcript_socket_test import NoRedirect, Server  # noqa: E402
from sign_in_guess_bench import FormClient  # noqa: E402
from idle_connections_bench import open_silent  # noqa: E402


class FromAddress(urllib.request.HTTPHandler):
    """Connections from a loopback address of the caller's choice (limits count per address)."""

    def __init__(self, source):
        super().__init__()
        self.source = source

    def http_open(self, request):
        connection = functools.partial(http.client.HTTPConnection, source_address=(self.source, 0))
        return self.do_open(connection, request)


def api(base, token, method, path, body=None, source=None):
    data = None if body is None else json.dumps(body).encode()
    headers = {"Content-Type": "application/json"}
    if token:
        headers["Authorization"] = "Bearer " + token
    request = urllib.request.Request(base + path, method=method, data=data, headers=headers)
    opener = urllib.request.build_opener(*([FromAddress(source)] if source else []))
    return json.loads(opener.open(request, timeout=10).read() or b"{}")


def sign_in_tokens(base, form, source):
    """Through the sign-in page, as a browser on `source` would: page, cookie, form, redirect,
    exchange; both tokens."""
    cookies = urllib.request.HTTPCookieProcessor(http.cookiejar.CookieJar())
    opener = urllib.request.build_opener(cookies, NoRedirect, FromAddress(source))
    page = opener.open(base + "/auth/login?state=T1&mode=register").read().decode()
    csrf = re.search(r'name="csrf" value="([^"]+)"', page).group(1)
    try:
        filled = urllib.parse.urlencode(dict(form, state="T1", csrf=csrf)).encode()
        opener.open(base + "/auth/login", filled)
        raise RuntimeError("the sign-in page did not redirect")
    except urllib.error.HTTPError as answer:
        if answer.code != 303:
            raise
        query = urllib.parse.parse_qs(urllib.parse.urlparse(answer.headers["Location"]).query)
    return api(base, None, "POST", "/api/v1/auth/exchange", {"code": query["code"][0]}, source)


def p95(values):
    return statistics.quantiles(values, n=20)[18] if len(values) >= 20 else (max(values) if values else float("nan"))


RESUME = "\n".join(
    ["Jordan Example", "EXPERIENCE", "Senior Backend Engineer, Northwind Payments (2019-2024)"]
    + [f"- {verb} the {thing} service, cutting {metric} by {10 + i * 3}% for {i + 2} teams."
       for i, (verb, thing, metric) in enumerate(
           [(v, t, m) for v in ("Led", "Rebuilt", "Migrated", "Designed")
            for t in ("billing", "ledger", "fraud detection", "search")
            for m in ("latency", "cost", "incidents")])]
    + ["EDUCATION", "BSc Computer Science, University of Somewhere"])
JOB = "\n".join(["Requirements:"] + [f"- Experience with {t} at scale, owning {m}." for t in
                                       ("distributed systems", "PostgreSQL", "Kubernetes", "Go or C++")
                                       for m in ("reliability", "on-call", "design reviews")])


def upload_documents(base, token, source):
    """The answers of a real interview are drafted from the user's own documents."""
    import urllib.request
    boundary = "benchboundary"
    body = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; filename=\"resume.txt\"\r\n"
            f"Content-Type: text/plain\r\n\r\n{RESUME}\r\n--{boundary}--\r\n").encode()
    request = urllib.request.Request(base + "/api/v1/resume/upload", data=body, method="POST", headers={
        "Authorization": f"Bearer {token}", "Content-Type": f"multipart/form-data; boundary={boundary}"})
    with urllib.request.build_opener(FromAddress(source)).open(request) as response:
        resume = json.loads(response.read())
    job = api(base, token, "POST", "/api/v1/job-description", {"title": "Backend", "content": JOB}, source=source)
    return resume["id"], job["id"]


async def first_answer_line(port, token, session, documents, source):
    reader, writer = await asyncio.open_connection("127.0.0.1", port, local_addr=(source, 0))
    body = json.dumps({"question": "Tell me about a time you led a project.", "context": [], "sessionId": session,
                       "resumeId": documents[0], "jobDescriptionId": documents[1]})
    started = time.perf_counter()
    writer.write((f"POST /api/v1/chat/answer HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nAuthorization: Bearer {token}\r\n"
                  f"Content-Type: application/json\r\nContent-Length: {len(body)}\r\n\r\n{body}").encode())
    status = (await reader.readline()).split()[1]
    elapsed = None
    if status == b"200":
        while line := await reader.readline():
            if b'"content"' in line:
                elapsed = time.perf_counter() - started
                break
    writer.close()
    return status, elapsed



def source_address(block, index):
    """A loopback address of its own for each client, as if each were another computer: the
    sign-in limits and the connection cap count per address."""
    return f"127.{block}.{index // 250}.{1 + index % 250}"


def refresh(server, token, source):
    try:
        return api(server.base, None, "POST", "/api/v1/auth/refresh", {"refreshToken": token}, source)
    except urllib.error.HTTPError as refused:
        return {"status": refused.code}


class Totals:
    def __init__(self):
        self.acks, self.answers, self.statuses = [], [], []
        self.sent = self.stored = 0
        self.rotations = self.rotations_refused = self.replays_accepted = self.replays_refused = 0


async def interview(index, args, servers, tokens, documents, totals, stop_at):
    home, source = servers[-1], source_address(2, index)
    # The sign-in happened on the first server; everything else runs on the last.
    first_refresh = tokens["refreshToken"]
    rotated = await asyncio.to_thread(refresh, home, first_refresh, source)
    if "accessToken" not in rotated:
        totals.rotations_refused += 1
        return
    totals.rotations += 1
    token, refresh_token = rotated["accessToken"], rotated["refreshToken"]
    session = await asyncio.to_thread(api, home.base, token, "POST", "/api/v1/interview/session",
                                      {"languageInput": "en", "languageOutput": "en"}, source)
    url = f"ws://127.0.0.1:{home.port}/api/v1/interview/ws?token={token}&sessionId={session['id']}"
    sent, lines = {}, 0
    async with websockets.connect(url, local_addr=(source, 0)) as ws:
        await ws.recv()

        async def receive():
            async for message in ws:
                for id in json.loads(message).get("ids", []):
                    if id in sent:
                        totals.acks.append(time.perf_counter() - sent.pop(id))

        receiver = asyncio.create_task(receive())
        await asyncio.sleep(index * 2.0 / args.interviews)  # spread the interviews over the 2 s
        next_answer = time.perf_counter() + (index * 30.0 / args.interviews)
        halfway = time.perf_counter() + (stop_at - time.perf_counter()) / 2
        while time.perf_counter() < stop_at:
            id = f"{index}-{lines}"
            sent[id] = time.perf_counter()
            await ws.send(json.dumps({"type": "transcript_entry", "id": id, "speaker": "interviewer",
                                      "content": f"Line {lines} of interview {index}, a sentence of ordinary length.",
                                      "timestampMs": lines * 2000, "revision": 0}))
            lines += 1
            if time.perf_counter() >= next_answer:
                next_answer += 30.0
                status, elapsed = await first_answer_line(home.port, token, session["id"], documents, source)
                totals.statuses.append(status)
                if elapsed is not None:
                    totals.answers.append(elapsed)
            if halfway and time.perf_counter() >= halfway:
                halfway = None
                again = await asyncio.to_thread(refresh, home, refresh_token, source)
                totals.rotations += "refreshToken" in again
                totals.rotations_refused += "refreshToken" not in again
            await asyncio.sleep(2.0)
        await asyncio.sleep(1.0)
        receiver.cancel()
    totals.sent += lines
    # Read back through the first server: every line is in the one database.
    kept = (await asyncio.to_thread(api, servers[0].base, token, "GET", f"/api/v1/interview/session/{session['id']}",
                                    None, source))["transcript"]
    totals.stored += sum(1 for line in kept if line["id"].startswith(f"{index}-"))
    # The first refresh token was spent long ago (past the grace for a lost answer).
    replay = await asyncio.to_thread(refresh, servers[0], first_refresh, source)
    totals.replays_accepted += "accessToken" in replay
    totals.replays_refused += "accessToken" not in replay


def guess(port, address):
    """Wrong passwords from one address until it is refused; the statuses."""
    client, statuses = FormClient(port, address), []
    while not statuses or statuses[-1] != 429:
        statuses.append(client.sign_in(f"guess-{address}-{len(statuses)}@example.org", "not the password")[0])
    return statuses


def guess_across(ports, address):
    """Wrong passwords from one address, on every server in turn, until every one refuses: how
    many failures that address was allowed in all."""
    clients, refused, failures, turn = [FormClient(port, address) for port in ports], set(), 0, 0
    while len(refused) < len(clients):
        index = turn % len(clients)
        turn += 1
        if index in refused:
            continue
        status = clients[index].sign_in(f"across-{turn}@example.org", "not the password")[0]
        failures += status == 401
        if status == 429:
            refused.add(index)
    return failures


def keep_guessing(ports, index, stop, counts):
    rounds = 0
    while not stop.is_set():
        statuses = guess(ports[rounds % len(ports)], source_address(100 + index, rounds))
        with counts.get_lock():
            counts[0] += statuses.count(401)
            counts[1] += statuses.count(429)
        rounds += 1


def keep_idle(port, count, stop, fewest):
    """`count` silent connections on `port`; each one the server closes is opened again."""
    batch = 0
    sockets = open_silent(port, count, source_address(50, batch))
    while not stop.is_set():
        closed, _, _ = select.select(sockets, [], [], 0.5)
        for connection in closed:
            sockets.remove(connection)
            connection.close()
        if len(sockets) < count:
            batch += 1
            sockets += open_silent(port, count - len(sockets), source_address(50, batch))
        fewest.value = min(fewest.value, len(sockets))
    for connection in sockets:
        connection.close()


def hostile(ports, guessers, idle, stop, counts, fewest):
    """The guessers and the silent connections, in a process of their own so that their threads
    do not delay the interviews' own measurements."""
    helpers = [threading.Thread(target=keep_guessing, args=(ports, i, stop, counts)) for i in range(guessers)]
    if idle:
        helpers.append(threading.Thread(target=keep_idle, args=(ports[-1], idle, stop, fewest)))
    for helper in helpers:
        helper.start()
    for helper in helpers:
        helper.join()


def memory_mb(pid, field="VmHWM:"):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith(field):
                return int(line.split()[1]) / 1024
    return float("nan")


def new_user(servers, index):
    tokens = sign_in_tokens(servers[0].base, {"action": "register", "email": f"interview-{index}@example.org",
                                              "password": "pa55word!", "confirm": "pa55word!"},
                            source_address(2, index))
    return tokens, upload_documents(servers[0].base, tokens["accessToken"], source_address(2, index))


async def run(args, servers):
    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        users = list(pool.map(lambda i: new_user(servers, i), range(args.interviews)))
    # The accounts' password hashes (64 MiB each) are not the interviews' memory: the peak is
    # counted from here (writing 5 to clear_refs resets it).
    for server in servers:
        with open(f"/proc/{server.process.pid}/clear_refs", "w") as clear:
            clear.write("5")
    totals = Totals()
    stop, counts, fewest = multiprocessing.Event(), multiprocessing.Array("l", 2), multiprocessing.Value("l", args.idle)
    helpers = []
    if args.guessers or args.idle:
        helpers.append(multiprocessing.Process(target=hostile, args=([s.port for s in servers], args.guessers,
                                                                     args.idle, stop, counts, fewest)))
        helpers[0].start()
        await asyncio.sleep(3)  # the guessing and the silent connections in full swing
    started = time.perf_counter()
    try:
        await asyncio.gather(*[interview(i, args, servers, users[i][0], users[i][1], totals,
                                         started + args.seconds) for i in range(args.interviews)])
    finally:
        elapsed = time.perf_counter() - started
        stop.set()
        for helper in helpers:
            helper.join()
    acks, answers, statuses = totals.acks, totals.answers, totals.statuses
    print(f"database: {'PostgreSQL' if args.database else 'SQLite'}, servers: {len(servers)}, "
          f"interviews: {args.interviews}, seconds: {args.seconds}, guessers: {args.guessers}, idle: {args.idle}")
    print(f"lines acknowledged: {len(acks)}, lines/s: {len(acks) / elapsed:.1f}")
    print(f"ack latency ms: p50 {statistics.median(acks) * 1000:.2f}, p95 {p95(acks) * 1000:.2f}, "
          f"max {max(acks) * 1000:.2f} (goal p95 < 50)")
    if answers:
        print(f"first answer line ms: p50 {statistics.median(answers) * 1000:.2f}, p95 {p95(answers) * 1000:.2f} "
              f"({len(answers)} answers; goal p95 < 100)")
    print(f"answer requests: {len(statuses)}, not answered with 200: {sum(1 for s in statuses if s != b'200')}")
    print(f"lines sent: {totals.sent}, stored: {totals.stored}")
    print(f"refresh rotations honoured: {totals.rotations}, refused: {totals.rotations_refused}; "
          f"spent tokens replayed later: {totals.replays_refused} refused, {totals.replays_accepted} accepted")
    if args.guessers:
        print(f"wrong passwords answered 401 (each a hash): {counts[0]}, refused with 429: {counts[1]}")
    if args.idle:
        print(f"silent connections held open: at least {fewest.value} of {args.idle} at every moment")
    for server in servers:
        print(f"server {server.port} peak memory MB: {memory_mb(server.process.pid):.1f}, "
              f"at the end {memory_mb(server.process.pid, 'VmRSS:'):.1f}")
    if len(servers) > 1:
        allowed = guess_across([s.port for s in servers], source_address(250, 0))
        print(f"failed sign-ins one address was allowed across {len(servers)} servers: {allowed}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--interviews", type=int, default=200)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--database", default=os.environ.get("RAVLET_TEST_DATABASE", ""))
    parser.add_argument("--guessers", type=int, default=0)
    parser.add_argument("--idle", type=int, default=0)
    parser.add_argument("--servers", type=int, default=1)
    args = parser.parse_args()
    if args.servers > 1 and not args.database:
        parser.error("--servers needs --database (PostgreSQL)")
    import resource
    import transcript_socket_test
    transcript_socket_test.SERVER = args.server
    transcript_socket_test.ON_DATABASE = ["--database", args.database] if args.database else []
    # This process holds the other end of every silent connection.
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with tempfile.TemporaryDirectory() as data:
        key = ["--signing-key-file", os.path.join(data, "signing.key")]
        servers = []
        try:
            for _ in range(args.servers):
                servers.append(Server(data))
                servers[-1].start(*key)
            asyncio.run(run(args, servers))
        finally:
            for server in servers:
                server.process.terminate()
                server.process.wait(timeout=30)


if __name__ == "__main__":
    main()
