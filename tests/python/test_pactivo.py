"""The Python package against the built libpactivo.so and loopback servers."""

# The library's own rules are pinned by the C++ tests; these pin what the
# package adds: conversions both ways, result codes as exceptions, callbacks
# into Python, and instance lifetime.

from __future__ import annotations

import gc
import json
import logging
import os
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path

import pytest

import pactivo
from pactivo import Consent, Facility, Status

DOCUMENT = (Path(os.environ["PACTIVO_EXAMPLES_DIR"]) / "configuration.json").read_bytes()


class Handler(BaseHTTPRequestHandler):
    """Serves the example document to GETs and accepts every POST, recording it."""

    def do_GET(self) -> None:
        self._answer(DOCUMENT)

    def do_POST(self) -> None:
        self.server.posts.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
        self._answer(b'{"status": 0, "message": "Consents saved"}')

    def _answer(self, body: bytes) -> None:
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args: object) -> None:
        pass


@pytest.fixture
def server():
    httpd = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    httpd.posts, httpd.url = [], f"http://127.0.0.1:{httpd.server_address[1]}/"
    threading.Thread(target=httpd.serve_forever, daemon=True).start()
    yield httpd
    httpd.shutdown()


camera = {"status": 3}


@pytest.fixture(autouse=True)
def platform(tmp_path):
    pactivo.install_platform(data_directory=str(tmp_path), application_name="pytest",
                             permission_status=lambda f: camera["status"]
                             if f == Facility.CAMERA else None)
    yield
    pactivo.install_platform()


def start(sdk: pactivo.SDK, server) -> None:
    sdk.setup(server.url, server.url, "t", "a", language_code="en", location_code="DE")


def threads() -> int:
    return len(os.listdir("/proc/self/task"))


def threads_back_to(before: int) -> bool:
    gc.collect()
    deadline = time.monotonic() + 10
    while threads() > before and time.monotonic() < deadline:
        time.sleep(0.05)
    return threads() <= before


def test_conversions_both_ways_and_results_as_exceptions(server):
    seen: list[Status] = []
    with pactivo.SDK() as sdk:
        start(sdk, server)
        assert sdk.wait_ready(timeout=20)
        sdk.check_consents()  # waits for the defaults setup records
        sdk.is_ready(seen.append)
        # A second setup keeps the status, so no change is ever delivered.
        start(sdk, server)
        assert sdk.wait_ready(timeout=5) and sdk.status is Status.AVAILABLE
        purposes = sdk.purposes()
        assert [p.purpose_id for p in purposes] == [1, 3, 2, 10, 4]
        assert purposes[0].disable_opt_out is True
        assert [p.consent_status for p in purposes[:2]] == [Consent.GRANTED, Consent.DECLINED]
        sdk.set(2, Consent.GRANTED)
        assert sdk.get(2) is Consent.GRANTED
        sdk.set(2, "declined")
        assert sdk.get(2) is Consent.WITHDRAWN
        # Permissions come from the Python callback, told the facility.
        for status, consent in [(3, Consent.GRANTED), (2, Consent.DECLINED)]:
            camera["status"] = status
            assert sdk.get_permission("NSCameraUsageDescription") is consent
        by_key = {p.permission_id: p for p in sdk.permissions()}
        assert by_key["NSCameraUsageDescription"].consent_status is Consent.DECLINED
        for call, error in [(lambda: sdk.set(1, Consent.DECLINED), pactivo.RefusedError),
                            (lambda: sdk.set(999, Consent.GRANTED), pactivo.NotFoundError),
                            (lambda: sdk.get_permission("NS\udcff"), pactivo.InvalidUtf8Error),
                            (lambda: sdk.upload_consents(server.url, {"uuid": 1}),
                             pactivo.InvalidJsonError)]:
            with pytest.raises(error):
                call()
    assert seen == [Status.AVAILABLE]
    with pytest.raises(pactivo.DestroyedError):
        sdk.get(2)


def test_a_proxy_the_host_names_carries_every_request(server, tmp_path):
    # A proxy that refuses: the document cannot be had through it.
    pactivo.install_platform(data_directory=str(tmp_path), proxy="http://127.0.0.1:9")
    with pactivo.SDK() as sdk:
        start(sdk, server)
        sdk.check_consents()
        assert sdk.status is Status.UNAVAILABLE


def test_the_server_receives_the_upload(server):
    consent = {"purpose_id": 2, "consent_status": "granted", "timestamp": 1, "is_essential": False}
    request = {"uuid": "u-1", "app_uuid": "a-1", "device": "tv", "implicit_consent": False,
               "version": 3, "purpose_consents": [consent], "permissions": [],
               "is_test_mode": False, "ad_id": "", "banner_info": "DE"}
    with pactivo.SDK() as sdk:
        sdk.upload_consents(server.url, request)
    assert server.posts == [dict(request, platform="ios")]  # the one key the library adds


def test_a_raising_callback_is_logged_not_fatal(server, caplog):
    def broken(status: Status) -> None:
        raise RuntimeError("host bug")

    with caplog.at_level(logging.ERROR, logger="pactivo"), pactivo.SDK() as sdk:
        sdk.is_ready(broken)
        start(sdk, server)
        assert sdk.wait_ready(timeout=20)
    assert "host bug" in caplog.text


def test_an_sdk_joins_its_threads_when_collected_or_dropped_in_its_own_callback(server):
    before = threads()
    sdk = pactivo.SDK()
    start(sdk, server)
    assert sdk.wait_ready(timeout=20)
    done = threading.Event()
    sdk.purposes_async(lambda purposes: purposes[0].disable_opt_out and done.set())
    assert done.wait(20)
    del sdk
    assert threads_back_to(before)

    holder = {"sdk": pactivo.SDK()}
    dropped = threading.Event()

    def drop(status: Status) -> None:
        if status is Status.AVAILABLE and holder.pop("sdk", None):
            dropped.set()  # the last reference now goes on the library's thread

    holder["sdk"].is_ready(drop)
    start(holder["sdk"], server)
    assert dropped.wait(20)
    assert threads_back_to(before)


def test_log_level_and_sink():
    lines: list[str] = []
    pactivo.set_log_level(pactivo.LogLevel.ERROR)
    pactivo.set_log_sink(lines.append)
    try:
        with pytest.raises(pactivo.MisuseError):
            pactivo.SDK().setup("http://127.0.0.1:9/", "http://127.0.0.1:9/", None, "a")
    finally:
        pactivo.set_log_sink(None)
    assert pactivo.log_level() is pactivo.LogLevel.ERROR
    assert any("options.tenant_id is NULL" in line for line in lines)


def test_consent_changes_arrive_with_their_cause(server):
    with pactivo.SDK() as sdk:
        start(sdk, server)
        assert sdk.wait_ready(timeout=20)
        sdk.check_consents()  # waits for the defaults setup records
        changes = sdk.consent_changes(timeout=10)
        current = next(changes)
        assert current.cause == "current_state"
        assert current.changes[1] == pactivo.ConsentChange(2, None, None, Consent.DECLINED)
        sdk.set(2, Consent.GRANTED)
        assert next(changes) == pactivo.ConsentChanges(
            "host", [pactivo.ConsentChange(2, None, Consent.DECLINED, Consent.GRANTED)])
        changes.close()  # cancels the observation
        sdk.set(2, Consent.DECLINED)

