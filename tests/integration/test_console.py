# The web console that the daemon serves on its own address, driven in headless Chromium through
# WebDriver: its files and their policy, saying and watching a sentence word by word, posting
# and stopping, calling a method, following a memory key and the log, and a host that requires a
# token. Controls are found by their labels, as a screen reader finds them. Screenshots go to
# the build tree (tests/console-screenshots).

import html.parser
import json
import os
import shutil
import socket
import tempfile
import time
import unittest
import urllib.error
import urllib.request

from bexkodaemon import BUILD_DIR, Daemon

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.options import Options
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError as e:  # scripts/install-deps.sh installs python3-selenium
    webdriver = None
    MISSING = "python3-selenium is not installed: %s" % e
else:
    MISSING = None

CHROMEDRIVER = "/usr/bin/chromedriver"
CHROMIUM = shutil.which("chromium") or "/usr/bin/chromium"
SCREENSHOTS = os.path.join(BUILD_DIR, "tests", "console-screenshots")
SENTENCE = ("One two three \\mrk=1\\ four five six seven \\mrk=2\\ eight nine ten eleven "
            "twelve.")
WORDS = "One two three four five six seven eight nine ten eleven twelve".split()
LONG = " ".join(["This long sentence goes on and on so that there is time to stop it."] * 8)


def console_url(daemon):
    return "http" + daemon.url[2:] + "/"


class Browser:
    # Headless Chromium with a profile of its own, driven through chromedriver.

    def __init__(self):
        if MISSING:
            raise unittest.SkipTest(MISSING)
        for program in (CHROMEDRIVER, CHROMIUM):
            if not os.path.exists(program):
                raise unittest.SkipTest("%s is not installed (scripts/install-deps.sh installs "
                                        "chromium and chromium-driver)" % program)
        self.profile = tempfile.mkdtemp(prefix="bexko-chromium-")
        options = Options()
        options.binary_location = CHROMIUM
        for flag in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic",
                     "--no-first-run", "--disable-background-networking",
                     "--disable-component-update", "--disable-sync",
                     "--disable-dev-shm-usage", "--window-size=1440,1000",
                     "--user-data-dir=" + self.profile):
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service(CHROMEDRIVER), options=options)
        self.driver.set_page_load_timeout(30)

    def quit(self):
        try:
            self.driver.quit()
        finally:
            shutil.rmtree(self.profile, ignore_errors=True)


