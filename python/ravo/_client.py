"""The daemon's tables and its limiter, as objects: all 24 calls of the client library."""
import ctypes
import dataclasses
from typing import Generic, Iterator, List, Optional, Tuple, Type, Union

from ._library import Library, NoAnswer, RavoError
from ._records import (STRUCTURES, Block, Deletion, Device, Event, Outgoing, Row, Server, Session, Uuid,
                       UuidRequest, condition, from_structure, to_bytes, to_structure, to_text)

Where = Optional[Tuple[str, Union[int, str]]]

_poison = 2**64 - 2  # no count that a daemon tells
_uncounted = 2**64 - 1  # what it tells when it could not count
_name_size = 1025


@dataclasses.dataclass
class Page(Generic[Row]):
    """Some rows of a table; total is the number of rows that the whole table shows, 100000 at most."""

    rows: List[Row]
    total: int


class _Header(ctypes.Structure):
    _fields_ = [("count", ctypes.c_uint64), ("total", ctypes.c_uint64), ("data", ctypes.c_void_p)]


class _Listed(Generic[Row]):
    """What can be listed."""

    def __init__(self, library: Library, record: Type[Row], names: str) -> None:
        self._library = library
        self._record = record
        self._names = names

    def page(self, start: int = 0, count: int = 100, order_by: str = "id", descending: bool = False,
             where: Where = None) -> Page[Row]:
        """Reads count rows from start on, in the order of a column; count -1 stands for 100000.

        where  a column and the value that it must have. total does not heed it.

        Raises NoAnswer when the query was not answered, which an empty page is not.
        """
        cond = to_structure(condition(self._record, start, count, order_by, descending, where))
        header = _Header(_poison, _poison, None)
        list_rows = getattr(self._library.functions, f"list_{self._names}")
        list_rows(ctypes.byref(cond), ctypes.byref(ctypes.pointer(header)))
        if header.data is None:  # an empty page has a block, too
            raise NoAnswer("ravod did not answer the query; does it run, and may this user call it?")
        rows = ctypes.cast(header.data, ctypes.POINTER(STRUCTURES[self._record]))
        try:
            if header.total == _uncounted:
                raise NoAnswer("ravod could not read the table; its log tells why")
            found = [from_structure(self._record, rows[n]) for n in range(header.count)]
        finally:
            self._library.free(rows)
        return Page(found, header.total)

    def all(self, order_by: str = "id", descending: bool = False, where: Where = None,
            page_size: int = 4096) -> Iterator[Row]:
        """Every row, read in pages while they are used. Rows that come or go meanwhile may be missing or
        come twice; in the order of id, none comes twice."""
        start = 0
        last: Optional[int] = None
        while True:
            rows = self.page(start, page_size, order_by, descending, where).rows
            for row in rows:
                number: int = getattr(row, "id")
                if order_by == "id" and last is not None and (number >= last if descending else number <= last):
                    continue
                last = number
                yield row
            if len(rows) < page_size:
                return
            start += len(rows)

    def __iter__(self) -> Iterator[Row]:
        return self.all()


class _Table(_Listed[Row]):
    def _call(self, verb: str, *arguments: object) -> None:
        self._library.check(getattr(self._library.functions, f"{verb}_{self._names}")(*arguments))

    def delete(self, number: int) -> None:
        """Deletes the row with this id. After a clean it deletes EVERY row, until the daemon is started
        anew; from the second delete on, those of servers and devices lose every row, too."""
        self._call("delete", ctypes.byref(to_structure(Deletion(id=number))))

    def clean(self) -> None:
        """Deletes every row. After a delete it does nothing, until the daemon is started anew."""
        self._call("clean")


class Table(_Table[Row]):
    """A table of records."""

    def add(self, record: Row) -> None:
        """Hands a record in."""
        self._call("add", ctypes.byref(to_structure(record)))


class Devices(_Table[Device]):
    """The device registry."""

    def register(self, device: Device) -> str:
        """Registers a device, or registers it again. Returns the UUID that its mac has from now on."""
        uuid = STRUCTURES[Uuid]()
        self._call("add", ctypes.byref(to_structure(device)), ctypes.byref(uuid))
        text = from_structure(Uuid, uuid).ravo_uuid
        if not text:
            raise RavoError("ravod could not store the device; its log tells why")
        return text


class Events(_Listed[Event]):
    """Events, which the daemon accepts and does not keep: a page of them is never answered."""

    def add(self, event: Event) -> None:
        """Hands an event in."""
        functions = self._library.functions
        self._library.check(functions.add_event_data(ctypes.byref(to_structure(event))))


class Limiter(_Listed[Block]):
    """The login-attempt limiter. Names are compared byte for byte. One with a percent sign is counted
    oddly: refuse it before."""

    def add_failure(self, username: str) -> None:
        """Counts one failed login of a user."""
        self._library.check(self._named("add", username))

    def is_blocked(self, username: str) -> bool:
        """Whether the user is blocked now. Nobody is while the limiter's settings cannot be read."""
        result = self._named("check", username)
        if result != 1:
            self._library.check(result)
        return result == 1

    def lift(self, username: str) -> None:
        """Forgets a user's failures, and so lifts a block."""
        self._library.check(self._named("delete", username))

    def lift_all(self) -> None:
        """Forgets every failure of everybody."""
        self._library.check(self._library.functions.clean_privilege_user_block())

    def _named(self, verb: str, username: str) -> int:
        name = ctypes.create_string_buffer(to_bytes("username", username, _name_size))
        result: int = getattr(self._library.functions, f"{verb}_privilege_user_block")(name)
        return result


class Client:
    """The daemon of this machine.

    library_dir  the folder of the client library, if it is not where the dynamic linker looks.
    """

    def __init__(self, library_dir: Optional[str] = None) -> None:
        self._library = Library(library_dir)
        self.sessions: Table[Session] = Table(self._library, Session, "conn_server_log")
        self.outgoing: Table[Outgoing] = Table(self._library, Outgoing, "conn_client_log")
        self.servers: Table[Server] = Table(self._library, Server, "server_list")
        self.devices = Devices(self._library, Device, "device_info")
        self.events = Events(self._library, Event, "event_data")
        self.limiter = Limiter(self._library, Block, "privilege_user_block")

    def new_uuid(self) -> str:
        """A fresh UUID, of which the daemon keeps no record."""
        request = to_structure(UuidRequest())
        poison = b"?" * ctypes.sizeof(STRUCTURES[Uuid])
        uuid = STRUCTURES[Uuid].from_buffer_copy(poison)
        self._library.functions.ravo_mobile_gen_ravo_uuid(ctypes.byref(request),
                                                          ctypes.byref(ctypes.pointer(uuid)))
        if bytes(uuid) == poison:
            raise NoAnswer("ravod did not answer; does it run, and may this user call it?")
        text = bytes(uuid).rstrip(b"\0")
        if not text:
            raise RavoError("ravod has no source of UUIDs; its log tells why")
        return to_text(text)
