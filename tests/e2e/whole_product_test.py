#!/usr/bin/python3
"""The whole product as a person uses it, with nothing faked inside our own processes: the
program and ravlet-server (offline speech and answers, SQLite), sign-in in headless Chromium,
an interview heard through a real sound server while another program holds the focus, answers
by the automatic trigger and by the trigger key, the arrow keys, Stop, and what the server kept.
Screenshots of each step go to --screenshots. Exits 77 when a tool is missing."""
import argparse, array, asyncio, base64, io, json, math, os, re, shutil, socket, subprocess, sys, threading, time
import urllib.request, wave

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "server"))
import product  # noqa: E402
from sign_in_browser_test import headless_page  # noqa: E402
from product import DASHBOARD, OVERLAY, WELCOME, check, require, wait_until  # noqa: E402

QUESTIONS = ["Tell me about a time when you solved a difficult problem at work.",
             "Why do you want to work for our company?"]
INTRODUCTION = "Tell me about yourself."
RESUME_TIP = "Upload your resume for more accurate AI answers"
USER_ANSWER = "I rebuilt the billing service and the number of failed payments went down."
RESUME = ["Jordan Avery, Berlin", "Senior Backend Engineer, Northwind Payments, 2021 - 2026",
          "Moved card settlement onto an event queue, cutting failed payouts by 38%."]
JOB = ("Payments Platform Engineer", "Lakeside Bank", "You will own card settlement and payouts on our event queue.")

class VideoCall:
    """The test's own X client holding the focus; it records every key that reaches it."""

    def __init__(self, desktop, executable):
        self.process = desktop.spawn([executable], stdout=subprocess.PIPE, text=True)
        self.lines = []
        self.window = None
        threading.Thread(target=self._read, daemon=True).start()
        wait_until(lambda: self.window, 10)

    def _read(self):
        for line in self.process.stdout:
            line = line.strip()
            if line.startswith("window "):
                self.window = line.split()[1]
            self.lines.append(line)

    def presses(self):
        return [line.split()[1] for line in list(self.lines) if line.startswith("press ")]


class RecordingFront:
    """A byte-for-byte relay in front of the server that notes each request it passes on
    (method, path, body), so the scene can count what the program asked of the server. A
    WebSocket, once upgraded, is relayed unread."""

    def __init__(self, server):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.base = "http://127.0.0.1:%d" % self.listener.getsockname()[1]
        self.upstream = ("127.0.0.1", server.port)
        self.requests = []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            client, _ = self.listener.accept()
            upstream = socket.create_connection(self.upstream)
            threading.Thread(target=self._pump, args=(upstream, client, None), daemon=True).start()
            threading.Thread(target=self._pump, args=(client, upstream, bytearray()), daemon=True).start()

    def _pump(self, source, target, pending):
        try:
            while data := source.recv(65536):
                target.sendall(data)
                if pending is not None:
                    pending += data
                    pending = self._note(pending)
        except OSError:
            pass
        for end in (source, target):
            try:
                end.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass

    def _note(self, pending):
        """Notes the complete requests at the start of `pending`; None once the connection is a
        WebSocket."""
        while (end := pending.find(b"\r\n\r\n")) >= 0:
            head = pending[:end].decode("latin-1").split("\r\n")
            fields = {k.strip().lower(): v.strip() for k, _, v in (line.partition(":") for line in head[1:])}
            length = int(fields.get("content-length", "0"))
            if len(pending) < end + 4 + length:
                break
            method, path = head[0].split()[:2]
            self.requests.append((method, path, bytes(pending[end + 4:end + 4 + length])))
            del pending[:end + 4 + length]
            if fields.get("upgrade", "").lower() == "websocket":
                return None
        return pending

    def asked(self, method, path):
        """The bodies of the requests of that method whose path starts with `path`."""
        return [body for m, p, body in list(self.requests) if m == method and p.startswith(path)]


def counter(ui):
    """The answers' position label, "1/2", or None."""
    return next((name for name in ui.labels(OVERLAY) if re.fullmatch(r"(\d+|–)/\d+", name)), None)


def answer_count(ui):
    return int((counter(ui) or "/0").split("/")[1])


def transcript_rows(ui, selected=False):
    """The overlay's transcript rows, oldest first; or only the selected ones."""
    transcript = ui.find(OVERLAY, "list", "Transcript")
    rows = []
    for row in transcript or []:
        try:
            if row is not None and row.getRoleName() == "label" and (not selected or ui.selected(row)):
                rows.append(row.name)
        except Exception:
            continue
    return rows


def settle(ui, server, timeout):
    """Waits until the question is in: the recogniser's last words arrive about a second after
    the voice ends, so the server must hold the overlay's newest line and nothing have changed
    for a moment."""
    stable = [None, time.monotonic()]

    def settled():
        rows = transcript_rows(ui)
        if rows != stable[0]:
            stable[0], stable[1] = rows, time.monotonic()
        stored = server.query("SELECT content FROM transcript_lines WHERE speaker = 'interviewer' "
                              "ORDER BY timestamp_ms DESC LIMIT 1")
        return rows and stored and stored[0][0] == rows[-1] and time.monotonic() - stable[1] > 1.0

    return wait_until(settled, timeout)


