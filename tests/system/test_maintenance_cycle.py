"""Remote maintenance end to end: the real velmar against pyftpdlib as maintenance server,
over explicit FTPS (the TLS policy requires it for the server; the server requires TLS on the
control and data connections) with a signed file list and a SHA-256 for every entry.

The server lists an upgrade package, a configuration archive that changes the device number,
a log command for the debug logs of one day and a user command that creates a marker file.
Nothing but AUTH TLS reaches the server in clear, and busybox's ftpget/ftpput never run. After
a restart, a list signed with a lower serial than the one accepted runs nothing.
"""
import hashlib
import io
import os
import subprocess
import tarfile
import unittest

from harness import SOURCE_DIR, FtpServer, ServiceTest, read, wait_until, write

PACKAGE = "VLM-1.0.4-2.4-20261201-A.sw"
NEW_DEVICE = "200456"
IN_SPAN = ["/mnt/sd1/debug/dbglog-20240101-080000.log",
           "/mnt/sd1/debug/dbglog-20240101-120000.log",
           "/mnt/sd2/debug/dbglog-20240101-100000.log"]
OUT_OF_SPAN = ["/mnt/sd1/debug/dbglog-20240101-000000.log"]  # the start itself: not inside


def entry(name, file_type, data):
    data = data if isinstance(data, bytes) else data.encode()
    return ('<FILE filetype="%d" filesize="%d" devtype="3" expirydate="20371231-235959" '
            'crcvalue="sha256:%s">%s</FILE>' % (file_type, len(data),
                                                hashlib.sha256(data).hexdigest(), name))


def config_archive():
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=tarfile.GNU_FORMAT) as tar:
        data = ('<?xml version="1.0"?>\n<jtbase deviceNo="%s"/>\n' % NEW_DEVICE).encode()
        info = tarfile.TarInfo("config/jtbase.xml")
        info.size = len(data)
        tar.addfile(info, io.BytesIO(data))
    return out.getvalue()


class MaintenanceCycleTest(ServiceTest):
    def setUp(self):
        super().setUp()
        cert, self.key = self.root.under("/cert.pem"), self.root.under("/list-key.pem")
        subprocess.run([os.path.join(SOURCE_DIR, "scripts", "ftps-cert"), cert], check=True,
                       capture_output=True)
        write(self.root.under("/etc/velmar/ftps.conf"), "127.0.0.1 require ca=%s\n" % cert)
        subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out", self.key],
                       check=True, capture_output=True)
        subprocess.run(["openssl", "pkey", "-in", self.key, "-pubout", "-out",
                        self.root.under("/etc/velmar/maintain-trust.pem")], check=True)
        # Stand-ins that leave a mark if the service ever ran ftpget or ftpput.
        self.tools = self.root.under("/tools")
        for tool in ("ftpget", "ftpput"):
            write(os.path.join(self.tools, tool), '#!/bin/sh\ntouch "$0.ran"\nexit 1\n')
            os.chmod(os.path.join(self.tools, tool), 0o755)
        self.velmar.path_first = [self.tools]
        self.served = self.root.under("/served")
        self.server = FtpServer(self.served, lifetime=400, tls=cert).start()
        self.addCleanup(self.server.stop)

    def serve(self, directory, files, serial):
        listing = ('<FileList serial="%d">' % serial + "".join(entry(n, t, d) for n, t, d in files)
                   + "</FileList>")
        for name, _, data in files:
            write(os.path.join(directory, name), data)
        path = os.path.join(directory, "FileList.xml")
        write(path, listing)
        subprocess.run(["openssl", "pkeyutl", "-sign", "-rawin", "-inkey", self.key, "-in", path,
                        "-out", path + ".sig"], check=True)

    def test_cycle_imports_runs_uploads_and_announces(self):
        marker = self.root.under("/marker")
        logcmd = ('<LOGCMD><ExpiryDate>20371231-235959</ExpiryDate>'
                  '<CMDITEM type="10" datetime="20240101-000000~20240101-235959" '
                  'scope="100000~300000"/></LOGCMD>')
        usrcmd = '<UsrDefineCmd><CMDITEM scope="all">touch %s</CMDITEM></UsrDefineCmd>' % marker
        self.serve(self.served, [(PACKAGE, 1, b"\x7fpackage" * 1000),
                                 ("config.tar", 5, config_archive()),
                                 ("LOGCMD.xml", 2, logcmd),
                                 ("UsrDefineCmd.xml", 3, usrcmd)], serial=5)
        for p in IN_SPAN + OUT_OF_SPAN:
            write(self.root.under(p), "log of %s\n" % p)
        write(self.root.under("/etc/velmar/config/upgrade.xml"),
                   '<upgrade host="127.0.0.1" port="%d" user="user" password="secret" path="/" '
                   'name="FileList.xml"/>' % self.server.port)
        self.velmar.start()

        # First pass: 3 steps to the parsed list, then two steps (6 s apart) per entry.
        self.assertTrue(wait_until(lambda: os.path.exists(marker), 120, step=1),
                        self.velmar.log()[-4000:])
        jtbase = read(self.root.under("/etc/velmar/config/jtbase.xml"))
        self.assertIn('deviceNo="%s"' % NEW_DEVICE, jtbase)
        # Exactly the logs in the span, named after the new device number, with their content.
        uploaded = {n: read(os.path.join(self.served, n)) for n in os.listdir(self.served)
                    if "_dbglog-" in n}
        self.assertEqual(uploaded, {"%s_%s" % (NEW_DEVICE, os.path.basename(p)): "log of %s\n" % p
                                    for p in IN_SPAN})
        # The disk report of type 10 was written and removed again.
        self.assertIn("diskaccess", read(self.velmar.out_path))
        self.assertEqual(sorted(os.listdir(self.root.under("/mnt/sd1/debug"))),
                         sorted(os.path.basename(p) for p in IN_SPAN + OUT_OF_SPAN if "/sd1/" in p))
        package = self.root.under("/mnt/sd1/" + PACKAGE)
        self.assertIn(package, read(self.root.under("/run/velmar/status.xml")))
        self.assertEqual(os.path.getsize(package), 8000)
        self.assertFalse(os.path.exists(self.root.under("/tmp/config")))  # removed after import

        # The upgrade service installs the package; a new pass (started at once by a server
        # request for the same server) does not load it again.
        write(self.root.under("/etc/velmar/version.xml"),
                   '<version prefix="VLM" v1="1.0.4" v2="2.4" v3="20261201" v4="A"/>')
        self.ctl("server", "--server", self.server.url("/"))
        self.assertTrue(self.velmar.wait_log("NewVer=CurVer=" + PACKAGE, 60),
                        self.velmar.log()[-4000:])
        self.assertEqual(self.velmar.log().count("LocalVersion="), 1)
        self.assertEqual({c for c in self.server.commands() if c.startswith("clear ")},
                         {"clear AUTH TLS"})
        self.assertEqual([f for f in os.listdir(self.tools) if f.endswith(".ran")], [])

        # Restarted, the service refuses an older list, properly signed: nothing of it runs.
        self.velmar.stop()
        marker2 = self.root.under("/marker2")
        self.serve(self.served, [("UsrDefineCmd.xml", 3, '<UsrDefineCmd><CMDITEM>touch %s'
                                  '</CMDITEM></UsrDefineCmd>' % marker2)], serial=4)
        self.velmar.start()
        self.assertTrue(self.velmar.wait_log("serial 4 is lower than 5, accepted before", 60),
                        self.velmar.log()[-4000:])
        self.assertFalse(os.path.exists(marker2))


if __name__ == "__main__":
    unittest.main()
