"""Files that are not regular."""

import os
import tempfile


def special_files(test):
    """A FIFO, a directory and devices, until the test ends."""
    folder = tempfile.TemporaryDirectory()
    test.addCleanup(folder.cleanup)
    fifo = os.path.join(folder.name, "fifo")
    os.mkfifo(fifo)
    return [fifo, folder.name, "/dev/zero", "/dev/null"]
