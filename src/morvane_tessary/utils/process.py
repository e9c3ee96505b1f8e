"""Process helpers shared by the modules that start child processes."""

from __future__ import annotations

import subprocess
import sys
from typing import Any


def get_subprocess_hidden_kwargs() -> dict[str, Any]:
    """Return extra keyword arguments for subprocess calls.

    On Windows the console window of a child process is hidden with a
    STARTUPINFO whose window is shown as SW_HIDE; elsewhere there is nothing
    to add, and a new empty dict is returned on every call.
    """
    if sys.platform == "win32":
        startupinfo = subprocess.STARTUPINFO()  # type: ignore[attr-defined]
        startupinfo.dwFlags |= subprocess.STARTF_USESHOWWINDOW  # type: ignore[attr-defined]
        startupinfo.wShowWindow = subprocess.SW_HIDE  # type: ignore[attr-defined]
        return {"startupinfo": startupinfo}
    return {}
