#include "daemon/receive_handler.h"

#include <chrono>
#include <vector>

#include "backup/pools/scsipool/btrfs_stream.h"
#include "backup/pools/scsipool/dataset_manager.h"
#include "backup/pools/scsipool/receive_process_manager.h"
#include "backup/pools/scsipool/scsi_pool_receiver.h"
#include "backup/pools/scsipool/utils.h"
#include "daemon/datasets.h"
#include "daemon/pool_request.h"
#include "daemon/request_log.h"
#include "platform/base/fault_point.h"
#include "platform/base/log.h"
#include "platform/base/names.h"
#include "platform/services/alerts.h"
#include "platform/services/replication_notes.h"

namespace scsipoold {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using scsi_pool::Dataset_Manager;
using scsi_pool::Receiver_Process_Manager;
using scsi_pool::SCSI_Pool_Receiver;

namespace {

constexpr std::size_t FIRST_SEGMENT = 3;  // after svc, scsipool, receive
constexpr std::size_t CHUNK = 64 * 1024;
// How long a new attempt waits for the end of the one before, whose connection was lost.
constexpr std::chrono::seconds TURN_WAIT{30};

bool read_number(const std::string& text, ACE_UINT64 highest, ACE_UINT64& number) {
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  errno = 0;
  const ACE_UINT64 value = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || value > highest) return false;
  number = value;
  return true;
}

std::string key_of(const Unsettled_Snapshot& snapshot) {
  return scsi_pool::dataset_key(snapshot.pool_id, snapshot.lun, snapshot.dataset);
}

bool gone_from_disk(scsi_pool::SCSI_Pool_Backstore_Manager& backstore, bool lun, const std::string& dataset,
                    const std::string& snapshot) {
  return lun ? !backstore.snapshot_exist(dataset, snapshot)
             : !backstore.filesystem_snapshot_exist(dataset, snapshot);
}

bool recorded(Context& context, const Unsettled_Snapshot& snapshot) {
  return snapshot.lun ? context.catalog.snapshot_exist(snapshot.pool_id, snapshot.snapshot_id)
                      : context.catalog.filesystem_snapshot_exist(snapshot.pool_id, snapshot.snapshot_id);
}

// True when nothing of the snapshot is left.
bool drop_partial(const Unsettled_Snapshot& snapshot) {
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager()->init_backstore_mgr(snapshot.pool_id));
  if (!backstore) return false;
  if (gone_from_disk(*backstore, snapshot.lun, snapshot.dataset, snapshot.snapshot_id)) return true;
  if (snapshot.lun ? backstore->destroy_snapshot(snapshot.dataset, snapshot.snapshot_id)
                   : backstore->destroy_filesystem_snapshot(snapshot.dataset, snapshot.snapshot_id))
    return true;
  return LOG_NOTICE("What came of snapshot '%s' is still there; the next attempt or start removes it\n",
                    snapshot.snapshot_id.c_str());
}

bool forget_record(Context& context, const Unsettled_Snapshot& snapshot) {
  return snapshot.lun ? context.catalog.del_snapshot(snapshot.pool_id, snapshot.snapshot_id)
                      : context.catalog.del_filesystem_snapshot(snapshot.pool_id, snapshot.snapshot_id);
}

// Storage without record was being received, a record without storage was being deleted. False when it cannot
// be told or mended now.
bool settle(Context& context, const Unsettled_Snapshot& snapshot) {
  if (!context.catalog.pool_exist(snapshot.pool_id)) return true;
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager()->init_backstore_mgr(snapshot.pool_id));
  if (!backstore) return false;
  // Of a pool that is not mounted everything seems gone: the dataset must be seen, unless it has been
  // deleted.
  const bool seen = snapshot.lun ? backstore->volume_exist(snapshot.dataset)
                                 : backstore->sub_filesystem_exist(snapshot.dataset);
  if (!seen) {
    return !(snapshot.lun ? context.catalog.lun_exist(snapshot.pool_id, snapshot.dataset)
                          : context.catalog.filesystem_exist(snapshot.pool_id, snapshot.dataset));
  }
  if (!recorded(context, snapshot)) return drop_partial(snapshot);
  return !gone_from_disk(*backstore, snapshot.lun, snapshot.dataset, snapshot.snapshot_id) ||
         forget_record(context, snapshot);
}

}  // namespace

