"""A real OpenVPN server and its clients, each client in a network of its own.

Runs in a throw-away root (tools/in_root --tun). The server is in the root's network, 203.0.113.1 and
2001:db8::1; client n is reached at 203.0.113.(10 + n) and 2001:db8::(10 + n). The certificates are made
here by openssl and thrown away. Nothing sleeps: what is waited for is a line of somebody's log.
"""
import os
import re
import signal
import socket
import subprocess
import tempfile
import threading

TIMEOUT_SECONDS = 30
SERVER_PORT = 1194
MANAGEMENT = "/tmp/management"
VERIFIER = """#!/bin/sh
# The password of everybody is "right".
{ read -r user; read -r password; } <"$1"
[ "$password" = right ]
"""


def what_is_missing():
    """In words; nothing when a lab can be made here."""
    for path in ("/dev/net/tun", "/usr/sbin/openvpn", "/usr/bin/openssl"):
        if not os.path.exists(path):
            return f"{path} is missing"
    try:
        with open("/dev/net/tun", "r+b", buffering=0):
            return ""
    except OSError as error:
        return str(error)


def run(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


class Process:
    """A program whose output is read line by line."""

    started = []

    def __init__(self, *command):
        self.command = command
        self.lines = []
        Process.started.append(self)
        self.changed = threading.Condition()
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, errors="replace")
        self.reader = threading.Thread(target=self.read, daemon=True)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            with self.changed:
                self.lines.append(line.rstrip("\n"))
                self.changed.notify_all()
        with self.changed:
            self.changed.notify_all()

    def find(self, pattern, start=0):
        for line in self.lines[start:]:
            found = re.search(pattern, line)
            if found:
                return found
        return None

    def wait_for(self, pattern, start=0):
        """The first line from the start-th on that has the pattern, as a match."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.find(pattern, start), TIMEOUT_SECONDS):
                raise AssertionError(f"no line with {pattern!r}; " + self.last_words() + "".join(
                    other.last_words() for other in Process.started if other is not self))
            return self.find(pattern, start)

    def last_words(self):
        return "\n".join([f"{self.command} said last:", *self.lines[-60:], ""])

    def end(self, sig=signal.SIGTERM):
        """Sends the signal, and waits for the end and the last line."""
        if self.process.poll() is None:
            self.process.send_signal(sig)
        self.process.wait(TIMEOUT_SECONDS)
        self.reader.join(TIMEOUT_SECONDS)


class Lab:
    """Certificates, networks, servers, clients. end() ends everything."""

    def __init__(self):
        self.folder = tempfile.mkdtemp()
        self.processes = []
        self.networks = {}
        self.make_certificates()
        # With an address of its own: otherwise each new port may change it, under the clients' feet.
        run("ip", "link", "add", "lab", "address", "02:00:00:00:00:01", "type", "bridge", "mcast_snooping", "0")
        run("ip", "address", "add", "203.0.113.1/24", "dev", "lab")
        run("ip", "address", "add", "2001:db8::1/64", "dev", "lab", "nodad")
        run("ip", "link", "set", "lab", "up")
        self.quiet_tunnels()

    # --- Certificates ----------------------------------------------------------------------------

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text, mode=0o600):
        with open(self.path(name), "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
        os.chmod(self.path(name), mode)
        return self.path(name)

    def openssl(self, *words):
        run("openssl", *words, cwd=self.folder, env={**os.environ, "OPENSSL_CONF": self.path("openssl.cnf")})

    def make_certificates(self):
        self.write("openssl.cnf", "[req]\ndistinguished_name = name\n[name]\n"
                   "[authority]\nbasicConstraints = critical,CA:true\n"
                   "[server]\nkeyUsage = digitalSignature\nextendedKeyUsage = serverAuth\n"
                   "[client]\nkeyUsage = digitalSignature\nextendedKeyUsage = clientAuth\n")
        key = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes")
        self.openssl("req", "-x509", *key, "-subj", "/CN=lab-ca", "-days", "2", "-extensions", "authority",
                     "-keyout", "ca.key", "-out", "ca.crt")
        for name in ("server", "client"):
            self.openssl("req", *key, "-subj", f"/CN={name}", "-keyout", f"{name}.key", "-out", f"{name}.csr")
            self.openssl("x509", "-req", "-in", f"{name}.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
                         "-CAcreateserial", "-days", "2", "-extfile", "openssl.cnf", "-extensions", name,
                         "-out", f"{name}.crt")

    # --- Networks --------------------------------------------------------------------------------

    def network(self, number):
        """The network of a client, held by a process, whose id is returned."""
        if number not in self.networks:
            holder = Process("unshare", "-n", "sh", "-c", "echo ready; exec cat /proc/self/fd/9 9<>" +
                             self.pipe(f"network{number}"))
            self.processes.append(holder)
            holder.wait_for("ready")
            pid = str(holder.process.pid)
            run("ip", "link", "add", f"lab{number}", "type", "veth", "peer", "name", "eth0", "netns", pid)
            run("ip", "link", "set", f"lab{number}", "master", "lab", "up")
            inside = ("nsenter", "-t", pid, "-n", "ip")
            run(*inside, "link", "set", "lo", "up")
            run(*inside, "address", "add", f"203.0.113.{10 + number}/24", "dev", "eth0")
            run(*inside, "address", "add", f"2001:db8::{10 + number}/64", "dev", "eth0", "nodad")
            run(*inside, "link", "set", "eth0", "up")
            run(*inside, "route", "add", "default", "via", "203.0.113.1")  # its device is the client's
            self.networks[number] = pid
        return self.networks[number]

    def move(self, number, address):
        """Gives a client another address."""
        inside = ("nsenter", "-t", self.network(number), "-n", "ip", "address")
        run(*inside, "flush", "dev", "eth0")
        run(*inside, "add", f"{address}/24", "dev", "eth0")

    def pipe(self, name):
        os.mkfifo(self.path(name))
        return self.path(name)

    def quiet_tunnels(self):
        """The server's kernel would ask all clients for routers, at times of its own."""
        for name, value in (("router_solicitations", "0"), ("addr_gen_mode", "1")):
            with open(f"/proc/sys/net/ipv6/conf/default/{name}", "w", encoding="utf-8") as file:
                file.write(value)

    # --- OpenVPN ---------------------------------------------------------------------------------

    def common_lines(self, name):
        return f"""dev tun
disable-dco
verb 3
tmp-dir {self.folder}
ca {self.path("ca.crt")}
cert {self.path(name + ".crt")}
key {self.path(name + ".key")}
data-ciphers AES-256-GCM
"""

    def start_server(self, *lines):
        """Silent clients are given up after 5 seconds. The server itself sends no pings, so that
        nothing is counted after a client's last word."""
        config = self.write("server.conf", self.common_lines("server") + f"""proto udp6
multihome
port {SERVER_PORT}
dh none
topology subnet
server 10.88.0.0 255.255.255.0
server-ipv6 fd00:88::/64
username-as-common-name
verify-client-cert require
ping-restart 5
push "ping 1"
push "ping-restart 60"
management {MANAGEMENT} unix
""" + "\n".join(lines))
        if os.path.exists(MANAGEMENT):
            os.remove(MANAGEMENT)
        server = Process("/usr/sbin/openvpn", "--config", config)
        self.processes.append(server)
        server.wait_for("Initialization Sequence Completed")
        return server

    def start_client(self, number, user, password="right", family=4, lines=()):
        """Client number tries to log in, once."""
        server = "203.0.113.1" if family == 4 else "2001:db8::1"
        name = f"client{len(self.processes)}"
        config = self.write(name + ".conf", self.common_lines("client") + f"""client
proto udp{family}
remote {server} {SERVER_PORT}
nobind
remote-cert-tls server
auth-user-pass {self.write(name + ".up", user + chr(10) + password + chr(10))}
auth-retry none
connect-retry-max 1
pull-filter ignore "route"
push-peer-info
setenv UV_DEVICE {"laptop" + str(number)}
explicit-exit-notify 1
""" + "\n".join(lines))
        client = Process("nsenter", "-t", self.network(number), "-n", "/usr/sbin/openvpn", "--config", config)
        self.processes.append(client)
        return client

    def connect(self, number, user, **options):
        client = self.start_client(number, user, **options)
        client.wait_for("Initialization Sequence Completed")
        return client

    def end(self):
        for process in reversed(self.processes):
            process.end(signal.SIGKILL)


# --- The management interface --------------------------------------------------------------------

class Management:
    """One connection to the server's management interface."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(TIMEOUT_SECONDS)
        self.socket.connect(MANAGEMENT)
        self.stream = self.socket.makefile("r", encoding="utf-8", errors="surrogateescape")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()
        self.socket.close()

    def send(self, *commands):
        """In one piece, so that nothing happens between the commands."""
        self.socket.sendall("".join(command + "\n" for command in commands).encode())

    def read_clients(self):
        """The next status: a dict for each client, by OpenVPN's own names."""
        names, clients = [], []
        for line in self.stream:
            kind, *values = line.rstrip("\n").split("\t")
            if kind == "HEADER" and values[0] == "CLIENT_LIST":
                names = values[1:]
            elif kind == "CLIENT_LIST":
                clients.append(dict(zip(names, values)))
            elif kind.strip() == "END":
                return clients
        raise AssertionError("the management interface ended")

    def clients(self):
        self.send("status 3")
        return self.read_clients()
