"""The settings from the command line, and a running share that follows them."""
import os
import pathlib
import shutil
import signal
import subprocess
import unittest

from share import FODR, ShareCase, wait_for

KEY = r"[SOFTWARE\Orvane, Inc.\Orvane ODPService\Plugins\fodr]"


class SettingsCase(ShareCase):
    def setUp(self):
        super().setUp()
        self.file = self.scratch.root / "settings" / "HKEY_LOCAL_MACHINE.ini"

    def config(self, *words):
        done = self.fodr("config", *words)
        return done.returncode, done.stdout, done.stderr.count("\n")


class Command(SettingsCase):
    def test_values_are_kept_with_their_types(self):
        for words, result in [
                (["get", "logLevel"], (1, "", 0)),
                (["unset", "logLevel"], (0, "", 0)),
                (["list"], (0, "", 0)),
                (["set", "LOGLEVEL", "DEBUG"], (0, "", 0)),
                (["get", "loglevel"], (0, "DEBUG\n", 0)),
                (["set", "logMaxDaysKept", "0x10"], (0, "", 0)),
                (["set", "logMaxDaysKept", "4294967296"], (2, "", 1)),
                (["set", "logMaxDaysKept", "-1"], (2, "", 1)),
                (["set", "logLevel", "LOUD"], (2, "", 1)),
                (["set", "logEnabled", "maybe"], (2, "", 1)),
                (["set", "caseSensitivity", "3"], (2, "", 1)),
                (["set", "SharedFolders", "/a;b", "/ü \\"], (0, "", 0)),
                (["set", "other", "x"], (2, "", 1)),
                (["set", "other", "0FFe", "--type", "binary"], (0, "", 0)),
                (["set", "other", "0ff", "--type", "binary"], (2, "", 1)),
                (["set", "big", "18446744073709551615", "--type", "qword"], (0, "", 0)),
                (["list"], (0, 'SharedFolders = "/a;b" "/ü \\"\nbig = 18446744073709551615\nlogLevel = DEBUG\n'
                               'logMaxDaysKept = 16\nother = 0ffe\n', 0)),
                (["unset", "other"], (0, "", 0)),
                (["get", "other"], (1, "", 0))]:
            self.assertEqual(self.config(*words), result, words)
        self.assertIn("logMaxDaysKept=dword:16\n", self.file.read_text())

    @unittest.skipIf(os.geteuid() != 0 or os.path.exists("/etc/fodr"), "another user can't be made here, or has settings")
    def test_a_user_without_a_settings_folder_gets_one(self):
        self.scratch.root.chmod(0o755)
        os.chown(self.other, 65534, 65534)
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.other)}
        for value in ("DEBUG", "WARN"):
            done = subprocess.run([FODR, "config", "set", "logLevel", value], env=environment, user=65534, group=65534,
                                  extra_groups=[], capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stderr.count("\n")), (0, value == "DEBUG"), done.stderr)
        self.assertIn("logLevel=sz:WARN\n",
                      (self.other / ".config/fodr/HKEY_LOCAL_MACHINE.ini").read_text())

    def test_registering_says_when_nothing_was_registered(self):
        plugin = os.path.join(os.path.dirname(FODR), "..", "lib", "libfodrClient.so")
        folder = self.scratch.root / ("p" * 200) / ("q" * 100)
        for place, code in ((self.scratch.root / "fodrClient.so", 0), (folder / "fodrClient.so", 1)):
            place.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(plugin, place)
            done = subprocess.run([FODR, "register"], env={**self.scratch.environment, "FODR_PLUGIN": str(place)},
                                  capture_output=True, text=True)
            self.assertEqual((done.returncode, "nothing was registered" in done.stderr), (code, code == 1), done.stderr)
            self.assertEqual(self.config("get", "dll")[0], code)
            subprocess.run([FODR, "unregister"], env=self.scratch.environment, check=True)

    def test_a_store_that_cannot_be_read_or_written_is_left_alone(self):
        self.file.parent.mkdir()
        self.file.write_text("[[[ mine\n")
        code, _, lines = self.config("set", "logLevel", "INFO")
        self.assertEqual((code, lines), (1, 2))  # what is wrong with the file, and what that means
        self.assertEqual(self.config("unset", "logLevel"), (1, "", 2))
        for words in [("get", "logLevel"), ("list",), ("list", "--all")]:
            self.assertEqual(self.config(*words), (1, "", 1), words)
        self.assertEqual(self.file.read_text(), "[[[ mine\n")

    def test_changes_are_watched_from_before_the_first_value(self):
        out = open(self.scratch.root / "watch.log", "w+")
        watch = subprocess.Popen([FODR, "config", "watch"], stdout=out, env=self.scratch.environment)
        seen = pathlib.Path(out.name).read_text
        wait_for(lambda: self.config("set", "logLevel", "WARN")[0] == 0 and
                 "WARN" in seen() or self.config("unset", "logLevel")[0] != 0, "the first value")
        self.config("set", "RedirectAll", "1")
        wait_for(lambda: "RedirectAll = 1" in seen(), "a second value")
        self.config("unset", "RedirectAll")
        wait_for(lambda: "RedirectAll isn't set" in seen(), "its end")
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(60), 0)
        out.close()

    def test_a_value_that_cannot_be_read_is_not_said_to_be_missing(self):
        self.file.parent.mkdir()
        self.file.write_text(f"{KEY}\nAllowedFolders=multi_sz:/a\\x;\nlogLevel=INFO\n")
        code, out, lines = self.config("list", "--all")
        self.assertEqual((code, lines), (0, 1))
        self.assertNotIn("AllowedFolders", out)
        self.assertIn("logLevel = INFO", out)


class Live(SettingsCase):
    def test_a_store_that_cannot_be_read_is_said_once(self):
        self.file.parent.mkdir()
        said = "HKEY_LOCAL_MACHINE.ini is malformed and counts as empty"
        self.file.write_text("[[[\n")
        with self.share() as share:
            self.assertEqual(share.log().count(said), 1)
            self.file.write_text(f"{KEY}\nlogLevel=INFO\n")
        self.file.unlink()
        with self.share() as share:
            self.assertNotIn(said, share.log())
            self.file.write_text("[[[\n")
            wait_for(lambda: said in share.log(), "the complaint")

    def test_a_running_share_logs_as_the_user_says(self):
        logs = self.scratch.root / "logs"
        logs.mkdir()
        self.config("set", "logDirectory", f"{logs}/")
        self.config("set", "logDiskThresholdLowMB", "0")  # however full this disk is

        def logged():
            return "".join(log.read_text() for log in logs.glob("orvane-LumenFodr-Client-*.log"))
        with self.share():
            wait_for(lambda: "Log level is set to INFO" in logged(), "the start")
            self.config("set", "logLevel", "TRACE")
            wait_for(lambda: "logLevel changed to TRACE" in logged(), "the change")
            os.listdir(self.mount)
            wait_for(lambda: "DEVICE_IOREQUEST(" in logged(), "a packet")
            self.config("unset", "logLevel")
            wait_for(lambda: "logLevel changed to INFO" in logged(), "the end of it")


if __name__ == "__main__":
    unittest.main(verbosity=2)
