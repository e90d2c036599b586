#!/usr/bin/env python3
"""Both example processes and three consoles on real terminals, under random load, faults and hostile datagrams that are
all drawn from one seed; at the end the proof that nothing was lost, kept or left over: soak.py MINUTES [SEED]

The last third of the run neither kills nor stops the example processes and leaves two consoles alone, so that what they
use at the end can be compared with what they used after their warm-up.
"""
import collections
import glob
import os
import random
import re
import select
import signal
import sys
import threading
import time

from support.device import BUILD, HEADER, KS, PORT_IWARE, PORT_MWARE
from support.device import Peer, Program, message, read, rows, start_example, wait_for

ANSWER_S = 10  # what a console waits for an answer
HANG_S = 60  # a prompt that is not back by then never comes
HOLD_S = 1  # how long a message that was cut off takes in what comes after it
STRICT_ROUNDS = 30
LOST_OF = 50  # one of so many may lose its answer to hostile datagrams
COMMANDS = rows(
    "soak-commands.txt"
)  # line, part of the answer, and the process that knows it; the first asks for the pools
KEYS = [row[0] for row in rows("soak-keys.txt")]
FLOOD = ["display flood 1000", "flood started"]
SHOWN = ("commands", "answered", "refused", "timed out", "otherwise", "other lines", "floods", "datagrams",
         "target kills", "target stops", "console kills", "console quits")


class Run:
    """What all threads see of the run."""

    def __init__(self, minutes, seed):
        self.seconds, self.seed = minutes * 60, seed
        self.start = time.monotonic()
        self.warm_up = min(60.0, minutes * 10)
        self.figures = collections.Counter()
        self.failure = ""
        self.calm = (
            self.counts
        ) = self.over = False  # the last third; and all is warm in it; no more faults, no more excuses

    def age(self):
        return time.monotonic() - self.start

    def show(self):
        figures = ", ".join(f"{self.figures[name]} {name}" for name in SHOWN)
        print(f"{self.age() / 60:.1f} min: {figures}", flush=True)

    def require(self, holds, reason):
        """Ends the run if it does not hold."""
        if not holds and not self.failure:
            self.failure = reason
        if self.failure:
            raise RuntimeError(self.failure)


def use_of(pid):
    """KiB resident and descriptors. Log files do not count: they are opened once they are needed, and stay, even if
    another process has rotated them."""
    files = []
    for link in glob.glob(f"/proc/{pid}/fd/*"):
        try:
            files.append(os.readlink(link))
        except OSError:  # gone before it is looked at
            pass
    logs = r"/var/log/[A-Za-z_]+0[01]\.(log|debug|buf)( \(deleted\))?"
    kib = int(read(f"/proc/{pid}/statm").split()[1]) * os.sysconf("SC_PAGESIZE") // 1024
    return kib, sum(not re.fullmatch(logs, file) for file in files)


class Worn:
    """A program, and what it uses against what it used after its warm-up."""

    def __init__(self, run, name, number):
        self.run, self.name = run, name
        self.random = random.Random(run.seed * 10 + number)
        self.program = self.warm = None
        self.born = 0.0

    def be_born(self, program):
        self.program, self.born, self.warm = program, time.monotonic(), None

    def measure(self):
        if self.warm is None and self.program and time.monotonic() - self.born >= self.run.warm_up:
            self.warm = use_of(self.program.pid)

    def judge(self):
        """Pools and stacks are touched page by page as load comes, so a short warm-up leaves more to come; the memory
        of a sanitizer grows with what the program does."""
        sanitized = re.search("KS_SANITIZE:STRING=.", read(BUILD + "/CMakeCache.txt"))
        may_grow = 1 << 40 if sanitized else 512 if self.run.warm_up < 60 else 128

        def same():
            now = use_of(self.program.pid)
            return now[0] <= self.warm[0] + may_grow and now[1] <= self.warm[1]

        holds = wait_for(same)
        lived = time.monotonic() - self.born
        print(f"{self.name:20} lived {lived:.0f} s: KiB and descriptors {self.warm} -> {use_of(self.program.pid)}")
        self.run.require(holds, self.name + " uses more than after its warm-up")


