# Type stub of the extension module qmelm.
import os
from types import TracebackType
from typing import Literal, Optional, TypedDict, Union

_Path = Union[str, bytes, os.PathLike[str], os.PathLike[bytes]]

class LockHeld(BlockingIOError):
    """Another holder has the lock: a thread of this process (pid is this
    process's) or another process, on this machine or ("remote") on another
    one sharing the file system."""

    pid: Optional[int]
    command: Optional[str]
    machine: Optional[Literal["local", "remote"]]
    status: Optional[str]
    journal: Optional[str]

class Lock:
    """A lock on one file, held until release() or the end of a with block."""

    @property
    def held(self) -> bool: ...
    @property
    def mode(self) -> Literal["read", "write"]: ...
    @property
    def path(self) -> str: ...
    def upgrade(self, timeout: Optional[float] = None) -> None: ...
    def downgrade(self) -> None: ...
    def release(self) -> None: ...
    def fileno(self) -> int: ...
    def __enter__(self) -> Lock: ...
    def __exit__(
        self,
        exc_type: Optional[type[BaseException]],
        exc: Optional[BaseException],
        tb: Optional[TracebackType],
    ) -> None: ...

def lock(
    path: _Path,
    mode: Literal["write", "read"] = "write",
    timeout: Optional[float] = None,
    delete_on_close: bool = False,
) -> Lock: ...

class ProbeLock(TypedDict):
    kind: Literal["flock", "POSIX", "OFD"]
    mode: Literal["read", "write"]
    start: int
    end: Optional[int]
    pid: Optional[int]
    command: Optional[str]
    fd: Optional[int]
    remote: bool

class ProbeResult(TypedDict):
    path: str
    held: bool
    remote_filesystem: Optional[str]
    locks: list[ProbeLock]

def probe(path: _Path) -> ProbeResult: ...
