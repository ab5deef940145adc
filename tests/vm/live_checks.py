"""Compares what the guest brought back with what had to come."""

import datetime
import json
import re
import socket
import struct
from collections import defaultdict

from live_scenes import EVENT_SCENES, Run, error_name

LOGIN_EVENTS = (b"login", b"logout")
USER_EVENTS = (b"added", b"deleted", b"password", b"group")
SHOWN_DIFFERENCES = 12


class Report:
    def __init__(self):
        self.failures = 0

    def check(self, text, passed, detail=""):
        print(f"ok    {text}" if passed else f"FAIL  {text}: {detail}", flush=True)
        self.failures += not passed


# ---- Events in one form ------------------------------------------------------------------------


def unescape(text):
    """The bytes of a text of qel-watch's."""
    pieces = re.split(r"\\(\\|x[0-9a-f]{2})", text)
    decoded = [b"\\" if p == "\\" else bytes.fromhex(p[1:]) for p in pieces[1::2]]
    plain = [p.encode() for p in pieces[::2]]
    return b"".join(part for pair in zip(plain, [*decoded, b""]) for part in pair)


def map_texts(value, decode):
    if isinstance(value, str):
        return decode(value)
    if isinstance(value, list):
        return [map_texts(item, decode) for item in value]
    return value


def watch_event(line):
    event = {name: map_texts(value, unescape) for name, value in json.loads(line).items()}
    event["class"] = event["class"].decode()
    return event


def bit_name(names, bit):
    return names[bit.bit_length() - 1]


def address_fields(data):
    family = struct.unpack_from("=H", data)[0]
    rest = data[2:]
    if family == socket.AF_UNIX:
        path = rest[:108]
        if path[0]:
            return {"family": b"unix", "path": path.split(b"\0")[0]}
        return {"family": b"unix", "abstract": path[1:].rstrip(b"\0")}
    if family == socket.AF_INET:
        port, ip = struct.unpack_from("!H4s", rest)
        return {"family": b"inet", "address": socket.inet_ntoa(ip).encode(), "port": port}
    if family == socket.AF_INET6:
        port, flow, ip = struct.unpack_from("!HI16s", rest)
        text = socket.inet_ntop(socket.AF_INET6, ip).encode()
        scope = struct.unpack_from("=I", rest, 22)[0]
        return {"family": b"inet6", "address": text, "port": port, "scope": scope, "flow": flow}
    if family == socket.AF_NETLINK:
        port_id, groups = struct.unpack_from("=2xII", rest)
        return {"family": b"netlink", "port_id": port_id, "groups": b"0x%x" % groups}
    if family == socket.AF_PACKET:
        protocol, interface = struct.unpack_from("!H", rest)[0], struct.unpack_from("=i", rest, 2)[0]
        return {"family": b"packet", "interface": interface, "protocol": b"0x%x" % protocol}
    return {"family": b"%d" % family, "bytes": rest.rstrip(b"\0").hex().encode()}


def client_event(line, callbacks):
    """The client's event in qel-watch's form, and the number of the callback."""
    event = {name: map_texts(value, bytes.fromhex) for name, value in json.loads(line).items()}
    number = event.pop("callback")
    name = event["class"] = callbacks[number - 1].split(",")[0]
    if name == "login":
        address = event["ipaddr"]
        event["event"] = bit_name(LOGIN_EVENTS, event["event"])
        event["ipaddr"] = socket.inet_ntoa(address).encode() if any(address) else b""
        event["epoch"] = event.pop("time")
    elif name == "user":
        event["event"] = bit_name(USER_EVENTS, event["event"])
    elif name == "syscall":
        event["success"] = event["success"] == 1
        event.update({f"arg{n}": b"0x%x" % event[f"arg{n}"] for n in range(1, 5)})
    elif name == "bind":
        event.update(address_fields(event.pop("addr")))
    if "result" in event:
        event["error"] = error_name(event["result"])
    return number, event


