/* Pactivo's C interface, for hosts that are not written in C++.
 *
 *   pactivo_sdk* sdk = NULL;
 *   pactivo_options options = PACTIVO_OPTIONS_INIT;
 *   options.app_url = "https://app.example.com/";
 *   options.cdn_url = "https://cdn.example.com/";
 *   options.tenant_id = "tenant";
 *   options.app_id = "app";
 *   if (pactivo_sdk_new(&sdk) != PACTIVO_OK) puts(pactivo_errmsg());
 *   pactivo_setup(sdk, &options);
 *   ...
 *   pactivo_sdk_destroy(sdk);
 *
 * Conventions, for every function below:
 * - The return value is a pactivo_result; on anything but PACTIVO_OK,
 *   pactivo_errmsg() explains it on the calling thread and the library's log
 *   carries the same line. Out-parameters are left untouched on failure.
 * - Text going in is UTF-8 and is copied before the call returns; invalid
 *   UTF-8 is refused with PACTIVO_INVALID_UTF8.
 * - Text coming out through a `char**` is allocated by the library and owned
 *   by the caller, who releases it with pactivo_free(). Text coming out
 *   through a `const char**` is static and never freed.
 * - Records come out as UTF-8 JSON with the keys of the configuration
 *   document and of the consent upload; a list is a JSON array of them, and
 *   an absent record is the JSON text `null`.
 * - Callbacks receive the `user_data` the host passed, run on a library
 *   thread (or the caller's, where stated), and may call back into the
 *   library; the few calls that would wait for the callback's own thread
 *   return PACTIVO_BUSY there instead. Text passed to a callback is valid
 *   only during the call.
 * - Every function may be called from any thread. No C++ exception leaves
 *   the library.
 *
 * Nothing declared here changes once released; new members go at the end of
 * the structs, which carry their own size.
 */
#ifndef PACTIVO_PACTIVO_C_H_
#define PACTIVO_PACTIVO_C_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define PACTIVO_C_API __attribute__((visibility("default")))
#else
#define PACTIVO_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The outcome of a call. The values never change. */
typedef enum pactivo_result {
  PACTIVO_OK = 0,           /* the call did what it says */
  PACTIVO_ERROR = 1,        /* an unexpected failure inside the library */
  PACTIVO_MISUSE = 2,       /* a NULL pointer or an out-of-range argument */
  PACTIVO_INVALID_UTF8 = 3, /* a text argument is not valid UTF-8 */
  PACTIVO_NOT_FOUND = 4,    /* an unknown id, key or raw text */
  PACTIVO_INVALID_JSON = 5, /* JSON text that does not decode as the record */
  PACTIVO_DESTROYED = 6,    /* a handle that is not, or no longer, live */
  PACTIVO_REFUSED = 7,      /* the library declined the change (e.g. an essential purpose) */
  PACTIVO_BUSY = 8,         /* the call would wait for the callback it is made from */
  PACTIVO_NO_MEMORY = 9     /* an allocation failed */
} pactivo_result;

/* Readiness of an instance; the same values as the C++ SDKStatus. */
typedef enum pactivo_status {
  PACTIVO_STATUS_AVAILABLE = 0,   /* the configuration is loaded */
  PACTIVO_STATUS_UNAVAILABLE = 1, /* not set up, or no configuration could be loaded */
  PACTIVO_STATUS_FETCHING = 2     /* the configuration is being fetched */
} pactivo_status;

/* Log severity, lowest first. */
typedef enum pactivo_log_level {
  PACTIVO_LOG_DEBUG = 0,   /* everything, with file and line */
  PACTIVO_LOG_INFO = 1,    /* progress worth knowing */
  PACTIVO_LOG_WARNING = 2, /* something the host may want to fix */
  PACTIVO_LOG_ERROR = 3    /* a failed operation */
} pactivo_log_level;

/* The device facilities whose permission status a host platform reports. */
typedef enum pactivo_facility {
  PACTIVO_FACILITY_LOCATION = 0,           /* 0 not determined .. 4 when in use */
  PACTIVO_FACILITY_CAMERA = 1,             /* 0 not determined, 1 restricted, 2 denied, 3 ok */
  PACTIVO_FACILITY_MICROPHONE = 2,         /* as the camera */
  PACTIVO_FACILITY_PHOTO_LIBRARY = 3,      /* as the camera, plus 4 limited */
  PACTIVO_FACILITY_PHOTO_LIBRARY_ADD = 4,  /* as the photo library */
  PACTIVO_FACILITY_SIRI = 5,               /* as the camera */
  PACTIVO_FACILITY_HEALTH = 6,             /* non-zero when health data exists */
  PACTIVO_FACILITY_BLUETOOTH = 7,          /* as the camera */
  PACTIVO_FACILITY_SPEECH_RECOGNITION = 8, /* 0 not determined, 1 denied, 2 restricted, 3 ok */
  PACTIVO_FACILITY_HOME_KIT = 9,           /* an integer status */
  PACTIVO_FACILITY_NOTIFICATIONS = 10      /* 0 not determined, 1 denied, 2 ok, 3 provisional */
} pactivo_facility;