class ConsoleTestCase(unittest.TestCase):
    # One daemon (clock output: words come when they would be heard) and one browser per class.

    DAEMON_ARGS = ("--audio-output", "clock")
    AUTH = False

    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.driver = cls.browser.driver
        try:
            cls.daemon = Daemon(*cls.DAEMON_ARGS, auth=cls.AUTH).start()
        except Exception:
            cls.browser.quit()
            raise
        os.makedirs(SCREENSHOTS, exist_ok=True)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()
        status, log = cls.daemon.stop(), cls.daemon.log()
        cls.daemon.cleanup()
        if status != 0:
            raise AssertionError("bexko exited with %s\n%s" % (status, log))

    def tearDown(self):
        errors = [entry for entry in self.driver.get_log("browser")
                  if entry["level"] == "SEVERE" and "favicon" not in entry["message"]
                  and "WebSocket connection" not in entry["message"]]
        self.assertEqual(errors, [], "errors in the browser's console")

    # Finding and waiting ------------------------------------------------------------------

    def wait(self, predicate, timeout=20.0, message="condition", interval=0.05):
        # The page and the host change under the predicate: an element gone, a call answered
        # with an error before the change it waits for. Such failures count as "not yet".
        deadline = time.monotonic() + timeout
        last = None
        while True:
            try:
                value = predicate()
            except AssertionError:
                raise
            except Exception as e:  # WebDriverException, BexkoError, a value not there yet
                value, last = None, e
            if value:
                return value
            if time.monotonic() > deadline:
                self.screenshot("timeout-" + self.id().rsplit(".", 1)[-1])
                self.fail("timed out waiting for %s (last failure: %r)" % (message, last))
            time.sleep(interval)

    def labelled(self, label):
        # The control whose <label> or aria-label reads `label`, as assistive technology names it.
        found = self.driver.find_elements(
            By.XPATH, "//label[normalize-space(text())=%s]" % xpath_string(label))
        for element in found:
            target = element.get_attribute("for")
            if target:
                return self.driver.find_element(By.ID, target)
        return self.driver.find_element(By.XPATH, "//*[@aria-label=%s]" % xpath_string(label))

    def find_button(self, name):
        # The visible button whose text or aria-label is `name`, or None.
        quoted = xpath_string(name)
        for element in self.driver.find_elements(
                By.XPATH, "//button[not(@role='tab') and (normalize-space(.)=%s or @aria-label=%s)]"
                % (quoted, quoted)):
            if element.is_displayed():
                return element
        return None

    def button(self, name, timeout=20.0):
        # The visible button named `name`, once there is one.
        return self.wait(lambda: self.find_button(name), timeout, message="a button %r" % name)

    def tab(self, name):
        tab = self.driver.find_element(By.XPATH, "//*[@role='tab' and normalize-space(.)=%s]"
                                       % xpath_string(name))
        tab.click()
        self.wait(lambda: tab.get_attribute("aria-selected") == "true", message="tab " + name)

    def open_console(self, url=None):
        # From a blank page, so that an address differing only in its fragment loads anew.
        self.driver.get("about:blank")
        self.driver.get(url or console_url(self.daemon))
        self.wait(lambda: self.driver.find_element(By.TAG_NAME, "body").get_attribute(
            "data-ready") == "true", message="the console to connect")
        self.assertEqual(self.driver.find_element(By.ID, "connection").get_attribute(
            "data-state"), "open")

    def screenshot(self, name):
        path = os.path.join(SCREENSHOTS, name + ".png")
        self.driver.save_screenshot(path)
        return path

    def top_task(self):
        # (id, status, text) of the latest task in the timeline, or None.
        return self.driver.execute_script(
            "const t = document.querySelector('#timeline > li');"
            "return t ? [Number(t.dataset.task), t.dataset.status,"
            " t.querySelector('.task-text').textContent] : null;")

    def set_text(self, element, text):
        element.clear()
        element.send_keys(text)

    def client(self):
        from bexko import Client
        token = getattr(self, "token", None)
        client = Client(self.daemon.url, token=token)
        self.addCleanup(client.close)
        return client


def xpath_string(text):
    if "'" not in text:
        return "'%s'" % text
    return "concat('%s')" % text.replace("'", "', \"'\", '")


class PageChecker(html.parser.HTMLParser):
    # Collects what a page must not carry under the console's policy: inline scripts, style
    # attributes, event-handler attributes, foreign sources.

    def __init__(self):
        super().__init__()
        self.problems = []

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        for name in attributes:
            if name == "style" or name.startswith("on"):
                self.problems.append("<%s %s>" % (tag, name))
        if tag == "script" and not attributes.get("src"):
            self.problems.append("inline <script>")
        if tag == "style":
            self.problems.append("<style> element")
        for name in ("src", "href"):
            value = attributes.get(name) or ""
            if "://" in value or value.startswith("//"):
                self.problems.append("foreign %s=%s" % (name, value))