def iso_time(epoch):
    return datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc).isoformat().encode()


# ---- Which callbacks an event has to reach -----------------------------------------------------


def key_of(event):
    return {"execve": "process", "syscall": "syscall", "user": "username", "login": "username"}.get(
        event["class"], "port"
    )


def passes(event, event_filter):
    name = event["class"]
    if name in ("execve", "bind"):
        return True
    if name == "syscall":
        return int(event_filter) in (-1, int(event["success"]))
    names = LOGIN_EVENTS if name == "login" else USER_EVENTS
    return bool(int(event_filter) >> names.index(event["event"]) & 1)


def reached(callbacks, event):
    """Numbers of the callbacks, in the order of their runs: those of the key before those for all."""
    own, everything = [], []
    key = event.get(key_of(event), 0)
    key = key.decode() if isinstance(key, bytes) else str(key)
    for number, callback in enumerate(callbacks, 1):
        name, wanted, event_filter = callback.split(",")
        if name != event["class"] or not passes(event, event_filter):
            continue
        if wanted in ("", "0", "all"):
            everything.append(number)
        elif wanted == key:
            own.append(number)
    return own + everything


def count_runs(callbacks, events):
    return sum(len(reached(callbacks, event)) for event in events)


# ---- The scenes with events --------------------------------------------------------------------


class Results:
    """What a scene left in /out."""

    def __init__(self, out, name):
        self.out, self.name = out, name
        self.rows = [line.split() for line in self.lines("steps")]
        self.agent = self.rows[0] if self.rows else ["agent", "nothing", "0"]

    def lines(self, kind):
        return (self.out / f"{self.name}.{kind}").read_text(errors="surrogateescape").splitlines()

    def runs(self):
        begun = {row[1]: row[2:] for row in self.rows if row[0] == "step"}
        ended = {row[1]: row[2:] for row in self.rows if row[0] == "end"}
        parent = int(self.agent[-1])
        return {
            int(number): (Run(self.name, int(pid), parent, int(begin), int(ended[number][1]), self.read), int(ended[number][0]))
            for number, (pid, begin) in begun.items()
        }

    def read(self, name):
        return (self.out / name).read_bytes()


def fill_in(event, run):
    filled = {name: value(run) if callable(value) else value for name, value in event.items()}
    if "epoch" in filled:
        filled["time"] = None
    return filled


def expected_runs(scene, agent, runs):
    """(callback, event) in the order in which the processes caused them."""
    for number, step in enumerate(scene.steps):
        for event in step.events:
            filled = fill_in(event, runs[number][0])
            for callback in reached(scene.callbacks, filled):
                yield callback if agent == "client" else None, filled


def seen_runs(scene, agent, results):
    for line in results.lines("events"):
        callback, event = client_event(line, scene.callbacks) if agent == "client" else (None, watch_event(line))
        if scene.only and event.get("syscall") not in scene.only:
            continue
        if "epoch" in event:
            event["time"] = None if event.get("time", iso_time(event["epoch"])) == iso_time(event["epoch"]) else "wrong"
        yield callback, event


def by_process(runs):
    """Processes run side by side; within one the order holds. Monitors' events are one row."""
    grouped = defaultdict(list)
    for callback, event in runs:
        grouped[event["pid"] if "ppid" in event else 0].append((callback, event))
    return grouped


def short(text):
    return text if len(text) < 600 else f"{text[:300]} ... {text[-300:]}"


def differences(expected, seen):
    found = []
    for process in sorted(expected.keys() | seen.keys()):
        wanted, got = expected.get(process, []), seen.get(process, [])
        for place in range(max(len(wanted), len(got))):
            pair = [side[place] if place < len(side) else None for side in (wanted, got)]
            if pair[0] != pair[1]:
                found.append(f"\n      process {process}, place {place}:"
                             f"\n        expected {short(repr(pair[0]))}\n        came     {short(repr(pair[1]))}")  # fmt: skip
    return found


