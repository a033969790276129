"""Pactivo for Python hosts: consent management over libpactivo's C interface.

    import pactivo

    with pactivo.SDK() as sdk:
        sdk.setup("https://app.example.com/", "https://cdn.example.com/", "tenant", "app")
        if sdk.wait_ready(timeout=30):
            for purpose in sdk.purposes():
                print(purpose.purpose_id, purpose.consent_status)
            sdk.set(2, pactivo.Consent.GRANTED)

Callbacks run on library threads. An exception a callback raises is logged
on the "pactivo" logger and goes no further.
"""

from __future__ import annotations

import ctypes
import json
import logging
import threading
from dataclasses import dataclass, field
from enum import Enum, IntEnum
import queue
from typing import Any, Callable, Iterator, Mapping, Optional, Sequence

from . import _native
from ._native import lib

__all__ = [
    "Status", "LogLevel", "Consent", "Facility", "Result", "PactivoError", "MisuseError",
    "InvalidUtf8Error", "NotFoundError", "InvalidJsonError", "DestroyedError", "RefusedError",
    "BusyError", "Purpose", "Permission", "SDK", "install_platform", "set_log_level",
    "log_level", "set_log_sink", "version",
]

logger = logging.getLogger("pactivo")


class Status(IntEnum):
    AVAILABLE = 0
    UNAVAILABLE = 1
    FETCHING = 2


class LogLevel(IntEnum):
    DEBUG = 0
    INFO = 1
    WARNING = 2
    ERROR = 3


class Consent(str, Enum):
    GRANTED = "granted"
    DECLINED = "declined"
    NOT_DETERMINED = "not_determined"
    WITHDRAWN = "withdrawn"


class Facility(IntEnum):
    LOCATION = 0
    CAMERA = 1
    MICROPHONE = 2
    PHOTO_LIBRARY = 3
    PHOTO_LIBRARY_ADD = 4
    SIRI = 5
    HEALTH = 6
    BLUETOOTH = 7
    SPEECH_RECOGNITION = 8
    HOME_KIT = 9
    NOTIFICATIONS = 10


class Result(IntEnum):
    OK = 0
    ERROR = 1
    MISUSE = 2
    INVALID_UTF8 = 3
    NOT_FOUND = 4
    INVALID_JSON = 5
    DESTROYED = 6
    REFUSED = 7
    BUSY = 8
    NO_MEMORY = 9


class PactivoError(Exception):
    """A call the library refused; `result` says how, the text why."""

    def __init__(self, result: Result, message: str) -> None:
        super().__init__(f"{result.name}: {message}")
        self.result = result
        self.message = message


class MisuseError(PactivoError, ValueError): pass
class InvalidUtf8Error(PactivoError, ValueError): pass
class NotFoundError(PactivoError, KeyError): pass
class InvalidJsonError(PactivoError, ValueError): pass
class DestroyedError(PactivoError): pass
class RefusedError(PactivoError): pass
class BusyError(PactivoError): pass


_ERRORS: dict[Result, type[PactivoError]] = {
    Result.MISUSE: MisuseError,
    Result.INVALID_UTF8: InvalidUtf8Error,
    Result.NOT_FOUND: NotFoundError,
    Result.INVALID_JSON: InvalidJsonError,
    Result.DESTROYED: DestroyedError,
    Result.REFUSED: RefusedError,
    Result.BUSY: BusyError,
}


def _check(result: int) -> None:
    if result == Result.OK:
        return
    code = Result(result) if result in Result._value2member_map_ else Result.ERROR
    message = (lib.pactivo_errmsg() or b"").decode("utf-8", "replace")
    raise _ERRORS.get(code, PactivoError)(code, message)


def _text(value: Optional[str]) -> Optional[bytes]:
    return None if value is None else value.encode("utf-8", "surrogateescape")


def _take_json(pointer: ctypes.c_void_p) -> Any:
    try:
        return json.loads(ctypes.string_at(pointer.value).decode("utf-8"))
    finally:
        lib.pactivo_free(pointer)


def _guarded(what: str, function: Callable[..., Any], *args: Any) -> Any:
    try:
        return function(*args)
    except BaseException:  # a host callback must never unwind into C
        logger.exception("%s raised", what)
        return None


@dataclass(frozen=True)
class Purpose:
    """A purpose of the configuration with its consent, as the library encodes it."""

    purpose_id: Optional[int]
    consent_status: Optional[Consent]
    purpose_name: Any = None
    purpose_description: Any = None
    disable_opt_out: Optional[bool] = None
    hide_details: Optional[bool] = None
    sdks: Optional[list[dict[str, Any]]] = None
    raw: dict[str, Any] = field(default_factory=dict, repr=False, compare=False)

    @classmethod
    def from_json(cls, record: dict[str, Any]) -> "Purpose":
        status = record.get("consent_status")
        return cls(record.get("purpose_id"), Consent(status) if status else None,
                   record.get("purpose_name"), record.get("purpose_description"),
                   record.get("disable_opt_out"), record.get("hide_details"),
                   record.get("sdks"), record)


