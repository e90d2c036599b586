"""The console as the engineer has it: the real program on a real terminal, against the example process or against a
target that misbehaves."""
import os
import re
import signal
import subprocess
import termios
import threading
import time

import pytest
from support.device import GET_MODULES, GET_TREE, KS, Peer, Program, Target
from support.device import log_of, read, rows, start_console, start_example, wait_for

PTZ = "display ptz"
PTZ_TREE = "\nh\ndisplay\ntitle show\n1\nlens\ntitle the lens\n1\ncr\nend\n0\n"


def always(text):
    return lambda code, asked: text


def child_of(parent):
    return int(read(f"/proc/{parent.pid}/task/{parent.pid}/children"))


def play_session(ks, name):
    """Keys, what is awaited then, and what is shown: all of it after a ^, else a part."""
    for keys, awaited, wanted in rows("sessions/" + name):
        ks.type(keys)
        shown = ks.read_until(awaited)
        assert shown == wanted[1:] if wanted[:1] == "^" else wanted in shown, keys


@pytest.fixture
def mware():
    return start_example()


@pytest.fixture
def ks(mware):
    return start_console()


def test_main_job(mware):
    ks = Program(KS)
    ks.read_until("\r\n<dbg>")
    iflag, oflag, _, lflag = ks.settings()[:4]
    assert lflag & (termios.ICANON | termios.ECHO | termios.ISIG) == 0 and oflag & termios.OPOST
    assert iflag & termios.INLCR
    play_session(ks, "main-job.txt")
    debug = "/var/log/MW_MWARE00.debug"
    assert not os.path.exists(debug)
    for command, line in (
        ("debug MW_CTRL", "[MW_TurnHead]turn the head by "),
        ("debug MW_PTZ move", "[MW_PtzMove]position is "),
    ):
        assert ks.command(command) == "\r"
        assert wait_for(lambda: read(debug).count(line) > 1)
    assert ks.command("nodebug all") == "\r"
    figures = ks.command("display module MW_CTRL")
    assert wait_for(lambda: ks.command("display module MW_CTRL") != figures)
    ks.type("q\r")
    ks.read_until("\r\n<dbg>")
    threads = read(f"/tmp/ThreadInfo[{ks.pid}].log")  # ks_cmd, whose second thread has its place, and ks
    ks.type("quit\r")
    assert ks.wait_exit() == 0
    assert threads.count("\n") == 2
    assert ks.settings() == ks.before
    assert "[E(" not in log_of("ks")
    assert not os.path.exists("/var/log/Timer_info.log")  # nothing has an effect without its parameter
    if "KS_SANDBOX" in os.environ:  # the machine's own directories hold other files
        assert sorted(os.listdir("/var/log")) == ["MW_MWARE00.debug", "MW_MWARE00.log", "ks00.log"]


def test_flood_leaves_its_evidence_and_passes(ks):
    """The process runs short; the engineer still gets through, finds the evidence, and sees it recover."""
    assert "flood started" in ks.command("display flood 1000")
    assert wait_for(lambda: os.path.exists("/var/log/Slab_Keyinfo.log"))
    assert read("/var/log/Slab_all.log").count("\nmsg[") > 200
    assert "total: 2 \n" in read("/var/log/Timer_info.log")
    assert wait_for(lambda: "256    255    1" in ks.command("display slab 0"))
    assert log_of("MW_MWARE").count("Slab full") == 1
    assert "MW_ALM         day   03:00:00        " in ks.command("display timer")
    assert ks.command("display dump yes").count("/var/log/") == 3


def test_end_of_input_ends_the_program(mware):
    """Of itself, where the terminal's hang-up signal ends nothing: from either prompt, in the middle of a line."""
    for keys in ("", "e\tdisplay sl"):
        ks = Program("/bin/sh", "-c", "trap '' HUP; exec \"$0\"", KS)
        ks.read_until("<dbg>")
        ks.type(keys)
        ks.read_until(keys[2:])
        ks.hang_up()
        assert ks.wait_exit() == 0


@pytest.mark.parametrize(
    "number, session", [(signal.SIGHUP, []), (signal.SIGTERM, []), (signal.SIGTERM, ["setsid", "--wait"])]
)
def test_signal_that_ends_it_restores_the_terminal(mware, number, session):
    """Also one that controls no session, as on a device whose shell has no job control."""
    ks = Program(*session, KS, flags=os.O_NONBLOCK)
    ks.enter_debug_mode()
    assert ks.settings() != ks.before
    assert wait_for(lambda: not ks.is_non_blocking())  # it is while a key is asked for
    os.kill(child_of(ks) if session else ks.pid, number)
    assert ks.wait_exit() == (number if session else -number)
    assert ks.settings() == ks.before and ks.is_non_blocking()