/* One consent-management instance. */
typedef struct pactivo_sdk pactivo_sdk;

/* What a host tells the library at setup. Initialise with
 * PACTIVO_OPTIONS_INIT (or pactivo_options_init()), then set the members. */
typedef struct pactivo_options {
  size_t size;                                /* sizeof(pactivo_options) as the host was compiled */
  const char* app_url;                        /* application server base URL, ending in "/" */
  const char* cdn_url;                        /* content server base URL, ending in "/" */
  const char* tenant_id;                      /* required */
  const char* app_id;                         /* required */
  int testing_mode;                           /* non-zero: the draft document, no cache */
  pactivo_log_level log_level;                /* default PACTIVO_LOG_WARNING */
  int64_t consents_check_interval;            /* seconds between checks; never below 60 */
  const char* subject_id;                     /* NULL: none */
  const char* language_code;                  /* NULL: from the platform */
  const char* location_code;                  /* NULL: looked up */
  const char* const* webview_allowed_domains; /* may be NULL when the count is 0 */
  size_t webview_allowed_domain_count;
  const char* webview_blocked_page_html; /* NULL: none */
} pactivo_options;

#define PACTIVO_OPTIONS_INIT                                                                   \
  {                                                                                            \
    sizeof(pactivo_options), NULL, NULL, NULL, NULL, 0, PACTIVO_LOG_WARNING, 1800, NULL, NULL, \
        NULL, NULL, 0, NULL                                                                    \
  }

/* Called with a facility's status. Return the status, or -1 when the device
 * has no such facility (the permission then reads as not determined). */
typedef int (*pactivo_permission_callback)(pactivo_facility facility, void* user_data);
/* Receives the Google Consent Mode signals as a JSON object of raw texts:
 * {"analytics_storage":"granted","ad_storage":"denied",...}. */
typedef void (*pactivo_consent_mode_callback)(const char* signals_json, void* user_data);

/* The facilities of the host system, for hosts that cannot subclass the C++
 * platform. Every member may be left NULL/0 to keep the default of a plain
 * Linux program. Initialise with PACTIVO_PLATFORM_INIT. */
typedef struct pactivo_platform {
  size_t size;                            /* sizeof(pactivo_platform) as the host was compiled */
  const char* data_directory;             /* NULL: $XDG_DATA_HOME/<application name> */
  const char* application_name;           /* NULL: the program's name */
  const char* device_name;                /* NULL: the host name */
  const char* const* preferred_languages; /* BCP 47 tags, most preferred first */
  size_t preferred_language_count;        /* 0: from the locale variables */
  const char* advertising_identifier;     /* NULL: none */
  int tracking_status;                /* 0 not determined, 1 restricted, 2 denied, 3 authorized */
  const char* const* info_dictionary; /* key, value, key, value, ... */
  size_t info_dictionary_count;       /* the number of key-value pairs */
  pactivo_permission_callback permission_status; /* NULL: every facility absent */
  pactivo_consent_mode_callback consent_mode;    /* NULL: Firebase, when loaded */
  void* user_data;                               /* passed to both callbacks */
  /* An operator's network (files are PEM; a problem with one is logged once
   * at setup). Verification of the servers is never switched off. */
  const char* ca_file;            /* replaces the system's CAs; NULL: $SSL_CERT_FILE or theirs */
  const char* ca_directory;       /* hashed CA directory, likewise; NULL: $SSL_CERT_DIR */
  const char* client_certificate; /* for servers that require one (mutual TLS) */
  const char* client_key;         /* its key, not encrypted */
  const char* proxy;              /* wins over http_proxy, https_proxy and no_proxy */
} pactivo_platform;

#define PACTIVO_PLATFORM_INIT                                                                      \
  {                                                                                                \
    sizeof(pactivo_platform), NULL, NULL, NULL, NULL, 0, NULL, 0, NULL, 0, NULL, NULL, NULL, NULL, \
        NULL, NULL, NULL, NULL                                                                     \
  }

