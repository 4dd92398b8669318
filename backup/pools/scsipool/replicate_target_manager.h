#pragma once
// Mirrors the deletion and the recycle flag of a snapshot on the pool's replication target. Connects at first
// use and keeps its session; used by one thread.

#include <string>

#include "backup/pools/scsipool/peer_session.h"
#include "platform/json/json_spirit.h"

namespace scsi_pool {

class Replicate_Target_Manager {
 public:
  // `is_lun`: the snapshots are of LUNs, else of sub filesystems.
  Replicate_Target_Manager(std::string target_pool_id, bool is_lun);

  bool connect_target_pool();
  // True exactly when the peer answers 200.
  bool target_snapshot_exist(const std::string& snapshot_id);
  // A snapshot that the peer does not have counts as deleted; false when the peer does not answer.
  bool delete_snapshot(const std::string& snapshot_id);
  bool update_snapshot(const std::string& snapshot_id, const json_spirit::Object& fields);

 private:
  bool connected() { return session_.usable() || connect_target_pool(); }
  const char* path() const { return is_lun_ ? "/svc/r/scsipool/snapshot" : "/svc/r/scsipool/fs/snapshot"; }
  Query query_of(const std::string& snapshot_id) const;

  std::string target_pool_id_;
  Peer_Session session_;
  bool is_lun_;
};

}  // namespace scsi_pool
