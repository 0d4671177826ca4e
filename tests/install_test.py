"""An installation in /usr/local that was made elsewhere. tests/install_test runs it."""
import fnmatch
import glob
import os
import pathlib
import re
import shutil
import unittest

from support.ravod import RavodTest

PREFIX = "/usr/local"
LIBRARIES = ("ravo_client", "zbservice", "Ostra_config")
VERSION = "1.0.0"
PROGRAMS = ["bin/ravoctl", "bin/vpn_global_opt", "sbin/NetworkService", "sbin/notify", "sbin/ravo-dbcheck",
            "sbin/ravo-openvpn", "sbin/ravo-ppp", "sbin/ravod", "sbin/ravod-notify", "sbin/vpncaas"]
ON_THE_BUS = [path for path in PROGRAMS if path not in ("sbin/notify", "sbin/ravod-notify")]
SERVICES = ("NetworkService", "ravod", "vpncaas")
MANUAL_PAGES = ["man1/ravoctl.1", "man1/vpn_global_opt.1", "man3/Ini_Conf_Read_Lock_File.3",
                "man3/ravo_api.3", "man3/zbservice.3", "man5/vpn_block.conf.5",
                "man5/vpn_options.conf.5", "man8/NetworkService.8", "man8/notify.8",
                "man8/pam_ravod.8", "man8/ravo-dbcheck.8", "man8/ravo-openvpn.8",
                "man8/ravo-ppp.8", "man8/ravod-notify.8", "man8/ravod.8",
                "man8/vpncaas.8"]
FILES = sorted(
    PROGRAMS
    + [f"lib/lib{name}.so{suffix}" for name in LIBRARIES for suffix in ("", ".1", "." + VERSION)]
    + ["lib/libravod_core.a", "lib/security/pam_ravod.so", "lib/sysusers.d/ravod.conf", "lib/tmpfiles.d/ravod.conf"]
    + [f"lib/systemd/system/{name}.service" for name in SERVICES]
    + [f"lib/systemd/system/ravod-notify.{kind}" for kind in ("path", "service")]
    + [f"include/{name}.h" for name in ("ravo_api", "ravo_records", "zbservice", "ostra_config")]
    + [f"lib/pkgconfig/{name}.pc" for name in ("ravo_client", "zbservice", "ostra_config")]
    + [f"lib/cmake/ravo/ravo{name}.cmake"
       for name in ("Config", "ConfigVersion", "Targets", "Targets-release")]
    + [f"share/man/{page}" for page in MANUAL_PAGES]
    + ["share/ravod/notify.conf"]
    + [f"share/ravod/openvpn/{name}.conf" for name in ("ravod", "ravod-auth")]
    + [f"lib/python3/dist-packages/ravo/{name}"
       for name in ("__init__.py", "_client.py", "_library.py", "_records.py", "py.typed")]
    + [f"share/ravod/{name}" for name in ("openrc/ravod", "ppp/ip-down", "ppp/ip-up", "runit/run")]
)
CMAKE_PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(user LANGUAGES CXX)
find_package(ravo 1.0 REQUIRED)
add_executable(bus bus.cpp)
target_link_libraries(bus PRIVATE ravo::zbservice ravo::Ostra_config)
"""
BUS_PROGRAM = """
#include <ostra_config.h>
#include <zbservice.h>
int main() {
    zb_io* io = zb_io_create();
    zb_io_free(io);
    return Ini_Conf_Unlock_File(-1) < 0 ? 0 : 1;
}
"""


def installed(folder):
    """Paths of all files below the folder, relative to it."""
    return sorted(os.path.relpath(os.path.join(where, name), folder)
                  for where, _folders, names in os.walk(folder) for name in names)


def packaged():
    """{package: what it takes of an installation below /usr}, from debian/*.install."""
    found = {}
    for path in glob.glob(os.environ["TOP"] + "/debian/*.install"):
        with open(path, encoding="utf-8") as file:
            sources = [line.split()[0] for line in file if line.strip() and line[0] != "#"]
        package = os.path.basename(path).removesuffix(".install")
        # A package's libraries lie one folder deeper, in that of the architecture.
        found[package] = [source.replace("usr/lib/*/", "usr/lib/") for source in sources]
    return found


def takes(pattern, path):
    """Whether a line of an install file takes this file: by its name, or with its folder."""
    wanted, parts = pattern.split("/"), path.split("/")[:pattern.count("/") + 1]
    return len(wanted) == len(parts) and all(map(fnmatch.fnmatchcase, parts, wanted))


