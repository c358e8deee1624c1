"""The agent's device rules, against a USB stick that tests/linux/usb-stick simulates."""
import os
import pathlib
import subprocess
import sys
import unittest

from share import ShareCase

STICK = os.environ.get("FODR_TEST_USB_FOLDER")
SIMULATOR = pathlib.Path(__file__).resolve().parent.parent / "linux" / "usb-stick"


def outside():
    done = subprocess.run([SIMULATOR, sys.executable, "-B", __file__])
    if done.returncode == 77:
        print("skipped: no loop device to be had", file=sys.stderr)
    return 0 if done.returncode == 77 else done.returncode


class DeviceRules(ShareCase):
    def setUp(self):
        super().setUp()
        pathlib.Path(STICK, "f").write_text("of the stick")
        (self.local / "own").write_text("own ")
        (self.local / "link").symlink_to(STICK)

    def read(self, folder, names, *rules, by="cat", more=()):
        """What `cat` or another says of the names in the mount of the folder, and the status of it all."""
        paths = [self.mount / name for name in names]
        done = self.fodr("share", folder, "--mount", self.mount, *more,
                         *(f"--agent-option={word}" for word in rules), "--", by, *paths)
        return done.returncode, done.stdout, done.stderr

    def test_a_share_on_the_stick_is_refused_and_said_so(self):
        for rules in (("--exclude", "vid-0781_pid-****"), ("--include", "vid-0781_pid-0000")):
            code, out, errors = self.read(STICK, ["f"], *rules)
            self.assertEqual((code, out), (5, ""), errors)
            self.assertIn("the other side doesn't allow it", errors)
        for rules in ((), ("--exclude", "vid-0781_pid-0000", "--include", "vid-****_pid-55AB")):
            self.assertEqual(self.read(STICK, ["f"], *rules), (0, "of the stick", ""))

    def test_a_link_to_the_stick_is_a_link(self):
        # Whoever sees it follows it, on the machine that it is seen on. What the host follows is tested without a mount.
        for rules in ([], ["--exclude", "vid-0781_pid-****"]):
            code, out, errors = self.read(self.local, ["link"], *rules, by="readlink")
            self.assertEqual((code, out.strip(), errors), (0, str(STICK), ""))
        code, out, errors = self.read(self.local, ["own"], more=["--links-outside"])
        self.assertEqual((code, out), (0, "own "), errors)
        self.assertEqual(errors, "fodr: links of the shared folders may lead anywhere on this machine\n")


if __name__ == "__main__":
    if STICK is None:
        sys.exit(outside())
    passed = unittest.main(verbosity=2, exit=False).result.wasSuccessful()
    sys.stderr.flush()
    os._exit(0 if passed else 1)  # past the leak check of a sanitizer that fodr has us preload
