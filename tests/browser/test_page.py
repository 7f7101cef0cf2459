"""The page of the virtual camera as a person sees it, in chromium, with the real daemon behind it."""

import contextlib
import os
import time
from pathlib import Path

import pytest
from testing.browser import Browser, Element
from testing.camera import LOCAL, VirtualCamera
from testing.pipes import PIPE_FOLDER
from testing.proxy import Proxy
from testing.settings import SERVER, handler, source
from testing.waiting import wait_until

RELAY = {"BankName": LOCAL, "Index": 0, "Mode": 3, "OnInterval.msec": 300, "OffInterval.msec": 200, "PulseCount": 3}
SETTINGS = (
    SERVER
    | source(1, "Alarm", BankName=LOCAL, Index=2)
    | source(2, "Analytics")
    | handler(1, "Events/Source#1", handler_type="Relay", **RELAY)
    | handler(2, "Events/Source#1", handler_type="Preset", EnabledTimes="100-100", Id=4)
    | handler(3, "Events/Source#2", handler_type="Tour", EnabledDays="MTW", Id=1)
)
HOSTILE = '<script>document.title="bad"</script><img src=x onerror=document.title="bad">'
WIDTHS = (320, 800, 1400)
SCREENSHOTS = Path(os.environ["HALVEK_SCREENSHOTS"])
FLOOD = int(os.environ.get("HALVEK_PAGE_FLOOD", "5000"))  # alarms
# Keys, as WebDriver names them.
TAB, ENTER, SPACE = "\ue004", "\ue007", " "


@pytest.fixture
def monitor(monitor_of, page):
    """The daemon, which pulses a relay when alarm input 2 changes."""
    return monitor_of(SETTINGS)


def wait_for_text(browser: Browser, selector: str, text: str, **options) -> None:
    wait_until(lambda: text in browser.find_one(selector).text, f"'{text}' in {selector}", **options)


def alarm(browser: Browser, index: int) -> Element:
    """The switch of an alarm input; nothing but the order of the switches is taken for granted."""
    wait_until(lambda: len(browser.find("#alarms [role=switch]")) == 16, "the switches")
    found = browser.find("#alarms [role=switch]")[index]
    assert found.label == f"Alarm {LOCAL} {index}"
    return found


def wait_for_alarm(browser: Browser, index: int, active: bool = True) -> None:
    switch = alarm(browser, index)
    wait_until(lambda: switch.attribute("aria-checked") == str(active).lower(), f"alarm {index} is {active}")


def test_a_click_on_an_alarm_makes_the_daemon_pulse_the_lamp(browser, monitor, camera, listener):
    switch = alarm(browser, 2)
    # What the lamp says, at each change.
    browser.run(
        "const lamp = document.querySelector('#relays li .name'); window.seen = [lamp.textContent];"
        "new MutationObserver(() => window.seen.push(lamp.textContent))"
        ".observe(lamp, {childList: true, characterData: true, subtree: true});"
    )
    assert switch.attribute("aria-checked") == "false"
    switch.click()
    listener.wait_for_signal("com.kelto.AlarmV3", "StateChanged", LOCAL, 2, True)
    wait_for_alarm(browser, 2)
    on, off = f"{LOCAL} 0 on", f"{LOCAL} 0 off"
    wait_until(lambda: browser.run("return window.seen.length") >= 7, "three pulses")
    assert browser.run("return window.seen") == [off, on, off, on, off, on, off]
    wait_for_text(browser, "#events", "alarmIndex=2")
    wait_for_text(browser, "#actions", "RelayV3.Activate")
    wait_for_text(browser, "#said", "alarm Local:2 active")


def test_the_lamp_is_another_one_to_the_eye_while_it_is_on(browser, monitor_of):
    slow = RELAY | {"OnInterval.msec": 5000, "OffInterval.msec": 5000, "PulseCount": 2}
    monitor_of(SETTINGS | handler(1, "Events/Source#1", handler_type="Relay", **slow))
    switch = alarm(browser, 2)
    lamp = browser.find("#relays li .lamp")[0]
    seen = [lamp.screenshot()]
    switch.click()
    for text in (f"{LOCAL} 0 on", f"{LOCAL} 0 off", f"{LOCAL} 0 on"):
        wait_for_text(browser, "#relays li:first-child", text)
        seen.append(lamp.screenshot())
    off, on = seen[:2]
    assert off != on and seen == [off, on, off, on]