// Makes a transfer known to a request that ends it, for as long as it is fed.
class Receive_Handler::Running {
 public:
  Running(Receive_Handler& owner, const Transfer& transfer, Body_Reader* stream);
  ~Running();
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  Receive_Handler& owner_;
  const std::string key_;
};

struct Receive_Handler::Transfer : Unsettled_Snapshot {
  Dataset_Manager dataset_mgr;
  bool recycle = false;
  ACE_UINT16 low_seq = 0;
  ACE_UINT64 seq = 0;       // 0: not given
  std::string stream_uuid;  // what a Btrfs stream says it is of; empty for another
};

Receive_Handler::Running::Running(Receive_Handler& owner, const Transfer& transfer, Body_Reader* stream)
    : owner_(owner), key_(key_of(transfer) + "@" + transfer.snapshot_id) {
  const std::lock_guard<std::mutex> guard(owner_.mutex_);
  owner_.running_[key_] = stream;
}

Receive_Handler::Running::~Running() {
  const std::lock_guard<std::mutex> guard(owner_.mutex_);
  owner_.running_.erase(key_);
}

// A handler that waits for the data of a peer that has vanished would keep the dataset's turn for long.
void Receive_Handler::cut(const Transfer& transfer) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto running = running_.find(key_of(transfer) + "@" + transfer.snapshot_id);
  if (running != running_.end()) running->second->cut();
}

// Where a snapshot is received, or removed, nothing else may have its name: on Btrfs a LUN would be taken for
// it.
bool Receive_Handler::name_is_free(const Transfer& transfer) {
  if (context_.catalog.lun_exist(transfer.pool_id, transfer.snapshot_id) ||
      context_.catalog.filesystem_exist(transfer.pool_id, transfer.snapshot_id))
    return false;
  std::string owner;
  if (context_.catalog.snapshot_exist(transfer.pool_id, transfer.snapshot_id))
    return transfer.lun && manager()->get_snapshot_parent_id(transfer.pool_id, transfer.snapshot_id, owner) &&
           owner == transfer.dataset;
  if (context_.catalog.filesystem_snapshot_exist(transfer.pool_id, transfer.snapshot_id))
    return !transfer.lun &&
           manager()->get_filesystem_snapshot_parent(transfer.pool_id, transfer.snapshot_id, owner) &&
           owner == transfer.dataset;
  return true;
}

ACE_UINT64 whole_sequence_number(ACE_UINT16 low, ACE_UINT64 newest) {
  const ACE_UINT64 span = 65536;
  ACE_UINT64 number = newest - newest % span + low;
  if (number + span / 2 < newest)
    number += span;
  else if (number > newest + span / 2 && number >= span)
    number -= span;
  return number == 0 ? span : number;
}

bool Receive_Handler::takes(const Server_Request& request) {
  return request.path.compare(0, 22, "/svc/scsipool/receive/") == 0;
}

