"""What a systemd unit of this package allows, for programs that are to live with it: the settings, the
system calls as a filter of the kernel's, and the file system as arguments of bubblewrap.

The names in SystemCallFilter are systemd's own: systemd-analyze says what a group of them holds.
"""
import ctypes
import errno
import functools
import os
import re
import subprocess

TOP = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))

# --- Settings --------------------------------------------------------------------------------------


class Unit:
    """The [Service] settings of a unit: of each all values that it is given, up from its last empty one."""

    def __init__(self, path):
        self.settings = {}
        section = None
        with open(path, encoding="utf-8") as file:
            for line in map(str.strip, file):
                if line.startswith("["):
                    section = line
                elif section == "[Service]" and line and not line.startswith("#"):
                    name, value = line.split("=", 1)
                    self.settings.setdefault(name, []).append(value)
                    if value == "":
                        self.settings[name] = []

    def words(self, name):
        return " ".join(self.settings.get(name, [])).split()

    def text(self, name):
        return self.settings[name][-1]

    def is_on(self, name):
        return self.settings.get(name, ["no"])[-1] == "yes"

    def system_calls(self):
        """The names of all calls that the filter lets through."""
        allowed = members("@default")
        for value in self.settings["SystemCallFilter"]:
            names = set().union(*map(members, value.lstrip("~").split()))
            allowed = allowed - names if value.startswith("~") else allowed | names
        return allowed


@functools.cache
def groups():
    """{group: what it holds, calls and groups}."""
    listing = subprocess.run(["systemd-analyze", "syscall-filter", "--no-pager"], check=True,
                             capture_output=True, text=True).stdout
    found = {}
    for line in listing.splitlines():
        if line.startswith("@"):
            found[line] = names = []
        elif re.match(r" +[@\w-]+$", line):
            names.append(line.strip())
    return found


def members(name):
    """The calls of a group, those of the groups in it included; a call is its own only member."""
    if not name.startswith("@"):
        return {name}
    return set().union(*map(members, groups()[name]))


# --- System call filter ----------------------------------------------------------------------------

ALLOW = 0x7FFF0000
EQUAL, MASKED_EQUAL = 4, 7  # of enum scmp_compare
PROT_WRITE, PROT_EXEC = 2, 4
CLONE_NEW_ANYTHING = 0x7E020080


class Comparison(ctypes.Structure):
    """struct scmp_arg_cmp of libseccomp: an argument of the call, and what it is held against."""

    _fields_ = [("arg", ctypes.c_uint), ("op", ctypes.c_int),
                ("datum_a", ctypes.c_uint64), ("datum_b", ctypes.c_uint64)]


def refuse(error):
    return 0x00050000 | error


class Filter:
    """A filter of libseccomp's: what is not allowed fails with EPERM."""

    def __init__(self):
        self.library = ctypes.CDLL("libseccomp.so.2")
        self.library.seccomp_init.restype = ctypes.c_void_p
        self.context = ctypes.c_void_p(self.library.seccomp_init(refuse(errno.EPERM)))

    def add(self, name, *comparisons, action=ALLOW):
        """Takes the call when every comparison holds. A call of other machines is nothing here."""
        number = self.library.seccomp_syscall_resolve_name(name.encode())
        if number < 0:
            return
        result = self.library.seccomp_rule_add_array(
            self.context, action, number, len(comparisons),
            (Comparison * len(comparisons))(*comparisons))
        assert result == 0, (name, result)

    def write(self, file):
        assert self.library.seccomp_export_bpf(self.context, file.fileno()) == 0
        self.library.seccomp_release(self.context)


def write_filter(unit, file):
    """The program that the kernel runs for each call: SystemCallFilter, and with it those settings
    that look at arguments."""
    made = Filter()
    restricted = restrictions(unit)
    for name in sorted(unit.system_calls()):
        if name not in restricted:
            made.add(name)
        for comparison in restricted.get(name, []):
            made.add(name, comparison)
    if unit.is_on("RestrictNamespaces"):
        # Its flags lie in memory, where no filter looks: it is as if the kernel did not have it.
        made.add("clone3", action=refuse(errno.ENOSYS))
    made.write(file)


def restrictions(unit):
    """{call: the comparisons of which one has to hold}; the empty list is never."""
    found = {}
    if unit.words("RestrictAddressFamilies"):
        found["socket"] = [Comparison(0, EQUAL, address_family(name))
                           for name in unit.words("RestrictAddressFamilies")]
    if unit.is_on("MemoryDenyWriteExecute"):
        found["mmap"] = [Comparison(2, MASKED_EQUAL, PROT_WRITE | PROT_EXEC, protection)
                         for protection in (0, PROT_WRITE, PROT_EXEC)]
        found["mprotect"] = [Comparison(2, MASKED_EQUAL, PROT_EXEC, 0)]
    if unit.is_on("RestrictNamespaces"):
        found["clone"] = [Comparison(0, MASKED_EQUAL, CLONE_NEW_ANYTHING, 0)]
        found |= {"clone3": [], "setns": [], "unshare": []}
    return found


def address_family(name):
    return {"AF_UNIX": 1, "AF_NETLINK": 16}[name]


# --- File system -----------------------------------------------------------------------------------


def bind(option, words):
    """"-PATH" may be missing. Nothing here mounts a path elsewhere."""
    arguments = []
    for word in words:
        path = word.removeprefix("-")
        arguments += [option + "-try" if word.startswith("-") else option, path, path]
    return arguments


def file_system(unit, notify_socket):
    """The arguments of bubblewrap that show the files as the unit does. notify_socket, a path or
    empty, stands for the supervisor's."""
    assert unit.text("ProtectSystem") == "strict"
    arguments = ["--ro-bind", "/", "/"]
    if unit.is_on("PrivateDevices"):
        arguments += ["--dev", "/dev"]
    if unit.is_on("PrivateTmp"):
        arguments += ["--tmpfs", "/tmp", "--tmpfs", "/var/tmp"]
    covered = [word.removesuffix(":ro") for word in unit.words("TemporaryFileSystem")]
    for path in covered:
        arguments += ["--tmpfs", path]
    arguments += bind("--bind", unit.words("ReadWritePaths") + unit.words("BindPaths"))
    supervisor = "/run/systemd/notify"
    arguments += bind("--ro-bind", [word for word in unit.words("BindReadOnlyPaths")
                                    if word != supervisor])
    if notify_socket:
        arguments += bind("--ro-bind", [notify_socket])
    for path in covered:
        arguments += ["--remount-ro", path]
    # The build may lie where the sandbox shows nothing.
    return arguments + ["--ro-bind", TOP, TOP]
