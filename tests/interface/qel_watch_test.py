#!/usr/bin/env python3
# Runs qel-watch over recordings of a real kernel and over records made here.
#   qel_watch_test.py PROGRAM RECORDINGS [unittest arguments]
import gzip
import json
import os
import re
import subprocess
import sys
import unittest

PROGRAM, RECORDINGS = sys.argv[1:3]
KINDS = ("login", "user", "syscall", "execve", "bind")
LOG_NAMES = {1300: b"SYSCALL", 1302: b"PATH", 1306: b"SOCKADDR", 1307: b"CWD", 1309: b"EXECVE",
             1320: b"EOE", 1327: b"PROCTITLE"}


# The exit status, the bytes printed and the text on standard error.
def watch(*arguments, data=b"", stdout=subprocess.PIPE):
    env = {name: value for name, value in os.environ.items() if name != "QEL_LOG_LEVEL"}
    result = subprocess.run([PROGRAM, *arguments], input=data, stdout=stdout, check=False,
                            stderr=subprocess.PIPE, env=env, timeout=120)
    return result.returncode, result.stdout, result.stderr.decode()


# The lines printed of a recording that comes from standard input.
def replay(data, *options):
    return watch(*options, "--replay", "-", data=data)[1].splitlines()


def recording(name):
    return os.path.join(RECORDINGS, name)


def content(name):
    with (gzip.open if name.endswith(".gz") else open)(recording(name), "rb") as file:
        return file.read()


# The records of a program execution.
def execution(serial, argument):
    head = f"audit(1.000:{serial}): "
    return (f"1300\t{head}arch=c000003e syscall=59 success=yes exit=0 a0=1 a1=2 a2=3 a3=4 items=2 "
            f"ppid=1 pid={serial} auid=0 uid=0 gid=0 comm={(b'c' + argument[:14]).hex()} "
            f'key="execve_rule"\n1309\t{head}argc=2 a0=78 a1={argument.hex() or chr(34) * 2}\n'
            f"1320\t{head}\n").encode()


# A recording as auditd would have logged it.
def logged(lines, left_out):
    for record, name in LOG_NAMES.items():
        line = b"" if name in left_out else b"type=%s msg=\\1\n" % name
        lines = re.sub(b"(?m)^%d\t(.*)\n" % record, line, lines)
    return re.sub(rb"(?m)^\d.*\n", b"", lines)


# The bytes behind an escaped text.
def unescape(text):
    return re.sub(rb"\\(\\|x[0-9a-f]{2})",
                  lambda m: b"\\" if m[1] == b"\\" else bytes([int(m[1][1:], 16)]),
                  text.encode())


class Recordings(unittest.TestCase):
    def test_give_one_line_for_each_event(self):
        for name, counts in (
                ("exec-fail.rec", "0 0 0 17 0"), ("mixed.rec.gz", "0 0 9224 538 1985")):
            status, output, message = watch("--json", "--replay", recording(name))
            events = [json.loads(line)["class"] for line in output.splitlines()]
            self.assertEqual(" ".join(str(events.count(kind)) for kind in KINDS), counts, name)
            summary = ", ".join(f"{kind} {events.count(kind)}" for kind in KINDS)
            records = len(content(name).splitlines())
            self.assertEqual((status, message),
                             (0, f"qel-watch: {records} records read; events: {summary}\n"))

    def test_give_the_events_that_options_choose(self):
        for name, count, options in (
                ("exec-simple.rec", 3, "--execve setpriv --execve=ls"),
                ("exec-simple.rec", 8, "--execve --execve ls"),
                ("exec-simple.rec", 0, "--login alice:logout --user=:added,deleted --bind"),
                ("bind-inet.rec", 2, "--bind 8080 --bind=9090"),
                ("syscall-files.rec", 4, "--syscall :failed"),
                ("syscall-files.rec", 3, "--syscall mkdir:ok --syscall rmdir:failed"),
                ("mixed.rec.gz", 3, "--count 3")):
            status, output, _ = watch(*options.split(), "--replay", recording(name))
            self.assertEqual((status, output.count(b"\n")), (0, count), options)

    def test_give_lines_for_people(self):
        names = ("exec-fail.rec", "bind-fail.rec", "syscall-files.rec")
        output = watch(*(f"--replay={recording(name)}" for name in names))[1].decode()
        for line in (
                'execve   user=root     process=acts            pid=218     ppid=217     result=-2'
                '   error=ENOENT argv=acts "/no such/with space"\n',
                "bind     user=root     process=acts            pid=279     ppid=90      result=-99"
                "  error=EADDRNOTAVAIL family=inet address=10.9.8.7 port=80\n",
                "syscall=rmdir      success=no  result=-2   error=ENOENT arg1=0x"):
            self.assertIn(line, output)

    def test_may_be_compressed_or_logs_which_lack_ends_of_groups(self):
        endless = execution(1, b"a").rpartition(b"1320")[0]
        self.assertEqual(replay(endless), [], "a recording is taken as it is")
        for name in ("exec-split.rec.gz", "mixed.rec.gz"):
            data = content(name)
            expected = sorted(watch("--replay", recording(name))[1].splitlines())
            self.assertGreater(len(expected), 20)
            logs = (logged(data, names) for names in ((), (b"EOE",), (b"EOE", b"PROCTITLE")))
            for given in (data, *logs):
                # A difference is megabytes long.
                self.assertTrue(sorted(replay(given)) == expected, given[:80])