class ConsoleFiles(ConsoleTestCase):

    def test_the_files_come_with_their_type_and_a_policy_that_forbids_inline_and_foreign_code(self):
        base = console_url(self.daemon)
        port = self.daemon.url.rsplit(":", 1)[1]
        for name, kind in (("", "text/html"), ("main.js", "text/javascript"),
                           ("console.css", "text/css"), ("favicon.svg", "image/svg+xml")):
            with self.subTest(name=name):
                with urllib.request.urlopen(base + name, timeout=10) as response:
                    self.assertEqual(response.status, 200)
                    self.assertTrue(response.headers["Content-Type"].startswith(kind))
                    self.assertEqual(response.headers["X-Content-Type-Options"], "nosniff")
                    policy = response.headers["Content-Security-Policy"]
                    body = response.read().decode()
                self.assertIn("script-src 'self'", policy)
                self.assertIn("object-src 'none'", policy)
                self.assertIn("frame-ancestors 'none'", policy)
                self.assertIn("ws://127.0.0.1:%s" % port, policy)
                self.assertNotIn("unsafe", policy)
                if name == "":
                    checker = PageChecker()
                    checker.feed(body)
                    self.assertEqual(checker.problems, [])
        for path, status in (("nothing.js", 404), ("%2e%2e/%2e%2e/etc/passwd", 400)):
            with self.subTest(path=path):
                with self.assertRaises(urllib.error.HTTPError) as refused:
                    urllib.request.urlopen(base + path, timeout=10)
                self.assertEqual(refused.exception.code, status)
        # Without a token the daemon gives the plain address of the console.
        self.assertIn("web console: " + base, self.daemon.log())

    def test_every_control_has_a_name_and_the_tabs_answer_the_keyboard(self):
        self.open_console()
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, "#speech-parameters input"),
                  message="the voice parameters")
        unnamed = self.driver.execute_script("""
            const unnamed = [];
            for (const c of document.querySelectorAll('input, select, textarea, button')) {
              const named = (c.labels && c.labels.length) || c.getAttribute('aria-label') ||
                c.getAttribute('aria-labelledby') || (c.tagName === 'BUTTON' && c.textContent.trim());
              if (!named) unnamed.push(c.outerHTML.slice(0, 80));
            }
            return unnamed;""")
        self.assertEqual(unnamed, [])
        speech = self.driver.find_element(By.ID, "tab-speech")
        speech.click()
        speech.send_keys(Keys.ARROW_RIGHT)
        active = self.driver.switch_to.active_element
        self.assertEqual(active.get_attribute("id"), "tab-modules")
        self.assertTrue(self.driver.find_element(By.ID, "view-modules").is_displayed())
        self.assertFalse(self.driver.find_element(By.ID, "view-speech").is_displayed())
        active.send_keys(Keys.END)
        self.assertEqual(self.driver.switch_to.active_element.get_attribute("id"), "tab-log")


