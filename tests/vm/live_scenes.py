"""What is done in the guest and the events that an agent must then report, each exactly once.

A step is one process: a list of words is a program, a text is for the shell's builtins. Expected events
are written as qel-watch prints them as JSON, texts as bytes; what a row leaves out is filled in by the
event functions below. Which callbacks get an event is worked out from their keys and filters.
"""

import errno
import socket
import struct
from dataclasses import dataclass, field
from typing import Any, Callable

ACTS = "/payload/acts"
MAX_SPLIT_ARGUMENT = 16384  # bytes of an argument that the kernel writes split and in hexadecimal


@dataclass
class Step:
    action: list | str
    events: list = field(default_factory=list)
    status: int = 0


@dataclass
class Scene:
    name: str
    callbacks: list[str]  # as the client takes them; in order of registration
    steps: list[Step]
    agents: tuple = ("client",)
    before: str = ""  # shell commands before the agent is started
    after: str = ""
    paced: bool = False  # wait for a step's events before the next one
    only: frozenset = frozenset()  # system calls to look at; all when empty


@dataclass
class Run:
    """What a step was when it ran, for expectations that depend on it."""

    scene: str
    pid: int
    parent: int
    begin: int
    end: int
    read: Callable[[str], bytes]  # a file that the guest left


OWN_PID = lambda run: run.pid
PARENT = lambda run: run.parent


class During:
    """A time within the step."""

    def __init__(self, run):
        self.run = run

    def __eq__(self, other):
        return isinstance(other, int) and self.run.begin <= other <= self.run.end

    def __repr__(self):
        return f"a time from {self.run.begin} to {self.run.end}"


class OneOf:
    def __init__(self, *values):
        self.values = values

    def __eq__(self, other):
        return other in self.values

    def __repr__(self):
        return " or ".join(map(repr, self.values))


class Anything:
    def __eq__(self, other):
        return True

    def __repr__(self):
        return "anything"


def as_bytes(text):
    return text if isinstance(text, bytes) else text.encode("utf-8", "surrogateescape")


def error_name(result):
    return as_bytes(errno.errorcode.get(-result, ""))


def by(process, result=0, user="root"):
    return {
        "user": as_bytes(user),
        "process": as_bytes(process)[:15],
        "pid": OWN_PID,
        "ppid": PARENT,
        "result": result,
        "error": error_name(result),
    }


def execve(*argv, process=None, result=0, user="root"):
    name = process or argv[0].rsplit("/", 1)[-1]
    texts = [as_bytes(text) for text in argv]
    return {"class": "execve", **by(name, result, user), "argc": len(texts), "argv": texts}


def ran(*words, **also):
    """A program that is run, and the event of that."""
    return Step(list(words), [execve(*words, **also)])


def acted(*words, then=(), status=0):
    """A command of acts, which may become another program."""
    return Step([ACTS, *words], [execve(ACTS, *words), *then], status)


def not_run(path, result):
    known = ("acts", path) if path else ()
    failed = execve(*known, process="acts", result=result)
    return acted("exec", path, then=[failed], status=1)


