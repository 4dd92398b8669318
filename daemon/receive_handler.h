#pragma once
// The receiving end of replication:
//   POST   /svc/scsipool/receive/<pool>/<1 for a LUN, 0 for a sub
//   filesystem>/<dataset>/<snapshot>/<recycle|norecycle>/<seq> DELETE
//   /svc/scsipool/receive/<pool>/<0|1>/<dataset>/<snapshot>
// The body of the first is the filesystem's own stream, fed to its receiving tool as it arrives. 200 means
// that the snapshot is whole, on disk and recorded; after anything else nothing of it is recorded, and what
// came is removed. The second drops a half-received snapshot. <seq> is the sequence number modulo 65536; the
// header X-Snapshot-Seq carries all of it, and without it the number nearest to the dataset's newest one is
// taken.

#include <map>
#include <mutex>
#include <string>

#include "daemon/context.h"
#include "platform/http/http_server.h"

namespace scsipoold {

class Request_Log;

// One for the daemon. Any thread.
class Receive_Handler {
 public:
  explicit Receive_Handler(Context& context) : context_(context) {}

  // Is the request one of these?
  static bool takes(const Server_Request& request);
  void handle(const Server_Request& request, Server_Response& response);

  // Mends what the end of the daemon has cut: what came of a transfer goes, and the record of a snapshot that
  // had been deleted already. Before requests are taken. False, logged, when something stays.
  static bool settle_snapshots(Context& context);

 private:
  struct Transfer;
  class Running;

  bool parse(const Server_Request& request, Transfer& transfer, Server_Response& response);
  void receive(const Server_Request& request, Transfer& transfer, Server_Response& response,
               const Request_Log& log);
  bool prepare(Transfer& transfer);
  bool read_head(const std::string& head, Transfer& transfer, bool& known);
  bool feed_known(const Server_Request& request, Transfer& transfer);
  bool feed(const Server_Request& request, Transfer& transfer);
  void cut(const Transfer& transfer);
  bool name_is_free(const Transfer& transfer);
  void finish(const Transfer& transfer, bool recorded);
  bool record(const Transfer& transfer);
  bool readable_as_received(const Transfer& transfer);
  void drop_lost_records(const Transfer& transfer);

  Context& context_;
  std::mutex mutex_;
  std::map<std::string, Body_Reader*> running_;  // by dataset and snapshot
};

// The whole sequence number of which `low` is the lower 16 bits: the one nearest to `newest`, the highest
// that the dataset has (0: none).
ACE_UINT64 whole_sequence_number(ACE_UINT16 low, ACE_UINT64 newest);

}  // namespace scsipoold