def clicks_to_lamp(browser: Browser) -> tuple[list[float], list[float]]:
    """How long each of twenty took, in milliseconds of the browser's own clock, and a plain request with a frame."""
    browser.run(
        """
        window.found = null;
        const lamp = document.querySelector('#relays li');
        const button = document.querySelectorAll('#alarms [role=switch]')[2];
        const [clicks, requests] = [[], []];
        const wait = (until) => new Promise(resolve => {
          const look = () => until() ? resolve() : setTimeout(look, 1);
          look();
        });
        const isAtRest = () => !lamp.classList.contains('lit') && !lamp.textContent.includes('pulse');
        (async () => {
          for (let round = 0; round < 20; round++) {
            let begin = performance.now();
            await fetch('/icon.svg', { cache: 'no-store' });
            await new Promise(requestAnimationFrame);
            requests.push(performance.now() - begin);
            begin = performance.now();
            button.click();
            await wait(() => lamp.classList.contains('lit'));
            clicks.push(performance.now() - begin);
            await wait(isAtRest);
          }
          window.found = [clicks, requests];
        })();
        """
    )
    wait_until(lambda: browser.run("return window.found"), "twenty clicks", patience=120)
    clicks, requests = map(sorted, browser.run("return window.found"))
    print(f"click to lamp, ms: {list(map(round, clicks))}; a request: {list(map(round, requests))}")
    return clicks, requests


def test_a_click_is_seen_at_the_lamp_within_a_tenth_of_a_second(browser, monitor):
    """Nineteen of twenty; on a machine that has more to do, within what four requests take, one of three times."""
    alarm(browser, 2)

    def is_quick() -> bool:
        clicks, requests = clicks_to_lamp(browser)
        return clicks[-2] < max(100, 4 * requests[-2])

    assert any(is_quick() for _ in range(3))


def test_the_picture_changes_within_two_seconds(browser):
    address = "return document.getElementById('picture').src"
    wait_until(lambda: "picture" in browser.run(address), "a picture")
    width = "const picture = document.getElementById('picture'); return picture.complete && picture.naturalWidth"
    wait_until(lambda: browser.run(width) == 320, "the picture is loaded")
    before = browser.run(address)
    wait_until(lambda: browser.run(address) != before, "another picture")
    before, begin = browser.run(address), time.monotonic()
    wait_until(lambda: browser.run(address) != before, "yet another picture")
    assert time.monotonic() - begin < 2


def test_the_page_says_that_the_camera_is_away_and_lives_when_it_is_back(browser, camera, bus, tmp_path):
    wait_for_text(browser, "#status", "The camera is there")
    browser.run("window.same = true")
    camera.process.kill()
    camera.process.wait()
    wait_for_text(browser, "#status", "The camera is away")
    alarm(browser, 1).click()
    wait_for_text(browser, "#refusal", "The camera is away")
    with VirtualCamera(bus, tmp_path / "again") as again:
        wait_for_text(browser, "#status", "The camera is there")
        alarm(browser, 1).click()
        again.lines.wait_for("alarm Local:1 active")
        wait_for_alarm(browser, 1)
        wait_until(lambda: browser.find_one("#refusal").text == "", "the refusal is gone")
        assert browser.run("return window.same") is True
    # A browser puts an order that failed into its console; this one was meant to.
    assert all("502" in complaint for complaint in browser.complaints())


def test_a_page_whose_server_was_away_goes_on_without_a_reload(browser, page, camera, start_page):
    wait_for_text(browser, "#status", "The camera is there")
    assert page.stop() == 0
    wait_for_text(browser, "#status", "server is away")
    again = start_page("--port", str(page.port))
    wait_for_text(browser, "#status", "The camera is there")
    camera.set_alarm(LOCAL, 4, True)
    wait_for_alarm(browser, 4)
    # The new server has another token.
    alarm(browser, 5).click()
    camera.lines.wait_for("alarm Local:5 active")
    assert again.stop() == 0
    wait_for_text(browser, "#status", "server is away")
    browser.complaints()


