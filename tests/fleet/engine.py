"""A server process on its machine, and what it costs."""
import os
import signal
import subprocess
import time

TICKS = os.sysconf("SC_CLK_TCK")
PAGE = os.sysconf("SC_PAGE_SIZE")


def wait_until(condition, what, seconds=60):
    """Polls until the condition holds. Raises TimeoutError with the name of what was awaited."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: not within {seconds} s")
        time.sleep(0.2)


def descendants(pid):
    """The process and all processes below it."""
    found = [pid]
    for p in found:
        try:
            for task in os.listdir(f"/proc/{p}/task"):
                with open(f"/proc/{p}/task/{task}/children", encoding="ascii") as children:
                    found += map(int, children.read().split())
        except OSError:
            pass
    return found


def cost(pid):
    """Processor seconds and resident bytes of a process and those below it."""
    seconds = resident = 0
    for p in descendants(pid):
        try:
            with open(f"/proc/{p}/stat", encoding="utf-8") as f:
                words = f.read().rpartition(")")[2].split()
        except OSError:
            continue
        seconds += sum(map(int, words[11:15])) / TICKS  # with those of children that have ended
        resident += int(words[21]) * PAGE
    return seconds, resident


class Engine:
    """One server. Subclasses write its configuration into `folder` and give the command."""

    def __init__(self, name, machine, folder):
        self.name, self.machine = name, machine
        self.folder = os.path.join(folder, name)
        os.makedirs(self.folder)
        self.process = None
        self.spent = 0.0  # processor seconds of processes that have ended

    def path(self, name):
        return os.path.join(self.folder, name)

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as f:
            f.write(text)
        return self.path(name)

    def command(self):
        raise NotImplementedError

    def environment(self):
        return {}

    def start(self):
        with open(self.path("log"), "ab") as log:
            self.process = subprocess.Popen(
                self.machine.command(self.command()),
                stdin=subprocess.DEVNULL,
                stdout=log,
                stderr=log,
                env=os.environ | self.environment(),
                start_new_session=True,
            )

    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def require_running(self):
        if not self.is_running():
            raise RuntimeError(f"{self.name} has ended with status {self.process.returncode}:\n{self.log_end()}")

    def log_end(self):
        with open(self.path("log"), encoding="utf-8", errors="replace") as log:
            return log.read()[-3000:]

    def kill(self):
        """SIGKILL to the server and all processes that it has started."""
        self.spent += cost(self.process.pid)[0]
        for p in descendants(self.process.pid):
            try:
                os.kill(p, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.process.wait()

    def usage(self):
        seconds, resident = cost(self.process.pid) if self.is_running() else (0, 0)
        return {"cpu": self.spent + seconds, "memory": resident, "bytes": self.machine.traffic()}
