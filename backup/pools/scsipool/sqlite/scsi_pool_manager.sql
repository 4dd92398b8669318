-- The catalog of the pools. UUIDs are 16-byte blobs, booleans 0 or 1, sizes bytes, extended attributes and access
-- lists JSON text. A change of these tables is a further section at the end, never an edit of an earlier one.
--
-- Row ids are never given out twice (AUTOINCREMENT): a queued message may still name a job that is gone.
-- version 1
CREATE TABLE scsi_pool (
  uuid BLOB NOT NULL UNIQUE,
  name TEXT NOT NULL,
  fs_type TEXT NOT NULL,
  global_dev TEXT NOT NULL,
  compression TEXT NOT NULL,
  dedup INTEGER NOT NULL,
  size INTEGER NOT NULL,
  thin_provision INTEGER NOT NULL,
  type TEXT NOT NULL,
  target TEXT NOT NULL,
  retention INTEGER NOT NULL,
  extended_attrs TEXT
);
CREATE INDEX scsi_pool_by_name ON scsi_pool (name);

-- LUNs, and clones made from snapshots (snapshot_uuid is not the all-zero UUID).
CREATE TABLE volume (
  uuid BLOB NOT NULL,
  snapshot_uuid BLOB NOT NULL,
  pool_uuid BLOB NOT NULL,
  size INTEGER NOT NULL,
  ctime TEXT,
  extended_attrs TEXT
);
CREATE INDEX volume_by_uuid ON volume (pool_uuid, uuid);
CREATE INDEX volume_by_snapshot ON volume (snapshot_uuid, pool_uuid);

CREATE TABLE snapshot (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  uuid BLOB NOT NULL,
  pool_uuid BLOB NOT NULL,
  volume_uuid BLOB NOT NULL,
  ctime TEXT,
  seq INTEGER NOT NULL,
  recycle INTEGER NOT NULL,
  extended_attrs TEXT,
  state TEXT NOT NULL DEFAULT 'idle',
  standby INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX snapshot_by_uuid ON snapshot (pool_uuid, uuid);
CREATE INDEX snapshot_by_volume ON snapshot (pool_uuid, volume_uuid, seq);

CREATE TABLE export (
  uuid BLOB NOT NULL,
  pool_uuid BLOB NOT NULL,
  lun_num INTEGER NOT NULL,
  acls TEXT,
  ext_type TEXT,
  ext_target TEXT
);
CREATE INDEX export_by_uuid ON export (pool_uuid, uuid);

CREATE TABLE filesystem (
  name TEXT NOT NULL,
  snapshot_uuid BLOB NOT NULL,
  pool_uuid BLOB NOT NULL,
  ctime TEXT,
  mountpoint TEXT,
  mounted INTEGER NOT NULL,
  extended_attrs TEXT
);
CREATE INDEX filesystem_by_name ON filesystem (pool_uuid, name);
CREATE INDEX filesystem_by_snapshot ON filesystem (snapshot_uuid, pool_uuid);

CREATE TABLE filesystem_snapshot (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  uuid BLOB NOT NULL,
  pool_uuid BLOB NOT NULL,
  filesystem_name TEXT NOT NULL,
  ctime TEXT,
  seq INTEGER NOT NULL,
  recycle INTEGER NOT NULL,
  extended_attrs TEXT,
  state TEXT NOT NULL DEFAULT 'idle',
  standby INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX filesystem_snapshot_by_uuid ON filesystem_snapshot (pool_uuid, uuid);
CREATE INDEX filesystem_snapshot_by_name ON filesystem_snapshot (pool_uuid, filesystem_name, seq);

CREATE TABLE replicate_job_def (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  source_pool_uuid BLOB NOT NULL,
  target_pool_uuid BLOB NOT NULL,
  catalog_uuid BLOB NOT NULL,
  retry INTEGER NOT NULL,
  extended_attrs TEXT NOT NULL,
  snapshots TEXT NOT NULL
);
CREATE INDEX replicate_job_def_by_source ON replicate_job_def (source_pool_uuid, target_pool_uuid);

-- Times are ISO 8601 text of fixed width in UTC, so that they sort as text.
CREATE TABLE replicate_job (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  def_id INTEGER NOT NULL,
  state TEXT NOT NULL,
  creation_time TEXT NOT NULL,
  start_time TEXT NOT NULL,
  finish_time TEXT NOT NULL,
  progress INTEGER NOT NULL DEFAULT 0,
  data_size INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX replicate_job_by_def ON replicate_job (def_id);
CREATE INDEX replicate_job_by_state ON replicate_job (state);
