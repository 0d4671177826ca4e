#!/usr/bin/python3 -B
"""What a user would take instead of the daemon, beside it in one run.

    alternatives_bench.py RAVOD VPNCAAS NOTIFY LIBRARY_DIR PEERS PLACE

A record, until it is stored:
    ours        a connection, by the client library, to the reply
    FreeRADIUS  an accounting request by UDP, to the reply; its own SQLite schema and queries
    sqlite3     the command, started once for each record
    rsyslog     a line handed to its socket, until it stands in the file; once as it comes, where
                nothing is brought to the disk, and once with a sync after each line, as the daemon
                and both others have it

A failed login, until it is counted:
    ours        add_privilege_user_block() of a user among ten, whom it does not block
    pam_faillock  one authentication by libpam, its module alone, which blocks nobody yet

A block, from the failed login on:
    ours        add_privilege_user_block() of a new user at a limit of 1, notification included
    fail2ban    a line in the log that it watches, until it tells of the ban; no action

No process is started on either side but sqlite3, whose way it is, and the notifier. All run on one
CPU, files in one file system: PLACE says which. The peers come with the options of their packages;
PEERS is the folder where those are unpacked. LIBRARY_DIR has the client library.

Run it through bench/run, as root: pam_faillock serves nobody else."""
import ctypes
import hashlib
import itertools
import os
import pwd
import select
import shutil
import socket
import sqlite3
import struct
import subprocess
import sys
import time
from pathlib import Path

from results import Opponent, compare, repeated, report_not_measured

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "python"))
import ravo  # noqa: E402

WORK = Path("/etc/config/peers")  # beside the daemon's database, on the same file system
PATIENCE = 20  # seconds
libc = ctypes.CDLL(None, use_errno=True)


class Unavailable(Exception):
    """A peer does not run here."""


# --- Programs ------------------------------------------------------------------------------------

class Peers:
    """Programs that packages brought to a folder or to the system."""

    def __init__(self, folder):
        self.folder = Path(folder)
        path = [str(self.folder / part) for part in ("usr/sbin", "usr/bin")]
        self.path = ":".join(path + [os.environ["PATH"]])
        self.environment = os.environ | {
            "PYTHONPATH": str(self.folder / "usr/lib/python3/dist-packages"),
            "LD_LIBRARY_PATH": ":".join(str(self.folder / "usr/lib" / part)
                                        for part in (f"{os.uname().machine}-linux-gnu", "freeradius"))}

    def program(self, name):
        found = shutil.which(name, path=self.path)
        if found is None:
            raise Unavailable(f"there is no {name} here")
        return found

    def file(self, name):
        """A package's file, in the folder or on the system."""
        for found in (self.folder / name, Path("/") / name):
            if found.exists():
                return found
        raise Unavailable(f"there is no /{name} here")

    def start(self, *command, ready):
        """Starts a daemon that stays in the foreground, and waits until it is ready."""
        output = WORK / (Path(command[0]).name + ".out")
        with open(output, "wb") as file:
            child = subprocess.Popen(command, stdout=file, stderr=file, env=self.environment)
        end = time.monotonic() + PATIENCE
        while not ready():
            if child.poll() is not None or time.monotonic() > end:
                told = output.read_text(errors="replace").strip().splitlines()[-1:]
                raise Unavailable(f"{Path(command[0]).name} does not start: {' '.join(told)}")
            time.sleep(0.01)


