#pragma once

// A URL taken apart. The texts point into copies that live to the process's end.
typedef struct URL_INFO {
    const char* protocol;
    const char* site;
    const char* port;  // "5672" when the URL gives none
    const char* path;
} URL_INFO;

URL_INFO* fqhlp_split_url(URL_INFO* info, const char* url);
