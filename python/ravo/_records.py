"""The records as dataclasses. Each field says once what it is in the C record; the structures that
cross to the library are made of that.
"""
import ctypes
import dataclasses
from typing import Any, ClassVar, Dict, List, Optional, Tuple, Type, TypeVar, Union

from ._library import FieldError

TEXT_SIZE = 1025  # bytes of a text, its NUL included; a few are shorter

Value = Union[int, str]


def _text(size: int = TEXT_SIZE) -> Any:
    return dataclasses.field(default="", metadata={"type": ctypes.c_char * size})


def _i32(column: Optional[str] = None) -> Any:
    return dataclasses.field(default=0, metadata={"type": ctypes.c_int32, "column": column})


def _i64() -> Any:
    return dataclasses.field(default=0, metadata={"type": ctypes.c_int64})


def _u64() -> Any:
    return dataclasses.field(default=0, metadata={"type": ctypes.c_uint64})


@dataclasses.dataclass
class Record:
    """What all records have in common."""

    STRUCT: ClassVar[str]

    @classmethod
    def columns(cls) -> List[str]:
        """The table's columns in their order."""
        return [field.metadata.get("column") or field.name for field in dataclasses.fields(cls)]


@dataclasses.dataclass
class Session(Record):
    """A connection that a client made to this machine's VPN server: its beginning or its end."""

    STRUCT = "db_conn_server_log"
    id: int = _i64()
    """Given by the table."""
    username: str = _text()
    vpn_type: int = _i32()
    """1 PPTP, 2 L2TP, 4 OpenVPN, as the helpers of this system write them."""
    uptime: int = _u64()
    """Seconds."""
    time: int = _u64()
    """Seconds since the epoch."""
    device_info: str = _text()
    source_ip: str = _text()
    vpn_ip: str = _text()
    tx_rate: int = _i64()
    """Bytes per second from the server to the client."""
    rx_rate: int = _i64()
    tx_total: int = _i64()
    """Bytes from the server to the client."""
    rx_total: int = _i64()
    outgoing: str = _text()
    """The server's network interface."""
    action: int = _i32()
    """1 connected, 2 disconnected, 3 lost, as the helpers of this system write them."""


@dataclasses.dataclass
class Outgoing(Record):
    """A connection that this machine made as a VPN client."""

    STRUCT = "db_conn_client_log_data"
    id: int = _i64()
    username: str = _text()
    vpn_type: int = _i32()
    uptime: int = _u64()
    time: int = _u64()
    vpn_ip: str = _text()
    tx_rate: int = _i64()
    rx_rate: int = _i64()
    tx_total: int = _i64()
    rx_total: int = _i64()
    country_code: str = _text(3)
    """Two letters."""
    wan_ip: str = _text()
    action: int = _i32()


@dataclasses.dataclass
class Event(Record):
    """An event, which has no content. The daemon accepts events and keeps none."""

    STRUCT = "db_event_data"
    no_content: str = _text(1)

    @classmethod
    def columns(cls) -> List[str]:
        return ["id"]


@dataclasses.dataclass
class Server(Record):
    """An entry registered with this machine's VPN server, kept while the daemon runs."""

    STRUCT = "db_server_list_data"
    id: int = _i64()
    uuid: str = _text()
    username: str = _text()
    sid: str = _text()
    device_name: str = _text(1024)
    expire_time: int = _u64()
    """Seconds since the epoch. Nobody acts upon it."""
    time: int = _u64()


@dataclasses.dataclass
class Device(Record):
    """A client device in the registry, kept while the daemon runs."""

    STRUCT = "db_device_info_data"
    id: int = _i64()
    ip: str = _text()
    mac: str = _text()
    """The registry's key."""
    vossid: str = _text()
    user_id: str = _text()
    dev_name: str = _text()
    dev_uuid: str = _text()
    """Given by the daemon."""
    nic: str = _text()
    time: int = _u64()


