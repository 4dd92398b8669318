#include "daemon/daemon.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "backup/pools/scsipool/receive_process_manager.h"
#include "backup/pools/scsipool/sqlite/scsi_pool_sqlite_manager_impl.h"
#include "daemon/handlers.h"
#include "daemon/notify.h"
#include "daemon/own_url.h"
#include "daemon/receive_handler.h"
#include "daemon/replication_worker.h"
#include "daemon/server.h"
#include "daemon/service.h"
#include "daemon/startup.h"
#include "daemon/stop_signal.h"
#include "daemon/version.h"
#include "platform/base/file.h"
#include "platform/base/log.h"
#include "platform/database/database.h"
#include "platform/lio/lio_library.h"
#include "platform/process/process_manager.h"
#include "platform/rpc/json_rpc.h"
#include "platform/services/alerts.h"
#include "platform/services/queue_manager.h"
#include "platform/services/storage_catalog.h"

namespace scsipoold {

namespace {

// Requests in flight may be formatting a large pool.
constexpr unsigned STOP_GRACE_SECONDS = 600;

bool make_folder(const std::string& path) {
  if (!platform::mkdir_p(path, 0700)) return LOG_FAILURE("Failed to make the folder %s: %m\n", path.c_str());
  if (::access(path.c_str(), W_OK | X_OK) == 0) return true;
  return LOG_FAILURE("Failed to start: the folder %s cannot be written: %m\n", path.c_str());
}

bool take_lock(platform::Lock_File& lock, const std::string& path) {
  if (lock.lock(path, false)) return true;
  if (errno == EWOULDBLOCK) {
    return LOG_FAILURE("Failed to start: another scsipoold is running (it holds %s)\n", path.c_str());
  }
  return LOG_FAILURE("Failed to start: %s: %m\n", path.c_str());
}

// One daemon for a data folder and one for a socket.
class Only_Daemon {
 public:
  bool claim(const Config& config) {
    return make_folder(config.data_folder) && make_folder(platform::dirname_string(config.socket)) &&
           take_lock(data_, config.data_folder + "/scsipoold.lock") &&
           take_lock(socket_, config.socket + ".lock");
  }

 private:
  platform::Lock_File data_, socket_;
};

bool open_catalog(const Config& config, scsi_pool::SCSI_Pool_Sqlite_Manager& catalog) {
  json_spirit::Array pools;
  auto* databases = database::sql::Legacy_Manager::instance();
  if (!databases->configure(config.data_folder, config.catalog_key_file) || !catalog.open() ||
      !catalog.list_pools(pools, nullptr)) {
    return LOG_FAILURE("Failed to start: the catalog in %s cannot be opened\n", config.data_folder.c_str());
  }
  LOG_INFO("The catalog in %s holds %d pools\n", config.data_folder.c_str(), static_cast<int>(pools.size()));
  return true;
}

void configure_lio(const Config& config) {
  LIO_Options options;
  options.lock_file = config.lio_lock_file;
  options.saved_file = config.lio_saved_config;
  LIO_Library::install(LIO_Library::over_configfs(options));
}

class Service_Guard {
 public:
  explicit Service_Guard(const Module_Config& module) {
    std::string error;
    loaded_ = load_service(module, error);
    if (!loaded_) LOG_FAILURE("Failed to start: %s\n", error.c_str());
  }
  ~Service_Guard() { unload_service(); }
  explicit operator bool() const { return loaded_; }

