"""The client library, loaded, and what its failures are."""
import ctypes
import os
from typing import Optional, Type


class RavoError(Exception):
    """Whatever fails here."""


class LibraryMissing(RavoError):
    """The client library cannot be loaded."""


class FieldError(RavoError, ValueError):
    """A value that does not fit into its field, or a column that a table has not."""


class NoAnswer(RavoError):
    """The daemon did not answer a query; the library does not tell why."""


class CallError(RavoError):
    """A call failed; result is the bus's negative number."""

    def __init__(self, result: int, text: str) -> None:
        super().__init__(text)
        self.result = result


class NotReachable(CallError):
    """No daemon is there."""


class NotAllowed(CallError):
    """The daemon does not accept this process's user, or is not one that the process trusts."""


class TimedOut(CallError):
    """The daemon has not answered in time. What was asked for may have been done."""


_kinds = {-3: NotReachable, -4: NotAllowed, -5: NotAllowed, -7: TimedOut}


class Library:
    """The client library."""

    def __init__(self, folder: Optional[str]) -> None:
        place = os.environ.get("RAVO_LIBRARY_DIR", "") if folder is None else folder
        try:
            self.functions = ctypes.CDLL(os.path.join(place, "libravo_client.so.1"))
        except OSError as error:
            raise LibraryMissing(f"cannot load the client library: {error}") from None
        self._free = ctypes.CDLL(None).free
        self._free.argtypes = [ctypes.c_void_p]
        self._free.restype = None

    def free(self, block: "ctypes._Pointer[ctypes.Structure]") -> None:
        """Releases what a list function has handed over."""
        self._free(block)

    def check(self, result: int) -> None:
        """Raises what a negative result stands for."""
        if result == 0:
            return
        kind: Type[CallError] = _kinds.get(result, CallError) if self._has_names() else CallError
        raise kind(result, f"ravod did not take the call: {self._in_words(result)}")

    def _has_names(self) -> bool:
        # A bus of another make need not have this function, and has numbers of its own then.
        return hasattr(self.functions, "zb_strerror")

    def _in_words(self, result: int) -> str:
        if not self._has_names():
            return f"bus result {result}"
        in_words = self.functions.zb_strerror
        in_words.restype = ctypes.c_char_p
        text = in_words(ctypes.c_int(result))
        return text.decode() if isinstance(text, bytes) else str(result)