def alphabet(length):
    return ("abcdefghijklmnopqrstuvwxyz" * (length // 26 + 1))[:length]


def long_argument(length):
    """From 7500 bytes on the kernel writes an argument in hexadecimal and in pieces."""
    known = alphabet(length if length < 7500 else min(length, MAX_SPLIT_ARGUMENT))
    return acted("execlong", "/usr/bin/echo", str(length), then=[execve("/usr/bin/echo", known)])


ODD_TEXTS = ["", "a b", '"q"', "it's", "back\\slash", "tab\there", "line\nbreak", "\x01\x1b[31m\x7f",
             "\u00fcml\u00e4ut \u65e5\u672c\u8a9e", "\udcff\udcfe", "", "(null)", "a1=x", "argc=9", "key=x",
             "$HOME `id`", "-"]  # fmt: skip

EXECVE = Scene(
    name="execve",
    callbacks=["execve,echo,", "execve,,", "execve,acts,", "execve,nobody,"],
    agents=("client", "watch"),
    before="""
printf '#!/bin/sh\\nexit 3\\n' >/tmp/script.sh
printf 'not a program\\n' >/tmp/text
cp /usr/bin/true '/tmp/a b'
cp /usr/bin/true /tmp/a-name-of-more-than-15-bytes
chmod 755 /tmp/script.sh /tmp/text
""",
    steps=[
        ran("/usr/bin/true"),
        ran("/usr/bin/echo", "plain", "words"),
        ran("/usr/bin/echo", *ODD_TEXTS),
        acted("exechex", "/usr/bin/echo", bytes(range(1, 256)).hex(), "",
              then=[execve("/usr/bin/echo", bytes(range(1, 256)), "")]),
        ran("/tmp/a b", "x"),
        ran("/tmp/a-name-of-more-than-15-bytes"),
        acted("exec0", "/usr/bin/true", then=[execve("", process="true")]),
        *(long_argument(length) for length in (7499, 7500, 16384, 20000)),
        ran("/usr/bin/true", *([alphabet(3000)] * 9), "end"),
        acted("execmany", "/usr/bin/true", "5000",
              then=[execve("/usr/bin/true", *map(str, range(1, 5001)))]),
        Step(["/tmp/script.sh", "one", "t w o"],
             [execve("/bin/sh", "/tmp/script.sh", "one", "t w o", process="script.sh")], status=3),
        not_run("/nonexistent/program", -errno.ENOENT),
        not_run("/etc/passwd", -errno.EACCES),
        not_run("/tmp", -errno.EACCES),
        not_run("/tmp/text", -errno.ENOEXEC),
        not_run("", -errno.ENOENT),
        acted("execlong", "/usr/bin/echo", "131072", status=1,
              then=[execve("acts", "/usr/bin/echo", process="acts", result=-errno.E2BIG)]),
        Step(["/usr/bin/setpriv", "--reuid=1000", "--clear-groups", "/usr/bin/echo", "as alice"],
             [execve("/usr/bin/setpriv", "--reuid=1000", "--clear-groups", "/usr/bin/echo", "as alice"),
              execve("/usr/bin/echo", "as alice", user="alice")]),
        *(ran("/usr/bin/echo", "one of many", str(number)) for number in range(20)),
    ],
)  # fmt: skip


def bound(address, result=0, user="root", process="acts"):
    return {"class": "bind", **by(process, result, user), **address}


def inet(address, port):
    return {"family": b"inet", "address": as_bytes(address), "port": port}


def inet6(address, port):
    return {"family": b"inet6", "address": as_bytes(address), "port": port, "scope": 0, "flow": 0}


def unix_bytes(path):
    return struct.pack("=H108s", socket.AF_UNIX, path)


def raw(data, event=None, status=0):
    return Step([ACTS, "bindraw", data.hex()], [event] if event else [], status)


def bind(*words, event=None, status=0):
    return Step([ACTS, "bind", *words], [event] if event else [], status)


INET_8083 = struct.pack("!4s8x", socket.inet_aton("127.0.0.1"))
INET_8083 = struct.pack("=H", socket.AF_INET) + struct.pack("!H", 8083) + INET_8083
AS_ALICE = ["/usr/bin/setpriv", "--reuid=1000", "--clear-groups"]

BIND = Scene(
    name="bind",
    callbacks=["bind,8080,", "bind,0,", "bind,81,"],
    agents=("client", "watch"),
    before="rm -f /tmp/socket-*",
    steps=[
        bind("inet", "127.0.0.1", "8080", event=bound(inet("127.0.0.1", 8080))),
        bind("inet", "0.0.0.0", "8081", event=bound(inet("0.0.0.0", 8081))),
        bind("inet6", "::1", "8080", event=bound(inet6("::1", 8080))),
        bind("inet6", "::", "65535", event=bound(inet6("::", 65535))),
        bind("netlink", "77", event=bound({"family": b"netlink", "port_id": 77, "groups": b"0x0"})),
        bind("packet", "1", event=bound({"family": b"packet", "interface": 1, "protocol": b"0x3"})),
        raw(unix_bytes(b"/tmp/socket-whole"), bound({"family": b"unix", "path": b"/tmp/socket-whole"})),
        raw(unix_bytes(b"\0abstract \"name\"\xff"),
            bound({"family": b"unix", "abstract": b"abstract \"name\"\xff"})),
        # An address with a length of its own gives no event.
        bind("unix", "/tmp/socket-short"),
        bind("abstract", "short"),
        raw(INET_8083 + bytes(112)),
        raw(INET_8083[:8], status=1),
        # Failures.
        raw(unix_bytes(b"/tmp/socket-whole"), status=1,
            event=bound({"family": b"unix", "path": b"/tmp/socket-whole"}, -errno.EADDRINUSE)),
        bind("inet", "192.0.2.1", "8080", status=1,
             event=bound(inet("192.0.2.1", 8080), -errno.EADDRNOTAVAIL)),
        Step([*AS_ALICE, ACTS, "bind", "inet", "127.0.0.1", "81"], status=1,
             events=[bound(inet("127.0.0.1", 81), -errno.EACCES, "alice")]),
        raw(struct.pack("=H14s", 200, b"\1\2\3"), status=1,
            event=bound({"family": b"200", "bytes": b"010203"}, -errno.EAFNOSUPPORT)),
    ],
)  # fmt: skip


def called(name, process, result=0, **arguments):
    """A system call; pointers among its arguments are not known."""
    shown = {f"arg{n}": arguments.get(f"arg{n}", Anything()) for n in range(1, 5)}
    success = result >= 0
    return {"class": "syscall", **by(process, result), "syscall": as_bytes(name), "success": success, **shown}


def made(name, process, *words, result=0, status=0, **arguments):
    return Step([*words], [called(name, process, result, **arguments)], status)


def opened(result, flags, mode=0):
    return called("openat", "run", result, arg1=b"0xffffff9c", arg3=flags, arg4=Anything() if not mode else mode)


def looped(rounds):
    directory = [called("mkdir", "acts", arg2=b"0x1ed"), called("rmdir", "acts")]
    return Step([ACTS, "loop", str(rounds), "mkdir"], directory * rounds)


# Nothing that is loaded at a program's start belongs here: only builtins open files.
OPENAT = Scene(
    name="openat",
    callbacks=["syscall,openat,1", "syscall,openat,0", "syscall,openat,-1", "syscall,openat,1"],
    before="rm -f /tmp/made",
    steps=[
        Step(": </etc/hostname", [opened(3, b"0x0")]),
        Step(": >/tmp/made", [opened(3, b"0x241", b"0x1b6")]),
        Step(": >>/tmp/made", [opened(3, b"0x441", b"0x1b6")]),
        Step(": </nonexistent", [opened(-errno.ENOENT, b"0x0")], status=1),
        Step(": >/tmp", [opened(-errno.EISDIR, b"0x241", b"0x1b6")], status=1),
    ],
)

DIRECTORIES = Scene(
    name="mkdir-unlink",
    callbacks=["syscall,mkdir,-1", "syscall,mkdir,-1", "syscall,mkdir,0", "syscall,rmdir,1", "syscall,unlink,-1"],
    agents=("client",),
    before="rm -rf /tmp/directory; touch /tmp/file",
    steps=[
        made("mkdir", "mkdir", "/usr/bin/mkdir", "-m", "0700", "/tmp/directory", arg2=b"0x1c0"),
        made("mkdir", "mkdir", "/usr/bin/mkdir", "/tmp/directory", arg2=b"0x1ff", result=-errno.EEXIST, status=1),
        Step(["/usr/bin/rmdir", "/nonexistent"], [], 1),
        made("rmdir", "rmdir", "/usr/bin/rmdir", "/tmp/directory"),
        made("unlink", "unlink", "/usr/bin/unlink", "/tmp/file"),
        made("unlink", "unlink", "/usr/bin/unlink", "/tmp/file", result=-errno.ENOENT, status=1),
        looped(3),
    ],
)

ALL_CALLS = Scene(
    name="all-calls",
    callbacks=["syscall,all,-1", "syscall,all,0"],
    agents=("client", "watch"),
    only=frozenset({b"mkdir", b"rmdir"}),
    steps=[looped(20), Step(["/usr/bin/rmdir", "/nonexistent"], [called("rmdir", "rmdir", -errno.ENOENT)], 1)],
)


def account(event, name, group):
    return {"class": "user", "event": as_bytes(event), "username": as_bytes(name), "groupname": group}


# A first password right behind useradd is no change, so the group is changed in between.
ACCOUNTS = Scene(
    name="accounts",
    callbacks=["user,carol,15", "user,,15", "user,,4", "user,carol,8", "user,bob,1"],
    paced=True,
    steps=[
        Step(["/usr/sbin/useradd", "-m", "-N", "-g", "users", "carol"], [account("added", "carol", b"users")]),
        Step(["/usr/sbin/usermod", "-g", "staff", "carol"], [account("group", "carol", b"staff")]),
        Step(["/usr/sbin/usermod", "-aG", "audio", "carol"]),
        Step("echo carol:other | /usr/sbin/chpasswd", [account("password", "carol", b"staff")]),
        Step(r"printf 'third\nthird\n' | /usr/bin/passwd bob", [account("password", "bob", b"bob")]),
        Step(["/usr/sbin/useradd", "dave"], [account("added", "dave", OneOf(b"dave", b"1003"))]),
        Step("{ sleep 0.5; echo 'eve:x:2001:50::/:/bin/sh'; } >>/etc/passwd", [account("added", "eve", b"staff")]),
        Step(["/usr/bin/sed", "-i", "s/^alice:x:1000:1000:/alice:x:1000:100:/", "/etc/passwd"],
             [account("group", "alice", b"users")]),
        Step(["/usr/bin/sed", "-i", "s/^alice:[^:]*:/alice:!:/", "/etc/shadow"],
             [account("password", "alice", b"users")]),
        Step(["/usr/sbin/userdel", "carol"], [account("deleted", "carol", b"staff")]),
    ],
)  # fmt: skip

MORE_ACCOUNTS = Scene(
    name="more-accounts",
    callbacks=["user,,15"],
    agents=("watch",),
    paced=True,
    steps=[
        Step(["/usr/sbin/usermod", "-g", "video", "bob"], [account("group", "bob", b"video")]),
        Step("echo bob:again | /usr/sbin/chpasswd", [account("password", "bob", b"video")]),
        Step(["/usr/sbin/userdel", "dave"], [account("deleted", "dave", Anything())]),
    ],
)


def session(event, name, line, pid, address="", user="", process=""):
    return {
        "class": "login",
        "event": as_bytes(event),
        "username": as_bytes(name),
        "logintype": line,
        "epoch": During,
        "ipaddr": as_bytes(address),
        "pid": pid,
        "user": as_bytes(user),
        "process": as_bytes(process),
        "status": 1,
    }


# The session says who its login process is and which terminal it has.
LOGIN = r"""{ nap 2; echo secret; nap 2; echo 'echo $PPID $(tty) >/tmp/session'; nap 1; echo exit; nap 1; } |
  script -qc 'login bob' /dev/null; mv /tmp/session /out/$scene.session"""
LOGIN_PID = lambda run: int(run.read(f"{run.scene}.session").split()[0])
LOGIN_LINE = lambda run: run.read(f"{run.scene}.session").split()[1].removeprefix(b"/dev/")
FROM_LOGIN = ("bob", LOGIN_LINE, LOGIN_PID, "", "root", "login")

LOGINS = Scene(
    name="logins",
    callbacks=["login,dave,2", "login,,3", "login,,1", "login,dave,1"],
    agents=("client", "watch"),
    before=": >/var/log/wtmp",
    paced=True,
    steps=[
        # First: while an earlier opener of the file is remembered, a quick write may pass for its own.
        Step(LOGIN, [session("login", *FROM_LOGIN), session("logout", *FROM_LOGIN)]),
        Step([ACTS, "utmp", "login", "4711", "pts/8", "dave", "192.0.2.7", "300"],
             [session("login", "dave", b"pts/8", 4711, "192.0.2.7")]),
        Step([ACTS, "utmp", "login", "4712", "pts/9", "erin", "-", "1500"],
             [session("login", "erin", b"pts/9", 4712)]),
        Step([ACTS, "utmp", "logout", "4711", "pts/8", "-", "-", "300"],
             [session("logout", "dave", b"pts/8", 4711, "192.0.2.7")]),
        Step("exec $acts utmp login $BASHPID pts/7 frank 2001:db8::1 1500",
             [session("login", "frank", b"pts/7", OWN_PID, "32.1.13.184", "root", "acts")]),
        # Rotation: nothing is reported, and the new file goes on.
        Step(["/usr/bin/mv", "/var/log/wtmp", "/var/log/wtmp.1"]),
        Step(": >/var/log/wtmp"),
        Step([ACTS, "utmp", "login", "4713", "pts/1", "dave", "192.0.2.8", "300"],
             [session("login", "dave", b"pts/1", 4713, "192.0.2.8")]),
        Step([ACTS, "utmp", "boot", "0", "~", "reboot", "-"],
             [session("logout", "dave", b"pts/1", 4713, "192.0.2.8")]),
    ],
)  # fmt: skip

EVENT_SCENES = [EXECVE, BIND, OPENAT, DIRECTORIES, ALL_CALLS, LOGINS, ACCOUNTS, MORE_ACCOUNTS]
