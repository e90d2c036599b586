"""A device as its engineer has it: real processes on terminals of their own, and a peer on their bus."""
import atexit
import fcntl
import os
import pty
import re
import select
import signal
import socket
import struct
import subprocess
import termios
import threading
import time

BUILD = os.environ["KS_BUILD_DIR"]
KS, KS_FAILING = BUILD + "/console/ks", BUILD + "/tests/ks_failing"
MWARE, MWARE_FAILING = BUILD + "/examples/mware", BUILD + "/tests/mware_failing"
DATA = os.path.join(os.path.dirname(__file__), "..", "data")
PORT_MWARE, PORT_IWARE, CMD_MODULE = 2048, 2049, 0xFFFFFFFE
GET_TREE, GET_MODULES, RUN = 31051, 31052, 31060
HEADER = struct.Struct("=4sIIIIIHHHHIHH")
NORMAL, ACK = 0, 1


def wait_for(condition, seconds=30):
    """What the condition becomes, or is after that time. No measure of speed: a test that fails also ends."""
    end = time.monotonic() + seconds
    while not (result := condition()) and time.monotonic() < end:
        time.sleep(0.002)
    return result


def read(path):
    try:
        with open(path, encoding="latin-1", newline="") as file:
            return file.read()
    except OSError:
        return ""


def log_of(process):
    return read(f"/var/log/{process}00.log")


def rows(name):
    """The cases in tests/data, a list of columns each, written as support/rows.h says."""

    def character(match):
        text = match[0]
        return {"n": "\n", "r": "\r", "t": "\t", "e": "\x1b", "s": " "}.get(text[1]) or chr(int(text[2:], 16))

    def column(text):
        text = re.sub(r"\\x..|\\.", character, text.strip(" "))
        return re.sub(r"\{(.)\*(\d+)\}", lambda match: match[1] * int(match[2]), text, flags=re.S)

    with open(os.path.join(DATA, name), encoding="utf-8") as file:
        lines = [line.rstrip("\n") for line in file]
    return [[column(cell) for cell in line.split("|")] for line in lines if line and line[0] != "#"]


def message(code, text, kind=NORMAL, number=0, source=0xFFFFFFFF, destination=CMD_MODULE, processes=(257, 101)):
    header = (b"\x35\x23\x12\xde", kind, code, number, source, destination, *processes, HEADER.size + len(text))
    return HEADER.pack(*header, 0, 0, 0, 0) + text.encode("latin-1")


class Peer:
    """A socket of the bus; port 0 is any."""

    def __init__(self, port=0):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        # A process that has just been killed may leave a child that is about to become a shell, with the socket.
        assert wait_for(lambda: self.is_bound(port)), "the port is taken"

    def is_bound(self, port):
        try:
            self.socket.bind(("127.0.0.1", port))
        except OSError:
            return False
        return True

    def send(self, data, port=PORT_MWARE):
        self.socket.sendto(data, ("127.0.0.1", port))

    def ask(self, text, code=RUN, seconds=10.0):
        """The answer's text, None if none comes in time."""
        self.send(message(code, text))
        ready = select.select([self.socket], [], [], seconds)[0]
        return self.socket.recv(65536)[HEADER.size :].decode("latin-1") if ready else None


class Target(Peer):
    """A target whose answers a script gives: a function of code and text, None for silence."""

    def __init__(self, script, port=PORT_MWARE):
        super().__init__(port)
        self.script = script
        self.asked = []
        threading.Thread(target=self.run, daemon=True).start()

    def run(self):
        while True:
            data, sender = self.socket.recvfrom(65536)
            _, _, code, number, source, destination, *processes = HEADER.unpack(data[: HEADER.size])[:8]
            self.asked.append(data[HEADER.size :].decode("latin-1"))
            answer = self.script(code, self.asked[-1])
            if answer is not None:
                head = {"number": number, "source": destination, "destination": source, "processes": processes[::-1]}
                self.socket.sendto(message(code, answer, ACK, **head), sender)


class Program:
    """A program on a terminal of its own, which stays open so that its settings can be looked at after the end."""

    def __init__(self, *arguments, flags=0, **environment):
        self.master, self.slave = pty.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("4H", 40, 120, 0, 0))
        fcntl.fcntl(self.slave, fcntl.F_SETFL, fcntl.fcntl(self.slave, fcntl.F_GETFL) | flags)
        self.before = self.settings()
        self.pending = ""
        terminal = {name: self.slave for name in ("stdin", "stdout", "stderr")}
        command = ["setsid", "-c", *os.environ.get("KS_EMULATOR", "").split(), *arguments]
        self.process = subprocess.Popen(command, env={**os.environ, **environment}, **terminal)
        self.pid = self.process.pid

        atexit.register(self.end)

    def end(self):
        self.process.kill()
        self.process.wait()
        self.hang_up()

    def hang_up(self):
        if self.master >= 0:
            os.close(self.master)
            os.close(self.slave)
            self.master = -1

    def type(self, keys):
        data = keys.encode("latin-1")
        while data:
            data = data[os.write(self.master, data) :]

    def read_present(self, seconds=0.0):
        """All that has come, waiting so long for the first of it; taken off what is read next."""
        while self.master >= 0 and select.select([self.master], [], [], seconds)[0]:
            self.pending += os.read(self.master, 65536).decode("latin-1")
            seconds = 0.0
        present, self.pending = self.pending, ""
        return present

    def read_until(self, text, seconds=100):
        """Everything up to the end of the text; all that came if it does not appear in time, or the program ends.

        On a busy machine each of the thousand steps of a console's limit of ten seconds may take several times as long.
        """
        end = time.monotonic() + seconds
        ended = False
        while text not in self.pending and not ended and time.monotonic() < end:
            ended = self.process.poll() is not None
            self.pending = self.read_present(0.02)
        cut = self.pending.find(text) + len(text) if text in self.pending else len(self.pending)
        found, self.pending = self.pending[:cut], self.pending[cut:]
        return found

    def command(self, line):
        """What is printed for a line in debug mode up to the next prompt, the echo taken off."""
        self.type(line + "\r")
        text = self.read_until("\r\n[dbg]")
        assert text.endswith("\r\n[dbg]"), "no prompt: " + text
        return text[len(line) : -7]

    def enter_debug_mode(self):
        self.read_until("<dbg>")
        self.type("e\t")
        self.read_until("\r\n[dbg]")

    def signal(self, number):
        self.process.send_signal(number)

    def stop(self):
        """Returns when all its threads stand still."""
        self.signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pid, os.WSTOPPED)

    def wait_exit(self, seconds=30):
        """Its status, below 0 for a signal, None if it does not end in time."""
        try:
            return self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            return None

    def settings(self):
        return termios.tcgetattr(self.slave)

    def set_settings(self, settings):
        termios.tcsetattr(self.slave, termios.TCSANOW, settings)

    def is_non_blocking(self):
        return bool(fcntl.fcntl(self.slave, fcntl.F_GETFL) & os.O_NONBLOCK)

    def is_full(self):
        """Whether the terminal takes no more of what the program prints."""
        return not select.select([], [self.slave], [], 0.1)[1]


def start_example(name="MW_MWARE", prompt="KS_PROMPT" in os.environ, path=MWARE, **environment):
    """An example process that is ready, or has ended."""
    program = Program(path, name, *(["prompt"] if prompt else []), **environment)
    program.read_until("ready")
    return program


def start_console(*arguments, **how):
    program = Program(KS, *arguments, **how)
    program.enter_debug_mode()
    return program
