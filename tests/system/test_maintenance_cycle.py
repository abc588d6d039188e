"""Remote maintenance end to end: the real velmar against pyftpdlib as maintenance server.

The server lists an upgrade package, a configuration archive that changes the device number,
a log command for the debug logs of one day and a user command that creates a marker file.
"""
import io
import os
import tarfile
import unittest

from harness import FtpServer, ServiceTest, read, wait_until, write

PACKAGE = "VLM-1.0.4-2.4-20261201-A.sw"
NEW_DEVICE = "200456"
IN_SPAN = ["/mnt/sd1/debug/dbglog-20240101-080000.log",
           "/mnt/sd1/debug/dbglog-20240101-120000.log",
           "/mnt/sd2/debug/dbglog-20240101-100000.log"]
OUT_OF_SPAN = ["/mnt/sd1/debug/dbglog-20240101-000000.log"]  # the start itself: not inside


def entry(name, file_type, data):
    return ('<FILE filetype="%d" filesize="%d" devtype="3" expirydate="20371231-235959" '
            'crcvalue="0">%s</FILE>' % (file_type, len(data), name))


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
        self.served = self.root.under("/served")
        self.server = FtpServer(self.served, lifetime=400).start()
        self.addCleanup(self.server.stop)

    def serve(self, directory, files):
        listing = "<FileList>" + "".join(entry(n, t, d) for n, t, d in files) + "</FileList>"
        for name, _, data in files:
            write(os.path.join(directory, name), data)
        write(os.path.join(directory, "FileList.xml"), listing)

    def test_cycle_imports_runs_uploads_and_announces(self):
        marker = self.root.under("/marker")
        logcmd = ('<LOGCMD><ExpiryDate>20371231-235959</ExpiryDate>'
                  '<CMDITEM type="10" datetime="20240101-000000~20240101-235959" '
                  'scope="100000~300000"/></LOGCMD>')
        usrcmd = '<UsrDefineCmd><CMDITEM scope="all">touch %s</CMDITEM></UsrDefineCmd>' % marker
        self.serve(self.served, [(PACKAGE, 1, b"\x7fpackage" * 1000),
                                 ("config.tar", 5, config_archive()),
                                 ("LOGCMD.xml", 2, logcmd),
                                 ("UsrDefineCmd.xml", 3, usrcmd)])
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


if __name__ == "__main__":
    unittest.main()