def start_service(program):
    """Starts a daemon of ours, which says when it serves."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
        path = f"/tmp/{Path(program).name}.ready"
        ready.bind(path)
        ready.settimeout(PATIENCE)
        subprocess.Popen([program], env=os.environ | {"NOTIFY_SOCKET": path})
        ready.recv(16)


class Tail:
    """What is appended to a file from now on."""

    IN_MODIFY = 2

    def __init__(self, path):
        self.file = open(path, "rb")
        self.file.seek(0, os.SEEK_END)
        self.changes = libc.inotify_init1(os.O_CLOEXEC)
        if libc.inotify_add_watch(self.changes, os.fsencode(path), self.IN_MODIFY) < 0:
            raise OSError(ctypes.get_errno(), "cannot watch", str(path))

    def wait_for(self, text):
        seen = self.file.read()
        while text not in seen:
            if not select.select([self.changes], [], [], PATIENCE)[0]:
                raise TimeoutError(f"{text} did not come")
            os.read(self.changes, 4096)
            seen += self.file.read()


# --- A record ------------------------------------------------------------------------------------

USER, SOURCE, ADDRESS = "alice", "203.0.113.11", "10.88.0.2"


def our_record(library_dir):
    library = ctypes.CDLL(f"{library_dir}/libravo_client.so.1")
    record = ravo.ConnServerLog(
        username=USER.encode(), vpn_type=4, time=1795222858, source_ip=SOURCE.encode(),
        vpn_ip=ADDRESS.encode(), device_info=b"linux 2.6.14 alice-laptop", outgoing=b"tun0", action=1)
    argument = ctypes.byref(record)

    def add():
        if library.add_conn_server_log(argument) != 0:
            sys.exit("the daemon does not answer")
    return add


RADIUS_CONFIGURATION = """
libdir = {libdir}
security {{
    max_attributes = 200
}}
thread pool {{
    start_servers = 5
    max_servers = 32
    min_spare_servers = 3
    max_spare_servers = 10
    max_requests_per_server = 0
}}
client bench {{
    ipaddr = 127.0.0.1
    secret = {secret}
}}
instantiate {{
    expr
}}
modules {{
    expr {{
    }}
    sql {{
        dialect = "sqlite"
        driver = "rlm_sql_sqlite"
        sqlite {{
            filename = "{work}/radius.db"
            busy_timeout = 200
            bootstrap = "{sql}/schema.sql"
        }}
        radius_db = "radius"
        acct_table1 = "radacct"
        acct_table2 = "radacct"
        postauth_table = "radpostauth"
        authcheck_table = "radcheck"
        groupcheck_table = "radgroupcheck"
        authreply_table = "radreply"
        groupreply_table = "radgroupreply"
        usergroup_table = "radusergroup"
        group_attribute = "SQL-Group"
        client_table = "nas"
        pool {{
            start = 5
            min = 3
            max = 32
            spare = 10
        }}
        $INCLUDE {sql}/queries.conf
    }}
}}
server bench {{
    listen {{
        type = acct
        ipaddr = 127.0.0.1
        port = 1813
    }}
    preacct {{
        update request {{
            &Acct-Unique-Session-Id := "%{{Acct-Session-Id}}"
        }}
    }}
    accounting {{
        sql
    }}
}}
"""


class Accounting:
    """A client of a RADIUS server that accounts: requests after RFC 2866, kept on one socket."""

    SECRET = b"testing123"
    REQUEST, RESPONSE = 4, 5
    USER_NAME, NAS_ADDRESS, FRAMED_ADDRESS, CALLING_STATION, STATUS_TYPE, SESSION = 1, 4, 8, 31, 40, 44

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(("127.0.0.1", 1813))
        self.socket.settimeout(PATIENCE)
        self.count = 0

    def start_of_session(self):
        self.count += 1
        attributes = b"".join(struct.pack("BB", kind, len(value) + 2) + value for kind, value in (
            (self.USER_NAME, USER.encode()),
            (self.NAS_ADDRESS, socket.inet_aton("127.0.0.1")),
            (self.FRAMED_ADDRESS, socket.inet_aton(ADDRESS)),
            (self.CALLING_STATION, SOURCE.encode()),
            (self.STATUS_TYPE, struct.pack("!I", 1)),
            (self.SESSION, b"session-%d" % self.count)))
        head = struct.pack("!BBH", self.REQUEST, self.count % 256, 20 + len(attributes))
        authenticator = hashlib.md5(head + bytes(16) + attributes + self.SECRET).digest()
        self.socket.send(head + authenticator + attributes)
        reply = self.socket.recv(4096)
        if reply[:2] != bytes((self.RESPONSE, self.count % 256)):
            sys.exit(f"FreeRADIUS answered {reply[:2]!r}")

    def is_served(self):
        self.socket.settimeout(0.2)
        try:
            self.start_of_session()
        except OSError:
            return False
        self.socket.settimeout(PATIENCE)
        return True


def radius_record(peers):
    sql = peers.file("etc/freeradius/3.0/mods-config/sql/main/sqlite")
    (WORK / "radiusd.conf").write_text(RADIUS_CONFIGURATION.format(
        libdir=peers.file("usr/lib/freeradius"), secret=Accounting.SECRET.decode(), work=WORK, sql=sql))
    accounting = Accounting()
    peers.start(peers.program("freeradius"), "-f", "-l", "stdout", "-n", "radiusd", "-d", str(WORK),
                "-D", str(peers.file("usr/share/freeradius")), ready=accounting.is_served)
    return repeated(20, accounting.start_of_session)


def sqlite_record(peers):
    program = peers.program("sqlite3")
    file = str(WORK / "command.db")
    subprocess.run([program, file, "CREATE TABLE conn_server_log (id INTEGER PRIMARY KEY "
                    "AUTOINCREMENT, username TEXT, time INTEGER, device_info TEXT, source_ip TEXT, "
                    "vpn_ip TEXT, outgoing TEXT, action INTEGER);"], check=True)
    insert = ("INSERT INTO conn_server_log (username, time, device_info, source_ip, vpn_ip, outgoing, "
              f"action) VALUES ('{USER}', 1795222858, 'linux 2.6.14 alice-laptop', '{SOURCE}', "
              f"'{ADDRESS}', 'tun0', 1);")

    def add():
        child = os.posix_spawn(program, [program, file, insert], os.environ)
        if os.waitpid(child, 0)[1] != 0:
            sys.exit("sqlite3 failed")
    return repeated(3, add)


RSYSLOG_CONFIGURATION = """
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="{socket}")
action(type="omfile" file="{file}" sync="{sync}")
"""


def rsyslog_record(peers, sync):
    path, file = WORK / f"log-{sync}.socket", WORK / f"log-{sync}"
    configuration = WORK / f"rsyslog-{sync}.conf"
    configuration.write_text(RSYSLOG_CONFIGURATION.format(socket=path, file=file, sync=sync))
    file.touch()
    modules = ":".join(str(folder / f"usr/lib/{os.uname().machine}-linux-gnu/rsyslog")
                       for folder in (peers.folder, Path("/")))
    peers.start(peers.program("rsyslogd"), "-n", "-f", str(configuration), "-i",
                str(WORK / f"rsyslog-{sync}.pid"), "-M", modules, ready=path.exists)
    tail = Tail(file)
    log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    log.connect(str(path))
    numbers = itertools.count(1)

    def add():
        end = b"record %d." % next(numbers)
        log.send(b"<30>Nov 21 23:00:00 vpn: %s from %s as %s on tun0 " %
                 (USER.encode(), SOURCE.encode(), ADDRESS.encode()) + end)
        tail.wait_for(end)
    return repeated(20, add)


# --- A failed login ------------------------------------------------------------------------------

class PamConversation(ctypes.Structure):
    """What a module asks the user; the one used here asks nothing."""

    _fields_ = [("ask", ctypes.CFUNCTYPE(ctypes.c_int)), ("argument", ctypes.c_void_p)]


def faillock_failure(_peers):
    if os.geteuid() != 0:
        raise Unavailable("it wants to be run by root")
    try:
        pam = ctypes.CDLL("libpam.so.0")
    except OSError as error:
        raise Unavailable(str(error)) from None
    (WORK / "pam.d").mkdir()
    (WORK / "pam.d/bench").write_text(
        f"auth [default=die] pam_faillock.so authfail nodelay deny=1000 dir={WORK}/faillock\n")
    user = pwd.getpwnam("nobody").pw_name
    conversation = PamConversation()
    start = (b"bench", user.encode(), ctypes.byref(conversation), os.fsencode(WORK / "pam.d"))
    tally = WORK / "faillock" / user
    perm_denied = 6  # what the stack makes of a failure that was counted

    def fail():
        handle = ctypes.c_void_p()
        if pam.pam_start_confdir(*start, ctypes.byref(handle)) != 0:
            sys.exit("libpam does not start")
        result = pam.pam_authenticate(handle, 0)
        pam.pam_end(handle, result)
        if result != perm_denied:
            sys.exit(f"pam_faillock: {result}")

    # It keeps every failure of its interval, so each round begins anew.
    measure = repeated(20, fail)

    def sample():
        tally.unlink(missing_ok=True)
        spent = measure()
        if tally.stat().st_size == 0:
            sys.exit("pam_faillock does not keep what it counts")
        return spent
    return sample


FAIL2BAN_FILES = {
    "fail2ban.conf": """[Definition]
