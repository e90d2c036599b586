"""Each call that may find the system short of something fails once, one after the other, until none is left that has
not. The programs are the real ones, and a console and its target go on as far as they can."""
import os
import re
import signal

import pytest
from support.device import KS_FAILING, MWARE_FAILING, Program, log_of, rows, start_console, start_example, wait_for

ROWS = rows("shortages.txt")
LOGS = ("/var/log/ks00.log", "/var/log/MW_MWARE00.log")


def run_console(fail, prompt):
    mware = start_example(prompt=prompt)
    ks = Program(KS_FAILING, KS_FAIL=fail)
    text = ""
    for keys in ("", "e\t", "display ptz\r", "display loglevel\r", "q\r"):
        ks.type(keys)
        text += ks.read_until("<dbg>" if keys in ("", "q\r") else "\r\n[dbg]")
    ks.type("q\r")
    log = log_of("ks")
    unused = "<dbg>" not in text  # what ends before its prompt says why
    assert ks.wait_exit() == (1 if unused and "[CLI_Init]" not in log else 0)
    mware.end()
    return text + log


def run_target(fail, prompt):
    for name in ("MW_DRV", "ISP_IMG"):
        with open(f"/var/log/{name}00.log", "w") as file:
            file.write(name + "\n")
    mware = start_example(prompt=prompt, path=MWARE_FAILING, KS_FAIL=fail)
    status = mware.wait_exit(0)
    assert status in (None, 1)
    if status is None:
        ks = start_console()

        # A thread that still starts would open its file between those of the dumps. Without a log none is listed.
        def all_listed():
            listed = ks.command("display thread").count("MW_")
            return listed in (0, ks.command("display module").count("MW_"))

        assert wait_for(all_listed)
        assert ks.command("display dump yes").count("/var/log/Slab_all.log") == 1
        assert "degrees" in ks.command("display ptz")
        mware.signal(signal.SIGTERM)
        assert mware.wait_exit() == 0
        ks.end()
    return log_of("MW_MWARE")


def says(text, said):
    """An empty text is for failures that are kept quiet."""
    return said in text if said else not re.search(r"\[E\(|failed", text)


# A row: the program, the function that fails, the pace, and what is said in the order of its calls; what several calls
# in a row say stands there once.
@pytest.mark.parametrize(
    "program, function, pace, said", [(*row[:3], row[3:]) for row in ROWS], ids=["_".join(row[:3]) for row in ROWS]
)
def test_shortage_is_said_and_everything_goes_on(program, function, pace, said):
    run = {"console": run_console, "target": run_target}[program]
    at = 0
    for call in range(1, 100):
        for file in ("failed", *LOGS):
            if os.path.exists(file):
                os.unlink(file)
        text = run(f"{function}:{call}", pace == "prompt")
        if not os.path.exists("failed"):
            assert at == len(said) - 1, "nothing has said: " + said[at]
            return
        at += not says(text, said[at]) and at + 1 < len(said)
        assert says(text, said[at]), f"call {call}: {text}"
    pytest.fail("fails for ever")
