// The standard reply texts. Each writes a fresh heap text into *json_txt.
#pragma once

int fq_reply_set_OK(char** json_txt);
int fq_reply_set_return_code(char** json_txt, int return_code);
// The error text is JSON-escaped, so any text gives a reply that parses.
int fq_reply_set_ERROR(char** json_txt, int return_code, const char* error_msg);
