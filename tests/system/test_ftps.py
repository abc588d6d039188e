"""Uploads over explicit FTPS with the TLS policy "require": every refusal (server without TLS,
certificate of another host, expired, from an unknown CA, fingerprint mismatch) has its own log
line and nothing but AUTH reaches the server; against vsftpd with TLS forced on both
connections a file and a recording arrive byte-identical, a partial copy resumed with APPE."""
import datetime
import filecmp
import ipaddress
import os
import shutil
import socket
import subprocess
import unittest

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import NameOID

from harness import (FtpServer, SandboxRoot, Velmar, Watch, make_recording, velmar_avi,
                     velmarctl, wait_until)


def make_cert(path, names=("127.0.0.1",), days=(-1, 2)):
    """A self-signed certificate and its key in one PEM file, for names (IP addresses or DNS
    names), valid from now+days[0] to now+days[1]; returns its SHA-256 fingerprint in hex."""
    key = ec.generate_private_key(ec.SECP256R1())
    name = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, names[0])])
    now = datetime.datetime.now(datetime.timezone.utc)
    alt = [x509.IPAddress(ipaddress.ip_address(n)) if n[0].isdigit() else x509.DNSName(n)
           for n in names]
    cert = (x509.CertificateBuilder().subject_name(name).issuer_name(name)
            .public_key(key.public_key()).serial_number(x509.random_serial_number())
            .not_valid_before(now + datetime.timedelta(days=days[0]))
            .not_valid_after(now + datetime.timedelta(days=days[1]))
            .add_extension(x509.SubjectAlternativeName(alt), critical=False)
            .add_extension(x509.BasicConstraints(ca=True, path_length=None), critical=True)
            .sign(key, hashes.SHA256()))
    with open(path, "wb") as f:
        f.write(cert.public_bytes(serialization.Encoding.PEM))
        f.write(key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                  serialization.NoEncryption()))
    return cert.fingerprint(hashes.SHA256()).hex()


class Vsftpd:
    """vsftpd on 127.0.0.1 for anonymous uploads into root_dir/up, with TLS forced on the login
    and on every data connection, and TLS session reuse required on them (its default)."""

    def __init__(self, root_dir, cert):
        os.makedirs(os.path.join(root_dir, "up"), exist_ok=True)
        os.chmod(root_dir, 0o555)
        shutil.chown(os.path.join(root_dir, "up"), "ftp")
        with socket.socket() as s:
            s.bind(("127.0.0.1", 0))
            self.port = s.getsockname()[1]
        os.makedirs("/var/run/vsftpd/empty", exist_ok=True)
        conf, self.log_path = root_dir.rstrip("/") + ".conf", root_dir.rstrip("/") + ".log"
        with open(conf, "w") as f:
            f.write("listen=YES\nlisten_ipv6=NO\nlisten_address=127.0.0.1\nlisten_port=%d\n"
                    "background=NO\nanonymous_enable=YES\nno_anon_password=YES\n"
                    "local_enable=NO\nwrite_enable=YES\nanon_upload_enable=YES\n"
                    "anon_mkdir_write_enable=YES\nanon_other_write_enable=YES\n"
                    "anon_root=%s\nanon_umask=022\nftp_username=ftp\npasv_enable=YES\n"
                    "seccomp_sandbox=NO\nisolate=NO\nisolate_network=NO\n"
                    "secure_chroot_dir=/var/run/vsftpd/empty\nssl_enable=YES\n"
                    "allow_anon_ssl=YES\nforce_anon_logins_ssl=YES\nforce_anon_data_ssl=YES\n"
                    "require_ssl_reuse=YES\nssl_ciphers=HIGH\nrsa_cert_file=%s\n"
                    "rsa_private_key_file=%s\nlog_ftp_protocol=YES\nxferlog_enable=YES\nxferlog_std_format=NO\n"
                    "vsftpd_log_file=%s\n" % (self.port, root_dir, cert, cert, self.log_path))
        self.proc = subprocess.Popen([shutil.which("vsftpd") or "/usr/sbin/vsftpd", conf])
        wait_until(self.listening, 10)

    def listening(self):
        with socket.socket() as s:
            return s.connect_ex(("127.0.0.1", self.port)) == 0

    def commands(self):
        """The commands of the protocol log: 'FTP command: Client "127.0.0.1", "STOR x"'."""
        with open(self.log_path, errors="replace") as f:
            return [l.split('", "', 1)[1].rstrip('"\n') for l in f if "FTP command" in l]

    def url(self, path="/up"):
        return "ftp://anonymous:x@127.0.0.1:%d%s" % (self.port, path)

    def stop(self):
        self.proc.kill()
        self.proc.wait(timeout=10)


def write_policy(root, text):
    path = root.under("/etc/velmar/ftps.conf")
    with open(path + ".tmp", "w") as f:
        f.write(text)
    os.replace(path + ".tmp", path)


