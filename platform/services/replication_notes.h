#pragma once
// What must still be known after the daemon was killed, kept in its database: why jobs failed, and which
// snapshots were being received or deleted. Any thread.

#include <ace/Basic_Types.h>

#include <string>
#include <vector>

// Keeps why a job ended, instead of what was kept for it; an empty text keeps nothing. False, logged, when
// the database cannot store it.
bool keep_job_error(ACE_INT64 job_id, const std::string& message);
// Empty when nothing is kept.
std::string job_error(ACE_INT64 job_id);

// A snapshot that is being received or deleted: storage and catalog may differ.
struct Unsettled_Snapshot {
  std::string pool_id;
  bool lun = false;
  std::string dataset;
  std::string snapshot_id;
};

// False, logged, when the database cannot store it.
bool note_unsettled(const Unsettled_Snapshot& snapshot);
// Takes the notes of it back: it is recorded and there, or neither.
bool forget_unsettled(const Unsettled_Snapshot& snapshot);
// All that are noted. False, logged, when the database cannot be read.
bool list_unsettled(std::vector<Unsettled_Snapshot>& snapshots);