def check_scene(report, out, scene, agent):
    name = f"{scene.name}-{agent}"
    results = Results(out, name)
    report.check(f"{name}: the agent starts", results.agent[1] == "started", " ".join(results.agent))
    runs = results.runs()
    statuses = [runs[number][1] if number in runs else None for number in range(len(scene.steps))]
    wanted = [step.status for step in scene.steps]
    report.check(f"{name}: {len(wanted)} processes end as they should", statuses == wanted, f"{statuses} not {wanted}")
    if len(runs) < len(scene.steps):
        return
    expected = list(expected_runs(scene, agent, runs))
    found = differences(by_process(expected), by_process(seen_runs(scene, agent, results)))
    more = f"\n      and {len(found) - SHOWN_DIFFERENCES} more" if len(found) > SHOWN_DIFFERENCES else ""
    report.check(f"{name}: {len(expected)} callback runs, each once", expected and not found,
                 "".join(found[:SHOWN_DIFFERENCES]) + more)  # fmt: skip
    report.check(f"{name}: the agent ends well", results.rows[-1] == ["stopped", "0"], results.rows[-1])


def check_events(report, out):
    for scene in EVENT_SCENES:
        for agent in scene.agents:
            check_scene(report, out, scene, agent)


# ---- Start and stop ----------------------------------------------------------------------------

FOREIGN_RULES = [
    "flags 4 action 2 syscalls all 105=/etc/hostname 106=10 210=foreign-watch",
    "flags 4 action 2 syscalls 87 210=foreign-call",
    "flags 5 action 2 syscalls none 12=1328",
]
EXECVE_RULE = "flags 4 action 2 syscalls 59 210=execve_rule"
BIND_RULE = "flags 4 action 2 syscalls 49 210=bind_rule"
MKDIR_RULE = "flags 4 action 2 syscalls 83 210=syscall_rule"
USER_RULES = [
    "flags 4 action 2 syscalls all 105=/etc/shadow 106=10 210=shadow_rule",
    "flags 4 action 2 syscalls all 105=/etc/passwd 106=10 210=passwd_rule",
]
LOGIN_RULE = "flags 4 action 2 syscalls all 105=/var/log/wtmp 106=10 210=wtmp_rule"

SHOWN = "LIST_RULES: exit,always "
FOREIGN_SHOWN = [
    f"{SHOWN}watch=/etc/hostname perm=wa key=foreign-watch",
    f"{SHOWN}key=foreign-call syscall=unlink",
    "LIST_RULES: exclude,always msgtype=FEATURE_CHANGE (0x530)",
]
USER_SHOWN = [f"{SHOWN}watch=/etc/{name} perm=wa key={name}_rule" for name in ("shadow", "passwd")]
EXECVE_SHOWN = f"{SHOWN}key=execve_rule syscall=execve"
VICTIM_SHOWN = [
    f"{SHOWN}watch=/var/log/wtmp perm=wa key=wtmp_rule",
    *USER_SHOWN,
    f"{SHOWN}key=bind_rule syscall=bind",
    EXECVE_SHOWN,
    f"{SHOWN}key=syscall_rule syscall=mkdir",
    f"{SHOWN}key=syscall_rule syscall=openat",
]
PAIR_SHOWN = [f"{SHOWN}key=bind_rule syscall=bind", EXECVE_SHOWN, f"{SHOWN}key=syscall_rule syscall=mkdir",
              *USER_SHOWN, f"{SHOWN}watch=/var/log/wtmp perm=wa key=wtmp_rule"]  # fmt: skip
PAIRS = 100
TAKEOVERS = range(1, 4)
SMALLEST_CHUNK = 32  # of malloc, in bytes: less than one for each pair is what libc keeps for later