def settled_count(ui, quiet=6, timeout=40):
    """The number of answers once none has come for `quiet` seconds: an automatic answer falls
    due 4 s after the interviewer's last words, which a slow machine may deliver late."""
    last = [answer_count(ui), time.monotonic()]

    def quiet_enough():
        count = answer_count(ui)
        if count != last[0]:
            last[0], last[1] = count, time.monotonic()
        return time.monotonic() - last[1] > quiet

    wait_until(quiet_enough, timeout)
    return last[0]


def stored_tokens(desktop):
    """The program's two items in the Secret Service, by key; kept base64-encoded."""
    tokens = {}
    for key in ("ravlet.accessToken", "ravlet.refreshToken"):
        lookup = subprocess.run(["secret-tool", "lookup", "server", "ravletai.ravlet", "user", key],
                                env=desktop.env, capture_output=True, text=True)
        if lookup.returncode == 0 and lookup.stdout:
            tokens[key] = base64.b64decode(lookup.stdout).decode(errors="replace")
    return tokens


def files_under(folder, skip):
    for top, folders, files in os.walk(folder):
        folders[:] = [f for f in folders if f not in skip]
        for name in files:
            path = os.path.join(top, name)
            if os.path.isfile(path) and not os.path.islink(path):
                yield path


def shows_draft(ui):
    """The answer on screen is the server's offline draft."""
    return any(name.startswith("Offline draft") for name in ui.labels(OVERLAY))


def resume_pdf(path, lines):
    """A one-page PDF of `lines` in Helvetica, laid out as a word processor exports a resume."""
    escaped = (line.replace("\\", "\\\\").replace("(", "\\(").replace(")", "\\)") for line in lines)
    text = "BT /F1 11 Tf 72 740 Td 16 TL " + " ".join(f"({line}) '" for line in escaped) + " ET"
    objects = ["<< /Type /Catalog /Pages 2 0 R >>", "<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
               "<< /Type /Page /Parent 2 0 R /MediaBox [0 0 612 792] /Resources << /Font << /F1 4 0 R >> >> "
               "/Contents 5 0 R >>", "<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
               f"<< /Length {len(text)} >>\nstream\n{text}\nendstream"]
    data, offsets = b"%PDF-1.4\n", []
    for number, body in enumerate(objects, 1):
        offsets.append(len(data))
        data += f"{number} 0 obj\n{body}\nendobj\n".encode("latin-1")
    table = "".join(f"{offset:010d} 00000 n \n" for offset in offsets)
    data += (f"xref\n0 {len(objects) + 1}\n0000000000 65535 f \n{table}trailer\n<< /Size {len(objects) + 1} "
             f"/Root 1 0 R >>\nstartxref\n{len(data)}\n%%EOF\n").encode("latin-1")
    with open(path, "wb") as f:
        f.write(data)


def choose_file(desktop, ui, path):
    """Opens `path` in the program's file dialog, which shows its folder. Qt's own dialog gives
    its rows no press action: the row is found by the file's name and focused, and Return opens
    it, as from the keyboard."""
    name = wait_until(lambda: ui.find(DASHBOARD, "label", os.path.basename(path)), 10)
    require(name, "the file dialog opens in the resume's folder", lambda: ui.dump(DASHBOARD))
    row = name.parent.queryAction()
    row.doAction(next(i for i in range(row.nActions) if row.getName(i) == "SetFocus"))
    desktop.key("Return")


