"""The Python package against the built libpactivo.so and loopback servers."""

# The library's own rules are pinned by the C++ tests; these pin what the
# package adds: conversions both ways, result codes as exceptions, callbacks
# into Python, and instance lifetime.

import gc
import json
import logging
import os
import queue
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

    def do_GET(self, body: bytes = DOCUMENT) -> None:
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_POST(self) -> None:
        self.server.posts.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
        self.do_GET(b'{"status": 0, "message": "Consents saved"}')


statuses = {Facility.CAMERA: 3}  # what the platform reports for a facility


@pytest.fixture
def server(tmp_path):
    pactivo.install_platform(data_directory=str(tmp_path), permission_status=statuses.get,
                             device_name="TV", advertising_identifier="ad-1", tracking_status=3,
                             info_dictionary={"NSFaceIDUsageDescription": "Unlock"})
    httpd = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    httpd.posts, httpd.url = [], f"http://127.0.0.1:{httpd.server_address[1]}/"
    threading.Thread(target=httpd.serve_forever, daemon=True).start()
    yield httpd
    httpd.shutdown()
    pactivo.install_platform()
    pactivo.set_log_sink(None)


def start(sdk: pactivo.SDK, server, check: bool = True) -> None:
    sdk.setup(server.url, server.url, "t", "a", language_code="en", location_code="DE")
    if check:
        assert sdk.wait_ready(timeout=20)
        deadline = time.monotonic() + 10  # the defaults are recorded, then uploaded
        while not server.posts and time.monotonic() < deadline:
            time.sleep(0.05)


def test_conversions_both_ways_and_results_as_exceptions(server):
    seen: list[Status] = []
    with pactivo.SDK() as sdk:
        start(sdk, server)
        sdk.is_ready(seen.append)
        # A second setup keeps the status, so no change is ever delivered.
        start(sdk, server)
        assert sdk.status is Status.AVAILABLE
        purposes, delivered = sdk.purposes(), queue.Queue()
        assert [(p.purpose_id, p.disable_opt_out) for p in purposes] == [
            (1, True), (3, None), (2, False), (10, None), (4, None)]
        assert [p.consent_status for p in purposes[1:3]] == [Consent.GRANTED, Consent.DECLINED]
        sdk.purposes_async(delivered.put)
        assert delivered.get(timeout=20) == purposes
        for choice, stored in [(Consent.GRANTED, Consent.GRANTED), ("declined", Consent.WITHDRAWN)]:
            sdk.set(2, choice)
            assert sdk.get(2) is stored
        # Permissions come from the Python callback, told the facility.
        for status, consent in [(3, Consent.GRANTED), (2, Consent.DECLINED)]:
            statuses[Facility.CAMERA] = status
            assert sdk.get_permission("NSCameraUsageDescription") is consent
        by_key = {p.permission_id: p.consent_status for p in sdk.permissions()}
        assert by_key["NSCameraUsageDescription"] is Consent.DECLINED
        for call, error in [(lambda: sdk.set(1, Consent.DECLINED), pactivo.RefusedError),
                            (lambda: sdk.set(999, "granted"), pactivo.NotFoundError),
                            (lambda: sdk.get_permission("NS\udcff"), pactivo.InvalidUtf8Error),
                            (lambda: sdk.upload_consents("x", {}), pactivo.InvalidJsonError)]:
            with pytest.raises(error):
                call()
    assert seen == [Status.AVAILABLE]
    with pytest.raises(pactivo.DestroyedError):
        sdk.get(2)


def test_an_sdk_dropped_in_its_own_callback_is_collected_and_joins_its_threads(server):
    before = len(os.listdir("/proc/self/task"))
    holder = {"sdk": pactivo.SDK()}
    dropped = threading.Event()

    def drop(status: Status) -> None:
        if status is Status.AVAILABLE and holder.pop("sdk", None):
            dropped.set()  # the last reference now goes on the library's thread

    holder["sdk"].is_ready(drop)
    start(holder["sdk"], server, check=False)
    assert dropped.wait(20)
    gc.collect()
    deadline = time.monotonic() + 10
    while len(os.listdir("/proc/self/task")) > before and time.monotonic() < deadline:
        time.sleep(0.05)
    assert len(os.listdir("/proc/self/task")) <= before


def test_process_wide_settings_reach_the_library(server, tmp_path, caplog):
    def broken(status: Status) -> None:
        if threading.current_thread() is not threading.main_thread():
            raise RuntimeError("host bug")

    lines: list[str] = []
    pactivo.set_log_sink(lines.append)
    # A proxy that refuses: the document cannot be had through it.
    pactivo.install_platform(data_directory=str(tmp_path), proxy="http://127.0.0.1:9")
    with caplog.at_level(logging.ERROR, logger="pactivo"), pactivo.SDK() as sdk:
        sdk.is_ready(broken)  # a library thread's call into it is logged, not fatal
        with pytest.raises(pactivo.MisuseError):
            sdk.setup(server.url, server.url, None, "a")
        start(sdk, server, check=False)
        sdk.check_consents()
        assert sdk.status is Status.UNAVAILABLE
    pactivo.set_log_level(pactivo.LogLevel.ERROR)  # until the next setup
    assert pactivo.log_level() is pactivo.LogLevel.ERROR
    assert any("options.tenant_id is NULL" in line for line in lines) and "host bug" in caplog.text


def test_uploads_and_consent_changes(server):
    with pactivo.SDK() as sdk:
        start(sdk, server)
        # The host's platform reaches the upload of the defaults, which goes again as given.
        request = server.posts[0]
        assert (request["device"], request["ad_id"]) == ("TV", "ad-1")
        sdk.upload_consents(server.url, request)
        assert server.posts[-1] == request
        changes = sdk.consent_changes(timeout=10)
        current = next(changes)
        assert current.cause == "current_state"
        assert pactivo.ConsentChange(2, None, None, Consent.DECLINED) in current.changes
        sdk.set(2, Consent.GRANTED)
        assert next(changes) == pactivo.ConsentChanges(
            "host", [pactivo.ConsentChange(2, None, Consent.DECLINED, Consent.GRANTED)])
        changes.close()  # cancels the observation
        sdk.set(2, Consent.DECLINED)