loglevel = NOTICE
logtarget = {work}/fail2ban.log
syslogsocket = auto
socket = {work}/fail2ban.socket
pidfile = {work}/fail2ban.pid
dbfile = {work}/fail2ban.db
dbpurgeage = 1d
dbmaxmatches = 10

[Thread]
""",
    "jail.conf": """[bench]
enabled = true
filter = bench
action = bench
logpath = {work}/login.log
backend = auto
maxretry = 1
findtime = 10m
bantime = 10m
usedns = no
ignoreself = false
""",
    "filter.d/bench.conf": """[Definition]
failregex = ^ failed login of \\w+ from <HOST>$
datepattern = ^%%Y-%%m-%%d %%H:%%M:%%S
""",
    "action.d/bench.conf": "[Definition]\nactionban =\nactionunban =\n",
}


def fail2ban_block(peers):
    for name, text in FAIL2BAN_FILES.items():
        file = WORK / "fail2ban" / name
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text.replace("{work}", str(WORK)))
    login_log = open(WORK / "login.log", "w", encoding="utf-8")
    told = WORK / "fail2ban.log"
    told.touch()
    tail = Tail(told)
    addresses = (f"198.18.{n // 250}.{n % 250 + 1}" for n in itertools.count())

    def block():
        address = next(addresses)
        print(time.strftime("%Y-%m-%d %H:%M:%S"), f"failed login of {USER} from {address}",
              file=login_log, flush=True)
        tail.wait_for(f"Ban {address}\n".encode())

    peers.start("/usr/bin/python3", peers.program("fail2ban-server"), "-f", "-c", str(WORK / "fail2ban"),
                "start", ready=lambda: (WORK / "fail2ban.socket").exists())
    try:
        block()
    except TimeoutError as error:
        raise Unavailable(str(error)) from None
    return repeated(1, block)


def set_limit(limit):
    Path("/etc/config/vpn_block.conf").write_text(
        f'{{"global": {{"enable": true, "limit": {limit}, "time": 5}}}}')


def our_block(client):
    names = (f"stranger{n}" for n in itertools.count())
    return lambda: client.limiter.add_failure(next(names))


# --- Measuring -----------------------------------------------------------------------------------

def measure(what, state, rounds, ours, alternatives, peers):
    """alternatives: (name, what starts it and gives its measurement)."""
    opponents = []
    for name, start in alternatives:
        try:
            opponents.append(Opponent(name, start(peers), 1))
        except Unavailable as reason:
            report_not_measured(what, state, name, reason)
    compare(what, state, rounds, ours, opponents)


def expect_rows(file, table, at_least):
    """Whether a side has kept what it was told."""
    with sqlite3.connect(file) as database:
        count, = database.execute(f"SELECT Count(*) FROM {table}").fetchone()
    if count < at_least:
        sys.exit(f"{file} lost records: {count} of {at_least}")


def main():
    ravod, vpncaas, notify, library_dir, peers_folder, place = sys.argv[1:]
    client = ravo.Client(library_dir)
    os.sched_setaffinity(0, {min(os.sched_getaffinity(0))})
    Path("/usr/local/sbin").mkdir(parents=True, exist_ok=True)
    Path("/usr/local/sbin/notify").symlink_to(notify)
    WORK.mkdir()
    peers = Peers(peers_folder)
    set_limit(1000000)
    start_service(vpncaas)
    start_service(ravod)

    rounds = 31
    measure("record", f"empty table at first, {place}", rounds, repeated(20, our_record(library_dir)),
            [("FreeRADIUS into SQLite", radius_record),
             ("sqlite3 once per record", sqlite_record),
             ("rsyslog", lambda peers: rsyslog_record(peers, "off")),
             ("rsyslog, each line synced", lambda peers: rsyslog_record(peers, "on"))], peers)
    expect_rows("/etc/config/ravo/ravo.db", "conn_server_log", 20 * (rounds + 1))
    for name, table in (("radius.db", "radacct"), ("command.db", "conn_server_log")):
        if (WORK / name).exists():
            expect_rows(WORK / name, table, 3 * (rounds + 1))

    for number in range(10):
        client.limiter.add_failure(f"user{number}")
    measure("failed login", f"10 users, {place}", rounds,
            repeated(20, lambda: client.limiter.add_failure("user5")),
            [("pam_faillock", faillock_failure)], peers)

    set_limit(1)
    measure("block", f"some users, {place}", 9, repeated(3, our_block(client)),
            [("fail2ban", fail2ban_block)], peers)


if __name__ == "__main__":
    main()
