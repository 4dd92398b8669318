#include "backup/pools/scsipool/replicate_target_manager.h"

#include "platform/base/log.h"

namespace scsi_pool {

Replicate_Target_Manager::Replicate_Target_Manager(std::string target_pool_id, bool is_lun)
    : target_pool_id_(std::move(target_pool_id)), is_lun_(is_lun) {}

Query Replicate_Target_Manager::query_of(const std::string& snapshot_id) const {
  return {{"pool_id", target_pool_id_}, {"snapshot_id", snapshot_id}};
}

bool Replicate_Target_Manager::connect_target_pool() {
  if (!session_.resolve(target_pool_id_))
    return LOG_FAILURE("Failed to connect to target pool: get pool '%s' host info error\n",
                       target_pool_id_.c_str());
  if (!session_.connect())
    return LOG_FAILURE("Failed to connect to target pool: init json session to %s:%d error\n",
                       session_.host().c_str(), int{session_.port()});
  return true;
}

bool Replicate_Target_Manager::target_snapshot_exist(const std::string& snapshot_id) {
  if (!connected()) return LOG_FAILURE("Failed to check target pool snapshot exist\n");
  json_spirit::Value reply;
  return session_.get(path(), query_of(snapshot_id), reply);
}

bool Replicate_Target_Manager::delete_snapshot(const std::string& snapshot_id) {
  if (!connected()) return LOG_FAILURE("Failed to detele target pool snapshot\n");
  // A refusal counts as absence; without an answer nothing is known, and the local snapshot must stay.
  if (!target_snapshot_exist(snapshot_id) && session_.answered()) return true;
  return (session_.answered() && session_.del(path(), query_of(snapshot_id))) ||
         LOG_FAILURE("Failed to delete target pool snapshot '%s' in '%s'\n", snapshot_id.c_str(),
                     target_pool_id_.c_str());
}

bool Replicate_Target_Manager::update_snapshot(const std::string& snapshot_id,
                                               const json_spirit::Object& fields) {
  if (!connected()) return LOG_FAILURE("Failed to update target pool snapshot\n");
  json_spirit::Object body = fields;
  body["pool_id"] = target_pool_id_;
  body["snapshot_id"] = snapshot_id;
  return session_.put(path(), body) || LOG_FAILURE("Failed to update target pool snapshot '%s' in '%s'\n",
                                                   snapshot_id.c_str(), target_pool_id_.c_str());
}

}  // namespace scsi_pool