# What programs call themselves and their arguments is anybody's choice.
class Bytes(unittest.TestCase):
    ARGUMENTS = [b"\x1b[31mred", b"a\nexecve   user=root", b"\\x41", b"\xc2\x9b1m", b"\xe2\x80\xae",
                 b"\xef\xbb\xbf", b"\xc1\x81", b"\xed\xa0\x80", b"\xf4\x90\x80\x80", b"\xe6\x97",
                 b"\xf0\x9f\x98\x80", b'say "hi" \\"', "grüße".encode(), b"", b" ", b"\xff\xfe",
                 *(bytes([value]) for value in range(1, 256))]
    HARMFUL = "[\x00-\x1f\x7f-\x9f\u200b-\u200f\u2028-\u202e\u2066-\u2069\ufeff]"

    def test_come_back_from_lines_without_harm(self):
        data = b"".join(execution(n, argument) for n, argument in enumerate(self.ARGUMENTS))
        for argument, *lines in zip(self.ARGUMENTS, replay(data), replay(data, "--json"),
                                    strict=True):
            line, text = map(bytes.decode, lines)
            self.assertNotRegex(line + text, self.HARMFUL)
            event = json.loads(text)
            self.assertEqual(unescape(event["argv"][1]), argument)
            self.assertEqual(unescape(event["process"]), b"c" + argument[:14])
            word = re.search(r' argv=x ("(?:[^"\\]|\\.)*"|[^ "\']+)$', line)[1]
            if word.startswith('"'):
                word = re.sub(r"\\(.)", lambda m: '"' if m[1] == '"' else m[0], word[1:-1])
            self.assertEqual(unescape(word), argument)

    def test_are_shown_as_they_are_where_they_can_be(self):
        output = replay(b"".join(map(execution, range(3), ("ü".encode(), b"\xff\n\\", b'" \''))))
        self.assertEqual([line.split(b" argv=x ")[1] for line in output],
                         ["ü".encode(), rb"\xff\x0a\\", rb'''"\" '"'''])


class Refusals(unittest.TestCase):
    def assert_refused(self, result, text):
        self.assertEqual(result[0], 2)
        self.assertRegex(result[2], r"\Aqel-watch: [^\n]*\n\Z")
        self.assertIn(text, result[2])

    def test_of_arguments_are_one_line(self):
        for arguments, text in (
                ("stray", "stray"), ("--replay", "FILE"), ("--replay x --take-over", "--take-over"),
                ("--login alice:out", "login, logout"), ("--syscall openat:no", "ok, failed, any"),
                ("--user alice:added,", "added, deleted, password, group"),
                ("--syscall 59", "59"), ("--syscall execve", "option of its own"),
                ("--count 0", "--count"), ("--execve sixteen-bytes-16", "15 bytes"),
                ("--execve 16-bytes-or\nmore", "or\\x0amore"), ("--bind 0", "1 to 65535"),
                ("--bind 65537", "1 to 65535"), ("--bind 80x", "1 to 65535")):
            self.assert_refused(watch(*arguments.split(" ")), text)

    def test_of_files_are_one_line_behind_what_could_be_read(self):
        self.assert_refused(watch("--replay", "/missing"), "/missing: No such file")
        good = execution(1, b"first")
        for data, text in ((good + b"13x\ttext\n" + good, "standard input:4: "),
                           (gzip.compress(good)[:-9], "ends too early")):
            result = watch("--replay", "-", data=data)
            self.assert_refused(result, text)
            self.assertEqual(result[1].count(b" argv=x first\n"), 1)

    def test_of_live_watching_tell_what_would_be_taken_over(self):
        status, output, message = watch("--json", "--execve")
        self.assertEqual((status, output), (2, b""))
        self.assertRegex(message, r"(?s)audit receiver.*deleted.*--take-over")

    def test_of_output_end_the_program(self):
        for arguments in (["--help"], ["--replay", recording("mixed.rec.gz")]):
            with open("/dev/full", "wb") as full:
                status, _, message = watch(*arguments, stdout=full)
            self.assertEqual((status, message),
                             (1, "qel-watch: standard output: No space left on device\n"))


unittest.main(argv=sys.argv[2:])