typedef void (*pactivo_status_callback)(pactivo_status status, void* user_data);
/* `json` is NULL unless result is PACTIVO_OK. */
typedef void (*pactivo_json_callback)(pactivo_result result, const char* json, void* user_data);
typedef void (*pactivo_done_callback)(pactivo_result result, void* user_data);
/* One printed message: one or more lines, each ending in "\n". */
typedef void (*pactivo_log_callback)(const char* text, void* user_data);

/* ---- Errors, memory, version ---- */

/* Why the last failed call on this thread failed; "" when it succeeded. The
 * text stays valid until the thread's next call into the library. */
PACTIVO_C_API const char* pactivo_errmsg(void);
/* The name of a result code ("PACTIVO_NOT_FOUND"); static text. */
PACTIVO_C_API const char* pactivo_result_name(int result);
/* Releases memory the library handed out; NULL is fine. */
PACTIVO_C_API void pactivo_free(void* memory);
/* The library's version, "MAJOR.MINOR.PATCH"; static text. */
PACTIVO_C_API const char* pactivo_version(void);
PACTIVO_C_API void pactivo_options_init(pactivo_options* options);
PACTIVO_C_API void pactivo_platform_init(pactivo_platform* platform);

/* ---- Instances ---- */

/* A new instance, owned by the caller until pactivo_sdk_destroy(). */
PACTIVO_C_API pactivo_result pactivo_sdk_new(pactivo_sdk** out_sdk);
/* The process-wide instance; it lives until the program exits, and
 * destroying it is PACTIVO_MISUSE. */
PACTIVO_C_API pactivo_result pactivo_sdk_shared(pactivo_sdk** out_sdk);
/* Cancels the instance's work, joins its threads and frees it, after any
 * call another thread is making on it has returned. NULL is fine; a handle
 * already destroyed gives PACTIVO_DESTROYED (until a new instance happens to
 * get the same address); from one of the library's callbacks, PACTIVO_BUSY. */
PACTIVO_C_API pactivo_result pactivo_sdk_destroy(pactivo_sdk* sdk);

/* Records the options and starts loading the configuration in the
 * background; readiness reports the outcome. */
PACTIVO_C_API pactivo_result pactivo_setup(pactivo_sdk* sdk, const pactivo_options* options);
/* Calls `callback` at once (on the caller's thread) with the current status,
 * then on every change; replaces an earlier callback. */
PACTIVO_C_API pactivo_result pactivo_is_ready(pactivo_sdk* sdk, pactivo_status_callback callback,
                                              void* user_data);
PACTIVO_C_API pactivo_result pactivo_get_status(pactivo_sdk* sdk, pactivo_status* out_status);
/* Stops the readiness callback. */
PACTIVO_C_API pactivo_result pactivo_remove_listeners(pactivo_sdk* sdk);

/* ---- Consent state (never blocks) ---- */

/* The consent of a purpose as a raw text ("granted", "declined",
 * "not_determined", "withdrawn"); the compliance default when none is
 * stored. */
PACTIVO_C_API pactivo_result pactivo_get_purpose_consent(pactivo_sdk* sdk, int64_t purpose_id,
                                                         const char** out_consent);
/* The consent the platform reports for a permission key
 * ("NSCameraUsageDescription", ...). */
PACTIVO_C_API pactivo_result pactivo_get_permission_consent(pactivo_sdk* sdk,
                                                            const char* permission_key,
                                                            const char** out_consent);
/* Records the user's choice for a purpose of the configuration. An unknown
 * purpose or consent text is PACTIVO_NOT_FOUND; a choice the library does not
 * accept (declining an essential purpose) is PACTIVO_REFUSED. May fetch the
 * configuration. */
PACTIVO_C_API pactivo_result pactivo_set_purpose_consent(pactivo_sdk* sdk, int64_t purpose_id,
                                                         const char* consent);
/* The same for a configured permission. */
PACTIVO_C_API pactivo_result pactivo_set_permission_consent(pactivo_sdk* sdk,
                                                            const char* permission_key,
                                                            const char* consent);
/* Removes every stored consent and the subject identity. */
PACTIVO_C_API pactivo_result pactivo_remove_consents(pactivo_sdk* sdk);

/* ---- Queries (may wait on the network; not for a UI thread) ---- */