def test_ended_in_the_background_leaves_the_terminal_to_its_owner(mware):
    script = 'set -m; "$0"; echo taken; read; kill %1; kill -CONT %1; wait %1; echo ended $?; read'
    shell = Program("/bin/bash", "-c", script, KS)
    shell.enter_debug_mode()
    os.kill(child_of(shell), signal.SIGSTOP)
    shell.read_until("taken")
    settings = shell.before[:]
    settings[3] &= ~termios.ECHO
    shell.set_settings(settings)
    shell.type("\n")
    assert "ended 143" in shell.read_until("ended 143")  # 128 and SIGTERM
    assert shell.settings() == settings


def test_stopped_and_continued_takes_the_terminal_back(ks):
    raw = ks.settings()
    ks.stop()
    ks.set_settings(ks.before)  # as a shell does that takes over
    ks.signal(signal.SIGCONT)
    assert wait_for(lambda: ks.settings() == raw)
    assert "degrees" in ks.command(PTZ)


def test_stopped_by_a_signal_it_can_handle_gives_the_terminal_back(mware):
    """The terminal is the shell's in between, and the line is shown again."""
    shell = Program("/bin/sh", "-c", 'set -m; "$0"; kill -STOP $$; fg; echo ended $?', KS, flags=os.O_NONBLOCK)
    shell.enter_debug_mode()
    raw = shell.settings()
    shell.type("display pt")
    shell.read_until("display pt")
    os.kill(child_of(shell), signal.SIGTSTP)
    assert wait_for(lambda: ") T " in read(f"/proc/{shell.pid}/stat"))  # it stopped itself
    assert shell.settings() == shell.before and shell.is_non_blocking()
    shell.signal(signal.SIGCONT)
    shell.read_until("\r\n[dbg]display pt")
    assert shell.settings() == raw and not shell.is_non_blocking()
    assert "degrees" in shell.command("z")
    shell.type("q\rq\r")
    assert "ended 0" in shell.read_until("ended 0")


def test_signal_storms_change_nothing(mware):
    """From the start on, while threads start and shells are run for them."""
    ks = Program(KS)
    over = threading.Event()

    def storm():
        while not over.wait(0.0001):
            for number in (signal.SIGCHLD, signal.SIGWINCH, signal.SIGCONT, signal.SIGURG):
                ks.signal(number)
                mware.signal(number)

    thread = threading.Thread(target=storm)
    thread.start()
    ks.enter_debug_mode()
    answers = [ks.command(PTZ) for _ in range(20)]
    over.set()
    thread.join()
    assert all("degrees" in answer for answer in answers)
    assert wait_for(lambda: read(f"/tmp/ThreadInfo[{ks.pid}].log").count("\n") == 2)
    assert "[E(" not in log_of("ks")


def test_keys_that_stop_in_the_middle_of_a_sequence(ks):
    assert "degrees" in ks.command(PTZ)
    ks.type("\x1b")  # alone: nothing, and what is typed later is text
    time.sleep(1.5)
    ks.type("[A\r")
    assert ks.read_until("[A") == "[A"
    ks.read_until("\r\n[dbg]")
    for cut in ("\x1b[", "\x1bO", "\x1b[1", "\x1b[15", "\x1b[Z", "\x1b\x1b\x1b"):
        ks.type("\xc3\xa4\xff\x80\x01\x03\x1a" + cut)
        time.sleep(0.15)
    time.sleep(1.5)  # what comes now is no part of the sequence any more
    assert "degrees" in ks.command(PTZ)


def test_pasted_megabyte_is_one_line_after_another(ks):
    threading.Thread(target=ks.type, args=("x" * (1 << 20) + f"\r{PTZ}\r",)).start()
    assert "Wrong command input!" in ks.read_until("degrees")


def test_log_that_cannot_be_written_leaves_the_console_usable(ks, mware):
    """What the log says of itself goes to the terminal too, each as a line, and nothing else of the screen is lost."""
    if "KS_SANDBOX" not in os.environ:
        pytest.skip("needs a mount namespace of its own")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", "/var/log"], check=True)
    mware.stop()
    failed = ks.command(PTZ)  # its time-out has something to log
    mware.signal(signal.SIGCONT)
    assert "[bp_log-878]Open file /var/log/ks00.log failed:Read-only file system\r\n" in failed
    assert failed.count("\n") == failed.count("\r\n")
    assert "degrees" in ks.command(PTZ)


OPEN_AGAIN = 'exec >"$(tty)"; dd oflag=nonblock count=0 status=none; exec "$0"'


@pytest.mark.parametrize("arguments", [[KS], ["/bin/sh", "-c", OPEN_AGAIN, KS]])
def test_reader_that_does_not_read(ks, arguments):
    """A terminal that is not read stops this console, and no other; nothing is lost once it is read again, even if
    another program left it non-blocking, opened once for all descriptors or once more for the output."""
    unread = Program(*arguments, flags=os.O_NONBLOCK)
    unread.enter_debug_mode()
    unread.type("display module\r" * 100)
    assert wait_for(unread.is_full)
    assert "degrees" in ks.command(PTZ)
    for _ in range(100):
        assert unread.read_until("\r\n[dbg]").count("MW_CTRL") == 1