 private:
  bool loaded_ = false;
};

// The local pools as the storage catalog shows them: where peers reach them.
Local_Pool_Source local_pools(const Config& config, scsi_pool::SCSI_Pool_Sqlite_Manager& catalog) {
  const std::string url = own_url(config);
  return [url, &catalog](const std::string& pool_uuid, json_spirit::Array& pools) {
    json_spirit::Array rows;
    if (!catalog.list_pools(rows, pool_uuid.empty() ? nullptr : pool_uuid.c_str())) return false;
    for (const json_spirit::Value& value : rows) {
      const json_spirit::Object* row = json_spirit::get_object(value);
      std::string uuid, name;
      if (row == nullptr || !json_spirit::object_find(*row, "uuid", uuid)) continue;
      json_spirit::object_find(*row, "name", name);
      pools.push_back(json_spirit::Object{
          {"uuid", uuid}, {"name", name}, {"url", url}, {"extended_attrs", json_spirit::Object{}}});
    }
    return true;
  };
}

// Connects the services that the module asks to the daemon, for as long as it lives.
class Services_Guard {
 public:
  Services_Guard(const Config& config, scsi_pool::SCSI_Pool_Sqlite_Manager& catalog) {
    Storage_Catalog_Manager::instance()->local_pool_source(local_pools(config, catalog));
    Pool_Replicate_Manager::instance()->set_sink(&sink_);
    Global_JSON_RPC_Channel::instance()->socket_path(config.copy_manager_socket);
    scsi_pool::Receiver_Process_Manager::instance();  // before the threads that use it
  }
  ~Services_Guard() {
    Queue_Manager::close_instance();
    scsi_pool::Receiver_Process_Manager::close_instance();
    Pool_Replicate_Manager::instance()->set_sink(nullptr);
    Storage_Catalog_Manager::instance()->local_pool_source(nullptr);
    Process_Manager::close();
  }
  Services_Guard(const Services_Guard&) = delete;
  Services_Guard& operator=(const Services_Guard&) = delete;

 private:
  Database_Event_Sink sink_;
};

// Jobs use the module: their worker ends before it, whatever ends the daemon.
struct Worker_Guard {
  Worker_Guard() = default;
  ~Worker_Guard() { stop_replication_worker(); }
  Worker_Guard(const Worker_Guard&) = delete;
  Worker_Guard& operator=(const Worker_Guard&) = delete;
};

bool serve(Context& context, const Router& router) {
  HTTP_Server server;
  Receive_Handler receive(context);
  std::string error;
  const Config& config = context.config;
  const auto handler = [&](const Server_Request& request, Server_Response& response) {
    if (Receive_Handler::takes(request)) {
      receive.handle(request, response);
    } else {
      router.dispatch(request, response);
    }
  };
  if (!server.start(server_options(config), handler, error)) {
    return LOG_FAILURE("Failed to start: %s\n", error.c_str());
  }
  LOG_INFO("scsipoold %s is ready on %s\n", VERSION, config.socket.c_str());
  notify("READY=1");
  const int signal = wait_for_stop_signal();
  LOG_INFO("Stopping (signal %d): requests in flight are finished first\n", signal);
  notify("STOPPING=1");
  stop_replication_worker();
  server.stop(STOP_GRACE_SECONDS);
  return true;
}

bool run(const Config& config) {
  std::string error;
  Only_Daemon only;
  if (!only.claim(config)) return false;
  if (!load_credentials(config, error)) return LOG_FAILURE("Failed to start: %s\n", error.c_str());
  scsi_pool::SCSI_Pool_Sqlite_Manager_Impl catalog;
  if (!open_catalog(config, catalog)) return false;
  configure_lio(config);
  const Services_Guard services(config, catalog);
  Context context{config, catalog};
  run_steps(steps_before_service(), context);
  const Service_Guard service(config.module);
  if (!service) return false;
  const Worker_Guard worker;
  run_steps(steps_after_service(), context);
  Router router;
  add_all_handlers(router, context);
  return serve(context, router);
}

}  // namespace

int run_daemon(const Config& config) {
  if (::geteuid() != 0) {
    LOG_FAILURE("Failed to start: scsipoold must be run as root\n");
    return 1;
  }
  ::umask(0027);
  if (!catch_stop_signals()) {
    LOG_FAILURE("Failed to start: signals cannot be caught: %m\n");
    return 1;
  }
  const bool good = run(config);
  database::sql::Legacy_Manager::instance()->close();
  LOG_INFO("Stopped\n");
  return good ? 0 : 1;
}

}  // namespace scsipoold
