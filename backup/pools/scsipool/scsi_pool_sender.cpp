#include "backup/pools/scsipool/scsi_pool_sender.h"

#include <ace/OS_NS_unistd.h>
#include <poll.h>

#include <cerrno>
#include <chrono>
#include <cstdio>

#include "backup/pools/scsipool/replicate_stop.h"
#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/stream_tool_log.h"
#include "platform/base/log.h"
#include "platform/http/client_io.h"
#include "platform/process/log_line_handle.h"
#include "platform/process/process_manager.h"

namespace scsi_pool {

SCSI_Pool_Sender::SCSI_Pool_Sender(const std::string& pool_id, const Dataset_Manager& dataset)
    : pool_id_(pool_id), dataset_mgr_(dataset), proc_(ACE_Process_Ex::OPTION_READ_STDOUT, "send snapshot") {}

bool SCSI_Pool_Sender::send(Client_IO& io, const std::string& name,
                            const std::vector<std::string>& increments) {
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id_, fs_type, global_dev))
    return LOG_FAILURE("Failed to send scsi pool: get pool '%s' info error\n", pool_id_.c_str());
  ACE_UINT16 seq = 0;
  bool recycle = false;
  if (!get_snapshot_info(name, seq, recycle))
    return LOG_FAILURE("Failed to send scsi pool: get snapshot info error\n");
  char remote_name[4096];
  std::snprintf(remote_name, sizeof remote_name, "%s/%s/%hu", name.c_str(), recycle ? "recycle" : "norecycle",
                seq);
  if (!io.open(remote_name, Client_IO::WRITE))
    return LOG_FAILURE("Failed to send scsi pool: open target pool to write error: %s\n",
                       io.last_error().c_str());
  SCSI_Pool_Backstore_Manager_var backstore(SCSI_Pool_Backstore_Factory::create(pool_id_, global_dev));
  if (!backstore || !backstore->open(fs_type))
    return LOG_FAILURE("Failed to send scsi pool:init backstore manager error\n");
  return spawn(*backstore, name, increments) && copy(io);
}

bool SCSI_Pool_Sender::get_snapshot_info(const std::string& name, ACE_UINT16& seq, bool& recycle) {
  json_spirit::Array snapshots;
  if (!dataset_mgr_.get_snapshot(name.c_str(), snapshots) || snapshots.empty() ||
      !snapshots.back().is_object())
    return LOG_FAILURE("Failed to get snapshot info: list snapshot error\n");
  try {
    const json_spirit::Object& snapshot = *json_spirit::get_object(snapshots.back());
    recycle = json_spirit::object_get<bool>(snapshot, "recycle");
    // The name on the wire carries 16 bits; the receiver finds the full number from its own newest one.
    seq = static_cast<ACE_UINT16>(json_spirit::object_get<ACE_UINT64>(snapshot, "seq"));
  } catch (const std::exception& error) {
    return LOG_FAILURE("Failed to get snapshot info: %s\n", error.what());
  }
  return true;
}

bool SCSI_Pool_Sender::spawn(SCSI_Pool_Backstore_Manager& backstore, const std::string& name,
                             const std::vector<std::string>& increments) {
  if (dataset_mgr_.type() == Dataset_Manager::TYPE_VOLUME) {
    if (!backstore.send_snapshot(dataset_mgr_.dataset(), name, increments, &proc_))
      return LOG_FAILURE("Failed to send volume snapshot: spawn error\n");
  } else if (!backstore.send_filesystem_snapshot(dataset_mgr_.dataset(), name, increments, &proc_)) {
    return LOG_FAILURE("Failed to send filesystem snapshot: spawn error\n");
  }
  stderr_handle_.reset(proc_.detach_stderr());
  if (stderr_handle_.valid() &&
      !log_line_handle(LM_ERROR, stderr_handle_.get(), false, Process_Manager::instance()->reactor(), nullptr,
                       stream_tool_log()))
    return LOG_FAILURE("Failed to send snapshot: handle log error\n");
  return true;
}

// Waits until there is output, its end included. A tool on a pool that hangs says nothing at all: the peer
// gives up on such a stream after the same time.
bool SCSI_Pool_Sender::wait_for_output() {
  constexpr std::chrono::seconds LONGEST_SILENCE{300};
  constexpr int SLICE = 250;  // milliseconds
  const auto end = std::chrono::steady_clock::now() + LONGEST_SILENCE;
  for (;;) {
    if (replication_stopping()) return LOG_FAILURE("Failed to send snapshot: the service is stopping\n");
    pollfd entry{proc_.stdout_handle(), POLLIN, 0};
    if (entry.fd == ACE_INVALID_HANDLE || ::poll(&entry, 1, SLICE) > 0)
      return true;  // or read() tells why not
    if (std::chrono::steady_clock::now() >= end)
      return LOG_FAILURE("Failed to send snapshot: the send process has said nothing for %d seconds\n",
                         static_cast<int>(LONGEST_SILENCE.count()));
  }
}

bool SCSI_Pool_Sender::copy(Client_IO& io) {
  char buffer[8192];
  for (;;) {
    if (!wait_for_output()) return false;
    const ssize_t count = ACE_OS::read(proc_.stdout_handle(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return LOG_FAILURE("Failed to send snapshot: read subvolume data error\n");
    if (count == 0) break;
    if (!io.write(buffer, static_cast<std::size_t>(count))) {
      LOG_FAILURE("Failed to send snapshot: write data error: %s\n", io.last_error().c_str());
      io.close();
      return false;
    }
    size_ += static_cast<ACE_UINT64>(count);
  }
  log_end_of_tool();
  return io.close() ||
         LOG_FAILURE("Failed to send snapshot: failed to close client io, %s\n", io.last_error().c_str());
}

// The end of the output ends the transfer, whatever the tool's status; a bad one is worth a line, because the
// peer will refuse the stream without knowing why.
void SCSI_Pool_Sender::log_end_of_tool() {
  ACE_exitcode status = 0;
  const pid_t pid = Process_Manager::instance()->wait(proc_.pid(), ACE_Time_Value(2), &status);
  if (pid == proc_.pid() && status != 0)
    LOG_NOTICE("The send process ended with status %d after %Q bytes\n", static_cast<int>(status), size_);
}

}  // namespace scsi_pool
