#!/usr/bin/env python3
"""A server over HTTP that gives the beginning of a file and then nothing more, without an end.

Usage: stalled_server.py FILE BYTES PORT COMMAND...    serves as long as the command runs
"""

import contextlib
import http.server
import pathlib
import subprocess
import sys
import threading


def serve(file, size, port=0):
    """The server, which has begun to serve; 0 is any port."""
    body = pathlib.Path(file).read_bytes()

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_GET(self):
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            with contextlib.suppress(OSError):
                self.wfile.write(body[:size])
                self.wfile.flush()
            self.server.over.wait()
            self.close_connection = True

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", port), Handler)
    server.daemon_threads = True
    server.over = threading.Event()  # lets the connections go
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


if __name__ == "__main__":
    serve(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]))
    sys.exit(subprocess.call(sys.argv[4:]))
