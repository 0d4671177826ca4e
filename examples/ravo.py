"""A binding to ravod's client library by ctypes alone: connections to this device's VPN server,
registered devices, and the login-attempt limiter.

The library is looked for in the library path, and before that in the folder that RAVO_LIBRARY_DIR
names. Texts are str; bytes that are not UTF-8 survive in both directions (surrogateescape).
"""
import ctypes
import os

TEXT_SIZE = 1025  # bytes of a text field, its NUL included


class RavoError(Exception):
    """The library cannot be loaded, a value does not fit, or the daemon did not answer."""


class QueryCond(ctypes.Structure):
    """Which page a query wants."""

    _fields_ = [
        ("start", ctypes.c_int64),
        ("count", ctypes.c_int64),
        ("order_by", ctypes.c_int64),
        ("order_style", ctypes.c_int64),
        ("field", ctypes.c_char * TEXT_SIZE),
        ("value", ctypes.c_char * TEXT_SIZE),
    ]


class ConnServerLog(ctypes.Structure):
    """A connection that a client made to this device's VPN server."""

    _fields_ = [
        ("id", ctypes.c_int64),
        ("username", ctypes.c_char * TEXT_SIZE),
        ("vpn_type", ctypes.c_int32),
        ("uptime", ctypes.c_uint64),
        ("time", ctypes.c_uint64),
        ("device_info", ctypes.c_char * TEXT_SIZE),
        ("source_ip", ctypes.c_char * TEXT_SIZE),
        ("vpn_ip", ctypes.c_char * TEXT_SIZE),
        ("tx_rate", ctypes.c_int64),
        ("rx_rate", ctypes.c_int64),
        ("tx_total", ctypes.c_int64),
        ("rx_total", ctypes.c_int64),
        ("outgoing", ctypes.c_char * TEXT_SIZE),
        ("action", ctypes.c_int32),
    ]


class DeviceInfo(ctypes.Structure):
    """A device that registers."""

    _fields_ = [
        ("id", ctypes.c_int64),
        ("ip", ctypes.c_char * TEXT_SIZE),
        ("mac", ctypes.c_char * TEXT_SIZE),
        ("vossid", ctypes.c_char * TEXT_SIZE),
        ("user_id", ctypes.c_char * TEXT_SIZE),
        ("dev_name", ctypes.c_char * TEXT_SIZE),
        ("dev_uuid", ctypes.c_char * TEXT_SIZE),
        ("nic", ctypes.c_char * TEXT_SIZE),
        ("time", ctypes.c_uint64),
    ]


class Uuid(ctypes.Structure):
    """A device's UUID."""

    _fields_ = [("ravo_uuid", ctypes.c_char * 36)]


class ConnServerLogQuery(ctypes.Structure):
    """The header of a query's result."""

    _fields_ = [
        ("count", ctypes.c_uint64),
        ("total", ctypes.c_uint64),
        ("data", ctypes.POINTER(ConnServerLog)),
    ]


# The layout is the format, so a wrong one must not get as far as the daemon.
for _record, _size in ((QueryCond, 2088), (ConnServerLog, 5200), (ConnServerLogQuery, 24),
                       (DeviceInfo, 7192), (Uuid, 36)):
    if ctypes.sizeof(_record) != _size:
        raise ImportError(f"{_record.__name__} has {ctypes.sizeof(_record)} bytes, not {_size}")

FIELDS = [name for name, _type in ConnServerLog._fields_]  # also the order of the table's columns


def _load():
    folder = os.environ.get("RAVO_LIBRARY_DIR", "")
    try:
        library = ctypes.CDLL(os.path.join(folder, "libravo_client.so.1"))
    except OSError as error:
        raise RavoError(f"cannot load the client library: {error}") from None
    library.add_conn_server_log.argtypes = [ctypes.POINTER(ConnServerLog)]
    library.list_conn_server_log.argtypes = [
        ctypes.POINTER(QueryCond),
        ctypes.POINTER(ctypes.POINTER(ConnServerLogQuery)),
    ]
    library.add_device_info.argtypes = [ctypes.POINTER(DeviceInfo), ctypes.POINTER(Uuid)]
    library.add_privilege_user_block.argtypes = [ctypes.c_char_p]
    library.check_privilege_user_block.argtypes = [ctypes.c_char_p]
    return library


_free = ctypes.CDLL(None).free
_free.argtypes = [ctypes.c_void_p]
_free.restype = None
_library = None


def _client():
    global _library
    if _library is None:
        _library = _load()
    return _library


def _to_bytes(name, text):
    value = text.encode("utf-8", "surrogateescape")
    if b"\0" in value or len(value) >= TEXT_SIZE:
        raise RavoError(f"{name}: a text has at most {TEXT_SIZE - 1} bytes and no NUL")
    return value


def _check(result):
    if result != 0:
        raise RavoError(f"the daemon did not take the request (result {result}); does ravod run?")


def _set(record, name, value):
    """Sets one field. ctypes itself would cut numbers that are too large without a word."""
    if name not in dict(record._fields_):
        raise RavoError(f"{type(record).__name__} has no field {name!r}")
    if isinstance(value, str):
        value = _to_bytes(name, value)
    try:
        setattr(record, name, value)
    except TypeError as error:
        raise RavoError(f"{name}: {error}") from None
    if isinstance(value, int) and getattr(record, name) != value:
        raise RavoError(f"{name}: {value} is out of range")


def add_connection(**fields):
    """Records one connection; fields that are not given are empty or 0."""
    record = ConnServerLog()
    for name, value in fields.items():
        _set(record, name, value)
    _check(_client().add_conn_server_log(ctypes.byref(record)))


def _row_to_dict(row):
    values = {name: getattr(row, name) for name in FIELDS}
    return {
        name: value.decode("utf-8", "surrogateescape") if isinstance(value, bytes) else value
        for name, value in values.items()
    }


def list_connections(start=0, count=20, order="id", descending=False, field="", value=""):
    """Reads a page. Returns a list of dicts, one for each row, and the number of rows of the table."""
    if order not in FIELDS:
        raise RavoError(f"there is no column {order!r}")
    cond = QueryCond(order_by=FIELDS.index(order), order_style=int(descending))
    for name, content in (("start", start), ("count", count), ("field", field), ("value", value)):
        _set(cond, name, content)
    header = ConnServerLogQuery()
    _client().list_conn_server_log(ctypes.byref(cond), ctypes.byref(ctypes.pointer(header)))
    if not header.data:  # an empty page has a block, too
        raise RavoError("the daemon did not answer; does ravod run?")
    try:
        return [_row_to_dict(header.data[i]) for i in range(header.count)], header.total
    finally:
        _free(header.data)


def register_device(**fields):
    """Registers a device, or registers it again. Returns the UUID that its mac has from now on."""
    record = DeviceInfo()
    for name, value in fields.items():
        _set(record, name, value)
    uuid = Uuid()
    _check(_client().add_device_info(ctypes.byref(record), ctypes.byref(uuid)))
    if not uuid.ravo_uuid:
        raise RavoError("the daemon could not store the device; its log tells why")
    return uuid.ravo_uuid.decode()


def add_failed_login(username):
    """Counts one failed login of a user."""
    _check(_client().add_privilege_user_block(_to_bytes("username", username)))


def is_blocked(username):
    """Whether the user is blocked now. Nobody is while the limiter's settings cannot be read."""
    result = _client().check_privilege_user_block(_to_bytes("username", username))
    if result not in (0, 1):
        _check(result)
    return result == 1