@dataclass(frozen=True)
class Permission:
    """A configured device permission with the consent the platform reports."""

    id: Optional[int]
    permission_id: Optional[str]
    consent_status: Optional[Consent]
    name: Optional[str] = None
    group: Optional[str] = None
    raw: dict[str, Any] = field(default_factory=dict, repr=False, compare=False)

    @classmethod
    def from_json(cls, record: dict[str, Any]) -> "Permission":
        status = record.get("consent_status")
        return cls(record.get("id"), record.get("permission_id"),
                   Consent(status) if status else None, record.get("name"),
                   record.get("group"), record)


@dataclass(frozen=True)
class ConsentChange:
    """One stored consent that changed: a purpose's (`purpose_id`) or a
    permission's (`permission`, its key). None before: nothing was stored;
    None after: removed."""

    purpose_id: Optional[int]
    permission: Optional[str]
    before: Optional[Consent]
    after: Optional[Consent]


@dataclass(frozen=True)
class ConsentChanges:
    """What one commit changed, and why: "current_state" (the first delivery),
    "host", "check_cycle", "configuration", "removal" or "other_process"."""

    cause: str
    changes: list[ConsentChange]

    @classmethod
    def from_json(cls, text: bytes) -> "ConsentChanges":
        record = json.loads(text.decode("utf-8"))
        consent = lambda value: Consent(value) if value else None  # noqa: E731
        return cls(record["cause"], [
            ConsentChange(c.get("purpose_id"), c.get("permission"), consent(c["before"]),
                          consent(c["after"])) for c in record["changes"]])


class Observation:
    """Delivers consent changes until cancelled, closed as a context
    manager, or collected; see SDK.observe_consents()."""

    def __init__(self, handle: int, on_changes: Any) -> None:
        self._handle: Optional[int] = handle
        self._on_changes = on_changes  # the C callback lives as long as the observation

    def cancel(self) -> None:
        """Stops delivery; on another thread, no callback runs once it returns. Idempotent."""
        handle, self._handle = self._handle, None
        if handle is not None:
            _check(lib.pactivo_observation_cancel(handle))

    def __enter__(self) -> "Observation":
        return self

    def __exit__(self, *exc: object) -> None:
        self.cancel()

    def __del__(self) -> None:
        try:
            self.cancel()
        except Exception:  # nothing to report to during collection
            pass