class Process(Worn):
    """An example process: started at either pace, killed, stopped and continued; in the calm it runs."""

    runs = False
    next = 0.0

    def step(self):
        self.run.require(self.program is None or self.program.wait_exit(0) is None, self.name + " ended by itself")
        self.measure()
        if self.runs if self.run.calm else time.monotonic() < self.next:
            return
        kill = self.runs and self.random.randrange(3) == 0
        rest = ANSWER_S + 1 if not kill and self.random.randrange(4) == 0 else self.random.uniform(0, 2)
        self.next = time.monotonic() + (rest if self.runs else self.random.uniform(1, 9))
        if self.runs:
            self.run.figures["target kills" if kill else "target stops"] += 1
        if kill:
            self.program.end()
            self.program = None
        elif self.program:
            self.program.signal(signal.SIGSTOP if self.runs else signal.SIGCONT)
        else:
            self.be_born(start_example(self.name, prompt=self.random.random() < 0.5))
        self.runs = not self.runs


class Engineer(Worn):
    """A console, and the engineer at it, who types, reads, and now and then ends it or closes the terminal, and then
    starts the next one."""

    def __init__(self, run, process, number, may_end_in_calm):
        super().__init__(run, f"console {number} of {process.name}", number)
        self.process, self.may_end_in_calm = process, may_end_in_calm
        self.counted = self.lost = 0  # commands while they are counted
        self.out, self.debug = "", False  # since the last keys; in debug mode

    def work(self):
        try:
            self.start()
            while not self.run.over or not self.debug:
                self.act()
                self.measure()
                time.sleep(self.random.uniform(0, 0.1))
        except Exception as error:
            self.run.failure = self.run.failure or f"{self.name}: {error!r}"

    def garbage(self, length):
        """Three of four are printable. Not 'q', because leaving a console is drawn for itself."""
        draw = self.random.randrange
        text = "".join(chr(draw(256) if draw(4) == 0 else 32 + draw(95)) for _ in range(length))
        return text.replace("q", "Q")

    def act(self):
        draw = self.random.randrange(100)
        if draw < 2 and (self.may_end_in_calm or not self.run.calm):
            self.end(self.random.choice((0, signal.SIGKILL, signal.SIGTERM, signal.SIGHUP)))
        elif draw < 71 and self.debug:
            self.ask(self.random.choice(COMMANDS) if draw < 70 else FLOOD)
        elif draw < 80 and not self.debug:
            self.send("e\t" if draw < 60 else "en_equipment\r")
        elif draw < 98 or not self.debug:
            # An ESC at the end takes a z or two; an ESC and an A recall a line.
            looks = draw < 85 and self.debug
            keys = self.random.choice(KEYS) if looks else self.garbage(1 + self.random.randrange(150))
            self.send(keys + "zzz\r", 0)
        else:
            self.send("q\r")

    def end(self, number):
        """Ends the console by the signal, 0: by quitting."""
        if number == 0 or self.random.random() < 0.5:  # it may die over its work
            self.program.type("display module\r" if number else "q\rquit\r" if self.debug else "quit\r")
        if number == signal.SIGHUP:
            self.program.hang_up()
        elif number:
            self.program.signal(number)
        self.run.figures["console kills" if number else "console quits"] += 1
        self.wait(None, -number)

    def send(self, keys, end=None):
        """After the keys a mark is typed and erased again: the prompt after its echo is the last one."""
        self.run.figures["other lines"] += 1
        mark = f"mark{self.run.figures['other lines']}"
        self.program.type(keys + mark + "\b" * len(mark) + "\r")
        self.wait(mark, end)

    def ask(self, command):
        line, answer = command[:2]
        counts, strict, since = self.run.counts, self.run.over, time.monotonic()
        self.send(line + "\r")
        in_time = time.monotonic() - since < ANSWER_S
        silent = self.out.startswith(line + "\r\r\n[dbg]")
        answered = answer in self.out if answer else silent and in_time
        refused = not answered and ("Wrong command input!" in self.out or "receive failed result." in self.out)
        told = answered or refused or not silent or not in_time
        self.run.require(told, f"{self.name}: neither answer nor time-out of {line}")
        self.run.require(answered or not strict, f"{self.name}: no answer to {line}: {self.out!r}")
        figure = "answered" if answered else "refused" if refused else "timed out" if silent else "otherwise"
        self.run.figures.update(["commands", figure] + ["floods"] * (command is FLOOD))
        self.counted += counts
        self.lost += counts and not answered and not refused

    def start(self):
        self.be_born(Program(KS, self.process.name))
        self.wait("", None)
        if "no commands from" in self.out:  # its target did not run
            self.act()
            self.end(0)

    def wait(self, mark, end):
        """Until the prompt is back after the mark, or the console has ended, which it may do with that status."""
        self.out = ""
        since = time.monotonic()
        while mark is None or not self.prompt_is_back(mark):
            self.out += self.program.read_present(0.01)
            status = self.program.wait_exit(0)
            hung_up = end == -signal.SIGHUP  # it may see the end of input first
            told = f"{self.name} ended with {status}; its last words: {self.out!r}"
            self.run.require(status in (None, end) or (hung_up and status == 0), told)
            if status is not None:
                restored = hung_up or status == -signal.SIGKILL or self.program.settings() == self.program.before
                self.run.require(restored, self.name + " left its terminal changed")
                self.program.hang_up()
                return self.start()
            self.run.require(time.monotonic() - since < HANG_S, f"{self.name} hangs; its last words: {self.out!r}")

    def prompt_is_back(self, mark):
        after = self.out[self.out.find(mark) :] if mark in self.out else ""
        self.debug = "\r\n[dbg]" in after
        return self.debug or "\r\n<dbg>" in after


