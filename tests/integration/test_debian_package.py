# The Debian package made by `cpack -G DEB` from this build tree (nothing is rebuilt): its
# declared dependencies and files, and the daemon started from the package extracted into a
# scratch folder with dpkg-deb -x, called with the bexko-call it ships.

import glob
import os
import shutil
import sys
import tempfile
import unittest

from bexkodaemon import BUILD_DIR, Daemon
from bexkodaemon import run_checked as run


class DebianPackage(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.root = tempfile.mkdtemp(prefix="bexko-deb-")
        run(["cpack", "-G", "DEB", "-B", cls.root, "--config",
             os.path.join(BUILD_DIR, "CPackConfig.cmake")], cwd=BUILD_DIR)
        packages = glob.glob(os.path.join(cls.root, "*.deb"))
        if len(packages) != 1:
            raise AssertionError("cpack made %s" % packages)
        cls.deb = packages[0]
        cls.scratch = os.path.join(cls.root, "scratch")
        run(["dpkg-deb", "-x", cls.deb, cls.scratch])
        cls.usr = os.path.join(cls.scratch, "usr")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.root, ignore_errors=True)

    def field(self, name):
        return run(["dpkg-deb", "-f", self.deb, name]).stdout.strip()

    def test_the_package_declares_what_it_needs(self):
        self.assertEqual(self.field("Package"), "bexko")
        self.assertEqual(self.field("Version"), run([os.path.join(
            BUILD_DIR, "bin", "bexko"), "--version"]).stdout.split()[1])
        depends = [d.strip().split(" ")[0] for d in self.field("Depends").split(",")]
        # Found by dpkg-shlibdeps from what the programs and libraries link, and declared for
        # what they reach otherwise.
        for package in ("libc6", "libstdc++6", "libespeak-ng1", "libpulse0", "libsndfile1",
                        "libsqlite3-0", "libpugixml1v5", "libboost-thread1.74.0",
                        "libqt5core5a", "espeak-ng-data", "python3", "python3-websocket"):
            self.assertIn(package, depends)
        self.assertIn("sndfile-programs", self.field("Recommends"))

    def test_the_package_holds_the_daemon_its_modules_clients_unit_and_sdk(self):
        for path in ("bin/bexko", "bin/bexko-call", "lib/libbexko.so", "lib/libbexko-engine.so",
                     "lib/libbexko-tts.so", "share/bexko/python/bexko/__init__.py",
                     "include/bexko/zr/zrmodule.h", "lib/cmake/bexko/bexkoConfig.cmake",
                     "lib/pkgconfig/bexko.pc", "lib/systemd/user/bexko.service"):
            self.assertTrue(os.path.exists(os.path.join(self.usr, path)), path)
        self.assertTrue(os.path.isdir(os.path.join(self.usr, "lib", "bexko", "modules")))
        self.assertTrue(glob.glob(os.path.join(self.usr, "share", "bexko", "packages", "*")))
        with open(os.path.join(self.usr, "lib", "systemd", "user", "bexko.service")) as f:
            self.assertIn("ExecStart=/usr/bin/bexko\n", f.read())
        # The system Python finds the client through a path file in its site folder.
        with open(os.path.join(self.usr, "lib", "python3", "dist-packages", "bexko.pth")) as f:
            self.assertEqual(f.read(), "/usr/share/bexko/python\n")

    def test_the_daemon_runs_from_the_extracted_package(self):
        daemon = Daemon(program=os.path.join(self.usr, "bin", "bexko"), auth=True)
        self.addCleanup(daemon.cleanup)
        daemon.start()
        call = [sys.executable, os.path.join(self.usr, "bin", "bexko-call"), "--url", daemon.url]
        env = {k: v for k, v in daemon.env.items() if k != "PYTHONPATH"}
        modules = run(call + ["modules"], env=env).stdout
        self.assertIn("ZRTextToSpeech", modules)
        run(call + ["call", "ZRTextToSpeech.say", "Spoken by the package."], env=env)
        log = daemon.log()
        # Its module library and language package are the extracted ones.
        self.assertIn("loaded %s/lib/libbexko-tts.so" % self.usr, log)
        self.assertEqual(daemon.stop(), 0)


if __name__ == "__main__":
    unittest.main()
