#include "backup/pools/scsipool/scsi_pool_receiver.h"

#include <ace/OS_NS_unistd.h>

#include <cerrno>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "platform/base/log.h"
#include "platform/process/process_manager.h"

namespace scsi_pool {

ACE_Time_Value SCSI_Pool_Receiver::end_limit(60);

SCSI_Pool_Receiver::SCSI_Pool_Receiver(const std::string& pool_id, const Dataset_Manager& dataset)
    : pool_id_(pool_id), dataset_(dataset) {}

bool SCSI_Pool_Receiver::dataset_exist() {
  return dataset_.type() == Dataset_Manager::TYPE_VOLUME
             ? backstore_->volume_exist(dataset_.dataset())
             : backstore_->sub_filesystem_exist(dataset_.dataset());
}

bool SCSI_Pool_Receiver::snapshot_exist() {
  return dataset_.type() == Dataset_Manager::TYPE_VOLUME
             ? backstore_->snapshot_exist(dataset_.dataset(), snapshot_)
             : backstore_->filesystem_snapshot_exist(dataset_.dataset(), snapshot_);
}

bool SCSI_Pool_Receiver::destroy_snapshot() {
  return dataset_.type() == Dataset_Manager::TYPE_VOLUME
             ? backstore_->destroy_snapshot(dataset_.dataset(), snapshot_)
             : backstore_->destroy_filesystem_snapshot(dataset_.dataset(), snapshot_);
}

bool SCSI_Pool_Receiver::open(const std::string& snapshot, bool force) {
  if (snapshot.empty()) return LOG_FAILURE("Failed to receive scsi pool: snapshot name is empty\n");
  snapshot_ = snapshot;
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id_, fs_type, global_dev))
    return LOG_FAILURE("Failed to receive scsi pool: get pool '%s' info error\n", pool_id_.c_str());
  backstore_.reset(SCSI_Pool_Backstore_Factory::create(pool_id_, global_dev));
  if (!backstore_ || !backstore_->open(fs_type))
    return LOG_FAILURE("Failed to receive scsi pool: init backstore error\n");
  if (!dataset_exist())
    return LOG_FAILURE("Failed to receive snapshot: dataset %s does not exist\n", dataset_.dataset().c_str());

  // A tool that was fed the beginning of another transfer would take this stream for its continuation, and
  // holds the dataset busy: it goes first.
  Receiver_Process_Manager* registry = Receiver_Process_Manager::instance();
  if (registry->receive_size(pool_id_, dataset_, snapshot_) > 0)
    registry->remove(pool_id_, dataset_, snapshot_);
  if (snapshot_exist() && !destroy_snapshot())
    return LOG_FAILURE("Failed to receive snapshot: remove invalid snapshot '%s' error\n", snapshot_.c_str());
  const Receiver_Process_Manager::Process_var process = registry->share(pool_id_, dataset_, snapshot_, force);
  if (process.null()) return LOG_FAILURE("Failed to receive snapshot: spawn receive process error\n");
  receive_stdin_ = process->stdin_handle();
  if (receive_stdin_ == ACE_INVALID_HANDLE)
    return LOG_FAILURE("Failed to receive snapshot: fdopen child stdin failed, errno = %d, %m\n", errno);
  proc_ = process;
  return true;
}

bool SCSI_Pool_Receiver::receive(const void* data, std::size_t size) {
  if (proc_.null()) return LOG_VIOLATION("proc_ is NULL");
  if (size == 0) return true;
  const ssize_t written = ACE_OS::write(receive_stdin_, data, size);
  if (written < 0 || static_cast<std::size_t>(written) != size)
    return LOG_FAILURE("Failed to receive snapshot data: Failed to write subovlumn data\n");
  return Receiver_Process_Manager::instance()->receive_size(pool_id_, dataset_, snapshot_, size);
}

bool SCSI_Pool_Receiver::close() {
  if (proc_.null()) return LOG_VIOLATION("proc_ is NULL");
  ACE_exitcode status = 0;
  if (Process_Manager::instance()->wait(proc_->pid(), end_limit, &status) != proc_->pid())
    return LOG_FAILURE("Failed to receive snapshot data end: wait process end error, %m\n");
  if (status != 0) return LOG_FAILURE("Failed to receive snapshot data end: process return false\n");
  // btrfs receive ends before its data is on disk: after a crash the snapshot would look complete and hold
  // zeros, and later increments would build on it.
  return backstore_->sync() || LOG_FAILURE("Failed to receive snapshot data end: sync error\n");
}

}  // namespace scsi_pool
