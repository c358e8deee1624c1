"""The agent at the far end of a network: over a real sshd, over TCP both ways, and again after a loss."""
import os
import shutil
import socket
import subprocess
import unittest

from share import FODR, ShareCase, children, command_line, free_port, listens, mounted, wait_for

SSHD = shutil.which("sshd") or "/usr/sbin/sshd"


class NetworkCase(ShareCase):
    def setUp(self):
        super().setUp()
        (self.local / "greeting").write_text("hello")

    def share(self, *arguments, **options):
        return super().share(*arguments, target=(), **options)

    def assert_writable(self):
        data = os.urandom(3_000_001)
        (self.mount / "there").write_bytes(data)
        self.assertEqual((self.local / "there").read_bytes(), data)

    def assert_usable(self):
        self.assert_writable()
        self.assertEqual((self.mount / "greeting").read_text(), "hello")


class SshCase(NetworkCase):
    """sshd with a key of the test's own, for the user who runs it."""

    def setUp(self):
        if not os.path.exists(SSHD):
            self.skipTest("no sshd here")
        super().setUp()
        self.keys = self.scratch.root / "ssh"
        self.keys.mkdir(mode=0o700)
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", str(self.keys / key)], check=True)
        shutil.copy(self.keys / "user.pub", self.keys / "authorized")
        self.port = free_port()
        os.makedirs("/run/sshd", exist_ok=True)
        (self.keys / "sshd_config").write_text(
            f"Port {self.port}\nListenAddress 127.0.0.1\nHostKey {self.keys}/host\nUsePAM no\nStrictModes no\n"
            f"AuthorizedKeysFile {self.keys}/authorized\nPidFile {self.keys}/pid\nPermitRootLogin yes\n")
        self.sshd = subprocess.Popen([SSHD, "-D", "-f", str(self.keys / "sshd_config")], stderr=subprocess.DEVNULL)
        self.addCleanup(self.stop_sshd)
        wait_for(lambda: listens(self.port), "sshd")
        self.ssh = (f"ssh -p {self.port} -i {self.keys}/user -o StrictHostKeyChecking=no -o LogLevel=ERROR "
                    f"-o UserKnownHostsFile={self.keys}/known -o BatchMode=yes")

    def stop_sshd(self):
        self.sshd.terminate()
        self.sshd.wait()

    def to(self, *arguments, remote=FODR, mount=None):
        user = subprocess.run(["id", "-un"], capture_output=True, text=True).stdout.strip()
        return ["--to", f"{user}@127.0.0.1:{mount or self.mount}", "--ssh-command", self.ssh, "--remote-fodr", remote,
                *arguments]

    def ssh_pid(self, share):
        def found():
            pids[:] = [pid for pid in children(share.process.pid) if command_line(pid)[:1] == [b"ssh"]]
            return pids
        pids = []
        wait_for(found, "ssh")
        return pids[0]

    def usable(self):
        try:
            return (self.mount / "greeting").read_text() == "hello"
        except OSError:
            return False


class Ssh(SshCase):
    def test_the_folder_appears_on_the_other_machine_and_leaves_with_the_command(self):
        with self.share(*self.to()):
            self.assert_usable()
        done = self.fodr("share", self.local, *self.to(), "--", "sh", "-c", f"cat '{self.mount}/greeting'; exit 7")
        self.assertEqual((done.returncode, done.stdout), (7, "hello"), done.stderr)
        wait_for(lambda: not mounted(self.mount), "the unmount on the other side")

    def test_single_files_are_sent(self):
        (self.local / "beside").write_text("not sent")
        done = self.fodr("send", self.local / "greeting", *self.to(), "--", "sh", "-c",
                         f"ls '{self.mount}'; cat '{self.mount}/greeting' '{self.mount}/beside'")
        self.assertEqual((done.returncode, done.stdout), (1, "greeting\nhello"), done.stderr)

    def test_what_is_wrong_is_said_in_one_sentence(self):
        stopped = free_port()
        cases = [
            (self.to(remote="/nowhere/fodr"), 10, "fodr"),
            (["--to", f"127.0.0.1:{self.mount}", "--ssh-command", f"ssh -p {stopped} -o BatchMode=yes"], 10, "ssh"),
        ]
        for words, code, text in cases:
            done = self.fodr("share", self.local, *words, "--no-reconnect")
            self.assertEqual(done.returncode, code, f"{words}\n{done.stderr}")
            self.assertIn(text, done.stderr)
            self.assertNotIn("Traceback", done.stderr)


class Tcp(NetworkCase):
    def test_an_agent_that_listens_and_one_that_connects(self):
        port = free_port()
        token = self.scratch.root / "token"
        token.write_text("open sesame\n")
        token.chmod(0o600)
        for side_channel in ([], ["--side-channel", "tcp"]):
            agent = self.agent(self.mount, "--listen", f"127.0.0.1:{port}", "--token-file", token, *side_channel)
            with self.share("--tcp", f"127.0.0.1:{port}", "--token-file", token, *side_channel):
                self.assert_usable()
            self.assertEqual(agent.wait(60), 0)

        with self.share("--listen", f"127.0.0.1:{port}", "--token-file", token, ready=lambda: listens(port)) as share:
            agent = self.agent(self.mount, "--connect", f"127.0.0.1:{port}", "--token-file", token)
            wait_for(lambda: "is mounted at" in share.log(), "the mount")
            self.assert_usable()
        self.assertEqual(agent.wait(60), 0)

    def test_an_end_without_the_token_gets_nothing(self):
        port = free_port()
        token = self.scratch.root / "token"
        token.write_text("right")
        token.chmod(0o600)
        share = self.share("--listen", f"127.0.0.1:{port}", "--token-file", token, ready=lambda: listens(port))
        share.__enter__()
        agent = self.agent(self.mount, "--connect", f"127.0.0.1:{port}")
        self.assertNotEqual(agent.wait(60), 0)
        self.assertFalse(mounted(self.mount))
        wait_for(lambda: "the agent doesn't know the agreed token" in share.log(), "the refusal")
        # Neither that one nor other strangers keep the right one out.
        silent = socket.create_connection(("127.0.0.1", port))
        with socket.create_connection(("127.0.0.1", port)) as web:
            web.sendall(b"GET / HTTP/1.1\r\n\r\n")
        agent = self.agent(self.mount, "--connect", f"127.0.0.1:{port}", "--token-file", token)
        wait_for(lambda: "is mounted at" in share.log(), "the mount")
        self.assert_usable()
        silent.close()
        share.__exit__(None, None, None)
        self.assertEqual(agent.wait(60), 0)

    @unittest.skipUnless(os.geteuid() == 0, "only root can be two users")
    def test_without_a_token_other_users_of_the_machine_stay_out(self):
        port = free_port()
        with self.share("--listen", port, ready=lambda: listens(port)) as share:
            knock = f"exec 3<>/dev/tcp/127.0.0.1/{port}; head -c 9 <&3"
            subprocess.run(["/bin/bash", "-c", knock], user=65534, cwd="/", check=True, stdout=subprocess.DEVNULL)
            wait_for(lambda: "another user of this machine has connected" in share.log(), "the refusal")
            agent = self.agent(self.mount, "--connect", f"127.0.0.1:{port}")
            wait_for(lambda: "is mounted at" in share.log(), "the mount")
            self.assert_usable()
        self.assertEqual(agent.wait(60), 0)


if __name__ == "__main__":
    unittest.main(verbosity=2)
