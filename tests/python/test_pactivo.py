"""The Python package against the built libpactivo.so and loopback servers."""

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


class Server:
    """Serves the example document to GETs and accepts every POST, recording it."""

    def __init__(self) -> None:
        self.posts: list[dict] = []
        server = self

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self) -> None:
                self._answer(DOCUMENT)

            def do_POST(self) -> None:
                body = self.rfile.read(int(self.headers["Content-Length"]))
                server.posts.append(json.loads(body))
                self._answer(b'{"status": 0, "message": "Consents saved"}')

            def _answer(self, body: bytes) -> None:
                self.send_response(200)
                self.send_header("Content-Type", "application/json")
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *args: object) -> None:
                pass

        self.httpd = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.httpd.server_address[1]}/"
        threading.Thread(target=self.httpd.serve_forever, daemon=True).start()


@pytest.fixture
def server():
    s = Server()
    yield s
    s.httpd.shutdown()


camera = {"status": 3}


@pytest.fixture(autouse=True)
def platform(tmp_path):
    pactivo.install_platform(data_directory=str(tmp_path), application_name="pytest",
                             permission_status=lambda f: camera["status"]
                             if f == Facility.CAMERA else None)
    yield
    pactivo.install_platform()


def ready_sdk(server: Server) -> pactivo.SDK:
    sdk = pactivo.SDK()
    sdk.setup(server.url, server.url, "t", "a", language_code="en", location_code="DE")
    assert sdk.wait_ready(timeout=20)
    sdk.check_consents()  # waits for the defaults setup records
    return sdk


def threads() -> int:
    return len(os.listdir("/proc/self/task"))


def test_setup_reaches_available_with_purposes_in_order(server):
    seen: list[Status] = []
    with ready_sdk(server) as sdk:
        sdk.is_ready(seen.append)
        purposes = sdk.purposes()
        assert sdk.status is Status.AVAILABLE
        # A second setup keeps the status, so no change is ever delivered.
        sdk.setup(server.url, server.url, "t", "a", language_code="en", location_code="DE")
        assert sdk.wait_ready(timeout=5)
    assert seen == [Status.AVAILABLE]
    # Essential first, then the rest by name, as the library orders them.
    assert [p.purpose_id for p in purposes][0] == 1
    assert sorted(p.purpose_id for p in purposes) == [1, 2, 3, 4, 10]
    assert all(isinstance(p.consent_status, Consent) for p in purposes)
    assert purposes[0].disable_opt_out is True


def test_set_withdraw_and_refusals(server):
    with ready_sdk(server) as sdk:
        sdk.set(2, Consent.GRANTED)
        assert sdk.get(2) is Consent.GRANTED
        sdk.set(2, "declined")
        assert sdk.get(2) is Consent.WITHDRAWN
        for call, error in [(lambda: sdk.set(1, Consent.DECLINED), pactivo.RefusedError),
                            (lambda: sdk.set(999, Consent.GRANTED), pactivo.NotFoundError),
                            (lambda: sdk.get_permission("NS\udcff"), pactivo.InvalidUtf8Error)]:
            with pytest.raises(error):
                call()
    with pytest.raises(pactivo.DestroyedError):
        sdk.get(2)


def test_permissions_come_from_the_python_callback(server):
    with ready_sdk(server) as sdk:
        for status, consent in [(3, Consent.GRANTED), (2, Consent.DECLINED)]:
            camera["status"] = status
            assert sdk.get_permission("NSCameraUsageDescription") is consent
        by_key = {p.permission_id: p for p in sdk.permissions()}
        assert by_key["NSCameraUsageDescription"].consent_status is Consent.DECLINED


def test_a_proxy_the_host_names_carries_every_request(server, tmp_path):
    # A proxy that refuses: the document cannot be had through it.
    pactivo.install_platform(data_directory=str(tmp_path), proxy="http://127.0.0.1:9")
    with pactivo.SDK() as sdk:
        sdk.setup(server.url, server.url, "t", "a", language_code="en", location_code="DE")
        sdk.check_consents()
        assert sdk.status is Status.UNAVAILABLE


def test_the_server_receives_the_upload(server):
    request = {"uuid": "u-1", "app_uuid": "a-1", "device": "tv", "implicit_consent": False,
               "version": 3, "purpose_consents": [{"purpose_id": 2, "consent_status": "granted",
                                                   "timestamp": 1700000000,
                                                   "is_essential": False}],
               "permissions": [], "is_test_mode": False, "ad_id": "", "banner_info": "DE"}
    with pactivo.SDK() as sdk:
        sdk.upload_consents(server.url, request)
        with pytest.raises(pactivo.InvalidJsonError):
            sdk.upload_consents(server.url, {"uuid": 1})
    assert len(server.posts) == 1
    assert server.posts[0]["uuid"] == "u-1"
    assert server.posts[0]["purpose_consents"][0]["consent_status"] == "granted"


def test_a_raising_callback_is_logged_not_fatal(server, caplog):
    def broken(status: Status) -> None:
        raise RuntimeError("host bug")

    with caplog.at_level(logging.ERROR, logger="pactivo"), pactivo.SDK() as sdk:
        sdk.is_ready(broken)
        sdk.setup(server.url, server.url, "t", "a", location_code="DE")
        assert sdk.wait_ready(timeout=20)
    assert "host bug" in caplog.text


def test_a_collected_sdk_joins_its_threads(server):
    before = threads()
    sdk = ready_sdk(server)
    done = threading.Event()
    sdk.purposes_async(lambda purposes: done.set())
    assert done.wait(20)
    del sdk
    gc.collect()
    deadline = time.monotonic() + 10
    while threads() > before and time.monotonic() < deadline:
        time.sleep(0.05)
    assert threads() <= before


def test_an_sdk_dropped_inside_its_own_callback(server):
    before = threads()
    holder = {"sdk": pactivo.SDK()}
    dropped = threading.Event()

    def drop(status: Status) -> None:
        if status is Status.AVAILABLE and holder.pop("sdk", None):
            dropped.set()  # the last reference now goes on the library's thread

    holder["sdk"].is_ready(drop)
    holder["sdk"].setup(server.url, server.url, "t", "a", location_code="DE")
    assert dropped.wait(20)
    gc.collect()
    deadline = time.monotonic() + 10
    while threads() > before and time.monotonic() < deadline:
        time.sleep(0.05)
    assert threads() <= before


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
    with ready_sdk(server) as sdk:
        changes = sdk.consent_changes(timeout=10)
        current = next(changes)
        assert current.cause == "current_state"
        assert current.changes[1] == pactivo.ConsentChange(2, None, None, Consent.DECLINED)
        sdk.set(2, Consent.GRANTED)
        assert next(changes) == pactivo.ConsentChanges(
            "host", [pactivo.ConsentChange(2, None, Consent.DECLINED, Consent.GRANTED)])
        changes.close()  # cancels the observation
        sdk.set(2, Consent.DECLINED)

