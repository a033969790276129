/* A C host: set the library up, wait for the configuration, show the
 * purposes, record a choice and read it back.
 *
 *   c_host [CDN_URL] [APP_URL] [DATA_DIRECTORY]
 *
 * Exits 0 once the library has settled (available or unavailable), 1 on a
 * failed call. */
#define _POSIX_C_SOURCE 200809L

#include <pactivo/pactivo_c.h>
#include <stdio.h>
#include <time.h>

static int check(pactivo_result result, const char* what) {
  if (result != PACTIVO_OK) {
    fprintf(stderr, "%s: %s (%s)\n", what, pactivo_result_name(result), pactivo_errmsg());
    return 0;
  }
  return 1;
}

static void on_ready(pactivo_status status, void* user_data) {
  (void)user_data;
  printf("readiness: %d\n", (int)status);
}

int main(int argc, char** argv) {
  const char* cdn_url = argc > 1 ? argv[1] : "http://127.0.0.1:9/";
  const char* app_url = argc > 2 ? argv[2] : cdn_url;
  pactivo_platform platform = PACTIVO_PLATFORM_INIT;
  pactivo_options options = PACTIVO_OPTIONS_INIT;
  pactivo_sdk* sdk = NULL;
  pactivo_status status = PACTIVO_STATUS_FETCHING;
  char* purposes = NULL;
  const char* consent = NULL;
  int waited = 0;

  platform.application_name = "c-host";
  platform.data_directory = argc > 3 ? argv[3] : NULL;
  if (!check(pactivo_install_platform(&platform), "install platform")) return 1;

  options.app_url = app_url;
  options.cdn_url = cdn_url;
  options.tenant_id = "demo-tenant";
  options.app_id = "demo-app";
  options.language_code = "en";
  options.location_code = "DE";

  if (!check(pactivo_sdk_new(&sdk), "new")) return 1;
  if (!check(pactivo_is_ready(sdk, on_ready, NULL), "is ready") ||
      !check(pactivo_setup(sdk, &options), "setup")) {
    pactivo_sdk_destroy(sdk);
    return 1;
  }

  /* A GUI host would react in on_ready; a command-line one may poll. */
  while (waited++ < 700) {
    struct timespec tick = {0, 100 * 1000 * 1000};
    if (!check(pactivo_get_status(sdk, &status), "status")) break;
    if (status != PACTIVO_STATUS_FETCHING && waited > 5) break;
    nanosleep(&tick, NULL);
  }

  if (status == PACTIVO_STATUS_AVAILABLE &&
      check(pactivo_get_purpose_consents(sdk, &purposes), "purposes")) {
    printf("purposes: %s\n", purposes);
    pactivo_free(purposes);
    if (check(pactivo_set_purpose_consent(sdk, 2, "granted"), "set") &&
        check(pactivo_get_purpose_consent(sdk, 2, &consent), "get")) {
      printf("purpose 2: %s\n", consent);
    }
  }
  pactivo_remove_listeners(sdk);
  return check(pactivo_sdk_destroy(sdk), "destroy") ? 0 : 1;
}