def test_eight_tabs_all_load_and_those_that_nobody_sees_hold_no_stream(browser, page, camera):
    wait_for_text(browser, "#status", "The camera is there")
    # To look at a tab is to bring it to the front.
    browser.run(
        "window.changes = [];"
        "addEventListener('visibilitychange', () => window.changes.push([document.hidden, stream !== null]))"
    )
    first = browser.tab()
    tabs = [browser.new_tab() for _ in range(7)]
    for tab in tabs:
        browser.switch(tab)
        browser.open(page.url)
        wait_for_text(browser, "#status", "The camera is there")
    camera.set_alarm(LOCAL, 3, True)
    wait_for_alarm(browser, 3)
    for tab in tabs:
        browser.switch(tab)
        browser.ask("DELETE", "/window")
    browser.switch(first)
    browser.command("Page.bringToFront")
    wait_for_alarm(browser, 3)
    changes = browser.run("return window.changes")
    assert [True, False] in changes and all(is_hidden != is_streaming for is_hidden, is_streaming in changes)


@pytest.fixture
def proxy(page):
    with contextlib.closing(Proxy(page.port)) as started:
        yield started


def test_a_stream_that_is_cut_for_five_seconds_leaves_no_gap(browser, camera, proxy):
    browser.open(f"http://127.0.0.1:{proxy.port}/")
    wait_for_text(browser, "#status", "The camera is there")
    camera.set_idle_state(1000)
    wait_for_text(browser, "#said", "idle state 1000")
    proxy.cut()
    wait_for_text(browser, "#status", "server is away")
    for number in range(1001, 1051):
        camera.set_idle_state(number)
    camera.let_pass(5000)
    proxy.mend()
    camera.set_idle_state(2000)
    wait_for_text(browser, "#said", "idle state 2000")
    lines = [line.split(" ")[-1] for line in browser.find_one("#said").text.splitlines() if "idle state" in line]
    assert [int(number) for number in reversed(lines)] == [*range(1000, 1051), 2000]
    # It was meant to be cut, and is once more when the proxy goes.
    browser.open("about:blank")
    browser.complaints()


def test_what_happened_while_nobody_looked_is_shown_afterwards(browser, camera):
    wait_for_text(browser, "#status", "The camera is there")
    first = browser.tab()
    browser.switch(browser.new_tab())
    for number in range(10, 20):
        camera.set_idle_state(number)
    browser.ask("DELETE", "/window")
    browser.switch(first)
    browser.command("Page.bringToFront")
    wait_for_text(browser, "#said", "idle state 19")
    said = browser.find_one("#said").text
    assert [said.count(f"idle state {number}") for number in range(10, 20)] == [1] * 10


def test_whatever_an_event_says_is_text(browser, monitor, camera, page):
    wait_for_text(browser, "#status", "The camera is there")
    camera.raise_alert(HOSTILE, HOSTILE, "", HOSTILE, HOSTILE, [], [(0.1, 0.1), (0.9, 0.9)], "", "")
    wait_for_text(browser, "#events", HOSTILE)
    assert page.post("/post", {"type": HOSTILE, "props": {"x": HOSTILE}}).status == 204
    wait_until(lambda: f"x={HOSTILE}" in browser.find_one("#events").text, "the posted event")
    wait_for_text(browser, "#explain-note", HOSTILE)
    assert browser.run("return document.title") == "Virtual camera"
    assert browser.run("return document.querySelectorAll('main script, main img').length") == 1


def test_an_alert_draws_its_box_on_the_picture(browser, monitor):
    wait_for_text(browser, "#status", "The camera is there")
    browser.named("form button", "Raise the alert").click()
    wait_until(lambda: browser.find("#boxes polygon"), "the box")
    assert browser.find_one("#boxes polygon").attribute("points") == "0.3,0.25 0.6,0.25 0.6,0.8 0.3,0.8"
    wait_until(lambda: browser.find("#boxes polygon") == [], "the box is gone")


