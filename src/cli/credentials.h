// The --credentials argument: "username:where:key", where says how key
// leads to the passphrase (here, env, fd or file).
#pragma once

// Parses "username:where:key" into Settings.user and Settings.passphrase.
// 0, or -1 after reporting why; Settings.user is unset again after a
// failure, so the run then asks for credentials as a whole.
int ReadCredentials(const char* argument);

// Overwrites the passphrase of a "username:here:passphrase" argument in
// place once ReadCredentials has copied it: the argument is the process's
// own argument string, which ps and /proc/PID/cmdline show to every user
// of the machine. The other forms carry no secret and are left alone.
void HidePassphraseArgument(char* argument);
// Wipes and frees Settings.passphrase: the end of the run.
void ForgetPassphrase();
// Makes the process non-dumpable: no core file and no ptrace or
// /proc/PID/mem access by other processes of the same user, which could
// otherwise read the passphrase out of memory. 0, or -1 (errno set).
int KeepMemoryPrivate();
