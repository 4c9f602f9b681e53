"""Tools of the router that fail, hang or are missing: overrides first on
the PATH of every command and of the daemon (/etc/lab/bin)."""
import os

from .places import OVERRIDE_DIR


def _sh_quote(text):
    return "'" + text.replace("'", "'\\''") + "'"


class ToolFaults:
    """Needs Files and self.ubus."""

    def break_tool(self, name, status=1, message=None):
        """Makes `name` fail: it prints message (default a generic error) to
        standard error and exits with status, whatever its arguments."""
        text = message if message is not None else f"{name}: simulated failure"
        self.write_file(f"{OVERRIDE_DIR}/{name}",
                        "#!/bin/sh\n"
                        f"printf '%s\\n' {_sh_quote(text)} >&2\n"
                        f"exit {int(status)}\n", mode=0o755)

    def hang_tool(self, name):
        """Makes `name` hang: it records its process id in
        /tmp/lab-hang-<name>.pid and sleeps for an hour, whatever its arguments."""
        self.write_file(f"{OVERRIDE_DIR}/{name}",
                        "#!/bin/sh\n"
                        f"echo $$ > /tmp/lab-hang-{name}.pid\n"
                        "exec sleep 3600\n", mode=0o755)

    def hung_pid(self, name):
        """The process id the last hanging `name` recorded, or None."""
        text = self.read_file(f"/tmp/lab-hang-{name}.pid")
        return int(text) if text and text.strip().isdigit() else None

    def remove_tool(self, name):
        """Makes `name` behave as a command that does not exist (the shell's
        "not found", status 127)."""
        self.break_tool(name, 127, f"sh: 1: {name}: not found")

    def restore_tool(self, name):
        self.remove_file(f"{OVERRIDE_DIR}/{name}")
        if name == "ubus" and self.ubus == "real":
            os.symlink("/usr/bin/ubus", self.host_path(f"{OVERRIDE_DIR}/ubus"))
