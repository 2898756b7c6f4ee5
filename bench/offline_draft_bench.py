#!/usr/bin/python3
"""The offline draft with the longest documents the server reads (256K characters of resume and
of job description): the time of each kind of answer, first and again, while another client
asks /health every 5 ms and times each answer.

    offline_draft_bench.py <ravlet-server> [--characters 262144]
"""
import argparse, json, os, statistics, sys, tempfile, threading, time, urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "server"))
import transcript_socket_test as harness  # noqa: E402

QUESTIONS = ["Tell me about yourself.", "Tell me about a time you led a migration under pressure.",
             "What are your strengths and weaknesses?", "Why do you want to work here?",
             "How would you design a rate limiter for an API?", "What did you do last summer?"]
VERBS = ["Led", "Rebuilt", "Migrated", "Designed", "Automated", "Scaled", "Mentored", "Cut"]
THINGS = ["billing", "ledger", "fraud detection", "search", "payments", "onboarding", "reporting", "alerting",
          "deployments", "data pipeline", "API gateway", "mobile release"]
SKILLS = ["distributed systems", "PostgreSQL", "Kubernetes", "Go", "C++", "Kafka", "observability", "security reviews",
          "incident response", "capacity planning", "gRPC", "Terraform"]


def resume(characters):
    lines, i = ["Jordan Example", "EXPERIENCE"], 0
    while sum(len(line) + 1 for line in lines) < characters:
        if i % 12 == 0:
            lines.append(f"Engineer {i // 12}, Company {i // 12} ({2000 + i % 24}-{2001 + i % 24})")
        lines.append(f"- {VERBS[i % 8]} the {THINGS[i % 12]} service with {SKILLS[(i * 5) % 12]}, cutting "
                     f"latency by {10 + i % 80}% for {2 + i % 9} teams (item {i}).")
        i += 1
    return "\n".join(lines)[:characters]


def job(characters):
    lines, i = ["About the role", "You will own our platform."], 0
    while sum(len(line) + 1 for line in lines) < characters:
        if i % 40 == 0:
            lines.append("Requirements:" if i % 80 == 0 else "What you will do:")
        lines.append(f"- Experience with {SKILLS[i % 12]} and {THINGS[(i * 7) % 12]} at scale, owning "
                     f"{['reliability', 'on-call', 'design reviews', 'cost'][i % 4]} (point {i}).")
        i += 1
    return "\n".join(lines)[:characters]


def upload(base, token, name, text):
    boundary = "benchboundary"
    body = (f"--{boundary}\r\nContent-Disposition: form-data; name=\"file\"; filename=\"{name}\"\r\n"
            f"Content-Type: text/plain\r\n\r\n{text}\r\n--{boundary}--\r\n").encode()
    request = urllib.request.Request(base + "/api/v1/resume/upload", data=body, method="POST", headers={
        "Authorization": f"Bearer {token}", "Content-Type": f"multipart/form-data; boundary={boundary}"})
    return json.loads(urllib.request.urlopen(request, timeout=60).read())["id"]


def answer_seconds(base, token, question, resume_id, job_id):
    body = json.dumps({"question": question, "context": [], "resumeId": resume_id, "jobDescriptionId": job_id})
    request = urllib.request.Request(base + "/api/v1/chat/answer", data=body.encode(), method="POST", headers={
        "Authorization": f"Bearer {token}", "Content-Type": "application/json"})
    started = time.perf_counter()
    with urllib.request.urlopen(request, timeout=120) as response:
        lines = response.read().decode().count('"content"')
    return time.perf_counter() - started, lines


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("server")
    parser.add_argument("--characters", type=int, default=256 * 1024)
    args = parser.parse_args()
    harness.SERVER = args.server
    with tempfile.TemporaryDirectory() as data:
        server = harness.Server(data)
        server.start()
        health, stop = [], threading.Event()

        def poll():
            while not stop.is_set():
                started = time.perf_counter()
                urllib.request.urlopen(server.base + "/health", timeout=30).read()
                health.append(time.perf_counter() - started)
                time.sleep(0.005)

        try:
            token = harness.sign_in(server.base, {"action": "local"})
            resume_id = upload(server.base, token, "resume.txt", resume(args.characters))
            job_id = harness.api(server.base, token, "POST", "/api/v1/job-description",
                                 {"title": "Platform", "content": job(args.characters)})["id"]
            poller = threading.Thread(target=poll)
            poller.start()
            results = {}
            for round_name in ("first", "again"):
                for question in QUESTIONS:
                    seconds, lines = answer_seconds(server.base, token, question, resume_id, job_id)
                    results[f"{round_name}: {question}"] = f"{seconds * 1000:.0f} ms, {lines} lines"
            stop.set()
            poller.join()
        finally:
            stop.set()
            server.process.terminate()
            server.process.wait(timeout=10)
    results["slowest answer ms (goal < 100)"] = round(max(
        float(value.split()[0]) for key, value in results.items() if ": " in key), 1)
    results["/health p95 ms (goal < 10)"] = round(statistics.quantiles(health, n=20, method="inclusive")[18] * 1000, 1)
    results["/health max ms"] = round(max(health) * 1000, 1)
    print(json.dumps(results, indent=2))


if __name__ == "__main__":
    main()