class install(RavodTest):
    def setUp(self):
        super().setUp()
        os.environ["RAVOD"] = f"{PREFIX}/sbin/ravod"
        os.environ["RAVOCTL"] = f"{PREFIX}/bin/ravoctl"
        shutil.copytree(PREFIX, "/tmp/moved", symlinks=True)
        self.addCleanup(shutil.rmtree, "/tmp/moved")
        os.mkdir("/tmp/build")
        self.addCleanup(shutil.rmtree, "/tmp/build")

    def check(self, *command, **options):
        result = self.run_program(*command, **options)
        self.assertEqual(result.returncode, 0, result.stdout.decode() + result.stderr.decode())
        return result.stdout.decode()

    def test_everything_is_in_its_place_and_nothing_else(self):
        found = [path for path in installed(PREFIX) if not path.startswith("share/doc/")]
        self.assertEqual(found, FILES)
        documents = installed(f"{PREFIX}/share/doc/ravod")
        self.assertIn("LICENSE", documents)
        self.assertIn("examples/record_and_list.c", documents)
        self.assertIn("examples/data/openvpn-sessions.jsonl", documents)
        self.assertFalse([path for path in documents if "__pycache__" in path])

    def test_documents_lead_to_each_other(self):
        folder = pathlib.Path(f"{PREFIX}/share/doc/ravod")
        pages = list(folder.rglob("*.md"))
        self.assertIn(folder / "docs/limiter.md", pages)
        for page in pages:
            for link in re.findall(r"\]\(([^)\s#]+)", page.read_text()):
                if not re.match(r"\w+:", link):
                    self.assertTrue((page.parent / link).exists(), f"{page}: {link}")

    def test_every_file_belongs_to_one_debian_package(self):
        packages = packaged()
        self.assertIn("ravod", packages)
        with open(os.environ["TOP"] + "/debian/not-installed", encoding="utf-8") as file:
            packages["none"] = [line.strip() for line in file if line[0] != "#"]
        files = ["usr/" + path for path in installed(PREFIX)]
        for path in files:
            takers = [package for package, patterns in packages.items()
                      if any(takes(pattern, path) for pattern in patterns)]
            self.assertEqual(len(takers), 1, f"{path}: {takers}")
        for package, patterns in packages.items():
            for pattern in patterns:
                self.assertTrue(any(takes(pattern, path) for path in files), f"{package}: {pattern}")

    def test_libraries_are_found_from_where_a_file_lies_and_after_the_library_path(self):
        expected = {**{path: "$ORIGIN/../lib" for path in PROGRAMS},
                    **{f"lib/lib{name}.so": "$ORIGIN" for name in LIBRARIES},
                    "lib/security/pam_ravod.so": "$ORIGIN/.."}
        for path, run_path in expected.items():
            with self.subTest(path=path):
                dynamic = self.check("readelf", "-d", f"{PREFIX}/{path}")
                self.assertNotIn("(RPATH)", dynamic)
                found = re.search(r"\(RUNPATH\) +Library runpath: \[(.*)\]", dynamic)
                self.assertEqual(found and found[1], run_path)

    def test_no_file_knows_where_it_was_built(self):
        for path in installed(PREFIX):
            if path.endswith((".pc", ".cmake", ".conf", ".service")):
                with open(f"{PREFIX}/{path}", encoding="utf-8") as file:
                    self.assertNotIn(os.environ["TOP"], file.read(), path)

    def test_programs_run_from_any_place(self):
        self.start("/tmp/moved/sbin/ravod")
        self.succeed(self.run_program("/tmp/moved/bin/ravoctl", "sessions", "add", "username=bob"))
        self.assertIn("bob", self.succeed(self.ravoctl("sessions")))
        self.assertIn("/tmp/moved/sbin/../lib/libzbservice.so.1", self.check("ldd", "/tmp/moved/sbin/ravod"))

    def test_c_example_builds_with_pkg_config(self):
        self.start_ravod()
        for prefix in (PREFIX, "/tmp/moved"):
            with self.subTest(prefix=prefix):
                env = {**os.environ, "PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig"}
                flags = self.check("pkg-config", "--cflags", "--libs", "ravo_client", env=env).split()
                folders = [os.path.normpath(flag[2:]) for flag in flags if flag.startswith("-L")]
                self.assertIn(f"{prefix}/lib", folders)
                self.check("cc", "-std=c11", "-Wpedantic", "-Werror",
                           f"{PREFIX}/share/doc/ravod/examples/record_and_list.c", "-o",
                           "/tmp/build/example", *flags)
                self.succeed(self.run_program("/tmp/build/example", "alice", env={
                    **os.environ, "LD_LIBRARY_PATH": f"{prefix}/lib"}))

    def test_every_library_has_its_pkg_config_file(self):
        env = {**os.environ, "PKG_CONFIG_PATH": f"{PREFIX}/lib/pkgconfig"}
        for name, library in (("ravo_client", "ravo_client"), ("zbservice", "zbservice"),
                              ("ostra_config", "Ostra_config")):
            self.assertEqual(self.check("pkg-config", "--modversion", name, env=env).strip(), VERSION)
            self.assertIn(f"-l{library}", self.check("pkg-config", "--libs", name, env=env))

    def test_python_example_uses_the_installed_package(self):
        self.start_ravod()
        env = {**os.environ, "PYTHONPATH": f"{PREFIX}/lib/python3/dist-packages",
               "RAVO_LIBRARY_DIR": f"{PREFIX}/lib"}
        program = f"{PREFIX}/share/doc/ravod/examples/record_and_list.py"
        self.assertIn("1 of 1", self.succeed(self.run_program("/usr/bin/python3", "-B", program, env=env)))

    def test_cmake_finds_the_package(self):
        self.start_ravod()
        for name, text in (("CMakeLists.txt", CMAKE_PROJECT), ("bus.cpp", BUS_PROGRAM)):
            with open(f"/tmp/build/{name}", "w", encoding="utf-8") as file:
                file.write(text)
        example = f"{PREFIX}/share/doc/ravod/examples/cmake"
        for source, program in ((example, "record_and_list"), ("/tmp/build", "bus")):
            folder = f"/tmp/build/{program}_out"
            self.check("cmake", "-G", "Ninja", "-S", source, "-B", folder, "-DCMAKE_PREFIX_PATH=/tmp/moved")
            self.check("cmake", "--build", folder)
            self.succeed(self.run_program(f"{folder}/{program}", "bob"))
        self.assertIn("bob", self.succeed(self.ravoctl("sessions")))

    def test_library_path_of_the_operator_wins(self):
        env = {**os.environ, "LD_LIBRARY_PATH": os.environ["STANDIN"]}
        for path in ON_THE_BUS + ["lib/libravo_client.so", "lib/security/pam_ravod.so"]:
            libraries = self.check("ldd", f"{PREFIX}/{path}", env=env)
            self.assertIn(f"{os.environ['STANDIN']}/libzbservice.so.1", libraries)

    def test_tool_works_on_a_bus_library_without_names_for_its_failures(self):
        env = {**os.environ, "LD_LIBRARY_PATH": os.environ["STANDIN"]}
        self.assertNotIn("zb_strerror", self.check("nm", "-D", env["STANDIN"] + "/libzbservice.so.1"))
        # Without a daemon: this library takes every call and answers it with nothing.
        self.succeed(self.ravoctl("sessions", "add", "username=x", env=env))
        self.fails(self.ravoctl("sessions", env=env), 8, "did not answer the query")

    def test_units_start_the_installed_services_in_their_sandbox(self):
        for name in SERVICES:
            with open(f"{PREFIX}/lib/systemd/system/{name}.service", encoding="utf-8") as file:
                unit = file.read()
            self.assertRegex(unit, r"\nType=notify\n")
            self.assertRegex(unit, rf"\nExecStart=/[^ \n]*/sbin/{name}\n")
            self.assertRegex(unit, r"\nSystemCallFilter=@system-service\n")
            self.assertNotRegex(unit, r"@[A-Z_]+@")
            if name == "ravod":
                self.assertRegex(unit, r"\nExecStartPre=/[^ \n]*/sbin/ravo-dbcheck\n")

    def moved_script(self, name):
        """A copy of a script, which names the folder that it was installed into, for where that is now."""
        with open(f"{PREFIX}/share/ravod/{name}", encoding="utf-8") as file:
            text = re.sub(r"/[^ \n\"]*/sbin/(?=\$|ravo)", f"{PREFIX}/sbin/", file.read())
        self.assertNotRegex(text, r"@[A-Z_]+@")
        path = f"/tmp/build/{os.path.basename(name)}"
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, 0o755)
        return path

    def test_script_for_runit_starts_each_service(self):
        os.rmdir("/etc/config/ravo")
        script = self.moved_script("runit/run")
        for name in SERVICES:
            folder = f"/tmp/build/{name}"
            os.mkdir(folder)
            os.symlink(script, f"{folder}/run")
            self.start("/bin/sh", "-c", f"cd {folder} && exec ./run")
        self.succeed(self.ravoctl("sessions"))
        self.assertEqual(os.stat("/etc/config/ravo").st_mode & 0o777, 0o700)
        self.assertEqual(os.stat("/etc/config/ravo/ravo.db").st_mode & 0o777, 0o600)

    def test_script_for_openrc_names_what_is_there(self):
        """Read by a shell, with a function in the place of each that OpenRC has."""
        script = self.moved_script("openrc/ravod")
        for name in SERVICES:
            program = (f'RC_SVCNAME={name}; after() {{ :; }}; checkpath() {{ [ "$1" = --directory ]; }}; '
                       f'. {script}; depend && start_pre >&2 && test -x "$command" && echo "$command"')
            self.assertEqual(self.check("/bin/sh", "-eu", "-c", program), f"{PREFIX}/sbin/{name}\n")

    def test_check_of_the_database_runs(self):
        self.assertIn("ravo.db: not there yet", self.check("ravo-dbcheck"))

    def test_manual_pages_are_well_formed(self):
        for page in MANUAL_PAGES:
            result = self.run_program("mandoc", "-Tlint", "-W", "warning",
                                      f"{PREFIX}/share/man/{page}")
            self.assertEqual((result.returncode, result.stdout), (0, b""), page)


if __name__ == "__main__":
    unittest.main()
