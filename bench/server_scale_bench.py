#!/usr/bin/python3
"""Many simultaneous interviews against one ravlet-server: each sends a final transcript line
every 2 s over the transcript socket and asks for an answer every 30 s. Reports lines per
second, the p95 acknowledgement latency, the p95 time to the first answer line and the
server's peak memory.

    server_scale_bench.py <ravlet-server> [--interviews 200] [--seconds 60] [--database URL]
"""
import argparse, asyncio, json, os, statistics, sys, tempfile, time

import websockets

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "server"))
from transcript_socket_test import Server, api, sign_in  # noqa: E402


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


def upload_documents(base, token):
    """The answers of a real interview are drafted from the user's own documents."""
    import urllib.request
    boundary = "benchboundary"
    body = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; filename=\"resume.txt\"\r\n"
            f"Content-Type: text/plain\r\n\r\n{RESUME}\r\n--{boundary}--\r\n").encode()
    request = urllib.request.Request(base + "/api/v1/resume/upload", data=body, method="POST", headers={
        "Authorization": f"Bearer {token}", "Content-Type": f"multipart/form-data; boundary={boundary}"})
    with urllib.request.urlopen(request) as response:
        resume = json.loads(response.read())
    job = api(base, token, "POST", "/api/v1/job-description", {"title": "Backend", "content": JOB})
    return resume["id"], job["id"]


async def first_answer_line(port, token, session, documents):
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    body = json.dumps({"question": "Tell me about a time you led a project.", "context": [], "sessionId": session,
                       "resumeId": documents[0], "jobDescriptionId": documents[1]})
    started = time.perf_counter()
    writer.write((f"POST /api/v1/chat/answer HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer {token}\r\n"
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


async def interview(index, args, server, token, documents, acks, answers, statuses, stop_at):
    session = await asyncio.to_thread(api, server.base, token, "POST", "/api/v1/interview/session",
                                      {"languageInput": "en", "languageOutput": "en"})
    url = f"ws://127.0.0.1:{server.port}/api/v1/interview/ws?token={token}&sessionId={session['id']}"
    sent = {}
    async with websockets.connect(url) as ws:
        await ws.recv()

        async def receive():
            async for message in ws:
                for id in json.loads(message).get("ids", []):
                    if id in sent:
                        acks.append(time.perf_counter() - sent.pop(id))

        receiver = asyncio.create_task(receive())
        await asyncio.sleep(index * 2.0 / args.interviews)  # spread the interviews over the 2 s
        line, next_answer = 0, time.perf_counter() + (index * 30.0 / args.interviews)
        while time.perf_counter() < stop_at:
            id = f"{index}-{line}"
            sent[id] = time.perf_counter()
            await ws.send(json.dumps({"type": "transcript_entry", "id": id, "speaker": "interviewer",
                                      "content": f"Line {line} of interview {index}, a sentence of ordinary length.",
                                      "timestampMs": line * 2000, "revision": 0}))
            line += 1
            if time.perf_counter() >= next_answer:
                next_answer += 30.0
                status, elapsed = await first_answer_line(server.port, token, session["id"], documents)
                statuses.append(status)
                if elapsed is not None:
                    answers.append(elapsed)
            await asyncio.sleep(2.0)
        await asyncio.sleep(1.0)
        receiver.cancel()


def peak_memory_mb(pid):
    with open(f"/proc/{pid}/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    return float("nan")


async def run(args, server, token):
    acks, answers, statuses = [], [], []
    started = time.perf_counter()
    stop_at = started + args.seconds
    documents = upload_documents(server.base, token)
    await asyncio.gather(*[interview(i, args, server, token, documents, acks, answers, statuses, stop_at)
                           for i in range(args.interviews)])
    elapsed = time.perf_counter() - started
    refused = sum(1 for s in statuses if s != b"200")
    print(f"database: {'PostgreSQL' if args.database else 'SQLite'}, interviews: {args.interviews}, seconds: {args.seconds}")
    print(f"lines acknowledged: {len(acks)}, lines/s: {len(acks) / elapsed:.1f}")
    print(f"ack latency ms: p50 {statistics.median(acks) * 1000:.2f}, p95 {p95(acks) * 1000:.2f}, max {max(acks) * 1000:.2f}")
    if answers:
        print(f"first answer line ms: p50 {statistics.median(answers) * 1000:.2f}, p95 {p95(answers) * 1000:.2f} "
              f"({len(answers)} answers)")
    print(f"answer requests: {len(statuses)}, not answered with 200: {refused}")
    print(f"server peak memory MB: {peak_memory_mb(server.process.pid):.1f}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--interviews", type=int, default=200)
    parser.add_argument("--seconds", type=float, default=60)
    parser.add_argument("--database", default=os.environ.get("RAVLET_TEST_DATABASE", ""))
    args = parser.parse_args()
    import transcript_socket_test
    # The test's server starts the program with its listen address only: the database is passed
    # through the path it runs, a wrapper of this run that adds it.
    with tempfile.TemporaryDirectory() as data:
        program = args.server
        if args.database:
            program = os.path.join(data, "ravlet-server")
            with open(program, "w") as f:
                f.write(f'#!/bin/sh\nexec "{os.path.abspath(args.server)}" --database "$RAVLET_BENCH_DATABASE" "$@"\n')
            os.chmod(program, 0o755)
            os.environ["RAVLET_BENCH_DATABASE"] = args.database
        transcript_socket_test.SERVER = program
        server = Server(data)
        server.start()
        try:
            token = sign_in(server.base, {"action": "local"})
            asyncio.run(run(args, server, token))
        finally:
            server.process.terminate()
            server.process.wait(timeout=30)


if __name__ == "__main__":
    main()
