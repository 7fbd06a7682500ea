# What `cmake --install` gives module authors and users, from this build tree (nothing is
# rebuilt): the headers under include/bexko, the CMake package and the pkg-config file, both
# relocatable; the example module examples/hello-module built against the installed tree alone
# and loaded by the installed daemon from its module folders; the systemd user unit.

import os
import shutil
import subprocess
import tempfile
import unittest

from bexkodaemon import BEXKO, BUILD_DIR, Daemon, Recorder
from bexkodaemon import run_checked as run

SOURCE_DIR = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", ".."))
EXAMPLE = os.path.join(SOURCE_DIR, "examples", "hello-module")


def sanitizer_flags():
    # A program linked to the libraries of a sanitizer build must carry the same runtime.
    with open(os.path.join(BUILD_DIR, "CMakeCache.txt")) as f:
        for line in f:
            if line.startswith("BEXKO_SANITIZE:"):
                kind = line.strip().split("=", 1)[1]
                return {"address": ["-fsanitize=address,undefined"],
                        "thread": ["-fsanitize=thread"]}.get(kind, [])
    return []


class InstalledTree(unittest.TestCase):
    # One installation for the class: installed into one folder, then moved to another, so that
    # everything below also shows that the tree is relocatable.

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="bexko-install-")
        installed = os.path.join(cls.root, "installed-here")
        run(["cmake", "--install", BUILD_DIR, "--prefix", installed])
        cls.prefix = os.path.join(cls.root, "moved-there")
        os.rename(installed, cls.prefix)
        # The example, as its README builds it: against the installed tree alone.
        cls.example_build = os.path.join(cls.root, "build-hello")
        run(["cmake", "-S", EXAMPLE, "-B", cls.example_build, "-G", "Ninja",
             "-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_PREFIX_PATH=" + cls.prefix])
        run(["cmake", "--build", cls.example_build])
        cls.hello = os.path.join(cls.example_build, "libhello.so")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.root, ignore_errors=True)

    def daemon(self, *args, program=None):
        daemon = Daemon(*args, program=program)
        self.addCleanup(daemon.cleanup)
        return daemon

    def user_modules(self, daemon):
        folder = os.path.join(daemon.env["XDG_DATA_HOME"], "bexko", "modules")
        os.makedirs(folder, exist_ok=True)
        return folder

    def client(self, daemon):
        from bexko import Client
        client = Client(daemon.url)
        self.addCleanup(client.close)
        return client

    def test_headers_lie_under_one_project_folder(self):
        include = os.path.join(self.prefix, "include")
        self.assertEqual(os.listdir(include), ["bexko"])
        for header in ("zr/zrmodule.h", "zr/zrmemoryproxy.h", "ko/signal.h", "ko/version.h"):
            self.assertTrue(os.path.isfile(os.path.join(include, "bexko", header)), header)

    def test_the_example_module_was_built_against_the_installed_tree_alone(self):
        with open(os.path.join(self.example_build, "CMakeCache.txt")) as f:
            cache = f.read()
        self.assertIn("bexko_DIR:PATH=%s/lib/cmake/bexko" % self.prefix, cache)
        # Its compile lines name the installed headers, never this source tree's.
        commands = run(["ninja", "-C", self.example_build, "-t", "commands"]).stdout
        self.assertIn("-isystem %s/include/bexko" % self.prefix, commands)
        self.assertNotIn(os.path.join(SOURCE_DIR, "host"), commands)
        self.assertNotIn(BUILD_DIR, commands)

    def test_pkg_config_gives_what_builds_and_links_against_the_runtime(self):
        env = dict(os.environ, PKG_CONFIG_PATH=os.path.join(self.prefix, "lib", "pkgconfig"))
        flags = run(["pkg-config", "--cflags", "--libs", "bexko"], env=env).stdout.split()
        includes = [os.path.normpath(f[2:]) for f in flags if f.startswith("-I")]
        self.assertEqual(includes, [os.path.join(self.prefix, "include", "bexko")])
        self.assertIn("-lbexko", flags)
        version = run(["pkg-config", "--modversion", "bexko"], env=env).stdout.strip()
        program = os.path.join(self.root, "versionprobe.cpp")
        with open(program, "w") as f:
            f.write("#include <iostream>\n#include <ko/version.h>\n#include <zr/zrvalue.h>\n"
                    "int main() {\n  ZR::ZRValue value(ko::kVersion);\n"
                    "  std::cout << value.toString() << std::endl;\n}\n")
        binary = os.path.join(self.root, "versionprobe")
        run(["c++", "-std=c++17", program, "-o", binary] + flags + sanitizer_flags(), env=env)
        output = run([binary], env=dict(env, LD_LIBRARY_PATH=os.path.join(self.prefix, "lib")))
        self.assertIn(version, output.stdout)
        self.assertEqual(version, run([BEXKO, "--version"]).stdout.split()[1])

    def test_the_installed_daemon_loads_the_example_from_its_module_folder(self):
        # The example installs itself into <prefix>/lib/bexko/modules.
        run(["cmake", "--install", self.example_build, "--prefix", self.prefix])
        folder = os.path.join(self.prefix, "lib", "bexko", "modules")
        self.assertEqual(os.listdir(folder), ["libhello.so"])
        daemon = self.daemon(program=os.path.join(self.prefix, "bin", "bexko")).start()
        client = self.client(daemon)
        self.assertIn("ZRTextToSpeech", client.modules())
        self.assertIn("HelloModule", client.modules())
        self.assertIn("module library %s/libhello.so found in %s" % (folder, folder), daemon.log())
        self.assertIn("loaded %s/libhello.so" % folder, daemon.log())

        # Its published documentation, method, event and signal, through the Python client.
        doc = client.describe("HelloModule")
        greet = [m for m in doc["methods"] if m["name"] == "greet"][0]
        self.assertEqual([p["name"] for p in greet["parameters"]], ["name"])
        self.assertIn("HelloModule/LastGreeted", greet["description"])
        events, signals = Recorder(), Recorder()
        client.subscribe("HelloModule/LastGreeted", events)
        client.connect("HelloModule", "greeted", signals)
        self.assertEqual(client.call("HelloModule", "greet", "Ada"), "Hello, Ada!")
        self.assertTrue(events.wait_for(lambda items: ("HelloModule/LastGreeted", "Ada") in items),
                        events.items)
        self.assertTrue(signals.wait_for(lambda items: ("Hello, Ada!",) in items), signals.items)
        self.assertEqual(client.call("HelloModule", "greetingCount"), 1)
        from bexko import BexkoError
        with self.assertRaisesRegex(BexkoError, "Whom should I greet"):
            client.call("HelloModule", "greet", "")

        # The speech service of the installed tree speaks.
        client.call("ZRTextToSpeech", "say", "Installed and speaking.")
        self.assertEqual(daemon.stop(), 0)
        self.assertIn("HelloModule stops after 1 greetings", daemon.log())

    def test_module_folders_command_line_wins_and_a_broken_library_is_left_out(self):
        # The user's folder: the example, a file that is no library, and one whose name the
        # command line also gives (a copy of the example elsewhere).
        daemon = self.daemon()
        folder = self.user_modules(daemon)
        shutil.copy(self.hello, folder)
        with open(os.path.join(folder, "libbroken.so"), "w") as f:
            f.write("not a library\n")
        with open(os.path.join(folder, "README.txt"), "w") as f:
            f.write("only *.so files are loaded\n")
        elsewhere = os.path.join(daemon.root, "elsewhere")
        os.makedirs(elsewhere)
        named = os.path.join(elsewhere, "libhello.so")
        shutil.copy(self.hello, named)
        tts = os.path.join(BUILD_DIR, "lib", "libbexko-tts.so")
        daemon.args += [tts, named]
        client = self.client(daemon.start())
        self.assertIn("HelloModule", client.modules())
        self.assertIn("ZRTextToSpeech", client.modules())
        self.assertEqual(client.call("HelloModule", "greet", "Grace"), "Hello, Grace!")
        log = daemon.log()
        self.assertIn("loaded %s" % named, log)
        self.assertIn("module library %s/libhello.so left out: the command line names a library "
                      "of that name" % folder, log)
        self.assertIn("cannot load %s/libbroken.so" % folder, log)
        self.assertIn("module library %s/libbroken.so left out; the daemon goes on without it"
                      % folder, log)
        self.assertNotIn("README.txt", log)
        self.assertNotIn("Failed to launch HelloModule", log)

    def test_the_users_folder_wins_over_the_installations_and_no_modules_loads_none(self):
        run(["cmake", "--install", self.example_build, "--prefix", self.prefix])
        installed = os.path.join(self.prefix, "lib", "bexko", "modules")
        program = os.path.join(self.prefix, "bin", "bexko")
        daemon = self.daemon(program=program)
        folder = self.user_modules(daemon)
        shutil.copy(self.hello, folder)
        client = self.client(daemon.start())
        self.assertEqual(client.call("HelloModule", "greet", "Linus"), "Hello, Linus!")
        log = daemon.log()
        self.assertIn("loaded %s/libhello.so" % folder, log)
        self.assertIn("module library %s/libhello.so left out: %s has one of that name"
                      % (installed, folder), log)

        bare = self.daemon("--no-modules", program=program)
        shutil.copy(self.hello, self.user_modules(bare))
        bare_client = self.client(bare.start())
        self.assertNotIn("HelloModule", bare_client.modules())
        self.assertNotIn("ZRTextToSpeech", bare_client.modules())

    def test_the_systemd_user_unit_starts_the_installed_daemon_and_verifies(self):
        unit = os.path.join(self.prefix, "lib", "systemd", "user", "bexko.service")
        with open(unit) as f:
            text = f.read()
        # Made when installing, for the prefix installed to (moved since: the unit is the one
        # file of the tree that names its prefix).
        self.assertIn("ExecStart=%s/bin/bexko\n" % os.path.join(self.root, "installed-here"),
                      text)
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")
        # Verified as installed here, its ExecStart pointing at the daemon where it now is.
        folder = os.path.join(self.root, "unit")
        os.makedirs(folder, exist_ok=True)
        checked = os.path.join(folder, "bexko.service")
        with open(checked, "w") as f:
            f.write(text.replace(os.path.join(self.root, "installed-here"), self.prefix))
        runtime = tempfile.mkdtemp(prefix="bexko-systemd-")
        self.addCleanup(shutil.rmtree, runtime, ignore_errors=True)
        env = dict(os.environ, XDG_RUNTIME_DIR=runtime, HOME=runtime)
        result = subprocess.run(["systemd-analyze", "verify", "--user", checked],
                                capture_output=True, text=True, env=env, timeout=60)
        # A warning (an unknown key, a bad value) is printed even when the exit status is 0.
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, "", ""))


if __name__ == "__main__":
    unittest.main()
