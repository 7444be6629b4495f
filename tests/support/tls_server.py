# A small HTTPS server for client tests: python3 tls_server.py CERT KEY
# Binds a free loopback port, prints "listening <port>", answers every GET with 200 "secure".
import http.server
import ssl
import sys


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        body = b"secure"
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(sys.argv[1], sys.argv[2])
server.socket = context.wrap_socket(server.socket, server_side=True)
print("listening", server.server_address[1], flush=True)
try:
    server.serve_forever()
except KeyboardInterrupt:
    pass
