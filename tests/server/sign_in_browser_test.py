#!/usr/bin/python3
"""The sign-in page in a real browser (headless Chromium, driven over its DevTools protocol):
it loads, an account is created with the keyboard alone, and the browser is redirected to the
"ravlet" callback with a code and the state it was given. Exits 77 when Chromium is absent."""
import asyncio, base64, contextlib, json, os, shutil, subprocess, sys, tempfile, time, urllib.parse, urllib.request

import websockets

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from transcript_socket_test import Server, api, check, failures  # noqa: E402

SCREENSHOTS = sys.argv[2] if len(sys.argv) > 2 else "screenshots"


class DevTools:
    def __init__(self, ws):
        self.ws, self.next_id, self.events = ws, 0, []

    async def call(self, method, **params):
        self.next_id += 1
        await self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            message = json.loads(await asyncio.wait_for(self.ws.recv(), 20))
            if message.get("id") == self.next_id:
                return message.get("result", {})
            self.events.append(message)

    async def wait_for(self, predicate, timeout=20):
        deadline = time.time() + timeout
        while True:
            for event in self.events:
                if predicate(event):
                    return event
            if time.time() > deadline:
                return None
            try:
                self.events.append(json.loads(await asyncio.wait_for(self.ws.recv(), 1)))
            except asyncio.TimeoutError:
                pass

    async def key(self, key, code, vk, text=None):
        down = {"type": "keyDown", "key": key, "code": code, "windowsVirtualKeyCode": vk}
        if text:
            down["text"] = text
        await self.call("Input.dispatchKeyEvent", **down)
        await self.call("Input.dispatchKeyEvent", type="keyUp", key=key, code=code, windowsVirtualKeyCode=vk)

    async def screenshot(self, name):
        os.makedirs(SCREENSHOTS, exist_ok=True)
        data = (await self.call("Page.captureScreenshot", format="png"))["data"]
        with open(os.path.join(SCREENSHOTS, name), "wb") as f:
            f.write(base64.b64decode(data))


@contextlib.asynccontextmanager
async def headless_page(chromium):
    """The page of a fresh headless Chromium, driven over DevTools, sized and focused as a window
    in front would be."""
    # Chromium's helpers may still write to the profile for a moment after it ends.
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
        browser = subprocess.Popen([chromium, "--headless=new", "--no-sandbox", "--disable-gpu",
                                    "--no-first-run", "--remote-debugging-port=0", f"--user-data-dir={profile}",
                                    "about:blank"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            port_file = os.path.join(profile, "DevToolsActivePort")
            for _ in range(300):
                if os.path.exists(port_file) and open(port_file).read().strip():
                    break
                time.sleep(0.1)
            port = int(open(port_file).read().split()[0])
            targets = json.loads(urllib.request.urlopen(f"http://127.0.0.1:{port}/json/list").read())
            page = next(t for t in targets if t["type"] == "page")
            async with websockets.connect(page["webSocketDebuggerUrl"], max_size=None) as ws:
                tools = DevTools(ws)
                await tools.call("Page.enable")
                await tools.call("Network.enable")
                await tools.call("Emulation.setDeviceMetricsOverride", width=900, height=760, deviceScaleFactor=1,
                                 mobile=False)
                # A headless page is not a focused window unless told so, and then autofocus does nothing.
                await tools.call("Emulation.setFocusEmulationEnabled", enabled=True)
                yield tools
        finally:
            browser.terminate()
            browser.wait(timeout=10)


async def drive(chromium, base):
    async with headless_page(chromium) as tools:
        await tools.call("Page.bringToFront")
        await tools.call("Page.navigate", url=f"{base}/auth/login?state=BROWSER-STATE-42&mode=register")
        check(await tools.wait_for(lambda e: e.get("method") == "Page.loadEventFired") is not None, "page loads")
        # Autofocus is applied a moment after the load event.
        focused = None
        for _ in range(50):
            focused = (await tools.call("Runtime.evaluate", expression="document.activeElement.id"))["result"].get("value")
            if focused:
                break
            await asyncio.sleep(0.1)
        check(focused == "email", f"the address field has the focus at load ({focused})")
        # Keyboard only: type, Tab to the next field, Enter to send.
        await tools.call("Input.insertText", text="browser@example.org")
        await tools.key("Tab", "Tab", 9)
        await tools.call("Input.insertText", text="pa55word!")
        await tools.key("Tab", "Tab", 9)
        await tools.call("Input.insertText", text="pa55word!")
        await tools.screenshot("sign-in-create-account.png")
        await tools.key("Enter", "Enter", 13, "\r")
        redirect = await tools.wait_for(
            lambda e: e.get("method") == "Network.requestWillBeSent"
            and e["params"].get("redirectResponse", {}).get("status") == 303)
        check(redirect is not None, "the form redirects")
        if redirect:
            location = redirect["params"]["request"]["url"]
            parsed = urllib.parse.urlparse(location)
            query = urllib.parse.parse_qs(parsed.query)
            check(parsed.scheme == "ravlet" and parsed.netloc == "auth-callback", "callback " + location)
            check(query.get("state") == ["BROWSER-STATE-42"], "state returned")
            user = api(base, None, "POST", "/api/v1/auth/exchange", {"code": query["code"][0]})["user"]
            check(user["email"] == "browser@example.org", "the code signs in the new account")


def main():
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    if not chromium:
        print("Chromium is not installed (apt-get install chromium): skipped")
        return 77
    with tempfile.TemporaryDirectory() as data:
        server = Server(data)
        server.start()
        try:
            asyncio.run(drive(chromium, server.base))
        finally:
            server.stop()
    print("failures:", len(failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