def test_target_that_does_not_answer_costs_one_command_and_may_be_replaced(ks, mware):
    """It is stopped, killed, comes back as itself, and then as another."""
    mware.stop()
    assert ks.command(PTZ) == "\r"  # nothing came
    mware.signal(signal.SIGCONT)
    assert "degrees" in ks.command(PTZ)
    for line in ("wait response msg timeout(10000 10000)", "[CLI_ExecuteCmd]fail to send cmd msg"):
        assert log_of("ks").count(line) == 1
    mware.end()
    assert ks.command(PTZ) == "\r"
    mware = start_example()
    assert "degrees" in ks.command(PTZ)
    mware.end()
    texts = {"<display lens >": "wide"}
    Target(lambda code, asked: PTZ_TREE if code == GET_TREE else texts.get(asked, "unknown here"))
    assert "unknown here" in ks.command(PTZ)  # as it knows the target
    new = start_console()
    assert "Wrong command input!" in new.command(PTZ)
    assert "wide" in new.command("display lens")
    ks.type(PTZ + "\r")
    ks.hang_up()  # in the middle of a request
    assert ks.wait_exit() in (-signal.SIGHUP, 0)  # the end of input may come first


def test_attaches_to_iware():
    start_example("MW_IWARE")
    ks = start_console("MW_IWARE", "ignored")
    assert " ticks" in ks.command("display ticks")
    assert "0xffffffff" in ks.command("display module MW_IWARE")


def test_wrong_argument():
    ks = Program(KS, "mw_iware")
    assert re.fullmatch("ks_main@.* need proc name:MW_MWARE or MW_IWARE\r\n", ks.read_until("MW_IWARE\r\n"))
    assert ks.wait_exit() == 255
    assert log_of("ks").count("BP_MwareInit succeed.") == 1


def test_without_terminal():
    Target(always("\nh\nd\ntitle\n0\n"))
    ks = Program("/bin/sh", "-c", '"$0" </dev/null; echo status $?', KS)
    assert "Failed to set attributes\r\nstatus 1" in ks.read_until("status 1")
    line = "[CLI_run]tcsetattr fail errcode:25(Inappropriate ioctl for device). retval:4294967295"
    assert log_of("ks").count(line) == 1


def test_silent_target_is_named_and_built_ins_remain():
    """Both start-up requests run out, and the console says what that means."""
    ks = Program(KS)
    play_session(ks, "silent-target.txt")
    Target(always("level from a late comer"))
    assert ks.command("display loglevel") == "\r\r\nlevel from a late comer\r\n\r"
    ks.type("qq\rqq\r")
    assert ks.wait_exit() == 0


def test_commands_that_do_not_come_are_named_at_once():
    """What is missing is said before the next request is answered."""
    named = threading.Event()
    Target(lambda code, asked: "\nMW_ONE\n" if code == GET_MODULES and named.wait(9) else None)
    ks = Program(KS)
    ks.read_until("no commands from MW_MWARE: start ks again once it answers\r\n")
    named.set()
    ks.enter_debug_mode()
    assert "MW_ONE\r\n" in ks.command("debug")


def test_definitions_refused():
    target = Target(always("operate fail"))
    assert Program(KS).read_until("\r\n<dbg>").count("[kestrel error] receive failed result.") == 2
    assert target.asked[0] == "dbgcmd"


def test_text_is_only_text():
    """What stands in an answer is shown, never run or taken as a format; what is typed is sent as it is."""
    trick = "%s%n$(touch${IFS}pwned)`id`;'\"\\"
    target = Target(always("\nh\nd\ntitle\n1 0 0\nshow\n%s%n\n\n"))
    ks = start_console()
    target.script = always("answer " + trick)
    assert "answer " + trick not in ks.command("debug " + trick)
    assert "answer " + trick in ks.command("display loglevel")
    ks.command("display " + trick)  # no word of the tree, so it goes no further
    assert target.asked == ["dbgcmd", "dbgcmd", "\n" + trick, "dbgcmd"]
    assert not os.path.exists("pwned")


def test_live_target_answers_after_every_fault_with_full_pools():
    """It is killed, stopped and restarted while it is asked. KS_FAULT_ROUNDS asks for more rounds than this."""
    peer = Peer()
    mware = start_example()
    for i in range(int(os.environ.get("KS_FAULT_ROUNDS", 40))):
        if i % 4 == 0:  # gone without a word, its port with it
            mware.end()
        elif i % 4 != 3:  # what it does not answer in time it answers late, or is killed with
            mware.stop()
        for _ in range((1, 2, 4, 0)[i % 4]):
            assert peer.ask("<display ptz >", seconds=0.01) is None
        if i % 4 == 1:
            mware.signal(signal.SIGCONT)
        else:
            mware.end()
            mware = start_example()
        peer = Peer()
        assert peer.ask("<display ptz >").startswith("position ")
        full = r"[^\n]*\n[^\n]* 1(\n[^\n]* 0){7}\n?"  # of all its buffers only the one with the question is in use
        assert wait_for(lambda: re.fullmatch(full, peer.ask("<display slab >"))), peer.ask("<display slab >")
