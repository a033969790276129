#!/usr/bin/env python3
"""A Python host: set the library up, wait for the configuration, show the
purposes, record a choice and read it back.

    PYTHONPATH=<prefix>/lib/python python3 python_host.py [CDN_URL] [APP_URL]

Exits 0 once the library has settled (available or not).
"""

import sys

import pactivo


def main() -> int:
    cdn_url = sys.argv[1] if len(sys.argv) > 1 else "http://127.0.0.1:9/"
    app_url = sys.argv[2] if len(sys.argv) > 2 else cdn_url
    pactivo.install_platform(application_name="python-host")
    with pactivo.SDK() as sdk:
        sdk.is_ready(lambda status: print(f"readiness: {status.name}"))
        sdk.setup(app_url, cdn_url, "demo-tenant", "demo-app", language_code="en",
                  location_code="DE")
        if not sdk.wait_ready(timeout=70):
            print(f"no configuration: {sdk.status.name}")
            return 0
        for purpose in sdk.purposes():
            print(f"{purpose.purpose_id} {purpose.consent_status.value}")
        try:
            sdk.set(2, pactivo.Consent.GRANTED)
            print(f"purpose 2: {sdk.get(2).value}")
        except pactivo.PactivoError as error:
            print(f"not recorded: {error}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
