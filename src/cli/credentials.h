// The --credentials argument: "username:where:key", where says how key
// leads to the passphrase (here, env, fd or file).
#pragma once

// Parses "username:where:key" into Settings.user and Settings.passphrase.
// 0, or -1 after reporting why; Settings.user is unset again after a
// failure, so the run then asks for credentials as a whole.
int ReadCredentials(const char* argument);
