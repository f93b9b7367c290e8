// Small file-system tools for the persistent queue, the trace log and the
// self-update. Results: 0 / -1 unless said otherwise; the Is* tests give 1 / 0.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

// path is set, not empty, and exists (whatever it is).
int fqhlp_IsFile(const char* path);
// path is a directory (symbolic links followed).
int fqhlp_IsDir(const char* path);
// path is a regular file (symbolic links followed).
int fqhlp_IsRegularFile(const char* path);
// "<dir>/<fname>" is a regular file.
int fqhlp_IsRegularFileD(const char* dir, const char* fname);
// access(path, W_OK) succeeds.
int fqhlp_IsWritable(const char* path);

// Size of the file in bytes; the name is trimmed of white space at both ends first.
int fqhlp_GetFileSize(const char* pszfilename, size_t* size);
// Modification time of "<dir>/<file>", or -1.
time_t fqhlp_get_file_mtime(const char* dir, const char* file);
// path with every '/' turned into '_', in one static buffer of 4096 bytes that
// the next call overwrites; null for a null, empty or too long path. Not thread-safe.
char* fqhlp_FlattenPath(const char* path_in);

// Makes one folder (mode 0755, parent must exist); an existing folder is fine.
// With change_mode the folder, new or old, is then set to mode.
int fqhlp_create_dir(const char* dirname, bool change_mode, mode_t mode);
// Removes a folder with everything in it. 0 on success, 1 on failure.
// Symbolic links inside are removed as links, never walked into; a root that is
// missing, not a folder, or itself a symbolic link is left alone and gives 0.
int fqhlp_RemoveDir(const char* which_dir);
// Copies the tree below source into dest (created 0750 if missing; folders
// below get 0755, files the source's mode). Symbolic links are copied as what
// they point to. Both paths must be absolute: this changes the process's
// working directory and leaves it wherever the copy ended.
int copy_dir_recursive(const char* source, const char* dest);
// Copies one file; dest must not exist yet. The copy ends up with mode 0755.
// On failure errno tells why.
int copy_file(const char* source, const char* dest);