def test_an_event_lights_its_way_in_the_wiring(browser, monitor):
    wait_until(lambda: browser.find("#wiring svg [data-group]"), "the wiring")
    drawn = browser.find_one("#wiring").text
    assert all(text in drawn for text in ("Handler#1", "EnabledTimes=100-100", "preset 4", "tour 1"))
    assert browser.find("#wiring style, #wiring script, #wiring [style]") == []
    edge = "#wiring path[data-from='Events/Source#1'][data-to='Events/Handler#{}']"
    alarm(browser, 2).click()
    wait_until(lambda: browser.find(f"{edge.format(1)}.lit"), "the way to the relay")
    # As far as the handler that does not act, and no further.
    assert browser.find(f"{edge.format(2)}.reached") and browser.find(f"{edge.format(2)}.lit") == []
    lit = "return [...document.querySelectorAll('#wiring .action.lit')].map((part) => part.dataset.group)"
    assert browser.run(lit) == ["Events/Handler#1", "Extern"]
    wait_until(lambda: browser.find("#wiring .lit, #wiring .reached") == [], "the light is out")


def test_the_wiring_follows_the_settings(browser, monitor):
    wait_until(lambda: browser.find("#wiring svg"), "the wiring")
    monitor.write_settings(SERVER | source(3, "Doorbell") | handler(7, "Events/Source#3", handler_type="Preset", Id=9))
    wait_until(lambda: "preset 9" in browser.find_one("#wiring").text, "the new wiring", patience=20)
    browser.run("showWiring({ problem: 'gone', drawing: '' })")
    assert browser.find("#wiring svg") == [] and "gone" in browser.find_one("#wiring-note").text


def test_the_page_says_of_the_last_event_who_acts_and_why_the_others_do_not(browser, monitor):
    wait_for_text(browser, "#status", "The camera is there")
    alarm(browser, 2).click()
    wait_until(lambda: len(browser.find("#explain li")) == 3, "a line for each handler")
    acting, closed, other = (row.text for row in browser.find("#explain li"))
    assert "acts" in acting and "Handler#1 Relay" in acting
    assert "out-of-time" in closed and "Handler#2 Preset" in closed and "100-100" in closed
    assert "other-type" in other and "Handler#3 Tour" in other
    said = browser.find_one("#explain-note").text
    assert said.startswith("Alarm at ")
    # Asked once more of the same event, it stays.
    asked = "return performance.getEntriesByType('resource').filter((one) => one.name.endsWith('/explain')).length"
    before = browser.run(asked)
    browser.run("explanation.ask()")
    wait_until(lambda: browser.run(asked) > before, "another answer")
    assert browser.run("return new Promise(requestAnimationFrame).then(() => true)")
    assert browser.find_one("#explain-note").text == said and len(browser.find("#explain li")) == 3


def test_without_halvekctl_the_page_works_and_says_what_is_missing(browser, start_page, camera):
    other = start_page("--events", f"{PIPE_FOLDER}/zz-other.halvek.any", "--halvekctl", "/nowhere/halvekctl")
    browser.open(other.url)
    wait_for_text(browser, "#wiring-note", "Not shown: /nowhere/halvekctl cannot be run")
    alarm(browser, 2).click()
    wait_for_alarm(browser, 2)
    assert browser.find("#wiring svg") == []


def test_a_refusal_is_read_out_and_goes_with_the_next_order(browser):
    wait_for_text(browser, "#status", "The camera is there")
    browser.named("form button", "Post the event").click()
    wait_for_text(browser, "#refusal", "there is no event pipe")
    assert browser.find_one("#refusal").role == "alert"
    browser.named("[role=switch]", "Recording A").click()
    wait_until(lambda: browser.find_one("#refusal").text == "", "the refusal is gone")
    # A browser puts an order that failed into its console; this one was meant to.
    assert len(browser.complaints()) == 1