class FtpsTest(unittest.TestCase):
    def setUp(self):
        self.root = SandboxRoot()
        self.velmar = Velmar(self.root)
        self.servers = []

    def tearDown(self):
        try:
            self.velmar.stop()
        finally:
            for s in self.servers:
                s.stop()
            self.root.remove()

    def cert(self, name, **kw):
        path = self.root.under("/" + name + ".pem")
        return path, make_cert(path, **kw)

    def test_refusals(self):
        good, good_pin = self.cert("good")
        other, _ = self.cert("other")
        cases = [  # (server certificate or None for no TLS, policy words, expected reason)
            (None, "ca=" + good, "server answered AUTH TLS with 500"),
            (self.cert("wronghost", names=("elsewhere.example",))[0], "ca=%s",
             "certificate of another host"),
            (self.cert("expired", days=(-3, -1))[0], "ca=%s", "certificate expired"),
            (good, "ca=" + other, "certificate from an unknown CA"),
            (good, "ca=%s pin=sha256:" + "00" * 32, "certificate fingerprint mismatch"),
        ]
        self.assertNotEqual(good_pin, "00" * 32)
        for seq, (cert, words, reason) in enumerate(cases, 1):
            served = self.root.under("/served%d" % seq)
            server = FtpServer(served, tls=cert).start()
            self.servers.append(server)
            velmar = Velmar(SandboxRoot())
            try:
                write_policy(velmar.root, "* off\n")
                velmar.start()
                self.assertTrue(velmar.wait_log("disk changed", 15), velmar.log())
                # Re-read when it changes: an entry for this server's host, one for all others.
                write_policy(velmar.root, "127.0.0.1 require %s\n* off\n"
                             % words.replace("%s", cert or ""))
                r = velmarctl(velmar.root, "upload", "--file", good, "--seq", str(seq),
                              "--name", "x.txt", "--server", server.url("/"))
                self.assertEqual(r.returncode, 0, r.stderr)
                line = "TLS with 127.0.0.1 refused: " + reason
                self.assertTrue(velmar.wait_log(line, 60), (reason, velmar.log()[-2000:]))
            finally:
                velmar.stop()
                velmar.root.remove()
            server.stop()
            # Only AUTH reached the server: no login, no store, in clear or otherwise.
            self.assertEqual(set(server.commands()), {"clear AUTH TLS"}, reason)
            self.assertFalse(os.path.exists(os.path.join(served, "x.txt")), reason)


    def test_require_against_vsftpd(self):
        cert, pin = self.cert("server")
        served = self.root.under("/vsftpd")
        server = Vsftpd(served, cert)
        self.servers.append(server)
        write_policy(self.root, "127.0.0.1 require ca=%s verify_host=yes pin=sha256:%s\n"
                     % (cert, pin))
        local = self.root.under("/data/file.bin")
        os.makedirs(os.path.dirname(local))
        with open(local, "wb") as f:
            f.write(os.urandom(3 << 20))
        # A copy cut short by an earlier pass: the upload must continue it with APPE.
        partial = os.path.join(served, "up", "part.bin")
        with open(local, "rb") as src, open(partial, "wb") as dst:
            dst.write(src.read(1 << 20))
        shutil.chown(partial, "ftp")
        recording, _ = make_recording(self.root, 4)
        expected = self.root.under("/expected.avi")
        velmar_avi(self.root, recording, expected)
        watch = Watch(self.root, 120)
        try:
            self.velmar.start()
            self.assertTrue(self.velmar.wait_log("disk changed", 15), self.velmar.log())
            for seq, kind, source, name in [(1, "--file", local, "file.bin"),
                                            (2, "--recording", recording, "rec.avi"),
                                            (3, "--file", local, "part.bin")]:
                r = velmarctl(self.root, "upload", kind, source, "--seq", str(seq), "--name",
                              name, "--server", server.url())
                self.assertEqual(r.returncode, 0, r.stderr)
            self.assertTrue(wait_until(lambda: len(watch.task_status()) == 3, 90, step=0.5),
                            self.velmar.log()[-3000:])
        finally:
            watch.stop()
        self.assertEqual(sorted(watch.task_status()),
                         ["task-status seq=%d status=0" % i for i in (1, 2, 3)],
                         self.velmar.log()[-3000:])
        up = os.path.join(served, "up")
        self.assertTrue(filecmp.cmp(local, os.path.join(up, "file.bin"), shallow=False))
        self.assertTrue(filecmp.cmp(local, os.path.join(up, "part.bin"), shallow=False))
        sent = server.commands()
        self.assertIn("APPE part.bin", sent)
        self.assertNotIn("STOR part.bin", sent)
        self.assertTrue(filecmp.cmp(expected, os.path.join(up, "rec.avi"), shallow=False))


if __name__ == "__main__":
    unittest.main()
