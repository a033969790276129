"""Loading libpactivo and declaring the C functions for ctypes."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
from pathlib import Path

c_char_p = ctypes.c_char_p
c_int = ctypes.c_int
c_int64 = ctypes.c_int64
c_size_t = ctypes.c_size_t
c_void_p = ctypes.c_void_p

STATUS_CALLBACK = ctypes.CFUNCTYPE(None, c_int, c_void_p)
JSON_CALLBACK = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)
DONE_CALLBACK = ctypes.CFUNCTYPE(None, c_int, c_void_p)
LOG_CALLBACK = ctypes.CFUNCTYPE(None, c_char_p, c_void_p)
PERMISSION_CALLBACK = ctypes.CFUNCTYPE(c_int, c_int, c_void_p)
CONSENT_MODE_CALLBACK = ctypes.CFUNCTYPE(None, c_char_p, c_void_p)
CHANGES_CALLBACK = ctypes.CFUNCTYPE(None, c_char_p, c_void_p)


class Options(ctypes.Structure):
    _fields_ = [
        ("size", c_size_t),
        ("app_url", c_char_p),
        ("cdn_url", c_char_p),
        ("tenant_id", c_char_p),
        ("app_id", c_char_p),
        ("testing_mode", c_int),
        ("log_level", c_int),
        ("consents_check_interval", c_int64),
        ("subject_id", c_char_p),
        ("language_code", c_char_p),
        ("location_code", c_char_p),
        ("webview_allowed_domains", ctypes.POINTER(c_char_p)),
        ("webview_allowed_domain_count", c_size_t),
        ("webview_blocked_page_html", c_char_p),
    ]


class Platform(ctypes.Structure):
    _fields_ = [
        ("size", c_size_t),
        ("data_directory", c_char_p),
        ("application_name", c_char_p),
        ("device_name", c_char_p),
        ("preferred_languages", ctypes.POINTER(c_char_p)),
        ("preferred_language_count", c_size_t),
        ("advertising_identifier", c_char_p),
        ("tracking_status", c_int),
        ("info_dictionary", ctypes.POINTER(c_char_p)),
        ("info_dictionary_count", c_size_t),
        ("permission_status", PERMISSION_CALLBACK),
        ("consent_mode", CONSENT_MODE_CALLBACK),
        ("user_data", c_void_p),
        ("ca_file", c_char_p),
        ("ca_directory", c_char_p),
        ("client_certificate", c_char_p),
        ("client_key", c_char_p),
        ("proxy", c_char_p),
    ]


def _candidates() -> list[str]:
    # An explicit path first, then the library installed beside this package
    # (<libdir>/python/pactivo -> <libdir>), then the loader's search path.
    found = []
    if os.environ.get("PACTIVO_LIBRARY"):
        found.append(os.environ["PACTIVO_LIBRARY"])
    libdir = Path(__file__).resolve().parent.parent.parent
    found += [str(libdir / "libpactivo.so.0"), str(libdir / "libpactivo.so")]
    found.append(ctypes.util.find_library("pactivo") or "libpactivo.so.0")
    return found


def _load() -> ctypes.CDLL:
    errors = []
    for candidate in _candidates():
        try:
            return ctypes.CDLL(candidate)
        except OSError as error:
            errors.append(str(error))
    raise ImportError("libpactivo not found; set PACTIVO_LIBRARY: " + "; ".join(errors))


lib = _load()

_SIGNATURES = {
    "pactivo_errmsg": (c_char_p, []),
    "pactivo_free": (None, [c_void_p]),
    "pactivo_version": (c_char_p, []),
    "pactivo_sdk_new": (c_int, [ctypes.POINTER(c_void_p)]),
    "pactivo_sdk_shared": (c_int, [ctypes.POINTER(c_void_p)]),
    "pactivo_sdk_destroy": (c_int, [c_void_p]),
    "pactivo_setup": (c_int, [c_void_p, ctypes.POINTER(Options)]),
    "pactivo_is_ready": (c_int, [c_void_p, STATUS_CALLBACK, c_void_p]),
    "pactivo_get_status": (c_int, [c_void_p, ctypes.POINTER(c_int)]),
    "pactivo_remove_listeners": (c_int, [c_void_p]),
    "pactivo_get_purpose_consent": (c_int, [c_void_p, c_int64, ctypes.POINTER(c_char_p)]),
    "pactivo_get_permission_consent": (c_int, [c_void_p, c_char_p, ctypes.POINTER(c_char_p)]),
    "pactivo_set_purpose_consent": (c_int, [c_void_p, c_int64, c_char_p]),
    "pactivo_set_permission_consent": (c_int, [c_void_p, c_char_p, c_char_p]),
    "pactivo_remove_consents": (c_int, [c_void_p]),
    "pactivo_get_purpose_consents": (c_int, [c_void_p, ctypes.POINTER(c_void_p)]),
    "pactivo_get_permission_consents": (c_int, [c_void_p, ctypes.POINTER(c_void_p)]),
    "pactivo_get_gcm_config": (c_int, [c_void_p, ctypes.POINTER(c_void_p)]),
    "pactivo_get_settings_prompt": (c_int, [c_void_p, ctypes.POINTER(c_void_p)]),
    "pactivo_get_gcm_consents": (c_int, [c_void_p, ctypes.POINTER(c_void_p)]),
    "pactivo_get_banner_config": (c_int, [c_void_p, c_char_p, ctypes.POINTER(c_void_p)]),
    "pactivo_upload_consents": (c_int, [c_void_p, c_char_p, c_char_p]),
    "pactivo_check_consents": (c_int, [c_void_p]),
    "pactivo_get_purpose_consents_async": (c_int, [c_void_p, JSON_CALLBACK, c_void_p]),
    "pactivo_set_log_level": (c_int, [c_int]),
    "pactivo_get_log_level": (c_int, [ctypes.POINTER(c_int)]),
    "pactivo_set_log_sink": (c_int, [LOG_CALLBACK, c_void_p]),
    "pactivo_install_platform": (c_int, [ctypes.POINTER(Platform)]),
    "pactivo_observe_consents": (c_int, [c_void_p, CHANGES_CALLBACK, c_void_p,
                                         ctypes.POINTER(c_void_p)]),
    "pactivo_observation_cancel": (c_int, [c_void_p]),
}

for _name, (_restype, _argtypes) in _SIGNATURES.items():
    _function = getattr(lib, _name)
    _function.restype = _restype
    _function.argtypes = _argtypes