def type_into(desktop, ui, name, text):
    """Clicks the dashboard's field of that name and types into it."""
    field = wait_until(lambda: ui.find(DASHBOARD, "text", name), 10)
    require(field, f'the page has the field "{name}"', lambda: ui.dump(DASHBOARD))
    x, y, width, height = field.queryComponent().getExtents(ui.pyatspi.DESKTOP_COORDS)
    subprocess.run(["xdotool", "mousemove", "--sync", str(x + width // 2), str(y + height // 2), "click", "1",
                    "type", "--delay", "10", text], env=desktop.env, check=True)


def close_dashboard(desktop, ui):
    """Clicks the close button of the dashboard's title bar."""
    frame = ui.frame(DASHBOARD).queryComponent().getExtents(ui.pyatspi.DESKTOP_COORDS)
    subprocess.run(["xdotool", "mousemove", "--sync", str(frame.x + frame.width - 11), str(frame.y - 11), "click",
                    "1"], env=desktop.env, stderr=subprocess.DEVNULL)


def documents_scene(desktop, program, server, ui, call, shot):
    """From the application menu to the dashboard: a resume uploaded through the file dialog and
    a job description written on its page both become active with no further step, and the next
    answer in the interview quotes the resume."""
    pdf = os.path.join(desktop.env["HOME"], "Documents", "jordan-avery-cv.pdf")
    os.makedirs(os.path.dirname(pdf), exist_ok=True)
    resume_pdf(pdf, RESUME)
    require(program.run_again() == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 10),
            "a start from the application menu shows the dashboard")
    check(ui.shows_label(OVERLAY, RESUME_TIP), "the overlay asks for a resume")
    ui.press(DASHBOARD, "Resume", role="list item")
    ui.press(DASHBOARD, "Upload Resume")
    choose_file(desktop, ui, pdf)
    shot("resume-upload")

    def says_active(name):
        row = ui.find(DASHBOARD, "list item", name)
        return row is not None and any(n.name == "Active" for n in ui._walk(row))

    check(wait_until(lambda: says_active(os.path.basename(pdf)), 20), "the uploaded resume is the active one",
          lambda: ui.dump(DASHBOARD))
    stored = server.query("SELECT filename, extracted_text FROM resumes")
    check(len(stored) == 1 and RESUME[2] in stored[0][1], "the server holds it with its text", stored)
    shot("resume-active")
    check(wait_until(lambda: not ui.shows_label(OVERLAY, RESUME_TIP), 5), "the overlay's tip to upload a resume goes")

    ui.press(DASHBOARD, "Job Description", role="list item")
    ui.press(DASHBOARD, "Add JD")
    for field, value in zip(("Job Title", "Company (optional)", "Job Description Content"), JOB):
        type_into(desktop, ui, field, value)
    shot("job-description-form")
    ui.press(DASHBOARD, "Save")
    check(wait_until(lambda: says_active(JOB[0]), 20), "the new job description is the active one",
          lambda: ui.dump(DASHBOARD))
    check(server.query("SELECT title, company, content FROM job_descriptions") == [JOB], "the server holds it")

    # Back to the call: the dashboard closed by its title bar's close button, the call in front;
    # the next answer is drawn from the documents.
    close_dashboard(desktop, ui)
    subprocess.run(["xdotool", "windowactivate", "--sync", call.window], env=desktop.env, stderr=subprocess.DEVNULL)
    check(wait_until(lambda: not desktop.is_viewable(DASHBOARD), 5), "the dashboard closes")
    # The offline recogniser gets about one word in two wrong on a synthetic voice, and the
    # draft needs the question's words to pick its lines. When the last question was heard too
    # badly for that, the interviewer asks one the recogniser knows well, up to twice.
    added, quoted = 0, None
    while not quoted and added < 3:
        if added:
            print("heard as", transcript_rows(ui)[-1:], "; asked again", flush=True)
            rows_before = transcript_rows(ui)
            desktop.speak(INTRODUCTION, desktop.system_sink)
            wait_until(lambda: transcript_rows(ui) != rows_before, 10)
            settle(ui, server, 5)
        before = answer_count(ui)
        desktop.key("Shift_R")
        require(wait_until(lambda: answer_count(ui) == before + 1, 10), "the trigger key streams the next answer",
                lambda: (before, ui.labels(OVERLAY)))
        added += 1
        quoted = wait_until(lambda: [line for line in RESUME[1:] if any(line in n for n in ui.labels(OVERLAY))], 5)
    check(quoted, "the offline draft quotes the resume", lambda: ui.labels(OVERLAY))
    shot("answer-from-resume")


MEETING = "Mock Interview"
PRACTICE_ANSWER = "I would start with the payments queue and measure the failed payouts."


