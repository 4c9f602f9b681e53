"""Files inside a virtual router, read and written from the host."""
import os


class Files:
    """Needs self._pid (the holder inside the router)."""

    def host_path(self, path):
        """The host's name for an absolute path inside the router."""
        if not path.startswith("/"):
            raise ValueError(f"not an absolute path: {path}")
        return f"/proc/{self._pid}/root{path}"

    def exists(self, path):
        return os.path.lexists(self.host_path(path))

    def read_file(self, path, binary=False):
        """A file inside the router; None when it does not exist."""
        try:
            with open(self.host_path(path), "rb" if binary else "r",
                      **({} if binary else {"errors": "surrogateescape"})) as source:
                return source.read()
        except FileNotFoundError:
            return None

    def write_file(self, path, content, mode=0o644):
        """Replaces a file inside the router at once (written aside, then
        renamed), creating its directories."""
        target = self.host_path(path)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        temporary = f"{target}.lab-{os.getpid()}"
        data = content if isinstance(content, bytes) else content.encode("utf-8",
                                                                         "surrogateescape")
        with open(temporary, "wb") as sink:
            sink.write(data)
        os.chmod(temporary, mode)
        os.replace(temporary, target)

    def remove_file(self, path):
        try:
            os.unlink(self.host_path(path))
        except FileNotFoundError:
            pass