# What a script of the guest's wrote to /out/results, as far as it must be one fixed text.
CONTROL_RESULTS = {
    "purge-start": "started",
    "purge-receiver": "0",  # the difference to the agent's process id
    "purge-stop": "stopped",
    "purge-receiver-after": "0",
    "purge-enabled-after": "1",
    "again-start": "started",
    "purge-exit": "0",
    "pairs-exit": "0",
    "beside-start": "refused 1",
    "beside-receiver": "0",
    "beside-start-alone": "started",
    "beside-exit": "0",
    "powerless-start": "refused 1",
    "powerless-exit": "0",
    "powerless-receiver": "0",
    **{f"victim-{round}-start": "started" for round in TAKEOVERS},
    **{f"next-{round}-start": "started" for round in TAKEOVERS},
    **{f"next-{round}-events": "0" for round in TAKEOVERS},
    **{f"next-{round}-exit": "0" for round in TAKEOVERS},
    "locked-start": "refused 1",
    "locked-exit": "0",
    "locked-receiver": "0",
    "end": "reached",
}

# Whole files: the rules that are loaded, and those that were deleted, in order.
CONTROL_FILES = {
    "purge.rules": [*USER_RULES, EXECVE_RULE],
    "purge.second-receiver": ["acts: audit_set_pid: File exists (17)"],
    "purge.printed-at-start": FOREIGN_SHOWN,
    "purge.printed": [*FOREIGN_SHOWN, *([*USER_SHOWN, EXECVE_SHOWN] * 2)],
    "purge.rules-after": [],
    "again.rules-after": [],
    "pairs.rules": [BIND_RULE, EXECVE_RULE, MKDIR_RULE, *USER_RULES, LOGIN_RULE],
    "pairs.printed": PAIR_SHOWN * (PAIRS + 1),
    "pairs.rules-after": [],
    "beside.rules": FOREIGN_RULES,
    "beside.printed": [*FOREIGN_SHOWN, *USER_SHOWN],
    "powerless.rules": FOREIGN_RULES,
    "powerless.printed": [],
    **{f"next-{round}.rules": USER_RULES for round in TAKEOVERS},
    **{f"next-{round}.printed-at-start": VICTIM_SHOWN for round in TAKEOVERS},
    **{f"next-{round}.events": [] for round in TAKEOVERS},
    "locked.rules": FOREIGN_RULES,
    "locked.printed": [],
}

CONTROL_LOGS = {
    "beside": "audit_set_pid failed, uid=",
    "powerless": "audit_set_pid failed, uid=",
    "locked": "audit is locked",
}

REFUSED_REQUESTS = re.compile(r"error (audit_rule|qel_audit):")


def lines_of(path):
    return path.read_text(errors="surrogateescape").splitlines() if path.exists() else None


def read_results(out):
    """Values by name; a name may come more than once."""
    results = defaultdict(list)
    for line in lines_of(out / "results") or []:
        name, _, value = line.partition(" ")
        results[name].append(value)
    return results


def counts_of(text):
    words = text.split()
    return {name: int(value) for name, value in zip(words[::2], words[1::2])}


def check_control(report, out):
    results = read_results(out)
    for name, value in CONTROL_RESULTS.items():
        report.check(f"{name} {value}", results[name] == [value], results[name])
    for name, wanted in CONTROL_FILES.items():
        lines = lines_of(out / name)
        report.check(f"{name}: {len(wanted)} lines", lines == wanted, f"{short(repr(lines))} not {short(repr(wanted))}")
    for name, wanted in CONTROL_LOGS.items():
        report.check(f'{name}: "{wanted}" is logged', any(wanted in line for line in lines_of(out / f"{name}.log")))
    for name in ("purge", "pairs", *(f"next-{round}" for round in TAKEOVERS)):
        refused = [line for line in lines_of(out / f"{name}.log") if REFUSED_REQUESTS.search(line)]
        report.check(f"{name}: no request failed", not refused, refused[:3])

    seen = [client_event(line, ["execve,,", "user,,15"]) for line in lines_of(out / "purge.events")]
    arguments = [event["argv"] for _, event in seen if event["process"] == b"echo"]
    report.check("what happened between stop and start is not seen, what happens then is",
                 arguments == [[b"/usr/bin/echo", b"seen", b"again"]], arguments)  # fmt: skip
    report.check("every start and stop of the pairs is answered", not results["pairs-odd"], results["pairs-odd"])
    early, late = (counts_of(results[f"pairs-counts-{pair}"][0]) for pair in (10, PAIRS))
    report.check(f"{PAIRS} pairs leave no descriptors", early["descriptors"] == late["descriptors"], f"{early} {late}")
    growth = late["heap"] - early["heap"]
    report.check(f"{PAIRS} pairs leave no memory", growth < (PAIRS - 10) * SMALLEST_CHUNK, f"{growth} bytes")
    first, again = (counts_of(text)["descriptors"] for text in results["beside-counts"])
    report.check("a refused start leaves no descriptor", first == again, f"{first} {again}")