def test_head_recording_and_faults_do_what_they_are_told(browser, camera):
    wait_until(lambda: browser.find("#presets button"), "the presets")
    browser.named("#presets button", "Preset 3").click()
    camera.lines.wait_for("head comes to rest at preset 3")
    wait_for_text(browser, "#head-text", "At rest at 30 degrees")
    browser.named("#tours button", "Tour 1").click()
    camera.lines.wait_for("head sets off on tour 1")
    wait_for_text(browser, "#head-text", "then 3")
    browser.named("#recording button", "Recording B").click()
    camera.lines.wait_for(r"recording on \(0, 1\)")
    browser.named("#faults select", "RelayV3").type("slow")
    camera.lines.wait_for("fault of RelayV3: slow")
    camera.set_fault("RelayV3", "error")
    value = "return document.querySelectorAll('#faults select')[1].value"
    wait_until(lambda: browser.run(value) == "error", "the fault")


def test_everything_has_a_name_and_a_role(browser):
    alarm(browser, 0)
    wait_until(lambda: len(browser.find("#faults select")) == 6, "the faults")
    named = [(found.role, found.label) for found in browser.find("button, input, select, textarea")]
    assert len(named) > 40 and all(role and label for role, label in named)
    assert len(set(named)) == len(named), "two controls are called the same"
    assert {found.role for found in browser.find("main section")} == {"region"}
    relays = browser.named("main section", "Relays")
    assert relays.role == "region" and f"{LOCAL} 0 off" in relays.text
    assert browser.find_one("#status").role == "status"


def test_it_works_without_a_mouse(browser, camera):
    alarm(browser, 0)
    for _ in range(3):
        browser.press(TAB)
    label = browser.run("return document.activeElement.textContent")
    assert label == f"Alarm {LOCAL} 2"
    browser.press(SPACE)
    camera.lines.wait_for("alarm Local:2 active")
    wait_for_alarm(browser, 2)
    browser.press(ENTER)
    camera.lines.wait_for("alarm Local:2 inactive")
    assert browser.run("return getComputedStyle(document.activeElement).outlineStyle") == "solid"


@pytest.mark.parametrize("width", WIDTHS)
def test_it_fits_its_width(browser, monitor, page, width):
    for number in range(3):
        page.post("/alert", {"class": "x" * 300, "ruleName": f"rule {number}"})
    wait_for_text(browser, "#events", "rule 2")
    browser.resize(width, 900)
    needed, there = browser.run("return [document.documentElement.scrollWidth, window.innerWidth]")
    assert there == width and needed <= there