class SDK:
    """One library instance; `SDK(shared=True)` wraps the process-wide one.

    Use it as a context manager, or call close(); an instance that is
    garbage-collected is closed then, and its threads joined.
    """

    def __init__(self, *, shared: bool = False) -> None:
        self._handle: Optional[int] = None
        self._shared = shared
        self._condition = threading.Condition()
        self._status = Status.UNAVAILABLE
        self._settled = False
        self._listeners: list[Callable[[Status], None]] = []
        self._keep: list[Any] = []  # C callbacks that must outlive their calls
        handle = ctypes.c_void_p()
        _check((lib.pactivo_sdk_shared if shared else lib.pactivo_sdk_new)(ctypes.byref(handle)))
        self._handle = handle.value
        # One C callback per instance feeds both wait_ready() and the
        # listeners; it holds no reference to self, so the SDK can be collected.
        self._on_status = _native.STATUS_CALLBACK(_status_trampoline(self))
        _check(lib.pactivo_is_ready(self._handle, self._on_status, None))

    # ---- Lifetime ----

    def close(self) -> None:
        """Destroys the instance and joins its threads. Idempotent."""
        handle, self._handle = self._handle, None
        if handle is None:
            return
        if self._shared:
            # The shared instance outlives this object; so must its callback.
            lib.pactivo_remove_listeners(handle)
            _forever.append(self._on_status)
            return
        result = lib.pactivo_sdk_destroy(handle)
        if result == Result.BUSY:
            # Dropped inside one of the instance's own callbacks, which the
            # destruction would have to join: finish it from a thread of ours.
            keep = (self._on_status, self._keep)
            threading.Thread(target=lambda: (lib.pactivo_sdk_destroy(handle), keep)).start()
            return
        _check(result)

    def __enter__(self) -> "SDK":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:  # nothing to report to during collection
            pass

    @property
    def _h(self) -> int:
        if self._handle is None:
            raise DestroyedError(Result.DESTROYED, "the SDK was closed")
        return self._handle

    # ---- Setup and readiness ----

    def setup(self, app_url: str, cdn_url: str, tenant_id: str, app_id: str, *,
              testing_mode: bool = False, log_level: LogLevel = LogLevel.WARNING,
              consents_check_interval: int = 1800, subject_id: Optional[str] = None,
              language_code: Optional[str] = None, location_code: Optional[str] = None) -> None:
        options = _native.Options(
            ctypes.sizeof(_native.Options), _text(app_url), _text(cdn_url), _text(tenant_id),
            _text(app_id), int(testing_mode), int(log_level), consents_check_interval,
            _text(subject_id), _text(language_code), _text(location_code), None, 0, None)
        with self._condition:
            self._settled = False
        _check(lib.pactivo_setup(self._h, ctypes.byref(options)))

    def _changed(self, status: Status) -> None:
        with self._condition:
            if status == Status.AVAILABLE or (
                    status == Status.UNAVAILABLE and self._status == Status.FETCHING):
                self._settled = True
            self._status = status
            self._condition.notify_all()
            listeners = list(self._listeners)
        for listener in listeners:
            _guarded("readiness callback", listener, status)

    def is_ready(self, callback: Callable[[Status], None]) -> None:
        """Calls `callback` now with the status, then with every change."""
        with self._condition:
            self._listeners.append(callback)
        _guarded("readiness callback", callback, self.status)

    def remove_listeners(self) -> None:
        """Stops the callbacks of is_ready(); wait_ready() keeps working."""
        with self._condition:
            self._listeners.clear()

    def wait_ready(self, timeout: Optional[float] = None) -> bool:
        """Waits until the instance is available or the last setup has
        failed; True when available."""
        with self._condition:
            # A status is delivered only when it changes, so an instance that
            # stays available through a second setup never reports again.
            self._condition.wait_for(
                lambda: self._settled or self._status == Status.AVAILABLE, timeout)
            return self._status == Status.AVAILABLE

    @property
    def status(self) -> Status:
        status = ctypes.c_int()
        _check(lib.pactivo_get_status(self._h, ctypes.byref(status)))
        return Status(status.value)

    # ---- Consent state ----

    def get(self, purpose_id: int) -> Consent:
        out = ctypes.c_char_p()
        _check(lib.pactivo_get_purpose_consent(self._h, purpose_id, ctypes.byref(out)))
        return Consent(out.value.decode())

    def get_permission(self, key: str) -> Consent:
        out = ctypes.c_char_p()
        _check(lib.pactivo_get_permission_consent(self._h, _text(key), ctypes.byref(out)))
        return Consent(out.value.decode())

    def set(self, purpose_id: int, consent: Consent | str) -> None:
        _check(lib.pactivo_set_purpose_consent(self._h, purpose_id, _text(Consent(consent).value)))

    def set_permission(self, key: str, consent: Consent | str) -> None:
        _check(lib.pactivo_set_permission_consent(self._h, _text(key),
                                                  _text(Consent(consent).value)))

    def remove_consents(self) -> None:
        _check(lib.pactivo_remove_consents(self._h))

    # ---- Consent changes ----

    def observe_consents(self, callback: Callable[[ConsentChanges], None]) -> Observation:
        """Calls `callback` on a library thread with every stored consent, then
        with each commit that changes one, in this or another process, in
        commit order. Exceptions it raises are logged."""
        on_changes = _native.CHANGES_CALLBACK(
            lambda text, _: _guarded("consent changes callback", callback,
                                     ConsentChanges.from_json(text)))
        handle = ctypes.c_void_p()
        _check(lib.pactivo_observe_consents(self._h, on_changes, None, ctypes.byref(handle)))
        return Observation(handle.value, on_changes)

    def consent_changes(self, timeout: Optional[float] = None) -> Iterator[ConsentChanges]:
        """The deliveries of observe_consents() as an iterator, for scripts:
        ends after `timeout` seconds without one (never when None)."""
        deliveries: queue.Queue[ConsentChanges] = queue.Queue()
        with self.observe_consents(deliveries.put):
            while True:
                try:
                    yield deliveries.get(timeout=timeout)
                except queue.Empty:
                    return

    # ---- Queries (may wait on the network) ----

    def _query(self, function: Callable[..., int], *args: Any) -> Any:
        out = ctypes.c_void_p()
        _check(function(self._h, *args, ctypes.byref(out)))
        return _take_json(out)

    def purposes(self) -> list[Purpose]:
        return [Purpose.from_json(r) for r in self._query(lib.pactivo_get_purpose_consents)]

    def permissions(self) -> list[Permission]:
        return [Permission.from_json(r) for r in self._query(lib.pactivo_get_permission_consents)]

    def gcm_consents(self) -> dict[str, Consent]:
        return {k: Consent(v) for k, v in self._query(lib.pactivo_get_gcm_consents).items()}

    def gcm_config(self) -> Optional[dict[str, Any]]:
        return self._query(lib.pactivo_get_gcm_config)

    def settings_prompt(self) -> Optional[dict[str, Any]]:
        return self._query(lib.pactivo_get_settings_prompt)

    def banner_config(self, config: Optional[Mapping[str, Any]] = None) -> Optional[dict[str, Any]]:
        text = None if config is None else json.dumps(config).encode()
        return self._query(lib.pactivo_get_banner_config, text)

    def purposes_async(self, done: Callable[[list[Purpose]], None]) -> None:
        """Runs purposes() on a library thread and calls `done` there."""
        def deliver(result: int, text: Optional[bytes], _: Any) -> None:
            if result == Result.OK and text is not None:
                records = [Purpose.from_json(r) for r in json.loads(text.decode())]
                _guarded("purposes callback", done, records)
        callback = _native.JSON_CALLBACK(deliver)
        self._keep.append(callback)
        _check(lib.pactivo_get_purpose_consents_async(self._h, callback, None))

    def upload_consents(self, url: str, request: Mapping[str, Any]) -> None:
        _check(lib.pactivo_upload_consents(self._h, _text(url), json.dumps(request).encode()))

    def check_consents(self) -> None:
        _check(lib.pactivo_check_consents(self._h))


