# The Python client as a package: installed with pip, offline, into a fresh virtual environment
# over Debian's python3-websocket, and used from there against the daemon.

import json
import os
import shutil
import subprocess
import tempfile
import textwrap
import unittest

from bexkodaemon import DaemonTestCase

SOURCE = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", "clients",
                                      "python"))

# Run by the environment's interpreter: what it imported, from where, and a few calls.
SCRIPT = textwrap.dedent("""
    import importlib.metadata, json, sys, threading
    import bexko
    from bexko import ZRProxy
    statuses, done = [], threading.Event()
    def on_status(key, value):
        statuses.append(value)
        if value[1] == "done" and value[0] > 0:
            done.set()
    bexko.subscribe("ZRTextToSpeech/Status", on_status)
    tts = ZRProxy("ZRTextToSpeech")
    tts.say("Spoken through the installed package.")
    done.wait(30)
    call_id = tts.post.say("And a posted one.")
    print(json.dumps({
        "file": bexko.__file__,
        "version": bexko.__version__,
        "metadata_version": importlib.metadata.version("bexko"),
        "requires": importlib.metadata.requires("bexko"),
        "languages": tts.getAvailableLanguages(),
        "statuses": statuses,
        "posted_done": tts.wait(call_id, 30000),
        "prefix": sys.prefix,
    }))
""")


class PythonPackage(DaemonTestCase):
    AUTH = True  # the installed client finds the daemon's token by itself

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.root = tempfile.mkdtemp(prefix="bexko-venv-")
        # pip builds in the source folder: a copy keeps the work tree clean.
        source = os.path.join(cls.root, "source")
        shutil.copytree(SOURCE, source, ignore=shutil.ignore_patterns(
            "__pycache__", "build", "*.egg-info"))
        cls.venv = os.path.join(cls.root, "venv")
        cls.env = {k: v for k, v in cls.daemon.env.items() if k != "PYTHONPATH"}
        cls.env["PIP_NO_INDEX"] = "1"
        for command in (["/usr/bin/python3", "-m", "venv", "--system-site-packages", cls.venv],
                        [os.path.join(cls.venv, "bin", "pip"), "install", "--no-index",
                         "--no-build-isolation", source]):
            result = subprocess.run(command, capture_output=True, text=True, env=cls.env,
                                    timeout=300, cwd=cls.root)
            if result.returncode != 0:
                cls.tearDownClass()
                raise AssertionError("%s failed:\n%s%s" % (command, result.stdout, result.stderr))

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.root, ignore_errors=True)
        super().tearDownClass()

    def test_pip_installs_it_offline_and_it_speaks_through_the_daemon(self):
        env = dict(self.env, BEXKO_URL=self.daemon.url)
        result = subprocess.run([os.path.join(self.venv, "bin", "python"), "-c", SCRIPT],
                                capture_output=True, text=True, env=env, timeout=120,
                                cwd=self.root)
        self.assertEqual(result.returncode, 0, result.stderr)
        found = json.loads(result.stdout)
        # Imported from the environment's site-packages, not from a source or build tree.
        self.assertTrue(found["file"].startswith(os.path.join(self.venv, "lib")), found["file"])
        self.assertEqual(found["prefix"], self.venv)
        self.assertEqual(found["version"], found["metadata_version"])
        self.assertTrue(any(r.startswith("websocket-client") for r in found["requires"]),
                        found["requires"])
        self.assertIn("English", found["languages"])
        self.assertIn("started", [status[1] for status in found["statuses"]])
        self.assertIn("done", [status[1] for status in found["statuses"]])
        self.assertTrue(found["posted_done"])

    def test_pip_knows_the_package_and_its_dependency(self):
        result = subprocess.run([os.path.join(self.venv, "bin", "pip"), "show", "bexko"],
                                capture_output=True, text=True, env=self.env, timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Version: 0.", result.stdout)
        self.assertIn("Requires: websocket-client", result.stdout)
        self.assertIn("Location: %s/lib/" % self.venv, result.stdout)


if __name__ == "__main__":
    unittest.main()
