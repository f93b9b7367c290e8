// The operator's commands of fq-av-quarantine: list, show, restore and purge a quarantine directory.
#pragma once

bool quarantine_admin_is_command(const char* word);
// argv[0] is the command. Returns the exit status: 0 done, 1 a usage error or a failure (reported).
int quarantine_admin_main(int argc, char** argv);