@dataclasses.dataclass
class Block(Record):
    """The failed logins of one user."""

    STRUCT = "db_privilege_user_block_data"
    id: int = _i64()
    username: str = _text()
    limit: int = _i32(column="limit_count")
    """Failed logins counted so far."""
    timestamp: int = _u64()
    """The last one, in seconds since the epoch."""


@dataclasses.dataclass
class Condition(Record):
    """Which page a query wants."""

    STRUCT = "db_query_cond"
    start: int = _i64()
    count: int = _i64()
    order_by: int = _i64()
    order_style: int = _i64()
    field: str = _text()
    value: str = _text()


@dataclasses.dataclass
class Deletion(Record):
    """Which row a delete takes away."""

    STRUCT = "db_delete_cond"
    id: int = _i64()


@dataclasses.dataclass
class UuidRequest(Record):
    """What a fresh UUID is asked for with; the daemon does not read it."""

    STRUCT = "ravo_mobile_gen_uuid_data_set"
    type: int = _i32()


@dataclasses.dataclass
class Uuid(Record):
    """A UUID of 35 characters."""

    STRUCT = "ravo_mobile_gen_uuid_data_get"
    ravo_uuid: str = _text(36)


Row = TypeVar("Row", bound=Record)

# --- Structures ------------------------------------------------------------------------------------


def _structure_of(record: Type[Record]) -> Type[ctypes.Structure]:
    fields = [(field.name, field.metadata["type"]) for field in dataclasses.fields(record)]
    return type(record.STRUCT, (ctypes.Structure,), {"_fields_": fields})


STRUCTURES: Dict[Type[Record], Type[ctypes.Structure]] = {
    record: _structure_of(record)
    for record in (Session, Outgoing, Event, Server, Device, Block, Condition, Deletion, UuidRequest, Uuid)
}


def to_bytes(name: str, text: str, size: int) -> bytes:
    """A text as the library takes it; size has room for its NUL."""
    try:
        value = text.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError as error:
        raise FieldError(f"{name}: {error}") from None
    if b"\0" in value or len(value) >= size:
        raise FieldError(f"{name}: a text has at most {size - 1} bytes here and no NUL")
    return value


def to_text(value: bytes) -> str:
    """A text of the library's."""
    return value.decode("utf-8", "surrogateescape")


def to_structure(record: Record) -> ctypes.Structure:
    """The C record. ctypes itself would cut a number that is too large without a word."""
    structure = STRUCTURES[type(record)]()
    for field in dataclasses.fields(record):
        value = getattr(record, field.name)
        kind = field.metadata["type"]
        if isinstance(field.default, str):
            if not isinstance(value, str):
                raise FieldError(f"{field.name}: {value!r} is no text")
            setattr(structure, field.name, to_bytes(field.name, value, ctypes.sizeof(kind)))
        elif not isinstance(value, int) or kind(value).value != value:
            raise FieldError(f"{field.name}: {value!r} is no number that fits")
        else:
            setattr(structure, field.name, value)
    return structure


def from_structure(record: Type[Row], structure: ctypes.Structure) -> Row:
    """The record of a C record."""
    values: Dict[str, Value] = {}
    for field in dataclasses.fields(record):
        value = getattr(structure, field.name)
        values[field.name] = to_text(value) if isinstance(value, bytes) else value
    return record(**values)


def condition(record: Type[Record], start: int, count: int, order_by: str, descending: bool,
              where: Optional[Tuple[str, Value]]) -> Condition:
    """A condition whose columns the table has: one that it has not costs some tables all their rows."""
    columns = record.columns()
    if start < 0 or count < -1:
        raise FieldError(f"there is no page of {count} rows from {start} on")
    field, value = where or ("", "")
    for name in (order_by, field or "id"):
        if name not in columns:
            raise FieldError(f"there is no column {name!r}; there are {', '.join(columns)}")
    return Condition(start=start, count=count, order_by=columns.index(order_by),
                     order_style=int(descending), field=field, value=str(value))