class SinkRecording:
    """What the machine plays, recorded from the default sink's monitor: 16 kHz mono samples
    in a file that grows 32000 bytes a second."""
    SILENT_DB = -50.0

    def __init__(self, desktop, sink):
        self.path = os.path.join(desktop.scratch, "speakers.raw")
        with open(self.path, "wb") as out:
            desktop.spawn(["parec", "--device=" + sink + ".monitor", "--format=s16le", "--rate=16000",
                           "--channels=1", "--latency-msec=50"], stdout=out)

    def offset(self):
        return os.path.getsize(self.path)

    def levels(self, start, end=None):
        """The level in dBFS of each 100 ms from `start` (a byte offset) on."""
        with open(self.path, "rb") as f:
            f.seek(start)
            data = f.read((end - start) if end else -1)
        samples = array.array("h", data[:len(data) // 2 * 2])
        return [20 * math.log10(max(1e-9, math.sqrt(sum(x * x for x in samples[i:i + 1600]) / 1600) / 32768))
                for i in range(0, len(samples) - 1599, 1600)]

    def speech_from(self, start, timeout):
        """The offset where sound begins after `start`, or None."""
        def begun():
            loud = [i for i, db in enumerate(self.levels(start)) if db > self.SILENT_DB]
            return (start + loud[0] * 3200,) if loud else None
        found = wait_until(begun, timeout, step=0.1)
        return found[0] if found else None

    def ended(self, start, timeout, quiet=8):
        """Waits until the sound that began at `start` has been followed by `quiet` tenths of a
        second of silence; the loudest level heard, or None."""
        def done():
            levels = self.levels(start)
            return len(levels) > quiet and all(db <= self.SILENT_DB for db in levels[-quiet:]) and max(levels)
        return wait_until(done, timeout, step=0.2)

    def silence_after(self, start, timeout, quiet=3):
        """The offset where the sound that began at `start` is first followed by `quiet` tenths of
        a second of silence, or None."""
        def quiet_at():
            silent = [db <= self.SILENT_DB for db in self.levels(start)]
            return next(((start + i * 3200,) for i in range(len(silent) - quiet + 1) if all(silent[i:i + quiet])),
                        None)
        offset = wait_until(quiet_at, timeout, step=0.1)
        return offset[0] if offset else None


def practice_scene(desktop, program, server, front, ui, shot):
    """A practice session from the dashboard with the resume and the job description of the
    documents scene: the first three questions are spoken to the machine's speakers and written
    as the interviewer's lines, an answer into the microphone becomes the user's line, Next cuts
    the third short, and End Interview closes the window and completes the session once."""
    before = {row[0] for row in server.query("SELECT id FROM interview_sessions")}
    speakers = SinkRecording(desktop, desktop.system_sink)
    require(program.run_again() == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 10),
            "a start with no address shows the dashboard")
    ui.press(DASHBOARD, "Mock Interview", role="list item")
    ready = wait_until(lambda: (b := ui.find(DASHBOARD, "push button", "Start Mock Interview")) is not None
                       and b.getState().contains(ui.pyatspi.STATE_ENABLED) and b, 10)
    require(ready, "with a resume and a job description the practice can start", lambda: ui.dump(DASHBOARD))
    shot("practice-setup")
    # Clicked, as a person would: the window manager then lets the new window take the focus
    # from the dashboard, which it refuses to a window opened with no input behind it.
    x, y, width, height = ready.queryComponent().getExtents(ui.pyatspi.DESKTOP_COORDS)
    subprocess.run(["xdotool", "mousemove", "--sync", str(x + width // 2), str(y + height // 2), "click", "1"],
                   env=desktop.env, check=True)
    require(wait_until(lambda: desktop.is_viewable(MEETING), 10), "the meeting window opens")
    meeting = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^" + MEETING + "$"],
                             env=desktop.env, capture_output=True, text=True).stdout.split()
    check(wait_until(lambda: desktop.active_window() in meeting, 5), "it takes the focus",
          lambda: (desktop.active_window(), meeting))
    # The dashboard floats above ordinary windows, the call among them: the user closes it.
    close_dashboard(desktop, ui)
    check(wait_until(lambda: not desktop.is_viewable(DASHBOARD), 5), "the dashboard closes")
    check(wait_until(lambda: ui.shows_label(MEETING, "Question 1 of 8"), 20), "it shows the first of 8 questions",
          lambda: ui.labels(MEETING))
    asked = [json.loads(body) for body in front.asked("POST", "/api/v1/mock-interview/questions")]
    check(len(asked) == 1 and asked[0].get("count") == 8 and asked[0].get("jobDescriptionId")
          and asked[0].get("resumeId"), "the program asked the server once for 8 questions on both documents", asked)
    sessions = wait_until(lambda: [row for row in server.query("SELECT id, status FROM interview_sessions")
                                   if row[0] not in before], 10)
    require(sessions and len(sessions) == 1 and sessions[0][1] == "active", "the server opened one practice session",
            sessions)
    session = sessions[0][0]

    def stored(speaker):
        return [row[0] for row in server.query("SELECT content FROM transcript_lines WHERE session_id = ? AND "
                                               "speaker = ? ORDER BY timestamp_ms, arrival", session, speaker)]

    def spoken():
        return [json.loads(body)["text"] for body in front.asked("POST", "/api/v1/mock-interview/tts")]

    def ask(number, start=None):
        """Question `number` (from 1) is written down, and heard once it sounds after `start` (a
        recording offset); its text and the offset where its sound begins."""
        check(wait_until(lambda: ui.shows_label(MEETING, f"Question {number} of 8"), 10),
              f"the window shows question {number}", lambda: ui.labels(MEETING))
        text = wait_until(lambda: spoken()[number - 1:number], 10)
        require(text, f"the program asks the server to speak question {number}", spoken)
        text = text[0]
        check(wait_until(lambda: text in transcript_rows(ui), 10), f"question {number} is a line of the overlay",
              lambda: transcript_rows(ui))
        check(wait_until(lambda: stored("interviewer")[number - 1:] == [text], 10),
              "the server stores it as the interviewer's line", lambda: stored("interviewer"))
        if start is None:
            return text, None
        begun = speakers.speech_from(start, 15)
        require(begun is not None, f"question {number} is heard on the speakers", lambda: speakers.levels(start))
        return text, begun

    def seconds_of(text):
        """How long the server's speech of `text` lasts, asked as the program asks it."""
        token = stored_tokens(desktop)["ravlet.accessToken"]
        request = urllib.request.Request(server.base + "/api/v1/mock-interview/tts", json.dumps({"text": text}).encode(),
                                         {"Authorization": "Bearer " + token, "Content-Type": "application/json"})
        with wave.open(io.BytesIO(urllib.request.urlopen(request, timeout=10).read())) as clip:
            return clip.getnframes() / clip.getframerate()

    first, begun = ask(1, speakers.offset())
    job_led = "What interests you about the role of %s at %s?" % JOB[:2]
    check(first == job_led, "the first question is about the chosen job description: " + first)
    loudest = speakers.ended(begun, 20)
    check(loudest and loudest > -30, "its speech plays to the end, clearly (%s dBFS at its loudest)" % loudest)
    desktop.speak(PRACTICE_ANSWER, desktop.mic_sink)
    check(wait_until(lambda: stored("user"), 15), "the spoken answer is stored as the user's line",
          lambda: server.query("SELECT speaker, content FROM transcript_lines WHERE session_id = ?", session))
    check(wait_until(lambda: transcript_rows(ui)[-2:] == [first] + stored("user")[-1:], 5),
          "the overlay shows it under the question", lambda: (stored("user"), transcript_rows(ui)))

    start = speakers.offset()
    ui.press(MEETING, "Next")
    second, begun = ask(2, start)
    check(second != first, "the second question is another one")
    shot("practice-question-2")
    check(speakers.ended(begun, 20), "its speech plays to the end")

    start = speakers.offset()
    ui.press(MEETING, "Next")
    third, begun = ask(3, start)
    # Next while it is spoken: the speech stops at once, and the fourth question follows with
    # hardly a pause, so the sound from the third's start on is a moment of it and all of the
    # fourth.
    ui.press(MEETING, "Next")
    fourth, _ = ask(4)
    end = speakers.silence_after(begun, 20, quiet=8)
    require(end is not None, "the speech ends")
    heard, third_seconds, fourth_seconds = (end - begun) / 32000, seconds_of(third), seconds_of(fourth)
    print("heard %.1f s of sound; the third lasts %.1f s, the fourth %.1f s" % (heard, third_seconds, fourth_seconds))
    check(fourth_seconds - 0.5 < heard < fourth_seconds + 1.2 < third_seconds + fourth_seconds,
          "Next cut the third question short, and the fourth was heard")
    lines = server.query("SELECT speaker, content FROM transcript_lines WHERE session_id = ? "
                         "ORDER BY timestamp_ms, arrival", session)
    check([line for line in lines if line[0] == "interviewer"] == [("interviewer", q) for q in
                                                                   (first, second, third, fourth)]
          and lines[-2:] == [("interviewer", third), ("interviewer", fourth)],
          "the server holds the four questions in order, the third with no answer", lines)

    ui.press(MEETING, "End Interview")
    check(wait_until(lambda: not desktop.is_viewable(MEETING), 10), "End Interview closes the window")
    check(wait_until(lambda: server.query("SELECT status FROM interview_sessions WHERE id = ?", session)
                     == [("completed",)], 10), "the server holds the practice session as completed")
    time.sleep(1)
    ends = front.asked("PUT", "/api/v1/interview/session/" + session)
    check(len(ends) == 1, "the session was ended once (%d end requests)" % len(ends))
    check(all(db <= SinkRecording.SILENT_DB for db in speakers.levels(speakers.offset() - 3200 * 5)),
          "nothing plays after the end")

async def create_account(chromium, login_url, shots):
    """Opens the login address in headless Chromium, creates an account on the page and returns
    the "ravlet" address the page sends the browser to."""
    async with headless_page(chromium) as tools:
        await tools.call("Page.navigate", url=login_url)
        require(await tools.wait_for(lambda e: e.get("method") == "Page.loadEventFired") is not None,
                "the login page loads")
        tools.events.clear()
        await tools.call("Runtime.evaluate", expression=(
            "[...document.querySelectorAll('a')].find(a => /Create an account/.test(a.textContent)).click()"))
        require(await tools.wait_for(lambda e: e.get("method") == "Page.loadEventFired") is not None,
                "its link leads to the page that creates an account")
        for field, value in (("email", "candidate@example.org"), ("password", "interview-2026"),
                             ("confirm", "interview-2026")):
            await tools.call("Runtime.evaluate", expression=f"document.getElementById('{field}').focus()")
            await tools.call("Input.insertText", text=value)
        data = (await tools.call("Page.captureScreenshot", format="png"))["data"]
        with open(os.path.join(shots, "02-browser-create-account.png"), "wb") as f:
            f.write(base64.b64decode(data))
        await tools.key("Enter", "Enter", 13, "\r")
        redirect = await tools.wait_for(
            lambda e: e.get("method") == "Network.requestWillBeSent"
            and e["params"].get("redirectResponse", {}).get("status") == 303)
        require(redirect is not None, "the form sends the browser on")
        return redirect["params"]["request"]["url"]


def keybinds_scene(desktop, ui, program, call, total):
    """The user changes the trigger key on the dashboard's Keybinds page by pressing F8, then F8
    pressed in the video call starts the next answer and Right Shift no longer does. Returns the
    number of answers after it."""
    check(program.run_again() == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 10),
          "a start with no address brings the dashboard")

    def find(role, name):
        # The tray's menu window has the dashboard's title too: look in every such window.
        for frame in ui.application() or []:
            if frame is not None and frame.name == DASHBOARD:
                node = next((n for n in ui._walk(frame) if n.getRoleName() == role and n.name == name), None)
                if node is not None:
                    return node
        return None

    def press(role, name):
        node = wait_until(lambda: find(role, name), 10)
        require(node is not None, f'the dashboard has "{name}"', lambda: ui.dump(DASHBOARD))
        node.queryAction().doAction(0)

    press("list item", "Keybinds")
    press("push button", "Change Key")
    require(wait_until(lambda: find("label", "Press any key..."), 10), "Change Key records a key")
    dashboard = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^" + DASHBOARD + "$"],
                               env=desktop.env, capture_output=True, text=True).stdout.split()
    check(wait_until(lambda: desktop.active_window() in dashboard, 10), "the dashboard has the focus",
          lambda: (desktop.active_window(), dashboard))
    desktop.key("F8")
    check(wait_until(lambda: find("label", "Trigger AI answer F8"), 10), "F8 becomes the trigger key")

    # Back to the call, as the user would, and close the dashboard on the way.
    subprocess.run(["xdotool", "key", "alt+F4"], env=desktop.env, check=True)
    check(wait_until(lambda: not desktop.is_viewable(DASHBOARD), 10), "the dashboard closes")
    subprocess.run(["xdotool", "windowactivate", "--sync", call.window], env=desktop.env, check=True)
    require(wait_until(lambda: desktop.active_window() == call.window, 10), "the video call has the focus again")
    seen = len(call.presses())
    desktop.key("Shift_R")
    time.sleep(1.5)
    check(answer_count(ui) == total, "Right Shift no longer starts an answer", lambda: counter(ui))
    desktop.key("F8")
    check(wait_until(lambda: counter(ui) == f"{total + 1}/{total + 1}", 5) is not None,
          "F8 from the video call starts the next answer", lambda: counter(ui))
    check(call.presses()[seen:] == ["Shift_R", "F8"], "both keys still reach the video call", call.presses)
    return total + 1


