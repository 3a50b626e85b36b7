"""Drives Debian's chromium without a window, over a pipe: no port, no further library."""
import json
import os
import shutil
import subprocess
import tempfile

OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run", "--disable-background-networking",
           "--disable-component-update", "--disable-sync", "--hide-scrollbars", "--remote-debugging-pipe"]


def is_there():
    return shutil.which("chromium") is not None


class Browser:
    """A page in a browser of its own. Collects what goes wrong and what is requested."""

    def __init__(self, width=1440, height=900):
        self.folder = tempfile.mkdtemp()
        to_browser, self.output = os.pipe()
        self.input, from_browser = os.pipe()

        def pipes():  # the browser reads from 3 and writes to 4
            read, write = os.dup(to_browser), os.dup(from_browser)
            os.dup2(read, 3)
            os.dup2(write, 4)

        self.process = subprocess.Popen(
            ["chromium", *OPTIONS, f"--user-data-dir={self.folder}", f"--window-size={width},{height}", "about:blank"],
            preexec_fn=pipes, close_fds=False, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.rest, self.number, self.session = b"", 0, None
        self.events, self.errors, self.requests = [], [], []
        target = self.send("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.send("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.send(f"{domain}.enable")
        self.send("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.output)
        os.close(self.input)
        shutil.rmtree(self.folder, ignore_errors=True)

    def message(self):
        while b"\0" not in self.rest:
            got = os.read(self.input, 1 << 20)
            if not got:
                raise RuntimeError("chromium ended")
            self.rest += got
        text, self.rest = self.rest.split(b"\0", 1)
        return json.loads(text)

    def note(self, event):
        name, params = event.get("method"), event.get("params", {})
        self.events.append(name)
        if name == "Runtime.exceptionThrown":
            self.errors.append(json.dumps(params["exceptionDetails"])[:500])
        elif name == "Log.entryAdded" and params["entry"]["level"] in ("error", "warning"):
            self.errors.append(params["entry"]["text"])
        elif name == "Runtime.consoleAPICalled" and params["type"] in ("error", "warning", "assert"):
            self.errors.append(json.dumps(params["args"])[:500])
        elif name == "Network.requestWillBeSent":
            self.requests.append(params["request"]["url"])

    def send(self, method, **params):
        self.number += 1
        message = {"id": self.number, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.output, json.dumps(message).encode() + b"\0")
        while True:
            answer = self.message()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise RuntimeError(f"{method}: {answer['error']}")
                return answer["result"]
            self.note(answer)

    def open(self, path):
        self.events.clear()
        self.send("Page.navigate", url=f"file://{path}")
        while "Page.loadEventFired" not in self.events:
            self.note(self.message())

    def ask(self, expression):
        result = self.send("Runtime.evaluate", expression=f"JSON.stringify({expression})")
        if "exceptionDetails" in result:
            raise RuntimeError(json.dumps(result["exceptionDetails"])[:800])
        return json.loads(result["result"].get("value", "null"))

    def drag(self, start, end):
        for kind, (x, y) in (("mousePressed", start), ("mouseMoved", end), ("mouseReleased", end)):
            self.send("Input.dispatchMouseEvent", type=kind, x=x, y=y, button="left", buttons=1, clickCount=1)