class SpeechView(ConsoleTestCase):

    def test_a_said_sentence_is_highlighted_word_by_word_and_its_task_reaches_done(self):
        self.open_console()
        self.set_text(self.labelled("Text to speak"), SENTENCE)
        self.button("Say").click()
        seen = []
        marks = set()
        shot = None
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            word, flags, task = self.driver.execute_script(
                "const w = document.querySelector('#now-sentence [aria-current=true]');"
                "const t = document.querySelector('#timeline > li');"
                "return [w ? w.textContent : null,"
                " [...document.querySelectorAll('#now-sentence .bookmark')].map(b => b.textContent),"
                " t ? t.dataset.status : null];")
            if word and (not seen or seen[-1] != word):
                seen.append(word)
            marks.update(flags)
            if len(seen) == 5 and shot is None:
                shot = self.screenshot("speech-mid-sentence")
            if task == "done":
                break
            time.sleep(0.03)
        self.screenshot("speech-done")
        # Each word was lit in turn, in the sentence's order (a fast pair may fall between two
        # looks, but most are seen, and never out of order).
        self.assertGreaterEqual(len(seen), 6, seen)
        positions = [WORDS.index(w) for w in seen]
        self.assertEqual(positions, sorted(positions), seen)
        self.assertEqual(len(set(positions)), len(positions), seen)
        self.assertEqual(marks, {"1", "2"})
        task_id, status, text = self.top_task()
        self.assertEqual(status, "done")
        self.assertIn("One two three", text)
        facts = self.driver.find_element(By.CSS_SELECTOR, "#timeline > li .task-facts").text
        self.assertRegex(facts, r"enqueued \d\d:\d\d:\d\d\.\d{3} · waited .* · spoke \d")
        marks_text = self.driver.find_element(By.CSS_SELECTOR, "#timeline > li .marks").text
        self.assertIn("⚑ 1", marks_text)
        self.assertIn("twelve", marks_text)

    def test_a_posted_long_sentence_is_stopped_with_stop_all(self):
        self.open_console()
        self.set_text(self.labelled("Text to speak"), LONG)
        self.button("Post").click()
        started = self.wait(lambda: (self.top_task() or [0, ""])[1] == "started"
                            and self.top_task(), message="the posted say to start")
        task_id = started[0]
        self.assertGreaterEqual(task_id, 1000000000, "a posted call has the host's call id")
        item = self.driver.find_element(By.CSS_SELECTOR, "#timeline > li")
        self.assertIn("posted", item.text)
        self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, "#now-sentence [aria-current]"),
                  message="a word of the long sentence")
        self.button("Stop all").click()
        stopped = self.wait(lambda: self.top_task()[1] in ("stopped", "done", "thrown")
                            and self.top_task(), message="the posted say to end")
        self.screenshot("speech-stopped")
        self.assertEqual(stopped[:2], [task_id, "stopped"])
        self.assertIn("interrupted", self.driver.find_element(By.CSS_SELECTOR, "#timeline > li").text)
        # It ended long before its end: the sentence's last words were never lit.
        self.assertNotIn("spoken", self.driver.find_elements(
            By.CSS_SELECTOR, "#now-sentence .word")[-1].get_attribute("class"))

    def test_language_voice_and_parameters_come_from_the_service_and_its_errors_are_shown(self):
        self.open_console()
        client = self.client()
        language = Select(self.labelled("Language"))
        self.wait(lambda: len(language.options) > 1, message="the languages")
        self.assertEqual([o.text for o in language.options if o.get_attribute("value")],
                         client.call("ZRTextToSpeech", "getAvailableLanguages"))
        # A fresh host speaks the language of its first run (the tests' locale gives English),
        # and the picker shows the service's language.
        self.assertEqual(client.call("ZRTextToSpeech", "getLanguage"), "English")
        self.wait(lambda: language.first_selected_option.text == "English",
                  message="the service's language in the picker")
        self.assertEqual(Select(self.labelled("Voice")).first_selected_option.text,
                         client.call("ZRTextToSpeech", "getVoice"))
        # The ranges are the documented ones.
        shift = self.labelled("Pitch shift slider")
        self.assertEqual((shift.get_attribute("min"), shift.get_attribute("max")), ("1", "4"))
        # A value outside the range reaches the service, which answers in its own words.
        pitch_shift = self.labelled("Pitch shift")
        self.set_text(pitch_shift, "0.2")
        pitch_shift.send_keys(Keys.TAB)
        error = self.wait(lambda: self.driver.find_element(By.ID, "voice-error").is_displayed()
                          and self.driver.find_element(By.ID, "voice-error").text,
                          message="the service's error")
        self.assertIn("Wrong argument value for pitchShift effect : correct range is (0.5 -- 4), "
                      "or 0 to disable effect", error)
        volume = self.labelled("Volume")
        self.set_text(volume, "0.5")
        volume.send_keys(Keys.TAB)
        self.wait(lambda: client.call("ZRTextToSpeech", "getVolume") == 0.5,
                  message="the volume to be set")
        self.wait(lambda: not self.driver.find_element(By.ID, "voice-error").is_displayed(),
                  message="the error to be cleared")
        # Choosing a language is the service's setLanguage.
        language.select_by_visible_text("French")
        self.wait(lambda: client.call("ZRTextToSpeech", "getLanguage") == "French",
                  message="the language to change")
        self.wait(lambda: Select(self.labelled("Language")).first_selected_option.text == "French",
                  message="the picker to show it")
        self.wait(lambda: Select(self.labelled("Voice")).first_selected_option.text
                  == client.call("ZRTextToSpeech", "getVoice"), message="the voice to follow")
        client.call("ZRTextToSpeech", "setLanguage", "English")