bool Receive_Handler::parse(const Server_Request& request, Transfer& transfer, Server_Response& response) {
  const bool post = request.method == "POST";
  const std::vector<std::string>& segments = request.segments;
  std::string why;
  if (!post && request.method != "DELETE") {
    response.error(405, "only POST and DELETE are taken here");
  } else if (segments.size() != FIRST_SEGMENT + (post ? 6 : 4)) {
    response.error(400, "the path must be .../<pool>/<0 or 1>/<dataset>/<snapshot>" +
                            std::string(post ? "/<recycle or norecycle>/<seq>" : ""));
  } else if (!read_pool_id(segments[3], transfer.pool_id)) {
    response.error(400, "the pool must be a UUID");
  } else if (segments[4] != "0" && segments[4] != "1") {
    response.error(400, "the kind of dataset must be 0 or 1");
  } else if (!platform::valid_dataset_name(segments[5], why)) {
    response.error(400, "dataset: " + why);
  } else if (!read_pool_id(segments[6], transfer.snapshot_id)) {
    response.error(400, "the snapshot must be a UUID");
  } else {
    transfer.lun = segments[4] == "1";
    transfer.dataset = segments[5];
    transfer.dataset_mgr = Dataset_Manager(transfer.pool_id);
    transfer.dataset_mgr.reset(transfer.lun ? Dataset_Manager::TYPE_VOLUME : Dataset_Manager::TYPE_FILESYSTEM,
                               transfer.dataset);
    if (!post) return true;
    ACE_UINT64 low = 0;
    transfer.recycle = segments[7] == "recycle";
    if (!transfer.recycle && segments[7] != "norecycle") {
      response.error(400, "the recycle mark must be recycle or norecycle");
    } else if (!read_number(segments[8], 65535, low)) {
      response.error(400, "the sequence number must be a whole number up to 65535");
    } else {
      transfer.low_seq = static_cast<ACE_UINT16>(low);
      const std::string* whole = request.headers.find("X-Snapshot-Seq");
      const ACE_UINT64 highest = 0x7fffffffffffffffULL;
      if (whole == nullptr || (read_number(*whole, highest, transfer.seq) && transfer.seq % 65536 == low))
        return true;
      response.error(400, "the header X-Snapshot-Seq does not fit the sequence number");
    }
  }
  return false;
}

void Receive_Handler::handle(const Server_Request& request, Server_Response& response) {
  Transfer transfer;
  if (!parse(request, transfer, response)) return;
  Reply reply;
  Request_Log log;
  const bool found = transfer.lun ? find_lun(context_, transfer.pool_id, transfer.dataset, reply)
                                  : find_filesystem(context_, transfer.pool_id, transfer.dataset, reply);
  if (!found) {
    response.json(reply.status, reply.body);
    return;
  }
  if (!name_is_free(transfer)) {
    response.error(409,
                   "'" + transfer.snapshot_id + "' is a LUN, a sub filesystem or another dataset's snapshot");
    return;
  }
  if (request.method == "DELETE") {
    cut(transfer);
    // Ends the tool of a transfer that still runs, which ends the transfer; its own end removes what came.
    Receiver_Process_Manager::instance()->remove(transfer.pool_id, transfer.dataset_mgr,
                                                 transfer.snapshot_id);
    const platform::Turns::Turn turn(context_.turns, key_of(transfer), TURN_WAIT);
    if (turn && !recorded(context_, transfer)) drop_partial(transfer);
    response.json(200, Object{{"snapshot_id", transfer.snapshot_id}});
    return;
  }
  const platform::Turns::Turn turn(context_.turns, key_of(transfer), TURN_WAIT);
  if (!turn) {
    response.error(409, "another transfer into '" + transfer.dataset + "' is running");
    return;
  }
  log.clear();
  receive(request, transfer, response, log);
}

