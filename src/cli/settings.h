// Run-wide settings as the command line set them, read by every subsystem.
#pragma once

#include <cstdint>
#include <cstdio>

// Whether and how the connections are encrypted.
enum TlsMode : uint8_t { TlsOff = 0, TlsExplicit = 1, TlsImplicit = 2 };

// Run-wide settings. Written only while the options are parsed, before any
// thread but the signal thread exists; read without locks afterwards.
struct RunSettings {
  char* server = nullptr;
  char* user = nullptr;
  char* passphrase = nullptr;
  char* backup_path = nullptr;
  char* restore_path = nullptr;
  FILE* catalog = nullptr;
  FILE* include = nullptr;
  FILE* exclude = nullptr;
  FILE* list = nullptr;
  FILE* notbackedup = nullptr;
  int cutoff_flag = 0;
  int64_t cutoff_time = 0;
  char cutoff_date_text[10] = "";
  char cutoff_time_text[10] = "";
  uint64_t max_block_size = UINT64_MAX;
  uint8_t precheck = 1;
  uint8_t threading = 1;
  // --sessions: sessions that save the objects of one kind side by side.
  int sessions = 1;
  int timeout_minutes = 8;
  const char* wait_text = nullptr;  // the save command uses "120" without it
  int verbosity = 0;
  int test_count = 0;
  TlsMode tls_mode = TlsOff;
  const char* cacert = nullptr;  // PEM file of trusted CAs; nullptr: the system's store
  char* summary_path = nullptr;  // --summary: where the run's JSON summary goes
};

extern RunSettings Settings;
extern int StderrIsTerminal;
extern int PageSize;