class CallAndEventsViews(ConsoleTestCase):

    def call_method(self, module, method, *args, button="Call"):
        self.tab("Call")
        Select(self.labelled("Module")).select_by_visible_text(module)
        self.button(method).click()
        self.wait(lambda: self.driver.find_element(By.ID, "call-title").text
                  == "%s.%s" % (module, method.split(" ")[0]), message="the form of " + method)
        for field, value in zip(self.driver.find_elements(By.CSS_SELECTOR, "#call-fields textarea"),
                                args):
            self.set_text(field, value)
        self.button(button).click()

    def test_a_method_called_from_its_form_shows_its_result_or_the_services_error(self):
        self.open_console()
        self.call_method("ZRTextToSpeech", "getAvailableLanguages")
        value = self.wait(lambda: self.driver.find_element(By.CSS_SELECTOR, "#call-result pre").text,
                          message="the result")
        self.screenshot("call-result")
        languages = json.loads(value)
        self.assertEqual(languages, self.client().call("ZRTextToSpeech", "getAvailableLanguages"))
        self.assertIn("English", languages)

        self.call_method("ZRTextToSpeech", "setVolume", "5")
        error = self.wait(lambda: self.driver.find_element(By.CSS_SELECTOR, "#call-result .result-error").text,
                          message="the error")
        for part in ("-32000", "ZRTextToSpeech", "setVolume",
                     "Wrong value for volume, must be between 0.0 and 1.0"):
            self.assertIn(part, error)

    def test_a_posted_call_is_stopped_from_the_call_view(self):
        self.open_console()
        self.call_method("ZRTextToSpeech", "say (1 argument)", LONG, button="Post")
        item = self.wait(lambda: self.driver.find_elements(By.CSS_SELECTOR, "#call-posted li"),
                         message="the posted call")[0]
        call_id = int(item.get_attribute("data-call"))
        client = self.client()
        self.wait(lambda: client.call("ZRMemory", "getData", "ZRTextToSpeech/Status")
                  == [call_id, "started"], message="the posted say to start")
        self.button("Stop call %d" % call_id).click()
        self.wait(lambda: "done" in item.text or "failed" in item.text, message="its end")
        self.assertNotIn("Stop", [b.text for b in item.find_elements(By.TAG_NAME, "button")])
        # The say returned early: its task was stopped, as the service's status says.
        self.assertEqual(client.call("ZRMemory", "getData", "ZRTextToSpeech/Status"),
                         [call_id, "stopped"])

    def test_a_followed_memory_key_shows_its_values_live_and_pauses_and_clears(self):
        self.open_console()
        self.tab("Events")
        offered = self.wait(lambda: [o.get_attribute("value") for o in self.driver.find_elements(
            By.CSS_SELECTOR, "#events-keys option")], message="the declared keys")
        self.assertIn("ZRTextToSpeech/Status", offered)
        self.set_text(self.labelled("Memory key"), "ZRTextToSpeech/Status")
        self.button("Subscribe").click()
        self.button("Unsubscribe from ZRTextToSpeech/Status")  # once subscribed
        rows = lambda: [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#events-rows tr")]
        client = self.client()
        client.call("ZRTextToSpeech", "say", "Events")
        self.wait(lambda: any('"done"]' in r for r in rows()), message="the status done")
        self.screenshot("events")
        latest = rows()[0]
        self.assertRegex(latest, r'^\d\d:\d\d:\d\d\.\d{3} ZRTextToSpeech/Status \[\d+,"done"\]')

        self.button("Pause").click()
        count = len(rows())
        client.call("ZRTextToSpeech", "say", "Paused")
        time.sleep(0.5)
        self.assertEqual(len(rows()), count)
        self.button("Resume").click()
        # enqueued, started, done of the say made while paused
        self.wait(lambda: len(rows()) >= count + 3, message="the values kept while paused")
        self.button("Clear").click()
        self.assertEqual(rows(), [])

    def test_the_log_shows_the_hosts_records_live_by_level_and_category(self):
        self.open_console()
        self.tab("Log")
        Select(self.labelled("Minimum level")).select_by_visible_text("warning")
        time.sleep(0.3)
        self.client().call("ZRTextToSpeech", "getSupportedLanguages")  # logs a deprecation warning
        row = self.wait(lambda: [r.text for r in self.driver.find_elements(By.CSS_SELECTOR, "#log-rows tr")
                                 if "deprecated" in r.text], message="the warning")[0]
        self.assertIn("warning", row)
        self.assertIn("audio.zrtexttospeech.main", row)
        self.screenshot("log")
        self.set_text(self.labelled("Category filter"), "bexko.*")
        self.wait(lambda: not any("deprecated" in r.text for r in self.driver.find_elements(
            By.CSS_SELECTOR, "#log-rows tr")), message="the filter")
        self.set_text(self.labelled("Category filter"), "audio")
        self.wait(lambda: any("deprecated" in r.text for r in self.driver.find_elements(
            By.CSS_SELECTOR, "#log-rows tr")), message="the filter to let it through")


class TokenProtectedHost(ConsoleTestCase):
    DAEMON_ARGS = ("--no-modules",)
    AUTH = True

    def setUp(self):
        with open(self.daemon.token_file()) as f:
            self.token = f.read().strip()

    def test_the_console_is_refused_until_the_token_is_given(self):
        self.driver.get("about:blank")
        self.driver.get(console_url(self.daemon))
        dialog = self.wait(lambda: self.driver.find_element(By.ID, "token-dialog").is_displayed()
                           and self.driver.find_element(By.ID, "token-dialog"),
                           message="the token dialog")
        self.assertNotEqual(self.driver.find_element(By.ID, "connection").get_attribute(
            "data-state"), "open")
        self.screenshot("token-asked")
        self.set_text(self.labelled("Access token"), "0" * 64)
        self.button("Connect").click()
        self.wait(lambda: "refused this token" in self.driver.find_element(By.ID, "token-reason").text
                  and dialog.is_displayed(), message="the wrong token to be refused")
        self.set_text(self.labelled("Access token"), self.token)
        self.button("Connect").click()
        self.wait(lambda: self.driver.find_element(By.TAG_NAME, "body").get_attribute("data-ready")
                  == "true", message="the console to connect")
        self.tab("Modules")
        modules = self.wait(lambda: [b.text.split("\n")[0] for b in self.driver.find_elements(
            By.CSS_SELECTOR, "#module-list button")], message="the modules")
        self.assertIn("ZRMemory", modules)
        self.assertEqual(self.driver.execute_script(
            "return sessionStorage.getItem('bexko.token')"), self.token)

    def test_the_logged_console_address_carries_the_token_in_its_fragment(self):
        url = "%s#token=%s" % (console_url(self.daemon), self.token)
        self.assertIn("web console: " + url, self.daemon.log())
        self.driver.execute_script("sessionStorage.clear()")
        self.open_console(url)
        self.assertEqual(self.driver.execute_script("return location.hash"), "")
        self.assertEqual(self.driver.execute_script(
            "return sessionStorage.getItem('bexko.token')"), self.token)
        # Kept for this tab: a reload connects again without asking.
        self.driver.refresh()
        self.wait(lambda: self.driver.find_element(By.TAG_NAME, "body").get_attribute("data-ready")
                  == "true", message="the console to connect again")


class HostRestart(ConsoleTestCase):
    # A host that goes away and comes back on the same address: the console says so, connects
    # again by itself and follows what it followed before. Each test starts its own daemons.

    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()
        cls.driver = cls.browser.driver
        os.makedirs(SCREENSHOTS, exist_ok=True)

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def tearDown(self):
        pass  # while the host is away the browser logs each refused connection

    def start_daemon(self, port):
        daemon = Daemon("--audio-output", "clock")
        daemon.args[daemon.args.index("127.0.0.1:0")] = "127.0.0.1:%d" % port
        self.addCleanup(daemon.cleanup)
        self.daemon = daemon.start()
        return daemon

    def connection_state(self):
        return self.driver.find_element(By.ID, "connection").get_attribute("data-state")

    def test_the_console_reconnects_and_follows_the_speech_again(self):
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
        first = self.start_daemon(port)
        self.open_console()
        self.assertEqual(first.stop(), 0)
        self.wait(lambda: self.connection_state() != "open", message="the host to be seen gone")
        self.start_daemon(port)
        self.wait(lambda: self.connection_state() == "open", timeout=30,
                  message="the console to connect again")
        # Its subscriptions were made again on the new connection: a say shows in the timeline.
        self.wait(lambda: Select(self.labelled("Voice")).first_selected_option.text == "en-us",
                  message="the voice read again")
        self.client().call("ZRTextToSpeech", "say", "Back again")
        self.wait(lambda: self.top_task() and self.top_task()[1] == "done"
                  and "Back again" in self.top_task()[2], message="the new say in the timeline")


if __name__ == "__main__":
    unittest.main()