// Refused while the LUN is exported: its initiators would go on with what is no longer there.
void Receive_Handler::receive(const Server_Request& request, Transfer& transfer, Server_Response& response,
                              const Request_Log& log) {
  scsi_pool::Sub_Volume_Exporter::Export_Info info;
  if (transfer.lun && (!manager()->lun_exported(transfer.pool_id, transfer.dataset, info) || info.status)) {
    response.error(409, "LUN '" + transfer.dataset + "' is exported: unexport it first");
    return;
  }
  if (transfer.lun && context_.catalog.snapshot_exist(transfer.pool_id, transfer.snapshot_id) &&
      manager()->snapshot_exported(transfer.pool_id, transfer.snapshot_id)) {
    response.error(409, "snapshot '" + transfer.snapshot_id + "' is there already and exported");
    return;
  }
  const bool fed = prepare(transfer) && feed_known(request, transfer);
  Receiver_Process_Manager::instance()->remove(transfer.pool_id, transfer.dataset_mgr, transfer.snapshot_id);
  if (fed) FAULT_POINT("receive.record");
  const bool recorded = fed && readable_as_received(transfer) && record(transfer);
  const std::string why = log.failure();  // not what cleaning up may add
  finish(transfer, recorded);
  if (!recorded) {
    response.error(500, why.empty() ? "the snapshot was not received" : why);
    return;
  }
  drop_lost_records(transfer);
  response.json(200, Object{{"snapshot_id", transfer.snapshot_id}});
}

// A snapshot of this id is received anew: until it is whole again it must not be listed. And it is noted, so
// that what comes of it goes even when this daemon does not live to remove it.
bool Receive_Handler::prepare(Transfer& transfer) {
  return forget_record(context_, transfer) && note_unsettled(transfer);
}

void Receive_Handler::finish(const Transfer& transfer, bool recorded) {
  FAULT_POINT("receive.recorded");
  if (recorded || drop_partial(transfer)) forget_unsettled(transfer);
}

// A Btrfs stream makes a subvolume of the name that it brings along, whatever the request says: it must be
// the snapshot's. `known` becomes true when enough of the stream is there to tell.
bool Receive_Handler::read_head(const std::string& head, Transfer& transfer, bool& known) {
  std::string name;
  const auto kind = scsi_pool::read_btrfs_stream_head(head, name, transfer.stream_uuid);
  known = kind != scsi_pool::Btrfs_Stream_Head::SHORT;
  return kind != scsi_pool::Btrfs_Stream_Head::KNOWN || name == transfer.snapshot_id ||
         LOG_FAILURE("Failed to receive snapshot '%s': the stream is of another one\n",
                     transfer.snapshot_id.c_str());
}

bool Receive_Handler::feed_known(const Server_Request& request, Transfer& transfer) {
  const Running running(*this, transfer, request.stream);
  return feed(request, transfer);
}

bool Receive_Handler::feed(const Server_Request& request, Transfer& transfer) {
  SCSI_Pool_Receiver receiver(transfer.pool_id, transfer.dataset_mgr);
  if (!receiver.open(transfer.snapshot_id, true)) return false;
  std::vector<char> buffer(CHUNK);
  std::string head;  // held back until it says what the stream is of
  bool known = false;
  for (;;) {
    const ssize_t count = request.stream->read(buffer.data(), buffer.size());
    if (count < 0)
      return LOG_FAILURE("Failed to receive snapshot '%s': the stream was cut: %s\n",
                         transfer.snapshot_id.c_str(), request.stream->error().c_str());
    if (count == 0) break;
    const auto size = static_cast<std::size_t>(count);
    if (!known) {
      head.append(buffer.data(), size);
      if (!read_head(head, transfer, known)) return false;
      if (known && !receiver.receive(head.data(), head.size())) return false;
    } else if (!receiver.receive(buffer.data(), size)) {
      return false;
    }
    FAULT_POINT("receive.data");
  }
  return (known || receiver.receive(head.data(), head.size())) && receiver.close();
}