def _status_trampoline(sdk: SDK) -> Callable[[int, Any], None]:
    import weakref
    ref = weakref.ref(sdk)

    def on_status(status: int, _: Any) -> None:
        target = ref()
        if target is not None:
            _guarded("readiness", target._changed, Status(status))
    return on_status


# ---- Process-wide settings ----

# C callbacks the library may still call; a thread inside one must never find
# it freed, so they are kept for the life of the process.
_forever: list[Any] = []


def install_platform(*, data_directory: Optional[str] = None,
                     application_name: Optional[str] = None, device_name: Optional[str] = None,
                     preferred_languages: Sequence[str] = (),
                     advertising_identifier: Optional[str] = None, tracking_status: int = 0,
                     info_dictionary: Optional[Mapping[str, str]] = None,
                     permission_status: Optional[Callable[[Facility], Optional[int]]] = None,
                     consent_mode: Optional[Callable[[dict[str, str]], None]] = None,
                     ca_file: Optional[str] = None, ca_directory: Optional[str] = None,
                     client_certificate: Optional[str] = None, client_key: Optional[str] = None,
                     proxy: Optional[str] = None) -> None:
    """Describes the host system to the library; call it before setup.

    The last five describe an operator's network: a CA bundle or directory
    that replaces the system's, a client certificate and key (PEM) for
    servers that require one, and a proxy that wins over the environment."""
    languages = (ctypes.c_char_p * max(len(preferred_languages), 1))(
        *[_text(x) for x in preferred_languages])
    pairs = [_text(x) for item in (info_dictionary or {}).items() for x in item]
    dictionary = (ctypes.c_char_p * max(len(pairs), 1))(*pairs)
    keep: list[Any] = []
    platform = _native.Platform(
        ctypes.sizeof(_native.Platform), _text(data_directory), _text(application_name),
        _text(device_name), languages, len(preferred_languages), _text(advertising_identifier),
        tracking_status, dictionary, len(pairs) // 2)
    platform.ca_file = _text(ca_file)
    platform.ca_directory = _text(ca_directory)
    platform.client_certificate = _text(client_certificate)
    platform.client_key = _text(client_key)
    platform.proxy = _text(proxy)
    if permission_status is not None:
        def probe(facility: int, _: Any) -> int:
            status = _guarded("permission callback", permission_status, Facility(facility))
            return -1 if status is None else int(status)
        platform.permission_status = _native.PERMISSION_CALLBACK(probe)
        keep.append(platform.permission_status)
    if consent_mode is not None:
        def signals(text: bytes, _: Any) -> None:
            _guarded("consent mode callback", consent_mode, json.loads(text.decode()))
        platform.consent_mode = _native.CONSENT_MODE_CALLBACK(signals)
        keep.append(platform.consent_mode)
    _check(lib.pactivo_install_platform(ctypes.byref(platform)))
    _forever.extend(keep)


def set_log_level(level: LogLevel) -> None:
    _check(lib.pactivo_set_log_level(int(level)))


def log_level() -> LogLevel:
    out = ctypes.c_int()
    _check(lib.pactivo_get_log_level(ctypes.byref(out)))
    return LogLevel(out.value)


def set_log_sink(sink: Optional[Callable[[str], None]]) -> None:
    """Sends the library's log to `sink`; None restores standard output."""
    if sink is None:
        _check(lib.pactivo_set_log_sink(_native.LOG_CALLBACK(), None))
        return
    callback = _native.LOG_CALLBACK(
        lambda text, _: _guarded("log sink", sink, text.decode("utf-8", "replace")))
    _check(lib.pactivo_set_log_sink(callback, None))
    _forever.append(callback)


def version() -> str:
    return lib.pactivo_version().decode()
