// One scan job as the worker holds it: the record read from the client's JSON job.
#pragma once

#include <json-c/json.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef struct fq_worker_config_t fq_worker_config_t;

// SAP's VSI boolean: one byte.
typedef unsigned char SAP_BOOL;

// How strictly services look for HTML. The job's text is kept as it is for the services;
// this is the worker's reading of it.
enum HTMLDETECTION : int {
    OFF = 0,
    SAFE = 1,
    RESTRICTIVE = 2,
    SVG = 3,
};

typedef enum HTMLINXML_ENU : int {
    XML_HTML = 0,
    XML_XML = 1,
} HTMLINXML_ENU;

typedef enum SVGINHTML_ENU : int {
    TEXT_HTML = 0,
    SVG_XML = 1,
} SVGINHTML_ENU;

typedef struct fq_scan_config {
    int32_t BLOCKENCRYPTED;
    int32_t BLOCKHTML_IN_PDF;
    int32_t SCANBASE64;
    int32_t SCANUUENCODED;
    int32_t SCANXMLCONTENT;
    int32_t LONGMIMETYPES;
    int32_t ENFORCE_MIME_EXTENSION_MATCH;
    int32_t REQUIRE_EXTENSION;
    enum HTMLDETECTION HTMLDETECTION;
    HTMLINXML_ENU XML_MODE;  // stays 0: the job's XML_MODE goes to the services as text
    SVGINHTML_ENU SVG_MODE;  // stays 0, for the same reason
    size_t SCAN_MIN_SIZE;
    size_t SCAN_MAX_SIZE;
    size_t SCAN_MAX_EXTENSION_LEN;  // unused: the value lives in the scan object's SCAN_EXTENSION_MAX_LEN
    int32_t ScanTimeout;            // milliseconds for the whole scan
    int32_t ScanBandwidth;
} fq_scan_config;

// No member of the job fills this; it is allocated zeroed for every job.
typedef struct fq_worker_active_content_t {
    SAP_BOOL Executable;
    SAP_BOOL Flash;
    SAP_BOOL GIFAR;
    SAP_BOOL HTML_Event_Handler;
    SAP_BOOL HTML_Script;
    SAP_BOOL MSoffice_Java;
    SAP_BOOL MSoffice_OLE;
    SAP_BOOL MSoffice_DDE;
    SAP_BOOL MSoffice_Macro_general;
    SAP_BOOL MSoffice_Macro_signed;
    SAP_BOOL PDF_AcroForm;
    SAP_BOOL PDF_ActiveAction;
    SAP_BOOL PDF_JavaScript;
    SAP_BOOL PDF_Launch;
    SAP_BOOL PDF_OpenAction;
    SAP_BOOL PDF_RichMedia;
    SAP_BOOL PDF_Metadata_perl;
    SAP_BOOL PDF_Metadata_php;
    SAP_BOOL Silverlight;
    SAP_BOOL ZIP_JavaArchive;
    SAP_BOOL XML_JavaScript;
    SAP_BOOL XML_XSLT;
    SAP_BOOL CSV_injection;
    SAP_BOOL Javascript;
    char* CSV_injection_regex;  // owned, released with the record
} fq_worker_active_content_t;

// One record per request. Texts and the two sub-records are owned (heap, released by
// fq_worker_FreeScanObject); scanjob_json, ScanBuffer and worker_config are borrowed.
typedef struct fq_worker_scanobject_t {
    json_object* scanjob_json;  // borrowed: the dispatcher's parsed job
    int32_t recursion_level;
    int32_t shmid;
    const unsigned char* ScanBuffer;  // borrowed: the request's payload, may be null
    size_t ObjectLen;
    char* ObjectName;
    char* services;
    char* SCANEXTENSIONS;
    char* SCANMIMETYPES;
    char* BLOCKEXTENSIONS;
    char* BLOCKMIMETYPES;
    int32_t SCANEXTRACT_DEPTH;
    size_t SCANEXTRACT_SIZE;
    int32_t SCANEXTRACT_RATIO;
    int64_t SCANEXTRACT_MAX_FILES;
    bool SCANEXTRACT_NO_VIRUSSCAN;
    size_t SCAN_EXTENSION_MAX_LEN;
    char* CLEANQUARANTINE;
    char* CLIENT_HOSTNAME_FQDN;
    char* SID;
    int64_t PID;
    int64_t TID;
    char* MIMEtype;
    char* Filetype;
    char* extension;
    int32_t BlockActiveContent;
    int32_t RecurseIntoArchives;
    int32_t CheckMime;
    char* realmID;
    char* eventID;
    fq_worker_active_content_t* ActiveContent;
    fq_scan_config* ScanConfig;
    const fq_worker_config_t* worker_config;  // borrowed
    int32_t no_of_embedded_documents;
    int32_t enforce_mime_policy_in_archives;
    int32_t enforce_activecontent_policy_in_archives;
    char* sid;       // unused; released like the other texts if ever set
    char* hostname;  // unused; released like the other texts if ever set
} fq_worker_scanobject_t;

// Reads the job into a new record owned by the caller, or null with the reason in errmsg
// (1024 bytes, may be null) and in the log. job is borrowed, must outlive the record and
// is not changed.
fq_worker_scanobject_t* fq_worker_GetScanJobDetails(json_object* job, char* errmsg);

// Releases the record with everything it owns and nulls *scanobject. Null-safe at both levels.
void fq_worker_FreeScanObject(fq_worker_scanobject_t** scanobject);

// The job's HTMLDETECTION text as the enumeration: "OFF", "RESTRICTIVE", "SVG" in any case,
// everything else (null included) SAFE.
enum HTMLDETECTION fq_worker_htmldetection_from_text(const char* text);

// shmID text as a number: strtol in base 16, low 32 bits ("0xffffffff" is -1, no hex digits 0).
int32_t fq_worker_shmid_from_text(const char* text);

// The lenient number readers of the job's members: json_object_get_int / _get_int64, with a NaN
// (which json-c's parser accepts) read as 0 instead of being converted by the library.
int32_t fq_worker_json_get_int(json_object* value);
int64_t fq_worker_json_get_int64(json_object* value);

// A text member that must be there and not be empty. On failure: null, "Failed to read %s from
// JSON" or "Key %s found, but value is empty" in errmsg (1024 bytes, may be null) and at ERROR.
// A JSON null counts as empty. The result points into job.
const char* fq_worker_json_get_mandatory_text(json_object* job, const char* key, char* errmsg);