def datagram(draw, engineer):
    """Garbage, and messages meant for no module, or with one bit wrong, which rarely makes one wait for its rest; and
    answers that no requester waits for."""
    if draw.randrange(12) == 0:
        return engineer.garbage(1 + draw.randrange(10000)).encode("latin-1")
    texts = ("<display slab >", "<display slab class >3;", "\n%s%n", "\nall", "<;>")
    text = draw.choice(texts) if draw.random() < 0.5 else engineer.garbage(draw.randrange(1 << draw.randrange(14)))
    code = draw.choice((0, 1000, 31050, 4711, 0xFFFFFF00)) + draw.randrange(12)
    module = draw.choice((0x90000000, 0x90009000, 0xFFFFFFFA, 0x90000098)) + draw.randrange(5)
    number = draw.randrange(1 << 31) | 1 << 31  # no console counts that far
    data = bytearray(message(code, text, draw.randrange(6), number, destination=module))
    if draw.randrange(12) == 0:
        data[draw.randrange(HEADER.size)] ^= 1 << draw.randrange(8)
    return bytes(data) * draw.choice((1, 1, 1, 2))


def make_noise(run, peer, draw, engineer):
    """Now and then a datagram, rarely a burst of them, to every port with a receiver, the consoles' included."""
    table = read("/proc/net/udp")
    own = peer.socket.getsockname()[1]
    ports = [port for port in (int(text, 16) for text in re.findall(r" \d+: \w+:(\w+)", table)) if port != own]
    for _ in range(60 if draw.randrange(400) == 0 else draw.randrange(4) // 3):
        peer.send(datagram(draw, engineer), draw.choice([PORT_MWARE, PORT_IWARE, *ports]))
        run.figures["datagrams"] += 1
    while select.select([peer.socket], [], [], 0)[0]:
        peer.socket.recv(65536)


def wear(run, processes, engineers, steady):
    draw, peer, shown = random.Random(run.seed), Peer(), 1
    for process in processes:
        process.step()
    threads = [threading.Thread(target=engineer.work, daemon=True) for engineer in engineers]
    for thread in threads:
        thread.start()
    warm = False
    while not run.failure and (run.age() < run.seconds or not warm):
        run.calm = run.age() > run.seconds * 2 / 3
        for process in processes:
            process.step()
        warm = all(process.runs for process in processes) and all(worn.warm for worn in steady)
        run.counts = run.counts or (run.calm and warm)
        make_noise(run, peer, draw, engineers[0])
        if run.age() > shown * 60:
            run.show()
            shown += 1
        time.sleep(0.01)
    time.sleep(2 * HOLD_S)  # by then what was cut off takes nothing in any more
    run.over = True
    for thread in threads:
        thread.join(2 * HANG_S)
        run.require(not thread.is_alive(), "an engineer still waits")


def remains(parents):
    """Zombies of the processes, and what stays in /tmp."""
    left = [read(path) for path in glob.glob("/proc/[0-9]*/stat")]
    left = [stat for stat in left if re.search(r"\) Z (%s) " % "|".join(map(str, parents)), stat)]
    for path in glob.glob("/tmp/*"):
        if not os.path.isdir(path) and not re.fullmatch(r"/tmp/ThreadInfo\[\d+\]\.log", path):
            left.append(path + ": " + read(path))
    return left


def finish(run, engineers, steady):
    """All is quiet: nothing is excused any more, and everything must be as it was."""
    run.require(not run.failure, "")
    for engineer in engineers:
        print(f"{engineer.name:20} in calm: {engineer.counted} commands, {engineer.lost} without their answer")
        few = engineer.may_end_in_calm or engineer.lost <= 1 + engineer.counted // LOST_OF
        run.require(few, engineer.name + ": too many commands without their answer")
        known = [row for row in COMMANDS if len(row) < 3 or row[2] == engineer.process.name]
        for _ in range(STRICT_ROUNDS):
            engineer.ask(engineer.random.choice(known))

        # The request that asks has a buffer itself; a notice and what follows from it may be under way.
        def full():
            engineer.ask(COMMANDS[0])
            return "0     128     256    255    1\r\n" in engineer.out and engineer.out.count(" 0\r\n") == 7

        run.require(wait_for(full), f"buffers are missing in the target of the {engineer.name}: {engineer.out!r}")
    for worn in steady:
        worn.judge()
    parents = [worn.program.pid for worn in [*engineers, *steady]] + [os.getpid()]
    wait_for(lambda: not remains(parents))
    run.require(not remains(parents), f"left: {remains(parents)}")
    for engineer in engineers:
        engineer.run.over = True
        engineer.program.type("q\rquit\r")
        run.require(engineer.program.wait_exit() == 0, engineer.name + " does not quit")
        restored = engineer.program.settings() == engineer.program.before
        run.require(restored, engineer.name + " left its terminal changed")


def main():
    minutes = float(sys.argv[1])
    run = Run(minutes, int(sys.argv[2]) if len(sys.argv) > 2 else random.randrange(1 << 32))
    # What the programs' sanitizers report, if they were built with any, is then left in /tmp and fails the run.
    for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"):
        os.environ[name] = os.environ.get(name, "") + ":log_path=/tmp/sanitizer"
    print(f"{minutes:g} minutes, seed {run.seed}", flush=True)
    processes = [Process(run, name, i) for i, name in enumerate(("MW_MWARE", "MW_IWARE"), 1)]
    engineers = [Engineer(run, processes[i % 2], i + 3, i == 2) for i in range(3)]
    steady = [*processes, *engineers[:2]]
    try:
        wear(run, processes, engineers, steady)
        finish(run, engineers, steady)
    except RuntimeError:  # said below
        pass
    run.show()
    print(f"{'FAILED' if run.failure else 'passed'} with seed {run.seed}: {run.failure}")
    return 1 if run.failure else 0


if __name__ == "__main__":
    sys.exit(main())