def run(args, desktop):
    shots = args.screenshots
    shutil.rmtree(shots, ignore_errors=True)
    os.makedirs(shots)
    step = iter(range(1, 100))

    def shot(name):
        desktop.screenshot(os.path.join(shots, f"{next(step):02d}-{name}.png"))

    desktop.start()
    server = product.Server(desktop, args.server)
    front = RecordingFront(server)
    ui = product.Accessible()

    # A user who turned the automatic trigger on.
    program = product.Program(desktop, args.program, front, {"autoTriggerAIAnswers": True})
    require(wait_until(lambda: desktop.is_viewable(WELCOME), 30), "the welcome panel opens")
    require(wait_until(lambda: ui.find(WELCOME, "push button", "Sign In"), 20), "its buttons are accessible")
    shot("welcome")
    # Xvfb has no direct rendering: OpenGL would be Mesa's rasterizer, so the program draws in software.
    log = os.path.join(desktop.scratch, "program.log")
    check("drawing with Qt Quick's software renderer" in open(log).read(), "the program picks the software renderer",
          lambda: open(log).read()[-2000:])
    check("X11 session (unknown); windows and keys through X11" in open(log).read(), "it logs the session it found")

    # Sign in: the notice on usage data, then Sign In; the browser gets the login address.
    ui.press(WELCOME, "OK, got it")
    ui.press(WELCOME, "Sign In")
    login_url = program.login_address()
    require(login_url, "Sign In opens the browser")
    check(login_url.startswith(front.base + "/auth/login?"), "the browser gets the login page: " + login_url)
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    callback = asyncio.run(create_account(chromium, login_url, shots))
    next(step)
    check(callback.startswith("ravlet://auth-callback?"), "the page sends the browser to " + callback)
    # The desktop starts the program's entry with the address; the running one takes it.
    check(program.open_address(callback) == 0, "xdg-open hands the address to the program")
    require(wait_until(lambda: desktop.is_viewable(OVERLAY), 20), "signed in, the overlay shows")
    check(not desktop.is_viewable(WELCOME), "the welcome panel is gone")
    check(len(server.query("SELECT id FROM users WHERE email = ?", "candidate@example.org")) == 1,
          "the server has the new account")
    require(wait_until(lambda: ui.has_label(OVERLAY, "AI will trigger automatically after interviewer speaks"), 10),
            "the overlay says the automatic trigger is on")

    # The tokens are in the keyring, and in no file and no log line.
    tokens = stored_tokens(desktop)
    check(set(tokens) == {"ravlet.accessToken", "ravlet.refreshToken"} and all(len(t) > 20 for t in tokens.values()),
          "both tokens are in the keyring", tokens)
    leaks = [path for path in files_under(desktop.scratch, skip=("keyring", "server-data"))
             if any(token.encode() in open(path, "rb").read() for token in tokens.values() if token)]
    check(not leaks, "no token is written anywhere else", leaks)

    # The video call takes the focus; the overlay never does.
    call = VideoCall(desktop, args.video_call)
    require(call.window is not None, "the video call's window opens")
    require(wait_until(lambda: desktop.active_window() == call.window, 10), "the video call has the focus")
    shot("signed-in")

    ui.press(OVERLAY, "Start")
    require(wait_until(lambda: ui.find(OVERLAY, "push button", "Stop"), 30), "Start starts the interview")
    require(wait_until(lambda: ui.has_label(OVERLAY, "Recording live"), 30), "the overlay says it records",
            lambda: ui.labels(OVERLAY))
    shot("recording")

    # The interviewer asks; the user answers into the microphone while the automatic answer is
    # due 4 s after the interviewer's last words.
    desktop.speak(QUESTIONS[0], desktop.system_sink)
    asked = time.monotonic()
    user = desktop.speak(USER_ANSWER, desktop.mic_sink, wait=False)
    first = wait_until(lambda: counter(ui) == "1/1", 20)
    check(first is not None, "the automatic trigger streams an answer", lambda: counter(ui))
    check(time.monotonic() - asked >= 3.5, "not before 4 s of the interviewer's silence (%.1f s after the question)"
          % (time.monotonic() - asked))
    check(wait_until(lambda: shows_draft(ui), 10), "the answer's text is on screen")
    user.wait()
    shot("first-answer")

    # The second question comes 6 s after the first one ended; once its words are in, the user
    # presses the trigger key.
    time.sleep(max(0.0, asked + 6 - time.monotonic()))
    rows_before = transcript_rows(ui)
    desktop.speak(QUESTIONS[1], desktop.system_sink)
    require(wait_until(lambda: transcript_rows(ui) != rows_before, 10), "the second question reaches the overlay",
            lambda: ui.dump(OVERLAY))
    settle(ui, server, 3)
    # On a loaded machine the automatic trigger may have answered this question already; the
    # key then adds one more.
    before = answer_count(ui)
    pressed = time.monotonic()
    desktop.key("Shift_R")
    after = f"{before + 1}/{before + 1}"
    check(wait_until(lambda: counter(ui) == after, 2) is not None, "the trigger key streams another answer at once",
          lambda: counter(ui))
    print("trigger key to the answer on screen: %.2f s" % (time.monotonic() - pressed))
    shot("second-answer")

    # The arrows are the overlay's while it shows; the video call never sees them.
    total = answer_count(ui)
    desktop.key("Left")
    check(wait_until(lambda: counter(ui) == f"{total - 1}/{total}", 5) is not None, "Left pages back",
          lambda: counter(ui))
    shot("left-arrow")
    desktop.key("Right")
    check(wait_until(lambda: counter(ui) == f"{total}/{total}", 5) is not None, "Right pages forward",
          lambda: counter(ui))
    desktop.key("Up")
    newest = transcript_rows(ui)[-1:]
    check(wait_until(lambda: transcript_rows(ui, selected=True) == newest, 5) is not None, "Up picks the newest line",
          lambda: transcript_rows(ui, selected=True))
    shot("up-arrow")
    desktop.key("Down")
    check(wait_until(lambda: transcript_rows(ui, selected=True) == [], 5) is not None, "Down past it lets it go")
    time.sleep(0.5)
    presses = call.presses()
    check(presses == ["Shift_R"], "no arrow reaches the video call: " + " ".join(presses))
    check(desktop.active_window() == call.window, "the video call kept the focus")
    check("focus out" not in call.lines, "the video call never lost the focus")

    # The same actions as the commands a desktop binds where it cannot hand keys to us: each
    # does what its key does, and the process that carries it ends at once.
    def act(option):
        started = time.monotonic()
        code = program.run_again(option)
        print("%s handed over in %.0f ms" % (option, (time.monotonic() - started) * 1000))
        return code == 0

    check(act("--trigger") and wait_until(lambda: counter(ui) == f"{total + 1}/{total + 1}", 5) is not None,
          "--trigger streams another answer", lambda: counter(ui))
    total += 1
    check(act("--previous-answer") and wait_until(lambda: counter(ui) == f"{total - 1}/{total}", 5) is not None,
          "--previous-answer pages back", lambda: counter(ui))
    check(act("--next-answer") and wait_until(lambda: counter(ui) == f"{total}/{total}", 5) is not None,
          "--next-answer pages forward", lambda: counter(ui))
    newest = transcript_rows(ui)[-1:]
    check(act("--select-up") and wait_until(lambda: transcript_rows(ui, selected=True) == newest, 5) is not None,
          "--select-up picks the newest line", lambda: transcript_rows(ui, selected=True))
    check(act("--select-down") and wait_until(lambda: transcript_rows(ui, selected=True) == [], 5) is not None,
          "--select-down lets it go")
    # Hidden, the overlay takes no move; each command is acted on before its process is let go,
    # so once the overlay shows again the moves made while hidden would already be visible.
    check(act("--toggle-overlay") and wait_until(lambda: not desktop.is_viewable(OVERLAY), 5),
          "--toggle-overlay hides the overlay")
    check(act("--previous-answer") and act("--select-up"), "moves are taken while hidden")
    check(act("--toggle-overlay") and wait_until(lambda: desktop.is_viewable(OVERLAY) and counter(ui), 5),
          "--toggle-overlay shows it again")
    check(counter(ui) == f"{total}/{total}" and transcript_rows(ui, selected=True) == [],
          "moves while hidden did nothing", lambda: (counter(ui), transcript_rows(ui, selected=True)))
    check(list(product.processes(os.path.realpath(program.executable))) == [program.process.pid],
          "no second process stays", product.processes(os.path.realpath(program.executable)))
    check(desktop.active_window() == call.window, "the video call kept the focus through the commands")
    # The documents first: their answer is started with the trigger key the user began with.
    documents_scene(desktop, program, server, ui, call, shot)
    # A question asked again may still bring its automatic answer after the key's: count what
    # came once nothing more is due.
    total = keybinds_scene(desktop, ui, program, call, settled_count(ui))

    # Stop; the transcript the user saw is what the server keeps.
    rows = transcript_rows(ui)
    ui.press(OVERLAY, "Stop")
    require(wait_until(lambda: ui.find(OVERLAY, "push button", "Start"), 30), "Stop ends the interview")
    shot("stopped")
    sessions = wait_until(lambda: [s for s in server.query("SELECT id, status FROM interview_sessions")
                                   if s[1] == "completed"], 20)
    require(sessions and len(sessions) == 1, "the server holds one completed session: %s"
            % server.query("SELECT id, status FROM interview_sessions"))
    session = sessions[0][0]
    stored = [r[0] for r in server.query(
        "SELECT content FROM transcript_lines WHERE session_id = ? ORDER BY timestamp_ms, entry_id", session)]
    print("overlay rows:", rows)
    print("stored lines:", stored)
    check(len(rows) >= 3, "the overlay showed both questions and the user's answer (%d rows)" % len(rows))
    check(stored[-len(rows):] == rows, "every line of the overlay is stored, in order, with its latest text")
    speakers = [r[0] for r in server.query(
        "SELECT speaker FROM transcript_lines WHERE session_id = ? ORDER BY timestamp_ms, entry_id", session)]
    turns = [who for i, who in enumerate(speakers) if i == 0 or speakers[i - 1] != who]
    check(turns == ["interviewer", "user", "interviewer"],
          "the question, the user's answer and the second question are stored as spoken", speakers)
    logs = server.query("SELECT question, answer FROM answer_logs WHERE session_id = ? ORDER BY created_at", session)
    check(len(logs) == total, "the server logged every answer", len(logs))
    check(all(answer.startswith("Offline draft") for _, answer in logs), "each log holds its answer")
    # An answer's question is the interviewer's newest line as it stood at the trigger.
    asked_lines = [content for content, who in zip(stored, speakers) if who == "interviewer"]
    check(all(question and any(line.startswith(question) for line in asked_lines) for question, _ in logs)
          and rows[-1].startswith(logs[-1][0]), "each answer answers the interviewer's line", logs)

    practice_scene(desktop, program, server, front, ui, shot)

    # Quit, as the desktop entry's action does.
    check(program.run_again("--quit") == 0 and program.process.wait(timeout=20) == 0, "Quit ends the program")

    # With nothing running, an action starts nothing and says why in one line.
    alone = subprocess.run([program.executable, "--next-answer"], env=program.env, capture_output=True, text=True,
                           timeout=30)
    check(alone.returncode != 0 and len(alone.stderr.splitlines()) == 1 and "not running" in alone.stderr
          and not product.processes(os.path.realpath(program.executable)), "an action with no program running fails plainly",
          alone.stderr)


def main():
    parser = argparse.ArgumentParser()
    for option in ("--program", "--server", "--video-call", "--press", "--screenshots"):
        parser.add_argument(option, required=True)
    parser.add_argument("--keep", action="store_true", help="keep the scratch folder, for a look at its logs")
    args = parser.parse_args()
    if not (shutil.which("chromium") or shutil.which("chromium-browser")):
        print("Chromium is not installed (scripts/install-deps.sh installs it): skipped")
        return 77
    return product.run_scene(lambda desktop: run(args, desktop),
                             lambda scratch: product.Desktop(scratch, args.press), keep=args.keep)


if __name__ == "__main__":
    sys.exit(main())
