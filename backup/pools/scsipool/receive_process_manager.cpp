#include "backup/pools/scsipool/receive_process_manager.h"

#include <cerrno>
#include <new>

#include "backup/pools/scsipool/scsi_pool_backstore_factory.h"
#include "backup/pools/scsipool/scsi_pool_manager.h"
#include "backup/pools/scsipool/stream_tool_log.h"
#include "platform/base/log.h"
#include "platform/process/log_line_handle.h"
#include "platform/process/process_manager.h"

namespace scsi_pool {

namespace {

using Singleton = ACE_Unmanaged_Singleton<Receiver_Process_Manager, ACE_Null_Mutex>;

ACE_Process_Ex* no_process(bool logged) {
  (void)logged;
  return nullptr;
}

}  // namespace

Receiver_Process_Manager* Receiver_Process_Manager::instance() {
  return Singleton::instance();
}

void Receiver_Process_Manager::close_instance() {
  Singleton::close();
}

Receiver_Process_Manager::~Receiver_Process_Manager() {
  for (auto& entry : process_)
    if (entry.second.process->running()) Process_Manager::instance()->terminate(entry.second.process->pid());
}

bool Receiver_Process_Manager::generate_key(const std::string& pool_id, const Dataset_Manager& dataset,
                                            const std::string& snapshot_id, std::string& key) {
  if (pool_id.empty() || dataset.dataset().empty() || snapshot_id.empty()) return false;
  const char* kind = dataset.type() == Dataset_Manager::TYPE_VOLUME ? "1" : "0";
  key = pool_id + "-" + kind + "-" + dataset.dataset() + "-" + snapshot_id;
  return true;
}

ACE_Process_Ex* Receiver_Process_Manager::get(const std::string& pool_id, const Dataset_Manager& dataset,
                                              const std::string& snapshot_id, bool force) {
  std::string key;
  if (!generate_key(pool_id, dataset, snapshot_id, key))
    return no_process(LOG_FAILURE("Failed to get receive process: generate key error\n"));
  {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const auto entry = process_.find(key);
    if (entry != process_.end() && entry->second.process->running()) return entry->second.process.get();
  }
  return spawn(pool_id, dataset, snapshot_id, force);
}

Receiver_Process_Manager::Process_var Receiver_Process_Manager::share(const std::string& pool_id,
                                                                      const Dataset_Manager& dataset,
                                                                      const std::string& snapshot_id,
                                                                      bool force) {
  std::string key;
  if (get(pool_id, dataset, snapshot_id, force) == nullptr ||
      !generate_key(pool_id, dataset, snapshot_id, key))
    return Process_var();
  std::lock_guard<std::recursive_mutex> guard(mutex_);
  const auto entry = process_.find(key);
  return entry == process_.end() ? Process_var() : entry->second.process;
}

// Without the lock: tools of a pool that is slow must not hold up transfers into others.
ACE_Process_Ex* Receiver_Process_Manager::spawn(const std::string& pool_id, const Dataset_Manager& dataset,
                                                const std::string& snapshot_id, bool force) {
  std::string fs_type, global_dev;
  if (!SCSI_Pool_Manager::instance()->get_pool_backstore_info(pool_id, fs_type, global_dev))
    return no_process(LOG_FAILURE("Failed to spawn scsi pool receive process: get pool '%s' info error\n",
                                  pool_id.c_str()));
  SCSI_Pool_Backstore_Manager_var backstore(SCSI_Pool_Backstore_Factory::create(pool_id, global_dev));
  if (!backstore || !backstore->open(fs_type))
    return no_process(LOG_FAILURE("Failed to spawn scsi pool receive process: init backstore error\n"));

  Process_var process(new (std::nothrow) ACE_Process_Ex(ACE_Process_Ex::OPTION_NONE, "receive snapshot"));
  if (process.null()) {
    errno = ENOMEM;
    return nullptr;
  }
  process->redirect(ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDERR);
  bool started = false;
  if (dataset.type() == Dataset_Manager::TYPE_VOLUME)
    started = backstore->receive_snapshot(dataset.dataset(), snapshot_id, force, process.get());
  else if (dataset.type() == Dataset_Manager::TYPE_FILESYSTEM)
    started = backstore->receive_filesystem_snapshot(dataset.dataset(), snapshot_id, force, process.get());
  else
    return no_process(LOG_FAILURE("Failed to spawn scsi pool receive process: unknown dataset type.\n"));
  if (!started) return no_process(LOG_FAILURE("Failed to spawn scsi pool receive process: spawn error.\n"));

  Auto_Handle errors(process->detach_stderr());
  if (!log_line_handle(LM_ERROR, errors.get(), false, Process_Manager::instance()->reactor(), nullptr,
                       stream_tool_log()))
    return no_process(
        LOG_FAILURE("Failed to spawn scsi pool receive process: failed to log stderr handle\n"));
  std::string key;
  if (!generate_key(pool_id, dataset, snapshot_id, key))
    return no_process(LOG_FAILURE("Failed to spawn scsi pool receive process: generate key error.\n"));
  std::lock_guard<std::recursive_mutex> guard(mutex_);
  entry_type& entry = process_[key];
  if (!entry.process.null() && entry.process->running()) return entry.process.get();
  entry.process = process;
  entry.size = 0;
  return entry.process.get();
}

bool Receiver_Process_Manager::remove(const std::string& pool_id, const Dataset_Manager& dataset,
                                      const std::string& snapshot_id) {
  std::string key;
  if (!generate_key(pool_id, dataset, snapshot_id, key))
    return LOG_FAILURE("Failed to remove receive process: generate key error\n");
  Process_var ended;
  {
    std::lock_guard<std::recursive_mutex> guard(mutex_);
    const auto entry = process_.find(key);
    if (entry == process_.end()) return true;
    ended = entry->second.process;
    process_.erase(entry);
  }
  // Without the lock: a stubborn tool takes seconds to end, and other transfers go on meanwhile.
  if (ended->running()) Process_Manager::instance()->terminate(ended->pid());
  return true;
}

ACE_UINT64 Receiver_Process_Manager::receive_size(const std::string& pool_id, const Dataset_Manager& dataset,
                                                  const std::string& snapshot_id) {
  std::string key;
  if (!generate_key(pool_id, dataset, snapshot_id, key)) {
    LOG_FAILURE("Failed to get receive size: generate key error\n");
    return 0;
  }
  std::lock_guard<std::recursive_mutex> guard(mutex_);
  const auto entry = process_.find(key);
  return entry == process_.end() ? 0 : entry->second.size;
}

bool Receiver_Process_Manager::receive_size(const std::string& pool_id, const Dataset_Manager& dataset,
                                            const std::string& snapshot_id, ACE_UINT64 size) {
  std::string key;
  if (!generate_key(pool_id, dataset, snapshot_id, key))
    return LOG_FAILURE("Failed to add receive size: generate key error\n");
  std::lock_guard<std::recursive_mutex> guard(mutex_);
  const auto entry = process_.find(key);
  if (entry == process_.end()) return false;
  entry->second.size += size;
  return true;
}

}  // namespace scsi_pool

// Runs when the library is unloaded.
__attribute__((destructor)) static void Receiver_Process_Manager_fini() {
  scsi_pool::Receiver_Process_Manager::close_instance();
}
