"""Chromium, driven by the five requests of WebDriver that are needed, in plain Python."""

import base64
import json
import os
import re
import subprocess
import urllib.error
import urllib.request
from pathlib import Path
from typing import Any

from testing.collector import Lines
from testing.processes import dies_with_us
from testing.waiting import PATIENCE

DRIVER = "/usr/bin/chromedriver"
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
OPTIONS = (
    "--headless=new",
    "--no-sandbox",  # which root has no use for
    "--disable-dev-shm-usage",
    "--disable-gpu",
    "--hide-scrollbars",  # or pictures of whole pages end in front of theirs
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
)


class WebDriverError(Exception):
    pass


class Element:
    def __init__(self, browser: "Browser", reference: str) -> None:
        self._browser, self._path = browser, f"/element/{reference}"
        self.reference = reference

    def ask(self, path: str) -> Any:
        return self._browser.ask("GET", self._path + path)

    def click(self) -> None:
        self._browser.ask("POST", f"{self._path}/click", {})

    def type(self, text: str) -> None:
        self._browser.ask("POST", f"{self._path}/value", {"text": text})

    @property
    def text(self) -> str:
        return self.ask("/text")

    @property
    def label(self) -> str:
        return self.ask("/computedlabel")

    @property
    def role(self) -> str:
        return self.ask("/computedrole")

    def screenshot(self) -> bytes:
        return base64.b64decode(self.ask("/screenshot"))

    def attribute(self, name: str) -> str | None:
        return self.ask(f"/attribute/{name}")


class Browser:
    """A session in a browser of its own, whose files are all in one folder."""

    def __init__(self, folder: Path, *options: str) -> None:
        folder.mkdir(parents=True, exist_ok=True)
        own = {"HOME": str(folder), "TMPDIR": str(folder)}
        self._driver = subprocess.Popen(
            dies_with_us(DRIVER, "--port=0"),
            env=os.environ | own,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
        )
        self._lines = Lines(os.dup(self._driver.stdout.fileno()), "chromedriver")
        self._driver.stdout.close()
        self._session = ""
        try:
            line = self._lines.items[self._lines.wait_for(r"started successfully on port \d+") - 1]
            self._url = f"http://127.0.0.1:{re.search(r'port ([0-9]+)', line)[1]}"
            words = [*OPTIONS, f"--user-data-dir={folder}/profile", *options]
            wanted = {
                "goog:chromeOptions": {"binary": "/usr/bin/chromium", "args": words},
                "goog:loggingPrefs": {"browser": "ALL"},
            }
            session = self._ask("POST", "/session", {"capabilities": {"alwaysMatch": wanted}}, patience=60)
            self._session = f"/session/{session['sessionId']}"
        except BaseException:
            self.close()
            raise

    def _ask(self, method: str, path: str, body: dict | None = None, patience: float = PATIENCE) -> Any:
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self._url + path, data, {"Content-Type": "application/json"}, method=method)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        try:
            with opener.open(request, timeout=patience) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise WebDriverError(json.load(error)["value"]["message"]) from None

    def ask(self, method: str, path: str, body: dict | None = None) -> Any:
        return self._ask(method, self._session + path, body)

    def open(self, url: str) -> None:
        self.ask("POST", "/url", {"url": url})

    def run(self, script: str, *arguments: Any) -> Any:
        return self.ask("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def find(self, selector: str) -> list[Element]:
        found = self.ask("POST", "/elements", {"using": "css selector", "value": selector})
        return [Element(self, item[ELEMENT]) for item in found]

    def find_one(self, selector: str) -> Element:
        (found,) = self.find(selector)
        return found

    def named(self, selector: str, label: str) -> Element:
        (found,) = [element for element in self.find(selector) if element.label == label]
        return found

    def press(self, *keys: str) -> None:
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self.ask("POST", "/actions", {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]})

    def resize(self, width: int, height: int) -> None:
        """The window's inside, whatever the least width of a window is."""
        self.command(
            "Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False
        )

    def command(self, name: str, **parameters: Any) -> Any:
        """Of the browser's own protocol."""
        return self.ask("POST", "/goog/cdp/execute", {"cmd": name, "params": parameters})

    def screenshot(self) -> bytes:
        return base64.b64decode(self.ask("GET", "/screenshot"))

    def whole_page(self) -> bytes:
        taken = self.command("Page.captureScreenshot", captureBeyondViewport=True, format="png")
        return base64.b64decode(taken["data"])

    def complaints(self) -> list[str]:
        """What stands in the console since it was asked for last."""
        logged = self.ask("POST", "/se/log", {"type": "browser"})
        return [entry["message"] for entry in logged if entry["level"] in ("SEVERE", "WARNING")]

    def new_tab(self) -> str:
        return self.ask("POST", "/window/new", {"type": "tab"})["handle"]

    def switch(self, handle: str) -> None:
        self.ask("POST", "/window", {"handle": handle})

    def tab(self) -> str:
        return self.ask("GET", "/window")

    def close(self) -> None:
        if self._session:
            self._ask("DELETE", self._session)
        self._driver.terminate()
        self._driver.wait(PATIENCE)
        self._lines.close()

    def __enter__(self) -> "Browser":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
