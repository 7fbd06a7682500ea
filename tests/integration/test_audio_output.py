# The daemon's audio outputs: the speech is heard on a sound server, for as long as it lasts;
# the silent clock output paces a say like a sound card; an output that cannot open stops the
# daemon before it listens.

import os
import subprocess
import tempfile
import time
import unittest
import wave

from bexkodaemon import (BEXKO, Daemon, SoundServer, SoundServerUnavailable, audible_span)

SENTENCE = ("The quick brown fox jumps over the lazy dog, and then it rests for a while in the "
            "warm afternoon sun.")
# How far the heard speech may differ in length from the sentence's own audio: the stream's
# buffering, the recording's fragments and a loaded machine's scheduling.
TOLERANCE = 0.4


def wav_span(path):
    # The audible span (seconds) and RMS of a 16-bit WAV file, its channels mixed.
    with wave.open(path) as f:
        width, channels, rate = f.getsampwidth(), f.getnchannels(), f.getframerate()
        frames = f.readframes(f.getnframes())
    assert width == 2, "a %d-byte WAV" % width
    import array
    samples = array.array("h")
    samples.frombytes(frames)
    mono = array.array("h", (sum(samples[i:i + channels]) // channels
                             for i in range(0, len(samples), channels)))
    return audible_span(mono, rate)


class SentenceLength:
    # The sentence's audio as sayToFile writes it, once per daemon.

    def sentence_span(self, client, root):
        path = os.path.join(root, "sentence.wav")
        client.call("ZRTextToSpeech", "sayToFile", SENTENCE, path)
        span, level = wav_span(path)
        self.assertGreater(span, 2.0, "sayToFile wrote %.2f s of audible audio" % span)
        return span


class SpeechOnASoundServer(unittest.TestCase, SentenceLength):
    # One sound server with a null sink and one daemon that plays on it.

    @classmethod
    def setUpClass(cls):
        try:
            cls.server = SoundServer().start()
        except SoundServerUnavailable as e:
            raise unittest.SkipTest(str(e))
        cls.daemon = Daemon("--audio-output", "pulse")
        cls.daemon.env["PULSE_SERVER"] = cls.server.address
        try:
            cls.daemon.start()
        except Exception:
            cls.daemon.cleanup()
            cls.server.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        status, log = cls.daemon.stop(), cls.daemon.log()
        cls.daemon.cleanup()
        cls.server.cleanup()
        if status != 0:
            raise AssertionError("bexko exited with %s\n%s" % (status, log))

    def test_a_say_is_heard_for_as_long_as_the_sentence(self):
        from bexko import Client
        client = Client(self.daemon.url)
        self.addCleanup(client.close)
        self.assertIn('audio output: pulse', self.daemon.log())
        expected = self.sentence_span(client, self.daemon.root)

        recording = self.server.record()
        started = time.monotonic()
        client.call("ZRTextToSpeech", "say", SENTENCE)
        said = time.monotonic() - started
        time.sleep(0.5)
        samples = recording.stop()

        heard, level = audible_span(samples, recording.rate)
        # Speech at a normal volume is thousands; the null sink's silence is 0.
        self.assertGreater(level, 1000, "heard %.2f s at RMS %.0f" % (heard, level))
        self.assertAlmostEqual(heard, expected, delta=TOLERANCE,
                               msg="heard %.2f s of a %.2f s sentence" % (heard, expected))
        # The say lasts as long as the speech is heard: it returns once the speech was played.
        self.assertGreaterEqual(said, heard - TOLERANCE)
        self.assertLessEqual(said, heard + 2 * TOLERANCE)


class SpeechOnTheClock(unittest.TestCase, SentenceLength):
    # The clock output plays nothing, but a say takes as long as its audio: the engine
    # synthesises faster than real time here, and the output paces it.

    def test_a_say_takes_as_long_as_the_sentence(self):
        from bexko import Client
        daemon = Daemon("--audio-output", "clock")
        self.addCleanup(daemon.cleanup)
        daemon.start()
        client = Client(daemon.url)
        self.addCleanup(client.close)
        self.assertIn("audio output: clock", daemon.log())
        expected = self.sentence_span(client, daemon.root)

        started = time.monotonic()
        client.call("ZRTextToSpeech", "say", SENTENCE)
        said = time.monotonic() - started
        self.assertGreaterEqual(said, expected - TOLERANCE)
        self.assertLessEqual(said, expected + 2 * TOLERANCE)
        self.assertEqual(daemon.stop(), 0, daemon.log())


class ChoosingTheOutput(unittest.TestCase):
    # The option and the variable; an output that cannot open ends the daemon before it
    # listens, with the reason on stderr.

    def test_the_daemon_opens_the_output_asked_for_or_says_why_not(self):
        root = tempfile.mkdtemp(prefix="bexko-it-")
        self.addCleanup(subprocess.run, ["rm", "-rf", root])
        nowhere = "unix:" + os.path.join(root, "no-server-here")
        refused = 'bexko: cannot open the audio output "pulse": no sound server answers at ' \
                  '"%s" (PULSE_SERVER): Connection refused' % nowhere
        cases = [
            # (name, arguments, BEXKO_AUDIO_OUTPUT, exit status, text on stderr)
            ("pulse without a server", ("--audio-output", "pulse"), None, 1, refused),
            ("pulse from the variable", (), "pulse", 1, refused),
            ("the option wins over the variable", ("--audio-output", "clock"), "pulse", 0,
             "audio output: clock"),
            ("auto falls back to the clock", ("--audio-output", "auto"), None, 0,
             "using the silent clock output"),
            ("none by default", (), None, 0, "audio output: none"),
            ("an unknown output", ("--audio-output", "speakers"), None, 2,
             '--audio-output wants none, clock, pulse or auto, not "speakers"'),
        ]
        for name, args, variable, status, text in cases:
            with self.subTest(name):
                daemon = Daemon("--no-modules", *args)
                self.addCleanup(daemon.cleanup)
                daemon.env["PULSE_SERVER"] = nowhere
                if variable:
                    daemon.env["BEXKO_AUDIO_OUTPUT"] = variable
                if status == 0:
                    daemon.start()
                    self.assertEqual(daemon.stop(), 0, daemon.log())
                    self.assertIn(text, daemon.log())
                    continue
                started = time.monotonic()
                result = subprocess.run([BEXKO] + daemon.args, capture_output=True, text=True,
                                        env=daemon.env, timeout=30)
                self.assertEqual((result.returncode, result.stdout), (status, ""), result.stderr)
                self.assertIn(text, result.stderr)
                # A refused connection is reported at once, not after a time-out.
                self.assertLess(time.monotonic() - started, 5.0)


if __name__ == "__main__":
    unittest.main()