def pale_texts(browser: Browser) -> list[str]:
    """Texts whose contrast with what is behind them is less than 4.5 to 1."""
    return browser.run(
        """
        const parse = (c) => c.match(/[\\d.]+/g).map(Number);
        const linear = (v) => (v /= 255) <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4;
        const light = ([r, g, b]) => 0.2126 * linear(r) + 0.7152 * linear(g) + 0.0722 * linear(b);
        const ground = (e) => {
          for (; e; e = e.parentElement) {
            const c = parse(getComputedStyle(e).backgroundColor);
            if (c.length === 3 || c[3] > 0) return c;
          }
          return [255, 255, 255];
        };
        const bad = [];
        for (const e of document.querySelectorAll('body *')) {
          const own = [...e.childNodes].some(n => n.nodeType === 3 && n.textContent.trim());
          if (!own || e.tagName === 'OPTION' || e.tagName === 'NOSCRIPT') continue;
          const [one, other] = [light(parse(getComputedStyle(e).color)), light(ground(e))].sort((a, b) => b - a);
          const ratio = (one + 0.05) / (other + 0.05);
          if (ratio < 4.5) bad.push(`${e.tagName} ${e.textContent.slice(0, 30)}: ${ratio.toFixed(2)}`);
        }
        return bad;
        """
    )


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_it_can_be_read_light_and_dark_before_and_after_an_event(browser, monitor, page, scheme):
    switch = alarm(browser, 2)
    browser.command("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])

    def look(when: str) -> None:
        for width in WIDTHS:
            browser.resize(width, 900)
            (SCREENSHOTS / f"{width}-{scheme}-{when}.png").write_bytes(browser.whole_page())
        assert pale_texts(browser) == []

    wait_until(lambda: browser.find("#wiring svg"), "the wiring")
    look("before")
    switch.click()
    box = [[0.3, 0.25], [0.6, 0.25], [0.6, 0.8], [0.3, 0.8]]
    page.post("/alert", {"class": "Person", "ruleName": "Gate", "boxPoints": box})
    wait_until(lambda: browser.find("#relays .lit") and browser.find("#boxes polygon"), "the lamp and the box")
    wait_until(lambda: browser.find("#wiring .lit"), "the way of the event")
    look("after")


def test_the_picture_of_the_readme_is_of_an_alarm_and_its_way(browser, monitor_of, page):
    monitor_of(SETTINGS | handler(1, "Events/Source#1", handler_type="Relay", **RELAY | {"OnInterval.msec": 5000}))
    wait_until(lambda: browser.find("#wiring svg [data-group]"), "the wiring")
    browser.resize(1400, 900)
    switch = alarm(browser, 2)

    def is_lit() -> bool:
        return all(map(browser.find, ("#relays .lit", "#wiring path.lit", "#boxes polygon")))

    def is_taken() -> bool:
        """On a busy machine the light is out before the picture is taken."""
        page.post("/alert", {"boxPoints": [[0.3, 0.25], [0.6, 0.25], [0.6, 0.8], [0.3, 0.8]]})
        wait_until(lambda: browser.find("#boxes polygon"), "the box")
        switch.click()
        wait_until(lambda: browser.find("#wiring path.lit"), "the way")
        taken = browser.whole_page()
        (SCREENSHOTS / "readme.png").write_bytes(taken)
        return is_lit()

    wait_until(is_taken, "a picture with the lamp and the way", patience=120)


def test_a_thousand_alarms_a_second_leave_the_page_usable(browser, monitor_of, camera):
    monitor_of(SETTINGS | source(4, "Alarm", BankName=LOCAL, Index=6))
    alarm(browser, 5)
    browser.run(
        """
        const button = document.querySelectorAll('#alarms [role=switch]')[5];
        window.times = [];
        window.onceMore = true;
        (async () => {
          while (window.onceMore) {
            const [begin, before] = [performance.now(), button.getAttribute('aria-checked')];
            button.click();
            while (button.getAttribute('aria-checked') === before) await new Promise(done => setTimeout(done, 1));
            window.times.push(performance.now() - begin);
          }
        })();
        """
    )
    wait_until(lambda: browser.run("return window.times.length") > 0, "a click before the others")
    before = browser.run("return window.times.length")
    rate = camera.flood(LOCAL, 6, FLOOD, 1000)
    times = sorted(browser.run("window.onceMore = false; return window.times")[before:])
    left_out = [browser.find_one(f"#{name}").text for name in ("missed", "said-note", "events-note")]
    print(f"{rate:.0f} alarms a second; clicks, ms: {times[0]:.0f} to {times[-1]:.0f}, of {len(times)}; {left_out}")
    assert len(times) > 3 and times[len(times) // 2] < 1000
    wait_for_text(browser, "#said", "alarm Local:6 inactive")
    assert all(len(browser.find(f"#{name} li")) <= 200 for name in ("said", "events"))
    wait_for_text(browser, "#explain-note", "Alarm at")


def test_what_is_too_much_is_counted(browser, camera):
    wait_for_text(browser, "#status", "The camera is there")
    first = browser.tab()
    browser.switch(browser.new_tab())
    camera.flood(LOCAL, 6, 3000, 3000)
    browser.ask("DELETE", "/window")
    browser.switch(first)
    browser.command("Page.bringToFront")
    wait_for_text(browser, "#missed", "Too much came at a time")
    missed = int(browser.find_one("#missed").text.split()[-5])
    # States and pictures count too.
    assert 3000 <= missed <= 6000
    # Those that came last are in the server's memory all the same.
    wait_for_text(browser, "#said", "alarm Local:6 inactive")