PACTIVO_C_API pactivo_result pactivo_get_purpose_consents(pactivo_sdk* sdk, char** out_json);
PACTIVO_C_API pactivo_result pactivo_get_permission_consents(pactivo_sdk* sdk, char** out_json);
PACTIVO_C_API pactivo_result pactivo_get_gcm_config(pactivo_sdk* sdk, char** out_json);
PACTIVO_C_API pactivo_result pactivo_get_settings_prompt(pactivo_sdk* sdk, char** out_json);
/* A JSON object from Google consent type to consent raw text. */
PACTIVO_C_API pactivo_result pactivo_get_gcm_consents(pactivo_sdk* sdk, char** out_json);
/* The banner for the user's location, chosen from `config_json` (a
 * configuration document) when not NULL, else from the current one. */
PACTIVO_C_API pactivo_result pactivo_get_banner_config(pactivo_sdk* sdk, const char* config_json,
                                                       char** out_json);
/* Posts `request_json` (a consent upload record) to the application server
 * at `url`. */
PACTIVO_C_API pactivo_result pactivo_upload_consents(pactivo_sdk* sdk, const char* url,
                                                     const char* request_json);
/* Runs one consent check now and waits for it and its upload; PACTIVO_BUSY
 * from a callback. */
PACTIVO_C_API pactivo_result pactivo_check_consents(pactivo_sdk* sdk);

/* The same queries on a library thread; `callback` is called there once,
 * unless the call itself fails. */
PACTIVO_C_API pactivo_result pactivo_get_purpose_consents_async(pactivo_sdk* sdk,
                                                                pactivo_json_callback callback,
                                                                void* user_data);
PACTIVO_C_API pactivo_result pactivo_get_permission_consents_async(pactivo_sdk* sdk,
                                                                   pactivo_json_callback callback,
                                                                   void* user_data);
PACTIVO_C_API pactivo_result pactivo_get_gcm_consents_async(pactivo_sdk* sdk,
                                                            pactivo_json_callback callback,
                                                            void* user_data);
PACTIVO_C_API pactivo_result pactivo_get_banner_config_async(pactivo_sdk* sdk,
                                                             const char* config_json,
                                                             pactivo_json_callback callback,
                                                             void* user_data);
PACTIVO_C_API pactivo_result pactivo_upload_consents_async(pactivo_sdk* sdk, const char* url,
                                                           const char* request_json,
                                                           pactivo_done_callback callback,
                                                           void* user_data);

/* ---- Log ---- */

PACTIVO_C_API pactivo_result pactivo_set_log_level(pactivo_log_level level);
PACTIVO_C_API pactivo_result pactivo_get_log_level(pactivo_log_level* out_level);
/* Sends printed messages to `callback` instead of standard output; NULL
 * restores standard output. Messages the callback itself causes are
 * dropped. */
PACTIVO_C_API pactivo_result pactivo_set_log_sink(pactivo_log_callback callback, void* user_data);

/* ---- Platform ---- */

/* Makes `platform` the one the library uses from now on; call it before
 * setup. NULL restores the default. The texts are copied; the callbacks and
 * user_data must stay valid until another platform is installed. */
PACTIVO_C_API pactivo_result pactivo_install_platform(const pactivo_platform* platform);

/* ---- Consent changes ---- */

typedef struct pactivo_observation pactivo_observation;
/* `changes_json` is one delivery: {"cause":"host","changes":[{"purpose_id":2,
 * "before":"declined","after":"granted"}]}; a permission's change carries
 * "permission" (its key) instead of "purpose_id"; "before" or "after" is
 * null when nothing was or is stored. Causes: "current_state", "host",
 * "check_cycle", "configuration", "removal", "other_process". */
typedef void (*pactivo_changes_callback)(const char* changes_json, void* user_data);

/* Calls `callback` on a library thread with every consent stored now (cause
 * "current_state"), then once per commit that changes a stored consent, in
 * this process or another on the same suite, in commit order. The
 * observation is the caller's until pactivo_observation_cancel(); it also
 * ends when the instance is destroyed. */
PACTIVO_C_API pactivo_result pactivo_observe_consents(pactivo_sdk* sdk,
                                                      pactivo_changes_callback callback,
                                                      void* user_data,
                                                      pactivo_observation** out_observation);
/* Stops delivery and frees the observation. On another thread, the callback
 * is not running when it returns; from inside the callback, later deliveries
 * stop. NULL is fine. */
PACTIVO_C_API pactivo_result pactivo_observation_cancel(pactivo_observation* observation);

#ifdef __cplusplus
}
#endif

#endif /* PACTIVO_PACTIVO_C_H_ */
