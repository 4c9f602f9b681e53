"""The router's configuration store: /etc/config/sas read and edited as the
management interface would, and a store that refuses every write."""
import fcntl
import os
import time

from . import uci
from .errors import RouterError
from .places import SAS_CONFIG


class Store:
    """Needs Files, Commands (run) and Logs (for edit)."""

    def uci_get(self, section, option, path=SAS_CONFIG):
        """The option's value, or None when the file, section or option is absent."""
        text = self.read_file(path)
        return None if text is None else uci.get(text, section, option)

    def uci_values(self, names, path=SAS_CONFIG):
        """{"section.option": value or None} of the named options."""
        return {name: self.uci_get(*name.split("."), path=path) for name in names}

    def uci_set(self, section, option, value, path=SAS_CONFIG):
        """Sets one option as the router's UCI writers do: under an exclusive
        flock of the file (taken again if a writer replaced the file while we
        waited), so an edit never races with the daemon's own commits."""
        target = self.host_path(path)
        if not os.path.exists(target):
            self.write_file(path, uci.set("", section, option, value))
            return
        while True:
            with open(target, "rb") as locked:
                fcntl.flock(locked, fcntl.LOCK_EX)
                try:
                    if os.fstat(locked.fileno()).st_ino != os.stat(target).st_ino:
                        continue  # replaced while we waited: lock the new file
                    text = locked.read().decode("utf-8", "surrogateescape")
                    self.write_file(path, uci.set(text, section, option, value),
                                    mode=os.fstat(locked.fileno()).st_mode & 0o7777)
                    return
                finally:
                    fcntl.flock(locked, fcntl.LOCK_UN)

    def set_option(self, section, option, value, attempts=5):
        """Writes one option the way the management interface would.  The
        daemon rewrites the whole file on each of its own writes, so a write
        that races with one of them can be lost; it is made again until it
        has stuck."""
        for _ in range(attempts):
            self.uci_set(section, option, value)
            time.sleep(0.3)
            if self.uci_get(section, option) == value:
                return
        raise RouterError(f"{section}.{option} did not keep {value!r}")

    def edit(self, section, option, value):
        """Changes one option once the daemon is between passes (its log has
        settled, so the edit does not race with the daemon's own
        read-modify-write of the file); returns the log position before it."""
        self.wait_until_quiet()
        mark = len(self.log_text())
        self.uci_set(section, option, value)
        return mark

    def status(self):
        """The published operation.status."""
        return self.uci_get("operation", "status")

    def wait_status(self, status, timeout=20):
        return bool(self.wait_for(lambda: self.status() == status, timeout))

    def fill_store(self, size_kb=64):
        """Puts /etc/config on a small tmpfs holding copies of its files and
        fills it: from now on every write there fails with ENOSPC."""
        self.run("cp -a /etc/config /tmp/lab-config-copy && "
                 f"mount -t tmpfs -o size={int(size_kb)}k tmpfs /etc/config && "
                 "cp -a /tmp/lab-config-copy/. /etc/config/ && "
                 "{ dd if=/dev/zero of=/etc/config/.lab-fill bs=1k 2>/dev/null; true; }",
                 check=True)

    def read_only_store(self):
        """Makes /etc/config read-only: every write there fails with EROFS."""
        self.run("mount --bind /etc/config /etc/config && "
                 "mount -o remount,bind,ro /etc/config", check=True)
