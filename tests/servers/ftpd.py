"""An FTP server (pyftpdlib) for the tests and for scripts/run.

Serves --root for --user with --password (default "user", "secret") on 127.0.0.1, on a free
port (or --port) that it prints as the first line of standard output. Ends by itself after
--lifetime seconds in case whoever started it does not stop it. --throttle N reads uploads at
about N bytes a second, to the end of the data even after the client is gone, as a server
behind a slow link does (each connection then has a thread of its own). --events FILE appends
a line per upload command ("STOR path" / "APPE path") and per finished upload ("closed path
size"), so that a test can wait for a transfer to end instead of for a quiet period. --tls
CERT_AND_KEY (one PEM file) makes it an explicit FTPS server that requires TLS on the control
and data connections; --commands FILE appends every command line it receives, "tls LINE" or
"clear LINE".
"""
import argparse
import logging
import os
import socket
import sys
import threading
import time

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import DTPHandler, FTPHandler, TLS_FTPHandler
from pyftpdlib.servers import FTPServer, ThreadedFTPServer


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--root", required=True)
    ap.add_argument("--user", default="user")
    ap.add_argument("--password", default="secret")
    ap.add_argument("--lifetime", type=float, default=120.0)
    ap.add_argument("--port", type=int, default=0)
    ap.add_argument("--throttle", type=int, default=0)
    ap.add_argument("--events", default="")
    ap.add_argument("--tls", default="")
    ap.add_argument("--commands", default="")
    args = ap.parse_args()

    logging.basicConfig(level=logging.WARNING)
    authorizer = DummyAuthorizer()
    authorizer.add_user(args.user, args.password, args.root, perm="elradfmwMT")

    base = FTPHandler
    if args.tls:
        base = TLS_FTPHandler
        base.certfile = args.tls
        base.tls_control_required = base.tls_data_required = True

    def event(text):
        if args.events:
            with open(args.events, "a") as f:
                f.write(text + "\n")

    class Handler(base):
        def found_terminator(self):
            if args.commands:
                with open(args.commands, "a") as f:
                    f.write("%s %s\n" % ("tls" if getattr(self, "_ssl_established", False)
                                         else "clear", b"".join(self._in_buffer).decode("latin-1")))
            return base.found_terminator(self)

        def ftp_STOR(self, file, mode="w"):
            event("%s %s" % ("APPE" if mode == "a" else "STOR", file))
            return base.ftp_STOR(self, file, mode)

        def on_file_received(self, file):
            event("closed %s %d" % (file, os.path.getsize(file)))

        on_incomplete_file_received = on_file_received

        def close(self):
            # A client that vanished mid-upload leaves its data connection to be read to
            # its end, as a server that sees the control connection drop first may do.
            if args.throttle > 0 and self.data_channel is not None and self.data_channel.receive:
                self.data_channel = None
            base.close(self)

    if args.throttle > 0:
        class SlowReader(DTPHandler):
            ac_in_buffer_size = 16384

            def __init__(self, sock, cmd_channel):
                # Megabytes in flight, as on a link with a large bandwidth-delay product.
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
                DTPHandler.__init__(self, sock, cmd_channel)

            def handle_read(self):
                DTPHandler.handle_read(self)
                time.sleep(self.ac_in_buffer_size / args.throttle)  # this connection only

            handle_read_event = handle_read
        Handler.dtp_handler = SlowReader
    Handler.authorizer = authorizer
    Handler.passive_ports = None
    Handler.auth_failed_timeout = 0.1
    FTPServer.allow_reuse_address = ThreadedFTPServer.allow_reuse_address = True
    server = (ThreadedFTPServer if args.throttle > 0 else FTPServer)(("127.0.0.1", args.port),
                                                                   Handler)
    print(server.address[1], flush=True)

    timer = threading.Timer(args.lifetime, lambda: os._exit(3))
    timer.daemon = True
    timer.start()
    server.serve_forever(timeout=0.5, handle_exit=False)


if __name__ == "__main__":
    sys.exit(main())
