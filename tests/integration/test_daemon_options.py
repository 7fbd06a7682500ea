# The daemon's version and its configuration file $XDG_CONFIG_HOME/bexko/bexko.conf: options
# read from it, the command line and the environment winning over it, and a clear refusal of a
# file it cannot use.

import os
import subprocess
import unittest

from bexkodaemon import BEXKO, Daemon

USAGE = 2


class Version(unittest.TestCase):

    def test_version_prints_the_release_that_the_python_client_also_states(self):
        import bexko
        result = subprocess.run([BEXKO, "--version"], capture_output=True, text=True, timeout=30)
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertRegex(result.stdout, r"^bexko [0-9]+\.[0-9]+\.[0-9]+\n$")
        self.assertEqual(result.stdout, "bexko %s\n" % bexko.__version__)


class ConfigFile(unittest.TestCase):

    def daemon(self, conf, *args):
        # A daemon (not started) whose bexko.conf holds `conf`.
        daemon = Daemon(*args)
        self.addCleanup(daemon.cleanup)
        folder = os.path.join(daemon.env["XDG_CONFIG_HOME"], "bexko")
        os.makedirs(folder)
        daemon.conf = os.path.join(folder, "bexko.conf")
        with open(daemon.conf, "w") as f:
            f.write(conf)
        return daemon

    def run_bexko(self, daemon, *args):
        return subprocess.run([BEXKO] + daemon.args + list(args), capture_output=True, text=True,
                              env=daemon.env, timeout=30)

    def test_options_come_from_the_file_and_the_command_line_and_environment_win(self):
        from bexko import Client
        daemon = self.daemon(
            "# the daemon of this test\n"
            "no-modules = true\n"
            "listen = \"127.0.0.1:1\"\n"          # the test's --listen 127.0.0.1:0 wins
            "log-level = \"*=silent\"\n"          # BEXKO_LOG_LEVEL wins
            "max-connections = 2\n")
        daemon.env["BEXKO_LOG_LEVEL"] = "bexko.daemon=info,*=warning"
        daemon.start()
        self.assertNotEqual(daemon.url, "ws://127.0.0.1:1")
        clients = [Client(daemon.url) for _ in range(2)]
        for client in clients:
            self.addCleanup(client.close)
        # no-modules from the file: the built-in services alone.
        self.assertNotIn("ZRTextToSpeech", clients[0].modules())
        # max-connections from the file: a third connection is closed at once.
        from bexko import BexkoConnectionError
        with self.assertRaises(BexkoConnectionError):
            third = Client(daemon.url)
            self.addCleanup(third.close)
            third.modules()
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("info bexko.daemon main: received SIGTERM, stopping", daemon.log())

    def test_a_file_named_with_config_is_read_instead(self):
        from bexko import Client
        daemon = self.daemon("no-modules = false\n")
        other = os.path.join(daemon.root, "other.conf")
        with open(other, "w") as f:
            f.write("no-modules = true\n")
        daemon.args += ["--config", other]
        client = Client(daemon.start().url)
        self.addCleanup(client.close)
        self.assertNotIn("ZRTextToSpeech", client.modules())

    def test_module_libraries_can_come_from_the_file(self):
        daemon = self.daemon("libraries = [\"/nonexistent/libfromconf.so\"]\n")
        result = self.run_bexko(daemon)
        # Named like on the command line, so a library that cannot be loaded stops it.
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)
        self.assertIn("cannot load /nonexistent/libfromconf.so", result.stderr)

    def test_a_file_it_cannot_use_ends_it_before_it_listens(self):
        cases = [
            ("colour = \"blue\"\n", (), "unknown key \"colour\""),
            ("[gateway]\nlisten = \"127.0.0.1:0\"\n", (), "[gateway]: sections are not used"),
            ("max-unread-bytes = \"lots\"\n", (), "\"max-unread-bytes\" is set in"),
            ("max-connections = 0\n", (), "\"max-connections\" is set in"),
            ("idle-timeout = \"soon\"\n", (), "\"idle-timeout\" is set in"),
            ("config = \"/etc/other.conf\"\n", (), "cannot be set in a configuration file"),
            ("no-modules = true\n", ("--config", "/nonexistent/bexko.conf"),
             "/nonexistent/bexko.conf"),
        ]
        for conf, args, message in cases:
            with self.subTest(conf=conf, args=args):
                daemon = self.daemon(conf)
                result = self.run_bexko(daemon, *args)
                self.assertEqual((result.returncode, result.stdout), (USAGE, ""), result.stderr)
                self.assertIn(message, result.stderr)
                if not args:
                    self.assertIn(daemon.conf, result.stderr)
                # --version and --help still answer.
                for option, output in (("--version", "bexko "), ("--help", "--config")):
                    result = self.run_bexko(daemon, *args, option)
                    self.assertEqual(result.returncode, 0, result.stderr)
                    self.assertIn(output, result.stdout)


if __name__ == "__main__":
    unittest.main()