// Reads the snapshot back: it is there, and a Btrfs one is read-only, which only a whole one becomes, and
// carries the UUID that its stream began with, by which later increments find their base.
bool Receive_Handler::readable_as_received(const Transfer& transfer) {
  const std::string& dataset = transfer.dataset;
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager()->init_backstore_mgr(transfer.pool_id));
  scsi_pool::FS_Info_Item info;
  if (!backstore || gone_from_disk(*backstore, transfer.lun, dataset, transfer.snapshot_id) ||
      !(transfer.lun ? backstore->get_snapshot_info(dataset, transfer.snapshot_id, info)
                     : backstore->get_filesystem_snapshot_info(dataset, transfer.snapshot_id, info)))
    return LOG_FAILURE("Failed to receive snapshot '%s': it is not there after the transfer\n",
                       transfer.snapshot_id.c_str());
  std::string flags, uuid;
  if (json_spirit::object_find(info, "flags", flags) && flags.find("readonly") == std::string::npos)
    return LOG_FAILURE("Failed to receive snapshot '%s': it is not complete\n", transfer.snapshot_id.c_str());
  if (transfer.stream_uuid.empty()) return true;
  return (backstore->get_received_uuid(dataset, transfer.snapshot_id, uuid) &&
          uuid == transfer.stream_uuid) ||
         LOG_FAILURE("Failed to receive snapshot '%s': it was received from '%s', its stream is of '%s'\n",
                     transfer.snapshot_id.c_str(), uuid.c_str(), transfer.stream_uuid.c_str());
}

bool Receive_Handler::record(const Transfer& transfer) {
  const std::string& dataset = transfer.dataset;
  ACE_UINT64 seq = transfer.seq, newest = 0;
  if (seq == 0) {
    const bool read = transfer.lun
                          ? context_.catalog.get_last_seq(transfer.pool_id, dataset, newest)
                          : context_.catalog.get_last_filesystem_seq(transfer.pool_id, dataset, newest);
    if (!read) return LOG_FAILURE("Failed to receive snapshot: get last seq error\n");
    seq = whole_sequence_number(transfer.low_seq, newest);
  }
  return transfer.dataset_mgr.add_snapshot_to_db(transfer.snapshot_id, seq, transfer.recycle);
}

// A forced receive on an older base deletes the newer snapshots of the dataset: their records go as well, and
// are reported.
void Receive_Handler::drop_lost_records(const Transfer& transfer) {
  const std::string& dataset = transfer.dataset;
  scsi_pool::SCSI_Pool_Backstore_Manager_var backstore(manager()->init_backstore_mgr(transfer.pool_id));
  Array rows;
  const auto all = scsi_pool::SCSI_Pool_Sqlite_Manager::SNAPSHOT_LIST_ALL;
  if (!backstore ||
      !(transfer.lun ? context_.catalog.list_lun_snapshots(transfer.pool_id, dataset, rows, all)
                     : context_.catalog.list_filesystem_snapshots(transfer.pool_id, dataset, rows, all)))
    return;
  for (const Value& value : rows) {
    const Object* row = json_spirit::get_object(value);
    std::string id;
    if (row == nullptr || !json_spirit::object_find(*row, "snapshot_uuid", id) ||
        !gone_from_disk(*backstore, transfer.lun, dataset, id))
      continue;
    // A tool that cannot run says the same of every snapshot: what has just come must still be seen.
    if (gone_from_disk(*backstore, transfer.lun, dataset, transfer.snapshot_id)) return;
    transfer.lun ? context_.catalog.del_snapshot(transfer.pool_id, id)
                 : context_.catalog.del_filesystem_snapshot(transfer.pool_id, id);
    LOG_NOTICE("Snapshot '%s' of '%s' is gone: a stream on an older base replaced it\n", id.c_str(),
               dataset.c_str());
    add_event("snapshot_replaced", "a stream on an older base replaced a newer snapshot",
              {{"pool_id", transfer.pool_id}, {"dataset", dataset}, {"snapshot_id", id}});
  }
}

bool Receive_Handler::settle_snapshots(Context& context) {
  std::vector<Unsettled_Snapshot> noted;
  if (!list_unsettled(noted)) return false;
  bool good = true;
  for (const Unsettled_Snapshot& one : noted)
    good = settle(context, one) && forget_unsettled(one) && good;
  return good;
}

}  // namespace scsipoold