# ---- Load --------------------------------------------------------------------------------------

BURST_CALLBACKS = ["syscall,mkdir,-1", "bind,,"]
MIN_BURST_RECORDS = 50_000


def check_expiry(report, out, results):
    echoes = sum(row[0] == "end" and row[2] == "0" for row in Results(out, "expiry").rows)
    log = lines_of(out / "expiry.log")
    left = [int(line.rsplit(" ", 1)[1]) for line in log if "audit ctx timeout: " in line]
    before, after = (counts_of(results[f"expiry-counts{when}"][0]) for when in ("-before", ""))
    report.check("the kernel sends no ends of groups", echoes == 5 and after["messages"] > before["messages"],
                 f"{echoes} {before} {after}")  # fmt: skip
    report.check("groups without an end expire", left == list(reversed(range(echoes))), left)
    report.check("and bring no event", after["runs"] == before["runs"], f"{before} {after}")


def check_burst(report, out, results):
    rounds = int(results["rounds"][0])
    loops = [int(pid) for pid in results["burst-loops"][0].split()]
    before, after = (counts_of(results[f"burst-counts{when}"][0]) for when in ("-before", ""))
    records = after["messages"] - before["messages"]
    report.check(f"{records} records are at least {MIN_BURST_RECORDS}", records >= MIN_BURST_RECORDS)
    lost = [results["burst-lost-before"], results["burst-lost"]]
    report.check("the kernel has lost none of them", lost[0] == lost[1] != [], lost)
    report.check("no read failed", after["failed_reads"] == before["failed_reads"], f"{before} {after}")

    # Calls alternate in each process; 127.PID.PID.1 and the port tell which bind it was.
    def step_of(pid, number, port):
        address = socket.inet_ntoa(bytes([127, pid >> 8 & 255, pid & 255, 1])).encode()
        return (number, address, port) if number == 2 else (number, None, None)

    expected = {pid: [step_of(pid, number, 20000 + round) for round in range(rounds) for number in (2, 1)]
                for pid in loops}  # fmt: skip
    seen = defaultdict(list)
    for line in lines_of(out / "burst.events"):
        number, event = client_event(line, BURST_CALLBACKS)
        good = event["result"] == 0 and event["process"] == b"acts" and event["user"] == b"root"
        seen[event["pid"]].append((number, event.get("address"), event.get("port")) if good else event)
    found = differences(expected, seen)
    report.check(f"{sum(map(len, expected.values()))} events of {len(loops)} processes, each once and in order",
                 not found, "".join(found[:SHOWN_DIFFERENCES]))  # fmt: skip


def check_load(report, out):
    results = read_results(out)
    report.check("the script reached its end", results["end"] == ["reached"])
    for name in ("expiry-start", "burst-start"):
        report.check(f"{name} started", results[name] == ["started"], results[name])
    if report.failures == 0:
        check_expiry(report, out, results)
        check_burst(report, out, results)


GROUPS = {"events": check_events, "control": check_control, "load": check_load}
