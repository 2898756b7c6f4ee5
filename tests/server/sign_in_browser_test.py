# Headless Chromium driven over its DevTools protocol, for the whole-product test, which creates
# an account on the sign-in page in it and takes the page's screenshot. (The page's form rules are
# ServerTest's, through curl.)
import asyncio, contextlib, json, os, subprocess, tempfile, time, urllib.request

import websockets


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
        await self.call("Input.dispatchKeyEvent", type="keyDown", key=key, code=code, windowsVirtualKeyCode=vk, **({"text": text} if text else {}))
        await self.call("Input.dispatchKeyEvent", type="keyUp", key=key, code=code, windowsVirtualKeyCode=vk)


# The page of a fresh headless Chromium, driven over DevTools, sized and focused as a window
# in front would be.
@contextlib.asynccontextmanager
async def headless_page(chromium):
    # Chromium's helpers may still write to the profile for a moment after it ends.
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
        browser = subprocess.Popen([chromium, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                                    "--remote-debugging-port=0", f"--user-data-dir={profile}", "about:blank"],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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
                for method, params in [("Page.enable", {}), ("Network.enable", {}),
                                       ("Emulation.setDeviceMetricsOverride",
                                        dict(width=900, height=760, deviceScaleFactor=1, mobile=False)),
                                       # A headless page is not a focused window unless told so, and
                                       # then autofocus does nothing.
                                       ("Emulation.setFocusEmulationEnabled", dict(enabled=True))]:
                    await tools.call(method, **params)
                yield tools
        finally:
            browser.terminate()
            browser.wait(timeout=10)
